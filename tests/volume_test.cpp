// The volume: opening and sizing its target, sector transfers, blank images.

#include "tests/support/every_fault.h"
#include "tests/support/rows.h"
#include "tests/support/volume_fixture.h"

#include <cstddef>
#include <cstring>

#include <sys/socket.h>

using namespace fat;
using namespace testing_support;

namespace {

constexpr u64 GIB = 1ULL << 30;

// Whether the transfers are those for the descriptor of the volume.
bool transfers_reach_the_file() {
    return read_sectors == file_read_sectors && write_sectors == file_write_sectors;
}

bool transfers_are_unset() {
    return read_sectors == nullptr && write_sectors == nullptr;
}

// A path of exactly `length` bytes to the file that `path` names.
std::string padded_path(const std::string &path, std::size_t length) {
    const std::size_t slash = path.rfind('/');
    return path.substr(0, slash) + std::string(length - path.size() + 1, '/') +
           path.substr(slash + 1);
}

bytes counted_bytes(std::size_t size) {
    bytes result(size);
    for (std::size_t i = 0; i < size; i++) {
        result[i] = static_cast<u8>(i / 509 + i * 7);
    }
    return result;
}

bytes part(const bytes &content, std::size_t offset, std::size_t size) {
    const auto begin = content.begin() + static_cast<std::ptrdiff_t>(offset);
    return {begin, begin + static_cast<std::ptrdiff_t>(size)};
}

} // namespace

// ---- the record -------------------------------------------------------------------------------

TEST(FatSuper, FieldsAreInTheirOrder) {
    const std::size_t offsets[] = {
        offsetof(fat_super, fd),
        offsetof(fat_super, vol_size),
        offsetof(fat_super, fat_type),
        offsetof(fat_super, fat_size),
        offsetof(fat_super, total_sectors),
        offsetof(fat_super, num_clusters),
        offsetof(fat_super, sector_size),
        offsetof(fat_super, sec_per_clus),
        offsetof(fat_super, root_clus),
        offsetof(fat_super, fat_start),
        offsetof(fat_super, rdir_start),
        offsetof(fat_super, data_start),
        offsetof(fat_super, pbr_start),
        offsetof(fat_super, last_alloc_clus),
        offsetof(fat_super, long_name),
        offsetof(fat_super, root_dir),
        offsetof(fat_super, current_dir),
        offsetof(fat_super, cd_to_uni),
        offsetof(fat_super, cd_from_uni),
        offsetof(fat_super, dev_path),
    };
    EXPECT_EQ(offsets[0], 0U);
    for (std::size_t i = 1; i < std::size(offsets); i++) {
        EXPECT_LT(offsets[i - 1], offsets[i]) << "field " << i;
    }
    EXPECT_EQ(sizeof(fat_super::vol_size), 8U);
    EXPECT_EQ(sizeof(fat_super::long_name), 1U);
    EXPECT_EQ(sizeof(fat_super::dev_path), 4096U);
    EXPECT_EQ(sizeof oentry_table, 512 * sizeof(oentry *));
    EXPECT_EQ(sizeof oentry_map, 64U);
}

// ---- opening ----------------------------------------------------------------------------------

class OpenVolume : public volume_test {
protected:
    // Checks a refusal that opens nothing, allocates nothing and does not change the process.
    void expect_nothing_happened() {
        EXPECT_EQ(sv, nullptr);
        EXPECT_TRUE(left_open().empty());
    }
};

TEST_F(OpenVolume, GivesTheDescriptorOfARegularFileOfAnySize) {
    for (const u64 size : {u64{1}, u64{123457}, 5 * GIB + 1}) {
        const std::string path = scratch.sparse_file("image", size);
        const int fd = fat_open_volume(path.c_str(), 1, 0);
        EXPECT_EQ(messages.text(), "");
        ASSERT_NE(sv, nullptr);
        EXPECT_EQ(left_open(), std::vector<int>{fd});
        EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
        EXPECT_EQ(sv->fd, fd);
        EXPECT_EQ(sv->vol_size, size);
        EXPECT_EQ(sv->long_name, 1U);
        EXPECT_STREQ(sv->dev_path, path.c_str());
        EXPECT_TRUE(transfers_reach_the_file());
        fat_close_volume(0);
    }
    const bytes content = counted_bytes(5000);
    const std::string path = scratch.file_with("image", content);
    ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
    EXPECT_EQ(read_file(path), content);
}

TEST_F(OpenVolume, EveryOtherFieldIsZero) {
    const std::string path = scratch.sparse_file("image", 4096);
    ASSERT_GE(fat_open_volume(path.c_str(), 1, 0), 0);
    for (const u32 field : {sv->fat_type, sv->fat_size, sv->total_sectors, sv->num_clusters,
                            sv->sector_size, sv->sec_per_clus, sv->root_clus, sv->fat_start,
                            sv->rdir_start, sv->data_start, sv->pbr_start, sv->last_alloc_clus}) {
        EXPECT_EQ(field, 0U);
    }
    for (const void *field :
         {static_cast<const void *>(sv->root_dir), static_cast<const void *>(sv->current_dir),
          static_cast<const void *>(sv->cd_to_uni), static_cast<const void *>(sv->cd_from_uni)}) {
        EXPECT_EQ(field, nullptr);
    }
    const std::string rest(sv->dev_path + path.size(), sizeof sv->dev_path - path.size());
    EXPECT_EQ(rest, std::string(rest.size(), '\0'));
}

