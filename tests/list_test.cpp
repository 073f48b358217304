// Listings: the printers of single entries, the iterator over a directory, and the listings of
// directories, clusters and files of raw entries.

#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"
#include "tests/support/mounted.h"
#include "tests/support/open_entries.h"
#include "tests/support/printout.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

using namespace fat;
using namespace testing_support;

namespace {

printout printed(const std::string &text, int result = 0) {
    return {result, text, ""};
}

// Every byte differs from every other.
entry_image counted_entry(u8 first = 1) {
    entry_image result = {};
    for (std::size_t i = 0; i < 32; i++) {
        result[i] = static_cast<u8>(first + i);
    }
    return result;
}

entry_image with_case(entry_image entry, u8 bits) {
    entry[12] = bits;
    return entry;
}
entry_image link_entry(std::string_view dos, u32 start, u32 size) {
    entry_image result = short_entry(dos, 0, start, size);
    result[13] = 0xE2;
    return result;
}
constexpr u8 INVALID = DIRECTORY | LABEL;
const std::string UNKNOWN_TYPE = "entry_type[N]: Unknown entry type: 24\n\n";

// ---- the expected listing of slots ------------------------------------------------------------

struct slot_line {
    std::string label;
    std::string fields; // in mode 2
    int result = 0;
    std::string messages;
};
slot_line line_of_deleted(const entry_image &entry) {
    if ((entry[11] & 0x3F) == 0x0F) {
        return {"deleted extended entry", text_of_long_slot(entry), 0, ""};
    }
    switch (entry[11] & 0x18) {
    case 0:
        return {"deleted file", text_of_short_entry(entry), 0, ""};
    case 0x10:
        return {"deleted directory", text_of_short_entry(entry), 0, ""};
    default:
        return {"deleted entry", "", 0, ""};
    }
}
slot_line line_of(const entry_image &entry) {
    if (entry[0] == 0) {
        return {"unused", "", -ENOENT, ""};
    }
    if (entry[0] == 0xE5) {
        return line_of_deleted(entry);
    }
    if ((entry[11] & 0x3F) == 0x0F) {
        return {"extended slot", text_of_long_slot(entry), 0, ""};
    }
    switch (entry[11] & 0x18) {
    case 0:
        return {"file(short name)", text_of_short_entry(entry), 0, ""};
    case 0x08:
        return {"volume entry", "", 0, ""};
    case 0x10:
        return {"directory", text_of_short_entry(entry), 0, ""};
    default:
        return {"invalid entry", text_of_short_entry(entry), 0,
                "entry_type[N]: Unknown entry type: " + std::to_string(entry[11]) + "\n\n"};
    }
}

// Slots numbered from `first` on, up to the first unused one.
printout listing_of(const std::vector<entry_image> &entries, u32 first, int mode) {
    printout result;
    for (u32 i = 0; i < entries.size(); i++) {
        const slot_line line = line_of(entries[i]);
        result.out += "[" + std::to_string(first + i) + "] " + line.label + "\n";
        result.out += mode == 2 ? line.fields : "";
        result.messages += line.messages;
        if (line.result < 0) {
            break;
        }
    }
    return result;
}

constexpr int MODES_OF_LINES[] = {1, 2, 3, -1, -2};

} // namespace

// ---- the short entry --------------------------------------------------------------------------

TEST(PrintShortEntry, PrintsEveryFieldFromItsBytes) {
    const entry_image entry = counted_entry('A');
    EXPECT_EQ(to_stream([&](FILE *stream) { print_short_entry(stream, entry.data()); }),
              printed("\tname:\tABCDEFGHIJK\n"
                      "\tattr:\t0x4c\n"
                      "\tsysid:\t0x4D\n"
                      "\tcmsec: ctime: cdate = \t78 \t0x504f \t0x5251\n"
                      "\tadate: mtime: mdate = \t0x5453 \t0x5857 \t0x5a59\n"
                      "\tstart_clu:\t0x5655 5c5b (1448434779)\n"
                      "\tsize:\t1616862813\n"));
}

TEST(PrintShortEntry, PrintsSmallAndLargeNumbers) {
    entry_image entry = short_entry("NAME    EXT", 0);
    EXPECT_EQ(to_stream([&](FILE *stream) { print_short_entry(stream, entry.data()); }),
              printed("\tname:\tNAME    EXT\n"
                      "\tattr:\t0x0\n"
                      "\tsysid:\t0x00\n"
                      "\tcmsec: ctime: cdate = \t0 \t0x0 \t0x0\n"
                      "\tadate: mtime: mdate = \t0x0 \t0x0 \t0x0\n"
                      "\tstart_clu:\t0x0000 0000 (0)\n"
                      "\tsize:\t0\n"));
    std::fill(entry.begin() + 11, entry.end(), u8{0xFF});
    EXPECT_EQ(to_stream([&](FILE *stream) { print_short_entry(stream, entry.data()); }),
              printed("\tname:\tNAME    EXT\n"
                      "\tattr:\t0xff\n"
                      "\tsysid:\t0xFF\n"
                      "\tcmsec: ctime: cdate = \t255 \t0xffff \t0xffff\n"
                      "\tadate: mtime: mdate = \t0xffff \t0xffff \t0xffff\n"
                      "\tstart_clu:\t0xffff ffff (-1)\n"
                      "\tsize:\t-1\n"));
}

TEST(PrintShortEntry, PrintsTheNameByteByByte) {
    entry_image entry = short_entry(std::string_view("\xE5\0\x01%s\n\xFF\0 \t\x05", 11));
    const printout result =
        to_stream([&](FILE *stream) { print_short_entry(stream, entry.data()); });
    EXPECT_EQ(result.out.substr(0, 19), std::string("\tname:\t\xE5\0\x01%s\n\xFF\0 \t\x05\n", 19));
    EXPECT_EQ(result.out, text_of_short_entry(entry));
}

// ---- the long-name slot -----------------------------------------------------------------------

TEST(PrintLongSlot, PrintsEveryFieldFromItsBytes) {
    const entry_image slot = counted_entry(0x21);
    EXPECT_EQ(to_stream([&](FILE *stream) { print_long_slot(stream, slot.data()); }),
              printed("\toffset:\t0x21 \n"
                      "\tattr:\t0x2C\n"
                      "\tsysid:\t0x2d\n"
                      "\tchecksum:\t0x2E\n"
                      "\tstart_clu:\t0x3c3b\n"
                      "\tunname[0-4]:\t2322 2524 2726 2928 2b2a \n"
                      "\tunname[5-10]:\t302f 3231 3433 3635 3837 3a39 \n"
                      "\tunname[11-12]:\t3e3d 403f \n"));
}

TEST(PrintLongSlot, EndsEachSpanOfUnitsAtItsFirstZero) {
    EXPECT_EQ(to_stream([](FILE *stream) {
                  print_long_slot(stream, long_slot(0x42, u"abc", 0x0A).data());
              }),
              printed("\toffset:\t0x42 (Last)\n"
                      "\tattr:\t0x0F\n"
                      "\tsysid:\t0x0\n"
                      "\tchecksum:\t0x0A\n"
                      "\tstart_clu:\t0x0\n"
                      "\tunname[0-4]:\t0061 0062 0063 \n"
                      "\tunname[5-10]:\tffff ffff ffff ffff ffff ffff \n"
                      "\tunname[11-12]:\tffff ffff \n"));
    EXPECT_EQ(to_stream([](FILE *stream) {
                  print_long_slot(
                      stream,
                      long_slot(0x01, std::u16string_view(u"\0bcdef\0hijkl\0", 13), 0xF0).data());
              }),
              printed("\toffset:\t0x01 \n"
                      "\tattr:\t0x0F\n"
                      "\tsysid:\t0x0\n"
                      "\tchecksum:\t0xF0\n"
                      "\tstart_clu:\t0x0\n"
                      "\tunname[0-4]:\t\n"
                      "\tunname[5-10]:\t0066 \n"
                      "\tunname[11-12]:\t006c \n"));
}

