#include "MonitorKeys.h"

#include <charconv>
#include <map>
#include <system_error>
#include <utility>

#include "StatusText.h"

namespace ParvaneWatch {

namespace {

using nlohmann::json;

MonitorKeys::Wish Ask(json request)
{
    return {false, std::move(request)};
}

json HeartRate(const json &value)
{
    return {{"request", "set"}, {"item", "heart_rate"}, {"value", value}};
}

/** The last heart rate that was read; null before the first. */
json LastRate(const json &status)
{
    for (const json &item : At(status, "items")) {
        const json &rate = At(At(At(item, "last_reading"), "values"), "hrm/heart_rate");
        if (rate.is_number()) {
            return rate;
        }
    }
    return nullptr;
}

const std::map<int, const char *> &Questions()
{
    static const std::map<int, const char *> questions = {
        {'h', "heart rate in beats per minute: "},
        {'s', "steps to add: "},
        {'a', "activity: w walking, r running, s still, o other "},
        {'g', "number of the gesture: "},
        {'m', "memory is low, which ends the service: y/n "},
        {'b', "the battery is low, which ends the service: y/n "}};
    return questions;
}

} // namespace

MonitorKeys::Wish MonitorKeys::Take(int key, const json &status)
{
    if (mAsking == 0) {
        return Begin(key, status);
    }
    if (key == kEscape) {
        mAsking = 0;
        return {};
    }
    if (mAsking == 'a' || mAsking == 'm' || mAsking == 'b') {
        Wish wish = Choose(key);
        mAsking = 0;
        return wish;
    }
    constexpr std::size_t kLongest = 18; // digits that 64 bits hold: more is refused, not cut
    if (key == kEnter || key == '\r') {
        Wish wish = Finish();
        mAsking = 0;
        return wish;
    }
    if (key == kErase || key == '\b') {
        mTyped.resize(mTyped.size() - (mTyped.empty() ? 0 : 1));
    } else if (((key >= '0' && key <= '9') || (key == '-' && mTyped.empty())) &&
               mTyped.size() < kLongest) {
        mTyped += static_cast<char>(key);
    }
    return {};
}

MonitorKeys::Wish MonitorKeys::Begin(int key, const json &status)
{
    mShowsHelp = key == '?' && !mShowsHelp;
    if (key == 'q') {
        return {true, std::nullopt};
    }
    if (Questions().contains(key)) {
        mAsking = key;
        mTyped.clear();
    } else if (key == 'w') {
        return Ask(OtherWorn(LastRate(status)));
    } else if (key == 'l') {
        const bool isDown = At(At(status, "link"), "state") == "down";
        return Ask({{"request", "link"}, {"state", isDown ? "up" : "down"}});
    }
    return {};
}

json MonitorKeys::OtherWorn(const json &rate)
{
    constexpr int kSomeRate = 70;
    const bool isWorn = rate.is_number() && rate.get<double>() >= 0;
    // Of an item that is off there is no reading that would tell what the key before has done.
    mWantsWorn = rate.dump() == mRateBefore ? !mWantsWorn : !isWorn;
    mRateBefore = rate.dump();
    return HeartRate(mWantsWorn ? json(kSomeRate) : json("off-wrist"));
}

MonitorKeys::Wish MonitorKeys::Choose(int key) const
{
    if (mAsking == 'a') {
        static const std::map<int, const char *> activities = {
            {'w', "walking"}, {'r', "running"}, {'s', "still"}, {'o', "other"}};
        const auto found = activities.find(key);
        return found == activities.end()
                   ? Wish{}
                   : Ask({{"request", "set"}, {"item", "activity"}, {"value", found->second}});
    }
    return key != 'y' ? Wish{}
                      : Ask({{"request", mAsking == 'm' ? "memory" : "battery"}, {"state", "low"}});
}

MonitorKeys::Wish MonitorKeys::Finish() const
{
    std::int64_t number = 0;
    const char *const end = mTyped.data() + mTyped.size();
    const auto parsed = std::from_chars(mTyped.data(), end, number);
    if (parsed.ec != std::errc{} || parsed.ptr != end) {
        return {};
    }
    if (mAsking == 'h') {
        return Ask(HeartRate(number));
    }
    return mAsking == 's' ? Ask({{"request", "set"}, {"item", "steps"}, {"add", number}})
                          : Ask({{"request", "set"}, {"item", "gesture"}, {"value", number}});
}

std::string MonitorKeys::Prompt() const
{
    return mAsking == 0 ? "" : Questions().at(mAsking) + mTyped;
}

} // namespace ParvaneWatch
