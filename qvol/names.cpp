#include "qvol/names.h"

#include "core/long_name.h"
#include "qvol/error.h"
#include "qvol/short_name.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <fmt/core.h>
#include <iconv.h>
#include <locale.h>
#include <wctype.h>

namespace qvol {

namespace {

constexpr char32_t INVALID = 0xFFFFFFFF;
constexpr char32_t REPLACEMENT = 0xFFFD;
constexpr char32_t FIRST_SUPPLEMENTARY = 0x10000;
constexpr char32_t LAST_CODE_POINT = 0x10FFFF;
constexpr char32_t DELETE_CONTROL = 0x7F;

bool is_high_surrogate(char32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool is_low_surrogate(char32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

bool is_surrogate(char32_t code) {
    return code >= 0xD800 && code <= 0xDFFF;
}

// ---- code points ----

// Removes the first code point and returns it; half a surrogate pair is returned as it is.
char32_t next_code_point(std::u16string_view *units) {
    const char32_t first = units->front();
    const std::u16string_view rest = units->substr(1);
    const bool is_pair =
        is_high_surrogate(first) && !rest.empty() && is_low_surrogate(rest.front());
    units->remove_prefix(is_pair ? 2 : 1);
    return is_pair ? FIRST_SUPPLEMENTARY + ((first - 0xD800) << 10) + (rest.front() - 0xDC00)
                   : first;
}

void append_units(std::u16string *units, char32_t code) {
    if (code < FIRST_SUPPLEMENTARY) {
        units->push_back(static_cast<char16_t>(code));
        return;
    }
    const char32_t rest = code - FIRST_SUPPLEMENTARY;
    units->push_back(static_cast<char16_t>(0xD800 + (rest >> 10)));
    units->push_back(static_cast<char16_t>(0xDC00 + (rest & 0x3FF)));
}

void append_utf8(std::string *bytes, char32_t code) {
    const auto put = [bytes](char32_t value) { bytes->push_back(static_cast<char>(value)); };
    if (code < 0x80) {
        put(code);
    } else if (code < 0x800) {
        put(0xC0 | code >> 6);
        put(0x80 | (code & 0x3F));
    } else if (code < FIRST_SUPPLEMENTARY) {
        put(0xE0 | code >> 12);
        put(0x80 | (code >> 6 & 0x3F));
        put(0x80 | (code & 0x3F));
    } else {
        put(0xF0 | code >> 18);
        put(0x80 | (code >> 12 & 0x3F));
        put(0x80 | (code >> 6 & 0x3F));
        put(0x80 | (code & 0x3F));
    }
}

// Length of the sequence that begins with `lead`; 0 if it is not a lead byte.
std::size_t utf8_length(u8 lead) {
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead < 0xE0) {
        return 2;
    }
    if (lead >= 0xE0 && lead < 0xF0) {
        return 3;
    }
    return lead >= 0xF0 && lead < 0xF5 ? 4 : 0;
}

// The value of a sequence; INVALID if it is overlong, a surrogate or too large.
char32_t utf8_value(std::string_view sequence) {
    if (sequence.size() == 1) {
        return static_cast<u8>(sequence[0]);
    }
    constexpr std::array<char32_t, 5> SMALLEST = {0, 0, 0x80, 0x800, FIRST_SUPPLEMENTARY};
    char32_t code = static_cast<u8>(sequence[0]) & (0xFFU >> (sequence.size() + 1));
    for (const char byte : sequence.substr(1)) {
        if ((static_cast<u8>(byte) & 0xC0) != 0x80) {
            return INVALID;
        }
        code = code << 6 | (static_cast<u8>(byte) & 0x3F);
    }
    const bool is_valid =
        code >= SMALLEST[sequence.size()] && code <= LAST_CODE_POINT && !is_surrogate(code);
    return is_valid ? code : INVALID;
}

// Removes the first code point and returns it. Removes nothing if it is INVALID.
char32_t next_code_point(std::string_view *bytes) {
    const std::size_t length = utf8_length(static_cast<u8>(bytes->front()));
    if (length == 0 || length > bytes->size()) {
        return INVALID;
    }
    const char32_t code = utf8_value(bytes->substr(0, length));
    if (code != INVALID) {
        bytes->remove_prefix(length);
    }
    return code;
}

// ---- printable text ----

struct code_range {
    char32_t first;
    char32_t last;
};

// Control characters, line separators, invisible characters and direction marks.
constexpr code_range UNPRINTABLE[] = {
    {0x00, 0x1F},     {DELETE_CONTROL, 0x9F}, {0xAD, 0xAD},       {0x61C, 0x61C},
    {0x200B, 0x200F}, {0x2028, 0x202E},       {0x2060, 0x206F},   {0xFEFF, 0xFEFF},
    {0xFFF9, 0xFFFB}, {0xD800, 0xDFFF},       {0xE0000, 0xE007F},
};

bool is_printable(char32_t code) {
    return std::none_of(
        std::begin(UNPRINTABLE), std::end(UNPRINTABLE),
        [code](const code_range &range) { return code >= range.first && code <= range.last; });
}

bool is_printable_ascii(std::u16string_view units) {
    return std::all_of(units.begin(), units.end(),
                       [](char16_t unit) { return unit >= u' ' && unit < DELETE_CONTROL; });
}

std::string escape_of(char32_t code) {
    if (code < 0x80) {
        return fmt::format("\\x{:02x}", static_cast<u32>(code));
    }
    return code < FIRST_SUPPLEMENTARY ? fmt::format("\\u{:04x}", static_cast<u32>(code))
                                      : fmt::format("\\U{:08x}", static_cast<u32>(code));
}

// Collects printable characters and escapes. Builds both spellings: quotes and backslashes are
// escaped only if something else is.
class shown_text {
public:
    void add(char32_t code, const std::string &text) {
        plain_ += text;
        quoted_ += code == U'\'' || code == U'\\' ? "\\" + text : text;
    }
    void escape(const std::string &text) {
        quoted_ += text;
        needs_quotes_ = true;
    }
    [[nodiscard]] std::string result(bool wants_quotes) const {
        return needs_quotes_ || wants_quotes ? "$'" + quoted_ + "'" : plain_;
    }

private:
    std::string plain_;
    std::string quoted_;
    bool needs_quotes_ = false;
};

// Names that cannot be a component of a path.
bool is_invalid_component(std::u16string_view name) {
    return name.empty() || name == u"." || name == u".." ||
           name.find(u'/') != std::u16string_view::npos;
}

// ---- valid names ----

// Device names: systems that know these devices cannot open such files.
bool is_device_name(std::u16string_view name) {
    if (name.size() > 4) {
        return false;
    }
    const std::u16string folded = fold_case(name);
    const bool is_numbered = folded.size() == 4 && folded[3] >= u'1' && folded[3] <= u'9' &&
                             (folded.starts_with(u"COM") || folded.starts_with(u"LPT"));
    return is_numbered || folded == u"AUX" || folded == u"CON" || folded == u"NUL" ||
           folded == u"PRN";
}

std::optional<std::string> character_problem(std::u16string_view name) {
    while (!name.empty()) {
        const char32_t code = next_code_point(&name);
        if (code < 0x20 || (code >= DELETE_CONTROL && code < 0xA0)) {
            return fmt::format("contains the control character 0x{:02x}", static_cast<u32>(code));
        }
        if (is_surrogate(code)) {
            return "contains half a surrogate pair";
        }
        if (code < 0x80 &&
            std::strchr(core::FORBIDDEN_IN_NAMES, static_cast<char>(code)) != nullptr) {
            return fmt::format("contains '{}'", static_cast<char>(code));
        }
    }
    return std::nullopt;
}

locale_t unicode_locale() {
    static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return locale;
}

// Letters beyond U+FFFF, such as those of Deseret, are returned as they are: kernels compare names
// without folding these.
char16_t upper_case(char16_t unit) {
    if (unit < 0x80) {
        return core::to_upper(static_cast<u8>(unit));
    }
    if (is_surrogate(unit) || unicode_locale() == nullptr) {
        return unit;
    }
    const wint_t upper = towupper_l(unit, unicode_locale());
    return upper < FIRST_SUPPLEMENTARY ? static_cast<char16_t>(upper) : unit;
}

} // namespace

// ---- UTF-8 ------------------------------------------------------------------------------------

std::optional<std::u16string> units_of_utf8(std::string_view bytes) {
    std::u16string units;
    units.reserve(bytes.size());
    while (!bytes.empty()) {
        const char32_t code = next_code_point(&bytes);
        if (code == INVALID) {
            return std::nullopt;
        }
        append_units(&units, code);
    }
    return units;
}

std::optional<std::string> utf8_of_units(std::u16string_view units) {
    std::string bytes;
    bytes.reserve(units.size());
    while (!units.empty()) {
        const char32_t code = next_code_point(&units);
        if (is_surrogate(code)) {
            return std::nullopt;
        }
        append_utf8(&bytes, code);
    }
    return bytes;
}

std::string json_text(std::u16string_view units) {
    std::string bytes;
    while (!units.empty()) {
        const char32_t code = next_code_point(&units);
        append_utf8(&bytes, is_surrogate(code) ? REPLACEMENT : code);
    }
    return bytes;
}

// ---- other encodings --------------------------------------------------------------------------

struct name_codec::converters {
    iconv_t to_units;
    iconv_t from_units;

