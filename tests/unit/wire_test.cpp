// SPDX-License-Identifier: Apache-2.0

// The bytes of every call, as data/parcels.txt tells them.

#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <android/kus/BnKUsbService.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <android/kus/BpKUsbService.h>
#include <android/kus/BpKUsbServiceCallback.h>

#include <regex>

#include "kus_test.h"

namespace android::kus {
namespace {

using binder::Status;

DeviceInfo device() {
    DeviceInfo device;
    device.deviceName = "m\u00e9mo";
    device.deviceId = 1001;
    device.deviceClass = 0xef;
    device.interfaceClassList = {8, 255};
    device.vendorId = 0x0951;
    device.productId = 0x1666;
    device.status = 1;
    device.reason = "ok";
    device.category = 4;
    device.categoryPath = "sdcard;";
    return device;
}

std::string hex(const void* data, size_t size) {
    std::string digits;
    for (size_t i = 0; i < size; ++i) {
        base::StringAppendF(&digits, "%02x", static_cast<const uint8_t*>(data)[i]);
    }
    return digits;
}

std::string hex(const Parcel& parcel) { return hex(parcel.data(), parcel.dataSize()); }

/** The bytes of parts that data/parcels.txt names, one after the other, in hexadecimal. */
std::string parcel(const Texts& parts) {
    static const std::string text =
        std::regex_replace(readFile(TEST_DATA "/parcels.txt"), std::regex("#.*"), "");
    std::string bytes;
    for (const std::string& part : parts) {
        const std::string title = "[" + part + "]";
        const size_t start = text.find(title) + title.size();
        bytes += text.substr(start, text.find('[', start) - start);
    }
    return std::regex_replace(bytes, std::regex("\\s"), "");
}

std::string localObject(BBinder* binder) {
    const void* const addresses[] = {binder->getWeakRefs(), binder};
    return base::StringReplace(parcel({"local object"}), "OBJECT",
                               hex(addresses, sizeof(addresses)), false);
}

/** Stands between a proxy and a stub, as the driver does, and keeps what passes. */
class Wire : public BBinder {
  public:
    explicit Wire(const sp<IBinder>& callee) : callee_(callee) {}

    uint32_t code, flags;
    std::string request, reply;

  private:
    status_t onTransact(uint32_t calledCode, const Parcel& data, Parcel* answer,
                        uint32_t calledFlags) override {
        code = calledCode;
        flags = calledFlags;
        request = hex(data);
        const status_t status = callee_->transact(code, data, answer, flags);
        reply = hex(*answer);
        return status;
    }

    const sp<IBinder> callee_;
};

class Service : public BnKUsbService {
  public:
    using Client = sp<IKUsbServiceCallback>;
    Status registerKusCallback(const Client&) override { return result; }
    Status unregisterKusCallback(const Client&) override { return result; }
    Status getDeviceList(std::vector<DeviceInfo>* devices) override {
        *devices = {device(), device()};
        return result;
    }
    Status updateDeviceList(const DeviceInfo&, int32_t) override { return result; }
    Status isDeviceAllowed(const DeviceInfo&, bool* allowed) override {
        *allowed = true;
        return result;
    }
    Status resetUsbDevices(int32_t) override { return result; }

    Status result;
};

class Callback : public BnKUsbServiceCallback {
    Status onDeviceAdded(const DeviceInfo&) override { return Status::ok(); }
    Status onDeviceRemoved(const DeviceInfo&) override { return Status::ok(); }
};

// That each side reads what the other one writes is tested over the driver.
class WireTest : public testing::Test {
  protected:
    void expectPassed(const Status& status, uint32_t code, const std::string& request,
                      const std::string& reply) {
        EXPECT_TRUE(status.isOk());
        EXPECT_EQ(wire_->code, code);
        EXPECT_EQ(wire_->flags, 0u);
        EXPECT_EQ(wire_->request, parcel({"IKUsbService"}) + request) << "of call " << code;
        EXPECT_EQ(wire_->reply, parcel({"no exception"}) + reply) << "of call " << code;
    }

    const sp<Service> service_ = new Service;
    const sp<Callback> callback_ = new Callback;
    const sp<Wire> wire_ = new Wire(service_);
    const sp<IKUsbService> client_ = new BpKUsbService(wire_);
};

TEST_F(WireTest, CallsOfTheService) {
    const std::string client = localObject(callback_.get());
    std::vector<DeviceInfo> devices;
    bool allowed = false;
    expectPassed(client_->registerKusCallback(callback_), 1, client, "");
    expectPassed(client_->unregisterKusCallback(callback_), 2, client, "");
    expectPassed(client_->getDeviceList(&devices), 3, "", parcel({"2", "device", "device"}));
    expectPassed(client_->updateDeviceList(device(), 2), 4, parcel({"device", "2"}), "");
    expectPassed(client_->isDeviceAllowed(device(), &allowed), 5, parcel({"device"}),
                 parcel({"1"}));
    expectPassed(client_->resetUsbDevices(-2), 6, parcel({"-2"}), "");
    EXPECT_EQ(devices.size(), 2u);
    EXPECT_TRUE(allowed);
}

TEST_F(WireTest, CallsOfTheCallback) {
    const sp<Wire> wire = new Wire(callback_);
    const sp<IKUsbServiceCallback> caller = new BpKUsbServiceCallback(wire);
    for (const uint32_t code : {1, 2}) {
        const Status status =
            code == 1 ? caller->onDeviceAdded(device()) : caller->onDeviceRemoved(device());
        EXPECT_TRUE(status.isOk());
        EXPECT_EQ(wire->code, code);
        EXPECT_EQ(wire->flags, IBinder::FLAG_ONEWAY);
        EXPECT_EQ(wire->request, parcel({"IKUsbServiceCallback", "device"}));
        EXPECT_EQ(wire->reply, "");
    }
}

TEST_F(WireTest, Exceptions) {
    service_->result = Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "no");
    EXPECT_EQ(client_->resetUsbDevices(0).toString8(), service_->result.toString8());
    EXPECT_EQ(wire_->reply, parcel({"illegal state"}));
    EXPECT_EQ(client_->registerKusCallback(nullptr).exceptionCode(), Status::EX_NULL_POINTER);
    EXPECT_EQ(wire_->request, parcel({"IKUsbService", "null object"}));
    EXPECT_EQ(wire_->reply, parcel({"null pointer"}));
}

TEST_F(WireTest, NamesAndDescriptors) {
    Parcel none, reply, descriptor;
    EXPECT_EQ(callback_->transact(0x5f4e5446 /* _NTF */, none, &reply), OK);
    EXPECT_EQ(hex(reply), parcel({"IKUsbServiceCallback"}).substr(24)) << "without three words";
    descriptor.writeFileDescriptor(5);
    EXPECT_EQ(hex(descriptor), parcel({"descriptor 5"}));
}

}  // namespace
}  // namespace android::kus
