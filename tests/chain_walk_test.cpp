// Walks over cluster chains: counting, releasing, listing.

#include "tests/support/chain_fixture.h"
#include "tests/support/every_fault.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

class CountClusters : public chain_case {};
class ReleaseClusters : public chain_case {};
class GetChains : public chain_case {};
class GetChainsOfFat16 : public chain_case {};
class GetChainsOfFat32 : public chain_case {};

INSTANTIATE_TEST_SUITE_P(Shapes, CountClusters, testing::ValuesIn(chain_shapes()), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, ReleaseClusters, testing::ValuesIn(chain_shapes()), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, GetChains, testing::ValuesIn(chain_shapes()), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, GetChainsOfFat16, testing::ValuesIn(chain_shapes(16)), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, GetChainsOfFat32, testing::ValuesIn(chain_shapes(32)), shape_name);

} // namespace

// ---- counting ---------------------------------------------------------------------------------

TEST_P(CountClusters, EveryClusterOfTheChainCounts) {
    const std::vector<std::vector<u32>> chains = {
        {5}, {5, 6, 7}, {7, 6, 5}, {last_cluster, 3}, {4, far, 5, far + 1, last_cluster}};
    for (const std::vector<u32> &clusters : chains) {
        v.chain(clusters);
        u32 last = UNTOUCHED;
        EXPECT_EQ(heard(fat_count_clusters(clusters.front(), &last)),
                  (answer{static_cast<int>(clusters.size()), ""}));
        EXPECT_EQ(last, clusters.back());
    }
}

TEST_P(CountClusters, EveryEndMarkEndsAChain) {
    for (u32 value = volume::first_end_mark(); value <= volume::end_mark(); value++) {
        v.chain({5, 6});
        v.set_link(6, value);
        u32 last = UNTOUCHED;
        EXPECT_EQ(heard(fat_count_clusters(5, &last)), (answer{2, ""}));
        EXPECT_EQ(last, 6U);
    }
}

TEST_P(CountClusters, FreeEntryInTheChainGivesZero) {
    v.chain({5, 6, 7});
    v.set_link(7, 0);
    u32 last = UNTOUCHED;
    EXPECT_EQ(heard(fat_count_clusters(5, &last)), (answer{0, ""}));
    EXPECT_EQ(heard(fat_count_clusters(7, &last)), (answer{0, ""}));
    EXPECT_EQ(last, UNTOUCHED);
}

TEST_P(CountClusters, DamagedLinkIsReported) {
    for (const u32 value : {1U, last_cluster + 1, volume::bad_mark() - 1, volume::bad_mark()}) {
        v.chain({5, 6, 7});
        v.set_link(7, value);
        u32 last = UNTOUCHED;
        EXPECT_EQ(heard(fat_count_clusters(5, &last)), failed(-EINVAL, INVALID_LINK + NOT_COUNTED));
        EXPECT_EQ(last, UNTOUCHED);
    }
}

TEST_P(CountClusters, InvalidFirstClusterIsReported) {
    for (const u32 first : {0U, 1U, last_cluster + 1, 0xFFFFFFFFU}) {
        u32 last = UNTOUCHED;
        EXPECT_EQ(heard(fat_count_clusters(first, &last)),
                  failed(-EINVAL, INVALID_ARG + NOT_COUNTED));
        EXPECT_EQ(last, UNTOUCHED);
    }
    EXPECT_TRUE(transfers().empty());
}

TEST_P(CountClusters, EveryUnderlyingErrorBecomesTheSame) {
    v.chain({5, far, 6});
    v.disk.unreadable = {volume::fat_sector_of(far)};
    u32 last = UNTOUCHED;
    for (const int result : {-1, -12, 0, 2}) {
        v.disk.failure_result = result;
        EXPECT_EQ(heard(fat_count_clusters(5, &last)), failed(-EINVAL, CANNOT_READ + NOT_COUNTED));
    }
    int result = 0;
    {
        const failing_allocation fault(0);
        result = fat_count_clusters(5, &last);
    }
    EXPECT_EQ(heard(result),
              failed(-EINVAL, "fat_read_entry[N]: cannot allocate FAT\n\n" + NOT_COUNTED));
    EXPECT_EQ(last, UNTOUCHED);
}

