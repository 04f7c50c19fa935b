// SPDX-License-Identifier: Apache-2.0
#include "kusctl_run.h"

#include <android-base/file.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

using android::base::ReadFileToString;
using android::base::WriteStringToFile;

std::ostream& operator<<(std::ostream& stream, const Result& result) {
    return stream << "status " << result.status << "\nout:\n"
                  << result.out << "err:\n"
                  << result.err;
}

Result runKusctl(const std::string& directory, const std::vector<std::string>& arguments) {
    const TemporaryFile out, err;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
    posix_spawn_file_actions_adddup2(&actions, out.fd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.fd, STDERR_FILENO);
    std::vector<std::string> command = {KUSCTL_PATH};
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : command) argv.push_back(argument.data());
    argv.push_back(nullptr);

    pid_t pid;
    EXPECT_EQ(posix_spawn(&pid, KUSCTL_PATH, &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);

    Result result = {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), "", ""};
    EXPECT_TRUE(ReadFileToString(out.path, &result.out));
    EXPECT_TRUE(ReadFileToString(err.path, &result.err));
    return result;
}

void RulesFolder::write(const std::string& name, const std::string& content) const {
    ASSERT_TRUE(WriteStringToFile(content, path() + "/" + name));
}

Result RulesFolder::run(const std::vector<std::string>& arguments) const {
    return runKusctl(path(), arguments);
}

std::string wrongUseText(const std::string& program, const std::string& message) {
    return program + ": " + message + " (see '" + program + " --help')\n";
}
