#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "LinkedSession.h"
#include "Settings.h"

namespace ParvaneHub {

/** Who is told of what a watch says. The calls come from the main loop. */
class WatchListener
{
public:
    virtual ~WatchListener() = default;

    virtual void OnReading(const std::string &watch,
                           const ParvaneHost::Told::NewReading &reading) = 0;
    virtual void OnLinked(const std::string &watch, bool isLinked) = 0;
    /** What is known of its steps is to be kept. */
    virtual void OnSteps(const std::string &watch, std::string text) = 0;
};

/**
 * The phone of one watch: its session, and the questions at their times. What a watch sends beyond
 * reason ends its link for a minute, so that the others and the queue have nothing of it.
 */
class Watch
{
public:
    using SteadyTime = std::chrono::steady_clock::time_point;

    /** Packets in a row, and per second in the long run. */
    static constexpr int kBurst = 3000;
    static constexpr int kPerSecond = 20;
    static constexpr std::chrono::seconds kRest{60};

    /** When a watch begins, among the others: they are linked, and asked, one after the other. */
    struct Place
    {
        std::size_t mIndex = 0;
        std::size_t mOf = 1;
    };

    struct Status
    {
        bool mIsLinked = false;
        std::uint64_t mReadings = 0;
        std::uint64_t mLosses = 0;     // of the link
        std::uint64_t mNonsense = 0;   // packets that are none
        std::uint64_t mRests = 0;      // for packets beyond reason
        std::uint64_t mUnanswered = 0; // questions
        std::string mProblem;          // why it is not linked
    };

    /** @param listener  borrowed; @param savedSteps  as OnSteps() had them, or empty */
    Watch(std::string name, WatchSettings settings, const std::string &savedSteps, Place place,
          WatchListener &listener);

    /** Does what is due, and what has arrived; to be called when the descriptor or Deadline() says so. */
    void Turn();

    /** The link's descriptor and its poll(2) events; -1 without one. */
    [[nodiscard]] int Fd() const { return mSession.Fd(); }
    [[nodiscard]] short Awaits() const { return mSession.Awaits(); }
    /** Whether there is a link that was not there at the last call. */
    bool TakeIsNewLink() { return std::exchange(mIsNewLink, false); }
    [[nodiscard]] SteadyTime Deadline() const;

    [[nodiscard]] const std::string &Name() const { return mName; }
    [[nodiscard]] const WatchSettings &GetSettings() const { return mSettings; }
    [[nodiscard]] const Status &GetStatus() const { return mStatus; }
    [[nodiscard]] std::optional<ParvaneHost::Observation> Latest(ParvaneHost::Sensor sensor) const
    {
        return mSession.Get().Latest(sensor);
    }

    /** What is known of the steps. */
    [[nodiscard]] std::string Steps() const { return mSession.Get().Steps().Save(); }

private:
    /** A question that is asked again and again. */
    struct Question
    {
        ParvaneHost::Sensor mSensor;
        std::chrono::seconds mEvery{0}; // 0: never
        SteadyTime mAt;
    };

    void Follow();
    void Ask(ParvaneHost::Moment now);
    void Tell(const ParvaneHost::Told::Event &event, ParvaneHost::Moment now);
    void TellReading(const ParvaneHost::Told::NewReading &reading, ParvaneHost::Moment now);
    void TellNonsense(const std::string &text, ParvaneHost::Moment now);
    void Refill(SteadyTime now);
    void Rest(ParvaneHost::Moment now);

    std::string mName;
    WatchSettings mSettings;
    WatchListener &mListener;
    ParvaneHost::LinkedSession mSession;
    Status mStatus;
    std::array<Question, 2> mQuestions;
    SteadyTime mRestUntil;
    SteadyTime mRefilledAt;
    int mBudget = kBurst; // packets
    bool mIsNewLink = false;
    std::optional<SteadyTime> mStepsSavedAt;
    std::optional<SteadyTime> mNonsenseToldAt;
};

} // namespace ParvaneHub
