#include "Watch.h"

#include <algorithm>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <utility>
#include <variant>

#include "ErrnoText.h"
#include "Log.h"
#include "Printable.h"
#include "RegularFile.h"
#include "RelayRoad.h"

namespace ParvaneHub {

namespace {

using ParvaneHost::Moment;
using ParvaneHost::Sensor;
using std::chrono::milliseconds;
using std::chrono::seconds;
namespace Told = ParvaneHost::Told;

constexpr seconds kOnceAMinute{60};

seconds SystemZone(std::chrono::sys_seconds instant)
{
    const auto time = static_cast<std::time_t>(instant.time_since_epoch().count());
    std::tm local{};
    return ::localtime_r(&time, &local) == nullptr ? seconds{0} : seconds{local.tm_gmtoff};
}

ParvaneHost::StepLedger LedgerOf(const std::string &watch, const std::string &saved)
{
    if (!saved.empty()) {
        auto ledger = ParvaneHost::StepLedger::Restore(saved, SystemZone);
        if (ledger) {
            return std::move(ledger).Value();
        }
        Parvane::LogWarning(watch +
                            ": what was kept of its steps is of no use: " + ledger.GetError());
    }
    return ParvaneHost::StepLedger(SystemZone);
}

/** Watches that were lost together do not all come back in the same moment. */
ParvaneHost::SessionOptions OptionsOf(Watch::Place place)
{
    constexpr std::size_t kApart = 97;
    ParvaneHost::SessionOptions options;
    options.mFirstPause = milliseconds(200 + (place.mIndex * kApart) % 400);
    options.mLongestPause = seconds{30};
    return options;
}

/** A gateway's token is read at each start of a watch. @throws std::runtime_error without one */
std::string ReadToken(const std::string &file)
{
    constexpr std::size_t kMostBytes = 4096;
    std::string token;
    if (const int error = Parvane::ReadWholeFile(file, kMostBytes, token); error != 0) {
        throw std::runtime_error("cannot read the token in " + file + ": " +
                                 Parvane::ErrnoText(error));
    }
    token.erase(std::min(token.find_first_of("\r\n"), token.size()));
    if (!ParvaneHost::IsToken(token)) {
        throw std::runtime_error("there is no token in " + file);
    }
    return token;
}

/** What the watch cannot be reached by, until the configuration is read again. */
class NoRoad : public ParvaneHost::Road
{
public:
    explicit NoRoad(std::string why) : mWhy(std::move(why)) {}

