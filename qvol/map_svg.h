// The map of a volume as an SVG picture for browsers.
//
// Self-contained: no script, no external font or picture. Hovering over a part shows its path and
// its clusters. Light or dark by the setting of the browser. The same volume results in the same
// bytes.

#pragma once

#include "qvol/volume_map.h"

#include <string>

namespace qvol {

[[nodiscard]] std::string map_svg(const volume_map &map);

} // namespace qvol
