// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android/kus/BnKUsbService.h>
#include <android/kus/DeviceInfo.h>
#include <android/kus/IKUsbServiceCallback.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace android::kus {

/** Device id to record. */
using DeviceInfoList = std::map<int32_t, std::unique_ptr<DeviceInfo>>;

/** Guards both device lists. */
extern std::mutex deviceListsLock;

/** Decided devices of `deviceType` 0, and of any other; the first record of an id stays. */
extern DeviceInfoList mUsbDeviceInfoList;
extern DeviceInfoList mInputDeviceInfoList;

/** Appends copies of all records, input devices first. The caller holds deviceListsLock. */
void appendRecords(std::vector<DeviceInfo>* devices);

/** Turns on the listings of the callback registry in the log. Set once, by Register. */
extern bool isUserDebugBuild;

/**
 * The rules of this start were refused, and are not the backup's: a crash came before they were
 * read. Set once, by Register.
 */
extern bool rulesAreLeftByCrash;

/** While this property is 1, every device is allowed and nothing is recorded or removed. */
inline constexpr char kAutomationProperty[] = "ro.config.device.kus_automation";

/**
 * The service behind IKUsbService. Every operation returns the OK status; it may be called from
 * several binder threads at once, and from inside the callbacks that it makes.
 */
class KUsbService : public BnKUsbService {
  public:
    /** Forgets a client's registration when its process dies. */
    class CallbackDeathRecipient : public IBinder::DeathRecipient {
      public:
        /** Aborts when either is null. */
        CallbackDeathRecipient(const sp<IKUsbServiceCallback>& callback, KUsbService* owner);

        void binderDied(const wp<IBinder>& who) override;

      private:
        friend class KUsbService;

        sp<IKUsbServiceCallback> callback_;
        KUsbService* owner_;
        /** Unregistered too late to stop its death notice. Guarded by owner_->callbacksLock_. */
        bool unregistered_ = false;
    };

    /**
     * Loads the rules, publishes the service and starts the observer of the rules file. Called
     * once, before the binder threads start. Aborts when the service manager refuses the service.
     */
    static void Register();

    /** Starts the thread that follows rewrites of the rules file. */
    static void registerFileObserverViaThread();
    /** The thread's entry. It returns, and nothing restarts it, when inotify cannot be read. */
    static void* registerFileObserver(void*);

    binder::Status registerKusCallback(const sp<IKUsbServiceCallback>& callback) override;
    binder::Status unregisterKusCallback(const sp<IKUsbServiceCallback>& callback) override;
    binder::Status getDeviceList(std::vector<DeviceInfo>* devices) override;
    binder::Status updateDeviceList(const DeviceInfo& device, int32_t updateStatus) override;
    binder::Status isDeviceAllowed(const DeviceInfo& device, bool* allowed) override;
    binder::Status resetUsbDevices(int32_t waitMs) override;

    /** Prints the recorded devices, or with the argument "test" the USB topology. */
    status_t dump(int fd, const Vector<String16>& args) override;

  private:
    static void readFileChangeEvent();

    using Callbacks = std::multimap<IBinder*, sp<CallbackDeathRecipient>>;

    /**
     * Removes one registration; false when its death link could not be removed.
     * The caller holds callbacksLock_.
     */
    bool UnregisterInternal(Callbacks::iterator it);

    /** The registered clients in the registry's order, to be called outside the lock. */
    std::vector<sp<IKUsbServiceCallback>> registeredCallbacks();

    /** Records a decision and, for a USB device, tells every client. */
    void addDeviceList(DeviceInfo device, bool status, std::string reason);

    /** The text of dump, written to `text`, for the reader at `fd`. Write errors are ignored. */
    void print(int fd, int text, const Vector<String16>& args);
    void dumpPrint(int fd, DeviceInfo device);

    std::mutex callbacksLock_;
    /**
     * One entry a registration, so a callback registered twice has two. The key only identifies
     * the client's binder. Guarded by callbacksLock_.
     */
    Callbacks callbacks_;
};

}  // namespace android::kus
