// Counts the page programs of a flash: a volume on a RAM disk that programs whole pages and counts
// how often each is programmed.
//
//   flash_model PAGE-SIZE ALIGNMENT
//
// Formats the medium with areas aligned to ALIGNMENT bytes (0: not aligned), writes 200 files and
// prints the page programs of each area. Try "8192 0" and "8192 8192".

#include <fat/fat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

constexpr std::uint64_t MEDIUM_BYTES = 32 << 20;
constexpr int FILES = 200;

std::vector<std::uint8_t> medium(MEDIUM_BYTES);
std::vector<unsigned> programs; // of each page
std::uint64_t page_bytes;

// The library counts in sectors of the volume, or in units of 4096 bytes before it knows their
// size.
std::uint64_t sector_bytes() {
    return sv->sector_size != 0 ? sv->sector_size : 4096;
}

int read_medium(void *buffer, std::uint64_t sector, std::uint32_t count) {
    if ((sector + count) * sector_bytes() > MEDIUM_BYTES) {
        return -EIO;
    }
    std::memcpy(buffer, medium.data() + sector * sector_bytes(), count * sector_bytes());
    return static_cast<int>(count);
}

// A write programs each page that it touches once, even if only one sector of it changes.
int write_medium(void *buffer, std::uint64_t sector, std::uint32_t count) {
    const std::uint64_t begin = sector * sector_bytes();
    const std::uint64_t end = begin + count * sector_bytes();
    if (end > MEDIUM_BYTES) {
        return -EIO;
    }
    std::memcpy(medium.data() + begin, buffer, end - begin);
    for (std::uint64_t page = begin / page_bytes; page * page_bytes < end; page++) {
        programs[page]++;
    }
    return static_cast<int>(count);
}

// The library must open a file or a device to learn the size. So it opens a sparse temporary file
// of the size of the medium; then the transfers are replaced.
bool open_medium() {
    std::string path = "/tmp/flash_model-XXXXXX";
    const int fd = mkstemp(path.data());
    const bool opened = fd >= 0 && ftruncate(fd, static_cast<off_t>(MEDIUM_BYTES)) == 0 &&
                        fat_open_volume(path.c_str(), 1, 0) >= 0;
    if (fd >= 0) {
        close(fd);
        unlink(path.c_str());
    }
    read_sectors = read_medium;
    write_sectors = write_medium;
    return opened;
}

bool format(std::uint32_t alignment) {
    fat_format_param request = {};
    request.sector_size = 512;
    request.sec_per_clus = 8;
    request.page_size = alignment;
    fat_page_size_given = 1; // an alignment of 0 gets no default
    return check_format_param(&request) == 0 && fat_format(&request) > 0 && fat_build_super() == 0;
}

bool write_files() {
    const std::vector<std::uint8_t> content(8192, 0x5A); // two clusters
    for (int i = 0; i < FILES; i++) {
        const int id = fat_create_file(("LOG" + std::to_string(i) + ".DAT").c_str());
        if (id < 0 || fat_write_file(id, content.data(), 8192) != 8192) {
            return false;
        }
        fat_close(id);
    }
    return true;
}

// A page that two areas share counts for both. Alignment avoids such pages.
void print_area(const char *name, std::uint64_t first_sector, std::uint64_t end_sector) {
    const std::uint64_t first = first_sector * sector_bytes() / page_bytes;
    const std::uint64_t end = (end_sector * sector_bytes() + page_bytes - 1) / page_bytes;
    std::uint64_t sum = 0;
    unsigned most = 0;
    for (std::uint64_t page = first; page < end; page++) {
        sum += programs[page];
        most = std::max(most, programs[page]);
    }
    std::printf("%-10s %6llu pages %8llu programs, at most %u of one page\n", name,
                static_cast<unsigned long long>(end - first), static_cast<unsigned long long>(sum),
                most);
}

void print_programs() {
    print_area("FAT 0", sv->fat_start, sv->fat_start + sv->fat_size);
    print_area("root", sv->rdir_start, sv->data_start);
    print_area("data", sv->data_start, sv->total_sectors);
    print_area("volume", 0, sv->total_sectors);
}

} // namespace

int main(int argc, char **argv) {
    page_bytes = argc == 3 ? std::strtoull(argv[1], nullptr, 10) : 0;
    if (page_bytes < 512 || page_bytes > 65536) {
        std::fprintf(stderr, "usage: %s PAGE-SIZE ALIGNMENT\n", argv[0]);
        return 2;
    }
    programs.resize(MEDIUM_BYTES / page_bytes + 1);
    fat_set_diagnostics(nullptr); // the results are sufficient here
    const bool opened = open_medium();
    if (!opened || !format(static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, 10)))) {
        std::fprintf(stderr, "cannot format the medium\n");
        return 1;
    }
    std::fill(programs.begin(), programs.end(), 0); // formatting does not count
    const bool written = write_files();
    print_programs();
    fat_close_volume(0);
    return written ? 0 : 1;
}
