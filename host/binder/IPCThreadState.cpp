// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <linux/android/binder.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace android {

namespace {

// Commands that one read takes from the driver, in bytes: a dozen of the longer ones.
constexpr size_t kReadBufferSize = 256;

// What a transaction on handle 0 reaches in the context manager.
sp<BBinder>& contextObject() {
    static auto& object = *new sp<BBinder>;
    return object;
}

status_t deliver(const binder_transaction_data& tr, const Parcel& data, Parcel* reply) {
    const uint32_t flags = tr.flags & TF_ONE_WAY;
    if (tr.target.ptr == 0) return contextObject()->transact(tr.code, data, reply, flags);

    // A transaction carries no more than a weak reference to its target.
    auto* refs = reinterpret_cast<RefBase::weakref_type*>(tr.target.ptr);
    if (!refs->attemptIncStrong(&tr)) return UNKNOWN_TRANSACTION;
    auto* target = reinterpret_cast<BBinder*>(tr.cookie);
    const status_t status = target->transact(tr.code, data, reply, flags);
    target->decStrong(&tr);
    return status;
}

}  // namespace

IPCThreadState* IPCThreadState::self() {
    static const pthread_key_t key = [] {
        pthread_key_t created;
        CHECK_EQ(pthread_key_create(&created, threadDestructor), 0);
        return created;
    }();
    auto* state = static_cast<IPCThreadState*>(pthread_getspecific(key));
    if (!state) {
        state = new IPCThreadState;
        pthread_setspecific(key, state);
    }
    return state;
}

IPCThreadState::IPCThreadState()
    : mProcess(ProcessState::self()),
      mServingStackPointer(nullptr),
      mCallingPid(getpid()),
      mCallingUid(getuid()) {
    mIn.setDataCapacity(kReadBufferSize);
}

IPCThreadState::~IPCThreadState() = default;

void IPCThreadState::threadDestructor(void* st) {
    auto* self = static_cast<IPCThreadState*>(st);
    self->flushCommands();
    ioctl(self->mProcess->mDriverFD, BINDER_THREAD_EXIT, 0);
    delete self;
}

pid_t IPCThreadState::getCallingPid() const { return mCallingPid; }

uid_t IPCThreadState::getCallingUid() const { return mCallingUid; }

void IPCThreadState::setTheContextObject(sp<BBinder> obj) { contextObject() = obj; }

// A call out of this process.

status_t IPCThreadState::transact(int32_t handle, uint32_t code, const Parcel& data, Parcel* reply,
                                  uint32_t flags) {
    status_t status = data.errorCheck();
    if (status != OK) return status;

    writeTransactionData(BC_TRANSACTION, flags | TF_ACCEPT_FDS, handle, code, data, nullptr);
    if (flags & TF_ONE_WAY) {
        status = waitForResponse(nullptr);
    } else {
        Parcel ignored;
        status = waitForResponse(reply ? reply : &ignored);
    }
    // A thread that is no pool thread may have no other occasion: until the driver has the answers
    // to what it asked about a local object, it keeps that object.
    if (!mServingStackPointer) {
        processPendingDerefs();
        flushCommands();
    }
    return status;
}

// With a status buffer, the data is that status instead of the parcel. Both must outlive the
// command.
status_t IPCThreadState::writeTransactionData(int32_t cmd, uint32_t binderFlags, int32_t handle,
                                              uint32_t code, const Parcel& data,
                                              status_t* statusBuffer) {
    binder_transaction_data tr{};
    tr.target.handle = static_cast<uint32_t>(handle);
    tr.code = code;
    tr.flags = binderFlags;
    if (statusBuffer) {
        tr.flags |= TF_STATUS_CODE;
        tr.data_size = sizeof(*statusBuffer);
        tr.data.ptr.buffer = reinterpret_cast<uintptr_t>(statusBuffer);
    } else {
        tr.data_size = data.ipcDataSize();
        tr.data.ptr.buffer = data.ipcData();
        tr.offsets_size = data.ipcObjectsCount() * sizeof(binder_size_t);
        tr.data.ptr.offsets = data.ipcObjects();
    }
    mOut.writeInt32(cmd);
    return mOut.write(&tr, sizeof(tr));
}

// Serves the driver until the response to the last transaction is there: the callee may call back
// into this thread meanwhile. Without a reply parcel the response is that the driver has taken the
// transaction over.
status_t IPCThreadState::waitForResponse(Parcel* reply, status_t*) {
    while (true) {
        const status_t status = talkWithDriver();
        if (status != OK) return status;
        if (mIn.dataAvail() == 0) continue;

        const int32_t cmd = mIn.readInt32();
        switch (static_cast<uint32_t>(cmd)) {
            case BR_TRANSACTION_COMPLETE:
                if (!reply) return OK;
                break;
            case BR_DEAD_REPLY:
                return DEAD_OBJECT;
            case BR_FAILED_REPLY:
            case BR_FROZEN_REPLY:
                return FAILED_TRANSACTION;
            case BR_REPLY: {
                binder_transaction_data tr;
                mIn.read(&tr, sizeof(tr));
                reply->ipcSetDataReference(
                    reinterpret_cast<const uint8_t*>(tr.data.ptr.buffer), tr.data_size,
                    reinterpret_cast<const binder_size_t*>(tr.data.ptr.offsets),
                    tr.offsets_size / sizeof(binder_size_t), freeBuffer, nullptr);
                if (!(tr.flags & TF_STATUS_CODE)) return OK;
                const status_t remoteStatus = reply->readInt32();
                reply->freeData();
                return remoteStatus;
            }
            default:
                executeCommand(cmd);
        }
    }
}

