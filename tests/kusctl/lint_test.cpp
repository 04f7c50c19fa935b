// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <gmock/gmock.h>
#include <json/json.h>

#include <filesystem>
#include <sstream>

#include "kusctl_run.h"

namespace {

using android::base::ReadFileToString;
using android::base::WriteStringToFile;

std::string whitelist(const std::string& rules) {
    return "<usbconfig mode=\"whitelist\">\n" + rules + "\n</usbconfig>\n";
}

struct File {
    const char* name;
    std::string content;
    int status;
    /** What kusctl prints about the file, without the file's name at the start of each line. */
    std::vector<std::string> findings;
};

class LintTest : public testing::TestWithParam<File> {};

TEST_P(LintTest, TellsVerdictAndWarnings) {
    const auto& [name, content, status, findings] = GetParam();
    const RulesFolder folder;
    folder.write("rules.xml", content);
    std::string expected;
    for (const std::string& finding : findings) expected += "rules.xml:" + finding + "\n";
    EXPECT_EQ(folder.run({"lint", "rules.xml"}), (Result{status, expected, ""}));
}

std::string nameOf(const testing::TestParamInfo<File>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(
    Verdict, LintTest,
    testing::Values(
        File{"Success",
             whitelist("<class>AINPUT_SOURCE_MOUSE</class>\n<vid vendorid=\"1133\"/>"),
             0,
             {" accepted: SUCCESS"}},
        File{"BlacklistWithoutRules", "<usbconfig mode=\"blacklist\"/>", 0, {" accepted: SUCCESS"}},
        File{"EmptyFile",
             "",
             1,
             {" refused: Error=XML_ERROR_EMPTY_DOCUMENT ErrorID=13 (0xd) Line number=0"}},
        File{"BrokenXml",
             "<usbconfig mode=\"whitelist\">\n<class>\n</usbconfig>",
             1,
             {"2: refused: Error=XML_ERROR_MISMATCHED_ELEMENT ErrorID=14 (0xe) Line number=2: "
              "XMLElement name=class"}},
        File{"Root",
             "\n<config mode=\"whitelist\"/>",
             1,
             {"2: refused: INVALID ROOT ELEMENT : config"}},
        File{"NoMode",
             "<usbconfig><class>AINPUT_SOURCE_MOUSE</class></usbconfig>",
             1,
             {"1: refused: MODE NOT PRESENT"}},
        File{"Mode", "<usbconfig mode=\"Whitelist\"/>", 1, {"1: refused: INVALID MODE"}},
        File{"EmptyClass", whitelist("<class/>"), 1, {"2: refused: EMPTY CLASS VALUE"}},
        File{"UnknownClass",
             whitelist("<class>USB_CLASS_PHYSICAL</class>"),
             1,
             {"2: refused: INVALID CLASS VALUE:USB_CLASS_PHYSICAL",
              "2: warning: 'USB_CLASS_PHYSICAL' is no name of a class; write USB_CLASS_PHYSICA"}},
        File{"RestrictedClass",
             whitelist("<class>USB_CLASS_HID</class>"),
             1,
             {"2: refused: INVALID CLASS VALUE:USB_CLASS_HID",
              "2: warning: 'USB_CLASS_HID' is a restricted class; name the devices by 'vid' and "
              "'pid'"}},
        File{"NoVendorId", whitelist("<vid/>"), 1, {"2: refused: vendorid TAG NOT PRESENT"}},
        File{"EmptyVendorId",
             whitelist("<vid vendorid=\"\"/>"),
             1,
             {"2: refused: EMPTY VENDOR ID VALUE"}},
        File{"VendorId",
             whitelist("<vid vendorid=\"0x46d\"/>"),
             1,
             {"2: refused: INVALID VENDOR ID VALUE:0x46d",
              "2: warning: '0x46d' is hexadecimal; write 1133"}},
        File{"EmptyProductId",
             whitelist("<vid vendorid=\"1\">\n<pid>2</pid>\n<pid/>\n</vid>"),
             1,
             {"4: refused: EMPTY PRODUCT ID VALUE"}},
        File{"ProductId",
             whitelist("<vid vendorid=\"1\">\n<pid>-2</pid>\n</vid>"),
             1,
             {"3: refused: INVALID PRODUCT ID VALUE:-2"}},
        File{"Tag",
             whitelist("<vid vendorid=\"1\"/>\n<product/>"),
             1,
             {"3: refused: INVALID TAG:product"}},
        File{"UnprintableStatus",
             whitelist("<class>\033[2J\xE9</class>"),
             1,
             {"2: refused: INVALID CLASS VALUE:\\x1B[2J\\xE9"}}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Crash, LintTest,
    testing::Values(
        File{"NoElement",
             "<?xml version=\"1.0\"?>\n<!-- none -->\n",
             1,
             {" crash: Unable to apply the USB Admin config rules",
              " warning: the document has no element, which ends the daemon"}},
        File{"VendorId",
             whitelist("<vid vendorid=\"1\"/>\n<vid vendorid=\"2147483648\"/>"),
             1,
             {"3: crash: Unable to apply the USB Admin config rules",
              "3: warning: vendor id 2147483648 does not fit 32 bits, which ends the daemon; "
              "ids go up to 65535"}},
        File{"ProductId",
             whitelist("<vid vendorid=\"1\">\n<pid>99999999999999999999</pid></vid>"),
             1,
             {"3: crash: Unable to apply the USB Admin config rules",
              "3: warning: product id 99999999999999999999 does not fit 32 bits, which ends the "
              "daemon; ids go up to 65535"}},
        File{"BehindAnError",
             whitelist("<foo/>\n<vid vendorid=\"2147483648\"/>"),
             1,
             {"2: refused: INVALID TAG:foo",
              "3: warning: vendor id 2147483648 does not fit 32 bits, which ends the daemon; "
              "ids go up to 65535"}}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Warning, LintTest,
    testing::Values(
        File{"AllowsNothing",
             "\n<usbconfig mode=\"whitelist\">\n</usbconfig>",
             0,
             {" accepted: SUCCESS", "2: warning: a whitelist without a rule refuses every device"}},
        File{"DuplicateClass",
             whitelist("<class>AINPUT_SOURCE_MOUSE</class>\n<class>AINPUT_SOURCE_MOUSE</class>"),
             0,
             {" accepted: SUCCESS",
              "3: warning: class 'AINPUT_SOURCE_MOUSE' is listed already (line 2)"}},
        File{"DuplicateVendor",
             whitelist("<vid vendorid=\"5\"/>\n<vid vendorid=\"05\"/>"),
             0,
             {" accepted: SUCCESS", "3: warning: vendor 5 is listed as a whole already (line 2)"}},
        File{
            "DuplicateProduct",
            whitelist("<vid vendorid=\"5\"><pid>6</pid></vid>\n<vid vendorid=\"5\"><pid>7</pid>\n"
                      "<pid>6</pid></vid>"),
            0,
            {" accepted: SUCCESS", "4: warning: product 6 of vendor 5 is listed already (line 2)"}},
        File{"ProductsOfListedVendor",
             whitelist("<vid vendorid=\"5\"><pid>6</pid></vid>\n<vid vendorid=\"5\"/>"),
             0,
             {" accepted: SUCCESS", "2: warning: vendor 5 is listed as a whole too (line 3)"}},
        File{
            "GreaterWholeVendor",
            whitelist("<vid vendorid=\"100\"><pid>5</pid></vid>\n<vid vendorid=\"200\"/>\n"
                      "<vid vendorid=\"300\"><pid>5</pid></vid>"),
            0,
            {" accepted: SUCCESS",
             "2: warning: every product of vendor 100 matches, listed or not: vendor 200 (line 3), "
             "whose id is greater, is listed without products; list the products of vendor 200, "
             "too"}},
        File{"GreaterWholeVendors",
             whitelist("<vid vendorid=\"100\"><pid>5</pid></vid>\n<vid vendorid=\"50\"/>\n"
                       "<vid vendorid=\"250\"/><vid vendorid=\"200\"/>\n"
                       "<vid vendorid=\"7\"><pid>1</pid></vid>"),
             0,
             {" accepted: SUCCESS",
              "5: warning: every product of vendors 7 (line 5) and 100 (line 2) matches, listed or "
              "not: vendors 50 (line 3), 200 (line 4) and 250 (line 4), whose ids are greater, are "
              "listed without products; list the products of vendors 50, 200 and 250, too"}},
        File{"RefusesInput",
             whitelist("<class>USB_CLASS_PRINTER</class><class>AINPUT_SOURCE_JOYSTICK</class>"),
             0,
             {" accepted: SUCCESS",
              "1: warning: every keyboard, mouse and touch screen is refused; name them by 'vid' "
              "and 'pid', or allow AINPUT_SOURCE_KEYBOARD and the like",
              "2: note: class 'USB_CLASS_PRINTER' allows a device that has HID or vendor-specific "
              "interfaces, too; name devices by 'vid' and 'pid' where that is too much"}},
        File{"ClassesByOtherNames",
             whitelist("<class>keyboard</class>\n<class>USB_CLASS_MOUSE</class>\n"
                       "<class>8</class>\n<class>hub</class>\n<class>foo</class>"),
             1,
             {"2: refused: INVALID CLASS VALUE:keyboard",
              "2: warning: 'keyboard' is no name of a class; write AINPUT_SOURCE_KEYBOARD",
              "3: warning: 'USB_CLASS_MOUSE' is no name of a class; write AINPUT_SOURCE_MOUSE",
              "4: warning: '8' is no name of a class; write USB_CLASS_MASS_STORAGE",
              "5: warning: 'hub' is a restricted class; name the devices by 'vid' and 'pid'"}},
        File{"HexadecimalProduct",
             whitelist("<vid vendorid=\"1133\">\n<pid>c31C</pid></vid>"),
             1,
             {"3: refused: INVALID PRODUCT ID VALUE:c31C",
              "3: warning: 'c31C' is hexadecimal; write 49948"}},
        File{"TextAfterComment",
             whitelist("<class><!-- any --><!-- of them -->AINPUT_SOURCE_MOUSE</class>"),
             0,
             {" accepted: SUCCESS",
              "2: warning: text after a comment in 'class': not every version of the parser reads "
              "it; put the comment before the element"}},
        File{"StrayEndTag",
             "<!-- </a> --><usbconfig mode=\"default\" x='</b>'><![CDATA[</c>]]></usbconfig>\n"
             "<!-- </d> --></usbconfig>\n<usbconfig mode=\"whitelist\"/>",
             0,
             {" accepted: SUCCESS", "1: warning: attribute 'x' is ignored",
              "2: warning: an end tag that closes nothing ends the document: everything after it "
              "is ignored; remove the tag"}},
        File{"NulByte",
             std::string("<usbconfig mode=\"default\"/>\n\0<a/>", 33),
             0,
             {" accepted: SUCCESS",
              "2: warning: a NUL byte ends the document: everything after it is ignored; save the "
              "file as UTF-8 text"}},
        File{"NothingAfterNulBytes",
             std::string("<usbconfig mode=\"default\"/>\n\0\0\n", 31),
             0,
             {" accepted: SUCCESS"}},
        File{"TextAfterRoot",
             "<usbconfig mode=\"default\"/>\nmore<!-- -->",
             0,
             {" accepted: SUCCESS", "2: warning: text 'more' is ignored"}},
        File{"Utf16",
             std::string("\xFF\xFE<\0u\0", 6),
             1,
             {"1: refused: Error=XML_ERROR_PARSING ErrorID=15 (0xf) Line number=1",
              " warning: the file is in UTF-16; save it as UTF-8"}},
        File{"IgnoredElement",
             whitelist("<vid vendorid=\"1\"><name/><pid>2</pid></vid>\n"
                       "<vid vendorid=\"3\"><product>4</product></vid>"),
             0,
             {" accepted: SUCCESS", "2: warning: element 'name' before the first 'pid' is ignored",
              "2: warning: every product of vendor 1 matches, listed or not: vendor 3 (line 3), "
              "whose id is greater, is listed without products; list the products of vendor 3, too",
              "3: warning: element 'product' is ignored: without a 'pid' the rule is for every "
              "product of the vendor; write 'pid' for a product"}},
        File{"IgnoredAttribute",
             whitelist("<vid vendorid=\"1\" productid=\"2\"/>"),
             0,
             {" accepted: SUCCESS", "2: warning: attribute 'productid' is ignored"}},
        File{"IgnoredText",
             whitelist("<vid vendorid=\"1\">22336</vid>"),
             0,
             {" accepted: SUCCESS", "2: warning: text '22336' is ignored"}},
        File{"IgnoredRestOfValue",
             whitelist("<vid vendorid=\"1\"><pid>2<!-- or --> 3</pid></vid>"),
             0,
             {" accepted: SUCCESS", "2: warning: only the first piece of text in 'pid' is read"}},
        File{"IgnoredRules",
             "<usbconfig mode=\"default\">\n<class>foo</class></usbconfig>",
             0,
             {" accepted: SUCCESS", "2: warning: in mode 'default' every rule is ignored"}},
        File{"IgnoredSecondRoot",
             "<usbconfig mode=\"default\"/>\n<usbconfig mode=\"whitelist\"/>",
             0,
             {" accepted: SUCCESS",
              "2: warning: everything after the first root element is ignored"}},
        File{
            "TakenAsProduct",
            whitelist("<vid vendorid=\"1\"><pid>2</pid>\n<foo>3</foo></vid>"),
            0,
            {" accepted: SUCCESS",
             "3: warning: element 'foo' after a 'pid' is taken as one; close the 'vid' before it"}},
        File{"LeadingZero",
             whitelist("<vid vendorid=\"0951\"><pid>00</pid></vid>"),
             0,
             {" accepted: SUCCESS",
              "2: warning: '0951' is read as decimal 951; 0951 in hexadecimal is 2385"}},
        File{
            "VendorAbove16Bits",
            whitelist("<vid vendorid=\"65536\"/>"),
            0,
            {" accepted: SUCCESS", "2: warning: vendor id 65536 is above 65535: no device has it"}},
        File{"ProductAbove16Bits",
             whitelist("<vid vendorid=\"65535\"><pid>65536</pid></vid>"),
             0,
             {" accepted: SUCCESS",
              "2: warning: product id 65536 is above 65535: no device has it"}},
        File{"BlanksAroundClass",
             whitelist("<class>AINPUT_SOURCE_MOUSE\n</class>"),
             1,
             {"2: refused: INVALID CLASS VALUE:AINPUT_SOURCE_MOUSE\\n",
              "2: warning: the blanks around class 'AINPUT_SOURCE_MOUSE\\n' are part of it; remove "
              "them"}},
        File{"BlanksAroundIds",
             whitelist("<vid vendorid=\" 1\"><pid>2 </pid></vid>"),
             1,
             {"2: refused: INVALID VENDOR ID VALUE: 1",
              "2: warning: the blanks around vendor ' 1' are part of it; remove them",
              "2: warning: the blanks around product '2 ' are part of it; remove them"}},
        File{"BlanksAroundMode",
             "<usbconfig mode=\"default \"/>",
             1,
             {"1: refused: INVALID MODE",
              "1: warning: the blanks around mode 'default ' are part of it; remove them"}}),
    nameOf);

TEST(LintFilesTest, GoesOnAfterFilesThatItCannotRead) {
    const RulesFolder folder;
    folder.write("good.xml", whitelist("<class>AINPUT_SOURCE_MOUSE</class>"));
    EXPECT_EQ(folder.run({"lint", "missing.xml", ".", "good.xml"}),
              (Result{1, "good.xml: accepted: SUCCESS\n",
                      "kusctl lint: missing.xml: No such file or directory\n"
                      "kusctl lint: .: not a regular file\n"}));
}

TEST(LintFilesTest, OneBadFileDecidesTheStatus) {
    const RulesFolder folder;
    folder.write("bad.xml", "<a/>");
    folder.write("good.xml", "<usbconfig mode=\"default\"/>");
    EXPECT_EQ(folder.run({"lint", "bad.xml", "good.xml"}),
              (Result{1,
                      "bad.xml:1: refused: INVALID ROOT ELEMENT : a\n"
                      "good.xml: accepted: SUCCESS\n",
                      ""}));
}

TEST(LintFilesTest, TellsPrograms) {
    const RulesFolder folder;
    folder.write("a.xml", whitelist("<vid vendorid=\"1\"/>\n<vid vendorid=\"1\"/>"));
    folder.write("b.xml", whitelist("<class>\xE9\n</class>"));
    const Result result = folder.run({"lint", "--json", "a.xml", "b.xml", "c.xml"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "");

    const auto parse = [](const std::string& text) {
        Json::Value value;
        std::istringstream(text) >> value;
        return value;
    };
    EXPECT_EQ(parse(result.out), parse(R"json([
        {"file": "a.xml", "verdict": "accepted", "status": "SUCCESS", "line": 0,
         "warnings": [{"kind": "duplicate", "line": 3,
                       "message": "vendor 1 is listed as a whole already (line 2)",
                       "level": "warning", "cure": ""}]
},
        {"file": "b.xml", "verdict": "refused", "status": "INVALID CLASS VALUE:\ufffd\n", "line": 2,
         "warnings": [{"kind": "blanks", "line": 2,
                       "message": "the blanks around class '\ufffd\n' are part of it",
                       "level": "warning", "cure": "remove them"}]},
        {"file": "c.xml", "verdict": "unreadable", "status": "No such file or directory", "line": 0,
         "warnings": []}])json"));
}

TEST(LintFilesTest, TellsReviewersOfCode) {
    const RulesFolder folder;
    folder.write("a 1.xml", whitelist("<class>\033%</class>\n<vid vendorid=\"70000\"/>"));
    folder.write("b.xml", whitelist("<vid vendorid=\"1\"/><class>USB_CLASS_AUDIO</class>"));
    EXPECT_EQ(
        folder.run({"lint", "--format", "github", "a 1.xml", "b.xml", "c.xml"}).out,
        "::error file=a 1.xml,line=2,title=refused::refused: INVALID CLASS VALUE:\\x1B%25\n"
        "::warning file=a 1.xml,line=3,title=never-matches::vendor id 70000 is above 65535: no "
        "device has it\n"
        "::notice file=b.xml,line=2,title=restricted-interfaces::class 'USB_CLASS_AUDIO' "
        "allows a device that has HID or vendor-specific interfaces, too; name devices by "
        "'vid' and 'pid' where that is too much\n"
        "::error file=c.xml,line=1,title=unreadable::unreadable: No such file or directory\n");

    Json::Value log;
    std::istringstream(folder.run({"lint", "--format", "sarif", "a 1.xml"}).out) >> log;
    EXPECT_EQ(log["version"], "2.1.0");
    const Json::Value& results = log["runs"][0]["results"];
    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(results[0]["level"], "error");
    EXPECT_EQ(results[1]["ruleId"], "never-matches");
    const Json::Value& place = results[1]["locations"][0]["physicalLocation"];
    EXPECT_EQ(place["artifactLocation"]["uri"], "a%201.xml");
    EXPECT_EQ(place["region"]["startLine"], 3);
}

TEST(LintFilesTest, FailsOnWarningsWhereStrict) {
    const RulesFolder folder;
    folder.write("note.xml", whitelist("<class>USB_CLASS_AUDIO</class><vid vendorid=\"1\"/>"));
    folder.write("warning.xml", whitelist("<vid vendorid=\"70000\"/>"));
    EXPECT_EQ(folder.run({"lint", "--strict", "note.xml"}).status, 0);
    EXPECT_EQ(folder.run({"lint", "warning.xml"}).status, 0);
    EXPECT_EQ(folder.run({"lint", "--strict", "note.xml", "warning.xml"}).status, 1);
}

TEST(LintFilesTest, LeavesTheDevicesFilesAlone) {
    const std::filesystem::path directory = "/data/system/usbdeviceconfig";
    std::filesystem::create_directories(directory);
    const std::string rules = directory / "usb_device_config.xml";
    const std::string status = directory / "status.txt";
    ASSERT_TRUE(WriteStringToFile("<usbconfig mode=\"none\"/>", rules));
    ASSERT_TRUE(WriteStringToFile("SUCCESS", status));

    EXPECT_EQ(runKusctl("/", {"lint", rules}).out, rules + ":1: refused: INVALID MODE\n");
    std::string content;
    EXPECT_TRUE(ReadFileToString(status, &content));
    EXPECT_EQ(content, "SUCCESS");
    EXPECT_TRUE(ReadFileToString(rules, &content));
    EXPECT_EQ(content, "<usbconfig mode=\"none\"/>");
    std::filesystem::remove_all("/data/system");
}

}  // namespace
