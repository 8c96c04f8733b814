#include "DeviceManager.h"

#include <cstdlib>
#include <memory>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DirtyMemory.h"
#include "LogMatchers.h"
#include "PlatformPtr.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DeviceManagerTest : public testing::Test
{
protected:
    std::optional<Bytes> ReadAddress()
    {
        LeaveDirtyMemory();
        const PlatformPtr<unsigned char> address(mManager.GetDiviceBluetoothMacAddress());
        return address ? std::optional<Bytes>(Bytes(address.get(), address.get() + 8))
                       : std::nullopt;
    }

    std::optional<Bytes> ReadAddress(const std::string &text)
    {
        mPlatform.SetBluetoothAddress(text);
        return ReadAddress();
    }

    static auto AddressError(const std::string &label)
    {
        return ErrorLine("DeviceManager: GetDiviceBluetoothMacAddress(133)",
                         "Get BT MacAddress Fail [[GetDiviceBluetoothMacAddress]" + label + "]");
    }

    ScriptedPlatform mPlatform;
    DeviceManager mManager;
};

TEST_F(DeviceManagerTest, WireIdsAreMappedToTypes)
{
    EXPECT_EQ(SensorType(1), DeviceManager::GetSensorTypeById(1));
    EXPECT_EQ(SensorType(3), DeviceManager::GetSensorTypeById(2));
    EXPECT_EQ(SensorType(4), DeviceManager::GetSensorTypeById(3));
    EXPECT_EQ(SensorType(5), DeviceManager::GetSensorTypeById(4));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(DeviceManagerTest, TypesAreMappedToWireIds)
{
    EXPECT_EQ(1, DeviceManager::SensorIdByType(SensorType::Activity));
    EXPECT_EQ(2, DeviceManager::SensorIdByType(SensorType::Pedometer));
    EXPECT_EQ(3, DeviceManager::SensorIdByType(SensorType::HRM));
    EXPECT_EQ(4, DeviceManager::SensorIdByType(SensorType::WearState));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(DeviceManagerTest, GestureHasNoWireId)
{
    EXPECT_EQ(0, DeviceManager::SensorIdByType(SensorType::Gesture));

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(LogLine{5, "Parvane",
                                    "DeviceManager: SensorIdByType(244) > "
                                    "\033[1;40;33munknown sensor type 2\033[0;m"}));
}

TEST_F(DeviceManagerTest, WireIdZeroIsUnknown)
{
    EXPECT_EQ(SensorType(0), DeviceManager::GetSensorTypeById(0));

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(LogLine{5, "Parvane",
                                    "DeviceManager: GetSensorTypeById(219) > "
                                    "\033[1;40;33munknown sensor id 0\033[0;m"}));
}

TEST_F(DeviceManagerTest, UnknownNumbersAreLoggedInHexadecimal)
{
    EXPECT_EQ(SensorType(0), DeviceManager::GetSensorTypeById(0xFE));
    EXPECT_EQ(0, DeviceManager::SensorIdByType(SensorType(0xABC)));
    EXPECT_EQ(0, DeviceManager::SensorIdByType(SensorType(-1)));

    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(
            WarningLine("DeviceManager: GetSensorTypeById(219)", "unknown sensor id fe"),
            WarningLine("DeviceManager: SensorIdByType(244)", "unknown sensor type abc"),
            WarningLine("DeviceManager: SensorIdByType(244)", "unknown sensor type ffffffff")));
}

TEST_F(DeviceManagerTest, EveryOtherWireIdIsUnknown)
{
    for (int id = 5; id < 256; ++id) {
        EXPECT_EQ(SensorType(0), DeviceManager::GetSensorTypeById(static_cast<uint8_t>(id)));
    }
    EXPECT_THAT(mPlatform.TakeLog(), testing::SizeIs(251));
}

TEST_F(DeviceManagerTest, NoneHasNoWireId)
{
    EXPECT_EQ(0, DeviceManager::SensorIdByType(SensorType::None));

    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(WarningLine("DeviceManager: SensorIdByType(244)",
                                                             "unknown sensor type 0")));
}

