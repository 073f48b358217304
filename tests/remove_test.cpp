// Removing files, directories and links, and the names of entries known by their index.

#include "tests/support/namespace_fixture.h"

#include <map>
#include <numeric>
#include <random>

using namespace fat;
using namespace testing_support;

namespace {

class namespace_on_any_shape : public namespace_test,
                               public testing::WithParamInterface<volume_shape> {
protected:
    namespace_on_any_shape() : namespace_test(GetParam()) {}
};

using Unlink = namespace_test;
using RemoveEntry = namespace_test;
using DoDelete = namespace_test;
class RemovePath : public namespace_test {
protected:
    void expect_both(const char *path, int result, std::string words) {
        const std::size_t name = words.find('%');
        EXPECT_EQ(rm_entry(path),
                  came_to(result, std::string(words).replace(name, 1, "fat_rm_entry")));
        EXPECT_EQ(unlink(path), came_to(result, words.replace(name, 1, "fat_unlink")));
    }
};
using UnlinkAnyShape = namespace_on_any_shape;
INSTANTIATE_TEST_SUITE_P(Shapes, UnlinkAnyShape, testing::ValuesIn(many_shapes()), shape_name);

// Messages if the entry to delete has no chain.
const std::string NO_CLUSTERS = "fat_read_clus[N]: Invalid arg!\n\n"
                                "fat_release_clusters[N]: Failed to read cluster!\n\n"
                                "do_delete[N]: Check here!\n\n";

// The checksum that a removal looks for: of the name with its first byte replaced.
u8 checksum_when_removed(std::string dos) {
    dos[0] = '\xE5';
    return checksum_of(dos);
}
entry_image marked(entry_image slot) {
    slot[11] = 0xE5;
    return slot;
}

} // namespace

// ---- files and links --------------------------------------------------------------------------

TEST_P(UnlinkAnyShape, FileGoesWithItsClusters) {
    v.top.go_to(1);
    v.top.append(short_entry("BEFORE     ", ARCHIVE, 90, 1));
    const entry_image entry = short_entry("FILE    TXT", ARCHIVE, 5, 3 * mounted::cluster_bytes());
    v.top.append(entry);
    v.top.append(short_entry("AFTER      ", ARCHIVE, 91, 1));
    v.chain({5, 9, volume::last_cluster()});
    v.chain({90});
    v.chain({91});
    v.set_data({5}, some_bytes(mounted::cluster_bytes()));
    const bytes second = v.fat_copy(1);
    const u32 free_before = v.count_free();
    v.disk.log.clear();

    EXPECT_EQ(unlink("file.txt"), came_to(1, found(root_base(), 2)));

    EXPECT_EQ(v.top.at(2), deleted(entry));
    EXPECT_EQ(v.top.at(1), short_entry("BEFORE     ", ARCHIVE, 90, 1));
    EXPECT_EQ(v.top.at(3), short_entry("AFTER      ", ARCHIVE, 91, 1));
    for (const u32 cluster : {5U, 9U, volume::last_cluster()}) {
        EXPECT_EQ(v.value_of(cluster), 0U);
    }
    EXPECT_EQ(v.count_free(), free_before + 3);
    EXPECT_EQ(v.fat_copy(1), second);
    EXPECT_EQ(v.data_of({5}), some_bytes(mounted::cluster_bytes()));
    EXPECT_EQ(mounted::open_ids(), 1);
    // The clusters are free before the entry is gone.
    const std::vector<u64> order = sectors_written();
    ASSERT_FALSE(order.empty());
    EXPECT_EQ(order.back(), v.top.sectors[0]);
    EXPECT_EQ(std::count(order.begin(), order.end(), v.top.sectors[0]), 1);
}

TEST_F(Unlink, LinkGoesWithItsTarget) {
    sv->last_alloc_clus = 9;
    symlink("target", "link");
    EXPECT_EQ(unlink("/link"), came_to(1, found(0, 1)));
    EXPECT_EQ(v.value_of(10), 0U);
    EXPECT_EQ(v.top.at(1)[0], 0xE5);
}

