// SPDX-License-Identifier: Apache-2.0
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <stdio.h>
#include <tinyxml2.h>

#include <algorithm>
#include <limits>
#include <map>
#include <optional>

#include "kusctl.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

using tinyxml2::XMLAttribute;
using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;
using tinyxml2::XMLNode;

constexpr char kHelp[] = R"(usage: kusctl lint [--json] FILE...

Checks rules files before they reach a device, with the daemon's own parser. Prints for each file
the status text that the device would report, with the line it comes from, and warns of what the
parser takes without a word. Writes nothing, and needs no daemon.

  --json  prints an array of objects: file, verdict ("accepted", "refused", "crash" or
          "unreadable"), status, line and warnings (each with kind, line and message)

Kinds of warnings: crash, allows-nothing, duplicate, whole-vendor, ignored, taken-as-product,
never-matches, blanks.

Exit status: 0 when every file is accepted, warnings or not; 1 when one is not; 2 wrong use.
)";

constexpr uint32_t kMaxUsbId = 0xFFFF;
constexpr char kCrashKind[] = "crash";

struct Warning {
    int line;
    std::string kind;
    std::string message;
};

std::string quoted(const std::string& text) { return "'" + text + "'"; }

std::string inLine(int line) { return " (line " + std::to_string(line) + ")"; }

/**
 * Looks in a whole document for what the parser takes without a word, beyond a first error too. It
 * gives no verdict.
 */
class RulesReview {
  public:
    explicit RulesReview(const XMLDocument& document);

    /** By line. */
    std::vector<Warning> warnings;

  private:
    void reviewRoot(const XMLElement& root);
    void reviewRules(const XMLElement& root);
    void reviewClass(const XMLElement& element);
    void reviewVendor(const XMLElement& element);
    void reviewVendorContent(const XMLElement& element, const XMLElement* firstProduct);
    void reviewProduct(const XMLElement& element, std::optional<int32_t> vendor);
    void reviewWholeVendors();

    void reviewAttributes(const XMLElement& element, const char* known);
    void reviewText(const XMLElement& element);
    void reviewValue(const XMLElement& element);
    void reviewBlanks(const XMLElement& element, const char* what, const std::string& value);
    std::optional<int32_t> reviewId(const XMLElement& element, const char* what, const char* value);
    void warn(const XMLNode& node, const std::string& kind, const std::string& message);

    /** Rule to the line that gave it first. */
    std::map<std::string, int> classes_;
    std::map<int32_t, int> wholeVendors_;
    std::map<std::pair<int32_t, int32_t>, int> products_;
    /** Vendors listed with products, in file order. */
    std::vector<std::pair<int32_t, const XMLElement*>> vendorsWithProducts_;
};

RulesReview::RulesReview(const XMLDocument& document) {
    const XMLElement* root = document.FirstChildElement();
    if (root == nullptr) {
        warnings.push_back({0, kCrashKind, "the document has no element, which ends the daemon"});
    } else if (root->Name() == std::string("usbconfig")) {
        reviewRoot(*root);
    }
    std::stable_sort(warnings.begin(), warnings.end(),
                     [](const Warning& a, const Warning& b) { return a.line < b.line; });
}

void RulesReview::reviewRoot(const XMLElement& root) {
    reviewAttributes(root, "mode");
    if (const XMLElement* next = root.NextSiblingElement()) {
        warn(*next, "ignored", "everything after the first root element is ignored");
    }
    const char* attribute = root.Attribute("mode");
    const std::string mode = attribute == nullptr ? "" : attribute;
    reviewBlanks(root, "mode", mode);
    const XMLElement* first = root.FirstChildElement();
    if (mode == "default") {
        if (first != nullptr) warn(*first, "ignored", "in mode 'default' every rule is ignored");
        return;
    }
    if (mode == "whitelist" && first == nullptr) {
        warn(root, "allows-nothing", "a whitelist without a rule refuses every device");
    }
    reviewRules(root);
}

void RulesReview::reviewRules(const XMLElement& root) {
    reviewText(root);
    for (auto* rule = root.FirstChildElement(); rule != nullptr;
         rule = rule->NextSiblingElement()) {
        const std::string name = rule->Name();
        if (name == "class") reviewClass(*rule);
        if (name == "vid") reviewVendor(*rule);
    }
    reviewWholeVendors();
}

