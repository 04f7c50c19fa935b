// SPDX-License-Identifier: Apache-2.0
#include "kernel_trace.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

namespace android::kus {
namespace {

const std::string kTracefs = "/sys/kernel/tracing/";

void set(const std::string& file, const std::string& value, int flags = O_TRUNC) {
    const base::unique_fd fd(open((kTracefs + file).c_str(), O_WRONLY | O_CLOEXEC | flags));
    if (!base::WriteStringToFd(value, fd)) PLOG(FATAL) << kTracefs << file << ": " << value;
}

void start() {
    if (access((kTracefs + "trace").c_str(), F_OK) != 0) {
        const int mounted = mount("tracefs", kTracefs.c_str(), "tracefs", 0, nullptr);
        if (mounted != 0) PLOG(FATAL) << kTracefs;
    }
    set("trace_clock", "mono");
    set("trace", "");
}

}  // namespace

KernelTrace::KernelTrace(const std::vector<std::string>& probes) {
    start();
    for (const std::string& probe : probes) set("kprobe_events", "p:kus/" + probe, O_APPEND);
    set("events/kus/enable", "1");
}

KernelTrace::KernelTrace(pid_t process) {
    start();
    const std::string threads = "/proc/" + std::to_string(process) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(threads)) {
        set("set_event_pid", thread.path().filename(), O_APPEND);
    }
    set("events/raw_syscalls/sys_enter/enable", "1");
}

KernelTrace::~KernelTrace() {
    set("events/enable", "0");
    set("set_event_pid", " ");
    set("kprobe_events", "\n");
}

std::vector<KernelTrace::Event> KernelTrace::take() {
    std::string text;
    CHECK(base::ReadFileToString(kTracefs + "trace", &text));
    set("trace", "");
    std::smatch counts;
    CHECK(std::regex_search(text, counts, std::regex("entries-written: (\\d+)/(\\d+)")));
    CHECK_EQ(counts[1], counts[2]) << "the kernel's buffer is too small";

    // kusd-123     [000] .....    12.345678: written: (interface_authorized_store+0x0/0xc0) ...
    const std::regex line("\\s(\\d+\\.\\d+): (\\w+): (?:\\(\\S+\\) )?(.*)\n");
    std::vector<Event> events;
    for (std::sregex_iterator match(text.begin(), text.end(), line), end; match != end; ++match) {
        events.push_back({(*match)[2], std::stod((*match)[1]) * 1000, (*match)[3]});
    }
    return events;
}

}  // namespace android::kus
