// The tables of partitions of a disk, and what the partitions contain.

#pragma once

#include "qvol/disk_layout.h"

#include <string>
#include <vector>

namespace qvol {

class target;

struct partition {
    u32 number;
    std::string type; // "EFI System"
    std::string name; // of GPT
    u64 offset;       // bytes from the start of the file
    u64 bytes;
    u32 sector_bytes;  // of the disk
    bool is_container; // of logical partitions

    [[nodiscard]] u64 end() const {
        return offset + bytes;
    }
};

// A partition to make.
struct new_partition {
    std::string type;       // GUID of a GPT, or the number of an MBR in hexadecimal digits
    std::string name;       // of GPT
    std::string uuid;       // of GPT; "": random
    u64 attributes = 0;     // of GPT, bits
    bool is_active = false; // of MBR
    extent at;
};

struct new_table {
    table_kind kind;
    u32 sector_bytes;
    std::string id; // UUID of a GPT, or the number of an MBR as "0x12345678"; "": random
    std::vector<new_partition> partitions;
};

// Writes the table. Throws error, also if a value in it is invalid.
void write_table(const target &disk, const new_table &wanted);

// Makes the kernel read the table of a device. Returns why it did not, or "".
[[nodiscard]] std::string reread_table(const target &disk);

// What a part of a file contains; empty texts where it is not known.
struct content {
    std::string file_system; // "ext4"
    std::string version;     // "FAT16"
    std::string label;
    std::string uuid;

    // The width of a FAT, or 0.
    [[nodiscard]] u32 fat_type() const;
};

// The partitions by their order in the table; none if there is no table. Reports what is wrong with
// it. Throws error if it is damaged.
[[nodiscard]] std::vector<partition> all_partitions(const target &disk);

// Throws error if there is no such partition, or if the tables are damaged.
[[nodiscard]] partition find_partition(const target &disk, u32 number);

// Whether a whole file or device contains a table of partitions instead of a volume.
[[nodiscard]] bool is_partitioned(const target &disk);

// A line for each partition: number, type, name, start, size, file system, label.
[[nodiscard]] std::vector<std::string> partition_lines(const target &disk);

[[nodiscard]] content content_of(const target &disk, u64 offset, u64 bytes);

} // namespace qvol
