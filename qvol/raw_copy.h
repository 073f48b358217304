// Copies bytes between targets, without a file system.

#pragma once

#include "qvol/progress.h"
#include "qvol/target.h"

namespace qvol {

// Copies all bytes to the start of another target. Where that is fresh, holes and zeros of the
// source stay holes. Throws error.
void copy_raw(const target &from, const target &to, progress *bar);

void write_zeros(const target &to, u64 offset, u64 bytes);

} // namespace qvol
