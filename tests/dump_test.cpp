// Dumps: raw sectors of a mounted volume in files of the host.

#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/mounted.h"
#include "tests/support/open_entries.h"
#include "tests/support/plain_user.h"
#include "tests/support/printout.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

using namespace fat;
using namespace testing_support;

namespace {

const volume_shape DUMPED_SHAPES[] = {
    {.fat_type = 16, .sec_per_clus = 4},
    {.fat_type = 16, .sector_size = 4096},
    {.fat_type = 32},
    {.fat_type = 32, .sector_size = 4096, .sec_per_clus = 2},
};

const std::string ROOT_OPENED = "fat_open[N]: failed to get name!\n\n";
const std::string ROOT_IS_NOT_CLOSED = "fat_close[N]: Invalid id!(0)\n\n";

// A mounted volume and the image file to write. A dump closes all that it opens and does not write
// to the volume.
class dumped_volume : public testing::TestWithParam<volume_shape> {
protected:
    explicit dumped_volume(const volume_shape &shape) : v(shape) {}
    dumped_volume() : dumped_volume(GetParam()) {}
    ~dumped_volume() override {
        for (const transfer &t : v.disk.log) {
            EXPECT_FALSE(t.is_write) << t;
        }
    }

    template <typename Call>
    answer ask(Call call) {
        const std::vector<int> ids = ids_in_use();
        const std::set<int> descriptors = open_descriptors();
        const allocation_meter meter;
        const printout result = to_output(call);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(meter.live_blocks(), 0);
        EXPECT_EQ(ids_in_use(), ids);
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_TRUE(table_agrees());
        return {result.result, result.messages};
    }
    answer dump_fat0() {
        return ask([&] { return fat_dump_fat0(image.c_str()); });
    }
    answer dump_clus(u32 cluster) {
        return ask([&] { return fat_dump_clus(cluster, image.c_str()); });
    }
    answer dump(const char *path) {
        return ask([&] { return fat_dump(path, image.c_str()); });
    }

    // The bytes of whole sectors.
    bytes sectors(std::uint64_t first, std::uint64_t count) {
        return v.disk.peek(first * sv->sector_size,
                           static_cast<std::size_t>(count) * sv->sector_size);
    }
    void set_sectors(std::uint64_t first, std::uint64_t count, u32 seed) {
        v.disk.poke(first * sv->sector_size,
                    some_bytes(static_cast<std::size_t>(count) * sv->sector_size, seed));
    }
    [[nodiscard]] static std::size_t cluster_bytes() {
        return mounted::cluster_bytes();
    }
    [[nodiscard]] bool image_exists() const {
        return std::filesystem::exists(image);
    }

