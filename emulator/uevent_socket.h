// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android-base/unique_fd.h>

#include <optional>
#include <string>

namespace emulator {

/** One kernel event about a device (Documentation/ABI/testing/sysfs-uevent). */
struct Uevent {
    std::string action;
    std::string subsystem;
    /** Empty where the subsystem has only one type. */
    std::string devtype;
    /** Last part of the device's sysfs path, such as "3-1" or "input4". */
    std::string name;
};

/** The kernel's device events, from the moment of construction on. */
class UeventSocket {
  public:
    UeventSocket();

    int fd() const { return fd_.get(); }

    /**
     * The next event, waiting for it if there is none. Nothing when the kernel had to drop events:
     * the reader then has to look at sysfs for itself.
     */
    std::optional<Uevent> receive();

  private:
    android::base::unique_fd fd_;
};

}  // namespace emulator
