#include "RecordingFile.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "RegularFile.h"

namespace ParvaneWatch {

RecordingFile::RecordingFile(std::string path, int interruptFd)
    : mPath(std::move(path)),
      mIsStandardOutput(mPath == "-" || mPath == "/dev/stdout"),
      mPatience{interruptFd, -1, kGraceMs}
{
    if (mIsStandardOutput) {
        mPath = "standard output";
    }
}

int RecordingFile::Open(bool mayReplace)
{
    if (mIsStandardOutput) {
        mFd.Reset(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
        return mFd ? 0 : errno;
    }
    // Not blocking: nothing could interrupt the wait for a FIFO's reader.
    mSize = 0;
    return Parvane::MakeFile(mPath, mayReplace, O_NOCTTY | O_NONBLOCK, 0666, mFd);
}

int RecordingFile::Write(std::string_view lines)
{
    if (const int error = Parvane::WriteAll(mFd.Get(), lines, mPatience); error != 0) {
        // What stays is a recording of the rows before; a pipe or a device has no end to cut, and
        // what standard output had before is not this program's.
        if (!mIsStandardOutput) {
            [[maybe_unused]] const int cut = ::ftruncate(mFd.Get(), mSize);
        }
        return error;
    }
    mSize += static_cast<std::int64_t>(lines.size());
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