TEST_F(OpenVolume, ClearsTheTableOfOpenEntries) {
    static oentry stale = {};
    std::fill(std::begin(oentry_table), std::end(oentry_table), &stale);
    std::fill(std::begin(oentry_map), std::end(oentry_map), 0xFFFFFFFFU);
    ASSERT_GE(fat_open_volume(scratch.sparse_file("image", 4096).c_str(), 0, 0), 0);
    for (std::size_t id = 0; id < std::size(oentry_table); id++) {
        ASSERT_EQ(oentry_table[id], nullptr) << id;
    }
    for (const uint32_t word : oentry_map) {
        EXPECT_EQ(word, 0U);
    }
}

TEST_F(OpenVolume, AnyNonZeroLongNameFlagBecomesOne) {
    const std::string path = scratch.sparse_file("image", 4096);
    for (int flag = 0; flag <= 255; flag++) {
        ASSERT_GE(fat_open_volume(path.c_str(), static_cast<u8>(flag), 0), 0);
        EXPECT_EQ(sv->long_name, flag == 0 ? 0U : 1U) << flag;
        fat_close_volume(0);
    }
}

namespace {

// A target that is refused. `path` is completed by the scratch directory; null: no path at all.
struct refused_target : named_row {
    std::string (*path)(const scratch_directory &scratch);
    int mode;
    int result;
    const char *messages;
    bool sets_transfers; // transfers are set after path and mode are accepted
    std::size_t left_open;
};
using dir = const scratch_directory &;

std::string image_in(dir scratch) {
    return scratch.sparse_file("image", 4096);
}
std::string path_of_4096_bytes(dir scratch) {
    return padded_path(image_in(scratch), 4096);
}
std::string path_of_70000_bytes(dir /*scratch*/) {
    return std::string(70000, 'x');
}
std::string nothing_in(dir scratch) {
    return scratch.file("nothing");
}
std::string empty_path(dir /*scratch*/) {
    return "";
}
std::string directory_itself(dir scratch) {
    return scratch.file("");
}
std::string null_device(dir /*scratch*/) {
    return "/dev/null";
}
std::string empty_file(dir scratch) {
    return scratch.sparse_file("image", 0);
}

constexpr char NULL_PATH[] = "fat_open_volume[N]: NULL path!\n\n";
constexpr char BAD_MODE[] = "fat_open_volume[N]: failed to open FAT volume!\n\n";
constexpr char MISSING[] = "fat_init_volume[N]: Check here: No such file or directory\n\n";

const refused_target REFUSED_TARGETS[] = {
    {"NullPath", nullptr, 0, -EINVAL, NULL_PATH, false, 0},
    {"NullPathBeforeTheMode", nullptr, 1, -EINVAL, NULL_PATH, false, 0},
    {"PathOf4096Bytes", path_of_4096_bytes, 0, -ENAMETOOLONG,
     "fat_open_volume[N]: path length is too long: 4096\n\n", false, 0},
    {"PathLengthBeforeTheMode", path_of_70000_bytes, 1, -ENAMETOOLONG,
     "fat_open_volume[N]: path length is too long: 70000\n\n", false, 0},
    {"ModeOne", image_in, 1, -EINVAL, BAD_MODE, false, 0},
    {"ModeTwo", image_in, 2, -EINVAL, BAD_MODE, false, 0},
    {"ModeBelowZero", image_in, -1, -EINVAL, BAD_MODE, false, 0},
    {"LargestMode", image_in, 0x7FFFFFFF, -EINVAL, BAD_MODE, false, 0},
    {"MissingTarget", nothing_in, 0, -ENOENT, MISSING, true, 0},
    {"EmptyPath", empty_path, 0, -ENOENT, MISSING, true, 0},
    {"Directory", directory_itself, 0, -EISDIR,
     "fat_init_volume[N]: Check here: Is a directory\n\n", true, 0},
    // From here on the descriptor stays open.
    {"CharacterDevice", null_device, 0, -EINVAL,
     "check_vol_size[N]: Not supported volume type\nfat_init_volume[N]: Check here: -22\n\n", true,
     1},
    {"EmptyFile", empty_file, 0, -ENOSPC, "fat_init_volume[N]: The size of volume is zero!\n\n",
     true, 1},
};

class OpenVolumeRefuses : public volume_test, public testing::WithParamInterface<refused_target> {};
INSTANTIATE_TEST_SUITE_P(Targets, OpenVolumeRefuses, testing::ValuesIn(REFUSED_TARGETS),
                         row_name<refused_target>);

} // namespace

TEST_P(OpenVolumeRefuses, WithItsErrorAndMessage) {
    const refused_target &row = GetParam();
    const std::string path = row.path == nullptr ? "" : row.path(scratch);
    EXPECT_EQ(fat_open_volume(row.path == nullptr ? nullptr : path.c_str(), 0, row.mode),
              row.result);
    EXPECT_EQ(messages.text(), row.messages);
    EXPECT_TRUE(row.sets_transfers ? transfers_reach_the_file() : transfers_are_unset());
    EXPECT_EQ(sv, nullptr);
    EXPECT_EQ(left_open().size(), row.left_open);
}

TEST_F(OpenVolume, AcceptsAPathOf4095Bytes) {
    const std::string path = padded_path(scratch.sparse_file("image", 4096), 4095);
    ASSERT_EQ(path.size(), 4095U);
    ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
    EXPECT_EQ(messages.text(), "");
    EXPECT_EQ(std::string(sv->dev_path), path);
}

TEST_F(OpenVolume, ReturnsTheErrorOfAnyFailedOpen) {
    const std::string path = scratch.sparse_file("image", 4096);
    for (const int error : {EACCES, EROFS, EMFILE, EBUSY}) {
        messages.clear();
        const failing_call fault(call::open, error);
        EXPECT_EQ(fat_open_volume(path.c_str(), 0, 0), -error);
        EXPECT_EQ(messages.text(), "fat_init_volume[N]: Check here: " + name_of(error) + "\n\n");
    }
    expect_nothing_happened();
}

