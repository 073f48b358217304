// The FAT and the directories of the engine, on volumes of a few sectors in memory.

#include "core/allocator.h"
#include "core/boot_sector.h"
#include "core/chain.h"
#include "core/directory_cache.h"
#include "core/long_name.h"
#include "core/record.h"
#include "core/recorder.h"
#include "core/slots.h"
#include "tests/support/faults.h"
#include "tests/support/read_only_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <numeric>
#include <random>
#include <vector>

using namespace core;

namespace {

constexpr u32 SECTOR = 512;
constexpr u32 FAT_SECTORS = 4;
constexpr u32 CLUSTERS = 400; // in every width: more than one FAT sector

// Sector 0, the FAT, a root area of one sector, one sector a cluster.
struct small_volume {
    std::vector<u8> content = std::vector<u8>((2 + FAT_SECTORS + CLUSTERS) * SECTOR);
    memory_medium memory{content};
    recorder record{memory};
    volume on;

    explicit small_volume(u32 width) {
        on = {&record,
              {.width = width,
               .sector_size = SECTOR,
               .sectors_per_cluster = 1,
               .total_sectors = 2 + FAT_SECTORS + CLUSTERS,
               .fat_start = 1,
               .fat_sectors = FAT_SECTORS,
               .root_start = 1 + FAT_SECTORS,
               .root_cluster = 0,
               .data_start = 2 + FAT_SECTORS,
               .clusters = CLUSTERS}};
    }
    [[nodiscard]] u8 *entry(u32 index) {
        return content.data() + SECTOR + on.entry_offset(index);
    }
    void set(u32 index, u32 value) {
        store_entry(on.at.width, index, entry(index), value);
    }
    void link(const std::vector<u32> &chain, u32 end = FAT_END_MARK) {
        for (std::size_t i = 0; i < chain.size(); i++) {
            set(chain[i], i + 1 < chain.size() ? chain[i + 1] : end);
        }
    }
};

class EveryWidth : public testing::TestWithParam<u32> {
protected:
    // Those that begin in it; the last one of FAT12 ends in the next sector.
    [[nodiscard]] static u32 entries_per_sector() {
        return SECTOR * 8 / GetParam();
    }
};
INSTANTIATE_TEST_SUITE_P(Core, EveryWidth, testing::Values(12, 16, 32));

} // namespace

// ---- entries ----------------------------------------------------------------------------------

TEST_P(EveryWidth, LateWritesEachSectorOnceAndAtOnceEveryChange) {
    const u32 in_sector = entries_per_sector();
    const std::map<u32, u32> changes = {
        {2, 3}, {3, 4}, {in_sector - 1, 9}, {in_sector, FAT_END_MARK}};
    for (const auto when : {table::writing::AT_ONCE, table::writing::LATE}) {
        small_volume vol(GetParam());
        vol.set(5, 7);
        table fat(vol.on, when);
        for (const auto &[index, value] : changes) {
            EXPECT_EQ(fat.set(index, value), fault::NONE);
            EXPECT_EQ(fat.value(index).value, value & vol.on.value_mask());
        }
        EXPECT_EQ(fat.has_late_changes(), when == table::writing::LATE);
        EXPECT_EQ(fat.flush(), fault::NONE);
        EXPECT_FALSE(fat.has_late_changes());
        const u32 at_once = GetParam() == 12 ? 5 : 4; // one entry lies in two sectors
        EXPECT_EQ(vol.record.steps(), when == table::writing::LATE ? 2U : at_once);
        EXPECT_EQ(load_entry(GetParam(), 3, vol.entry(3)), 4U);
        EXPECT_EQ(load_entry(GetParam(), 5, vol.entry(5)), 7U);
        EXPECT_TRUE(
            vol.on.is_end_of_chain(load_entry(GetParam(), in_sector, vol.entry(in_sector))));
    }
}

