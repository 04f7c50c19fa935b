// SPDX-License-Identifier: Apache-2.0
#include "rules_model.h"

#include <string.h>
#include <tinyxml2.h>

#include <algorithm>
#include <iterator>
#include <set>

#include "util/rule_tables.h"

namespace android::kus {
namespace {

using tinyxml2::XMLElement;
using Ending = RulesModel::Ending;

/** Each step is false when nothing more is read. */
class Reader {
  public:
    bool readDocument(const std::string& text);
    RulesModel model;

  private:
    bool readClass(const char* name);
    bool readVendor(const XMLElement& element);
    bool add(const std::string& vendor, const std::string& product);

    bool end(Ending ending) {
        model.ending = ending;
        return false;
    }
};

bool isNumber(const char* text) {
    return text != nullptr && *text != '\0' && text[strspn(text, "0123456789")] == '\0';
}

bool fits(std::string digits) {
    digits.erase(0, digits.find_first_not_of('0'));
    const std::string greatest = "2147483647";
    return digits.size() < greatest.size() ||
           (digits.size() == greatest.size() && digits <= greatest);
}

bool Reader::readDocument(const std::string& text) {
    tinyxml2::XMLDocument document(true, tinyxml2::PRESERVE_WHITESPACE);
    if (document.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) return false;
    const XMLElement* root = document.FirstChildElement();
    if (root == nullptr) return end(Ending::kSegfaults);
    if (strcmp(root->Name(), "usbconfig") != 0) return false;
    const std::string mode = root->Attribute("mode") ? root->Attribute("mode") : "";
    if (mode == "default") return true;
    if (mode != "whitelist" && mode != "blacklist") return false;
    for (auto* rule = root->FirstChildElement(); rule; rule = rule->NextSiblingElement()) {
        const std::string name = rule->Name();
        if (name == "class" ? !readClass(rule->GetText()) : name != "vid" || !readVendor(*rule)) {
            return false;
        }
    }
    return true;
}

bool Reader::readClass(const char* name) {
    static const std::set<int32_t> restricted = {0x00, 0x03, 0x09, 0xEF, 0xFE, 0xFF};
    const auto* row =
        std::find_if(std::begin(classNameTable), std::end(classNameTable),
                     [&](const ClassName& r) { return name && !strcmp(r.name, name); });
    if (row == std::end(classNameTable) || restricted.count(row->code) != 0) return false;
    model.classes.push_back(row->code);
    return true;
}

bool Reader::readVendor(const XMLElement& element) {
    const char* vendor = element.Attribute("vendorid");
    if (!isNumber(vendor)) return false;
    const XMLElement* product = element.FirstChildElement("pid");
    if (product == nullptr) return add(vendor, "");
    for (; product; product = product->NextSiblingElement()) {
        if (!isNumber(product->GetText()) || !add(vendor, product->GetText())) return false;
    }
    return true;
}

bool Reader::add(const std::string& vendor, const std::string& product) {
    if (!fits(vendor) || !fits(product)) return end(Ending::kAborts);
    model.products.emplace(std::stoi(vendor), product.empty() ? ANY_PRODUCT : std::stoi(product));
    return true;
}

}  // namespace

RulesModel modelOf(const std::string& text) {
    Reader reader;
    reader.model.accepted = reader.readDocument(text);
    return reader.model;
}

}  // namespace android::kus