status_t IPCThreadState::sendReply(const Parcel& reply, uint32_t flags) {
    status_t status = reply.errorCheck();
    writeTransactionData(BC_REPLY, flags, -1, 0, reply, status == OK ? nullptr : &status);
    return waitForResponse(nullptr);
}

// The dialogue with the driver: commands are collected in mOut, and what it answers in mIn is
// worked off before more is read.

status_t IPCThreadState::talkWithDriver(bool doReceive) {
    const bool unread = mIn.dataPosition() < mIn.dataSize();
    if (doReceive && unread) return OK;

    binder_write_read bwr{};
    bwr.write_size = mOut.dataSize();
    bwr.write_buffer = reinterpret_cast<uintptr_t>(mOut.data());
    if (doReceive) {
        bwr.read_size = mIn.dataCapacity();
        bwr.read_buffer = reinterpret_cast<uintptr_t>(mIn.data());
    }
    while (ioctl(mProcess->mDriverFD, BINDER_WRITE_READ, &bwr) < 0) {
        if (errno == EINTR) continue;
        if (bwr.write_consumed == bwr.write_size) return -errno;
        // The driver stops at a command that it refuses, and would again: it is left out.
        uint32_t refused;
        memcpy(&refused, mOut.data() + bwr.write_consumed, sizeof(refused));
        PLOG(ERROR) << "the binder driver refuses command 0x" << std::hex << refused;
        bwr.write_consumed = std::min<binder_size_t>(
            bwr.write_consumed + sizeof(refused) + _IOC_SIZE(refused), bwr.write_size);
    }

    // After a transaction that failed, the driver takes no command before the failure is read.
    const size_t left = mOut.dataSize() - bwr.write_consumed;
    if (left > 0) memmove(mOut.mData, mOut.mData + bwr.write_consumed, left);
    mOut.setDataSize(left);
    mOut.setDataPosition(left);
    if (doReceive) {
        mIn.setDataSize(bwr.read_consumed);
        mIn.setDataPosition(0);
    }
    return OK;
}

void IPCThreadState::flushCommands() {
    if (mOut.dataSize() > 0) talkWithDriver(false);
}

status_t IPCThreadState::getAndExecuteCommand() {
    const status_t status = talkWithDriver();
    if (status != OK || mIn.dataAvail() == 0) return status;
    return executeCommand(mIn.readInt32());
}

// `isMain` tells a thread that joins of itself from one that the driver asked for.
void IPCThreadState::joinThreadPool(bool isMain) {
    mOut.writeUint32(isMain ? BC_ENTER_LOOPER : BC_REGISTER_LOOPER);
    while (true) {
        processPendingDerefs();
        const status_t status = getAndExecuteCommand();
        if (status != OK) LOG(FATAL) << "the binder driver fails: " << strerror(-status);
    }
}

// For a thread that waits for other things too: it serves the driver when the descriptor is
// readable.

status_t IPCThreadState::setupPolling(int* fd) {
    mOut.writeUint32(BC_ENTER_LOOPER);
    flushCommands();
    *fd = mProcess->mDriverFD;
    return OK;
}

status_t IPCThreadState::handlePolledCommands() {
    status_t status;
    do {
        status = getAndExecuteCommand();
    } while (status == OK && mIn.dataAvail() > 0);
    processPendingDerefs();
    flushCommands();
    return status;
}

