// File data: the library, mcopy and cp transfer the same bytes on the same disk.
//
// usage: data_bench QUORVEL DIRECTORY [ROUNDS]
//
// The time of the library includes opening, mounting and closing the volume; the time of a program
// includes starting it. The library transfers large data from and to memory that is mapped in
// advance, and reads small files from the host, as the programs do. A fresh image is formatted for
// every run that writes, outside the time. There is no sync, so all work in the page cache. mcopy
// reads to /dev/null, while cp always copies from file to file.
//
// Prints the median of each and its ratios to mcopy, to cp, and to plain write() or read() in calls
// of the same size, which is the lower bound; as "4x", the time for 256 MiB divided by that for 64
// MiB, or for 8,000 names divided by that for 2,000. "Cached" rows are those with
// fat_set_cache(1).

#include "bench/timing.h"
#include "fat/fat.h"

#include <cstdint>
#include <filesystem>
#include <fstream>

#include <sys/mman.h>

namespace {

using bench::contestant;
using bench::step;

constexpr std::uint32_t KIB = 1024;
constexpr std::uint32_t MIB = 1024 * KIB;
constexpr std::uint64_t VOLUME_BYTES = 512ULL * MIB;
constexpr std::uint32_t LARGE_BYTES = 256 * MIB;
constexpr std::uint32_t QUARTER_BYTES = LARGE_BYTES / 4;
constexpr int SMALL_FILES = 2000;
constexpr int MANY_FILES = 8000;
constexpr std::size_t SMALL_BYTES = 3000;
constexpr int MAX_ROUNDS_OF_SIMILAR_NAMES = 3; // mcopy needs long for each

struct cluster_case {
    const char *name;
    const char *sectors_per_cluster; // of 512 bytes
};
constexpr cluster_case CLUSTERS[] = {
    {"512 B clusters", "1"}, {"4 KiB clusters", "8"}, {"32 KiB clusters", "64"}};

struct call_case {
    const char *name;
    std::uint32_t bytes;
    bool has_cache = false;
};
constexpr call_case CALLS[] = {{"in one call", LARGE_BYTES},
                               {"in calls of 8 MiB", 8 * MIB},
                               {"in calls of 64 KiB", 64 * KIB},
                               {"in calls of 64 KiB, cached", 64 * KIB, true}};

// Programs, files and memory of a run.
struct environment {
    std::string tool;
    std::filesystem::path base;
    std::uint8_t *memory; // LARGE_BYTES; all pages are mapped in advance

