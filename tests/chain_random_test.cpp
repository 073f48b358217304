// Allocating and releasing clusters and undoing allocations on FATs in random states (fragmented,
// nearly full, damaged, with unreadable and unwritable sectors), compared with the reference model,
// which changes one entry at a time.

#include "tests/model/chain.h"
#include "tests/support/capture.h"
#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/ram_disk.h"

#include "fat/internal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <ostream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

constexpr u32 SECTOR_SIZE = 512;
constexpr u32 FAT_START = 1;
constexpr u32 FAT_SECTORS = 3;
constexpr u32 SECTORS_PER_CLUSTER = 2;
constexpr u32 CLUSTER_BYTES = SECTORS_PER_CLUSTER * SECTOR_SIZE;
constexpr u32 END = 0xFFFFFFFF;

// ---- states -----------------------------------------------------------------------------------

using model::open_chain;
using written = model::medium::sector_write;

std::ostream &operator<<(std::ostream &out, const open_chain &r) {
    out << "{start " << r.start << ", last " << r.last << ", allocated " << r.allocated;
    return r.cached ? out << ", in its entry " << model::start_of(*r.cached) << "}" : out << "}";
}
model::raw_entry entry_of(u32 start) {
    return model::short_entry("ENTRY      ", 0x20, start, 77);
}

struct state {
    std::vector<u32> table; // every entry of the FAT with all its bits
    open_chain record;
    u32 hint = 0;
    bool operator==(const state &) const = default;
};
// Where they differ; empty if they are equal.
std::string differences(const state &actual, const state &expected) {
    std::ostringstream out;
    if (actual.record != expected.record) {
        out << actual.record << " instead of " << expected.record << "; ";
    }
    if (actual.hint != expected.hint) {
        out << "hint " << actual.hint << " instead of " << expected.hint << "; ";
    }
    for (std::size_t cluster = 0; cluster < expected.table.size(); cluster++) {
        if (actual.table[cluster] != expected.table[cluster]) {
            out << "entry " << cluster << " is " << actual.table[cluster] << " instead of "
                << expected.table[cluster] << "; ";
        }
    }
    return out.str();
}

struct scenario {
    u32 fat_type = 16;
    u32 clusters = 0;
    state before;
    u32 count = 0; // to allocate
    // FAT sectors, from 0, that always fail.
    std::set<u32> unreadable;
    std::set<u32> unwritable;

    [[nodiscard]] bool has_fault() const {
        return !unreadable.empty() || !unwritable.empty();
    }
    [[nodiscard]] u32 per_sector() const {
        return SECTOR_SIZE / (fat_type / 8);
    }
    [[nodiscard]] u32 end_mark() const {
        return fat_type == 16 ? 0xFFFF : 0x0FFFFFFF;
    }
};
std::ostream &operator<<(std::ostream &out, const scenario &s) {
    out << "FAT" << s.fat_type << ", " << s.clusters << " clusters, " << s.count << " wanted, "
        << s.before.record << ", hint " << s.before.hint;
    for (const u32 sector : s.unreadable) {
        out << ", sector " << sector << " unreadable";
    }
    for (const u32 sector : s.unwritable) {
        out << ", sector " << sector << " unwritable";
    }
    return out;
}

// The outcome of some calls.
struct course {
    std::vector<int> results;
    std::vector<u32> clusters;
    std::string messages;
    state after;
    std::vector<written> writes; // those that succeeded
};

// Gathered changes: of adjacent writes to one sector only the last one is visible.
std::vector<written> last_of_each_row(const std::vector<written> &writes) {
    std::vector<written> result;
    for (const written &w : writes) {
        if (!result.empty() && result.back().sector == w.sector) {
            result.pop_back();
        }
        result.push_back(w);
    }
    return result;
}

// ---- the reference model ----------------------------------------------------------------------

// The FAT as it is stored, and back.
std::vector<u8> stored_table(const scenario &s) {
    const u32 size = s.fat_type / 8;
    std::vector<u8> result(s.before.table.size() * size);
    for (std::size_t i = 0; i < s.before.table.size(); i++) {
        model::put_field(&result, i * size, size, s.before.table[i]);
    }
    return result;
}
std::vector<u32> table_in(const std::vector<u8> &stored, u32 fat_type) {
    std::vector<u32> result;
    for (std::size_t at = 0; at < stored.size(); at += fat_type / 8) {
        result.push_back(model::field_of(stored, at, fat_type / 8));
    }
    return result;
}

