#include "MonitorModel.h"

#include <algorithm>
#include <utility>

#include "StatusText.h"

namespace ParvaneWatch {

namespace {

using nlohmann::json;

std::string Name(const json &value)
{
    return value.is_string() ? value.get<std::string>() : "";
}

/** Lets `ms` pass for every length in `part`. */
void Grow(json &part, std::int64_t ms)
{
    if (part.is_object()) {
        for (const char *age : {"for_ms", "age_ms"}) {
            if (const auto found = part.find(age);
                found != part.end() && found->is_number_integer()) {
                *found = found->get<std::int64_t>() + ms;
            }
        }
        if (const auto found = part.find("ends_in_ms");
            found != part.end() && found->is_number_integer()) {
            *found = std::max<std::int64_t>(found->get<std::int64_t>() - ms, 0);
        }
    }
    if (part.is_structured()) {
        for (json &child : part) {
            Grow(child, ms);
        }
    }
}

} // namespace

void MonitorModel::Reset(const json &status, Time now)
{
    if (At(At(status, "service"), "pid") != At(mParts["service"].mContent, "pid")) {
        mTrends.clear();
        mSteps = -1;
    }
    mParts.clear();
    mOrder.clear();
    mItems.clear();
    mReadings.clear();
    mMissed = 0;
    if (!status.is_object()) {
        return;
    }
    for (const auto &[name, content] : status.items()) {
        if (name != "items") {
            mParts[name] = {content, now};
        }
    }
    for (const json &item : At(status, "items")) {
        const std::string name = Name(At(item, "item"));
        mOrder.push_back(name);
        mItems[name] = {item, now};
        mReadings[name] = {At(item, "last_reading"), now};
        if (mTrends[name].empty()) {
            AddToTrend(name, At(At(item, "last_reading"), "values"));
        }
    }
}

bool MonitorModel::IsOn(const std::string &item) const
{
    const auto found = mItems.find(item);
    return found != mItems.end() && (At(found->second.mContent, "subscription").is_object() ||
                                     !At(found->second.mContent, "kept_by").empty());
}

void MonitorModel::Apply(const json &event, Time now)
{
    const std::string kind = Name(At(event, "event"));
    mParts["time"] = {At(event, "time"), now};
    if (kind == "reading") {
        ApplyReading(event, now);
    } else if (kind == "item") {
        const json &item = At(event, "item");
        if (const auto known = mItems.find(Name(At(item, "item"))); known != mItems.end()) {
            known->second = {item, now};
        }
    } else if (kind == "missed") {
        const json &count = At(event, "count");
        mMissed += count.is_number_integer() && count > 0 ? count.get<std::uint64_t>() : 0;
    } else if (mParts.contains(kind)) {
        mParts[kind] = {At(event, kind.c_str()), now};
    }
}

void MonitorModel::ApplyReading(const json &event, Time now)
{
    const std::string name = Name(At(event, "item"));
    if (!mItems.contains(name)) {
        return;
    }
    mReadings[name] = {
        {{"time", At(event, "time")}, {"age_ms", 0}, {"values", At(event, "values")}}, now};
    AddToTrend(name, At(event, "values"));
}

void MonitorModel::AddToTrend(const std::string &item, const json &values)
{
    static const std::map<std::string, const char *> keys = {{"heart_rate", "hrm/heart_rate"},
                                                             {"pedometer", "pedometer/total_steps"},
                                                             {"activity", "activity/status"}};
    const auto key = keys.find(item);
    if (key == keys.end() || !At(values, key->second).is_number()) {
        return;
    }
    auto value = At(values, key->second).get<double>();
    if (item == "heart_rate" && value < 0) {
        return; // off the wrist
    }
    if (item == "pedometer") {
        const double before = std::exchange(mSteps, value);
        if (before < 0) {
            return;
        }
        value = std::max(value - before, 0.0);
    }
    std::deque<double> &trend = mTrends[item];
    trend.push_back(value);
    if (trend.size() > kTrend) {
        trend.pop_front();
    }
}

json MonitorModel::Status(Time now) const
{
    const auto grown = [now](const Part &part) {
        json content = part.mContent;
        Grow(content,
             std::chrono::duration_cast<std::chrono::milliseconds>(now - part.mSince).count());
        return content;
    };
    json status = {{"items", json::array()}};
    for (const auto &[name, part] : mParts) {
        status[name] = grown(part);
    }
    for (const std::string &name : mOrder) {
        json item = grown(mItems.at(name));
        if (item.is_object()) {
            item["last_reading"] = grown(mReadings.at(name));
        }
        status["items"].push_back(std::move(item));
    }
    return status;
}

std::vector<double> MonitorModel::Trend(const std::string &item) const
{
    const auto found = mTrends.find(item);
    return found == mTrends.end() ? std::vector<double>()
                                  : std::vector<double>(found->second.begin(), found->second.end());
}

} // namespace ParvaneWatch
