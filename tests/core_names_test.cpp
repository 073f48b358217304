// Names, geometry and boot sectors of the engine.

#include "core/boot_sector.h"
#include "core/format.h"
#include "core/geometry.h"
#include "core/long_name.h"
#include "tests/support/faults.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <vector>

using namespace core;

namespace {

using slot_bytes = std::array<u8, DENTRY_SIZE>;

const u8 *bytes_of(const char *text) {
    return reinterpret_cast<const u8 *>(text);
}

// The slots of a name in the order of the medium.
std::vector<slot_bytes> slots_of(std::u16string name, u8 checksum) {
    const u32 count = long_slots_of(static_cast<u32>(name.size()));
    name.push_back(0);
    const std::vector<u16> units(name.begin(), name.end());
    std::vector<slot_bytes> slots(count);
    for (u32 number = 1; number <= count; number++) {
        store_slot_of_name(slots[count - number].data(), number, count, units.data(), checksum,
                           name_end::TERMINATOR);
    }
    return slots;
}

std::u16string name_of(const u16 *units) {
    std::u16string name;
    for (; *units != 0; units++) {
        name.push_back(static_cast<char16_t>(*units));
    }
    return name;
}

std::u16string name_of_length(u32 length) {
    std::u16string name;
    for (u32 i = 0; i < length; i++) {
        name.push_back(static_cast<char16_t>(u'a' + i % 26 + i / 26 * 0x100));
    }
    return name;
}

constexpr const char *SHORT = "LONGNA~1TXT";

} // namespace

// ---- long names -------------------------------------------------------------------------------

TEST(NameAssembler, ReturnsEveryNameThatIsStored) {
    const u8 checksum = checksum_of(bytes_of(SHORT));
    name_assembler assembler;
    for (u32 length = 1; length <= MAX_NAME_UNITS; length++) {
        const std::u16string name = name_of_length(length);
        u32 index = 100;
        for (const slot_bytes &slot : slots_of(name, checksum)) {
            EXPECT_FALSE(assembler.is_whole());
            assembler.accept(slot.data(), index++);
        }
        EXPECT_TRUE(assembler.belongs_to(bytes_of(SHORT)));
        EXPECT_FALSE(assembler.belongs_to(bytes_of("LONGNA~2TXT")));
        EXPECT_EQ(name_of(assembler.units()), name);
        EXPECT_EQ(assembler.first_slot(), 100U);
        assembler.reset();
        EXPECT_FALSE(assembler.belongs_to(bytes_of(SHORT)));
    }
}

TEST(NameAssembler, ReturnsEveryUnitThatIsStored) {
    const u8 checksum = checksum_of(bytes_of(SHORT));
    for (u32 first = 1; first <= 0xFFFF; first += MAX_NAME_UNITS) { // 257 times 255 units
        std::u16string name;
        for (u32 i = 0; i < MAX_NAME_UNITS; i++) {
            name.push_back(static_cast<char16_t>(first + i));
        }
        name_assembler assembler;
        for (const slot_bytes &slot : slots_of(name, checksum)) {
            assembler.accept(slot.data(), 0);
        }
        ASSERT_EQ(name_of(assembler.units()), name) << first;
    }
}

TEST(NameAssembler, AcceptsOnlyWholeNames) {
    struct row {
        const char *what;
        void (*damage)(std::vector<slot_bytes> *slots);
        bool is_whole;
    };
    using slots = std::vector<slot_bytes>;
    const row rows[] = {
        {"nothing", [](slots *) {}, true},
        {"the first slot is missing", [](slots *s) { s->erase(s->begin()); }, false},
        {"a slot is missing", [](slots *s) { s->erase(s->begin() + 1); }, false},
        {"the last slot is missing", [](slots *s) { s->pop_back(); }, false},
        {"two are exchanged", [](slots *s) { std::swap((*s)[1], (*s)[2]); }, false},
        {"one is repeated", [](slots *s) { s->insert(s->begin() + 1, (*s)[1]); }, false},
        {"another checksum", [](slots *s) { (*s)[1][SLOT_CHECKSUM.offset] ^= 1; }, false},
        {"marked twice", [](slots *s) { (*s)[1][0] |= SLOT_LAST; }, true}, // a shorter name
        {"number 0", [](slots *s) { (*s)[0][0] = SLOT_LAST; }, false},
        {"more slots than a name has", [](slots *s) { (*s)[0][0] = SLOT_LAST | 21; }, false},
        {"an orphan before it", [](slots *s) { s->insert(s->begin(), s->back()); }, true},
        {"empty", [](slots *s) { store16(s->back().data() + 1, 0); }, false},
    };
    for (const row &r : rows) {
        slots stored = slots_of(name_of_length(50), checksum_of(bytes_of(SHORT)));
        r.damage(&stored);
        name_assembler assembler;
        for (const slot_bytes &slot : stored) {
            assembler.accept(slot.data(), 0);
        }
        EXPECT_EQ(assembler.is_whole(), r.is_whole) << r.what;
        EXPECT_EQ(assembler.belongs_to(bytes_of(SHORT)), r.is_whole) << r.what;
    }
}

