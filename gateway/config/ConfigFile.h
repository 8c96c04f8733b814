#pragma once

#include <string>
#include <vector>

#include "ConfigText.h"
#include "Settings.h"

namespace ParvaneGateway {

constexpr char kSystemConfigFile[] = "/etc/parvane/gateway.conf";

using Parvane::ConfigProblem;

/** What a configuration file says. With an error among the problems the settings are not to be used. */
struct Configuration
{
    Settings mSettings;
    Parvane::ConfigProblems mProblems;

    /** The first error; null without. */
    [[nodiscard]] const ConfigProblem *FirstError() const { return Parvane::FirstError(mProblems); }
};

/** Reads the text of a file: of sections, with keys and their values. */
Configuration ParseConfiguration(const std::string &text);

/**
 * Reads a file.
 *
 * @param mustExist  else a file that is not there has the defaults
 * @throws std::runtime_error that names the file, when it cannot be read
 */
Configuration LoadConfiguration(const std::string &path, bool mustExist);

/** The keys that there are, as "section.key"; for the documents' test. */
std::vector<std::string> ConfigKeys();

} // namespace ParvaneGateway