    ParvaneHost::Result<ParvaneHost::Link, ParvaneHost::Error>
    Connect(const Parvane::Deadline & /*deadline*/,
            const Parvane::WaitOptions & /*options*/) override
    {
        return ParvaneHost::Error{
            ParvaneHost::LinkError{ParvaneHost::LinkError::Reason::CannotConnect, 0, {}, mWhy}};
    }

private:
    std::string mWhy;
};

std::unique_ptr<ParvaneHost::Road> RoadOf(const WatchSettings &settings)
{
    constexpr std::string_view kSocket = "unix:";
    if (settings.mLink.starts_with(kSocket)) {
        return std::make_unique<ParvaneHost::SocketRoad>(settings.mLink.substr(kSocket.size()));
    }
    try {
        auto target = ParvaneHost::ParseWebAddress(settings.mLink);
        if (!target) {
            throw std::runtime_error(target.GetError());
        }
        target.Value().mToken = ReadToken(settings.mTokenFile);
        target.Value().mFingerprint =
            ParvaneHost::ParseFingerprint(settings.mFingerprint).value_or("");
        return std::make_unique<RelayRoad>(std::move(target).Value());
    } catch (const std::runtime_error &failure) {
        return std::make_unique<NoRoad>(failure.what());
    }
}

} // namespace

Watch::Watch(std::string name, WatchSettings settings, const std::string &savedSteps, Place place,
             WatchListener &listener)
    : mName(std::move(name)),
      mSettings(std::move(settings)),
      mListener(listener),
      mSession(RoadOf(mSettings), OptionsOf(place), LedgerOf(mName, savedSteps)),
      mQuestions({{{Sensor::HeartRate, mSettings.mWishes.mHeartRate, {}},
                   {Sensor::WearState, mSettings.mWishes.mWorn, {}}}})
{
    constexpr milliseconds kBetweenLinks{10};
    constexpr milliseconds kUntilLinked{2000};
    const Moment now = ParvaneHost::Now();
    mRestUntil = now.mSteady + kBetweenLinks * place.mIndex;
    mRefilledAt = now.mSteady;
    for (Question &question : mQuestions) {
        const auto apart =
            std::min<milliseconds>(milliseconds(question.mEvery) / place.mOf, seconds{1});
        question.mAt = now.mSteady + kUntilLinked + apart * place.mIndex;
    }
    mSession.SetOnLink([this](ParvaneHost::Link & /*link*/) { mIsNewLink = true; });
    if (mSettings.mWishes.mSteps) {
        mSession.Get().Follow(Sensor::Pedometer, now);
    }
    if (mSettings.mWishes.mActivity) {
        mSession.Get().Follow(Sensor::Activity, now);
    }
}

void Watch::Turn()
{
    const Moment now = ParvaneHost::Now();
    if (now.mSteady < mRestUntil) {
        return;
    }
    Refill(now.mSteady);
    Ask(now);
    mSession.Process();
    while (const auto event = mSession.Get().NextEvent()) {
        Tell(*event, now);
    }
    if (mBudget < 0) {
        Rest(now);
    }
}

Watch::SteadyTime Watch::Deadline() const
{
    const SteadyTime now = std::chrono::steady_clock::now();
    if (mRestUntil > now) {
        return mRestUntil;
    }
    if (mSession.Get().WantsLink() && mSession.Fd() < 0) {
        return now;
    }
    SteadyTime deadline = SteadyTime::max();
    for (const Question &question : mQuestions) {
        if (question.mEvery.count() > 0) {
            deadline = std::min(deadline, question.mAt);
        }
    }
    return std::min(deadline, mSession.Get().Deadline().value_or(SteadyTime::max()));
}

/** Asks what is due. A watch that is away is tried again sooner, at a distance from the others as before. */
void Watch::Ask(Moment now)
{
    constexpr seconds kAgain{30};
    for (Question &question : mQuestions) {
        if (question.mEvery.count() == 0 || question.mAt > now.mSteady) {
            continue;
        }
        const bool isLinked = mSession.Get().IsLinked();
        if (isLinked) {
            mSession.Get().Measure(question.mSensor, now);
        }
        const seconds step = isLinked ? question.mEvery : std::min(question.mEvery, kAgain);
        question.mAt += step * (1 + (now.mSteady - question.mAt) / step);
    }
}

void Watch::Tell(const Told::Event &event, Moment now)
{
    if (std::holds_alternative<Told::Linked>(event)) {
        mStatus.mIsLinked = true;
        mStatus.mProblem.clear();
        Parvane::LogInfo(mName + ": linked");
        mListener.OnLinked(mName, true);
    } else if (const auto *lost = std::get_if<Told::Lost>(&event)) {
        mStatus.mIsLinked = false;
        ++mStatus.mLosses;
        mStatus.mProblem = Parvane::Printable(lost->mWhy.mText, 200);
        Parvane::LogWarning(mName + ": the link was lost: " + mStatus.mProblem);
        mListener.OnLinked(mName, false);
    } else if (const auto *failed = std::get_if<Told::AttemptFailed>(&event)) {
        const std::string problem = Parvane::Printable(failed->mWhy.mText, 200);
        if (problem != mStatus.mProblem) { // once for each reason
            Parvane::LogWarning(mName + ": no link: " + problem);
        }
        mStatus.mProblem = problem;
    } else if (std::holds_alternative<Told::Failed>(event)) {
        ++mStatus.mUnanswered;
    } else if (const auto *reading = std::get_if<Told::NewReading>(&event)) {
        TellReading(*reading, now);
    } else if (const auto *nonsense = std::get_if<Told::Nonsense>(&event)) {
        TellNonsense(nonsense->mText, now);
    }
}

void Watch::TellReading(const Told::NewReading &reading, Moment now)
{
    if (--mBudget < 0) {
        return;
    }
    ++mStatus.mReadings;
    mListener.OnReading(mName, reading);
    const bool isDue = !mStepsSavedAt || now.mSteady - *mStepsSavedAt >= kOnceAMinute;
    if (reading.mSteps && reading.mIsSettled && isDue) {
        mStepsSavedAt = now.mSteady;
        mListener.OnSteps(mName, Steps());
    }
}

void Watch::TellNonsense(const std::string &text, Moment now)
{
    --mBudget;
    ++mStatus.mNonsense;
    if (!mNonsenseToldAt || now.mSteady - *mNonsenseToldAt >= kOnceAMinute) {
        mNonsenseToldAt = now.mSteady;
        Parvane::LogWarning(mName + ": a packet that is none, of " +
                            std::to_string(mStatus.mNonsense) +
                            " so far: " + Parvane::Printable(text, 200));
    }
}

void Watch::Refill(SteadyTime now)
{
    const auto passed = std::chrono::duration_cast<seconds>(now - mRefilledAt);
    if (passed.count() > 0) {
        mRefilledAt += passed;
        mBudget =
            static_cast<int>(std::min<long long>(kBurst, mBudget + passed.count() * kPerSecond));
    }
}

void Watch::Rest(Moment now)
{
    ++mStatus.mRests;
    mBudget = 0;
    mRestUntil = now.mSteady + kRest;
    mSession.Get().Lost("it sends more than a watch does; it rests for a minute", now);
    mSession
        .Process(); // of two calls one may be for what was to be sent; the other closes the link
    mSession.Process();
    while (const auto event = mSession.Get().NextEvent()) {
        Tell(*event, now);
    }
}

} // namespace ParvaneHub
