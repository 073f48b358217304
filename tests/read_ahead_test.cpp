// Sectors read together. Whatever the result of such a transfer, a walk returns and prints the same
// as with single-sector reads, and sees the writes of its own call.

#include "tests/support/capture.h"
#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/reference.h"
#include "tests/support/volume.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>

using namespace fat;
using namespace testing_support;

namespace {

// How a medium answers a transfer of several sectors.
enum class togetherness { WHOLE, NOTHING, ONE_SECTOR, ALL_BUT_ONE, GARBAGE_AND_FAILURE };
constexpr togetherness EVERY_ANSWER[] = {togetherness::WHOLE, togetherness::NOTHING,
                                         togetherness::ONE_SECTOR, togetherness::ALL_BUT_ONE,
                                         togetherness::GARBAGE_AND_FAILURE};
togetherness answer_now = togetherness::WHOLE;
fat_sector_io read_well = nullptr;
int refused = 0; // incomplete transfers of several sectors

int read_in_part(void *buf, u64 sector, u32 count) {
    if (count == 1 || answer_now == togetherness::WHOLE) {
        return read_well(buf, sector, count);
    }
    refused++;
    switch (answer_now) {
    case togetherness::ONE_SECTOR:
        return read_well(buf, sector, 1);
    case togetherness::ALL_BUT_ONE:
        return read_well(buf, sector, count - 1);
    case togetherness::GARBAGE_AND_FAILURE:
        std::memset(buf, 0x5A, std::size_t{count} * sv->sector_size);
        report_at("file_read_sectors", __LINE__,
                  "Check here!\n\n"); // not requested yet
        return -EIO;
    default:
        return 0;
    }
}

// A result and its messages.
struct answer {
    std::int64_t result;
    std::string messages;
    bool operator==(const answer &) const = default;
};
std::ostream &operator<<(std::ostream &out, const answer &a) {
    return out << a.result << ", \"" << a.messages << "\"";
}

class ReadAhead : public testing::TestWithParam<volume_shape> {
protected:
    ReadAhead() {
        answer_now = togetherness::WHOLE;
        refused = 0;
        read_well = read_sectors;
        read_sectors = read_in_part;
    }

    static u32 per_fat_sector() {
        return sv->sector_size / (sv->fat_type / 8);
    }
    // Contiguous clusters that take `fat_sectors` sectors of the FAT, and one more elsewhere.
    std::vector<u32> straight_chain(u32 fat_sectors) {
        std::vector<u32> clusters(std::size_t{fat_sectors} * per_fat_sector() - 5);
        std::iota(clusters.begin(), clusters.end(), 5U);
        clusters.push_back(static_cast<u32>(clusters.size()) + 50);
        v.chain(clusters);
        return clusters;
    }
    answer heard(std::int64_t result) {
        const answer a{result, messages.text()};
        messages.clear();
        return a;
    }
    // The sector of the cluster `links` links after the first, by the library and by the model.
    answer found_sector(u32 links) {
        u32 sector = 0;
        const int result = get_phy_sector(5, links * sv->sec_per_clus, &sector);
        return heard(result < 0 ? result : std::int64_t{sector});
    }
    answer expected_sector(u32 links) {
        auto volume = reference_of<model::chains>(&v.disk);
        u32 sector = 0;
        const int result = volume.locate(5, links * sv->sec_per_clus, &sector);
        return {result < 0 ? result : std::int64_t{sector}, volume.printed};
    }
    [[nodiscard]] bool has_read_together() const {
        return std::any_of(v.disk.log.begin(), v.disk.log.end(),
                           [](const transfer &t) { return !t.is_write && t.count > 1; });
    }

    volume v{GetParam()};
    diagnostics messages;
};
std::vector<volume_shape> walked_shapes() {
    return {{.fat_type = 16},
            {.fat_type = 16, .sec_per_clus = 8, .clusters = 60000},
            {.fat_type = 32},
            {.fat_type = 32, .sector_size = 1024, .sec_per_clus = 4}};
}
INSTANTIATE_TEST_SUITE_P(Shapes, ReadAhead, testing::ValuesIn(walked_shapes()), shape_name);

} // namespace

