#include "qvol/fat_table.h"

#include "fat/internal.h"
#include "qvol/error.h"
#include "qvol/sectors.h"

#include <algorithm>
#include <map>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr u32 PAGE_BYTES = 64 * 1024; // a multiple of every sector size

u32 sectors_per_page() {
    return PAGE_BYTES / sv->sector_size;
}

u32 sectors_of_page(std::size_t index) {
    const u64 first = index * u64{sectors_per_page()};
    return static_cast<u32>(std::min<u64>(sectors_per_page(), sv->fat_size - first));
}

// The first sector of a page in one copy of the FAT.
u64 page_sector(std::size_t index, u32 copy) {
    return sv->fat_start + u64{copy} * sv->fat_size + index * u64{sectors_per_page()};
}

bool page_begins_in_fat(std::size_t index) {
    return index * u64{sectors_per_page()} < sv->fat_size;
}

// If the FAT is smaller than the volume needs, only the clusters with an entry are used.
u32 last_cluster_with_entry(u32 entry_size) {
    const u64 entries = u64{sv->fat_size} * sv->sector_size / entry_size;
    const u64 wanted = u64{sv->num_clusters} + core::FIRST_DATA_CLUSTER;
    return static_cast<u32>(std::min(entries, wanted)) - 1;
}

} // namespace

fat_table::fat_table(u32 copies)
    : copies_(copies), written_copies_(copies),
      entry_size_(sv->fat_type == 16 ? core::FAT16_ENTRY_SIZE : core::FAT32_ENTRY_SIZE),
      last_cluster_(last_cluster_with_entry(entry_size_)), cursor_(core::FIRST_DATA_CLUSTER) {
    pages_.resize((u64{last_cluster_} + 1) * entry_size_ / PAGE_BYTES + 1);
}

// ---- pages ------------------------------------------------------------------------------------

fat_table::page fat_table::load_page(std::size_t index) {
    const u32 count = sectors_of_page(index);
    return {read_extent(page_sector(index, 0), count), std::vector<bool>(count)};
}

fat_table::page &fat_table::page_of(u64 byte_offset) {
    std::unique_ptr<page> &cached = pages_.at(byte_offset / PAGE_BYTES);
    if (cached == nullptr) {
        cached = std::make_unique<page>(load_page(byte_offset / PAGE_BYTES));
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
                .subspan(first * sv->sector_size, (end - first) * sv->sector_size);
        for (u32 copy = 0; copy < written_copies_; copy++) {
            write_extent(page_sector(index, copy) + first, bytes);
        }
        first = end;
    }
}

// ---- entries ----------------------------------------------------------------------------------

// The last page may be beyond the FAT, if the entries end with the page before it.
bool fat_table::page_begins_in_table(std::size_t index) const {
    return index < pages_.size() && page_begins_in_fat(index);
}

void fat_table::check_number(u32 cluster) const {
    if (cluster < core::FIRST_DATA_CLUSTER || cluster > last_cluster_) {
        throw error(fmt::format("cluster {} does not exist: the volume has clusters {} to {}",
                                cluster, core::FIRST_DATA_CLUSTER, last_cluster_));
    }
}

u32 fat_table::get(u32 cluster) {
    check_number(cluster);
    const u64 offset = u64{cluster} * entry_size_;
    return value_in(page_of(offset), offset);
}

void fat_table::set(u32 cluster, u32 value) {
    const bool was_free = get(cluster) == core::FAT_FREE;
    const u64 offset = u64{cluster} * entry_size_;
    page &changed = page_of(offset);
    // Index 0 of a table that starts at the entry is the entry itself.
    (void)fat::set_fat_entry(sv->fat_type, changed.bytes.data() + offset % PAGE_BYTES, 0, value);
    changed.is_dirty[offset % PAGE_BYTES / sv->sector_size] = true;
    const bool is_free = get(cluster) == core::FAT_FREE;
    if (free_count_) {
        *free_count_ += (is_free ? 1U : 0U) - (was_free ? 1U : 0U);
    }
    if (is_free) {
        cursor_ = std::min(cursor_, cluster);
    }
}

