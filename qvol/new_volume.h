// What a new volume is made of: a tree, reserved files, a label. Everything is checked
// before anything is written.

#pragma once

#include "qvol/formatting.h"
#include "qvol/progress.h"
#include "qvol/session.h"
#include "qvol/sources/collection.h"
#include "qvol/volume_shape.h"

#include <memory>
#include <string>
#include <vector>

namespace qvol {

// As requested on the command line.
struct volume_source {
    source_options content;
    volume_identity identity;
    bool is_short = false; // without long names
    bool has_pool = false;
    bool has_log = false;
    bool leaves_copies = false; // of the FAT
};

// The tree, checked. Throws error with all entries that cannot be stored.
[[nodiscard]] source_tree load_source(const volume_source &source, const name_codec &names);

[[nodiscard]] volume_content content_of(const volume_source &source,
                                        const std::vector<source_node> &nodes);

// Throws error if the image would be below a directory that it is made from, or replace a source.
void refuse_own_source(const std::string &image, const volume_source &source);

// Formats the target, which already has the length of the volume, and copies the content. The
// caller finishes the volume, which refers to the target.
[[nodiscard]] std::unique_ptr<volume> make_volume(target &where, const volume_shape &shape,
                                                  const volume_source &source,
                                                  const std::vector<source_node> &nodes,
                                                  const std::string &encoding, progress *bar);

// A line about a volume that some systems do not read; "" for the others.
[[nodiscard]] std::string shape_remark(const volume_shape &shape);

} // namespace qvol
