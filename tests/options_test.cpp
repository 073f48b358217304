// The command line: what each option accepts, refuses and prints.

#include "tool/options.h"

#include "tests/support/capture.h"
#include "tests/support/tool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <mntent.h>

using namespace testing_support;

namespace {

constexpr char BLANK_LABEL[] = "           ";

// One parse of a command line, and all its results.
struct parsed {
    int result = 0;
    fat_format_param param = {};
    std::string outfile; // "" where the record names none
    std::uint32_t verbose = 0;
    int page_size_given = 0;
    std::string out;
    std::string err;
};

parsed parse(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "quorvel");
    std::vector<char *> argv;
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    parsed p;
    standard_output out;
    standard_error err;
    p.result = quorvel::parse_options(static_cast<int>(arguments.size()), argv.data(), &p.param);
    p.outfile = p.param.outfile != nullptr ? p.param.outfile : "";
    p.param.outfile = nullptr; // it points into this call's arguments
    p.verbose = quorvel::verbose_count;
    p.page_size_given = fat_page_size_given;
    p.out = out.text();
    p.err = err.text();
    return p;
}

void expect_accepted(const parsed &p, const std::string &outfile = "disk.img") {
    EXPECT_EQ(p.result, 0);
    EXPECT_EQ(p.outfile, outfile);
    EXPECT_EQ(p.out, "");
    EXPECT_EQ(p.err, "");
}

// Refused with a message on standard error and the usage text on standard output.
void expect_refused(const parsed &p, const std::string &message) {
    EXPECT_EQ(p.result, -1);
    EXPECT_EQ(p.out, USAGE);
    EXPECT_EQ(p.err, message);
}

void expect_usage_alone(const parsed &p) {
    expect_refused(p, "");
}

struct numeric_option {
    std::string letter; // with its dash
    std::vector<long> accepted;
    std::uint32_t fat_format_param::*field;
    std::string message;
};

const std::vector<numeric_option> NUMERIC_OPTIONS = {
    {"-s",
     {1, 2, 4, 8, 16, 32, 64},
     &fat_format_param::sec_per_clus,
     "Invalid number of sectors per cluster: "},
    {"-S",
     {512, 1024, 2048, 4096},
     &fat_format_param::sector_size,
     "Invalid number of sector size: "},
    {"-F", {16, 32}, &fat_format_param::fat_size, "Invalid FAT type: "},
    {"-p", {0, 2048, 4096, 8192}, &fat_format_param::page_size, "Invalid page size: "},
};

bool is_accepted(const numeric_option &option, long value) {
    return std::find(option.accepted.begin(), option.accepted.end(), value) !=
           option.accepted.end();
}

// Every field but the target's name, compared byte for byte.
bool same_request(const fat_format_param &a, const fat_format_param &b) {
    return a.fat_size == b.fat_size && a.sec_per_clus == b.sec_per_clus &&
           a.sector_size == b.sector_size && a.infile == b.infile && a.page_size == b.page_size &&
           a.root_entries == b.root_entries && a.nr_rsvd_sec == b.nr_rsvd_sec &&
           a.long_name == b.long_name && a.nr_fat == b.nr_fat &&
           a.sector_of_bkup == b.sector_of_bkup && a.volume_id == b.volume_id &&
           std::memcmp(a.volume_label, b.volume_label, sizeof a.volume_label) == 0;
}

// The label's twelve bytes, the closing NUL included.
std::string label_of(const parsed &p) {
    return {p.param.volume_label, sizeof p.param.volume_label};
}

std::string label_bytes(const std::string &eleven) {
    return eleven + '\0';
}

} // namespace

// ---- usage text -------------------------------------------------------------------------------

TEST(PrintUsage, IsTheWholeTextWithTheVersion) {
    standard_output out;
    standard_error err;
    quorvel::print_usage();
    EXPECT_EQ(out.text(), USAGE);
    EXPECT_EQ(err.text(), "");
}

// ---- operands ---------------------------------------------------------------------------------

TEST(ParseOptions, LeavesTheRequestZeroWithoutOptions) {
    const parsed p = parse({"disk.img"});
    expect_accepted(p);
    EXPECT_TRUE(same_request(p.param, fat_format_param{}));
    EXPECT_EQ(p.verbose, 0u);
    EXPECT_EQ(p.page_size_given, 0);
}

