// SPDX-License-Identifier: Apache-2.0
#include "gate/device_table.h"

#include <algorithm>
#include <utility>

namespace android::kus {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kFirstPause(100);
constexpr milliseconds kLongestPause(10000);

}  // namespace

void DeviceTable::add(const Pointer& device) {
    const std::lock_guard guard(lock_);
    Entry& entry = entries_[device->name];
    if (entry.device == nullptr) entry.device = device;
    entry.pause = {};
    entry.notBefore = {};
    changed_.notify_one();
}

void DeviceTable::remove(const std::string& name) {
    const std::lock_guard guard(lock_);
    const auto entry = entries_.find(name);
    if (entry == entries_.end()) return;
    if (entry->second.asked) removed_.push_back(*entry->second.asked);
    entries_.erase(entry);
    changed_.notify_one();
}

bool DeviceTable::has(const std::string& name) {
    const std::lock_guard guard(lock_);
    return entries_.count(name) != 0;
}

std::vector<DeviceTable::Pointer> DeviceTable::devices() {
    const std::lock_guard guard(lock_);
    std::vector<Pointer> devices;
    for (const auto& [name, entry] : entries_) devices.push_back(entry.device);
    return devices;
}

void DeviceTable::decideAgain() {
    const std::lock_guard guard(lock_);
    for (auto& [name, entry] : entries_) entry.decided = false;
    changed_.notify_one();
}

DeviceTable::Task DeviceTable::nextTask() {
    std::unique_lock guard(lock_);
    while (true) {
        if (std::exchange(woken_, false)) return {};
        if (!removed_.empty()) {
            const Task task = {removed_.front(), nullptr};
            removed_.erase(removed_.begin());
            return task;
        }
        const Entry* next = nullptr;
        for (const auto& [name, entry] : entries_) {
            if (entry.decided) continue;
            if (next == nullptr || entry.notBefore < next->notBefore) next = &entry;
        }
        if (next == nullptr) {
            changed_.wait(guard);
        } else if (const auto time = next->notBefore; time > Clock::now()) {
            changed_.wait_until(guard, time);
        } else {
            return {std::nullopt, next->device};
        }
    }
}

DeviceTable::Entry* DeviceTable::find(const Pointer& device) {
    const auto entry = entries_.find(device->name);
    return entry != entries_.end() && entry->second.device == device ? &entry->second : nullptr;
}

bool DeviceTable::isToBeAskedAbout(const Pointer& device, const DeviceInfo& info) {
    const std::lock_guard guard(lock_);
    Entry* const entry = find(device);
    if (entry == nullptr) return false;
    entry->asked = info;
    return true;
}

void DeviceTable::setDecided(const Pointer& device) {
    const std::lock_guard guard(lock_);
    if (Entry* const entry = find(device)) entry->decided = true;
}

void DeviceTable::postpone(const Pointer& device) {
    const std::lock_guard guard(lock_);
    Entry* const entry = find(device);
    if (entry == nullptr) return;
    entry->pause = std::clamp(entry->pause * 2, kFirstPause, kLongestPause);
    entry->notBefore = Clock::now() + entry->pause;
}

void DeviceTable::startAgain() {
    const std::lock_guard guard(lock_);
    removed_.clear();
    for (auto& [name, entry] : entries_) entry = Entry{entry.device};
}

void DeviceTable::wake() {
    const std::lock_guard guard(lock_);
    woken_ = true;
    changed_.notify_one();
}

}  // namespace android::kus
