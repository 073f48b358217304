// Cluster chains: finding and linking free clusters, clearing one.

#include "tests/support/chain_fixture.h"
#include "tests/support/every_fault.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

class AllocCluster : public chain_case {
protected:
    answer alloc(oentry *entry, u32 *cluster) {
        return heard(fat_alloc_cluster(entry, cluster));
    }
    // An allocated single cluster, or UNTOUCHED.
    u32 alloc_alone() {
        u32 cluster = UNTOUCHED;
        EXPECT_EQ(alloc(nullptr, &cluster), (answer{0, ""}));
        return cluster;
    }
    // Numbers that are not a link. Values from the mark of a bad cluster on are this mark or end
    // marks.
    [[nodiscard]] static std::vector<u32> bad_links() {
        return {1, volume::last_cluster() + 1, volume::bad_mark() - 1, volume::bad_mark()};
    }
};
class AllocClusterOfFat32 : public chain_case {};
class ClearCluster : public chain_case {};

INSTANTIATE_TEST_SUITE_P(Shapes, AllocCluster, testing::ValuesIn(chain_shapes()), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, AllocClusterOfFat32, testing::ValuesIn(chain_shapes(32)),
                         shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, ClearCluster, testing::ValuesIn(chain_shapes()), shape_name);

} // namespace

// ---- where the search begins ------------------------------------------------------------------

TEST_P(AllocCluster, HintBelowTheDataAreaStartsAtTheFirstCluster) {
    for (const u32 hint : {0U, 1U}) {
        v.set_link(2, 0);
        sv->last_alloc_clus = hint;
        EXPECT_EQ(alloc_alone(), 2U);
        EXPECT_EQ(sv->last_alloc_clus, 2U);
    }
}

TEST_P(AllocCluster, SearchContinuesAfterTheHint) {
    sv->last_alloc_clus = 10;
    EXPECT_EQ(alloc_alone(), 11U);
    EXPECT_EQ(sv->last_alloc_clus, 11U);
}

TEST_P(AllocCluster, OccupiedClustersAfterTheHintAreSkipped) {
    fill(11, 14, volume::end_mark());
    v.set_link(12, 11);
    v.set_link(13, last_cluster);
    sv->last_alloc_clus = 10;
    EXPECT_EQ(alloc_alone(), 15U);
    EXPECT_EQ(sv->last_alloc_clus, 15U);
}

TEST_P(AllocCluster, HintAtTheLastClusterRestartsAtTheFirst) {
    occupy_all_but({2, last_cluster});
    for (const u32 hint : {last_cluster, last_cluster + 1, 0xFFFFFFFFU}) {
        v.set_link(2, 0);
        sv->last_alloc_clus = hint;
        EXPECT_EQ(alloc_alone(), 2U) << "hint " << hint;
        EXPECT_EQ(sv->last_alloc_clus, 2U);
    }
}

TEST_P(AllocCluster, HintBeforeTheLastClusterIsGood) {
    occupy_all_but({20, last_cluster});
    sv->last_alloc_clus = sv->num_clusters;
    EXPECT_EQ(alloc_alone(), last_cluster);
    EXPECT_EQ(sv->last_alloc_clus, last_cluster);
}

TEST_P(AllocCluster, WrapsToStartWhenTailIsFull) {
    occupy_all_but({7, 9});
    sv->last_alloc_clus = 1000;
    EXPECT_EQ(alloc_alone(), 7U);
    EXPECT_EQ(alloc_alone(), 9U);
}

TEST_P(AllocCluster, ClusterOfTheHintItselfComesLast) {
    occupy_all_but({10, 30});
    sv->last_alloc_clus = 10;
    EXPECT_EQ(alloc_alone(), 30U);
    sv->last_alloc_clus = 10;
    EXPECT_EQ(alloc_alone(), 10U);
    EXPECT_EQ(sv->last_alloc_clus, 10U);
}

