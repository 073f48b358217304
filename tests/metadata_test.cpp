// Items, metadata and names of open entries: reading, changing, writing and printing them; the path
// of a cluster.

#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/mounted.h"
#include "tests/support/open_entries.h"
#include "tests/support/printout.h"

#include <cerrno>
#include <list>
#include <memory>

using namespace fat;
using namespace testing_support;
using namespace std::string_literals;

namespace {

class metadata_case {
public:
    explicit metadata_case(const volume_shape &shape = {}) : v(shape) {
        v.top.go_to(1); // after the label
    }

    template <typename Call>
    answer ask(Call call) {
        messages.clear();
        v.disk.log.clear();
        const int result = call();
        answer a{result, messages.text()};
        EXPECT_TRUE(table_agrees()) << "after " << a;
        return a;
    }

    mounted v;
    diagnostics messages;
};

// ---- items ------------------------------------------------------------------------------------

class Items : public testing::Test {
protected:
    Items() {
        c.v.chain({10, 11});
        entry_image entry = short_entry("FILE    TXT", ARCHIVE, 10, 700);
        for (std::size_t i = 12; i < 20; i++) {
            entry[i] = static_cast<std::uint8_t>(0xA0 + i);
        }
        id = c.v.open(c.v.top.append(entry));
        before = mounted::held_entry(id);
        c.v.disk.remember();
    }
    ~Items() override {
        EXPECT_TRUE(c.v.disk.written_blocks().empty());
    }

    // The result, and the value that it returns.
    std::pair<answer, u32> get(int of, int type) {
        u32 value = 4711;
        const answer a = c.ask([&] { return fat_get(of, type, &value); });
        return {a, value};
    }
    answer set(int of, int type, u32 value) {
        return c.ask([&] { return fat_set(of, type, value); });
    }
    // The copy with some bytes of it changed.
    [[nodiscard]] entry_image with(const std::vector<std::pair<std::size_t, int>> &changes) const {
        entry_image result = before;
        for (const auto &[place, value] : changes) {
            result.at(place) = static_cast<std::uint8_t>(value);
        }
        return result;
    }