    [[nodiscard]] std::string image() const {
        return base / "volume.img";
    }
    [[nodiscard]] std::string large() const {
        return base / "LARGE.BIN";
    }
    [[nodiscard]] std::string small_files(const std::string &kind) const {
        return base / kind;
    }
    [[nodiscard]] std::string copy() const {
        return base / "copy";
    }
};

void require(bool holds, const char *what) {
    if (!holds) {
        std::fprintf(stderr, "%s failed\n", what);
        std::exit(1);
    }
}

// ---- names ----

constexpr char DIRECTORY[] = "many";

using namer = std::string (*)(int);

// Names as a camera gives them, in series with equal first six characters, which become the short
// name. A directory has room for 1023 short names with the same stem.
std::string camera_name(int number) {
    char name[32];
    std::snprintf(name, sizeof name, "%s-%04d.jpeg", number % 2 == 0 ? "photo" : "movie", number);
    return name;
}

// Each of them gets a short name with a stem of its own.
std::string long_name(int number) {
    char name[40];
    std::snprintf(name, sizeof name, "%04d long name of a file.dat", number);
    return name;
}

std::string short_name(int number) {
    char name[32];
    std::snprintf(name, sizeof name, "%04dFILE.DAT", number);
    return name;
}

// ---- the library ----

void mount(const environment &where) {
    require(fat_open_volume(where.image().c_str(), 1, 0) >= 0, "fat_open_volume");
    require(fat_build_super() == 0, "fat_build_super");
}

void read_host(int fd, std::uint8_t *buffer, std::uint32_t count) {
    for (std::uint32_t done = 0; done < count;) {
        const ssize_t moved = read(fd, buffer + done, count - done);
        require(moved > 0, "read");
        done += static_cast<std::uint32_t>(moved);
    }
}

// Appends `total` bytes to a new file.
void append_large(const environment &where, std::uint32_t total, std::uint32_t call_bytes) {
    mount(where);
    const int id = fat_create_file("LARGE.BIN");
    require(id > 0, "fat_create_file");
    for (std::uint32_t done = 0; done < total;) {
        const std::uint32_t count = std::min(call_bytes, total - done);
        require(fat_write_file(id, where.memory + done, count) == static_cast<int>(count),
                "fat_write_file");
        done += count;
    }
    require(fat_close(id) == 0 && fat_close_volume(0) == 0, "fat_close_volume");
}

void read_large(const environment &where, std::uint32_t total, std::uint32_t call_bytes) {
    mount(where);
    const int id = fat_open("LARGE.BIN");
    require(id > 0, "fat_open");
    for (std::uint32_t done = 0; done < total;) {
        const std::uint32_t count = std::min(call_bytes, total - done);
        require(fat_read_file(id, where.memory + done, count) == static_cast<int>(count),
                "fat_read_file");
        done += count;
    }
    require(fat_close(id) == 0 && fat_close_volume(0) == 0, "fat_close_volume");
}

// The same bytes by plain system calls, at the start of the image.
void write_plainly(const environment &where, std::uint32_t total, std::uint32_t call_bytes) {
    const int fd = open(where.image().c_str(), O_WRONLY);
    for (std::uint32_t done = 0; done < total; done += call_bytes) {
        require(write(fd, where.memory + done, call_bytes) == static_cast<ssize_t>(call_bytes),
                "write");
    }
    close(fd);
}

void read_plainly(const environment &where, std::uint32_t total, std::uint32_t call_bytes) {
    const int fd = open(where.image().c_str(), O_RDONLY);
    for (std::uint32_t done = 0; done < total; done += call_bytes) {
        read_host(fd, where.memory + done, call_bytes);
    }
    close(fd);
}

void create_small(const environment &where, const std::vector<std::string> &files) {
    mount(where);
    for (const std::string &file : files) {
        const int from = open(file.c_str(), O_RDONLY);
        require(from >= 0, "open");
        read_host(from, where.memory, SMALL_BYTES);
        close(from);
        const int id = fat_create_file(std::filesystem::path(file).filename().c_str());
        require(id > 0, "fat_create_file");
        require(fat_write_file(id, where.memory, SMALL_BYTES) == static_cast<int>(SMALL_BYTES),
                "fat_write_file");
        require(fat_close(id) == 0, "fat_close");
    }
    require(fat_close_volume(0) == 0, "fat_close_volume");
}

// Creates `count` empty files in a directory.
void fill_directory(const environment &where, namer name_of, int count) {
    mount(where);
    const int directory = fat_mkdir(DIRECTORY);
    require(directory > 0 && fat_set_current(directory) == directory, "fat_mkdir");
    for (int number = 0; number < count; number++) {
        const int id = fat_create_file(name_of(number).c_str());
        require(id > 0 && fat_close(id) == 0, "fat_create_file");
    }
    require(fat_close_volume(0) == 0, "fat_close_volume");
}

void list_directory(const environment &where) {
    mount(where);
    const int directory = fat_open_dir(DIRECTORY);
    std::uint32_t index = 0;
    fat_entry_info entry;
    int entries = 0;
    while (fat_next_entry(directory, &index, &entry) == 1) {
        entries++;
    }
    require(entries == MANY_FILES + 2 && fat_close_volume(0) == 0,
            "fat_next_entry"); // "." and ".."
}

// ---- files and volumes ----

void make_volume(const environment &where, const cluster_case &clusters) {
    std::filesystem::remove(where.image());
    std::ofstream(where.image()).close();
    std::filesystem::resize_file(where.image(), VOLUME_BYTES);
    bench::run_program(
        {where.tool, "-S", "512", "-s", clusters.sectors_per_cluster, where.image()});
}

void write_host_file(const std::string &path, std::size_t size) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; i++) {
        content[i] = static_cast<char>(i * 131 >> 7);
    }
    std::ofstream(path) << content;
}

