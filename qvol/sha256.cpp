#include "qvol/sha256.h"

#include <array>

#include <nettle/sha2.h>

namespace qvol {

static_assert(SHA256_BYTES == SHA256_DIGEST_SIZE);

std::string hexadecimal(std::span<const core::u8> bytes) {
    constexpr const char *DIGITS = "0123456789abcdef";
    std::string text;
    for (const core::u8 byte : bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 0xF];
    }
    return text;
}

struct sha256::state {
    sha256_ctx context;
};

sha256::sha256() : state_(std::make_unique<state>()) {
    sha256_init(&state_->context);
}

sha256::~sha256() = default;

void sha256::add(std::span<const core::u8> bytes) {
    sha256_update(&state_->context, bytes.size(), bytes.data());
}

std::string sha256::take_digest() {
    std::array<core::u8, SHA256_BYTES> digest{};
    sha256_digest(&state_->context, digest.size(), digest.data());
    return hexadecimal(digest);
}

std::string sha256_of(const std::string &text) {
    sha256 hash;
    hash.add({reinterpret_cast<const core::u8 *>(text.data()), text.size()});
    return hash.take_digest();
}

} // namespace qvol
