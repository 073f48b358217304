#include "qvol/verifying/digests.h"

#include <algorithm>

namespace qvol {

digester::digester(u64 size, u64 piece_bytes)
    : left_(size), piece_bytes_(piece_bytes), left_of_piece_(piece_bytes) {}

void digester::add(std::span<const u8> bytes) {
    const auto content = static_cast<std::size_t>(std::min<u64>(left_, bytes.size()));
    add_content(bytes.first(content));
    const std::span<const u8> rest = bytes.subspan(content);
    if (!rest.empty()) {
        has_rest_ = has_rest_ || std::any_of(rest.begin(), rest.end(), [](u8 b) { return b != 0; });
        rest_.add(rest);
    }
}

void digester::add_content(std::span<const u8> bytes) {
    whole_.add(bytes);
    left_ -= bytes.size();
    while (piece_bytes_ != 0 && !bytes.empty()) {
        const auto count = static_cast<std::size_t>(std::min<u64>(left_of_piece_, bytes.size()));
        piece_.add(bytes.first(count));
        bytes = bytes.subspan(count);
        left_of_piece_ -= count;
        if (left_of_piece_ == 0) {
            finish_piece();
        }
    }
}

void digester::finish_piece() {
    result_.pieces.push_back(piece_.take_digest().substr(0, PIECE_DIGITS));
    left_of_piece_ = piece_bytes_;
}

file_digest digester::finish() {
    if (left_of_piece_ != piece_bytes_) {
        finish_piece();
    }
    result_.whole = whole_.take_digest();
    result_.rest = has_rest_ ? rest_.take_digest() : "";
    return std::move(result_);
}

} // namespace qvol
