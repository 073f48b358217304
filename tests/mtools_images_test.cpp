// Directories that mtools wrote, on volumes that mkfs.fat made: read back name by name. The
// expected result is the listing of mtools itself.

#include "fat/internal.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

using names = std::vector<std::string>;

constexpr unsigned FAT16_KIB = 4096;
constexpr unsigned FAT32_KIB = 40960;

// Of the root directory, in the order of their making; each file holds its own name.
const names ROOT_NAMES = {
    "PLAIN.TXT",
    "lower.txt",
    "Mixed.txt",
    "a long name.txt",
    "Thirteen char",
    "Thirteen characters twice!",
    "Gr\xC3\xBC\xC3\x9F"
    "e aus K\xC3\xB6ln.txt",
    "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E.txt",
    "to be orphaned.txt",
    "README",
    "noext",
    "UPPER.ext",
    "a+b.txt",
    ".profile",
    "two.dots.txt",
    "trailing number 1.txt",
    "trailing number 2.txt",
};
const std::string LONGEST = std::string(251, 'n') + ".txt";

// A name that fits 8.3 byte by byte and is therefore searched for as a short one.
const std::string SHORT_BUT_NOT_ASCII = "\xE6\x97\xA5\xE6\x9C\xAC.txt";

// A name that mtools stores without a change; a search cuts off trailing dots.
const std::string ENDS_WITH_A_DOT = "ends with a dot.";

std::string file_number(int i) {
    std::array<char, 32> text = {};
    std::snprintf(text.data(), text.size(), "File number %03d.txt", i);
    return text.data();
}

// The images, made once and copied for each case.
class workshop {
public:
    explicit workshop(unsigned width) : image_(scratch_.file("fixture.img")) {
        make(width);
    }
    [[nodiscard]] const std::string &image() const {
        return image_;
    }
    // The errors, or empty.
    [[nodiscard]] const std::string &complaint() const {
        return complaint_;
    }

private:
    void must(const std::string &command, const names &arguments) {
        const outcome result =
            shell("export MTOOLS_SKIP_CHECK=1 LC_ALL=C.UTF-8; " + command, arguments);
        if (result.status != 0) {
            complaint_ += command + ": " + result.err;
        }
    }
    std::string directory_of_files(const std::string &name, const names &files) {
        const std::string path = scratch_.file(name);
        std::filesystem::create_directory(path);
        for (const std::string &file : files) {
            std::ofstream(path + "/" + file, std::ios::binary) << file;
        }
        return path;
    }
    // Copies the files in the order of the list.
    void copy(const std::string &from, const names &files, const std::string &to) {
        names arguments = {image_, to, from};
        arguments.insert(arguments.end(), files.begin(), files.end());
        must("i=$1 to=$2 && cd \"$3\" && shift 3 && mcopy -i \"$i\" \"$@\" \"$to\"", arguments);
    }
    void make(unsigned width) {
        must("mkfs.fat -C -F \"$1\" -s 1 -S 512 -n FIXTURE -i 20240229 \"$2\" \"$3\"",
             {std::to_string(width), image_, std::to_string(width == 16 ? FAT16_KIB : FAT32_KIB)});
        names root = ROOT_NAMES;
        root.push_back(LONGEST);
        root.push_back(SHORT_BUT_NOT_ASCII);
        root.push_back(ENDS_WITH_A_DOT);
        copy(directory_of_files("root", root), root, "::/");
        must("mmd -i \"$1\" '::/Sub Directory'", {image_});
        names many;
        for (int i = 1; i <= 60; i++) {
            many.push_back(file_number(i));
        }
        copy(directory_of_files("many", many), many, "::/Sub Directory");
        names gone = {image_};
        for (int i = 3; i <= 60; i += 3) {
            gone.push_back("::/Sub Directory/" + file_number(i));
        }
        must("i=$1 && shift && mdel -i \"$i\" \"$@\"", gone);
        must("mren -i \"$1\" '::/Sub Directory/File number 002.txt' "
             "'::/Sub Directory/Renamed to something much longer than before.txt'",
             {image_});
        const names late = {"Late one.txt", "LATE2.TXT", "A late one with a rather long name.txt"};
        copy(directory_of_files("late", late), late, "::/Sub Directory");
    }