class reference {
public:
    explicit reference(const scenario &s)
        : fat({.width = s.fat_type,
               .sector_bytes = SECTOR_SIZE,
               .cluster_sectors = SECTORS_PER_CLUSTER,
               .clusters = s.clusters,
               .fat_start = FAT_START},
              [stored = stored_table(s)](u64 offset, std::size_t size) {
                  const auto begin = stored.begin() + static_cast<std::ptrdiff_t>(offset) -
                                     FAT_START * SECTOR_SIZE;
                  return std::vector<u8>(begin, begin + static_cast<std::ptrdiff_t>(size));
              }),
          record(s.before.record) {
        fat.hint = s.before.hint;
        for (const u32 sector : s.unreadable) {
            fat.unreadable.insert(FAT_START + sector);
        }
        for (const u32 sector : s.unwritable) {
            fat.unwritable.insert(FAT_START + sector);
        }
    }

    model::chains fat;
    open_chain record;

    course end(std::vector<int> results, std::vector<u32> clusters) {
        std::vector<u8> stored;
        for (u32 i = 0; i < FAT_SECTORS; i++) {
            const std::vector<u8> &sector = fat.sector(FAT_START + i);
            stored.insert(stored.end(), sector.begin(), sector.end());
        }
        return {std::move(results),
                std::move(clusters),
                fat.printed,
                {table_in(stored, fat.shape.width), record, fat.hint},
                fat.writes};
    }
};

// ---- the library ------------------------------------------------------------------------------

// A medium with little more than a FAT.
class small_volume {
public:
    explicit small_volume(const scenario &s) : s_(s) {
        sv->fat_type = s.fat_type;
        sv->sector_size = SECTOR_SIZE;
        sv->sec_per_clus = SECTORS_PER_CLUSTER;
        sv->fat_size = FAT_SECTORS;
        sv->fat_start = FAT_START;
        sv->rdir_start = FAT_START + 2 * FAT_SECTORS;
        sv->data_start = sv->rdir_start + 1;
        sv->num_clusters = s.clusters;
        sv->total_sectors = sv->data_start + s.clusters * SECTORS_PER_CLUSTER;
        sv->last_alloc_clus = s.before.hint;
        disk.poke(FAT_START * SECTOR_SIZE, stored_table(s));
        for (const u32 sector : s.unreadable) {
            disk.unreadable.insert(FAT_START + sector);
        }
        for (const u32 sector : s.unwritable) {
            disk.unwritable.insert(FAT_START + sector);
        }
        entry.start = s.before.record.start;
        entry.last = s.before.record.last;
        entry.allocated = s.before.record.allocated;
        if (s.before.record.cached) {
            cached_ = *s.before.record.cached;
            entry.dentry = cached_.data();
        }
        watched() = this;
        full_write_ = write_sectors;
        write_sectors = write_and_look;
    }
    small_volume(const small_volume &) = delete;
    small_volume &operator=(const small_volume &) = delete;
    ~small_volume() {
        watched() = nullptr;
    }

    oentry entry = {};
    ram_disk disk{u64{2000} * SECTOR_SIZE};

    course end(std::vector<int> results, std::vector<u32> clusters) {
        open_chain record{entry.start, entry.last, entry.allocated, {}};
        if (entry.dentry != nullptr) {
            record.cached = cached_;
        }
        const std::vector<u8> stored =
            disk.peek(FAT_START * SECTOR_SIZE, FAT_SECTORS * SECTOR_SIZE);
        return {std::move(results),
                std::move(clusters),
                said_.text(),
                {table_in(stored, s_.fat_type), record, sv->last_alloc_clus},
                writes_};
    }

private:
    static small_volume *&watched() {
        static small_volume *volume = nullptr;
        return volume;
    }
    static int write_and_look(void *buf, u64 sector, u32 count) {
        small_volume &v = *watched();
        const int result = v.full_write_(buf, sector, count);
        if (result == static_cast<int>(count)) {
            for (u32 i = 0; i < count; i++) {
                v.writes_.push_back(
                    {sector + i, v.disk.peek((sector + i) * SECTOR_SIZE, SECTOR_SIZE)});
            }
        }
        return result;
    }
    const scenario &s_;
    diagnostics said_;
    model::raw_entry cached_ = {};
    fat_sector_io full_write_ = nullptr;
    std::vector<written> writes_;
};

// ---- random states ----------------------------------------------------------------------------

class random_states {
public:
    explicit random_states(u32 seed) : engine_(seed) {}

