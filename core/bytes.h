// Bytes on the medium: little-endian loads and stores, and the description of a field.
//
// Every multi-byte value of the FAT format is little-endian and most are unaligned, so values are
// assembled byte by byte; compilers turn this into single loads if the target allows them. No other
// file of the library deals with the byte order of the medium.

#pragma once

#include <cstddef>
#include <cstdint>

// The names of the basis (bytes, layout, resources): the faces take them over as a whole.
namespace core {
inline namespace basis {

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using s32 = std::int32_t;
using s64 = std::int64_t;

[[nodiscard]] constexpr u32 div_ceil(u32 value, u32 unit) {
    return value / unit + (value % unit != 0 ? 1 : 0);
}

[[nodiscard]] constexpr u16 load16(const u8 *bytes) {
    return static_cast<u16>(bytes[0] | bytes[1] << 8);
}

// Shifts are done on u32: a byte promoted to int and shifted by 24 would reach the sign bit.
[[nodiscard]] constexpr u32 load32(const u8 *bytes) {
    return static_cast<u32>(load16(bytes)) | static_cast<u32>(load16(bytes + 2)) << 16;
}

constexpr void store16(u8 *bytes, u16 value) {
    bytes[0] = static_cast<u8>(value & 0xFF);
    bytes[1] = static_cast<u8>(value >> 8);
}

constexpr void store32(u8 *bytes, u32 value) {
    store16(bytes, static_cast<u16>(value & 0xFFFF));
    store16(bytes + 2, static_cast<u16>(value >> 16));
}

// One field of an on-medium record: byte offset and size in bytes.
struct field {
    const char *name;
    u32 offset;
    u32 size;
};

// Value of a field of 1, 2 or 4 bytes.
[[nodiscard]] constexpr u32 load(const u8 *record, const field &f) {
    const u8 *bytes = record + f.offset;
    return f.size == 1 ? bytes[0] : f.size == 2 ? load16(bytes) : load32(bytes);
}

// Stores the low bits of `value` in a field of 1, 2 or 4 bytes.
constexpr void store(u8 *record, const field &f, u32 value) {
    u8 *bytes = record + f.offset;
    if (f.size == 1) {
        bytes[0] = static_cast<u8>(value & 0xFF);
    } else if (f.size == 2) {
        store16(bytes, static_cast<u16>(value & 0xFFFF));
    } else {
        store32(bytes, value);
    }
}

// Stores a text as long as its field; the terminator of the literal is not stored.
template <std::size_t N>
constexpr void store_text(u8 *record, const field &f, const char (&text)[N]) {
    for (std::size_t i = 0; i + 1 < N && i < f.size; i++) {
        record[f.offset + i] = static_cast<u8>(text[i]);
    }
}

// Whether the fields cover the bytes from `begin` to `end` without gap or overlap.
template <std::size_t N>
consteval bool covers(const field (&fields)[N], u32 begin, u32 end) {
    u32 position = begin;
    for (const field &f : fields) {
        if (f.offset != position) {
            return false;
        }
        position += f.size;
    }
    return position == end;
}

} // namespace basis
} // namespace core
