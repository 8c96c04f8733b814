#include "SocketPath.h"

#include <map>

#include <gtest/gtest.h>

namespace ParvaneHost {
namespace {

std::string PathWith(const std::map<std::string, std::string> &variables)
{
    return DefaultSocketPath([&variables](const char *name) {
        const auto found = variables.find(name);
        return found == variables.end() ? nullptr : found->second.c_str();
    });
}

TEST(SocketPathTest, TheLinkVariableComesFirst)
{
    EXPECT_EQ(
        PathWith(
            {{"PARVANE_LINK", "/a/b"}, {"RUNTIME_DIRECTORY", "/r"}, {"XDG_RUNTIME_DIR", "/x"}}),
        "/a/b");
}

TEST(SocketPathTest, ThenTheRuntimeDirectoryOfTheService)
{
    EXPECT_EQ(PathWith({{"RUNTIME_DIRECTORY", "/r"}, {"XDG_RUNTIME_DIR", "/x"}}), "/r/link.sock");
    EXPECT_EQ(PathWith({{"RUNTIME_DIRECTORY", "/r:/second"}}), "/r/link.sock");
}

TEST(SocketPathTest, ThenTheUsersRuntimeDirectory)
{
    EXPECT_EQ(PathWith({{"XDG_RUNTIME_DIR", "/run/user/7"}}), "/run/user/7/parvane/link.sock");
}

TEST(SocketPathTest, ElseTheSystemsPath)
{
    EXPECT_EQ(PathWith({}), "/run/parvane/link.sock");
}

TEST(SocketPathTest, EmptyVariablesCountAsNotSet)
{
    EXPECT_EQ(PathWith({{"PARVANE_LINK", ""}, {"RUNTIME_DIRECTORY", ""}, {"XDG_RUNTIME_DIR", ""}}),
              "/run/parvane/link.sock");
}

} // namespace
} // namespace ParvaneHost
