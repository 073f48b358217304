// Types of partitions: the words of the command line, GUIDs of GPT, numbers of MBR.

#pragma once

#include "qvol/disk_layout.h"

#include <string>

namespace qvol {

// Attribute bit of a GPT: firmware without EFI boots from the partition.
inline constexpr u64 LEGACY_BOOT_ATTRIBUTE = u64{1} << 2;

struct part_content {
    bool is_known; // false: the partition is left empty
    u32 fat_type;  // 0: no FAT
};

// The GUID, or the number in hexadecimal digits, of a partition of `bytes` bytes with this content.
// `type` is a word, a GUID or a number, or "" for the type of the content. Throws usage_error if it
// is invalid, or if it contradicts the content or the table.
[[nodiscard]] std::string partition_type(table_kind table, const std::string &type,
                                         const part_content &content, u64 bytes);

} // namespace qvol
