#include "StepCounter.h"

#include <ctime>
#include <system_error>
#include <utility>

#include "ErrnoText.h"

namespace ParvaneHost {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

seconds SystemZone(std::chrono::sys_seconds instant)
{
    const auto time = static_cast<std::time_t>(instant.time_since_epoch().count());
    std::tm local{};
    return localtime_r(&time, &local) == nullptr ? seconds{0} : seconds{local.tm_gmtoff};
}

StepCounter::StepCounter(const std::string &path, Complaint complain)
    : mComplain(std::move(complain)), mLedger(SystemZone)
{
    if (!path.empty()) {
        mFile = std::make_unique<StepsFile>(path);
        Load();
    }
}

StepCounter::~StepCounter()
{
    Save();
}

void StepCounter::Connected(std::string_view run)
{
    mLedger.Connected(run);
    mUnsure = 0;
}

void StepCounter::Take(const Reading &reading, std::int64_t nowMs)
{
    if (reading.mSensor != Sensor::Pedometer) {
        return;
    }
    StepTotal total{reading.mValue, std::nullopt, Instant(milliseconds(nowMs))};
    if (reading.mTimeFieldMs != 0) {
        const milliseconds time(FullTimeMs(reading.mTimeFieldMs, nowMs));
        total.mWatchTime = std::chrono::sys_seconds(std::chrono::floor<seconds>(time));
    }
    mLedger.Take(total);
    mUnsure = mLedger.WantsQuestion() ? mUnsure + 1 : 0;
    mIsChanged = true;
    if (steady_clock::now() - mSavedAt >= seconds{1}) {
        Save();
    }
}

bool StepCounter::WantsQuestion() const
{
    constexpr int kEnough = 4; // two tell, and a midnight may lie between them
    return mLedger.WantsQuestion() && mUnsure < kEnough;
}

StepsOfDay StepCounter::Today(std::int64_t nowMs) const
{
    return mLedger.DayOf(Instant(milliseconds(nowMs)));
}

StepsOfDay StepCounter::Latest(std::int64_t nowMs) const
{
    StepsOfDay today = Today(nowMs);
    if (today.mSteps && mLedger.WantsQuestion()) {
        today.mSteps->mIsExact = false;
    }
    return today;
}

void StepCounter::Load()
{
    if (!mFile->WhyNotOurs().empty()) {
        mComplain("the steps of this run are not kept: " + mFile->WhyNotOurs());
    }
    const auto text = mFile->Read();
    if (!text) {
        mComplain(mFile->Path() + ": " + std::make_error_code(text.GetError()).message());
    } else if (!text.Value().empty()) {
        auto restored = StepLedger::Restore(text.Value(), SystemZone);
        if (restored) {
            mLedger = std::move(restored).Value();
        } else {
            mFile->SetAside();
            mComplain(mFile->Path() + ": " + restored.GetError() +
                      "; it is kept as .unread beside it, and the steps begin anew");
        }
    }
}

void StepCounter::Save()
{
    if (!mFile || !std::exchange(mIsChanged, false)) {
        return;
    }
    mSavedAt = steady_clock::now();
    if (const int error = mFile->Write(mLedger.Save())) {
        mComplain("the steps are not kept: " + mFile->Path() + ": " + Parvane::ErrnoText(error));
        mFile.reset();
    }
}

} // namespace ParvaneHost
