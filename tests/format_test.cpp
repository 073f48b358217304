// Building and writing the tables: results, messages, the order of the writes, and every failure.

#include "fat/internal.h"
#include "tests/support/capture.h"
#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/moment.h"
#include "tests/support/ram_disk.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

using namespace testing_support;

namespace {

constexpr std::uint64_t MIB = 1024 * 1024;
constexpr std::uint8_t OLD_BYTE = 0xC3; // former content of the medium
// 2024-02-29 23:59:58 UTC: DOS time BF7D, date 585D.
constexpr time_t NOW = 1709251198;

// A volume to format and the expected positions of its areas. In sectors, except target_bytes.
struct scenario {
    const char *name;
    std::uint64_t target_bytes;
    std::uint32_t width;
    std::uint32_t sector_size;
    std::uint32_t cluster;
    std::uint32_t page_size;
    std::uint32_t fats;
    // The layout:
    std::uint32_t reserved;
    std::uint32_t fat;
    std::uint32_t root;
};
std::ostream &operator<<(std::ostream &out, const scenario &volume) {
    return out << volume.name;
}

constexpr scenario FAT16_LARGE_SECTORS = {
    "Fat16LargeSectors", 64 * MIB, 0, 4096, 1, 4096, 2, 1, 8, 4};
constexpr scenario FAT16_SMALL_SECTORS = {
    "Fat16SmallSectors", 4200 * 512, 16, 512, 1, 8192, 2, 16, 32, 32};
constexpr scenario FAT16_THREE_FATS = {"Fat16ThreeFats", 4200 * 512, 0, 512, 1, 0, 3, 1, 17, 32};
constexpr scenario FAT16_ONE_FAT = {"Fat16OneFat", 64 * MIB, 0, 4096, 1, 8192, 1, 2, 8, 4};
constexpr scenario FAT32_LARGE_SECTORS = {
    "Fat32LargeSectors", 512 * MIB, 0, 4096, 1, 4096, 2, 32, 128, 1};
constexpr scenario FAT32_LARGE_CLUSTERS = {
    "Fat32LargeClusters", 525258 * 512, 32, 512, 8, 4096, 2, 32, 512, 8};
constexpr scenario ALL[] = {FAT16_LARGE_SECTORS, FAT16_SMALL_SECTORS, FAT16_THREE_FATS,
                            FAT16_ONE_FAT,       FAT32_LARGE_SECTORS, FAT32_LARGE_CLUSTERS};

bool is_fat32(const scenario &volume) {
    return volume.reserved == 32;
}

fat_format_param request(const scenario &volume) {
    fat_format_param param = {};
    param.fat_size = volume.width;
    param.sec_per_clus = volume.cluster;
    param.sector_size = volume.sector_size;
    param.page_size = volume.page_size;
    param.root_entries = volume.width == 32 ? 0 : 512;
    param.nr_rsvd_sec = volume.width == 32 ? 32 : 1;
    param.nr_fat = volume.fats;
    param.volume_id = 0x01020304;
    std::memcpy(param.volume_label, "VOLUME     ", 12);
    return param;
}

// ---- the order in which sectors reach the medium ----

enum class stage { boot_sector, reserved, backup, fsinfo, fat, root };
struct step {
    stage what;
    std::uint64_t sector;
};

std::vector<step> steps_of(const scenario &volume) {
    std::vector<step> steps = {{stage::boot_sector, 0}};
    for (std::uint64_t sector = 1; sector < volume.reserved; sector++) {
        steps.push_back({stage::reserved, sector});
    }
    if (is_fat32(volume)) {
        steps.push_back({stage::backup, 6});
        steps.push_back({stage::fsinfo, 1});
    }
    std::uint64_t next = volume.reserved;
    for (std::uint32_t i = 0; i < volume.fats * volume.fat; i++) {
        steps.push_back({stage::fat, next++});
    }
    for (std::uint32_t i = 0; i < volume.root; i++) {
        steps.push_back({stage::root, next++});
    }
    return steps;
}

std::vector<std::uint64_t> sectors_of(const std::vector<step> &steps) {
    std::vector<std::uint64_t> result;
    for (const step &s : steps) {
        result.push_back(s.sector);
    }
    return result;
}

// The single sectors of a log of writes. The log must contain no read.
std::vector<std::uint64_t> sectors_of(const std::vector<transfer> &log) {
    std::vector<std::uint64_t> result;
    for (const transfer &t : log) {
        EXPECT_TRUE(t.is_write);
        for (std::uint32_t i = 0; i < t.count; i++) {
            result.push_back(t.sector + i);
        }
    }
    return result;
}

std::vector<std::uint64_t>
ranges(const std::vector<std::pair<std::uint64_t, std::uint64_t>> &first_and_count) {
    std::vector<std::uint64_t> result;
    for (const auto &[first, count] : first_and_count) {
        for (std::uint64_t i = 0; i < count; i++) {
            result.push_back(first + i);
        }
    }
    return result;
}

// ---- formatting once ----

// A medium with old bytes, and the messages of formatting it. The clock is stopped.
class formatting {
public:
    explicit formatting(const scenario &chosen)
        : volume(chosen), disk(chosen.target_bytes, OLD_BYTE), param(request(chosen)) {}

