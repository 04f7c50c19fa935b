// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <memory>

namespace android {

BpBinder::ObjectManager::ObjectManager() = default;

BpBinder::ObjectManager::~ObjectManager() { kill(); }

void BpBinder::ObjectManager::attach(const void* objectID, void* object, void* cleanupCookie,
                                     IBinder::object_cleanup_func func) {
    CHECK(mObjects.indexOfKey(objectID) < 0) << "an object is attached under this id already";
    mObjects.add(objectID, {object, cleanupCookie, func});
}

void* BpBinder::ObjectManager::find(const void* objectID) const {
    const ssize_t i = mObjects.indexOfKey(objectID);
    return i < 0 ? nullptr : mObjects.valueAt(i).object;
}

void BpBinder::ObjectManager::detach(const void* objectID) { mObjects.removeItem(objectID); }

void BpBinder::ObjectManager::kill() {
    for (size_t i = 0; i < mObjects.size(); ++i) {
        const entry_t& entry = mObjects.valueAt(i);
        if (entry.func) entry.func(mObjects.keyAt(i), entry.object, entry.cleanupCookie);
    }
    mObjects.clear();
}

// A proxy lives as long as somebody holds it: the first strong reference takes one reference of the
// driver's, the last one gives it back. ProcessState sees to it that a process never has two
// proxies for one handle.

BpBinder* BpBinder::create(int32_t handle) { return new BpBinder(handle, -1); }

BpBinder::BpBinder(int32_t handle, int32_t trackedUid)
    : mHandle(handle),
      mAlive(true),
      mObitsSent(false),
      mObituaries(nullptr),
      mConstantData(nullptr),
      mTrackedUid(trackedUid) {}

BpBinder::~BpBinder() { delete mObituaries; }

void BpBinder::onFirstRef() { IPCThreadState::self()->incStrongHandle(mHandle, this); }

void BpBinder::onLastStrongRef(const void*) {
    IPCThreadState* thread = IPCThreadState::self();
    if (mObituaries) thread->clearDeathNotification(mHandle, this);
    thread->decStrongHandle(mHandle);
    // The driver has to hear this before a successor asks for the same handle.
    thread->flushCommands();
    ProcessState::self()->expungeHandle(mHandle, this);
}

bool BpBinder::onIncStrongAttempted(uint32_t, const void*) { return false; }

int32_t BpBinder::handle() const { return mHandle; }

BpBinder* BpBinder::remoteBinder() { return this; }

const String16& BpBinder::getInterfaceDescriptor() const {
    if (!isDescriptorCached()) {
        Parcel data;
        Parcel reply;
        auto* self = const_cast<BpBinder*>(this);
        if (self->transact(INTERFACE_TRANSACTION, data, &reply) == OK) {
            const String16 descriptor = reply.readString16();
            AutoMutex lock(mLock);
            // Written once only: callers keep a reference to it.
            if (mDescriptorCache.size() == 0) mDescriptorCache = descriptor;
        }
    }
    return mDescriptorCache;
}

bool BpBinder::isDescriptorCached() const {
    AutoMutex lock(mLock);
    return mDescriptorCache.size() > 0;
}

bool BpBinder::isBinderAlive() const {
    AutoMutex lock(mLock);
    return mAlive;
}

status_t BpBinder::pingBinder() {
    Parcel data;
    Parcel reply;
    return transact(PING_TRANSACTION, data, &reply);
}

status_t BpBinder::dump(int fd, const Vector<String16>& args) {
    Parcel data;
    Parcel reply;
    data.writeFileDescriptor(fd);
    data.writeInt32(static_cast<int32_t>(args.size()));
    for (const String16& arg : args) data.writeString16(arg);
    return transact(DUMP_TRANSACTION, data, &reply);
}

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    // Once a binder has died, it never comes back to life.
    if (!isBinderAlive()) return DEAD_OBJECT;
    const status_t status = IPCThreadState::self()->transact(mHandle, code, data, reply, flags);
    if (status == DEAD_OBJECT) {
        AutoMutex lock(mLock);
        mAlive = false;
    }
    return status;
}

// The driver is asked for one notice a handle, from the first link to the last unlink; sendObituary
// hands it on to every link.

status_t BpBinder::linkToDeath(const sp<DeathRecipient>& recipient, void* cookie, uint32_t flags) {
    CHECK(recipient != nullptr) << "linkToDeath needs a recipient";
    AutoMutex lock(mLock);
    if (mObitsSent) return DEAD_OBJECT;
    if (!mObituaries) {
        mObituaries = new Vector<Obituary>;
        IPCThreadState* thread = IPCThreadState::self();
        thread->requestDeathNotification(mHandle, this);
        thread->flushCommands();
    }
    mObituaries->add({recipient, cookie, flags});
    return OK;
}

status_t BpBinder::unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie, uint32_t flags,
                                 wp<DeathRecipient>* outRecipient) {
    AutoMutex lock(mLock);
    if (mObitsSent) return DEAD_OBJECT;
    const size_t count = mObituaries ? mObituaries->size() : 0;
    for (size_t i = 0; i < count; ++i) {
        const Obituary& link = mObituaries->itemAt(i);
        const bool matches = link.recipient == recipient ||
                             (recipient.unsafe_get() == nullptr && link.cookie == cookie);
        if (!matches || link.flags != flags) continue;
        if (outRecipient) *outRecipient = link.recipient;
        mObituaries->removeAt(i);
        if (mObituaries->empty()) {
            IPCThreadState* thread = IPCThreadState::self();
            thread->clearDeathNotification(mHandle, this);
            thread->flushCommands();
            delete mObituaries;
            mObituaries = nullptr;
        }
        return OK;
    }
    return NAME_NOT_FOUND;
}

void BpBinder::sendObituary() {
    std::unique_ptr<Vector<Obituary>> links;
    {
        AutoMutex lock(mLock);
        mAlive = false;
        mObitsSent = true;
        links.reset(mObituaries);
        mObituaries = nullptr;
        if (links) IPCThreadState::self()->clearDeathNotification(mHandle, this);
    }
    if (!links) return;
    for (const Obituary& link : *links) reportOneDeath(link);
}

void BpBinder::reportOneDeath(const Obituary& obit) {
    const sp<DeathRecipient> recipient = obit.recipient.promote();
    if (recipient != nullptr) recipient->binderDied(wp<IBinder>(this));
}

void BpBinder::attachObject(const void* objectID, void* object, void* cleanupCookie,
                            object_cleanup_func func) {
    AutoMutex lock(mLock);
    mObjects.attach(objectID, object, cleanupCookie, func);
}

void* BpBinder::findObject(const void* objectID) const {
    AutoMutex lock(mLock);
    return mObjects.find(objectID);
}

void BpBinder::detachObject(const void* objectID) {
    AutoMutex lock(mLock);
    mObjects.detach(objectID);
}

}  // namespace android
