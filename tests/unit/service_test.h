// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android/kus/BnKUsbServiceCallback.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "ku_service/KUsbService.h"
#include "kus_test.h"

namespace android::kus {

/**
 * A client's callback as the service sees it when the client is another process: it can be linked
 * for death, and die.
 */
class FakeClient : public BnKUsbServiceCallback {
  public:
    binder::Status onDeviceAdded(const DeviceInfo& device) override;
    binder::Status onDeviceRemoved(const DeviceInfo& device) override;

    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie,
                         uint32_t flags) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie, uint32_t flags,
                           wp<DeathRecipient>* outRecipient) override;

    /** Tells every linked recipient. From now on nothing can be unlinked. */
    void die();

    size_t links();

    /** "added NAME" and "removed NAME", oldest first. */
    std::vector<std::string> calls();
    /** The whole records that came with them. */
    std::vector<std::string> devices();

    /** What the next links and unlinks return. */
    status_t linkStatus = OK;
    status_t unlinkStatus = OK;

    /** What its calls return. */
    status_t callStatus = DEAD_OBJECT;

    /** Run inside every call, where a client may call the service. */
    std::function<void()> whenCalled = [] {};

  private:
    binder::Status record(const char* event, const DeviceInfo& device);

    std::mutex lock_;
    bool dead_ = false;
    std::vector<wp<DeathRecipient>> recipients_;
    std::vector<std::string> calls_;
    std::vector<std::string> devices_;
};

/** A service that no one has registered, on a machine without USB devices. */
class ServiceTest : public KusTest {
  protected:
    ServiceTest();

    bool isAllowed(const DeviceInfo& device);
    void remove(const DeviceInfo& device);
    std::vector<DeviceInfo> deviceList();

    const sp<KUsbService> service_ = new KUsbService();
};

/** A USB device (`deviceType` 0). */
DeviceInfo usbDevice(int32_t id, std::vector<int32_t> interfaceClasses, int32_t vendor = 1,
                     int32_t product = 1);

/** A device of the input subsystem (`deviceType` 1). */
DeviceInfo inputDevice(int32_t id, int32_t sources, int32_t vendor = 1, int32_t product = 1);

/** Every field of a record, in order. */
std::string text(const DeviceInfo& device);

/** A pointer as the log prints it. */
std::string address(const void* pointer);

}  // namespace android::kus
