#include "Monitor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <stdexcept>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "ErrnoText.h"
#include "MonitorText.h"
#include "Output.h"
#include "Printable.h"
#include "StatusText.h"
#include "VersionRemark.h"
#include "Wait.h"

namespace ParvaneWatch {

namespace {

using nlohmann::json;
using Parvane::Deadline;
using Parvane::WaitResult;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::string TextOf(const json &value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

void Complain(const std::string &text)
{
    constexpr int kLimitMs = 1000;
    Parvane::WriteAll(STDERR_FILENO, "parvane-watch: " + Parvane::Printable(text) + '\n',
                      {-1, kLimitMs});
}

/** The words of a refusal. */
std::string RefusalText(const json &reply)
{
    const json &message = At(At(reply, "error"), "message");
    return message.is_string() ? message.get<std::string>() : "the service has refused it";
}

/**
 * What the terminal tells by signals: its end, unless the process was started to ignore that, and its
 * size.
 */
class TerminalSignals
{
public:
    TerminalSignals()
    {
        struct sigaction action = {};
        ::sigaction(SIGHUP, nullptr, &action);
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGWINCH);
        if (action.sa_handler != SIG_IGN) {
            sigaddset(&signals, SIGHUP);
        }
        mFd.Reset(::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
        if (!mFd) {
            throw std::system_error(errno, std::generic_category(), "signalfd");
        }
        ::pthread_sigmask(SIG_BLOCK, &signals, &mOldMask);
    }
    ~TerminalSignals() { ::pthread_sigmask(SIG_SETMASK, &mOldMask, nullptr); }

    TerminalSignals(const TerminalSignals &) = delete;
    TerminalSignals &operator=(const TerminalSignals &) = delete;

    [[nodiscard]] int Fd() const { return mFd.Get(); }

    /** The next signal; 0 for none. */
    [[nodiscard]] int Take() const
    {
        signalfd_siginfo info = {};
        return ::read(mFd.Get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)
                   ? static_cast<int>(info.ssi_signo)
                   : 0;
    }

private:
    Parvane::UniqueFd mFd;
    sigset_t mOldMask = {};
};

} // namespace

Monitor::Monitor(Invocation invocation, const Parvane::Signals &signals)
    : mInvocation(std::move(invocation)),
      mSignals(signals),
      mDeadline(mInvocation.mFor ? Deadline::After(*mInvocation.mFor) : Deadline::Never())
{}

Outcome Monitor::Run()
{
    std::string failure;
    try {
        if (mInvocation.mPlain || mInvocation.mJson) {
            ShowLines();
        } else {
            ShowScreen();
        }
    } catch (const Interrupted &) {
        return {ExitCode::Failure, mSignals.Take()};
    } catch (const Unreachable &unreachable) {
        mOutcome.mCode = ExitCode::Unreachable;
        failure = unreachable.what();
    } catch (const std::exception &other) {
        mOutcome.mCode = ExitCode::Failure;
        failure = other.what();
    }
    if (!failure.empty()) {
        Complain(failure);
    }
    return mOutcome;
}

bool Monitor::Observe(milliseconds answerTime)
{
    ControlClient client(mInvocation.mSocketPath, mSignals.Fd(), answerTime);
    const json reply = client.Ask(mInvocation.mRequest);
    if (!reply.at("ok").get<bool>()) {
        throw std::runtime_error(RefusalText(reply));
    }
    const json &status = At(reply, "status");
    mModel.Reset(status, Clock::now());
    const std::string remark = VersionRemark(status);
    if (!std::exchange(mIsCompared, true) && !remark.empty()) {
        Complain(remark); // on a terminal that is no screen yet
    }
    mClient.emplace(std::move(client));
    return mInvocation.mJson ? Print(TextOf(reply) + '\n') : true;
}

void Monitor::ShowLines()
{
    if (!Observe(std::min<milliseconds>(ControlClient::kAnswerTime, mDeadline.Remaining()))) {
        return;
    }
    const json status = mModel.Status(Clock::now());
    if (!mInvocation.mJson && !Print(TimeOfDay(At(status, "time")) + "  service     process " +
                                     Plain(At(At(status, "service"), "pid")) + " is observed\n")) {
        return;
    }
    for (bool goesOn = true; goesOn;) {
        switch (Parvane::WaitFor(mClient->Fd(), POLLIN, mDeadline,
                                 {.mInterruptFd = mSignals.Fd(), .mOutputFd = STDOUT_FILENO})) {
        case WaitResult::Ready:
            break;
        case WaitResult::TimedOut:
            return;
        case WaitResult::Interrupted:
            // Without a signal it was the reader of the output who has gone and wants no more.
            mOutcome.mSignal = mSignals.Take();
            return;
        case WaitResult::Failed:
            throw std::runtime_error("cannot wait: " + Parvane::ErrnoText(errno));
        }
        const auto message = mClient->NextAtOnce();
        if (!message) {
            throw Unreachable("the service has gone");
        }
        goesOn = ShowLine(*message);
    }
}

bool Monitor::ShowLine(const json &message)
{
    const auto now = Clock::now();
    const std::string text =
        mInvocation.mJson ? TextOf(message) + '\n' : EventText(message, mModel.Status(now));
    mModel.Apply(message, now);
    const bool goesOn = Print(text);
    if (goesOn && message.contains("end")) {
        throw Unreachable("the service has ended");
    }
    return goesOn;
}

bool Monitor::Print(const std::string &text)
{
    // A reader that takes nothing does not make it longer than it was to be.
    const milliseconds left = std::min<milliseconds>(mDeadline.Remaining(), std::chrono::hours{1});
    const int error =
        Parvane::WriteAll(STDOUT_FILENO, text,
                          {mSignals.Fd(), mInvocation.mFor ? static_cast<int>(left.count()) : -1});
    if (error == EINTR) {
        throw Interrupted{};
    }
    if (error != 0 && error != EPIPE && error != ETIMEDOUT) {
        throw std::runtime_error("cannot write to standard output: " + Parvane::ErrnoText(error));
    }
    return error == 0;
}

void Monitor::ShowScreen()
{
    Observe(std::min<milliseconds>(
        ControlClient::kAnswerTime,
        mDeadline.Remaining())); // first: without a service there is nothing to show
    const TerminalSignals terminal;
    MonitorScreen screen;
    const bool hasKeys = ::isatty(STDIN_FILENO) == 1;
    constexpr milliseconds kTick{1000}; // ages
    constexpr milliseconds kFrame{100}; // events that come faster are shown together
    Clock::time_point drawn = Clock::now() - kTick;
    bool isNew = true;
    while (!mDeadline.HasPassed()) {
        const auto due = drawn + (isNew ? kFrame : kTick);
        if (Clock::now() >= due) {
            Draw(screen);
            drawn = Clock::now();
            isNew = !mClient && ComeBack();
            continue;
        }
        const auto left = std::chrono::ceil<milliseconds>(due - Clock::now());
        std::array<pollfd, 4> polled{{{mSignals.Fd(), POLLIN, 0},
                                      {terminal.Fd(), POLLIN, 0},
                                      {hasKeys ? STDIN_FILENO : -1, POLLIN, 0},
                                      {mClient ? mClient->Fd() : -1, POLLIN, 0}}};
        const auto wait = std::clamp(std::min(left, mDeadline.Remaining()), milliseconds{0}, kTick);
        if (::poll(polled.data(), polled.size(), static_cast<int>(wait.count())) <= 0) {
            continue;
        }
        if (polled[0].revents != 0) {
            throw Interrupted{};
        }
        isNew = true;
        const int signal = polled[1].revents != 0 ? terminal.Take() : 0;
        if (!TakeTerminal(screen, signal, polled[2].revents)) {
            return;
        }
        if (polled[3].revents != 0) {
            TakeEvents();
        }
    }
}

bool Monitor::TakeTerminal(MonitorScreen &screen, int signal, int keys)
{
    if (signal == SIGHUP) {
        mOutcome = {ExitCode::Failure, SIGHUP};
        return false;
    }
    if (signal != 0) {
        screen.Resize();
    }
    if ((keys & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
        mOutcome.mCode = ExitCode::Failure; // a terminal that has gone without a word
        return false;
    }
    return keys == 0 || TakeKeys(screen);
}

void Monitor::Draw(MonitorScreen &screen) const
{
    // One that was stopped takes nothing, and would hold up everything else.
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    if (::poll(&output, 1, 0) <= 0) {
        return;
    }
    MonitorView view;
    view.mColumns = screen.Columns();
    view.mRows = screen.Rows();
    view.mIsUtf8 = screen.IsUtf8();
    view.mNote = mNote;
    view.mPrompt = mKeys.Prompt();
    view.mShowsHelp = mKeys.ShowsHelp();
    screen.Draw(MonitorLines(mModel, Clock::now(), view));
}

void Monitor::TakeEvents()
{
    // As many as are there, but for a service that never stops.
    constexpr int kAtMost = 1000;
    for (int i = 0; i < kAtMost; ++i) {
        pollfd socket{mClient->Fd(), POLLIN, 0};
        if (::poll(&socket, 1, 0) <= 0) {
            return;
        }
        const auto message = mClient->NextAtOnce();
        if (!message || message->contains("end")) {
            Lose("the service has gone; this waits for its return");
            return;
        }
        mModel.Apply(*message, Clock::now());
        if (mModel.Missed() > 0) {
            Lose("too much at once: " + std::to_string(mModel.Missed()) + " messages were missed");
            return; // what is so now is asked for anew
        }
    }
}

void Monitor::Lose(const std::string &why)
{
    mClient.reset();
    mNote = why;
}

bool Monitor::ComeBack()
{
    try {
        Observe(milliseconds{1000}); // nothing is shown meanwhile
        mNote.clear();
        return true;
    } catch (const Unreachable &) {
        return false; // it is tried again with the next second
    } catch (const std::runtime_error &failure) {
        mNote = failure.what();
        return false;
    }
}

bool Monitor::TakeKeys(MonitorScreen &screen)
{
    for (int key = screen.NextKey(); key != 0; key = screen.NextKey()) {
        if (mClient) {
            mNote.clear(); // what the key before has done
        }
        const MonitorKeys::Wish wish = mKeys.Take(key, mModel.Status(Clock::now()));
        if (wish.mQuit) {
            return false;
        }
        if (wish.mRequest) {
            Send(*wish.mRequest);
        }
    }
    return true;
}

void Monitor::Send(const json &request)
{
    constexpr milliseconds kAnswerTime{2000}; // nothing is shown meanwhile
    try {
        ControlClient client(mInvocation.mSocketPath, mSignals.Fd(), kAnswerTime);
        const json reply = client.Ask(TextOf(request));
        mNote = reply.at("ok").get<bool>() ? DoneText(request, reply) : RefusalText(reply);
    } catch (const std::runtime_error &failure) {
        mNote = failure.what();
    }
    mNote = Parvane::Printable(mNote);
}

std::string Monitor::DoneText(const json &request, const json &reply) const
{
    if (reply.value("heard", json()) == json(0)) {
        return "nobody has heard it: the item is off";
    }
    const json &item = At(request, "item");
    const std::string name = !item.is_string() ? ""
                             : item == "steps" ? "pedometer"
                                               : item.get<std::string>();
    // Its reading is shown when it comes.
    return name.empty() || name == "gesture" || mModel.IsOn(name)
               ? "done"
               : "done, and shown once the item is on: nobody asks for its readings now";
}

} // namespace ParvaneWatch
