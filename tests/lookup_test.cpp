// Finding a name in a directory, and putting a stored long name together again.

#include "tests/support/capture.h"
#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/open_entries.h"
#include "tests/support/volume.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

const answer ABSENT = {-ENOENT, ""};

// One of the four kinds of directories.
struct kind {
    volume_shape shape;
    bool is_root;
};
std::ostream &operator<<(std::ostream &out, const kind &k) {
    return out << (k.is_root ? "Root" : "SubDirectory") << "Of" << k.shape;
}
std::string kind_name(const testing::TestParamInfo<kind> &info) {
    return testing::PrintToString(info.param);
}
const kind KINDS[] = {
    {{16, 512, 1}, true},  {{16, 512, 1}, false}, {{32, 512, 1}, true},
    {{32, 512, 1}, false}, {{16, 2048, 4}, true}, {{32, 4096, 2}, false},
};

// A directory of five scattered clusters, or a FAT16 root.
class in_directory : public testing::TestWithParam<kind> {
protected:
    answer heard(int result) {
        const answer a{result, messages.text()};
        messages.clear();
        return a;
    }
    answer found(u32 index) const {
        return {static_cast<int>(index), found_at(dir.base(), index)};
    }
    // Both functions return the same answer.
    answer find(std::string name, fat_name *record = nullptr) {
        std::string copy = name;
        const answer by_cluster = heard(find_dentry_with_clu(dir.base(), copy.data(), nullptr));
        const answer by_directory = heard(fat_find_dentry(&dir.record, name.data(), record));
        EXPECT_EQ(by_cluster, by_directory);
        return by_directory;
    }

    volume v{GetParam().shape};
    directory dir =
        GetParam().is_root
            ? (GetParam().shape.fat_type == 16 ? v.root() : v.longer_root({9, 7, 20, 8}))
            : v.sub_directory({5, 9, 7, 20, 8});
    diagnostics messages;
};

class FindDentry : public in_directory {};
INSTANTIATE_TEST_SUITE_P(Directories, FindDentry, testing::ValuesIn(KINDS), kind_name);

// The same if one kind of directory is enough.
class find_in_sub_directory : public in_directory {};
class FindSlots : public find_in_sub_directory {};
class FindFails : public find_in_sub_directory {};
const kind SUB_DIRECTORIES[] = {{{16, 512, 1}, false}, {{32, 512, 1}, false}};
INSTANTIATE_TEST_SUITE_P(Directories, FindSlots, testing::ValuesIn(SUB_DIRECTORIES), kind_name);
INSTANTIATE_TEST_SUITE_P(Directories, FindFails, testing::ValuesIn(SUB_DIRECTORIES), kind_name);

const std::u16string A13 = u"AAAAAAAAAAAAA";
const std::u16string B13 = u"BBBBBBBBBBBBB";
const std::u16string C13 = u"CCCCCCCCCCCCC";

std::string numbered(const char *before, u32 number, const char *after = "") {
    std::string result = before;
    result += std::to_string(number);
    result += after;
    return result;
}

std::string narrow(const std::u16string &wide) {
    return {wide.begin(), wide.end()};
}

} // namespace

// ---- short names ------------------------------------------------------------------------------

TEST_P(FindDentry, ShortNameIsFoundInAnyOneCaseByAllElevenBytes) {
    const u32 self = dir.append(short_entry(".          ", DIRECTORY, 5));
    const u32 parent = dir.append(short_entry("..         ", DIRECTORY));
    const u32 index = dir.append(short_entry("README  TXT"));
    const u32 escaped = dir.append(short_entry("\x05"
                                               "TOILE     "));
    const u32 other = dir.append(short_entry("CAF\xC3\xA9   TXT"));
    for (const auto &[name, at] :
         std::initializer_list<std::pair<const char *, u32>>{{".", self},
                                                             {"..", parent},
                                                             {"README.TXT", index},
                                                             {"readme.txt", index},
                                                             {"README.txt", index},
                                                             {"readme.TXT", index},
                                                             {"\xE5TOILE", escaped},
                                                             {"caf\xC3\xA9.txt", other}}) {
        EXPECT_EQ(find(name), found(at)) << name;
    }
    for (const char *name : {"README", "README.TX", "README.TXU", "READM.TXT", "README1.TXT",
                             "READMET.XT", "EADME.TXT"}) {
        EXPECT_EQ(find(name), ABSENT) << name;
    }
    char name[] = "readme.txt. . "; // trailing blanks and dots are cut off the caller's string
    EXPECT_EQ(heard(fat_find_dentry(&dir.record, name, nullptr)), found(index));
    EXPECT_STREQ(name, "readme.txt");
}

TEST_P(FindDentry, FirstOfTwoEqualNamesIsFound) {
    dir.append(short_entry("OTHER   TXT"));
    const u32 first = dir.append(short_entry("README  TXT"));
    dir.append(short_entry("README  TXT", DIRECTORY));
    EXPECT_EQ(find("README.TXT"), found(first));
}

