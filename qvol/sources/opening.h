// Finds out what a source is.

#pragma once

#include "qvol/sources/source.h"

#include <memory>
#include <string>

namespace qvol {

// A directory, an archive, or a manifest. `path` "-": an archive or manifest from standard input.
// What cannot be read twice is copied to an unnamed temporary file, as it is. `contents`:
// directory with the files of a manifest, "": that of the manifest. Throws error.
[[nodiscard]] std::unique_ptr<source> open_source(const std::string &path,
                                                  const std::string &contents);

} // namespace qvol