TEST_F(Unlink, NameAloneIsLookedForInTheCurrentDirectory) {
    directory &inside = enter_directory({5});
    inside.append(short_entry("FILE       ", ARCHIVE, 7, 1));
    v.chain({7});
    v.top.append(short_entry("FILE       ", ARCHIVE, 8, 1));
    v.chain({8});
    EXPECT_EQ(unlink("./FILE///"), came_to(1, found(5, 2)));
    EXPECT_EQ(inside.at(2)[0], 0xE5);
    EXPECT_EQ(v.value_of(7), 0U);
    EXPECT_NE(v.value_of(8), 0U);
    EXPECT_EQ(unlink("/FILE"), came_to(1, found(0, 1)));
}

// No chain can be followed from cluster 0.
TEST_P(UnlinkAnyShape, FileWithoutClustersCannotBeUnlinked) {
    create("empty");
    fat_close(1);
    const entry_image entry = v.top.at(1);
    v.disk.log.clear();
    EXPECT_EQ(unlink("empty"), came_to(-EINVAL, found(root_base(), 1) + NO_CLUSTERS));
    EXPECT_EQ(v.top.at(1), entry);
    EXPECT_TRUE(nothing_written());
    EXPECT_EQ(mounted::open_ids(), 1);

    EXPECT_EQ(rm_entry("empty"), came_to(1, found(root_base(), 1)));
    EXPECT_EQ(v.top.at(1), deleted(entry));
}

// It has no entries after the dots, which counts as empty, and no chain to follow.
TEST_F(Unlink, DirectoryWithoutClustersCannotBeUnlinked) {
    v.top.append(short_entry("DIR        ", DIRECTORY, 0));
    v.disk.log.clear();
    EXPECT_EQ(unlink("dir"), came_to(-EINVAL, found(0, 0) + NO_CLUSTERS));
    EXPECT_TRUE(nothing_written());
}

TEST_F(Unlink, FileThatIsOpenGoesAllTheSame) {
    const int id = v.open_new("FILE       ", {5}, 10);
    EXPECT_EQ(unlink("file"), came_to(1, found(0, 0)));
    EXPECT_EQ(v.value_of(5), 0U);
    EXPECT_EQ(mounted::open_ids(), 2);
    EXPECT_EQ(mounted::held_entry(id)[0], 'F');
}

// Only a warning: all clusters of the chain are freed.
TEST_F(DoDelete, ReleaseOfAChainThatTheCachedEntryDoesNotFitContinues) {
    v.top.go_to(1);
    v.top.append(short_entry("FILE       ", ARCHIVE, 5, 100000));
    v.chain({5, 6});
    EXPECT_EQ(unlink("file"), came_to(1, found(0, 1))); // its size is not checked
    EXPECT_EQ(v.value_of(6), 0U);
}

// ---- orphan slots -----------------------------------------------------------------------------

TEST_P(UnlinkAnyShape, SlotsOfALongNameRemain) {
    sv->last_alloc_clus = 9;
    symlink("target", "Some long name");
    const std::vector<entry_image> slots = {v.top.at(1), v.top.at(2)};
    EXPECT_EQ(slots, long_slots(u"Some long name", "SOMELO~1   "));

    EXPECT_EQ(unlink("Some long name"), came_to(1, found(root_base(), 3)));

    EXPECT_EQ(v.top.at(1), slots[0]);
    EXPECT_EQ(v.top.at(2), slots[1]);
    EXPECT_EQ(v.top.at(3)[0], 0xE5);
    EXPECT_EQ(v.top.at(3)[1], 'O');
    EXPECT_EQ(unlink("Some long name"), came_to(-ENOENT, "fat_unlink[N]: Cannot find entry!\n\n"));
}

TEST_F(Unlink, NameWhoseSlotsAreOrphansCanBeCreatedAgain) {
    for (u32 round = 0; round < 3; round++) {
        EXPECT_EQ(symlink("target", "Some long name"), came_to(0));
        const u32 index = 3 + 2 * round;
        EXPECT_EQ(v.top.at(index - 2), long_slots(u"Some long name", "SOMELO~1   ")[0]);
        EXPECT_EQ(unlink("Some long name"), came_to(1, found(0, index)));
    }
    // Each round has left its slots and used the short entry of the one before.
    for (u32 index = 1; index <= 6; index++) {
        EXPECT_EQ(v.top.at(index)[11], 0x0F);
    }
    EXPECT_EQ(v.top.at(8), entry_image{});
}

// ---- directories ------------------------------------------------------------------------------

TEST_F(Unlink, EmptyDirectoryGoesWithItsCluster) {
    sv->last_alloc_clus = 9;
    make_dir("dir");
    fat_close(1);
    EXPECT_EQ(unlink("dir"), came_to(1, found(0, 1)));
    EXPECT_EQ(v.value_of(10), 0U);
    EXPECT_EQ(v.top.at(1)[0], 0xE5);
    EXPECT_EQ(mounted::open_ids(), 1);
}

