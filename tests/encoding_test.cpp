// Long names between UTF-16 units and the encodings of callers, and choosing an encoding.

#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/names.h"
#include "tests/support/process.h"
#include "tests/support/ram_disk.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <random>

using namespace fat;
using namespace testing_support;
using namespace std::string_literals;
using record = model::name_record;
using model::shown_bytes;

namespace {

std::string shown_units(const std::u16string &units) {
    std::string result;
    for (const char16_t unit : units) {
        char text[8];
        std::snprintf(text, sizeof text, "%04X ", static_cast<unsigned>(unit));
        result += text;
    }
    return result;
}

// ---- one call ---------------------------------------------------------------------------------

// The results of convert_cstring_to_uname().
struct units_made {
    int result;
    std::u16string units; // where it succeeds
    std::string left;     // the caller's string afterwards
    std::string messages; // source lines as N
    bool operator==(const units_made &) const = default;
};
std::ostream &operator<<(std::ostream &out, const units_made &made) {
    return out << "{" << made.result << ", " << shown_units(made.units) << ", left "
               << shown_bytes(made.left) << ", messages " << shown_bytes(made.messages) << "}";
}

// The results of convert_uname_to_cstring().
struct text_made {
    int result;
    std::string text; // where it succeeds
    std::string messages;
    bool operator==(const text_made &) const = default;
};
std::ostream &operator<<(std::ostream &out, const text_made &made) {
    return out << "{" << made.result << ", " << shown_bytes(made.text) << ", messages "
               << shown_bytes(made.messages) << "}";
}

units_made encoded(std::u16string units, const std::string &left) {
    const int count = static_cast<int>(units.size());
    return {count, std::move(units), left, ""};
}
units_made not_encoded(int error, const std::string &left, const std::string &rest) {
    return {-error, u"", left, "convert_cstring_to_uname[N]: Failed to convert: " + rest + "\n\n"};
}
text_made decoded(const std::string &text) {
    return {static_cast<int>(text.size()), text, ""};
}
text_made not_decoded(int error, const std::string &rest) {
    return {-error, "", "convert_uname_to_cstring[N]: Failed to convert: " + rest + "\n\n"};
}

// The bytes of units in memory up to the first zero byte, as in a message.
std::string bytes_of(const std::u16string &units) {
    const std::string all(reinterpret_cast<const char *>(units.data()), units.size() * 2);
    return all.substr(0, all.find('\0'));
}

// n times the text.
std::string times(std::size_t n, const std::string &text) {
    std::string result;
    for (std::size_t i = 0; i < n; i++) {
        result += text;
    }
    return result;
}

// Whether this system converts between the encoding and UTF-16 at all.
bool system_converts(const char *charset) {
    const auto is_there = [](iconv_t converter) {
        const bool result = reinterpret_cast<std::intptr_t>(converter) != -1;
        if (result) {
            iconv_close(converter);
        }
        return result;
    };
    return is_there(iconv_open("UNICODE", charset)) && is_there(iconv_open(charset, "UNICODE"));
}

// An open volume without an encoding.
class Encoding : public testing::Test {
protected:
    Encoding() : disk(4096) {
        sv->long_name = 1;
    }

    units_made encode(const std::string &name) {
        caller_string string(name);
        std::vector<u16> units(LONG_NAME_UNITS, 0xAAAA);
        units.shrink_to_fit();
        messages.clear();
        units_made made = {};
        made.result = convert_cstring_to_uname(string.get(), units.data());
        made.left = string.text();
        made.messages = messages.text();
        if (made.result >= 0) {
            EXPECT_LT(made.result, 256);
            EXPECT_EQ(units.at(static_cast<u32>(made.result)), 0);
            made.units.assign(units.begin(), units.begin() + made.result);
        }
        return made;
    }

    // The units are terminated unless they fill their buffer.
    text_made decode(std::u16string_view name) {
        std::vector<u16> units(name.begin(), name.end());
        if (units.size() < LONG_NAME_UNITS) {
            units.push_back(0);
        }
        units.resize(LONG_NAME_UNITS, 0x58); // units after the terminator do not count
        const std::vector<u16> before = units;
        std::vector<char> text(256, '#');
        text.shrink_to_fit();
        messages.clear();
        text_made made = {};
        made.result = convert_uname_to_cstring(units.data(), text.data());
        made.messages = messages.text();
        if (made.result >= 0) {
            EXPECT_LT(made.result, 256);
            EXPECT_EQ(text.at(static_cast<u32>(made.result)), '\0');
            made.text.assign(text.begin(), text.begin() + made.result);
        }
        EXPECT_EQ(units, before);
        return made;
    }

    record fill(const std::string &name) {
        return to_record(name, &messages);
    }

    ram_disk disk;
    diagnostics messages;
};

// A volume with an encoding.
class EncodingSet : public Encoding {
protected:
    explicit EncodingSet(const char *charset) : charset_(charset) {}

    void SetUp() override {
        if (!system_converts(charset_)) {
            GTEST_SKIP() << "this system has no conversion for " << charset_;
        }
        ASSERT_EQ(fat_set_encoding(charset_), 0);
        ASSERT_EQ(messages.text(), "");
    }

private:
    const char *charset_;
};

class WithoutEncoding : public Encoding {};
class FatSetEncoding : public Encoding {};
class Utf8 : public EncodingSet {
protected:
    Utf8() : EncodingSet("UTF-8") {}
};
class Latin1 : public EncodingSet {
protected:
    Latin1() : EncodingSet("ISO-8859-1") {}
};
class EucJp : public EncodingSet {
protected:
    EucJp() : EncodingSet("EUC-JP") {}
};
class ShiftJis : public EncodingSet {
protected:
    ShiftJis() : EncodingSet("SHIFT_JIS") {}
};
class Cp1258 : public EncodingSet {
protected:
    Cp1258() : EncodingSet("CP1258") {}
};
class Big5Hkscs : public EncodingSet {
protected:
    Big5Hkscs() : EncodingSet("BIG5-HKSCS") {}
};
class Iso2022Jp : public EncodingSet {
protected:
    Iso2022Jp() : EncodingSet("ISO-2022-JP") {}
};

} // namespace

