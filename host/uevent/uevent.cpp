// SPDX-License-Identifier: Apache-2.0
#include <cutils/uevent.h>
#include <errno.h>
#include <linux/netlink.h>
#include <string.h>
#include <unistd.h>

// The kernel gives twice what it was asked for, and silently less than that above its limit. Then
// the platform's function wants to have its way, which takes CAP_NET_ADMIN.
static bool setReceiveBuffer(int fd, int size) {
    int given = 0;
    socklen_t length = sizeof(given);
    return setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) == 0 &&
           getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &given, &length) == 0 &&
           (given >= 2 * size ||
            setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) == 0);
}

int uevent_open_socket(int buf_sz, bool passcred) {
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (fd == -1) return -1;
    const int on = passcred;
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 0xffffffff;
    if (!setReceiveBuffer(fd, buf_sz) ||
        setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// The kernel's own messages come from port 0 and to a group, and with a sender's credentials.
ssize_t uevent_kernel_multicast_recv(int socket, void* buffer, size_t length) {
    sockaddr_nl sender = {};
    iovec piece = {buffer, length};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    msghdr message = {};
    message.msg_name = &sender;
    message.msg_namelen = sizeof(sender);
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t size = TEMP_FAILURE_RETRY(recvmsg(socket, &message, 0));
    if (size <= 0) return size;

    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    const bool known = header != nullptr && header->cmsg_type == SCM_CREDENTIALS;
    if (known && sender.nl_pid == 0 && sender.nl_groups != 0) return size;
    memset(buffer, 0, length);
    errno = EIO;
    return -1;
}
