// Short names: conversion both ways, the record of a name, tails, refused names, entry types.

#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/names.h"
#include "tests/support/volume.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

using namespace fat;
using namespace testing_support;
using record = model::name_record;
using model::short_form;

namespace {

constexpr std::optional<unsigned> NOT_WRITTEN = std::nullopt;

short_form faithful(const std::string &left, const std::string &dos,
                    std::optional<unsigned> case_byte) {
    return {0, left, dos, case_byte, false};
}
short_form lossy(const std::string &left, const std::string &dos, unsigned case_byte) {
    return {0, left, dos, case_byte, true};
}

std::u16string units_of(std::string_view text) {
    return {text.begin(), text.end()};
}

// Cases check the library's messages; a volume is open only in cases that open one.
class Names : public testing::Test {
protected:
    diagnostics messages;
};

class RemoveTrailBlanks : public Names {
protected:
    // The string afterwards.
    static std::string cut(const std::string &text) {
        caller_string string(text);
        char *end = nullptr;
        EXPECT_EQ(remove_trail_blanks(string.get(), &end), 0);
        EXPECT_EQ(end, string.get() + string.text().size());
        return string.text();
    }
};

class ConvertCstringToDosname : public Names {};
class ConvertDosnameToCstring : public Names {};
class DosnameChecksum : public Names {};
class VerifyValidName : public Names {};
class EntryType : public Names {};

// A record needs an open volume, for its long-name flag.
class NameRecord : public Names {
protected:
    NameRecord() : disk(4096) {
        sv->long_name = 1;
    }

    record fill(const std::string &name) {
        return to_record(name, &messages);
    }

    ram_disk disk;
};

class ConvertName : public NameRecord {};
class GetFatnames : public NameRecord {};
class ReleaseName : public NameRecord {};

} // namespace

// ---- trailing blanks and dots -----------------------------------------------------------------

TEST_F(RemoveTrailBlanks, NoStringIsRefused) {
    char *end = nullptr;
    EXPECT_EQ(remove_trail_blanks(nullptr, &end), -EINVAL);
    EXPECT_EQ(remove_trail_blanks(nullptr, nullptr), -EINVAL);
    EXPECT_EQ(messages.text(), "remove_trail_blanks[N]: NULL string!\n\n"
                               "remove_trail_blanks[N]: NULL string!\n\n");
}

TEST_F(RemoveTrailBlanks, CutsBlanksAndDotsButNeverTheFirstCharacter) {
    for (const auto &[text, left] :
         std::initializer_list<std::pair<const char *, const char *>>{{"file.txt   ", "file.txt"},
                                                                      {"file.txt..", "file.txt"},
                                                                      {"file. . .. ", "file"},
                                                                      {"a.", "a"},
                                                                      {"plain", "plain"},
                                                                      {" a .b. c. ", " a .b. c"},
                                                                      {"..a", "..a"},
                                                                      {"tab\t", "tab\t"},
                                                                      {"line\n", "line\n"},
                                                                      {"hard\xA0", "hard\xA0"},
                                                                      {".", "."},
                                                                      {" ", " "},
                                                                      {"...", "."},
                                                                      {"    ", " "},
                                                                      {" . ", " "},
                                                                      {". .", "."},
                                                                      {"", ""}}) {
        EXPECT_EQ(cut(text), left);
    }
    EXPECT_EQ(messages.text(), "");
}

TEST_F(RemoveTrailBlanks, TheEndIsOptional) {
    caller_string string("name. .");
    EXPECT_EQ(remove_trail_blanks(string.get(), nullptr), 0);
    EXPECT_EQ(string.text(), "name");
}

// ---- a string to a short name -----------------------------------------------------------------

