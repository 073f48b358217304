// The boot sector and the FSInfo sector in memory, byte by byte, and the geometry that the boot
// sector leaves in the volume record.

#include "fat/internal.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/ram_disk.h"

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

fat_format_param request() {
    fat_format_param param = {};
    param.sec_per_clus = 1;
    param.sector_size = 4096;
    param.page_size = 4096;
    param.root_entries = 512;
    param.nr_rsvd_sec = 1;
    param.nr_fat = 2;
    param.volume_id = 0x89ABCDEF;
    std::memcpy(param.volume_label, "MY VOLUME  ", 12);
    return param;
}

// The geometry of the open volume.
struct geometry {
    std::uint32_t fat_type;
    std::uint32_t fat_size;
    std::uint32_t total_sectors;
    std::uint32_t num_clusters;
    std::uint32_t sector_size;
    std::uint32_t sec_per_clus;
    std::uint32_t root_clus;
    std::uint32_t fat_start;
    std::uint32_t rdir_start;
    std::uint32_t data_start;
    std::uint32_t pbr_start;
    bool operator==(const geometry &) const = default;
};
std::ostream &operator<<(std::ostream &out, const geometry &g) {
    return out << "{FAT" << g.fat_type << " of " << g.fat_size << " sectors, total "
               << g.total_sectors << ", clusters " << g.num_clusters << ", sectors of "
               << g.sector_size << " bytes, clusters of " << g.sec_per_clus << ", root cluster "
               << g.root_clus << ", FAT at " << g.fat_start << ", root at " << g.rdir_start
               << ", data at " << g.data_start << ", boot sector at " << g.pbr_start << "}";
}
geometry of_volume() {
    return {sv->fat_type,    sv->fat_size,     sv->total_sectors, sv->num_clusters,
            sv->sector_size, sv->sec_per_clus, sv->root_clus,     sv->fat_start,
            sv->rdir_start,  sv->data_start,   sv->pbr_start};
}

// A sector in which stretches of bytes are expected and everything else is zero.
class sector_picture {
public:
    explicit sector_picture(std::size_t size) : bytes_(size) {}
    sector_picture &at(std::size_t offset, std::initializer_list<int> values) {
        for (const int value : values) {
            bytes_.at(offset++) = static_cast<std::uint8_t>(value);
        }
        return *this;
    }
    sector_picture &at(std::size_t offset, std::string_view text) {
        for (const char c : text) {
            bytes_.at(offset++) = static_cast<std::uint8_t>(c);
        }
        return *this;
    }
    [[nodiscard]] const bytes &content() const {
        return bytes_;
    }

private:
    bytes bytes_;
};

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
    // The boot sector for `param` on a target of `target_bytes`. The buffer is exactly one sector.
    bytes boot_sector(std::uint64_t target_bytes) {
        disk_.reset();
        disk_ = std::make_unique<ram_disk>(target_bytes);
        bytes sector(param.sector_size);
        EXPECT_EQ(fat::create_pbr(sector.data(), &param), 0);
        EXPECT_EQ(said_.text(), "");
        EXPECT_TRUE(disk_->log.empty());
        return sector;
    }

    fat_format_param param = request();

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

} // namespace

// ---- FAT16 ------------------------------------------------------------------------------------

TEST_F(CreatePbr, Fat16WithLargeSectorsIsTheTableAndNothingElse) {
    // 16384 sectors: 1 reserved, FATs of 8, root area of 4.
    const bytes sector = boot_sector(64 * MIB);
    const bytes expected = sector_picture(4096)
                               .at(0, {0xEB, 0x3C, 0x90})
                               .at(3, "Torvik  ")
                               .at(11, {0x00, 0x10})             // bytes per sector
                               .at(13, {1})                      // sectors per cluster
                               .at(14, {1, 0})                   // reserved sectors
                               .at(16, {2})                      // FATs
                               .at(17, {0x00, 0x02})             // root entries
                               .at(19, {0x00, 0x40})             // total sectors, 16 bits
                               .at(21, {0xF8})                   // media
                               .at(22, {8, 0})                   // FAT size
                               .at(24, {8, 0})                   // sectors per track
                               .at(26, {1, 0})                   // heads
                               .at(28, {0, 0, 0, 0})             // hidden sectors
                               .at(32, {0, 0, 0, 0})             // total sectors, 32 bits
                               .at(36, {0x00, 0, 0x29})          // drive, reserved, signature
                               .at(39, {0xEF, 0xCD, 0xAB, 0x89}) // volume id
                               .at(43, "MY VOLUME  ")
                               .at(54, "FAT16   ")
                               .at(510, {0x55, 0xAA})
                               .content();
    EXPECT_EQ(differences(sector, expected), "");
    EXPECT_EQ(of_volume(), (geometry{.fat_type = 16,
                                     .fat_size = 8,
                                     .total_sectors = 16384,
                                     .num_clusters = 16363,
                                     .sector_size = 4096,
                                     .sec_per_clus = 1,
                                     .root_clus = 0,
                                     .fat_start = 1,
                                     .rdir_start = 17,
                                     .data_start = 21,
                                     .pbr_start = 0}));
}