TEST_F(OpenVolume, LeavesTheDescriptorOpenWhenTheTargetCannotBeSized) {
    for (const auto &[which, error, message] :
         {std::tuple{call::fstat, -EINVAL, "- cannot access volume"},
          {call::ioctl, -EACCES, "cannot get the volume size: ioctl(BLKGETSIZE)"}}) {
        const std::size_t open_before_it = left_open().size();
        const pretended_device device({.is_block_device = true});
        const failing_call fault(which, EIO);
        messages.clear();
        EXPECT_EQ(fat_open_volume(scratch.sparse_file("image", 4096).c_str(), 0, 0), error);
        EXPECT_EQ(messages.text(),
                  std::string("check_vol_size[N]: ") + message +
                      "\nfat_init_volume[N]: Check here: " + std::to_string(error) + "\n\n");
        EXPECT_EQ(sv, nullptr);
        EXPECT_EQ(left_open().size(), open_before_it + 1);
    }
}

TEST_F(OpenVolume, ClosesTheDescriptorWhenThereIsNoMemoryForTheRecord) {
    const std::string path = scratch.sparse_file("image", 4096);
    const allocation_meter meter;
    const failing_allocation fault(0);
    EXPECT_EQ(fat_open_volume(path.c_str(), 0, 0), -ENOMEM);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(messages.text(), "fat_init_volume[N]: cannot allocate volume data structure\n\n");
    EXPECT_EQ(meter.live_blocks(), 0);
    expect_nothing_happened();
}

TEST_F(OpenVolume, TheRecordIsItsOnlyAllocation) {
    const std::string path = scratch.sparse_file("image", 4096);
    const allocation_meter meter;
    const failing_allocation second(1);
    ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
    EXPECT_FALSE(second.struck());
    EXPECT_EQ(meter.live_blocks(), 1);
    EXPECT_EQ(meter.peak_bytes(), sizeof(fat_super));
}

TEST_F(OpenVolume, AFailureLeavesTheOpenEntriesInTheirTable) {
    static oentry kept = {};
    oentry_table[5] = &kept;
    oentry_map[0] = 1U << 5;
    EXPECT_EQ(fat_open_volume(scratch.sparse_file("image", 0).c_str(), 0, 0), -ENOSPC);
    EXPECT_EQ(oentry_table[5], &kept);
    EXPECT_EQ(oentry_map[0], 1U << 5);
    oentry_table[5] = nullptr;
    oentry_map[0] = 0;
}

TEST_F(OpenVolume, ASecondVolumeReplacesTheFirstWithoutReleasingIt) {
    const int first = fat_open_volume(scratch.sparse_file("first", 4096).c_str(), 0, 0);
    fat_super *const first_record = sv;
    const int second = fat_open_volume(scratch.sparse_file("second", 8192).c_str(), 0, 0);
    EXPECT_NE(sv, first_record);
    EXPECT_EQ(sv->fd, second);
    EXPECT_EQ(sv->vol_size, 8192U);
    EXPECT_EQ(first_record->fd, first);
    EXPECT_EQ(first_record->vol_size, 4096U);
    EXPECT_EQ(left_open(), (std::vector<int>{first, second}));
    std::free(first_record);
}

TEST_F(OpenVolume, AFailureLeavesTheOpenVolumeOpen) {
    ASSERT_GE(fat_open_volume(scratch.sparse_file("image", 4096).c_str(), 0, 0), 0);
    fat_super *const record = sv;
    EXPECT_EQ(fat_open_volume(scratch.file("nothing").c_str(), 0, 0), -ENOENT);
    EXPECT_EQ(sv, record);
}

// ---- size of the target -----------------------------------------------------------------------

class CheckVolSize : public volume_test {
protected:
    static constexpr u64 UNTOUCHED = 0x5A5A5A5A5A5A5A5A;

    void expect_refusal(int fd, int error, const std::string &message) {
        u64 size = UNTOUCHED;
        messages.clear();
        EXPECT_EQ(check_vol_size(fd, &size), error);
        EXPECT_EQ(messages.text(), message);
        EXPECT_EQ(size, UNTOUCHED);
    }

    // A block device with these two sizes.
    void expect_device(s64 sectors, s64 seek_end, u64 wanted, const std::string &message) {
        const int fd = open(scratch.sparse_file("device", 4096).c_str(), O_RDWR);
        const pretended_device device(
            {.is_block_device = true, .ioctl_sectors = sectors, .seek_end = seek_end});
        u64 size = UNTOUCHED;
        messages.clear();
        EXPECT_EQ(check_vol_size(fd, &size), 0);
        EXPECT_EQ(size, wanted);
        EXPECT_EQ(messages.text(), message);
        close(fd);
    }
};

TEST_F(CheckVolSize, ARegularFileIsAsLongAsItIs) {
    for (const u64 length : {u64{0}, u64{1}, u64{512}, u64{4097}, 4 * GIB - 1, 4 * GIB, 6 * GIB}) {
        const int fd = open(scratch.sparse_file("file", length).c_str(), O_RDONLY);
        u64 size = UNTOUCHED;
        EXPECT_EQ(check_vol_size(fd, &size), 0);
        EXPECT_EQ(size, length);
        close(fd);
    }
    EXPECT_EQ(messages.text(), "");
}

TEST_F(CheckVolSize, RefusesATargetThatIsNeitherAFileNorABlockDevice) {
    int ends[2] = {};
    ASSERT_EQ(pipe(ends), 0);
    for (const int fd : {open(scratch.file("").c_str(), O_RDONLY), open("/dev/zero", O_RDWR),
                         ends[0], socket(AF_UNIX, SOCK_STREAM, 0)}) {
        expect_refusal(fd, -EINVAL, "check_vol_size[N]: Not supported volume type\n");
    }
}

