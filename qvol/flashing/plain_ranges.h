// What must be written of an image file as it is.

#pragma once

#include "qvol/flashing/image_stream.h"

#include <string>
#include <vector>

namespace qvol {

// Ascending. A hole is left out only where any content is right: in free clusters of a volume,
// between partitions, and in a partition that is one hole. Elsewhere the zeros of a hole count,
// because programs make holes of zeros.
[[nodiscard]] std::vector<byte_range> ranges_of_image(const std::string &path);

} // namespace qvol
