// The slots of a directory as they stand on the medium, whatever they hold.

#pragma once

#include "qvol/session.h"
#include "qvol/slots.h"

#include <vector>

namespace qvol {

class slot_space {
public:
    // Reads the clusters of a directory, or the root area of FAT16, as far as a directory may
    // reach. Throws error where that fails.
    explicit slot_space(std::vector<u32> clusters);
    [[nodiscard]] static slot_space root_area();

    // Slots in front of the end.
    [[nodiscard]] u32 count() const {
        return count_;
    }
    // Slots behind the end that hold something: some systems do not look at them, others do.
    [[nodiscard]] u32 remains() const;

    [[nodiscard]] bool is_too_long() const {
        return is_too_long_;
    }
    [[nodiscard]] const u8 *slot(u32 index) const {
        return bytes_.data() + std::size_t{index} * fat::DENTRY_SIZE;
    }

    // Whether the slot is at or behind the end of the directory, and nothing but zeros from it on.
    [[nodiscard]] bool is_blank_from(u32 index) const;

    [[nodiscard]] fat::dentry_location location(u32 slot) const;
    [[nodiscard]] u32 cluster_of(u32 slot) const; // 0 in the root area

private:
    slot_space() = default;
    void load(u64 first_sector, u32 sectors);
    void find_end();
    [[nodiscard]] u32 capacity() const {
        return static_cast<u32>(bytes_.size() / fat::DENTRY_SIZE);
    }

    std::vector<u32> clusters_;
    std::vector<u8> bytes_;
    u32 count_ = 0;
    bool is_too_long_ = false;
};

// Slots that follow one another.
struct slot_run {
    u32 first;
    u32 count;
};

// What the slots of a directory make up.
struct directory_content {
    std::vector<entry> entries;
    std::vector<slot_run> orphans; // long-name slots of no entry
    std::vector<slot_run> misfits; // whole long names whose checksum is not that of their entry
    std::vector<u32> started;      // long-name slots with a first cluster
    std::vector<u32> reserved;     // long-name slots whose reserved bits are not 0
    std::vector<u32> no_entries;   // in use, and neither file nor directory nor label
};

[[nodiscard]] directory_content content_of(const slot_space &space);

} // namespace qvol
