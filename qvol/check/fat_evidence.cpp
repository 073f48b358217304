#include "qvol/check/fat_evidence.h"

#include "core/geometry.h"
#include "core/overlay.h"
#include "qvol/check/check.h"
#include "qvol/output.h"
#include "qvol/sectors.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

using run = fat_replacement::run;

// Each is tried by a check of the whole volume. With more of them only whole copies are tried.
constexpr std::size_t MAX_RUNS = 32;
constexpr u32 EXTENT_SECTORS = 64;

u64 start_of_copy(const core::volume &on, u32 copy) {
    return on.at.fat_start + u64{copy} * on.at.fat_sectors;
}

void add_sector(u32 copy, u64 sector, std::vector<run> *runs) {
    if (!runs->empty() && runs->back().first + runs->back().count == sector) {
        runs->back().count++;
    } else {
        runs->push_back({copy, sector, 1});
    }
}

// A few sectors are tried one by one: neighbours can be damaged in different copies.
std::vector<run> split_few(const std::vector<run> &runs) {
    std::vector<run> sectors;
    for (const run &one : runs) {
        for (u64 done = 0; done < one.count && sectors.size() <= MAX_RUNS; done++) {
            sectors.push_back({one.copy, one.first + done, 1});
        }
    }
    return sectors.size() <= MAX_RUNS ? sectors : runs;
}

// The spans of sectors in which a copy differs from the first one.
std::vector<run> differing_runs(const core::volume &on, u32 copy) {
    std::vector<run> runs;
    const std::size_t size = on.at.sector_size;
    for (u32 done = 0; done < on.at.fat_sectors; done += EXTENT_SECTORS) {
        const u32 count = std::min(EXTENT_SECTORS, on.at.fat_sectors - done);
        const std::vector<u8> first = read_extent(on, start_of_copy(on, 0) + done, count);
        const std::vector<u8> other = read_extent(on, start_of_copy(on, copy) + done, count);
        for (u32 sector = 0; sector < count; sector++) {
            if (!std::equal(&first[sector * size], &first[sector * size] + size,
                            &other[sector * size])) {
                add_sector(copy, u64{done} + sector, &runs);
            }
        }
    }
    return split_few(runs);
}

// The evidence for a FAT: fewer broken chains, more clusters that entries lead to. No sound entry
// may be missing with it: a FAT of zeros has few broken chains, because it hides what is in a
// directory.
struct verdict {
    u64 broken = 0;
    u64 sound = 0;
    u32 used = 0; // clusters

    [[nodiscard]] bool is_better_than(const verdict &other) const {
        return sound >= other.sound &&
               (broken < other.broken || (broken == other.broken && used > other.used));
    }
};

// A search for the sectors to replace. All changes are in memory.
class search {
public:
    search(target *where, const std::string &encoding) : where_(*where), encoding_(encoding) {}

    std::optional<fat_replacement> run_all() {
        const volume vol(where_, encoding_, required::AREAS);
        const u32 copies = vol.boot().copies_in_use();
        if (copies < 2 || !vol.contradictions().empty()) {
            return std::nullopt;
        }
        std::vector<std::vector<run>> differing;
        for (u32 copy = 1; copy < copies; copy++) {
            differing.push_back(differing_runs(vol.on(), copy));
        }
        if (std::all_of(differing.begin(), differing.end(),
                        [](const auto &runs) { return runs.empty(); })) {
            return std::nullopt;
        }
        const verdict first = judge({});
        best_ = first;
        for (const std::vector<run> &runs : differing) {
            try_runs(runs, first);
        }
        if (best_.broken >= first.broken) {
            return std::nullopt;
        }
        return fat_replacement{chosen_, first.broken, best_.broken};
    }

private:
    // The whole copy, then the runs one after another.
    void try_runs(const std::vector<run> &runs, const verdict &first) {
        if (first.broken == 0 || best_.broken == 0 || runs.empty()) {
            return;
        }
        take_if_better(runs);
        if (best_.broken == 0 || runs.size() == 1 || runs.size() > MAX_RUNS) {
            return;
        }
        for (const run &one : runs) {
            std::vector<run> more = chosen_;
            const auto same = std::find_if(more.begin(), more.end(), [&](const run &other) {
                return other.copy == one.copy && other.first == one.first;
            });
            // A whole copy that was taken may be worse than the first one in some of its runs.
            same != more.end() ? (void)more.erase(same) : more.push_back(one);
            take_if_better(more);
        }
    }

    void take_if_better(const std::vector<run> &runs) {
        const verdict found = judge(runs);
        if (found.is_better_than(best_)) {
            best_ = found;
            chosen_ = runs;
        }
    }

    verdict judge(const std::vector<run> &runs) {
        core::overlay_medium tried(where_.medium(), core::MIN_SECTOR_SIZE);
        const replaced_medium replaced(&where_, &tried);
        volume vol(where_, encoding_, required::AREAS);
        replace_fat_sectors(vol.on(), {runs, 0, 0});
        const check_result result = check_volume(vol);
        return {result.broken_chains, result.sound_entries, result.used_clusters};
    }

    target &where_;
    const std::string &encoding_;
    std::vector<run> chosen_;
    verdict best_;
};

} // namespace

u64 fat_replacement::sectors() const {
    u64 sum = 0;
    for (const run &one : runs) {
        sum += one.count;
    }
    return sum;
}

std::string fat_replacement::text() const {
    return fmt::format("FAT copy 0 is damaged in {}: {} in its chains, {} with those of copy {}",
                       counted(sectors(), "sector", "sectors"),
                       counted(broken_before, "finding", "findings"), broken_after,
                       runs.front().copy);
}

std::optional<fat_replacement> find_better_fat(target *where, const std::string &encoding) {
    return search(where, encoding).run_all();
}

void replace_fat_sectors(const core::volume &on, const fat_replacement &wanted) {
    for (const run &one : wanted.runs) {
        for (u64 done = 0; done < one.count; done += EXTENT_SECTORS) {
            const u32 count = static_cast<u32>(std::min<u64>(EXTENT_SECTORS, one.count - done));
            write_extent(on, start_of_copy(on, 0) + one.first + done,
                         read_extent(on, start_of_copy(on, one.copy) + one.first + done, count));
        }
    }
}

} // namespace qvol
