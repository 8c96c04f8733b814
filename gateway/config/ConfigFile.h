#pragma once

#include <string>
#include <vector>

#include "Settings.h"

namespace ParvaneGateway {

constexpr char kSystemConfigFile[] = "/etc/parvane/gateway.conf";

/** Something in a configuration file that is not as it should be. */
struct ConfigProblem
{
    /** With an error the gateway does not start. */
    bool mIsError = false;
    /** Counted from 1; 0 when the file as a whole is meant. */
    int mLine = 0;
    /** Printable, one line without its end. */
    std::string mText;
};

/** A problem with its place: "FILE: line 3: TEXT". */
std::string ToString(const std::string &path, const ConfigProblem &problem);

/** What a configuration file says. With an error among the problems the settings are not to be used. */
struct Configuration
{
    Settings mSettings;
    std::vector<ConfigProblem> mProblems;

    /** The first error; null without. */
    [[nodiscard]] const ConfigProblem *FirstError() const;
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
