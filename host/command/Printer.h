#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Messages.h"
#include "Result.h"
#include "Session.h"
#include "StepLedger.h"
#include "WireCodec.h"

namespace ParvaneHost {

/** Lines without their line feeds. */
using Lines = std::vector<std::string>;

/** Puts what came from the watch into lines. Stateless; writes nothing. */
class Printer
{
public:
    Printer() = default;
    virtual ~Printer() = default;

    virtual Lines List(const SensorList &list) const = 0;

    /**
     * A reading with what it is worth: its age, and whether the watch is worn. Steps are those of the
     * day where it has them, else the total on the wire.
     *
     * @param isOneOfMany  with its time, else it is the answer to a measurement
     */
    virtual Lines Measured(const Told::NewReading &told, Instant now, bool isOneOfMany) const = 0;

    /** The summary of a day. */
    virtual Lines Today(const StepsOfDay &steps) const = 0;

    /** What the reading alone does not tell people; nothing for most. */
    virtual Lines Remark(const Reading &reading) const = 0;

    virtual Lines Stopped(Sensor sensor) const = 0;

    /** A packet as it came, with what it means or why it means nothing. */
    virtual Lines Packet(const Bytes &packet, const Result<Reply, DecodeError> &meaning,
                         std::int64_t nowMs) const = 0;

protected:
    Printer(const Printer &) = default;
    Printer &operator=(const Printer &) = default;
};

} // namespace ParvaneHost