TEST_P(AllocCluster, ClustersFreedBeforeTheHintAreTakenOnlyAfterTheEnd) {
    occupy_all_but({});
    fill(last_cluster - 2, last_cluster, 0);
    sv->last_alloc_clus = last_cluster - 4;
    EXPECT_EQ(alloc_alone(), last_cluster - 2);
    v.set_link(30, 0);
    v.set_link(last_cluster - 2, 0);
    EXPECT_EQ(alloc_alone(), last_cluster - 1);
    EXPECT_EQ(alloc_alone(), last_cluster);
    EXPECT_EQ(alloc_alone(), 30U);
    EXPECT_EQ(alloc_alone(), last_cluster - 2);
}

TEST_P(AllocCluster, FindsEveryFreeClusterOfTheVolumeOnce) {
    const std::vector<u32> free_clusters = {2,   3,       far - 6,          far - 5,
                                            far, far + 1, sv->num_clusters, last_cluster};
    occupy_all_but(free_clusters);
    sv->last_alloc_clus = far - 5;
    std::vector<u32> taken;
    for (std::size_t i = 0; i < free_clusters.size(); i++) {
        taken.push_back(alloc_alone());
    }
    EXPECT_EQ(taken, (std::vector<u32>{far, far + 1, sv->num_clusters, last_cluster, 2, 3, far - 6,
                                       far - 5}));
    u32 cluster = UNTOUCHED;
    EXPECT_EQ(alloc(nullptr, &cluster), failed(-ENOSPC, NO_SPACE));
}

// ---- a full volume ----------------------------------------------------------------------------

TEST_P(AllocCluster, FullVolumeIsReported) {
    occupy_all_but({});
    open_entry file({5, 6});
    const shown before = file.now();
    const fat_picture fat(&v);
    for (const u32 hint : {2U, 10U, far, sv->num_clusters}) {
        sv->last_alloc_clus = hint;
        u32 cluster = UNTOUCHED;
        EXPECT_EQ(alloc(&file.record, &cluster), failed(-ENOSPC, NO_SPACE));
        EXPECT_EQ(cluster, UNTOUCHED);
        EXPECT_EQ(sv->last_alloc_clus, hint);
    }
    EXPECT_EQ(file.now(), before);
    EXPECT_EQ(fat.difference(), "");
    EXPECT_TRUE(sectors_written().empty());
}

TEST_P(AllocCluster, FullVolumeLeavesABadHintCorrected) {
    occupy_all_but({});
    for (const u32 hint : {0U, 1U, last_cluster, 0xFFFFFFFFU}) {
        sv->last_alloc_clus = hint;
        u32 cluster = UNTOUCHED;
        EXPECT_EQ(alloc(nullptr, &cluster), failed(-ENOSPC, NO_SPACE));
        EXPECT_EQ(sv->last_alloc_clus, 1U);
    }
}

TEST_P(AllocCluster, LastFreeClusterIsAllocatedAndThenNoneIsLeft) {
    occupy_all_but({last_cluster});
    open_entry file;
    u32 cluster = 0;
    EXPECT_EQ(alloc(&file.record, &cluster), (answer{0, ""}));
    EXPECT_EQ(cluster, last_cluster);
    EXPECT_EQ(alloc(&file.record, &cluster), failed(-ENOSPC, NO_SPACE));
    EXPECT_EQ(file.record.last, last_cluster);
}

TEST_P(AllocCluster, FreeEntriesPastTheLastClusterDoNotCount) {
    occupy_all_but({});
    v.set_link(last_cluster + 1, 0);
    sv->last_alloc_clus = sv->num_clusters;
    u32 cluster = UNTOUCHED;
    EXPECT_EQ(alloc(nullptr, &cluster), failed(-ENOSPC, NO_SPACE));
}

// ---- linking ----------------------------------------------------------------------------------

TEST_P(AllocCluster, WithoutAnEntryTheClusterIsNotLinked) {
    fat_picture fat(&v);
    sv->last_alloc_clus = 100;
    EXPECT_EQ(alloc_alone(), 101U);
    EXPECT_EQ(fat.with(101, END).difference(), "");
    EXPECT_EQ(v.link(101), volume::end_mark());
    EXPECT_EQ(sectors_written(), std::vector<u64>{volume::fat_sector_of(101)});
}