TEST_F(CheckVolSize, RefusesATargetWithoutAStatus) {
    expect_refusal(-1, -EINVAL, "check_vol_size[N]: - cannot access volume\n");
}

TEST_F(CheckVolSize, RefusesADeviceThatDoesNotReportItsSize) {
    const int fd = open(scratch.sparse_file("device", 4096).c_str(), O_RDWR);
    const pretended_device device({.is_block_device = true, .seek_end = 4096});
    const failing_call fault(call::ioctl, ENOTTY);
    expect_refusal(fd, -EACCES,
                   "check_vol_size[N]: cannot get the volume size: "
                   "ioctl(BLKGETSIZE)\n");
}

namespace {

// A block device: its sectors by ioctl, its end by seeking, and the resulting size.
struct device_row : named_row {
    s64 sectors;
    s64 seek_end;
    u64 size;
    u32 shown_sectors;
    u32 shown_bytes; // their product in 32 bits
    bool is_mismatch;
    u64 found_end; // end found by the search; 0: the sought end
};

const device_row DEVICES[] = {
    {"OneSizeIsTaken", 2048, 1048576, 1048576, 2048, 1048576, false, 0},
    {"BytesAfterTheLastSectorAreNoMismatch", 2048, 1049087, 1049087, 2048, 1048576, false, 0},
    {"DeviceSizeWinsOverASeekOneSectorLarger", 2048, 1049088, 1048576, 2048, 1048576, true, 0},
    {"SeekOneByteShortStays", 2048, 1048575, 1048575, 2048, 1048576, true, 0},
    {"NoSectorsAreEmptyWhateverSeekReturns", 0, 512, 0, 0, 0, true, 0},
    {"OneSectorBelow4GiBFits", 0x7FFFFF, 0xFFFFFE00, 0xFFFFFE00, 8388607, 4294966784, false, 0},
    {"AgreeingSizesOf4GiBThoughTheProductWraps", 0x800000, 0x100000000, 0x100000000, 8388608, 0,
     false, 0},
    {"LargerSeekBeyond4GiBGivesTheWrappedProduct", 0x900000, 0x120000200, 0x20000000, 9437184,
     536870912, true, 0},
    {"SmallerSeekBeyond4GiBStays", 0x900000, 0x11FFFFE00, 0x11FFFFE00, 9437184, 536870912, true, 0},
    {"SectorCountBeyond32BitsIsComparedWhole", 0x100000008, 4096, 4096, 8, 4096, true, 0},
    {"SectorCountBeyond32BitsAgrees", 0x100000008, 0x20000001000, 0x20000001000, 8, 4096, false, 0},
    {"SeekWithoutAnEndIsReplacedBySearching", 8, 0, 4096, 8, 4096, false, 4096},
};

class BlockDeviceSize : public CheckVolSize, public testing::WithParamInterface<device_row> {};
INSTANTIATE_TEST_SUITE_P(Devices, BlockDeviceSize, testing::ValuesIn(DEVICES),
                         row_name<device_row>);

} // namespace

TEST_P(BlockDeviceSize, IsThatOfTheRow) {
    const device_row &row = GetParam();
    if (sizeof(unsigned long) < 8 && row.sectors > 0xFFFFFFFF) {
        GTEST_SKIP() << "BLKGETSIZE returns 32 bits here";
    }
    const std::string end =
        std::to_string(row.found_end != 0 ? row.found_end : static_cast<u64>(row.seek_end));
    const std::string bytes = std::to_string(row.shown_bytes);
    expect_device(row.sectors, row.seek_end, row.size,
                  "check_vol_size[N]: ioctl(BLKGETSIZE): " + std::to_string(row.shown_sectors) +
                      " sectors, " + bytes + " bytes\ncheck_vol_size[N]: seek volume: " + end +
                      " bytes\n" +
                      (row.is_mismatch ? "Warning: mismatch the volume size from ioctl(" + bytes +
                                             " B) and lseek(" + end + " B)\n"
                                       : ""));
}

TEST_F(OpenVolume, TakesTheSmallerSizeOfABlockDevice) {
    const pretended_device device({.is_block_device = true, .ioctl_sectors = 16, .seek_end = 8704});
    ASSERT_GE(fat_open_volume(scratch.sparse_file("device", 8704).c_str(), 0, 0), 0);
    EXPECT_EQ(sv->vol_size, 8192U);
    EXPECT_EQ(messages.text(),
              "check_vol_size[N]: ioctl(BLKGETSIZE): 16 sectors, 8192 bytes\n"
              "check_vol_size[N]: seek volume: 8704 bytes\n"
              "Warning: mismatch the volume size from ioctl(8192 B) and lseek(8704 B)\n");
}

TEST_F(OpenVolume, ADeviceWhoseProductWrapsToNothingIsEmpty) {
    const pretended_device device(
        {.is_block_device = true, .ioctl_sectors = 0x800000, .seek_end = 0x100000200});
    EXPECT_EQ(fat_open_volume(scratch.sparse_file("device", 4096).c_str(), 0, 0), -ENOSPC);
    EXPECT_EQ(messages.text(), "check_vol_size[N]: ioctl(BLKGETSIZE): 8388608 sectors, 0 bytes\n"
                               "check_vol_size[N]: seek volume: 4294967808 bytes\n"
                               "Warning: mismatch the volume size from ioctl(0 B) and "
                               "lseek(4294967808 B)\n"
                               "fat_init_volume[N]: The size of volume is zero!\n\n");
    EXPECT_EQ(left_open().size(), 1U);
}