TEST(PrintLongSlot, CallsEveryOrderByteFrom65OnTheLast) {
    for (unsigned order = 0; order < 256; order++) {
        const entry_image slot = long_slot(order, u"name", 0x5A);
        EXPECT_EQ(to_stream([&](FILE *stream) { print_long_slot(stream, slot.data()); }),
                  printed(text_of_long_slot(slot)));
    }
    EXPECT_EQ(text_of_long_slot(long_slot(0x40, u"", 0)).substr(0, 15), "\toffset:\t0x40 \n");
    EXPECT_EQ(text_of_long_slot(long_slot(0x41, u"", 0)).substr(0, 21), "\toffset:\t0x41 (Last)\n");
}

// ---- units, raw names, items ------------------------------------------------------------------

TEST(PrintUnits, PrintsUpToTheCountOrAZero) {
    const std::vector<u16> units = {0x41, 0xFFFF, 0x20AC, 0, 0x42};
    const auto print = [&](u32 count) {
        return to_stream([&](FILE *stream) { print_units(stream, units.data(), count); });
    };
    EXPECT_EQ(print(0), printed("\n"));
    EXPECT_EQ(print(1), printed("0041 \n"));
    EXPECT_EQ(print(3), printed("0041 ffff 20ac \n"));
    EXPECT_EQ(print(4), printed("0041 ffff 20ac \n"));
    EXPECT_EQ(print(5), printed("0041 ffff 20ac \n"));
}

TEST(PrintRawName, PrintsElevenBytesAndANewline) {
    const entry_image entry = short_entry(std::string_view("A B\0%d\n\xE5\xFF.~", 11));
    EXPECT_EQ(to_stream([&](FILE *stream) { print_raw_name(stream, entry.data()); }),
              printed(std::string("A B\0%d\n\xE5\xFF.~\n", 12)));
}

TEST(PrintItem, PrintsKindSizeAndName) {
    dir_item item = {};
    std::strcpy(item.name, "A name.txt");
    item.size = 4294967295;
    for (unsigned type = 0; type < 256; type++) {
        item.type = static_cast<u8>(type);
        EXPECT_EQ(to_stream([&](FILE *stream) { print_item(stream, &item); }),
                  printed(std::string(type == 3 ? "d" : "f") + " 4294967295 \tA name.txt\n"));
    }
    item.size = 7;
    EXPECT_EQ(to_stream([&](FILE *stream) { print_item(stream, &item); }),
              printed("f          7 \tA name.txt\n"));
    std::memset(item.name, 'n', 255);
    EXPECT_EQ(to_stream([&](FILE *stream) { print_item(stream, &item); }),
              printed("f          7 \t" + std::string(255, 'n') + "\n"));
}

// ---- one slot ---------------------------------------------------------------------------------

TEST(PrintSlot, PrintsOneRowOfTheTableForEachKind) {
    const std::string dos = "NAME    EXT";
    const entry_image slot = long_slot(0x41, u"name", 1);
    entry_image unused = short_entry(dos);
    unused[0] = 0;
    using text = std::string (*)(const entry_image &);
    const struct {
        entry_image entry;
        const char *line;
        text fields; // in mode 2; null: none
        int result = 0;
        std::string messages = {};
    } rows[] = {
        {short_entry(dos, LABEL), "[7] volume entry\n", nullptr},
        {deleted(slot), "[7] deleted extended entry\n", text_of_long_slot},
        {deleted(short_entry(dos)), "[7] deleted file\n", text_of_short_entry},
        {deleted(short_entry(dos, DIRECTORY)), "[7] deleted directory\n", text_of_short_entry},
        {deleted(short_entry(dos, LABEL)), "[7] deleted entry\n", nullptr},
        {deleted(short_entry(dos, INVALID)), "[7] deleted entry\n", nullptr},
        {short_entry(dos, DIRECTORY), "[7] directory\n", text_of_short_entry},
        {short_entry(dos), "[7] file(short name)\n", text_of_short_entry},
        {link_entry("LINK       ", 5, 3), "[7] file(short name)\n", text_of_short_entry},
        {slot, "[7] extended slot\n", text_of_long_slot},
        {unused, "[7] unused\n", nullptr, -ENOENT},
        {short_entry(dos, INVALID), "[7] invalid entry\n", text_of_short_entry, 0, UNKNOWN_TYPE},
    };
    for (const auto &row : rows) {
        for (const int mode : {0, 1, 2, 3, -1}) {
            const bool has_fields = mode == 2 && row.fields != nullptr;
            EXPECT_EQ(to_stream([&](FILE *stream) {
                          return print_slot(7, mode, row.entry.data(), stream);
                      }),
                      (printout{row.result, row.line + (has_fields ? row.fields(row.entry) : ""),
                                row.messages}))
                << mode;
        }
    }
}

TEST(PrintSlot, PrintsEveryAttributeAfterEveryKindOfFirstByte) {
    for (const u8 first : std::initializer_list<u8>{0x00, 0x05, 0x2E, 0x41, 0xE4, 0xE5, 0xFF}) {
        for (unsigned attr = 0; attr < 256; attr++) {
            entry_image entry = counted_entry();
            entry[0] = first;
            entry[11] = static_cast<u8>(attr);
            for (const int mode : {0, 1, 2}) {
                printout expected = listing_of({entry}, 4294967295, mode);
                expected.result = first == 0 ? -ENOENT : 0;
                diagnostics messages;
                memory_stream stream;
                const int result = print_slot(4294967295, mode, entry.data(), stream.get());
                EXPECT_EQ((printout{result, stream.text(), messages.text()}), expected)
                    << int{first} << " " << attr << " " << mode;
            }
        }
    }
}

TEST(PrintSlot, PrintsToStandardOutputWithoutAStream) {
    for (const entry_image &entry : {short_entry("NAME    EXT"), long_slot(0x41, u"name", 1)}) {
        EXPECT_EQ(to_output([&] { return print_slot(9, 2, entry.data(), nullptr); }),
                  listing_of({entry}, 9, 2));
    }
}

// ---- the iterator -----------------------------------------------------------------------------

namespace {

// The result of do_readdir().
struct found_item {
    int result = 0;
    u32 index = 0; // as the call left it
    u32 type = 0;
    u32 size = 0;
    std::string name = {};
    std::string dos = {}; // of the entry in the buffer
    std::pair<u32, u32> location = {};
    std::string messages = {};
    bool operator==(const found_item &) const = default;
};
std::ostream &operator<<(std::ostream &out, const found_item &item) {
    return out << item.result << ", index " << item.index << ", type " << item.type << ", size "
               << item.size << ", " << std::quoted(item.name) << ", " << std::quoted(item.dos)
               << ", at " << item.location.first << "+" << item.location.second << ", printed "
               << std::quoted(item.messages);
}

struct listing_shape {
    volume_shape volume;
    bool in_root;
};
std::ostream &operator<<(std::ostream &out, const listing_shape &shape) {
    return out << name_of(shape.volume) << (shape.in_root ? "Root" : "Sub");
}
std::string listing_shape_name(const testing::TestParamInfo<listing_shape> &info) {
    return testing::PrintToString(info.param);
}
const listing_shape LISTING_SHAPES[] = {
    {{.fat_type = 16}, true},
    {{.fat_type = 16}, false},
    {{.fat_type = 16, .sector_size = 4096}, true},
    {{.fat_type = 16, .sector_size = 4096}, false},
    {{.fat_type = 32, .sec_per_clus = 2}, true},
    {{.fat_type = 32, .sec_per_clus = 2}, false},
    {{.fat_type = 32, .sector_size = 4096}, true},
    {{.fat_type = 32, .sector_size = 4096}, false},
};

// A directory of a mounted volume, filled by hand: the root, or a sub-directory of three clusters
// in the order 20, 25, 22. The root of FAT32 has three clusters, too.
class listed_directory : public testing::TestWithParam<listing_shape> {
protected:
    explicit listed_directory(const listing_shape &shape)
        : v(shape.volume), in_root(shape.in_root) {
        if (!in_root) {
            v.open_new("SUB        ", space.clusters, 0, DIRECTORY);
        } else if (open_root_directory() != 0) {
            throw std::runtime_error("the root directory cannot be opened");
        }
        v.disk.log.clear();
    }
    listed_directory() : listed_directory(GetParam()) {}
    ~listed_directory() override {
        for (const transfer &t : v.disk.log) {
            EXPECT_FALSE(t.is_write) << t;
        }
    }