namespace {

// A string and its short name. The lossy ones lose characters.
struct short_row {
    std::string text;
    std::string dos;
    std::optional<unsigned> case_byte;
    std::string left; // of the caller's string; empty: all of it
};

const std::string X5000(5000, 'x');
const std::string DOTS(5000, '.');

const short_row FAITHFUL[] = {
    // Dot names are fixed and their case byte is not written.
    {".", ".          ", NOT_WRITTEN, ""},
    {"..", "..         ", NOT_WRITTEN, ""},
    // Base and extension are padded and made upper case.
    {"readme.txt", "README  TXT", 0x18, ""},
    {"a", "A          ", 0x08, ""},
    {"a.b", "A       B  ", 0x18, ""},
    {"abcdefgh.ijk", "ABCDEFGHIJK", 0x18, ""},
    {"noext", "NOEXT      ", 0x08, ""},
    {"12345678.123", "12345678123", 0x00, ""},
    {"_._", "_       _  ", 0x00, ""},
    // Trailing blanks and dots are cut off the caller's string without loss.
    {"file.txt   ", "FILE    TXT", 0x18, "file.txt"},
    {"file.txt..", "FILE    TXT", 0x18, "file.txt"},
    {"FILE. . ", "FILE       ", 0x07, "FILE"},
    // Invalid characters and device names are not refused here; bytes above ASCII have no case.
    {"\\/:*?\"<>.|", "\\/:*?\"<>|  ", 0x00, ""},
    {"CON", "CON        ", 0x07, ""},
    {"\xC3\xA9t\xC3\xA9.\xE4", "\xC3\xA9T\xC3\xA9   \xE4  ", 0x08, ""},
    // A first byte E5 is stored as 05, the same as a first byte 05.
    {"\xE5", "\x05          ", 0x00, ""},
    {"\xE5\xE5.\xE5", "\x05\xE5      \xE5  ", 0x00, ""},
    {"\x05", "\x05          ", 0x00, ""},
    // Upper case leaves 07 and E0, lower case 08 and 10: a half of both has all bits of its half.
    {"README.TXT", "README  TXT", 0xE7, ""},
    {"README", "README     ", 0x07, ""},
    {"123.TXT", "123     TXT", 0xE0, ""},
    {"readme", "README     ", 0x08, ""},
    {"123.txt", "123     TXT", 0x10, ""},
    {"README.txt", "README  TXT", 0x17, ""},
    {"readme.TXT", "README  TXT", 0xE8, ""},
    {"123.456", "123     456", 0x00, ""},
    {"ReadMe.TXT", "README  TXT", 0xFF, ""},
    {"ReadMe", "README     ", 0xFF, ""},
    {"README.Txt", "README  TXT", 0xFF, ""},
    {"readme.tXt", "README  TXT", 0xFF, ""},
    {"1.tX", "1       TX ", 0xFF, ""},
    {"ReadMe.Txt", "README  TXT", 0xFF, ""},
    {"aB.1", "AB      1  ", 0xFF, ""},
};

const short_row LOSSY[] = {
    // Leading blanks and dots are dropped.
    {".profile", "PROFILE    ", 0x08, ""},
    {"..a", "A          ", 0x08, ""},
    {" .. a.b", "A       B  ", 0x18, ""},
    {" a", "A          ", 0x08, ""},
    {".a. ", "A          ", 0x08, ".a"},
    {".\xE5", "\x05          ", 0x00, ""},
    // The last dot splits; the others and blanks are dropped.
    {"a.b.c", "AB      C  ", 0x18, ""},
    {"1..2", "1       2  ", 0x00, ""},
    {"archive.tar.gz", "ARCHIVETGZ ", 0x18, ""},
    {"a b.c d", "AB      CD ", 0x18, ""},
    {"1 .2", "1       2  ", 0x00, ""},
    {"1. 2", "1       2  ", 0x00, ""},
    {"a+b.txt", "A_B     TXT", 0x18, ""},
    {"+", "_          ", 0x00, ""},
    // Characters past the end of a half are cut, and their case does not count.
    {"longfilename.txt", "LONGFILETXT", 0x18, ""},
    {"123456789", "12345678   ", 0x00, ""},
    {"1.1234", "1       123", 0x00, ""},
    {"12345678 .1", "123456781  ", 0x00, ""},
    {"abcdefghI.txtT", "ABCDEFGHTXT", 0x18, ""},
    {"12345678a.123B", "12345678123", 0x00, ""},
    // Dropped characters take no room.
    {"1 2 3 4 5 6 7 8.1 2 3", "12345678123", 0x00, ""},
    {X5000 + "." + X5000, "XXXXXXXXXXX", 0x18, ""},
    {DOTS + "a" + DOTS, "A          ", 0x08, DOTS + "a"},
};

} // namespace

