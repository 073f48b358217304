// Listings for programs: the entries of an open directory one after another, and the attributes of
// an open entry.

#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/mounted.h"
#include "tests/support/open_entries.h"
#include "tests/support/valgrind.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <random>

using namespace fat;
using namespace testing_support;
using namespace std::string_literals;

namespace {

// The reported attributes of an entry.
struct info_picture {
    std::string name;
    std::string short_name;
    unsigned type = 2;
    unsigned attr = 0;
    unsigned cmsec = 0;
    unsigned mtime = 0;
    unsigned mdate = 0;
    u32 size = 0;
    u32 start = 0;
    u32 index = 0;
    bool operator==(const info_picture &) const = default;
};
std::ostream &operator<<(std::ostream &out, const info_picture &i) {
    return out << "{\"" << i.name << "\", \"" << i.short_name << "\", type " << i.type << ", attr "
               << i.attr << ", cmsec " << i.cmsec << ", time " << i.mtime << ", date " << i.mdate
               << ", size " << i.size << ", start " << i.start << ", index " << i.index << "}";
}
info_picture picture_of_info(const fat_entry_info &info) {
    EXPECT_NE(std::memchr(info.name, '\0', sizeof info.name), nullptr);
    EXPECT_NE(std::memchr(info.short_name, '\0', sizeof info.short_name), nullptr);
    return {info.name,  info.short_name, info.type, info.attr,  info.cmsec,
            info.mtime, info.mdate,      info.size, info.start, info.index};
}

// ---- the expected listing ---------------------------------------------------------------------

// The long name whose slots are before entry `index`, from there backwards.
std::optional<std::string> long_name_before(const directory &dir, u32 index) {
    const std::string dos = model::dos_name_of(dir.at(index));
    model::name_assembler name;
    for (unsigned k = 1; k <= 20 && k <= index; k++) {
        const entry_image slot = dir.at(index - k);
        const bool is_last = slot[0] == (0x40 | k);
        if (model::kind(slot) != model::NAME_SLOT || slot[13] != checksum_of(dos) ||
            (slot[0] != k && !is_last)) {
            return std::nullopt;
        }
        name.add(slot);
        if (is_last) {
            const std::u16string units = name.name();
            const bool is_ascii =
                std::all_of(units.begin(), units.end(), [](char16_t u) { return u < 0x80; });
            return units.empty() || !is_ascii
                       ? std::nullopt
                       : std::optional(std::string(units.begin(), units.end()));
        }
    }
    return std::nullopt;
}

info_picture expected_info(const directory &dir, u32 index) {
    const entry_image entry = dir.at(index);
    info_picture result;
    const std::string dos = model::dos_name_of(entry);
    result.short_name = model::to_text(dos, 0);
    result.name = (sv->long_name == 1 ? long_name_before(dir, index) : std::nullopt)
                      .value_or(model::to_text(dos, entry[12]));
    const model::entry_kind kind = model::kind(entry);
    result.type = kind == model::FILE_ENTRY && entry[13] == 0xE2 ? 7 : static_cast<u8>(kind);
    result.attr = entry[11];
    result.cmsec = entry[13];
    result.mtime = field_of(entry, 22, 2);
    result.mdate = field_of(entry, 24, 2);
    result.size = kind == model::DIR_ENTRY ? 0 : size_of(entry);
    result.start = start_of(entry);
    result.index = index;
    return result;
}

// Labels are left out.
std::vector<info_picture> expected_listing(const directory &dir) {
    std::vector<info_picture> result;
    for (u32 index = 0; index < dir.capacity() && dir.at(index)[0] != 0; index++) {
        if (model::is_short(dir.at(index))) {
            result.push_back(expected_info(dir, index));
        }
    }
    return result;
}

// ---- a case -----------------------------------------------------------------------------------

class entries_case {
public:
    explicit entries_case(const volume_shape &shape = {}) : v(shape) {
        v.top.go_to(1); // after the label
    }