    scenario next() {
        scenario s;
        s.fat_type = below(2) == 0 ? 16 : 32;
        s.clusters = s.per_sector() * FAT_SECTORS - 2 - below(s.per_sector());
        if (below(8) == 0) {
            s.clusters = 1 + below(12);
        }
        fill(&s);
        make_record(&s);
        s.before.hint = hint(s);
        s.count = 1 + (below(3) == 0 ? below(200) : below(12));
        if (below(2) == 0) {
            (below(3) == 0 ? s.unreadable : s.unwritable).insert(below(FAT_SECTORS));
            if (below(6) == 0) {
                s.unwritable.insert(below(FAT_SECTORS));
            }
        }
        return s;
    }
    u32 below(u32 bound) {
        return static_cast<u32>(engine_() % bound);
    }

private:
    u32 cluster_of(const scenario &s) {
        return 2 + below(s.clusters);
    }
    u32 hint(const scenario &s) {
        switch (below(6)) {
        case 0:
            return below(3);
        case 1:
            return s.clusters + below(3);
        case 2:
            return 0xFFFFFFFF - below(2);
        default:
            return cluster_of(s);
        }
    }
    // One in that many entries is free; in spans, so that chains stay in a sector or leave it.
    void fill(scenario *s) {
        constexpr u32 FREE_IN[] = {1, 2, 5, 30, 200, 5000};
        constexpr u32 DAMAGED_IN[] = {10000, 10000, 1000, 100};
        const u32 free_in = FREE_IN[below(std::size(FREE_IN))];
        const u32 damaged_in = DAMAGED_IN[below(std::size(DAMAGED_IN))];
        const u32 run = 1 + below(20);
        std::vector<u32> &table = s->before.table;
        table.resize(std::size_t{s->per_sector()} * FAT_SECTORS);
        table[0] = s->end_mark() - 7;
        table[1] = s->end_mark();
        bool is_free = false;
        for (u32 cluster = 2; cluster < table.size(); cluster++) {
            if (cluster % run == 0) {
                is_free = below(free_in) == 0;
            }
            u32 value = is_free ? 0 : below(3) == 0 ? cluster_of(*s) : s->end_mark() - below(8);
            if (below(damaged_in) == 0) {
                const u32 damage[] = {1, s->clusters + 2, s->end_mark() - 8, s->end_mark() - 9};
                value = damage[below(std::size(damage))];
            }
            if (s->fat_type == 32) {
                value |= below(4) == 0 ? below(16) << 28 : 0;
            }
            table[cluster] = value;
        }
    }
    void make_record(scenario *s) {
        open_chain &record = s->before.record;
        std::vector<u32> chain;
        for (u32 length = below(3) == 0 ? 0 : 1 + below(below(2) == 0 ? 3 : 60);
             chain.size() < length;) {
            // Contiguous in half of the cases.
            const u32 cluster = chain.empty() || below(3) == 0 ? cluster_of(*s) : chain.back() + 1;
            if (cluster > s->clusters + 1 ||
                std::find(chain.begin(), chain.end(), cluster) != chain.end()) {
                break;
            }
            chain.push_back(cluster);
        }
        for (std::size_t i = 0; i < chain.size(); i++) {
            s->before.table[chain[i]] = i + 1 < chain.size() ? chain[i + 1] : s->end_mark();
        }
        if (!chain.empty()) {
            record.start = chain.front();
            record.last = chain.back();
            record.allocated = static_cast<u32>(chain.size()) * CLUSTER_BYTES;
        }
        if (below(5) != 0) {
            record.cached = entry_of(record.start);
        }
        switch (below(20)) {
        case 0:
            record.last = 0;
            break;
        case 1:
            record.start = 0;
            break;
        case 2:
            record.last = cluster_of(*s);
            break;
        case 3:
            record.allocated += CLUSTER_BYTES * below(5) - CLUSTER_BYTES;
            break;
        default:
            break;
        }
    }

    std::minstd_rand engine_;
};

// ---- courses ----------------------------------------------------------------------------------

// Single allocations up to the first failure; after it, or after a failed write of data, all of
// them are undone.
course allocate_as_the_model(const scenario &s, bool data_fails) {
    reference model(s);
    const u32 old_last = model.record.last;
    std::vector<u32> clusters(s.count, 0);
    int result = 0;
    u32 allocated = 0;
    while (allocated < s.count && result == 0) {
        result = model.fat.allocate(&model.record, &clusters[allocated]);
        allocated += result == 0 ? 1 : 0;
    }
    if (result < 0 || data_fails) {
        model.fat.undo(&model.record, old_last, clusters, allocated);
    }
    return model.end({result}, clusters);
}

