// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <map>
#include <ostream>
#include <string>

struct Result {
    /** Exit status, or minus the signal that ended it. */
    int status;
    std::string out = "", err = "";

    bool operator==(const Result& other) const {
        return status == other.status && out == other.out && err == other.err;
    }
};

std::ostream& operator<<(std::ostream& stream, const Result& result);

/** What is in the files of a folder, by their names. */
using Files = std::map<std::string, std::string>;

/** Goes where the device has its rules, and leaves nothing there but these files. */
void enterDevicesFolder(const Files& files);

Files filesHere();

/** Runs "kusctl ARGUMENTS" as a shell does. */
Result runKusctl(const std::string& arguments);

/** In the device's folder. */
Result runKusctl(const Files& files, const std::string& arguments);

/** A rules file whose second line is the first of the rules. */
std::string whitelist(const std::string& rules);

Json::Value parseJson(const std::string& text);