    mounted v;
    scratch_directory scratch;
    const std::string image = scratch.file("image");
};

// An umask for its lifetime.
class file_mode_mask {
public:
    explicit file_mode_mask(mode_t mask) : before_(umask(mask)) {}
    file_mode_mask(const file_mode_mask &) = delete;
    file_mode_mask &operator=(const file_mode_mask &) = delete;
    ~file_mode_mask() {
        umask(before_);
    }

private:
    mode_t before_;
};

mode_t mode_of(const std::string &path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

} // namespace

// ---- the first FAT ----------------------------------------------------------------------------

namespace {

class FatDumpFat0 : public dumped_volume {
protected:
    // The sectors before the second FAT, with a pattern in them.
    bytes prepare() {
        set_sectors(1, volume::fat_offset(0, 1) / sv->sector_size, 7);
        return sectors(0, sv->fat_start + sv->fat_size);
    }
};
INSTANTIATE_TEST_SUITE_P(Volumes, FatDumpFat0, testing::ValuesIn(DUMPED_SHAPES), shape_name);

} // namespace

TEST_P(FatDumpFat0, HoldsTheReservedAreaAndTheFirstFat) {
    const bytes expected = prepare();
    EXPECT_EQ(dump_fat0(), answer(0, ""));
    EXPECT_EQ(read_file(image), expected);
}

TEST_P(FatDumpFat0, BeginsAtTheBootSector) {
    const bytes all = prepare();
    sv->pbr_start = 1;
    EXPECT_EQ(dump_fat0(), answer(0, ""));
    EXPECT_EQ(read_file(image), part_of(all, sv->sector_size, all.size() - sv->sector_size));
}

TEST_P(FatDumpFat0, ReplacesALongerImage) {
    const bytes expected = prepare();
    (void)scratch.file_with("image", bytes(expected.size() + 5000, 'x'));
    EXPECT_EQ(dump_fat0(), answer(0, ""));
    EXPECT_EQ(read_file(image), expected);
}

TEST_P(FatDumpFat0, ReportsWhyTheImageCannotBeMade) {
    EXPECT_EQ(ask([&] { return fat_dump_fat0(scratch.file("none/image").c_str()); }),
              answer(-ENOENT, "create fat image: No such file or directory\n"));
    EXPECT_EQ(ask([&] { return fat_dump_fat0(scratch.file(".").c_str()); }),
              answer(-EISDIR, "create fat image: Is a directory\n"));
    const failing_call fault(call::open, ENOSPC);
    EXPECT_EQ(dump_fat0(), answer(-ENOSPC, "create fat image: No space left on device\n"));
    EXPECT_TRUE(v.disk.log.empty());
}

TEST_P(FatDumpFat0, LeavesAnEmptyImageWithoutMemory) {
    const failing_allocation fault(0);
    EXPECT_EQ(dump_fat0(), answer(-ENOMEM, "fat_dump_fat0[N]: cannot allocate space\n"));
    EXPECT_TRUE(image_exists());
    EXPECT_EQ(read_file(image), bytes());
}

TEST_P(FatDumpFat0, EndsAtASectorThatCannotBeRead) {
    const bytes all = prepare();
    const u32 end = sv->fat_start + sv->fat_size;
    for (const u32 sector : {0U, 1U, sv->fat_start, end - 1}) {
        v.disk.unreadable = {sector};
        for (const int moved : {-5, 0, 2}) {
            v.disk.failure_result = moved;
            EXPECT_EQ(dump_fat0(), answer(-EIO, "fat_dump_fat0[N]: cannot read sector\n"));
            EXPECT_EQ(read_file(image), part_of(all, 0, std::size_t{sector} * sv->sector_size));
        }
    }
    v.disk.unreadable = {end};
    EXPECT_EQ(dump_fat0(), answer(0, ""));
}

TEST_P(FatDumpFat0, EndsWhereTheImageCannotBeWritten) {
    const bytes all = prepare();
    {
        const failing_call fault(call::write, ENOSPC, 2);
        EXPECT_EQ(dump_fat0(), answer(-EIO, "fat_dump_fat0[N]: cannot write image\n"));
        EXPECT_EQ(read_file(image), part_of(all, 0, std::size_t{2} * sv->sector_size));
    }
    const pretended_device full(
        {.short_transfer_bytes = static_cast<std::int64_t>(sv->sector_size) - 1});
    EXPECT_EQ(dump_fat0(), answer(-EIO, "fat_dump_fat0[N]: cannot write image\n"));
    EXPECT_EQ(read_file(image), part_of(all, 0, sv->sector_size - 1));
}

// ---- one cluster ------------------------------------------------------------------------------

namespace {

class FatDumpClus : public dumped_volume {
protected:
    [[nodiscard]] static int all_sectors() {
        return static_cast<int>(sv->sec_per_clus);
    }
};
INSTANTIATE_TEST_SUITE_P(Volumes, FatDumpClus, testing::ValuesIn(DUMPED_SHAPES), shape_name);

const std::string NO_CLUSTER = "fat_sector[N]: Invalid arg!\n\n";
const std::string OUT_OF_AREA = "fat_dump_clus[N]: out of the data area\n\n";

} // namespace

TEST_P(FatDumpClus, HoldsTheCluster) {
    for (const u32 cluster : {2U, 30U, volume::last_cluster()}) {
        v.set_data({cluster}, some_bytes(cluster_bytes(), cluster));
        v.disk.log.clear();
        EXPECT_EQ(dump_clus(cluster), answer(all_sectors(), ""));
        EXPECT_EQ(read_file(image), some_bytes(cluster_bytes(), cluster));
        EXPECT_EQ(v.disk.log, (std::vector<transfer>{
                                  {false, volume::first_sector_of(cluster), sv->sec_per_clus}}));
    }
}

TEST_P(FatDumpClus, ReplacesALongerImage) {
    v.set_data({30}, some_bytes(cluster_bytes()));
    (void)scratch.file_with("image", bytes(cluster_bytes() + 5000, 'x'));
    EXPECT_EQ(dump_clus(30), answer(all_sectors(), ""));
    EXPECT_EQ(read_file(image), some_bytes(cluster_bytes()));
}

TEST_P(FatDumpClus, LeavesAnEmptyImageOfNoCluster) {
    for (const u32 cluster : {0U, 1U, volume::last_cluster() + 1, 0xFFFFFFFFU}) {
        (void)scratch.file_with("image", bytes(10, 'x'));
        EXPECT_EQ(dump_clus(cluster), answer(-EINVAL, NO_CLUSTER + OUT_OF_AREA));
        EXPECT_TRUE(image_exists());
        EXPECT_EQ(read_file(image), bytes());
    }
    EXPECT_TRUE(v.disk.log.empty());
}

TEST_P(FatDumpClus, RefusesAClusterPastTheEndOfTheVolume) {
    sv->total_sectors = volume::first_sector_of(30);
    EXPECT_EQ(dump_clus(30), answer(-EINVAL, OUT_OF_AREA));
    EXPECT_EQ(dump_clus(29), answer(all_sectors(), ""));
}

TEST_P(FatDumpClus, ReportsWhyTheImageCannotBeMade) {
    EXPECT_EQ(ask([&] { return fat_dump_clus(30, scratch.file("none/image").c_str()); }),
              answer(-ENOENT, "create cluster image: No such file or directory\n"));
    // The image is created before the number is checked.
    EXPECT_EQ(ask([&] { return fat_dump_clus(1, scratch.file(".").c_str()); }),
              answer(-EISDIR, "create cluster image: Is a directory\n"));
}

TEST_P(FatDumpClus, LeavesAnEmptyImageWithoutMemory) {
    const failing_allocation fault(0);
    EXPECT_EQ(dump_clus(30), answer(-ENOMEM, "fat_dump_clus[N]: cannot allocate space\n"));
    EXPECT_TRUE(image_exists());
    EXPECT_EQ(read_file(image), bytes());
}

TEST_P(FatDumpClus, ReportsAClusterThatCannotBeRead) {
    v.disk.unreadable = {volume::first_sector_of(30) + sv->sec_per_clus - 1};
    for (int moved = -5; moved < all_sectors(); moved++) {
        v.disk.failure_result = moved;
        EXPECT_EQ(dump_clus(30), answer(-EIO, "fat_dump_clus[N]: Failed to read sectors!\n\n"));
        EXPECT_EQ(read_file(image), bytes());
    }
}

TEST_P(FatDumpClus, ReportsAnImageThatCannotBeWritten) {
    v.set_data({30}, some_bytes(cluster_bytes()));
    {
        const failing_call fault(call::write, ENOSPC);
        EXPECT_EQ(dump_clus(30), answer(-EIO, "fat_dump_clus[N]: cannot write image\n"));
        EXPECT_EQ(read_file(image), bytes());
    }
    const pretended_device full(
        {.short_transfer_bytes = static_cast<std::int64_t>(cluster_bytes()) - 1});
    EXPECT_EQ(dump_clus(30), answer(-EIO, "fat_dump_clus[N]: cannot write image\n"));
    EXPECT_EQ(read_file(image), part_of(some_bytes(cluster_bytes()), 0, cluster_bytes() - 1));
}

// ---- a file or directory ----------------------------------------------------------------------

namespace {

class FatDump : public dumped_volume {
protected:
    static constexpr u32 START = 20;

