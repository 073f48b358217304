// Runs of the program on real block devices: loop devices over sparse files.

#include "tests/support/files.h"
#include "tests/support/loop_device.h"
#include "tests/support/tool.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

using namespace testing_support;

namespace {

// The two lines with the size of a device; the first counts bytes in 32 bits.
std::string size_lines(std::uint64_t sectors) {
    const auto cut_sectors = static_cast<std::uint32_t>(sectors);
    return "check_vol_size[N]: ioctl(BLKGETSIZE): " + std::to_string(cut_sectors) + " sectors, " +
           std::to_string(cut_sectors * 512) + " bytes\n" +
           "check_vol_size[N]: seek volume: " + std::to_string(sectors * 512) + " bytes\n";
}

class BlockDeviceTest : public ::testing::Test {
protected:
    static constexpr std::uint64_t SMALL_SECTORS = 8192;

    void SetUp() override {
        const std::string trouble =
            trouble_with_loop_devices(scratch.sparse_file("probe.img", 1 << 20));
        if (!trouble.empty()) {
            GTEST_SKIP() << trouble;
        }
    }

    // A file of `sectors` sectors of 512 bytes, the first 16 KiB of them taken.
    [[nodiscard]] std::string backing_file(std::uint64_t sectors,
                                           const std::string &name = "disk.img") const {
        const std::string path = scratch.file_with(name, bytes(16384, 0xA5));
        std::filesystem::resize_file(path, sectors * 512);
        return path;
    }

    // An image file of the same size and content, formatted with the same options.
    [[nodiscard]] bytes formatted_file(std::uint64_t sectors,
                                       std::vector<std::string> options) const {
        const std::string path = backing_file(sectors, "reference.img");
        options.push_back(path);
        EXPECT_EQ(run_tool(options), (outcome{0, SUCCESS, ""}));
        return without_moment(path);
    }

    scratch_directory scratch;
};

} // namespace

// ---- formatting -------------------------------------------------------------------------------

TEST_F(BlockDeviceTest, PrintsBothSizesAndFormats) {
    for (const std::uint64_t sectors : {8192, 8191, 8193}) {
        SCOPED_TRACE(sectors);
        const std::string file = backing_file(sectors);
        const loop_device device(file);
        ASSERT_EQ(device.trouble(), "");
        ASSERT_EQ(device.sectors(), sectors);
        EXPECT_EQ(run_tool({"-S", "512", device.path()}),
                  (outcome{0, SUCCESS, size_lines(sectors)}));
        // The device still exists, and the data written to it have reached the file below it.
        EXPECT_EQ(without_moment(file), formatted_file(sectors, {"-S", "512"}));
    }
}

TEST_F(BlockDeviceTest, FormatsDevicesWithSectorsOf4096Bytes) {
    for (const std::uint64_t sectors : {8192, 8200, 8193}) {
        SCOPED_TRACE(sectors);
        const std::string file = backing_file(sectors);
        const loop_device device(file, {"--sector-size", "4096"});
        if (!device.trouble().empty()) {
            GTEST_SKIP() << "no loop device with sectors of 4096 bytes: " << device.trouble();
        }
        // A kernel may omit the part that does not fill a sector of the device.
        ASSERT_LE(device.sectors(), sectors);
        ASSERT_GT(device.sectors() + 8, sectors);
        EXPECT_EQ(run_tool({"-S", "512", device.path()}),
                  (outcome{0, SUCCESS, size_lines(device.sectors())}));
        if (device.sectors() == sectors) {
            EXPECT_EQ(without_moment(file), formatted_file(sectors, {"-S", "512"}));
        }
    }
}

TEST_F(BlockDeviceTest, ShowsTheSummaryOfADevice) {
    const loop_device device(backing_file(131073));
    ASSERT_EQ(device.trouble(), "");
    EXPECT_EQ(run_tool({"-v", device.path()}), (outcome{0,
                                                        "- Volume size:\t\t67109376 Bytes\n"
                                                        "- FAT type:\t\t16 bits\n"
                                                        "- FAT size:\t\t8 sectors\n"
                                                        "- Total sectors:\t16384 sectors\n"
                                                        "- Cluster counts:\t16363 \n"
                                                        "- Sector size:\t\t4096 Bytes\n"
                                                        "- Sectors/cluster:\t1 \n"
                                                        "- FAT start:\t\t1th sector\n"
                                                        "- RDIR start:\t\t17th sector\n"
                                                        "- DATA start:\t\t21th sector\n"
                                                        "- PBR start:\t\t0th sector\n" +
                                                            SUCCESS,
                                                        size_lines(131073)}));
}

