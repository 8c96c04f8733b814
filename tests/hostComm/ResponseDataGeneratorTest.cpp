#include "ResponseDataGenerator.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ActivityData.h"
#include "DirtyMemory.h"
#include "GestureData.h"
#include "HRMData.h"
#include "LogMatchers.h"
#include "PedometerData.h"
#include "ScriptedPlatform.h"
#include "Vectors.h"
#include "WearStateData.h"

namespace Parvane {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ResponseDataGeneratorTest : public testing::Test
{
protected:
    std::vector<Bytes> Generate(std::shared_ptr<HeaderData> record) const
    {
        std::vector<Bytes> bytes;
        LeaveDirtyMemory();
        const auto packets = mGenerator.GenerateResponse(std::move(record));
        EXPECT_NE(nullptr, packets);
        if (packets) {
            for (const auto &packet : *packets) {
                const uint8_t *const begin = packet->mBuffer.get();
                bytes.emplace_back(begin, begin + packet->mSize);
            }
        }
        return bytes;
    }

    // The value bytes of the only packet of a reading.
    Bytes ValueOf(const std::shared_ptr<SensorData> &record) const
    {
        record->mMessageType = 2;
        const std::vector<Bytes> packets = Generate(record);
        EXPECT_THAT(packets, ElementsAre(SizeIs(18)));
        return Bytes(packets[0].begin() + 13, packets[0].begin() + 17);
    }

    Bytes ActivityValue(int status) const
    {
        return ValueOf(std::make_shared<ActivityData>(status, 0, 0));
    }

    static std::shared_ptr<SensorListData> MakeList(std::size_t entries)
    {
        auto list = std::make_shared<SensorListData>();
        list->mMessageType = 1;
        for (std::size_t i = 0; i < entries; ++i) {
            list->mSensorList->push_back(std::make_shared<SensorInfo>());
        }
        return list;
    }

