#include "RuntimeDirectory.h"

#include <map>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "Printable.h"

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

TEST(RuntimeDirectoryTest, WhatIsConfiguredGoesBeforeTheSystemsOnly)
{
    EXPECT_EQ(RuntimeDirectory([](const char *) { return ""; }, "service", "/configured"),
              "/configured");
    EXPECT_EQ(RuntimeDirectory([](const char *) { return "/set"; }, "service", "/configured"),
              "/set");
}

TEST(RuntimeDirectoryTest, RelativePathsOfTheUserAreIgnoredAndOfTheManagerRefused)
{
    EXPECT_EQ(DirectoryWith({{"XDG_RUNTIME_DIR", "run"}}), "/run/service");
    for (const std::string value : {"run", "run:/b", ":/b", "\x1b"}) {
        try {
            DirectoryWith({{"RUNTIME_DIRECTORY", value}, {"XDG_RUNTIME_DIR", "/c"}});
            FAIL() << value;
        } catch (const std::runtime_error &failure) {
            EXPECT_EQ(failure.what(), "RUNTIME_DIRECTORY is '" + Printable(value) +
                                          "': it must be an absolute path");
        }
    }
}

} // namespace
} // namespace Parvane
