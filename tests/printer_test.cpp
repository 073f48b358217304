// The printers of the records in memory: the volume, open entries, names, paths, FAT values.

#include "tests/support/mounted.h"
#include "tests/support/names.h"
#include "tests/support/open_entries.h"
#include "tests/support/printout.h"

#include <algorithm>
#include <array>
#include <climits>
#include <clocale>
#include <cwchar>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace fat;
using namespace testing_support;

namespace {

const std::string DASHES = "----------------------------------------\n";

printout printed(const std::string &text) {
    return {0, text, ""};
}

// The locale of the program for its lifetime.
class locale_of_program {
public:
    explicit locale_of_program(const char *name) {
        if (std::setlocale(LC_ALL, name) == nullptr) {
            throw std::runtime_error("there is no such locale");
        }
    }
    locale_of_program(const locale_of_program &) = delete;
    locale_of_program &operator=(const locale_of_program &) = delete;
    ~locale_of_program() {
        std::setlocale(LC_ALL, "C");
    }
};

// An open entry in the table for its lifetime, made without the library.
class hand_made_slot {
public:
    hand_made_slot(int id, oentry *record) : id_(id), before_(oentry_table[id]) {
        oentry_table[id] = record;
    }
    hand_made_slot(const hand_made_slot &) = delete;
    hand_made_slot &operator=(const hand_made_slot &) = delete;
    ~hand_made_slot() {
        oentry_table[id_] = before_;
    }

private:
    int id_;
    oentry *before_;
};

oentry record_of(entry_image *image) {
    oentry record = {};
    record.start = 5;
    record.last = 9;
    record.allocated = 2048;
    record.dentry_sector = 77;
    record.dentry_offset = 96;
    record.dentry = image == nullptr ? nullptr : image->data();
    return record;
}
const std::string RECORD_TEXT = "Opened entry\n"
                                "\tstart:\t5\n"
                                "\tlast:\t9\n"
                                "\tallocated:\t2048 bytes\n"
                                "\tlocation:\tsector(77), offset(96)\n";

std::vector<u16> terminated(std::u16string_view text) {
    std::vector<u16> units(text.begin(), text.end());
    units.push_back(0);
    return units;
}

printout uname_printed(const std::vector<u16> &units) {
    return to_output([&] { print_uname(units.data()); });
}

} // namespace

// ---- every level-taking printer ---------------------------------------------------------------

TEST(Printers, PrintNothingFromLevelThreeOn) {
    const mounted v;
    entry_image image = short_entry("FILE       ");
    const oentry record = record_of(&image);
    char path[] = "a/b";
    char *components[] = {path};
    fat_name name = {};
    for (const int level : {3, 4, INT_MAX}) {
        const printout nothing = to_output([&] {
            print_volume_info(level);
            print_oentry(level, &record);
            print_oentry(level, nullptr);
            test_oentry(level, 0);
            test_oentry(level, 600);
            print_name_record(level, &name);
            print_name_record(level, nullptr);
            print_path_record(level, path, components, path + 2, 1);
            print_path_record(level, nullptr, nullptr, nullptr, 0);
            print_fat_value(level, 0, 0);
            print_fat_value(level, 0xFFFFFFFF, 0);
        });
        EXPECT_EQ(nothing, printed("")) << level;
    }
    EXPECT_TRUE(v.disk.log.empty());
}

TEST(Printers, PrintAtEveryLevelBelowThree) {
    mounted v;
    v.set_link(7, 8);
    for (const int level : {INT_MIN, -1, 0, 1, 2}) {
        EXPECT_EQ(to_output([&] { print_fat_value(level, 7, 0); }), printed("FAT[7] = 8\n"));
        EXPECT_EQ(to_output([&] { test_oentry(level, 600); }),
                  printed("Test open entry(600)\n -- over limit\n"));
        EXPECT_EQ(to_output([&] { print_name_record(level, nullptr); }),
                  printed("name isn't set\n"));
        EXPECT_EQ(to_output([&] { print_path_record(level, nullptr, nullptr, nullptr, 0); }),
                  printed("path isn't set\n"));
        EXPECT_FALSE(to_output([&] { print_volume_info(level); }).out.empty());
        EXPECT_FALSE(to_output([&] { print_oentry(level, oentry_table[0]); }).out.empty());
    }
}

