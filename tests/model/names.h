// Reference model, layer 1: names and the bytes of one directory entry.
//
// Models: the 32 bytes of a short entry and of a long-name slot, the type of an entry, the 8.3 form
// of a name with its case bits, the name record, the checksum, numeric tails, refused names.
// Written with strings and searches; it uses nothing of the library. A name has passed its tests
// here before a layer above looks for it on a volume.
//
// Not modelled: character sets. Without one a long name is ASCII, and any other byte is refused.
// What a character set makes of a name is the tests' own business, by iconv.

#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace model {

using bytes = std::vector<std::uint8_t>;

// For messages of the tests: unprintable bytes are shown in hexadecimal.
inline std::string shown_bytes(const std::string &text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c >= ' ' && c <= '~') {
            result += c;
        } else {
            const char *digits = "0123456789ABCDEF";
            const auto byte = static_cast<unsigned char>(c);
            result += std::string("<") + digits[byte / 16] + digits[byte % 16] + ">";
        }
    }
    return result + "\"";
}

inline bool is_upper(char c) {
    return c >= 'A' && c <= 'Z';
}
inline bool is_lower(char c) {
    return c >= 'a' && c <= 'z';
}
inline std::string in_capitals(std::string text) {
    for (char &c : text) {
        c = is_lower(c) ? static_cast<char>(c - 'a' + 'A') : c;
    }
    return text;
}
inline std::string in_small_letters(std::string text) {
    for (char &c : text) {
        c = is_upper(c) ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return text;
}
inline std::string padded(std::string text, std::size_t size) {
    text.resize(size, ' ');
    return text;
}

// ---- a string to a short name -----------------------------------------------------------------

// ---- the bytes of an entry --------------------------------------------------------------------

using raw_entry = std::array<std::uint8_t, 32>;

// Numbers are little-endian; `size` in bytes.
template <typename Bytes>
std::uint32_t field_of(const Bytes &raw, std::size_t offset, std::size_t size) {
    std::uint32_t value = 0;
    for (std::size_t i = size; i-- > 0;) {
        value = value << 8 | raw.at(offset + i);
    }
    return value;
}
template <typename Bytes>
void put_field(Bytes *raw, std::size_t offset, std::size_t size, std::uint32_t value) {
    for (std::size_t i = 0; i < size; i++) {
        raw->at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

inline std::string dos_name_of(const raw_entry &entry) {
    return {entry.begin(), entry.begin() + 11};
}
inline std::uint32_t size_of(const raw_entry &entry) {
    return field_of(entry, 28, 4);
}
inline std::uint32_t start_of(const raw_entry &entry) {
    return field_of(entry, 20, 2) << 16 | field_of(entry, 26, 2);
}
inline void put_start(raw_entry *entry, std::uint32_t start) {
    put_field(entry, 20, 2, start >> 16);
    put_field(entry, 26, 2, start);
}

// A short entry. The name is the 11 bytes of the medium.
inline raw_entry short_entry(std::string_view dos, std::uint8_t attr = 0x20,
                             std::uint32_t start = 0, std::uint32_t size = 0) {
    if (dos.size() != 11) {
        throw std::logic_error("a short name has 11 bytes");
    }
    raw_entry result = {};
    std::copy(dos.begin(), dos.end(), result.begin());
    result[11] = attr;
    put_start(&result, start);
    put_field(&result, 28, 4, size);
    return result;
}
inline raw_entry deleted(raw_entry entry) {
    entry[0] = 0xE5;
    return entry;
}

enum entry_kind : unsigned {
    UNUSED = 0,
    DELETED = 1,
    FILE_ENTRY = 2,
    DIR_ENTRY = 3,
    NAME_SLOT = 4,
    INVALID = 6,
    LABEL_ENTRY = 8
};
inline entry_kind kind(unsigned first_byte, unsigned attr) {
    if (first_byte == 0x00 || first_byte == 0xE5) {
        return first_byte == 0x00 ? UNUSED : DELETED;
    }
    if (attr % 64 == 15) {
        return NAME_SLOT;
    }
    constexpr entry_kind KINDS[] = {FILE_ENTRY, LABEL_ENTRY, DIR_ENTRY, INVALID};
    return KINDS[attr / 8 % 4]; // the volume bit and the directory bit
}
inline entry_kind kind(const raw_entry &entry) {
    return kind(entry[0], entry[11]);
}
inline bool is_short(const raw_entry &entry) {
    return kind(entry) == FILE_ENTRY || kind(entry) == DIR_ENTRY;
}

inline bool is_dot_entry(const raw_entry &entry) {
    const std::string dos = dos_name_of(entry);
    return dos == padded(".", 11) || dos == padded("..", 11);
}

// Rotates to the right by one bit before each byte.
inline std::uint8_t checksum_of(std::string_view dos) {
    unsigned sum = 0;
    for (const char c : dos) {
        const unsigned rotated = sum / 2 + (sum % 2) * 128;
        sum = (rotated + static_cast<unsigned char>(c)) % 256;
    }
    return static_cast<std::uint8_t>(sum);
}

// ---- long-name slots --------------------------------------------------------------------------

constexpr std::array<std::size_t, 13> UNIT_OFFSETS = {1,  3,  5,  7,  9,  14, 16,
                                                      18, 20, 22, 24, 28, 30};

// A slot with `ordinal` as its first byte. After fewer than 13 units come a terminator and 0xFFFF.
inline raw_entry long_slot(unsigned ordinal, std::u16string_view units, unsigned sum) {
    if (units.size() > 13) {
        throw std::logic_error("a slot has 13 units");
    }
    raw_entry slot = {};
    slot[0] = static_cast<std::uint8_t>(ordinal);
    slot[11] = 0x0F;
    slot[13] = static_cast<std::uint8_t>(sum);
    for (std::size_t i = 0; i < UNIT_OFFSETS.size(); i++) {
        const std::uint32_t unit = i < units.size() ? units[i] : i == units.size() ? 0 : 0xFFFF;
        put_field(&slot, UNIT_OFFSETS.at(i), 2, unit);
    }
    return slot;
}
// The slots of a long name in the order of the medium: the last one first.
inline std::vector<raw_entry> long_slots(std::u16string_view name, std::string_view dos) {
    const std::size_t count = (name.size() + 12) / 13;
    std::vector<raw_entry> result;
    for (std::size_t k = count; k >= 1; k--) {
        const unsigned mark = k == count ? 0x40 : 0;
        result.push_back(long_slot(static_cast<unsigned>(k) + mark, name.substr((k - 1) * 13, 13),
                                   checksum_of(dos)));
    }
    return result;
}
// The units of a slot before its terminator.
inline std::u16string units_of(const raw_entry &slot) {
    std::u16string result;
    for (const std::size_t offset : UNIT_OFFSETS) {
        const auto unit = static_cast<char16_t>(field_of(slot, offset, 2));
        if (unit == 0) {
            break;
        }
        result += unit;
    }
    return result;
}

// Assembles a long name from slots by their ordinals; their checksums do not matter. Units past the
// 256 that there is room for are dropped.
class name_assembler {
public:
    bool has_slots = false;

    // Adds a slot whose first unit is unit `first` of the name.
    void add(const raw_entry &slot, int first) {
        has_slots = true;
        const std::u16string part = units_of(slot);
        for (const char16_t unit : part) {
            store(first++, unit);
        }
        if (part.size() < 13 || slot[0] >= 0x41) {
            store(first, u'\0');
        }
    }
    // Adds a slot at the units that its ordinal states.
    void add(const raw_entry &slot) {
        add(slot, ((slot[0] & ~0x40) - 1) * 13);
    }
    [[nodiscard]] std::u16string name() const {
        return {units.begin(), std::find(units.begin(), units.end(), u'\0')};
    }

    std::array<char16_t, 256> units = {};

private:
    void store(int position, char16_t unit) {
        if (position >= 0 && position < 256) {
            units.at(static_cast<std::size_t>(position)) = unit;
        }
    }
};

// Without trailing blanks and dots; the first character always stays.
inline std::string without_tail_blanks(const std::string &name) {
    const std::size_t last = name.find_last_not_of(" .");
    return last == std::string::npos ? name.substr(0, 1) : name.substr(0, last + 1);
}

// The conversion of a name. Without a short form only `result` and `left` count.
struct short_form {
    int result = 0;
    std::string left; // the caller's string afterwards
    std::string dos;
    std::optional<unsigned> case_byte; // not written for the dot entries
    bool lossy = false;

    bool operator==(const short_form &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const short_form &form) {
    out << "{" << form.result << ", left " << shown_bytes(form.left) << ", dos "
        << shown_bytes(form.dos) << ", case ";
    if (form.case_byte) {
        out << *form.case_byte;
    } else {
        out << "not written";
    }
    return out << ", " << (form.lossy ? "lossy" : "faithful") << "}";
}

// One half of a short name, before it is padded.
struct half {
    std::string text;
    bool has_upper = false;
    bool has_lower = false;
    bool lossy = false;
};

inline half squeeze(const std::string &part, std::size_t room) {
    half result;
    for (const char c : part) {
        if (result.text.size() == room) {
            result.lossy = true;
            break;
        }
        if (c == ' ' || c == '.') {
            result.lossy = true;
            continue;
        }
        const bool is_replaced = std::string("+,;=[]").find(c) != std::string::npos;
        result.lossy = result.lossy || is_replaced;
        result.has_upper = result.has_upper || is_upper(c);
        result.has_lower = result.has_lower || is_lower(c);
        result.text += is_replaced ? '_' : c;
    }
    result.text = in_capitals(result.text);
    return result;
}

inline short_form to_short(const std::string &name) {
    if (name == "." || name == "..") {
        return {0, name, padded(name, 11), std::nullopt, false};
    }
    const std::size_t begin = name.find_first_not_of(" .");
    if (begin == std::string::npos) {
        return {-EINVAL, name, "", std::nullopt, false};
    }
    const std::string rest = without_tail_blanks(name.substr(begin));
    const std::size_t dot = rest.rfind('.');
    const half base = squeeze(rest.substr(0, dot), 8);
    const half extension = dot == std::string::npos ? half{} : squeeze(rest.substr(dot + 1), 3);

    short_form form;
    form.left = name.substr(0, begin) + rest;
    form.dos = padded(base.text, 8) + padded(extension.text, 3);
    if (form.dos[0] == '\xE5') {
        form.dos[0] = '\x05';
    }
    form.lossy = begin > 0 || base.lossy || extension.lossy;
    const bool is_mixed =
        (base.has_upper && base.has_lower) || (extension.has_upper && extension.has_lower);
    form.case_byte = is_mixed
                         ? 255
                         : (base.has_upper ? 7 : 0) + (base.has_lower ? 8 : 0) +
                               (extension.has_upper ? 224 : 0) + (extension.has_lower ? 16 : 0);
    return form;
}

// ---- a string to the whole record -------------------------------------------------------------

// The record of a name on a volume without an encoding. Of a refused name only `result`, `messages`
// and `left` count.
struct name_record {
    int result = 0;
    std::string messages; // source lines as N
    std::string left;
    std::string dos;
    std::optional<std::u16string> units; // the long name, where there is one
    unsigned lcase = 0;
    unsigned lossy = 0;

    bool operator==(const name_record &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const name_record &r) {
    out << "{" << r.result << ", messages " << shown_bytes(r.messages) << ", left "
        << shown_bytes(r.left) << ", dos " << shown_bytes(r.dos) << ", units";
    if (!r.units) {
        out << " none";
    } else {
        for (const char16_t unit : *r.units) {
            out << ' ' << static_cast<unsigned>(unit);
        }
    }
    return out << ", lcase " << r.lcase << ", lossy " << r.lossy << "}";
}

inline name_record to_record(const std::string &name, bool has_long_names) {
    const short_form form = to_short(name);
    if (form.result != 0) {
        return {form.result,
                "convert_cstring_to_dosname[N]: zero length string!\n\n"
                "convert_name[N]: invalid name in DOS:" +
                    name + "\n",
                name,
                "",
                std::nullopt,
                0,
                0};
    }
    name_record r;
    r.left = form.left;
    const bool is_mixed = form.case_byte == 255U;
    if (has_long_names && (is_mixed || form.lossy)) {
        // 256 units hold 255 characters and the terminator.
        const std::string seen = form.left.substr(0, 256);
        std::u16string units;
        for (const char c : seen) {
            if (static_cast<unsigned char>(c) > 127) {
                r.result = -EINVAL;
                r.messages = "convert_cstring_to_uname[N]: cannot convert non-ascii\n"
                             "convert_name[N]: Failed to convert ...!\n\n";
                return r;
            }
            units += static_cast<char16_t>(c);
        }
        if (units.size() == 256) {
            units.pop_back();
        }
        r.units = units;
    }
    if (is_mixed) {
        r.lcase = 0x18;
    } else {
        const unsigned case_byte = form.case_byte.value_or(0);
        r.lcase = (case_byte % 16 == 8 ? 0x08 : 0) + (case_byte / 16 == 1 ? 0x10 : 0);
    }
    r.dos = form.dos;
    r.lossy = has_long_names && form.lossy ? 1 : 0;
    return r;
}

// ---- a short name to a string -----------------------------------------------------------------

inline std::string to_text(const std::string &dos, unsigned lcase) {
    std::string base = dos.substr(0, 8);
    base = base.substr(0, base.find(' '));
    std::string extension = dos.substr(8, 3);
    extension = extension.substr(0, extension.find(' '));
    if (lcase / 8 % 2 == 1) {
        base = in_small_letters(base);
    }
    if (lcase / 16 % 2 == 1) {
        extension = in_small_letters(extension);
    }
    if (dos[0] == '\x05') {
        base[0] = '\xE5';
    }
    return extension.empty() ? base : base + "." + extension;
}

// ---- tails, refused names ---------------------------------------------------------------------

inline std::string with_tail(const std::string &dos, unsigned number) {
    const std::string tail = "~" + std::to_string(number);
    const std::size_t position = std::min(dos.substr(0, 8).find(' '), 8 - tail.size());
    std::string result = dos;
    result.replace(position, tail.size(), tail);
    return result;
}

// The number that an entry takes from the tails of `dos`: the digits after its first tilde, others
// than digits left out; no digit is 0.
inline std::optional<unsigned> taken_tail(const raw_entry &entry, const std::string &dos) {
    const std::string text(entry.begin(), std::find(entry.begin(), entry.end(), 0));
    const std::size_t tilde = text.find('~');
    if (!is_short(entry) || tilde >= 8 || text.compare(0, tilde, dos, 0, tilde) != 0) {
        return std::nullopt;
    }
    unsigned number = 0;
    for (std::size_t i = tilde + 1; i < 8; i++) {
        if (entry.at(i) >= '0' && entry.at(i) <= '9') {
            number = number * 10 + (entry.at(i) - '0');
        }
    }
    return number;
}
// The lowest free tail among the entries of a directory, 0 when all are taken.
inline unsigned free_tail(const std::vector<raw_entry> &entries, const std::string &dos) {
    std::set<unsigned> taken;
    for (const raw_entry &entry : entries) {
        if (entry[0] == 0) {
            break;
        }
        taken.insert(taken_tail(entry, dos).value_or(0));
    }
    for (unsigned number = 1; number < 1024; number++) {
        if (!taken.contains(number)) {
            return number;
        }
    }
    return 0;
}

inline bool is_refused(const std::string &name) {
    if (name.find_first_of("\\/:*?\"<>|") != std::string::npos) {
        return true;
    }
    const std::string base = padded(in_capitals(name.substr(0, 8)), 8);
    for (const char *device : {"AUX", "CON", "NUL", "PRN", "COM1", "COM2", "COM3", "COM4", "LPT1",
                               "LPT2", "LPT3", "LPT4"}) {
        if (base == padded(device, 8)) {
            return true;
        }
    }
    return false;
}

} // namespace model