class DeviceSize : public volume_test {
protected:
    // Size of an unseekable file of `length` bytes.
    u64 searched_size(u64 length) {
        const int fd = open(scratch.sparse_file("device", length).c_str(), O_RDONLY);
        const pretended_device device({.seek_end = 0});
        const u64 size = get_device_size(fd);
        close(fd);
        return size;
    }
};

TEST_F(DeviceSize, IsWhereTheEndIsOrWhereASearchFindsIt) {
    const int large = open(scratch.sparse_file("large", 4 * GIB + 1).c_str(), O_RDONLY);
    EXPECT_EQ(get_device_size(large), 4 * GIB + 1);
    const int fd = open(scratch.sparse_file("device", 777).c_str(), O_RDONLY);
    {
        const pretended_device device({.seek_end = 1});
        EXPECT_EQ(get_device_size(fd), 1U); // an end of one is accepted
    }
    const failing_call fault(call::lseek, EIO);
    EXPECT_EQ(get_device_size(fd), 777U);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(messages.text(), "");
}

TEST_F(DeviceSize, IsFoundByTryingOffsets) {
    EXPECT_EQ(searched_size(0), 1U); // at least one byte
    for (u64 length = 1; length <= 70; length++) {
        EXPECT_EQ(searched_size(length), length);
    }
    for (const u64 length : {u64{511}, u64{512}, u64{513}, u64{65535}, u64{65536}, u64{65537},
                             u64{1000003}, 2 * GIB - 1, 2 * GIB + 1, 4 * GIB, 7 * GIB + 12345}) {
        EXPECT_EQ(searched_size(length), length);
    }
    EXPECT_EQ(messages.text(), "");
}

TEST_F(DeviceSize, IsOneByteWhereNothingCanBeSought) {
    int ends[2] = {};
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(get_device_size(ends[0]), 1U);
    EXPECT_EQ(messages.text(), "valid_offset[N]: Check here!\n\n");
}

TEST_F(DeviceSize, AFailingProbeCountsAsBeyondTheEnd) {
    // The probes of 100 bytes are 1, 2, 4, ..., 64, 128; the one at 64 fails.
    const int fd = open(scratch.sparse_file("device", 100).c_str(), O_RDONLY);
    const pretended_device device({.seek_end = 0});
    const failing_call fault(call::read, EIO, 6);
    EXPECT_EQ(get_device_size(fd), 64U);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(messages.text(), "");
}

TEST_F(DeviceSize, TheSearchEndsOnADeviceWithoutEnd) {
    EXPECT_GT(get_device_size(open("/dev/zero", O_RDONLY)), 4 * GIB);
}

class ValidOffset : public volume_test {};

TEST_F(ValidOffset, IsOneUpToTheLastByte) {
    const std::string no_seek = "valid_offset[N]: Check here!\n\n";
    const std::string small = scratch.sparse_file("file", 100);
    const std::string large = scratch.sparse_file("large", 4 * GIB + 100);
    const int reader = open(small.c_str(), O_RDONLY);
    const int writer = open(small.c_str(), O_WRONLY); // its reads fail silently
    const int wide = open(large.c_str(), O_RDONLY);
    for (const auto &[fd, offset, result, message] :
         std::initializer_list<std::tuple<int, u64, int, std::string>>{
             {reader, 0, 1, ""},
             {reader, 99, 1, ""},
             {reader, 100, 0, ""},
             {reader, 101, 0, ""},
             {reader, 1ULL << 63, 0, no_seek},
             {writer, 0, 0, ""},
             {-1, 0, 0, no_seek},
             {wide, 4 * GIB + 99, 1, ""},
             {wide, 4 * GIB + 100, 0, ""},
             {wide, 8 * GIB + 5, 0, ""}}) {
        messages.clear();
        EXPECT_EQ(valid_offset(fd, offset), result) << fd << ", " << offset;
        EXPECT_EQ(messages.text(), message);
    }
}

TEST_F(ValidOffset, ChangesNothing) {
    const bytes content = counted_bytes(100);
    const std::string path = scratch.file_with("file", content);
    const int fd = open(path.c_str(), O_RDWR);
    EXPECT_EQ(valid_offset(fd, 50), 1);
    EXPECT_EQ(valid_offset(fd, 5000), 0);
    EXPECT_EQ(read_file(path), content);
}

// ---- sector transfers -------------------------------------------------------------------------

class SectorTransfer : public volume_test {
protected:
    // Opens a volume with known bytes; sector size 0: the geometry is unknown.
    void open_known(u32 sector_size, std::size_t length = 40960) {
        content = counted_bytes(length);
        path = scratch.file_with("image", content);
        ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
        sv->sector_size = sector_size;
    }

    // Both transfers fail with this result. What reading prints after "Check here!".
    void expect_failures(u8 *data, u64 sector, int result, const std::string &detail = "") {
        messages.clear();
        EXPECT_EQ(file_read_sectors(data, sector, 1), result);
        EXPECT_EQ(messages.text(), "file_read_sectors[N]: Check here!" + detail + "\n\n");
        messages.clear();
        EXPECT_EQ(file_write_sectors(data, sector, 1), result);
        EXPECT_EQ(messages.text(), "file_write_sectors[N]: Check here!\n\n");
    }

    // Replaces the descriptor of the volume; the old one is closed with the case.
    static void replace_descriptor(int fd) {
        sv->fd = fd;
    }

    bytes content;
    std::string path;
    bytes buffer = bytes(16384, 0xEE);
};

