#include <algorithm>
#include <string>

#include <glib.h>

#include "ConfigFile.h"
#include "Input.h"
#include "Require.h"

// The text of a configuration file.

using namespace ParvanePlatform;
using ParvaneFuzz::Require;

namespace {

void Check(const Configuration &configuration, int lines)
{
    int line = 0;
    for (const ConfigProblem &problem : configuration.mProblems) {
        Require(problem.mLine >= line && problem.mLine <= lines,
                "problems are in the order of the lines");
        line = problem.mLine;
        const std::string &text = problem.mText;
        Require(!text.empty() && g_utf8_validate(text.data(), static_cast<gssize>(text.size()),
                                                 nullptr) != FALSE,
                "a problem's text is UTF-8");
        Require(std::none_of(text.begin(), text.end(),
                             [](unsigned char c) { return c < 0x20 || c == 0x7f; }),
                "a problem's text is one line, and printable");
        Require(ToString("file", problem).find(text) != std::string::npos,
                "a problem's line has its text");
    }
    for (const auto &[key, keyLine] : configuration.mLines) {
        Require(keyLine >= 1 && keyLine <= lines, "a key is in one of the lines");
    }
    const ConfigProblem *error = configuration.FirstError();
    Require(error == nullptr || error->mSeverity == ConfigProblem::Severity::Error,
            "the first error is an error");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view text = ParvaneFuzz::TextOf(data, size);
    const auto lines = static_cast<int>(std::count(text.begin(), text.end(), '\n')) + 1;
    const std::string path = "/etc/parvane/platform.conf";
    Check(ParseConfiguration(path, text, ""), lines);
    Check(ParseConfiguration(path, text, "/run.csv"), lines);
    return 0;
}
