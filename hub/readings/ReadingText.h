#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Session.h"

namespace ParvaneHub {

/** A reading as a JSON object for the broker. */
struct ReadingText
{
    std::string_view mLevel; // the last level of its topic: kHeartRate and so on
    std::string mBody;
    std::int64_t mAtMs = 0; // when the watch has sent it, since 1970, UTC
    /** Whether it is a state, which holds until the next one, and not a measurement of a moment. */
    bool mIsState = false;
};

inline constexpr std::string_view kHeartRate = "heart_rate";
inline constexpr std::string_view kWorn = "worn";
inline constexpr std::string_view kActivity = "activity";
inline constexpr std::string_view kSteps = "steps";

/** The last level of the topic of a sensor's readings; empty for none of the four. */
std::string_view LevelOf(ParvaneHost::Sensor sensor);

/**
 * Writes readings, each with an identity of its own: of the run of this process, and a number.
 */
class ReadingWriter
{
public:
    ReadingWriter();

    /** Nothing for what is no reading of the four, and for steps that are not known yet. */
    std::optional<ReadingText> Write(const std::string &watch,
                                     const ParvaneHost::Told::NewReading &told);

private:
    std::string mRun; // 12 hexadecimal digits
    std::uint64_t mCount = 0;
};

/** "2026-03-14T09:26:53.123Z". */
std::string TimeText(ParvaneHost::Instant instant);

/** A body with its age, to be told at the moment at which it is sent. */
std::string WithAge(const std::string &body, std::chrono::milliseconds age);

} // namespace ParvaneHub
