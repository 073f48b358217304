// Free slots for new entries: finding a span of them, growing a directory, full volumes and full
// directories; the entries as another program reads them.

#include "tests/support/build_fixture.h"
#include "tests/support/every_fault.h"
#include "tests/support/files.h"
#include "tests/support/process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

const std::string CHECK_HERE = "fat_find_empty_entries[N]: Check Here!\n\n";
const std::string NO_MORE_SPACE = "Root directory has no more space\n";
// The message of a walk that reaches the end of the root area at `index`.
std::string root_ends_at(u32 index) {
    return "get_phy_sector[N]: Invalid sector number in Root dir\n\n"
           "get_dentry_with_clu[N]: Failed to get entry sector!:(0, " +
           std::to_string(index) + ")\n\n";
}

class FindEmptyEntries : public build_case {
protected:
    // The index of the span; UNTOUCHED: not found.
    struct found {
        answer a;
        u32 index;
        bool operator==(const found &) const = default;
        friend std::ostream &operator<<(std::ostream &out, const found &f) {
            return out << f.a << ", index " << f.index;
        }
    };
    found find(u32 count) {
        u32 index = UNTOUCHED;
        const int result = fat_find_empty_entries(&dir.record, count, &index);
        return {heard(result), index};
    }
    static found at(u32 index) {
        return {{0, ""}, index};
    }
    static found failed(int result, const std::string &message) {
        return {{result, message}, UNTOUCHED};
    }
    void expect_unwritten() const {
        EXPECT_TRUE(sectors_written().empty());
    }
};
class GrowForEntries : public FindEmptyEntries {
protected:
    std::vector<u8> data_of(u32 cluster) {
        return v.disk.peek(u64{volume::first_sector_of(cluster)} * sv->sector_size, cluster_bytes);
    }
    const u32 cluster_bytes = sv->sec_per_clus * sv->sector_size;
    const u32 per_cluster = volume::entries_per_cluster();
};

INSTANTIATE_TEST_SUITE_P(Directories, FindEmptyEntries, testing::ValuesIn(all_directories()),
                         directory_shape_name);
INSTANTIATE_TEST_SUITE_P(Directories, GrowForEntries, testing::ValuesIn(growing_directories()),
                         directory_shape_name);

} // namespace

// ---- spans ------------------------------------------------------------------------------------

// The first slots of a directory, x in use, - deleted and . unused; all others are as the last one.
TEST_P(FindEmptyEntries, FirstSpanThatIsLongEnoughIsTaken) {
    const struct {
        std::string slots;
        std::vector<std::pair<u32, u32>> spans; // the first one by its count
    } rows[] = {
        {"xxxxxxx.", {{1, 7}, {2, 7}, {4, 7}, {21, 7}, {capacity - 7, 7}}},
        {".", {{1, 0}, {capacity, 0}}},
        {"xxxxx-xxx----x", {{1, 5}, {2, 9}, {4, 9}}},
        {"xx--x---x---x.", {{1, 2}, {2, 2}, {3, 5}, {4, 13}}},
        {"xxxx-.--.x", {{5, 4}}},
        // An unused entry does not end the walk.
        {"xx." + std::string(capacity - 6, 'x') + "---", {{1, 2}, {3, capacity - 3}}},
        {std::string(capacity - 1, 'x') + "-", {{1, capacity - 1}}},
        {"xxx"
         "---x----x",
         {{3, 3}, {4, 7}}},
    };
    for (const auto &[slots, spans] : rows) {
        for (u32 i = 0; i < capacity; i++) {
            const char state = slots[std::min<std::size_t>(i, slots.size() - 1)];
            const entry_image file = file_number(i);
            dir.put(i, state == 'x' ? file : state == '-' ? deleted(file) : entry_image{});
        }
        for (const auto &[count, index] : spans) {
            EXPECT_EQ(find(count), at(index)) << slots.substr(0, 20) << ", " << count << " slots";
        }
    }
    expect_unwritten();
}

