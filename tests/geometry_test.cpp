// The shape of a new volume: FAT width, FAT size, clusters, reserved and root areas, and every
// refusal with its whole text.

#include "fat/internal.h"
#include "tests/model/layout.h"
#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/ram_disk.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ostream>
#include <random>
#include <string>

using namespace testing_support;
using model::asked;
using model::format_calculation;
using model::volume_layout;

namespace {

constexpr std::uint64_t KIB = 1024;
constexpr std::uint64_t MIB = 1024 * KIB;

// All results of the calculation, with its messages.
struct decision {
    int result = 0;
    std::string messages = {};
    std::uint32_t width = 0;
    std::uint32_t reserved = 0;
    std::uint32_t root_entries = 0;
    std::uint32_t fat_sectors = 0;
    std::uint32_t clusters = 0;
    bool operator==(const decision &) const = default;
};
std::ostream &operator<<(std::ostream &out, const decision &d) {
    return out << "{result " << d.result << ", FAT" << d.width << ", reserved " << d.reserved
               << ", root entries " << d.root_entries << ", FAT sectors " << d.fat_sectors
               << ", clusters " << d.clusters << ", messages <" << d.messages << ">}";
}

// A request as it is after the defaults were filled in.
fat_format_param request(const asked &wish) {
    fat_format_param param = {};
    param.fat_size = wish.width;
    param.sec_per_clus = wish.cluster_sectors;
    param.sector_size = wish.sector_bytes;
    param.page_size = wish.page_bytes;
    param.root_entries = wish.root_entries;
    param.nr_fat = wish.fats;
    param.nr_rsvd_sec = 77; // not consulted
    param.sector_of_bkup = 78;
    return param;
}

constexpr std::uint32_t UNTOUCHED = 0xABABABAB;

// The decision for `total` sectors of a target of `target_bytes`. A refusal must change neither the
// request nor the result slots; the decision then has only a result and a text.
decision decide(const asked &wish, std::uint32_t total, std::uint64_t target_bytes) {
    const ram_disk disk(target_bytes);
    diagnostics messages;
    fat_format_param param = request(wish);
    decision made;
    made.fat_sectors = UNTOUCHED;
    made.clusters = UNTOUCHED;
    made.result = fat::calc_fat_sectors(&param, total, &made.fat_sectors, &made.clusters);
    made.messages = messages.text();
    if (made.result != 0) {
        const fat_format_param before = request(wish);
        EXPECT_EQ(std::memcmp(&param, &before, sizeof param), 0) << "the request was changed";
        EXPECT_EQ(made.fat_sectors, UNTOUCHED);
        EXPECT_EQ(made.clusters, UNTOUCHED);
        return {.result = made.result, .messages = made.messages};
    }
    made.width = param.fat_size;
    made.reserved = param.nr_rsvd_sec;
    made.root_entries = param.root_entries;
    return made;
}
decision decide(const asked &wish, std::uint32_t total) {
    return decide(wish, total, std::uint64_t{total} * wish.sector_bytes);
}

decision fat16(decision rest) {
    rest.width = 16;
    return rest;
}
decision fat32(decision rest) {
    rest.width = 32;
    return rest;
}
decision refused(const std::string &messages) {
    return {.result = -EINVAL, .messages = messages};
}

// The starts of the areas in sectors, as the boot sector and the volume record have them.
struct areas {
    std::uint32_t fat;
    std::uint32_t root;
    std::uint32_t data;
    bool operator==(const areas &) const = default;
};
std::ostream &operator<<(std::ostream &out, const areas &a) {
    return out << "{FAT " << a.fat << ", root " << a.root << ", data " << a.data << "}";
}

areas lay_out(const asked &wish, std::uint64_t target_bytes) {
    const ram_disk disk(target_bytes);
    const diagnostics unread;
    fat_format_param param = request(wish);
    std::vector<std::uint8_t> sector(wish.sector_bytes);
    EXPECT_EQ(fat::create_pbr(sector.data(), &param), 0);
    return {sv->fat_start, sv->rdir_start, sv->data_start};
}

} // namespace

// ---- rounding ---------------------------------------------------------------------------------

TEST(RoundUpTo, GivesTheNextMultipleAndTheUnitItselfForZero) {
    for (std::uint32_t unit = 1; unit <= 40; unit++) {
        std::uint32_t multiple = unit;
        for (std::uint32_t x = 0; x <= 200; x++) {
            if (x > multiple) {
                multiple += unit;
            }
            EXPECT_EQ(fat::round_up_to(x, unit), multiple) << x << " to " << unit;
        }
    }
}

