// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "kusctl_run.h"

namespace {

/** Of each file by itself, whose name is "a". */
void expectOutput(const std::vector<std::pair<std::string, std::string>>& filesAndOutputs) {
    for (const auto& [rules, output] : filesAndOutputs) {
        SCOPED_TRACE(rules);
        const int status = android::base::StartsWith(output, "a: accepted: ") ? 0 : 1;
        EXPECT_EQ(runKusctl({{"a", rules}}, "lint a"), (Result{status, output}));
    }
}

TEST(LintTest, TellsWhyTheDeviceWouldNotTakeIt) {
    expectOutput({
        {"", "a: refused: Error=XML_ERROR_EMPTY_DOCUMENT ErrorID=13 (0xd) Line number=0\n"},
        {"<usbconfig mode='whitelist'>\n<class>\n</usbconfig>",
         "a:2: refused: Error=XML_ERROR_MISMATCHED_ELEMENT ErrorID=14 (0xe) Line number=2: "
         "XMLElement name=class\n"},
        {std::string("\xFF\xFE<\0u\0", 6),
         "a:1: refused: Error=XML_ERROR_PARSING ErrorID=15 (0xf) Line number=1\n"
         "a: warning: the file is in UTF-16; save it as UTF-8\n"},
        {"\n<config mode='whitelist'/>", "a:2: refused: INVALID ROOT ELEMENT : config\n"},
        {"<usbconfig/>", "a:1: refused: MODE NOT PRESENT\n"},
        {"<usbconfig mode='default '/>",
         "a:1: refused: INVALID MODE\n"
         "a:1: warning: the blanks around mode 'default ' are part of it; remove them\n"},
        {whitelist("<class/>"), "a:2: refused: EMPTY CLASS VALUE\n"},
        {whitelist("<class>\033[2J\xE9\n</class>"),
         "a:2: refused: INVALID CLASS VALUE:\\x1B[2J\\xE9\\n\n"
         "a:2: warning: the blanks around class '\\x1B[2J\\xE9\\n' are part of it; remove them\n"},
        {whitelist("<vid/>"), "a:2: refused: vendorid TAG NOT PRESENT\n"},
        {whitelist("<vid vendorid=''/>"), "a:2: refused: EMPTY VENDOR ID VALUE\n"},
        {whitelist("<vid vendorid='0x46d'/>"),
         "a:2: refused: INVALID VENDOR ID VALUE:0x46d\n"
         "a:2: warning: '0x46d' is hexadecimal; write 1133\n"},
        {whitelist("<vid vendorid='1'>\n<pid>2</pid>\n<pid/>\n</vid>"),
         "a:4: refused: EMPTY PRODUCT ID VALUE\n"},
        {whitelist("<vid vendorid='1'>\n<pid>c31C</pid>\n</vid>"),
         "a:3: refused: INVALID PRODUCT ID VALUE:c31C\n"
         "a:3: warning: 'c31C' is hexadecimal; write 49948\n"},
        {whitelist("<vid vendorid='1'/>\n<product/>"), "a:3: refused: INVALID TAG:product\n"},
        {"<?xml version='1.0'?>\n<!-- none -->\n",
         "a: crash: Unable to apply the USB Admin config rules\n"
         "a: warning: the document has no element, which ends the daemon\n"},
        {whitelist("<vid vendorid='1' x=''/>\n<vid vendorid='2147483648'/>\n"
                   "<vid vendorid='2'><pid>99999999999999999999</pid></vid>"),
         "a:3: crash: Unable to apply the USB Admin config rules\n"
         "a:2: warning: attribute 'x' is ignored\n"
         "a:3: warning: vendor id 2147483648 does not fit 32 bits, which ends the daemon; ids go "
         "up to 65535\n"
         "a:4: warning: product id 99999999999999999999 does not fit 32 bits, which ends the "
         "daemon; ids go up to 65535\n"},
    });
}

TEST(LintTest, WarnsOfWhatTheParserTakesWithoutAWord) {
    expectOutput({
        {"<usbconfig mode='blacklist'/>", "a: accepted: SUCCESS\n"},
        {whitelist(
             "<vid vendorid='100'><pid>5</pid></vid>\n<vid vendorid='50'/>\n"
             "<vid vendorid='250'/><vid vendorid='200'/>\n<vid vendorid='7'><pid>1</pid></vid>\n"
             "<vid vendorid='300'><pid>5</pid></vid>"),
         "a: accepted: SUCCESS\n"
         "a:5: warning: every product of vendors 7 (line 5) and 100 (line 2) matches, listed or "
         "not: vendors 50 (line 3), 200 (line 4) and 250 (line 4), whose ids are greater, are "
         "listed without products; list the products of vendors 50, 200 and 250, too\n"},
        {whitelist("<class>USB_CLASS_PRINTER</class><class>AINPUT_SOURCE_JOYSTICK</class>"),
         "a: accepted: SUCCESS\n"
         "a:1: warning: every keyboard, mouse and touch screen is refused; name them by 'vid' and "
         "'pid', or allow AINPUT_SOURCE_KEYBOARD and the like\n"
         "a:2: note: class 'USB_CLASS_PRINTER' allows a device that has HID or vendor-specific "
         "interfaces, too; name devices by 'vid' and 'pid' where that is too much\n"},
        {"\n<usbconfig mode='whitelist'>\n</usbconfig>",
         "a: accepted: SUCCESS\n"
         "a:2: warning: a whitelist without a rule refuses every device\n"},
        {"<usbconfig mode='default'>\n<class>foo</class></usbconfig>\n<usbconfig/>\nmore<!-- -->",
         "a: accepted: SUCCESS\n"
         "a:2: warning: in mode 'default' every rule is ignored\n"
         "a:3: warning: everything after the first root element is ignored\n"
         "a:4: warning: text 'more' is ignored\n"},
        {"<!-- </a> --><usbconfig mode='default' x='</b>'><![CDATA[</c>]]></usbconfig>\n"
         "<!-- </d> --></usbconfig>\n<usbconfig mode='whitelist'/>",
         "a: accepted: SUCCESS\n"
         "a:1: warning: attribute 'x' is ignored\n"
         "a:2: warning: an end tag that closes nothing ends the document: everything after it is "
         "ignored; remove the tag\n"},
        {std::string("<usbconfig mode='default'/>\n\0<a/>", 33),
         "a: accepted: SUCCESS\n"
         "a:2: warning: a NUL byte ends the document: everything after it is ignored; save the "
         "file as UTF-8 text\n"},
        {std::string("<usbconfig mode='default'/>\n\0\0\n", 31), "a: accepted: SUCCESS\n"},
    });
}

/** A rule in a line of its own, and what is said of it. */
struct Line {
    std::string rule, warning = "";
};

void expectWarnings(const std::string& verdict, const std::vector<Line>& lines) {
    std::vector<std::string> rules;
    std::string output = "a:" + verdict + "\n";
    for (size_t i = 0; i < lines.size(); ++i) {
        const auto& [rule, warning] = lines[i];
        rules.push_back(rule);
        if (warning != "") output += "a:" + std::to_string(i + 2) + ": warning: " + warning + "\n";
    }
    expectOutput({{whitelist(android::base::Join(rules, '\n')), output}});
}

TEST(LintTest, WarnsOfRulesThatDoNotSayWhatTheySeemTo) {
    expectWarnings(
        " accepted: SUCCESS",
        {{"<class>AINPUT_SOURCE_MOUSE</class>"},
         {"<class>AINPUT_SOURCE_MOUSE</class>",
          "class 'AINPUT_SOURCE_MOUSE' is listed already (line 2)"},
         {"<class><!-- any --><!-- of them -->AINPUT_SOURCE_KEYBOARD</class>",
          "text after a comment in 'class': not every version of the parser reads it; put the "
          "comment before the element"},
         {"<vid vendorid='5'/>"},
         {"<vid vendorid='05'/>", "vendor 5 is listed as a whole already (line 5)"},
         {"<vid vendorid='5'><pid>6</pid></vid>", "vendor 5 is listed as a whole too (line 5)"},
         {"<vid vendorid='6'><pid>6</pid></vid><vid vendorid='6'><pid>7</pid>"},
         {"<pid>6</pid></vid>", "product 6 of vendor 6 is listed already (line 8)"},
         {"<vid vendorid='4' productid='2'/>", "attribute 'productid' is ignored"},
         {"<vid vendorid='3'>22336</vid>", "text '22336' is ignored"},
         {"<vid vendorid='2'><product>4</product></vid>",
          "element 'product' is ignored: without a 'pid' the rule is for every product of the "
          "vendor; write 'pid' for a product"},
         {"<vid vendorid='7'><name/><pid>2</pid>",
          "element 'name' before the first 'pid' is ignored"},
         {"<foo>3</foo></vid>",
          "element 'foo' after a 'pid' is taken as one; close the 'vid' before it"},
         {"<vid vendorid='8'><pid>2<!-- or --> 3</pid></vid>",
          "only the first piece of text in 'pid' is read"},
         {"<vid vendorid='0951'><pid>00</pid></vid>",
          "'0951' is read as decimal 951; 0951 in hexadecimal is 2385"},
         {"<vid vendorid='65536'><pid>65535</pid></vid>",
          "vendor id 65536 is above 65535: no device has it"},
         {"<vid vendorid='65535'><pid>65536</pid></vid>",
          "product id 65536 is above 65535: no device has it"}});
}

TEST(LintTest, WarnsBehindAnErrorToo) {
    expectWarnings(
        "2: refused: INVALID CLASS VALUE:keyboard",
        {{"<class>keyboard</class>",
          "'keyboard' is no name of a class; write AINPUT_SOURCE_KEYBOARD"},
         {"<class>USB_CLASS_MOUSE</class>",
          "'USB_CLASS_MOUSE' is no name of a class; write AINPUT_SOURCE_MOUSE"},
         {"<class>USB_CLASS_PHYSICAL</class>",
          "'USB_CLASS_PHYSICAL' is no name of a class; write USB_CLASS_PHYSICA"},
         {"<class>8</class>", "'8' is no name of a class; write USB_CLASS_MASS_STORAGE"},
         {"<class>foo</class>"},
         {"<class>hub</class>", "'hub' is a restricted class; name the devices by 'vid' and 'pid'"},
         {"<class>USB_CLASS_HID</class>",
          "'USB_CLASS_HID' is a restricted class; name the devices by 'vid' and 'pid'"},
         {"<class>AINPUT_SOURCE_MOUSE </class>",
          "the blanks around class 'AINPUT_SOURCE_MOUSE ' are part of it; remove them"},
         {"<vid vendorid=' 1'>", "the blanks around vendor ' 1' are part of it; remove them"},
         {"<pid>2 </pid></vid>", "the blanks around product '2 ' are part of it; remove them"}});
}

TEST(LintTest, GoesOnAfterABadFile) {
    const Files files = {{"bad", "<a/>"}, {"good", "<usbconfig mode='default'/>"}};
    EXPECT_EQ(runKusctl(files, "lint missing . bad good"),
              (Result{1,
                      "bad:1: refused: INVALID ROOT ELEMENT : a\n"
                      "good: accepted: SUCCESS\n",
                      "kusctl lint: missing: No such file or directory\n"
                      "kusctl lint: .: not a regular file\n"}));
    EXPECT_EQ(filesHere(), files) << "the device's own files are read alone";
    EXPECT_EQ(runKusctl("lint missing good").status, 1);
}

TEST(LintTest, TellsPrograms) {
    const Result result = runKusctl({{"a", whitelist("<vid vendorid='1'/>\n<vid vendorid='1'/>")},
                                     {"b", whitelist("<class>\xE9\n</class>")}},
                                    "lint --json a b c");
    EXPECT_EQ(result, (Result{1, result.out}));
    EXPECT_EQ(parseJson(result.out), parseJson(R"json([
        {"file": "a", "verdict": "accepted", "status": "SUCCESS", "line": 0,
         "warnings": [{"kind": "duplicate", "level": "warning", "line": 3, "cure": "",
                       "message": "vendor 1 is listed as a whole already (line 2)"}]},
        {"file": "b", "verdict": "refused", "status": "INVALID CLASS VALUE:\ufffd\n", "line": 2,
         "warnings": [{"kind": "blanks", "level": "warning", "line": 2, "cure": "remove them",
                       "message": "the blanks around class '\ufffd\n' are part of it"}]},
        {"file": "c", "verdict": "unreadable", "status": "No such file or directory", "line": 0,
         "warnings": []}])json"));
}

TEST(LintTest, TellsReviewersOfCode) {
    const Files files = {{"a, 1", whitelist("<class>\033%</class>\n<vid vendorid='70000'/>")},
                         {"b", whitelist("<vid vendorid='1'/><class>USB_CLASS_AUDIO</class>")}};
    EXPECT_EQ(runKusctl(files, "lint --format github 'a, 1' b c").out,
              "::error file=a%2C 1,line=2,title=refused::refused: INVALID CLASS VALUE:\\x1B%25\n"
              "::warning file=a%2C 1,line=3,title=never-matches::vendor id 70000 is above 65535: "
              "no device has it\n"
              "::notice file=b,line=2,title=restricted-interfaces::class 'USB_CLASS_AUDIO' allows "
              "a device that has HID or vendor-specific interfaces, too; name devices by 'vid' and "
              "'pid' where that is too much\n"
              "::error file=c,line=1,title=unreadable::unreadable: No such file or directory\n");
    const Json::Value log = parseJson(runKusctl("lint --format sarif 'a, 1'").out);
    EXPECT_EQ(log["version"], "2.1.0");
    EXPECT_EQ(log["runs"][0]["results"], parseJson(R"json([
        {"level": "error", "ruleId": "refused",
         "message": {"text": "refused: INVALID CLASS VALUE:\\x1B%"},
         "locations": [{"physicalLocation": {"artifactLocation": {"uri": "a%2C%201"},
                                             "region": {"startLine": 2}}}]},
        {"level": "warning", "ruleId": "never-matches",
         "message": {"text": "vendor id 70000 is above 65535: no device has it"},
         "locations": [{"physicalLocation": {"artifactLocation": {"uri": "a%2C%201"},
                                             "region": {"startLine": 3}}}]}])json"));
}

TEST(LintTest, FailsOnWarningsWhereStrict) {
    const Files files = {{"note", whitelist("<class>USB_CLASS_AUDIO</class><vid vendorid='1'/>")},
                         {"warning", whitelist("<vid vendorid='70000'/>")}};
    EXPECT_EQ(runKusctl(files, "lint --strict note").status, 0);
    EXPECT_EQ(runKusctl(files, "lint --strict note warning").status, 1);
}

}  // namespace