TEST_P(FindEmptyEntries, EveryOtherEntryEndsASpan) {
    const std::pair<entry_image, std::string> others[] = {
        {short_entry("FILE       ", 0), ""},
        {short_entry("DIR        ", DIRECTORY), ""},
        {short_entry("LABEL      ", LABEL), ""},
        {long_slot(0x41, u"orphan", 0), ""},
        {long_slot(0x05, u"orphan", 0), ""},
        {short_entry("\x05XX        ", 0), ""},
        {short_entry("INVALID    ", LABEL | DIRECTORY),
         "entry_type[N]: Unknown entry type: 24\n\n"},
    };
    for (const auto &[entry, message] : others) {
        occupy();
        set_deleted(3, 10);
        dir.put(6, entry);
        EXPECT_EQ(find(4), (found{{0, message}, 7}));
        EXPECT_EQ(find(3), at(3));
    }
}

TEST_P(FindEmptyEntries, DeletedSlotsAndLabelsAreFree) {
    occupy();
    dir.put(3, deleted(long_slot(0x41, u"gone", 0)));
    dir.put(4, deleted(short_entry("LABEL      ", LABEL)));
    dir.put(5, deleted(short_entry("INVALID    ", LABEL | DIRECTORY)));
    EXPECT_EQ(find(3), at(3));
}

TEST_P(FindEmptyEntries, SpanMayCrossSectorsAndClusters) {
    occupy();
    const u32 cluster_border = volume::entries_per_cluster();
    for (const u32 border : {per_sector, 2 * per_sector, cluster_border, 2 * cluster_border,
                             3 * cluster_border, capacity - per_sector}) {
        if (border + 3 >= capacity) {
            continue; // the root area is no larger
        }
        set_deleted(border - 3, border + 3);
        EXPECT_EQ(find(7), at(border - 3));
        for (u32 i = border - 3; i <= border + 3; i++) {
            dir.put(i, file_number(i));
        }
    }
}

TEST_P(FindEmptyEntries, NoSectorIsReadTwiceAndNoTransferBeginsAfterTheSpan) {
    occupy();
    set_free(2 * per_sector, 2 * per_sector);
    v.disk.log.clear();
    EXPECT_EQ(find(1), at(2 * per_sector));
    EXPECT_LE(v.disk.log.size(), 3U + 2U); // two links at most
    for (const auto &[sector, times] : v.sectors_read()) {
        EXPECT_EQ(times, 1) << "sector " << sector;
    }
}

// ---- growing ----------------------------------------------------------------------------------

TEST_P(GrowForEntries, FullDirectoryGrowsByAClearedCluster) {
    occupy();
    fat_picture fat(&v);
    sv->last_alloc_clus = 99;
    v.disk.poke(u64{volume::first_sector_of(100)} * sv->sector_size,
                std::vector<u8>(cluster_bytes, 0x5A));
    const std::vector<entry_image> before = space();
    EXPECT_EQ(find(1), at(capacity));
    EXPECT_EQ(fat.with(60, END).with(60, 100).with(100, END).difference(), "");
    EXPECT_EQ(data_of(100), std::vector<u8>(cluster_bytes, 0));
    EXPECT_EQ(dir.record.last, 100U);
    EXPECT_EQ(dir.record.allocated, 5 * cluster_bytes);
    EXPECT_EQ(changes_since(before), "");
    // Now the directory has the requested span.
    EXPECT_EQ(find(1), at(capacity));
    EXPECT_EQ(find(per_cluster), at(capacity));
    EXPECT_EQ(dir.record.last, 100U);
}

TEST_P(GrowForEntries, SpanBeginsInTheOldSpace) {
    for (const u32 left : {1U, 2U, 3U}) {
        directory again = v.sub_directory({200, 201});
        for (u32 i = 0; i < again.capacity(); i++) {
            again.put(i, i < again.capacity() - left ? file_number(i) : entry_image{});
        }
        sv->last_alloc_clus = 300;
        u32 index = UNTOUCHED;
        EXPECT_EQ(heard(fat_find_empty_entries(&again.record, 4, &index)), (answer{0, ""}));
        EXPECT_EQ(index, again.capacity() - left);
        EXPECT_EQ(again.record.last, 301U);
        EXPECT_EQ(again.record.allocated, 3 * cluster_bytes);
        v.set_link(301, 0);
    }
}

