// SPDX-License-Identifier: Apache-2.0

// The machine's role switch: follows the `mode` file of each controller under
// /sys/devices/platform/soc. A controller has its devices while its file says "host"; any other
// role takes them away. The daemon leaves 100 ms between two roles: both are gone through, in
// order, however long the kernel takes for each.
#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <glob.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <condition_variable>
#include <map>
#include <mutex>
#include <queue>
#include <string>
#include <thread>
#include <vector>

using android::base::Dirname;
using android::base::ReadFileToString;
using android::base::StartsWith;
using android::base::WriteStringToFile;

namespace {

// Tells `services` that what is written to the files from now on has its effect.
constexpr char kReadyPath[] = "/run/services/role_switch.ready";

struct Role {
    std::string controller;
    bool host;
};

std::mutex lock;
std::condition_variable written;
std::queue<Role> roles;

std::vector<std::string> filesLike(const std::string& pattern) {
    glob_t found;
    std::vector<std::string> files;
    if (glob(pattern.c_str(), 0, nullptr, &found) == 0) {
        files.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    }
    globfree(&found);
    return files;
}

bool isHost(const std::string& modeFile) {
    std::string role;
    ReadFileToString(modeFile, &role);
    return StartsWith(role, "host");
}

void takeRole(const std::string& modeFile) {
    const std::lock_guard guard(lock);
    roles.push({Dirname(modeFile), isHost(modeFile)});
    written.notify_one();
}

// Nothing may hold this thread up, or it reads the second of two roles only: neither other threads
// nor the time that the kernel takes to remove devices.
[[noreturn]] void followModeFiles(int inotify, const std::map<int, std::string>& watches) {
    sched_param priority = {};
    priority.sched_priority = 1;
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority);

    while (true) {
        // The watched files are no directories, so that events carry no names.
        std::array<inotify_event, 64> events;
        const ssize_t size = TEMP_FAILURE_RETRY(read(inotify, events.data(), sizeof(events)));
        if (size <= 0) PLOG(FATAL) << "cannot read inotify events";
        for (size_t i = 0; i < size / sizeof(inotify_event); ++i) {
            takeRole(watches.at(events[i].wd));
        }
    }
}

// Without its authorization (Documentation/usb/authorization.rst) a root hub has no configuration,
// and all devices behind it are gone. The controllers' drivers stay bound: a gadget that comes or
// goes while the dummy controller behind it is unbound crashes the kernel.
void apply(const Role& role) {
    for (const std::string& file : filesLike(role.controller + "/*/usb*/authorized")) {
        if (WriteStringToFile(role.host ? "1" : "0", file)) continue;
        PLOG(WARNING) << "cannot write " << file;
    }
}

void applyRoles() {
    while (true) {
        std::unique_lock guard(lock);
        written.wait(guard, [] { return !roles.empty(); });
        const Role role = roles.front();
        roles.pop();
        guard.unlock();
        LOG(INFO) << role.controller << (role.host ? " is host" : " is not host");
        apply(role);
    }
}

}  // namespace

int main() {
    const int inotify = inotify_init1(IN_CLOEXEC);
    if (inotify == -1) PLOG(FATAL) << "no inotify";
    std::map<int, std::string> watches;
    for (const std::string& file : filesLike("/sys/devices/platform/soc/*/mode")) {
        watches[inotify_add_watch(inotify, file.c_str(), IN_CLOSE_WRITE)] = file;
        // It may have changed while nobody watched.
        takeRole(file);
    }
    std::thread(applyRoles).detach();
    if (!WriteStringToFile("", kReadyPath)) PLOG(FATAL) << "cannot write " << kReadyPath;
    followModeFiles(inotify, watches);
}
