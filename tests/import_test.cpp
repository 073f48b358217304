// Import: objects of the host copied into a mounted volume.

#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/moment.h"
#include "tests/support/mounted.h"
#include "tests/support/open_entries.h"
#include "tests/support/plain_user.h"
#include "tests/support/printout.h"
#include "tests/support/valgrind.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

using namespace fat;
using namespace testing_support;

namespace {

constexpr std::uint64_t KIB = 1024, MIB = 1024 * KIB;
constexpr std::uint32_t CHUNK = 8 * MIB;
constexpr time_t LEAP_DAY_2024 = 1709210096; // 29 February 2024, 12:34:56 UTC

std::string import_says(const std::string &text) {
    return "fat_copy_to_zuq[N]: " + text;
}
const std::string CHECK_HERE = "Check here!\n\n";
// The messages of a write that finds no free cluster.
const std::string VOLUME_FULL = "fat_alloc_cluster[N]: No space left on volume!!\n"
                                "do_write_file[N]: cannot allocate cluster\n"
                                "write_file_internal[N]: Failed to write file!\n\n"
                                "fat_write_file[N]: Failed go get file entry!\n\n";

std::string progress(std::uint64_t done, std::uint64_t size) {
    return "\rWritten count: " + as_int(static_cast<u32>(done)) + " / " + std::to_string(size) +
           " Bytes";
}

// A mounted volume and files of the host. After each call nothing is left open or allocated.
class import_test : public testing::TestWithParam<volume_shape> {
protected:
    explicit import_test(const volume_shape &shape) : v(shape) {}
    import_test() : import_test(GetParam()) {}

    printout copy(const char *host, const char *name, int show_progress = 0) {
        const std::vector<int> ids = ids_in_use();
        const std::set<int> descriptors = open_descriptors();
        const allocation_meter meter;
        const printout result =
            to_output([&] { return fat_copy_to_zuq(host, name, show_progress); });
        EXPECT_EQ(meter.live_blocks(), 0);
        EXPECT_EQ(ids_in_use(), ids);
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_TRUE(table_agrees());
        return result;
    }
    printout copy(const std::string &host, const char *name, int show_progress = 0) {
        return copy(host.c_str(), name, show_progress);
    }
    [[nodiscard]] std::string host_file(const bytes &content) const {
        return scratch.file_with("host", content);
    }
    [[nodiscard]] std::string host_link(const std::string &target) const {
        const std::string path = scratch.file("link");
        EXPECT_EQ(::symlink(target.c_str(), path.c_str()), 0);
        return path;
    }

    // The first entry of the root; imports come after the label.
    [[nodiscard]] entry_image imported() const {
        return v.top.at(1);
    }
    bytes content_of(const entry_image &entry) {
        bytes result;
        if (start_of(entry) != 0) {
            result = v.data_of(v.chain_from(start_of(entry)));
            EXPECT_LE(size_of(entry), result.size());
            EXPECT_GT(size_of(entry) + mounted::cluster_bytes(), result.size());
        }
        result.resize(size_of(entry));
        return result;
    }
    // Whether the volume has not changed since the case began.
    [[nodiscard]] bool nothing_written() const {
        return std::none_of(v.disk.log.begin(), v.disk.log.end(),
                            [](const transfer &t) { return t.is_write; });
    }

    mounted v;
    scratch_directory scratch;
    stopped_clock clock{LEAP_DAY_2024};
};

printout silent(int result = 0) {
    return {result, "", ""};
}

} // namespace

// ---- regular files ----------------------------------------------------------------------------

namespace {

class ImportFile : public import_test {
protected:
    // The progress line once for each of these totals, then a newline.
    static printout shown(const std::vector<std::uint64_t> &totals, std::uint64_t size) {
        printout result;
        for (const std::uint64_t total : totals) {
            result.out += progress(total, size);
        }
        result.out += "\n";
        return result;
    }
};
INSTANTIATE_TEST_SUITE_P(
    Volumes, ImportFile,
    testing::Values(volume_shape{.fat_type = 16, .sector_size = 4096, .clusters = 5000},
                    volume_shape{.fat_type = 16, .sec_per_clus = 64}, volume_shape{.fat_type = 32},
                    volume_shape{.fat_type = 32, .sector_size = 4096}),
    shape_name);

} // namespace

TEST_P(ImportFile, EmptyFileBecomesAnEmptyFile) {
    EXPECT_EQ(copy(host_file({}), "EMPTY"), silent());
    entry_image expected = short_entry("EMPTY      ", 0);
    // Built on 29 February 2024 at 12:34:56.
    std::copy_n(imported().begin() + 14, 12, expected.begin() + 14);
    EXPECT_EQ(imported(), expected);
    EXPECT_EQ(start_of(imported()), 0U);
    EXPECT_EQ(v.top.at(2), entry_image{});
}

