// Names between host and volume, their short forms, times, the progress bar, and who uses a device.

#include "qvol/mounted.h"
#include "qvol/names.h"
#include "qvol/progress.h"
#include "qvol/short_name.h"
#include "qvol/times.h"

#include "qvol/error.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/sysmacros.h>

using namespace qvol;
using testing_support::scratch_directory;

namespace {

std::string text(const short_name &name) {
    return {name.begin(), name.end()};
}

std::u16string repeated(char16_t unit, std::size_t count) {
    return std::u16string(count, unit);
}

// Emoji beyond U+FFFF, of two units each.
std::u16string emoji(std::size_t count) {
    std::u16string name;
    for (std::size_t i = 0; i < count; i++) {
        name += u"\U0001F600";
    }
    return name;
}

constexpr char32_t LAST_CHARACTER = 0x10FFFF;

// The characters from `first` on, assigned or not, as units. Surrogates are none.
std::u16string characters(char32_t first, char32_t count) {
    std::u16string text;
    for (char32_t code = first; code < first + count && code <= LAST_CHARACTER; code++) {
        if (code >= 0x10000) {
            text.push_back(static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10)));
            text.push_back(static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF)));
        } else if (code < 0xD800 || code > 0xDFFF) {
            text.push_back(static_cast<char16_t>(code));
        }
    }
    return text;
}

} // namespace

// ---- conversion -------------------------------------------------------------------------------

TEST(NameCodec, PassesEveryCharacterThroughUnitsAndBack) {
    const name_codec codec;
    const name_codec system("ISO-10646/UTF8/"); // UTF-8 by iconv
    constexpr char32_t STEP = 64;
    std::size_t units = 0;
    for (char32_t first = 1; first <= LAST_CHARACTER; first += STEP) {
        const std::u16string text = characters(first, STEP);
        const std::optional<std::string> encoded = codec.to_host(text);
        ASSERT_TRUE(encoded.has_value()) << std::hex << u32{first};
        ASSERT_EQ(encoded, system.to_host(text)) << std::hex << u32{first};
        ASSERT_EQ(codec.to_units(*encoded), text) << std::hex << u32{first};
        units += text.size();
    }
    EXPECT_EQ(units, 0xFFFFU - 0x800 + 2 * 0x100000);
}

TEST(NameCodec, JoinsSurrogatePairs) {
    EXPECT_EQ(name_codec().to_host(u"\xD83D\xDE00"), "\xF0\x9F\x98\x80");
    EXPECT_EQ(name_codec().to_units("\xF0\x9F\x98\x80"), u"\xD83D\xDE00");
}

