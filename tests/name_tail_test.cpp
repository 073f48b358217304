// Numeric tails: appending one to a short name, and choosing a free one in a directory.

#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/names.h"
#include "tests/support/rows.h"
#include "tests/support/volume.h"

#include <algorithm>
#include <cerrno>
#include <map>

using namespace fat;
using namespace testing_support;

namespace {

std::string number(u32 value) {
    return std::to_string(value);
}

// "FOO", 12 -> "FOO~12     ".
std::string tailed(const std::string &prefix, u32 tail) {
    return model::padded(prefix + "~" + number(tail), 11);
}

// ---- append_tail ------------------------------------------------------------------------------

class AppendTail : public testing::Test {
protected:
    // The name with its tail.
    static std::string append(const std::string &dos, u32 tail) {
        dos_block block(dos);
        EXPECT_EQ(append_tail(block.get(), tail), 0);
        return block.text();
    }

    diagnostics messages;
};

// ---- add_numeric_tail -------------------------------------------------------------------------

// A kind of directory.
struct place {
    const char *name;
    volume_shape shape;
    std::vector<u32> clusters; // empty: the root area of FAT16
    bool is_root;
};
std::ostream &operator<<(std::ostream &out, const place &p) {
    return out << p.name;
}

directory open_in(volume &volume, const place &place) {
    if (!place.is_root) {
        return volume.sub_directory(place.clusters);
    }
    return place.clusters.empty() ? volume.root() : volume.longer_root(place.clusters);
}

// The result and the messages of add_numeric_tail() for one name.
struct answer {
    int result;
    std::string dos;
    std::string messages; // source lines as N
    bool operator==(const answer &) const = default;
};
std::ostream &operator<<(std::ostream &out, const answer &a) {
    return out << "{" << a.result << ", " << model::shown_bytes(a.dos) << ", "
               << model::shown_bytes(a.messages) << "}";
}

answer ask(directory *dir, const std::string &dos, diagnostics *messages) {
    dos_block block(dos);
    messages->clear();
    answer a;
    a.result = add_numeric_tail(&dir->record, block.get());
    a.dos = block.text();
    a.messages = messages->text();
    return a;
}

answer chosen(const std::string &dos) {
    return {0, dos, ""};
}

// A directory of three clusters that are not in order: 16 entries in each.
class AddNumericTail : public testing::Test {
protected:
    answer ask(const std::string &dos) {
        return ::ask(&dir, dos, &messages);
    }
    void append_files(const std::vector<std::string> &names) {
        for (const std::string &name : names) {
            dir.append(short_entry(model::padded(name, 11)));
        }
    }

