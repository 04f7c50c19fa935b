// SPDX-License-Identifier: Apache-2.0

// The platform's part towards the daemon: asks it about every USB and input device that is
// attached, tells it what is removed, and keeps refused input devices silent.
#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <android/kus/IKUsbService.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <inttypes.h>
#include <poll.h>
#include <stdio.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <map>
#include <string>

#include "role_switch.h"
#include "sysfs_devices.h"
#include "uevent_socket.h"

using android::IBinder;
using android::IInterface;
using android::sp;
using android::String16;
using android::wp;
using android::base::StringPrintf;
using android::kus::DeviceInfo;
using android::kus::IKUsbService;

namespace emulator {

namespace {

constexpr char kDecisionsPath[] = "/data/log/decisions";
// Tells `services` that what is written to the controllers' role files from now on has its effect.
constexpr char kReadyPath[] = "/run/services/usb_host_stack.ready";
constexpr int kServicePollMs = 100;

class DeathNotice : public IBinder::DeathRecipient {
  public:
    explicit DeathNotice(int eventFd) : eventFd_(eventFd) {}
    void binderDied(const wp<IBinder>&) override { eventfd_write(eventFd_, 1); }

  private:
    const int eventFd_;
};

class UsbHostStack {
  public:
    UsbHostStack()
        : decisions_(fopen(kDecisionsPath, "ae")),
          death_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
          deathNotice_(new DeathNotice(death_)) {
        if (decisions_ == nullptr) PLOG(FATAL) << "cannot open " << kDecisionsPath;
        setlinebuf(decisions_);
    }

    [[noreturn]] void run() {
        findDevices();
        while (true) {
            if (service_ == nullptr) connect();
            // Events go first: they may take away what is still to be asked about.
            if (!handleEvents(timeToNextStep())) askAboutOne();
        }
    }

  private:
    struct Device {
        DeviceInfo info;
        bool decided = false;
    };

    // Devices that were attached or removed without an event that was seen.
    void findDevices() {
        for (auto it = devices_.begin(); it != devices_.end();) {
            const auto device = it++;
            const std::string name = device->first;
            const auto info = read(name);
            if (!info || info->deviceId != device->second.info.deviceId) remove(name);
        }
        for (const std::string& name : usbDeviceNames()) add(name);
        for (const std::string& name : inputDeviceNames()) add(name);
    }

    static std::optional<DeviceInfo> read(const std::string& name) {
        return isdigit(name[0]) ? readUsbDevice(name) : readInputDevice(name);
    }

    void add(const std::string& name) {
        if (devices_.count(name) != 0) return;
        if (const auto info = read(name)) devices_[name] = {*info};
    }

    void remove(const std::string& name) {
        const auto device = devices_.find(name);
        if (device == devices_.end()) return;
        if (service_ != nullptr) service_->updateDeviceList(device->second.info, 0);
        record(name, device->second.info, "removed", "");
        devices_.erase(device);
    }

    // For poll(): -1 is no limit.
    int timeToNextStep() {
        if (service_ == nullptr) return kServicePollMs;
        return findUndecided() == devices_.end() ? -1 : 0;
    }

    // False when there was none within the time.
    bool handleEvents(int timeoutMs) {
        std::array<pollfd, 2> events = {{{uevents_.fd(), POLLIN, 0}, {death_, POLLIN, 0}}};
        const int count = TEMP_FAILURE_RETRY(poll(events.data(), events.size(), timeoutMs));
        if (events[0].revents != 0) handleUevent();
        if (events[1].revents != 0) handleDeath();
        return count > 0;
    }

    void handleUevent() {
        const auto event = uevents_.receive();
        if (!event) {
            findDevices();
            return;
        }
        const bool usb = event->subsystem == "usb" && event->devtype == "usb_device";
        const bool input =
            event->subsystem == "input" && android::base::StartsWith(event->name, "input");
        // A USB device is bound when it is configured and its interfaces have their drivers.
        if ((usb && event->action == "bind") || (input && event->action == "add")) add(event->name);
        if ((usb || input) && event->action == "remove") remove(event->name);
    }

    void connect() {
        const sp<IBinder> binder =
            android::defaultServiceManager()->checkService(String16("kusbservice"));
        if (binder == nullptr || binder->linkToDeath(deathNotice_) != android::OK) return;
        service_ = android::interface_cast<IKUsbService>(binder);
        LOG(INFO) << "connected to kusbservice";
    }

    void handleDeath() {
        eventfd_t count;
        eventfd_read(death_, &count);
        // The notice may be about a service that was found dead, and replaced, before it came.
        if (service_ != nullptr && !IInterface::asBinder(service_)->isBinderAlive()) disconnect();
    }

    // The next service knows nothing of what is attached: it will be asked about all of it.
    void disconnect() {
        LOG(INFO) << "lost kusbservice";
        service_ = nullptr;
        for (auto& [name, device] : devices_) device.decided = false;
    }

    std::map<std::string, Device>::iterator findUndecided() {
        return std::find_if(devices_.begin(), devices_.end(),
                            [](const auto& entry) { return !entry.second.decided; });
    }

    void askAboutOne() {
        const auto found = findUndecided();
        if (service_ == nullptr || found == devices_.end()) return;
        auto& [name, device] = *found;
        bool allowed;
        if (!service_->isDeviceAllowed(device.info, &allowed).isOk()) {
            disconnect();
            return;
        }
        device.decided = true;
        if (device.info.deviceType == 1) setInhibited(name, !allowed);
        record(name, device.info, allowed ? "allowed" : "refused", reason(device.info));
    }

    // What the service has on record as its reason: nothing for a device that it did not record.
    std::string reason(const DeviceInfo& info) {
        std::vector<DeviceInfo> known;
        service_->getDeviceList(&known);
        for (const DeviceInfo& device : known) {
            if (device.deviceId == info.deviceId && device.deviceType == info.deviceType) {
                return device.reason;
            }
        }
        return "";
    }

    // One line with tabs: seconds since boot, usb or input, sysfs name, display name,
    // vendor:product, interface classes or input sources, outcome, reason.
    void record(const std::string& name, const DeviceInfo& info, const char* outcome,
                const std::string& reason) {
        timespec now;
        clock_gettime(CLOCK_BOOTTIME, &now);
        const std::string classes = info.deviceType == 1
                                        ? StringPrintf("0x%x", info.deviceClass)
                                        : android::base::Join(info.interfaceClassList, ',');
        fprintf(decisions_, "%jd.%03ld\t%s\t%s\t%s\t%04x:%04x\t%s\t%s\t%s\n",
                static_cast<intmax_t>(now.tv_sec), now.tv_nsec / 1000000,
                info.deviceType == 1 ? "input" : "usb", name.c_str(), info.deviceName.c_str(),
                info.vendorId, info.productId, classes.c_str(), outcome, reason.c_str());
    }

    UeventSocket uevents_;
    FILE* const decisions_;
    const android::base::unique_fd death_;
    const sp<DeathNotice> deathNotice_;
    sp<IKUsbService> service_;
    /** By sysfs name. */
    std::map<std::string, Device> devices_;
};

}  // namespace

}  // namespace emulator

int main() {
    android::ProcessState::self()->startThreadPool();
    emulator::startRoleSwitch();
    if (!android::base::WriteStringToFile("", emulator::kReadyPath)) {
        PLOG(FATAL) << "cannot write " << emulator::kReadyPath;
    }
    emulator::UsbHostStack().run();
}
