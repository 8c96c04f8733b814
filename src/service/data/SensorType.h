#pragma once

#include <cstdint>

namespace Parvane {

/** The kind of a sensor; the key of every registry. The wire has numbers of its own (DeviceManager). */
enum class SensorType : int32_t {
    None = 0,
    Activity = 1,
    Gesture = 2,
    Pedometer = 3,
    HRM = 4,
    WearState = 5
};

} // namespace Parvane
