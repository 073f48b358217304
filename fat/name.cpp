// Short names: 8.3 conversion with case bits and loss flag, numeric tails, the checksum, forbidden
// names, and the classification of raw entries.
//
// Letters are those of the POSIX locale: bytes of 0x80 and above have no case.

#include "fat/internal.h"

#include <cerrno>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

namespace fat {

namespace {

constexpr char REPLACED_CHARACTERS[] = "+,;=[]";
constexpr const char *DEVICE_NAMES[] = {
    "AUX     ", "CON     ", "NUL     ", "PRN     ", "COM1    ", "COM2    ",
    "COM3    ", "COM4    ", "LPT1    ", "LPT2    ", "LPT3    ", "LPT4    ",
};

// Bits of the case accumulator. Those for upper and lower case are disjoint, and both together fill
// their half, so mixed case is one comparison.
constexpr u8 UPPER_BASE = 0x07;
constexpr u8 LOWER_BASE = CASE_LOWER_BASE;
constexpr u8 BASE_HALF = 0x0F;
constexpr u8 UPPER_EXTENSION = 0xE0;
constexpr u8 LOWER_EXTENSION = CASE_LOWER_EXTENSION;
constexpr u8 EXTENSION_HALF = 0xF0;
constexpr u8 MIXED_CASE = 0xFF;

constexpr u32 MAX_TAIL = 1024; // highest number that append_tail() accepts

constexpr bool is_blank_or_dot(char c) {
    return c == ' ' || c == '.';
}

struct case_bits {
    u8 upper;
    u8 lower;
};

// Fills one part of an 8.3 name. Returns false if a character was dropped, replaced or cut off.
bool fill_part(std::string_view text, u8 *part, u32 size, case_bits bits, u8 *seen) {
    return core::fill_half(text, part, size, [&](char character) -> u8 {
        const u8 c = static_cast<u8>(character);
        if (std::strchr(REPLACED_CHARACTERS, character) != nullptr) {
            return 0;
        }
        *seen |= core::is_upper(c) ? bits.upper : core::is_lower(c) ? bits.lower : u8{0};
        return core::to_upper(c);
    });
}

// Whether the string is "." or ".."; if so, stores its fixed name in `dos`.
bool store_dot_name(const char *cstring, u8 *dos) {
    const bool is_dot = std::strcmp(cstring, ".") == 0;
    const bool is_dot_dot = std::strcmp(cstring, "..") == 0;
    if (is_dot || is_dot_dot) {
        std::memcpy(dos, is_dot ? DOT_NAME : DOT_DOT_NAME, DOS_NAME_SIZE);
    }
    return is_dot || is_dot_dot;
}

bool is_mixed_case(u8 seen) {
    return (seen & BASE_HALF) == BASE_HALF || (seen & EXTENSION_HALF) == EXTENSION_HALF;
}

// Case byte of the short entry.
u8 entry_case(u8 name_case) {
    if (name_case == MIXED_CASE) {
        return LOWER_BASE | LOWER_EXTENSION;
    }
    u8 result = 0;
    if ((name_case & BASE_HALF) == LOWER_BASE) {
        result |= LOWER_BASE;
    }
    if ((name_case & EXTENSION_HALF) == LOWER_EXTENSION) {
        result |= LOWER_EXTENSION;
    }
    return result;
}

// Stores the long name in a new buffer; null if it is empty after conversion.
int make_long_name(char *cstring, heap_ptr<u16> *unicode, u32 *ulen) {
    heap_ptr<u16> units = zeroed_records<u16>(LONG_NAME_UNITS);
    if (units == nullptr) {
        report_at("convert_name", __LINE__, "cannot allocate space\n");
        return -ENOMEM;
    }
    const int count = convert_cstring_to_uname(cstring, units.get());
    if (count < 0) {
        report_at("convert_name", __LINE__, "Failed to convert ...!\n\n");
        return -EINVAL;
    }
    *ulen = static_cast<u32>(count);
    if (count > 0) {
        *unicode = std::move(units);
    }
    return 0;
}

// Marks the tails of a whole directory. Its end, of whatever form, ends the walk without an error.
int mark_tails(oentry *dir, const u8 *dos, core::tail_set *tails) {
    dentry_walk walk(dir);
    if (!walk.slots.reserve()) {
        report_at("add_numeric_tail", __LINE__, "Failed to allocate memory!\n\n");
        return -ENOMEM;
    }
    const u32 count = dir_entry_count(dir);
    for (u32 index = 0; index < count; index++) {
        u8 *entry = nullptr;
        const int result = walk_to(&walk, index, &entry);
        if (result == -EFAULT) {
            return 0;
        }
        if (result < 0) {
            return result;
        }
        const u32 type = entry_type(entry);
        if (type == DENTRY_UNUSED) {
            return 0;
        }
        if (type == DENTRY_FILE || type == DENTRY_DIR) {
            tails->mark(entry, dos);
        }
    }
    return 0;
}

} // namespace

// ---- conversion to 8.3 ------------------------------------------------------------------------

int remove_trail_blanks(char *str, char **end) {
    if (str == nullptr) {
        REPORT("NULL string!\n\n");
        return -EINVAL;
    }
    char *terminator = str + std::strlen(str);
    while (terminator > str + 1 && is_blank_or_dot(terminator[-1])) {
        terminator--;
    }
    *terminator = '\0';
    if (end != nullptr) {
        *end = terminator;
    }
    return 0;
}

int convert_cstring_to_dosname(char *cstring, u8 *dos, u8 *case_out, u32 *lossy) {
    if (store_dot_name(cstring, dos)) {
        if (lossy != nullptr) {
            *lossy = 0;
        }
        return 0;
    }
    std::memset(dos, ' ', DOS_NAME_SIZE);
    char *begin = cstring + std::strspn(cstring, " .");
    if (*begin == '\0') {
        REPORT("zero length string!\n\n");
        return -EINVAL;
    }
    bool is_exact = begin == cstring;
    char *end = nullptr;
    remove_trail_blanks(begin, &end);

    u8 seen = 0;
    const char *dot = std::strrchr(begin, '.');
    const char *base_end = dot != nullptr ? dot : end;
    is_exact &= fill_part({begin, base_end}, dos, DOS_BASE_SIZE, {UPPER_BASE, LOWER_BASE}, &seen);
    if (dot != nullptr) {
        is_exact &= fill_part({dot + 1, end}, dos + DOS_BASE_SIZE, core::SHORT_EXTENSION_SIZE,
                              {UPPER_EXTENSION, LOWER_EXTENSION}, &seen);
    }
    if (dos[0] == NAME_DELETED) {
        dos[0] = NAME_ESCAPED_E5;
    }
    if (case_out != nullptr) {
        *case_out = is_mixed_case(seen) ? MIXED_CASE : seen;
    }
    if (lossy != nullptr) {
        *lossy = is_exact ? 0 : 1;
    }
    return 0;
}

int convert_name(char *cstring, u8 **dosName, u16 **unicode, u32 *ulen, u8 *lcase, u32 *lossy) {
    if (dosName == nullptr || unicode == nullptr) {
        REPORT("Invalid arg...\n\n");
        return -EINVAL;
    }
    heap_ptr<u8> dos = zeroed_bytes(DOS_NAME_SIZE);
    if (dos == nullptr) {
        REPORT("cannot allocate space\n");
        return -ENOMEM;
    }
    u8 name_case = 0;
    u32 is_lossy = 0;
    if (convert_cstring_to_dosname(cstring, dos.get(), &name_case, &is_lossy) < 0) {
        REPORT("invalid name in DOS:%s\n", cstring);
        return -EINVAL;
    }
    const bool long_names_on = sv->long_name == 1;
    heap_ptr<u16> long_form;
    u32 units = 0;
    if (long_names_on && (name_case == MIXED_CASE || is_lossy != 0)) {
        const int result = make_long_name(cstring, &long_form, &units);
        if (result < 0) {
            return result;
        }
    }
    *dosName = dos.release();
    *unicode = long_form.release();
    if (ulen != nullptr) {
        *ulen = units;
    }
    if (lcase != nullptr) {
        *lcase = entry_case(name_case);
    }
    if (lossy != nullptr) {
        *lossy = long_names_on ? is_lossy : 0;
    }
    return 0;
}

int get_fatnames(char *cstring, fat_name *name) {
    if (cstring == nullptr || name == nullptr) {
        REPORT("Invalid arg!\n\n");
        return -EINVAL;
    }
    name->cstring = cstring;
    name->dosName = nullptr;
    name->unicode = nullptr;
    return convert_name(cstring, &name->dosName, &name->unicode, &name->ulen, &name->lcase,
                        &name->lossy);
}

void release_name(fat_name *name) {
    std::free(name->dosName);
    std::free(name->unicode);
    name->dosName = nullptr;
    name->unicode = nullptr;
    name->ulen = 0;
}

// ---- short names ------------------------------------------------------------------------------

int convert_dosname_to_cstring(const u8 *dos, char *out, u8 lcase) {
    const bool lower_base = (lcase & CASE_LOWER_BASE) != 0;
    const bool lower_extension = (lcase & CASE_LOWER_EXTENSION) != 0;
    u32 position = 0;
    if (dos[0] == NAME_ESCAPED_E5) {
        *out++ = static_cast<char>(NAME_DELETED);
        position = 1;
    }
    for (; position < DOS_BASE_SIZE && dos[position] != ' '; position++) {
        *out++ = static_cast<char>(lower_base ? core::to_lower(dos[position]) : dos[position]);
    }
    if (dos[DOS_BASE_SIZE] != ' ') {
        *out++ = '.';
        for (position = DOS_BASE_SIZE; position < DOS_NAME_SIZE && dos[position] != ' ';
             position++) {
            *out++ =
                static_cast<char>(lower_extension ? core::to_lower(dos[position]) : dos[position]);
        }
    }
    *out = '\0';
    return 0;
}

u8 dosname_checksum(const u8 *dos) {
    return core::checksum_of(dos);
}

int append_tail(u8 *dos, u32 n) {
    if (n > MAX_TAIL) {
        REPORT("numeric-tail overflow\n");
        return -EINVAL;
    }
    core::write_tail(dos, n);
    return 0;
}

int append_lowest_tail(u8 *dos, const core::tail_set &tails) {
    const u32 tail = tails.lowest_free();
    if (tail == core::tail_set::END) {
        report_at("add_numeric_tail", __LINE__, "Too many SFNs!\n\n");
        return -EEXIST;
    }
    return append_tail(dos, tail);
}

int add_numeric_tail(oentry *dir, u8 *dos) {
    core::tail_set tails;
    const int walked = mark_tails(dir, dos, &tails);
    return walked < 0 ? walked : append_lowest_tail(dos, tails);
}

int verify_valid_name(const char *cstring) {
    if (cstring == nullptr || std::strpbrk(cstring, core::FORBIDDEN_IN_NAMES) != nullptr) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    char base[DOS_BASE_SIZE];
    std::memset(base, ' ', sizeof base);
    for (u32 i = 0; i < DOS_BASE_SIZE && cstring[i] != '\0'; i++) {
        base[i] = static_cast<char>(core::to_upper(static_cast<u8>(cstring[i])));
    }
    for (const char *device : DEVICE_NAMES) {
        if (std::memcmp(base, device, DOS_BASE_SIZE) == 0) {
            REPORT("Check here!\n\n");
            return -EINVAL;
        }
    }
    return 0;
}

// ---- classification ---------------------------------------------------------------------------

u32 entry_type(const u8 *dentry) {
    const core::slot_kind kind = core::kind_of(dentry);
    if (kind == core::slot_kind::INVALID) {
        REPORT("Unknown entry type: %d\n\n", static_cast<int>(load(dentry, SHORT_ATTR)));
    }
    return static_cast<u32>(kind);
}

} // namespace fat
