// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "kusctl_run.h"

namespace {

const std::string kWhitelist =
    "<usbconfig mode='whitelist'>\n"
    "  <class>USB_CLASS_MASS_STORAGE</class>\n"
    "  <class>AINPUT_SOURCE_KEYBOARD</class>\n"
    "  <vid vendorid='1133'/>\n"
    "  <vid vendorid='1155'><pid>22336</pid></vid>\n"
    "</usbconfig>\n";
const std::string kBlacklist = std::string(kWhitelist).replace(17, 5, "black");

struct Question {
    std::string rules, device;
    int status;
    std::string out, err = "";
};

void expectAnswers(const std::vector<Question>& questions) {
    for (const auto& [rules, device, status, out, err] : questions) {
        SCOPED_TRACE(device + " by " + rules);
        EXPECT_EQ(runKusctl({{"a.xml", rules}}, "check --rules a.xml " + device),
                  (Result{status, out, err}));
    }
}

// Blanks at the end of a line are the reason's own.
TEST(CheckTest, TellsTheDecisionAndWhy) {
    const std::string byStorage = "Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE \n";
    const std::string noRule = "refused: No matching rule found to Whitelist the device\n";
    const std::string leftToInput =
        "refused: left to the input subsystem, which asks with --input (unless it is a vendor HID: "
        "--vendor-hid)\n";
    expectAnswers({
        {kWhitelist, "--vendor 0x781 --product 0X5567 --class USB_CLASS_MASS_STORAGE", 0,
         "allowed: Whitelisted: " + byStorage},
        {kWhitelist, "--vendor 1 --product 2 --class mass-storage,0x08,3", 0,
         "allowed: Whitelisted: " + byStorage},
        {kBlacklist, "--vendor 1 --product 2 --class 8", 1, "refused: Blacklisted: " + byStorage},
        {kBlacklist, "--vendor 1 --product 2 --class 7", 0,
         "allowed: No matching rule found to Blacklist the device\n"},
        {"<usbconfig mode='default'/>", "--vendor 1 --product 2 --class 8", 0,
         "allowed: Enabled by default rule\n"},
        {kWhitelist, "--vendor 1921 --product 21863 --class 8,printer,7", 1,
         noRule + "would be allowed by: <class>USB_CLASS_PRINTER</class>\n"
                  "              or by: <vid vendorid=\"1921\"><pid>21863</pid></vid>\n"},
        {kWhitelist, "--vendor 1921 --product 21863 --class 8,7,12", 1,
         noRule + "would be allowed by: <vid vendorid=\"1921\"><pid>21863</pid></vid>\n"},
        {kWhitelist, "--vendor 1155 --product 22338 --class 255", 1,
         noRule + "would be allowed by: <vid vendorid=\"1155\"><pid>22338</pid></vid>\n"},
        {kWhitelist, "--vendor 1133 --product 9 --class hid,hid", 1, leftToInput},
        {kWhitelist, "--vendor 1133 --product 9 --class 3 --vendor-hid", 0,
         "allowed: Whitelisted: Match by VID, VID : 1133\n"},
        {kWhitelist, "--input AINPUT_SOURCE_KEYBOARD", 0,
         "allowed: Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD \n"},
        {kWhitelist, "--input 0x2103", 1,
         noRule + "would be allowed by: <class>AINPUT_SOURCE_MOUSE</class>\n"},
        {kWhitelist, "--vendor 1133 --product 9 --input mouse,keyboard", 0,
         "allowed: Whitelisted: Match by VID, VID : 1133\n"},
        {kWhitelist, "--vendor 1155 --product 22336 --class 2 --verbose", 0,
         "allowed: Whitelisted: Match by VID_PID combination, VID : 1155 PID: 22336\n",
         "2\n"
         "interface class check false breaking\n"
         "Found VID_PID : 1155_22336 combination inside admin config list\n"},
        {whitelist("<vid vendorid='5'><pid>1</pid></vid>\n<vid vendorid='6'/><vid vendorid='7'/>"),
         "--vendor 5 --product 2 --class 8", 0,
         "allowed: Whitelisted: Match by VID, VID : 5\n"
         "warning: every product of vendor 5 matches, listed or not: vendors 6 (line 3) and 7 "
         "(line 3), whose ids are greater, are listed without products; list the products of "
         "vendors 6 and 7, too\n"},
    });
}

TEST(CheckTest, TellsPrograms) {
    const std::string command = "check --json --rules a.xml --input mouse";
    EXPECT_EQ(parseJson(runKusctl({{"a.xml", kWhitelist}}, command).out), parseJson(R"json({
        "allowed": false, "lines": [], "mode": "whitelist", "rules": "a.xml", "warnings": [],
        "reason": "No matching rule found to Whitelist the device",
        "wouldBeAllowedBy": ["<class>AINPUT_SOURCE_MOUSE</class>"]})json"));
}

TEST(CheckTest, FailsWithoutRulesThatTheDeviceWouldTake) {
    expectAnswers({
        {"<usbconfig mode='whitelist'><foo/></usbconfig>", "--input mouse", 1, "",
         "kusctl check: a.xml: the device would not take these rules: INVALID TAG:foo (see 'kusctl "
         "lint a.xml')\n"},
        {"<!-- no element -->", "--input mouse", 1, "",
         "kusctl check: a.xml: the device would not take these rules: Unable to apply the USB "
         "Admin config rules (see 'kusctl lint a.xml')\n"},
    });
}

TEST(CheckTest, DecidesByTheDevicesOwnRules) {
    const std::string command = "check --input keyboard";
    EXPECT_EQ(runKusctl({{"usb_device_config.xml", kWhitelist}}, command).status, 0);
    EXPECT_EQ(runKusctl({}, command),
              (Result{1, "",
                      "kusctl check: /data/system/usbdeviceconfig/usb_device_config.xml: No such "
                      "file or directory (--rules names another file)\n"}));
}

}  // namespace
