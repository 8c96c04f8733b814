#pragma once

#include "Printer.h"

namespace ParvaneHost {

/** For people: sentences and a table. Times are local. */
class TextPrinter : public Printer
{
public:
    Lines List(const SensorList &list) const override;
    Lines Measured(const Reading &reading, std::int64_t nowMs) const override;
    Lines Watched(const Reading &reading, std::int64_t nowMs) const override;
    Lines Stopped(const StopAck &acknowledgement) const override;
    Lines Packet(const Bytes &packet, const Result<Reply, DecodeError> &meaning,
                 std::int64_t nowMs) const override;
};

} // namespace ParvaneHost
