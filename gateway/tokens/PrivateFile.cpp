#include "PrivateFile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "Output.h"
#include "UniqueFd.h"

namespace ParvaneGateway {

namespace {

using Parvane::UniqueFd;

[[noreturn]] void Fail(int error, const std::string &path)
{
    throw std::system_error(error, std::generic_category(), "cannot write " + path);
}

/** Gives the file to the owner of its folder; only root can and needs to. */
int GiveAway(int fd, int folder)
{
    struct stat owner
    {};
    if (::geteuid() != 0 || ::fstat(folder, &owner) != 0) {
        return 0;
    }
    return ::fchown(fd, owner.st_uid, owner.st_gid) == 0 ? 0 : errno;
}

} // namespace

void ReplacePrivateFile(const std::string &path, std::string_view text)
{
    const std::string parent = path.substr(0, path.rfind('/') + 1);
    const UniqueFd folder(
        ::open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) {
        Fail(errno, path);
    }
    std::string temporary = path + ".XXXXXX";
    const UniqueFd fd(::mkostemp(temporary.data(), O_CLOEXEC)); // of mode 0600
    if (!fd) {
        Fail(errno, path);
    }
    int error = GiveAway(fd.Get(), folder.Get());
    if (error == 0) {
        error = Parvane::WriteAll(fd.Get(), text);
    }
    if (error == 0 && (::fsync(fd.Get()) != 0 || ::rename(temporary.c_str(), path.c_str()) != 0)) {
        error = errno;
    }
    if (error != 0) {
        ::unlink(temporary.c_str());
        Fail(error, path);
    }
    ::fsync(
        folder
            .Get()); // the file is whole in any case; that it is the new one after a cut is a wish
}

} // namespace ParvaneGateway
