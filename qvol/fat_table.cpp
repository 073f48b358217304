#include "qvol/fat_table.h"

#include "core/chain.h"
#include "qvol/error.h"
#include "qvol/sectors.h"

#include <algorithm>
#include <bit>
#include <map>

#include <fmt/core.h>

namespace qvol {

namespace {

// A multiple of every sector size, and more than a FAT12 has: its entries do not straddle pages.
constexpr u32 PAGE_BYTES = 64 * 1024;
static_assert(core::FAT16_MIN_CLUSTERS * 2 < PAGE_BYTES);
constexpr std::size_t FIRST_MAX_LOADED = 64;
constexpr std::size_t LOADS_PER_PAGE = 8; // on average, before more pages may be in memory

u32 sectors_per_page(const core::volume &on) {
    return PAGE_BYTES / on.at.sector_size;
}

u32 sectors_of_page(const core::volume &on, std::size_t index) {
    const u64 first = index * u64{sectors_per_page(on)};
    return static_cast<u32>(std::min<u64>(sectors_per_page(on), on.at.fat_sectors - first));
}

// The first sector of a page in one copy of the FAT.
u64 page_sector(const core::volume &on, std::size_t index, u32 copy) {
    return on.at.fat_start + u64{copy} * on.at.fat_sectors + index * u64{sectors_per_page(on)};
}

bool page_begins_in_fat(const core::volume &on, std::size_t index) {
    return index * u64{sectors_per_page(on)} < on.at.fat_sectors;
}

// If the FAT is smaller than the volume needs, only the clusters with an entry are used.
core::volume with_entries(core::volume on) {
    on.at.clusters = static_cast<u32>(
        std::min<u64>(on.at.clusters, on.fat_entries() - core::FIRST_DATA_CLUSTER));
    return on;
}

} // namespace

fat_table::fat_table(const core::volume &on, u32 copies)
    : on_(with_entries(on)), copies_(copies), written_copies_(copies),
      max_loaded_(FIRST_MAX_LOADED) {
    pages_.resize(on_.entry_offset(last_cluster() + 1) / PAGE_BYTES + 1);
    loads_left_ = LOADS_PER_PAGE * pages_.size();
}

// ---- pages ------------------------------------------------------------------------------------

fat_table::page fat_table::load_page(std::size_t index) const {
    const u32 count = sectors_of_page(on_, index);
    return {read_extent(on_, page_sector(on_, index, 0), count), std::vector<bool>(count)};
}

// Before a page is loaded: drops the oldest one if there are too many.
void fat_table::make_space() {
    if (--loads_left_ == 0) {
        max_loaded_ *= 2;
        loads_left_ = LOADS_PER_PAGE * pages_.size();
    }
    while (loaded_.size() >= max_loaded_) {
        const std::unique_ptr<page> &oldest = pages_[loaded_.front()];
        if (std::find(oldest->is_dirty.begin(), oldest->is_dirty.end(), true) ==
            oldest->is_dirty.end()) {
            pages_[loaded_.front()].reset();
        }
        loaded_.pop_front();
    }
}

fat_table::page &fat_table::page_of(u64 byte_offset) {
    const std::size_t index = byte_offset / PAGE_BYTES;
    std::unique_ptr<page> &cached = pages_.at(index);
    if (cached == nullptr) {
        make_space();
        cached = std::make_unique<page>(load_page(index));
        loaded_.push_back(index);
    }
    return *cached;
}

// Writes contiguous dirty sectors together.
void fat_table::write_page(std::size_t index, page *changed) const {
    const std::size_t count = changed->is_dirty.size();
    for (std::size_t first = 0; first < count; first++) {
        std::size_t end = first;
        while (end < count && changed->is_dirty[end]) {
            changed->is_dirty[end++] = false;
        }
        if (end == first) {
            continue;
        }
        const std::span bytes =
            std::span(changed->bytes)
                .subspan(first * on_.at.sector_size, (end - first) * on_.at.sector_size);
        for (u32 copy = 0; copy < written_copies_; copy++) {
            write_extent(on_, page_sector(on_, index, copy) + first, bytes);
        }
        first = end;
    }
}

// ---- entries ----------------------------------------------------------------------------------

// The last page may be beyond the FAT, if the entries end with the page before it.
bool fat_table::page_begins_in_table(std::size_t index) const {
    return index < pages_.size() && page_begins_in_fat(on_, index);
}

void fat_table::check_number(u32 cluster) const {
    if (!on_.is_data_cluster(cluster)) {
        throw error(fmt::format("cluster {} does not exist: the volume has clusters {} to {}",
                                cluster, core::FIRST_DATA_CLUSTER, last_cluster()));
    }
}

u32 fat_table::get(u32 cluster) {
    check_number(cluster);
    return value_in(page_of(on_.entry_offset(cluster)), cluster);
}

void fat_table::set(u32 cluster, u32 value) {
    const bool was_free = get(cluster) == core::FAT_FREE;
    const u64 offset = on_.entry_offset(cluster);
    page &changed = page_of(offset);
    core::store_entry(on_.at.width, cluster, changed.bytes.data() + offset % PAGE_BYTES, value);
    const u64 last_byte = on_.at.width == 12 ? offset + 1 : offset;
    changed.is_dirty[offset % PAGE_BYTES / on_.at.sector_size] = true;
    changed.is_dirty[last_byte % PAGE_BYTES / on_.at.sector_size] = true;
    const bool is_free = get(cluster) == core::FAT_FREE;
    if (free_count_) {
        *free_count_ += (is_free ? 1U : 0U) - (was_free ? 1U : 0U);
    }
    if (is_free) {
        search_.freed(cluster);
    }
}

u32 fat_table::value_in(const page &cached, u32 cluster) const {
    const u64 offset = on_.entry_offset(cluster) % PAGE_BYTES;
    return core::load_entry(on_.at.width, cluster, cached.bytes.data() + offset);
}

void fat_table::visit_used(const std::function<void(u32 cluster, u32 value)> &visit) const {
    const u32 per_page = PAGE_BYTES * 8 / on_.at.width;
    for (std::size_t index = 0; page_begins_in_table(index); index++) {
        const page fresh = pages_[index] == nullptr ? load_page(index) : page{};
        const page &shown = pages_[index] == nullptr ? fresh : *pages_[index];
        const u32 first = static_cast<u32>(index) * per_page;
        const u64 end = std::min(u64{last_cluster()} + 1, u64{first} + per_page);
        for (u32 cluster = std::max(first, core::FIRST_DATA_CLUSTER); cluster < end; cluster++) {
            const u32 value = value_in(shown, cluster);
            if (value != core::FAT_FREE) {
                visit(cluster, value);
            }
        }
    }
}

u32 fat_table::free_count() {
    if (!free_count_) {
        u32 used = 0;
        visit_used([&used](u32, u32) { used++; });
        free_count_ = last_cluster() - core::FIRST_DATA_CLUSTER + 1 - used;
    }
    return *free_count_;
}

// The lowest free cluster, or 0.
u32 fat_table::find_free() {
    return search_.find(last_cluster(),
                        [this](u32 cluster) { return get(cluster) == core::FAT_FREE; });
}

u32 fat_table::next_free() {
    const u32 found = find_free();
    return found != 0 ? found : core::FSINFO_UNKNOWN;
}

u32 fat_table::highest_used() {
    u32 cluster = last_cluster();
    while (cluster >= core::FIRST_DATA_CLUSTER && get(cluster) == core::FAT_FREE) {
        cluster--;
    }
    return cluster >= core::FIRST_DATA_CLUSTER ? cluster : 0;
}

// ---- chains -----------------------------------------------------------------------------------

std::vector<u32> fat_table::chain(u32 start, u32 limit) {
    std::vector<u32> clusters;
    core::cycle_detector guard;
    for (u32 cluster = start; clusters.size() < limit;) {
        if (guard.closes_cycle(cluster)) {
            throw error(fmt::format("the chain from cluster {} contains a cycle", start));
        }
        clusters.push_back(cluster);
        const u32 next = get(cluster);
        const core::link_kind kind = on_.kind_of_link(next);
        if (kind == core::link_kind::END) {
            break;
        }
        if (kind != core::link_kind::NEXT) {
            throw error(fmt::format("the chain from cluster {} is broken: FAT entry {} is {:#x}",
                                    start, cluster, next));
        }
        cluster = next;
    }
    return clusters;
}

std::vector<u32> fat_table::allocate(u32 count, u32 previous) {
    std::vector<u32> clusters;
    if (count > free_count()) {
        throw no_space(
            fmt::format("no space: {} clusters are needed, {} are free", count, free_count()));
    }
    clusters.reserve(count);
    while (clusters.size() < count) {
        const u32 cluster = find_free();
        set(cluster, core::FAT_END_MARK);
        if (previous != 0) {
            // The value is the number of the next cluster.
            set(previous, cluster); // NOLINT(readability-suspicious-call-argument)
        }
        clusters.push_back(cluster);
        previous = cluster;
    }
    return clusters;
}

void fat_table::release(std::span<const u32> clusters) {
    for (const u32 cluster : clusters) {
        set(cluster, core::FAT_FREE);
    }
}

// ---- the medium -------------------------------------------------------------------------------

void fat_table::forget_changes() {
    for (std::unique_ptr<page> &cached : pages_) {
        cached.reset();
    }
    loaded_.clear();
    free_count_.reset();
    search_ = {};
}

void fat_table::write_changes() {
    for (std::size_t index = 0; index < pages_.size(); index++) {
        if (pages_[index] != nullptr) {
            write_page(index, pages_[index].get());
        }
    }
}

void fat_table::visit_differences(
    const std::function<void(const differing_sector &)> &visit) const {
    for (std::size_t index = 0; page_begins_in_fat(on_, index); index++) {
        const page first = load_page(index);
        for (u32 copy = 1; copy < copies_; copy++) {
            const std::vector<u8> other =
                read_extent(on_, page_sector(on_, index, copy), sectors_of_page(on_, index));
            for (std::size_t at = 0; at < other.size(); at += on_.at.sector_size) {
                const differing_sector sector = {
                    copy, page_sector(on_, index, 0) - on_.at.fat_start + at / on_.at.sector_size,
                    std::span(first.bytes).subspan(at, on_.at.sector_size),
                    std::span(other).subspan(at, on_.at.sector_size)};
                if (!std::equal(sector.first.begin(), sector.first.end(), sector.other.begin())) {
                    visit(sector);
                }
            }
        }
    }
}

std::vector<copy_difference> fat_table::compare_copies() const {
    std::map<u32, copy_difference> found;
    visit_differences([&](const differing_sector &sector) {
        const auto [a, b] =
            std::mismatch(sector.first.begin(), sector.first.end(), sector.other.begin());
        const u64 offset =
            sector.index * on_.at.sector_size + static_cast<u64>(a - sector.first.begin());
        // By bits: two entries of FAT12 have a byte in common.
        const u64 bit = offset * 8 + static_cast<u64>(std::countr_zero(static_cast<u8>(*a ^ *b)));
        const copy_difference first = {sector.copy, 0, static_cast<u32>(bit / on_.at.width)};
        found.try_emplace(sector.copy, first).first->second.sectors++;
    });
    std::vector<copy_difference> differences;
    differences.reserve(found.size());
    for (const auto &[copy, difference] : found) {
        differences.push_back(difference);
    }
    return differences;
}

// NOLINTNEXTLINE(readability-make-member-function-const): it changes the medium
u64 fat_table::mirror() {
    u64 differing = 0;
    visit_differences([&](const differing_sector &sector) {
        write_extent(on_, on_.at.fat_start + u64{sector.copy} * on_.at.fat_sectors + sector.index,
                     sector.first);
        differing++;
    });
    return differing;
}

void append_cluster(std::vector<cluster_extent> *extents, u32 cluster) {
    if (!extents->empty() && extents->back().first + extents->back().count == cluster) {
        extents->back().count++;
    } else {
        extents->push_back({cluster, 1});
    }
}

std::vector<cluster_extent> extents_of(std::span<const u32> clusters) {
    std::vector<cluster_extent> extents;
    for (const u32 cluster : clusters) {
        append_cluster(&extents, cluster);
    }
    return extents;
}

} // namespace qvol