course allocate_at_once(const scenario &s, bool data_fails) {
    small_volume v(s);
    const u32 old_last = v.entry.last;
    std::vector<u32> clusters(s.count, 0);
    u32 allocated = 0;
    const int result = alloc_clusters(&v.entry, clusters.data(), s.count, &allocated);
    if (result < 0 || data_fails) {
        undo_allocation(&v.entry, old_last, clusters.data(), s.count, allocated);
    }
    return v.end({result}, clusters);
}

// The library's single allocations, undone by its single writes.
course allocate_one_by_one(const scenario &s, bool data_fails) {
    small_volume v(s);
    const u32 old_last = v.entry.last;
    std::vector<u32> clusters(s.count, 0);
    int result = 0;
    u32 allocated = 0;
    while (allocated < s.count && result == 0) {
        result = fat_alloc_cluster(&v.entry, &clusters[allocated]);
        allocated += result == 0 ? 1 : 0;
    }
    if (result < 0 || data_fails) {
        (void)fat_write_entry(old_last, END);
        v.entry.last = old_last;
        v.entry.allocated -= allocated * CLUSTER_BYTES;
        for (u32 i = 0; i < s.count && clusters[i] >= 2; i++) {
            (void)fat_write_entry(clusters[i], 0);
        }
    }
    return v.end({result}, clusters);
}

std::vector<std::string> lines_of(const std::string &messages) {
    std::vector<std::string> result;
    std::istringstream stream(messages);
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty()) {
            result.push_back(line);
        }
    }
    return result;
}

// Where the messages differ; empty if they are equal. Gathered changes of a sector fail together,
// so that lines repeated by single writes are printed once.
std::string different_words(const scenario &s, const course &actual, const course &expected) {
    std::vector<std::string> messages = lines_of(actual.messages);
    std::vector<std::string> wanted = lines_of(expected.messages);
    if (!s.unwritable.empty()) {
        messages.erase(std::unique(messages.begin(), messages.end()), messages.end());
        wanted.erase(std::unique(wanted.begin(), wanted.end()), wanted.end());
    }
    return messages == wanted ? "" : actual.messages + " instead of " + expected.messages;
}

// Counts the interesting states that a case has reached.
struct tally {
    int successes = 0, failures = 0, with_fault = 0;

    void count(const scenario &s, const course &c) {
        (c.results.back() >= 0 ? successes : failures)++;
        with_fault += s.has_fault() ? 1 : 0;
    }
    void expect_variety() const {
        EXPECT_GT(successes, 300);
        EXPECT_GT(failures, 300);
        EXPECT_GT(with_fault, 300);
    }
};

constexpr u32 STATES = 2500;

} // namespace

TEST(AllocClusterOnRandomStates, IsTheSameAsInTheReferenceModel) {
    random_states states(1);
    tally seen;
    for (u32 i = 0; i < STATES; i++) {
        const scenario s = states.next();
        const bool data_fails = states.below(3) == 0;
        const course expected = allocate_as_the_model(s, data_fails);
        const course actual = allocate_one_by_one(s, data_fails);
        seen.count(s, expected);
        ASSERT_EQ(actual.results, expected.results) << "state " << i << ": " << s;
        ASSERT_EQ(actual.clusters, expected.clusters) << "state " << i << ": " << s;
        ASSERT_EQ(actual.messages, expected.messages) << "state " << i << ": " << s;
        ASSERT_EQ(differences(actual.after, expected.after), "") << "state " << i << ": " << s;
        ASSERT_TRUE(last_of_each_row(actual.writes) == last_of_each_row(expected.writes))
            << "state " << i << ": " << s;
    }
    seen.expect_variety();
}

TEST(AllocClustersOnRandomStates, LeaveTheStateOfSingleAllocations) {
    random_states states(2);
    tally seen;
    for (u32 i = 0; i < STATES; i++) {
        const scenario s = states.next();
        const bool data_fails = states.below(3) == 0;
        const course expected = allocate_as_the_model(s, data_fails);
        const course actual = allocate_at_once(s, data_fails);
        seen.count(s, expected);
        ASSERT_EQ(actual.results, expected.results) << "state " << i << ": " << s;
        ASSERT_EQ(differences(actual.after, expected.after), "") << "state " << i << ": " << s;
        if (expected.results.back() == 0) {
            ASSERT_EQ(actual.clusters, expected.clusters) << "state " << i << ": " << s;
        }
    }
    seen.expect_variety();
}

