#include "core/geometry.h"

#include <algorithm>
#include <bit>

namespace core {

namespace {

constexpr u32 FAT12_MAX_CLUSTERS = FAT16_MIN_CLUSTERS - 1;
constexpr u32 FAT16_MAX_CLUSTERS = FAT32_MIN_CLUSTERS - 1;
constexpr u32 FAT32_MAX_CLUSTERS = 268435438; // 0x0FFFFFEE
constexpr u32 BYTE_MAX = 0xFF;                // limit of a one-byte field of the boot sector
constexpr u32 WORD_MAX = 0xFFFF;              // limit of a two-byte field
constexpr u32 ROOT_SIZE_MULTIPLE = 1024;      // bytes

u32 shift_of(u32 power_of_two) {
    return static_cast<u32>(std::countr_zero(power_of_two));
}

// The numbers of clusters that a volume of one width can have.
struct width_limits {
    u32 min_clusters;
    u32 max_clusters;
};
constexpr width_limits FAT12_LIMITS = {1, FAT12_MAX_CLUSTERS};
constexpr width_limits FAT16_LIMITS = {FAT16_MIN_CLUSTERS, FAT16_MAX_CLUSTERS};

u32 min_fat32_clusters(const layout_request &request) {
    return request.rule == width_rule::FAT_SIZE ? 1 : FAT32_MIN_CLUSTERS;
}

// One calculation: the request and the unit of alignment.
struct calculation {
    const layout_request &request;
    u32 page_unit; // sectors that areas are aligned to, 0 without alignment