TEST_P(FindDentry, FilesAndDirectoriesOfAnyAttributesAreFound) {
    u32 i = 0;
    for (const unsigned attr : {0x00U, 0x01U, 0x02U, 0x04U, 0x07U, 0x10U, 0x17U, 0x20U, 0x27U,
                                0x30U, 0x37U, 0x40U, 0x80U, 0xC7U, 0xF7U}) {
        const std::string dos = numbered("NAME", 100 + i++, "    ");
        const u32 index = dir.append(short_entry(dos, static_cast<u8>(attr)));
        EXPECT_EQ(find(dos.substr(0, 7)), found(index)) << "attributes " << attr;
    }
}

TEST_P(FindDentry, LabelsDeletedAndInvalidEntriesArePassed) {
    dir.append(short_entry("README  TXT", LABEL));
    dir.append(short_entry("README  TXT", LABEL | ARCHIVE));
    dir.append(deleted(short_entry("README  TXT")));
    EXPECT_EQ(find("README.TXT"), ABSENT);
    dir.append(short_entry("README  TXT", DIRECTORY | LABEL));
    const u32 index = dir.append(short_entry("README  TXT"));
    answer expected = found(index);
    expected.messages = "entry_type[N]: Unknown entry type: 24\n\n" + expected.messages;
    EXPECT_EQ(find("README.TXT"), expected);
}

TEST_P(FindDentry, NothingIsReadAfterAnUnusedEntry) {
    dir.append(short_entry("OTHER   TXT"));
    dir.append(entry_image{});
    dir.append(short_entry("README  TXT"));
    EXPECT_EQ(find("README.TXT"), ABSENT);
}

TEST_P(FindDentry, EmptyDirectoryIsLeftAtOnce) {
    dir.append(entry_image{});
    v.disk.log.clear();
    EXPECT_EQ(find("README.TXT"), ABSENT);
    const transfer first = {false, dir.sectors[0], 1};
    EXPECT_EQ(v.disk.log, (std::vector{first, first}));
}

TEST_P(FindDentry, NamesInEverySectorOfTheDirectoryAreFound) {
    for (u32 i = 0; i < dir.capacity() - 1; i++) {
        dir.append(short_entry(numbered("N", 1000 + i, "      ")));
    }
    for (u32 i = 0; i < dir.capacity() - 1; i += 7) {
        EXPECT_EQ(find(numbered("n", 1000 + i)), found(i));
    }
    EXPECT_EQ(find("n999"), ABSENT);
}

// ---- long names -------------------------------------------------------------------------------

TEST_P(FindDentry, LongNameIsFoundInItsOwnCaseAndByItsShortOne) {
    const u32 index = dir.append_long(u"ReadMe.txt", "README~1TXT");
    for (const char *name : {"ReadMe.txt", "README~1.TXT", "readme~1.txt"}) {
        EXPECT_EQ(find(name), found(index)) << name;
    }
    for (const char *name : {"ReadMe.TXT", "Readme.txt", "README.TXT", "readme.txt", "readME.txt",
                             "ReadMe.tx", "ReadMe.text", "eadMe.txt", "ReadMe~1.txt"}) {
        EXPECT_EQ(find(name), ABSENT) << name;
    }
}

TEST_P(FindDentry, NameWithALongFormNeedsSlots) {
    dir.append(short_entry("README  TXT"));
    EXPECT_EQ(find("ReadMe.txt"), ABSENT);
    dir.append(short_entry("LONGFILETXT"));
    EXPECT_EQ(find("longfilename.txt"), ABSENT);
}

TEST_P(FindDentry, LossyNameIsFoundByItsLongForm) {
    const u32 index = dir.append_long(u"longfilename.txt", "LONGFI~1TXT");
    EXPECT_EQ(find("longfilename.txt"), found(index));
    EXPECT_EQ(find("LONGFILENAME.TXT"), ABSENT);
    EXPECT_EQ(find("longfile.txt"), ABSENT);
    const u32 other = dir.append_long(u"a+b.txt", "A_B~1   TXT");
    EXPECT_EQ(find("a+b.txt"), found(other));
}

TEST_P(FindDentry, LongNameOfEveryLengthIsFound) {
    for (const std::size_t length : {9U, 12U, 13U, 14U, 25U, 26U, 27U, 39U, 130U, 254U, 255U}) {
        dir.go_to(0);
        dir.append(short_entry("OTHER   TXT"));
        const std::u16string name = std::u16string(length - 1, u'l') + u'x';
        const u32 index = dir.append_long(name, "LLLLLL~1   ");
        EXPECT_EQ(find(narrow(name)), found(index)) << length << " units";
        EXPECT_EQ(find(narrow(name.substr(0, length - 1))), ABSENT) << length << " units";
        EXPECT_EQ(find(narrow(name.substr(0, length - 1) + u'y')), ABSENT) << length << " units";
        if (length < 255) {
            EXPECT_EQ(find(narrow(name + u'x')), ABSENT) << length << " units";
        }
    }
}

