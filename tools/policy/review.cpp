// SPDX-License-Identifier: Apache-2.0
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <string.h>
#include <tinyxml2.h>

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <string_view>

#include "markup.h"
#include "policy.h"
#include "util/Util.h"
#include "util/rule_tables.h"
#include "whole_vendors.h"

namespace android::kus {
namespace {

using tinyxml2::XMLAttribute;
using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;
using tinyxml2::XMLNode;

std::string quoted(const std::string& text) { return "'" + text + "'"; }

std::string inLine(int line) { return " (line " + std::to_string(line) + ")"; }

/**
 * Looks in a whole document for what the parser takes without a word, beyond a first error too. It
 * gives no verdict.
 */
class RulesReview {
  public:
    RulesReview(const std::string& text, const XMLDocument& document);

    /** By line. */
    std::vector<Warning> warnings;

  private:
    void reviewEnd(const std::string& text);
    void reviewRoot(const XMLElement& root);
    void reviewRules(const XMLElement& root);
    void reviewClass(const XMLElement& element);
    void reviewUnknownClass(const XMLElement& element, const std::string& name);
    void reviewVendor(const XMLElement& element);
    void reviewVendorContent(const XMLElement& element, const XMLElement* firstProduct);
    void reviewProduct(const XMLElement& element, std::optional<int32_t> vendor);
    void reviewWholeVendors();
    void reviewWhitelist(const XMLElement& root);

    void reviewAttributes(const XMLElement& element, const char* known);
    void reviewText(const XMLNode& parent);
    void reviewValue(const XMLElement& element);
    void reviewBlanks(const XMLElement& element, const char* what, const std::string& value);
    std::optional<int32_t> reviewId(const XMLElement& element, const char* what, const char* value);
    void reviewNoNumber(const XMLElement& element, const std::string& value);
    void warn(const XMLNode& node, const std::string& kind, const std::string& message,
              const std::string& cure = "");
    void warn(int line, const std::string& kind, const std::string& message,
              const std::string& cure = "");

