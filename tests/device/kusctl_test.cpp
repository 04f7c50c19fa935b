// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <pty.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "device_test.h"
#include "process.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char kStick[] = "--vendor 2385 --product 5734 --storage";

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
    const Plugged stick("stick", kStick);
    EXPECT_EQ(stick.decision().status, 0);
    const std::string json = shell("kusctl list --json | grep stick");
    EXPECT_THAT(json, AllOf(StartsWith("{\"allowed\": false,"), EndsWith("\"vendor\": 2385}"),
                            HasSubstr("\"Blacklisted: Match by VID, VID : 2385\"")));
    EXPECT_THAT(shell("kusctl list | cat"), HasSubstr("stick\t2385:5734"));
    EXPECT_THAT(shell("kusctl dump"), HasSubstr("Device name : stick"));
    EXPECT_THAT(shell("kusctl dump topology"), HasSubstr("Interface name : " + stick.entry()));
    EXPECT_THAT(shell("kusctl check --vendor 2385 --product 1 --class 8; true"),
                StartsWith("refused: Blacklisted: Match by VID, VID : 2385"));
}

TEST_F(KusctlTest, ColoursTheDecisionAloneOnATerminal) {
    setRules("blacklist", "<vid vendorid=\"2385\"/>");
    const Plugged stick("refused", kStick), serial("allowed", "--vendor 1155 --product 1 --serial");
    stick.decision();
    serial.decision();
    // Of each line the place and the text of what is coloured, and the rest of that column.
    std::vector<std::string> coloured;
    size_t column = 0;
    for (const std::string& line : base::Split(onTerminal("kusctl list"), "\n")) {
        if (column == 0) column = line.find("STATUS");
        coloured.push_back(line.substr(column, line.find_last_of('\033') + 4 - column));
        EXPECT_EQ(line.find('\033'), line[column] == '\033' ? column : std::string::npos) << line;
    }
    const std::string red = "\033[31mrefused\033[0m", green = "\033[32mallowed\033[0m";
    // The machine's own come before those that are plugged in.
    EXPECT_THAT(coloured, ElementsAre(StartsWith("STATUS"), green, green, red, green));
    EXPECT_THAT(onTerminal("NO_COLOR= kusctl list"), Not(HasSubstr("\033")));
}

TEST_F(KusctlTest, GeneratesRulesThatAllowWhatIsAttached) {
    const Plugged stick("stick", kStick), serial("serial", "--vendor 1155 --product 1 --serial"),
        keyboard("a--keyboard-", "--vendor 1241 --product 5635 --keyboard");
    EXPECT_EQ(stick.decision().status, 1);
    EXPECT_EQ(serial.decision().status, 1);
    EXPECT_TRUE(eventually([] { return recorded("Virtual a--keyboard-").status == 1; }));
    shell("kusctl generate >/tmp/generated.xml && kusctl lint /tmp/generated.xml");
    RoleWatch roles;
    shell(std::string("cat /tmp/generated.xml >") +
          "/data/system/usbdeviceconfig/usb_device_config.xml");
    EXPECT_EQ(roles.writes(4), oneToggle());
    EXPECT_THAT(stick.decision().reason, StartsWith("Whitelisted: Match by VID_PID"));
    EXPECT_THAT(serial.decision().reason, StartsWith("Whitelisted: Match by VID_PID"));
    EXPECT_TRUE(eventually([] {
        return recorded("Virtual a--keyboard-").reason ==
               "Whitelisted: Match by VID_PID combination, VID : 1241 PID: 5635";
    }));
    EXPECT_FALSE(isAllowed({8}));

    const std::string only = " --only " + std::to_string(stick.id());
    EXPECT_THAT(shell("kusctl generate" + only), AllOf(HasSubstr("5734"), Not(HasSubstr("1155"))));
    EXPECT_THAT(shell("kusctl generate --mode blacklist"), Not(HasSubstr("1241")));
    EXPECT_THAT(shell("kusctl generate --mode blacklist --include-input"), HasSubstr("1241"));
    EXPECT_EQ(shell("kusctl generate --only 7 2>/dev/null; echo $?"), "1");
}

