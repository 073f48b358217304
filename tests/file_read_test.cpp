// Reading files and moving their position, and the short names of open entries.

#include "tests/support/faults.h"
#include "tests/support/file_fixture.h"
#include "tests/support/huge_file.h"

using namespace fat;
using namespace testing_support;

namespace {

class file_read_test : public file_test {
protected:
    using file_test::file_test;

    outcome read(int id, void *space, u32 count) {
        messages.clear();
        errno = UNTOUCHED_ERRNO;
        const int result = fat_read_file(id, space, count);
        return {result, errno, messages.text()};
    }
    // Reads into a block of just that size.
    outcome read(int id, u32 count) {
        buffer = bytes(count, UNREAD);
        buffer.shrink_to_fit();
        return read(id, buffer.data(), count);
    }
    outcome seek(int id, s64 offset, int whence) {
        messages.clear();
        errno = UNTOUCHED_ERRNO;
        const s64 result = fat_lseek(id, offset, whence);
        return {result, errno, messages.text()};
    }
    outcome dump(int id) {
        messages.clear();
        errno = UNTOUCHED_ERRNO;
        const int result = fat_dump_entry(id, name);
        return {result, errno, messages.text()};
    }
    static outcome done(s64 result) {
        return {result, UNTOUCHED_ERRNO, ""};
    }
    static u64 &position(int id) {
        return mounted::record(id).pos;
    }
    // A file of 10 bytes.
    int open_ten() {
        const int id = v.open_new("TEN     TXT", {5}, 10);
        v.set_data({5}, some_bytes(mounted::cluster_bytes()));
        v.disk.log.clear();
        return id;
    }

    static constexpr u8 UNREAD = 0xCC;
    bytes buffer;
    char name[13] = "____________";
};

using ReadFile = file_read_test;
using SeekFile = file_read_test;
using DumpEntry = file_read_test;
using HugeFileRead = huge_file_test;

class ReadAnyShape : public file_read_test, public testing::WithParamInterface<volume_shape> {
protected:
    ReadAnyShape() : file_read_test(GetParam()) {}
};
INSTANTIATE_TEST_SUITE_P(Shapes, ReadAnyShape, testing::ValuesIn(many_shapes()), shape_name);

// The root area has fewer sectors than a cluster.
class ReadBySmallRoot : public file_read_test {
protected:
    ReadBySmallRoot() : file_read_test({.fat_type = 16, .sec_per_clus = 8, .root_entries = 32}) {}
};

class ReadFat32 : public file_read_test {
protected:
    ReadFat32() : file_read_test({.fat_type = 32}) {}
};

// The last messages of a failed read.
const std::string FAILED = "fat_read_file[N]: Check here!\n\n";
const std::string NO_LOOKUP = "do_read_file[N]: Failed to get FAT sector!\n\n";
const outcome BEYOND_THE_END = {
    -EINVAL, EINVAL, "read_file_internal[N]: file position beyonds the file size!\n\n" + FAILED};

} // namespace

// ---- refusals ---------------------------------------------------------------------------------

TEST_F(ReadFile, DirectoriesAndRecordsWithoutImageAreRefused) {
    const int dir = v.open_new("DIR        ", {5}, 0, DIRECTORY);
    const int to_root = v.open(v.top.append(short_entry("..         ", DIRECTORY, 0)));
    ASSERT_EQ(mounted::record(to_root).dentry, nullptr);
    transfers();
    for (const int id : {0, dir, to_root}) {
        EXPECT_EQ(read(id, 1), (outcome{-EISDIR, EISDIR, "not file\n\n" + FAILED}));
    }
    EXPECT_TRUE(transfers().empty());
}

// ---- reading ----------------------------------------------------------------------------------

TEST_F(ReadFile, EndsAtTheEndOfTheFile) {
    const int id = open_ten();
    EXPECT_EQ(read(id, 100), done(10));
    EXPECT_EQ(buffer, joined(some_bytes(10), bytes(90, UNREAD)));
    EXPECT_EQ(position(id), 10U);

    transfers();
    EXPECT_EQ(read(id, 100), done(0));
    EXPECT_EQ(buffer, bytes(100, UNREAD));
    EXPECT_EQ(position(id), 10U);
    EXPECT_TRUE(transfers().empty());
}