TEST_P(AllocCluster, EmptyEntryReceivesItsFirstCluster) {
    open_entry file;
    fat_picture fat(&v);
    shown expected = file.now();
    sv->last_alloc_clus = far - 1;
    u32 cluster = 0;
    EXPECT_EQ(alloc(&file.record, &cluster), (answer{0, ""}));
    EXPECT_EQ(cluster, far);
    expected.start = expected.last = far;
    expected.allocated = cluster_bytes;
    expected.image[20] = static_cast<u8>(far >> 16);
    expected.image[21] = static_cast<u8>(far >> 24);
    expected.image[26] = static_cast<u8>(far);
    expected.image[27] = static_cast<u8>(far >> 8);
    EXPECT_EQ(file.now(), expected);
    EXPECT_EQ(fat.with(far, END).difference(), "");
    EXPECT_EQ(sv->last_alloc_clus, far);
}

TEST_P(AllocCluster, AllFourBytesOfTheFirstClusterAreStored) {
    open_entry file;
    for (const std::size_t at : {20U, 21U, 26U, 27U}) {
        file.image[at] = 0xAA;
    }
    u32 cluster = 0;
    const u32 wanted = sv->fat_type == 16 ? 0x0F0EU : 0xABCDU;
    sv->last_alloc_clus = wanted - 1;
    EXPECT_EQ(alloc(&file.record, &cluster), (answer{0, ""}));
    EXPECT_EQ(cluster, wanted);
    EXPECT_EQ(file.image[20], 0);
    EXPECT_EQ(file.image[21], 0);
    EXPECT_EQ(file.image[26] | file.image[27] << 8, static_cast<int>(wanted));
}

TEST_P(AllocCluster, EmptyEntryWithoutADentryCopyReceivesItsFirstCluster) {
    open_entry file;
    file.record.dentry = nullptr;
    const entry_image before = file.image;
    u32 cluster = 0;
    sv->last_alloc_clus = 40;
    EXPECT_EQ(alloc(&file.record, &cluster), (answer{0, ""}));
    EXPECT_EQ(file.now(), (shown{41, 41, cluster_bytes, before}));
}

TEST_P(AllocCluster, FurtherClusterIsLinkedAfterTheLast) {
    v.chain({5, 900, 7});
    open_entry file({5, 900, 7});
    fat_picture fat(&v);
    shown expected = file.now();
    sv->last_alloc_clus = 50;
    u32 cluster = 0;
    EXPECT_EQ(alloc(&file.record, &cluster), (answer{0, ""}));
    EXPECT_EQ(cluster, 51U);
    expected.last = 51;
    expected.allocated = 4 * cluster_bytes;
    EXPECT_EQ(file.now(), expected);
    EXPECT_EQ(fat.with(7, 51).with(51, END).difference(), "");
    EXPECT_EQ(sv->last_alloc_clus, 51U);
}

TEST_P(AllocCluster, SecondClusterIsLinkedAfterTheFirst) {
    open_entry file;
    u32 cluster = 0;
    sv->last_alloc_clus = far - 1;
    EXPECT_EQ(alloc(&file.record, &cluster), (answer{0, ""}));
    sv->last_alloc_clus = 8;
    EXPECT_EQ(alloc(&file.record, &cluster), (answer{0, ""}));
    EXPECT_EQ(v.link(far), 9U);
    EXPECT_EQ(v.link(9), volume::end_mark());
    EXPECT_EQ(file.record.start, far);
    EXPECT_EQ(file.record.last, 9U);
    EXPECT_EQ(file.record.allocated, 2 * cluster_bytes);
}