TEST_P(FindDentry, NameOfMoreThan255CharactersIsCutToThem) {
    const std::u16string name = std::u16string(255, u'l');
    const u32 index = dir.append_long(name, "LLLLLL~1   ");
    EXPECT_EQ(find(std::string(256, 'l')), found(index));
    EXPECT_EQ(find(std::string(1000, 'l')), found(index));
}

TEST_P(FindDentry, WithLongNamesOffOnlyShortNamesCount) {
    sv->long_name = 0;
    const u32 long_index = dir.append_long(u"ReadMe.txt", "README~1TXT");
    EXPECT_EQ(find("ReadMe.txt"), ABSENT);
    const u32 index = dir.append(short_entry("README  TXT"));
    EXPECT_EQ(find("ReadMe.txt"), found(index));
    EXPECT_EQ(find("Readme~1.Txt"), found(long_index));
    const u32 cut = dir.append(short_entry("LONGFILETXT"));
    EXPECT_EQ(find("longfilename.txt"), found(cut));
}

TEST_P(FindDentry, SlotsDoNotMatterToANameWithoutALongForm) {
    dir.append(long_slots(u"OTHER.TXT", "OTHER   TXT"));
    dir.append(long_slot(0x7F, A13, 0));
    const u32 index = dir.append(short_entry("README  TXT"));
    EXPECT_EQ(find("README.TXT"), found(index));
}

// ---- slots in any state -----------------------------------------------------------------------

TEST_P(FindSlots, OrphanSlotsBelongToTheNextShortEntry) {
    dir.append(long_slots(u"ReadMe.txt", "README~1TXT"));
    const u32 index = dir.append(short_entry("OTHER   TXT"));
    EXPECT_EQ(find("ReadMe.txt"), found(index));
    EXPECT_EQ(find("OTHER.TXT"), found(index));
}

TEST_P(FindSlots, NameAfterOrphansAndDeletedEntriesIsFound) {
    dir.append(deleted(short_entry("README~1TXT")));
    dir.append(long_slots(std::u16string(40, u'o'), "OOOOOO~1   "));
    dir.append(deleted(long_slot(0x41, u"ReadMe.txt", 0)));
    dir.append(long_slots(std::u16string(30, u'p'), "PPPPPP~1   "));
    const u32 index = dir.append_long(u"ReadMe.txt", "README~1TXT");
    EXPECT_EQ(find("ReadMe.txt"), found(index));
}

TEST_P(FindSlots, SecondShortEntryAfterTheSlotsHasNoLongName) {
    dir.append(long_slots(u"OtherName", "OTHERN~1   "));
    dir.append(short_entry("OTHERN~1   "));
    dir.append(short_entry("README~1TXT"));
    EXPECT_EQ(find("ReadMe.txt"), ABSENT);
    EXPECT_EQ(find("README~1.TXT"), found(2));
}

TEST_P(FindSlots, UnitsOfAnEarlierNameRemainAfterALaterOneWithoutItsEnd) {
    dir.append_long(A13 + u"BBBB", "AAAAAA~1   ");
    dir.append(long_slot(0x01, C13, 0));
    const u32 index = dir.append(short_entry("CCCCCC~1   "));
    EXPECT_EQ(find(narrow(C13 + u"BBBB")), found(index));
    EXPECT_EQ(find(narrow(C13)), ABSENT);
}

TEST_P(FindSlots, FullLastSlotEndsTheNameBeforeOldUnits) {
    dir.append_long(A13 + u"BBBB", "AAAAAA~1   ");
    const u32 index = dir.append_long(C13, "CCCCCC~1   ");
    EXPECT_EQ(find(narrow(C13)), found(index));
    EXPECT_EQ(find(narrow(C13 + u"BBBB")), ABSENT);
}

TEST_P(FindSlots, MissingSlotLeavesTheUnitsThatWereThere) {
    dir.append_long(A13 + B13 + u"Tail", "AAAAAA~1   ");
    // The middle slot of three is gone.
    dir.append(long_slot(0x43, u"End", 0));
    dir.append(long_slot(0x01, C13, 0));
    const u32 index = dir.append(short_entry("CCCCCC~1   "));
    EXPECT_EQ(find(narrow(C13 + B13 + u"End")), found(index));
}

TEST_P(FindSlots, SlotsOutsideTheNameMakeItHaveSlotsAndNothingElse) {
    // Slots 1 to 19 are inside the 256 units, 20 in part, these not at all.
    for (const unsigned ordinal :
         {0x40U, 0x15U, 0x55U, 0x3FU, 0x7FU, 0x80U, 0x81U, 0xBFU, 0xC0U, 0xC1U, 0xFFU}) {
        dir.go_to(0);
        dir.append(long_slots(u"ReadMe.txt", "README~1TXT"));
        dir.append(deleted(short_entry("README~1TXT")));
        dir.append(long_slot(ordinal, A13, 0));
        const u32 index = dir.append(short_entry("OTHER   TXT"));
        EXPECT_EQ(find("ReadMe.txt"), found(index)) << "ordinal " << ordinal;
    }
}

