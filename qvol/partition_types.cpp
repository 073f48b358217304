#include "qvol/partition_types.h"

#include "qvol/error.h"
#include "qvol/output.h"

#include <algorithm>

#include <fmt/core.h>
#include <uuid/uuid.h>

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

bool is_guid(const std::string &text) {
    uuid_t id;
    return uuid_parse(text.c_str(), id) == 0;
}

bool is_byte(const std::string &text) {
    return !text.empty() && text.size() <= 2 &&
           text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos && text != "0" &&
           text != "00";
}

std::string without_prefix(const std::string &text) {
    return text.starts_with("0x") || text.starts_with("0X") ? text.substr(2) : text;
}

void refuse_content(const known_type &type, u32 fat_type) {
    if (type.content == needs::FAT && fat_type == 0) {
        throw usage_error(fmt::format(
            "type={} needs a FAT volume, raw= is not one; use another type", type.word));
    }
    if (type.content == needs::NO_FAT && fat_type != 0) {
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

std::string partition_type(table_kind table, const std::string &type, u32 fat_type, u64 bytes) {
    const bool is_gpt = table == table_kind::GPT;
    const std::string word = !type.empty() ? type : fat_type != 0 ? "data" : "linux";
    const auto *known = std::find_if(std::begin(TYPES), std::end(TYPES),
                                     [&](const known_type &one) { return word == one.word; });
    if (known != std::end(TYPES)) {
        refuse_content(*known, fat_type);
        return is_gpt ? known->guid : number_of(*known, fat_type, bytes);
    }
    if (is_gpt ? !is_guid(word) : !is_byte(without_prefix(word))) {
        throw usage_error(fmt::format("type={}: must be one of {}or {}", shown_bytes(word),
                                      list_of_words(),
                                      is_gpt ? "a GUID" : "a hexadecimal byte such as 0x83"));
    }
    return is_gpt ? word : without_prefix(word);
}

} // namespace qvol
