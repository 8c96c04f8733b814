#pragma once

#include <chrono>
#include <string>

namespace ParvaneHost {

/** Why what was asked for does not come. */
struct Failure
{
    enum class Reason {
        NoAnswer,    // in time
        NotLinked,   // in time: it was never sent
        LinkLost,    // while the answer was awaited
        Malformed,   // the watch sent what docs/wire-format.md does not allow
        Unsupported, // the watch has no such sensor; nothing was sent
    };

    bool operator==(const Failure &) const = default;

    Reason mReason = Reason::NoAnswer;
    std::string mText; // one line for people, without a full stop
};

/** "15 s", "0.25 s": at most three decimals, none that are 0. */
std::string SecondsText(std::chrono::milliseconds length);

/** "no answer to the sensor list within 5 s". */
Failure NoAnswer(const std::string &what, std::chrono::milliseconds within);

} // namespace ParvaneHost
