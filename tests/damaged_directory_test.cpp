// Damaged directories, made by one generator, for every call that reads names or walks over
// entries: the result and the output of each call.

#include "tests/support/damaged_directory.h"
#include "tests/support/faults.h"
#include "tests/support/mounted.h"
#include "tests/support/open_entries.h"
#include "tests/support/rows.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <tuple>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

const volume_shape SHAPES[] = {{.fat_type = 16}, {.fat_type = 32, .sec_per_clus = 2}};

// ---- names ------------------------------------------------------------------------------------

// The output of get_long_name() for the first entry: its result, the units, the entry that it ends
// at and, unless 0, the entry whose checksum it prints, both counted from the first.
struct assembled_name {
    int slots;
    std::string units;
    u32 ends_at;
    u32 mismatch = 0;
};

// The entries of a name, and the name of the last one for each reader.
struct name_row : named_row {
    std::vector<entry_image> entries;
    std::string lookup; // the long name that finds it; empty: none does
    assembled_name assembled;
    std::string listed;  // by do_readdir()
    std::string strict;  // by fat_next_entry() and fat_info_of()
    std::string indexed; // by get_name_of_entry()
};

const std::string A(13, 'a');
const std::string B(13, 'b');
const std::string &S = DAMAGED_SHORT;
const std::string ENDED = "(the walk ended before it)";
const std::string UNTOUCHED_UNITS = "#";