TEST_F(ReadFile, EmptyFileReadsAsNothing) {
    const int id = v.open_new("EMPTY      ", {}, 0);
    transfers();
    EXPECT_EQ(read(id, 100), done(0));
    EXPECT_TRUE(transfers().empty());
}

TEST_F(ReadFile, ContinuesAtTheEndOfTheLastRead) {
    const int id = open_ten();
    EXPECT_EQ(read(id, 4), done(4));
    EXPECT_EQ(buffer, part_of(some_bytes(10), 0, 4));
    EXPECT_EQ(read(id, 3), done(3));
    EXPECT_EQ(buffer, part_of(some_bytes(10), 4, 3));
    EXPECT_EQ(read(id, 3), done(3));
    EXPECT_EQ(part_of(buffer, 0, 3), part_of(some_bytes(10), 7, 3));
    EXPECT_EQ(position(id), 10U);
}

TEST_F(ReadFile, TwentyBytesAtOffset500TouchTwoSectors) {
    const int id = v.open_new("FILE       ", {5}, 2000);
    v.set_data({5}, some_bytes(2048));
    position(id) = 500;
    transfers();
    EXPECT_EQ(read(id, 20), done(20));
    EXPECT_EQ(buffer, part_of(some_bytes(2048), 500, 20));
    u32 sectors = 0;
    for (const transfer &t : data_transfers()) {
        sectors += t.count;
    }
    EXPECT_EQ(sectors, 2U);
}

TEST_F(ReadFile, SizeIsThatOfTheIdsOwnCopy) {
    const int id = open_ten();
    v.top.put(0, short_entry("TEN     TXT", ARCHIVE, 5, 500));
    EXPECT_EQ(read(id, 100), done(10));
    mounted::record(id).dentry[28] = 20;
    EXPECT_EQ(read(id, 100), done(10));
    EXPECT_EQ(part_of(buffer, 0, 10), part_of(some_bytes(20), 10, 10));
}

TEST_F(ReadFile, WritingDoesNotMoveThePosition) {
    const int id = open_ten();
    EXPECT_EQ(read(id, 4), done(4));
    EXPECT_EQ(write(id, {'X'}), written(1));
    EXPECT_EQ(read(id, 100), done(7));
    EXPECT_EQ(part_of(buffer, 0, 7), joined(part_of(some_bytes(10), 4, 6), {'X'}));
}

TEST_P(ReadAnyShape, BytesAreThoseOfTheChainInItsOrder) {
    const std::vector<u32> clusters = {9, 10, 11, 5, 20, 19, volume::last_cluster(), 3};
    const u32 unit = mounted::cluster_bytes();
    const bytes content = some_bytes(clusters.size() * unit);
    const u32 size = static_cast<u32>(content.size()) - 3;
    const int id = v.open_new("FILE       ", clusters, size);
    v.set_data(clusters, content);
    for (const auto &[at, count] :
         std::initializer_list<std::pair<u32, u32>>{{0, size},
                                                    {1, size},
                                                    {unit - 1, 2},
                                                    {unit, unit},
                                                    {3 * unit - 5, 2 * unit + 10},
                                                    {size - 1, 1},
                                                    {sv->sector_size - 1, 2},
                                                    {7 * unit, unit}}) {
        SCOPED_TRACE(std::to_string(count) + " at " + std::to_string(at));
        const u32 expected = std::min(count, size - at);
        position(id) = at;
        EXPECT_EQ(read(id, count), done(expected));
        EXPECT_EQ(part_of(buffer, 0, expected), part_of(content, at, expected));
        EXPECT_EQ(part_of(buffer, expected, count - expected), bytes(count - expected, UNREAD));
        EXPECT_EQ(position(id), at + expected);
    }
}

TEST_P(ReadAnyShape, BytesReadInOddPieces) {
    const std::vector<u32> clusters = {9, 10, 5, 7, 8};
    const u32 unit = mounted::cluster_bytes();
    const bytes content = some_bytes(clusters.size() * unit);
    const int id = v.open_new("FILE       ", clusters, static_cast<u32>(content.size()));
    v.set_data(clusters, content);
    bytes all;
    u32 piece = 1;
    for (s64 count = 1; count > 0;) {
        const outcome o = read(id, piece);
        ASSERT_EQ(o.messages, "");
        count = o.result;
        all = joined(all, part_of(buffer, 0, static_cast<std::size_t>(count)));
        piece = piece * 3 + 1;
    }
    EXPECT_EQ(all, content);
}

