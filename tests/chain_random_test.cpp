// Allocating, taking back and releasing clusters on FATs in random states, fragmented, nearly full
// and damaged, with sectors that cannot be read or written, against a second account that changes
// one entry at a time.

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

// What a call may change of an open entry; no image: the entry has none.
struct record_state {
    u32 start = 0;
    u32 last = 0;
    u32 allocated = 0;
    std::optional<u32> image_start = {};
    bool operator==(const record_state &) const = default;
};
std::ostream &operator<<(std::ostream &out, const record_state &r) {
    out << "{start " << r.start << ", last " << r.last << ", allocated " << r.allocated;
    return r.image_start ? out << ", image " << *r.image_start << "}" : out << "}";
}

struct state {
    std::vector<u32> table; // every entry of the FAT with all its bits
    record_state record;
    u32 hint = 0;
    bool operator==(const state &) const = default;
};
// Where they differ; empty where they do not.
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

// A write that reached the medium: its FAT sector, and all entries behind it.
struct written {
    u32 sector;
    std::vector<u32> table;
    bool operator==(const written &) const = default;
};

// What a run of calls came to.
struct course {
    std::vector<int> results;
    std::vector<u32> clusters;
    std::string said;
    state after;
    std::vector<written> writes; // those that succeeded
};

// Of writes to one sector in a row only the last is seen when changes are gathered.
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

// ---- the plain account ------------------------------------------------------------------------

class plain_chains {
public:
    explicit plain_chains(const scenario &s) : s_(s), now_(s.before) {}

    int alloc(u32 *cluster) {
        if (now_.hint < 2 || now_.hint > s_.clusters) {
            now_.hint = 1;
        }
        int found = free_clus(now_.hint + 1, s_.clusters + 1);
        if (found == -ENOENT) {
            found = free_clus(2, now_.hint);
            if (found == -ENOENT) {
                say("fat_alloc_cluster", "No space left on volume!!\n");
                return -ENOSPC;
            }
        } else if (found < 0) {
            return found;
        }
        if (found > 0) {
            *cluster = static_cast<u32>(found);
        }
        const int linked = link(*cluster);
        if (linked == 0) {
            now_.hint = *cluster;
        }
        return linked;
    }

    void undo(u32 old_last, const std::vector<u32> &clusters, u32 allocated) {
        write_entry(old_last, END);
        now_.record.last = old_last;
        now_.record.allocated -= allocated * CLUSTER_BYTES;
        for (const u32 cluster : clusters) {
            if (cluster < 2) {
                break;
            }
            write_entry(cluster, 0);
        }
    }

    int release(u32 keep) {
        u32 count = 0;
        u32 cluster = now_.record.start;
        for (;;) {
            const int next = read_clus(cluster);
            if (next < 1) {
                say("fat_release_clusters", "Failed to read cluster!\n\n");
                return -EINVAL;
            }
            if (count >= keep) {
                const int freed = write_entry(cluster, 0);
                if (freed < 0) {
                    say("fat_release_clusters", "Failed to read cluster!\n\n");
                    return freed;
                }
            }
            count++;
            if (is_end(static_cast<u32>(next))) {
                if (cluster != now_.record.last || count * CLUSTER_BYTES != now_.record.allocated) {
                    say("fat_release_clusters",
                        "FAT chain is broken, but truncated all clusters\n");
                }
                return static_cast<int>(count - keep);
            }
            cluster = static_cast<u32>(next);
        }
    }

    // -EINVAL also for a chain that comes back.
    int count(u32 first, u32 *last) {
        std::set<u32> seen;
        int count = 0;
        for (u32 cluster = first;;) {
            const int next = seen.insert(cluster).second ? read_clus(cluster) : -EINVAL;
            if (next < 0) {
                say("fat_count_clusters", "Failed to read cluster!\n\n");
                return -EINVAL;
            }
            if (next == 0) {
                return 0;
            }
            count++;
            if (is_end(static_cast<u32>(next))) {
                *last = cluster;
                return count;
            }
            cluster = static_cast<u32>(next);
        }
    }

    int get_chains(std::vector<u32> *list) {
        const record_state &record = now_.record;
        if (!record.image_start && s_.fat_type != 32) {
            say("fat_get_chains", "Invalid arg!\n\n");
            return -EINVAL;
        }
        if (record.allocated == 0) {
            return 0;
        }
        const u32 slots = record.allocated / CLUSTER_BYTES + 1;
        list->push_back(record.start);
        for (u32 i = 0; i < slots; i++) {
            const int next = read_clus(list->back());
            if (next < 1) {
                say("fat_get_chains", "Failed to read cluster!\n\n");
                list->clear();
                return -EINVAL;
            }
            if (is_end(static_cast<u32>(next))) {
                break;
            }
            list->push_back(static_cast<u32>(next));
        }
        // Whatever stands from the last slot on is not asked for.
        list->resize(std::min<std::size_t>(list->size(), slots - 1));
        return static_cast<int>(slots);
    }

