// Copies bytes between targets, without a file system.

#pragma once

#include "qvol/progress.h"
#include "qvol/target.h"

#include <span>

namespace qvol {

// Copies all bytes to the start of another target. Holes of the source stay holes where the other
// may have some, zeros only with holes::ZEROS. Throws error.
void copy_raw(const target &from, const target &to, progress *bar);

void write_zeros(const target &to, u64 offset, u64 bytes);

// Reads all of the bytes. Throws error.
void read_bytes(const target &from, u64 offset, std::span<core::u8> bytes);

} // namespace qvol
