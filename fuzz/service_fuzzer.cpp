// SPDX-License-Identifier: Apache-2.0
//
// An input is a session of four clients with the service: calls, parcels that no proxy sends, and
// the ends of clients.
#include <android-base/logging.h>
#include <android/kus/BpKUsbService.h>
#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <array>

#include "fuzz_world.h"
#include "service_test.h"
#include "usbdevice/UsbDevice.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

constexpr int kMostSteps = 16;
constexpr size_t kLongestText = 16;

constexpr char kRules[] =
    "<usbconfig mode='whitelist'><class>USB_CLASS_MASS_STORAGE</class>"
    "<class>AINPUT_SOURCE_KEYBOARD</class><vid vendorid='1155'><pid>22336</pid></vid></usbconfig>";

const int kNowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);

using Action = std::function<void()>;

class Session {
  public:
    explicit Session(const std::string& input);
    void run() {
        for (int i = 0; i < kMostSteps && input_.remaining_bytes() > 0; ++i) step();
    }
    void expectConsistentLists();

  private:
    void step();
    void write(Parcel* parcel);
    void expectRoundTrip();

    sp<FakeClient> client() { return input_.PickValueInArray(clients_); }
    std::string text() { return input_.ConsumeRandomLengthString(kLongestText); }
    /** One of those that the rules and the machine below know, or any. */
    int32_t number(std::initializer_list<const int32_t> known = {0, 1}) {
        return input_.ConsumeBool() ? input_.PickValueInArray(known)
                                    : input_.ConsumeIntegral<int32_t>();
    }
    std::vector<int32_t> classes();
    DeviceInfo device();

    FuzzedDataProvider input_;
    const sp<KUsbService> service_ = new KUsbService();
    const sp<IKUsbService> proxy_ = new BpKUsbService(service_);
    std::array<sp<FakeClient>, 4> clients_;
};

Session::Session(const std::string& input)
    : input_(reinterpret_cast<const uint8_t*>(input.data()), input.size()) {
    for (sp<FakeClient>& client : clients_) client = new FakeClient();
    // What clients do inside a callback, or when they are dead and the service does not know yet.
    FakeClient* const leaving = clients_[2].get();
    FakeClient* const dying = clients_[3].get();
    clients_[1]->whenCalled = [this] {
        std::vector<DeviceInfo> devices;
        service_->getDeviceList(&devices);
    };
    leaving->whenCalled = [this, leaving] { service_->unregisterKusCallback(leaving); };
    leaving->whenDead = leaving->whenCalled;
    dying->callStatus = DEAD_OBJECT;
    dying->whenCalled = [dying] { dying->die(); };
}

void Session::step() {
    std::vector<DeviceInfo> devices;
    bool allowed;
    input_.PickValueInArray<const Action>({
        [&] { proxy_->registerKusCallback(client()); },
        [&] { proxy_->unregisterKusCallback(client()); },
        [&] { proxy_->getDeviceList(&devices); },
        [&] { proxy_->updateDeviceList(device(), number()); },
        [&] { proxy_->isDeviceAllowed(device(), &allowed); },
        [&] { proxy_->resetUsbDevices(number()); },
        [&] {
            Vector<String16> arguments;
            if (input_.ConsumeBool()) arguments.add(String16("test"));
            service_->dump(kNowhere, arguments);
        },
        [&] { client()->die(); },
        [&] {
            configMode = input_.PickValueInArray({"default", "whitelist", "blacklist"});
        },
        [&] { expectRoundTrip(); },
        [&] {
            Parcel parcel, reply;
            if (input_.ConsumeBool()) parcel.writeInterfaceToken(IKUsbService::descriptor);
            write(&parcel);
            const uint32_t code = input_.ConsumeBool() ? IBinder::DUMP_TRANSACTION
                                                       : input_.ConsumeIntegralInRange(0, 7);
            service_->transact(code, parcel, &reply, 0);
        },
    })();
}