// Sector size 0 (geometry unknown) is a unit of 4096 bytes.
TEST_F(SectorTransfer, MovesSectorsOfEverySize) {
    for (const u32 sector_size : {0U, 512U, 1024U, 2048U, 4096U}) {
        open_known(sector_size);
        const u32 unit = sector_size == 0 ? 4096 : sector_size;
        buffer.assign(16384, 0xEE);
        EXPECT_EQ(file_read_sectors(buffer.data(), 5, 3), 3);
        EXPECT_EQ(part(buffer, 0, 3 * unit), part(content, 5 * unit, 3 * unit));
        EXPECT_EQ(part(buffer, 3 * unit, 4096), bytes(4096, 0xEE));
        buffer.assign(16384, 0xEE);
        EXPECT_EQ(file_write_sectors(buffer.data(), 5, 3), 3);
        std::fill_n(content.begin() + 5 * unit, 3 * unit, 0xEE);
        EXPECT_EQ(read_file(path), content);
        EXPECT_EQ(messages.text(), "");
        fat_close_volume(0);
    }
}

TEST_F(SectorTransfer, BeginsAtItsSectorWhereverTheLastOneEnded) {
    open_known(512);
    for (const u64 sector : {70U, 2U, 0U}) {
        EXPECT_EQ(file_read_sectors(buffer.data(), sector, 1), 1);
        EXPECT_EQ(part(buffer, 0, 512), part(content, sector * 512, 512));
    }
    EXPECT_EQ(file_write_sectors(bytes(512, 0x11).data(), 0, 1), 1);
    std::fill_n(content.begin(), 512, 0x11);
    buffer.assign(16384, 0xEE);
    EXPECT_EQ(file_read_sectors(buffer.data(), 1, 0), 0); // no sector requested
    EXPECT_EQ(file_write_sectors(buffer.data(), 1, 0), 0);
    EXPECT_EQ(buffer, bytes(16384, 0xEE));
    EXPECT_EQ(read_file(path), content);
    EXPECT_EQ(messages.text(), "");
}

TEST_F(SectorTransfer, ReachesBeyond4GiBAndSectorNumbersHave64Bits) {
    for (const u64 sector : {(4 * GIB + 65536) / 512, (u64{1} << 32) + 7}) {
        path = scratch.sparse_file("image", 512 * (sector + 2));
        ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
        sv->sector_size = 512;
        const bytes written = counted_bytes(1024);
        bytes copy = written;
        EXPECT_EQ(file_write_sectors(copy.data(), sector, 2), 2);
        EXPECT_EQ(read_range(path, sector * 512, 1024), written);
        for (const u64 cut : {sector * 512 & 0xFFFFFFFF, (sector & 0xFFFFFFFF) * 512}) {
            EXPECT_TRUE(cut == sector * 512 || read_range(path, cut, 1024) == bytes(1024, 0));
        }
        EXPECT_EQ(file_read_sectors(buffer.data(), sector, 2), 2);
        EXPECT_EQ(part(buffer, 0, 1024), written);
        fat_close_volume(0);
    }
}

TEST_F(SectorTransfer, ReadingAcrossTheEndCountsTheWholeSectorsBeforeIt) {
    open_known(512, 5 * 512 + 100);
    EXPECT_EQ(file_read_sectors(buffer.data(), 3, 4), 2);
    EXPECT_EQ(part(buffer, 0, 1024 + 100), part(content, 3 * 512, 1024 + 100));
    EXPECT_EQ(file_read_sectors(buffer.data(), 5, 1), 0);
    EXPECT_EQ(file_read_sectors(buffer.data(), 6, 1), 0);
    EXPECT_EQ(messages.text(), "");
}

TEST_F(SectorTransfer, WritingPastTheEndExtendsAFile) {
    open_known(512, 1024);
    EXPECT_EQ(file_write_sectors(buffer.data(), 4, 1), 1);
    content.resize(2048, 0);
    content.resize(2560, 0xEE);
    EXPECT_EQ(read_file(path), content);
}

TEST_F(SectorTransfer, AShortTransferIsCountedNotRepeated) {
    open_known(512);
    {
        const pretended_device device({.short_transfer_bytes = 1500});
        EXPECT_EQ(file_read_sectors(buffer.data(), 1, 8), 2);
        EXPECT_EQ(part(buffer, 0, 1500), part(content, 512, 1500));
        EXPECT_EQ(part(buffer, 1500, 8000), bytes(8000, 0xEE));
        buffer.assign(16384, 0xEE);
        EXPECT_EQ(file_write_sectors(buffer.data(), 1, 8), 2);
    }
    std::fill_n(content.begin() + 512, 1500, 0xEE);
    EXPECT_EQ(read_file(path), content);
    // A part of a sector does not count.
    const pretended_device device({.short_transfer_bytes = 511});
    EXPECT_EQ(file_read_sectors(buffer.data(), 0, 1), 0);
    EXPECT_EQ(file_write_sectors(buffer.data(), 0, 1), 0);
    EXPECT_EQ(messages.text(), "");
}

TEST_F(SectorTransfer, RefusesStandardDescriptorsANullBufferAndNoVolume) {
    expect_failures(buffer.data(), 0, -EINVAL);
    open_known(512);
    expect_failures(nullptr, 0, -EINVAL);
    const int own = sv->fd;
    for (const int fd : {2, 1, 0, -1}) {
        replace_descriptor(fd);
        expect_failures(buffer.data(), 0, -EINVAL);
    }
    replace_descriptor(own);
}

TEST_F(SectorTransfer, TheFirstSupportedDescriptorIsThree) {
    open_known(512);
    const int own = sv->fd;
    const int third = dup(3);
    ASSERT_EQ(dup2(own, 3), 3);
    replace_descriptor(3);
    EXPECT_EQ(file_read_sectors(buffer.data(), 2, 1), 1);
    EXPECT_EQ(part(buffer, 0, 512), part(content, 1024, 512));
    replace_descriptor(own);
    if (third >= 0) {
        dup2(third, 3);
        close(third);
    }
}