    // NAME of these three clusters, all filled. Returns their bytes.
    bytes make(u8 attr, u32 size) {
        v.chain(chain);
        v.top.append(short_entry("NAME       ", attr, START, size));
        const bytes content = some_bytes(3 * cluster_bytes());
        v.set_data(chain, content);
        v.disk.log.clear();
        return content;
    }
    bytes make_file(std::size_t size) {
        return make(ARCHIVE, static_cast<u32>(size));
    }
    // The messages of opening it.
    [[nodiscard]] std::string found() const {
        return found_at(v.top.base(), 0);
    }
    [[nodiscard]] answer copied() const {
        return {static_cast<int>(sv->sec_per_clus), found()};
    }

    const std::vector<u32> chain = {START, 25, 22};
};
INSTANTIATE_TEST_SUITE_P(Volumes, FatDump, testing::ValuesIn(DUMPED_SHAPES), shape_name);

} // namespace

TEST_P(FatDump, HoldsAFileUpToItsSize) {
    const std::size_t unit = cluster_bytes();
    make_file(0);
    const bytes content = some_bytes(3 * unit);
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, std::size_t{500}, unit - 1, unit, unit + 1, 2 * unit - 1,
          2 * unit, 2 * unit + 1, 3 * unit - 1, 3 * unit}) {
        v.top.put(0, short_entry("NAME       ", ARCHIVE, START, static_cast<u32>(size)));
        EXPECT_EQ(dump("NAME"), copied()) << size;
        EXPECT_EQ(read_file(image), part_of(content, 0, size)) << size;
    }
}

