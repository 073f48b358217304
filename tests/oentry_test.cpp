// Open entries: the table and its bitmap, filling records, opening and closing, the root and the
// current directory.

#include "tests/support/open_entries.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

constexpr int LAST_ID = 511;

// An entry that only the table cares for.
oentry *blank_record() {
    auto *record = static_cast<oentry *>(std::calloc(1, sizeof(oentry)));
    record->ref_count = 1;
    return record;
}

const std::string TOO_MANY = "register_oentry[N]: Too many open files\n";
const std::string BAD_ENTRY = "fat_read_clus[N]: Invalid cluster!\n\n";
const std::string BAD_CLUSTER = "fat_read_clus[N]: Invalid arg!\n\n";
const std::string BAD_CHAIN = "fat_count_clusters[N]: Failed to read cluster!\n\n";
const std::string NOT_SET = "fat_entry_open[N]: Cannot set oentry!\n\n";
const std::string NO_PATH = "fat_open[N]: failed to path_lookup()\n\n";
const std::string NO_ENTRY = "fat_open[N]: failed to find directory entry!\n\n";
const std::string NOT_THAT_KIND = "attempt to open directory!\n\n";

std::string check_here(const std::string &function) {
    return function + "[N]: Check here!\n\n";
}

// The calls, and their messages.
class handles : public tree_test {
protected:
    using tree_test::tree_test;

    answer open_path(const char *path) {
        return ask([&] { return fat_open(path); });
    }
    answer open_path(const std::string &path) {
        return open_path(path.c_str());
    }
    answer open_dir(const char *path) {
        return ask([&] { return fat_open_dir(path); });
    }
    answer open_file(const char *path) {
        return ask([&] { return fat_open_file(path); });
    }
    answer close_id(int id) {
        return ask([&] { return fat_close(id); });
    }
    answer set_current(int id) {
        return ask([&] { return fat_set_current(id); });
    }
    answer current() {
        return ask(get_current);
    }
    // Makes a directory current; this is its only reference afterwards.
    int enter(const char *name) {
        const int id = fat_open_dir(name);
        EXPECT_GT(id, 0) << name;
        EXPECT_EQ(fat_set_current(id), id);
        EXPECT_EQ(fat_close(id), 0);
        return id;
    }
    static u32 references(int id) {
        return oentry_table[id]->ref_count;
    }
};

class OpenEntries : public handles {
protected:
    OpenEntries() : handles(TREE_SHAPES[0]) {}

    // Fills the table with openings of one file.
    void open_until_full() {
        for (int next = 1; next <= LAST_ID; next++) {
            ASSERT_EQ(fat_open("/FILE.TXT"), next);
        }
    }
};

class set_oentry_test : public handles {
protected:
    using handles::handles;

    // The sector and the offset are any.
    answer set(const entry_image &image, oentry *record) {
        return ask([&] { return fat_set_oentry(image.data(), 77, 96, record); });
    }
    answer set_root(oentry *record) {
        return ask([&] { return fat_set_oentry(nullptr, 0, 0, record); });
    }
};
class SetOentry : public set_oentry_test {
protected:
    SetOentry() : set_oentry_test(GetParam()) {}
};
class Fat32SetOentry : public set_oentry_test {
protected:
    Fat32SetOentry() : set_oentry_test(TREE_SHAPES[1]) {}
};

class EntryOpen : public handles {
protected:
    EntryOpen() : handles(GetParam()) {}

    answer open_entry(directory *where, u32 index) {
        return ask([&] { return fat_entry_open(&where->record, index); });
    }
};

class open_root_test : public handles {
protected:
    using handles::handles;

    answer open_root() {
        return ask(open_root_directory);
    }
    static void forget_root() {
        free_oentry(oentry_table[0]);
        oentry_table[0] = nullptr;
        unmark_slot(oentry_map, 0);
    }
};
class OpenRoot : public open_root_test {
protected:
    OpenRoot() : open_root_test(GetParam()) {}
};
class Fat32OpenRoot : public open_root_test {
protected:
    Fat32OpenRoot() : open_root_test(TREE_SHAPES[1]) {}
};

class Open : public handles {
protected:
    Open() : handles(GetParam()) {}
};
INSTANTIATE_TEST_SUITE_P(Widths, SetOentry, testing::ValuesIn(TREE_SHAPES), shape_name);
INSTANTIATE_TEST_SUITE_P(Widths, EntryOpen, testing::ValuesIn(TREE_SHAPES), shape_name);
INSTANTIATE_TEST_SUITE_P(Widths, OpenRoot, testing::ValuesIn(TREE_SHAPES), shape_name);
INSTANTIATE_TEST_SUITE_P(Widths, Open, testing::ValuesIn(TREE_SHAPES), shape_name);

} // namespace

// ---- the bitmap -------------------------------------------------------------------------------

TEST(SlotMap, LowestClearBitIsFoundWhereverItIs) {
    for (u32 id = 0; id < 512; id++) {
        u32 map[16];
        std::fill(std::begin(map), std::end(map), ~0U);
        unmark_slot(map, id);
        EXPECT_EQ(find_free_slot(map, 512), static_cast<int>(id));
        for (u32 higher = id; higher < 512; higher += 31) {
            unmark_slot(map, higher);
        }
        EXPECT_EQ(find_free_slot(map, 512), static_cast<int>(id));
    }
}

TEST(SlotMap, FullMapHasNoFreeSlotAndAnEmptyOneSlotZero) {
    u32 map[16] = {};
    EXPECT_EQ(find_free_slot(map, 512), 0);
    std::fill(std::begin(map), std::end(map), ~0U);
    EXPECT_EQ(find_free_slot(map, 512), -1);
}

TEST(SlotMap, MarkingChangesTheBitOfTheIdAlone) {
    for (u32 id = 0; id < 512; id++) {
        u32 map[16] = {};
        u32 expected[16] = {};
        expected[id / 32] = 1U << (id % 32);
        for (int twice = 0; twice < 2; twice++) {
            mark_slot(map, id);
            EXPECT_TRUE(std::equal(std::begin(map), std::end(map), expected)) << id;
        }
        std::fill(std::begin(map), std::end(map), ~0U);
        for (int twice = 0; twice < 2; twice++) {
            unmark_slot(map, id);
            EXPECT_EQ(map[id / 32], ~expected[id / 32]);
        }
        mark_slot(map, id);
        EXPECT_EQ(find_free_slot(map, 512), -1);
    }
}

// ---- registering ------------------------------------------------------------------------------

TEST(RegisterOentry, NothingIsRegisteredBeforeTheRootIsOpen) {
    ram_disk disk(4096);
    diagnostics messages;
    oentry record = {};
    for (int i = 0; i < 3; i++) {
        messages.clear();
        EXPECT_EQ(register_oentry(&record), -EMFILE);
        EXPECT_EQ(messages.text(), TOO_MANY);
        EXPECT_EQ(ids_in_use(), std::vector<int>());
        EXPECT_TRUE(table_agrees());
    }
}

TEST_F(OpenEntries, RegisteredFromOneUpwardsUntilTheTableIsFull) {
    for (int id = 1; id <= LAST_ID; id++) {
        oentry *record = blank_record();
        EXPECT_EQ(ask([&] { return register_oentry(record); }), (answer{id, ""}));
        EXPECT_EQ(oentry_table[id], record);
        EXPECT_EQ(references(id), 1U);
    }
    oentry one_more = {};
    EXPECT_EQ(ask([&] { return register_oentry(&one_more); }), (answer{-EMFILE, TOO_MANY}));
    for (const int id : {511, 32, 31, 1, 256}) {
        put_oentry(id);
    }
    for (const int id : {1, 31, 32, 256, 511}) {
        EXPECT_EQ(register_oentry(blank_record()), id);
    }
    EXPECT_EQ(register_oentry(&one_more), -EMFILE);
}

