// The command line of quorvel.

#pragma once

#include "fat/fat.h"

#include <cstdint>

namespace quorvel {

// Number of -v options given.
extern std::uint32_t verbose_count;

// Fills the zeroed request from the command line and refuses a mounted target. `outfile` points
// into argv. Returns 0, or -1 after printing the reason.
[[nodiscard]] int parse_options(int argc, char **argv, fat_format_param *param);

void print_usage();

} // namespace quorvel