TEST(RoundUpTo, ReachesTheEndOfThirtyTwoBits) {
    EXPECT_EQ(fat::round_up_to(0xFFFFFFF0U, 16), 0xFFFFFFF0U);
    EXPECT_EQ(fat::round_up_to(0xFFFFFFE1U, 16), 0xFFFFFFF0U);
    EXPECT_EQ(fat::round_up_to(0xFFFFFFFFU, 1), 0xFFFFFFFFU);
    EXPECT_EQ(fat::round_up_to(0x80000000U, 0x80000000U), 0x80000000U);
    EXPECT_EQ(fat::round_up_to(0, 0x80000000U), 0x80000000U);
}

// ---- accepted volumes -------------------------------------------------------------------------

TEST(CalcFatSectors, SixtyFourMiBInSectorsOf4096) {
    const asked wish = {.cluster_sectors = 1, .sector_bytes = 4096, .page_bytes = 4096};
    EXPECT_EQ(decide(wish, 16384),
              fat16({.reserved = 1, .root_entries = 512, .fat_sectors = 8, .clusters = 16363}));
    EXPECT_EQ(lay_out(wish, 64 * MIB), (areas{.fat = 1, .root = 17, .data = 21}));
    EXPECT_EQ(sv, nullptr);
}

TEST(CalcFatSectors, SixtyFourMiBInSectorsOf512AlignedToPagesOf4096) {
    const asked wish = {.cluster_sectors = 8, .sector_bytes = 512, .page_bytes = 4096};
    EXPECT_EQ(decide(wish, 131072),
              fat16({.reserved = 8, .root_entries = 512, .fat_sectors = 64, .clusters = 16363}));
    EXPECT_EQ(lay_out(wish, 64 * MIB), (areas{.fat = 8, .root = 136, .data = 168}));
}

TEST(CalcFatSectors, HalfAGiBExceedsFat16AndBecomesFat32) {
    const asked wish = {.cluster_sectors = 1, .sector_bytes = 4096, .page_bytes = 4096};
    const decision expected = fat32({.reserved = 32, .fat_sectors = 128, .clusters = 130784});
    EXPECT_EQ(decide(wish, 131072), expected);
    EXPECT_EQ(lay_out(wish, 512 * MIB), (areas{.fat = 32, .root = 288, .data = 288}));
}

TEST(CalcFatSectors, PageSizeZeroRoundsNothing) {
    const asked wish = {.cluster_sectors = 8, .sector_bytes = 512, .page_bytes = 0};
    EXPECT_EQ(decide(wish, 131000),
              fat16({.reserved = 1, .root_entries = 512, .fat_sectors = 64, .clusters = 16354}));
    EXPECT_EQ(lay_out(wish, 131000 * 512), (areas{.fat = 1, .root = 129, .data = 161}));

    // 4100 clusters need 17 sectors of FAT, whatever a page could hold.
    const asked small = {.cluster_sectors = 1, .sector_bytes = 512, .page_bytes = 0};
    EXPECT_EQ(decide(small, 4200),
              fat16({.reserved = 1, .root_entries = 512, .fat_sectors = 17, .clusters = 4133}));
    EXPECT_EQ(lay_out(small, 4200 * 512), (areas{.fat = 1, .root = 35, .data = 67}));
}

TEST(CalcFatSectors, PageOf8192RoundsEveryAreaToSixteenSmallSectors) {
    const asked wish = {.cluster_sectors = 1, .sector_bytes = 512, .page_bytes = 8192};
    EXPECT_EQ(decide(wish, 4200),
              fat16({.reserved = 16, .root_entries = 512, .fat_sectors = 32, .clusters = 4088}));
    EXPECT_EQ(lay_out(wish, 4200 * 512), (areas{.fat = 16, .root = 80, .data = 112}));
}

TEST(CalcFatSectors, PageOf8192RoundsEveryAreaToTwoLargeSectors) {
    const asked wish = {.cluster_sectors = 1, .sector_bytes = 4096, .page_bytes = 8192};
    EXPECT_EQ(decide(wish, 20000),
              fat16({.reserved = 2, .root_entries = 512, .fat_sectors = 10, .clusters = 19974}));
}

TEST(CalcFatSectors, PageSmallerThanTheSectorAlignsToSectors) {
    const asked wish = {.cluster_sectors = 1, .sector_bytes = 4096, .page_bytes = 2048};
    EXPECT_EQ(decide(wish, 16384),
              fat16({.reserved = 1, .root_entries = 512, .fat_sectors = 8, .clusters = 16363}));
}

