#include "Discovery.h"

#include <array>
#include <nlohmann/json.hpp>

#include "Messages.h"

namespace ParvaneHub {

namespace {

using Json = nlohmann::ordered_json;

/** What Home Assistant is told of one entity. */
struct Entity
{
    const char *mComponent;
    const char *mLevel; // of the topic, and the object's id
    const char *mName;
    const char *mIcon;
    bool (*mIsThere)(const Wishes &wishes);
    Json (*mDetails)(const Wishes &wishes);
};

bool HasHeartRate(const Wishes &wishes)
{
    return wishes.mHeartRate.count() > 0;
}

bool HasWorn(const Wishes &wishes)
{
    return wishes.mWorn.count() > 0 || HasHeartRate(wishes); // told with each heart rate
}

Json HeartRateDetails(const Wishes &wishes)
{
    constexpr int kMissed = 3; // questions without an answer, after which it is not known any more
    return {{"value_template", "{{ value_json.value }}"},
            {"unit_of_measurement", "bpm"},
            {"state_class", "measurement"},
            {"expire_after", kMissed * wishes.mHeartRate.count()}};
}

Json StepsDetails(const Wishes & /*wishes*/)
{
    return {{"value_template", "{{ value_json.value }}"},
            {"unit_of_measurement", "steps"},
            {"state_class", "total_increasing"}};
}

Json ActivityDetails(const Wishes & /*wishes*/)
{
    using ParvaneHost::Activity;
    Json names = Json::array();
    for (const Activity activity :
         {Activity::StillOrOther, Activity::Walking, Activity::Running, Activity::WristGesture}) {
        names.push_back(ParvaneHost::ActivityName(activity));
    }
    return {
        {"value_template", "{{ value_json.value }}"}, {"device_class", "enum"}, {"options", names}};
}

Json WornDetails(const Wishes & /*wishes*/)
{
    return {{"value_template", "{{ 'ON' if value_json.value else 'OFF' }}"},
            {"device_class", "occupancy"},
            {"payload_on", "ON"},
            {"payload_off", "OFF"}};
}

constexpr std::array kEntities = {
    Entity{"sensor", "heart_rate", "Heart rate", "mdi:heart-pulse", HasHeartRate, HeartRateDetails},
    Entity{"sensor", "steps", "Steps", "mdi:walk",
           [](const Wishes &wishes) { return wishes.mSteps; }, StepsDetails},
    Entity{"sensor", "activity", "Activity", "mdi:run",
           [](const Wishes &wishes) { return wishes.mActivity; }, ActivityDetails},
    Entity{"binary_sensor", "worn", "Worn", "mdi:watch", HasWorn, WornDetails}};

std::string TopicOf(const Topics &topics, const std::string &watch, const Entity &entity)
{
    return topics.mDiscovery + '/' + entity.mComponent + "/parvane_" + watch + '/' + entity.mLevel +
           "/config";
}

std::string BodyOf(const Topics &topics, const std::string &watch, const Entity &entity,
                   const Wishes &wishes)
{
    const std::string id = "parvane_" + watch;
    const std::string topic = topics.Watch(watch, entity.mLevel);
    Json body = {
        {"name", entity.mName},
        {"unique_id", id + '_' + entity.mLevel},
        {"object_id", id + '_' + entity.mLevel},
        {"state_topic", topic},
        {"json_attributes_topic", topic},
        {"icon", entity.mIcon},
        {"qos", 1},
        {"availability_mode", "all"},
        {"availability", {{{"topic", topics.Hub()}}, {{"topic", topics.Availability(watch)}}}},
        {"device",
         {{"identifiers", {id}}, {"name", watch}, {"manufacturer", "Parvane"}, {"model", "Watch"}}},
        {"origin", {{"name", "parvane-hub"}, {"sw_version", PARVANE_HUB_VERSION}}}};
    body.update(entity.mDetails(wishes));
    return body.dump();
}

} // namespace

std::vector<DiscoveryMessage> Discover(const Topics &topics, const std::string &watch,
                                       const Wishes &wishes)
{
    std::vector<DiscoveryMessage> messages;
    for (const Entity &entity : kEntities) {
        if (!topics.mDiscovery.empty()) {
            const bool isThere = entity.mIsThere(wishes);
            messages.push_back({TopicOf(topics, watch, entity),
                                isThere ? BodyOf(topics, watch, entity, wishes) : std::string()});
        }
    }
    return messages;
}

std::vector<DiscoveryMessage> Undiscover(const Topics &topics, const std::string &watch)
{
    std::vector<DiscoveryMessage> messages;
    for (const Entity &entity : kEntities) {
        if (!topics.mDiscovery.empty()) {
            messages.push_back({TopicOf(topics, watch, entity), {}});
        }
    }
    return messages;
}

} // namespace ParvaneHub