// ---- the FAT ----------------------------------------------------------------------------------

TEST_P(ReadAhead, BadFatSectorMattersOnlyWhenTheChainLeadsThroughIt) {
    const std::vector<u32> clusters = straight_chain(13);
    for (const togetherness how : EVERY_ANSWER) {
        answer_now = how;
        for (u32 bad = 0; bad < 13; bad++) {
            v.disk.bad_sectors = {sv->fat_start + bad};
            for (u32 links = 1; links < clusters.size(); links += per_fat_sector() / 2) {
                ASSERT_EQ(found_sector(links), expected_sector(links))
                    << "bad " << bad << ", links " << links;
            }
            const u32 all = static_cast<u32>(clusters.size()) - 1;
            ASSERT_EQ(found_sector(all), expected_sector(all)) << "bad " << bad;
        }
    }
    EXPECT_TRUE(has_read_together());
    EXPECT_GT(refused, 0);
}

TEST_P(ReadAhead, SearchForAFreeClusterStopsAtABadFatSectorOnlyWhenItReachesIt) {
    const u32 last = 13 * per_fat_sector() - 1;
    for (u32 cluster = 2; cluster <= last; cluster++) {
        v.set_link(cluster, volume::end_mark());
    }
    for (const u32 free : {5 * per_fat_sector() - 1, 9 * per_fat_sector(), last}) {
        v.set_link(free, 0);
        for (const togetherness how : EVERY_ANSWER) {
            answer_now = how;
            for (u32 bad = 0; bad < 14; bad++) {
                v.disk.bad_sectors = {sv->fat_start + bad};
                auto volume = reference_of<model::chains>(&v.disk);
                const int free_cluster = volume.find_free(2, last);
                const answer expected{free_cluster, volume.printed};
                ASSERT_EQ(heard(fat_free_clus(2, last)), expected) << "bad " << bad;
            }
        }
        v.set_link(free, volume::end_mark());
    }
}

TEST_P(ReadAhead, NothingPastTheFatIsRead) {
    for (u32 cluster = 2; cluster <= volume::last_cluster(); cluster++) {
        v.set_link(cluster, volume::end_mark());
    }
    v.disk.log.clear();
    EXPECT_EQ(heard(fat_free_clus(2, volume::last_cluster())), (answer{-ENOENT, ""}));
    EXPECT_TRUE(has_read_together());
    for (const auto &[sector, times] : v.sectors_read()) {
        EXPECT_LT(sector, sv->fat_start + sv->fat_size);
    }
}

// A boot sector may claim a FAT that is smaller than its clusters need, or longer than the target.
TEST_P(ReadAhead, FatOfAWrongSizeIsFollowedAllTheSame) {
    const std::vector<u32> clusters = straight_chain(13);
    const u32 all = static_cast<u32>(clusters.size()) - 1;
    const answer expected = expected_sector(all);
    for (const u32 size : {0U, 1U, 7U, 0xFFFFFFFFU}) {
        sv->fat_size = size;
        ASSERT_EQ(found_sector(all), expected) << size << " sectors";
    }
    sv->fat_size = 0xFFFFFFFF;
    sv->vol_size = u64{sv->fat_start + 13} * sv->sector_size;
    ASSERT_EQ(found_sector(all), expected);
}

TEST_P(ReadAhead, LongerWindowsAreNotNeeded) {
    const std::vector<u32> clusters = straight_chain(13);
    const u32 all = static_cast<u32>(clusters.size()) - 1;
    const answer expected = expected_sector(all);
    const answer no_window = {-EINVAL, "fat_read_entry[N]: cannot allocate FAT\n\n"
                                       "get_phy_sector[N]: invalid value -12\n"};
    at_every_fault({EVERY_ALLOCATION, NO_ALLOCATION_FROM}, [&](fault_step &step) {
        u32 sector = 0;
        const answer a =
            heard(step.run([&] { return get_phy_sector(5, all * sv->sec_per_clus, &sector); }));
        EXPECT_EQ(a, step.k == 0 ? no_window : (answer{0, ""}));
        EXPECT_TRUE(step.k == 0 || sector == static_cast<u32>(expected.result));
    });
}