TEST(CalcFatSectors, RootEntriesAreRoundedUpToFillTheirSectors) {
    // 500 x 32 bytes: four sectors of 4096 bytes hold 512 entries.
    asked wish = {.sector_bytes = 4096, .page_bytes = 0, .root_entries = 500};
    EXPECT_EQ(decide(wish, 16384).root_entries, 512U);
    // 40 entries fill 3 sectors of 512 bytes, 6 of them an 3072-byte page, 8 a page of 4096.
    wish = {.cluster_sectors = 8, .sector_bytes = 512, .page_bytes = 4096, .root_entries = 40};
    EXPECT_EQ(decide(wish, 131072).root_entries, 128U);
    // With alignment, even a root area without entries takes a page.
    wish.root_entries = 0;
    EXPECT_EQ(decide(wish, 131072).root_entries, 128U);
}

TEST(CalcFatSectors, OneAndThreeFatCopies) {
    asked wish = {.page_bytes = 4096, .fats = 1};
    EXPECT_EQ(decide(wish, 16384),
              fat16({.reserved = 1, .root_entries = 512, .fat_sectors = 8, .clusters = 16371}));
    EXPECT_EQ(lay_out(wish, 64 * MIB), (areas{.fat = 1, .root = 9, .data = 13}));
    wish.fats = 3;
    EXPECT_EQ(decide(wish, 16384).clusters, 16355U);
    EXPECT_EQ(lay_out(wish, 64 * MIB), (areas{.fat = 1, .root = 25, .data = 29}));
    wish.fats = 255;
    EXPECT_EQ(decide(wish, 16384).fat_sectors, 8U);
    EXPECT_EQ(decide(wish, 16384).clusters, 16379U - 255 * 8);
}

TEST(CalcFatSectors, TheEstimateCountsTheTwoEntriesOfEveryFatThatNameNoCluster) {
    // With many FATs, two entries too few or too many in the estimate move a FAT's end.
    const asked sixteen = {.sector_bytes = 512, .page_bytes = 0, .fats = 255};
    EXPECT_EQ(decide(sixteen, 8205),
              fat16({.reserved = 1, .root_entries = 512, .fat_sectors = 16, .clusters = 4092}));
    EXPECT_EQ(decide(sixteen, 8717),
              fat16({.reserved = 1, .root_entries = 512, .fat_sectors = 18, .clusters = 4094}));
    const asked thirty_two = {
        .width = 32, .sector_bytes = 512, .page_bytes = 0, .root_entries = 0, .fats = 128};
    EXPECT_EQ(decide(thirty_two, 150043),
              fat32({.reserved = 32, .fat_sectors = 586, .clusters = 75003}));
    EXPECT_EQ(decide(thirty_two, 150044),
              fat32({.reserved = 32, .fat_sectors = 587, .clusters = 74876}));
}

TEST(CalcFatSectors, TheRequestsOwnReservedSectorsAreIgnored) {
    const asked wish = {.width = 32, .root_entries = 0};
    EXPECT_EQ(decide(wish, 131072).reserved, 32U); // 77 in the request
    EXPECT_EQ(decide({}, 16384).reserved, 1U);
}

// ---- the limits -------------------------------------------------------------------------------

TEST(CalcFatSectors, Fat16StartsAt4085Clusters) {
    const std::string messages =
        "Cluster size(4096) is too large or volume size(16764928) is too small to format the "
        "device to FAT16.\n"
        "If you want to format the deivce to FAT16/32, retry to format after reduce the cluster "
        "size. Otherwise, retry to format the larger volume.\n"
        "num_clusters 4084 data area 4084\n";
    for (const std::uint32_t width : {0U, 16U}) {
        const asked wish = {.width = width};
        EXPECT_EQ(decide(wish, 4093), refused(messages));
        EXPECT_EQ(decide(wish, 4094),
                  fat16({.reserved = 1, .root_entries = 512, .fat_sectors = 2, .clusters = 4085}));
    }
}

TEST(CalcFatSectors, Fat16EndsAt65524ClustersWhenItIsAskedFor) {
    const asked wish = {.width = 16};
    EXPECT_EQ(decide(wish, 65593),
              fat16({.reserved = 1, .root_entries = 512, .fat_sectors = 32, .clusters = 65524}));
    EXPECT_EQ(decide(wish, 65594),
              refused("Cluster size(4096) is too small to format this to FAT16.\n"
                      "If you want to format this to FAT16, retry to format after enlarge the "
                      "cluster size. Otherwise, retry to format the device with FAT32 type.\n"
                      "fat 32 max 65524 num_clusters 65525\n"));
}

TEST(CalcFatSectors, AnInvalidWidthIsRefused) {
    const decision made = decide({.width = 12}, 5000);
    EXPECT_EQ(made.result, -EINVAL);
    EXPECT_NE(made.messages.find("Invalid format request: "), std::string::npos) << made.messages;
}