// ---- failures ---------------------------------------------------------------------------------

TEST_F(ReadFile, FailedReadMovesNothing) {
    const std::vector<u32> clusters = {5, 7};
    const int id = v.open_new("FILE       ", clusters, 4096);
    v.set_data(clusters, some_bytes(4096));
    for (const int failure : {-EACCES, 0}) {
        v.disk.failure_result = failure;
        for (const auto &[sector, at, count] : std::initializer_list<std::tuple<u32, u32, u32>>{
                 {0, 0, 10}, {0, 0, 4096}, {3, 100, 4000}, {7, 2048, 2048}}) {
            SCOPED_TRACE(sector);
            v.disk.unreadable = {volume::first_sector_of(clusters[sector / 4]) + sector % 4};
            position(id) = at;
            EXPECT_EQ(read(id, count),
                      (outcome{-EIO, EIO, "do_read_file[N]: cannot read sector\n" + FAILED}));
            EXPECT_EQ(position(id), at);
        }
    }
}

TEST_F(ReadFile, TransferOfTooFewSectorsIsAFailure) {
    const int id = v.open_new("FILE       ", {5, 6}, 4096);
    v.disk.unreadable = {volume::first_sector_of(6)};
    v.disk.failure_result = 2;
    EXPECT_EQ(read(id, 4096),
              (outcome{-EIO, EIO, "do_read_file[N]: cannot read sector\n" + FAILED}));
    EXPECT_EQ(position(id), 0U);
}

TEST_F(ReadFile, ChainThatIsTooShortIsReportedWithPrefix) {
    const int id = v.open_new("FILE       ", {5, 6}, 5000);
    const outcome too_short = {
        -EFAULT, EFAULT, NO_LOOKUP + "do_read_file[N]: access out of cluster chain\n" + FAILED};
    EXPECT_EQ(read(id, 5000), too_short);
    EXPECT_EQ(position(id), 0U);
    position(id) = 4096;
    EXPECT_EQ(read(id, 1), too_short);
    position(id) = 4000;
    EXPECT_EQ(read(id, 96), done(96));
}

TEST_F(ReadFile, BrokenLinkIsTheErrorOfTheLookup) {
    const int id = v.open_new("FILE       ", {5, 6, 7}, 6000);
    v.set_link(6, 0);
    EXPECT_EQ(
        read(id, 6000),
        (outcome{-EINVAL, EINVAL, "get_phy_sector[N]: invalid value 0\n" + NO_LOOKUP + FAILED}));
    v.set_link(6, volume::bad_mark());
    EXPECT_EQ(read(id, 6000), (outcome{-EINVAL, EINVAL,
                                       "fat_read_clus[N]: Invalid cluster!\n\n"
                                       "get_phy_sector[N]: invalid value -22\n" +
                                           NO_LOOKUP + FAILED}));
    EXPECT_EQ(read(id, 4096), done(4096));
}

TEST_F(ReadFile, UnreadableFatIsAFailedLookup) {
    const int id = v.open_new("FILE       ", {5, 6}, 4096);
    v.disk.unreadable = {volume::fat_sector_of(5)};
    EXPECT_EQ(read(id, 4096), (outcome{-EINVAL, EINVAL,
                                       "fat_read_entry[N]: cannot read FAT\n\n"
                                       "get_phy_sector[N]: invalid value -5\n" +
                                           NO_LOOKUP + FAILED}));
    EXPECT_EQ(read(id, 2048), done(2048));
}

