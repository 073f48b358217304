// Formatting side by side: quorvel and mkfs.fat on fresh sparse images, with equal sector and
// cluster sizes and FAT widths.
//
// usage: format_bench QUORVEL DIRECTORY [ROUNDS]
//
// Each round makes a new image for each program and runs both, in alternating order; what counts is
// the wall time from starting the process to its end. Prints the median of each, and the ratio of
// the medians: below 1 quorvel is the faster. The time of starting a program that does nothing
// (true) is printed with them: it is the floor under both.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

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

constexpr char IDLE_PROGRAM[] = "true";

void start(const std::vector<std::string> &arguments) {
    std::vector<char *> argv;
    for (const std::string &argument : arguments) {
        argv.push_back(const_cast<char *>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
}

// Seconds that one run takes on a fresh sparse image.
double time_run(std::vector<std::string> arguments, const std::string &image, std::uint64_t size) {
    std::filesystem::remove(image);
    std::ofstream(image).close();
    std::filesystem::resize_file(image, size);
    if (arguments[0] != IDLE_PROGRAM) {
        arguments.push_back(image);
    }
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child < 0) {
        std::perror("fork");
        std::exit(1);
    }
    if (child == 0) {
        start(arguments);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    std::filesystem::remove(image);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "%s failed\n", arguments[0].c_str());
        std::exit(1);
    }
    return taken.count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void compare(const volume_case &volume, const std::string &tool, const std::string &image,
             int rounds) {
    const std::vector<std::string> ours = {
        tool, "-F", volume.width, "-S", "512", "-s", volume.sectors_per_cluster};
    const std::vector<std::string> theirs = {
        "mkfs.fat", "-F", volume.width, "-S", "512", "-s", volume.sectors_per_cluster};
    std::vector<double> our_times;
    std::vector<double> their_times;
    std::vector<double> idle_times;
    for (int round = -1; round < rounds; round++) {
        const bool ours_first = round % 2 == 0;
        const double first = time_run(ours_first ? ours : theirs, image, volume.size);
        const double second = time_run(ours_first ? theirs : ours, image, volume.size);
        const double idle = time_run({IDLE_PROGRAM}, image, volume.size);
        if (round >= 0) { // the first round only warms up
            idle_times.push_back(idle);
            our_times.push_back(ours_first ? first : second);
            their_times.push_back(ours_first ? second : first);
        }
    }
    const double our_median = median(our_times);
    const double their_median = median(their_times);
    std::printf("%-32s %9.2f ms %9.2f ms %9.2f ms %7.2f\n", volume.name, median(idle_times) * 1e3,
                our_median * 1e3, their_median * 1e3, our_median / their_median);
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s QUORVEL DIRECTORY [ROUNDS]\n", argv[0]);
        return 2;
    }
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 21;
    const std::string image = std::string(argv[2]) + "/format_bench.img";
    std::printf("%-32s %12s %12s %12s %7s\n", "", "true", "quorvel", "mkfs.fat", "ratio");
    for (const volume_case &volume : CASES) {
        compare(volume, argv[1], image, rounds);
    }
    return 0;
}
