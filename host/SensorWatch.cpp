#include "SensorWatch.h"

#include <utility>
#include <variant>

#include "Wait.h"

namespace ParvaneHost {

namespace {

/** Whether a new link may do better. */
bool IsWorthRetrying(const Error &error)
{
    return std::holds_alternative<LinkError>(error) || std::holds_alternative<Timeout>(error);
}

} // namespace

SensorWatch::SensorWatch(Client &client, Sensor sensor, SensorWatchOptions options)
    : mClient(&client),
      mSensor(sensor),
      mOptions(std::move(options)),
      mBackoff(mOptions.mFirstDelay, mOptions.mLongestDelay)
{}

std::optional<Error> SensorWatch::Begin(const Deadline &bound)
{
    if (auto error = mClient->Connect(bound)) {
        return error;
    }
    return StartSensor(bound);
}

Result<Reading, Error> SensorWatch::Next(const Deadline &deadline)
{
    while (mReadings.empty()) {
        if (!mRunning) {
            if (auto error = Resume(deadline)) {
                return *std::move(error);
            }
            continue;
        }
        auto reply = mClient->Receive(deadline);
        if (reply) {
            Keep(reply.Value());
            if (mReadings.empty() && deadline.HasPassed()) {
                return Error{Timeout{"the next reading", deadline.Length()}};
            }
            continue;
        }
        if (!std::holds_alternative<LinkError>(reply.GetError())) {
            return std::move(reply).GetError();
        }
        Notify(Describe(reply.GetError()) + "; connecting again");
        mRunning = false;
    }
    const Reading reading = mReadings.front();
    mReadings.pop_front();
    return reading;
}

std::optional<Error> SensorWatch::End(const Deadline &bound)
{
    mRunning = false;
    if (mSensor != Sensor::Activity || !mClient->IsConnected()) {
        return std::nullopt;
    }
    auto stopped = mClient->Stop(mSensor, Deadline::After(mOptions.mRequestTimeout).Earlier(bound));
    if (!stopped) {
        return std::move(stopped).GetError();
    }
    return std::nullopt;
}

std::optional<Error> SensorWatch::StartSensor(const Deadline &bound)
{
    const Deadline deadline = Deadline::After(mOptions.mRequestTimeout).Earlier(bound);
    auto first = mSensor == Sensor::Pedometer ? mClient->Measure(mSensor, deadline)
                                              : mClient->Start(mSensor, deadline);
    for (const Reply &earlier : mClient->TakeUnclaimed()) {
        Keep(earlier);
    }
    if (!first) {
        return std::move(first).GetError();
    }
    Keep(first.Value());
    mRunning = true;
    mBackoff.Reset();
    return std::nullopt;
}

/** One attempt to make the link again, after its delay. Fails only with what ends Next(). */
std::optional<Error> SensorWatch::Resume(const Deadline &deadline)
{
    const Deadline delay = Deadline::After(mBackoff.Next()).Earlier(deadline);
    if (Parvane::WaitFor(-1, 0, delay, mClient->Options().mWait) ==
        Parvane::WaitResult::Interrupted) {
        return Interrupted{};
    }
    if (deadline.HasPassed()) {
        return Timeout{"the next reading", deadline.Length()};
    }
    auto error = mClient->Reconnect(deadline);
    if (!error) {
        error = StartSensor(deadline);
    }
    if (!error) {
        Notify("connected again");
        return std::nullopt;
    }
    if (!IsWorthRetrying(*error)) {
        return error;
    }
    Notify(Describe(*error) + "; trying again");
    return std::nullopt;
}

void SensorWatch::Keep(const Reply &reply)
{
    const auto *reading = std::get_if<Reading>(&reply);
    if (reading != nullptr && reading->mSensor == mSensor) {
        mReadings.push_back(*reading);
    }
}

void SensorWatch::Notify(const std::string &text) const
{
    if (mOptions.mOnNotice) {
        mOptions.mOnNotice(text);
    }
}

} // namespace ParvaneHost
