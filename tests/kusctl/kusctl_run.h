// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android-base/file.h>

#include <ostream>
#include <string>
#include <vector>

struct Result {
    /** Exit status, or minus the signal that ended it. */
    int status;
    std::string out;
    std::string err;

    bool operator==(const Result& other) const {
        return status == other.status && out == other.out && err == other.err;
    }
};

std::ostream& operator<<(std::ostream& stream, const Result& result);

/** Runs kusctl as a process, in the given directory. */
Result runKusctl(const std::string& directory, const std::vector<std::string>& arguments);

/** A folder of rules files of its own, in which kusctl runs. */
class RulesFolder {
  public:
    void write(const std::string& name, const std::string& content) const;
    Result run(const std::vector<std::string>& arguments) const;
    std::string path() const { return directory_.path; }

  private:
    TemporaryDir directory_;
};

/** "kusctl COMMAND: MESSAGE (see 'kusctl COMMAND --help')" and a line end. */
std::string wrongUseText(const std::string& program, const std::string& message);
