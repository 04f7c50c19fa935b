// SPDX-License-Identifier: Apache-2.0
#include <signal.h>

#include <sstream>

#include "kus_test.h"

namespace android::kus {
namespace {

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
}

/** Loads a file that is to be rejected with this status. */
void expectRejected(const std::string& xml, const std::string& status) {
    loadRules("<usbconfig mode=\"blacklist\"><class>USB_CLASS_AUDIO</class></usbconfig>");
    takeLog();
    loadRules(xml);
    EXPECT_FALSE(xml_parse_status);
    EXPECT_EQ(errorMessage, status);
    EXPECT_EQ(readFile(statusFilePath), status);
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
        {"<vid vendorid=\"1/\"/>", "INVALID VENDOR ID VALUE:1/", "vid val"},
        {"<vid vendorid=\"1:\"/>", "INVALID VENDOR ID VALUE:1:", "vid val"},
        {pids("<pid>2</pid><pid/>"), "EMPTY PRODUCT ID VALUE", "pid val", {{1, 2}}},
        {pids("<pid>2</pid><b>+3</b>"), "INVALID PRODUCT ID VALUE:+3", "pid val", {{1, 2}}},
        {"<foo/><class>USB_CLASS_COMM</class>", "INVALID TAG:foo", "class value"},
        {"<Class>USB_CLASS_AUDIO</Class>", "INVALID TAG:Class", "class value"},
        {"<pid>1</pid>", "INVALID TAG:pid", "class value"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rules);
        expectRejected(whitelist("<class>USB_CLASS_PHYSICA</class><vid vendorid=\"9\"/>" + c.rules),
                       c.status);
        EXPECT_THAT(classList, ElementsAre(5));
        Vendors vendors = c.added;
        vendors.emplace(9, -1);
        EXPECT_EQ(vidPidMap, vendors);
        EXPECT_THAT(takeLogText(), EndsWith("E error in " + c.logText + "= " + c.status + "\n" +
                                            kReport + c.status + "\n"));
    }
}

