// Long names between the caller's encoding and UTF-16 units: by iconv if the volume has an
// encoding, as plain ASCII if not.
//
// Units are in host byte order, as iconv's "UNICODE" produces them: a byte-order mark, then the
// text.

#include "fat/internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>

using namespace fat;

namespace fat {

namespace {

constexpr u16 BYTE_ORDER_MARK = 0xFEFF;
constexpr u16 SWAPPED_MARK = 0xFFFE;
constexpr u32 ENCODED_BYTES = 256; // of input, and of output, in one conversion
constexpr u32 FIRST_NON_ASCII = 0x80;

// One conversion by iconv. Begins and ends in the initial state, so that no name depends on the one
// before it: some charsets hold the last character back until they know the next one.
bool convert(iconv_t converter, char **in, std::size_t *in_left, char **out,
             std::size_t *out_left) {
    constexpr std::size_t FAILED = static_cast<std::size_t>(-1);
    iconv(converter, nullptr, nullptr, nullptr, nullptr);
    return iconv(converter, in, in_left, out, out_left) != FAILED &&
           iconv(converter, nullptr, nullptr, out, out_left) != FAILED;
}

int encode_units(const char *cstring, u16 *unicode) {
    // The last byte is never converted: it terminates the text of a failure message.
    char input[ENCODED_BYTES + 1] = {};
    std::strncpy(input, cstring, ENCODED_BYTES);
    u16 output[ENCODED_BYTES / sizeof(u16)] = {};
    char *in = input;
    std::size_t in_left = std::strlen(input);
    char *out = reinterpret_cast<char *>(output);
    std::size_t out_left = sizeof output;
    if (!convert(sv->cd_to_uni, &in, &in_left, &out, &out_left)) {
        const int error = errno;
        report_at("convert_cstring_to_uname", __LINE__, "Failed to convert: %s\n\n", in);
        return -error;
    }
    const u16 *begin = output;
    u32 count = static_cast<u32>((sizeof output - out_left) / sizeof(u16));
    // First the mark of the converter, then one that the name itself begins with: on a medium it
    // would be read as a byte-order mark.
    for (u32 marks = 0; marks < 2 && count > 0 && *begin == BYTE_ORDER_MARK; marks++) {
        begin++;
        count--;
    }
    std::copy_n(begin, count, unicode);
    unicode[count] = 0;
    return static_cast<int>(count);
}

int widen_ascii(const char *cstring, u16 *unicode) {
    for (u32 i = 0; i < LONG_NAME_UNITS; i++) {
        const u8 c = static_cast<u8>(cstring[i]);
        if (c >= FIRST_NON_ASCII) {
            report_at("convert_cstring_to_uname", __LINE__, "cannot convert non-ascii\n");
            return -EINVAL;
        }
        unicode[i] = c;
        if (c == 0) {
            return static_cast<int>(i);
        }
    }
    unicode[LONG_NAME_UNITS - 1] = 0;
    return LONG_NAME_UNITS - 1;
}

// A mark of the other byte order would switch the converter permanently, for all later names.
// Swapping the units here has the same effect on this name only.
void swap_to_host_order(u16 *units, u32 count) {
    if (units[0] != SWAPPED_MARK) {
        return;
    }
    for (u32 i = 0; i < count; i++) {
        units[i] = static_cast<u16>(units[i] << 8 | units[i] >> 8);
    }
}

// Copies a name up to its terminator, or 256 units if it has no terminator.
void copy_name(const u16 *unicode, u16 (&units)[LONG_NAME_UNITS + 1]) {
    const u16 *end = std::find(unicode, unicode + LONG_NAME_UNITS, 0);
    *std::copy(unicode, end, units) = 0;
}

// Decodes a name into `room` bytes and a terminator after them. Returns the number of bytes, or a
// negative errno; `*rest` receives the position in the name where the conversion ended.
int decode_units(u16 (&units)[LONG_NAME_UNITS + 1], char *cstring, std::size_t room, char **rest) {
    const u32 count = static_cast<u32>(std::find(units, units + LONG_NAME_UNITS, 0) - units);
    swap_to_host_order(units, count);
    char *in = reinterpret_cast<char *>(units);
    std::size_t in_left = count * sizeof(u16);
    char *out = cstring;
    std::size_t out_left = room;
    const bool converted = convert(sv->cd_from_uni, &in, &in_left, &out, &out_left);
    *rest = in;
    if (!converted) {
        return -errno;
    }
    *out = '\0';
    return static_cast<int>(room - out_left);
}

int decode_or_report(const u16 *unicode, char *cstring) {
    u16 units[LONG_NAME_UNITS + 1] = {};
    copy_name(unicode, units);
    char *rest = nullptr;
    const int result = decode_units(units, cstring, ENCODED_BYTES - 1, &rest);
    if (result < 0) {
        report_at("convert_uname_to_cstring", __LINE__, "Failed to convert: %s\n\n", rest);
    }
    return result;
}

int narrow_to_ascii(const u16 *unicode, char *cstring) {
    for (u32 i = 0; i < LONG_NAME_UNITS; i++) {
        cstring[i] = unicode[i] < FIRST_NON_ASCII ? static_cast<char>(unicode[i]) : '?';
        if (unicode[i] == 0) {
            return static_cast<int>(i);
        }
    }
    return LONG_NAME_UNITS;
}

// Null if the system has no such conversion, for which iconv_open() returns the address -1.
iconv_t open_converter(const char *to, const char *from) {
    iconv_t converter = iconv_open(to, from);
    return reinterpret_cast<std::intptr_t>(converter) != -1 ? converter : nullptr;
}

} // namespace

int convert_cstring_to_uname(char *cstring, u16 *unicode) {
    const int trimmed = remove_trail_blanks(cstring, nullptr);
    if (trimmed < 0) {
        return trimmed;
    }
    return sv->cd_to_uni != nullptr ? encode_units(cstring, unicode)
                                    : widen_ascii(cstring, unicode);
}

int convert_uname_to_cstring(const u16 *unicode, char *cstring) {
    return sv->cd_from_uni != nullptr ? decode_or_report(unicode, cstring)
                                      : narrow_to_ascii(unicode, cstring);
}

bool store_display_name(const u16 *unicode, char (&text)[DISPLAY_NAME_SIZE]) {
    u16 units[LONG_NAME_UNITS + 1] = {};
    copy_name(unicode, units);
    if (sv->cd_from_uni != nullptr) {
        char *rest = nullptr;
        return decode_units(units, text, sizeof text - 1, &rest) > 0;
    }
    const bool is_ascii =
        std::all_of(units, std::end(units), [](u16 unit) { return unit < FIRST_NON_ASCII; });
    return is_ascii && narrow_to_ascii(units, text) > 0;
}

void close_encoding() {
    for (iconv_t *converter : {&sv->cd_to_uni, &sv->cd_from_uni}) {
        if (*converter != nullptr) {
            iconv_close(*converter);
            *converter = nullptr;
        }
    }
}

} // namespace fat

int fat_set_encoding(const char *charset) {
    if (sv == nullptr || charset == nullptr) {
        return 0;
    }
    close_encoding();
    sv->cd_to_uni = open_converter("UNICODE", charset);
    sv->cd_from_uni = open_converter(charset, "UNICODE");
    if (sv->cd_to_uni == nullptr || sv->cd_from_uni == nullptr) {
        REPORT("opening iconv() error!\n\n");
        return -EINVAL;
    }
    return 0;
}
