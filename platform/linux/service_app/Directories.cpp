#include "Directories.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Files.h"
#include "StartupError.h"

namespace ParvanePlatform {

namespace {

[[noreturn]] void Refuse(const std::string &path, const std::string &purpose,
                         const std::string &reason)
{
    throw StartupError("cannot use the " + purpose + " directory " + path + ": " + reason);
}

/** What lets others put files of theirs into a directory; empty when nothing does. */
std::string OpenToOthers(const struct stat &status)
{
    if (status.st_uid == ::geteuid() && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0) {
        return {};
    }
    char text[160];
    std::snprintf(text, sizeof text,
                  "it has mode %04o and owner %u; expected are a mode that lets nobody else write, "
                  "such as 0700, and owner %u",
                  status.st_mode & 07777U, status.st_uid, ::geteuid());
    return text;
}

} // namespace

void PrepareDirectory(const std::string &path, const std::string &purpose, Durability durability)
{
    if (const int error = MakeDirectories(path, durability); error != 0) {
        Refuse(path, purpose, ErrorText(error));
    }
    struct stat status = {};
    if (::faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK | X_OK, AT_EACCESS) != 0 ||
        ::stat(path.c_str(), &status) != 0) {
        Refuse(path, purpose, ErrorText(errno));
    }
    if (const std::string reason = OpenToOthers(status); !reason.empty()) {
        Refuse(path, purpose, reason);
    }
}

void LetOthersThrough(const std::string &path)
{
    if (::chmod(path.c_str(), 0711) != 0) {
        Refuse(path, "run-time", ErrorText(errno));
    }
}

InstanceLock InstanceLock::OfRunTime(const std::string &directory)
{
    return {directory + "/lock", O_RDWR | O_CREAT | O_NOFOLLOW};
}

InstanceLock InstanceLock::OfState(const std::string &directory)
{
    return {directory, O_RDONLY | O_DIRECTORY};
}

InstanceLock::InstanceLock(const std::string &path, int flags)
    : mFile(::open(path.c_str(), flags | O_CLOEXEC, 0600))
{
    if (!mFile) {
        throw StartupError("cannot lock " + path + ": " + ErrorText(errno));
    }
    int result = 0;
    do {
        result = ::flock(mFile.Get(), LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    if (result != 0 && errno != EWOULDBLOCK) {
        throw StartupError("cannot lock " + path + ": " + ErrorText(errno));
    }
    mHeld = result == 0;
}

} // namespace ParvanePlatform
