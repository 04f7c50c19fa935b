// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <thread>

#include "crash/crash_barrier.h"
#include "usbdevice/UsbDevice.h"

namespace android::kus {
namespace {

using android::base::unique_fd;
using std::chrono::milliseconds;
using std::this_thread::sleep_for;

constexpr char kSocPath[] = "/sys/devices/platform/soc/";
constexpr char kDcOnlinePath[] = "/sys/class/power_supply/dc/online";
constexpr char kUsbOnlinePath[] = "/sys/class/power_supply/usb/online";

// The platform acts on these: a virtual undock, a virtual dock, and a reset of its USB stack that
// goes with either.
constexpr char kUndockProperty[] = "persist.vendor.monitor.undock";
constexpr char kDockProperty[] = "persist.vendor.monitor.dock";
constexpr char kResetProperty[] = "persist.vendor.monitor.reset";

constexpr char kHostRole[] = "host";
constexpr char kNoRole[] = "none";
constexpr size_t kRoleLength = 4;

constexpr milliseconds kRoleSettleTime(100);
constexpr milliseconds kDockPollInterval(400);

constexpr uint32_t kDisplayLinkVendorId = 0x17E9;

constexpr size_t kBufferSize = 4096;

// Host controllers' role attributes, below kSocPath.
const char* const controllerModeNodes[] = {"c200000.hsusb/mode", "a800000.ssusb/mode"};

// Resets handed over by request_host_reset: one has not begun; and how many have not ended.
std::atomic<bool> resetWaits = false;
std::atomic<int> requestedResets = 0;

// The controller that a reset has switched off. The crash handler looks at them.
char offControllerPath[kBufferSize];
std::atomic<bool> controllerIsOff = false;

std::mutex dockPollLock;
char dockPollBuffer[kBufferSize];  // guarded by dockPollLock

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

bool isInHostRole(const std::string& path) {
    char role[kBufferSize] = {};
    return exists(path) && UsbDevice::read_sysfs_val(path.c_str(), role, sizeof(role)) > 0 &&
           strncmp(role, kHostRole, kRoleLength) == 0;
}

void writeRole(const std::string& path, const char* role) {
    // Or a reset could switch a controller off after the crash handler has switched it on.
    const SharedStateUse use;
    UsbDevice::write_sysfs_val(path.c_str(), role, kRoleLength);
}

/** Switches a controller off. While one lives, a crash gives the controller its role back. */
class ControllerOff {
  public:
    explicit ControllerOff(const std::string& path) {
        snprintf(offControllerPath, sizeof(offControllerPath), "%s", path.c_str());
        controllerIsOff = true;
        writeRole(path, kNoRole);
    }
    ~ControllerOff() { controllerIsOff = false; }
    ControllerOff(const ControllerOff&) = delete;
};

/** The value of "dc/online" as it stands, by way of dockPollBuffer; empty when unreadable. */
std::string readDockPower() {
    const std::lock_guard lock(dockPollLock);
    memset(dockPollBuffer, 0, sizeof(dockPollBuffer));
    UsbDevice::read_sysfs_val(kDcOnlinePath, dockPollBuffer, sizeof(dockPollBuffer));
    return dockPollBuffer;
}

bool isUndocked(const std::string& dockPower) { return dockPower[0] == '0'; }

void requestUndock() {
    property_set(kUndockProperty, "1");
    property_set(kResetProperty, "1");
}

void requestDock() {
    property_set(kDockProperty, "1");
    property_set(kResetProperty, "1");
}

void toggleControllers() {
    for (const char* node : controllerModeNodes) {
        const std::string path = std::string(kSocPath) + node;
        if (!isInHostRole(path)) continue;
        {
            const ControllerOff off(path);
            LOG(INFO) << "usb_host_reset mode set to none for syspath: " << path;
            sleep_for(kRoleSettleTime);
            // Logged before the write, unlike "none".
            LOG(INFO) << "usb_host_reset mode set to host for syspath: " << path;
            writeRole(path, kHostRole);
        }
        sleep_for(kRoleSettleTime);
    }
}

/**
 * True when USB or dock power is present. A supply that reads as no number ends the process: the
 * conversion throws and nothing catches it.
 */
bool hasPower() {
    char value[kBufferSize] = {};
    UsbDevice::read_sysfs_val(kUsbOnlinePath, value, sizeof(value));
    LOG(INFO) << "USB charging_state val " << value;
    const int usbPower = std::stoi(value);
    LOG(INFO) << "power_supply_state val " << usbPower;
    if (usbPower == 1) return true;

    LOG(INFO) << "virtual_undock_dock_event check for dc charge state";
    memset(value, 0, sizeof(value));
    UsbDevice::read_sysfs_val(kDcOnlinePath, value, sizeof(value));
    LOG(INFO) << "DC charging_state val " << value;
    const int dcPower = std::stoi(value);
    LOG(INFO) << "DC power_supply_state val " << dcPower;
    return dcPower == 1;
}

/** The role stays "none" where the power is gone: the dock was pulled meanwhile. */
void toggleDisplayLinkController(const std::string& path, milliseconds wait) {
    if (!isInHostRole(path)) return;
    const ControllerOff off(path);
    LOG(INFO) << "virtual_undock_dock_event mode set to none for syspath: " << path;
    sleep_for(wait);
    if (!exists(kUsbOnlinePath)) return;
    if (!hasPower()) {
        LOG(INFO) << "device is undocked, not charging state";
        return;
    }
    LOG(INFO) << "virtual_undock_dock_event mode set to host for syspath: " << path;
    writeRole(path, kHostRole);
    sleep_for(kRoleSettleTime);
}

void undockAndDock(milliseconds wait) {
    UsbDevice::virtualDockDone = false;
    if (isUndocked(readDockPower())) return;
    requestUndock();
    UsbDevice::registersysfsObserverViaThread();
    sleep_for(wait);
    UsbDevice::virtualDockDone = true;
    requestDock();
}

/** Returns when the dock's power drops, or when the virtual dock is requested. */
void pollDock() {
    while (!UsbDevice::virtualDockDone) {
        const std::string power = readDockPower();
        LOG(INFO) << "readSysfsChangeEvent:polling for power_val " << kDcOnlinePath
                  << "power_val:" << power;
        if (isUndocked(power)) {
            LOG(INFO) << "readSysfsChangeEvent: undocked power_val" << power;
            requestDock();
            return;
        }
        sleep_for(kDockPollInterval);
    }
    LOG(INFO) << "readSysfsChangeEvent:exit poll due to virtual dock";
}

std::unique_lock<std::mutex> awaitTurn() {
    LOG(INFO) << "usb_host_reset entered:";
    return std::unique_lock(UsbDevice::hostResetMutex);
}

void* resetInTurn(void*) {
    const std::unique_lock turn = awaitTurn();
    resetWaits = false;
    toggleControllers();
    --requestedResets;
    return nullptr;
}

}  // namespace

std::mutex UsbDevice::hostResetMutex;
std::atomic<bool> UsbDevice::virtualDockDone = false;

void UsbDevice::usb_host_reset(int value) {
    const std::unique_lock turn = awaitTurn();
    if (value <= 0) {
        toggleControllers();
    } else {
        virtual_undock_dock_event(value);
    }
}

void UsbDevice::request_host_reset() {
    // One that still waits will see to these rules too.
    if (resetWaits.exchange(true)) return;
    ++requestedResets;
    pthread_t thread;
    if (pthread_create(&thread, nullptr, resetInTurn, nullptr) == 0) {
        pthread_detach(thread);
    } else {
        resetInTurn(nullptr);
    }
}

bool UsbDevice::requested_reset_runs() { return requestedResets > 0; }

void UsbDevice::give_host_role_back() {
    if (controllerIsOff) writeRole(offControllerPath, kHostRole);
}

void UsbDevice::virtual_undock_dock_event(int wait) {
    const std::string usbPath = get_displaylink_soc_path();
    LOG(INFO) << "virtual_undock_dock_event usbPath : " << usbPath;
    if (usbPath != "empty") {
        LOG(INFO) << "virtual_undock_dock_event usbPath for display link device";
        toggleDisplayLinkController(usbPath, milliseconds(wait));
    } else {
        LOG(INFO) << "virtual_undock_dock_event usbPath empty for non-display link device";
        undockAndDock(milliseconds(wait));
    }
}

void UsbDevice::registersysfsObserverViaThread() {
    pthread_t dockPollThread;
    const int result = pthread_create(&dockPollThread, nullptr, registersysfsObserver, nullptr);
    // Never joined, so it gives its stack back by itself.
    if (result == 0) pthread_detach(dockPollThread);
    // The configuration observer's start logs the same text.
    LOG(INFO) << "registerFileObserverViaThread result--" << result;
}

void* UsbDevice::registersysfsObserver(void*) {
    readSysfsChangeEvent();
    return nullptr;
}

void UsbDevice::readSysfsChangeEvent() {
    pollDock();
    pthread_exit(nullptr);
}

size_t UsbDevice::read_sysfs_val(const char* path, char* buf, size_t size) {
    const unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.ok()) {
        LOG(ERROR) << "Unable to open sysfs path for reading" << path;
        return 0;
    }
    const ssize_t length = read(fd.get(), buf, size - 1);
    if (length <= 0) {
        LOG(ERROR) << "Unable to read from sysfs path" << length;
        return 0;
    }
    buf[length] = '\0';
    return length;
}

