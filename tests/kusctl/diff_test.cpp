// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "kusctl_run.h"

namespace {

// The vendors are on no public list, whose names would otherwise be told.
TEST(DiffTest, TellsWhatARuleChangeChanges) {
    const struct {
        std::string before, after;
        int status;
        std::string differences;
    } changes[] = {
        {whitelist("<class>USB_CLASS_AUDIO</class>\n<vid vendorid='60001'/>"),
         whitelist("<vid vendorid='060001'/>\n<class>USB_CLASS_AUDIO</class>\n"
                   "<vid vendorid='70000'/>"),
         0, "every device is decided on as before\n"},
        {whitelist("<class>USB_CLASS_AUDIO</class>"),
         whitelist("\n<class>AINPUT_SOURCE_MOUSE</class>"), 1,
         "now refused: USB_CLASS_AUDIO (old:2)\n"
         "now allowed: AINPUT_SOURCE_MOUSE (new:3)\n"},
        {whitelist("<vid vendorid='60001'><pid>5</pid></vid>"),
         whitelist("<vid vendorid='60001'><pid>5</pid></vid>\n<vid vendorid='60002'/>"), 1,
         "now allowed: any other product of vendor 60001, keyboards and mice too (new:2 new:3)\n"
         "now allowed: any product of vendor 60002, keyboards and mice too (new:3)\n"},
        {"<usbconfig mode='blacklist'>\n<vid vendorid='60001'><pid>5</pid></vid></usbconfig>",
         "<usbconfig mode='blacklist'>\n<vid vendorid='60001'><pid>6</pid></vid></usbconfig>", 1,
         "now allowed: product 5 of vendor 60001 (old:2)\n"
         "now refused: product 6 of vendor 60001 (new:2)\n"},
        {"<usbconfig mode='default'/>", whitelist("<class>USB_CLASS_AUDIO</class>"), 1,
         "now refused: any device that no rule names\n"},
    };
    for (const auto& [before, after, status, differences] : changes) {
        EXPECT_EQ(runKusctl({{"old", before}, {"new", after}}, "diff old new"),
                  (Result{status, differences}));
    }
}

/** With rules of which each allows what the other refuses. */
Result runOnDevices(const std::string& list, const std::string& arguments) {
    return runKusctl({{"old", whitelist("<class>USB_CLASS_AUDIO</class>")},
                      {"new", whitelist("<class>AINPUT_SOURCE_MOUSE</class>")},
                      {"devices", list}},
                     arguments + " --devices devices");
}

const std::string kMouse =
    R"({"vendor": 60001,"product": 5,"kind": "input","classes": ["AINPUT_SOURCE_MOUSE"],)"
    R"("name": "\"A\" \u00e9","seen": {"at": [1e3, null]}})";
const std::string kSpeaker =
    R"({"classes":["USB_CLASS_AUDIO", 3],"product":6,"vendor":60001,"name":null,"event":7,)"
    R"("device":"tablet-17"})";

TEST(DeviceListTest, ReportsLinesThatAreNoDevice) {
    const struct {
        std::string text, problem = "";
    } lines[] = {
        {"\xEF\xBB\xBF" + kMouse},
        {""},
        {kSpeaker},
        {R"({"event": "added","device": )" + kMouse + "}"},
        {R"({"event": "removed","device": )" + kMouse + "}"},
        {R"({"event": "service-died"})"},
        {"[", "not one JSON object"},
        {kMouse + ",", "not one JSON object"},
        {kMouse.substr(0, kMouse.size() - 1), "not one JSON object"},
        {R"({"vendor": 1,"classes": ["8"]})", "without \"product\""},
        {R"({"vendor": 1.5,"product": 2,"classes": ["8"]})", "a \"vendor\" that is none"},
        {R"({"vendor": 1,"product": 99999999999,"classes": ["8"]})", "a \"product\" that is none"},
        {R"({"vendor": 1,"product": 2,"classes": 8})", "a \"classes\" that is none"},
        {R"({"vendor": 1,"product": 2,"classes": []})", "a USB device without classes"},
        {R"({"vendor": 1,"product": 2,"classes": ["mouse"]})", "an unknown class 'mouse'"},
        {R"({"vendor": 1,"product": 2,"classes": ["8"],"kind": "pci"})",
         "a \"kind\" that is neither \"usb\" nor \"input\""},
        {std::string(1 << 21, ' ') + kMouse, "longer than 1 MiB"},
        {kMouse},
    };
    std::string list, problems;
    for (size_t i = 0; i < std::size(lines); ++i) {
        const auto& [text, problem] = lines[i];
        list += (i == 0 ? "" : "\n") + text;  // the last line needs no end
        if (problem == "") continue;
        problems += "kusctl diff: devices: line " + std::to_string(i + 1) +
                    " is no device: " + problem + "\n";
    }
    EXPECT_EQ(runOnDevices(list, "diff old new"),
              (Result{1,
                      "now allowed: 3 of 60001:5, \"A\" \u00e9, AINPUT_SOURCE_MOUSE (new:2)\n"
                      "now refused: 1 of 60001:6, USB_CLASS_AUDIO USB_CLASS_HID (old:2)\n"
                      "4 devices: 3 now allowed, 1 now refused, 0 as before\n",
                      problems}));
}

