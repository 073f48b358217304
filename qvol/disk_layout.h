// Where the partitions of a new disk lie. Arithmetic only.

#pragma once

#include "core/bytes.h"

#include <string>
#include <vector>

namespace qvol {

using core::u32;
using core::u64;

enum class table_kind { GPT, MBR };

struct disk_request {
    table_kind table;
    u32 sector_bytes;
    u64 align_bytes; // every partition begins on a multiple, counted from the start of the disk
    u64 bytes;       // of the disk; 0: as many as the partitions need
};

struct partition_request {
    u64 bytes;      // of the one that takes the rest: at least
    u32 page_bytes; // a further alignment of the start; 0: none
    bool takes_rest = false;
};

struct extent {
    u64 offset = 0; // bytes
    u64 bytes = 0;

    [[nodiscard]] u64 end() const {
        return offset + bytes;
    }
};

struct disk_layout {
    u64 bytes;
    std::vector<extent> partitions; // in the order of the requests
};

// Places the partitions one after another. Throws error, with a request that is possible.
[[nodiscard]] disk_layout lay_out_disk(const disk_request &request,
                                       const std::vector<partition_request> &partitions);

// Bytes at the start and at the end of the disk that its table takes.
[[nodiscard]] u64 head_bytes(const disk_request &request);
[[nodiscard]] u64 tail_bytes(const disk_request &request);

} // namespace qvol
