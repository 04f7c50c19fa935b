// SPDX-License-Identifier: Apache-2.0
#include <cutils/properties.h>

#include "kus_test.h"

namespace android::kus {
namespace {

class Properties : public KusTest {};

/** The value, whose length the call must have returned. */
std::string get(const char* name, const char* defaultValue) {
    char value[PROPERTY_VALUE_MAX];
    const int length = property_get(name, value, defaultValue);
    EXPECT_EQ(static_cast<size_t>(length), strlen(value));
    return value;
}

TEST_F(Properties, MissingAndEmptyOnesHaveTheDefault) {
    for (const char* unset : {"", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(get("a.b", "default"), "default");
        EXPECT_EQ(get("a.b", nullptr), "");
        EXPECT_EQ(property_set("a.b", "7x"), 0);
        EXPECT_EQ(get("a.b", "default"), "7x");
        EXPECT_EQ(property_get_int32("a.b", -9), 7);
        EXPECT_EQ(property_set("a.b", unset), 0);
        EXPECT_EQ(property_get_int32("a.b", -9), -9);
    }
}

TEST_F(Properties, Limits) {
    for (const char* name : {"", ".a", "a.", "a..b", "..", "a/b", "../../data/x", "a b"}) {
        EXPECT_LT(property_set(name, "1"), 0) << name;
    }
    // A read-only property may be longer, and is set once; its readers get what fits.
    const std::string longest(PROPERTY_VALUE_MAX - 1, 'x'), tooLong = longest + "y";
    EXPECT_EQ(property_set("a", longest.c_str()), 0);
    EXPECT_EQ(property_set("ro.a", tooLong.c_str()), 0);
    EXPECT_LT(property_set("a", tooLong.c_str()), 0);
    EXPECT_LT(property_set("ro.a", "z"), 0);
    for (const char* name : {"a", "ro.a"}) EXPECT_EQ(get(name, ""), longest);
}

}  // namespace
}  // namespace android::kus