    scratch_directory scratch_;
    std::string image_;
    std::string complaint_;
};

std::unique_ptr<workshop> workshops[2];

// A name as a listing shows it, and where its short entry is.
struct shown {
    u32 index;
    std::string name;
    std::string short_name;
    u32 start;
    bool is_directory;
};

class MtoolsImages : public testing::TestWithParam<unsigned> {
protected:
    static void TearDownTestSuite() {
        for (auto &shop : workshops) {
            shop.reset();
        }
    }
    void SetUp() override {
        for (const char *program : {"mkfs.fat", "mcopy", "mmd", "mdel", "mren", "mdir"}) {
            if (!has_program(program)) {
                GTEST_SKIP() << program << " is not installed";
            }
        }
        std::unique_ptr<workshop> &shop = workshops[GetParam() == 16 ? 0 : 1];
        if (shop == nullptr) {
            shop = std::make_unique<workshop>(GetParam());
        }
        ASSERT_EQ(shop->complaint(), "");
        image_ = scratch_.file("copy.img");
        std::filesystem::copy_file(shop->image(), image_);
        ASSERT_GT(fat_open_volume(image_.c_str(), 1, 0), 0);
        take_geometry();
        messages.clear();
    }
    void TearDown() override {
        if (sv != nullptr) {
            fat_close_volume(0);
        }
    }

    // -- the volume