// ---- the volume record ------------------------------------------------------------------------

TEST(PrintVolumeInfo, PrintsEveryFieldUnderItsName) {
    const mounted v({.fat_type = 32, .sec_per_clus = 2});
    sv->fd = -7;
    sv->vol_size = 0x10000000001ULL;
    sv->fat_size = 0xFFFFFFFF;
    sv->total_sectors = 0xFFFFFFFE;
    sv->num_clusters = 0xFFFFFFFD;
    sv->fat_start = 33;
    sv->rdir_start = 4000000001;
    sv->data_start = 4000000002;
    sv->pbr_start = 9;
    sv->last_alloc_clus = 4000000003;
    EXPECT_EQ(to_output([] { print_volume_info(0); }),
              printed("Volume Information\n"
                      "----------------------------------------\n"
                      "\tVolume fd:\t\t-7\n"
                      "\tVolume size:\t\t1099511627777 Bytes\n"
                      "\tFAT type:\t\t32 bits\n"
                      "\tFAT size:\t\t4294967295 sectors\n"
                      "\tTotal sectors:\t\t4294967294 sectors\n"
                      "\tCluster counts:\t\t4294967293 \n"
                      "\tSector size:\t\t512 Bytes\n"
                      "\tSectors/cluster:\t2 \n"
                      "\tFAT start:\t\t33th sector\n"
                      "\tRDIR start:\t\t4000000001th sector\n"
                      "\tDATA start:\t\t4000000002th sector\n"
                      "\tLast allocated cluster#:\t4000000003\n"
                      "\tLong name support:\t\tyes\n"
                      "\tRoot dir:\t\t     set\n"
                      "\tCurrent dir:\t\t    rdir\n"
                      "----------------------------------------\n"));
}

TEST(PrintVolumeInfo, ShowsAVolumeThatIsNotMounted) {
    const ram_disk disk(512);
    EXPECT_EQ(to_output([] { print_volume_info(2); }),
              printed("Volume Information\n"
                      "----------------------------------------\n"
                      "\tVolume fd:\t\t-1\n"
                      "\tVolume size:\t\t512 Bytes\n"
                      "\tFAT type:\t\t0 bits\n"
                      "\tFAT size:\t\t0 sectors\n"
                      "\tTotal sectors:\t\t0 sectors\n"
                      "\tCluster counts:\t\t0 \n"
                      "\tSector size:\t\t0 Bytes\n"
                      "\tSectors/cluster:\t0 \n"
                      "\tFAT start:\t\t0th sector\n"
                      "\tRDIR start:\t\t0th sector\n"
                      "\tDATA start:\t\t0th sector\n"
                      "\tLast allocated cluster#:\t0\n"
                      "\tLong name support:\t\tno\n"
                      "\tRoot dir:\t\t non set\n"
                      "\tCurrent dir:\t\t non set\n"
                      "----------------------------------------\n"));
}

namespace {

// The line of print_volume_info() that begins so.
std::string volume_line(const std::string &beginning) {
    const std::string text = to_output([] { print_volume_info(0); }).out;
    const std::size_t at = text.find("\t" + beginning);
    return at == std::string::npos ? "" : text.substr(at, text.find('\n', at) + 1 - at);
}

} // namespace

TEST(PrintVolumeInfo, OnlyOneTurnsLongNamesOn) {
    const ram_disk disk(512);
    for (const u8 flag : std::initializer_list<u8>{0, 2, 255}) {
        sv->long_name = flag;
        EXPECT_EQ(volume_line("Long"), "\tLong name support:\t\tno\n");
    }
    sv->long_name = 1;
    EXPECT_EQ(volume_line("Long"), "\tLong name support:\t\tyes\n");
}

TEST(PrintVolumeInfo, NamesTheCurrentDirectoryByItsElevenBytes) {
    mounted v;
    const int id = v.open_new("SUBDIR  DIR", {5}, 0, DIRECTORY);
    ASSERT_EQ(fat_set_current(id), id);
    EXPECT_EQ(volume_line("Current"), "\tCurrent dir:\t\tSUBDIR  DIR\n");
    mounted::record(id).dentry[1] = 0;
    EXPECT_EQ(volume_line("Current"), "\tCurrent dir:\t\t       S\n");
}