TEST_P(FindSlots, ShortNamesAreComparedWhereTheGatheredNameIsEmpty) {
    for (const entry_image &slot :
         {long_slot(0x41, u"", 0), long_slot(0x01, u"", 0), long_slot(0x40, A13, 0),
          long_slot(0x7F, A13, 0), long_slot(0xC1, A13, 0), long_slot(0x42, A13, 0)}) {
        dir.go_to(0);
        dir.append(slot);
        dir.append(short_entry("OTHER   TXT"));
        dir.append(slot);
        const u32 index = dir.append(short_entry("README  TXT"));
        EXPECT_EQ(find("ReadMe.txt"), found(index)) << "ordinal " << int{slot[0]};
        EXPECT_EQ(find("NoOther.txt"), ABSENT) << "ordinal " << int{slot[0]};
    }
}

TEST_P(FindSlots, EmptyNameIsForgottenWithItsShortEntry) {
    dir.append(long_slot(0x41, u"", 0));
    dir.append(short_entry("OTHER   TXT"));
    dir.append(short_entry("README  TXT"));
    EXPECT_EQ(find("ReadMe.txt"), ABSENT);
}

TEST_P(FindSlots, TwentiethSlotEndsTheNameAtItsEighthUnit) {
    std::u16string name;
    for (unsigned k = 1; k <= 20; k++) {
        name += std::u16string(13, static_cast<char16_t>(u'a' + k));
    }
    for (unsigned k = 20; k >= 1; k--) {
        dir.append(long_slot(k == 20 ? 0x54 : k, name.substr((k - 1) * std::size_t{13}, 13), 0));
    }
    const u32 index = dir.append(short_entry("ABCDEF~1   "));
    // 256 units without a terminator are gathered; the searched name ends at 255.
    EXPECT_EQ(find(narrow(name.substr(0, 255))), ABSENT);
    // With a terminator at its position the name is found.
    dir.put(0, long_slot(0x54, name.substr(247, 8), 0));
    EXPECT_EQ(find(narrow(name.substr(0, 255))), found(index));
}

TEST_P(FindSlots, SixtyThreeSlotsAreGatheredUpToTheEndOfTheName) {
    std::u16string name(255, u'n');
    for (unsigned k = 63; k >= 1; k--) {
        const unsigned mark = k == 63 ? 0x40 : 0;
        const std::u16string units = k < 20    ? std::u16string(13, u'n')
                                     : k == 20 ? std::u16string(8, u'n')
                                               : A13;
        dir.append(long_slot(k | mark, units, 0));
    }
    const u32 index = dir.append(short_entry("NNNNNN~1   "));
    EXPECT_EQ(find(narrow(name)), found(index));
}

// ---- the end of the directory -----------------------------------------------------------------

TEST_P(FindDentry, FullDirectoryEndsTheWalkWithItsSpace) {
    dir.fill_up(short_entry("OTHER   TXT"));
    dir.put(dir.capacity() - 1, short_entry("LAST    TXT"));
    const std::string end =
        dir.base() == 0 ? "get_phy_sector[N]: Invalid sector number in Root dir\n\n" : "";
    EXPECT_EQ(find("LAST.TXT"), found(dir.capacity() - 1));
    EXPECT_EQ(find("README.TXT"),
              (answer{-ENOENT, end + "get_dentry_with_clu[N]: Failed to get entry sector!:(" +
                                   std::to_string(dir.base()) + ", " +
                                   std::to_string(dir.capacity()) + ")\n\n"}));
}

TEST_P(FindDentry, AllocatedSizeDoesNotBoundTheWalk) {
    dir.fill_up(short_entry("OTHER   TXT"));
    dir.put(dir.capacity() - 1, short_entry("LAST    TXT"));
    dir.record.allocated = 32;
    EXPECT_EQ(find("LAST.TXT"), found(dir.capacity() - 1));
}

TEST(FindInAnOddRoot, LargeAreaIsWalkedToItsEnd) {
    volume v({.root_entries = 1024});
    directory root = v.root();
    root.fill_up(short_entry("OTHER   TXT"));
    root.put(1023, short_entry("LAST    TXT"));
    diagnostics messages;
    char name[] = "LAST.TXT";
    EXPECT_EQ(fat_find_dentry(&root.record, name, nullptr), 1023);
    EXPECT_EQ(messages.text(), "find_dentry_with_clu[N]: found index:(0, 1023)\n");
}

// ---- failures ---------------------------------------------------------------------------------

TEST_P(FindFails, NameOfNothingIsRefusedBeforeTheWalk) {
    v.disk.log.clear();
    for (const char *name : {"", " ", "...", ". ."}) {
        const answer a = find(name);
        EXPECT_EQ(a, (answer{-EINVAL, "convert_cstring_to_dosname[N]: zero length string!\n\n"
                                      "convert_name[N]: invalid name in DOS:" +
                                          std::string(name) +
                                          "\n"
                                          "find_dentry_with_clu[N]: Failed to get fatnames!\n\n"}));
    }
    EXPECT_TRUE(v.disk.log.empty());
}

