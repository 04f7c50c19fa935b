// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <deque>
#include <utility>

#include "kusctl.h"

namespace android::kus {
namespace {

constexpr char kHelp[] = R"(usage: kusctl watch [--json | --exec COMMAND] [--once]

Prints a line for each USB device that the service records or that goes away, until interrupted or
until nobody reads it any more. When the service ends, it says so, waits for it to come back and
goes on. On standard error it tells when it is registered: what happens from then on is told.

  --json          prints one object a line; its "event" is "added", "removed", "service-died" or
                  "service-back", its "device" has the fields of 'kusctl list --json'
  --exec COMMAND  runs COMMAND, a program without arguments, for each of these events instead of
                  printing it
  --once          ends after the first device that was added or removed

COMMAND is started by itself, without a shell. It finds the event in its environment: KUS_EVENT, and
of the device KUS_ID, KUS_NAME, KUS_VENDOR and so on, named like the fields of --json; KUS_CLASSES
has commas in it, control characters of a name are escaped as in the printed lines. Its standard
input is empty. It runs for one event after the other, in their order: while it runs, up to 1000
events wait, and what is beyond is lost, which is told on standard error. So is a COMMAND that
fails; the next event is handled all the same. With --once the exit status is 1 when it failed.

Input devices come and go without a notice. A device that is refused because it is left to the
input subsystem is never recorded, but its removal is told.
)";

// How often a service that is not there is looked for.
constexpr timespec kRetryInterval = {0, 100'000'000};

constexpr size_t kMostWaiting = 1000;

struct Event {
    const char* name;
    DeviceInfo device = {};

    bool added() const { return strcmp(name, "added") == 0; }
    bool aboutDevice() const { return added() || strcmp(name, "removed") == 0; }
};

// Of a removal the record is the platform's own: no decision is in it.
Json::Value toJson(const Event& event) {
    Json::Value value;
    value["event"] = event.name;
    if (event.aboutDevice()) {
        value["device"] = event.added() ? recordToJson(event.device) : identityToJson(event.device);
    }
    return value;
}

std::string toText(const Event& event) {
    if (strcmp(event.name, "service-died") == 0) {
        return "the service died: waiting for it to come back";
    }
    if (!event.aboutDevice()) return "the service is back";
    const DeviceInfo& device = event.device;
    const std::string identity =
        std::to_string(device.deviceId) + "  " + std::to_string(device.vendorId) + ":" +
        std::to_string(device.productId) + "  " + printable(device.deviceName);
    if (!event.added()) return "removed  " + identity;
    return "added    " + identity + "  " + base::Join(classNames(factsOf(device)), ',') + "  " +
           verdictText(device.status != 0) + ": " + printable(device.reason);
}

std::string toEnvironmentValue(const Json::Value& value) {
    if (!value.isArray()) return printable(value.asString());
    std::vector<std::string> items;
    for (const Json::Value& item : value) items.push_back(item.asString());
    return base::Join(items, ',');
}

/** This process' environment, and the event. */
std::vector<std::string> toEnvironment(const Event& event) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!base::StartsWith(*entry, "KUS_")) environment.push_back(*entry);
    }
    environment.push_back(std::string("KUS_EVENT=") + event.name);
    const Json::Value device = toJson(event)["device"];
    for (const std::string& field : device.getMemberNames()) {
        std::string name = field;
        for (char& c : name) c = toupper(static_cast<unsigned char>(c));
        environment.push_back("KUS_" + name + "=" + toEnvironmentValue(device[field]));
    }
    return environment;
}

/** The events that came, and what they come from. Used by one thread, which serves binder too. */
class Events {
  public:
    Events() : printer_(new Printer(this)), death_(new DeathNotice(this)) {}

    /** False when the service is not there. */
    bool registerAt(const sp<IKUsbService>& service) {
        service_ = IInterface::asBinder(service);
        died_ = false;
        registered_ = service != nullptr && service_->linkToDeath(death_) == OK &&
                      service->registerKusCallback(printer_).isOk();
        return registered_;
    }

    bool registered() const { return registered_; }
    bool died() const { return died_; }

    /** To be called when binder has nothing more for this process: what it told before is told. */
    void noteDeath() {
        if (!registered_ || !died_) return;
        registered_ = false;
        add({"service-died"});
    }

    void add(const Event& event) {
        if (waiting_.size() < kMostWaiting) {
            waiting_.push_back(event);
        } else {
            ++lost_;
        }
    }

    bool empty() const { return waiting_.empty(); }

    Event next() {
        if (lost_ > 0) note(std::to_string(std::exchange(lost_, 0)) + " events were lost");
        Event event = std::move(waiting_.front());
        waiting_.pop_front();
        return event;
    }

  private:
    class Printer : public BnKUsbServiceCallback {
      public:
        explicit Printer(Events* events) : events_(events) {}

      private:
        binder::Status onDeviceAdded(const DeviceInfo& device) override {
            events_->add({"added", device});
            return binder::Status::ok();
        }

        binder::Status onDeviceRemoved(const DeviceInfo& device) override {
            events_->add({"removed", device});
            return binder::Status::ok();
        }

        Events* events_;
    };

    class DeathNotice : public IBinder::DeathRecipient {
      public:
        explicit DeathNotice(Events* events) : events_(events) {}

      private:
        void binderDied(const wp<IBinder>& who) override {
            if (who.unsafe_get() == events_->service_.get()) events_->died_ = true;
        }