TEST_F(BlockDeviceTest, CountsTheBytesOfALargeDeviceIn32BitsButFormatsAllOfIt) {
    const std::uint64_t sectors = (5ULL << 30) / 512;
    const std::string file = backing_file(sectors);
    const loop_device device(file);
    ASSERT_EQ(device.trouble(), "");
    EXPECT_EQ(run_tool({device.path()}),
              (outcome{0, SUCCESS,
                       "check_vol_size[N]: ioctl(BLKGETSIZE): 10485760 sectors, 1073741824 bytes\n"
                       "check_vol_size[N]: seek volume: 5368709120 bytes\n"}));
    const bytes pbr = read_range(file, 0, 512);
    EXPECT_EQ(number_at(pbr, 32, 4), 1310720u); // sectors of 4096 bytes
}

TEST_F(BlockDeviceTest, PassesTheCheckOfAnotherFatImplementation) {
    if (!has_program("fsck.fat")) {
        GTEST_SKIP() << "fsck.fat is not installed";
    }
    const loop_device device(backing_file(131073));
    ASSERT_EQ(device.trouble(), "");
    ASSERT_EQ(run_tool({device.path()}).status, 0);
    const outcome result = run({"fsck.fat", "-n", device.path()});
    EXPECT_EQ(result.out.substr(result.out.find('\n') + 1),
              "Volume label '' stored in root directory is not valid.\n"
              "  Auto-removing label.\n"
              "\nLeaving filesystem unchanged.\n" +
                  device.path() + ": 1 files, 0/16363 clusters\n");
}

// ---- the kernel's own driver ------------------------------------------------------------------

