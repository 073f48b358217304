// qvol: builds, inspects and changes FAT volumes from the command line.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

namespace {

// If a standard stream is closed at the start, the image would get its descriptor, and output would
// be written into the image. A descriptor opened with O_PATH occupies the number and refuses every
// transfer, as a closed one does; "/" exists even without /dev. Lower numbers are in use already,
// so open() returns this one.
bool occupy_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        if (fcntl(fd, F_GETFD) < 0 && open("/", O_PATH | O_CLOEXEC) != fd) {
            std::perror("qvol: cannot occupy the descriptor of a closed standard stream");
            return false;
        }
    }
    return true;
}

// Adds the command that the first argument names, or all commands: the help and the error messages
// list them. Declaring all of them takes longer than most commands run.
void add_commands(qvol::command_line *commands, std::string_view first) {
    for (const auto &[name, add] : qvol::ALL_COMMANDS) {
        if (first == name) {
            add(commands);
            return;
        }
    }
    for (const qvol::command_entry &command : qvol::ALL_COMMANDS) {
        command.add(commands);
    }
}

int run(int argc, char **argv) {
    qvol::command_line commands;
    add_commands(&commands, argc > 1 ? argv[1] : "");
    return commands.run(argc, argv);
}

} // namespace

int main(int argc, char **argv) {
    std::signal(SIGXFSZ, SIG_IGN); // a write past the file size limit fails with EFBIG
    if (!occupy_standard_descriptors()) {
        return qvol::EXIT_FAILED;
    }
    try {
        return run(argc, argv);
    } catch (const std::exception &failure) { // reporting an error failed, too
        std::fprintf(stderr, "qvol: unexpected error: %s\n", failure.what());
    } catch (...) {
        std::fputs("qvol: unexpected error\n", stderr);
    }
    return qvol::EXIT_FAILED;
}