    // Formats; all memory must be freed.
    int run() {
        const allocation_meter meter;
        const int result = fat_format(&param);
        EXPECT_EQ(meter.live_blocks(), 0) << "memory was not freed";
        heap_peak = meter.peak_bytes();
        return result;
    }

    [[nodiscard]] bytes sector(std::uint64_t number) {
        return disk.peek(number * volume.sector_size, volume.sector_size);
    }

    const scenario volume;
    const stopped_clock clock{NOW};
    ram_disk disk;
    diagnostics messages;
    fat_format_param param;
    std::uint64_t heap_peak = 0;
};

// Checks that the medium contains `written` and is not changed elsewhere.
void expect_medium(formatting &after, const std::map<std::uint64_t, bytes> &written) {
    const std::uint32_t size = after.volume.sector_size;
    const bytes old(size, OLD_BYTE);
    for (const auto &[number, content] : written) {
        (void)after.sector(number); // makes its block known
    }
    for (const std::uint64_t block : after.disk.known_blocks()) {
        const std::uint8_t *content = after.disk.block(block);
        for (std::uint64_t at = 0; at < ram_disk::BLOCK; at += size) {
            const std::uint64_t number = (block * ram_disk::BLOCK + at) / size;
            const auto found = written.find(number);
            const bytes &expected = found != written.end() ? found->second : old;
            ASSERT_EQ(std::memcmp(content + at, expected.data(), size), 0) << "sector " << number;
        }
    }
}

class FormatOf : public testing::TestWithParam<scenario> {};
INSTANTIATE_TEST_SUITE_P(Format, FormatOf, testing::ValuesIn(ALL),
                         [](const auto &one) { return std::string(one.param.name); });

} // namespace

// ---- success ----------------------------------------------------------------------------------

TEST_P(FormatOf, ReturnsTheSectorsOfTheRootDirectoryAndPrintsNothing) {
    formatting format(GetParam());
    EXPECT_EQ(format.run(), static_cast<int>(GetParam().root));
    EXPECT_EQ(format.messages.text(), "");
    EXPECT_EQ(format.param.fat_size, is_fat32(GetParam()) ? 32U : 16U);
    EXPECT_EQ(format.param.nr_rsvd_sec, GetParam().reserved);
    EXPECT_EQ(format.param.root_entries, is_fat32(GetParam()) ? 0U : 512U);
}

TEST_P(FormatOf, WritesEverySectorInItsTurnAndReadsNone) {
    formatting format(GetParam());
    ASSERT_GT(format.run(), 0);
    EXPECT_EQ(sectors_of(format.disk.log), sectors_of(steps_of(GetParam())));
}

TEST_P(FormatOf, TakesNoMoreMemoryThanItsTablesAndOneMiB) {
    formatting format(GetParam());
    ASSERT_GT(format.run(), 0);
    const scenario &volume = GetParam();
    const std::uint64_t tables = std::uint64_t{volume.sector_size} * (2 + volume.fat + volume.root);
    EXPECT_LE(format.heap_peak, tables + MIB);
}

TEST_P(FormatOf, EveryFatCopyIsTheSame) {
    formatting format(GetParam());
    ASSERT_GT(format.run(), 0);
    const scenario &volume = GetParam();
    for (std::uint32_t i = 0; i < volume.fat; i++) {
        for (std::uint32_t copy = 1; copy < volume.fats; copy++) {
            ASSERT_EQ(format.sector(volume.reserved + i),
                      format.sector(volume.reserved + copy * volume.fat + i));
        }
    }
}

TEST_P(FormatOf, AnotherFormatOfTheSameMediumLeavesTheSameBytes) {
    formatting format(GetParam());
    ASSERT_GT(format.run(), 0);
    std::map<std::uint64_t, bytes> first;
    for (const step &s : steps_of(GetParam())) {
        first[s.sector] = format.sector(s.sector);
    }
    format.param = request(GetParam());
    ASSERT_GT(format.run(), 0);
    expect_medium(format, first);
}

