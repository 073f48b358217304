// Formats an image and writes to it, always in the same way: a build of this program for another
// machine must write the same bytes.
//
//   image_writer IMAGE SIZE-IN-MIB FAT-WIDTH SECTOR-SIZE SECTORS-PER-CLUSTER
//
// The image is sparse. The program also writes to its second half, so that large images are written
// beyond 2 GiB and 4 GiB.

#include "fat/fat.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr time_t MOMENT = 1'700'000'000; // 2023-11-14 22:13:20 UTC

time_t fixed_clock(time_t *out) {
    if (out != nullptr) {
        *out = MOMENT;
    }
    return MOMENT;
}

void check(bool done, const char *what) {
    if (!done) {
        std::fprintf(stderr, "image_writer: %s\n", what);
        std::exit(1);
    }
}

void make_image(const char *path, std::uint64_t bytes) {
    const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0600);
    check(fd >= 0 && ftruncate(fd, static_cast<off_t>(bytes)) == 0, path);
    close(fd);
}

void append(const std::string &name, std::uint32_t bytes) {
    std::vector<unsigned char> data(bytes);
    std::uint32_t state = bytes;
    for (unsigned char &byte : data) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<unsigned char>(state >> 24);
    }
    const int id = fat_create_file(name.c_str());
    check(id > 0, name.c_str());
    check(fat_write_file(id, data.data(), bytes) == static_cast<int>(bytes), name.c_str());
    fat_close(id);
}

void fill_directory() {
    const int directory = fat_mkdir("A directory with a long name");
    check(directory > 0 && fat_set_current(directory) > 0, "directory");
    for (std::uint32_t i = 0; i < 40; i++) {
        append("Some picture number " + std::to_string(i) + ".jpeg", 1 + i * 777);
    }
    check(fat_unlink("Some picture number 7.jpeg") > 0, "unlink");
    check(fat_set_current(0) == 0, "root");
    fat_close(directory);
}

} // namespace

int main(int argc, char **argv) {
    check(argc == 6, "usage: image_writer IMAGE MIB WIDTH SECTOR CLUSTER");
    const std::uint64_t mebibytes = std::strtoull(argv[2], nullptr, 10);
    make_image(argv[1], mebibytes << 20);
    setenv("TZ", "UTC0", 1);
    fat_clock = fixed_clock;
    fat_set_diagnostics(nullptr);

    fat_format_param request = {};
    request.fat_size = static_cast<std::uint32_t>(std::atoi(argv[3]));
    request.sector_size = static_cast<std::uint32_t>(std::atoi(argv[4]));
    request.sec_per_clus = static_cast<std::uint32_t>(std::atoi(argv[5]));
    request.volume_id = 0x1234ABCD;
    std::strcpy(request.volume_label, "SAME BYTES ");
    check(check_format_param(&request) == 0, "request");
    check(fat_open_volume(argv[1], 1, 0) >= 0, "opening");
    check(fat_format(&request) >= 0, "formatting");
    check(fat_build_super() == 0, "mounting");

    check(zuq_make_pool() == 0 && zuq_make_log() == 0, "reserved files");
    append("README.TXT", 5000);
    append("Size of the volume.txt", 100'000);
    check(fat_create_symlink("README.TXT", "a link") == 0, "link");
    fill_directory();
    sv->last_alloc_clus = sv->num_clusters / 2;
    append("in the second half", 300'000);
    sv->last_alloc_clus = sv->num_clusters - 10;
    append("at the end, and from the beginning again", 1'000'000);
    check(fat_close_volume(0) == 0, "closing");
    return 0;
}
