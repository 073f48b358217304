// The FAT in memory and directories in memory: allocation, chains, finding, adding, removing, and
// what reaches the medium when.

#include "qvol/directory.h"
#include "qvol/error.h"
#include "qvol/fat_table.h"
#include "qvol/file_data.h"
#include "qvol/host_attributes.h"
#include "qvol/path.h"
#include "qvol/session.h"
#include "qvol/tree_walk.h"

#include "fat/internal.h"

#include "tests/support/files.h"
#include "tests/support/process.h"

#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

using namespace qvol;
using testing_support::bytes;
using testing_support::outcome;
using testing_support::scratch_directory;

namespace {

// A mounted volume of the width that the test names.
class QvolVolume : public testing::TestWithParam<const char *> {
protected:
    void SetUp() override {
        const std::string width = GetParam();
        image_ = scratch_.sparse_file("disk.img", width == "16" ? 20 << 20 : 40 << 20);
        const outcome formatted =
            testing_support::run({testing_support::tool_path(), "-F", width, "-S", "512", "-s",
                                  width == "16" ? "4" : "1", "-p", "0", image_});
        ASSERT_EQ(formatted.status, 0) << formatted;
        open();
    }
    void close() {
        volume_.reset();
        target_.reset();
    }
    void open() {
        close();
        target_ = std::make_unique<target>(image_, access::WRITE);
        volume_ = std::make_unique<volume>(*target_, "UTF-8");
    }

    fat_table &table() {
        return volume_->fat();
    }
    static new_entry file(std::u16string name) {
        return {std::move(name), kind::FILE, 0, 0, {}};
    }

    scratch_directory scratch_;
    std::string image_;
    std::unique_ptr<target> target_;
    std::unique_ptr<volume> volume_;
};
INSTANTIATE_TEST_SUITE_P(Fat, QvolVolume, testing::Values("16", "32"),
                         [](const auto &tested) { return std::string(tested.param); });

std::vector<std::u16string> names_in(const directory &dir) {
    std::vector<std::u16string> names;
    for (const entry &found : listed_entries(dir)) {
        names.push_back(found.name);
    }
    return names;
}

} // namespace

// ---- several volumes --------------------------------------------------------------------------

TEST_P(QvolVolume, TwoAreOpenAtOnce) {
    const std::string other_image = scratch_.file("other.img");
    std::filesystem::copy(image_, other_image);
    const target other_target(other_image, access::WRITE);
    volume other(other_target, "UTF-8");
    const std::vector<u32> clusters = other.fat().allocate(3);
    directory root = other.root();
    root.add({u"ONLY", kind::FILE, clusters.front(), 100, {}});
    other.commit_additions({&root});
    EXPECT_EQ(table().free_count(), other.fat().free_count() + 3);
    EXPECT_EQ(names_in(volume_->root()), std::vector<std::u16string>());
    EXPECT_EQ(names_in(other.root()), std::vector<std::u16string>{u"ONLY"});
}

// ---- the FAT ----------------------------------------------------------------------------------

TEST_P(QvolVolume, AllocatesTheLowestClustersAndLinksThem) {
    const std::vector<u32> first = table().allocate(3);
    EXPECT_EQ(extents_of(first).size(), 1U);
    const std::vector<u32> second = table().allocate(2, first.back());
    std::vector<u32> both = first;
    both.insert(both.end(), second.begin(), second.end());
    EXPECT_EQ(table().chain(first.front()), both);
    EXPECT_EQ(table().chain(first.front(), 4).size(), 4U);
}

// More of the FAT than stays in memory, read again and again.
TEST(QvolFat, HasItsChangesWhenOtherSectorsWereRead) {
    constexpr u32 FAT_BYTES = 32 << 20;
    const scratch_directory scratch;
    const target where(scratch.sparse_file("fat.img", FAT_BYTES), access::WRITE);
    const core::volume on = {&where.medium(),
                             {.width = 32,
                              .sector_size = 512,
                              .sectors_per_cluster = 1,
                              .fat_sectors = FAT_BYTES / 512,
                              .clusters = FAT_BYTES / 4 - core::FIRST_DATA_CLUSTER}};
    constexpr u32 STEP = 8 * 1024; // two changes in each 64 KiB
    fat_table changed(on, 1);
    for (u32 cluster = STEP; cluster <= on.last_cluster(); cluster += STEP) {
        changed.set(cluster, cluster + 1);
    }
    for (u32 round = 0; round < 30; round++) {
        for (u32 cluster = STEP; cluster <= on.last_cluster(); cluster += STEP) {
            ASSERT_EQ(changed.get(cluster), cluster + 1);
            ASSERT_EQ(changed.get(cluster + 1), 0U);
        }
    }
    changed.write_changes();
    fat_table read_again(on, 1);
    for (u32 round = 0; round < 30; round++) {
        for (u32 cluster = STEP; cluster <= on.last_cluster(); cluster += STEP) {
            ASSERT_EQ(read_again.get(cluster), cluster + 1);
            ASSERT_EQ(read_again.get(cluster + 1), 0U);
        }
    }
}

