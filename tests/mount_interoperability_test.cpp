// Volumes that other programs made, and those of the program itself: the mounted geometry is
// compared with that of the maker and of the checker.

#include "fat/internal.h"
#include "tests/support/boot_sector.h"
#include "tests/support/capture.h"
#include "tests/support/open_entries.h"
#include "tests/support/process.h"
#include "tests/support/volume_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

constexpr std::uint64_t MIB = 1024 * 1024;

using words = std::vector<std::string>;

std::string joined(const words &list) {
    std::string result;
    for (const std::string &word : list) {
        result += word + " ";
    }
    return result;
}

// ---- the report of the checker ----------------------------------------------------------------

// A number as the checker aligns it.
std::string aligned(std::uint64_t number, const std::string &of_what) {
    const std::string digits = std::to_string(number);
    return std::string(10 - digits.size(), ' ') + digits + " " + of_what + "\n";
}
std::string at_byte(const std::string &what, const std::string &verb, std::uint64_t sector) {
    return what + " " + verb + " at byte " + std::to_string(sector * sv->sector_size) +
           " (sector " + std::to_string(sector) + ")\n";
}

// The expected report of the checker of dosfstools on the mounted geometry.
std::string checker_report(std::uint32_t fats) {
    const bool is_fat32 = sv->fat_type == 32;
    const std::uint64_t cluster = std::uint64_t{sv->sec_per_clus} * sv->sector_size;
    std::string text = aligned(sv->sector_size, "bytes per logical sector");
    text += aligned(cluster, "bytes per cluster");
    text += aligned(sv->fat_start, sv->fat_start == 1 ? "reserved sector" : "reserved sectors");
    text += at_byte("First FAT", "starts", sv->fat_start);
    text += aligned(fats, "FATs, " + std::to_string(sv->fat_type) + " bit entries");
    text += aligned(std::uint64_t{sv->fat_size} * sv->sector_size,
                    "bytes per FAT (= " + std::to_string(sv->fat_size) + " sectors)");
    if (is_fat32) {
        text += "Root directory start at cluster " + std::to_string(sv->root_clus) +
                " (arbitrary size)\n";
    } else {
        text += at_byte("Root directory", "starts", sv->rdir_start);
        text += aligned((sv->data_start - sv->rdir_start) * sv->sector_size / 32,
                        "root directory entries");
    }
    text += at_byte("Data area", "starts", sv->data_start);
    text += aligned(sv->num_clusters,
                    "data clusters (" + std::to_string(sv->num_clusters * cluster) + " bytes)");
    return text + aligned(sv->total_sectors, "sectors total");
}

// The geometry in its output, without the lines about the tracks of the disk.
std::string geometry_in(const std::string &messages) {
    std::istringstream lines(messages);
    std::string text;
    bool is_inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (is_inside && line.find("sectors/track") == std::string::npos &&
            line.find("hidden sectors") == std::string::npos) {
            text += line + "\n";
        }
        is_inside = is_inside || line.rfind("Media byte", 0) == 0;
        if (line.find("sectors total") != std::string::npos) {
            return text;
        }
    }
    return messages;
}

// ---- mounting volumes of other programs -------------------------------------------------------

class MountInteroperability : public volume_test {
protected:
    static void SetUpTestSuite() {
        // Eight sectors to a track need not divide the volume, which mtools would refuse.
        setenv("MTOOLS_SKIP_CHECK", "1", 1);
    }
    void SetUp() override {
        for (const char *program : {"mkfs.fat", "fsck.fat", "mformat", "mcopy", "mmd"}) {
            if (!has_program(program)) {
                GTEST_SKIP() << program << " is not installed";
            }
        }
    }

