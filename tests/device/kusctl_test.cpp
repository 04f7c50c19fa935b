// SPDX-License-Identifier: Apache-2.0
#include <signal.h>

#include <string>

#include "device_test.h"
#include "process.h"

namespace android::kus {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr char kStick[] = "--vendor 2385 --product 5734 --storage";

class KusctlTest : public DeviceTest {};

TEST_F(KusctlTest, ListsWhatIsRecordedAndWhy) {
    setRules("blacklist", "<vid vendorid=\"2385\"/>");
    const Plugged stick("stick", kStick);
    EXPECT_EQ(stick.decision().status, 0);
    const std::string json = shell("kusctl list --json");
    EXPECT_THAT(json, HasSubstr("\"Blacklisted: Match by VID, VID : 2385\""));
    EXPECT_THAT(json, HasSubstr("USB_CLASS_MASS_STORAGE"));
    EXPECT_THAT(shell("kusctl list | cat"), HasSubstr("stick\t2385:5734"));
    EXPECT_THAT(shell("kusctl dump"), HasSubstr("Device name : stick"));
    EXPECT_THAT(shell("kusctl dump topology"), HasSubstr("Interface name : " + stick.entry()));
    EXPECT_THAT(shell("kusctl check --vendor 2385 --product 1 --class 8; true"),
                StartsWith("refused: Blacklisted: Match by VID, VID : 2385"));
}

TEST_F(KusctlTest, GeneratesRulesThatAllowWhatIsAttached) {
    const Plugged stick("stick", kStick), serial("serial", "--vendor 1155 --product 1 --serial");
    EXPECT_EQ(stick.decision().status, 1);
    EXPECT_EQ(serial.decision().status, 1);
    shell("kusctl generate >/tmp/generated.xml && kusctl lint /tmp/generated.xml");
    RoleWatch roles;
    shell(std::string("cat /tmp/generated.xml >") +
          "/data/system/usbdeviceconfig/usb_device_config.xml");
    EXPECT_EQ(roles.writes(4), oneToggle());
    EXPECT_THAT(stick.decision().reason, StartsWith("Whitelisted: Match by VID_PID"));
    EXPECT_THAT(serial.decision().reason, StartsWith("Whitelisted: Match by VID_PID"));
    EXPECT_FALSE(isAllowed({8}));
}

TEST_F(KusctlTest, WatchesAcrossTheDaemonsDeath) {
    Process watch({"kusctl", "watch", "--json"});
    const auto plugAndUnplug = [&] {
        const Plugged stick("stick", kStick);
        EXPECT_THAT(watch.line(), HasSubstr("\"stick\""));
    };
    plugAndUnplug();
    EXPECT_THAT(watch.line(), HasSubstr("\"stick\"")) << "the removal";
    kill(daemonPid(), SIGKILL);
    awaitDaemon();
    // Devices that stayed are decided again, and told, before it has registered or after.
    EXPECT_TRUE(eventually([&] {
        const Plugged stick("again", kStick);
        for (std::string line; !(line = watch.line(2000)).empty();) {
            if (line.find("\"again\"") != std::string::npos) return true;
        }
        return false;
    }));
}

TEST_F(KusctlTest, SaysWhatToDoWithoutAService) {
    shell("services stop kusd");
    EXPECT_EQ(shell("kusctl list 2>/tmp/error; echo $?"), "1");
    EXPECT_THAT(contentOf("/tmp/error"), HasSubstr("kusbservice"));
    shell("services start kusd");
    awaitDaemon();
}

}  // namespace
}  // namespace android::kus