TEST_P(FatDump, EndsWithTheChainOfAFileThatClaimsMore) {
    const bytes content = make_file(3 * cluster_bytes() + 1);
    EXPECT_EQ(dump("NAME"), copied());
    EXPECT_EQ(read_file(image), content);
    v.top.put(0, short_entry("NAME       ", ARCHIVE, START, 0xFFFFFFFF));
    EXPECT_EQ(dump("/NAME"), copied());
    EXPECT_EQ(read_file(image), content);
}

TEST_P(FatDump, LeavesAnEmptyImageOfAFileWithoutClusters) {
    v.top.append(short_entry("NAME       ", ARCHIVE, 0, 100));
    (void)scratch.file_with("image", bytes(10, 'x'));
    EXPECT_EQ(dump("NAME"), answer(0, found()));
    EXPECT_TRUE(image_exists());
    EXPECT_EQ(read_file(image), bytes());
}

TEST_P(FatDump, LeavesAnEmptyImageOfADirectoryWithoutClusters) {
    v.top.append(short_entry("NAME       ", DIRECTORY, 0, 100));
    EXPECT_EQ(dump("NAME"), answer(0, found()));
    EXPECT_TRUE(image_exists());
    EXPECT_EQ(read_file(image), bytes());
}

TEST_P(FatDump, HoldsTheClustersOfADirectoryWhole) {
    for (const u8 attr : std::initializer_list<u8>{DIRECTORY, DIRECTORY | ARCHIVE | HIDDEN}) {
        v.top.go_to(0);
        const bytes content = make(attr, 5);
        EXPECT_EQ(dump("NAME"), copied());
        EXPECT_EQ(read_file(image), content);
    }
}

TEST_P(FatDump, HoldsTheTargetOfALink) {
    entry_image entry = short_entry("LINK       ", 0, START, 11);
    entry[13] = 0xE2;
    v.top.append(entry);
    v.chain({START});
    v.set_data({START}, some_bytes(cluster_bytes()));
    EXPECT_EQ(dump("LINK"), copied());
    EXPECT_EQ(read_file(image), part_of(some_bytes(cluster_bytes()), 0, 11));
}