// The cluster after a sector is looked up before the sector is read, and its errors are printed
// after those of the sector.
TEST_F(ReadFile, LookupPastASectorThatCannotBeReadIsNotReported) {
    const int id = v.open_new("FILE       ", {5, 6}, 4096);
    v.disk.unreadable = {volume::fat_sector_of(5), volume::first_sector_of(5) + 3};
    EXPECT_EQ(read(id, 4096),
              (outcome{-EIO, EIO, "do_read_file[N]: cannot read sector\n" + FAILED}));
    v.disk.unreadable = {volume::first_sector_of(5) + 3};
    v.set_link(5, 1);
    EXPECT_EQ(read(id, 4096),
              (outcome{-EIO, EIO, "do_read_file[N]: cannot read sector\n" + FAILED}));
    v.disk.unreadable = {};
    EXPECT_EQ(read(id, 4096), (outcome{-EINVAL, EINVAL,
                                       "fat_read_clus[N]: Invalid cluster!\n\n"
                                       "get_phy_sector[N]: invalid value -22\n" +
                                           NO_LOOKUP + FAILED}));
}

// Their start is in the root area, which has no clusters.
TEST_F(ReadBySmallRoot, FileWithoutAClusterEndsWithTheRootArea) {
    const int id = v.open_new("FILE       ", {}, 4096);
    ASSERT_EQ(sv->data_start - sv->rdir_start, 2U);
    EXPECT_EQ(read(id, 1024), done(1024));
    EXPECT_EQ(buffer, v.disk.peek(sv->rdir_start * 512, 1024));
    position(id) = 0;
    v.disk.log.clear();
    EXPECT_EQ(read(id, 4096),
              (outcome{-EFAULT, EFAULT,
                       "get_phy_sector[N]: Invalid sector number in Root dir\n\n" + NO_LOOKUP +
                           "do_read_file[N]: access out of cluster chain\n" + FAILED}));
    EXPECT_EQ(v.disk.log, (std::vector<transfer>{{false, sv->rdir_start, 2}}));
}

// Of a chain with a cycle, only the part before the return is reliable.
TEST_F(ReadFile, ChainInACycleEnds) {
    const int id = v.open_new("FILE       ", {5, 6, 7}, 0x40000000);
    v.set_data({5, 6, 7}, some_bytes(3 * 2048));
    v.set_link(7, 6);
    EXPECT_EQ(read(id, 3 * 2048), done(3 * 2048));
    EXPECT_EQ(buffer, some_bytes(3 * 2048));
    position(id) = 0x3FFFFFFF;
    transfers();
    const outcome lost = read(id, 1);
    EXPECT_EQ(lost.result, -EINVAL);
    EXPECT_LE(v.disk.log.size(), 4U);
}

TEST_F(ReadFile, SectorBufferIsTheOnlyMemory) {
    const int id = v.open_new("FILE       ", {5, 6}, 4096);
    v.set_data({5, 6}, some_bytes(4096));
    bytes space(4096);
    {
        const failing_allocation none(0);
        EXPECT_EQ(read(id, space.data(), 4096),
                  (outcome{-ENOMEM, ENOMEM, "do_read_file[N]: cannot allocate memory\n" + FAILED}));
    }
    EXPECT_EQ(position(id), 0U);
    const allocation_meter meter;
    fat_read_file(id, space.data(), 4096);
    EXPECT_LE(meter.peak_bytes(), 3U * 512);
    EXPECT_EQ(meter.live_blocks(), 0);
}

// ---- a record that its chain does not bear out -------------------------------------------------

// No cluster number means the fixed root directory on FAT16.
TEST_F(ReadFile, SizeWithoutAChainReadsTheRootAreaOfFat16) {
    const int id = v.open(v.top.append(short_entry("FILE       ", ARCHIVE, 0, 40)));
    EXPECT_EQ(read(id, 40), done(40));
    EXPECT_EQ(buffer, v.disk.peek(u64{sv->rdir_start} * 512, 40));
}

TEST_F(ReadFat32, SizeWithoutAChainIsAFailedLookup) {
    const int id = v.open(v.top.append(short_entry("FILE       ", ARCHIVE, 0, 40)));
    EXPECT_EQ(read(id, 40), (outcome{-EINVAL, EINVAL,
                                     "get_phy_sector[N]: invalid start cluster number 0\n" +
                                         NO_LOOKUP + FAILED}));
}

// ---- positions --------------------------------------------------------------------------------

