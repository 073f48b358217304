// FAT entries: reading and changing one, following a link, finding a free cluster, and the first
// sector of a cluster.

#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/volume.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

// The result and the messages of a call.
struct answer {
    std::int64_t result;
    std::string messages;
    bool operator==(const answer &) const = default;
};
std::ostream &operator<<(std::ostream &out, const answer &a) {
    return out << a.result << ", \"" << a.messages << "\"";
}

constexpr u32 UNTOUCHED = 0xDEADBEEF;

class any_shape : public testing::TestWithParam<volume_shape> {
protected:
    answer heard(std::int64_t result) {
        const answer a{result, messages.text()};
        messages.clear();
        return a;
    }

    // The value of an entry, or UNTOUCHED with the result in `error`.
    u32 value_of(u32 cluster) {
        u32 value = UNTOUCHED;
        EXPECT_EQ(heard(fat_read_entry(cluster, &value)), (answer{0, ""})) << "entry " << cluster;
        return value;
    }
    answer read_entry(u32 cluster) {
        u32 value = UNTOUCHED;
        const answer a = heard(fat_read_entry(cluster, &value));
        EXPECT_EQ(value, UNTOUCHED) << "a failed read stored a value";
        return a;
    }
    answer write_entry(u32 cluster, u32 value) {
        return heard(fat_write_entry(cluster, value));
    }
    answer read_clus(u32 cluster) {
        return heard(fat_read_clus(cluster));
    }
    answer free_clus(u32 first, u32 last) {
        return heard(fat_free_clus(first, last));
    }

    // The transfers between the disk and the library.
    std::vector<transfer> transfers() {
        return std::exchange(v.disk.log, {});
    }
    static transfer read_of(u32 cluster) {
        return {false, volume::fat_sector_of(cluster), 1};
    }
    static transfer write_of(u32 cluster) {
        return {true, volume::fat_sector_of(cluster), 1};
    }

    // Number of entries in one sector of the FAT.
    [[nodiscard]] static u32 entries_per_fat_sector() {
        return sv->sector_size / (sv->fat_type / 8);
    }
    // Sets the end mark in every cluster from `first` to `last`.
    void occupy(u32 first, u32 last) {
        for (u32 cluster = first; cluster <= last; cluster++) {
            v.set_link(cluster, volume::end_mark());
        }
    }

    volume v{GetParam()};
    diagnostics messages;
};

class ReadEntry : public any_shape {};
class WriteEntry : public any_shape {};
class ReadClus : public any_shape {};
class FreeClus : public any_shape {};
class FatSector : public any_shape {};
class Fat32Entry : public any_shape {};

INSTANTIATE_TEST_SUITE_P(Shapes, ReadEntry, testing::ValuesIn(many_shapes()), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, WriteEntry, testing::ValuesIn(many_shapes()), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, ReadClus, testing::ValuesIn(many_shapes()), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, FreeClus, testing::ValuesIn(many_shapes()), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, FatSector, testing::ValuesIn(many_shapes()), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, Fat32Entry, testing::ValuesIn(many_shapes(32)), shape_name);

// Results of a transfer of one sector: negative, zero or two.
constexpr int NOT_ONE_SECTOR[] = {-1, -5, -28, 0, 2};

} // namespace

// ---- reading an entry -------------------------------------------------------------------------

TEST_P(ReadEntry, GivesWhatFormattingLeft) {
    EXPECT_EQ(value_of(0), volume::end_mark() - 7);
    EXPECT_EQ(value_of(1), volume::end_mark());
    EXPECT_EQ(value_of(volume::last_cluster()), 0U);
}

TEST_P(ReadEntry, GivesEveryValueThatAnEntryHolds) {
    for (const u32 value :
         {0x0000U, 0x0001U, 0x0002U, 0x1234U, 0xFFF6U, 0xFFF7U, 0xFFF8U, 0xFFFFU}) {
        v.set_link(7, value);
        EXPECT_EQ(value_of(7), value);
    }
}

