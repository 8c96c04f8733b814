#pragma once

#include <string>
#include <vector>

#include "Settings.h"

namespace ParvaneHub {

/** Names of the topics below the prefix. */
struct Topics
{
    /** Of the hub itself: "online", "offline". */
    [[nodiscard]] std::string Hub() const { return mPrefix + "/availability"; }
    [[nodiscard]] std::string Watch(const std::string &watch, std::string_view level) const
    {
        return mPrefix + '/' + watch + '/' + std::string(level);
    }
    [[nodiscard]] std::string Availability(const std::string &watch) const
    {
        return Watch(watch, "availability");
    }

    std::string mPrefix;
    std::string mDiscovery; // empty: no discovery
};

/** A message by which Home Assistant, and what reads the same, learns of an entity. */
struct DiscoveryMessage
{
    std::string mTopic;
    std::string mBody; // empty where the entity is no more
};

/** The entities of a watch: those that are asked for exist, the others do not. */
std::vector<DiscoveryMessage> Discover(const Topics &topics, const std::string &watch,
                                       const Wishes &wishes);

/** Takes the entities of a watch that is followed no more away. */
std::vector<DiscoveryMessage> Undiscover(const Topics &topics, const std::string &watch);

} // namespace ParvaneHub
