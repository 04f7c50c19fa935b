// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android/kus/IKUsbService.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "process.h"

namespace android::kus {

using namespace std::chrono_literals;
using testing::AllOf, testing::Each, testing::ElementsAre, testing::ElementsAreArray,
    testing::EndsWith, testing::HasSubstr, testing::IsEmpty, testing::Ne, testing::Not,
    testing::Pointwise, testing::SizeIs, testing::StartsWith, testing::UnorderedElementsAreArray;
using Texts = std::vector<std::string>;

/** Runs a shell command and returns what it prints, without the last line feed. Must succeed. */
std::string shell(const std::string& command);

/** The content of a file without white space around it; empty when it cannot be read. */
std::string contentOf(const std::string& path);

/** Writes a file in one go, as an administrator's tool would. */
void writeFile(const std::string& path, const std::string& content);

/** A rules file's text with this mode and these elements. */
std::string rulesText(const std::string& mode, const std::string& rules);

/** Whether the daemon is through with the last rewrite, a good one, and with the reset after it. */
bool isSettled();

/** The service; waits for it when it is not there, or was lost. */
sp<IKUsbService> service();

/** The recorded device with this id, or with this name; an empty record when there is none. */
DeviceInfo recorded(int id);
DeviceInfo recorded(const std::string& name);

/** Asks the service about a device that is not there, with interfaces of these classes. */
bool isAllowed(const std::vector<int>& interfaceClasses, int vendor = 1);

/** A rules file that differs from all others made here in its text and in its decisions. */
struct Rules {
    /** In turn a whitelist and a blacklist. */
    static Rules next();
    /** Writes the next ones and waits until they are accepted. */
    static Rules rewrite();
    /** Whether they are in force and all three files say so. */
    bool areAccepted() const;

    std::string text;
    int vendor = 0;
    bool whitelist = false;
};

/** Pid of the running daemon; 0 while there is none. */
pid_t daemonPid();

/** Waits until the daemon is there and watches the rules file. */
void awaitDaemon();

/** Id of the present enumeration of a sysfs entry, such as 4-1; 0 while there is none. */
int idOf(const std::string& entry);

/**
 * Driver and `authorized`, such as "usb-storage 1", or " 0" without a driver, of each interface
 * that a sysfs entry has, by number.
 */
std::vector<std::string> statesOf(const std::string& entry);

/** Options of plug: a stick, a serial adapter, and a keyboard that comes as "Virtual NAME". */
constexpr char kStick[] = "--vendor 2385 --product 5734 --storage";
constexpr char kSerial[] = "--vendor 1155 --product 22336 --serial";
constexpr char kKeyboard[] = "--vendor 1241 --product 5635 --keyboard";

/** A USB device that stays attached for as long as this lives. */
class Plugged {
  public:
    /** `options` are those of plug: ids and functions. */
    Plugged(const std::string& name, const std::string& options);
    ~Plugged();
    Plugged(const Plugged&) = delete;

    void replug();
    /** Its sysfs entry, such as 4-1. */
    const std::string& entry() const { return entry_; }
    /** The id of its present enumeration; 0 while it is away. */
    int id() const { return idOf(entry_); }
    /** The service's record of its present enumeration, waited for. */
    DeviceInfo decision() const;
    /** Waits until each of its interfaces is in this state; says which is not. */
    void expectState(const std::string& state) const;

  private:
    std::string name_;
    std::string entry_;
};

/** How many block devices USB sticks have. */
int sticks();

/** Keeps a process from running for as long as it lives. */
class Stopped {
  public:
    explicit Stopped(pid_t pid) : pid_(pid) { kill(pid_, SIGSTOP); }
    ~Stopped() { kill(pid_, SIGCONT); }
    Stopped(const Stopped&) = delete;

  private:
    const pid_t pid_;
};

/** Does something again and again, for as long as this lives. */
class Again {
  public:
    Again(std::chrono::milliseconds pause, std::function<void()> action)
        : thread_([=] {
              for (; !done_; std::this_thread::sleep_for(pause)) action();
          }) {}
    ~Again() {
        done_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> done_ = false;
    std::thread thread_;
};

/** Starts with the default rules in force and without a plugged device. */
class DeviceTest : public testing::Test {
  protected:
    void SetUp() override;
    /** Rewrites the rules file and waits until the rules are in force and the controllers back. */
    void setRules(const std::string& mode, const std::string& rules);
};

}  // namespace android::kus