TEST(CalcFatSectors, BetweenTheWidthsAutomaticChoiceIsRefusedAsFat32) {
    // 65525 clusters are too many for FAT16, but the larger reserved area and FATs of FAT32 leave
    // too few.
    EXPECT_EQ(decide({}, 65593).width, 16U);
    EXPECT_EQ(decide({}, 65594),
              refused("Cluster size(4096) is too large to format the device to FAT32.\n"
                      "If you want to format the device to FAT32, retry to format after reduce the "
                      "cluster size\n"
                      "num_clusters 65434 data area 65434\n"));
}

TEST(CalcFatSectors, Fat32StartsAt65525Clusters) {
    for (const std::uint32_t width : {0U, 32U}) {
        const asked wish = {.width = width, .root_entries = width == 32 ? 0U : 512U};
        EXPECT_EQ(decide(wish, 65684),
                  refused("Cluster size(4096) is too large to format the device to FAT32.\n"
                          "If you want to format the device to FAT32, retry to format after reduce "
                          "the cluster size\n"
                          "num_clusters 65524 data area 65524\n"));
        const decision least = fat32({.reserved = 32, .fat_sectors = 64, .clusters = 65525});
        EXPECT_EQ(decide(wish, 65685), least);
    }
}

TEST(CalcFatSectors, Fat32EndsAt268435438Clusters) {
    for (const std::uint32_t width : {0U, 32U}) {
        const asked wish = {.width = width, .root_entries = width == 32 ? 0U : 512U};
        EXPECT_EQ(decide(wish, 268959758),
                  fat32({.reserved = 32, .fat_sectors = 262144, .clusters = 268435438}));
        EXPECT_EQ(decide(wish, 268959759),
                  refused("Number of clusters(268435439) is over the limitation of maximum cluster "
                          "counts for FAT32\n"
                          "Retry to format after reduce the cluster size\n"
                          "fat sectors 262144 max clusters 268435438 data area 268435439\n"));
    }
}

TEST(CalcFatSectors, Fat32EndsAt268435438ClustersOfEightSmallSectors) {
    // The data area passes 2^31 sectors here.
    const asked wish = {.width = 32, .cluster_sectors = 8, .sector_bytes = 512, .root_entries = 0};
    EXPECT_EQ(decide(wish, 2151677847),
              fat32({.reserved = 32, .fat_sectors = 2097152, .clusters = 268435438}));
    EXPECT_EQ(decide(wish, 2151677848),
              refused("Number of clusters(268435439) is over the limitation of maximum cluster "
                      "counts for FAT32\n"
                      "Retry to format after reduce the cluster size\n"
                      "fat sectors 2097152 max clusters 268435438 data area 2147483512\n"));
}

// ---- refusals ---------------------------------------------------------------------------------

TEST(CalcFatSectors, EightMiBHasTooFewClustersForFat16AndFat32IsNotTried) {
    EXPECT_EQ(decide({}, 2048),
              refused("Cluster size(4096) is too large or volume size(8388608) is too small to "
                      "format the device to FAT16.\n"
                      "If you want to format the deivce to FAT16/32, retry to format after reduce "
                      "the cluster size. Otherwise, retry to format the larger volume.\n"
                      "num_clusters 2041 data area 2041\n"));
}

TEST(CalcFatSectors, SixtyFourMiBHasTooFewClustersForFat32) {
    EXPECT_EQ(decide({.width = 32, .root_entries = 0}, 16384),
              refused("Cluster size(4096) is too large to format the device to FAT32.\n"
                      "If you want to format the device to FAT32, retry to format after reduce the "
                      "cluster size\n"
                      "num_clusters 16320 data area 16320\n"));
}

TEST(CalcFatSectors, FourSectorsOrFewerHaveNoRoomForTheAreasOfFat16) {
    for (std::uint32_t total = 0; total <= 4; total++) {
        EXPECT_EQ(decide({}, total),
                  refused("Volume size(" + std::to_string(total * 4096) +
                          ") is too small to format the volume to FAT16\n"
                          "Retry to format after enlarge the volume size to larger than (rdir "
                          "area(4) + reserved area(1)) * sector size(4096)\n"));
    }
}

TEST(CalcFatSectors, NoRoomLeftIsATooSmallVolumeOfNegativeClusters) {
    // Five sectors are just the areas; two FATs of a sector each do not fit.
    EXPECT_EQ(decide({}, 5),
              refused("Cluster size(4096) is too large or volume size(20480) is too small to "
                      "format the device to FAT16.\n"
                      "If you want to format the deivce to FAT16/32, retry to format after reduce "
                      "the cluster size. Otherwise, retry to format the larger volume.\n"
                      "num_clusters -2 data area -2\n"));
    EXPECT_EQ(decide({}, 7),
              refused("Cluster size(4096) is too large or volume size(28672) is too small to "
                      "format the device to FAT16.\n"
                      "If you want to format the deivce to FAT16/32, retry to format after reduce "
                      "the cluster size. Otherwise, retry to format the larger volume.\n"
                      "num_clusters 0 data area 0\n"));
}

