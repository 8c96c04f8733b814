#include "ConfigText.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <stdexcept>
#include <unistd.h>

#include <glib.h>

#include "ErrnoText.h"
#include "Printable.h"
#include "RegularFile.h"

namespace Parvane {

namespace {

constexpr std::size_t kMostBytes = 1048576;

std::string_view Trim(std::string_view text)
{
    constexpr std::string_view kBlanks = " \t\r";
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

/** An entry from a line; nothing for a line that is no entry. */
std::optional<ConfigEntry> ReadLine(std::string_view line, int number, const std::string &section)
{
    if (line.front() == '[' && line.back() == ']') {
        return ConfigEntry{number, std::string(line.substr(1, line.size() - 2)), {}, {}};
    }
    const std::size_t equals = line.find('=');
    const std::string_view key = Trim(line.substr(0, equals));
    if (equals == std::string_view::npos || section.empty() || key.empty()) {
        return std::nullopt;
    }
    return ConfigEntry{number, section, std::string(key),
                       std::string(Trim(line.substr(equals + 1)))};
}

} // namespace

std::string ToString(const std::string &path, const ConfigProblem &problem)
{
    const std::string line =
        problem.mLine > 0 ? "line " + std::to_string(problem.mLine) + ": " : std::string();
    return Printable(path) + ": " + line + problem.mText;
}

const ConfigProblem *FirstError(const ConfigProblems &problems)
{
    const auto found = std::find_if(problems.begin(), problems.end(),
                                    [](const ConfigProblem &problem) { return problem.mIsError; });
    return found == problems.end() ? nullptr : &*found;
}

std::string KnownAre(std::vector<std::string> names)
{
    names.erase(std::unique(names.begin(), names.end()), names.end());
    std::string text;
    for (const std::string &name : names) {
        text += (text.empty() ? "; known are " : ", ") + name;
    }
    return text;
}

std::string Judgement(const std::string &path, const ConfigProblems &problems,
                      const std::string &who)
{
    std::string text;
    if (::access(path.c_str(), F_OK) != 0) {
        text = Printable(path) + " is not there: every setting has its default\n";
    }
    for (const ConfigProblem &problem : problems) {
        text += (problem.mIsError ? "error: " : "warning: ") + ToString(path, problem) + '\n';
    }
    return text + who + (FirstError(problems) ? " does not start with it\n" : " starts with it\n");
}

std::string ConfigEntry::Place() const
{
    return "[" + Printable(mSection) + "] " + Printable(mKey);
}

std::vector<ConfigEntry> ReadConfigEntries(std::string_view text, ConfigProblems &problems)
{
    std::vector<ConfigEntry> entries;
    if (g_utf8_validate_len(text.data(), text.size(), nullptr) == FALSE ||
        text.find('\0') != std::string_view::npos) {
        problems.push_back({true, 0, "it is no text in UTF-8"});
        return entries;
    }
    std::string section;
    for (int number = 1; !text.empty(); ++number) {
        const std::string_view whole = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(whole.size() + 1, text.size()));
        const std::string_view line = Trim(whole);
        if (line.empty() || line.front() == '#') {
            continue;
        }
        if (auto entry = ReadLine(line, number, section)) {
            section = entry->mSection;
            entries.push_back(*std::move(entry));
        } else {
            problems.push_back(
                {true, number,
                 "it must be [section], key=value or a comment, a key below a section"});
        }
    }
    return entries;
}

std::optional<bool> ParseBoolean(const std::string &text)
{
    if (text == "yes" || text == "true" || text == "1") {
        return true;
    }
    return text == "no" || text == "false" || text == "0" ? std::optional(false) : std::nullopt;
}

std::optional<long long> ParseLength(std::string_view text)
{
    constexpr long long kMost = 3650LL * 86400;
    constexpr std::string_view kUnits = "smhd";
    constexpr long long kSeconds[] = {1, 60, 3600, 86400};
    long long unit = 1;
    if (const auto found = text.empty() ? std::string_view::npos : kUnits.find(text.back());
        found != std::string_view::npos) {
        unit = kSeconds[found];
        text.remove_suffix(1);
    }
    long long number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = result.ec == std::errc() && result.ptr == text.data() + text.size();
    return isNumber && number > 0 && number <= kMost / unit ? std::optional(number * unit)
                                                            : std::nullopt;
}

std::string ReadConfigFile(const std::string &path, bool mustExist)
{
    std::string text;
    const int error = ReadWholeFile(path, kMostBytes, text);
    if (error == ENOENT && !mustExist) {
        return {};
    }
    if (error != 0) {
        throw std::runtime_error("cannot read the configuration file " + Printable(path) + ": " +
                                 (error == EFBIG ? "it is longer than 1 MiB" : ErrnoText(error)));
    }
    return text;
}

} // namespace Parvane