TEST_F(Unlink, DirectoryOfDeletedEntriesIsEmpty) {
    enter_directory({5});
    ASSERT_EQ(fat_set_current(0), 0);
    directory inside(&v, {5}, false);
    inside.go_to(2);
    inside.append(deleted(short_entry("FILE       ")));
    inside.append(deleted(long_slot(0x41, u"Name", 0)));
    inside.append(deleted(short_entry("LABEL      ", LABEL)));
    inside.append(deleted(short_entry("INVALID    ", LABEL | DIRECTORY)));
    EXPECT_EQ(unlink("dir"), came_to(1, found(0, 0)));
    EXPECT_EQ(v.value_of(5), 0U);
}

TEST_F(Unlink, DirectoryWithAnythingElseIsNotEmpty) {
    enter_directory({5, 6});
    ASSERT_EQ(fat_set_current(0), 0);
    directory inside(&v, {5, 6}, false);
    v.disk.log.clear();
    for (const entry_image &entry :
         {short_entry("FILE       "), short_entry("DIR        ", DIRECTORY, 7),
          short_entry("LABEL      ", LABEL), long_slot(0x41, u"Orphan", 0)}) {
        // After unused entries as well: they do not end the walk.
        for (const u32 index : {2U, 3U, 63U, 64U, 127U}) {
            inside.put(index, entry);
            EXPECT_EQ(unlink("dir"),
                      came_to(-ENOTEMPTY, found(0, 0) + "do_delete[N]: Check here!\n\n"));
            inside.put(index, entry_image{});
        }
    }
    EXPECT_TRUE(nothing_written());
    EXPECT_EQ(v.chain_from(5), (std::vector<u32>{5, 6}));
    EXPECT_EQ(mounted::open_ids(), 2);
}

TEST_F(Unlink, DirectoryThatCannotBeReadIsNotEmpty) {
    enter_directory({5});
    ASSERT_EQ(fat_set_current(0), 0);
    v.disk.unreadable = {volume::first_sector_of(5) + 1};
    EXPECT_EQ(unlink("dir"),
              came_to(-ENOTEMPTY, found(0, 0) +
                                      "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                                      std::to_string(volume::first_sector_of(5) + 1) +
                                      ")\n"
                                      "is_empty_dir[N]: Check here!\n\n"
                                      "do_delete[N]: Check here!\n\n"));
    EXPECT_EQ(v.chain_from(5), (std::vector<u32>{5}));
}

// ---- the entry alone --------------------------------------------------------------------------

TEST_P(UnlinkAnyShape, EntryAloneLeavesItsClusters) {
    v.top.go_to(1);
    v.top.append(short_entry("FILE       ", ARCHIVE, 5, 10));
    v.chain({5, 9});
    const bytes fat = v.fat_copy(0);
    v.disk.log.clear();
    EXPECT_EQ(rm_entry("file"), came_to(1, found(root_base(), 1)));
    EXPECT_EQ(v.top.at(1), deleted(short_entry("FILE       ", ARCHIVE, 5, 10)));
    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(sectors_written(), (std::vector<u64>{v.top.sectors[0]}));
    EXPECT_EQ(mounted::open_ids(), 1);
}

TEST_F(RemovePath, DirectoryThatIsNotEmptyGoesAndItsContentIsLost) {
    enter_directory({5}).append(short_entry("FILE       ", ARCHIVE, 7, 10));
    v.chain({7});
    ASSERT_EQ(fat_set_current(0), 0);
    EXPECT_EQ(rm_entry("dir"), came_to(1, found(0, 0)));
    EXPECT_EQ(v.chain_from(5), (std::vector<u32>{5}));
    EXPECT_EQ(v.chain_from(7), (std::vector<u32>{7}));
    EXPECT_EQ(v.top.at(0)[0], 0xE5);
}

TEST_F(RemovePath, DotEntriesAreEntries) {
    directory &inside = enter_directory({5});
    EXPECT_EQ(rm_entry(".."), came_to(1, found(5, 1)));
    EXPECT_EQ(inside.at(1)[0], 0xE5);
    EXPECT_EQ(inside.at(1)[1], '.');
}

// ---- paths ------------------------------------------------------------------------------------

