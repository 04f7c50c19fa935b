// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <signal.h>
#include <unistd.h>

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

using Classes = std::vector<int32_t>;
using Vendors = std::multimap<int32_t, int32_t>;

constexpr char kReport[] = "I updateErrorFile called with error message : ";

std::string whitelist(const std::string& rules) {
    return "<usbconfig mode=\"whitelist\">" + rules + "</usbconfig>";
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
    const std::string classError = "error in class val= ";
    const std::string vendorError = "error in vid val= ";
    const std::string productError = "error in pid val= ";
    const std::string tagError = "error in class value= ";
    // Before the error of each file that holds rules.
    const std::string before = "<class>USB_CLASS_PHYSICA</class><vid vendorid=\"9\"/>";
    const struct {
        std::string rules, status, logText;
        Vendors added = {};
    } cases[] = {
        {"<class/>", "EMPTY CLASS VALUE", classError},
        {"<class><b>USB_CLASS_AUDIO</b></class>", "EMPTY CLASS VALUE", classError},
        {"<class>USB_CLASS_HID</class>", "INVALID CLASS VALUE:USB_CLASS_HID", classError},
        {"<class>USB_CLASS_PHYSICAL</class>", "INVALID CLASS VALUE:USB_CLASS_PHYSICAL", classError},
        {"<class> USB_CLASS_AUDIO</class>", "INVALID CLASS VALUE: USB_CLASS_AUDIO", classError},
        {"<class>8</class>", "INVALID CLASS VALUE:8", classError},
        {"<vid/>", "vendorid TAG NOT PRESENT", "error in ATTRIBUTE value= "},
        {"<vid vendorid=\"\"/>", "EMPTY VENDOR ID VALUE", vendorError},
        {"<vid vendorid=\"0x46d\"/>", "INVALID VENDOR ID VALUE:0x46d", vendorError},
        {"<vid vendorid=\"-1\"/>", "INVALID VENDOR ID VALUE:-1", vendorError},
        {"<vid vendorid=\"1 \"/>", "INVALID VENDOR ID VALUE:1 ", vendorError},
        {"<vid vendorid=\"1\"><pid>2</pid><pid/></vid>",
         "EMPTY PRODUCT ID VALUE",
         productError,
         {{1, 2}}},
        {"<vid vendorid=\"1\"><pid>2</pid><foo>3 </foo><pid>4</pid></vid>",
         "INVALID PRODUCT ID VALUE:3 ",
         productError,
         {{1, 2}}},
        {"<vid vendorid=\"1\"><pid>+1</pid></vid>", "INVALID PRODUCT ID VALUE:+1", productError},
        {"<foo/><class>USB_CLASS_COMM</class>", "INVALID TAG:foo", tagError},
        {"<Class>USB_CLASS_AUDIO</Class>", "INVALID TAG:Class", tagError},
        {"<pid>1</pid>", "INVALID TAG:pid", tagError}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rules);
        xml_parse_status = true;
        loadRules(whitelist(before + c.rules));
        EXPECT_FALSE(xml_parse_status);
        EXPECT_EQ(errorMessage, c.status);
        EXPECT_EQ(readFile(statusFilePath), c.status);
        EXPECT_EQ(classList, Classes{5});
        Vendors vendors = c.added;
        vendors.emplace(9, -1);
        EXPECT_EQ(vidPidMap, vendors);
        EXPECT_THAT(base::Join(takeLog(), '\n'),
                    EndsWith("E " + c.logText + c.status + "\n" + kReport + c.status));
    }
}

TEST_F(RulesFile, RejectionsOfTheRootLeaveEmptyTables) {
    const struct {
        const char *xml, *status, *logText;
        bool statusFirst;
        const char* mode;
    } cases[] = {
        {"<config mode=\"default\"/>", "INVALID ROOT ELEMENT : config", "Invalid root element --",
         true, "blacklist"},
        {"<usbconfig Mode=\"whitelist\"/>", "MODE NOT PRESENT",
         "error in ATTRIBUTE MODE value= ", false, "blacklist"},
        {"<usbconfig mode=\"Whitelist\"><class>USB_CLASS_AUDIO</class></usbconfig>", "INVALID MODE",
         "Invalid mode is set in xml--", true, "Whitelist"},
        {"<usbconfig mode=\"\"/>", "INVALID MODE", "Invalid mode is set in xml--", true, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.xml);
        loadRules("<usbconfig mode=\"blacklist\"><class>USB_CLASS_AUDIO</class></usbconfig>");
        loadRules(c.xml);
        EXPECT_FALSE(xml_parse_status);
        EXPECT_EQ(errorMessage, c.status);
        EXPECT_EQ(readFile(statusFilePath), c.status);
        EXPECT_EQ(Util::getMode(), c.mode);
        EXPECT_THAT(classList, IsEmpty());
        EXPECT_THAT(classNameMap, IsEmpty());
        const std::string error = std::string("E ") + c.logText + c.status;
        const std::string report = kReport + std::string(c.status);
        EXPECT_THAT(base::Join(takeLog(), '\n'),
                    EndsWith(c.statusFirst ? report + "\n" + error : error + "\n" + report));
    }
}