    directory &dir() {
        return space;
    }
    oentry *record() {
        return oentry_table[in_root ? 0 : 1];
    }

    // The item from `index` on. The buffer is of just one sector.
    found_item read(u32 index, bool wants_location = true) {
        std::vector<u8> buffer(sv->sector_size);
        buffer.shrink_to_fit();
        dir_item item;
        std::memset(&item, 0xEE, sizeof item);
        u8 *entry = nullptr;
        dentry_location location = {};
        diagnostics messages;
        found_item found;
        found.result = do_readdir(record(), &index, &entry, &item, buffer.data(),
                                  wants_location ? &location : nullptr);
        found.index = index;
        found.messages = messages.text();
        if (found.result < 0) {
            return found;
        }
        found.type = item.type;
        found.size = item.size;
        EXPECT_NE(std::memchr(item.name, 0, sizeof item.name), nullptr);
        found.name = item.name;
        EXPECT_GE(entry, buffer.data());
        EXPECT_LE(entry + 32, buffer.data() + buffer.size());
        found.dos.assign(entry, entry + 11);
        found.location = {location.sector, location.offset};
        return found;
    }
    static found_item failed(int result, u32 index, const std::string &messages = "") {
        found_item found;
        found.result = result;
        found.index = index;
        found.messages = messages;
        return found;
    }
    // An item whose first entry is `first`, after which the index is `next`.
    found_item item_at(u32 first, u32 next, u32 type, u32 size, const std::string &name,
                       const std::string &dos, const std::string &messages = "") {
        found_item found;
        found.index = next;
        found.type = type;
        found.size = size;
        found.name = name;
        found.dos = dos;
        found.location = {static_cast<u32>(dir().offset_of(first) / sv->sector_size),
                          static_cast<u32>(dir().offset_of(first) % sv->sector_size)};
        found.messages = messages;
        return found;
    }
    [[nodiscard]] static u32 cluster_bytes() {
        return mounted::cluster_bytes();
    }
    // The last entry of the first sector.
    [[nodiscard]] static u32 last_of_first_sector() {
        return volume::entries_per_sector() - 1;
    }

    mounted v;
    const bool in_root;

private:
    directory make_space() {
        if (!in_root) {
            return v.sub_directory({20, 25, 22});
        }
        return sv->fat_type == 16 ? v.root() : v.longer_root({25, 22});
    }

    directory space = make_space();
};

class DoReaddir : public listed_directory {};
INSTANTIATE_TEST_SUITE_P(Directories, DoReaddir, testing::ValuesIn(LISTING_SHAPES),
                         listing_shape_name);

} // namespace

TEST_P(DoReaddir, GivesFilesDirectoriesAndLinksOneAfterAnother) {
    v.chain({40, 42});
    dir().append(short_entry("FILE    TXT", ARCHIVE, 30, 123456));
    dir().append(short_entry("DIR        ", DIRECTORY, 40, 99));
    dir().append(link_entry("LINK       ", 35, 7));
    dir().append(with_case(short_entry("README  TXT", READ_ONLY, 31, 4294967295), 0x18));
    EXPECT_EQ(read(0), item_at(0, 1, DENTRY_FILE, 123456, "FILE.TXT", "FILE    TXT"));
    EXPECT_EQ(read(1), item_at(1, 2, DENTRY_DIR, 2 * cluster_bytes(), "DIR", "DIR        "));
    EXPECT_EQ(read(2), item_at(2, 3, DENTRY_FILE, 7, "LINK", "LINK       "));
    EXPECT_EQ(read(3), item_at(3, 4, DENTRY_FILE, 4294967295, "readme.txt", "README  TXT"));
    EXPECT_EQ(read(4), failed(-ENOENT, 4));
}

TEST_P(DoReaddir, ShowsTheCaseBitsOfBaseAndExtension) {
    dir().append(with_case(short_entry("README  TXT"), 0x08));
    dir().append(with_case(short_entry("README  TXT"), 0x10));
    dir().append(with_case(short_entry("README  TXT"), 0xE7));
    dir().append(short_entry("\x05XY        "));
    EXPECT_EQ(read(0).name, "readme.TXT");
    EXPECT_EQ(read(1).name, "README.txt");
    EXPECT_EQ(read(2).name, "README.TXT");
    EXPECT_EQ(read(3).name, "\xE5XY");
}

TEST_P(DoReaddir, SkipsEntriesThatAreNotItems) {
    dir().append(short_entry("LABEL      ", LABEL));
    dir().append(deleted(short_entry("GONE       ")));
    dir().append(deleted(long_slot(0x41, u"gone", 1)));
    dir().append(short_entry("INVALID    ", INVALID));
    dir().append(short_entry("FILE       "));
    EXPECT_EQ(read(0), item_at(4, 5, DENTRY_FILE, 0, "FILE", "FILE       ", UNKNOWN_TYPE));
}

TEST_P(DoReaddir, GivesLongNamesOfFilesAndDirectories) {
    v.chain({40});
    dir().append(long_slots(u"A Long Name of a file.text", "ALONGN~1TEX"));
    dir().append(short_entry("ALONGN~1TEX", ARCHIVE, 30, 4000000000));
    dir().append(long_slots(u"Directory", "DIRECT~1   "));
    dir().append(short_entry("DIRECT~1   ", DIRECTORY, 40, 5));
    dir().append(long_slots(u"Link", "LINK~1     "));
    dir().append(link_entry("LINK~1     ", 35, 9));
    EXPECT_EQ(read(0),
              item_at(0, 3, DENTRY_FILE, 4000000000, "A Long Name of a file.text", "ALONGN~1TEX"));
    EXPECT_EQ(read(3), item_at(3, 5, DENTRY_DIR, cluster_bytes(), "Directory", "DIRECT~1   "));
    EXPECT_EQ(read(5), item_at(5, 7, DENTRY_FILE, 9, "Link", "LINK~1     "));
    EXPECT_EQ(read(7), failed(-ENOENT, 7));
}

TEST_P(DoReaddir, FollowsALongNameIntoTheNextSector) {
    const u32 last = last_of_first_sector();
    for (const std::size_t units : {38U, 255U}) {
        dir().go_to(last - 1);
        dir().append_long(std::u16string(units, u'n'), "NNNNNN~1   ");
        const u32 next = last + static_cast<u32>(units + 12) / 13;
        EXPECT_EQ(read(last - 1),
                  item_at(last - 1, next, DENTRY_FILE, 0, std::string(units, 'n'), "NNNNNN~1   "));
    }
}

TEST_P(DoReaddir, EndsTheNameOf256UnitsInItsField) {
    dir().append_long(std::u16string(260, u'n'), "NNNNNN~1   ");
    const found_item found = read(0);
    EXPECT_EQ(found.result, 0);
    EXPECT_EQ(found.index, 21U);
    EXPECT_EQ(found.dos, "NNNNNN~1   ");
}

TEST_P(DoReaddir, SkipsLongNamesWhileTheyAreOff) {
    dir().append_long(u"A Long Name", "ALONGN~1   ");
    for (const u8 flag : std::initializer_list<u8>{0, 2, 255}) {
        sv->long_name = flag;
        EXPECT_EQ(read(0), item_at(1, 2, DENTRY_FILE, 0, "ALONGN~1", "ALONGN~1   "));
    }
}