TEST_F(RulesFile, RejectionsOfTheRootLeaveEmptyTables) {
    const std::string root = "INVALID ROOT ELEMENT : config", mode = "INVALID MODE";
    const struct {
        const char* xml;
        std::string status, modeInForce;
        Texts log;
    } cases[] = {
        {"<config mode=\"default\"/>",
         root,
         "blacklist",
         {kReport + root, "E Invalid root element --" + root}},
        {"<usbconfig Mode=\"whitelist\"/>",
         "MODE NOT PRESENT",
         "blacklist",
         {"E error in ATTRIBUTE MODE value= MODE NOT PRESENT", kReport + "MODE NOT PRESENT"}},
        {"<usbconfig mode=\"Whitelist\"><class>USB_CLASS_AUDIO</class></usbconfig>",
         mode,
         "Whitelist",
         {"I attribute--Whitelist", kReport + mode, "E Invalid mode is set in xml--" + mode}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.xml);
        expectRejected(c.xml, c.status);
        EXPECT_EQ(takeLog(), c.log);
        EXPECT_EQ(Util::getMode(), c.modeInForce);
        EXPECT_TRUE(classList.empty() && classNameMap.empty());
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
    EXPECT_LOG("I attribute--default");

    loadRules(whitelist(" text <!-- no rule -->"));
    EXPECT_TRUE(xml_parse_status);
    EXPECT_EQ(readFile(statusFilePath), "INVALID TAG:foo") << "the error of the file before";
    EXPECT_LOG("I attribute--whitelist", "I no element, blocking all device",
               kReport + "INVALID TAG:foo");
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
    EXPECT_LOG("E xmlinput --Found error 14 name: XML_ERROR_MISMATCHED_ELEMENT",
               "E xmlinput -- error string " + status, kReport + status);
    Util::createMapFromConfig("/data/missing.xml");
    EXPECT_FALSE(xml_parse_status);
    EXPECT_THAT(readFile(statusFilePath), HasSubstr("filename=/data/missing.xml"));
}

TEST_F(RulesFile, VendorsAndTheirElements) {
    const std::pair<std::string, Vendors> cases[] = {
        {pids(""), {{1, -1}}},
        {pids("text <!-- comment --><foo>3</foo>"), {{1, -1}}},
        {pids("<pid>2</pid><foo>3</foo><!-- --><pid>0</pid>"), {{1, 2}, {1, 3}, {1, 0}}},
        {pids("<foo>bad</foo><pid>&#50;</pid>"), {{1, 2}}},
        {pids("<pid>2147483647</pid><pid>7</pid><pid>7</pid>"), {{1, 2147483647}, {1, 7}, {1, 7}}},
        {"<vid vendorid=\"3\"/>" + pids("<pid>9</pid>") + "<vid vendorid=\"0\"/>" +
             pids("<pid>8</pid>"),
         {{0, -1}, {1, 9}, {1, 8}, {3, -1}}},
    };
    for (const auto& [rules, vendors] : cases) {
        loadRules(whitelist(rules));
        EXPECT_TRUE(xml_parse_status) << rules;
        EXPECT_EQ(vidPidMap, vendors) << rules;
    }
    EXPECT_TRUE(Util::validateVid(1));
    loadRules(whitelist(pids("<pid>9</pid>")));
    EXPECT_FALSE(Util::validateVid(1)) << "3 is no longer listed";
}

// The crash handler turns it into a restore of the last good rules.
TEST_F(RulesFile, NumberBeyond32BitsAborts) {
    for (const std::string& vendor :
         {std::string("<vid vendorid=\"99999999999\"/>"), pids("<pid>2147483648</pid>")}) {
        EXPECT_EXIT(loadRules(whitelist(vendor)), KilledBySignal(SIGABRT), "") << vendor;
    }
}

TEST_F(RulesFile, EveryClassHasOneNameInBothDirections) {
    std::istringstream names(R"(
        0x0 USB_CLASS_PER_INTERFACE  0x1 USB_CLASS_AUDIO  0x2 USB_CLASS_COMM  0x3 USB_CLASS_HID
        0x5 USB_CLASS_PHYSICA  0x6 USB_CLASS_STILL_IMAGE  0x7 USB_CLASS_PRINTER
        0x8 USB_CLASS_MASS_STORAGE  0x9 USB_CLASS_HUB  0xA USB_CLASS_CDC_DATA  0xB USB_CLASS_CSCID
        0xD USB_CLASS_CONTENT_SEC  0xE USB_CLASS_VIDEO  0xE0 USB_CLASS_WIRELESS_CONTROLLER
        0xEF USB_CLASS_MISC  0xFE USB_CLASS_APP_SPEC  0xFF USB_CLASS_VENDOR_SPEC
        0x100 AINPUT_SOURCE_KEYBOARD  0x200 AINPUT_SOURCE_DPAD  0x400 AINPUT_SOURCE_GAMEPAD
        0x1000 AINPUT_SOURCE_TOUCHSCREEN  0x2000 AINPUT_SOURCE_MOUSE  0x4000 AINPUT_SOURCE_STYLUS
        0x10000 AINPUT_SOURCE_TRACKBALL  0x20000 AINPUT_SOURCE_MOUSE_RELATIVE
        0x100000 AINPUT_SOURCE_TOUCHPAD  0x200000 AINPUT_SOURCE_TOUCH_NAVIGATION
        0x400000 AINPUT_SOURCE_ROTARY_ENCODER  0x1000000 AINPUT_SOURCE_JOYSTICK)");
    uint32_t code;
    std::string name;
    size_t count = 0;
    for (; names >> std::hex >> code >> name; ++count) {
        EXPECT_EQ(Util::convert(name), code);
        EXPECT_EQ(Util::getClassName(code), name);
    }
    EXPECT_EQ(count, std::size(classNameTable));
    for (const char* unknown : {"", "USB_CLASS_PHYSICAL", "usb_class_audio", "USB_CLASS_AUDIO "}) {
        EXPECT_EQ(Util::convert(unknown), 0xFFFFFFFF) << unknown;
    }
    for (const int unnamed : {-1, 4, 0x300}) EXPECT_EQ(Util::getClassName(unnamed), " ");
    EXPECT_THAT(restrictedClasses, ElementsAre(0x00, 0x03, 0x09, 0xEF, 0xFE, 0xFF));
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(RulesFile, InputSourcesOfAMask) {
    const struct {
        int key, mask;
        const char* found;
        std::vector<int> sources;
    } cases[] = {
        {0x101, 0x100, "I Key found", {0x100}},
        {0x1000010, 0x1000000, "I Key found", {0x1000000}},
        {0x2902, 0x2900, "I Key not found", {0x100, 0x2000}},
        {0xFF, 0, "I Key not found", {}},
        {0x800, 0x800, "I Key not found", {}},
        // All bits set, as a signed number.
        {-1,
         -256,
         "I Key not found",
         {0x100, 0x200, 0x400, 0x1000, 0x2000, 0x4000, 0x10000, 0x20000, 0x100000, 0x200000,
          0x400000, 0x1000000}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Util::checkMultiClass(c.key), c.sources) << c.key;
        EXPECT_LOG("I checkMultiClass key_val" + std::to_string(c.key),
                   "I checkMultiClass--" + std::to_string(c.mask), c.found, "I ");
    }
}

}  // namespace
}  // namespace android::kus
