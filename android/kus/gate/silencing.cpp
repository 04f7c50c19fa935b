// SPDX-License-Identifier: Apache-2.0
#include "gate/silencing.h"

#include <android-base/logging.h>
#include <errno.h>
#include <string.h>

#include <atomic>

namespace android::kus {

void setSilenced(const Device& inputDevice, bool silenced) {
    const SysfsDirectory& directory = inputDevice.directory;
    if (directory.write("inhibited", silenced ? "1" : "0")) return;
    const int error = errno;
    if (!directory.read("name")) return;  // It is gone.
    static std::atomic_flag warned = ATOMIC_FLAG_INIT;
    if (error != ENOENT) {
        LOG(ERROR) << "cannot write inhibited of " << inputDevice.name << ": " << strerror(error);
    } else if (!warned.test_and_set()) {
        LOG(WARNING) << "refused input devices stay usable: this kernel is older than 5.11 and has "
                        "no attribute inhibited";
    }
}

}  // namespace android::kus