TEST(Format, Fat16OfOneReservedSectorGoesFromSectorZeroThroughTheRootDirectory) {
    formatting format(FAT16_LARGE_SECTORS);
    ASSERT_EQ(format.run(), 4);
    EXPECT_EQ(sectors_of(format.disk.log), ranges({{0, 1}, {1, 8}, {9, 8}, {17, 4}}));
}

TEST(Format, Fat32ClearsItsReservedAreaBeforeBackupAndFsinfo) {
    formatting format(FAT32_LARGE_SECTORS);
    ASSERT_EQ(format.run(), 1);
    EXPECT_EQ(sectors_of(format.disk.log),
              ranges({{0, 1}, {1, 31}, {6, 1}, {1, 1}, {32, 128}, {160, 128}, {288, 1}}));
    const bytes zero(4096);
    for (std::uint64_t sector = 2; sector < 32; sector++) {
        if (sector != 6) {
            EXPECT_EQ(format.sector(sector), zero) << sector;
        }
    }
    EXPECT_EQ(format.sector(6), format.sector(0));
    EXPECT_EQ(format.sector(1)[0], 0x52);
}

TEST(Format, NothingOfTheDataAreaIsWrittenButTheRootCluster) {
    formatting fat32(FAT32_LARGE_CLUSTERS);
    ASSERT_EQ(fat32.run(), 8);
    EXPECT_EQ(sv->data_start, 1056U);
    EXPECT_EQ(fat32.sector(1056 + 8), bytes(512, OLD_BYTE));
    EXPECT_EQ(sectors_of(fat32.disk.log).back(), 1056U + 7);
}

TEST(Format, NothingOfTheDataAreaOfFat16IsWritten) {
    formatting fat16(FAT16_SMALL_SECTORS);
    ASSERT_EQ(fat16.run(), 32);
    EXPECT_EQ(sv->data_start, 112U);
    EXPECT_EQ(fat16.sector(112), bytes(512, OLD_BYTE));
    EXPECT_EQ(sectors_of(fat16.disk.log).back(), 111U);
}

TEST(Format, LargeSectorsCarryTheSignatureTwice) {
    formatting format(FAT16_LARGE_SECTORS);
    ASSERT_GT(format.run(), 0);
    const bytes sector = format.sector(0);
    EXPECT_EQ(bytes(sector.begin() + 510, sector.begin() + 512), (bytes{0x55, 0xAA}));
    EXPECT_EQ(bytes(sector.begin() + 4094, sector.end()), (bytes{0x55, 0xAA}));
    EXPECT_EQ(bytes(sector.begin() + 512, sector.begin() + 4094), bytes(4094 - 512));
}

TEST(Format, Fat16StartsWithTwoEntriesAndIsFreeAfterThem) {
    formatting format(FAT16_LARGE_SECTORS);
    ASSERT_GT(format.run(), 0);
    bytes expected(4096);
    std::copy_n(bytes{0xF8, 0xFF, 0xFF, 0xFF}.begin(), 4, expected.begin());
    EXPECT_EQ(format.sector(1), expected);
    EXPECT_EQ(format.sector(2), bytes(4096));
    EXPECT_EQ(sv->last_alloc_clus, 0U);
}

TEST(Format, Fat32StartsWithThreeEntriesAndIsFreeAfterThem) {
    formatting format(FAT32_LARGE_CLUSTERS);
    ASSERT_GT(format.run(), 0);
    bytes expected(512);
    const bytes entries = {0xF8, 0xFF, 0xFF, 0x0F, 0xFF, 0xFF, 0xFF, 0x0F, 0xFF, 0xFF, 0xFF, 0x0F};
    std::copy(entries.begin(), entries.end(), expected.begin());
    EXPECT_EQ(format.sector(32), expected);
    EXPECT_EQ(format.sector(33), bytes(512));
    EXPECT_EQ(sv->last_alloc_clus, 2U);
}

TEST(Format, TheDirectoryLabelIsBlankWhateverTheVolumeIsCalled) {
    formatting format(FAT16_LARGE_SECTORS);
    ASSERT_GT(format.run(), 0);
    bytes expected(4096);
    std::fill_n(expected.begin(), 11, static_cast<std::uint8_t>(' '));
    expected[11] = 0x08;
    expected[22] = 0x7D;
    expected[23] = 0xBF;
    expected[24] = 0x5D;
    expected[25] = 0x58;
    EXPECT_EQ(format.sector(17), expected);
    EXPECT_EQ(format.sector(18), bytes(4096));
}

