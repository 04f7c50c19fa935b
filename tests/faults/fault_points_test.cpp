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
constexpr char kKill[] = "signal=SIGKILL";

const Rules kBefore = makeRules(kGood, 1);
const Rules kAfter = makeRules(kOtherGood, 2);
const Rules kNoFile = {"no file", "(no file)", "", ""};
const Rules kDefault = {
    "default",
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<usbconfig mode=\"default\">\n</usbconfig>", "111",
    "SUCCESS"};

/** A system call on one of the daemon's files, as strace shows it. */
struct Call {
    std::string name;
    /** Counted from 1 among the calls of this name of one thread, as strace counts. */
    int number;
    std::string line;

    bool has(const std::string& text) const { return line.find(text) != std::string::npos; }
    bool isOn(const std::string& path) const { return has(path + '"') || has(path + '>'); }
    bool truncates() const { return has("O_TRUNC") || name == "ftruncate"; }

    /** True where a failure loses a part of the rules file or of the backup. */
    bool writesRules() const {
        static const std::regex names("write|fsync|fdatasync");
        return (isOn(configFilePath) || isOn(backupFilePath)) &&
               (truncates() || std::regex_match(name, names));
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

/** Between the truncation of the file and the one write that fills it again. */
bool endInWindow(const std::vector<Call>& calls, const std::string& path) {
    return calls.size() > 1 && calls.back().name == "write" && calls.back().isOn(path) &&
           calls[calls.size() - 2].truncates();
}

/** Lines at level ERROR, apart from those of a stack trace. */
int countErrors(const std::string& log) {
    const std::vector<std::string> lines = base::Split(log, "\n");
    return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
        return base::StartsWith(line, "local_kusd E ") &&
               line.find("crash_handler.cpp") == std::string::npos;
    });
}

const Rules* find(const std::string& content, const std::vector<Rules>& candidates) {
    for (const Rules& rules : candidates) {
        if (rules.isIn(content)) return &rules;
    }
    return nullptr;
}

/** What happens to the daemon, and what may stand in its files wherever it stops. */
struct Scenario {
    const char* name;
    std::vector<Rules> rules, backups;
    /** Done to a daemon that runs on kBefore, or before one is started. */
    bool whileItRuns;
    std::function<void()> act;
    /** How it ends by itself; else it goes on until it is killed. */
    int end = -SIGKILL;
    const char* argument = nullptr;
};

class FaultPoints : public LocalDaemonTest {
  protected:
    ~FaultPoints() override { kill(); }

    void tryAll(const Scenario& scenario);
    static std::vector<std::string> straceOnFiles(const std::string& injection);

  private:
    std::vector<Call> run(const Scenario& scenario, const std::string& injection = "");
    void tryPoint(const Scenario& scenario, const Call& call, const std::string& fault);

    /** Of the last run, whose daemon is gone. */
    bool settled_;
    int end_;
    std::string decisions_, log_;

    int undisturbedErrors_;
    int windows_ = 0;
};

std::vector<std::string> FaultPoints::straceOnFiles(const std::string& injection) {
    std::vector<std::string> strace = {"strace", "-f", "-y", "-s", "0", "-o", kTrace};
    for (const char* path : {"", "/usb_device_config.xml", "/usb_device_config.xml.new",
                             "/usb_device_config_backup.xml", "/status.txt"}) {
        strace.insert(strace.end(), {"-P", std::string(configDirectory) + path});
    }
    if (!injection.empty()) strace.push_back("--inject=" + injection);
    return strace;
}

