// Directories that grow by a cluster, and the open records that must be updated.

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

class ExtendDir : public chain_case {};

INSTANTIATE_TEST_SUITE_P(Shapes, ExtendDir, testing::ValuesIn(chain_shapes()), shape_name);

} // namespace

// ---- growing a directory ----------------------------------------------------------------------

TEST_P(ExtendDir, WithoutADirectoryAClearedClusterIsNotLinked) {
    fat_picture fat(&v);
    fill_data(41, 0x5A);
    sv->last_alloc_clus = 40;
    u32 cluster = UNTOUCHED;
    EXPECT_EQ(heard(fat_extend_dir(nullptr, &cluster)), (answer{0, ""}));
    EXPECT_EQ(cluster, 41U);
    EXPECT_EQ(data_of(41), all(0));
    EXPECT_EQ(fat.with(41, END).difference(), "");
    EXPECT_EQ(sv->last_alloc_clus, 41U);
}

TEST_P(ExtendDir, DirectoryGrowsByAClearedCluster) {
    directory dir = v.sub_directory({5, 9});
    fat_picture fat(&v);
    fill_data(41, 0x5A);
    sv->last_alloc_clus = 40;
    u32 cluster = UNTOUCHED;
    EXPECT_EQ(heard(fat_extend_dir(&dir.record, &cluster)), (answer{0, ""}));
    EXPECT_EQ(cluster, 41U);
    EXPECT_EQ(data_of(41), all(0));
    EXPECT_EQ(fat.with(9, 41).with(41, END).difference(), "");
    EXPECT_EQ(dir.record.start, 5U);
    EXPECT_EQ(dir.record.last, 41U);
    EXPECT_EQ(dir.record.allocated, 3 * cluster_bytes);
}

TEST_P(ExtendDir, NumberOfTheClusterIsNotNeeded) {
    directory dir = v.sub_directory({5});
    sv->last_alloc_clus = 40;
    EXPECT_EQ(heard(fat_extend_dir(&dir.record, nullptr)), (answer{0, ""}));
    EXPECT_EQ(dir.record.last, 41U);
    EXPECT_EQ(heard(fat_extend_dir(nullptr, nullptr)), (answer{0, ""}));
    EXPECT_EQ(v.link(42), volume::end_mark());
}

TEST_P(ExtendDir, EntryWithoutAClusterReceivesItsFirst) {
    open_entry dir({}, DIRECTORY);
    sv->last_alloc_clus = 40;
    u32 cluster = UNTOUCHED;
    EXPECT_EQ(heard(fat_extend_dir(&dir.record, &cluster)), (answer{0, ""}));
    EXPECT_EQ(dir.now(),
              (shown{41, 41, cluster_bytes, short_entry("ENTRY      ", DIRECTORY, 41, 77)}));
}

TEST_P(ExtendDir, FatIsChangedBeforeTheClusterIsCleared) {
    directory dir = v.sub_directory({5});
    sv->last_alloc_clus = far - 1;
    transfers();
    EXPECT_EQ(heard(fat_extend_dir(&dir.record, nullptr)), (answer{0, ""}));
    const std::vector<u64> written = sectors_written();
    ASSERT_EQ(written.size(), 2 + sv->sec_per_clus);
    EXPECT_EQ(written[0], volume::fat_sector_of(5));
    EXPECT_EQ(written[1], volume::fat_sector_of(far));
    EXPECT_EQ(written[2], volume::first_sector_of(far));
}

TEST_P(ExtendDir, FullVolumeIsReported) {
    occupy_all_but({});
    directory dir = v.sub_directory({5});
    const fat_picture fat(&v);
    u32 cluster = UNTOUCHED;
    EXPECT_EQ(heard(fat_extend_dir(&dir.record, &cluster)),
              failed(-ENOSPC, NO_SPACE + NOT_EXTENDED));
    EXPECT_EQ(heard(fat_extend_dir(nullptr, &cluster)), failed(-ENOSPC, NO_SPACE + NOT_EXTENDED));
    EXPECT_EQ(cluster, UNTOUCHED);
    EXPECT_EQ(dir.record.last, 5U);
    EXPECT_EQ(dir.record.allocated, cluster_bytes);
    EXPECT_EQ(fat.difference(), "");
}