TEST_F(DeviceManagerTest, AddressIsABigEndianNumberOfEightBytes)
{
    EXPECT_EQ((Bytes{0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x0F}),
              ReadAddress("AA:BB:CC:DD:EE:0F"));

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("bt_initialize()", "bt_adapter_get_address()", "bt_deinitialize()"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(DeviceManagerTest, AllDigitsAreRead)
{
    EXPECT_EQ((Bytes{0x00, 0x00, 0x01, 0x23, 0x45, 0x67, 0x89, 0xAB}),
              ReadAddress("01:23:45:67:89:AB"));
    EXPECT_EQ((Bytes{0x00, 0x00, 0xCD, 0xEF, 0x10, 0x90, 0xA9, 0xF1}),
              ReadAddress("CD:EF:10:90:A9:F1"));
}

TEST_F(DeviceManagerTest, LowerCaseLettersReadAsZero)
{
    EXPECT_EQ((Bytes{0, 0, 0, 0, 0, 0, 0, 0}), ReadAddress("aa:bb:cc:dd:ee:ff"));
    EXPECT_EQ((Bytes{0, 0, 0xA0, 0x0B, 0x10, 0x02, 0, 0}), ReadAddress("Aa:aB:1c:d2:ee:ff"));
}

TEST_F(DeviceManagerTest, CharactersBetweenTheDigitsAndTheLettersAndBeyondReadAsZero)
{
    EXPECT_EQ((Bytes{0, 0, 0, 0, 0, 0, 0, 0}), ReadAddress(":;:<=:>?:@G:HZ:/!"));
    EXPECT_EQ((Bytes{0, 0, 0x10, 0x02, 0, 0, 0, 0}), ReadAddress("1\xFF:\x80"
                                                                 "2:  :\t\n:00:00"));
}

TEST_F(DeviceManagerTest, MissingCharactersReadAsZero)
{
    EXPECT_EQ((Bytes{0, 0, 0xAA, 0xB0, 0, 0, 0, 0}), ReadAddress("AA:B"));
    EXPECT_EQ((Bytes{0, 0, 0, 0, 0, 0, 0, 0}), ReadAddress(""));
}

TEST_F(DeviceManagerTest, FailedInitializationHasItsTextAndIsNotUndone)
{
    mPlatform.FailNext("bt_initialize", -32508);

    EXPECT_EQ(std::nullopt, ReadAddress());

    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(LogLine{6, "Parvane",
                            "DeviceManager: GetDiviceBluetoothMacAddress(133) > \033[0;40;31m"
                            "Get BT MacAddress Fail [[GetDiviceBluetoothMacAddress]"
                            "(bt_initialize)BT_ERROR_OPERATION_FAILED]\033[0;m"}));
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("bt_initialize()"));
}

TEST_F(DeviceManagerTest, AnyOtherFailureOfTheInitializationIsUndefined)
{
    for (const int code : {-1, 1, -22, -32511}) {
        mPlatform.FailNext("bt_initialize", code);
        EXPECT_EQ(std::nullopt, ReadAddress());
        EXPECT_THAT(mPlatform.TakeLog(),
                    ElementsAre(AddressError("(bt_initialize)Undefined Error")));
    }
}

TEST_F(DeviceManagerTest, FailuresOfTheAddressHaveTheirTexts)
{
    const std::pair<int, const char *> expected[] = {
        {-32511, "(bt_adapter_get_address)BT_ERROR_NOT_INITIALIZED"},
        {-22, "(bt_adapter_get_address)BT_ERROR_INVALID_PARAMETER"},
        {-32510, "(bt_adapter_get_address)BT_ERROR_NOT_ENABLED"},
        {-12, "(bt_adapter_get_address)BT_ERROR_OUT_OF_MEMORY"},
        {-32508, "(bt_adapter_get_address)BT_ERROR_OPERATION_FAILED"}};
    for (const auto &[code, label] : expected) {
        mPlatform.FailNext("bt_adapter_get_address", code);
        EXPECT_EQ(std::nullopt, ReadAddress());
        EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(AddressError(label)));
    }
}

TEST_F(DeviceManagerTest, UnknownFailureOfTheAddressIsLoggedAsNone)
{
    for (const int code : {-1, 1, -32509, 99}) {
        mPlatform.FailNext("bt_adapter_get_address", code);
        EXPECT_EQ(std::nullopt, ReadAddress());
        EXPECT_THAT(mPlatform.TakeLog(),
                    ElementsAre(AddressError("(bt_adapter_get_address)BT_ERROR_NONE")));
    }
}

TEST_F(DeviceManagerTest, FailedAddressUndoesTheInitialization)
{
    mPlatform.FailNext("bt_adapter_get_address", -12);

    ReadAddress();

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("bt_initialize()", "bt_adapter_get_address()", "bt_deinitialize()"));
}

TEST_F(DeviceManagerTest, FailedDeinitializationLosesNothing)
{
    mPlatform.FailNext("bt_deinitialize", -1);

    EXPECT_EQ((Bytes{0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x0F}), ReadAddress());
}

TEST_F(DeviceManagerTest, MissingMemoryForTheAddressIsAFailureThatUndoesTheInitialization)
{
    mPlatform.FailAllocationOfSize(8, 8);

    std::optional<Bytes> address;
    ScriptedPlatform::AsService([this, &address] { address = ReadAddress(); });

    EXPECT_TRUE(mPlatform.StopFailingAllocations());
    EXPECT_EQ(std::nullopt, address);
    EXPECT_THAT(mPlatform.TakeCalls(), testing::Contains("bt_deinitialize()"));
    EXPECT_THAT(mPlatform.TakeLog(), testing::SizeIs(1));
}

TEST_F(DeviceManagerTest, AddressIsPutIntoTheList)
{
    const auto list = std::make_shared<SensorListData>();

    mManager.FillDeviceAddress(list);

    ASSERT_NE(nullptr, list->mDeviceAddress);
    const uint8_t *const bytes = list->mDeviceAddress.get();
    EXPECT_EQ((Bytes{0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x0F}), Bytes(bytes, bytes + 8));
}

TEST_F(DeviceManagerTest, AddressThatCannotBeReadIsNull)
{
    const auto list = std::make_shared<SensorListData>();
    mManager.FillDeviceAddress(list);
    mPlatform.FailNext("bt_initialize", -1);

    mManager.FillDeviceAddress(list);

    EXPECT_EQ(nullptr, list->mDeviceAddress);
}

} // namespace
} // namespace Parvane