TEST_P(ImportFile, EmptyFileShowsANewlineAlone) {
    EXPECT_EQ(copy(host_file({}), "EMPTY", 1), (printout{0, "\n", ""}));
}

TEST_P(ImportFile, ContentsOfAllSizesArrive) {
    const std::size_t sector = sv->sector_size;
    const std::size_t cluster = mounted::cluster_bytes();
    u32 index = 0;
    for (const std::size_t size :
         std::set<std::size_t>{1, 2, sector - 1, sector, sector + 1, cluster - 1, cluster,
                               cluster + 1, 3 * cluster, 3 * cluster + sector + 7}) {
        const std::string name = "F" + std::to_string(size);
        const bytes content = some_bytes(size, static_cast<u32>(size));
        EXPECT_EQ(copy(host_file(content), name.c_str(), 1), shown({size}, size));
        index++;
        std::string dos = name;
        dos.resize(11, ' ');
        const entry_image entry = v.top.at(index);
        EXPECT_EQ(std::string(entry.begin(), entry.begin() + 11), dos);
        EXPECT_EQ(size_of(entry), size);
        EXPECT_EQ(content_of(entry), content);
    }
}

TEST_P(ImportFile, TenMebibytesAreWrittenInTwoChunks) {
    const bytes content = some_bytes(10 * MIB);
    const std::string host = host_file(content);
    EXPECT_EQ(copy(host, "TEN", 1), (printout{0,
                                              "\rWritten count: 8388608 / 10485760 Bytes"
                                              "\rWritten count: 10485760 / 10485760 Bytes\n",
                                              ""}));
    EXPECT_EQ(content_of(imported()), content);
    // Each chunk writes the directory entry once, as does its creation.
    const transfer entry_written = {true, v.top.sectors[0], 1};
    EXPECT_EQ(std::count(v.disk.log.begin(), v.disk.log.end(), entry_written), 3);
}

TEST_P(ImportFile, ShowsNoProgressUnlessAsked) {
    EXPECT_EQ(copy(host_file(some_bytes(9 * MIB)), "NINE"), silent());
    EXPECT_EQ(content_of(imported()), some_bytes(9 * MIB));
}

TEST_P(ImportFile, ChunksEndAtEightMebibytes) {
    const bytes content = some_bytes(CHUNK + 1);
    EXPECT_EQ(copy(host_file(part_of(content, 0, CHUNK)), "EIGHT", -1), shown({CHUNK}, CHUNK));
    EXPECT_EQ(copy(host_file(content), "MORE", 2), shown({CHUNK, CHUNK + 1}, CHUNK + 1));
    EXPECT_EQ(content_of(v.top.at(2)), content);
}

TEST_P(ImportFile, ShortReadsOfTheHostGoOn) {
    const bytes content = some_bytes(2500);
    const std::string host = host_file(content);
    const pretended_device slow({.short_transfer_bytes = 1000});
    EXPECT_EQ(copy(host, "SLOW", 1), shown({1000, 2000, 2500}, 2500));
    EXPECT_EQ(content_of(imported()), content);
}

TEST_P(ImportFile, FileThatCannotBeReadBecomesAnEmptyOne) {
    const std::string host = host_file(some_bytes(100));
    const failing_call fault(call::read, EIO);
    EXPECT_EQ(copy(host, "BAD", 1), (printout{0, "\n", ""}));
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(size_of(imported()), 0U);
    EXPECT_EQ(imported()[0], 'B');
}

TEST_P(ImportFile, FileThatCannotBeReadToItsEndBecomesAShorterOne) {
    const bytes content = some_bytes(CHUNK + 100);
    const std::string host = host_file(content);
    const failing_call fault(call::read, EIO, 1);
    EXPECT_EQ(copy(host, "BAD", 1), shown({CHUNK}, CHUNK + 100));
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(content_of(imported()), part_of(content, 0, CHUNK));
}

TEST_P(ImportFile, SizeShownIsThatOfTheStatus) {
    // Regular, of no size, and yet with contents.
    const std::string host = "/proc/version";
    struct stat status = {};
    ASSERT_EQ(lstat(host.c_str(), &status), 0);
    ASSERT_TRUE(S_ISREG(status.st_mode));
    ASSERT_EQ(status.st_size, 0);
    const printout result = copy(host, "VERSION", 1);
    const std::size_t size = size_of(imported());
    EXPECT_GT(size, 0U);
    EXPECT_EQ(result, shown({size}, 0));
}

