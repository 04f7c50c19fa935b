// SPDX-License-Identifier: Apache-2.0
#include "kus_test.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RuleQueries : public KusTest {};

TEST_F(RuleQueries, EveryClassHasOneNameInBothDirections) {
    for (const auto& [code, name] : classNameTable) {
        EXPECT_EQ(Util::convert(name), static_cast<uint32_t>(code)) << name;
        EXPECT_EQ(Util::getClassName(code), name);
    }
    EXPECT_EQ(Util::getClassName(5), "USB_CLASS_PHYSICA");
    for (int code : {-1, 4, 12, 15, 223, 225, 253, 0x101, 0x300, 0x800}) {
        EXPECT_EQ(Util::getClassName(code), " ") << code;
    }
    for (const char* name : {"", " ", "USB_CLASS_PHYSICAL", "usb_class_audio", "USB_CLASS_AUDIO ",
                             "USB_CLASS_AUDI", "CLASS_AUDIO"}) {
        EXPECT_EQ(Util::convert(name), 0xFFFFFFFF) << name;
    }
    EXPECT_EQ(inputSourceNames.size(), 12u);
    EXPECT_EQ(inputSourceNames.begin()->second, "AINPUT_SOURCE_KEYBOARD");
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(RuleQueries, ClassListedTwiceIsFoundAndLoggedOnce) {
    classList = {8, 256, 8};
    EXPECT_TRUE(Util::validateClass(8));
    EXPECT_TRUE(Util::validateClass(256));
    EXPECT_FALSE(Util::validateClass(7));
    EXPECT_FALSE(Util::validateClass(0xFFFFFFFF));
    EXPECT_THAT(takeLog(), ElementsAre("I Found CLASS : 8 in admin config list",
                                       "I Found CLASS : 256 in admin config list"));
}

TEST_F(RuleQueries, RestrictedClasses) {
    EXPECT_THAT(restrictedClasses, ElementsAre(0x00, 0x03, 0x09, 0xEF, 0xFE, 0xFF));
    std::vector<std::string> log;
    for (unsigned int code : restrictedClasses) {
        EXPECT_TRUE(Util::validateRestrictedClass(code));
        log.push_back("I Found CLASS : " + std::to_string(code) + " in restricted class list");
    }
    for (unsigned int code : {1, 2, 4, 8, 10, 0xEE, 0xF0, 0x100, 0x103, -1}) {
        EXPECT_FALSE(Util::validateRestrictedClass(code)) << code;
    }
    EXPECT_EQ(takeLog(), log);
}

TEST_F(RuleQueries, VendorIsListedWhenItOrAGreaterOneStandsForAllProducts) {
    using Rules = std::multimap<int32_t, int32_t>;
    const struct {
        Rules rules;
        int vendor;
        bool listed;
    } cases[] = {{{}, 100, false},
                 {{{100, -1}}, 100, true},
                 {{{100, 5}}, 100, false},
                 {{{100, -1}, {100, 7}}, 100, true},
                 {{{100, 7}, {100, -1}}, 100, true},
                 {{{100, 5}, {200, -1}}, 100, true},
                 {{{100, 5}, {200, -1}}, 150, false},
                 {{{100, 5}, {200, 6}}, 100, false},
                 {{{100, 5}, {200, -1}}, 200, true},
                 {{{100, -1}, {200, 5}}, 200, false},
                 {{{100, 5}, {200, -1}}, 300, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.rules) + " " + std::to_string(c.vendor));
        setVendors(c.rules);
        EXPECT_EQ(Util::validateVid(c.vendor), c.listed);
        const std::string found = "I Found VID : " + std::to_string(c.vendor) +
                                  " without any pid associated inside admin config list.";
        EXPECT_EQ(takeLog(), std::vector<std::string>(c.listed ? 1 : 0, found));
    }
}

TEST_F(RuleQueries, PairIsListedOnlyAsItStands) {
    setVendors({{100, 5}, {100, 7}, {200, -1}});
    EXPECT_TRUE(Util::validateVidPid(100, 7));
    EXPECT_TRUE(Util::validateVidPid(200, -1));
    EXPECT_THAT(takeLog(),
                ElementsAre("I Found VID_PID : 100_7 combination inside admin config list",
                            "I Found VID_PID : 200_-1 combination inside admin config list"));
    EXPECT_FALSE(Util::validateVidPid(100, 6));
    EXPECT_FALSE(Util::validateVidPid(200, 7));
    EXPECT_FALSE(Util::validateVidPid(7, 100));
    setVendors({});
    EXPECT_FALSE(Util::validateVidPid(100, 7));
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(RuleQueries, InputSourcesOfAMask) {
    const struct {
        int key, mask;
        const char* found;
        std::vector<int> sources;
    } cases[] = {{0x101, 0x100, "I Key found", {0x100}},
                 {0x1000010, 0x1000000, "I Key found", {0x1000000}},
                 {0x2302, 0x2300, "I Key not found", {0x100, 0x200, 0x2000}},
                 {0x2902, 0x2900, "I Key not found", {0x100, 0x2000}},
                 {0xFF, 0, "I Key not found", {}},
                 {0, 0, "I Key not found", {}},
                 {0x800, 0x800, "I Key not found", {}},
                 // All bits set, as a signed number.
                 {-1,
                  -256,
                  "I Key not found",
                  {0x100, 0x200, 0x400, 0x1000, 0x2000, 0x4000, 0x10000, 0x20000, 0x100000,
                   0x200000, 0x400000, 0x1000000}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        EXPECT_EQ(Util::checkMultiClass(c.key), c.sources);
        EXPECT_THAT(takeLog(),
                    ElementsAre("I checkMultiClass key_val" + std::to_string(c.key),
                                "I checkMultiClass--" + std::to_string(c.mask), c.found, "I "));
    }
}

}  // namespace
}  // namespace android::kus
