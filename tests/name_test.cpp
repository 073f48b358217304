// Short names: conversion both ways, the record of a name, tails, what is refused, entry types.

#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/names.h"
#include "tests/support/volume.h"

#include <algorithm>
#include <cerrno>
#include <memory>

using namespace fat;
using namespace testing_support;
using name_model::record;
using name_model::short_form;

namespace {

constexpr std::optional<unsigned> NOT_WRITTEN = std::nullopt;

short_form faithful(const std::string &left, const std::string &dos,
                    std::optional<unsigned> case_byte) {
    return {0, left, dos, case_byte, false};
}
short_form lossy(const std::string &left, const std::string &dos, unsigned case_byte) {
    return {0, left, dos, case_byte, true};
}

std::vector<u16> units_of(std::string_view text) {
    return {text.begin(), text.end()};
}

// What the library says is looked at; a volume is open where a case asks for one.
class Names : public testing::Test {
protected:
    diagnostics said;
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
        return to_record(name, &said);
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
    EXPECT_EQ(said.text(), "remove_trail_blanks[N]: NULL string!\n\n"
                           "remove_trail_blanks[N]: NULL string!\n\n");
}

TEST_F(RemoveTrailBlanks, CutsBlanksAndDotsInAnyOrder) {
    EXPECT_EQ(cut("file.txt   "), "file.txt");
    EXPECT_EQ(cut("file.txt.."), "file.txt");
    EXPECT_EQ(cut("file. . .. "), "file");
    EXPECT_EQ(cut("a."), "a");
    EXPECT_EQ(said.text(), "");
}

TEST_F(RemoveTrailBlanks, LeavesWhatStandsInFrontAlone) {
    EXPECT_EQ(cut("plain"), "plain");
    EXPECT_EQ(cut(" a .b. c. "), " a .b. c");
    EXPECT_EQ(cut("..a"), "..a");
    EXPECT_EQ(cut("tab\t"), "tab\t");
    EXPECT_EQ(cut("line\n"), "line\n");
    EXPECT_EQ(cut("hard\xA0"), "hard\xA0");
}

TEST_F(RemoveTrailBlanks, NeverCutsTheFirstCharacter) {
    EXPECT_EQ(cut("."), ".");
    EXPECT_EQ(cut(" "), " ");
    EXPECT_EQ(cut("..."), ".");
    EXPECT_EQ(cut("    "), " ");
    EXPECT_EQ(cut(" . "), " ");
    EXPECT_EQ(cut(". ."), ".");
}

TEST_F(RemoveTrailBlanks, AnEmptyStringStaysEmpty) {
    EXPECT_EQ(cut(""), "");
}

TEST_F(RemoveTrailBlanks, TheEndNeedNotBeAskedFor) {
    caller_string string("name. .");
    EXPECT_EQ(remove_trail_blanks(string.get(), nullptr), 0);
    EXPECT_EQ(string.text(), "name");
}

// ---- a string to a short name -----------------------------------------------------------------

TEST_F(ConvertCstringToDosname, DotNamesAreFixedAndTheirCaseByteIsNotWritten) {
    EXPECT_EQ(to_short("."), faithful(".", ".          ", NOT_WRITTEN));
    EXPECT_EQ(to_short(".."), faithful("..", "..         ", NOT_WRITTEN));
    EXPECT_EQ(said.text(), "");
}

TEST_F(ConvertCstringToDosname, NothingButDotsAndBlanksHasNoLength) {
    for (const char *name :
         {"", " ", "   ", "...", "....", ". ", " .", ".. ", " ..", ". .", "\x20."}) {
        said.clear();
        EXPECT_EQ(to_short(name), (short_form{-EINVAL, name, "", NOT_WRITTEN, false})) << name;
        EXPECT_EQ(said.text(), "convert_cstring_to_dosname[N]: zero length string!\n\n") << name;
    }
}

TEST_F(ConvertCstringToDosname, TheOutputsNeedNotBeAskedFor) {
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

TEST_F(ConvertCstringToDosname, BaseAndExtensionArePaddedAndUpperCased) {
    EXPECT_EQ(to_short("readme.txt"), faithful("readme.txt", "README  TXT", 0x18));
    EXPECT_EQ(to_short("a"), faithful("a", "A          ", 0x08));
    EXPECT_EQ(to_short("a.b"), faithful("a.b", "A       B  ", 0x18));
    EXPECT_EQ(to_short("abcdefgh.ijk"), faithful("abcdefgh.ijk", "ABCDEFGHIJK", 0x18));
    EXPECT_EQ(to_short("noext"), faithful("noext", "NOEXT      ", 0x08));
}

TEST_F(ConvertCstringToDosname, LeadingBlanksAndDotsAreDroppedAndLost) {
    EXPECT_EQ(to_short(".profile"), lossy(".profile", "PROFILE    ", 0x08));
    EXPECT_EQ(to_short("..a"), lossy("..a", "A          ", 0x08));
    EXPECT_EQ(to_short(" .. a.b"), lossy(" .. a.b", "A       B  ", 0x18));
    EXPECT_EQ(to_short(" a"), lossy(" a", "A          ", 0x08));
}

TEST_F(ConvertCstringToDosname, TrailingBlanksAndDotsAreCutOffTheCallersStringWithoutLoss) {
    EXPECT_EQ(to_short("file.txt   "), faithful("file.txt", "FILE    TXT", 0x18));
    EXPECT_EQ(to_short("file.txt.."), faithful("file.txt", "FILE    TXT", 0x18));
    EXPECT_EQ(to_short("FILE. . "), faithful("FILE", "FILE       ", 0x07));
    EXPECT_EQ(to_short(".a. "), lossy(".a", "A          ", 0x08));
}

TEST_F(ConvertCstringToDosname, TheLastDotSplitsAndTheOthersAreLost) {
    EXPECT_EQ(to_short("a.b.c"), lossy("a.b.c", "AB      C  ", 0x18));
    EXPECT_EQ(to_short("1..2"), lossy("1..2", "1       2  ", 0x00));
    EXPECT_EQ(to_short("archive.tar.gz"), lossy("archive.tar.gz", "ARCHIVETGZ ", 0x18));
}

TEST_F(ConvertCstringToDosname, BlanksInsideAreLost) {
    EXPECT_EQ(to_short("a b.c d"), lossy("a b.c d", "AB      CD ", 0x18));
    EXPECT_EQ(to_short("1 .2"), lossy("1 .2", "1       2  ", 0x00));
    EXPECT_EQ(to_short("1. 2"), lossy("1. 2", "1       2  ", 0x00));
}

TEST_F(ConvertCstringToDosname, SixCharactersBecomeUnderscoresAndAreLost) {
    EXPECT_EQ(to_short("a+b.txt"), lossy("a+b.txt", "A_B     TXT", 0x18));
    for (const char c : std::string("+,;=[]")) {
        const std::string name = std::string("1") + c + "." + c + "2";
        EXPECT_EQ(to_short(name), lossy(name, "1_      _2 ", 0x00)) << c;
    }
    EXPECT_EQ(to_short("+"), lossy("+", "_          ", 0x00));
    EXPECT_EQ(to_short("_._"), faithful("_._", "_       _  ", 0x00));
}

TEST_F(ConvertCstringToDosname, EveryOtherCharacterIsKept) {
    for (int c = 1; c < 256; c++) {
        const char character = static_cast<char>(c);
        if (std::string(" .+,;=[]").find(character) != std::string::npos ||
            name_model::is_upper(character) || name_model::is_lower(character)) {
            continue;
        }
        const std::string name = std::string("0") + character + "." + character;
        EXPECT_EQ(to_short(name),
                  faithful(name, std::string("0") + character + "      " + character + "  ", 0x00))
            << c;
    }
}

TEST_F(ConvertCstringToDosname, InvalidCharactersAndDeviceNamesAreNotItsBusiness) {
    EXPECT_EQ(to_short("\\/:*?\"<>.|"), faithful("\\/:*?\"<>.|", "\\/:*?\"<>|  ", 0x00));
    EXPECT_EQ(to_short("CON"), faithful("CON", "CON        ", 0x07));
    EXPECT_EQ(said.text(), "");
}

TEST_F(ConvertCstringToDosname, BytesAboveAsciiHaveNoCase) {
    EXPECT_EQ(to_short("\xC3\xA9t\xC3\xA9.\xE4"),
              faithful("\xC3\xA9t\xC3\xA9.\xE4", "\xC3\xA9T\xC3\xA9   \xE4  ", 0x08));
}

TEST_F(ConvertCstringToDosname, WhatDoesNotFitIsLost) {
    EXPECT_EQ(to_short("longfilename.txt"), lossy("longfilename.txt", "LONGFILETXT", 0x18));
    EXPECT_EQ(to_short("12345678.123"), faithful("12345678.123", "12345678123", 0x00));
    EXPECT_EQ(to_short("123456789"), lossy("123456789", "12345678   ", 0x00));
    EXPECT_EQ(to_short("1.1234"), lossy("1.1234", "1       123", 0x00));
    EXPECT_EQ(to_short("12345678 .1"), lossy("12345678 .1", "123456781  ", 0x00));
}

TEST_F(ConvertCstringToDosname, WhatDoesNotFitHasNoCase) {
    EXPECT_EQ(to_short("abcdefghI.txtT"), lossy("abcdefghI.txtT", "ABCDEFGHTXT", 0x18));
    EXPECT_EQ(to_short("12345678a.123B"), lossy("12345678a.123B", "12345678123", 0x00));
}

TEST_F(ConvertCstringToDosname, DroppedCharactersTakeNoPlace) {
    EXPECT_EQ(to_short("1 2 3 4 5 6 7 8.1 2 3"),
              lossy("1 2 3 4 5 6 7 8.1 2 3", "12345678123", 0x00));
}

TEST_F(ConvertCstringToDosname, ALongInputIsReadToItsLastDot) {
    const std::string name = std::string(5000, 'x') + "." + std::string(5000, 'y');
    EXPECT_EQ(to_short(name), lossy(name, "XXXXXXXXYYY", 0x18));
    EXPECT_EQ(to_short(std::string(5000, '.') + "a" + std::string(5000, '.')),
              lossy(std::string(5000, '.') + "a", "A          ", 0x08));
}

TEST_F(ConvertCstringToDosname, AFirstByteE5IsStoredAs05) {
    EXPECT_EQ(to_short("\xE5"), faithful("\xE5", "\x05          ", 0x00));
    EXPECT_EQ(to_short("\xE5\xE5.\xE5"), faithful("\xE5\xE5.\xE5", "\x05\xE5      \xE5  ", 0x00));
    EXPECT_EQ(to_short(".\xE5"), lossy(".\xE5", "\x05          ", 0x00));
}

// Nothing tells such a name from one that begins with E5.
TEST_F(ConvertCstringToDosname, AFirstByte05IsKeptAsItIs) {
    EXPECT_EQ(to_short("\x05"), faithful("\x05", "\x05          ", 0x00));
}

// Upper case leaves 07 and E0, lower case 08 and 10: a half of both has all bits of its half.
TEST_F(ConvertCstringToDosname, TheCaseByteSaysWhatEachHalfIs) {
    EXPECT_EQ(to_short("README.TXT").case_byte, 0xE7U);
    EXPECT_EQ(to_short("README").case_byte, 0x07U);
    EXPECT_EQ(to_short("123.TXT").case_byte, 0xE0U);
    EXPECT_EQ(to_short("readme.txt").case_byte, 0x18U);
    EXPECT_EQ(to_short("readme").case_byte, 0x08U);
    EXPECT_EQ(to_short("123.txt").case_byte, 0x10U);
    EXPECT_EQ(to_short("README.txt").case_byte, 0x17U);
    EXPECT_EQ(to_short("readme.TXT").case_byte, 0xE8U);
    EXPECT_EQ(to_short("123.456").case_byte, 0x00U);
}

TEST_F(ConvertCstringToDosname, BothCasesInOneHalfGiveFF) {
    EXPECT_EQ(to_short("ReadMe.TXT"), faithful("ReadMe.TXT", "README  TXT", 0xFF));
    EXPECT_EQ(to_short("ReadMe").case_byte, 0xFFU);
    EXPECT_EQ(to_short("README.Txt").case_byte, 0xFFU);
    EXPECT_EQ(to_short("readme.tXt").case_byte, 0xFFU);
    EXPECT_EQ(to_short("1.tX").case_byte, 0xFFU);
    EXPECT_EQ(to_short("ReadMe.Txt").case_byte, 0xFFU);
    EXPECT_EQ(to_short("aB.1").case_byte, 0xFFU);
}

// ---- the record of a name ---------------------------------------------------------------------

TEST_F(GetFatnames, BothArgumentsAreNeeded) {
    fat_name name = {};
    caller_string string("a");
    EXPECT_EQ(get_fatnames(nullptr, &name), -EINVAL);
    EXPECT_EQ(get_fatnames(string.get(), nullptr), -EINVAL);
    EXPECT_EQ(said.text(), "get_fatnames[N]: Invalid arg!\n\n"
                           "get_fatnames[N]: Invalid arg!\n\n");
}

TEST_F(GetFatnames, ALowerCaseNameThatFitsNeedsNoLongName) {
    EXPECT_EQ(fill("readme.txt"),
              (record{0, "", "readme.txt", "README  TXT", std::nullopt, 0x18, 0}));
}

TEST_F(GetFatnames, AMixedCaseNameHasALongNameAndBothCaseBits) {
    EXPECT_EQ(fill("ReadMe.TXT"),
              (record{0, "", "ReadMe.TXT", "README  TXT", units_of("ReadMe.TXT"), 0x18, 0}));
}

TEST_F(GetFatnames, ALossyNameHasALongNameInItsOwnCase) {
    EXPECT_EQ(fill("longfilename.txt"), (record{0, "", "longfilename.txt", "LONGFILETXT",
                                                units_of("longfilename.txt"), 0x18, 1}));
    EXPECT_EQ(fill("A+B.txt"),
              (record{0, "", "A+B.txt", "A_B     TXT", units_of("A+B.txt"), 0x10, 1}));
}

TEST_F(GetFatnames, TheLongNameHasTheLeadingDotsAndNotTheTrailingOnes) {
    EXPECT_EQ(fill(" .pro file. ."),
              (record{0, "", " .pro file", "PROFILE    ", units_of(" .pro file"), 0x08, 1}));
}

TEST_F(GetFatnames, DotNamesHaveNoLongName) {
    EXPECT_EQ(fill("."), (record{0, "", ".", ".          ", std::nullopt, 0, 0}));
    EXPECT_EQ(fill(".."), (record{0, "", "..", "..         ", std::nullopt, 0, 0}));
}

TEST_F(GetFatnames, TheCaseBitsOfTheEntryFollowTheHalves) {
    const std::vector<std::pair<std::string, unsigned>> expected = {
        {"readme.txt", 0x18}, {"README.txt", 0x10}, {"readme.TXT", 0x08}, {"README.TXT", 0x00},
        {"readme", 0x08},     {"README", 0x00},     {"1.txt", 0x10},      {"1.TXT", 0x00},
        {"readme.1", 0x08},   {"123.456", 0x00},
    };
    for (const auto &[name, lcase] : expected) {
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

TEST_F(GetFatnames, WithLongNamesOffNothingIsLossyAndTheCaseBitsStay) {
    sv->long_name = 0;
    EXPECT_EQ(fill("ReadMe.TXT"),
              (record{0, "", "ReadMe.TXT", "README  TXT", std::nullopt, 0x18, 0}));
    EXPECT_EQ(fill(".long file name.text. "),
              (record{0, "", ".long file name.text", "LONGFILETEX", std::nullopt, 0x18, 0}));
    EXPECT_EQ(fill("\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9"),
              (record{0, "", "\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9",
                      "\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9   ", std::nullopt, 0, 0}));
}

TEST_F(GetFatnames, OnlyAFlagOfOneTurnsLongNamesOn) {
    sv->long_name = 2;
    EXPECT_EQ(fill("a+b"), (record{0, "", "a+b", "A_B        ", std::nullopt, 0x08, 0}));
}

TEST_F(GetFatnames, BytesAboveAsciiThatFitGetNoLongName) {
    EXPECT_EQ(
        fill("\xC3\xA9t\xC3\xA9.txt"),
        (record{0, "", "\xC3\xA9t\xC3\xA9.txt", "\xC3\xA9T\xC3\xA9   TXT", std::nullopt, 0x18, 0}));
}

TEST_F(GetFatnames, WithoutAnEncodingALongNameIsAscii) {
    EXPECT_EQ(fill("a+\xC3\xA9. "),
              (record{-EINVAL,
                      "convert_cstring_to_uname[N]: cannot convert non-ascii\n"
                      "convert_name[N]: Failed to convert ...!\n\n",
                      "a+\xC3\xA9", "", std::nullopt, 0, 0}));
}

TEST_F(GetFatnames, ANameOfNothingIsTold) {
    EXPECT_EQ(fill(". . "), (record{-EINVAL,
                                    "convert_cstring_to_dosname[N]: zero length string!\n\n"
                                    "convert_name[N]: invalid name in DOS:. . \n",
                                    ". . ", "", std::nullopt, 0, 0}));
    EXPECT_EQ(fill(""), (record{-EINVAL,
                                "convert_cstring_to_dosname[N]: zero length string!\n\n"
                                "convert_name[N]: invalid name in DOS:\n",
                                "", "", std::nullopt, 0, 0}));
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
        said.clear();
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
        EXPECT_EQ(said.text(), "convert_name[N]: cannot allocate space\n");
        EXPECT_EQ(name.cstring, string.get());
        EXPECT_EQ(name.dosName, nullptr);
        EXPECT_EQ(name.unicode, nullptr);
    });
}

TEST_F(GetFatnames, AShortNameTakesOneBlockOf11Bytes) {
    caller_string string("readme.txt");
    fat_name name = {};
    const allocation_meter meter;
    EXPECT_EQ(get_fatnames(string.get(), &name), 0);
    EXPECT_EQ(meter.live_blocks(), 1);
    EXPECT_EQ(meter.peak_bytes(), 11U);
    release_name(&name);
}

TEST_F(GetFatnames, ALongNameTakesABlockOf512BytesMore) {
    caller_string string("ReadMe.txt");
    fat_name name = {};
    const allocation_meter meter;
    EXPECT_EQ(get_fatnames(string.get(), &name), 0);
    EXPECT_EQ(meter.live_blocks(), 2);
    EXPECT_EQ(meter.peak_bytes(), 11U + 512U);
    EXPECT_TRUE(std::all_of(name.unicode + name.ulen, name.unicode + 256,
                            [](u16 unit) { return unit == 0; }));
    release_name(&name);
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

TEST_F(ConvertName, BothNamesMustHaveAPlace) {
    caller_string string("a");
    u8 *dos = nullptr;
    u16 *unicode = nullptr;
    u32 ulen = 0;
    u8 lcase = 0;
    u32 is_lossy = 0;
    EXPECT_EQ(convert_name(string.get(), nullptr, &unicode, &ulen, &lcase, &is_lossy), -EINVAL);
    EXPECT_EQ(convert_name(string.get(), &dos, nullptr, &ulen, &lcase, &is_lossy), -EINVAL);
    EXPECT_EQ(said.text(), "convert_name[N]: Invalid arg...\n\n"
                           "convert_name[N]: Invalid arg...\n\n");
    EXPECT_EQ(dos, nullptr);
    EXPECT_EQ(unicode, nullptr);
}

TEST_F(ConvertName, TheLastThreeOutputsNeedNotBeAskedFor) {
    caller_string string("Read Me");
    fat_name name = {};
    EXPECT_EQ(convert_name(string.get(), &name.dosName, &name.unicode, nullptr, nullptr, nullptr),
              0);
    EXPECT_EQ(std::string(name.dosName, name.dosName + 11), "README     ");
    EXPECT_EQ(std::vector<u16>(name.unicode, name.unicode + 8),
              units_of(std::string_view("Read Me\0", 8)));
    release_name(&name);
}

TEST_F(ConvertName, AFailureLeavesTheOutputsAsTheyWere) {
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

TEST_F(ConvertDosnameToCstring, PaddingIsCutAndADotIsPutBetween) {
    EXPECT_EQ(to_text("README  TXT", 0), "README.TXT");
    EXPECT_EQ(to_text("README     ", 0), "README");
    EXPECT_EQ(to_text("12345678ABC", 0), "12345678.ABC");
    EXPECT_EQ(to_text("A       B  ", 0), "A.B");
    EXPECT_EQ(said.text(), "");
}

TEST_F(ConvertDosnameToCstring, EachHalfIsLoweredByItsOwnBit) {
    EXPECT_EQ(to_text("README  TXT", 0x08), "readme.TXT");
    EXPECT_EQ(to_text("README  TXT", 0x10), "README.txt");
    EXPECT_EQ(to_text("README  TXT", 0x18), "readme.txt");
    EXPECT_EQ(to_text("README  TXT", 0xE7), "README.TXT");
    EXPECT_EQ(to_text("README  TXT", 0xFF), "readme.txt");
    EXPECT_EQ(to_text("A[1]_\xC9  ~Z@", 0x18), "a[1]_\xC9.~z@");
}

TEST_F(ConvertDosnameToCstring, LowerCaseOnTheMediumStays) {
    EXPECT_EQ(to_text("Read    Txt", 0x00), "Read.Txt");
    EXPECT_EQ(to_text("Read    Txt", 0x18), "read.txt");
}

TEST_F(ConvertDosnameToCstring, AFirstByte05IsShownAsE5) {
    EXPECT_EQ(to_text("\x05          ", 0), "\xE5");
    EXPECT_EQ(to_text("\x05 A     TXT", 0), "\xE5.TXT");
    EXPECT_EQ(to_text("\x05\x05     \x05\x05  ", 0x18), "\xE5\x05.\x05");
    EXPECT_EQ(to_text("\xE5          ", 0), "\xE5");
}

TEST_F(ConvertDosnameToCstring, ABlankInsideEndsItsHalf) {
    EXPECT_EQ(to_text("A B     C D", 0), "A.C");
    EXPECT_EQ(to_text("A        BC", 0), "A");
    EXPECT_EQ(to_text(" BC     TXT", 0), ".TXT");
    EXPECT_EQ(to_text("           ", 0), "");
}

TEST_F(ConvertDosnameToCstring, DotNamesComeBack) {
    EXPECT_EQ(to_text(".          ", 0), ".");
    EXPECT_EQ(to_text("..         ", 0x18), "..");
}

TEST_F(ConvertDosnameToCstring, ANameThatFitsComesBackWithItsCaseByte) {
    ram_disk disk(4096);
    sv->long_name = 1;
    for (const char *name : {"readme.txt", "README.txt", "readme.TXT", "README.TXT", "a", "A.b",
                             "12345678.123", "\xE5\xE5.\xE5", "x.y", "_~!#$%&.'()"}) {
        const record made = to_record(name, &said);
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

// ---- what is refused --------------------------------------------------------------------------

TEST_F(VerifyValidName, NineCharactersAreRefusedWhereverTheyStand) {
    for (const char c : std::string("\\/:*?\"<>|")) {
        for (const std::string &name :
             {std::string{c}, std::string{'a', c}, std::string{c, 'a'}, std::string{'a', '.', c},
              std::string("a long name with it at the end.") + c}) {
            said.clear();
            EXPECT_EQ(verify_valid_name(name.c_str()), -EINVAL) << name;
            EXPECT_EQ(said.text(), "verify_valid_name[N]: Check here!\n\n") << name;
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

TEST_F(VerifyValidName, DeviceNamesAreRefusedInAnyCase) {
    for (const char *name :
         {"AUX", "CON", "NUL", "PRN", "COM1", "COM2", "COM3", "COM4", "LPT1", "LPT2", "LPT3",
          "LPT4", "aux", "con", "Nul", "pRN", "com1", "Lpt1", "lPt4"}) {
        said.clear();
        EXPECT_EQ(verify_valid_name(name), -EINVAL) << name;
        EXPECT_EQ(said.text(), "verify_valid_name[N]: Check here!\n\n") << name;
    }
}

// The dot and the extension take part in the comparison.
TEST_F(VerifyValidName, DeviceNamesWithAnExtensionAreAccepted) {
    for (const char *name : {"CON.TXT", "aux.c", "CON.", "nul.", "lpt1.x", "COM1.COM"}) {
        EXPECT_EQ(verify_valid_name(name), 0) << name;
    }
    EXPECT_EQ(said.text(), "");
}

TEST_F(VerifyValidName, OnlyTheFirstEightCharactersAreCompared) {
    EXPECT_EQ(verify_valid_name("CON "), -EINVAL);
    EXPECT_EQ(verify_valid_name("con     "), -EINVAL);
    EXPECT_EQ(verify_valid_name("CON     and more.txt"), -EINVAL);
    EXPECT_EQ(verify_valid_name("LPT1    ."), -EINVAL);
    EXPECT_EQ(verify_valid_name("CON    x"), 0);
    EXPECT_EQ(verify_valid_name("CON .txt"), 0);
}

TEST_F(VerifyValidName, NamesThatResembleDevicesAreAccepted) {
    for (const char *name : {"CONS", "CO", "ACON", " CON", "COM", "COM0", "COM5", "COM9", "COM11",
                             "LPT", "LPT0", "LPT5", "CLOCK$", "CONIN$", "A", "", "."}) {
        EXPECT_EQ(verify_valid_name(name), 0) << name;
    }
    EXPECT_EQ(said.text(), "");
}

// ---- entry types ------------------------------------------------------------------------------

TEST_F(EntryType, TheFirstByteCountsBeforeTheAttributes) {
    EXPECT_EQ(entry_type(short_entry(std::string(11, '\0'), 0x0F).data()), 0U);
    EXPECT_EQ(entry_type(short_entry("\xE5"
                                     "          ",
                                     0x0F)
                             .data()),
              1U);
    EXPECT_EQ(entry_type(short_entry("\xE5"
                                     "          ",
                                     0x18)
                             .data()),
              1U);
    EXPECT_EQ(said.text(), "");
}

TEST_F(EntryType, TheAttributesTellTheRest) {
    const auto type_of = [](u8 attr) {
        return entry_type(short_entry("A          ", attr).data());
    };
    EXPECT_EQ(type_of(0x00), 2U);
    EXPECT_EQ(type_of(0x27), 2U);
    EXPECT_EQ(type_of(0x10), 3U);
    EXPECT_EQ(type_of(0x37), 3U);
    EXPECT_EQ(type_of(0x08), 8U);
    EXPECT_EQ(type_of(0x28), 8U);
    EXPECT_EQ(type_of(0x0F), 4U);
    EXPECT_EQ(said.text(), "");
}

TEST_F(EntryType, TheTwoHighAttributeBitsDoNotMakeASlotAnythingElse) {
    for (const int attr : {0x0F, 0x4F, 0x8F, 0xCF}) {
        EXPECT_EQ(entry_type(short_entry("A          ", static_cast<u8>(attr)).data()), 4U);
    }
    EXPECT_EQ(entry_type(short_entry("A          ", 0x2F).data()), 8U);
}

TEST_F(EntryType, ADirectoryThatIsAVolumeIsInvalidAndTold) {
    EXPECT_EQ(entry_type(short_entry("A          ", 0x18).data()), 6U);
    EXPECT_EQ(entry_type(short_entry("A          ", 0xFF).data()), 6U);
    EXPECT_EQ(said.text(), "entry_type[N]: Unknown entry type: 24\n\n"
                           "entry_type[N]: Unknown entry type: 255\n\n");
}

TEST_F(EntryType, OfEveryFirstByteAndAttributeByte) {
    std::string expected;
    for (unsigned first = 0; first < 256; first++) {
        for (unsigned attr = 0; attr < 256; attr++) {
            entry_image entry = short_entry("?          ", static_cast<u8>(attr));
            entry[0] = static_cast<u8>(first);
            const unsigned type = name_model::kind(first, attr);
            ASSERT_EQ(entry_type(entry.data()), type) << first << ", " << attr;
            if (type == 6) {
                expected += "entry_type[N]: Unknown entry type: " + std::to_string(attr) + "\n\n";
            }
        }
    }
    EXPECT_EQ(said.text() == expected, true);
}
