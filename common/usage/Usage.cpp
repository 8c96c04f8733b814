#include "Usage.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <iterator>
#include <memory>
#include <sstream>
#include <utility>

#include "Printable.h"
#include "UnixSocket.h"

namespace Parvane {

namespace {

/** What to say about a command line without a subcommand, of which `words` were not understood. */
std::string SubcommandText(const UsageWords &usage, const std::vector<std::string> &words)
{
    std::string allowed;
    for (const UsageWords::Command &command : usage.mCommands) {
        allowed += (allowed.empty() ? "; allowed: " : ", ") + command.mName;
    }
    if (words.empty()) {
        return "no subcommand given" + allowed;
    }
    if (words.front().starts_with('-')) {
        return "unknown option " + Quoted(words.front());
    }
    return "unknown subcommand " + Quoted(words.front()) + allowed;
}

/** The chosen command. */
const UsageWords::Command &CommandOf(const CLI::App &app, const UsageWords &usage)
{
    const std::string name = app.get_subcommands().front()->get_name();
    return *std::find_if(usage.mCommands.begin(), usage.mCommands.end(),
                         [&name](const auto &command) { return command.mName == name; });
}

/** What the parser has found wrong, in our words. */
std::string UsageText(const CLI::App &app, const UsageWords &usage, const CLI::ParseError &error)
{
    const bool hasCommand = !app.get_subcommands().empty();
    const auto is = [&error](CLI::ExitCodes code) {
        return error.get_exit_code() == static_cast<int>(code);
    };
    if (!hasCommand && is(CLI::ExitCodes::RequiredError)) {
        return SubcommandText(usage, app.remaining());
    }
    const std::vector<std::string> rest = app.remaining(true);
    if (is(CLI::ExitCodes::ExtrasError) && hasCommand && !rest.empty()) {
        const UsageWords::Command &command = CommandOf(app, usage);
        if (rest.front().starts_with('-')) {
            return command.mName + ": unknown option " + Quoted(rest.front());
        }
        return command.mName + ": " + Quoted(rest.front()) +
               " is one word too many, as in: " + usage.mProgram + " " + command.mExample;
    }
    std::string text = error.what();
    if (is(CLI::ExitCodes::ArgumentMismatch)) {
        const std::string option = text.substr(0, text.find_first_of(": "));
        const auto example = usage.mValues.find(option);
        return option + " needs a value" +
               (example == usage.mValues.end() ? "" : ", as in: " + option + " " + example->second);
    }
    return text;
}

/** Brackets stand around words that may be left out, not around all that the program looks at itself. */
class NeededWords : public CLI::Formatter
{
public:
    std::string make_option_usage(const CLI::Option *option) const override
    {
        const std::string text = CLI::Formatter::make_option_usage(option);
        return text.starts_with('[') ? text.substr(1, text.size() - 2) : text;
    }
};

void LetTheLastCount(CLI::App &app)
{
    for (CLI::Option *option : app.get_options()) {
        if (option->nonpositional() && option->get_items_expected_max() > 0) {
            option->take_last();
        }
    }
}

/** The parser takes "--flag=true", and even numbers. */
void RefuseValuesOfFlags(CLI::App &app, const UsageWords &usage,
                         const std::vector<std::string> &words)
{
    std::vector<CLI::App *> all = app.get_subcommands({});
    all.push_back(&app);
    for (auto word = words.begin(); word != words.end() && *word != "--"; ++word) {
        const std::string name = word->substr(0, word->find('='));
        const auto hasIt = [&name](const CLI::App *one) {
            return one->get_option_no_throw(name) != nullptr;
        };
        if (name.starts_with("--") && name.size() < word->size() && !usage.mValues.contains(name) &&
            std::any_of(all.begin(), all.end(), hasIt)) {
            throw UsageError(name + " takes no value");
        }
    }
}

void RefuseIdleOptions(const CLI::App &app, const UsageWords &usage)
{
    const UsageWords::Command &command = CommandOf(app, usage);
    for (const std::string &option : command.mIdle) {
        if (app.count(option) > 0) {
            throw UsageError(command.mName + ": " + option + " has no effect here");
        }
    }
}

} // namespace

std::string Quoted(const std::string &word)
{
    return "'" + Printable(word) + "'";
}

std::optional<EarlyEnd> ParseUsage(CLI::App &app, const UsageWords &usage,
                                   std::vector<std::string> words,
                                   const std::function<void()> &interpret)
{
    LetTheLastCount(app);
    for (const UsageWords::Command &command : usage.mCommands) {
        CLI::App *subcommand = app.get_subcommand(command.mName);
        LetTheLastCount(*subcommand);
        if (!command.mMayBeAlone) {
            subcommand->formatter(std::make_shared<NeededWords>());
        }
    }
    std::string problem;
    try {
        RefuseValuesOfFlags(app, usage, words);
        std::reverse(words.begin(), words.end());
        app.parse(std::move(words));
        RefuseIdleOptions(app, usage);
        interpret();
        return std::nullopt;
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            std::ostringstream output;
            app.exit(error, output, output);
            return EarlyEnd{false, output.str(), ""};
        }
        problem = UsageText(app, usage, error);
    } catch (const std::runtime_error &error) { // of words, or of a variable
        problem = error.what();
    }
    return EarlyEnd{true, "",
                    usage.mProgram + ": " + Printable(problem) + "\nTry '" + usage.mProgram +
                        " --help'.\n"};
}

std::vector<std::string> WithOptionalValue(std::vector<std::string> words,
                                           const std::string &option, const std::string &otherwise)
{
    for (auto word = words.begin(); word != words.end() && *word != "--"; ++word) {
        if (*word != option) {
            continue;
        }
        const auto next = std::next(word);
        const bool isNumber = next != words.end() && !next->empty() &&
                              std::isdigit(static_cast<unsigned char>(next->front())) != 0;
        *word += "=" + (isNumber ? *next : otherwise);
        if (isNumber) {
            word = std::prev(words.erase(next));
        }
    }
    return words;
}

std::optional<std::chrono::milliseconds>
ParseSeconds(const std::string &option, const std::optional<std::string> &text, int largest)
{
    constexpr double kMsPerSecond = 1000.0;
    if (!text) {
        return std::nullopt;
    }
    const double seconds = ParseNumber<double>(
        option, *text, largest, false,
        "seconds above 0 and up to " + std::to_string(largest) + ", as in 2.5", "s");
    return std::chrono::milliseconds{
        std::max(static_cast<std::int64_t>(seconds * kMsPerSecond), std::int64_t{1})};
}

std::string CheckedSocketPath(const std::string &path, const std::string &what)
{
    if (path.empty()) {
        throw UsageError("--socket: the path is empty; give the path of " + what);
    }
    if (path.size() > LongestSocketPath()) {
        throw UsageError("socket path " + Quoted(path) + " has " + std::to_string(path.size()) +
                         " bytes; at most " + std::to_string(LongestSocketPath()) + " are allowed");
    }
    return path;
}

} // namespace Parvane
