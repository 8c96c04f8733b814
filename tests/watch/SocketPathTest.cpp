#include "SocketPath.h"

#include <map>
#include <string>

#include <gtest/gtest.h>

namespace ParvaneWatch {
namespace {

std::string PathWith(const std::map<std::string, std::string> &variables)
{
    return DefaultSocketPath([&variables](const char *name) -> const char * {
        const auto found = variables.find(name);
        return found == variables.end() ? nullptr : found->second.c_str();
    });
}

TEST(SocketPathTest, TheFirstRuntimeDirectoryComesFirst)
{
    EXPECT_EQ(PathWith({{"RUNTIME_DIRECTORY", "/a:/b"}, {"XDG_RUNTIME_DIR", "/c"}}),
              "/a/control.sock");
}

TEST(SocketPathTest, ThenTheUsersThenTheSystems)
{
    EXPECT_EQ(PathWith({{"RUNTIME_DIRECTORY", ""}, {"XDG_RUNTIME_DIR", "/c"}}),
              "/c/parvane/control.sock");
    EXPECT_EQ(PathWith({{"XDG_RUNTIME_DIR", ""}}), "/run/parvane/control.sock");
}

} // namespace
} // namespace ParvaneWatch
