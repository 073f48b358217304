// Fast-open paths: the letters, the paths of open files, the fast walk over a directory.

#include "tests/support/capture.h"
#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/mounted.h"
#include "tests/support/open_entries.h"
#include "tests/support/reference.h"
#include "tests/support/valgrind.h"

#include <cerrno>
#include <memory>
#include <optional>
#include <random>

using namespace fat;
using namespace testing_support;
using namespace std::string_literals;
using model::fast_letters;
using model::fast_step;

namespace {

// ---- encode_fast_word -------------------------------------------------------------------------

std::string encoded(u32 value) {
    std::vector<char> out(8, '#');
    out.shrink_to_fit();
    encode_fast_word(out.data(), value);
    return {out.begin(), out.end()};
}

TEST(EncodeFastWord, WritesTheHighestFourBitsFirst) {
    EXPECT_EQ(encoded(0), "@@@@@@@@");
    EXPECT_EQ(encoded(1), "@@@@@@@A");
    EXPECT_EQ(encoded(0x80000000), "H@@@@@@@");
    EXPECT_EQ(encoded(0x01234567), "@ABCDEFG");
    EXPECT_EQ(encoded(0x89ABCDEF), "HIJKLMNO");
    EXPECT_EQ(encoded(0xFFFFFFFF), "OOOOOOOO");
    EXPECT_EQ(encoded(16002), "@@@@CNHB");
    EXPECT_EQ(encoded(0x00050010), "@@@E@@A@");
    EXPECT_EQ(encoded(0xDEADBEEF), "MNJMKNNO");
}

TEST(EncodeFastWord, WritesEightBytesAndNoTerminator) {
    char out[] = "##########";
    encode_fast_word(out + 1, 0x12345678);
    EXPECT_STREQ(out, "#ABCDEFGH#");
}

TEST(EncodeFastWord, HasALetterForEveryValueAtEveryPosition) {
    for (u32 place = 0; place < 8; place++) {
        for (u32 digit = 0; digit < 16; digit++) {
            std::string expected = "@@@@@@@@";
            expected[7 - place] = "@ABCDEFGHIJKLMNO"[digit];
            EXPECT_EQ(encoded(digit << (4 * place)), expected);
        }
    }
}

// ---- a case -----------------------------------------------------------------------------------

constexpr char MARK = '#';

class fast_case {
public:
    explicit fast_case(const volume_shape &shape = {}) : v(shape) {
        v.top.go_to(1);
    }

    template <typename Call>
    answer ask(Call call) {
        messages.clear();
        v.disk.log.clear();
        const int result = call();
        return {result, messages.text()};
    }

    mounted v;
    diagnostics messages;
};

// The buffers after a call that makes a path, each in a block of just its size.
struct path_made {
    int result;
    std::string messages;
    std::string path; // all 20 bytes
    std::string name;
    bool operator==(const path_made &) const = default;
};
std::ostream &operator<<(std::ostream &out, const path_made &made) {
    return out << "{" << made.result << ", printed \"" << made.messages << "\", path \""
               << made.path << "\"}";
}
path_made make_path(fast_case *c, int (*call)(int, char *, char *), int id) {
    std::vector<char> path(20, MARK);
    std::vector<char> name(256, MARK);
    const answer a = c->ask([&] { return call(id, name.data(), path.data()); });
    return {a.result, a.messages, {path.begin(), path.end()}, {name.begin(), name.end()}};
}
const std::string UNTOUCHED_NAME(256, MARK);
const std::string ZEROED_NAME(256, '\0');
const std::string NO_PATH(20, '\0');

std::string path_of(u32 entry, u32 check) {
    return "<?>" + fast_letters(entry) + fast_letters(check) + "\0"s;
}

// ---- the path of an open file -----------------------------------------------------------------

class FastPathOfFile : public testing::Test {
protected:
    path_made path_of_id(int id) {
        return make_path(&c, zuq_get_fast_open_path_of_file, id);
    }
    // An open entry with the given position and fields.
    int forge(u32 sector, u32 offset, u32 start, u32 size) {
        const int id = c.v.open_new("FORGED  TXT", {}, size);
        const entry_image entry = short_entry("FORGED  TXT", ARCHIVE, start, size);
        oentry &record = mounted::record(id);
        record.dentry_sector = sector;
        record.dentry_offset = offset;
        std::copy(entry.begin(), entry.end(), record.dentry);
        return id;
    }
    static path_made made(const std::string &path) {
        return {0, "", path + "\0"s, UNTOUCHED_NAME};
    }

    fast_case c;
};

TEST_F(FastPathOfFile, IsThePositionOfTheEntryAndACheckValue) {
    EXPECT_EQ(path_of_id(forge(1000, 64, 5, 0x10)), made("<?>@@@@CNHB@@@E@@A@"));
    EXPECT_EQ(path_of_id(forge(1000, 64, 0, 0)), made("<?>@@@@CNHB@@@@@@@@"));
    // Entry 16 x 1 + 15 = 31; halves of 0x00012345 swapped: 0x23450001, with size 0x89ABCDEF.
    EXPECT_EQ(path_of_id(forge(1, 480, 0x12345, 0x89ABCDEF)), made("<?>@@@@@@AOJJNNLMNN"));
    // Every bit of the check value: 0xFFFF0FFF swapped is 0x0FFFFFFF, with 0xF0F0F0F0 0xFF0F0F0F.
    EXPECT_EQ(path_of_id(forge(0, 0, 0xFFFF0FFF, 0xF0F0F0F0)), made("<?>@@@@@@@@OO@O@O@O"));
}

TEST_F(FastPathOfFile, CountsThePositionIn32Bits) {
    // Byte 0x1_0000_0200 of the volume is byte 0x200 in 32 bits: entry 16.
    EXPECT_EQ(path_of_id(forge(0x800001, 0, 0, 0)), made("<?>@@@@@@A@@@@@@@@@"));
    EXPECT_EQ(path_of_id(forge(0x7FFFFF, 480, 0, 0)), made("<?>@GOOOOOO@@@@@@@@"));
}

TEST_F(FastPathOfFile, IsTheSameAsThatOfTheWalk) {
    c.v.chain({10, 11});
    c.v.top.append(short_entry("A       TXT", ARCHIVE, 10, 700));
    const int id = fat_open("/A.TXT");
    ASSERT_GT(id, 0);
    const path_made by_id = path_of_id(id);
    EXPECT_EQ(by_id.path, path_of(sv->rdir_start * 16 + 1, 10 << 16 ^ 700));
    EXPECT_EQ(make_path(&c, zuq_get_fast_open_path_of_dir, 0).path, by_id.path);
}

TEST_F(FastPathOfFile, ServesDirectoriesAndLongNames) {
    const directory sub = c.v.sub_directory({20});
    const int id = c.v.open_new("SUB        ", {20}, 0, DIRECTORY);
    EXPECT_EQ(path_of_id(id).path, path_of(sv->rdir_start * 16 + 1, 20 << 16));
    // Of an open file it is the short entry that makes the check value.
    const u32 index = c.v.top.append_long(u"A long name.txt", "ALONGN~1TXT");
    c.v.top.put(index, short_entry("ALONGN~1TXT", ARCHIVE, 0, 99));
    EXPECT_EQ(path_of_id(c.v.open(index)).path, path_of(sv->rdir_start * 16 + index, 99));
}

TEST_F(FastPathOfFile, TakesTheCopyAsItIsNow) {
    const int id = forge(1000, 64, 5, 0x10);
    ASSERT_EQ(fat_set_cluster(id, 0x00070006), 0);
    EXPECT_EQ(path_of_id(id).path, path_of(16002, 0x00060007 ^ 0x10));
}

// ---- get_next_cluster -------------------------------------------------------------------------

class GetNextCluster : public testing::TestWithParam<u32> {
protected:
    GetNextCluster() : c({.fat_type = GetParam()}) {}

