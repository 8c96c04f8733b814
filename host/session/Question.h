#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "Failure.h"
#include "Messages.h"
#include "Told.h"

namespace ParvaneHost {

/** How long a measurement may take until it counts as unanswered, with some room. */
std::chrono::milliseconds AnswerTimeout(Sensor sensor);

/** "the measurement of 'hr'": what a failure names. */
std::string MeasurementText(Sensor sensor);

/** How long the answer to a request may take. */
std::chrono::milliseconds AnswerTimeout(const Request &request);

/** What was asked for and not answered. */
struct Question
{
    using SteadyTime = std::chrono::steady_clock::time_point;

    [[nodiscard]] bool IsFor(Command command, Sensor sensor) const;

    /** Whether it was sent, with these flags. */
    [[nodiscard]] bool WasSentWith(std::uint8_t flags) const;

    /** "the sensor list", "the stop of 'hr'": what a failure names. */
    [[nodiscard]] std::string Text() const;

    /** Enters the next sensor of the list. @return what is wrong with it */
    std::optional<Failure> AddToList(const SensorEntry &entry);

    /** Whether its list has all the sensors that it counts. */
    [[nodiscard]] bool HasWholeList() const;

    RequestId mId = 0;
    bool mIsOurs = false; // nobody outside knows of it
    Request mRequest;
    std::chrono::milliseconds mTimeout{0};
    SteadyTime mGiveUpAt;
    std::optional<SteadyTime> mSentAt; // nothing: waits for a link
    std::optional<SteadyTime> mAskAgainAt;
    std::optional<SensorList> mList; // as far as it has come
};

} // namespace ParvaneHost