// ---- an open entry ----------------------------------------------------------------------------

TEST(PrintOentry, PrintsTheRecordAndItsDirectoryEntry) {
    entry_image image = short_entry("NAME    EXT", ARCHIVE, 5, 1234);
    image[12] = 0x18;
    image[13] = 0xE2;
    image[14] = 0x34;
    image[15] = 0x12;
    image[22] = 0x0F;
    image[24] = 0x5D;
    image[25] = 0x58;
    const oentry record = record_of(&image);
    EXPECT_EQ(to_output([&] { print_oentry(0, &record); }),
              printed("Opened entry\n"
                      "\tstart:\t5\n"
                      "\tlast:\t9\n"
                      "\tallocated:\t2048 bytes\n"
                      "\tlocation:\tsector(77), offset(96)\n"
                      "\tname:\tNAME    EXT\n"
                      "\tattr:\t0x20\n"
                      "\tsysid:\t0x18\n"
                      "\tcmsec: ctime: cdate = \t226 \t0x1234 \t0x0\n"
                      "\tadate: mtime: mdate = \t0x0 \t0xf \t0x585d\n"
                      "\tstart_clu:\t0x0000 0005 (5)\n"
                      "\tsize:\t1234\n"));
}

TEST(PrintOentry, EndsWithDashesWhereThereIsNoDirectoryEntry) {
    const oentry record = record_of(nullptr);
    EXPECT_EQ(to_output([&] { print_oentry(0, &record); }), printed(RECORD_TEXT + DASHES));
}

TEST(PrintOentry, PrintsLargeNumbersAsSigned) {
    oentry record = {};
    record.start = 0xFFFFFFFF;
    record.last = 0xFFFFFFFE;
    record.allocated = 0x80000000;
    record.dentry_sector = 0xFFFFFFFD;
    record.dentry_offset = 0x7FFFFFFF;
    EXPECT_EQ(to_output([&] { print_oentry(0, &record); }),
              printed("Opened entry\n"
                      "\tstart:\t-1\n"
                      "\tlast:\t-2\n"
                      "\tallocated:\t-2147483648 bytes\n"
                      "\tlocation:\tsector(-3), offset(2147483647)\n" +
                      DASHES));
}

// ---- a slot of the table ----------------------------------------------------------------------

TEST(TestOentry, ReportsANumberOverTheLimit) {
    EXPECT_EQ(to_output([] { test_oentry(0, 512); }),
              printed("Test open entry(512)\n -- over limit\n"));
    EXPECT_EQ(to_output([] { test_oentry(0, 600); }),
              printed("Test open entry(600)\n -- over limit\n"));
    EXPECT_EQ(to_output([] { test_oentry(0, 0xFFFFFFFF); }),
              printed("Test open entry(-1)\n -- over limit\n"));
}

TEST(TestOentry, ReportsAnEmptySlot) {
    EXPECT_EQ(to_output([] { test_oentry(0, 0); }),
              printed("Test open entry(0)\n -- not opened index\n"));
    EXPECT_EQ(to_output([] { test_oentry(0, 511); }),
              printed("Test open entry(511)\n -- not opened index\n"));
}

TEST(TestOentry, ReportsTheRootDirectory) {
    const mounted v;
    EXPECT_EQ(to_output([] { test_oentry(0, 0); }),
              printed("Test open entry(0)\n -- root directory\n"));
}

TEST(TestOentry, ReportsARecordWithoutDirectoryEntryInAnotherSlot) {
    oentry record = record_of(nullptr);
    for (const int id : {1, 511}) {
        const hand_made_slot slot(id, &record);
        EXPECT_EQ(to_output([&] { test_oentry(0, static_cast<u32>(id)); }),
                  printed("Test open entry(" + std::to_string(id) +
                          ")\n -- wrong mapping of root directory index\n"));
    }
}

TEST(TestOentry, ReportsTheOpenedParentOfAFirstLevelDirectory) {
    mounted v;
    directory inside(&v, {5}, false);
    inside.append(short_entry(".          ", DIRECTORY, 5));
    inside.append(short_entry("..         ", DIRECTORY, 0));
    const int id = v.open_new("SUB        ", {5}, 0, DIRECTORY);
    ASSERT_EQ(fat_set_current(id), id);
    {
        const diagnostics messages;
        ASSERT_EQ(fat_open(".."), 2);
    }
    EXPECT_EQ(to_output([] { test_oentry(0, 2); }),
              printed("Test open entry(2)\n -- wrong mapping of root directory index\n"));
}

