#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "StepLedger.h"
#include "StepsFile.h"

namespace ParvaneHost {

/** The offset of the zone of this process, from the system. */
std::chrono::seconds SystemZone(std::chrono::sys_seconds instant);

/** Keeps the step ledger of the command in its file, from run to run. */
class StepsKeeper
{
public:
    using Complaint = std::function<void(const std::string &)>;

    /**
     * @param path      of the file; empty: none is read or kept
     * @param complain  told in a line, once each, why a file is not read or not written
     */
    StepsKeeper(const std::string &path, Complaint complain);

    /** What is kept; a new ledger, by the system's zone, where there is nothing. */
    StepLedger Load();

    /** Writes it, unless that was done within the last second. */
    void Save(const StepLedger &ledger);

    /** Writes it now, if something was left out. */
    void SaveRest(const StepLedger &ledger);

private:
    std::unique_ptr<StepsFile> mFile; // none: nothing is kept
    Complaint mComplain;
    bool mIsBehind = false;
    std::chrono::steady_clock::time_point mSavedAt;
};

} // namespace ParvaneHost