TEST_F(CreatePbr, Fat16WithSmallSectorsIsTheTableAndNothingElse) {
    // 131072 sectors: 8 reserved, FATs of 64, root area of 32.
    param.sector_size = 512;
    param.sec_per_clus = 8;
    const bytes sector = boot_sector(64 * MIB);
    const bytes expected = sector_picture(512)
                               .at(0, {0xEB, 0x3C, 0x90})
                               .at(3, "Torvik  ")
                               .at(11, {0x00, 0x02})
                               .at(13, {8})
                               .at(14, {8, 0})
                               .at(16, {2})
                               .at(17, {0x00, 0x02})
                               .at(19, {0, 0})
                               .at(21, {0xF8})
                               .at(22, {64, 0})
                               .at(24, {8, 0, 1, 0})
                               .at(32, {0x00, 0x00, 0x02, 0x00})
                               .at(36, {0x00, 0, 0x29, 0xEF, 0xCD, 0xAB, 0x89})
                               .at(43, "MY VOLUME  FAT16   ")
                               .at(510, {0x55, 0xAA})
                               .content();
    EXPECT_EQ(differences(sector, expected), "");
    EXPECT_EQ(of_volume(), (geometry{.fat_type = 16,
                                     .fat_size = 64,
                                     .total_sectors = 131072,
                                     .num_clusters = 16363,
                                     .sector_size = 512,
                                     .sec_per_clus = 8,
                                     .root_clus = 0,
                                     .fat_start = 8,
                                     .rdir_start = 136,
                                     .data_start = 168,
                                     .pbr_start = 0}));
}

TEST_F(CreatePbr, Fat16TotalMovesToTheWideFieldAt65536Sectors) {
    for (const std::uint32_t sector_size : {512U, 1024U, 2048U, 4096U}) {
        param = request();
        param.fat_size = 16;
        param.sector_size = sector_size;
        param.sec_per_clus = 2;
        const bytes below = boot_sector(std::uint64_t{65534} * sector_size);
        EXPECT_EQ(field(below, 19, 2), 65534U);
        EXPECT_EQ(field(below, 32, 4), 0U);
        EXPECT_EQ(sv->total_sectors, 65534U);

        param = request();
        param.fat_size = 16;
        param.sector_size = sector_size;
        param.sec_per_clus = 2;
        const bytes above = boot_sector(std::uint64_t{65536} * sector_size);
        EXPECT_EQ(field(above, 19, 2), 0U);
        EXPECT_EQ(field(above, 32, 4), 65536U);
        EXPECT_EQ(sv->total_sectors, 65536U);
    }
}

TEST_F(CreatePbr, TheOddLastSectorIsLeftOut) {
    const bytes even = boot_sector(std::uint64_t{65534} * 4096);
    const geometry even_volume = of_volume();
    param = request();
    const bytes odd = boot_sector(std::uint64_t{65535} * 4096);
    EXPECT_EQ(differences(odd, even), "");
    EXPECT_EQ(of_volume(), even_volume);
    EXPECT_EQ(even_volume.total_sectors, 65534U);
}

TEST_F(CreatePbr, TheBytesBehindTheLastWholeSectorAreLeftOut) {
    const bytes whole = boot_sector(64 * MIB);
    for (const std::uint64_t rest : {1U, 511U, 512U, 4095U, 4096U, 8191U}) {
        param = request();
        EXPECT_EQ(differences(boot_sector(64 * MIB + rest), whole), "") << rest;
        EXPECT_EQ(sv->total_sectors, 16384U);
    }
    param = request();
    boot_sector(64 * MIB + 8192);
    EXPECT_EQ(sv->total_sectors, 16386U);
}

TEST_F(CreatePbr, SectorsAreCountedIn32Bits) {
    // 2^32 sectors and 100001 more.
    param.sector_size = 512;
    boot_sector(((std::uint64_t{1} << 32) + 100001) * 512);
    EXPECT_EQ(sv->total_sectors, 100000U);
}

TEST_F(CreatePbr, Fat16RootEntriesAreThoseThatFillTheArea) {
    param.root_entries = 500;
    param.page_size = 8192;
    const bytes sector = boot_sector(64 * MIB);
    EXPECT_EQ(field(sector, 17, 2), 512U);
    EXPECT_EQ(param.root_entries, 512U);
    EXPECT_EQ(of_volume(), (geometry{.fat_type = 16,
                                     .fat_size = 8,
                                     .total_sectors = 16384,
                                     .num_clusters = 16362,
                                     .sector_size = 4096,
                                     .sec_per_clus = 1,
                                     .root_clus = 0,
                                     .fat_start = 2,
                                     .rdir_start = 18,
                                     .data_start = 22,
                                     .pbr_start = 0}));
}