    explicit converters(const std::string &encoding)
        : to_units(iconv_open("UTF-16LE", encoding.c_str())),
          from_units(iconv_open(encoding.c_str(), "UTF-16LE")) {}
    ~converters() {
        for (iconv_t converter : {to_units, from_units}) {
            if (is_open(converter)) {
                iconv_close(converter);
            }
        }
    }
    converters(const converters &) = delete;
    converters &operator=(const converters &) = delete;

    [[nodiscard]] static bool is_open(iconv_t converter) {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the value by which iconv_open() fails
        return converter != reinterpret_cast<iconv_t>(-1);
    }
    [[nodiscard]] bool are_open() const {
        return is_open(to_units) && is_open(from_units);
    }
};

namespace {

// Nothing if the text cannot be converted completely and without loss.
std::optional<std::string> convert(iconv_t converter, std::string_view text) {
    constexpr std::size_t MOST_BYTES_PER_BYTE = 8;
    std::string result(text.size() * MOST_BYTES_PER_BYTE + 16, '\0');
    char *in = const_cast<char *>(text.data()); // iconv does not write there
    std::size_t in_left = text.size();
    char *out = result.data();
    std::size_t out_left = result.size();
    iconv(converter, nullptr, nullptr, nullptr, nullptr);
    if (iconv(converter, &in, &in_left, &out, &out_left) != 0 || in_left != 0 ||
        iconv(converter, nullptr, nullptr, &out, &out_left) != 0) {
        return std::nullopt;
    }
    result.resize(result.size() - out_left);
    return result;
}

bool is_utf8(const std::string &encoding) {
    const std::u16string folded = fold_case(units_of_utf8(encoding).value_or(u""));
    return folded == u"UTF-8" || folded == u"UTF8";
}

} // namespace

name_codec::name_codec(const std::string &encoding) {
    if (is_utf8(encoding)) {
        return;
    }
    converters_ = std::make_unique<converters>(encoding);
    if (!converters_->are_open()) {
        throw usage_error(fmt::format("unknown encoding {}; \"iconv -l\" lists the known ones",
                                      shown_bytes(encoding)));
    }
}

name_codec::~name_codec() = default;
name_codec::name_codec(name_codec &&) noexcept = default;

std::optional<std::u16string> name_codec::to_units(std::string_view bytes) const {
    if (converters_ == nullptr) {
        return units_of_utf8(bytes);
    }
    const std::optional<std::string> converted = convert(converters_->to_units, bytes);
    if (!converted) {
        return std::nullopt;
    }
    std::u16string units;
    for (std::size_t i = 0; i + 1 < converted->size(); i += 2) {
        units.push_back(core::load16(reinterpret_cast<const u8 *>(converted->data()) + i));
    }
    return units;
}

std::optional<std::string> name_codec::to_host(std::u16string_view units) const {
    if (converters_ == nullptr) {
        return utf8_of_units(units);
    }
    std::string bytes(units.size() * 2, '\0');
    for (std::size_t i = 0; i < units.size(); i++) {
        core::store16(reinterpret_cast<u8 *>(bytes.data()) + 2 * i, units[i]);
    }
    return convert(converters_->from_units, bytes);
}

// ---- showing ----------------------------------------------------------------------------------

std::string name_codec::shown(std::u16string_view units) const {
    if (converters_ == nullptr && is_printable_ascii(units) && !is_invalid_component(units)) {
        return {units.begin(), units.end()};
    }
    shown_text text;
    for (std::u16string_view rest = units; !rest.empty();) {
        const std::u16string_view before = rest;
        const char32_t code = next_code_point(&rest);
        const std::optional<std::string> host =
            is_printable(code) ? to_host(before.substr(0, before.size() - rest.size()))
                               : std::nullopt;
        if (host) {
            text.add(code, *host);
        } else {
            text.escape(escape_of(code));
        }
    }
    return text.result(is_invalid_component(units));
}

std::string shown_bytes(std::string_view bytes) {
    shown_text text;
    while (!bytes.empty()) {
        const std::string_view before = bytes;
        const char32_t code = next_code_point(&bytes);
        if (code == INVALID) {
            text.escape(fmt::format("\\x{:02x}", static_cast<u8>(bytes.front())));
            bytes.remove_prefix(1);
        } else if (is_printable(code)) {
            text.add(code, std::string(before.substr(0, before.size() - bytes.size())));
        } else {
            text.escape(escape_of(code));
        }
    }
    return text.result(false);
}

// ---- valid names ------------------------------------------------------------------------------

std::optional<std::string> name_problem(std::u16string_view name) {
    if (name.empty()) {
        return "is empty";
    }
    if (name.size() > core::MAX_NAME_UNITS) {
        return fmt::format("has {} UTF-16 units, at most {} are allowed", name.size(),
                           core::MAX_NAME_UNITS);
    }
    if (name.back() == u'.' || name.back() == u' ') {
        return "ends with a space or a dot";
    }
    if (is_device_name(name)) {
        return "is a device name";
    }
    return character_problem(name);
}

std::optional<std::string> extraction_problem(std::u16string_view name) {
    if (is_invalid_component(name)) {
        return "would lead outside the destination";
    }
    for (std::u16string_view rest = name; !rest.empty();) {
        const char32_t code = next_code_point(&rest);
        if (code < 0x20 || (code >= DELETE_CONTROL && code < 0xA0)) {
            return fmt::format("contains the control character 0x{:02x}", static_cast<u32>(code));
        }
    }
    return std::nullopt;
}

std::u16string fold_case(std::u16string_view name) {
    std::u16string folded(name);
    std::transform(folded.begin(), folded.end(), folded.begin(), upper_case);
    return folded;
}

bool is_plain_short_name(std::u16string_view name) {
    const short_form form = short_form_of(name);
    return form.is_exact && short_name_units(form.name, 0) == name;
}

std::size_t end_of_stem(std::u16string_view name) {
    constexpr std::size_t MAX_EXTENSION = 16; // units, with its dot
    const std::size_t dot = name.rfind(u'.');
    const bool has_extension =
        dot != 0 && dot != std::u16string_view::npos && name.size() - dot <= MAX_EXTENSION;
    return has_extension ? dot : name.size();
}

u32 slots_of_name(std::u16string_view name) {
    return 1 + (is_plain_short_name(name) ? 0 : core::long_slots_of(static_cast<u32>(name.size())));
}

} // namespace qvol