TEST(ParseOptions, ShowsUsageWithoutAnOperand) {
    expect_usage_alone(parse({}));
    expect_usage_alone(parse({"-v"}));
    expect_usage_alone(parse({"-s", "4", "-p", "0"}));
    expect_usage_alone(parse({"--"}));
}

TEST(ParseOptions, ShowsUsageForTwoOperands) {
    expect_usage_alone(parse({"disk.img", "other.img"}));
    expect_usage_alone(parse({"disk.img", "-v", "other.img"}));
    expect_usage_alone(parse({"disk.img", ""}));
}

TEST(ParseOptions, TakesAnyOneOperand) {
    expect_accepted(parse({"-"}), "-");
    expect_accepted(parse({""}), "");
    const std::string with_blanks = " a target\nwith blanks ";
    expect_accepted(parse({with_blanks}), with_blanks);
    const std::string beyond_any_path(5000, 'x');
    expect_accepted(parse({beyond_any_path}), beyond_any_path);
}

TEST(ParseOptions, TakesOptionsAfterTheOperand) {
    const parsed p = parse({"disk.img", "-s", "8", "-v"});
    expect_accepted(p);
    EXPECT_EQ(p.param.sec_per_clus, 8u);
    EXPECT_EQ(p.verbose, 1u);
}

TEST(ParseOptions, TakesTheWordAfterADoubleDashAsTheOperand) {
    const parsed p = parse({"-v", "--", "-v"});
    expect_accepted(p, "-v");
    EXPECT_EQ(p.verbose, 1u);
    expect_accepted(parse({"disk.img", "--"}));
    expect_accepted(parse({"--", "--"}), "--");
    expect_usage_alone(parse({"--", "disk.img", "-v"}));
}

// ---- numeric options --------------------------------------------------------------------------

TEST(ParseOptions, StoresEachAcceptedNumber) {
    for (const numeric_option &option : NUMERIC_OPTIONS) {
        for (const long value : option.accepted) {
            const std::string text = std::to_string(value);
            for (const parsed &p : {parse({option.letter, text, "disk.img"}),
                                    parse({option.letter + text, "disk.img"})}) {
                SCOPED_TRACE(option.letter + " " + text);
                expect_accepted(p);
                fat_format_param expected = {};
                expected.*option.field = static_cast<std::uint32_t>(value);
                EXPECT_TRUE(same_request(p.param, expected));
                EXPECT_EQ(p.page_size_given, option.letter == "-p" ? 1 : 0);
            }
        }
    }
}

TEST(ParseOptions, RefusesEveryOtherNumber) {
    for (const numeric_option &option : NUMERIC_OPTIONS) {
        std::vector<long> values = {8193, 16384, 32768, 65535, 65536, 65552, 1000000};
        for (long value = -2; value <= 130; value++) {
            values.push_back(value);
        }
        for (const long power : {256, 512, 1024, 2048, 4096, 8192}) {
            values.insert(values.end(), {power - 1, power, power + 1});
        }
        for (const long value : values) {
            const std::string text = std::to_string(value);
            SCOPED_TRACE(option.letter + " " + text);
            if (!is_accepted(option, value)) {
                expect_refused(parse({option.letter, text, "disk.img"}),
                               option.message + text + "\n");
            }
        }
    }
}

TEST(ParseOptions, NamesTheRefusedArgument) {
    expect_refused(parse({"-s", "3", "disk.img"}), "Invalid number of sectors per cluster: 3\n");
    expect_refused(parse({"-s", "0", "disk.img"}), "Invalid number of sectors per cluster: 0\n");
    expect_refused(parse({"-s", "128", "disk.img"}),
                   "Invalid number of sectors per cluster: 128\n");
    expect_refused(parse({"-s", "4k", "disk.img"}), "Invalid number of sectors per cluster: 4k\n");
    expect_refused(parse({"-S", "8192", "disk.img"}), "Invalid number of sector size: 8192\n");
    expect_refused(parse({"-F", "12", "disk.img"}), "Invalid FAT type: 12\n");
    expect_refused(parse({"-p", "1024", "disk.img"}), "Invalid page size: 1024\n");
}

