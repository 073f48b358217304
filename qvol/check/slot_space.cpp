#include "qvol/check/slot_space.h"

#include "qvol/sectors.h"

#include <algorithm>

namespace qvol {

namespace {

u32 slots_per_cluster(const core::volume &on) {
    return on.cluster_bytes() / core::DENTRY_SIZE;
}

// Accepts the slots of a directory one by one.
class content_reader {
public:
    explicit content_reader(const slot_space &space) : space_(space) {}

    void accept(const u8 *slot, u32 index) {
        switch (core::kind_of(slot)) {
        case core::slot_kind::LONG_NAME:
            accept_long_name_slot(slot, index);
            return;
        case core::slot_kind::INVALID:
            content_.invalid.push_back(index);
            [[fallthrough]];
        case core::slot_kind::DELETED:
            close_span(index, index);
            break;
        default:
            accept_entry(entry_of_slot(slot, index, assembler_, space_.is_wide()));
        }
        span_start_ = index + 1;
        assembler_.reset();
    }

    [[nodiscard]] directory_content finish(u32 end) {
        close_span(end, end);
        return std::move(content_);
    }

private:
    void accept_long_name_slot(const u8 *slot, u32 index) {
        assembler_.accept(slot, index);
        if (core::load(slot, core::SLOT_START) != 0) {
            content_.with_cluster.push_back(index);
        }
        const bool has_other_bits = core::load(slot, core::SLOT_ATTR) != core::ATTR_LONG_NAME;
        if (has_other_bits || core::load(slot, core::SLOT_SYSID) != 0) {
            content_.with_reserved_bits.push_back(index);
        }
    }

    void accept_entry(const entry &found) {
        const bool lacks_name = !found.has_long_name && found.type() != kind::LABEL;
        const u32 damaged = lacks_name ? slots_of_damaged_name(found) : 0;
        if (damaged != 0) {
            close_span(found.slot - damaged, found.slot);
            content_.damaged.push_back({found.slot - damaged, damaged});
            content_.entries.push_back(found);
            return;
        }
        const bool mismatched = lacks_name && assembler_.is_whole();
        close_span(mismatched ? assembler_.first_slot() : found.first_slot, found.slot);
        if (mismatched) {
            content_.mismatched.push_back(
                {assembler_.first_slot(), found.slot - assembler_.first_slot()});
        }
        content_.entries.push_back(found);
    }

    // Number of slots before the entry that form its long name if one ordinal or one checksum of
    // several is corrected; 0: they do not. With a checksum of another short name, and no other,
    // the name is an old one.
    [[nodiscard]] u32 slots_of_damaged_name(const entry &found) const {
        const u8 checksum = core::checksum_of(found.raw.data());
        const u32 most = std::min(found.slot - span_start_, core::MAX_LONG_SLOTS);
        u32 wrong_numbers = 0;
        u32 wrong_checksums = 0;
        for (u32 number = 1; number <= most; number++) {
            const u8 *slot = space_.slot(found.slot - number);
            const bool has_checksum = core::load(slot, core::SLOT_CHECKSUM) == checksum;
            const bool has_number = core::slot_number(slot) == number;
            const bool is_end = has_number && core::is_last_slot(slot);
            const bool must_be_end = number == most;
            wrong_numbers += has_number && (is_end || !must_be_end) ? 0 : 1;
            wrong_checksums += has_checksum ? 0 : 1;
            if (wrong_numbers + wrong_checksums > 1) {
                return 0;
            }
            if (is_end || must_be_end) {
                return wrong_checksums < number ? number : 0;
            }
        }
        return 0;
    }

    // Long-name slots since the last other slot belong to no entry, up to `first_owned`.
    void close_span(u32 first_owned, u32 end) {
        const u32 orphans_end = std::min(first_owned, end);
        if (orphans_end > span_start_) {
            content_.orphans.push_back({span_start_, orphans_end - span_start_});
        }
    }

    const slot_space &space_;
    core::name_assembler assembler_;
    u32 span_start_ = 0; // the slot after the last one that is not a long-name slot
    directory_content content_;
};

} // namespace

// ---- reading ----------------------------------------------------------------------------------

slot_space::slot_space(const core::volume &on, std::vector<u32> clusters)
    : on_(on), clusters_(std::move(clusters)) {
    const u32 max_clusters = std::max(MAX_SLOTS / slots_per_cluster(on_), 1U);
    is_too_long_ = clusters_.size() > max_clusters;
    clusters_.resize(std::min<std::size_t>(clusters_.size(), max_clusters));
    for (const cluster_extent &extent : extents_of(clusters_)) {
        load(on_.sector_of(extent.first), extent.count * on_.at.sectors_per_cluster);
    }
    find_end();
}

slot_space slot_space::root_area(const core::volume &on) {
    slot_space space(on);
    space.load(on.at.root_start, on.at.data_start - on.at.root_start);
    space.find_end();
    return space;
}

void slot_space::load(u64 first_sector, u32 sectors) {
    const std::size_t before = bytes_.size();
    bytes_.resize(before + std::size_t{sectors} * on_.at.sector_size);
    read_extent_into(on_, first_sector, std::span(bytes_).subspan(before));
}

void slot_space::find_end() {
    count_ = 0;
    while (count_ < capacity() && slot(count_)[0] != core::NAME_UNUSED) {
        count_++;
    }
}

u32 slot_space::slots_past_end() const {
    u32 found = 0;
    for (u32 index = count_; index < capacity(); index++) {
        found += core::is_free_slot(slot(index)) ? 0 : 1;
    }
    return found;
}

void slot_space::ignore(u32 first, u32 count) {
    for (u32 index = first; index < first + count; index++) {
        bytes_[std::size_t{index} * core::DENTRY_SIZE] = core::NAME_DELETED;
    }
    find_end();
}

u32 slot_space::cluster_of(u32 slot) const {
    return clusters_.empty() ? 0 : clusters_.at(slot / slots_per_cluster(on_));
}

core::slot_place slot_space::location(u32 slot) const {
    const u64 base = clusters_.empty() ? on_.at.root_start : on_.sector_of(cluster_of(slot));
    const u32 offset =
        (clusters_.empty() ? slot : slot % slots_per_cluster(on_)) * core::DENTRY_SIZE;
    return {static_cast<u32>(base + offset / on_.at.sector_size), offset % on_.at.sector_size};
}

directory_content content_of(const slot_space &space) {
    content_reader reader(space);
    for (u32 index = 0; index < space.count(); index++) {
        reader.accept(space.slot(index), index);
    }
    return reader.finish(space.count());
}

} // namespace qvol
