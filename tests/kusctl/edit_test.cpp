// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "kusctl_run.h"

namespace {

using Arguments = std::vector<std::string>;

std::string read(const std::string& path) {
    std::string text;
    EXPECT_TRUE(android::base::ReadFileToString(path, &text));
    return text;
}

// The vendors are on no public list, whose names would otherwise be told.
constexpr char kRules[] =
    "<?xml version=\"1.0\"?>\n"
    "<usbconfig mode=\"whitelist\">\n"
    "\t<!-- <class>USB_CLASS_PRINTER</class> -->\n"
    "\t<class>USB_CLASS_AUDIO</class>  <!-- all -->\n"
    "\t<class>AINPUT_SOURCE_MOUSE</class>\n"
    "\t<vid vendorid='60005'>\n"
    "\t\t<pid>1</pid><!-- one --> <!-- more -->\n"
    "\t\t<pid>02</pid>\n"
    "\t</vid>\n"
    "\t<vid vendorid=\"60003\"/><vid vendorid=\"60004\"/>\n"
    "</usbconfig>\n";

std::string blacklist() { return std::string(kRules).replace(39, 5, "black"); }

/** kRules with one piece of it replaced. */
std::string with(const std::string& before, const std::string& after) {
    std::string text = kRules;
    const size_t at = text.find(before);
    EXPECT_NE(at, std::string::npos);
    return text.replace(at, before.size(), after);
}

struct Edit {
    const char* name;
    std::string before;
    Arguments arguments;
    /** Empty where nothing is written. */
    std::string after;
    Result result;
};

class EditTest : public testing::TestWithParam<Edit> {};

TEST_P(EditTest, ChangesTheFile) {
    const auto& [name, before, arguments, after, result] = GetParam();
    const RulesFolder folder;
    folder.write("a.xml", before);
    Arguments command = arguments;
    command.insert(command.begin() + 1, {"--rules", "a.xml"});
    EXPECT_EQ(folder.run(command), result);
    EXPECT_EQ(read(folder.path() + "/a.xml"), after.empty() ? before : after);
}

constexpr char kNothingToDo[] = "nothing to do: the rules say so already\n";

INSTANTIATE_TEST_SUITE_P(
    Adds, EditTest,
    testing::Values(
        Edit{"ProductToItsVendor",
             kRules,
             {"allow", "--vendor", "60005", "--product", "0x7"},
             with("<pid>02</pid>", "<pid>02</pid>\n\t\t<pid>7</pid>"),
             {0, "now allowed: product 7 of vendor 60005 (a.xml:9)\n", ""}},
        Edit{"ListedProduct",
             kRules,
             {"allow", "--vendor", "60005", "--product", "2"},
             "",
             {0, kNothingToDo, ""}},
        Edit{"ProductOfListedVendor",
             kRules,
             {"allow", "--vendor", "60003", "--product", "2"},
             "",
             {0, kNothingToDo, ""}},
        Edit{"ProductOfNewVendor",
             kRules,
             {"allow", "--vendor", "60002", "--product", "2"},
             with("<vid vendorid=\"60004\"/>",
                  "<vid vendorid=\"60004\"/><vid vendorid=\"60002\"><pid>2</pid></vid>"),
             {0,
              "now allowed: any other product of vendor 60002, keyboards and mice too (a.xml:10)\n"
              "now allowed: product 2 of vendor 60002 (a.xml:10)\n"
              "a.xml:10: warning: every product of vendor 60002 matches, listed or not: vendors "
              "60003 (line 10) and 60004 (line 10), whose ids are greater, are listed without "
              "products; list the products of vendors 60003 and 60004, too\n",
              ""}},
        Edit{"Class",
             kRules,
             {"allow", "--input", "keyboard"},
             with("MOUSE</class>", "MOUSE</class>\n\t<class>AINPUT_SOURCE_KEYBOARD</class>"),
             {0, "now allowed: AINPUT_SOURCE_KEYBOARD (a.xml:6)\n", ""}},
        Edit{"RestrictedClass",
             kRules,
             {"allow", "--class", "hid"},
             "",
             {1, "",
              "kusctl allow: a.xml: USB_CLASS_HID is a restricted class, which no rule may name: "
              "name the devices by vendor and product\n"}},
        Edit{"BlockedVendor",
             blacklist(),
             {"block", "--vendor", "60001"},
             std::string(blacklist()).insert(blacklist().rfind("\n<"), "<vid vendorid=\"60001\"/>"),
             {0, "now refused: any product of vendor 60001, keyboards and mice too (a.xml:10)\n",
              ""}},
        Edit{"FirstRule",
             "<usbconfig mode=\"whitelist\" />",
             {"allow", "--input", "mouse"},
             "<usbconfig mode=\"whitelist\">\n  <class>AINPUT_SOURCE_MOUSE</class>\n</usbconfig>",
             {0, "now allowed: AINPUT_SOURCE_MOUSE (a.xml:2)\n", ""}},
        Edit{"FirstClass",
             "<usbconfig mode=\"whitelist\"> <!-- x -->\r\n  <vid vendorid=\"60001\"/>\r\n"
             "</usbconfig>",
             {"allow", "--input", "mouse"},
             "<usbconfig mode=\"whitelist\"> <!-- x -->\r\n  <class>AINPUT_SOURCE_MOUSE</class>\r\n"
             "  <vid vendorid=\"60001\"/>\r\n</usbconfig>",
             {0, "now allowed: AINPUT_SOURCE_MOUSE (a.xml:2)\n", ""}},
        Edit{"ToDefault",
             "<usbconfig mode=\"default\"/>",
             {"block", "--input", "mouse"},
             "",
             {1, "",
              "kusctl block: a.xml: mode 'default' allows every device: only a whitelist or a "
              "blacklist blocks\n"}}),
    [](const auto& info) { return std::string(info.param.name); });

constexpr char kClassesStay[] =
    "kusctl block: class rules would still allow a device of theirs, by whatever vendor: lines 4, "
    "5\n";

INSTANTIATE_TEST_SUITE_P(
    Removes, EditTest,
    testing::Values(
        Edit{"ProductBesideComments",
             kRules,
             {"block", "--vendor", "60005", "--product", "1"},
             with("<pid>1</pid><!--", "<!--"),
             {0, "now refused: product 1 of vendor 60005 (a.xml:7)\n", kClassesStay}},
        Edit{"ProductInALine",
             kRules,
             {"block", "--vendor", "60005", "--product", "2"},
             with("\t\t<pid>02</pid>\n", ""),
             {0, "now refused: product 2 of vendor 60005 (a.xml:8)\n", kClassesStay}},
        Edit{"LastProductWithItsVendor",
             "<usbconfig mode=\"whitelist\">\n<vid vendorid=\"60005\">\n<pid>5</pid></vid>\n"
             "<vid vendorid=\"60004\"><pid>1</pid></vid>\n</usbconfig>",
             {"block", "--vendor", "60005", "--product", "5"},
             "<usbconfig mode=\"whitelist\">\n<vid vendorid=\"60004\"><pid>1</pid></vid>\n"
             "</usbconfig>",
             {0, "now refused: product 5 of vendor 60005 (a.xml:3)\n", ""}},
        Edit{"Vendor",
             kRules,
             {"block", "--vendor", "60005"},
             with("\t<vid vendorid='60005'>\n\t\t<pid>1</pid><!-- one --> <!-- more -->\n"
                  "\t\t<pid>02</pid>\n\t</vid>\n",
                  ""),
             {0,
              "now refused: product 1 of vendor 60005 (a.xml:7)\n"
              "now refused: product 2 of vendor 60005 (a.xml:8)\n",
              kClassesStay}},
        Edit{"ProductOfListedVendor",
             kRules,
             {"block", "--vendor", "60004", "--product", "1"},
             "",
             {1, "",
              "kusctl block: a.xml: the rule in line 10 is for every product of vendor 60004, and "
              "there are no exceptions: list the other products instead\n"}},
        Edit{"ProductThatMatchesByAGreaterVendor",
             "<usbconfig mode=\"whitelist\"><vid vendorid=\"60001\"><pid>1</pid><pid>2</pid></vid>"
             "<vid vendorid=\"60002\"/></usbconfig>",
             {"block", "--vendor", "60001", "--product", "1"},
             "",
             {1, "",
              "kusctl block: a.xml: a rule would still allow it: line 1; every product of vendor "
              "60001 matches, listed or not: vendor 60002 (line 1), whose id is greater, is listed "
              "without products; list the products of vendor 60002, too\n"}},
        Edit{"ProductBeforeAnotherElement",
             "<usbconfig mode=\"whitelist\"><vid vendorid=\"60001\"><pid>1</pid><id>2</id></vid>"
             "</usbconfig>",
             {"block", "--vendor", "60001", "--product", "1"},
             "",
             {1, "", "kusctl block: a.xml: the 'vid' in line 1 would be left without a 'pid'\n"}},
        Edit{"BlockedClass",
             blacklist(),
             {"allow", "--class", "audio"},
             std::string(blacklist()).replace(blacklist().find("<class>USB_CLASS_AUDIO"), 32, ""),
             {0, "now allowed: USB_CLASS_AUDIO (a.xml:4)\n", ""}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(EditFileTest, LeavesTheRulesAloneForAnOutput) {
    const RulesFolder folder;
    folder.write("a.xml", kRules);
    const std::string edited = with("\t<class>AINPUT_SOURCE_MOUSE</class>\n", "");
    const Arguments command = {"block", "--rules", "a.xml", "--input", "mouse", "--output"};
    Arguments toFile = command, toOutput = command;
    toFile.push_back("b.xml");
    toOutput.push_back("-");
    EXPECT_EQ(folder.run(toOutput), (Result{0, edited, ""}));
    EXPECT_EQ(folder.run(toFile), (Result{0, "now refused: AINPUT_SOURCE_MOUSE (a.xml:5)\n", ""}));
    EXPECT_EQ(read(folder.path() + "/b.xml"), edited);
    EXPECT_EQ(read(folder.path() + "/a.xml"), kRules);
}

TEST(EditFileTest, KeepsModeAndLink) {
    const RulesFolder folder;
    folder.write("a.xml", kRules);
    const std::string file = folder.path() + "/a.xml", link = folder.path() + "/link.xml";
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    ASSERT_EQ(symlink("a.xml", link.c_str()), 0);
    const Arguments command = {"block", "--rules",  "link.xml", "--input",
                               "mouse", "--output", "a.xml"};
    struct stat before;
    ASSERT_EQ(stat(file.c_str(), &before), 0);
    EXPECT_EQ(folder.run(command).status, 0);
    struct stat st;
    ASSERT_EQ(lstat(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_NE(st.st_ino, before.st_ino) << "written in place";
    EXPECT_NE(read(file), kRules);
    EXPECT_NE(access((file + ".new").c_str(), F_OK), 0);
}

}  // namespace
