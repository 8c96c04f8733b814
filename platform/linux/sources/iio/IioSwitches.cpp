#include "IioSwitches.h"

#include <cerrno>
#include <cstddef>
#include <sys/stat.h>
#include <utility>

#include "Files.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

constexpr std::size_t kMaxBytes = 64;

/** Reads a switch. Returns 0 or an errno value; the state is '0', '1' or something else. */
int ReadState(const std::string &path, char &state)
{
    std::string text;
    const int error = ReadWholeFile(path, kMaxBytes, text);
    state = text.empty() ? '\0' : text.front();
    return error;
}

} // namespace

bool IioSwitches::Use(const std::string &path)
{
    struct stat status = {};
    if (::lstat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR)) {
        return false;
    }
    char state = '\0';
    ReadState(path, state); // what cannot be read may still be written
    Switch &used = mSwitches[path];
    ++used.mUsers;
    const bool isSame = used.mFileSystem == status.st_dev && used.mInode == status.st_ino;
    used.mFileSystem = status.st_dev;
    used.mInode = status.st_ino;
    used.mWasOff = (isSame && used.mWasOff) || state == '0';
    const int error = state == '1' ? 0 : WriteInPlace(path, "1");
    if (std::exchange(used.mToldError, error) != error && error != 0) {
        LogWarning("iio: cannot switch on %s: %s", path.c_str(), ErrorText(error).c_str());
    }
    return true;
}

void IioSwitches::Leave(const std::string &path)
{
    if (Drop(path)) {
        // A driver that refuses keeps the device at work, and the readings right.
        WriteInPlace(path, "0");
    }
}

void IioSwitches::Forget(const std::string &path)
{
    Drop(path);
}

bool IioSwitches::IsOff(const std::string &path)
{
    char state = '\0';
    return ReadState(path, state) == 0 && state == '0';
}

bool IioSwitches::Drop(const std::string &path)
{
    Switch &used = mSwitches[path];
    return --used.mUsers == 0 && std::exchange(used.mWasOff, false);
}

} // namespace ParvanePlatform