TEST_F(ConvertCstringToDosname, EachRowGivesItsElevenBytesAndItsCaseByte) {
    for (const auto &[text, dos, case_byte, left] : FAITHFUL) {
        EXPECT_EQ(to_short(text), faithful(left.empty() ? text : left, dos, case_byte)) << text;
    }
    for (const auto &[text, dos, case_byte, left] : LOSSY) {
        EXPECT_EQ(to_short(text), lossy(left.empty() ? text : left, dos, *case_byte)) << text;
    }
    EXPECT_EQ(messages.text(), "");
}

TEST_F(ConvertCstringToDosname, NothingButDotsAndBlanksHasNoLength) {
    for (const char *name :
         {"", " ", "   ", "...", "....", ". ", " .", ".. ", " ..", ". .", "\x20."}) {
        messages.clear();
        EXPECT_EQ(to_short(name), (short_form{-EINVAL, name, "", NOT_WRITTEN, false})) << name;
        EXPECT_EQ(messages.text(), "convert_cstring_to_dosname[N]: zero length string!\n\n")
            << name;
    }
}

TEST_F(ConvertCstringToDosname, TheOutputsAreOptional) {
    for (const auto &[name, dos] : std::vector<std::pair<std::string, std::string>>{
             {"Read+me.txt", "READ_ME TXT"}, {".", ".          "}, {"..", "..         "}}) {
        caller_string string(name);
        dos_block block;
        EXPECT_EQ(convert_cstring_to_dosname(string.get(), block.get(), nullptr, nullptr), 0);
        EXPECT_EQ(block.text(), dos);
    }
    caller_string empty("");
    dos_block block;
    EXPECT_EQ(convert_cstring_to_dosname(empty.get(), block.get(), nullptr, nullptr), -EINVAL);
}

TEST_F(ConvertCstringToDosname, SixCharactersBecomeUnderscoresAndAreLost) {
    for (const char c : std::string("+,;=[]")) {
        const std::string name = std::string("1") + c + "." + c + "2";
        EXPECT_EQ(to_short(name), lossy(name, "1_      _2 ", 0x00)) << c;
    }
}

TEST_F(ConvertCstringToDosname, EveryOtherCharacterIsKept) {
    for (int c = 1; c < 256; c++) {
        const char character = static_cast<char>(c);
        if (std::string(" .+,;=[]").find(character) != std::string::npos ||
            model::is_upper(character) || model::is_lower(character)) {
            continue;
        }
        const std::string name = std::string("0") + character + "." + character;
        EXPECT_EQ(to_short(name),
                  faithful(name, std::string("0") + character + "      " + character + "  ", 0x00))
            << c;
    }
}

// ---- the record of a name ---------------------------------------------------------------------

TEST_F(GetFatnames, BothArgumentsAreNeeded) {
    fat_name name = {};
    caller_string string("a");
    EXPECT_EQ(get_fatnames(nullptr, &name), -EINVAL);
    EXPECT_EQ(get_fatnames(string.get(), nullptr), -EINVAL);
    EXPECT_EQ(messages.text(), "get_fatnames[N]: Invalid arg!\n\n"
                               "get_fatnames[N]: Invalid arg!\n\n");
}

namespace {

// A string and its record.
struct record_row {
    std::string text;
    std::string left;
    std::string dos;
    std::string units; // empty: no long name
    unsigned lcase;
    unsigned lossy = 0;
};

const record_row WITH_LONG_NAMES[] = {
    {"readme.txt", "readme.txt", "README  TXT", "", 0x18},
    {"ReadMe.TXT", "ReadMe.TXT", "README  TXT", "ReadMe.TXT", 0x18},
    {"longfilename.txt", "longfilename.txt", "LONGFILETXT", "longfilename.txt", 0x18, 1},
    {"A+B.txt", "A+B.txt", "A_B     TXT", "A+B.txt", 0x10, 1},
    {" .pro file. .", " .pro file", "PROFILE    ", " .pro file", 0x08, 1},
    {".", ".", ".          ", "", 0},
    {"..", "..", "..         ", "", 0},
    {"\xC3\xA9t\xC3\xA9.txt", "\xC3\xA9t\xC3\xA9.txt", "\xC3\xA9T\xC3\xA9   TXT", "", 0x18},
};
const std::string E9(9, '\xE9');
const record_row WITHOUT_LONG_NAMES[] = {
    {"ReadMe.TXT", "ReadMe.TXT", "README  TXT", "", 0x18},
    {".long file name.text. ", ".long file name.text", "LONGFILETEX", "", 0x18},
    {E9, E9, E9.substr(1) + "   ", "", 0},
    {"a+b", "a+b", "A_B        ", "", 0x08},
};

record record_of(const record_row &row) {
    const std::u16string units = units_of(row.units);
    return {
        0,         "",       row.left, row.dos, units.empty() ? std::nullopt : std::optional(units),
        row.lcase, row.lossy};
}

} // namespace