    [[nodiscard]] const record_state &record() const {
        return now_.record;
    }
    course end(std::vector<int> results, std::vector<u32> clusters) {
        return {std::move(results), std::move(clusters), said_, now_, writes_};
    }

private:
    void say(const std::string &function, const std::string &message) {
        said_ += function + "[N]: " + message;
    }
    [[nodiscard]] bool is_end(u32 value) const {
        return value >= s_.end_mark() - 7;
    }
    int read_clus(u32 cluster) {
        if (cluster < 2 || cluster >= s_.clusters + 2) {
            say("fat_read_clus", "Invalid arg!\n\n");
            return -EINVAL;
        }
        if (s_.unreadable.contains(cluster / s_.per_sector())) {
            say("fat_read_entry", "cannot read FAT\n\n");
            return -EIO;
        }
        const u32 value = now_.table[cluster] & s_.end_mark();
        if (value == 0 || is_end(value)) {
            return static_cast<int>(value);
        }
        if (value == 1 || value >= s_.clusters + 2) {
            say("fat_read_clus", "Invalid cluster!\n\n");
            return -EINVAL;
        }
        return static_cast<int>(value);
    }
    int free_clus(u32 first, u32 last) {
        for (u32 cluster = first; cluster <= last; cluster++) {
            const int value = read_clus(cluster);
            if (value < 0) {
                say("fat_free_clus", "Invalid cluster value!\n\n");
                return value;
            }
            if (value == 0) {
                return static_cast<int>(cluster);
            }
        }
        return -ENOENT;
    }
    int write_entry(u32 cluster, u32 value) {
        const u32 sector = cluster / s_.per_sector();
        if (s_.unreadable.contains(sector)) {
            say("fat_write_entry", "cannot read FAT\n");
            return -EIO;
        }
        if (s_.unwritable.contains(sector)) {
            say("fat_write_entry", "cannot write FAT\n\n");
            return -EIO;
        }
        u32 &entry = now_.table[cluster];
        entry = s_.fat_type == 16 ? value & 0xFFFF : (entry & 0xF0000000) | (value & 0x0FFFFFFF);
        writes_.push_back({sector, now_.table});
        return 0;
    }
    int write_link(u32 cluster, u32 value) {
        const int result = write_entry(cluster, value);
        if (result < 0) {
            say("fat_alloc_cluster", "Failed to write entry!\n\n");
        }
        return result;
    }
    int link(u32 cluster) {
        record_state &record = now_.record;
        if (record.start == 0 && record.last == 0) {
            const int result = write_link(cluster, END);
            if (result == 0) {
                record.start = record.last = cluster;
                record.allocated += CLUSTER_BYTES;
                if (record.image_start) {
                    record.image_start = cluster;
                }
            }
            return result;
        }
        int result = write_link(record.last, cluster);
        if (result < 0) {
            return result;
        }
        result = write_link(cluster, END);
        if (result < 0) {
            write_entry(record.last, END);
            return result;
        }
        record.last = cluster;
        record.allocated += CLUSTER_BYTES;
        return 0;
    }

    const scenario &s_;
    state now_;
    std::string said_;
    std::vector<written> writes_;
};

// ---- the library ------------------------------------------------------------------------------

// A medium that holds little more than a FAT.
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
        std::vector<u8> bytes;
        for (const u32 value : s.before.table) {
            for (u32 i = 0; i < s.fat_type / 8; i++) {
                bytes.push_back(static_cast<u8>(value >> (8 * i)));
            }
        }
        disk.poke(FAT_START * SECTOR_SIZE, bytes);
        for (const u32 sector : s.unreadable) {
            disk.unreadable.insert(FAT_START + sector);
        }
        for (const u32 sector : s.unwritable) {
            disk.unwritable.insert(FAT_START + sector);
        }
        entry.start = s.before.record.start;
        entry.last = s.before.record.last;
        entry.allocated = s.before.record.allocated;
        if (s.before.record.image_start) {
            entry.dentry = image_;
            store16(image_ + 20, static_cast<u16>(*s.before.record.image_start >> 16));
            store16(image_ + 26, static_cast<u16>(*s.before.record.image_start));
        }
        watched() = this;
        plain_write_ = write_sectors;
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
        course c{std::move(results), std::move(clusters), said_.text(), {}, writes_};
        c.after.table = table();
        c.after.record = {entry.start, entry.last, entry.allocated, {}};
        if (entry.dentry != nullptr) {
            c.after.record.image_start =
                static_cast<u32>(load16(image_ + 20)) << 16 | load16(image_ + 26);
        }
        c.after.hint = sv->last_alloc_clus;
        return c;
    }

