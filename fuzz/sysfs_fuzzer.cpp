// SPDX-License-Identifier: Apache-2.0
//
// An input is a tree below /sys/bus/usb/devices, one entry a line: "PATH/" for a directory,
// "PATH=VALUE" for a file, "PATH>PATH" for a link to a place in the same tree. The directories
// above an entry come with it. The gate finds its input devices there, too.
#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <set>

#include "fuzz_world.h"
#include "gate/opening.h"
#include "ku_service/KUsbService.h"
#include "usbdevice/UsbDevice.h"
#include "util/rule_tables.h"

namespace fs = std::filesystem;

namespace android::kus {
namespace {

using base::unique_fd;

constexpr size_t kMostEntries = 128;
constexpr size_t kMostDevices = 2;  // each costs a scan

/** Where a path leads in the tree; none when it leaves it, for the machine's own files. */
std::optional<fs::path> placeOf(const std::string& path) {
    const fs::path place = fs::path(path).lexically_normal();
    if (place.empty() || place.is_absolute() || *place.begin() == "..") return {};
    if (path.find('\0') != std::string::npos) return {};
    return kUsbDevicesPath / place;
}

/** What can't be made is left out. */
void addEntry(const std::string& line) {
    const size_t end = std::min(line.find_first_of("=>"), line.size());
    const auto place = placeOf(line.substr(0, end));
    if (!place) return;
    std::error_code ignored;
    if (end == line.size()) {
        fs::create_directories(*place, ignored);
        return;
    }
    fs::create_directories(place->parent_path(), ignored);
    const std::string value = line.substr(end + 1);
    if (line[end] == '=') {
        base::WriteStringToFile(value + "\n", *place, /*follow_symlinks=*/true);
    } else if (const auto target = placeOf(value)) {
        fs::create_symlink(*target, *place, ignored);
    }
}

void makeTree(const std::string& text) {
    fs::remove_all(kUsbDevicesPath);
    fs::create_directories(kUsbDevicesPath);
    const std::vector<std::string> lines = base::Split(text, "\n");
    for (size_t i = 0; i < lines.size() && i < kMostEntries; ++i) addEntry(lines[i]);
}

void expectNothingScanned() {
    CHECK(UsbDevice::bus_list == nullptr);
    CHECK(UsbDevice::device_list.empty());
    CHECK(UsbDevice::interface_list.empty());
}

/** A refusal goes to each interface, up to one that takes none. */
void expectRefused(int32_t id) {
    for (const usbinterface_custom& record : UsbDevice::get_deviceid_data(id)) {
        const std::string path = std::string(kUsbDevicesPath) + "/" + record.name + "/authorized";
        if (!unique_fd(open(path.c_str(), O_WRONLY | O_CLOEXEC)).ok()) return;
        std::string content;
        CHECK(base::ReadFileToString(path, &content, /*follow_symlinks=*/true));
        CHECK(base::StartsWith(content, "0")) << path;
    }
}

DeviceInfo describe(int32_t id) {
    DeviceInfo device;
    device.deviceId = id;
    for (const usbinterface_custom& record : UsbDevice::get_deviceid_data(id)) {
        CHECK_EQ(id, static_cast<int32_t>(record.busnum * 1000 + record.devnum));
        CHECK(strchr(record.name, ':') != nullptr);
        device.deviceName = record.product;
        device.vendorId = record.idVendor;
        device.productId = record.idProduct;
        device.interfaceClassList.push_back(record.bInterfaceClass);
    }
    return device;
}

std::string dump(KUsbService& service, const Vector<String16>& arguments) {
    return outputOf([&](int file) { CHECK_EQ(service.dump(file, arguments), OK); });
}

void decide(KUsbService& service, int32_t id) {
    const DeviceInfo device = describe(id);
    bool allowed = true;
    service.isDeviceAllowed(device, &allowed);
    expectNothingScanned();
    const auto record = mUsbDeviceInfoList.find(id);
    if (record == mUsbDeviceInfoList.end()) {
        CHECK(!allowed);  // left to the input subsystem
        return;
    }
    CHECK_EQ(record->second->status, allowed ? 1 : 0);
    CHECK_GE(record->second->category, 0);
    if (!allowed) expectRefused(id);
}

void scanAndDecide() {
    const sp<KUsbService> service = new KUsbService();
    UsbDevice::create_usb_device_map();
    expectNothingScanned();
    std::set<int32_t> ids;
    for (const auto& [id, record] : UsbDevice::deviceid_map) ids.insert(id);
    while (ids.size() > kMostDevices) ids.erase(std::prev(ids.end()));
    for (const int32_t id : ids) decide(*service, id);

    const std::string path = UsbDevice::get_displaylink_soc_path();
    CHECK(path.empty() || path == "empty" || base::EndsWith(path, "/mode")) << path;

    Vector<String16> arguments;
    CHECK(base::StartsWith(dump(*service, arguments), "USB DEVICE INFO "));
    arguments.add(String16("test"));
    const std::string topology = dump(*service, arguments);
    expectNothingScanned();
    CHECK_NE(topology.find("DeviceIdMap size" + std::to_string(UsbDevice::deviceid_map.size())),
             std::string::npos);

    for (const int32_t id : ids) {
        UsbDevice::update_deviceid_map(id, false);
        CHECK(UsbDevice::get_deviceid_data(id).empty());
    }
}

void readAsTheGate() {
    static const bool linked =
        fs::create_directories("/sys/class") && symlink(kUsbDevicesPath, "/sys/class/input") == 0;
    CHECK(linked);
    for (const std::string& name : deviceNames()) {
        const Device device(name);
        isAskedAbout(device);
        openFor("hub", device, interfaceNames(device));
        const auto description = kus::describe(device);
        if (!description) continue;
        const DeviceInfo& info = description->info;
        CHECK_EQ(info.deviceType, device.isInput() ? 1 : 0);
        CHECK_EQ(info.deviceId >= 1000000, device.isInput());
        CHECK(info.vendorId >= 0 && info.vendorId <= 0xffff);
        CHECK(String16(info.deviceName.c_str()).size() > 0);
        CHECK_EQ(info.interfaceClassList.size(), description->interfaces.size());
        openDevice(device, description->interfaces);
        closeDevice(device, description->interfaces);
        CHECK(description->interfaces.empty() || !isOpen(device, description->interfaces));
    }
}

}  // namespace

void runInput(const std::string& tree) {
    configMode = "whitelist";
    clearRules();
    classList = {8};
    addVidPid(1155, 22336);
    mUsbDeviceInfoList.clear();

    makeTree(tree);
    scanAndDecide();
    readAsTheGate();
}

}  // namespace android::kus