TEST_P(GrowForEntries, SpanBeginsWithFreeEntriesAtTheEndOnly) {
    for (const auto &[first_deleted, last_deleted, count, index, last] :
         std::initializer_list<std::array<u32, 5>>{
             {capacity - 2, capacity - 1, 3, capacity - 2, 100},
             {3, 5, 4, capacity, 100},
             {1, 0, 2 * per_cluster, capacity, 101}}) {
        v.chain(dir.clusters);
        v.set_link(100, 0);
        v.set_link(101, 0);
        dir.record.last = dir.clusters.back();
        dir.record.allocated = 4 * cluster_bytes;
        occupy();
        set_deleted(first_deleted, last_deleted);
        sv->last_alloc_clus = 99;
        EXPECT_EQ(find(count), at(index));
        EXPECT_EQ(dir.record.last, last);
    }
}

TEST_P(GrowForEntries, ManyClustersWhereTheSpanNeedsThem) {
    occupy();
    set_free(capacity - 1, capacity - 1);
    fat_picture fat(&v);
    sv->last_alloc_clus = 99;
    EXPECT_EQ(find(2 * per_cluster + 2), at(capacity - 1));
    EXPECT_EQ(dir.record.last, 102U);
    EXPECT_EQ(dir.record.allocated, 7 * cluster_bytes);
    EXPECT_EQ(fat.with(60, 100).with(100, 101).with(101, 102).with(102, END).difference(), "");
    for (const u32 cluster : {100U, 101U, 102U}) {
        EXPECT_EQ(data_of(cluster), std::vector<u8>(cluster_bytes, 0));
    }
}

TEST_P(GrowForEntries, EntryIsBuiltAcrossTheOldEnd) {
    occupy();
    set_free(capacity - 1, capacity - 1);
    set_free(0, 0);
    sv->last_alloc_clus = 99;
    const std::u16string wide = u"A name in the old space and in the new";
    name_forms name("ANAMEINT   ", wide);
    const u32 count = name.slots();
    EXPECT_EQ(find(count), at(capacity - 1));
    const std::vector<entry_image> before = space();
    EXPECT_EQ(heard(build_entry(&dir.record, capacity - 1, count, DENTRY_FILE, &name.record, 0)),
              (answer{static_cast<int>(capacity + count - 2), ""}));
    const std::vector<entry_image> slots = long_slots(wide, "ANAMEI~1   ");
    std::vector<entry_image> expected = before;
    expected[capacity - 1] = slots[0];
    EXPECT_EQ(changes_since(expected), "");
    std::vector<u8> data(cluster_bytes, 0);
    for (std::size_t i = 1; i < slots.size(); i++) {
        std::copy(slots[i].begin(), slots[i].end(),
                  data.begin() + 32 * static_cast<std::ptrdiff_t>(i - 1));
    }
    const entry_image entry = stamped(short_entry("ANAMEI~1   ", 0));
    std::copy(entry.begin(), entry.end(),
              data.begin() + 32 * static_cast<std::ptrdiff_t>(slots.size() - 1));
    EXPECT_EQ(data_of(100), data);
}

TEST_P(GrowForEntries, ChainShorterThanRecordedGrowsWhereItEnds) {
    occupy();
    v.set_link(35, volume::end_mark());
    dir.record.last = 35;
    sv->last_alloc_clus = 99;
    // The record counts two clusters that the chain does not have.
    u32 index = UNTOUCHED;
    EXPECT_EQ(fat_find_empty_entries(&dir.record, 1, &index), 0);
    EXPECT_EQ(index, 2 * per_cluster);
    EXPECT_EQ(v.link(35), 100U);
}

