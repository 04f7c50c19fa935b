// SPDX-License-Identifier: Apache-2.0
#include <android-base/parseint.h>

#include "kusctl.h"

namespace android::kus {
namespace {

constexpr char kHelp[] = R"(usage: kusctl reset [MILLISECONDS]

Makes all attached USB devices enumerate again, so that each is decided on anew. Without a value the
host controllers' role is toggled; with one, the dock sequence is run: a virtual undock, and a
virtual dock that many milliseconds later. Returns when it is over. The service reports no outcome:
failures are in its log.
)";

int run(int argc, char** argv) {
    parseOptions(argc, argv, {});
    int32_t waitMs = 0;
    if (optind < argc) {
        const char* value = argv[optind++];
        if (!base::ParseInt(value, &waitMs, 1)) {
            wrongUse(std::string("'") + value + "' is no number of milliseconds from 1 up");
        }
    }
    expectNoArguments(argc, argv);

    expectOk(connectToService()->resetUsbDevices(waitMs));
    return kYes;
}

}  // namespace

const Command kResetCommand = {"reset", "enumerate attached devices again", kHelp, run};

}  // namespace android::kus