TEST_P(FatDump, FindsAFileByItsLongName) {
    v.chain({START});
    v.set_data({START}, some_bytes(cluster_bytes()));
    v.top.append(long_slots(u"A Long Name", "ALONGN~1   "));
    v.top.append(short_entry("ALONGN~1   ", ARCHIVE, START, 100));
    EXPECT_EQ(dump("A Long Name"),
              answer(static_cast<int>(sv->sec_per_clus), found_at(v.top.base(), 1)));
    EXPECT_EQ(read_file(image), part_of(some_bytes(cluster_bytes()), 0, 100));
}

TEST_P(FatDump, ReplacesALongerImageAndDoesNotChangeItsMode) {
    const bytes content = make_file(cluster_bytes() + 1);
    (void)scratch.file_with("image", bytes(2 * cluster_bytes(), 'x'));
    ASSERT_EQ(chmod(image.c_str(), 0604), 0);
    EXPECT_EQ(dump("NAME"), copied());
    EXPECT_EQ(read_file(image), part_of(content, 0, cluster_bytes() + 1));
    EXPECT_EQ(mode_of(image), 0604U);
}

TEST_P(FatDump, ReadsEachClusterInOneTransfer) {
    make_file(1);
    EXPECT_EQ(dump("NAME"), copied());
    std::vector<transfer> data;
    for (const transfer &t : v.disk.log) {
        if (t.sector >= volume::first_sector_of(START)) {
            data.push_back(t);
        }
    }
    std::vector<transfer> expected;
    for (const u32 cluster : chain) {
        expected.push_back({false, volume::first_sector_of(cluster), sv->sec_per_clus});
    }
    EXPECT_EQ(data, expected);
}

TEST_P(FatDump, ReportsThatThePathCannotBeOpened) {
    EXPECT_EQ(dump("NONE"), answer(-ENOENT, "fat_open[N]: failed to find directory entry!\n\n"
                                            "fat_dump[N]: \n"));
    EXPECT_EQ(dump("a:b").result, -EINVAL);
    EXPECT_FALSE(image_exists());
}

TEST_P(FatDump, ReportsThatTheImageCannotBeMade) {
    make_file(1);
    const std::string refused = found() + "fat_dump[N]: create directory image\n\n";
    EXPECT_EQ(ask([&] { return fat_dump("NAME", scratch.file("none/image").c_str()); }),
              answer(-ENOENT, refused));
    EXPECT_EQ(ask([&] { return fat_dump("NAME", scratch.file(".").c_str()); }),
              answer(-EISDIR, refused));
    EXPECT_EQ(ask([&] { return fat_dump("/", scratch.file(".").c_str()); }),
              answer(-EISDIR,
                     ROOT_OPENED + "fat_dump[N]: create directory image\n\n" + ROOT_IS_NOT_CLOSED));
}

TEST_P(FatDump, EndsAtAClusterThatCannotBeRead) {
    const bytes content = make_file(3 * cluster_bytes());
    const std::string failed = found() + "fat_dump[N]: Failed to read sectors!\n\n";
    for (std::size_t i = 0; i < chain.size(); i++) {
        v.disk.unreadable = {volume::first_sector_of(chain[i]) + sv->sec_per_clus - 1};
        for (int moved = -5; moved < static_cast<int>(sv->sec_per_clus); moved++) {
            v.disk.failure_result = moved;
            EXPECT_EQ(dump("NAME"), answer(-EIO, failed));
            EXPECT_EQ(read_file(image), part_of(content, 0, i * cluster_bytes()));
        }
    }
}

TEST_P(FatDump, ReadsTheClustersPastTheSizeToo) {
    make_file(1);
    v.disk.unreadable = {volume::first_sector_of(chain[2])};
    EXPECT_EQ(dump("NAME"), answer(-EIO, found() + "fat_dump[N]: Failed to read sectors!\n\n"));
    EXPECT_EQ(read_file(image).size(), 1U);
}