// ---- no encoding: to units --------------------------------------------------------------------

TEST_F(WithoutEncoding, EveryAsciiByteIsAUnit) {
    std::string name;
    std::u16string units;
    for (char c = 1; c < 127; c++) {
        name += c;
        units += static_cast<char16_t>(c);
    }
    name += '\x7F';
    units += u'\x7F';
    EXPECT_EQ(encode(name), encoded(units, name));
}

TEST_F(WithoutEncoding, TrailingBlanksAndDotsAreCutFirst) {
    EXPECT_EQ(encode("Read me. . "), encoded(u"Read me", "Read me"));
    EXPECT_EQ(encode(" .x"), encoded(u" .x", " .x"));
    EXPECT_EQ(encode("..."), encoded(u".", "."));
    EXPECT_EQ(encode("  "), encoded(u" ", " "));
    EXPECT_EQ(encode(""), encoded(u"", ""));
}

TEST_F(WithoutEncoding, BytesAboveAsciiAreRefused) {
    for (int c = 0x80; c < 0x100; c++) {
        const char byte = static_cast<char>(c);
        for (const std::string &name : {std::string{byte}, std::string{'a', byte, 'b'}}) {
            EXPECT_EQ(encode(name), (units_made{-EINVAL, u"", name,
                                                "convert_cstring_to_uname[N]: cannot convert "
                                                "non-ascii\n"}));
        }
    }
}

TEST_F(WithoutEncoding, ANameOf255IsKeptAndOf256IsCut) {
    const std::string longest(255, 'x');
    const std::u16string units(255, u'x');
    EXPECT_EQ(encode(longest), encoded(units, longest));
    EXPECT_EQ(encode(longest + "y"), encoded(units, longest + "y"));
    EXPECT_EQ(encode(longest + "yz"), encoded(units, longest + "yz"));
    EXPECT_EQ(encode(times(40, longest)), encoded(units, times(40, longest)));
    EXPECT_EQ(encode(longest.substr(1)), encoded(units.substr(1), longest.substr(1)));
}

TEST_F(WithoutEncoding, The256thByteIsStillChecked) {
    const std::string longest(255, 'x');
    EXPECT_EQ(encode(longest + "\x80").result, -EINVAL);
    EXPECT_EQ(encode(longest + "y\x80"), encoded(std::u16string(255, u'x'), longest + "y\x80"));
}

// ---- no encoding: from units ------------------------------------------------------------------

TEST_F(WithoutEncoding, AsciiUnitsAreBytes) {
    EXPECT_EQ(decode(u"Read me.txt"), decoded("Read me.txt"));
    EXPECT_EQ(decode(u"\x01\x7F"), decoded("\x01\x7F"));
    EXPECT_EQ(decode(u""), decoded(""));
}

TEST_F(WithoutEncoding, OtherUnitsAreShownAsQuestionMarks) {
    EXPECT_EQ(decode(u"\x80"), decoded("?"));
    EXPECT_EQ(decode(u"a\x00E9"
                     u"b\x3042"
                     u"c"),
              decoded("a?b?c"));
    EXPECT_EQ(decode(u"\xFFFF\xFEFF\xFFFE\xD83D\xDE00\x0141"), decoded("??????"));
}

TEST_F(WithoutEncoding, EveryUnitAloneIsShown) {
    std::string shown;
    std::string expected;
    for (u32 unit = 1; unit < 0x10000; unit++) {
        const u16 units[2] = {static_cast<u16>(unit), 0};
        char text[256];
        ASSERT_EQ(convert_uname_to_cstring(units, text), 1);
        ASSERT_EQ(text[1], '\0');
        shown += text[0];
        expected += unit < 0x80 ? static_cast<char>(unit) : '?';
    }
    EXPECT_EQ(shown == expected, true);
    EXPECT_EQ(messages.text(), "");
}

TEST_F(WithoutEncoding, AShownNameHasUpTo255Bytes) {
    EXPECT_EQ(decode(std::u16string(255, u'x')), decoded(std::string(255, 'x')));
    EXPECT_EQ(decode(std::u16string(254, u'\x3042')), decoded(std::string(254, '?')));
}

TEST_F(WithoutEncoding, UnitsWithoutATerminatorFillTheTextWithoutOneToo) {
    const std::vector<u16> units(256, u'x');
    std::vector<char> text(257, '#');
    EXPECT_EQ(convert_uname_to_cstring(units.data(), text.data()), 256);
    EXPECT_EQ(std::string(text.begin(), text.end()), std::string(256, 'x') + "#");
}

// ---- choosing an encoding ---------------------------------------------------------------------

TEST_F(FatSetEncoding, AnUnknownEncodingIsReported) {
    EXPECT_EQ(fat_set_encoding("no such encoding"), -EINVAL);
    EXPECT_EQ(messages.text(), "fat_set_encoding[N]: opening iconv() error!\n\n");
    EXPECT_EQ(sv->cd_to_uni, nullptr);
    EXPECT_EQ(sv->cd_from_uni, nullptr);
    EXPECT_EQ(encode("still ASCII"), encoded(u"still ASCII", "still ASCII"));
    EXPECT_EQ(decode(u"still \x3042SCII"), decoded("still ?SCII"));
}

