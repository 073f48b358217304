#include "qvol/sizes.h"

#include "qvol/error.h"
#include "qvol/names.h"
#include "qvol/volume_shape.h"

#include <bit>
#include <charconv>

#include <fmt/core.h>

namespace qvol {

namespace {

u64 factor_of(char unit) {
    switch (unit) {
    case 's':
        return 512;
    case 'k':
    case 'K':
        return u64{1} << 10;
    case 'm':
    case 'M':
        return u64{1} << 20;
    default:
        return u64{1} << 30;
    }
}

} // namespace

std::optional<u64> bytes_of(const std::string &text, const std::string &further_units) {
    const bool is_hexadecimal = text.starts_with("0x");
    u64 number = 0;
    const char *end = text.data() + text.size();
    const auto [rest, failure] = std::from_chars(text.data() + (is_hexadecimal ? 2 : 0), end,
                                                 number, is_hexadecimal ? 16 : 10);
    const std::string unit(rest, end);
    const bool has_unit =
        unit.size() == 1 && ("KMGkmg" + further_units).find(unit) != std::string::npos;
    const u64 factor = has_unit ? factor_of(unit.front()) : 1;
    if (failure != std::errc() || (!unit.empty() && !has_unit) ||
        number > MAX_VOLUME_BYTES / factor) {
        return std::nullopt;
    }
    return number * factor;
}

u64 parse_size(const std::string &option, const std::string &text) {
    const std::optional<u64> bytes = bytes_of(text);
    if (!bytes) {
        throw usage_error(
            fmt::format("{} {}: not a size such as 4096, 64M or 2G", option, shown_bytes(text)));
    }
    return *bytes;
}

u32 parse_unit(const std::string &option, const std::string &text, u32 least, u32 most) {
    const u64 bytes = parse_size(option, text);
    if (!std::has_single_bit(bytes) || bytes < least || bytes > most) {
        throw usage_error(fmt::format("{} {}: must be a power of two from {} to {} bytes", option,
                                      shown_bytes(text), least, most));
    }
    return static_cast<u32>(bytes);
}

u32 parse_page(const std::string &option, const std::string &text) {
    constexpr u32 LARGEST = 16 * 1024;
    return text == "0" ? 0 : parse_unit(option, text, 1, LARGEST);
}

u32 parse_fat_type(const std::string &option, const std::string &text) {
    if (text != "auto" && text != "12" && text != "16" && text != "32") {
        throw usage_error(
            fmt::format("{} {}: must be auto, 12, 16 or 32", option, shown_bytes(text)));
    }
    return text == "auto" ? 0 : static_cast<u32>(std::stoul(text));
}

} // namespace qvol