TEST_P(EveryWidth, AChangeLeavesTheNeighboursAsTheyWere) {
    std::mt19937 random(GetParam());
    for (const auto when : {table::writing::AT_ONCE, table::writing::LATE}) {
        small_volume vol(GetParam());
        std::vector<u32> values(CLUSTERS + 2);
        table fat(vol.on, when);
        for (int i = 0; i < 3000; i++) {
            const u32 index =
                static_cast<u32>(i % 3 == 0 ? 335 + random() % 12 : random() % values.size());
            values[index] = static_cast<u32>(random()) & vol.on.value_mask();
            ASSERT_EQ(fat.set(index, values[index]), fault::NONE);
            const u32 other = static_cast<u32>(random() % values.size());
            ASSERT_EQ(fat.value(other).value, values[other]);
        }
        ASSERT_EQ(fat.flush(), fault::NONE);
        for (u32 index = 0; index < values.size(); index++) {
            EXPECT_EQ(load_entry(GetParam(), index, vol.entry(index)), values[index]) << index;
            EXPECT_EQ(table(vol.on).value(index).value, values[index]) << index;
        }
    }
}

TEST(Fat12Entry, InTwoSectorsOfWhichOneFailsIsAFault) {
    constexpr u32 STRADDLING = 341;
    small_volume vol(12);
    vol.on.at.fat_start = static_cast<u32>(vol.content.size() / SECTOR) - 1; // nothing follows it
    table fat(vol.on);
    EXPECT_TRUE(fat.value(STRADDLING - 1).ok());
    EXPECT_EQ(fat.value(STRADDLING).why, fault::TABLE_READ);
    EXPECT_EQ(fat.set(STRADDLING, 5), fault::TABLE_READ);
    vol.on.at.fat_start = 1;
    const testing_support::read_only_file file(vol.content.size());
    file_medium unwritable(file.fd(), vol.content.size());
    vol.on.device = &unwritable;
    EXPECT_EQ(table(vol.on).set(STRADDLING, 5), fault::TABLE_WRITE);
    EXPECT_EQ(table(vol.on, table::writing::LATE).set(STRADDLING, 5), fault::TABLE_WRITE);
}

TEST(Fat32Entry, KeepsItsReservedBits) {
    small_volume vol(32);
    store32(vol.entry(9), 0xA0000000);
    table fat(vol.on);
    EXPECT_EQ(fat.value(9).value, FAT_FREE);
    EXPECT_EQ(fat.set(9, 0xF0000005), fault::NONE);
    EXPECT_EQ(load32(vol.entry(9)), 0xA0000005);
}

TEST_P(EveryWidth, LinksAreClassified) {
    small_volume vol(GetParam());
    const u32 end = vol.on.value_mask() - 7;
    struct row {
        u32 value;
        link_kind kind;
        fault why;
    };
    for (const row &r :
         {row{FAT_FREE, link_kind::FREE, fault::NONE},
          row{1, link_kind::OUTSIDE, fault::LINK_VALUE}, row{2, link_kind::NEXT, fault::NONE},
          row{CLUSTERS + 1, link_kind::NEXT, fault::NONE},
          row{CLUSTERS + 2, link_kind::OUTSIDE, fault::LINK_VALUE},
          row{end - 1, link_kind::BAD, fault::LINK_VALUE}, row{end, link_kind::END, fault::NONE},
          row{end + 7, link_kind::END, fault::NONE}}) {
        vol.set(8, r.value);
        EXPECT_EQ(vol.on.kind_of_link(r.value), r.kind) << r.value;
        EXPECT_EQ(table(vol.on).link(8).why, r.why) << r.value;
    }
    EXPECT_EQ(table(vol.on).link(1).why, fault::CLUSTER_NUMBER);
    EXPECT_EQ(table(vol.on).link(CLUSTERS + 2).why, fault::CLUSTER_NUMBER);
    vol.on.at.width = 20;
    EXPECT_EQ(table(vol.on).value(2).why, fault::WIDTH);
    EXPECT_EQ(table(vol.on).set(2, 0), fault::WIDTH);
    vol.on.at.sector_size = 0;
    EXPECT_EQ(table(vol.on).value(2).why, fault::NO_GEOMETRY);
}

