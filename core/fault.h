// What can go wrong on a volume, and results that carry it. The engine prints nothing: its callers
// turn a fault into a message or an error number.

#pragma once

#include "core/bytes.h"

namespace core {

enum class fault : u8 {
    NONE,
    NO_MEMORY,
    READ,  // a transfer of data or directory sectors
    WRITE, // the same
    // The boot sector.
    BOOT_NUMBERS, // sizes or areas that no volume has
    FEW_CLUSTERS,
    // The FAT.
    NO_GEOMETRY, // the sector size is not known
    WIDTH,       // the width of the FAT is not known
    TABLE_MEMORY,
    TABLE_READ,
    TABLE_WRITE,
    CLUSTER_NUMBER, // not the number of a data cluster
    LINK_VALUE,     // a FAT entry that is neither free, nor a link, nor the end of a chain
    CYCLE,          // a chain that leads back into itself
    FREE_CLUSTER,   // a chain that leads to a free entry
    CHAIN_END,      // a position past the end of a chain
    // Directories.
    START_OUTSIDE,  // it would begin with a cluster past the last one
    START_RESERVED, // it would begin with cluster 0 or 1
    ROOT_AREA_END,  // a position past the end of the fixed root area
    SIZE_END,       // a position past the size that the caller stated
    NO_SPACE,
};

// A value, or the fault that prevented it.
template <typename T>
struct [[nodiscard]] result {
    T value{};
    fault why = fault::NONE;

    // Implicit: functions return a value or a fault.
    // cppcheck-suppress noExplicitConstructor
    result(T v) : value(v) {}
    // cppcheck-suppress noExplicitConstructor
    result(fault f) : why(f) {}

    [[nodiscard]] bool ok() const {
        return why == fault::NONE;
    }
};

} // namespace core