size_t UsbDevice::write_sysfs_val(const char* path, const char* buf, size_t count) {
    const unique_fd fd(open(path, O_WRONLY | O_CLOEXEC));
    if (!fd.ok()) {
        LOG(ERROR) << "Unable to open  sysfs path for writing" << path;
        return 0;
    }
    const ssize_t length = write(fd.get(), buf, count);
    if (length <= 0) {
        LOG(ERROR) << "Unable to write to sysfs path" << length;
        return 0;
    }
    return length;
}

std::string UsbDevice::get_displaylink_soc_path() {
    char bus;
    {
        const SharedStateUse use;
        const std::lock_guard lock(topologyLock);
        const auto adapter = std::find_if(
            deviceid_map.begin(), deviceid_map.end(),
            [](const auto& entry) { return entry.second.idVendor == kDisplayLinkVendorId; });
        if (adapter == deviceid_map.end()) return "empty";
        // One digit: a bus numbered 10 or more is looked up under its first.
        bus = adapter->second.name[0];
    }
    char path[kBufferSize];
    snprintf(path, sizeof(path), "%s/%s%c/%s", kUsbDevicesPath, "usb", bus, "devspec");
    LOG(INFO) << "get_displaylink_soc_path " << path;
    char devspec[kBufferSize] = {};
    read_sysfs_val(path, devspec, sizeof(devspec));
    if (devspec[0] == '\0') return "";
    LOG(INFO) << "get_displaylink_soc_path devspec_val : " << devspec;

    // For instance /soc/ssusb@a800000/dwc3@a800000.
    const std::vector<std::string> nodes = split(devspec, '/');
    if (nodes.size() < 3) return "empty";
    const std::vector<std::string> controller = split(nodes[2], '@');
    if (controller.size() < 2) return "empty";
    return kSocPath + controller[1] + "." + controller[0] + "/mode";
}

std::vector<std::string> UsbDevice::split(std::string text, char delimiter) {
    std::istringstream stream(text);
    std::vector<std::string> fields;
    for (std::string field; std::getline(stream, field, delimiter);) {
        field.erase(std::remove(field.begin(), field.end(), '\n'), field.end());
        fields.push_back(field);
    }
    return fields;
}

}  // namespace android::kus
