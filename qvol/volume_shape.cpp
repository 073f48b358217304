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
constexpr u32 FAT12_MAX_CLUSTERS = core::FAT16_MIN_CLUSTERS - 1;
constexpr u32 FAT16_MAX_CLUSTERS = core::FAT32_MIN_CLUSTERS - 1;
constexpr u32 MAX_ROOT_ENTRIES = core::FAT16_ROOT_ENTRIES;
constexpr u32 SMALL_ROOT_ENTRIES = 128; // 4 KiB

u32 min_clusters(u32 fat_type) {
    return fat_type == 12   ? 1
           : fat_type == 16 ? core::FAT16_MIN_CLUSTERS
                            : core::FAT32_MIN_CLUSTERS;
}

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
    volume_shape shape = {exact.fat_type,
                          exact.sector_bytes,
                          exact.cluster_bytes,
                          exact.page_bytes,
                          exact.root_entries,
                          exact.bytes,
                          0};
    const core::volume_layout layout =
        core::lay_out(layout_request_of(shape), static_cast<u32>(sectors));
    if (layout.why != core::layout_fault::NONE) {
        return std::nullopt;
    }
    shape.clusters = static_cast<u32>(layout.clusters);
    return shape.is_small_fat32() && !exact.may_be_small_fat32 ? std::nullopt
                                                               : std::optional(shape);
}

