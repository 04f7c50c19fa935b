// SPDX-License-Identifier: Apache-2.0
#include "gate/device_reader.h"

#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <linux/input.h>
#include <linux/usb/ch9.h>
#include <stdlib.h>
#include <string.h>
#include <utils/Unicode.h>

#include <algorithm>
#include <bitset>
#include <map>

#include "gate/input_sources.h"

namespace android::kus {
namespace {

constexpr char kInputDevices[] = "/sys/class/input";
constexpr char kInputPrefix[] = "input";
// Read under the device's lock, which the kernel holds while it configures the device.
constexpr char kInterfaceCount[] = "bNumInterfaces";

constexpr int kFirstInputId = 1000000;
constexpr int kMaxInputNumber = 1000000000;
constexpr int kMaxByte = 0xff;
constexpr int kMaxId = 0xffff;

struct Interface {
    std::string name;
    int code;
};

bool isInterfaceName(const std::string& entry) { return entry.find(':') != std::string::npos; }

// By number; nothing when an attribute cannot be read.
std::optional<std::map<int, Interface>> readInterfaces(const Device& device) {
    std::map<int, Interface> interfaces;
    for (const std::string& entry : interfaceNames(device)) {
        const auto number = device.directory.readNumber(entry + "/bInterfaceNumber", 16, kMaxByte);
        const auto code = device.directory.readNumber(entry + "/bInterfaceClass", 16, kMaxByte);
        if (!number || !code) return std::nullopt;
        interfaces[*number] = {entry, *code};
    }
    return interfaces;
}

bool isExternalInput(const Device& device) {
    const auto bus = device.directory.readNumber("id/bustype", 16, kMaxId);
    return bus == BUS_USB || bus == BUS_BLUETOOTH;
}

// The binder takes only texts that can be converted.
std::string displayName(const Device& device, const std::string& attribute) {
    const std::string text = device.directory.read(attribute).value_or("");
    const auto* const bytes = reinterpret_cast<const uint8_t*>(text.data());
    return utf8_to_utf16_length(bytes, text.size()) > 0 ? text : device.name;
}

std::optional<DeviceDescription> describeUsbDevice(const Device& device) {
    const SysfsDirectory& directory = device.directory;
    const auto bus = directory.readNumber("busnum", 10, kMaxByte);
    const auto number = directory.readNumber("devnum", 10, kMaxByte);
    const auto deviceClass = directory.readNumber("bDeviceClass", 16, kMaxByte);
    const auto vendor = directory.readNumber("idVendor", 16, kMaxId);
    const auto product = directory.readNumber("idProduct", 16, kMaxId);
    // Waits: see kInterfaceCount.
    const auto count = directory.readNumber(kInterfaceCount, 10, kMaxByte);
    const auto interfaces = readInterfaces(device);
    if (!bus || !number || !deviceClass || !vendor || !product || !count || !interfaces ||
        interfaces->size() != static_cast<size_t>(*count)) {
        return std::nullopt;
    }
    DeviceDescription description;
    description.info.deviceName = displayName(device, "product");
    description.info.deviceId = *bus * 1000 + *number;
    description.info.deviceClass = *deviceClass;
    description.info.vendorId = *vendor;
    description.info.productId = *product;
    for (const auto& [position, interface] : *interfaces) {
        description.info.interfaceClassList.push_back(interface.code);
        description.interfaces.push_back(interface.name);
    }
    return description;
}

// A bit map in sysfs is a row of hexadecimal longs, the most significant first.
template <size_t N>
std::bitset<N> readBits(const Device& device, const std::string& attribute) {
    std::bitset<N> bits;
    for (const std::string& word :
         base::Split(device.directory.read(attribute).value_or(""), " ")) {
        bits <<= 64;
        bits |= std::bitset<N>(strtoull(word.c_str(), nullptr, 16));
    }
    return bits;
}

std::optional<int> inputNumber(const std::string& name) {
    int number;
    const char* const digits = name.c_str() + strlen(kInputPrefix);
    if (!base::ParseInt(digits, &number, 0, kMaxInputNumber)) return std::nullopt;
    return number;
}

std::optional<DeviceDescription> describeInputDevice(const Device& device) {
    const auto number = inputNumber(device.name);
    const auto vendor = device.directory.readNumber("id/vendor", 16, kMaxId);
    const auto product = device.directory.readNumber("id/product", 16, kMaxId);
    if (!number || !vendor || !product) return std::nullopt;

    InputCapabilities capabilities;
    capabilities.keys = readBits<KEY_CNT>(device, "capabilities/key");
    capabilities.relative = readBits<REL_CNT>(device, "capabilities/rel");
    capabilities.absolute = readBits<ABS_CNT>(device, "capabilities/abs");
    capabilities.properties = readBits<INPUT_PROP_CNT>(device, "properties");

    DeviceDescription description;
    description.info.deviceName = displayName(device, "name");
    description.info.deviceId = kFirstInputId + *number;
    description.info.deviceClass = static_cast<int>(inputSources(capabilities));
    description.info.vendorId = *vendor;
    description.info.productId = *product;
    description.info.deviceType = 1;
    return description;
}

bool isInputName(const std::string& name) { return base::StartsWith(name, kInputPrefix); }

}  // namespace

Device::Device(const std::string& sysfsName)
    : name(sysfsName),
      directory((isInputName(name) ? kInputDevices : kUsbDevices) + ("/" + name)) {}

std::vector<std::string> deviceNames() {
    std::vector<std::string> names;
    for (const std::string& name : SysfsDirectory(kUsbDevices).entries()) {
        if (!isInterfaceName(name)) names.push_back(name);
    }
    for (const std::string& name : SysfsDirectory(kInputDevices).entries()) {
        if (isInputName(name)) names.push_back(name);
    }
    return names;
}

bool callsItselfHub(const Device& device) {
    return device.directory.readNumber("bDeviceClass", 16, kMaxByte) == USB_CLASS_HUB;
}

bool isHub(const Device& device) {
    if (!callsItselfHub(device)) return false;
    const auto interfaces = readInterfaces(device);
    return interfaces && std::all_of(interfaces->begin(), interfaces->end(), [](const auto& entry) {
               return entry.second.code == USB_CLASS_HUB;
           });
}

bool isAskedAbout(const Device& device) {
    if (device.directory.isGone()) return false;
    return device.isInput() ? isExternalInput(device) : !isHub(device);
}

std::vector<std::string> interfaceNames(const Device& device) {
    // Waits for a device that is being configured, so that all interfaces are there after it.
    device.directory.read(kInterfaceCount);
    std::vector<std::string> names;
    for (const std::string& entry : device.directory.entries()) {
        if (isInterfaceName(entry)) names.push_back(entry);
    }
    return names;
}

bool hasOnlyHids(const DeviceInfo& info) {
    return std::all_of(info.interfaceClassList.begin(), info.interfaceClassList.end(),
                       [](int32_t code) { return code == USB_CLASS_HID; });
}

std::optional<DeviceDescription> describe(const Device& device) {
    return device.isInput() ? describeInputDevice(device) : describeUsbDevice(device);
}

}  // namespace android::kus