TEST_P(FatDump, EndsAtAClusterPastTheEndOfTheVolume) {
    const bytes content = make_file(3 * cluster_bytes());
    sv->total_sectors = volume::first_sector_of(25);
    EXPECT_EQ(dump("NAME"), answer(-EINVAL, found() + "fat_dump[N]: out of the data area\n\n"));
    EXPECT_EQ(read_file(image), part_of(content, 0, cluster_bytes()));
}

TEST_P(FatDump, EndsWhereTheImageCannotBeWritten) {
    const bytes content = make_file(3 * cluster_bytes());
    const std::string failed = found() + "fat_dump[N]: cannot write image\n";
    at_every_fault({every_call(call::write, ENOSPC)}, [&](fault_step &step) {
        const answer a = step.run([&] { return dump("NAME"); });
        EXPECT_EQ(a, step.struck() ? answer(-EIO, failed) : copied());
        EXPECT_EQ(step.struck(), step.k < 3);
        EXPECT_EQ(read_file(image),
                  part_of(content, 0, static_cast<std::size_t>(step.k) * cluster_bytes()));
    });
    const pretended_device full(
        {.short_transfer_bytes = static_cast<std::int64_t>(cluster_bytes()) - 1});
    EXPECT_EQ(dump("NAME"), answer(-EIO, failed));
    EXPECT_EQ(read_file(image), part_of(content, 0, cluster_bytes() - 1));
}

TEST_P(FatDump, EndsWhereTheLastPartCannotBeWritten) {
    const bytes content = make_file(cluster_bytes() + 300);
    const failing_call fault(call::write, ENOSPC, 1);
    EXPECT_EQ(dump("NAME"), answer(-EIO, found() + "fat_dump[N]: cannot write image\n"));
    EXPECT_EQ(read_file(image), part_of(content, 0, cluster_bytes()));
}

TEST_P(FatDump, ReportsMissingMemory) {
    make_file(1);
    std::vector<answer> failures; // those after the opening
    at_every_fault({EVERY_ALLOCATION}, [&](fault_step &step) {
        const answer a = step.run([&] { return dump("NAME"); });
        if (!step.struck()) {
            EXPECT_EQ(a, copied());
            return;
        }
        EXPECT_LT(a.result, 0);
        if (a.messages.find("fat_dump[N]: \n") == std::string::npos &&
            (failures.empty() || failures.back() != a)) {
            failures.push_back(a);
        }
    });
    const std::vector<answer> expected = {
        {-ENOMEM, found() + "fat_dump[N]: Failed to allocate memory!\n\n"},
        {-ENOMEM, found() + "fat_get_chains[N]: Memory allocation error!\n\n"
                            "fat_dump[N]: Failed to get chains!\n\n"},
        {-EINVAL, found() + "fat_read_entry[N]: cannot allocate FAT\n\n"
                            "fat_get_chains[N]: Failed to read cluster!\n\n"
                            "fat_dump[N]: Failed to get chains!\n\n"}};
    EXPECT_EQ(failures, expected);
    EXPECT_TRUE(image_exists());
}

TEST_P(FatDump, ReportsDataThatCannotBeRead) {
    make_file(1);
    std::set<std::string> told;
    at_every_fault({EVERY_READ}, [&](fault_step &step) {
        const answer a = step.run([&] { return dump("NAME"); });
        if (!step.struck()) {
            EXPECT_EQ(a, copied());
            return;
        }
        EXPECT_TRUE(a.result == -EIO || a.result == -EINVAL) << a;
        told.insert(a.messages);
    });
    EXPECT_TRUE(told.contains(found() + "fat_dump[N]: Failed to read sectors!\n\n"));
}

TEST_P(FatDump, FindsNothingInAnEmptySlot) {
    oentry *root = std::exchange(oentry_table[0], nullptr);
    const printout result = to_output([&] { return fat_dump("/", image.c_str()); });
    oentry_table[0] = root;
    EXPECT_EQ(result.result, -ENOENT);
    const std::string expected = ROOT_OPENED + "fat_dump[N]: Failed to get file entry!\n\n";
    EXPECT_EQ(result.messages.substr(0, expected.size()), expected);
    EXPECT_FALSE(image_exists());
}