TEST_P(ImportFile, NamesAreThoseOfTheVolume) {
    const std::string host = host_file(some_bytes(3));
    const std::string name = "/A Long Name.text";
    EXPECT_EQ(copy(host, name.c_str()), silent());
    EXPECT_EQ(name, "/A Long Name.text");
    const std::vector<entry_image> slots = long_slots(u"A Long Name.text", "ALONGN~1TEX");
    EXPECT_EQ(v.top.at(1), slots[0]);
    EXPECT_EQ(v.top.at(2), slots[1]);
    EXPECT_EQ(content_of(v.top.at(3)), some_bytes(3));
}

TEST_P(ImportFile, GoesIntoTheCurrentDirectory) {
    diagnostics messages;
    const int id = fat_mkdir("SUB");
    ASSERT_EQ(fat_set_current(id), id);
    const directory sub(&v, {mounted::record(id).start}, false);
    EXPECT_EQ(copy(host_file(some_bytes(3)), "FILE"), silent());
    EXPECT_EQ(content_of(sub.at(2)), some_bytes(3));
}

namespace {

// Two volumes one after the other.
class ImportTwice : public testing::TestWithParam<volume_shape> {
protected:
    // The blocks of a volume that are not all zero after the call.
    template <typename Call>
    std::map<std::uint64_t, bytes> blocks_after(const Call &call) {
        mounted v(GetParam());
        const diagnostics messages;
        call();
        std::map<std::uint64_t, bytes> blocks;
        for (const std::uint64_t number : v.disk.known_blocks()) {
            const u8 *block = v.disk.block(number);
            if (std::any_of(block, block + ram_disk::BLOCK, [](u8 byte) { return byte != 0; })) {
                blocks[number].assign(block, block + ram_disk::BLOCK);
            }
        }
        return blocks;
    }

    scratch_directory scratch;
    stopped_clock clock{LEAP_DAY_2024};
};
INSTANTIATE_TEST_SUITE_P(Volumes, ImportTwice,
                         testing::Values(volume_shape{.fat_type = 16, .sector_size = 4096},
                                         volume_shape{.fat_type = 32}),
                         shape_name);

} // namespace

TEST_P(ImportTwice, WritesTheSameAsCreatingAndWritingByHand) {
    const bytes content = some_bytes(CHUNK + 5000);
    const std::string host = scratch.file_with("host", content);
    const auto by_import =
        blocks_after([&] { EXPECT_EQ(fat_copy_to_zuq(host.c_str(), "A long name.bin", 0), 0); });
    const auto by_hand = blocks_after([&] {
        const int id = fat_create_file("A long name.bin");
        EXPECT_EQ(fat_write_file(id, content.data(), CHUNK), static_cast<int>(CHUNK));
        EXPECT_EQ(fat_write_file(id, content.data() + CHUNK, 5000), 5000);
        EXPECT_EQ(fat_close(id), 0);
    });
    EXPECT_TRUE(by_import == by_hand);
}

// ---- regular files that fail ------------------------------------------------------------------

TEST_P(ImportFile, ExistingNameIsRefused) {
    v.chain({30});
    v.top.put(1, short_entry("FILE       ", ARCHIVE, 30, 5));
    const entry_image before = v.top.at(1);
    EXPECT_EQ(copy(host_file(some_bytes(100)), "FILE", 1),
              (printout{-EEXIST, "",
                        found_at(v.top.base(), 1) +
                            "create_internal[N]: cannot create FILE: File exists\n" +
                            import_says("cannot create ZUQ file FILE: File exists\n")}));
    EXPECT_EQ(v.top.at(1), before);
    EXPECT_TRUE(nothing_written());
}

TEST_P(ImportFile, NameThatCannotBeIsRefused) {
    const std::string host = host_file(some_bytes(100));
    EXPECT_EQ(copy(host, "a:b"),
              (printout{-EINVAL, "",
                        "verify_valid_name[N]: " + CHECK_HERE + "fat_path_lookup[N]: " +
                            CHECK_HERE + "wrong file name: a:b\ncreate_internal[N]: " + CHECK_HERE +
                            import_says("cannot create ZUQ file a:b: Invalid argument\n")}));
    const std::string long_path(261, 'n');
    EXPECT_EQ(copy(host, long_path.c_str()),
              (printout{-ENAMETOOLONG, "",
                        "fat_get_name[N]: " + CHECK_HERE + "fat_create_file[N]: " + CHECK_HERE +
                            import_says("cannot create ZUQ file " + long_path +
                                        ": File name too long\n")}));
    EXPECT_EQ(copy(host, nullptr),
              (printout{-EINVAL, "",
                        "fat_get_name[N]: " + CHECK_HERE + "fat_create_file[N]: " + CHECK_HERE +
                            import_says("cannot create ZUQ file (null): Invalid argument\n")}));
    EXPECT_TRUE(nothing_written());
}

