// SPDX-License-Identifier: Apache-2.0
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <stdlib.h>
#include <unistd.h>

#include "kusctl.h"

namespace android::kus {
namespace {

constexpr char kReplacementCharacter[] = "\xEF\xBF\xBD";

struct Character {
    /** In bytes; 1 for a byte that is no UTF-8. */
    size_t length;
    bool valid;
    uint32_t code;
};

Character characterAt(const std::string& text, size_t at) {
    const auto byte = [&](size_t i) -> uint32_t {
        return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0;
    };
    const uint32_t first = byte(0);
    if (first < 0x80) return {1, true, first};
    const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    uint32_t code = first & (0xFF >> (length + 1));
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return {1, false, 0};
        code = code << 6 | (byte(i) & 0x3F);
    }
    // Neither longer than it has to be, nor a surrogate, nor beyond Unicode.
    constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool valid = first >= 0xC0 && first < 0xF8 && code >= kSmallest[length] &&
                       (code < 0xD800 || code > 0xDFFF) && code <= 0x10FFFF;
    return valid ? Character{length, true, code} : Character{1, false, 0};
}

bool isControl(uint32_t code) { return code < 0x20 || (code >= 0x7F && code < 0xA0); }

/** Unicode keeps these out of texts, and XML out of documents. */
bool isNoCharacter(uint32_t code) { return (code & 0xFFFE) == 0xFFFE; }

std::string escaped(char c) {
    switch (c) {
        case '\n':
            return "\\n";
        case '\t':
            return "\\t";
        case '\r':
            return "\\r";
        default:
            return base::StringPrintf("\\x%02X", static_cast<unsigned char>(c));
    }
}

}  // namespace

std::string printable(const std::string& text) {
    std::string result;
    for (size_t at = 0; at < text.size();) {
        const Character character = characterAt(text, at);
        const std::string bytes = text.substr(at, character.length);
        if (character.valid && !isControl(character.code) && !isNoCharacter(character.code)) {
            result += bytes;
        } else {
            for (const char c : bytes) result += escaped(c);
        }
        at += character.length;
    }
    return result;
}

// XML knows no escapes in a comment, no "--", and no "-" at its end.
std::string commentText(const std::string& text) {
    std::string result = printable(text);
    while (result.find("--") != std::string::npos) {
        result = base::StringReplace(result, "--", "- -", true);
    }
    return result;
}

std::string kindName(int32_t deviceType) { return deviceType == 0 ? "usb" : "input"; }

DeviceFacts factsOf(const DeviceInfo& device) {
    DeviceFacts result;
    result.deviceClass = device.deviceClass;
    result.interfaceClassList = device.interfaceClassList;
    result.vendorId = device.vendorId;
    result.productId = device.productId;
    result.deviceType = device.deviceType;
    // The service records no other device of HID interfaces alone.
    result.vendorHid = device.deviceType == 0;
    return result;
}

std::string verdictText(bool allowed) {
    const std::string text = allowed ? "allowed" : "refused";
    if (!isatty(STDOUT_FILENO) || getenv("NO_COLOR") != nullptr) return text;
    return (allowed ? "\033[32m" : "\033[31m") + text + "\033[0m";
}

Json::Value identityToJson(const DeviceInfo& device) {
    Json::Value value;
    value["id"] = device.deviceId;
    value["kind"] = kindName(device.deviceType);
    value["name"] = device.deviceName;
    value["vendor"] = device.vendorId;
    value["product"] = device.productId;
    value["classes"] = toArray(classNames(factsOf(device)));
    return value;
}

Json::Value recordToJson(const DeviceInfo& device) {
    Json::Value value = identityToJson(device);
    value["allowed"] = device.status != 0;
    value["category"] = device.category;
    value["categoryPath"] = device.categoryPath;
    value["reason"] = device.reason;
    return value;
}

std::string jsonText(const Json::Value& value, const std::string& indentation) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = indentation;
    builder["enableYAMLCompatibility"] = true;  // "key": value, without a blank before the colon
    // Left alone by the writer, which trusts its input to be UTF-8, so that it can be set right.
    builder["emitUTF8"] = true;
    const std::string text = Json::writeString(builder, value);
    std::string result;
    for (size_t at = 0; at < text.size();) {
        const Character character = characterAt(text, at);
        result += character.valid ? text.substr(at, character.length) : kReplacementCharacter;
        at += character.length;
    }
    return result;
}

}  // namespace android::kus