TEST_P(FindFails, LongFormThatIsNotAsciiCannotBeLookedFor) {
    EXPECT_EQ(find("Caf\xC3\xA9.txt"),
              (answer{-EINVAL, "convert_cstring_to_uname[N]: cannot convert non-ascii\n"
                               "convert_name[N]: Failed to convert ...!\n\n"
                               "find_dentry_with_clu[N]: Failed to get fatnames!\n\n"}));
}

TEST_P(FindFails, NameBeforeTheDamageIsFound) {
    dir.fill_up(short_entry("OTHER   TXT"));
    dir.put(31, short_entry("README  TXT"));
    v.set_link(9, 1);
    EXPECT_EQ(find("README.TXT"), found(31));
}

TEST_P(FindFails, OnlyANegativeResultOfAReadEndsTheWalk) {
    dir.fill_up(short_entry("OTHER   TXT"));
    dir.put(40, short_entry("README  TXT"));
    v.disk.reads_before_failure = 0;
    v.disk.failure_result = 2;
    char name[] = "README.TXT";
    EXPECT_EQ(heard(find_dentry_with_clu(5, name, nullptr)), found(40));
}

// ---- memory -----------------------------------------------------------------------------------

namespace {

// The answers of a lookup when the first, the second, ... allocation fails, up to the first one
// that does not matter. Nothing is left allocated by any of them.
class FindWithoutMemory : public find_in_sub_directory {
protected:
    std::vector<answer> answers(const std::string &name, bool with_record) {
        std::vector<answer> result;
        at_every_fault({EVERY_ALLOCATION}, [&](fault_step &step) {
            std::string text = name;
            fat_name record = {};
            result.push_back(heard(step.run([&] {
                const int status =
                    find_dentry_with_clu(5, text.data(), with_record ? &record : nullptr);
                release_name(&record);
                return status;
            })));
        });
        return result;
    }

    const answer no_memory = {-ENOMEM, "find_dentry_with_clu[N]: Failed to allocate memory!\n\n"};
    const answer no_names = {-ENOMEM, "convert_name[N]: cannot allocate space\n"
                                      "find_dentry_with_clu[N]: Failed to get fatnames!\n\n"};
};
INSTANTIATE_TEST_SUITE_P(Directories, FindWithoutMemory, testing::ValuesIn(SUB_DIRECTORIES),
                         kind_name);

} // namespace

TEST_P(FindWithoutMemory, ShortNameInTheFirstSector) {
    dir.append(short_entry("README  TXT"));
    // The record, its short name, the sector.
    EXPECT_EQ(answers("README.TXT", false),
              (std::vector{no_memory, no_names, no_memory, found(0)}));
    EXPECT_EQ(answers("README.TXT", true), (std::vector{no_names, no_memory, found(0)}));
}

TEST_P(FindWithoutMemory, LongNameInTheSecondCluster) {
    dir.fill_up(short_entry("OTHER   TXT"));
    dir.go_to(20);
    const u32 index = dir.append_long(u"ReadMe.txt", "README~1TXT");
    const answer no_fat = {-EINVAL,
                           "fat_read_entry[N]: cannot allocate FAT\n\n"
                           "get_phy_sector[N]: invalid value -12\n"
                           "get_dentry_with_clu[N]: Failed to get entry sector!:(5, 16)\n\n"
                           "find_dentry_with_clu[N]: fail to get dentry(5, 16):"
                           "Invalid argument\n"};
    // The record, its two names, the sector, the FAT sector.
    EXPECT_EQ(answers("ReadMe.txt", false),
              (std::vector{no_memory, no_names, no_names, no_memory, no_fat, found(index)}));
    EXPECT_EQ(answers("ReadMe.txt", true),
              (std::vector{no_names, no_names, no_memory, no_fat, found(index)}));
}

TEST_P(FindWithoutMemory, NothingStaysAllocatedOnAnyOtherPath) {
    dir.append_long(u"ReadMe.txt", "README~1TXT");
    const allocation_meter meter;
    for (const char *name : {"ReadMe.txt", "README~1.TXT", "Absent.txt", "ABSENT", "", "Caf\xC3"}) {
        std::string text = name;
        (void)find_dentry_with_clu(5, text.data(), nullptr);
    }
    v.disk.bad_sectors = {dir.sectors[0]};
    char text[] = "ReadMe.txt";
    EXPECT_EQ(find_dentry_with_clu(5, text, nullptr), -EIO);
    EXPECT_EQ(meter.live_blocks(), 0);
}

// ---- the caller's record ----------------------------------------------------------------------

