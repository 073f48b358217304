// The reserved files of the ZUQ driver in the root directory.

#pragma once

#include "qvol/check/survey.h"

namespace qvol {

// The driver keeps clusters in stock in the chain of the pool: it is longer than the size by
// design.
[[nodiscard]] bool is_pool(const survey &in, u32 node);

} // namespace qvol
