#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "CommandLine.h"
#include "CommandRunner.h"
#include "ControlClient.h"
#include "Deadline.h"
#include "MonitorKeys.h"
#include "MonitorModel.h"
#include "MonitorScreen.h"
#include "Signals.h"
#include "UniqueFd.h"

namespace ParvaneWatch {

/**
 * The subcommand monitor: observes a service, which tells of what happens, and shows it: as a screen
 * where standard output is a terminal, else as lines. Borrows the signals. Use once.
 */
class Monitor
{
public:
    Monitor(Invocation invocation, const Parvane::Signals &signals);

    Outcome Run();

private:
    /** Begins to observe. @return whether the service lets it; else mOutcome says why not */
    bool Observe(std::chrono::milliseconds answerTime);
    void ShowLines();
    /** @return false when that was the last line */
    bool ShowLine(const nlohmann::json &message);
    bool Print(const std::string &text);

    void ShowScreen();
    void Draw(MonitorScreen &screen) const;
    /** Takes what has come from the service. */
    void TakeEvents();
    /** What the terminal tells: a signal or 0, and poll()'s events of the keys. @return false to end */
    bool TakeTerminal(MonitorScreen &screen, int signal, int keys);
    /** @return false to quit */
    bool TakeKeys(MonitorScreen &screen);
    void Send(const nlohmann::json &request);
    /** What a request that was served has come to. */
    [[nodiscard]] std::string DoneText(const nlohmann::json &request,
                                       const nlohmann::json &reply) const;
    void Lose(const std::string &why);
    /** Tries to observe again. @return whether it does */
    bool ComeBack();

    Invocation mInvocation;
    const Parvane::Signals &mSignals;
    Parvane::Deadline mDeadline;
    /** Empty while the service is away. */
    std::optional<ControlClient> mClient;
    MonitorModel mModel;
    MonitorKeys mKeys;
    std::string mNote;
    /** The service's version has been looked at. */
    bool mIsCompared = false;
    Outcome mOutcome;
};

} // namespace ParvaneWatch