TEST_P(ImportFile, PathThatLeadsDeeperIsRefused) {
    v.chain({30});
    v.top.put(1, short_entry("SUB        ", DIRECTORY, 30));
    EXPECT_EQ(copy(host_file({}), "SUB/FILE"),
              (printout{-EINVAL, "",
                        found_at(v.top.base(), 1) + "do_create[N]: Invalid input\n" +
                            import_says("cannot create ZUQ file SUB/FILE: Invalid argument\n")}));
    EXPECT_TRUE(nothing_written());
}

TEST_P(ImportFile, FileThatCannotBeOpenedIsRefused) {
    const std::string host = host_file(some_bytes(100));
    const failing_call fault(call::open, EACCES);
    EXPECT_EQ(copy(host, "FILE", 1),
              (printout{-EACCES, "", import_says("cannot open file:" + host + "\n")}));
    EXPECT_TRUE(nothing_written());
}

TEST_P(ImportFile, FileThatTheUserMayNotReadIsRefused) {
    const std::string host = host_file(some_bytes(100));
    ASSERT_EQ(chmod(host.c_str(), 0), 0);
    ASSERT_EQ(chmod(scratch.file(".").c_str(), 0755), 0);
    const diagnostics messages;
    const plain_user user;
    if (!user.is_plain()) {
        GTEST_SKIP() << "root stays root here";
    }
    const int result = fat_copy_to_zuq(host.c_str(), "FILE", 0);
    EXPECT_EQ(result, -EACCES);
    EXPECT_TRUE(nothing_written());
}

TEST_P(ImportFile, FullVolumeIsReportedAndLeavesAnEmptyFile) {
    v.fill_but({});
    EXPECT_EQ(copy(host_file(some_bytes(100)), "FILE", 1),
              (printout{0, "\n",
                        VOLUME_FULL +
                            import_says("cannot write to file FILE: No space left on device\n")}));
    EXPECT_EQ(size_of(imported()), 0U);
    EXPECT_EQ(start_of(imported()), 0U);
    EXPECT_EQ(imported()[0], 'F');
    EXPECT_EQ(v.count_free(), 0U);
}

TEST_P(ImportFile, VolumeThatFillsUpRetainsTheEarlierImports) {
    const std::size_t cluster = mounted::cluster_bytes();
    v.fill_but({30, 31, 32});
    const bytes content = some_bytes(5 * cluster);
    const std::string host = host_file(content);
    const pretended_device slow({.short_transfer_bytes = static_cast<std::int64_t>(2 * cluster)});
    printout expected = shown({2 * cluster}, 5 * cluster);
    expected.messages =
        VOLUME_FULL + import_says("cannot write to file /FILE: No space left on device\n");
    EXPECT_EQ(copy(host, "/FILE", 1), expected);
    EXPECT_EQ(content_of(imported()), part_of(content, 0, 2 * cluster));
    EXPECT_EQ(v.count_free(), 1U);
}

TEST_P(ImportFile, SectorThatCannotBeWrittenIsReportedAndLeavesAnEmptyFile) {
    v.fill_but({30, 31});
    v.disk.unwritable = {volume::first_sector_of(30)};
    EXPECT_EQ(copy(host_file(some_bytes(mounted::cluster_bytes())), "FILE"),
              (printout{0, "",
                        "do_write_file[N]: cannot write sector to file\n"
                        "write_file_internal[N]: Failed to write file!\n\n"
                        "fat_write_file[N]: Failed go get file entry!\n\n" +
                            import_says("cannot write to file FILE: Input/output error\n")}));
    EXPECT_EQ(size_of(imported()), 0U);
    EXPECT_EQ(v.count_free(), 2U);
}

// ---- any of its transfers and allocations fails -----------------------------------------------

namespace {

// Copies an object into new volumes while the first, second, ... step of a kind fails. `least`:
// steps of the undisturbed call.
void expect_survival(const std::string &host, const fault_kind &kind, int least) {
    at_every_fault({kind}, [&](fault_step &step) {
        mounted v;
        v.top.go_to(1);
        const std::set<int> descriptors = open_descriptors();
        const printout result = to_output([&] {
            return step.run([&] { return fat_copy_to_zuq(host.c_str(), "A Long Name", 0); });
        });
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_EQ(ids_in_use(), (std::vector<int>{0}));
        if (!step.struck()) {
            EXPECT_EQ(result, silent());
            EXPECT_GT(step.k, least);
            return;
        }
        EXPECT_NE(result.messages, "");
        EXPECT_TRUE(result.result == 0 || result.result == -EIO || result.result == -ENOMEM ||
                    result.result == -ENOSPC || result.result == -EINVAL)
            << result;
        // A failure is printed in the name of the import, once and last.
        EXPECT_EQ(result.messages.find("fat_copy_to_zuq[N]: "),
                  result.messages.rfind("fat_copy_to_zuq[N]: "))
            << result;
        if (result.messages.find("Cannot allocate memory.(err=-12)") == std::string::npos) {
            EXPECT_NE(result.messages.rfind("fat_copy_to_zuq[N]: cannot "), std::string::npos)
                << result;
        }
    });
}

} // namespace

