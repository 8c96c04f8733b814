#include "ReceivedDataParser.h"

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ScriptedPlatform.h"
#include "SensorData.h"
#include "SensorListData.h"

namespace Parvane {
namespace {

using testing::IsEmpty;

class ReceivedDataParserTest : public testing::Test
{
protected:
    // The bytes in a block of exactly their size, so that reading past it is found.
    std::shared_ptr<HeaderData> Parse(const Bytes &bytes) const
    {
        const std::unique_ptr<uint8_t[]> block(new uint8_t[bytes.size()]);
        std::copy(bytes.begin(), bytes.end(), block.get());
        return mParser.Parse(block.get(), bytes.size());
    }

    std::shared_ptr<SensorData> ParseSensor(const Bytes &bytes) const
    {
        return std::dynamic_pointer_cast<SensorData>(Parse(bytes));
    }

    ScriptedPlatform mPlatform;
    ReceivedDataParser mParser;
};

TEST_F(ReceivedDataParserTest, CommandOneMakesAnEmptySensorList)
{
    const auto record = std::dynamic_pointer_cast<SensorListData>(mParser.CreateHeaderData(1));

    ASSERT_NE(nullptr, record);
    EXPECT_EQ(1, record->mMessageType);
    EXPECT_THAT(*record->mSensorList, IsEmpty());
}

TEST_F(ReceivedDataParserTest, CommandsTwoToFourMakeAPlainSensorRecord)
{
    for (const int command : {2, 3, 4}) {
        const auto record =
            std::dynamic_pointer_cast<SensorData>(mParser.CreateHeaderData(command));
        ASSERT_NE(nullptr, record);
        EXPECT_EQ(command, record->mMessageType);
        EXPECT_EQ(SensorType(0), record->GetSensorType());
    }
}

TEST_F(ReceivedDataParserTest, EveryOtherCommandMakesNothing)
{
    for (const int command : {-1, 0, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 257}) {
        EXPECT_EQ(nullptr, mParser.CreateHeaderData(command)) << command;
    }
}

TEST_F(ReceivedDataParserTest, MeasureOnceNamesTheSensor)
{
    const auto record = ParseSensor({0x02, 0x00, 0x00, 0x07});

    ASSERT_NE(nullptr, record);
    EXPECT_EQ(2, record->mMessageType);
    EXPECT_EQ(0, record->mMessageFlags);
    EXPECT_EQ(1, record->mHeaderCode);
    EXPECT_EQ(7, record->mCategory);
    EXPECT_EQ(6, record->mDataFormat);
    EXPECT_EQ(0, record->mDataOption);
}

TEST_F(ReceivedDataParserTest, FlagsAndCodeBitAndFormatOfAStart)
{
    const auto record = ParseSensor({0x73, 0x00, 0x00, 0x01, 0x02});

    ASSERT_NE(nullptr, record);
    EXPECT_EQ(3, record->mMessageType);
    EXPECT_EQ(0, record->mHeaderCode);
    EXPECT_EQ(3, record->mMessageFlags);
    EXPECT_EQ(2, record->mDataFormat);
    EXPECT_EQ(1, record->mCategory);
}

TEST_F(ReceivedDataParserTest, FormatsUpToFiveAreTakenAndLargerOnesAreSix)
{
    const int expected[] = {0, 1, 2, 3, 4, 5, 6, 6};
    for (uint8_t format = 0; format < 8; ++format) {
        const auto record = ParseSensor({0x03, 0, 0, 1, format});
        ASSERT_NE(nullptr, record);
        EXPECT_EQ(expected[format], record->mDataFormat);
    }
}

TEST_F(ReceivedDataParserTest, FormatNineIsOutOfRangeAndSoIs255)
{
    EXPECT_EQ(6, ParseSensor({0x03, 0, 0, 1, 0x09})->mDataFormat);
    EXPECT_EQ(6, ParseSensor({0x03, 0, 0, 1, 0xFF})->mDataFormat);
}

TEST_F(ReceivedDataParserTest, OnlyAStartHasAFormat)
{
    EXPECT_EQ(6, ParseSensor({0x02, 0, 0, 1, 0x02})->mDataFormat);
    EXPECT_EQ(6, ParseSensor({0x04, 0, 0, 1, 0x02})->mDataFormat);
}

TEST_F(ReceivedDataParserTest, NoRequestForASensorHasAnOption)
{
    EXPECT_EQ(0, ParseSensor({0x02, 0, 0, 1, 0x02})->mDataOption);
    EXPECT_EQ(0, ParseSensor({0x03, 0, 0, 1, 0x02})->mDataOption);
    EXPECT_EQ(0, ParseSensor({0x04, 0, 0, 1, 0x02})->mDataOption);
}

TEST_F(ReceivedDataParserTest, StopNamesTheSensor)
{
    const auto record = ParseSensor({0x14, 0x00, 0x00, 0x03});

    ASSERT_NE(nullptr, record);
    EXPECT_EQ(4, record->mMessageType);
    EXPECT_EQ(1, record->mMessageFlags);
    EXPECT_EQ(3, record->mCategory);
}

TEST_F(ReceivedDataParserTest, BitSevenHasNoEffect)
{
    const auto record = std::dynamic_pointer_cast<SensorListData>(Parse({0x81}));

    ASSERT_NE(nullptr, record);
    EXPECT_EQ(1, record->mMessageType);
    EXPECT_EQ(0, record->mMessageFlags);
    EXPECT_EQ(1, record->mHeaderCode);
}

TEST_F(ReceivedDataParserTest, SensorListRequestCarriesFlagsAndCode)
{
    const auto record = std::dynamic_pointer_cast<SensorListData>(Parse({0x61, 9, 9, 9, 9}));

    ASSERT_NE(nullptr, record);
    EXPECT_EQ(2, record->mMessageFlags);
    EXPECT_EQ(0, record->mHeaderCode);
    EXPECT_EQ(nullptr, record->mDeviceAddress);
}

TEST_F(ReceivedDataParserTest, CommandsZeroAndFiveToFifteenGiveNothing)
{
    for (const int command : {0, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}) {
        for (const int upper : {0x00, 0x30, 0x40, 0x80, 0xF0}) {
            const auto first = static_cast<uint8_t>(command | upper);
            EXPECT_EQ(nullptr, Parse({first, 0, 0, 1, 1})) << int{first};
        }
    }
}

TEST_F(ReceivedDataParserTest, BytesOneAndTwoChangeNothing)
{
    const auto plain = ParseSensor({0x53, 0x00, 0x00, 0x02, 0x04});
    const auto noisy = ParseSensor({0x53, 0xFF, 0xA5, 0x02, 0x04, 0x77, 0x88});

    ASSERT_NE(nullptr, plain);
    ASSERT_NE(nullptr, noisy);
    EXPECT_EQ(plain->mMessageType, noisy->mMessageType);
    EXPECT_EQ(plain->mMessageFlags, noisy->mMessageFlags);
    EXPECT_EQ(plain->mHeaderCode, noisy->mHeaderCode);
    EXPECT_EQ(plain->mCategory, noisy->mCategory);
    EXPECT_EQ(plain->mDataFormat, noisy->mDataFormat);
}

TEST_F(ReceivedDataParserTest, CategoryIsTakenWhole)
{
    EXPECT_EQ(255, ParseSensor({0x02, 0, 0, 0xFF})->mCategory);
}

TEST_F(ReceivedDataParserTest, RecordIsStampedWithTheTimeOfItsCreation)
{
    mPlatform.SetTime(1234567890);

    EXPECT_EQ(1234567890, ParseSensor({0x02, 0, 0, 1})->mTimestamp);
}

TEST_F(ReceivedDataParserTest, MissingBytesReadAsZero)
{
    for (const Bytes &bytes : {Bytes{0x03}, Bytes{0x03, 1}, Bytes{0x03, 1, 2}}) {
        const auto record = ParseSensor(bytes);
        ASSERT_NE(nullptr, record);
        EXPECT_EQ(0, record->mCategory);
        EXPECT_EQ(0, record->mDataFormat);
    }
}

TEST_F(ReceivedDataParserTest, StartWithoutFormatHasFormatZero)
{
    const auto record = ParseSensor({0x03, 0, 0, 1});

    ASSERT_NE(nullptr, record);
    EXPECT_EQ(1, record->mCategory);
    EXPECT_EQ(0, record->mDataFormat);
}

TEST_F(ReceivedDataParserTest, EmptyPacketGivesNothing)
{
    EXPECT_EQ(nullptr, Parse({}));
    EXPECT_EQ(nullptr, mParser.Parse(nullptr, 0));
}

TEST_F(ReceivedDataParserTest, ParserNeverLogsAndNeverAnswers)
{
    for (int first = 0; first < 256; ++first) {
        Parse({static_cast<uint8_t>(first), 0xFF, 0xFF, 0xFF, 0xFF});
    }

    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

} // namespace
} // namespace Parvane
