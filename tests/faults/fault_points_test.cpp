// SPDX-License-Identifier: Apache-2.0
//
// Every system call that the daemon makes on its files is once its last one, and once fails.
#include <android-base/strings.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <functional>
#include <map>
#include <regex>

#include "local_daemon.h"

namespace android::kus {
namespace {

using testing::HasSubstr;

constexpr char kTrace[] = "/data/trace";
const std::string kKill = "signal=SIGKILL";

const Rules kBefore = goodRules(1);
const Rules kAfter = otherGoodRules(2);
const Rules kDefault = {
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<usbconfig mode=\"default\">\n</usbconfig>",
    "111"};
const Rules kNone = {contentOf("/none"), ""};

/** A system call on one of the daemon's files, as strace shows it. */
struct Call {
    std::string name;
    /** Counted from 1 among the calls of this name of one thread, as strace counts. */
    int number;
    std::string line;

    bool has(const std::string& text) const { return line.find(text) != std::string::npos; }
    bool isOn(const std::string& path) const { return has(path + '"') || has(path + '>'); }
    bool truncates(const std::string& path) const {
        return (has("O_TRUNC") || name == "ftruncate") && isOn(path);
    }

    /** The errors that it can meet with. */
    std::vector<std::string> errors() const {
        if (name == "openat" && has("O_CREAT")) return {"EMFILE", "ENOSPC"};
        if (name == "openat") return {"EMFILE"};
        if (name == "write") return {"ENOSPC", "EIO"};
        // The kernel closes a file even where it returns an error, and strace does not. Without its
        // watch the daemon lives on the rules of its start.
        if (name == "close" || name == "inotify_add_watch") return {};
        return {"EIO"};
    }

    /** True where a failure loses a part of the rules file or of the backup. */
    bool writesRules() const {
        static const std::regex names("write|fsync|fdatasync|ftruncate|rename.*");
        return (isOn(configFilePath) || isOn(backupFilePath)) &&
               (has("O_TRUNC") || std::regex_match(name, names));
    }
};

std::vector<Call> readTrace() {
    static const std::regex pattern("(\\d+) +(\\w+)\\(.*");
    std::vector<Call> calls;
    std::map<std::string, int> numbers;
    for (const std::string& line : base::Split(contentOf(kTrace), "\n")) {
        std::smatch fields;
        if (!std::regex_match(line, fields, pattern)) continue;
        calls.push_back({fields[2], ++numbers[fields.str(1) + ' ' + fields.str(2)], line});
    }
    return calls;
}

/** What happens to the daemon, and what may stand in its files wherever it stops. */
struct Scenario {
    const char* name;
    std::vector<Rules> rules;
    std::vector<Rules> backups;
    /** A daemon that runs on kBefore is attached to; else one is started with this done before. */
    bool running;
    std::function<void()> act;
    /** How it ends by itself; by default it goes on until the test kills it. */
    int end = -SIGKILL;
    const char* argument = nullptr;
};

class FaultPoints : public LocalDaemonTest {
  protected:
    ~FaultPoints() override { kill(); }

    void tryAll(const Scenario& scenario);

  private:
    std::vector<Call> run(const Scenario& scenario, const std::string& injection = "");
    void tryPoint(const Scenario& scenario, const Call& call, const std::string& fault);
    void expectAgreement(const Scenario& scenario, const Call& call);
    void expectRestart(const Scenario& scenario);

    /** As it was at the end of a run: the daemon is gone by then. */
    bool settled_ = false;
    int exitStatus_ = 0;
    std::string decisions_;
    std::string log_;

    int undisturbedErrors_ = 0;
    int windows_ = 0;
};

std::vector<Call> FaultPoints::run(const Scenario& scenario, const std::string& injection) {
    std::vector<std::string> strace = {"strace", "-f", "-y", "-s", "0", "-o", kTrace};
    for (const std::string& path :
         {configDirectory + std::string(), configFilePath + std::string(),
          configFilePath + std::string(".new"), backupFilePath + std::string(),
          statusFilePath + std::string()}) {
        strace.insert(strace.end(), {"-P", path});
    }
    if (!injection.empty()) strace.push_back("--inject=" + injection);

    std::unique_ptr<Process> tracer;
    if (scenario.running) {
        settleOn(kBefore);
        strace.insert(strace.begin(), {"sh", "-c", "exec \"$@\" 2>&1", "sh"});
        strace.insert(strace.end(), {"-p", std::to_string(daemon_->pid())});
        tracer = std::make_unique<Process>(strace);
        EXPECT_THAT(tracer->line(), HasSubstr("attached"));
        scenario.act();
    } else {
        kill();
        scenario.act();
        // -D makes the daemon, not strace, the child.
        strace.push_back("-D");
        start(strace, scenario.argument);
    }
    settled_ = (scenario.running || awaitStart()) && settle();
    decisions_ = settled_ ? decisions() : "";
    exitStatus_ = settled_ ? -SIGKILL : exitStatus();
    log_ = log();
    kill();
    if (tracer) tracer->exitStatus();
    EXPECT_TRUE(eventually([] { return base::EndsWith(contentOf(kTrace), " +++\n"); }));
    return readTrace();
}

/** Lines at level ERROR, apart from those of a stack trace. */
int countErrors(const std::string& log) {
    const std::vector<std::string> lines = base::Split(log, "\n");
    return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
        return base::StartsWith(line, "local_kusd E ") &&
               line.find("crash_handler.cpp") == std::string::npos;
    });
}