TEST_F(FatSetEncoding, OpensOneConverterForEachDirection) {
    if (!system_converts("ISO-8859-1")) {
        GTEST_SKIP() << "this system has no conversion for ISO-8859-1";
    }
    EXPECT_EQ(fat_set_encoding("ISO-8859-1"), 0);
    EXPECT_EQ(messages.text(), "");
    EXPECT_NE(sv->cd_to_uni, nullptr);
    EXPECT_NE(sv->cd_from_uni, nullptr);
    EXPECT_EQ(encode("\xE9"), encoded(u"\x00E9", "\xE9"));
    EXPECT_EQ(decode(u"\x00E9"), decoded("\xE9"));
}

TEST_F(FatSetEncoding, ADirectionThatFailsIsAsciiAndTheOtherIsConverted) {
    if (!system_converts("ISO-8859-1")) {
        GTEST_SKIP() << "this system has no conversion for ISO-8859-1";
    }
    {
        const failing_call fault(call::iconv_open, EINVAL, 0);
        EXPECT_EQ(fat_set_encoding("ISO-8859-1"), -EINVAL);
    }
    EXPECT_EQ(messages.text(), "fat_set_encoding[N]: opening iconv() error!\n\n");
    EXPECT_EQ(sv->cd_to_uni, nullptr);
    EXPECT_EQ(encode("\xE9").result, -EINVAL);
    EXPECT_EQ(decode(u"\x00E9"), decoded("\xE9"));
    messages.clear();
    {
        const failing_call fault(call::iconv_open, EMFILE, 1);
        EXPECT_EQ(fat_set_encoding("ISO-8859-1"), -EINVAL);
    }
    EXPECT_EQ(messages.text(), "fat_set_encoding[N]: opening iconv() error!\n\n");
    EXPECT_EQ(sv->cd_from_uni, nullptr);
    EXPECT_EQ(encode("\xE9"), encoded(u"\x00E9", "\xE9"));
    EXPECT_EQ(decode(u"\x00E9"), decoded("?"));
}

TEST_F(FatSetEncoding, AReplacedConverterIsClosed) {
    if (!system_converts("ISO-8859-1") || !system_converts("UTF-8")) {
        GTEST_SKIP() << "this system has no conversion for ISO-8859-1 or UTF-8";
    }
    const auto sorted = [](std::vector<iconv_t> list) {
        std::sort(list.begin(), list.end());
        return list;
    };
    ASSERT_EQ(fat_set_encoding("ISO-8859-1"), 0);
    const std::vector<iconv_t> first = {sv->cd_to_uni, sv->cd_from_uni};
    {
        const closed_converters closed;
        ASSERT_EQ(fat_set_encoding("UTF-8"), 0);
        EXPECT_EQ(sorted(closed.list()), sorted(first));
    }
    EXPECT_EQ(encode("\xC3\xA9"), encoded(u"\x00E9", "\xC3\xA9"));
    const std::vector<iconv_t> second = {sv->cd_to_uni, sv->cd_from_uni};
    const closed_converters closed;
    EXPECT_EQ(fat_set_encoding("no such encoding"), -EINVAL);
    EXPECT_EQ(sorted(closed.list()), sorted(second));
    EXPECT_EQ(sv->cd_to_uni, nullptr);
    EXPECT_EQ(sv->cd_from_uni, nullptr);
}

TEST_F(FatSetEncoding, ClosingTheVolumeClosesBothConvertersOnce) {
    if (!system_converts("UTF-8")) {
        GTEST_SKIP() << "this system has no conversion for UTF-8";
    }
    ASSERT_EQ(fat_set_encoding("UTF-8"), 0);
    const std::vector<iconv_t> both = {sv->cd_to_uni, sv->cd_from_uni};
    const closed_converters closed;
    EXPECT_EQ(fat_close_volume(0), 0);
    EXPECT_EQ(closed.list(), both);
    EXPECT_EQ(sv, nullptr);
}

// Runs this case again with the directories of conversion modules hidden.
TEST_F(FatSetEncoding, FailsWhereTheSystemHasNoConversions) {
    if (system_converts("UTF-8")) {
        if (std::getenv("QUORVEL_MODULES_HIDDEN") != nullptr) {
            GTEST_SKIP() << "the conversions of this system do not come from its modules";
        }
        if (!can_mount_privately()) {
            GTEST_SKIP() << "hiding the conversion modules takes a mount namespace";
        }
        if (QUORVEL_EMULATED) {
            GTEST_SKIP() << "an emulated program cannot start itself again";
        }
        const testing::TestInfo *self = testing::UnitTest::GetInstance()->current_test_info();
        const outcome hidden = shell_with_private_mounts(
            "for modules in /usr/lib/*/gconv /usr/lib/gconv /usr/lib64/gconv; do\n"
            "    if [ -d \"$modules\" ]; then mount -t tmpfs none \"$modules\" || exit 98; fi\n"
            "done\n"
            "unset GCONV_PATH\n"
            "QUORVEL_MODULES_HIDDEN=1 exec \"$1\" --gtest_filter=\"$2\"",
            {std::filesystem::read_symlink("/proc/self/exe").string(),
             std::string(self->test_suite_name()) + "." + self->name()});
        if (hidden.out.find("SKIPPED") != std::string::npos) {
            GTEST_SKIP() << "hiding the conversion modules did not work here";
        }
        EXPECT_EQ(hidden.status, 0) << hidden;
        EXPECT_NE(hidden.out.find("[  PASSED  ] 1 test."), std::string::npos) << hidden;
        return;
    }
    for (const char *charset : {"UTF-8", "ISO-8859-1", "EUC-JP", "ASCII", "UNICODE", ""}) {
        messages.clear();
        EXPECT_EQ(fat_set_encoding(charset), -EINVAL) << charset;
        EXPECT_EQ(messages.text(), "fat_set_encoding[N]: opening iconv() error!\n\n") << charset;
        EXPECT_EQ(sv->cd_to_uni, nullptr);
        EXPECT_EQ(sv->cd_from_uni, nullptr);
    }
    EXPECT_EQ(encode("plain"), encoded(u"plain", "plain"));
    EXPECT_EQ(decode(u"pl\x00E4in"), decoded("pl?in"));
}

