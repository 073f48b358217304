// The medium of a target, and a medium that holds back the boot sector.

#pragma once

#include "core/medium.h"

#include <vector>

namespace qvol {

// An open image file or device. Refuses writes unless it was opened for them.
class target_medium : public core::file_medium {
public:
    target_medium(int fd, const core::u64 &size, bool is_writable);
    core::s64 write(core::u64 offset, std::span<const core::u8> bytes) override;
    [[nodiscard]] core::u64 size() const override;

private:
    const core::u64 &size_; // of the target, which may change
    bool is_writable_;
};

// Stores the first sector in memory; everything else is that of another medium.
class deferring_medium : public core::medium {
public:
    deferring_medium(core::medium &other, core::u32 sector_size);
    core::s64 read(core::u64 offset, std::span<core::u8> bytes) override;
    core::s64 write(core::u64 offset, std::span<const core::u8> bytes) override;
    int flush() override;
    [[nodiscard]] core::u64 size() const override;

    // Empty: not written yet.
    [[nodiscard]] const std::vector<core::u8> &first_sector() const {
        return first_sector_;
    }

private:
    core::medium &other_;
    core::u32 sector_size_;
    std::vector<core::u8> first_sector_;
};

} // namespace qvol
