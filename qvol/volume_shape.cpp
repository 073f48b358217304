#include "qvol/volume_shape.h"

#include "qvol/error.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr u64 KIB = 1024;
constexpr u64 MIB = 1024 * KIB;
constexpr u64 GIB = 1024 * MIB;

constexpr u32 FAT_COPIES = 2;
constexpr u64 MAX_SECTORS = 0xFFFFFFFE; // an odd last sector is not used
constexpr u32 FAT16_MAX_CLUSTERS = core::FAT32_MIN_CLUSTERS - 1;
constexpr u32 ROOT_BYTES = core::FAT16_ROOT_ENTRIES * core::DENTRY_SIZE;

u64 units_of(u64 bytes, u64 unit) {
    return (bytes + unit - 1) / unit;
}

// ---- what the formatter makes of a request -----------------------------------------------------

// No value if there is no such volume. FAT type, cluster size and length must be specified.
std::optional<volume_shape> shape_of(const shape_request &exact) {
    const u64 sectors = exact.bytes / exact.sector_bytes & ~u64{1};
    if (sectors > MAX_SECTORS) {
        return std::nullopt;
    }
    volume_shape shape = {exact.fat_type,   exact.sector_bytes, exact.cluster_bytes,
                          exact.page_bytes, exact.bytes,        0};
    const core::volume_layout layout =
        core::lay_out(layout_request_of(shape), static_cast<u32>(sectors));
    if (layout.why != core::layout_fault::NONE) {
        return std::nullopt;
    }
    shape.clusters = static_cast<u32>(layout.clusters);
    return shape;
}

bool can_hold(const volume_shape &shape, const volume_content &content) {
    const bool has_root = shape.fat_type == 32 || content.root_slots <= core::FAT16_ROOT_ENTRIES;
    return has_root && content.clusters(shape.fat_type, shape.cluster_bytes) <= shape.clusters;
}

// ---- candidates -------------------------------------------------------------------------------

u32 usual_cluster_bytes(u64 volume_bytes) {
    const u64 usual = volume_bytes <= 8 * GIB    ? 4 * KIB
                      : volume_bytes <= 16 * GIB ? 8 * KIB
                      : volume_bytes <= 32 * GIB ? 16 * KIB
                                                 : 32 * KIB;
    return static_cast<u32>(usual);
}

// The usual size, then larger ones, then smaller ones.
std::vector<u32> cluster_sizes(const shape_request &request) {
    if (request.cluster_bytes != 0) {
        return {request.cluster_bytes};
    }
    const u32 largest =
        std::min(MAX_CLUSTER_BYTES, request.sector_bytes * core::MAX_SECTORS_PER_CLUSTER);
    const u32 usual = std::max(usual_cluster_bytes(request.bytes), request.sector_bytes);
    std::vector<u32> sizes;
    for (u32 size = usual; size <= largest; size *= 2) {
        sizes.push_back(size);
    }
    for (u32 size = usual / 2; size >= request.sector_bytes; size /= 2) {
        sizes.push_back(size);
    }
    return sizes;
}

// The request with every possible FAT type and cluster size, the best ones first.
std::vector<shape_request> candidates(const shape_request &request) {
    std::vector<shape_request> all;
    for (const u32 cluster_bytes : cluster_sizes(request)) {
        for (const u32 fat_type : {16U, 32U}) {
            if (request.fat_type == 0 || request.fat_type == fat_type) {
                shape_request exact = request;
                exact.cluster_bytes = cluster_bytes;
                exact.fat_type = fat_type;
                all.push_back(exact);
            }
        }
    }
    return all;
}

// All shapes of the requested length.
std::vector<volume_shape> possible_shapes(const shape_request &request) {
    std::vector<volume_shape> shapes;
    for (const shape_request &candidate : candidates(request)) {
        const std::optional<volume_shape> shape = shape_of(candidate);
        if (shape) {
            shapes.push_back(*shape);
        }
    }
    return shapes;
}

std::optional<volume_shape> first_that_holds(const std::vector<volume_shape> &shapes,
                                             const volume_content &content) {
    const auto found = std::find_if(shapes.begin(), shapes.end(), [&](const volume_shape &shape) {
        return can_hold(shape, content);
    });
    return found != shapes.end() ? std::optional(*found) : std::nullopt;
}

// ---- the smallest volume ----------------------------------------------------------------------