// ---- the root directory -----------------------------------------------------------------------

TEST(FatDumpOfTheRoot, HoldsTheSixteenKilobytesOfAFat16Area) {
    const scratch_directory scratch;
    const std::string image = scratch.file("image");
    for (const u32 sector_size : {512U, 1024U, 4096U}) {
        // The area is assumed to have 16384 bytes, with any format of the volume.
        for (const u32 root_entries : {512U, 256U, 1024U}) {
            mounted v({.sector_size = sector_size, .root_entries = root_entries});
            const std::uint64_t start = std::uint64_t{sv->rdir_start} * sector_size;
            v.disk.poke(start, some_bytes(40000, 3));
            for (const char *path : {"/", "", "//"}) {
                const printout result = to_output([&] { return fat_dump(path, image.c_str()); });
                EXPECT_EQ(result, (printout{0, "", ROOT_OPENED + ROOT_IS_NOT_CLOSED}));
                EXPECT_EQ(read_file(image), part_of(some_bytes(40000, 3), 0, 16384));
            }
            for (const transfer &t : v.disk.log) {
                EXPECT_FALSE(t.is_write);
            }
        }
    }
}

TEST(FatDumpOfTheRoot, EndsAtASectorThatCannotBeRead) {
    const scratch_directory scratch;
    const std::string image = scratch.file("image");
    mounted v;
    v.disk.poke(std::uint64_t{sv->rdir_start} * 512, some_bytes(16384));
    for (const u32 i : {0U, 1U, 31U}) {
        v.disk.unreadable = {sv->rdir_start + i};
        for (const int moved : {-5, 0, 2}) {
            v.disk.failure_result = moved;
            EXPECT_EQ(to_output([&] { return fat_dump("/", image.c_str()); }),
                      (printout{-EIO, "",
                                ROOT_OPENED + "fat_dump[N]: Failed to read sectors!\n\n" +
                                    ROOT_IS_NOT_CLOSED}));
            EXPECT_EQ(read_file(image), part_of(some_bytes(16384), 0, std::size_t{i} * 512));
        }
    }
    v.disk.unreadable = {sv->rdir_start + 32};
    EXPECT_EQ(to_output([&] { return fat_dump("/", image.c_str()); }).result, 0);
}

TEST(FatDumpOfTheRoot, EndsWhereTheImageCannotBeWritten) {
    const scratch_directory scratch;
    const std::string image = scratch.file("image");
    mounted v;
    v.disk.poke(std::uint64_t{sv->rdir_start} * 512, some_bytes(16384));
    const printout expected = {
        -EIO, "", ROOT_OPENED + "fat_dump[N]: Failed to write!\n\n" + ROOT_IS_NOT_CLOSED};
    {
        const failing_call fault(call::write, ENOSPC, 3);
        EXPECT_EQ(to_output([&] { return fat_dump("/", image.c_str()); }), expected);
        EXPECT_EQ(read_file(image), part_of(some_bytes(16384), 0, 3 * 512));
    }
    const pretended_device full({.short_transfer_bytes = 511});
    EXPECT_EQ(to_output([&] { return fat_dump("/", image.c_str()); }), expected);
    EXPECT_EQ(read_file(image), part_of(some_bytes(16384), 0, 511));
}

TEST(FatDumpOfTheRoot, FailsWithoutMemory) {
    const scratch_directory scratch;
    const std::string image = scratch.file("image");
    const mounted v;
    const failing_allocation fault(0);
    EXPECT_EQ(to_output([&] { return fat_dump("/", image.c_str()); }),
              (printout{-ENOMEM, "",
                        ROOT_OPENED + "fat_dump[N]: Failed to allocate memory!\n\n" +
                            ROOT_IS_NOT_CLOSED}));
}

