// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <signal.h>
#include <stdlib.h>
#include <tinyxml2.h>

#include <algorithm>
#include <charconv>
#include <functional>
#include <mutex>
#include <string_view>

#include "crash/crash_barrier.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

/** Reads one file into the rule tables. Each step is false when it rejected the file. */
class ConfigReader {
  public:
    explicit ConfigReader(const Util::StatusWriter& writeStatus) : writeStatus_(writeStatus) {}

    bool readRoot(const XMLDocument& document);
    void reportLoadError(const XMLDocument& document);

  private:
    bool readRules(const XMLElement& root);
    bool readRule(const XMLElement& element);
    bool readClass(const XMLElement& element);
    bool readVendor(const XMLElement& element);
    bool readProducts(const std::string& vendorId, const XMLElement* element);

    bool reject(const XMLElement& element, const std::string& message, const char* logText);
    bool rejectRoot(const XMLElement& root, const std::string& message, const char* logText);

    const Util::StatusWriter& writeStatus_;
};

bool ConfigReader::readRoot(const XMLDocument& document) {
    const XMLElement* root = document.FirstChildElement();
    // A document without any element counts as a crash, whose handler brings the last good rules
    // back.
    if (root == nullptr) raise(SIGSEGV);
    const std::string name = root->Value();
    if (name != "usbconfig") {
        return rejectRoot(*root, "INVALID ROOT ELEMENT : " + name, "Invalid root element --");
    }
    if (root->FindAttribute("mode") == nullptr) {
        return reject(*root, "MODE NOT PRESENT", "error in ATTRIBUTE MODE value= ");
    }
    const std::string mode = root->Attribute("mode");
    LOG(INFO) << "attribute--" << mode;
    // Kept before it is validated, so an invalid mode stays in force: it decides like "whitelist".
    configMode = mode;
    if (mode == "default") return true;
    if (mode != "whitelist" && mode != "blacklist") {
        return rejectRoot(*root, "INVALID MODE", "Invalid mode is set in xml--");
    }
    return readRules(*root);
}

bool ConfigReader::readRules(const XMLElement& root) {
    const XMLElement* element = root.FirstChildElement();
    if (element == nullptr) {
        LOG(INFO) << "no element, blocking all device";
        xml_parse_status = true;
        // Not "SUCCESS": an older file's error text may still stand in errorMessage.
        writeStatus_(errorMessage, root.GetLineNum());
        return true;
    }
    LOG(INFO) << " before while first child element name " << element->Value();
    for (; element != nullptr; element = element->NextSiblingElement()) {
        if (!readRule(*element)) return false;
    }
    return true;
}

bool ConfigReader::readRule(const XMLElement& element) {
    const std::string_view name = element.Value();
    if (name == "class") return readClass(element);
    if (name == "vid") return readVendor(element);
    return reject(element, "INVALID TAG:" + std::string(name), "error in class value= ");
}

bool ConfigReader::readClass(const XMLElement& element) {
    const char* text = element.GetText();
    if (text == nullptr) return reject(element, "EMPTY CLASS VALUE", "error in class val= ");
    LOG(INFO) << "class--" << text;
    const uint32_t code = Util::convert(text);
    if (code == NO_CLASS || Util::validateRestrictedClass(code)) {
        return reject(element, std::string("INVALID CLASS VALUE:") + text, "error in class val= ");
    }
    classNameMap.try_emplace(code, text);
    classList.push_back(code);
    LOG(INFO) << "class val--" << code;
    return true;
}

// An id that does not fit ends the process: the crash handler then brings the last good rules back.
int32_t toId(const std::string& digits) {
    int32_t id;
    const char* end = digits.data() + digits.size();
    if (std::from_chars(digits.data(), end, id).ec != std::errc()) abort();
    return id;
}

