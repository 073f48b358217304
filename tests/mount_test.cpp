// Mounting: the geometry from a boot sector, invalid boot sectors, printing boot sectors.

#include "fat/internal.h"
#include "tests/support/boot_sector.h"
#include "tests/support/capture.h"
#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/open_entries.h"
#include "tests/support/printout.h"
#include "tests/support/ram_disk.h"
#include "tests/support/rows.h"
#include "tests/support/volume.h"
#include "tests/support/volume_fixture.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

constexpr std::uint64_t MIB = 1024 * 1024;
constexpr unsigned SEED = 20240229;

const std::string NO_READ = "get_pbr_sector[N]: Cannot read PBR from volume\n";
const std::string NO_SIGNATURE = "get_pbr_sector[N]: Invalid PBR signature\n\n";
const std::string NO_PBR = "fat_build_super[N]: Cannot get PBR sector!\n\n";
const std::string BROKEN = "fat_build_super[N]: PBR data is broken\n\n";
const std::string NO_ROOT = "open_root_directory[N]: failed to set oentry!\n\n"
                            "fat_build_super[N]: Cannot open root directory!\n\n";
const std::string BAD_CHAIN = "fat_count_clusters[N]: Failed to read cluster!\n\n";

std::string over_limit(int clusters, int width_before) {
    return "fat_build_super[N]: NumCluster is over the limitation: clus(" +
           std::to_string(clusters) + "), FAT" + std::to_string(width_before) + "\n";
}
// Resets everything but the target to the state after opening.
void forget_geometry() {
    fat_super fresh = {};
    fresh.fd = sv->fd;
    fresh.vol_size = sv->vol_size;
    fresh.long_name = sv->long_name;
    *sv = fresh;
}

// Boot sectors that are refused as broken.
struct broken_row : named_row {
    boot_numbers numbers;
    u32 sector_size; // of the volume after it; 0: not taken
};
template <typename Change>
boot_numbers changed(boot_numbers numbers, const Change &change) {
    change(numbers);
    return numbers;
}
std::vector<broken_row> broken_boot_sectors() {
    std::vector<broken_row> rows = {
        {"Fat32WithoutAFatSize",
         changed(fat32_numbers(), [](boot_numbers &n) { n.fat_size_32 = 0; }), 512},
        {"LargeSectorsWithoutAFatSize",
         changed(fat32_numbers(),
                 [](boot_numbers &n) {
                     n.sector_size = 1024;
                     n.sec_per_clus = 2;
                     n.fat_size_32 = 0;
                 }),
         1024},
        {"Fat32WithA16BitTotalAlone",
         changed(fat32_numbers(),
                 [](boot_numbers &n) {
                     n.total_32 = 0;
                     n.total_16 = 60000;
                 }),
         512},
    };
    for (const boot_numbers &numbers : {fat16_numbers(), fat32_numbers()}) {
        const auto add = [&](const char *name, u32 sector_size, auto change) {
            rows.push_back({{name}, changed(numbers, change), sector_size});
        };
        add("NoClusterSize", 0, [](boot_numbers &n) { n.sec_per_clus = 0; });
        for (const u32 size : {0U, 1U, 2U, 16U, 32U, 100U, 256U, 511U, 513U, 520U, 4095U, 65535U}) {
            add("SectorSize", 0, [size](boot_numbers &n) { n.sector_size = size; });
        }
        // Areas that leave no room for data.
        add("ReservedArea", 512, [](boot_numbers &n) {
            n.reserved = 65535;
            n.total_16 = n.total_32 = 20000;
        });
        add("FatCopies", 512, [](boot_numbers &n) { n.fats = 255; });
        add("Total", 512, [](boot_numbers &n) { n.total_16 = n.total_32 = 1; });
    }
    return rows;
}

// A boot sector on its own disk, which is the open volume.
class BootSector : public testing::Test {
protected:
    static constexpr std::uint64_t SIZE = 64 * MIB;

    void put(const boot_numbers &numbers) {
        disk.poke(0, boot_sector_of(numbers));
        // The root directory of FAT32 is cluster 2, alone in its chain.
        const std::uint64_t entry = std::uint64_t{numbers.reserved} * numbers.sector_size + 8;
        if (numbers.fat_size_16 == 0) {
            disk.poke(entry, {0xFF, 0xFF, 0xFF, 0x0F});
        }
    }
    template <typename Call>
    answer ask(Call call) {
        messages.clear();
        const int result = call();
        answer a{result, messages.text()};
        EXPECT_TRUE(table_agrees()) << "after " << a;
        return a;
    }
    answer mount() {
        return ask(fat_build_super);
    }
    answer mount(const boot_numbers &numbers) {
        put(numbers);
        return mount();
    }
    // Mounts as if no volume had been mounted before.
    static void forget_mount() {
        free_oentry(oentry_table[0]);
        oentry_table[0] = nullptr;
        unmark_slot(oentry_map, 0);
        forget_geometry();
    }
    answer mount_from_scratch(const boot_numbers &numbers) {
        forget_mount();
        return mount(numbers);
    }
    void expect_root_open() {
        EXPECT_EQ(ids_in_use(), std::vector<int>{0});
        EXPECT_EQ(sv->root_dir, oentry_table[0]);
        EXPECT_EQ(sv->current_dir, oentry_table[0]);
        EXPECT_EQ(get_current(), 0);
    }