    [[nodiscard]] u32 number_at(u64 offset, u32 size) const {
        u32 value = 0;
        const bytes content = read_range(image_, offset, size);
        for (std::size_t i = content.size(); i-- > 0;) {
            value = value << 8 | content[i];
        }
        return value;
    }
    void take_geometry() {
        const u32 reserved = number_at(14, 2);
        const u32 fats = number_at(16, 1);
        sv->sector_size = number_at(11, 2);
        sv->sec_per_clus = number_at(13, 1);
        sv->fat_type = GetParam();
        sv->fat_size = GetParam() == 16 ? number_at(22, 2) : number_at(36, 4);
        sv->total_sectors = number_at(19, 2) != 0 ? number_at(19, 2) : number_at(32, 4);
        sv->fat_start = reserved;
        const u32 behind_fats = reserved + fats * sv->fat_size;
        sv->data_start = behind_fats + number_at(17, 2) * 32 / sv->sector_size;
        sv->num_clusters = (sv->total_sectors - sv->data_start) / sv->sec_per_clus;
        sv->root_clus = GetParam() == 16 ? 0 : number_at(44, 4);
        sv->rdir_start = GetParam() == 16 ? behind_fats : sv->data_start;
    }
    void poke(u32 sector, u32 offset, const bytes &content) {
        std::fstream file(image_, std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(static_cast<std::streamoff>(u64{sector} * sv->sector_size + offset));
        file.write(reinterpret_cast<const char *>(content.data()),
                   static_cast<std::streamsize>(content.size()));
    }

    // -- directories

    [[nodiscard]] u32 chain_length(u32 cluster) const {
        u32 length = 0;
        while (cluster >= 2 && cluster < sv->num_clusters + 2) {
            const u64 fat = u64{sv->fat_start} * sv->sector_size;
            cluster = number_at(fat + u64{cluster} * (GetParam() / 8), GetParam() / 8);
            length++;
        }
        return length;
    }
    oentry root() const {
        oentry result = {};
        result.ref_count = 1;
        result.start = GetParam() == 16 ? sv->rdir_start : sv->root_clus;
        result.allocated = GetParam() == 16 ? 16384 : chain_length(sv->root_clus) * 512;
        return result;
    }
    oentry sub_directory() {
        oentry in = root();
        for (const shown &entry : list(&in)) {
            if (entry.name == "Sub Directory") {
                oentry result = {};
                result.ref_count = 1;
                result.start = entry.start;
                result.allocated = chain_length(entry.start) * 512;
                result.dentry = own_dentry_;
                return result;
            }
        }
        ADD_FAILURE() << "the sub-directory is not there";
        return {};
    }

    // Shows the directory like a listing: long names where they are whole, else the short
    // ones.
    std::vector<shown> list(oentry *dir) {
        std::vector<shown> result;
        std::vector<u8> buffer(sv->sector_size);
        for (u32 i = 0;; i++) {
            u8 *entry = nullptr;
            if (i >= dir->allocated / 32 ||
                fat_get_dentry(dir, i, &entry, buffer.data(), nullptr) != 0) {
                return result;
            }
            std::string name;
            if (entry_type(entry) == DENTRY_LFN && (entry[0] & 0x40) != 0) {
                std::array<u16, 260> units = {};
                std::array<char, 256> text = {};
                const int slots = get_long_name(dir, i, &entry, buffer.data(), units.data());
                if (slots <= 0) {
                    continue;
                }
                i += static_cast<u32>(slots);
                EXPECT_GT(convert_uname_to_cstring(units.data(), text.data()), 0);
                name = text.data();
            }
            const u32 type = entry_type(entry);
            if (type == DENTRY_UNUSED) {
                return result;
            }
            if (type == DENTRY_FILE || type == DENTRY_DIR) {
                result.push_back(show(i, entry, name));
            }
        }
    }
    static shown show(u32 index, const u8 *entry, const std::string &long_name) {
        char text[13] = {};
        EXPECT_EQ(convert_dosname_to_cstring(entry, text, entry[12]), 0);
        const u32 start = entry[26] + 256U * entry[27] + 65536U * (entry[20] + 256U * entry[21]);
        return {index, long_name.empty() ? text : long_name, std::string(entry, entry + 11), start,
                (entry[11] & 0x10) != 0};
    }
    static names names_of(const std::vector<shown> &entries) {
        names result;
        for (const shown &entry : entries) {
            if (entry.name != "." && entry.name != "..") {
                result.push_back(entry.name);
            }
        }
        return result;
    }
    static u32 index_of(const std::vector<shown> &entries, const std::string &name) {
        for (const shown &entry : entries) {
            if (entry.name == name) {
                return entry.index;
            }
        }
        ADD_FAILURE() << name << " is not listed";
        return 0;
    }
    // The position of entry `index`.
    static dentry_location place_of(oentry *dir, u32 index) {
        std::vector<u8> buffer(sv->sector_size);
        u8 *entry = nullptr;
        dentry_location result = {};
        EXPECT_EQ(fat_get_dentry(dir, index, &entry, buffer.data(), &result), 0);
        return result;
    }

    // -- the listing of mtools

    [[nodiscard]] names listed_by_mdir(const std::string &path) const {
        const std::string prefix = "::" + path;
        const outcome result =
            shell("MTOOLS_SKIP_CHECK=1 LC_ALL=C.UTF-8 mdir -b -i \"$1\" \"$2\"", {image_, prefix});
        EXPECT_EQ(result.status, 0) << result.err;
        names lines;
        std::string rest = result.out;
        for (std::size_t end = rest.find('\n'); end != std::string::npos; end = rest.find('\n')) {
            std::string line = rest.substr(0, end);
            rest.erase(0, end + 1);
            EXPECT_EQ(line.compare(0, prefix.size(), prefix), 0) << line;
            line.erase(0, prefix.size());
            if (!line.empty() && line.back() == '/') {
                line.pop_back();
            }
            lines.push_back(line);
        }
        return lines;
    }

    // -- lookups

    int find(oentry *dir, std::string name) {
        return fat_find_dentry(dir, name.data(), nullptr);
    }
    void expect_found(oentry *dir, const std::string &name, u32 index) {
        messages.clear();
        EXPECT_EQ(find(dir, name), static_cast<int>(index)) << name;
        const u32 base = dir->dentry == nullptr && GetParam() == 16 ? 0 : dir->start;
        EXPECT_EQ(messages.text(), "find_dentry_with_clu[N]: found index:(" + std::to_string(base) +
                                       ", " + std::to_string(index) + ")\n");
        messages.clear();
    }
    // The file of this name is the one that was written with this content.
    void expect_content(const shown &entry, const std::string &content) const {
        const u64 offset = u64{fat_sector(entry.start)} * sv->sector_size;
        const bytes is = read_range(image_, offset, content.size());
        EXPECT_EQ(std::string(is.begin(), is.end()), content);
    }

    diagnostics messages;

private:
    scratch_directory scratch_;
    std::string image_;
    u8 own_dentry_[32] = {};
};
INSTANTIATE_TEST_SUITE_P(Width, MtoolsImages, testing::Values(16U, 32U));

// Ends the case where the system has no conversion modules.
#define NEED_ENCODING(charset)                                                                     \
    if (fat_set_encoding(charset) != 0) {                                                          \
        GTEST_SKIP() << "this system cannot convert " << (charset);                                \
    }                                                                                              \
    messages.clear()

} // namespace

