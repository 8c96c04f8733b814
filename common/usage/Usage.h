#pragma once

#include <charconv>
#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace CLI {
class App;
} // namespace CLI

namespace Parvane {

/** Wrong usage: its text says what was wrong and what is allowed. */
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/** What is said of a program to whoever has its usage wrong. */
struct UsageWords
{
    struct Command
    {
        /** "token add" of a command below another, which is named by its commands alone. */
        std::string mName;
        /** How it is used, without the program's name. */
        std::string mExample;
        /** Options of the program that have no effect on it. */
        std::vector<std::string> mIdle = {};
        /** It does without the word behind it. */
        bool mMayBeAlone = false;
    };

    std::string mProgram;
    std::vector<Command> mCommands;
    /** Of each option that has a value, one. */
    std::map<std::string, std::string> mValues;
};

/** A run that is over before it begins: help, version, or wrong usage. */
struct EarlyEnd
{
    bool mIsBadUsage = false;
    std::string mOutput; // for standard output
    std::string mError;  // for standard error
};

/** A word of the command line, in quotes, for a message. */
std::string Quoted(const std::string &word);

/**
 * Parses the command line and interprets what was filled in. Flags take no values, of an option that is
 * given again the last one counts, and one without an effect is wrong usage; so is what `interpret`
 * throws as std::runtime_error.
 *
 * @param words  without the program's name
 * @return nothing, or what ends the run
 */
std::optional<EarlyEnd> ParseUsage(CLI::App &app, const UsageWords &usage,
                                   std::vector<std::string> words,
                                   const std::function<void()> &interpret);

/**
 * Lets an option do without its value: a number that follows it is its value, else `otherwise`, and
 * anything else stays a word of its own.
 */
std::vector<std::string> WithOptionalValue(std::vector<std::string> words,
                                           const std::string &option, const std::string &otherwise);

/** A number of at most `largest`; not negative, and not 0 unless `mayBeZero`; `unit` may follow it. */
template <typename Number>
Number ParseNumber(const std::string &option, const std::string &text, Number largest,
                   bool mayBeZero, std::string_view allowed, std::string_view unit = "")
{
    Number value{};
    const char *end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, value);
    const std::string_view rest(parsed.ptr, static_cast<std::size_t>(end - parsed.ptr));
    // Written so that a floating-point value that is not a number fails, too.
    const bool inRange = value <= largest && (value > 0 || (mayBeZero && value >= 0));
    if (parsed.ec != std::errc{} || !(rest.empty() || rest == unit) || !inRange) {
        throw UsageError(option + ": " + Quoted(text) + " is not allowed; give " +
                         std::string(allowed));
    }
    return value;
}

/** Seconds above 0, as in 2.5 or 2.5s; nothing for an option that is not given. */
std::optional<std::chrono::milliseconds>
ParseSeconds(const std::string &option, const std::optional<std::string> &text, int largest);

/** The path of a socket, which has to fit into an address. @param what  whose path it is */
std::string CheckedSocketPath(const std::string &path, const std::string &what);

} // namespace Parvane