TEST_P(ReadAhead, WindowHolds64KiBAtMostAndOneSectorForAShortWalk) {
    for (u32 cluster = 2; cluster <= volume::last_cluster(); cluster++) {
        v.set_link(cluster, volume::end_mark());
    }
    {
        const allocation_meter meter;
        EXPECT_EQ(fat_free_clus(2, 3 * per_fat_sector()), -ENOENT);
        EXPECT_EQ(meter.peak_bytes(), sv->sector_size);
    }
    const allocation_meter meter;
    EXPECT_EQ(fat_free_clus(2, volume::last_cluster()), -ENOENT);
    EXPECT_LE(meter.peak_bytes(), (64U + 32U) * 1024); // the old window is freed after the new one
    EXPECT_EQ(meter.live_blocks(), 0);
    for (const transfer &t : v.disk.log) {
        EXPECT_LE(t.count, 65536 / sv->sector_size);
    }
}

// A failed transfer of several sectors is not repeated: the medium may be slow to fail.
TEST_P(ReadAhead, SectorsThatCannotBeReadTogetherAreRequestedOnce) {
    const u32 all = static_cast<u32>(straight_chain(13).size()) - 1;
    answer_now = togetherness::GARBAGE_AND_FAILURE;
    EXPECT_GT(found_sector(all).result, 0);
    EXPECT_LE(refused, 3);
}

TEST(CycleGuard, PassesAnExtentAsItPassesSingleClusters) {
    for (u32 seed = 1; seed <= 2000; seed++) {
        std::mt19937 random(seed);
        core::cycle_detector by_stretches;
        core::cycle_detector one_by_one;
        bool closes = false;
        while (!closes) {
            const u32 first = 2 + static_cast<u32>(random() % 300);
            const u32 count = static_cast<u32>(random() % 40);
            for (u32 i = 0; i < count && !closes; i++) {
                closes = one_by_one.closes_cycle(first + i);
            }
            ASSERT_EQ(by_stretches.closes_cycle_within(first, count), closes) << "seed " << seed;
            ASSERT_EQ(by_stretches.anchor, one_by_one.anchor) << "seed " << seed;
            ASSERT_EQ(by_stretches.span, one_by_one.span) << "seed " << seed;
        }
    }
}

// ---- what the same call has changed -----------------------------------------------------------

// A chain through many FAT sectors that returns to a cluster already freed by its release, in a
// sector that was read together with others: the free entry ends the release.
TEST_P(ReadAhead, ReleaseSeesWhatItFreedInSectorsReadBefore) {
    for (u32 back_to = 8; back_to < 12; back_to++) {
        const std::vector<u32> clusters = straight_chain(13);
        const u32 returns = back_to * per_fat_sector() + 3;
        v.set_link(clusters.back(), returns);
        oentry file = {};
        file.start = 5;
        file.last = clusters.back();
        file.allocated = static_cast<u32>(clusters.size()) * sv->sec_per_clus * sv->sector_size;
        ASSERT_EQ(heard(fat_release_clusters(&file, 0)),
                  (answer{-EINVAL, "fat_release_clusters[N]: Failed to read cluster!\n\n"}));
        for (const u32 cluster : clusters) {
            ASSERT_EQ(v.link(cluster), 0U) << cluster;
        }
    }
}

// A chain through many FAT sectors that then returns to other clusters in some of them: the earlier
// changes of these sectors must not be overwritten.
TEST_P(ReadAhead, ReleaseKeepsItsEarlierChangesOfASectorThatItReachesAgain) {
    std::vector<u32> clusters = straight_chain(13);
    clusters.pop_back();
    std::vector<u32> left_out;
    for (u32 sector = 8; sector < 12; sector++) {
        const u32 cluster = sector * per_fat_sector() + 9;
        clusters.erase(std::find(clusters.begin(), clusters.end(), cluster));
        left_out.push_back(cluster);
    }
    clusters.insert(clusters.end(), left_out.begin(), left_out.end());
    v.chain(clusters);
    oentry file = {};
    file.start = 5;
    file.last = clusters.back();
    file.allocated = static_cast<u32>(clusters.size()) * sv->sec_per_clus * sv->sector_size;
    EXPECT_EQ(heard(fat_release_clusters(&file, 0)),
              (answer{static_cast<std::int64_t>(clusters.size()), ""}));
    for (const u32 cluster : clusters) {
        ASSERT_EQ(v.link(cluster), 0U) << cluster;
    }
}

