// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <filesystem>

#include "kusctl_run.h"

namespace {

constexpr char kWhitelist[] =
    "<usbconfig mode=\"whitelist\">\n"
    "  <class>USB_CLASS_MASS_STORAGE</class>\n"
    "  <class>AINPUT_SOURCE_KEYBOARD</class>\n"
    "  <vid vendorid=\"1133\"/>\n"
    "  <vid vendorid=\"1155\"><pid>22336</pid></vid>\n"
    "</usbconfig>\n";

std::string blacklist() { return std::string(kWhitelist).replace(17, 5, "black"); }

using Arguments = std::vector<std::string>;

Arguments usb(const char* vendor, const char* product, const char* classes) {
    return {"--vendor", vendor, "--product", product, "--class", classes};
}

struct Device {
    const char* name;
    Arguments arguments;
    int whitelistStatus;
    std::string whitelistAnswer;
    int blacklistStatus;
    std::string blacklistAnswer;
};

class CheckTest : public testing::TestWithParam<Device> {
  protected:
    static Result check(const std::string& rules, const Arguments& device) {
        const RulesFolder folder;
        folder.write("rules.xml", rules);
        Arguments arguments = {"check", "--rules", "rules.xml"};
        arguments.insert(arguments.end(), device.begin(), device.end());
        return folder.run(arguments);
    }
};

TEST_P(CheckTest, DecidesByWhitelist) {
    EXPECT_EQ(check(kWhitelist, GetParam().arguments),
              (Result{GetParam().whitelistStatus, GetParam().whitelistAnswer, ""}));
}

TEST_P(CheckTest, DecidesByBlacklist) {
    EXPECT_EQ(check(blacklist(), GetParam().arguments),
              (Result{GetParam().blacklistStatus, GetParam().blacklistAnswer, ""}));
}

constexpr char kNoMatch[] = "refused: No matching rule found to Whitelist the device\n";
constexpr char kNotBlocked[] = "allowed: No matching rule found to Blacklist the device\n";
constexpr char kLeftToInput[] =
    "refused: left to the input subsystem, which asks with --input (unless it is a vendor HID: "
    "--vendor-hid)\n";

// Blanks at the end of a line are the reason's own.
INSTANTIATE_TEST_SUITE_P(
    All, CheckTest,
    testing::Values(
        Device{"ListedClass", usb("0x781", "0X5567", "USB_CLASS_MASS_STORAGE"), 0,
               "allowed: Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE \n", 1,
               "refused: Blacklisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE \n"},
        Device{"ShortNameAndNumber", usb("1", "2", "mass-storage,0x08,3"), 0,
               "allowed: Whitelisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE \n", 1,
               "refused: Blacklisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE \n"},
        Device{"UnlistedClass", usb("1921", "21863", "8,printer,7"), 1,
               std::string(kNoMatch) +
                   "would be allowed by: <class>USB_CLASS_PRINTER</class>\n"
                   "              or by: <vid vendorid=\"1921\"><pid>21863</pid></vid>\n",
               0, kNotBlocked},
        Device{"ClassWithoutName", usb("1921", "21863", "8,7,12"), 1,
               std::string(kNoMatch) +
                   "would be allowed by: <vid vendorid=\"1921\"><pid>21863</pid></vid>\n",
               0, kNotBlocked},
        Device{"Vendor", usb("1133", "9", "2"), 0,
               "allowed: Whitelisted: Match by VID, VID : 1133\n", 1,
               "refused: Blacklisted: Match by VID, VID : 1133\n"},
        Device{"Product", usb("1155", "22336", "2,10"), 0,
               "allowed: Whitelisted: Match by VID_PID combination, VID : 1155 PID: 22336\n", 1,
               "refused: Blacklisted: Match by VID_PID combination, VID : 1155 PID: 22336\n"},
        Device{"OtherProduct", usb("1155", "22338", "255"), 1,
               std::string(kNoMatch) +
                   "would be allowed by: <vid vendorid=\"1155\"><pid>22338</pid></vid>\n",
               0, kNotBlocked},
        Device{"Hid", usb("1133", "9", "hid,hid"), 1, kLeftToInput, 1, kLeftToInput},
        Device{"VendorHid",
               {"--vendor", "1133", "--product", "9", "--class", "3", "--vendor-hid"},
               0,
               "allowed: Whitelisted: Match by VID, VID : 1133\n",
               1,
               "refused: Blacklisted: Match by VID, VID : 1133\n"},
        Device{"Keyboard",
               {"--input", "AINPUT_SOURCE_KEYBOARD"},
               0,
               "allowed: Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD \n",
               1,
               "refused: Blacklisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD \n"},
        Device{"SourceBits",
               {"--input", "0x2103"},
               1,
               std::string(kNoMatch) + "would be allowed by: <class>AINPUT_SOURCE_MOUSE</class>\n",
               0,
               kNotBlocked},
        Device{"InputDeviceOfVendor",
               {"--vendor", "1133", "--product", "9", "--input", "mouse,keyboard"},
               0,
               "allowed: Whitelisted: Match by VID, VID : 1133\n",
               1,
               "refused: Blacklisted: Match by VID, VID : 1133\n"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CheckTest, DefaultModeAllowsAnyDevice) {
    const char rules[] = "<usbconfig mode=\"default\"/>";
    EXPECT_EQ(check(rules, usb("1", "2", "8")),
              (Result{0, "allowed: Enabled by default rule\n", ""}));
    EXPECT_EQ(check(rules, usb("1", "2", "3")), (Result{1, kLeftToInput, ""}));
}

TEST_F(CheckTest, WarnsOfAVendorThatMatchesByAnother) {
    EXPECT_EQ(check("<usbconfig mode=\"whitelist\">\n<vid vendorid=\"5\"><pid>1</pid></vid>\n"
                    "<vid vendorid=\"6\"/><vid vendorid=\"7\"/></usbconfig>",
                    usb("5", "2", "8"))
                  .out,
              "allowed: Whitelisted: Match by VID, VID : 5\n"
              "warning: every product of vendor 5 matches, listed or not: vendors 6 (line 3) and 7 "
              "(line 3), whose ids are greater, are listed without products; list the products of "
              "vendors 6 and 7, too\n");
}

TEST_F(CheckTest, TellsTheTrace) {
    Arguments arguments = usb("1155", "22336", "2");
    arguments.push_back("--verbose");
    EXPECT_EQ(
        check(kWhitelist, arguments),
        (Result{0, "allowed: Whitelisted: Match by VID_PID combination, VID : 1155 PID: 22336\n",
                "2\n"
                "interface class check false breaking\n"
                "Found VID_PID : 1155_22336 combination inside admin config list\n"}));
}

TEST_F(CheckTest, TellsPrograms) {
    EXPECT_EQ(check(kWhitelist, {"--json", "--input", "mouse"}).out,
              "{\n"
              "  \"allowed\": false,\n"
              "  \"lines\": [],\n"
              "  \"mode\": \"whitelist\",\n"
              "  \"reason\": \"No matching rule found to Whitelist the device\",\n"
              "  \"rules\": \"rules.xml\",\n"
              "  \"warnings\": [],\n"
              "  \"wouldBeAllowedBy\": \n"
              "  [\n"
              "    \"<class>AINPUT_SOURCE_MOUSE</class>\"\n"
              "  ]\n"
              "}\n");
}

TEST_F(CheckTest, FailsOnRulesThatTheDeviceWouldNotTake) {
    EXPECT_EQ(check("<usbconfig mode=\"whitelist\"><foo/></usbconfig>", usb("1", "2", "8")),
              (Result{1, "",
                      "kusctl check: rules.xml: the device would not take these rules: INVALID "
                      "TAG:foo (see 'kusctl lint rules.xml')\n"}));
    EXPECT_EQ(check("<!-- no element -->", usb("1", "2", "8")),
              (Result{1, "",
                      "kusctl check: rules.xml: the device would not take these rules: Unable to "
                      "apply the USB Admin config rules (see 'kusctl lint rules.xml')\n"}));
}

TEST(CheckDeviceRulesTest, DecidesByTheDevicesOwnFile) {
    const Arguments arguments = {"check", "--input", "keyboard"};
    EXPECT_EQ(runKusctl("/", arguments),
              (Result{1, "",
                      "kusctl check: /data/system/usbdeviceconfig/usb_device_config.xml: No such "
                      "file or directory (--rules names another file)\n"}));

    std::filesystem::create_directories("/data/system/usbdeviceconfig");
    ASSERT_TRUE(android::base::WriteStringToFile(
        kWhitelist, "/data/system/usbdeviceconfig/usb_device_config.xml"));
    EXPECT_EQ(runKusctl("/", arguments).out,
              "allowed: Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD \n");
    std::filesystem::remove_all("/data/system");
}

}  // namespace