TEST_P(QvolVolume, CountsFreeClusters) {
    const u32 before = table().free_count();
    const std::vector<u32> clusters = table().allocate(10);
    EXPECT_EQ(table().free_count(), before - 10);
    table().release(clusters);
    EXPECT_EQ(table().free_count(), before);
    EXPECT_EQ(table().next_free(), clusters.front());
}

TEST_P(QvolVolume, AllocatesAllThereIsAndNotOneMore) {
    const u32 all = table().free_count();
    EXPECT_THROW((void)table().allocate(all + 1), no_space);
    EXPECT_EQ(table().free_count(), all);
    EXPECT_EQ(table().allocate(all).size(), all);
    EXPECT_EQ(table().highest_used(), table().last_cluster());
    EXPECT_EQ(table().next_free(), core::FSINFO_UNKNOWN);
    EXPECT_THROW((void)table().allocate(1), no_space);
}

TEST_P(QvolVolume, WritesChangesToEveryCopyAndNotBefore) {
    const bytes before = testing_support::read_file(image_);
    const u32 cluster = table().allocate(1).front();
    EXPECT_EQ(testing_support::read_file(image_), before);
    table().write_changes();
    open();
    EXPECT_TRUE(volume_->on().is_end_of_chain(table().get(cluster)));
    EXPECT_EQ(table().mirror(), 0U);
}

TEST_P(QvolVolume, ForgetsWhatWasNotWritten) {
    const u32 before = table().free_count();
    (void)table().allocate(5);
    table().forget_changes();
    EXPECT_EQ(table().free_count(), before);
}

TEST_P(QvolVolume, RefusesChainsThatLeadNowhere) {
    const std::vector<u32> clusters = table().allocate(3);
    table().set(clusters[2], clusters[0]);
    EXPECT_THROW((void)table().chain(clusters[0]), error);
    table().set(clusters[2], 0);
    EXPECT_THROW((void)table().chain(clusters[0]), error);
    table().set(clusters[2], 1);
    EXPECT_THROW((void)table().chain(clusters[0]), error);
    table().set(clusters[2], table().last_cluster() + 1);
    EXPECT_THROW((void)table().chain(clusters[0]), error);
    EXPECT_THROW((void)table().chain(0), error);
    EXPECT_THROW((void)table().get(table().last_cluster() + 1), error);
}

TEST_P(QvolVolume, KeepsTheReservedBitsOfAnEntry) {
    table().set(100, 0xFFFFFFFF);
    table().set(100, 0);
    EXPECT_EQ(table().get(100), 0U);
}

// ---- directories ------------------------------------------------------------------------------

TEST_P(QvolVolume, FindsWhatWasAdded) {
    directory root = volume_->root();
    root.add(file(u"A Long Name.text"));
    root.add(file(u"PLAIN.TXT"));
    EXPECT_EQ(root.find(u"a long NAME.text")->name, u"A Long Name.text");
    EXPECT_EQ(root.find(u"ALONGN~1.TEX")->name, u"A Long Name.text");
    EXPECT_EQ(root.find_name(u"ALONGN~1.TEX"), nullptr);
    EXPECT_FALSE(root.find(u"plain.txt")->has_long_name);
    EXPECT_EQ(root.find(u"missing"), nullptr);
}

TEST_P(QvolVolume, KeepsWhatWasAddedAcrossOpening) {
    directory root = volume_->root();
    const std::vector<std::u16string> names = {u"12345678901234567890123456", u"PLAIN", u"a",
                                               std::u16string(255, u'x'), u"thirteen unit"};
    for (const std::u16string &name : names) {
        root.add(file(name));
    }
    volume_->commit_additions({&root});
    open();
    EXPECT_EQ(names_in(volume_->root()),
              (std::vector<std::u16string>{names[0], names[1], names[2], names[4], names[3]}));
}

TEST_P(QvolVolume, RefusesNamesThatDifferInCaseAlone) {
    directory root = volume_->root();
    root.add(file(u"Name"));
    EXPECT_THROW(root.add(file(u"nAME")), error);
    EXPECT_EQ(names_in(root), std::vector<std::u16string>{u"Name"});
}

TEST_P(QvolVolume, UsesTheSlotsOfRemovedNamesFirst) {
    directory root = volume_->root();
    const u32 slot = root.add(file(u"a name of three slots")).slot;
    root.add(file(u"behind"));
    root.remove(*root.find(u"a name of three slots"));
    EXPECT_EQ(root.find(u"a name of three slots"), nullptr);
    EXPECT_EQ(root.add(file(u"another with three")).slot, slot);
}