    ScriptedPlatform mPlatform;
    ResponseDataGenerator mGenerator;
};

/** The platform's number of an activity on the wire. */
int StatusOf(float activity)
{
    return activity == 0.0F ? 4 : activity == 3.0F ? 6 : static_cast<int>(activity) + 1;
}

std::shared_ptr<SensorData> ValueRecord(int sensor, float value)
{
    const auto whole = static_cast<int32_t>(std::clamp(value, -2147483648.0F, 2147483520.0F));
    switch (sensor) {
    case 1:
        return std::make_shared<ActivityData>(StatusOf(value), 0, 0);
    case 2: // the largest float below 2^31 is not the largest total
        return std::make_shared<PedometerData>(
            value < 2147483648.0F ? whole : std::numeric_limits<int32_t>::max(), 0.0F, 0, 0, 0, 0,
            0);
    case 4: {
        auto record = std::make_shared<WearStateData>();
        record->mStatus = value;
        return record;
    }
    default:
        return std::make_shared<HRMData>(97, whole, 800);
    }
}

/** The record whose packet is `vector`, a reading, an acknowledgement or an option reply. */
std::shared_ptr<SensorData> RecordOf(const json &vector)
{
    const json &packet = vector.at("packet");
    const int sensor = packet.at("sensor");
    auto record = std::make_shared<SensorData>();
    if (packet.at("kind") == "reading") {
        record = ValueRecord(sensor, packet.at("value"));
        record->mMessageType = packet.at("command");
        // Without a moment it is one whose milliseconds had been reduced before they were cut.
        record->mTimestamp = static_cast<int32_t>(
            vector.value("seconds", packet.at("time_ms").get<int64_t>() / 1000));
    } else {
        record->mMessageType = packet.at("kind") == "option" ? 5 : 4;
        record->mDataOption = 1; // is not sent
    }
    record->mMessageFlags = packet.at("flags");
    record->mCategory = static_cast<uint8_t>(sensor);
    return record;
}

/** A list of as many sensors as the header counts, or one in which the entry has its position. */
std::shared_ptr<SensorListData> ListOf(const json &packet)
{
    auto list = std::make_shared<SensorListData>();
    list->mMessageType = 1;
    list->mMessageFlags = packet.at("flags");
    const bool header = packet.at("kind") == "list-header";
    for (int i = 0; i < packet.at(header ? "count" : "position").get<int>(); ++i) {
        list->mSensorList->push_back(std::make_shared<SensorInfo>());
    }
    if (!header) {
        SensorInfo &info = *list->mSensorList->back();
        info.mSensorId = packet.at("sensor");
        info.mAvailable = packet.at("available");
        info.mMaxRange = packet.at("largest");
        info.mResolution = packet.at("resolution");
        info.mMinValue = packet.at("smallest");
        info.mMinDelay = packet.at("delay_ms");
        info.mReserved = static_cast<uint16_t>(packet.at("reserved").get<int>());
    } else if (packet.at("address").is_string()) {
        const Bytes address = Vectors::FromHex("00:00:" + packet.at("address").get<std::string>());
        list->mDeviceAddress.reset(static_cast<uint8_t *>(std::malloc(address.size())));
        std::copy(address.begin(), address.end(), list->mDeviceAddress.get());
    }
    return list;
}

TEST_F(ResponseDataGeneratorTest, RepliesOfTheVectorsAreMadeAsTheyStand)
{
    int made = 0;
    for (const json &vector : Vectors::SentBy("watch")) {
        if (vector.value("tolerated", false) && !vector.contains("seconds")) {
            continue; // no watch sends it
        }
        const json &packet = vector.at("packet");
        const std::string kind = packet.at("kind");
        const bool ofList = kind == "list-header" || kind == "entry";
        const std::vector<Bytes> packets =
            Generate(ofList ? std::shared_ptr<HeaderData>(ListOf(packet)) : RecordOf(vector));
        const std::size_t index = kind == "entry" ? packet.at("position").get<std::size_t>() : 0;
        ASSERT_GT(packets.size(), index) << vector.at("name");
        EXPECT_EQ(packets[index], Vectors::FromHex(vector.at("bytes"))) << vector.at("name");
        ++made;
    }
    EXPECT_GT(made, 100);
}

TEST_F(ResponseDataGeneratorTest, HeaderCodeIsNotSent)
{
    auto record = std::make_shared<HRMData>();
    record->mMessageType = 2;
    record->mTimestamp = 0;
    for (const int code : {0, 1, 2, 0x40}) {
        record->mHeaderCode = code;
        EXPECT_EQ(0x02, Generate(record)[0][0]);
    }
}

TEST_F(ResponseDataGeneratorTest, FlagsFillTheUpperHalfOfTheFirstByteAndNoMore)
{
    auto record = std::make_shared<HRMData>();
    record->mMessageType = 2;
    record->mMessageFlags = 0xFF;

    EXPECT_EQ(0xF2, Generate(record)[0][0]);
}

TEST_F(ResponseDataGeneratorTest, ActivityValuesAreMapped)
{
    EXPECT_EQ((Bytes{0x3F, 0x80, 0x00, 0x00}), ActivityValue(2)); // 1.0
    EXPECT_EQ((Bytes{0x40, 0x00, 0x00, 0x00}), ActivityValue(3)); // 2.0
    EXPECT_EQ((Bytes{0x00, 0x00, 0x00, 0x00}), ActivityValue(4));
    EXPECT_EQ((Bytes{0x00, 0x00, 0x00, 0x00}), ActivityValue(5));
    EXPECT_EQ((Bytes{0x40, 0x40, 0x00, 0x00}), ActivityValue(6)); // 3.0
}

TEST_F(ResponseDataGeneratorTest, ActivitiesOutsideTheTableAreZero)
{
    const int largest = std::numeric_limits<int32_t>::max();
    const int least = std::numeric_limits<int32_t>::min();
    for (const int status : {0, 1, 7, -1, 100, largest, least, least + 1, least + 2}) {
        EXPECT_EQ((Bytes{0, 0, 0, 0}), ActivityValue(status)) << status;
    }
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ResponseDataGeneratorTest, PedometerValueIsTheTotalAsAFloat)
{
    EXPECT_EQ((Bytes{0x41, 0x70, 0x00, 0x00}),
              ValueOf(std::make_shared<PedometerData>(15, 9.0F, 9, 9, 9, 9, 9)));
    EXPECT_EQ((Bytes{0x4F, 0x00, 0x00, 0x00}),
              ValueOf(std::make_shared<PedometerData>(2147483647, 0.0F, 0, 0, 0, 0, 0)));
}

TEST_F(ResponseDataGeneratorTest, HeartRateIsSentWithItsSign)
{
    EXPECT_EQ((Bytes{0xC0, 0x40, 0x00, 0x00}), ValueOf(std::make_shared<HRMData>(97, -3, 800)));
}

TEST_F(ResponseDataGeneratorTest, WearStateIsSentBitForBit)
{
    auto record = std::make_shared<WearStateData>();
    record->mStatus = 1.0F;
    EXPECT_EQ((Bytes{0x3F, 0x80, 0x00, 0x00}), ValueOf(record));

    const uint32_t pattern = 0x7FC12345; // not a number, with a payload
    std::memcpy(&record->mStatus, &pattern, sizeof pattern);
    EXPECT_EQ((Bytes{0x7F, 0xC1, 0x23, 0x45}), ValueOf(record));
}

TEST_F(ResponseDataGeneratorTest, GestureReadingIsZeroAndAnError)
{
    EXPECT_EQ((Bytes{0, 0, 0, 0}), ValueOf(std::make_shared<GestureData>(1, 0)));

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine(
                    "ResponseDataGenerator: GenerateSensorResponseData(*)",
                    "Requested with Response but this data has no category, return with default "
                    "value")));
}

