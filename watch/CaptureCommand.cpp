#include "CaptureCommand.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include "CaptureFile.h"
#include "ControlClient.h"
#include "Deadline.h"
#include "ErrnoText.h"
#include "Output.h"
#include "Printable.h"
#include "Wait.h"

namespace ParvaneWatch {

namespace {

using nlohmann::json;
using Parvane::Deadline;
using Parvane::WaitResult;
using Parvane::WriteAll;

/** A failure that ends the command; one line for people. */
class CaptureError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

void Say(const std::string &text)
{
    constexpr int kLimitMs = 1000;
    WriteAll(STDERR_FILENO, "parvane-watch: " + Parvane::Printable(text) + '\n', {-1, kLimitMs});
}

/** @throws nlohmann::json::exception, CaptureError for what is none */
std::vector<std::uint8_t> BytesOf(const json &message)
{
    constexpr std::string_view kDigits = "0123456789abcdef";
    const auto &text = message.at("bytes").get_ref<const std::string &>();
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        const std::size_t high = kDigits.find(text[i]);
        const std::size_t low = kDigits.find(text[i + 1]);
        if (high == std::string_view::npos || low == std::string_view::npos) {
            throw CaptureError("the service broke the protocol: bytes that are none");
        }
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
    return bytes;
}

/** One capture, from its first packet to what ends it. */
class Capture
{
public:
    Capture(const Invocation &invocation, const Parvane::Signals &signals)
        : mInvocation(invocation),
          mSignals(signals),
          mClient(invocation.mSocketPath, signals.Fd()),
          mEnd(invocation.mFor ? Deadline::After(*invocation.mFor) : Deadline::Never())
    {}

    Outcome Run()
    {
        const json reply = mClient.Ask(mInvocation.mRequest);
        if (!reply.at("ok").get<bool>()) {
            const json error = reply.value("error", json::object());
            throw CaptureError(error.value("message", "the service has refused it"));
        }
        // Only now, so that a service that cannot be reached or refuses costs nobody a file.
        Check(mFile.Open(mInvocation.mFile, mInvocation.mForce));
        try {
            while (TakeNext()) {
            }
        } catch (const Interrupted &) {
            TakeWhatIsThere();
        }
        return Finish();
    }

private:
    /** @return false when the capture is over @throws Interrupted */
    bool TakeNext()
    {
        switch (Parvane::WaitFor(mClient.Fd(), POLLIN, mEnd.Earlier(mQuietEnd),
                                 {.mInterruptFd = mSignals.Fd()})) {
        case WaitResult::Ready:
            break;
        case WaitResult::TimedOut:
            return false;
        case WaitResult::Interrupted:
            throw Interrupted{};
        case WaitResult::Failed:
            throw CaptureError("cannot wait for the service: " + Parvane::ErrnoText(errno));
        }
        const auto message = mClient.NextAtOnce();
        if (!message) {
            throw CaptureError("the service has gone; the capture may lack its last packets");
        }
        return Take(*message);
    }

    /** What crossed the link before the signal is part of the capture. */
    void TakeWhatIsThere()
    {
        [[maybe_unused]] const int signal = mSignals.Take(); // asked for: no failure
        const Deadline atMost = Deadline::After(std::chrono::seconds{1});
        for (bool goesOn = true; goesOn && !atMost.HasPassed();) {
            const auto message = mClient.NextAtOnce();
            goesOn = message && Take(*message);
        }
    }

    bool Take(const json &message)
    {
        const json event = message.value("event", json());
        if (event == "packet") {
            Add(message);
        } else if (event == "missed") {
            mMissed += message.at("count").get<std::uint64_t>();
            mFile.PacketsAreMissing();
        }
        // Messages of a later version are not for this program; only the end matters.
        return !message.contains("end");
    }

    void Add(const json &message)
    {
        const auto at = std::chrono::microseconds(message.at("time_us").get<std::int64_t>());
        const int link = message.at("link").get<int>();
        if (mRun.empty()) {
            mRun = "capture-" + std::to_string(at.count()); // all of it is of one run
        }
        if (link != mLink) {
            mFile.LinkBegins(mRun);
            mLink = link;
        }
        const auto bytes = BytesOf(message);
        Check(mFile.Add(
            {message.at("from") == "phone" ? Parvane::Sender::Phone : Parvane::Sender::Watch,
             std::chrono::sys_time<std::chrono::microseconds>(at), bytes,
             message.at("size").get<std::size_t>()}));
        ++mPackets;
        if (mInvocation.mQuiet) {
            mQuietEnd = Deadline::After(*mInvocation.mQuiet);
        }
    }

    /** @param error  an errno, or 0 @throws CaptureError */
    void Check(int error) const
    {
        if (error != 0) {
            throw CaptureError("cannot write " + mInvocation.mFile + ": " +
                               Parvane::ErrnoText(error) +
                               (error == EEXIST ? " (--force overwrites it)" : ""));
        }
    }

    [[nodiscard]] Outcome Finish() const
    {
        if (mMissed > 0) {
            Say(std::to_string(mMissed) + " packets are missing: they could not be taken in time");
        } else if (::isatty(STDERR_FILENO) == 1) {
            Say(std::to_string(mPackets) + (mPackets == 1 ? " packet" : " packets"));
        }
        if (mInvocation.mJson) {
            const std::string text = json({{"packets", mPackets}, {"missed", mMissed}}).dump();
            const int error = WriteAll(STDOUT_FILENO, text + '\n', {mSignals.Fd()});
            if (error != 0 && error != EPIPE) {
                throw CaptureError("cannot write to standard output: " + Parvane::ErrnoText(error));
            }
        }
        return {mMissed > 0 ? ExitCode::Failure : ExitCode::Success};
    }

    const Invocation &mInvocation;
    const Parvane::Signals &mSignals;
    ControlClient mClient;
    Parvane::CaptureFile mFile;
    Deadline mEnd;
    Deadline mQuietEnd = Deadline::Never(); // before the first packet there is none
    std::string mRun;
    int mLink = 0;
    std::uint64_t mPackets = 0;
    std::uint64_t mMissed = 0;
};

} // namespace

Outcome CaptureLink(const Invocation &invocation, const Parvane::Signals &signals)
{
    try {
        return Capture(invocation, signals).Run();
    } catch (const Interrupted &) { // before there was anything
        return {ExitCode::Failure, signals.Take()};
    } catch (const Unreachable &failure) {
        Say(failure.what());
        return {ExitCode::Unreachable};
    } catch (const json::exception &) {
        Say("the service broke the protocol: a message that lacks a member");
    } catch (const std::exception &failure) {
        Say(failure.what());
    }
    return {ExitCode::Failure};
}

} // namespace ParvaneWatch
