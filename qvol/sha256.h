// SHA-256 of bytes that come in pieces.

#pragma once

#include "core/bytes.h"

#include <memory>
#include <span>
#include <string>

namespace qvol {

inline constexpr std::size_t SHA256_BYTES = 32;

// Two lower-case digits for each byte.
[[nodiscard]] std::string hexadecimal(std::span<const core::u8> bytes);

class sha256 {
public:
    sha256();
    ~sha256();
    sha256(const sha256 &) = delete;
    sha256 &operator=(const sha256 &) = delete;

    void add(std::span<const core::u8> bytes);

    // The digest of all bytes since the last call, in lower-case hexadecimal digits.
    [[nodiscard]] std::string take_digest();

private:
    struct state;
    std::unique_ptr<state> state_;
};

[[nodiscard]] std::string sha256_of(const std::string &text);

} // namespace qvol
