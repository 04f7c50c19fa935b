// SPDX-License-Identifier: Apache-2.0
//
// An input is a list of steps, one a line, that write a parcel and send it to a service:
//
//   T        the interface token         i N     an integer
//   s TEXT   a string                    v N...  a list of integers
//   [ and ]  around a parcelable         c N     the callback of client N; without N, none
//   f        a file descriptor           = BYTES as they are, to the next line with a command
//   - N      cuts it to N bytes          > N     sends it with the transaction code N
//   D        reads it as a DeviceInfo    m MODE  sets the mode of the rules in force
//   ! N      ends client N
#include <android-base/logging.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <android/kus/BpKUsbService.h>
#include <fcntl.h>

#include <array>
#include <charconv>
#include <filesystem>
#include <optional>
#include <string_view>
#include <tuple>

#include "fuzz_world.h"
#include "ku_service/KUsbService.h"
#include "usbdevice/UsbDevice.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

constexpr int kMostCalls = 32;

constexpr char kRules[] =
    "<usbconfig mode='whitelist'><class>USB_CLASS_MASS_STORAGE</class>"
    "<class>AINPUT_SOURCE_KEYBOARD</class><vid vendorid='1155'><pid>22336</pid></vid></usbconfig>";

/** A client in another process, as the service sees it. */
class Client : public BnKUsbServiceCallback {
  public:
    /** What it does inside a callback. */
    enum Habit { kNothing, kAsks, kUnregisters, kDies };

    Client(KUsbService* service, int habit) : service_(service), habit_(habit) {}

    binder::Status onDeviceAdded(const DeviceInfo&) override { return act(); }
    binder::Status onDeviceRemoved(const DeviceInfo&) override { return act(); }

    status_t linkToDeath(const sp<DeathRecipient>& recipient, void*, uint32_t) override {
        if (dead_) return DEAD_OBJECT;
        recipients_.push_back(recipient);
        return OK;
    }

    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void*, uint32_t,
                           wp<DeathRecipient>*) override {
        if (dead_) return DEAD_OBJECT;
        const auto it = std::find(recipients_.begin(), recipients_.end(), recipient);
        if (it == recipients_.end()) return NAME_NOT_FOUND;
        recipients_.erase(it);
        return OK;
    }

    void die() {
        dead_ = true;
        for (const auto& weak : std::exchange(recipients_, {})) {
            if (const sp<DeathRecipient> recipient = weak.promote()) recipient->binderDied(this);
        }
    }

  private:
    binder::Status act() {
        if (habit_ == kAsks) {
            std::vector<DeviceInfo> devices;
            service_->getDeviceList(&devices);
        } else if (habit_ == kUnregisters) {
            service_->unregisterKusCallback(this);
        } else if (habit_ == kDies) {
            die();
        }
        return dead_ ? binder::Status::fromStatusT(DEAD_OBJECT) : binder::Status::ok();
    }

    KUsbService* const service_;  // holds its clients
    const int habit_;
    bool dead_ = false;
    std::vector<wp<DeathRecipient>> recipients_;
};

auto fields(const DeviceInfo& d) {
    return std::tie(d.deviceName, d.deviceId, d.deviceClass, d.interfaceClassList, d.vendorId,
                    d.productId, d.status, d.deviceType, d.reason, d.category, d.categoryPath);
}

void expectRoundTrip(const Parcel& parcel) {
    DeviceInfo device, copy;
    const size_t position = parcel.dataPosition();
    parcel.setDataPosition(0);
    const status_t status = device.readFromParcel(&parcel);
    parcel.setDataPosition(position);
    if (status != OK) return;
    Parcel written;
    CHECK_EQ(device.writeToParcel(&written), OK);
    written.setDataPosition(0);
    CHECK_EQ(copy.readFromParcel(&written), OK);
    CHECK_EQ(written.dataAvail(), 0u);
    CHECK(fields(device) == fields(copy));
}

