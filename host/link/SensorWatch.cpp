#include "SensorWatch.h"

#include <algorithm>
#include <utility>
#include <variant>

#include "Wait.h"

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;

/** Whether a new link may do better. */
bool IsWorthRetrying(const Error &error)
{
    return std::holds_alternative<LinkError>(error) || std::holds_alternative<Timeout>(error);
}

} // namespace

SensorWatch::SensorWatch(Client &client, std::vector<Sensor> sensors, SensorWatchOptions options)
    : mClient(&client),
      mSensors(std::move(sensors)),
      mOptions(std::move(options)),
      mBackoff(mOptions.mFirstDelay, mOptions.mLongestDelay)
{}

std::optional<Error> SensorWatch::Begin(const Deadline &bound)
{
    if (auto error = mClient->Connect(bound)) {
        return error;
    }
    return AskAll(bound);
}

Result<Reading, Error> SensorWatch::Next(const Deadline &deadline)
{
    while (mReadings.empty()) {
        auto error = mRunning ? Listen(deadline) : Resume(deadline);
        if (!error) {
            continue;
        }
        if (!mHasHeard || !std::holds_alternative<LinkError>(*error)) {
            return *std::move(error);
        }
        Notify(Describe(*error) + "; connecting again");
        mRunning = false;
    }
    const Reading reading = mReadings.front();
    mReadings.pop_front();
    return reading;
}

void SensorWatch::AskAgain(Sensor sensor)
{
    for (Topic &topic : mTopics) {
        if (topic.mSensor == sensor) {
            topic.mAskAt = Deadline::After(milliseconds{0});
        }
    }
}

std::optional<Error> SensorWatch::End(const Deadline &bound)
{
    mRunning = false;
    if (!Watches(Sensor::Activity) || !mClient->IsConnected()) {
        return std::nullopt;
    }
    const milliseconds timeout = mOptions.mRequestTimeout.value_or(AnswerTimeout(Sensor::Activity));
    auto stopped = mClient->Stop(Sensor::Activity, Deadline::After(timeout).Earlier(bound));
    if (!stopped) {
        return std::move(stopped).GetError();
    }
    return std::nullopt;
}

bool SensorWatch::Watches(Sensor sensor) const
{
    return std::find(mSensors.begin(), mSensors.end(), sensor) != mSensors.end();
}

Timeout SensorWatch::NothingCame(const Deadline &deadline) const
{
    return {mHasHeard ? "the next reading" : MeasurementText(mSensors.front()), deadline.Length()};
}

/** Everything anew, as a new link needs it. */
std::optional<Error> SensorWatch::AskAll(const Deadline &bound)
{
    mTopics.clear();
    for (const Sensor sensor : mSensors) {
        mTopics.push_back({sensor, Deadline::After(milliseconds{0}), std::nullopt});
    }
    auto error = AskWhatIsDue(bound);
    mRunning = !error;
    return error;
}

std::optional<Error> SensorWatch::AskWhatIsDue(const Deadline &bound)
{
    for (Topic &topic : mTopics) {
        if (topic.mAskAt.HasPassed()) {
            if (auto error = Ask(topic, bound)) {
                return error;
            }
        }
    }
    return std::nullopt;
}

std::optional<Error> SensorWatch::Ask(Topic &topic, const Deadline &bound)
{
    const milliseconds timeout = mOptions.mRequestTimeout.value_or(AnswerTimeout(topic.mSensor));
    const Deadline within = Deadline::After(timeout).Earlier(bound);
    // Of two questions for the worn state within 3 s the watch may answer one.
    topic.mAskAt = topic.mSensor == Sensor::WearState
                       ? Deadline::After(mClient->Options().mAskAgainAfter)
                       : Deadline::Never();
    if (topic.mSensor == Sensor::Activity) {
        return StartActivity(within);
    }
    if (!topic.mGiveUp) {
        topic.mGiveUp = Deadline::After(timeout);
    }
    return mClient->AskToMeasure(topic.mSensor, within);
}

std::optional<Error> SensorWatch::StartActivity(const Deadline &bound)
{
    auto first = mClient->Start(Sensor::Activity, bound);
    for (const Reply &earlier : mClient->TakeUnclaimed()) {
        Keep(earlier);
    }
    if (!first) {
        return std::move(first).GetError();
    }
    Keep(first.Value());
    return std::nullopt;
}

/** Asks what is due and takes what comes; nothing is no error as long as there is time. */
std::optional<Error> SensorWatch::Listen(const Deadline &deadline)
{
    if (auto error = AskWhatIsDue(deadline)) {
        return error;
    }
    Deadline until = deadline;
    for (const Topic &topic : mTopics) {
        until = until.Earlier(topic.mAskAt).Earlier(topic.mGiveUp.value_or(Deadline::Never()));
    }
    auto reply = mClient->Receive(until);
    if (reply) {
        Keep(reply.Value());
    } else if (!std::holds_alternative<Timeout>(reply.GetError())) {
        return std::move(reply).GetError();
    } else if (auto error = LeaveOutSilent()) {
        return error;
    }
    if (mReadings.empty() && deadline.HasPassed()) {
        return NothingCame(deadline);
    }
    return std::nullopt;
}

std::optional<Error> SensorWatch::LeaveOutSilent()
{
    for (auto topic = mTopics.begin(); topic != mTopics.end();) {
        if (!topic->mGiveUp || !topic->mGiveUp->HasPassed()) {
            ++topic;
            continue;
        }
        const Timeout silence{MeasurementText(topic->mSensor), topic->mGiveUp->Length()};
        topic = mTopics.erase(topic);
        if (mTopics.empty()) {
            return silence;
        }
        Notify(Describe(silence) + "; it is left out");
    }
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
        return NothingCame(deadline);
    }
    mIsBack = true;
    auto error = mClient->Reconnect(deadline);
    if (!error) {
        if (mOptions.mOnLinkedAgain) {
            mOptions.mOnLinkedAgain();
        }
        error = AskAll(deadline);
    }
    if (!error || !IsWorthRetrying(*error)) {
        return error;
    }
    Notify(Describe(*error) + "; trying again");
    return std::nullopt;
}

void SensorWatch::Keep(const Reply &reply)
{
    const auto *reading = std::get_if<Reading>(&reply);
    if (reading == nullptr || !Watches(reading->mSensor)) {
        return;
    }
    for (Topic &topic : mTopics) {
        if (topic.mSensor == reading->mSensor) {
            topic.mGiveUp.reset();
            if (topic.mSensor == Sensor::HeartRate) {
                topic.mAskAt = Deadline::After(milliseconds{0});
            }
        }
    }
    mReadings.push_back(*reading);
    mHasHeard = true;
    mBackoff.Reset();
    if (std::exchange(mIsBack, false)) {
        Notify("connected again");
    }
}

void SensorWatch::Notify(const std::string &text) const
{
    if (mOptions.mOnNotice) {
        mOptions.mOnNotice(text);
    }
}

} // namespace ParvaneHost