// ---- growth that fails ------------------------------------------------------------------------

TEST_P(GrowForEntries, FullVolumeIsReported) {
    occupy();
    std::vector<u8> fat = v.fat_copy(0);
    std::fill(fat.begin(), fat.end(), u8{0xFF});
    v.disk.poke(volume::fat_offset(0), fat);
    v.chain(dir.clusters);
    const fat_picture picture(&v);
    const record_picture before = picture_of(dir.record);
    EXPECT_EQ(find(1), failed(-ENOSPC, NO_SPACE + NOT_EXTENDED + CHECK_HERE));
    EXPECT_EQ(picture.difference(), "");
    EXPECT_EQ(picture_of(dir.record), before);
    expect_unwritten();
}

TEST_P(GrowForEntries, FullVolumeWithRoomInTheDirectoryStillTakesEntries) {
    occupy();
    set_deleted(4, 5);
    std::vector<u8> fat = v.fat_copy(0);
    std::fill(fat.begin(), fat.end(), u8{0xFF});
    v.disk.poke(volume::fat_offset(0), fat);
    v.chain(dir.clusters);
    EXPECT_EQ(find(2), at(4));
}

TEST_P(GrowForEntries, LastClusterOfTheVolumeIsTakenAndStaysWhereOneMoreIsMissing) {
    occupy();
    std::vector<u8> bytes = v.fat_copy(0);
    std::fill(bytes.begin(), bytes.end(), u8{0xFF});
    v.disk.poke(volume::fat_offset(0), bytes);
    v.chain(dir.clusters);
    v.set_link(volume::last_cluster(), 0);
    fat_picture fat(&v);
    EXPECT_EQ(find(per_cluster + 1), failed(-ENOSPC, NO_SPACE + NOT_EXTENDED + CHECK_HERE));
    EXPECT_EQ(fat.with(60, volume::last_cluster()).with(volume::last_cluster(), END).difference(),
              "");
    EXPECT_EQ(dir.record.last, volume::last_cluster());
    EXPECT_EQ(dir.record.allocated, 5 * cluster_bytes);
    EXPECT_EQ(find(per_cluster), at(capacity));
}

TEST_P(GrowForEntries, ClusterThatCannotBeClearedIsFreedAgain) {
    occupy();
    sv->last_alloc_clus = 99;
    const fat_picture fat(&v);
    const record_picture before = picture_of(dir.record);
    v.disk.unwritable = {volume::first_sector_of(100)};
    EXPECT_EQ(find(1), failed(-EIO, "clear_cluster[N]: cannot write cluster(#100)\n" + CHECK_HERE));
    EXPECT_EQ(fat.difference(), "");
    EXPECT_EQ(picture_of(dir.record), before);
}

TEST_P(GrowForEntries, EveryFailureEndsInADirectoryThatIsWhole) {
    at_every_fault({EVERY_READ, EVERY_WRITE, EVERY_ALLOCATION}, [&](fault_step &step) {
        directory again = v.sub_directory({200, 201});
        for (u32 i = 0; i < again.capacity(); i++) {
            again.put(i, file_number(i));
        }
        v.set_link(301, 0);
        sv->last_alloc_clus = 300;
        const fat_picture fat(&v);
        u32 index = UNTOUCHED;
        const answer a =
            heard(step.run([&] { return fat_find_empty_entries(&again.record, 1, &index); }));
        if (a.result == 0) {
            // Sectors that cannot be read together are read one by one.
            EXPECT_TRUE(step.struck() ? !step.is(fault::write) : step.k > 1);
            EXPECT_EQ(a.messages, "");
            EXPECT_EQ(index, again.capacity());
            return;
        }
        EXPECT_TRUE(a.messages.ends_with(CHECK_HERE)) << a;
        EXPECT_EQ(index, UNTOUCHED);
        EXPECT_EQ(again.record.last, 201U);
        EXPECT_EQ(again.record.allocated, 2 * cluster_bytes);
        EXPECT_EQ(fat.difference(), "") << a;
    });
}

