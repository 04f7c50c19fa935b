// SPDX-License-Identifier: Apache-2.0
//
// Every system call that the daemon makes on its files is once its last one, fails once, and is
// once followed by a crash of its thread; and at any time between them another thread crashes.
#include <android-base/strings.h>
#include <signal.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <regex>
#include <thread>

#include "local_daemon.h"

namespace android::kus {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

constexpr char kTrace[] = "/data/trace";

const Rules kBefore = makeRules(kGood, 1);
const Rules kAfter = makeRules(kOtherGood, 2);
const Rules kRefused = makeRules(kUnknownElement, 3);
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
        return (isOn(configFilePath) || isOn(backupFilePath)) &&
               (truncates() || name == "write" || name == "fsync" || name == "fdatasync");
    }

    /** The errors that it can meet with. */
    Texts errors() const {
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

/** Between the truncation of a file and the one write that fills it again. */
bool endInWindow(const std::vector<Call>& calls, const std::string& path) {
    return calls.size() > 1 && calls.back().name == "write" && calls.back().isOn(path) &&
           calls[calls.size() - 2].truncates();
}

/** Lines at level ERROR, apart from those of a stack trace. */
int countErrors(const std::string& log) {
    const Texts lines = base::Split(log, "\n");
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

Texts straceOnFiles(const std::string& injection) {
    Texts strace = {"strace", "-f", "-y", "-s", "0", "-o", kTrace};
    for (const char* path : {"", "/usb_device_config.xml", "/usb_device_config.xml.new",
                             "/usb_device_config_backup.xml", "/status.txt"}) {
        strace.insert(strace.end(), {"-P", std::string(configDirectory) + path});
    }
    if (!injection.empty()) strace.push_back("--inject=" + injection);
    return strace;
}

/** What happens to the daemon, and what may stand in its files wherever it stops. */
struct Scenario {
    std::vector<Rules> rules, backups;
    /** Done to a daemon that runs on kBefore, or before one is started. */
    bool whileItRuns;
    std::function<void()> act;
    /** How it ends by itself; else it goes on until it is killed. */
    int end = -SIGKILL;
    /** What ends by itself is run again, and then the last of `rules` is there. */
    Texts command = {LOCAL_KUSD_PATH};
    /** The command ends with 1 where it has not brought that about. */
    bool tellsFailure = false;
};

struct Fault {
    /** As strace is told. */
    std::string injection = {};
    /** How the daemon ends by it, if it does. */
    std::optional<int> end = {};
    /** Another thread crashes this long after the act. */
    std::optional<milliseconds> crash = {};
};

class FaultPoints : public LocalDaemonTest {
  protected:
    ~FaultPoints() override { kill(); }

    void tryAll(const Scenario& scenario);

    /** As a daemon does that ran on kBefore. */
    void leave(const Rules& rules, const char* status) {
        writeRules(rules);
        writeFile(backupFilePath, kBefore.copy());
        writeFile(statusFilePath, status);
    }

  private:
    std::vector<Call> run(const Scenario& scenario, const Fault& fault = {});
    void tryOne(const Scenario& scenario, const Fault& fault);

    /** Of the last run, whose daemon is gone. */
    bool settled_;
    int end_;
    std::string decisions_, log_;

    int windows_ = 0;
};

std::vector<Call> FaultPoints::run(const Scenario& scenario, const Fault& fault) {
    Texts strace = straceOnFiles(fault.injection);
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
        start(strace, scenario.command);
    }
    if (fault.crash) {
        std::this_thread::sleep_for(*fault.crash);
        // Not the observer, which could be in the middle of a line of the log: the handler waits
        // for the log's lock.
        tgkill(daemon_->pid(), daemon_->pid(), SIGSEGV);
        ended(kPatience);
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
    const auto count = [&](const char* name) {
        return std::count_if(calls.begin(), calls.end(), [&](const Call& call) {
            return call.name == name && call.writesRules();
        });
    };
    EXPECT_EQ(count("write"), count("fsync")) << "a power cut loses what is not synced";
    const int errors = countErrors(log_);
    const bool goesOn = scenario.end == -SIGKILL;
    int faults = 0;
    const auto tryFault = [&](const Fault& fault) {
        ++faults;
        tryOne(scenario, fault);
    };
    for (const Call& call : calls) {
        SCOPED_TRACE(call.line);
        const std::string when = ":when=" + std::to_string(call.number);
        tryFault({call.name + ":signal=SIGKILL" + when, -SIGKILL});
        if (goesOn) tryFault({call.name + ":signal=SIGSEGV" + when, SIGSEGV});
        if (goesOn && scenario.whileItRuns) {
            tryFault({call.name + ":delay_exit=100000" + when, SIGSEGV, milliseconds(50)});
        }
        for (const std::string& error : call.errors()) {
            tryFault({call.name + ":error=" + error + when});
            EXPECT_THAT(contentOf(kTrace), HasSubstr("(INJECTED)"));
            if (call.writesRules() && scenario.end != 0) {
                EXPECT_GT(countErrors(log_), errors) << "it is not logged";
            }
        }
    }
    printf("%zu calls, %d faults, %d of them in the window that remains\n", calls.size(), faults,
           windows_);
}

void FaultPoints::tryOne(const Scenario& scenario, const Fault& fault) {
    SCOPED_TRACE(fault.injection);
    const std::vector<Call> calls = run(scenario, fault);
    EXPECT_FALSE(fault.end && settled_);
    if (!settled_ && !(scenario.tellsFailure && end_ == EXIT_FAILURE)) {
        EXPECT_EQ(end_, fault.end.value_or(scenario.end)) << contentOf(kTrace);
    }
    // A crash brings the backup back.
    std::vector<Rules> candidates = scenario.rules;
    if (fault.end == SIGSEGV) {
        candidates.push_back(kBefore);
        EXPECT_EQ(contentOf(statusFilePath), crashStatus);
    }

    for (const char* path : {configFilePath, backupFilePath}) {
        if (fault.end == -SIGKILL && endInWindow(calls, path)) {
            ++windows_;
            continue;
        }
        EXPECT_TRUE(find(contentOf(path), path == configFilePath ? candidates : scenario.backups))
            << path << " has " << gist(contentOf(path));
    }
    const Rules* rules = find(contentOf(configFilePath), candidates);
    if (scenario.end == 0) {
        const Rules& last = scenario.rules.back();
        if (scenario.tellsFailure && end_ == EXIT_SUCCESS) {
            EXPECT_TRUE(last.isIn(contentOf(configFilePath)));
        }
        start({}, scenario.command);
        ended(kPatience);
        EXPECT_TRUE(last.isIn(contentOf(configFilePath))) << gist(contentOf(configFilePath));
        rules = &last;
    }
    const bool accepted = rules && rules->accepted();
    if (settled_ && accepted) {
        EXPECT_EQ(decisions_, rules->decisions);
    }
    bringUp();
    if (accepted) expectInForce(*rules);
}

TEST_F(FaultPoints, OfAStart) {
    const auto act = [&] { leave(kAfter, "SUCCESS"); };
    tryAll({{kAfter}, {kBefore, kAfter}, false, act});
}

// The crash came before the refused file was read.
TEST_F(FaultPoints, OfAStartAfterACrash) {
    const auto act = [&] { leave(kRefused, crashStatus); };
    tryAll({{kRefused, kBefore}, {kBefore}, false, act});
    EXPECT_TRUE(kBefore.isIn(contentOf(configFilePath)));
}

TEST_F(FaultPoints, OfStartupTasks) {
    const auto act = [] {
        remove(configFilePath);
        remove(backupFilePath);
    };
    tryAll({{kNoFile, kDefault}, {kNoFile}, false, act, 0, {LOCAL_KUSD_PATH, "run-startup-tasks"}});
}

TEST_F(FaultPoints, OfAGoodRewrite) {
    const std::vector<Rules> either = {kAfter, kBefore};
    tryAll({either, either, true, [&] { writeRules(kAfter); }});
}

TEST_F(FaultPoints, OfARefusedRewriteAndItsRestore) {
    tryAll({{kRefused, kBefore}, {kBefore}, true, [&] { writeRules(kRefused); }});
}

TEST_F(FaultPoints, OfACrash) {
    const auto act = [&] {
        daemon_->kill(SIGSEGV);
        ended(kPatience);
    };
    tryAll({{kBefore}, {kBefore}, true, act, SIGSEGV});
}

TEST_F(FaultPoints, OfACrashInTheParser) {
    const Rules tooLarge = makeRules(kNumberTooLarge, 3);
    tryAll({{tooLarge, kBefore}, {kBefore}, true, [&] { writeRules(tooLarge); }, SIGABRT});
}

TEST_F(FaultPoints, OfKusctlRestore) {
    const auto act = [&] { leave(kRefused, "SUCCESS"); };
    tryAll({{kRefused, kBefore}, {kBefore}, false, act, 0, {KUSCTL_PATH, "restore"}, true});
}

}  // namespace
}  // namespace android::kus
