#include "StepsKeeper.h"

#include <ctime>
#include <system_error>
#include <utility>

#include "ErrnoText.h"

namespace ParvaneHost {

using std::chrono::seconds;
using std::chrono::steady_clock;

seconds SystemZone(std::chrono::sys_seconds instant)
{
    const auto time = static_cast<std::time_t>(instant.time_since_epoch().count());
    std::tm local{};
    return localtime_r(&time, &local) == nullptr ? seconds{0} : seconds{local.tm_gmtoff};
}

StepsKeeper::StepsKeeper(const std::string &path, Complaint complain)
    : mFile(path.empty() ? nullptr : std::make_unique<StepsFile>(path)),
      mComplain(std::move(complain))
{}

StepLedger StepsKeeper::Load()
{
    StepLedger none(SystemZone);
    if (!mFile) {
        return none;
    }
    if (!mFile->WhyNotOurs().empty()) {
        mComplain("the steps of this run are not kept: " + mFile->WhyNotOurs());
    }
    const auto text = mFile->Read();
    if (!text) {
        mComplain(mFile->Path() + ": " + std::make_error_code(text.GetError()).message());
        return none;
    }
    if (text.Value().empty()) {
        return none;
    }
    auto restored = StepLedger::Restore(text.Value(), SystemZone);
    if (restored) {
        return std::move(restored).Value();
    }
    mFile->SetAside();
    mComplain(mFile->Path() + ": " + restored.GetError() +
              "; it is kept as .unread beside it, and the steps begin anew");
    return none;
}

void StepsKeeper::Save(const StepLedger &ledger)
{
    mIsBehind = true;
    if (steady_clock::now() - mSavedAt >= seconds{1}) {
        SaveRest(ledger);
    }
}

void StepsKeeper::SaveRest(const StepLedger &ledger)
{
    if (!mFile || !std::exchange(mIsBehind, false)) {
        return;
    }
    mSavedAt = steady_clock::now();
    if (const int error = mFile->Write(ledger.Save())) {
        mComplain("the steps are not kept: " + mFile->Path() + ": " + Parvane::ErrnoText(error));
        mFile.reset();
    }
}

} // namespace ParvaneHost
