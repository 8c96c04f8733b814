#include "LogPlace.h"

#include <algorithm>

#include "Numbers.h"

namespace ParvanePlatform {

namespace {

bool IsWord(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char character) {
        return character > ' ' && character < 0x7f;
    });
}

} // namespace

std::optional<LogPlace> FindLogPlace(std::string_view message)
{
    constexpr std::string_view kAfterFile = ": ";
    constexpr std::string_view kAfterLine = ") > ";
    const std::size_t fileEnd = message.find(kAfterFile);
    if (fileEnd == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view file = message.substr(0, fileEnd);
    const std::string_view rest = message.substr(fileEnd + kAfterFile.size());
    const std::size_t lineEnd = rest.find(kAfterLine);
    if (lineEnd == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view call = rest.substr(0, lineEnd);
    // The last one: a function may be called "operator()".
    const std::size_t open = call.rfind('(');
    if (open == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view function = call.substr(0, open);
    const std::optional<int> line = ParseInteger<int>(call.substr(open + 1));
    if (!IsWord(file) || !IsWord(function) || !line || *line < 0) {
        return std::nullopt;
    }
    return LogPlace{file, function, *line};
}

} // namespace ParvanePlatform