// The second write of an allocation fails although its sector reaches the medium. The undo of the
// link starts with the current content of the sector.
TEST_P(ReadAhead, UndoReadsASectorWhoseWriteFailedAgain) {
    v.chain({5});
    oentry file = {};
    file.start = file.last = 5;
    sv->last_alloc_clus = 5;
    v.disk.writes_before_failure = 1;
    v.disk.failure_result = 2;
    u32 cluster = 0;
    EXPECT_EQ(heard(fat_alloc_cluster(&file, &cluster)),
              (answer{-EIO, "fat_write_entry[N]: cannot write FAT\n\n"
                            "fat_alloc_cluster[N]: Failed to write entry!\n\n"}));
    EXPECT_EQ(cluster, 6U);
    EXPECT_EQ(v.link(5), volume::end_mark());
    EXPECT_EQ(v.link(6), volume::end_mark());
}

// Allocations that go through many FAT sectors, wrap around and reach those sectors again.
TEST_P(ReadAhead, AllocationsSeeTheirOwnChangesAfterTheWrap) {
    for (u32 cluster = 2; cluster <= volume::last_cluster(); cluster++) {
        v.set_link(cluster, volume::end_mark());
    }
    std::vector<u32> left_free;
    for (u32 sector = 0; sector + 1 < sv->fat_size; sector++) {
        left_free.push_back(sector * per_fat_sector() + 7);
        v.set_link(left_free.back(), 0);
    }
    sv->last_alloc_clus = left_free[left_free.size() / 2];
    std::vector<u32> expected(left_free.begin() + static_cast<long>(left_free.size() / 2) + 1,
                              left_free.end());
    expected.insert(expected.end(), left_free.begin(), left_free.end());
    expected.resize(left_free.size());
    oentry file = {};
    std::vector<u32> got(left_free.size() + 1);
    u32 allocated = 0;
    EXPECT_EQ(heard(alloc_clusters(&file, got.data(), static_cast<u32>(got.size()), &allocated)),
              (answer{-ENOSPC, "fat_alloc_cluster[N]: No space left on volume!!\n"}));
    EXPECT_EQ(allocated, left_free.size());
    got.pop_back();
    EXPECT_EQ(got, expected);
    for (std::size_t i = 0; i < expected.size(); i++) {
        const u32 next = i + 1 < expected.size() ? expected[i + 1] : volume::end_mark();
        ASSERT_EQ(v.link(expected[i]), next) << i;
    }
}

// ---- directories ------------------------------------------------------------------------------

namespace {

class ReadAheadInADirectory : public ReadAhead {
protected:
    // All entries are deleted except those of one sector; the name is in sector `home`.
    void put_name(const directory &dir, u32 home) {
        for (u32 i = 0; i < dir.capacity(); i++) {
            v.disk.poke(dir.offset_of(i), {0xE5});
        }
        const entry_image entry = short_entry("HERE       ");
        v.disk.poke(dir.offset_of(home * volume::entries_per_sector() + 3),
                    {entry.begin(), entry.end()});
    }
    answer look_up(u32 base) {
        char name[] = "HERE";
        return heard(find_dentry_with_clu(base, name, nullptr));
    }
    answer expected_look_up(u32 base) {
        auto volume = reference_of<model::directories>(&v.disk);
        const std::optional<int> found = volume.find(base, "HERE       ", std::nullopt);
        return {found.value_or(-ENOENT), volume.printed};
    }
    void expect_equal_lookups(const directory &dir) {
        const u32 sectors = static_cast<u32>(dir.sectors.size());
        for (u32 home = 0; home < sectors; home += 3) {
            put_name(dir, home);
            for (u32 bad = 0; bad < sectors; bad++) {
                v.disk.bad_sectors = {dir.sectors[bad]};
                ASSERT_EQ(look_up(dir.base()), expected_look_up(dir.base()))
                    << "name in sector " << home << ", bad " << bad;
            }
        }
        v.disk.bad_sectors.clear();
    }
};
INSTANTIATE_TEST_SUITE_P(
    Shapes, ReadAheadInADirectory,
    testing::Values(volume_shape{.fat_type = 16, .sec_per_clus = 8},
                    volume_shape{.fat_type = 32, .sec_per_clus = 1},
                    volume_shape{.fat_type = 32, .sector_size = 1024, .sec_per_clus = 4}),
    shape_name);

} // namespace

