#include "SensorListData.h"

#include <cstdlib>
#include <memory>

#include <gtest/gtest.h>

namespace Parvane {
namespace {

TEST(SensorListDataTest, NewRecordOwnsAnEmptyListAndHasNoAddress)
{
    const SensorListData data;

    ASSERT_NE(nullptr, data.mSensorList);
    EXPECT_TRUE(data.mSensorList->empty());
    EXPECT_EQ(nullptr, data.mDeviceAddress);
    EXPECT_EQ(2, data.mHeaderCode);
}

TEST(SensorListDataTest, EachRecordHasAListOfItsOwn)
{
    const SensorListData first;
    const SensorListData second;

    first.mSensorList->push_back(std::make_shared<SensorInfo>());

    EXPECT_TRUE(second.mSensorList->empty());
}

TEST(SensorListDataTest, DescriptionsGoWithTheRecord)
{
    std::shared_ptr<HeaderData> header;
    std::weak_ptr<SensorInfo> info;
    {
        auto data = std::make_shared<SensorListData>();
        data->mSensorList->push_back(std::make_shared<SensorInfo>());
        info = data->mSensorList->front();
        header = data;
    }

    header.reset();

    EXPECT_TRUE(info.expired());
}

// The address sanitizer finds it when the record does not.
TEST(SensorListDataTest, RecordReleasesItsAddressWithFree)
{
    auto data = std::make_unique<SensorListData>();

    data->mDeviceAddress.reset(static_cast<uint8_t *>(std::malloc(8)));

    EXPECT_NE(nullptr, data->mDeviceAddress);
    std::unique_ptr<HeaderData> header = std::move(data);
    header.reset();
}

} // namespace
} // namespace Parvane
