#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "Messages.h"
#include "Result.h"

namespace ParvaneHost {

/** Why bytes are no packet of the watch: the first thing found wrong. */
struct DecodeError
{
    /** One line, without a full stop: what was wrong, where, and what is allowed there. */
    [[nodiscard]] std::string Text() const;

    std::size_t mOffset = 0; // of the first byte of the field; for a wrong size, the size itself
    std::string mField;      // "packet size", "sensor", ...
    std::string mExpected;
    std::string mFound;
};

/**
 * The packet that carries `request`: 4 bytes, 5 for a start. Bytes 1 and 2, which the watch does not
 * read, are 0, and so is the sensor of a list request. Never fails.
 */
Bytes Encode(const Request &request);

/**
 * Reads one packet of the watch, whole.
 *
 * Bytes of any number and content may be given. The size tells the kind: 13 bytes are a list header,
 * 25 a sensor entry, 18 a reading, and 4 a stop acknowledgement or an option reply, which the command
 * tells apart. Then the header and every fixed byte must agree with the kind, and numbers must be
 * finite. Bytes that the watch leaves undefined are not looked at. Values with a good form but no
 * meaning (an unknown sensor, activity 7) are not errors.
 */
Result<Reply, DecodeError> Decode(std::span<const std::uint8_t> packet);

} // namespace ParvaneHost