    [[nodiscard]] u32 align(u32 sectors) const {
        return page_unit != 0 ? round_up_to(sectors, page_unit) : sectors;
    }
    void size_fat(const width_limits &limits, volume_layout *layout) const;
    void try_fat12_or_16(u32 width, u32 total_sectors, volume_layout *layout) const;
    void try_fat32(u32 total_sectors, volume_layout *layout) const;
};

// 0 without alignment.
u32 page_unit_of(const layout_request &request, bool *ignores_page) {
    if (request.page_size == 0) {
        return 0;
    }
    const u32 unit = std::max(request.sector_size, request.page_size);
    *ignores_page = unit % request.sector_size != 0 || unit % request.page_size != 0;
    return *ignores_page ? 0 : unit / request.sector_size;
}

// Sizes the FAT for the data area of the layout and subtracts all copies from that area.
void calculation::size_fat(const width_limits &limits, volume_layout *layout) const {
    if (layout->data_sectors < 0) {
        layout->why = layout_fault::NO_ROOM;
        return;
    }
    constexpr u64 BITS_PER_BYTE = 8;
    const u64 entry_bits = layout->width;
    const u64 data_bytes = static_cast<u64>(layout->data_sectors) * request.sector_size;
    const u64 estimate = (data_bytes * BITS_PER_BYTE + 2 * entry_bits * request.fats) /
                         (request.cluster_bytes() * BITS_PER_BYTE + entry_bits * request.fats);
    // Two more entries: 0 and 1 do not describe clusters.
    const u64 fat_bytes = (entry_bits * (estimate + 2) + BITS_PER_BYTE - 1) / BITS_PER_BYTE;
    layout->fat_sectors = align(
        static_cast<u32>((fat_bytes + request.sector_size - 1) >> shift_of(request.sector_size)));
    layout->data_sectors -= static_cast<s64>(request.fats) * layout->fat_sectors;
    layout->clusters = layout->data_sectors >> shift_of(request.sectors_per_cluster);
    const u64 entries = u64{layout->fat_sectors} * request.sector_size * BITS_PER_BYTE / entry_bits;
    layout->max_clusters = static_cast<u32>(std::min<u64>(entries - 2, limits.max_clusters));
    if (layout->clusters < limits.min_clusters) {
        layout->why = layout_fault::FEW_CLUSTERS;
    } else if (layout->clusters > layout->max_clusters) {
        layout->why = layout_fault::MANY_CLUSTERS;
    }
}

void calculation::try_fat12_or_16(u32 width, u32 total_sectors, volume_layout *layout) const {
    const u32 root_bytes = request.root_entries * DENTRY_SIZE;
    layout->width = width;
    layout->root_sectors =
        align((root_bytes + request.sector_size - 1) >> shift_of(request.sector_size));
    if ((layout->root_sectors << shift_of(request.sector_size)) % ROOT_SIZE_MULTIPLE != 0) {
        layout->why = layout_fault::ODD_ROOT;
        return;
    }
    layout->reserved = page_unit != 0 ? page_unit : FAT16_RESERVED_SECTORS;
    layout->data_sectors =
        static_cast<s64>(total_sectors) - (layout->root_sectors + layout->reserved);
    size_fat(width == 12 ? FAT12_LIMITS : FAT16_LIMITS, layout);
}

void calculation::try_fat32(u32 total_sectors, volume_layout *layout) const {
    layout->width = 32;
    layout->reserved = align(FAT32_RESERVED_SECTORS);
    layout->data_sectors = static_cast<s64>(total_sectors) - FAT32_RESERVED_SECTORS;
    size_fat({min_fat32_clusters(request), FAT32_MAX_CLUSTERS}, layout);
}

// Number of clusters after page alignment has enlarged the reserved area beyond the 32 sectors of
// the estimate.
s64 clusters_left(const layout_request &request, const volume_layout &layout) {
    const s64 moved = static_cast<s64>(layout.reserved) - FAT32_RESERVED_SECTORS;
    return (layout.data_sectors - moved) >> shift_of(request.sectors_per_cluster);
}

// Whether the boot sector can describe the layout. Usual requests never lead to the others: a
// number too large for its field, a FAT16 without a root directory, a FAT32 with the cluster count
// of a FAT16.
bool is_describable(const layout_request &request, const volume_layout &layout) {
    if (layout.reserved > WORD_MAX || layout.root_entries(request.sector_size) > WORD_MAX) {
        return false;
    }
    if (layout.width != 32) {
        return layout.fat_sectors <= WORD_MAX && layout.root_sectors != 0;
    }
    return clusters_left(request, layout) >= min_fat32_clusters(request);
}

} // namespace

u32 round_up_to(u32 x, u32 unit) {
    const u32 remainder = x % unit;
    if (remainder == 0) {
        return std::max(x, unit);
    }
    return x + (unit - remainder);
}

bool layout_request::is_valid() const {
    const bool width_known =
        width == 0 || width == 16 || width == 32 || (width == 12 && rule == width_rule::FAT_SIZE);
    const bool sector_known = std::has_single_bit(sector_size) && sector_size >= MIN_SECTOR_SIZE &&
                              sector_size <= MAX_SECTOR_SIZE;
    const bool cluster_known =
        std::has_single_bit(sectors_per_cluster) && sectors_per_cluster <= MAX_SECTORS_PER_CLUSTER;
    return width_known && sector_known && cluster_known && fats >= 1 && fats <= BYTE_MAX &&
           root_entries <= WORD_MAX &&
           (page_size % sector_size != 0 || // without alignment
            page_size / sector_size <= WORD_MAX);
}

volume_layout lay_out(const layout_request &request, u32 total_sectors) {
    volume_layout layout;
    if (!request.is_valid()) {
        layout.why = layout_fault::INVALID;
        return layout;
    }
    const u32 page_unit = page_unit_of(request, &layout.ignores_page);
    const calculation calculate = {request, page_unit};
    const volume_layout empty = layout;
    if (request.width != 32) {
        calculate.try_fat12_or_16(request.width == 12 ? 12 : 16, total_sectors, &layout);
    }
    const bool is_too_large = layout.why == layout_fault::MANY_CLUSTERS && request.width == 0;
    if (request.width == 32 || is_too_large) {
        layout = empty;
        calculate.try_fat32(total_sectors, &layout);
    }
    if (layout.why == layout_fault::NONE && !is_describable(request, layout)) {
        layout.why = layout_fault::INVALID;
    }
    return layout;
}

areas areas_of(const layout_request &request, const volume_layout &layout, u32 total_sectors) {
    const u32 fats_end = layout.reserved + layout.fat_sectors * request.fats;
    areas at = {.width = layout.width,
                .sector_size = request.sector_size,
                .sectors_per_cluster = request.sectors_per_cluster,
                .total_sectors = total_sectors,
                .fat_start = layout.reserved,
                .fat_sectors = layout.fat_sectors,
                .root_start = fats_end,
                .root_cluster = layout.width == 32 ? NEW_ROOT_CLUSTER : 0,
                .data_start = fats_end + layout.root_sectors,
                .clusters = 0};
    at.clusters = (total_sectors - at.data_start) / at.sectors_per_cluster;
    return at;
}

u32 usable_sectors(u64 medium_bytes, u32 sector_size) {
    return static_cast<u32>(medium_bytes >> shift_of(sector_size)) & ~1U;
}

} // namespace core
