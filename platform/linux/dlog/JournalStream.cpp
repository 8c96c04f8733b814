#include "JournalStream.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <sys/stat.h>

#include "Numbers.h"

namespace ParvanePlatform {

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
    const auto device = ParseInteger<std::uint64_t>(value.substr(0, colon));
    const auto inode = ParseInteger<std::uint64_t>(value.substr(colon + 1));
    struct stat status = {};
    return device && inode && ::fstat(fd, &status) == 0 && status.st_dev == *device &&
           status.st_ino == *inode;
}

} // namespace ParvanePlatform