// ---- the root area of FAT16 -------------------------------------------------------------------

namespace {

class Fat16RootArea : public testing::TestWithParam<volume_shape> {
protected:
    void fill(u32 count) {
        for (u32 i = 0; i < count; i++) {
            root.put(i, short_entry("TAKEN      "));
        }
    }
    answer find(u32 count) {
        messages.clear();
        index = UNTOUCHED;
        const int result = fat_find_empty_entries(&root.record, count, &index);
        return {result, messages.text()};
    }
    void expect_unwritten() const {
        for (const transfer &t : v.disk.log) {
            EXPECT_FALSE(t.is_write) << t;
        }
    }
    volume v{GetParam()};
    directory root = v.root();
    diagnostics messages;
    u32 index = UNTOUCHED;
};

std::vector<volume_shape> root_areas() {
    std::vector<volume_shape> result;
    for (const u32 entries : {32U, 128U, 256U, 512U, 1024U}) {
        for (const u32 sector_size : {512U, 2048U}) {
            volume_shape shape;
            shape.sector_size = sector_size;
            shape.root_entries = entries;
            result.push_back(shape);
        }
    }
    return result;
}
std::string root_area_name(const testing::TestParamInfo<volume_shape> &info) {
    return name_of(info.param) + "Entries" + std::to_string(info.param.root_entries);
}

INSTANTIATE_TEST_SUITE_P(Sizes, Fat16RootArea, testing::ValuesIn(root_areas()), root_area_name);

} // namespace

TEST_P(Fat16RootArea, FullRootIsReportedAndNothingGrows) {
    fill(root.capacity());
    const fat_picture fat(&v);
    const record_picture before = picture_of(root.record);
    // Every walk counts 512 entries, whatever the area has room for.
    const std::string end = root.capacity() < 512 ? root_ends_at(root.capacity()) : "";
    EXPECT_EQ(find(1), (answer{-ENOSPC, end + NO_MORE_SPACE}));
    EXPECT_EQ(index, UNTOUCHED);
    EXPECT_EQ(fat.difference(), "");
    EXPECT_EQ(picture_of(root.record), before);
    expect_unwritten();
}

TEST_P(Fat16RootArea, LastSlotIsTakenAndNoMore) {
    const u32 slots = std::min(root.capacity(), 512U);
    fill(slots - 1);
    EXPECT_EQ(find(1), (answer{0, ""}));
    EXPECT_EQ(index, slots - 1);
    const std::string end = root.capacity() < 512 ? root_ends_at(root.capacity()) : "";
    EXPECT_EQ(find(2), (answer{-ENOSPC, end + NO_MORE_SPACE}));
    expect_unwritten();
}

TEST_P(Fat16RootArea, EntriesAfterThe512thAreNotCounted) {
    fill(std::min(root.capacity(), 512U));
    EXPECT_EQ(find(1).result, -ENOSPC);
}

TEST_P(Fat16RootArea, CopyOfTheRootsRecordCannotGrowEither) {
    fill(root.capacity());
    ASSERT_EQ(open_root_directory(), 0);
    oentry copy = *sv->root_dir;
    EXPECT_EQ(fat_find_empty_entries(&copy, 1, &index), -ENOSPC);
    expect_unwritten();
}

// The number of the first sector of the root area does not identify a cluster.
TEST_P(Fat16RootArea, SubDirectoryAtTheClusterOfItsNumberGrows) {
    const u32 cluster = sv->rdir_start;
    directory dir = v.sub_directory({cluster});
    for (u32 i = 0; i < dir.capacity(); i++) {
        dir.put(i, short_entry("TAKEN      "));
    }
    ASSERT_EQ(dir.record.start, sv->rdir_start);
    sv->last_alloc_clus = 99;
    messages.clear();
    EXPECT_EQ(fat_find_empty_entries(&dir.record, 1, &index), 0);
    EXPECT_EQ(messages.text(), "");
    EXPECT_EQ(index, dir.capacity());
    EXPECT_EQ(dir.record.last, 100U);
}