TEST_P(DoReaddir, ConvertsLongNamesToTheChosenEncoding) {
    dir().append_long(u"\u00E4\u20AC.", "AE~1       ");
    EXPECT_EQ(read(0), item_at(0, 2, DENTRY_FILE, 0, "??.", "AE~1       "));
    ASSERT_EQ(fat_set_encoding("UTF-8"), 0);
    EXPECT_EQ(read(0), item_at(0, 2, DENTRY_FILE, 0, "\xC3\xA4\xE2\x82\xAC.", "AE~1       "));
}

TEST_P(DoReaddir, ShowsANameThatTheEncodingLacksByItsShortOne) {
    dir().append(long_slots(u"a\u20ACb", "AB~1    TXT"));
    dir().append(with_case(short_entry("AB~1    TXT", ARCHIVE, 30, 12), 0x10));
    ASSERT_EQ(fat_set_encoding("ISO-8859-1"), 0);
    EXPECT_EQ(read(0), item_at(0, 2, DENTRY_FILE, 12, "AB~1.txt", "AB~1    TXT",
                               "convert_uname_to_cstring[N]: Failed to convert: \xAC\x20\x62\n\n"));
}

TEST_P(DoReaddir, GivesDirectoriesWithoutAnIntactChainNoSize) {
    v.set_link(41, 1);
    dir().append(short_entry("FREE       ", DIRECTORY, 40));
    dir().append(short_entry("BROKEN     ", DIRECTORY, 41));
    dir().append(short_entry("NONE       ", DIRECTORY, 0));
    dir().append(long_slots(u"Broken too", "BROKEN~1   "));
    dir().append(short_entry("BROKEN~1   ", DIRECTORY, 41));
    const std::string broken = "fat_read_clus[N]: Invalid cluster!\n\n"
                               "fat_count_clusters[N]: Failed to read cluster!\n\n";
    EXPECT_EQ(read(0), item_at(0, 1, DENTRY_DIR, 0, "FREE", "FREE       "));
    EXPECT_EQ(read(1), item_at(1, 2, DENTRY_DIR, 0, "BROKEN", "BROKEN     ", broken));
    EXPECT_EQ(read(2), item_at(2, 3, DENTRY_DIR, 0, "NONE", "NONE       ",
                               "fat_read_clus[N]: Invalid arg!\n\n"
                               "fat_count_clusters[N]: Failed to read cluster!\n\n"));
    EXPECT_EQ(read(3), item_at(3, 5, DENTRY_DIR, 0, "Broken too", "BROKEN~1   ", broken));
}

TEST_P(DoReaddir, EndsAtTheFirstUnusedEntry) {
    EXPECT_EQ(read(1), failed(-ENOENT, 1));
    dir().go_to(2);
    dir().append(short_entry("AFTER      "));
    EXPECT_EQ(read(1), failed(-ENOENT, 1));
    EXPECT_EQ(read(2), item_at(2, 3, DENTRY_FILE, 0, "AFTER", "AFTER      "));
}

TEST_P(DoReaddir, EndsAfterTheLastEntry) {
    dir().go_to(0);
    dir().fill_up(deleted(short_entry("GONE       ")));
    const u32 count = in_root && sv->fat_type == 16 ? 512 : dir().capacity();
    EXPECT_EQ(read(0), failed(-ENOENT, 0));
    EXPECT_EQ(read(count - 1), failed(-ENOENT, count - 1));
    dir().put(count - 1, short_entry("LAST       "));
    EXPECT_EQ(read(3), item_at(count - 1, count, DENTRY_FILE, 0, "LAST", "LAST       "));
    v.disk.log.clear();
    EXPECT_EQ(read(count), failed(-ENOENT, count));
    EXPECT_EQ(read(0xFFFFFFFF), failed(-ENOENT, 0xFFFFFFFF));
    EXPECT_TRUE(v.disk.log.empty());
}

TEST_P(DoReaddir, NeedsNoBufferForTheLocation) {
    dir().append_long(u"A Long Name", "ALONGN~1   ");
    dir().append(short_entry("FILE       "));
    EXPECT_EQ(read(0, false).name, "A Long Name");
    EXPECT_EQ(read(2, false).name, "FILE");
}

TEST_P(DoReaddir, ReportsALongNameThatCannotBeReadToItsEnd) {
    const u32 last = last_of_first_sector();
    dir().go_to(last);
    dir().append_long(u"A Long Name", "ALONGN~1   ");
    v.disk.unreadable = {dir().sectors[1]};
    EXPECT_EQ(read(last), failed(-EIO, last,
                                 "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                                     std::to_string(dir().sectors[1]) +
                                     ")\n"
                                     "get_long_name[N]: Failed to get entry with cluster ...\n\n"));
}

TEST_P(DoReaddir, EndsWithTheErrorOfALongNameAfterTheLastEntry) {
    dir().fill_up(deleted(short_entry("GONE       ")));
    const u32 last = dir().capacity() - 1;
    dir().put(last, long_slot(0x41, u"alone", 1));
    const bool in_area = in_root && sv->fat_type == 16;
    const std::string reason =
        in_area ? "get_phy_sector[N]: Invalid sector number in Root dir\n\n" : "";
    EXPECT_EQ(read(last),
              failed(-EFAULT, last,
                     reason + "get_dentry_with_clu[N]: Failed to get entry sector!:(" +
                         std::to_string(dir().base()) + ", " + std::to_string(last + 1) +
                         ")\n\n"
                         "get_long_name[N]: Failed to get entry with cluster ...\n\n"));
}

TEST(DoReaddirOfTheRootArea, StopsAfter512EntriesOfALargerOne) {
    mounted v({.fat_type = 16, .root_entries = 1024});
    v.top.fill_up(deleted(short_entry("GONE       ")));
    v.top.put(512, short_entry("AFTER      "));
    std::vector<u8> buffer(512);
    u32 index = 0;
    u8 *entry = nullptr;
    dir_item item = {};
    diagnostics messages;
    EXPECT_EQ(do_readdir(sv->root_dir, &index, &entry, &item, buffer.data(), nullptr), -ENOENT);
    EXPECT_EQ(index, 0U);
    EXPECT_EQ(messages.text(), "");
}

// ---- the compact listing ----------------------------------------------------------------------

namespace {

const std::string END_OF_READDIR = "fat_readdir[N]: Failed to do_readdir()!\n\n";

class FatReaddir : public listed_directory {
protected:
    printout list() {
        return to_stream([&](FILE *stream) { return fat_readdir(record(), stream); });
    }
};
INSTANTIATE_TEST_SUITE_P(Directories, FatReaddir, testing::ValuesIn(LISTING_SHAPES),
                         listing_shape_name);

// Checks that a listing closes and frees all that it opens and allocates in the lifetime of this.
class nothing_left {
public:
    nothing_left() = default;
    nothing_left(const nothing_left &) = delete;
    nothing_left &operator=(const nothing_left &) = delete;
    ~nothing_left() {
        EXPECT_EQ(meter_.live_blocks(), 0);
        EXPECT_EQ(ids_in_use(), ids_);
        EXPECT_EQ(open_descriptors(), descriptors_);
    }

private:
    std::vector<int> ids_ = ids_in_use();
    std::set<int> descriptors_ = open_descriptors();
    allocation_meter meter_;
};

} // namespace

TEST_P(FatReaddir, ListsEveryItemAndReportsTheFailureAtTheEnd) {
    v.chain({40, 42, 41});
    dir().append(short_entry("LABEL      ", LABEL));
    dir().append(with_case(short_entry("README  TXT", ARCHIVE, 30, 5), 0x18));
    dir().append(deleted(short_entry("GONE       ")));
    dir().append_long(u"A Long Name.text", "ALONGN~1TEX");
    dir().append(short_entry("DIR        ", DIRECTORY, 40));
    dir().append(link_entry("LINK       ", 35, 4294967295));
    const std::string three_clusters = std::to_string(3 * cluster_bytes());
    const printout expected = {0,
                               "f          5 \treadme.txt\n"
                               "f          0 \tA Long Name.text\n"
                               "d " +
                                   std::string(10 - three_clusters.size(), ' ') + three_clusters +
                                   " \tDIR\n"
                                   "f 4294967295 \tLINK\n",
                               END_OF_READDIR};
    const nothing_left check;
    EXPECT_EQ(list(), expected);
    EXPECT_EQ(to_output([&] { return fat_readdir(record(), nullptr); }), expected);
}

