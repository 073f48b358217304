#include "qvol/map_words.h"

#include "qvol/output.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

std::string owner_text(const name_codec &names, const cluster_owner &owner) {
    const bool needs_slash = owner.type == kind::DIRECTORY && !owner.path.empty();
    return shown_path(names, owner.path) + (needs_slash ? "/" : "");
}

std::string class_text(u32 number, u64 owners) {
    switch (number) {
    case CLASS_OTHER_FILES:
        return counted(owners, "other file", "other files");
    case CLASS_DIRECTORIES:
        return counted(owners, "directory", "directories");
    case CLASS_FREE:
        return "free";
    case CLASS_LOST:
        return "lost: allocated, referenced by no entry";
    default:
        return "marked bad";
    }
}

std::string short_size(u64 bytes) {
    std::string text = shown_size(bytes);
    const std::size_t decimals = text.find(".0 ");
    return decimals == std::string::npos ? text : text.erase(decimals, 2);
}

std::string percent_text(double percent) {
    return percent > 0 && percent < 0.1 ? "<0.1 %" : fmt::format("{:.1f} %", percent);
}

std::string jumps_text(const fragmentation &pieces) {
    return fmt::format("{} of {} in pieces; {} in {} from cluster to cluster", pieces.in_pieces,
                       counted(pieces.chains, "chain", "chains"),
                       counted(pieces.jumps, "jump", "jumps"),
                       counted(pieces.steps, "step", "steps"));
}

std::string free_space_text(const volume_map &map) {
    u64 pieces = 0;
    u64 largest = 0;
    for (const held_extent &part : map.extents) {
        if (part.held_by == HOLDER_FREE) {
            pieces++;
            largest = std::max<u64>(largest, part.count);
        }
    }
    return fmt::format("in {}, the largest {}", counted(pieces, "piece", "pieces"),
                       short_size(largest * map.cluster_bytes));
}

u64 zoomed_bytes(const volume_map &map) {
    const u64 metadata = map.areas.back().offset();
    const u64 page = PAGE_SIZES.front();
    return std::min(map.bytes, (metadata + metadata / 8 + page) / page * page);
}

} // namespace qvol