TEST(Format, TheLabelIsStampedInLocalTime) {
    formatting format(FAT32_LARGE_CLUSTERS);
    const stopped_clock india(NOW, "<+0530>-5:30");
    ASSERT_GT(format.run(), 0);
    // 2024-03-01 05:29:58: time 2BBD, date 5861.
    const bytes label = format.sector(1056);
    EXPECT_EQ(bytes(label.begin() + 22, label.begin() + 26), (bytes{0xBD, 0x2B, 0x61, 0x58}));
}

TEST(Format, MemoryFollowsTheFatOfALargeVolumeAndNothingElse) {
    // 32 GiB in clusters of 4096 bytes: a FAT of 8177 sectors, 32 MiB.
    constexpr scenario LARGE = {"Large", 32768 * MIB, 0, 4096, 1, 4096, 2, 32, 8177, 1};
    formatting format(LARGE);
    ASSERT_EQ(format.run(), 1);
    EXPECT_EQ(sv->fat_size, 8177U);
    const std::uint64_t tables = (8177 + 1 + 1 + 1) * std::uint64_t{4096};
    EXPECT_LE(format.heap_peak, tables + MIB);
    EXPECT_EQ(sectors_of(format.disk.log), sectors_of(steps_of(LARGE)));
}

TEST(Format, AVolumeOfAnotherSectorSizeIsLaidOverTheFormerOne) {
    formatting format(FAT32_LARGE_SECTORS);
    ASSERT_GT(format.run(), 0);
    sv->vol_size = FAT16_SMALL_SECTORS.target_bytes;
    format.disk.log.clear();
    format.param = request(FAT16_SMALL_SECTORS);
    ASSERT_EQ(format.run(), 32);
    EXPECT_EQ(sectors_of(format.disk.log), sectors_of(steps_of(FAT16_SMALL_SECTORS)));
    EXPECT_EQ(sv->sector_size, 512U);
    EXPECT_EQ(sv->last_alloc_clus, 0U);
}

// ---- failures ---------------------------------------------------------------------------------

TEST(Format, ATargetThatIsTooSmallIsRefusedUntouched) {
    scenario tiny = FAT16_LARGE_SECTORS;
    tiny.target_bytes = 4 * 4096;
    formatting format(tiny);
    EXPECT_EQ(format.run(), -EINVAL);
    EXPECT_EQ(format.messages.text(),
              "Volume size(16384) is too small to format the volume to FAT16\n"
              "Retry to format after enlarge the volume size to larger than (rdir area(4) + "
              "reserved area(1)) * sector size(4096)\n"
              "create_pbr[N]: failed to calc_fat_sectors!\n\n"
              "make_tables[N]: Cannot create PBR!\n\n"
              "fat_format[N]: Failed to make table!\n\n");
    EXPECT_TRUE(format.disk.log.empty());
    expect_medium(format, {});
}

namespace {

// The expected messages if a transfer of `what` returns `result`; empty if that is not a failure.
std::string message_of(stage what, int result) {
    const std::string number = std::to_string(result);
    switch (what) {
    case stage::boot_sector:
        return "write_tables_vol[N]: Cannot write PBR sector\n\n";
    case stage::reserved:
        return result < 0 ? "write_tables_vol[N]: IO Error!\n\n" : "";
    case stage::backup:
        return "write_tables_vol[N]: Cannot write PBR backup!\n\n";
    case stage::fsinfo:
        return "write_tables_vol[N]: cannot write FSInfo sector\n";
    case stage::fat:
        return "write_tables_vol[N]: Cannot write FAT(" + number + ")\n\n";
    case stage::root:
        return "write_tables_vol[N]: Cannot write root directory(" + number + ")!\n\n";
    }
    return "";
}

// A format in which transfer number `failing` moves no sectors, or fewer than requested, and
// returns `result`.
class broken_format {
public:
    explicit broken_format(const scenario &volume) : volume_(volume), steps_(steps_of(volume)) {
        formatting whole(volume);
        EXPECT_GT(whole.run(), 0);
        log_ = whole.disk.log;
        for (const step &s : steps_) {
            final_[s.sector] = whole.sector(s.sector);
        }
    }

    [[nodiscard]] std::size_t transfers() const {
        return log_.size();
    }
    [[nodiscard]] int sectors_of_transfer(std::size_t number) const {
        return static_cast<int>(log_[number].count);
    }

