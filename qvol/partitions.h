// The partitions of a disk, and what they contain.

#pragma once

#include "core/bytes.h"

#include <string>
#include <vector>

namespace qvol {

using core::u32;
using core::u64;

class target;

struct partition {
    u32 number;
    std::string type; // "EFI System"
    std::string name; // of GPT
    u64 offset;       // bytes from the start of the file
    u64 bytes;
    bool is_container; // of logical partitions

    [[nodiscard]] u64 end() const {
        return offset + bytes;
    }
};

// What a part of a file contains; empty texts where it is not known.
struct content {
    std::string file_system; // "ext4"
    std::string label;
};

// Throws error if there is no such partition.
[[nodiscard]] partition find_partition(const target &disk, u32 number);

// Whether a whole file or device contains a table of partitions instead of a volume.
[[nodiscard]] bool is_partitioned(const target &disk);

// A line for each partition: number, type, name, start, size, file system, label.
[[nodiscard]] std::vector<std::string> partition_lines(const target &disk);

[[nodiscard]] content content_of(const target &disk, u64 offset, u64 bytes);

} // namespace qvol
