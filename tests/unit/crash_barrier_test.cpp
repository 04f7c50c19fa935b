// SPDX-License-Identifier: Apache-2.0
#include "crash/crash_barrier.h"

#include <unistd.h>

#include "kus_test.h"

namespace android::kus {
namespace {

class CrashBarrierDeathTest : public KusTest {};

enum Steps { kBegun = 1, kEnded = 2, kTold = 4, kBegunLater = 8, kCrashedToo = 16 };

/** Ends what another thread is at for `work`, as a crash does, and exits with the steps it made. */
void crashDuring(milliseconds work) {
    std::atomic<int> steps = 0;
    std::thread([&] {
        {
            const SharedStateUse use;
            const SharedStateUse nested;
            steps |= kBegun;
            sleep_for(work);
            steps |= kEnded;
        }
        steps |= kTold;
    }).detach();
    while (!steps) sleep_for(milliseconds(1));
    // What crashes is a use itself, and may begin others.
    const SharedStateUse own;
    SharedStateUse::endAll();
    const SharedStateUse afterwards;
    std::thread([&] {
        const SharedStateUse use;
        steps |= kBegunLater;
    }).detach();
    std::thread([&] {
        SharedStateUse::endAll();
        steps |= kCrashedToo;
    }).detach();
    // Longer than a crash waits for others.
    sleep_for(milliseconds(1200));
    _exit(steps);
}

TEST_F(CrashBarrierDeathTest, WhatIsUnderWayEndsAndNothingBegins) {
    EXPECT_EXIT(crashDuring(milliseconds(300)), ExitedWithCode(kBegun | kEnded), "");
    EXPECT_EXIT(crashDuring(std::chrono::hours(1)), ExitedWithCode(kBegun), "");
}

}  // namespace
}  // namespace android::kus