    void expect_failure(std::size_t failing, int result) {
        SCOPED_TRACE("transfer " + std::to_string(failing) + " returns " + std::to_string(result));
        formatting format(volume_);
        format.disk.writes_before_failure = static_cast<int>(failing);
        format.disk.failure_result = result;
        const int outcome = format.run();

        const std::string message = message_of(steps_[first_step_of(failing)].what, result);
        EXPECT_EQ(format.messages.text(), message);
        EXPECT_EQ(outcome, message.empty() ? static_cast<int>(volume_.root) : -EIO);
        const std::size_t made = message.empty() ? log_.size() : failing + 1;
        const std::vector<transfer> expected_log(log_.begin(),
                                                 log_.begin() + static_cast<long>(made));
        EXPECT_EQ(format.disk.log, expected_log);
        expect_medium(format, medium_after(made, failing, result));
    }

private:
    [[nodiscard]] std::size_t first_step_of(std::size_t number) const {
        std::size_t steps = 0;
        for (std::size_t i = 0; i < number; i++) {
            steps += log_[i].count;
        }
        return steps;
    }

    // The content of the medium if the first `made` transfers succeeded and `failing` did not.
    [[nodiscard]] std::map<std::uint64_t, bytes> medium_after(std::size_t made, std::size_t failing,
                                                              int result) const {
        std::map<std::uint64_t, bytes> medium;
        for (std::size_t i = 0; i < made; i++) {
            const std::size_t first = first_step_of(i);
            const auto moved = i == failing ? static_cast<std::size_t>(std::max(result, 0))
                                            : std::size_t{log_[i].count};
            for (std::size_t j = first; j < first + moved; j++) {
                const step &s = steps_[j];
                medium[s.sector] =
                    s.what == stage::reserved ? bytes(volume_.sector_size) : final_.at(s.sector);
            }
        }
        return medium;
    }

    scenario volume_;
    std::vector<step> steps_;
    std::vector<transfer> log_;
    std::map<std::uint64_t, bytes> final_;
};

} // namespace

TEST_P(FormatOf, EveryFailingWriteIsReportedAndLeavesTheEarlierWrites) {
    broken_format format(GetParam());
    ASSERT_GT(format.transfers(), 0U);
    for (std::size_t failing = 0; failing < format.transfers(); failing++) {
        format.expect_failure(failing, -EIO);
        format.expect_failure(failing, -ENOSPC);
    }
}

TEST_P(FormatOf, EveryShortWriteIsReportedExceptInTheReservedArea) {
    broken_format format(GetParam());
    for (std::size_t failing = 0; failing < format.transfers(); failing++) {
        format.expect_failure(failing, 0);
        const int whole = format.sectors_of_transfer(failing);
        if (whole > 1) {
            format.expect_failure(failing, 1);
            format.expect_failure(failing, whole - 1);
        }
    }
}

TEST_P(FormatOf, AFormatAfterAFailedOneSucceeds) {
    formatting format(GetParam());
    format.disk.writes_before_failure = 2;
    EXPECT_EQ(format.run(), -EIO);
    format.param = request(GetParam());
    format.messages.clear();
    EXPECT_EQ(format.run(), static_cast<int>(GetParam().root));
}

namespace {

// `shortages`: the messages of each failing allocation.
void expect_shortages(const scenario &volume, const std::vector<std::string> &shortages) {
    std::size_t failures = 0;
    at_every_fault({EVERY_ALLOCATION}, [&](fault_step &step) {
        formatting format(volume);
        const int result = step.run([&] { return fat_format(&format.param); });
        if (!step.struck()) {
            EXPECT_EQ(result, static_cast<int>(volume.root));
            EXPECT_EQ(format.messages.text(), "");
            return;
        }
        failures++;
        ASSERT_LE(failures, shortages.size()) << "more allocations than known";
        EXPECT_EQ(result, -ENOMEM);
        EXPECT_EQ(format.messages.text(), shortages[failures - 1]);
        EXPECT_TRUE(format.disk.log.empty());
    });
    EXPECT_EQ(failures, shortages.size());
}

} // namespace