TEST_P(EveryWidth, AFailedWriteStatesTheFirstLostStep) {
    small_volume vol(GetParam());
    const testing_support::read_only_file file(vol.content.size());
    file_medium unwritable(file.fd(), vol.content.size());
    vol.on.device = &unwritable;
    table fat(vol.on, table::writing::LATE);
    for (u32 step = 0; step < 3; step++) { // the third one leaves the sector of the others
        fat.begin_step(7 + step);
        EXPECT_EQ(fat.set(2 + step / 2 * entries_per_sector(), 5),
                  step < 2 ? fault::NONE : fault::TABLE_WRITE);
        EXPECT_EQ(fat.write_failed(), step == 2);
    }
    EXPECT_EQ(fat.first_lost_step(), 7U);
    EXPECT_FALSE(fat.has_late_changes());
    EXPECT_EQ(fat.value(2).value, FAT_FREE); // as on the medium
    EXPECT_EQ(table(vol.on).set(2, 5), fault::TABLE_WRITE);
    EXPECT_EQ(fat.value(FAT_SECTORS * entries_per_sector() * 200).why, fault::TABLE_READ);
}

// ---- allocation -------------------------------------------------------------------------------

TEST_P(EveryWidth, NextFitWrapsOnce) {
    constexpr u32 LAST = CLUSTERS + 1;
    struct row {
        std::vector<u32> free;
        u32 hint;
        u32 found; // 0: none
        bool has_wrapped;
    };
    for (const row &r : {row{{2, 300, LAST}, 2, 300, false}, row{{2, 300, LAST}, 300, LAST, false},
                         row{{2, 300}, 300, 2, true}, row{{300}, 300, 300, true},
                         row{{}, 300, 0, true}, row{{2, LAST}, LAST, 2, false},
                         row{{LAST}, 0, LAST, false}, row{{2}, LAST - 1, 2, true}}) {
        small_volume vol(GetParam());
        for (u32 cluster = 2; cluster <= LAST; cluster++) {
            vol.set(cluster, FAT_END_MARK);
        }
        for (const u32 cluster : r.free) {
            vol.set(cluster, FAT_FREE);
        }
        table fat(vol.on);
        next_fit search{corrected_hint(vol.on, r.hint)};
        const result<u32> found = search.find(fat);
        EXPECT_EQ(found.ok() ? found.value : 0, r.found) << r.hint;
        EXPECT_EQ(found.why, r.found != 0 ? fault::NONE : fault::NO_SPACE);
        EXPECT_EQ(search.has_wrapped, r.has_wrapped) << r.hint;
    }
    small_volume vol(GetParam());
    vol.set(200, 1);
    for (u32 cluster = 150; cluster < 200; cluster++) {
        vol.set(cluster, FAT_END_MARK);
    }
    table fat(vol.on);
    next_fit search{149};
    EXPECT_EQ(search.find(fat).why, fault::LINK_VALUE);
    EXPECT_EQ(search.stopped_at, 200U);
}

TEST(LowestFree, ContinuesAndReturnsToFreedClusters) {
    std::vector<bool> is_free(20, true);
    lowest_free search;
    const auto take = [&] {
        const u32 found = search.find(19, [&](u32 cluster) { return is_free[cluster]; });
        is_free[found] = false;
        return found;
    };
    for (u32 expected = 2; expected < 20; expected++) {
        EXPECT_EQ(take(), expected);
    }
    EXPECT_EQ(take(), 0U);
    for (const u32 freed : {12U, 7U, 15U}) {
        is_free[freed] = true;
        search.freed(freed);
    }
    EXPECT_EQ(take(), 7U);
    EXPECT_EQ(take(), 12U);
    EXPECT_EQ(take(), 15U);
    EXPECT_EQ(take(), 0U);
}

