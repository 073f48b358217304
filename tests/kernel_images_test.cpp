// Directories that a Linux kernel wrote, read back by the library: the expected result is the
// listing of the kernel itself. tests/vm/golden_images makes the images.

#include "fat/internal.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/process.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using namespace testing_support;

namespace {

constexpr std::uint16_t DATE = (2024 - 1980) << 9 | 2 << 5 | 29;
constexpr std::uint16_t TIME = 12 << 11 | 34 << 5 | 56 / 2;

struct kernel_list {
    std::set<std::string> directories;
    std::map<std::string, std::string> files; // path to "MD5 SIZE"
};

kernel_list read_list(const std::string &path) {
    kernel_list result;
    std::ifstream stream(path);
    for (std::string line; std::getline(stream, line);) {
        const std::size_t first = line.find(' ');
        if (line.substr(0, first) == "directory") {
            result.directories.insert(line.substr(first + 1));
            continue;
        }
        const std::size_t second = line.find(' ', first + 1);
        result.files[line.substr(second + 1)] = line.substr(0, second);
    }
    return result;
}

class KernelImages : public testing::TestWithParam<const char *> {
protected:
    scratch_directory scratch;
    kernel_list expected;

    void SetUp() override {
        const std::string base = std::string(QUORVEL_SOURCE_DIR) + "/tests/data/" + GetParam();
        expected = read_list(base + ".txt");
        ASSERT_GT(expected.files.size(), 50u);
        const std::string image = scratch.file("disk.img");
        ASSERT_EQ(shell("gzip -dc \"$1\" >\"$2\"", {base + ".img.gz", image}),
                  (outcome{0, "", ""}));
        fat_set_diagnostics(nullptr);
        ASSERT_GE(fat_open_volume(image.c_str(), 1, 0), 0);
        ASSERT_EQ(fat_build_super(), 0);
        ASSERT_EQ(fat_set_encoding("UTF-8"), 0);
    }
    void TearDown() override {
        fat_close_volume(0);
        fat_set_diagnostics(stderr);
    }

    // The entries of a directory but its dot entries.
    static std::vector<fat_entry_info> entries_of(int directory) {
        std::vector<fat_entry_info> result;
        fat_entry_info info;
        for (std::uint32_t index = 0; fat_next_entry(directory, &index, &info) == 1;) {
            if (std::strcmp(info.name, ".") != 0 && std::strcmp(info.name, "..") != 0) {
                result.push_back(info);
            }
        }
        return result;
    }

    std::string md5_and_size(int id, std::uint32_t size) const {
        bytes content(size);
        if (size != 0) {
            EXPECT_EQ(fat_read_file(id, content.data(), size), static_cast<int>(size));
        }
        const std::string path = scratch.file_with("content", content);
        return shell("md5sum <\"$1\"", {path}).out.substr(0, 32) + " " + std::to_string(size);
    }

    // Collects the entries below an open directory.
    void collect(int directory, const std::string &prefix, kernel_list *found) {
        for (const fat_entry_info &info : entries_of(directory)) {
            const std::string path = prefix + info.name;
            EXPECT_EQ(info.mdate, DATE) << path;
            EXPECT_EQ(info.mtime, TIME) << path;
            const int id = fat::fat_entry_open(oentry_table[directory], info.index);
            ASSERT_GT(id, 0) << path;
            fat_entry_info opened;
            EXPECT_EQ(fat_info_of(id, &opened), 0);
            EXPECT_STREQ(opened.name, info.name);
            if (info.type == fat::DENTRY_DIR) {
                found->directories.insert(path);
                collect(id, path + "/", found);
            } else {
                found->files[path] = md5_and_size(id, info.size);
            }
            fat_close(id);
        }
    }
};

} // namespace

TEST_P(KernelImages, NamesTimesAndContentsAreThoseOfTheKernel) {
    kernel_list found;
    collect(0, "", &found);
    EXPECT_EQ(found.directories, expected.directories);
    EXPECT_EQ(found.files, expected.files);
}

TEST_P(KernelImages, EveryNameInADirectoryIsFoundByThatName) {
    const int directory = fat_open_dir("many");
    ASSERT_GT(directory, 0);
    ASSERT_EQ(fat_set_current(directory), directory);
    const std::vector<fat_entry_info> entries = entries_of(directory);
    EXPECT_EQ(entries.size(), 51u);
    for (const fat_entry_info &info : entries) {
        const int id = fat_open(info.name);
        ASSERT_GT(id, 0) << info.name;
        fat_entry_info opened;
        ASSERT_EQ(fat_info_of(id, &opened), 0);
        EXPECT_EQ(opened.index, info.index) << info.name;
        fat_close(id);
    }
}

TEST_P(KernelImages, TheListingShowsTheSameNames) {
    std::set<std::string> listed;
    {
        standard_output output;
        ASSERT_EQ(fat_list_dir("many", 0, nullptr), 0);
        std::istringstream lines(output.text());
        for (std::string line; std::getline(lines, line);) {
            listed.insert(line.substr(line.find('\t') + 1));
        }
    }
    std::set<std::string> names = {".", ".."};
    for (const auto &[path, content] : expected.files) {
        if (path.rfind("many/", 0) == 0) {
            names.insert(path.substr(5));
        }
    }
    EXPECT_EQ(listed, names);
}

INSTANTIATE_TEST_SUITE_P(Volumes, KernelImages, testing::Values("kernel-fat16", "kernel-fat32"),
                         [](const testing::TestParamInfo<const char *> &of) {
                             return std::string(of.param).substr(7);
                         });