TEST_F(SectorTransfer, PrintsWhichSectorCannotBeSought) {
    open_known(512);
    {
        const failing_call fault(call::lseek, EIO, 0, true);
        expect_failures(buffer.data(), 3, -EIO, ": Input/output error (3 x 512)");
    }
    sv->sector_size = 0;
    expect_failures(buffer.data(), 1ULL << 51, -EIO, ": Invalid argument (0 x 4096)");
    sv->sector_size = 512;
    const int own = sv->fd;
    int ends[2] = {};
    ASSERT_EQ(pipe(ends), 0);
    for (const int end : ends) {
        replace_descriptor(end);
        expect_failures(buffer.data(), 1, -EIO, ": Illegal seek (1 x 512)");
    }
    replace_descriptor(own);
    EXPECT_EQ(buffer, bytes(16384, 0xEE));
    EXPECT_EQ(read_file(path), content);
}

TEST_F(SectorTransfer, CutsTheSectorItCannotSeekToAnInt) {
    open_known(0);
    const failing_call fault(call::lseek, EOVERFLOW, 0, true);
    EXPECT_EQ(file_read_sectors(buffer.data(), 0x500000007, 1), -EIO);
    EXPECT_EQ(file_read_sectors(buffer.data(), 0xFFFFFFFF, 1), -EIO);
    const std::string reason = name_of(EOVERFLOW);
    EXPECT_EQ(messages.text(), "file_read_sectors[N]: Check here!: " + reason + " (7 x 4096)\n\n" +
                                   "file_read_sectors[N]: Check here!: " + reason +
                                   " (-1 x 4096)\n\n");
}

TEST_F(SectorTransfer, PrintsWhyReadingFailsAndThatWritingFails) {
    open_known(512);
    for (const int error : {EIO, EINTR, EAGAIN, ENOSPC}) {
        const failing_call read_fault(call::read, error, 0, true);
        const failing_call write_fault(call::write, error, 0, true);
        expect_failures(buffer.data(), 3, -EIO, ": " + name_of(error));
        EXPECT_TRUE(read_fault.struck());
        EXPECT_TRUE(write_fault.struck());
    }
    replace_descriptor(open(path.c_str(), O_WRONLY));
    EXPECT_EQ(file_read_sectors(buffer.data(), 3, 1), -EIO);
    replace_descriptor(open(path.c_str(), O_RDONLY));
    EXPECT_EQ(file_write_sectors(buffer.data(), 3, 1), -EIO);
    EXPECT_TRUE(
        messages.text().ends_with("file_read_sectors[N]: Check here!: Bad file descriptor\n\n"
                                  "file_write_sectors[N]: Check here!\n\n"));
    EXPECT_EQ(buffer, bytes(16384, 0xEE));
    EXPECT_EQ(read_file(path), content);
}

TEST_F(SectorTransfer, AllocatesNothing) {
    open_known(512);
    const failing_allocation fault(0, true);
    EXPECT_EQ(file_read_sectors(buffer.data(), 3, 4), 4);
    EXPECT_EQ(file_write_sectors(buffer.data(), 3, 4), 4);
    EXPECT_FALSE(fault.struck());
}

// ---- blank images -----------------------------------------------------------------------------

class CreateVolume : public volume_test {
protected:
    void expect_failure(int result, int error, const std::string &message) {
        EXPECT_EQ(result, error);
        EXPECT_EQ(messages.text(), "create_fat_volume[N]: " + message + "\n\n");
        EXPECT_TRUE(left_open().empty());
        EXPECT_TRUE(transfers_are_unset());
        EXPECT_EQ(sv, nullptr);
    }
};

TEST_F(CreateVolume, FillsAFileOfItsOwnerAndGroupWithZeros) {
    const mode_t old_mask = umask(0);
    const std::string path = scratch.file("image");
    const allocation_meter meter;
    const int fd = create_fat_volume(path.c_str(), 1000, 3);
    umask(old_mask);
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(messages.text(), "");
    EXPECT_EQ(left_open(), std::vector<int>{fd});
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(read_file(path), bytes(3000, 0));
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0660U);
    EXPECT_TRUE(transfers_reach_the_file());
    EXPECT_EQ(sv, nullptr); // no volume is opened
    // The former content of the file is replaced.
    EXPECT_GE(create_fat_volume(scratch.file_with("image", counted_bytes(9000)).c_str(), 512, 4),
              0);
    EXPECT_EQ(read_file(path), bytes(2048, 0));
}

TEST_F(CreateVolume, NoBlocksOrEmptyOnesMakeAnEmptyFile) {
    for (const auto &[size, count] : {std::pair{512, 0}, {512, -1}, {0, 3}}) {
        const std::string path = scratch.file_with("image", counted_bytes(100));
        const int fd = create_fat_volume(path.c_str(), size, count);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(read_file(path), bytes{});
        close(fd);
    }
    EXPECT_EQ(messages.text(), "");
}

TEST_F(CreateVolume, AShortWriteIsNoFailure) {
    const std::string path = scratch.file("image");
    const pretended_device device({.short_transfer_bytes = 300});
    EXPECT_GE(create_fat_volume(path.c_str(), 512, 4), 0);
    EXPECT_EQ(messages.text(), "");
    EXPECT_EQ(read_file(path), bytes(1200, 0));
}

TEST_F(CreateVolume, PrintsThatTheTargetCannotBeOpenedOrWritten) {
    expect_failure(create_fat_volume(scratch.file("no/image").c_str(), 512, 1), -ENOENT,
                   "failed to open file!");
    messages.clear();
    expect_failure(create_fat_volume(nullptr, 512, 1), -EFAULT, "failed to open file!");
    messages.clear();
    expect_failure(create_fat_volume("/dev/full", 512, 1), -EIO, "failed to write!");
}