    metadata_case c;
    int id = 0;
    entry_image before = {};
};
using value_given = std::pair<answer, u32>;

TEST_F(Items, AreReadFromTheCopy) {
    EXPECT_EQ(get(id, 1), (value_given{{0, ""}, 10}));
    EXPECT_EQ(get(id, 2), (value_given{{0, ""}, 0xAC}));
    EXPECT_EQ(get(id, 3), (value_given{{0, ""}, 0xAD}));
    EXPECT_EQ(c.v.traffic(), 0U);
}

TEST_F(Items, TakeTheFirstClusterInTwoHalves) {
    EXPECT_EQ(set(id, 1, 0x00123456), (answer{0, ""}));
    EXPECT_EQ(mounted::held_entry(id), with({{20, 0x12}, {21, 0x00}, {26, 0x56}, {27, 0x34}}));
    EXPECT_EQ(get(id, 1), (value_given{{0, ""}, 0x00123456}));
    EXPECT_EQ(set(id, 1, 0xFEDCBA98), (answer{0, ""}));
    EXPECT_EQ(mounted::held_entry(id), with({{20, 0xDC}, {21, 0xFE}, {26, 0x98}, {27, 0xBA}}));
    EXPECT_EQ(get(id, 1), (value_given{{0, ""}, 0xFEDCBA98}));
}

TEST_F(Items, LeaveTheRecordAsItIs) {
    record_picture expected = picture_of(id);
    EXPECT_EQ(set(id, 1, 0x00123456), (answer{0, ""}));
    const entry_image changed = with({{20, 0x12}, {26, 0x56}, {27, 0x34}});
    expected.image.assign(changed.begin(), changed.end());
    EXPECT_EQ(picture_of(id), expected);
    EXPECT_EQ(mounted::record(id).start, 10U);
}

TEST_F(Items, TakeTheLowEightBitsOfABytesValue) {
    EXPECT_EQ(set(id, 2, 0xFFFFFF18), (answer{0, ""}));
    EXPECT_EQ(mounted::held_entry(id), with({{12, 0x18}}));
    EXPECT_EQ(get(id, 2), (value_given{{0, ""}, 0x18}));
    EXPECT_EQ(set(id, 3, 0x12345600), (answer{0, ""}));
    EXPECT_EQ(mounted::held_entry(id), with({{12, 0x18}, {13, 0x00}}));
    EXPECT_EQ(get(id, 3), (value_given{{0, ""}, 0}));
    EXPECT_EQ(set(id, 3, 0xE2), (answer{0, ""}));
    EXPECT_EQ(get(id, 3), (value_given{{0, ""}, 0xE2}));
}

TEST_F(Items, OfOtherTypesDoNotExist) {
    for (const int type : {4, 0, -1, 5, 257, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(
            get(id, type),
            (value_given{{-EINVAL, "fat_get[N]: Invalid type: " + std::to_string(type) + "\n\n"},
                         4711}));
        EXPECT_EQ(set(id, type, 1),
                  (answer{-EINVAL, "fat_set[N]: Invalid type: " + std::to_string(type) + "\n\n"}));
    }
    EXPECT_EQ(mounted::held_entry(id), before);
}

TEST_F(Items, HaveCallsOfTheirOwn) {
    u32 value = 0;
    EXPECT_EQ(fat_set_cluster(id, 0xABCD1234), 0);
    EXPECT_EQ(fat_get_cluster(id, &value), 0);
    EXPECT_EQ(value, 0xABCD1234);
    EXPECT_EQ(fat_set_sysid(id, 0x1218), 0);
    EXPECT_EQ(fat_get_sysid(id, &value), 0);
    EXPECT_EQ(value, 0x18U);
    EXPECT_EQ(fat_set_cmsec(id, 0xFE2), 0);
    EXPECT_EQ(fat_get_cmsec(id, &value), 0);
    EXPECT_EQ(value, 0xE2U);
    EXPECT_EQ(mounted::held_entry(id),
              with({{12, 0x18}, {13, 0xE2}, {20, 0xCD}, {21, 0xAB}, {26, 0x34}, {27, 0x12}}));
}

// ---- fat_update_entry -------------------------------------------------------------------------

class UpdateEntry : public testing::TestWithParam<volume_shape> {
protected:
    UpdateEntry() : c(GetParam()) {
        for (int i = 0; i < 20; i++) {
            c.v.top.append(short_entry("OTHER   TXT", ARCHIVE, 0, static_cast<u32>(i)));
        }
        id = c.v.open_new("FILE    TXT", {10}, 7);
        c.v.top.append(short_entry("AFTER   TXT"));
        sector = mounted::record(id).dentry_sector;
        for (std::size_t i = 0; i < 32; i++) {
            mounted::record(id).dentry[i] = static_cast<std::uint8_t>(0xC0 + i);
        }
        c.v.disk.remember();
    }
    answer update(int of) {
        return c.ask([&] { return fat_update_entry(of); });
    }
    static answer io_error() {
        return {-EIO, "fat_update_entry[N]: IO Error!\n\n"};
    }

    metadata_case c;
    int id = 0;
    u64 sector = 0;
};
INSTANTIATE_TEST_SUITE_P(Shapes, UpdateEntry,
                         testing::Values(volume_shape{.fat_type = 16},
                                         volume_shape{.fat_type = 32, .sector_size = 1024},
                                         volume_shape{.fat_type = 16, .sector_size = 4096}),
                         shape_name);

TEST_P(UpdateEntry, WritesTheCopyToItsPositionAndNothingElse) {
    bytes expected = c.v.disk.peek(sector * sv->sector_size, sv->sector_size);
    const entry_image held = mounted::held_entry(id);
    std::copy(held.begin(), held.end(),
              expected.begin() + static_cast<std::ptrdiff_t>(mounted::record(id).dentry_offset));
    EXPECT_EQ(update(id), (answer{0, ""}));
    EXPECT_EQ(c.v.disk.peek(sector * sv->sector_size, sv->sector_size), expected);
    EXPECT_EQ(c.v.disk.log, (std::vector<transfer>{{false, sector, 1}, {true, sector, 1}}));
}

TEST_P(UpdateEntry, WritesNothingAfterAFailedRead) {
    c.v.disk.reads_before_failure = 0;
    EXPECT_EQ(update(id), io_error());
    EXPECT_TRUE(c.v.disk.written_blocks().empty());
    EXPECT_EQ(c.v.disk.log, (std::vector<transfer>{{false, sector, 1}}));
}

// As after a format with smaller sectors while the entry is open.
TEST_P(UpdateEntry, WritesNothingWhereTheEntryIsInNoSector) {
    mounted::record(id).dentry_offset = sv->sector_size - 32;
    EXPECT_EQ(update(id), (answer{0, ""}));
    c.v.disk.remember();
    for (const u32 beyond : {1U, 32U, sv->sector_size}) {
        mounted::record(id).dentry_offset = sv->sector_size - 32 + beyond;
        EXPECT_EQ(update(id), io_error());
    }
    EXPECT_EQ(c.v.traffic(), 0U);
}

// Only a negative result of the read counts.
TEST_P(UpdateEntry, ContinuesAfterAReadThatMovesNothing) {
    c.v.disk.failure_result = 0;
    c.v.disk.reads_before_failure = 0;
    EXPECT_EQ(update(id), (answer{0, ""}));
    EXPECT_EQ(c.v.stored_entry(id), mounted::held_entry(id));
}

TEST_P(UpdateEntry, FailsUnlessExactlyOneSectorIsWritten) {
    for (const int moved : {-EIO, -ENOSPC, 0, 2}) {
        c.v.disk.failure_result = moved;
        c.v.disk.writes_before_failure = 0;
        EXPECT_EQ(update(id), io_error()) << moved;
    }
    EXPECT_EQ(update(id), (answer{0, ""}));
}

// ---- fat_list_chains, fat_fstat ---------------------------------------------------------------

std::vector<u32> row(u32 first, u32 count) {
    std::vector<u32> result;
    for (u32 i = 0; i < count; i++) {
        result.push_back(first + i);
    }
    return result;
}

printout list_of(int id) {
    return to_stream([&](FILE *stream) { return fat_list_chains(id, stream); });
}

class ListChains : public testing::TestWithParam<u32> {
protected:
    ListChains() : c({.fat_type = GetParam(), .clusters = 70000 * (GetParam() / 32)}) {}
    metadata_case c;
};
INSTANTIATE_TEST_SUITE_P(Widths, ListChains, testing::Values(16, 32),
                         testing::PrintToStringParamName());

TEST_P(ListChains, PrintsTenNumbersInALine) {
    EXPECT_EQ(list_of(c.v.open_new("ONE        ", {10}, 1)), (printout{0, "[   10] \n", ""}));
    EXPECT_EQ(list_of(c.v.open_new("THREE      ", {20, 4000, 21}, 1)),
              (printout{0, "[   20] [ 4000] [   21] \n", ""}));
    EXPECT_EQ(
        list_of(c.v.open_new("NINE       ", row(101, 9), 1)),
        (printout{0, "[  101] [  102] [  103] [  104] [  105] [  106] [  107] [  108] [  109] \n",
                  ""}));
    EXPECT_EQ(list_of(c.v.open_new("TEN        ", row(201, 10), 1)),
              (printout{0,
                        "[  201] [  202] [  203] [  204] [  205] [  206] [  207] [  208] [  209] "
                        "[  210] \n\n",
                        ""}));
    EXPECT_EQ(list_of(c.v.open_new("ELEVEN     ", row(301, 11), 1)),
              (printout{0,
                        "[  301] [  302] [  303] [  304] [  305] [  306] [  307] [  308] [  309] "
                        "[  310] \n[  311] \n",
                        ""}));
    std::string twenty;
    for (u32 i = 0; i < 20; i++) {
        twenty += "[ 10" + std::string(i < 10 ? "0" : "") + std::to_string(i) + "] ";
        twenty += i % 10 == 9 ? "\n" : "";
    }
    EXPECT_EQ(list_of(c.v.open_new("TWENTY     ", row(1000, 20), 1)),
              (printout{0, twenty + "\n", ""}));
}

TEST_P(ListChains, ReportsThatAnEmptyEntryHasNone) {
    EXPECT_EQ(list_of(c.v.open_new("EMPTY      ", {}, 0)),
              (printout{0, "", "fat_list_chains[N]: failed to get chain count!\n\n"}));
}

TEST_P(ListChains, ReportsAChainThatBroke) {
    const int id = c.v.open_new("FILE       ", {20, 30}, 1);
    c.v.set_link(20, 0);
    EXPECT_EQ(list_of(id), (printout{-EINVAL, "",
                                     "fat_get_chains[N]: Failed to read cluster!\n\n"
                                     "fat_list_chains[N]: failed to get chain count!\n\n"}));
    c.v.set_link(20, 1);
    EXPECT_EQ(list_of(id), (printout{-EINVAL, "",
                                     "fat_read_clus[N]: Invalid cluster!\n\n"
                                     "fat_get_chains[N]: Failed to read cluster!\n\n"
                                     "fat_list_chains[N]: failed to get chain count!\n\n"}));
}

TEST_P(ListChains, PrintsToStandardOutputWithoutAStream) {
    const int id = c.v.open_new("FILE       ", {20, 30}, 1);
    EXPECT_EQ(to_output([&] { return fat_list_chains(id, nullptr); }),
              (printout{0, "[   20] [   30] \n", ""}));
}

TEST(ListChainsOfRoot, ExistOnFat32Alone) {
    {
        const metadata_case c({.fat_type = 32});
        EXPECT_EQ(list_of(0), (printout{0, "[    2] \n", ""}));
    }
    const metadata_case c({.fat_type = 16});
    EXPECT_EQ(list_of(0), (printout{-EINVAL, "",
                                    "fat_get_chains[N]: Invalid arg!\n\n"
                                    "fat_list_chains[N]: failed to get chain count!\n\n"}));
}

TEST(ListChainsOnFat32, PrintsNumbersOfMoreThanFiveDigits) {
    metadata_case c({.fat_type = 32, .clusters = 110000});
    EXPECT_EQ(list_of(c.v.open_new("FILE       ", {99999, 100000}, 1)),
              (printout{0, "[99999] [100000] \n", ""}));
}

printout stat_of(int id) {
    return to_stream([&](FILE *stream) { return fat_fstat(id, stream); });
}

class Fstat : public testing::Test {
protected:
    // An entry opened by its name.
    int open(const char *path, const entry_image &entry, const std::vector<u32> &clusters) {
        c.v.chain(clusters);
        c.v.top.append(entry);
        return fat_open(path);
    }
    metadata_case c{{.sec_per_clus = 8}};
};

TEST_F(Fstat, PrintsAFileWhole) {
    entry_image entry = short_entry("FILE    TXT", ARCHIVE | READ_ONLY, 10, 9000);
    entry[12] = 0x18;
    entry[13] = 99;
    for (const auto &[place, value] :
         std::initializer_list<std::pair<std::size_t, int>>{{14, 0x5C},
                                                            {15, 0x64},
                                                            {16, 0x5D},
                                                            {17, 0x58},
                                                            {18, 0x21},
                                                            {19, 0x00},
                                                            {22, 0x01},
                                                            {23, 0x00},
                                                            {24, 0xFF},
                                                            {25, 0xFF}}) {
        entry[place] = static_cast<std::uint8_t>(value);
    }
    const int id = open("/file.txt", entry, {10, 12, 11});
    ASSERT_GT(id, 0);
    EXPECT_EQ(stat_of(id), (printout{0,
                                     "[file] file.txt (9000 Bytes)\n"
                                     "Entry::\n"
                                     "\tname:\tFILE    TXT\n"
                                     "\tattr:\t0x21\n"
                                     "\tsysid:\t0x18\n"
                                     "\tcmsec: ctime: cdate = \t99 \t0x645c \t0x585d\n"
                                     "\tadate: mtime: mdate = \t0x21 \t0x1 \t0xffff\n"
                                     "\tstart_clu:\t0x0000 000a (10)\n"
                                     "\tsize:\t9000\n"
                                     "Cluster chain::\n"
                                     "[   10] [   12] [   11] \n",
                                     ""}));
}

TEST_F(Fstat, ShowsADirectoryWithTheSizeOfItsClusters) {
    const entry_image entry = short_entry("SUB        ", DIRECTORY, 20, 77);
    const int id = open("SUB", entry, {20});
    EXPECT_EQ(stat_of(id), (printout{0,
                                     "[directory] SUB (4096 Bytes)\nEntry::\n" +
                                         text_of_short_entry(entry) + "Cluster chain::\n[   20] \n",
                                     ""}));
}

TEST_F(Fstat, ShowsASymbolicLinkAsAFile) {
    entry_image entry = short_entry("LINK       ", 0, 30, 5);
    entry[13] = 0xE2;
    const int id = open("LINK", entry, {30});
    EXPECT_EQ(stat_of(id), (printout{0,
                                     "[file] LINK (5 Bytes)\nEntry::\n" +
                                         text_of_short_entry(entry) + "Cluster chain::\n[   30] \n",
                                     ""}));
}

TEST_F(Fstat, HasNoLabelForOtherKindsAndShowsTheirClusters) {
    const int id = open("FILE.TXT", short_entry("FILE    TXT", ARCHIVE, 10, 5), {10, 11});
    for (const auto &[place, value, words] :
         std::initializer_list<std::tuple<std::size_t, int, std::string>>{
             {0, 0x00, ""},
             {0, 0xE5, ""},
             {11, LABEL, ""},
             {11, SLOT, ""},
             {11, LABEL | DIRECTORY, "entry_type[N]: Unknown entry type: 24\n\n"}}) {
        entry_image entry = short_entry("FILE    TXT", ARCHIVE, 10, 5);
        entry[place] = static_cast<std::uint8_t>(value);
        std::copy(entry.begin(), entry.end(), mounted::record(id).dentry);
        EXPECT_EQ(stat_of(id),
                  (printout{0,
                            "[] FILE.TXT (8192 Bytes)\nEntry::\n" + text_of_short_entry(entry) +
                                "Cluster chain::\n[   10] [   11] \n",
                            words}));
    }
}

TEST_F(Fstat, HasNoNameForAnEntryOpenedByItsIndex) {
    const int id = c.v.open_new("FILE    TXT", {10}, 5);
    EXPECT_EQ(stat_of(id).out.substr(0, 17), "[file]  (5 Bytes)");
}

TEST_F(Fstat, TakesTheSizeOfTheCopyAsItIs) {
    const int id = c.v.open_new("FILE    TXT", {10}, 0xFFFFFFFF);
    EXPECT_EQ(stat_of(id).out.substr(0, 18), "[file]  (-1 Bytes)");
    mounted::record(id).dentry[31] = 0;
    EXPECT_EQ(stat_of(id).out.substr(0, 24), "[file]  (16777215 Bytes)");
}

TEST_F(Fstat, EndsWithTheListOfClusters) {
    const entry_image entry = short_entry("EMPTY      ");
    EXPECT_EQ(stat_of(open("EMPTY", entry, {})),
              (printout{0,
                        "[file] EMPTY (0 Bytes)\nEntry::\n" + text_of_short_entry(entry) +
                            "Cluster chain::\n",
                        "fat_list_chains[N]: failed to get chain count!\n\n"}));
    const int id = open("FILE", short_entry("FILE       ", 0, 10), {10, 11});
    c.v.set_link(10, 0);
    const printout broken = stat_of(id);
    EXPECT_EQ(broken.result, -EINVAL);
    EXPECT_EQ(broken.messages, "fat_get_chains[N]: Failed to read cluster!\n\n"
                               "fat_list_chains[N]: failed to get chain count!\n\n");
}

TEST_F(Fstat, PrintsToStandardOutputWithoutAStream) {
    const int id = open("FILE", short_entry("FILE       ", 0, 10), {10});
    const printout expected = stat_of(id);
    EXPECT_EQ(to_output([&] { return fat_fstat(id, nullptr); }), expected);
    EXPECT_EQ(expected.result, 0);
}

// ---- without a volume -------------------------------------------------------------------------

// ---- paths of clusters ------------------------------------------------------------------------

// A volume on which directories and all their entries are made by hand.
class forest : public metadata_case {
public:
    explicit forest(const volume_shape &shape = {}) : metadata_case(shape) {}

    directory *add_dir(directory *in, std::string_view dos, const std::vector<u32> &clusters,
                       std::u16string_view long_name = u"") {
        v.chain(clusters);
        directory &made = dirs_.emplace_back(&v, clusters, false);
        made.append(short_entry(".          ", DIRECTORY, clusters.front()));
        made.append(short_entry("..         ", DIRECTORY, in == &v.top ? 0 : in->base()));
        last_index = put(in, dos, DIRECTORY, clusters.front(), long_name);
        return &made;
    }
    u32 add_file(directory *in, std::string_view dos, const std::vector<u32> &clusters,
                 std::u16string_view long_name = u"") {
        v.chain(clusters);
        last_index = put(in, dos, ARCHIVE, clusters.empty() ? 0 : clusters.front(), long_name);
        return last_index;
    }

    // The path that a search finds. Ids and current directory do not change, nothing stays
    // allocated.
    struct found_path {
        int result;
        std::string path; // empty if not found
        bool operator==(const found_path &) const = default;
    };
    found_path find(u32 cluster, u32 size = 4096) {
        std::vector<char> buffer(size, '#');
        buffer.shrink_to_fit();
        return undisturbed([&] { return fat_find_pathname(cluster, buffer.data(), size); }, buffer);
    }
    found_path where_am_i(u32 size = 4096) {
        std::vector<char> buffer(size, '#');
        buffer.shrink_to_fit();
        return undisturbed([&] { return fat_getcwd(buffer.data(), size); }, buffer);
    }
    template <typename Call>
    found_path undisturbed(const Call &call, const std::vector<char> &buffer) {
        const std::vector<int> ids = ids_in_use();
        const oentry *current = sv->current_dir;
        const allocation_meter meter;
        const answer a = ask(call);
        EXPECT_EQ(meter.live_blocks(), 0);
        EXPECT_EQ(ids_in_use(), ids);
        EXPECT_EQ(sv->current_dir, current);
        EXPECT_EQ(current->ref_count, current == sv->root_dir ? 1U : current->ref_count);
        return {a.result, a.result >= 0 ? buffer.data() : ""};
    }

    u32 last_index = 0;

private:
    static u32 put(directory *in, std::string_view dos, std::uint8_t attr, u32 start,
                   std::u16string_view long_name) {
        in->append(long_slots(long_name, dos));
        return in->append(short_entry(dos, attr, start));
    }

    std::list<directory> dirs_;
};
std::ostream &operator<<(std::ostream &out, const forest::found_path &found) {
    return out << found.result << ", \"" << found.path << "\"";
}
using found_path = forest::found_path;

// The message for the name of an entry without a long name.
const std::string NAMED = "get_name_of_entry[N]: Check here!\n\n";

class FindPathname : public testing::TestWithParam<u32> {
protected:
    FindPathname() : f({.fat_type = GetParam()}) {}
    static found_path nothing() {
        return {-ENOENT, ""};
    }
    forest f;
    directory *top = &f.v.top;
};
INSTANTIATE_TEST_SUITE_P(Widths, FindPathname, testing::Values(16, 32),
                         testing::PrintToStringParamName());

TEST_P(FindPathname, IsThatOfTheFileWithTheCluster) {
    f.add_file(top, "OTHER      ", {40});
    const int index = static_cast<int>(f.add_file(top, "FILE    TXT", {10, 12, 11}));
    for (const u32 cluster : {10U, 12U, 11U}) {
        EXPECT_EQ(f.find(cluster), (found_path{index, "/FILE.TXT"})) << cluster;
        EXPECT_EQ(f.messages.text(), NAMED);
    }
}

TEST_P(FindPathname, HasALevelForEachDirectory) {
    f.add_file(top, "OTHER      ", {40});
    directory *sub = f.add_dir(top, "SUB        ", {20, 21});
    f.add_file(sub, "INNER   TXT", {30});
    const int index = static_cast<int>(f.add_file(sub, "FILE    TXT", {31, 32}));
    EXPECT_EQ(f.find(32), (found_path{index, "/SUB/FILE.TXT"}));
    EXPECT_EQ(f.messages.text(), NAMED + NAMED);
    EXPECT_EQ(f.find(30), (found_path{index - 1, "/SUB/INNER.TXT"}));
}

TEST_P(FindPathname, IsThatOfADirectoryForItsOwnClusters) {
    f.add_dir(top, "OTHER      ", {40});
    f.add_dir(top, "SUB        ", {20, 22, 21});
    const int index = static_cast<int>(f.last_index);
    for (const u32 cluster : {20U, 22U, 21U}) {
        EXPECT_EQ(f.find(cluster), (found_path{index, "/SUB"}));
        EXPECT_EQ(f.messages.text(), NAMED + NAMED);
    }
}

TEST_P(FindPathname, GoesDownFiveLevels) {
    directory *in = top;
    std::string path;
    for (u32 level = 0; level < 5; level++) {
        // Entries to search at every level.
        f.add_dir(in, "EMPTY      ", {100 + level});
        f.add_file(in, "FILE    TXT", {200 + level});
        const std::string digit = std::to_string(level);
        in = f.add_dir(in, "LEVEL~" + digit + "    ", {300 + 2 * level, 301 + 2 * level},
                       u"Level with a name");
        path += "/Level with a name";
        EXPECT_EQ(f.find(301 + 2 * level), (found_path{static_cast<int>(f.last_index), path}));
    }
    const int index = static_cast<int>(f.add_file(in, "DEEP    TXT", {50, 60}, u"deep inside.txt"));
    EXPECT_EQ(f.find(60), (found_path{index, path + "/deep inside.txt"}));
    EXPECT_EQ(f.find(102).path, "/Level with a name/Level with a name/EMPTY");
    EXPECT_EQ(f.find(203).path, "/Level with a name/Level with a name/Level with a name/FILE.TXT");
    EXPECT_EQ(f.find(70), nothing());
}

TEST_P(FindPathname, ShowsNamesInTheirDisplayForm) {
    entry_image small = short_entry("SMALL   TXT", ARCHIVE, 10);
    small[12] = 0x18;
    f.v.chain({10});
    top->append(small);
    EXPECT_EQ(f.find(10).path, "/small.txt");
    ASSERT_EQ(fat_set_encoding("UTF-8"), 0);
    f.add_file(top, "GRER~1  TXT", {11}, u"größer.txt");
    EXPECT_EQ(f.find(11).path, "/gr\xC3\xB6\xC3\x9F"
                               "er.txt");
    ASSERT_EQ(fat_set_encoding("ISO-8859-1"), 0);
    f.add_file(top, "ZHONG~1 TXT", {12}, u"\u4E2D\u6587.txt");
    EXPECT_EQ(f.find(12).path, "/ZHONG~1.TXT");
}

TEST_P(FindPathname, IsThatOfASymbolicLinkToo) {
    entry_image link = short_entry("LINK       ", 0, 10, 3);
    link[13] = 0xE2;
    f.v.chain({10});
    const int index = static_cast<int>(top->append(link));
    EXPECT_EQ(f.find(10), (found_path{index, "/LINK"}));
}

TEST_P(FindPathname, DoesNotExistForFreeAndLostClusters) {
    f.add_file(top, "FILE    TXT", {10});
    directory *sub = f.add_dir(top, "SUB        ", {20});
    f.add_file(sub, "FILE    TXT", {30});
    f.v.chain({40, 41});
    EXPECT_EQ(f.find(40), nothing());
    EXPECT_EQ(f.messages.text(), NAMED); // of the directory that was looked into
    EXPECT_EQ(f.find(50), nothing());
    EXPECT_EQ(f.find(volume::last_cluster()), nothing());
}

TEST_P(FindPathname, ChecksTheFirstEntryOfTheRoot) {
    top->go_to(0);
    f.add_file(top, "FILE    TXT", {10});
    EXPECT_EQ(f.find(10), (found_path{0, "/FILE.TXT"}));
    EXPECT_EQ(f.messages.text(), "");
}

// The first two are treated as "." and ".." without a check.
TEST_P(FindPathname, LeavesOutTheFirstTwoEntriesOfOtherDirectories) {
    directory *sub = f.add_dir(top, "SUB        ", {20});
    f.v.chain({30});
    f.v.chain({31});
    sub->put(0, short_entry("FIRST      ", ARCHIVE, 30));
    sub->put(1, short_entry("SECOND     ", ARCHIVE, 31));
    EXPECT_EQ(f.find(30), nothing());
    EXPECT_EQ(f.find(31), nothing());
    sub->put(2, short_entry("THIRD      ", ARCHIVE, 31));
    EXPECT_EQ(f.find(31), (found_path{2, "/SUB/THIRD"}));
}

TEST_P(FindPathname, SkipsEntriesThatAreNeitherFilesNorDirectories) {
    f.v.chain({10});
    top->append(deleted(short_entry("GONE    TXT", ARCHIVE, 10)));
    top->append(short_entry("LABEL      ", LABEL, 10));
    top->append(long_slot(0x41, u"orphan", 7));
    top->append(short_entry("INVALID    ", DIRECTORY | LABEL, 10));
    top->append(short_entry("EMPTY      ", ARCHIVE, 0));
    EXPECT_EQ(f.find(10), nothing());
    EXPECT_EQ(f.messages.text(), "entry_type[N]: Unknown entry type: 24\n\n");
    f.add_file(top, "FILE    TXT", {10});
    EXPECT_EQ(f.find(10).path, "/FILE.TXT");
}

TEST_P(FindPathname, EndsAtAnUnusedEntry) {
    f.add_file(top, "FILE    TXT", {10});
    top->append(entry_image{});
    f.add_file(top, "AFTER   TXT", {11});
    EXPECT_EQ(f.find(11), nothing());
}

TEST_P(FindPathname, LooksThroughFullDirectories) {
    directory *sub = f.add_dir(top, "SUB        ", {20, 22});
    sub->fill_up(short_entry("EMPTY      "));
    f.v.chain({30});
    f.add_file(top, "AFTER   TXT", {11});
    EXPECT_EQ(f.find(11).path, "/AFTER.TXT");
    EXPECT_EQ(f.messages.text(), NAMED + NAMED);
    sub->put(31, short_entry("LAST       ", ARCHIVE, 30));
    EXPECT_EQ(f.find(30), (found_path{31, "/SUB/LAST"}));
}

TEST_P(FindPathname, PassesFilesWhoseChainsAreBroken) {
    f.add_file(top, "BROKEN     ", {10, 11});
    f.add_file(top, "FILE    TXT", {12});
    for (const auto &[link, message] : std::initializer_list<std::pair<u32, std::string>>{
             {0, ""},
             {1, "fat_read_clus[N]: Invalid cluster!\n\n"
                 "find_cluster[N]: Failed to read cluster!\n\n"},
             {10, "find_cluster[N]: Failed to read cluster!\n\n"}}) {
        f.v.set_link(11, link);
        EXPECT_EQ(f.find(12).path, "/FILE.TXT");
        EXPECT_EQ(f.messages.text(), message + NAMED);
        EXPECT_EQ(f.find(11).path, "/BROKEN");
    }
}

TEST_P(FindPathname, FailsAtADirectoryWhoseChainIsBroken) {
    directory *sub = f.add_dir(top, "SUB        ", {20, 21});
    sub->append(entry_image{});
    f.add_file(top, "FILE    TXT", {12});
    for (const u32 link : {1U, volume::bad_mark(), 20U, 21U}) {
        f.v.set_link(21, link);
        EXPECT_EQ(f.find(12), (found_path{-EINVAL, ""})) << link;
        // Its own clusters are found before it is opened.
        EXPECT_EQ(f.find(21).path, "/SUB");
    }
}

TEST_P(FindPathname, SkipsADirectoryWhoseChainRunsIntoAFreeEntry) {
    directory *sub = f.add_dir(top, "SUB        ", {20, 21});
    f.add_file(sub, "INNER   TXT", {30});
    f.add_file(top, "FILE    TXT", {12});
    f.v.set_link(21, 0);
    EXPECT_EQ(f.find(12).path, "/FILE.TXT");
    EXPECT_EQ(f.find(99), nothing());
}

TEST_P(FindPathname, PassesADirectoryWithoutCluster) {
    top->append(short_entry("SUB        ", DIRECTORY, 0));
    f.add_file(top, "FILE    TXT", {12});
    EXPECT_EQ(f.find(12).path, "/FILE.TXT");
    EXPECT_EQ(f.find(99), nothing());
}

TEST_P(FindPathname, ReportsADirectoryThatCannotBeRead) {
    f.v.disk.unreadable = {top->offset_of(0) / 512};
    EXPECT_EQ(f.find(12), (found_path{-EIO, ""}));
    const std::string sector = std::to_string(top->offset_of(0) / 512);
    EXPECT_EQ(f.messages.text(), "get_dentry_with_clu[N]: cannot read sectors:(sector: " + sector +
                                     ")\nfind_entry_with_clu[N]: Check here!\n\n");
    f.v.disk.unreadable.clear();
    const directory *sub = f.add_dir(top, "SUB        ", {20, 21});
    const u64 inner = sub->sectors.front();
    f.v.disk.unreadable = {inner};
    EXPECT_EQ(f.find(12), (found_path{-EIO, ""}));
    EXPECT_EQ(f.messages.text(), NAMED + "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                                     std::to_string(inner) +
                                     ")\nfind_entry_with_clu[N]: Check here!\n\n");
}

TEST_P(FindPathname, RefusesNumbersThatAreNoClusters) {
    for (const u32 cluster : {0U, 1U, volume::last_cluster() + 1, 0xFFFFFFFFU}) {
        EXPECT_EQ(f.find(cluster), (found_path{-EINVAL, ""})) << cluster;
        EXPECT_EQ(f.messages.text(), "fat_find_pathname[N]: Invalid arg!\n\n");
    }
    f.add_file(top, "FILE    TXT", {volume::last_cluster()});
    EXPECT_EQ(f.find(volume::last_cluster()).path, "/FILE.TXT");
}

TEST_P(FindPathname, NeedsABufferOf4096Bytes) {
    f.add_file(top, "FILE    TXT", {10});
    for (const u32 size : {4095U, 1U}) {
        std::vector<char> buffer(size, '#');
        EXPECT_EQ(f.ask([&] { return fat_find_pathname(10, buffer.data(), size); }),
                  (answer{-EINVAL, "fat_find_pathname[N]: Invalid arg!\n\n"}));
        EXPECT_EQ(buffer, std::vector<char>(size, '#'));
    }
}

TEST_P(FindPathname, ZeroesTheWholeBuffer) {
    const u32 index = f.add_file(top, "FILE    TXT", {10});
    std::vector<char> buffer(5000, '#');
    EXPECT_EQ(f.ask([&] { return fat_find_pathname(10, buffer.data(), 5000); }),
              (answer{static_cast<int>(index), NAMED}));
    std::vector<char> expected(5000, '\0');
    const std::string path = "/FILE.TXT";
    std::copy(path.begin(), path.end(), expected.begin());
    EXPECT_EQ(buffer, expected);
}

// ---- long paths

// Directories with names of 255 characters below one another, down to 3840 characters.
class LongPaths : public testing::TestWithParam<u32> {
protected:
    LongPaths() : f({.fat_type = GetParam(), .sec_per_clus = 4}) {
        for (u32 level = 0; level < 15; level++) {
            in = f.add_dir(in, "LONG~1     ", {100 + level}, std::u16string(255, u'd'));
            path += "/" + std::string(255, 'd');
        }
    }
    forest f;
    directory *in = &f.v.top;
    std::string path;
};
INSTANTIATE_TEST_SUITE_P(Widths, LongPaths, testing::Values(16, 32),
                         testing::PrintToStringParamName());

TEST_P(LongPaths, HoldUpTo4095Characters) {
    const u32 index = f.add_file(in, "FILE~1     ", {50}, std::u16string(254, u'f'));
    EXPECT_EQ(f.find(50),
              (found_path{static_cast<int>(index), path + "/" + std::string(254, 'f')}));
    EXPECT_EQ(f.find(114).path, path);
}

TEST_P(LongPaths, TouchNothingPastTheBuffer) {
    const u32 index = f.add_file(in, "FILE~1     ", {50}, std::u16string(254, u'f'));
    std::vector<char> buffer(4096 + 8, '#');
    EXPECT_EQ(f.ask([&] { return fat_find_pathname(50, buffer.data(), 4096); }).result,
              static_cast<int>(index));
    const std::string whole = path + "/" + std::string(254, 'f') + '\0' + "########";
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), whole);
}

