// The medium of a target.

#pragma once

#include "core/medium.h"

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

} // namespace qvol
