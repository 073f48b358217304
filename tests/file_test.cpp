// Writing files: the writes of an append and their order, the bytes that it does not change, the
// undo of a failed one, and the cost.

#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/file_fixture.h"
#include "tests/support/huge_file.h"

using namespace fat;
using namespace testing_support;

namespace {

using WriteFile = file_test;
using GetFileEntry = file_test;

class WriteFat32 : public file_test {
protected:
    WriteFat32() : file_test({.fat_type = 32, .clusters = 66100}) {}
};

class WriteAnyShape : public file_test, public testing::WithParamInterface<volume_shape> {
protected:
    WriteAnyShape() : file_test(GetParam()) {}
};
INSTANTIATE_TEST_SUITE_P(Shapes, WriteAnyShape, testing::ValuesIn(many_shapes()), shape_name);

constexpr u8 SYMLINK_MARK = 0xE2;

// The last messages of a write that was undone.
const std::string WRITE_FAILED = "write_file_internal[N]: Failed to write file!\n\n"
                                 "fat_write_file[N]: Failed go get file entry!\n\n";
// The last message of a refusal.
const std::string NO_FILE = "fat_write_file[N]: Failed go get file entry!\n\n";

} // namespace

// ---- the file of an id ------------------------------------------------------------------------

TEST_F(GetFileEntry, OpenFileIsGivenOut) {
    const int id = v.open_new("FILE       ", {5}, 100);
    oentry *entry = nullptr;
    EXPECT_EQ(get_file_entry(id, &entry), 0);
    EXPECT_EQ(entry, oentry_table[id]);
    EXPECT_EQ(messages.text(), "");
}

TEST_F(GetFileEntry, LastIdIsServed) {
    const u32 index = v.top.append(short_entry("FILE       "));
    int id = 0;
    while (id < 511) {
        id = v.open(index);
    }
    oentry *entry = nullptr;
    EXPECT_EQ(get_file_entry(511, &entry), 0);
    EXPECT_EQ(entry, oentry_table[511]);
    EXPECT_EQ(get_file_entry(512, &entry), -EINVAL);
    EXPECT_EQ(messages.text(), "not open file id 512\n");
}

TEST_F(GetFileEntry, IdThatIsNotOpenIsRefused) {
    v.open_new("FILE       ", {5}, 100);
    for (const int id : {2, 511, 512, 513, INT_MAX, -1, -511, -512, INT_MIN}) {
        SCOPED_TRACE(id);
        oentry *entry = sv->root_dir;
        EXPECT_EQ(get_file_entry(id, &entry), -EINVAL);
        EXPECT_EQ(entry, nullptr);
        EXPECT_EQ(messages.text(), "not open file id " + std::to_string(id) + "\n");
        messages.clear();
    }
}

TEST_F(GetFileEntry, RootDirectoryIsNoFileButIsGivenOut) {
    oentry *entry = nullptr;
    EXPECT_EQ(get_file_entry(0, &entry), -EISDIR);
    EXPECT_EQ(entry, sv->root_dir);
    EXPECT_EQ(messages.text(), "not file\n\n");
}

TEST_F(GetFileEntry, AttributeDecidesBetweenFileAndDirectory) {
    const int id = v.open_new("FILE       ", {5}, 100);
    for (unsigned attr = 0; attr < 256; attr++) {
        SCOPED_TRACE(attr);
        mounted::record(id).dentry[11] = static_cast<u8>(attr);
        const bool is_directory = (attr & 0x18) == 0x10;
        oentry *entry = nullptr;
        EXPECT_EQ(get_file_entry(id, &entry), is_directory ? -EISDIR : 0);
        EXPECT_EQ(entry, oentry_table[id]);
        EXPECT_EQ(messages.text(), is_directory ? "not file\n\n" : "");
        messages.clear();
    }
}

TEST_F(GetFileEntry, DirectoryThatWasRemovedPassesAsFile) {
    const int id = v.open_new("DIR        ", {5}, 0, DIRECTORY);
    for (const int first : {0x00, 0xE5}) {
        mounted::record(id).dentry[0] = static_cast<u8>(first);
        oentry *entry = nullptr;
        EXPECT_EQ(get_file_entry(id, &entry), 0) << first;
    }
    EXPECT_EQ(messages.text(), "");
}

// A chain that runs into a free cluster, or a ".." that leads to the root, opens without a cached
// entry.
TEST_F(GetFileEntry, RecordWithoutImageIsNoFile) {
    v.set_link(5, 6);
    const int broken = v.open(v.top.append(short_entry("BROKEN     ", ARCHIVE, 5, 100)));
    const int to_root = v.open(v.top.append(short_entry("..         ", DIRECTORY, 0)));
    transfers();
    for (const int id : {broken, to_root}) {
        messages.clear();
        ASSERT_NE(id, 0);
        ASSERT_EQ(mounted::record(id).dentry, nullptr);
        oentry *entry = nullptr;
        EXPECT_EQ(get_file_entry(id, &entry), -EISDIR);
        EXPECT_EQ(messages.text(), "not file\n\n");
        EXPECT_EQ(write(id, {1}), (outcome{-EISDIR, EISDIR, "not file\n\n" + NO_FILE}));
        EXPECT_TRUE(transfers().empty());
    }
}

// ---- refusals ---------------------------------------------------------------------------------

TEST_F(WriteFile, DirectoriesAreRefused) {
    const int id = v.open_new("DIR        ", {5}, 0, DIRECTORY);
    transfers();
    EXPECT_EQ(write(0, {1}), (outcome{-EISDIR, EISDIR, "not file\n\n" + NO_FILE}));
    EXPECT_EQ(write(id, {1}), (outcome{-EISDIR, EISDIR, "not file\n\n" + NO_FILE}));
    EXPECT_TRUE(transfers().empty());
}

// ---- an append --------------------------------------------------------------------------------

