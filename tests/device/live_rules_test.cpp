// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include "device_test.h"
#include "process.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using android::base::StartsWith;
using android::base::Trim;
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

/** Some whole-file rewrites in a row, and what may come of them. */
class Burst {
  public:
    /** `before` are the rules that were accepted before it. */
    Burst(const Rules& before, int length, std::mt19937& random);

    void write() const;
    /** Whether everything agrees on the last good rules, which are then in accepted(). */
    bool isSettled();
    const Rules& accepted() const { return accepted_; }
    /** Whether the daemon came back to find a file that it refuses, which stays as it is then. */
    bool leavesRefusedFile() const { return leavesRefusedFile_; }
    /** Whether it ends a daemon that reads all of it. */
    bool crashes() const { return crashes_; }
    std::string description() const;

  private:
    struct Rewrite {
        std::string text;
        /** What the status begins with when it is the last one. */
        std::string status;
        int gapMs;
    };

    bool agreesOn(const Rules& rules) const;

    std::vector<Rewrite> rewrites_;
    std::vector<Rules> good_;
    bool lastIsGood_ = false;
    bool crashes_ = false;
    bool leavesRefusedFile_ = false;
    Rules accepted_;
};

Burst::Burst(const Rules& before, int length, std::mt19937& random) : good_({before}) {
    static int refusals = 0;
    while (length-- > 0) {
        const int kind = random() % 5;
        lastIsGood_ = kind <= 1;
        const std::string tag = "refused" + std::to_string(++refusals);
        Rewrite rewrite = {"", "Error=XML_ERROR_EMPTY_DOCUMENT", 0};
        if (lastIsGood_) {
            good_.push_back(Rules::next());
            rewrite = {good_.back().text, "SUCCESS", 0};
        } else if (kind == 2) {
            rewrite = {rulesText("blacklist", "<" + tag + "/>"), "INVALID TAG:" + tag, 0};
        } else if (kind == 3) {
            rewrite = {rulesText("blacklist", "<vid vendorid='99999999999'/>"), "SUCCESS", 0};
            crashes_ = true;
        }
        // Half of the gaps are short: most of what can go wrong does within some milliseconds.
        rewrite.gapMs = random() % (random() % 2 != 0 ? 10 : 201);
        rewrites_.push_back(rewrite);
    }
}

void Burst::write() const {
    for (const Rewrite& rewrite : rewrites_) {
        writeFile(configFilePath, rewrite.text);
        if (&rewrite != &rewrites_.back()) sleep_for(std::chrono::milliseconds(rewrite.gapMs));
    }
}

bool Burst::agreesOn(const Rules& rules) const {
    return contentOf(configFilePath) == Trim(rules.text) &&
           contentOf(backupFilePath) == Trim(rules.text) && rules.areInForce();
}

bool Burst::isSettled() {
    const std::string status = contentOf(statusFilePath);
    const bool lastIsTold = StartsWith(status, rewrites_.back().status);
    if (!lastIsTold && !(crashes_ && status == "SUCCESS")) return false;
    if (lastIsGood_) {
        accepted_ = good_.back();
        return agreesOn(accepted_);
    }
    for (const Rules& rules : good_) {
        accepted_ = rules;
        if (agreesOn(rules)) return true;
        leavesRefusedFile_ = crashes_ && lastIsTold &&
                             contentOf(configFilePath) == Trim(rewrites_.back().text) &&
                             contentOf(backupFilePath) == Trim(rules.text);
        if (leavesRefusedFile_) return true;
    }
    return false;
}

std::string Burst::description() const {
    std::string text = "before: " + good_[0].text;
    for (const Rewrite& rewrite : rewrites_) {
        text += rewrite.text + " " + std::to_string(rewrite.gapMs) + " ms later: ";
    }
    return text + "\nrules: " + contentOf(configFilePath) +
           "\nbackup: " + contentOf(backupFilePath) + "\nstatus: " + contentOf(statusFilePath);
}

TEST_F(LiveRulesTest, BurstsOfRewritesLoseNothing) {
    Rules accepted = Rules::rewrite();
    std::mt19937 random(1);
    Intruder intruder;
    const int parsesBefore = parses();
    int rewrites = 0;
    for (int i = 0; i < (fullRun() ? 600 : 16); ++i) {
        const int length = 2 + i % 2;
        Burst burst(accepted, length, random);
        writeFile(statusFilePath, "");
        intruder.entries();
        burst.write();
        rewrites += length;
        ASSERT_TRUE(eventually([&] {
            if (!burst.isSettled()) return false;
            // A daemon that is about to end can look settled.
            if (burst.crashes()) sleep_for(300ms);
            return !burst.crashes() || burst.isSettled();
        })) << burst.description();
        accepted = burst.accepted();
        if (burst.leavesRefusedFile()) {
            accepted = Rules::rewrite();
            ++rewrites;
        } else {
            EXPECT_EQ(intruder.entries(), 0) << burst.description();
        }
    }
    // At most the refused one and the restored one.
    EXPECT_LE(parses() - parsesBefore, 2 * rewrites);
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