void Session::write(Parcel* parcel) {
    while (input_.ConsumeBool()) {
        input_.PickValueInArray<const Action>({
            [&] { parcel->writeInt32(number()); },
            [&] { parcel->writeInt32Vector(classes()); },
            [&] { parcel->writeUtf8AsUtf16(text()); },
            [&] { parcel->writeParcelable(device()); },
            [&] { parcel->writeStrongBinder(client()); },
            [&] { parcel->writeStrongBinder(nullptr); },
            [&] { parcel->writeFileDescriptor(kNowhere); },
            [&] {
                const std::string bytes = text();
                parcel->write(bytes.data(), bytes.size());
            },
            // Cut, or with another byte; what was an object is then bytes that look like one.
            [&] {
                std::vector bytes(parcel->data(), parcel->data() + parcel->dataSize());
                const auto at = input_.ConsumeIntegralInRange<size_t>(0, bytes.size());
                if (at == bytes.size() || input_.ConsumeBool()) {
                    bytes.resize(at);
                } else {
                    bytes[at] = input_.ConsumeIntegral<uint8_t>();
                }
                parcel->freeData();
                parcel->write(bytes.data(), bytes.size());
            },
        })();
    }
}

std::vector<int32_t> Session::classes() {
    std::vector<int32_t> classes(input_.ConsumeIntegralInRange(0, 3));
    for (int32_t& each : classes) each = number({2, 3, 8});
    return classes;
}

DeviceInfo Session::device() {
    DeviceInfo device;
    device.deviceId = number({3, 1002});
    device.deviceType = number();
    device.deviceClass = number({0, 257});
    device.interfaceClassList = classes();
    device.vendorId = number({1, 1155});
    device.productId = number({1, 22336});
    device.status = number();
    device.category = number();
    device.deviceName = text();
    device.reason = text();
    device.categoryPath = text();
    return device;
}

void Session::expectRoundTrip() {
    Parcel parcel, written;
    device().writeToParcel(&parcel);
    write(&parcel);
    DeviceInfo device, copy;
    parcel.setDataPosition(0);
    if (device.readFromParcel(&parcel) != OK) return;
    CHECK_EQ(device.writeToParcel(&written), OK);
    written.setDataPosition(0);
    CHECK_EQ(copy.readFromParcel(&written), OK);
    CHECK_EQ(written.dataAvail(), 0u);
    CHECK_EQ(kus::text(device), kus::text(copy));
}

// What a client reads is what the service holds.
void Session::expectConsistentLists() {
    std::vector<DeviceInfo> devices;
    CHECK(proxy_->getDeviceList(&devices).isOk());
    auto device = devices.begin();
    for (const DeviceInfoList* list : {&mInputDeviceInfoList, &mUsbDeviceInfoList}) {
        for (const auto& [id, record] : *list) {
            CHECK(device != devices.end());
            CHECK_EQ(kus::text(*device), kus::text(*record));
            CHECK_EQ(device->deviceId, id);
            CHECK_EQ(device->deviceType == 0, list == &mUsbDeviceInfoList);
            CHECK(!device->reason.empty());
            ++device;
        }
    }
    CHECK(device == devices.end());
}

void makeMachine() {
    writeFile(configFilePath, kRules);
    Util::createMapFromConfig(configFilePath);
    CHECK(xml_parse_status);
    // A dock without power: no reset waits.
    writeFile("/sys/class/power_supply/dc/online", "0\n");
    const std::string devices = std::string(kUsbDevicesPath) + "/";
    writeFile(devices + "usb1/devspec", "/soc/ssusb@a800000/dwc3@a800000\n");
    writeFile(devices + "1-1/devnum", "2\n");
    writeFile(devices + "1-1/idVendor", "17e9\n");
    writeFile(devices + "1-1:1.0/bInterfaceClass", "08\n");
    writeFile(devices + "1-1:1.0/authorized", "1\n");
    std::filesystem::create_directories(devices + "1-1:1.1/0003:17E9:0001.0001");
}

}  // namespace

void runInput(const std::string& input) {
    [[maybe_unused]] static const bool made = (makeMachine(), true);
    configMode = "whitelist";
    isUserDebugBuild = true;
    mUsbDeviceInfoList.clear();
    mInputDeviceInfoList.clear();
    UsbDevice::deviceid_map.clear();

    Session session(input);
    session.run();
    session.expectConsistentLists();
}

}  // namespace android::kus
