// SPDX-License-Identifier: Apache-2.0

// The bytes of every call, worked out by hand from what a phone's libbinder and the code that its
// aidl generates write (API 34: Parcel.cpp, Status.cpp, Binder.cpp, Stability.cpp). All numbers are
// little-endian; every item starts at a multiple of four bytes.

#include <android/kus/BnKUsbService.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <android/kus/BpKUsbService.h>
#include <android/kus/BpKUsbServiceCallback.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace android::kus {
namespace {

using binder::Status;

// What every call of an interface starts with.
constexpr char kServiceToken[] = R"(
    00000080                           # strict mode policy: none, violations to be gathered
    ffffffff                           # work source: none
    54535953                           # 0x53595354, "SYST": a libbinder of the system's
    18000000                           # a string of 24 units, with a NUL and padding
    61006e00 64007200 6f006900 64002e00 6b007500 73002e00
    49004b00 55007300 62005300 65007200 76006900 63006500
    00000000                           # "android.kus.IKUsbService"
)";
constexpr char kCallbackToken[] = R"(
    00000080 ffffffff 54535953 20000000
    61006e00 64007200 6f006900 64002e00 6b007500 73002e00
    49004b00 55007300 62005300 65007200 76006900 63006500
    43006100 6c006c00 62006100 63006b00
    00000000                           # "android.kus.IKUsbServiceCallback"
)";

constexpr char kDevice[] = R"(
    01000000                           # there is one
    5c000000                           # 92 bytes, this number included
    04000000 6d00e900 6d006f00 00000000     # deviceName
    e9030000 ef000000                  # deviceId, deviceClass
    02000000 08000000 ff000000         # interfaceClassList
    51090000 66160000 01000000         # vendorId, productId, status
    00000000                           # deviceType
    02000000 6f006b00 00000000         # reason
    04000000                           # category
    07000000 73006400 63006100 72006400 3b000000    # categoryPath: its NUL fills the last word
)";

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

// An object of this process's own; the driver replaces the two addresses by a handle.
constexpr char kObjectStart[] = R"(
    852a6273                           # 0x73622a85, "sb*": a local object
    13010000                           # served at nice 19 at least; takes descriptors (0x100)
)";
constexpr char kObjectEnd[] = "0c000000    # stability: the system's\n";
constexpr char kNullObject[] = R"(
    852a6273 13000000 0000000000000000 0000000000000000
    00000000                           # stability: none
)";

constexpr char kOk[] = "00000000    # no exception\n";
constexpr char kTrue[] = "01000000\n";
constexpr char kTwo[] = "02000000\n";

std::string hex(const void* data, size_t size) {
    std::string digits;
    for (size_t i = 0; i < size; ++i) {
        char byte[3];
        snprintf(byte, sizeof(byte), "%02x", static_cast<const uint8_t*>(data)[i]);
        digits += byte;
    }
    return digits;
}

std::string hex(const Parcel& parcel) { return hex(parcel.data(), parcel.dataSize()); }

std::string address(const void* object) { return hex(&object, sizeof(object)) + " "; }

std::string object(BBinder* binder) {
    return kObjectStart + address(binder->getWeakRefs()) + address(binder) + kObjectEnd;
}

/** The digits of a text, without its comments. */
std::string digits(const std::string& text) {
    std::string result;
    bool comment = false;
    for (const char c : text) {
        comment = c != '\n' && (comment || c == '#');
        if (!comment && isxdigit(c)) result += c;
    }
    return result;
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
        EXPECT_EQ(wire_->request, digits(kServiceToken + request)) << "of call " << code;
        EXPECT_EQ(wire_->reply, digits(kOk + reply)) << "of call " << code;
    }

    const sp<Service> service_ = new Service;
    const sp<Callback> callback_ = new Callback;
    const sp<Wire> wire_ = new Wire(service_);
    const sp<IKUsbService> client_ = new BpKUsbService(wire_);
};

TEST_F(WireTest, CallsOfTheService) {
    const std::string client = object(callback_.get()), record = kDevice;
    std::vector<DeviceInfo> devices;
    bool allowed = false;
    expectPassed(client_->registerKusCallback(callback_), 1, client, "");
    expectPassed(client_->unregisterKusCallback(callback_), 2, client, "");
    expectPassed(client_->getDeviceList(&devices), 3, "", kTwo + record + record);
    expectPassed(client_->updateDeviceList(device(), 2), 4, record + kTwo, "");
    expectPassed(client_->isDeviceAllowed(device(), &allowed), 5, record, kTrue);
    expectPassed(client_->resetUsbDevices(-2), 6, "feffffff", "");
    EXPECT_EQ(devices.size(), 2u);
    EXPECT_TRUE(allowed);
}

TEST_F(WireTest, CallsOfTheCallback) {
    const sp<Wire> wire = new Wire(callback_);
    const sp<IKUsbServiceCallback> caller = new BpKUsbServiceCallback(wire);
    for (const uint32_t code : {1, 2}) {
        EXPECT_TRUE(
            (code == 1 ? caller->onDeviceAdded(device()) : caller->onDeviceRemoved(device()))
                .isOk());
        EXPECT_EQ(wire->code, code);
        EXPECT_EQ(wire->flags, IBinder::FLAG_ONEWAY);
        EXPECT_EQ(wire->request, digits(std::string(kCallbackToken) + kDevice));
        EXPECT_EQ(wire->reply, "");
    }
}

TEST_F(WireTest, Exceptions) {
    service_->result = Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "no");
    EXPECT_EQ(client_->resetUsbDevices(0).toString8(), service_->result.toString8());
    EXPECT_EQ(wire_->reply, digits(R"(
        fbffffff                           # -5
        02000000 6e006f00 00000000         # the message
        00000000                           # size of a stack trace: none)"));
    EXPECT_EQ(client_->registerKusCallback(nullptr).exceptionCode(), Status::EX_NULL_POINTER);
    EXPECT_EQ(wire_->request, digits(std::string(kServiceToken) + kNullObject));
    EXPECT_EQ(wire_->reply, digits("fcffffff 00000000 00000000 00000000"));
}

TEST_F(WireTest, NamesAndDescriptors) {
    Parcel none, reply, descriptor;
    EXPECT_EQ(callback_->transact(0x5f4e5446 /* _NTF */, none, &reply), OK);
    EXPECT_EQ(hex(reply), digits(kCallbackToken).substr(24)) << "without the three words before";

    descriptor.writeFileDescriptor(5);
    EXPECT_EQ(hex(descriptor), digits(R"(
        852a6466                           # 0x66642a85, "fd*"
        7f010000                           # no priority to ask for; takes descriptors
        0500000000000000 0000000000000000  # the descriptor; whether the parcel owns it)"));
}

}  // namespace
}  // namespace android::kus