// ---- UTF-8: to units --------------------------------------------------------------------------

TEST_F(Utf8, CharactersOfOneToThreeBytesAreUnits) {
    EXPECT_EQ(encode("plain"), encoded(u"plain", "plain"));
    EXPECT_EQ(encode("\xC3\xA9t\xC3\xA9"), encoded(u"\u00E9t\u00E9", "\xC3\xA9t\xC3\xA9"));
    EXPECT_EQ(encode("\xE3\x81\x82\xE2\x82\xAC"),
              encoded(u"\u3042\u20AC", "\xE3\x81\x82\xE2\x82\xAC"));
    EXPECT_EQ(encode("\x01\x7F\xC2\x80\xEF\xBF\xBD"),
              encoded(u"\x01\x7F\x80\xFFFD", "\x01\x7F\xC2\x80\xEF\xBF\xBD"));
    EXPECT_EQ(encode(""), encoded(u"", ""));
}

TEST_F(Utf8, TheByteOrderMarkIsNotPartOfAnyName) {
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(encode("a"), encoded(u"a", "a"));
    }
}

TEST_F(Utf8, ANameThatBeginsWithABomCharacterIsShortenedByIt) {
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(encode("\xEF\xBB\xBF"
                         "abc"),
                  encoded(u"abc", "\xEF\xBB\xBF"
                                  "abc"));
    }
    EXPECT_EQ(encode("abc\xEF\xBB\xBF"), encoded(u"abc\uFEFF", "abc\xEF\xBB\xBF"));
}

TEST_F(Utf8, TrailingBlanksAndDotsAreCutFirst) {
    EXPECT_EQ(encode("\xC3\xA9. ."), encoded(u"\u00E9", "\xC3\xA9"));
    EXPECT_EQ(encode("..."), encoded(u".", "."));
}

TEST_F(Utf8, ANameOf127UnitsIsTheLongest) {
    const std::string longest(127, 'x');
    EXPECT_EQ(encode(longest), encoded(std::u16string(127, u'x'), longest));
    EXPECT_EQ(encode(longest + "y"), not_encoded(E2BIG, longest + "y", "y"));
    EXPECT_EQ(encode(longest + "yz"), not_encoded(E2BIG, longest + "yz", "yz"));
    const std::string two_bytes = times(127, "\xC3\xA9");
    EXPECT_EQ(encode(two_bytes), encoded(std::u16string(127, u'\u00E9'), two_bytes));
    EXPECT_EQ(encode(two_bytes + "\xC3\xA9"),
              not_encoded(E2BIG, two_bytes + "\xC3\xA9", "\xC3\xA9"));
}

TEST_F(Utf8, OnlyTheFirst256BytesAreRead) {
    const std::string wide = times(85, "\xE2\x82\xAC"); // 255 bytes
    const std::u16string units(85, u'\u20AC');
    EXPECT_EQ(encode(wide), encoded(units, wide));
    EXPECT_EQ(encode(wide + "a"), encoded(units + u"a", wide + "a"));
    EXPECT_EQ(encode(wide + "abc"), encoded(units + u"a", wide + "abc"));
    EXPECT_EQ(encode(wide + "a\xFF"), encoded(units + u"a", wide + "a\xFF"));
    EXPECT_EQ(encode(wide + "a" + times(40, wide)),
              encoded(units + u"a", wide + "a" + times(40, wide)));
}

TEST_F(Utf8, ACharacterThatTheEndOfTheInputCutsIsIncomplete) {
    const std::string wide = times(85, "\xE2\x82\xAC");
    EXPECT_EQ(encode(wide + "\xC3\xA9"), not_encoded(EINVAL, wide + "\xC3\xA9", "\xC3"));
    EXPECT_EQ(encode("ab\xC3"), not_encoded(EINVAL, "ab\xC3", "\xC3"));
    EXPECT_EQ(encode("\xE2\x82"), not_encoded(EINVAL, "\xE2\x82", "\xE2\x82"));
}

TEST_F(Utf8, InvalidBytesAreReportedFromTheFirstOne) {
    EXPECT_EQ(encode("a\xFF"
                     "b"),
              not_encoded(EILSEQ,
                          "a\xFF"
                          "b",
                          "\xFF"
                          "b"));
    EXPECT_EQ(encode("\x80"), not_encoded(EILSEQ, "\x80", "\x80"));
    EXPECT_EQ(encode("x\xC0\x80"), not_encoded(EILSEQ, "x\xC0\x80", "\xC0\x80"));
    EXPECT_EQ(encode("caf\xE9 noir"), not_encoded(EILSEQ, "caf\xE9 noir", "\xE9 noir"));
}

