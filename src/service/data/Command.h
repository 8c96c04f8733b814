#pragma once

#include <cstdint>

namespace Parvane {

/** What a host asks for: the values of HeaderData::mMessageType and of the wire's command nibble. */
enum Command : int32_t {
    CommandSensorList = 1,
    CommandMeasureOnce = 2,
    CommandStart = 3,
    CommandStop = 4,
    CommandOption = 5
};

} // namespace Parvane