TEST_P(ReadEntry, NeighboursAreNotTakenForTheEntry) {
    v.set_link(6, 0x6666);
    v.set_link(7, 0x7777);
    v.set_link(8, 0x8888);
    EXPECT_EQ(value_of(7), 0x7777U);
}

TEST_P(ReadEntry, FirstAndLastEntryOfEverySectorAreFound) {
    const u32 per_sector = entries_per_fat_sector();
    for (u32 sector = 0; sector < std::min(sv->fat_size, 5U); sector++) {
        const u32 first = sector * per_sector;
        v.set_link(first, 0x1000 + sector);
        v.set_link(first + per_sector - 1, 0x2000 + sector);
        EXPECT_EQ(value_of(first), 0x1000 + sector);
        EXPECT_EQ(value_of(first + per_sector - 1), 0x2000 + sector);
    }
}

TEST_P(ReadEntry, IndexIsNotCheckedAgainstTheVolume) {
    const u32 past = sv->num_clusters + 2;
    v.set_link(past, 0x4321);
    EXPECT_EQ(value_of(past), 0x4321U);
    // Entry 0 of the second copy, addressed through the first one.
    const u32 in_second_copy = sv->fat_size * entries_per_fat_sector();
    EXPECT_EQ(value_of(in_second_copy), volume::end_mark() - 7);
}

TEST_P(ReadEntry, ReadsTheOneSectorOfTheEntry) {
    for (const u32 cluster : {0U, 1U, 2U, entries_per_fat_sector() - 1, entries_per_fat_sector(),
                              volume::last_cluster()}) {
        transfers();
        value_of(cluster);
        EXPECT_EQ(transfers(), std::vector{read_of(cluster)}) << "entry " << cluster;
    }
}

TEST_P(ReadEntry, IndexFarPastTheMediumIsStillRequestedFromIt) {
    sv->vol_size = u64{sv->data_start} * sv->sector_size;
    for (const u32 cluster : {0x3FFFFFFFU, 0x40000000U, 0x7FFFFFFFU, 0x80000003U, 0xFFFFFFFFU}) {
        const u64 sector = sv->fat_start + u64{cluster} * (sv->fat_type / 8) / sv->sector_size;
        EXPECT_EQ(read_entry(cluster), (answer{-EIO, "fat_read_entry[N]: cannot read FAT\n\n"}));
        EXPECT_EQ(transfers(), (std::vector<transfer>{{false, sector, 1}})) << "entry " << cluster;
    }
}

TEST_P(ReadEntry, OtherFatTypesAreRefused) {
    for (const u32 type : {0U, 12U, 15U, 17U, 64U}) {
        sv->fat_type = type;
        EXPECT_EQ(read_entry(5), (answer{-EINVAL, "fat_read_entry[N]: Invalid FAT type\n\n"}));
    }
    EXPECT_TRUE(transfers().empty());
}

TEST_P(ReadEntry, TransferOfAnyOtherCountFails) {
    for (const int moved : NOT_ONE_SECTOR) {
        v.disk.reads_before_failure = 0;
        v.disk.failure_result = moved;
        EXPECT_EQ(read_entry(5), (answer{-EIO, "fat_read_entry[N]: cannot read FAT\n\n"}))
            << moved << " sectors";
    }
}

TEST_P(ReadEntry, SeesAChangeOfTheMediumAtOnce) {
    v.set_link(5, 6);
    EXPECT_EQ(value_of(5), 6U);
    v.set_link(5, 7);
    EXPECT_EQ(value_of(5), 7U);
}

// ---- changing an entry ------------------------------------------------------------------------