TEST(Format, EveryFailingAllocationIsReportedAndNothingIsWritten) {
    const std::string no_table = "fat_format[N]: Failed to make table!\n\n";
    const std::string none = "make_tables[N]: Failed to allocate memory!\n\n" + no_table;
    const std::string no_fsinfo = "make_tables[N]: Cannot create FSINFO!\n\n" + no_table;
    const std::string no_fat = "create_fat[N]: Unable to allocate FAT\n\n"
                               "make_tables[N]: Cannot create FAT!\n\n" +
                               no_table;
    const std::string no_root = "create_root_dir[N]: Cannot allocate root directory\n"
                                "make_tables[N]: Cannot create root directory!\n\n" +
                                no_table;
    const std::string no_sector = "write_tables_vol[N]: Failed to allocate memory!\n\n";
    expect_shortages(FAT16_LARGE_SECTORS, {none, no_fat, no_root, no_sector});
    expect_shortages(FAT32_LARGE_CLUSTERS, {none, no_fsinfo, no_fat, no_root, no_sector});
}

TEST_P(FormatOf, NoAllocationAtAllLeavesNothingAllocated) {
    formatting format(GetParam());
    const failing_allocation fault(0, true);
    EXPECT_EQ(format.run(), -ENOMEM);
    EXPECT_TRUE(format.disk.log.empty());
}

// ---- through a file ---------------------------------------------------------------------------

namespace {

// A format of a real file in which system calls fail.
class FormatOfFile : public testing::Test {
protected:
    FormatOfFile() {
        const std::string path = directory_.sparse_file("image", FAT16_SMALL_SECTORS.target_bytes);
        EXPECT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
    }
    ~FormatOfFile() override {
        fat_close_volume(0);
    }
    int run() {
        fat_format_param param = request(FAT16_SMALL_SECTORS);
        const allocation_meter meter;
        const int result = fat_format(&param);
        EXPECT_EQ(meter.live_blocks(), 0);
        return result;
    }
    diagnostics messages;

private:
    scratch_directory directory_;
};

} // namespace

TEST_F(FormatOfFile, AFailedSeekIsReportedByTheTransferAndByTheFormat) {
    const failing_call fault(call::lseek, EINVAL, 1);
    EXPECT_EQ(run(), -EIO);
    EXPECT_EQ(messages.text(), "file_write_sectors[N]: Check here!\n\n"
                               "write_tables_vol[N]: IO Error!\n\n");
}

TEST_F(FormatOfFile, AShortWriteOfTheFatReportsTheWrittenSectors) {
    // Every transfer moves at most 20 sectors and a half.
    const pretended_device device({.short_transfer_bytes = 20 * 512 + 256});
    EXPECT_EQ(run(), -EIO);
    EXPECT_EQ(messages.text(), "write_tables_vol[N]: Cannot write FAT(20)\n\n");
}

TEST_F(FormatOfFile, EveryFailedWriteEndsTheFormat) {
    at_every_fault({every_call(call::write, ENOSPC)}, [&](fault_step &step) {
        fat_format_param param = request(FAT16_SMALL_SECTORS);
        const int result = step.run([&] { return fat_format(&param); });
        EXPECT_EQ(result, step.struck() ? -EIO : 32);
        EXPECT_TRUE(step.k > 0 || messages.text() ==
                                      "file_write_sectors[N]: Check here!\n\n"
                                      "write_tables_vol[N]: Cannot write PBR sector\n\n");
        EXPECT_TRUE(step.struck() || step.k > 3);
    });
}

// ---- the steps by themselves ------------------------------------------------------------------

TEST(SetFatEntry, Fat16TakesTheLowSixteenBits) {
    bytes table(8, 0x77);
    EXPECT_EQ(fat::set_fat_entry(16, table.data(), 1, 0xABCD1234), 0);
    EXPECT_EQ(fat::set_fat_entry(16, table.data(), 3, 0xFFFFFFF8), 0);
    EXPECT_EQ(table, (bytes{0x77, 0x77, 0x34, 0x12, 0x77, 0x77, 0xF8, 0xFF}));
}

TEST(SetFatEntry, Fat32TakesTheLowTwentyEightBitsAndKeepsTheTopFour) {
    bytes table = {1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 5, 6, 7, 8};
    EXPECT_EQ(fat::set_fat_entry(32, table.data(), 1, 0x01234567), 0);
    EXPECT_EQ(fat::set_fat_entry(32, table.data(), 2, 0xF89ABCDE), 0);
    const bytes expected = {1, 2, 3, 4, 0x67, 0x45, 0x23, 0xF1, 0xDE, 0xBC, 0x9A, 0x08, 5, 6, 7, 8};
    EXPECT_EQ(table, expected);
    EXPECT_EQ(fat::set_fat_entry(32, table.data(), 1, 0), 0);
    EXPECT_EQ(bytes(table.begin() + 4, table.begin() + 8), (bytes{0, 0, 0, 0xF0}));
}