// The units are those of UCS-2: a character of two units is invalid.
TEST_F(Utf8, CharactersOfFourBytesAreInvalid) {
    EXPECT_EQ(encode("a\xF0\x9F\x98\x80"),
              not_encoded(EILSEQ, "a\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"));
    EXPECT_EQ(encode("\xED\xA0\xBD"), not_encoded(EILSEQ, "\xED\xA0\xBD", "\xED\xA0\xBD"));
}

TEST_F(Utf8, ANameDoesNotDependOnTheOneBefore) {
    const std::vector<std::string> failing = {"a\xFF",
                                              "a\xC3",
                                              "\xE2\x82",
                                              std::string(128, 'x'),
                                              std::string(300, 'x'),
                                              "\xF0\x9F\x98\x80",
                                              ""};
    for (const std::string &before : failing) {
        encode(before);
        EXPECT_EQ(encode("\xC3\xA9z"), encoded(u"\u00E9z", "\xC3\xA9z")) << shown_bytes(before);
        encode(before);
        EXPECT_EQ(encode("\xA9"), not_encoded(EILSEQ, "\xA9", "\xA9")) << shown_bytes(before);
        encode(before);
        EXPECT_EQ(encode(std::string(127, 'x')).result, 127) << shown_bytes(before);
        encode(before);
        EXPECT_EQ(encode(std::string(128, 'x')).result, -E2BIG) << shown_bytes(before);
    }
}

// ---- UTF-8: from units ------------------------------------------------------------------------

TEST_F(Utf8, UnitsAreShownInOneToThreeBytes) {
    EXPECT_EQ(decode(u"plain"), decoded("plain"));
    EXPECT_EQ(decode(u"\u00E9t\u00E9 \u3042\u20AC"),
              decoded("\xC3\xA9t\xC3\xA9 \xE3\x81\x82\xE2\x82\xAC"));
    EXPECT_EQ(decode(u""), decoded(""));
}

TEST_F(Utf8, AShownNameHasUpTo255Bytes) {
    EXPECT_EQ(decode(std::u16string(255, u'x')), decoded(std::string(255, 'x')));
    EXPECT_EQ(decode(std::u16string(85, u'\u20AC')), decoded(times(85, "\xE2\x82\xAC")));
    EXPECT_EQ(decode(std::u16string(127, u'\u00E9') + u"x"), decoded(times(127, "\xC3\xA9") + "x"));
    EXPECT_EQ(decode(std::u16string(84, u'\u20AC') + u"xyz"),
              decoded(times(84, "\xE2\x82\xAC") + "xyz"));
}

TEST_F(Utf8, ALongerOneIsTooBig) {
    EXPECT_EQ(decode(std::u16string(86, u'\u20AC')), not_decoded(E2BIG, bytes_of(u"\u20AC")));
    EXPECT_EQ(decode(std::u16string(128, u'\u00E9')), not_decoded(E2BIG, bytes_of(u"\u00E9")));
    EXPECT_EQ(decode(std::u16string(255, u'\u00E9')).result, -E2BIG);
}

TEST_F(Utf8, UnitsWithoutATerminatorAre256) {
    EXPECT_EQ(decode(std::u16string(256, u'x')), not_decoded(E2BIG, "x"));
}

TEST_F(Utf8, HalvesOfPairsAreInvalid) {
    EXPECT_EQ(decode(u"ab\xD83D\xDE00"), not_decoded(EILSEQ, bytes_of(u"\xD83D\xDE00")));
    EXPECT_EQ(decode(u"\xDC00x"), not_decoded(EILSEQ, bytes_of(u"\xDC00x")));
}

TEST_F(Utf8, AShownNameDoesNotDependOnTheOneBefore) {
    const std::vector<std::u16string> before = {
        u"\xD83D", std::u16string(256, u'x'), u"\xFEFFz", u"\xFFFEz", u"\xFFFE", u"", u"\u20AC"};
    for (const std::u16string &first : before) {
        decode(first);
        EXPECT_EQ(decode(u"ab\u20AC"), decoded("ab\xE2\x82\xAC")) << shown_units(first);
        EXPECT_EQ(decode(u"\u3042"), decoded("\xE3\x81\x82")) << shown_units(first);
    }
}

TEST_F(Utf8, OneDirectionDoesNotDisturbTheOther) {
    encode("a\xC3");
    EXPECT_EQ(decode(u"\u00E9"), decoded("\xC3\xA9"));
    decode(u"\xD83D");
    EXPECT_EQ(encode("\xC3\xA9"), encoded(u"\u00E9", "\xC3\xA9"));
}

// ---- UTF-8: the record of a name --------------------------------------------------------------

TEST_F(Utf8, ALongNameIsMadeWhereTheShortOneIsNotFaithful) {
    const std::string name = "\xC3\x89t\xC3\xA9 Long. ";
    const std::u16string units = u"\u00C9t\u00E9 Long";
    EXPECT_EQ(fill(name),
              (record{0, "", "\xC3\x89t\xC3\xA9 Long", "\xC3\x89T\xC3\xA9LON   ", units, 0x18, 1}));
}

TEST_F(Utf8, BytesThatFitGetNoLongName) {
    EXPECT_EQ(
        fill("\xC3\xA9t\xC3\xA9.txt"),
        (record{0, "", "\xC3\xA9t\xC3\xA9.txt", "\xC3\xA9T\xC3\xA9   TXT", std::nullopt, 0x18, 0}));
    EXPECT_EQ(fill("\xFF\xFE"),
              (record{0, "", "\xFF\xFE", "\xFF\xFE         ", std::nullopt, 0, 0}));
}