TEST_P(AllocCluster, LinkReachesTheMediumBeforeTheEndMark) {
    v.chain({5});
    open_entry file({5});
    sv->last_alloc_clus = far - 1;
    u32 cluster = 0;
    transfers();
    EXPECT_EQ(alloc(&file.record, &cluster), (answer{0, ""}));
    EXPECT_EQ(sectors_written(),
              (std::vector<u64>{volume::fat_sector_of(5), volume::fat_sector_of(far)}));
}

TEST_P(AllocCluster, StartWithoutALastClusterIsLinkedThroughEntryZero) {
    v.chain({5});
    open_entry file({5});
    file.record.last = 0;
    fat_picture fat(&v);
    u32 cluster = 0;
    sv->last_alloc_clus = 50;
    EXPECT_EQ(alloc(&file.record, &cluster), (answer{0, ""}));
    EXPECT_EQ(file.record.start, 5U);
    EXPECT_EQ(file.record.last, 51U);
    EXPECT_EQ(fat.with(0, 51).with(51, END).difference(), "");
}

TEST_P(AllocCluster, LastClusterWithoutAStartIsLinked) {
    v.chain({5});
    open_entry file;
    file.record.last = 5;
    const entry_image image = file.image;
    fat_picture fat(&v);
    u32 cluster = 0;
    sv->last_alloc_clus = 50;
    EXPECT_EQ(alloc(&file.record, &cluster), (answer{0, ""}));
    EXPECT_EQ(file.now(), (shown{0, 51, cluster_bytes, image}));
    EXPECT_EQ(fat.with(5, 51).with(51, END).difference(), "");
}

TEST_P(AllocCluster, AllocatedSizeIsCountedIn32Bits) {
    v.chain({5});
    open_entry file({5});
    file.record.allocated = 0U - cluster_bytes;
    u32 cluster = 0;
    EXPECT_EQ(alloc(&file.record, &cluster), (answer{0, ""}));
    EXPECT_EQ(file.record.allocated, 0U);
}

TEST_P(AllocCluster, DataOfTheClusterIsNotTouched) {
    fill_data(60, 0x5A);
    sv->last_alloc_clus = 59;
    EXPECT_EQ(alloc_alone(), 60U);
    EXPECT_EQ(data_of(60), all(0x5A));
}

TEST_P(AllocClusterOfFat32, ReservedBitsOfChangedEntriesStay) {
    v.set_link(5, 0xAFFFFFFF);
    v.set_link(51, 0x50000000);
    open_entry file({5});
    sv->last_alloc_clus = 50;
    u32 cluster = 0;
    EXPECT_EQ(heard(fat_alloc_cluster(&file.record, &cluster)), (answer{0, ""}));
    EXPECT_EQ(v.link(5), 0xA0000033U);
    EXPECT_EQ(v.link(51), 0x5FFFFFFFU);
    EXPECT_EQ(heard(fat_release_clusters(&file.record, 0)), (answer{2, ""}));
    EXPECT_EQ(v.link(5), 0xA0000000U);
    EXPECT_EQ(v.link(51), 0x50000000U);
}

// ---- failing writes ---------------------------------------------------------------------------

TEST_P(AllocCluster, FailingEndMarkUndoesTheLink) {
    v.chain({4, 5});
    open_entry file({4, 5});
    const shown before = file.now();
    const fat_picture fat(&v);
    sv->last_alloc_clus = far - 1;
    v.disk.unwritable = {volume::fat_sector_of(far)};
    for (const int result : NOT_ONE_SECTOR) {
        transfers();
        v.disk.failure_result = result;
        u32 cluster = 0;
        EXPECT_EQ(alloc(&file.record, &cluster), failed(-EIO, CANNOT_WRITE + NOT_LINKED));
        EXPECT_EQ(sectors_written(),
                  (std::vector<u64>{volume::fat_sector_of(5), volume::fat_sector_of(far),
                                    volume::fat_sector_of(5)}));
    }
    EXPECT_EQ(file.now(), before);
    EXPECT_EQ(fat.difference(), "");
    EXPECT_EQ(sv->last_alloc_clus, far - 1);
}

