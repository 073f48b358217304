// The reserved files of the ZUQ driver in the root directory.

#pragma once

#include "qvol/check/survey.h"

namespace qvol {

// Intentional: the driver stores spare clusters in the chain of the pool, which is therefore longer
// than the file size.
[[nodiscard]] bool is_pool(const survey &checked, u32 node);

} // namespace qvol