TEST_F(GetFatnames, EachRowGivesItsRecord) {
    for (const record_row &row : WITH_LONG_NAMES) {
        EXPECT_EQ(fill(row.text), record_of(row));
    }
    // Only a flag of 1 turns long names on. Without them nothing is lossy, and the case bits stay.
    for (const unsigned flag : {0U, 2U}) {
        sv->long_name = static_cast<u8>(flag);
        for (const record_row &row : WITHOUT_LONG_NAMES) {
            EXPECT_EQ(fill(row.text), record_of(row));
        }
    }
}

TEST_F(GetFatnames, AnEmptyNameAndANonAsciiNameAreRefused) {
    const std::string empty = "convert_cstring_to_dosname[N]: zero length string!\n\n"
                              "convert_name[N]: invalid name in DOS:";
    EXPECT_EQ(fill(". . "), (record{-EINVAL, empty + ". . \n", ". . ", "", std::nullopt, 0, 0}));
    EXPECT_EQ(fill(""), (record{-EINVAL, empty + "\n", "", "", std::nullopt, 0, 0}));
    EXPECT_EQ(fill("a+\xC3\xA9. "),
              (record{-EINVAL,
                      "convert_cstring_to_uname[N]: cannot convert non-ascii\n"
                      "convert_name[N]: Failed to convert ...!\n\n",
                      "a+\xC3\xA9", "", std::nullopt, 0, 0}));
}

TEST_F(GetFatnames, TheCaseBitsOfTheEntryFollowTheHalves) {
    for (const auto &[name, lcase] :
         std::initializer_list<std::pair<const char *, unsigned>>{{"readme.txt", 0x18},
                                                                  {"README.txt", 0x10},
                                                                  {"readme.TXT", 0x08},
                                                                  {"README.TXT", 0x00},
                                                                  {"readme", 0x08},
                                                                  {"README", 0x00},
                                                                  {"1.txt", 0x10},
                                                                  {"1.TXT", 0x00},
                                                                  {"readme.1", 0x08},
                                                                  {"123.456", 0x00}}) {
        const record made = fill(name);
        EXPECT_EQ(made.lcase, lcase) << name;
        EXPECT_EQ(made.units, std::nullopt) << name;
    }
    for (const char *mixed : {"ReadMe.TXT", "ReadMe.txt", "README.Txt", "Ab", "1.Ab"}) {
        const record made = fill(mixed);
        EXPECT_EQ(made.lcase, 0x18U) << mixed;
        EXPECT_EQ(made.units, units_of(mixed)) << mixed;
        EXPECT_EQ(made.lossy, 0U) << mixed;
    }
}

TEST_F(GetFatnames, TheLongNameEndsAfter255Units) {
    const std::string name(300, 'x');
    EXPECT_EQ(fill(name),
              (record{0, "", name, "XXXXXXXX   ", units_of(name.substr(0, 255)), 0x08, 1}));
    EXPECT_EQ(fill(name.substr(0, 255)).units, units_of(name.substr(0, 255)));
    EXPECT_EQ(fill(name.substr(0, 254)).units, units_of(name.substr(0, 254)));
}

TEST_F(GetFatnames, NoAllocationFailsUnseen) {
    at_every_fault({EVERY_ALLOCATION}, [&](fault_step &step) {
        caller_string string("ReadMe.txt");
        fat_name name;
        std::memset(&name, 0x55, sizeof name);
        messages.clear();
        const int result = step.run_keeping([&] { return get_fatnames(string.get(), &name); });
        EXPECT_EQ(step.struck(), step.k < 2);
        if (!step.struck()) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(step.left_allocated(), 2);
            release_name(&name);
            return;
        }
        EXPECT_EQ(result, -ENOMEM);
        EXPECT_EQ(step.left_allocated(), 0);
        EXPECT_EQ(messages.text(), "convert_name[N]: cannot allocate space\n");
        EXPECT_EQ(name.cstring, string.get());
        EXPECT_EQ(name.dosName, nullptr);
        EXPECT_EQ(name.unicode, nullptr);
    });
}