TEST_P(LongPaths, EndWith4096Characters) {
    const u32 index = f.add_file(in, "FILE~1     ", {50}, std::u16string(255, u'f'));
    EXPECT_EQ(f.find(50), (found_path{-ENAMETOOLONG, ""}));
    // A file that is not searched for may have any name.
    f.add_file(in, "FILE       ", {51});
    EXPECT_EQ(f.find(51), (found_path{static_cast<int>(index) + 1, path + "/FILE"}));
}

TEST_P(LongPaths, HoldADirectoryOf4095Characters) {
    f.add_dir(in, "DIR~1      ", {50}, std::u16string(254, u'f'));
    EXPECT_EQ(f.find(50).path, path + "/" + std::string(254, 'f'));
    EXPECT_EQ(f.find(99), (found_path{-ENOENT, ""}));
}

TEST_P(LongPaths, EndAtADirectoryOf4096CharactersOnTheWay) {
    f.add_dir(in, "DIR~1      ", {50}, std::u16string(255, u'f'));
    f.add_file(in, "FILE       ", {51});
    EXPECT_EQ(f.find(50), (found_path{-ENAMETOOLONG, ""}));
    EXPECT_EQ(f.find(51), (found_path{-ENAMETOOLONG, ""}));
}

// ---- ids

