#include "Datagram.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>

namespace Parvane {

int OpenDatagramSocket(int maxWaitMs) noexcept
{
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -errno;
    }
    const timeval wait = {maxWaitMs / 1000, maxWaitMs % 1000 * 1000L};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    return fd;
}

int SendDatagram(int socket, std::string_view address, std::string_view bytes, int flags,
                 int attached) noexcept
{
    sockaddr_un name = {};
    name.sun_family = AF_UNIX;
    if (address.size() < 2 || address.size() >= sizeof name.sun_path ||
        (address[0] != '/' && address[0] != '@')) {
        return -EINVAL;
    }
    std::memcpy(name.sun_path, address.data(), address.size());
    if (address[0] == '@') {
        name.sun_path[0] = '\0';
    }
    iovec content = {const_cast<char *>(bytes.data()), bytes.size()};
    msghdr message = {};
    message.msg_name = &name;
    message.msg_namelen = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (attached >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &attached, sizeof attached);
    }
    return ::sendmsg(socket, &message, flags | MSG_NOSIGNAL) < 0 ? -errno : 0;
}

} // namespace Parvane