    ram_disk disk{SIZE};
    diagnostics messages;
};

class Formatted : public testing::TestWithParam<volume_shape> {};
INSTANTIATE_TEST_SUITE_P(Shapes, Formatted, testing::ValuesIn(many_shapes()), shape_name);

} // namespace

// ---- reading the boot sector ------------------------------------------------------------------

TEST_F(BootSector, IsSectorZero) {
    for (const u32 size : {0U, 512U, 1024U, 2048U, 4096U}) {
        sv->sector_size = size;
        put(fat16_numbers());
        disk.log.clear();
        bytes buffer(size != 0 ? size : 4096);
        EXPECT_EQ(ask([&] { return get_pbr_sector(buffer.data()); }), (answer{0, ""}));
        EXPECT_EQ(buffer, disk.peek(0, buffer.size()));
        EXPECT_EQ(disk.log, (std::vector<transfer>{{false, 0, 1}}));
    }
}

TEST_F(BootSector, AnyOtherCountThanOneIsAFailure) {
    put(fat16_numbers());
    bytes buffer(4096);
    for (const int moved : {0, 2, -1, -EIO, -EINVAL, INT_MAX, INT_MIN}) {
        disk.failure_result = moved;
        disk.reads_before_failure = 0;
        EXPECT_EQ(ask([&] { return get_pbr_sector(buffer.data()); }), (answer{-EIO, NO_READ}));
        disk.reads_before_failure = 0;
        EXPECT_EQ(mount(), (answer{-EIO, NO_READ + NO_PBR}));
    }
}

TEST_F(BootSector, SignatureIsBothBytes) {
    bytes buffer(4096);
    for (const auto &[low, high] : {std::pair{0x00, 0x00},
                                    {0x55, 0x00},
                                    {0x00, 0xAA},
                                    {0xAA, 0x55},
                                    {0x54, 0xAA},
                                    {0x55, 0xAB},
                                    {0xFF, 0xFF}}) {
        put(fat16_numbers());
        disk.poke(510, {static_cast<u8>(low), static_cast<u8>(high)});
        disk.poke(4094, {0x55, 0xAA}); // where it is ignored
        EXPECT_EQ(ask([&] { return get_pbr_sector(buffer.data()); }),
                  (answer{-EINVAL, NO_SIGNATURE}));
        EXPECT_EQ(mount(), (answer{-EINVAL, NO_SIGNATURE + NO_PBR}));
        EXPECT_EQ(ids_in_use(), std::vector<int>());
    }
}

// ---- the geometry -----------------------------------------------------------------------------

TEST_P(Formatted, MountsWithTheGeometryThatFormattingComputed) {
    volume v(GetParam());
    diagnostics messages;
    const geometry computed = geometry_of_volume();
    forget_geometry();
    EXPECT_EQ(fat_build_super(), 0);
    EXPECT_EQ(messages.text(), "");
    EXPECT_EQ(geometry_of_volume(), computed);
    EXPECT_EQ(picture_of(0), tree::opened_root());
    EXPECT_EQ(sv->current_dir, sv->root_dir);
    EXPECT_TRUE(table_agrees());
    for (const transfer &t : v.disk.log) {
        EXPECT_FALSE(t.is_write) << t;
    }
    EXPECT_EQ(fat_open("MISSING"), -ENOENT);
}

TEST_F(BootSector, Fat16Geometry) {
    boot_numbers numbers = fat16_numbers(); // of 512-byte sectors
    numbers.sec_per_clus = 4;
    numbers.reserved = 3;
    numbers.fats = 3;
    numbers.fat_size_16 = 20;
    numbers.root_entries = 17; // two sectors
    numbers.total_16 = 3 + 60 + 2 + 4 * 5000 + 3;
    EXPECT_EQ(mount(numbers), (answer{0, ""}));
    EXPECT_EQ(geometry_of_volume(), (geometry{16, 20, 20068, 5000, 512, 4, 0, 3, 63, 65}));
    expect_root_open();
    EXPECT_EQ(picture_of(0), tree::opened_root());
}

TEST_F(BootSector, Fat32Geometry) {
    boot_numbers numbers = fat32_numbers(); // of 512-byte sectors
    numbers.sec_per_clus = 2;
    numbers.reserved = 40;
    numbers.fats = 1;
    numbers.fat_size_32 = 600;
    numbers.root_clus = 1000;
    numbers.total_32 = 40 + 600 + 2 * 70000;
    put(numbers);
    disk.poke(40 * 512 + 4000, {0xF8, 0xFF, 0xFF, 0xFF});
    EXPECT_EQ(mount(), (answer{0, ""}));
    EXPECT_EQ(geometry_of_volume(),
              (geometry{32, 600, 140640, 70000, 512, 2, 1000, 40, 640 + 998 * 2, 640}));
    expect_root_open();
    EXPECT_EQ(picture_of(0), tree::opened_root());
}