TEST(FatDumpOfTheRoot, IsRefusedOnFat32) {
    const scratch_directory scratch;
    const std::string image = scratch.file_with("image", bytes(100, 'x'));
    const mounted v({.fat_type = 32});
    EXPECT_EQ(to_output([&] { return fat_dump("/", image.c_str()); }),
              (printout{-EINVAL, "",
                        ROOT_OPENED + "fat_dump[N]: Invalid arg!\n\n" + ROOT_IS_NOT_CLOSED}));
    EXPECT_EQ(read_file(image), bytes());
}

// ".." of a first-level directory opens a copy of the root's record under an id of its own.
TEST(FatDumpOfTheRoot, IsReachedFromADirectory) {
    const scratch_directory scratch;
    const std::string image = scratch.file("image");
    for (const u32 fat_type : {16U, 32U}) {
        mounted v({.fat_type = fat_type});
        directory inside(&v, {20}, false);
        inside.append(short_entry(".          ", DIRECTORY, 20));
        inside.append(short_entry("..         ", DIRECTORY, 0));
        const int id = v.open_new("SUB        ", {20}, 0, DIRECTORY);
        ASSERT_EQ(fat_set_current(id), id);
        const printout result = to_output([&] { return fat_dump("..", image.c_str()); });
        if (fat_type == 16) {
            EXPECT_EQ(result, (printout{0, "", found_at(20, 1)}));
            EXPECT_EQ(read_file(image), v.disk.peek(std::uint64_t{sv->rdir_start} * 512, 16384));
        } else {
            EXPECT_EQ(result,
                      (printout{-EINVAL, "", found_at(20, 1) + "fat_dump[N]: Invalid arg!\n\n"}));
            EXPECT_EQ(read_file(image), bytes());
        }
        EXPECT_EQ(ids_in_use(), (std::vector<int>{0, id}));
    }
}

// ---- the image file ---------------------------------------------------------------------------

TEST(DumpImages, AreMadeForOwnerAndGroup) {
    const scratch_directory scratch;
    mounted v;
    v.top.append(short_entry("NAME       "));
    const diagnostics messages;
    for (const auto &[mask, mode] :
         {std::pair<mode_t, mode_t>{0, 0660}, {022, 0640}, {077, 0600}}) {
        const file_mode_mask present(mask);
        const std::string names[] = {scratch.file("fat" + std::to_string(mask)),
                                     scratch.file("cluster" + std::to_string(mask)),
                                     scratch.file("file" + std::to_string(mask))};
        EXPECT_EQ(fat_dump_fat0(names[0].c_str()), 0);
        EXPECT_EQ(fat_dump_clus(2, names[1].c_str()), 1);
        EXPECT_EQ(fat_dump("NAME", names[2].c_str()), 0);
        for (const std::string &name : names) {
            EXPECT_EQ(mode_of(name), mode) << name;
        }
    }
}

TEST(DumpImages, AreOpenedForReadingToo) {
    const scratch_directory scratch;
    const std::string image = scratch.file_with("image", {});
    const mounted v;
    const diagnostics messages;
    ASSERT_EQ(chmod(scratch.file(".").c_str(), 0777), 0);
    ASSERT_EQ(chmod(image.c_str(), 0222), 0);
    const plain_user user;
    if (!user.is_plain()) {
        GTEST_SKIP() << "root stays root here";
    }
    EXPECT_EQ(fat_dump_fat0(image.c_str()), -EACCES);
    EXPECT_EQ(fat_dump_clus(2, image.c_str()), -EACCES);
    EXPECT_EQ(fat_dump("/", image.c_str()), -EACCES);
}

TEST(Dumps, ReportFailuresOnStandardErrorAlone) {
    const mounted v;
    const scratch_directory scratch;
    standard_error error;
    standard_output out;
    const int result = fat_dump_fat0(scratch.file("none/image").c_str());
    EXPECT_EQ(out.stop(), "");
    EXPECT_EQ(error.stop(), "create fat image: No such file or directory\n");
    EXPECT_EQ(result, -ENOENT);
}
