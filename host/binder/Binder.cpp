// SPDX-License-Identifier: Apache-2.0
#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/Parcel.h>

#include <mutex>

namespace android {

IBinder::IBinder() = default;

IBinder::~IBinder() = default;

sp<IInterface> IBinder::queryLocalInterface(const String16&) { return nullptr; }

bool IBinder::checkSubclass(const void*) const { return false; }

BBinder* IBinder::localBinder() { return nullptr; }

BpBinder* IBinder::remoteBinder() { return nullptr; }

// What few objects need, allocated when the first of it is used.
class BBinder::Extras {
  public:
    std::mutex lock;
    BpBinder::ObjectManager objects;
};

BBinder::BBinder() : mExtras(nullptr), mReserved0(nullptr) {}

BBinder::~BBinder() { delete mExtras.load(); }

BBinder::Extras* BBinder::getOrCreateExtras() {
    Extras* extras = mExtras.load();
    if (extras) return extras;
    auto created = std::make_unique<Extras>();
    // A thread that lost the race takes the winner's, which is left in `extras`.
    return mExtras.compare_exchange_strong(extras, created.get()) ? created.release() : extras;
}

const String16& BBinder::getInterfaceDescriptor() const {
    static const String16 none;
    return none;
}

bool BBinder::isBinderAlive() const { return true; }

status_t BBinder::pingBinder() { return OK; }

status_t BBinder::dump(int, const Vector<String16>&) { return OK; }

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    data.setDataPosition(0);
    const status_t status = code == PING_TRANSACTION ? OK : onTransact(code, data, reply, flags);
    if (reply) reply->setDataPosition(0);
    return status;
}

status_t BBinder::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t) {
    switch (code) {
        case INTERFACE_TRANSACTION:
            return reply->writeString16(getInterfaceDescriptor());
        case DUMP_TRANSACTION: {
            const int fd = data.readFileDescriptor();
            if (fd < 0) return BAD_VALUE;
            Vector<String16> args;
            // No argument takes less than its length, whatever the count claims.
            for (int32_t count = data.readInt32(); count > 0 && data.dataAvail() >= sizeof(int32_t);
                 --count) {
                args.add(data.readString16());
            }
            return dump(fd, args);
        }
        default:
            return UNKNOWN_TRANSACTION;
    }
}

status_t BBinder::linkToDeath(const sp<DeathRecipient>&, void*, uint32_t) {
    return INVALID_OPERATION;
}

status_t BBinder::unlinkToDeath(const wp<DeathRecipient>&, void*, uint32_t, wp<DeathRecipient>*) {
    return INVALID_OPERATION;
}

void BBinder::attachObject(const void* objectID, void* object, void* cleanupCookie,
                           object_cleanup_func func) {
    Extras* extras = getOrCreateExtras();
    std::lock_guard lock(extras->lock);
    extras->objects.attach(objectID, object, cleanupCookie, func);
}

void* BBinder::findObject(const void* objectID) const {
    Extras* extras = mExtras.load();
    if (!extras) return nullptr;
    std::lock_guard lock(extras->lock);
    return extras->objects.find(objectID);
}

void BBinder::detachObject(const void* objectID) {
    Extras* extras = mExtras.load();
    if (!extras) return;
    std::lock_guard lock(extras->lock);
    extras->objects.detach(objectID);
}

BBinder* BBinder::localBinder() { return this; }

BpRefBase::BpRefBase(const sp<IBinder>& o) : mRemote(o.get()), mRefs(nullptr), mState(0) {
    if (mRemote) mRemote->incStrong(this);
}

BpRefBase::~BpRefBase() {
    if (mRemote) mRemote->decStrong(this);
}

// The remote binder is held from construction to destruction, so that references that come and go
// in between need nothing.
void BpRefBase::onFirstRef() {}

void BpRefBase::onLastStrongRef(const void*) {}

bool BpRefBase::onIncStrongAttempted(uint32_t, const void*) { return false; }

}  // namespace android