TEST_P(AllocCluster, OldEndMarkIsWrittenBackAsTheLibraryWritesIt) {
    v.set_link(5, volume::first_end_mark());
    open_entry file({5});
    fat_picture fat(&v);
    sv->last_alloc_clus = far - 1;
    v.disk.unwritable = {volume::fat_sector_of(far)};
    u32 cluster = 0;
    EXPECT_EQ(alloc(&file.record, &cluster), failed(-EIO, CANNOT_WRITE + NOT_LINKED));
    EXPECT_EQ(fat.with(5, END).difference(), "");
}

TEST_P(AllocCluster, FailedUndoIsIgnored) {
    v.chain({4, 5});
    open_entry file({4, 5});
    const shown before = file.now();
    fat_picture fat(&v);
    sv->last_alloc_clus = far - 1;
    v.disk.writes_before_failure = 1; // the link is written, nothing after it
    v.disk.fails_forever = true;
    u32 cluster = 0;
    EXPECT_EQ(alloc(&file.record, &cluster),
              failed(-EIO, CANNOT_WRITE + NOT_LINKED + CANNOT_WRITE));
    EXPECT_EQ(file.now(), before);
    EXPECT_EQ(fat.with(5, far).difference(), "");
    EXPECT_EQ(sv->last_alloc_clus, far - 1);
}

TEST_P(AllocCluster, EveryFailureRestoresTheFormerState) {
    const std::map<fault, std::vector<answer>> failures = {
        {fault::write, {failed(-EIO, CANNOT_WRITE + NOT_LINKED)}},
        {fault::read,
         {failed(-EIO, CANNOT_READ + INVALID_VALUE), failed(-EIO, CANNOT_CHANGE + NOT_LINKED)}},
        {fault::allocation,
         {failed(-ENOMEM, "fat_read_entry[N]: cannot allocate FAT\n\n" + INVALID_VALUE),
          failed(-ENOMEM, "fat_write_entry[N]: cannot allocate buffer\n\n" + NOT_LINKED)}}};
    std::vector<fault_kind> kinds = {EVERY_READ, EVERY_ALLOCATION};
    for (const int moved : NOT_ONE_SECTOR) {
        kinds.push_back({fault::write, false, moved});
    }
    enum { ALONE, EMPTY, CHAIN };
    for (const auto taker : {ALONE, EMPTY, CHAIN}) {
        at_every_fault(kinds, [&](fault_step &step) {
            v.chain({4, 5});
            v.set_link(far, 0);
            open_entry file(taker == CHAIN ? std::vector<u32>{4, 5} : std::vector<u32>{});
            const shown before = file.now();
            fill(far - 2, far - 1, volume::end_mark());
            const fat_picture fat(&v);
            sv->last_alloc_clus = far - 3;
            transfers();
            u32 cluster = 0;
            const answer a = heard(step.run([&] {
                return fat_alloc_cluster(taker == ALONE ? nullptr : &file.record, &cluster);
            }));
            if (!step.struck()) {
                EXPECT_EQ(a.result, 0);
                EXPECT_TRUE(!step.is(fault::write) || step.k == (taker == CHAIN ? 2 : 1));
                return;
            }
            const std::vector<answer> &expected = failures.at(step.kind.what);
            EXPECT_NE(std::find(expected.begin(), expected.end(), a), expected.end()) << a;
            EXPECT_TRUE(!step.is(fault::write) || step.k > 0 || sectors_written().size() == 1);
            EXPECT_EQ(file.now(), before);
            EXPECT_EQ(fat.difference(), "");
            EXPECT_EQ(sv->last_alloc_clus, far - 3);
        });
    }
}

// ---- entries that cannot be searched ----------------------------------------------------------