TEST_F(RulesFile, DefaultModeReadsNoRules) {
    loadRules(whitelist("<class>USB_CLASS_AUDIO</class>"));
    takeLog();
    loadRules("<usbconfig mode=\"default\"><foo/><class>USB_CLASS_HID</class></usbconfig>");
    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ(Util::getMode(), "default");
    EXPECT_THAT(classList, IsEmpty());
    EXPECT_EQ(readFile(statusFilePath), "(no file)");
    EXPECT_THAT(takeLog(), ElementsAre("I attribute--default"));
}

TEST_F(RulesFile, FileWithoutRulesIsAcceptedAndReportsTheOldError) {
    loadRules(whitelist("<foo/>"));
    takeLog();
    writeFile(statusFilePath, "");
    loadRules(whitelist(" text <!-- no rule -->"));
    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ(readFile(statusFilePath), "INVALID TAG:foo");
    EXPECT_THAT(takeLog(),
                ElementsAre("I attribute--whitelist", "I no element, blocking all device",
                            std::string(kReport) + "INVALID TAG:foo"));
}

TEST_F(RulesFile, UnreadableFileReportsTheLibrarysTextAndKeepsTheLastError) {
    const std::pair<const char*, std::string> cases[] = {
        {"", "XML_ERROR_EMPTY_DOCUMENT ErrorID=13 (0xd) Line number=0"},
        {"<usbconfig></usb>", "XML_ERROR_MISMATCHED_ELEMENT ErrorID=14 (0xe) Line number=1"}};
    for (const auto& [xml, text] : cases) {
        SCOPED_TRACE(xml);
        loadRules(whitelist("<class>USB_CLASS_AUDIO</class><foo/>"));
        takeLog();
        loadRules(xml);
        EXPECT_FALSE(xml_parse_status);
        EXPECT_EQ(errorMessage, "INVALID TAG:foo");
        EXPECT_THAT(classList, IsEmpty());
        const std::string status = readFile(statusFilePath);
        EXPECT_THAT(status, StartsWith("Error=" + text));
        const std::string name = text.substr(0, text.find(' '));
        EXPECT_THAT(takeLog(),
                    ElementsAre("E xmlinput --Found error " + text.substr(text.find('=') + 1, 2) +
                                    " name: " + name,
                                "E xmlinput -- error string " + status, kReport + status));
    }
    Util::createMapFromConfig("/data/missing.xml");
    EXPECT_FALSE(xml_parse_status);
    EXPECT_THAT(takeLog(), Contains("E xmlinput --Found error 3 name: XML_ERROR_FILE_NOT_FOUND"));
    EXPECT_THAT(readFile(statusFilePath), HasSubstr("filename=/data/missing.xml"));
}

TEST_F(RulesFile, ElementsOfAVendor) {
    const std::pair<std::string, Vendors> cases[] = {
        {"", {{1, -1}}},
        {"text <!-- comment -->", {{1, -1}}},
        {"<foo>3</foo>", {{1, -1}}},
        {"<pid>2</pid><foo>3</foo><!-- --><pid>0</pid>", {{1, 2}, {1, 3}, {1, 0}}},
        {"<foo>bad</foo><pid>2</pid>", {{1, 2}}},
        {"<pid>2147483647</pid><pid>7</pid><pid>7</pid>", {{1, 2147483647}, {1, 7}, {1, 7}}},
        {"<pid>&#50;</pid>", {{1, 2}}}};
    for (const auto& [content, vendors] : cases) {
        loadRules(whitelist("<vid vendorid=\"1\">" + content + "</vid>"));
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
    for (const char* bad : {"", " ", "1 ", "-1", "+1", "0x1", "1.0", "a", "\u0661"}) {
        EXPECT_FALSE(Util::isValidNumber(bad)) << bad;
    }
}

// The crash handler turns both into a restore of the last good rules.
using RulesFileDeathTest = RulesFile;

TEST_F(RulesFileDeathTest, NumberBeyond32BitsAborts) {
    for (const char* vendor :
         {"<vid vendorid=\"99999999999\"/>", "<vid vendorid=\"1\"><pid>2147483648</pid></vid>"}) {
        EXPECT_EXIT(loadRules(whitelist(vendor)), testing::KilledBySignal(SIGABRT), "") << vendor;
    }
}

TEST_F(RulesFileDeathTest, DocumentWithoutElementIsASegmentationFault) {
    const auto load = [](const char* xml) {
        signal(SIGSEGV, [](int) {
            dprintf(STDERR_FILENO, "SIGSEGV");
            _exit(1);
        });
        loadRules(xml);
    };
    for (const char* xml : {"<?xml version=\"1.0\"?>", "<!-- nothing -->"}) {
        // The undefined-behaviour sanitizer sees the null root first.
        EXPECT_DEATH(load(xml), "SIGSEGV|null pointer") << xml;
    }
}

}  // namespace
}  // namespace android::kus
