// qvol: builds, looks into and changes FAT16 and FAT32 volumes from the command line.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"

#include <csignal>

int main(int argc, char **argv) {
    std::signal(SIGXFSZ, SIG_IGN); // a write beyond the limit on file sizes fails, and is told
    qvol::command_line commands;
    for (const auto add : qvol::ALL_COMMANDS) {
        add(&commands);
    }
    return commands.run(argc, argv);
}