private:
    static small_volume *&watched() {
        static small_volume *volume = nullptr;
        return volume;
    }
    static int write_and_look(void *buf, u64 sector, u32 count) {
        small_volume &v = *watched();
        const int result = v.plain_write_(buf, sector, count);
        if (result == static_cast<int>(count)) {
            for (u32 i = 0; i < count; i++) {
                v.writes_.push_back({static_cast<u32>(sector) + i - FAT_START, v.table()});
            }
        }
        return result;
    }
    std::vector<u32> table() {
        const u32 width = s_.fat_type / 8;
        const std::vector<u8> bytes =
            disk.peek(FAT_START * SECTOR_SIZE, s_.before.table.size() * width);
        std::vector<u32> result;
        for (std::size_t at = 0; at < bytes.size(); at += width) {
            result.push_back(width == 2 ? load16(&bytes[at]) : load32(&bytes[at]));
        }
        return result;
    }

    const scenario &s_;
    diagnostics said_;
    u8 image_[32] = {};
    fat_sector_io plain_write_ = nullptr;
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
    // Entries that are free one in so many; in runs, so that chains stay in a sector or leave it.
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
        record_state &record = s->before.record;
        std::vector<u32> chain;
        for (u32 length = below(3) == 0 ? 0 : 1 + below(below(2) == 0 ? 3 : 60);
             chain.size() < length;) {
            // Side by side as often as not.
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
            record.image_start = record.start;
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

// One allocation after another, up to the first that fails; then, or where data fail to be written,
// all of it is taken back.
course allocate_plainly(const scenario &s, bool data_fails) {
    plain_chains plain(s);
    const u32 old_last = plain.record().last;
    std::vector<u32> clusters(s.count, 0);
    int result = 0;
    u32 allocated = 0;
    while (allocated < s.count && result == 0) {
        result = plain.alloc(&clusters[allocated]);
        allocated += result == 0 ? 1 : 0;
    }
    if (result < 0 || data_fails) {
        plain.undo(old_last, clusters, allocated);
    }
    return plain.end({result}, clusters);
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

// The library's single allocations, taken back by its single writes.
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

std::vector<std::string> lines_of(const std::string &said) {
    std::vector<std::string> result;
    std::istringstream stream(said);
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty()) {
            result.push_back(line);
        }
    }
    return result;
}

// Where the words differ; empty where they do not. Gathered changes of a sector fail together, so
// that lines which single writes would repeat are said once.
std::string different_words(const scenario &s, const course &actual, const course &expected) {
    std::vector<std::string> said = lines_of(actual.said);
    std::vector<std::string> wanted = lines_of(expected.said);
    if (!s.unwritable.empty()) {
        said.erase(std::unique(said.begin(), said.end()), said.end());
        wanted.erase(std::unique(wanted.begin(), wanted.end()), wanted.end());
    }
    return said == wanted ? "" : actual.said + " instead of " + expected.said;
}

// How far a case got through the states worth having.
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

TEST(AllocClusterOnRandomStates, IsTheSameAsThePlainAccount) {
    random_states states(1);
    tally seen;
    for (u32 i = 0; i < STATES; i++) {
        const scenario s = states.next();
        const bool data_fails = states.below(3) == 0;
        const course expected = allocate_plainly(s, data_fails);
        const course actual = allocate_one_by_one(s, data_fails);
        seen.count(s, expected);
        ASSERT_EQ(actual.results, expected.results) << "state " << i << ": " << s;
        ASSERT_EQ(actual.clusters, expected.clusters) << "state " << i << ": " << s;
        ASSERT_EQ(actual.said, expected.said) << "state " << i << ": " << s;
        ASSERT_EQ(differences(actual.after, expected.after), "") << "state " << i << ": " << s;
        ASSERT_TRUE(last_of_each_row(actual.writes) == last_of_each_row(expected.writes))
            << "state " << i << ": " << s;
    }
    seen.expect_variety();
}

