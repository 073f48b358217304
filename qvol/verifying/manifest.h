// A manifest: what a tree should contain.
//
//     # qvol manifest
//     # pieces of 65536 bytes
//     # directory photos
//     # link latest
//     # target photos/1.jpg
//     # size 73412
//     # pieces 0a1b2c3d4e5f6071 8192a3b4c5d6e7f8
//     <64 digits>  photos/1.jpg
//
// The lines of files are those of sha256sum, and it skips the others: "sha256sum -c" checks a
// copy of the tree by a manifest, and what it has written is a manifest of files alone.

#pragma once

#include "qvol/directory.h"
#include "qvol/path.h"
#include "qvol/verifying/digests.h"

#include <map>
#include <optional>
#include <string>

namespace qvol {

struct expected_entry {
    kind type = kind::FILE;
    std::optional<u64> size; // of a file; no value: not stated
    file_digest digest;
    std::string target; // of a link
};

struct manifest {
    bool lists_all = true;                         // directories and links as well as files
    bool states_rest = true;                       // what follows a file in its last cluster
    bool lists_reserved = true;                    // the files of the ZUQ driver
    u64 piece_bytes = 0;                           // 0: no pieces
    std::map<std::string, expected_entry> entries; // by manifest_path()
};

// A path as manifests have it: without a slash at the start, in the encoding of names, with
// escapes for backslashes, control characters and what the encoding does not have.
[[nodiscard]] std::string manifest_path(const name_codec &names, const name_path &path);

// The target of a link, with the same escapes.
[[nodiscard]] std::string manifest_target(std::string_view target);

// A path of a manifest for messages.
[[nodiscard]] std::string shown_manifest_path(const std::string &path);

[[nodiscard]] std::string manifest_text(const manifest &of);

// Whether a file begins like a manifest, by its first bytes.
[[nodiscard]] bool is_digest_manifest(std::string_view head);

// `path` "-": standard input. Throws error with the number of an invalid line.
[[nodiscard]] manifest read_manifest(const std::string &path);

} // namespace qvol
