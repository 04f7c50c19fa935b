// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <stdio.h>

#include <map>
#include <set>

#include "kusctl.h"

namespace android::kus {
namespace {

constexpr char kHelp[] =
    R"(usage: kusctl generate [--mode whitelist|blacklist] [--include-input] [--only ID]...

Prints a rules file that names each device that is recorded now, by vendor and product, with a
comment that tells which one it is and how it was decided on. The usual way to start a policy:
attach the devices in question, run this, and strike out what does not belong. 'kusctl apply' puts
the file in place.

  --mode MODE      the mode of the rules file (whitelist)
  --include-input  names input devices in a blacklist, too: it would block these keyboards and mice.
                   A whitelist, which blocks those that it does not name, names them anyway
  --only ID        names this device alone, by its id in 'kusctl list'; may be repeated
)";

/** Vendor id to product id to the comments on the devices of that kind. */
using Vendors = std::map<int32_t, std::map<int32_t, std::set<std::string>>>;

std::string describe(const DeviceInfo& device) {
    return nameOf(device) + ": " + base::Join(classNames(factsOf(device)), ", ") +
           (device.status != 0 ? ", allowed" : ", refused");
}

Vendors byVendor(const std::vector<DeviceInfo>& devices) {
    Vendors vendors;
    for (const DeviceInfo& device : devices) {
        if (device.vendorId < 0 || device.productId < 0) {
            note("left out: device " + std::to_string(device.deviceId) +
                 " has an id that a rule cannot name");
        } else {
            vendors[device.vendorId][device.productId].insert(commentText(describe(device)));
        }
    }
    return vendors;
}

void printRules(const std::string& mode, const Vendors& vendors) {
    printf("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<usbconfig mode=\"%s\">\n", mode.c_str());
    for (const auto& [vendor, products] : vendors) {
        const std::string name = usbName(vendor, kUnknownId);
        printf("  <vid vendorid=\"%d\">%s\n", vendor,
               name.empty() ? "" : (" <!-- " + commentText(name) + " -->").c_str());
        for (const auto& [product, comments] : products) {
            for (const std::string& text : comments) printf("    <!-- %s -->\n", text.c_str());
            printf("    <pid>%d</pid>\n", product);
        }
        puts("  </vid>");
    }
    puts("</usbconfig>");
}

struct Options {
    std::string mode = "whitelist";
    bool includeInput = false;
    std::set<int32_t> only;
};

Options parseArguments(int argc, char** argv) {
    Options options;
    parseOptions(argc, argv,
                 {{"mode", &options.mode},
                  {"include-input", &options.includeInput},
                  {"only", [&](const char* id) { options.only.insert(parseDeviceId(id)); }}});
    expectNoArguments(argc, argv);
    if (options.mode != "whitelist" && options.mode != "blacklist") {
        wrongUse("'" + options.mode + "' is no mode: give whitelist or blacklist");
    }
    return options;
}

std::vector<DeviceInfo> select(const std::vector<DeviceInfo>& devices, const Options& options) {
    std::vector<DeviceInfo> selected;
    std::set<int32_t> missing = options.only;
    for (const DeviceInfo& device : devices) {
        missing.erase(device.deviceId);
        const bool wanted =
            options.only.empty()
                ? device.deviceType == 0 || options.mode == "whitelist" || options.includeInput
                : options.only.count(device.deviceId) != 0;
        if (wanted) selected.push_back(device);
    }
    if (!missing.empty()) failAsUnrecorded(*missing.begin());
    return selected;
}

int run(int argc, char** argv) {
    const Options options = parseArguments(argc, argv);
    const Vendors vendors = byVendor(select(recordedDevices(), options));
    if (vendors.empty()) fail("no such device is recorded: attach the devices to be named first");
    printRules(options.mode, vendors);
    return kYes;
}

}  // namespace

const Command kGenerateCommand = {"generate", "a rules file that names the recorded devices", kHelp,
                                  run};

}  // namespace android::kus
