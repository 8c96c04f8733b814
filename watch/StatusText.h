#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace ParvaneWatch {

/**
 * A status (docs/control.md) for people: lines without their ends, times of this time zone. What the
 * status does not tell is left out; nothing in it can make this fail.
 */
std::vector<std::string> StatusText(const nlohmann::json &status);

/** A member of an object; null for one that is not there, or of what is no object. */
const nlohmann::json &At(const nlohmann::json &object, const char *key);

/** A value as it is, for a terminal, without the quotes of a string; "?" for none. */
std::string Plain(const nlohmann::json &value);

/** "state 2, kept by logind": of a power lock. */
std::string LockText(const nlohmann::json &lock);

/** "run.csv at 12.5 s of 49.0 s, speed 1, over and over, paused": how recordings are played. */
std::string ReplayText(const nlohmann::json &replay);

/** The values of a reading: "72 /min (812 ms peak to peak)". */
std::string ValuesText(const nlohmann::json &values);

/** "no packets", "1 packet", "2 packets" */
std::string Counted(const nlohmann::json &count, const char *what);

/** Milliseconds as "12.5 s". */
std::string SecondsText(const nlohmann::json &ms);

/** What has crossed the link of a status; and what has not. */
std::string TrafficText(const nlohmann::json &link);
std::string RefusedText(const nlohmann::json &link);

/** The time of day of an instant of the protocol, in this time zone; empty for none. */
std::string TimeOfDay(const nlohmann::json &instant);

/** "0.4 s" (below 10 s with a decimal when `isFine`), "12 s", "3 min 5 s", "2 h 10 min", "4 d 3 h". */
std::string LengthText(std::int64_t ms, bool isFine = false);

} // namespace ParvaneWatch