class WatchTest : public KusctlTest {
  protected:
    /** Runs until it is registered, its two outputs in one. */
    static std::unique_ptr<Process> watch(const std::string& options) {
        auto watch = std::make_unique<Process>(
            std::vector<std::string>{"sh", "-c", "exec kusctl watch " + options + " 2>&1"});
        EXPECT_EQ(watch->line(), "kusctl watch: registered");
        return watch;
    }

    static void plugAndUnplug() { const Plugged stick("stick", kStick); }
};

TEST_F(WatchTest, TellsWhatCameBeforeTheDaemonsDeathAndGoesOn) {
    const auto watched = watch("--json");
    watched->kill(SIGSTOP);
    {
        const Plugged stick("stick", kStick);
        stick.decision();
    }
    EXPECT_TRUE(eventually([] { return recorded("stick").deviceId == 0; }));
    kill(daemonPid(), SIGKILL);
    awaitDaemon();
    watched->kill(SIGCONT);
    for (const char* event : {"added", "removed", "service-died", "service-back"}) {
        EXPECT_THAT(watched->line(), HasSubstr("\"event\": \"" + std::string(event) + "\""));
    }
    plugAndUnplug();
    // After the machine's own, which are asked about again.
    std::string line = watched->line();
    while (line.find("QEMU") != std::string::npos) line = watched->line();
    EXPECT_THAT(line, HasSubstr("\"stick\""));
}

TEST_F(WatchTest, RunsACommandForEachEventInTurn) {
    shell(
        "echo '#!/bin/sh\necho $KUS_EVENT $KUS_NAME $KUS_VENDOR $KUS_ALLOWED $KUS_CLASSES\n"
        "[ $KUS_EVENT = added ] && sleep 1 || exit 3' >/tmp/told; chmod +x /tmp/told");
    const auto watched = watch("--exec /tmp/told");
    plugAndUnplug();
    EXPECT_EQ(watched->line(), "added stick 2385 true USB_CLASS_MASS_STORAGE");
    EXPECT_EQ(watched->line(), "removed stick 2385 USB_CLASS_MASS_STORAGE");
    EXPECT_EQ(watched->line(), "kusctl watch: /tmp/told ended with status 3");
    const auto once = watch("--once --exec /bin/false");
    plugAndUnplug();
    EXPECT_EQ(once->exitStatus(), 1);
}