TEST_F(Utf8, ALongNameThatCannotBeMadeIsARefusedName) {
    const allocation_meter meter;
    caller_string string("Caf\xE9");
    fat_name name = {};
    EXPECT_EQ(get_fatnames(string.get(), &name), -EINVAL);
    EXPECT_EQ(messages.text(), "convert_cstring_to_uname[N]: Failed to convert: \xE9\n\n"
                               "convert_name[N]: Failed to convert ...!\n\n");
    EXPECT_EQ(name.dosName, nullptr);
    EXPECT_EQ(name.unicode, nullptr);
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(fill(std::string(128, 'x')),
              (record{-EINVAL,
                      "convert_cstring_to_uname[N]: Failed to convert: x\n\n"
                      "convert_name[N]: Failed to convert ...!\n\n",
                      std::string(128, 'x'), "", std::nullopt, 0, 0}));
}

TEST_F(Utf8, NoAllocationFailsUnseen) {
    at_every_fault({EVERY_ALLOCATION}, [&](fault_step &step) {
        caller_string string("\xC3\xA9+");
        fat_name name = {};
        const int result = step.run_keeping([&] { return get_fatnames(string.get(), &name); });
        EXPECT_EQ(step.struck(), step.k < 2);
        EXPECT_EQ(result, step.struck() ? -ENOMEM : 0);
        EXPECT_EQ(step.left_allocated(), step.struck() ? 0 : 2);
        if (!step.struck()) {
            release_name(&name);
        }
    });
}

// ---- ISO-8859-1 -------------------------------------------------------------------------------

TEST_F(Latin1, EveryByteIsTheUnitOfItsNumber) {
    for (u32 c = 1; c < 256; c++) {
        const std::string name = {'x', static_cast<char>(c), 'x'};
        const std::u16string units = {u'x', static_cast<char16_t>(c), u'x'};
        EXPECT_EQ(encode(name), encoded(units, name));
        EXPECT_EQ(decode(units), decoded(name));
    }
}

TEST_F(Latin1, EveryUnitAboveIsInvalid) {
    EXPECT_EQ(decode(u"10 \u20AC"), not_decoded(EILSEQ, bytes_of(u"\u20AC")));
    EXPECT_EQ(decode(u"\u0100x"), not_decoded(EILSEQ, ""));
    EXPECT_EQ(decode(u"a\uFFFF"), not_decoded(EILSEQ, "\xFF\xFF"));
}

TEST_F(Latin1, ANameOf127UnitsIsTheLongest) {
    const std::string longest(127, '\xE9');
    EXPECT_EQ(encode(longest), encoded(std::u16string(127, u'\u00E9'), longest));
    EXPECT_EQ(encode(longest + "\xE8"), not_encoded(E2BIG, longest + "\xE8", "\xE8"));
    EXPECT_EQ(encode(longest + std::string(200, 'z')),
              not_encoded(E2BIG, longest + std::string(200, 'z'), std::string(129, 'z')));
}

TEST_F(Latin1, AShownNameHasUpTo255Bytes) {
    EXPECT_EQ(decode(std::u16string(255, u'\u00E9')), decoded(std::string(255, '\xE9')));
    EXPECT_EQ(decode(std::u16string(256, u'\u00E9')), not_decoded(E2BIG, "\xE9"));
}

TEST_F(Latin1, ALossyNameHasTheUnitsOfItsBytes) {
    EXPECT_EQ(fill("\xE9\xE8+x"),
              (record{0, "", "\xE9\xE8+x", "\xE9\xE8_X       ", u"\u00E9\u00E8+x", 0x08, 1}));
}

// ---- EUC-JP and Shift JIS ---------------------------------------------------------------------

TEST_F(EucJp, CharactersOfTwoAndThreeBytesAreUnits) {
    EXPECT_EQ(encode("\xA4\xA2.txt"), encoded(u"\u3042.txt", "\xA4\xA2.txt"));
    EXPECT_EQ(encode("\x8E\xB1"), encoded(u"\uFF71", "\x8E\xB1"));
    EXPECT_EQ(encode("\x8F\xB0\xA1"), encoded(u"\u4E02", "\x8F\xB0\xA1"));
    EXPECT_EQ(decode(u"\u3042\uFF71\u4E02"), decoded("\xA4\xA2\x8E\xB1\x8F\xB0\xA1"));
}

TEST_F(EucJp, ANameOf127UnitsIsTheLongest) {
    const std::string longest = times(127, "\xA4\xA2");
    EXPECT_EQ(encode(longest), encoded(std::u16string(127, u'\u3042'), longest));
    EXPECT_EQ(encode(longest + "\xA4\xA2"), not_encoded(E2BIG, longest + "\xA4\xA2", "\xA4\xA2"));
}

TEST_F(EucJp, ACharacterThatTheEndOfTheInputCutsIsIncomplete) {
    EXPECT_EQ(encode("x\xA4"), not_encoded(EINVAL, "x\xA4", "\xA4"));
    const std::string wide = times(85, "\x8F\xB0\xA1");
    EXPECT_EQ(encode(wide + "\xA4\xA2"), not_encoded(EINVAL, wide + "\xA4\xA2", "\xA4"));
    EXPECT_EQ(encode("\xA4\xA2"), encoded(u"\u3042", "\xA4\xA2"));
}

