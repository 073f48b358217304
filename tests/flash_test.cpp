// The cost of the library on NAND flash, and the state of a flash that drops and reorders writes.

#include "tests/support/flash.h"

#include "tests/support/ram_disk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace testing_support;

namespace {

constexpr std::uint64_t MIB = 1 << 20;
constexpr flash_geometry LARGE_PAGES = {4096, 64};

struct request {
    std::uint32_t fat_size;
    std::uint32_t sector_size;
    std::uint32_t sec_per_clus;
    std::uint32_t page_size; // 0: no alignment
    std::uint64_t size = 64 * MIB;
};

std::ostream &operator<<(std::ostream &stream, const request &r) {
    return stream << "FAT" << r.fat_size << ", " << r.sec_per_clus << " x " << r.sector_size
                  << ", pages of " << r.page_size;
}

// A volume on a flash, formatted and mounted.
class flash_volume {
public:
    flash_volume(const request &wanted, const flash_geometry &geometry)
        : disk_(wanted.size), flash_(geometry) {
        fat_set_diagnostics(nullptr);
        fat_format_param param = {};
        param.fat_size = wanted.fat_size;
        param.sector_size = wanted.sector_size;
        param.sec_per_clus = wanted.sec_per_clus;
        param.page_size = wanted.page_size;
        fat_page_size_given = 1;
        EXPECT_EQ(check_format_param(&param), 0);
        sv->long_name = 1;
        EXPECT_GT(fat_format(&param), 0);
        format_cost = flash_.take_cost();
        EXPECT_EQ(fat_build_super(), 0);
    }
    flash_volume(const flash_volume &) = delete;
    flash_volume &operator=(const flash_volume &) = delete;
    ~flash_volume() {
        fat_set_diagnostics(stderr);
        fat_page_size_given = 0;
    }
    flash_cost format_cost;

    flash &chip() {
        return flash_;
    }
    ram_disk &disk() {
        return disk_;
    }

private:
    ram_disk disk_;
    flash flash_;
};

void append(const std::string &name, std::uint32_t count) {
    const int id = fat_open_file(name.c_str());
    ASSERT_GT(id, 0) << name;
    const std::vector<std::uint8_t> data(count, 0x5A);
    ASSERT_EQ(fat_write_file(id, data.data(), count), static_cast<int>(count));
    fat_close(id);
}

void create(const std::string &name) {
    const int id = fat_create_file(name.c_str());
    ASSERT_GT(id, 0) << name;
    fat_close(id);
}

} // namespace

// ---- cost -------------------------------------------------------------------------------------

namespace {

struct cost_row {
    std::string operation;
    flash_cost cost;
};

std::vector<cost_row> costs_of(const request &wanted) {
    flash_volume volume(wanted, LARGE_PAGES);
    std::vector<cost_row> rows = {{"format", volume.format_cost}};
    create("A file with a long name.dat");
    rows.push_back({"create", volume.chip().take_cost()});
    append("A file with a long name.dat", MIB);
    rows.push_back({"append 1 MiB", volume.chip().take_cost()});
    for (std::uint64_t done = 0; done < MIB; done += LARGE_PAGES.page_size) {
        append("A file with a long name.dat", LARGE_PAGES.page_size);
    }
    rows.push_back({"append pages", volume.chip().take_cost()});
    EXPECT_GT(fat_unlink("A file with a long name.dat"), 0);
    rows.push_back({"remove", volume.chip().take_cost()});
    return rows;
}

void print_costs(const request &wanted, const std::vector<cost_row> &rows) {
    for (const cost_row &row : rows) {
        std::printf("FAT%u %s %-14s %6u pages %6u torn %4u blocks\n", wanted.fat_size,
                    wanted.page_size != 0 ? "aligned  " : "unaligned", row.operation.c_str(),
                    static_cast<unsigned>(row.cost.page_programs),
                    static_cast<unsigned>(row.cost.torn_pages),
                    static_cast<unsigned>(row.cost.block_rewrites));
    }
}

} // namespace

TEST(FlashCost, AnAlignedVolumeNeverCostsMorePages) {
    for (const std::uint32_t width : {16U, 32U}) {
        const std::uint64_t size = width == 16 ? 64 * MIB : 512 * MIB;
        const request aligned = {width, 512, 8, LARGE_PAGES.page_size, size};
        const request unaligned = {width, 512, 8, 0, size};
        const std::vector<cost_row> with = costs_of(aligned);
        const std::vector<cost_row> without = costs_of(unaligned);
        print_costs(aligned, with);
        print_costs(unaligned, without);
        for (std::size_t i = 1; i < with.size(); i++) { // the padding of formatting is written too
            EXPECT_LE(with[i].cost.page_programs, without[i].cost.page_programs)
                << with[i].operation;
        }
    }
}

