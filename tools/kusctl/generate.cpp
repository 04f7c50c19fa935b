// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>

#include <map>
#include <set>

#include "kusctl.h"

namespace android::kus {
namespace {

constexpr char kHelp[] = R"(usage: kusctl generate [--mode whitelist|blacklist]

Prints a rules file that names each USB device that is recorded now, by vendor and product, with a
comment that tells which one it is and how it was decided on. The usual way to start a policy:
attach the devices in question, run this, and strike out what does not belong.

  --mode MODE  the mode of the rules file (whitelist)

Input devices, keyboards and mice included, are not named: a whitelist allows them with a rule like
<class>AINPUT_SOURCE_KEYBOARD</class>.
)";

/** Vendor id to product id to the comments on the devices of that kind. */
using Vendors = std::map<int32_t, std::map<int32_t, std::set<std::string>>>;

std::string describe(const DeviceInfo& device) {
    return device.deviceName + ": " + base::Join(classNames(toDevice(device)), ", ") +
           (device.status != 0 ? ", allowed" : ", refused");
}

Vendors byVendor(const std::vector<DeviceInfo>& devices) {
    Vendors vendors;
    int inputDevices = 0;
    for (const DeviceInfo& device : devices) {
        if (device.deviceType != 0) {
            ++inputDevices;
        } else if (device.vendorId < 0 || device.productId < 0) {
            note("left out: device " + std::to_string(device.deviceId) +
                 " has an id that a rule cannot name");
        } else {
            vendors[device.vendorId][device.productId].insert(commentText(describe(device)));
        }
    }
    if (inputDevices > 0) {
        note("input devices are left out (" + std::to_string(inputDevices) +
             "): they need class rules of their own");
    }
    return vendors;
}

void printRules(const std::string& mode, const Vendors& vendors) {
    printf("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<usbconfig mode=\"%s\">\n", mode.c_str());
    for (const auto& [vendor, products] : vendors) {
        printf("  <vid vendorid=\"%d\">\n", vendor);
        for (const auto& [product, comments] : products) {
            for (const std::string& text : comments) printf("    <!-- %s -->\n", text.c_str());
            printf("    <pid>%d</pid>\n", product);
        }
        puts("  </vid>");
    }
    puts("</usbconfig>");
}

int run(int argc, char** argv) {
    std::string mode = "whitelist";
    while (nextOption(argc, argv, {{"mode", required_argument, nullptr, 'm'}}) != -1) mode = optarg;
    if (mode != "whitelist" && mode != "blacklist") {
        wrongUse("'" + mode + "' is no mode: give whitelist or blacklist");
    }
    expectNoArguments(argc, argv);

    std::vector<DeviceInfo> devices;
    expectOk(connectToService()->getDeviceList(&devices));
    const Vendors vendors = byVendor(devices);
    if (vendors.empty()) fail("no USB device is recorded: attach the devices to be named first");
    printRules(mode, vendors);
    return kYes;
}

}  // namespace

const Command kGenerateCommand = {"generate", "a rules file that names the recorded USB devices",
                                  kHelp, run};

}  // namespace android::kus
