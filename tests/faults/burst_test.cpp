// SPDX-License-Identifier: Apache-2.0
//
// Rewrites some milliseconds apart, and ends of the daemon around one.
#include <android-base/strings.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>

#include <algorithm>
#include <random>
#include <thread>

#include "local_daemon.h"

namespace android::kus {
namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

int countOf(const std::string& text, const std::string& log) {
    int count = 0;
    for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; at += text.size()) ++count;
    return count;
}

class Bursts : public LocalDaemonTest {
  protected:
    ~Bursts() override { kill(); }

    void tryAll(size_t length, int times);

    std::mt19937 random_{1};

  private:
    void burst(const std::vector<int>& kinds);
    void superviseFor(microseconds time);
    void expectAgreement(const std::vector<Rules>& rewrites);

    int serial_ = 0;
    Rules inForce_;
    /** In this burst. */
    int parses_, restarts_;
    size_t logSeen_;
};

// Starts it again as init does, without waiting for it.
void Bursts::superviseFor(microseconds time) {
    const auto end = steady_clock::now() + time;
    do {
        if (ended()) {
            EXPECT_EQ(exitStatus(), SIGABRT);
            parses_ += countOf("call parsing", log(logSeen_));
            logSeen_ = 0;
            ++restarts_;
            start();
        }
        std::this_thread::sleep_for(std::min(time, microseconds(500)));
    } while (steady_clock::now() < end);
}

