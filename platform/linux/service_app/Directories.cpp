#include "Directories.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "Files.h"
#include "StartupError.h"

namespace ParvanePlatform {

namespace {

[[noreturn]] void Refuse(const std::string &path, const std::string &purpose, int error)
{
    throw StartupError("cannot use the " + purpose + " directory " + path + ": " +
                       ErrorText(error));
}

} // namespace

void PrepareDirectory(const std::string &path, const std::string &purpose, Durability durability)
{
    if (const int error = MakeDirectories(path, durability); error != 0) {
        Refuse(path, purpose, error);
    }
    if (::faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK | X_OK, AT_EACCESS) != 0) {
        Refuse(path, purpose, errno);
    }
}

InstanceLock::InstanceLock(const std::string &runtimeDirectory)
{
    const std::string path = runtimeDirectory + "/lock";
    mFile.Reset(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!mFile) {
        throw StartupError("cannot use the lock file " + path + ": " + ErrorText(errno));
    }
    int result = 0;
    do {
        result = ::flock(mFile.Get(), LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    if (result != 0 && errno != EWOULDBLOCK) {
        throw StartupError("cannot lock the file " + path + ": " + ErrorText(errno));
    }
    mHeld = result == 0;
}

} // namespace ParvanePlatform
