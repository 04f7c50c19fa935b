// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <signal.h>

#include "kus_test.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

using Vendors = std::multimap<int32_t, int32_t>;

const std::string kReport = "I updateErrorFile called with error message : ";

std::string whitelist(const std::string& rules) {
    return "<usbconfig mode=\"whitelist\">" + rules + "</usbconfig>";
}

/** A vendor with these elements. */
std::string pids(const std::string& elements) {
    return "<vid vendorid=\"1\">" + elements + "</vid>";
}

class RulesFile : public KusTest {};

TEST_F(RulesFile, AcceptedRulesFillTheTablesInFileOrder) {
    loadRules(R"(<?xml version="1.0" encoding="UTF-8"?>
        <!-- before -->
        <usbconfig note="ignored" mode="blacklist">
          <class>USB_CLASS_MASS_STORAGE</class>
          <!-- between -->
          <vid vendorid="1155">
            <pid>22337</pid>
            <pid>0022336</pid>
          </vid>
          <class>AINPUT_SOURCE_KEYBOARD</class>
          <class>USB_CLASS_MASS_STORAGE</class>
          <vid vendorid="01133"/>
        </usbconfig>)");
    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ(Util::getMode(), "blacklist");
    EXPECT_THAT(classList, ElementsAre(8, 256, 8));
    EXPECT_THAT(classNameMap, ElementsAre(Pair(8, "USB_CLASS_MASS_STORAGE"),
                                          Pair(256, "AINPUT_SOURCE_KEYBOARD")));
    EXPECT_THAT(vidPidMap, ElementsAre(Pair(1133, -1), Pair(1155, 22337), Pair(1155, 22336)));
    // Writing "SUCCESS" is left to the caller.
    EXPECT_EQ(readFile(statusFilePath), "(no file)");
    EXPECT_THAT(
        takeLog(),
        ElementsAre("I attribute--blacklist", "I  before while first child element name class",
                    "I class--USB_CLASS_MASS_STORAGE", "I class val--8", "I vendorid--1155",
                    "I isValidNumber s--1155", "I pid--22337", "I isValidNumber s--22337",
                    "I pid value print in while--22337", "I pid--0022336",
                    "I isValidNumber s--0022336", "I pid value print in while--0022336",
                    "I class--AINPUT_SOURCE_KEYBOARD", "I class val--256",
                    "I class--USB_CLASS_MASS_STORAGE", "I class val--8", "I vendorid--01133",
                    "I isValidNumber s--01133", "I pid value print in else--"));
}

TEST_F(RulesFile, RejectionsKeepWhatCameBeforeThem) {
    const struct {
        std::string rules, status, logText;
        Vendors added = {};
    } cases[] = {
        {"<class/>", "EMPTY CLASS VALUE", "class val"},
        {"<class><b>USB_CLASS_AUDIO</b></class>", "EMPTY CLASS VALUE", "class val"},
        {"<class>USB_CLASS_HID</class>", "INVALID CLASS VALUE:USB_CLASS_HID", "class val"},
        {"<class> USB_CLASS_AUDIO</class>", "INVALID CLASS VALUE: USB_CLASS_AUDIO", "class val"},
        {"<vid/>", "vendorid TAG NOT PRESENT", "ATTRIBUTE value"},
        {"<vid vendorid=\"\"/>", "EMPTY VENDOR ID VALUE", "vid val"},
        {"<vid vendorid=\"0x46d\"/>", "INVALID VENDOR ID VALUE:0x46d", "vid val"},
        {pids("<pid>2</pid><pid/>"), "EMPTY PRODUCT ID VALUE", "pid val", {{1, 2}}},
        {pids("<pid>2</pid><b>+3</b>"), "INVALID PRODUCT ID VALUE:+3", "pid val", {{1, 2}}},
        {"<foo/><class>USB_CLASS_COMM</class>", "INVALID TAG:foo", "class value"},
        {"<Class>USB_CLASS_AUDIO</Class>", "INVALID TAG:Class", "class value"},
        {"<pid>1</pid>", "INVALID TAG:pid", "class value"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rules);
        xml_parse_status = true;
        loadRules(whitelist("<class>USB_CLASS_PHYSICA</class><vid vendorid=\"9\"/>" + c.rules));
        EXPECT_FALSE(xml_parse_status);
        EXPECT_EQ(errorMessage, c.status);
        EXPECT_EQ(readFile(statusFilePath), c.status);
        EXPECT_THAT(classList, ElementsAre(5));
        Vendors vendors = c.added;
        vendors.emplace(9, -1);
        EXPECT_EQ(vidPidMap, vendors);
        EXPECT_THAT(base::Join(takeLog(), '\n'), EndsWith("E error in " + c.logText + "= " +
                                                          c.status + "\n" + kReport + c.status));
    }
}

