// The volume: opening and sizing its target, sector transfers, blank images.

#include "tests/support/every_fault.h"
#include "tests/support/volume_fixture.h"

#include <cstddef>
#include <cstring>

#include <sys/socket.h>

using namespace fat;
using namespace testing_support;

namespace {

constexpr u64 GIB = 1ULL << 30;

// Whether the transfers are the ones that work on the descriptor of the volume.
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

TEST(FatSuper, FieldsStandInTheirOrder) {
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
    // A refusal that opens nothing, keeps nothing and leaves the process's state as it was.
    void expect_nothing_happened() {
        EXPECT_EQ(sv, nullptr);
        EXPECT_TRUE(left_open().empty());
    }
};

TEST_F(OpenVolume, GivesTheDescriptorOfARegularFile) {
    const std::string path = scratch.sparse_file("image", 123457);
    const int fd = fat_open_volume(path.c_str(), 1, 0);
    EXPECT_EQ(said.text(), "");
    ASSERT_NE(sv, nullptr);
    EXPECT_EQ(left_open(), std::vector<int>{fd});
    EXPECT_EQ(sv->fd, fd);
    EXPECT_EQ(sv->vol_size, 123457U);
    EXPECT_EQ(sv->long_name, 1U);
    EXPECT_STREQ(sv->dev_path, path.c_str());
    EXPECT_TRUE(transfers_reach_the_file());
}

TEST_F(OpenVolume, OpensForReadingAndWritingWithoutChangingTheFile) {
    const bytes content = counted_bytes(5000);
    const std::string path = scratch.file_with("image", content);
    const int fd = fat_open_volume(path.c_str(), 0, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(read_file(path), content);
}

TEST_F(OpenVolume, EveryOtherFieldIsZero) {
    const std::string path = scratch.sparse_file("image", 4096);
    ASSERT_GE(fat_open_volume(path.c_str(), 1, 0), 0);
    EXPECT_EQ(sv->fat_type, 0U);
    EXPECT_EQ(sv->fat_size, 0U);
    EXPECT_EQ(sv->total_sectors, 0U);
    EXPECT_EQ(sv->num_clusters, 0U);
    EXPECT_EQ(sv->sector_size, 0U);
    EXPECT_EQ(sv->sec_per_clus, 0U);
    EXPECT_EQ(sv->root_clus, 0U);
    EXPECT_EQ(sv->fat_start, 0U);
    EXPECT_EQ(sv->rdir_start, 0U);
    EXPECT_EQ(sv->data_start, 0U);
    EXPECT_EQ(sv->pbr_start, 0U);
    EXPECT_EQ(sv->last_alloc_clus, 0U);
    EXPECT_EQ(sv->root_dir, nullptr);
    EXPECT_EQ(sv->current_dir, nullptr);
    EXPECT_EQ(sv->cd_to_uni, nullptr);
    EXPECT_EQ(sv->cd_from_uni, nullptr);
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

TEST_F(OpenVolume, SizesAFileBeyond4GiB) {
    const std::string path = scratch.sparse_file("image", 5 * GIB + 1);
    ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
    EXPECT_EQ(sv->vol_size, 5 * GIB + 1);
}

TEST_F(OpenVolume, ASingleByteIsEnough) {
    ASSERT_GE(fat_open_volume(scratch.sparse_file("image", 1).c_str(), 0, 0), 0);
    EXPECT_EQ(sv->vol_size, 1U);
}

TEST_F(OpenVolume, AcceptsAPathOf4095Bytes) {
    const std::string path = padded_path(scratch.sparse_file("image", 4096), 4095);
    ASSERT_EQ(path.size(), 4095U);
    ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
    EXPECT_EQ(said.text(), "");
    EXPECT_EQ(std::string(sv->dev_path), path);
}

TEST_F(OpenVolume, RefusesAPathOf4096Bytes) {
    const std::string path = padded_path(scratch.sparse_file("image", 4096), 4096);
    ASSERT_EQ(path.size(), 4096U);
    EXPECT_EQ(fat_open_volume(path.c_str(), 0, 0), -ENAMETOOLONG);
    EXPECT_EQ(said.text(), "fat_open_volume[N]: path length is too long: 4096\n\n");
    EXPECT_TRUE(transfers_are_unset());
    expect_nothing_happened();
}

TEST_F(OpenVolume, PathLengthIsToldBeforeTheMode) {
    EXPECT_EQ(fat_open_volume(std::string(70000, 'x').c_str(), 0, 1), -ENAMETOOLONG);
    EXPECT_EQ(said.text(), "fat_open_volume[N]: path length is too long: 70000\n\n");
}

TEST_F(OpenVolume, RefusesEveryModeButZero) {
    const std::string path = scratch.sparse_file("image", 4096);
    for (const int mode : {1, 2, -1, 0x7FFFFFFF}) {
        said.clear();
        EXPECT_EQ(fat_open_volume(path.c_str(), 0, mode), -EINVAL);
        EXPECT_EQ(said.text(), "fat_open_volume[N]: failed to open FAT volume!\n\n");
    }
    EXPECT_TRUE(transfers_are_unset());
    expect_nothing_happened();
}

TEST_F(OpenVolume, TellsWhyAMissingTargetCannotBeOpened) {
    EXPECT_EQ(fat_open_volume(scratch.file("nothing").c_str(), 0, 0), -ENOENT);
    EXPECT_EQ(said.text(), "fat_init_volume[N]: Check here: No such file or directory\n\n");
    expect_nothing_happened();
}

TEST_F(OpenVolume, TransfersAreSetBeforeAnythingCanFail) {
    EXPECT_EQ(fat_open_volume(scratch.file("nothing").c_str(), 0, 0), -ENOENT);
    EXPECT_TRUE(transfers_reach_the_file());
}

TEST_F(OpenVolume, AnEmptyPathIsAMissingTarget) {
    EXPECT_EQ(fat_open_volume("", 0, 0), -ENOENT);
    EXPECT_EQ(said.text(), "fat_init_volume[N]: Check here: No such file or directory\n\n");
    expect_nothing_happened();
}

TEST_F(OpenVolume, ReturnsTheErrorOfAnyFailedOpen) {
    const std::string path = scratch.sparse_file("image", 4096);
    for (const int error : {EACCES, EROFS, EMFILE, EBUSY}) {
        said.clear();
        const failing_call fault(call::open, error);
        EXPECT_EQ(fat_open_volume(path.c_str(), 0, 0), -error);
        EXPECT_EQ(said.text(), "fat_init_volume[N]: Check here: " + name_of(error) + "\n\n");
    }
    expect_nothing_happened();
}

TEST_F(OpenVolume, ADirectoryCannotBeOpenedForWriting) {
    EXPECT_EQ(fat_open_volume(scratch.file("").c_str(), 0, 0), -EISDIR);
    EXPECT_EQ(said.text(), "fat_init_volume[N]: Check here: Is a directory\n\n");
    expect_nothing_happened();
}

TEST_F(OpenVolume, RefusesACharacterDeviceAndLeavesItsDescriptorOpen) {
    EXPECT_EQ(fat_open_volume("/dev/null", 0, 0), -EINVAL);
    EXPECT_EQ(said.text(), "check_vol_size[N]: Not supported volume type\n"
                           "fat_init_volume[N]: Check here: -22\n\n");
    EXPECT_EQ(sv, nullptr);
    EXPECT_EQ(left_open().size(), 1U);
}

TEST_F(OpenVolume, LeavesTheDescriptorOpenWhenTheTargetCannotBeExamined) {
    const failing_call fault(call::fstat, EIO);
    EXPECT_EQ(fat_open_volume(scratch.sparse_file("image", 4096).c_str(), 0, 0), -EINVAL);
    EXPECT_EQ(said.text(), "check_vol_size[N]: - cannot access volume\n"
                           "fat_init_volume[N]: Check here: -22\n\n");
    EXPECT_EQ(sv, nullptr);
    EXPECT_EQ(left_open().size(), 1U);
}

TEST_F(OpenVolume, LeavesTheDescriptorOpenWhenADeviceDoesNotTellItsSize) {
    const pretended_device device({.is_block_device = true});
    const failing_call fault(call::ioctl, ENOTTY);
    EXPECT_EQ(fat_open_volume(scratch.sparse_file("image", 4096).c_str(), 0, 0), -EACCES);
    EXPECT_EQ(said.text(), "check_vol_size[N]: cannot get the volume size: ioctl(BLKGETSIZE)\n"
                           "fat_init_volume[N]: Check here: -13\n\n");
    EXPECT_EQ(sv, nullptr);
    EXPECT_EQ(left_open().size(), 1U);
}

TEST_F(OpenVolume, RefusesAnEmptyFileAndLeavesItsDescriptorOpen) {
    EXPECT_EQ(fat_open_volume(scratch.sparse_file("image", 0).c_str(), 0, 0), -ENOSPC);
    EXPECT_EQ(said.text(), "fat_init_volume[N]: The size of volume is zero!\n\n");
    EXPECT_EQ(sv, nullptr);
    EXPECT_EQ(left_open().size(), 1U);
}

TEST_F(OpenVolume, ClosesTheDescriptorWhenThereIsNoMemoryForTheRecord) {
    const std::string path = scratch.sparse_file("image", 4096);
    const allocation_meter meter;
    const failing_allocation fault(0);
    EXPECT_EQ(fat_open_volume(path.c_str(), 0, 0), -ENOMEM);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(said.text(), "fat_init_volume[N]: cannot allocate volume data structure\n\n");
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

TEST_F(OpenVolume, AFailureKeepsTheVolumeThatWasOpen) {
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
        EXPECT_EQ(check_vol_size(fd, &size), error);
        EXPECT_EQ(said.text(), message);
        EXPECT_EQ(size, UNTOUCHED);
    }

    // A block device whose two sizes are as given.
    void expect_device(s64 sectors, s64 seek_end, u64 wanted, const std::string &message) {
        const int fd = open(scratch.sparse_file("device", 4096).c_str(), O_RDWR);
        const pretended_device device(
            {.is_block_device = true, .ioctl_sectors = sectors, .seek_end = seek_end});
        u64 size = UNTOUCHED;
        said.clear();
        EXPECT_EQ(check_vol_size(fd, &size), 0);
        EXPECT_EQ(size, wanted);
        EXPECT_EQ(said.text(), message);
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
    EXPECT_EQ(said.text(), "");
}

TEST_F(CheckVolSize, RefusesADirectory) {
    expect_refusal(open(scratch.file("").c_str(), O_RDONLY), -EINVAL,
                   "check_vol_size[N]: Not supported volume type\n");
}

TEST_F(CheckVolSize, RefusesACharacterDevice) {
    expect_refusal(open("/dev/zero", O_RDWR), -EINVAL,
                   "check_vol_size[N]: Not supported volume type\n");
}

TEST_F(CheckVolSize, RefusesAPipe) {
    int ends[2] = {};
    ASSERT_EQ(pipe(ends), 0);
    expect_refusal(ends[0], -EINVAL, "check_vol_size[N]: Not supported volume type\n");
}

TEST_F(CheckVolSize, RefusesASocket) {
    expect_refusal(socket(AF_UNIX, SOCK_STREAM, 0), -EINVAL,
                   "check_vol_size[N]: Not supported volume type\n");
}

TEST_F(CheckVolSize, RefusesWhatCannotBeExamined) {
    expect_refusal(-1, -EINVAL, "check_vol_size[N]: - cannot access volume\n");
}

TEST_F(CheckVolSize, RefusesADeviceThatDoesNotTellItsSize) {
    const int fd = open(scratch.sparse_file("device", 4096).c_str(), O_RDWR);
    const pretended_device device({.is_block_device = true, .seek_end = 4096});
    const failing_call fault(call::ioctl, ENOTTY);
    expect_refusal(fd, -EACCES,
                   "check_vol_size[N]: cannot get the volume size: "
                   "ioctl(BLKGETSIZE)\n");
}

TEST_F(CheckVolSize, ADeviceWithOneSizeIsTakenAtItsWord) {
    expect_device(2048, 1048576, 1048576,
                  "check_vol_size[N]: ioctl(BLKGETSIZE): 2048 sectors, 1048576 bytes\n"
                  "check_vol_size[N]: seek volume: 1048576 bytes\n");
}

TEST_F(CheckVolSize, BytesBehindTheLastFullSectorAreNoMismatch) {
    expect_device(2048, 1048576 + 511, 1048576 + 511,
                  "check_vol_size[N]: ioctl(BLKGETSIZE): 2048 sectors, 1048576 bytes\n"
                  "check_vol_size[N]: seek volume: 1049087 bytes\n");
}

TEST_F(CheckVolSize, TheDeviceSizeWinsOverASeekOneSectorLarger) {
    expect_device(2048, 1048576 + 512, 1048576,
                  "check_vol_size[N]: ioctl(BLKGETSIZE): 2048 sectors, 1048576 bytes\n"
                  "check_vol_size[N]: seek volume: 1049088 bytes\n"
                  "Warning: mismatch the volume size from ioctl(1048576 B) and "
                  "lseek(1049088 B)\n");
}

TEST_F(CheckVolSize, ASeekOneByteShortOfTheDeviceSizeStays) {
    expect_device(2048, 1048575, 1048575,
                  "check_vol_size[N]: ioctl(BLKGETSIZE): 2048 sectors, 1048576 bytes\n"
                  "check_vol_size[N]: seek volume: 1048575 bytes\n"
                  "Warning: mismatch the volume size from ioctl(1048576 B) and "
                  "lseek(1048575 B)\n");
}

TEST_F(CheckVolSize, ADeviceOfNoSectorsIsEmptyWhateverSeekSays) {
    expect_device(0, 512, 0,
                  "check_vol_size[N]: ioctl(BLKGETSIZE): 0 sectors, 0 bytes\n"
                  "check_vol_size[N]: seek volume: 512 bytes\n"
                  "Warning: mismatch the volume size from ioctl(0 B) and lseek(512 B)\n");
}

TEST_F(CheckVolSize, OneSectorBelow4GiBStillFits) {
    expect_device(0x7FFFFF, 0xFFFFFE00, 0xFFFFFE00,
                  "check_vol_size[N]: ioctl(BLKGETSIZE): 8388607 sectors, 4294966784 bytes\n"
                  "check_vol_size[N]: seek volume: 4294966784 bytes\n");
}

TEST_F(CheckVolSize, AgreeingSizesOf4GiBAreTakenThoughTheProductWraps) {
    expect_device(0x800000, 0x100000000, 0x100000000,
                  "check_vol_size[N]: ioctl(BLKGETSIZE): 8388608 sectors, 0 bytes\n"
                  "check_vol_size[N]: seek volume: 4294967296 bytes\n");
}

TEST_F(CheckVolSize, ALargerSeekBeyond4GiBGivesTheWrappedProduct) {
    expect_device(0x900000, 0x120000200, 0x20000000,
                  "check_vol_size[N]: ioctl(BLKGETSIZE): 9437184 sectors, 536870912 bytes\n"
                  "check_vol_size[N]: seek volume: 4831838720 bytes\n"
                  "Warning: mismatch the volume size from ioctl(536870912 B) and "
                  "lseek(4831838720 B)\n");
}

TEST_F(CheckVolSize, ASmallerSeekBeyond4GiBStays) {
    expect_device(0x900000, 0x11FFFFE00, 0x11FFFFE00,
                  "check_vol_size[N]: ioctl(BLKGETSIZE): 9437184 sectors, 536870912 bytes\n"
                  "check_vol_size[N]: seek volume: 4831837696 bytes\n"
                  "Warning: mismatch the volume size from ioctl(536870912 B) and "
                  "lseek(4831837696 B)\n");
}

TEST_F(CheckVolSize, ComparesSectorCountsBeyond32BitsWhole) {
    if (sizeof(unsigned long) < 8) {
        GTEST_SKIP() << "BLKGETSIZE answers in 32 bits here";
    }
    expect_device(0x100000008, 4096, 4096,
                  "check_vol_size[N]: ioctl(BLKGETSIZE): 8 sectors, 4096 bytes\n"
                  "check_vol_size[N]: seek volume: 4096 bytes\n"
                  "Warning: mismatch the volume size from ioctl(4096 B) and lseek(4096 B)\n");
    expect_device(0x100000008, 0x20000001000, 0x20000001000,
                  "check_vol_size[N]: ioctl(BLKGETSIZE): 8 sectors, 4096 bytes\n"
                  "check_vol_size[N]: seek volume: 2199023259648 bytes\n");
}

TEST_F(CheckVolSize, ASeekThatTellsNothingIsReplacedBySearching) {
    expect_device(8, 0, 4096,
                  "check_vol_size[N]: ioctl(BLKGETSIZE): 8 sectors, 4096 bytes\n"
                  "check_vol_size[N]: seek volume: 4096 bytes\n");
}

TEST_F(OpenVolume, TakesTheSmallerSizeOfABlockDevice) {
    const pretended_device device({.is_block_device = true, .ioctl_sectors = 16, .seek_end = 8704});
    ASSERT_GE(fat_open_volume(scratch.sparse_file("device", 8704).c_str(), 0, 0), 0);
    EXPECT_EQ(sv->vol_size, 8192U);
    EXPECT_EQ(said.text(),
              "check_vol_size[N]: ioctl(BLKGETSIZE): 16 sectors, 8192 bytes\n"
              "check_vol_size[N]: seek volume: 8704 bytes\n"
              "Warning: mismatch the volume size from ioctl(8192 B) and lseek(8704 B)\n");
}

TEST_F(OpenVolume, ADeviceWhoseProductWrapsToNothingIsEmpty) {
    const pretended_device device(
        {.is_block_device = true, .ioctl_sectors = 0x800000, .seek_end = 0x100000200});
    EXPECT_EQ(fat_open_volume(scratch.sparse_file("device", 4096).c_str(), 0, 0), -ENOSPC);
    EXPECT_EQ(said.text(), "check_vol_size[N]: ioctl(BLKGETSIZE): 8388608 sectors, 0 bytes\n"
                           "check_vol_size[N]: seek volume: 4294967808 bytes\n"
                           "Warning: mismatch the volume size from ioctl(0 B) and "
                           "lseek(4294967808 B)\n"
                           "fat_init_volume[N]: The size of volume is zero!\n\n");
    EXPECT_EQ(left_open().size(), 1U);
}

class DeviceSize : public volume_test {
protected:
    // Size of a file of `length` bytes whose end cannot be sought.
    u64 searched_size(u64 length) {
        const int fd = open(scratch.sparse_file("device", length).c_str(), O_RDONLY);
        const pretended_device device({.seek_end = 0});
        const u64 size = get_device_size(fd);
        close(fd);
        return size;
    }
};

TEST_F(DeviceSize, IsWhereTheEndIs) {
    const int fd = open(scratch.sparse_file("device", 4 * GIB + 1).c_str(), O_RDONLY);
    EXPECT_EQ(get_device_size(fd), 4 * GIB + 1);
    EXPECT_EQ(said.text(), "");
}

TEST_F(DeviceSize, AnEndAtOneIsBelieved) {
    const int fd = open(scratch.sparse_file("device", 100).c_str(), O_RDONLY);
    const pretended_device device({.seek_end = 1});
    EXPECT_EQ(get_device_size(fd), 1U);
}

TEST_F(DeviceSize, IsFoundByTryingOffsets) {
    for (u64 length = 1; length <= 70; length++) {
        EXPECT_EQ(searched_size(length), length);
    }
    for (const u64 length : {u64{511}, u64{512}, u64{513}, u64{65535}, u64{65536}, u64{65537},
                             u64{1000003}, 2 * GIB - 1, 2 * GIB + 1, 4 * GIB, 7 * GIB + 12345}) {
        EXPECT_EQ(searched_size(length), length);
    }
    EXPECT_EQ(said.text(), "");
}

TEST_F(DeviceSize, TheSearchFindsAtLeastOneByte) {
    EXPECT_EQ(searched_size(0), 1U);
    EXPECT_EQ(said.text(), "");
}

TEST_F(DeviceSize, IsSearchedWhenTheEndCannotBeSought) {
    const int fd = open(scratch.sparse_file("device", 777).c_str(), O_RDONLY);
    const failing_call fault(call::lseek, EIO);
    EXPECT_EQ(get_device_size(fd), 777U);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(said.text(), "");
}

TEST_F(DeviceSize, IsOneByteWhereNothingCanBeSought) {
    int ends[2] = {};
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(get_device_size(ends[0]), 1U);
    EXPECT_EQ(said.text(), "valid_offset[N]: Check here!\n\n");
}

TEST_F(DeviceSize, AFailingProbeCountsAsBeyondTheEnd) {
    // The probes of 100 bytes are 1, 2, 4, ..., 64, 128; the one at 64 fails.
    const int fd = open(scratch.sparse_file("device", 100).c_str(), O_RDONLY);
    const pretended_device device({.seek_end = 0});
    const failing_call fault(call::read, EIO, 6);
    EXPECT_EQ(get_device_size(fd), 64U);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(said.text(), "");
}

TEST_F(DeviceSize, TheSearchEndsOnADeviceWithoutEnd) {
    EXPECT_GT(get_device_size(open("/dev/zero", O_RDONLY)), 4 * GIB);
}

class ValidOffset : public volume_test {};

TEST_F(ValidOffset, IsOneUpToTheLastByte) {
    const int fd = open(scratch.sparse_file("file", 100).c_str(), O_RDONLY);
    EXPECT_EQ(valid_offset(fd, 0), 1);
    EXPECT_EQ(valid_offset(fd, 99), 1);
    EXPECT_EQ(valid_offset(fd, 100), 0);
    EXPECT_EQ(valid_offset(fd, 101), 0);
    EXPECT_EQ(said.text(), "");
}

TEST_F(ValidOffset, CountsIn64Bits) {
    const int fd = open(scratch.sparse_file("file", 4 * GIB + 100).c_str(), O_RDONLY);
    EXPECT_EQ(valid_offset(fd, 4 * GIB + 99), 1);
    EXPECT_EQ(valid_offset(fd, 4 * GIB + 100), 0);
    EXPECT_EQ(valid_offset(fd, 8 * GIB + 5), 0);
}

TEST_F(ValidOffset, TellsThatASeekFailed) {
    EXPECT_EQ(valid_offset(-1, 0), 0);
    EXPECT_EQ(said.text(), "valid_offset[N]: Check here!\n\n");
}

TEST_F(ValidOffset, TellsThatNoFileHasSuchAnOffset) {
    const int fd = open(scratch.sparse_file("file", 100).c_str(), O_RDONLY);
    EXPECT_EQ(valid_offset(fd, 1ULL << 63), 0);
    EXPECT_EQ(said.text(), "valid_offset[N]: Check here!\n\n");
}

TEST_F(ValidOffset, IsZeroWithoutAWordWhereReadingFails) {
    const int fd = open(scratch.sparse_file("file", 100).c_str(), O_WRONLY);
    EXPECT_EQ(valid_offset(fd, 0), 0);
    EXPECT_EQ(said.text(), "");
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
    // Opens a volume whose bytes are known; sector size 0 is the unit of an unknown geometry.
    void open_known(u32 sector_size, std::size_t length = 40960) {
        content = counted_bytes(length);
        path = scratch.file_with("image", content);
        ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
        sv->sector_size = sector_size;
    }

    // Puts another descriptor in place of the volume's; the old one is closed with the case.
    static void replace_descriptor(int fd) {
        sv->fd = fd;
    }

    bytes content;
    std::string path;
    bytes buffer = bytes(16384, 0xEE);
};

TEST_F(SectorTransfer, ReadsInUnitsOf4096BeforeTheGeometryIsKnown) {
    open_known(0);
    EXPECT_EQ(file_read_sectors(buffer.data(), 3, 2), 2);
    EXPECT_EQ(part(buffer, 0, 8192), part(content, 3 * 4096, 8192));
    EXPECT_EQ(part(buffer, 8192, 8192), bytes(8192, 0xEE));
    EXPECT_EQ(said.text(), "");
}

TEST_F(SectorTransfer, WritesInUnitsOf4096BeforeTheGeometryIsKnown) {
    open_known(0);
    EXPECT_EQ(file_write_sectors(buffer.data(), 3, 2), 2);
    std::fill_n(content.begin() + 3 * 4096, 8192, 0xEE);
    EXPECT_EQ(read_file(path), content);
    EXPECT_EQ(said.text(), "");
}

TEST_F(SectorTransfer, ReadsEverySectorSize) {
    for (const u32 sector_size : {512U, 1024U, 2048U, 4096U}) {
        open_known(sector_size);
        EXPECT_EQ(file_read_sectors(buffer.data(), 5, 3), 3);
        const u32 size = 3 * sector_size;
        EXPECT_EQ(part(buffer, 0, size), part(content, 5 * sector_size, size));
        fat_close_volume(0);
    }
}

TEST_F(SectorTransfer, WritesEverySectorSize) {
    for (const u32 sector_size : {512U, 1024U, 2048U, 4096U}) {
        open_known(sector_size);
        EXPECT_EQ(file_write_sectors(buffer.data(), 5, 3), 3);
        std::fill_n(content.begin() + 5 * sector_size, 3 * sector_size, 0xEE);
        EXPECT_EQ(read_file(path), content);
        fat_close_volume(0);
    }
}

TEST_F(SectorTransfer, StartsAtTheFirstSector) {
    open_known(512);
    EXPECT_EQ(file_read_sectors(buffer.data(), 0, 1), 1);
    EXPECT_EQ(part(buffer, 0, 512), part(content, 0, 512));
    EXPECT_EQ(file_write_sectors(bytes(512, 0x11).data(), 0, 1), 1);
    std::fill_n(content.begin(), 512, 0x11);
    EXPECT_EQ(read_file(path), content);
}

TEST_F(SectorTransfer, DoesNotDependOnWhereTheLastOneEnded) {
    open_known(512);
    EXPECT_EQ(file_read_sectors(buffer.data(), 70, 1), 1);
    EXPECT_EQ(file_read_sectors(buffer.data(), 2, 1), 1);
    EXPECT_EQ(part(buffer, 0, 512), part(content, 1024, 512));
}

TEST_F(SectorTransfer, NoSectorsAreMovedWhenNoneAreAsked) {
    open_known(512);
    EXPECT_EQ(file_read_sectors(buffer.data(), 1, 0), 0);
    EXPECT_EQ(buffer, bytes(16384, 0xEE));
    EXPECT_EQ(file_write_sectors(buffer.data(), 1, 0), 0);
    EXPECT_EQ(read_file(path), content);
    EXPECT_EQ(said.text(), "");
}

TEST_F(SectorTransfer, ReachesBeyond4GiB) {
    path = scratch.sparse_file("image", 5 * GIB);
    ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
    sv->sector_size = 512;
    const bytes written = counted_bytes(1024);
    bytes copy = written;
    const u64 sector = (4 * GIB + 65536) / 512;
    EXPECT_EQ(file_write_sectors(copy.data(), sector, 2), 2);
    EXPECT_EQ(read_range(path, sector * 512, 1024), written);
    EXPECT_EQ(read_range(path, 65536, 1024), bytes(1024, 0)) << "the offset was cut to 32 bits";
    EXPECT_EQ(file_read_sectors(buffer.data(), sector, 2), 2);
    EXPECT_EQ(part(buffer, 0, 1024), written);
}

TEST_F(SectorTransfer, SectorNumbersHave64Bits) {
    path = scratch.sparse_file("image", 512 * ((1ULL << 32) + 8));
    ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
    sv->sector_size = 512;
    const bytes written = counted_bytes(512);
    bytes copy = written;
    EXPECT_EQ(file_write_sectors(copy.data(), (1ULL << 32) + 7, 1), 1);
    EXPECT_EQ(read_range(path, 512 * ((1ULL << 32) + 7), 512), written);
    EXPECT_EQ(read_range(path, 512 * 7, 512), bytes(512, 0));
    EXPECT_EQ(file_read_sectors(buffer.data(), (1ULL << 32) + 7, 1), 1);
    EXPECT_EQ(part(buffer, 0, 512), written);
}

TEST_F(SectorTransfer, ReadingAcrossTheEndCountsTheWholeSectorsBeforeIt) {
    open_known(512, 5 * 512 + 100);
    EXPECT_EQ(file_read_sectors(buffer.data(), 3, 4), 2);
    EXPECT_EQ(part(buffer, 0, 1024 + 100), part(content, 3 * 512, 1024 + 100));
    EXPECT_EQ(file_read_sectors(buffer.data(), 5, 1), 0);
    EXPECT_EQ(file_read_sectors(buffer.data(), 6, 1), 0);
    EXPECT_EQ(said.text(), "");
}

TEST_F(SectorTransfer, WritingBehindTheEndMakesAFileLonger) {
    open_known(512, 1024);
    EXPECT_EQ(file_write_sectors(buffer.data(), 4, 1), 1);
    content.resize(2048, 0);
    content.resize(2560, 0xEE);
    EXPECT_EQ(read_file(path), content);
}

TEST_F(SectorTransfer, AShortReadIsCountedNotRepeated) {
    open_known(512);
    const pretended_device device({.short_transfer_bytes = 1500});
    EXPECT_EQ(file_read_sectors(buffer.data(), 1, 8), 2);
    EXPECT_EQ(part(buffer, 0, 1500), part(content, 512, 1500));
    EXPECT_EQ(part(buffer, 1500, 8000), bytes(8000, 0xEE));
    EXPECT_EQ(said.text(), "");
}

TEST_F(SectorTransfer, AShortWriteIsCountedNotRepeated) {
    open_known(512);
    {
        const pretended_device device({.short_transfer_bytes = 1500});
        EXPECT_EQ(file_write_sectors(buffer.data(), 1, 8), 2);
    }
    std::fill_n(content.begin() + 512, 1500, 0xEE);
    EXPECT_EQ(read_file(path), content);
    EXPECT_EQ(said.text(), "");
}

TEST_F(SectorTransfer, LessThanASectorCountsAsNone) {
    open_known(512);
    const pretended_device device({.short_transfer_bytes = 511});
    EXPECT_EQ(file_read_sectors(buffer.data(), 0, 1), 0);
    EXPECT_EQ(file_write_sectors(buffer.data(), 0, 1), 0);
}

TEST_F(SectorTransfer, RefusesTheStandardDescriptors) {
    open_known(512);
    const int own = sv->fd;
    for (const int fd : {2, 1, 0, -1}) {
        replace_descriptor(fd);
        said.clear();
        EXPECT_EQ(file_read_sectors(buffer.data(), 0, 1), -EINVAL) << fd;
        EXPECT_EQ(said.text(), "file_read_sectors[N]: Check here!\n\n");
        said.clear();
        EXPECT_EQ(file_write_sectors(buffer.data(), 0, 1), -EINVAL) << fd;
        EXPECT_EQ(said.text(), "file_write_sectors[N]: Check here!\n\n");
    }
    replace_descriptor(own);
}

TEST_F(SectorTransfer, TheFirstDescriptorServedIsThree) {
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

TEST_F(SectorTransfer, TellsWhichSectorCannotBeSoughtForReading) {
    open_known(512);
    const failing_call fault(call::lseek, EIO, 0, true);
    EXPECT_EQ(file_read_sectors(buffer.data(), 3, 1), -EIO);
    EXPECT_EQ(said.text(), "file_read_sectors[N]: Check here!: Input/output error (3 x 512)\n\n");
    EXPECT_EQ(buffer, bytes(16384, 0xEE));
}

TEST_F(SectorTransfer, CutsTheSectorItCannotSeekToAnInt) {
    open_known(0);
    const failing_call fault(call::lseek, EOVERFLOW, 0, true);
    EXPECT_EQ(file_read_sectors(buffer.data(), 0x500000007, 1), -EIO);
    EXPECT_EQ(file_read_sectors(buffer.data(), 0xFFFFFFFF, 1), -EIO);
    const std::string reason = name_of(EOVERFLOW);
    EXPECT_EQ(said.text(), "file_read_sectors[N]: Check here!: " + reason + " (7 x 4096)\n\n" +
                               "file_read_sectors[N]: Check here!: " + reason + " (-1 x 4096)\n\n");
}

TEST_F(SectorTransfer, TellsThatWritingCannotSeek) {
    open_known(512);
    const failing_call fault(call::lseek, EIO, 0, true);
    EXPECT_EQ(file_write_sectors(buffer.data(), 3, 1), -EIO);
    EXPECT_EQ(said.text(), "file_write_sectors[N]: Check here!\n\n");
    EXPECT_EQ(read_file(path), content);
}

TEST_F(SectorTransfer, AnOffsetThatNoFileCanHaveCannotBeSought) {
    open_known(0);
    EXPECT_EQ(file_read_sectors(buffer.data(), 1ULL << 51, 1), -EIO);
    EXPECT_EQ(said.text(), "file_read_sectors[N]: Check here!: Invalid argument (0 x 4096)\n\n");
    said.clear();
    EXPECT_EQ(file_write_sectors(buffer.data(), 1ULL << 51, 1), -EIO);
    EXPECT_EQ(said.text(), "file_write_sectors[N]: Check here!\n\n");
    EXPECT_EQ(read_file(path), content);
}

TEST_F(SectorTransfer, APipeCannotBeSought) {
    open_known(512);
    int ends[2] = {};
    ASSERT_EQ(pipe(ends), 0);
    replace_descriptor(ends[0]);
    EXPECT_EQ(file_read_sectors(buffer.data(), 1, 1), -EIO);
    EXPECT_EQ(said.text(), "file_read_sectors[N]: Check here!: Illegal seek (1 x 512)\n\n");
    said.clear();
    replace_descriptor(ends[1]);
    EXPECT_EQ(file_write_sectors(buffer.data(), 1, 1), -EIO);
    EXPECT_EQ(said.text(), "file_write_sectors[N]: Check here!\n\n");
}

TEST_F(SectorTransfer, TellsWhyReadingFails) {
    open_known(512);
    for (const int error : {EIO, EINTR, EAGAIN}) {
        said.clear();
        const failing_call fault(call::read, error);
        EXPECT_EQ(file_read_sectors(buffer.data(), 3, 1), -EIO);
        EXPECT_TRUE(fault.struck());
        EXPECT_EQ(said.text(), "file_read_sectors[N]: Check here!: " + name_of(error) + "\n\n");
    }
    EXPECT_EQ(buffer, bytes(16384, 0xEE));
}

TEST_F(SectorTransfer, ReadingFailsOnADescriptorForWriting) {
    open_known(512);
    replace_descriptor(open(path.c_str(), O_WRONLY));
    EXPECT_EQ(file_read_sectors(buffer.data(), 3, 1), -EIO);
    EXPECT_EQ(said.text(), "file_read_sectors[N]: Check here!: Bad file descriptor\n\n");
}

TEST_F(SectorTransfer, TellsThatWritingFails) {
    open_known(512);
    for (const int error : {EIO, EINTR, ENOSPC}) {
        said.clear();
        const failing_call fault(call::write, error);
        EXPECT_EQ(file_write_sectors(buffer.data(), 3, 1), -EIO);
        EXPECT_TRUE(fault.struck());
        EXPECT_EQ(said.text(), "file_write_sectors[N]: Check here!\n\n");
    }
    EXPECT_EQ(read_file(path), content);
}

TEST_F(SectorTransfer, WritingFailsOnADescriptorForReading) {
    open_known(512);
    replace_descriptor(open(path.c_str(), O_RDONLY));
    EXPECT_EQ(file_write_sectors(buffer.data(), 3, 1), -EIO);
    EXPECT_EQ(said.text(), "file_write_sectors[N]: Check here!\n\n");
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
        EXPECT_EQ(said.text(), "create_fat_volume[N]: " + message + "\n\n");
        EXPECT_TRUE(left_open().empty());
        EXPECT_TRUE(transfers_are_unset());
        EXPECT_EQ(sv, nullptr);
    }
};

TEST_F(CreateVolume, FillsAFileWithZeros) {
    const std::string path = scratch.file("image");
    const int fd = create_fat_volume(path.c_str(), 1000, 3);
    EXPECT_EQ(said.text(), "");
    EXPECT_EQ(left_open(), std::vector<int>{fd});
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(read_file(path), bytes(3000, 0));
}

TEST_F(CreateVolume, SetsTheTransfersButOpensNoVolume) {
    EXPECT_GE(create_fat_volume(scratch.file("image").c_str(), 512, 1), 0);
    EXPECT_TRUE(transfers_reach_the_file());
    EXPECT_EQ(sv, nullptr);
}

TEST_F(CreateVolume, KeepsNoMemory) {
    const std::string path = scratch.file("image");
    const allocation_meter meter;
    EXPECT_GE(create_fat_volume(path.c_str(), 4096, 2), 0);
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_F(CreateVolume, ReplacesWhatTheFileHeld) {
    const std::string path = scratch.file_with("image", counted_bytes(9000));
    EXPECT_GE(create_fat_volume(path.c_str(), 512, 4), 0);
    EXPECT_EQ(read_file(path), bytes(2048, 0));
}

TEST_F(CreateVolume, GivesTheFileToItsOwnerAndGroup) {
    const mode_t old_mask = umask(0);
    const std::string path = scratch.file("image");
    EXPECT_GE(create_fat_volume(path.c_str(), 512, 1), 0);
    umask(old_mask);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0660U);
}

TEST_F(CreateVolume, NoBlocksMakeAnEmptyFile) {
    for (const int count : {0, -1}) {
        const std::string path = scratch.file_with("image", counted_bytes(100));
        const int fd = create_fat_volume(path.c_str(), 512, count);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(read_file(path), bytes{});
        close(fd);
    }
    EXPECT_EQ(said.text(), "");
}

TEST_F(CreateVolume, EmptyBlocksMakeAnEmptyFile) {
    const std::string path = scratch.file("image");
    EXPECT_GE(create_fat_volume(path.c_str(), 0, 3), 0);
    EXPECT_EQ(read_file(path), bytes{});
}

TEST_F(CreateVolume, AShortWriteIsNoFailure) {
    const std::string path = scratch.file("image");
    const pretended_device device({.short_transfer_bytes = 300});
    EXPECT_GE(create_fat_volume(path.c_str(), 512, 4), 0);
    EXPECT_EQ(said.text(), "");
    EXPECT_EQ(read_file(path), bytes(1200, 0));
}

TEST_F(CreateVolume, TellsThatTheFileCannotBeOpened) {
    expect_failure(create_fat_volume(scratch.file("no/image").c_str(), 512, 1), -ENOENT,
                   "failed to open file!");
}

TEST_F(CreateVolume, ReturnsTheErrorOfAnyFailedOpen) {
    const std::string path = scratch.file("image");
    for (const int error : {EACCES, EROFS, ENOSPC}) {
        said.clear();
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
        said.clear();
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

TEST_F(CreateVolume, AFullDeviceCannotBeWritten) {
    expect_failure(create_fat_volume("/dev/full", 512, 1), -EIO, "failed to write!");
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

TEST_F(Diagnostics, GoToTheChosenStream) {
    standard_error err;
    standard_output out;
    provoke();
    EXPECT_EQ(out.stop(), "");
    EXPECT_EQ(err.stop(), "");
    EXPECT_EQ(said.text(), EVERYTHING);
}

TEST_F(Diagnostics, NoStreamSilencesPrefixedAndBareLines) {
    standard_error err;
    standard_output out;
    fat_set_diagnostics(nullptr);
    provoke();
    EXPECT_EQ(out.stop(), "");
    EXPECT_EQ(err.stop(), "");
    EXPECT_EQ(said.text(), "");
}

TEST_F(Diagnostics, StandardErrorCanBeChosenAgain) {
    standard_error err;
    fat_set_diagnostics(nullptr);
    fat_set_diagnostics(stderr);
    EXPECT_EQ(fat_open_volume(nullptr, 0, 1), -EINVAL);
    EXPECT_EQ(said.text(), "");
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
    const std::string printed = said.raw();
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
