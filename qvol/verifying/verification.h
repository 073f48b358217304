// Compares a volume with what it should contain.

#pragma once

#include "qvol/verifying/listed_tree.h"
#include "qvol/verifying/source.h"

namespace qvol {

enum class difference_kind { MISSING, EXTRA, KIND, TARGET, SIZE, CONTENT, REST, UNREADABLE };

// An entry that differs.
struct difference {
    std::string path; // as in the manifest
    difference_kind type;
    std::string text; // what differs, for messages
    // Of a file: the first byte that differs is one of these; counted from the start of the file.
    std::optional<u64> first;
    std::optional<u64> last;
};

// The identifier in documents: "missing", "extra" and so on.
[[nodiscard]] const char *difference_word(difference_kind type);

// Reads every file of the volume once, and those that differ a second time. In the order of the
// paths.
[[nodiscard]] std::vector<difference> find_differences(const volume &vol, listed_tree *tree,
                                                       verification_source *expected,
                                                       bool is_quiet);

} // namespace qvol
