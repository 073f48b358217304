// Runs a program and captures its output.

#pragma once

#include <cstdlib>
#include <iomanip>
#include <ostream>
#include <string>
#include <vector>

namespace testing_support {

struct outcome {
    int status = -1; // exit status, or 128 + the signal that ended it
    std::string out; // standard output
    std::string err; // standard error

    bool operator==(const outcome &) const = default;
};

inline std::ostream &operator<<(std::ostream &stream, const outcome &o) {
    return stream << "status " << o.status << ", out " << std::quoted(o.out) << ", err "
                  << std::quoted(o.err);
}

// The program under test: the one that was built with this test, or the one that QUORVEL_TOOL
// names.
inline const char *tool_path() {
    const char *chosen = std::getenv("QUORVEL_TOOL");
    return chosen != nullptr ? chosen : QUORVEL_BUILT_TOOL;
}

// Whether QUORVEL_TOOL names another program, one built with sanitizers.
inline bool is_sanitized_tool() {
    return QUORVEL_SANITIZED || std::getenv("QUORVEL_TOOL") != nullptr;
}

// Runs arguments[0] (found through PATH and the system directories) with standard input from
// /dev/null and messages in English.
outcome run(const std::vector<std::string> &arguments);

// Runs a shell command line; further arguments become $1, $2, ...
outcome shell(const std::string &command, const std::vector<std::string> &arguments = {});

// The same in a mount namespace of its own, where mounts end with the command.
outcome shell_with_private_mounts(const std::string &command,
                                  const std::vector<std::string> &arguments = {});

// Whether this user may have such a namespace and mount in it.
bool can_mount_privately();

// Whether a program can be found through PATH or in the system directories.
bool has_program(const std::string &name);

} // namespace testing_support