TEST_F(EucJp, AShownNameHasUpTo255Bytes) {
    EXPECT_EQ(decode(std::u16string(127, u'\u3042') + u"x"), decoded(times(127, "\xA4\xA2") + "x"));
    EXPECT_EQ(decode(std::u16string(128, u'\u3042')), not_decoded(E2BIG, "\x42\x30"));
}

TEST_F(EucJp, MissingCharactersAreInvalid) {
    EXPECT_EQ(decode(u"a\u0E01"), not_decoded(EILSEQ, bytes_of(u"\u0E01")));
    EXPECT_EQ(encode("a\xA4\x20x"), not_encoded(EILSEQ, "a\xA4\x20x", "\xA4\x20x"));
}

TEST_F(ShiftJis, CharactersOfTwoBytesAreUnits) {
    EXPECT_EQ(encode("\x82\xA0.txt"), encoded(u"\u3042.txt", "\x82\xA0.txt"));
    EXPECT_EQ(decode(u"\u3042\uFF71"), decoded("\x82\xA0\xB1"));
}

// The short name and the refusals see bytes, not characters: the second byte of a character may be
// a letter or a backslash.
TEST_F(ShiftJis, SecondBytesCountAsCharactersOfTheShortName) {
    EXPECT_EQ(fill("\x83\x61"),
              (record{0, "", "\x83\x61", "\x83\x41         ", std::nullopt, 0x08, 0}));
    EXPECT_EQ(
        fill("\x83\x41\x83\x61"),
        (record{0, "", "\x83\x41\x83\x61", "\x83\x41\x83\x41       ", u"\u30A2\u30C2", 0x18, 0}));
    EXPECT_EQ(verify_valid_name("\x83\x5C"), -EINVAL);
}

// ---- encodings that combine a character with the next one -------------------------------------

TEST_F(Cp1258, TheLastCharacterIsNotHeldBack) {
    EXPECT_EQ(encode("Longname a"), encoded(u"Longname a", "Longname a"));
    EXPECT_EQ(encode("a"), encoded(u"a", "a"));
    EXPECT_EQ(encode("a\xEC"), encoded(u"\u00E1", "a\xEC")); // a letter and its accent
    EXPECT_EQ(encode("Longname b"), encoded(u"Longname b", "Longname b"));
}

TEST_F(Cp1258, ANameWithoutRoomForItsLastCharacterIsTooBig) {
    EXPECT_EQ(encode(std::string(127, 'a')).result, 127);
    EXPECT_EQ(encode(std::string(128, 'a')).result, -E2BIG);
}

TEST_F(Big5Hkscs, TheLastUnitIsNotHeldBack) {
    const text_made alone = decode(u"\u00CA");
    EXPECT_EQ(alone.text, "\x88\x66");
    EXPECT_EQ(decode(u"a\u00CA"), decoded("a\x88\x66"));
    EXPECT_EQ(decode(u"\u00CA\u0304"), decoded("\x88\x62")); // one character of two units
}

// ---- an encoding with shift states ------------------------------------------------------------

TEST_F(Iso2022Jp, ShiftSequencesTakeNoUnits) {
    const std::string name = "\x1B$B$\"\x1B(Ba";
    EXPECT_EQ(encode(name), encoded(u"\u3042a", name));
    EXPECT_EQ(decode(u"\u3042a"), decoded(name));
    EXPECT_EQ(decode(u"\u3042"), decoded("\x1B$B$\"\x1B(B")); // is shifted back at its end
}

TEST_F(Iso2022Jp, ANameThatEndsShiftedDoesNotShiftTheNextOne) {
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(encode("\x1B$B$\""), encoded(u"\u3042", "\x1B$B$\""));
        EXPECT_EQ(encode("$\""), encoded(u"$\"", "$\""));
        const text_made shifted = decode(u"\u3042");
        EXPECT_EQ(shifted.text.substr(0, 5), "\x1B$B$\"");
        EXPECT_EQ(decode(u"$\""), decoded("$\""));
        EXPECT_EQ(decode(u"\u3042"), shifted);
    }
}

TEST_F(Iso2022Jp, ANameThatFailsShiftedDoesNotShiftTheNextOne) {
    EXPECT_EQ(encode("\x1B$B$\"\xFF"), not_encoded(EILSEQ, "\x1B$B$\"\xFF", "\xFF"));
    EXPECT_EQ(encode("$\""), encoded(u"$\"", "$\""));
    EXPECT_EQ(decode(u"\u3042\u0E01").result, -EILSEQ);
    EXPECT_EQ(decode(u"$\""), decoded("$\""));
}

TEST_F(Iso2022Jp, ANameOfShiftsAloneIsEmptyAndHasNoLongName) {
    const std::string shifts = "\x1B(B\x1B(B\x1B(B";
    EXPECT_EQ(encode(shifts), encoded(u"", shifts));
    const allocation_meter meter;
    EXPECT_EQ(fill(shifts), (record{0, "", shifts, "\x1B(B\x1B(B\x1B(   ", std::nullopt, 0, 1}));
    EXPECT_EQ(meter.live_blocks(), 0);
}

// ---- compared with new converters -------------------------------------------------------------

