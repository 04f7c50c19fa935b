// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <binder/Stability.h>
#include <fcntl.h>
#include <linux/android/binder.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utils/Condition.h>

#include <atomic>
#include <thread>

namespace android {

namespace {

constexpr char kDriver[] = "/dev/binder";
constexpr uint32_t kDefaultMaxThreads = 15;
// Room for what others send to this process. Two pages less than a megabyte, so that with the guard
// pages around it the mapping takes just one.
const size_t kReceiveBufferSize = 1024 * 1024 - 2 * sysconf(_SC_PAGESIZE);

// Signalled when a proxy has left the table of handles.
Condition proxyGone;

}  // namespace

sp<ProcessState> ProcessState::self() {
    // Never destroyed: threads of the pool outlive the static objects.
    static const auto& process = *new sp<ProcessState>(new ProcessState(kDriver));
    return process;
}

ProcessState::ProcessState(const char* driver)
    : mDriverName(driver),
      mDriverFD(open(driver, O_RDWR | O_CLOEXEC)),
      mThreadPoolStarted(false),
      mThreadPoolSeq(0) {
    if (mDriverFD < 0) PLOG(FATAL) << "cannot open the binder driver " << driver;

    binder_version version{};
    if (ioctl(mDriverFD, BINDER_VERSION, &version) < 0 ||
        version.protocol_version != BINDER_CURRENT_PROTOCOL_VERSION) {
        LOG(FATAL) << driver << " does not speak version " << BINDER_CURRENT_PROTOCOL_VERSION
                   << " of the binder protocol";
    }
    setThreadPoolMaxThreadCount(kDefaultMaxThreads);

    mVMStart =
        mmap(nullptr, kReceiveBufferSize, PROT_READ, MAP_PRIVATE | MAP_NORESERVE, mDriverFD, 0);
    if (mVMStart == MAP_FAILED) PLOG(FATAL) << "cannot map the buffer of " << driver;
}

ProcessState::~ProcessState() {
    munmap(mVMStart, kReceiveBufferSize);
    close(mDriverFD);
}

sp<IBinder> ProcessState::getContextObject(const sp<IBinder>&) {
    // The driver has no handle 0 before there is a context manager: ask without a proxy.
    Parcel data;
    Parcel reply;
    const status_t status =
        IPCThreadState::self()->transact(0, IBinder::PING_TRANSACTION, data, &reply, 0);
    if (status != OK) return nullptr;
    const sp<IBinder> context = getStrongProxyForHandle(0);
    // No parcel that it came in says so.
    internal::Stability::markCompilationUnit(context.get());
    return context;
}

bool ProcessState::becomeContextManager(context_check_func, void*) {
    return ioctl(mDriverFD, BINDER_SET_CONTEXT_MGR, 0) == 0;
}

ProcessState::handle_entry* ProcessState::lookupHandleLocked(int32_t handle) {
    const auto index = static_cast<size_t>(handle);
    if (mHandleToObject.size() <= index) {
        mHandleToObject.insertAt({nullptr, nullptr}, mHandleToObject.size(),
                                 index + 1 - mHandleToObject.size());
    }
    return &mHandleToObject.editItemAt(index);
}

// The caller has a reference to the handle already: it is in a parcel that the caller holds.
sp<IBinder> ProcessState::getStrongProxyForHandle(int32_t handle) {
    AutoMutex lock(mLock);
    handle_entry* entry;
    while ((entry = lookupHandleLocked(handle))->binder != nullptr) {
        if (entry->refs->attemptIncStrong(this)) {
            const sp<IBinder> binder = entry->binder;
            binder->decStrong(this);
            return binder;
        }
        // Its last reference is just being dropped. The driver keeps one death notice a handle, so
        // a successor has to wait until that has been cleared.
        proxyGone.wait(mLock);
    }
    const sp<BpBinder> proxy = BpBinder::create(handle);
    entry->binder = proxy.get();
    entry->refs = proxy->createWeak(this);
    return proxy;
}

void ProcessState::expungeHandle(int32_t handle, IBinder* binder) {
    AutoMutex lock(mLock);
    handle_entry* entry = lookupHandleLocked(handle);
    CHECK_EQ(entry->binder, binder);
    entry->refs->decWeak(this);
    *entry = {nullptr, nullptr};
    proxyGone.broadcast();
}

void ProcessState::startThreadPool() {
    {
        AutoMutex lock(mLock);
        if (mThreadPoolStarted) return;
        mThreadPoolStarted = true;
    }
    spawnPooledThread(true);
}

void ProcessState::spawnPooledThread(bool isMain) {
    {
        AutoMutex lock(mLock);
        if (!mThreadPoolStarted) return;
    }
    std::thread([this, isMain] {
        giveThreadPoolName();
        IPCThreadState::self()->joinThreadPool(isMain);
    }).detach();
}

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    auto count = static_cast<uint32_t>(maxThreads);
    return ioctl(mDriverFD, BINDER_SET_MAX_THREADS, &count) < 0 ? -errno : OK;
}

String8 ProcessState::makeBinderThreadName() {
    AutoMutex lock(mLock);
    mThreadPoolSeq = mThreadPoolSeq + 1;
    return String8::format("binder:%d_%X", getpid(), mThreadPoolSeq);
}

// Names the calling thread.
void ProcessState::giveThreadPoolName() {
    pthread_setname_np(pthread_self(), makeBinderThreadName().string());
}

}  // namespace android