TEST_P(ExtendDir, ErrorOfTheAllocationIsItsOwn) {
    sv->last_alloc_clus = 40;
    v.disk.writes_before_failure = 0;
    EXPECT_EQ(heard(fat_extend_dir(nullptr, nullptr)),
              failed(-EIO, CANNOT_WRITE + NOT_LINKED + NOT_EXTENDED));
    v.set_link(41, 1);
    EXPECT_EQ(heard(fat_extend_dir(nullptr, nullptr)),
              failed(-EINVAL, INVALID_LINK + INVALID_VALUE + NOT_EXTENDED));
}

TEST_P(ExtendDir, IgnoredSearchErrorClearsNothing) {
    occupy_all_but({});
    v.set_link(20, 1);
    directory dir = v.sub_directory({5});
    for (oentry *record : {static_cast<oentry *>(nullptr), &dir.record}) {
        sv->last_alloc_clus = 100;
        transfers();
        u32 cluster = UNTOUCHED;
        EXPECT_EQ(heard(fat_extend_dir(record, &cluster)),
                  failed(-EINVAL, INVALID_LINK + INVALID_VALUE + NOT_EXTENDED));
        EXPECT_EQ(cluster, UNTOUCHED);
        for (const u64 sector : sectors_written()) {
            EXPECT_GE(sector, sv->fat_start);
            EXPECT_LT(sector, sv->fat_start + sv->fat_size);
        }
    }
}

TEST_P(ExtendDir, ClusterThatCannotBeClearedIsFreedAgain) {
    directory dir = v.sub_directory({5, 9});
    const fat_picture fat(&v);
    for (u32 k = 0; k < sv->sec_per_clus; k++) {
        sv->last_alloc_clus = 40;
        v.disk.unwritable = {volume::first_sector_of(41) + k};
        u32 cluster = UNTOUCHED;
        EXPECT_EQ(heard(fat_extend_dir(&dir.record, &cluster)),
                  failed(-EIO, "clear_cluster[N]: cannot write cluster(#41)\n"));
        EXPECT_EQ(cluster, UNTOUCHED);
        EXPECT_EQ(dir.record.start, 5U);
        EXPECT_EQ(dir.record.last, 9U);
        EXPECT_EQ(dir.record.allocated, 2 * cluster_bytes);
        EXPECT_EQ(fat.difference(), "");
        EXPECT_EQ(sv->last_alloc_clus, 41U); // the hint is not restored
    }
}

TEST_P(ExtendDir, OldEndIsMarkedBeforeTheNewClusterIsFreed) {
    directory dir = v.sub_directory({5});
    sv->last_alloc_clus = far - 1;
    v.disk.unwritable = {volume::first_sector_of(far)};
    transfers();
    EXPECT_EQ(heard(fat_extend_dir(&dir.record, nullptr)).result, -EIO);
    EXPECT_EQ(sectors_written(),
              (std::vector<u64>{volume::fat_sector_of(5), volume::fat_sector_of(far),
                                volume::first_sector_of(far), volume::fat_sector_of(5),
                                volume::fat_sector_of(far)}));
}

TEST_P(ExtendDir, NoMemoryToClearFreesTheClusterAgain) {
    directory dir = v.sub_directory({5});
    const fat_picture fat(&v);
    // The last allocation of the growth is the buffer of zeros.
    int k = 0;
    for (;; k++) {
        sv->last_alloc_clus = 40;
        answer a{};
        bool struck = false;
        {
            const allocation_meter meter;
            const failing_allocation fault(k);
            a.result = fat_extend_dir(&dir.record, nullptr);
            struck = fault.struck();
            EXPECT_EQ(meter.live_blocks(), 0);
        }
        a = heard(a.result);
        if (!struck) {
            EXPECT_EQ(a, (answer{0, ""}));
            break;
        }
        EXPECT_EQ(a.result, -ENOMEM);
        EXPECT_EQ(dir.record.last, 5U);
        EXPECT_EQ(dir.record.allocated, cluster_bytes);
        EXPECT_EQ(fat.difference(), "");
        if (sv->last_alloc_clus == 41) {
            EXPECT_EQ(a.messages, "clear_cluster[N]: Failed to allocate memory!\n\n");
        } else {
            EXPECT_EQ(sv->last_alloc_clus, 40U);
            EXPECT_TRUE(a.messages.ends_with(NOT_EXTENDED)) << a.messages;
        }
    }
    EXPECT_GE(k, 2);
}