TEST_F(CreatePbr, NumberOfFatsIsCountedInTheAreas) {
    param.nr_fat = 255;
    const bytes sector = boot_sector(64 * MIB);
    EXPECT_EQ(sector[16], 255);
    EXPECT_EQ(sv->rdir_start, 1U + 255 * 8);
    param = request();
    param.nr_fat = 1;
    EXPECT_EQ(boot_sector(64 * MIB)[16], 1);
    EXPECT_EQ(sv->rdir_start, 9U);
}

TEST_F(CreatePbr, ClustersAreCountedFromTheFinalLayout) {
    // 3 sectors behind the last whole cluster of 64 sectors.
    param.sec_per_clus = 64;
    param.sector_size = 512;
    param.page_size = 0;
    const std::uint32_t before_data = 1 + 2 * 20 + 32;
    boot_sector((before_data + 5000 * 64 + 3) * std::uint64_t{512});
    EXPECT_EQ(sv->data_start, before_data);
    EXPECT_EQ(sv->num_clusters, 5000U);
}

TEST_F(CreatePbr, LabelBytesAreTakenAsTheyAre) {
    std::memcpy(param.volume_label,
                "\xE5"
                "bc\0\xFF lower\t",
                12);
    const bytes sector = boot_sector(64 * MIB);
    EXPECT_EQ(std::memcmp(sector.data() + 43, param.volume_label, 11), 0);
    EXPECT_EQ(sector[54], 'F');
}

// ---- FAT32 ------------------------------------------------------------------------------------

TEST_F(CreatePbr, Fat32WithLargeSectorsIsTheTableAndNothingElse) {
    // 131072 sectors: 32 reserved, FATs of 128. The width is chosen by the number of clusters.
    const bytes sector = boot_sector(512 * MIB);
    const bytes expected = sector_picture(4096)
                               .at(0, {0xEB, 0x58, 0x90})
                               .at(3, "Torvik  ")
                               .at(11, {0x00, 0x10})
                               .at(13, {1})
                               .at(14, {32, 0})
                               .at(16, {2})
                               .at(17, {0, 0}) // root entries
                               .at(19, {0, 0}) // total sectors, 16 bits
                               .at(21, {0xF8})
                               .at(22, {0, 0}) // FAT size, 16 bits
                               .at(24, {8, 0, 1, 0})
                               .at(28, {0, 0, 0, 0})
                               .at(32, {0x00, 0x00, 0x02, 0x00})
                               .at(36, {128, 0, 0, 0})  // FAT size, 32 bits
                               .at(40, {0, 0, 0, 0})    // extended flags, version
                               .at(44, {2, 0, 0, 0})    // root cluster
                               .at(48, {1, 0})          // FSInfo sector
                               .at(50, {6, 0})          // backup boot sector
                               .at(64, {0x00, 0, 0x29}) // drive, reserved, signature
                               .at(67, {0xEF, 0xCD, 0xAB, 0x89})
                               .at(71, "MY VOLUME  ")
                               .at(82, "FAT32   ")
                               .at(510, {0x55, 0xAA})
                               .content();
    EXPECT_EQ(differences(sector, expected), "");
    EXPECT_EQ(of_volume(), (geometry{.fat_type = 32,
                                     .fat_size = 128,
                                     .total_sectors = 131072,
                                     .num_clusters = 130784,
                                     .sector_size = 4096,
                                     .sec_per_clus = 1,
                                     .root_clus = 2,
                                     .fat_start = 32,
                                     .rdir_start = 288,
                                     .data_start = 288,
                                     .pbr_start = 0}));
    EXPECT_EQ(param.fat_size, 32U);
    EXPECT_EQ(param.nr_rsvd_sec, 32U);
    EXPECT_EQ(param.root_entries, 0U);
}