    diagnostics messages;
    volume medium;
    directory dir = medium.sub_directory({9, 4, 17});
};

class AddNumericTailAnywhere : public testing::TestWithParam<place> {
protected:
    diagnostics messages;
    volume medium{GetParam().shape};
    directory dir = open_in(medium, GetParam());
};

const std::vector<place> PLACES = {
    {"Fat16Root", {16, 512, 1, 0, 512}, {}, true},
    {"Fat16RootOfLargeSectors", {16, 4096, 1, 0, 512}, {}, true},
    {"Fat16RootOfMoreEntries", {16, 512, 1, 0, 1024}, {}, true},
    {"Fat16OneCluster", {16, 512, 1}, {2}, false},
    {"Fat16Chain", {16, 512, 4}, {9, 4, 17, 4000}, false},
    {"Fat32Root", {32, 512, 2}, {6, 3}, true},
    {"Fat32Chain", {32, 1024, 1}, {130, 129, 60000, 3}, false},
    {"Fat32LargeClusters", {32, 4096, 2}, {100, 7}, false},
};

std::string place_name(const testing::TestParamInfo<place> &info) {
    return info.param.name;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Places, AddNumericTailAnywhere, testing::ValuesIn(PLACES), place_name);

TEST_F(AppendTail, EachRowGivesItsName) {
    const struct {
        const char *dos;
        u32 tail;
        const char *name;
    } rows[] = {
        {"FOO     TXT", 1, "FOO~1   TXT"},
        {"FOO        ", 0, "FOO~0      "},
        {"A          ", 1023, "A~1023     "},
        {"ABCDEF  TXT", 1, "ABCDEF~1TXT"},
        // The end of a long base is replaced.
        {"LONGFILETXT", 12, "LONGF~12TXT"},
        {"LONGFILETXT", 1, "LONGFI~1TXT"},
        {"LONGFILETXT", 123, "LONG~123TXT"},
        {"LONGFILETXT", 1023, "LON~1023TXT"},
        {"ABCDEF     ", 12, "ABCDE~12   "},
        {"ABCDEFG    ", 1, "ABCDEF~1   "},
        // The tail begins at the first blank and covers what follows; a tail is part of the base.
        {"A BCDEFGTXT", 1, "A~1CDEFGTXT"},
        {"        TXT", 1, "~1      TXT"},
        {"FOO~1      ", 2, "FOO~1~2    "},
        {"LONGFI~1   ", 2, "LONGFI~2   "},
        // One more than the largest tail in a directory.
        {"LONGFILETXT", 1024, "LON~1024TXT"},
        {"A       TXT", 1024, "A~1024  TXT"},
    };
    for (const auto &[dos, tail, name] : rows) {
        EXPECT_EQ(append(dos, tail), name);
    }
    EXPECT_EQ(messages.text(), "");
}

TEST_F(AppendTail, RefusesALargerTail) {
    for (const u32 tail : {1025U, 9999U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        dos_block block("LONGFILETXT");
        messages.clear();
        EXPECT_EQ(append_tail(block.get(), tail), -EINVAL);
        EXPECT_EQ(block.text(), "LONGFILETXT");
        EXPECT_EQ(messages.text(), "append_tail[N]: numeric-tail overflow\n");
    }
}

TEST_F(AppendTail, EveryTailOnABaseOfEveryLength) {
    for (std::size_t length = 0; length <= 8; length++) {
        const std::string dos = model::padded(std::string("ABCDEFGH").substr(0, length), 8) + "EXT";
        for (u32 tail = 0; tail <= 1024; tail++) {
            ASSERT_EQ(append(dos, tail), model::with_tail(dos, tail));
        }
    }
}

// ---- directories of every kind ----------------------------------------------------------------

TEST_P(AddNumericTailAnywhere, OneIsTheFirst) {
    EXPECT_EQ(ask(&dir, "LONGFILETXT", &messages), chosen("LONGFI~1TXT"));
}

TEST_P(AddNumericTailAnywhere, EveryEntryOfTheDirectoryCounts) {
    const u32 entries = std::min(512U, dir.capacity());
    for (u32 i = 0; i < entries; i++) {
        dir.put(i, short_entry(tailed("A", i + 1)));
    }
    EXPECT_EQ(ask(&dir, "A       TXT", &messages),
              chosen(model::with_tail("A       TXT", entries + 1)));
}

TEST_P(AddNumericTailAnywhere, TheLastEntryCountsWhenEverythingBeforeItIsDeleted) {
    const u32 last = std::min(512U, dir.capacity()) - 1;
    for (u32 i = 0; i < last; i++) {
        dir.put(i, deleted(short_entry(tailed("A", 2))));
    }
    dir.put(last, short_entry(tailed("A", 1)));
    EXPECT_EQ(ask(&dir, "A          ", &messages), chosen("A~2        "));
}

TEST_P(AddNumericTailAnywhere, NothingAfterAnUnusedEntryCounts) {
    const u32 last = std::min(512U, dir.capacity()) - 1;
    dir.put(0, short_entry(tailed("A", 1)));
    dir.put(2, short_entry(tailed("A", 2)));
    dir.put(last, short_entry(tailed("A", 2)));
    EXPECT_EQ(ask(&dir, "A          ", &messages), chosen("A~2        "));
}

TEST_P(AddNumericTailAnywhere, ReadsEachSectorOfTheDirectoryOnceAndWritesNothing) {
    dir.fill_up(short_entry("FULL       "));
    medium.disk.log.clear();
    EXPECT_EQ(ask(&dir, "A          ", &messages), chosen("A~1        "));
    const u32 sectors = std::min(512U, dir.capacity()) / volume::entries_per_sector();
    std::map<std::uint64_t, int> times;
    for (const auto &[sector, count] : medium.sectors_read()) {
        times[sector] = count;
    }
    for (u32 i = 0; i < dir.sectors.size(); i++) {
        // Sectors after the last entry that counts may be read together with it.
        EXPECT_LE(times[dir.sectors[i]], 1) << "sector " << i;
        EXPECT_GE(times[dir.sectors[i]], i < sectors ? 1 : 0) << "sector " << i;
    }
    EXPECT_TRUE(std::none_of(medium.disk.log.begin(), medium.disk.log.end(),
                             [](const transfer &t) { return t.is_write; }));
}

TEST_P(AddNumericTailAnywhere, ASectorThatCannotBeReadIsTheAnswer) {
    dir.fill_up(short_entry("FULL       "));
    const u32 sectors = std::min(512U, dir.capacity()) / volume::entries_per_sector();
    for (u32 i = 0; i < sectors; i++) {
        medium.disk.bad_sectors = {dir.sectors[i]};
        const allocation_meter meter;
        EXPECT_EQ(ask(&dir, "A          ", &messages),
                  (answer{-EIO, "A          ",
                          "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                              number(dir.sectors[i]) + ")\n"}));
        EXPECT_EQ(meter.live_blocks(), 0);
    }
}

TEST_P(AddNumericTailAnywhere, ASectorPastTheEndOfTheDirectoryIsNotRead) {
    for (const u32 sector : dir.sectors) {
        if (sector != dir.sectors.front()) {
            medium.disk.bad_sectors.insert(sector);
        }
    }
    dir.append(short_entry(tailed("A", 1)));
    EXPECT_EQ(ask(&dir, "A          ", &messages), chosen("A~2        "));
}

// ---- the choice -------------------------------------------------------------------------------

namespace {

// The names in a directory, a new one, and the name that it gets.
struct choice_row : named_row {
    std::vector<std::string> names;
    std::string asked;
    std::string given;
};

const std::vector<std::string> NINE = {"LONGFI~1", "LONGFI~2", "LONGFI~3", "LONGFI~4", "LONGFI~5",
                                       "LONGFI~6", "LONGFI~7", "LONGFI~8", "LONGFI~9"};
std::vector<std::string> nine_and(const std::string &name) {
    std::vector<std::string> result = NINE;
    result.push_back(name);
    return result;
}
const std::vector<std::string> PADDED = {"A  ~1", "A ~2"};
// Bytes that are not digits are skipped within the number.
const std::vector<std::string> MIXED = {"A~X1", "A~2X", "A~ 3", "A~1B2"};
const std::vector<std::string> MORE_MIXED = {"A~X1", "A~2X", "A~ 3", "A~1B2", "A~4",   "A~5",
                                             "A~6",  "A~7",  "A~8",  "A~9",   "A~1 0", "A~1~1"};

const choice_row CHOICES[] = {
    {"LowestFreeNumber", {"A~1", "A~2", "A~4", "A~5"}, "A          ", "A~3        "},
    {"NumbersInAnyOrder", {"A~3", "A~1", "A~2"}, "A       TXT", "A~4     TXT"},
    {"ZeroIsNeverTaken", {"A~0", "A~00", "A~"}, "A          ", "A~1        "},
    {"NamesWithoutATilde", {"A1", "A-1", "A       ", "LONGFILE"}, "LONGFILETXT", "LONGFI~1TXT"},
    {"AnotherPrefix", {"B~1", "AB~1", "a~1", "\xC1~1"}, "AC         ", "AC~1       "},
    // The text before the tilde is compared with that many bytes of the new name, not with its
    // base.
    {"ShorterPrefixCounts", {"LO~1", "L~2", "LONGF~3"}, "LONGFILETXT", "LONGFI~4TXT"},
    {"TildeInFrontCountsForAShortName", {"~1", "~2X"}, "A          ", "A~3        "},
    {"TildeInFrontCountsForALongName", {"~1", "~2X"}, "LONGFILETXT", "LONGFI~3TXT"},
    {"LongerPrefixCountsWhereItAgrees", {"LONGFI~1", "LONGFX~2"}, "LONGFILETXT", "LONGFI~2TXT"},
    {"LongerPrefixOfAShorterName", {"LONGFI~1", "LONGFX~2"}, "LONG       ", "LONG~1     "},
    {"PaddedPrefixOfTheSamePadding", PADDED, "A       TXT", "A~3     TXT"},
    {"PaddedPrefixOfAnotherName", PADDED, "AB         ", "AB~1       "},
    {"ExtensionDoesNotCount", {"A~1     TXT", "A~2     DOC"}, "A       EXE", "A~3     EXE"},
    {"TailOfTwoDigits", NINE, "LONGFILETXT", "LONGF~10TXT"},
    {"TailAfterTheFirstOfTwoDigits", nine_and("LONGF~10"), "LONGFILETXT", "LONGF~11TXT"},
    {"OtherCharactersAreSkipped", MIXED, "A          ", "A~4        "},
    {"OtherCharactersBetweenDigits", MORE_MIXED, "A          ", "A~13       "},
    {"NumberEndsWithTheBase", {"ABCDEF~1234", "ABCDEFG~1  "}, "ABCDEFGH1  ", "ABCDEF~21  "},
    {"TildeInTheExtension", {"A       ~1 ", "A       X~1"}, "A       ~1 ", "A~1     ~1 "},
    {"EscapedFirstByteAsStored", {"\x05~1"}, "\x05          ", "\x05~2        "},
    {"NumbersFrom1024On",
     {"~1024", "~1025", "~1056", "~2047", "~9999999", "~32768", "~65537", "~4096"},
     "A          ",
     "A~1        "},
};

class NumericTailChoice : public AddNumericTail, public testing::WithParamInterface<choice_row> {};
INSTANTIATE_TEST_SUITE_P(Rows, NumericTailChoice, testing::ValuesIn(CHOICES), row_name<choice_row>);

} // namespace

TEST_P(NumericTailChoice, IsThatOfTheRow) {
    append_files(GetParam().names);
    EXPECT_EQ(ask(GetParam().asked), chosen(GetParam().given));
}

TEST_F(AddNumericTail, ATildeAfterTheNameIsNotATail) {
    entry_image entry = short_entry("ABCDEFGHIJK", '!');
    std::copy_n("~1~1~1~1~1~1~1~1~1~1", 20, entry.begin() + 12);
    dir.append(entry);
    EXPECT_EQ(ask("ABCDEFGHIJK"), chosen("ABCDEF~1IJK"));
}

// An entry without a zero byte is not terminated; the bytes after it in the sector and the bytes
// after the sector do not belong to it.
TEST_F(AddNumericTail, AnEntryWithoutAnEndIsReadNoFurther) {
    entry_image endless;
    endless.fill('!');
    dir.fill_up(endless);
    EXPECT_EQ(ask("!!!!!!!!!!!"), chosen("!!!!!!~1!!!"));
    // With a tilde at its end, in the middle of the directory and in the last position.
    endless[31] = '~';
    dir.put(0, endless);
    dir.put(dir.capacity() - 1, endless);
    EXPECT_EQ(ask("!!!!!!!!!!!"), chosen("!!!!!!~1!!!"));
}

TEST_F(AddNumericTail, AZeroByteEndsTheNameBeforeATilde) {
    dir.append(short_entry(std::string_view("A\0~1       ", 11)));
    EXPECT_EQ(ask(std::string("A\0         ", 11)), chosen(std::string("A\0~1       ", 11)));
}

// ---- which entries count ----------------------------------------------------------------------

TEST_F(AddNumericTail, FilesAndDirectoriesCountWhateverTheirOtherAttributes) {
    u32 tail = 1;
    for (const int attr : {0x00, 0x01, 0x07, 0x20, 0x27, 0x40, 0x10, 0x17, 0x30, 0xF7}) {
        dir.append(short_entry(tailed("A", tail), static_cast<u8>(attr)));
        tail++;
    }
    EXPECT_EQ(ask("A          "), chosen("A~11       "));
}

TEST_F(AddNumericTail, NothingElseCounts) {
    dir.append(deleted(short_entry(tailed("A", 1))));
    dir.append(short_entry("\xE5~1        ", 0x10));
    dir.append(short_entry(tailed("A", 1), 0x08));
    dir.append(short_entry(tailed("A", 1), 0x28));
    dir.append(short_entry(tailed("A", 1), 0x0F));
    EXPECT_EQ(ask("A          "), chosen("A~1        "));
}

TEST_F(AddNumericTail, AnInvalidEntryIsReportedAndDoesNotCount) {
    dir.append(short_entry(tailed("A", 1), 0x18));
    dir.append(short_entry(tailed("A", 2), 0x3F));
    dir.append(short_entry(tailed("A", 1)));
    EXPECT_EQ(ask("A          "), (answer{0, "A~2        ",
                                          "entry_type[N]: Unknown entry type: 24\n\n"
                                          "entry_type[N]: Unknown entry type: 63\n\n"}));
}

TEST_F(AddNumericTail, TheLongNameFlagDoesNotMatter) {
    append_files({"A~1"});
    sv->long_name = 0;
    EXPECT_EQ(ask("A          "), chosen("A~2        "));
}

// ---- all taken --------------------------------------------------------------------------------

namespace {

// Room for 1024 entries in 64 clusters.
class AllTails : public AddNumericTail {
protected:
    static std::vector<u32> clusters() {
        std::vector<u32> result;
        for (u32 i = 0; i < 64; i++) {
            result.push_back(100 + 7 * i);
        }
        return result;
    }
    // Entries with the tails 1 to 1023, but `absent`.
    void take_all_but(u32 absent) {
        large.go_to(0);
        for (u32 tail = 1; tail < 1024; tail++) {
            large.append(short_entry(tailed(tail == absent ? "X" : "LON", tail)));
        }
    }
    answer ask_large(const std::string &dos) {
        return ::ask(&large, dos, &messages);
    }

    directory large = medium.sub_directory(clusters());
};

} // namespace

TEST_F(AllTails, TakenLeaveNone) {
    take_all_but(0);
    const allocation_meter meter;
    EXPECT_EQ(ask_large("LONGFILETXT"),
              (answer{-EEXIST, "LONGFILETXT", "add_numeric_tail[N]: Too many SFNs!\n\n"}));
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(ask_large("LOXGFILETXT"), chosen("LOXGFI~1TXT"));
}

// append_tail() accepts a tail of 1024, but add_numeric_tail() never chooses it.
TEST_F(AllTails, TakenLeaveNoTailOf1024) {
    take_all_but(0);
    large.append(short_entry(tailed("X", 1024)));
    EXPECT_EQ(ask_large("LONGFILETXT").result, -EEXIST);
}

TEST_F(AllTails, TakenButOneLeaveThatOne) {
    for (const u32 absent :
         {1U, 2U, 31U, 32U, 33U, 63U, 64U, 511U, 512U, 991U, 992U, 1022U, 1023U}) {
        take_all_but(absent);
        EXPECT_EQ(ask_large("LONGFILETXT"), chosen(model::with_tail("LONGFILETXT", absent)));
    }
}

// ---- the end of the directory -----------------------------------------------------------------

TEST(AddNumericTailInRootArea, StopsAfter512EntriesOfMore) {
    diagnostics messages;
    volume medium({16, 512, 1, 0, 1024});
    directory root = medium.root();
    ASSERT_EQ(root.capacity(), 1024U);
    root.record.allocated = 32768;
    root.fill_up(short_entry("FULL       "));
    root.put(511, short_entry(tailed("A", 1)));
    root.put(512, short_entry(tailed("A", 2)));
    EXPECT_EQ(ask(&root, "A          ", &messages), chosen("A~2        "));
}

TEST(AddNumericTailInRootArea, EndsWithASmallerArea) {
    diagnostics messages;
    volume medium({16, 512, 1, 0, 64});
    directory root = medium.root();
    ASSERT_EQ(root.capacity(), 64U);
    root.fill_up(short_entry("FULL       "));
    root.put(63, short_entry(tailed("A", 1)));
    const allocation_meter meter;
    EXPECT_EQ(ask(&root, "A          ", &messages),
              (answer{0, "A~2        ",
                      "get_phy_sector[N]: Invalid sector number in Root dir\n\n"
                      "get_dentry_with_clu[N]: Failed to get entry sector!:(0, 64)\n\n"}));
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST(AddNumericTailInRootArea, EndsWithTheSizeOfTheOpenDirectory) {
    diagnostics messages;
    volume medium({16, 512, 1, 0, 512});
    directory root = medium.root();
    root.fill_up(short_entry("FULL       "));
    root.put(31, short_entry(tailed("A", 1)));
    root.put(32, short_entry(tailed("A", 2)));
    root.record.allocated = 1024;
    EXPECT_EQ(ask(&root, "A          ", &messages),
              (answer{0, "A~2        ",
                      "fat_get_dentry[N]: access the out of range in directory space\n"}));
}

TEST_F(AddNumericTail, ADirectoryOfNoSizeHasNoEntries) {
    append_files({"A~1"});
    dir.record.allocated = 0;
    medium.disk.log.clear();
    EXPECT_EQ(ask("A          "), chosen("A~1        "));
    EXPECT_EQ(medium.disk.log.size(), 0U);
}

TEST_F(AddNumericTail, EntriesPastTheSizeDoNotCount) {
    dir.fill_up(short_entry("FULL       "));
    dir.put(15, short_entry(tailed("A", 1)));
    dir.put(16, short_entry(tailed("A", 2)));
    dir.record.allocated = 512;
    EXPECT_EQ(ask("A          "), chosen("A~2        "));
}

TEST_F(AddNumericTail, AChainThatEndsEarlyEndsTheDirectory) {
    dir.fill_up(short_entry("FULL       "));
    dir.put(0, short_entry(tailed("A", 1)));
    dir.put(32, short_entry(tailed("A", 2)));
    medium.set_link(4, 0xFFF8);
    EXPECT_EQ(ask("A          "),
              (answer{0, "A~2        ",
                      "get_dentry_with_clu[N]: Failed to get entry sector!:(9, 32)\n\n"}));
}

// ---- failures ---------------------------------------------------------------------------------

// Intentional: a transfer that moves nothing is not an error here: the sector counts as empty, and
// an empty entry ends the directory.
TEST_F(AddNumericTail, AnEmptyTransferIsTheEnd) {
    dir.fill_up(short_entry("FULL       "));
    dir.put(0, short_entry(tailed("A", 1)));
    dir.put(16, short_entry(tailed("A", 2)));
    dir.put(32, short_entry(tailed("A", 2)));
    medium.disk.bad_sectors = {dir.sectors[1]};
    medium.disk.failure_result = 0;
    const allocation_meter meter;
    EXPECT_EQ(ask("A          "), chosen("A~2        "));
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST_F(AddNumericTail, NoAllocationFailsUnseen) {
    dir.fill_up(short_entry("FULL       "));
    at_every_fault({EVERY_ALLOCATION}, [&](fault_step &step) {
        const answer a = step.run([&] { return ask("A          "); });
        if (!step.struck()) {
            EXPECT_EQ(a, chosen("A~1        "));
            return;
        }
        EXPECT_EQ(a.dos, "A          ");
        if (step.k == 0) {
            EXPECT_EQ(a.result, -ENOMEM);
        } else {
            // A link of the chain that cannot be followed.
            EXPECT_EQ(a.result, -EINVAL);
            EXPECT_EQ(a.messages.substr(0, a.messages.find(":(")),
                      "fat_read_entry[N]: cannot allocate FAT\n\n"
                      "get_phy_sector[N]: invalid value -12\n"
                      "get_dentry_with_clu[N]: Failed to get entry sector!");
        }
    });
}
