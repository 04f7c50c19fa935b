// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android-base/unique_fd.h>

#include <optional>
#include <string>
#include <string_view>

namespace android::kus {

/** One kernel event about a device (Documentation/ABI/testing/sysfs-uevent). */
struct KernelEvent {
    std::string action;
    std::string subsystem;
    /** Empty where the subsystem has only one type. */
    std::string devtype;
    /** Last part of the device's sysfs path, such as "3-1" or "input4". */
    std::string name;
};

/** `text` is a header line and then KEY=value fields, each ended by a NUL. */
KernelEvent parseKernelEvent(std::string_view text);

/** The kernel's device events, from the moment of construction on. */
class KernelEvents {
  public:
    KernelEvents();

    /**
     * The next event, waiting for it if there is none. Nothing when the kernel had to drop events:
     * the reader then has to look at sysfs for itself. What others than the kernel sent is ignored.
     */
    std::optional<KernelEvent> receive();

  private:
    void dropWhatIsQueued();

    base::unique_fd socket_;
};

}  // namespace android::kus
