// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <ctype.h>
#include <tinyxml2.h>

#include <algorithm>
#include <shared_mutex>

#include "ku_service/admission_rules.h"
#include "policy.h"
#include "util/Util.h"
#include "util/rule_tables.h"
#include "whole_vendors.h"

namespace android::kus {
namespace {

using tinyxml2::XMLElement;

std::string upperCase(std::string text) {
    for (char& c : text) c = c == '-' ? '_' : toupper(static_cast<unsigned char>(c));
    return text;
}

std::optional<int32_t> codeOf(const std::string& prefix, const std::string& text, uint32_t max) {
    const std::string upper = upperCase(text);
    for (const std::string& full : {upper, prefix + upper}) {
        const uint32_t code = Util::convert(full);
        if (code != NO_CLASS && base::StartsWith(full, prefix)) return code;
    }
    uint32_t number;
    if (!base::ParseUint(text, &number, max)) return {};
    return number;
}

std::vector<int32_t> codesOf(const DeviceFacts& device) {
    return device.deviceType == 0 ? device.interfaceClassList
                                  : Util::checkMultiClass(device.deviceClass);
}

/** The codes that class rules have to name for the device to match; empty when they never can. */
std::vector<int32_t> codesToName(const DeviceFacts& device) {
    std::vector<int32_t> codes;
    for (const int32_t code : codesOf(device)) {
        if (Util::validateRestrictedClass(code)) continue;
        if (Util::getClassName(code) == " ") return {};
        codes.push_back(code);
    }
    return codes;
}

int32_t sourceBits(std::initializer_list<const char*> names) {
    int32_t bits = 0;
    for (const char* name : names) bits |= inputSourceCode(name).value_or(0);
    return bits;
}

bool isLeftToInput(const DeviceFacts& device) {
    return device.deviceType == 0 && hasOnlyHidInterfaces(device) && !device.vendorHid;
}

}  // namespace

std::string ruleFor(const Subject& subject) {
    if (subject.classCode) return "<class>" + Util::getClassName(*subject.classCode) + "</class>";
    const std::string vendor = "<vid vendorid=\"" + std::to_string(subject.vendor) + "\"";
    if (subject.product == kUnknownId) return vendor + "/>";
    return vendor + "><pid>" + std::to_string(subject.product) + "</pid></vid>";
}

DeviceFacts sampleOf(const Subject& subject) {
    DeviceFacts device;
    device.vendorId = subject.vendor;
    device.productId = subject.product;
    const int32_t code = subject.classCode.value_or(kUnnamedClass);
    if (code <= kMaxUsbClass) {
        device.interfaceClassList = {code};
    } else {
        device.deviceType = 1;
        device.deviceClass = code;
    }
    return device;
}

std::optional<int32_t> usbClassCode(const std::string& text) {
    return codeOf(kUsbClassPrefix, text, kMaxUsbClass);
}

std::optional<int32_t> inputSourceCode(const std::string& text) {
    return codeOf(kInputSourcePrefix, text, INT32_MAX);
}

int32_t keyboardSources() { return sourceBits({"keyboard"}); }

int32_t pointerSources() {
    return sourceBits(
        {"mouse", "mouse_relative", "trackball", "touchpad", "touchscreen", "stylus"});
}

std::vector<std::string> classNames(const DeviceFacts& device) {
    std::vector<std::string> names;
    for (const int32_t code : codesOf(device)) {
        std::string name = Util::getClassName(code);
        if (name == " ") name = base::StringPrintf("0x%02x", code);
        if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    }
    return names;
}

const char* nameOf(Verdict::Outcome outcome) {
    switch (outcome) {
        case Verdict::Outcome::kAccepted:
            return "accepted";
        case Verdict::Outcome::kRefused:
            return "refused";
        case Verdict::Outcome::kCrash:
            break;
    }
    return "crash";
}

// The parser died without telling where; the first finding of the kind is what killed it.
Verdict crashVerdict(const std::vector<Warning>& warnings) {
    const auto cause = std::find_if(warnings.begin(), warnings.end(), [](const Warning& warning) {
        return warning.kind == kCrashKind;
    });
    return {Verdict::Outcome::kCrash, crashStatus, cause == warnings.end() ? 0 : cause->line};
}

/** Puts rules into the daemon's tables for a while. */
class Rules::InForce {
  public:
    explicit InForce(Rules* rules) : rules_(rules) { swap(); }
    ~InForce() { swap(); }

  private:
    void swap() {
        configMode.swap(rules_->mode_);
        classList.swap(rules_->classes_);
        classNameMap.swap(rules_->classNames_);
        vidPidMap.swap(rules_->products_);
        lastWholeVendor.swap(rules_->lastWholeVendor_);
    }

