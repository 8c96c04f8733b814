#include "JsonPrinter.h"

#include <cmath>
#include <nlohmann/json.hpp>
#include <variant>

#include "HexBytes.h"
#include "StepLedgerText.h"

namespace ParvaneHost {

namespace {

/** Keeps the keys in the order in which they are written here. */
using Json = nlohmann::ordered_json;

/** Whole numbers without a fraction; `value` is finite. */
Json Number(float value)
{
    constexpr float kLargestWhole =
        9007199254740992.0F; // 2^53, which every reader of JSON holds exactly
    if (std::trunc(value) == value && std::fabs(value) <= kLargestWhole) {
        return static_cast<std::int64_t>(value);
    }
    return static_cast<double>(value);
}

void AddSensor(Json &object, Sensor sensor)
{
    object["sensor"] = SensorName(sensor);
    object["id"] = static_cast<unsigned>(sensor);
}

/** Adds what only readings of this sensor have; `unit` is null for a sensor without a name. */
void AddMeaning(Json &object, const Reading &reading)
{
    switch (reading.mSensor) {
    case Sensor::Activity: {
        const auto activity = ActivityOf(reading.mValue);
        object["unit"] = "activity";
        object["activity"] = activity ? Json(ActivityName(*activity)) : Json(nullptr);
        return;
    }
    case Sensor::Pedometer:
        object["unit"] = "steps";
        return;
    case Sensor::HeartRate:
        object["unit"] = "bpm";
        object["usable"] = reading.mValue > 0;
        return;
    case Sensor::WearState:
        object["unit"] = "worn";
        object["worn"] = reading.mValue > 0;
        return;
    }
    object["unit"] = nullptr;
}

/** Of the day: how many, whether that is all, and since when. */
void AddSteps(Json &object, const std::optional<DaySteps> &steps)
{
    object["steps"] = steps ? Json(steps->mSteps) : Json(nullptr);
    object["exact"] = steps && steps->mIsExact;
    object["since_ms"] = steps ? Json(steps->mSince.time_since_epoch().count()) : Json(nullptr);
}

Json HeaderObject(const SensorListHeader &header)
{
    return {{"type", "list"},
            {"address", header.HasAddress() ? Json(header.AddressText()) : Json(nullptr)},
            {"count", header.mCount}};
}

Json EntryObject(const SensorEntry &entry)
{
    Json object{{"type", "sensor"}, {"position", entry.mPosition}};
    AddSensor(object, entry.mSensor);
    object["available"] = entry.mAvailable != 0;
    object["range"] = Number(entry.mMaxRange);
    object["resolution"] = Number(entry.mResolution);
    object["minimum"] = Number(entry.mMinValue);
    object["minimum_delay_ms"] = entry.mMinDelayMs;
    return object;
}

Json ReadingObject(const Reading &reading, std::int64_t nowMs)
{
    Json object{{"type", "reading"}};
    AddSensor(object, reading.mSensor);
    object["command"] = reading.mCommand == Command::Start ? "start" : "measure";
    object["value"] = Number(reading.mValue);
    AddMeaning(object, reading);
    object["time_ms"] =
        reading.mTimeFieldMs == 0 ? Json(nullptr) : Json(FullTimeMs(reading.mTimeFieldMs, nowMs));
    return object;
}

Json SensorObject(const char *type, Sensor sensor)
{
    Json object{{"type", type}};
    AddSensor(object, sensor);
    return object;
}

/** The object of one reply, with its flags, for each kind of reply. */
struct ReplyObject
{
    Json operator()(const SensorListHeader &header) const
    {
        return Flagged(HeaderObject(header), header);
    }
    Json operator()(const SensorEntry &entry) const
    {
        Json object = Flagged(EntryObject(entry), entry);
        object["reserved"] = entry.mReserved;
        return object;
    }
    Json operator()(const Reading &reading) const
    {
        Json object = Flagged(ReadingObject(reading, mNowMs), reading);
        object["time_field_ms"] = reading.mTimeFieldMs;
        return object;
    }
    Json operator()(const StopAck &acknowledgement) const
    {
        return Flagged(SensorObject("stopped", acknowledgement.mSensor), acknowledgement);
    }
    Json operator()(const OptionReply &reply) const
    {
        return Flagged(SensorObject("option", reply.mSensor), reply);
    }

