#include "StatusText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>

#include "LocalTime.h"
#include "Printable.h"

namespace ParvaneWatch {

namespace {

using nlohmann::json;
using Parvane::kDateLength;
using Parvane::Printable;
using Lines = std::vector<std::string>;

std::int64_t Whole(const json &value)
{
    return value.is_number_integer() ? value.get<std::int64_t>() : 0;
}

/** A number without a needless exponent or decimals. */
std::string Number(const json &value)
{
    if (!value.is_number_float()) {
        return Plain(value);
    }
    constexpr int kDecimals = 2; // no sensor is better; sums of steps have a tail of binary dust
    std::array<char, 400> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value.get<double>(),
                                   std::chars_format::fixed, kDecimals);
    std::string number(text.data(), end.ptr);
    number.erase(number.find_last_not_of('0') + 1);
    if (number.back() == '.') {
        number.pop_back();
    }
    return number;
}

/** The instant of "2026-01-31T12:34:56.789Z", to the second, in this time zone; empty for none. */
std::string LocalTimeOf(const json &value)
{
    std::tm utc{};
    const bool isTime =
        value.is_string() && ::strptime(value.get_ref<const std::string &>().c_str(),
                                        "%Y-%m-%dT%H:%M:%S", &utc) != nullptr;
    const std::string text = isTime ? Parvane::LocalTime(::timegm(&utc)) : "";
    return text.substr(0, text.size() - std::min(Parvane::kOffsetLength, text.size()));
}

/** What the readings of one item consist of: the value that says it all, and the others. */
struct Detail
{
    const char *mKey;
    const char *mUnit;
};

std::string ActivityName(const json &value)
{
    constexpr std::array kNames = {"other", "still", "walking", "running"};
    const std::int64_t number = Whole(value);
    const bool isKnown = number >= 0 && number < static_cast<std::int64_t>(kNames.size());
    return isKnown ? kNames[static_cast<std::size_t>(number)] : "activity " + Number(value);
}

std::string MainValue(const std::string &key, const json &value)
{
    constexpr int kNotWorn = -3;
    if (key == "hrm/heart_rate") {
        return value == kNotWorn ? "off wrist" : Number(value) + " /min";
    }
    if (key == "pedometer/total_steps") {
        return Number(value) + (value == 1 ? " step" : " steps");
    }
    if (key == "activity/status") {
        return ActivityName(value);
    }
    return key == "motion/action" ? "gesture " + Number(value) : "";
}

std::string OtherValue(const std::string &key, const json &value)
{
    constexpr std::array kDetails = {Detail{"hrm/peak_to_peak", " ms peak to peak"},
                                     Detail{"hrm/spo2", " % oxygen"},
                                     Detail{"pedometer/walk_steps", " walking"},
                                     Detail{"pedometer/run_steps", " running"},
                                     Detail{"pedometer/distance", " m"},
                                     Detail{"pedometer/calories", " kcal"},
                                     Detail{"pedometer/speed", " km/h"},
                                     Detail{"activity/accuracy", " accuracy"}};
    const auto *const found =
        std::find_if(kDetails.begin(), kDetails.end(),
                     [&key](const Detail &detail) { return key == detail.mKey; });
    return found != kDetails.end() ? Number(value) + found->mUnit
                                   : Printable(key) + " " + Number(value);
}

} // namespace

const json &At(const json &object, const char *key)
{
    static const json kNull;
    if (!object.is_object()) {
        return kNull;
    }
    const auto found = object.find(key);
    return found != object.end() ? *found : kNull;
}

std::string Plain(const json &value)
{
    if (value.is_string()) {
        return Printable(value.get_ref<const std::string &>());
    }
    return value.is_null() ? "?"
                           : Printable(value.dump(-1, ' ', false, json::error_handler_t::replace));
}

std::string Counted(const json &count, const char *what)
{
    return (count == 0 ? "no" : Plain(count)) + " " + what + (count == 1 ? "" : "s");
}