void RulesReview::reviewClass(const XMLElement& element) {
    reviewAttributes(element, nullptr);
    reviewValue(element);
    const char* name = element.GetText();
    if (name == nullptr) return;
    reviewBlanks(element, "class", name);
    const auto [first, added] = classes_.emplace(name, element.GetLineNum());
    if (!added) {
        warn(element, "duplicate",
             "class " + quoted(name) + " is listed already" + inLine(first->second));
    }
}

void RulesReview::reviewVendor(const XMLElement& element) {
    reviewAttributes(element, "vendorid");
    std::optional<int32_t> vendor;
    if (const char* id = element.Attribute("vendorid")) vendor = reviewId(element, "vendor", id);

    const XMLElement* product = element.FirstChildElement("pid");
    reviewVendorContent(element, product);
    if (product != nullptr) {
        if (vendor) vendorsWithProducts_.emplace_back(*vendor, &element);
        for (; product != nullptr; product = product->NextSiblingElement()) {
            reviewProduct(*product, vendor);
        }
        return;
    }
    if (!vendor) return;
    const auto [first, added] = wholeVendors_.emplace(*vendor, element.GetLineNum());
    if (!added) {
        warn(element, "duplicate",
             "vendor " + std::to_string(*vendor) + " is listed as a whole already" +
                 inLine(first->second));
    }
}

void RulesReview::reviewVendorContent(const XMLElement& element, const XMLElement* firstProduct) {
    reviewText(element);
    for (auto* child = element.FirstChildElement(); child != firstProduct;
         child = child->NextSiblingElement()) {
        warn(
            *child, "ignored",
            "element " + quoted(child->Name()) +
                (firstProduct != nullptr
                     ? " before the first 'pid' is ignored"
                     : " is ignored: without a 'pid' the rule is for every product of the vendor"));
    }
}

void RulesReview::reviewProduct(const XMLElement& element, std::optional<int32_t> vendor) {
    if (element.Name() != std::string("pid")) {
        warn(element, "taken-as-product",
             "element " + quoted(element.Name()) + " after a 'pid' is taken as one");
    }
    reviewAttributes(element, nullptr);
    reviewValue(element);
    const char* id = element.GetText();
    if (id == nullptr) return;
    const std::optional<int32_t> product = reviewId(element, "product", id);
    if (!vendor || !product) return;
    const auto [first, added] =
        products_.emplace(std::pair(*vendor, *product), element.GetLineNum());
    if (!added) {
        warn(element, "duplicate",
             "product " + std::to_string(*product) + " of vendor " + std::to_string(*vendor) +
                 " is listed already" + inLine(first->second));
    }
}

// See Util::validateVid: a vendor that is listed matches as a whole when it, or any vendor with a
// greater id, is listed without products.
void RulesReview::reviewWholeVendors() {
    for (const auto& [vendor, element] : vendorsWithProducts_) {
        const auto whole = wholeVendors_.lower_bound(vendor);
        if (whole == wholeVendors_.end()) continue;
        const auto& [other, line] = *whole;
        if (other == vendor) {
            warn(*element, "duplicate",
                 "vendor " + std::to_string(vendor) + " is listed as a whole too" + inLine(line));
        } else {
            warn(*element, "whole-vendor",
                 "every product of vendor " + std::to_string(vendor) + " matches: vendor " +
                     std::to_string(other) + inLine(line) +
                     ", whose id is greater, is listed without products");
        }
    }
}

void RulesReview::reviewAttributes(const XMLElement& element, const char* known) {
    const XMLAttribute* read = known == nullptr ? nullptr : element.FindAttribute(known);
    for (auto* attribute = element.FirstAttribute(); attribute != nullptr;
         attribute = attribute->Next()) {
        if (attribute != read) {
            warn(element, "ignored", "attribute " + quoted(attribute->Name()) + " is ignored");
        }
    }
}

void RulesReview::reviewText(const XMLElement& element) {
    for (auto* child = element.FirstChild(); child != nullptr; child = child->NextSibling()) {
        if (child->ToText() == nullptr) continue;
        const std::string text = base::Trim(child->Value());
        if (!text.empty()) warn(*child, "ignored", "text " + quoted(text) + " is ignored");
    }
}

