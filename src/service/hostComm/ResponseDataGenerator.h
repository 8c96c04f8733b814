#pragma once

#include <cstdint>
#include <list>
#include <memory>

#include "HeaderData.h"
#include "PacketData.h"
#include "SensorData.h"
#include "SensorInfo.h"
#include "SensorListData.h"

namespace Parvane {

/**
 * Turns one record into the packets that carry it to the host.
 *
 * Owns the response wire format (docs/wire-format.md): multi-byte values are big-endian, bytes that
 * no rule writes are 0. Stateless. Main-loop thread only. Every operation throws std::bad_alloc when
 * memory has run out.
 */
class ResponseDataGenerator
{
public:
    using PacketList = std::list<std::shared_ptr<PacketData>>;

    virtual ~ResponseDataGenerator() = default;

    /**
     * Builds the packets of `record`, in sending order.
     *
     * @param record  never null; a SensorListData for command 1, a SensorData for 2 to 5
     * @return the packets (4, 13, 18 or 25 bytes each); null when the command is not 1 to 5
     *
     * A reading without a value rule is sent as 0.0 and logged as an error, an empty sensor list is
     * logged as a warning; nothing else fails.
     */
    std::shared_ptr<PacketList> GenerateResponse(std::shared_ptr<HeaderData> record) const;

    /** One reading: one packet of 18 bytes. */
    std::shared_ptr<PacketList>
    GenerateSensorResponseData(const std::shared_ptr<HeaderData> &record) const;

    /** The acknowledgement of a stop: one packet of 4 bytes. */
    std::shared_ptr<PacketList>
    GenerateStopResponseData(const std::shared_ptr<HeaderData> &record) const;

    /** The answer to an option request: one packet of 4 bytes, which has no room for the option. */
    std::shared_ptr<PacketList>
    GenerateOptionResponseData(const std::shared_ptr<HeaderData> &record) const;

    /** A sensor list: a packet of 13 bytes, then one of 25 bytes for each sensor. */
    std::shared_ptr<PacketList>
    GenerateSensorListPacket(const std::shared_ptr<HeaderData> &record) const;

    /** The first packet of a sensor list; `header` is its first byte without the list bit. */
    std::shared_ptr<PacketData> GenerateSensorListHeaderPacket(const SensorListData &record,
                                                               uint8_t header) const;

    /** One sensor's packet of a sensor list; `position` counts from 1. */
    std::shared_ptr<PacketData> GenerateSensorInfoPacket(const SensorInfo &info, uint8_t header,
                                                         uint8_t position) const;
};

} // namespace Parvane
