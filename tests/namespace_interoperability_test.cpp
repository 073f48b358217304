// Volumes on which the library creates, writes and removes, in independent FAT implementations:
// after every step mtools lists and copies out the same names and bytes, and the checker of
// dosfstools reports only what it reports for every formatted volume. The checker gets a copy in
// which the second FAT equals the first and the slots of removed names are cleared: the library
// intentionally does neither. A case that shows another quirk of the library expects the line of
// the checker.

#include "tests/support/by_path.h"
#include "tests/support/moment.h"
#include "tests/support/process.h"
#include "tests/support/tool.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

using namespace testing_support;

namespace {

constexpr time_t NOW = 1709210096; // 2024-02-29 12:34:56 UTC

struct format_wish {
    std::uint32_t width;
    std::uint32_t sector_size;
    std::uint32_t sec_per_clus;
    bool long_names = true;
};

std::string name_of(const format_wish &wish) {
    return "Fat" + std::to_string(wish.width) + "Sector" + std::to_string(wish.sector_size) +
           "Cluster" + std::to_string(wish.sec_per_clus) + (wish.long_names ? "" : "ShortNames");
}
std::ostream &operator<<(std::ostream &out, const format_wish &wish) {
    return out << name_of(wish);
}

// The additional lines of the checker, and the clusters that it does not count for that reason.
struct remark {
    std::string lines = "";
    std::uint32_t dropped_clusters = 0;
};

class NamespaceInteroperability : public testing::TestWithParam<format_wish> {
protected:
    NamespaceInteroperability() {
        // Eight sectors to a track need not divide the volume, which mtools would refuse.
        setenv("MTOOLS_SKIP_CHECK", "1", 1);
        fat_set_diagnostics(nullptr);
    }
    ~NamespaceInteroperability() override {
        if (sv != nullptr) {
            fat_close_volume(0);
        }
        fat_set_diagnostics(stderr);
    }
    void SetUp() override {
        for (const char *program : {"fsck.fat", "mdir", "mcopy", "mtype"}) {
            if (!has_program(program)) {
                GTEST_SKIP() << program << " is not installed";
            }
        }
        const format_wish &wish = GetParam();
        const std::uint64_t clusters = wish.width == 16 ? 4300 : 66000;
        const std::uint64_t size =
            (clusters * wish.sec_per_clus + 300) * wish.sector_size + clusters * wish.width / 4;
        image_ = scratch_.sparse_file("disk.img", size);
        const outcome formatted =
            run_tool({"-F", std::to_string(wish.width), "-S", std::to_string(wish.sector_size),
                      "-s", std::to_string(wish.sec_per_clus), "-p", "0", image_});
        ASSERT_EQ(formatted, (outcome{0, SUCCESS, ""}));
        mount();
    }

    void mount() {
        if (sv != nullptr) {
            fat_close_volume(0);
        }
        ASSERT_GE(fat_open_volume(image_.c_str(), GetParam().long_names ? 1 : 0, 0), 0);
        ASSERT_EQ(fat_build_super(), 0);
    }

    // -- the calls of the library, and their expected results

    void add_file(const std::string &path, std::size_t size) {
        ASSERT_EQ(create(path), 0) << path;
        files_[shown(path)] = {};
        if (size > 0) {
            append(path, size);
        }
    }
    void append(const std::string &path, std::size_t size) {
        const bytes data = arbitrary_bytes(size, static_cast<std::uint32_t>(size));
        ASSERT_EQ(append_to(path, data), static_cast<int>(size)) << path;
        bytes &all = files_.at(shown(path));
        all.insert(all.end(), data.begin(), data.end());
    }
    void add_directory(const std::string &path) {
        ASSERT_EQ(make_directory(path), 0) << path;
        directories_.insert(shown(path));
    }
    void add_link(const std::string &target, const std::string &path) {
        ASSERT_EQ(make_link(target, path), 0) << path;
        files_[shown(path)] = {target.begin(), target.end()};
    }
    void unlink(const std::string &path) {
        ASSERT_EQ(call_on(path, fat_unlink), 1) << path;
        forget(shown(path));
    }
    void remove_entry(const std::string &path) {
        ASSERT_EQ(call_on(path, fat_rm_entry), 1) << path;
        forget(shown(path));
    }

