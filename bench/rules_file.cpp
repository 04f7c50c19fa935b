// SPDX-License-Identifier: Apache-2.0
#include "rules_file.h"

#include <android-base/file.h>
#include <android-base/logging.h>

#include <filesystem>

#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {

void writeRules(const std::string& elements) {
    std::filesystem::create_directories(configDirectory);
    CHECK(base::WriteStringToFile("<usbconfig mode=\"whitelist\">\n" + elements + "</usbconfig>\n",
                                  configFilePath));
}

void loadRules(const std::string& elements) {
    writeRules(elements);
    Util::createMapFromConfig(configFilePath);
    CHECK(xml_parse_status);
}

std::string vendorRules(int count) {
    std::string elements;
    for (int vendor = 1; vendor <= count; ++vendor) {
        elements += "<vid vendorid=\"" + std::to_string(vendor) + "\"><pid>7</pid></vid>\n";
    }
    return elements;
}

}  // namespace android::kus