// Only FAT16 without root entries is refused.
TEST_F(BootSector, WidthFollowsFromTheClusterCountAlone) {
    for (const bool has_fat32_block : {false, true}) {
        for (const u32 clusters : {0U, 1U, 4084U, 4085U, 4086U, 65523U, 65524U, 65525U, 65526U}) {
            for (const auto &[rest, root_entries] : {std::pair{0U, 0U}, {0U, 1U}, {3U, 512U}}) {
                boot_numbers numbers = has_fat32_block ? fat32_numbers() : fat16_numbers();
                numbers.sec_per_clus = 4;
                numbers.root_entries = root_entries;
                numbers.root_clus = 2;
                numbers.total_16 = 0;
                numbers.total_32 = first_data_sector(numbers) + 4 * clusters + rest;
                numbers.type = clusters % 2 == 0 ? "FAT12   " : "FAT32   "; // never read
                put(numbers);
                disk.poke(std::uint64_t{numbers.reserved} * 512 + 8, {0xFF, 0xFF, 0xFF, 0x0F});
                const answer a = mount_from_scratch(numbers);
                const bool has_no_root = clusters < 65525 && root_entries == 0;
                if (clusters < 4085 || has_no_root) {
                    EXPECT_EQ(a, (answer{-EINVAL, clusters < 4085
                                                      ? over_limit(static_cast<int>(clusters), 0)
                                                      : BROKEN}));
                    EXPECT_EQ(sv->fat_type, 0U);
                    EXPECT_EQ(ids_in_use(), std::vector<int>());
                    continue;
                }
                EXPECT_EQ(a, (answer{0, ""}));
                EXPECT_EQ(sv->num_clusters, clusters);
                EXPECT_EQ(sv->fat_type, clusters < 65525 ? 16U : 32U);
                EXPECT_EQ(sv->root_clus, clusters < 65525 ? 0U : 2U);
            }
        }
    }
}

TEST_F(BootSector, RefusalNamesTheWidthThatWasKnownBefore) {
    boot_numbers numbers = fat16_numbers();
    numbers.total_16 = static_cast<u16>(first_data_sector(numbers) + 4084);
    sv->fat_type = 32;
    EXPECT_EQ(mount(numbers), (answer{-EINVAL, over_limit(4084, 32)}));
    ASSERT_EQ(mount(fat16_numbers()), (answer{0, ""}));
    EXPECT_EQ(mount(numbers), (answer{-EINVAL, over_limit(4084, 16)}));
}

TEST_F(BootSector, SixteenBitTotalCountsBeforeTheOther) {
    boot_numbers numbers = fat16_numbers();
    numbers.total_16 = 20000;
    numbers.total_32 = 30000;
    EXPECT_EQ(mount(numbers), (answer{0, ""}));
    EXPECT_EQ(sv->total_sectors, 20000U);
    numbers.total_16 = 0;
    EXPECT_EQ(mount(numbers), (answer{0, ""}));
    EXPECT_EQ(sv->total_sectors, 30000U);
}

TEST_F(BootSector, Fat32BlockCountsOnlyWithoutASixteenBitFatSize) {
    boot_numbers numbers = fat32_numbers();
    numbers.total_16 = 5000; // ignored
    EXPECT_EQ(mount(numbers), (answer{0, ""}));
    EXPECT_EQ(sv->total_sectors, numbers.total_32);
    EXPECT_EQ(sv->fat_size, numbers.fat_size_32);
    numbers = fat16_numbers();
    numbers.fat_size_32 = 7777;
    EXPECT_EQ(mount(numbers), (answer{0, ""}));
    EXPECT_EQ(sv->fat_size, numbers.fat_size_16);
}

TEST_F(BootSector, BrokenNumbersAreRefusedAndMountingCanBeTriedAgain) {
    for (const broken_row &row : broken_boot_sectors()) {
        SCOPED_TRACE(testing::Message() << row.name << ", sectors of " << row.numbers.sector_size);
        EXPECT_EQ(mount_from_scratch(row.numbers), (answer{-EINVAL, BROKEN}));
        EXPECT_EQ(ids_in_use(), std::vector<int>());
        EXPECT_EQ(sv->sector_size, row.sector_size);
        EXPECT_EQ(sv->fat_type, 0U);
        EXPECT_EQ(sv->root_dir, nullptr);
        ASSERT_EQ(mount(fat16_numbers()), (answer{0, ""}));
        EXPECT_EQ(mount(row.numbers), (answer{-EINVAL, BROKEN}));
        EXPECT_EQ(sv->sector_size, row.sector_size == 0 ? 512 : row.sector_size);
        EXPECT_EQ(sv->fat_type, 16U);
    }
}

TEST_F(BootSector, TotalMayBeLargerThanTheTarget) {
    boot_numbers numbers = fat32_numbers();
    numbers.total_32 = 0x0FFFFFFF;
    EXPECT_EQ(mount(numbers), (answer{0, ""}));
    EXPECT_EQ(sv->total_sectors, 0x0FFFFFFFU);
    EXPECT_EQ(fat_open("MISSING"), -ENOENT);
    numbers = fat16_numbers();
    numbers.sec_per_clus = 64;
    numbers.total_16 = 0;
    numbers.total_32 = 64 * 60000;
    EXPECT_EQ(mount(numbers), (answer{0, ""}));
    EXPECT_EQ(fat_open("MISSING"), -ENOENT);
}

