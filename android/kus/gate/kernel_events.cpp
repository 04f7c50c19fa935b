// SPDX-License-Identifier: Apache-2.0
#include "gate/kernel_events.h"

#include <android-base/logging.h>
#include <cutils/uevent.h>
#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>

namespace android::kus {
namespace {

// Below any kernel's net.core.rmem_max: more takes a capability, and fails without.
constexpr int kReceiveBufferBytes = 128 * 1024;
// What the kernel gives one event at most (UEVENT_BUFFER_SIZE and the header line before it).
constexpr size_t kMaxEventBytes = 4096;

}  // namespace

KernelEvent parseKernelEvent(std::string_view text) {
    KernelEvent event;
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

KernelEvents::KernelEvents() : socket_(uevent_open_socket(kReceiveBufferBytes, true)) {
    if (!socket_.ok()) PLOG(FATAL) << "cannot listen to kernel events";
}

std::optional<KernelEvent> KernelEvents::receive() {
    while (true) {
        std::array<char, kMaxEventBytes> buffer;
        const ssize_t size =
            uevent_kernel_multicast_recv(socket_.get(), buffer.data(), buffer.size());
        if (size > 0) return parseKernelEvent(std::string_view(buffer.data(), size));
        if (size == -1 && errno == ENOBUFS) {
            dropWhatIsQueued();
            return std::nullopt;
        }
        if (size == -1 && errno != EIO) PLOG(FATAL) << "cannot receive kernel events";
    }
}

// After an overrun the kernel drops every event until the queue is empty, without a further error.
void KernelEvents::dropWhatIsQueued() {
    char piece;
    while (recv(socket_.get(), &piece, sizeof(piece), MSG_DONTWAIT) != -1 || errno != EAGAIN) {
        continue;
    }
}

}  // namespace android::kus
