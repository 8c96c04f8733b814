#include "RuntimeDirectory.h"

#include <map>
#include <string>

#include <gtest/gtest.h>

namespace Parvane {
namespace {

std::string DirectoryWith(const std::map<std::string, std::string> &variables)
{
    return RuntimeDirectory(
        [&variables](const char *name) -> const char * {
            const auto found = variables.find(name);
            return found == variables.end() ? nullptr : found->second.c_str();
        },
        "service");
}

TEST(RuntimeDirectoryTest, TheFirstThatTheServiceManagerSetsComesFirst)
{
    EXPECT_EQ(DirectoryWith({{"RUNTIME_DIRECTORY", "/a"}, {"XDG_RUNTIME_DIR", "/c"}}), "/a");
    EXPECT_EQ(DirectoryWith({{"RUNTIME_DIRECTORY", "/a:/b"}}), "/a");
}

TEST(RuntimeDirectoryTest, ThenTheUsersThenTheSystems)
{
    EXPECT_EQ(DirectoryWith({{"XDG_RUNTIME_DIR", "/run/user/7"}}), "/run/user/7/service");
    EXPECT_EQ(DirectoryWith({}), "/run/service");
}

TEST(RuntimeDirectoryTest, EmptyVariablesCountAsNotSet)
{
    EXPECT_EQ(DirectoryWith({{"RUNTIME_DIRECTORY", ""}, {"XDG_RUNTIME_DIR", "/c"}}), "/c/service");
    EXPECT_EQ(DirectoryWith({{"RUNTIME_DIRECTORY", ""}, {"XDG_RUNTIME_DIR", ""}}), "/run/service");
}

} // namespace
} // namespace Parvane
