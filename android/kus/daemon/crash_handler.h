// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <signal.h>

namespace android::kus {

/**
 * Puts the last accepted rules back, unless the file has been rewritten since it was read; records
 * that the rules could not be applied, logs the stack and exits with the signal's number. Takes no
 * lock of this program: any may be held by the code that crashed.
 */
void signalHandler(int signum, siginfo_t* info, void* context);

}  // namespace android::kus
