#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ParvaneGateway {

/** One file of the console, as it is built into the program. */
struct ConsoleFile
{
    std::string mType;
    std::string mCacheControl;
    /** For If-None-Match; empty for a file whose name changes with its bytes. */
    std::string mTag;
    bool mIsCompressed = false; // with gzip
    /** Lives as long as the program. */
    std::string_view mBytes;

    /** The same without compression. */
    [[nodiscard]] std::string Plain() const;
};

/**
 * What is served at a path, of which "/" is the page itself; empty when there is nothing. A program that was
 * built without the console has a page there that says how to get it, and nothing else.
 */
std::optional<ConsoleFile> FindConsoleFile(const std::string &path);

} // namespace ParvaneGateway