TEST_P(FatReaddir, ListsAllSectorsOfADirectory) {
    const u32 count = in_root && sv->fat_type == 16 ? 512 : dir().capacity();
    std::string expected;
    for (u32 i = 0; i < count; i++) {
        std::string number = std::to_string(i);
        number.insert(0, 8 - number.size(), '0');
        dir().append(short_entry(number + "   ", ARCHIVE, 0, i));
        expected += "f " + std::string(10 - std::to_string(i).size(), ' ') + std::to_string(i) +
                    " \t" + number + "\n";
    }
    EXPECT_EQ(list(), (printout{0, expected, END_OF_READDIR}));
}

TEST_P(FatReaddir, EndsWhereAnEntryCannotBeRead) {
    dir().append(short_entry("FILE       "));
    while (dir().append(short_entry("GONE       ", LABEL)) + 1 < volume::entries_per_sector()) {
    }
    v.disk.unreadable = {dir().sectors[1]};
    EXPECT_EQ(list(), (printout{0, "f          0 \tFILE\n",
                                "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                                    std::to_string(dir().sectors[1]) +
                                    ")\n"
                                    "do_readdir[N]: Failed go get entry!\n\n" +
                                    END_OF_READDIR}));
}

TEST(FatReaddirOfANewVolume, FindsNothing) {
    for (const u32 fat_type : {16U, 32U}) {
        const mounted v({.fat_type = fat_type});
        EXPECT_EQ(to_stream([](FILE *stream) { return fat_readdir(sv->root_dir, stream); }),
                  (printout{0, "", END_OF_READDIR}));
    }
}

TEST(FatReaddirOfASubDirectory, ListsItsDotEntries) {
    mounted v;
    directory inside(&v, {20}, false);
    inside.append(short_entry(".          ", DIRECTORY, 20));
    inside.append(short_entry("..         ", DIRECTORY, 0));
    const int id = v.open_new("SUB        ", {20}, 0, DIRECTORY);
    EXPECT_EQ(to_stream([&](FILE *stream) { return fat_readdir(oentry_table[id], stream); }),
              (printout{0, "d        512 \t.\nd          0 \t..\n",
                        "fat_read_clus[N]: Invalid arg!\n\n"
                        "fat_count_clusters[N]: Failed to read cluster!\n\n" +
                            END_OF_READDIR}));
}

// ---- the slots of one cluster -----------------------------------------------------------------

namespace {

class FatListClus : public testing::TestWithParam<volume_shape> {
protected:
    static printout list(u32 cluster, int mode) {
        return to_stream([&](FILE *stream) { return fat_list_clus(cluster, mode, stream); });
    }
    static printout refused(int result, const std::string &messages) {
        return {result, "", messages};
    }
    // The expected listing of the cluster.
    printout listing(const directory &space, int mode) const {
        std::vector<entry_image> entries;
        for (u32 i = 0; i < space.capacity(); i++) {
            entries.push_back(space.at(i));
        }
        printout result = listing_of(entries, 0, mode);
        result.result = static_cast<int>(sv->sec_per_clus);
        return result;
    }

