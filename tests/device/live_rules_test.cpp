// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "device_test.h"
#include "process.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using android::base::StartsWith;
using std::chrono::steady_clock;
using std::this_thread::sleep_for;
using testing::IsEmpty;

constexpr char kStick[] = "--vendor 2385 --product 5734 --storage";
constexpr char kStorageAllowed[] = "<class>USB_CLASS_MASS_STORAGE</class>";
constexpr char kStorageRefused[] = "<class>USB_CLASS_AUDIO</class>";

class LiveRulesTest : public DeviceTest {};

TEST_F(LiveRulesTest, AGoodRewriteDecidesAttachedDevicesAgain) {
    setRules("whitelist", kStorageAllowed);
    const Plugged stick("stick", kStick);
    int id = stick.decision().deviceId;
    EXPECT_TRUE(eventually([] { return sticks().size() == 1; }));

    for (const bool allowed : {false, true, false}) {
        const auto closed = steady_clock::now();
        setRules("whitelist", allowed ? kStorageAllowed : kStorageRefused);
        EXPECT_EQ(contentOf(backupFilePath), contentOf(configFilePath));
        EXPECT_TRUE(eventually([&] { return stick.id() != 0 && stick.id() != id; }))
            << "not enumerated again";
        EXPECT_EQ(stick.decision().status, allowed);
        const auto decided =
            std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - closed);
        printf("close to decision: %d ms\n", static_cast<int>(decided.count()));
        EXPECT_TRUE(eventually([&] { return sticks().size() == (allowed ? 1 : 0); }));
        EXPECT_TRUE(eventually([&] { return recorded(id).deviceId == 0; })) << "old record stays";
        id = stick.id();
    }
}

TEST_F(LiveRulesTest, AFileWrittenInPlaceIsReadOnceWhenItIsClosed) {
    RoleWatch roles;
    const int before = parses();
    const int fd = open(configFilePath, O_WRONLY | O_TRUNC);
    for (const std::string text :
         {"<usbconfig mode=\"whitelist\">", kStorageAllowed, "</usbconfig>"}) {
        ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        sleep_for(300ms);
    }
    EXPECT_EQ(parses(), before);
    close(fd);
    EXPECT_EQ(roles.writes(4), oneToggle());
    EXPECT_EQ(parses(), before + 1);
}

// What else is refused, and in which words, is tested with the parser.
TEST_F(LiveRulesTest, ABadRewriteIsRolledBack) {
    setRules("whitelist", kStorageAllowed);
    const std::string good = contentOf(backupFilePath);
    RoleWatch roles;
    const int before = parses();
    writeFile(configFilePath, "<usbconfig mode='blacklist'><foo/></usbconfig>");
    EXPECT_TRUE(eventually([&] { return parses() == before + 2; })) << "the bad, the restored";
    EXPECT_THAT(roles.writes(0), IsEmpty());
    EXPECT_EQ(contentOf(statusFilePath), "INVALID TAG:foo");
    EXPECT_EQ(contentOf(configFilePath), good);
    EXPECT_EQ(contentOf(backupFilePath), good);
    EXPECT_TRUE(isAllowed({8}));
    EXPECT_FALSE(isAllowed({1}));
}

TEST_F(LiveRulesTest, WithoutABackupABadFileIsEmptiedAndDecisionsGoOn) {
    setRules("whitelist", kStorageAllowed);
    const std::string good = contentOf(configFilePath) + "\n";
    shell(std::string("rm ") + backupFilePath);
    writeFile(configFilePath, "<broken");
    EXPECT_TRUE(eventually(
        [] { return StartsWith(contentOf(statusFilePath), "Error=XML_ERROR_EMPTY_DOCUMENT"); }));
    EXPECT_EQ(contentOf(configFilePath), "");
    for (int i = 0; i < 20; ++i) EXPECT_FALSE(isAllowed({8})) << "no rule is in force";
    const auto start = steady_clock::now();
    const int before = parses();
    sleep_for(3s);
    const int more = parses() - before;
    EXPECT_GT(more, 0) << "it goes on";
    EXPECT_LE(more, 2 * (steady_clock::now() - start) / 1s) << "too busily";
    // A backup ends it: the next restore finds it.
    writeFile(backupFilePath, good);
    EXPECT_TRUE(eventually([&] { return contentOf(configFilePath) + "\n" == good; }));
    EXPECT_TRUE(eventually([] { return isAllowed({8}); }));
}

}  // namespace
}  // namespace android::kus