TEST_P(ReadAheadInADirectory, BadSectorMattersOnlyWhenTheLookupReachesIt) {
    const directory dir = v.sub_directory({5, 6, 7, 20, 9});
    for (const togetherness how : EVERY_ANSWER) {
        answer_now = how;
        ASSERT_NO_FATAL_FAILURE(expect_equal_lookups(dir));
        ASSERT_NO_FATAL_FAILURE(expect_equal_lookups(v.root()));
    }
    EXPECT_TRUE(has_read_together());
    EXPECT_GT(refused, 0);
}

// Intentional: a transfer of one sector that moves nothing is not an error of a lookup. The lookup
// uses the previous sector again, neither the sector's own content nor the end of the directory.
TEST_P(ReadAheadInADirectory, MissingSectorIsSkippedByALookup) {
    const directory dir = v.sub_directory({5, 6, 7});
    const u32 per_sector = volume::entries_per_sector();
    for (u32 missing = 1; missing + 1 < dir.sectors.size(); missing++) {
        put_name(dir, missing);
        const u32 after = (missing + 1) * per_sector;
        const entry_image entry = short_entry("HERE       ");
        v.disk.poke(dir.offset_of(after), {entry.begin(), entry.end()});
        v.disk.failure_result = 0;
        v.disk.bad_sectors = {dir.sectors[missing]};
        ASSERT_EQ(look_up(5).result, after);
        v.disk.bad_sectors.clear();
    }
}

TEST_P(ReadAheadInADirectory, MissingSectorIsUnusedToAWalkOverAnOpenDirectory) {
    directory dir = v.sub_directory({5, 6, 7});
    for (u32 home = 1; home < dir.sectors.size(); home++) {
        put_name(dir, home);
        ASSERT_EQ(heard(is_empty_dir(&dir.record)), (answer{-ENOTEMPTY, ""})) << home;
        v.disk.failure_result = 0;
        v.disk.bad_sectors = {dir.sectors[home]};
        ASSERT_EQ(heard(is_empty_dir(&dir.record)), (answer{1, ""})) << home;
        v.disk.bad_sectors.clear();
    }
}

TEST_P(ReadAheadInADirectory, LongerWindowsAreNotNeeded) {
    const directory dir = v.sub_directory({5, 6, 7});
    put_name(dir, static_cast<u32>(dir.sectors.size()) - 1);
    const answer expected = expected_look_up(5);
    at_every_fault({EVERY_ALLOCATION}, [&](fault_step &step) {
        const answer a = step.run([&] { return look_up(5); });
        if (a.result >= 0) {
            EXPECT_EQ(a, expected);
        } else {
            EXPECT_EQ(a.result, step.k < 3 ? -ENOMEM : -EINVAL) << a;
        }
    });
}

TEST_P(ReadAheadInADirectory, NoTransferLeavesTheExtentOfTheDirectory) {
    const directory dir = v.sub_directory({5, 6, 20, 21, 9});
    put_name(dir, static_cast<u32>(dir.sectors.size()) - 1);
    const std::set<u64> own(dir.sectors.begin(), dir.sectors.end());
    v.disk.log.clear();
    EXPECT_GE(look_up(5).result, 0);
    for (const auto &[sector, times] : v.sectors_read()) {
        EXPECT_TRUE(sector < sv->fat_start + sv->fat_size || own.contains(sector)) << sector;
    }
}
