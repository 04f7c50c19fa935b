// SPDX-License-Identifier: Apache-2.0
#include "usb_tree.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;
using android::base::StringPrintf;

namespace android::kus {

namespace {

/** Numbers that a scan reads and no test looks at. */
Attributes zeroes(const std::string& names) {
    Attributes attributes;
    for (const std::string& name : base::Split(names, " ")) attributes[name] = "0";
    return attributes;
}

}  // namespace

void addEntry(const std::string& name, const Attributes& attributes, const std::string& parent) {
    const fs::path bus = "/sys/bus/usb/devices";
    const fs::path directory = fs::path(parent) / name;
    fs::create_directories(directory);
    fs::create_directories(bus);
    fs::create_directory_symlink(directory.lexically_relative(bus), bus / name);
    for (const auto& [attribute, value] : attributes) {
        if (attribute == "driver") {
            fs::create_symlink("../../../bus/usb/drivers/" + value, directory / attribute);
        } else {
            std::ofstream(directory / attribute) << value << '\n';
        }
    }
}

void addInterface(const std::string& name, int interfaceClass,
                  const std::vector<std::string>& directories) {
    Attributes attributes = zeroes(
        "bAlternateSetting bInterfaceNumber bInterfaceProtocol bInterfaceSubClass "
        "bNumEndpoints");
    attributes["authorized"] = "1";
    attributes["bInterfaceClass"] = StringPrintf("%02x", interfaceClass);
    addEntry(name, attributes);
    for (const std::string& directory : directories) {
        fs::create_directories(sysfsPath(name, directory));
    }
}

void addDevice(const std::string& name, int devnum, int vendor, int product) {
    Attributes attributes = zeroes(
        "bDeviceClass bDeviceProtocol bDeviceSubClass bMaxPacketSize0 bNumConfigurations "
        "bNumInterfaces bcdDevice bmAttributes configuration maxchild rx_lanes tx_lanes");
    attributes["authorized"] = "1";
    attributes["devnum"] = std::to_string(devnum);
    attributes["idVendor"] = StringPrintf("%04x", vendor);
    attributes["idProduct"] = StringPrintf("%04x", product);
    addEntry(name, attributes);
}

std::vector<std::string> readerOrder(const std::string& path) {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
        names.push_back(entry.path().filename());
    }
    return names;
}

std::string sysfsPath(const std::string& entry, const std::string& below) {
    return "/sys/bus/usb/devices/" + entry + "/" + below;
}

}  // namespace android::kus
