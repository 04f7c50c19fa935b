// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android/kus/IKUsbService.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "process.h"

namespace android::kus {

using namespace std::chrono_literals;

/** Runs a shell command and returns what it prints, without the last line feed. Must succeed. */
std::string shell(const std::string& command);

/** Whether the long random runs are wanted in full: KUS_FULL_RUN is set. */
bool fullRun();

/** The content of a file without white space around it; empty when it cannot be read. */
std::string contentOf(const std::string& path);

/** Writes a file in one go, as an administrator's tool would. */
void writeFile(const std::string& path, const std::string& content);

/** A rules file's text with this mode and these elements. */
std::string rulesText(const std::string& mode, const std::string& rules);

/** Counts the parses of rewrites since the device's start. */
int parses();

/** The service; waits for it when it is not there, or was lost. */
sp<IKUsbService> service();

/** The recorded device with this id, or with this name; an empty record when there is none. */
DeviceInfo recorded(int id);
DeviceInfo recorded(const std::string& name);

/** Asks the service about a device that is not there, with interfaces of these classes. */
bool isAllowed(const std::vector<int>& interfaceClasses);

/** A rules file that differs from all others made here in its text and in its decisions. */
struct Rules {
    /** In turn a whitelist and a blacklist. */
    static Rules next();
    /** Writes the next ones and waits until they are accepted. */
    static Rules rewrite();
    bool areInForce() const;
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
    int id() const;
    /** The service's record of its present enumeration, waited for. */
    DeviceInfo decision() const;
    /** Driver and `authorized` of an interface, such as "usb-storage 1", " 0" without a driver. */
    std::string interfaceState(int number) const;

  private:
    std::string name_;
    std::string entry_;
};

/** While it lives no one but the test asks the daemon about devices. */
class NoGate {
  public:
    NoGate() { shell("services stop kusgate"); }
    ~NoGate() { shell("services start kusgate"); }
};

/** Block devices of USB sticks. */
std::vector<std::string> sticks();

/** Records what is written to the host controllers' role attributes. */
class RoleWatch {
  public:
    RoleWatch();
    ~RoleWatch();
    /** Waits for this many writes, and a little longer for ones too many: "hsusb none", … */
    std::vector<std::string> writes(size_t expected);

  private:
    void record();

    int fd_;
    int hsusb_;
    std::atomic<bool> done_ = false;
    std::mutex lock_;
    std::vector<std::string> writes_;
    std::thread thread_;
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

/** What a reset of both controllers writes. */
std::vector<std::string> oneToggle();

/** Starts with the default rules in force and without a plugged device. */
class DeviceTest : public testing::Test {
  protected:
    void SetUp() override;
    /** Rewrites the rules file and waits until the rules are in force and the controllers back. */
    void setRules(const std::string& mode, const std::string& rules);
};

}  // namespace android::kus