std::vector<std::string> make_small_files(const std::string &directory, namer name_of) {
    std::filesystem::create_directory(directory);
    std::vector<std::string> files;
    for (int number = 0; number < SMALL_FILES; number++) {
        files.push_back(directory + "/" + name_of(number));
        write_host_file(files.back(), SMALL_BYTES);
    }
    return files;
}

step program_on(std::vector<std::string> front, const std::vector<std::string> &files,
                const std::string &target) {
    front.insert(front.end(), files.begin(), files.end());
    front.push_back(target);
    return bench::program(std::move(front));
}

// ---- rows ----

void print_head(const std::string &caption) {
    std::printf("\n%-40s %12s %8s %8s %8s %8s\n", caption.c_str(), "time", "/ mcopy", "/ cp",
                "/ plain", "4x");
}

void print_row(const char *name, double time, double mcopy, double cp) {
    std::printf("  %-38s %9.1f ms %8.2f %8.2f", name, time * 1e3, time / mcopy, time / cp);
}

using large_run = void (*)(const environment &, std::uint32_t total, std::uint32_t call_bytes);

// The rows of one cluster size: the library with every size of call, for the whole file and for a
// quarter of it; mcopy; cp.
void compare_large(const environment &where, large_run run, large_run plain, const step &prepare,
                   const step &mcopy, int rounds) {
    std::vector<contestant> all = {{prepare, mcopy},
                                   {[&] { std::filesystem::remove(where.copy()); },
                                    bench::program({"cp", where.large(), where.copy()})}};
    for (const call_case &call : CALLS) {
        const auto prepare_cache = [&] {
            prepare();
            fat_set_cache(call.has_cache ? 1 : 0);
        };
        all.push_back({prepare, [&] { plain(where, LARGE_BYTES, call.bytes); }});
        all.push_back({prepare_cache, [&] { run(where, LARGE_BYTES, call.bytes); }});
        all.push_back({prepare_cache, [&] { run(where, QUARTER_BYTES, call.bytes); }});
    }
    const std::vector<double> times = bench::medians(all, rounds);
    const double mcopy_time = times[0];
    const double cp_time = times[1];
    const double *of_call = &times[2]; // plain, whole, quarter
    for (const call_case &call : CALLS) {
        print_row(call.name, of_call[1], mcopy_time, cp_time);
        std::printf(" %8.2f %8.2f\n", of_call[1] / of_call[0], of_call[1] / of_call[2]);
        of_call += 3;
    }
    print_row("mcopy", mcopy_time, mcopy_time, cp_time);
    std::printf("\n");
    print_row("cp", cp_time, mcopy_time, cp_time);
    std::printf("\n");
}

void compare_appending(const environment &where, const cluster_case &clusters, int rounds) {
    print_head(std::string("append 256 MiB, ") + clusters.name);
    compare_large(
        where, append_large, write_plainly, [&] { make_volume(where, clusters); },
        bench::program({"mcopy", "-i", where.image(), where.large(), "::"}), rounds);
}

void compare_reading(const environment &where, const cluster_case &clusters, int rounds) {
    print_head(std::string("read 256 MiB, ") + clusters.name);
    make_volume(where, clusters);
    append_large(where, LARGE_BYTES, LARGE_BYTES);
    compare_large(
        where, read_large, read_plainly, [] {},
        bench::program({"mcopy", "-i", where.image(), "::LARGE.BIN", "-"}), rounds);
}

