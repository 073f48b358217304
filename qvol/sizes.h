// Sizes on the command line.

#pragma once

#include "core/bytes.h"

#include <optional>
#include <string>

namespace qvol {

using core::u32;
using core::u64;

// A number of bytes: "512", "0x200", "4k", "64M", "2G". No value if the text is something else.
// `further_units` may have 's' for sectors of 512 bytes, as other tools for disks count.
[[nodiscard]] std::optional<u64> bytes_of(const std::string &text,
                                          const std::string &further_units = "");

// The same. Throws usage_error, with the name of the option.
[[nodiscard]] u64 parse_size(const std::string &option, const std::string &text);

// A power of two in a range, in bytes.
[[nodiscard]] u32 parse_unit(const std::string &option, const std::string &text, u32 least,
                             u32 most);

// The width of a FAT: 12, 16 or 32, or 0 for "auto".
[[nodiscard]] u32 parse_fat_type(const std::string &option, const std::string &text);

// The size of a flash page; 0: none.
[[nodiscard]] u32 parse_page(const std::string &option, const std::string &text);

} // namespace qvol