TEST_P(CountClusters, WholeVolumeAsOneChainReadsEachFatSectorOnce) {
    std::vector<u32> clusters;
    for (u32 cluster = 2; cluster <= last_cluster; cluster++) {
        clusters.push_back(cluster);
    }
    v.chain(clusters);
    transfers();
    u32 last = UNTOUCHED;
    EXPECT_EQ(heard(fat_count_clusters(2, &last)),
              (answer{static_cast<int>(sv->num_clusters), ""}));
    EXPECT_EQ(last, last_cluster);
    EXPECT_LE(sectors_read(), volume::fat_sector_of(last_cluster) - sv->fat_start + 1);
}

// ---- cycles -----------------------------------------------------------------------------------

TEST_P(CountClusters, CycleIsABrokenChain) {
    for (const auto &[length, back_to] : std::initializer_list<std::pair<u32, u32>>{{1, 0},
                                                                                    {2, 0},
                                                                                    {2, 1},
                                                                                    {3, 0},
                                                                                    {3, 1},
                                                                                    {7, 4},
                                                                                    {64, 0},
                                                                                    {64, 63},
                                                                                    {100, 37},
                                                                                    {199, 1}}) {
        const std::vector<u32> clusters = circular_chain(&v, length, back_to);
        transfers();
        u32 last = UNTOUCHED;
        EXPECT_EQ(heard(fat_count_clusters(clusters.front(), &last)), failed(-EINVAL, NOT_COUNTED))
            << length << " clusters, back to number " << back_to;
        EXPECT_EQ(last, UNTOUCHED);
        EXPECT_LE(sectors_read(), 4 * length + 4);
    }
}

