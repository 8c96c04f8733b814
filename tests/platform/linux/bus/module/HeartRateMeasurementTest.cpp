#include "HeartRateMeasurement.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <numeric>
#include <optional>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvanePlatform {

namespace {

using Contact = HeartRateMeasurement::Contact;
using Bytes = std::vector<std::uint8_t>;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;

/** The fewest bytes of a value with these flags, bit by bit from the service's document. */
std::size_t ShortestWith(unsigned flags)
{
    constexpr std::size_t kFlagsAndNarrowRate = 2;
    std::size_t size = kFlagsAndNarrowRate;
    size += (flags & 0x01U) != 0 ? 1U : 0U;
    size += (flags & 0x08U) != 0 ? 2U : 0U;
    size += (flags & 0x10U) != 0 ? 2U : 0U;
    return size;
}

/** Parses a copy of exactly the value's size, past which a sanitizer lets nothing be read. */
std::optional<HeartRateMeasurement> ParseExactly(const Bytes &value)
{
    const auto copy = std::make_unique<std::uint8_t[]>(value.size());
    std::copy(value.begin(), value.end(), copy.get());
    return ParseHeartRateMeasurement({copy.get(), value.size()});
}

} // namespace

TEST(HeartRateMeasurementTest, NarrowRateIsOneByte)
{
    const auto measurement = ParseHeartRateMeasurement(Bytes{0x00, 0x48});

    ASSERT_TRUE(measurement);
    EXPECT_EQ(measurement->mRate, 72);
    EXPECT_EQ(measurement->mContact, Contact::NotSupported);
    EXPECT_EQ(measurement->mEnergyKilojoules, std::nullopt);
    EXPECT_THAT(measurement->mIntervals, IsEmpty());
    EXPECT_EQ(measurement->PeakToPeakMs(), std::nullopt);
}

TEST(HeartRateMeasurementTest, WideRateIsLittleEndian)
{
    const auto measurement = ParseHeartRateMeasurement(Bytes{0x01, 0x2C, 0x01});

    ASSERT_TRUE(measurement);
    EXPECT_EQ(measurement->mRate, 300);
}

TEST(HeartRateMeasurementTest, RateHasNoSign)
{
    EXPECT_EQ(ParseHeartRateMeasurement(Bytes{0x00, 0xFF})->mRate, 255);
    EXPECT_EQ(ParseHeartRateMeasurement(Bytes{0x01, 0xFF, 0xFF})->mRate, 65535);
}

TEST(HeartRateMeasurementTest, ContactCountsOnlyWhereItIsSupported)
{
    EXPECT_EQ(ParseHeartRateMeasurement(Bytes{0x00, 60})->mContact, Contact::NotSupported);
    EXPECT_EQ(ParseHeartRateMeasurement(Bytes{0x02, 60})->mContact, Contact::NotSupported);
    EXPECT_EQ(ParseHeartRateMeasurement(Bytes{0x04, 60})->mContact, Contact::Lost);
    EXPECT_EQ(ParseHeartRateMeasurement(Bytes{0x06, 60})->mContact, Contact::Detected);
}

TEST(HeartRateMeasurementTest, EnergyIsInKilojoules)
{
    EXPECT_THAT(ParseHeartRateMeasurement(Bytes{0x08, 60, 0x34, 0x12})->mEnergyKilojoules,
                Optional(0x1234));
    EXPECT_THAT(ParseHeartRateMeasurement(Bytes{0x08, 60, 0xFF, 0xFF})->mEnergyKilojoules,
                Optional(65535));
}

TEST(HeartRateMeasurementTest, LastIntervalIsThePeakToPeakValue)
{
    // 0x0340 = 832, 0x0354 = 852: 852 / 1024 s are 832.03 ms.
    const auto measurement = ParseHeartRateMeasurement(Bytes{0x16, 72, 0x40, 0x03, 0x54, 0x03});

    ASSERT_TRUE(measurement);
    EXPECT_THAT(measurement->mIntervals, ElementsAre(832, 852));
    EXPECT_THAT(measurement->PeakToPeakMs(), Optional(832));
}

TEST(HeartRateMeasurementTest, IntervalsAreRoundedToTheNextMillisecond)
{
    EXPECT_THAT(ParseHeartRateMeasurement(Bytes{0x10, 60, 0x00, 0x04})->PeakToPeakMs(),
                Optional(1000));
    EXPECT_THAT(ParseHeartRateMeasurement(Bytes{0x10, 60, 0x01, 0x00})->PeakToPeakMs(),
                Optional(1)); // 0.98 ms
    EXPECT_THAT(ParseHeartRateMeasurement(Bytes{0x10, 60, 0x40, 0x00})->PeakToPeakMs(),
                Optional(63)); // 62.5 ms
    EXPECT_THAT(ParseHeartRateMeasurement(Bytes{0x10, 60, 0xFF, 0xFF})->PeakToPeakMs(),
                Optional(63999)); // 63999.02 ms
}

