// SPDX-License-Identifier: Apache-2.0
#include "uevent_socket.h"

#include <android-base/logging.h>
#include <errno.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace emulator {

namespace {

constexpr unsigned kKernelGroup = 1;
constexpr int kReceiveBufferBytes = 1024 * 1024;
// What the kernel gives one event at most (UEVENT_BUFFER_SIZE and the header line before it).
constexpr size_t kMaxEventBytes = 4096;

// The text is a header line and then KEY=value fields, each ended by a NUL.
Uevent parse(std::string_view text) {
    Uevent event;
    while (!text.empty()) {
        const std::string_view field = text.substr(0, text.find('\0'));
        text.remove_prefix(std::min(field.size() + 1, text.size()));
        const size_t equals = field.find('=');
        if (equals == std::string_view::npos) continue;
        const std::string_view key = field.substr(0, equals);
        const std::string_view value = field.substr(equals + 1);
        if (key == "ACTION") event.action = value;
        if (key == "SUBSYSTEM") event.subsystem = value;
        if (key == "DEVTYPE") event.devtype = value;
        if (key == "DEVPATH") event.name = value.substr(value.rfind('/') + 1);
    }
    return event;
}

}  // namespace

UeventSocket::UeventSocket()
    : fd_(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT)) {
    if (fd_ == -1) PLOG(FATAL) << "no socket for kernel events";
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBufferBytes, sizeof(kReceiveBufferBytes));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = kKernelGroup;
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        PLOG(FATAL) << "cannot listen to kernel events";
    }
}

std::optional<Uevent> UeventSocket::receive() {
    std::array<char, kMaxEventBytes> buffer;
    const ssize_t size = TEMP_FAILURE_RETRY(recv(fd_, buffer.data(), buffer.size(), 0));
    if (size == -1) {
        if (errno != ENOBUFS) PLOG(FATAL) << "cannot receive kernel events";
        return std::nullopt;
    }
    return parse(std::string_view(buffer.data(), size));
}

}  // namespace emulator
