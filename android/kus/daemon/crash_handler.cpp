// SPDX-License-Identifier: Apache-2.0
#include "daemon/crash_handler.h"

#include <android-base/logging.h>
#include <stdlib.h>
#include <unwindstack/AndroidUnwinder.h>

#include "ku_service/KUsbService.h"
#include "util/Util.h"

namespace android::kus {
namespace {

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
    // One text for every signal: an abort logs it too.
    LOG(INFO) << "Segmentation faultsignum" << signum << std::endl;
    // Or the observer would take the restored rules for a good rewrite and report success.
    KUsbService::suspendFileObserver();
    // The rules first: they must be back even if the diagnostics fail.
    Util::copyFileContent(backupFilePath, configFilePath);
    Util::updateErrorFile(statusFilePath, "Unable to apply the USB Admin config rules");
    logStackTrace();
    exit(signum);
}

}  // namespace android::kus