TEST_F(GetFatnames, AShortNameTakes11BytesAndALongOneABlockOf512More) {
    for (const auto &[text, blocks, bytes] :
         {std::tuple{"readme.txt", 1, 11U}, {"ReadMe.txt", 2, 11U + 512U}}) {
        caller_string string(text);
        fat_name name = {};
        const allocation_meter meter;
        EXPECT_EQ(get_fatnames(string.get(), &name), 0);
        EXPECT_EQ(meter.live_blocks(), blocks);
        EXPECT_EQ(meter.peak_bytes(), bytes);
        EXPECT_TRUE(blocks == 1 || std::all_of(name.unicode + name.ulen, name.unicode + 256,
                                               [](u16 unit) { return unit == 0; }));
        release_name(&name);
    }
}

TEST_F(GetFatnames, ARefusedNameLeavesNothingAllocated) {
    for (const char *refused : {"", "...", "a+\xE9", "\xE9+"}) {
        caller_string string(refused);
        fat_name name = {};
        const allocation_meter meter;
        EXPECT_EQ(get_fatnames(string.get(), &name), -EINVAL) << refused;
        EXPECT_EQ(meter.live_blocks(), 0) << refused;
    }
}

TEST_F(ConvertName, BothNamesMustHaveABuffer) {
    caller_string string("a");
    u8 *dos = nullptr;
    u16 *unicode = nullptr;
    u32 ulen = 0;
    u8 lcase = 0;
    u32 is_lossy = 0;
    EXPECT_EQ(convert_name(string.get(), nullptr, &unicode, &ulen, &lcase, &is_lossy), -EINVAL);
    EXPECT_EQ(convert_name(string.get(), &dos, nullptr, &ulen, &lcase, &is_lossy), -EINVAL);
    EXPECT_EQ(messages.text(), "convert_name[N]: Invalid arg...\n\n"
                               "convert_name[N]: Invalid arg...\n\n");
    EXPECT_EQ(dos, nullptr);
    EXPECT_EQ(unicode, nullptr);
}

TEST_F(ConvertName, TheLastThreeOutputsAreOptional) {
    caller_string string("Read Me");
    fat_name name = {};
    EXPECT_EQ(convert_name(string.get(), &name.dosName, &name.unicode, nullptr, nullptr, nullptr),
              0);
    EXPECT_EQ(std::string(name.dosName, name.dosName + 11), "README     ");
    EXPECT_EQ(std::u16string(name.unicode, name.unicode + 8),
              units_of(std::string_view("Read Me\0", 8)));
    release_name(&name);
}

TEST_F(ConvertName, AFailureDoesNotChangeTheOutputs) {
    struct failure {
        const char *name;
        int allocations; // that succeed; -1: all
        int result;
    };
    for (const failure &f :
         {failure{"", -1, -EINVAL}, failure{" .", -1, -EINVAL}, failure{"Ab", 0, -ENOMEM},
          failure{"Ab", 1, -ENOMEM}, failure{"A+\x80", -1, -EINVAL}}) {
        caller_string string(f.name);
        u8 old_dos = 0;
        u16 old_unicode = 0;
        u8 *dos = &old_dos;
        u16 *unicode = &old_unicode;
        u32 ulen = 77;
        u8 lcase = 77;
        u32 is_lossy = 77;
        const allocation_meter meter;
        const failing_allocation fault(f.allocations < 0 ? 1000 : f.allocations);
        EXPECT_EQ(convert_name(string.get(), &dos, &unicode, &ulen, &lcase, &is_lossy), f.result);
        EXPECT_EQ(dos, &old_dos);
        EXPECT_EQ(unicode, &old_unicode);
        EXPECT_EQ(ulen, 77U);
        EXPECT_EQ(lcase, 77U);
        EXPECT_EQ(is_lossy, 77U);
        EXPECT_EQ(meter.live_blocks(), 0);
    }
}

TEST_F(ReleaseName, FreesBothFormsAndNotTheString) {
    caller_string string("Read Me");
    fat_name name = {};
    const allocation_meter meter;
    ASSERT_EQ(get_fatnames(string.get(), &name), 0);
    release_name(&name);
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(string.text(), "Read Me");
}

