// Building entries: filling short entries and long-name slots, writing them into a directory, the
// first two entries of a new directory.

#include "tests/support/build_fixture.h"
#include "tests/support/every_fault.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

const std::string CHECK_HERE = "build_entry[N]: Check here!\n\n";
const std::string INIT_CHECK_HERE = "init_directory[N]: Check here!\n\n";
const std::string TOO_MANY = "add_numeric_tail[N]: Too many SFNs!\n\n"
                             "build_entry[N]: cannot create DOS name: over the maximum numeric\n";

class SetEntryValue : public testing::Test {
protected:
    SetEntryValue() {
        entry.fill(0x55);
    }
    ~SetEntryValue() override {
        fat_perm = {};
    }
    int set(std::string_view dos, u32 kind, u32 start = 0, u8 lcase = 0) {
        return set_entry_value(entry.data(), reinterpret_cast<const u8 *>(dos.data()), kind, start,
                               lcase);
    }
    const stopped_clock clock{LEAP_DAY};
    entry_image entry;
    diagnostics messages;
};

class BuildEntry : public build_case {
protected:
    answer build(u32 first, u32 count, name_forms *name, u32 kind = DENTRY_FILE, u32 start = 0) {
        return heard(build_entry(&dir.record, first, count, kind, &name->record, start));
    }
    // The expected slots of a name from `first` on.
    static void put_into(std::vector<entry_image> *space, u32 first, std::u16string_view wide,
                         const entry_image &entry) {
        const std::vector<entry_image> slots =
            long_slots(wide, std::string(entry.begin(), entry.begin() + 11));
        std::copy(slots.begin(), slots.end(), space->begin() + first);
        space->at(first + slots.size()) = stamped(entry);
    }
    // The sectors of slots `first` to `last`, in descending order.
    [[nodiscard]] std::vector<u64> sectors_downwards(u32 first, u32 last) const {
        std::vector<u64> result;
        for (u32 i = last + 1; i-- > first;) {
            if (result.empty() || result.back() != sector_of(i)) {
                result.push_back(sector_of(i));
            }
        }
        return result;
    }
};

INSTANTIATE_TEST_SUITE_P(Directories, BuildEntry, testing::ValuesIn(all_directories()),
                         directory_shape_name);

// Sectors with fewer entries than the slots of a long name.
class BuildEntryInSmallSectors : public BuildEntry {};

std::vector<directory_shape> small_sectors() {
    std::vector<directory_shape> result = all_directories();
    std::erase_if(result, [](const directory_shape &s) { return s.volume.sector_size > 512; });
    return result;
}
INSTANTIATE_TEST_SUITE_P(Directories, BuildEntryInSmallSectors, testing::ValuesIn(small_sectors()),
                         directory_shape_name);

class InitDirectory : public chain_case {
protected:
    // The two expected entries.
    static std::pair<entry_image, entry_image> dots(u32 parent, u32 cluster) {
        return {stamped(short_entry(".          ", DIRECTORY, cluster)),
                stamped(short_entry("..         ", DIRECTORY, parent))};
    }
    ~InitDirectory() override {
        fat_perm = {};
    }
    const stopped_clock clock{LEAP_DAY};
};

INSTANTIATE_TEST_SUITE_P(Shapes, InitDirectory, testing::ValuesIn(chain_shapes()), shape_name);

} // namespace

// ---- date and time ----------------------------------------------------------------------------

