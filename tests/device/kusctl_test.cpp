// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include "device_test.h"
#include "process.h"
#include "util/Util.h"

namespace android::kus {
namespace {

class KusctlTest : public DeviceTest {};

/** What a shell command prints where its output is a terminal. */
std::string onTerminal(const char* command) {
    int terminal;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) execlp("sh", "sh", "-c", command, nullptr);
    EXPECT_GT(child, 0);
    std::string output;
    for (char c; read(terminal, &c, 1) == 1;) output += c;
    close(terminal);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    return base::Trim(output);
}

TEST_F(KusctlTest, ListsWhatIsRecordedAndWhy) {
    setRules("blacklist", "<vid vendorid=\"2385\"/>");
    const Plugged stick("stick", kStick), serial("serial", kSerial);
    EXPECT_EQ(stick.decision().status, 0);
    EXPECT_EQ(serial.decision().status, 1);
    EXPECT_THAT(shell("kusctl list --json | grep stick"),
                AllOf(StartsWith("{\"allowed\": false,"), EndsWith("\"vendor\": 2385}"),
                      HasSubstr("\"Blacklisted: Match by VID, VID : 2385\"")));
    EXPECT_THAT(shell("kusctl list | cat"), HasSubstr("stick\t2385:5734"));
    EXPECT_THAT(shell("kusctl dump"), HasSubstr("Device name : stick"));
    EXPECT_THAT(shell("kusctl dump topology"), HasSubstr("Interface name : " + stick.entry()));
    EXPECT_THAT(shell("kusctl check --vendor 2385 --product 1 --class 8; true"),
                StartsWith("refused: Blacklisted: Match by VID, VID : 2385"));

    const std::string table = onTerminal("kusctl list");
    EXPECT_THAT(table,
                AllOf(HasSubstr("STATUS   CATEGORY"), HasSubstr("\033[31mrefused\033[0m  4 sdcard"),
                      HasSubstr("\033[32mallowed\033[0m  2 ttyACM0")));
    EXPECT_THAT(onTerminal("NO_COLOR= kusctl list"), Not(HasSubstr("\033")));
}

TEST_F(KusctlTest, ClearsItsProgressBeforeAnotherLine) {
    writeFile("/tmp/devices", std::string(4096, '\n') + "[");
    EXPECT_THAT(onTerminal("kusctl check --devices /tmp/devices >/tmp/answers"),
                HasSubstr("4096 lines\r\033[Kkusctl check: /tmp/devices: line 4097 is no device"));
}

TEST_F(KusctlTest, GeneratesRulesThatAllowWhatIsAttached) {
    const Plugged stick("stick", kStick), keyboard("a--keyboard-", kKeyboard);
    EXPECT_EQ(stick.decision().status, 1);
    EXPECT_TRUE(eventually([] { return recorded("Virtual a--keyboard-").status == 1; }));
    shell(std::string("kusctl generate >/tmp/generated.xml && kusctl lint /tmp/generated.xml &&") +
          "cat /tmp/generated.xml >" + configFilePath);
    const std::string match = "Whitelisted: Match by VID_PID combination, VID : ";
    EXPECT_TRUE(eventually([&] {
        return recorded(stick.id()).reason == match + "2385 PID: 5734" &&
               recorded("Virtual a--keyboard-").reason == match + "1241 PID: 5635";
    }));
    EXPECT_FALSE(isAllowed({8}));

    const std::string only = " --only " + std::to_string(stick.id());
    EXPECT_THAT(shell("kusctl generate" + only), AllOf(HasSubstr("5734"), Not(HasSubstr("1241"))));
    EXPECT_THAT(shell("kusctl generate --mode blacklist"), Not(HasSubstr("1241")));
    EXPECT_THAT(shell("kusctl generate --mode blacklist --include-input"), HasSubstr("1241"));
    EXPECT_EQ(shell("kusctl generate --only 7 2>/dev/null; echo $?"), "1");
}

/** Runs until it is registered, its two outputs in one. */
std::unique_ptr<Process> watch(const std::string& options) {
    auto watch = std::make_unique<Process>(
        std::vector<std::string>{"sh", "-c", "exec kusctl watch " + options + " 2>&1"});
    EXPECT_EQ(watch->line(), "kusctl watch: registered");
    return watch;
}

TEST_F(KusctlTest, WatchTellsWhatCameBeforeTheDaemonsDeathAndGoesOn) {
    const auto watched = watch("--json");
    {
        const Stopped stopped(watched->pid());
        isAllowed({8});
        kill(daemonPid(), SIGKILL);
        awaitDaemon();
    }
    for (const char* event : {"added", "removed", "service-died", "service-back"}) {
        EXPECT_THAT(watched->line(), HasSubstr("\"event\": \"" + std::string(event) + "\""));
    }
    isAllowed({8});
    // After the machine's own, which are asked about again.
    std::string line = watched->line();
    while (line.find("QEMU") != std::string::npos) line = watched->line();
    EXPECT_THAT(line, HasSubstr("\"asked about\""));
}

TEST_F(KusctlTest, WatchRunsACommandForEachEventInTurn) {
    shell(
        "echo '#!/bin/sh\necho $KUS_EVENT $KUS_NAME $KUS_VENDOR $KUS_ALLOWED $KUS_CLASSES\n"
        "[ $KUS_EVENT = added ] && sleep 1 || exit 3' >/tmp/told; chmod +x /tmp/told");
    const auto watched = watch("--exec /tmp/told"), once = watch("--once --exec /bin/false");
    isAllowed({8}, 2385);
    EXPECT_EQ(watched->line(), "added asked about 2385 true USB_CLASS_MASS_STORAGE");
    EXPECT_EQ(watched->line(), "removed asked about 2385 USB_CLASS_MASS_STORAGE");
    EXPECT_EQ(watched->line(), "kusctl watch: /tmp/told ended with status 3");
    EXPECT_EQ(once->exitStatus(), 1);
}

TEST_F(KusctlTest, WatchEndsAfterOneDeviceOrWithItsReaderOrWithTheServiceManager) {
    const auto once = watch("--once"), longer = watch("");
    isAllowed({8});
    EXPECT_THAT(once->line(), StartsWith("added"));
    EXPECT_EQ(once->line(), "");
    EXPECT_EQ(once->exitStatus(), 0);
    shell("(timeout 20 kusctl watch; echo $? >/tmp/status) | true");
    EXPECT_EQ(contentOf("/tmp/status"), "1") << "not ended by itself";
    kill(stoi(shell("services pid servicemanager")), SIGKILL);
    EXPECT_EQ(longer->exitStatus(), 1);
    // Not asked by this process, which would lose the service manager for good.
    EXPECT_TRUE(eventually([] { return shell("kusctl list >&2; echo $?") == "0"; }));
}

/** Applies these rules: what it prints, and its exit status. */
std::string apply(const char* mode, const char* rules, const char* option = "") {
    writeFile("/tmp/new.xml", rulesText(mode, rules));
    return shell(std::string("kusctl apply ") + option + " /tmp/new.xml 2>&1; echo status $?");
}

TEST_F(KusctlTest, ApplyTellsWhatWouldChangeAndWhatDid) {
    constexpr char kMice[] = "<class>AINPUT_SOURCE_MOUSE</class>\n<vid vendorid=\"1133\"/>";
    const Plugged stick("stick", kStick);
    const int before = stick.decision().deviceId;
    // As one leaves it that was killed in the middle of its write.
    writeFile(std::string(configFilePath) + ".new", std::string(1000, 'x'));
    shell(std::string("chmod 640 ") + configFilePath);
    const std::string wouldBe = "would be refused: stick (usb " + std::to_string(before);
    EXPECT_THAT(apply("whitelist", kMice, "--dry-run"),
                AllOf(HasSubstr(wouldBe), EndsWith("status 0")));
    EXPECT_EQ(stick.id(), before);
    EXPECT_NE(contentOf(configFilePath), contentOf("/tmp/new.xml"));

    // Another file, so that at no moment the rules are neither the old nor the new ones.
    const auto fileNumber = [] { return shell(std::string("stat -c %i ") + configFilePath); };
    const std::string oldFile = fileNumber();
    const std::string told = apply("whitelist", kMice);
    EXPECT_NE(fileNumber(), oldFile) << "written in place";
    EXPECT_EQ(stick.decision().status, 0);
    EXPECT_THAT(told, AllOf(HasSubstr(wouldBe), EndsWith("status 0"),
                            HasSubstr("now refused: stick (usb " + std::to_string(stick.id()))));
    EXPECT_EQ(contentOf(configFilePath), contentOf("/tmp/new.xml"));
    EXPECT_EQ(shell(std::string("stat -c %a ") + configFilePath), "640");

    EXPECT_THAT(apply("whitelist", "<vid vendorid=\"1133\"/>", "--force"),
                AllOf(HasSubstr("\nstill allowed: "), EndsWith("status 0")));
    EXPECT_THAT(apply("blacklist", "<vid vendorid=\"1133\"/>", "--dry-run"),
                HasSubstr("would be refused: any device of vendor 1133, keyboards and mice too"));
}

TEST_F(KusctlTest, ApplyLeavesTheRulesAloneWhereTheyWouldBeRefusedOrLockOut) {
    const Plugged keyboard("keys", kKeyboard);
    EXPECT_TRUE(eventually([] { return recorded("Virtual keys").status == 1; }));
    const std::string before = contentOf(configFilePath);
    const std::pair<const char*, const char*> cases[] = {
        {"<class>AINPUT_SOURCE_MOUSE</class><class>USB_CLASS_PRINTR</class>", "INVALID CLASS"},
        {"<class>AINPUT_SOURCE_MOUSE</class>", "the last allowed keyboard"},
        {"<class>AINPUT_SOURCE_KEYBOARD</class>", "the last allowed pointer"},
    };
    for (const auto& [rules, message] : cases) {
        EXPECT_THAT(apply("whitelist", rules), AllOf(HasSubstr(message), EndsWith("status 1")));
        EXPECT_EQ(contentOf(configFilePath), before);
    }
}

TEST_F(KusctlTest, ApplyHasAppliedTheRulesWhereTheServiceManagerDiesThereafter) {
    const std::string text = rulesText("whitelist", "<class>AINPUT_SOURCE_KEYBOARD</class>");
    writeFile("/tmp/new.xml", text);
    Process applied({"sh", "-c", "exec kusctl apply --force /tmp/new.xml 2>&1"});
    EXPECT_TRUE(eventually([&] { return contentOf(backupFilePath) == base::Trim(text); }));
    kill(stoi(shell("services pid servicemanager")), SIGKILL);
    EXPECT_EQ(applied.exitStatus(), 0);
    EXPECT_TRUE(eventually([] { return shell("kusctl list >&2; echo $?") == "0"; }));
}

TEST_F(KusctlTest, SaysWhatToDoWithoutAService) {
    shell("services stop kusd");
    EXPECT_THAT(shell("kusctl list 2>&1; echo $?"),
                AllOf(HasSubstr("'services start kusd' in the virtual device"), EndsWith("\n1")));
    shell("services start kusd");
}

}  // namespace
}  // namespace android::kus
