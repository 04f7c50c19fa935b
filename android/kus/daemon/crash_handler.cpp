// SPDX-License-Identifier: Apache-2.0
#include "daemon/crash_handler.h"

#include <android-base/logging.h>
#include <stdlib.h>
#include <unistd.h>
#include <unwindstack/AndroidUnwinder.h>

#include <atomic>

#include "crash/crash_barrier.h"
#include "usbdevice/UsbDevice.h"
#include "util/Util.h"

namespace android::kus {
namespace {

// Init restarts only what has ended. The longest part is the stack trace.
constexpr unsigned int kLongestHandlerSeconds = 10;

void logStackTrace() {
    unwindstack::AndroidLocalUnwinder unwinder;
    unwindstack::AndroidUnwinderData data;
    if (!unwinder.Unwind(data)) {
        LOG(ERROR) << "signalHandler: Failed to unwind callstack: " << data.GetErrorString();
    }
    LOG(INFO) << "Stack Trace" << std::endl;
    for (const auto& frame : data.frames) LOG(ERROR) << unwinder.FormatFrame(frame);
}

}  // namespace

void signalHandler(int signum, siginfo_t*, void*) {
    // A handler that hangs, such as in the allocator that has just found its heap broken, is ended
    // by the default action of SIGALRM. Set once, also for a handler that crashes itself.
    static std::atomic_flag alarmIsSet = ATOMIC_FLAG_INIT;
    if (!alarmIsSet.test_and_set()) alarm(kLongestHandlerSeconds);
    // One text for every signal: an abort logs it too.
    LOG(INFO) << "Segmentation faultsignum" << signum << std::endl;
    SharedStateUse::endAll();
    // The rules first: they must be back even if the diagnostics fail.
    Util::restoreRules();
    Util::updateErrorFile(statusFilePath, crashStatus);
    UsbDevice::give_host_role_back();
    logStackTrace();
    exit(signum);
}

}  // namespace android::kus