    // A few files and directories, of every kind.
    void furnish() {
        add_file("PLAIN.TXT", 100);
        add_file("A long name.text", 2 * unit() + 1);
        add_file("EMPTY", 0);
        add_directory("SUB");
        add_file("SUB/INNER.TXT", unit());
        add_directory("SUB/DEEP");
        add_file("SUB/DEEP/Mixed.txt", 3 * unit() - 1);
        add_link("PLAIN.TXT", "LINK");
    }
    static std::uint32_t unit() {
        return cluster_bytes_of_open_volume();
    }

    // -- the check by all tools

    void check_all(const remark &expected = {}) {
        const survey now = survey_of_open_volume();
        ASSERT_NO_FATAL_FAILURE(ask_mdir());
        ASSERT_NO_FATAL_FAILURE(ask_mcopy());
        ASSERT_NO_FATAL_FAILURE(ask_mtype());
        ASSERT_NO_FATAL_FAILURE(ask_fsck(now, expected));
    }
    // The copy for the checker.
    std::string prepared_copy(const survey &now) {
        const std::string copy = scratch_.file("copy.img");
        EXPECT_EQ(run({"cp", "--sparse=always", image_, copy}).status, 0);
        std::fstream stream(copy, std::ios::binary | std::ios::in | std::ios::out);
        const bytes fat = first_fat();
        stream.seekp(static_cast<std::streamoff>(std::uint64_t{sv->fat_start} * sv->sector_size +
                                                 fat.size()));
        stream.write(reinterpret_cast<const char *>(fat.data()),
                     static_cast<std::streamsize>(fat.size()));
        for (const std::uint64_t slot : now.orphan_slots) {
            stream.seekp(static_cast<std::streamoff>(slot));
            stream.put('\xE5');
        }
        return copy;
    }
    static bytes first_fat() {
        return read_bytes(std::uint64_t{sv->fat_start} * sv->sector_size,
                          std::size_t{sv->fat_size} * sv->sector_size);
    }

    scratch_directory scratch_;
    std::string image_;
    std::map<std::string, bytes> files_; // links too, by the path that others see
    std::set<std::string> directories_;

private:
    // The path as it is listed: names that fit 8.3 by their short form and its case bits.
    static std::string shown(const std::string &path) {
        std::string result;
        for (const std::string &name : components_of(path)) {
            const model::name_record r = model::to_record(name, GetParam().long_names);
            result = path_in(result, r.units ? std::string(r.units->begin(), r.units->end())
                                             : model::to_text(r.dos, r.lcase));
        }
        return result;
    }
    void forget(const std::string &path) {
        const auto is_inside = [&path](const std::string &other) {
            return other == path || other.rfind(path + "/", 0) == 0;
        };
        std::erase_if(files_, [&](const auto &file) { return is_inside(file.first); });
        std::erase_if(directories_, is_inside);
    }

