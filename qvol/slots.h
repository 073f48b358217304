// The 32-byte slots of a directory, and the entries that they form.

#pragma once

#include "core/long_name.h"
#include "qvol/directory.h"

namespace qvol {

// The maximum size of a directory in other systems.
inline constexpr u32 MAX_SLOTS = 65536;

// A file, a directory or a label.
[[nodiscard]] bool is_entry(const u8 *slot);

// The entry of a short slot, with the long name if that belongs to it.
// `is_wide`: of FAT32.
[[nodiscard]] entry entry_of_slot(const u8 *slot, u32 index, const core::name_assembler &assembler,
                                  bool is_wide);

} // namespace qvol