TEST_F(WatchTest, EndsAfterOneDeviceOrWithItsReaderOrWithTheServiceManager) {
    const auto once = watch("--once"), longer = watch("");
    plugAndUnplug();
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

class ApplyTest : public KusctlTest {
  protected:
    /** What it prints, and its exit status. */
    static std::string apply(const std::string& arguments) {
        return shell("kusctl apply " + arguments + " 2>&1; echo status $?");
    }

    /** Kills it when it has made this many system calls since it made the new file. */
    static void applyUntilCall(int calls) {
        const std::string newRules = std::string(configFilePath) + ".new";
        unlink(newRules.c_str());
        const pid_t child = fork();
        if (child == 0) {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            execlp("kusctl", "kusctl", "apply", "--force", "/tmp/new.xml", nullptr);
        }
        // Each call stops it twice.
        int status, stops = 0;
        while (waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
            if (stops > 0 || access(newRules.c_str(), F_OK) == 0) ++stops;
            if (stops > 2 * calls) kill(child, SIGKILL);
            ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        }
        EXPECT_TRUE(WIFSIGNALED(status)) << "has ended before";
    }
};

TEST_F(ApplyTest, TellsWhatWouldChangeAndWhatDid) {
    const Plugged stick("stick", kStick);
    const DeviceInfo before = stick.decision();
    const std::string text = rulesText("whitelist",
                                       "<class>AINPUT_SOURCE_MOUSE</class>\n"
                                       "<vid vendorid=\"1133\"/>");
    writeFile("/tmp/new.xml", text);
    shell(std::string("chmod 640 ") + configFilePath);
    const std::string wouldBe = "would be refused: stick (usb " + std::to_string(before.deviceId);
    EXPECT_THAT(apply("--dry-run /tmp/new.xml"), AllOf(HasSubstr(wouldBe), EndsWith("status 0")));
    EXPECT_EQ(stick.decision().deviceId, before.deviceId);
    EXPECT_NE(contentOf(configFilePath), base::Trim(text));

    const std::string told = apply("/tmp/new.xml");
    EXPECT_EQ(stick.decision().status, 0);
    EXPECT_THAT(told, AllOf(HasSubstr(wouldBe), EndsWith("status 0"),
                            HasSubstr("now refused: stick (usb " + std::to_string(stick.id()))));
    EXPECT_EQ(contentOf(configFilePath), base::Trim(text));
    EXPECT_EQ(shell(std::string("stat -c %a ") + configFilePath), "640");

    writeFile("/tmp/new.xml", rulesText("whitelist", "<vid vendorid=\"1133\"/>"));
    EXPECT_THAT(apply("--force /tmp/new.xml"),
                AllOf(HasSubstr("\nstill allowed: "), EndsWith("status 0")));
    writeFile("/tmp/new.xml", rulesText("blacklist", "<vid vendorid=\"1133\"/>"));
    EXPECT_THAT(apply("--dry-run /tmp/new.xml"),
                HasSubstr("would be refused: any device of vendor 1133, keyboards and mice too"));
}

TEST_F(ApplyTest, LeavesTheRulesAloneWhereTheyWouldBeRefusedOrLockOut) {
    const Plugged keyboard("keys", "--vendor 1241 --product 5635 --keyboard");
    EXPECT_TRUE(eventually([] { return recorded("Virtual keys").status == 1; }));
    const std::string before = contentOf(configFilePath);
    const char* const cases[][2] = {
        {"<class>AINPUT_SOURCE_MOUSE</class><class>USB_CLASS_PRINTR</class>", "INVALID CLASS"},
        {"<class>AINPUT_SOURCE_MOUSE</class>", "the last allowed keyboard"},
        {"<class>AINPUT_SOURCE_KEYBOARD</class>", "the last allowed pointer"},
    };
    for (const auto& [rules, message] : cases) {
        writeFile("/tmp/new.xml", rulesText("whitelist", rules));
        EXPECT_THAT(apply("/tmp/new.xml"), AllOf(HasSubstr(message), EndsWith("status 1")));
        EXPECT_EQ(contentOf(configFilePath), before);
    }
    EXPECT_THAT(apply("--force /tmp/new.xml"), EndsWith("status 0"));
    EXPECT_NE(contentOf(configFilePath), before);
}

TEST_F(ApplyTest, LeavesOneOfTheTwoFilesWhereverItIsKilled) {
    int applied = 0;
    for (int calls = 0; applied < 3; ++calls) {
        SCOPED_TRACE(calls);
        const Rules old = Rules::rewrite();
        Rules next = Rules::next();
        next.text += "<!-- " + std::string(100'000, 'x') + " -->\n";
        writeFile("/tmp/new.xml", next.text);
        applyUntilCall(calls);
        const std::string found = contentOf(configFilePath);
        const bool isNew = found == base::Trim(next.text);
        applied += isNew;
        ASSERT_TRUE(isNew || found == base::Trim(old.text)) << found.size() << " bytes";
        ASSERT_TRUE(eventually([&] { return (isNew ? next : old).areAccepted(); }));
    }
    RoleWatch().writes(0);  // the last reset's
}

TEST_F(KusctlTest, SaysWhatToDoWithoutAService) {
    shell("services stop kusd");
    EXPECT_EQ(shell("kusctl list 2>/tmp/error; echo $?"), "1");
    EXPECT_THAT(contentOf("/tmp/error"), HasSubstr("'services start kusd' in the virtual device"));
    shell("services start kusd");
    awaitDaemon();
}

}  // namespace
}  // namespace android::kus