namespace {

// A conversion by a new converter.
struct conversion {
    int error; // 0: none
    std::string out;
    std::string rest; // of the input
};

conversion convert_independently(const char *to, const char *from, std::string in,
                                 std::size_t room) {
    iconv_t converter = iconv_open(to, from);
    conversion result = {};
    result.out.resize(room);
    char *in_at = in.data();
    std::size_t in_left = in.size();
    char *out_at = result.out.data();
    std::size_t out_left = room;
    constexpr std::size_t FAILED = static_cast<std::size_t>(-1);
    if (iconv(converter, &in_at, &in_left, &out_at, &out_left) == FAILED ||
        iconv(converter, nullptr, nullptr, &out_at, &out_left) == FAILED) {
        result.error = errno;
    }
    iconv_close(converter);
    result.out.resize(room - out_left);
    result.rest = in.substr(in.size() - in_left);
    return result;
}

units_made encoded_independently(const char *charset, const std::string &name) {
    const std::string left = model::without_tail_blanks(name);
    const conversion c = convert_independently("UNICODE", charset, left.substr(0, 256), 256);
    if (c.error != 0) {
        return not_encoded(c.error, left, c.rest);
    }
    std::u16string units(c.out.size() / 2, u'\0');
    std::copy(c.out.begin(), c.out.end(), reinterpret_cast<char *>(units.data()));
    if (!units.empty() && units[0] == 0xFEFF) {
        units.erase(0, 1);
    }
    return encoded(units, left);
}

text_made decoded_independently(const char *charset, const std::u16string &units) {
    const std::string in(reinterpret_cast<const char *>(units.data()), units.size() * 2);
    const conversion c = convert_independently(charset, "UNICODE", in, 255);
    return c.error != 0 ? not_decoded(c.error, c.rest.substr(0, c.rest.find('\0')))
                        : decoded(c.out);
}

// Parts of names in every encoding, valid and invalid.
const std::vector<std::string> PIECES = {"a",
                                         "Z",
                                         "~1",
                                         " ",
                                         ".",
                                         "\xC3\xA9",
                                         "\xE2\x82\xAC",
                                         "\xE9",
                                         "\xA4\xA2",
                                         "\xA4",
                                         "\x8E\xB1",
                                         "\x82\xA0",
                                         "\x83\x5C",
                                         "\x8F\xB0\xA1",
                                         "\xFF",
                                         "\x80",
                                         "\x1B$B",
                                         "$\"",
                                         "\x1B(B",
                                         "\x1B(J",
                                         "\x1B",
                                         "\xF0\x9F\x98\x80"};

std::string any_name(std::mt19937 *random) {
    const std::size_t most = (*random)() % 8 == 0 ? 130 : 6;
    const bool is_uniform = (*random)() % 2 == 0;
    const std::string piece = PIECES[(*random)() % PIECES.size()];
    std::string name;
    for (std::size_t i = (*random)() % (most + 1); i > 0; i--) {
        name += is_uniform ? piece : PIECES[(*random)() % PIECES.size()];
    }
    return name;
}

std::u16string any_units(std::mt19937 *random) {
    const std::u16string known = u"aZ \u00E9\u20AC\u3042\u30A2\uFF71\u4E02\uFEFF\uFFFE\xD83D\xFFFF";
    const std::size_t most = (*random)() % 8 == 0 ? 256 : 6;
    const bool is_uniform = (*random)() % 2 == 0;
    const char16_t unit = known[(*random)() % known.size()];
    std::u16string units;
    for (std::size_t i = (*random)() % (most + 1); i > 0; i--) {
        units += is_uniform              ? unit
                 : (*random)() % 10 == 0 ? static_cast<char16_t>(1 + (*random)() % 0xFFFF)
                                         : known[(*random)() % known.size()];
    }
    return units;
}

class EncodingsAtRandom : public Encoding, public testing::WithParamInterface<const char *> {
protected:
    void SetUp() override {
        if (!system_converts(GetParam())) {
            GTEST_SKIP() << "this system has no conversion for " << GetParam();
        }
        ASSERT_EQ(fat_set_encoding(GetParam()), 0);
    }
};

std::string charset_name(const testing::TestParamInfo<const char *> &info) {
    std::string name = info.param;
    std::erase_if(name, [](char c) { return c == '-' || c == '_'; });
    return name;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Charsets, EncodingsAtRandom,
                         testing::Values("UTF-8", "ISO-8859-1", "EUC-JP", "SHIFT_JIS",
                                         "ISO-2022-JP", "CP1258", "BIG5-HKSCS"),
                         charset_name);

TEST_P(EncodingsAtRandom, EveryNameIsConvertedAsIfItWereTheFirst) {
    constexpr u32 SEED = 5150231;
    std::printf("seed %u\n", SEED);
    std::mt19937 random(SEED);
    u32 failures = 0;
    for (int i = 0; i < 3000; i++) {
        const std::string name = any_name(&random);
        const units_made expected = encoded_independently(GetParam(), name);
        ASSERT_EQ(encode(name), expected) << i << ": " << shown_bytes(name);
        ASSERT_FALSE(HasFailure());
        failures += expected.result < 0 ? 1 : 0;
    }
    EXPECT_GT(failures, 50U);
    EXPECT_LT(failures, 2500U);
}

TEST_P(EncodingsAtRandom, EveryStoredNameIsShownAsIfItWereTheFirst) {
    constexpr u32 SEED = 90125;
    std::printf("seed %u\n", SEED);
    std::mt19937 random(SEED);
    u32 failures = 0;
    for (int i = 0; i < 3000; i++) {
        const std::u16string units = any_units(&random);
        const text_made expected = decoded_independently(GetParam(), units);
        text_made made = decode(units);
        if (!units.empty() && units[0] == 0xFFFE) {
            made.messages = expected.messages; // shows the units in one byte order or the other
        }
        ASSERT_EQ(made, expected) << i << ": " << shown_units(units);
        ASSERT_FALSE(HasFailure());
        failures += expected.result < 0 ? 1 : 0;
    }
    EXPECT_GT(failures, 50U);
    EXPECT_LT(failures, 2500U);
}
