// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <array>
#include <filesystem>

#include "kusctl_run.h"

namespace {

namespace fs = std::filesystem;

// The vendors are on no public list, whose names would otherwise be told.
const std::string kRules =
    "<?xml version='1.0'?>\n"
    "<usbconfig mode='whitelist'>\n"
    "\t<!-- <class>USB_CLASS_PRINTER</class> -->\n"
    "\t<class>USB_CLASS_AUDIO</class>  <!-- all -->\n"
    "\t<class>AINPUT_SOURCE_MOUSE</class>\n"
    "\t<vid vendorid='60005'>\n"
    "\t\t<pid>1</pid><!-- one --> <!-- more -->\n"
    "\t\t<pid>02</pid>\n"
    "\t</vid>\n"
    "\t<vid vendorid=\"60003\"/><vid vendorid=\"60004\"/>\n"
    "</usbconfig>\n";

/** `text` with one piece of it replaced. */
std::string with(const std::string& before, const std::string& after, std::string text = kRules) {
    return text.replace(text.find(before), before.size(), after);
}

const std::string kBlacklist = with("white", "black");

TEST(EditTest, MakesTheSmallestChange) {
    const std::string nothingToDo = "nothing to do: the rules say so already\n";
    const std::string classesStay =
        "kusctl block: class rules would still allow a device of theirs, by whatever vendor: lines "
        "4, 5\n";
    const struct {
        std::string before, arguments, after, out, err = "";
    } edits[] = {
        {kRules, "allow --vendor 60005 --product 0x7",
         with("<pid>02</pid>", "<pid>02</pid>\n\t\t<pid>7</pid>"),
         "now allowed: product 7 of vendor 60005 (a.xml:9)\n"},
        {kRules, "allow --vendor 60005 --product 2", kRules, nothingToDo},
        {kRules, "allow --vendor 60003 --product 2", kRules, nothingToDo},
        {kRules, "allow --vendor 60002 --product 2",
         with("60004\"/>", "60004\"/><vid vendorid=\"60002\"><pid>2</pid></vid>"),
         "now allowed: any other product of vendor 60002, keyboards and mice too (a.xml:10)\n"
         "now allowed: product 2 of vendor 60002 (a.xml:10)\n"
         "a.xml:10: warning: every product of vendor 60002 matches, listed or not: vendors 60003 "
         "(line 10) and 60004 (line 10), whose ids are greater, are listed without products; list "
         "the products of vendors 60003 and 60004, too\n"},
        {kRules, "allow --input keyboard",
         with("MOUSE</class>", "MOUSE</class>\n\t<class>AINPUT_SOURCE_KEYBOARD</class>"),
         "now allowed: AINPUT_SOURCE_KEYBOARD (a.xml:6)\n"},
        {kBlacklist, "block --vendor 60001",
         with("\n</usbconfig>", "<vid vendorid=\"60001\"/>\n</usbconfig>", kBlacklist),
         "now refused: any product of vendor 60001, keyboards and mice too (a.xml:10)\n"},
        {"<usbconfig mode='whitelist' />", "allow --input mouse",
         "<usbconfig mode='whitelist'>\n  <class>AINPUT_SOURCE_MOUSE</class>\n</usbconfig>",
         "now allowed: AINPUT_SOURCE_MOUSE (a.xml:2)\n"},
        {"<usbconfig mode='whitelist'> <!-- x -->\r\n  <vid vendorid='60001'/>\r\n</usbconfig>",
         "allow --input mouse",
         "<usbconfig mode='whitelist'> <!-- x -->\r\n  <class>AINPUT_SOURCE_MOUSE</class>\r\n"
         "  <vid vendorid='60001'/>\r\n</usbconfig>",
         "now allowed: AINPUT_SOURCE_MOUSE (a.xml:2)\n"},

        {kRules, "block --vendor 60005 --product 1", with("<pid>1</pid><!--", "<!--"),
         "now refused: product 1 of vendor 60005 (a.xml:7)\n", classesStay},
        {kRules, "block --vendor 60005 --product 2", with("\t\t<pid>02</pid>\n", ""),
         "now refused: product 2 of vendor 60005 (a.xml:8)\n", classesStay},
        {kRules, "block --vendor 60005",
         with("\t<vid vendorid='60005'>\n\t\t<pid>1</pid><!-- one --> <!-- more -->\n"
              "\t\t<pid>02</pid>\n\t</vid>\n",
              ""),
         "now refused: product 1 of vendor 60005 (a.xml:7)\n"
         "now refused: product 2 of vendor 60005 (a.xml:8)\n",
         classesStay},
        // Without its last product a vendor would match as a whole.
        {whitelist(
             "<vid vendorid='60005'>\n<pid>5</pid></vid>\n<vid vendorid='1'><pid>1</pid></vid>"),
         "block --vendor 60005 --product 5", whitelist("<vid vendorid='1'><pid>1</pid></vid>"),
         "now refused: product 5 of vendor 60005 (a.xml:3)\n"},
        {kBlacklist, "allow --class audio",
         with("<class>USB_CLASS_AUDIO</class>  ", "", kBlacklist),
         "now allowed: USB_CLASS_AUDIO (a.xml:4)\n"},
    };
    for (const auto& [before, arguments, after, out, err] : edits) {
        SCOPED_TRACE(arguments + ":\n" + before);
        EXPECT_EQ(runKusctl({{"a.xml", before}}, arguments + " --rules a.xml"),
                  (Result{0, out, err}));
        EXPECT_EQ(filesHere(), (Files{{"a.xml", after}}));
    }
}

TEST(EditTest, WritesNothingWhereTheFormatHasNoWayToSayIt) {
    const std::array<std::string, 3> edits[] = {
        {kRules, "allow --class hid",
         "kusctl allow: a.xml: USB_CLASS_HID is a restricted class, which no rule may name: name "
         "the devices by vendor and product\n"},
        {"<usbconfig mode='default'/>", "block --input mouse",
         "kusctl block: a.xml: mode 'default' allows every device: only a whitelist or a blacklist "
         "blocks\n"},
        {kRules, "block --vendor 60004 --product 1",
         "kusctl block: a.xml: the rule in line 10 is for every product of vendor 60004, and there "
         "are no exceptions: list the other products instead\n"},
        {whitelist("<vid vendorid='60001'><pid>1</pid><pid>2</pid></vid><vid vendorid='60002'/>"),
         "block --vendor 60001 --product 1",
         "kusctl block: a.xml: a rule would still allow it: line 2; every product of vendor 60001 "
         "matches, listed or not: vendor 60002 (line 2), whose id is greater, is listed without "
         "products; list the products of vendor 60002, too\n"},
        {whitelist("<vid vendorid='60001'><pid>1</pid><id>2</id></vid>"),
         "block --vendor 60001 --product 1",
         "kusctl block: a.xml: the 'vid' in line 2 would be left without a 'pid'\n"},
    };
    for (const auto& [before, arguments, err] : edits) {
        EXPECT_EQ(runKusctl({{"a.xml", before}}, arguments + " --rules a.xml"),
                  (Result{1, "", err}));
        EXPECT_EQ(filesHere(), (Files{{"a.xml", before}}));
    }
}

TEST(EditTest, LeavesTheRulesAloneForAnOutput) {
    const std::string edited = with("\t<class>AINPUT_SOURCE_MOUSE</class>\n", "");
    const std::string command = "block --rules a.xml --input mouse --output ";
    EXPECT_EQ(runKusctl({{"a.xml", kRules}}, command + "-"), (Result{0, edited}));
    EXPECT_EQ(runKusctl(command + "b.xml"),
              (Result{0, "now refused: AINPUT_SOURCE_MOUSE (a.xml:5)\n"}));
    EXPECT_EQ(filesHere(), (Files{{"a.xml", kRules}, {"b.xml", edited}}));
}

TEST(EditTest, ReplacesTheFileBehindALinkAndKeepsItsMode) {
    enterDevicesFolder({{"a.xml", kRules}});
    fs::permissions("a.xml", fs::perms(0640));
    fs::create_symlink("a.xml", "link.xml");
    fs::create_hard_link("a.xml", "old.xml");
    EXPECT_EQ(runKusctl("block --rules link.xml --input mouse --output a.xml").status, 0);
    const std::string edited = with("\t<class>AINPUT_SOURCE_MOUSE</class>\n", "");
    EXPECT_EQ(filesHere(), (Files{{"a.xml", edited}, {"link.xml", edited}, {"old.xml", kRules}}));
    EXPECT_TRUE(fs::is_symlink("link.xml"));
    EXPECT_EQ(fs::status("a.xml").permissions(), fs::perms(0640));
}

TEST(EditTest, LeavesTheDevicesOwnFileToApply) {
    const std::string own = "usb_device_config.xml";
    const struct {
        Files files;
        std::string arguments;
    } edits[] = {
        {{{own, kRules}}, ""},
        {{{own, kRules}}, "--rules usb_device_config.xml"},
        {{{own, kRules}, {"a.xml", kRules}}, "--rules a.xml --output usb_device_config.xml"},
        {{{"a.xml", kRules}}, "--rules a.xml --output usb_device_config.xml"},
    };
    for (const auto& [files, arguments] : edits) {
        SCOPED_TRACE(arguments);
        const Result result = runKusctl(files, "block --input mouse " + arguments);
        EXPECT_EQ(result,
                  (Result{1, result.out,
                          "kusctl apply: there is no /dev/binder: this asks the service, on a "
                          "device\n"}));
        EXPECT_EQ(result.out.find("now refused"), std::string::npos) << result.out;
        EXPECT_EQ(filesHere(), files);
    }
}

// 'kusctl apply' writes in the same way.
TEST(EditTest, LeavesOneOfTheTwoFilesWhereverItIsKilled) {
    const std::string edited = with("\t<class>AINPUT_SOURCE_MOUSE</class>\n", "");
    const std::string block = KUSCTL_PATH " block --rules a.xml --input mouse >/dev/null";
    for (const char* call : {"openat", "fchown", "fchmod", "write", "fsync", "rename", "close"}) {
        bool killed = true;
        for (int when = 1; killed; ++when) {
            SCOPED_TRACE(call + std::to_string(when));
            enterDevicesFolder({{"a.xml", kRules}});
            const std::string strace =
                "ASAN_OPTIONS=detect_leaks=0 strace -o /dev/null -P $PWD/a.xml -P $PWD/a.xml.new "
                "--inject=" +
                std::string(call) + ":signal=SIGKILL:when=" + std::to_string(when);
            killed = WEXITSTATUS(system((strace + " " + block).c_str())) == 128 + SIGKILL;
            const std::string found = filesHere()["a.xml"];
            EXPECT_TRUE(found == edited || (killed && found == kRules)) << found;
        }
    }
}

TEST(EditTest, KeepsWhatIsEditedAtTheSameTime) {
    enterDevicesFolder({{"a.xml", kBlacklist}});
    EXPECT_EQ(system("for vendor in 1 2 3 4 5 6; do\n" KUSCTL_PATH
                     " block --rules a.xml --vendor $vendor >/dev/null &\ndone\nwait"),
              0);
    const Files files = filesHere();
    EXPECT_EQ(files.size(), 1u);
    for (const char vendor : std::string("123456")) {
        const std::string rule = std::string("<vid vendorid=\"") + vendor + "\"/>";
        EXPECT_NE(files.at("a.xml").find(rule), std::string::npos) << rule;
    }
}

}  // namespace