// Both calls refuse a path in the same words, each under its own name (%).
TEST_F(RemovePath, EachPathIsRefusedByBothCalls) {
    enter_directory({5}).append(short_entry("FILE       ", ARCHIVE, 7, 10));
    v.chain({7});
    ASSERT_EQ(fat_set_current(0), 0);
    const std::string no_entry = "%[N]: Cannot find entry!\n\n";
    const std::string no_parent = "%[N]: Cannot lookup parent!\n\n";
    const std::string too_long = "%[N]: Too long path!\n\n";
    const std::string no_directory = found(0, 0) + "fat_find_dentry[N]: Check Here!\n\n";
    const std::string forbidden = "verify_valid_name[N]: Check here!\n\n"
                                  "fat_path_lookup[N]: Check here!\n\n"
                                  "wrong file name: a*\n";
    const struct {
        std::string path;
        int result;
        std::string messages;
    } rows[] = {
        {std::string(261, 'a'), -ENAMETOOLONG, too_long},
        {std::string(1000, '/'), -ENAMETOOLONG, too_long},
        {std::string(260, 'a'), -ENOENT, no_entry},
        {"missing", -ENOENT, no_entry},
        {"/./missing", -ENOENT, no_entry},
        {"missing/name", -ENOENT, no_parent},
        {"a*", -EINVAL, forbidden + no_parent},
        // Paths lead one level deep only, and the root has no name.
        {"dir/file", -EINVAL, no_directory + no_entry},
        {"/dir/file", -EINVAL, no_directory + no_entry},
        {"/", -EINVAL, empty_name() + no_entry},
        {"", -EINVAL, empty_name() + no_entry},
        {"///", -EINVAL, empty_name() + no_entry},
    };
    v.disk.log.clear();
    for (const auto &[path, result, words] : rows) {
        expect_both(path.c_str(), result, words);
        EXPECT_TRUE(result != -ENAMETOOLONG || v.disk.log.empty());
    }
    expect_both(nullptr, -EINVAL, "%[N]: NULL path!\n\n");
    EXPECT_TRUE(nothing_written());
    oentry *root = std::exchange(sv->root_dir, nullptr);
    expect_both("a", -EFAULT, "fat_path_lookup[N]: current directory isn't setup\n" + no_parent);
    sv->root_dir = root;
    fat_close_volume(0);
    expect_both("a", -EINVAL, "%[N]: Check here!\n\n");
}

TEST_F(RemovePath, RecordMadeForADotPathIsFreed) {
    v.top.append(short_entry("A          ", ARCHIVE, 7, 10));
    v.top.append(short_entry("B          ", ARCHIVE, 8, 10));
    v.top.append(short_entry("EMPTY      "));
    v.chain({7});
    const allocation_meter meter;
    EXPECT_EQ(unlink("./a").result, 1);
    EXPECT_EQ(rm_entry("/./b").result, 1);
    EXPECT_EQ(unlink("./empty").result, -EINVAL);
    EXPECT_EQ(unlink("./missing").result, -ENOENT);
    EXPECT_EQ(rm_entry("./missing").result, -ENOENT);
    EXPECT_EQ(unlink("./a:b").result, -EINVAL);
    EXPECT_EQ(meter.live_blocks(), 0);
}

// ---- deleting by index ------------------------------------------------------------------------

TEST_F(DoDelete, EntryThatCannotBeOpenedIsAnInvalidOne) {
    v.top.append(short_entry("BROKEN     ", ARCHIVE, 5, 10));
    v.set_link(5, 1);
    v.disk.log.clear();
    EXPECT_EQ(called([] { return do_delete(sv->root_dir, 0); }),
              came_to(-EINVAL, "fat_read_clus[N]: Invalid cluster!\n\n"
                               "fat_count_clusters[N]: Failed to read cluster!\n\n"
                               "fat_entry_open[N]: Cannot set oentry!\n\n"
                               "do_delete[N]: Check here!\n\n"));
    EXPECT_EQ(called([] { return do_delete(sv->root_dir, 512); }),
              came_to(-EINVAL, "fat_get_dentry[N]: access the out of range in directory space\n"
                               "fat_entry_open[N]: Cannot get dentry!\n\n"
                               "do_delete[N]: Check here!\n\n"));
    v.disk.unreadable = {v.top.sectors[0]}; // -EIO, and still an invalid one
    EXPECT_EQ(called([] { return do_delete(sv->root_dir, 0); }).result, -EINVAL);
    EXPECT_TRUE(nothing_written());
    EXPECT_EQ(mounted::open_ids(), 1);
}

