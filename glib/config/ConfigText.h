#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Parvane {

/** Something in a configuration file that is not as it should be. */
struct ConfigProblem
{
    /** With an error the program does not start. */
    bool mIsError = false;
    /** Counted from 1; 0 when the file as a whole is meant. */
    int mLine = 0;
    /** Printable, one line without its end. */
    std::string mText;
};
using ConfigProblems = std::vector<ConfigProblem>;

/** A problem with its place: "FILE: line 3: TEXT". */
std::string ToString(const std::string &path, const ConfigProblem &problem);

/** The first error; null without. */
const ConfigProblem *FirstError(const ConfigProblems &problems);

/** The end of a message about a name that is not known: "; known are a, b". Of equal ones in a row one is named. */
std::string KnownAre(std::vector<std::string> names);

/**
 * What check-config prints: each problem, and what becomes of it.
 *
 * @param who  what would start with it, as in "the hub"
 */
std::string Judgement(const std::string &path, const ConfigProblems &problems,
                      const std::string &who);

/** A line of a configuration file that says something. */
struct ConfigEntry
{
    /** "[section] key", printable. */
    [[nodiscard]] std::string Place() const;

    int mLine = 0; // counted from 1
    std::string mSection;
    std::string mKey; // empty: the section begins here
    std::string mValue;
};

/** The entries of a text of sections, keys with their values, and comments; what is none is a problem. */
std::vector<ConfigEntry> ReadConfigEntries(std::string_view text, ConfigProblems &problems);

/** "yes", "no" and so on; nothing for any other text. */
std::optional<bool> ParseBoolean(const std::string &text);

/** "90", "90s", "15m", "12h" or "30d" in seconds: above 0, at most ten years; nothing for any other text. */
std::optional<long long> ParseLength(std::string_view text);

/**
 * The text of a configuration file of at most 1 MiB.
 *
 * @param mustExist  else a file that is not there is empty
 * @throws std::runtime_error that names the file, when it cannot be read
 */
std::string ReadConfigFile(const std::string &path, bool mustExist);

} // namespace Parvane