namespace {

struct packed {
    u16 date, time;
    bool operator==(const packed &) const = default;
};
std::ostream &operator<<(std::ostream &out, const packed &p) {
    return out << std::hex << "date " << p.date << ", time " << p.time << std::dec;
}

packed pack(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    tm t = {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    packed p = {0xDEAD, 0xBEEF};
    dos_time_date(&t, &p.date, &p.time);
    return p;
}

} // namespace

TEST(DosTimeDate, PacksADayAndEverySecondSecond) {
    EXPECT_EQ(pack(1980, 1, 1), (packed{0x0021, 0}));
    EXPECT_EQ(pack(1999, 12, 31, 23, 59, 59), (packed{0x279F, 0xBF7D}));
    EXPECT_EQ(pack(2024, 2, 29, 12, 34, 56), (packed{0x585D, 0x645C}));
    EXPECT_EQ(pack(2107, 12, 31, 0, 0, 1), (packed{0xFF9F, 0}));
    EXPECT_EQ(pack(1980, 1, 1, 0, 0, 60), (packed{0x0021, 30})); // a leap second
    // Years that do not fit are truncated.
    EXPECT_EQ(pack(2108, 1, 1), (packed{0x0021, 0}));
    EXPECT_EQ(pack(1979, 12, 31), (packed{0xFF9F, 0}));
}

TEST(DosTimeDate, EveryDayAndEveryMomentHasItsOwnNumber) {
    for (int year = 1980; year <= 2107; year++) {
        for (int month = 1; month <= 12; month++) {
            for (int day = 1; day <= 31; day++) {
                ASSERT_EQ(pack(year, month, day).date, (year - 1980) * 512 + month * 32 + day);
            }
        }
    }
    for (int second = 0; second < 86400; second++) {
        ASSERT_EQ(pack(2000, 1, 1, second / 3600, second / 60 % 60, second % 60).time,
                  second / 3600 * 2048 + second / 60 % 60 * 32 + second % 60 / 2);
    }
}

TEST(SetEntryTime, StampsTheModificationAndNothingElse) {
    const stopped_clock clock(LEAP_DAY);
    entry_image entry;
    entry.fill(0x55);
    entry_image expected = stamped(entry);
    set_entry_time(entry.data());
    EXPECT_EQ(entry, expected);
}

TEST(SetEntryTime, TimeIsLocal) {
    const stopped_clock clock(LEAP_DAY, "<+1345>-13:45");
    entry_image entry = {};
    set_entry_time(entry.data());
    // 2024-03-01 02:19:56 there.
    EXPECT_EQ(entry, stamped({}, 44 << 9 | 3 << 5 | 1, 2 << 11 | 19 << 5 | 28));
}

// ---- a short entry ----------------------------------------------------------------------------

TEST_F(SetEntryValue, EachRowGivesItsEntry) {
    const struct {
        std::string dos;
        u32 kind;
        u32 start;
        u8 lcase, attr, mark;
    } rows[] = {
        {"NAME    TXT", DENTRY_FILE, 0, 0, 0, 0},
        {"NAME       ", DENTRY_DIR, 0x00020003, 0, 0x10, 0},
        {"NAME       ", KIND_SYMLINK, 7, 0, 0, 0xE2},
        {"MY VOLUME  ", DENTRY_VOLUME, 0, 0, 0x08, 0},
        // Case byte and cluster are stored completely, the name unchanged.
        {"NAME    TXT", DENTRY_FILE, 0xFEDCBA98, 0x18, 0, 0},
        {{"\x05\xFF\x01 lower.\0z", 11}, DENTRY_FILE, 0, 0, 0, 0},
    };
    for (const auto &[dos, kind, start, lcase, attr, mark] : rows) {
        entry.fill(0x55);
        EXPECT_EQ(set(dos, kind, start, lcase), 0);
        entry_image expected = stamped(short_entry(dos, attr, start));
        expected[12] = lcase;
        expected[13] = mark;
        EXPECT_EQ(entry, expected);
    }
    EXPECT_EQ(messages.text(), "");
}

TEST_F(SetEntryValue, OtherKindsAreRefused) {
    for (const u32 kind : {0U, 1U, 4U, 5U, 6U, 9U, 0x10U, 0xFFFFFFFFU}) {
        messages.clear();
        EXPECT_EQ(set("NAME       ", kind), -EINVAL);
        EXPECT_EQ(messages.text(), "set_entry_value[N]: Check Here!\n\n");
    }
    entry_image expected;
    expected.fill(0x55);
    expected[13] = 0; // cleared before the kind is checked
    EXPECT_EQ(entry, expected);
}

TEST_F(SetEntryValue, EntryOfTheVolumeLabelHasNoClusterAndNoCase) {
    const std::string label = "LABEL 11 CH";
    EXPECT_EQ(set_volume_entry(entry.data(), reinterpret_cast<const u8 *>(label.data())), 0);
    EXPECT_EQ(entry, stamped(short_entry(label, 0x08)));
    EXPECT_EQ(messages.text(), "");
}

// ---- permissions ------------------------------------------------------------------------------

namespace {

// The bits of an entry that a mode sets.
entry_image with_permissions(entry_image entry, u32 mode, u16 id) {
    const bool group_reads = (mode & 040) != 0;
    const bool group_writes = (mode & 020) != 0;
    const bool group_executes = (mode & 010) != 0;
    entry[13] = static_cast<u8>(entry[13] | (group_reads ? 0 : 0x10) | (group_writes ? 0 : 0x08) |
                                (group_executes ? 0 : 0x04));
    entry[11] =
        static_cast<u8>(entry[11] | ((mode & 0400) != 0 ? 0 : HIDDEN) |
                        ((mode & 0200) != 0 ? 0 : READ_ONLY) | ((mode & 0100) != 0 ? 0 : ARCHIVE));
    entry[14] = static_cast<u8>(id);
    entry[15] = static_cast<u8>(id >> 8);
    return entry;
}

} // namespace

TEST_F(SetEntryValue, EveryModeIsStoredInTheEntry) {
    const std::pair<u32, u8> kinds[] = {
        {DENTRY_FILE, 0}, {DENTRY_DIR, 0x10}, {KIND_SYMLINK, 0}, {DENTRY_VOLUME, 0x08}};
    for (const auto &[kind, attr] : kinds) {
        for (u32 mode = 0; mode < 01000; mode++) {
            fat_perm = {1, 0xABCD, 0x1111, mode, ~mode};
            EXPECT_EQ(set("NAME       ", kind), 0);
            entry_image plain = stamped(short_entry("NAME       ", attr));
            plain[13] = kind == KIND_SYMLINK ? 0xE2 : 0;
            ASSERT_EQ(entry, with_permissions(plain, mode, 0xABCD))
                << "kind " << kind << ", " << mode;
        }
    }
}

TEST_F(SetEntryValue, KnownModes) {
    for (const auto &[mode, kind, attr, cmsec] : std::initializer_list<std::array<u32, 4>>{
             {0755, DENTRY_FILE, 0x00, 0x08}, // the group may not write
             {0, DENTRY_DIR, 0x10 | 0x20 | 0x02 | 0x01, 0x1C},
             {0777, DENTRY_DIR, 0x10, 0}}) {
        fat_perm = {1, 0x0102, 0, mode, 0};
        EXPECT_EQ(set("NAME       ", kind), 0);
        EXPECT_EQ((std::array<u32, 4>{entry[11], entry[13], entry[14], entry[15]}),
                  (std::array<u32, 4>{attr, cmsec, 0x02, 0x01}));
    }
}

TEST_F(SetEntryValue, ParentEntryHasItsOwnModeAndIdentifier) {
    fat_perm = {1, 0x1111, 0x2222, 0777, 0000};
    const entry_image plain = stamped(short_entry("..         ", 0x10, 9));
    EXPECT_EQ(set("..         ", DENTRY_DIR, 9), 0);
    EXPECT_EQ(entry, with_permissions(plain, 0000, 0x2222));
    // Names that only begin like it are different names.
    for (const char *name : {".          ", "..        X", ". .        ", "...        "}) {
        EXPECT_EQ(set(name, DENTRY_DIR, 9), 0);
        EXPECT_EQ(entry, with_permissions(stamped(short_entry(name, 0x10, 9)), 0777, 0x1111));
    }
}

TEST_F(SetEntryValue, OtherBitsOfTheModeWordDoNotMatter) {
    fat_perm = {1, 0x1111, 0, 0xFFFFFE00 | 0640, 0};
    EXPECT_EQ(set("NAME       ", DENTRY_FILE), 0);
    EXPECT_EQ(entry, with_permissions(stamped(short_entry("NAME       ", 0)), 0640, 0x1111));
    fat_perm.perm_mode = 0647; // permissions of others are not stored
    EXPECT_EQ(set("NAME       ", DENTRY_FILE), 0);
    EXPECT_EQ(entry, with_permissions(stamped(short_entry("NAME       ", 0)), 0640, 0x1111));
}

TEST_F(SetEntryValue, ModeIsOnOnlyWhereItsSwitchIsOne) {
    for (const u32 enable : {0U, 2U, 3U, 0x100U, 0xFFFFFFFFU}) {
        fat_perm = {enable, 0x1111, 0x2222, 0, 0};
        EXPECT_EQ(set("NAME       ", DENTRY_FILE), 0);
        EXPECT_EQ(entry, stamped(short_entry("NAME       ", 0))) << "switch " << enable;
    }
}

// ---- a long-name slot -------------------------------------------------------------------------

namespace {

entry_image slot_of(u8 ordinal, std::vector<u16> units, u8 checksum) {
    entry_image slot;
    slot.fill(0x55);
    units.shrink_to_fit();
    EXPECT_EQ(set_long_slot(slot.data(), ordinal, units.data(), checksum), 0);
    return slot;
}

std::vector<u16> units_of(std::u16string_view text) {
    return {text.begin(), text.end()};
}

} // namespace

TEST(SetLongSlot, ThirteenUnitsFillIt) {
    EXPECT_EQ(slot_of(0x42, units_of(u"ABCDEFGHIJKLM"), 0x7A),
              long_slot(0x42, u"ABCDEFGHIJKLM", 0x7A));
}

TEST(SetLongSlot, UnitsKeepTheirPositionsAndBytes) {
    const std::u16string units = u"\u0102\u0304\u0506\u0708\u090A\u0B0C\u0D0E\u0F10\u1112\u1314"
                                 u"\u1516\u1718\u191A";
    const entry_image slot = slot_of(1, units_of(units), 0xFF);
    const entry_image expected = {0x01, 0x02, 0x01, 0x04, 0x03, 0x06, 0x05, 0x08, 0x07, 0x0A, 0x09,
                                  0x0F, 0x00, 0xFF, 0x0C, 0x0B, 0x0E, 0x0D, 0x10, 0x0F, 0x12, 0x11,
                                  0x14, 0x13, 0x16, 0x15, 0x00, 0x00, 0x18, 0x17, 0x1A, 0x19};
    EXPECT_EQ(slot, expected);
}

TEST(SetLongSlot, TerminatorIsWrittenOnceAndPaddingFollows) {
    const std::u16string name = u"ABCDEFGHIJKLM";
    for (std::size_t length = 0; length < 13; length++) {
        std::vector<u16> units = units_of(name.substr(0, length));
        units.push_back(0); // and nothing after it
        EXPECT_EQ(slot_of(0x41, units, 0x11), long_slot(0x41, name.substr(0, length), 0x11))
            << length << " units";
    }
}

TEST(SetLongSlot, PaddingUnitEndsTheNameToo) {
    std::u16string expected = u"AB\uFFFF";
    expected.resize(13, u'\uFFFF');
    EXPECT_EQ(slot_of(0x41, {u'A', u'B', 0xFFFF}, 0x11), long_slot(0x41, expected, 0x11));
}

TEST(SetLongSlot, UnitsAfterTheTerminatorAreNotTaken) {
    EXPECT_EQ(slot_of(0x41,
                      {u'A', 0, u'B', u'C', u'D', u'E', u'F', u'G', u'H', u'I', u'J', u'K', u'L'},
                      0x11),
              long_slot(0x41, u"A", 0x11));
}

// ---- an entry without a long name -------------------------------------------------------------

TEST_P(BuildEntry, ShortNameTakesOneSlot) {
    occupy();
    std::vector<entry_image> expected = space();
    for (const u32 index : {0U, 1U, per_sector - 1, per_sector, capacity - 1}) {
        name_forms name("NAME    TXT", {}, 0x18);
        v.disk.log.clear();
        EXPECT_EQ(build(index, 1, &name), (answer{static_cast<int>(index), ""}));
        expected[index] = stamped(short_entry("NAME    TXT", 0));
        expected[index][12] = 0x18;
        EXPECT_EQ(changes_since(expected), "");
        EXPECT_EQ(sectors_written(), std::vector<u64>{sector_of(index)});
        EXPECT_EQ(name.dos(), "NAME    TXT");
    }
}

// The former content of the slot is cleared: creation and access stamps, size.
TEST_P(BuildEntry, EveryKindWithItsCluster) {
    dir.put(5, deleted(file_number(5)));
    std::vector<entry_image> expected = space();
    for (const auto &[kind, attr, mark] :
         std::initializer_list<std::array<u32, 3>>{{DENTRY_FILE, 0, 0},
                                                   {DENTRY_DIR, 0x10, 0},
                                                   {DENTRY_VOLUME, 0x08, 0},
                                                   {KIND_SYMLINK, 0, 0xE2}}) {
        name_forms name("NAME       ");
        EXPECT_EQ(build(5, 1, &name, kind, 0x00012345), (answer{5, ""}));
        expected[5] = stamped(short_entry("NAME       ", static_cast<u8>(attr), 0x00012345));
        expected[5][13] = static_cast<u8>(mark);
        EXPECT_EQ(changes_since(expected), "");
    }
}

TEST_P(BuildEntry, UnknownKindIsRefused) {
    const std::vector<entry_image> before = space();
    for (const std::u16string_view wide : {std::u16string_view(), std::u16string_view(u"Long")}) {
        name_forms name("NAME       ", wide);
        EXPECT_EQ(build(5, name.slots(), &name, 4),
                  (answer{-EINVAL, "set_entry_value[N]: Check Here!\n\n" + CHECK_HERE}));
    }
    EXPECT_EQ(changes_since(before), "");
    EXPECT_TRUE(sectors_written().empty());
}

TEST_P(BuildEntry, SlotPastTheDirectoryIsRefused) {
    const u32 past = dir.record.allocated / 32; // of the FAT16 root it is 512
    name_forms name("NAME       ");
    EXPECT_EQ(build(past, 1, &name),
              (answer{-EFAULT, "fat_get_dentry[N]: access the out of range in directory space\n" +
                                   CHECK_HERE}));
    EXPECT_TRUE(sectors_written().empty());
}

TEST_P(BuildEntry, NameWithoutALongFormGetsNoTail) {
    dir.append(short_entry("NAME~1     "));
    name_forms name("NAME       ");
    EXPECT_EQ(build(5, 1, &name), (answer{5, ""}));
    EXPECT_EQ(dir.at(5), stamped(short_entry("NAME       ", 0)));
}

TEST_P(BuildEntry, WithLongNamesOffOnlyTheShortEntryIsWritten) {
    occupy();
    for (const u32 off : {0U, 2U}) {
        sv->long_name = static_cast<u8>(off);
        std::vector<entry_image> expected = space();
        name_forms name("NAMEWITHTAI", u"Name with tail");
        EXPECT_EQ(build(4, 3, &name), (answer{6, ""}));
        expected[6] = stamped(short_entry("NAMEWITHTAI", 0));
        EXPECT_EQ(changes_since(expected), "");
        EXPECT_EQ(name.dos(), "NAMEWITHTAI");
    }
}

TEST_P(BuildEntry, LongFormInASingleSlotLeavesItsSlotsOut) {
    std::vector<entry_image> expected = space();
    name_forms name("NAME       ", u"Name");
    EXPECT_EQ(build(4, 1, &name), (answer{4, ""}));
    expected[4] = stamped(short_entry("NAME~1     ", 0));
    EXPECT_EQ(changes_since(expected), "");
}

// ---- an entry with a long name ----------------------------------------------------------------

TEST_P(BuildEntry, NameOf27CharactersTakesFourSlots) {
    const std::u16string wide = u"abcdefghijklmnopqrstuvwxyz7";
    dir.put(5, file_number(5));
    std::vector<entry_image> expected = space();
    name_forms name("ABCDEFGH   ", wide);
    ASSERT_EQ(name.slots(), 4U);
    EXPECT_EQ(build(1, 4, &name, DENTRY_FILE, 77), (answer{4, ""}));
    const unsigned checksum = checksum_of("ABCDEF~1   ");
    expected[1] = long_slot(0x43, u"7", checksum);
    expected[2] = long_slot(2, u"nopqrstuvwxyz", checksum);
    expected[3] = long_slot(1, u"abcdefghijklm", checksum);
    expected[4] = stamped(short_entry("ABCDEF~1   ", 0, 77));
    EXPECT_EQ(changes_since(expected), "");
    // One character, its terminator, and padding.
    const entry_image last = dir.at(1);
    EXPECT_EQ(last[1], '7');
    EXPECT_EQ(last[3] | last[4] << 8, 0);
    EXPECT_EQ(last[5] | last[6] << 8, 0xFFFF);
    EXPECT_EQ(last[30] | last[31] << 8, 0xFFFF);
    EXPECT_EQ(name.dos(), "ABCDEF~1   ");
}

TEST_P(BuildEntry, NamesOfEveryLengthInEveryPosition) {
    occupy();
    set_free(0, 0); // where the search for tails ends
    for (const std::size_t units : {1U, 2U, 12U, 13U, 14U, 25U, 26U, 27U, 39U, 200U, 247U, 255U}) {
        const std::u16string wide = long_name_of(units);
        const u32 count = name_forms("LONGNAMETXT", wide).slots();
        for (const u32 first : {1U, per_sector - 1, per_sector, per_sector + 1, 2 * per_sector - 2,
                                3 * per_sector - count, capacity - count}) {
            std::vector<entry_image> expected = space();
            name_forms name("LONGNAMETXT", wide, 0x18);
            v.disk.log.clear();
            const u32 last = first + count - 1;
            ASSERT_EQ(build(first, count, &name, DENTRY_DIR, 0x00030009),
                      (answer{static_cast<int>(last), ""}));
            entry_image entry = short_entry("LONGNA~1TXT", 0x10, 0x00030009);
            entry[12] = 0x18;
            put_into(&expected, first, wide, entry);
            ASSERT_EQ(changes_since(expected), "") << units << " units from slot " << first;
            EXPECT_EQ(sectors_written(), sectors_downwards(first, last));
        }
    }
}

TEST_P(BuildEntry, SectorOfTheShortEntryIsWrittenFirst) {
    name_forms name("LONGNAMETXT", u"Long name.txt plus more");
    const u32 first = per_sector - 1;
    EXPECT_EQ(build(first, 3, &name), (answer{static_cast<int>(first + 2), ""}));
    EXPECT_EQ(sectors_written(),
              (std::vector<u64>{sector_of(per_sector), sector_of(per_sector - 1)}));
}

TEST_P(BuildEntryInSmallSectors, LongestNameLiesInThreeSectors) {
    name_forms name("LONGNAMETXT", long_name_of(255));
    ASSERT_EQ(name.slots(), 21U);
    EXPECT_EQ(build(14, 21, &name), (answer{34, ""}));
    EXPECT_EQ(sectors_written(), (std::vector<u64>{sector_of(32), sector_of(16), sector_of(14)}));
}

TEST_P(BuildEntry, FourSectorsAreTooMany) {
    const u32 count = 2 * per_sector + 2;
    occupy();
    set_free(0, 0);
    const std::vector<entry_image> before = space();
    name_forms name("LONGNAMETXT", long_name_of(std::size_t{count - 1} * 13));
    EXPECT_EQ(build(per_sector - 1, count, &name), (answer{-EINVAL, CHECK_HERE}));
    EXPECT_EQ(changes_since(before), "");
    EXPECT_TRUE(sectors_written().empty());
}

TEST_P(BuildEntry, DeletedEntriesAreOverwrittenWhole) {
    set_deleted(0, capacity - 1);
    std::vector<entry_image> expected = space();
    const std::u16string wide = long_name_of(20);
    name_forms name("LONGNAMETXT", wide);
    EXPECT_EQ(build(7, 3, &name), (answer{9, ""}));
    put_into(&expected, 7, wide, short_entry("LONGNA~1TXT", 0));
    EXPECT_EQ(changes_since(expected), "");
}

TEST_P(BuildEntry, PermissionsComeWithTheEntry) {
    fat_perm = {1, 0x0BAD, 0, 0640, 0};
    name_forms name("NAME       ");
    EXPECT_EQ(build(2, 1, &name, DENTRY_DIR), (answer{2, ""}));
    EXPECT_EQ(dir.at(2), with_permissions(stamped(short_entry("NAME       ", 0x10)), 0640, 0x0BAD));
}

// ---- numeric tails ----------------------------------------------------------------------------

TEST_P(BuildEntry, TailIsTheLowestFreeOne) {
    dir.append(short_entry("LONGNA~1TXT"));
    dir.append(short_entry("LONGNA~2   ", DIRECTORY));
    dir.append(short_entry("LONGNA~4TXT"));
    const u32 end = dir.append(short_entry("OTHER~3 TXT")) + 1;
    const std::u16string wide = u"Long name of something.txt";
    std::vector<entry_image> expected = space();
    name_forms name("LONGNAMETXT", wide);
    EXPECT_EQ(build(end, 3, &name), (answer{static_cast<int>(end + 2), ""}));
    put_into(&expected, end, wide, short_entry("LONGNA~3TXT", 0));
    EXPECT_EQ(changes_since(expected), "");
    EXPECT_EQ(name.dos(), "LONGNA~3TXT");
}

TEST_P(BuildEntry, ShortNameOfThreeLettersGetsItsTailAfterThem) {
    std::vector<entry_image> expected = space();
    name_forms name("FOO     TXT", u"Foo.txt");
    EXPECT_EQ(build(0, 2, &name), (answer{1, ""}));
    put_into(&expected, 0, u"Foo.txt", short_entry("FOO~1   TXT", 0));
    EXPECT_EQ(changes_since(expected), "");
}

namespace {

// A directory long enough for all tails and a name after them.
class TailsOfADirectory : public testing::TestWithParam<u32> {
protected:
    static std::vector<u32> many_clusters() {
        std::vector<u32> result;
        for (u32 i = 0; i < 10; i++) {
            result.push_back(50 + i);
        }
        return result;
    }
    void take(u32 tails) {
        for (u32 tail = 1; tail <= tails; tail++) {
            const std::string digits = std::to_string(tail);
            std::string dos = "LONGNAMETXT";
            dos[7 - digits.size()] = '~';
            dos.replace(8 - digits.size(), digits.size(), digits);
            dir.append(short_entry(dos));
        }
    }
    static volume_shape shape() {
        volume_shape s;
        s.fat_type = GetParam();
        s.sec_per_clus = 8;
        return s;
    }
    const stopped_clock clock{LEAP_DAY};
    volume v{shape()};
    directory dir = v.sub_directory(many_clusters());
    diagnostics messages;
};

INSTANTIATE_TEST_SUITE_P(Widths, TailsOfADirectory, testing::Values(16U, 32U));

} // namespace

TEST_P(TailsOfADirectory, LastOfThemIs1023AndAfterItNothingIsWritten) {
    take(1022);
    name_forms name("LONGNAMETXT", u"Long name.txt");
    EXPECT_EQ(build_entry(&dir.record, 1100, 2, DENTRY_FILE, &name.record, 0), 1101);
    EXPECT_EQ(messages.text(), "");
    EXPECT_EQ(name.dos(), "LON~1023TXT");
    EXPECT_EQ(dir.at(1101), stamped(short_entry("LON~1023TXT", 0)));
    EXPECT_EQ(dir.at(1100), long_slot(0x41, u"Long name.txt", checksum_of("LON~1023TXT")));
    dir.append(dir.at(1101)); // before the unused entries
    v.disk.log.clear();
    name_forms another("LONGNAMETXT", u"Long name.txt");
    EXPECT_EQ(build_entry(&dir.record, 1100, 2, DENTRY_FILE, &another.record, 0), -EEXIST);
    EXPECT_EQ(messages.text(), TOO_MANY);
    EXPECT_EQ(another.dos(), "LONGNAMETXT");
    for (const transfer &t : v.disk.log) {
        EXPECT_FALSE(t.is_write) << t;
    }
}

// ---- failures ---------------------------------------------------------------------------------

TEST_P(BuildEntry, FailedSearchForTailsIsReturnedWithoutAFurtherMessage) {
    occupy();
    v.disk.unreadable = {sector_of(per_sector)};
    name_forms name("LONGNAMETXT", u"Long name.txt");
    EXPECT_EQ(build(0, 2, &name), (answer{-EIO, unreadable(sector_of(per_sector))}));
    EXPECT_TRUE(sectors_written().empty());
}

TEST_P(BuildEntry, UnreadableSectorOfTheShortEntryIsReported) {
    v.disk.unreadable = {sector_of(per_sector)};
    name_forms name("NAME       ");
    for (const int result : {-1, -5, -28}) {
        v.disk.failure_result = result;
        EXPECT_EQ(build(per_sector, 1, &name),
                  (answer{-EIO, unreadable(sector_of(per_sector)) + CHECK_HERE}));
    }
    EXPECT_TRUE(sectors_written().empty());
}

TEST_P(BuildEntry, UnreadableSectorOfASlotIsReported) {
    const u32 first = 2 * per_sector - 1;
    const std::vector<entry_image> before = space();
    v.disk.unreadable = {sector_of(first)};
    name_forms name("LONGNAMETXT", u"Long name.txt");
    EXPECT_EQ(build(first, 2, &name), (answer{-EIO, unreadable(sector_of(first)) + CHECK_HERE}));
    EXPECT_EQ(changes_since(before), "");
    EXPECT_TRUE(sectors_written().empty());
}

TEST_P(BuildEntry, WriteOfAnotherCountFails) {
    const std::vector<entry_image> before = space();
    for (const int result : {0, 2}) {
        v.disk.failure_result = result;
        v.disk.writes_before_failure = 0;
        name_forms name("NAME       ");
        const answer a = build(3, 1, &name);
        EXPECT_EQ(a.messages, CHECK_HERE);
        EXPECT_TRUE(result < 0 ? a.result == result : a.result < 0) << a;
        EXPECT_TRUE(result > 0 || changes_since(before).empty());
    }
}

TEST_P(BuildEntry, EveryFailingWriteLeavesTheSectorsBeforeItWritten) {
    const std::u16string wide = long_name_of(255);
    const u32 count = name_forms("LONGNAMETXT", wide).slots();
    const u32 first = per_sector - 1;
    const u32 last = first + count - 1;
    const std::vector<u64> sectors = sectors_downwards(first, last);
    const std::vector<entry_image> before = space();
    std::vector<entry_image> whole = before;
    put_into(&whole, first, wide, short_entry("LONGNA~1TXT", 0));
    std::vector<fault_kind> kinds;
    for (const int moved : {-1, -5, -28, -110}) {
        kinds.push_back({fault::write, false, moved});
    }
    at_every_fault(kinds, [&](fault_step &step) {
        for (u32 i = 0; i < capacity; i++) {
            dir.put(i, before[i]);
        }
        name_forms name("LONGNAMETXT", wide);
        const answer a = heard(step.run(
            [&] { return build_entry(&dir.record, first, count, DENTRY_FILE, &name.record, 0); }));
        EXPECT_EQ(a, step.struck() ? (answer{step.kind.transfer_result, CHECK_HERE})
                                   : (answer{static_cast<int>(last), ""}));
        const auto written = static_cast<std::ptrdiff_t>(step.k);
        EXPECT_EQ(step.struck(), written < std::ssize(sectors));
        std::vector<entry_image> expected = before;
        for (u32 i = first; i <= last; i++) {
            const auto place = std::find(sectors.begin(), sectors.end(), sector_of(i));
            if (place - sectors.begin() < written) {
                expected[i] = whole[i];
            }
        }
        EXPECT_EQ(changes_since(expected), "");
    });
}

TEST_P(BuildEntry, EveryFailingReadOrAllocationWritesNothing) {
    const std::u16string wide = long_name_of(255);
    const u32 count = name_forms("LONGNAMETXT", wide).slots();
    const u32 first = 2 * per_sector - 1;
    const std::vector<entry_image> before = space();
    at_every_fault({EVERY_READ, EVERY_ALLOCATION}, [&](fault_step &step) {
        name_forms name("LONGNAMETXT", wide);
        v.disk.log.clear();
        const answer a = heard(step.run(
            [&] { return build_entry(&dir.record, first, count, DENTRY_FILE, &name.record, 0); }));
        if (!step.struck()) {
            EXPECT_GE(a.result, 0);
            EXPECT_GE(step.k, 3);
            for (u32 i = 0; i < capacity; i++) {
                dir.put(i, before[i]);
            }
            return;
        }
        const bool is_memory = step.is(fault::allocation);
        if (is_memory && step.k == 0) {
            EXPECT_EQ(a, (answer{-ENOMEM, CHECK_HERE}));
        } else if (is_memory && step.k == 1) {
            EXPECT_EQ(a, (answer{-ENOMEM, "add_numeric_tail[N]: Failed to allocate memory!\n\n"}));
        } else {
            // If a FAT sector on the way cannot be read, the chain of the directory is broken.
            EXPECT_TRUE(a.result == (is_memory ? -ENOMEM : -EIO) || a.result == -EINVAL) << a;
            EXPECT_TRUE(step.k == 0 || a.messages.ends_with(CHECK_HERE)) << a;
        }
        EXPECT_EQ(changes_since(before), "");
        EXPECT_TRUE(sectors_written().empty());
    });
}

// ---- a new directory --------------------------------------------------------------------------

TEST_P(InitDirectory, FirstTwoEntriesAreWritten) {
    for (const u32 parent : {0U, 9U, last_cluster}) {
        const std::vector<u8> before = all(0);
        fill_data(40, 0);
        transfers();
        EXPECT_EQ(heard(init_directory(parent, 40)), (answer{0, ""}));
        const auto [dot, dot_dot] = dots(parent, 40);
        std::vector<u8> expected = before;
        std::copy(dot.begin(), dot.end(), expected.begin());
        std::copy(dot_dot.begin(), dot_dot.end(), expected.begin() + 32);
        EXPECT_EQ(data_of(40), expected);
        EXPECT_EQ(sectors_written(), std::vector<u64>{volume::first_sector_of(40)});
    }
}

TEST_P(InitDirectory, RestOfTheSectorIsNotChanged) {
    fill_data(40, 0xA7);
    EXPECT_EQ(heard(init_directory(9, 40)), (answer{0, ""}));
    const auto [dot, dot_dot] = dots(9, 40);
    std::vector<u8> expected = all(0xA7);
    std::copy(dot.begin(), dot.end(), expected.begin());
    std::copy(dot_dot.begin(), dot_dot.end(), expected.begin() + 32);
    EXPECT_EQ(data_of(40), expected);
}

TEST_P(InitDirectory, NumbersOfClustersAreStoredWhole) {
    const u32 parent = sv->fat_type == 16 ? 0xABC : 0xABCD;
    EXPECT_EQ(heard(init_directory(parent, last_cluster)), (answer{0, ""}));
    const auto [dot, dot_dot] = dots(parent, last_cluster);
    const std::vector<u8> data = data_of(last_cluster);
    EXPECT_TRUE(std::equal(dot.begin(), dot.end(), data.begin()));
    EXPECT_TRUE(std::equal(dot_dot.begin(), dot_dot.end(), data.begin() + 32));
}

TEST_P(InitDirectory, EachEntryHasItsOwnPermissions) {
    fat_perm = {1, 0x1111, 0x2222, 0750, 0207};
    EXPECT_EQ(heard(init_directory(9, 40)), (answer{0, ""}));
    const auto [dot, dot_dot] = dots(9, 40);
    const entry_image first = with_permissions(dot, 0750, 0x1111);
    const entry_image second = with_permissions(dot_dot, 0207, 0x2222);
    const std::vector<u8> data = data_of(40);
    EXPECT_TRUE(std::equal(first.begin(), first.end(), data.begin()));
    EXPECT_TRUE(std::equal(second.begin(), second.end(), data.begin() + 32));
}

TEST_P(InitDirectory, InvalidClusterIsRefused) {
    for (const u32 cluster : {1U, last_cluster + 1, 0xFFFFFFFFU}) {
        const answer a = heard(init_directory(0, cluster));
        EXPECT_EQ(a.result, -EINVAL);
        EXPECT_TRUE(a.messages.ends_with(INIT_CHECK_HERE)) << a;
    }
    EXPECT_TRUE(transfers().empty());
}

TEST_P(InitDirectory, ReadOfAnotherCountFails) {
    fill_data(40, 0xA7);
    v.disk.unreadable = {volume::first_sector_of(40)};
    for (const int result : {0, 2}) {
        v.disk.failure_result = result;
        const answer a = heard(init_directory(0, 40));
        EXPECT_LT(a.result, 0) << "the read moved " << result;
        EXPECT_TRUE(a.messages.ends_with(INIT_CHECK_HERE)) << a;
    }
    EXPECT_TRUE(sectors_written().empty());
    EXPECT_EQ(data_of(40), all(0xA7));
}

TEST_P(InitDirectory, WriteOfAnotherCountFails) {
    v.disk.failure_result = 2;
    v.disk.writes_before_failure = 0;
    const answer a = heard(init_directory(0, 40));
    EXPECT_LT(a.result, 0);
    EXPECT_EQ(a.messages, INIT_CHECK_HERE);
}

TEST_P(InitDirectory, EveryFaultIsReportedAndWritesNothing) {
    fill_data(40, 0xA7);
    std::vector<fault_kind> kinds = {EVERY_ALLOCATION, EVERY_READ};
    for (const int moved : {-1, -5, -28, 0}) {
        kinds.push_back({fault::write, false, moved});
    }
    at_every_fault(kinds, [&](fault_step &step) {
        const answer a = heard(step.run([] { return init_directory(0, 40); }));
        EXPECT_EQ(step.struck(), step.k == 0);
        if (!step.struck()) {
            EXPECT_EQ(a, (answer{0, ""}));
            fill_data(40, 0xA7);
            return;
        }
        if (step.is(fault::allocation)) {
            EXPECT_EQ(a, (answer{-ENOMEM, INIT_CHECK_HERE}));
        } else if (step.is(fault::read)) {
            EXPECT_EQ(a.result, -EIO);
            EXPECT_TRUE(a.messages.ends_with(INIT_CHECK_HERE)) << a;
        } else if (step.kind.transfer_result < 0) {
            EXPECT_EQ(a, (answer{step.kind.transfer_result, INIT_CHECK_HERE}));
        } else {
            EXPECT_LT(a.result, 0);
            EXPECT_EQ(a.messages, INIT_CHECK_HERE);
        }
        EXPECT_EQ(data_of(40), all(0xA7));
    });
}