// The minimum number of sectors of a volume with this number of clusters, without alignment.
u64 min_sectors(const shape_request &exact, u64 clusters) {
    const bool is_fat32 = exact.fat_type == 32;
    const u64 entry_size = is_fat32 ? core::FAT32_ENTRY_SIZE : core::FAT16_ENTRY_SIZE;
    const u64 fat_bytes = (clusters + core::FIRST_DATA_CLUSTER) * entry_size;
    const u64 root_bytes = is_fat32 ? 0 : ROOT_BYTES;
    return 1 + units_of(root_bytes, exact.sector_bytes) +
           FAT_COPIES * units_of(fat_bytes, exact.sector_bytes) +
           clusters * (exact.cluster_bytes / exact.sector_bytes);
}

// The number of clusters does not grow with every sector: it drops when the FATs grow by a page.
// Therefore every length is tried, from the first possible one on; alignment and the estimates of
// the formatter add less than `SLACK` to it.
std::optional<volume_shape> smallest_shape(shape_request exact, const volume_content &content) {
    constexpr u64 SLACK = MIB;
    const u64 least = exact.fat_type == 32 ? core::FAT32_MIN_CLUSTERS : core::FAT16_MIN_CLUSTERS;
    const u64 needed = std::max(content.clusters(exact.fat_type, exact.cluster_bytes), least);
    if (exact.fat_type == 16 &&
        (needed > FAT16_MAX_CLUSTERS || content.root_slots > core::FAT16_ROOT_ENTRIES)) {
        return std::nullopt;
    }
    const u64 step = u64{2} * exact.sector_bytes;
    const u64 first = units_of(min_sectors(exact, needed) * exact.sector_bytes, step) * step;
    const u64 end = std::min(first + SLACK, exact.max_bytes + 1);
    for (exact.bytes = first; exact.bytes < end; exact.bytes += step) {
        const std::optional<volume_shape> shape = shape_of(exact);
        if (shape && shape->clusters >= needed) {
            return shape;
        }
    }
    return std::nullopt;
}

// Among equal lengths, the one with the more usual cluster size.
std::optional<volume_shape> smallest_of_all(const shape_request &request,
                                            const volume_content &content) {
    std::optional<volume_shape> smallest;
    for (const shape_request &candidate : candidates(request)) {
        const std::optional<volume_shape> shape = smallest_shape(candidate, content);
        if (shape && (!smallest || shape->bytes < smallest->bytes)) {
            smallest = shape;
        }
    }
    return smallest;
}

// ---- what to do instead -----------------------------------------------------------------------

// As the argument of an option: "64M", "4K", "512".
std::string size_argument(u64 bytes) {
    return bytes % MIB == 0   ? fmt::format("{}M", bytes / MIB)
           : bytes % KIB == 0 ? fmt::format("{}K", bytes / KIB)
                              : std::to_string(bytes);
}

// The first whole number of MiB, from the smallest volume on, that holds the content.
std::optional<u64> round_size_that_holds(shape_request request, const volume_content &content) {
    const std::optional<volume_shape> smallest = smallest_of_all(request, content);
    if (!smallest) {
        return std::nullopt;
    }
    constexpr u64 TRIES = 64;
    const u64 first = units_of(smallest->bytes, MIB);
    for (u64 size = first; size < first + TRIES; size++) {
        request.bytes = size * MIB;
        if (first_that_holds(possible_shapes(request), content)) {
            return request.bytes;
        }
    }
    return std::nullopt;
}

// The change of a single option that makes the request possible.
std::string advice(const shape_request &request, const volume_content &content) {
    shape_request other = request;
    other.cluster_bytes = 0;
    if (const auto shape = first_that_holds(possible_shapes(other), content)) {
        return "; use --cluster " + size_argument(shape->cluster_bytes);
    }
    other = request;
    other.fat_type = 0;
    if (const auto shape = first_that_holds(possible_shapes(other), content)) {
        return fmt::format("; use --fat {}", shape->fat_type);
    }
    const std::optional<u64> size = round_size_that_holds(request, content);
    if (size && *size > request.bytes && *size <= request.max_bytes) {
        return "; use --size " + size_argument(*size);
    }
    other.cluster_bytes = 0;
    return size || !smallest_of_all(other, content) ? "" : "; leave out --fat and --cluster";
}

// ---- refusals ---------------------------------------------------------------------------------

std::string type_text(u32 fat_type) {
    return fat_type == 0 ? "FAT16 or FAT32" : fmt::format("FAT{}", fat_type);
}

std::string clusters_text(u32 cluster_bytes) {
    return cluster_bytes == 0 ? "" : fmt::format(" with clusters of {}", shown_size(cluster_bytes));
}

