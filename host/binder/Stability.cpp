// SPDX-License-Identifier: Apache-2.0
#include <binder/IBinder.h>
#include <binder/Stability.h>

#include <mutex>

namespace android::internal {

namespace {

// What a proxy's stability is attached under.
constexpr char kId = 0;

}  // namespace

bool Stability::isDeclaredStability(int32_t stability) {
    return stability == VENDOR || stability == SYSTEM || stability == VINTF;
}

Stability::Level Stability::get(IBinder* binder) {
    if (!binder) return UNDECLARED;
    if (binder->localBinder()) return kLocalStability;
    return static_cast<Level>(reinterpret_cast<intptr_t>(binder->findObject(&kId)));
}

// What an object is once, it is for good: one that is said to be another is refused.
status_t Stability::set(IBinder* binder, int32_t stability, bool) {
    static std::mutex lock;
    std::lock_guard guard(lock);
    const Level known = get(binder);
    if (known == stability) return OK;
    if (!binder || known != UNDECLARED || !isDeclaredStability(stability)) return BAD_TYPE;
    binder->attachObject(&kId, reinterpret_cast<void*>(intptr_t{stability}), nullptr, nullptr);
    return OK;
}

void Stability::markCompilationUnit(IBinder* binder) {
    [[maybe_unused]] const status_t status = set(binder, kLocalStability, true);
}

}  // namespace android::internal
