#include "StepLedgerText.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <locale>
#include <sstream>
#include <utility>

#include "StepLedger.h"

namespace ParvaneHost {

namespace {

using std::chrono::local_days;
using std::chrono::milliseconds;

constexpr const char *kFirstLine = "parvane-steps 1\n";
constexpr const char *kNoRun = "-";
// Beyond all steps, counts and milliseconds that there are, and far from where sums overflow.
constexpr std::int64_t kTooLarge = 1'000'000'000'000'000;

bool ReadDate(std::istream &stream, local_days &date)
{
    int year = 0;
    int month = 0; // signed: both have a minus sign before them
    int day = 0;
    if (!(stream >> year >> month >> day) || month >= 0 || day >= 0) {
        return false;
    }
    const std::chrono::year_month_day parts{std::chrono::year(year),
                                            std::chrono::month(static_cast<unsigned>(-month)),
                                            std::chrono::day(static_cast<unsigned>(-day))};
    date = local_days(parts);
    return parts.ok() && year >= 0 && year <= 9999;
}

bool ReadNumbers(std::istream &stream, std::initializer_list<std::int64_t *> numbers)
{
    for (std::int64_t *number : numbers) {
        if (!(stream >> *number) || *number < 0 || *number >= kTooLarge) {
            return false;
        }
    }
    return true;
}

bool ReadDay(std::istream &stream, DaySteps &day)
{
    std::int64_t since = 0;
    std::int64_t until = 0;
    if (!ReadNumbers(stream, {&day.mSteps, &since, &until}) ||
        !(stream >> day.mFromMidnight >> day.mIsExact >> day.mHasLost)) {
        return false;
    }
    day.mSince = Instant(milliseconds(since));
    day.mUntil = Instant(milliseconds(until));
    return !(day.mIsExact && day.mHasLost);
}

} // namespace

std::string DateText(local_days date)
{
    const std::chrono::year_month_day parts(date);
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02u", static_cast<int>(parts.year()),
                  static_cast<unsigned>(parts.month()), static_cast<unsigned>(parts.day()));
    return text.data();
}

std::string WithChecksum(const std::string &body)
{
    std::uint64_t sum = 14695981039346656037U; // FNV-1a
    for (const char c : body) {
        sum = (sum ^ static_cast<unsigned char>(c)) * 1099511628211U;
    }
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "sum %016llx\n", static_cast<unsigned long long>(sum));
    return body + text.data();
}

std::string StepLedger::Save() const
{
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << kFirstLine;
    for (const auto &[date, day] : mDays) {
        text << "day " << DateText(date) << ' ' << day.mSteps << ' '
             << day.mSince.time_since_epoch().count() << ' '
             << day.mUntil.time_since_epoch().count() << ' ' << day.mFromMidnight << ' '
             << day.mIsExact << ' ' << day.mHasLost << '\n';
    }
    if (mStretch) {
        text << "count " << DateText(mStretch->mDate) << ' ' << mStretch->mBegin.mLow << ' '
             << mStretch->mBegin.mHigh << ' ' << mStretch->mCount.mLow << ' '
             << mStretch->mCount.mHigh << ' ' << (mRun.empty() ? kNoRun : mRun) << '\n';
    }
    return WithChecksum(text.str());
}

Result<StepLedger, std::string> StepLedger::Restore(std::string_view text, ZoneOffset zone)
{
    StepLedger ledger(std::move(zone));
    const std::string_view known(kFirstLine);
    if (text.starts_with("parvane-steps ") && !text.starts_with(known)) {
        return std::string("it is of another version than 1");
    }
    std::istringstream stream{std::string(text.substr(std::min(known.size(), text.size())))};
    stream.imbue(std::locale::classic());
    std::string word;
    bool isGood = true;
    while (isGood && stream >> word && word != "sum") {
        local_days date;
        if (word == "day") {
            isGood = ReadDate(stream, date) && ReadDay(stream, ledger.mDays[date]);
        } else {
            isGood = word == "count" && ReadDate(stream, date) && ledger.ReadStretch(stream, date);
        }
    }
    // Whatever else may be wrong with it: it is not what this ledger is written as.
    if (!isGood || ledger.mDays.size() > kMaxDays || ledger.Save() != text) {
        return std::string("it is damaged");
    }
    return ledger;
}

bool StepLedger::ReadStretch(std::istream &stream, local_days date)
{
    Stretch stretch{date, {}, {}};
    if (!ReadNumbers(stream, {&stretch.mBegin.mLow, &stretch.mBegin.mHigh, &stretch.mCount.mLow,
                              &stretch.mCount.mHigh}) ||
        !(stream >> mRun)) {
        return false;
    }
    if (mRun == kNoRun) {
        mRun.clear();
    }
    mStretch = stretch;
    const auto day = mDays.find(date);
    return stretch.mBegin.mLow <= stretch.mBegin.mHigh &&
           stretch.mCount.mLow <= stretch.mCount.mHigh && day != mDays.end() &&
           stretch.Steps() <= day->second.mSteps;
}

} // namespace ParvaneHost