int32_t numberIn(std::string_view text) {
    int64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

std::vector<int32_t> numbersIn(std::string_view text) {
    std::vector<int32_t> numbers;
    while (!text.empty()) {
        numbers.push_back(numberIn(text));
        text.remove_prefix(std::min(text.find(' '), text.size() - 1) + 1);
    }
    return numbers;
}

class Session {
  public:
    void run(std::string_view steps);
    void expectConsistentLists();

  private:
    void step(char command, std::string_view argument);
    void send(uint32_t code);
    const sp<Client>& client(std::string_view number) {
        return clients_[static_cast<uint32_t>(numberIn(number)) % clients_.size()];
    }

    const sp<KUsbService> service_ = new KUsbService();
    const std::array<sp<Client>, 4> clients_ = {new Client(service_.get(), Client::kNothing),
                                                new Client(service_.get(), Client::kAsks),
                                                new Client(service_.get(), Client::kUnregisters),
                                                new Client(service_.get(), Client::kDies)};
    std::unique_ptr<Parcel> parcel_ = std::make_unique<Parcel>();
    std::optional<size_t> parcelableStart_;
    int calls_ = 0;
};

void Session::run(std::string_view steps) {
    while (!steps.empty()) {
        const std::string_view end = steps[0] == '=' ? "\n>" : "\n";
        const size_t length = std::min(steps.find(end), steps.size());
        step(steps[0], steps.substr(0, length).substr(std::min<size_t>(length, 2)));
        steps.remove_prefix(std::min(length + 1, steps.size()));
    }
}

void Session::step(char command, std::string_view argument) {
    switch (command) {
        case 'T':
            parcel_->writeInterfaceToken(IKUsbService::descriptor);
            break;
        case 'i':
            parcel_->writeInt32(numberIn(argument));
            break;
        case 's':
            parcel_->writeUtf8AsUtf16(std::string(argument));
            break;
        case 'v':
            parcel_->writeInt32Vector(numbersIn(argument));
            break;
        case '[':
            parcelableStart_ = parcel_->dataPosition();
            parcel_->writeInt32(0);
            break;
        case ']':
            if (const size_t end = parcel_->dataPosition(); parcelableStart_.value_or(end) < end) {
                parcel_->setDataPosition(*parcelableStart_);
                parcel_->writeInt32(end - *parcelableStart_);
                parcel_->setDataPosition(end);
            }
            break;
        case 'c':
            parcel_->writeStrongBinder(argument.empty() ? nullptr : client(argument));
            break;
        case 'f': {
            static const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
            parcel_->writeFileDescriptor(nowhere);
            break;
        }
        case '=':
            parcel_->write(argument.data(), argument.size());
            break;
        case '-': {
            const size_t size = std::min<size_t>(numberIn(argument), parcel_->dataSize());
            parcel_->setDataSize(size);
            parcel_->setDataPosition(size);
            parcelableStart_.reset();
            break;
        }
        case '>':
            send(numberIn(argument));
            break;
        case 'D':
            expectRoundTrip(*parcel_);
            break;
        case 'm':
            configMode = argument;
            break;
        case '!':
            client(argument)->die();
            break;
    }
}

void Session::send(uint32_t code) {
    if (++calls_ > kMostCalls) return;
    Parcel reply;
    service_->transact(code, *parcel_, &reply, 0);
    parcel_ = std::make_unique<Parcel>();
    parcelableStart_.reset();
}

// What a client reads is what the service holds.
void Session::expectConsistentLists() {
    std::vector<DeviceInfo> devices;
    CHECK(sp<IKUsbService>(new BpKUsbService(service_))->getDeviceList(&devices).isOk());
    auto device = devices.begin();
    for (const DeviceInfoList* list : {&mInputDeviceInfoList, &mUsbDeviceInfoList}) {
        for (const auto& [id, record] : *list) {
            CHECK(device != devices.end());
            CHECK(fields(*device) == fields(*record));
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
    std::filesystem::create_directories("/sys/class/power_supply/dc");
    writeFile("/sys/class/power_supply/dc/online", "0\n");
    const std::string devices = std::string(kUsbDevicesPath) + "/";
    for (const char* name : {"usb1", "1-1", "1-1:1.0", "1-1:1.1"}) {
        std::filesystem::create_directories(devices + name);
    }
    writeFile(devices + "usb1/devspec", "/soc/ssusb@a800000/dwc3@a800000\n");
    writeFile(devices + "1-1/devnum", "2\n");
    writeFile(devices + "1-1/idVendor", "17e9\n");
    writeFile(devices + "1-1:1.0/bInterfaceClass", "08\n");
    writeFile(devices + "1-1:1.0/authorized", "1\n");
    std::filesystem::create_directories(devices + "1-1:1.1/0003:17E9:0001.0001");
}

}  // namespace

void runInput(const std::string& steps) {
    static const bool made = (makeMachine(), true);
    (void)made;
    configMode = "whitelist";
    isUserDebugBuild = true;
    mUsbDeviceInfoList.clear();
    mInputDeviceInfoList.clear();
    UsbDevice::deviceid_map.clear();

    Session session;
    session.run(steps);
    session.expectConsistentLists();
}

}  // namespace android::kus