TEST_F(ReleaseName, AReleasedRecordMayBeReleasedAgain) {
    caller_string string("Read Me");
    fat_name name = {};
    ASSERT_EQ(get_fatnames(string.get(), &name), 0);
    release_name(&name);
    EXPECT_EQ(name.dosName, nullptr);
    EXPECT_EQ(name.unicode, nullptr);
    release_name(&name);
    fat_name empty = {};
    release_name(&empty);
}

// ---- a short name to a string -----------------------------------------------------------------

TEST_F(ConvertDosnameToCstring, EachRowGivesItsText) {
    const struct {
        const char *dos;
        unsigned case_byte;
        const char *text;
    } rows[] = {
        {"README  TXT", 0, "README.TXT"},
        {"README     ", 0, "README"},
        {"12345678ABC", 0, "12345678.ABC"},
        {"A       B  ", 0, "A.B"},
        // Each half is made lower case by its own bit; lower case on the medium stays.
        {"README  TXT", 0x08, "readme.TXT"},
        {"README  TXT", 0x10, "README.txt"},
        {"README  TXT", 0x18, "readme.txt"},
        {"README  TXT", 0xE7, "README.TXT"},
        {"README  TXT", 0xFF, "readme.txt"},
        {"A[1]_\xC9  ~Z@", 0x18, "a[1]_\xC9.~z@"},
        {"Read    Txt", 0x00, "Read.Txt"},
        {"Read    Txt", 0x18, "read.txt"},
        // A first byte 05 is shown as E5.
        {"\x05          ", 0, "\xE5"},
        {"\x05 A     TXT", 0, "\xE5.TXT"},
        {"\x05\x05     \x05\x05  ", 0x18, "\xE5\x05.\x05"},
        {"\xE5          ", 0, "\xE5"},
        // A blank ends its half.
        {"A B     C D", 0, "A.C"},
        {"A        BC", 0, "A"},
        {" BC     TXT", 0, ".TXT"},
        {"           ", 0, ""},
        {".          ", 0, "."},
        {"..         ", 0x18, ".."},
    };
    for (const auto &[dos, case_byte, text] : rows) {
        EXPECT_EQ(to_text(dos, case_byte), text) << dos;
    }
    EXPECT_EQ(messages.text(), "");
}

TEST_F(ConvertDosnameToCstring, ANameThatFitsIsRestoredWithItsCaseByte) {
    ram_disk disk(4096);
    sv->long_name = 1;
    for (const char *name : {"readme.txt", "README.txt", "readme.TXT", "README.TXT", "a", "A.b",
                             "12345678.123", "\xE5\xE5.\xE5", "x.y", "_~!#$%&.'()"}) {
        const record made = to_record(name, &messages);
        EXPECT_EQ(made.units, std::nullopt) << name;
        EXPECT_EQ(to_text(made.dos, made.lcase), name);
    }
}

// ---- checksum ---------------------------------------------------------------------------------

TEST_F(DosnameChecksum, RotatesAndAddsElevenTimes) {
    EXPECT_EQ(checksum_by_library(std::string(11, '\0')), 0x00U);
    // The last byte is added as it is, the one before it rotated once.
    EXPECT_EQ(checksum_by_library(std::string(10, '\0') + "\x81"), 0x81U);
    EXPECT_EQ(checksum_by_library(std::string(9, '\0') + "\x81" + std::string(1, '\0')), 0xC0U);
    EXPECT_EQ(checksum_by_library(std::string(9, '\0') + "\x01\x80"), 0x00U);
    // The first byte is rotated ten times, which is twice.
    EXPECT_EQ(checksum_by_library("\x06" + std::string(10, '\0')), 0x81U);
}

TEST_F(DosnameChecksum, EveryByteCounts) {
    const std::string name = "ABCDEFGHIJK";
    for (std::size_t i = 0; i < name.size(); i++) {
        std::string changed = name;
        changed[i]++;
        EXPECT_NE(checksum_by_library(changed), checksum_by_library(name)) << i;
    }
}

// ---- refused names ----------------------------------------------------------------------------

TEST_F(VerifyValidName, NineCharactersAreRefusedInEveryPosition) {
    for (const char c : std::string("\\/:*?\"<>|")) {
        for (const std::string &name :
             {std::string{c}, std::string{'a', c}, std::string{c, 'a'}, std::string{'a', '.', c},
              std::string("a long name with it at the end.") + c}) {
            messages.clear();
            EXPECT_EQ(verify_valid_name(name.c_str()), -EINVAL) << name;
            EXPECT_EQ(messages.text(), "verify_valid_name[N]: Check here!\n\n") << name;
        }
    }
}

