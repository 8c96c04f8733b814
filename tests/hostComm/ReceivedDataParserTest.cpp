#include "ReceivedDataParser.h"

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ScriptedPlatform.h"
#include "SensorData.h"
#include "SensorListData.h"
#include "Vectors.h"

namespace Parvane {
namespace {

using nlohmann::json;
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

/** The record in the words of docs/vectors; null for none. */
json PacketOf(const HeaderData *record)
{
    if (record == nullptr) {
        return nullptr;
    }
    json packet{{"flags", record->mMessageFlags}, {"code", record->mHeaderCode == 0}};
    const auto *const request = dynamic_cast<const SensorData *>(record);
    if (request == nullptr) {
        packet["kind"] = "list";
        return packet;
    }
    const bool start = request->mMessageType == 3;
    packet["kind"] = start ? "start" : request->mMessageType == 2 ? "measure" : "stop";
    packet["sensor"] = request->mCategory;
    const bool given = request->mDataFormat != SensorData::kDefaultDataFormat;
    if (start || given) {
        packet["format"] = given ? json(request->mDataFormat) : json();
    }
    return packet;
}

TEST_F(ReceivedDataParserTest, RequestsOfTheVectorsAreReadAsTheyStand)
{
    for (const json &vector : Vectors::SentBy("phone")) {
        SCOPED_TRACE(vector.at("name"));
        const auto record = Parse(Vectors::FromHex(vector.at("bytes")));
        EXPECT_EQ(PacketOf(record.get()), vector.at("packet"));
        EXPECT_EQ(vector.value("dropped", "") == "command",
                  record == nullptr && !vector.contains("at_ms"));
        if (record == nullptr) {
            continue;
        }
        EXPECT_THAT(record->mHeaderCode, testing::AnyOf(0, 1));
        if (const auto list = std::dynamic_pointer_cast<SensorListData>(record)) {
            EXPECT_EQ(1, list->mMessageType);
            EXPECT_EQ(nullptr, list->mDeviceAddress);
        } else {
            EXPECT_EQ(0, std::dynamic_pointer_cast<SensorData>(record)->mDataOption);
        }
    }
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

TEST_F(ReceivedDataParserTest, RecordIsStampedWithTheTimeOfItsCreation)
{
    mPlatform.SetTime(1234567890);

    EXPECT_EQ(1234567890, ParseSensor({0x02, 0, 0, 1})->mTimestamp);
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