TEST(ParseOptions, TakesAPageOf8192BytesWhichTheUsageTextDoesNotList) {
    const parsed p = parse({"-p", "8192", "disk.img"});
    expect_accepted(p);
    EXPECT_EQ(p.param.page_size, 8192u);
    EXPECT_EQ(p.page_size_given, 1);
}

TEST(ParseOptions, ReadsAnEmptyPageSizeAsZero) {
    const parsed p = parse({"-p", "", "disk.img"});
    expect_accepted(p);
    EXPECT_EQ(p.param.page_size, 0u);
    EXPECT_EQ(p.page_size_given, 1);
}

TEST(ParseOptions, RefusesAnEmptyNumberWhereZeroIsRefused) {
    expect_refused(parse({"-s", "", "disk.img"}), "Invalid number of sectors per cluster: \n");
    expect_refused(parse({"-S", "", "disk.img"}), "Invalid number of sector size: \n");
    expect_refused(parse({"-F", "", "disk.img"}), "Invalid FAT type: \n");
}

TEST(ParseOptions, RefusesTextAfterANumber) {
    for (const numeric_option &option : NUMERIC_OPTIONS) {
        const std::string number = std::to_string(option.accepted.back());
        for (const char *tail : {"k", " ", "\n", ".", ".0", "L", "x", "-", "\xe9", ",", " 1"}) {
            const std::string text = number + tail;
            SCOPED_TRACE(option.letter + " " + text);
            expect_refused(parse({option.letter, text, "disk.img"}), option.message + text + "\n");
        }
    }
}

TEST(ParseOptions, RefusesTextThatIsNoDecimalNumber) {
    for (const numeric_option &option : NUMERIC_OPTIONS) {
        for (const char *text : {"x", " ", "+", "-", "--", "0x10", "0x1000", "1e3", "%d", "%s%n",
                                 "-16", "-4096", "sixteen", "\xff"}) {
            SCOPED_TRACE(option.letter + " " + text);
            expect_refused(parse({option.letter, text, "disk.img"}), option.message + text + "\n");
        }
    }
}

TEST(ParseOptions, ReadsNumbersInBaseTenAndSkipsLeadingBlanks) {
    EXPECT_EQ(parse({"-s", " 8", "disk.img"}).param.sec_per_clus, 8u);
    EXPECT_EQ(parse({"-s", "\t\n +8", "disk.img"}).param.sec_per_clus, 8u);
    EXPECT_EQ(parse({"-s", "010", "disk.img"}).result, -1); // ten, not eight
    EXPECT_EQ(parse({"-s", "008", "disk.img"}).param.sec_per_clus, 8u);
    EXPECT_EQ(parse({"-S", " 2048", "disk.img"}).param.sector_size, 2048u);
    EXPECT_EQ(parse({"-F", "032", "disk.img"}).param.fat_size, 32u);
    const parsed p = parse({"-p", "-0", "disk.img"});
    expect_accepted(p);
    EXPECT_EQ(p.page_size_given, 1);
}

TEST(ParseOptions, RefusesNumbersThatOnlyWouldFitAfterACut) {
    // An accepted number plus 2^32 or 2^64, and beyond every integer type.
    struct {
        const char *letter;
        std::vector<const char *> texts;
    } const cases[] = {
        {"-s", {"4294967297", "-4294967295", "18446744073709551617", "9223372036854775808"}},
        {"-S", {"4294967808", "-4294966784", "18446744073709552128", "9223372036854775807"}},
        {"-F", {"4294967312", "-4294967280", "18446744073709551632", "2147483648"}},
        {"-p", {"4294967296", "-4294967296", "18446744073709551616", "-9223372036854775808"}},
    };
    for (std::size_t i = 0; i < std::size(cases); i++) {
        for (const char *text : cases[i].texts) {
            SCOPED_TRACE(text);
            expect_refused(parse({cases[i].letter, text, "disk.img"}),
                           NUMERIC_OPTIONS[i].message + text + "\n");
        }
        const std::string endless(300, '9');
        expect_refused(parse({cases[i].letter, endless, "disk.img"}),
                       NUMERIC_OPTIONS[i].message + endless + "\n");
    }
}

