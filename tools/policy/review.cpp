// SPDX-License-Identifier: Apache-2.0
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <tinyxml2.h>

#include <algorithm>
#include <limits>
#include <map>
#include <optional>

#include "policy.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using tinyxml2::XMLAttribute;
using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;
using tinyxml2::XMLNode;

constexpr uint32_t kMaxUsbId = 0xFFFF;

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
        warnings.push_back(
            {0, kCrashKind, "the document has no element, which ends the daemon", ""});
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
    warnings.push_back({node.GetLineNum(), kind, message, ""});
}

}  // namespace

std::vector<Warning> reviewRules(const std::string& text) {
    XMLDocument document(/*processEntities=*/true, tinyxml2::PRESERVE_WHITESPACE);
    if (document.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) return {};
    return RulesReview(document).warnings;
}

}  // namespace android::kus
