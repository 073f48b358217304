// What concerns a volume as a whole: the reserved files of the ZUQ driver, and its used length.

#pragma once

#include "qvol/path.h"

namespace qvol {

// A reserved file that the library makes in the root directory.
struct reserved_file {
    const char *name;
    int (*make)();
    u32 bytes; // at least; whole clusters are taken
};
extern const reserved_file POOL_FILE;
extern const reserved_file LOG_FILE;

// Makes the file, in every copy of the FAT that is written. Nothing else may have been changed
// before.
void make_reserved_file(volume &vol, const reserved_file &file);

// Bytes from the start of the image to the end of the last cluster in use.
[[nodiscard]] u64 used_length(volume &vol);

} // namespace qvol