TEST_P(WriteEntry, ChangesTheEntryAndNoOtherByteOfTheVolume) {
    const u32 cluster = entries_per_fat_sector() + 3;
    std::vector<u8> expected = v.fat_copy(0);
    const std::vector<u8> second = v.fat_copy(1);
    const std::size_t at = std::size_t{cluster} * (sv->fat_type / 8);
    expected[at] = 0x34;
    expected[at + 1] = 0x12;
    EXPECT_EQ(write_entry(cluster, 0x1234), (answer{0, ""}));
    EXPECT_EQ(v.fat_copy(0), expected);
    EXPECT_EQ(v.fat_copy(1), second);
}

TEST_P(WriteEntry, SectorIsReadBeforeItIsWritten) {
    for (const u32 cluster :
         {0U, 1U, 2U, entries_per_fat_sector(), volume::last_cluster(), sv->num_clusters + 2}) {
        transfers();
        EXPECT_EQ(write_entry(cluster, 3), (answer{0, ""}));
        EXPECT_EQ(transfers(), (std::vector{read_of(cluster), write_of(cluster)}));
        EXPECT_EQ(v.link(cluster), 3U);
    }
}

TEST_P(WriteEntry, AllOnesEndAChain) {
    EXPECT_EQ(write_entry(5, 0xFFFFFFFF), (answer{0, ""}));
    EXPECT_EQ(v.link(5), volume::end_mark());
}

TEST_P(WriteEntry, ZeroFrees) {
    v.set_link(5, 9);
    EXPECT_EQ(write_entry(5, 0), (answer{0, ""}));
    EXPECT_EQ(v.link(5), 0U);
}

TEST_P(WriteEntry, HighBitsOfTheValueAreDropped) {
    EXPECT_EQ(write_entry(5, 0xABCD4321), (answer{0, ""}));
    EXPECT_EQ(v.link(5), sv->fat_type == 16 ? 0x4321U : 0x0BCD4321U);
}

TEST_P(WriteEntry, SecondCopyNeverChanges) {
    const std::vector<u8> second = v.fat_copy(1);
    for (u32 cluster = 0; cluster < 2 * entries_per_fat_sector(); cluster += 97) {
        EXPECT_EQ(write_entry(cluster, cluster + 1), (answer{0, ""}));
    }
    EXPECT_EQ(v.fat_copy(1), second);
    EXPECT_EQ(v.link(97), 98U);
}

TEST_P(WriteEntry, OtherFatTypesAreRefused) {
    for (const u32 type : {0U, 12U, 17U, 64U}) {
        sv->fat_type = type;
        EXPECT_EQ(write_entry(5, 1), (answer{-EINVAL, "fat_write_entry[N]: Invalid FAT type\n"}));
    }
    EXPECT_TRUE(transfers().empty());
}

TEST_P(WriteEntry, FailedReadDoesNotChangeTheFat) {
    v.set_link(5, 9);
    for (const int moved : NOT_ONE_SECTOR) {
        v.disk.reads_before_failure = 0;
        v.disk.failure_result = moved;
        EXPECT_EQ(write_entry(5, 1), (answer{-EIO, "fat_write_entry[N]: cannot read FAT\n"}))
            << moved << " sectors";
        EXPECT_EQ(transfers(), std::vector{read_of(5)});
        EXPECT_EQ(v.link(5), 9U);
    }
}

TEST_P(WriteEntry, FailedWriteIsNotRetried) {
    for (const int moved : NOT_ONE_SECTOR) {
        v.disk.writes_before_failure = 0;
        v.disk.failure_result = moved;
        EXPECT_EQ(write_entry(5, 1), (answer{-EIO, "fat_write_entry[N]: cannot write FAT\n\n"}))
            << moved << " sectors";
        EXPECT_EQ(transfers(), (std::vector{read_of(5), write_of(5)}));
    }
}

