// qvol: builds, looks into and changes FAT16 and FAT32 volumes from the command line.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"

#include <csignal>
#include <cstdio>
#include <exception>

#include <fcntl.h>
#include <unistd.h>

namespace {

// A program started with a standard stream closed would open the image in its place and write its
// output into the image. A descriptor opened with O_PATH takes the number and refuses every
// transfer, as a closed one does; "/" is there without /dev. Lower numbers are taken already, so
// that open() returns this one.
bool occupy_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        if (fcntl(fd, F_GETFD) < 0 && open("/", O_PATH | O_CLOEXEC) != fd) {
            std::perror("qvol: cannot open a standard stream that is closed");
            return false;
        }
    }
    return true;
}

int run(int argc, char **argv) {
    qvol::command_line commands;
    for (const auto add : qvol::ALL_COMMANDS) {
        add(&commands);
    }
    return commands.run(argc, argv);
}

} // namespace

int main(int argc, char **argv) {
    std::signal(SIGXFSZ, SIG_IGN); // a write beyond the limit on file sizes fails, and is told
    if (!occupy_standard_descriptors()) {
        return qvol::EXIT_FAILED;
    }
    try {
        return run(argc, argv);
    } catch (const std::exception &failure) { // not even the report of a failure succeeded
        std::fprintf(stderr, "qvol: unexpected failure: %s\n", failure.what());
    } catch (...) {
        std::fputs("qvol: unexpected failure\n", stderr);
    }
    return qvol::EXIT_FAILED;
}