namespace {

class FindFills : public find_in_sub_directory {
protected:
    ~FindFills() override {
        release_name(&record);
    }
    void expect_filled(const char *cstring, const std::string &dos, const std::u16string &wide) {
        EXPECT_EQ(record.cstring, cstring);
        EXPECT_EQ(std::string(record.dosName, record.dosName + 11), dos);
        EXPECT_EQ(record.ulen, wide.size());
        if (wide.empty()) {
            EXPECT_EQ(record.unicode, nullptr);
        } else {
            EXPECT_EQ(std::u16string(record.unicode, record.unicode + wide.size()), wide);
            EXPECT_EQ(record.unicode[wide.size()], 0);
        }
    }

    fat_name record = {};
};
INSTANTIATE_TEST_SUITE_P(Directories, FindFills, testing::ValuesIn(SUB_DIRECTORIES), kind_name);

} // namespace

TEST_P(FindFills, RecordOfANameThatIsFound) {
    const u32 index = dir.append_long(u"ReadMe.txt", "README~1TXT");
    char name[] = "ReadMe.txt";
    EXPECT_EQ(heard(fat_find_dentry(&dir.record, name, &record)), found(index));
    expect_filled(name, "README  TXT", u"ReadMe.txt");
    EXPECT_EQ(record.lcase, 0x18);
    EXPECT_EQ(record.lossy, 0U);
}

TEST_P(FindFills, RecordOfANameThatIsAbsent) {
    char name[] = "readme.TXT";
    EXPECT_EQ(heard(fat_find_dentry(&dir.record, name, &record)), ABSENT);
    expect_filled(name, "README  TXT", u"");
    EXPECT_EQ(record.lcase, 0x08);
    EXPECT_EQ(record.lossy, 0U);
}

TEST_P(FindFills, RecordOfAWalkThatFailed) {
    v.disk.bad_sectors = {dir.sectors[0]};
    char name[] = "longfilename.txt";
    EXPECT_EQ(heard(fat_find_dentry(&dir.record, name, &record)).result, -EIO);
    expect_filled(name, "LONGFILETXT", u"longfilename.txt");
    EXPECT_EQ(record.lossy, 1U);
}

// ---- one entry of a lookup --------------------------------------------------------------------

namespace {

class CompareEntryName : public testing::Test {
protected:
    CompareEntryName() {
        std::fill(std::begin(gathered), std::end(gathered), CANARY);
        gathered[0] = 0;
    }
    // `wide` null: a name without a long form.
    answer compare(const entry_image &entry, const char16_t *wide) {
        u16 unicode[256] = {};
        for (std::size_t i = 0; wide != nullptr && wide[i] != 0; i++) {
            unicode[i] = wide[i];
        }
        const int result =
            compare_entry_name(entry.data(), reinterpret_cast<const u8 *>("README  TXT"),
                               wide != nullptr ? unicode : nullptr, gathered, &flag);
        const answer a{result, messages.text()};
        messages.clear();
        for (std::size_t i = 256; i < std::size(gathered); i++) {
            EXPECT_EQ(gathered[i], CANARY) << "unit " << i << " is outside";
        }
        return a;
    }
    void gather(const char16_t *wide) {
        std::size_t i = 0;
        for (; wide[i] != 0; i++) {
            gathered[i] = wide[i];
        }
        gathered[i] = 0;
        flag = 1;
    }

    static constexpr u16 CANARY = 0x7777;
    const answer match = {-EEXIST, ""};
    const answer no_match = {0, ""};
    const entry_image file = short_entry("README  TXT");
    const entry_image other = short_entry("OTHER   TXT");
    volume v;
    diagnostics messages;
    u16 gathered[300];
    u32 flag = 0;
};

} // namespace