TEST_P(WriteEntry, IndexFarPastTheMediumIsStillRequestedFromIt) {
    sv->vol_size = u64{sv->data_start} * sv->sector_size;
    for (const u32 cluster : {0x40000000U, 0x80000003U, 0xFFFFFFFFU}) {
        const u64 sector = sv->fat_start + u64{cluster} * (sv->fat_type / 8) / sv->sector_size;
        EXPECT_EQ(write_entry(cluster, 1), (answer{-EIO, "fat_write_entry[N]: cannot read FAT\n"}));
        EXPECT_EQ(transfers(), (std::vector<transfer>{{false, sector, 1}})) << "entry " << cluster;
    }
}

// ---- following a link -------------------------------------------------------------------------

TEST_P(ReadClus, FreeClusterGivesZero) {
    v.set_link(5, 0);
    EXPECT_EQ(read_clus(5), (answer{0, ""}));
}

TEST_P(ReadClus, LinkGivesTheNextCluster) {
    for (const u32 next : {2U, 3U, 5U, volume::last_cluster() - 1, volume::last_cluster()}) {
        v.set_link(5, next);
        EXPECT_EQ(read_clus(5), (answer{next, ""}));
    }
}

TEST_P(ReadClus, EveryEndMarkIsReturnedUnchanged) {
    for (u32 mark = volume::first_end_mark(); mark <= volume::end_mark(); mark++) {
        v.set_link(5, mark);
        EXPECT_EQ(read_clus(5), (answer{mark, ""}));
    }
}

TEST_P(ReadClus, InvalidLinksAreRefused) {
    const answer refusal{-EINVAL, "fat_read_clus[N]: Invalid cluster!\n\n"};
    for (const u32 value : {1U, volume::last_cluster() + 1, volume::last_cluster() + 2,
                            volume::first_end_mark() - 2, volume::bad_mark()}) {
        v.set_link(5, value);
        EXPECT_EQ(read_clus(5), refusal) << "value " << value;
    }
}

TEST_P(ReadClus, BadMarkIsNoLinkEvenOfAVolumeThatCountsSoFar) {
    sv->num_clusters = volume::bad_mark() + 100;
    v.set_link(5, volume::bad_mark());
    EXPECT_EQ(read_clus(5), (answer{-EINVAL, "fat_read_clus[N]: Invalid cluster!\n\n"}));
    v.set_link(5, volume::bad_mark() - 1);
    EXPECT_EQ(read_clus(5), (answer{volume::bad_mark() - 1, ""}));
}

TEST_P(ReadClus, NumbersOfNoDataClusterAreRefusedUnread) {
    const answer refusal{-EINVAL, "fat_read_clus[N]: Invalid arg!\n\n"};
    for (const u32 cluster : {0U, 1U, sv->num_clusters + 2, sv->num_clusters + 3, 0x0FFFFFFFU,
                              0x7FFFFFFFU, 0x80000002U, 0xFFFFFFFFU}) {
        EXPECT_EQ(read_clus(cluster), refusal) << "cluster " << cluster;
    }
    EXPECT_TRUE(transfers().empty());
}

TEST_P(ReadClus, FirstAndLastDataClusterAreRead) {
    v.set_link(2, 3);
    EXPECT_EQ(read_clus(2), (answer{3, ""}));
    v.set_link(sv->num_clusters + 1, 2);
    EXPECT_EQ(read_clus(sv->num_clusters + 1), (answer{2, ""}));
}

TEST_P(ReadClus, ErrorsOfTheEntryComeThroughUnchanged) {
    for (const int moved : NOT_ONE_SECTOR) {
        v.disk.reads_before_failure = 0;
        v.disk.failure_result = moved;
        EXPECT_EQ(read_clus(5), (answer{-EIO, "fat_read_entry[N]: cannot read FAT\n\n"}));
    }
    {
        const failing_allocation fault(0);
        EXPECT_EQ(read_clus(5), (answer{-ENOMEM, "fat_read_entry[N]: cannot allocate FAT\n\n"}));
    }
    sv->fat_type = 12;
    EXPECT_EQ(read_clus(5), (answer{-EINVAL, "fat_read_entry[N]: Invalid FAT type\n\n"}));
    sv->sector_size = 0;
    EXPECT_EQ(read_clus(5),
              (answer{-EINVAL, "fat_read_entry[N]: Invalid input: sector_size(0) n_clu(5)\n"}));
}