TEST(CalcFatSectors, NegativeClustersAreRoundedDown) {
    // 34 sectors less 33 for the areas less two FATs leave -1 sector: cluster -1 of 8 sectors.
    const asked wish = {.cluster_sectors = 8, .sector_bytes = 512, .page_bytes = 0};
    EXPECT_EQ(decide(wish, 34),
              refused("Cluster size(4096) is too large or volume size(17408) is too small to "
                      "format the device to FAT16.\n"
                      "If you want to format the deivce to FAT16/32, retry to format after reduce "
                      "the cluster size. Otherwise, retry to format the larger volume.\n"
                      "num_clusters -1 data area -1\n"));
}

TEST(CalcFatSectors, TheAlignedReservedAreaCountsButTheMessagePrintsOne) {
    const asked wish = {.cluster_sectors = 1, .sector_bytes = 512, .page_bytes = 8192};
    EXPECT_EQ(decide(wish, 47), refused("Volume size(24064) is too small to format the volume to "
                                        "FAT16\n"
                                        "Retry to format after enlarge the volume size to larger "
                                        "than (rdir area(32) + reserved area(1)) * sector "
                                        "size(512)\n"));
    EXPECT_EQ(decide(wish, 48),
              refused("Cluster size(512) is too large or volume size(24576) is too small to format "
                      "the device to FAT16.\n"
                      "If you want to format the deivce to FAT16/32, retry to format after reduce "
                      "the cluster size. Otherwise, retry to format the larger volume.\n"
                      "num_clusters -32 data area -32\n"));
}

TEST(CalcFatSectors, ThirtyOneSectorsHaveNoRoomForTheReservedAreaOfFat32) {
    const asked wish = {.width = 32, .cluster_sectors = 2, .sector_bytes = 2048, .root_entries = 0};
    EXPECT_EQ(decide(wish, 31),
              refused("Volume size(63488) is too small to format the volume to FAT32\n"
                      "Retry to format after enlarge the volume size to larger than reserved "
                      "area(32) * sector size(2048)\n"));
    EXPECT_EQ(decide(wish, 32),
              refused("Cluster size(4096) is too large to format the device to FAT32.\n"
                      "If you want to format the device to FAT32, retry to format after reduce the "
                      "cluster size\n"
                      "num_clusters -2 data area -4\n"));
}

TEST(CalcFatSectors, TheMessagesNameTheSizeOfTheTargetNotOfItsSectors) {
    // 64-bit: the target is larger than its used part.
    EXPECT_EQ(decide({}, 4, 123456789012345).messages.substr(0, 28),
              "Volume size(123456789012345)");
    EXPECT_EQ(decide({.width = 32}, 4, 123456789012345).messages.substr(0, 28),
              "Volume size(123456789012345)");
}

TEST(CalcFatSectors, ARootAreaOfHalfKiBsIsRefused) {
    const std::string messages =
        "calc_fat_sectors[N]: RdirSize is not even multiple of 512Bytes!\n\n";
    // 16 entries are one sector of 512 bytes, 33 to 48 entries are three.
    asked wish = {.cluster_sectors = 8, .sector_bytes = 512, .page_bytes = 0, .root_entries = 16};
    EXPECT_EQ(decide(wish, 131072), refused(messages));
    wish.root_entries = 33;
    EXPECT_EQ(decide(wish, 131072), refused(messages));
    wish.width = 16;
    EXPECT_EQ(decide(wish, 131072), refused(messages));
    // The areas are measured after it.
    EXPECT_EQ(decide(wish, 2), refused(messages));
    // 17 to 32 entries are two sectors: 1024 bytes.
    wish.root_entries = 17;
    EXPECT_EQ(decide(wish, 131072).root_entries, 32U);
    // FAT32 has no root area.
    wish.width = 32;
    wish.root_entries = 16;
    wish.cluster_sectors = 1;
    EXPECT_EQ(decide(wish, 131072).width, 32U);
}

TEST(CalcFatSectors, APageThatNoSectorFitsIsReportedAndTheVolumeIsUnaligned) {
    const std::string messages =
        "calc_fat_sectors[N]: Can't align to page size(3000): Sector is 512\n";
    asked wish = {.cluster_sectors = 8, .sector_bytes = 512, .page_bytes = 3000};
    EXPECT_EQ(decide(wish, 131000), (decision{.messages = messages,
                                              .width = 16,
                                              .reserved = 1,
                                              .root_entries = 512,
                                              .fat_sectors = 64,
                                              .clusters = 16354}));
    EXPECT_EQ(lay_out(wish, 131000 * 512), (areas{.fat = 1, .root = 129, .data = 161}));
    wish = {.width = 32, .cluster_sectors = 1, .sector_bytes = 512, .page_bytes = 3000};
    EXPECT_EQ(decide(wish, 70000), (decision{.messages = messages,
                                             .width = 32,
                                             .reserved = 32,
                                             .root_entries = 0,
                                             .fat_sectors = 539,
                                             .clusters = 68890}));
}