void Bursts::burst(const std::vector<int>& kinds) {
    std::string story;
    std::vector<Rules> rewrites;
    parses_ = restarts_ = 0;
    logSeen_ = log().size();
    for (const int kind : kinds) {
        if (!rewrites.empty()) {
            const microseconds gap(random_() % std::vector{2'000, 10'000, 200'000}[random_() % 3]);
            superviseFor(gap);
            story += ", " + std::to_string(gap.count()) + " us, ";
        }
        rewrites.push_back(makeRules(kind, ++serial_));
        story += rewrites.back().name;
        writeRules(rewrites.back());
    }
    SCOPED_TRACE(story);
    bool settled;
    do {
        superviseFor(microseconds(0));
        settled = awaitStart() && settle();
    } while (!settled && ended() && restarts_ < 5);
    EXPECT_TRUE(settled);
    expectAgreement(rewrites);
}

// The last file if it is good; else one that was good when it came, or that was in force before.
void Bursts::expectAgreement(const std::vector<Rules>& rewrites) {
    const Rules& last = rewrites.back();
    std::vector<Rules> candidates = {last};
    std::vector<std::string> statuses = {last.status};
    if (!last.accepted()) {
        candidates = {inForce_};
        for (const Rules& rules : rewrites) {
            if (rules.accepted()) {
                candidates.push_back(rules);
            } else {
                statuses.push_back(rules.status);
            }
        }
    }
    const std::string found = contentOf(configFilePath);
    const std::string backup = contentOf(backupFilePath);
    const auto accepted = std::find_if(candidates.begin(), candidates.end(),
                                       [&](const Rules& rules) { return rules.copy() == backup; });
    if (accepted == candidates.end()) {
        ADD_FAILURE() << "the backup has " << gist(backup);
    } else {
        EXPECT_TRUE(accepted->isIn(found)) << "the rules file has " << gist(found);
        EXPECT_EQ(decisions(), accepted->decisions);
        inForce_ = *accepted;
    }
    const std::string status = contentOf(statusFilePath);
    EXPECT_TRUE(std::any_of(statuses.begin(), statuses.end(), [&](const std::string& text) {
        return base::StartsWith(status, text);
    })) << status;
    // One for each file, and one for what was restored after it.
    parses_ += countOf("call parsing", log(logSeen_));
    EXPECT_LE(parses_, 2 * static_cast<int>(rewrites.size()) + restarts_);
}

// Each kind after each kind, after any others.
void Bursts::tryAll(size_t length, int times) {
    inForce_ = makeRules(kGood, 0);
    settleOn(inForce_);
    const int bursts = times * kKindCount * kKindCount;
    int tried = 0;
    for (; tried < bursts && !HasFailure(); ++tried) {
        std::vector<int> kinds = {tried / kKindCount % kKindCount, tried % kKindCount};
        while (kinds.size() < length) kinds.insert(kinds.begin(), random_() % kKindCount);
        burst(kinds);
    }
    printf("%d bursts of %zu rewrites\n", tried, length);
}

TEST_F(Bursts, OfTwo) { tryAll(2, fullRun() ? 300 : 4); }

TEST_F(Bursts, OfThree) { tryAll(3, fullRun() ? 300 : 3); }

// Some come between the first load of the rules and the watch.
TEST_F(Bursts, AroundAStart) {
    settleOn(makeRules(kGood, 0));
    const auto begin = steady_clock::now();
    bringUp();
    const auto span = std::chrono::duration_cast<microseconds>(steady_clock::now() - begin).count();
    for (int i = 1; i <= (fullRun() ? 500 : 40) && !HasFailure(); ++i) {
        microseconds wait(random_() % (2 * span));
        if (i % 4) {
            start();
        } else {
            // Slow to open its rules, so that they are rewritten between its watch and its look at
            // them.
            start({"strace", "-D", "-f", "-o", "/dev/null", "-P", configFilePath,
                   "--inject=openat:delay_exit=20000"});
            awaitStart();
            wait = microseconds(0);
        }
        SCOPED_TRACE("after " + std::to_string(wait.count()) + " us of " + std::to_string(span));
        std::this_thread::sleep_for(wait);
        const Rules rules = makeRules(i % 2 ? kOtherGood : kGood, i);
        writeRules(rules);
        EXPECT_TRUE(awaitStart() && settle());
        expectInForce(rules);
    }
}

/** The parameter is the file system below the configuration directory. */
class Crashes : public LocalDaemonTest, public testing::WithParamInterface<const char*> {
  protected:
    ~Crashes() override {
        kill();
        umount(configDirectory);
    }

    bool mountFileSystem() {
        if (GetParam() == std::string("tmpfs")) return true;
        // The private /dev has no loop devices.
        const std::string commands =
            "set -e; truncate -s 32M /data/disk; mkfs.ext4 -q /data/disk; rm -f /dev/loop*;"
            "mknod /dev/loop-control c 10 237; "
            "for i in $(seq 0 63); do mknod /dev/loop$i b 7 $i; done; mount -o loop /data/disk ";
        return system((commands + configDirectory).c_str()) == 0;
    }
};

TEST_P(Crashes, AroundAGoodRewrite) {
    if (!mountFileSystem()) GTEST_SKIP() << "no ext4 here";
    constexpr int kPadding = 3000;
    std::mt19937 random(1);
    Rules inForce = makeRules(kGood, 0, kPadding);
    settleOn(inForce);
    const auto begin = steady_clock::now();
    settleOn(inForce);
    const auto span = std::chrono::duration_cast<microseconds>(steady_clock::now() - begin).count();
    int inWindow = 0, tried = 0;
    for (; tried < (fullRun() ? 500 : 30) && !HasFailure(); ++tried) {
        const int signal = std::vector{SIGKILL, SIGSEGV, SIGABRT}[tried % 3];
        const Rules next = makeRules(tried % 2 ? kGood : kOtherGood, tried + 1, kPadding);
        const microseconds wait(random() % (tried % 4 ? span : 10'000));
        SCOPED_TRACE("signal " + std::to_string(signal) + " after " + std::to_string(wait.count()) +
                     " us of " + std::to_string(span));
        if (tried % 5 == 0) daemon_->tell("load");
        writeRules(next);
        std::this_thread::sleep_for(wait);
        daemon_->kill(signal);
        EXPECT_EQ(exitStatus(), signal == SIGKILL ? -SIGKILL : signal);

        const std::string found = contentOf(configFilePath);
        const std::string backup = contentOf(backupFilePath);
        if (next.isIn(found) && signal == SIGKILL && backup.size() < next.copy().size() &&
            base::StartsWith(next.copy(), backup)) {
            // Between the truncation of the backup and the end of the one write.
            ++inWindow;
        } else {
            EXPECT_TRUE(next.isIn(found) || inForce.isIn(found)) << gist(found);
            EXPECT_TRUE(next.copy() == backup || inForce.copy() == backup) << gist(backup);
        }
        if (next.isIn(found)) inForce = next;
        bringUp();
        expectInForce(inForce);
    }
    printf("%d crashes on %s, %d of them in the window that remains\n", tried, GetParam(),
           inWindow);
    EXPECT_LE(inWindow, 3 + tried / 20);
}

INSTANTIATE_TEST_SUITE_P(On, Crashes, testing::Values("tmpfs", "ext4"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
}  // namespace android::kus