TEST_F(BlockDeviceTest, IsMountedAndUsedByTheKernel) {
    if (!can_mount_privately() || !has_program("mkfs.fat")) {
        GTEST_SKIP() << "no mount namespace for this user, or no mkfs.fat";
    }
    const std::string directory = scratch.file("mounted");
    std::filesystem::create_directory(directory);
    const std::string control = scratch.sparse_file("control.img", 64ULL << 20);
    ASSERT_EQ(run({"mkfs.fat", "-F", "16", control}).status, 0);
    const outcome mounted = shell_with_private_mounts("modprobe -q vfat 2>/dev/null; "
                                                      "mount -o loop -t vfat \"$1\" \"$2\"",
                                                      {control, directory});
    if (mounted.status != 0) {
        GTEST_SKIP() << "this kernel mounts no FAT volume at all: " << mounted.err;
    }
    const struct {
        std::uint64_t sectors;
        std::vector<std::string> options;
    } cases[] = {
        {131073, {}},
        {8193, {"-S", "512"}},
        {131072, {"-S", "2048", "-s", "2"}},
        {1048577, {}},
        {262144, {"-S", "512", "-s", "2", "-F", "32", "-p", "8192"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.sectors);
        const loop_device device(backing_file(c.sectors));
        ASSERT_EQ(device.trouble(), "");
        std::vector<std::string> arguments = c.options;
        arguments.push_back(device.path());
        ASSERT_EQ(run_tool(arguments).status, 0);
        const std::string script =
            "mount -t vfat \"$1\" \"$2\" && ls -A \"$2\" && mkdir \"$2/sub\" && "
            "cp \"$3\" \"$2/sub/A file.bin\" && umount \"$2\" && "
            "mount \"$1\" \"$2\" && cmp \"$3\" \"$2/sub/A file.bin\" && "
            "ls \"$2\" && umount \"$2\"";
        EXPECT_EQ(shell_with_private_mounts(script, {device.path(), directory, tool_path()}),
                  (outcome{0, "sub\n", ""}));
    }
}

// ---- refusals ---------------------------------------------------------------------------------

TEST_F(BlockDeviceTest, RefusesADeviceThatIsMounted) {
    if (!can_mount_privately() || !has_program("mkfs.ext2")) {
        GTEST_SKIP() << "no mount namespace for this user, or no mkfs.ext2";
    }
    const std::string file = backing_file(SMALL_SECTORS);
    const loop_device device(file);
    ASSERT_EQ(device.trouble(), "");
    ASSERT_EQ(run({"mkfs.ext2", "-q", "-F", device.path()}).status, 0);
    const std::string directory = scratch.file("mounted");
    std::filesystem::create_directory(directory);
    const std::vector<std::string> arguments = {device.path(), directory, tool_path()};
    const std::string mount_it = "mount -t ext2 \"$1\" \"$2\" && ";
    if (shell_with_private_mounts(mount_it + "grep -q \"^$1 \" /etc/mtab", arguments).status != 0) {
        GTEST_SKIP() << "this kernel does not mount ext2, or /etc/mtab does not show it";
    }
    EXPECT_EQ(shell_with_private_mounts(mount_it + "exec \"$3\" -S 512 \"$1\"", arguments),
              (outcome{EXIT_REFUSED, "", device.path() + " is already mounted\n"}));
    // The file system is not damaged, and is overwritten after it is unmounted.
    EXPECT_EQ(run({"fsck.ext2", "-f", "-n", device.path()}).status, 0);
    EXPECT_EQ(run_tool({"-S", "512", device.path()}),
              (outcome{0, SUCCESS, size_lines(SMALL_SECTORS)}));
}

TEST_F(BlockDeviceTest, FailsOnAReadOnlyDevice) {
    const std::string file = backing_file(SMALL_SECTORS);
    const bytes before = read_file(file);
    const loop_device device(file, {"--read-only"});
    ASSERT_EQ(device.trouble(), "");
    // Kernels differ in whether they refuse the opening or the first write.
    const int fd = open(device.path().c_str(), O_RDWR | O_CLOEXEC);
    const int error = errno;
    if (fd >= 0) {
        close(fd);
    }
    const std::string diagnostics =
        fd < 0 ? std::string("fat_init_volume[N]: Check here: ") + std::strerror(error) + "\n\n"
               : size_lines(SMALL_SECTORS) + "file_write_sectors[N]: Check here!\n\n"
                                             "write_tables_vol[N]: Cannot write PBR sector\n\n";
    EXPECT_EQ(run_tool({"-v", "-S", "512", device.path()}),
              (outcome{EXIT_REFUSED, FAILURE, diagnostics}));
    EXPECT_TRUE(has_content(file, before));
}

TEST_F(BlockDeviceTest, RefusesADeviceThatIsTooSmall) {
    const std::string file = backing_file(33);
    const bytes before = read_file(file);
    const loop_device device(file);
    ASSERT_EQ(device.trouble(), "");
    EXPECT_EQ(
        run_tool({"-v", device.path()}),
        (outcome{
            EXIT_REFUSED, FAILURE,
            size_lines(33) +
                "Volume size(16896) is too small to format the volume to FAT16\n"
                "Retry to format after enlarge the volume size to larger than (rdir area(4) + reserved area(1)) * sector size(4096)\n" +
                GEOMETRY_REFUSED}));
    EXPECT_TRUE(has_content(file, before));
}

// Nothing can be read anywhere, and the search for the end then settles on a single byte.
TEST_F(BlockDeviceTest, RefusesADeviceWithoutSectors) {
    const loop_device device(scratch.sparse_file("empty.img", 0));
    if (!device.trouble().empty()) {
        GTEST_SKIP() << "no loop device over an empty file: " << device.trouble();
    }
    ASSERT_EQ(device.sectors(), 0u);
    EXPECT_EQ(
        run_tool({device.path()}),
        (outcome{
            EXIT_REFUSED, FAILURE,
            "valid_offset[N]: Check here!\n\n"
            "check_vol_size[N]: ioctl(BLKGETSIZE): 0 sectors, 0 bytes\n"
            "check_vol_size[N]: seek volume: 1 bytes\n"
            "Volume size(1) is too small to format the volume to FAT16\n"
            "Retry to format after enlarge the volume size to larger than (rdir area(4) + reserved area(1)) * sector size(4096)\n" +
                GEOMETRY_REFUSED}));
}
