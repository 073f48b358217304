// Operations on a volume as a whole: the reserved files of the ZUQ driver, the label, the used
// length.

#pragma once

#include "qvol/path.h"

namespace qvol {

// A file of the driver in the root directory. The rest of its clusters is zero.
struct reserved_file {
    const char *name;
    std::vector<u8> (*header)(const entry &made);
    u32 bytes; // minimum; rounded up to whole clusters
};
extern const reserved_file POOL_FILE;
extern const reserved_file LOG_FILE;

// Makes the file. There must be no unwritten changes. Throws error, with nothing written, if it
// exists or there is no space.
void make_reserved_file(volume &vol, const reserved_file &file);

// The label in the root directory, for a terminal or JSON; "": none.
[[nodiscard]] std::string label_of(volume &vol);

// Bytes from the start of the image to the end of the last cluster in use.
[[nodiscard]] u64 used_length(volume &vol);

// Throws error if an image file ends before its content: a write would extend it, and what is lost
// would read as zeros. An image that was only cut past its content may grow.
void refuse_truncated(volume &vol);

} // namespace qvol
