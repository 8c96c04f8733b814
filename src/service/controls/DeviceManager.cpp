#include "DeviceManager.h"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <string_view>

#include <platform/bluetooth.h>

#include "Failure.h"
#include "Log.h"
#include "PlatformPtr.h"

namespace Parvane {

namespace {

struct SensorId
{
    uint8_t mId;
    SensorType mType;
};

constexpr std::array<SensorId, 4> kSensorIds = {{{1, SensorType::Activity},
                                                 {2, SensorType::Pedometer},
                                                 {3, SensorType::HRM},
                                                 {4, SensorType::WearState}}};

constexpr std::size_t kOctets = 6;
constexpr std::size_t kFirstOctet = SensorListData::kDeviceAddressSize - kOctets;
constexpr std::size_t kCharactersPerOctet = 3;

// Nibbles of the characters from '1' to 'F'; those between '9' and 'A' have none.
constexpr char kFirstNibbleCharacter = '1';
constexpr std::array<uint8_t, 22> kNibbles = {1, 2, 3, 4, 5, 6,  7,  8,  9,  0,  0,
                                              0, 0, 0, 0, 0, 10, 11, 12, 13, 14, 15};

uint8_t NibbleAt(std::string_view text, std::size_t position)
{
    if (position >= text.size()) {
        return 0;
    }
    const auto index = static_cast<std::size_t>(text[position] - kFirstNibbleCharacter);
    return index < kNibbles.size() ? kNibbles[index] : uint8_t{0};
}

const char *InitializeFailureLabel(int result)
{
    constexpr int kOperationFailed = -32508;
    return result == kOperationFailed ? "(bt_initialize)BT_ERROR_OPERATION_FAILED"
                                      : "(bt_initialize)Undefined Error";
}

const char *GetAddressFailureLabel(int result)
{
    switch (result) {
    case -32511:
        return "(bt_adapter_get_address)BT_ERROR_NOT_INITIALIZED";
    case -22:
        return "(bt_adapter_get_address)BT_ERROR_INVALID_PARAMETER";
    case -32510:
        return "(bt_adapter_get_address)BT_ERROR_NOT_ENABLED";
    case -12:
        return "(bt_adapter_get_address)BT_ERROR_OUT_OF_MEMORY";
    case -32508:
        return "(bt_adapter_get_address)BT_ERROR_OPERATION_FAILED";
    default:
        return "(bt_adapter_get_address)BT_ERROR_NONE";
    }
}

void Deinitialize()
{
    const int result = bt_deinitialize();
    if (result != 0) {
        PARVANE_ERROR("bt_deinitialize FAIL [%d]", result);
    }
}

} // namespace

SensorType DeviceManager::GetSensorTypeById(uint8_t id)
{
    for (const SensorId &entry : kSensorIds) {
        if (entry.mId == id) {
            return entry.mType;
        }
    }
    PARVANE_WARN_AT(219, "unknown sensor id %x", static_cast<unsigned>(id));
    return SensorType::None;
}

uint8_t DeviceManager::SensorIdByType(SensorType type)
{
    for (const SensorId &entry : kSensorIds) {
        if (entry.mType == type) {
            return entry.mId;
        }
    }
    PARVANE_WARN_AT(244, "unknown sensor type %x", static_cast<unsigned>(type));
    return 0;
}

unsigned char *DeviceManager::GetDiviceBluetoothMacAddress()
{
    const int initialized = bt_initialize();
    try {
        if (initialized != 0) {
            ThrowFailure(__func__, InitializeFailureLabel(initialized));
        }
        char *text = nullptr;
        const int result = bt_adapter_get_address(&text);
        PlatformPtr<char> owned(text);
        if (result != 0 || text == nullptr) {
            ThrowFailure(__func__, GetAddressFailureLabel(result));
        }
        PlatformPtr<unsigned char> address(
            static_cast<unsigned char *>(std::malloc(SensorListData::kDeviceAddressSize)));
        if (!address) {
            ThrowFailure(__func__, "(malloc)out of memory");
        }
        address.get()[0] = 0;
        address.get()[1] = 0;
        const std::string_view characters(text);
        for (std::size_t octet = 0; octet < kOctets; ++octet) {
            const std::size_t position = octet * kCharactersPerOctet;
            address.get()[kFirstOctet + octet] = static_cast<unsigned char>(
                (NibbleAt(characters, position) << 4) | NibbleAt(characters, position + 1));
        }
        owned.reset();
        Deinitialize();
        return address.release();
    } catch (const std::exception &error) {
        PARVANE_ERROR_AT(133, "Get BT MacAddress Fail [%s]", error.what());
    }
    if (initialized == 0) {
        Deinitialize();
    }
    return nullptr;
}

void DeviceManager::FillDeviceAddress(const std::shared_ptr<SensorListData> &list)
{
    list->mDeviceAddress.reset(GetDiviceBluetoothMacAddress());
}

} // namespace Parvane
