// Operations on a volume as a whole: the reserved files of the ZUQ driver, the used length.

#pragma once

#include "qvol/path.h"

namespace qvol {

// A reserved file that the library makes in the root directory.
struct reserved_file {
    const char *name;
    int (*make)();
    u32 bytes; // minimum; rounded up to whole clusters
};
extern const reserved_file POOL_FILE;
extern const reserved_file LOG_FILE;

// Makes the file, and updates every FAT copy that is written. There must be no unwritten changes.
void make_reserved_file(volume &vol, const reserved_file &file);

// Bytes from the start of the image to the end of the last cluster in use.
[[nodiscard]] u64 used_length(volume &vol);

} // namespace qvol