TEST_F(DoDelete, EntryThatOpensWithoutAnImageIsNotFound) {
    v.top.append(short_entry("BROKEN     ", ARCHIVE, 5, 10)); // into a free cluster
    v.top.append(short_entry("..         ", DIRECTORY, 0));   // leads to the root
    v.disk.log.clear();
    for (const u32 index : {0U, 1U}) {
        EXPECT_EQ(called([index] { return do_delete(sv->root_dir, index); }),
                  came_to(-ENOENT, "do_delete[N]: Check here!\n\n"));
    }
    EXPECT_TRUE(nothing_written());
}

TEST_F(DoDelete, ClustersThatCannotBeFreedLeaveTheEntry) {
    v.top.append(short_entry("FILE       ", ARCHIVE, 5, 10));
    v.chain({5, 6});
    v.disk.unwritable = {volume::fat_sector_of(5)};
    EXPECT_EQ(called([] { return do_delete(sv->root_dir, 0); }),
              came_to(-EIO, "fat_write_entry[N]: cannot write FAT\n\n"
                            "fat_release_clusters[N]: Failed to read cluster!\n\n"
                            "do_delete[N]: Check here!\n\n"));
    EXPECT_EQ(v.top.at(0), short_entry("FILE       ", ARCHIVE, 5, 10));
    EXPECT_EQ(v.chain_from(5), (std::vector<u32>{5, 6}));
    EXPECT_EQ(mounted::open_ids(), 1);
}

TEST_F(DoDelete, EntryThatCannotBeMarkedHasLostItsClusters) {
    v.top.append(short_entry("FILE       ", ARCHIVE, 5, 10));
    v.chain({5, 6});
    v.disk.unwritable = {v.top.sectors[0]};
    EXPECT_EQ(called([] { return do_delete(sv->root_dir, 0); }),
              came_to(-EIO, "remove_entry[N]: Check here!\n\n"
                            "do_delete[N]: cannot remove the directory entry\n"));
    EXPECT_EQ(v.top.at(0), short_entry("FILE       ", ARCHIVE, 5, 10));
    EXPECT_EQ(v.value_of(5), 0U);
    EXPECT_EQ(v.value_of(6), 0U);
    EXPECT_EQ(mounted::open_ids(), 1);
}

TEST_F(DoDelete, EntryIsOpenedUnderTheLastFreeId) {
    const u32 index = v.top.append(short_entry("FILE       "));
    v.top.append(short_entry("A          ", ARCHIVE, 5, 10));
    v.top.append(short_entry("B          ", ARCHIVE, 6, 10));
    v.chain({5});
    v.chain({6});
    while (v.open(index) < 510) {
    }
    EXPECT_EQ(unlink("a"), came_to(1, found(0, 1)));
    v.open(index);
    EXPECT_EQ(unlink("b"),
              came_to(-EINVAL, found(0, 2) + "register_oentry[N]: Too many open files\n"
                                             "do_delete[N]: Check here!\n\n"));
    EXPECT_NE(v.value_of(6), 0U);
}

TEST_F(RemovePath, EntryThatCannotBeMarkedIsReported) {
    v.top.append(short_entry("FILE       ", ARCHIVE, 5, 10));
    v.disk.unwritable = {v.top.sectors[0]};
    v.disk.failure_result = -EROFS;
    EXPECT_EQ(rm_entry("file"),
              came_to(-EROFS, found(0, 0) +
                                  "remove_entry[N]: Check here!\n\n"
                                  "fat_rm_entry[N]: cannot remove the directory entry\n"));
    // A transfer that moves nothing has failed as well.
    v.disk.failure_result = 0;
    EXPECT_LT(rm_entry("file").result, 0);
    EXPECT_EQ(v.top.at(0), short_entry("FILE       ", ARCHIVE, 5, 10));
}

// ---- is a directory empty ---------------------------------------------------------------------

namespace {

using IsEmptyDirectory = namespace_test;

const std::string NOT_A_DIRECTORY = "is_empty_dir[N]: Check here!\n\n";

} // namespace

