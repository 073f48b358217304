// The attributes of FAT on files and directories of the host.
//
// A mounted FAT volume has them itself. Elsewhere the extended attribute user.DOSATTRIB stores them
// as hexadecimal text, "0x23", and a file without write permission is read-only.

#pragma once

#include "core/layout.h"

#include <string>

namespace qvol {

// The attributes that are copied.
inline constexpr core::u32 COPIED_ATTRIBUTES =
    core::ATTR_READ_ONLY | core::ATTR_HIDDEN | core::ATTR_SYSTEM | core::ATTR_ARCHIVE;

// The attributes of a file or directory; 0 where the host stores none. Throws error if it cannot be
// opened.
[[nodiscard]] core::u32 read_host_attributes(const std::string &path);

// Stores the attributes of an open file or directory, in place of those that it has. Returns false
// if the host cannot store them.
[[nodiscard]] bool write_host_attributes(int fd, core::u32 attributes);

} // namespace qvol