TEST_P(FindPathname, UsesAnIdForEachLevel) {
    directory *sub = f.add_dir(top, "SUB        ", {20});
    directory *deep = f.add_dir(sub, "DEEP       ", {21});
    f.add_file(deep, "FILE    TXT", {30});
    f.add_file(sub, "MIDDLE  TXT", {31});
    f.add_file(top, "FILE    TXT", {32});
    const u32 other = top->append(short_entry("OTHER      "));
    for (int id = 1; id < 512; id++) {
        ASSERT_EQ(f.v.open(other), id);
    }
    EXPECT_EQ(f.find(20).path, "/SUB"); // found before it would be opened
    for (const u32 cluster : {21U, 30U, 31U, 32U}) {
        EXPECT_EQ(f.find(cluster), (found_path{-EMFILE, ""})) << cluster;
        EXPECT_EQ(f.messages.text(), NAMED + "register_oentry[N]: Too many open files\n");
    }
    fat_close(300);
    EXPECT_EQ(f.find(21).path, "/SUB/DEEP");
    EXPECT_EQ(f.find(30), (found_path{-EMFILE, ""}));
    fat_close(299);
    EXPECT_EQ(f.find(30).path, "/SUB/DEEP/FILE.TXT");
    EXPECT_EQ(f.find(32).path, "/FILE.TXT");
}