TEST(TestOentry, DistinguishesDirectoriesFromFilesByFirstByteAndAttribute) {
    for (const u8 first : std::initializer_list<u8>{0x00, 0x05, 0x41, 0xE4, 0xE5, 0xE6, 0xFF}) {
        for (int attr = 0; attr < 256; attr++) {
            entry_image image = short_entry("NAME    EXT", static_cast<u8>(attr), 5);
            image[0] = first;
            oentry record = record_of(&image);
            const hand_made_slot slot(300, &record);
            const bool is_directory = first != 0 && first != 0xE5 && (attr & 0x18) == 0x10;
            const std::string kind =
                is_directory ? " -- index for directory\n" : " -- index for file\n";
            EXPECT_EQ(
                to_output([] { test_oentry(2, 300); }),
                printed("Test open entry(300)\n" + kind + RECORD_TEXT + text_of_short_entry(image)))
                << int{first} << " " << attr;
        }
    }
}

TEST(TestOentry, ShowsAnOpenFile) {
    mounted v;
    const int id = v.open_new("FILE    TXT", {5, 9}, 1000);
    ASSERT_EQ(id, 1);
    EXPECT_EQ(to_output([] { test_oentry(0, 1); }),
              printed("Test open entry(1)\n"
                      " -- index for file\n"
                      "Opened entry\n"
                      "\tstart:\t5\n"
                      "\tlast:\t9\n"
                      "\tallocated:\t1024 bytes\n"
                      "\tlocation:\tsector(" +
                      std::to_string(sv->rdir_start) +
                      "), offset(0)\n"
                      "\tname:\tFILE    TXT\n"
                      "\tattr:\t0x20\n"
                      "\tsysid:\t0x00\n"
                      "\tcmsec: ctime: cdate = \t0 \t0x0 \t0x0\n"
                      "\tadate: mtime: mdate = \t0x0 \t0x0 \t0x0\n"
                      "\tstart_clu:\t0x0000 0005 (5)\n"
                      "\tsize:\t1000\n"));
}

// ---- a name record ----------------------------------------------------------------------------

TEST(PrintNameRecord, ShowsMissingFormsAsNull) {
    const fat_name name = {};
    EXPECT_EQ(to_output([&] { print_name_record(0, &name); }),
              printed("Name set\n\tcstring:: NULL\n\tdosName:: NULL\n\tunicode:: NULL\n"));
}

TEST(PrintNameRecord, ShowsAllThreeForms) {
    char text[] = "A long name.txt";
    dos_block dos("ALONGN~1TXT");
    std::vector<u16> units = terminated(u"A long name.txt");
    fat_name name = {};
    name.cstring = text;
    name.dosName = dos.get();
    name.unicode = units.data();
    name.ulen = 15;
    EXPECT_EQ(to_output([&] { print_name_record(0, &name); }),
              printed("Name set\n"
                      "\tcstring:: A long name.txt\n"
                      "\tdosName:: ALONGN~1TXT\n"
                      "\tunicode:: A long name.txt\n"));
}

TEST(PrintNameRecord, ShowsEachFormForItself) {
    char text[] = "";
    dos_block dos(std::string_view("ABC\0DEFGHIJ", 11));
    std::vector<u16> units = {0};
    fat_name name = {};
    name.cstring = text;
    EXPECT_EQ(to_output([&] { print_name_record(0, &name); }),
              printed("Name set\n\tcstring:: \n\tdosName:: NULL\n\tunicode:: NULL\n"));
    name = {};
    name.dosName = dos.get();
    EXPECT_EQ(to_output([&] { print_name_record(0, &name); }),
              printed("Name set\n\tcstring:: NULL\n\tdosName::      ABC\n\tunicode:: NULL\n"));
    name = {};
    name.unicode = units.data();
    EXPECT_EQ(to_output([&] { print_name_record(0, &name); }),
              printed("Name set\n\tcstring:: NULL\n\tdosName:: NULL\n\tunicode:: \n"));
}

