// SPDX-License-Identifier: Apache-2.0
#include "sysfs_devices.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <dirent.h>
#include <linux/input.h>
#include <linux/usb/ch9.h>
#include <stdlib.h>
#include <string.h>

#include <bitset>
#include <map>

#include "input_sources.h"

using android::base::ReadFileToString;
using android::base::StartsWith;
using android::base::Trim;
using android::base::WriteStringToFile;
using android::kus::DeviceInfo;

namespace emulator {

namespace {

const std::string kUsbDevices = "/sys/bus/usb/devices/";
const std::string kInputDevices = "/sys/class/input/";
constexpr int kInputDeviceIds = 1000000;

std::string readAttribute(const std::string& path) {
    std::string text;
    ReadFileToString(path, &text);
    return Trim(text);
}

// Nothing when the attribute cannot be read: the device is gone or has no such attribute yet.
std::optional<int> readNumber(const std::string& path, int base) {
    const std::string text = readAttribute(path);
    char* end;
    const long value = strtol(text.c_str(), &end, base);
    if (text.empty() || *end != '\0') return std::nullopt;
    return static_cast<int>(value);
}

template <typename Predicate>
std::vector<std::string> entriesOf(const std::string& path, Predicate wanted) {
    std::vector<std::string> names;
    DIR* const directory = opendir(path.c_str());
    if (directory == nullptr) return names;
    while (const dirent* entry = readdir(directory)) {
        if (wanted(std::string(entry->d_name))) names.push_back(entry->d_name);
    }
    closedir(directory);
    return names;
}

// In the order of their numbers.
std::vector<int> interfaceClasses(const std::string& name) {
    std::map<int, int> classes;
    const auto isInterface = [&](const std::string& entry) {
        return StartsWith(entry, name + ":");
    };
    for (const std::string& entry : entriesOf(kUsbDevices + name, isInterface)) {
        const std::string interface = kUsbDevices + entry;
        const auto number = readNumber(interface + "/bInterfaceNumber", 16);
        const auto code = readNumber(interface + "/bInterfaceClass", 16);
        if (number && code) classes[*number] = *code;
    }
    std::vector<int> codes;
    for (const auto& [number, code] : classes) codes.push_back(code);
    return codes;
}

// A bit map in sysfs is a row of hexadecimal longs, the most significant first.
template <size_t N>
std::bitset<N> readBits(const std::string& path) {
    std::bitset<N> bits;
    for (const std::string& word : android::base::Split(readAttribute(path), " ")) {
        bits <<= 64;
        bits |= std::bitset<N>(strtoull(word.c_str(), nullptr, 16));
    }
    return bits;
}

}  // namespace

std::optional<DeviceInfo> readUsbDevice(const std::string& name) {
    const std::string path = kUsbDevices + name + "/";
    const auto bus = readNumber(path + "busnum", 10);
    const auto number = readNumber(path + "devnum", 10);
    const auto deviceClass = readNumber(path + "bDeviceClass", 16);
    const auto vendor = readNumber(path + "idVendor", 16);
    const auto product = readNumber(path + "idProduct", 16);
    const auto interfaces = readNumber(path + "bNumInterfaces", 10);
    if (!bus || !number || !deviceClass || !vendor || !product || !interfaces) return std::nullopt;
    if (*deviceClass == USB_CLASS_HUB) return std::nullopt;

    DeviceInfo info;
    info.deviceName = readAttribute(path + "product");
    if (info.deviceName.empty()) info.deviceName = name;
    info.deviceId = *bus * 1000 + *number;
    info.deviceClass = *deviceClass;
    info.interfaceClassList = interfaceClasses(name);
    info.vendorId = *vendor;
    info.productId = *product;
    if (info.interfaceClassList.size() != static_cast<size_t>(*interfaces)) return std::nullopt;
    return info;
}

std::optional<DeviceInfo> readInputDevice(const std::string& name) {
    const std::string path = kInputDevices + name + "/";
    const auto vendor = readNumber(path + "id/vendor", 16);
    const auto product = readNumber(path + "id/product", 16);
    if (readNumber(path + "id/bustype", 16) != BUS_USB || !vendor || !product) return std::nullopt;

    InputCapabilities capabilities;
    capabilities.keys = readBits<KEY_CNT>(path + "capabilities/key");
    capabilities.relative = readBits<REL_CNT>(path + "capabilities/rel");
    capabilities.absolute = readBits<ABS_CNT>(path + "capabilities/abs");
    capabilities.properties = readBits<INPUT_PROP_CNT>(path + "properties");

    DeviceInfo info;
    info.deviceName = readAttribute(path + "name");
    info.deviceId = kInputDeviceIds + atoi(name.c_str() + strlen("input"));
    info.deviceClass = static_cast<int>(inputSources(capabilities));
    info.vendorId = *vendor;
    info.productId = *product;
    info.deviceType = 1;
    return info;
}

std::vector<std::string> usbDeviceNames() {
    // Interfaces have a colon in their names, root hubs are called usb1 and so on.
    return entriesOf(kUsbDevices, [](const std::string& name) {
        return isdigit(name[0]) && name.find(':') == std::string::npos;
    });
}

std::vector<std::string> inputDeviceNames() {
    return entriesOf(kInputDevices,
                     [](const std::string& name) { return StartsWith(name, "input"); });
}

void setInhibited(const std::string& inputName, bool inhibited) {
    const std::string path = kInputDevices + inputName + "/inhibited";
    if (!WriteStringToFile(inhibited ? "1" : "0", path)) PLOG(WARNING) << "cannot write " << path;
}

}  // namespace emulator
