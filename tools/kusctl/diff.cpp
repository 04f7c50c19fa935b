// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <inttypes.h>
#include <stdio.h>

#include <algorithm>
#include <map>

#include "kusctl.h"

namespace android::kus {
namespace {

constexpr char kHelp[] = R"(usage: kusctl diff [OPTION]... OLD NEW

Tells what a change of the rules would change: which devices NEW decides on otherwise than OLD, and
by which lines. Without a list of devices it tells so for each class, vendor and product that either
file names. Exit status: 0 nothing changes, 1 something changes or it failed, 2 wrong use.

  --devices FILE  devices to decide on, JSON objects, one a line, as 'kusctl list --json' and
                  'kusctl watch --json' print them; "-" for the standard input. Devices that differ
                  in their ids or classes are told apart, and counted
  --json          prints an object instead of text

A list may be of any length: no more is kept of it than the first 10000 kinds of devices that
change; what changes beyond them is counted. A line that is no device is reported with its number,
the rest is done, and the exit status is 1. Needed of a line are "vendor", "product" and "classes";
"kind" is "usb" where it is missing, and what else there is does no harm. A USB device of HID
interfaces alone counts as a vendor-specific HID, as the service records no other.
)";

constexpr size_t kMostGroups = 10000;
constexpr size_t kLongestName = 100;

struct Difference {
    Change change;
    /** Of devices; 0 without a list. */
    uint64_t count;
    /** The device's, or what a sample stands for. */
    std::string name;
};

struct Report {
    std::vector<Difference> differences;
    /** Of devices that change and are none of these. */
    uint64_t furtherAllowed = 0, furtherRefused = 0;
    uint64_t allowed = 0, refused = 0;
    DeviceCounts counts = {};
};

/** What a decision looks at, in the order of the ids. */
std::string keyOf(const DeviceFacts& device) {
    std::string key;
    const auto append = [&](int32_t number) {
        for (const int shift : {24, 16, 8, 0}) key += static_cast<char>(number >> shift);
    };
    append(device.vendorId);
    append(device.productId);
    append(device.deviceType);
    append(device.deviceClass);
    for (const int32_t code : device.interfaceClassList) append(code);
    return key;
}

std::string withName(const std::string& text, const std::string& name) {
    return name.empty() ? text : text + " (" + name + ")";
}

/** What a sample stands for: see changesBetween. */
std::string describeSample(const DeviceFacts& device, const Rules& before, const Rules& after) {
    const std::string vendor = std::to_string(device.vendorId);
    const std::string vendorName = usbName(device.vendorId, kUnknownId);
    if (device.productId != kUnknownId) {
        std::string name = usbName(device.vendorId, device.productId);
        if (!name.empty()) name = vendorName + ": " + name;
        return withName("product " + std::to_string(device.productId) + " of vendor " + vendor,
                        name);
    }
    if (device.vendorId != kUnknownId) {
        const bool others =
            before.namesProductsOf(device.vendorId) || after.namesProductsOf(device.vendorId);
        return (others ? "any other product of vendor " : "any product of vendor ") +
               withName(vendor, vendorName) + ", keyboards and mice too";
    }
    if (device.deviceType == 0 && device.interfaceClassList[0] == kUnnamedClass) {
        return "any device that no rule names";
    }
    return classNames(device)[0];
}

Report compareByRules(Rules* before, Rules* after) {
    Report report;
    for (Change& change : changesBetween(before, after)) {
        std::string what = describeSample(change.device, *before, *after);
        report.differences.push_back({std::move(change), 0, std::move(what)});
    }
    return report;
}

Report compareDevices(Rules* before, Rules* after, const std::string& path) {
    Report report;
    std::map<std::string, Difference> groups;
    std::string reason;
    report.counts = forEachDevice(path, /*showProgress=*/true, [&](const DeviceLine& line) {
        const bool allowed = after->allows(line.device, &reason);
        if (before->allows(line.device, &reason) == allowed) return;
        ++(allowed ? report.allowed : report.refused);
        std::string key = keyOf(line.device);
        auto known = groups.find(key);
        if (known == groups.end()) {
            if (groups.size() == kMostGroups) {
                ++(allowed ? report.furtherAllowed : report.furtherRefused);
                return;
            }
            known = groups.emplace(std::move(key), Difference{{line.device, {}, {}}, 0, ""}).first;
            known->second.name = unescaped(line.name).substr(0, kLongestName);
        }
        ++known->second.count;
    });
    for (auto& [key, difference] : groups) {
        Change& change = difference.change;
        change.before = before->decide(change.device);
        change.after = after->decide(change.device);
        report.differences.push_back(std::move(difference));
    }
    std::stable_sort(report.differences.begin(), report.differences.end(),
                     [](const auto& a, const auto& b) { return a.count > b.count; });
    return report;
}

std::string describeDevice(const Difference& difference) {
    const DeviceFacts& device = difference.change.device;
    const std::string name =
        difference.name.empty() ? usbName(device.vendorId, device.productId) : difference.name;
    return std::to_string(difference.count) + " of " + std::to_string(device.vendorId) + ":" +
           std::to_string(device.productId) + ", " + (name.empty() ? "" : name + ", ") +
           base::Join(classNames(device), ' ');
}

std::string placesOf(const std::string& file, const std::vector<int>& lines) {
    std::string text;
    for (const int line : lines) text += " " + file + ":" + std::to_string(line);
    return text;
}

void printDifferences(const Report& report, bool byDevices, const std::string& before,
                      const std::string& after) {
    for (const Difference& difference : report.differences) {
        const auto& [device, old, now] = difference.change;
        const std::string what = byDevices ? describeDevice(difference) : difference.name;
        const std::string places = placesOf(before, old.lines) + placesOf(after, now.lines);
        printf("now %s: %s%s\n", verdictText(now.allowed).c_str(), printable(what).c_str(),
               places.empty() ? "" : (" (" + printable(places.substr(1)) + ")").c_str());
    }
}

void printText(const Report& report, bool byDevices, const std::string& before,
               const std::string& after) {
    printDifferences(report, byDevices, before, after);
    if (!byDevices) {
        if (report.differences.empty()) puts("every device is decided on as before");
        return;
    }
    if (report.furtherAllowed + report.furtherRefused > 0) {
        printf("of further kinds: %" PRIu64 " now allowed, %" PRIu64 " now refused\n",
               report.furtherAllowed, report.furtherRefused);
    }
    printf("%" PRIu64 " devices: %" PRIu64 " now allowed, %" PRIu64 " now refused, %" PRIu64
           " as before\n",
           report.counts.devices, report.allowed, report.refused,
           report.counts.devices - report.allowed - report.refused);
}

Json::Value toJson(const Answer& answer) {
    Json::Value value;
    value["allowed"] = answer.allowed;
    value["reason"] = answer.reason;
    value["lines"] = toArray(answer.lines);
    return value;
}

Json::Value toJson(const Difference& difference) {
    const DeviceFacts& device = difference.change.device;
    Json::Value value;
    if (difference.count == 0) {
        value["what"] = difference.name;
    } else {
        value["count"] = Json::UInt64(difference.count);
        value["name"] = difference.name;
        value["kind"] = kindName(device.deviceType);
    }
    if (device.vendorId != kUnknownId) value["vendor"] = device.vendorId;
    if (device.productId != kUnknownId) value["product"] = device.productId;
    const bool sampleOfNone = device.interfaceClassList == std::vector<int32_t>{kUnnamedClass};
    value["classes"] = sampleOfNone ? Json::arrayValue : toArray(classNames(device));
    value["old"] = toJson(difference.change.before);
    value["new"] = toJson(difference.change.after);
    return value;
}

void printAsJson(const Report& report, bool byDevices) {
    Json::Value value;
    value["changes"] = toArray(report.differences, [](const auto& each) { return toJson(each); });
    if (byDevices) {
        value["devices"] = Json::UInt64(report.counts.devices);
        value["nowAllowed"] = Json::UInt64(report.allowed);
        value["nowRefused"] = Json::UInt64(report.refused);
        value["furtherAllowed"] = Json::UInt64(report.furtherAllowed);
        value["furtherRefused"] = Json::UInt64(report.furtherRefused);
        value["noDevices"] = Json::UInt64(report.counts.others);
    }
    puts(jsonText(value).c_str());
}

int run(int argc, char** argv) {
    std::string devices;
    bool json = false;
    parseOptions(argc, argv, {{"devices", &devices}, {"json", &json}});
    if (argc - optind < 2) wrongUse("give two rules files: OLD and NEW");
    const std::string oldPath = argv[optind++], newPath = argv[optind++];
    expectNoArguments(argc, argv);

    Rules before = loadRules(oldPath), after = loadRules(newPath);
    const bool byDevices = !devices.empty();
    const Report report =
        byDevices ? compareDevices(&before, &after, devices) : compareByRules(&before, &after);
    if (json) {
        printAsJson(report, byDevices);
    } else {
        printText(report, byDevices, oldPath, newPath);
    }
    return report.differences.empty() && report.counts.others == 0 ? kYes : kNoOrFailed;
}

}  // namespace

bool printRuleChanges(Rules* before, Rules* after, const std::string& oldPath,
                      const std::string& newPath) {
    const Report report = compareByRules(before, after);
    printDifferences(report, /*byDevices=*/false, oldPath, newPath);
    return !report.differences.empty();
}

const Command kDiffCommand = {"diff", "what a change of the rules would change", kHelp, run};

}  // namespace android::kus