TEST_F(BootSector, FieldsNotInTheBootSectorAreNotChanged) {
    sv->last_alloc_clus = 77;
    sv->pbr_start = 5;
    for (const bool long_name : {false, true}) {
        sv->long_name = long_name ? 1 : 0;
        EXPECT_EQ(mount(fat16_numbers()), (answer{0, ""}));
        EXPECT_EQ(sv->long_name, long_name ? 1 : 0);
        EXPECT_EQ(sv->last_alloc_clus, 77U);
        EXPECT_EQ(sv->pbr_start, 0U);
        EXPECT_EQ(sv->vol_size, SIZE);
        EXPECT_EQ(sv->fd, -1);
    }
}

// ---- the root directory -----------------------------------------------------------------------

TEST_F(BootSector, RootWithABrokenChainIsNotMounted) {
    const boot_numbers numbers = fat32_numbers();
    put(numbers);
    const std::uint64_t entry = std::uint64_t{numbers.reserved} * 512 + 8;
    disk.poke(entry, {1, 0, 0, 0});
    EXPECT_EQ(mount(),
              (answer{-EINVAL, "fat_read_clus[N]: Invalid cluster!\n\n" + BAD_CHAIN + NO_ROOT}));
    EXPECT_EQ(ids_in_use(), std::vector<int>());
    disk.poke(entry, {2, 0, 0, 0});
    EXPECT_EQ(mount(), (answer{-EINVAL, BAD_CHAIN + NO_ROOT}));
    for (const u32 cluster : {0xFFFFFFFF, sv->num_clusters + 2, 1U}) {
        boot_numbers elsewhere = numbers;
        elsewhere.root_clus = cluster;
        EXPECT_EQ(mount(elsewhere),
                  (answer{-EINVAL, "fat_read_clus[N]: Invalid arg!\n\n" + BAD_CHAIN + NO_ROOT}));
    }
    EXPECT_EQ(mount(numbers), (answer{0, ""})); // no state of it remains
    expect_root_open();
}

TEST_F(BootSector, RootWithoutAChainIsMountedEmpty) {
    const boot_numbers numbers = fat32_numbers();
    put(numbers);
    disk.poke(std::uint64_t{numbers.reserved} * 512 + 8, {0, 0, 0, 0x30});
    EXPECT_EQ(mount(), (answer{0, ""}));
    EXPECT_EQ(sv->root_dir->start, 2U);
    EXPECT_EQ(sv->root_dir->allocated, 0U);
    boot_numbers nowhere = numbers;
    nowhere.root_clus = 0;
    EXPECT_EQ(mount(nowhere), (answer{0, ""}));
    EXPECT_EQ(sv->root_dir->start, 0U);
    EXPECT_EQ(
        ask([] { return fat_open("NAME"); }),
        (answer{-EINVAL, "get_phy_sector[N]: invalid start cluster number 0\n"
                         "get_dentry_with_clu[N]: Failed to get entry sector!:(0, 0)\n\n"
                         "find_dentry_with_clu[N]: fail to get dentry(0, 0):Invalid argument\n"
                         "fat_open[N]: failed to find directory entry!\n\n"}));
}

