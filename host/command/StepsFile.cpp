#include "StepsFile.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "ErrnoText.h"
#include "Output.h"
#include "RegularFile.h"

namespace ParvaneHost {

namespace {

constexpr mode_t kOwnerOnly = 0600;
constexpr std::size_t kLongest = std::size_t{1024} * 1024;

} // namespace

StepsFile::StepsFile(std::string path) : mPath(std::move(path))
{
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(mPath).parent_path(), error);
    // The lock is not the file itself, which is another one after each replacement.
    const std::string lock = mPath + ".lock";
    mLock.Reset(::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kOwnerOnly));
    if (mLock.Get() < 0) {
        mWhyNotOurs = lock + ": " + Parvane::ErrnoText(errno);
    } else if (::flock(mLock.Get(), LOCK_EX | LOCK_NB) != 0) {
        mWhyNotOurs =
            errno == EWOULDBLOCK ? "another parvane-host counts there" : Parvane::ErrnoText(errno);
        mLock.Reset(-1);
    }
}

Result<std::string, std::errc> StepsFile::Read() const
{
    std::string text;
    const int error = Parvane::ReadWholeFile(mPath, kLongest, text);
    if (error != 0 && error != ENOENT) {
        return std::errc{error == Parvane::kNotARegularFile ? EINVAL : error};
    }
    return text;
}

void StepsFile::SetAside() const
{
    if (mWhyNotOurs.empty()) {
        std::error_code ignored; // the text cannot be used either way
        std::filesystem::rename(mPath, mPath + ".unread", ignored);
    }
}

int StepsFile::Write(const std::string &text)
{
    if (!mWhyNotOurs.empty()) {
        return 0;
    }
    const std::string newer = mPath + ".new"; // ours alone: there is the lock
    {
        const Parvane::UniqueFd file(
            ::open(newer.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kOwnerOnly));
        if (file.Get() < 0) {
            return errno;
        }
        if (const int error = Parvane::WriteAll(file.Get(), text)) {
            return error;
        }
        if (::fsync(file.Get()) != 0) { // before its name: else a crash could leave an empty file
            return errno;
        }
    }
    return std::rename(newer.c_str(), mPath.c_str()) == 0 ? 0 : errno;
}

} // namespace ParvaneHost
