#include "JournalSocket.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Datagram.h"
#include "UniqueFd.h"

namespace Parvane {

namespace {

constexpr int kMaxWaitMs = 10;

} // namespace

int JournalSocket::Send(std::string_view entry) noexcept
{
    if (mSocket < 0) {
        mSocket = OpenDatagramSocket(kMaxWaitMs);
        if (mSocket < 0) {
            return mSocket;
        }
    }
    const int flags = mIsBehind ? MSG_DONTWAIT : 0;
    int result = SendDatagram(mSocket, mPath, entry, flags);
    if (result == -EMSGSIZE || result == -ENOBUFS) {
        result = SendAsFile(entry, flags);
    }
    mIsBehind = result == -EAGAIN;
    return result;
}

int JournalSocket::SendAsFile(std::string_view entry, int flags) const noexcept
{
    const UniqueFd file(::memfd_create("parvane-log", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!file) {
        return -errno;
    }
    const ssize_t written = ::write(file.Get(), entry.data(), entry.size());
    if (written != static_cast<ssize_t>(entry.size())) {
        return written < 0 ? -errno : -ENOSPC;
    }
    // The journal takes a file only when nobody can change it any more.
    if (::fcntl(file.Get(), F_ADD_SEALS,
                F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) != 0) {
        return -errno;
    }
    return SendDatagram(mSocket, mPath, {}, flags, file.Get());
}

} // namespace Parvane