TEST_F(SeekFile, MovesFromTheBeginningThePositionAndTheEnd) {
    const int id = open_ten();
    EXPECT_EQ(seek(id, 4, 0), done(4));
    EXPECT_EQ(seek(id, 3, 1), done(7));
    EXPECT_EQ(seek(id, -5, 1), done(2));
    EXPECT_EQ(seek(id, -3, 2), done(7));
    EXPECT_EQ(seek(id, 1, 1), done(8));
    EXPECT_EQ(position(id), 8U);
    EXPECT_EQ(seek(id, 0, 2), done(10));
    EXPECT_EQ(seek(id, 0, 0), done(0));
    EXPECT_TRUE(transfers().empty());
}

TEST_F(SeekFile, PositionPastTheEndIsStoredAndFailsTheNextRead) {
    const int id = open_ten();
    EXPECT_EQ(seek(id, 20, 0), done(20));
    EXPECT_EQ(read(id, 1), BEYOND_THE_END);
    EXPECT_EQ(position(id), 20U);
    EXPECT_EQ(seek(id, 1, 2), done(11));
    EXPECT_EQ(read(id, 1), BEYOND_THE_END);
    EXPECT_EQ(seek(id, 0x100000000, 2), done(0x10000000A));
    EXPECT_EQ(read(id, 1), BEYOND_THE_END);
    EXPECT_EQ(seek(id, INT64_MAX, 0), done(INT64_MAX));
    EXPECT_EQ(read(id, 1), BEYOND_THE_END);
    EXPECT_TRUE(transfers().empty());
}

TEST_F(SeekFile, SumsAreModulo2ToThe64) {
    const int id = open_ten();
    EXPECT_EQ(seek(id, 10, 0), done(10));
    EXPECT_EQ(seek(id, -20, 1), done(-10));
    EXPECT_EQ(position(id), ~u64{0} - 9);
    EXPECT_EQ(seek(id, 12, 1), done(2));
    EXPECT_EQ(seek(id, INT64_MIN, 0), done(INT64_MIN));
    EXPECT_EQ(position(id), u64{1} << 63);
    EXPECT_EQ(seek(id, INT64_MIN, 1), done(0));
    EXPECT_EQ(seek(id, INT64_MAX, 2), done(INT64_MIN + 9));
    EXPECT_EQ(seek(id, -11, 2), done(-1));
    EXPECT_EQ(position(id), ~u64{0});
}

// Compared as signed numbers they are before every file, but no lookup leads there.
TEST_F(SeekFile, PositionsOf2ToThe63AndMoreFailInTheLookup) {
    const int id = open_ten();
    for (const u64 pos : {u64{1} << 63, (u64{1} << 63) + 5, ~u64{0}, ~u64{0} - 9, ~u64{0} << 32}) {
        for (const u32 count : {1U, 5U, 10U, 100U, 600U}) {
            SCOPED_TRACE(std::to_string(count) + " at " + std::to_string(pos));
            position(id) = pos;
            EXPECT_EQ(read(id, count), (outcome{-EINVAL, EINVAL, NO_LOOKUP + FAILED}));
            EXPECT_EQ(position(id), pos);
            EXPECT_EQ(buffer, bytes(count, UNREAD));
        }
    }
}

