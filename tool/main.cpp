// quorvel: formats a block device or an image file as FAT16 or FAT32.

#include "fat/fat.h"
#include "tool/options.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int EXIT_FAILED = -1; // exit status 255

// If quorvel starts with a standard stream closed, the target would get its descriptor, and the
// result line would be written into the target. A descriptor opened with O_PATH takes the number
// and refuses every transfer, as a closed one does; "/" exists without /dev. The loop opens the
// lowest descriptors first, so that open() returns the closed one.
bool occupy_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        if (fcntl(fd, F_GETFD) < 0 && open("/", O_PATH | O_CLOEXEC) != fd) {
            std::fprintf(stderr, "/: %s\n", std::strerror(errno));
            return false;
        }
    }
    return true;
}

bool sync_target(const char *path) {
    if (fsync(sv->fd) == 0) {
        return true;
    }
    std::fprintf(stderr, "%s: %s\n", path, std::strerror(errno));
    return false;
}

bool format_open_volume(fat_format_param *param) {
    return fat_format(param) >= 0 && sync_target(param->outfile);
}

bool format_target(fat_format_param *param) {
    if (fat_open_volume(param->outfile, param->long_name, 0) < 0) {
        return false;
    }
    const bool formatted = format_open_volume(param);
    if (formatted && quorvel::verbose_count != 0) {
        print_volume_summary(stdout);
    }
    fat_close_volume(0);
    return formatted;
}

} // namespace

int main(int argc, char **argv) {
    std::signal(SIGXFSZ, SIG_IGN); // a write beyond the file size limit fails with a diagnostic
    fat_format_param param = {};
    if (!occupy_standard_descriptors() || quorvel::parse_options(argc, argv, &param) < 0 ||
        check_format_param(&param) < 0) {
        return EXIT_FAILED;
    }
    const bool formatted = format_target(&param);
    std::puts(formatted ? "Success to format" : "Fail to format");
    return formatted ? 0 : EXIT_FAILED;
}
