#include "qvol/check/fat_damage.h"

namespace qvol {

namespace {

// An interrupted write can leave one chain in a blank sector.
constexpr u32 LEAST_CHAINS = 2;
constexpr u32 LEAST_WRONG = 8; // values
constexpr u32 LEAST_USED = 64;
constexpr u32 LEAST_ORDER = 8; // systems link one of so many entries to the next, or end a chain

} // namespace

u32 breaking_cluster(const claimed_chain &chain) {
    return chain.end == chain_end::FREE ? chain.at : chain.last;
}

fat_damage::fat_damage(const survey &checked) : table_(checked.table) {
    for (const incomplete_chain &one : checked.incomplete) {
        const u32 cluster = breaking_cluster(one.claimed);
        if (table_.on().is_data_cluster(cluster)) {
            broken_chains_[sector_of(cluster)]++;
        }
    }
}

bool fat_damage::covers(u32 cluster) {
    if (!table_.on().is_data_cluster(cluster)) {
        return false;
    }
    const u64 sector = sector_of(cluster);
    const auto known = is_overwritten_.find(sector);
    if (known != is_overwritten_.end()) {
        return known->second;
    }
    return is_overwritten_[sector] = is_overwritten(cluster);
}

u64 fat_damage::sector_of(u32 cluster) const {
    return table_.on().entry_offset(cluster) / table_.on().at.sector_size;
}

bool fat_damage::is_overwritten(u32 cluster) {
    const core::volume &on = table_.on();
    const u64 sector = sector_of(cluster);
    u32 first = cluster;
    while (on.is_data_cluster(first - 1) && sector_of(first - 1) == sector) {
        first--;
    }
    u32 used = 0;
    u32 wrong = 0;
    u32 in_order = 0;
    for (u32 at = first; on.is_data_cluster(at) && sector_of(at) == sector; at++) {
        const u32 value = table_.get(at);
        const bool is_mark = on.is_end_of_chain(value) || value == on.bad_mark();
        used += value != core::FAT_FREE ? 1 : 0;
        in_order += value == at + 1 || is_mark ? 1 : 0;
        wrong += value != core::FAT_FREE && !is_mark && !on.is_data_cluster(value) ? 1 : 0;
    }
    const bool is_broken = broken_chains_[sector] >= LEAST_CHAINS;
    const bool is_random = used >= LEAST_USED && in_order * LEAST_ORDER < used;
    return used == 0 ? is_broken
                     : (wrong >= LEAST_WRONG && wrong * 2 > used) || (is_broken && is_random);
}

} // namespace qvol