// ---- what was built, read by mtools -----------------------------------------------------------

namespace {

class ReadByMtools : public testing::TestWithParam<volume_shape> {
protected:
    void SetUp() override {
        for (const char *program : {"mdir", "mcopy"}) {
            if (!has_program(program)) {
                GTEST_SKIP() << program << " is not here";
            }
        }
    }

    // Creates a name by the same steps as the library, with its own data.
    void add(oentry *dir, const std::string &text, const std::string &content) {
        const u32 cluster = content.empty() ? 0 : data_cluster(content);
        const int index = build(dir, text, DENTRY_FILE, cluster);
        ASSERT_GE(index, 0) << text << ": " << messages.text();
        u32 sector = 0;
        ASSERT_EQ(get_entry_sector(base_cluster(dir), static_cast<u32>(index), &sector), 0);
        const u64 place =
            u64{sector} * sv->sector_size + static_cast<u32>(index) * 32 % sv->sector_size;
        const std::size_t size = content.size();
        v.disk.poke(place + 28, {static_cast<u8>(size), static_cast<u8>(size >> 8),
                                 static_cast<u8>(size >> 16), static_cast<u8>(size >> 24)});
    }
    // Its first cluster.
    u32 add_directory(oentry *parent, const std::string &text) {
        u32 cluster = 0;
        EXPECT_EQ(fat_extend_dir(nullptr, &cluster), 0);
        EXPECT_GE(build(parent, text, DENTRY_DIR, cluster), 0) << text;
        EXPECT_EQ(init_directory(parent->dentry == nullptr ? 0 : parent->start, cluster), 0);
        return cluster;
    }

    void save() {
        std::ofstream out(image, std::ios::binary);
        for (const u64 number : v.disk.known_blocks()) {
            out.seekp(static_cast<std::streamoff>(number * ram_disk::BLOCK));
            out.write(reinterpret_cast<const char *>(v.disk.block(number)), ram_disk::BLOCK);
        }
        out.close();
        std::filesystem::resize_file(image, sv->vol_size);
    }
    // The names of a directory.
    [[nodiscard]] std::multiset<std::string> listing(const std::string &path) const {
        const auto listed = shell("MTOOLS_SKIP_CHECK=1 LC_ALL=C.UTF-8 mdir -a -b -i \"$1\" \"$2\"",
                                  {image, "::" + path});
        EXPECT_EQ(listed.status, 0) << listed;
        std::multiset<std::string> result;
        std::istringstream lines(listed.out);
        for (std::string line; std::getline(lines, line);) {
            const std::string prefix = "::/" + path;
            EXPECT_TRUE(line.starts_with(prefix)) << line;
            result.insert(line.substr(prefix.size()));
        }
        return result;
    }
    // Every file with its content, the whole tree copied out in one go.
    [[nodiscard]] std::map<std::string, std::string> contents() const {
        const std::string to = scratch.file("out");
        std::filesystem::create_directory(to);
        const auto copied = shell(
            "MTOOLS_SKIP_CHECK=1 LC_ALL=C.UTF-8 mcopy -s -n -i \"$1\" '::*' \"$2\"", {image, to});
        EXPECT_EQ(copied.status, 0) << copied;
        std::map<std::string, std::string> result;
        for (const auto &entry : std::filesystem::recursive_directory_iterator(to)) {
            if (entry.is_regular_file()) {
                const bytes content = read_file(entry.path().string());
                result[entry.path().lexically_relative(to).string()] = {content.begin(),
                                                                        content.end()};
            }
        }
        return result;
    }

