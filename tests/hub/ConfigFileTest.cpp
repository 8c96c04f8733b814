#include "ConfigFile.h"

#include <fstream>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneHub {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

/** The first problem of a text, which goes on with a watch; "good" without one. */
std::string ProblemOf(const std::string &text)
{
    const auto configuration = ParseConfiguration(text + "[watch z]\nlink=unix:/z\n");
    const auto &problems = configuration.mProblems;
    return problems.empty() ? "good"
                            : (problems.front().mIsError ? "error: " : "warning: ") +
                                  ToString("f", problems.front());
}

TEST(HubConfigFileTest, AnEmptyFileHasTheDefaults)
{
    const auto configuration = ParseConfiguration("");
    ASSERT_EQ(configuration.mProblems.size(), 1U);
    EXPECT_FALSE(configuration.mProblems[0].mIsError);
    EXPECT_EQ(configuration.mProblems[0].mText,
              "there is no section [watch NAME]: nobody is followed");
    EXPECT_EQ(configuration.mSettings, Settings());
}

TEST(HubConfigFileTest, KeysAreTaken)
{
    const auto configuration = ParseConfiguration(
        "[broker]\nhost=::1\nport=1884\nprotocol=5\nuser=u\npassword_file=/p\ntls=yes\nauthorities=/a\n"
        "certificate=/c\nkey=/k\nclient_id=i\nkeep_alive=10s\n[topics]\nprefix=a/b\ndiscovery=\n"
        "[queue]\nsize=2M\nage=1d\n[metrics]\nlisten=[::1]:99\n[directories]\nstate=/s\nruntime=/r\n"
        "[watch a]\nlink=unix:/a\n");
    ASSERT_THAT(configuration.mProblems, IsEmpty()) << configuration.mProblems[0].mText;
    const Settings &settings = configuration.mSettings;
    EXPECT_EQ(settings.mBroker.mPort, 1884);
    EXPECT_TRUE(settings.mBroker.mIsVersion5);
    EXPECT_EQ(settings.mBroker.mKeepAlive, std::chrono::seconds{10});
    EXPECT_EQ(settings.mTopic, "a/b");
    EXPECT_EQ(settings.mDiscovery, "");
    EXPECT_EQ(settings.mQueue.mMostBytes, 2097152);
    EXPECT_EQ(settings.mQueue.mMostAge, std::chrono::hours{24});
    EXPECT_EQ(ParseListen(settings.mMetrics).mAddress, "::1");
    EXPECT_EQ(ParseListen(settings.mMetrics).mPort, 99);
}

TEST(HubConfigFileTest, WatchesHaveWhatHoldsForAllUnlessTheySayOtherwise)
{
    const auto settings =
        ParseConfiguration(
            "[watch a]\nlink=unix:/a\nsteps=no\n[watches]\nheart_rate=30s\nactivity=yes\n"
            "[watch b]\nlink=ws://h:1\nheart_rate=no\ntoken_file=/t\n")
            .mSettings;
    ASSERT_EQ(settings.mWatches.size(), 2U);
    const WatchSettings &a = settings.mWatches.at("a");
    EXPECT_EQ(a.mWishes.mHeartRate, std::chrono::seconds{30});
    EXPECT_TRUE(a.mWishes.mActivity);
    EXPECT_FALSE(a.mWishes.mSteps);
    const WatchSettings &b = settings.mWatches.at("b");
    EXPECT_EQ(b.mWishes.mHeartRate, std::chrono::seconds{0});
    EXPECT_TRUE(b.mWishes.mSteps);
    EXPECT_EQ(b.mTokenFile, "/t");
}

TEST(HubConfigFileTest, WhatIsWrongIsNamedWithItsLine)
{
    EXPECT_EQ(
        ProblemOf("[broker]\nport=70000\n"),
        "error: f: line 2: [broker] port is '70000': it must be a whole number from 0 to 65535");
    EXPECT_EQ(ProblemOf("[watch a]\nlink=unix:/a\n[watch a]\nlink=unix:/b\n"),
              "error: f: line 3: [watch a] stands here for the second time");
    EXPECT_THAT(ProblemOf("[watch a]\nlink=http://x\n"), HasSubstr("line 2: [watch a] link is"));
    EXPECT_THAT(ProblemOf("[watch a]\nlink=unix:/a\nheart_rate=29s\n"), HasSubstr("from 30s on"));
    EXPECT_EQ(ProblemOf("[watch a]\n"), "error: f: [watch a] has no link");
    EXPECT_EQ(
        ProblemOf("[watch]\n"),
        "warning: f: line 1: unknown section [watch]; known are broker, topics, queue, metrics, "
        "directories, watches, watch NAME");
    EXPECT_EQ(ProblemOf("[watches]\nlink=unix:/a\n"),
              "warning: f: line 2: unknown key [watches] link; known are token_file, fingerprint, "
              "heart_rate, worn, steps, activity");
    EXPECT_EQ(ProblemOf("[broker]\nhosts=a\n"),
              "warning: f: line 2: unknown key [broker] hosts; known are host, port, protocol, "
              "client_id, user, password_file, tls, authorities, certificate, key, keep_alive");
    EXPECT_THAT(ProblemOf("[broker]\nhost=ward.example\n"), HasSubstr("can be read on"));
    EXPECT_THAT(ProblemOf("[topics]\nprefix=a/#\n"), HasSubstr("without + and #"));
    EXPECT_THAT(ProblemOf("[queue]\nsize=1K\n"), HasSubstr("from 64K on"));
    EXPECT_THAT(ProblemOf("[metrics]\nlisten=localhost:1\n"), HasSubstr("ADDRESS:PORT"));
}

/** Both documents have every key, with its default in the sample. */
TEST(HubConfigFileTest, TheDocumentsHaveEveryKey)
{
    const auto read = [](const std::string &path) {
        std::ostringstream text;
        text << std::ifstream(std::string(PARVANE_SOURCE) + path).rdbuf();
        return text.str();
    };
    const std::string sample = read("/packaging/hub.conf.sample");
    const std::string page = read("/docs/man/parvane-hub.conf.5");
    for (const std::string &key : ConfigKeys()) {
        const std::string name = key.substr(key.find('.') + 1);
        EXPECT_THAT(sample, HasSubstr("\n#" + name + "=")) << key;
        EXPECT_THAT(page, HasSubstr("\n.It Cm " + name)) << key;
    }
    std::string uncommented;
    std::istringstream lines(sample);
    for (std::string line; std::getline(lines, line);) {
        const bool isKey = line.starts_with("#[") ||
                           (line.starts_with("#") && line.find('=') != std::string::npos &&
                            line.find(' ') == std::string::npos);
        uncommented += (isKey ? line.substr(1) : line) + '\n';
    }
    const auto configuration = ParseConfiguration(uncommented);
    EXPECT_THAT(configuration.mProblems, IsEmpty()) << configuration.mProblems[0].mText;
    Settings settings = configuration.mSettings;
    settings.mWatches.clear(); // which the file has for an example
    EXPECT_EQ(settings, Settings());
}

} // namespace
} // namespace ParvaneHub
