// Running a program and keeping what it says.

#pragma once

#include <string>
#include <vector>

namespace testing_support {

struct outcome {
    int status = -1; // exit status, or 128 + the signal that ended it
    std::string out; // standard output
    std::string err; // standard error
};

// Runs arguments[0] (found through PATH) with standard input from /dev/null.
outcome run(const std::vector<std::string> &arguments);

// Runs a shell command line.
outcome shell(const std::string &command);

// Whether a program can be found through PATH or in the system directories.
bool has_program(const std::string &name);

} // namespace testing_support
