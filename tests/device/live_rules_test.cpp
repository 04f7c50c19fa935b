// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "device_test.h"
#include "process.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using std::chrono::steady_clock;
using std::this_thread::sleep_for;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kStick[] = "--vendor 2385 --product 5734 --storage";
constexpr char kStorageAllowed[] = "<class>USB_CLASS_MASS_STORAGE</class>";
constexpr char kStorageRefused[] = "<class>USB_CLASS_AUDIO</class>";

class LiveRulesTest : public DeviceTest {};

int parses() {
    return stoi(shell("grep -c 'config file call parsing' /data/log/kusd.log || true"));
}

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

struct BadRules {
    const char* text;
    const char* status;
};

TEST_F(LiveRulesTest, ABadRewriteIsRolledBack) {
    setRules("whitelist", kStorageAllowed);
    const std::string good = contentOf(backupFilePath);
    const BadRules cases[] = {
        {"<usbconfig mode='whitelist'><class>USB_CLASS_AUDIO",
         "Error=XML_ERROR_PARSING_TEXT ErrorID=8 (0x8) Line number=1"},
        {"<config mode='whitelist'/>", "INVALID ROOT ELEMENT : config"},
        {"<usbconfig/>", "MODE NOT PRESENT"},
        {"<usbconfig mode='Whitelist'/>", "INVALID MODE"},
        {"<usbconfig mode='blacklist'><class>USB_CLASS_HID</class></usbconfig>",
         "INVALID CLASS VALUE:USB_CLASS_HID"},
        {"<usbconfig mode='blacklist'><vid vendorid='0x46d'/></usbconfig>",
         "INVALID VENDOR ID VALUE:0x46d"},
        {"<usbconfig mode='blacklist'><vid vendorid='1'><pid>2 </pid></vid></usbconfig>",
         "INVALID PRODUCT ID VALUE:2"},
        {"<usbconfig mode='blacklist'><foo/></usbconfig>", "INVALID TAG:foo"},
    };
    for (const BadRules& bad : cases) {
        SCOPED_TRACE(bad.text);
        RoleWatch roles;
        const int before = parses();
        writeFile(configFilePath, bad.text);
        EXPECT_TRUE(eventually([&] { return parses() == before + 2; })) << "the bad, the restored";
        EXPECT_THAT(roles.writes(0), IsEmpty());
        EXPECT_THAT(contentOf(statusFilePath), StartsWith(bad.status));
        EXPECT_EQ(contentOf(configFilePath), good);
        EXPECT_EQ(contentOf(backupFilePath), good);
        EXPECT_TRUE(isAllowed({8}));
        EXPECT_FALSE(isAllowed({1}));
    }
    setRules("whitelist", kStorageRefused);
    EXPECT_FALSE(isAllowed({8}));
}

TEST_F(LiveRulesTest, ManyRewritesWhileDevicesAndClientsComeAndGo) {
    const pid_t daemon = daemonPid();
    std::atomic<bool> done = false;
    std::thread devices([&] {
        while (!done) {
            shell("plug churn " + std::string(kStick) + "; usleep 300000; unplug churn");
        }
    });
    std::thread clients([&] {
        while (!done) {
            Client client(2);
            sleep_for(100ms);
        }
    });
    const std::string allowing = rulesText("whitelist", kStorageAllowed);
    const std::string refusing = rulesText("blacklist", kStorageAllowed);
    const int rewrites = fullRun() ? 100 : 30;
    for (int i = 0; i < rewrites; ++i) {
        writeFile(configFilePath, i % 3 == 0 ? allowing : i % 3 == 1 ? "<broken" : refusing);
        sleep_for(30ms);
    }
    done = true;
    devices.join();
    clients.join();
    // The restore of a bad file may have come after a good one; whatever came last is in force.
    RoleWatch roles;
    while (!roles.writes(0).empty()) continue;
    EXPECT_EQ(contentOf(backupFilePath), contentOf(configFilePath));
    EXPECT_EQ(isAllowed({8}), contentOf(configFilePath) + "\n" == allowing);
    setRules("whitelist", kStorageAllowed);
    EXPECT_TRUE(isAllowed({8}));
    EXPECT_EQ(daemonPid(), daemon);
}

TEST_F(LiveRulesTest, WithoutABackupABadFileIsEmptiedAndDecisionsGoOn) {
    setRules("whitelist", kStorageAllowed);
    const std::string good = contentOf(configFilePath) + "\n";
    shell(std::string("rm ") + backupFilePath);
    writeFile(configFilePath, "<broken");
    EXPECT_TRUE(eventually([] {
        return android::base::StartsWith(contentOf(statusFilePath),
                                         "Error=XML_ERROR_EMPTY_DOCUMENT");
    }));
    EXPECT_EQ(contentOf(configFilePath), "");
    for (int i = 0; i < 20; ++i) EXPECT_FALSE(isAllowed({8})) << "no rule is in force";
    // A backup ends it: the next restore finds it.
    writeFile(backupFilePath, good);
    EXPECT_TRUE(eventually([&] { return contentOf(configFilePath) + "\n" == good; }));
    EXPECT_TRUE(eventually([] { return isAllowed({8}); }));
}

}  // namespace
}  // namespace android::kus