TEST(PrintNameRecord, ShowsTheResultOfTheConversion) {
    const mounted v;
    caller_string string("Mixed Case.text");
    fat_name name = {};
    ASSERT_EQ(get_fatnames(string.get(), &name), 0);
    EXPECT_EQ(to_output([&] { print_name_record(0, &name); }),
              printed("Name set\n"
                      "\tcstring:: Mixed Case.text\n"
                      "\tdosName:: MIXEDCASTEX\n"
                      "\tunicode:: Mixed Case.text\n"));
    release_name(&name);
}

// ---- a path -----------------------------------------------------------------------------------

TEST(PrintPathRecord, ShowsComponentsUpToTheirSlash) {
    char path[] = "one/two//four/last";
    fat_path record = {};
    char *name = nullptr;
    int depth = 0;
    ASSERT_EQ(resolve_path(path, &record, &name, &depth), 0);
    EXPECT_EQ(to_output([&] { print_path_record(0, path, record.path, name, depth); }),
              printed("Resolved path\n"
                      "path::one/two//four/last\n"
                      "=> (depth:4)\n"
                      "::one\n"
                      "::two\n"
                      "::\n"
                      "::four\n"
                      "=>name::last\n"));
    std::free(record.path);
}

TEST(PrintPathRecord, ShowsAComponentWithoutSlashToItsEnd) {
    char path[] = "one";
    char *components[] = {path};
    EXPECT_EQ(to_output([&] { print_path_record(0, path, components, nullptr, 1); }),
              printed("Resolved path\npath::one\n=> (depth:1)\n::one\n"));
}

TEST(PrintPathRecord, OmitsMissingArguments) {
    char path[] = "/a/b";
    char *components[] = {path + 1};
    EXPECT_EQ(to_output([&] { print_path_record(0, path, components, path + 3, 0); }),
              printed("Resolved path\npath::/a/b\n=> (depth:0)\n=>name::b\n"));
    EXPECT_EQ(to_output([&] { print_path_record(0, path, nullptr, path + 3, 3); }),
              printed("Resolved path\npath::/a/b\n=> (depth:3)\n=>name::b\n"));
    EXPECT_EQ(to_output([&] { print_path_record(0, "", nullptr, nullptr, 0); }),
              printed("Resolved path\npath::\n=> (depth:0)\n"));
    EXPECT_EQ(to_output([&] { print_path_record(0, path, nullptr, "", 0); }),
              printed("Resolved path\npath::/a/b\n=> (depth:0)\n=>name::\n"));
}

// ---- a FAT value ------------------------------------------------------------------------------

TEST(PrintFatValue, PrintsTheValueOfTheEntry) {
    mounted v;
    v.set_link(5, 0x1234);
    v.set_link(6, 0xFFFF);
    EXPECT_EQ(to_output([] { print_fat_value(0, 5, 0); }), printed("FAT[5] = 4660\n"));
    EXPECT_EQ(to_output([] { print_fat_value(0, 6, 1); }), printed("FAT[6] = 65535\n"));
    EXPECT_EQ(to_output([] { print_fat_value(0, 7, -1); }), printed("FAT[7] = 0\n"));
    EXPECT_EQ(to_output([] { print_fat_value(0, 0, 0); }), printed("FAT[0] = 65528\n"));
}

TEST(PrintFatValue, LeavesTheReservedBitsOut) {
    mounted v({.fat_type = 32});
    v.set_link(5, 0xFFFFFFFF);
    v.set_link(6, 0xF0000007);
    EXPECT_EQ(to_output([] { print_fat_value(0, 5, 0); }), printed("FAT[5] = 268435455\n"));
    EXPECT_EQ(to_output([] { print_fat_value(0, 6, 0); }), printed("FAT[6] = 7\n"));
}

TEST(PrintFatValue, ReportsThatTheEntryCannotBeRead) {
    mounted v;
    v.disk.reads_before_failure = 0;
    EXPECT_EQ(
        to_output([] { print_fat_value(0, 5, 0); }),
        (printout{0, "Can't read 5's value in FAT\n", "fat_read_entry[N]: cannot read FAT\n\n"}));
    EXPECT_EQ(
        to_output([] { print_fat_value(0, 0xFFFFFFFF, 0); }),
        (printout{0, "Can't read -1's value in FAT\n", "fat_read_entry[N]: cannot read FAT\n\n"}));
    sv->fat_type = 12;
    EXPECT_EQ(
        to_output([] { print_fat_value(0, 5, 0); }),
        (printout{0, "Can't read 5's value in FAT\n", "fat_read_entry[N]: Invalid FAT type\n\n"}));
}

