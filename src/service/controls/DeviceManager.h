#pragma once

#include <cstdint>
#include <memory>

#include "SensorListData.h"
#include "SensorType.h"

namespace Parvane {

/**
 * Translates between the wire's sensor ids and the service's sensor types, and reads the watch's
 * Bluetooth address. Short-lived: made on the stack where it is needed.
 */
class DeviceManager
{
public:
    DeviceManager() = default;
    DeviceManager(const DeviceManager &) = delete;
    DeviceManager &operator=(const DeviceManager &) = delete;
    virtual ~DeviceManager() = default;

    /** The type of a wire id: 1 activity, 2 pedometer, 3 HRM, 4 wear state; others are logged, None. */
    static SensorType GetSensorTypeById(uint8_t id);

    /** The wire id of a type; a type without one is logged and has 0. */
    static uint8_t SensorIdByType(SensorType type);

    /**
     * Reads the address from the platform.
     *
     * @return 8 bytes, the 48-bit address as a big-endian number, which the caller releases with
     *     free; null on failure, which is logged. Digits other than 0-9 and A-F read as 0.
     */
    unsigned char *GetDiviceBluetoothMacAddress();

    /** Puts the watch's address, or null, into `list`, which owns it from then on. */
    void FillDeviceAddress(const std::shared_ptr<SensorListData> &list);

private:
    std::shared_ptr<SensorListData> mSensorList = std::make_shared<SensorListData>();
};

} // namespace Parvane