TEST_F(WriteFile, FirstByteOfAnEmptyFile) {
    const int id = v.open_new("FILE    TXT", {}, 0);
    sv->last_alloc_clus = 6;
    v.set_data({7}, some_bytes(2048));
    const entry_image before = v.stored_entry(id);

    EXPECT_EQ(write(id, {'A'}), written(1));

    const oentry &record = mounted::record(id);
    EXPECT_EQ(record.start, 7U);
    EXPECT_EQ(record.last, 7U);
    EXPECT_EQ(record.allocated, 2048U);
    EXPECT_EQ(record.pos, 0U);
    EXPECT_EQ(sv->last_alloc_clus, 7U);
    EXPECT_EQ(v.link(7), 0xFFFFU);
    // The other sectors of the cluster are not cleared.
    EXPECT_EQ(v.data_of({7}),
              joined(joined({'A'}, bytes(511, 0)), part_of(some_bytes(2048), 512, 1536)));
    entry_image after = before;
    put16(&after, 20, 0);
    put16(&after, 22, 0);
    put16(&after, 24, TODAY);
    put16(&after, 26, 7);
    put16(&after, 28, 1);
    EXPECT_EQ(v.stored_entry(id), after);
    EXPECT_EQ(mounted::held_entry(id), after);
}

TEST_F(WriteFile, SecondByteIsWrittenAfterTheFirst) {
    const int id = v.open_new("FILE    TXT", {5}, 1);
    v.set_data({5}, some_bytes(2048));
    transfers();

    EXPECT_EQ(write(id, {'B'}), written(1));

    const u8 first = some_bytes(1)[0];
    EXPECT_EQ(v.data_of({5}),
              joined(joined({first, 'B'}, bytes(510, 0)), part_of(some_bytes(2048), 512, 1536)));
    EXPECT_EQ(size_of(v.stored_entry(id)), 2U);
    // The bytes before are read from the medium; nothing is allocated.
    const u32 data = volume::first_sector_of(5);
    const u32 entries = mounted::record(id).dentry_sector;
    EXPECT_EQ(transfers(),
              (std::vector<transfer>{
                  {false, data, 1}, {true, data, 1}, {false, entries, 1}, {true, entries, 1}}));
}

TEST_F(WriteFile, LastClusterIsFilledBeforeAnotherIsTaken) {
    const int id = v.open_new("FILE       ", {5}, 2000);
    EXPECT_EQ(write(id, some_bytes(48)), written(48));
    EXPECT_EQ(mounted::record(id).allocated, 2048U);
    EXPECT_EQ(v.chain_from(5), (std::vector<u32>{5}));
    EXPECT_EQ(size_of(v.stored_entry(id)), 2048U);

    EXPECT_EQ(write(id, {1}), written(1));
    EXPECT_EQ(mounted::record(id).allocated, 4096U);
    EXPECT_EQ(v.chain_from(5).size(), 2U);
    EXPECT_EQ(size_of(v.stored_entry(id)), 2049U);
}

TEST_F(WriteFile, ClustersAreTakenAfterTheHintAndLinkedAfterTheLast) {
    const int id = v.open_new("FILE       ", {5}, 2048);
    v.chain({12, 14});
    sv->last_alloc_clus = 10;
    EXPECT_EQ(write(id, some_bytes(4 * 2048)), written(4 * 2048));
    EXPECT_EQ(v.chain_from(5), (std::vector<u32>{5, 11, 13, 15, 16}));
    EXPECT_EQ(v.link(16), 0xFFFFU);
    EXPECT_EQ(mounted::record(id).start, 5U);
    EXPECT_EQ(mounted::record(id).last, 16U);
    EXPECT_EQ(mounted::record(id).allocated, 5U * 2048);
    EXPECT_EQ(sv->last_alloc_clus, 16U);
    EXPECT_EQ(v.data_of({11, 13, 15, 16}), some_bytes(4 * 2048));
}

TEST_F(WriteFile, SearchForClustersWrapsAroundOnce) {
    const int id = v.open_new("FILE       ", {5}, 2048);
    const u32 end = volume::last_cluster();
    v.fill_but({3, 9, end - 1, end});
    sv->last_alloc_clus = end - 3;
    EXPECT_EQ(write(id, some_bytes(4 * 2048)), written(4 * 2048));
    // The last but one cluster as a hint restarts the search at the beginning.
    EXPECT_EQ(v.chain_from(5), (std::vector<u32>{5, end - 1, end, 3, 9}));
    EXPECT_EQ(v.count_free(), 0U);
}

TEST_P(WriteAnyShape, FileGrowsByOddPieces) {
    const int id = v.open_new("FILE       ", {}, 0);
    const u32 unit = mounted::cluster_bytes();
    const bytes content = some_bytes(std::size_t{3} * unit + sv->sector_size / 2);
    std::size_t done = 0;
    for (const std::size_t piece :
         {std::size_t{1}, std::size_t{sv->sector_size} - 1, std::size_t{sv->sector_size},
          std::size_t{7}, std::size_t{unit}, content.size()}) {
        const std::size_t count = std::min(piece, content.size() - done);
        ASSERT_EQ(write(id, part_of(content, done, count)), written(static_cast<int>(count)));
        done += count;
        EXPECT_EQ(size_of(v.stored_entry(id)), done);
        EXPECT_EQ(mounted::record(id).allocated, (done + unit - 1) / unit * unit);
    }
    ASSERT_EQ(done, content.size());
    const std::vector<u32> clusters = v.chain_from(start_of(v.stored_entry(id)));
    ASSERT_EQ(clusters.size(), 4U);
    EXPECT_EQ(mounted::record(id).last, clusters.back());
    EXPECT_EQ(v.value_of(clusters.back()), volume::end_mark());
    EXPECT_EQ(part_of(v.data_of(clusters), 0, done), content);
}

TEST_P(WriteAnyShape, SecondFatStaysAsItWas) {
    const int id = v.open_new("FILE       ", {}, 0);
    const bytes second = v.fat_copy(1);
    EXPECT_EQ(write(id, some_bytes(mounted::cluster_bytes() + 1)).messages, "");
    EXPECT_EQ(v.fat_copy(1), second);
    EXPECT_NE(v.fat_copy(0), second);
}

