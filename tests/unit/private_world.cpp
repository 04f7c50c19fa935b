// SPDX-License-Identifier: Apache-2.0
#include "private_world.h"

#include <android-base/file.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

namespace fs = std::filesystem;
using android::base::ReadFileToString;
using android::base::WriteStringToFile;

namespace {

// The name under which the private root is mounted; /proc/self/mountinfo shows it.
constexpr char kRootName[] = "kus_private_world";

// Where the new root is put together: a directory that always exists and that it does without.
const fs::path kBuildSite = "/sys";

[[noreturn]] void refuse(const char* step) {
    fprintf(stderr, "cannot make a private /data and /sys to test in, so no test is run: %s: %m\n",
            step);
    _exit(1);
}

void require(bool done, const char* step) {
    if (!done) refuse(step);
}

// Asks the kernel, so that no argument or variable can pretend it. A line of mountinfo is such as
// "36 35 0:45 / /mount/point rw,relatime - tmpfs name rw".
bool inPrivateWorld() {
    const std::regex privateRoot(std::string(" / / .* - tmpfs ") + kRootName);
    const std::regex foreign(" /[^ ]* /(data|sys)[/ ]");
    std::string mounts;
    return ReadFileToString("/proc/self/mountinfo", &mounts) &&
           std::regex_search(mounts, privateRoot) && !std::regex_search(mounts, foreign);
}

// A bind mount takes what is mounted below along.
void bind(const fs::path& source, const fs::path& target) {
    require(mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
            source.c_str());
}

void buildRoot(const fs::path& root) {
    require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    require(mount(kRootName, root.c_str(), "tmpfs", 0, "mode=755") == 0, "tmpfs");

    for (const fs::directory_entry& entry : fs::directory_iterator("/")) {
        const fs::path copy = root / entry.path().filename();
        if (entry.is_symlink()) {
            fs::copy_symlink(entry.path(), copy);
        } else if (entry.is_directory()) {
            fs::create_directory(copy);
            const std::string name = copy.filename();
            if (name != "data" && name != "sys" && name != "dev") bind(entry.path(), copy);
        }
    }
    fs::create_directory(root / "data");
    for (const char* device : {"null", "zero", "full", "random", "urandom"}) {
        std::ofstream(root / "dev" / device);
        bind(fs::path("/dev") / device, root / "dev" / device);
    }
}

[[noreturn]] void becomePrivate(char** argv, uid_t uid, gid_t gid) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (uid != 0) {
        require(WriteStringToFile("0 " + std::to_string(uid) + " 1", "/proc/self/uid_map") &&
                    WriteStringToFile("deny", "/proc/self/setgroups") &&
                    WriteStringToFile("0 " + std::to_string(gid) + " 1", "/proc/self/gid_map"),
                "user mapping");
    }
    const fs::path here = fs::current_path();
    buildRoot(kBuildSite);
    // Puts the old root on top of the new one and drops it, see pivot_root(2).
    require(chdir(kBuildSite.c_str()) == 0 && syscall(SYS_pivot_root, ".", ".") == 0 &&
                umount2(".", MNT_DETACH) == 0 && chdir(here.c_str()) == 0,
            "pivot_root");
    require(inPrivateWorld(), "the new root is not in place");
    execv("/proc/self/exe", argv);
    refuse("exec");
}

}  // namespace

void enterPrivateWorld(char** argv) {
    if (inPrivateWorld()) return;

    // clone, because unshare gives no user namespace to a process that a sanitizer's runtime has
    // given a second thread; exec in the child gives that runtime a fresh start.
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    const int flags = SIGCHLD | CLONE_NEWNS | (uid == 0 ? 0 : CLONE_NEWUSER);
    const pid_t child = syscall(SYS_clone, flags, nullptr, nullptr, nullptr, nullptr);
    require(child >= 0, "namespaces");
    if (child == 0) becomePrivate(argv, uid, gid);

    int status;
    require(waitpid(child, &status, 0) == child, "waitpid");
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}
