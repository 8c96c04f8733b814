#include "Token.h"

#include <ctime>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeWatch.h"
#include "PrivateFile.h"
#include "TestLoop.h"
#include "TokenStore.h"

namespace ParvaneGateway {
namespace {

const std::string kHash(64, 'a');

TEST(TokenTest, ASecretHas256BitsOfChance)
{
    std::set<std::string> secrets;
    for (int i = 0; i < 100; ++i) {
        const std::string secret = MakeSecret();
        EXPECT_EQ(secret.size(), 43U);
        EXPECT_EQ(secret.find_first_not_of(
                      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
                  std::string::npos);
        secrets.insert(secret);
    }
    EXPECT_EQ(secrets.size(), 100U);
}

TEST(TokenTest, AHashIsThatOfTheStandardsExample)
{
    EXPECT_EQ(HashOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(TokenTest, TextsAreComparedWhole)
{
    EXPECT_TRUE(IsSame("abc", "abc"));
    EXPECT_TRUE(IsSame("", ""));
    EXPECT_FALSE(IsSame("abc", "abd"));
    EXPECT_FALSE(IsSame("abc", "bbc"));
    EXPECT_FALSE(IsSame("abc", "ab"));
}

TEST(TokenTest, GoesIntoTextAndBack)
{
    const std::vector<Token> tokens = {{"my phone", Scope::Phone, kHash, 1, 0},
                                       {"Küche", Scope::Control, kHash, 2, 3}};
    EXPECT_EQ(ParseTokens(ToText(tokens)), tokens);
}

TEST(TokenTest, DamagedTextIsAnError)
{
    const std::string good = ToText({{"one", Scope::View, kHash, 1, 0}});
    EXPECT_NO_THROW(ParseTokens(good));
    EXPECT_THROW(ParseTokens(""), std::runtime_error);
    EXPECT_THROW(ParseTokens(good.substr(0, good.size() / 2)), std::runtime_error);
    const auto replaced = [&good](const std::string &what, const std::string &by) {
        std::string text = good;
        return text.replace(text.find(what), what.size(), by);
    };
    EXPECT_THROW(ParseTokens(replaced("\"version\": 1", "\"version\": 2")), std::runtime_error);
    EXPECT_THROW(ParseTokens(replaced("view", "all")), std::runtime_error);
    EXPECT_THROW(ParseTokens(replaced("\"one\"", "\"\"")), std::runtime_error);
    EXPECT_THROW(ParseTokens(replaced("aaa", "aa")), std::runtime_error);
    EXPECT_THROW(ParseTokens(ToText(
                     {{"one", Scope::View, kHash, 1, 0}, {"one", Scope::Phone, kHash, 1, 0}})),
                 std::runtime_error);
}

class TokenStoreTest : public ::testing::Test
{
protected:
    TestFolder mFolder;
    std::string mDirectory = mFolder.Path("");
    TokenFile mFile{mDirectory};
};

TEST_F(TokenStoreTest, KeepsHashesAloneInAFileForItsOwnerAlone)
{
    const std::string secret = mFile.Add("one", Scope::Phone, 0);
    std::ifstream file(mDirectory + "/tokens");
    std::stringstream text;
    text << file.rdbuf();
    EXPECT_THAT(text.str(), ::testing::HasSubstr(HashOf(secret)));
    EXPECT_THAT(text.str(), ::testing::Not(::testing::HasSubstr(secret)));
    struct stat status
    {};
    ASSERT_EQ(::stat((mDirectory + "/tokens").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(TokenStoreTest, ANameIsThereOnce)
{
    EXPECT_FALSE(mFile.Add("one", Scope::Phone, 0).empty());
    EXPECT_THROW(std::ignore = mFile.Add("one", Scope::View, 0), std::runtime_error);
    EXPECT_TRUE(mFile.Remove("one"));
    EXPECT_FALSE(mFile.Remove("one"));
    EXPECT_TRUE(mFile.Load().empty());
}

TEST_F(TokenStoreTest, SeesChangesAtOnce)
{
    TokenStore store(mDirectory);
    int changes = 0;
    store.SetListener([&changes] { ++changes; });
    const std::string secret = mFile.Add("one", Scope::View, 0);
    EXPECT_TRUE(RunUntil([&] { return changes == 1; }));
    const auto token = store.Find(secret);
    ASSERT_TRUE(token);
    EXPECT_EQ(token->mScope, Scope::View);
    EXPECT_TRUE(store.Find("one", token->mHash));
    EXPECT_FALSE(store.Find("two", token->mHash));

    ASSERT_TRUE(mFile.Remove("one"));
    EXPECT_TRUE(RunUntil([&] { return changes == 2; }));
    EXPECT_FALSE(store.Find(secret));
}

TEST_F(TokenStoreTest, ATokenThatHasEndedCountsNoMore)
{
    const std::string ended = mFile.Add("old", Scope::Phone, std::time(nullptr));
    const std::string later = mFile.Add("new", Scope::Phone, std::time(nullptr) + 1000);
    const TokenStore store(mDirectory);
    EXPECT_FALSE(store.Find(ended));
    EXPECT_FALSE(store.Find("old", HashOf(ended)));
    EXPECT_TRUE(store.Find(later));
}

TEST_F(TokenStoreTest, ADamagedFileLetsNobodyInAndIsNotOverwritten)
{
    const std::string secret = mFile.Add("one", Scope::Phone, 0);
    ReplacePrivateFile(mDirectory + "/tokens", "damaged");
    const TokenStore store(mDirectory);
    EXPECT_FALSE(store.Find(secret));
    EXPECT_THROW(std::ignore = mFile.Add("two", Scope::Phone, 0), std::runtime_error);
}

} // namespace
} // namespace ParvaneGateway
