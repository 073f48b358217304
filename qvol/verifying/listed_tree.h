// All entries of a volume, and the digests of its files.

#pragma once

#include "qvol/progress.h"
#include "qvol/verifying/manifest.h"
#include "qvol/verifying/reading_order.h"

namespace qvol {

struct listed_entry {
    name_path path;
    expected_entry content; // what the entry contains; digests: see add_digests()
    file_extents extents;   // of a file
    std::string problem;    // why it cannot be read; "": it can
};

using listed_tree = std::map<std::string, listed_entry>; // by manifest_path()

// Throws error if a directory cannot be read, two entries have the same path, or files share so
// many clusters that they need more than the volume has.
[[nodiscard]] listed_tree list_tree(volume &vol);

// Reads all files, once and in the order of the medium.
void add_digests(const volume &vol, u64 piece_bytes, bool is_quiet, listed_tree *tree);

// The manifest of a volume. Throws error with the entries that cannot be read.
[[nodiscard]] manifest manifest_of(const listed_tree &tree, u64 piece_bytes);

} // namespace qvol