TEST_F(SeekFile, UnknownCommandLeavesThePosition) {
    const int id = open_ten();
    seek(id, 4, 0);
    for (const int whence : {3, -1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(seek(id, 1, whence),
                  (outcome{-EINVAL, UNTOUCHED_ERRNO, "fat_lseek[N]: unknown seek command!\n\n"}));
        EXPECT_EQ(position(id), 4U);
    }
}

TEST_F(SeekFile, DirectoriesAreRefusedWithAnyCommand) {
    const int dir = v.open_new("DIR        ", {5}, 0, DIRECTORY);
    const int to_root = v.open(v.top.append(short_entry("..         ", DIRECTORY, 0)));
    for (const int id : {0, dir, to_root}) {
        for (const int whence : {0, 1, 2, 3, -1}) {
            EXPECT_EQ(seek(id, 1, whence),
                      (outcome{-EISDIR, UNTOUCHED_ERRNO, "fat_lseek[N]: is directory!\n\n"}));
        }
        EXPECT_EQ(position(id), 0U);
    }
}

TEST_F(SeekFile, DirectoryThatWasRemovedSeeksAsFile) {
    const int id = v.open_new("DIR        ", {5}, 0, DIRECTORY);
    for (const int first : {0x00, 0xE5}) {
        mounted::record(id).dentry[0] = static_cast<u8>(first);
        EXPECT_EQ(seek(id, first, 0), done(first));
    }
}

TEST_F(SeekFile, OpeningAgainBeginsAtTheBeginning) {
    const int id = open_ten();
    seek(id, 4, 0);
    const int again = v.open(0);
    EXPECT_EQ(position(again), 0U);
    EXPECT_EQ(position(id), 4U);
}

// ---- the inner calls --------------------------------------------------------------------------

TEST_F(ReadFile, PositionBeyond4GiBIsLookedUpByItsLow32Bits) {
    const int id = open_ten();
    bytes ten(10);
    u64 pos = (u64{3} << 32) + 510;
    EXPECT_EQ(do_read_file(&mounted::record(id), ten.data(), 10, &pos), 10);
    EXPECT_EQ(pos, (u64{3} << 32) + 520);
    EXPECT_EQ(ten, part_of(some_bytes(2048), 510, 10));
    EXPECT_EQ(position(id), 0U);
}

TEST_F(ReadFile, ExactCountIsReadWithAnySize) {
    const int id = open_ten();
    bytes space(600);
    u64 pos = 0;
    EXPECT_EQ(do_read_file(&mounted::record(id), space.data(), 600, &pos), 600);
    EXPECT_EQ(space, part_of(some_bytes(2048), 0, 600));
    pos = 2048 - 5;
    EXPECT_EQ(do_read_file(&mounted::record(id), space.data(), 6, &pos), -EFAULT);
    EXPECT_EQ(pos, 2043U);
    pos = u64{1} << 63;
    messages.clear();
    EXPECT_EQ(do_read_file(&mounted::record(id), space.data(), 6, &pos), -EINVAL);
    EXPECT_EQ(messages.text(), NO_LOOKUP);
    EXPECT_EQ(pos, u64{1} << 63);
}

TEST_F(ReadFile, InternalCallReadsARecordOfItsOwn) {
    oentry record = mounted::record(open_ten());
    record.pos = 3;
    bytes space(20);
    EXPECT_EQ(read_file_internal(&record, space.data(), 20), 7);
    EXPECT_EQ(record.pos, 10U);
    EXPECT_EQ(read_file_internal(&record, space.data(), 20), 0);
    record.pos = 11;
    EXPECT_EQ(read_file_internal(&record, space.data(), 20), -EINVAL);
    EXPECT_EQ(messages.text(), "read_file_internal[N]: file position beyonds the file size!\n\n");
}

// ---- limits -----------------------------------------------------------------------------------

TEST_F(HugeFileRead, ResultEndsAtIntMax) {
    const int id = open(UNIT * CLUSTERS);
    const no_memory space(0xFFFFFFFF);
    errno = UNTOUCHED_ERRNO;
    EXPECT_EQ(fat_read_file(id, space.at, 0xFFFFFFFF), INT_MAX);
    EXPECT_EQ(mounted::record(id).pos, u64{INT_MAX});
    EXPECT_EQ(moved(), (u64{INT_MAX} + 1) / 4096);
    EXPECT_EQ(fat_read_file(id, space.at, 0xFFFFFFFF), static_cast<int>(UNIT * CLUSTERS - INT_MAX));
    EXPECT_EQ(mounted::record(id).pos, u64{UNIT * CLUSTERS});
    EXPECT_EQ(fat_read_file(id, space.at, 0xFFFFFFFF), 0);
    EXPECT_EQ(errno, UNTOUCHED_ERRNO);
    EXPECT_EQ(messages.text(), "");
}

TEST_F(HugeFileRead, LastBytesOfAFileOfNearly4GiB) {
    const int id = open(UNIT * CLUSTERS - 1);
    EXPECT_EQ(fat_lseek(id, -10, 2), s64{UNIT * CLUSTERS} - 11);
    bytes space(100);
    EXPECT_EQ(fat_read_file(id, space.data(), 100), 10);
    EXPECT_EQ(fat_lseek(id, 0, 1), s64{UNIT * CLUSTERS} - 1);
    EXPECT_EQ(fat_read_file(id, space.data(), 100), 0);
}

// ---- short names ------------------------------------------------------------------------------

TEST_F(DumpEntry, PaddedNameWithoutItsDot) {
    const int id = v.open_new("README  TXT", {}, 0);
    transfers();
    EXPECT_EQ(dump(id), done(0));
    EXPECT_EQ(std::string(name, 13), std::string("README  TXT\0\0", 13));
    EXPECT_TRUE(transfers().empty());
}

TEST_F(DumpEntry, DirectoriesAndRemovedEntriesHaveNames) {
    const int dir = v.open_new("DIR        ", {5}, 0, DIRECTORY);
    EXPECT_EQ(dump(dir), done(0));
    EXPECT_STREQ(name, "DIR        ");
    mounted::record(dir).dentry[0] = 0xE5;
    EXPECT_EQ(dump(dir), done(0));
    EXPECT_STREQ(name, "\xE5IR        ");
}

TEST_F(DumpEntry, RecordWithoutImageIsRefused) {
    const int to_root = v.open(v.top.append(short_entry("..         ", DIRECTORY, 0)));
    EXPECT_EQ(dump(to_root), (outcome{-EBADF, UNTOUCHED_ERRNO,
                                      "fat_dump_entry[N]: Failed to get file entry!\n\n"}));
    EXPECT_STREQ(name, "____________");
}

// ---- cost -------------------------------------------------------------------------------------

TEST_P(ReadAnyShape, NeighbouringSectorsTravelTogether) {
    std::vector<u32> clusters;
    for (u32 i = 0; i < 20; i++) {
        clusters.push_back(100 + i);
    }
    const u32 count = 20 * mounted::cluster_bytes();
    const int id = v.open_new("FILE       ", clusters, count);
    transfers();
    EXPECT_EQ(read(id, count), done(count));
    const transfer all = {false, volume::first_sector_of(100), 20 * sv->sec_per_clus};
    EXPECT_EQ(data_transfers(), (std::vector<transfer>{all}));
}

TEST_P(ReadAnyShape, PartsOfSectorsAtBothEndsTakeOneTransferEach) {
    const u32 unit = mounted::cluster_bytes();
    const int id = v.open_new("FILE       ", {100, 101, 102, 200}, 4 * unit);
    position(id) = 1;
    transfers();
    EXPECT_EQ(read(id, 4 * unit - 2), done(4 * unit - 2));
    EXPECT_LE(data_transfers().size(), 4U);
}

TEST_F(ReadFat32, LongReadFollowsTheChainOnce) {
    for (const u32 clusters : {500U, 1000U, 4000U}) {
        std::vector<u32> chain;
        for (u32 i = 0; i < clusters; i++) {
            chain.push_back(1000 + i);
        }
        const int id = v.open_new("FILE       ", chain, clusters * 512);
        v.disk.log.clear();
        ASSERT_EQ(read(id, clusters * 512), done(clusters * 512));
        EXPECT_LE(v.traffic(), clusters + 2 * (clusters / 128) + 3);
        EXPECT_LE(v.disk.log.size(), clusters / 128 + 4);
    }
}

// Neighbours in the chain lie in different FAT sectors, which is the most that a chain can cost.
TEST_F(ReadFat32, ScatteredClustersCostTimeInProportionToTheirNumber) {
    for (const u32 clusters : {500U, 2000U}) {
        std::vector<u32> chain;
        for (u32 i = 0; i < clusters; i++) {
            chain.push_back(3 + i * 1231 % 65521);
        }
        const int id = v.open_new("FILE       ", chain, clusters * 512);
        v.disk.log.clear();
        ASSERT_EQ(read(id, clusters * 512), done(clusters * 512));
        EXPECT_LE(v.traffic(), 2 * clusters + 2);
    }
}

TEST_F(ReadFat32, ReadAtTheEndOfALongChainFollowsItOnce) {
    std::vector<u32> chain;
    for (u32 i = 0; i < 4000; i++) {
        chain.push_back(1000 + i);
    }
    const int id = v.open_new("FILE       ", chain, 4000 * 512);
    position(id) = 3998 * 512 + 7;
    v.disk.log.clear();
    EXPECT_EQ(read(id, 1000), done(1000));
    EXPECT_LE(v.traffic(), 2 * 4000U / 128 + 4);
    EXPECT_LE(v.disk.log.size(), 4000U / 128 + 4);
}
