#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Messages.h"
#include "Result.h"
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

    /** The answer to a measurement. `nowMs` is the time of day, see FullTimeMs(). */
    virtual Lines Measured(const Reading &reading, std::int64_t nowMs) const = 0;

    /** A reading among many: with its time. */
    virtual Lines Watched(const Reading &reading, std::int64_t nowMs) const = 0;

    /**
     * A reading of the steps, by what is known of the steps of the day.
     *
     * @param isOneOfMany  as if Watched(), else as if Measured()
     */
    virtual Lines Steps(const Reading &reading, const StepsOfDay &steps, std::int64_t nowMs,
                        bool isOneOfMany) const = 0;

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