bool can_hold(const volume_shape &shape, const volume_content &content) {
    const bool has_root = shape.fat_type == 32 || content.root_slots <= shape.root_entries;
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

// As many as the content needs, in units of 4 KiB.
u32 few_root_entries(const volume_content &content) {
    const u64 wanted = units_of(content.root_slots, SMALL_ROOT_ENTRIES) * SMALL_ROOT_ENTRIES;
    return static_cast<u32>(std::clamp<u64>(wanted, SMALL_ROOT_ENTRIES, MAX_ROOT_ENTRIES));
}

// The request with these FAT types, of which it may exclude some, and every possible cluster size.
std::vector<shape_request> candidates(const shape_request &request,
                                      std::initializer_list<u32> fat_types,
                                      u32 root_entries = MAX_ROOT_ENTRIES) {
    std::vector<shape_request> all;
    for (const u32 cluster_bytes : cluster_sizes(request)) {
        for (const u32 fat_type : fat_types) {
            if (request.fat_type == 0 || request.fat_type == fat_type) {
                shape_request exact = request;
                exact.cluster_bytes = cluster_bytes;
                exact.fat_type = fat_type;
                exact.root_entries = root_entries;
                all.push_back(exact);
            }
        }
    }
    return all;
}

bool may_be_fat12(const shape_request &request, const volume_content &content) {
    return request.fat_type == 12 || (request.fat_type == 0 && content.reserved_files.empty());
}

void append(std::vector<shape_request> *all, const std::vector<shape_request> &more) {
    all->insert(all->end(), more.begin(), more.end());
}

// The best ones first. A root directory of the usual size would take much of a small volume.
std::vector<shape_request> candidates_of_length(const shape_request &request,
                                                const volume_content &content) {
    std::vector<shape_request> all = candidates(request, {16, 32});
    if (may_be_fat12(request, content)) {
        if (request.bytes >= MIB) {
            append(&all, candidates(request, {12}));
        }
        append(&all, candidates(request, {12}, few_root_entries(content)));
    } else if (request.fat_type == 32) {
        shape_request small = request;
        small.may_be_small_fat32 = true;
        append(&all, candidates(small, {32}));
    }
    return all;
}

// All shapes of the requested length.
std::vector<volume_shape> possible_shapes(const shape_request &request,
                                          const volume_content &content) {
    std::vector<volume_shape> shapes;
    for (const shape_request &candidate : candidates_of_length(request, content)) {
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
    constexpr u64 BITS_PER_BYTE = 8;
    const u64 fat_bytes =
        units_of((clusters + core::FIRST_DATA_CLUSTER) * exact.fat_type, BITS_PER_BYTE);
    const u64 root_entries = exact.fat_type != 32 ? exact.root_entries : 0;
    return 1 + units_of(root_entries * core::DENTRY_SIZE, exact.sector_bytes) +
           FAT_COPIES * units_of(fat_bytes, exact.sector_bytes) +
           clusters * (exact.cluster_bytes / exact.sector_bytes);
}

// The number of clusters does not grow with every sector: it drops when the FATs grow by a page.
// Therefore every length is tried, from the first possible one on; alignment and the estimates of
// the formatter add less than `SLACK` to it.
std::optional<volume_shape> smallest_shape(shape_request exact, const volume_content &content) {
    constexpr u64 SLACK = MIB;
    const u64 needed = std::max<u64>(content.clusters(exact.fat_type, exact.cluster_bytes),
                                     min_clusters(exact.fat_type));
    const u32 most = exact.fat_type == 12 ? FAT12_MAX_CLUSTERS : FAT16_MAX_CLUSTERS;
    if (exact.fat_type != 32 && (needed > most || content.root_slots > exact.root_entries)) {
        return std::nullopt;
    }
    const u64 step = u64{2} * exact.sector_bytes;
    const u64 least = std::max(min_sectors(exact, needed) * exact.sector_bytes, MIN_VOLUME_BYTES);
    const u64 first = units_of(least, step) * step;
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
std::optional<volume_shape> smallest_of(const std::vector<shape_request> &all,
                                        const volume_content &content) {
    std::optional<volume_shape> smallest;
    for (const shape_request &candidate : all) {
        const std::optional<volume_shape> shape = smallest_shape(candidate, content);
        if (shape && (!smallest || shape->bytes < smallest->bytes)) {
            smallest = shape;
        }
    }
    return smallest;
}

// FAT16 is more useful than FAT12, unless most of it would be empty.
bool fills_fat16(const volume_content &content) {
    return content.clusters(16, core::MIN_SECTOR_SIZE) >= core::FAT16_MIN_CLUSTERS;
}

std::optional<volume_shape> smallest_of_all(const shape_request &request,
                                            const volume_content &content) {
    const bool excludes_fat12 =
        !may_be_fat12(request, content) || (request.fat_type == 0 && fills_fat16(content));
    std::vector<shape_request> all;
    if (!excludes_fat12) {
        append(&all, candidates(request, {12}, few_root_entries(content)));
    }
    append(&all, candidates(request, {16, 32}));
    return smallest_of(all, content);
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
        if (first_that_holds(possible_shapes(request, content), content)) {
            return request.bytes;
        }
    }
    return std::nullopt;
}

// "--size 64M", or "size=64M" in the options of a part.
std::string option_text(const shape_request &request, const char *name,
                        const std::string &value = "") {
    if (request.are_keys) {
        return fmt::format("{}={}", name, value);
    }
    return fmt::format("--{}{}{}", name, value.empty() ? "" : " ", value);
}

std::string advice_to_leave_out(const shape_request &request) {
    return fmt::format("; leave out {} and {}", option_text(request, "fat"),
                       option_text(request, "cluster"));
}

// The change of a single option that makes the request possible.
std::string advice(const shape_request &request, const volume_content &content) {
    shape_request other = request;
    other.cluster_bytes = 0;
    if (const auto shape = first_that_holds(possible_shapes(other, content), content)) {
        return "; use " + option_text(request, "cluster", size_argument(shape->cluster_bytes));
    }
    other = request;
    other.fat_type = 0;
    if (const auto shape = first_that_holds(possible_shapes(other, content), content)) {
        return "; use " + option_text(request, "fat", std::to_string(shape->fat_type));
    }
    const std::optional<u64> size = round_size_that_holds(request, content);
    if (size && *size > request.bytes && *size <= request.max_bytes) {
        return "; use " + option_text(request, "size", size_argument(*size));
    }
    other.cluster_bytes = 0;
    return size || !smallest_of_all(other, content) ? "" : advice_to_leave_out(request);
}

// ---- refusals ---------------------------------------------------------------------------------

std::string type_text(u32 fat_type) {
    return fat_type == 0 ? "FAT" : fmt::format("FAT{}", fat_type);
}

std::string clusters_text(u32 cluster_bytes) {
    return cluster_bytes == 0 ? "" : fmt::format(" with clusters of {}", shown_size(cluster_bytes));
}

[[noreturn]] void refuse_shape(const shape_request &request, const volume_content &content) {
    constexpr const char *RULE = "FAT12 has 1 to 4084 clusters, FAT16 4085 to 65524, FAT32 65525 "
                                 "to 268435438";
    if (request.bytes / request.sector_bytes > MAX_SECTORS) {
        throw error(fmt::format(
            "a volume of {} is too large: with sectors of {} bytes the maximum is "
            "{}; use a larger --sector or a smaller {}",
            shown_size(request.bytes), request.sector_bytes,
            shown_size(MAX_SECTORS * request.sector_bytes), option_text(request, "size")));
    }
    const volume_content nothing = {"", {}, 0, content.reserved_files};
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
    throw error(fmt::format(
        "no space in the root directory: {} needs {} entries, FAT12 and FAT16 have {}{}",
        content.name, content.root_slots, MAX_ROOT_ENTRIES, advice(request, content)));
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
    const std::vector<volume_shape> shapes = possible_shapes(request, content);
    if (shapes.empty()) {
        refuse_shape(request, content);
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
                            is_possible ? advice_to_leave_out(request) : ""));
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
            .root_entries = shape.fat_type == 32 ? 0 : shape.root_entries,
            .fats = FAT_COPIES,
            .rule = core::width_rule::FAT_SIZE};
}

volume_shape choose_shape(const shape_request &request, const volume_content &content) {
    const std::optional<volume_shape> shape =
        request.bytes == 0 ? smallest_of_all(request, content)
                           : first_that_holds(possible_shapes(request, content), content);
    if (!shape) {
        request.bytes == 0 ? refuse_automatic(request, content) : refuse(request, content);
    }
    return *shape;
}

} // namespace qvol
