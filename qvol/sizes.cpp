#include "qvol/sizes.h"

#include "qvol/error.h"
#include "qvol/names.h"
#include "qvol/volume_shape.h"

#include <bit>
#include <charconv>

#include <fmt/core.h>

namespace qvol {

u64 parse_size(const std::string &option, const std::string &text) {
    u64 number = 0;
    const char *end = text.data() + text.size();
    const auto [rest, failure] = std::from_chars(text.data(), end, number);
    const std::size_t unit = std::string_view("KMGkmg").find(rest != end ? *rest : '\0');
    const bool has_unit = rest != end && rest + 1 == end && unit != std::string_view::npos;
    const u64 factor = has_unit ? u64{1} << (10 * (unit % 3 + 1)) : 1;
    if (failure != std::errc() || (rest != end && !has_unit) ||
        number > MAX_VOLUME_BYTES / factor) {
        throw usage_error(
            fmt::format("{} {}: not a size such as 4096, 64M or 2G", option, shown_bytes(text)));
    }
    return number * factor;
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
