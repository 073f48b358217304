#include "qvol/partition_types.h"

#include "qvol/error.h"
#include "qvol/identifiers.h"
#include "qvol/output.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include <fmt/core.h>

namespace qvol {

namespace {

enum class needs { ANYTHING, FAT, NO_FAT };

struct known_type {
    const char *word;
    const char *guid;
    const char *number; // nullptr: depends on the FAT; "": an MBR has no such partition
    needs content;
};

constexpr const char *DATA_GUID = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";

constexpr known_type TYPES[] = {
    {"esp", "C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "ef", needs::FAT},
    {"boot", DATA_GUID, nullptr, needs::FAT},
    {"data", DATA_GUID, nullptr, needs::ANYTHING},
    {"linux", "0FC63DAF-8483-4772-8E79-3D69D8477DE4", "83", needs::ANYTHING},
    {"swap", "0657FD6D-A4AB-43C4-84E5-0933C84B4F4F", "82", needs::NO_FAT},
    {"bios", "21686148-6449-6E6F-744E-656564454649", "", needs::NO_FAT},
    {"xbootldr", "BC13C2FF-59E6-4262-A352-B275FD6F7172", "ea", needs::FAT},
};

// The number for a FAT: of the variants, the one with addresses that are not limited to cylinders.
std::string number_of_fat(u32 fat_type, u64 bytes) {
    constexpr u64 LARGE_FAT16 = u64{32} << 20;
    constexpr const char *OTHER_DATA = "da";
    switch (fat_type) {
    case 12:
        return "1";
    case 16:
        return bytes < LARGE_FAT16 ? "4" : "e";
    case 32:
        return "c";
    default:
        return OTHER_DATA;
    }
}

// "0x0C", "0c" and "C" are "c". No value if it is not a byte, or 0.
std::optional<std::string> parse_number(const std::string &text) {
    const bool has_prefix = text.starts_with("0x") || text.starts_with("0X");
    u32 number = 0;
    const char *end = text.data() + text.size();
    const auto [rest, failure] =
        std::from_chars(text.data() + (has_prefix ? 2 : 0), end, number, 16);
    const bool is_type = failure == std::errc() && rest == end && number != 0 && number <= 0xFF;
    return is_type ? std::optional(fmt::format("{:x}", number)) : std::nullopt;
}

// Numbers that mark the start of another table.
void refuse_special(table_kind table, const std::string &code) {
    const bool is_extended = code == "5" || code == "f" || code == "85";
    if (table == table_kind::MBR && (is_extended || code == "ee")) {
        throw usage_error(
            fmt::format("type={}: {} cannot be made; use --gpt", code,
                        is_extended ? "an extended partition" : "the entry that protects a GPT"));
    }
}

const known_type *type_of_word(const std::string &word) {
    const auto *found = std::find_if(std::begin(TYPES), std::end(TYPES),
                                     [&](const known_type &one) { return word == one.word; });
    return found != std::end(TYPES) ? found : nullptr;
}

// The type with this GUID or number, if it demands anything of the content.
const known_type *type_of_code(table_kind table, const std::string &code) {
    const auto *found = std::find_if(std::begin(TYPES), std::end(TYPES), [&](const auto &one) {
        const char *own = table == table_kind::GPT ? one.guid : one.number;
        return one.number != nullptr && code == own;
    });
    return found != std::end(TYPES) ? found : nullptr;
}

void refuse_content(const known_type &type, const part_content &content) {
    if (type.content == needs::FAT && content.is_known && content.fat_type == 0) {
        throw usage_error(fmt::format(
            "type={} needs a FAT volume, raw= is not one; use another type", type.word));
    }
    if (type.content == needs::NO_FAT && content.fat_type != 0) {
        throw usage_error(fmt::format("type={} excludes a FAT volume; use type=data", type.word));
    }
}

std::string number_of(const known_type &type, u32 fat_type, u64 bytes) {
    if (type.number == nullptr) {
        return number_of_fat(fat_type, bytes);
    }
    if (*type.number == '\0') {
        throw usage_error(
            fmt::format("type={} is of a GPT, an MBR has no such partition", type.word));
    }
    return type.number;
}

std::string list_of_words() {
    std::string list;
    for (const known_type &type : TYPES) {
        list += fmt::format("{}, ", type.word);
    }
    return list;
}

} // namespace

std::string partition_type(table_kind table, const std::string &type, const part_content &content,
                           u64 bytes) {
    const bool is_gpt = table == table_kind::GPT;
    const std::string word = !type.empty() ? type : content.fat_type != 0 ? "data" : "linux";
    const known_type *known = type_of_word(word);
    if (known != nullptr) {
        refuse_content(*known, content);
        return is_gpt ? known->guid : number_of(*known, content.fat_type, bytes);
    }
    const std::optional<std::string> code = is_gpt ? parse_uuid(word) : parse_number(word);
    if (!code) {
        throw usage_error(fmt::format("type={}: must be one of {}or {}", shown_bytes(word),
                                      list_of_words(),
                                      is_gpt ? "a GUID" : "a hexadecimal byte such as 0x83"));
    }
    refuse_special(table, *code);
    known = type_of_code(table, *code);
    if (known != nullptr) {
        refuse_content(*known, content);
    }
    return *code;
}

} // namespace qvol
