// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace android::kus {

/**
 * What the kernel does and when, recorded by itself for as long as this lives; one at a time. Needs
 * root. The recording is tracefs's (Documentation/trace/events.rst and kprobetrace.rst).
 */
class KernelTrace {
  public:
    struct Event {
        std::string name;
        /** Of CLOCK_MONOTONIC. */
        double milliseconds;
        /** Such as: device="4-1:1.0" value="0". */
        std::string arguments;
    };

    /**
     * Entries into functions of the kernel, each given as: NAME FUNCTION [ARGUMENT=FETCH]...
     * Those of kernel_probes are such.
     */
    explicit KernelTrace(const std::vector<std::string>& probes);
    /** The system calls of a process and of the threads that it has. */
    explicit KernelTrace(pid_t process);
    ~KernelTrace();
    KernelTrace(const KernelTrace&) = delete;

    /** What was recorded since the last call, in order. What happens meanwhile may be lost. */
    std::vector<Event> take();
};

/** A struct device starts with the pointer to its name. */
namespace kernel_probes {

/** A device of any kind goes into sysfs. */
inline constexpr char kAdded[] = "added device_add device=+0(+0($arg1)):string";
/** A device has its driver: the event "bind" goes out next, after those of its interfaces. */
inline constexpr char kBound[] = "bound driver_bound device=+0(+0($arg1)):string";
/** An interface's `authorized` is written. */
inline constexpr char kWritten[] =
    "written interface_authorized_store device=+0(+0($arg1)):string value=+0($arg3):string";

}  // namespace kernel_probes
}  // namespace android::kus