TEST_P(WriteAnyShape, FatThenDataThenDirectoryEntryReachTheMedium) {
    const int id = v.open_new("FILE       ", {5}, mounted::cluster_bytes() - 1);
    sv->last_alloc_clus = 9;
    transfers();
    EXPECT_EQ(write(id, some_bytes(2)).messages, "");
    std::vector<transfer> writes = transfers();
    std::erase_if(writes, [](const transfer &t) { return !t.is_write; });
    const u32 data = volume::first_sector_of(5) + sv->sec_per_clus - 1;
    const std::vector<transfer> expected = {{true, volume::fat_sector_of(10), 1},
                                            {true, data, 1},
                                            {true, volume::first_sector_of(10), 1},
                                            {true, mounted::record(id).dentry_sector, 1}};
    EXPECT_EQ(writes, expected);
}

TEST_F(WriteFat32, StartClusterBeyond16BitsIsStoredInBothHalves) {
    const int id = v.open_new("FILE       ", {}, 0);
    sv->last_alloc_clus = 0x10203 - 1;
    EXPECT_EQ(write(id, {1}), written(1));
    const entry_image entry = v.stored_entry(id);
    EXPECT_EQ(field_of(entry, 20, 2), 0x0001U);
    EXPECT_EQ(field_of(entry, 26, 2), 0x0203U);
    EXPECT_EQ(mounted::record(id).start, 0x10203U);
}

TEST_F(WriteFat32, ReservedBitsOfFat32EntriesStay) {
    const int id = v.open_new("FILE       ", {5}, 512);
    v.set_link(5, 0xAFFFFFFF);
    v.set_link(11, 0xB0000000);
    v.set_link(12, 0x50000000);
    sv->last_alloc_clus = 10;
    EXPECT_EQ(write(id, some_bytes(1024)), written(1024));
    EXPECT_EQ(v.link(5), 0xA000000BU);
    EXPECT_EQ(v.link(11), 0xB000000CU);
    EXPECT_EQ(v.link(12), 0x5FFFFFFFU);
}

// ---- position ---------------------------------------------------------------------------------

TEST_F(WriteFile, PositionIsNeitherUsedNorMoved) {
    const int id = v.open_new("FILE       ", {5}, 10);
    v.set_data({5}, some_bytes(2048));
    for (const u64 pos : {u64{0}, u64{3}, u64{10}, u64{5000}, ~u64{0}}) {
        mounted::record(id).pos = pos;
        const u32 size = size_of(mounted::held_entry(id));
        EXPECT_EQ(write(id, {'X'}), written(1));
        EXPECT_EQ(mounted::record(id).pos, pos);
        EXPECT_EQ(v.data_of({5})[size], 'X');
        EXPECT_EQ(size_of(v.stored_entry(id)), size + 1);
    }
    EXPECT_EQ(part_of(v.data_of({5}), 0, 10), part_of(some_bytes(2048), 0, 10));
}

// Each id has its own copy of the entry: the last write determines the entry on the medium.
TEST_F(WriteFile, TwoIdsOfOneFileDoNotSeeEachOther) {
    const int first = v.open_new("FILE       ", {5}, 10);
    const int second = v.open(0);
    EXPECT_EQ(write(first, some_bytes(20)), written(20));
    EXPECT_EQ(size_of(v.stored_entry(second)), 30U);
    EXPECT_EQ(write(second, {'X'}), written(1));
    EXPECT_EQ(size_of(v.stored_entry(first)), 11U);
    EXPECT_EQ(size_of(mounted::held_entry(first)), 30U);
    EXPECT_EQ(v.data_of({5})[10], 'X');
}

// ---- parts of sectors -------------------------------------------------------------------------

TEST_P(WriteAnyShape, PartOfASectorRetainsTheBytesBeforeAndClearsTheBytesAfter) {
    const u32 size = sv->sector_size;
    const std::size_t whole = mounted::cluster_bytes();
    const bytes old = some_bytes(whole, 2);
    for (const auto &[offset, count] : std::initializer_list<std::pair<u32, u32>>{{0, 1},
                                                                                  {0, size - 1},
                                                                                  {1, 1},
                                                                                  {1, size - 2},
                                                                                  {1, size - 1},
                                                                                  {size - 1, 1},
                                                                                  {17, 40}}) {
        SCOPED_TRACE(std::to_string(count) + " at " + std::to_string(offset));
        const int id = v.open_new("FILE       ", {5}, offset);
        v.set_data({5}, old);
        transfers();
        const bytes data = some_bytes(count, 3);
        EXPECT_EQ(write(id, data), written(static_cast<int>(count)));
        bytes expected = joined(part_of(old, 0, offset), data);
        expected.resize(size, 0);
        expected = joined(expected, part_of(old, size, whole - size));
        EXPECT_EQ(v.data_of({5}), expected);
        // A sector that is overwritten from its beginning is not read.
        const u32 sector = volume::first_sector_of(5);
        EXPECT_EQ(count_of(transfers(), {false, sector, 1}), offset == 0 ? 0 : 1);
        fat_close(id);
    }
}

TEST_P(WriteAnyShape, BeginningOfASectorAtTheEndIsNotRead) {
    const u32 size = sv->sector_size;
    const int id = v.open_new("FILE       ", {}, 0);
    sv->last_alloc_clus = 4;
    transfers();
    EXPECT_EQ(write(id, some_bytes(size + 5)), written(static_cast<int>(size + 5)));
    for (const transfer &t : transfers()) {
        EXPECT_TRUE(t.is_write || t.sector < sv->data_start || t.sector == sv->rdir_start) << t;
    }
}

// ---- the directory entry ----------------------------------------------------------------------

TEST_F(WriteFile, DateIsTheLocalOneAndTheTimeIsZero) {
    const int id = v.open_new("FILE       ", {5}, 0);
    mounted::record(id).dentry[22] = 0x77;
    mounted::record(id).dentry[23] = 0x77;
    {
        const stopped_clock evening(NEW_YEARS_EVE_2030, "UTC0");
        write(id, {1});
        EXPECT_EQ(field_of(v.stored_entry(id), 24, 2), u32{50 << 9 | 12 << 5 | 31});
        EXPECT_EQ(field_of(v.stored_entry(id), 22, 2), 0U);
    }
    {
        const stopped_clock evening(NEW_YEARS_EVE_2030, "<+0530>-5:30");
        write(id, {1});
        EXPECT_EQ(field_of(v.stored_entry(id), 24, 2), u32{51 << 9 | 1 << 5 | 1});
        EXPECT_EQ(field_of(v.stored_entry(id), 22, 2), 0U);
    }
}