TEST_P(ExtendDir, FirstClusterThatCannotBeClearedStaysInTheRecord) {
    open_entry dir({}, DIRECTORY);
    const fat_picture fat(&v);
    sv->last_alloc_clus = 40;
    v.disk.unwritable = {volume::first_sector_of(41)};
    EXPECT_EQ(heard(fat_extend_dir(&dir.record, nullptr)),
              failed(-EIO, "clear_cluster[N]: cannot write cluster(#41)\n"));
    EXPECT_EQ(fat.difference(), "");
    EXPECT_EQ(dir.now(),
              (shown{41, 41, cluster_bytes, short_entry("ENTRY      ", DIRECTORY, 41, 77)}));
    EXPECT_EQ(sv->last_alloc_clus, 41U);
}

TEST_P(ExtendDir, LoneClusterThatCannotBeClearedIsFreed) {
    const fat_picture fat(&v);
    sv->last_alloc_clus = 40;
    v.disk.unwritable = {volume::first_sector_of(41)};
    u32 cluster = UNTOUCHED;
    EXPECT_EQ(heard(fat_extend_dir(nullptr, &cluster)),
              failed(-EIO, "clear_cluster[N]: cannot write cluster(#41)\n"));
    EXPECT_EQ(fat.difference(), "");
    EXPECT_EQ(cluster, UNTOUCHED);
    EXPECT_EQ(sv->last_alloc_clus, 41U);
}

TEST_P(ExtendDir, FailedUndoIsIgnored) {
    directory dir = v.sub_directory({5});
    fat_picture fat(&v);
    sv->last_alloc_clus = far - 1;
    v.disk.writes_before_failure = 2; // link and end mark are written, nothing after them
    v.disk.fails_forever = true;
    EXPECT_EQ(heard(fat_extend_dir(&dir.record, nullptr)),
              failed(-EIO, "clear_cluster[N]: cannot write cluster(#" + std::to_string(far) +
                               ")\n" + CANNOT_WRITE + CANNOT_WRITE));
    EXPECT_EQ(dir.record.last, 5U);
    EXPECT_EQ(dir.record.allocated, cluster_bytes);
    EXPECT_EQ(fat.with(5, far).with(far, END).difference(), "");
}

TEST_P(ExtendDir, EveryFailureEndsInADirectoryThatIsWhole) {
    at_every_fault({EVERY_WRITE, EVERY_READ, EVERY_ALLOCATION}, [&](fault_step &step) {
        directory dir = v.sub_directory({5, 9});
        v.set_link(far, 0);
        const fat_picture fat(&v);
        sv->last_alloc_clus = far - 1;
        const int result = step.run([&] { return fat_extend_dir(&dir.record, nullptr); });
        if (!step.struck()) {
            EXPECT_EQ(result, 0);
            EXPECT_TRUE(!step.is(fault::write) || step.k == static_cast<int>(2 + sv->sec_per_clus));
            return;
        }
        EXPECT_EQ(result, step.is(fault::allocation) ? -ENOMEM : -EIO);
        EXPECT_EQ(dir.record.last, 9U);
        EXPECT_EQ(dir.record.allocated, 2 * cluster_bytes);
        EXPECT_EQ(fat.difference(), "");
    });
}

// ---- open records of a directory that grows ---------------------------------------------------

namespace {

class SharedGrowth : public chain_case {
protected:
    SharedGrowth() {
        EXPECT_EQ(open_root_directory(), 0);
    }