std::vector<name_row> name_rows() {
    const entry_image file = short_entry("OTHER      ");
    const entry_image label = short_entry("LABEL      ", LABEL);
    const entry_image blank_label = short_entry("           ", LABEL);
    const entry_image invalid = short_entry("INVALID    ", LABEL | DIRECTORY);
    const auto n = before_entry;
    const std::string &none = UNTOUCHED_UNITS;
    const std::string abt = A + B + "Tail";
    const std::string bat = B + A + "Tail";
    const std::string at = A + "Tail";
    const entry_image t3 = slot(0x43, "Tail");
    const entry_image t2 = slot(0x42, "Tail");
    const entry_image b2 = slot(2, B);
    const entry_image a1 = slot(1, A);
    const entry_image one = slot(0x41, "One");
    return {
        {"Whole", n({t3, b2, a1}), abt, {3, abt, 3}, abt, abt, abt},
        {"NoLastMark", n({slot(1, "One")}), "One", {0, none, 0}, S, S, S},
        {"NoLastMarkOfTwo", n({slot(2, "Tail"), a1}), at, {0, none, 0}, S, S, S},
        {"LowestSlotMissing", n({t2}), "", {0, "", 1}, S, S, ""},
        {"MiddleSlotMissing", n({t3, a1}), A, {0, "", 2}, S, S, A},
        {"SlotTwice", n({t2, a1, slot(1, B)}), B + "Tail", {0, at, 2}, S, S, at},
        {"LastSlotTwice", n({one, slot(0x41, "Two")}), "Two", {0, "One", 1}, "Two", "Two", "Two"},
        {"SecondLastMark", n({t3, slot(0x42, B), a1}), A + B, {0, none, 1}, A + B, A + B, A + B},
        {"SlotOfALostNameBefore", n({t2, one}), "One", {0, none, 1}, "One", "One", "One"},
        {"Ascending", n({a1, t2}), at, {0, none, 0}, S, S, ""},
        {"OrderOf312", n({t3, a1, b2}), abt, {3, bat, 3}, bat, S, abt},
        {"OrderOf231", n({b2, t3, a1}), abt, {0, none, 0}, S, S, A},
        {"OrderOf213", n({b2, a1, t3}), abt, {0, none, 0}, S, S, ""},
        {"OrderOf132", n({a1, t3, b2}), abt, {0, none, 0}, S, S, ""},
        {"OrderOf123", n({a1, b2, t3}), abt, {0, none, 0}, S, S, ""},
        {"Ordinal63Inside", n({t3, a1, slot(0x3F, B)}), A, {3, bat, 3}, bat, S, A},
        {"WrongChecksum", n({slot(0x41, "One", 1)}), "One", {0, "", 1, 1}, S, S, S},
        {"WrongChecksums", n({slot(0x42, "Tail", 1), slot(1, A, 1)}), at, {0, "", 2, 2}, S, S, S},
        {"WrongLastChecksum", n({slot(0x42, "Tail", 1), a1}), at, {0, none, 1, 1}, S, S, S},
        {"WrongFirstChecksum", n({t2, slot(1, A, 1)}), at, {0, none, 1, 1}, S, S, S},
        {"OfAnotherName", n(long_slots(wide_of(at), "OTHER~1    ")), at, {0, "", 2, 2}, S, S, S},
        {"Ordinal0", n({slot(0x40, "One")}), "", {0, none, 0}, S, S, ""},
        {"Ordinal21", n({slot(0x55, A)}), "", {0, "", 1}, S, S, ""},
        {"Ordinal63", n({slot(0x7F, A)}), "", {0, "", 1}, S, S, ""},
        {"Ordinal128", n({slot(0x80, A)}), "", {0, "", 1}, S, S, S},
        {"Ordinal193", n({slot(0xC1, A)}), "", {0, "", 1}, S, S, ""},
        {"Ordinal194", n({slot(0xC2, "Tail"), a1}), A, {0, "", 2}, S, S, A},
        {"Ordinal255", n({slot(0xFF, A)}), "", {0, "", 1}, S, S, ""},
        {"Ordinal21AfterTheName", n({one, slot(0x15, A)}), "One", {0, "One", 1}, S, S, "One"},
        {"Ordinal63AfterTheName", n({one, slot(0x3F, A)}), "One", {0, "One", 1}, S, S, "One"},
        {"Ordinal128AfterTheName", n({one, slot(0x80, A)}), "One", {0, "One", 1}, S, S, "One"},
        {"Ordinal191AfterTheName", n({one, slot(0xBF, A)}), "One", {0, "One", 1}, S, S, "One"},
        {"EmptyName", n({slot(0x41, "")}), "", {1, "", 1}, "", S, ""},
        {"Attribute4F", n({with_attribute(one, 0x4F)}), "One", {1, "One", 1}, "One", "One", "One"},
        {"Attribute8F", n({with_attribute(one, 0x8F)}), "One", {1, "One", 1}, "One", "One", "One"},
        {"AttributeCF", n({with_attribute(one, 0xCF)}), "One", {1, "One", 1}, "One", "One", "One"},
        {"AttributeOfALabel", n({with_attribute(one, 0x2F)}), "", {1, "One", 1}, S, S, S},
        {"Deleted", n({deleted(one)}), "", {0, "", 1}, S, S, S},
        {"DeletedInTheMiddle", with_middle(deleted(b2)), A, {0, "", 1}, S, S, S},
        {"DeletedBetweenTwoSlots", n({t2, deleted(file), a1}), at, {0, "", 1}, S, S, S},
        {"DirectoryInTheMiddle",
         with_middle(short_entry("OTHER      ", DIRECTORY, 30)),
         A,
         {0, "", 1},
         S,
         S,
         S},
        {"Ordinal63WithoutTheMark", n({slot(0x3F, "One")}), "", {0, none, 0}, S, S, S},
        {"FileInTheMiddle", with_middle(file), A, {0, "", 1}, S, S, S},
        {"LabelInTheMiddle", with_middle(label), A, {0, "", 1}, S, S, S},
        {"InvalidInTheMiddle", with_middle(invalid), A, {0, "", 1}, S, S, S},
        {"UnusedInTheMiddle", with_middle({}), "", {0, "", 1}, ENDED, ENDED, S},
        {"DeletedBetween", with_between(deleted(file)), "", {0, "One", 1}, S, S, S},
        {"DeletedSlotBetween", with_between(deleted(a1)), "", {0, "One", 1}, S, S, S},
        {"LabelBetween", with_between(label), "", {0, "One", 1}, S, S, S},
        {"BlankLabelBetween", with_between(blank_label), "", {0, "One", 1}, S, S, S},
        {"InvalidBetween", with_between(invalid), "", {0, "One", 1}, S, S, S},
        {"DeletedAtTheEnd", with_end(deleted(file)), "", {0, at, 2}, S, S, S},
        {"LabelAtTheEnd", with_end(label), "", {0, at, 2}, S, S, S},
        {"InvalidAtTheEnd", with_end(invalid), "", {0, at, 2}, S, S, S},
        {"SlotAtTheEnd", with_end(one), "One", {0, at, 2}, "One", "One", "One"},
        {"UnusedAtTheEnd", with_end({}), "", {0, at, 2}, ENDED, ENDED, S},
    };
}