TEST(GatherSlot, UsesTheOrdinalWhateverTheOrder) {
    std::vector<slot_bytes> slots = slots_of(name_of_length(39), 0);
    std::swap(slots[0], slots[2]);
    u16 name[256] = {};
    for (const slot_bytes &slot : slots) {
        gather_slot(slot.data(), name, 256);
    }
    EXPECT_EQ(name_of(name), name_of_length(39));
    for (u32 ordinal = 0; ordinal < 256; ordinal++) { // nothing outside the room
        slots[0][0] = static_cast<u8>(ordinal);
        u16 guarded[3] = {0x7777, 0x7777, 0x7777};
        gather_slot(slots[0].data(), guarded, 2);
        EXPECT_EQ(guarded[2], 0x7777) << ordinal;
    }
}

TEST(CopyUnits, CopiesThePaddingOnRequest) {
    const std::vector<slot_bytes> slots = slots_of(u"ab", 0);
    for (const auto &[which, third] :
         {std::pair(slot_units::TO_TERMINATOR, 0x7777), std::pair(slot_units::ALL, 0xFFFF)}) {
        u16 name[UNITS_PER_SLOT + 1];
        std::fill(std::begin(name), std::end(name), u16{0x7777});
        copy_units(slots[0].data(), 0, which, name, UNITS_PER_SLOT + 1);
        EXPECT_EQ(name_of(name), u"ab");
        EXPECT_EQ(name[3], third);
        EXPECT_EQ(name[UNITS_PER_SLOT], 0x7777);
    }
}

// ---- short names ------------------------------------------------------------------------------

TEST(ShortName, HasCertainCharacters) {
    const std::string valid = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789$%'-_@~`!(){}^#&";
    for (u32 c = 0; c < 0x180; c++) {
        const bool is_valid = c < 0x80 && valid.find(static_cast<char>(c)) != std::string::npos;
        EXPECT_EQ(is_short_name_character(c), is_valid) << c;
    }
}

TEST(ShortName, HalvesDropAndReplaceCharacters) {
    struct row {
        std::string text;
        const char *half;
        bool is_exact;
    };
    const auto stored = [](char c) { return c == '+' ? u8{0} : to_upper(static_cast<u8>(c)); };
    for (const row &r :
         {row{"", "   ", true}, row{"a", "A  ", true}, row{"abc", "ABC", true},
          row{"abcd", "ABC", false}, row{"a b.c", "ABC", false}, row{"a+", "A_ ", false}}) {
        u8 half[4] = "   ";
        EXPECT_EQ(fill_half(r.text, half, 3, stored), r.is_exact) << r.text;
        EXPECT_STREQ(reinterpret_cast<const char *>(half), r.half);
    }
}

TEST(ShortName, TailsFollowTheBaseOrReplaceItsEnd) {
    struct row {
        const char *name;
        u32 tail;
        std::string expected;
    };
    for (const row &r :
         {row{"A       TXT", 1, "A~1     TXT"}, row{"ABCDEFGHTXT", 1, "ABCDEF~1TXT"},
          row{"ABCDEFGHTXT", 1023, "ABC~1023TXT"}, row{"ABCDE   TXT", 10, "ABCDE~10TXT"}}) {
        u8 name[12] = {};
        std::copy_n(r.name, 11, name);
        write_tail(name, r.tail);
        EXPECT_EQ(reinterpret_cast<const char *>(name), r.expected);
        tail_set tails;
        tails.mark(name, bytes_of(r.name));
        EXPECT_EQ(tails.lowest_free(), r.tail == 1 ? 2U : 1U);
    }
    tail_set all;
    for (u32 tail = 1; tail < tail_set::END; tail++) {
        EXPECT_EQ(all.lowest_free(), tail);
        u8 name[12] = "ABCDEFGHTXT";
        write_tail(name, tail);
        all.mark(name, name);
    }
    EXPECT_EQ(all.lowest_free(), tail_set::END);
}

// ---- geometry and boot sectors ----------------------------------------------------------------

