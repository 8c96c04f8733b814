#include "ResponseDataGenerator.h"

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
#include "WearStateData.h"

namespace Parvane {
namespace {

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

TEST_F(ResponseDataGeneratorTest, ReadingIsEighteenBytes)
{
    auto record = std::make_shared<HRMData>(0, 72, 0);
    record->mMessageType = 2;
    record->mMessageFlags = 1;
    record->mCategory = 0x22;
    record->mTimestamp = 1000;

    EXPECT_THAT(Generate(record),
                ElementsAre(Bytes{0x12, 0x00, 0x0E, 0x22, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0F,
                                  0x42, 0x40, 0x42, 0x90, 0x00, 0x00, 0x00}));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ResponseDataGeneratorTest, ReadingOfAStartDiffersInTheCommandOnly)
{
    auto record = std::make_shared<HRMData>(0, 72, 0);
    record->mMessageType = 3;
    record->mMessageFlags = 3;
    record->mCategory = 3;
    record->mTimestamp = 1400000000;

    EXPECT_THAT(Generate(record),
                ElementsAre(Bytes{0x33, 0x00, 0x0E, 0x03, 0x11, 0x00, 0x00, 0x00, 0x00, 0xF6, 0x80,
                                  0xB0, 0x00, 0x42, 0x90, 0x00, 0x00, 0x00}));
}

TEST_F(ResponseDataGeneratorTest, TimeWraps)
{
    auto record = std::make_shared<HRMData>();
    record->mMessageType = 2;
    record->mTimestamp = 4294968;

    const std::vector<Bytes> packets = Generate(record);

    ASSERT_THAT(packets, ElementsAre(SizeIs(18)));
    EXPECT_EQ((Bytes{0, 0, 0, 0, 0x00, 0x00, 0x02, 0xC0}),
              Bytes(packets[0].begin() + 5, packets[0].begin() + 13));
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

TEST_F(ResponseDataGeneratorTest, StopIsAcknowledgedInFourBytesWithTwoInByteOne)
{
    auto record = std::make_shared<SensorData>();
    record->mMessageType = 4;
    record->mMessageFlags = 1;
    record->mCategory = 3;

    EXPECT_THAT(Generate(record), ElementsAre(Bytes{0x14, 0x02, 0x00, 0x03}));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ResponseDataGeneratorTest, OptionAnswerIsFourBytesWithoutItsOption)
{
    auto record = std::make_shared<SensorData>();
    record->mMessageType = 5;
    record->mMessageFlags = 2;
    record->mCategory = 4;
    record->mDataOption = 1;

    EXPECT_THAT(Generate(record), ElementsAre(Bytes{0x25, 0x00, 0x02, 0x04}));
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

TEST_F(ResponseDataGeneratorTest, ListHeaderCarriesTheAddress)
{
    auto list = MakeList(1);
    const uint8_t address[] = {0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x0F};
    list->mDeviceAddress.reset(static_cast<uint8_t *>(std::malloc(8)));
    std::memcpy(list->mDeviceAddress.get(), address, 8);

    EXPECT_EQ((Bytes{0x81, 0x80, 0x0A, 0x03, 0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x0F, 0x01}),
              Generate(list)[0]);
}

TEST_F(ResponseDataGeneratorTest, SensorEntryIsTwentyFiveBytes)
{
    auto list = MakeList(1);
    SensorInfo &info = *list->mSensorList->front();
    info.mSensorType = SensorType::HRM;
    info.mSensorId = 3;
    info.mAvailable = 1;
    info.mMaxRange = 200.0F;
    info.mResolution = 1.0F;
    info.mMinValue = -2.5F;
    info.mMinDelay = 15000;
    info.mReserved = 0x1234;

    EXPECT_EQ((Bytes{0x81, 0x01, 0x15, 0x43, 0x03, 0x01, 0x43, 0x48, 0x00, 0x00, 0x3F, 0x80, 0x00,
                     0x00, 0xC0, 0x20, 0x00, 0x00, 0x00, 0x00, 0x3A, 0x98, 0x12, 0x34, 0x00}),
              Generate(list)[1]);
}

TEST_F(ResponseDataGeneratorTest, KindByteOfAnEntryWrapsAndItsIdDoesNot)
{
    auto list = MakeList(1);
    list->mSensorList->front()->mSensorId = 0xF0;
    list->mSensorList->front()->mReserved = 0xFFFE;

    const Bytes entry = Generate(list)[1];

    EXPECT_EQ(0x30, entry[3]);
    EXPECT_EQ(0xF0, entry[4]);
    EXPECT_EQ(0xFF, entry[22]);
    EXPECT_EQ(0xFE, entry[23]);
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