    scratch_directory scratch;
    const std::string image = scratch.file("volume.img");
    const stopped_clock clock{LEAP_DAY};
    volume v{GetParam()};
    diagnostics messages;

private:
    int build(oentry *dir, const std::string &text, u32 kind, u32 cluster) {
        std::vector<char> writable(text.begin(), text.end());
        writable.push_back('\0');
        fat_name name = {};
        EXPECT_EQ(get_fatnames(writable.data(), &name), 0);
        const u32 count = name.unicode == nullptr ? 1 : 1 + (name.ulen + 12) / 13;
        u32 first = 0;
        EXPECT_EQ(fat_find_empty_entries(dir, count, &first), 0) << messages.text();
        const int index = build_entry(dir, first, count, kind, &name, cluster);
        release_name(&name);
        return index;
    }
    u32 data_cluster(const std::string &content) {
        u32 cluster = 0;
        EXPECT_EQ(fat_alloc_cluster(nullptr, &cluster), 0);
        v.disk.poke(u64{volume::first_sector_of(cluster)} * sv->sector_size,
                    {content.begin(), content.end()});
        return cluster;
    }
};

INSTANTIATE_TEST_SUITE_P(Shapes, ReadByMtools, testing::ValuesIn(chain_shapes()), shape_name);

const std::vector<std::string> &some_names() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> result = {"PLAIN.TXT",
                                           "lower.txt",
                                           "Mixed Case.txt",
                                           "NOEXT",
                                           "abcdefghijklmnopqrstuvwxyz7",
                                           "two..dots",
                                           "name+with,odd;letters=in[it].htm",
                                           ".hidden"};
        const std::string letters = "AbCdEfGhIjKlMnOpQrStUvWxYz0123456789";
        for (const std::size_t length : {1U, 12U, 13U, 14U, 25U, 26U, 27U, 39U, 100U, 255U}) {
            std::string name = std::to_string(length);
            name.insert(0, 1, 'x');
            while (name.size() < length) {
                name += letters[name.size() % letters.size()];
            }
            result.push_back(name.substr(0, length));
        }
        return result;
    }();
    return names;
}

} // namespace

TEST_P(ReadByMtools, NamesOfAllLengthsInRootAndSubDirectory) {
    directory root = v.root();
    const u32 first = add_directory(&root.record, "A sub-directory");
    const entry_image image_of_sub = short_entry("ASUB-D~1   ", DIRECTORY, first);
    oentry sub = {};
    ASSERT_EQ(fat_set_oentry(image_of_sub.data(), 0, 0, &sub), 0);
    const heap_ptr<u8> owned(sub.dentry);
    std::multiset<std::string> expected;
    std::map<std::string, std::string> expected_contents;
    for (const std::string &name : some_names()) {
        const std::string path = "A sub-directory/" + name;
        expected_contents[name] = "in the root: " + name;
        expected_contents[path] = "below it: " + name;
        add(&root.record, name, expected_contents[name]);
        add(&sub, name, expected_contents[path]);
        expected.insert(name);
    }
    EXPECT_EQ(messages.text(), "");
    save();
    EXPECT_EQ(listing("A sub-directory/"), expected);
    expected.insert("A sub-directory/");
    EXPECT_EQ(listing(""), expected);
    EXPECT_EQ(contents(), expected_contents);
}

TEST_P(ReadByMtools, ManyNamesWithTailsInADirectoryThatGrows) {
    directory root = v.root();
    const u32 first = add_directory(&root.record, "many");
    const entry_image image_of_sub = short_entry("MANY       ", DIRECTORY, first);
    oentry sub = {};
    ASSERT_EQ(fat_set_oentry(image_of_sub.data(), 0, 0, &sub), 0);
    const heap_ptr<u8> owned(sub.dentry);
    std::multiset<std::string> expected;
    std::map<std::string, std::string> expected_contents;
    for (int i = 0; i < 60; i++) {
        const std::string number = std::to_string(i);
        const std::string name = "A long name, number " + number + ".data";
        const std::string content = i % 5 == 0 ? "content " + number : "";
        add(&sub, name, content);
        expected.insert(name);
        expected_contents["many/" + name] = content;
    }
    EXPECT_EQ(messages.text(), "");
    save();
    EXPECT_EQ(listing("many/"), expected);
    EXPECT_EQ(contents(), expected_contents);
}