TEST_P(CountClusters, CycleNeedsNoTableOfClusters) {
    const std::vector<u32> clusters = circular_chain(&v, 200, 0);
    const allocation_meter meter;
    u32 last = UNTOUCHED;
    EXPECT_EQ(fat_count_clusters(clusters.front(), &last), -EINVAL);
    EXPECT_LE(meter.peak_bytes(), 2 * sv->sector_size + 4096);
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_P(ReleaseClusters, CycleIsReleasedUpToItsReturnAndThenBroken) {
    for (const auto &[length, back_to] : std::initializer_list<std::pair<u32, u32>>{
             {1, 0}, {2, 0}, {3, 0}, {3, 2}, {64, 0}, {64, 63}, {100, 37}}) {
        const std::vector<u32> clusters = circular_chain(&v, length, back_to);
        open_entry file(clusters);
        fat_picture fat(&v);
        for (const u32 cluster : clusters) {
            fat.with(cluster, 0);
        }
        transfers();
        EXPECT_EQ(heard(fat_release_clusters(&file.record, 0)), failed(-EINVAL, NOT_RELEASED));
        EXPECT_EQ(fat.difference(), "");
        EXPECT_LE(sectors_read(), 3 * length + 4);
    }
}

// The part of a cycle that is to stay is freed when the walk reaches it again.
TEST_P(ReleaseClusters, KeptPartOfACycleIsReachedAgain) {
    for (const auto &[length, keep] : std::initializer_list<std::pair<u32, u32>>{
             {2, 1}, {3, 1}, {3, 2}, {5, 3}, {9, 1}, {16, 15}, {64, 8}}) {
        const std::vector<u32> clusters = circular_chain(&v, length, 0);
        open_entry file(clusters);
        fat_picture fat(&v);
        for (const u32 cluster : clusters) {
            fat.with(cluster, 0);
        }
        EXPECT_EQ(heard(fat_release_clusters(&file.record, keep)), failed(-EINVAL, NOT_RELEASED));
        EXPECT_EQ(fat.difference(), "") << length << " clusters, " << keep << " retained";
    }
}

TEST_P(ReleaseClusters, CycleThatIsKeptWholeEndsTheWalkInBoundedReads) {
    for (const u32 length : {1U, 2U, 3U, 50U}) {
        const std::vector<u32> clusters = circular_chain(&v, length, 0);
        open_entry file(clusters);
        transfers();
        EXPECT_EQ(heard(fat_release_clusters(&file.record, 0xFFFFFFFF)),
                  failed(-EINVAL, NOT_RELEASED));
        EXPECT_LE(sectors_read(), 4 * length + 4);
    }
}

TEST_P(GetChains, CycleIsListedUpToTheRecordedLength) {
    const std::vector<u32> clusters = circular_chain(&v, 3, 0);
    open_entry file(clusters);
    file.record.allocated = 5 * cluster_bytes;
    u32 *array = nullptr;
    transfers();
    EXPECT_EQ(heard(fat_get_chains(&file.record, &array)), (answer{6, ""}));
    EXPECT_LE(sectors_read(), 6U);
    ASSERT_NE(array, nullptr);
    for (u32 i = 0; i < 5; i++) {
        EXPECT_EQ(array[i], clusters[i % 3]);
    }
    EXPECT_TRUE(array[5] == END || array[6] == END);
    std::free(array);
}

// ---- releasing --------------------------------------------------------------------------------

TEST_P(ReleaseClusters, WholeChainIsFreed) {
    v.chain({5, far, 7});
    open_entry file({5, far, 7});
    const shown before = file.now();
    fat_picture fat(&v);
    sv->last_alloc_clus = 1234;
    EXPECT_EQ(heard(fat_release_clusters(&file.record, 0)), (answer{3, ""}));
    EXPECT_EQ(fat.with(5, 0).with(far, 0).with(7, 0).difference(), "");
    EXPECT_EQ(file.now(), before);
    EXPECT_EQ(sv->last_alloc_clus, 1234U);
}

TEST_P(ReleaseClusters, RecordedLengthTooSmallIsWarnedOf) {
    v.chain({5, 6, 7});
    open_entry file({5, 6, 7});
    file.record.allocated = 2 * cluster_bytes;
    fat_picture fat(&v);
    EXPECT_EQ(heard(fat_release_clusters(&file.record, 0)), (answer{3, TRUNCATED}));
    EXPECT_EQ(fat.with(5, 0).with(6, 0).with(7, 0).difference(), "");
}

TEST_P(ReleaseClusters, RecordedLengthTooLargeIsWarnedOf) {
    v.chain({5, 6, 7});
    open_entry file({5, 6, 7});
    file.record.allocated = 4 * cluster_bytes;
    EXPECT_EQ(heard(fat_release_clusters(&file.record, 0)), (answer{3, TRUNCATED}));
}

TEST_P(ReleaseClusters, RecordThatEndsElsewhereIsWarnedOf) {
    v.chain({5, 6, 7});
    open_entry file({5, 6, 7});
    file.record.last = 6;
    EXPECT_EQ(heard(fat_release_clusters(&file.record, 0)), (answer{3, TRUNCATED}));
}

TEST_P(ReleaseClusters, KeptClustersAndTheLinkAfterThemStay) {
    for (const u32 keep : {1U, 2U, 3U}) {
        v.chain({5, 6, far, 7});
        open_entry file({5, 6, far, 7});
        const shown before = file.now();
        fat_picture fat(&v);
        const std::vector<u32> freed = {6, far, 7};
        for (std::size_t i = keep - 1; i < freed.size(); i++) {
            fat.with(freed[i], 0);
        }
        EXPECT_EQ(heard(fat_release_clusters(&file.record, keep)),
                  (answer{4 - static_cast<int>(keep), ""}));
        EXPECT_EQ(fat.difference(), "");
        EXPECT_EQ(file.now(), before);
    }
}

TEST_P(ReleaseClusters, NothingAfterTheKeptClustersIsFreed) {
    v.chain({5, 6, 7});
    open_entry file({5, 6, 7});
    const fat_picture fat(&v);
    transfers();
    EXPECT_EQ(heard(fat_release_clusters(&file.record, 3)), (answer{0, ""}));
    EXPECT_EQ(heard(fat_release_clusters(&file.record, 5)), (answer{-2, ""}));
    EXPECT_EQ(fat.difference(), "");
    EXPECT_TRUE(sectors_written().empty());
    file.record.last = 6;
    EXPECT_EQ(heard(fat_release_clusters(&file.record, 3)), (answer{0, TRUNCATED}));
}

TEST_P(ReleaseClusters, EveryEndMarkEndsTheChain) {
    for (u32 value = volume::first_end_mark(); value <= volume::end_mark(); value++) {
        v.chain({5, 6});
        v.set_link(6, value);
        open_entry file({5, 6});
        EXPECT_EQ(heard(fat_release_clusters(&file.record, 0)), (answer{2, ""}));
    }
}

TEST_P(ReleaseClusters, EmptyEntryHasNoChain) {
    open_entry file;
    EXPECT_EQ(heard(fat_release_clusters(&file.record, 0)),
              failed(-EINVAL, INVALID_ARG + NOT_RELEASED));
    EXPECT_TRUE(transfers().empty());
}

TEST_P(ReleaseClusters, FreeEntryInTheChainEndsTheRelease) {
    v.chain({5, 6, 7, 8});
    v.set_link(7, 0);
    open_entry file({5, 6, 7, 8});
    fat_picture fat(&v);
    EXPECT_EQ(heard(fat_release_clusters(&file.record, 0)), failed(-EINVAL, NOT_RELEASED));
    EXPECT_EQ(fat.with(5, 0).with(6, 0).difference(), "");
}

TEST_P(ReleaseClusters, DamagedLinkEndsTheRelease) {
    for (const u32 value : {1U, last_cluster + 1, volume::bad_mark()}) {
        v.chain({5, 6, far});
        v.set_link(far, value);
        open_entry file({5, 6, far});
        fat_picture fat(&v);
        EXPECT_EQ(heard(fat_release_clusters(&file.record, 0)),
                  failed(-EINVAL, INVALID_LINK + NOT_RELEASED));
        EXPECT_EQ(fat.with(5, 0).with(6, 0).difference(), "");
    }
}

TEST_P(ReleaseClusters, EveryFailureLeavesTheFrontOfTheChainFree) {
    const std::vector<u32> clusters = {5, far, 6, 7, far + 1, far + 2, 8};
    std::vector<fault_kind> kinds = {EVERY_READ, EVERY_ALLOCATION};
    for (const int moved : NOT_ONE_SECTOR) {
        kinds.push_back({fault::write, false, moved});
    }
    at_every_fault(kinds, [&](fault_step &step) {
        v.chain(clusters);
        open_entry file(clusters);
        const answer a = heard(step.run([&] { return fat_release_clusters(&file.record, 0); }));
        if (!step.struck()) {
            EXPECT_EQ(a, (answer{7, ""}));
            return;
        }
        if (step.is(fault::write)) {
            EXPECT_EQ(a, failed(-EIO, CANNOT_WRITE + NOT_RELEASED));
        } else if (step.is(fault::read)) { // to follow, or to change
            EXPECT_TRUE(a == failed(-EINVAL, CANNOT_READ + NOT_RELEASED) ||
                        a == failed(-EIO, CANNOT_CHANGE + NOT_RELEASED))
                << a;
        } else {
            EXPECT_TRUE(a.result == -EINVAL || a.result == -ENOMEM) << a;
            EXPECT_TRUE(a.messages.ends_with(NOT_RELEASED)) << a;
        }
        // The freed clusters are the first ones; the clusters after them have not changed.
        std::size_t freed = 0;
        while (freed < clusters.size() && v.link(clusters[freed]) == 0) {
            freed++;
        }
        EXPECT_LT(freed, clusters.size());
        for (std::size_t i = freed; i < clusters.size(); i++) {
            EXPECT_EQ(v.link(clusters[i]),
                      i + 1 < clusters.size() ? clusters[i + 1] : volume::end_mark());
        }
    });
}

TEST_P(ReleaseClusters, SectorsReachTheMediumInTheOrderOfTheChain) {
    const std::vector<u32> clusters = {5, 6, far, far + 1, 7, 8};
    v.chain(clusters);
    open_entry file(clusters);
    transfers();
    EXPECT_EQ(heard(fat_release_clusters(&file.record, 0)), (answer{6, ""}));
    std::vector<u64> written = sectors_written();
    EXPECT_LE(written.size(), clusters.size());
    written.erase(std::unique(written.begin(), written.end()), written.end());
    EXPECT_EQ(written, (std::vector<u64>{volume::fat_sector_of(5), volume::fat_sector_of(far),
                                         volume::fat_sector_of(7)}));
}

TEST_P(ReleaseClusters, WholeVolumeIsFreedInOnePassOverTheFat) {
    std::vector<u32> clusters;
    for (u32 cluster = 2; cluster <= last_cluster; cluster++) {
        clusters.push_back(cluster);
    }
    v.chain(clusters);
    open_entry file(clusters);
    transfers();
    EXPECT_EQ(heard(fat_release_clusters(&file.record, 0)),
              (answer{static_cast<int>(sv->num_clusters), ""}));
    const u64 fat_sectors = volume::fat_sector_of(last_cluster) - sv->fat_start + 1;
    EXPECT_LE(sectors_written().size(), fat_sectors);
    EXPECT_LE(sectors_read(), 2 * fat_sectors);
}

// ---- listing ----------------------------------------------------------------------------------

namespace {

// The numbers of an array before its terminator, which must be within `slots`.
std::vector<u32> listed(const u32 *array, u32 slots) {
    std::vector<u32> result;
    for (u32 i = 0; i < slots; i++) {
        if (array[i] == END) {
            return result;
        }
        result.push_back(array[i]);
    }
    ADD_FAILURE() << "no terminator in " << slots << " slots";
    return result;
}

} // namespace

TEST_P(GetChains, ClustersAreListedInChainOrder) {
    const std::vector<std::vector<u32>> chains = {
        {5}, {9, 8}, {5, far, 6, last_cluster}, {last_cluster, 3, far + 7}};
    for (const std::vector<u32> &clusters : chains) {
        v.chain(clusters);
        open_entry file(clusters);
        const shown before = file.now();
        const u32 slots = static_cast<u32>(clusters.size()) + 1;
        u32 *array = nullptr;
        EXPECT_EQ(heard(fat_get_chains(&file.record, &array)),
                  (answer{static_cast<int>(slots), ""}));
        ASSERT_NE(array, nullptr);
        EXPECT_EQ(listed(array, slots), clusters);
        EXPECT_EQ(file.now(), before);
        std::free(array);
    }
    EXPECT_TRUE(sectors_written().empty());
}

TEST_P(GetChains, EntryWithNothingAllocatedHasNoArray) {
    open_entry file;
    u32 something = 0;
    u32 *array = &something;
    EXPECT_EQ(heard(fat_get_chains(&file.record, &array)), (answer{0, ""}));
    EXPECT_EQ(array, &something);
    EXPECT_TRUE(transfers().empty());
}

TEST_P(GetChainsOfFat16, RootAndEntriesWithoutADentryCopyHaveNoChain) {
    directory root = v.root();
    directory dir = v.sub_directory({5});
    dir.record.dentry = nullptr;
    directory elsewhere = v.sub_directory({6});
    elsewhere.record.dentry = nullptr;
    elsewhere.record.dentry_sector = v.root().record.dentry_sector + 100;
    u32 something = 0;
    u32 *array = &something;
    for (oentry *record : {&root.record, &dir.record, &elsewhere.record}) {
        EXPECT_EQ(heard(fat_get_chains(record, &array)),
                  failed(-EINVAL, "fat_get_chains[N]: Invalid arg!\n\n"));
        record->allocated = 0; // is checked later
        EXPECT_EQ(heard(fat_get_chains(record, &array)),
                  failed(-EINVAL, "fat_get_chains[N]: Invalid arg!\n\n"));
        EXPECT_EQ(array, &something);
    }
}

TEST_P(GetChainsOfFat32, RootHasAChainLikeAnyOther) {
    directory root = v.longer_root({40, far});
    u32 *array = nullptr;
    EXPECT_EQ(heard(fat_get_chains(&root.record, &array)), (answer{4, ""}));
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(listed(array, 4), (std::vector<u32>{sv->root_clus, 40, far}));
    std::free(array);
}

TEST_P(GetChains, ChainShorterThanRecordedEndsEarly) {
    v.chain({5, 6});
    open_entry file({5, 6});
    file.record.allocated = 6 * cluster_bytes;
    u32 *array = nullptr;
    EXPECT_EQ(heard(fat_get_chains(&file.record, &array)), (answer{7, ""}));
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(listed(array, 7), (std::vector<u32>{5, 6}));
    std::free(array);
}

TEST_P(GetChains, ChainLongerThanRecordedDoesNotOverrunAndIsTerminated) {
    const std::vector<u32> clusters = {5, 6, 7, far, far + 1, 8};
    v.chain(clusters);
    for (u32 recorded = 1; recorded < clusters.size(); recorded++) {
        open_entry file(clusters);
        file.record.allocated = recorded * cluster_bytes;
        u32 *array = nullptr;
        EXPECT_EQ(heard(fat_get_chains(&file.record, &array)),
                  (answer{static_cast<int>(recorded) + 1, ""}));
        ASSERT_NE(array, nullptr);
        const std::vector<u32> list = listed(array, recorded + 2);
        ASSERT_GE(list.size(), recorded);
        EXPECT_TRUE(std::equal(list.begin(), list.end(), clusters.begin()));
        std::free(array);
    }
}

TEST_P(GetChains, SizeThatIsNoWholeNumberOfClustersIsCutDown) {
    v.chain({5, 6});
    for (const u32 extra : {1U, cluster_bytes - 1}) {
        open_entry file({5, 6});
        file.record.allocated = 2 * cluster_bytes + extra;
        u32 *array = nullptr;
        EXPECT_EQ(heard(fat_get_chains(&file.record, &array)), (answer{3, ""}));
        ASSERT_NE(array, nullptr);
        EXPECT_EQ(listed(array, 3), (std::vector<u32>{5, 6}));
        std::free(array);
    }
}

TEST_P(GetChains, SizeOfLessThanAClusterStillGivesATerminatedArray) {
    v.chain({5, 6});
    for (const u32 first : {5U, 6U}) {
        open_entry file({first});
        file.record.allocated = 1;
        u32 *array = nullptr;
        EXPECT_EQ(heard(fat_get_chains(&file.record, &array)), (answer{1, ""}));
        ASSERT_NE(array, nullptr);
        listed(array, 2);
        std::free(array);
    }
}

TEST_P(GetChains, BrokenChainIsReportedAndNothingStaysAllocated) {
    struct damage {
        u32 value;
        std::string message;
    };
    for (const damage &d :
         {damage{0, ""}, damage{1, INVALID_LINK}, damage{last_cluster + 1, INVALID_LINK},
          damage{volume::bad_mark(), INVALID_LINK}}) {
        v.chain({5, 6, 7});
        v.set_link(7, d.value);
        open_entry file({5, 6, 7});
        u32 something = 0;
        u32 *array = &something;
        const allocation_meter meter;
        EXPECT_EQ(fat_get_chains(&file.record, &array), -EINVAL);
        EXPECT_EQ(meter.live_blocks(), 0);
        EXPECT_EQ(heard(0).messages, d.message + NOT_LISTED);
        EXPECT_EQ(array, nullptr);
    }
}

TEST_P(GetChains, RecordWithoutAFirstClusterIsABrokenChain) {
    open_entry file;
    file.record.allocated = cluster_bytes;
    u32 *array = nullptr;
    EXPECT_EQ(heard(fat_get_chains(&file.record, &array)),
              failed(-EINVAL, INVALID_ARG + NOT_LISTED));
}

TEST_P(GetChains, UnreadableSectorIsABrokenChain) {
    v.chain({5, far});
    open_entry file({5, far});
    v.disk.unreadable = {volume::fat_sector_of(far)};
    u32 *array = nullptr;
    EXPECT_EQ(heard(fat_get_chains(&file.record, &array)),
              failed(-EINVAL, CANNOT_READ + NOT_LISTED));
}

TEST_P(GetChains, EveryFailingReadOrAllocation) {
    v.chain({5, far, 6});
    at_every_fault({EVERY_ALLOCATION, EVERY_READ}, [&](fault_step &step) {
        open_entry file({5, far, 6});
        u32 something = 0;
        u32 *array = &something;
        const answer a =
            heard(step.run_keeping([&] { return fat_get_chains(&file.record, &array); }));
        EXPECT_EQ(step.left_allocated(), step.struck() ? 0 : 1);
        if (!step.struck()) {
            EXPECT_GT(a.result, 0);
            EXPECT_TRUE(step.is(fault::read) ? step.k == 3 : step.k >= 2);
            std::free(array);
            return;
        }
        EXPECT_EQ(array, nullptr);
        EXPECT_EQ(a,
                  step.is(fault::read) ? failed(-EINVAL, CANNOT_READ + NOT_LISTED)
                  : step.k == 0
                      ? failed(-ENOMEM, "fat_get_chains[N]: Memory allocation error!\n\n")
                      : failed(-EINVAL, "fat_read_entry[N]: cannot allocate FAT\n\n" + NOT_LISTED));
    });
}
