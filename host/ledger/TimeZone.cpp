#include "TimeZone.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <stdexcept>

namespace ParvaneHost {

namespace {

using std::chrono::days;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::year;

/** What is wrong with a file; does not leave this one. */
class Malformed : public std::runtime_error
{
    using std::runtime_error::runtime_error;
};

seconds Bounded(seconds offset)
{
    constexpr hours kMost{26};
    if (offset < -kMost || offset > kMost) {
        throw Malformed("an offset of more than 26 hours");
    }
    return offset;
}

/** The year that it is at `instant`, of those that the calendar has. */
year YearAt(sys_seconds instant)
{
    const sys_days first = year::min() / 1 / 2;
    const sys_days last = year::max() / 12 / 30;
    const sys_days day = std::chrono::floor<days>(std::clamp<sys_seconds>(instant, first, last));
    return std::chrono::year_month_day(day).year();
}

} // namespace

// --- the rules after the last change ------------------------------------------------------------

sys_seconds TimeZone::Rule::In(std::chrono::year inYear) const
{
    const sys_days newYear = inYear / 1 / 1;
    switch (mKind) {
    case Kind::Month: {
        constexpr unsigned kLastWeek = 5;
        const auto month = inYear / static_cast<int>(mMonth);
        const std::chrono::weekday day(mDay);
        return (mWeek == kLastWeek ? sys_days(month / day[std::chrono::last])
                                   : sys_days(month / day[mWeek])) +
               mTime;
    }
    case Kind::Julian: {
        constexpr unsigned kMarch = 60;
        const unsigned leap = inYear.is_leap() && mDay >= kMarch ? 1 : 0;
        return newYear + days(mDay - 1 + leap) + mTime;
    }
    case Kind::DayOfYear:
        break;
    }
    return newYear + days(mDay) + mTime;
}

seconds TimeZone::Footer::OffsetAt(sys_seconds instant) const
{
    if (!mBegin) {
        return mStandard;
    }
    const year present = YearAt(instant + mStandard);
    const sys_seconds begin = mBegin->In(present) - mStandard;
    const sys_seconds end = mEnd.In(present) - mSummer;
    // South of the equator summer goes on through New Year.
    const bool isSummer =
        begin < end ? begin <= instant && instant < end : begin <= instant || instant < end;
    return isSummer ? mSummer : mStandard;
}

/** "CET-1CEST,M3.5.0,M10.5.0/3", as POSIX writes the variable TZ. */
class TimeZone::FooterReader
{
public:
    explicit FooterReader(std::string_view text) : mText(text) {}

    Footer Read()
    {
        Footer footer;
        SkipName();
        footer.mStandard = Bounded(-Time());
        if (!mText.empty()) {
            SkipName();
            const bool isTold = !mText.empty() && mText.front() != ',';
            footer.mSummer = Bounded(isTold ? -Time() : footer.mStandard + hours{1});
            footer.mBegin = ReadRule();
            footer.mEnd = ReadRule();
        }
        if (!mText.empty()) {
            throw Malformed("more than a rule at its end");
        }
        return footer;
    }

private:
    bool Take(char character)
    {
        const bool isThere = mText.starts_with(character);
        mText.remove_prefix(isThere ? 1 : 0);
        return isThere;
    }

    void Expect(char character)
    {
        if (!Take(character)) {
            throw Malformed(std::string("no '") + character + "' in the rule at its end");
        }
    }

    void SkipName()
    {
        const bool isQuoted = Take('<');
        const std::size_t length =
            isQuoted ? mText.find('>') : mText.find_first_of("0123456789+-,");
        if (length == 0 || (isQuoted && length == std::string_view::npos)) {
            throw Malformed("no name in the rule at its end");
        }
        mText.remove_prefix(std::min(length, mText.size()));
        if (isQuoted) {
            Expect('>');
        }
    }

    unsigned Number(unsigned least, unsigned most)
    {
        constexpr unsigned kTen = 10;
        unsigned number = 0;
        bool isOne = false;
        for (; !mText.empty() && mText.front() >= '0' && mText.front() <= '9' && number <= most;
             isOne = true) {
            number = number * kTen + static_cast<unsigned>(mText.front() - '0');
            mText.remove_prefix(1);
        }
        if (!isOne || number < least || number > most) {
            throw Malformed("a number in the rule at its end that is not allowed");
        }
        return number;
    }

    /** "-1", "+03:30", "167:00:00". */
    seconds Time()
    {
        constexpr unsigned kMostHours = 167;
        constexpr unsigned kMostOfAnHour = 59;
        const bool isNegative = Take('-');
        if (!isNegative) {
            Take('+');
        }
        seconds time = hours{Number(0, kMostHours)};
        if (Take(':')) {
            time += minutes{Number(0, kMostOfAnHour)};
            if (Take(':')) {
                time += seconds{Number(0, kMostOfAnHour)};
            }
        }
        return isNegative ? -time : time;
    }

    Rule ReadRule()
    {
        constexpr unsigned kDays = 365;
        Rule rule;
        Expect(',');
        if (Take('M')) {
            rule.mMonth = Number(1, 12);
            Expect('.');
            rule.mWeek = Number(1, 5);
            Expect('.');
            rule.mDay = Number(0, 6);
        } else if (Take('J')) {
            rule.mKind = Rule::Kind::Julian;
            rule.mDay = Number(1, kDays);
        } else {
            rule.mKind = Rule::Kind::DayOfYear;
            rule.mDay = Number(0, kDays);
        }
        rule.mTime = Take('/') ? Time() : hours{2};
        return rule;
    }

