// A second account of short names, written plainly: strings and searches instead of walks over
// bytes, nothing of the library. The tests hold the library against it.

#pragma once

#include <cerrno>
#include <cstdint>
#include <optional>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace name_model {

// For messages of the tests: what is not printable is shown in hexadecimal.
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

// Without the blanks and dots at its end; the first character stays.
inline std::string without_tail_blanks(const std::string &name) {
    const std::size_t last = name.find_last_not_of(" .");
    return last == std::string::npos ? name.substr(0, 1) : name.substr(0, last + 1);
}

// What becomes of a name. Where it has no short form only `result` and `left` count.
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

// The record of a name on a volume without an encoding. Of a refused name only `result`, `said` and
// `left` count.
struct record {
    int result = 0;
    std::string said; // source lines as N
    std::string left;
    std::string dos;
    std::optional<std::vector<std::uint16_t>> units; // the long name, where there is one
    unsigned lcase = 0;
    unsigned lossy = 0;

    bool operator==(const record &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const record &r) {
    out << "{" << r.result << ", said " << shown_bytes(r.said) << ", left " << shown_bytes(r.left)
        << ", dos " << shown_bytes(r.dos) << ", units";
    if (!r.units) {
        out << " none";
    } else {
        for (const std::uint16_t unit : *r.units) {
            out << ' ' << unit;
        }
    }
    return out << ", lcase " << r.lcase << ", lossy " << r.lossy << "}";
}

inline record to_record(const std::string &name, bool has_long_names) {
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
    record r;
    r.left = form.left;
    const bool is_mixed = form.case_byte == 255U;
    if (has_long_names && (is_mixed || form.lossy)) {
        // 256 units hold 255 characters and the terminator.
        const std::string seen = form.left.substr(0, 256);
        std::vector<std::uint16_t> units;
        for (const char c : seen) {
            if (static_cast<unsigned char>(c) > 127) {
                r.result = -EINVAL;
                r.said = "convert_cstring_to_uname[N]: cannot convert non-ascii\n"
                         "convert_name[N]: Failed to convert ...!\n\n";
                return r;
            }
            units.push_back(static_cast<std::uint16_t>(c));
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

// ---- checksum, tails, kinds, refused names ----------------------------------------------------

inline unsigned checksum(const std::string &dos) {
    unsigned sum = 0;
    for (const char c : dos) {
        const unsigned rotated = sum / 2 + (sum % 2) * 128;
        sum = (rotated + static_cast<unsigned char>(c)) % 256;
    }
    return sum;
}

inline std::string with_tail(const std::string &dos, unsigned number) {
    std::string tail = "~";
    tail += std::to_string(number);
    const std::size_t blank = dos.substr(0, 8).find(' ');
    const std::size_t place = blank < 8 - tail.size() ? blank : 8 - tail.size();
    std::string result = dos;
    result.replace(place, tail.size(), tail);
    return result;
}

// The type code of a raw entry by its first byte and its attributes.
inline unsigned kind(unsigned first, unsigned attr) {
    if (first == 0x00) {
        return 0;
    }
    if (first == 0xE5) {
        return 1;
    }
    if (attr % 64 == 15) {
        return 4;
    }
    const unsigned code[] = {2, 8, 3, 6}; // by the volume bit and the directory bit
    return code[attr / 8 % 4];
}

// The lowest free tail number among the raw entries of a directory, 0 when all are taken.
inline unsigned free_tail(const std::vector<std::string> &entries, const std::string &dos) {
    std::set<unsigned> taken;
    for (const std::string &entry : entries) {
        const unsigned code =
            kind(static_cast<unsigned char>(entry[0]), static_cast<unsigned char>(entry[11]));
        if (code == 0) {
            break;
        }
        if (code != 2 && code != 3) {
            continue;
        }
        const std::string text = entry.substr(0, entry.find('\0'));
        const std::size_t tilde = text.find('~');
        if (tilde == std::string::npos || tilde >= 8 ||
            entry.compare(0, tilde, dos, 0, tilde) != 0) {
            continue;
        }
        // What stands behind the tilde in the base, digits only, and no digit counts as 0.
        std::string digits = "0";
        for (std::size_t i = tilde + 1; i < 8; i++) {
            if (entry[i] >= '0' && entry[i] <= '9') {
                digits += entry[i];
            }
        }
        taken.insert(static_cast<unsigned>(std::stoul(digits)));
    }
    for (unsigned number = 1; number < 1024; number++) {
        if (taken.count(number) == 0) {
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

} // namespace name_model
