// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>

#include "kusctl.h"

namespace android::kus {
namespace {

constexpr char kHelp[] = R"(usage: kusctl find [--ids FILE] WORD...

Searches the public list of USB ids for vendors and products in whose names every WORD stands, and
prints the rule for each, ready to be put into a rules file. A word may be a part of a name, an id
("046d", "0x046d" or in decimal "1133"), or both ids ("046d:c31c"). Exit status: 0 found, 1 not found
or failed, 2 wrong use.

  --ids FILE  the list (/usr/share/misc/usb.ids, of Debian's package usb.ids)

A rule for a whole vendor is for each of its devices: for sticks of a brand that makes keyboards
too, name the products.
)";

constexpr char kListPath[] = "/usr/share/misc/usb.ids";

struct Name {
    std::string vendor;
    /** Empty for a vendor itself. */
    std::string product;
};

/** By vendor and product id, or kUnknownId for a vendor itself. */
using Names = std::map<std::pair<int32_t, int32_t>, Name>;

/** Four hexadecimal digits, two blanks and a name. */
bool parseEntry(const std::string& line, size_t at, int32_t* id, std::string* name) {
    char digits[5];
    int end = 0;
    if (sscanf(line.c_str() + at, "%4[0-9a-f]  %n", digits, &end) != 1 || end != 6) return false;
    *id = strtol(digits, nullptr, 16);
    *name = line.substr(at + end);
    return true;
}

// http://www.linux-usb.org/usb-ids.html: vendors, each with its products behind a tab; other lists
// after them, whose entries start otherwise.
Names parseList(const std::string& text) {
    Names names;
    int32_t vendor = kUnknownId, product;
    std::string vendorName, name;
    for (const std::string& line : base::Split(text, "\n")) {
        if (line.empty() || line[0] == '#') continue;
        if (line[0] != '\t') {
            if (!parseEntry(line, 0, &vendor, &vendorName)) vendor = kUnknownId;
            if (vendor != kUnknownId) names[{vendor, kUnknownId}] = {vendorName, ""};
        } else if (vendor != kUnknownId && parseEntry(line, 1, &product, &name)) {
            names[{vendor, product}] = {vendorName, name};
        }
    }
    return names;
}

std::string lowerCase(std::string text) {
    for (char& c : text) c = tolower(static_cast<unsigned char>(c));
    return text;
}

bool containsAll(const std::string& text, const std::vector<std::string>& words) {
    const std::string lower = lowerCase(text);
    for (const std::string& word : words) {
        if (lower.find(word) == std::string::npos) return false;
    }
    return true;
}

std::string hexadecimal(int32_t id) { return base::StringPrintf("%04x", id); }

/** As lsusb writes an id, as rules do, and as options take it: whatever is looked for. */
std::string spellings(int32_t vendor, int32_t product) {
    const std::string hex = hexadecimal(vendor), decimal = std::to_string(vendor);
    if (product == kUnknownId) return hex + " " + decimal + " 0x" + hex + " ";
    return hex + ":" + hexadecimal(product) + " " + decimal + ":" + std::to_string(product) +
           " 0x" + hex + ":0x" + hexadecimal(product) + " ";
}

void printRule(int32_t vendor, int32_t product, const Name& name) {
    std::string text = hexadecimal(vendor);
    if (product != kUnknownId) text += ":" + hexadecimal(product);
    text += " " + name.vendor + (name.product.empty() ? "" : ": " + name.product);
    printf("%-45s <!-- %s -->\n", ruleFor({{}, vendor, product}).c_str(),
           commentText(text).c_str());
}

bool printMatches(const Names& names, const std::vector<std::string>& words) {
    bool found = false;
    for (const auto& [ids, name] : names) {
        const auto [vendor, product] = ids;
        // What the vendor's own entry stands for is not told again for each of its products.
        const std::string own = spellings(vendor, kUnknownId) + name.vendor;
        const bool whole = containsAll(own, words);
        const bool match = product == kUnknownId
                               ? whole
                               : !whole && containsAll(spellings(vendor, product) + name.vendor +
                                                           " " + name.product,
                                                       words);
        if (match) printRule(vendor, product, name);
        found |= match;
    }
    return found;
}

int run(int argc, char** argv) {
    std::string path = kListPath;
    parseOptions(argc, argv, {{"ids", &path}});
    if (optind == argc) wrongUse("no word of a vendor's or product's name given");
    std::vector<std::string> words;
    for (int i = optind; i < argc; ++i) words.push_back(lowerCase(argv[i]));

    std::string text;
    if (!base::ReadFileToString(path, &text, /*follow_symlinks=*/true)) {
        fail(path + ": " + strerror(errno) +
             " (the list is in Debian's package usb.ids; another one is given by --ids)");
    }
    const Names names = parseList(text);
    if (names.empty()) fail(path + ": no list of USB ids");
    if (!printMatches(names, words)) {
        fail("no vendor or product has '" + base::Join(words, ' ') + "' in its name or ids");
    }
    return kYes;
}

}  // namespace

std::string usbName(int32_t vendor, int32_t product) {
    static const Names names = [] {
        std::string text;
        base::ReadFileToString(kListPath, &text, /*follow_symlinks=*/true);
        return parseList(text);
    }();
    const auto found = names.find({vendor, product});
    if (found == names.end()) return "";
    return printable(product == kUnknownId ? found->second.vendor : found->second.product);
}

std::string nameOf(const DeviceInfo& device) {
    return device.deviceName.empty() ? usbName(device.vendorId, device.productId)
                                     : device.deviceName;
}

const Command kFindCommand = {"find", "vendors and products by name, and the rules for them", kHelp,
                              run};

}  // namespace android::kus