TEST(AllocClustersOnRandomStates, PrintTheMessagesOfSingleAllocations) {
    random_states states(3);
    for (u32 i = 0; i < STATES; i++) {
        const scenario s = states.next();
        const bool data_fails = states.below(3) == 0;
        const course expected = allocate_as_the_model(s, data_fails);
        const course actual = allocate_at_once(s, data_fails);
        ASSERT_EQ(different_words(s, actual, expected), "") << "state " << i << ": " << s;
    }
}

TEST(AllocClustersOnRandomStates, ReachTheMediumWithTheLastWriteOfEachRow) {
    random_states states(4);
    int rows_shortened = 0;
    for (u32 i = 0; i < STATES; i++) {
        scenario s = states.next();
        s.unreadable.clear();
        s.unwritable.clear();
        const bool data_fails = states.below(3) == 0;
        const course expected = allocate_as_the_model(s, data_fails);
        const course actual = allocate_at_once(s, data_fails);
        const std::vector<written> rows = last_of_each_row(expected.writes);
        ASSERT_TRUE(last_of_each_row(actual.writes) == rows) << "state " << i << ": " << s;
        rows_shortened += actual.writes.size() < expected.writes.size() ? 1 : 0;
    }
    EXPECT_GT(rows_shortened, 500);
}

TEST(ReleaseClustersOnRandomStates, IsTheSameAsInTheReferenceModel) {
    random_states states(5);
    tally seen;
    for (u32 i = 0; i < STATES; i++) {
        const scenario s = states.next();
        const u32 keep = states.below(3) == 0 ? states.below(6) : 0;
        reference model(s);
        const int result = model.fat.release(model.record, keep);
        const course expected = model.end({result}, {});
        small_volume v(s);
        const int actual_result = fat_release_clusters(&v.entry, keep);
        const course actual = v.end({actual_result}, {});
        seen.count(s, expected);
        ASSERT_EQ(actual.results, expected.results)
            << "state " << i << ", keep " << keep << ": " << s;
        ASSERT_EQ(differences(actual.after, expected.after), "")
            << "state " << i << ", keep " << keep << ": " << s;
        ASSERT_EQ(different_words(s, actual, expected), "")
            << "state " << i << ", keep " << keep << ": " << s;
        if (!s.has_fault()) {
            ASSERT_TRUE(last_of_each_row(actual.writes) == last_of_each_row(expected.writes))
                << "state " << i << ", keep " << keep << ": " << s;
        }
    }
    seen.expect_variety();
}

TEST(CountClustersOnRandomStates, IsTheSameAsInTheReferenceModel) {
    random_states states(6);
    for (u32 i = 0; i < STATES; i++) {
        const scenario s = states.next();
        const u32 first =
            states.below(2) == 0 ? s.before.record.start : states.below(s.clusters + 4);
        reference model(s);
        u32 expected_last = 0xDEADBEEF;
        const int result = model.fat.count(first, &expected_last);
        const course expected = model.end({result}, {expected_last});
        small_volume v(s);
        u32 last = 0xDEADBEEF;
        const int actual_result = fat_count_clusters(first, &last);
        const course actual = v.end({actual_result}, {last});
        ASSERT_EQ(actual.results, expected.results)
            << "state " << i << ", first " << first << ": " << s;
        ASSERT_EQ(actual.clusters, expected.clusters) << "state " << i << ": " << s;
        ASSERT_EQ(actual.messages, expected.messages)
            << "state " << i << ", first " << first << ": " << s;
        ASSERT_TRUE(actual.writes.empty());
    }
}

TEST(GetChainsOnRandomStates, IsTheSameAsInTheReferenceModel) {
    random_states states(7);
    for (u32 i = 0; i < STATES; i++) {
        scenario s = states.next();
        if (states.below(3) == 0) {
            s.before.record.allocated = states.below(20) * CLUSTER_BYTES;
        }
        reference model(s);
        std::vector<u32> expected_list;
        const int result = model.fat.list(model.record, &expected_list);
        const course expected = model.end({result}, expected_list);
        small_volume v(s);
        u32 *array = nullptr;
        const int actual_result = fat_get_chains(&v.entry, &array);
        std::vector<u32> list;
        for (int slot = 0; array != nullptr && slot < actual_result - 1 && array[slot] != END;
             slot++) {
            list.push_back(array[slot]);
        }
        std::free(array);
        const course actual = v.end({actual_result}, list);
        ASSERT_EQ(actual.results, expected.results) << "state " << i << ": " << s;
        ASSERT_EQ(actual.clusters, expected.clusters) << "state " << i << ": " << s;
        ASSERT_EQ(actual.messages, expected.messages) << "state " << i << ": " << s;
    }
}