TEST_F(BootSector, MountingAgainReopensTheRootInPlace) {
    ASSERT_EQ(mount(fat16_numbers()), (answer{0, ""}));
    const oentry *root = oentry_table[0];
    sv->root_dir->pos = 5;
    const geometry before = geometry_of_volume();
    const allocation_meter meter;
    EXPECT_EQ(mount(), (answer{0, ""}));
    EXPECT_EQ(oentry_table[0], root);
    EXPECT_EQ(geometry_of_volume(), before);
    EXPECT_EQ(picture_of(0), tree::opened_root());
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_F(BootSector, LostSignatureLeavesAMountedVolumeAsItWas) {
    ASSERT_EQ(mount(fat16_numbers()), (answer{0, ""}));
    const geometry before = geometry_of_volume();
    disk.poke(510, {0, 0});
    EXPECT_EQ(mount(), (answer{-EINVAL, NO_SIGNATURE + NO_PBR}));
    EXPECT_EQ(geometry_of_volume(), before);
    expect_root_open();
}

TEST_F(BootSector, FailedMountLeavesWhatItHadRead) {
    boot_numbers numbers = fat32_numbers();
    numbers.sector_size = 1024;
    numbers.sec_per_clus = 2;
    numbers.fat_size_32 = 0;
    EXPECT_EQ(mount(numbers).result, -EINVAL);
    EXPECT_EQ(
        geometry_of_volume(),
        (geometry{.total_sectors = numbers.total_32, .sector_size = 1024, .sec_per_clus = 2}));
    numbers = fat16_numbers();
    numbers.total_16 = static_cast<u16>(first_data_sector(numbers) + 4084);
    EXPECT_EQ(mount_from_scratch(numbers), (answer{-EINVAL, over_limit(4084, 0)}));
    EXPECT_EQ(geometry_of_volume(), (geometry{0, 32, numbers.total_16, 4084, 512, 1}));
    EXPECT_EQ(sv->root_dir, nullptr);
}

TEST_F(BootSector, FailedMountCanBeTriedAgain) {
    boot_numbers numbers = fat32_numbers();
    numbers.fat_size_32 = 0;
    EXPECT_EQ(mount(numbers).result, -EINVAL);
    numbers = fat16_numbers();
    numbers.total_16 = 4000;
    EXPECT_EQ(mount(numbers).result, -EINVAL);
    EXPECT_EQ(mount(fat32_numbers()), (answer{0, ""}));
    EXPECT_EQ(sv->fat_type, 32U);
    EXPECT_EQ(sv->root_clus, 2U);
    EXPECT_EQ(mount(fat16_numbers()), (answer{0, ""}));
    EXPECT_EQ(sv->fat_type, 16U);
    EXPECT_EQ(sv->root_clus, 0U);
    EXPECT_EQ(picture_of(0), tree::opened_root());
}

// ---- failures ---------------------------------------------------------------------------------

namespace {

class DisturbedMount : public BootSector {
protected:
    // The answers of a mount at every fault.
    std::vector<answer> answers(const boot_numbers &numbers, const fault_kind &kind) {
        forget_mount();
        put(numbers);
        return answers_at_every_fault(kind, [&](fault_step &step) {
            forget_geometry();
            const answer a =
                step.run_keeping([&] { return ask([] { return fat_build_super(); }); });
            if (!step.struck()) {
                expect_root_open();
                return a;
            }
            EXPECT_EQ(ids_in_use(), std::vector<int>()) << a;
            EXPECT_EQ(step.left_allocated(), 0) << a;
            return a;
        });
    }
};

const answer NO_SPACE{-ENOMEM, "fat_build_super[N]: Cannot allocate space\n"};
const answer NO_RECORD{-ENOMEM, "open_root_directory[N]: failed to allocate memory!\n\n"
                                "fat_build_super[N]: Cannot open root directory!\n\n"};

} // namespace

TEST_F(DisturbedMount, EachFaultOnFat16) {
    EXPECT_EQ(answers(fat16_numbers(), EVERY_ALLOCATION),
              (std::vector<answer>{NO_SPACE, NO_RECORD, {0, ""}}));
    EXPECT_EQ(answers(fat16_numbers(), EVERY_READ),
              (std::vector<answer>{{-EIO, NO_READ + NO_PBR}, {0, ""}}));
}

TEST_F(DisturbedMount, EachFaultOnFat32) {
    const std::string rest = " FAT\n\n" + BAD_CHAIN + NO_ROOT;
    EXPECT_EQ(
        answers(fat32_numbers(), EVERY_ALLOCATION),
        (std::vector<answer>{
            NO_SPACE, NO_RECORD, {-EINVAL, "fat_read_entry[N]: cannot allocate" + rest}, {0, ""}}));
    EXPECT_EQ(answers(fat32_numbers(), EVERY_READ),
              (std::vector<answer>{{-EIO, NO_READ + NO_PBR},
                                   {-EINVAL, "fat_read_entry[N]: cannot read" + rest},
                                   {0, ""}}));
}

// ---- image files ------------------------------------------------------------------------------

namespace {

// A target opened in the way of programs.
class ImageFile : public volume_test {
protected:
    [[nodiscard]] std::string image_of(const boot_numbers &numbers) const {
        const std::string path = scratch.sparse_file("disk.img", 64 * MIB);
        std::fstream stream(path, std::ios::binary | std::ios::in | std::ios::out);
        const bytes sector = boot_sector_of(numbers);
        stream.write(reinterpret_cast<const char *>(sector.data()), 512);
        if (numbers.fat_size_16 == 0) {
            stream.seekp(std::streamoff{numbers.reserved} * numbers.sector_size + 8);
            stream.write("\xFF\xFF\xFF\x0F", 4);
        }
        return path;
    }
    answer mount() {
        messages.clear();
        const int result = fat_build_super();
        EXPECT_TRUE(table_agrees());
        return {result, messages.text()};
    }
    // Closes the volume and checks that no descriptor and no open entry remains.
    void expect_all_closed() {
        EXPECT_EQ(fat_close_volume(0), 0);
        EXPECT_EQ(sv, nullptr);
        EXPECT_EQ(left_open(), std::vector<int>());
        EXPECT_EQ(ids_in_use(), std::vector<int>());
        EXPECT_TRUE(table_agrees());
    }
};

} // namespace

TEST_F(ImageFile, IsMountedAndLeftAsItWas) {
    for (const boot_numbers &numbers : {fat16_numbers(), fat32_numbers()}) {
        const std::string path = image_of(numbers);
        const bytes before = read_range(path, 0, MIB);
        const allocation_meter meter;
        ASSERT_GE(fat_open_volume(path.c_str(), 1, 0), 0);
        const failing_call no_write(call::write, EIO);
        EXPECT_EQ(mount(), (answer{0, ""}));
        EXPECT_EQ(fat_open("MISSING"), -ENOENT);
        EXPECT_FALSE(no_write.struck());
        expect_all_closed();
        EXPECT_EQ(meter.live_blocks(), 0);
        EXPECT_EQ(read_range(path, 0, MIB), before);
    }
}

TEST_F(ImageFile, SmallerThanTheFirstTransferIsUnreadable) {
    for (const std::uint64_t size : {1U, 512U, 4095U}) {
        ASSERT_GE(fat_open_volume(scratch.sparse_file("disk.img", size).c_str(), 1, 0), 0);
        EXPECT_EQ(mount(), (answer{-EIO, NO_READ + NO_PBR}));
        expect_all_closed();
    }
    ASSERT_GE(fat_open_volume(scratch.sparse_file("disk.img", 4096).c_str(), 1, 0), 0);
    EXPECT_EQ(mount(), (answer{-EINVAL, NO_SIGNATURE + NO_PBR}));
    expect_all_closed();
}

// The numbers of a refused boot sector do not define where the image can be cut.
TEST_F(ImageFile, ThatIsRefusedIsNotCut) {
    std::vector<broken_row> rows = broken_boot_sectors();
    for (const u32 clusters : {1U, 4084U}) {
        rows.push_back({{"FewClusters"}, fat16_numbers(), 512});
        rows.back().numbers.total_16 =
            static_cast<u16>(first_data_sector(fat16_numbers()) + clusters);
    }
    rows.push_back({{"NoRootEntries"}, fat16_numbers(), 512});
    rows.back().numbers.root_entries = 0;
    for (const broken_row &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_GE(fat_open_volume(image_of(row.numbers).c_str(), 1, 0), 0);
        EXPECT_EQ(mount().result, -EINVAL);
        messages.clear();
        EXPECT_EQ(fat_close_volume(1), -EINVAL);
        EXPECT_EQ(messages.text(), "fat_release_volume[N]: Check here!\n\n");
        EXPECT_EQ(std::filesystem::file_size(scratch.file("disk.img")), 64 * MIB);
        expect_all_closed();
    }
}

TEST_F(ImageFile, EachSystemCallThatFails) {
    const std::string path = image_of(fat32_numbers());
    const std::string no_fat = "fat_read_entry[N]: cannot read FAT\n\n" + BAD_CHAIN + NO_ROOT;
    const std::string no_transfer = "file_read_sectors[N]: Check here!: Input/output error";
    for (const call which : {call::read, call::lseek}) {
        const std::vector<answer> answers =
            answers_at_every_fault(every_call(which, EIO), [&](fault_step &step) {
                EXPECT_GE(fat_open_volume(path.c_str(), 1, 0), 0);
                return step.run([&] {
                    const answer a = mount();
                    expect_all_closed();
                    return a;
                });
            });
        const bool is_read = which == call::read;
        EXPECT_EQ(
            answers,
            (std::vector<answer>{
                {-EIO, no_transfer + (is_read ? "" : " (0 x 4096)") + "\n\n" + NO_READ + NO_PBR},
                {-EINVAL, no_transfer + (is_read ? "" : " (32 x 512)") + "\n\n" + no_fat},
                {0, ""}}));
    }
}

// ---- printing the boot sector -----------------------------------------------------------------

namespace {

// A string field: the bytes before its first zero byte.
std::string text_field(const bytes &sector, std::size_t offset, std::size_t size) {
    const std::string field(sector.begin() + static_cast<std::ptrdiff_t>(offset),
                            sector.begin() + static_cast<std::ptrdiff_t>(offset + size));
    return field.substr(0, field.find('\0'));
}

class PrintPbr : public BootSector {
protected:
    static printout try_to_print() {
        return to_stream([](FILE *stream) { return fat_print_pbr(stream); });
    }
    static std::string print() {
        const printout result = try_to_print();
        EXPECT_EQ(result, (printout{0, result.out, ""}));
        return result.out;
    }
};

} // namespace

TEST_F(PrintPbr, Fat16) {
    boot_numbers numbers = fat16_numbers();
    numbers.type = "FAT16   ";
    bytes sector = boot_sector_of(numbers);
    const std::string start = "\xEB\x3C\x90Torvik  ";
    std::copy(start.begin(), start.end(), sector.begin());
    put_number(&sector, 21, 1, 0xF8);
    put_number(&sector, 24, 2, 8);
    put_number(&sector, 26, 2, 1);
    put_number(&sector, 38, 1, 0x29);
    put_number(&sector, 39, 4, 0x89ABCDEF);
    const std::string label = "MY VOLUME  ";
    std::copy(label.begin(), label.end(), sector.begin() + 43);
    disk.poke(0, sector);
    const std::string expected = "\n==== PBR structure =====\n"
                                 " BS_jmpBoot:   \t0xEB 0x3C 0x90\n"
                                 " BS_oem_name:  \tTorvik  \n"
                                 " BPB_BytsPerSec:512\n"
                                 " BPB_SecPerClus:1\n"
                                 " BPB_RsvdSecCnt:1\n"
                                 " BPB_NumFATs: \t2\n"
                                 " BPB_RootEntCnt:512\n"
                                 " BPB_TotSec16:\t8097\n"
                                 " BPB_Media:\t0xF8\n"
                                 " BPB_FATSz16:\t32\n"
                                 " BPB_SecPerTrk:\t8\n"
                                 " BPB_NumHeads:\t1\n"
                                 " BPB_HiddSec:\t0\n"
                                 " BPB_TotSec32:\t0\n"
                                 " BS_DrvNum:\t0x0\n"
                                 " BS_BootSig:\t0x29\n"
                                 " BS_VolID:\t0x89abcdef\n"
                                 " BS_VolLab:\tMY VOLUME  \n"
                                 " BS_FilSysType:\tFAT16   \n"
                                 " BS_SIGNATURE:\t0xAA55\n"
                                 "========================\n";
    EXPECT_EQ(print(), expected);
    EXPECT_EQ(mount(), (answer{0, ""}));
    EXPECT_EQ(print(), expected);
}

TEST_F(PrintPbr, Fat32) {
    boot_numbers numbers = fat32_numbers();
    numbers.type = "FAT32   ";
    bytes sector = boot_sector_of(numbers);
    const std::string start = "\xEB\x58\x90Torvik  ";
    std::copy(start.begin(), start.end(), sector.begin());
    put_number(&sector, 21, 1, 0xF8);
    put_number(&sector, 28, 4, 63);
    put_number(&sector, 40, 2, 0x81);
    put_number(&sector, 42, 2, 3);
    put_number(&sector, 48, 2, 1);
    put_number(&sector, 50, 2, 6);
    put_number(&sector, 64, 1, 0x80);
    put_number(&sector, 66, 1, 0x29);
    put_number(&sector, 67, 4, 0xBEEF);
    disk.poke(0, sector);
    const std::string expected = "\n==== PBR structure =====\n"
                                 " BS_jmpBoot:   \t0xEB 0x58 0x90\n"
                                 " BS_oem_name:  \tTorvik  \n"
                                 " BPB_BytsPerSec:512\n"
                                 " BPB_SecPerClus:1\n"
                                 " BPB_RsvdSecCnt:32\n"
                                 " BPB_NumFATs: \t2\n"
                                 " BPB_RootEntCnt:0\n"
                                 " BPB_TotSec16:\t0\n"
                                 " BPB_Media:\t0xF8\n"
                                 " BPB_FATSz16:\t0\n"
                                 " BPB_SecPerTrk:\t0\n"
                                 " BPB_NumHeads:\t0\n"
                                 " BPB_HiddSec:\t63\n"
                                 " BPB_TotSec32:\t71232\n"
                                 " BPB_FATSz32:\t600\n"
                                 " BPB_ExtFlags:\t129\n"
                                 " BPB_FSVer:\t3\n"
                                 " BPB_RootClus:\t2\n"
                                 " BPB_FSInfo:\t1\n"
                                 " BPB_BkBootSec:\t6\n"
                                 " BS_DrvNum:\t0x80\n"
                                 " BS_BootSig:\t0x29\n"
                                 " BS_VolID:\t0xbeef\n"
                                 " BS_VolLab:\t\n"
                                 " BS_FilSysType:\tFAT32   \n"
                                 " BS_SIGNATURE:\t0xAA55\n"
                                 "========================\n";
    EXPECT_EQ(print(), expected);
    sv->long_name = 1;
    put(numbers);
    disk.poke(0, sector);
    EXPECT_EQ(mount(), (answer{0, ""}));
    EXPECT_EQ(print(), expected);
}

namespace {

// The expected text for any sector.
std::string pbr_text(const bytes &s) {
    const auto number = [&](std::size_t offset, std::size_t size) {
        std::uint32_t value = 0;
        for (std::size_t i = size; i-- > 0;) {
            value = value << 8 | s[offset + i];
        }
        return value;
    };
    std::string text;
    const auto line = [&](const char *format, auto... values) {
        std::array<char, 100> buffer = {};
        std::snprintf(buffer.data(), buffer.size(), format, values...);
        text += buffer.data();
    };
    text += "\n==== PBR structure =====\n";
    line(" BS_jmpBoot:   \t0x%X 0x%X 0x%X\n", s[0], s[1], s[2]);
    text += " BS_oem_name:  \t" + text_field(s, 3, 8) + "\n";
    line(" BPB_BytsPerSec:%u\n", number(11, 2));
    line(" BPB_SecPerClus:%u\n", number(13, 1));
    line(" BPB_RsvdSecCnt:%u\n", number(14, 2));
    line(" BPB_NumFATs: \t%u\n", number(16, 1));
    line(" BPB_RootEntCnt:%u\n", number(17, 2));
    line(" BPB_TotSec16:\t%u\n", number(19, 2));
    line(" BPB_Media:\t0x%X\n", number(21, 1));
    line(" BPB_FATSz16:\t%u\n", number(22, 2));
    line(" BPB_SecPerTrk:\t%u\n", number(24, 2));
    line(" BPB_NumHeads:\t%u\n", number(26, 2));
    line(" BPB_HiddSec:\t%u\n", number(28, 4));
    line(" BPB_TotSec32:\t%u\n", number(32, 4));
    std::size_t extended = 36;
    if (number(22, 2) == 0) {
        extended = 64;
        line(" BPB_FATSz32:\t%u\n", number(36, 4));
        line(" BPB_ExtFlags:\t%u\n", number(40, 2));
        line(" BPB_FSVer:\t%u\n", number(42, 2));
        line(" BPB_RootClus:\t%u\n", number(44, 4));
        line(" BPB_FSInfo:\t%u\n", number(48, 2));
        line(" BPB_BkBootSec:\t%u\n", number(50, 2));
    }
    line(" BS_DrvNum:\t0x%x\n", number(extended, 1));
    line(" BS_BootSig:\t0x%x\n", number(extended + 2, 1));
    line(" BS_VolID:\t0x%x\n", number(extended + 3, 4));
    text += " BS_VolLab:\t" + text_field(s, extended + 7, 11) + "\n";
    text += " BS_FilSysType:\t" + text_field(s, extended + 18, 8) + "\n";
    line(" BS_SIGNATURE:\t0x%04X\n", number(510, 2));
    return text + "========================\n";
}

} // namespace

TEST_F(PrintPbr, AnyBytes) {
    std::mt19937 chance(SEED);
    std::printf("seed %u\n", SEED);
    for (int i = 0; i < 500; i++) {
        bytes sector(512);
        for (u8 &byte : sector) {
            byte = static_cast<u8>(chance() % 8 == 0 ? 0 : chance());
        }
        if (chance() % 2 == 0) {
            put_number(&sector, 22, 2, 0);
        }
        put_number(&sector, 510, 2, 0xAA55);
        disk.poke(0, sector);
        sv->sector_size = chance() % 2 == 0 ? 0 : 512;
        ASSERT_EQ(print(), pbr_text(sector));
    }
}

TEST_F(PrintPbr, UnreadableOrUnsignedSectorIsNotPrinted) {
    const allocation_meter meter;
    EXPECT_EQ(try_to_print(),
              (printout{-EINVAL, "", NO_SIGNATURE + "fat_print_pbr[N]: unformated FAT volume\n"}));
    put(fat16_numbers());
    for (const int moved : {0, 2, -EINVAL, -EIO}) {
        disk.failure_result = moved;
        disk.reads_before_failure = 0;
        EXPECT_EQ(try_to_print(),
                  (printout{-EIO, "", NO_READ + "fat_print_pbr[N]: Unknown error!\n\n"}));
    }
}

// ---- the allocation hint ----------------------------------------------------------------------

TEST_F(BootSector, AllocationHintIsPrintedToAStream) {
    ASSERT_EQ(mount(fat16_numbers()), (answer{0, ""}));
    EXPECT_EQ(to_stream(print_alloc_hint),
              (printout{33, "last allocated cluster: 0 / 8002\n", ""}));
    sv->last_alloc_clus = sv->num_clusters = 0xFFFFFFFF;
    EXPECT_EQ(to_stream(print_alloc_hint),
              (printout{39, "last allocated cluster: 4294967295 / 1\n", ""}));
}

TEST_F(BootSector, AllocationHintOnAStreamThatCannotBeWritten) {
    const std::string path = "/dev/null";
    FILE *stream = std::fopen(path.c_str(), "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_LT(print_alloc_hint(stream), 0);
    std::fclose(stream);
}

// ---- the area before the volume ---------------------------------------------------------------

namespace {

class DeleteMbr : public ImageFile {
protected:
    void open_image(const boot_numbers &numbers) {
        ASSERT_GE(fat_open_volume(image_of(numbers).c_str(), 1, 0), 0);
    }
    answer delete_mbr(const std::string &path) {
        messages.clear();
        const int result = fat_delete_mbr(path.c_str());
        return {result, messages.text()};
    }
};

} // namespace

TEST_F(DeleteMbr, NothingIsCopiedFromAnEmptyArea) {
    ASSERT_NO_FATAL_FAILURE(open_image(fat16_numbers()));
    const std::string existing = scratch.file_with("existing", {1, 2, 3});
    const allocation_meter meter;
    for (const bool is_mounted : {false, true}) {
        if (is_mounted) {
            ASSERT_EQ(mount(), (answer{0, ""}));
        }
        const int blocks = meter.live_blocks();
        EXPECT_EQ(delete_mbr(scratch.file("new")), (answer{0, ""}));
        EXPECT_EQ(delete_mbr(existing), (answer{0, ""}));
        EXPECT_EQ(delete_mbr("/no/such/directory/new"), (answer{0, ""}));
        EXPECT_FALSE(std::filesystem::exists(scratch.file("new")));
        EXPECT_EQ(read_file(existing), (bytes{1, 2, 3}));
        EXPECT_EQ(meter.live_blocks(), blocks);
    }
    expect_all_closed();
}

TEST_F(DeleteMbr, InvalidBootSector) {
    const std::string failed = "fat_delete_mbr[N]: Failed to get PBR sector!\n\n";
    ASSERT_GE(fat_open_volume(scratch.sparse_file("blank.img", MIB).c_str(), 1, 0), 0);
    const allocation_meter meter;
    EXPECT_EQ(delete_mbr(scratch.file("new")), (answer{-EINVAL, NO_SIGNATURE + failed}));
    {
        const failing_call fault(call::read, EIO);
        EXPECT_EQ(delete_mbr(scratch.file("new")),
                  (answer{-EIO, "file_read_sectors[N]: Check here!: Input/output error\n\n" +
                                    NO_READ + failed}));
    }
    const failing_allocation fault(0);
    EXPECT_EQ(delete_mbr(scratch.file("new")),
              (answer{-ENOMEM, "fat_delete_mbr[N]: cannot allocate space\n"}));
    EXPECT_FALSE(std::filesystem::exists(scratch.file("new")));
    EXPECT_EQ(meter.live_blocks(), 0);
}

// ---- no volume --------------------------------------------------------------------------------
