// The boot sector and the FSInfo sector in memory, byte by byte, and the geometry that the boot
// sector sets in the volume record.

#include "fat/internal.h"
#include "tests/support/boot_sector.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/ram_disk.h"
#include "tests/support/rows.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>

using namespace testing_support;

namespace {

constexpr std::uint64_t MIB = 1024 * 1024;
constexpr std::uint32_t VOLUME_ID = 0x89ABCDEF;

// The fields in which a request may differ from the usual one.
struct request {
    std::uint32_t fat_size = 0;
    std::uint32_t sector_size = 4096;
    std::uint32_t sec_per_clus = 1;
    std::uint32_t page_size = 4096;
    std::uint32_t root_entries = 512;
    std::uint32_t nr_fat = 2;
    std::uint32_t sector_of_bkup = 0;
};
fat_format_param param_of(const request &asked) {
    fat_format_param param = {};
    param.fat_size = asked.fat_size;
    param.sec_per_clus = asked.sec_per_clus;
    param.sector_size = asked.sector_size;
    param.page_size = asked.page_size;
    param.root_entries = asked.root_entries;
    param.nr_rsvd_sec = 1;
    param.nr_fat = asked.nr_fat;
    param.sector_of_bkup = asked.sector_of_bkup;
    param.volume_id = VOLUME_ID;
    std::memcpy(param.volume_label, "MY VOLUME  ", 12);
    return param;
}

void put_text(bytes *sector, std::size_t offset, std::string_view text) {
    for (const char c : text) {
        sector->at(offset++) = static_cast<std::uint8_t>(c);
    }
}

// A sector with these numbers, the constant fields, and zeros everywhere else.
bytes formatted(const boot_numbers &numbers) {
    bytes sector = boot_sector_of(numbers);
    sector.resize(numbers.sector_size);
    const bool is_wide = numbers.fat_size_16 == 0;
    const std::size_t extended = is_wide ? 64 : 36; // drive number, reserved, signature, ...
    put_text(&sector, 0, is_wide ? "\xEB\x58\x90Torvik  " : "\xEB\x3C\x90Torvik  ");
    put_number(&sector, 21, 1, 0xF8); // media
    put_number(&sector, 24, 2, 8);    // sectors per track
    put_number(&sector, 26, 2, 1);    // heads
    if (is_wide) {
        put_number(&sector, 48, 2, 1); // FSInfo sector
        put_number(&sector, 50, 2, 6); // backup boot sector
    }
    put_number(&sector, extended + 2, 1, 0x29);
    put_number(&sector, extended + 3, 4, VOLUME_ID);
    put_text(&sector, extended + 7, "MY VOLUME  ");
    return sector;
}

// Where two sectors differ: "offset: is, should be".
std::string differences(const bytes &is, const bytes &should_be) {
    std::ostringstream text;
    if (is.size() != should_be.size()) {
        text << "sizes " << is.size() << " and " << should_be.size() << "\n";
    }
    for (std::size_t i = 0; i < std::min(is.size(), should_be.size()); i++) {
        if (is[i] != should_be[i]) {
            text << i << ": " << std::hex << int{is[i]} << ", " << int{should_be[i]} << std::dec
                 << "\n";
        }
    }
    return text.str();
}

class CreatePbr : public testing::Test {
protected:
    // The boot sector for a request on a target of `target_bytes`. The buffer is exactly one
    // sector.
    bytes boot_sector(std::uint64_t target_bytes, const request &asked = {}) {
        param = param_of(asked);
        return boot_sector_for_param(target_bytes);
    }
    bytes boot_sector_for_param(std::uint64_t target_bytes) {
        disk_.reset();
        disk_ = std::make_unique<ram_disk>(target_bytes);
        bytes sector(param.sector_size);
        EXPECT_EQ(fat::create_pbr(sector.data(), &param), 0);
        EXPECT_EQ(said_.text(), "");
        EXPECT_TRUE(disk_->log.empty());
        return sector;
    }

    fat_format_param param = param_of({});

private:
    diagnostics said_;
    std::unique_ptr<ram_disk> disk_;
};

std::uint32_t field(const bytes &sector, std::size_t offset, std::size_t size) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < size; i++) {
        value |= static_cast<std::uint32_t>(sector.at(offset + i)) << (8 * i);
    }
    return value;
}

// ---- whole sectors ----------------------------------------------------------------------------

// The numbers of a sector and the resulting geometry.
struct layout {
    boot_numbers numbers;
    geometry volume;
};
const layout FAT16_OF_64_MIB = {{4096, 1, 1, 2, 512, 16384, 8, 0, 0, 0, "FAT16   "},
                                {16, 8, 16384, 16363, 4096, 1, 0, 1, 17, 21}};