    // The result, and the cluster that it returns.
    std::pair<answer, u32> next(u32 cluster, u32 n) {
        u32 out = 4711;
        const answer a = c.ask([&] { return get_next_cluster(cluster, n, &out); });
        return {a, out};
    }
    static std::pair<answer, u32> gives(u32 cluster) {
        return {answer{1, ""}, cluster};
    }

    fast_case c;
};
INSTANTIATE_TEST_SUITE_P(Widths, GetNextCluster, testing::Values(16, 32),
                         testing::PrintToStringParamName());

const std::string NO_NEXT = "get_next_cluster[N]: Check here!\n\n";

TEST_P(GetNextCluster, FollowsSoManyLinks) {
    c.v.chain({10, 30, 20, 40});
    EXPECT_EQ(next(10, 1), gives(30));
    EXPECT_EQ(next(10, 2), gives(20));
    EXPECT_EQ(next(10, 3), gives(40));
    EXPECT_EQ(next(30, 2), gives(40));
}

TEST_P(GetNextCluster, IsTheClusterItselfForNoLinks) {
    for (const u32 cluster : {2U, 10U, volume::last_cluster()}) {
        EXPECT_EQ(next(cluster, 0), gives(cluster));
    }
    EXPECT_EQ(c.v.traffic(), 0U);
}

TEST_P(GetNextCluster, EndsWithTheChain) {
    for (u32 mark = volume::first_end_mark(); mark <= volume::end_mark(); mark++) {
        c.v.set_link(10, 30);
        c.v.set_link(30, mark);
        EXPECT_EQ(next(30, 1).first, (answer{0, ""})) << mark;
        EXPECT_EQ(next(10, 2).first, (answer{0, ""})) << mark;
        EXPECT_EQ(next(10, 9).first, (answer{0, ""})) << mark;
    }
}

TEST_P(GetNextCluster, RefusesNumbersPastTheVolume) {
    for (const u32 cluster : {volume::last_cluster() + 1, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(next(cluster, 0).first, (answer{-EINVAL, NO_NEXT})) << cluster;
        EXPECT_EQ(next(cluster, 1).first, (answer{-EINVAL, NO_NEXT})) << cluster;
    }
    EXPECT_EQ(c.v.traffic(), 0U);
}

TEST_P(GetNextCluster, ReportsBrokenChains) {
    c.v.set_link(10, 30);
    EXPECT_EQ(next(10, 2).first, (answer{-1, NO_NEXT})); // 30 is free
    for (const u32 link : {1U, volume::bad_mark(), volume::last_cluster() + 1}) {
        c.v.set_link(30, link);
        EXPECT_EQ(next(10, 2).first,
                  (answer{-1, "fat_read_clus[N]: Invalid cluster!\n\n" + NO_NEXT}))
            << link;
        EXPECT_EQ(next(30, 1).first,
                  (answer{-1, "fat_read_clus[N]: Invalid cluster!\n\n" + NO_NEXT}));
    }
    for (const u32 cluster : {0U, 1U}) {
        EXPECT_EQ(next(cluster, 1).first,
                  (answer{-1, "fat_read_clus[N]: Invalid arg!\n\n" + NO_NEXT}));
    }
}

TEST_P(GetNextCluster, ReportsReadErrors) {
    c.v.chain({10, 30});
    c.v.disk.unreadable = {volume::fat_sector_of(10)};
    EXPECT_EQ(next(10, 1).first, (answer{-1, "fat_read_entry[N]: cannot read FAT\n\n" + NO_NEXT}));
}

// ---- get_long_name_fast -----------------------------------------------------------------------

// Its output: the name up to its terminator, and the position of the pointer afterwards.
struct gathered_name {
    answer a;
    std::u16string units;
    std::optional<std::size_t> entry; // by its offset in the sector buffer
    bool operator==(const gathered_name &) const = default;
};
std::ostream &operator<<(std::ostream &out, const gathered_name &g) {
    out << "{" << g.a << ", " << g.units.size() << " units";
    return g.entry.has_value() ? out << ", at " << *g.entry << "}" : out << ", not moved}";
}

constexpr char16_t STALE = 0x7777;

class GetLongNameFast : public testing::Test {
protected:
    GetLongNameFast() : dir(c.v.sub_directory({20, 22})) {}

    // From the slots that begin at `index` of the cluster. Every unit is set to `before` first.
    gathered_name gather(u32 index, u32 cluster = 20, u16 before = 0) {
        const u32 place = cluster == 22 ? index + 16 : index;
        entry_image first = dir.at(place);
        u8 *current = first.data();
        std::vector<u8> buffer(sv->sector_size);
        std::vector<u16> units(LONG_NAME_UNITS, before);
        units.shrink_to_fit();
        gathered_name result;
        result.a = c.ask([&] {
            return get_long_name_fast(cluster, index, &current, buffer.data(), units.data());
        });
        for (const u16 unit : units) {
            if (unit == 0) {
                break;
            }
            result.units += static_cast<char16_t>(unit);
        }
        if (current != first.data()) {
            result.entry = static_cast<std::size_t>(current - buffer.data());
            EXPECT_LT(*result.entry, buffer.size());
        }
        return result;
    }
    static std::string by(const std::string &message) {
        return "get_long_name_fast[N]: " + message;
    }

    fast_case c;
    directory dir;
};

const char *const DOS = "ALONGN~1TXT";

TEST_F(GetLongNameFast, GathersOneSlot) {
    dir.append_long(u"A long.txt", DOS);
    EXPECT_EQ(gather(0), (gathered_name{{1, ""}, u"A long.txt", 32}));
}

TEST_F(GetLongNameFast, EndsAFullSlot) {
    dir.append_long(u"thirteen long", DOS);
    EXPECT_EQ(gather(0), (gathered_name{{1, ""}, u"thirteen long", 32}));
    dir.go_to(4);
    dir.append_long(u"twenty-six units are two s", DOS);
    EXPECT_EQ(gather(4), (gathered_name{{2, ""}, u"twenty-six units are two s", 192}));
}

TEST_F(GetLongNameFast, GathersTwentySlotsOverClusters) {
    std::u16string name;
    while (name.size() < 255) {
        name += static_cast<char16_t>(u'A' + name.size() % 26);
    }
    dir.append(long_slots(name, DOS));
    dir.append(short_entry(DOS));
    EXPECT_EQ(gather(0), (gathered_name{{20, ""}, name, 128}));
    EXPECT_EQ(c.v.disk.log.back(), (transfer{false, volume::first_sector_of(22), 1}));
}

TEST_F(GetLongNameFast, TakesADirectoryAsWell) {
    dir.append(long_slots(u"A long name", DOS));
    dir.append(short_entry(DOS, DIRECTORY, 30));
    EXPECT_EQ(gather(0), (gathered_name{{1, ""}, u"A long name", 32}));
}

TEST_F(GetLongNameFast, CountsInTheFat16RootArea) {
    for (u32 i = 0; i < 40; i++) {
        c.v.top.put(i, short_entry("FILE    TXT"));
    }
    c.v.top.go_to(15);
    c.v.top.append_long(u"over sectors here", DOS);
    entry_image first = c.v.top.at(15);
    u8 *current = first.data();
    std::vector<u8> buffer(512);
    u16 units[256] = {};
    EXPECT_EQ(c.ask([&] { return get_long_name_fast(0, 15, &current, buffer.data(), units); }),
              (answer{2, ""}));
    EXPECT_EQ(current, buffer.data() + 32);
    EXPECT_EQ(std::u16string(units, units + 17), u"over sectors here");
}

TEST_F(GetLongNameFast, KnowsNoNameOfLessThanOneSlot) {
    for (const unsigned ordinal : {0x01U, 0x14U, 0x3FU, 0x40U}) {
        dir.put(0, long_slot(ordinal, u"orphan", checksum_of(DOS)));
        dir.put(1, short_entry(DOS));
        const gathered_name g = gather(0);
        EXPECT_EQ(g.a, (answer{0, ""})) << ordinal;
        EXPECT_EQ(g.entry, std::nullopt) << ordinal;
    }
}

TEST_F(GetLongNameFast, BreaksAtAnEntryThatIsNotASlot) {
    for (const entry_image &other :
         {short_entry(DOS), short_entry("SUB        ", DIRECTORY), entry_image{},
          deleted(long_slot(1, u"thirteen long", checksum_of(DOS))),
          short_entry("VOLUME     ", LABEL)}) {
        dir.put(2, long_slot(0x42, u"rest", checksum_of(DOS)));
        dir.put(3, other);
        EXPECT_EQ(gather(2, 20, STALE), (gathered_name{{0, by("not extend type(3)\n")}, u"", 96}));
    }
}

TEST_F(GetLongNameFast, BreaksAtAnInvalidEntry) {
    dir.put(0, long_slot(0x42, u"rest", checksum_of(DOS)));
    dir.put(1, short_entry(DOS, DIRECTORY | LABEL));
    EXPECT_EQ(gather(0), (gathered_name{{0, "entry_type[N]: Unknown entry type: 24\n\n" +
                                                by("not extend type(1)\n")},
                                        u"",
                                        32}));
}

TEST_F(GetLongNameFast, BreaksAtTheLastSlotOfAnotherName) {
    for (const unsigned ordinal : {0x41U, 0x42U, 0x7FU, 0xC1U, 0xFFU}) {
        dir.put(2, long_slot(0x42, u"rest", checksum_of(DOS)));
        dir.put(3, long_slot(ordinal, u"thirteen long", checksum_of(DOS)));
        dir.put(4, short_entry(DOS));
        const gathered_name g = gather(2);
        EXPECT_EQ(g.a, (answer{0, by("not LFN(3)\n")})) << ordinal;
        EXPECT_EQ(g.entry, 96U);
    }
}

TEST_F(GetLongNameFast, BreaksAtASlotOfAnotherChecksum) {
    dir.put(2, long_slot(0x42, u"rest", checksum_of(DOS)));
    dir.put(3, long_slot(1, u"thirteen long", checksum_of(DOS) + 1U));
    dir.put(4, short_entry(DOS));
    const gathered_name g = gather(2);
    EXPECT_EQ(g.a, (answer{0, by("not match checksum(3)\n")}));
    EXPECT_EQ(g.entry, 96U);
}

TEST_F(GetLongNameFast, BreaksAtTheChecksumOfTheShortEntry) {
    dir.append(long_slots(u"A long name.txt", DOS));
    dir.append(short_entry("ALONGN~2TXT"));
    EXPECT_EQ(gather(0), (gathered_name{{0, by("not match checksum(2)\n")}, u"", 64}));
}

TEST_F(GetLongNameFast, BreaksWhereNoShortEntryFollows) {
    for (const auto &[other, type] : std::initializer_list<std::pair<entry_image, const char *>>{
             {entry_image{}, "0"},
             {deleted(short_entry(DOS)), "1"},
             {long_slot(0x41, u"next", checksum_of(DOS)), "4"},
             {short_entry("VOLUME     ", LABEL), "8"}}) {
        dir.put(2, long_slot(0x41, u"A name", checksum_of(DOS)));
        dir.put(3, other);
        const gathered_name g = gather(2);
        EXPECT_EQ(g.a, (answer{0, by("idx[N]: not SFN(type:"s + type + ")\n")}));
        EXPECT_NE(c.messages.raw().find("]: idx[3]: not SFN"), std::string::npos);
        EXPECT_EQ(g.entry, 96U);
    }
    dir.put(3, short_entry(DOS, DIRECTORY | LABEL));
    EXPECT_EQ(gather(2).a, (answer{0, "entry_type[N]: Unknown entry type: 24\n\n" +
                                          by("idx[N]: not SFN(type:6)\n")}));
}

// Only their order in the directory determines the positions of the units.
TEST_F(GetLongNameFast, DoesNotCheckOrdinals) {
    dir.put(0, long_slot(0x43, u"end", checksum_of(DOS)));
    dir.put(1, long_slot(1, u"two two two t", checksum_of(DOS)));
    dir.put(2, long_slot(0x40, u"one one one o", checksum_of(DOS)));
    dir.put(3, short_entry(DOS));
    EXPECT_EQ(gather(0), (gathered_name{{3, ""}, u"one one one otwo two two tend", 96}));
}

TEST_F(GetLongNameFast, ReportsAChainThatEndsBeforeTheName) {
    dir.go_to(30);
    dir.append(long_slots(u"twenty-six units are two s", DOS));
    EXPECT_EQ(gather(14, 22).a,
              (answer{-EFAULT, "get_dentry_with_clu[N]: Failed to get entry sector!:(22, 16)\n\n" +
                                   by("fail to get dentry(22, 16): Bad address\n\n")}));
    EXPECT_EQ(gather(30).a,
              (answer{-EFAULT, "get_dentry_with_clu[N]: Failed to get entry sector!:(20, 32)\n\n" +
                                   by("fail to get dentry(20, 32): Bad address\n\n")}));
}

TEST_F(GetLongNameFast, ReportsAChainThatRunsIntoAFreeEntry) {
    dir.put(15, long_slot(0x41, u"A name", checksum_of(DOS)));
    c.v.set_link(20, 0);
    EXPECT_EQ(gather(15).a,
              (answer{-EINVAL, "get_phy_sector[N]: invalid value 0\n"
                               "get_dentry_with_clu[N]: Failed to get entry sector!:(20, 16)\n\n" +
                                   by("fail to get dentry(20, 16): Invalid argument\n\n")}));
}

TEST_F(GetLongNameFast, ReportsSectorsThatCannotBeRead) {
    dir.put(15, long_slot(0x41, u"A name", checksum_of(DOS)));
    dir.put(16, short_entry(DOS));
    c.v.disk.unreadable = {volume::first_sector_of(22)};
    EXPECT_EQ(gather(15).a,
              (answer{-EIO, "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                                std::to_string(volume::first_sector_of(22)) + ")\n" +
                                by("fail to get dentry(20, 16): Input/output error\n\n")}));
}

// More slots than a name can have: the units past 255 are omitted.
TEST(GetLongNameFastTest, StaysWithinItsBufferWithAnySlots) {
    for (const unsigned count : {21U, 100U, 191U}) {
        fast_case c({.sec_per_clus = 16});
        directory dir(&c.v, {20}, false);
        c.v.chain({20});
        for (unsigned i = 0; i < count; i++) {
            dir.append(long_slot(i == 0 ? 0x40 + count : 1, u"thirteen long", checksum_of(DOS)));
        }
        dir.append(short_entry(DOS));
        entry_image first = dir.at(0);
        u8 *current = first.data();
        std::vector<u8> buffer(512);
        std::vector<u16> units(256, STALE);
        units.shrink_to_fit();
        const int slots = get_long_name_fast(20, 0, &current, buffer.data(), units.data());
        // The first byte 0xE5, 165 slots, does not occur here: it marks a deleted entry.
        EXPECT_EQ(slots, static_cast<int>(count));
        EXPECT_EQ(current, buffer.data() + count * 32 % 512);
        const std::u16string part = u"thirteen long";
        for (std::size_t i = 0; i < 255; i++) {
            ASSERT_EQ(units[i], part[i % 13]) << i;
        }
    }
}

// ---- the walk ---------------------------------------------------------------------------------

// One call, with the results of the reference model.
fast_step fast_step_of(fast_case *c, directory *dir) {
    std::vector<u8> entry(32, 0xCC);
    entry.shrink_to_fit();
    std::vector<char> text(256, MARK);
    text.shrink_to_fit();
    fat_name name = {};
    name.cstring = text.data();
    dentry_location location = {4711, 4711};
    const answer a =
        c->ask([&] { return do_readdir_fast(&dir->record, entry.data(), &name, &location); });
    fast_step step;
    step.result = a.result;
    step.printed = a.messages;
    step.slot = dir->record.readdir_pos;
    step.cluster = dir->record.readdir_clus;
    if (a.result == 1) {
        std::copy(entry.begin(), entry.end(), step.entry.begin());
        step.name.assign(text.begin(), std::find(text.begin(), text.end(), '\0'));
        step.where = {location.sector, location.offset};
    }
    EXPECT_EQ(name.cstring, text.data());
    EXPECT_EQ(name.dosName, nullptr);
    EXPECT_EQ(name.unicode, nullptr);
    return step;
}

// Compares the walk with that of the reference model, call by call.
void expect_equal_walks(fast_case *c, directory *dir, int calls) {
    auto volume = reference_of<model::directories>(&c->v.disk);
    volume.long_names = sv->long_name == 1;
    model::fast_walk walk(&volume, dir->base());
    for (int i = 0; i < calls; i++) {
        const fast_step expected = walk.next();
        ASSERT_EQ(fast_step_of(c, dir), expected) << "call " << i;
    }
}

// The names that the walk returns up to its end, and its last result.
std::pair<std::vector<std::string>, int> all_names(fast_case *c, directory *dir) {
    std::vector<std::string> names;
    for (;;) {
        const fast_step step = fast_step_of(c, dir);
        if (step.result != 1 || names.size() > 1000) {
            return {names, step.result};
        }
        names.push_back(step.name);
    }
}
using names_and_end = std::pair<std::vector<std::string>, int>;

class ReaddirFast : public testing::TestWithParam<volume_shape> {
protected:
    ReaddirFast() : c(GetParam()) {}
    fast_case c;
};
INSTANTIATE_TEST_SUITE_P(
    Shapes, ReaddirFast,
    testing::Values(volume_shape{.fat_type = 16}, volume_shape{.fat_type = 16, .sec_per_clus = 4},
                    volume_shape{.fat_type = 32}, volume_shape{.fat_type = 32, .sec_per_clus = 2},
                    volume_shape{.fat_type = 16, .sector_size = 2048},
                    volume_shape{.fat_type = 32, .sector_size = 1024, .sec_per_clus = 2}),
    shape_name);

TEST_P(ReaddirFast, GivesFilesAndSkipsTheRest) {
    directory dir = c.v.sub_directory({20, 22, 21, 23});
    dir.append(short_entry(".          ", DIRECTORY, 20));
    dir.append(short_entry("..         ", DIRECTORY, 0));
    dir.append(short_entry("FIRST   TXT", ARCHIVE, 10, 5));
    dir.append(deleted(short_entry("GONE    TXT")));
    dir.append(short_entry("SUB        ", DIRECTORY, 30));
    dir.append(short_entry("A LABEL    ", LABEL));
    entry_image link = short_entry("LINK       ", 0, 11, 4);
    link[13] = 0xE2;
    dir.append(link);
    dir.append_long(u"A long name with more.text", "ALONGN~1TEX");
    dir.append(long_slots(u"A long directory", "ALONGD~1   "));
    dir.append(short_entry("ALONGD~1   ", DIRECTORY, 31));
    entry_image small = short_entry("SMALL   TXT", ARCHIVE, 10, 5);
    small[12] = 0x18;
    dir.append(small);
    EXPECT_EQ(
        all_names(&c, &dir),
        (names_and_end{{"FIRST.TXT", "LINK", "A long name with more.text", "small.txt"}, -ENOENT}));
    EXPECT_EQ(c.messages.text(), "");
    // The walk does not pass the end.
    EXPECT_EQ(fast_step_of(&c, &dir).result, -ENOENT);
    dir.append(short_entry("LATE    TXT"));
    EXPECT_EQ(fast_step_of(&c, &dir).name, "LATE.TXT");
}

TEST_P(ReaddirFast, ReportsTheTypeOfAnInvalidEntry) {
    directory dir = c.v.sub_directory({20});
    dir.append(short_entry("INVALID    ", DIRECTORY | LABEL | ARCHIVE));
    EXPECT_EQ(fast_step_of(&c, &dir).result, -ENOENT);
    EXPECT_EQ(c.messages.text(), "entry_type[N]: Unknown entry type: 56\n\n");
}

TEST_P(ReaddirFast, FindsNoneAmongDirectories) {
    directory dir = c.v.sub_directory({20});
    dir.append(short_entry("SUB1       ", DIRECTORY, 30));
    dir.append(short_entry("SUB2       ", DIRECTORY, 30));
    EXPECT_EQ(all_names(&c, &dir), (names_and_end{{}, -ENOENT}));
    directory full = c.v.sub_directory({30, 31});
    full.fill_up(short_entry("SUB        ", DIRECTORY, 30));
    EXPECT_EQ(all_names(&c, &full), (names_and_end{{}, 0}));
}

TEST_P(ReaddirFast, WalksTheRoot) {
    c.v.top.append(short_entry("A       TXT"));
    c.v.top.append_long(u"second file.txt", "SECOND~1TXT");
    EXPECT_EQ(all_names(&c, &c.v.top), (names_and_end{{"A.TXT", "second file.txt"}, -ENOENT}));
}

// Every position of a name in its cluster, every count of slots.
TEST_P(ReaddirFast, FollowsLongNamesOverSectorsAndClusters) {
    const u32 step = runs_in_valgrind() ? 5 : 1;
    const u32 end = volume::entries_per_cluster() + 2;
    for (u32 before = 0; before < std::min(end, 70U); before += step) {
        for (std::size_t slots = 1; slots <= 20; slots += step) {
            directory dir = c.v.sub_directory({20, 25, 21, 24});
            for (u32 i = 0; i < before; i++) {
                dir.append(deleted(short_entry("GONE    TXT")));
            }
            const std::u16string name(std::min<std::size_t>(slots * 13 - slots % 3, 255), u'n');
            const u32 index = dir.append_long(name, DOS);
            dir.append(short_entry("NEXT    TXT"));
            dir.append(entry_image{});

            const fast_step got = fast_step_of(&c, &dir);
            EXPECT_EQ(got.result, 1);
            EXPECT_EQ(got.printed, "");
            EXPECT_EQ(got.name, std::string(name.size(), 'n'));
            EXPECT_EQ(got.entry, dir.at(before)) << "the first slot";
            EXPECT_EQ(got.where.sector * sv->sector_size + got.where.offset, dir.offset_of(index))
                << before << " in front, " << slots << " slots";
            EXPECT_EQ(fast_step_of(&c, &dir).name, "NEXT.TXT");
            EXPECT_EQ(fast_step_of(&c, &dir).result, -ENOENT);
        }
    }
}

// From the first long name on, the output retains a copy of its first slot, even if the name
// belongs to a directory or is broken, and other entries follow.
TEST_P(ReaddirFast, RetainsACopyOfTheFirstSlotVisited) {
    directory dir = c.v.sub_directory({20, 22});
    dir.append(deleted(short_entry("GONE    TXT")));
    dir.append(long_slots(u"A long directory", "ALONGD~1   "));
    dir.append(short_entry("ALONGD~1   ", DIRECTORY, 31));
    dir.append(long_slots(u"broken", "ANOTHER TXT"));
    const u32 file = dir.append(short_entry("FILE    TXT", ARCHIVE, 7, 8));
    const fast_step got = fast_step_of(&c, &dir);
    EXPECT_EQ(got.result, 1);
    EXPECT_EQ(got.name, "FILE.TXT");
    EXPECT_EQ(got.entry, dir.at(1));
    EXPECT_EQ(got.where.sector * sv->sector_size + got.where.offset, dir.offset_of(file));
    // A later call begins again.
    dir.append(short_entry("FILE2   TXT", ARCHIVE, 7, 8));
    EXPECT_EQ(fast_step_of(&c, &dir).entry, short_entry("FILE2   TXT", ARCHIVE, 7, 8));
}

TEST_P(ReaddirFast, SkipsOrphanSlotsWithoutACopyOfThem) {
    directory dir = c.v.sub_directory({20, 22});
    dir.append(long_slot(0x02, u"orphan", 7));
    dir.append(long_slot(0x40, u"orphan", 7));
    dir.append(short_entry("FILE    TXT", ARCHIVE, 7, 8));
    const fast_step got = fast_step_of(&c, &dir);
    EXPECT_EQ(got.name, "FILE.TXT");
    EXPECT_EQ(got.entry, short_entry("FILE    TXT", ARCHIVE, 7, 8));
    EXPECT_EQ(got.printed, "");
}

TEST_P(ReaddirFast, SkipsEverySlotWhileLongNamesAreOff) {
    sv->long_name = 0;
    directory dir = c.v.sub_directory({20, 22, 23});
    const u32 index = dir.append_long(u"A long name with more.text", DOS);
    const fast_step got = fast_step_of(&c, &dir);
    EXPECT_EQ(got.result, 1);
    EXPECT_EQ(got.name, "ALONGN~1.TXT");
    EXPECT_EQ(got.entry, short_entry(DOS));
    EXPECT_EQ(got.where.sector * sv->sector_size + got.where.offset, dir.offset_of(index));
    directory full = c.v.sub_directory({30, 31});
    full.fill_up(long_slot(0x41, u"A name", 7));
    EXPECT_EQ(fast_step_of(&c, &full).result, 0);
}

// The file in the very last slot of a chain is lost: the walk has no position after it.
TEST_P(ReaddirFast, LosesTheLastFileOfAFullDirectory) {
    directory dir = c.v.sub_directory({20});
    dir.fill_up(short_entry("FILE    TXT"));
    const u32 count = dir.capacity();
    for (u32 i = 0; i + 1 < count; i++) {
        ASSERT_EQ(fast_step_of(&c, &dir).result, 1) << i;
    }
    EXPECT_EQ(fast_step_of(&c, &dir).result, 0);
    EXPECT_EQ(dir.record.readdir_pos, count);
    EXPECT_EQ(dir.record.readdir_clus, 20U);
}

TEST_P(ReaddirFast, LosesALongNameAtTheEndOfAFullDirectory) {
    directory dir = c.v.sub_directory({20});
    dir.fill_up(deleted(short_entry("GONE    TXT")));
    dir.go_to(dir.capacity() - 3);
    dir.append_long(u"at the very end", DOS);
    for (int call = 0; call < 3; call++) {
        const fast_step got = fast_step_of(&c, &dir);
        EXPECT_EQ(got.result, 0);
        EXPECT_EQ(got.printed, "");
        EXPECT_EQ(got.slot, dir.capacity() - 3);
    }
}

TEST_P(ReaddirFast, NeedsNoRoomForTheName) {
    directory dir = c.v.sub_directory({20});
    dir.append_long(u"A long name", DOS);
    dir.append(short_entry("SHORT      "));
    u8 entry[32];
    dentry_location location = {};
    fat_name name = {};
    EXPECT_EQ(do_readdir_fast(&dir.record, entry, &name, &location), 1);
    EXPECT_EQ(do_readdir_fast(&dir.record, entry, &name, &location), 1);
    EXPECT_EQ(name.cstring, nullptr);
}

TEST_P(ReaddirFast, ReportsAChainThatEndsInsideALongName) {
    directory dir = c.v.sub_directory({20});
    dir.fill_up(deleted(short_entry("GONE    TXT")));
    const u32 count = dir.capacity();
    dir.go_to(count - 1);
    dir.append(long_slot(0x41, u"cut off", checksum_of(DOS)));
    const fast_step got = fast_step_of(&c, &dir);
    EXPECT_EQ(got.result, -EFAULT);
    const std::string place = "(20, " + std::to_string(count) + ")";
    EXPECT_EQ(got.printed, "get_dentry_with_clu[N]: Failed to get entry sector!:" + place +
                               "\n\nget_long_name_fast[N]: fail to get dentry" + place +
                               ": Bad address\n\ndo_readdir_fast[N]: Check here!\n\n");
}

TEST_P(ReaddirFast, ReportsAChainThatBreaksAfterAShortEntry) {
    for (const bool is_file : {false, true}) {
        for (const auto &[link, message] : std::initializer_list<std::pair<u32, std::string>>{
                 {0, ""}, {1, "fat_read_clus[N]: Invalid cluster!\n\n"}}) {
            directory dir = c.v.sub_directory({20, 22});
            dir.fill_up(deleted(short_entry("GONE    TXT")));
            const u32 last = volume::entries_per_cluster() - 1;
            if (is_file) {
                dir.put(last, short_entry("FILE    TXT"));
            }
            c.v.set_link(20, link);
            const fast_step got = fast_step_of(&c, &dir);
            EXPECT_EQ(got.result, -1);
            EXPECT_EQ(got.printed, message + NO_NEXT + "do_readdir_fast[N]: Check here!\n\n");
        }
    }
}

TEST_P(ReaddirFast, ReportsAChainThatBreaksAfterALongName) {
    directory dir = c.v.sub_directory({20, 22});
    dir.fill_up(deleted(short_entry("GONE    TXT")));
    dir.go_to(volume::entries_per_cluster() - 2);
    dir.append_long(u"A name", DOS);
    c.v.set_link(20, 0);
    const fast_step got = fast_step_of(&c, &dir);
    EXPECT_EQ(got.result, -1);
    EXPECT_EQ(got.printed, NO_NEXT + "do_readdir_fast[N]: Check here!\n\n");
}

TEST_P(ReaddirFast, EndsACycleOfClustersWithoutFiles) {
    directory dir = c.v.sub_directory({20, 22, 24, 26, 28});
    dir.fill_up(deleted(short_entry("GONE    TXT")));
    c.v.set_link(28, 22);
    const fast_step got = fast_step_of(&c, &dir);
    EXPECT_EQ(got.result, -1);
    const std::string messages = got.printed;
    EXPECT_NE(messages.find("do_readdir_fast[N]: Check here!\n\n"), std::string::npos) << messages;
    EXPECT_LT(c.v.traffic(), 40 * sv->sec_per_clus + 40);
    // Onto itself.
    directory alone = c.v.sub_directory({30});
    alone.fill_up(short_entry("SUB        ", DIRECTORY, 20));
    c.v.set_link(30, 30);
    EXPECT_EQ(fast_step_of(&c, &alone).result, -1);
}

// Files in a cycle are listed again in every round; each call ends.
TEST_P(ReaddirFast, RepeatsTheFilesOfACycle) {
    directory dir = c.v.sub_directory({20, 22});
    dir.fill_up(deleted(short_entry("GONE    TXT")));
    dir.put(3, short_entry("FILE    TXT"));
    c.v.set_link(22, 20);
    for (int round = 0; round < 5; round++) {
        EXPECT_EQ(fast_step_of(&c, &dir).name, "FILE.TXT");
    }
}

TEST_P(ReaddirFast, ReportsSectorsThatCannotBeRead) {
    for (const int moved : {-EIO, 0}) {
        directory dir = c.v.sub_directory({20, 22});
        c.v.disk.failure_result = moved;
        c.v.disk.unreadable = {volume::first_sector_of(20)};
        fast_step got = fast_step_of(&c, &dir);
        EXPECT_EQ(got.result, -EIO);
        EXPECT_EQ(got.printed, "do_readdir_fast[N]: cannot read sectors\n");
        // And those met later on.
        dir.fill_up(deleted(short_entry("GONE    TXT")));
        c.v.disk.unreadable = {volume::first_sector_of(22)};
        got = fast_step_of(&c, &dir);
        EXPECT_EQ(got.result, -EIO);
        EXPECT_EQ(got.printed, "do_readdir_fast[N]: cannot read sectors\n");
        c.v.disk.unreadable.clear();
        EXPECT_EQ(fast_step_of(&c, &dir).result, 0);
    }
}

TEST_P(ReaddirFast, ReportsSlotsThatCannotBeRead) {
    directory dir = c.v.sub_directory({20, 22});
    dir.fill_up(deleted(short_entry("GONE    TXT")));
    const u32 last = volume::entries_per_cluster() - 1;
    dir.put(last, long_slot(0x41, u"A name", checksum_of(DOS)));
    const u32 sector = volume::first_sector_of(22);
    c.v.disk.unreadable = {sector};
    const fast_step got = fast_step_of(&c, &dir);
    EXPECT_EQ(got.result, -EIO);
    EXPECT_EQ(got.printed,
              "get_dentry_with_clu[N]: cannot read sectors:(sector: " + std::to_string(sector) +
                  ")\nget_long_name_fast[N]: fail to get dentry(20, " + std::to_string(last + 1) +
                  "): Input/output error\n\ndo_readdir_fast[N]: Check here!\n\n");
}

// Every read and every allocation fails in turn: the call returns an error or the file, retains
// nothing, and does not move past a file that it did not return.
TEST_P(ReaddirFast, SurvivesEveryFailingReadAndAllocation) {
    at_every_fault({EVERY_READ, EVERY_ALLOCATION}, [&](fault_step &step) {
        directory dir = c.v.sub_directory({20, 22, 23});
        for (u32 i = 0; i + 1 < volume::entries_per_cluster(); i++) {
            dir.append(deleted(short_entry("GONE    TXT")));
        }
        dir.append_long(u"over the end of a cluster", DOS);
        dir.append(entry_image{});
        u8 entry[32];
        char text[256];
        fat_name name = {};
        name.cstring = text;
        dentry_location location = {};
        const int result =
            step.run([&] { return do_readdir_fast(&dir.record, entry, &name, &location); });
        if (step.struck()) {
            EXPECT_LT(result, 0);
        } else {
            EXPECT_EQ(result, 1);
        }
    });
}

// Random directories, walked until well past their end.
TEST_P(ReaddirFast, AgreesWithTheReferenceWalk) {
    std::mt19937 engine(20240229);
    const auto below = [&](u32 n) { return static_cast<u32>(engine() % n); };
    const int rounds = runs_in_valgrind() ? 8 : 120;
    for (int round = 0; round < rounds; round++) {
        const bool is_root = sv->fat_type == 16 && round % 4 == 0;
        std::vector<u32> clusters = {20, 25, 22, 30, 21};
        clusters.resize(1 + below(5));
        directory made = c.v.sub_directory(clusters);
        directory root = c.v.root();
        directory &dir = is_root ? root : made;
        sv->long_name = round % 7 == 6 ? 0 : 1;
        const bool is_full = below(3) != 0;
        const u32 end = is_full ? dir.capacity() : below(dir.capacity()) + 1;
        for (u32 i = 0; i < dir.capacity(); i++) {
            dir.put(i, entry_image{});
        }
        u32 used = 0;
        const auto add = [&](const entry_image &entry) {
            if (used < end) {
                dir.put(used++, entry);
            }
        };
        while (used < end) {
            const std::string dos = "F" + std::to_string(1000000 + below(8999999)) + "TXT";
            entry_image entry = short_entry(dos, ARCHIVE, below(4000), static_cast<u32>(engine()));
            std::u16string name;
            for (u32 n = 1 + below(60); n > 0; n--) {
                name += static_cast<char16_t>(below(20) == 0 ? 0xE4 : u'a' + below(26));
            }
            std::vector<entry_image> slots = long_slots(name, dos);
            switch (below(is_root ? 16 : 24)) {
            case 0:
                add(deleted(entry));
                break;
            case 1:
                entry[11] = static_cast<std::uint8_t>(DIRECTORY | below(8));
                add(entry);
                break;
            case 2:
                entry[11] = LABEL;
                add(entry);
                break;
            case 3:
                entry[11] = DIRECTORY | LABEL | ARCHIVE;
                add(entry);
                break;
            case 4: // slots with nothing after them
                for (const entry_image &slot : slots) {
                    add(slot);
                }
                break;
            case 5: // a damaged slot
                slots[below(static_cast<u32>(slots.size()))][below(2) == 0 ? 0 : 13] =
                    static_cast<std::uint8_t>(below(256));
                for (const entry_image &slot : slots) {
                    add(slot);
                }
                add(entry);
                break;
            case 6: // one missing
                slots.erase(slots.begin() + below(static_cast<u32>(slots.size())));
                for (const entry_image &slot : slots) {
                    add(slot);
                }
                add(entry);
                break;
            case 7: // the name of a directory
                for (const entry_image &slot : slots) {
                    add(slot);
                }
                entry[11] = DIRECTORY;
                add(entry);
                break;
            case 8:
            case 9:
            case 10:
            case 11:
                for (const entry_image &slot : slots) {
                    add(slot);
                }
                add(entry);
                break;
            default:
                entry[12] = static_cast<std::uint8_t>(below(4) * 8);
                add(entry);
                break;
            }
        }
        expect_equal_walks(&c, &dir, static_cast<int>(end) + 5);
        if (HasFatalFailure()) {
            FAIL() << "in round " << round;
        }
    }
}

// ---- the root area of FAT16 -------------------------------------------------------------------

const std::string BEHIND_AREA = "get_phy_sector[N]: Invalid sector number in Root dir\n\n"
                                "do_readdir_fast[N]: Check here!\n\n";

TEST(ReaddirFastInFat16Root, GivesEveryFileOfAFullRootOf512) {
    fast_case c;
    c.v.top.go_to(0);
    c.v.top.fill_up(short_entry("FILE    TXT"));
    ASSERT_EQ(c.v.top.capacity(), 512U);
    for (u32 i = 0; i < 512; i++) {
        const fast_step got = fast_step_of(&c, &c.v.top);
        ASSERT_EQ(got.result, 1) << i;
        ASSERT_EQ(got.where.sector * 512 + got.where.offset, c.v.top.offset_of(i));
        ASSERT_EQ(got.slot, i + 1);
    }
    // Slot 512 is examined, and is past the area.
    for (int call = 0; call < 3; call++) {
        const fast_step got = fast_step_of(&c, &c.v.top);
        EXPECT_EQ(got.result, -EFAULT);
        EXPECT_EQ(got.printed, BEHIND_AREA);
        EXPECT_EQ(got.slot, 512U);
    }
}

TEST(ReaddirFastInFat16Root, MeetsTheEndOfASmallArea) {
    fast_case c({.root_entries = 32});
    c.v.top.go_to(0);
    c.v.top.fill_up(deleted(short_entry("GONE    TXT")));
    c.v.top.put(31, short_entry("FILE    TXT"));
    ASSERT_EQ(c.v.top.capacity(), 32U);
    EXPECT_EQ(fast_step_of(&c, &c.v.top).name, "FILE.TXT");
    EXPECT_EQ(fast_step_of(&c, &c.v.top).result, -EFAULT);
    EXPECT_EQ(c.messages.text(), BEHIND_AREA);
}

class ReaddirFastInLargeRoot : public testing::Test {
protected:
    ReaddirFastInLargeRoot() : c({.root_entries = 1024}) {
        c.v.top.go_to(0);
        c.v.top.fill_up(deleted(short_entry("GONE    TXT")));
    }
    fast_step next() {
        return fast_step_of(&c, &c.v.top);
    }
    void expect_refused() {
        for (int call = 0; call < 2; call++) {
            const fast_step got = next();
            EXPECT_EQ(got.result, -1);
            EXPECT_EQ(got.printed, "do_readdir_fast[N]: Check here!\n\n");
        }
    }
    fast_case c;
};

TEST_F(ReaddirFastInLargeRoot, ExaminesSlot512AndGivesNothingForIt) {
    c.v.top.put(511, short_entry("FILE511 TXT"));
    c.v.top.put(512, short_entry("FILE512 TXT"));
    c.v.top.put(513, short_entry("FILE513 TXT"));
    EXPECT_EQ(next().name, "FILE511.TXT");
    const fast_step got = next();
    EXPECT_EQ(got.result, 0);
    EXPECT_EQ(got.printed, "");
    EXPECT_EQ(got.slot, 513U);
    expect_refused();
}

TEST_F(ReaddirFastInLargeRoot, StopsAfterSlot512) {
    EXPECT_EQ(next().result, 0);
    EXPECT_EQ(c.v.top.record.readdir_pos, 513U);
    expect_refused();
}

TEST_F(ReaddirFastInLargeRoot, EndsAtAnUnusedSlot512) {
    c.v.top.put(512, entry_image{});
    EXPECT_EQ(next().result, -ENOENT);
    EXPECT_EQ(next().result, -ENOENT);
}

TEST_F(ReaddirFastInLargeRoot, GivesALongNameThatEndsInSlot511) {
    c.v.top.go_to(509);
    c.v.top.append_long(u"two slots here", DOS);
    EXPECT_EQ(next().name, "two slots here");
    EXPECT_EQ(c.v.top.record.readdir_pos, 512U);
    EXPECT_EQ(next().result, 0);
    expect_refused();
}

TEST_F(ReaddirFastInLargeRoot, GivesNothingForALongNameThatEndsLater) {
    for (const u32 first : {510U, 511U, 512U}) {
        c.v.top.record.readdir_pos = 0;
        c.v.top.go_to(500);
        while (c.v.top.append(deleted(short_entry("GONE    TXT"))) < 520) {
        }
        c.v.top.go_to(first);
        c.v.top.append_long(u"two slots here", DOS);
        const fast_step got = next();
        EXPECT_EQ(got.result, 0) << first;
        EXPECT_EQ(got.printed, "");
        EXPECT_EQ(got.slot, first + 3);
        expect_refused();
    }
}

// A directory entry without a cluster leads to the root area on FAT16, to nothing on FAT32.
TEST(ReaddirFastInFat16Root, IsWalkedForADirectoryWithoutCluster) {
    fast_case c;
    for (int i = 0; i < 40; i++) {
        c.v.top.append(short_entry("FILE    TXT"));
    }
    directory dir = c.v.sub_directory({20});
    dir.record.start = 0;
    EXPECT_EQ(all_names(&c, &dir),
              (names_and_end{std::vector<std::string>(40, "FILE.TXT"), -ENOENT}));
    EXPECT_EQ(dir.record.readdir_pos, 41U);
    EXPECT_EQ(dir.record.readdir_clus, 0U);
}

TEST(ReaddirFastOnFat32, RefusesADirectoryWithoutCluster) {
    fast_case c({.fat_type = 32});
    directory dir = c.v.sub_directory({20});
    dir.record.start = 0;
    const fast_step got = fast_step_of(&c, &dir);
    EXPECT_EQ(got.result, -EINVAL);
    EXPECT_EQ(got.printed, "get_phy_sector[N]: invalid start cluster number 0\n"
                           "do_readdir_fast[N]: Check here!\n\n");
}

TEST(ReaddirFastOnFat32, WalksALongRoot) {
    fast_case c({.fat_type = 32});
    directory root = c.v.longer_root({30, 25});
    root.fill_up(deleted(short_entry("GONE    TXT")));
    root.put(40, short_entry("FILE    TXT"));
    EXPECT_EQ(fast_step_of(&c, &root).name, "FILE.TXT");
    EXPECT_EQ(root.record.readdir_clus, 25U);
    EXPECT_EQ(fast_step_of(&c, &root).result, 0);
}

// ---- names in encodings -----------------------------------------------------------------------

TEST(ReaddirFastNames, AreInTheEncodingChosen) {
    fast_case c;
    ASSERT_EQ(fat_set_encoding("UTF-8"), 0);
    c.v.top.append_long(u"größer.txt", DOS);
    EXPECT_EQ(fast_step_of(&c, &c.v.top).name, "gr\xC3\xB6\xC3\x9F"
                                               "er.txt");
}

TEST(ReaddirFastNames, AreShortWhereTheLongOnesCannotBeConverted) {
    fast_case c;
    ASSERT_EQ(fat_set_encoding("ISO-8859-1"), 0);
    const u32 index = c.v.top.append_long(u"\u4E2D\u6587.txt", DOS);
    const fast_step got = fast_step_of(&c, &c.v.top);
    EXPECT_EQ(got.result, 1);
    EXPECT_EQ(got.name, "ALONGN~1.TXT");
    EXPECT_EQ(got.entry, c.v.top.at(index - 1));
    // Too long for its 255 bytes.
    ASSERT_EQ(fat_set_encoding("UTF-8"), 0);
    c.v.top.append_long(std::u16string(100, u'\u4E2D'), "ALONGN~2TXT");
    EXPECT_EQ(fast_step_of(&c, &c.v.top).name, "ALONGN~2.TXT");
}

TEST(ReaddirFastNames, StayWithinTheirBufferWithAnySlots) {
    fast_case c;
    for (unsigned i = 0; i < 20; i++) {
        c.v.top.append(long_slot(i == 0 ? 0x54 : 20 - i, u"thirteen long", checksum_of(DOS)));
    }
    c.v.top.append(short_entry(DOS));
    // 260 units: more bytes than there is room for.
    u8 entry[32];
    std::string text(256 + 8, MARK);
    fat_name name = {};
    name.cstring = text.data();
    dentry_location location = {};
    EXPECT_EQ(do_readdir_fast(&c.v.top.record, entry, &name, &location), 1);
    EXPECT_EQ(text.substr(0, 26), "thirteen longthirteen long");
    EXPECT_EQ(text.substr(256), std::string(8, MARK));
}

// ---- the paths of a directory's files ---------------------------------------------------------

class FastPathOfDir : public testing::TestWithParam<u32> {
protected:
    FastPathOfDir() : c({.fat_type = GetParam()}) {}