TEST(NameCodec, RefusesWhatIsNoText) {
    const name_codec codec;
    for (const char *encoded : {"\x80", "\xC0\xAF", "\xE0\x80\x80", "\xED\xA0\x80",
                                "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "a\xC3", "\xFF"}) {
        EXPECT_EQ(codec.to_units(encoded), std::nullopt) << testing::PrintToString(encoded);
    }
    EXPECT_EQ(codec.to_host(u"\xD800"), std::nullopt);
    EXPECT_EQ(codec.to_host(u"a\xDC00z"), std::nullopt);
}

TEST(NameCodec, ConvertsOtherEncodingsWithoutLossOrNotAtAll) {
    const name_codec codec("ISO-8859-1");
    EXPECT_EQ(codec.to_units("gr\xFC\xDF"), u"gr\u00FC\u00DF");
    EXPECT_EQ(codec.to_host(u"gr\u00FC\u00DF"), "gr\xFC\xDF");
    EXPECT_EQ(codec.to_host(u"\u20AC"), std::nullopt);
    EXPECT_EQ(codec.to_host(emoji(1)), std::nullopt);
    const name_codec wide("GB18030");
    EXPECT_EQ(wide.to_units("a\x94\x39\xFC\x36"), u"a" + emoji(1));
    EXPECT_EQ(wide.to_host(u"a" + emoji(1)), "a\x94\x39\xFC\x36");
}

TEST(NameCodec, RefusesAnEncodingThatTheSystemDoesNotHave) {
    EXPECT_THROW(name_codec("no-such-encoding"), usage_error);
}

// ---- showing ----------------------------------------------------------------------------------

TEST(ShownName, LeavesOrdinaryNamesAlone) {
    const name_codec codec;
    EXPECT_EQ(codec.shown(u"read me.txt"), "read me.txt");
    EXPECT_EQ(codec.shown(u"it's \\ here"), "it's \\ here");
    EXPECT_EQ(codec.shown(u"gr\u00FC\u00DF"), "gr\xC3\xBC\xC3\x9F");
    EXPECT_EQ(codec.shown(emoji(1)), "\xF0\x9F\x98\x80");
}

TEST(ShownName, QuotesWhatWouldReachTheTerminal) {
    const name_codec codec;
    EXPECT_EQ(codec.shown(u"a\x1B[31mb"), "$'a\\x1b[31mb'");
    EXPECT_EQ(codec.shown(u"it's\n"), "$'it\\'s\\x0a'");
    EXPECT_EQ(codec.shown(u"\x009B"), "$'\\u009b'");
    EXPECT_EQ(codec.shown(u"a\u202Egnp.exe"), "$'a\\u202egnp.exe'");
    EXPECT_EQ(codec.shown(u"a\U000E0041"), "$'a\\U000e0041'"); // invisible
    EXPECT_EQ(codec.shown(u"\xD800"), "$'\\ud800'");
    EXPECT_EQ(codec.shown(u"\xDE00\xD83D"
                          u"a"),
              "$'\\ude00\\ud83da'");
    EXPECT_EQ(codec.shown(emoji(1) + u"\xD83D"), "$'\xF0\x9F\x98\x80\\ud83d'");
    EXPECT_EQ(name_codec("ISO-8859-1").shown(emoji(1)), "$'\\U0001f600'");
}

TEST(ShownName, QuotesNamesThatLeadElsewhere) {
    const name_codec codec;
    EXPECT_EQ(codec.shown(u".."), "$'..'");
    EXPECT_EQ(codec.shown(u"a/b"), "$'a/b'");
    EXPECT_EQ(codec.shown(u""), "$''");
}

TEST(ShownName, EscapesBytesOfTheHostThatAreNoText) {
    EXPECT_EQ(shown_bytes("a\xFF\x1B"), "$'a\\xff\\x1b'");
    EXPECT_EQ(shown_bytes("plain"), "plain");
}

// ---- what a volume can hold -------------------------------------------------------------------

TEST(NameProblem, IsNoneForNamesUpToTheLimit) {
    EXPECT_EQ(name_problem(u"a"), std::nullopt);
    EXPECT_EQ(name_problem(u".hidden"), std::nullopt);
    EXPECT_EQ(name_problem(u"aux.c"), std::nullopt);
    EXPECT_EQ(name_problem(repeated(u'x', 255)), std::nullopt);
    EXPECT_EQ(name_problem(emoji(127) + u"x"), std::nullopt);
}

TEST(NameProblem, IsNoneForAllCharactersButAFew) {
    u32 valid = 0;
    for (char32_t code = 1; code <= LAST_CHARACTER; code++) {
        const std::u16string name = characters(code, 1);
        valid += name.empty() || name_problem(name) ? 0 : 1;
    }
    constexpr u32 CONTROLS = 0x1F + (0x9F - 0x7E);
    EXPECT_EQ(valid, 0x10FFFFU - 0x800 - CONTROLS - std::string("\\/:*?\"<>| .").size());
}

TEST(NameProblem, TellsWhy) {
    EXPECT_EQ(name_problem(u"a:b"), "contains ':'");
    EXPECT_EQ(name_problem(u"a\x07"), "contains the control character 0x07");
    EXPECT_EQ(name_problem(u"dot."), "ends with a space or a dot");
    EXPECT_EQ(name_problem(u"blank "), "ends with a space or a dot");
    EXPECT_EQ(name_problem(u"Con"), "is a device name");
    EXPECT_EQ(name_problem(u"lpt9"), "is a device name");
    EXPECT_EQ(name_problem(repeated(u'x', 256)), "has 256 UTF-16 units, at most 255 are allowed");
    EXPECT_EQ(name_problem(emoji(128)), "has 256 UTF-16 units, at most 255 are allowed");
    EXPECT_EQ(name_problem(u""), "is empty");
    EXPECT_EQ(name_problem(u"\xD800"), "contains half a surrogate pair");
}

TEST(NameProblem, RefusesEachForbiddenCharacter) {
    for (const char16_t unit : std::u16string(u"\\/:*?\"<>|")) {
        EXPECT_NE(name_problem(std::u16string(u"a") + unit), std::nullopt)
            << static_cast<int>(unit);
    }
}

TEST(ExtractionProblem, RefusesNamesThatLeadElsewhereAndControls) {
    EXPECT_EQ(extraction_problem(u"name"), std::nullopt);
    for (const std::u16string name : {u"..", u".", u"", u"../x", u"/etc/passwd"}) {
        EXPECT_EQ(extraction_problem(name), "would lead outside the destination");
    }
    EXPECT_EQ(extraction_problem(u"a\x1B"), "contains the control character 0x1b");
}

TEST(FoldCase, MakesNamesThatDifferInCaseEqual) {
    EXPECT_EQ(fold_case(u"ReadMe \u00E4\u03C9\u0434"), fold_case(u"README \u00C4\u03A9\u0414"));
    EXPECT_NE(fold_case(u"a"), fold_case(u"b"));
}

TEST(FoldCase, LeavesLettersOfTwoUnitsAlone) {
    EXPECT_NE(fold_case(u"\U00010400"), fold_case(u"\U00010428")); // Deseret, long I
}

TEST(SlotsOfName, CountsThirteenUnitsToASlot) {
    EXPECT_EQ(slots_of_name(u"README.TXT"), 1U);
    EXPECT_EQ(slots_of_name(u"readme.txt"), 2U);
    EXPECT_EQ(slots_of_name(repeated(u'x', 13)), 2U);
    EXPECT_EQ(slots_of_name(repeated(u'x', 14)), 3U);
    EXPECT_EQ(slots_of_name(repeated(u'x', 255)), 21U);
    EXPECT_EQ(slots_of_name(emoji(7)), 3U);
}

// ---- short names ------------------------------------------------------------------------------

TEST(ShortForm, KeepsWhat83Holds) {
    EXPECT_EQ(text(short_form_of(u"readme.txt").name), "README  TXT");
    EXPECT_TRUE(short_form_of(u"readme.txt").is_exact);
    EXPECT_EQ(text(short_form_of(u"ZUQ_POOL.SY$").name), "ZUQ_POOLSY$");
    EXPECT_TRUE(short_form_of(u"NOEXT").is_exact);
}

TEST(ShortForm, TellsWhatWasLost) {
    const std::pair<std::u16string, std::string> cases[] = {
        {u"read me.txt", "README  TXT"},     {u"a.b.c", "AB      C  "},
        {u".profile", "PROFILE    "},        {u"toolongname", "TOOLONGN   "},
        {u"x.jpeg", "X       JPE"},          {u"a+b", "A_B        "},
        {u"gr\u00FC\u00DF", "GR__       "},  {u"   ", "_          "},
        {emoji(1) + u".txt", "__      TXT"},
    };
    for (const auto &[name, expected] : cases) {
        EXPECT_EQ(text(short_form_of(name).name), expected);
        EXPECT_FALSE(short_form_of(name).is_exact) << expected;
    }
}

TEST(ShortNameUnits, ShowsCaseBitsAndEscapes) {
    const short_name name = {'R', 'E', 'A', 'D', 'M', 'E', ' ', ' ', 'T', 'X', 'T'};
    EXPECT_EQ(short_name_units(name, 0), u"README.TXT");
    EXPECT_EQ(short_name_units(name, 0x18), u"readme.txt");
    const short_name escaped = {0x05, 0x81, ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
    EXPECT_EQ(short_name_units(escaped, 0), u"\u03C3\u00FC");
}

TEST(ShortNameSet, GivesLikeNamesTailsAndThenBasesOfTheirOwn) {
    short_name_set names;
    std::set<std::string> chosen;
    for (int i = 0; i < 20000; i++) {
        const short_name name =
            names.choose(u"photograph " + units_of_utf8(std::to_string(i)).value());
        names.insert(name);
        EXPECT_TRUE(chosen.insert(text(name)).second) << i;
        if (i == 0) {
            EXPECT_EQ(text(name), "PHOTOG~1   ");
        } else if (i == 9) {
            EXPECT_EQ(text(name), "PHOTO~10   ");
        } else if (i == 1022) {
            EXPECT_EQ(text(name), "PHO~1023   ");
        } else if (i == 1023) {
            EXPECT_EQ(text(name).substr(0, 2), "PH");
            EXPECT_EQ(text(name).substr(6, 2), "~1");
        }
    }
}

TEST(ShortNameSet, DependsOnTheNamesAlone) {
    short_name_set a;
    short_name_set b;
    for (int i = 0; i < 3000; i++) {
        const std::u16string name = u"same beginning " + units_of_utf8(std::to_string(i)).value();
        const short_name first = a.choose(name);
        a.insert(first);
        const short_name second = b.choose(name);
        b.insert(second);
        ASSERT_EQ(first, second);
    }
}

TEST(ShortNameSet, LeavesReservedNamesToThoseTheyBelongTo) {
    short_name_set names;
    names.reserve(u"README~1.TXT");
    EXPECT_EQ(text(names.choose(u"readme first.txt")), "README~2TXT");
    EXPECT_EQ(text(names.choose(u"README~1.TXT")), "README~1TXT");
}

// ---- times ------------------------------------------------------------------------------------

TEST(DosTime, GoesThereAndBackInStepsOfTwoSeconds) {
    setenv("TZ", "UTC", 1);
    tzset();
    const time_t moment = 1709210097; // 2024-02-29 12:34:57 UTC
    EXPECT_EQ(text_of(dos_time_of(moment)), "2024-02-29 12:34:56");
    EXPECT_EQ(moment_of(dos_time_of(moment)), moment - 1);
}

TEST(DosTime, ClampsWhatTheFormatDoesNotReach) {
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(text_of(dos_time_of(0)), "1980-01-01 00:00:00");
    EXPECT_EQ(text_of(dos_time_of(time_t{1} << 40)), "2107-12-31 23:59:58");
}

TEST(DosTime, ShowsDashesWhereThereIsNoDate) {
    EXPECT_EQ(text_of({}), "---------- --------");
    EXPECT_EQ(moment_of({}), std::nullopt);
    EXPECT_EQ(moment_of({0xFFFF, 0xFFFF}), std::nullopt);
}

// ---- progress ---------------------------------------------------------------------------------

TEST(ProgressText, ShowsShareRateAndRemainingTime) {
    EXPECT_EQ(progress_text("put", 512 * 1024, 1024 * 1024, 2),
              "put [###############...............]  50 % 256.0 KiB/s 2 s left");
    EXPECT_EQ(progress_text("get", 0, 100, 0),
              "get [..............................]   0 % 0 bytes/s ");
}

// ---- who uses a device ------------------------------------------------------------------------

// A system of files: a disk 8:0 with partitions 8:1 and 8:2, and loop device 7:0 over an image.
class MountPoint : public testing::Test {
protected:
    MountPoint() {
        namespace fs = std::filesystem;
        make("devices/sda/dev", "8:0");
        make("devices/sda/sda1/dev", "8:1");
        make("devices/sda/sda1/partition", "1");
        make("devices/sda/sda2/dev", "8:2");
        make("devices/sda/sda2/partition", "2");
        make("blocks/loop0/dev", "7:0");
        image_ = scratch_.sparse_file("disk.img", 4096);
        make("blocks/loop0/loop/backing_file", image_);
        fs::create_directories(scratch_.file("numbers"));
        fs::create_directory_symlink(scratch_.file("devices/sda"), scratch_.file("numbers/8:0"));
        fs::create_directory_symlink(scratch_.file("devices/sda/sda1"),
                                     scratch_.file("numbers/8:1"));
        fs::create_directory_symlink(scratch_.file("devices/sda/sda2"),
                                     scratch_.file("numbers/8:2"));
        fs::create_directory_symlink(scratch_.file("blocks/loop0"), scratch_.file("numbers/7:0"));
    }

    void make(const std::string &name, const std::string &line) {
        const std::filesystem::path path = scratch_.file(name);
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << line << '\n';
    }

    // The mount point found for a device, while `number` is mounted.
    std::optional<std::string> found(const struct stat &status, const std::string &number) {
        make("mounts", "22 1 " + number + " / /mnt/flash rw,relatime shared:1 - vfat /dev/x rw");
        return mount_point_using(
            status, {scratch_.file("mounts"), scratch_.file("numbers"), scratch_.file("blocks")});
    }

    static struct stat device(unsigned major_number, unsigned minor_number) {
        struct stat status {};
        status.st_mode = S_IFBLK;
        status.st_rdev = makedev(major_number, minor_number);
        return status;
    }
    struct stat image() {
        struct stat status {};
        stat(image_.c_str(), &status);
        return status;
    }

    scratch_directory scratch_;
    std::string image_;
};

TEST_F(MountPoint, IsFoundForTheDeviceItself) {
    EXPECT_EQ(found(device(8, 0), "8:0"), "/mnt/flash");
    EXPECT_EQ(found(device(8, 1), "8:1"), "/mnt/flash");
}

TEST_F(MountPoint, IsFoundForADiskByItsPartitionAndTheOtherWayRound) {
    EXPECT_EQ(found(device(8, 0), "8:2"), "/mnt/flash");
    EXPECT_EQ(found(device(8, 2), "8:0"), "/mnt/flash");
}

TEST_F(MountPoint, IsNotFoundForAnotherPartitionOrDisk) {
    EXPECT_EQ(found(device(8, 1), "8:2"), std::nullopt);
    EXPECT_EQ(found(device(8, 16), "8:0"), std::nullopt);
}

TEST_F(MountPoint, IsFoundForAnImageByItsLoopDevice) {
    EXPECT_EQ(found(image(), "7:0"), "/mnt/flash");
    EXPECT_EQ(found(image(), "8:0"), std::nullopt);
}
