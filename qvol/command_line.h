// The command line: what all commands have in common, and which one was chosen.

#pragma once

#include "qvol/output.h"

#include <functional>
#include <string>

#include <CLI/CLI.hpp>

namespace qvol {

// Options that every command takes, and the image.
struct common_options {
    std::string image;
    std::string encoding = "UTF-8";
    output out;
};

// What a command is told about itself.
struct command_text {
    const char *name;
    const char *summary;
    const char *examples; // lines, shown below its options
};

class command_line {
public:
    command_line();

    // Adds a command with the common options and IMAGE. The caller adds its own to what is
    // returned. `run` does the work; it returns the exit status.
    CLI::App *add(const command_text &text, std::function<int(const common_options &)> run);

    // Parses and runs. Returns the exit status of the program.
    int run(int argc, char **argv);

private:
    CLI::App app_;
    common_options common_;
    std::function<int(const common_options &)> chosen_;
};

inline constexpr int EXIT_DONE = 0;
inline constexpr int EXIT_FAILED = 1;
inline constexpr int EXIT_USAGE = 2;

// A command that works on a mounted volume. What it changes is finished, and synchronised, before
// the function returns; the output is.
int with_volume(const common_options &common, access wanted,
                const std::function<int(volume &vol)> &work);

} // namespace qvol
