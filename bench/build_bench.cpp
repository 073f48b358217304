// Building images from the same trees: qvol build, compared with mkfs.fat and mcopy -s.
//
// usage: build_bench QVOL DIRECTORY [ROUNDS [SET...]]
//
// The sets; without arguments all but similar-2000:
//
//   similar-2000     2,000 files with similar names in one directory; one round: mcopy is slow
//   varied-2000      2,000 files whose names differ early in one directory
//   similar-20000    20,000 files with similar names in 100 directories
//   varied-20000     20,000 files whose names differ early in 100 directories
//   large            one file of 1 GiB
//
// Every run creates its image, and the time includes this. qvol syncs the image, so mkfs.fat and
// mcopy are measured without and with a sync. Prints the median times, and the ratio of qvol's to
// each.

#include "bench/timing.h"

#include <cstdint>
#include <filesystem>
#include <fstream>

namespace {

using bench::contestant;
using bench::step;

constexpr std::size_t SMALL_BYTES = 3000;
constexpr std::uint64_t LARGE_BYTES = std::uint64_t{1} << 30;

using namer = std::string (*)(int);

std::string numbered(const char *format, int number) {
    char name[64];
    std::snprintf(name, sizeof name, format, number);
    return name;
}

std::string similar_name(int number) {
    return numbered("photograph-%05d.jpeg", number);
}

std::string varied_name(int number) {
    return numbered("%05d-report.text", number * 7919 % 100000);
}

struct build_set {
    const char *name;
    int files; // 0: one large file
    int directories;
    namer name_of;
    bool is_slow;
};
constexpr build_set SETS[] = {
    {"similar-2000", 2000, 1, similar_name, true},
    {"varied-2000", 2000, 1, varied_name, false},
    {"similar-20000", 20000, 100, similar_name, false},
    {"varied-20000", 20000, 100, varied_name, false},
    {"large", 0, 1, nullptr, false},
};

void write_file(const std::filesystem::path &path, std::uint64_t size) {
    std::string block(std::min<std::uint64_t>(size, 1 << 20), '\0');
    for (std::size_t i = 0; i < block.size(); i++) {
        block[i] = static_cast<char>(i * 131 >> 7);
    }
    std::ofstream file(path, std::ios::binary);
    for (std::uint64_t done = 0; done < size; done += block.size()) {
        file << block;
    }
}

void make_tree(const std::filesystem::path &tree, const build_set &set) {
    std::filesystem::create_directories(tree);
    if (set.files == 0) {
        write_file(tree / "large", LARGE_BYTES);
    }
    for (int number = 0; number < set.files; number++) {
        const std::filesystem::path directory =
            tree / numbered("directory %d", number % set.directories);
        std::filesystem::create_directory(directory);
        write_file(directory / set.name_of(number), SMALL_BYTES);
    }
}

// ---- contestants ----

struct environment {
    std::string qvol;
    std::filesystem::path base;

    [[nodiscard]] std::string image() const {
        return base / "build.img";
    }
};

const std::string SIZE = "1200M";
const std::string CLUSTER_SECTORS = "8"; // 4 KiB

void build_with_mtools(const environment &where, const std::filesystem::path &tree, bool syncs) {
    bench::run_program({"truncate", "-s", SIZE, where.image()});
    bench::run_program({"mkfs.fat", "-F", "32", "-s", CLUSTER_SECTORS, where.image()});
    std::vector<std::string> copy = {"mcopy", "-s", "-i", where.image()};
    for (const auto &item : std::filesystem::directory_iterator(tree)) {
        copy.push_back(item.path());
    }
    copy.emplace_back("::");
    bench::run_program(copy);
    if (syncs) {
        bench::run_program({"sync", where.image()});
    }
}

std::vector<contestant> contestants(const environment &where, const std::filesystem::path &tree) {
    const step prepare = [where] { std::filesystem::remove(where.image()); };
    return {{prepare, bench::program({where.qvol, "build", where.image(), "--size", SIZE, "--fat",
                                      "32", "--cluster", "4K", "--from", tree})},
            {prepare, [where, tree] { build_with_mtools(where, tree, false); }},
            {prepare, [where, tree] { build_with_mtools(where, tree, true); }}};
}

// One round without a warm-up.
std::vector<double> times_once(const std::vector<contestant> &all) {
    std::vector<double> times;
    for (const contestant &one : all) {
        one.prepare();
        times.push_back(bench::time_of(one.run));
    }
    return times;
}

void compare(const environment &where, const build_set &set, int rounds) {
    const std::filesystem::path tree = where.base / set.name;
    make_tree(tree, set);
    std::vector<contestant> all = contestants(where, tree);
    if (set.is_slow) {
        all.pop_back(); // compared with minutes, a sync does not matter
    }
    const std::vector<double> times = set.is_slow ? times_once(all) : bench::medians(all, rounds);
    const double synced = times.back();
    std::printf("%-14s %9.1f ms %10.1f ms %7.3f %10.1f ms %7.3f\n", set.name, times[0] * 1e3,
                times[1] * 1e3, times[0] / times[1], synced * 1e3, times[0] / synced);
    std::filesystem::remove_all(tree);
    std::filesystem::remove(where.image());
}

bool is_wanted(const build_set &set, int argc, char **argv) {
    bool is_named = false;
    for (int i = 4; i < argc; i++) {
        is_named = is_named || std::string(argv[i]) == set.name;
    }
    return argc > 4 ? is_named : !set.is_slow;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s QVOL DIRECTORY [ROUNDS [SET...]]\n", argv[0]);
        return 2;
    }
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 5;
    const environment where = {argv[1], std::filesystem::path(argv[2]) / "build_bench"};
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::filesystem::create_directories(where.base);
    std::printf("%-14s %12s %13s %7s %13s %7s\n", "building", "qvol", "mcopy", "ratio",
                "mcopy, sync", "ratio");
    for (const build_set &set : SETS) {
        if (is_wanted(set, argc, argv)) {
            compare(where, set, rounds);
        }
    }
    std::filesystem::remove_all(where.base);
    return 0;
}
