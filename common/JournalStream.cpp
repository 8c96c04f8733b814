#include "JournalStream.h"

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <sys/stat.h>

namespace Parvane {

namespace {

std::optional<std::uint64_t> Number(std::string_view text)
{
    std::uint64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isWhole = result.ec == std::errc() && result.ptr == text.data() + text.size();
    return isWhole ? std::optional(number) : std::nullopt;
}

} // namespace

bool IsJournalStream(int fd) noexcept
{
    const char *variable = std::getenv("JOURNAL_STREAM");
    if (variable == nullptr) {
        return false;
    }
    const std::string_view value = variable;
    const std::size_t colon = value.find(':');
    if (colon == std::string_view::npos) {
        return false;
    }
    const auto device = Number(value.substr(0, colon));
    const auto inode = Number(value.substr(colon + 1));
    struct stat status = {};
    return device && inode && ::fstat(fd, &status) == 0 && status.st_dev == *device &&
           status.st_ino == *inode;
}

} // namespace Parvane