    /** Rule to the line that gave it first. */
    std::map<std::string, int> classes_;
    std::map<int32_t, int> wholeVendors_;
    std::map<std::pair<int32_t, int32_t>, int> products_;
    /** A rule's class or name is none that the parser takes, so that what is missing may be it. */
    bool misread_ = false;
    /** Vendor to the line that first lists products of it. */
    std::map<int32_t, int> vendorsWithProducts_;
};

RulesReview::RulesReview(const std::string& text, const XMLDocument& document) {
    const XMLElement* root = document.FirstChildElement();
    if (root == nullptr) {
        warn(0, kCrashKind, "the document has no element, which ends the daemon");
    } else if (root->Name() == std::string("usbconfig")) {
        reviewRoot(*root);
    }
    reviewText(document);
    reviewEnd(text);
    std::stable_sort(warnings.begin(), warnings.end(),
                     [](const Warning& a, const Warning& b) { return a.line < b.line; });
}

void RulesReview::reviewEnd(const std::string& text) {
    const size_t end = findMarkup(text).end;
    constexpr std::string_view kNothing(" \t\r\n\0", 5);
    const size_t rest = text.find_first_not_of(kNothing, end);
    if (rest == std::string::npos) return;
    const bool byNul = text[end] == '\0';
    warn(lineAt(text, end), "ignored",
         std::string(byNul ? "a NUL byte" : "an end tag that closes nothing") +
             " ends the document: everything after it is ignored",
         byNul ? "save the file as UTF-8 text" : "remove the tag");
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
    if (mode == "whitelist" && first != nullptr && !misread_) reviewWhitelist(root);
}

void RulesReview::reviewRules(const XMLElement& root) {
    reviewText(root);
    for (auto* rule = root.FirstChildElement(); rule != nullptr;
         rule = rule->NextSiblingElement()) {
        const std::string name = rule->Name();
        if (name == "class") {
            reviewClass(*rule);
        } else if (name == "vid") {
            reviewVendor(*rule);
        } else {
            misread_ = true;
        }
    }
    reviewWholeVendors();
}

void RulesReview::reviewClass(const XMLElement& element) {
    reviewAttributes(element, nullptr);
    reviewValue(element);
    const char* name = element.GetText();
    if (name == nullptr) {
        misread_ = true;
        return;
    }
    reviewBlanks(element, "class", name);
    reviewUnknownClass(element, name);
    const auto [first, added] = classes_.emplace(name, element.GetLineNum());
    if (!added) {
        warn(element, "duplicate",
             "class " + quoted(name) + " is listed already" + inLine(first->second));
    }
}

/** The code of a class by another name, if any: in lower case, with the other prefix ... */
std::optional<int32_t> codeMeantBy(const std::string& name) {
    const std::string text = base::Trim(name);
    const size_t prefix = text.rfind("_CLASS_"), otherPrefix = text.rfind("_SOURCE_");
    const size_t stem = prefix != std::string::npos        ? prefix + strlen("_CLASS_")
                        : otherPrefix != std::string::npos ? otherPrefix + strlen("_SOURCE_")
                                                           : 0;
    for (const std::string& guess : {text, text.substr(stem)}) {
        for (const std::string& form : {guess, guess.substr(0, guess.size() - 1)}) {
            for (const auto codeOf : {usbClassCode, inputSourceCode}) {
                const std::optional<int32_t> code = codeOf(form);
                if (code && Util::getClassName(*code) != " ") return code;
            }
        }
    }
    return {};
}

void RulesReview::reviewUnknownClass(const XMLElement& element, const std::string& name) {
    const uint32_t exact = Util::convert(name);
    if (exact != NO_CLASS && !Util::validateRestrictedClass(exact)) return;
    misread_ = true;
    const std::optional<int32_t> code = codeMeantBy(name);
    if (!code) return;
    if (Util::validateRestrictedClass(*code)) {
        warn(element, "restricted-class", quoted(name) + " is a restricted class",
             "name the devices by 'vid' and 'pid'");
    } else if (base::Trim(name) == name) {
        warn(element, "unknown-class", quoted(name) + " is no name of a class",
             "write " + Util::getClassName(*code));
    }
}

void RulesReview::reviewVendor(const XMLElement& element) {
    reviewAttributes(element, "vendorid");
    std::optional<int32_t> vendor;
    if (const char* id = element.Attribute("vendorid")) vendor = reviewId(element, "vendor", id);

    const XMLElement* product = element.FirstChildElement("pid");
    reviewVendorContent(element, product);
    if (product != nullptr) {
        if (vendor) vendorsWithProducts_.emplace(*vendor, element.GetLineNum());
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
        if (firstProduct != nullptr) {
            warn(*child, "ignored",
                 "element " + quoted(child->Name()) + " before the first 'pid' is ignored");
        } else {
            warn(*child, "ignored",
                 "element " + quoted(child->Name()) +
                     " is ignored: without a 'pid' the rule is for every product of the vendor",
                 "write 'pid' for a product");
        }
    }
}

void RulesReview::reviewProduct(const XMLElement& element, std::optional<int32_t> vendor) {
    if (element.Name() != std::string("pid")) {
        warn(element, "taken-as-product",
             "element " + quoted(element.Name()) + " after a 'pid' is taken as one",
             "close the 'vid' before it");
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

void RulesReview::reviewWholeVendors() {
    std::map<int32_t, int> listed;
    for (const auto& [vendor, line] : vendorsWithProducts_) {
        const auto whole = wholeVendors_.lower_bound(vendor);
        if (whole == wholeVendors_.end()) break;
        if (whole->first != vendor) {
            listed.emplace(vendor, line);
        } else {
            warn(line, "duplicate",
                 "vendor " + std::to_string(vendor) + " is listed as a whole too" +
                     inLine(whole->second));
        }
    }
    if (listed.empty()) return;
    const auto greater = wholeVendors_.upper_bound(listed.begin()->first);
    warnings.push_back(wholeVendorWarning(listed, {greater, wholeVendors_.end()}));
}

void RulesReview::reviewWhitelist(const XMLElement& root) {
    bool input = root.FirstChildElement("vid") != nullptr;
    int line = 0;
    std::string usbClass;
    for (const auto& [name, firstLine] : classes_) {
        const int32_t code = Util::convert(name);
        if (inputSourceNames.count(code) != 0) {
            input |= (code & (keyboardSources() | pointerSources())) != 0;
        } else if (line == 0 || firstLine < line) {
            line = firstLine;
            usbClass = name;
        }
    }
    if (!input) {
        warn(root, "no-input", "every keyboard, mouse and touch screen is refused",
             "name them by 'vid' and 'pid', or allow AINPUT_SOURCE_KEYBOARD and the like");
    }
    if (!usbClass.empty()) {
        warnings.push_back({line, "restricted-interfaces",
                            "class " + quoted(usbClass) +
                                " allows a device that has HID or vendor-specific interfaces, too",
                            "name devices by 'vid' and 'pid' where that is too much",
                            /*isNote=*/true});
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

void RulesReview::reviewText(const XMLNode& parent) {
    for (auto* child = parent.FirstChild(); child != nullptr; child = child->NextSibling()) {
        if (child->ToText() == nullptr) continue;
        const std::string text = base::Trim(child->Value());
        if (!text.empty()) warn(*child, "ignored", "text " + quoted(text) + " is ignored");
    }
}

// A comment or an element cuts a value in two, and only the first part is read.
void RulesReview::reviewValue(const XMLElement& element) {
    bool value = false, comment = false;
    for (auto* child = element.FirstChild(); child != nullptr; child = child->NextSibling()) {
        if (child->ToComment() != nullptr) {
            comment = true;
            continue;
        }
        if (comment && !value && child->ToText() != nullptr) {
            warn(*child, "after-comment",
                 "text after a comment in " + quoted(element.Name()) +
                     ": not every version of the parser reads it",
                 "put the comment before the element");
        }
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
             std::string("the blanks around ") + what + " " + quoted(value) + " are part of it",
             "remove them");
    }
}

/** The id, when it is one that the parser takes. */
std::optional<int32_t> RulesReview::reviewId(const XMLElement& element, const char* what,
                                             const char* value) {
    reviewBlanks(element, what, value);
    if (!Util::isValidNumber(value)) {
        reviewNoNumber(element, base::Trim(value));
        return {};
    }
    const std::string id = std::string(what) + " id " + value;
    uint32_t number;
    if (!base::ParseUint(value, &number, uint32_t{std::numeric_limits<int32_t>::max()})) {
        warn(element, kCrashKind, id + " does not fit 32 bits, which ends the daemon",
             "ids go up to 65535");
        return {};
    }
    uint32_t hexadecimal;
    if (value[0] == '0' &&
        base::ParseUint(std::string("0x") + value, &hexadecimal, uint32_t{kMaxUsbId}) &&
        hexadecimal != number) {
        warn(element, "hexadecimal",
             quoted(value) + " is read as decimal " + std::to_string(number) + "; " + value +
                 " in hexadecimal is " + std::to_string(hexadecimal));
    }
    if (number > kMaxUsbId) {
        warn(element, "never-matches", id + " is above 65535: no device has it");
    }
    return number;
}

void RulesReview::reviewNoNumber(const XMLElement& element, const std::string& value) {
    if (Util::isValidNumber(value)) return;
    const std::string digits = value.substr(base::StartsWithIgnoreCase(value, "0x") ? 2 : 0);
    uint32_t id;
    // C libraries disagree on a prefix without digits.
    if (digits.empty() || !base::ParseUint("0x" + digits, &id, uint32_t{kMaxUsbId})) return;
    warn(element, "hexadecimal", quoted(value) + " is hexadecimal", "write " + std::to_string(id));
}

void RulesReview::warn(const XMLNode& node, const std::string& kind, const std::string& message,
                       const std::string& cure) {
    warn(node.GetLineNum(), kind, message, cure);
}

void RulesReview::warn(int line, const std::string& kind, const std::string& message,
                       const std::string& cure) {
    warnings.push_back({line, kind, message, cure});
}

/** "vendors 1, 2 and 3", each with its line if so wanted. */
std::string vendorList(const std::map<int32_t, int>& vendors, bool lines) {
    std::vector<std::string> names;
    for (const auto& [vendor, line] : vendors) {
        names.push_back(std::to_string(vendor) + (lines ? inLine(line) : ""));
    }
    if (names.size() == 1) return "vendor " + names[0];
    const std::string last = names.back();
    names.pop_back();
    return "vendors " + base::Join(names, ", ") + " and " + last;
}

}  // namespace

Warning wholeVendorWarning(const std::map<int32_t, int>& listed,
                           const std::map<int32_t, int>& whole) {
    const bool one = whole.size() == 1;
    return {listed.begin()->second, "whole-vendor",
            "every product of " + vendorList(listed, listed.size() > 1) +
                " matches, listed or not: " + vendorList(whole, true) +
                (one ? ", whose id is greater, is" : ", whose ids are greater, are") +
                " listed without products",
            "list the products of " + vendorList(whole, false) + ", too"};
}

std::string withCure(const Warning& warning) {
    return warning.cure.empty() ? warning.message : warning.message + "; " + warning.cure;
}

std::vector<Warning> reviewRules(const std::string& text) {
    std::vector<Warning> warnings;
    XMLDocument document(/*processEntities=*/true, tinyxml2::PRESERVE_WHITESPACE);
    if (document.Parse(text.data(), text.size()) == tinyxml2::XML_SUCCESS) {
        warnings = RulesReview(text, document).warnings;
    }
    if (base::StartsWith(text, "\xFF\xFE") || base::StartsWith(text, "\xFE\xFF")) {
        warnings.insert(warnings.begin(),
                        {0, "encoding", "the file is in UTF-16", "save it as UTF-8"});
    }
    return warnings;
}

}  // namespace android::kus