TEST(HeartRateMeasurementTest, AllFieldsFollowEachOther)
{
    const auto measurement = ParseHeartRateMeasurement(
        Bytes{0x1F, 0x90, 0x00, 0x10, 0x00, 0x9A, 0x01, 0x9B, 0x01, 0x9C, 0x01});

    ASSERT_TRUE(measurement);
    EXPECT_EQ(measurement->mRate, 144);
    EXPECT_EQ(measurement->mContact, Contact::Detected);
    EXPECT_THAT(measurement->mEnergyKilojoules, Optional(16));
    EXPECT_THAT(measurement->mIntervals, ElementsAre(0x19A, 0x19B, 0x19C));
}

TEST(HeartRateMeasurementTest, HalfAnIntervalAtTheEndIsLeftOut)
{
    const auto measurement = ParseHeartRateMeasurement(Bytes{0x10, 60, 0x00, 0x04, 0x55});

    ASSERT_TRUE(measurement);
    EXPECT_THAT(measurement->mIntervals, ElementsAre(0x400));
}

TEST(HeartRateMeasurementTest, AnnouncedIntervalsThatAreNotThereMakeNoMeasurement)
{
    EXPECT_EQ(ParseHeartRateMeasurement(Bytes{0x10, 60}), std::nullopt);
    EXPECT_EQ(ParseHeartRateMeasurement(Bytes{0x10, 60, 0x00}), std::nullopt);
}

TEST(HeartRateMeasurementTest, BytesThatNothingAnnouncesAreNotLookedAt)
{
    const auto measurement = ParseHeartRateMeasurement(Bytes{0x00, 60, 1, 2, 3, 4, 5});

    ASSERT_TRUE(measurement);
    EXPECT_EQ(measurement->mRate, 60);
    EXPECT_THAT(measurement->mIntervals, IsEmpty());
    EXPECT_EQ(measurement->mEnergyKilojoules, std::nullopt);
}

TEST(HeartRateMeasurementTest, NoBytesMakeNoMeasurement)
{
    EXPECT_EQ(ParseHeartRateMeasurement({}), std::nullopt);
}

TEST(HeartRateMeasurementTest, EveryFlagAndLengthGivesWhatTheFlagsAnnounceOrNothing)
{
    constexpr std::size_t kLongest = 20;
    for (unsigned flags = 0; flags < 256; ++flags) {
        for (std::size_t size = 1; size <= kLongest; ++size) {
            SCOPED_TRACE(testing::Message() << "flags " << flags << ", length " << size);
            Bytes value(size);
            std::iota(value.begin(), value.end(), std::uint8_t{0x80});
            value[0] = static_cast<std::uint8_t>(flags);

            const auto measurement = ParseExactly(value);

            const std::size_t shortest = ShortestWith(flags);
            ASSERT_EQ(measurement.has_value(), size >= shortest);
            if (!measurement) {
                continue;
            }
            EXPECT_EQ(measurement->mRate, (flags & 0x01U) != 0 ? 0x8281 : 0x81);
            EXPECT_EQ(measurement->mEnergyKilojoules.has_value(), (flags & 0x08U) != 0);
            const std::size_t intervals =
                (flags & 0x10U) != 0 ? (size - shortest) / 2 + 1 : std::size_t{0};
            EXPECT_THAT(measurement->mIntervals, SizeIs(intervals));
        }
    }
}

TEST(HeartRateMeasurementTest, ReservedBitsChangeNothing)
{
    for (unsigned reserved = 0; reserved < 8; ++reserved) {
        const auto flags = static_cast<std::uint8_t>((reserved << 5U) | 0x1EU);

        const auto measurement =
            ParseHeartRateMeasurement(Bytes{flags, 99, 0x02, 0x00, 0x00, 0x02});

        ASSERT_TRUE(measurement) << reserved;
        EXPECT_EQ(measurement->mRate, 99);
        EXPECT_EQ(measurement->mContact, Contact::Detected);
        EXPECT_THAT(measurement->mEnergyKilojoules, Optional(2));
        EXPECT_THAT(measurement->PeakToPeakMs(), Optional(500));
    }
}

TEST(HeartRateMeasurementTest, HugeValuesAreReadToTheirEnd)
{
    const Bytes value(1'000'001, 0xFF);

    const auto measurement = ParseExactly(value);

    ASSERT_TRUE(measurement);
    EXPECT_EQ(measurement->mRate, 65535);
    EXPECT_THAT(measurement->mIntervals, SizeIs((value.size() - 5) / 2));
    EXPECT_THAT(measurement->PeakToPeakMs(), Optional(63999));
}

} // namespace ParvanePlatform