// The entries of a row in the root directory, after deleted ones: at its beginning, or over the
// border of two sectors.
class DamagedName : public testing::TestWithParam<std::tuple<name_row, volume_shape>> {
protected:
    DamagedName() {
        v.chain({30}); // of the sub-directories in the rows
        EXPECT_EQ(open_root_directory(), 0);
    }
    void put(u32 at) {
        first = at;
        dir.go_to(0);
        while (dir.append(deleted(short_entry("GONE       "))) + 1 < first) {
        }
        last = dir.append(row.entries);
        dir.append(entry_image{});
    }
    std::string heard() {
        const std::string text = messages.text();
        messages.clear();
        return text;
    }
    [[nodiscard]] std::string if_invalid() const {
        return std::any_of(row.entries.begin(), row.entries.end(),
                           [](const entry_image &e) { return (e[11] & 0x18) == 0x18 && e[0] != 0; })
                   ? "entry_type[N]: Unknown entry type: 24\n\n"
                   : "";
    }
    // The messages of assembling the name.
    [[nodiscard]] std::string assembling() const {
        const u32 mismatch = row.assembled.mismatch;
        return mismatch == 0 ? if_invalid()
                             : "get_long_name[N]: not match checksum(" +
                                   std::to_string(first + mismatch) + ")\n";
    }

    // Every long name of any row, and the short one.
    void expect_lookup() {
        std::set<std::string> names = {S};
        for (const name_row &other : name_rows()) {
            names.insert({other.lookup, other.assembled.units, other.listed, other.indexed});
        }
        const bool is_past_an_end = row.listed == ENDED;
        for (std::string name : names) {
            if (name.empty() || name == UNTOUCHED_UNITS || name == ENDED) {
                continue;
            }
            SCOPED_TRACE("looked for: " + name);
            const bool is_found = name == row.lookup || (name == S && !is_past_an_end);
            const int index = is_found ? static_cast<int>(last) : -ENOENT;
            EXPECT_EQ(fat_find_dentry(&dir.record, name.data(), nullptr), index);
            EXPECT_EQ(heard(), if_invalid() + (is_found ? found_at(dir.base(), last) : ""));
        }
    }
    void expect_assembled() {
        constexpr u16 CANARY = '#';
        std::vector<u16> units(257, CANARY);
        std::vector<u8> buffer(sv->sector_size);
        u8 *entry = nullptr;
        ASSERT_EQ(fat_get_dentry(&dir.record, first, &entry, buffer.data(), nullptr), 0);
        heard();
        v.disk.log.clear();
        EXPECT_EQ(get_long_name(&dir.record, first, &entry, buffer.data(), units.data()),
                  row.assembled.slots);
        EXPECT_EQ(heard(), assembling());
        const std::string &expected = row.assembled.units;
        EXPECT_EQ(std::string(units.begin(), units.begin() + std::ptrdiff_t(expected.size())),
                  expected);
        EXPECT_EQ(units[expected.size()], expected == UNTOUCHED_UNITS ? CANARY : 0);
        EXPECT_EQ(units[256], CANARY);
        EXPECT_TRUE(row.assembled.ends_at > 0 || v.disk.log.empty());
        const entry_image ended_at = dir.at(first + row.assembled.ends_at);
        EXPECT_TRUE(std::equal(ended_at.begin(), ended_at.end(), entry));
    }
    void expect_listed() {
        std::vector<u8> buffer(sv->sector_size);
        std::string listed = ENDED;
        dir_item item = {};
        u8 *entry = nullptr;
        u32 index = first;
        while (do_readdir(&dir.record, &index, &entry, &item, buffer.data(), nullptr) >= 0) {
            listed = item.name;
        }
        EXPECT_EQ(listed, row.listed);
        EXPECT_TRUE(listed == ENDED || index == last + 1) << index;
        EXPECT_EQ(heard(), assembling() + if_invalid());
    }
    void expect_strict() {
        fat_entry_info info = {};
        std::string strict = ENDED;
        for (u32 index = first; fat_next_entry(0, &index, &info) == 1;) {
            strict = info.name;
        }
        EXPECT_EQ(strict, row.strict);
        const int id = fat_entry_open(sv->root_dir, last);
        ASSERT_GT(id, 0);
        EXPECT_EQ(fat_info_of(id, &info), row.strict == ENDED ? -ENOENT : 0);
        if (row.strict != ENDED) {
            EXPECT_EQ(info.name, row.strict);
            EXPECT_EQ(info.index, last);
        }
        fat_close(id);
        EXPECT_EQ(heard(), "");
    }
    void expect_indexed() {
        std::string name(256, '#');
        EXPECT_EQ(get_name_of_entry(dir.base(), last, name.data(), 256), 0);
        EXPECT_EQ(name, row.indexed + std::string(256 - row.indexed.size(), '\0'));
        EXPECT_EQ(heard(),
                  row.indexed == S ? if_invalid() + "get_name_of_entry[N]: Check here!\n\n" : "");
    }