// The width is chosen by the number of clusters.
const layout FAT32_OF_512_MIB = {{4096, 1, 32, 2, 0, 0, 0, 131072, 128, 2, "FAT32   "},
                                 {32, 128, 131072, 130784, 4096, 1, 2, 32, 288, 288}};

struct layout_row : named_row {
    request asked;
    std::uint64_t target; // bytes
    layout made;
};

const layout_row LAYOUTS[] = {
    {"Fat16WithLargeSectors", {}, 64 * MIB, FAT16_OF_64_MIB},
    {"Fat16WithSmallSectors",
     {.sector_size = 512, .sec_per_clus = 8},
     64 * MIB,
     {{512, 8, 8, 2, 512, 0, 64, 131072, 0, 0, "FAT16   "},
      {16, 64, 131072, 16363, 512, 8, 0, 8, 136, 168}}},
    {"Fat16WithEntriesThatFillTheArea",
     {.page_size = 8192, .root_entries = 500},
     64 * MIB,
     {{4096, 1, 2, 2, 512, 16384, 8, 0, 0, 0, "FAT16   "},
      {16, 8, 16384, 16362, 4096, 1, 0, 2, 18, 22}}},
    {"Fat16HasNoBackupSector", {.sector_of_bkup = 6}, 64 * MIB, FAT16_OF_64_MIB},
    {"OneByteAfterTheLastSector", {}, 64 * MIB + 1, FAT16_OF_64_MIB},
    {"HalfASectorAfterTheLastOne", {}, 64 * MIB + 511, FAT16_OF_64_MIB},
    {"ASmallSectorAfterTheLastOne", {}, 64 * MIB + 512, FAT16_OF_64_MIB},
    {"AlmostASectorAfterTheLastOne", {}, 64 * MIB + 4095, FAT16_OF_64_MIB},
    {"AnOddSector", {}, 64 * MIB + 4096, FAT16_OF_64_MIB},
    {"AlmostTwoSectors", {}, 64 * MIB + 8191, FAT16_OF_64_MIB},
    {"Fat32WithLargeSectors", {}, 512 * MIB, FAT32_OF_512_MIB},
    {"Fat32WithSmallSectors",
     {.fat_size = 32, .sector_size = 512, .sec_per_clus = 8, .root_entries = 0},
     8192 * MIB,
     {{512, 8, 32, 2, 0, 0, 0, 16777216, 16360, 2, "FAT32   "},
      {32, 16360, 16777216, 2093058, 512, 8, 2, 32, 32752, 32752}}},
    {"Fat32BackupAskedInSector6", {.sector_of_bkup = 6}, 512 * MIB, FAT32_OF_512_MIB},
    {"Fat32BackupAskedInSector7", {.sector_of_bkup = 7}, 512 * MIB, FAT32_OF_512_MIB},
    {"Fat32BackupAskedInSector99", {.sector_of_bkup = 99}, 512 * MIB, FAT32_OF_512_MIB},
    {"Fat32BackupAskedInTheLast", {.sector_of_bkup = 0xFFFFFFFF}, 512 * MIB, FAT32_OF_512_MIB},
};

class PbrLayout : public CreatePbr, public testing::WithParamInterface<layout_row> {};
INSTANTIATE_TEST_SUITE_P(Requests, PbrLayout, testing::ValuesIn(LAYOUTS), row_name<layout_row>);

} // namespace

TEST_P(PbrLayout, IsTheRowAndNothingElse) {
    const layout_row &row = GetParam();
    EXPECT_EQ(differences(boot_sector(row.target, row.asked), formatted(row.made.numbers)), "");
    EXPECT_EQ(geometry_of_volume(), row.made.volume);
    EXPECT_EQ(param.fat_size, row.made.volume.fat_type);
    EXPECT_EQ(param.nr_rsvd_sec, row.made.numbers.reserved);
    EXPECT_EQ(param.root_entries, row.made.numbers.root_entries);
    EXPECT_EQ(param.sector_of_bkup, row.asked.sector_of_bkup);
}

// ---- single fields ----------------------------------------------------------------------------

TEST_F(CreatePbr, Fat16TotalMovesToTheWideFieldAt65536Sectors) {
    for (const std::uint32_t sector_size : {512U, 1024U, 2048U, 4096U}) {
        const request asked = {.fat_size = 16, .sector_size = sector_size, .sec_per_clus = 2};
        for (const std::uint32_t total : {65534U, 65536U}) {
            const bytes sector = boot_sector(std::uint64_t{total} * sector_size, asked);
            EXPECT_EQ(field(sector, 19, 2), total < 65536 ? total : 0);
            EXPECT_EQ(field(sector, 32, 4), total < 65536 ? 0 : total);
            EXPECT_EQ(sv->total_sectors, total);
        }
    }
}

