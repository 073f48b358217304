// qvol: builds, looks into and changes FAT16 and FAT32 volumes from the command line.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"

#include <csignal>

int main(int argc, char **argv) {
    std::signal(SIGXFSZ, SIG_IGN); // a write beyond the limit on file sizes fails, and is told
    qvol::command_line commands;
    qvol::add_build(&commands);
    qvol::add_info(&commands);
    qvol::add_ls(&commands);
    qvol::add_tree(&commands);
    qvol::add_stat(&commands);
    qvol::add_cat(&commands);
    qvol::add_get(&commands);
    qvol::add_put(&commands);
    qvol::add_mkdir(&commands);
    qvol::add_mv(&commands);
    qvol::add_ln(&commands);
    qvol::add_rm(&commands);
    qvol::add_pool(&commands);
    qvol::add_log(&commands);
    qvol::add_fastpath(&commands);
    qvol::add_owner(&commands);
    qvol::add_dump(&commands);
    qvol::add_map(&commands);
    qvol::add_check(&commands);
    qvol::add_mirror(&commands);
    qvol::add_compact(&commands);
    return commands.run(argc, argv);
}
