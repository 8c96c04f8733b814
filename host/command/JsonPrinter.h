#pragma once

#include "Printer.h"

namespace ParvaneHost {

/**
 * For programs: one JSON object a line, in the order in which things came.
 *
 * Every object has "type". Keys() documents the keys, and `parvane-host --help` prints that; keys
 * are never renamed or dropped, new ones may come.
 */
class JsonPrinter : public Printer
{
public:
    /** The documentation of the keys, in lines of at most 80 characters. */
    static Lines Keys();

    Lines List(const SensorList &list) const override;
    Lines Measured(const Told::NewReading &told, Instant now, bool isOneOfMany) const override;
    Lines Today(const StepsOfDay &steps) const override;
    Lines Remark(const Reading &reading) const override;
    Lines Stopped(Sensor sensor) const override;
    Lines Packet(const Bytes &packet, const Result<Reply, DecodeError> &meaning,
                 std::int64_t nowMs) const override;
};

} // namespace ParvaneHost