TEST_P(FindPathname, SurvivesEveryFailingReadAndAllocation) {
    directory *sub = f.add_dir(top, "SUB~1      ", {20}, u"A directory");
    f.add_file(sub, "FILE~1  TXT", {30, 31}, u"A file here.txt");
    at_every_fault({EVERY_READ, EVERY_ALLOCATION}, [&](fault_step &step) {
        std::vector<char> buffer(4096, '#');
        const found_path got = step.run([&] {
            return f.undisturbed([&] { return fat_find_pathname(31, buffer.data(), 4096); },
                                 buffer);
        });
        if (!step.struck()) {
            EXPECT_GE(got.result, 0);
            EXPECT_EQ(got.path, "/A directory/A file here.txt");
        } else if (got.result >= 0) {
            // A long name that could not be read leaves the short one; a directory whose chain
            // could not be read is not searched.
            EXPECT_TRUE(got.path == "/A directory/A file here.txt" ||
                        got.path == "/SUB~1/A file here.txt" ||
                        got.path == "/A directory/FILE~1.TXT")
                << got;
        }
    });
}

// ---- hostile trees

TEST_P(FindPathname, EndsInADirectoryThatContainsItself) {
    directory *sub = f.add_dir(top, "SUB        ", {20});
    sub->append(short_entry("SELF       ", DIRECTORY, 20));
    EXPECT_EQ(f.find(99), (found_path{-EMFILE, ""}));
    EXPECT_LT(f.v.traffic(), 20000U);
    EXPECT_EQ(f.find(20).path, "/SUB");
}