TEST(AllocClustersOnRandomStates, LeaveWhatSingleAllocationsLeave) {
    random_states states(2);
    tally seen;
    for (u32 i = 0; i < STATES; i++) {
        const scenario s = states.next();
        const bool data_fails = states.below(3) == 0;
        const course expected = allocate_plainly(s, data_fails);
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

TEST(AllocClustersOnRandomStates, SayWhatSingleAllocationsSay) {
    random_states states(3);
    for (u32 i = 0; i < STATES; i++) {
        const scenario s = states.next();
        const bool data_fails = states.below(3) == 0;
        const course expected = allocate_plainly(s, data_fails);
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
        const course expected = allocate_plainly(s, data_fails);
        const course actual = allocate_at_once(s, data_fails);
        const std::vector<written> rows = last_of_each_row(expected.writes);
        ASSERT_TRUE(last_of_each_row(actual.writes) == rows) << "state " << i << ": " << s;
        rows_shortened += actual.writes.size() < expected.writes.size() ? 1 : 0;
    }
    EXPECT_GT(rows_shortened, 500);
}

TEST(ReleaseClustersOnRandomStates, IsTheSameAsThePlainAccount) {
    random_states states(5);
    tally seen;
    for (u32 i = 0; i < STATES; i++) {
        const scenario s = states.next();
        const u32 keep = states.below(3) == 0 ? states.below(6) : 0;
        plain_chains plain(s);
        const int result = plain.release(keep);
        const course expected = plain.end({result}, {});
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

TEST(CountClustersOnRandomStates, IsTheSameAsThePlainAccount) {
    random_states states(6);
    for (u32 i = 0; i < STATES; i++) {
        const scenario s = states.next();
        const u32 first =
            states.below(2) == 0 ? s.before.record.start : states.below(s.clusters + 4);
        plain_chains plain(s);
        u32 expected_last = 0xDEADBEEF;
        const int result = plain.count(first, &expected_last);
        const course expected = plain.end({result}, {expected_last});
        small_volume v(s);
        u32 last = 0xDEADBEEF;
        const int actual_result = fat_count_clusters(first, &last);
        const course actual = v.end({actual_result}, {last});
        ASSERT_EQ(actual.results, expected.results)
            << "state " << i << ", first " << first << ": " << s;
        ASSERT_EQ(actual.clusters, expected.clusters) << "state " << i << ": " << s;
        ASSERT_EQ(actual.said, expected.said) << "state " << i << ", first " << first << ": " << s;
        ASSERT_TRUE(actual.writes.empty());
    }
}

TEST(GetChainsOnRandomStates, IsTheSameAsThePlainAccount) {
    random_states states(7);
    for (u32 i = 0; i < STATES; i++) {
        scenario s = states.next();
        if (states.below(3) == 0) {
            s.before.record.allocated = states.below(20) * CLUSTER_BYTES;
        }
        plain_chains plain(s);
        std::vector<u32> expected_list;
        const int result = plain.get_chains(&expected_list);
        const course expected = plain.end({result}, expected_list);
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
        ASSERT_EQ(actual.said, expected.said) << "state " << i << ": " << s;
    }
}

// ---- failures that come once --------------------------------------------------------------------

namespace {

// A chain in the first FAT sector, or none, and free clusters scattered over all three.
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
        s.before.record = {5, 6, 2 * CLUSTER_BYTES, 5};
    } else {
        s.before.record.image_start = 0;
        s.before.table[0] = s.end_mark(); // receives the end mark of a chain that is not there
    }
    return s;
}

} // namespace

TEST(AllocClusters, EveryFailureIsTakenBackWhole) {
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

TEST(AllocClusters, SectorThatCannotBeWrittenDoesNotKeepTheOthersFromBeingTakenBack) {
    for (const u32 fat_type : {16U, 32U}) {
        for (const bool has_chain : {false, true}) {
            scenario s = scattered(fat_type, has_chain);
            s.before.hint = 2 * s.per_sector() - 1; // the search comes to the first sector last
            s.unwritable = {0};
            const course c = allocate_at_once(s, false);
            EXPECT_EQ(c.results.back(), -EIO);
            EXPECT_EQ(c.after.table, s.before.table);
        }
    }
}

TEST(AllocClusters, HintThatWentAroundIsLeftAsTheFailedAllocationFoundIt) {
    for (const u32 fat_type : {16U, 32U}) {
        scenario s = scattered(fat_type, true);
        s.before.table[s.clusters + 1] = 0;
        s.before.hint = s.clusters;
        s.unwritable = {0};
        s.before.table[5] = s.before.table[6] = s.end_mark();
        s.before.table[s.clusters] = s.end_mark();
        s.before.record = {s.clusters, s.clusters, CLUSTER_BYTES, s.clusters};
        const course c = allocate_at_once(s, false);
        EXPECT_EQ(c.results.back(), -EIO);
        EXPECT_EQ(c.after.hint, 1U);
        EXPECT_EQ(differences(c.after, {s.before.table, s.before.record, 1}), "");
    }
}