TEST(DeviceListTest, AnswersForEachLine) {
    const std::string byMouse = "Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_MOUSE ";
    const std::string noRule = "No matching rule found to Whitelist the device";
    EXPECT_EQ(runOnDevices(kMouse + "\n[\n" + kSpeaker, "check --rules new"),
              (Result{1,
                      "allowed\t60001:5\t\"A\" \u00e9\t" + byMouse + "\n" + "refused\t60001:6\t\t" +
                          noRule + "\n",
                      "kusctl check: devices: line 2 is no device: not one JSON object\n"}));
    // For programs with the line as it came.
    const std::string speaker = R"({"host":"h7","device":)" + kSpeaker + "}";
    EXPECT_EQ(runOnDevices("  " + kMouse + "\r\n" + speaker, "check --json --rules new").out,
              "{\"allowed\": true,\"device\": " + kMouse + ",\"reason\": \"" + byMouse + "\"}\n" +
                  "{\"allowed\": false,\"device\": " + speaker + ",\"reason\": \"" + noRule +
                  "\"}\n");
}

TEST(DeviceListTest, TellsProgramsWhatChanges) {
    const Result result = runOnDevices(kMouse + "\n[\n", "diff --json old new");
    EXPECT_EQ(parseJson(result.out), parseJson(R"json({
        "devices": 1, "nowAllowed": 1, "nowRefused": 0, "noDevices": 1, "furtherAllowed": 0,
        "furtherRefused": 0, "changes": [{
            "count": 1, "kind": "input", "name": "\"A\" \u00e9", "vendor": 60001, "product": 5,
            "classes": ["AINPUT_SOURCE_MOUSE"],
            "old": {"allowed": false, "lines": [],
                    "reason": "No matching rule found to Whitelist the device"},
            "new": {"allowed": true, "lines": [2], "reason":
                    "Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_MOUSE "}}]})json"));
}

TEST(DeviceListTest, KeepsABoundedNumberOfKinds) {
    std::string list;
    for (int product = 0; product < 10002; ++product) {
        list += R"({"kind":"input","classes":["mouse"],"vendor":60001,"product":)" +
                std::to_string(product) + "}\n";
    }
    const Result result = runOnDevices(list + list, "diff old new");
    const auto lines = android::base::Split(result.out, "\n");
    ASSERT_EQ(lines.size(), 10003u);
    EXPECT_EQ(lines[9999], "now allowed: 2 of 60001:9999, AINPUT_SOURCE_MOUSE (new:2)");
    EXPECT_EQ(lines[10000], "of further kinds: 4 now allowed, 0 now refused");
    EXPECT_EQ(lines[10001], "20004 devices: 20004 now allowed, 0 now refused, 0 as before");
}

TEST(FindTest, PrintsRulesToPaste) {
    enterDevicesFolder(
        {{"ids",
          "# comment\n1209  Generic\n\t0001  Black--Box\n\t0002  Mouse\n\t\t01  Interface\n"
          "abcd  Mouse Makers\n\t000f  Pad\nC 03  Mouse\n\t01  Boot\n\t0123  Mouse\n"}});
    const std::pair<std::string, std::string> finds[] = {
        {"MOUSE",
         R"(<vid vendorid="4617"><pid>2</pid></vid>       <!-- 1209:0002 Generic: Mouse -->
<vid vendorid="43981"/>                       <!-- abcd Mouse Makers -->)"},
        {"box generic",
         R"(<vid vendorid="4617"><pid>1</pid></vid>       <!-- 1209:0001 Generic: Black- -Box -->)"},
        {"abcd:000f",
         R"(<vid vendorid="43981"><pid>15</pid></vid>     <!-- abcd:000f Mouse Makers: Pad -->)"},
    };
    for (const auto& [words, rules] : finds) {
        EXPECT_EQ(runKusctl("find --ids ids " + words), (Result{0, rules + "\n"}));
    }
    EXPECT_EQ(
        runKusctl("find --ids ids interface"),
        (Result{1, "", "kusctl find: no vendor or product has 'interface' in its name or ids\n"}));
}

}  // namespace