TEST(Geometry, RequestsAreLaidOutOrRefused) {
    struct row {
        u32 width;
        u32 sectors;
        u32 page;
        layout_fault why;
        width_rule rule = width_rule::CLUSTER_COUNT;
    };
    const row rows[] = {
        {12, 256, 0, layout_fault::NONE, width_rule::FAT_SIZE},
        {12, 256, 4096, layout_fault::NONE, width_rule::FAT_SIZE},
        {12, 16384, 8192, layout_fault::NONE, width_rule::FAT_SIZE}, // 4,084 clusters or a few less
        {12, 32, 0, layout_fault::NO_ROOM, width_rule::FAT_SIZE},
        {12, 36, 0, layout_fault::FEW_CLUSTERS, width_rule::FAT_SIZE},
        {12, 16500, 0, layout_fault::MANY_CLUSTERS, width_rule::FAT_SIZE},
        {32, 128, 0, layout_fault::NONE, width_rule::FAT_SIZE},
        {32, 32768, 4096, layout_fault::NONE, width_rule::FAT_SIZE},
        {32, 1048576, 4096, layout_fault::NONE, width_rule::FAT_SIZE},
        {32, 36, 0, layout_fault::FEW_CLUSTERS, width_rule::FAT_SIZE},
        {16, 32768, 0, layout_fault::NONE},
        {16, 32768, 4096, layout_fault::NONE},
        {32, 1048576, 16384, layout_fault::NONE},
        {0, 1048576, 0, layout_fault::NONE},
        {16, 20, 0, layout_fault::NO_ROOM},
        {16, 1000, 0, layout_fault::FEW_CLUSTERS},
        {16, 1048576, 0, layout_fault::MANY_CLUSTERS},
        {32, 20, 0, layout_fault::NO_ROOM},
        {32, 32768, 0, layout_fault::FEW_CLUSTERS},
    };
    for (const row &r : rows) {
        const layout_request request = {.width = r.width,
                                        .page_size = r.page,
                                        .sector_size = 512,
                                        .sectors_per_cluster = 4,
                                        .root_entries = 512,
                                        .fats = 2,
                                        .rule = r.rule};
        ASSERT_TRUE(request.is_valid());
        const volume_layout layout = lay_out(request, r.sectors);
        EXPECT_EQ(layout.why, r.why) << r.width << " " << r.sectors;
        if (layout.why != layout_fault::NONE) {
            continue;
        }
        const areas at = areas_of(request, layout, r.sectors);
        EXPECT_LE(u64{at.data_start} + u64{at.clusters} * 4, r.sectors);
        EXPECT_GE(u64{at.fat_sectors} * 512, (u64{at.clusters} + 2) * at.width / 8);
        if (r.page != 0) {
            EXPECT_EQ(at.fat_start * 512 % r.page, 0U);
            EXPECT_EQ(at.data_start * 512 % r.page, 0U);
        }
        u8 boot[512] = {};
        const std::array<u8, 11> label = {};
        store_boot_sector(boot, at, {request.fats, layout.root_entries(512), 1, label});
        areas read;
        EXPECT_TRUE(is_boot_signature(boot));
        EXPECT_EQ(read_areas(boot_numbers(boot), r.rule, &read), fault::NONE);
        EXPECT_EQ(read.clusters, at.clusters);
        EXPECT_EQ(read.data_start, at.data_start);
        EXPECT_EQ(read.root_start, at.root_start);
        EXPECT_EQ(read.width, at.width);
    }
}

TEST(Format, NeedsMemoryForABuffer) {
    const layout_request request = {16, 0, 512, 4, 512, 2};
    std::vector<u8> content(32768 * std::size_t{512});
    memory_medium memory(content);
    const volume to = {&memory, areas_of(request, lay_out(request, 32768), 32768)};
    const std::array<u8, 11> label = {};
    const testing_support::failing_allocation no_memory(0);
    EXPECT_EQ(format(to, {2, 512, 1, label}, {}), fault::NO_MEMORY);
    EXPECT_EQ(content, std::vector<u8>(content.size()));
}