// ---- UTF-16 text ------------------------------------------------------------------------------

TEST(PrintUname, PrintsUnitsAndANewline) {
    EXPECT_EQ(uname_printed(terminated(u"Name.txt")), printed("Name.txt\n"));
    EXPECT_EQ(uname_printed(terminated(u"")), printed("\n"));
    EXPECT_EQ(uname_printed({u'a', 0, u'b', 0}), printed("a\n"));
}

TEST(PrintUname, StopsAfter256Units) {
    EXPECT_EQ(uname_printed(std::vector<u16>(300, u'x')), printed(std::string(256, 'x') + "\n"));
    // A block of just this size: nothing past it may be read.
    std::vector<u16> full(256, u'x');
    full.shrink_to_fit();
    EXPECT_EQ(uname_printed(full), printed(std::string(256, 'x') + "\n"));
    std::vector<u16> shorter(300, u'x');
    shorter[255] = 0;
    EXPECT_EQ(uname_printed(shorter), printed(std::string(255, 'x') + "\n"));
}

TEST(PrintUname, ShowsCharactersMissingInTheLocaleAsQuestionMarks) {
    EXPECT_EQ(uname_printed(terminated(u"\u00E4b\u20ACc")), printed("?b?c\n"));
    EXPECT_EQ(uname_printed({0xFFFF, u'a', 0xFEFF, 0}), printed("?a?\n"));
}

TEST(PrintUname, EncodesForTheLocale) {
    const locale_of_program utf8("C.UTF-8");
    EXPECT_EQ(uname_printed(terminated(u"\u00E4b\u20ACc\U0001F600d\U0010FFFF\U00010000")),
              printed("\xC3\xA4"
                      "b\xE2\x82\xAC"
                      "c\xF0\x9F\x98\x80"
                      "d\xF4\x8F\xBF\xBF\xF0\x90\x80\x80\n"));
}

TEST(PrintUname, ShowsOneQuestionMarkForAPairThatTheLocaleLacks) {
    EXPECT_EQ(uname_printed(terminated(u"a\U0001F600b")), printed("a?b\n"));
}

TEST(PrintUname, ShowsHalvesOfPairsAsQuestionMarks) {
    const locale_of_program utf8("C.UTF-8");
    EXPECT_EQ(uname_printed({0xD83D, u'a', 0}), printed("?a\n"));
    EXPECT_EQ(uname_printed({0xDE00, u'a', 0}), printed("?a\n"));
    EXPECT_EQ(uname_printed({0xDE00, 0xD83D, u'a', 0}), printed("??a\n"));
    EXPECT_EQ(uname_printed({0xD83D, 0}), printed("?\n"));
    EXPECT_EQ(uname_printed({0xD83D, 0xD83D, 0xDE00, 0}), printed("?\xF0\x9F\x98\x80\n"));
    EXPECT_EQ(uname_printed({0xD83D, 0xE000, 0}), printed("?\xEE\x80\x80\n"));
}

TEST(PrintUname, ShowsAPairThatTheLimitCutsAsAQuestionMark) {
    const locale_of_program utf8("C.UTF-8");
    std::vector<u16> units(256, u'x');
    units[255] = 0xD83D;
    EXPECT_EQ(uname_printed(units), printed(std::string(255, 'x') + "?\n"));
    units.push_back(0xDE00);
    EXPECT_EQ(uname_printed(units), printed(std::string(255, 'x') + "?\n"));
    units[254] = 0xD83D;
    units[255] = 0xDE00;
    EXPECT_EQ(uname_printed(units), printed(std::string(254, 'x') + "\xF0\x9F\x98\x80\n"));
}

TEST(PrintUname, DoesNotChangeTheOrientationOfStandardOutput) {
    const std::vector<u16> units = terminated(u"name");
    const standard_output out;
    print_uname(units.data());
    EXPECT_LE(std::fwide(stdout, 0), 0);
    EXPECT_EQ(std::printf("%s\n", "bytes"), 6);
}
