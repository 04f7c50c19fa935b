// SPDX-License-Identifier: Apache-2.0
#include <stdio.h>
#include <unistd.h>

#include "kusctl.h"
#include "util/Util.h"

namespace android::kus {
namespace {

constexpr char kHelp[] =
    R"(usage: kusctl check [OPTION]... --vendor V --product P --class C[,C...]
       kusctl check [OPTION]... [--vendor V --product P] --input SOURCE[,SOURCE...]
       kusctl check [OPTION]... --devices FILE

Tells whether the rules would allow a USB device with these interface classes, or an input device
with these sources, and why. The daemon's own code decides; nothing is recorded or written, and no
daemon has to run. Exit status: 0 allowed, 1 refused or failed, 2 wrong use.

  --rules FILE   rules to decide by (/data/system/usbdeviceconfig/usb_device_config.xml)
  --vendor V     vendor id: 1133 or 0x046d
  --product P    product id
  --class C      class of each interface of the device: USB_CLASS_MASS_STORAGE, mass_storage,
                 8 or 0x08
  --input SOURCE what an input device is: AINPUT_SOURCE_KEYBOARD, keyboard or 0x100
  --devices FILE decides on devices, JSON objects, one a line, as 'kusctl list --json' and 'kusctl
                 watch --json' print them; "-" for the standard input
  --vendor-hid   the device has a vendor-specific HID interface
  --verbose      prints the daemon's log lines of the decision to standard error
  --json         prints an object instead of text

With --devices it prints a line for each device, in their order: answer, VENDOR:PRODUCT, name and
reason, with tabs between them; in JSON an object with "allowed", "device", the line's object as it
came, and "reason".
A line that is no device is reported with its number and left out. The exit status is then 0 when
every line was a device, allowed or not.

What it cannot know: whether a USB device with no interface but HID is a vendor-specific HID (the
daemon asks the kernel; say it with --vendor-hid) or is left to the input subsystem; whether
ro.config.device.kus_automation, which allows every device, is set; and whether the daemon has
taken these rules.
)";

struct Question {
    std::string rules = configFilePath;
    DeviceFacts device;
    /** Path of a list to decide on instead of the device, or empty. */
    std::string devices;
    bool verbose = false;
    bool json = false;
};

Question parseArguments(int argc, char** argv) {
    Question question;
    DeviceFacts& device = question.device;
    parseOptions(
        argc, argv,
        {{"rules", &question.rules},
         {"vendor", [&](const char* id) { device.vendorId = parseId("vendor", id); }},
         {"product", [&](const char* id) { device.productId = parseId("product", id); }},
         {"class", [&](const char* list) { device.interfaceClassList = parseUsbClasses(list); }},
         {"input",
          [&](const char* list) {
              device.deviceType = 1;
              for (const int32_t code : parseInputSources(list)) device.deviceClass |= code;
          }},
         {"devices", &question.devices},
         {"vendor-hid", &device.vendorHid},
         {"verbose", &question.verbose},
         {"json", &question.json}});
    expectNoArguments(argc, argv);
    return question;
}

void expectComplete(const Question& question) {
    const DeviceFacts& device = question.device;
    const bool vendor = device.vendorId != kUnknownId, product = device.productId != kUnknownId;
    if (!question.devices.empty()) {
        if (vendor || product || device.deviceType != 0 || !device.interfaceClassList.empty() ||
            device.vendorHid || question.verbose) {
            wrongUse("--devices stands alone: only --rules and --json go with it");
        }
        return;
    }
    if (device.deviceType != 0) {
        if (!device.interfaceClassList.empty()) wrongUse("give --class or --input, not both");
        if (device.vendorHid) wrongUse("--vendor-hid is about a USB device, --input is not");
        if (vendor != product) wrongUse("give --vendor and --product together");
    } else if (!vendor || !product || device.interfaceClassList.empty()) {
        wrongUse("give --vendor, --product and --class, or --input, or --devices");
    }
}

std::string reasonText(const Answer& answer) {
    if (!answer.leftToInput) return answer.reason;
    return "left to the input subsystem, which asks with --input "
           "(unless it is a vendor HID: --vendor-hid)";
}

void printText(const Answer& answer) {
    printf("%s: %s\n", verdictText(answer.allowed).c_str(), reasonText(answer).c_str());
    for (const Warning& warning : answer.warnings) {
        printf("warning: %s\n", withCure(warning).c_str());
    }
    const char* introduction = "would be allowed by:";
    for (const std::string& remedy : answer.remedies) {
        printf("%s %s\n", introduction, remedy.c_str());
        introduction = "              or by:";
    }
}

void printAsJson(const Question& question, const std::string& mode, const Answer& answer) {
    Json::Value value;
    value["allowed"] = answer.allowed;
    value["mode"] = mode;
    value["reason"] = reasonText(answer);
    value["rules"] = question.rules;
    value["lines"] = toArray(answer.lines);
    value["warnings"] = toArray(answer.warnings, withCure);
    value["wouldBeAllowedBy"] = toArray(answer.remedies);
    puts(jsonText(value).c_str());
}

void printLine(const DeviceLine& line, bool allowed, const std::string& reason, bool json) {
    if (json) {
        // What the reason is made of needs no escapes.
        printf("{\"allowed\": %s,\"device\": %.*s,\"reason\": \"%s\"}\n",
               allowed ? "true" : "false", static_cast<int>(line.json.size()), line.json.data(),
               reason.c_str());
    } else {
        printf("%s\t%d:%d\t%s\t%s\n", allowed ? "allowed" : "refused", line.device.vendorId,
               line.device.productId, printable(unescaped(line.name)).c_str(), reason.c_str());
    }
}

int checkDevices(Rules* rules, const std::string& path, bool json) {
    std::string reason;
    const DeviceCounts counts =
        forEachDevice(path, /*showProgress=*/!isatty(STDOUT_FILENO), [&](const DeviceLine& line) {
            const bool allowed = rules->allows(line.device, &reason);
            printLine(line, allowed, reason, json);
        });
    return counts.others == 0 ? kYes : kNoOrFailed;
}

int run(int argc, char** argv) {
    const Question question = parseArguments(argc, argv);
    expectComplete(question);
    Rules rules = loadRules(question.rules);
    if (!question.devices.empty()) return checkDevices(&rules, question.devices, question.json);
    if (question.verbose) {
        for (const std::string& line : rules.trace(question.device)) {
            fprintf(stderr, "%s\n", line.c_str());
        }
    }
    const Answer answer = rules.decide(question.device);
    if (question.json) {
        printAsJson(question, rules.mode(), answer);
    } else {
        printText(answer);
    }
    return answer.allowed ? kYes : kNoOrFailed;
}

}  // namespace

const Command kCheckCommand = {"check", "would a device be allowed, and why", kHelp, run};

}  // namespace android::kus