void FaultPoints::tryAll(const Scenario& scenario) {
    const std::vector<Call> calls = run(scenario);
    EXPECT_EQ(exitStatus_, scenario.end);
    undisturbedErrors_ = countErrors(log_);
    int killed = 0, failed = 0;
    for (const Call& call : calls) {
        tryPoint(scenario, call, kKill);
        ++killed;
        for (const std::string& error : call.errors()) {
            tryPoint(scenario, call, "error=" + error);
            ++failed;
        }
    }
    printf("%s: killed at %d points, %d of them in the window that remains; %d errors\n",
           scenario.name, killed, windows_, failed);
    EXPECT_GT(killed, 0);
}

bool isOneOf(const std::string& content, const std::vector<Rules>& texts) {
    return std::any_of(texts.begin(), texts.end(),
                       [&](const Rules& rules) { return rules.isIn(content); });
}

void FaultPoints::tryPoint(const Scenario& scenario, const Call& call, const std::string& fault) {
    SCOPED_TRACE(fault + " at " + std::to_string(call.number) + ": " + call.line);
    const std::vector<Call> calls =
        run(scenario, call.name + ':' + fault + ":when=" + std::to_string(call.number));
    if (fault == kKill) {
        EXPECT_TRUE(!settled_ && exitStatus_ == -SIGKILL) << "it was not killed";
    } else if (!settled_) {
        EXPECT_EQ(exitStatus_, scenario.end);
    }
    bool inWindow = false;
    for (const char* path : {configFilePath, backupFilePath}) {
        // Killed between the truncation and the one write that fills the file again.
        if (fault == kKill && calls.size() > 1 && calls.back().name == "write" &&
            calls[calls.size() - 2].truncates(path)) {
            inWindow = true;
            continue;
        }
        const std::string content = contentOf(path);
        EXPECT_TRUE(isOneOf(content, path == configFilePath ? scenario.rules : scenario.backups))
            << path << ": " << gist(content);
    }
    windows_ += inWindow;
    if (fault != kKill) expectAgreement(scenario, call);
    expectRestart(scenario);
}

void FaultPoints::expectAgreement(const Scenario& scenario, const Call& call) {
    if (call.writesRules() && !scenario.argument) {
        EXPECT_GT(countErrors(log_), undisturbedErrors_) << "the failure is not logged";
    }
    if (!settled_) return;
    for (const Rules& rules : scenario.rules) {
        if (rules.isIn(contentOf(configFilePath)) && rules.accepted()) {
            EXPECT_EQ(decisions_, rules.decisions);
        }
    }
}

void FaultPoints::expectRestart(const Scenario& scenario) {
    if (scenario.argument) {
        start({}, scenario.argument);
        EXPECT_EQ(exitStatus(), 0);
    }
    const std::string found = contentOf(configFilePath);
    bringUp();
    for (const Rules& rules : scenario.rules) {
        if (rules.isIn(found) && rules.accepted()) expectInForce(rules);
    }
}

TEST_F(FaultPoints, OfAStart) {
    tryAll({"start", {kAfter}, {kBefore, kAfter}, false, [&] {
                writeRules(kAfter);
                writeFile(backupFilePath, kBefore.copy());
            }});
}

TEST_F(FaultPoints, OfStartupTasks) {
    tryAll({"run-startup-tasks",
            {kNone, kDefault},
            {kNone},
            false,
            [] {
                remove(configFilePath);
                remove(backupFilePath);
            },
            0,
            "run-startup-tasks"});
}

TEST_F(FaultPoints, OfAGoodRewrite) {
    tryAll(
        {"good rewrite", {kAfter, kBefore}, {kBefore, kAfter}, true, [&] { writeRules(kAfter); }});
}

TEST_F(FaultPoints, OfARefusedRewriteAndItsRestore) {
    const Rules refused = unknownElement(3);
    tryAll({"refused rewrite and restore", {refused, kBefore}, {kBefore}, true, [&] {
                writeRules(refused);
            }});
}

TEST_F(FaultPoints, OfACrash) {
    tryAll({"crash",
            {kBefore},
            {kBefore},
            true,
            [&] {
                daemon_->kill(SIGSEGV);
                eventually([&] { return ended(); }, std::chrono::seconds(5));
            },
            SIGSEGV});
}

TEST_F(FaultPoints, OfACrashInTheParser) {
    const Rules refused = numberTooLarge(3);
    tryAll({"crash in the parser",
            {refused, kBefore},
            {kBefore},
            true,
            [&] { writeRules(refused); },
            SIGABRT});
}

// The kernel writes what still fits, and only then fails.
TEST_F(FaultPoints, OfAFullDisk) {
    ASSERT_EQ(mount("small", configDirectory, "tmpfs", 0, "size=128k"), 0);
    settleOn(kBefore);
    const Rules larger = otherGoodRules(2, 200);
    struct statvfs disk;
    ASSERT_EQ(statvfs(configDirectory, &disk), 0);
    // Room for the administrator's file, none for its copy.
    const size_t growth = larger.text.size() / disk.f_bsize - kBefore.text.size() / disk.f_bsize;
    writeFile(std::string(configDirectory) + "/filler",
              std::string((disk.f_bavail - growth) * disk.f_bsize, 'x'));
    writeRules(larger);
    EXPECT_TRUE(settle());
    EXPECT_TRUE(larger.isIn(contentOf(configFilePath))) << gist(contentOf(configFilePath));
    EXPECT_TRUE(kBefore.isIn(contentOf(backupFilePath))) << gist(contentOf(backupFilePath));
    EXPECT_EQ(decisions(), larger.decisions);
    EXPECT_GT(countErrors(log()), 0);
    writeRules(unknownElement(3));
    EXPECT_TRUE(settle());
    EXPECT_TRUE(kBefore.isIn(contentOf(configFilePath))) << gist(contentOf(configFilePath));
    EXPECT_EQ(decisions(), kBefore.decisions);
    kill();
    EXPECT_EQ(umount(configDirectory), 0);
}

}  // namespace
}  // namespace android::kus