    const name_row row = std::get<0>(GetParam());
    mounted v{std::get<1>(GetParam())};
    directory dir = sv->fat_type == 16 ? v.root() : v.longer_root({25, 22});
    diagnostics messages;
    u32 first = 0;
    u32 last = 0; // the short entry of the name
};
INSTANTIATE_TEST_SUITE_P(
    Rows, DamagedName, testing::Combine(testing::ValuesIn(name_rows()), testing::ValuesIn(SHAPES)),
    [](const auto &row) {
        return std::get<0>(row.param).name + std::string("On") + name_of(std::get<1>(row.param));
    });

} // namespace

TEST_P(DamagedName, IsReadAsTheRowHasIt) {
    for (const u32 at : {1U, volume::entries_per_sector() - 1, volume::entries_per_sector()}) {
        SCOPED_TRACE("from entry " + std::to_string(at));
        put(at);
        expect_lookup();
        expect_assembled();
        expect_listed();
        expect_strict();
        expect_indexed();
    }
}

// ---- walks ------------------------------------------------------------------------------------

namespace {

constexpr int ID = 9; // under which the directory is open

// A call that walks to entry `index`, or over all entries. Its messages after the reason: %B is
// the base cluster, %I the index, %E the error.
struct walking_call : named_row {
    int (*call)(oentry *dir, u32 base, u32 index);
    const char *messages;
    int at_end; // for an entry after the last one
    const char *said_at_end;
    bool skips_dots = false; // the first two entries, which the root has not
};
constexpr int GROWS = 1000; // has cases of its own

int fetch(oentry *dir, u32 index) {
    std::vector<u8> buffer(sv->sector_size);
    u8 *entry = nullptr;
    return fat_get_dentry(dir, index, &entry, buffer.data(), nullptr);
}
int look_up(oentry *dir) {
    char name[] = "README.TXT";
    return fat_find_dentry(dir, name, nullptr);
}
int choose_tail(oentry *dir) {
    u8 dos[] = "LONGFILETXT";
    const int result = add_numeric_tail(dir, dos);
    EXPECT_STREQ(reinterpret_cast<char *>(dos), result == 0 ? "LONGFI~1TXT" : "LONGFILETXT");
    return result;
}
int find_slots(oentry *dir) {
    u32 index = 0xDEADBEEF;
    const int result = fat_find_empty_entries(dir, 0x7000, &index);
    EXPECT_EQ(index, 0xDEADBEEF);
    return result;
}
int list_next(oentry *dir) {
    std::vector<u8> buffer(sv->sector_size);
    u8 *entry = nullptr;
    u32 index = 0;
    dir_item item = {};
    const int result = do_readdir(dir, &index, &entry, &item, buffer.data(), nullptr);
    EXPECT_EQ(index, 0U);
    return result;
}
int next_entry() {
    fat_entry_info info = {};
    u32 index = 0;
    const int result = fat_next_entry(ID, &index, &info);
    EXPECT_EQ(index, 0U);
    return result;
}
int long_name_at(u32 index) {
    u16 units[LONG_NAME_UNITS] = {};
    return fat_get_uname(ID, index, units);
}
int name_at(u32 base, u32 index) {
    std::string name(256, '#');
    const int result = get_name_of_entry(base, index, name.data(), 256);
    EXPECT_EQ(name, std::string(256, '#'));
    return result;
}

const char *const SILENT = nullptr; // nor is the reason printed

const walking_call WALKING_CALLS[] = {
    {"fat_get_dentry", [](oentry *dir, u32, u32 index) { return fetch(dir, index); }, "", -EFAULT,
     ""},
    {"fat_find_dentry", [](oentry *dir, u32, u32) { return look_up(dir); },
     "find_dentry_with_clu[N]: fail to get dentry(%B, %I):%E\n", -ENOENT, ""},
    {"add_numeric_tail", [](oentry *dir, u32, u32) { return choose_tail(dir); }, "", 0, ""},
    {"fat_find_empty_entries", [](oentry *dir, u32, u32) { return find_slots(dir); },
     "fat_find_empty_entries[N]: Check Here!\n\n", GROWS, ""},
    {"is_empty_dir", [](oentry *dir, u32, u32) { return is_empty_dir(dir); },
     "is_empty_dir[N]: Check here!\n\n", 1, "", true},
    {"do_readdir", [](oentry *dir, u32, u32) { return list_next(dir); },
     "do_readdir[N]: Failed go get entry!\n\n", -EFAULT, "do_readdir[N]: Failed go get entry!\n\n"},
    {"fat_next_entry", [](oentry *, u32, u32) { return next_entry(); }, SILENT, 0, SILENT},
    {"fat_get_uname", [](oentry *, u32, u32 index) { return long_name_at(index); },
     "fat_get_uname[N]: Failed to get dentry!\n\n", -EFAULT,
     "fat_get_uname[N]: Failed to get dentry!\n\n"},
    {"get_name_of_entry", [](oentry *, u32 base, u32 index) { return name_at(base, index); },
     "get_name_of_entry[N]: fail to get dentry(%B, %I):%E\n\n", -ENOENT,
     "get_name_of_entry[N]: Check here!\n\n"},
    {"remove_entry", [](oentry *dir, u32, u32 index) { return remove_entry(dir, index); },
     "remove_entry[N]: Check here!\n\n", -EFAULT, "remove_entry[N]: Check here!\n\n"},
};

std::vector<std::tuple<damaged_walk, volume_shape>> walks_on_shapes() {
    std::vector<std::tuple<damaged_walk, volume_shape>> result;
    for (const damaged_walk &row : damaged_walks()) {
        for (const volume_shape &shape : SHAPES) {
            if (!row.is_root_area || shape.fat_type == 16) {
                result.emplace_back(row, shape);
            }
        }
    }
    return result;
}

class DamagedWalk : public testing::TestWithParam<std::tuple<damaged_walk, volume_shape>> {
protected:
    DamagedWalk() {
        oentry_table[ID] = &dir.record;
        mark_slot(oentry_map, ID);
        v.disk.log.clear();
    }
    ~DamagedWalk() override {
        oentry_table[ID] = nullptr;
        unmark_slot(oentry_map, ID);
    }
    static volume_shape shape() {
        volume_shape result = std::get<1>(GetParam());
        result.root_entries = 2 * result.sector_size / 32;
        return result;
    }
    u32 damaged_base() {
        dir.fill_up(deleted(short_entry("GONE       ")));
        dir.record.allocated = 0x00100000; // does not end the walks
        row.damage(&v, &dir);
        return row.is_root_area ? 0 : dir.record.start;
    }
    [[nodiscard]] std::string filled_in(const std::string &text) const {
        std::string result;
        for (std::size_t i = 0; i < text.size(); i++) {
            const char which = text[i] == '%' ? text[++i] : '\0';
            result += which == 'B'   ? std::to_string(base)
                      : which == 'I' ? std::to_string(index)
                      : which == 'E' ? std::string(std::strerror(-row.result))
                                     : std::string(1, text[i]);
        }
        return result;
    }
    [[nodiscard]] answer expected(const walking_call &call) const {
        const bool is_end = row.result == -EFAULT;
        const char *words = is_end ? call.said_at_end : call.messages;
        const std::string reason =
            row.cause == nullptr
                ? "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                      std::to_string(*v.disk.bad_sectors.begin()) + ")\n"
                : row.cause + filled_in("get_dentry_with_clu[N]: Failed to get entry sector!:"
                                        "(%B, %I)\n\n");
        return {is_end ? call.at_end : row.result,
                words == SILENT ? "" : reason + filled_in(words)};
    }