TEST_F(RulesFile, RejectionsOfTheRootLeaveEmptyTables) {
    const struct {
        const char *xml, *mode;
        std::string status;
        // %s stands for the report of the status.
        std::string log;
    } cases[] = {
        {"<config mode=\"default\"/>", "blacklist", "INVALID ROOT ELEMENT : config",
         "%s\nE Invalid root element --INVALID ROOT ELEMENT : config"},
        {"<usbconfig Mode=\"whitelist\"/>", "blacklist", "MODE NOT PRESENT",
         "E error in ATTRIBUTE MODE value= MODE NOT PRESENT\n%s"},
        {"<usbconfig mode=\"Whitelist\"><class>USB_CLASS_AUDIO</class></usbconfig>", "Whitelist",
         "INVALID MODE", "I attribute--Whitelist\n%s\nE Invalid mode is set in xml--INVALID MODE"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.xml);
        loadRules("<usbconfig mode=\"blacklist\"><class>USB_CLASS_AUDIO</class></usbconfig>");
        takeLog();
        loadRules(c.xml);
        EXPECT_FALSE(xml_parse_status);
        EXPECT_EQ(errorMessage, c.status);
        EXPECT_EQ(readFile(statusFilePath), c.status);
        EXPECT_EQ(Util::getMode(), c.mode);
        EXPECT_THAT(classList, IsEmpty());
        EXPECT_THAT(classNameMap, IsEmpty());
        EXPECT_EQ(base::Join(takeLog(), '\n'),
                  base::StringReplace(c.log, "%s", kReport + c.status, false));
    }
}

TEST_F(RulesFile, FilesWithoutRulesAreAccepted) {
    loadRules(whitelist("<class>USB_CLASS_AUDIO</class><foo/>"));
    writeFile(statusFilePath, "");
    takeLog();
    loadRules("<usbconfig mode=\"default\"><foo/><class>USB_CLASS_HID</class></usbconfig>");
    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ(Util::getMode(), "default");
    EXPECT_THAT(classList, IsEmpty());
    EXPECT_EQ(readFile(statusFilePath), "");
    EXPECT_THAT(takeLog(), ElementsAre("I attribute--default"));

    loadRules(whitelist(" text <!-- no rule -->"));
    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ(readFile(statusFilePath), "INVALID TAG:foo") << "the error of the file before";
    EXPECT_THAT(takeLog(),
                ElementsAre("I attribute--whitelist", "I no element, blocking all device",
                            kReport + "INVALID TAG:foo"));
}

TEST_F(RulesFile, UnreadableFileReportsTheLibrarysTextAndKeepsTheLastError) {
    loadRules(whitelist("<class>USB_CLASS_AUDIO</class><foo/>"));
    takeLog();
    loadRules("<usbconfig></usb>");
    EXPECT_FALSE(xml_parse_status);
    EXPECT_EQ(errorMessage, "INVALID TAG:foo");
    EXPECT_THAT(classList, IsEmpty());
    const std::string status = readFile(statusFilePath);
    EXPECT_THAT(status,
                StartsWith("Error=XML_ERROR_MISMATCHED_ELEMENT ErrorID=14 (0xe) Line number=1"));
    EXPECT_THAT(takeLog(),
                ElementsAre("E xmlinput --Found error 14 name: XML_ERROR_MISMATCHED_ELEMENT",
                            "E xmlinput -- error string " + status, kReport + status));
    Util::createMapFromConfig("/data/missing.xml");
    EXPECT_FALSE(xml_parse_status);
    EXPECT_THAT(takeLog(), Contains("E xmlinput --Found error 3 name: XML_ERROR_FILE_NOT_FOUND"));
    EXPECT_THAT(readFile(statusFilePath), HasSubstr("filename=/data/missing.xml"));
}

TEST_F(RulesFile, ElementsOfAVendor) {
    const std::pair<std::string, Vendors> cases[] = {
        {"", {{1, -1}}},
        {"text <!-- comment --><foo>3</foo>", {{1, -1}}},
        {"<pid>2</pid><foo>3</foo><!-- --><pid>0</pid>", {{1, 2}, {1, 3}, {1, 0}}},
        {"<foo>bad</foo><pid>&#50;</pid>", {{1, 2}}},
        {"<pid>2147483647</pid><pid>7</pid><pid>7</pid>", {{1, 2147483647}, {1, 7}, {1, 7}}},
    };
    for (const auto& [content, vendors] : cases) {
        loadRules(whitelist(pids(content)));
        EXPECT_TRUE(xml_parse_status) << content;
        EXPECT_EQ(vidPidMap, vendors) << content;
    }
}

TEST_F(RulesFile, VendorsInAnyOrderAreListedByVendorAndForgottenByTheNextFile) {
    loadRules(
        whitelist("<vid vendorid=\"300\"/><vid vendorid=\"200\"><pid>9</pid></vid>"
                  "<vid vendorid=\"100\"/><vid vendorid=\"200\"><pid>8</pid></vid>"));
    EXPECT_THAT(vidPidMap, ElementsAre(Pair(100, -1), Pair(200, 9), Pair(200, 8), Pair(300, -1)));
    EXPECT_TRUE(Util::validateVid(200));
    loadRules(whitelist("<vid vendorid=\"200\"><pid>9</pid></vid>"));
    EXPECT_FALSE(Util::validateVid(200)) << "300 is no longer listed";
}

TEST_F(RulesFile, NumbersAreDigitsOnly) {
    for (const char* good : {"0", "007", "99999999999"}) EXPECT_TRUE(Util::isValidNumber(good));
    for (const char* bad : {"", "1 ", "-1", "0x1", "1/", "1:", "\u0661"}) {
        EXPECT_FALSE(Util::isValidNumber(bad)) << bad;
    }
}

// The crash handler turns it into a restore of the last good rules.
TEST_F(RulesFile, NumberBeyond32BitsAborts) {
    for (const std::string& vendor :
         {std::string("<vid vendorid=\"99999999999\"/>"), pids("<pid>2147483648</pid>")}) {
        EXPECT_EXIT(loadRules(whitelist(vendor)), testing::KilledBySignal(SIGABRT), "") << vendor;
    }
}

}  // namespace
}  // namespace android::kus
