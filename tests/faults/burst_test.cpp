// SPDX-License-Identifier: Apache-2.0
//
// Rewrites some milliseconds apart, some of which end the daemon.
#include <android-base/strings.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <random>
#include <thread>

#include "local_daemon.h"

namespace android::kus {
namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

int countParses(const std::string& log) {
    const Texts lines = base::Split(log, "\n");
    return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
        return base::EndsWith(line, "call parsing");
    });
}

class Bursts : public LocalDaemonTest {
  protected:
    ~Bursts() override { kill(); }

    void burst(const std::vector<int>& kinds);
    void superviseFor(microseconds time);
    void expectAgreement(const std::vector<Rules>& rewrites);

    std::mt19937 random_{1};
    int serial_ = 0;
    Rules inForce_ = makeRules(kGood, 0);
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
            parses_ += countParses(log(logSeen_));
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
    // One for each file, and one for what was restored after it.
    parses_ += countParses(log(logSeen_));
    EXPECT_LE(parses_, 2 * static_cast<int>(rewrites.size()) + restarts_);
}

// The last file if it is good; else one that was good when it came, or that was in force before.
void Bursts::expectAgreement(const std::vector<Rules>& rewrites) {
    std::vector<Rules> candidates = {inForce_}, told = rewrites;
    for (const Rules& rules : rewrites) {
        if (rules.accepted()) candidates.push_back(rules);
    }
    if (rewrites.back().accepted()) candidates = told = {rewrites.back()};

    const std::string backup = contentOf(backupFilePath);
    const auto accepted = std::find_if(candidates.begin(), candidates.end(),
                                       [&](const Rules& rules) { return rules.copy() == backup; });
    ASSERT_NE(accepted, candidates.end()) << "the backup has " << gist(backup);
    inForce_ = *accepted;
    EXPECT_TRUE(inForce_.isIn(contentOf(configFilePath))) << gist(contentOf(configFilePath));
    EXPECT_EQ(decisions(), inForce_.decisions);
    const std::string status = contentOf(statusFilePath);
    EXPECT_TRUE(std::any_of(told.begin(), told.end(), [&](const Rules& rules) {
        return base::StartsWith(status, rules.status);
    })) << status;
}

// Each kind after each kind, after any other; for long with KUS_FULL_RUN in the environment.
TEST_F(Bursts, OfThree) {
    settleOn(inForce_);
    const int bursts = (getenv("KUS_FULL_RUN") ? 600 : 4) * kKindCount * kKindCount;
    for (int tried = 0; tried < bursts && !HasFailure(); ++tried) {
        burst({static_cast<int>(random_() % kKindCount), tried / kKindCount % kKindCount,
               tried % kKindCount});
    }
}

// Slow to open its rules, so that they are rewritten between its watch and its look at them.
TEST_F(Bursts, InTheMiddleOfAStart) {
    settleOn(inForce_);
    for (int i = 1; i <= 10 && !HasFailure(); ++i) {
        start({"strace", "-D", "-f", "-o", "/dev/null", "-P", configFilePath,
               "--inject=openat:delay_exit=20000"});
        EXPECT_TRUE(awaitStart());
        const Rules rules = makeRules(i % 2 ? kOtherGood : kGood, i);
        writeRules(rules);
        EXPECT_TRUE(settle());
        expectInForce(rules);
    }
}

}  // namespace
}  // namespace android::kus