TEST_F(ResponseDataGeneratorTest, PlainRecordIsZeroAndAnErrorToo)
{
    EXPECT_EQ((Bytes{0, 0, 0, 0}), ValueOf(std::make_shared<SensorData>()));

    EXPECT_THAT(mPlatform.TakeLog(), SizeIs(1));
}

TEST_F(ResponseDataGeneratorTest, UnknownCommandsGiveNothingAndNoLine)
{
    auto record = std::make_shared<SensorData>();
    for (const int command : {0, 6, 7, -1, 16, 17}) {
        record->mMessageType = command;
        EXPECT_EQ(nullptr, mGenerator.GenerateResponse(record)) << command;
    }
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ResponseDataGeneratorTest, HeaderByteOfAnUnknownCommandIsZero)
{
    auto record = std::make_shared<HRMData>();
    record->mMessageType = 9;
    record->mMessageFlags = 1;

    const auto packets = mGenerator.GenerateSensorResponseData(record);

    ASSERT_THAT(*packets, SizeIs(1));
    EXPECT_EQ(0x10, packets->front()->mBuffer.get()[0]);
}

TEST_F(ResponseDataGeneratorTest, EmptySensorListIsItsHeaderAndAWarning)
{
    auto list = MakeList(0);
    list->mMessageFlags = 2;

    EXPECT_THAT(Generate(list),
                ElementsAre(Bytes{0xA1, 0x80, 0x0A, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(WarningLine("ResponseDataGenerator: GenerateSensorListPacket(*)",
                                        "dataList is NULL or empty")));
}

TEST_F(ResponseDataGeneratorTest, MissingSensorListIsItsHeaderAndAWarning)
{
    auto list = MakeList(0);
    list->mSensorList = nullptr;

    EXPECT_THAT(Generate(list),
                ElementsAre(Bytes{0x81, 0x80, 0x0A, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_THAT(mPlatform.TakeLog(), SizeIs(1));
}

TEST_F(ResponseDataGeneratorTest, PacketsOfAListAreNumbered)
{
    const std::vector<Bytes> packets = Generate(MakeList(2));

    ASSERT_THAT(packets, ElementsAre(SizeIs(13), SizeIs(25), SizeIs(25)));
    EXPECT_EQ(0x80, packets[0][1]);
    EXPECT_EQ(1, packets[1][1]);
    EXPECT_EQ(2, packets[2][1]);
    EXPECT_EQ(2, packets[0][12]);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ResponseDataGeneratorTest, EveryPacketOfAListHasTheListBitAndTheFlags)
{
    auto list = MakeList(3);
    list->mMessageFlags = 3;

    for (const Bytes &packet : Generate(list)) {
        EXPECT_EQ(0xB1, packet[0]);
    }
}

TEST_F(ResponseDataGeneratorTest, CountAndPositionAreBytesAndWrap)
{
    const std::vector<Bytes> packets = Generate(MakeList(257));

    ASSERT_THAT(packets, SizeIs(258));
    EXPECT_EQ(1, packets[0][12]);
    EXPECT_EQ(255, packets[255][1]);
    EXPECT_EQ(0, packets[256][1]);
    EXPECT_EQ(1, packets[257][1]);
}

} // namespace
} // namespace Parvane