    // A record in the table, as after opening, for a chain of these clusters.
    static oentry *opened(const std::vector<u32> &clusters, u8 attr = DIRECTORY) {
        const entry_image image =
            short_entry("OPENED     ", attr, clusters.empty() ? 0 : clusters.front());
        auto *record = static_cast<oentry *>(std::calloc(1, sizeof(oentry)));
        EXPECT_EQ(fat_set_oentry(image.data(), 99, 32, record), 0);
        EXPECT_GT(register_oentry(record), 0);
        return record;
    }
    static int id_of(const oentry *record) {
        return static_cast<int>(std::find(oentry_table, oentry_table + 512, record) - oentry_table);
    }
    void expect_end(const oentry *record, u32 last, u32 clusters) {
        EXPECT_EQ(record->last, last);
        EXPECT_EQ(record->allocated, clusters * cluster_bytes);
    }
};
class SharedGrowthOfFat16 : public SharedGrowth {};
class SharedGrowthOfFat32 : public SharedGrowth {};

INSTANTIATE_TEST_SUITE_P(Shapes, SharedGrowth, testing::ValuesIn(chain_shapes()), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, SharedGrowthOfFat16, testing::ValuesIn(chain_shapes(16)),
                         shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, SharedGrowthOfFat32, testing::ValuesIn(chain_shapes(32)),
                         shape_name);

} // namespace

TEST_P(SharedGrowth, EveryOpenRecordOfTheDirectoryReceivesItsEnd) {
    v.chain({5, 9});
    oentry *first = opened({5, 9});
    oentry *second = opened({5, 9});
    oentry *third = opened({5, 9});
    sv->last_alloc_clus = 40;
    EXPECT_EQ(heard(fat_extend_dir(second, nullptr)), (answer{0, ""}));
    for (const oentry *record : {first, second, third}) {
        expect_end(record, 41, 3);
    }
    // The next growth continues at the end of the chain.
    EXPECT_EQ(heard(fat_extend_dir(third, nullptr)), (answer{0, ""}));
    EXPECT_EQ(heard(fat_extend_dir(first, nullptr)), (answer{0, ""}));
    for (const oentry *record : {first, second, third}) {
        expect_end(record, 43, 5);
    }
    u32 last = 0;
    EXPECT_EQ(heard(fat_count_clusters(5, &last)), (answer{5, ""}));
    EXPECT_EQ(last, 43U);
}

TEST_P(SharedGrowth, OtherDirectoriesKeepTheirEnd) {
    v.chain({5, 9});
    v.chain({6});
    v.chain({7, 8});
    oentry *grown = opened({5, 9});
    const oentry *other = opened({6});
    const oentry *file = opened({7, 8}, ARCHIVE);
    const oentry *empty = opened({}, ARCHIVE);
    const oentry root = *sv->root_dir;
    EXPECT_EQ(heard(fat_extend_dir(grown, nullptr)), (answer{0, ""}));
    expect_end(other, 6, 1);
    expect_end(file, 8, 2);
    expect_end(empty, 0, 0);
    EXPECT_EQ(sv->root_dir->last, root.last);
    EXPECT_EQ(sv->root_dir->allocated, root.allocated);
}

TEST_P(SharedGrowth, EmptyRecordsDoNotLearnOfAnothersFirstCluster) {
    oentry *grown = opened({});
    const oentry *empty = opened({}, ARCHIVE);
    sv->last_alloc_clus = 40;
    EXPECT_EQ(heard(fat_extend_dir(grown, nullptr)), (answer{0, ""}));
    expect_end(grown, 41, 1);
    EXPECT_EQ(empty->start, 0U);
    expect_end(empty, 0, 0);
}

TEST_P(SharedGrowth, FailedGrowthIsNotShared) {
    v.chain({5, 9});
    oentry *grown = opened({5, 9});
    const oentry *other = opened({5, 9});
    sv->last_alloc_clus = 40;
    v.disk.unwritable = {volume::first_sector_of(41)};
    EXPECT_EQ(heard(fat_extend_dir(grown, nullptr)).result, -EIO);
    expect_end(grown, 9, 2);
    expect_end(other, 9, 2);
}