TEST(BootSector, ContradictionsAreFaults) {
    struct row {
        const field *changed;
        u32 value;
        fault why;
    };
    const row rows[] = {
        {&PBR_BYTES_PER_SECTOR, 0, fault::BOOT_NUMBERS},
        {&PBR_BYTES_PER_SECTOR, 513, fault::BOOT_NUMBERS},
        {&PBR_BYTES_PER_SECTOR, 256, fault::BOOT_NUMBERS},
        {&PBR_BYTES_PER_SECTOR, 8192, fault::BOOT_NUMBERS},
        {&PBR_SECTORS_PER_CLUSTER, 0, fault::BOOT_NUMBERS},
        {&PBR_TOTAL_SECTORS_16, 10, fault::BOOT_NUMBERS}, // smaller than its areas
        {&PBR_TOTAL_SECTORS_16, 1000, fault::FEW_CLUSTERS},
        {&PBR_ROOT_ENTRIES, 0, fault::BOOT_NUMBERS}, // of FAT16
        {&PBR_FAT_SIZE_16, 0, fault::BOOT_NUMBERS},
        {&PBR_MEDIA, 0, fault::NONE},
    };
    const layout_request request = {16, 0, 512, 4, 512, 2};
    const volume_layout layout = lay_out(request, 32768);
    for (const row &r : rows) {
        u8 boot[512] = {};
        const std::array<u8, 11> label = {};
        store_boot_sector(boot, areas_of(request, layout, 32768), {2, 512, 1, label});
        store(boot, *r.changed, r.value);
        areas at;
        EXPECT_EQ(read_areas(boot_numbers(boot), width_rule::CLUSTER_COUNT, &at), r.why)
            << r.changed->name << " " << r.value;
    }
}

TEST(BootSector, OneRuleReadsTheActiveFat) {
    struct row {
        u32 flags;
        u32 fats;
        u32 copy; // that is read
    };
    for (const row &r : {row{0x80, 2, 0},
                         {0x81, 2, 1},
                         {0x8E, 15, 14},
                         {0x8F, 15, 0},
                         {0x81, 1, 0},
                         {0x82, 0, 0},
                         {0x01, 2, 0},
                         {0xFF71, 2, 0},
                         {0xFFF1, 2, 1}}) {
        u8 boot[512] = {};
        store(boot, PBR_BYTES_PER_SECTOR, 512);
        store(boot, PBR_SECTORS_PER_CLUSTER, 1);
        store(boot, PBR_RESERVED_SECTORS, 32);
        store(boot, PBR_NUMBER_OF_FATS, r.fats);
        store(boot, PBR32_FAT_SIZE, 600);
        store(boot, PBR32_EXTENDED_FLAGS, r.flags);
        store(boot, PBR_TOTAL_SECTORS_32, 100000);
        for (const auto &[rule, copy] :
             {std::pair{width_rule::CLUSTER_COUNT, 0U}, {width_rule::FAT_SIZE, r.copy}}) {
            areas at;
            EXPECT_EQ(read_areas(boot_numbers(boot), rule, &at), fault::NONE);
            EXPECT_EQ(at.fat_start, 32 + copy * 600) << r.flags;
            EXPECT_EQ(at.data_start, 32 + r.fats * 600);
        }
    }
}

TEST(BootSector, RulesForTheWidthDiffer) {
    struct row {
        u32 clusters;
        bool has_fat32_sizes;
        u32 root_entries;
        u32 by_count; // width; 0: refused
        u32 by_size;
    };
    const row rows[] = {
        {0, true, 0, 0, 0},         {1, true, 0, 0, 32},         {4084, true, 0, 0, 32},
        {65524, true, 0, 0, 32},    {65525, true, 0, 32, 32},    {4085, true, 512, 16, 32},
        {0, false, 512, 0, 0},      {1, false, 512, 0, 12},      {4084, false, 512, 0, 12},
        {4085, false, 512, 16, 16}, {65524, false, 512, 16, 16}, {65525, false, 512, 32, 0},
        {4084, false, 0, 0, 0},     {4085, false, 0, 0, 0},
    };
    for (const row &r : rows) {
        u8 boot[512] = {};
        store(boot, PBR_BYTES_PER_SECTOR, 512);
        store(boot, PBR_SECTORS_PER_CLUSTER, 1);
        store(boot, PBR_RESERVED_SECTORS, 32);
        store(boot, PBR_NUMBER_OF_FATS, 1);
        store(boot, PBR_ROOT_ENTRIES, r.root_entries);
        store(boot, r.has_fat32_sizes ? PBR32_FAT_SIZE : PBR_FAT_SIZE_16, 600);
        store(boot, PBR_TOTAL_SECTORS_32, 32 + 600 + r.root_entries / 16 + r.clusters);
        for (const auto &[rule, width] : {std::pair{width_rule::CLUSTER_COUNT, r.by_count},
                                          {width_rule::FAT_SIZE, r.by_size}}) {
            areas at;
            const fault why = read_areas(boot_numbers(boot), rule, &at);
            EXPECT_EQ(why == fault::NONE ? at.width : 0, width) << r.clusters;
            EXPECT_TRUE(why == fault::NONE || why == fault::FEW_CLUSTERS ||
                        why == fault::BOOT_NUMBERS);
        }
    }
}
