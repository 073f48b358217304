// Names: bytes on the host, UTF-16 units on the volume, and text for terminals.
//
// Inside qvol a name is a string of UTF-16 units, as in long-name slots. Input and output convert
// it strictly: a name that cannot be represented is refused or escaped, never changed.

#pragma once

#include "core/bytes.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace qvol {

using core::u16;
using core::u32;
using core::u64;
using core::u8;

// ---- conversion -------------------------------------------------------------------------------

// Converts between the name encoding of the host and units. UTF-8 is built in; iconv does the
// others.
class name_codec {
public:
    // Throws usage_error if the system does not know the encoding.
    explicit name_codec(const std::string &encoding = "UTF-8");
    ~name_codec();
    name_codec(name_codec &&) noexcept;
    name_codec &operator=(name_codec &&) = delete;
    name_codec(const name_codec &) = delete;
    name_codec &operator=(const name_codec &) = delete;

    // Nothing if the bytes are not valid in the encoding.
    [[nodiscard]] std::optional<std::u16string> to_units(std::string_view bytes) const;

    // Nothing if the name is not representable in the encoding; lone surrogates never are.
    [[nodiscard]] std::optional<std::string> to_host(std::u16string_view units) const;

    // The name for a terminal: unchanged, or as $'...' with escapes if it contains something
    // harmful or misleading: control characters, direction marks, a slash, half a surrogate pair,
    // characters that are not representable in the encoding.
    [[nodiscard]] std::string shown(std::u16string_view units) const;

private:
    struct converters;
    std::unique_ptr<converters> converters_; // null: UTF-8
};

// The name in UTF-8 for JSON, with U+FFFD for half a surrogate pair.
[[nodiscard]] std::string json_text(std::u16string_view units);

// Bytes of the host in the same form; invalid UTF-8 is escaped byte by byte.
[[nodiscard]] std::string shown_bytes(std::string_view bytes);

[[nodiscard]] std::optional<std::u16string> units_of_utf8(std::string_view bytes);
[[nodiscard]] std::optional<std::string> utf8_of_units(std::u16string_view units);

// ---- valid names ------------------------------------------------------------------------------

inline constexpr std::size_t MAX_TARGET_BYTES = 260; // of a link: the library reads no longer ones

// Why the name is invalid on a volume, or nothing. Reads as "contains ':'" after "invalid name: ".
[[nodiscard]] std::optional<std::string> name_problem(std::u16string_view name);

// Why a name from a volume is not used on the host, or nothing.
[[nodiscard]] std::optional<std::string> extraction_problem(std::u16string_view name);

// Names that are equal in this form cannot be in one directory.
[[nodiscard]] std::u16string fold_case(std::u16string_view name);

// Plain upper-case 8.3 in ASCII: the only names that are stored without long-name slots.
[[nodiscard]] bool is_plain_short_name(std::u16string_view name);

// Position of the dot before the extension, or the length of the name. A long extension belongs to
// the stem.
[[nodiscard]] std::size_t end_of_stem(std::u16string_view name);

// 32-byte slots that an entry of this name takes, the short entry included.
[[nodiscard]] u32 slots_of_name(std::u16string_view name);

} // namespace qvol
