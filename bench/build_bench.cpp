// Building images from the same trees: qvol build, compared with mkfs.fat and mcopy -s; and a disk
// of partitions by qvol disk, compared with a qvol build of each volume.
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
//   disk             the trees of varied-2000, similar-20000 and large in three partitions
//   archive          the tree of similar-20000 in an archive, against unpacking it first
//
// Every run creates its image, and the time includes this. qvol syncs the image, so mkfs.fat and
// mcopy are measured without and with a sync; the large file is also copied with cp and a sync.
// Prints the median times, and the ratio of qvol's to each.

#include "bench/timing.h"
#include "bench/trees.h"

namespace {

using bench::contestant;
using bench::step;

struct build_set {
    const char *name;
    bench::file_tree tree;
    bool is_slow;
};
constexpr build_set SETS[] = {
    {"similar-2000", {2000, 1, bench::similar_name}, true},
    {"varied-2000", {2000, 1, bench::varied_name}, false},
    {"similar-20000", {20000, 100, bench::similar_name}, false},
    {"varied-20000", {20000, 100, bench::varied_name}, false},
    {"large", {0, 1, nullptr}, false},
};

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

void copy_and_sync(const environment &where, const std::filesystem::path &file) {
    bench::run_program({"cp", file, where.image()});
    bench::run_program({"sync", where.image()});
}

std::vector<contestant> contestants(const environment &where, const build_set &set,
                                    const std::filesystem::path &tree) {
    const step prepare = [where] { std::filesystem::remove(where.image()); };
    std::vector<contestant> all = {
        {prepare, bench::program({where.qvol, "build", where.image(), "--size", SIZE, "--fat", "32",
                                  "--cluster", "4K", "--from", tree})},
        {prepare, [where, tree] { build_with_mtools(where, tree, false); }}};
    if (!set.is_slow) { // compared with minutes, a sync does not matter
        all.push_back({prepare, [where, tree] { build_with_mtools(where, tree, true); }});
    }
    if (set.tree.files == 0) {
        all.push_back({prepare, [where, tree] { copy_and_sync(where, tree / bench::LARGE_NAME); }});
    }
    return all;
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
    make_tree(tree, set.tree);
    const std::vector<contestant> all = contestants(where, set, tree);
    const std::vector<double> times = set.is_slow ? times_once(all) : bench::medians(all, rounds);
    std::printf("%-14s %9.1f ms", set.name, times[0] * 1e3);
    for (std::size_t i = 1; i < times.size(); i++) {
        std::printf(" %10.1f ms %7.3f", times[i] * 1e3, times[0] / times[i]);
    }
    std::printf("\n");
    std::filesystem::remove_all(tree);
    std::filesystem::remove(where.image());
}

// ---- disks ----

constexpr const char *DISK_SET = "disk";
constexpr const char *DISK_PARTS[] = {"varied-2000", "similar-20000", "large"};

void compare_disk(const environment &where, int rounds) {
    const std::string volumes = where.base / "volume";
    std::vector<std::string> disk = {where.qvol, "disk", where.image()};
    std::vector<std::vector<std::string>> builds;
    for (const build_set &set : SETS) {
        if (std::find(std::begin(DISK_PARTS), std::end(DISK_PARTS), std::string(set.name)) !=
            std::end(DISK_PARTS)) {
            const std::string tree = where.base / set.name;
            make_tree(tree, set.tree);
            disk.insert(disk.end(), {"--part", "fat=32,cluster=4K,size=" + SIZE + ",from=" + tree});
            builds.push_back({where.qvol, "build", volumes + set.name, "--size", SIZE, "--fat",
                              "32", "--cluster", "4K", "--from", tree});
        }
    }
    const auto build_each = [builds] {
        for (const std::vector<std::string> &build : builds) {
            bench::run_program(build);
        }
    };
    const step remove_images = [builds, where] {
        std::filesystem::remove(where.image());
        for (const std::vector<std::string> &build : builds) {
            std::filesystem::remove(build[2]);
        }
    };
    const std::vector<double> times = bench::medians(
        {{remove_images, bench::program(disk)}, {remove_images, build_each}}, rounds);
    std::printf("\n%-14s %12s %13s %7s\n", "partitions", "qvol disk", "qvol build", "ratio");
    std::printf("%-14s %9.1f ms %10.1f ms %7.3f\n", DISK_SET, times[0] * 1e3, times[1] * 1e3,
                times[0] / times[1]);
}

// ---- archives ----

constexpr const char *ARCHIVE_SET = "archive";
constexpr const char *ARCHIVED = "similar-20000";

// An archive to an image, against unpacking it and building from the directory.
void compare_archive(const environment &where, const char *kind, const char *compression,
                     int rounds) {
    const std::string tree = where.base / ARCHIVED;
    const std::string archive = where.base / "archive.tar";
    const std::string unpacked = where.base / "unpacked";
    bench::run_program({"tar", compression, "-cf", archive, "-C", tree, "."});
    const auto build_from = [where](const std::string &source) {
        bench::run_program({where.qvol, "build", where.image(), "--size", SIZE, "--fat", "32",
                            "--cluster", "4K", "--from", source});
    };
    const step prepare = [where, unpacked] {
        std::filesystem::remove(where.image());
        std::filesystem::remove_all(unpacked);
        std::filesystem::create_directory(unpacked);
    };
    const std::vector<double> times =
        bench::medians({{prepare, [=] { build_from(archive); }},
                        {prepare,
                         [=] {
                             bench::run_program({"tar", "-xf", archive, "-C", unpacked});
                             build_from(unpacked);
                         }}},
                       rounds);
    std::printf("%-14s %9.1f ms %10.1f ms %7.3f\n", kind, times[0] * 1e3, times[1] * 1e3,
                times[0] / times[1]);
    std::filesystem::remove_all(unpacked);
    std::filesystem::remove(archive);
    std::filesystem::remove(where.image());
}

void compare_archives(const environment &where, int rounds) {
    for (const build_set &set : SETS) {
        if (set.name == std::string(ARCHIVED)) {
            make_tree(where.base / set.name, set.tree);
        }
    }
    std::printf("\n%-14s %12s %13s %7s\n", "20,000 files", "from archive", "unpack, build",
                "ratio");
    compare_archive(where, "tar", "--format=gnu", rounds);
    compare_archive(where, "tar.gz", "--gzip", rounds);
    std::filesystem::remove_all(where.base / ARCHIVED);
}

bool is_wanted(const std::string &name, bool is_slow, int argc, char **argv) {
    bool is_named = false;
    for (int i = 4; i < argc; i++) {
        is_named = is_named || argv[i] == name;
    }
    return argc > 4 ? is_named : !is_slow;
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
    std::printf("%-14s %12s %13s %7s %13s %7s %13s %7s\n", "building", "qvol", "mcopy", "ratio",
                "mcopy, sync", "ratio", "cp, sync", "ratio");
    for (const build_set &set : SETS) {
        if (is_wanted(set.name, set.is_slow, argc, argv)) {
            compare(where, set, rounds);
        }
    }
    if (is_wanted(DISK_SET, false, argc, argv)) {
        compare_disk(where, rounds);
    }
    if (is_wanted(ARCHIVE_SET, false, argc, argv)) {
        compare_archives(where, rounds);
    }
    std::filesystem::remove_all(where.base);
    return 0;
}
