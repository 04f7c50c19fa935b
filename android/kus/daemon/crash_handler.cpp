#include "daemon/crash_handler.h"

#include <android-base/logging.h>
#include <stdlib.h>
#include <unwindstack/AndroidUnwinder.h>

#include "util/Util.h"

using android::kus::Util;

namespace {

void logStackTrace() {
    unwindstack::AndroidLocalUnwinder unwinder;
    unwindstack::AndroidUnwinderData data;
    if (!unwinder.Unwind(data)) {
        LOG(ERROR) << "signalHandler"
                   << ": Failed to unwind callstack: " << data.GetErrorString();
    }
    LOG(INFO) << "Stack Trace" << std::endl;
    for (const auto& frame : data.frames) LOG(ERROR) << unwinder.FormatFrame(frame);
}

}  // namespace

void signalHandler(int signum, siginfo_t*, void*) {
    // One text for every signal: an abort logs it too.
    LOG(INFO) << "Segmentation fault"
              << "signum" << signum << std::endl;
    // The rules first: they must be back even if the diagnostics fail.
    Util::copyFileContent(android::kus::backupFilePath, android::kus::configFilePath);
    Util::updateErrorFile(android::kus::statusFilePath,
                          "Unable to apply the USB Admin config rules");
    logStackTrace();
    exit(signum);
}
