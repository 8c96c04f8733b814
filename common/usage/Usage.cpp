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

/** The program and all commands below it. */
std::vector<CLI::App *> AllOf(CLI::App &app)
{
    std::vector<CLI::App *> all = {&app};
    for (std::size_t i = 0; i < all.size(); ++i) {
        const std::vector<CLI::App *> below = all[i]->get_subcommands({});
        all.insert(all.end(), below.begin(), below.end());
    }
    return all;
}

/** The words of a command, as in "token add"; none of the program itself. */
std::string PathOf(const CLI::App &app)
{
    if (app.get_parent() == nullptr) {
        return {};
    }
    const std::string above = PathOf(*app.get_parent());
    return (above.empty() ? above : above + ' ') + app.get_name();
}

/** The command that was chosen, or the program itself. */
const CLI::App &ChosenOf(const CLI::App &app)
{
    const std::vector<CLI::App *> chosen = app.get_subcommands();
    return chosen.empty() ? app : ChosenOf(*chosen.front());
}

/** Null of what has commands below it. */
const UsageWords::Command *CommandOf(const CLI::App &app, const UsageWords &usage)
{
    const auto found =
        std::find_if(usage.mCommands.begin(), usage.mCommands.end(),
                     [path = PathOf(app)](const auto &command) { return command.mName == path; });
    return found == usage.mCommands.end() ? nullptr : &*found;
}

/** What to say where `words` stand in place of a command of `app`. */
std::string SubcommandText(const CLI::App &app, const std::vector<std::string> &words)
{
    std::string allowed;
    for (const CLI::App *command : app.get_subcommands({})) {
        allowed += (allowed.empty() ? "; allowed: " : ", ") + command->get_name();
    }
    if (words.empty()) {
        return "no subcommand given" + allowed;
    }
    if (words.front().starts_with('-')) {
        return "unknown option " + Quoted(words.front());
    }
    return "unknown subcommand " + Quoted(words.front()) + allowed;
}

/** What the parser has found wrong, in our words. */
std::string UsageText(const CLI::App &app, const UsageWords &usage, const CLI::ParseError &error)
{
    const auto is = [&error](CLI::ExitCodes code) {
        return error.get_exit_code() == static_cast<int>(code);
    };
    const CLI::App &chosen = ChosenOf(app);
    const UsageWords::Command *command = CommandOf(chosen, usage);
    const std::string path = PathOf(chosen);
    const std::string place = path.empty() ? path : path + ": ";
    const std::vector<std::string> rest = app.remaining(true);
    const bool isExtra = is(CLI::ExitCodes::ExtrasError) && !rest.empty();
    if (command == nullptr && (isExtra || is(CLI::ExitCodes::RequiredError))) {
        return place + SubcommandText(chosen, rest);
    }
    if (command != nullptr && isExtra) {
        if (rest.front().starts_with('-')) {
            return place + "unknown option " + Quoted(rest.front());
        }
        return place + Quoted(rest.front()) + " is one word too many, as in: " + usage.mProgram +
               " " + command->mExample;
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
    const std::vector<CLI::App *> all = AllOf(app);
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
    const UsageWords::Command *command = CommandOf(ChosenOf(app), usage);
    if (command == nullptr) {
        return;
    }
    for (const std::string &option : command->mIdle) {
        if (app.count(option) > 0) {
            throw UsageError(command->mName + ": " + option + " has no effect here");
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
    for (CLI::App *one : AllOf(app)) {
        LetTheLastCount(*one);
        const UsageWords::Command *command = CommandOf(*one, usage);
        if (command != nullptr && !command->mMayBeAlone) {
            one->formatter(std::make_shared<NeededWords>());
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