TEST_P(SharedGrowth, CurrentDirectoryLearnsOfIt) {
    v.chain({5});
    const oentry *current = opened({5});
    ASSERT_GT(fat_set_current(id_of(current)), 0);
    oentry *grown = opened({5});
    sv->last_alloc_clus = 40;
    EXPECT_EQ(heard(fat_extend_dir(grown, nullptr)), (answer{0, ""}));
    ASSERT_EQ(sv->current_dir, current);
    expect_end(current, 41, 2);
}

TEST_P(SharedGrowth, RecordMadeForADotPathTeachesTheOriginal) {
    v.chain({5});
    const oentry *current = opened({5});
    ASSERT_GT(fat_set_current(id_of(current)), 0);
    char path[] = "./name";
    oentry *temporary = nullptr;
    char *name = nullptr;
    ASSERT_EQ(heard(fat_path_lookup(path, &temporary, &name)), (answer{0, ""}));
    ASSERT_NE(temporary, nullptr);
    ASSERT_NE(temporary, current);
    sv->last_alloc_clus = 40;
    EXPECT_EQ(heard(fat_extend_dir(temporary, nullptr)), (answer{0, ""}));
    expect_end(temporary, 41, 2);
    expect_end(current, 41, 2);
    free_lookup_result(temporary);
}

TEST_P(SharedGrowthOfFat32, RootLearnsOfIt) {
    // Opening ".." of a first-level directory stores a copy of the root in the table.
    oentry *copy = opened({});
    const entry_image parent = short_entry("..         ", DIRECTORY);
    std::free(copy->dentry);
    *copy = {};
    ASSERT_EQ(fat_set_oentry(parent.data(), 99, 32, copy), 0);
    ASSERT_EQ(copy->dentry, nullptr);
    sv->last_alloc_clus = 40;
    EXPECT_EQ(heard(fat_extend_dir(copy, nullptr)), (answer{0, ""}));
    expect_end(copy, 41, 2);
    expect_end(sv->root_dir, 41, 2);
    EXPECT_EQ(heard(fat_extend_dir(sv->root_dir, nullptr)), (answer{0, ""}));
    expect_end(copy, 42, 3);
    expect_end(sv->root_dir, 42, 3);
}

TEST_P(SharedGrowthOfFat32, RecordMadeForADotPathTeachesTheRoot) {
    char path[] = "/./name";
    oentry *temporary = nullptr;
    char *name = nullptr;
    ASSERT_EQ(heard(fat_path_lookup(path, &temporary, &name)), (answer{0, ""}));
    ASSERT_NE(temporary, sv->root_dir);
    sv->last_alloc_clus = 40;
    EXPECT_EQ(heard(fat_extend_dir(temporary, nullptr)), (answer{0, ""}));
    expect_end(sv->root_dir, 41, 2);
    free_lookup_result(temporary);
}

TEST_P(SharedGrowthOfFat16, RootAreaIsNotTakenForTheClusterOfItsNumber) {
    const u32 cluster = sv->rdir_start;
    ASSERT_LE(cluster, last_cluster);
    v.chain({cluster});
    oentry *grown = opened({cluster});
    oentry *copy = opened({});
    std::free(copy->dentry);
    *copy = *sv->root_dir;
    sv->last_alloc_clus = 100;
    EXPECT_EQ(heard(fat_extend_dir(grown, nullptr)), (answer{0, ""}));
    expect_end(grown, 101, 2);
    for (const oentry *root : {sv->root_dir, copy}) {
        EXPECT_EQ(root->start, sv->rdir_start);
        EXPECT_EQ(root->last, sv->data_start - 1);
        EXPECT_EQ(root->allocated, 16384U);
    }
}

// ---- growth by every function of the library --------------------------------------------------