TEST(CalcFatSectors, TheLargestPageThatNoSectorFitsIsPrintedAsASignedNumber) {
    const asked wish = {.cluster_sectors = 8, .sector_bytes = 512, .page_bytes = 0xFFFFFFFF};
    EXPECT_EQ(
        decide(wish, 131000),
        (decision{.messages = "calc_fat_sectors[N]: Can't align to page size(-1): Sector is 512\n",
                  .width = 16,
                  .reserved = 1,
                  .root_entries = 512,
                  .fat_sectors = 64,
                  .clusters = 16354}));
}

TEST(CalcFatSectors, ASectorThatNoPageFitsIsReportedToo) {
    const asked wish = {.cluster_sectors = 1, .sector_bytes = 4096, .page_bytes = 3000};
    EXPECT_EQ(
        decide(wish, 16384),
        (decision{.messages = "calc_fat_sectors[N]: Can't align to page size(3000): Sector is "
                              "4096\n",
                  .width = 16,
                  .reserved = 1,
                  .root_entries = 512,
                  .fat_sectors = 8,
                  .clusters = 16363}));
}

TEST(CalcFatSectors, TheAlignmentIsReportedOnceWhenTheChoiceContinuesWithFat32) {
    const asked wish = {.cluster_sectors = 1, .sector_bytes = 512, .page_bytes = 3000};
    EXPECT_EQ(decide(wish, 131072).messages,
              "calc_fat_sectors[N]: Can't align to page size(3000): Sector is 512\n");
    EXPECT_EQ(decide(wish, 131072).width, 32U);
}

TEST(CalcFatSectors, TheAlignmentIsReportedBeforeARefusal) {
    const asked wish = {.page_bytes = 3000};
    EXPECT_EQ(decide(wish, 2),
              refused("calc_fat_sectors[N]: Can't align to page size(3000): Sector is 4096\n"
                      "Volume size(8192) is too small to format the volume to FAT16\n"
                      "Retry to format after enlarge the volume size to larger than (rdir area(4) "
                      "+ reserved area(1)) * sector size(4096)\n"));
}

// ---- the far end ------------------------------------------------------------------------------

TEST(CalcFatSectors, TheLargestEvenTotalWithTheLargestClusters) {
    EXPECT_EQ(decide({.cluster_sectors = 64, .sector_bytes = 4096}, 4294967294U),
              fat32({.reserved = 32, .fat_sectors = 65535, .clusters = 67106815}));
    EXPECT_EQ(decide({.cluster_sectors = 64, .sector_bytes = 512}, 4294967294U),
              fat32({.reserved = 32, .fat_sectors = 524168, .clusters = 67092483}));
}

TEST(CalcFatSectors, TheLargestEvenTotalIsTooMuchForFat16) {
    const std::string advice =
        "If you want to format this to FAT16, retry to format after enlarge the cluster size. "
        "Otherwise, retry to format the device with FAT32 type.\n";
    // 4261672934 clusters, as an int.
    EXPECT_EQ(decide({.width = 16, .cluster_sectors = 1, .sector_bytes = 512}, 4294967294U),
              refused("Cluster size(512) is too small to format this to FAT16.\n" + advice +
                      "fat 16647160 max 65524 num_clusters -33294362\n"));
    EXPECT_EQ(decide({.width = 16, .cluster_sectors = 64, .sector_bytes = 4096}, 4294967294U),
              refused("Cluster size(262144) is too small to format this to FAT16.\n" + advice +
                      "fat 32768 max 65524 num_clusters 67107839\n"));
}

TEST(CalcFatSectors, TheLargestEvenTotalIsTooMuchForFat32WithSmallClusters) {
    // 4228890830 clusters; the data area is as large and printed as an int.
    for (const std::uint32_t width : {0U, 32U}) {
        EXPECT_EQ(decide({.width = width, .cluster_sectors = 1, .sector_bytes = 512}, 4294967294U),
                  refused("Number of clusters(4228890830) is over the limitation of maximum "
                          "cluster counts for FAT32\n"
                          "Retry to format after reduce the cluster size\n"
                          "fat sectors 33038216 max clusters 268435438 data area -66076466\n"));
    }
}

