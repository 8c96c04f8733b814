#pragma once

#include <cstdint>
#include <vector>

// What a host sends, byte for byte (docs/wire-format.md).

namespace Parvane {

/** Requests without flags. */
namespace Request {

inline const std::vector<uint8_t> kListSensors = {0x01, 0x00, 0x00, 0x00};
inline const std::vector<uint8_t> kMeasureSteps = {0x02, 0x00, 0x00, 0x02};
inline const std::vector<uint8_t> kMeasureHeartRate = {0x02, 0x00, 0x00, 0x03};
inline const std::vector<uint8_t> kMeasureWearState = {0x02, 0x00, 0x00, 0x04};
inline const std::vector<uint8_t> kStartActivity = {0x03, 0x00, 0x00, 0x01, 0x00};
inline const std::vector<uint8_t> kStopActivity = {0x04, 0x00, 0x00, 0x01};

/** Asks for the list too: a byte that is missing counts as 0. */
inline const std::vector<uint8_t> kListInOneByte = {0x01};

/** What the service replies to kStopActivity, whether there was anything to stop or not. */
inline const std::vector<uint8_t> kActivityStopped = {0x04, 0x02, 0x00, 0x01};

} // namespace Request

/** The same with the flags 1, which come back in the replies to them. */
namespace FlaggedRequest {

inline const std::vector<uint8_t> kMeasureActivity = {0x12, 0x00, 0x00, 0x01};
inline const std::vector<uint8_t> kMeasureSteps = {0x12, 0x00, 0x00, 0x02};
inline const std::vector<uint8_t> kMeasureHeartRate = {0x12, 0x00, 0x00, 0x03};
inline const std::vector<uint8_t> kMeasureWearState = {0x12, 0x00, 0x00, 0x04};
inline const std::vector<uint8_t> kStartActivity = {0x13, 0x00, 0x00, 0x01, 0x00};
inline const std::vector<uint8_t> kStopActivity = {0x14, 0x00, 0x00, 0x01};

} // namespace FlaggedRequest

} // namespace Parvane