TEST_P(QvolVolume, GrowsADirectoryAsFarAsOthersReadIt) {
    directory root = volume_->root();
    directory dir = directory::make(table(), root, {});
    std::u16string long_name(254, u'x');
    u32 added = 0;
    EXPECT_THROW(
        for (;; added++) {
            dir.add(file(long_name.substr(0, 250) + units_of_utf8(std::to_string(added)).value()));
        },
        error);
    EXPECT_EQ(added, (65536U - 2) / 21);
}

TEST_P(QvolVolume, MakesADirectoryThatKnowsItsParent) {
    directory root = volume_->root();
    directory outer = directory::make(table(), root, {});
    directory inner = directory::make(table(), outer, {});
    const auto parent_of = [](const directory &dir) { return dir.entries().at(1).start(); };
    EXPECT_EQ(parent_of(outer), 0U);
    EXPECT_EQ(parent_of(inner), outer.start());
    inner.set_parent(0);
    EXPECT_EQ(parent_of(inner), 0U);
    EXPECT_TRUE(inner.is_empty());
}

// What lies behind the end of a directory is not zero on every medium.
TEST_P(QvolVolume, KeepsTheEndOfADirectoryBehindWhatIsAdded) {
    directory root = volume_->root();
    const core::slot_place end = root.location(static_cast<u32>(root.entries().size()) + 5);
    std::vector<u8> sector(512);
    ASSERT_EQ(volume_->on().read(end.sector, sector.data(), 1), 1);
    for (u32 slot = static_cast<u32>(root.entries().size()) + 1; slot < 16; slot++) {
        std::fill_n(sector.begin() + slot * 32, 11, u8{'Z'});
    }
    ASSERT_EQ(volume_->on().write(end.sector, sector.data(), 1), 1);
    directory changed = volume_->root();
    changed.add(file(u"NEW"));
    volume_->commit_additions({&changed});
    EXPECT_EQ(names_in(volume_->root()), std::vector<std::u16string>{u"NEW"});
}

TEST_P(QvolVolume, SlotsThatBelongToNoEntryAreLeftOut) {
    directory root = volume_->root();
    const entry added = root.add(file(u"a name of three slots"));
    volume_->commit_additions({&root});
    const core::slot_place place = root.location(added.slot);
    std::vector<u8> sector(512);
    ASSERT_EQ(volume_->on().read(place.sector, sector.data(), 1), 1);
    sector[place.offset] = 'X'; // the checksum of the slots fits no more
    ASSERT_EQ(volume_->on().write(place.sector, sector.data(), 1), 1);
    const std::vector<entry> found = listed_entries(volume_->root());
    ASSERT_EQ(found.size(), 1U);
    EXPECT_FALSE(found[0].has_long_name);
    EXPECT_EQ(found[0].name, u"XNAMEO~1");
}

TEST_P(QvolVolume, FillsTheGapsOfManyRemovedNames) {
    directory root = volume_->root();
    directory dir = directory::make(table(), root, {});
    const auto name = [](const char *prefix, u32 i) {
        return units_of_utf8(prefix + std::to_string(10000 + i)).value();
    };
    for (u32 i = 0; i < 5000; i++) {
        dir.add(file(name("three slots for this ", i)));
    }
    const std::size_t clusters = dir.clusters().size();
    for (u32 i = 0; i < 5000; i += 2) {
        dir.remove(*dir.find(name("three slots for this ", i)));
    }
    for (u32 i = 0; i < 2500; i++) {
        dir.add(file(name("and three for that ", i)));
    }
    EXPECT_EQ(dir.clusters().size(), clusters);
    EXPECT_EQ(listed_entries(dir).size(), 5000U);
}

// The library finds a name with a long form as it is spelt, and one that 8.3 holds in one case by
// its short form.
TEST_P(QvolVolume, StoresNamesThatTheLibraryFinds) {
    directory root = volume_->root();
    const std::vector<std::string> names = {"PLAIN.TXT",
                                            "lower.txt",
                                            "Mixed.Txt",
                                            "a long name.text",
                                            ".hidden",
                                            "a.b.c",
                                            "gr\xC3\xBC\xC3\x9F"
                                            "e and more.txt",
                                            "READ~1.TXT",
                                            "noext"};
    for (const std::string &name : names) {
        root.add(file(units_of_utf8(name).value()));
    }
    volume_->commit_additions({&root});
    close();
    fat_set_diagnostics(nullptr);
    ASSERT_GT(fat_open_volume(image_.c_str(), 1, 0), 0);
    ASSERT_EQ(fat_build_super(), 0);
    ASSERT_EQ(fat_set_encoding("UTF-8"), 0);
    std::set<std::string> listed;
    fat_entry_info info;
    for (uint32_t index = 0; fat_next_entry(0, &index, &info) == 1;) {
        listed.insert(info.name);
    }
    EXPECT_EQ(listed, std::set<std::string>(names.begin(), names.end()));
    for (const std::string &name : names) {
        const int id = fat_open_file(name.c_str());
        EXPECT_GT(id, 0) << name;
        fat_close(id);
    }
    EXPECT_EQ(fat_close_volume(0), 0);
    fat_set_diagnostics(stderr);
}

