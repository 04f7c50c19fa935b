// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>

#include "kusctl.h"

namespace android::kus {
namespace {

constexpr char kHelp[] = R"(usage: kusctl list [--json]

Lists the devices that the service has decided on and that are still attached: input devices first,
then USB devices, each by id. Numbers are decimal, as in a rules file.

  --json  prints one object a line instead of a table

CATEGORY is a sum over the device's interfaces (1 network, 2 serial, 4 mass storage, 8 vendor HID)
and the kernel's names behind it. A keyboard or mouse is recorded as an input device only. Into a
pipe the columns are separated by tabs.
)";

using Row = std::vector<std::string>;

constexpr char kStatus[] = "STATUS";

/** The sum and the names behind it, without those of interfaces that have none. */
std::string categoryText(const DeviceInfo& device) {
    std::string text = std::to_string(device.category);
    for (const std::string& name : base::Split(device.categoryPath, ";")) {
        if (!name.empty() && name != "empty") text += " " + printable(name);
    }
    return text;
}

Row toRow(const DeviceInfo& device) {
    return {std::to_string(device.deviceId),
            kindName(device.deviceType),
            printable(nameOf(device)),
            std::to_string(device.vendorId) + ":" + std::to_string(device.productId),
            base::Join(classNames(factsOf(device)), ','),
            device.status != 0 ? "allowed" : "refused",
            categoryText(device),
            printable(device.reason)};
}

/** In characters, where each takes one column. */
size_t width(const std::string& text) {
    return std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; });
}

void printAligned(const std::vector<Row>& rows) {
    std::vector<size_t> widths(rows[0].size());
    for (const Row& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
    }
    for (const Row& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            const bool verdict = rows[0][i] == kStatus && &row != &rows[0];
            line += verdict ? verdictText(row[i] == "allowed") : row[i];
            if (i + 1 < row.size()) line.append(widths[i] - width(row[i]) + 2, ' ');
        }
        puts(line.c_str());
    }
}

void printTable(const std::vector<DeviceInfo>& devices) {
    std::vector<Row> rows = {
        {"ID", "KIND", "NAME", "VENDOR:PRODUCT", "CLASSES", kStatus, "CATEGORY", "REASON"}};
    for (const DeviceInfo& device : devices) rows.push_back(toRow(device));
    if (isatty(STDOUT_FILENO)) {
        printAligned(rows);
    } else {
        for (const Row& row : rows) puts(base::Join(row, '\t').c_str());
    }
}

int run(int argc, char** argv) {
    bool json = false;
    parseOptions(argc, argv, {{"json", &json}});
    expectNoArguments(argc, argv);

    const std::vector<DeviceInfo> devices = recordedDevices();
    if (json) {
        for (const DeviceInfo& device : devices) puts(jsonText(recordToJson(device), "").c_str());
    } else {
        printTable(devices);
    }
    return kYes;
}

}  // namespace

const Command kListCommand = {"list", "devices that the service has decided on", kHelp, run};

}  // namespace android::kus