std::string SecondsText(const json &ms)
{
    return Number(json(static_cast<double>(Whole(ms)) / 1000)) + " s";
}

std::string TrafficText(const json &link)
{
    return "in " + Counted(At(link, "packets_in"), "packet") + " of " +
           Counted(At(link, "bytes_in"), "byte") + ", out " +
           Counted(At(link, "packets_out"), "packet") + " of " +
           Counted(At(link, "bytes_out"), "byte");
}

std::string RefusedText(const json &link)
{
    const json &full = At(link, "queue_full");
    return Counted(At(link, "refused_hosts"), "host") + " refused, queue " +
           (full == 0 ? "never full" : "full " + Counted(full, "time"));
}

std::string LockText(const json &lock)
{
    const json &by = At(lock, "held_by");
    return "state " + Plain(At(lock, "state")) + ", " +
           (by == "none" ? "kept by the service" : "kept by " + Plain(by));
}

std::string ReplayText(const json &replay)
{
    if (!replay.is_object()) {
        return "none";
    }
    std::string names;
    for (const json &file : At(replay, "files")) {
        const std::string path = Plain(file);
        names += (names.empty() ? "" : ", ") + path.substr(path.rfind('/') + 1);
    }
    return names + " at " + SecondsText(At(replay, "position_ms")) + " of " +
           SecondsText(At(replay, "length_ms")) + ", speed " + Number(At(replay, "speed")) +
           (At(replay, "loop") == true ? ", over and over" : ", once") +
           (At(replay, "paused") == true ? ", paused" : "");
}

std::string ValuesText(const json &values)
{
    std::string main;
    std::string others;
    if (values.is_object()) {
        for (const auto &[key, value] : values.items()) {
            if (std::string text = MainValue(key, value); !text.empty() && main.empty()) {
                main = std::move(text);
            } else {
                others += (others.empty() ? "" : ", ") + OtherValue(key, value);
            }
        }
    }
    if (main.empty() || others.empty()) {
        return main + others;
    }
    return main + " (" + others + ")";
}

std::string TimeOfDay(const json &instant)
{
    const std::string text = LocalTimeOf(instant);
    return text.substr(std::min(kDateLength, text.size()));
}

namespace {

/** Lays a status out in lines: a label, and what there is to say. */
class Layout
{
public:
    explicit Layout(const json &status) : mStatus(status), mNow(LocalTimeOf(At(status, "time"))) {}

    Lines Take()
    {
        AddService();
        AddLink();
        for (const json &item : At(mStatus, "items")) {
            AddItem(item);
        }
        if (At(mStatus, "replay").is_object()) {
            Add("replay", ReplayText(At(mStatus, "replay")));
        }
        AddPowerLocks();
        AddPreferences();
        return std::move(mLines);
    }

private:
    void Add(const std::string &label, const std::string &text)
    {
        constexpr std::size_t kWidth = 12;
        mLines.push_back(label + std::string(kWidth - std::min(label.size(), kWidth - 2), ' ') +
                         text);
    }

    /** " since 12:34:56 (3 s)", with the day unless that is today; empty when it is not told. */
    std::string Since(const json &object) const
    {
        const std::string time = LocalTimeOf(At(object, "since"));
        if (time.empty()) {
            return "";
        }
        const bool isToday = mNow.starts_with(time.substr(0, kDateLength));
        return " since " + time.substr(isToday ? kDateLength : 0) + " (" +
               LengthText(Whole(At(object, "for_ms"))) + ")";
    }

    void AddService()
    {
        const json &service = At(mStatus, "service");
        const json &directories = At(mStatus, "directories");
        const json &version = At(service, "version");
        Add("service", (version.is_string() ? "version " + Plain(version) + ", " : "") +
                           "process " + Plain(At(service, "pid")) + ", user " +
                           Plain(At(service, "user")) + "," + Since(service));
        Add("state", Plain(At(directories, "state")));
        Add("run-time", Plain(At(directories, "runtime")));
    }

