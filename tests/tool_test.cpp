// Calls of the program: its output, its exit status, and its effect on the target.

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/tool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

using namespace testing_support;

namespace {

constexpr std::uint64_t MIB = 1 << 20;

// The attributes that change if a target is written to.
struct target_state {
    off_t size = 0;
    blkcnt_t blocks = 0;
    time_t changed = 0;
    long changed_ns = 0;
    bytes head;

    bool operator==(const target_state &) const = default;
};

std::ostream &operator<<(std::ostream &stream, const target_state &state) {
    return stream << state.size << " bytes in " << state.blocks << " blocks, changed "
                  << state.changed << "." << state.changed_ns;
}

target_state state_of(const std::string &path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return {status.st_size, status.st_blocks, status.st_mtim.tv_sec, status.st_mtim.tv_nsec,
            read_range(path, 0, 64 * 1024)};
}

// A scratch directory with targets in it. The small one takes FAT16 with -S 512 and one sector per
// cluster, so that whole images are cheap to compare.
class ToolTest : public ::testing::Test {
protected:
    static constexpr std::uint64_t SMALL_SIZE = 4 * MIB;

    scratch_directory scratch;

    // A sparse image whose first 16 KiB are taken.
    [[nodiscard]] std::string image(std::uint64_t size,
                                    const std::string &name = "disk.img") const {
        const std::string path =
            scratch.file_with(name, bytes(std::min<std::uint64_t>(size, 16384), 0xA5));
        std::filesystem::resize_file(path, size);
        return path;
    }
    [[nodiscard]] std::string small_image(const std::string &name = "disk.img") const {
        return image(SMALL_SIZE, name);
    }
    static std::vector<std::string> small_options() {
        return {"-S", "512", "-p", "0"};
    }
    static outcome format_small(const std::string &path, std::vector<std::string> more = {}) {
        std::vector<std::string> arguments = small_options();
        arguments.insert(arguments.end(), more.begin(), more.end());
        arguments.push_back(path);
        return run_tool(arguments);
    }
    // The bytes that any small image has once it is formatted.
    [[nodiscard]] bytes formatted_small_image() const {
        const std::string path = small_image("reference.img");
        EXPECT_EQ(format_small(path), (outcome{0, SUCCESS, ""}));
        return without_moment(path);
    }

    // Runs the program and expects that the target is not changed.
    static void expect_untouched(const std::string &target, const std::vector<std::string> &options,
                                 const outcome &expected) {
        const target_state before = state_of(target);
        std::vector<std::string> arguments = options;
        arguments.push_back(target);
        EXPECT_EQ(run_tool(arguments), expected);
        EXPECT_EQ(state_of(target), before);
    }
};

const std::string SUMMARY_OF_64_MIB = "- Volume size:\t\t67108864 Bytes\n"
                                      "- FAT type:\t\t16 bits\n"
                                      "- FAT size:\t\t8 sectors\n"
                                      "- Total sectors:\t16384 sectors\n"
                                      "- Cluster counts:\t16363 \n"
                                      "- Sector size:\t\t4096 Bytes\n"
                                      "- Sectors/cluster:\t1 \n"
                                      "- FAT start:\t\t1th sector\n"
                                      "- RDIR start:\t\t17th sector\n"
                                      "- DATA start:\t\t21th sector\n"
                                      "- PBR start:\t\t0th sector\n";

} // namespace

// ---- command line -----------------------------------------------------------------------------

TEST_F(ToolTest, ShowsUsageWithoutAnOperandOrWithTwo) {
    const outcome usage = {EXIT_REFUSED, USAGE, ""};
    EXPECT_EQ(run_tool({}), usage);
    EXPECT_EQ(run_tool({"-v", "-s", "4"}), usage);
    const std::string first = small_image("first.img");
    const std::string second = small_image("second.img");
    expect_untouched(second, {first}, usage);
    expect_untouched(first, {second}, usage);
}