TEST_F(WriteFile, WholeCopyReachesTheMediumAndItsNeighboursStay) {
    for (int i = 0; i < 16; i++) {
        v.top.append(short_entry("OTHER   TXT", ARCHIVE, 9, 1234));
    }
    const int id = v.open_new("FILE       ", {5}, 10);
    v.top.append(short_entry("AFTER   TXT", ARCHIVE, 9, 1234));
    ASSERT_EQ(mounted::record(id).dentry_offset, 0U);
    const u64 sector = u64{mounted::record(id).dentry_sector} * 512;
    const bytes behind = v.disk.peek(sector + 32, 480);
    // Changed by others since: on the medium, and in the copy.
    entry_image other = short_entry("RENAMED TXT", HIDDEN, 77, 88);
    v.top.put(16, other);
    mounted::record(id).dentry[11] = SYSTEM;
    mounted::record(id).dentry[13] = SYMLINK_MARK;

    EXPECT_EQ(write(id, {1}), written(1));

    entry_image expected = short_entry("FILE       ", SYSTEM, 5, 11);
    expected[13] = SYMLINK_MARK;
    put16(&expected, 24, TODAY);
    EXPECT_EQ(v.top.at(16), expected);
    EXPECT_EQ(v.disk.peek(sector + 32, 480), behind);
    EXPECT_EQ(v.top.at(15), short_entry("OTHER   TXT", ARCHIVE, 9, 1234));
}

TEST_F(WriteFile, DirectoryThatWasRemovedIsWrittenAsFile) {
    const int id = v.open_new("DIR        ", {5}, 0, DIRECTORY);
    mounted::record(id).dentry[0] = 0xE5;
    EXPECT_EQ(write(id, some_bytes(3)), written(3));
    EXPECT_EQ(part_of(v.data_of({5}), 0, 3), some_bytes(3));
    EXPECT_EQ(size_of(v.stored_entry(id)), 3U);
}

// ---- a full volume ----------------------------------------------------------------------------

TEST_F(WriteFile, AllocationsAreTakenBackWhenTheVolumeIsFull) {
    const int id = v.open_new("FILE       ", {5}, 2000);
    v.set_data({5}, some_bytes(2048));
    v.fill_but({20, 30});
    const bytes fat = v.fat_copy(0);
    const oentry before = mounted::record(id);
    const entry_image entry = mounted::held_entry(id);
    transfers();

    EXPECT_EQ(write(id, some_bytes(48 + 4 * 2048)),
              (outcome{-ENOSPC, ENOSPC,
                       "fat_alloc_cluster[N]: No space left on volume!!\n"
                       "do_write_file[N]: cannot allocate cluster\n" +
                           WRITE_FAILED}));

    EXPECT_EQ(mounted::record(id).start, before.start);
    EXPECT_EQ(mounted::record(id).last, before.last);
    EXPECT_EQ(mounted::record(id).allocated, before.allocated);
    EXPECT_EQ(mounted::held_entry(id), entry);
    EXPECT_EQ(v.stored_entry(id), entry);
    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(v.data_of({5}), some_bytes(2048));
    EXPECT_TRUE(data_transfers().empty());
    // The hint remains where the search ended.
    EXPECT_EQ(sv->last_alloc_clus, 30U);
}

// A chain that began with the write is freed, but its number stays in the record and in the cached
// entry, and the end mark is written to FAT entry 0, as there was no last cluster.
TEST_P(WriteAnyShape, EmptyFileRetainsItsFreedStartAndEntryZeroTheEndMark) {
    const int id = v.open_new("FILE       ", {}, 0);
    v.fill_but({20, 30});
    const u32 entry_zero = v.link(0);
    const bytes fat = v.fat_copy(0);
    const entry_image stored = v.stored_entry(id);
    const outcome full = {-ENOSPC, ENOSPC,
                          "fat_alloc_cluster[N]: No space left on volume!!\n"
                          "do_write_file[N]: cannot allocate cluster\n" +
                              WRITE_FAILED};
    EXPECT_EQ(write(id, some_bytes(std::size_t{3} * mounted::cluster_bytes())), full);

    const oentry &record = mounted::record(id);
    EXPECT_EQ(record.start, 20U);
    EXPECT_EQ(record.last, 0U);
    EXPECT_EQ(record.allocated, 0U);
    EXPECT_EQ(start_of(mounted::held_entry(id)), 20U);
    EXPECT_EQ(size_of(mounted::held_entry(id)), 0U);
    EXPECT_EQ(v.stored_entry(id), stored);
    EXPECT_EQ(v.value_of(0), volume::end_mark());
    v.set_link(0, entry_zero);
    EXPECT_EQ(v.fat_copy(0), fat);
}

// The next write links its new clusters after cluster 0, so that it does not reach its data.
TEST_F(WriteFile, EmptyFileThatFailedOnceLosesItsNextCluster) {
    const int id = v.open_new("FILE       ", {}, 0);
    v.fill_but({20, 30});
    write(id, some_bytes(3 * 2048));
    sv->last_alloc_clus = 21;

    EXPECT_EQ(write(id, {'A'}), written(1));

    EXPECT_EQ(mounted::record(id).start, 20U);
    EXPECT_EQ(mounted::record(id).last, 30U);
    EXPECT_EQ(v.value_of(0), 30U);
    EXPECT_EQ(v.value_of(20), 0U);
    EXPECT_EQ(v.data_of({20})[0], 'A'); // into a cluster that is free
}

TEST_F(WriteFat32, UndoRetainsReservedBitsOfFat32Entries) {
    const int id = v.open_new("FILE       ", {5}, 512);
    v.set_link(5, 0xAFFFFFFF);
    v.set_link(20, 0xB0000000);
    v.fill_but({20, 30});
    const bytes fat = v.fat_copy(0);
    EXPECT_EQ(write(id, some_bytes(3 * 512)).result, -ENOSPC);
    EXPECT_EQ(v.fat_copy(0), fat);
}