TEST_F(VerifyValidName, EveryOtherCharacterIsAccepted) {
    for (int c = 1; c < 256; c++) {
        const std::string name = std::string("a") + static_cast<char>(c);
        const bool is_invalid =
            std::string("\\/:*?\"<>|").find(static_cast<char>(c)) != std::string::npos;
        EXPECT_EQ(verify_valid_name(name.c_str()), is_invalid ? -EINVAL : 0) << c;
    }
}

// Of a name the first eight characters are compared, the dot and the extension with them.
TEST_F(VerifyValidName, DeviceNamesAreRefusedAndWhatResemblesThemIsAccepted) {
    for (const char *name : {"AUX",      "CON",
                             "NUL",      "PRN",
                             "COM1",     "COM2",
                             "COM3",     "COM4",
                             "LPT1",     "LPT2",
                             "LPT3",     "LPT4",
                             "aux",      "con",
                             "Nul",      "pRN",
                             "com1",     "Lpt1",
                             "lPt4",     "CON ",
                             "con     ", "CON     and more.txt",
                             "LPT1    ."}) {
        messages.clear();
        EXPECT_EQ(verify_valid_name(name), -EINVAL) << name;
        EXPECT_EQ(messages.text(), "verify_valid_name[N]: Check here!\n\n") << name;
    }
    messages.clear();
    for (const char *name : {"CON.TXT",  "aux.c", "CON.",  "nul.", "lpt1.x", "COM1.COM", "CON    x",
                             "CON .txt", "CONS",  "CO",    "ACON", " CON",   "COM",      "COM0",
                             "COM5",     "COM9",  "COM11", "LPT",  "LPT0",   "LPT5",     "CLOCK$",
                             "CONIN$",   "A",     "",      "."}) {
        EXPECT_EQ(verify_valid_name(name), 0) << name;
    }
    EXPECT_EQ(messages.text(), "");
}

// ---- entry types ------------------------------------------------------------------------------

// The first byte counts before the attributes, and the two highest of these do not.
TEST_F(EntryType, EachRowHasItsType) {
    for (const auto &[first, attr, type] :
         std::initializer_list<std::array<unsigned, 3>>{{0x00, 0x0F, 0},
                                                        {0xE5, 0x0F, 1},
                                                        {0xE5, 0x18, 1},
                                                        {'A', 0x00, 2},
                                                        {'A', 0x27, 2},
                                                        {'A', 0x10, 3},
                                                        {'A', 0x37, 3},
                                                        {'A', 0x08, 8},
                                                        {'A', 0x28, 8},
                                                        {'A', 0x2F, 8},
                                                        {'A', 0x0F, 4},
                                                        {'A', 0x4F, 4},
                                                        {'A', 0x8F, 4},
                                                        {'A', 0xCF, 4}}) {
        entry_image entry = short_entry("?          ", static_cast<u8>(attr));
        entry[0] = static_cast<u8>(first);
        EXPECT_EQ(entry_type(entry.data()), type) << first << ", " << attr;
    }
    EXPECT_EQ(messages.text(), "");
    EXPECT_EQ(entry_type(short_entry("A          ", 0x18).data()), 6U);
    EXPECT_EQ(entry_type(short_entry("A          ", 0xFF).data()), 6U);
    EXPECT_EQ(messages.text(), "entry_type[N]: Unknown entry type: 24\n\n"
                               "entry_type[N]: Unknown entry type: 255\n\n");
}

TEST_F(EntryType, OfEveryFirstByteAndAttributeByte) {
    std::string expected;
    for (unsigned first = 0; first < 256; first++) {
        for (unsigned attr = 0; attr < 256; attr++) {
            entry_image entry = short_entry("?          ", static_cast<u8>(attr));
            entry[0] = static_cast<u8>(first);
            const unsigned type = model::kind(first, attr);
            ASSERT_EQ(entry_type(entry.data()), type) << first << ", " << attr;
            if (type == 6) {
                expected += "entry_type[N]: Unknown entry type: " + std::to_string(attr) + "\n\n";
            }
        }
    }
    EXPECT_EQ(messages.text() == expected, true);
}