TEST(CalcFatSectors, TheLargestTotalWithManyFats) {
    const asked wish = {.width = 32, .cluster_sectors = 64, .sector_bytes = 4096, .fats = 255};
    const volume_layout expected =
        format_calculation(wish, 4294967295U * std::uint64_t{4096}, 4294967295U).decide();
    const decision made = decide(wish, 4294967295U);
    EXPECT_EQ(made.messages, expected.printed);
    EXPECT_EQ(made.fat_sectors, expected.fat_sectors);
    EXPECT_EQ(made.clusters, expected.clusters);
}

// ---- against the reference model --------------------------------------------------------------

namespace {

decision expected_decision(const asked &wish, std::uint32_t total) {
    const std::uint64_t target_bytes = std::uint64_t{total} * wish.sector_bytes;
    const volume_layout expected = format_calculation(wish, target_bytes, total).decide();
    if (expected.result != 0) {
        return refused(expected.printed);
    }
    return {.messages = expected.printed,
            .width = static_cast<std::uint32_t>(expected.width),
            .reserved = static_cast<std::uint32_t>(expected.reserved),
            .root_entries = static_cast<std::uint32_t>(expected.root_entries),
            .fat_sectors = static_cast<std::uint32_t>(expected.fat_sectors),
            .clusters = static_cast<std::uint32_t>(expected.clusters)};
}

} // namespace

TEST(CalcFatSectors, AgreesWithTheReferenceModelAroundEveryLimit) {
    for (const std::uint32_t sector : {512U, 1024U, 2048U, 4096U}) {
        for (const std::uint32_t cluster : {1U, 2U, 8U, 64U}) {
            for (const std::uint32_t page : {0U, 2048U, 4096U, 8192U, 65536U}) {
                for (const std::uint32_t width : {0U, 16U, 32U}) {
                    const asked wish = {.width = width,
                                        .cluster_sectors = cluster,
                                        .sector_bytes = sector,
                                        .page_bytes = page,
                                        .root_entries = width == 32 ? 0U : 512U};
                    for (const std::uint32_t limit : {0U, 4085U, 65525U}) {
                        // From 32 sectors before to 32 after, FATs and reserved area included.
                        const std::uint32_t middle = limit * cluster + limit * 8 / sector + 40;
                        for (std::uint32_t total = middle < 80 ? 0 : middle - 80;
                             total < middle + 80; total += 3) {
                            ASSERT_EQ(decide(wish, total), expected_decision(wish, total))
                                << total << " sectors";
                        }
                    }
                }
            }
        }
    }
}

TEST(CalcFatSectors, AgreesWithTheReferenceModelOnRandomRequests) {
    constexpr std::uint32_t SEED = 20240207;
    std::mt19937 random(SEED);
    std::printf("seed %u\n", SEED);
    const auto one_of = [&random](auto... choices) {
        const std::uint32_t list[] = {static_cast<std::uint32_t>(choices)...};
        return list[random() % std::size(list)];
    };
    int accepted = 0;
    int rejected = 0;
    for (int i = 0; i < 50000; i++) {
        const asked wish = {.width = one_of(0, 16, 32),
                            .cluster_sectors = 1U << random() % 7,
                            .sector_bytes = 512U << random() % 4,
                            .page_bytes = one_of(0, 2048, 4096, 8192, 65536, 3000, 1000),
                            .root_entries = one_of(512, 512, 64, 100, 1000, 2048),
                            .fats = one_of(1, 2, 2, 2, 3, 255)};
        // A random number of bits, so that small volumes are as frequent as large ones.
        const std::uint32_t total = static_cast<std::uint32_t>(random()) >> random() % 32;
        const decision made = decide(wish, total);
        ASSERT_EQ(made, expected_decision(wish, total)) << total << " sectors";
        (made.result == 0 ? accepted : rejected)++;
    }
    EXPECT_GT(accepted, 5000);
    EXPECT_GT(rejected, 5000);
}

// ---- requests that no options produce ---------------------------------------------------------

namespace {

std::string as_text(const asked &wish) {
    const std::string cluster = std::to_string(wish.cluster_sectors) + " sectors of " +
                                std::to_string(wish.sector_bytes) + " bytes";
    return "FAT" + std::to_string(wish.width) + ", " + std::to_string(wish.fats) + " FATs, " +
           cluster + " per cluster, " + std::to_string(wish.root_entries) +
           " root entries, page size " + std::to_string(wish.page_bytes);
}

void expect_refused_untouched(const asked &wish) {
    ram_disk disk(64 * MIB);
    diagnostics messages;
    fat_format_param param = request(wish);
    const fat_format_param before = param;
    const fat_super volume_before = *sv;
    {
        const failing_allocation none_allowed(0, true);
        const allocation_meter meter;
        EXPECT_EQ(fat_format(&param), -EINVAL);
        EXPECT_EQ(meter.peak_bytes(), 0U);
        EXPECT_FALSE(none_allowed.struck());
    }
    EXPECT_EQ(messages.text(), "make_tables[N]: Invalid format request: " + as_text(wish) +
                                   "\n\nfat_format[N]: Failed to make table!\n\n");
    EXPECT_TRUE(disk.log.empty());
    EXPECT_EQ(std::memcmp(&param, &before, sizeof param), 0);
    EXPECT_EQ(std::memcmp(sv, &volume_before, sizeof volume_before), 0);
}

} // namespace

