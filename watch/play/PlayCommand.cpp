#include "PlayCommand.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <unistd.h>
#include <utility>

#include "ControlClient.h"
#include "Deadline.h"
#include "ErrnoText.h"
#include "Output.h"
#include "Player.h"
#include "Printable.h"
#include "RegularFile.h"
#include "StatusText.h"
#include "Terminal.h"
#include "VersionRemark.h"
#include "Wait.h"

namespace ParvaneWatch {

namespace {

using nlohmann::json;
using Parvane::WriteAll;
using std::chrono::microseconds;

constexpr std::size_t kLongestScript = std::size_t{16} * 1024 * 1024;

/** By PlayItem: the item in a status, which is its key in the configuration. */
constexpr std::array kItems = {"heart_rate", "pedometer", "activity", "gesture"};

/** What ends a playing; one line for people. */
class PlayError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/** The real time, until a signal comes. */
class SystemPlayClock : public PlayClock
{
public:
    explicit SystemPlayClock(int interruptFd) : mInterruptFd(interruptFd) {}

    microseconds Now() override
    {
        return std::chrono::duration_cast<microseconds>(
            std::chrono::steady_clock::now().time_since_epoch());
    }

    bool WaitUntil(microseconds instant) override
    {
        const auto ms = std::chrono::ceil<std::chrono::milliseconds>(instant - Now());
        return Parvane::WaitFor(-1, 0, Parvane::Deadline::After(ms),
                                {.mInterruptFd = mInterruptFd}) != Parvane::WaitResult::Interrupted;
    }

private:
    int mInterruptFd;
};

std::string ReadScript(const std::string &path)
{
    std::string text;
    if (const int error = Parvane::ReadWholeFile(path, kLongestScript, text); error != 0) {
        throw PlayError("cannot read " + path + ": " +
                        (error == EFBIG ? "it is longer than 16 MiB" : Parvane::ErrnoText(error)));
    }
    return text;
}

/** One playing of a script. */
class Playing
{
public:
    Playing(const Invocation &invocation, const Parvane::Signals &signals)
        : mInvocation(invocation),
          mSignals(signals),
          mShowsProgress(Parvane::CanEraseLine(STDERR_FILENO, std::getenv("TERM")))
    {}

    Outcome Run()
    {
        try {
            return Play();
        } catch (const Interrupted &) {
            return {ExitCode::Failure, mSignals.Take()};
        } catch (const Unreachable &failure) {
            Say("parvane-watch: " + std::string(failure.what()));
            return {ExitCode::Unreachable};
        } catch (const std::exception &failure) {
            Say("parvane-watch: " + std::string(failure.what()));
            return {ExitCode::Failure};
        }
    }

private:
    Outcome Play()
    {
        const Scenario scenario = ParseScenario(mInvocation.mFile, ReadScript(mInvocation.mFile));
        std::vector<PlayEvent> events = MakeTimeline(scenario, mInvocation.mSeed);
        mCount = events.size();
        mEndMs = scenario.mEndMs;
        ControlClient client(mInvocation.mSocketPath, mSignals.Fd());
        CheckSources(client, events);

        SystemPlayClock clock(mSignals.Fd());
        Player player(std::move(events), mEndMs, mInvocation.mSpeed, clock);
        player.mOnEvent = [&](const PlayEvent &event) { Ask(client, RequestText(event)); };
        player.mOnProgress = [this](const Player::Progress &progress) { Show(progress); };
        if (const Player::Progress progress = PlayUntilSignal(player); !progress.mIsWhole) {
            Say(mInvocation.mFile + ": ended after " + LengthText(progress.mMs) + ", with " +
                std::to_string(progress.mPlayed) + " of " + std::to_string(mCount) +
                " values played");
            return {ExitCode::Failure, mSignals.Take()};
        }
        return Tell();
    }

    /** A signal may also come while an answer is waited for. */
    static Player::Progress PlayUntilSignal(Player &player)
    {
        try {
            return player.Play();
        } catch (const Interrupted &) {
            return player.Reached();
        }
    }

    /** Looks whether all that is played can be set, before anything is. */
    void CheckSources(ControlClient &client, const std::vector<PlayEvent> &events)
    {
        const json status = Ask(client, R"({"request":"status"})").value("status", json::object());
        if (const std::string remark = VersionRemark(status); !remark.empty()) {
            Say(remark);
        }
        std::set<std::string> missing;
        for (const PlayEvent &event : events) {
            missing.insert(kItems.at(static_cast<std::size_t>(event.mItem)));
        }
        for (const json &item : status.value("items", json::array())) {
            if (item.value("source", "") == "manual") {
                missing.erase(item.value("item", ""));
            }
        }
        std::string keys;
        for (const std::string &item : missing) {
            keys += (keys.empty() ? "" : ", ") + item + "=manual";
        }
        if (!keys.empty()) {
            throw PlayError(mInvocation.mFile +
                            " sets what has not the source manual: the service "
                            "needs " +
                            keys + " in section [sensors] of its platform.conf");
        }
    }

    static json Ask(ControlClient &client, const std::string &request)
    {
        json reply = client.Ask(request);
        if (!reply.at("ok").get<bool>()) {
            const json error = reply.value("error", json::object());
            throw PlayError(error.value("message", "the service has refused it"));
        }
        return reply;
    }

    void Show(const Player::Progress &progress) const
    {
        if (mShowsProgress) {
            WriteAll(STDERR_FILENO,
                     "\r\033[K" + LengthText(progress.mMs) + " of " + LengthText(mEndMs) + ", " +
                         std::to_string(progress.mPlayed) + " of " + std::to_string(mCount) +
                         " values",
                     {-1, 0});
        }
    }

    Outcome Tell()
    {
        if (mShowsProgress) {
            WriteAll(STDERR_FILENO, "\r\033[K", {-1, 0});
        }
        const json told = {
            {"values", mCount}, {"scenario_ms", mEndMs}, {"seed", mInvocation.mSeed}};
        const std::string text =
            mInvocation.mJson
                ? told.dump()
                : Parvane::Printable(mInvocation.mFile) + ": played, " + std::to_string(mCount) +
                      (mCount == 1 ? " value" : " values") + " in " + LengthText(mEndMs) +
                      " of its time, seed " + std::to_string(mInvocation.mSeed);
        const int error = WriteAll(STDOUT_FILENO, text + '\n', {mSignals.Fd()});
        if (error == EINTR) {
            throw Interrupted{};
        }
        if (error != 0 && error != EPIPE) {
            throw PlayError("cannot write to standard output: " + Parvane::ErrnoText(error));
        }
        return {};
    }

    void Say(const std::string &text) const
    {
        constexpr int kLimitMs = 1000;
        WriteAll(STDERR_FILENO,
                 (mShowsProgress ? "\r\033[K" : "") + Parvane::Printable(text) + '\n',
                 {-1, kLimitMs});
    }

    const Invocation &mInvocation;
    const Parvane::Signals &mSignals;
    bool mShowsProgress;
    std::size_t mCount = 0;
    std::int64_t mEndMs = 0;
};

} // namespace

Outcome PlayScript(const Invocation &invocation, const Parvane::Signals &signals)
{
    return Playing(invocation, signals).Run();
}

} // namespace ParvaneWatch
