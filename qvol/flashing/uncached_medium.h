// The medium of a target, read past the page cache.

#pragma once

#include "core/medium.h"
#include "qvol/flashing/uncached_file.h"

namespace qvol {

class uncached_medium final : public core::medium {
public:
    explicit uncached_medium(const target &where) : file_(where), size_(where.size()) {}
    core::s64 read(u64 offset, std::span<u8> bytes) override;
    [[nodiscard]] u64 size() const override;

private:
    uncached_file file_;
    u64 size_;
};

} // namespace qvol