// ---- chains -----------------------------------------------------------------------------------

TEST_P(EveryWidth, CursorMovesAlongAnyChain) {
    std::mt19937 random(GetParam());
    for (int round = 0; round < 10; round++) {
        small_volume vol(GetParam());
        std::vector<u32> chain(CLUSTERS);
        std::iota(chain.begin(), chain.end(), 2);
        for (int swaps = 0; swaps < round * 10; swaps++) {
            std::swap(chain[random() % CLUSTERS], chain[random() % CLUSTERS]);
        }
        vol.link(chain);
        table fat(vol.on);
        chain_cursor cursor;
        for (int i = 0; i < 100; i++) {
            const u32 to = static_cast<u32>(random() % CLUSTERS);
            ASSERT_EQ(cursor.move(fat, chain[0], to), fault::NONE);
            ASSERT_EQ(cursor.cluster, chain[to]);
        }
        EXPECT_EQ(cursor.move(fat, chain[0], CLUSTERS), fault::NONE);
        EXPECT_TRUE(vol.on.is_end_of_chain(cursor.cluster));
        u32 stopped_at = 0;
        const result<chain_length> length = measure_chain(fat, chain[0], &stopped_at);
        ASSERT_TRUE(length.ok());
        EXPECT_EQ(length.value.clusters, CLUSTERS);
        EXPECT_EQ(length.value.last, chain.back());
    }
}

TEST_P(EveryWidth, EveryCycleIsDetected) {
    for (u32 tail = 0; tail < 12; tail++) {
        for (u32 loop = 1; loop < 12; loop++) {
            for (const u32 stride : {1U, 3U}) {
                small_volume vol(GetParam());
                std::vector<u32> chain(tail + loop);
                for (u32 i = 0; i < chain.size(); i++) {
                    chain[i] = 5 + i * stride;
                }
                vol.link(chain, chain[tail]);
                table fat(vol.on);
                chain_cursor cursor;
                EXPECT_EQ(cursor.move(fat, chain[0], CLUSTERS), fault::CYCLE);
                EXPECT_EQ(cursor.first, 0U);
                EXPECT_EQ(cursor.move(fat, chain[0], tail), fault::NONE);
                EXPECT_EQ(cursor.cluster, chain[tail]);
                u32 stopped_at = 0;
                EXPECT_EQ(measure_chain(fat, chain[0], &stopped_at).why, fault::CYCLE);
            }
        }
    }
}

TEST_P(EveryWidth, BrokenChainsAreNotMeasured) {
    struct row {
        u32 end;
        fault why;
    };
    for (const row &r : {row{FAT_FREE, fault::FREE_CLUSTER}, row{1, fault::LINK_VALUE},
                         row{CLUSTERS + 2, fault::LINK_VALUE}}) {
        small_volume vol(GetParam());
        vol.link({9, 4, 6}, r.end);
        table fat(vol.on);
        u32 stopped_at = 0;
        EXPECT_EQ(measure_chain(fat, 9, &stopped_at).why, r.why);
        EXPECT_EQ(stopped_at, 6U);
        EXPECT_EQ(measure_chain(fat, 0, &stopped_at).why, fault::CLUSTER_NUMBER);
    }
}

// ---- slots ------------------------------------------------------------------------------------

namespace {

constexpr u32 PER_SECTOR = SECTOR / DENTRY_SIZE;

void store_name(u8 *slot, const char *name) {
    store_short_entry(slot, {.name = reinterpret_cast<const u8 *>(name)});
}

} // namespace