TEST(SetFatEntry, AnotherWidthIsRefused) {
    for (const std::uint32_t width : {0U, 12U, 17U, 28U, 64U}) {
        bytes table(64, 0x77);
        diagnostics messages;
        EXPECT_EQ(fat::set_fat_entry(width, table.data(), 1, 5), -EINVAL);
        EXPECT_EQ(messages.text(),
                  "set_fat_entry[N]: This library supports only FAT16 and FAT32\n");
        EXPECT_EQ(table, bytes(64, 0x77));
    }
}

namespace {

// The four tables of a volume; a test changes them or the volume and writes them.
class Tables : public testing::Test {
protected:
    void make(const scenario &volume) {
        format_.reset();
        format_ = std::make_unique<formatting>(volume);
        ASSERT_EQ(fat::make_tables(&format_->param, &pbr, &fsinfo, &fat, &rdir), 0);
        EXPECT_EQ(format_->messages.text(), "");
        EXPECT_TRUE(format_->disk.log.empty());
    }
    ~Tables() override {
        std::free(pbr);
        std::free(fsinfo);
        std::free(fat);
        std::free(rdir);
    }
    int write() {
        const allocation_meter meter;
        const int result = fat::write_tables_vol(&format_->param, pbr, rdir, fat, fsinfo);
        EXPECT_EQ(meter.live_blocks(), 0);
        return result;
    }
    std::string messages() {
        return format_->messages.text();
    }
    std::vector<std::uint64_t> written() {
        return sectors_of(format_->disk.log);
    }
    formatting &format() {
        return *format_;
    }

    core::u8 *pbr = nullptr;
    core::u8 *fsinfo = nullptr;
    core::u8 *fat = nullptr;
    core::u8 *rdir = nullptr;

private:
    std::unique_ptr<formatting> format_;
};

} // namespace

TEST_F(Tables, OfFat16HaveNoFsinfo) {
    make(FAT16_LARGE_SECTORS);
    EXPECT_NE(pbr, nullptr);
    EXPECT_EQ(fsinfo, nullptr);
    EXPECT_EQ(bytes(fat, fat + 6), (bytes{0xF8, 0xFF, 0xFF, 0xFF, 0, 0}));
    EXPECT_EQ(rdir[11], 0x08);
    // The signature at the end of a large sector is set by the write.
    EXPECT_EQ(bytes(pbr + 510, pbr + 512), (bytes{0x55, 0xAA}));
    EXPECT_EQ(bytes(pbr + 4094, pbr + 4096), (bytes{0, 0}));
    EXPECT_EQ(write(), 4);
    EXPECT_EQ(bytes(pbr + 4094, pbr + 4096), (bytes{0x55, 0xAA}));
}

TEST_F(Tables, OfFat32HaveFsinfo) {
    make(FAT32_LARGE_SECTORS);
    ASSERT_NE(fsinfo, nullptr);
    EXPECT_EQ(bytes(fsinfo, fsinfo + 4), (bytes{0x52, 0x52, 0x61, 0x41}));
    EXPECT_EQ(write(), 1);
}

TEST_F(Tables, ThatCouldNotBeMadeAreNotReturned) {
    formatting format(FAT32_LARGE_SECTORS);
    at_every_fault({EVERY_ALLOCATION}, [&](fault_step &step) {
        format.param = request(FAT32_LARGE_SECTORS);
        const int result = step.run_keeping(
            [&] { return fat::make_tables(&format.param, &pbr, &fsinfo, &fat, &rdir); });
        EXPECT_EQ(step.struck(), step.k < 4);
        EXPECT_EQ(result, step.struck() ? -ENOMEM : 0);
        EXPECT_EQ(step.left_allocated(), step.struck() ? 0 : 4);
        for (const core::u8 *table : {pbr, fsinfo, fat, rdir}) {
            EXPECT_EQ(table == nullptr, step.struck());
        }
    });
}

TEST_F(Tables, OfFat32WithoutFsinfoAreWrittenUpToThere) {
    make(FAT32_LARGE_SECTORS);
    std::free(fsinfo);
    fsinfo = nullptr;
    EXPECT_EQ(write(), -EIO);
    EXPECT_EQ(messages(), "write_tables_vol[N]: cannot write FSInfo sector\n");
    EXPECT_EQ(written(), ranges({{0, 1}, {1, 31}, {6, 1}}));
}

