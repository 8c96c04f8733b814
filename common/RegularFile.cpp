#include "RegularFile.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Parvane {

int OpenRegularFile(const std::string &path, int flags, UniqueFd &file)
{
    struct stat status = {};
    const bool isFollowed = (flags & O_NOFOLLOW) == 0;
    if ((isFollowed ? ::stat(path.c_str(), &status) : ::lstat(path.c_str(), &status)) != 0) {
        return errno;
    }
    if (S_ISREG(status.st_mode)) {
        // Not blocking: a FIFO that takes the file's place just now must not hold the caller up.
        file.Reset(::open(path.c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (!file || ::fstat(file.Get(), &status) != 0) {
            return errno;
        }
    }
    if (S_ISDIR(status.st_mode)) {
        return EISDIR;
    }
    return S_ISREG(status.st_mode) ? 0 : kNotARegularFile;
}

int MakeFile(const std::string &path, bool mayReplace, int flags, mode_t mode, UniqueFd &file)
{
    const int existing = mayReplace ? O_TRUNC : O_EXCL;
    file.Reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | existing | flags, mode));
    const int error = file ? 0 : errno;
    struct stat status
    {};
    const bool isFolder = ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    return error == EEXIST && isFolder ? EISDIR : error;
}

int ReadWholeFile(const std::string &path, std::size_t maxBytes, std::string &content)
{
    UniqueFd file;
    if (const int error = OpenRegularFile(path, O_RDONLY, file); error != 0) {
        return error;
    }
    std::string read;
    for (;;) {
        char part[16384];
        const ssize_t count = ::read(file.Get(), part, sizeof part);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        if (count == 0) {
            break;
        }
        if (static_cast<std::size_t>(count) > maxBytes - read.size()) {
            return EFBIG;
        }
        read.append(part, static_cast<std::size_t>(count));
    }
    content = std::move(read);
    return 0;
}

} // namespace Parvane