// ---- a medium that fails ----------------------------------------------------------------------

TEST_F(WriteFile, FailedDataSectorFreesTheNewClustersAndRetainsTheOld) {
    const int id = v.open_new("FILE       ", {5}, 512);
    v.set_data({5}, some_bytes(2048));
    sv->last_alloc_clus = 9;
    v.disk.unwritable = {volume::first_sector_of(11)};
    const bytes fat = v.fat_copy(0);
    const oentry before = mounted::record(id);
    const entry_image entry = mounted::held_entry(id);
    const bytes data = some_bytes(1536 + 4 * 2048, 2);

    EXPECT_EQ(
        write(id, data),
        (outcome{-EIO, EIO, "do_write_file[N]: cannot write sector to file\n" + WRITE_FAILED}));

    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(mounted::record(id).last, before.last);
    EXPECT_EQ(mounted::record(id).allocated, before.allocated);
    EXPECT_EQ(mounted::held_entry(id), entry);
    EXPECT_EQ(v.stored_entry(id), entry);
    EXPECT_EQ(v.data_of({5}), joined(part_of(some_bytes(2048), 0, 512), part_of(data, 0, 1536)));
}

TEST_F(WriteFile, PartOfASectorThatCannotBeReadOrWritten) {
    const int id = v.open_new("FILE       ", {5}, 2047);
    v.set_data({5}, some_bytes(2048));
    sv->last_alloc_clus = 9;
    const bytes fat = v.fat_copy(0);
    const u32 sector = volume::first_sector_of(5) + 3;
    for (const int failure : {-EIO, -EACCES, 0}) {
        SCOPED_TRACE(failure);
        v.disk.failure_result = failure;
        v.disk.unreadable = {sector};
        EXPECT_EQ(write(id, some_bytes(2)),
                  (outcome{-EIO, EIO, "do_write_file[N]: cannot read sector\n" + WRITE_FAILED}));
        v.disk.unreadable = {};
        v.disk.unwritable = {sector};
        EXPECT_EQ(
            write(id, some_bytes(2)),
            (outcome{-EIO, EIO, "do_write_file[N]: cannot write sector to file\n" + WRITE_FAILED}));
        v.disk.unwritable = {};
    }
    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(v.data_of({5}), some_bytes(2048));
    EXPECT_EQ(mounted::record(id).allocated, 2048U);
}

TEST_F(WriteFile, FailureInClustersThatWereThereChangesNoAllocation) {
    const int id = v.open_new("FILE       ", {5, 6}, 1000);
    mounted::record(id).last = 0; // would be put right by an undo
    v.disk.unwritable = {volume::first_sector_of(6)};
    const bytes fat = v.fat_copy(0);
    EXPECT_EQ(write(id, some_bytes(2000)).result, -EIO);
    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(mounted::record(id).last, 0U);
    EXPECT_EQ(mounted::record(id).allocated, 4096U);
}

TEST_F(WriteFile, TransferOfTooFewSectorsIsAFailure) {
    const int id = v.open_new("FILE       ", {5, 6}, 0);
    v.disk.failure_result = 3;
    v.disk.unwritable = {volume::first_sector_of(5) + 3};
    EXPECT_EQ(
        write(id, some_bytes(4096)),
        (outcome{-EIO, EIO, "do_write_file[N]: cannot write sector to file\n" + WRITE_FAILED}));
}

TEST_F(WriteFile, FatThatCannotBeReadAllocatesNothing) {
    const int id = v.open_new("FILE       ", {5}, 2048);
    v.disk.unreadable = {volume::fat_sector_of(2)};
    const bytes fat = v.fat_copy(0);
    EXPECT_EQ(write(id, {1}), (outcome{-EIO, EIO,
                                       "fat_read_entry[N]: cannot read FAT\n\n"
                                       "fat_free_clus[N]: Invalid cluster value!\n\n"
                                       "do_write_file[N]: cannot allocate cluster\n"
                                       // the undo tries to end the chain again
                                       "fat_write_entry[N]: cannot read FAT\n" +
                                           WRITE_FAILED}));
    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(mounted::record(id).allocated, 2048U);
    EXPECT_EQ(mounted::record(id).last, 5U);
}

TEST_F(WriteFile, FatThatCannotBeWrittenAllocatesNothing) {
    const int id = v.open_new("FILE       ", {5}, 2048);
    v.disk.unwritable = {volume::fat_sector_of(5)};
    const bytes fat = v.fat_copy(0);
    const outcome failed = write(id, {1});
    EXPECT_EQ(failed.result, -EIO);
    EXPECT_EQ(failed.error, EIO);
    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(mounted::record(id).start, 5U);
    EXPECT_EQ(mounted::record(id).last, 5U);
    EXPECT_EQ(mounted::record(id).allocated, 2048U);
    EXPECT_TRUE(data_transfers().empty());
}

// The first of two allocations cannot reach the medium, the second would meet a damaged entry.
TEST_F(WriteFile, FailedWriteOfTheFatIsReportedBeforeTheErrorsOfTheNextSearch) {
    const int id = v.open_new("FILE       ", {5}, 2048);
    sv->last_alloc_clus = 9;
    v.set_link(11, 1);
    v.disk.unwritable = {volume::fat_sector_of(5)};
    const bytes fat = v.fat_copy(0);
    EXPECT_EQ(write(id, some_bytes(2 * 2048)).result, -EIO);
    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(mounted::record(id).last, 5U);
    EXPECT_EQ(mounted::record(id).allocated, 2048U);
    EXPECT_EQ(sv->last_alloc_clus, 9U);
}

// The volume's last cluster is taken, the next one cannot be. The undo cannot put its end mark into
// entry 0 then, but frees the cluster that it can free.
TEST_F(WriteFile, UndoContinuesAfterAnEntryThatCannotBeWritten) {
    const int id = v.open_new("FILE       ", {}, 0);
    const u32 end = volume::last_cluster();
    const bytes fat = v.fat_copy(0);
    sv->last_alloc_clus = end - 1;
    v.disk.unwritable = {volume::fat_sector_of(0)};

    EXPECT_EQ(write(id, some_bytes(2 * 2048)).result, -EIO);

    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(v.link(end), 0U);
    EXPECT_EQ(mounted::record(id).start, end);
    EXPECT_EQ(mounted::record(id).last, 0U);
    EXPECT_EQ(mounted::record(id).allocated, 0U);
    EXPECT_EQ(start_of(mounted::held_entry(id)), end);
    // The last cluster as a hint restarts the search, also of an allocation that fails.
    EXPECT_EQ(sv->last_alloc_clus, 1U);
}

