#include "StandardDescriptors.h"

#include <array>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

#include <gtest/gtest.h>

namespace Parvane {
namespace {

/** Exits with 0 when the descriptors that were closed lead nowhere, and no other has been opened. */
[[noreturn]] void StartWithout(std::initializer_list<int> closed)
{
    const int next = ::open("/dev/null", O_RDWR);
    ::close(next);
    for (const int fd : closed) {
        ::close(fd);
    }
    ReserveStandardDescriptors();
    for (const int fd : closed) {
        std::array<char, 64> target{};
        const std::string name = "/proc/self/fd/" + std::to_string(fd);
        if (::readlink(name.c_str(), target.data(), target.size() - 1) < 0 ||
            std::string(target.data()) != "/dev/null") {
            ::_exit(1);
        }
    }
    ::_exit(::open("/dev/null", O_RDWR) == next ? 0 : 2);
}

TEST(StandardDescriptorsDeathTest, WhatIsMissingIsOpened)
{
    EXPECT_EXIT(StartWithout({0}), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(StartWithout({1}), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(StartWithout({2}), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(StartWithout({0, 1, 2}), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(StartWithout({}), testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace Parvane