TEST(ImportUnderFaults, FileSurvivesEachOfThem) {
    const scratch_directory scratch;
    const std::string host = scratch.file_with("host", some_bytes(700));
    expect_survival(host, EVERY_ALLOCATION, 5);
    expect_survival(host, EVERY_READ, 1);
    expect_survival(host, EVERY_WRITE, 3);
}

TEST(ImportUnderFaults, LinkSurvivesEachOfThem) {
    const scratch_directory scratch;
    const std::string host = scratch.file("link");
    ASSERT_EQ(::symlink("target", host.c_str()), 0);
    expect_survival(host, EVERY_ALLOCATION, 5);
    expect_survival(host, EVERY_WRITE, 3);
}

// ---- large files ------------------------------------------------------------------------------

namespace {

// A volume whose data area stores only sectors that are not all zero, or nothing, and counts them.
class ImportLargeFile : public import_test {
protected:
    explicit ImportLargeFile(const volume_shape &shape = {.fat_type = 16,
                                                          .sector_size = 4096,
                                                          .sec_per_clus = 64,
                                                          .clusters = 20000})
        : import_test(shape) {
        real_write() = write_sectors;
        write_sectors = [](void *buf, std::uint64_t sector, std::uint32_t count) {
            if (sector < sv->data_start) {
                return real_write()(buf, sector, count);
            }
            moved() += count;
            if (keeps_nothing() || all_zero(buf, std::size_t{count} * sv->sector_size)) {
                return static_cast<int>(count);
            }
            kept() += count;
            return real_write()(buf, sector, count);
        };
        moved() = kept() = 0;
        keeps_nothing() = false;
    }

    static bool all_zero(const void *buf, std::size_t size) {
        const u8 *first = static_cast<const u8 *>(buf);
        return *first == 0 && std::memcmp(first, first + 1, size - 1) == 0;
    }
    static std::uint64_t &moved() {
        static std::uint64_t sectors = 0;
        return sectors;
    }
    static std::uint64_t &kept() {
        static std::uint64_t sectors = 0;
        return sectors;
    }
    static bool &keeps_nothing() {
        static bool value = false;
        return value;
    }

private:
    static fat_sector_io &real_write() {
        static fat_sector_io io = nullptr;
        return io;
    }
};

} // namespace

TEST_F(ImportLargeFile, SparseFileArrivesWhole) {
    if (runs_in_valgrind()) {
        GTEST_SKIP() << "a large file takes minutes here";
    }
    constexpr std::uint64_t SIZE = (QUORVEL_FULL ? 1024 : 128) * MIB;
    const std::string host = scratch.sparse_file("host", SIZE);
    // Marks at the ends of the file and of chunks and clusters.
    const std::map<std::uint64_t, u8> marks = {
        {0, 1},     {256 * KIB - 1, 2},    {256 * KIB, 3},    {CHUNK - 1, 4},
        {CHUNK, 5}, {SIZE / 2 + 12345, 6}, {SIZE - CHUNK, 7}, {SIZE - 1, 8}};
    {
        std::fstream file(host, std::ios::in | std::ios::out | std::ios::binary);
        for (const auto &[offset, mark] : marks) {
            file.seekp(static_cast<std::streamoff>(offset));
            file.put(static_cast<char>(mark));
        }
    }
    std::string lines;
    for (std::uint64_t done = CHUNK; done <= SIZE; done += CHUNK) {
        lines += progress(done, SIZE);
    }
    EXPECT_EQ(copy(host, "GIB", 1), (printout{0, lines + "\n", ""}));
    EXPECT_EQ(size_of(imported()), SIZE);
    const std::vector<u32> clusters = v.chain_from(start_of(imported()));
    ASSERT_EQ(clusters.size(), SIZE / mounted::cluster_bytes());
    EXPECT_EQ(moved(), SIZE / sv->sector_size);
    for (const auto &[offset, mark] : marks) {
        const u32 cluster = clusters[static_cast<std::size_t>(offset / mounted::cluster_bytes())];
        const std::uint64_t at = mounted::byte_of(cluster) + offset % mounted::cluster_bytes();
        EXPECT_EQ(v.disk.peek(at, 1), bytes{mark}) << offset;
    }
    // Everything else is zero.
    std::size_t other = 0;
    for (const std::uint64_t number : v.disk.known_blocks()) {
        if (number >= sv->data_start) {
            const u8 *block = v.disk.block(number);
            other += static_cast<std::size_t>(
                std::count_if(block, block + ram_disk::BLOCK, [](u8 byte) { return byte != 0; }));
        }
    }
    EXPECT_EQ(other, marks.size());
}