// ---- failures that come once --------------------------------------------------------------------

namespace {

// A chain in the first FAT sector, or no chain, and free clusters scattered over all three.
scenario scattered(u32 fat_type, bool has_chain) {
    scenario s;
    s.fat_type = fat_type;
    s.clusters = s.per_sector() * FAT_SECTORS - 2;
    s.before.table.assign(std::size_t{s.per_sector()} * FAT_SECTORS, s.end_mark());
    for (u32 cluster = 10; cluster < s.clusters; cluster += s.per_sector() / 8) {
        s.before.table[cluster] = 0;
        s.before.table[cluster + 1] = 0;
    }
    s.before.hint = 40;
    s.count = 44;
    if (has_chain) {
        s.before.table[5] = 6;
        s.before.record = {5, 6, 2 * CLUSTER_BYTES, entry_of(5)};
    } else {
        s.before.record.cached = entry_of(0);
        s.before.table[0] = s.end_mark(); // receives the end mark of a missing chain
    }
    return s;
}

} // namespace

TEST(AllocClusters, EveryFailureIsUndoneCompletely) {
    for (const u32 fat_type : {16U, 32U}) {
        for (const bool has_chain : {false, true}) {
            const scenario s = scattered(fat_type, has_chain);
            at_every_fault({EVERY_WRITE, EVERY_READ, EVERY_ALLOCATION}, [&](fault_step &step) {
                small_volume v(s);
                std::vector<u32> clusters(s.count, 0);
                u32 allocated = 0;
                const int result = step.run(
                    [&] { return alloc_clusters(&v.entry, clusters.data(), s.count, &allocated); });
                if (result < 0) {
                    const allocation_meter meter;
                    undo_allocation(&v.entry, s.before.record.last, clusters.data(), s.count,
                                    allocated);
                    EXPECT_EQ(meter.live_blocks(), 0);
                }
                const course c = v.end({result}, clusters);
                if (!step.struck()) {
                    EXPECT_EQ(result, 0);
                    EXPECT_EQ(allocated, s.count);
                    EXPECT_GE(step.k, step.is(fault::allocation) ? 1 : 3);
                    return;
                }
                ASSERT_LT(result, 0) << "it was not noticed";
                state expected = s.before;
                expected.record = c.after.record; // an empty entry may keep its first cluster
                expected.hint = c.after.hint;
                EXPECT_EQ(differences(c.after, expected), "") << s;
                EXPECT_EQ(c.after.record.last, s.before.record.last);
                EXPECT_EQ(c.after.record.allocated, s.before.record.allocated);
                if (s.before.record.start != 0) {
                    EXPECT_EQ(c.after.record, s.before.record);
                }
            });
        }
    }
}

TEST(AllocClusters, SectorThatCannotBeWrittenDoesNotStopTheUndoOfTheOthers) {
    for (const u32 fat_type : {16U, 32U}) {
        for (const bool has_chain : {false, true}) {
            scenario s = scattered(fat_type, has_chain);
            s.before.hint = 2 * s.per_sector() - 1; // the search reaches the first sector last
            s.unwritable = {0};
            const course c = allocate_at_once(s, false);
            EXPECT_EQ(c.results.back(), -EIO);
            EXPECT_EQ(c.after.table, s.before.table);
        }
    }
}

TEST(AllocClusters, HintThatWrappedIsNotChangedByTheFailedAllocation) {
    for (const u32 fat_type : {16U, 32U}) {
        scenario s = scattered(fat_type, true);
        s.before.table[s.clusters + 1] = 0;
        s.before.hint = s.clusters;
        s.unwritable = {0};
        s.before.table[5] = s.before.table[6] = s.end_mark();
        s.before.table[s.clusters] = s.end_mark();
        s.before.record = {s.clusters, s.clusters, CLUSTER_BYTES, entry_of(s.clusters)};
        const course c = allocate_at_once(s, false);
        EXPECT_EQ(c.results.back(), -EIO);
        EXPECT_EQ(c.after.hint, 1U);
        EXPECT_EQ(differences(c.after, {s.before.table, s.before.record, 1}), "");
    }
}
