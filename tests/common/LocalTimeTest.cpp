#include "LocalTime.h"

#include <cstdlib>
#include <ctime>
#include <limits>

#include <gtest/gtest.h>

namespace Parvane {
namespace {

TEST(LocalTimeTest, AnInstantIsToldInThisTimeZone)
{
    ::setenv("TZ", "XYZ-1", 1);
    ::tzset();
    EXPECT_EQ(LocalTime(0), "1970-01-01 01:00:00+0100");
    ::unsetenv("TZ");
    ::tzset();
}

TEST(LocalTimeTest, ATimeBeyondAllCalendarsIsEmpty)
{
    if (sizeof(std::time_t) < 8) {
        GTEST_SKIP() << "every time of 32 bits is within the calendar";
    }
    EXPECT_EQ(LocalTime(std::numeric_limits<std::time_t>::max()), "");
}

} // namespace
} // namespace Parvane