    // All entries from the beginning on. Prints no diagnostics.
    std::vector<info_picture> list(int did) {
        std::vector<info_picture> result;
        u32 index = 0;
        for (;;) {
            const std::optional<info_picture> one = next(did, &index);
            if (!one.has_value() || result.size() > 100000) {
                return result;
            }
            result.push_back(*one);
        }
    }
    std::vector<std::string> names(int did) {
        std::vector<std::string> result;
        for (const info_picture &info : list(did)) {
            result.push_back(info.name);
        }
        return result;
    }
    // One call that succeeds, or ends.
    std::optional<info_picture> next(int did, u32 *index) {
        fat_entry_info info;
        std::memset(&info, 0x55, sizeof info);
        const fat_entry_info before = info;
        messages.clear();
        const int result = fat_next_entry(did, index, &info);
        EXPECT_EQ(messages.text(), "");
        if (result == 1) {
            EXPECT_GT(*index, info.index);
            return picture_of_info(info);
        }
        EXPECT_EQ(result, 0);
        EXPECT_EQ(std::memcmp(&info, &before, sizeof info), 0);
        return std::nullopt;
    }
    // One call that fails, silently.
    int failed(int did, u32 at = 0) {
        fat_entry_info info;
        std::memset(&info, 0x55, sizeof info);
        const fat_entry_info before = info;
        u32 index = at;
        messages.clear();
        const int result = fat_next_entry(did, &index, &info);
        EXPECT_EQ(messages.text(), "");
        EXPECT_EQ(std::memcmp(&info, &before, sizeof info), 0);
        EXPECT_EQ(index, at);
        return result;
    }
    // The attributes of an open entry; its error as a name. Prints no diagnostics.
    info_picture info_of(int id) {
        fat_entry_info info;
        std::memset(&info, 0x55, sizeof info);
        messages.clear();
        const int result = fat_info_of(id, &info);
        EXPECT_EQ(messages.text(), "");
        if (result != 0) {
            info_picture error;
            error.name = "error " + std::to_string(result);
            return error;
        }
        return picture_of_info(info);
    }
    int info_error(int id) {
        fat_entry_info info;
        messages.clear();
        const int result = fat_info_of(id, &info);
        EXPECT_EQ(messages.text(), "");
        return result;
    }

