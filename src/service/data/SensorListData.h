#pragma once

#include <list>
#include <memory>

#include "HeaderData.h"
#include "PlatformPtr.h"
#include "SensorInfo.h"

namespace Parvane {

/** A request for the sensor list and, once filled, its reply. */
class SensorListData : public HeaderData
{
public:
    using SensorList = std::list<std::shared_ptr<SensorInfo>>;

    /** Bytes of mDeviceAddress. */
    static constexpr std::size_t kDeviceAddressSize = 8;

    /** The sensors in the order in which they are sent; never null in a new record. */
    std::shared_ptr<SensorList> mSensorList = std::make_shared<SensorList>();

    /** The watch's Bluetooth address: kDeviceAddressSize bytes, big-endian, or null if unknown. */
    PlatformPtr<uint8_t> mDeviceAddress;
};

} // namespace Parvane