TEST_F(CreateVolume, ReturnsTheErrorOfAnyFailedOpen) {
    const std::string path = scratch.file("image");
    for (const int error : {EACCES, EROFS, ENOSPC}) {
        messages.clear();
        const failing_call fault(call::open, error);
        expect_failure(create_fat_volume(path.c_str(), 512, 1), -error, "failed to open file!");
    }
}

TEST_F(CreateVolume, ClosesTheFileWhenThereIsNoMemory) {
    const std::string path = scratch.file_with("image", counted_bytes(100));
    const allocation_meter meter;
    const failing_allocation fault(0);
    expect_failure(create_fat_volume(path.c_str(), 512, 1), -ENOMEM, "failed to allocate memory!");
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(read_file(path), bytes{}) << "the file is opened, and emptied, first";
}

TEST_F(CreateVolume, ClosesAndFreesWhicheverWriteFails) {
    const std::string path = scratch.file("image");
    at_every_fault({every_call(call::write, ENOSPC)}, [&](fault_step &step) {
        messages.clear();
        const int result = step.run([&] { return create_fat_volume(path.c_str(), 512, 4); });
        EXPECT_EQ(step.struck(), step.k < 4);
        if (step.struck()) {
            expect_failure(result, -EIO, "failed to write!");
            EXPECT_EQ(read_file(path).size(), static_cast<std::size_t>(512 * step.k));
        } else {
            EXPECT_GE(result, 0);
        }
    });
}

TEST_F(CreateVolume, TheFileCanBeOpenedAsAVolume) {
    const std::string path = scratch.file("image");
    close(create_fat_volume(path.c_str(), 4096, 16));
    ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
    EXPECT_EQ(sv->vol_size, 65536U);
}

// ---- diagnostics ------------------------------------------------------------------------------

class Diagnostics : public volume_test {
protected:
    // A bare and a prefixed line of each kind of reporter.
    void provoke() const {
        EXPECT_EQ(fat_open_volume(nullptr, 0, 0), -EINVAL);
        fat_format_param param = {};
        param.sec_per_clus = 64;
        param.sector_size = 1024;
        EXPECT_EQ(check_format_param(&param), -1);
        device_picture picture = {.is_block_device = true};
        picture.ioctl_sectors = 1;
        picture.seek_end = 4096;
        const pretended_device device(picture);
        const int fd = open(scratch.sparse_file("device", 4096).c_str(), O_RDONLY);
        u64 size = 0;
        EXPECT_EQ(check_vol_size(fd, &size), 0);
        close(fd);
    }

    static constexpr char EVERYTHING[] =
        "fat_open_volume[N]: NULL path!\n\n"
        "The requested cluster size is 65536(= 64 x 1024).\n"
        "But cluster size can't be over 32KBytes\n"
        "check_vol_size[N]: ioctl(BLKGETSIZE): 1 sectors, 512 bytes\n"
        "check_vol_size[N]: seek volume: 4096 bytes\n"
        "Warning: mismatch the volume size from ioctl(512 B) and lseek(4096 B)\n";
};

TEST_F(Diagnostics, GoToTheChosenStreamOrNowhere) {
    standard_error err;
    standard_output out;
    provoke();
    EXPECT_EQ(messages.text(), EVERYTHING);
    fat_set_diagnostics(nullptr);
    provoke();
    EXPECT_EQ(out.stop(), "");
    EXPECT_EQ(err.stop(), "");
    EXPECT_EQ(messages.text(), EVERYTHING);
}

TEST_F(Diagnostics, StandardErrorCanBeChosenAgain) {
    standard_error err;
    fat_set_diagnostics(nullptr);
    fat_set_diagnostics(stderr);
    EXPECT_EQ(fat_open_volume(nullptr, 0, 1), -EINVAL);
    EXPECT_EQ(messages.text(), "");
    const std::string printed = err.stop();
    EXPECT_EQ(printed.substr(0, 16), "fat_open_volume[");
    EXPECT_EQ(printed.substr(printed.find(']')), "]: NULL path!\n\n");
}

TEST_F(Diagnostics, DoNotTouchWhatGoesToStandardOutput) {
    standard_output out;
    fat_set_diagnostics(nullptr);
    const int result = fat_close_volume(0);
    EXPECT_EQ(out.stop(), "sv is null\n");
    EXPECT_EQ(result, 0);
}

TEST_F(Diagnostics, ThePrefixNamesTheReporterAndASourceLine) {
    EXPECT_EQ(fat_open_volume(nullptr, 0, 0), -EINVAL);
    const std::string printed = messages.raw();
    const std::size_t digits = std::string("fat_open_volume[").size();
    const std::size_t end = printed.find(']');
    ASSERT_NE(end, std::string::npos);
    EXPECT_GT(std::stoi(printed.substr(digits, end - digits)), 0);
}

TEST_F(Diagnostics, AReportLeavesErrnoAlone) {
    FILE *full = fopen("/dev/full", "w");
    setvbuf(full, nullptr, _IONBF, 0);
    for (FILE *stream : {full, static_cast<FILE *>(nullptr)}) {
        fat_set_diagnostics(stream);
        errno = E2BIG;
        EXPECT_EQ(fat_open_volume(nullptr, 0, 0), -EINVAL);
        EXPECT_EQ(errno, E2BIG);
    }
    EXPECT_NE(ferror(full), 0);
    fclose(full);
}

TEST_F(Diagnostics, AReportThatCannotBePrintedChangesNoResult) {
    FILE *full = fopen("/dev/full", "w");
    setvbuf(full, nullptr, _IONBF, 0);
    fat_set_diagnostics(full);
    EXPECT_EQ(fat_open_volume(scratch.file("nothing").c_str(), 0, 0), -ENOENT);
    fat_set_diagnostics(nullptr);
    fclose(full);
}