TEST_F(ImportLargeFile, FourGibibytesEndOneChunkBefore) {
    constexpr std::uint64_t LIMIT = 4096 * MIB;
    keeps_nothing() = true;
    const std::string host = scratch.sparse_file("host", LIMIT + 1);
    std::string lines;
    for (std::uint64_t done = CHUNK; done < LIMIT; done += CHUNK) {
        lines += progress(done, LIMIT + 1);
    }
    // The total is shown as an int.
    EXPECT_NE(lines.find("\rWritten count: 2139095040 / 4294967297 Bytes"
                         "\rWritten count: -2147483648 / 4294967297 Bytes"),
              std::string::npos);
    const pretended_device unread({.invented_bytes = LIMIT + 1});
    EXPECT_EQ(copy(host, "HUGE", 1),
              (printout{0, lines + "\n",
                        "write_file_internal[N]: Failed to write file!\n\n"
                        "fat_write_file[N]: Failed go get file entry!\n\n" +
                            import_says("cannot write to file HUGE: File too large\n")}));
    EXPECT_EQ(size_of(imported()), LIMIT - CHUNK);
    EXPECT_EQ(moved(), (LIMIT - CHUNK) / sv->sector_size);
}

TEST_F(ImportLargeFile, TakesOneBufferOfEightMebibytesAndAByte) {
    const std::string host = scratch.sparse_file("host", 20 * MIB);
    diagnostics messages;
    const allocation_meter meter;
    EXPECT_EQ(fat_copy_to_zuq(host.c_str(), "FILE", 0), 0);
    EXPECT_GE(meter.peak_bytes(), CHUNK + 1);
    EXPECT_LT(meter.peak_bytes(), CHUNK + 256 * KIB);
}

TEST_F(ImportLargeFile, EachProgressLineIsSeenAtOnce) {
    const std::string host = scratch.sparse_file("host", CHUNK + 1);
    static off_t size_seen = 0;
    static fat_sector_io previous = nullptr;
    size_seen = 0;
    previous = write_sectors;
    write_sectors = [](void *buf, std::uint64_t sector, std::uint32_t count) {
        struct stat status = {};
        EXPECT_EQ(fstat(STDOUT_FILENO, &status), 0);
        size_seen = status.st_size;
        return previous(buf, sector, count);
    };
    EXPECT_EQ(copy(host, "FILE", 1).result, 0);
    // The last write is one of the second chunk.
    EXPECT_EQ(size_seen, static_cast<off_t>(progress(CHUNK, CHUNK + 1).size()));
}

// ---- symbolic links ---------------------------------------------------------------------------

namespace {

class ImportLink : public import_test {
protected:
    ImportLink() : import_test({.fat_type = 16}) {}

    // A link of the volume with this target.
    void expect_link(u32 index, const std::string &dos, const std::string &target) {
        const entry_image entry = v.top.at(index);
        EXPECT_EQ(std::string(entry.begin(), entry.begin() + 11), dos);
        EXPECT_EQ(entry[11], 0);
        EXPECT_EQ(entry[13], 0xE2);
        const bytes content = content_of(entry);
        EXPECT_EQ(std::string(content.begin(), content.end()), target);
    }
    static printout refused(int result, const std::string &messages) {
        return {result, "", messages};
    }
};
const std::string LINK_REFUSED = import_says("cannot create ZUQ file LINK\n\n");

} // namespace

TEST_F(ImportLink, BecomesALinkWithTheSameTarget) {
    EXPECT_EQ(copy(host_link("a/b"), "LINK", 1), silent());
    expect_link(1, "LINK       ", "a/b");
    EXPECT_EQ(v.top.at(2), entry_image{});
}