        Events* events_;
    };

    const sp<Printer> printer_;
    const sp<DeathNotice> death_;
    sp<IBinder> service_;
    std::deque<Event> waiting_;
    int lost_ = 0;
    bool registered_ = false;
    bool died_ = false;
};

/** Tells in errno why not. */
bool isProgram(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return false;
    errno = EACCES;  // as execve(2) has it of what is no file
    return S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

/** The path of a program that is named like a shell's command. */
std::string findProgram(const std::string& name) {
    const char* path = getenv("PATH");
    std::vector<std::string> candidates = {name};
    if (name.find('/') == std::string::npos) {
        candidates.clear();
        for (const std::string& directory : base::Split(path == nullptr ? "" : path, ":")) {
            candidates.push_back((directory.empty() ? "." : directory) + "/" + name);
        }
    }
    errno = ENOENT;
    for (const std::string& candidate : candidates) {
        if (isProgram(candidate)) return candidate;
    }
    fail("cannot run '" + name + "': " + strerror(errno));
}

/** The command that is run for each event, once at a time. */
class Runner {
  public:
    explicit Runner(const std::string& program) : program_(program) {
        // Its end interrupts a wait; posix_spawn(3) undoes both for the command.
        struct sigaction interrupt = {};
        interrupt.sa_handler = [](int) {};
        sigaction(SIGCHLD, &interrupt, nullptr);
        sigset_t childs;
        sigemptyset(&childs);
        sigaddset(&childs, SIGCHLD);
        sigprocmask(SIG_BLOCK, &childs, nullptr);
    }

    bool runs() {
        int status;
        if (pid_ == 0 || waitpid(pid_, &status, WNOHANG) == 0) return pid_ != 0;
        pid_ = 0;
        failed_ = status != 0;
        if (WIFSIGNALED(status)) {
            note(program_ + " was ended by signal " + std::to_string(WTERMSIG(status)));
        } else if (failed_) {
            note(program_ + " ended with status " + std::to_string(WEXITSTATUS(status)));
        }
        return false;
    }

    bool failed() const { return failed_; }

    void start(const Event& event) {
        std::vector<std::string> environment = toEnvironment(event);
        std::vector<char*> envp;
        for (std::string& entry : environment) envp.push_back(entry.data());
        envp.push_back(nullptr);
        char* const argv[] = {program_.data(), nullptr};

        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
        const int error =
            posix_spawn(&pid_, program_.c_str(), &files, &attributes, argv, envp.data());
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&files);
        if (error == 0) return;
        pid_ = 0;
        failed_ = true;
        note("cannot run " + program_ + ": " + strerror(error));
    }

  private:
    std::string program_;
    pid_t pid_ = 0;
    bool failed_ = false;
};

struct Options {
    bool json = false;
    bool once = false;
    std::string program;
};

Options parseArguments(int argc, char** argv) {
    Options options;
    parseOptions(argc, argv,
                 {{"json", &options.json},
                  {"exec", [&](const char* name) { options.program = findProgram(name); }},
                  {"once", &options.once}});
    expectNoArguments(argc, argv);
    if (options.json && !options.program.empty()) wrongUse("give --json or --exec, not both");
    return options;
}

void print(const Event& event, bool json) {
    puts((json ? jsonText(toJson(event), "") : toText(event)).c_str());
    if (fflush(stdout) != 0) fail("cannot write the output");
}

/** Waits, until a service that is not there is to be looked for again, and serves binder. */
void waitForEvents(int binder, bool printing, Events* events) {
    // A pipe or terminal that nobody reads reports it unasked. Of that there is nothing to say.
    pollfd fds[] = {{binder, POLLIN, 0}, {printing ? STDOUT_FILENO : -1, 0, 0}};
    constexpr timespec kNoTime = {};
    const timespec* wait = events->died() ? &kNoTime : nullptr;
    if (!events->registered()) wait = &kRetryInterval;
    sigset_t none;
    sigemptyset(&none);
    if (ppoll(fds, 2, wait, &none) < 0) return;
    if (fds[1].revents != 0) exit(kNoOrFailed);
    if (fds[0].revents != 0) {
        IPCThreadState::self()->handlePolledCommands();
    } else {
        events->noteDeath();
    }
}

int run(int argc, char** argv) {
    const Options options = parseArguments(argc, argv);
    const bool printing = options.program.empty();

    const sp<IKUsbService> service = connectToService();
    Events events;
    int binder;
    ProcessState::self()->setThreadPoolMaxThreadCount(0);
    IPCThreadState::self()->setupPolling(&binder);
    if (!events.registerAt(service)) fail("the service has just died: try again");
    note("registered");
    Runner runner(options.program);
    for (bool last = false;;) {
        while (!runner.runs() && !last && !events.empty()) {
            const Event event = events.next();
            last = options.once && event.aboutDevice();
            if (printing) {
                print(event, options.json);
            } else {
                runner.start(event);
            }
        }
        if (last && !runner.runs()) return runner.failed() ? kNoOrFailed : kYes;
        if (!events.registered()) expectServiceManager();
        if (!events.registered() && events.registerAt(findService())) {
            events.add({"service-back"});
        } else {
            waitForEvents(binder, printing, &events);
        }
    }
}

}  // namespace

const Command kWatchCommand = {"watch", "additions and removals as they happen", kHelp, run};

}  // namespace android::kus