TEST(FlashCost, AppendingToAnAlignedVolumeProgramsEachDataPageOnce) {
    for (const request &wanted :
         {request{16, 512, 8, 4096}, request{16, 4096, 1, 4096}, request{16, 2048, 4, 4096},
          request{32, 512, 8, 4096, 300 * MIB}, request{32, 4096, 1, 4096, 300 * MIB}}) {
        SCOPED_TRACE(testing::PrintToString(wanted));
        flash_volume volume(wanted, LARGE_PAGES);
        create("FILE");
        volume.chip().take_ranges();
        append("FILE", MIB);
        const std::uint64_t data = std::uint64_t{sv->data_start} * sv->sector_size;
        std::map<std::uint64_t, int> programs;
        for (const flash::range &range : volume.chip().take_ranges()) {
            for (std::uint64_t page = range.begin / 4096; page * 4096 < range.end; page++) {
                if (range.begin >= data) {
                    programs[page]++;
                }
            }
        }
        // On FAT32 the root directory, in which the entry is written, is a cluster itself.
        const std::size_t directory = wanted.fat_size == 32 ? 1 : 0;
        EXPECT_EQ(programs.size(), MIB / 4096 + directory);
        for (const auto &[page, count] : programs) {
            EXPECT_EQ(count, 1) << "page " << page;
        }
    }
}

// ---- areas ------------------------------------------------------------------------------------

namespace {

// Where each area begins, in bytes, ascending: the reserved area, each FAT, the root, the clusters.
std::vector<std::uint64_t> area_starts() {
    const std::uint64_t sector = sv->sector_size;
    std::vector<std::uint64_t> result = {0};
    for (std::uint32_t copy = 0; copy < 2; copy++) {
        result.push_back((sv->fat_start + std::uint64_t{copy} * sv->fat_size) * sector);
    }
    result.push_back(sv->rdir_start * sector);
    result.push_back(sv->data_start * sector);
    return result;
}

std::size_t area_of(const std::vector<std::uint64_t> &starts, std::uint64_t offset) {
    return static_cast<std::size_t>(std::upper_bound(starts.begin(), starts.end(), offset) -
                                    starts.begin());
}

} // namespace