    std::string_view mText;
};

// --- the file -----------------------------------------------------------------------------------

class TimeZone::FileReader
{
public:
    explicit FileReader(std::string_view content) : mRest(content) {}

    TimeZone Read()
    {
        Skip(ReadHeader(), sizeof(std::int32_t)); // all of it stands in the second block again
        const Header header = ReadHeader();
        if (header.mTypes == 0 || header.mLeaps > 0) {
            throw Malformed(header.mLeaps > 0 ? "it counts leap seconds" : "it has no local time");
        }
        TimeZone zone;
        ReadChanges(header, zone);
        const std::string_view footer = Take(mRest.size());
        if (footer.size() < 2 || footer.front() != '\n' || footer.back() != '\n') {
            throw Malformed("its end is missing");
        }
        if (footer.size() > 2) {
            zone.mFooter = FooterReader(footer.substr(1, footer.size() - 2)).Read();
        }
        return zone;
    }

private:
    struct Header
    {
        std::size_t mUtcMarks = 0;
        std::size_t mStandardMarks = 0;
        std::size_t mLeaps = 0;
        std::size_t mTimes = 0;
        std::size_t mTypes = 0;
        std::size_t mCharacters = 0;
    };

    static constexpr std::size_t kTypeBytes = 6;

    std::string_view Take(std::size_t size)
    {
        if (size > mRest.size()) {
            throw Malformed("it is cut off");
        }
        const std::string_view taken = mRest.substr(0, size);
        mRest.remove_prefix(size);
        return taken;
    }

    /** Big-endian, of `size` bytes. */
    std::int64_t Number(std::size_t size)
    {
        constexpr int kByte = 8;
        const std::string_view bytes = Take(size);
        std::uint64_t number = (bytes.front() & '\x80') != 0 ? ~std::uint64_t{0} : 0;
        for (const char byte : bytes) {
            number = (number << kByte) | static_cast<std::uint8_t>(byte);
        }
        return static_cast<std::int64_t>(number);
    }

    /** How many there are of something, each of which takes a byte at least. */
    std::size_t Count()
    {
        const std::int64_t count = Number(sizeof(std::int32_t));
        if (count < 0 || static_cast<std::uint64_t>(count) > mRest.size()) {
            throw Malformed("it is cut off");
        }
        return static_cast<std::size_t>(count);
    }

    Header ReadHeader()
    {
        constexpr std::size_t kReserved = 15;
        if (Take(4) != "TZif") {
            throw Malformed("it is no time zone");
        }
        if (Take(1).front() < '2') {
            throw Malformed("it is older than version 2");
        }
        Take(kReserved);
        Header header;
        header.mUtcMarks = Count();
        header.mStandardMarks = Count();
        header.mLeaps = Count();
        header.mTimes = Count();
        header.mTypes = Count();
        header.mCharacters = Count();
        return header;
    }

    /** @param timeBytes  of each instant */
    void Skip(const Header &header, std::size_t timeBytes)
    {
        Take(header.mTimes * (timeBytes + 1));
        Take(header.mTypes * kTypeBytes);
        SkipRest(header, timeBytes);
    }

    void SkipRest(const Header &header, std::size_t timeBytes)
    {
        Take(header.mCharacters);
        Take(header.mLeaps * (timeBytes + sizeof(std::int32_t)));
        Take(header.mStandardMarks);
        Take(header.mUtcMarks);
    }

    void ReadChanges(const Header &header, TimeZone &zone)
    {
        std::vector<sys_seconds> instants(header.mTimes);
        for (sys_seconds &instant : instants) {
            instant = sys_seconds(seconds(Number(sizeof(std::int64_t))));
        }
        if (!std::is_sorted(instants.begin(), instants.end())) {
            throw Malformed("its changes are in no order");
        }
        const std::string_view types = Take(header.mTimes);
        std::vector<seconds> offsets(header.mTypes);
        for (seconds &offset : offsets) {
            offset = Bounded(seconds(Number(sizeof(std::int32_t))));
            Take(kTypeBytes - sizeof(std::int32_t));
        }
        zone.mFirst = offsets.at(0);
        for (std::size_t i = 0; i < instants.size(); ++i) {
            const auto type = static_cast<std::uint8_t>(types[i]);
            if (type >= offsets.size()) {
                throw Malformed("it has no local time of that number");
            }
            zone.mChanges.push_back({instants[i], offsets[type]});
        }
        SkipRest(header, sizeof(std::int64_t));
    }

    std::string_view mRest;
};

Result<TimeZone, std::string> TimeZone::Parse(std::string_view content)
{
    try {
        return FileReader(content).Read();
    } catch (const Malformed &why) {
        return std::string(why.what());
    }
}

seconds TimeZone::OffsetAt(sys_seconds instant) const
{
    const auto next =
        std::upper_bound(mChanges.begin(), mChanges.end(), instant,
                         [](sys_seconds at, const Change &change) { return at < change.mAt; });
    if (next == mChanges.end() && mFooter) {
        return mFooter->OffsetAt(instant);
    }
    return next == mChanges.begin() ? mFirst : std::prev(next)->mOffset;
}

} // namespace ParvaneHost