TEST_P(EveryWidth, WalkVisitsTheSlotsOfAChainAndOfTheRootArea) {
    small_volume vol(GetParam());
    const std::vector<u32> chain = {7, 8, 20};
    vol.link(chain);
    for (u32 i = 0; i < chain.size(); i++) {
        for (u32 slot = 0; slot < PER_SECTOR; slot++) {
            vol.content[std::size_t{vol.on.sector_of(chain[i])} * SECTOR + slot * DENTRY_SIZE] =
                static_cast<u8>(1 + i * PER_SECTOR + slot);
        }
    }
    table fat(vol.on);
    slot_walk walk(fat, 7);
    for (u32 slot = 0; slot < 3 * PER_SECTOR; slot++) {
        const result<u8 *> found = walk.to(slot);
        ASSERT_TRUE(found.ok());
        EXPECT_EQ(*found.value, 1 + slot);
        EXPECT_EQ(walk.place().sector, vol.on.sector_of(chain[slot / PER_SECTOR]));
        EXPECT_EQ(walk.place().offset, slot % PER_SECTOR * DENTRY_SIZE);
    }
    EXPECT_EQ(walk.to(3 * PER_SECTOR).why, fault::CHAIN_END);
    slot_walk root(fat, 0);
    const bool has_area = GetParam() != 32;
    EXPECT_EQ(root.to(PER_SECTOR - 1).why, has_area ? fault::NONE : fault::START_RESERVED);
    EXPECT_EQ(root.to(PER_SECTOR).why, has_area ? fault::ROOT_AREA_END : fault::START_RESERVED);
    slot_walk limited(fat, 7, 4);
    EXPECT_TRUE(limited.to(0).ok());
    EXPECT_EQ(slot_walk(fat, 7, 4).to(PER_SECTOR).why, fault::SIZE_END);
    EXPECT_EQ(slot_walk(fat, 1).to(0).why, fault::START_RESERVED);
    EXPECT_EQ(slot_walk(fat, CLUSTERS + 2).to(0).why, fault::START_OUTSIDE);
}

TEST(SlotSurvey, FindsTheFirstSpanAndTheTailsInUse) {
    u8 slots[8][DENTRY_SIZE] = {};
    const char *names[] = {"NAME~1  TXT", "", "NAME~2  TXT", "", "", "OTHER~3 TXT", "", ""};
    for (u32 i = 0; i < 8; i++) {
        if (*names[i] != 0) {
            store_name(slots[i], names[i]);
        } else {
            slots[i][0] = NAME_DELETED;
        }
    }
    const u8 *wanted = reinterpret_cast<const u8 *>("NAME    TXT");
    struct row {
        u32 slots;
        u32 limit;
        u32 span_end;
    };
    for (const row &r : {row{1, 8, 2}, row{2, 8, 5}, row{3, 8, 0}, row{2, 4, 0}}) {
        slot_survey survey = {r.limit, free_span(r.slots), wanted};
        for (const auto &slot : slots) {
            survey.visit(slot);
        }
        EXPECT_EQ(survey.span_end, r.span_end);
        EXPECT_EQ(survey.visited, std::min(r.limit, 8U));
        EXPECT_EQ(survey.tails.lowest_free(), 3U);
    }
}

// ---- what is stored of a directory ------------------------------------------------------------

namespace {

// A directory of few clusters that changes at random, and what is stored of it.
class changing_directory {
public:
    changing_directory() {
        // Mostly full: an end within it hides what comes after.
        std::fill(slot(0), vol_.content.data() + vol_.content.size(), NAME_DELETED);
        vol_.link(chain_);
    }
    ~changing_directory() {
        cache.clear();
    }
    changing_directory(const changing_directory &) = delete;
    changing_directory &operator=(const changing_directory &) = delete;