u32 fat_table::value_in(const page &cached, u64 byte_offset) const {
    const u8 *entry = cached.bytes.data() + byte_offset % PAGE_BYTES;
    return entry_size_ == core::FAT16_ENTRY_SIZE ? core::load16(entry)
                                                 : core::load32(entry) & core::FAT32_VALUE_MASK;
}

void fat_table::visit_used(const std::function<void(u32 cluster, u32 value)> &visit) const {
    const u32 per_page = PAGE_BYTES / entry_size_;
    for (std::size_t index = 0; page_begins_in_table(index); index++) {
        const page fresh = pages_[index] == nullptr ? load_page(index) : page{};
        const page &shown = pages_[index] == nullptr ? fresh : *pages_[index];
        const u32 first = static_cast<u32>(index) * per_page;
        const u64 end = std::min(u64{last_cluster_} + 1, u64{first} + per_page);
        for (u32 cluster = std::max(first, core::FIRST_DATA_CLUSTER); cluster < end; cluster++) {
            const u32 value = value_in(shown, u64{cluster} * entry_size_);
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
        free_count_ = last_cluster_ - core::FIRST_DATA_CLUSTER + 1 - used;
    }
    return *free_count_;
}

// The lowest free cluster, or 0. No free cluster is below the cursor.
u32 fat_table::find_free() {
    while (cursor_ <= last_cluster_ && get(cursor_) != core::FAT_FREE) {
        cursor_++;
    }
    return cursor_ <= last_cluster_ ? cursor_ : 0;
}

u32 fat_table::next_free() {
    const u32 found = find_free();
    return found != 0 ? found : core::FSINFO_UNKNOWN;
}

u32 fat_table::highest_used() {
    u32 cluster = last_cluster_;
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
        if (fat::is_end_of_chain(next)) {
            break;
        }
        if (next < core::FIRST_DATA_CLUSTER || next > last_cluster_ || next == fat::bad_mark()) {
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
    free_count_.reset();
    cursor_ = core::FIRST_DATA_CLUSTER;
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
    for (std::size_t index = 0; page_begins_in_fat(index); index++) {
        const page first = load_page(index);
        for (u32 copy = 1; copy < copies_; copy++) {
            const std::vector<u8> other =
                read_extent(page_sector(index, copy), sectors_of_page(index));
            for (std::size_t at = 0; at < other.size(); at += sv->sector_size) {
                const differing_sector sector = {
                    copy, page_sector(index, 0) - sv->fat_start + at / sv->sector_size,
                    std::span(first.bytes).subspan(at, sv->sector_size),
                    std::span(other).subspan(at, sv->sector_size)};
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
            sector.index * sv->sector_size + static_cast<u64>(a - sector.first.begin());
        const copy_difference first = {sector.copy, 0, static_cast<u32>(offset / entry_size_)};
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
        write_extent(sv->fat_start + u64{sector.copy} * sv->fat_size + sector.index, sector.first);
        differing++;
    });
    return differing;
}

void fat_table::read_all() {
    for (std::size_t index = 0; page_begins_in_table(index); index++) {
        (void)page_of(index * u64{PAGE_BYTES});
    }
}

void fat_table::take_over_library_changes() {
    for (std::size_t index = 0; page_begins_in_table(index); index++) {
        page fresh = load_page(index);
        const page &known = page_of(index * u64{PAGE_BYTES});
        for (std::size_t sector = 0; sector < fresh.is_dirty.size(); sector++) {
            const auto at = static_cast<std::ptrdiff_t>(sector * sv->sector_size);
            fresh.is_dirty[sector] =
                !std::equal(fresh.bytes.begin() + at, fresh.bytes.begin() + at + sv->sector_size,
                            known.bytes.begin() + at);
        }
        pages_[index] = std::make_unique<page>(std::move(fresh));
    }
    free_count_.reset();
    cursor_ = core::FIRST_DATA_CLUSTER;
}

std::vector<cluster_extent> extents_of(std::span<const u32> clusters) {
    std::vector<cluster_extent> extents;
    for (const u32 cluster : clusters) {
        if (!extents.empty() && extents.back().first + extents.back().count == cluster) {
            extents.back().count++;
        } else {
            extents.push_back({cluster, 1});
        }
    }
    return extents;
}

} // namespace qvol