TEST_P(FindPathname, EndsWhereTheirPathGrowsTooLongFirst) {
    directory *sub = f.add_dir(top, "SUB        ", {20});
    sub->append(short_entry("SELFSELFDIR", DIRECTORY, 20));
    EXPECT_EQ(f.find(99), (found_path{-ENAMETOOLONG, ""}));
}

TEST_P(FindPathname, EndsInDirectoriesThatContainEachOther) {
    directory *a = f.add_dir(top, "A          ", {20});
    directory *b = f.add_dir(a, "B          ", {21});
    b->append(short_entry("A          ", DIRECTORY, 20));
    EXPECT_EQ(f.find(99), (found_path{-EMFILE, ""}));
    EXPECT_EQ(f.find(21).path, "/A/B");
}

// 2^40 ways to the bottom.
TEST_P(FindPathname, EndsQuicklyInATreeOfMoreDirectoriesThanClusters) {
    for (u32 level = 0; level < 40; level++) {
        const u32 here = 100 + level;
        f.v.chain({here});
        directory at(&f.v, {here}, false);
        at.go_to(2);
        at.append(short_entry("A          ", DIRECTORY, here + 1));
        at.append(short_entry("B          ", DIRECTORY, here + 1));
    }
    f.v.chain({140});
    top->append(short_entry("TOP        ", DIRECTORY, 100));
    f.add_file(top, "FILE    TXT", {30});
    EXPECT_EQ(f.find(30), (found_path{-EINVAL, ""}));
    EXPECT_LT(f.v.traffic(), u64{sv->num_clusters} * 30);
    EXPECT_EQ(f.find(100).path, "/TOP");
    EXPECT_EQ(f.find(101).path, "/TOP/A");
    EXPECT_EQ(f.find(105).path, "/TOP/A/A/A/A/A");
}

