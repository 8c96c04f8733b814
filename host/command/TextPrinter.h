#pragma once

#include "Printer.h"

namespace ParvaneHost {

/** How the time of a reading is written. */
enum class TimeStyle {
    Short, // local, "2014-05-13 18:53:20"; a single measurement has none
    Iso,   // local, "2014-05-13T18:53:20.000+02:00"
    Unix,  // seconds since the epoch, "1400000000.000"
};

/** For people: sentences and a table. */
class TextPrinter : public Printer
{
public:
    /** Where to look when the watch gives no reading; it says so itself nowhere. */
    static constexpr const char *kWhereToLook =
        "is a source configured for it on the watch? 'parvane-watch status' there tells, and its last "
        "reading";

    explicit TextPrinter(TimeStyle style = TimeStyle::Short) : mStyle(style) {}

    Lines List(const SensorList &list) const override;
    Lines Measured(const Told::NewReading &told, Instant now, bool isOneOfMany) const override;
    Lines Today(const StepsOfDay &steps) const override;
    Lines Remark(const Reading &reading) const override;
    Lines Stopped(Sensor sensor) const override;
    Lines Packet(const Bytes &packet, const Result<Reply, DecodeError> &meaning,
                 std::int64_t nowMs) const override;

private:
    TimeStyle mStyle;
};

} // namespace ParvaneHost
