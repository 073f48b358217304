// All slots of a directory as they are stored on the medium, valid or not.

#pragma once

#include "qvol/session.h"
#include "qvol/slots.h"

#include <span>
#include <vector>

namespace qvol {

class slot_space {
public:
    // Reads the clusters of a directory, or the root area of FAT16, up to the maximum size of a
    // directory. Throws error if reading fails.
    slot_space(const core::volume &on, std::vector<u32> clusters);
    [[nodiscard]] static slot_space root_area(const core::volume &on);

    [[nodiscard]] bool is_wide() const { // FAT32
        return on_.is_wide();
    }

    // Slots before the end-of-directory slot.
    [[nodiscard]] u32 count() const {
        return count_;
    }
    // Slots in use past the end of the directory: some systems ignore them, others read them.
    [[nodiscard]] u32 slots_past_end() const;

    [[nodiscard]] bool is_too_long() const {
        return is_too_long_;
    }
    [[nodiscard]] const u8 *slot(u32 index) const {
        return bytes_.data() + std::size_t{index} * core::DENTRY_SIZE;
    }

    // All slots, also those past the end.
    [[nodiscard]] u32 capacity() const {
        return static_cast<u32>(bytes_.size() / core::DENTRY_SIZE);
    }
    [[nodiscard]] u32 slots_per_sector() const {
        return on_.at.sector_size / core::DENTRY_SIZE;
    }
    [[nodiscard]] std::span<const u8> slots(u32 first, u32 count) const {
        return std::span(bytes_).subspan(std::size_t{first} * core::DENTRY_SIZE,
                                         std::size_t{count} * core::DENTRY_SIZE);
    }

    // Marks slots as removed, in memory.
    void ignore(u32 first, u32 count);

    [[nodiscard]] core::slot_place location(u32 slot) const;
    [[nodiscard]] u32 cluster_of(u32 slot) const; // 0 in the root area

private:
    explicit slot_space(const core::volume &on) : on_(on) {}
    void load(u64 first_sector, u32 sectors);
    void find_end();

    core::volume on_;
    std::vector<u32> clusters_;
    std::vector<u8> bytes_;
    u32 count_ = 0;
    bool is_too_long_ = false;
};

// Contiguous slots.
struct slot_span {
    u32 first;
    u32 count;
};

// The entries of a directory, and the slots that do not form entries.
struct directory_content {
    std::vector<entry> entries;
    std::vector<slot_span> orphans;      // long-name slots of no entry
    std::vector<slot_span> mismatched;   // complete long names whose checksum does not match
    std::vector<slot_span> damaged;      // long names of the entry after them but for one field
    std::vector<u32> with_cluster;       // long-name slots whose first cluster is not 0
    std::vector<u32> with_reserved_bits; // long-name slots whose reserved bits are not 0
    std::vector<u32> invalid; // slots in use that are neither a file, a directory nor a label
};

[[nodiscard]] directory_content content_of(const slot_space &space);

} // namespace qvol