// Up to twelve levels of two are fewer than there are clusters.
TEST_P(FindPathname, SearchesATreeOfFewerDirectoriesThanClusters) {
    for (u32 level = 0; level < 10; level++) {
        const u32 here = 100 + level;
        f.v.chain({here});
        directory at(&f.v, {here}, false);
        at.go_to(2);
        at.append(short_entry("A          ", DIRECTORY, here + 1));
        at.append(short_entry("B          ", DIRECTORY, here + 1));
    }
    f.v.chain({110});
    top->append(short_entry("TOP        ", DIRECTORY, 100));
    f.add_file(top, "FILE    TXT", {30});
    EXPECT_EQ(f.find(30).path, "/FILE.TXT");
}

// It opens as a copy of the root's record, of which the first two entries are left out.
TEST_P(FindPathname, EndsAtAnEntryThatLeadsBackToTheRoot) {
    directory *sub = f.add_dir(top, "SUB        ", {20});
    ASSERT_EQ(f.last_index, 1U);
    sub->append(short_entry("..         ", DIRECTORY, 0));
    f.add_file(top, "FILE    TXT", {30});
    EXPECT_EQ(f.find(20).path, "/SUB");
    EXPECT_EQ(f.find(99), nothing());
    EXPECT_EQ(f.find(30).path, "/SUB/../FILE.TXT");
    // Another directory with the same cluster, which can be reached from there.
    directory *again = f.add_dir(top, "AGAIN      ", {21});
    again->append(short_entry("..         ", DIRECTORY, 0));
    EXPECT_EQ(f.find(99), (found_path{-EMFILE, ""}));
    EXPECT_EQ(fat_open("/FILE.TXT"), 1); // the root is not changed
}

TEST_P(FindPathname, EndsAtAnEntryThatLeadsBackToItsParent) {
    directory *sub = f.add_dir(top, "SUB        ", {20});
    directory *deep = f.add_dir(sub, "DEEP       ", {21});
    deep->append(short_entry("..         ", DIRECTORY, 20));
    EXPECT_EQ(f.find(99), (found_path{-EMFILE, ""}));
}

// ---- the root

TEST(FindPathnameInFat16Root, CountsEntries512) {
    forest f({.root_entries = 1024});
    f.v.top.fill_up(deleted(short_entry("GONE    TXT")));
    f.v.chain({10});
    f.v.chain({11});
    f.v.top.put(511, short_entry("IN      TXT", ARCHIVE, 10));
    f.v.top.put(512, short_entry("OUT     TXT", ARCHIVE, 11));
    EXPECT_EQ(f.find(10), (found_path{511, "/IN.TXT"}));
    EXPECT_EQ(f.find(11), (found_path{-ENOENT, ""}));
    EXPECT_EQ(f.messages.text(), "");
}

TEST(FindPathnameInFat16Root, EndsAfterASmallArea) {
    forest f({.root_entries = 32});
    f.v.top.fill_up(deleted(short_entry("GONE    TXT")));
    EXPECT_EQ(f.find(10), (found_path{-ENOENT, ""}));
    EXPECT_EQ(f.messages.text(), "get_phy_sector[N]: Invalid sector number in Root dir\n\n"
                                 "get_dentry_with_clu[N]: Failed to get entry sector!:(0, 32)\n\n"
                                 "find_entry_with_clu[N]: Failed to get entry!\n\n");
}

TEST(FindPathnameOnFat32, HasNoPathForTheRootsOwnClusters) {
    forest f({.fat_type = 32});
    directory root = f.v.longer_root({30, 31});
    ASSERT_EQ(open_root_directory(), 0);
    root.fill_up(deleted(short_entry("GONE    TXT")));
    f.v.chain({40});
    root.put(47, short_entry("LAST    TXT", ARCHIVE, 40));
    EXPECT_EQ(f.find(40), (found_path{47, "/LAST.TXT"}));
    EXPECT_EQ(f.find(2), (found_path{-ENOENT, ""}));
    EXPECT_EQ(f.find(31), (found_path{-ENOENT, ""}));
}

