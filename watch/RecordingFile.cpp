#include "RecordingFile.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <unistd.h>

namespace ParvaneWatch {

int RecordingFile::Open(bool mayReplace)
{
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY | (mayReplace ? O_TRUNC : O_EXCL);
    mFd = UniqueFd(::open(mPath.c_str(), flags, 0666));
    mSize = 0;
    return mFd ? 0 : errno;
}

int RecordingFile::Write(std::string_view lines)
{
    std::string_view rest = lines;
    while (!rest.empty()) {
        const ssize_t written = ::write(mFd.Get(), rest.data(), rest.size());
        if (written >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            const int error = errno;
            // What stays is a recording of the rows before; a pipe or a device has no end to cut.
            [[maybe_unused]] const int cut = ::ftruncate(mFd.Get(), mSize);
            return error;
        }
    }
    mSize += static_cast<off_t>(lines.size());
    return 0;
}

int RecordingFile::Close()
{
    int error = 0;
    // A pipe or a device has nothing to make durable.
    if (::fsync(mFd.Get()) != 0 && errno != EINVAL && errno != EROFS) {
        error = errno;
    }
    mFd.Reset();
    return error;
}

} // namespace ParvaneWatch