    // Writes a name, a deleted or an unused slot somewhere, or changes the end of the chain.
    void change() {
        // Names are mostly replaced from their first slot on, and whole.
        u32 at = roll(slots());
        const bool is_careful = roll(32) != 0;
        while (is_careful && at > 0 && is_long(at - 1)) {
            at--;
        }
        u32 end = at;
        switch (roll(12)) {
        case 0:
        case 1:
            put(end++, {roll(40) == 0 ? NAME_UNUSED : NAME_DELETED});
            break;
        case 2:
            set_end(roll(8) != 0);
            break;
        default:
            end = put_name(at);
            break;
        }
        for (; is_careful && end < slots() && is_long(end); end++) {
            put(end, {NAME_DELETED});
        }
    }
    // A walk over what is not known yet. Begins again if the directory was unusual.
    void walk() {
        if (!cache.is_usable()) {
            cache.clear();
            cache.select(vol_.on, chain_[0]);
        }
        table fat(vol_.on);
        slot_walk walk(fat, chain_[0]);
        if (!walk.reserve()) {
            return;
        }
        chain_cursor cursor;
        cache.set_cursor(chain_[0], sector_index_of_slot(vol_.on, cache.walk_start()), &cursor);
        walk.start_from(cursor);
        for (u32 slot = cache.walk_start();; slot++) {
            const result<u8 *> found = walk.to(slot);
            cache.meet(walk, slot, found);
            if (!found.ok() || kind_of(found.value) == slot_kind::UNUSED) {
                return;
            }
        }
    }
    // Everything that is known is what a walk from the first slot finds.
    void expect_same() {
        const std::vector<u16> wanted = name();
        std::array<u8, SHORT_NAME.size> dos = short_name();
        slot_survey expected = {2 + roll(2 * slots()), free_span(1 + roll(5)), dos.data()};
        slot_survey found = expected;
        EXPECT_EQ(cache.find_long(wanted.data()), long_index(wanted));
        EXPECT_EQ(cache.find_short(dos.data()), short_index(dos));
        for (u32 i = 0; i < slots(); i++) {
            expected.visit(slot(i));
            if (kind_of(slot(i)) == slot_kind::UNUSED) {
                break;
            }
        }
        cache.survey(&found);
        EXPECT_EQ(found.span_end, expected.span_end);
        EXPECT_EQ(found.visited, expected.visited);
        EXPECT_EQ(found.tails.lowest_free(), expected.tails.lowest_free());
        for (u32 i = 0; i < slots(); i += SECTOR / DENTRY_SIZE) {
            const u8 *known = cache.find_sector(sector_of(i));
            EXPECT_TRUE(known == nullptr || std::equal(known, known + SECTOR, slot(i))) << i;
        }
    }