    mounted v;
    diagnostics messages;
};

const char *const DOS = "ALONGN~1TXT";

class NextEntry : public testing::TestWithParam<volume_shape> {
protected:
    NextEntry() : c(GetParam()) {}
    entries_case c;
};
INSTANTIATE_TEST_SUITE_P(
    Shapes, NextEntry,
    testing::Values(volume_shape{.fat_type = 16}, volume_shape{.fat_type = 16, .sec_per_clus = 4},
                    volume_shape{.fat_type = 32},
                    volume_shape{.fat_type = 32, .sector_size = 1024, .sec_per_clus = 2},
                    volume_shape{.fat_type = 16, .sector_size = 4096}),
    shape_name);

TEST_P(NextEntry, ReportsEveryFieldOfAFile) {
    entry_image entry = short_entry("README  TXT", ARCHIVE | READ_ONLY, 0x54321, 0x87654321);
    entry[12] = 0x18;
    entry[13] = 0x37;
    entry[14] = entry[15] = entry[16] = entry[17] = entry[18] = entry[19] = 0x11;
    entry[22] = 0x5C;
    entry[23] = 0x64;
    entry[24] = 0x5D;
    entry[25] = 0x58;
    c.v.top.append(entry);
    EXPECT_EQ(c.list(0), (std::vector<info_picture>{{"readme.txt", "README.TXT", 2, 0x21, 0x37,
                                                     0x645C, 0x585D, 0x87654321, 0x54321, 1}}));
}

TEST_P(NextEntry, GivesEveryKindInOrder) {
    directory dir = c.v.sub_directory({20, 22, 21});
    const int did = c.v.open_new("SUB        ", {20, 22, 21}, 0, DIRECTORY);
    dir.append(short_entry(".          ", DIRECTORY, 20));
    dir.append(short_entry("..         ", DIRECTORY, 0));
    dir.append(short_entry("FILE    TXT", ARCHIVE, 10, 5));
    dir.append(deleted(short_entry("GONE    TXT")));
    dir.append(short_entry("DEEP       ", DIRECTORY, 30, 99));
    entry_image link = short_entry("LINK       ", 0, 11, 4);
    link[13] = 0xE2;
    dir.append(link);
    dir.append(short_entry("VOLUME     ", LABEL));
    dir.append(short_entry("           ", LABEL));
    dir.append(short_entry("INVALID    ", LABEL | DIRECTORY));
    dir.append(long_slot(0x41, u"orphan", 7));
    dir.append_long(u"A long name with more.text", DOS);
    entry_image directory_of_links = short_entry("MARKED     ", DIRECTORY, 31);
    directory_of_links[13] = 0xE2;
    dir.append(directory_of_links);
    EXPECT_EQ(c.list(did),
              (std::vector<info_picture>{
                  {".", ".", 3, 0x10, 0, 0, 0, 0, 20, 0},
                  {"..", "..", 3, 0x10, 0, 0, 0, 0, 0, 1},
                  {"FILE.TXT", "FILE.TXT", 2, 0x20, 0, 0, 0, 5, 10, 2},
                  {"DEEP", "DEEP", 3, 0x10, 0, 0, 0, 0, 30, 4},
                  {"LINK", "LINK", 7, 0, 0xE2, 0, 0, 4, 11, 5},
                  {"VOLUME", "VOLUME", 8, 8, 0, 0, 0, 0, 0, 6},
                  {"A long name with more.text", "ALONGN~1.TXT", 2, 0x20, 0, 0, 0, 0, 0, 12},
                  {"MARKED", "MARKED", 3, 0x10, 0xE2, 0, 0, 0, 31, 13}}));
}

TEST_P(NextEntry, EndsAtAnUnusedEntryAndOpensNothing) {
    ASSERT_GT(fat_create_file("/A long name.txt"), 0);
    ASSERT_GT(fat_create_file("/another name.txt"), 0);
    ASSERT_GE(fat_rm_entry("/A long name.txt"), 0);
    c.v.top.go_to(8);
    c.v.top.append(short_entry("AFTER   TXT"));
    const std::vector<int> ids = ids_in_use();
    const allocation_meter meter;
    EXPECT_EQ(c.names(0), std::vector<std::string>{"another name.txt"});
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(ids_in_use(), ids);
    EXPECT_EQ(sv->root_dir->readdir_pos, 0U);
}

TEST_P(NextEntry, OmitsTheBlankLabelOfANewVolume) {
    EXPECT_EQ(c.names(0), std::vector<std::string>());
    c.v.top.put(0, short_entry("NAMED      ", LABEL));
    EXPECT_EQ(c.names(0), std::vector<std::string>{"NAMED"});
}

TEST_P(NextEntry, EndsWithAFullDirectory) {
    directory dir = c.v.sub_directory({20, 22});
    const int did = c.v.open_new("SUB        ", {20, 22}, 0, DIRECTORY);
    dir.fill_up(short_entry("FILE    TXT"));
    const std::vector<info_picture> all = c.list(did);
    ASSERT_EQ(all.size(), dir.capacity());
    EXPECT_EQ(all.back().index, dir.capacity() - 1);
    for (const u32 at : {dir.capacity(), dir.capacity() + 1, 0x07FFFFFFU, 0x08000000U, 0x08000001U,
                         0x10000000U, 0xFFFFFFFFU}) {
        u32 index = at;
        EXPECT_EQ(c.next(did, &index), std::nullopt) << at;
    }
}

TEST_P(NextEntry, HasNothingInADirectoryWithoutCluster) {
    const int did = c.v.open_new("SUB        ", {}, 0, DIRECTORY);
    EXPECT_EQ(c.names(did), std::vector<std::string>());
}

TEST_P(NextEntry, ContinuesAtTheIndexOfTheCaller) {
    c.v.top.append(short_entry("A          "));
    c.v.top.append_long(u"A long name.txt", DOS);
    c.v.top.append(short_entry("B          "));
    u32 index = 0;
    EXPECT_EQ(c.next(0, &index)->name, "A");
    EXPECT_EQ(index, 2U);
    EXPECT_EQ(c.next(0, &index)->name, "A long name.txt");
    EXPECT_EQ(index, 5U);
    EXPECT_EQ(c.next(0, &index)->name, "B");
    EXPECT_EQ(index, 6U);
    EXPECT_EQ(c.next(0, &index), std::nullopt);
    index = 2;
    EXPECT_EQ(c.next(0, &index)->name, "A long name.txt");
    // In the middle of a name there is no whole name.
    index = 3;
    EXPECT_EQ(c.next(0, &index)->index, 4U);
    EXPECT_EQ(index, 5U);
}

TEST_P(NextEntry, ListsEntriesAddedMeanwhile) {
    c.v.top.append(short_entry("A          "));
    u32 index = 0;
    EXPECT_EQ(c.next(0, &index)->name, "A");
    EXPECT_EQ(c.next(0, &index), std::nullopt);
    c.v.top.append_long(u"A long name.txt", DOS);
    EXPECT_EQ(c.next(0, &index)->name, "A long name.txt");
    EXPECT_EQ(c.next(0, &index), std::nullopt);
    ASSERT_GT(fat_create_file("/another name.txt"), 0);
    EXPECT_EQ(c.next(0, &index)->name, "another name.txt");
    EXPECT_EQ(c.next(0, &index), std::nullopt);
}

TEST_P(NextEntry, ListsTheEntriesOfAGrownDirectory) {
    directory dir = c.v.sub_directory({20});
    const int did = c.v.open_new("SUB        ", {20}, 0, DIRECTORY);
    dir.append(short_entry(".          ", DIRECTORY, 20));
    dir.append(short_entry("..         ", DIRECTORY, 0));
    dir.fill_up(short_entry("FILE    TXT"));
    u32 index = dir.capacity() - 1;
    EXPECT_EQ(c.next(did, &index)->name, "FILE.TXT");
    EXPECT_EQ(c.next(did, &index), std::nullopt);
    ASSERT_EQ(fat_set_current(did), did);
    ASSERT_GT(fat_create_file("new.txt"), 0);
    const std::optional<info_picture> added = c.next(did, &index);
    ASSERT_TRUE(added.has_value());
    EXPECT_EQ(added->name, "new.txt");
    EXPECT_EQ(added->index, dir.capacity());
}

// ---- long names

TEST_P(NextEntry, GathersNamesOverSectorsAndClusters) {
    const u32 stride = runs_in_valgrind() ? 5 : 1;
    for (u32 before = 0; before < volume::entries_per_sector() + 2; before += stride) {
        for (std::size_t slots = 1; slots <= 20; slots += stride) {
            directory dir = c.v.sub_directory({20, 25, 21, 24});
            for (u32 i = 0; i < before; i++) {
                dir.append(deleted(short_entry("GONE    TXT")));
            }
            const std::u16string name(std::min<std::size_t>(slots * 13 - slots % 3, 255), u'n');
            const u32 index = dir.append_long(name, DOS);
            dir.append(entry_image{});
            const int did = c.v.open_new("SUB        ", {20, 25, 21, 24}, 0, DIRECTORY);
            const std::vector<info_picture> all = c.list(did);
            ASSERT_EQ(all.size(), 1U);
            EXPECT_EQ(all[0].name, std::string(name.size(), 'n'));
            EXPECT_EQ(all[0].index, index);
            fat_close(did);
            c.v.top.go_to(1);
        }
    }
}

TEST_P(NextEntry, TakesTheWholeNameAfterABrokenOne) {
    const unsigned sum = checksum_of(DOS);
    c.v.top.append(long_slot(0x42, u"broken", sum));
    c.v.top.append_long(u"whole", DOS);
    c.v.top.append(short_entry(DOS)); // and none for the next
    EXPECT_EQ(c.names(0), (std::vector<std::string>{"whole", "ALONGN~1.TXT"}));
}

TEST_P(NextEntry, GivesLongNamesOfDirectoriesAndLinks) {
    c.v.top.append(long_slots(u"A directory", "ADIREC~1   "));
    c.v.top.append(short_entry("ADIREC~1   ", DIRECTORY, 30));
    entry_image link = short_entry("ALINK~1    ", 0, 11, 4);
    link[13] = 0xE2;
    c.v.top.append(long_slots(u"A link", "ALINK~1    "));
    c.v.top.append(link);
    EXPECT_EQ(c.list(0),
              (std::vector<info_picture>{{"A directory", "ADIREC~1", 3, 0x10, 0, 0, 0, 0, 30, 2},
                                         {"A link", "ALINK~1", 7, 0, 0xE2, 0, 0, 4, 11, 4}}));
}

TEST_P(NextEntry, GivesShortNamesWhileLongNamesAreOff) {
    sv->long_name = 0;
    c.v.top.append_long(u"A long name.txt", DOS);
    entry_image small = short_entry("SMALL   TXT");
    small[12] = 0x08;
    c.v.top.append(small);
    EXPECT_EQ(c.names(0), (std::vector<std::string>{"ALONGN~1.TXT", "small.TXT"}));
}

TEST_P(NextEntry, GivesTheCaseBitsOfShortNamesOnly) {
    for (const auto &[bits, name] :
         std::initializer_list<std::pair<int, const char *>>{{0x00, "AB_1.TXT"},
                                                             {0x08, "ab_1.TXT"},
                                                             {0x10, "AB_1.txt"},
                                                             {0x18, "ab_1.txt"},
                                                             {0xE7, "AB_1.TXT"}}) {
        entry_image entry = short_entry("AB_1    TXT");
        entry[12] = static_cast<std::uint8_t>(bits);
        c.v.top.put(1, entry);
        const std::vector<info_picture> all = c.list(0);
        ASSERT_EQ(all.size(), 1U);
        EXPECT_EQ(all[0].name, name);
        EXPECT_EQ(all[0].short_name, "AB_1.TXT");
    }
}

TEST_P(NextEntry, GivesOddShortNamesNeverEmpty) {
    c.v.top.append(short_entry("           ", ARCHIVE));
    c.v.top.append(short_entry("        EXT", ARCHIVE));
    c.v.top.append(short_entry("\x05"
                               "BCDEFGHIJK",
                               ARCHIVE));
    c.v.top.append(short_entry("NOEXT      ", ARCHIVE));
    EXPECT_EQ(c.names(0), (std::vector<std::string>{"           ", ".EXT",
                                                    "\xE5"
                                                    "BCDEFGH.IJK",
                                                    "NOEXT"}));
    for (const info_picture &info : c.list(0)) {
        EXPECT_NE(info.name, "");
    }
}

// ---- encodings

TEST_P(NextEntry, GivesNamesOf255UnitsInUtf8) {
    ASSERT_EQ(fat_set_encoding("UTF-8"), 0);
    directory dir = c.v.sub_directory({20, 22, 24});
    const int did = c.v.open_new("SUB        ", {20, 22, 24}, 0, DIRECTORY);
    dir.append_long(std::u16string(255, u'\u4E2D'), DOS);
    dir.append_long(std::u16string(128, u'\u00E4'), "ALONGN~2TXT");
    std::string three_bytes;
    for (int i = 0; i < 255; i++) {
        three_bytes += "\xE4\xB8\xAD";
    }
    std::string two_bytes;
    for (int i = 0; i < 128; i++) {
        two_bytes += "\xC3\xA4";
    }
    ASSERT_EQ(three_bytes.size(), 765U);
    const std::vector<std::string> names = c.names(did);
    EXPECT_EQ(names, (std::vector<std::string>{three_bytes, two_bytes}));
}

TEST_P(NextEntry, ReturnsTheShortNameIfTheLongOneCannotBeConverted) {
    c.v.top.append_long(u"größer.txt", "GRER~1  TXT");
    c.v.top.append_long(u"\u4E2D\u6587.txt", "ZHONG~1 TXT");
    c.v.top.append_long(u"half \xD800 pair", "HALF~1     ");
    c.v.top.append_long(u"plain name.txt", "PLAINN~1TXT");
    // Without an encoding it is plain ASCII.
    EXPECT_EQ(c.names(0),
              (std::vector<std::string>{"GRER~1.TXT", "ZHONG~1.TXT", "HALF~1", "plain name.txt"}));
    ASSERT_EQ(fat_set_encoding("ISO-8859-1"), 0);
    EXPECT_EQ(c.names(0), (std::vector<std::string>{"gr\xF6\xDF"
                                                    "er.txt",
                                                    "ZHONG~1.TXT", "HALF~1", "plain name.txt"}));
    ASSERT_EQ(fat_set_encoding("UTF-8"), 0);
    EXPECT_EQ(c.names(0), (std::vector<std::string>{"gr\xC3\xB6\xC3\x9F"
                                                    "er.txt",
                                                    "\xE4\xB8\xAD\xE6\x96\x87.txt", "HALF~1",
                                                    "plain name.txt"}));
}

TEST_P(NextEntry, RetainsAByteOrderMarkThatIsPartOfTheName) {
    ASSERT_EQ(fat_set_encoding("UTF-8"), 0);
    c.v.top.append_long(u"\uFEFFname", DOS);
    c.v.top.append_long(u"plain", "ALONGN~2TXT");
    const std::vector<std::string> names = c.names(0);
    ASSERT_EQ(names.size(), 2U);
    EXPECT_EQ(names[0].substr(names[0].size() - 4), "name");
    EXPECT_EQ(names[1], "plain");
}

// ---- random directories

TEST_P(NextEntry, AgreesWithTheReferenceListing) {
    std::mt19937 engine(4711);
    const auto below = [&](u32 n) { return static_cast<u32>(engine() % n); };
    const int rounds = runs_in_valgrind() ? 5 : 60;
    for (int round = 0; round < rounds; round++) {
        sv->long_name = round % 5 == 4 ? 0 : 1;
        const bool is_root = sv->fat_type == 16 && round % 3 == 0;
        std::vector<u32> clusters = {20, 25, 22, 30, 21};
        clusters.resize(1 + below(5));
        directory made = c.v.sub_directory(clusters);
        directory root = c.v.root();
        directory &dir = is_root ? root : made;
        c.v.top.go_to(1);
        const int did = is_root ? 0 : c.v.open_new("SUB        ", clusters, 0, DIRECTORY);
        for (u32 i = 0; i < dir.capacity(); i++) {
            dir.put(i, entry_image{});
        }
        const u32 end = std::min(below(3) == 0 ? below(dir.capacity()) + 1 : dir.capacity(), 400U);
        u32 used = 0;
        const auto add = [&](const entry_image &entry) {
            if (used < end) {
                dir.put(used++, entry);
            }
        };
        while (used < end) {
            std::string dos = "F" + std::to_string(1000000 + below(8999999)) + "TXT";
            if (below(4) == 0) {
                dos.replace(below(8), 1, " ");
            }
            entry_image entry =
                short_entry(dos, ARCHIVE, static_cast<u32>(engine()), static_cast<u32>(engine()));
            for (const std::size_t place : {12, 13, 22, 23, 24, 25}) {
                entry[place] = static_cast<std::uint8_t>(engine());
            }
            if (below(5) == 0) {
                entry[13] = 0xE2;
            }
            if (dos[0] == ' ') {
                entry[0] = 0x05;
                dos[0] = 0x05;
            }
            std::u16string name;
            for (u32 n = 1 + below(80); n > 0; n--) {
                name += static_cast<char16_t>(below(100) == 0 ? 0xE4 : u'a' + below(26));
            }
            std::vector<entry_image> slots = long_slots(name, dos);
            switch (below(16)) {
            case 0:
                add(deleted(entry));
                break;
            case 1:
                add(short_entry("           ", LABEL));
                break;
            case 2:
                add(short_entry("INVALID    ", LABEL | DIRECTORY));
                break;
            case 3: // slots with nothing after them
                break;
            case 4:
                slots[below(static_cast<u32>(slots.size()))][below(2) == 0 ? 0 : 13] ^=
                    static_cast<std::uint8_t>(1 << below(6));
                break;
            case 5:
                slots.erase(slots.begin() + below(static_cast<u32>(slots.size())));
                break;
            case 6:
                entry[11] = DIRECTORY;
                break;
            case 7:
            case 8:
                slots.clear();
                break;
            default:
                break;
            }
            const bool is_orphan = below(12) == 0;
            for (const entry_image &slot : slots) {
                add(slot);
            }
            if (!is_orphan) {
                add(entry);
            }
        }
        ASSERT_EQ(c.list(did), expected_listing(dir)) << "in round " << round;
        if (!is_root) {
            fat_close(did);
        }
    }
}

// ---- failures

TEST_P(NextEntry, RefusesAnEntryThatIsNotADirectory) {
    EXPECT_EQ(c.failed(c.v.open_new("FILE    TXT", {10}, 5)), -ENOTDIR);
    EXPECT_EQ(c.failed(c.v.open_new("EMPTY      ", {}, 0)), -ENOTDIR);
}

TEST_P(NextEntry, FailsOrSucceedsWithEveryFailingReadAndAllocation) {
    directory dir = c.v.sub_directory({20, 22});
    const int did = c.v.open_new("SUB        ", {20, 22}, 0, DIRECTORY);
    for (u32 i = 0; i + 1 < volume::entries_per_cluster(); i++) {
        dir.append(deleted(short_entry("GONE    TXT")));
    }
    dir.append_long(u"over the end of a cluster", DOS);
    int failures = 0;
    at_every_fault({EVERY_READ, EVERY_ALLOCATION}, [&](fault_step &step) {
        fat_entry_info info;
        u32 index = 0;
        failures = step.k == 0 ? 0 : failures;
        const int result = step.run([&] { return fat_next_entry(did, &index, &info); });
        if (result < 0) {
            failures++;
            EXPECT_TRUE(step.struck());
            // A failed read of the FAT makes a broken directory of it.
            EXPECT_TRUE(result == (step.is(fault::read) ? -EIO : -ENOMEM) || result == -EINVAL)
                << result;
            EXPECT_EQ(index, 0U);
            return;
        }
        // Sectors that cannot be read together are read one by one.
        EXPECT_EQ(result, 1);
        EXPECT_STREQ(info.name, "over the end of a cluster");
        // The first sector and the link after it, or their buffers, are missing.
        EXPECT_TRUE(step.struck() || failures >= 2);
    });
    EXPECT_EQ(c.messages.text(), "");
}

TEST(NextEntryTest, EndsAfterTheRootDirectoryOfAnySize) {
    for (const auto &[shape, count] : {std::pair{volume_shape{}, 512U},
                                       {volume_shape{.root_entries = 32}, 32U},
                                       {volume_shape{.fat_type = 32}, 48U}}) {
        entries_case c(shape);
        directory root = shape.fat_type == 32 ? c.v.longer_root({30, 31}) : c.v.root();
        ASSERT_EQ(open_root_directory(), 0);
        root.fill_up(short_entry("FILE    TXT"));
        EXPECT_EQ(c.names(0).size(), count);
    }
}

// ---- fat_info_of ------------------------------------------------------------------------------

class InfoOf : public testing::TestWithParam<volume_shape> {
protected:
    InfoOf() : c(GetParam()) {}
    entries_case c;
};
INSTANTIATE_TEST_SUITE_P(
    Shapes, InfoOf,
    testing::Values(volume_shape{.fat_type = 16},
                    volume_shape{.fat_type = 32, .sector_size = 1024, .sec_per_clus = 2}),
    shape_name);

TEST_P(InfoOf, MatchesTheListing) {
    directory dir = c.v.sub_directory({20, 22, 24});
    const int did = c.v.open_new("SUB        ", {20, 22, 24}, 0, DIRECTORY);
    dir.append(short_entry(".          ", DIRECTORY, 20));
    dir.append(short_entry("..         ", DIRECTORY, 0));
    entry_image entry = short_entry("FILE    TXT", ARCHIVE, 0, 5);
    for (const std::size_t place : {12, 13, 22, 23, 24, 25}) {
        entry[place] = static_cast<std::uint8_t>(0x90 + place);
    }
    dir.append(entry);
    dir.append_long(u"A long name with more.text", DOS);
    entry_image link = short_entry("LINK       ", 0, 0, 4);
    link[13] = 0xE2;
    dir.append(link);
    dir.append(long_slot(0x41, u"wrong", 7));
    dir.append(short_entry("WRONG      "));
    dir.append(deleted(short_entry("GONE       ")));
    for (u32 i = 0; i < 40; i++) {
        dir.append_long(u"name number " + std::u16string(1, static_cast<char16_t>(u'0' + i % 10)),
                        "NAME~" + std::to_string(10 + i) + " TXT");
        if (dir.capacity() < 20 + 2 * i) {
            break;
        }
    }
    ASSERT_EQ(fat_set_current(did), did);
    u32 listed = 0;
    for (const info_picture &expected : c.list(did)) {
        if (expected.name == "..") {
            continue;
        }
        const int id = fat_entry_open(&mounted::record(did), expected.index);
        ASSERT_GT(id, 0);
        EXPECT_EQ(c.info_of(id), expected);
        fat_close(id);
        listed++;
    }
    EXPECT_GT(listed, 20U);
    // And of the directory itself, in the root.
    EXPECT_EQ(c.info_of(did), (info_picture{"SUB", "SUB", 3, 0x10, 0, 0, 0, 0, 20, 1}));
}

TEST_P(InfoOf, CallsTheRootASlash) {
    const info_picture root = c.info_of(0);
    EXPECT_EQ(root.name, "/");
    EXPECT_EQ(root.short_name, "");
    EXPECT_EQ(root.type, 3U);
    EXPECT_EQ(root.index, 0U);
    EXPECT_EQ(root.size, 0U);
    EXPECT_EQ(root.start, sv->fat_type == 32 ? sv->root_clus : 0);
}

TEST_P(InfoOf, HasTheFieldsOfTheCopyAndTheNameOfTheMedium) {
    c.v.top.append_long(u"A long name.txt", DOS);
    const int id = c.v.open(3);
    ASSERT_EQ(fat_set_cluster(id, 0x12345), 0);
    ASSERT_EQ(fat_set_sysid(id, 0x18), 0);
    ASSERT_EQ(fat_set_cmsec(id, 0xE2), 0);
    u8 *copy = mounted::record(id).dentry;
    copy[11] = READ_ONLY;
    copy[22] = 1;
    copy[24] = 2;
    copy[28] = 3;
    EXPECT_EQ(c.info_of(id),
              (info_picture{"A long name.txt", "ALONGN~1.TXT", 7, 1, 0xE2, 1, 2, 3, 0x12345, 3}));
    // The medium has another long name by now, then none.
    c.v.top.put(2, long_slots(u"Renamed.txt", DOS)[0]);
    EXPECT_EQ(c.info_of(id).name, "Renamed.txt");
    EXPECT_EQ(c.info_of(id).index, 3U);
    c.v.top.put(2, deleted(short_entry(DOS)));
    EXPECT_EQ(c.info_of(id).name, "ALONGN~1.TXT");
}

TEST_P(InfoOf, DoesNotFindAnEntryWhoseChainRunsIntoAFreeOne) {
    // Such a record has no image, like that of the root.
    const int id = c.v.open_new("CUT     TXT", {}, 5);
    oentry &record = mounted::record(id);
    std::free(record.dentry);
    record.dentry = nullptr;
    fat_entry_info info = {};
    EXPECT_EQ(fat_info_of(id, &info), -ENOENT);
    EXPECT_EQ(info.name[0], '\0');
}

TEST_P(InfoOf, IncludesWrittenChanges) {
    const int id = fat_create_file("/A long name.txt");
    ASSERT_GT(id, 0);
    EXPECT_EQ(c.info_of(id).size, 0U);
    EXPECT_EQ(c.info_of(id).start, 0U);
    ASSERT_EQ(fat_write_file(id, "abc", 3), 3);
    const info_picture info = c.info_of(id);
    EXPECT_EQ(info.name, "A long name.txt");
    EXPECT_EQ(info.size, 3U);
    EXPECT_EQ(info.start, mounted::record(id).start);
}

TEST_P(InfoOf, ReportsARemovedEntry) {
    const int id = fat_create_file("/A long name.txt");
    ASSERT_GT(id, 0);
    ASSERT_GE(fat_rm_entry("/A long name.txt"), 0);
    EXPECT_EQ(c.info_error(id), -ENOENT);
    // Another entry, which is not the same, takes its position.
    c.v.top.go_to(1);
    const int other = c.v.open_new("OTHER      ", {}, 0);
    EXPECT_EQ(c.info_of(other).index, 1U);
    c.v.top.put(1, short_entry("ANOTHER    "));
    EXPECT_EQ(c.info_error(other), -ENOENT);
    c.v.top.put(1, short_entry("OTHER      "));
    EXPECT_EQ(c.info_of(other).index, 1U);
    c.v.top.put(1, entry_image{});
    EXPECT_EQ(c.info_error(other), -ENOENT);
}

TEST_P(InfoOf, FailsWithAParentThatCannotBeReadOrIsBroken) {
    const int in_root = c.v.open_new("FILE    TXT", {10}, 5);
    c.v.disk.unreadable = {c.v.top.offset_of(1) / sv->sector_size};
    EXPECT_EQ(c.info_error(in_root), -EIO);
    c.v.disk.unreadable.clear();
    directory dir = c.v.sub_directory({20, 22, 24});
    const int did = c.v.open_new("SUB        ", {20, 22, 24}, 0, DIRECTORY);
    dir.fill_up(short_entry("FILE    TXT"));
    const u32 index = 2 * volume::entries_per_cluster() + 3;
    const int id = fat_entry_open(&mounted::record(did), index);
    ASSERT_GT(id, 0);
    EXPECT_EQ(c.info_of(id).index, index);
    c.v.disk.unreadable = {volume::first_sector_of(24)};
    EXPECT_EQ(c.info_error(id), -EIO);
    c.v.disk.unreadable.clear();
    for (const u32 link : {0U, 1U, 20U, 22U}) {
        c.v.set_link(22, link);
        EXPECT_EQ(c.info_error(id), -EINVAL) << link;
    }
}

TEST_P(InfoOf, RetainsNothingWithEveryFailingReadAndAllocation) {
    c.v.top.append_long(u"A long name.txt", DOS);
    const int id = c.v.open(3);
    at_every_fault({EVERY_READ, EVERY_ALLOCATION}, [&](fault_step &step) {
        fat_entry_info info;
        const int result = step.run([&] { return fat_info_of(id, &info); });
        EXPECT_EQ(result, !step.struck() ? 0 : step.is(fault::read) ? -EIO : -ENOMEM);
    });
    EXPECT_EQ(c.messages.text(), "");
}

} // namespace
