// The map of a volume for a terminal.

#pragma once

#include "qvol/names.h"
#include "qvol/output.h"
#include "qvol/terminal.h"
#include "qvol/volume_map.h"

namespace qvol {

void print_map(const output &out, const name_codec &names, const volume_map &map,
               const terminal_form &form);

} // namespace qvol