TEST(ParseOptions, TakesTheLastOfARepeatedOption) {
    const parsed p = parse({"-s", "2", "-l", "FIRST", "-s", "4", "-l", "LAST", "disk.img"});
    expect_accepted(p);
    EXPECT_EQ(p.param.sec_per_clus, 4u);
    EXPECT_EQ(label_of(p), label_bytes("LAST       "));
}

TEST(ParseOptions, StopsAtTheFirstRefusal) {
    expect_refused(parse({"-s", "3", "-F", "12", "-x", "disk.img"}),
                   "Invalid number of sectors per cluster: 3\n");
    expect_refused(parse({"-v", "-l", "LABEL", "-F", "12", "-s", "3", "disk.img"}),
                   "Invalid FAT type: 12\n");
    expect_usage_alone(parse({"-x", "-s", "3", "disk.img"}));
}

TEST(ParseOptions, RefusesABadNumberBeforeItCountsOperands) {
    expect_refused(parse({"-p", "1"}), "Invalid page size: 1\n");
    expect_refused(parse({"disk.img", "other.img", "-p", "1"}), "Invalid page size: 1\n");
}

TEST(ParseOptions, DoesNotCountARefusedPageSizeAsGiven) {
    EXPECT_EQ(parse({"-p", "1024", "disk.img"}).page_size_given, 0);
}

TEST(ParseOptions, TestsEachNumberOnItsOwn) {
    const parsed p = parse({"-s", "16", "-S", "4096", "disk.img"});
    expect_accepted(p);
    EXPECT_EQ(p.param.sec_per_clus, 16u);
    EXPECT_EQ(p.param.sector_size, 4096u);
}

TEST(ParseOptions, TakesAllOptionsTogether) {
    const parsed p =
        parse({"-s64", "-S", "512", "-F32", "-p", "2048", "-l", "Data", "-v", "/dev/none"});
    expect_accepted(p, "/dev/none");
    fat_format_param expected = {};
    expected.sec_per_clus = 64;
    expected.sector_size = 512;
    expected.fat_size = 32;
    expected.page_size = 2048;
    std::memcpy(expected.volume_label, "Data       ", 12);
    EXPECT_TRUE(same_request(p.param, expected));
    EXPECT_EQ(p.verbose, 1u);
    EXPECT_EQ(p.page_size_given, 1);
}

// ---- unknown options --------------------------------------------------------------------------

TEST(ParseOptions, ShowsUsageAloneForAnUnknownOption) {
    for (const char *option :
         {"-x", "-h", "-?", "-:", "-V", "-f", "-L", "--help", "--version", "-\xff", "-vx", "-v-"}) {
        SCOPED_TRACE(option);
        expect_usage_alone(parse({option, "disk.img"}));
    }
}

TEST(ParseOptions, ShowsUsageAloneForAnOptionWithoutItsArgument) {
    for (const char *option : {"-s", "-S", "-F", "-p", "-l", "-vs"}) {
        SCOPED_TRACE(option);
        expect_usage_alone(parse({"disk.img", option}));
    }
}

TEST(ParseOptions, TakesAnyNextWordAsTheArgument) {
    expect_refused(parse({"-s", "-v", "disk.img"}), "Invalid number of sectors per cluster: -v\n");
    expect_refused(parse({"-F", "disk.img"}), "Invalid FAT type: disk.img\n");
    const parsed p = parse({"-l", "-v", "disk.img"});
    expect_accepted(p);
    EXPECT_EQ(label_of(p), label_bytes("-v         "));
    EXPECT_EQ(p.verbose, 0u);
}

// ---- verbose ----------------------------------------------------------------------------------

TEST(ParseOptions, CountsEachVerboseOption) {
    EXPECT_EQ(parse({"-v", "disk.img"}).verbose, 1u);
    EXPECT_EQ(parse({"-v", "-v", "disk.img"}).verbose, 2u);
    EXPECT_EQ(parse({"-vvv", "disk.img", "-v"}).verbose, 4u);
    const parsed p = parse({"-vF32", "disk.img"});
    EXPECT_EQ(p.verbose, 1u);
    EXPECT_EQ(p.param.fat_size, 32u);
}