TEST_F(ImportLink, IsNotFollowed) {
    const std::string file = host_file(some_bytes(100));
    ASSERT_EQ(::symlink("host", scratch.file("to_file").c_str()), 0);
    ASSERT_EQ(::symlink(".", scratch.file("to_dir").c_str()), 0);
    ASSERT_EQ(::symlink("to_itself", scratch.file("to_itself").c_str()), 0);
    EXPECT_EQ(copy(scratch.file("to_file"), "TO_FILE"), silent());
    EXPECT_EQ(copy(scratch.file("to_dir"), "TO_DIR"), silent());
    EXPECT_EQ(copy(scratch.file("to_itself"), "TO_ITSLF"), silent());
    expect_link(1, "TO_FILE    ", "host");
    expect_link(2, "TO_DIR     ", ".");
    expect_link(3, "TO_ITSLF   ", "to_itself");
}

TEST_F(ImportLink, TargetOf260CharactersIsTheLongest) {
    const std::string path = host_link(std::string(260, 't'));
    EXPECT_EQ(copy(path, "LINK"), silent());
    expect_link(1, "LINK       ", std::string(260, 't'));
    ASSERT_EQ(unlink(path.c_str()), 0);
    v.disk.log.clear();
    EXPECT_EQ(copy(host_link(std::string(261, 't')), "LINK"),
              refused(-ENAMETOOLONG, "fat_create_symlink[N]: " + CHECK_HERE + LINK_REFUSED));
    EXPECT_TRUE(nothing_written());
}

TEST_F(ImportLink, TargetOfEightMebibytesFillsTheBuffer) {
    const std::string path = host_link("short");
    const pretended_link longest({.target_size = static_cast<std::int64_t>(CHUNK)});
    EXPECT_EQ(copy(path, "LINK"),
              refused(-ENAMETOOLONG, "fat_create_symlink[N]: " + CHECK_HERE + LINK_REFUSED));
    EXPECT_EQ(longest.room(), CHUNK);
    EXPECT_TRUE(nothing_written());
    // Its terminator is past that.
    const diagnostics messages;
    const allocation_meter meter;
    EXPECT_EQ(fat_copy_to_zuq(path.c_str(), "LINK", 0), -ENAMETOOLONG);
    EXPECT_EQ(meter.peak_bytes(), CHUNK + 1);
}

TEST_F(ImportLink, TargetEndsAtTheLengthThatTheSystemReturns) {
    const std::string path = host_link("longer than three");
    const pretended_link three({.target_size = 3, .fill = 't'});
    EXPECT_EQ(copy(path, "LINK"), silent());
    expect_link(1, "LINK       ", "ttt");
}

TEST_F(ImportLink, ReportsATargetThatCannotBeRead) {
    const std::string path = host_link("target");
    const failing_call fault(call::readlink, EACCES);
    EXPECT_EQ(copy(path, "LINK"), refused(-EACCES, import_says("Cannot read link!\n\n")));
    EXPECT_TRUE(nothing_written());
}

TEST_F(ImportLink, TargetWithoutCharactersIsRefused) {
    const std::string path = host_link("target");
    const pretended_link empty({.target_size = 0, .error = EIO});
    const printout result = copy(path, "LINK");
    EXPECT_LT(result.result, 0);
    EXPECT_EQ(result.messages, import_says("Cannot read link!\n\n"));
    EXPECT_TRUE(nothing_written());
}

TEST_F(ImportLink, TargetWithoutCharactersGivesTheErrorOfTheSystem) {
    const std::string path = host_link("target");
    const pretended_link empty({.target_size = 0, .error = EIO});
    EXPECT_EQ(copy(path, "LINK").result, -EIO);
}

TEST_F(ImportLink, ExistingNameIsRefused) {
    v.top.put(1, short_entry("LINK       "));
    EXPECT_EQ(copy(host_link("target"), "LINK"),
              refused(-EEXIST, found_at(0, 1) +
                                   "create_internal[N]: cannot create LINK: File exists\n"
                                   "fat_create_symlink[N]: " +
                                   CHECK_HERE + LINK_REFUSED));
    EXPECT_TRUE(nothing_written());
}

TEST_F(ImportLink, NeedsANameInTheVolume) {
    EXPECT_EQ(copy(host_link("target"), nullptr),
              refused(-EINVAL, "fat_get_name[N]: " + CHECK_HERE + "fat_create_symlink[N]: " +
                                   CHECK_HERE + import_says("cannot create ZUQ file (null)\n\n")));
}

TEST_F(ImportLink, FullVolumeIsReported) {
    v.fill_but({});
    EXPECT_EQ(copy(host_link("target"), "LINK"),
              refused(-ENOSPC, "fat_alloc_cluster[N]: No space left on volume!!\n"
                               "fat_extend_dir[N]: Failed to allocate cluster!\n\n"
                               "fat_create_symlink[N]: " +
                                   CHECK_HERE + LINK_REFUSED));
    EXPECT_EQ(imported(), entry_image{});
}

