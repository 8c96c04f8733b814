#include "LineWriter.h"

#include <cerrno>
#include <cstddef>
#include <poll.h>
#include <string>
#include <sys/types.h>
#include <unistd.h>

namespace ParvaneHost {

bool LineWriter::Write(std::string_view line)
{
    std::string text(line);
    text += '\n';
    std::string_view rest = text;
    while (mErrno == 0 && !rest.empty()) {
        const ssize_t written = ::write(mFd, rest.data(), rest.size());
        if (written >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            pollfd polled{mFd, POLLOUT, 0};
            poll(&polled, 1, -1); // a failure shows in the next write
        } else if (errno != EINTR) {
            mErrno = errno;
        }
    }
    return mErrno == 0;
}

} // namespace ParvaneHost
