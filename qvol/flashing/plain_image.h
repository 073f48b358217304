// An image file as it is: everything but holes where any content is right, see plain_ranges.h. Of a
// pipe or a device everything.

#pragma once

#include "qvol/flashing/image_input.h"
#include "qvol/flashing/image_stream.h"

namespace qvol {

[[nodiscard]] std::unique_ptr<image_stream> open_plain_image(std::unique_ptr<image_input> input);

} // namespace qvol
