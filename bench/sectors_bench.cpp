// Sectors that single calls of the library read, without and with fat_set_cache(1).
//
// usage: sectors_bench QUORVEL DIRECTORY
//
// The volume has FAT32, sectors of 512 bytes and clusters of 4 KiB. Each call is measured once, on
// a directory that the call before has used, as "sectors (transfers)".

#include "bench/timing.h"
#include "fat/fat.h"

#include <cstdint>
#include <filesystem>
#include <fstream>

namespace {

using bench::step;

constexpr std::uint64_t VOLUME_BYTES = 512ULL << 20;
constexpr std::uint32_t APPENDED_BYTES = 64 * 1024;
constexpr int SIZES[] = {10, 2000};

// What read_sectors has read.
struct reading {
    std::uint64_t sectors = 0;
    std::uint64_t transfers = 0;
};
reading total;
fat_sector_io read_plainly = nullptr;

int count_reads(void *buffer, std::uint64_t sector, std::uint32_t count) {
    total.sectors += count;
    total.transfers++;
    return read_plainly(buffer, sector, count);
}

void require(bool holds, const char *what) {
    if (!holds) {
        bench::fail(what);
    }
}

reading reads_of(const step &call) {
    const reading before = total;
    call();
    return {total.sectors - before.sectors, total.transfers - before.transfers};
}

std::string name_of(int number) {
    return "file with the long name " + std::to_string(number);
}

void create(const std::string &name) {
    const int id = fat_create_file(name.c_str());
    require(id > 0 && fat_close(id) == 0, "fat_create_file");
}

void mount(const std::string &image, int has_cache) {
    require(fat_open_volume(image.c_str(), 1, 0) >= 0 && fat_build_super() == 0, "fat_build_super");
    read_plainly = read_sectors;
    read_sectors = count_reads;
    fat_set_cache(has_cache);
}

void fill(const std::string &name, int count) {
    const int directory = fat_mkdir(name.c_str());
    require(directory > 0 && fat_set_current(directory) == directory, "fat_mkdir");
    for (int number = 0; number < count; number++) {
        // No two of them have short names with a common stem.
        create(std::to_string(number) + " " + name_of(number));
    }
}

// ---- the calls ----

struct row {
    const char *name;
    reading reads;
};

std::vector<row> measure(int count) {
    static std::vector<std::uint8_t> data(APPENDED_BYTES, 0x5A);
    const std::string middle = std::to_string(count / 2) + " " + name_of(count / 2);
    const std::string added = "one more " + name_of(count);
    int id = 0;
    std::vector<row> rows;
    const auto add = [&rows](const char *name, const step &call) {
        rows.push_back({name, reads_of(call)});
    };
    create("before the first one");
    add("create", [&] { create(added); });
    add("open the middle one", [&] { id = fat_open(middle.c_str()); });
    require(id > 0, "fat_open");
    const auto append = [&] {
        require(fat_write_file(id, data.data(), APPENDED_BYTES) == static_cast<int>(APPENDED_BYTES),
                "fat_write_file");
    };
    add("append 64 KiB", append);
    add("append 64 KiB more", append);
    require(fat_close(id) == 0, "fat_close");
    add("remove the middle one", [&] { require(fat_unlink(middle.c_str()) > 0, "fat_unlink"); });
    add("list all", [&, directory = get_current()] {
        std::uint32_t index = 0;
        fat_entry_info entry;
        while (fat_next_entry(directory, &index, &entry) == 1) {
        }
    });
    return rows;
}

std::vector<row> measure_on(const std::string &image, int count, int has_cache) {
    mount(image, 1);
    fill("names" + std::to_string(count) + (has_cache != 0 ? "cached" : ""), count);
    fat_set_cache(has_cache);
    std::vector<row> rows = measure(count);
    require(fat_close_volume(0) == 0, "fat_close_volume");
    return rows;
}

void print_table(const std::string &image) {
    std::printf("| call | cache | %d names | %d names |\n|---|---|---|---|\n", SIZES[0], SIZES[1]);
    for (const int has_cache : {0, 1}) {
        const std::vector<row> few = measure_on(image, SIZES[0], has_cache);
        const std::vector<row> many = measure_on(image, SIZES[1], has_cache);
        for (std::size_t i = 0; i < few.size(); i++) {
            std::printf("| %s | %s | %llu (%llu) | %llu (%llu) |\n", few[i].name,
                        has_cache != 0 ? "on" : "off",
                        static_cast<unsigned long long>(few[i].reads.sectors),
                        static_cast<unsigned long long>(few[i].reads.transfers),
                        static_cast<unsigned long long>(many[i].reads.sectors),
                        static_cast<unsigned long long>(many[i].reads.transfers));
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s QUORVEL DIRECTORY\n", argv[0]);
        return 2;
    }
    const std::string image = std::filesystem::path(argv[2]) / "sectors_bench.img";
    std::ofstream(image).close();
    std::filesystem::resize_file(image, VOLUME_BYTES);
    bench::run_program({argv[1], "-S", "512", "-s", "8", image});
    fat_set_diagnostics(nullptr);
    print_table(image);
    std::filesystem::remove(image);
    return 0;
}