TEST_P(MtoolsImages, EveryNameOfTheRootIsFoundAndLeadsToItsFile) {
    NEED_ENCODING("UTF-8");
    oentry dir = root();
    const std::vector<shown> entries = list(&dir);
    for (const std::string &name : ROOT_NAMES) {
        const u32 index = index_of(entries, name);
        expect_found(&dir, name, index);
        for (const shown &entry : entries) {
            if (entry.index == index) {
                expect_content(entry, name);
            }
        }
    }
}

TEST_P(MtoolsImages, ListingShowsTheWrittenFilesLikeMtools) {
    NEED_ENCODING("UTF-8");
    oentry dir = root();
    names expected = ROOT_NAMES;
    expected.push_back(LONGEST);
    expected.push_back(SHORT_BUT_NOT_ASCII);
    expected.push_back(ENDS_WITH_A_DOT);
    expected.emplace_back("Sub Directory");
    EXPECT_EQ(names_of(list(&dir)), expected);
    EXPECT_EQ(messages.text(), "");
    EXPECT_EQ(listed_by_mdir("/"), expected);
}

TEST_P(MtoolsImages, AsciiNamesNeedNoEncoding) {
    oentry dir = root();
    const std::vector<shown> entries = list(&dir);
    for (const std::string &name : ROOT_NAMES) {
        const bool is_ascii = std::all_of(
            name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
        if (is_ascii) {
            expect_found(&dir, name, index_of(entries, name));
        } else {
            messages.clear();
            EXPECT_EQ(find(&dir, name), -EINVAL);
            EXPECT_EQ(messages.text(), "convert_cstring_to_uname[N]: cannot convert non-ascii\n"
                                       "convert_name[N]: Failed to convert ...!\n\n"
                                       "find_dentry_with_clu[N]: Failed to get fatnames!\n\n");
        }
    }
    // Units that are not ASCII are shown as question marks.
    EXPECT_NE(index_of(entries, "Gr??e aus K?ln.txt"), 0U);
}

TEST_P(MtoolsImages, NamesAreFoundInTheEncodingOfTheirCaller) {
    NEED_ENCODING("ISO-8859-1");
    oentry dir = root();
    const std::string name = "Gr\xFC\xDF"
                             "e aus K\xF6ln.txt";
    std::vector<u8> buffer(512);
    const int index = find(&dir, name);
    ASSERT_GT(index, 0);
    u8 *entry = nullptr;
    ASSERT_EQ(fat_get_dentry(&dir, static_cast<u32>(index) - 2, &entry, buffer.data(), nullptr), 0);
    std::array<u16, 256> units = {};
    std::array<char, 256> text = {};
    EXPECT_EQ(get_long_name(&dir, static_cast<u32>(index) - 2, &entry, buffer.data(), units.data()),
              2);
    EXPECT_EQ(convert_uname_to_cstring(units.data(), text.data()), static_cast<int>(name.size()));
    EXPECT_EQ(text.data(), name);
    EXPECT_EQ(find(&dir, "Gr\xC3\xBC\xC3\x9F"
                         "e aus K\xC3\xB6ln.txt"),
              -ENOENT);
}

TEST_P(MtoolsImages, LongestNameIsFoundWithoutAnEncoding) {
    oentry dir = root();
    expect_found(&dir, LONGEST, index_of(list(&dir), LONGEST));
}

TEST_P(MtoolsImages, LongestNameIsTooLongForAnEncoding) {
    NEED_ENCODING("UTF-8");
    oentry dir = root();
    EXPECT_EQ(find(&dir, LONGEST), -EINVAL);
    EXPECT_EQ(messages.text().rfind("convert_cstring_to_uname[N]: Failed to convert: n", 0), 0U);
}

TEST_P(MtoolsImages, NameThatFitsItsElevenBytesIsLookedForAsAShortOne) {
    NEED_ENCODING("UTF-8");
    oentry dir = root();
    EXPECT_NE(index_of(list(&dir), SHORT_BUT_NOT_ASCII), 0U);
    EXPECT_EQ(find(&dir, SHORT_BUT_NOT_ASCII), -ENOENT);
}

TEST_P(MtoolsImages, StoredNameThatEndsWithADotIsOutOfReach) {
    oentry dir = root();
    EXPECT_NE(index_of(list(&dir), ENDS_WITH_A_DOT), 0U);
    EXPECT_EQ(find(&dir, ENDS_WITH_A_DOT), -ENOENT);
}

TEST_P(MtoolsImages, OtherCaseIsAnotherName) {
    oentry dir = root();
    const std::vector<shown> entries = list(&dir);
    expect_found(&dir, "plain.txt", index_of(entries, "PLAIN.TXT"));
    expect_found(&dir, "LOWER.TXT", index_of(entries, "lower.txt"));
    for (const char *name : {"Plain.txt", "A long name.txt", "A LONG NAME.TXT", "Two.Dots.txt",
                             "TWO.DOTS.TXT", "Noext", "A+B.TXT"}) {
        EXPECT_EQ(find(&dir, name), -ENOENT) << name;
    }
}

TEST_P(MtoolsImages, EveryShortNameIsFoundByItsBytes) {
    oentry dir = root();
    for (const shown &entry : list(&dir)) {
        const std::string base = entry.short_name.substr(0, entry.short_name.find(' '));
        const std::string extension = entry.short_name.substr(8);
        const std::string name = base.substr(0, 8) + "." + extension;
        if (extension != "   ") {
            expect_found(&dir, name, entry.index);
        }
    }
}

// ---- a directory of several clusters with deleted entries in it -------------------------------

TEST_P(MtoolsImages, SurvivorsOfADirectoryAreFound) {
    oentry dir = sub_directory();
    const std::vector<shown> entries = list(&dir);
    ASSERT_GE(dir.allocated, 8 * 512U);
    names expected;
    for (int i = 1; i <= 60; i++) {
        if (i % 3 != 0 && i != 2) {
            expected.push_back(file_number(i));
        }
    }
    for (const char *name : {"Renamed to something much longer than before.txt", "Late one.txt",
                             "LATE2.TXT", "A late one with a rather long name.txt"}) {
        expected.emplace_back(name);
    }
    for (const std::string &name : expected) {
        expect_found(&dir, name, index_of(entries, name));
    }
    names listed = names_of(entries);
    EXPECT_EQ(listed, listed_by_mdir("/Sub Directory/"));
    std::sort(listed.begin(), listed.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(listed, expected);
}

TEST_P(MtoolsImages, DeletedNamesAreNotFound) {
    oentry dir = sub_directory();
    for (int i = 3; i <= 60; i += 3) {
        EXPECT_EQ(find(&dir, file_number(i)), -ENOENT);
    }
    EXPECT_EQ(find(&dir, file_number(2)), -ENOENT);
    EXPECT_EQ(find(&dir, file_number(61)), -ENOENT);
}

TEST_P(MtoolsImages, DotEntriesOfADirectoryAreFound) {
    oentry dir = sub_directory();
    expect_found(&dir, ".", 0);
    expect_found(&dir, "..", 1);
}

TEST_P(MtoolsImages, NextNumericTailIsTheLowestUnused) {
    oentry dir = sub_directory();
    std::set<std::string> taken;
    for (const shown &entry : list(&dir)) {
        taken.insert(entry.short_name);
    }
    u8 dos[] = "FILENUMBTXT";
    ASSERT_EQ(add_numeric_tail(&dir, dos), 0);
    for (int number = 1;; number++) {
        std::string candidate = "FILENUMB";
        const std::string tail = "~" + std::to_string(number);
        candidate.replace(8 - tail.size(), tail.size(), tail);
        candidate += "TXT";
        if (!taken.contains(candidate)) {
            EXPECT_EQ(reinterpret_cast<char *>(dos), candidate);
            EXPECT_GT(number, 1);
            break;
        }
    }
}

// ---- damage -----------------------------------------------------------------------------------

TEST_P(MtoolsImages, OrphanedSlotsDoNotHideTheNextName) {
    oentry dir = root();
    const std::vector<shown> before = list(&dir);
    const u32 index = index_of(before, "to be orphaned.txt");
    const dentry_location place = place_of(&dir, index);
    poke(place.sector, place.offset, {0xE5});
    EXPECT_EQ(find(&dir, "to be orphaned.txt"), -ENOENT);
    expect_found(&dir, "README", index + 1);
    expect_found(&dir, "a+b.txt", index_of(before, "a+b.txt"));
    names expected = names_of(before);
    expected.erase(std::find(expected.begin(), expected.end(), "to be orphaned.txt"));
    EXPECT_EQ(names_of(list(&dir)), expected);
}

TEST_P(MtoolsImages, OrphanedSlotsBeforeAnotherShortEntryAreTakenForItsName) {
    oentry dir = root();
    const u32 index = index_of(list(&dir), "to be orphaned.txt");
    // README moves up after the slots.
    const dentry_location place = place_of(&dir, index);
    const std::string name = "README     ";
    poke(place.sector, place.offset, {name.begin(), name.end()});
    expect_found(&dir, "to be orphaned.txt", index);
    expect_found(&dir, "README", index);
    // Assembling the name checks the checksum.
    messages.clear();
    const std::vector<shown> after = list(&dir);
    EXPECT_EQ(messages.text(),
              "get_long_name[N]: not match checksum(" + std::to_string(index) + ")\n");
    const names listed = names_of(after);
    EXPECT_EQ(std::count(listed.begin(), listed.end(), "to be orphaned.txt"), 0);
    EXPECT_EQ(std::count(listed.begin(), listed.end(), "README"), 2);
}

TEST_P(MtoolsImages, WrongChecksumHidesTheNameFromListingsOnly) {
    oentry dir = root();
    const u32 index = index_of(list(&dir), "a long name.txt");
    const dentry_location first = place_of(&dir, index - 1);
    poke(first.sector, first.offset + 13, {0});
    expect_found(&dir, "a long name.txt", index);
    messages.clear();
    const names listed = names_of(list(&dir));
    EXPECT_EQ(messages.text(),
              "get_long_name[N]: not match checksum(" + std::to_string(index - 1) + ")\n");
    EXPECT_EQ(std::count(listed.begin(), listed.end(), "a long name.txt"), 0);
    EXPECT_EQ(std::count(listed.begin(), listed.end(), "ALONGN~1.TXT"), 1);
    const names by_mtools = listed_by_mdir("/");
    EXPECT_EQ(std::count(by_mtools.begin(), by_mtools.end(), "ALONGN~1.TXT"), 1);
}

TEST_P(MtoolsImages, SlotsInOddOrderAreFoundButNotListed) {
    oentry dir = root();
    const u32 index = index_of(list(&dir), "a long name.txt");
    std::vector<u8> buffer(512);
    std::vector<bytes> slots;
    for (const u32 slot : {index - 2, index - 1}) {
        u8 *entry = nullptr;
        ASSERT_EQ(fat_get_dentry(&dir, slot, &entry, buffer.data(), nullptr), 0);
        slots.emplace_back(entry, entry + 32);
    }
    const dentry_location last = place_of(&dir, index - 2);
    const dentry_location first = place_of(&dir, index - 1);
    poke(last.sector, last.offset, slots[1]);
    poke(first.sector, first.offset, slots[0]);
    expect_found(&dir, "a long name.txt", index);
    const names listed = names_of(list(&dir));
    EXPECT_EQ(std::count(listed.begin(), listed.end(), "a long name.txt"), 0);
}
