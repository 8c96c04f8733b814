#include "ReadingText.h"

#include <gtest/gtest.h>

namespace ParvaneHub {
namespace {

using ParvaneHost::Instant;
using std::chrono::milliseconds;

TEST(ReadingTextTest, TimesAreThoseOfTheCalendarAlsoWhereTheSystemsTimeHas32Bits)
{
    EXPECT_EQ(TimeText(Instant(milliseconds(1773480413123))), "2026-03-14T09:26:53.123Z");
    EXPECT_EQ(TimeText(Instant(milliseconds(4107542399007))), "2100-02-28T23:59:59.007Z");
    EXPECT_EQ(TimeText(Instant(milliseconds(-1))), "1969-12-31T23:59:59.999Z");
}

} // namespace
} // namespace ParvaneHub
