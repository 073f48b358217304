// The map of a volume as an SVG picture for browsers.
//
// It stands alone: no script, no font and no picture from elsewhere. Hovering over a part tells its
// path and its clusters. Light or dark as the browser is. The same volume gives the same bytes.

#pragma once

#include "qvol/volume_map.h"

#include <string>

namespace qvol {

[[nodiscard]] std::string map_svg(const volume_map &map);

} // namespace qvol