TEST(FlashAreas, NoWriteOnAnAlignedVolumeTouchesAPageOfAnotherArea) {
    int formatted = 0;
    for (const std::uint32_t page : {2048U, 4096U, 8192U}) {
        for (const std::uint32_t width : {16U, 32U}) {
            for (const std::uint32_t sector : {512U, 1024U, 2048U, 4096U}) {
                const request wanted = {width, sector, width == 16 ? 4096 / sector : 1, page,
                                        width == 16 ? 64 * MIB : 300 * MIB};
                SCOPED_TRACE(testing::PrintToString(wanted));
                flash_volume volume(wanted, {page, 64});
                create("a file with a long name");
                append("a file with a long name", 100'000);
                const int directory = fat_mkdir("directory");
                ASSERT_GT(directory, 0);
                fat_close(directory);
                ASSERT_GT(fat_unlink("a file with a long name"), 0);
                const std::vector<std::uint64_t> starts = area_starts();
                for (const flash::range &range : volume.chip().take_ranges()) {
                    const std::uint64_t first_page = range.begin / page * page;
                    const std::uint64_t last_page = (range.end - 1) / page * page;
                    const std::size_t area = area_of(starts, range.begin);
                    ASSERT_EQ(area_of(starts, first_page), area) << range.begin;
                    // Formatting writes neighbouring areas of one kind in one call; only the
                    // last page must belong to the area of the last byte.
                    ASSERT_EQ(area_of(starts, last_page), area_of(starts, range.end - 1))
                        << range.end;
                    ASSERT_EQ(area_of(starts, std::min(last_page + page, sv->vol_size) - 1),
                              area_of(starts, range.end - 1))
                        << range.end;
                }
                formatted++;
            }
        }
    }
    EXPECT_EQ(formatted, 24);
}

TEST(FlashAreas, AnUnalignedVolumeDoesShareThem) {
    // The check above finds violations.
    flash_volume volume({16, 512, 8, 0}, LARGE_PAGES);
    const std::vector<std::uint64_t> starts = area_starts();
    EXPECT_TRUE(std::any_of(starts.begin(), starts.end(), [](std::uint64_t start) {
        return start % LARGE_PAGES.page_size != 0;
    }));
}

// ---- power failures with writes in the cache ---------------------------------------------------

namespace {

using tree = std::map<std::string, std::vector<std::uint8_t>>;

// The files of the root directory that begin with "safe", read whole.
tree safe_files() {
    tree result;
    fat_entry_info info;
    for (std::uint32_t index = 0; fat_next_entry(0, &index, &info) == 1;) {
        const std::string name = info.name;
        if (name.rfind("safe", 0) != 0) {
            continue;
        }
        const int id = fat_open_file(info.name);
        std::vector<std::uint8_t> content(info.size);
        if (id > 0 && (info.size == 0 || fat_read_file(id, content.data(), info.size) ==
                                             static_cast<int>(info.size))) {
            result[name] = content;
        }
        fat_close(id);
    }
    return result;
}

struct unsynced_call {
    const char *name;
    std::function<void()> call;
};

const std::vector<unsynced_call> CALLS = {
    {"create", [] { fat_close(fat_create_file("A new file with a long name")); }},
    {"mkdir", [] { fat_close(fat_mkdir("A new directory")); }},
    {"symlink", [] { EXPECT_EQ(fat_create_symlink("target", "A new link"), 0); }},
    {"append", [] { append("changing", 20'000); }},
    {"unlink", [] { EXPECT_GT(fat_unlink("changing"), 0); }},
    {"rm_entry", [] { EXPECT_GT(fat_rm_entry("changing"), 0); }},
};

// Mounts a copy of the disk on which some of the pending writes, in some order, have arrived.
void check_after_failure(const std::map<std::uint64_t, std::vector<std::uint8_t>> &blocks,
                         std::uint64_t size, const tree &expected) {
    ram_disk disk(size);
    for (const auto &[number, content] : blocks) {
        disk.poke(number * ram_disk::BLOCK, content);
    }
    sv->long_name = 1;
    ASSERT_EQ(fat_build_super(), 0);
    EXPECT_TRUE(safe_files() == expected);
}

std::map<std::uint64_t, std::vector<std::uint8_t>> blocks_of(ram_disk *disk) {
    std::map<std::uint64_t, std::vector<std::uint8_t>> result;
    for (const std::uint64_t number : disk->known_blocks()) {
        const std::uint8_t *block = disk->block(number);
        result[number] = {block, block + ram_disk::BLOCK};
    }
    return result;
}

void apply(const flash::held_write &write,
           std::map<std::uint64_t, std::vector<std::uint8_t>> *blocks) {
    const std::uint64_t offset = write.sector * write.content.size();
    auto [block, is_new] = blocks->try_emplace(offset / ram_disk::BLOCK, ram_disk::BLOCK, 0);
    std::copy(write.content.begin(), write.content.end(),
              block->second.begin() + static_cast<std::ptrdiff_t>(offset % ram_disk::BLOCK));
}

} // namespace

// Any part of the writes of one call reaches the flash, in any order: other files are whole if all
// earlier writes had been synchronised.
TEST(FlashPowerLoss, AnyPartOfACallsWritesInAnyOrderLeavesOtherFilesWhole) {
    std::minstd_rand random(20240229);
    for (const request &wanted :
         {request{16, 512, 2, 0, 8 * MIB}, request{32, 512, 8, 0, 300 * MIB},
          request{16, 4096, 1, 4096, 20 * MIB}}) {
        for (const unsynced_call &call : CALLS) {
            SCOPED_TRACE(testing::Message() << wanted << ": " << call.name);
            tree expected;
            std::map<std::uint64_t, std::vector<std::uint8_t>> before;
            std::vector<flash::held_write> writes;
            {
                flash_volume volume(wanted, LARGE_PAGES);
                // The directory has room: while one grows, a lost write may cut it short.
                for (const char *name : {"safe one", "changing", "safe two", "SAFE3.TXT"}) {
                    create(name);
                    append(name, 3000);
                }
                expected = safe_files();
                ASSERT_EQ(expected.size(), 2u);
                before = blocks_of(&volume.disk());
                volume.chip().record();
                call.call();
                writes = volume.chip().take_held();
                ASSERT_FALSE(writes.empty());
            }
            for (int attempt = 0; attempt < 40; attempt++) {
                std::vector<flash::held_write> arrived = writes;
                std::shuffle(arrived.begin(), arrived.end(), random);
                arrived.resize(random() % (writes.size() + 1));
                auto blocks = before;
                for (const flash::held_write &write : arrived) {
                    apply(write, &blocks);
                }
                fat_set_diagnostics(nullptr);
                check_after_failure(blocks, wanted.size, expected);
                fat_set_diagnostics(stderr);
            }
        }
    }
}