// ---- the reserved bits of FAT32 ---------------------------------------------------------------

TEST_P(Fat32Entry, TopBitsAreNotPartOfTheValue) {
    v.set_link(7, 0xF0000005);
    EXPECT_EQ(value_of(7), 5U);
    v.set_link(7, 0xFFFFFFFF);
    EXPECT_EQ(value_of(7), 0x0FFFFFFFU);
    v.set_link(7, 0x80000000);
    EXPECT_EQ(value_of(7), 0U);
    v.set_link(7, 0x0ABCDEF9);
    EXPECT_EQ(value_of(7), 0x0ABCDEF9U);
}

TEST_P(Fat32Entry, TopBitsStayWhenTheValueChanges) {
    v.set_link(5, 0xF0000005);
    EXPECT_EQ(write_entry(5, 7), (answer{0, ""}));
    EXPECT_EQ(v.link(5), 0xF0000007U);
    EXPECT_EQ(write_entry(5, 0xFFFFFFFF), (answer{0, ""}));
    EXPECT_EQ(v.link(5), 0xFFFFFFFFU);
    EXPECT_EQ(write_entry(5, 0), (answer{0, ""}));
    EXPECT_EQ(v.link(5), 0xF0000000U);
    v.set_link(5, 0x50000000);
    EXPECT_EQ(write_entry(5, 0xA0000001), (answer{0, ""}));
    EXPECT_EQ(v.link(5), 0x50000001U);
}

TEST_P(Fat32Entry, TopBitsMakeNoLink) {
    v.set_link(5, 0xF0000000);
    EXPECT_EQ(read_clus(5), (answer{0, ""}));
    EXPECT_EQ(free_clus(5, 5), (answer{5, ""}));
    v.set_link(5, 0x70000006);
    EXPECT_EQ(read_clus(5), (answer{6, ""}));
    v.set_link(5, 0xFFFFFFF8);
    EXPECT_EQ(read_clus(5), (answer{0x0FFFFFF8, ""}));
    for (const u32 value : {0xF0000001U, 0xFFFFFFF7U}) {
        v.set_link(5, value);
        EXPECT_EQ(read_clus(5), (answer{-EINVAL, "fat_read_clus[N]: Invalid cluster!\n\n"}));
    }
}

TEST(Fat32Link, MarksOfFat16AreNumbersOfClusters) {
    volume v({.fat_type = 32, .clusters = 66000});
    diagnostics messages;
    for (const u32 value : {0xFFF6U, 0xFFF7U, 0xFFF8U, 0xFFFFU}) {
        v.set_link(5, value);
        EXPECT_EQ(fat_read_clus(5), static_cast<int>(value));
    }
    EXPECT_EQ(messages.text(), "");
}

// ---- finding a free cluster -------------------------------------------------------------------

TEST_P(FreeClus, LowestFreeClusterOfTheRangeIsFound) {
    occupy(2, 20);
    v.set_link(9, 0);
    v.set_link(12, 0);
    EXPECT_EQ(free_clus(2, 20), (answer{9, ""}));
    EXPECT_EQ(free_clus(9, 20), (answer{9, ""}));
    EXPECT_EQ(free_clus(10, 20), (answer{12, ""}));
    EXPECT_EQ(free_clus(10, 12), (answer{12, ""}));
}

TEST_P(FreeClus, RangeWithoutAFreeClusterGivesMinusTwo) {
    occupy(2, 20);
    EXPECT_EQ(free_clus(2, 20), (answer{-2, ""}));
    EXPECT_EQ(free_clus(20, 20), (answer{-2, ""}));
    EXPECT_EQ(free_clus(2, 21), (answer{21, ""}));
}

