#pragma once

#include <optional>
#include <string_view>

namespace ParvanePlatform {

/** Where in the source a message was logged. Borrows its texts. */
struct LogPlace
{
    std::string_view mFile;
    std::string_view mFunction;
    int mLine = 0;
};

/**
 * The place that a message of the service begins with: "file: function(line) > ", where file and
 * function are without blanks. Nothing when it begins otherwise.
 */
std::optional<LogPlace> FindLogPlace(std::string_view message);

} // namespace ParvanePlatform