std::vector<Call> FaultPoints::run(const Scenario& scenario, const std::string& injection) {
    std::vector<std::string> strace = straceOnFiles(injection);
    std::unique_ptr<Process> tracer;
    if (scenario.whileItRuns) {
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
    settled_ = (scenario.whileItRuns || awaitStart()) && settle();
    decisions_ = settled_ ? decisions() : "";
    end_ = settled_ ? -SIGKILL : exitStatus();
    log_ = log();
    kill();
    if (tracer) tracer->exitStatus();
    EXPECT_TRUE(eventually([] { return base::EndsWith(contentOf(kTrace), " +++\n"); }));
    return readTrace();
}

void FaultPoints::tryAll(const Scenario& scenario) {
    const std::vector<Call> calls = run(scenario);
    EXPECT_EQ(end_, scenario.end);
    EXPECT_FALSE(calls.empty());
    undisturbedErrors_ = countErrors(log_);
    int errors = 0;
    for (const Call& call : calls) {
        tryPoint(scenario, call, kKill);
        for (const std::string& error : call.errors()) {
            tryPoint(scenario, call, "error=" + error);
            ++errors;
        }
    }
    printf("%s: killed at %zu points, %d of them in the window that remains; %d errors\n",
           scenario.name, calls.size(), windows_, errors);
}

void FaultPoints::tryPoint(const Scenario& scenario, const Call& call, const std::string& fault) {
    SCOPED_TRACE(fault + " at " + std::to_string(call.number) + ": " + call.line);
    const bool killed = fault == kKill;
    const std::vector<Call> calls =
        run(scenario, call.name + ':' + fault + ":when=" + std::to_string(call.number));
    EXPECT_THAT(contentOf(kTrace), HasSubstr(killed ? "killed by SIGKILL" : "(INJECTED)"));
    if (killed || !settled_) {
        EXPECT_EQ(end_, killed ? -SIGKILL : scenario.end);
    }
    EXPECT_FALSE(killed && settled_);

    const std::string found = contentOf(configFilePath);
    for (const char* path : {configFilePath, backupFilePath}) {
        if (killed && endInWindow(calls, path)) {
            ++windows_;
            continue;
        }
        EXPECT_TRUE(
            find(contentOf(path), path == configFilePath ? scenario.rules : scenario.backups))
            << path << " has " << gist(contentOf(path));
    }
    const Rules* rules = find(found, scenario.rules);
    const bool accepted = rules && rules->accepted();
    if (settled_ && accepted) {
        EXPECT_EQ(decisions_, rules->decisions);
    }
    if (!killed && !scenario.argument && call.writesRules()) {
        EXPECT_GT(countErrors(log_), undisturbedErrors_) << "it is not logged";
    }

    if (scenario.argument) {
        start({}, scenario.argument);
        EXPECT_EQ(exitStatus(), 0);
    }
    bringUp();
    if (accepted) expectInForce(*rules);
}

TEST_F(FaultPoints, OfAStart) {
    const auto act = [&] {
        writeRules(kAfter);
        writeFile(backupFilePath, kBefore.copy());
        writeFile(statusFilePath, "SUCCESS");
    };
    tryAll({"start", {kAfter}, {kBefore, kAfter}, false, act});
}

// The crash came before the refused file was read.
TEST_F(FaultPoints, OfAStartAfterACrash) {
    const Rules refused = makeRules(kUnknownElement, 3);
    const auto act = [&] {
        writeRules(refused);
        writeFile(backupFilePath, kBefore.copy());
        writeFile(statusFilePath, crashStatus);
    };
    tryAll({"start after a crash", {refused, kBefore}, {kBefore}, false, act});
    EXPECT_TRUE(kBefore.isIn(contentOf(configFilePath)));
}

TEST_F(FaultPoints, OfStartupTasks) {
    const auto act = [] {
        remove(configFilePath);
        remove(backupFilePath);
    };
    const char* argument = "run-startup-tasks";
    tryAll({argument, {kNoFile, kDefault}, {kNoFile}, false, act, 0, argument});
}

TEST_F(FaultPoints, OfAGoodRewrite) {
    const std::vector<Rules> either = {kAfter, kBefore};
    tryAll({"good rewrite", either, either, true, [&] { writeRules(kAfter); }});
}

TEST_F(FaultPoints, OfARefusedRewriteAndItsRestore) {
    const Rules refused = makeRules(kUnknownElement, 3);
    const auto act = [&] { writeRules(refused); };
    tryAll({"refused rewrite and restore", {refused, kBefore}, {kBefore}, true, act});
}

TEST_F(FaultPoints, OfACrash) {
    const auto act = [&] {
        daemon_->kill(SIGSEGV);
        eventually([&] { return ended(); }, std::chrono::seconds(5));
    };
    tryAll({"crash", {kBefore}, {kBefore}, true, act, SIGSEGV});
}

TEST_F(FaultPoints, OfACrashInTheParser) {
    const Rules refused = makeRules(kNumberTooLarge, 3);
    const auto act = [&] { writeRules(refused); };
    tryAll({"crash in the parser", {refused, kBefore}, {kBefore}, true, act, SIGABRT});
}

TEST_F(FaultPoints, OfKusctlRestore) {
    const Rules refused = makeRules(kUnknownElement, 3);
    const auto restore = [&](const std::string& injection) {
        std::vector<std::string> command = straceOnFiles(injection);
        command.insert(command.end(), {KUSCTL_PATH, "restore"});
        return Process(command).exitStatus();
    };
    const auto tryPoint = [&](const Call& call, const std::string& fault) {
        SCOPED_TRACE(fault + " at " + std::to_string(call.number) + ": " + call.line);
        writeRules(refused);
        const int status =
            restore(call.name + ':' + fault + ":when=" + std::to_string(call.number));
        const std::vector<Call> calls = readTrace();
        const std::string found = contentOf(configFilePath);
        EXPECT_TRUE(kBefore.copy() == contentOf(backupFilePath));
        EXPECT_TRUE((fault == kKill && endInWindow(calls, configFilePath)) ||
                    find(found, {refused, kBefore}))
            << gist(found);
        EXPECT_TRUE(status != 0 || kBefore.isIn(found)) << gist(found);
        restore("");
        EXPECT_TRUE(kBefore.isIn(contentOf(configFilePath))) << gist(contentOf(configFilePath));
    };
    writeFile(backupFilePath, kBefore.copy());
    writeRules(refused);
    EXPECT_EQ(restore(""), 0);
    const std::vector<Call> calls = readTrace();
    EXPECT_TRUE(
        std::any_of(calls.begin(), calls.end(), [](auto& call) { return call.truncates(); }));
    for (const Call& call : calls) {
        tryPoint(call, kKill);
        for (const std::string& error : call.errors()) tryPoint(call, "error=" + error);
    }
}

// The kernel writes what still fits, and only then fails.
TEST_F(FaultPoints, OfAFullDisk) {
    ASSERT_EQ(mount("small", configDirectory, "tmpfs", 0, "size=128k"), 0);
    settleOn(kBefore);
    const Rules larger = makeRules(kOtherGood, 2, 200);
    struct statvfs disk;
    ASSERT_EQ(statvfs(configDirectory, &disk), 0);
    // Room for the administrator's file, none for its copy.
    const size_t growth = larger.text.size() / disk.f_bsize - kBefore.text.size() / disk.f_bsize;
    writeFile(std::string(configDirectory) + "/filler",
              std::string((disk.f_bavail - growth) * disk.f_bsize, 'x'));
    writeRules(larger);
    EXPECT_TRUE(settle());
    EXPECT_TRUE(kBefore.copy() == contentOf(backupFilePath)) << gist(contentOf(backupFilePath));
    EXPECT_EQ(decisions(), larger.decisions);
    EXPECT_GT(countErrors(log()), 0);
    writeRules(makeRules(kUnknownElement, 3));
    EXPECT_TRUE(settle());
    EXPECT_TRUE(kBefore.isIn(contentOf(configFilePath))) << gist(contentOf(configFilePath));
    EXPECT_EQ(decisions(), kBefore.decisions);
    kill();
    EXPECT_EQ(umount(configDirectory), 0);
}

}  // namespace
}  // namespace android::kus