TEST_P(AllocCluster, DamagedEntryInTheFirstPassEndsTheSearch) {
    open_entry file;
    const shown before = file.now();
    sv->last_alloc_clus = 10;
    v.set_link(11, volume::end_mark());
    for (const u32 value : bad_links()) {
        v.set_link(12, value);
        const fat_picture fat(&v);
        u32 cluster = UNTOUCHED;
        EXPECT_EQ(alloc(&file.record, &cluster), failed(-EINVAL, INVALID_LINK + INVALID_VALUE));
        EXPECT_EQ(cluster, UNTOUCHED);
        EXPECT_EQ(fat.difference(), "");
    }
    EXPECT_EQ(file.now(), before);
    EXPECT_EQ(sv->last_alloc_clus, 10U);
    EXPECT_TRUE(sectors_written().empty());
}

TEST_P(AllocCluster, DamagedEntryAfterTheFreeOneIsNotRead) {
    v.set_link(12, volume::bad_mark());
    v.set_link(9, 1);
    sv->last_alloc_clus = 10;
    EXPECT_EQ(alloc_alone(), 11U);
}

TEST_P(AllocCluster, UnreadableSectorInTheFirstPassEndsTheSearch) {
    fill(11, far, volume::end_mark());
    sv->last_alloc_clus = 10;
    v.disk.unreadable = {volume::fat_sector_of(far)};
    for (const int result : {-1, -5, 0, 2}) {
        v.disk.failure_result = result;
        u32 cluster = UNTOUCHED;
        EXPECT_EQ(alloc(nullptr, &cluster), failed(-EIO, CANNOT_READ + INVALID_VALUE));
        EXPECT_EQ(cluster, UNTOUCHED);
    }
    EXPECT_EQ(sv->last_alloc_clus, 10U);
}

TEST_P(AllocCluster, FatThatCannotBeAddressedEndsTheSearch) {
    u32 cluster = UNTOUCHED;
    sv->last_alloc_clus = 1;
    const u32 sector_size = std::exchange(sv->sector_size, 0U);
    EXPECT_EQ(alloc(nullptr, &cluster),
              failed(-EINVAL, "fat_read_entry[N]: Invalid input: sector_size(0) n_clu(2)\n" +
                                  INVALID_VALUE));
    sv->sector_size = sector_size;
    sv->fat_type = 12;
    EXPECT_EQ(alloc(nullptr, &cluster),
              failed(-EINVAL, "fat_read_entry[N]: Invalid FAT type\n\n" + INVALID_VALUE));
    EXPECT_EQ(cluster, UNTOUCHED);
    EXPECT_TRUE(transfers().empty());
}

// An error of the second pass is ignored: the former number in `cluster` is used.

TEST_P(AllocCluster, DamagedEntryInTheSecondPassLeavesTheCallersNumberInUse) {
    occupy_all_but({});
    v.set_link(20, volume::bad_mark());
    v.set_link(30, 0); // after the damage, not reached
    sv->last_alloc_clus = 100;
    fat_picture fat(&v);
    u32 cluster = 77;
    EXPECT_EQ(alloc(nullptr, &cluster), (answer{0, INVALID_LINK + INVALID_VALUE}));
    EXPECT_EQ(cluster, 77U);
    EXPECT_EQ(sv->last_alloc_clus, 77U);
    EXPECT_EQ(fat.with(77, END).difference(), "");
}

TEST_P(AllocCluster, ZeroUsedAfterTheSecondPassEndsInEntryZero) {
    occupy_all_but({});
    v.set_link(20, 1);
    v.chain({40, 41});
    open_entry file({40, 41});
    shown expected = file.now();
    sv->last_alloc_clus = 100;
    fat_picture fat(&v);
    u32 cluster = 0;
    EXPECT_EQ(alloc(&file.record, &cluster), (answer{0, INVALID_LINK + INVALID_VALUE}));
    EXPECT_EQ(cluster, 0U);
    expected.last = 0;
    expected.allocated += cluster_bytes;
    EXPECT_EQ(file.now(), expected);
    EXPECT_EQ(fat.with(41, 0).with(0, END).difference(), "");
    EXPECT_EQ(sv->last_alloc_clus, 0U);
}