// ---- find_entry_with_clu

TEST_P(FindPathname, ComesWithTheBaseClusterOfItsDirectory) {
    directory *sub = f.add_dir(top, "SUB        ", {20, 21});
    directory *deep = f.add_dir(sub, "DEEP       ", {22});
    f.add_file(deep, "FILE    TXT", {30});
    f.add_file(top, "TOP     TXT", {31});
    const u32 root_base = GetParam() == 32 ? sv->root_clus : 0;
    const auto parent_of_cluster = [&](u32 cluster) {
        u32 parent = 4711;
        std::vector<char> path(4096, '\0');
        EXPECT_GE(find_entry_with_clu(sv->root_dir, cluster, &parent, path.data()), 0);
        return parent;
    };
    EXPECT_EQ(parent_of_cluster(31), root_base);
    EXPECT_EQ(parent_of_cluster(21), root_base);
    EXPECT_EQ(parent_of_cluster(22), 20U);
    EXPECT_EQ(parent_of_cluster(30), 22U);
}

TEST_P(FindPathname, IsAppendedToThePath) {
    directory *sub = f.add_dir(top, "SUB        ", {20});
    f.add_file(sub, "FILE    TXT", {30});
    const int id = f.v.open(1);
    std::vector<char> path(4096, '\0');
    std::copy_n("/before", 7, path.begin());
    EXPECT_EQ(find_entry_with_clu(&mounted::record(id), 30, nullptr, path.data()), 2);
    EXPECT_STREQ(path.data(), "/before/FILE.TXT");
    EXPECT_EQ(find_entry_with_clu(&mounted::record(id), 99, nullptr, path.data()), -ENOENT);
    EXPECT_STREQ(path.data(), "/before/FILE.TXT");
}

// ---- fat_getcwd -------------------------------------------------------------------------------

class Getcwd : public FindPathname {
protected:
    // Makes entry `index` of the current directory the current one.
    void enter(u32 index) {
        const int id = fat_entry_open(sv->current_dir, index);
        ASSERT_GT(id, 0);
        ASSERT_EQ(fat_set_current(id), id);
        ASSERT_EQ(fat_close(id), 0);
    }
};
INSTANTIATE_TEST_SUITE_P(Widths, Getcwd, testing::Values(16, 32),
                         testing::PrintToStringParamName());

TEST_P(Getcwd, IsASlashInTheRoot) {
    EXPECT_EQ(f.where_am_i(), (found_path{0, "/"}));
    EXPECT_EQ(f.messages.text(), "");
    EXPECT_EQ(f.v.traffic(), 0U);
    EXPECT_EQ(f.where_am_i(2), (found_path{0, "/"}));
    std::vector<char> buffer(40, '#');
    EXPECT_EQ(fat_getcwd(buffer.data(), 39), 0);
    std::vector<char> expected(39, '\0');
    expected[0] = '/';
    expected.push_back('#');
    EXPECT_EQ(buffer, expected);
}

TEST_P(Getcwd, NeedsTwoBytesInTheRoot) {
    char buffer[1] = {'#'};
    EXPECT_EQ(f.ask([&] { return fat_getcwd(buffer, 1); }),
              (answer{-EINVAL, "fat_getcwd[N]: Invalid arg!\n\n"}));
    EXPECT_EQ(f.ask([&] { return fat_getcwd(nullptr, 4096); }),
              (answer{-EINVAL, "fat_getcwd[N]: Invalid arg!\n\n"}));
    EXPECT_EQ(buffer[0], '#');
}

TEST_P(Getcwd, FailsWithoutACurrentDirectory) {
    oentry *current = std::exchange(sv->current_dir, nullptr);
    char buffer[4096];
    EXPECT_EQ(f.ask([&] { return fat_getcwd(buffer, sizeof buffer); }),
              (answer{-EINVAL, "fat_getcwd[N]: Check here!\n\n"}));
    sv->current_dir = current;
}

TEST_P(Getcwd, IsThePathOfTheDirectory) {
    directory *sub = f.add_dir(top, "SUB        ", {20, 21});
    enter(f.last_index);
    EXPECT_EQ(f.where_am_i(), (found_path{0, "/SUB"}));
    EXPECT_EQ(f.messages.text(), NAMED);
    f.add_dir(sub, "DEEP~1     ", {22}, u"Deep inside it");
    enter(f.last_index);
    EXPECT_EQ(f.where_am_i(), (found_path{0, "/SUB/Deep inside it"}));
    ASSERT_EQ(fat_set_current(0), 0);
    EXPECT_EQ(f.where_am_i(), (found_path{0, "/"}));
}

TEST_P(Getcwd, NeedsABufferOf4096BytesElsewhere) {
    f.add_dir(top, "SUB        ", {20});
    enter(f.last_index);
    std::vector<char> buffer(4095, '#');
    EXPECT_EQ(f.ask([&] { return fat_getcwd(buffer.data(), 4095); }),
              (answer{-EINVAL, "fat_find_pathname[N]: Invalid arg!\n\n"
                               "fat_getcwd[N]: Failed to get cwd!\n\n"}));
    EXPECT_EQ(f.ask([&] { return fat_getcwd(nullptr, 4096); }),
              (answer{-EINVAL, "fat_find_pathname[N]: Invalid arg!\n\n"
                               "fat_getcwd[N]: Failed to get cwd!\n\n"}));
}

TEST_P(Getcwd, ReportsARemovedDirectory) {
    f.add_dir(top, "SUB        ", {20});
    const u32 index = f.last_index;
    enter(index);
    top->put(index, deleted(short_entry("SUB        ", DIRECTORY, 20)));
    EXPECT_EQ(f.where_am_i(), (found_path{-ENOENT, ""}));
    EXPECT_EQ(f.messages.text(), "fat_getcwd[N]: Failed to get cwd!\n\n");
}

TEST_P(Getcwd, PassesErrorsOn) {
    f.add_dir(top, "SUB        ", {20});
    enter(f.last_index);
    f.v.disk.unreadable = {top->offset_of(0) / 512};
    EXPECT_EQ(f.where_am_i().result, -EIO);
    const std::string sector = std::to_string(top->offset_of(0) / 512);
    EXPECT_EQ(f.messages.text(), "get_dentry_with_clu[N]: cannot read sectors:(sector: " + sector +
                                     ")\nfind_entry_with_clu[N]: Check here!\n\n"
                                     "fat_getcwd[N]: Failed to get cwd!\n\n");
}

} // namespace