TEST_F(ImportLink, TargetThatCannotBeWrittenIsReported) {
    v.fill_but({30});
    // The cluster is cleared first and written with the target then.
    v.disk.writes_before_failure = 3;
    const printout result = copy(host_link("target"), "LINK");
    EXPECT_EQ(result.result, -EIO);
    EXPECT_EQ(result.messages, "do_write_file[N]: cannot write sector to file\n"
                               "write_file_internal[N]: Failed to write file!\n\n"
                               "fat_write_file[N]: Failed go get file entry!\n\n"
                               "fat_create_symlink[N]: " +
                                   CHECK_HERE + LINK_REFUSED);
}

// ---- everything else --------------------------------------------------------------------------

namespace {

class ImportRefuses : public import_test {
protected:
    ImportRefuses() : import_test({.fat_type = 16}) {}
    ~ImportRefuses() override {
        EXPECT_TRUE(nothing_written());
    }

    // Refused without being opened.
    void expect_wrong_kind(const std::string &host) {
        const failing_call fault(call::open, EIO);
        for (const int show_progress : {0, 1}) {
            EXPECT_EQ(copy(host, "NAME", show_progress),
                      (printout{-EINVAL, "", import_says("Invalid typed file: " + host + "\n\n")}));
        }
        EXPECT_FALSE(fault.struck());
    }
    void expect_no_status(const std::string &host, int result) {
        EXPECT_EQ(copy(host, "NAME", 1),
                  (printout{result, "", import_says("Cannot get file status:" + host + "!\n\n")}));
    }
};

} // namespace

TEST_F(ImportRefuses, Directories) {
    expect_wrong_kind(scratch.file("."));
    expect_wrong_kind("/");
}

TEST_F(ImportRefuses, Pipes) {
    const std::string path = scratch.file("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    expect_wrong_kind(path);
}

TEST_F(ImportRefuses, Sockets) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = scratch.file("socket");
    ASSERT_LT(path.size(), sizeof address.sun_path);
    std::strcpy(address.sun_path, path.c_str());
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    expect_wrong_kind(path);
    close(listener);
}

TEST_F(ImportRefuses, CharacterDevices) {
    expect_wrong_kind("/dev/null");
}

TEST_F(ImportRefuses, EveryKindButFilesAndLinks) {
    const std::string host = host_file(some_bytes(10));
    for (u32 type = 1; type <= 0xF; type++) {
        if (type == 0x8 || type == 0xA) {
            continue;
        }
        const pretended_link other({.mode = type << 12});
        expect_wrong_kind(host);
    }
}

TEST_F(ImportRefuses, PathsWithoutAnObject) {
    expect_no_status(scratch.file("none"), -ENOENT);
    expect_no_status("", -ENOENT);
    expect_no_status(host_file({}) + "/below", -ENOTDIR);
    expect_no_status("/" + std::string(300, 'n'), -ENAMETOOLONG);
    const failing_call fault(call::lstat, EACCES);
    expect_no_status(host_file({}), -EACCES);
}

TEST_F(ImportRefuses, FilesThatAFullRootHasNoRoomFor) {
    v.top.fill_up(short_entry("TAKEN      "));
    EXPECT_EQ(
        copy(host_file(some_bytes(100)), "FILE", 1),
        (printout{-ENOSPC, "",
                  "get_phy_sector[N]: Invalid sector number in Root dir\n\n"
                  "get_dentry_with_clu[N]: Failed to get entry sector!:(0, 512)\n\n"
                  "Root directory has no more space\n" +
                      import_says("cannot create ZUQ file FILE: No space left on device\n")}));
}

TEST_F(ImportRefuses, MissingMemory) {
    const std::string host = host_file(some_bytes(10));
    for (const std::string &path : {host, scratch.file("."), host_link("target")}) {
        const failing_allocation fault(0);
        EXPECT_EQ(copy(path, "NAME", 1),
                  (printout{-ENOMEM, "", import_says("Cannot allocate memory.(err=-12)\n")}));
        EXPECT_TRUE(fault.struck());
    }
    // The status is asked for first.
    const failing_allocation fault(0);
    expect_no_status(scratch.file("none"), -ENOENT);
    EXPECT_FALSE(fault.struck());
}

TEST(Import, ReportsFailuresOnStandardErrorAlone) {
    const mounted v;
    standard_error error;
    standard_output out;
    const int result = fat_copy_to_zuq("/none", "NAME", 1);
    EXPECT_EQ(out.stop(), "");
    EXPECT_EQ(without_line_numbers(error.stop()), import_says("Cannot get file status:/none!\n\n"));
    EXPECT_EQ(result, -ENOENT);
}
