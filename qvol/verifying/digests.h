// Digests of files: of the whole file, and of its pieces.

#pragma once

#include "qvol/sha256.h"

#include <span>
#include <string>
#include <vector>

namespace qvol {

using core::u64;
using core::u8;

// Digits that a manifest states of the digest of a piece: it only shows where a file differs.
inline constexpr std::size_t PIECE_DIGITS = 16;

struct file_digest {
    std::string whole;               // SHA-256
    std::vector<std::string> pieces; // the first digits; also of a file that has one piece
    std::string rest; // SHA-256 of what follows the file in its last cluster; "": zeros
};

class digester {
public:
    // Of a file of `size` bytes, in pieces of `piece_bytes`; 0: no pieces.
    digester(u64 size, u64 piece_bytes);

    // The next bytes of the clusters of the file.
    void add(std::span<const u8> bytes);

    [[nodiscard]] file_digest finish();

private:
    void add_content(std::span<const u8> bytes);
    void finish_piece();

    u64 left_; // bytes of the file
    u64 piece_bytes_;
    u64 left_of_piece_;
    bool has_rest_ = false;
    sha256 whole_;
    sha256 piece_;
    sha256 rest_;
    file_digest result_;
};

} // namespace qvol
