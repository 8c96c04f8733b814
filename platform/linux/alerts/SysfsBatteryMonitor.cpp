#include "SysfsBatteryMonitor.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "Files.h"
#include "Numbers.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

constexpr std::size_t kMaxAttributeBytes = 4096;

/** The text of an attribute without its line end; empty when it cannot be read. */
std::optional<std::string> ReadAttribute(const std::string &path)
{
    std::string text;
    if (ReadWholeFile(path, kMaxAttributeBytes, text) != 0) {
        return std::nullopt;
    }
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

bool IsOneOf(const std::string &text, std::initializer_list<const char *> values)
{
    return std::find(values.begin(), values.end(), text) != values.end();
}

} // namespace

SysfsBatteryMonitor::SysfsBatteryMonitor(BatterySettings settings, const Clock &clock,
                                         std::unique_ptr<Timer> timer)
    : mSettings(std::move(settings)), mClock(clock), mTimer(std::move(timer))
{}

bool SysfsBatteryMonitor::Start(Alert alert)
{
    mAlert = std::move(alert);
    if (Update()) {
        mFirstAlert = Parvane::LoopSource::Post([this] { mAlert(); });
    }
    return mIsThere;
}

bool SysfsBatteryMonitor::Update()
{
    mTimer->Arm(mClock.MonotonicUs() + std::int64_t{mSettings.mPeriodMs} * 1000, [this] {
        if (Update()) {
            mAlert(); // last use of this: the service may end in it
        }
    });
    const Reading reading = Read();
    mIsThere = reading.mCounted > 0;
    ReportProblem(reading.mProblem);
    if (!mIsThere) {
        return false;
    }
    const bool isLow = reading.mIsAnyDischarging && reading.mAreAllBelow;
    const bool wasLow = std::exchange(mIsLow, isLow);
    if (isLow && !wasLow) {
        LogWarning("battery: low, below %d percent", mSettings.mLowPercent);
    }
    return isLow && !wasLow;
}

void SysfsBatteryMonitor::ReportProblem(const std::string &problem)
{
    if (problem == mProblem) {
        return;
    }
    mProblem = problem;
    if (problem.empty()) {
        LogInfo("battery: %s can be read again", mSettings.mRoot.c_str());
    } else {
        LogWarning("battery: %s", problem.c_str());
    }
}

SysfsBatteryMonitor::Reading SysfsBatteryMonitor::Read() const
{
    std::error_code error;
    std::vector<std::string> supplies;
    std::filesystem::directory_iterator entry(mSettings.mRoot, error);
    while (!error && entry != std::filesystem::directory_iterator()) {
        supplies.push_back(entry->path().string());
        entry.increment(error);
    }
    Reading reading;
    std::sort(supplies.begin(), supplies.end());
    for (const std::string &supply : supplies) {
        ReadSupply(supply, reading);
    }
    if (reading.mCounted == 0 && reading.mProblem.empty()) {
        reading.mProblem = "there is none in " + mSettings.mRoot;
    }
    return reading;
}

void SysfsBatteryMonitor::ReadSupply(const std::string &path, Reading &reading) const
{
    if (ReadAttribute(path + "/type") != "Battery" || ReadAttribute(path + "/scope") == "Device" ||
        ReadAttribute(path + "/present") == "0") {
        return;
    }
    ReadBattery(path, reading);
}

void SysfsBatteryMonitor::ReadBattery(const std::string &path, Reading &reading) const
{
    const auto status = ReadAttribute(path + "/status");
    const auto capacity = ReadAttribute(path + "/capacity");
    const auto percent = ParseInteger<int>(capacity.value_or(""));
    std::string problem;
    if (!status) {
        problem = path + "/status cannot be read";
    } else if (!IsOneOf(*status, {"Unknown", "Charging", "Discharging", "Not charging", "Full"})) {
        problem = path + "/status is none of the kernel's";
    } else if (!capacity) {
        problem = path + "/capacity cannot be read";
    } else if (!percent || *percent < 0 || *percent > 100) {
        problem = path + "/capacity is no percentage";
    }
    if (!problem.empty()) {
        if (reading.mProblem.empty()) {
            reading.mProblem = problem;
        }
        return;
    }
    ++reading.mCounted;
    reading.mIsAnyDischarging = reading.mIsAnyDischarging || *status == "Discharging";
    reading.mAreAllBelow = reading.mAreAllBelow && *percent < mSettings.mLowPercent;
}

} // namespace ParvanePlatform