// Of the entry on the medium only a negative result of its read is a failure.
TEST_F(WriteFile, DirectoryEntryThatCannotBeReadLeavesDataAndClusters) {
    const int id = v.open_new("FILE       ", {}, 0);
    const entry_image stored = v.stored_entry(id);
    sv->last_alloc_clus = 9;
    for (const int failure : {-EACCES, -1}) {
        v.disk.unreadable = {mounted::record(id).dentry_sector};
        v.disk.failure_result = failure;
        const u32 size = size_of(mounted::held_entry(id));
        EXPECT_EQ(
            write(id, {'A'}),
            (outcome{-EIO, EIO, "write_file_internal[N]: Failed to read sectors!\n\n" + NO_FILE}));
        EXPECT_EQ(size_of(mounted::held_entry(id)), size + 1);
        EXPECT_EQ(v.stored_entry(id), stored);
    }
    EXPECT_EQ(v.chain_from(10), (std::vector<u32>{10}));
    EXPECT_EQ(start_of(mounted::held_entry(id)), 10U);
    EXPECT_EQ(part_of(v.data_of({10}), 0, 3), (bytes{'A', 'A', 0}));

    v.disk.failure_result = 0;
    EXPECT_EQ(write(id, {'B'}), written(1));
    EXPECT_EQ(v.stored_entry(id), mounted::held_entry(id));
    EXPECT_EQ(size_of(v.stored_entry(id)), 3U);
}

// As after a format with smaller sectors while the file is open.
TEST_F(WriteFile, DirectoryEntryThatIsInNoSectorCannotBeRead) {
    const int id = v.open_new("FILE       ", {}, 0);
    const entry_image stored = v.stored_entry(id);
    mounted::record(id).dentry_offset = sv->sector_size;
    EXPECT_EQ(
        write(id, {'A'}),
        (outcome{-EIO, EIO, "write_file_internal[N]: Failed to read sectors!\n\n" + NO_FILE}));
    mounted::record(id).dentry_offset = 0;
    EXPECT_EQ(v.stored_entry(id), stored);
}

TEST_F(WriteFile, DirectoryEntryThatCannotBeWrittenLeavesDataAndClusters) {
    const int id = v.open_new("FILE       ", {}, 0);
    const entry_image stored = v.stored_entry(id);
    sv->last_alloc_clus = 9;
    v.disk.unwritable = {mounted::record(id).dentry_sector};
    for (const int failure : {-EACCES, 0}) {
        v.disk.failure_result = failure;
        EXPECT_EQ(
            write(id, {'A'}),
            (outcome{-EIO, EIO, "write_file_internal[N]: cannot update metadata\n" + NO_FILE}));
    }
    EXPECT_EQ(v.stored_entry(id), stored);
    EXPECT_EQ(size_of(mounted::held_entry(id)), 2U);
    EXPECT_EQ(mounted::record(id).allocated, 2048U);
    EXPECT_EQ(v.chain_from(10), (std::vector<u32>{10}));
    EXPECT_EQ(part_of(v.data_of({10}), 0, 3), (bytes{'A', 'A', 0}));
}

// ---- no memory --------------------------------------------------------------------------------

TEST_F(WriteFile, ListOfClustersNeedsMemory) {
    const int id = v.open_new("FILE       ", {5}, 2048);
    const bytes fat = v.fat_copy(0);
    transfers();
    const failing_allocation none(0);
    EXPECT_EQ(write(id, some_bytes(1)),
              (outcome{-ENOMEM, ENOMEM,
                       "do_write_file[N]: Memory allocation error!\n\n" + WRITE_FAILED}));
    EXPECT_TRUE(transfers().empty());
    EXPECT_EQ(mounted::record(id).allocated, 2048U);
    EXPECT_EQ(v.fat_copy(0), fat);
}

TEST_F(WriteFile, PartOfASectorWithoutMemoryFreesTheNewClusters) {
    const int id = v.open_new("FILE       ", {5}, 2048);
    const bytes fat = v.fat_copy(0);
    bool is_met = false; // after the list and the sectors of the FAT
    at_every_fault({EVERY_ALLOCATION}, [&](fault_step &step) {
        const outcome o = step.run([&] { return write(id, some_bytes(1)); });
        if (!step.struck()) {
            EXPECT_EQ(o, written(1));
            return;
        }
        EXPECT_LT(o.result, 0);
        if (o.messages.find("cannot allocate memory") != std::string::npos) {
            is_met = true;
            EXPECT_EQ(o.result, -ENOMEM);
            EXPECT_EQ(v.fat_copy(0), fat);
            EXPECT_EQ(mounted::record(id).allocated, 2048U);
            EXPECT_EQ(mounted::record(id).last, 5U);
        }
    });
    EXPECT_TRUE(is_met);
}

// ---- broken chains ----------------------------------------------------------------------------

TEST_F(WriteFile, ChainThatIsTooShortIsReportedWithoutPrefix) {
    const int id = v.open_new("FILE       ", {5, 6}, 4096);
    mounted::record(id).allocated += 2048;
    const bytes fat = v.fat_copy(0);
    EXPECT_EQ(write(id, {1}), (outcome{-EFAULT, EFAULT,
                                       "do_write_file[N]: Failed to get FAT sector!(-14)\n\n"
                                       "access out of cluster chain\n" +
                                           WRITE_FAILED}));
    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(mounted::record(id).allocated, 6144U);
}