TEST_F(CompareEntryName, EachRowMatchesOrNotAndLeavesItsFlag) {
    const char16_t *const name = u"ReadMe.txt";
    const entry_image label = short_entry("README  TXT", LABEL);
    const entry_image a_slot = long_slot(0x41, u"README.TXT", 0);
    const entry_image none = {};
    const struct {
        const entry_image &entry;
        const char16_t *wide;       // null: a name without a long form
        const char16_t *slots_have; // gathered before
        u32 flag_before;
        bool matches;
        u32 flag_after;
        u8 long_names = 1;
    } rows[] = {
        {other, name, name, 1, true, 1},
        {file, name, u"ReadMe.tx", 1, false, 0},
        {file, name, u"", 0, false, 0},
        {file, name, name, 0, false, 0},
        // An empty gathered name leaves it to the short one.
        {file, name, u"", 1, true, 1},
        {other, name, u"", 1, false, 0},
        // Of a long form, the walk clears the flag at other entries.
        {deleted(file), name, name, 1, false, 1},
        {label, name, name, 1, false, 1},
        {none, name, name, 1, false, 1},
        {file, nullptr, u"Whatever", 1, true, 1},
        {other, nullptr, u"Whatever", 1, false, 1},
        {file, nullptr, u"Whatever", 0, true, 0},
        {a_slot, nullptr, u"X", 1, false, 0},
        {deleted(file), nullptr, u"X", 1, false, 0},
        {label, nullptr, u"X", 1, false, 0},
        {none, nullptr, u"X", 1, false, 0},
        // With long names off the long form does not count.
        {other, name, name, 1, false, 1, 0},
        {file, name, name, 1, true, 1, 0},
        {a_slot, name, name, 1, false, 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        sv->long_name = row.long_names;
        gather(row.slots_have);
        flag = row.flag_before;
        EXPECT_EQ(compare(row.entry, row.wide), row.matches ? match : no_match);
        EXPECT_EQ(flag, row.flag_after);
        EXPECT_TRUE(std::equal(gathered, gathered + std::u16string(row.slots_have).size() + 1,
                               row.slots_have));
    }
}

TEST_F(CompareEntryName, SlotSetsTheFlagAndItsUnits) {
    EXPECT_EQ(compare(long_slot(0x42, u"Tail", 0), u"ReadMe.txt"), no_match);
    EXPECT_NE(flag, 0U);
    EXPECT_EQ(std::u16string(gathered + 13, gathered + 18), (std::u16string{u"Tail\0", 5}));
    EXPECT_EQ(gathered[12], CANARY);
    EXPECT_EQ(gathered[18], CANARY);
}

TEST_F(CompareEntryName, SlotsOutsideThe256UnitsOnlySetTheFlag) {
    for (const unsigned ordinal : {0x40U, 0x15U, 0x3FU, 0x55U, 0x7FU, 0x80U, 0xBFU, 0xFFU}) {
        flag = 0;
        EXPECT_EQ(compare(long_slot(ordinal, A13, 0), u"ReadMe.txt"), no_match);
        EXPECT_NE(flag, 0U) << "ordinal " << ordinal;
        for (std::size_t i = 1; i < 256; i++) {
            ASSERT_EQ(gathered[i], CANARY) << "ordinal " << ordinal << ", unit " << i;
        }
    }
}

TEST_F(CompareEntryName, TwentiethSlotIsCutAtTheEnd) {
    EXPECT_EQ(compare(long_slot(0x54, A13, 0), u"ReadMe.txt"), no_match);
    EXPECT_EQ(gathered[246], CANARY);
    EXPECT_EQ(std::u16string(gathered + 247, gathered + 256), A13.substr(0, 9));
}

TEST_F(CompareEntryName, MissingBufferForTheGatheredNameCountsAsAMatchOfALongForm) {
    const u16 wide[256] = {'A', 0};
    const u8 *const dos = reinterpret_cast<const u8 *>("README  TXT");
    EXPECT_EQ(compare_entry_name(other.data(), dos, nullptr, nullptr, &flag), 0);
    EXPECT_EQ(messages.text(), "");
    EXPECT_EQ(compare_entry_name(file.data(), dos, wide, nullptr, &flag), -EEXIST);
    EXPECT_EQ(messages.text(), "compare_entry_name[N]: extended name is null\n\n");
}

// ---- comparing long names ---------------------------------------------------------------------

namespace {

int compare(const std::u16string &a, const std::u16string &b) {
    std::vector<u16> units_a(a.begin(), a.end());
    std::vector<u16> units_b(b.begin(), b.end());
    if (units_a.size() < 256) {
        units_a.push_back(0);
    }
    if (units_b.size() < 256) {
        units_b.push_back(0);
    }
    return uname_compare(units_a.data(), units_b.data());
}

} // namespace

TEST(UnameCompare, GivesTheDifferenceOfTheFirstDifferingUnits) {
    const std::u16string x256(256, u'x');
    const std::u16string almost = x256.substr(0, 255) + u'z';
    for (const std::size_t length : {0U, 1U, 13U, 255U, 256U}) {
        EXPECT_EQ(compare(x256.substr(0, length), x256.substr(0, length)), 0);
    }
    for (const auto &[a, b, difference] :
         std::initializer_list<std::tuple<std::u16string, std::u16string, int>>{
             {u"ABC", u"ABD", -1},
             {u"ABD", u"ABC", 1},
             {u"a", u"A", 32},
             {u"AB", u"A", 'B'},
             {u"A", u"AB", -'B'},
             {u"", u"\xFFFF", -0xFFFF},
             {u"\xFFFF", u"", 0xFFFF},
             {u"XA", u"YB", -1},
             {{u"AB\0C", 4}, {u"AB\0D", 4}, 0},
             {x256, almost, -2}}) {
        EXPECT_EQ(compare(a, b), difference);
    }
}

// ---- putting a long name together -------------------------------------------------------------

namespace {

class GetLongName : public in_directory {
protected:
    static constexpr u16 CANARY = 0x7777;

    // The answer for the slot at `index`; the units are left in `units`, the next entry of the
    // walk in `entry`.
    answer long_name(u32 index) {
        std::fill(units.begin(), units.end(), CANARY);
        EXPECT_EQ(fat_get_dentry(&dir.record, index, &entry, buffer.data(), nullptr), 0);
        v.disk.log.clear();
        const answer a =
            heard(get_long_name(&dir.record, index, &entry, buffer.data(), units.data()));
        EXPECT_GE(entry, buffer.data());
        EXPECT_LE(entry, buffer.data() + buffer.size() - 32);
        EXPECT_EQ((entry - buffer.data()) % 32, 0);
        EXPECT_EQ(units[256], CANARY) << "a unit outside was written";
        return a;
    }
    // Up to the terminator.
    [[nodiscard]] std::u16string name() const {
        const auto end = std::find(units.begin(), units.end(), 0);
        return {units.begin(), end};
    }
    [[nodiscard]] bool stands_at(u32 index) const {
        const entry_image image = dir.at(index);
        return std::equal(image.begin(), image.end(), entry);
    }
    // Another checksum than that of the name.
    static u8 wrong(std::string_view dos) {
        return static_cast<u8>(checksum_of(dos) + 1);
    }
    answer mismatch(u32 index) const {
        return {0, "get_long_name[N]: not match checksum(" + std::to_string(index) + ")\n"};
    }

    const answer none = {0, ""};
    const std::string DOS = "README~1TXT";
    const u8 sum = checksum_of(DOS);
    std::vector<u8> buffer = std::vector<u8>(sv->sector_size);
    u8 *entry = nullptr;
    std::vector<u16> units = std::vector<u16>(257);
};
INSTANTIATE_TEST_SUITE_P(Directories, GetLongName, testing::ValuesIn(KINDS), kind_name);

} // namespace

TEST_P(GetLongName, NamesOfEveryLengthComeBackWithTheirSlots) {
    for (std::size_t length = 1; length <= 255; length++) {
        std::u16string wide;
        for (std::size_t i = 0; i < length; i++) {
            wide += static_cast<char16_t>(0x100 + i);
        }
        dir.go_to(3);
        const u32 index = dir.append_long(wide, DOS);
        const int slots = static_cast<int>((length + 12) / 13);
        ASSERT_EQ(long_name(3), (answer{slots, ""})) << length << " units";
        ASSERT_EQ(name(), wide);
        ASSERT_TRUE(stands_at(index));
    }
}

TEST_P(GetLongName, NameOfADirectoryIsReturnedToo) {
    dir.append(long_slots(u"Directory", DOS));
    dir.append(short_entry(DOS, DIRECTORY));
    EXPECT_EQ(long_name(0), (answer{1, ""}));
    EXPECT_EQ(name(), u"Directory");
}

TEST_P(GetLongName, SlotsGoOnInTheNextSector) {
    const std::u16string wide = A13 + B13 + C13 + u"Tail";
    for (u32 first = volume::entries_per_sector() - 5; first <= volume::entries_per_sector();
         first++) {
        dir.go_to(first);
        const u32 index = dir.append_long(wide, DOS);
        EXPECT_EQ(long_name(first), (answer{4, ""})) << "from entry " << first;
        EXPECT_EQ(name(), wide);
        EXPECT_TRUE(stands_at(index));
    }
}

TEST_P(GetLongName, UnitsAfterThe256thAreOmitted) {
    std::u16string wide;
    for (unsigned k = 63; k >= 1; k--) {
        const std::u16string part(13, static_cast<char16_t>(0x100 + k));
        dir.append(long_slot(k | (k == 63 ? 0x40U : 0), part, sum));
        wide.insert(0, part);
    }
    const u32 index = dir.append(short_entry(DOS));
    EXPECT_EQ(long_name(0), (answer{63, ""}));
    EXPECT_EQ(std::u16string(units.begin(), units.begin() + 256), wide.substr(0, 256));
    EXPECT_TRUE(stands_at(index));
}

TEST_P(GetLongName, ReadFailuresComeThrough) {
    const u32 first = volume::entries_per_sector() - 2;
    dir.go_to(first);
    dir.append(long_slots(A13 + B13 + u"Tail", DOS));
    const u32 sector = dir.sectors[1];
    v.disk.bad_sectors = {sector};
    EXPECT_EQ(long_name(first),
              (answer{-EIO, "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                                std::to_string(sector) +
                                ")\n"
                                "get_long_name[N]: Failed to get entry with cluster ...\n\n"}));
}

TEST_P(GetLongName, SlotsUpToTheEndOfTheSpaceHaveNoShortEntry) {
    const u32 capacity = dir.capacity();
    dir.go_to(capacity - 2);
    dir.append(long_slots(A13 + u"Tail", DOS));
    const std::string end =
        dir.base() == 0 ? "get_phy_sector[N]: Invalid sector number in Root dir\n\n" : "";
    EXPECT_EQ(long_name(capacity - 2),
              (answer{-EFAULT, end + "get_dentry_with_clu[N]: Failed to get entry sector!:(" +
                                   std::to_string(dir.base()) + ", " + std::to_string(capacity) +
                                   ")\n\n"
                                   "get_long_name[N]: Failed to get entry with cluster ...\n\n"}));
}

TEST_P(GetLongName, NoSectorIsReadMoreThanOnceForEachEntry) {
    dir.append_long(std::u16string(255, u'x'), DOS);
    EXPECT_EQ(long_name(0), (answer{20, ""}));
    EXPECT_LE(v.traffic(), 20U * 2);
}