    void must(const words &command) {
        const outcome result = run(command);
        ASSERT_EQ(result.status, 0) << joined(command) << result;
    }
    // A file of three clusters and a directory, put there by mtools.
    void populate(const std::string &image, std::uint32_t cluster_bytes) {
        const std::string file =
            scratch.file_with("content", bytes(std::size_t{2} * cluster_bytes + 1, 'x'));
        ASSERT_NO_FATAL_FAILURE(must({"mcopy", "-o", "-i", image, file, "::/A Long Name.txt"}));
        ASSERT_NO_FATAL_FAILURE(must({"mmd", "-i", image, "::/SUB"}));
        ASSERT_NO_FATAL_FAILURE(must({"mcopy", "-i", image, file, "::/SUB/INNER.TXT"}));
    }
    void mount(const std::string &image) {
        ASSERT_GE(fat_open_volume(image.c_str(), 1, 0), 0);
        messages.clear();
        ASSERT_EQ(fat_build_super(), 0) << messages.text();
        ASSERT_EQ(messages.text(), "");
        ASSERT_TRUE(table_agrees());
    }
    void close_it() {
        ASSERT_EQ(fat_close_volume(0), 0);
        ASSERT_EQ(left_open(), std::vector<int>());
        ASSERT_TRUE(table_agrees());
    }
    // The file and the directory are there, with all their clusters.
    static void expect_populated() {
        const std::uint32_t cluster = sv->sec_per_clus * sv->sector_size;
        ASSERT_EQ(fat_open_file("A Long Name.txt"), 1);
        EXPECT_EQ(oentry_table[1]->allocated, 3 * cluster);
        ASSERT_EQ(fat_open_dir("SUB"), 2);
        EXPECT_EQ(oentry_table[2]->allocated, cluster);
        EXPECT_EQ(oentry_table[2]->parent_clus, sv->root_clus);
        ASSERT_EQ(fat_set_current(2), 2);
        ASSERT_EQ(fat_open_file("./INNER.TXT"), 3);
        EXPECT_EQ(oentry_table[3]->allocated, 3 * cluster);
        EXPECT_EQ(oentry_table[3]->parent_clus, oentry_table[2]->start);
        ASSERT_EQ(fat_open(".."), 4);
        EXPECT_EQ(oentry_table[4]->start, sv->root_dir->start);
        EXPECT_EQ(fat_open("MISSING"), -ENOENT);
    }

    // Checks a finished image. `width`: the expected FAT width.
    void check(const std::string &image, unsigned width, std::uint32_t fats,
               std::uint32_t cluster_bytes) {
        ASSERT_NO_FATAL_FAILURE(populate(image, cluster_bytes));
        const outcome checked = run({"fsck.fat", "-v", "-n", image});
        ASSERT_NO_FATAL_FAILURE(mount(image));
        EXPECT_EQ(sv->fat_type, width);
        EXPECT_EQ(sv->sec_per_clus * sv->sector_size, cluster_bytes);
        EXPECT_EQ(geometry_in(checked.out), checker_report(fats));
        const std::uint32_t fats_end = sv->fat_start + fats * sv->fat_size;
        EXPECT_EQ(sv->rdir_start, width == 32 ? sv->data_start : fats_end);
        if (width == 32) {
            EXPECT_EQ(sv->data_start, fats_end);
        }
        ASSERT_NO_FATAL_FAILURE(expect_populated());
        ASSERT_NO_FATAL_FAILURE(close_it());
    }

    struct maker {
        words options;
        std::uint64_t size; // bytes
        unsigned width;
        std::uint32_t fats;
        std::uint32_t cluster_bytes;
    };
    void check_mkfs(const maker &m) {
        SCOPED_TRACE(joined(m.options) + "on " + std::to_string(m.size));
        const std::string image = scratch.sparse_file("disk.img", m.size);
        words command = {"mkfs.fat", "-F", std::to_string(m.width)};
        command.insert(command.end(), m.options.begin(), m.options.end());
        command.push_back(image);
        ASSERT_NO_FATAL_FAILURE(must(command));
        check(image, m.width, m.fats, m.cluster_bytes);
    }
    void check_mformat(const maker &m) {
        SCOPED_TRACE(joined(m.options) + "on " + std::to_string(m.size));
        const std::string image = scratch.sparse_file("disk.img", m.size);
        words command = {"mformat", "-i", image, "-h", "16", "-s", "63"};
        command.insert(command.end(), m.options.begin(), m.options.end());
        command.emplace_back("::");
        ASSERT_NO_FATAL_FAILURE(must(command));
        check(image, m.width, m.fats, m.cluster_bytes);
    }
};

