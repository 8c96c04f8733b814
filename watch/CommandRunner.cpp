#include "CommandRunner.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <unistd.h>
#include <utility>

#include "ConfigText.h"
#include "ErrnoText.h"
#include "Output.h"
#include "Printable.h"
#include "StatusText.h"
#include "Terminal.h"
#include "VersionRemark.h"

namespace ParvaneWatch {

namespace {

using nlohmann::json;
using Parvane::ErrnoText;
using Parvane::WriteAll;
using Clock = std::chrono::steady_clock;

std::string TextOf(const json &value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

/** A member that is a text; empty when it is not there or no text. */
std::string TextMember(const json &object, const char *key)
{
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

/** The code of a refusal; empty when it has none. */
std::string CodeOf(const json &reply)
{
    const auto error = reply.find("error");
    return error != reply.end() && error->is_object() ? TextMember(*error, "code") : "";
}

} // namespace

CommandRunner::CommandRunner(Invocation invocation, const Parvane::Signals &signals)
    : mInvocation(std::move(invocation)), mSignals(signals), mFile(mInvocation.mFile, signals.Fd())
{}

Outcome CommandRunner::Run()
{
    try {
        return Execute();
    } catch (const Interrupted &) {
        return {ExitCode::Failure, mSignals.Take()};
    } catch (const Unreachable &failure) {
        Complain(failure.what());
        return {ExitCode::Unreachable};
    } catch (const ProtocolError &failure) {
        Complain(failure.what());
        return {ExitCode::Failure};
    }
}

Outcome CommandRunner::Execute()
{
    ControlClient client(mInvocation.mSocketPath, mSignals.Fd());
    const json reply = client.Ask(mInvocation.mRequest);
    if (!reply.at("ok").get<bool>()) {
        const bool isOfReplay = mInvocation.mAction == Invocation::Action::Replay;
        const Outcome refused = isOfReplay && CodeOf(reply) == "bad-value"
                                    ? RefusedReplay(client, reply)
                                    : Refused(reply);
        if (mInvocation.mJson) {
            Print(TextOf(reply) + '\n'); // for its code
        }
        if (CodeOf(reply) == "unknown-request") {
            AskForVersion(client);
        }
        return refused;
    }
    if (mInvocation.mAction == Invocation::Action::Record) {
        return Record(client, reply);
    }
    if (mInvocation.mAction == Invocation::Action::Request) {
        if (reply.value("heard", json()) == 0) {
            Complain("nobody has heard it: the item is off, and a gesture is over at once");
        }
        return mInvocation.mJson ? Print(TextOf(reply) + '\n') : Outcome{};
    }
    return mInvocation.mAction == Invocation::Action::Replay ? ShowReplay(reply) : Show(reply);
}

Outcome CommandRunner::ShowReplay(const json &reply)
{
    if (mInvocation.mJson) {
        return Print(TextOf(reply) + '\n');
    }
    std::string text;
    if (!mInvocation.mLists) {
        text = ReplayText(At(reply, "replay")) + '\n';
    } else {
        for (const json &recording : At(reply, "recordings")) {
            text += Plain(recording) + '\n';
        }
    }
    return Print(text);
}

Outcome CommandRunner::Show(const json &reply)
{
    const bool isStatus = mInvocation.mAction == Invocation::Action::Status;
    const bool isConfig = mInvocation.mAction == Invocation::Action::Config;
    const json report =
        reply.value(isStatus ? "status" : (isConfig ? "config" : "log"), json::object());
    if (isStatus || isConfig) {
        CompareVersions(report);
    }
    if (mInvocation.mJson) {
        return Print(TextOf(report) + '\n');
    }
    std::string text;
    for (const std::string &line : isStatus   ? StatusText(report)
                                   : isConfig ? ConfigText(report)
                                              : LogText(report)) {
        text += line + '\n';
    }
    return Print(text);
}

Outcome CommandRunner::Record(ControlClient &client, const json &reply)
{
    // Only now, so that a service that cannot be reached or refuses costs nobody a file.
    if (const int error = mFile.Open(mInvocation.mForce); error != 0) {
        Complain("cannot make " + mFile.Path() + ": " + ErrnoText(error) +
                 (error == EEXIST  ? " (--force overwrites it)"
                  : error == ENXIO ? " (nobody reads from it)"
                                   : ""));
        return {ExitCode::Failure};
    }
    SayWhatIsOn(reply.value("on", json()));
    mShowsProgress = Parvane::CanEraseLine(STDERR_FILENO, std::getenv("TERM"));
    ShowProgress(false);
    try {
        for (bool goesOn = true; goesOn;) {
            const auto message = client.Next();
            if (!message) {
                Complain("the service has gone; the recording may lack its last rows");
                mRecordingOutcome.mCode = ExitCode::Failure;
            }
            goesOn = message && TakeMessage(*message);
        }
    } catch (const Interrupted &) {
        // Asked for: the end of a recording is no failure.
        [[maybe_unused]] const int signal = mSignals.Take();
        mFile.HurryUp();
        // What was delivered before the signal is part of the recording.
        constexpr std::chrono::seconds kAtMost{1};
        const Clock::time_point end = Clock::now() + kAtMost;
        for (bool goesOn = true; goesOn && Clock::now() < end;) {
            const auto message = client.NextAtOnce();
            goesOn = message && TakeMessage(*message);
        }
    } catch (const std::runtime_error &failure) {
        Complain(failure.what());
        mRecordingOutcome.mCode = ExitCode::Failure;
    }
    return FinishRecording();
}

void CommandRunner::SayWhatIsOn(const json &items) const
{
    if (items == json::array()) {
        Complain("nothing is on: there is nothing to record before a phone asks for readings; "
                 "--on hr,steps,activity turns them on while this records");
        return;
    }
    const json wanted = json::parse(mInvocation.mRequest).value("on", json::array());
    std::string names;
    for (const json &item : wanted) {
        names += (names.empty() ? "" : ", ") + item.get<std::string>();
    }
    if (!names.empty()) {
        std::replace(names.begin(), names.end(), '_', ' ');
        Complain("on while this records: " + names);
    }
}

bool CommandRunner::TakeMessage(const json &message)
{
    if (message.contains("header")) {
        return WriteRow(TextMember(message, "header"));
    }
    if (message.contains("row")) {
        const bool isWritten = WriteRow(TextMember(message, "row"));
        mRows += isWritten ? 1 : 0;
        ShowProgress(false);
        return isWritten;
    }
    if (message.contains("left_out")) {
        if (mLeftOut++ == 0) {
            Complain("a reading is left out: " + TextMember(message, "left_out"));
        }
        mRecordingOutcome.mCode = ExitCode::Failure;
        return true;
    }
    if (message.contains("error")) {
        mRecordingOutcome = Refused(message);
        return false;
    }
    // Messages of a later version are not for this program; only the end matters.
    return !message.contains("end");
}

bool CommandRunner::WriteRow(const std::string &lines)
{
    const int error = mFile.Write(lines);
    if (error == EPIPE && mFile.IsStandardOutput()) {
        return false; // a reader that has gone wants no more
    }
    if (error != 0) {
        const bool isStuck = error == EINTR || error == ETIMEDOUT;
        Complain(
            "cannot write to " + mFile.Path() + ": " +
            (isStuck ? "its reader takes no more; the recording lacks rows" : ErrnoText(error)));
        mRecordingOutcome.mCode = ExitCode::Failure;
    }
    return error == 0;
}

Outcome CommandRunner::FinishRecording()
{
    const int error = mFile.Close();
    // A signal that came while a row was written has had its effect, which is not this process's death.
    while (mSignals.Take() != 0) {
    }
    ShowProgress(true);
    if (error != 0) {
        Complain("cannot write to " + mFile.Path() + ": " + ErrnoText(error));
        mRecordingOutcome.mCode = ExitCode::Failure;
    }
    if (mLeftOut > 1) {
        Complain(std::to_string(mLeftOut) + " readings were left out");
    }
    if (mInvocation.mJson) {
        const Outcome printed = Print(TextOf({{"rows", mRows}, {"left_out", mLeftOut}}) + '\n');
        return printed.mCode == ExitCode::Success ? mRecordingOutcome : printed;
    }
    return mRecordingOutcome;
}

void CommandRunner::ShowProgress(bool isLast)
{
    constexpr std::chrono::milliseconds kPeriod{100};
    const Clock::time_point now = Clock::now();
    if (!mShowsProgress || (!isLast && now - mShownAt < kPeriod)) {
        return;
    }
    mShownAt = now;
    // A terminal that was stopped must not hold the recording up.
    WriteAll(STDERR_FILENO,
             "\r\033[K" + std::to_string(mRows) + (mRows == 1 ? " row" : " rows") +
                 (isLast ? "\n" : ""),
             {-1, 0});
}

Outcome CommandRunner::Refused(const json &message)
{
    const json error = message.value("error", json::object());
    const std::string text = error.is_object() ? TextMember(error, "message") : "";
    Complain(text.empty() ? "the service has refused it" : text);
    return {ExitCode::Failure};
}

Outcome CommandRunner::RefusedReplay(ControlClient &client, const json &message)
{
    const json request = json::parse(mInvocation.mRequest);
    if (request.contains("recording")) {
        Complain("replay open: there is no such recording; 'parvane-watch replay list' names those "
                 "that may be opened");
        return {ExitCode::Failure};
    }
    const json reply = client.Ask(json({{"request", "replay"}}).dump());
    const json replay = reply.value("replay", json());
    if (!request.contains("position_ms") || !replay.is_object()) {
        return Refused(message);
    }
    Complain("replay seek: the recordings last " + SecondsText(At(replay, "length_ms")));
    return {ExitCode::Failure};
}

void CommandRunner::CompareVersions(const json &report)
{
    if (const std::string remark = VersionRemark(report); !remark.empty()) {
        Say(remark);
    }
}

void CommandRunner::AskForVersion(ControlClient &client)
{
    try {
        const json reply = client.Ask(json({{"request", "status"}}).dump());
        CompareVersions(reply.value("status", json::object()));
    } catch (const std::exception &) {
        // The refusal has been told; this would only have explained it.
    }
}

Outcome CommandRunner::Print(const std::string &text)
{
    const int error = WriteAll(STDOUT_FILENO, text, {mSignals.Fd()});
    if (error == EINTR) {
        throw Interrupted{};
    }
    // A reader that has gone wants no more.
    if (error == 0 || error == EPIPE) {
        return {};
    }
    Complain("cannot write to standard output: " + ErrnoText(error));
    return {ExitCode::Failure};
}

void CommandRunner::Complain(const std::string &text) const
{
    Say("parvane-watch: " + text);
}

void CommandRunner::Say(const std::string &text) const
{
    constexpr int kLimitMs = 1000;
    WriteAll(STDERR_FILENO, (mShowsProgress ? "\r\033[K" : "") + Parvane::Printable(text) + '\n',
             {-1, kLimitMs});
}

} // namespace ParvaneWatch