    void AddLink()
    {
        const json &link = At(mStatus, "link");
        const json &host = At(mStatus, "host");
        const auto count = [&link](const char *key) { return Plain(At(link, key)); };
        Add("host", host.is_object() ? "process " + Plain(At(host, "pid")) + ", user " +
                                           Plain(At(host, "user")) + "," + Since(host)
                                     : "none");
        Add("link",
            count("state") + ", key " + count("key") + ", host state " + count("host_state") +
                (At(link, "set_by").is_number() ? ", set by process " + count("set_by") : ""));
        Add("traffic", TrafficText(link) + ", " + RefusedText(link));
    }

    void AddItem(const json &item)
    {
        const json &subscription = At(item, "subscription");
        const json &reading = At(item, "last_reading");
        std::string text = "off";
        if (subscription.is_object()) {
            text =
                "on" + Since(subscription) + " by request " + Plain(At(subscription, "request_id"));
        }
        for (const json &keeper : At(item, "kept_by")) {
            const std::string recorder = "on" + Since(keeper) + " by process " +
                                         Plain(At(keeper, "pid")) + ", which records";
            if (text == "off") {
                text = recorder;
            } else {
                text += ", " + recorder;
            }
        }
        const json &problem = At(item, "problem");
        text +=
            ", " + (problem.is_string() ? Plain(problem) : "source " + Plain(At(item, "source")));
        if (reading.is_object()) {
            text += ", last " + ValuesText(At(reading, "values")) + " " +
                    LengthText(Whole(At(reading, "age_ms")), true) + " ago";
        }
        text += ", " + Counted(At(item, "delivered"), "reading");
        std::string label = Plain(At(item, "item"));
        std::replace(label.begin(), label.end(), '_', ' ');
        Add(label, text);
    }

    void AddPowerLocks()
    {
        const json &locks = At(mStatus, "power_locks");
        for (const json &lock : locks) {
            const json &endsInMs = At(lock, "ends_in_ms");
            std::string text = LockText(lock) + Since(lock);
            if (endsInMs.is_number()) {
                text += ", ends in " + LengthText(Whole(endsInMs));
            }
            Add("power lock", text);
        }
        if (locks.empty()) {
            Add("power lock", "none");
        }
    }

    void AddPreferences()
    {
        const json &preferences = At(mStatus, "preferences");
        if (!preferences.is_object() || preferences.empty()) {
            Add("preference", preferences.is_object() ? "none" : "cannot be read");
            return;
        }
        for (const auto &[key, value] : preferences.items()) {
            Add("preference",
                Printable(key + " = " +
                          value.dump(-1, ' ', false, json::error_handler_t::replace)));
        }
        if (const json &leftOut = At(mStatus, "preferences_left_out"); leftOut.is_number()) {
            Add("preference", "(" + Plain(leftOut) + " more that are too long)");
        }
    }

    const json &mStatus;
    std::string mNow;
    Lines mLines;
};

} // namespace

std::string LengthText(std::int64_t ms, bool isFine)
{
    constexpr std::int64_t kSecond = 1000;
    constexpr std::int64_t kMinute = 60 * kSecond;
    constexpr std::int64_t kHour = 60 * kMinute;
    constexpr std::int64_t kDay = 24 * kHour;
    const auto number = [](std::int64_t value) { return std::to_string(value); };
    if (isFine && ms < 10 * kSecond) {
        return number(ms / kSecond) + "." + number(ms % kSecond / 100) + " s";
    }
    if (ms < kMinute) {
        return number(ms / kSecond) + " s";
    }
    if (ms < kHour) {
        return number(ms / kMinute) + " min " + number(ms % kMinute / kSecond) + " s";
    }
    if (ms < kDay) {
        return number(ms / kHour) + " h " + number(ms % kHour / kMinute) + " min";
    }
    return number(ms / kDay) + " d " + number(ms % kDay / kHour) + " h";
}

std::vector<std::string> StatusText(const json &status)
{
    return Layout(status).Take();
}

} // namespace ParvaneWatch