// ---- label ------------------------------------------------------------------------------------

TEST(ParseOptions, CutsALongLabelToElevenBytes) {
    const parsed p = parse({"-l", "ABCDEFGHIJKLMNO", "disk.img"});
    expect_accepted(p);
    EXPECT_EQ(label_of(p), label_bytes("ABCDEFGHIJK"));
    EXPECT_EQ(label_of(parse({"-l", "ABCDEFGHIJKL", "disk.img"})), label_bytes("ABCDEFGHIJK"));
    EXPECT_EQ(label_of(parse({"-l", std::string(70000, 'z'), "disk.img"})),
              label_bytes("zzzzzzzzzzz"));
}

TEST(ParseOptions, PadsAShortLabelWithBlanks) {
    EXPECT_EQ(label_of(parse({"-l", "abc", "disk.img"})), label_bytes("abc        "));
    EXPECT_EQ(label_of(parse({"-l", "TenLetters", "disk.img"})), label_bytes("TenLetters "));
    EXPECT_EQ(label_of(parse({"-l", "ElevenChars", "disk.img"})), label_bytes("ElevenChars"));
    EXPECT_EQ(label_of(parse({"-l", " x", "disk.img"})), label_bytes(" x         "));
}

TEST(ParseOptions, TakesAnEmptyLabelAsBlanks) {
    const parsed p = parse({"-l", "", "disk.img"});
    expect_accepted(p);
    EXPECT_EQ(label_of(p), label_bytes(BLANK_LABEL));
}

TEST(ParseOptions, DoesNotChangeTheBytesOfALabel) {
    EXPECT_EQ(label_of(parse({"-l", "%s%n%100d", "disk.img"})), label_bytes("%s%n%100d  "));
    EXPECT_EQ(label_of(parse({"-l", "\x80\xff\xe5 \x01", "disk.img"})),
              label_bytes("\x80\xff\xe5 \x01      "));
    // Eleven bytes, not eleven characters: the sixth of these two-byte letters is cut in half.
    EXPECT_EQ(
        label_of(parse({"-l", "\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4", "disk.img"})),
        label_bytes("\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3"));
}

// ---- more than one command line ---------------------------------------------------------------

TEST(ParseOptions, BeginsAgainWithEachCall) {
    const parsed first = parse({"-v", "-s", "8", "-p", "0", "-l", "ONE", "one.img"});
    expect_accepted(first, "one.img");
    const parsed bare = parse({"two.img"});
    expect_accepted(bare, "two.img");
    EXPECT_TRUE(same_request(bare.param, fat_format_param{}));
    EXPECT_EQ(bare.verbose, 0u);
    EXPECT_EQ(bare.page_size_given, 0);
    expect_refused(parse({"-vvx", "three.img"}), "");
    const parsed last = parse({"-v", "-s", "8", "-p", "0", "-l", "ONE", "one.img"});
    expect_accepted(last, "one.img");
    EXPECT_TRUE(same_request(last.param, first.param));
    EXPECT_EQ(last.verbose, 1u);
    EXPECT_EQ(last.page_size_given, 1);
}

// ---- mount check ------------------------------------------------------------------------------

TEST(ParseOptions, RefusesEveryDeviceOfTheMountTable) {
    FILE *table = setmntent("/etc/mtab", "r");
    if (table == nullptr) {
        GTEST_SKIP() << "/etc/mtab cannot be opened";
    }
    std::vector<std::string> devices;
    for (const mntent *entry = getmntent(table); entry != nullptr; entry = getmntent(table)) {
        devices.emplace_back(entry->mnt_fsname);
    }
    endmntent(table);
    if (devices.empty()) {
        GTEST_SKIP() << "/etc/mtab is empty";
    }
    for (const std::string &device : devices) {
        SCOPED_TRACE(device);
        const parsed p = parse({"-v", "--", device});
        EXPECT_EQ(p.result, -1);
        EXPECT_EQ(p.out, "");
        EXPECT_EQ(p.err, device + " is already mounted\n");
    }
}
