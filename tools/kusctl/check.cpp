// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>

#include <mutex>
#include <optional>
#include <shared_mutex>

#include "ku_service/admission_rules.h"
#include "kusctl.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

constexpr char kHelp[] =
    R"(usage: kusctl check [OPTION]... --vendor V --product P --class C[,C...]
       kusctl check [OPTION]... [--vendor V --product P] --input SOURCE[,SOURCE...]

Tells whether the rules would allow a USB device with these interface classes, or an input device
with these sources, and why. The daemon's own code decides; nothing is recorded or written, and no
daemon has to run. Exit status: 0 allowed, 1 refused or failed, 2 wrong use.

  --rules FILE   rules to decide by (/data/system/usbdeviceconfig/usb_device_config.xml)
  --vendor V     vendor id: 1133 or 0x046d
  --product P    product id
  --class C      class of each interface of the device: USB_CLASS_MASS_STORAGE, mass_storage,
                 8 or 0x08
  --input SOURCE what an input device is: AINPUT_SOURCE_KEYBOARD, keyboard or 0x100
  --vendor-hid   the device has a vendor-specific HID interface
  --verbose      prints the daemon's log lines of the decision to standard error
  --json         prints an object instead of text

What it cannot know: whether a USB device with no interface but HID is a vendor-specific HID (the
daemon asks the kernel; say it with --vendor-hid) or is left to the input subsystem; whether
ro.config.device.kus_automation, which allows every device, is set; and whether the daemon has
taken these rules.
)";

enum Option { kRules = 1, kVendor, kProduct, kClass, kInput, kVendorHid, kVerbose, kJson };

constexpr int32_t kUnknownId = -1;  // matches no rule
constexpr uint32_t kMaxId = 0xFFFF;
constexpr uint32_t kMaxUsbClass = 0xFF;
constexpr char kUsbClassPrefix[] = "USB_CLASS_";
constexpr char kInputSourcePrefix[] = "AINPUT_SOURCE_";

struct Question {
    std::string rules = configFilePath;
    DeviceInfo device;
    bool vendorHid = false;
    bool verbose = false;
    bool json = false;
};

struct Answer {
    bool allowed;
    std::string reason;
    /** Rules that would change the answer, one of which is enough. */
    std::vector<std::string> remedies;
};

int32_t parseId(const std::string& what, const std::string& text) {
    uint32_t id;
    if (!base::ParseUint(text, &id, kMaxId)) {
        wrongUse(what + " '" + text + "' is no number from 0 to 65535 (0x... when hexadecimal)");
    }
    return id;
}

std::string upperCase(std::string text) {
    for (char& c : text) c = c == '-' ? '_' : toupper(static_cast<unsigned char>(c));
    return text;
}

/** The code of a full or a short name. */
std::optional<uint32_t> codeOf(const std::string& prefix, const std::string& name) {
    const std::string upper = upperCase(name);
    for (const std::string& full : {upper, prefix + upper}) {
        const uint32_t code = Util::convert(full);
        if (code != NO_CLASS && base::StartsWith(full, prefix)) return code;
    }
    return {};
}

std::string shortNames(const std::string& prefix) {
    std::vector<std::string> names;
    for (const ClassName& row : classNameTable) {
        if (base::StartsWith(row.name, prefix)) names.push_back(row.name + prefix.size());
    }
    return base::Join(names, ", ");
}

/** The codes in a list of names and numbers. */
std::vector<uint32_t> parseCodes(const std::string& prefix, const std::string& list, uint32_t max) {
    std::vector<uint32_t> codes;
    for (const std::string& item : base::Split(list, ",")) {
        const std::string text = base::Trim(item);
        uint32_t code;
        if (const auto named = codeOf(prefix, text)) {
            codes.push_back(*named);
        } else if (base::ParseUint(text, &code, max)) {
            codes.push_back(code);
        } else {
            wrongUse("'" + text + "' is neither a number up to " + std::to_string(max) +
                     " nor one of " + shortNames(prefix));
        }
    }
    return codes;
}

Question parseArguments(int argc, char** argv) {
    Question question;
    DeviceInfo& device = question.device;
    device.vendorId = device.productId = kUnknownId;
    const std::vector<option> options = {{"rules", required_argument, nullptr, kRules},
                                         {"vendor", required_argument, nullptr, kVendor},
                                         {"product", required_argument, nullptr, kProduct},
                                         {"class", required_argument, nullptr, kClass},
                                         {"input", required_argument, nullptr, kInput},
                                         {"vendor-hid", no_argument, nullptr, kVendorHid},
                                         {"verbose", no_argument, nullptr, kVerbose},
                                         {"json", no_argument, nullptr, kJson}};
    for (int found; (found = nextOption(argc, argv, options)) != -1;) {
        switch (found) {
            case kRules:
                question.rules = optarg;
                break;
            case kVendor:
                device.vendorId = parseId("vendor", optarg);
                break;
            case kProduct:
                device.productId = parseId("product", optarg);
                break;
            case kClass:
                for (const uint32_t code : parseCodes(kUsbClassPrefix, optarg, kMaxUsbClass)) {
                    device.interfaceClassList.push_back(code);
                }
                break;
            case kInput:
                device.deviceType = 1;
                for (const uint32_t code : parseCodes(kInputSourcePrefix, optarg, INT32_MAX)) {
                    device.deviceClass |= code;
                }
                break;
            case kVendorHid:
                question.vendorHid = true;
                break;
            case kVerbose:
                question.verbose = true;
                break;
            case kJson:
                question.json = true;
                break;
        }
    }
    expectNoArguments(argc, argv);
    return question;
}

