#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Settings.h"

namespace ParvanePlatform {

/** Something in a configuration file that is not as it should be. */
struct ConfigProblem
{
    /** With an error the service does not start. */
    enum class Severity { Warning, Error };

    Severity mSeverity = Severity::Error;
    /** Counted from 1; 0 when the file as a whole is meant. */
    int mLine = 0;
    /** Empty when no section, or no key, is meant. */
    std::string mSection;
    std::string mKey;
    /** What it is, without file and line: printable UTF-8, one line without its end. */
    std::string mText;
};

/** A problem with its place: "FILE: line 3: TEXT", or "FILE: TEXT". */
std::string ToString(const std::string &path, const ConfigProblem &problem);

/** What a configuration file says. */
struct Configuration
{
    /** What is not said has its default; the directories are empty then. */
    Settings mSettings;
    bool mHasFile = false;
    /** The line of each known key that is there; the last one of two. */
    std::map<ConfigName, int> mLines;
    /** In the order of the lines. With an error among them the settings are not to be used. */
    std::vector<ConfigProblem> mProblems;

    /** The first error; null when there is none. */
    const ConfigProblem *FirstError() const;
};

constexpr std::size_t kMaxConfigBytes = 1048576;

/**
 * Reads a configuration from its text, the whole of it, whatever is wrong with it. Independent of
 * the locale. docs/man/parvane-platform.conf.5 has its form.
 *
 * @param path   where the text is from: relative names of recordings are below its directory
 * @param trace  a recording that is played in place of those of the file; empty when there is none
 */
Configuration ParseConfiguration(const std::string &path, std::string_view text,
                                 const std::string &trace);

/** What to do when there is no configuration file. */
enum class IfMissing { Fail, UseDefaults };

/**
 * Reads a configuration from a file of at most kMaxConfigBytes; otherwise as ParseConfiguration().
 *
 * @throws StartupError that names the file and the reason when it cannot be read
 */
Configuration LoadConfiguration(const std::string &path, IfMissing ifMissing,
                                const std::string &trace);

} // namespace ParvanePlatform