    const damaged_walk row = std::get<0>(GetParam());
    mounted v{shape()};
    directory dir = row.is_root_area ? v.root() : v.sub_directory({20, 25, 22});
    diagnostics messages;
    const u32 per_cluster =
        row.is_root_area ? volume::entries_per_sector() : volume::entries_per_cluster();
    const u32 base = damaged_base();
    u32 index = 0; // of the entry that is not reached
};
INSTANTIATE_TEST_SUITE_P(Rows, DamagedWalk, testing::ValuesIn(walks_on_shapes()),
                         [](const auto &row) {
                             return std::get<0>(row.param).name + std::string("On") +
                                    name_of(std::get<1>(row.param));
                         });

} // namespace

TEST_P(DamagedWalk, PrintsTheReasonAndTheWordsOfTheCall) {
    for (const walking_call &call : WALKING_CALLS) {
        if ((row.result == -EFAULT && call.at_end == GROWS) ||
            (row.is_root_area && call.skips_dots)) {
            continue;
        }
        SCOPED_TRACE(call.name);
        messages.clear();
        const allocation_meter meter;
        index = row.clusters_before * per_cluster;
        if (call.skips_dots) {
            index = std::max(index, 2U);
        }
        const int result = call.call(&dir.record, base, index);
        EXPECT_EQ((answer{result, messages.text()}), expected(call));
        EXPECT_EQ(meter.live_blocks(), 0);
    }
    for (const transfer &t : v.disk.log) {
        EXPECT_FALSE(t.is_write) << t;
    }
}

