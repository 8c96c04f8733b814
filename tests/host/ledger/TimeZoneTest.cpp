#include "TimeZone.h"

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneHost {
namespace {

using std::chrono::hours;
using std::chrono::seconds;
using std::chrono::sys_seconds;

std::string FileOf(const std::string &zone)
{
    std::ifstream file("/usr/share/zoneinfo/" + zone, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string Number(std::uint64_t number, std::size_t size)
{
    std::string text;
    for (std::size_t byte = size; byte-- > 0;) {
        text.push_back(static_cast<char>(number >> (8 * byte)));
    }
    return text;
}

std::string Header(char version, std::uint32_t leaps, std::uint32_t times, std::uint32_t types)
{
    return "TZif" + std::string(1, version) + std::string(15, '\0') + Number(0, 8) +
           Number(leaps, 4) + Number(times, 4) + Number(types, 4) + Number(0, 4);
}

/** A zone an hour ahead of UTC for good, or as `footer` says. */
std::string Zone(const std::string &footer)
{
    return Header('2', 0, 0, 0) + Header('2', 0, 0, 1) + Number(3600, 4) + std::string(2, '\0') +
           "\n" + footer + "\n";
}

seconds OffsetAt(const std::string &content, std::int64_t instant)
{
    const auto zone = TimeZone::Parse(content);
    return zone ? zone.Value().OffsetAt(sys_seconds(seconds(instant))) : seconds::max();
}

/** What is wrong with it. */
std::string Wrong(const std::string &content)
{
    const auto zone = TimeZone::Parse(content);
    return zone ? "nothing" : zone.GetError();
}

/** The zone of this process, for as long as it lives. */
class SystemZone
{
public:
    explicit SystemZone(const std::string &zone)
    {
        ::setenv("TZ", zone.c_str(), 1);
        ::tzset();
    }
    SystemZone(const SystemZone &) = delete;
    SystemZone &operator=(const SystemZone &) = delete;
    ~SystemZone()
    {
        ::unsetenv("TZ");
        ::tzset();
    }
};

TEST(TimeZoneTest, SaysWhatTheSystemSaysThroughTwoCenturies)
{
    constexpr std::int64_t kFrom = -2208988800; // 1900
    constexpr std::int64_t kTo = 4102444800;    // 2100
    constexpr std::int64_t kStep = 86400 * 5 + 3607;
    // The system's time may have 32 bits.
    const std::int64_t first =
        std::max<std::int64_t>(kFrom, std::numeric_limits<std::time_t>::min());
    const std::int64_t last = std::min<std::int64_t>(kTo, std::numeric_limits<std::time_t>::max());
    for (const std::string zone :
         {"Europe/Zurich", "America/New_York", "Australia/Lord_Howe", "America/Sao_Paulo",
          "Asia/Kathmandu", "Europe/Dublin", "Africa/Casablanca", "Pacific/Apia", "America/Nuuk",
          "Asia/Gaza", "Pacific/Chatham", "Etc/GMT+12", "UTC", "America/Santiago"}) {
        const auto parsed = TimeZone::Parse(FileOf(zone));
        ASSERT_TRUE(parsed) << zone << ": " << parsed.GetError();
        const SystemZone system(zone);
        int wrong = 0;
        for (std::int64_t instant = first; instant < last; instant += kStep) {
            const auto time = static_cast<std::time_t>(instant);
            std::tm local{};
            ASSERT_NE(::localtime_r(&time, &local), nullptr);
            const seconds offset = parsed.Value().OffsetAt(sys_seconds(seconds(instant)));
            wrong += offset == seconds(local.tm_gmtoff) ? 0 : 1;
            EXPECT_TRUE(wrong > 3 || offset == seconds(local.tm_gmtoff))
                << zone << " at " << instant << ": " << offset.count() << ", not "
                << local.tm_gmtoff;
        }
    }
}

TEST(TimeZoneTest, ChangesInTheSecondThatTheRuleSays)
{
    constexpr std::int64_t kMarch = 4078429200;   // 2099-03-29 01:00 UTC
    constexpr std::int64_t kOctober = 4096573200; // 2099-10-25 01:00 UTC
    const std::string zone = Zone("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(OffsetAt(zone, kMarch - 1), hours(1));
    EXPECT_EQ(OffsetAt(zone, kMarch), hours(2));
    EXPECT_EQ(OffsetAt(zone, kOctober - 1), hours(2));
    EXPECT_EQ(OffsetAt(zone, kOctober), hours(1));
    EXPECT_EQ(OffsetAt(Zone(""), kMarch), hours(1));
    // Days by their number, with and without the 29th of February: 2096-03-01 and 02 are the 61st and 62nd.
    constexpr std::int64_t kFirstOfMarch = 3981398400;
    EXPECT_EQ(OffsetAt(Zone("<+00>0<+01>,J60/0,J61/0"), kFirstOfMarch), hours(1));
    EXPECT_EQ(OffsetAt(Zone("<+00>0<+01>,J60/0,J61/0"), kFirstOfMarch - 1), hours(0));
    EXPECT_EQ(OffsetAt(Zone("<+00>0<+01>,60/0,61/0"), kFirstOfMarch), hours(1));
    EXPECT_EQ(OffsetAt(Zone("<+00>0<+01>,59/0,60/0"), kFirstOfMarch), hours(0));
    EXPECT_EQ(OffsetAt(Zone("EST5EDT,0/0,J365/25"), kFirstOfMarch), hours(-4)) << "summer for good";
    for (const std::int64_t far : {std::numeric_limits<std::int64_t>::max() / 1000,
                                   std::numeric_limits<std::int64_t>::min() / 1000}) {
        EXPECT_GE(OffsetAt(zone, far), hours(1));
        EXPECT_LE(OffsetAt(zone, far), hours(2));
    }
}

TEST(TimeZoneTest, WhatIsNoZoneIsAnErrorThatSaysWhy)
{
    EXPECT_EQ(Wrong(""), "it is cut off");
    EXPECT_EQ(Wrong("#! a text of another kind, and long enough for a header"),
              "it is no time zone");
    EXPECT_EQ(Wrong(Header('\0', 0, 0, 1)), "it is older than version 2");
    EXPECT_EQ(Wrong(Header('2', 0, 0, 0)), "it is cut off");
    EXPECT_EQ(Wrong(Header('2', 0, 0, 0) + Header('2', 0, 0, 0)), "it has no local time");
    EXPECT_EQ(Wrong(Header('2', 0, 0, 0) + Header('2', 0, 0, 0xFFFFFFFF)), "it is cut off");
    EXPECT_EQ(Wrong(Header('2', 0, 0, 0) + Header('2', 0, 1, 1) + Number(0, 8) + "\7" +
                    Number(0, 6) + "\n\n"),
              "it has no local time of that number");
    EXPECT_EQ(Wrong(Header('2', 0, 0, 0) + Header('2', 0, 2, 1) + Number(9, 8) + Number(8, 8) +
                    Number(0, 8) + "\n\n"),
              "its changes are in no order");
    EXPECT_EQ(Wrong(Header('2', 0, 0, 0) + Header('2', 0, 0, 1) + Number(100000, 4) + Number(0, 2) +
                    "\n\n"),
              "an offset of more than 26 hours");
    EXPECT_EQ(Wrong(Header('2', 0, 0, 0) + Header('2', 1, 0, 1) + std::string(18, '\0') + "\n\n"),
              "it counts leap seconds");
    EXPECT_EQ(Wrong(Zone("CET").substr(0, Zone("CET").size() - 1)), "its end is missing");
    for (const char *footer :
         {"CET", "-1", "CET-99", "CET-1CEST", "CET-1CEST,M13.5.0,M10.5.0", "CET-1CEST,M3.5.0",
          "CET-1CEST,M3.0.0,M10.5.0", "CET-1CEST,M3.5.7,M10.5.0", "CET-1CEST,J0,J365",
          "CET-1CEST,366,1", "<CET-1", "CET-1CEST,M3.5.0,M10.5.0/168",
          "CET-1CEST,M3.5.0,M10.5.0x"}) {
        EXPECT_NE(Wrong(Zone(footer)), "nothing") << footer;
    }
}

TEST(TimeZoneTest, AnyBytesAreAZoneOrAnError)
{
    std::mt19937 random(20260101); // NOLINT(cert-msc51-cpp): the same bytes each time
    const std::string whole = FileOf("Europe/Zurich");
    ASSERT_FALSE(whole.empty());
    constexpr int kRounds = 20000;
    int zones = 0;
    for (int round = 0; round < kRounds; ++round) {
        std::string content =
            whole.substr(0, round % 4 == 0 ? random() % whole.size() : whole.size());
        for (std::size_t changes = random() % 4; changes-- > 0 && !content.empty();) {
            // Half of them where the counts are, and the rule at the end.
            const std::size_t at =
                random() %
                (random() % 2 == 0 ? content.size() : std::min<std::size_t>(content.size(), 90));
            content[random() % 3 == 0 ? content.size() - 1 - at % 40 % content.size() : at] =
                static_cast<char>(random());
        }
        if (const auto zone = TimeZone::Parse(content)) {
            ++zones;
            const auto instant = static_cast<std::int64_t>(random()) * 4 - 4'000'000'000;
            EXPECT_LE(std::chrono::abs(zone.Value().OffsetAt(sys_seconds(seconds(instant)))),
                      hours(26));
        }
    }
    EXPECT_GT(zones, kRounds / 20);
    EXPECT_LT(zones, kRounds);
}

} // namespace
} // namespace ParvaneHost
