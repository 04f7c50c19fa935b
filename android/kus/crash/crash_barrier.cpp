// SPDX-License-Identifier: Apache-2.0
#include "crash/crash_barrier.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

namespace android::kus {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kLongestWait(1000);
constexpr milliseconds kPollInterval(1);

// A use is counted before its thread looks for a crash, and a crash is announced before the uses
// are counted: one of the two sees the other.
std::atomic<int> uses = 0;
thread_local int ownUses = 0;
std::atomic<pid_t> crashingThread = 0;

void stopWhileAnotherThreadCrashes() {
    const pid_t crashing = crashingThread;
    if (crashing == 0 || crashing == gettid()) return;
    // Once: a signal may interrupt the pause and come here again.
    uses -= std::exchange(ownUses, 0);
    while (true) pause();
}

}  // namespace

SharedStateUse::SharedStateUse() {
    // In this order, like the destructor's, so that a signal in between finds one use too many.
    ++uses;
    ++ownUses;
    stopWhileAnotherThreadCrashes();
}

SharedStateUse::~SharedStateUse() {
    stopWhileAnotherThreadCrashes();
    --ownUses;
    --uses;
}

void SharedStateUse::endAll() {
    pid_t none = 0;
    if (!crashingThread.compare_exchange_strong(none, gettid())) stopWhileAnotherThreadCrashes();
    // The uses of this very thread are what crashed.
    const auto deadline = steady_clock::now() + kLongestWait;
    while (uses > ownUses && steady_clock::now() < deadline) {
        std::this_thread::sleep_for(kPollInterval);
    }
}

}  // namespace android::kus