    Rules* const rules_;
};

Verdict Rules::parse(const std::string& text) {
    Verdict verdict = {};
    {
        const InForce inForce(this);
        errorMessage = "SUCCESS";
        Util::readText(text, [&](const std::string& message, int line) {
            verdict.status = message;
            verdict.line = line;
        });
    }
    indexLines(text);
    if (xml_parse_status) return {Verdict::Outcome::kAccepted, "SUCCESS", 0};
    verdict.outcome = Verdict::Outcome::kRefused;
    return verdict;
}

bool Rules::allows(const DeviceFacts& device, std::string* reason) {
    if (isLeftToInput(device)) {
        reason->clear();
        return false;
    }
    const InForce inForce(this);
    const std::shared_lock lock(ruleTablesLock);
    return evaluateRules(device, Util::getMode(), reason);
}

Answer Rules::decide(const DeviceFacts& device) {
    Answer answer = {};
    answer.leftToInput = isLeftToInput(device);
    if (answer.leftToInput) return answer;
    answer.allowed = allows(device, &answer.reason);
    const Match match = matchOf(answer.reason);
    answer.byClass = match == Match::kClass;
    answer.lines = linesOf(device, match);
    answer.warnings = warningsOn(device, match);
    if (!answer.allowed && mode_ == "whitelist") answer.remedies = remediesFor(device);
    return answer;
}

std::vector<std::string> Rules::trace(const DeviceFacts& device) {
    std::vector<std::string> lines;
    // Not for longer than this call: what is logged later must not find it.
    static std::vector<std::string>* trace;
    trace = &lines;
    base::SetLogger(
        [](base::LogId, base::LogSeverity, const char*, const char*, unsigned int, const char* m) {
            if (trace != nullptr && *m != '\0') trace->push_back(m);
        });
    {
        const base::ScopedLogSeverity severity(base::INFO);
        std::string reason;
        allows(device, &reason);
    }
    trace = nullptr;
    return lines;
}

// Finds what the parser has put into the tables, by the parser's own order.
void Rules::indexLines(const std::string& text) {
    classLines_.clear();
    productLines_.clear();
    tinyxml2::XMLDocument document(/*processEntities=*/true, tinyxml2::PRESERVE_WHITESPACE);
    document.Parse(text.data(), text.size());
    const XMLElement* root = document.RootElement();
    if (root == nullptr || (classes_.empty() && products_.empty())) return;
    const auto id = [](const char* digits) {
        int32_t number = kUnknownId;
        if (digits != nullptr) base::ParseInt(digits, &number);
        return number;
    };
    for (auto* rule = root->FirstChildElement(); rule != nullptr;
         rule = rule->NextSiblingElement()) {
        if (rule->Name() == std::string("class")) {
            const char* name = rule->GetText();
            if (name != nullptr) classLines_.emplace(Util::convert(name), rule->GetLineNum());
        } else {
            const int32_t vendor = id(rule->Attribute("vendorid"));
            const XMLElement* product = rule->FirstChildElement("pid");
            if (product == nullptr) {
                productLines_.emplace(std::pair(vendor, ANY_PRODUCT), rule->GetLineNum());
            }
            for (; product != nullptr; product = product->NextSiblingElement()) {
                productLines_.emplace(std::pair(vendor, id(product->GetText())),
                                      product->GetLineNum());
            }
        }
    }
}

// The daemon tells what matched by its words alone.
Rules::Match Rules::matchOf(const std::string& reason) {
    const auto says = [&](const char* how) { return reason.find(how) != std::string::npos; };
    return says("Match by ClassName") ? Match::kClass
           : says("Match by VID_PID") ? Match::kProduct
           : says("Match by VID,")    ? Match::kVendor
                                      : Match::kNone;
}

std::vector<int> Rules::linesOf(const DeviceFacts& device, Match match) const {
    std::vector<int> lines;
    if (match == Match::kClass) {
        for (const int32_t code : codesOf(device)) {
            const auto rule = classLines_.find(code);
            if (rule != classLines_.end()) lines.push_back(rule->second);
        }
    } else if (match == Match::kProduct) {
        lines.push_back(productLines_.at({device.vendorId, device.productId}));
    } else if (match == Match::kVendor) {
        // Its own rule, and where that has products the one of a greater vendor: see
        // Util::validateVid.
        auto rule = productLines_.lower_bound({device.vendorId, ANY_PRODUCT});
        lines.push_back(rule->second);
        while (rule->first.second != ANY_PRODUCT) ++rule;
        lines.push_back(rule->second);
    }
    std::sort(lines.begin(), lines.end());
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    return lines;
}

// See Util::validateVid.
std::vector<Warning> Rules::warningsOn(const DeviceFacts& device, Match match) const {
    if (match != Match::kVendor) return {};
    const auto rule = productLines_.lower_bound({device.vendorId, ANY_PRODUCT});
    if (rule->first.second == ANY_PRODUCT) return {};
    std::map<int32_t, int> whole;
    for (auto other = rule; other != productLines_.end(); ++other) {
        if (other->first.second == ANY_PRODUCT) whole.emplace(other->first.first, other->second);
    }
    return {wholeVendorWarning({{device.vendorId, rule->second}}, whole)};
}

bool Rules::namesProductsOf(int32_t vendor) const {
    const auto product = productLines_.upper_bound({vendor, ANY_PRODUCT});
    return product != productLines_.end() && product->first.first == vendor;
}

std::vector<std::string> Rules::remediesFor(const DeviceFacts& device) const {
    std::vector<std::string> remedies;
    std::string classes;
    for (const int32_t code : codesToName(device)) {
        const std::string rule = ruleFor({code});
        if (classNames_.count(code) == 0 && classes.find(rule) == std::string::npos) {
            classes += rule;
        }
    }
    if (!classes.empty()) remedies.push_back(classes);
    if (device.vendorId != kUnknownId) {
        remedies.push_back(ruleFor({{}, device.vendorId, device.productId}));
    }
    return remedies;
}

}  // namespace android::kus