TEST_F(WriteFile, ChainThatIsTooShortGetsItsNewClustersTakenBack) {
    const int id = v.open_new("FILE       ", {5, 6}, 4096);
    mounted::record(id).allocated += 2048;
    sv->last_alloc_clus = 9;
    const bytes fat = v.fat_copy(0);
    const bytes data = some_bytes(2048 + 1);
    EXPECT_EQ(write(id, data), (outcome{-EFAULT, EFAULT,
                                        "do_write_file[N]: Failed to get FAT sector!(-14)\n\n"
                                        "access out of cluster chain\n" +
                                            WRITE_FAILED}));
    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(mounted::record(id).allocated, 6144U);
    EXPECT_EQ(mounted::record(id).last, 6U);
    EXPECT_EQ(v.data_of({10}), part_of(data, 0, 2048)); // written before the end was met
}

TEST_F(WriteFile, BrokenLinkIsTheErrorOfTheLookup) {
    const int id = v.open_new("FILE       ", {5, 6, 7}, 6000);
    v.set_link(6, 0);
    EXPECT_EQ(write(id, {1}), (outcome{-EINVAL, EINVAL,
                                       "get_phy_sector[N]: invalid value 0\n"
                                       "do_write_file[N]: Failed to get FAT sector!(-22)\n\n" +
                                           WRITE_FAILED}));
    v.set_link(6, 1);
    EXPECT_EQ(write(id, {1}), (outcome{-EINVAL, EINVAL,
                                       "fat_read_clus[N]: Invalid cluster!\n\n"
                                       "get_phy_sector[N]: invalid value -22\n"
                                       "do_write_file[N]: Failed to get FAT sector!(-22)\n\n" +
                                           WRITE_FAILED}));
}

// The cluster after a sector is looked up before the sector is written, and its errors are printed
// after those of the sector.
TEST_F(WriteFile, LookupPastASectorThatCannotBeWrittenIsNotReported) {
    const int id = v.open_new("FILE       ", {5, 6}, 0);
    v.set_link(5, 1);
    mounted::record(id).allocated = 4096;
    v.disk.unwritable = {volume::first_sector_of(5) + 3};
    EXPECT_EQ(
        write(id, some_bytes(4096)),
        (outcome{-EIO, EIO, "do_write_file[N]: cannot write sector to file\n" + WRITE_FAILED}));
    v.disk.unwritable = {};
    EXPECT_EQ(write(id, some_bytes(4096)),
              (outcome{-EINVAL, EINVAL,
                       "fat_read_clus[N]: Invalid cluster!\n\n"
                       "get_phy_sector[N]: invalid value -22\n"
                       "do_write_file[N]: Failed to get FAT sector!(-22)\n\n" +
                           WRITE_FAILED}));
}

// A search for a free cluster that meets a damaged entry in its second part returns number 0, with
// which a lookup would find the root directory.
TEST_F(WriteFile, SearchThatComesToNoClusterLeavesTheRootDirectory) {
    const int id = v.open_new("FILE       ", {}, 0);
    const u32 end = volume::last_cluster();
    sv->last_alloc_clus = end - 1;
    v.set_link(end, volume::end_mark());
    v.set_link(2, 1);
    const u32 root_bytes = (sv->data_start - sv->rdir_start) * sv->sector_size;
    const bytes root = v.disk.peek(u64{sv->rdir_start} * sv->sector_size, root_bytes);
    EXPECT_EQ(write(id, some_bytes(5)),
              (outcome{-EINVAL, EINVAL,
                       "fat_read_clus[N]: Invalid cluster!\n\n"
                       "fat_free_clus[N]: Invalid cluster value!\n\n"
                       "do_write_file[N]: Failed to get FAT sector!(-22)\n\n" +
                           WRITE_FAILED}));
    EXPECT_EQ(v.disk.peek(u64{sv->rdir_start} * sv->sector_size, root_bytes), root);
}

TEST_F(WriteFile, RecordedSizeBeyondTheChainGetsTheClustersInBetween) {
    const int id = v.open_new("FILE       ", {5}, 5000);
    sv->last_alloc_clus = 9;
    EXPECT_EQ(write(id, some_bytes(10)), written(10));
    EXPECT_EQ(v.chain_from(5), (std::vector<u32>{5, 10, 11}));
    EXPECT_EQ(size_of(v.stored_entry(id)), 5010U);
    EXPECT_EQ(part_of(v.data_of({11}), 5000 - 4096, 10), some_bytes(10));
}

// The missing bytes are a signed number of 32 bits: a size of 2 GiB and more beyond the chain
// allocates nothing, and the lookup fails.
TEST_F(WriteFile, RecordedSizeFarBeyondTheChainFailsInTheLookup) {
    const int id = v.open_new("FILE       ", {5}, 0x90000000);
    const bytes fat = v.fat_copy(0);
    EXPECT_EQ(write(id, {1}).result, -EINVAL);
    EXPECT_EQ(v.fat_copy(0), fat);
    EXPECT_EQ(mounted::record(id).allocated, 2048U);
}

// ---- limits -----------------------------------------------------------------------------------

namespace {

using HugeFile = huge_file_test;

const outcome TOO_LARGE = {-EFBIG, EFBIG, WRITE_FAILED};

} // namespace

TEST_F(HugeFile, ChainEndsOneClusterBefore4GiB) {
    const int id = open(UNIT * CLUSTERS - 2);
    EXPECT_EQ(mounted::record(id).allocated, UNIT * CLUSTERS);
    const bytes fat = v.fat_copy(0);
    const entry_image stored = v.stored_entry(id);
    v.disk.log.clear();
    EXPECT_EQ(write(id, some_bytes(3)), TOO_LARGE);
    EXPECT_EQ(write(id, some_bytes(UNIT)), TOO_LARGE);
    EXPECT_TRUE(v.disk.log.empty());
    EXPECT_EQ(moved(), 0U);
    EXPECT_EQ(mounted::held_entry(id), stored);

    EXPECT_EQ(write(id, some_bytes(2)), written(2));
    EXPECT_EQ(size_of(v.stored_entry(id)), UNIT * CLUSTERS);
    EXPECT_EQ(write(id, {1}), TOO_LARGE);
    EXPECT_EQ(v.fat_copy(0), fat);
}