TEST_F(ToolTest, ShowsUsageForAnUnknownOption) {
    const std::string target = small_image();
    for (const char *option : {"-x", "-h", "--help", "--version"}) {
        SCOPED_TRACE(option);
        expect_untouched(target, {option}, {EXIT_REFUSED, USAGE, ""});
    }
    EXPECT_EQ(run_tool({target, "-s"}), (outcome{EXIT_REFUSED, USAGE, ""}));
}

TEST_F(ToolTest, RefusesBadNumbersWithTheirMessageAndTheUsageText) {
    const std::string target = small_image();
    const struct {
        const char *letter;
        const char *number;
        const char *message;
    } cases[] = {
        {"-s", "3", "Invalid number of sectors per cluster: 3\n"},
        {"-s", "0", "Invalid number of sectors per cluster: 0\n"},
        {"-s", "128", "Invalid number of sectors per cluster: 128\n"},
        {"-s", "4k", "Invalid number of sectors per cluster: 4k\n"},
        {"-S", "8192", "Invalid number of sector size: 8192\n"},
        {"-F", "12", "Invalid FAT type: 12\n"},
        {"-p", "1024", "Invalid page size: 1024\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        expect_untouched(target, {c.letter, c.number}, {EXIT_REFUSED, USAGE, c.message});
    }
}

TEST_F(ToolTest, RefusesAClusterOver32KiBWithItsMessageAlone) {
    const std::string target = image(64 * MIB);
    expect_untouched(target, {"-s", "16", "-S", "4096"},
                     {EXIT_REFUSED, "",
                      "The requested cluster size is 65536(= 16 x 4096).\n"
                      "But cluster size can't be over 32KBytes\n"});
    expect_untouched(target, {"-v", "-s", "64", "-S", "1024"},
                     {EXIT_REFUSED, "",
                      "The requested cluster size is 65536(= 64 x 1024).\n"
                      "But cluster size can't be over 32KBytes\n"});
    expect_untouched(target, {"-s", "64", "-S", "4096"},
                     {EXIT_REFUSED, "",
                      "The requested cluster size is 262144(= 64 x 4096).\n"
                      "But cluster size can't be over 32KBytes\n"});
}

// ---- success ----------------------------------------------------------------------------------

TEST_F(ToolTest, PrintsNothingButSuccess) {
    EXPECT_EQ(run_tool({image(64 * MIB)}), (outcome{0, SUCCESS, ""}));
}

TEST_F(ToolTest, ShowsTheSummaryOnceHoweverOftenItIsAskedFor) {
    const std::string target = image(64 * MIB);
    const outcome expected = {0, SUMMARY_OF_64_MIB + SUCCESS, ""};
    EXPECT_EQ(run_tool({"-v", target}), expected);
    EXPECT_EQ(run_tool({"-v", "-v", target}), expected);
    EXPECT_EQ(run_tool({target, "-vvv"}), expected);
}

TEST_F(ToolTest, ChoosesFat32BeyondTheClustersOfFat16) {
    EXPECT_EQ(run_tool({"-v", image(512 * MIB)}), (outcome{0,
                                                           "- Volume size:\t\t536870912 Bytes\n"
                                                           "- FAT type:\t\t32 bits\n"
                                                           "- FAT size:\t\t128 sectors\n"
                                                           "- Total sectors:\t131072 sectors\n"
                                                           "- Cluster counts:\t130784 \n"
                                                           "- Sector size:\t\t4096 Bytes\n"
                                                           "- Sectors/cluster:\t1 \n"
                                                           "- FAT start:\t\t32th sector\n"
                                                           "- RDIR start:\t\t288th sector\n"
                                                           "- DATA start:\t\t288th sector\n"
                                                           "- PBR start:\t\t0th sector\n" +
                                                               SUCCESS,
                                                           ""}));
}

TEST_F(ToolTest, AlignsToPagesOf4096BytesByDefault) {
    const std::string target = image(64 * MIB);
    const auto summary = [](const char *fat_sectors, const char *clusters, const char *fat,
                            const char *rdir, const char *data) {
        return std::string("- Volume size:\t\t67108864 Bytes\n"
                           "- FAT type:\t\t16 bits\n"
                           "- FAT size:\t\t") +
               fat_sectors + " sectors\n- Total sectors:\t131072 sectors\n- Cluster counts:\t" +
               clusters +
               " \n- Sector size:\t\t512 Bytes\n- Sectors/cluster:\t8 \n- FAT start:\t\t" + fat +
               "th sector\n- RDIR start:\t\t" + rdir + "th sector\n- DATA start:\t\t" + data +
               "th sector\n- PBR start:\t\t0th sector\n";
    };
    EXPECT_EQ(run_tool({"-v", "-S", "512", "-s", "8", target}),
              (outcome{0, summary("64", "16363", "8", "136", "168") + SUCCESS, ""}));
    EXPECT_EQ(run_tool({"-v", "-S", "512", "-s", "8", "-p", "4096", target}),
              (outcome{0, summary("64", "16363", "8", "136", "168") + SUCCESS, ""}));
    EXPECT_EQ(run_tool({"-v", "-S", "512", "-s", "8", "-p", "0", target}),
              (outcome{0, summary("64", "16363", "1", "129", "161") + SUCCESS, ""}));
    EXPECT_EQ(run_tool({"-v", "-S", "512", "-s", "8", "-p", "", target}),
              (outcome{0, summary("64", "16363", "1", "129", "161") + SUCCESS, ""}));
    EXPECT_EQ(run_tool({"-v", "-S", "512", "-s", "8", "-p", "8192", target}),
              (outcome{0, summary("64", "16362", "16", "144", "176") + SUCCESS, ""}));
}

TEST_F(ToolTest, TakesClustersOver32KiBWhereTheSectorSizeIsLeftOut) {
    const std::string target = image(17ULL << 30);
    EXPECT_EQ(run_tool({"-s", "64", target}), (outcome{0, SUCCESS, ""}));
    const volume_layout layout = layout_of(target);
    EXPECT_EQ(layout.sector_size, 4096u);
    EXPECT_EQ(layout.sec_per_clus, 64u);
    EXPECT_TRUE(layout.is_fat32);
}

TEST_F(ToolTest, WritesTheDefaultsThatTheUsageTextDoesNotShow) {
    const std::string target = image(64 * MIB);
    const auto before = static_cast<std::uint32_t>(std::time(nullptr));
    EXPECT_EQ(run_tool({target}), (outcome{0, SUCCESS, ""}));
    const auto after = static_cast<std::uint32_t>(std::time(nullptr));
    const bytes pbr = read_range(target, 0, 4096);
    EXPECT_EQ(number_at(pbr, 11, 2), 4096u); // sector size
    EXPECT_EQ(pbr[13], 1u);                  // sectors per cluster
    EXPECT_EQ(pbr[16], 2u);                  // FAT copies
    EXPECT_EQ(number_at(pbr, 17, 2), 512u);  // root entries
    EXPECT_GE(number_at(pbr, 39, 4), before);
    EXPECT_LE(number_at(pbr, 39, 4), after);
    EXPECT_EQ(std::string(pbr.begin() + 43, pbr.begin() + 62), "           FAT16   ");
}

TEST_F(ToolTest, PutsTheLabelIntoTheBootSectorAlone) {
    const std::string target = small_image();
    EXPECT_EQ(format_small(target, {"-l", "fifteen letters"}), (outcome{0, SUCCESS, ""}));
    const bytes pbr = read_range(target, 0, 512);
    EXPECT_EQ(std::string(pbr.begin() + 43, pbr.begin() + 54), "fifteen let");
    const volume_layout layout = layout_of(target);
    const bytes entry = read_range(target, layout.rdir_start * 512ULL, 12);
    EXPECT_EQ(std::string(entry.begin(), entry.end()), "           \x08");
}

TEST_F(ToolTest, DoesNotChangeTheSizeOfAnImage) {
    const std::string target = image(SMALL_SIZE + 777);
    EXPECT_EQ(format_small(target), (outcome{0, SUCCESS, ""}));
    EXPECT_EQ(std::filesystem::file_size(target), SMALL_SIZE + 777);
}

TEST_F(ToolTest, WritesTheSameBytesOverAnyOldContent) {
    const std::string target = small_image();
    EXPECT_EQ(format_small(target), (outcome{0, SUCCESS, ""}));
    EXPECT_EQ(format_small(target), (outcome{0, SUCCESS, ""}));
    EXPECT_EQ(without_moment(target), formatted_small_image());
}

TEST_F(ToolTest, FollowsASymbolicLinkToItsTarget) {
    const std::string target = small_image();
    const std::string link = scratch.file("link");
    std::filesystem::create_symlink("disk.img", link);
    EXPECT_EQ(format_small(link), (outcome{0, SUCCESS, ""}));
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(without_moment(target), formatted_small_image());
}

// ---- refusals of the geometry -----------------------------------------------------------------

TEST_F(ToolTest, RefusesVolumesThatNoFatFits) {
    const struct {
        std::uint64_t size;
        std::vector<std::string> options;
        std::string message;
    } cases[] = {
        {8 * MIB,
         {},
         "Cluster size(4096) is too large or volume size(8388608) is too small to format the device to FAT16.\n"
         "If you want to format the deivce to FAT16/32, retry to format after reduce the cluster size. Otherwise, retry to format the larger volume.\n"
         "num_clusters 2041 data area 2041\n"},
        {64 * MIB,
         {"-s", "64"},
         "Cluster size(262144) is too large or volume size(67108864) is too small to format the device to FAT16.\n"
         "If you want to format the deivce to FAT16/32, retry to format after reduce the cluster size. Otherwise, retry to format the larger volume.\n"
         "num_clusters 255 data area 16377\n"},
        {64 * MIB,
         {"-F", "32"},
         "Cluster size(4096) is too large to format the device to FAT32.\n"
         "If you want to format the device to FAT32, retry to format after reduce the cluster size\n"
         "num_clusters 16320 data area 16320\n"},
        {64 * MIB,
         {"-F", "16", "-S", "512", "-p", "0"},
         "Cluster size(512) is too small to format this to FAT16.\n"
         "If you want to format this to FAT16, retry to format after enlarge the cluster size. Otherwise, retry to format the device with FAT32 type.\n"
         "fat 508 max 65524 num_clusters 130023\n"},
        {16384,
         {},
         "Volume size(16384) is too small to format the volume to FAT16\n"
         "Retry to format after enlarge the volume size to larger than (rdir area(4) + reserved area(1)) * sector size(4096)\n"},
        {1,
         {},
         "Volume size(1) is too small to format the volume to FAT16\n"
         "Retry to format after enlarge the volume size to larger than (rdir area(4) + reserved area(1)) * sector size(4096)\n"},
        {65536,
         {"-F", "32"},
         "Volume size(65536) is too small to format the volume to FAT32\n"
         "Retry to format after enlarge the volume size to larger than reserved area(32) * sector size(4096)\n"},
        {140'000'000'000,
         {"-F", "32", "-S", "512", "-p", "0"},
         "Number of clusters(269230736) is over the limitation of maximum cluster counts for FAT32\n"
         "Retry to format after reduce the cluster size\n"
         "fat sectors 2103366 max clusters 268435438 data area 269230736\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        std::vector<std::string> options = c.options;
        options.push_back("-v");
        expect_untouched(image(c.size), options,
                         {EXIT_REFUSED, FAILURE, c.message + GEOMETRY_REFUSED});
    }
}

// ---- bad targets ------------------------------------------------------------------------------

TEST_F(ToolTest, FailsOnTargetsThatCannotBeOpened) {
    std::filesystem::create_symlink("nowhere", scratch.file("dangling"));
    std::filesystem::create_symlink("loop", scratch.file("loop"));
    const std::string file = small_image();
    const struct {
        std::string target;
        const char *reason;
    } cases[] = {
        {scratch.file("missing"), "No such file or directory"},
        {"", "No such file or directory"},
        {scratch.file("dangling"), "No such file or directory"},
        {scratch.file("loop"), "Too many levels of symbolic links"},
        {file + "/below", "Not a directory"},
        {scratch.file(std::string(256, 'n')), "File name too long"},
        {scratch.file(""), "Is a directory"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.target);
        EXPECT_EQ(run_tool({"-v", c.target}),
                  (outcome{EXIT_REFUSED, FAILURE,
                           std::string("fat_init_volume[N]: Check here: ") + c.reason + "\n\n"}));
    }
    EXPECT_FALSE(std::filesystem::exists(scratch.file("missing")));
    EXPECT_FALSE(std::filesystem::exists(scratch.file("nowhere")));
}

TEST_F(ToolTest, FailsOnAnEmptyTarget) {
    expect_untouched(
        image(0), {},
        {EXIT_REFUSED, FAILURE, "fat_init_volume[N]: The size of volume is zero!\n\n"});
}

TEST_F(ToolTest, FailsOnTargetsThatAreNeitherFileNorBlockDevice) {
    const std::string fifo = scratch.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string &target : {std::string("/dev/null"), std::string("/dev/zero"), fifo}) {
        SCOPED_TRACE(target);
        EXPECT_EQ(run_tool({target}), (outcome{EXIT_REFUSED, FAILURE,
                                               "check_vol_size[N]: Not supported volume type\n"
                                               "fat_init_volume[N]: Check here: -22\n\n"}));
    }
}

TEST_F(ToolTest, FailsOnTargetsWithoutPermission) {
    if (QUORVEL_COVERED) {
        GTEST_SKIP() << "an unprivileged user may not write the files of a branch count";
    }
    const std::string target = small_image();
    const std::string tool = scratch.file("quorvel");
    std::filesystem::copy_file(tool_path(), tool);
    std::vector<std::string> command = {tool, target};
    if (geteuid() == 0) {
        // Root may open everything: become the user `nobody`, who must still reach the program.
        if (!has_program("setpriv")) {
            GTEST_SKIP() << "running as root, and there is no setpriv to give that up";
        }
        chmod(scratch.file("").c_str(), 0755);
        const std::vector<std::string> nobody = {"setpriv", "--reuid=65534", "--regid=65534",
                                                 "--clear-groups"};
        command.insert(command.begin(), nobody.begin(), nobody.end());
    }
    const target_state before = state_of(target);
    for (const mode_t mode : {0000, 0111, 0222, 0444, 0555}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(chmod(target.c_str(), mode), 0);
        EXPECT_EQ(without_line_numbers(run(command)),
                  (outcome{EXIT_REFUSED, FAILURE,
                           "fat_init_volume[N]: Check here: Permission denied\n\n"}));
    }
    // Proof that there was no other reason.
    ASSERT_EQ(chmod(target.c_str(), 0666), 0);
    EXPECT_EQ(state_of(target), before);
    command.insert(command.end(), {"-S", "512"});
    EXPECT_EQ(run(command), (outcome{0, SUCCESS, ""}));
}

TEST_F(ToolTest, FailsOnAReadOnlyFileSystem) {
    if (!can_mount_privately()) {
        GTEST_SKIP() << "no mount namespace for this user";
    }
    const std::string target = small_image();
    const target_state before = state_of(target);
    const outcome result = shell_with_private_mounts(
        "mount --bind \"$1\" \"$1\" && mount -o remount,bind,ro \"$1\" && exec \"$2\" \"$3\"",
        {scratch.file(""), tool_path(), target});
    EXPECT_EQ(without_line_numbers(result),
              (outcome{EXIT_REFUSED, FAILURE,
                       "fat_init_volume[N]: Check here: Read-only file system\n\n"}));
    EXPECT_EQ(state_of(target), before);
}

TEST_F(ToolTest, TakesANameOf4095BytesAndRefusesOneMore) {
    const std::string target = small_image();
    std::string directory = scratch.file("");
    while (directory.size() + 2 + 8 <= 4095) {
        directory += "./";
    }
    directory.append(4095 - 8 - directory.size(), '/');
    const std::string longest = directory + "disk.img";
    ASSERT_EQ(longest.size(), 4095u);
    EXPECT_EQ(
        run_tool({directory + "/disk.img"}),
        (outcome{EXIT_REFUSED, FAILURE, "fat_open_volume[N]: path length is too long: 4096\n\n"}));
    EXPECT_EQ(run_tool({std::string(100'000, 'x')}),
              (outcome{EXIT_REFUSED, FAILURE,
                       "fat_open_volume[N]: path length is too long: 100000\n\n"}));
    EXPECT_EQ(format_small(longest), (outcome{0, SUCCESS, ""}));
    EXPECT_EQ(without_moment(target), formatted_small_image());
}

TEST_F(ToolTest, FailsWhereTheFatDoesNotFitIntoMemory) {
    if (is_sanitized_tool()) {
        GTEST_SKIP() << "a sanitizer needs more address space than this test leaves";
    }
    const std::string target = image(32ULL << 30);
    const target_state before = state_of(target);
    // One copy of the FAT takes a quarter of a gigabyte.
    const outcome result = shell("ulimit -v 65536 && exec \"$@\"",
                                 {tool_path(), "-v", "-S", "512", "-s", "1", target});
    EXPECT_EQ(without_line_numbers(result), (outcome{EXIT_REFUSED, FAILURE,
                                                     "create_fat[N]: Unable to allocate FAT\n\n"
                                                     "make_tables[N]: Cannot create FAT!\n\n"
                                                     "fat_format[N]: Failed to make table!\n\n"}));
    EXPECT_EQ(state_of(target), before);
}

// ---- a full file system under a sparse image --------------------------------------------------

class FullFileSystemTest : public ToolTest {
protected:
    void SetUp() override {
        if (!can_mount_privately()) {
            GTEST_SKIP() << "no mount namespace for this user";
        }
    }

    // Formats a sparse image of 512 MiB on a tmpfs of 256 KiB, on which `left` bytes are free, and
    // counts the image's bytes that are not zero.
    [[nodiscard]] outcome format_with_space(unsigned left) const {
        const std::string script = "cd \"$1\" && mount -t tmpfs -o size=256k none . && cd \"$1\" &&"
                                   "truncate -s 512M disk.img &&"
                                   "head -c \"$2\" /dev/zero >filler &&"
                                   "{ \"$3\" -v disk.img; status=$?; } &&"
                                   "tr -d '\\0' <disk.img | head -c 1 | wc -c && exit $status";
        return without_line_numbers(shell_with_private_mounts(
            script, {scratch.file(""), std::to_string(256 * 1024 - left), tool_path()}));
    }
};

TEST_F(FullFileSystemTest, LeavesTheTargetAsItWasWithoutSpaceForTheBootSector) {
    EXPECT_EQ(format_with_space(0), (outcome{EXIT_REFUSED, FAILURE + "0\n",
                                             "file_write_sectors[N]: Check here!\n\n"
                                             "write_tables_vol[N]: Cannot write PBR sector\n\n"}));
}

TEST_F(FullFileSystemTest, FailsWithoutSpaceForTheReservedArea) {
    EXPECT_EQ(format_with_space(4096), (outcome{EXIT_REFUSED, FAILURE + "1\n",
                                                "file_write_sectors[N]: Check here!\n\n"
                                                "write_tables_vol[N]: IO Error!\n\n"}));
}

TEST_F(FullFileSystemTest, FailsWithoutSpaceForTheFat) {
    // 32 reserved sectors fit. The message contains the number of written FAT sectors, of 128.
    const outcome result = format_with_space(200 * 1024);
    EXPECT_EQ(result.status, EXIT_REFUSED);
    EXPECT_EQ(result.out, FAILURE + "1\n");
    const std::string start = "write_tables_vol[N]: Cannot write FAT(";
    ASSERT_EQ(result.err.substr(0, start.size()), start);
    const int written = std::stoi(result.err.substr(start.size()));
    EXPECT_GE(written, 0);
    EXPECT_LT(written, 128);
    EXPECT_EQ(result.err, start + std::to_string(written) + ")\n\n");
}

// ---- closed standard streams ------------------------------------------------------------------

TEST_F(ToolTest, WritesNothingIntoTheTargetThatBelongsToAClosedStream) {
    const bytes expected = formatted_small_image();
    for (unsigned closed = 1; closed < 8; closed++) {
        std::string command = "exec \"$@\"";
        command += (closed & 1) != 0 ? " 0<&-" : "";
        command += (closed & 2) != 0 ? " 1>&-" : "";
        command += (closed & 4) != 0 ? " 2>&-" : "";
        SCOPED_TRACE(command);
        const std::string target = small_image();
        const outcome result = shell(command, {tool_path(), "-v", "-S", "512", "-p", "0", target});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        if ((closed & 2) != 0) {
            EXPECT_EQ(result.out, "");
        } else {
            EXPECT_TRUE(result.out.ends_with("th sector\n" + SUCCESS)) << result.out;
        }
        EXPECT_EQ(without_moment(target), expected);
    }
}

TEST_F(ToolTest, WritesNothingIntoARefusedTargetWithItsStreamsClosed) {
    const std::string target = image(8 * MIB);
    const target_state before = state_of(target);
    EXPECT_EQ(shell("exec \"$@\" 0<&- 1>&- 2>&-", {tool_path(), "-v", target}),
              (outcome{EXIT_REFUSED, "", ""}));
    EXPECT_EQ(shell("exec \"$@\" 0<&- 2>&-", {tool_path(), "-v", target}),
              (outcome{EXIT_REFUSED, FAILURE, ""}));
    EXPECT_EQ(state_of(target), before);
}

TEST_F(ToolTest, NeedsNoNullDevice) {
    if (!can_mount_privately()) {
        GTEST_SKIP() << "no mount namespace for this user";
    }
    // The targets may themselves be in /dev.
    const std::string hide = "exec 3</dev/null; cd \"$1\" && shift &&"
                             " mount -t tmpfs none /dev && exec \"$@\" <&3";
    const auto format = [&](const std::string &streams, const std::string &name) {
        const std::string target = small_image(name);
        const std::string directory = std::filesystem::path(target).parent_path();
        const outcome result = shell_with_private_mounts(
            hide + streams, {directory, tool_path(), "-S", "512", "-p", "0", name});
        EXPECT_EQ(without_moment(target), formatted_small_image());
        return result;
    };
    EXPECT_EQ(format("", "disk.img"), (outcome{0, SUCCESS, ""}));
    EXPECT_EQ(format(" 0<&- 1>&- 2>&-", "other.img"), (outcome{0, "", ""}));
}

// ---- a limit on file sizes --------------------------------------------------------------------

TEST_F(ToolTest, ReportsThatTheTargetIsBeyondTheLimitOnFileSizes) {
    if (QUORVEL_COVERED) {
        GTEST_SKIP() << "a program with a limit on file sizes cannot write its branch count";
    }
    const std::string target = image(64 * MIB);
    EXPECT_EQ(
        without_line_numbers(shell("ulimit -f 4; exec \"$@\"", {tool_path(), "-S", "512", target})),
        (outcome{EXIT_REFUSED, FAILURE,
                 "file_write_sectors[N]: Check here!\n\n"
                 "write_tables_vol[N]: IO Error!\n\n"}));
}

// ---- durability -------------------------------------------------------------------------------

TEST_F(ToolTest, FailsWhereTheTargetDoesNotBecomeDurable) {
    const std::string target = small_image();
    EXPECT_EQ(run({QUORVEL_TOOL_FAILING_FSYNC, "-v", "-S", "512", "-p", "0", target}),
              (outcome{EXIT_REFUSED, FAILURE, target + ": Input/output error\n"}));
}

TEST_F(ToolTest, DoesNotAskForDurabilityOfARefusedTarget) {
    const std::string target = image(0);
    EXPECT_EQ(
        without_line_numbers(run({QUORVEL_TOOL_FAILING_FSYNC, target})),
        (outcome{EXIT_REFUSED, FAILURE, "fat_init_volume[N]: The size of volume is zero!\n\n"}));
}

// ---- mount table ------------------------------------------------------------------------------

// Gives the program an /etc of its own, with a mount table in it or without.
class MountTableTest : public ToolTest {
protected:
    void SetUp() override {
        if (!can_mount_privately()) {
            GTEST_SKIP() << "no mount namespace for this user";
        }
        std::filesystem::create_directory(scratch.file("etc"));
        target_ = small_image();
    }

    void table(const std::string &content) const {
        std::ofstream(scratch.file("etc/mtab")) << content;
    }
    [[nodiscard]] outcome format(const std::string &operand,
                                 const std::vector<std::string> &options = {}) const {
        std::vector<std::string> arguments = {scratch.file("etc"), tool_path()};
        const std::vector<std::string> small = small_options();
        arguments.insert(arguments.end(), small.begin(), small.end());
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.push_back(operand);
        return without_line_numbers(shell_with_private_mounts(
            "mount --bind \"$1\" /etc && shift && exec \"$@\"", arguments));
    }
    void expect_mounted(const std::string &operand) const {
        const target_state before = state_of(operand);
        EXPECT_EQ(format(operand, {"-v"}),
                  (outcome{EXIT_REFUSED, "", operand + " is already mounted\n"}));
        EXPECT_EQ(state_of(operand), before);
    }
    void expect_formatted(const std::string &operand) const {
        EXPECT_EQ(format(operand), (outcome{0, SUCCESS, ""}));
        EXPECT_EQ(without_moment(operand), formatted_small_image());
    }

    std::string target_;
};

TEST_F(MountTableTest, RefusesAListedTarget) {
    table(target_ + " /mnt vfat rw 0 0\n");
    expect_mounted(target_);
}

TEST_F(MountTableTest, FindsATargetAtTheEndOfALongTable) {
    std::string lines = "# device directory type options\n\n";
    for (int i = 0; i < 3000; i++) {
        lines += "/dev/disk" + std::to_string(i) + " /mnt/" + std::to_string(i) + " ext4 rw 0 0\n";
    }
    table(lines + target_ + " /mnt/last vfat rw 0 0\n");
    expect_mounted(target_);
}

TEST_F(MountTableTest, KnowsATargetWhoseNameHasABlankInIt) {
    const std::string blank = small_image("my disk.img");
    table(scratch.file("my\\040disk.img") + " /mnt vfat rw 0 0\n");
    expect_mounted(blank);
}

TEST_F(MountTableTest, ComparesNamesAsTheyAreWritten) {
    table(scratch.file("./disk.img") + " /mnt vfat rw 0 0\n" + target_ + ".old /old vfat rw 0 0\n" +
          target_.substr(0, target_.size() - 1) + " /older vfat rw 0 0\n");
    expect_formatted(target_);
}

TEST_F(MountTableTest, DoesNotMindATargetThatIsAMountPoint) {
    table("/dev/other " + target_ + " vfat rw 0 0\n");
    expect_formatted(target_);
}

TEST_F(MountTableTest, FormatsWhereTheTableIsEmptyOrBroken) {
    table("");
    expect_formatted(target_);
    table("\n#\n   \nword\n\xff\xfe\\777 x");
    expect_formatted(target_);
}

TEST_F(MountTableTest, SkipsTheCheckWithoutATable) {
    ASSERT_FALSE(std::filesystem::exists(scratch.file("etc/mtab")));
    expect_formatted(target_);
}

TEST_F(MountTableTest, ReadsTheTableAfterTheOptionsAndBeforeTheClusterSize) {
    table(target_ + " /mnt vfat rw 0 0\n");
    const target_state before = state_of(target_);
    EXPECT_EQ(format(target_, {"-F", "12"}),
              (outcome{EXIT_REFUSED, USAGE, "Invalid FAT type: 12\n"}));
    EXPECT_EQ(format(target_, {"-s", "16", "-S", "4096"}),
              (outcome{EXIT_REFUSED, "", target_ + " is already mounted\n"}));
    EXPECT_EQ(state_of(target_), before);
}

TEST_F(MountTableTest, RefusesAListedTargetThatDoesNotExist) {
    table("tmpfs /run tmpfs rw 0 0\n");
    EXPECT_EQ(format("tmpfs"), (outcome{EXIT_REFUSED, "", "tmpfs is already mounted\n"}));
}