[[noreturn]] void refuse_shape(const shape_request &request) {
    constexpr const char *RULE = "FAT16 has 4085 to 65524 clusters, FAT32 65525 to 268435438";
    if (request.bytes / request.sector_bytes > MAX_SECTORS) {
        throw error(
            fmt::format("a volume of {} is too large: with sectors of {} bytes the maximum is "
                        "{}; use a larger --sector or a smaller --size",
                        shown_size(request.bytes), request.sector_bytes,
                        shown_size(MAX_SECTORS * request.sector_bytes)));
    }
    const volume_content nothing = {"", {}, 0, {}};
    throw error(fmt::format("a volume of {} cannot be {}{}: {}{}", shown_size(request.bytes),
                            type_text(request.fat_type), clusters_text(request.cluster_bytes), RULE,
                            advice(request, nothing)));
}

// By how many bytes the content is too large for the volume; 0 if it fits.
u64 shortage(const volume_shape &shape, const volume_content &content) {
    const u64 needed = content.clusters(shape.fat_type, shape.cluster_bytes);
    return (std::max<u64>(needed, shape.clusters) - shape.clusters) * shape.cluster_bytes;
}

[[noreturn]] void refuse_root(const shape_request &request, const volume_content &content) {
    throw error(fmt::format("no space in the root directory: {} needs {} entries, FAT16 has {}{}",
                            content.name, content.root_slots, core::FAT16_ROOT_ENTRIES,
                            advice(request, content)));
}

[[noreturn]] void refuse_space(const shape_request &request, const volume_content &content,
                               const volume_shape &nearest) {
    const u64 cluster = nearest.cluster_bytes;
    const u64 needed = content.clusters(nearest.fat_type, nearest.cluster_bytes) * cluster;
    const u64 room = nearest.clusters * cluster;
    const bool is_close = shown_size(needed) == shown_size(room);
    throw error(fmt::format("no space: {} needs {}, the volume holds {}{}", content.name,
                            is_close ? fmt::format("{} bytes", needed) : shown_size(needed),
                            is_close ? fmt::format("{} bytes", room) : shown_size(room),
                            advice(request, content)));
}

[[noreturn]] void refuse(const shape_request &request, const volume_content &content) {
    const std::vector<volume_shape> shapes = possible_shapes(request);
    if (shapes.empty()) {
        refuse_shape(request);
    }
    const volume_shape nearest =
        *std::min_element(shapes.begin(), shapes.end(), [&](const auto &a, const auto &b) {
            return shortage(a, content) < shortage(b, content);
        });
    if (shortage(nearest, content) == 0) {
        refuse_root(request, content);
    }
    refuse_space(request, content, nearest);
}

[[noreturn]] void refuse_automatic(shape_request request, const volume_content &content) {
    const std::string type = type_text(request.fat_type) + clusters_text(request.cluster_bytes);
    request.fat_type = request.cluster_bytes = 0;
    const bool is_possible = smallest_of_all(request, content).has_value();
    throw error(fmt::format("no volume of type {} can hold {}{}", type, content.name,
                            is_possible ? "; leave out --fat and --cluster" : ""));
}

} // namespace

u64 volume_content::clusters(u32 fat_type, u32 cluster_bytes) const {
    u64 count = nodes.of(cluster_bytes);
    for (const u32 bytes : reserved_files) {
        count += units_of(bytes, cluster_bytes);
    }
    const u64 root_bytes = u64{std::max(root_slots, 1U)} * core::DENTRY_SIZE;
    return count + (fat_type == 32 ? units_of(root_bytes, cluster_bytes) : 0);
}

core::layout_request layout_request_of(const volume_shape &shape) {
    return {.width = shape.fat_type,
            .page_size = shape.page_bytes,
            .sector_size = shape.sector_bytes,
            .sectors_per_cluster = shape.cluster_bytes / shape.sector_bytes,
            .root_entries = shape.fat_type == 32 ? 0 : core::FAT16_ROOT_ENTRIES,
            .fats = FAT_COPIES};
}

volume_shape choose_shape(const shape_request &request, const volume_content &content) {
    const std::optional<volume_shape> shape =
        request.bytes == 0 ? smallest_of_all(request, content)
                           : first_that_holds(possible_shapes(request), content);
    if (!shape) {
        request.bytes == 0 ? refuse_automatic(request, content) : refuse(request, content);
    }
    return *shape;
}

} // namespace qvol
