// Formatting: quorvel compared with mkfs.fat on fresh sparse images, with equal sector and cluster
// sizes and FAT widths.
//
// usage: format_bench QUORVEL DIRECTORY [ROUNDS]
//
// Prints the median time of each, and the ratio of the medians: below 1 quorvel is faster. The time
// of a program that does nothing (true) is the lower bound for both.

#include "bench/timing.h"

#include <cstdint>
#include <filesystem>
#include <fstream>

namespace {

struct volume_case {
    const char *name;
    std::uint64_t size;
    const char *width;
    const char *sectors_per_cluster;
};

constexpr std::uint64_t MIB = 1024 * 1024;
constexpr volume_case CASES[] = {
    {"64 MiB FAT16, 4 KiB clusters", 64 * MIB, "16", "8"},
    {"1 GiB FAT32, 4 KiB clusters", 1024 * MIB, "32", "8"},
    {"32 GiB FAT32, 16 KiB clusters", 32 * 1024 * MIB, "32", "32"},
};

void make_image(const std::string &image, std::uint64_t size) {
    std::filesystem::remove(image);
    std::ofstream(image).close();
    std::filesystem::resize_file(image, size);
}

void compare(const volume_case &volume, const std::string &tool, const std::string &image,
             int rounds) {
    const auto prepare = [&] { make_image(image, volume.size); };
    const auto formatter = [&](const std::string &name) {
        return bench::program(
            {name, "-F", volume.width, "-S", "512", "-s", volume.sectors_per_cluster, image});
    };
    const std::vector<double> times = bench::medians({{prepare, bench::program({"true"})},
                                                      {prepare, formatter(tool)},
                                                      {prepare, formatter("mkfs.fat")}},
                                                     rounds);
    std::filesystem::remove(image);
    std::printf("%-32s %9.2f ms %9.2f ms %9.2f ms %7.2f\n", volume.name, times[0] * 1e3,
                times[1] * 1e3, times[2] * 1e3, times[1] / times[2]);
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s QUORVEL DIRECTORY [ROUNDS]\n", argv[0]);
        return 2;
    }
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 21;
    const std::string image = std::string(argv[2]) + "/format_bench.img";
    std::printf("%-32s %12s %12s %12s %7s\n", "formatting", "true", "quorvel", "mkfs.fat", "ratio");
    for (const volume_case &volume : CASES) {
        compare(volume, argv[1], image, rounds);
    }
    return 0;
}