// ---- dropping references and freeing ----------------------------------------------------------

TEST_F(OpenEntries, PutOfAnIdThatIsNotOpenDoesNothing) {
    const int id = fat_open("FILE.TXT");
    ASSERT_EQ(id, 1);
    for (const int none : {-1, INT_MIN, 2, 511, 512, 513, 1024, INT_MAX}) {
        messages.clear();
        put_oentry(none);
        EXPECT_EQ(messages.text(), "");
        EXPECT_EQ(ids_in_use(), (std::vector<int>{0, 1}));
        EXPECT_EQ(references(1), 1U);
    }
}

TEST_F(OpenEntries, LastReferenceFreesTheSlot) {
    const allocation_meter meter;
    ASSERT_EQ(fat_open("FILE.TXT"), 1);
    EXPECT_EQ(meter.live_blocks(), 2);
    oentry_table[1]->ref_count = 3;
    for (const u32 left : {2U, 1U}) {
        put_oentry(1);
        EXPECT_EQ(references(1), left);
        EXPECT_TRUE(table_agrees());
    }
    put_oentry(1);
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_F(OpenEntries, FreeingTakesTheImageAlongAndNullIsIgnored) {
    const allocation_meter meter;
    free_oentry(nullptr);
    oentry *record = blank_record();
    record->dentry = static_cast<u8 *>(std::calloc(1, 32));
    EXPECT_EQ(meter.live_blocks(), 2);
    free_oentry(record);
    EXPECT_EQ(meter.live_blocks(), 0);
    free_oentry(blank_record());
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(messages.text(), "");
}

TEST_F(OpenEntries, ReleasingTheVolumeFreesTheOtherEntries) {
    const allocation_meter meter;
    open_until_full();
    ASSERT_EQ(fat_close(7), 0);
    ASSERT_EQ(fat_open("/SUB"), 7);
    ASSERT_EQ(fat_set_current(7), 7);
    EXPECT_EQ(meter.live_blocks(), 2 * LAST_ID);
    EXPECT_EQ(fat_close_volume(0), 0);
    EXPECT_EQ(sv, nullptr);
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(ids_in_use(), std::vector<int>());
    EXPECT_TRUE(table_agrees());
}

// ---- records ----------------------------------------------------------------------------------

TEST_P(SetOentry, RootRecord) {
    oentry record = {};
    record.pos = 5;
    v.disk.log.clear();
    EXPECT_EQ(set_root(&record), (answer{0, ""}));
    if (sv->fat_type == 32) {
        EXPECT_EQ(record.pos, 0U);
        EXPECT_EQ(v.disk.log,
                  (std::vector<transfer>{{false, volume::fat_sector_of(sv->root_clus), 1}}));
    } else {
        EXPECT_TRUE(v.disk.log.empty()); // no chain is walked
    }
    record.pos = 0;
    EXPECT_EQ(picture_of(record), tree::opened_root());
}

TEST_P(SetOentry, OldContentOfTheRecordIsReplaced) {
    u8 stale = 0;
    oentry used = {};
    used.start = used.last = used.allocated = used.ref_count = used.readdir_pos = 99;
    used.dentry_sector = used.dentry_offset = 99;
    used.dentry = &stale;
    oentry record = used;
    EXPECT_EQ(set_root(&record), (answer{0, ""}));
    EXPECT_EQ(picture_of(record), tree::opened_root());
    record = used;
    const entry_image image = short_entry("EMPTY      ");
    EXPECT_EQ(set(image, &record), (answer{0, ""}));
    record_picture expected;
    expected.dentry_sector = 77;
    expected.dentry_offset = 96;
    expected.image.assign(image.begin(), image.end());
    EXPECT_EQ(picture_of(record), expected);
    std::free(record.dentry);
}

TEST_P(SetOentry, DotDotToARootThatIsNotOpen) {
    const fat_super saved = *sv;
    sv->root_dir = nullptr;
    oentry record = {};
    const entry_image image = short_entry("..         ", DIRECTORY, 0);
    EXPECT_EQ(fat_set_oentry(image.data(), 77, 96, &record), -EINVAL);
    EXPECT_EQ(record.dentry, nullptr);
    *sv = saved;
}

TEST_P(SetOentry, EntryWithItsChain) {
    oentry record = {};
    record.pos = 5;
    const entry_image image = short_entry("FILE    TXT", ARCHIVE, 10, 1234);
    EXPECT_EQ(set(image, &record), (answer{0, ""}));
    record_picture expected;
    expected.start = 10;
    expected.last = 11;
    expected.allocated = 3 * tree::cluster_bytes();
    expected.dentry_sector = 77;
    expected.dentry_offset = 96;
    expected.image.assign(image.begin(), image.end());
    EXPECT_EQ(picture_of(record), expected);
    std::free(record.dentry);
}

TEST_P(SetOentry, ImageIsACopyOfItsOwn) {
    entry_image image = short_entry("FILE    TXT", ARCHIVE, 10, 1234);
    const entry_image original = image;
    oentry records[2] = {};
    const allocation_meter meter;
    for (oentry &record : records) {
        EXPECT_EQ(set(image, &record), (answer{0, ""}));
    }
    EXPECT_EQ(meter.live_blocks(), 2);
    image.fill(0xAA);
    records[0].dentry[0] = 'X';
    EXPECT_EQ(std::memcmp(records[1].dentry, original.data(), 32), 0);
    for (const oentry &record : records) {
        std::free(record.dentry);
    }
}

TEST_P(SetOentry, EntryWithoutAClusterHasNoLastOne) {
    oentry record = {};
    record.pos = 5;
    record.last = 6;
    record.allocated = 7;
    v.disk.log.clear();
    EXPECT_EQ(set(short_entry("EMPTY      "), &record), (answer{0, ""}));
    record_picture expected;
    const entry_image image = short_entry("EMPTY      ");
    expected.image.assign(image.begin(), image.end());
    expected.dentry_sector = 77;
    expected.dentry_offset = 96;
    EXPECT_EQ(picture_of(record), expected);
    EXPECT_TRUE(v.disk.log.empty());
    std::free(record.dentry);
}

TEST_P(SetOentry, BothHalvesOfTheFirstClusterCount) {
    oentry record = {};
    const allocation_meter meter;
    constexpr u32 HIGH = 0x00010000 + 10;
    if (sv->fat_type == 32) {
        v.chain({HIGH});
    }
    EXPECT_EQ(set(short_entry("HIGH       ", ARCHIVE, HIGH), &record),
              (sv->fat_type == 32 ? answer{0, ""} : answer{-EINVAL, BAD_CLUSTER + BAD_CHAIN}));
    EXPECT_EQ(record.start, HIGH); // on FAT16 as well
    std::free(record.dentry);
    record = {};
    EXPECT_EQ(set(short_entry("HIGHEST    ", ARCHIVE, 0xFFFFFFFF), &record),
              (answer{-EINVAL, BAD_CLUSTER + BAD_CHAIN}));
    EXPECT_EQ(record.start, 0xFFFFFFFF);
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_P(SetOentry, DotDotToTheRootIsACopyOfTheRootRecord) {
    oentry *root = oentry_table[0];
    root->ref_count = 7;
    root->pos = 11;
    root->parent_clus = 12;
    root->readdir_clus = 13;
    root->readdir_pos = 14;
    std::strcpy(root->name, "any name");
    oentry record = {};
    const allocation_meter meter;
    v.disk.log.clear();
    EXPECT_EQ(set(short_entry("..         ", DIRECTORY, 0), &record), (answer{0, ""}));
    EXPECT_EQ(picture_of(record), picture_of(0));
    EXPECT_EQ(record.ref_count, 7U);
    EXPECT_EQ(record.dentry, nullptr);
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_TRUE(v.disk.log.empty());
}

TEST_P(SetOentry, OnlyTheExactNameWithoutAClusterLeadsToTheRoot) {
    v.chain({70});
    for (const auto &[name, start] : {std::pair{"..         ", 70U},
                                      {".          ", 0U},
                                      {"..        .", 0U},
                                      {"...        ", 0U},
                                      {".. .       ", 0U}}) {
        oentry record = {};
        EXPECT_EQ(set(short_entry(name, DIRECTORY, start), &record), (answer{0, ""})) << name;
        EXPECT_EQ(record.start, start) << name;
        EXPECT_EQ(record.ref_count, 1U) << name;
        ASSERT_NE(record.dentry, nullptr) << name;
        std::free(record.dentry);
    }
}

TEST_P(SetOentry, DotDotWithAHighHalfAloneIsNoRoot) {
    oentry record = {};
    const answer a = set(short_entry("..         ", DIRECTORY, 0x7FFF0000), &record);
    EXPECT_EQ(a, (answer{-EINVAL, BAD_CLUSTER + BAD_CHAIN}));
    EXPECT_EQ(record.start, 0x7FFF0000U);
}

TEST_P(SetOentry, FreeFirstClusterLeavesNoImageAndNoError) {
    oentry record = {};
    const allocation_meter meter;
    EXPECT_EQ(set(short_entry("LOST       ", ARCHIVE, 40), &record), (answer{0, ""}));
    record_picture expected;
    expected.start = 40;
    expected.dentry_sector = 77;
    expected.dentry_offset = 96;
    EXPECT_EQ(picture_of(record), expected);
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_P(SetOentry, ChainThatRunsIntoAFreeEntryLeavesNoCachedEntryAndNoError) {
    v.chain({70, 71, 72});
    v.set_link(72, 0);
    oentry record = {};
    const allocation_meter meter;
    EXPECT_EQ(set(short_entry("CUT        ", ARCHIVE, 70), &record), (answer{0, ""}));
    EXPECT_EQ(record.dentry, nullptr);
    EXPECT_EQ(record.allocated, 0U);
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_P(SetOentry, BrokenChainFailsAndLeavesNoImage) {
    v.chain({70, 71, 72});
    const allocation_meter meter;
    for (const auto &[link, said_first] : {std::pair{1U, BAD_ENTRY},
                                           {volume::bad_mark(), BAD_ENTRY},
                                           {volume::last_cluster() + 1, BAD_ENTRY},
                                           {volume::first_end_mark() - 2, BAD_ENTRY},
                                           {71U, std::string()}}) {
        v.set_link(72, link);
        oentry record = {};
        EXPECT_EQ(set(short_entry("BROKEN     ", ARCHIVE, 70), &record),
                  (answer{-EINVAL, said_first + BAD_CHAIN}))
            << link;
        EXPECT_EQ(record.dentry, nullptr);
        EXPECT_EQ(meter.live_blocks(), 0);
    }
}

TEST_P(SetOentry, AnyEndMarkEndsTheChain) {
    v.chain({70, 71});
    for (u32 mark = volume::first_end_mark(); mark <= volume::end_mark(); mark++) {
        v.set_link(71, mark);
        oentry record = {};
        EXPECT_EQ(set(short_entry("FILE       ", ARCHIVE, 70), &record), (answer{0, ""}));
        EXPECT_EQ(record.last, 71U);
        std::free(record.dentry);
    }
}

TEST_P(SetOentry, NoMemoryForTheImage) {
    oentry record = {};
    const failing_allocation fault(0);
    EXPECT_EQ(set(short_entry("FILE    TXT", ARCHIVE, 10), &record),
              (answer{-ENOMEM, "fat_set_oentry[N]: cannot allocate memory\n"}));
    EXPECT_EQ(record.dentry, nullptr);
}

TEST_F(Fat32SetOentry, RootWithABrokenChain) {
    oentry record = {};
    v.set_link(sv->root_clus, 1);
    EXPECT_EQ(set_root(&record), (answer{-EINVAL, BAD_ENTRY + BAD_CHAIN}));
    EXPECT_EQ(record.dentry, nullptr);
    v.set_link(sv->root_clus, 0);
    record = {};
    EXPECT_EQ(set_root(&record), (answer{0, ""}));
    EXPECT_EQ(record.start, sv->root_clus);
    EXPECT_EQ(record.allocated, 0U);
    v.chain({sv->root_clus, 90, 80});
    EXPECT_EQ(set_root(&record), (answer{0, ""}));
    EXPECT_EQ(record.last, 80U);
    EXPECT_EQ(record.allocated, 3 * tree::cluster_bytes());
}

TEST(Fat16RootRecord, Has16384BytesWithAnySizeOfTheArea) {
    for (const u32 entries : {32U, 64U, 512U, 1024U, 4096U}) {
        volume v({.root_entries = entries});
        diagnostics messages;
        EXPECT_EQ(open_root_directory(), 0);
        EXPECT_EQ(messages.text(), "");
        ASSERT_EQ((sv->data_start - sv->rdir_start) * sv->sector_size, entries * 32);
        EXPECT_EQ(picture_of(0), tree::opened_root());
        EXPECT_EQ(sv->root_dir->allocated, 16384U);
        EXPECT_EQ(sv->root_dir->last, sv->data_start - 1);
    }
}

// ---- opening by index -------------------------------------------------------------------------

TEST_P(EntryOpen, EntryOfTheRootAndOfASubDirectory) {
    EXPECT_EQ(open_entry(&v.root_space, v.file), (answer{1, ""}));
    EXPECT_EQ(picture_of(1), tree::opened(v.root_space, v.file, {10, 12, 11}, ""));
    EXPECT_EQ(open_entry(&v.root_space, v.sub), (answer{2, ""}));
    EXPECT_EQ(picture_of(2), tree::opened(v.root_space, v.sub, {20, 22}, ""));
    EXPECT_EQ(open_entry(&v.sub_space, v.inner), (answer{3, ""}));
    EXPECT_EQ(picture_of(3), tree::opened(v.sub_space, v.inner, {30}, ""));
    EXPECT_EQ(oentry_table[1]->parent_clus, sv->fat_type == 32 ? 2U : 0U);
    EXPECT_EQ(oentry_table[3]->parent_clus, 20U);
}

TEST_P(EntryOpen, AnyEntryIsOpenedWithoutACheck) {
    v.sub_space.append(deleted(short_entry("GONE       ", ARCHIVE, 30)));
    EXPECT_EQ(open_entry(&v.root_space, 0), (answer{1, ""})); // the label
    EXPECT_EQ(picture_of(1), tree::opened(v.root_space, 0, {}, ""));
    EXPECT_EQ(open_entry(&v.sub_space, 4), (answer{2, ""}));
    EXPECT_EQ(picture_of(2), tree::opened(v.sub_space, 4, {30}, ""));
    EXPECT_EQ(open_entry(&v.sub_space, 5), (answer{3, ""})); // unused
    EXPECT_EQ(picture_of(3), tree::opened(v.sub_space, 5, {}, ""));
}

TEST_P(EntryOpen, LastEntryOfTheDirectoryAndTheFirstPastIt) {
    const u32 count = v.sub_space.capacity();
    v.sub_space.put(count - 1, short_entry("LAST       "));
    EXPECT_EQ(open_entry(&v.sub_space, count - 1), (answer{1, ""}));
    EXPECT_EQ(picture_of(1), tree::opened(v.sub_space, count - 1, {}, ""));
    const answer behind{-EFAULT, "fat_get_dentry[N]: access the out of range in directory space\n"
                                 "fat_entry_open[N]: Cannot get dentry!\n\n"};
    v.disk.log.clear();
    EXPECT_EQ(open_entry(&v.sub_space, count), behind);
    EXPECT_EQ(open_entry(&v.sub_space, 0xFFFFFFFF), behind);
    EXPECT_TRUE(v.disk.log.empty());
}

TEST_P(EntryOpen, DotDotToTheRootIsASlotWithACopyOfIt) {
    EXPECT_EQ(open_entry(&v.sub_space, 1), (answer{1, ""}));
    record_picture expected = tree::opened_root();
    expected.parent_clus = 20;
    EXPECT_EQ(picture_of(1), expected);
    EXPECT_EQ(picture_of(0), tree::opened_root());
    EXPECT_EQ(open_entry(&v.deep_space, 1), (answer{2, ""}));
    EXPECT_EQ(picture_of(2), tree::opened(v.deep_space, 1, {20, 22}, ""));
}

TEST_P(EntryOpen, BrokenEntryIsNotOpened) {
    const allocation_meter meter;
    EXPECT_EQ(open_entry(&v.root_space, v.broken),
              (answer{-EINVAL, BAD_ENTRY + BAD_CHAIN + NOT_SET}));
    EXPECT_EQ(open_entry(&v.root_space, v.outside),
              (answer{-EINVAL, BAD_CLUSTER + BAD_CHAIN + NOT_SET}));
    EXPECT_EQ(open_entry(&v.root_space, v.cycle), (answer{-EINVAL, BAD_CHAIN + NOT_SET}));
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
}

TEST_P(EntryOpen, FreeFirstClusterOpensWithoutAnImage) {
    const allocation_meter meter;
    EXPECT_EQ(open_entry(&v.root_space, v.lost), (answer{1, ""}));
    record_picture expected = tree::opened(v.root_space, v.lost, {40}, "");
    expected.image.clear();
    expected.last = 0;
    expected.allocated = 0;
    EXPECT_EQ(picture_of(1), expected);
    EXPECT_EQ(meter.live_blocks(), 1);
    EXPECT_EQ(fat_close(1), 0);
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_P(EntryOpen, FullTableTakesNothing) {
    for (int id = 1; id <= LAST_ID; id++) {
        ASSERT_EQ(fat_entry_open(&v.root_space.record, v.empty), id);
    }
    const allocation_meter meter;
    for (const u32 index : {v.file, v.empty, v.lost}) {
        EXPECT_EQ(open_entry(&v.root_space, index), (answer{-EMFILE, TOO_MANY}));
    }
    EXPECT_EQ(open_entry(&v.sub_space, 1), (answer{-EMFILE, TOO_MANY}));
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_F(OpenEntries, IndexPastASmallRootAreaIsNotOpened) {
    fat_close_volume(0);
    volume small({.root_entries = 32});
    ASSERT_EQ(open_root_directory(), 0);
    for (const u32 index : {32U, 511U}) {
        EXPECT_EQ(ask([&] { return fat_entry_open(sv->root_dir, index); }),
                  (answer{-EFAULT, "get_phy_sector[N]: Invalid sector number in Root dir\n\n"
                                   "get_dentry_with_clu[N]: Failed to get entry sector!:(0, " +
                                       std::to_string(index) +
                                       ")\n\nfat_entry_open[N]: Cannot get dentry!\n\n"}));
    }
    EXPECT_EQ(ask([] { return fat_entry_open(sv->root_dir, 512); }),
              (answer{-EFAULT, "fat_get_dentry[N]: access the out of range in directory space\n"
                               "fat_entry_open[N]: Cannot get dentry!\n\n"}));
}

// ---- the root directory -----------------------------------------------------------------------

TEST_P(OpenRoot, FillsSlotZero) {
    forget_root();
    EXPECT_EQ(open_root(), (answer{0, ""}));
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    EXPECT_EQ(oentry_map[0], 1U);
    EXPECT_EQ(sv->root_dir, oentry_table[0]);
    EXPECT_EQ(sv->current_dir, oentry_table[0]);
    EXPECT_EQ(picture_of(0), tree::opened_root());
}

TEST_P(OpenRoot, OpeningAgainResetsTheRecordInPlace) {
    oentry *root = oentry_table[0];
    root->ref_count = 9;
    root->pos = 5;
    root->readdir_clus = 6;
    root->readdir_pos = 7;
    root->parent_clus = 8;
    root->allocated = 1;
    std::strcpy(root->name, "any name");
    const allocation_meter meter;
    EXPECT_EQ(open_root(), (answer{0, ""}));
    EXPECT_EQ(oentry_table[0], root);
    EXPECT_EQ(picture_of(0), tree::opened_root());
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_P(OpenRoot, OpeningAgainMakesItCurrent) {
    const int id = enter("SUB");
    ASSERT_EQ(fat_open("/SUB"), 2);
    ASSERT_EQ(fat_set_current(2), 2);
    ASSERT_EQ(oentry_table[id], nullptr);
    EXPECT_EQ(open_root(), (answer{0, ""}));
    EXPECT_EQ(get_current(), 0);
    // Intentional: the reference to the former current directory is not released.
    EXPECT_EQ(oentry_table[2]->ref_count, 2U);
}

TEST_F(Fat32OpenRoot, FailureEmptiesTheSlot) {
    v.set_link(sv->root_clus, 1);
    EXPECT_EQ(open_root(),
              (answer{-EINVAL, BAD_ENTRY + BAD_CHAIN +
                                   "open_root_directory[N]: failed to set oentry!\n\n"}));
    EXPECT_EQ(ids_in_use(), std::vector<int>());
    EXPECT_EQ(oentry_map[0], 0U);
    EXPECT_EQ(open_path("/FILE.TXT"),
              (answer{-EFAULT, "fat_path_lookup[N]: current directory isn't setup\n" + NO_PATH}));
    EXPECT_EQ(open_path("FILE.TXT"),
              (answer{-EFAULT, "fat_path_lookup[N]: current directory isn't setup\n" + NO_PATH}));
    v.chain({sv->root_clus});
    EXPECT_EQ(open_root(), (answer{0, ""}));
    EXPECT_EQ(fat_open("FILE.TXT"), 1);
}

TEST_F(Fat32OpenRoot, NothingIsRegisteredWhileTheRootIsClosed) {
    ASSERT_EQ(fat_open("FILE.TXT"), 1);
    v.set_link(sv->root_clus, 1);
    ASSERT_EQ(open_root().result, -EINVAL);
    ASSERT_EQ(ids_in_use(), std::vector<int>{1});
    EXPECT_EQ(ask([&] { return fat_entry_open(&v.root_space.record, v.file); }),
              (answer{-EMFILE, TOO_MANY}));
    EXPECT_EQ(ids_in_use(), std::vector<int>{1});
    v.chain({sv->root_clus});
    ASSERT_EQ(open_root(), (answer{0, ""}));
    EXPECT_EQ(fat_open("FILE.TXT"), 2);
}

TEST_F(Fat32OpenRoot, FailureWhileAnotherDirectoryIsCurrent) {
    const int id = enter("SUB");
    v.set_link(sv->root_clus, 1);
    EXPECT_EQ(open_root().result, -EINVAL);
    EXPECT_EQ(get_current(), id);
    EXPECT_EQ(open_path("INNER.TXT"),
              (answer{-EFAULT, "fat_path_lookup[N]: current directory isn't setup\n" + NO_PATH}));
    v.chain({sv->root_clus});
    EXPECT_EQ(open_root(), (answer{0, ""}));
    EXPECT_EQ(get_current(), 0);
}

// ---- opening paths ----------------------------------------------------------------------------

TEST_P(Open, FileBecomesARecordWithItsName) {
    v.disk.log.clear();
    EXPECT_EQ(open_path("FILE.TXT"), (answer{1, found_at(v.root_base(), v.file)}));
    EXPECT_EQ(picture_of(1), tree::opened(v.root_space, v.file, {10, 12, 11}, "FILE.TXT"));
    EXPECT_EQ(open_path("/EMPTY"), (answer{2, found_at(v.root_base(), v.empty)}));
    EXPECT_EQ(picture_of(2), tree::opened(v.root_space, v.empty, {}, "EMPTY"));
    EXPECT_EQ(open_path("SUB"), (answer{3, found_at(v.root_base(), v.sub)}));
    EXPECT_EQ(picture_of(3), tree::opened(v.root_space, v.sub, {20, 22}, "SUB"));
    EXPECT_EQ(open_path("A Long Name.txt"), (answer{4, found_at(v.root_base(), v.long_named)}));
    EXPECT_EQ(picture_of(4), tree::opened(v.root_space, v.long_named, {}, "A Long Name.txt"));
}

TEST_P(Open, NameIsStoredWithoutAChange) {
    EXPECT_EQ(open_path("/file.txt///"), (answer{1, found_at(v.root_base(), v.file)}));
    EXPECT_EQ(picture_of(1).name, "file.txt");
}

TEST_P(Open, EmptyPathIsTheRoot) {
    for (const char *path : {"", "/", "//", "////"}) {
        EXPECT_EQ(open_path(path), (answer{0, "fat_open[N]: failed to get name!\n\n"})) << path;
        EXPECT_EQ(ids_in_use(), std::vector<int>{0});
        EXPECT_EQ(oentry_table[0]->ref_count, 1U);
    }
}

TEST_P(Open, PathOfMoreThan260CharactersIsRefused) {
    const answer refused{-ENAMETOOLONG,
                         check_here("fat_get_name") + "fat_open[N]: failed to get name!\n\n"};
    EXPECT_EQ(open_path(std::string(261, 'a')), refused);
    EXPECT_EQ(open_path(std::string(5000, '/')), refused);
    EXPECT_EQ(open_path("FILE.TXT" + std::string(253, '/')), refused);
    EXPECT_EQ(open_path("FILE.TXT" + std::string(252, '/')).result, 1);
    EXPECT_EQ(open_path(std::string(252, '/') + "FILE.TXT").result, 2);
}

TEST_P(Open, MissingNameIsNotFound) {
    EXPECT_EQ(open_path("MISSING"), (answer{-ENOENT, NO_ENTRY}));
    EXPECT_EQ(open_path("/MISSING"), (answer{-ENOENT, NO_ENTRY}));
    EXPECT_EQ(open_path("./MISSING"), (answer{-ENOENT, NO_ENTRY}));
    EXPECT_EQ(open_path("."), (answer{-ENOENT, NO_ENTRY})); // the root has no such entry
    EXPECT_EQ(open_path(".."), (answer{-ENOENT, NO_ENTRY}));
}

TEST_P(Open, ForbiddenNameIsRefused) {
    for (const char *name : {"CON", "a*b", "lpt1", "a:b", "x\\y", "\"x\"", "<", ">", "|", "?"}) {
        EXPECT_EQ(open_path(name),
                  (answer{-EINVAL, check_here("verify_valid_name") + check_here("fat_path_lookup") +
                                       "wrong file name: " + name + "\n" + NO_PATH}));
    }
}

TEST_P(Open, DotParentsLeadThroughARecordThatIsFreedAgain) {
    const allocation_meter meter;
    for (const char *path : {"./FILE.TXT", "././FILE.TXT", "/./FILE.TXT", "//././FILE.TXT/"}) {
        EXPECT_EQ(open_path(path), (answer{1, found_at(v.root_base(), v.file)})) << path;
        EXPECT_EQ(picture_of(1), tree::opened(v.root_space, v.file, {10, 12, 11}, "FILE.TXT"));
        EXPECT_EQ(meter.live_blocks(), 2);
        EXPECT_EQ(fat_close(1), 0);
    }
    EXPECT_EQ(open_path("./MISSING").result, -ENOENT);
    EXPECT_EQ(open_path("./BROKEN").result, -EINVAL);
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_P(Open, PathThatLeadsDeeperIsRefused) {
    EXPECT_EQ(open_path("SUB/INNER.TXT"),
              (answer{-EINVAL, found_at(v.root_base(), v.sub) +
                                   "fat_find_dentry[N]: Check Here!\n\n" + NO_ENTRY}));
    EXPECT_EQ(open_path("/SUB/INNER.TXT").result, -EINVAL);
    EXPECT_EQ(open_path("./SUB/INNER.TXT").result, -EINVAL);
    EXPECT_EQ(open_path("FILE.TXT/INNER.TXT").result, -EINVAL);
    EXPECT_EQ(open_path("../FILE.TXT"),
              (answer{-EINVAL, "fat_find_dentry[N]: Check Here!\n\n" + NO_ENTRY}));
    EXPECT_EQ(open_path("MISSING/INNER.TXT"), (answer{-ENOENT, NO_PATH}));
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
}

TEST_P(Open, RelativePathStartsAtTheCurrentDirectory) {
    const int id = enter("SUB");
    EXPECT_EQ(open_path("INNER.TXT"), (answer{2, found_at(20, v.inner)}));
    EXPECT_EQ(picture_of(2), tree::opened(v.sub_space, v.inner, {30}, "INNER.TXT"));
    EXPECT_EQ(open_path("./INNER.TXT"), (answer{3, found_at(20, v.inner)}));
    EXPECT_EQ(picture_of(3), picture_of(2));
    EXPECT_EQ(open_path("/FILE.TXT"), (answer{4, found_at(v.root_base(), v.file)}));
    EXPECT_EQ(open_path("/./FILE.TXT"), (answer{5, found_at(v.root_base(), v.file)}));
    EXPECT_EQ(open_path("FILE.TXT"), (answer{-ENOENT, NO_ENTRY}));
    EXPECT_EQ(open_path("/INNER.TXT"), (answer{-ENOENT, NO_ENTRY}));
    EXPECT_EQ(get_current(), id);
}

TEST_P(Open, SamePathTwiceGivesTwoSlots) {
    ASSERT_EQ(open_path("FILE.TXT").result, 1);
    ASSERT_EQ(open_path("FILE.TXT").result, 2);
    EXPECT_NE(oentry_table[1], oentry_table[2]);
    EXPECT_NE(oentry_table[1]->dentry, oentry_table[2]->dentry);
    EXPECT_EQ(picture_of(1), picture_of(2));
    EXPECT_EQ(oentry_table[1]->ref_count, 1U);
    oentry_table[1]->dentry[28] = 99;
    EXPECT_EQ(oentry_table[2]->dentry[28], 1234 % 256);
    EXPECT_EQ(fat_close(1), 0);
    EXPECT_EQ(picture_of(2), tree::opened(v.root_space, v.file, {10, 12, 11}, "FILE.TXT"));
}

TEST_P(Open, DotDotOfAFirstLevelDirectoryIsACopyOfTheRoot) {
    enter("SUB");
    const allocation_meter meter;
    EXPECT_EQ(open_path(".."), (answer{2, found_at(20, 1)}));
    record_picture expected = tree::opened_root();
    expected.parent_clus = 20;
    expected.name = "..";
    EXPECT_EQ(picture_of(2), expected);
    EXPECT_EQ(picture_of(0), tree::opened_root());
    EXPECT_EQ(meter.live_blocks(), 1);
    EXPECT_EQ(fat_close(2), 0);
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(sv->root_dir, oentry_table[0]);
}

TEST_P(Open, CopyOfTheRootTakesItsReferencesAlong) {
    enter("SUB");
    oentry_table[0]->ref_count = 3;
    ASSERT_EQ(open_path("..").result, 2);
    EXPECT_EQ(oentry_table[2]->ref_count, 3U);
    for (int i = 0; i < 3; i++) {
        EXPECT_NE(oentry_table[2], nullptr);
        EXPECT_EQ(fat_close(2), 0);
    }
    EXPECT_EQ(oentry_table[2], nullptr);
    EXPECT_EQ(oentry_table[0]->ref_count, 3U);
}

TEST_P(Open, DotAndDotDotOfADeeperDirectory) {
    enter("SUB");
    enter("DEEP");
    EXPECT_EQ(open_path("..").result, 1);
    EXPECT_EQ(picture_of(1), tree::opened(v.deep_space, 1, {20, 22}, ".."));
    EXPECT_EQ(open_path(".").result, 3);
    EXPECT_EQ(picture_of(3), tree::opened(v.deep_space, 0, {21}, "."));
}

TEST_P(Open, BrokenChainIsNotOpened) {
    const allocation_meter meter;
    EXPECT_EQ(open_path("BROKEN"), (answer{-EINVAL, found_at(v.root_base(), v.broken) + BAD_ENTRY +
                                                        BAD_CHAIN + NOT_SET}));
    EXPECT_EQ(open_path("OUTSIDE"), (answer{-EINVAL, found_at(v.root_base(), v.outside) +
                                                         BAD_CLUSTER + BAD_CHAIN + NOT_SET}));
    EXPECT_EQ(open_path("CYCLE"),
              (answer{-EINVAL, found_at(v.root_base(), v.cycle) + BAD_CHAIN + NOT_SET}));
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
}

TEST_P(Open, FreeFirstClusterOpensWithoutAnImage) {
    EXPECT_EQ(open_path("LOST"), (answer{1, found_at(v.root_base(), v.lost)}));
    EXPECT_EQ(oentry_table[1]->dentry, nullptr);
    EXPECT_EQ(oentry_table[1]->start, 40U);
    EXPECT_STREQ(oentry_table[1]->name, "LOST");
    EXPECT_EQ(fat_close(1), 0);
}

TEST_F(Fat32OpenRoot, RootThatLostItsChainIsSearchedButOpensNothing) {
    v.set_link(sv->root_clus, 0);
    ASSERT_EQ(open_root_directory(), 0);
    EXPECT_EQ(sv->root_dir->allocated, 0U);
    EXPECT_EQ(open_path("FILE.TXT"),
              (answer{-EFAULT, found_at(v.root_base(), v.file) +
                                   "fat_get_dentry[N]: access the out of range in directory space\n"
                                   "fat_entry_open[N]: Cannot get dentry!\n\n"}));
}

TEST_P(Open, NothingIsFoundWithoutACurrentDirectory) {
    const answer refused{-EFAULT, "fat_path_lookup[N]: current directory isn't setup\n" + NO_PATH};
    sv->current_dir = nullptr;
    EXPECT_EQ(open_path("FILE.TXT"), refused);
    EXPECT_EQ(open_path("/FILE.TXT"), refused);
    EXPECT_EQ(open_path("/"), (answer{0, "fat_open[N]: failed to get name!\n\n"}));
}

TEST_P(Open, EachAllocationThatFails) {
    const std::string found = found_at(v.root_base(), v.file);
    EXPECT_EQ(
        answers_under(
            EVERY_ALLOCATION, [] { return fat_open("FILE.TXT"); }, fat_close),
        (std::vector<answer>{
            {-ENOMEM, "find_dentry_with_clu[N]: Failed to allocate memory!\n\n" + NO_ENTRY},
            {-ENOMEM, "convert_name[N]: cannot allocate space\n"
                      "find_dentry_with_clu[N]: Failed to get fatnames!\n\n" +
                          NO_ENTRY},
            {-ENOMEM, "find_dentry_with_clu[N]: Failed to allocate memory!\n\n" + NO_ENTRY},
            {-ENOMEM, found + "fat_entry_open[N]: cannot allocate memory\n"},
            {-ENOMEM, found + "fat_set_oentry[N]: cannot allocate memory\n" + NOT_SET},
            {-EINVAL, found + "fat_read_entry[N]: cannot allocate FAT\n\n" + BAD_CHAIN + NOT_SET},
            {1, found}}));
}

TEST_P(Open, EachReadThatFails) {
    const std::string found = found_at(v.root_base(), v.file);
    const std::string sector = std::to_string(v.root_space.offset_of(v.file) / sv->sector_size);
    const std::string no_sector =
        "get_dentry_with_clu[N]: cannot read sectors:(sector: " + sector + ")\n";
    EXPECT_EQ(
        answers_under(
            EVERY_READ, [] { return fat_open("/FILE.TXT"); }, fat_close),
        (std::vector<answer>{
            {-EIO, no_sector + "find_dentry_with_clu[N]: fail to get dentry(" +
                       std::to_string(v.root_base()) + ", 0):Input/output error\n" + NO_ENTRY},
            // The sector of the entry is that of the lookup.
            {-EINVAL, found + "fat_read_entry[N]: cannot read FAT\n\n" + BAD_CHAIN + NOT_SET},
            {1, found}}));
}

TEST_P(Open, EveryFailureUnderATemporaryDirectoryFreesIt) {
    enter("SUB");
    for (const fault_kind &kind : {EVERY_ALLOCATION, EVERY_READ}) {
        const std::vector<answer> answers = answers_under(
            kind, [] { return fat_open("./INNER.TXT"); }, fat_close);
        EXPECT_EQ(answers.back(), (answer{2, found_at(20, v.inner)}));
        for (const answer &a : answers) {
            EXPECT_TRUE(a.result == (kind.what == fault::read ? -EIO : -ENOMEM) ||
                        a.result == -EINVAL || a.result == 2)
                << a;
        }
    }
}

// ---- names of more than 255 characters --------------------------------------------------------

TEST_P(Open, NameIsCutAt255Characters) {
    sv->long_name = 0; // every name is looked for as a short one
    v.root_space.append(short_entry("AAAAAAAA   "));
    for (const std::size_t length : {254U, 255U, 256U, 259U, 260U}) {
        const answer a = open_path(std::string(length, 'a'));
        ASSERT_GT(a.result, 0) << length;
        EXPECT_EQ(picture_of(a.result).name, std::string(std::min<std::size_t>(length, 255), 'a'));
        EXPECT_EQ(oentry_table[a.result]->readdir_clus, 0U);
        EXPECT_EQ(fat_close(a.result), 0);
    }
}

TEST_P(Open, LongNameIsComparedUpTo255Characters) {
    const std::string name(255, 'x');
    v.root_space.append_long(std::u16string(255, u'x'), "XXXXXX~1   ");
    EXPECT_EQ(open_path(name).result, 1);
    EXPECT_EQ(picture_of(1).name, name);
    EXPECT_EQ(open_path(name + "yyyy").result, 2);
    EXPECT_EQ(picture_of(2).name, name);
    EXPECT_EQ(open_path(name.substr(1)).result, -ENOENT);
}

// ---- the table full ---------------------------------------------------------------------------

TEST_F(OpenEntries, The512thOpenFailsUntilOneIsClosed) {
    open_until_full();
    const answer full{-EMFILE, found_at(0, v.file) + TOO_MANY};
    const allocation_meter meter;
    EXPECT_EQ(open_path("/FILE.TXT"), full);
    EXPECT_EQ(open_file("/FILE.TXT"), full);
    EXPECT_EQ(open_dir("/SUB"), (answer{-EMFILE, found_at(0, v.sub) + TOO_MANY}));
    EXPECT_EQ(open_path("./FILE.TXT"), full);
    EXPECT_EQ(meter.live_blocks(), 0);
    for (const int id : {1, 255, 511}) {
        EXPECT_EQ(fat_close(id), 0);
        EXPECT_EQ(fat_open("SUB"), id);
        EXPECT_EQ(fat_open("SUB"), -EMFILE);
    }
    EXPECT_EQ(fat_close(300), 0);
    EXPECT_EQ(fat_close(200), 0);
    EXPECT_EQ(fat_open("FILE.TXT"), 200);
    EXPECT_EQ(fat_open("FILE.TXT"), 300);
    EXPECT_EQ(ids_in_use().size(), 512U);
}

// ---- opening what must be a directory ---------------------------------------------------------

TEST_F(OpenEntries, OpenDirOfNullOpensTheRootAgain) {
    enter("SUB");
    oentry_table[0]->ref_count = 5;
    EXPECT_EQ(open_dir(nullptr), (answer{0, ""}));
    EXPECT_EQ(picture_of(0), tree::opened_root());
    EXPECT_EQ(get_current(), 0);
}

TEST_F(OpenEntries, OpenDirOfADirectory) {
    EXPECT_EQ(open_dir("SUB"), (answer{1, found_at(0, v.sub)}));
    EXPECT_EQ(picture_of(1), tree::opened(v.root_space, v.sub, {20, 22}, "SUB"));
}

TEST_F(OpenEntries, OpenDirOfTheRootIsNotChecked) {
    EXPECT_EQ(open_dir("/"), (answer{0, "fat_open[N]: failed to get name!\n\n"}));
}

TEST_F(OpenEntries, OpenDirRefusesAFileAndClosesIt) {
    const allocation_meter meter;
    for (const auto &[path, index] : {std::pair{"FILE.TXT", v.file},
                                      {"EMPTY", v.empty},
                                      {"LOST", v.lost},
                                      {"A Long Name.txt", v.long_named}}) {
        errno = 0;
        EXPECT_EQ(open_dir(path),
                  (answer{-ENOTDIR, found_at(0, index) + "fat_open_dir[N]: " + NOT_THAT_KIND}));
        EXPECT_EQ(errno, ENOTDIR);
        EXPECT_EQ(ids_in_use(), std::vector<int>{0});
        EXPECT_EQ(meter.live_blocks(), 0);
    }
}

TEST_F(OpenEntries, OpenDirRefusesACopyOfTheRoot) {
    enter("SUB");
    const allocation_meter meter;
    EXPECT_EQ(open_dir(".."),
              (answer{-ENOTDIR, found_at(20, 1) + "fat_open_dir[N]: " + NOT_THAT_KIND}));
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_F(OpenEntries, OpenDirStoresErrorsInErrno) {
    const auto error_of = [](const char *path) {
        errno = 0;
        const int result = fat_open_dir(path);
        return std::pair{result, errno};
    };
    EXPECT_EQ(error_of("MISSING"), (std::pair{-ENOENT, ENOENT}));
    EXPECT_EQ(error_of("CON"), (std::pair{-EINVAL, EINVAL}));
    EXPECT_EQ(error_of("BROKEN"), (std::pair{-EINVAL, EINVAL}));
    EXPECT_EQ(error_of(std::string(261, 'a').c_str()), (std::pair{-ENAMETOOLONG, ENAMETOOLONG}));
    EXPECT_EQ(error_of("MISSING/x"), (std::pair{-ENOENT, ENOENT}));
    v.disk.reads_before_failure = 0;
    EXPECT_EQ(error_of("SUB"), (std::pair{-EIO, EIO}));
    open_until_full();
    EXPECT_EQ(error_of("SUB"), (std::pair{-EMFILE, EMFILE}));
    fat_close_volume(0);
    EXPECT_EQ(error_of("SUB"), (std::pair{-EINVAL, EINVAL}));
    EXPECT_EQ(error_of(nullptr), (std::pair{-EINVAL, EINVAL}));
    volume again;
    const failing_allocation fault(0);
    EXPECT_EQ(error_of(nullptr), (std::pair{-ENOMEM, ENOMEM}));
}

// ---- opening what must be a file --------------------------------------------------------------

TEST_F(OpenEntries, OpenFileOfAFile) {
    EXPECT_EQ(open_file("FILE.TXT"), (answer{1, found_at(0, v.file)}));
    EXPECT_EQ(picture_of(1), tree::opened(v.root_space, v.file, {10, 12, 11}, "FILE.TXT"));
}

TEST_F(OpenEntries, OpenFileRefusesADirectoryAndClosesIt) {
    enter("SUB");
    const allocation_meter meter;
    for (const auto &[path, base, index] :
         {std::tuple{"/SUB", 0U, v.sub}, {"DEEP", 20U, v.deep}, {".", 20U, 0U}}) {
        errno = 0;
        EXPECT_EQ(open_file(path),
                  (answer{-EISDIR, found_at(base, index) + "fat_open_file[N]: " + NOT_THAT_KIND}));
        EXPECT_EQ(errno, EISDIR);
        EXPECT_EQ(meter.live_blocks(), 0);
    }
}

TEST_F(OpenEntries, OpenFileAcceptsARecordWithoutACachedDirectoryEntry) {
    enter("SUB");
    EXPECT_EQ(open_file(".."), (answer{2, found_at(20, 1)}));
    EXPECT_EQ(open_file("/LOST"), (answer{3, found_at(0, v.lost)}));
    v.root_space.put(v.lost, short_entry("LOST       ", DIRECTORY, 40));
    EXPECT_EQ(open_file("/LOST"), (answer{4, found_at(0, v.lost)}));
    EXPECT_EQ(open_file("/"), (answer{0, "fat_open[N]: failed to get name!\n\n"}));
}

TEST_F(OpenEntries, OpenFileStoresErrorsInErrno) {
    const auto error_of = [](const char *path) {
        errno = 0;
        const int result = fat_open_file(path);
        return std::pair{result, errno};
    };
    EXPECT_EQ(error_of(nullptr), (std::pair{-EINVAL, EINVAL}));
    EXPECT_EQ(error_of("MISSING"), (std::pair{-ENOENT, ENOENT}));
    EXPECT_EQ(error_of("a|b"), (std::pair{-EINVAL, EINVAL}));
    EXPECT_EQ(error_of("CYCLE"), (std::pair{-EINVAL, EINVAL}));
    EXPECT_EQ(error_of(std::string(261, '/').c_str()), (std::pair{-ENAMETOOLONG, ENAMETOOLONG}));
    open_until_full();
    EXPECT_EQ(error_of("FILE.TXT"), (std::pair{-EMFILE, EMFILE}));
    sv->current_dir = nullptr;
    EXPECT_EQ(error_of("FILE.TXT"), (std::pair{-EFAULT, EFAULT}));
    fat_close_volume(0);
    EXPECT_EQ(error_of("FILE.TXT"), (std::pair{-EINVAL, EINVAL}));
}

// ---- closing ----------------------------------------------------------------------------------

TEST_F(OpenEntries, IdsOutsideTheTableCannotBeClosed) {
    for (const int id : {0, 512, 513, 1000, INT_MAX}) {
        EXPECT_EQ(close_id(id),
                  (answer{-EINVAL, "fat_close[N]: Invalid id!(" + std::to_string(id) + ")\n\n"}));
    }
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    EXPECT_EQ(references(0), 1U);
}

TEST_F(OpenEntries, NegativeIdsAndEmptySlotsAreIgnored) {
    ASSERT_EQ(fat_open("FILE.TXT"), 1);
    for (const int id : {-1, -2, -511, -512, INT_MIN, 2, 511}) {
        EXPECT_EQ(close_id(id), (answer{0, ""}));
        EXPECT_EQ(ids_in_use(), (std::vector<int>{0, 1}));
        EXPECT_EQ(references(1), 1U);
    }
}

TEST_F(OpenEntries, ClosedSlotIsEmptyAndClosingItAgainDoesNothing) {
    const allocation_meter meter;
    ASSERT_EQ(fat_open("FILE.TXT"), 1);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(close_id(1), (answer{0, ""}));
        EXPECT_EQ(ids_in_use(), std::vector<int>{0});
        EXPECT_EQ(meter.live_blocks(), 0);
    }
}

// ---- the current directory --------------------------------------------------------------------

TEST_F(OpenEntries, CurrentIsTheFirstSlotThatHoldsTheRecord) {
    EXPECT_EQ(current(), (answer{0, ""}));
    ASSERT_EQ(fat_open("FILE.TXT"), 1);
    ASSERT_EQ(fat_open("SUB"), 2);
    sv->current_dir = oentry_table[2];
    EXPECT_EQ(current(), (answer{2, ""}));
    oentry *hidden = std::exchange(oentry_table[1], oentry_table[2]);
    EXPECT_EQ(get_current(), 1);
    oentry_table[1] = hidden;
    sv->current_dir = sv->root_dir;
}

TEST_F(OpenEntries, CurrentThatIsMissing) {
    sv->current_dir = nullptr;
    EXPECT_EQ(current(), (answer{-1, "get_current[N]: NULL current directory!\n\n"}));
    oentry stray = {};
    sv->current_dir = &stray;
    messages.clear();
    EXPECT_EQ(get_current(), -EINVAL);
    EXPECT_EQ(messages.text(), "get_current[N]: NO current directory!\n\n");
    messages.clear();
    EXPECT_EQ(fat_set_current(0), -EINVAL);
    EXPECT_EQ(messages.text(), "get_current[N]: NO current directory!\n\n");
    EXPECT_EQ(sv->current_dir, &stray);
    sv->current_dir = sv->root_dir;
}

TEST_F(OpenEntries, ErrorOfTheFormerCurrentDirectoryComesBeforeTheKind) {
    ASSERT_EQ(fat_open("FILE.TXT"), 1);
    sv->current_dir = nullptr;
    EXPECT_EQ(set_current(1), (answer{-1, "get_current[N]: NULL current directory!\n\n"}));
    EXPECT_EQ(set_current(2), (answer{-EBADF, "fat_set_current[N]: Invalid did!\n\n"}));
}

TEST_F(OpenEntries, OnlyDirectoriesBecomeCurrent) {
    enter("SUB");
    ASSERT_EQ(fat_open("/FILE.TXT"), 2);
    ASSERT_EQ(fat_open(".."), 3); // a copy of the root
    ASSERT_EQ(fat_open("/LOST"), 4);
    ASSERT_EQ(fat_open("DEEP"), 5);
    for (const int did : {2, 3, 4}) {
        EXPECT_EQ(set_current(did), (answer{-ENOTDIR, ""})) << did;
        EXPECT_EQ(references(did), 1U);
    }
    u8 *image = oentry_table[5]->dentry;
    for (const int first : {0x00, 0xE5}) {
        image[0] = static_cast<u8>(first);
        EXPECT_EQ(set_current(5), (answer{-ENOTDIR, ""}));
    }
    image[0] = 'D';
    for (const int attr : {0x00, 0x08, 0x18, 0x20, 0x0F, 0xE7, 0xFF}) {
        image[11] = static_cast<u8>(attr);
        EXPECT_EQ(set_current(5), (answer{-ENOTDIR, ""})) << attr;
    }
    EXPECT_EQ(get_current(), 1);
    for (const int attr : {0x10, 0xF7}) {
        image[11] = static_cast<u8>(attr);
        EXPECT_EQ(set_current(5), (answer{5, ""})) << attr;
    }
}

TEST_F(OpenEntries, RootBecomesCurrentWithoutAReference) {
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(set_current(0), (answer{0, ""}));
        EXPECT_EQ(references(0), 1U);
    }
    EXPECT_EQ(sv->current_dir, sv->root_dir);
}

TEST_F(OpenEntries, SlotZeroWithAnImageOfAFileIsNoRoot) {
    oentry *root = oentry_table[0];
    const entry_image image = short_entry("FILE       ");
    root->dentry = static_cast<u8 *>(std::malloc(32));
    std::memcpy(root->dentry, image.data(), 32);
    EXPECT_EQ(set_current(0), (answer{-ENOTDIR, ""}));
}

TEST_F(OpenEntries, CurrentDirectoryHoldsOneReference) {
    ASSERT_EQ(fat_open_dir("SUB"), 1);
    EXPECT_EQ(set_current(1), (answer{1, ""}));
    EXPECT_EQ(references(1), 2U);
    EXPECT_EQ(set_current(1), (answer{1, ""}));
    EXPECT_EQ(references(1), 2U);
    EXPECT_EQ(set_current(0), (answer{0, ""}));
    EXPECT_EQ(references(1), 1U);
    EXPECT_EQ(fat_close(1), 0);
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
}

TEST_F(OpenEntries, CurrentDirectoryStaysWhenItsIdIsClosed) {
    const allocation_meter meter;
    enter("SUB");
    EXPECT_EQ(references(1), 1U);
    EXPECT_EQ(get_current(), 1);
    EXPECT_EQ(fat_open("INNER.TXT"), 2);
    EXPECT_EQ(fat_close(2), 0);
    EXPECT_EQ(set_current(0), (answer{0, ""}));
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_F(OpenEntries, OneDirectoryAfterTheOther) {
    ASSERT_EQ(fat_open_dir("SUB"), 1);
    ASSERT_EQ(fat_set_current(1), 1);
    ASSERT_EQ(fat_open_dir("DEEP"), 2);
    EXPECT_EQ(set_current(2), (answer{2, ""}));
    EXPECT_EQ(references(1), 1U);
    EXPECT_EQ(references(2), 2U);
    EXPECT_EQ(fat_open("X"), 3);
    EXPECT_EQ(set_current(1), (answer{1, ""}));
    EXPECT_EQ(references(1), 2U);
    EXPECT_EQ(references(2), 1U);
    EXPECT_EQ(fat_open("X"), -ENOENT);
}

TEST_F(OpenEntries, FreeingTheCurrentDirectoryMakesTheRootCurrent) {
    enter("SUB"); // one reference is left, the current directory's
    EXPECT_EQ(close_id(1), (answer{0, ""}));
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    EXPECT_EQ(current(), (answer{0, ""}));
    EXPECT_EQ(fat_open("INNER.TXT"), -ENOENT);
    EXPECT_EQ(fat_open("SUB"), 1);
    EXPECT_EQ(set_current(1), (answer{1, ""}));
    EXPECT_EQ(references(1), 2U);
}

// ---- no volume --------------------------------------------------------------------------------
