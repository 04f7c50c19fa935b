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

const struct Kind {
    const char* name;
    Rules (*make)(int serial);
    /** How the status starts after it. */
    const char* status;
} kKinds[] = {
    {"good", [](int serial) { return goodRules(serial); }, "SUCCESS"},
    {"other good", [](int serial) { return otherGoodRules(serial); }, "SUCCESS"},
    {"unknown element", unknownElement, "INVALID TAG:foo"},
    // The next daemon accepts what this one has restored.
    {"number too large", numberTooLarge, "SUCCESS"},
    {"empty",
     [](int) {
         return Rules{"", ""};
     },
     "Error=XML_ERROR_EMPTY_DOCUMENT"},
};

int countOf(const std::string& text, const std::string& log) {
    int count = 0;
    for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; at += text.size()) ++count;
    return count;
}

class Bursts : public LocalDaemonTest {
  protected:
    ~Bursts() override { kill(); }

    void tryAll(size_t length, int times);

  private:
    void burst(const std::vector<const Kind*>& kinds);
    void superviseFor(microseconds time);
    void expectAgreement(const std::vector<const Kind*>& kinds, const Rules& last,
                         const std::vector<Rules>& accepted);

    std::mt19937 random_{1};
    int serial_ = 0;
    Rules inForce_;
    int parses_ = 0;
    int restarts_ = 0;
    size_t logSeen_ = 0;
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

void Bursts::burst(const std::vector<const Kind*>& kinds) {
    std::string story;
    Rules last;
    std::vector<Rules> accepted = {inForce_};
    parses_ = restarts_ = 0;
    logSeen_ = log().size();
    for (const Kind* kind : kinds) {
        last = kind->make(++serial_);
        if (last.accepted()) accepted.push_back(last);
        writeRules(last);
        const microseconds gap(random_() % std::vector{2'000, 10'000, 200'000}[random_() % 3]);
        story += std::string(kind->name) + ", " + std::to_string(gap.count()) + " us, ";
        if (kind != kinds.back()) superviseFor(gap);
    }
    SCOPED_TRACE(story);
    bool settled = false;
    do {
        superviseFor(microseconds(0));
        settled = awaitStart() && settle();
    } while (!settled && ended() && restarts_ < 5);
    EXPECT_TRUE(settled);
    expectAgreement(kinds, last, last.accepted() ? std::vector<Rules>{last} : accepted);
}

void Bursts::expectAgreement(const std::vector<const Kind*>& kinds, const Rules& last,
                             const std::vector<Rules>& accepted) {
    const std::string backup = contentOf(backupFilePath);
    const auto rules = std::find_if(accepted.begin(), accepted.end(), [&](const Rules& candidate) {
        return backup == candidate.copy();
    });
    if (rules == accepted.end()) {
        ADD_FAILURE() << "the backup is none of the accepted files, " << gist(backup);
    } else if (restarts_ > 0 && !last.accepted() && contentOf(configFilePath) == last.text) {
        // A file that is refused at a start is not undone.
        EXPECT_THAT(log(), testing::HasSubstr(" parsing failed"));
    } else {
        EXPECT_TRUE(rules->isIn(contentOf(configFilePath))) << "the rules are not the backup's";
        EXPECT_EQ(decisions(), rules->decisions);
    }
    std::vector<std::string> statuses;
    for (const Kind* kind : kinds) {
        if (last.accepted() == kind->make(0).accepted()) statuses.push_back(kind->status);
    }
    EXPECT_TRUE(std::any_of(statuses.begin(), statuses.end(), [](const std::string& status) {
        return base::StartsWith(contentOf(statusFilePath), status);
    })) << contentOf(statusFilePath);
    parses_ += countOf("call parsing", log(logSeen_));
    EXPECT_LE(parses_, 2 * static_cast<int>(kinds.size()) + restarts_);
    if (rules != accepted.end()) inForce_ = *rules;
}

// Each kind after each kind, after any others.
void Bursts::tryAll(size_t length, int times) {
    constexpr int kKindCount = std::size(kKinds);
    const int bursts = times * kKindCount * kKindCount;
    int tried = 0, failed = 0;
    for (; tried < bursts && failed < 10; ++tried) {
        if (inForce_.text.empty()) {
            kill();
            inForce_ = goodRules(++serial_);
            settleOn(inForce_);
        }
        std::vector<const Kind*> kinds = {&kKinds[tried / kKindCount % kKindCount],
                                          &kKinds[tried % kKindCount]};
        while (kinds.size() < length) kinds.insert(kinds.begin(), &kKinds[random_() % kKindCount]);
        const int failuresBefore = failures();
        burst(kinds);
        if (failures() > failuresBefore) {
            ++failed;
            inForce_ = {};
        }
    }
    printf("%d bursts of %zu rewrites, %d failed\n", tried, length, failed);
}

TEST_F(Bursts, OfTwo) { tryAll(2, fullRun() ? 300 : 3); }

TEST_F(Bursts, OfThree) { tryAll(3, fullRun() ? 300 : 2); }

// Some of them come between the first load of the rules and the watch.
TEST_F(Bursts, AroundAStart) {
    std::mt19937 random(1);
    settleOn(goodRules(0));
    const auto begin = steady_clock::now();
    bringUp();
    const auto span = std::chrono::duration_cast<microseconds>(steady_clock::now() - begin).count();
    for (int i = 1; i <= (fullRun() ? 500 : 40); ++i) {
        microseconds wait(random() % (2 * span));
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
        const Rules rules = i % 2 ? otherGoodRules(i) : goodRules(i);
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
        return system((std::string("set -e; truncate -s 32M /data/disk; mkfs.ext4 -q /data/disk;"
                                   "rm -f /dev/loop*; mknod /dev/loop-control c 10 237;"
                                   "for i in $(seq 0 63); do mknod /dev/loop$i b 7 $i; done;"
                                   "mount -o loop /data/disk ") +
                       configDirectory)
                          .c_str()) == 0;
    }
};

TEST_P(Crashes, AroundAGoodRewrite) {
    if (!mountFileSystem()) GTEST_SKIP() << "no ext4 here";
    constexpr int kPadding = 3000;
    std::mt19937 random(1);
    Rules inForce = goodRules(0, kPadding);
    settleOn(inForce);
    const auto begin = steady_clock::now();
    settleOn(inForce);
    const auto span = std::chrono::duration_cast<microseconds>(steady_clock::now() - begin).count();
    const int trials = fullRun() ? 500 : 30;
    int inWindow = 0, failed = 0;
    for (int i = 1; i <= trials; ++i) {
        const int failuresBefore = failures();
        const int signal = std::vector{SIGKILL, SIGSEGV, SIGABRT}[i % 3];
        const Rules next = i % 2 ? otherGoodRules(i, kPadding) : goodRules(i, kPadding);
        if (i % 5 == 0) daemon_->tell("load");
        writeRules(next);
        const microseconds wait(random() % (i % 4 ? span : 10'000));
        SCOPED_TRACE("signal " + std::to_string(signal) + " after " + std::to_string(wait.count()) +
                     " us of " + std::to_string(span));
        std::this_thread::sleep_for(wait);
        daemon_->kill(signal);
        EXPECT_EQ(exitStatus(), signal == SIGKILL ? -SIGKILL : signal);

        const std::string rules = contentOf(configFilePath);
        const std::string backup = contentOf(backupFilePath);
        if (next.isIn(rules)) {
            // Killed between the truncation of the backup and the end of the one write.
            if (signal == SIGKILL && base::StartsWith(next.copy(), backup)) {
                inWindow += backup != next.copy();
            } else {
                EXPECT_TRUE(inForce.isIn(backup) || next.isIn(backup)) << gist(backup);
            }
            inForce = next;
        } else {
            EXPECT_TRUE(inForce.isIn(rules)) << gist(rules);
            EXPECT_TRUE(inForce.isIn(backup)) << gist(backup);
        }
        bringUp();
        expectInForce(inForce);
        if (failures() > failuresBefore) {
            ++failed;
            inForce = goodRules(0, kPadding);
            settleOn(inForce);
        }
    }
    printf("%d crashes on %s, %d of them in the window that remains; %d failed\n", trials,
           GetParam(), inWindow, failed);
    EXPECT_LE(inWindow, 1 + trials / 50);
}

INSTANTIATE_TEST_SUITE_P(On, Crashes, testing::Values("tmpfs", "ext4"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
}  // namespace android::kus