status_t IPCThreadState::executeCommand(int32_t command) {
    const auto cmd = static_cast<uint32_t>(command);
    switch (cmd) {
        case BR_NOOP:
            return OK;

        case BR_SPAWN_LOOPER:
            mProcess->spawnPooledThread(false);
            return OK;

        case BR_INCREFS:
        case BR_ACQUIRE: {
            const uintptr_t refs = mIn.readPointer();
            const uintptr_t object = mIn.readPointer();
            if (cmd == BR_INCREFS) {
                reinterpret_cast<RefBase::weakref_type*>(refs)->incWeak(mProcess.get());
            } else {
                reinterpret_cast<BBinder*>(object)->incStrong(mProcess.get());
            }
            mOut.writeUint32(cmd == BR_INCREFS ? BC_INCREFS_DONE : BC_ACQUIRE_DONE);
            mOut.writePointer(refs);
            return mOut.writePointer(object);
        }

        case BR_RELEASE:
            mIn.readPointer();
            mPendingStrongDerefs.push(reinterpret_cast<BBinder*>(mIn.readPointer()));
            return OK;

        case BR_DECREFS:
            mPendingWeakDerefs.push(reinterpret_cast<RefBase::weakref_type*>(mIn.readPointer()));
            mIn.readPointer();
            return OK;

        case BR_TRANSACTION: {
            binder_transaction_data tr;
            mIn.read(&tr, sizeof(tr));
            const auto callerPid = std::exchange(mCallingPid, tr.sender_pid);
            const auto callerUid = std::exchange(mCallingUid, tr.sender_euid);
            const void* outerCall = std::exchange(mServingStackPointer, __builtin_frame_address(0));
            {
                Parcel data;
                data.ipcSetDataReference(
                    reinterpret_cast<const uint8_t*>(tr.data.ptr.buffer), tr.data_size,
                    reinterpret_cast<const binder_size_t*>(tr.data.ptr.offsets),
                    tr.offsets_size / sizeof(binder_size_t), freeBuffer, nullptr);
                Parcel reply;
                const status_t status = deliver(tr, data, &reply);
                // Before the reply: the caller's next transaction may need the room. Not before the
                // call has ended: with this the driver lets the next one-way call to the same
                // object go, to whichever thread is free.
                data.freeData();
                if (!(tr.flags & TF_ONE_WAY)) {
                    if (status != OK) reply.setError(status);
                    sendReply(reply, 0);
                } else if (status != OK) {
                    // Nobody else hears of it.
                    LOG(WARNING) << "a one-way call with code " << tr.code << " ended with status "
                                 << status;
                }
            }
            mServingStackPointer = outerCall;
            mCallingPid = callerPid;
            mCallingUid = callerUid;
            return OK;
        }

        case BR_DEAD_BINDER: {
            const uintptr_t cookie = mIn.readPointer();
            auto* refs = reinterpret_cast<RefBase::weakref_type*>(cookie);
            if (refs->attemptIncStrong(this)) {
                auto* proxy = dynamic_cast<BpBinder*>(refs->refBase());
                proxy->sendObituary();
                proxy->decStrong(this);
            }
            mOut.writeUint32(BC_DEAD_BINDER_DONE);
            return mOut.writePointer(cookie);
        }

        case BR_CLEAR_DEATH_NOTIFICATION_DONE:
            reinterpret_cast<RefBase::weakref_type*>(mIn.readPointer())->decWeak(mProcess.get());
            return OK;

        default:
            LOG(FATAL) << "unknown command " << std::hex << command << " from the binder driver";
            return UNKNOWN_ERROR;
    }
}

// References that the driver gave back. They wait until every command that was read with them has
// been executed, for those may name the same objects, and a destructor may make calls of its own.
void IPCThreadState::processPendingDerefs() {
    if (mIn.dataPosition() < mIn.dataSize()) return;
    while (!mPendingStrongDerefs.empty()) {
        BBinder* object = mPendingStrongDerefs.top();
        mPendingStrongDerefs.pop();
        object->decStrong(mProcess.get());
    }
    while (!mPendingWeakDerefs.empty()) {
        RefBase::weakref_type* refs = mPendingWeakDerefs.top();
        mPendingWeakDerefs.pop();
        refs->decWeak(mProcess.get());
    }
}

void IPCThreadState::freeBuffer(Parcel* parcel, const uint8_t* data, size_t, const binder_size_t*,
                                size_t, void*) {
    parcel->closeFileDescriptors();
    IPCThreadState* thread = self();
    thread->mOut.writeUint32(BC_FREE_BUFFER);
    thread->mOut.writePointer(reinterpret_cast<uintptr_t>(data));
    // While a call is being served its reply follows soon, and takes this along.
    if (!thread->mServingStackPointer) thread->flushCommands();
}

// What a proxy holds of its handle.

void IPCThreadState::incStrongHandle(int32_t handle, BpBinder*) {
    mOut.writeUint32(BC_ACQUIRE);
    mOut.writeInt32(handle);
    // At once: the proxy may be released by another thread before this one's next command.
    flushCommands();
}

void IPCThreadState::decStrongHandle(int32_t handle) {
    mOut.writeUint32(BC_RELEASE);
    mOut.writeInt32(handle);
}

// A death notice is known to the driver by the proxy's weak references, which may outlive the proxy
// itself: they are held until the driver has confirmed that it will not name them again.

status_t IPCThreadState::requestDeathNotification(int32_t handle, BpBinder* proxy) {
    RefBase::weakref_type* cookie = proxy->createWeak(mProcess.get());
    mOut.writeUint32(BC_REQUEST_DEATH_NOTIFICATION);
    mOut.writeInt32(handle);
    return mOut.writePointer(reinterpret_cast<uintptr_t>(cookie));
}

status_t IPCThreadState::clearDeathNotification(int32_t handle, BpBinder* proxy) {
    mOut.writeUint32(BC_CLEAR_DEATH_NOTIFICATION);
    mOut.writeInt32(handle);
    return mOut.writePointer(reinterpret_cast<uintptr_t>(proxy->getWeakRefs()));
}

}  // namespace android
