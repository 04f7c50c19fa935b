// SPDX-License-Identifier: Apache-2.0
#include <cutils/properties.h>

#include <filesystem>
#include <thread>

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
    EXPECT_EQ(get("a.b", "default"), "default");
    EXPECT_EQ(get("a.b", nullptr), "");
    EXPECT_EQ(property_set("a.b", "value"), 0);
    EXPECT_EQ(get("a.b", "default"), "value");
    EXPECT_EQ(property_set("a.b", nullptr), 0);
    EXPECT_EQ(get("a.b", "default"), "default");
}

TEST_F(Properties, Limits) {
    for (const char* name : {"", ".a", "a.", "a..b", "..", "a/b", "../../data/x", "a b"}) {
        EXPECT_LT(property_set(name, "1"), 0) << name;
    }
    EXPECT_FALSE(std::filesystem::exists("/data/x"));
    // A read-only property may be longer, and is set once; its readers get what fits.
    const std::string longest(PROPERTY_VALUE_MAX - 1, 'x'), tooLong = longest + "y";
    EXPECT_EQ(property_set("a", longest.c_str()), 0);
    EXPECT_EQ(property_set("ro.a", tooLong.c_str()), 0);
    EXPECT_LT(property_set("a", tooLong.c_str()), 0);
    EXPECT_LT(property_set("ro.a", "z"), 0);
    for (const char* name : {"a", "ro.a"}) EXPECT_EQ(get(name, ""), longest);
}

TEST_F(Properties, Integers) {
    const std::pair<const char*, int32_t> cases[] = {{"12", 12}, {"-5", -5},         {"0x1f", 31},
                                                     {"010", 8}, {" 7 ", 7},         {"7x", 7},
                                                     {"x", -9},  {"2147483648", -9}, {"", -9}};
    for (const auto& [text, number] : cases) {
        property_set("n", text);
        EXPECT_EQ(property_get_int32("n", -9), number) << text;
    }
}

TEST_F(Properties, ReadersNeverSeeAHalfWrittenValue) {
    property_set("a", "short");
    std::thread writer([] {
        for (int i = 0; i < 500; i++) property_set("a", i % 2 ? "short" : "a longer value");
        property_set("a", "end");
    });
    std::string value;
    do {
        value = get("a", "(none)");
        EXPECT_THAT(value, testing::AnyOf("short", "a longer value", "end"));
    } while (value != "end");
    writer.join();
}

}  // namespace
}  // namespace android::kus