std::string volume_summary() {
    char *text = nullptr;
    std::size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    print_volume_summary(stream);
    std::fclose(stream);
    std::string result(text, size);
    std::free(text);
    return result;
}

} // namespace

TEST_F(MountInteroperability, VolumesOfTheProgram) {
    for (const std::string width : {"16", "32"}) {
        for (const std::uint32_t sector : {512U, 1024U, 2048U, 4096U}) {
            for (const std::uint32_t sectors : {1U, 2U, 8U}) {
                for (const std::string page : {"0", "4096"}) {
                    const words options = {
                        "-F", width, "-S", std::to_string(sector), "-s", std::to_string(sectors),
                        "-p", page};
                    SCOPED_TRACE(joined(options));
                    const std::uint64_t clusters = width == "16" ? 9000 : 67000;
                    const std::string image = scratch.sparse_file(
                        "disk.img", (clusters * sectors + 500) * sector + 4 * MIB);
                    words command = {tool_path(), "-v"};
                    command.insert(command.end(), options.begin(), options.end());
                    command.push_back(image);
                    const outcome made = run(command);
                    ASSERT_EQ(made.status, 0) << made;
                    ASSERT_NO_FATAL_FAILURE(mount(image));
                    EXPECT_EQ(volume_summary() + "Success to format\n", made.out);
                    ASSERT_NO_FATAL_FAILURE(close_it());
                    ASSERT_NO_FATAL_FAILURE(
                        check(image, width == "16" ? 16 : 32, 2, sector * sectors));
                }
            }
        }
    }
}

TEST_F(MountInteroperability, Fat16VolumesOfMkfs) {
    for (const std::uint32_t sector : {512U, 1024U, 2048U, 4096U}) {
        const std::string size = std::to_string(sector);
        ASSERT_NO_FATAL_FAILURE(
            check_mkfs({{"-S", size, "-s", "1"}, std::uint64_t{10000} * sector, 16, 2, sector}));
        ASSERT_NO_FATAL_FAILURE(check_mkfs(
            {{"-S", size, "-s", "4"}, std::uint64_t{40000} * sector, 16, 2, 4 * sector}));
        ASSERT_NO_FATAL_FAILURE(check_mkfs(
            {{"-a", "-S", size, "-s", "2", "-f", "1", "-R", "7", "-r", "1024", "-h", "63"},
             std::uint64_t{120000} * sector,
             16,
             1,
             2 * sector}));
    }
}

TEST_F(MountInteroperability, Fat32VolumesOfMkfs) {
    for (const std::uint32_t sector : {512U, 1024U, 2048U, 4096U}) {
        const std::string size = std::to_string(sector);
        ASSERT_NO_FATAL_FAILURE(
            check_mkfs({{"-S", size, "-s", "1"}, std::uint64_t{70000} * sector, 32, 2, sector}));
        ASSERT_NO_FATAL_FAILURE(check_mkfs({{"-a", "-S", size, "-s", "2", "-f", "1", "-R", "40"},
                                            std::uint64_t{150000} * sector,
                                            32,
                                            1,
                                            2 * sector}));
    }
}

TEST_F(MountInteroperability, VolumesOfMformat) {
    for (const std::uint32_t sector : {512U, 1024U, 2048U, 4096U}) {
        const std::string size = std::to_string(sector);
        ASSERT_NO_FATAL_FAILURE(check_mformat({{"-M", size, "-c", "2", "-T", "20000"},
                                               std::uint64_t{20000} * sector,
                                               16,
                                               2,
                                               2 * sector}));
        ASSERT_NO_FATAL_FAILURE(check_mformat({{"-M", size, "-c", "1", "-d", "1", "-T", "50000"},
                                               std::uint64_t{50000} * sector,
                                               16,
                                               1,
                                               sector}));
        ASSERT_NO_FATAL_FAILURE(check_mformat({{"-M", size, "-F", "-c", "1", "-T", "70000"},
                                               std::uint64_t{70000} * sector,
                                               32,
                                               2,
                                               sector}));
    }
}