void compare_small(const environment &where, const std::string &kind, namer name_of, int rounds) {
    const std::vector<std::string> files = make_small_files(where.small_files(kind), name_of);
    const auto new_volume = [&] { make_volume(where, CLUSTERS[1]); };
    const auto new_directory = [&] {
        std::filesystem::remove_all(where.copy());
        std::filesystem::create_directory(where.copy());
    };
    const std::vector<double> times =
        bench::medians({{new_volume, [&] { create_small(where, files); }},
                        {new_volume, program_on({"mcopy", "-i", where.image()}, files, "::")},
                        {new_directory, program_on({"cp"}, files, where.copy())}},
                       rounds);
    const char *names[] = {"library", "mcopy", "cp"};
    print_head("2,000 files of 3,000 bytes, " + kind);
    for (std::size_t i = 0; i < times.size(); i++) {
        print_row(names[i], times[i], times[1], times[2]);
        std::printf("\n");
    }
    std::filesystem::remove_all(where.copy());
}

// Cost of a directory that grows to four times the number of names, without and with the cache.
void compare_filling(const environment &where, const char *kind, namer name_of, int rounds) {
    std::vector<contestant> all;
    for (const int has_cache : {0, 1}) {
        const auto prepare = [&where, has_cache] {
            make_volume(where, CLUSTERS[1]);
            fat_set_cache(has_cache);
        };
        for (const int count : {MANY_FILES, SMALL_FILES}) {
            all.push_back(
                {prepare, [&where, name_of, count] { fill_directory(where, name_of, count); }});
        }
    }
    const std::vector<double> times = bench::medians(all, rounds);
    std::printf("\n%-40s %12s %8s\n", (std::string("8,000 names created, ") + kind).c_str(), "time",
                "4x");
    std::printf("  %-38s %9.1f ms %8.2f\n", "library", times[0] * 1e3, times[0] / times[1]);
    std::printf("  %-38s %9.1f ms %8.2f\n", "library, cached", times[2] * 1e3, times[2] / times[3]);
}

void compare_listing(const environment &where, int rounds) {
    make_volume(where, CLUSTERS[1]);
    fat_set_cache(1);
    fill_directory(where, short_name, MANY_FILES);
    const auto set_cache = [](int enabled) { return [enabled] { fat_set_cache(enabled); }; };
    const auto list = [&] { list_directory(where); };
    const std::vector<double> times = bench::medians(
        {{set_cache(0), list},
         {set_cache(1), list},
         {[] {}, bench::program({"mdir", "-i", where.image(), std::string("::") + DIRECTORY})}},
        rounds);
    const char *names[] = {"library", "library, cached", "mdir"};
    std::printf("\n%-40s %12s %8s\n", "8,000 names listed", "time", "/ mdir");
    for (std::size_t i = 0; i < times.size(); i++) {
        std::printf("  %-38s %9.1f ms %8.2f\n", names[i], times[i] * 1e3, times[i] / times[2]);
    }
}

void compare_all(const environment &where, int rounds) {
    write_host_file(where.large(), LARGE_BYTES);
    for (const cluster_case &clusters : CLUSTERS) {
        compare_appending(where, clusters, rounds);
        compare_reading(where, clusters, rounds);
    }
    std::filesystem::remove(where.copy());
    fat_set_cache(0);
    compare_listing(where, rounds);
    compare_filling(where, "8.3", short_name, rounds);
    compare_filling(where, "long", long_name, rounds);
    fat_set_cache(0);
    compare_small(where, "8.3 names", short_name, rounds);
    compare_small(where, "similar long names", camera_name,
                  std::min(rounds, MAX_ROUNDS_OF_SIMILAR_NAMES));
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s QUORVEL DIRECTORY [ROUNDS]\n", argv[0]);
        return 2;
    }
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 5;
    void *memory = mmap(nullptr, LARGE_BYTES, PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) {
        bench::fail("mmap");
    }
    FILE *null = std::fopen("/dev/null", "w");
    if (null == nullptr) {
        bench::fail("/dev/null");
    }
    std::setvbuf(null, nullptr, _IONBF, 0); // unbuffered, as standard error
    fat_set_diagnostics(null);
    const environment where = {argv[1], std::filesystem::path(argv[2]) / "data_bench",
                               static_cast<std::uint8_t *>(memory)};
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::filesystem::create_directory(where.base);
    compare_all(where, rounds);
    std::filesystem::remove_all(where.base);
    return 0;
}