    path_made next(int id) {
        return make_path(&c, zuq_get_fast_open_path_of_dir, id);
    }
    static path_made gives(const std::string &path) {
        return {1, "", path, ZEROED_NAME};
    }
    [[nodiscard]] u32 number_of(u32 index) const {
        return static_cast<u32>(c.v.top.offset_of(index) / 32);
    }

    fast_case c;
};
INSTANTIATE_TEST_SUITE_P(Widths, FastPathOfDir, testing::Values(16, 32),
                         testing::PrintToStringParamName());

const std::string NO_MORE = "zuq_get_fast_open_path_of_dir[N]: Failed to readdir_fast()!\n\n";

TEST_P(FastPathOfDir, GivesOneFileWithEachCall) {
    c.v.top.append(short_entry("A       TXT", ARCHIVE, 0x12345, 0x89ABCDEF));
    c.v.top.append(short_entry("SUB        ", DIRECTORY, 30));
    c.v.top.append(short_entry("B       TXT", ARCHIVE, 5, 0x10));
    c.v.top.append(short_entry("C       TXT"));
    EXPECT_EQ(next(0), gives("<?>" + fast_letters(number_of(1)) + "JJNNLMNN\0"s));
    EXPECT_EQ(next(0), gives("<?>" + fast_letters(number_of(3)) + "@@@E@@A@\0"s));
    EXPECT_EQ(next(0), gives("<?>" + fast_letters(number_of(4)) + "@@@@@@@@\0"s));
    for (int call = 0; call < 2; call++) {
        const path_made end = next(0);
        EXPECT_EQ(end.result, -ENOENT);
        EXPECT_EQ(end.messages, NO_MORE);
        EXPECT_EQ(end.name, ZEROED_NAME);
    }
}

// Of a long name it is the first slot that makes the check value: its units 8 (for the high half of
// a cluster number), 11 and 12 (for a size).
TEST_P(FastPathOfDir, MakesTheCheckValueOfTheFirstSlot) {
    u32 index = c.v.top.append_long(u"Long name.txt", "LONGNA~1TXT");
    c.v.top.put(index, short_entry("LONGNA~1TXT", ARCHIVE, 77, 4711));
    // 'e' = 0x0065; 'x' = 0x78 and 't' = 0x74: 0x00000065 ^ 0x00740078 = 0x0074001D.
    EXPECT_EQ(next(0), gives("<?>" + fast_letters(number_of(index)) + "@@GD@@AM\0"s));
    // Two slots; in the first there is 't', then an end, then 0xFFFF: 0x0000FFFF ^ 0xFFFFFFFF.
    index = c.v.top.append_long(u"Long names.txt", "LONGNA~2TXT");
    EXPECT_EQ(next(0), gives("<?>" + fast_letters(number_of(index)) + "OOOO@@@@\0"s));
    // Short again: its own.
    index = c.v.top.append(short_entry("B       TXT", ARCHIVE, 5, 0x10));
    EXPECT_EQ(next(0), gives("<?>" + fast_letters(number_of(index)) + "@@@E@@A@\0"s));
}

TEST_P(FastPathOfDir, RetainsTheFirstSlotForAFileAfterALongNamedDirectory) {
    c.v.top.append(long_slots(u"Long name.txt", "LONGNA~1TXT"));
    c.v.top.append(short_entry("LONGNA~1TXT", DIRECTORY, 30));
    const u32 index = c.v.top.append(short_entry("B       TXT", ARCHIVE, 5, 0x10));
    EXPECT_EQ(next(0), gives("<?>" + fast_letters(number_of(index)) + "@@GD@@AM\0"s));
}

TEST_P(FastPathOfDir, BeginsAgainWithANewId) {
    directory sub = c.v.sub_directory({20, 22});
    c.v.top.append(short_entry("SUB        ", DIRECTORY, 20));
    for (int i = 0; i < 20; i++) {
        sub.append(short_entry("FILE    TXT", ARCHIVE, 0, static_cast<u32>(i)));
    }
    const int first = fat_open_dir("/SUB");
    const int second = fat_open_dir("/SUB");
    ASSERT_GT(first, 0);
    for (u32 i = 0; i < 20; i++) {
        const path_made expected = gives(path_of(static_cast<u32>(sub.offset_of(i) / 32), i));
        EXPECT_EQ(next(first), expected);
        if (i % 2 == 0) {
            EXPECT_EQ(next(second).path,
                      path_of(static_cast<u32>(sub.offset_of(i / 2) / 32), i / 2));
        }
    }
    EXPECT_EQ(next(first).result, -ENOENT);
    fat_close(first);
    const int third = fat_open_dir("/SUB");
    EXPECT_EQ(next(third), gives(path_of(static_cast<u32>(sub.offset_of(0) / 32), 0)));
}

TEST_P(FastPathOfDir, EndsWithZeroAfterAFullDirectory) {
    directory sub = c.v.sub_directory({20});
    sub.fill_up(short_entry("SUB        ", DIRECTORY, 30));
    const int id = c.v.open_new("SUB        ", {20}, 0, DIRECTORY);
    const path_made end = next(id);
    EXPECT_EQ(end.result, 0);
    EXPECT_EQ(end.messages, "");
}

TEST_P(FastPathOfDir, ReportsTheErrorOfTheWalk) {
    c.v.disk.unreadable = {c.v.top.offset_of(0) / 512};
    const path_made failed = next(0);
    EXPECT_EQ(failed.result, -EIO);
    EXPECT_EQ(failed.messages, "do_readdir_fast[N]: cannot read sectors\n" + NO_MORE);
    EXPECT_EQ(failed.name, ZEROED_NAME);
    EXPECT_EQ(failed.path, NO_PATH);
}

} // namespace