    directory_cache cache;

private:
    u32 roll(u32 sides) {
        return static_cast<u32>(random_() % sides);
    }
    [[nodiscard]] u32 slots() const {
        return static_cast<u32>(chain_.size()) * SECTOR / DENTRY_SIZE;
    }
    [[nodiscard]] u32 sector_of(u32 slot) const {
        return vol_.on.sector_of(chain_[slot * DENTRY_SIZE / SECTOR]);
    }
    [[nodiscard]] u8 *slot(u32 index) {
        return &vol_.content[std::size_t{sector_of(index)} * SECTOR + index * DENTRY_SIZE % SECTOR];
    }
    bool is_long(u32 index) {
        return kind_of(slot(index)) == slot_kind::LONG_NAME;
    }
    // One of a few names of up to three slots, with their terminators.
    std::vector<u16> name() {
        std::vector<u16> units(1 + roll(39), static_cast<u16>('a' + roll(2)));
        units.push_back(0);
        return units;
    }
    std::array<u8, SHORT_NAME.size> short_name() {
        std::array<u8, SHORT_NAME.size> dos;
        dos.fill('A');
        write_tail(dos.data(), 1 + roll(30));
        return dos;
    }
    void put(u32 at, const std::array<u8, DENTRY_SIZE> &content) {
        std::copy(content.begin(), content.end(), slot(at));
        cache.sectors_written(sector_of(at), 1, slot(at - at % (SECTOR / DENTRY_SIZE)));
    }
    // Returns the slot after the name.
    u32 put_name(u32 at) {
        const std::vector<u16> units = name();
        const std::array<u8, SHORT_NAME.size> dos = short_name();
        const u32 count = long_slots_of(static_cast<u32>(units.size()) - 1);
        if (at + count >= slots()) {
            return at;
        }
        for (u32 number = count; number >= 1; number--) {
            std::array<u8, DENTRY_SIZE> part = {};
            store_slot_of_name(part.data(), number, count, units.data(), checksum_of(dos.data()),
                               name_end::TERMINATOR);
            put(at++, part);
        }
        std::array<u8, DENTRY_SIZE> entry = {};
        std::copy(dos.begin(), dos.end(), entry.begin());
        put(at, entry);
        return at + 1;
    }
    void set_end(bool is_long) {
        const u32 last = chain_.back();
        if (is_long && chain_.size() < CHAIN.size()) {
            chain_.push_back(CHAIN[chain_.size()]);
        } else if (!is_long && chain_.size() > 1) {
            chain_.pop_back();
        }
        cache.link_changed(last);
        cache.link_changed(chain_.back());
        vol_.link(chain_);
    }
    u32 long_index(const std::vector<u16> &wanted) {
        u16 gathered[MAX_NAME_UNITS + 1] = {};
        bool is_gathering = false;
        for (u32 i = 0; i < slots() && kind_of(slot(i)) != slot_kind::UNUSED; i++) {
            const slot_kind kind = kind_of(slot(i));
            if (kind == slot_kind::LONG_NAME) {
                gather_slot(slot(i), gathered, MAX_NAME_UNITS + 1);
                is_gathering = true;
                continue;
            }
            if (is_named_kind(kind) && is_gathering &&
                std::equal(wanted.begin(), wanted.end(), gathered)) {
                return i;
            }
            is_gathering = false;
        }
        return directory_cache::NONE;
    }
    u32 short_index(const std::array<u8, SHORT_NAME.size> &dos) {
        for (u32 i = 0; i < slots() && kind_of(slot(i)) != slot_kind::UNUSED; i++) {
            if (is_named_kind(kind_of(slot(i))) && std::equal(dos.begin(), dos.end(), slot(i))) {
                return i;
            }
        }
        return directory_cache::NONE;
    }

    static constexpr std::array<u32, 7> CHAIN = {5, 6, 9, 20, 21, 22, 300};

    std::mt19937 random_{20261122};
    small_volume vol_{16};
    std::vector<u32> chain_ = {CHAIN[0], CHAIN[1], CHAIN[2]};
};

} // namespace

TEST(DirectoryCache, KnowsWhatAWalkFinds) {
    changing_directory dir;
    u32 complete = 0;
    u32 given_up = 0;
    for (u32 i = 0; i < 20000 && !testing::Test::HasFailure(); i++) {
        SCOPED_TRACE(i);
        dir.change();
        if (i % 4 == 0) {
            ASSERT_NO_FATAL_FAILURE(dir.walk());
        }
        if (dir.cache.is_complete()) {
            complete++;
            dir.expect_same();
        }
        given_up += dir.cache.is_usable() ? 0 : 1;
    }
    EXPECT_GT(complete, 2000U);
    EXPECT_GT(given_up, 200U);
}

TEST(DirectoryCache, WithoutMemoryKnowsNothingWrong) {
    bool struck = true;
    u32 given_up = 0;
    for (int allocations = 0; struck; allocations++) {
        SCOPED_TRACE(allocations);
        changing_directory dir;
        for (u32 i = 0; i < 300; i++) {
            dir.change();
        }
        dir.cache.clear();
        {
            const testing_support::failing_allocation fault(allocations);
            dir.walk();
            struck = fault.struck();
        }
        given_up += dir.cache.is_usable() ? 0 : 1;
        for (int walks = 0; walks < 2; walks++) { // the second one has memory
            if (dir.cache.is_complete()) {
                dir.expect_same();
            }
            dir.walk();
        }
    }
    EXPECT_GT(given_up, 2U);
}