TEST_P(AllocCluster, ZeroUsedForAnEmptyEntryGrowsOnlyItsSize) {
    occupy_all_but({});
    v.set_link(20, 1);
    open_entry file;
    const entry_image image = file.image;
    sv->last_alloc_clus = 100;
    fat_picture fat(&v);
    u32 cluster = 0;
    EXPECT_EQ(alloc(&file.record, &cluster), (answer{0, INVALID_LINK + INVALID_VALUE}));
    EXPECT_EQ(file.now(), (shown{0, 0, cluster_bytes, image}));
    EXPECT_EQ(fat.with(0, END).difference(), "");
}

TEST_P(AllocCluster, UnreadableSectorInTheSecondPassLeavesTheCallersNumberInUse) {
    occupy_all_but({});
    sv->last_alloc_clus = far;
    v.disk.unreadable = {volume::fat_sector_of(5)};
    fat_picture fat(&v);
    u32 cluster = far + 2;
    EXPECT_EQ(alloc(nullptr, &cluster), (answer{0, CANNOT_READ + INVALID_VALUE}));
    EXPECT_EQ(fat.with(far + 2, END).difference(), "");
    EXPECT_EQ(sv->last_alloc_clus, far + 2);
}

TEST_P(AllocCluster, WriteAfterTheIgnoredErrorStillCounts) {
    occupy_all_but({});
    v.disk.unreadable = {volume::fat_sector_of(5)};
    sv->last_alloc_clus = far;
    const fat_picture fat(&v);
    u32 cluster = 0;
    EXPECT_EQ(alloc(nullptr, &cluster),
              failed(-EIO, CANNOT_READ + INVALID_VALUE + CANNOT_CHANGE + NOT_LINKED));
    EXPECT_EQ(fat.difference(), "");
    EXPECT_EQ(sv->last_alloc_clus, far);
}

// ---- what allocation costs --------------------------------------------------------------------

TEST_P(AllocCluster, SearchReadsEachFatSectorOnTheWayOnce) {
    fill(2, last_cluster - 1, volume::end_mark());
    sv->last_alloc_clus = 1;
    transfers();
    EXPECT_EQ(alloc_alone(), last_cluster);
    EXPECT_LE(sectors_read(), volume::fat_sector_of(last_cluster) - sv->fat_start + 2);
    EXPECT_EQ(sectors_written().size(), 1U);
}

TEST_P(AllocCluster, ClustersOfANearlyFullVolumeCostTheSectorsPassed) {
    // Every hundredth cluster is free.
    occupy_all_but({});
    u32 free_clusters = 0;
    for (u32 cluster = 100; cluster <= last_cluster; cluster += 100) {
        v.set_link(cluster, 0);
        free_clusters++;
    }
    open_entry file;
    transfers();
    for (u32 i = 0; i < free_clusters; i++) {
        u32 cluster = 0;
        ASSERT_EQ(alloc(&file.record, &cluster), (answer{0, ""}));
        EXPECT_EQ(cluster, 100 * (i + 1));
    }
    // The first sector of a search and the sectors of the two changed entries are read again.
    const u64 fat_sectors = volume::fat_sector_of(last_cluster) - sv->fat_start + 1;
    EXPECT_LE(sectors_read(), fat_sectors + 3 * free_clusters);
    EXPECT_LE(sectors_written().size(), 2 * free_clusters);
}

TEST_P(AllocCluster, ManyAtOnceReadAndWriteEachFatSectorOnce) {
    occupy_all_but({});
    const u32 first = last_cluster - std::min(2000U, last_cluster / 2);
    fill(first, last_cluster, 0);
    const u32 count = last_cluster - first + 1;
    open_entry file;
    std::vector<u32> clusters(count, 0);
    u32 allocated = 0;
    transfers();
    EXPECT_EQ(heard(alloc_clusters(&file.record, clusters.data(), count, &allocated)),
              (answer{0, ""}));
    EXPECT_EQ(allocated, count);
    const u64 fat_sectors = volume::fat_sector_of(last_cluster) - sv->fat_start + 1;
    const u64 changed = volume::fat_sector_of(last_cluster) - volume::fat_sector_of(first) + 1;
    EXPECT_LE(sectors_read(), fat_sectors + 2 * changed);
    EXPECT_LE(sectors_written().size(), 2 * changed);
    u32 last = 0;
    EXPECT_EQ(heard(fat_count_clusters(first, &last)), (answer{static_cast<int>(count), ""}));
    EXPECT_EQ(last, last_cluster);
}

