// SPDX-License-Identifier: Apache-2.0
// The engine's functions for the page's worker. Results are JSON, ended by a NUL, and valid until
// the next call.
#include <android-base/stringprintf.h>
#include <stdlib.h>

#include "policy.h"
#include "util/Util.h"
#include "util/rule_tables.h"

using namespace android::kus;
using android::base::StringPrintf;

namespace {

std::string text;
Rules rules;
std::string result;

// What is no UTF-8 is replaced by the worker's decoder.
std::string toJson(const std::string& value) {
    std::string json = "\"";
    for (const char c : value) {
        if (c == '"' || c == '\\') {
            json += '\\';
            json += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            json += StringPrintf("\\u%04x", c);
        } else {
            json += c;
        }
    }
    return json + '"';
}

std::string toJson(const char* value) { return toJson(std::string(value)); }
std::string toJson(int value) { return std::to_string(value); }
std::string toJson(bool value) { return value ? "true" : "false"; }

template <typename Item>
std::string toJson(const std::vector<Item>& items);

template <typename Value>
std::string member(const char* name, const Value& value) {
    return toJson(name) + ":" + toJson(value);
}

std::string toJson(const Warning& warning) {
    return "{" + member("line", warning.line) + "," + member("kind", warning.kind) + "," +
           member("level", warning.isNote ? "note" : "warning") + "," +
           member("message", warning.message) + "," + member("cure", warning.cure) + "}";
}

std::string toJson(const Verdict& verdict) {
    return "{" + member("verdict", nameOf(verdict.outcome)) + "," +
           member("status", verdict.status) + "," + member("line", verdict.line) + "}";
}

std::string toJson(const ClassName& row) {
    return "{" + member("name", row.name) + "," + member("code", row.code) + "," +
           member("restricted", Util::validateRestrictedClass(row.code)) + "}";
}

template <typename Item>
std::string toJson(const std::vector<Item>& items) {
    std::string json;
    for (const Item& item : items) json += (json.empty() ? "[" : ",") + toJson(item);
    return json.empty() ? "[]" : json + "]";
}

Subject subjectOf(int code, int vendor, int product) {
    Subject subject;
    if (code >= 0) subject.classCode = code;
    subject.vendor = vendor;
    subject.product = product;
    return subject;
}

const char* give(std::string json) {
    result = std::move(json);
    return result.c_str();
}

}  // namespace

#define EXPORT extern "C" __attribute__((visibility("default"), used))

/** Memory for an argument of the calls below, which free it. Null where there is none left. */
EXPORT void* reserve(size_t size) { return malloc(size > 0 ? size : 1); }

EXPORT void setRules(char* bytes, size_t size) {
    text.assign(bytes, size);
    free(bytes);
}

EXPORT const char* review() { return give(toJson(reviewRules(text))); }

/** Takes the rules into force. Some files end the instance: go on with crash() in another one. */
EXPORT const char* judge() { return give(toJson(rules.parse(text))); }

EXPORT const char* crash() { return give(toJson(crashVerdict(reviewRules(text)))); }

/** `codes` are interface classes, or input sources where `input` is true. */
EXPORT const char* decide(bool input, int vendor, int product, int32_t* codes, size_t count,
                          bool vendorHid) {
    DeviceFacts device;
    device.deviceType = input;
    device.vendorId = vendor;
    device.productId = product;
    device.vendorHid = vendorHid;
    if (input) {
        for (size_t i = 0; i < count; ++i) device.deviceClass |= codes[i];
    } else {
        device.interfaceClassList.assign(codes, codes + count);
    }
    free(codes);
    const Answer answer = rules.decide(device);
    std::vector<std::string> warnings;
    for (const Warning& warning : answer.warnings) warnings.push_back(withCure(warning));
    return give("{" + member("allowed", answer.allowed) + "," +
                member("leftToInput", answer.leftToInput) + "," + member("reason", answer.reason) +
                "," + member("lines", answer.lines) + "," + member("warnings", warnings) + "," +
                member("remedies", answer.remedies) + "," + member("log", rules.trace(device)) +
                "}");
}

/** `code` is that of a class, or -1 where a vendor is meant, or a product of it. */
EXPORT const char* edit(bool allow, int code, int vendor, int product) {
    const Edit edited = editRules(text, allow, subjectOf(code, vendor, product));
    return give("{" + member("text", edited.text) + "," + member("problem", edited.problem) + "}");
}

/** What such an edit has not achieved, once judge() has taken its text. */
EXPORT const char* contradictions(bool allow, int code, int vendor, int product) {
    const EditReview review = reviewEdit(&rules, allow, subjectOf(code, vendor, product));
    return give("{" + member("problem", review.problem) + "," + member("note", review.note) + "}");
}

/** The names that a class element may use, and those that it may not. */
EXPORT const char* classNames() {
    return give(
        toJson(std::vector<ClassName>(std::begin(classNameTable), std::end(classNameTable))));
}