TEST_P(FreeClus, RangeOfOneCluster) {
    EXPECT_EQ(free_clus(5, 5), (answer{5, ""}));
    EXPECT_EQ(free_clus(volume::last_cluster(), volume::last_cluster()),
              (answer{volume::last_cluster(), ""}));
}

TEST_P(FreeClus, EmptyRangeReadsNothing) {
    EXPECT_EQ(free_clus(5, 4), (answer{-2, ""}));
    EXPECT_EQ(free_clus(0xFFFFFFFF, 0), (answer{-2, ""}));
    EXPECT_TRUE(transfers().empty());
}

TEST_P(FreeClus, LinksAndEveryEndMarkAreOccupied) {
    v.set_link(5, 6);
    v.set_link(6, volume::first_end_mark());
    v.set_link(7, volume::end_mark());
    EXPECT_EQ(free_clus(5, 8), (answer{8, ""}));
}

TEST_P(FreeClus, OneCorruptEntryEndsTheSearch) {
    const answer failure{-EINVAL, "fat_read_clus[N]: Invalid cluster!\n\n"
                                  "fat_free_clus[N]: Invalid cluster value!\n\n"};
    occupy(5, 9);
    for (const u32 value : {1U, volume::last_cluster() + 1, volume::bad_mark()}) {
        v.set_link(7, value);
        EXPECT_EQ(free_clus(5, 20), failure) << "value " << value;
    }
    // A free cluster before it is found, and one after it does not matter.
    v.set_link(6, 0);
    EXPECT_EQ(free_clus(5, 20), (answer{6, ""}));
}

TEST_P(FreeClus, BoundsOutsideTheDataAreaEndTheSearch) {
    const answer failure{-EINVAL, "fat_read_clus[N]: Invalid arg!\n\n"
                                  "fat_free_clus[N]: Invalid cluster value!\n\n"};
    EXPECT_EQ(free_clus(0, 10), failure);
    EXPECT_EQ(free_clus(1, 10), failure);
    EXPECT_EQ(free_clus(volume::last_cluster() + 1, volume::last_cluster() + 1), failure);
    EXPECT_EQ(free_clus(0xFFFFFFFF, 0xFFFFFFFF), failure);
    occupy(volume::last_cluster() - 1, volume::last_cluster());
    EXPECT_EQ(free_clus(volume::last_cluster() - 1, 0xFFFFFFFF), failure);
}

TEST_P(FreeClus, FailingReadEndsTheSearch) {
    for (const int moved : NOT_ONE_SECTOR) {
        v.disk.reads_before_failure = 0;
        v.disk.failure_result = moved;
        EXPECT_EQ(free_clus(5, 9), (answer{-EIO, "fat_read_entry[N]: cannot read FAT\n\n"
                                                 "fat_free_clus[N]: Invalid cluster value!\n\n"}))
            << moved << " sectors";
    }
}

TEST_P(FreeClus, ReadErrorInASectorFurtherOnEndsTheSearch) {
    const u32 first_of_second = entries_per_fat_sector();
    occupy(2, first_of_second - 1);
    v.disk.bad_sectors = {volume::fat_sector_of(first_of_second)};
    EXPECT_EQ(free_clus(2, first_of_second - 1), (answer{-2, ""}));
    EXPECT_EQ(free_clus(2, first_of_second),
              (answer{-EIO, "fat_read_entry[N]: cannot read FAT\n\n"
                            "fat_free_clus[N]: Invalid cluster value!\n\n"}));
}

TEST_P(FreeClus, VolumeWithoutATypeOrASectorSizeIsRefused) {
    sv->fat_type = 12;
    EXPECT_EQ(free_clus(5, 9), (answer{-EINVAL, "fat_read_entry[N]: Invalid FAT type\n\n"
                                                "fat_free_clus[N]: Invalid cluster value!\n\n"}));
    sv->sector_size = 0;
    EXPECT_EQ(free_clus(5, 9),
              (answer{-EINVAL, "fat_read_entry[N]: Invalid input: sector_size(0) n_clu(5)\n"
                               "fat_free_clus[N]: Invalid cluster value!\n\n"}));
}

