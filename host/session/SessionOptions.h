#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace ParvaneHost {

struct SessionOptions
{
    /** Flags of the first request, 1 to 3; the following ones take turns. */
    std::uint8_t mFirstFlags = 1;
    /** For the answer to each request; nothing: 5 s, or what the sensor takes: AnswerTimeout(). */
    std::optional<std::chrono::milliseconds> mTimeout;
    /** After this long without an answer the worn state is asked for again. */
    std::chrono::milliseconds mAskAgainAfter{3500};
    std::chrono::milliseconds mFirstPause{100}; // before a lost link is made again; doubled up to
    std::chrono::milliseconds mLongestPause{5000}; // this
    /**
     * A link counts only when the watch has answered on it, for which it is sent a stop of the
     * activity; and after an unanswered request it is asked for its sensors, to see whether it is
     * still there. False: that is left to whoever asks, except where the activity is followed.
     */
    bool mProvesLink = true;
    /**
     * With a heart rate the worn state is asked for, unless it was just told: what a watch measures that
     * is not worn is worth little. It is a reading like any other, and a silent one is passed over.
     */
    bool mAsksWorn = true;
    /** Steps are asked for until they are known. False: once, and the total is told as it is. */
    bool mCountsSteps = true;
};

} // namespace ParvaneHost
