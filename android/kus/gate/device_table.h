// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "gate/device_reader.h"

namespace android::kus {

/**
 * What is attached, and what the service has been told of it. Shared by the thread that follows the
 * kernel, which never waits for the service, and the thread that asks it.
 */
class DeviceTable {
  public:
    using Pointer = std::shared_ptr<const Device>;

    /** What the service is to be called for next; neither when it is to be looked after itself. */
    struct Task {
        /** A device that it was asked about is gone. Comes before any question. */
        std::optional<DeviceInfo> removed;
        Pointer undecided;
    };

    // For the thread that follows the kernel.

    /** A device of its name that is there already stays, and is looked at at once if undecided. */
    void add(const Pointer& device);
    void remove(const std::string& name);
    bool has(const std::string& name);
    std::vector<Pointer> devices();
    /** What was decided may no longer be so: the same service is asked again. */
    void decideAgain();

    // For the thread that asks the service.

    /** Waits for a task, or for wake(). */
    Task nextTask();
    /** Just before a question: false when the device is gone already. */
    bool isToBeAskedAbout(const Pointer& device, const DeviceInfo& info);
    void setDecided(const Pointer& device);
    /** Leaves the device for later: for a moment at first, and longer each time. */
    void postpone(const Pointer& device);
    /** There is a new service, which knows nothing. */
    void startAgain();

    /** From any thread. */
    void wake();

  private:
    using Clock = std::chrono::steady_clock;

    struct Entry {
        Pointer device;
        bool decided = false;
        /** What the service was asked about. */
        std::optional<DeviceInfo> asked{};
        std::chrono::milliseconds pause{0};
        Clock::time_point notBefore{};
    };

    /** Null when the device is gone, also when another has got its name. */
    Entry* find(const Pointer& device);

    std::mutex lock_;
    std::condition_variable changed_;
    // All of it guarded by lock_. By sysfs name.
    std::map<std::string, Entry> entries_;
    std::vector<DeviceInfo> removed_;
    bool woken_ = false;
};

}  // namespace android::kus