    void ask_mdir() const {
        std::multiset<std::string> expected;
        for (const auto &[path, content] : files_) {
            expected.insert("::/" + path);
        }
        for (const std::string &path : directories_) {
            expected.insert("::/" + path + "/");
        }
        const outcome result = run({"mdir", "-/", "-b", "-i", image_, "::"});
        EXPECT_EQ(result.err, "");
        std::istringstream lines(result.out);
        std::multiset<std::string> listed;
        for (std::string line; std::getline(lines, line);) {
            listed.insert(line);
        }
        EXPECT_EQ(listed, expected);
    }
    void ask_mcopy() const {
        const std::string out = scratch_.file("out");
        std::filesystem::create_directory(out);
        EXPECT_EQ(run({"mcopy", "-s", "-n", "-i", image_, "::/", out}), (outcome{0, "", ""}));
        std::set<std::string> directories;
        std::set<std::string> files;
        for (const auto &found : std::filesystem::recursive_directory_iterator(out)) {
            const std::string path = std::filesystem::relative(found.path(), out).string();
            (found.is_directory() ? directories : files).insert(path);
            if (!found.is_directory()) {
                const auto expected = files_.find(path);
                ASSERT_NE(expected, files_.end()) << path;
                EXPECT_TRUE(read_file(found.path().string()) == expected->second) << path;
            }
        }
        EXPECT_EQ(directories, directories_);
        EXPECT_EQ(files.size(), files_.size());
        std::filesystem::remove_all(out);
    }
    // The first and the last file.
    void ask_mtype() const {
        if (files_.empty()) {
            return;
        }
        for (const auto &[path, content] : {*files_.begin(), *files_.rbegin()}) {
            const outcome result = run({"mtype", "-i", image_, "::/" + path});
            EXPECT_EQ(result.out, std::string(content.begin(), content.end())) << path;
            EXPECT_EQ(result.err, "");
            EXPECT_EQ(result.status, 0);
        }
    }
    void ask_fsck(const survey &now, const remark &expected) {
        std::size_t used = 0;
        for (const auto &[path, entry] : now.entries) {
            used += entry.clusters.size();
        }
        used -= expected.dropped_clusters;
        std::string text = expected.lines +
                           "Volume label '' stored in root directory is not valid.\n"
                           "  Auto-removing label.\n";
        if (const std::size_t lost = now.lost.size(); lost > 0) {
            text += "Reclaimed " + std::to_string(lost) + " unused cluster" +
                    (lost > 1 ? "s" : "") + " (" +
                    std::to_string(lost * now.areas.cluster_bytes()) + " bytes).\n";
        }
        if (now.areas.width == 32) {
            text += "Free cluster summary uninitialized (should be " +
                    std::to_string(now.areas.clusters - used) + ")\n";
        }
        const std::string copy = prepared_copy(now);
        // The label counts as a file.
        text += "\nLeaving filesystem unchanged.\n" + copy + ": " +
                std::to_string(1 + files_.size() + directories_.size()) + " files, " +
                std::to_string(used) + "/" + std::to_string(now.areas.clusters) + " clusters\n";
        const outcome result = run({"fsck.fat", "-n", copy});
        EXPECT_EQ(result.out.substr(result.out.find('\n') + 1), text);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.status, 1); // the label counts as an error too
    }

    stopped_clock clock_{NOW};
};

// With long names; the cases are the same without.
const std::vector<format_wish> WISHES = {
    {16, 512, 1}, {16, 4096, 2}, {32, 512, 1}, {32, 2048, 1}, {16, 1024, 4, false},
};

std::string wish_name(const testing::TestParamInfo<format_wish> &info) {
    return name_of(info.param);
}

} // namespace

// ---- creating ---------------------------------------------------------------------------------

TEST_P(NamespaceInteroperability, FilesWithNamesOfEveryForm) {
    for (const char *name :
         {"PLAIN.TXT", "lower.txt", "UPPER.low", "low.UPP", "NOEXT", "a", "Mixed.txt", "a+b=c.txt",
          ".profile", "two.dots.txt", "longfilename.txt", "LongFileName2.Text", "thirteen char",
          "twenty-six characters here", "exactly thirty-nine characters in a row", "TILDE~1.TXT"}) {
        ASSERT_NO_FATAL_FAILURE(add_file(name, 1));
    }
    ASSERT_NO_FATAL_FAILURE(add_file(std::string(250, 'n') + ".txt", 2));
    check_all();
}

TEST_P(NamespaceInteroperability, LikeNamesWithTails) {
    ASSERT_NO_FATAL_FAILURE(add_file("Photograph of the sea", 1));
    for (std::uint32_t i = 1; i <= 120; i++) {
        const std::string name = numbered("Photograph of the sea ", i);
        if (GetParam().long_names) {
            ASSERT_NO_FATAL_FAILURE(add_file(name, i % 3));
        } else {
            ASSERT_EQ(create(name), -EEXIST); // all of them are PHOTOGRA
        }
    }
    check_all();
}

TEST_P(NamespaceInteroperability, DirectoriesInDirectories) {
    std::string path;
    for (const char *name : {"FIRST", "second", "Third Level", "4", "FIFTH.DIR"}) {
        path = path_in(path, name);
        ASSERT_NO_FATAL_FAILURE(add_directory(path));
        ASSERT_NO_FATAL_FAILURE(add_file(path + "/FILE.TXT", 10));
    }
    check_all();
}

TEST_P(NamespaceInteroperability, ADirectoryThatGrowsOverManyClusters) {
    ASSERT_NO_FATAL_FAILURE(add_directory("SUB"));
    const std::uint32_t names = 3 * unit() / 32 / (GetParam().long_names ? 3 : 1) + 5;
    for (std::uint32_t i = 0; i < names; i++) {
        ASSERT_NO_FATAL_FAILURE(
            add_file(numbered(GetParam().long_names ? "SUB/File with number " : "SUB/F", i), 0));
    }
    check_all();
}