namespace {

class GrowingDirectory : public chain_case {
protected:
    GrowingDirectory() {
        EXPECT_EQ(fat_build_super(), 0);
        messages.clear();
    }
    void create(const std::string &path) {
        const int id = fat_create_file(path.c_str());
        ASSERT_GT(id, 0) << path << ": " << messages.text();
        EXPECT_EQ(fat_close(id), 0);
    }
    // Names of the live short entries of a chain of clusters, in order.
    std::vector<std::string> names_in(const std::vector<u32> &clusters) {
        std::vector<std::string> result;
        for (const u32 cluster : clusters) {
            const std::vector<u8> data = data_of(cluster);
            for (std::size_t at = 0; at < data.size() && data[at] != 0; at += 32) {
                if (data[at] != 0xE5 && data[at + 11] != SLOT && (data[at + 11] & LABEL) == 0) {
                    result.emplace_back(data.begin() + static_cast<std::ptrdiff_t>(at),
                                        data.begin() + static_cast<std::ptrdiff_t>(at + 8));
                }
            }
        }
        return result;
    }
    std::vector<u32> chain_from(u32 cluster) {
        std::vector<u32> result;
        while (cluster >= 2 && cluster <= last_cluster && result.size() <= last_cluster) {
            result.push_back(cluster);
            cluster = v.link(cluster);
        }
        EXPECT_GE(cluster, volume::first_end_mark());
        return result;
    }
    u32 used_clusters() {
        u32 used = 0;
        for (u32 cluster = 2; cluster <= last_cluster; cluster++) {
            used += v.link(cluster) != 0 ? 1 : 0;
        }
        return used;
    }
};
class GrowingFat32Root : public GrowingDirectory {};

std::vector<volume_shape> small_clusters(std::vector<volume_shape> shapes) {
    std::erase_if(shapes, [](const volume_shape &s) { return s.sec_per_clus > 2; });
    return shapes;
}
INSTANTIATE_TEST_SUITE_P(Shapes, GrowingDirectory,
                         testing::ValuesIn(small_clusters(chain_shapes())), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, GrowingFat32Root,
                         testing::ValuesIn(small_clusters(chain_shapes(32))), shape_name);

std::string numbered(u32 number) {
    std::string digits = std::to_string(number);
    return "FILE" + std::string(4 - digits.size(), '0') + digits;
}

} // namespace

TEST_P(GrowingDirectory, NamesCreatedThroughSeveralRecordsAreInOneChain) {
    const u32 used_before = used_clusters();
    const int first = fat_mkdir("DIR");
    ASSERT_GT(first, 0);
    const int second = fat_open("DIR");
    ASSERT_GT(second, 0);
    const u32 start = oentry_table[first]->start;
    std::vector<std::string> expected = {".       ", "..      "};
    for (u32 i = 0; i < 5 * volume::entries_per_cluster(); i++) {
        // The records become the current directory in turn; every third name is created through
        // another record, opened for the path.
        if (i % 11 == 0) {
            ASSERT_EQ(fat_set_current(i % 22 == 0 ? first : second), i % 22 == 0 ? first : second);
        }
        create((i % 3 == 0 ? "./" : "") + numbered(i));
        expected.push_back(numbered(i));
    }
    const std::vector<u32> clusters = chain_from(start);
    EXPECT_EQ(clusters.size(), 6U);
    EXPECT_EQ(names_in(clusters), expected);
    EXPECT_EQ(used_clusters(), used_before + 6);
    for (const int id : {first, second}) {
        EXPECT_EQ(oentry_table[id]->last, clusters.back());
        EXPECT_EQ(oentry_table[id]->allocated, 6 * cluster_bytes);
    }
}

TEST_P(GrowingFat32Root, NamesCreatedThroughSeveralPathsAreInOneChain) {
    const u32 used_before = used_clusters();
    std::vector<std::string> expected;
    for (u32 i = 0; i < 4 * volume::entries_per_cluster(); i++) {
        create((i % 3 == 0 ? "./" : i % 3 == 1 ? "/" : "/./") + numbered(i));
        expected.push_back(numbered(i));
    }
    const std::vector<u32> clusters = chain_from(sv->root_clus);
    EXPECT_EQ(clusters.size(), 5U); // the label takes a slot
    EXPECT_EQ(names_in(clusters), expected);
    EXPECT_EQ(used_clusters(), used_before + 4);
    EXPECT_EQ(sv->root_dir->last, clusters.back());
    EXPECT_EQ(sv->root_dir->allocated, 5 * cluster_bytes);
}
