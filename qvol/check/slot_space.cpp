#include "qvol/check/slot_space.h"

#include "qvol/sectors.h"

#include <algorithm>

namespace qvol {

namespace {

u32 slots_per_cluster() {
    return fat::cluster_bytes() / fat::DENTRY_SIZE;
}

// Takes the slots of a directory one by one.
class content_reader {
public:
    void take(const u8 *slot, u32 index) {
        if (!is_removed(slot) && is_long_name_slot(slot)) {
            take_long_name_slot(slot, index);
            return;
        }
        if (is_removed(slot)) {
            close_run(index, index);
        } else if (is_entry(slot)) {
            take_entry(entry_of_slot(slot, index, run_));
        } else {
            close_run(index, index);
            content_.no_entries.push_back(index);
        }
        behind_run_ = index + 1;
        run_.reset();
    }

    [[nodiscard]] directory_content finish(u32 end) {
        close_run(end, end);
        return std::move(content_);
    }

private:
    void take_long_name_slot(const u8 *slot, u32 index) {
        run_.accept(slot, index);
        if (fat::load(slot, fat::SLOT_START) != 0) {
            content_.started.push_back(index);
        }
        const bool has_other_bits = fat::load(slot, fat::SLOT_ATTR) != fat::ATTR_LONG_NAME;
        if (has_other_bits || fat::load(slot, fat::SLOT_SYSID) != 0) {
            content_.reserved.push_back(index);
        }
    }

    void take_entry(const entry &found) {
        const bool misfits = run_.is_whole() && !found.has_long_name && found.type() != kind::LABEL;
        close_run(misfits ? run_.first_slot : found.first_slot, found.slot);
        if (misfits) {
            content_.misfits.push_back({run_.first_slot, found.slot - run_.first_slot});
        }
        content_.entries.push_back(found);
    }

    // The slots since the last that was none of a long name are of nobody up to `first_owned`.
    void close_run(u32 first_owned, u32 end) {
        const u32 orphans_end = std::min(first_owned, end);
        if (orphans_end > behind_run_) {
            content_.orphans.push_back({behind_run_, orphans_end - behind_run_});
        }
    }

    name_assembler run_;
    u32 behind_run_ = 0; // first slot behind the last one that was none of a long name
    directory_content content_;
};

} // namespace

// ---- reading ----------------------------------------------------------------------------------

slot_space::slot_space(std::vector<u32> clusters) : clusters_(std::move(clusters)) {
    const u32 most = std::max(MAX_SLOTS / slots_per_cluster(), 1U);
    is_too_long_ = clusters_.size() > most;
    clusters_.resize(std::min<std::size_t>(clusters_.size(), most));
    for (const cluster_extent &run : extents_of(clusters_)) {
        load(sector_of_cluster(run.first), run.count * sv->sec_per_clus);
    }
    find_end();
}

slot_space slot_space::root_area() {
    slot_space space;
    space.load(sv->rdir_start, sv->data_start - sv->rdir_start);
    space.find_end();
    return space;
}

void slot_space::load(u64 first_sector, u32 sectors) {
    const std::size_t before = bytes_.size();
    bytes_.resize(before + std::size_t{sectors} * sv->sector_size);
    read_extent_into(first_sector, std::span(bytes_).subspan(before));
}

void slot_space::find_end() {
    while (count_ < capacity() && slot(count_)[0] != fat::NAME_UNUSED) {
        count_++;
    }
}

u32 slot_space::remains() const {
    u32 found = 0;
    for (u32 index = count_; index < capacity(); index++) {
        found += slot(index)[0] != fat::NAME_UNUSED && !is_removed(slot(index)) ? 1 : 0;
    }
    return found;
}

bool slot_space::is_blank_from(u32 index) const {
    const auto from = bytes_.begin() + static_cast<std::ptrdiff_t>(index) * fat::DENTRY_SIZE;
    return index >= count_ && std::all_of(from, bytes_.end(), [](u8 byte) { return byte == 0; });
}

u32 slot_space::cluster_of(u32 slot) const {
    return clusters_.empty() ? 0 : clusters_.at(slot / slots_per_cluster());
}

fat::dentry_location slot_space::location(u32 slot) const {
    const u64 base = clusters_.empty() ? sv->rdir_start : sector_of_cluster(cluster_of(slot));
    const u32 offset = (clusters_.empty() ? slot : slot % slots_per_cluster()) * fat::DENTRY_SIZE;
    return {static_cast<u32>(base + offset / sv->sector_size), offset % sv->sector_size};
}

directory_content content_of(const slot_space &space) {
    content_reader reader;
    for (u32 index = 0; index < space.count(); index++) {
        reader.take(space.slot(index), index);
    }
    return reader.finish(space.count());
}

} // namespace qvol