    template <typename Packet>
    static Json Flagged(Json object, const Packet &packet)
    {
        object["flags"] = packet.mFlags;
        return object;
    }

    std::int64_t mNowMs = 0;
};

} // namespace

Lines JsonPrinter::Keys()
{
    return {
        "Every line is one JSON object with the key \"type\":",
        "",
        "list      address (text or null), count",
        "sensor    position, sensor, id, available (true/false), range, resolution,",
        "          minimum, minimum_delay_ms",
        "reading   sensor, id, command (\"measure\" or \"start\"), value, unit (text or",
        "          null), time_ms (since the epoch; null when the watch knows no time),",
        "          usable (false: a heart rate of 0, which is none), age_ms (since it was",
        "          sent), worn (true/false; null when not known), unbroken (false: it lay",
        "          in a link that was not read, and others may be missing);",
        "          activity also: activity (text or null)",
        "          the value of steps is the total on the wire, not the steps walked;",
        "          without --raw also: steps, exact, since_ms, as in today",
        "today     date, steps (at least so many; null when not known), exact (true when",
        "          it is all), since_ms (from when on it was counted), until_ms",
        "stopped   sensor, id",
        "packet    hex, and one of",
        "            reply: an object as above, or of type \"option\" (sensor, id); also",
        "              flags; sensors also: reserved; readings also: time_field_ms",
        "            error: an object with offset, field, expected, found",
        "",
        "sensor is \"activity\", \"steps\", \"hr\", \"wear\" or \"unknown\". Keys are never renamed",
        "or dropped; new ones may come. Errors are lines of text on standard error.",
    };
}

Lines JsonPrinter::List(const SensorList &list) const
{
    Lines lines{HeaderObject(list.mHeader).dump()};
    for (const SensorEntry &entry : list.mEntries) {
        lines.push_back(EntryObject(entry).dump());
    }
    return lines;
}

Lines JsonPrinter::Measured(const Told::NewReading &told, Instant now, bool /*isOneOfMany*/) const
{
    Json object = ReadingObject(told.mReading, now.time_since_epoch().count());
    const Observation &worth = told.mObservation;
    object["usable"] = worth.IsMeasurement();
    object["age_ms"] = worth.Age(now).count();
    object["worn"] = worth.mWorn == Worn::Unknown ? Json(nullptr) : Json(worth.mWorn == Worn::Yes);
    object["unbroken"] = worth.mIsUnbroken;
    if (told.mSteps) {
        AddSteps(object, told.mSteps->mSteps);
    }
    return {object.dump()};
}

Lines JsonPrinter::Today(const StepsOfDay &steps) const
{
    Json object{{"type", "today"}, {"date", DateText(steps.mDate)}};
    AddSteps(object, steps.mSteps);
    object["until_ms"] =
        steps.mSteps ? Json(steps.mSteps->mUntil.time_since_epoch().count()) : Json(nullptr);
    return {object.dump()};
}

Lines JsonPrinter::Remark(const Reading & /*reading*/) const
{
    return {};
}

Lines JsonPrinter::Stopped(Sensor sensor) const
{
    return {SensorObject("stopped", sensor).dump()};
}

Lines JsonPrinter::Packet(const Bytes &packet, const Result<Reply, DecodeError> &meaning,
                          std::int64_t nowMs) const
{
    Json object{{"type", "packet"}, {"hex", ToHex(packet)}};
    if (meaning) {
        object["reply"] = std::visit(ReplyObject{nowMs}, meaning.Value());
    } else {
        const DecodeError &error = meaning.GetError();
        object["error"] = {{"offset", error.mOffset},
                           {"field", error.mField},
                           {"expected", error.mExpected},
                           {"found", error.mFound}};
    }
    return {object.dump()};
}

} // namespace ParvaneHost