// A comment or an element cuts a value in two, and only the first part is read.
void RulesReview::reviewValue(const XMLElement& element) {
    bool value = false;
    for (auto* child = element.FirstChild(); child != nullptr; child = child->NextSibling()) {
        if (child->ToComment() != nullptr) continue;
        if (value) {
            return warn(*child, "ignored",
                        "only the first piece of text in " + quoted(element.Name()) + " is read");
        }
        value = true;
    }
}

void RulesReview::reviewBlanks(const XMLElement& element, const char* what,
                               const std::string& value) {
    if (base::Trim(value) != value) {
        warn(element, "blanks",
             std::string("the blanks around ") + what + " " + quoted(value) + " are part of it");
    }
}

/** The id, when it is one that the parser takes. */
std::optional<int32_t> RulesReview::reviewId(const XMLElement& element, const char* what,
                                             const char* value) {
    reviewBlanks(element, what, value);
    if (!Util::isValidNumber(value)) return {};
    const std::string id = std::string(what) + " id " + value;
    uint32_t number;
    if (!base::ParseUint(value, &number, uint32_t{std::numeric_limits<int32_t>::max()})) {
        warn(element, kCrashKind, id + " does not fit 32 bits, which ends the daemon");
        return {};
    }
    if (number > kMaxUsbId) {
        warn(element, "never-matches", id + " is above 65535: no device has it");
    }
    return number;
}

void RulesReview::warn(const XMLNode& node, const std::string& kind, const std::string& message) {
    warnings.push_back({node.GetLineNum(), kind, message});
}

std::vector<Warning> review(const std::string& path) {
    XMLDocument document(/*processEntities=*/true, tinyxml2::PRESERVE_WHITESPACE);
    if (document.LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS) return {};
    return RulesReview(document).warnings;
}

struct FileReport {
    std::string file;
    /** "accepted", "refused", "crash" or "unreadable". */
    std::string verdict;
    std::string status;
    int line = 0;
    std::vector<Warning> warnings;
};

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

FileReport lintFile(const std::string& path) {
    if (const std::string reason = whyUnreadable(path); !reason.empty()) {
        return {path, "unreadable", reason, 0, {}};
    }
    const Verdict verdict = judgeRules(path);
    FileReport report = {path, nameOf(verdict.outcome), verdict.status, verdict.line, review(path)};
    if (verdict.outcome == Verdict::Outcome::kCrash) {
        // The parser died without telling where; the first finding of the kind is what killed it.
        const auto cause =
            std::find_if(report.warnings.begin(), report.warnings.end(),
                         [](const Warning& warning) { return warning.kind == kCrashKind; });
        if (cause != report.warnings.end()) report.line = cause->line;
    }
    return report;
}

void printFinding(const std::string& file, int line, const std::string& text) {
    const std::string place = line > 0 ? file + ":" + std::to_string(line) : file;
    printf("%s: %s\n", printable(place).c_str(), printable(text).c_str());
}

void printText(const FileReport& report) {
    if (report.verdict == "unreadable") return note(report.file + ": " + report.status);
    printFinding(report.file, report.line, report.verdict + ": " + report.status);
    for (const Warning& warning : report.warnings) {
        printFinding(report.file, warning.line, "warning: " + warning.message);
    }
}

Json::Value toJson(const FileReport& report) {
    Json::Value value;
    value["file"] = report.file;
    value["verdict"] = report.verdict;
    value["status"] = report.status;
    value["line"] = report.line;
    value["warnings"] = Json::arrayValue;
    for (const Warning& warning : report.warnings) {
        Json::Value item;
        item["kind"] = warning.kind;
        item["line"] = warning.line;
        item["message"] = warning.message;
        value["warnings"].append(item);
    }
    return value;
}

int run(int argc, char** argv) {
    bool json = false;
    while (nextOption(argc, argv, {{"json", no_argument, nullptr, 'j'}}) != -1) json = true;
    if (optind == argc) wrongUse("no rules file given");

    Json::Value all = Json::arrayValue;
    int status = kYes;
    for (int i = optind; i < argc; ++i) {
        const FileReport report = lintFile(argv[i]);
        if (report.verdict != "accepted") status = kNoOrFailed;
        if (json) {
            all.append(toJson(report));
        } else {
            printText(report);
        }
    }
    if (json) puts(jsonText(all).c_str());
    return status;
}

}  // namespace

const Command kLintCommand = {"lint", "check rules files before they reach a device", kHelp, run};

}  // namespace android::kus