// A cycle is noticed after a few rounds.
TEST(DamagedWalkInACycle, EndsEachCall) {
    for (const volume_shape &shape : SHAPES) {
        for (const u32 back_to : {20U, 25U, 22U}) {
            mounted v(shape);
            directory dir = v.sub_directory({20, 25, 22});
            dir.fill_up(deleted(short_entry("GONE       ")));
            v.set_link(22, back_to);
            dir.record.allocated = 0xFFFFFFE0;
            oentry_table[ID] = &dir.record;
            mark_slot(oentry_map, ID);
            for (const walking_call &call : WALKING_CALLS) {
                SCOPED_TRACE(call.name);
                diagnostics messages;
                v.disk.log.clear();
                EXPECT_EQ(call.call(&dir.record, 20, 0x07FFFFF0), -EINVAL);
                // One of them reads a sector for each entry.
                const bool reads_most = std::string(call.name) == "do_readdir";
                EXPECT_LT(v.traffic(), reads_most ? 4 * dir.capacity() : 50U);
                EXPECT_EQ(messages.text().find("Failed to get entry sector!:(20, ") ==
                              std::string::npos,
                          call.messages == SILENT);
            }
            oentry_table[ID] = nullptr;
            unmark_slot(oentry_map, ID);
        }
    }
}