TEST_P(NamespaceInteroperability, ARootDirectoryThatGrowsOrIsFull) {
    std::uint32_t i = 0;
    int result = 0;
    for (; result == 0 && i < 600; i++) {
        result = create(numbered("F", i));
        if (result == 0) {
            files_[numbered("F", i)] = {};
        }
    }
    EXPECT_EQ(result, sv->fat_type == 16 ? -ENOSPC : 0);
    EXPECT_EQ(i, sv->fat_type == 16 ? 512U : 600U); // the label has one of the 512 slots
    check_all();
}

TEST_P(NamespaceInteroperability, Links) {
    ASSERT_NO_FATAL_FAILURE(add_link("PLAIN.TXT", "LINK"));
    ASSERT_NO_FATAL_FAILURE(add_link(std::string(260, 't'), "Another link"));
    check_all();
}

TEST_P(NamespaceInteroperability, ALinkWithoutATargetRetainsItsCluster) {
    EXPECT_EQ(make_link("", "LINK"), -EINVAL);
    files_["LINK"] = {};
    check_all({.lines = "/LINK\n"
                        "  File size is 0 bytes, cluster chain length is > 0 bytes.\n"
                        "  Truncating file to 0 bytes.\n",
               .dropped_clusters = 1});
}

// ---- writing ----------------------------------------------------------------------------------

TEST_P(NamespaceInteroperability, FilesOfEverySizeAroundTheBoundaries) {
    const std::set<std::uint32_t> sizes = {
        1,      sv->sector_size - 1, sv->sector_size, sv->sector_size + 1, unit() - 1,
        unit(), unit() + 1,          7 * unit() - 1,  7 * unit(),          7 * unit() + 1};
    for (const std::uint32_t size : sizes) {
        ASSERT_NO_FATAL_FAILURE(add_file(numbered("F", size), size));
    }
    check_all();
}

TEST_P(NamespaceInteroperability, FilesThatGrowInTurns) {
    ASSERT_NO_FATAL_FAILURE(furnish());
    for (std::uint32_t i = 0; i < 12; i++) {
        for (const char *path : {"PLAIN.TXT", "EMPTY", "SUB/INNER.TXT", "LINK"}) {
            ASSERT_NO_FATAL_FAILURE(append(path, 1 + i * unit() / 5));
        }
    }
    check_all();
}

TEST_P(NamespaceInteroperability, AVolumeFilledToItsLastCluster) {
    ASSERT_NO_FATAL_FAILURE(furnish());
    ASSERT_NO_FATAL_FAILURE(append("EMPTY", unit()));
    const std::uint32_t left = survey_of_open_volume().count_free();
    ASSERT_NO_FATAL_FAILURE(add_file("FILLER", 1));
    ASSERT_NO_FATAL_FAILURE(append("FILLER", (std::size_t{left} - 1) * unit()));
    EXPECT_EQ(make_directory("MORE"), -ENOSPC);
    EXPECT_EQ(append_to("PLAIN.TXT", bytes(unit())), -ENOSPC);
    check_all();
}

TEST_P(NamespaceInteroperability, AWriteThatFailsOnAFullVolume) {
    ASSERT_NO_FATAL_FAILURE(furnish());
    const std::uint32_t left = survey_of_open_volume().count_free();
    const bytes too_much((std::size_t{left} + 1) * unit());
    EXPECT_EQ(append_to("PLAIN.TXT", too_much), -ENOSPC);
    check_all();
    // The end mark in FAT entry 0 that the failure of an empty file leaves is not an error.
    EXPECT_EQ(append_to("EMPTY", too_much), -ENOSPC);
    EXPECT_EQ(survey_of_open_volume().count_free(), left);
    check_all();
}

TEST_P(NamespaceInteroperability, AWriteThroughAnIdThatFailedOnAnEmptyFileLinksFatEntryZero) {
    ASSERT_EQ(create("EMPTY"), 0);
    const int id = fat_open_file("EMPTY");
    const bytes too_much((std::size_t{survey_of_open_volume().count_free()} + 1) * unit());
    EXPECT_EQ(fat_write_file(id, too_much.data(), static_cast<std::uint32_t>(too_much.size())),
              -ENOSPC);
    EXPECT_EQ(fat_write_file(id, too_much.data(), 1), 1);
    const outcome result = run({"fsck.fat", "-n", prepared_copy(survey_of_open_volume())});
    EXPECT_EQ(result.err,
              "Both FATs appear to be corrupt. Giving up. Run fsck.fat with non-zero -F "
              "option.\n");
    EXPECT_EQ(result.status, 1);
}

