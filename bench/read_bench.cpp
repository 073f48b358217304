// Reading volumes that mkfs.fat and mcopy made: qvol get, compared with mcopy -s; qvol ls -R with
// mdir -/ -b; qvol check with fsck.fat -n.
//
// usage: read_bench QVOL DIRECTORY [ROUNDS [ROW...]]
//
// The rows:
//
//   get-20000        20,000 files whose names differ early in 100 directories
//   get-large        one file of 1 GiB
//   ls-20000         the files of get-20000
//   check-empty      an empty volume of 256 GiB
//   check-20000      a volume of 256 GiB with the files of get-20000
//   check-full       a volume of 256 GiB that is full of files of nearly 4 GiB
//
// Nothing is synced, and every program finds the image in the page cache. Prints the median times,
// their ratio, and the peak of the resident memory of each program.

#include "bench/timing.h"
#include "bench/trees.h"

namespace {

using bench::contestant;
using bench::step;

struct environment {
    std::string qvol;
    std::filesystem::path base;

    [[nodiscard]] std::string image() const {
        return base / "read.img";
    }
    [[nodiscard]] std::string tree() const {
        return base / "tree";
    }
    [[nodiscard]] std::string copy() const {
        return base / "copy";
    }
};

// ---- programs ----

using command = std::vector<std::string>;

struct rivals {
    command qvol;
    command other;
};

rivals get_all(const environment &where) {
    return {{where.qvol, "get", where.image(), "/", where.copy()},
            {"mcopy", "-s", "-i", where.image(), "::*", where.copy()}};
}

rivals list_all(const environment &where) {
    return {{where.qvol, "ls", "-R", where.image()},
            {"mdir", "-/", "-b", "-i", where.image(), "::"}};
}

rivals check(const environment &where) {
    return {{where.qvol, "check", where.image()}, {"fsck.fat", "-n", where.image()}};
}

// ---- rows ----

constexpr bench::file_tree NOTHING = {-1, 1, nullptr};
constexpr bench::file_tree FULL = {-2, 1, nullptr};
constexpr bench::file_tree SMALL_FILES = {20000, 100, bench::varied_name};
constexpr bench::file_tree LARGE_FILE = {0, 1, nullptr};

struct row {
    const char *name;
    const char *size; // of the volume
    bench::file_tree tree;
    rivals (*programs)(const environment &where);
};
constexpr row ROWS[] = {
    {"get-20000", "1200M", SMALL_FILES, get_all}, {"get-large", "1200M", LARGE_FILE, get_all},
    {"ls-20000", "1200M", SMALL_FILES, list_all}, {"check-empty", "256G", NOTHING, check},
    {"check-20000", "256G", SMALL_FILES, check},  {"check-full", "256G", FULL, check},
};

// ---- a full volume ----

constexpr std::uint32_t FILE_BYTES = 0xFFFF0000;
constexpr std::uint32_t END_OF_CHAIN = 0x0FFFFFFF;
constexpr std::uint32_t FIRST_OF_FILES = 3; // the root directory is in cluster 2

// A little-endian number of `size` bytes.
void store(char *bytes, std::uint64_t value, int size) {
    for (int i = 0; i < size; i++) {
        bytes[i] = static_cast<char>(value >> (8 * i) & 0xFF);
    }
}

std::uint64_t number_at(std::fstream &image, int offset, int size) {
    std::uint64_t value = 0;
    image.seekg(offset);
    for (int i = 0; i < size; i++) {
        value |= static_cast<std::uint64_t>(image.get()) << (8 * i);
    }
    return value;
}

void write_at(std::fstream &image, std::uint64_t offset, const std::string &bytes) {
    image.seekp(static_cast<std::streamoff>(offset));
    image.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// The FAT entries of a chain of contiguous clusters.
std::string chain_of(std::uint32_t start, std::uint32_t length) {
    std::string entries(std::size_t{length} * 4, '\0');
    for (std::uint32_t i = 0; i < length; i++) {
        store(&entries[std::size_t{i} * 4], i + 1 < length ? start + i + 1 : END_OF_CHAIN, 4);
    }
    return entries;
}

std::string entries_of(std::uint32_t files, std::uint32_t length) {
    std::string entries;
    for (std::uint32_t i = 0; i < files; i++) {
        const std::uint32_t start = FIRST_OF_FILES + i * length;
        std::string slot = bench::numbered("FILE%04d   ", static_cast<int>(i));
        slot.resize(32, '\0');
        store(&slot[20], start >> 16, 2);
        store(&slot[26], start & 0xFFFF, 2);
        store(&slot[28], FILE_BYTES, 4);
        entries += slot;
    }
    return entries;
}

// Fills an empty FAT32 volume. The data are holes: no check reads them.
void fill_volume(const std::string &path) {
    std::fstream image(path, std::ios::in | std::ios::out | std::ios::binary);
    const std::uint64_t sector = number_at(image, 11, 2);
    const std::uint64_t cluster = number_at(image, 13, 1) * sector;
    const std::uint64_t fat = number_at(image, 14, 2) * sector;
    const std::uint64_t fat_bytes = number_at(image, 36, 4) * sector;
    const std::uint64_t data = fat + 2 * fat_bytes;
    const auto clusters =
        static_cast<std::uint32_t>((number_at(image, 32, 4) * sector - data) / cluster);
    const auto length = static_cast<std::uint32_t>((FILE_BYTES + cluster - 1) / cluster);
    const std::uint32_t files = (clusters - 1) / length;
    for (std::uint32_t i = 0; i < 2 * files; i++) { // in two copies of the FAT
        const std::uint32_t start = FIRST_OF_FILES + i % files * length;
        write_at(image, fat + i / files * fat_bytes + std::uint64_t{start} * 4,
                 chain_of(start, length));
    }
    write_at(image, data, entries_of(files, length));
    std::string free_count(4, '\0');
    store(free_count.data(), clusters - 1 - files * length, 4);
    write_at(image, sector + 488, free_count); // in FSInfo
}

void make_volume(const environment &where, const row &of) {
    bench::run_program({"truncate", "-s", of.size, where.image()});
    bench::run_program({"mkfs.fat", "-F", "32", where.image()});
    if (of.tree.files == FULL.files) {
        fill_volume(where.image());
    }
    bench::make_tree(where.tree(), of.tree);
    command copy = {"mcopy", "-s", "-i", where.image()};
    for (const auto &item : std::filesystem::directory_iterator(where.tree())) {
        copy.push_back(item.path());
    }
    copy.emplace_back("::");
    if (of.tree.files >= 0) {
        bench::run_program(copy);
    }
    std::filesystem::remove_all(where.tree());
}

// The program, before which the directory for copies is empty. `peak`: its memory in KiB.
contestant measured(const environment &where, const command &program, long *peak) {
    const step prepare = [where] {
        std::filesystem::remove_all(where.copy());
        std::filesystem::create_directory(where.copy());
    };
    return {prepare, [program, peak] { *peak = std::max(*peak, bench::run_program(program)); }};
}

void compare(const environment &where, const row &of, int rounds) {
    make_volume(where, of);
    const rivals programs = of.programs(where);
    long peak = 0;
    long other_peak = 0;
    const std::vector<double> times = bench::medians(
        {measured(where, programs.qvol, &peak), measured(where, programs.other, &other_peak)},
        rounds);
    std::printf("%-14s %9.1f ms %6.1f MiB %9.1f ms %6.1f MiB %7.3f  %s\n", of.name, times[0] * 1e3,
                static_cast<double>(peak) / 1024, times[1] * 1e3,
                static_cast<double>(other_peak) / 1024, times[0] / times[1],
                programs.other[0].c_str());
    std::filesystem::remove_all(where.copy());
    std::filesystem::remove(where.image());
}

bool is_wanted(const row &of, int argc, char **argv) {
    return argc <= 4 || std::find(argv + 4, argv + argc, std::string(of.name)) != argv + argc;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s QVOL DIRECTORY [ROUNDS [ROW...]]\n", argv[0]);
        return 2;
    }
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 5;
    const environment where = {argv[1], std::filesystem::path(argv[2]) / "read_bench"};
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::filesystem::create_directories(where.base);
    std::printf("%-14s %12s %10s %12s %10s %7s\n", "reading", "qvol", "memory", "other", "memory",
                "ratio");
    for (const row &of : ROWS) {
        if (is_wanted(of, argc, argv)) {
            compare(where, of, rounds);
        }
    }
    std::filesystem::remove_all(where.base);
    return 0;
}