TEST_F(IsEmptyDirectory, OnlyLiveDirectoriesAreChecked) {
    directory dir = v.sub_directory({5});
    const auto ask = [&dir] { return is_empty_dir(&dir.record); };
    for (const auto &[first, attr] : std::initializer_list<std::pair<unsigned, unsigned>>{
             {0xE5, 0x10}, {0x00, 0x10}, {'D', 0x00}, {'D', 0x08}, {'D', 0x18}}) {
        dir.record.dentry[0] = static_cast<u8>(first);
        dir.record.dentry[11] = static_cast<u8>(attr);
        EXPECT_EQ(called(ask), came_to(-EINVAL, NOT_A_DIRECTORY));
    }
    EXPECT_EQ(called([] { return is_empty_dir(sv->root_dir); }), came_to(-EINVAL, NOT_A_DIRECTORY));
    dir.record.dentry[11] = 0x37;
    EXPECT_EQ(called(ask), came_to(1));
}

TEST_F(IsEmptyDirectory, FirstTwoEntriesAreNotChecked) {
    directory dir = v.sub_directory({5});
    EXPECT_EQ(is_empty_dir(&dir.record), 1);
    dir.put(0, short_entry("FILE       "));
    dir.put(1, short_entry("FILE       "));
    EXPECT_EQ(is_empty_dir(&dir.record), 1);
    dir.put(2, short_entry("FILE       "));
    EXPECT_EQ(is_empty_dir(&dir.record), -ENOTEMPTY);
    EXPECT_EQ(messages.text(), "");
}

TEST_F(IsEmptyDirectory, DirectoryWithoutEntriesAfterTheDotsGivesZero) {
    directory dir = v.sub_directory({5});
    dir.put(2, short_entry("FILE       "));
    v.disk.log.clear();
    for (const u32 allocated : {0U, 31U, 32U, 64U, 95U}) {
        dir.record.allocated = allocated;
        EXPECT_EQ(is_empty_dir(&dir.record), 0) << allocated;
    }
    EXPECT_TRUE(v.disk.log.empty());
    dir.record.allocated = 96;
    EXPECT_EQ(is_empty_dir(&dir.record), -ENOTEMPTY);
}

TEST_F(IsEmptyDirectory, EachSectorIsReadOnce) {
    directory dir = v.sub_directory({5, 6, 9});
    v.disk.log.clear();
    EXPECT_EQ(is_empty_dir(&dir.record), 1);
    std::map<std::uint64_t, int> times;
    for (const auto &[sector, count] : v.sectors_read()) {
        times[sector] = count;
    }
    for (const u32 sector : dir.sectors) {
        EXPECT_EQ(times[sector], 1) << sector;
    }
}

// ---- marking slots ----------------------------------------------------------------------------