TEST_F(CreatePbr, TheOddLastSectorIsLeftOut) {
    const bytes even = boot_sector(std::uint64_t{65534} * 4096);
    const geometry even_volume = geometry_of_volume();
    EXPECT_EQ(differences(boot_sector(std::uint64_t{65535} * 4096), even), "");
    EXPECT_EQ(geometry_of_volume(), even_volume);
    EXPECT_EQ(even_volume.total_sectors, 65534U);
    boot_sector(64 * MIB + 8192);
    EXPECT_EQ(sv->total_sectors, 16386U);
}

TEST_F(CreatePbr, SectorsAreCountedIn32Bits) {
    // 2^32 sectors and 100001 more.
    boot_sector(((std::uint64_t{1} << 32) + 100001) * 512, {.sector_size = 512});
    EXPECT_EQ(sv->total_sectors, 100000U);
}

TEST_F(CreatePbr, NumberOfFatsIsCountedInTheAreas) {
    for (const std::uint32_t fats : {1U, 255U}) {
        EXPECT_EQ(boot_sector(64 * MIB, {.nr_fat = fats})[16], fats);
        EXPECT_EQ(sv->rdir_start, 1 + fats * 8);
    }
}

TEST_F(CreatePbr, ClustersAreCountedFromTheFinalLayout) {
    // 3 sectors after the last whole cluster of 64 sectors.
    const std::uint32_t before_data = 1 + 2 * 20 + 32;
    boot_sector((before_data + 5000 * 64 + 3) * std::uint64_t{512},
                {.sector_size = 512, .sec_per_clus = 64, .page_size = 0});
    EXPECT_EQ(sv->data_start, before_data);
    EXPECT_EQ(sv->num_clusters, 5000U);
}

TEST_F(CreatePbr, LabelBytesAreTakenAsTheyAre) {
    std::memcpy(param.volume_label,
                "\xE5"
                "bc\0\xFF lower\t",
                12);
    const bytes sector = boot_sector_for_param(64 * MIB);
    EXPECT_EQ(std::memcmp(sector.data() + 43, param.volume_label, 11), 0);
    EXPECT_EQ(sector[54], 'F');
}

TEST_F(CreatePbr, Fat32KeepsItsReservedAreaAtThirtyTwoWithEveryPage) {
    for (const std::uint32_t page_size : {0U, 2048U, 4096U, 8192U}) {
        const request asked = {.sector_size = 512, .page_size = page_size};
        EXPECT_EQ(field(boot_sector(64 * MIB, asked), 14, 2), 32U);
        EXPECT_EQ(sv->fat_start, 32U);
    }
}

TEST_F(CreatePbr, AVolumeFormattedAgainForgetsItsFormerGeometry) {
    boot_sector(512 * MIB);
    EXPECT_EQ(sv->root_clus, 2U);
    sv->vol_size = 64 * MIB;
    param = param_of({});
    bytes sector(4096);
    EXPECT_EQ(fat::create_pbr(sector.data(), &param), 0);
    EXPECT_EQ(geometry_of_volume(), FAT16_OF_64_MIB.volume);
}

// ---- refusals ---------------------------------------------------------------------------------

TEST(CreatePbrRefusals, ATargetTooSmallLeavesSectorAndVolumeUntouched) {
    const ram_disk disk(4 * 4096);
    diagnostics messages;
    fat_format_param param = param_of({});
    bytes sector(4096);
    EXPECT_EQ(fat::create_pbr(sector.data(), &param), -EINVAL);
    EXPECT_EQ(messages.text(),
              "Volume size(16384) is too small to format the volume to FAT16\n"
              "Retry to format after enlarge the volume size to larger than (rdir area(4) + "
              "reserved area(1)) * sector size(4096)\n"
              "create_pbr[N]: failed to calc_fat_sectors!\n\n");
    EXPECT_EQ(differences(sector, bytes(4096)), "");
    EXPECT_EQ(geometry_of_volume(), geometry{});
    EXPECT_EQ(sv->vol_size, 4U * 4096);
}

// ---- FSInfo -----------------------------------------------------------------------------------

TEST(SetFsinfo, FillsItsFiveFieldsAndNothingElse) {
    for (const std::size_t size : {512U, 1024U, 2048U, 4096U}) {
        bytes sector(size);
        diagnostics messages;
        EXPECT_EQ(fat::set_fsinfo(sector.data()), 0);
        EXPECT_EQ(messages.text(), "");
        bytes expected(size);
        for (const auto &[offset, value] : {std::pair{0U, 0x41615252U},
                                            {484U, 0x61417272U},
                                            {488U, 0xFFFFFFFFU},
                                            {492U, 0xFFFFFFFFU},
                                            {508U, 0xAA550000U}}) {
            put_number(&expected, offset, 4, value);
        }
        EXPECT_EQ(differences(sector, expected), "");
    }
}
