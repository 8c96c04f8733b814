#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ConfigText.h"
#include "Settings.h"

namespace ParvaneHub {

constexpr char kSystemConfigFile[] = "/etc/parvane/hub.conf";

/** What a configuration file says. With an error among the problems the settings are not to be used. */
struct Configuration
{
    Settings mSettings;
    Parvane::ConfigProblems mProblems;
};

/**
 * Reads the text of a file. Keys of [watches] hold for every [watch NAME] that does not say otherwise,
 * wherever it stands.
 */
Configuration ParseConfiguration(std::string_view text);

/** A watch's name: 1 to 64 of A-Z, a-z, 0-9, _ and -, as it is a level of topics. */
bool IsWatchName(std::string_view name);

/** The address and port of ADDRESS:PORT, [ADDRESS]:PORT for IPv6; an empty address for what is none. */
struct Listen
{
    std::string mAddress;
    int mPort = 0;
};
Listen ParseListen(const std::string &text);

/** The keys that there are, as "section.key"; for the documents' test. */
std::vector<std::string> ConfigKeys();

} // namespace ParvaneHub