// The walk back searches for slots with the checksum of the name that is already marked.
TEST_F(RemoveEntry, WalkBackMarksEachMatchingSlotUpToTheLastOfTheName) {
    const u8 sum = checksum_when_removed("FILE       ");
    const entry_image a = long_slot(0x01, u"aaaaaaaaaaaaa", sum);
    const entry_image b = long_slot(0x02, u"b", sum);
    const entry_image last_b = long_slot(0x42, u"b", sum);
    const entry_image last_c = long_slot(0x43, u"c", sum);
    entry_image other_attribute = b;
    other_attribute[11] = 0x2F; // a slot to a lookup, but none here
    const struct {
        std::vector<entry_image> slots;
        u32 marked; // so many before the entry
    } rows[] = {
        {{last_b, a}, 2},
        {{b, a}, 2}, // up to the beginning of the directory
        {{a, long_slot(0x41, u"a", sum)}, 1},
        {{last_c, other_attribute, a}, 1},
        {{last_c, short_entry("OTHER      "), a}, 1},
        {{last_c, {}, a}, 1},
        {{last_c, long_slot(0x02, u"b", checksum_of("FILE       ")), a}, 1},
        {{last_c, long_slot(0x42, u"b", sum + 1U), a}, 1},
        {{short_entry("FIRST      ")}, 0},
        {{}, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        v.top.go_to(0);
        v.top.append(row.slots);
        const u32 index = v.top.append(short_entry("FILE       "));
        EXPECT_EQ(called([index] { return remove_entry(sv->root_dir, index); }),
                  came_to(1 + row.marked));
        for (u32 i = 0; i < index; i++) {
            EXPECT_EQ(v.top.at(i), i + row.marked >= index ? marked(row.slots[i]) : row.slots[i]);
        }
        EXPECT_EQ(v.top.at(index), deleted(short_entry("FILE       ")));
    }
}

TEST_F(RemoveEntry, SlotsInTwoMoreSectorsAreWrittenAfterTheEntry) {
    const u8 sum = checksum_when_removed("FILE       ");
    v.top.go_to(15);
    v.top.append(long_slot(0x52, u"last", sum));
    for (u32 ordinal = 17; ordinal >= 1; ordinal--) {
        v.top.append(long_slot(ordinal, u"aaaaaaaaaaaaa", sum));
    }
    const u32 index = v.top.append(short_entry("FILE       "));
    ASSERT_EQ(index, 33U);
    v.disk.log.clear();
    EXPECT_EQ(called([index] { return remove_entry(sv->root_dir, index); }), came_to(19));
    EXPECT_EQ(sectors_written(),
              (std::vector<u64>{v.top.sectors[2], v.top.sectors[1], v.top.sectors[0]}));
    for (u32 i = 15; i < 33; i++) {
        EXPECT_EQ(v.top.at(i)[11], 0xE5);
    }
}

TEST_F(RemoveEntry, SlotsInAFourthSectorAreOutOfRange) {
    const u8 sum = checksum_when_removed("FILE       ");
    v.top.go_to(15);
    while (v.top.append(long_slot(0x01, u"a", sum)) < 47) {
    }
    v.top.append(short_entry("FILE       "));
    v.disk.log.clear();
    EXPECT_EQ(called([] { return remove_entry(sv->root_dir, 48); }),
              came_to(-EINVAL, "remove_entry[N]: out of range\n"));
    EXPECT_TRUE(nothing_written());
}

// The sector in front is read to see that its last slot does not match, and written back.
TEST_F(RemoveEntry, SectorThatWasOnlyReadIsWrittenToo) {
    v.top.go_to(16);
    v.top.append(short_entry("FILE       "));
    v.disk.log.clear();
    EXPECT_EQ(remove_entry(sv->root_dir, 16), 1);
    EXPECT_EQ(sectors_written(), (std::vector<u64>{v.top.sectors[1], v.top.sectors[0]}));
}

TEST_F(RemoveEntry, FailureBetweenTwoSectorsLeavesTheFirstWritten) {
    const u8 sum = checksum_when_removed("FILE       ");
    v.top.go_to(15);
    v.top.append(long_slot(0x41, u"a", sum));
    v.top.append(short_entry("FILE       "));
    v.disk.unwritable = {v.top.sectors[0]};
    EXPECT_EQ(called([] { return remove_entry(sv->root_dir, 16); }),
              came_to(-EIO, "remove_entry[N]: Check here!\n\n"));
    EXPECT_EQ(v.top.at(16)[0], 0xE5);
    EXPECT_EQ(v.top.at(15)[11], 0x0F);
}

TEST_F(RemoveEntry, SectorOfSlotsThatCannotBeReadChangesNothing) {
    v.top.go_to(16);
    v.top.append(short_entry("FILE       "));
    v.disk.unreadable = {v.top.sectors[0]};
    v.disk.log.clear();
    EXPECT_EQ(called([] { return remove_entry(sv->root_dir, 16); }).result, -EIO);
    EXPECT_TRUE(nothing_written());
}

TEST_F(RemoveEntry, IndexOutsideTheDirectoryIsItsError) {
    EXPECT_EQ(called([] { return remove_entry(sv->root_dir, 512); }),
              came_to(-EFAULT, "fat_get_dentry[N]: access the out of range in directory space\n"
                               "remove_entry[N]: Check here!\n\n"));
    v.disk.unreadable = {v.top.sectors[0]};
    EXPECT_EQ(called([] { return remove_entry(sv->root_dir, 0); }).result, -EIO);
}

// ---- names by index ---------------------------------------------------------------------------

namespace {

class GetNameOfEntry : public namespace_test {
protected:
    // The root directory is given by 0.
    outcome ask(u32 index, u32 base = 0) {
        name.assign(300, '\xCC');
        return called([&] { return get_name_of_entry(base, index, name.data(), 256); });
    }
    std::string text() {
        EXPECT_EQ(name.substr(256), std::string(44, '\xCC'));
        const std::size_t length = name.find('\0');
        EXPECT_EQ(name.substr(length, 256 - length), std::string(256 - length, '\0'));
        return name.substr(0, length);
    }

    std::string name;
};

const std::string NO_SLOT = "get_name_of_entry[N]: Check here!\n\n";

} // namespace

TEST_F(GetNameOfEntry, LongNameIsGatheredFromItsSlots) {
    const u32 one = v.top.append_long(u"Some long name", "SOMELO~1   ");
    const u32 two = v.top.append_long(std::u16string(255, u'x'), "XXXXXX~1   ");
    const u32 thirteen = v.top.append_long(u"abcdefghi.JKL", "ABCDEF~1JKL");
    EXPECT_EQ(ask(one), came_to(0));
    EXPECT_EQ(text(), "Some long name");
    EXPECT_EQ(ask(two), came_to(0));
    EXPECT_EQ(text(), std::string(255, 'x'));
    EXPECT_EQ(ask(thirteen), came_to(0));
    EXPECT_EQ(text(), "abcdefghi.JKL");
}

TEST_F(GetNameOfEntry, DirectoryHasANameToo) {
    directory dir = v.sub_directory({5, 6});
    dir.go_to(63);
    dir.append(long_slot(0x41, u"Sub", checksum_of("SUB~1      ")));
    dir.append(short_entry("SUB~1      ", DIRECTORY, 7));
    EXPECT_EQ(ask(64, 5), came_to(0));
    EXPECT_EQ(text(), "Sub");
}

// Prints a message for every entry without a long name, unless it is the first of its directory.
TEST_F(GetNameOfEntry, ShortNameIsShownInItsCase) {
    v.top.append(short_entry("FIRST   TXT"));
    entry_image lower = short_entry("README  TXT");
    lower[12] = 0x18;
    v.top.append(lower);
    lower[12] = 0x08;
    v.top.append(lower);
    v.top.append(short_entry("\x05"
                             "BC        "));
    EXPECT_EQ(ask(1), came_to(0, NO_SLOT));
    EXPECT_EQ(text(), "readme.txt");
    EXPECT_EQ(ask(2), came_to(0, NO_SLOT));
    EXPECT_EQ(text(), "readme.TXT");
    EXPECT_EQ(ask(3), came_to(0, NO_SLOT));
    EXPECT_EQ(text(), "\xE5"
                      "BC");
    EXPECT_EQ(ask(0), came_to(0));
    EXPECT_EQ(text(), "FIRST.TXT");
}

// The beginning of the directory ends the name as a last slot does.
TEST_F(GetNameOfEntry, NameMayLackItsLastSlotAtTheBeginningOfTheDirectory) {
    const std::vector<entry_image> slots = long_slots(std::u16string(39, u'y'), "YYYYYY~1   ");
    v.top.append(slots[1]);
    v.top.append(slots[2]);
    v.top.append(short_entry("YYYYYY~1   "));
    EXPECT_EQ(ask(2), came_to(0));
    EXPECT_EQ(text(), std::string(26, 'y'));
}

TEST_F(GetNameOfEntry, UnitsThatAsciiDoesNotHaveAreQuestionMarks) {
    const u32 index = v.top.append_long(u"\u00E4\u4E2D.txt", "NAME~1  TXT");
    EXPECT_EQ(ask(index), came_to(0));
    EXPECT_EQ(text(), "??.txt");
}

TEST_F(GetNameOfEntry, EntryThatIsNeitherFileNorDirectoryIsNotFound) {
    v.top.append(entry_image{});
    v.top.append(deleted(short_entry("GONE       ")));
    v.top.append(long_slot(0x41, u"a", 0));
    v.top.append(short_entry("LABEL      ", LABEL));
    for (const u32 index : {0U, 1U, 2U, 3U}) {
        EXPECT_EQ(ask(index), came_to(-ENOENT, NO_SLOT));
        EXPECT_EQ(name, std::string(300, '\xCC'));
    }
    v.top.append(short_entry("INVALID    ", LABEL | DIRECTORY));
    EXPECT_EQ(ask(4), came_to(-ENOENT, "entry_type[N]: Unknown entry type: 24\n\n" + NO_SLOT));
}

TEST_F(GetNameOfEntry, SlotThatCannotBeReadLeavesTheShortName) {
    v.top.go_to(15);
    v.top.append_long(u"Name", "NAME~1     ");
    v.disk.unreadable = {v.top.sectors[0]};
    EXPECT_EQ(ask(16), came_to(0, "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                                      std::to_string(v.top.sectors[0]) +
                                      ")\n"
                                      "get_name_of_entry[N]: fail to get dentry(0, 15)\n\n"));
    EXPECT_EQ(text(), "NAME~1");
}