    mounted v{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(
    Volumes, FatListClus,
    testing::Values(volume_shape{.fat_type = 16, .sec_per_clus = 4},
                    volume_shape{.fat_type = 16, .sector_size = 4096}, volume_shape{.fat_type = 32},
                    volume_shape{.fat_type = 32, .sector_size = 4096, .sec_per_clus = 2}),
    shape_name);

} // namespace

TEST_P(FatListClus, ListsEverySlotUpToTheFirstUnusedOne) {
    directory space(&v, {30}, false);
    space.append_long(u"A Long Name.text", "ALONGN~1TEX");
    space.append(short_entry("DIR        ", DIRECTORY, 40));
    space.append(deleted(short_entry("GONE       ")));
    space.append(short_entry("LABEL      ", LABEL));
    space.append(short_entry("INVALID    ", INVALID));
    space.go_to(9);
    space.append(short_entry("AFTER      "));
    const nothing_left check;
    EXPECT_EQ(list(30, 1), (printout{static_cast<int>(sv->sec_per_clus),
                                     "[0] extended slot\n"
                                     "[1] extended slot\n"
                                     "[2] file(short name)\n"
                                     "[3] directory\n"
                                     "[4] deleted file\n"
                                     "[5] volume entry\n"
                                     "[6] invalid entry\n"
                                     "[7] unused\n",
                                     UNKNOWN_TYPE}));
    for (const int mode : MODES_OF_LINES) {
        EXPECT_EQ(list(30, mode), listing(space, mode));
        EXPECT_EQ(to_output([&] { return fat_list_clus(30, mode, nullptr); }),
                  listing(space, mode));
    }
    // No compact listing is made of a single cluster.
    EXPECT_EQ(list(30, 0), listing(space, 0));
}

TEST_P(FatListClus, ListsAFullCluster) {
    directory space(&v, {volume::last_cluster()}, false);
    space.fill_up(short_entry("FILE       "));
    EXPECT_EQ(list(volume::last_cluster(), 2), listing(space, 2));
    v.disk.log.clear();
    list(volume::last_cluster(), 1);
    EXPECT_EQ(v.disk.log,
              (std::vector<transfer>{
                  {false, volume::first_sector_of(volume::last_cluster()), sv->sec_per_clus}}));
}

TEST_P(FatListClus, RefusesNumbersOfNoCluster) {
    for (const u32 cluster : {0U, 1U, volume::last_cluster() + 1, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(list(cluster, 1),
                  refused(-EINVAL, "fat_list_clus[N]: out of the cluster range\n"))
            << cluster;
    }
    EXPECT_TRUE(v.disk.log.empty());
}

TEST_P(FatListClus, RefusesAClusterPastTheEndOfTheVolume) {
    sv->total_sectors = volume::first_sector_of(30);
    const nothing_left check;
    EXPECT_EQ(list(30, 1), refused(-EINVAL, "fat_list_clus[N]: out of the data area\n\n"));
    EXPECT_EQ(list(29, 1).result, static_cast<int>(sv->sec_per_clus));
}

TEST_P(FatListClus, ReportsAClusterThatCannotBeRead) {
    const nothing_left check;
    for (int moved = -5; moved <= static_cast<int>(sv->sec_per_clus) + 1; moved++) {
        if (moved == static_cast<int>(sv->sec_per_clus)) {
            continue;
        }
        v.disk.failure_result = moved;
        v.disk.reads_before_failure = 0;
        EXPECT_EQ(list(30, 1), refused(-EIO, "fat_list_clus[N]: cluster mis match!\n\n")) << moved;
    }
}

// ---- the slots of a directory -----------------------------------------------------------------

namespace {

const std::string ROOT_IS_NOT_CLOSED = "fat_close[N]: Invalid id!(0)\n\n";

printout list_dir(const char *path, int mode) {
    return to_stream([&](FILE *stream) { return fat_list_dir(path, mode, stream); });
}

// The heading and the slots of each cluster, in the order of the chain.
printout chain_listing(const directory &space, int mode) {
    printout result;
    for (std::size_t i = 0; i < space.clusters.size(); i++) {
        std::vector<entry_image> entries;
        const u32 count = volume::entries_per_cluster();
        for (u32 j = 0; j < count; j++) {
            entries.push_back(space.at(static_cast<u32>(i) * count + j));
        }
        const printout cluster = listing_of(entries, 0, mode);
        result.out += "[" + std::to_string(i) + "-th: cluster #" +
                      std::to_string(space.clusters[i]) + "]\n" + cluster.out;
        result.messages += cluster.messages;
    }
    return result;
}

class FatListDir : public testing::TestWithParam<volume_shape> {
protected:
    // The messages of opening the sub-directory by name.
    [[nodiscard]] std::string found() const {
        return found_at(v.top.base(), 0);
    }
    // A sub-directory SUB of three clusters. The first is full, the second begins with an unused
    // slot.
    directory &make_sub() {
        v.chain(sub.clusters);
        v.top.append(short_entry("SUB        ", DIRECTORY, 20));
        const u32 count = volume::entries_per_cluster();
        for (u32 i = 0; i < count; i++) {
            sub.append(short_entry("FIRST      ", ARCHIVE, 0, i));
        }
        sub.go_to(count + 1);
        sub.append(short_entry("HIDDEN     "));
        sub.go_to(2 * count);
        sub.append_long(u"Third", "THIRD~1    ");
        v.disk.log.clear();
        return sub;
    }

    mounted v{GetParam()};
    directory sub{&v, {20, 25, 22}, false};
};
INSTANTIATE_TEST_SUITE_P(Volumes, FatListDir,
                         testing::Values(volume_shape{.fat_type = 16},
                                         volume_shape{.fat_type = 16, .sector_size = 4096},
                                         volume_shape{.fat_type = 32, .sec_per_clus = 2},
                                         volume_shape{.fat_type = 32, .sector_size = 4096}),
                         shape_name);

} // namespace

TEST_P(FatListDir, CutsEachClusterAtItsOwnFirstUnusedSlot) {
    const directory &space = make_sub();
    const nothing_left check;
    for (const int mode : MODES_OF_LINES) {
        printout expected = chain_listing(space, mode);
        expected.messages = found();
        EXPECT_EQ(list_dir("SUB", mode), expected) << mode;
        EXPECT_EQ(to_output([&] { return fat_list_dir("/SUB", mode, nullptr); }), expected) << mode;
    }
    const std::string listing = list_dir("SUB", 1).out;
    const std::string end = "[1-th: cluster #25]\n"
                            "[0] unused\n"
                            "[2-th: cluster #22]\n"
                            "[0] extended slot\n"
                            "[1] file(short name)\n";
    EXPECT_NE(listing.find(end), std::string::npos) << listing;
}

TEST_P(FatListDir, ListsItemsInModeZero) {
    v.chain({20});
    v.top.append(short_entry("SUB        ", DIRECTORY, 20));
    sub.append_long(u"Long name", "LONGNA~1   ");
    sub.append(short_entry("FILE    TXT", ARCHIVE, 0, 44));
    const nothing_left check;
    EXPECT_EQ(list_dir("SUB", 0),
              (printout{0, "f          0 \tLong name\nf         44 \tFILE.TXT\n",
                        found() + END_OF_READDIR}));
    const std::string size = std::to_string(mounted::cluster_bytes());
    const printout root = {0, "d " + std::string(10 - size.size(), ' ') + size + " \tSUB\n",
                           END_OF_READDIR + ROOT_IS_NOT_CLOSED};
    EXPECT_EQ(list_dir(nullptr, 0), root);
    EXPECT_EQ(to_output([] { return fat_list_dir(nullptr, 0, nullptr); }), root);
    EXPECT_EQ(list_dir("/", 0),
              (printout{0, root.out, "fat_open[N]: failed to get name!\n\n" + root.messages}));
}

TEST_P(FatListDir, ListsTheRootWithoutAPath) {
    v.top.append(short_entry("LABEL      ", LABEL));
    v.top.append_long(u"Long name", "LONGNA~1   ");
    v.top.append(short_entry("INVALID    ", INVALID));
    const std::string heading =
        sv->fat_type == 32 ? "[0-th: cluster #" + std::to_string(sv->root_clus) + "]\n" : "";
    const nothing_left check;
    EXPECT_EQ(list_dir(nullptr, 1), (printout{0,
                                              heading + "[0] volume entry\n"
                                                        "[1] extended slot\n"
                                                        "[2] file(short name)\n"
                                                        "[3] invalid entry\n"
                                                        "[4] unused\n",
                                              UNKNOWN_TYPE + ROOT_IS_NOT_CLOSED}));
    EXPECT_EQ(list_dir(nullptr, 2),
              (printout{0,
                        heading + "[0] volume entry\n[1] extended slot\n" +
                            text_of_long_slot(v.top.at(1)) + "[2] file(short name)\n" +
                            text_of_short_entry(v.top.at(2)) + "[3] invalid entry\n" +
                            text_of_short_entry(v.top.at(3)) + "[4] unused\n",
                        UNKNOWN_TYPE + ROOT_IS_NOT_CLOSED}));
    EXPECT_EQ(to_output([] { return fat_list_dir(nullptr, 2, nullptr); }), list_dir(nullptr, 2));
}

TEST_P(FatListDir, ShowsANewRootWithItsLabelAloneAndWithoutItOneUnusedSlot) {
    const std::string heading =
        sv->fat_type == 32 ? "[0-th: cluster #" + std::to_string(sv->root_clus) + "]\n" : "";
    EXPECT_EQ(list_dir(nullptr, 1),
              (printout{0, heading + "[0] volume entry\n[1] unused\n", ROOT_IS_NOT_CLOSED}));
    EXPECT_EQ(list_dir(nullptr, 0), (printout{0, "", END_OF_READDIR + ROOT_IS_NOT_CLOSED}));
    v.top.put(0, {});
    EXPECT_EQ(list_dir(nullptr, 1), (printout{0, heading + "[0] unused\n", ROOT_IS_NOT_CLOSED}));
}

TEST_P(FatListDir, ListsNothingOfADirectoryWithoutClusters) {
    v.top.append(short_entry("SUB        ", DIRECTORY, 0));
    const nothing_left check;
    EXPECT_EQ(list_dir("SUB", 1), (printout{0, "", found()}));
    EXPECT_EQ(list_dir("SUB", 0), (printout{0, "", found() + END_OF_READDIR}));
}

TEST_P(FatListDir, RefusesAnEntryThatIsNotADirectory) {
    v.top.append(short_entry("FILE       "));
    const nothing_left check;
    EXPECT_EQ(list_dir("FILE", 1), (printout{-ENOTDIR, "",
                                             found_at(v.top.base(), 0) +
                                                 "fat_open_dir[N]: attempt to open directory!\n\n"
                                                 "fat_list_dir[N]: cannot open directory(-20)\n"}));
    EXPECT_EQ(list_dir("GONE", 0), (printout{-ENOENT, "",
                                             "fat_open[N]: failed to find directory entry!\n\n"
                                             "fat_list_dir[N]: cannot open directory(-2)\n"}));
}

TEST_P(FatListDir, EndsAtAClusterThatCannotBeRead) {
    const directory &space = make_sub();
    v.disk.unreadable = {volume::first_sector_of(25)};
    const nothing_left check;
    printout expected = chain_listing(space, 1);
    expected.result = -EIO;
    expected.out.resize(expected.out.find("[1-th"));
    expected.out += "[1-th: cluster #25]\n";
    expected.messages = found() + "fat_list_clus[N]: cluster mis match!\n\n";
    EXPECT_EQ(list_dir("SUB", 1), expected);
}

TEST_P(FatListDir, EndsAtAClusterPastTheEndOfTheVolume) {
    make_sub();
    sv->total_sectors = volume::first_sector_of(25);
    const nothing_left check;
    const printout result = list_dir("SUB", 1);
    EXPECT_EQ(result.result, -EINVAL);
    EXPECT_EQ(result.out.substr(result.out.find("[1-th")), "[1-th: cluster #25]\n");
    EXPECT_EQ(result.messages, found() + "fat_list_clus[N]: out of the data area\n\n");
}

// Only the gathering of the chain leaves the id open.
static printout list_and_close() {
    printout result = list_dir("SUB", 1);
    if (result.messages.find("fat_get_chains") != std::string::npos) {
        EXPECT_EQ(ids_in_use(), (std::vector<int>{0, 1}));
        EXPECT_EQ(fat_close(1), 0);
    }
    EXPECT_EQ(ids_in_use(), (std::vector<int>{0}));
    return result;
}

TEST_P(FatListDir, ReportsMissingMemory) {
    make_sub();
    // In the order of the steps, each once.
    std::vector<printout> failures;
    at_every_fault({EVERY_ALLOCATION}, [&](fault_step &step) {
        const printout result = step.run(list_and_close);
        if (!step.struck()) {
            EXPECT_EQ(result.result, 0);
            return;
        }
        EXPECT_LT(result.result, 0);
        if (result.messages.find("fat_list_dir") == std::string::npos &&
            (failures.empty() || failures.back() != result)) {
            failures.push_back(result);
        }
    });
    const std::string memory = "fat_list_clus[N]: Failed to allocate memory!\n\n";
    const std::string first = "[0-th: cluster #20]\n";
    const std::string second = chain_listing(sub, 1).out;
    const std::vector<printout> expected = {
        {-ENOMEM, "", found() + "fat_get_chains[N]: Memory allocation error!\n\n"},
        {-EINVAL, "",
         found() + "fat_read_entry[N]: cannot allocate FAT\n\n"
                   "fat_get_chains[N]: Failed to read cluster!\n\n"},
        {-ENOMEM, first, found() + memory},
        {-ENOMEM, second.substr(0, second.find("[1-th")) + "[1-th: cluster #25]\n",
         found() + memory},
        {-ENOMEM, second.substr(0, second.find("[2-th")) + "[2-th: cluster #22]\n",
         found() + memory},
    };
    EXPECT_EQ(failures, expected);
}

TEST(FatListDirOfAFat32Root, FollowsItsChain) {
    mounted v({.fat_type = 32});
    directory space = v.longer_root({30, 25});
    for (u32 i = 0; i < volume::entries_per_cluster(); i++) {
        space.append(short_entry("FILE       "));
    }
    space.go_to(2 * volume::entries_per_cluster());
    space.append(short_entry("THIRD      "));
    printout expected = chain_listing(space, 1);
    expected.messages = ROOT_IS_NOT_CLOSED;
    EXPECT_EQ(list_dir(nullptr, 1), expected);
    expected.messages = "fat_open[N]: failed to get name!\n\n" + ROOT_IS_NOT_CLOSED;
    EXPECT_EQ(list_dir("/", 1), expected);
}

TEST(FatListDirOfTheRootArea, NumbersAllItsSlotsInOneRow) {
    for (const u32 sector_size : {512U, 1024U, 2048U, 4096U}) {
        mounted v({.fat_type = 16, .sector_size = sector_size});
        v.top.fill_up(short_entry("FILE       "));
        v.top.put(511, short_entry("LAST       ", DIRECTORY));
        std::vector<entry_image> entries;
        for (u32 i = 0; i < 512; i++) {
            entries.push_back(v.top.at(i));
        }
        printout expected = listing_of(entries, 0, 2);
        expected.messages = ROOT_IS_NOT_CLOSED;
        EXPECT_EQ(list_dir(nullptr, 2), expected);
    }
}

TEST(FatListDirOfTheRootArea, EndsAtTheFirstUnusedSlotOfAnySector) {
    mounted v;
    for (u32 i = 0; i < 40; i++) {
        v.top.append(short_entry("FILE       "));
    }
    v.top.go_to(41);
    v.top.fill_up(short_entry("AFTER      "));
    v.disk.log.clear();
    const std::string out = list_dir(nullptr, 1).out;
    EXPECT_EQ(out.substr(out.find("[39]")), "[39] file(short name)\n[40] unused\n");
}

// The area is assumed to have 16384 bytes, with any format of the volume.
TEST(FatListDirOfTheRootArea, Lists512SlotsOfALargerOrSmallerArea) {
    for (const u32 root_entries : {256U, 1024U}) {
        mounted v({.fat_type = 16, .root_entries = root_entries, .fill = 0xE5});
        v.top.fill_up(short_entry("FILE       "));
        const std::string out = list_dir(nullptr, 1).out;
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 512);
        EXPECT_EQ(out.substr(out.rfind('[')),
                  root_entries == 256 ? "[511] deleted file\n" : "[511] file(short name)\n");
    }
}

TEST(FatListDirOfTheRootArea, ReportsASectorThatCannotBeRead) {
    mounted v;
    v.top.fill_up(short_entry("FILE       "));
    const nothing_left check;
    for (const int moved : {-5, 0}) {
        v.disk.failure_result = moved;
        v.disk.unreadable = {v.top.sectors[1]};
        const printout result = list_dir(nullptr, 1);
        EXPECT_EQ(result.result, -EIO);
        EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 16);
        EXPECT_EQ(result.messages,
                  "fat_list_dir[N]: Failed go read sector!\n\n" + ROOT_IS_NOT_CLOSED);
    }
}

TEST(FatListDirOfTheRootArea, FailsWithoutMemory) {
    const mounted v;
    const nothing_left check;
    const failing_allocation fault(0);
    const printout result = list_dir(nullptr, 1);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(result.result, -ENOMEM);
    EXPECT_EQ(result.out, "");
}

// Only without a path is the area listed; by name the root is a directory like any other.
TEST(FatListDirOfTheRootArea, IsRefusedByName) {
    const mounted v;
    for (const char *path : {"/", ""}) {
        for (const int mode : {1, 2}) {
            const printout result = list_dir(path, mode);
            EXPECT_EQ(result, (printout{-EINVAL, "",
                                        "fat_open[N]: failed to get name!\n\n"
                                        "fat_get_chains[N]: Invalid arg!\n\n"}));
        }
    }
}

TEST(FatListDirOfAnEmptySlot, FindsNothing) {
    const mounted v;
    oentry *root = std::exchange(oentry_table[0], nullptr);
    const printout result = list_dir("/", 1);
    oentry_table[0] = root;
    EXPECT_EQ(result.result, -ENOENT);
    EXPECT_EQ(result.out, "");
}

// ---- a file of raw entries --------------------------------------------------------------------

namespace {

class FatListEntries : public testing::Test {
protected:
    static printout list(const std::string &path, int mode) {
        return to_stream(
            [&](FILE *stream) { return fat_list_entries(path.c_str(), mode, stream); });
    }
    std::string file_of(const std::vector<entry_image> &entries, std::size_t more_bytes = 0) const {
        bytes content;
        for (const entry_image &entry : entries) {
            content.insert(content.end(), entry.begin(), entry.end());
        }
        content.resize(content.size() + more_bytes, 'x');
        return scratch.file_with("entries", content);
    }