TEST_F(HugeFile, LastClusterBelow4GiBIsAllocated) {
    v.set_link(FIRST + CLUSTERS - 2, 0xFFFF);
    v.set_link(FIRST + CLUSTERS - 1, 0);
    const int id = open(UNIT * (CLUSTERS - 1));
    EXPECT_EQ(write(id, some_bytes(UNIT)), written(UNIT));
    EXPECT_EQ(mounted::record(id).allocated, UNIT * CLUSTERS);
    EXPECT_EQ(size_of(v.stored_entry(id)), UNIT * CLUSTERS);
    EXPECT_EQ(moved(), 64U);
}

TEST_F(HugeFile, SizeMayNotPass32Bits) {
    const int id = open(0xFFFFFFF0);
    EXPECT_EQ(write(id, some_bytes(16)), TOO_LARGE);
    EXPECT_EQ(write(id, some_bytes(17)), TOO_LARGE);
    EXPECT_EQ(moved(), 0U);
}

// The bytes that are missing are a signed number of 32 bits: where 2 GiB and more are to spare,
// they come out as so many missing that the chain would pass 4 GiB.
TEST_F(HugeFile, ClustersToSpareOf2GiBAndMoreAreTakenForMissingOnes) {
    v.set_link(FIRST + 0x90000000 / UNIT - 1, 0xFFFF);
    const int id = open(0x10000000);
    ASSERT_EQ(mounted::record(id).allocated, 0x90000000);
    EXPECT_EQ(write(id, {1}).messages, ""); // 2 GiB less one byte left
    const int other = open(0x10000000 - 2);
    EXPECT_EQ(write(other, {1}), TOO_LARGE);
    EXPECT_EQ(moved(), 1U);
}

TEST_F(HugeFile, CountUpToIntMaxIsWrittenAtOnce) {
    const int id = open(0);
    const no_memory data(std::size_t{INT_MAX} + 1);
    EXPECT_EQ(write(id, data.at, INT_MAX), written(INT_MAX));
    EXPECT_EQ(size_of(v.stored_entry(id)), u32{INT_MAX});
    EXPECT_EQ(moved(), (u64{INT_MAX} + 1) / 4096);
}

TEST_F(HugeFile, CountAboveIntMaxIsRefused) {
    const int id = open(0);
    const entry_image stored = v.stored_entry(id);
    const no_memory data(0xFFFFFFFF);
    for (const u32 count : {u32{INT_MAX} + 1, 0xFFFFF000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(write(id, data.at, count), TOO_LARGE);
    }
    EXPECT_EQ(moved(), 0U);
    EXPECT_EQ(v.stored_entry(id), stored);
    // Errors of the id come first.
    EXPECT_EQ(write(7, data.at, u32{INT_MAX} + 1).messages, "not open file id 7\n" + NO_FILE);
}

// ---- cost -------------------------------------------------------------------------------------

TEST_P(WriteAnyShape, NeighbouringSectorsTravelTogether) {
    const int id = v.open_new("FILE       ", {}, 0);
    sv->last_alloc_clus = 9;
    transfers();
    const u32 clusters = 20;
    const u32 count = clusters * mounted::cluster_bytes();
    EXPECT_EQ(write(id, some_bytes(count)), written(static_cast<int>(count)));
    EXPECT_EQ(data_transfers(), (std::vector<transfer>{{true, volume::first_sector_of(10),
                                                        clusters * sv->sec_per_clus}}));
}

TEST_P(WriteAnyShape, EachGapBetweenClustersTakesOneMoreTransfer) {
    const int id = v.open_new("FILE       ", {}, 0);
    sv->last_alloc_clus = 9;
    v.chain({12});
    v.chain({15, 16});
    transfers();
    const u32 spc = sv->sec_per_clus;
    EXPECT_EQ(write(id, some_bytes(std::size_t{6} * mounted::cluster_bytes())).messages, "");
    EXPECT_EQ(data_transfers(),
              (std::vector<transfer>{{true, volume::first_sector_of(10), 2 * spc},
                                     {true, volume::first_sector_of(13), 2 * spc},
                                     {true, volume::first_sector_of(17), 2 * spc}}));
}

TEST_F(WriteFat32, LargeWriteReadsAndWritesEachFatSectorAFewTimes) {
    for (const u32 clusters : {500U, 1000U, 4000U}) {
        const int id = v.open_new("FILE       ", {}, 0);
        v.disk.log.clear();
        ASSERT_EQ(write(id, some_bytes(std::size_t{clusters} * 512)).messages, "");
        const u64 fat_sectors = clusters / 128 + 2;
        EXPECT_LE(v.traffic(), clusters + 6 * fat_sectors + 4);
    }
}

// Neighbours in the chain lie in different FAT sectors, which is the most that a chain can cost.
TEST_F(WriteFat32, ScatteredClustersCostTimeInProportionToTheirNumber) {
    std::set<u32> left_free;
    for (u32 i = 0; i < 2000; i++) {
        left_free.insert(10 + i * 33);
    }
    v.fill_but(left_free);
    for (const u32 clusters : {300U, 1500U}) {
        const int id = v.open_new("FILE       ", {}, 0);
        v.disk.log.clear();
        ASSERT_EQ(write(id, some_bytes(std::size_t{clusters} * 512)).messages, "");
        EXPECT_LE(v.traffic(), u64{4} * clusters);
    }
}

TEST_F(WriteFile, ByteAfterALongChainFollowsItOnce) {
    std::vector<u32> clusters;
    for (u32 i = 0; i < 2000; i++) {
        clusters.push_back(10 + i);
    }
    const int id = v.open_new("FILE       ", clusters, 2000 * 2048 - 1);
    transfers();
    EXPECT_EQ(write(id, some_bytes(2)), written(2));
    EXPECT_LE(v.disk.log.size(), 2000U / 256 + 12);
}

TEST_F(WriteFile, MemoryIsAWindowAndOneNumberForEachNewCluster) {
    const int id = v.open_new("FILE       ", {}, 0);
    const bytes data = some_bytes(2000 * 2048 + 1);
    const allocation_meter meter;
    write(id, data);
    // The FAT sectors that were read are doubled at every step.
    EXPECT_LE(meter.peak_bytes(), 2001U * 4 + 2 * (2001U * 2) + 4 * 512);
    EXPECT_EQ(meter.live_blocks(), 0);
}
