// SPDX-License-Identifier: Apache-2.0
#include "process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <thread>
#include <utility>

namespace android::kus {

bool eventually(const std::function<bool()>& condition, std::chrono::seconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        // A look takes the emulated processor from what it waits for.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return true;
}

// Not VmRSS, which is inaccurate (proc(5)): the kernel adds up a thread's pages in batches.
long residentKilobytes(pid_t pid) {
    std::ifstream rollup("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string line; std::getline(rollup, line);) {
        if (line.rfind("Rss:", 0) == 0) return std::stol(line.substr(strlen("Rss:")));
    }
    return -1;
}

Process::Process(std::vector<std::string> command) {
    int output[2], input[2];
    EXPECT_EQ(pipe2(output, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(input, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    std::vector<char*> argv;
    for (std::string& argument : command) argv.push_back(argument.data());
    argv.push_back(nullptr);
    EXPECT_EQ(posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ), 0) << argv[0];
    posix_spawn_file_actions_destroy(&actions);
    close(output[1]);
    close(input[0]);
    output_ = output[0];
    input_ = input[1];
}

Process::~Process() {
    if (pid_ != 0) {
        kill(SIGKILL);
        exitStatus();
    }
    close(output_);
    close(input_);
}

std::string Process::line(int timeoutMs) {
    std::string line;
    pollfd readable = {output_, POLLIN, 0};
    char c;
    while (poll(&readable, 1, timeoutMs) > 0 && read(output_, &c, 1) == 1 && c != '\n') line += c;
    return line;
}

void Process::tell(const std::string& line) {
    const std::string text = line + '\n';
    EXPECT_EQ(write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void Process::kill(int signal) { ::kill(pid_, signal); }

bool Process::ends(std::chrono::seconds timeout) const {
    return eventually(
        [&] {
            siginfo_t info = {};
            waitid(P_PID, pid_, &info, WEXITED | WNOHANG | WNOWAIT);
            return info.si_pid == pid_;
        },
        timeout);
}

int Process::exitStatus() {
    int status = 0;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    pid_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace android::kus
