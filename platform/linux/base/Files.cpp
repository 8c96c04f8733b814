#include "Files.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "UniqueFd.h"

namespace ParvanePlatform {

namespace {

constexpr char kTemporaryName[] = "/.parvane-tmp";

int WriteAll(int fd, std::string_view content)
{
    while (!content.empty()) {
        const ssize_t written = ::write(fd, content.data(), content.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

int WriteNewFile(const std::string &path, std::string_view content, Durability durability)
{
    const Parvane::UniqueFd file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) {
        return errno;
    }
    if (const int error = WriteAll(file.Get(), content); error != 0) {
        return error;
    }
    if (durability == Durability::Disk && ::fsync(file.Get()) != 0) {
        return errno;
    }
    return 0;
}

} // namespace

int MakeDirectories(const std::string &path, Durability durability)
{
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const std::string part = path.substr(0, end);
        if (::mkdir(part.c_str(), 0700) == 0) {
            // What is kept in it would be lost with its name. Where that cannot be had it goes on.
            if (durability == Durability::Disk) {
                SyncDirectory(ParentOf(part));
            }
        } else if (errno != EEXIST) {
            // A directory above may exist and yet be closed to us, or lie on a read-only disk.
            const int error = errno;
            struct stat status = {};
            if (::stat(part.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
                return error;
            }
        }
        if (end == std::string::npos) {
            break;
        }
    }
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) {
        return errno;
    }
    return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

int WriteInPlace(const std::string &path, std::string_view content)
{
    Parvane::UniqueFd file;
    const int error = Parvane::OpenRegularFile(path, O_WRONLY | O_NOFOLLOW, file);
    return error != 0 ? error : WriteAll(file.Get(), content);
}

int WriteFileAtomically(const std::string &path, std::string_view content, Durability durability)
{
    const std::string directory = ParentOf(path);
    const std::string temporary = directory + kTemporaryName;
    int error = WriteNewFile(temporary, content, durability);
    if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        ::unlink(temporary.c_str());
        return error;
    }
    return durability == Durability::Disk ? SyncDirectory(directory) : 0;
}

int SyncDirectory(const std::string &path)
{
    const Parvane::UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory || ::fsync(directory.Get()) != 0) {
        return errno;
    }
    return 0;
}

std::string ParentOf(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace ParvanePlatform
