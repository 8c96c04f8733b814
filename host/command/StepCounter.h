#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Messages.h"
#include "StepLedger.h"
#include "StepsFile.h"

namespace ParvaneHost {

/** The offset of the zone of this process, from the system. */
std::chrono::seconds SystemZone(std::chrono::sys_seconds instant);

/**
 * The step ledger of the command, with the file that it is kept in from run to run.
 *
 * The file is written when something has changed, once in a second at most, and at the end.
 */
class StepCounter
{
public:
    using Complaint = std::function<void(const std::string &)>;

    /**
     * @param path      of the file; empty: none is read or kept
     * @param complain  told in a line, once each, why a file is not read or not written
     */
    StepCounter(const std::string &path, Complaint complain);
    ~StepCounter();

    StepCounter(const StepCounter &) = delete;
    StepCounter &operator=(const StepCounter &) = delete;

    /** A new link, to a run of the service with this name; see StepLedger::Connected(). */
    void Connected(std::string_view run);

    /** Enters a reading of the steps, in the order of the link; any other is passed by. */
    void Take(const Reading &reading, std::int64_t nowMs);

    /** Whether the steps have to be asked for once more, and that may help. */
    [[nodiscard]] bool WantsQuestion() const;

    /** As of its last reading that told something. */
    [[nodiscard]] StepsOfDay Today(std::int64_t nowMs) const;

    /** As of the reading that came last: not exact while a question would tell more. */
    [[nodiscard]] StepsOfDay Latest(std::int64_t nowMs) const;

private:
    void Load();
    void Save();

    std::unique_ptr<StepsFile> mFile; // none: nothing is kept
    Complaint mComplain;
    StepLedger mLedger;
    int mUnsure = 0; // readings in a row that did not tell
    bool mIsChanged = false;
    std::chrono::steady_clock::time_point mSavedAt;
};

} // namespace ParvaneHost