TEST_P(FreeClus, FatSectorsAreReadOnceInTheirOrder) {
    const u32 per_sector = entries_per_fat_sector();
    const u32 last = std::min(20 * per_sector, volume::last_cluster()) - 1;
    occupy(2, last);
    EXPECT_EQ(free_clus(2, last), (answer{-2, ""}));
    const auto read = v.sectors_read();
    const std::size_t needed = last / per_sector + 1;
    // A search that continues reads at most as many sectors again as it has passed.
    EXPECT_GE(read.size(), needed);
    EXPECT_LE(read.size(), std::min(2 * needed, std::size_t{sv->fat_size}));
    EXPECT_LE(transfers().size(), needed);
    for (std::size_t i = 0; i < read.size(); i++) {
        EXPECT_EQ(read[i], (std::pair<std::uint64_t, int>(sv->fat_start + i, 1)));
    }
}

TEST_P(FreeClus, NothingIsCachedFromOneSearchToTheNext) {
    EXPECT_EQ(free_clus(5, 9), (answer{5, ""}));
    v.set_link(5, volume::end_mark());
    EXPECT_EQ(free_clus(5, 9), (answer{6, ""}));
    EXPECT_EQ(transfers(), (std::vector{read_of(5), read_of(5)}));
}

// ---- the first sector of a cluster ------------------------------------------------------------

TEST_P(FatSector, ClustersAreContiguousInTheDataArea) {
    EXPECT_EQ(heard(fat_sector(2)), (answer{sv->data_start, ""}));
    EXPECT_EQ(heard(fat_sector(3)), (answer{sv->data_start + sv->sec_per_clus, ""}));
    EXPECT_EQ(heard(fat_sector(volume::last_cluster())),
              (answer{sv->data_start + (sv->num_clusters - 1) * sv->sec_per_clus, ""}));
}

TEST_P(FatSector, NumbersOfNoDataClusterGiveZero) {
    const answer refusal{0, "fat_sector[N]: Invalid arg!\n\n"};
    for (const u32 cluster : {0U, 1U, sv->num_clusters + 2, 0x0FFFFFFFU, 0xFFFFFFFFU}) {
        EXPECT_EQ(heard(fat_sector(cluster)), refusal) << "cluster " << cluster;
    }
}

TEST_P(FatSector, ClusterPastTheLastSectorGivesZeroSilently) {
    sv->total_sectors = sv->data_start + 3 * sv->sec_per_clus;
    EXPECT_EQ(heard(fat_sector(4)), (answer{sv->data_start + 2 * sv->sec_per_clus, ""}));
    EXPECT_EQ(heard(fat_sector(5)), (answer{0, ""}));
    sv->total_sectors++;
    EXPECT_EQ(heard(fat_sector(5)), (answer{sv->data_start + 3 * sv->sec_per_clus, ""}));
    EXPECT_EQ(heard(fat_sector(6)), (answer{0, ""}));
}

TEST_P(FatSector, ReadsNothing) {
    EXPECT_NE(fat_sector(5), 0U);
    EXPECT_TRUE(transfers().empty());
}

// An impossible cluster count must not result in a sector in the middle of the data area.
TEST(FatSectorOfAnImpossibleVolume, SectorsBeyondTheRangeOfTheirNumberGiveZero) {
    volume v;
    diagnostics messages;
    sv->sec_per_clus = 64;
    sv->num_clusters = 0x0FFFFFEE;
    EXPECT_EQ(fat_sector(0x04000002), 0U);
    EXPECT_EQ(fat_sector(0x04000003), 0U);
    EXPECT_EQ(messages.text(), "");
}