bool ConfigReader::readVendor(const XMLElement& element) {
    const tinyxml2::XMLAttribute* attribute = element.FindAttribute("vendorid");
    if (attribute == nullptr) {
        return reject(element, "vendorid TAG NOT PRESENT", "error in ATTRIBUTE value= ");
    }
    const std::string vendorId = attribute->Value();
    LOG(INFO) << "vendorid--" << vendorId;
    if (!Util::isValidNumber(vendorId)) {
        return reject(
            element,
            vendorId.empty() ? "EMPTY VENDOR ID VALUE" : "INVALID VENDOR ID VALUE:" + vendorId,
            "error in vid val= ");
    }
    const XMLElement* firstProduct = element.FirstChildElement("pid");
    if (firstProduct != nullptr) return readProducts(vendorId, firstProduct);
    // The line ends in the product id's text, which is empty for a whole vendor.
    LOG(INFO) << "pid value print in else--";
    addVidPid(toId(vendorId), ANY_PRODUCT);
    return true;
}

// From the first pid on, every element counts as a product id, whatever its name.
bool ConfigReader::readProducts(const std::string& vendorId, const XMLElement* element) {
    for (; element != nullptr; element = element->NextSiblingElement()) {
        const char* text = element->GetText();
        if (text == nullptr) {
            return reject(*element, "EMPTY PRODUCT ID VALUE", "error in pid val= ");
        }
        const std::string productId = text;
        LOG(INFO) << "pid--" << productId;
        if (!Util::isValidNumber(productId)) {
            return reject(*element, "INVALID PRODUCT ID VALUE:" + productId, "error in pid val= ");
        }
        LOG(INFO) << "pid value print in while--" << productId;
        addVidPid(toId(vendorId), toId(productId));
    }
    return true;
}

// What the tables received before a rejection stays in them until the next parse.
bool ConfigReader::reject(const XMLElement& element, const std::string& message,
                          const char* logText) {
    errorMessage = message;
    LOG(ERROR) << logText << errorMessage;
    writeStatus_(errorMessage, element.GetLineNum());
    return false;
}

// The root's name and mode reach the status file before the log.
bool ConfigReader::rejectRoot(const XMLElement& root, const std::string& message,
                              const char* logText) {
    errorMessage = message;
    writeStatus_(errorMessage, root.GetLineNum());
    LOG(ERROR) << logText << errorMessage;
    return false;
}

// The library's error text goes to the status file alone; errorMessage keeps its value.
void ConfigReader::reportLoadError(const XMLDocument& document) {
    const tinyxml2::XMLError error = document.ErrorID();
    LOG(ERROR) << "xmlinput --Found error " << error
               << " name: " << XMLDocument::ErrorIDToName(error);
    LOG(ERROR) << "xmlinput -- error string " << document.ErrorStr();
    writeStatus_(document.ErrorStr(), document.ErrorLineNum());
}

bool parse(const std::string& text, XMLDocument* document) {
    return document->Parse(text.data(), text.size()) == tinyxml2::XML_SUCCESS;
}

// Parses the text that is kept for the backup, not whatever the library would read a moment later.
bool load(const std::string& path, XMLDocument* document) {
    while (true) {
        const std::string* text = Util::readRules(path);
        if (text != nullptr) return parse(*text, document);
        // For the library's own words about a file that cannot be read.
        if (document->LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS) return false;
    }
}

void readConfig(const std::function<bool(XMLDocument*)>& fill,
                const Util::StatusWriter& writeStatus) {
    const std::unique_lock lock(ruleTablesLock);
    const SharedStateUse use;
    XMLDocument document(/*processEntities=*/true, tinyxml2::PRESERVE_WHITESPACE);
    clearRules();
    const bool loaded = fill(&document);
    xml_parse_status = false;
    ConfigReader reader(writeStatus);
    if (loaded) {
        xml_parse_status = reader.readRoot(document);
    } else {
        reader.reportLoadError(document);
    }
}

}  // namespace

void Util::createMapFromConfig(const std::string& path) {
    readConfig([&](XMLDocument* document) { return load(path, document); },
               [](const std::string& message, int) { updateErrorFile(statusFilePath, message); });
}

void Util::readText(const std::string& text, const StatusWriter& writeStatus) {
    readConfig([&](XMLDocument* document) { return parse(text, document); }, writeStatus);
}

bool Util::isValidNumber(const std::string& s) {
    LOG(INFO) << "isValidNumber s--" << s;
    return !s.empty() &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace android::kus