// ---- removing ---------------------------------------------------------------------------------

TEST_P(NamespaceInteroperability, UnlinkedFilesLinksAndDirectories) {
    ASSERT_NO_FATAL_FAILURE(furnish());
    ASSERT_NO_FATAL_FAILURE(add_directory("A directory"));
    for (const char *path : {"PLAIN.TXT", "A long name.text", "LINK", "A directory",
                             "SUB/DEEP/Mixed.txt", "SUB/INNER.TXT"}) {
        ASSERT_NO_FATAL_FAILURE(unlink(path));
    }
    check_all();
    EXPECT_EQ(survey_of_open_volume().orphan_slots.empty(), !GetParam().long_names);
}

TEST_P(NamespaceInteroperability, RemovedEntriesLeaveTheirClusters) {
    ASSERT_NO_FATAL_FAILURE(furnish());
    ASSERT_NO_FATAL_FAILURE(remove_entry("EMPTY"));
    check_all();
    ASSERT_NO_FATAL_FAILURE(remove_entry("PLAIN.TXT"));
    check_all();
    ASSERT_NO_FATAL_FAILURE(remove_entry("SUB"));
    check_all();
    EXPECT_EQ(survey_of_open_volume().lost.size(), 7U); // 1, and 1 + 1 + 1 + 3 and its own
}

TEST_P(NamespaceInteroperability, NewNamesInTheSlotsOfRemovedOnes) {
    ASSERT_NO_FATAL_FAILURE(furnish());
    ASSERT_NO_FATAL_FAILURE(unlink("A long name.text"));
    ASSERT_NO_FATAL_FAILURE(unlink("PLAIN.TXT"));
    ASSERT_NO_FATAL_FAILURE(add_file("SHORT", 5)); // after slots of no entry
    ASSERT_NO_FATAL_FAILURE(add_file("OTHER", 6));
    ASSERT_NO_FATAL_FAILURE(add_file("Another long name.text", unit() + 1));
    check_all();
}

TEST_P(NamespaceInteroperability, AVolumeInUseForALongTime) {
    ASSERT_NO_FATAL_FAILURE(furnish());
    const std::string name = GetParam().long_names ? "SUB/Recording " : "SUB/REC";
    for (std::uint32_t i = 0; i < 60; i++) {
        ASSERT_NO_FATAL_FAILURE(add_file(numbered(name, i), unit() * (i % 4) + i + 1));
        if (i % 3 != 0) {
            ASSERT_NO_FATAL_FAILURE(unlink(numbered(name, i - i % 3)));
            ASSERT_NO_FATAL_FAILURE(add_file(numbered(name, i - i % 3), i));
        }
        if (i == 30) {
            ASSERT_NO_FATAL_FAILURE(mount());
        }
    }
    check_all();
}

// ---- repairing --------------------------------------------------------------------------------

TEST_P(NamespaceInteroperability, ADirectoryCutShortIsRepairedByAChecker) {
    ASSERT_NO_FATAL_FAILURE(add_directory("SUB"));
    for (std::uint32_t i = 2; i <= unit() / 32; i++) {
        ASSERT_NO_FATAL_FAILURE(add_file(numbered("SUB/F", i), 0));
    }
    // The power failed when the second cluster was linked and not yet marked as the last one.
    const std::uint32_t added = survey_of_open_volume().entries.at("SUB").clusters.back();
    ASSERT_EQ(fat::fat_write_entry(added, 0), 0);
    ASSERT_NO_FATAL_FAILURE(mount());
    EXPECT_EQ(go_to("SUB"), -ENOTDIR);

    const std::string copy = prepared_copy(survey_of_open_volume());
    EXPECT_EQ(run({"fsck.fat", "-a", copy}).status, 1);
    std::filesystem::rename(copy, image_);
    ASSERT_NO_FATAL_FAILURE(mount());
    EXPECT_EQ(go_to("SUB"), 0);
    EXPECT_EQ(content_by_library("SUB/F2", 0), std::pair(0, bytes()));
}

INSTANTIATE_TEST_SUITE_P(Shapes, NamespaceInteroperability, testing::ValuesIn(WISHES), wish_name);