TEST(FormatRequest, AnInvalidSectorSizeIsRefusedBeforeAnythingIsAllocatedOrWritten) {
    for (const std::uint32_t sector_bytes : {0U, 1U, 2U, 256U, 511U, 513U, 3072U, 4095U, 8192U,
                                             32768U, 65536U, 0x80000000U, 0xFFFFFFFFU}) {
        expect_refused_untouched({.sector_bytes = sector_bytes});
        expect_refused_untouched({.sector_bytes = sector_bytes, .page_bytes = 0});
        expect_refused_untouched({.width = 32, .sector_bytes = sector_bytes});
    }
    expect_refused_untouched({.cluster_sectors = 0, .sector_bytes = 32768});
}

TEST(FormatRequest, AnInvalidClusterSizeIsRefusedBeforeAnythingIsAllocatedOrWritten) {
    for (const std::uint32_t cluster_sectors :
         {0U, 3U, 6U, 63U, 65U, 96U, 128U, 256U, 0x80000000U, 0xFFFFFFFFU}) {
        expect_refused_untouched({.cluster_sectors = cluster_sectors});
        expect_refused_untouched({.cluster_sectors = cluster_sectors, .sector_bytes = 512});
        expect_refused_untouched({.width = 32, .cluster_sectors = cluster_sectors});
    }
}

TEST(FormatRequest, InvalidCountsAndWidthsAreRefusedBeforeAnythingIsAllocatedOrWritten) {
    for (const std::uint32_t fats : {0U, 256U, 257U, 0xFFFFFFFFU}) {
        expect_refused_untouched({.fats = fats});
    }
    for (const std::uint32_t width : {1U, 12U, 15U, 17U, 48U, 64U, 0xFFFFFFFFU}) {
        expect_refused_untouched({.width = width});
    }
    for (const std::uint32_t root_entries : {65536U, 0x08000000U, 0xFFFFFFFFU}) {
        expect_refused_untouched({.root_entries = root_entries});
    }
    for (const std::uint32_t page_bytes : {0x80000000U, 0xFFFFFE00U}) {
        expect_refused_untouched({.sector_bytes = 512, .page_bytes = page_bytes});
    }
}

namespace {

// Checks the messages of fat_format() for an impossible geometry, and that nothing was written.
std::string refusal_of_format(const asked &wish, std::uint64_t target_bytes) {
    ram_disk disk(target_bytes);
    diagnostics messages;
    fat_format_param param = request(wish);
    const allocation_meter meter;
    EXPECT_EQ(fat_format(&param), -EINVAL);
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_TRUE(disk.log.empty());
    return messages.text();
}

constexpr const char *CALLERS = "create_pbr[N]: failed to calc_fat_sectors!\n\n"
                                "make_tables[N]: Cannot create PBR!\n\n"
                                "fat_format[N]: Failed to make table!\n\n";

} // namespace

TEST(FormatRequest, ARootAreaThatItsFieldCannotHoldIsRefused) {
    // 65535 entries fill 512 sectors of 4096 bytes, which hold 65536: one more than fits 16 bits.
    const asked wish = {.root_entries = 65535};
    EXPECT_EQ(refusal_of_format(wish, 64 * MIB),
              std::string("calc_fat_sectors[N]: Invalid format request: FAT0, 2 FATs, 1 sectors of "
                          "4096 bytes per cluster, 65535 root entries, page size 4096\n\n") +
                  CALLERS);
}

TEST(FormatRequest, ARootAreaOfNoSectorIsRefused) {
    // There is no room for its first entry, the volume label.
    const asked wish = {.page_bytes = 0, .root_entries = 0};
    EXPECT_EQ(refusal_of_format(wish, 64 * MIB),
              std::string("calc_fat_sectors[N]: Invalid format request: FAT0, 2 FATs, 1 sectors of "
                          "4096 bytes per cluster, 0 root entries, page size 0\n\n") +
                  CALLERS);
}

TEST(FormatRequest, AReservedAreaThatItsFieldCannotHoldIsRefused) {
    // 65536 sectors to a page.
    const asked wish = {.sector_bytes = 512, .page_bytes = 32 * MIB};
    ram_disk disk(1024 * MIB);
    diagnostics messages;
    fat_format_param param = request(wish);
    const allocation_meter meter;
    EXPECT_EQ(fat_format(&param), -EINVAL);
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_TRUE(disk.log.empty());
}
