#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "HeaderData.h"

namespace Parvane {

/**
 * Turns one packet from the host into a request record.
 *
 * Owns the request wire format (docs/wire-format.md). Never answers and never logs. Stateless.
 */
class ReceivedDataParser
{
public:
    virtual ~ReceivedDataParser() = default;

    /**
     * An empty record for a command: a SensorListData for 1, a SensorData for 2, 3 and 4.
     *
     * @return the record, its command set; null for every other command
     */
    std::shared_ptr<HeaderData> CreateHeaderData(int32_t command) const;

    /**
     * Reads one packet.
     *
     * @param data  `size` bytes; bytes that a short packet lacks read as 0
     * @param size  number of bytes, 0 included
     * @return the request; null when the command is not 1 to 4
     */
    std::shared_ptr<HeaderData> Parse(const uint8_t *data, std::size_t size) const;
};

} // namespace Parvane