void expectComplete(const Question& question) {
    const DeviceInfo& device = question.device;
    const bool vendor = device.vendorId != kUnknownId, product = device.productId != kUnknownId;
    if (device.deviceType != 0) {
        if (!device.interfaceClassList.empty()) wrongUse("give --class or --input, not both");
        if (question.vendorHid) wrongUse("--vendor-hid is about a USB device, --input is not");
        if (vendor != product) wrongUse("give --vendor and --product together");
    } else if (!vendor || !product || device.interfaceClassList.empty()) {
        wrongUse("give --vendor, --product and --class, or --input");
    }
}

void loadRules(const std::string& path) {
    if (const std::string reason = whyUnreadable(path); !reason.empty()) fail(path + ": " + reason);
    const Verdict verdict = judgeRules(path);
    if (verdict.outcome != Verdict::Outcome::kAccepted) {
        fail(path + ": the device would not take these rules: " + verdict.status +
             " (see 'kusctl lint " + path + "')");
    }
    Util::readConfig(path, [](const std::string&, int) {});
}

/** The codes that class rules have to name for the device to match; empty when they never can. */
std::vector<int32_t> codesToName(const DeviceInfo& device) {
    std::vector<int32_t> codes;
    for (const int32_t code : device.deviceType == 0 ? device.interfaceClassList
                                                     : Util::checkMultiClass(device.deviceClass)) {
        if (Util::validateRestrictedClass(code)) continue;
        if (Util::getClassName(code) == " ") return {};
        codes.push_back(code);
    }
    return codes;
}

std::vector<std::string> remediesFor(const DeviceInfo& device) {
    std::vector<std::string> remedies;
    std::string classes;
    for (const int32_t code : codesToName(device)) {
        const std::string rule = "<class>" + Util::getClassName(code) + "</class>";
        if (!Util::validateClass(code) && classes.find(rule) == std::string::npos) classes += rule;
    }
    if (!classes.empty()) remedies.push_back(classes);
    if (device.vendorId != kUnknownId) {
        remedies.push_back("<vid vendorid=\"" + std::to_string(device.vendorId) + "\"><pid>" +
                           std::to_string(device.productId) + "</pid></vid>");
    }
    return remedies;
}

void logToStandardError() {
    base::SetLogger([](base::LogId, base::LogSeverity, const char*, const char*, unsigned int,
                       const char* message) {
        if (*message != '\0') fprintf(stderr, "%s\n", message);
    });
}

Answer decide(const Question& question) {
    const DeviceInfo& device = question.device;
    if (device.deviceType == 0 && hasOnlyHidInterfaces(device) && !question.vendorHid) {
        return {false,
                "left to the input subsystem, which asks with --input "
                "(unless it is a vendor HID: --vendor-hid)",
                {}};
    }
    const std::shared_lock rules(ruleTablesLock);
    const std::string mode = Util::getMode();
    Answer answer;
    if (question.verbose) logToStandardError();
    {
        const base::ScopedLogSeverity severity(question.verbose ? base::INFO : base::FATAL);
        answer.allowed = evaluateRules(device, mode, &answer.reason);
    }
    if (!answer.allowed && mode == "whitelist") answer.remedies = remediesFor(device);
    return answer;
}

void printText(const Answer& answer) {
    printf("%s: %s\n", verdictText(answer.allowed).c_str(), answer.reason.c_str());
    const char* introduction = "would be allowed by:";
    for (const std::string& remedy : answer.remedies) {
        printf("%s %s\n", introduction, remedy.c_str());
        introduction = "               or by:";
    }
}

void printAsJson(const Question& question, const Answer& answer) {
    Json::Value value;
    value["allowed"] = answer.allowed;
    value["mode"] = Util::getMode();
    value["reason"] = answer.reason;
    value["rules"] = question.rules;
    value["wouldBeAllowedBy"] = Json::arrayValue;
    for (const std::string& remedy : answer.remedies) value["wouldBeAllowedBy"].append(remedy);
    puts(jsonText(value).c_str());
}

int run(int argc, char** argv) {
    const Question question = parseArguments(argc, argv);
    expectComplete(question);
    loadRules(question.rules);
    const Answer answer = decide(question);
    if (question.json) {
        printAsJson(question, answer);
    } else {
        printText(answer);
    }
    return answer.allowed ? kYes : kNoOrFailed;
}

}  // namespace

const Command kCheckCommand = {"check", "would a device be allowed, and why", kHelp, run};

}  // namespace android::kus
