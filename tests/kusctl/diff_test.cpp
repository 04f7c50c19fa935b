// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <gmock/gmock.h>

#include "kusctl_run.h"

namespace {

std::string rules(const std::string& mode, const std::string& rules) {
    return "<usbconfig mode=\"" + mode + "\">\n" + rules + "\n</usbconfig>\n";
}

struct Edit {
    const char* name;
    std::string before, after;
    std::string differences;
};

class DiffTest : public testing::TestWithParam<Edit> {};

TEST_P(DiffTest, TellsWhatARuleChangeChanges) {
    const RulesFolder folder;
    folder.write("old.xml", GetParam().before);
    folder.write("new.xml", GetParam().after);
    const bool same = GetParam().differences.empty();
    EXPECT_EQ(
        folder.run({"diff", "old.xml", "new.xml"}),
        (Result{same ? 0 : 1,
                same ? "every device is decided on as before\n" : GetParam().differences, ""}));
}

// The vendors are on no public list, whose names would otherwise be told.
INSTANTIATE_TEST_SUITE_P(
    All, DiffTest,
    testing::Values(
        Edit{"Nothing",
             rules("whitelist", "<class>USB_CLASS_AUDIO</class>\n<vid vendorid=\"60001\"/>"),
             rules("whitelist",
                   "<vid vendorid=\"060001\"/>\n<class>USB_CLASS_AUDIO</class>\n"
                   "<vid vendorid=\"70000\"/>"),
             ""},
        Edit{"Classes", rules("whitelist", "<class>USB_CLASS_AUDIO</class>"),
             rules("whitelist", "\n<class>AINPUT_SOURCE_MOUSE</class>"),
             "now refused: USB_CLASS_AUDIO (old.xml:2)\n"
             "now allowed: AINPUT_SOURCE_MOUSE (new.xml:3)\n"},
        Edit{"WholeVendorForOthers",
             rules("whitelist", "<vid vendorid=\"60001\"><pid>5</pid></vid>"),
             rules("whitelist",
                   "<vid vendorid=\"60001\"><pid>5</pid></vid>\n"
                   "<vid vendorid=\"60002\"/>"),
             "now allowed: any other product of vendor 60001, keyboards and mice too (new.xml:2 "
             "new.xml:3)\n"
             "now allowed: any product of vendor 60002, keyboards and mice too (new.xml:3)\n"},
        Edit{"Blacklist", rules("blacklist", "<vid vendorid=\"60001\"><pid>5</pid></vid>"),
             rules("blacklist", "<vid vendorid=\"60001\"><pid>6</pid></vid>"),
             "now allowed: product 5 of vendor 60001 (old.xml:2)\n"
             "now refused: product 6 of vendor 60001 (new.xml:2)\n"},
        Edit{"Mode", rules("default", ""), rules("whitelist", "<class>USB_CLASS_AUDIO</class>"),
             "now refused: any device that no rule names\n"}),
    [](const auto& info) { return std::string(info.param.name); });

/** Where every line of a list is used. */
class DeviceListTest : public testing::Test {
  protected:
    DeviceListTest() {
        folder.write("old.xml", rules("whitelist", "<class>USB_CLASS_AUDIO</class>"));
        folder.write("new.xml", rules("whitelist", "<class>AINPUT_SOURCE_MOUSE</class>"));
    }

    const RulesFolder folder;
};

constexpr char kMouse[] =
    R"({"vendor": 60001,"product": 5,"kind": "input","classes": ["AINPUT_SOURCE_MOUSE"],)"
    R"("name": "\"A\" \u00e9","seen": {"at": [1e3, null]}})";
constexpr char kSpeaker[] =
    R"({"classes":["USB_CLASS_AUDIO", 3],"product":6,"vendor":60001,"name":null,"event":7,)"
    R"("device":"tablet-17"})";

struct Line {
    std::string text;
    const char* problem;
};