TEST_F(Tables, WithoutABackupFieldHaveNoBackup) {
    make(FAT32_LARGE_SECTORS);
    pbr[50] = 0;
    EXPECT_EQ(write(), 1);
    EXPECT_EQ(written(), ranges({{0, 1}, {1, 31}, {1, 1}, {32, 256}, {288, 1}}));
}

TEST_F(Tables, WithoutAnFsinfoFieldHaveNoFsinfo) {
    make(FAT32_LARGE_SECTORS);
    pbr[48] = 0;
    EXPECT_EQ(write(), 1);
    EXPECT_EQ(written(), ranges({{0, 1}, {1, 31}, {6, 1}, {32, 256}, {288, 1}}));
}

TEST_F(Tables, AreWrittenWhereTheBootSectorStates) {
    make(FAT32_LARGE_SECTORS);
    pbr[48] = 9;
    pbr[50] = 0x0C;
    pbr[51] = 0x01; // 268
    EXPECT_EQ(write(), 1);
    EXPECT_EQ(written(), ranges({{0, 1}, {1, 31}, {268, 1}, {9, 1}, {32, 256}, {288, 1}}));
}

TEST_F(Tables, OfAVolumeWithoutAFatAreWrittenUpToThere) {
    make(FAT16_SMALL_SECTORS);
    sv->fat_start = 0;
    sv->fat_size = 0;
    EXPECT_EQ(write(), -EINVAL);
    EXPECT_EQ(messages(), "write_tables_vol[N]: Not initialized value\n\n");
    EXPECT_EQ(written(), ranges({{0, 1}, {1, 15}}));
}

TEST_F(Tables, OfAVolumeWhoseFatStartsAtZeroAreWritten) {
    make(FAT16_SMALL_SECTORS);
    sv->fat_start = 0;
    EXPECT_EQ(write(), 32);
    EXPECT_EQ(written(), ranges({{0, 1}, {1, 15}, {0, 64}, {80, 32}}));
}

TEST_F(Tables, OfAVolumeWithoutARootDirectoryAreWrittenUpToThere) {
    make(FAT16_SMALL_SECTORS);
    sv->rdir_start = 0;
    EXPECT_EQ(write(), -EINVAL);
    EXPECT_EQ(messages(), "write_tables_vol[N]: Not initialized value\n\n");
    EXPECT_EQ(written(), ranges({{0, 1}, {1, 15}, {16, 64}}));
}

TEST_F(Tables, HaveARootDirectoryOfTheEntriesInTheBootSector) {
    make(FAT16_SMALL_SECTORS);
    // 33 entries: three sectors of 512 bytes.
    pbr[17] = 33;
    pbr[18] = 0;
    core::u8 *small = nullptr;
    const allocation_meter meter;
    EXPECT_EQ(fat::create_root_dir(pbr + 11, &small), 0);
    EXPECT_GE(meter.peak_bytes(), 3U * 512);
    EXPECT_LT(meter.peak_bytes(), 4U * 512);
    bytes expected(3 * 512);
    std::fill_n(expected.begin(), 11, static_cast<std::uint8_t>(' '));
    expected[11] = 0x08;
    expected[22] = 0x7D;
    expected[23] = 0xBF;
    expected[24] = 0x5D;
    expected[25] = 0x58;
    EXPECT_EQ(bytes(small, small + expected.size()), expected);
    std::free(small);
    EXPECT_EQ(write(), 3);
    EXPECT_EQ(written(), ranges({{0, 1}, {1, 15}, {16, 64}, {80, 3}}));
}

TEST_F(Tables, AFatOfItsOwnHasTheLengthOfTheVolumesFat) {
    make(FAT32_LARGE_CLUSTERS);
    sv->last_alloc_clus = 77;
    core::u8 *own = nullptr;
    const allocation_meter meter;
    EXPECT_EQ(fat::create_fat(pbr + 11, &own), 0);
    EXPECT_EQ(meter.peak_bytes(), 512U * 512);
    EXPECT_EQ(std::memcmp(own, fat, std::size_t{512} * 512), 0);
    EXPECT_EQ(sv->last_alloc_clus, 2U);
    std::free(own);
}

TEST_F(Tables, OfAVolumeOfNoWidthAreNotMade) {
    make(FAT16_LARGE_SECTORS);
    sv->fat_type = 12;
    core::u8 *table = nullptr;
    const allocation_meter meter;
    EXPECT_EQ(fat::create_fat(pbr + 11, &table), -EINVAL);
    EXPECT_EQ(messages(), "set_fat_entry[N]: This library supports only FAT16 and FAT32\n");
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(table, nullptr);
}