TEST_F(CreatePbr, Fat32WithSmallSectorsIsTheTableAndNothingElse) {
    // 16777216 sectors of 512 bytes, clusters of 8: FATs of 16360 sectors.
    param.fat_size = 32;
    param.sector_size = 512;
    param.sec_per_clus = 8;
    param.root_entries = 0;
    const bytes sector = boot_sector(8192 * MIB);
    const bytes expected = sector_picture(512)
                               .at(0, {0xEB, 0x58, 0x90})
                               .at(3, "Torvik  ")
                               .at(11, {0x00, 0x02, 8, 32, 0, 2})
                               .at(21, {0xF8})
                               .at(24, {8, 0, 1, 0})
                               .at(32, {0x00, 0x00, 0x00, 0x01})
                               .at(36, {0xE8, 0x3F, 0x00, 0x00})
                               .at(44, {2, 0, 0, 0, 1, 0, 6, 0})
                               .at(64, {0x00, 0, 0x29, 0xEF, 0xCD, 0xAB, 0x89})
                               .at(71, "MY VOLUME  FAT32   ")
                               .at(510, {0x55, 0xAA})
                               .content();
    EXPECT_EQ(differences(sector, expected), "");
    EXPECT_EQ(of_volume(), (geometry{.fat_type = 32,
                                     .fat_size = 16360,
                                     .total_sectors = 16777216,
                                     .num_clusters = 2093058,
                                     .sector_size = 512,
                                     .sec_per_clus = 8,
                                     .root_clus = 2,
                                     .fat_start = 32,
                                     .rdir_start = 32752,
                                     .data_start = 32752,
                                     .pbr_start = 0}));
}

TEST_F(CreatePbr, Fat32BackupSectorIsSixWhateverTheRequestHolds) {
    for (const std::uint32_t asked : {0U, 6U, 7U, 99U, 0xFFFFFFFFU}) {
        param = request();
        param.sector_of_bkup = asked;
        EXPECT_EQ(field(boot_sector(512 * MIB), 50, 2), 6U);
        EXPECT_EQ(param.sector_of_bkup, asked);
    }
}

TEST_F(CreatePbr, Fat16HasNoBackupSectorWhateverTheRequestHolds) {
    const bytes without = boot_sector(64 * MIB);
    param = request();
    param.sector_of_bkup = 6;
    EXPECT_EQ(differences(boot_sector(64 * MIB), without), "");
}

TEST_F(CreatePbr, Fat32KeepsItsReservedAreaAtThirtyTwoWithEveryPage) {
    for (const std::uint32_t page_size : {0U, 2048U, 4096U, 8192U}) {
        param = request();
        param.sector_size = 512;
        param.page_size = page_size;
        EXPECT_EQ(field(boot_sector(64 * MIB), 14, 2), 32U);
        EXPECT_EQ(sv->fat_start, 32U);
    }
}

TEST_F(CreatePbr, AVolumeFormattedAnewForgetsItsFormerGeometry) {
    boot_sector(512 * MIB);
    EXPECT_EQ(sv->root_clus, 2U);
    sv->vol_size = 64 * MIB;
    param = request();
    bytes sector(4096);
    EXPECT_EQ(fat::create_pbr(sector.data(), &param), 0);
    EXPECT_EQ(of_volume(), (geometry{.fat_type = 16,
                                     .fat_size = 8,
                                     .total_sectors = 16384,
                                     .num_clusters = 16363,
                                     .sector_size = 4096,
                                     .sec_per_clus = 1,
                                     .root_clus = 0,
                                     .fat_start = 1,
                                     .rdir_start = 17,
                                     .data_start = 21,
                                     .pbr_start = 0}));
}

// ---- refusals ---------------------------------------------------------------------------------

TEST(CreatePbrRefusals, ATargetTooSmallLeavesSectorAndVolumeUntouched) {
    const ram_disk disk(4 * 4096);
    diagnostics said;
    fat_format_param param = request();
    bytes sector(4096);
    EXPECT_EQ(fat::create_pbr(sector.data(), &param), -EINVAL);
    EXPECT_EQ(said.text(),
              "Volume size(16384) is too small to format the volume to FAT16\n"
              "Retry to format after enlarge the volume size to larger than (rdir area(4) + "
              "reserved area(1)) * sector size(4096)\n"
              "create_pbr[N]: failed to calc_fat_sectors!\n\n");
    EXPECT_EQ(differences(sector, bytes(4096)), "");
    EXPECT_EQ(of_volume(), geometry{});
    EXPECT_EQ(sv->vol_size, 4U * 4096);
}

// ---- FSInfo -----------------------------------------------------------------------------------

TEST(SetFsinfo, FillsItsFiveFieldsAndNothingElse) {
    for (const std::size_t size : {512U, 1024U, 2048U, 4096U}) {
        bytes sector(size);
        diagnostics said;
        EXPECT_EQ(fat::set_fsinfo(sector.data()), 0);
        EXPECT_EQ(said.text(), "");
        const bytes expected = sector_picture(size)
                                   .at(0, {0x52, 0x52, 0x61, 0x41})
                                   .at(484, {0x72, 0x72, 0x41, 0x61})
                                   .at(488, {0xFF, 0xFF, 0xFF, 0xFF})
                                   .at(492, {0xFF, 0xFF, 0xFF, 0xFF})
                                   .at(508, {0x00, 0x00, 0x55, 0xAA})
                                   .content();
        EXPECT_EQ(differences(sector, expected), "");
    }
}