// ---- paths ------------------------------------------------------------------------------------

TEST_P(QvolVolume, TakesPathsApart) {
    const name_codec names;
    const name_path expected = {u"a", u"b"};
    for (const char *path : {"/a/b", "a/b", "//a//b/", "/./a/./b/.", "/a/c/../b", "/../a/b"}) {
        EXPECT_EQ(parse_path(names, path), expected) << path;
    }
    EXPECT_EQ(parse_path(names, "/.."), name_path());
    EXPECT_EQ(shown_path(names, expected), "/a/b");
    EXPECT_EQ(shown_path(names, {}), "/");
}

// ---- data -------------------------------------------------------------------------------------

TEST_P(QvolVolume, GathersTheDataOfManyFiles) {
    const std::vector<u32> clusters = table().allocate(8);
    const std::vector<u32> odd = {clusters[0], clusters[1], clusters[5]};
    const std::vector<u32> even = {clusters[2], clusters[3], clusters[4]};
    const u32 size = 2 * volume_->on().cluster_bytes() + 100;
    const std::vector<u8> ones(size, 1);
    const std::vector<u8> twos(size, 2);
    data_writer writer(volume_->on());
    for (const auto &[where, what] : {std::pair(&odd, &ones), std::pair(&even, &twos)}) {
        writer.begin(*where);
        writer.append(std::span(*what).first(700));
        writer.append(std::span(*what).subspan(700));
        writer.end();
    }
    writer.flush();
    for (const auto &[where, what] : {std::pair(&odd, &ones), std::pair(&even, &twos)}) {
        std::vector<u8> back;
        read_data(volume_->on(), *where, size, [&](std::span<const u8> piece) {
            back.insert(back.end(), piece.begin(), piece.end());
        });
        EXPECT_EQ(back, *what);
    }
}

// ---- attributes of the host -------------------------------------------------------------------

TEST(QvolHostAttributes, AreReadAsTheyWereWritten) {
    const scratch_directory scratch;
    const std::string path = scratch.sparse_file("file", 1);
    const core::unique_fd file(::open(path.c_str(), O_RDWR));
    EXPECT_EQ(read_host_attributes(path), 0U);
    if (!write_host_attributes(file.get(), core::ATTR_HIDDEN)) {
        GTEST_SKIP() << "no extended attributes here";
    }
    for (const u32 attributes : {0x27U, 0x22U, 0x01U, 0x00U}) {
        chmod(path.c_str(), 0644);
        EXPECT_TRUE(write_host_attributes(file.get(), attributes | core::ATTR_VOLUME));
        EXPECT_EQ(read_host_attributes(path), attributes);
    }
    const std::string directory = scratch.file("");
    const core::unique_fd opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY));
    EXPECT_TRUE(write_host_attributes(opened.get(), core::ATTR_READ_ONLY));
    EXPECT_EQ(read_host_attributes(directory), core::ATTR_READ_ONLY);
    struct stat status {};
    EXPECT_EQ(stat(directory.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & S_IWUSR, mode_t{S_IWUSR}); // entries can be made and removed
}

TEST(QvolHostAttributes, OfOtherWritersAreTextOrNone) {
    const scratch_directory scratch;
    const std::string path = scratch.sparse_file("file", 1);
    using namespace std::string_literals;
    const std::pair<std::string, u32> stored[] = {
        {"0x27", 0x27}, {"0x2\0"s, 0x02}, {"0x1f", 0x07},   {"27", 0},
        {"0x", 0},      {"0x2g", 0},      {"\0\0\5\0"s, 0}, {std::string(300, '0'), 0}};
    for (const auto &[text, attributes] : stored) {
        if (setxattr(path.c_str(), "user.DOSATTRIB", text.data(), text.size(), 0) != 0) {
            GTEST_SKIP() << "no extended attributes here";
        }
        EXPECT_EQ(read_host_attributes(path), attributes) << text;
    }
}

// Of a pipe only that there are none can be stored.
TEST(QvolHostAttributes, WriterStatesWhatTheHostCannotStore) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe(ends), 0);
    const core::unique_fd reader(ends[0]);
    const core::unique_fd writer(ends[1]);
    EXPECT_TRUE(write_host_attributes(writer.get(), 0));
    EXPECT_FALSE(write_host_attributes(writer.get(), core::ATTR_HIDDEN));
    EXPECT_FALSE(write_host_attributes(writer.get(), core::ATTR_READ_ONLY));
}