    scratch_directory scratch;
    nothing_left check;
};

} // namespace

TEST_F(FatListEntries, NumbersTheEntriesFromOne) {
    const std::vector<entry_image> entries = {
        short_entry("LABEL      ", LABEL), long_slot(0x41, u"name", 1), short_entry("FILE       "),
        short_entry("INVALID    ", INVALID)};
    const std::string path = file_of(entries);
    EXPECT_EQ(list(path, 1), (printout{0,
                                       "[1] volume entry\n"
                                       "[2] extended slot\n"
                                       "[3] file(short name)\n"
                                       "[4] invalid entry\n",
                                       UNKNOWN_TYPE}));
    for (const int mode : {0, 1, 2, 3, -1}) {
        EXPECT_EQ(list(path, mode), listing_of(entries, 1, mode));
        EXPECT_EQ(to_output([&] { return fat_list_entries(path.c_str(), mode, nullptr); }),
                  listing_of(entries, 1, mode));
    }
}

TEST_F(FatListEntries, EndsAtTheFirstUnusedEntryOrAtAPartOfOne) {
    const entry_image file = short_entry("FILE       ");
    EXPECT_EQ(list(file_of({file, {}, short_entry("AFTER      ")}), 1),
              printed("[1] file(short name)\n[2] unused\n"));
    EXPECT_EQ(list(file_of({file}, 31), 2), listing_of({file}, 1, 2));
    EXPECT_EQ(list(file_of({}, 31), 2), printed(""));
    EXPECT_EQ(list(file_of({}), 2), printed(""));
}

TEST_F(FatListEntries, CountsOnAcrossBlocks) {
    std::vector<entry_image> entries(300, deleted(short_entry("GONE       ")));
    entries[127] = short_entry("LAST       ", DIRECTORY);
    entries[128] = short_entry("FIRST      ");
    EXPECT_EQ(list(file_of(entries), 2), listing_of(entries, 1, 2));
    entries.resize(256);
    EXPECT_EQ(list(file_of(entries), 1), listing_of(entries, 1, 1));
}

TEST_F(FatListEntries, CountsOnAcrossShortReads) {
    const std::vector<entry_image> entries(10, short_entry("FILE       "));
    const std::string path = file_of(entries);
    const pretended_device three_at_a_time({.short_transfer_bytes = 96});
    EXPECT_EQ(list(path, 1), listing_of(entries, 1, 1));
}

TEST_F(FatListEntries, EndsWhereTheFileCannotBeRead) {
    const std::vector<entry_image> entries(130, short_entry("FILE       "));
    const std::string path = file_of(entries);
    const failing_call fault(call::read, EIO, 1);
    EXPECT_EQ(list(path, 1), listing_of({entries.begin(), entries.begin() + 128}, 1, 1));
    EXPECT_TRUE(fault.struck());
}

TEST_F(FatListEntries, PrintsAFileThatCannotBeOpened) {
    const std::string message = "fat_list_entries[N]: cannot open file\n";
    const std::string path = file_of({short_entry("FILE       ")});
    EXPECT_EQ(list(scratch.file("."), 1), printed("")); // a directory has no entries to read
    EXPECT_EQ(list(scratch.file("none"), 1), (printout{-ENOENT, "", message}));
    EXPECT_EQ(list(path + "/below", 1), (printout{-ENOTDIR, "", message}));
    {
        const failing_call fault(call::open, EACCES);
        EXPECT_EQ(list(path, 1), (printout{-EACCES, "", message}));
    }
    const printout no_path =
        to_stream([](FILE *stream) { return fat_list_entries(nullptr, 1, stream); });
    EXPECT_EQ((std::pair{no_path.result, no_path.out}), (std::pair{-EINVAL, std::string()}));
    const failing_allocation fault(0);
    const printout no_memory = list(path, 1);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ((std::pair{no_memory.result, no_memory.out}), (std::pair{-ENOMEM, std::string()}));
}

TEST_F(FatListEntries, ListsTheEntriesOfADump) {
    mounted v;
    directory inside(&v, {20}, false);
    inside.append(short_entry(".          ", DIRECTORY, 20));
    inside.append_long(u"Long name", "LONGNA~1   ");
    ASSERT_EQ(fat_dump_clus(20, scratch.file("image").c_str()), 1);
    EXPECT_EQ(list(scratch.file("image"), 2),
              listing_of({inside.at(0), inside.at(1), inside.at(2), {}}, 1, 2));
}

// ---- the long name at an index ----------------------------------------------------------------

namespace {

class FatGetUname : public listed_directory {
protected:
    struct answer_with_name {
        int result = 0;
        std::u16string name = {};
        std::string messages = {};
        bool operator==(const answer_with_name &) const = default;
        friend std::ostream &operator<<(std::ostream &out, const answer_with_name &a) {
            return out << a.result << ", " << testing::PrintToString(a.name) << ", " << a.messages;
        }
    };
    [[nodiscard]] int id() const {
        return in_root ? 0 : 1;
    }
    answer_with_name get(int of, u32 index) {
        std::vector<u16> units(256);
        units.shrink_to_fit();
        diagnostics messages;
        answer_with_name result;
        result.result = fat_get_uname(of, index, units.data());
        result.messages = messages.text();
        const auto end = std::find(units.begin(), units.end(), 0);
        result.name.assign(units.begin(), end);
        return result;
    }
};
INSTANTIATE_TEST_SUITE_P(Directories, FatGetUname, testing::ValuesIn(LISTING_SHAPES),
                         listing_shape_name);

} // namespace

// Whether long names are on or off.
TEST_P(FatGetUname, GivesTheNameThatBeginsThere) {
    const u32 last = last_of_first_sector();
    dir().append_long(u"A Long Name.text", "ALONGN~1TEX");
    dir().append_long(u"Exactly 13 un", "EXACTL~1   ");
    dir().go_to(last); // over the border of two sectors
    dir().append_long(std::u16string(255, u'\u20AC'), "X~1        ");
    const nothing_left check;
    for (const int flag : {1, 0}) {
        sv->long_name = static_cast<u8>(flag);
        EXPECT_EQ(get(id(), 0), (answer_with_name{2, u"A Long Name.text", ""}));
        EXPECT_EQ(get(id(), 3), (answer_with_name{1, u"Exactly 13 un", ""}));
        EXPECT_EQ(get(id(), last), (answer_with_name{20, std::u16string(255, u'\u20AC'), ""}));
    }
    dir().go_to(0);
    dir().append_long(std::u16string(260, u'n'), "NNNNNN~1   "); // fills all units
    EXPECT_EQ(get(id(), 0), (answer_with_name{20, std::u16string(256, u'n'), ""}));
}

TEST_P(FatGetUname, RefusesAnEntryThatIsNotASlot) {
    const std::string no_slot = "fat_get_uname[N]: Failed to get long name!\n\n";
    dir().append(short_entry("FILE       "));
    dir().append(short_entry("DIR        ", DIRECTORY));
    dir().append(deleted(long_slot(0x41, u"gone", 1)));
    dir().append(short_entry("LABEL      ", LABEL));
    dir().append(short_entry("INVALID    ", INVALID));
    for (const u32 index : {0U, 1U, 2U, 3U, 5U}) {
        EXPECT_EQ(get(id(), index), (answer_with_name{-EINVAL, u"", no_slot})) << index;
    }
    EXPECT_EQ(get(id(), 4), (answer_with_name{-EINVAL, u"", UNKNOWN_TYPE + no_slot}));
}

TEST_P(FatGetUname, ReportsAnIndexPastTheEnd) {
    const u32 count = in_root && sv->fat_type == 16 ? 512 : record()->allocated / 32;
    const nothing_left check;
    for (const u32 index : {count, 0xFFFFFFFFU}) {
        EXPECT_EQ(get(id(), index),
                  (answer_with_name{-EFAULT, u"",
                                    "fat_get_dentry[N]: access the out of range in directory "
                                    "space\nfat_get_uname[N]: Failed to get dentry!\n\n"}));
    }
}

TEST_P(FatGetUname, ReportsASlotThatCannotBeRead) {
    const u32 last = last_of_first_sector();
    dir().go_to(last);
    dir().append_long(u"A Long Name.text", "ALONGN~1TEX");
    v.disk.unreadable = {dir().sectors[1]};
    const answer_with_name result = get(id(), last);
    EXPECT_EQ(result.result, -EIO);
    EXPECT_EQ(result.messages, "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                                   std::to_string(dir().sectors[1]) +
                                   ")\nget_long_name[N]: Failed to get entry with cluster ...\n\n");
}

// ---- no volume --------------------------------------------------------------------------------

TEST(Listings, OfRawEntriesNeedNoVolume) {
    ASSERT_EQ(sv, nullptr);
    const scratch_directory scratch;
    const entry_image entry = short_entry("FILE       ");
    const std::string path = scratch.file_with("entries", {entry.begin(), entry.end()});
    EXPECT_EQ(to_stream([&](FILE *stream) { return fat_list_entries(path.c_str(), 2, stream); }),
              listing_of({entry}, 1, 2));
}

TEST(Listings, ReportFailuresOnStandardErrorAlone) {
    const mounted v;
    standard_error error;
    standard_output out;
    const int result = fat_list_clus(1, 1, nullptr);
    EXPECT_EQ(out.stop(), "");
    EXPECT_EQ(without_line_numbers(error.stop()), "fat_list_clus[N]: out of the cluster range\n");
    EXPECT_EQ(result, -EINVAL);
}
