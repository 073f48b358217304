// Names: the host's bytes, the volume's UTF-16 units, and what a terminal may be shown.
//
// Inside qvol a name is a string of UTF-16 units, as long-name slots hold it. It is converted where
// it comes in or goes out, strictly: what one side cannot hold is refused or escaped, never
// changed.

#pragma once

#include "fat/bytes.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace qvol {

using fat::u16;
using fat::u32;
using fat::u64;
using fat::u8;

// ---- conversion -------------------------------------------------------------------------------

// Between the encoding of the host's names and units. UTF-8 needs no tables of the system; every
// other encoding is iconv's.
class name_codec {
public:
    // Throws usage_error for an encoding that the system does not have.
    explicit name_codec(const std::string &encoding = "UTF-8");
    ~name_codec();
    name_codec(name_codec &&) noexcept;
    name_codec &operator=(name_codec &&) = delete;
    name_codec(const name_codec &) = delete;
    name_codec &operator=(const name_codec &) = delete;

    // Nothing where the bytes are no text in the encoding.
    [[nodiscard]] std::optional<std::u16string> to_units(std::string_view bytes) const;

    // Nothing where the encoding does not have the name, lone surrogates included.
    [[nodiscard]] std::optional<std::string> to_host(std::u16string_view units) const;

    // The name as a terminal may be shown it: as it is, or as $'...' with escapes where it holds
    // what would harm or mislead: control characters, marks that turn the direction of text, a
    // slash, half a surrogate pair, characters that the encoding does not have.
    [[nodiscard]] std::string shown(std::u16string_view units) const;

private:
    struct converters;
    std::unique_ptr<converters> converters_; // null: UTF-8
};

// The name in UTF-8 for JSON, with U+FFFD for half a surrogate pair.
[[nodiscard]] std::string json_text(std::u16string_view units);

// Bytes of the host, shown in the same way; what is no UTF-8 is escaped byte by byte.
[[nodiscard]] std::string shown_bytes(std::string_view bytes);

[[nodiscard]] std::optional<std::u16string> units_of_utf8(std::string_view bytes);
[[nodiscard]] std::optional<std::string> utf8_of_units(std::u16string_view units);

// ---- what a volume can hold -------------------------------------------------------------------

inline constexpr std::size_t MAX_NAME_UNITS = 255;

// Why no volume can hold the name, or nothing where one can.
[[nodiscard]] std::optional<std::string> name_problem(std::u16string_view name);

// Why a name of a volume is not made a name of the host, or nothing.
[[nodiscard]] std::optional<std::string> extraction_problem(std::u16string_view name);

// Names that are equal so cannot stand in one directory.
[[nodiscard]] std::u16string fold_case(std::u16string_view name);

// Plain upper-case 8.3 in ASCII: the only names that are stored without long-name slots.
[[nodiscard]] bool is_plain_short_name(std::u16string_view name);

// 32-byte slots that a long name takes in front of its short entry.
[[nodiscard]] u32 slots_of_long_name(std::u16string_view name);

// 32-byte slots that the name takes in a directory with all that belongs to it.
[[nodiscard]] u32 slots_of_name(std::u16string_view name);

} // namespace qvol