TEST_F(DeviceListTest, ReportsLinesThatAreNoDevice) {
    const Line lines[] = {
        {std::string("\xEF\xBB\xBF") + kMouse, nullptr},
        {"", nullptr},
        {kSpeaker, nullptr},
        {std::string(R"({"event": "added","device": )") + kMouse + "}", nullptr},
        {std::string(R"({"event": "removed","device": )") + kMouse + "}", nullptr},
        {R"({"event": "service-died"})", nullptr},
        {"[", "not one JSON object"},
        {std::string(kMouse) + ",", "not one JSON object"},
        {std::string(kMouse, sizeof(kMouse) - 2), "not one JSON object"},
        {R"({"vendor": 1,"classes": ["8"]})", "without \"product\""},
        {R"({"vendor": 1.5,"product": 2,"classes": ["8"]})", "a \"vendor\" that is none"},
        {R"({"vendor": 1,"product": 99999999999,"classes": ["8"]})", "a \"product\" that is none"},
        {R"({"vendor": 1,"product": 2,"classes": 8})", "a \"classes\" that is none"},
        {R"({"vendor": 1,"product": 2,"classes": []})", "a USB device without classes"},
        {R"({"vendor": 1,"product": 2,"classes": ["AINPUT_SOURCE_MOUSE"]})",
         "an unknown class 'AINPUT_SOURCE_MOUSE'"},
        {R"({"vendor": 1,"product": 2,"classes": ["8"],"kind": "pci"})",
         "a \"kind\" that is neither \"usb\" nor \"input\""},
        {std::string(1 << 21, ' ') + kMouse, "longer than 1 MiB"},
        {kMouse, nullptr},
    };
    std::string list, diffProblems, checkProblems;
    int number = 0;
    for (const Line& line : lines) {
        list += line.text + "\n";
        ++number;
        if (line.problem == nullptr) continue;
        const std::string text =
            ": devices: line " + std::to_string(number) + " is no device: " + line.problem + "\n";
        diffProblems += "kusctl diff" + text;
        checkProblems += "kusctl check" + text;
    }
    list.pop_back();  // the last line needs no end
    folder.write("devices", list);
    EXPECT_EQ(folder.run({"diff", "--devices", "devices", "old.xml", "new.xml"}),
              (Result{1,
                      "now allowed: 3 of 60001:5, \"A\" \u00e9, AINPUT_SOURCE_MOUSE (new.xml:2)\n"
                      "now refused: 1 of 60001:6, USB_CLASS_AUDIO USB_CLASS_HID (old.xml:2)\n"
                      "4 devices: 3 now allowed, 1 now refused, 0 as before\n",
                      diffProblems}));
    const std::string mouse =
        "allowed\t60001:5\t\"A\" \u00e9\tWhitelisted: Match by ClassName, CLASS : "
        "AINPUT_SOURCE_MOUSE \n";
    EXPECT_EQ(
        folder.run({"check", "--rules", "new.xml", "--devices", "devices"}),
        (Result{1,
                mouse + "refused\t60001:6\t\tNo matching rule found to Whitelist the device\n" +
                    mouse + mouse,
                checkProblems}));
}

TEST_F(DeviceListTest, AnswersProgramsWithTheLineAsItCame) {
    const std::string speaker = std::string("{\"host\":\"h7\",\"device\":") + kSpeaker + "}";
    folder.write("devices", std::string("  ") + kMouse + "\r\n" + speaker + "\n");
    EXPECT_EQ(
        folder.run({"check", "--rules", "new.xml", "--json", "--devices", "devices"}),
        (Result{0,
                std::string("{\"allowed\": true,\"device\": ") + kMouse +
                    ",\"reason\": \"Whitelisted: Match by ClassName, CLASS : "
                    "AINPUT_SOURCE_MOUSE \"}\n{\"allowed\": false,\"device\": " +
                    speaker + ",\"reason\": \"No matching rule found to Whitelist the device\"}\n",
                ""}));
}

TEST_F(DeviceListTest, KeepsABoundedNumberOfKinds) {
    std::string list;
    for (int product = 0; product < 10002; ++product) {
        list +=
            R"({"kind": "input","classes": ["AINPUT_SOURCE_MOUSE"],"vendor": 60001,"product": )" +
            std::to_string(product) + "}\n";
    }
    folder.write("devices", list + list);
    const Result result = folder.run({"diff", "--devices", "devices", "old.xml", "new.xml"});
    const auto lines = android::base::Split(result.out, "\n");
    ASSERT_EQ(lines.size(), 10003u);
    EXPECT_EQ(lines[9999], "now allowed: 2 of 60001:9999, AINPUT_SOURCE_MOUSE (new.xml:2)");
    EXPECT_EQ(lines[10000], "of further kinds: 4 now allowed, 0 now refused");
    EXPECT_EQ(lines[10001], "20004 devices: 20004 now allowed, 0 now refused, 0 as before");
}

TEST(FindTest, PrintsRulesToPaste) {
    const RulesFolder folder;
    folder.write("usb.ids",
                 "# comment\n1209  Generic\n\t0001  Black--Box\n\t0002  Mouse\n\t\t01  Interface\n"
                 "abcd  Mouse Makers\n\t000f  Pad\nC 03  Mouse\n\t01  Boot\n\t0123  Mouse\n");
    const auto find = [&](std::vector<std::string> words) {
        words.insert(words.begin(), {"find", "--ids", "usb.ids"});
        return folder.run(words);
    };
    EXPECT_EQ(
        find({"MOUSE"}),
        (Result{0,
                "<vid vendorid=\"4617\"><pid>2</pid></vid>       <!-- 1209:0002 Generic: Mouse "
                "-->\n"
                "<vid vendorid=\"43981\"/>                       <!-- abcd Mouse Makers -->\n",
                ""}));
    EXPECT_EQ(find({"box", "generic"}).out,
              "<vid vendorid=\"4617\"><pid>1</pid></vid>       <!-- 1209:0001 Generic: Black- -Box "
              "-->\n");
    EXPECT_EQ(
        find({"abcd:000f"}).out,
        "<vid vendorid=\"43981\"><pid>15</pid></vid>     <!-- abcd:000f Mouse Makers: Pad -->\n");
    EXPECT_EQ(
        find({"interface"}),
        (Result{1, "", "kusctl find: no vendor or product has 'interface' in its name or ids\n"}));
}

}  // namespace
