// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "daemon/crash_handler.h"
#include "ku_service/KUsbService.h"
#include "util/Util.h"

namespace {

using android::IPCThreadState;
using android::ProcessState;
using android::kus::KUsbService;

constexpr char kStartupTasksArgument[] = "run-startup-tasks";

// 78 bytes, without a line feed at the end.
constexpr char kDefaultConfig[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<usbconfig mode=\"default\">\n"
    "</usbconfig>";

/** The file appears whole or not at all, and never in the place of another. */
void writeDefaultConfig() {
    const std::string draft = std::string(android::kus::configFilePath) + ".new";
    const android::base::unique_fd file(
        open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file.ok()) return;
    if (!android::base::WriteStringToFd(kDefaultConfig, file.get()) || fsync(file.get()) != 0 ||
        renameat2(AT_FDCWD, draft.c_str(), AT_FDCWD, android::kus::configFilePath,
                  RENAME_NOREPLACE) != 0) {
        PLOG(ERROR) << "Could not write " << android::kus::configFilePath;
        unlink(draft.c_str());
    }
}

void createDefaultConfig() {
    struct stat st;
    if (stat(android::kus::configDirectory, &st) != 0 || !S_ISDIR(st.st_mode)) {
        LOG(INFO) << "no Directory exist";
        return;
    }
    LOG(INFO) << "Directory exist, creating file";
    if (stat(android::kus::configFilePath, &st) != 0) writeDefaultConfig();
}

void installCrashHandler() {
    struct sigaction action = {};
    action.sa_sigaction = android::kus::signalHandler;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    sigaction(SIGSEGV, &action, nullptr);
    sigaction(SIGABRT, &action, nullptr);
}

// A client that closes its end of a dump must not end the daemon.
void ignoreBrokenPipes() { signal(SIGPIPE, SIG_IGN); }

void serveBinderCalls() {
    ProcessState::self()->startThreadPool();
    ProcessState::self()->giveThreadPoolName();
    IPCThreadState::self()->joinThreadPool(/*isMain=*/true);
}

}  // namespace

int main(int argc, char** argv) {
    LOG(INFO) << "kus main called with argc: " << argc << "and argv: " << argv;
    if (argc >= 2 && strcmp(argv[1], kStartupTasksArgument) == 0) {
        LOG(INFO) << "kus main called with run-startup-tasks";
        createDefaultConfig();
        exit(0);
    }
    installCrashHandler();
    ignoreBrokenPipes();
    KUsbService::Register();
    serveBinderCalls();
    exit(0);
}