// ---- clearing a cluster -----------------------------------------------------------------------

TEST_P(ClearCluster, EverySectorIsZeroedInOrder) {
    for (const u32 cluster : {2U, 30U, last_cluster}) {
        fill_data(cluster, 0x5A);
        transfers();
        EXPECT_EQ(heard(clear_cluster(cluster)), (answer{0, ""}));
        EXPECT_EQ(data_of(cluster), all(0));
        std::vector<u64> sectors;
        for (u32 i = 0; i < sv->sec_per_clus; i++) {
            sectors.push_back(volume::first_sector_of(cluster) + i);
        }
        EXPECT_EQ(sectors_written(), sectors);
        EXPECT_EQ(sectors_read(), 0U);
    }
}

TEST_P(ClearCluster, NeighboursAreLeftAlone) {
    for (const u32 cluster : {30U, 31U, 32U}) {
        fill_data(cluster, 0x5A);
    }
    const fat_picture fat(&v);
    EXPECT_EQ(heard(clear_cluster(31)), (answer{0, ""}));
    EXPECT_EQ(data_of(30), all(0x5A));
    EXPECT_EQ(data_of(31), all(0));
    EXPECT_EQ(data_of(32), all(0x5A));
    EXPECT_EQ(fat.difference(), "");
}

TEST_P(ClearCluster, FailingWriteStopsIt) {
    for (u32 k = 0; k < sv->sec_per_clus; k++) {
        fill_data(30, 0x5A);
        transfers();
        v.disk.writes_before_failure = static_cast<int>(k);
        EXPECT_EQ(heard(clear_cluster(30)),
                  failed(-EIO, "clear_cluster[N]: cannot write cluster(#30)\n"));
        std::vector<u8> expected = all(0x5A);
        std::fill_n(expected.begin(), std::size_t{k} * sv->sector_size, u8{0});
        EXPECT_EQ(data_of(30), expected);
        EXPECT_EQ(sectors_written().size(), k + 1);
    }
}

TEST_P(ClearCluster, WriteOfAnotherCountFails) {
    for (const int result : {-1, -28, 0, 2}) {
        v.disk.failure_result = result;
        v.disk.writes_before_failure = 0;
        EXPECT_EQ(heard(clear_cluster(41)),
                  failed(-EIO, "clear_cluster[N]: cannot write cluster(#41)\n"));
    }
}

TEST_P(ClearCluster, NumberIsNotCheckedAgainstTheVolume) {
    sv->vol_size += 10 * cluster_bytes;
    transfers();
    EXPECT_EQ(heard(clear_cluster(last_cluster + 5)), (answer{0, ""}));
    EXPECT_EQ(sectors_written().front(), volume::first_sector_of(last_cluster + 5));
    EXPECT_EQ(heard(clear_cluster(last_cluster + 500)),
              failed(-EIO, "clear_cluster[N]: cannot write cluster(#" +
                               std::to_string(last_cluster + 500) + ")\n"));
}

TEST_P(ClearCluster, NumbersBelowTheFirstOneCountBackwards) {
    for (const u32 cluster : {1U, 0U}) {
        const u32 distance = (2 - cluster) * sv->sec_per_clus;
        if (distance > sv->data_start) {
            continue; // not a sector of the medium
        }
        transfers();
        EXPECT_EQ(heard(clear_cluster(cluster)), (answer{0, ""}));
        EXPECT_EQ(sectors_written().size(), sv->sec_per_clus);
        EXPECT_EQ(sectors_written().front(), sv->data_start - distance);
    }
}
