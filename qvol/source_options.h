// The options of commands that store what sources contain.

#pragma once

#include "qvol/command_line.h"
#include "qvol/sources/collection.h"

namespace qvol {

// What is left out, and how the rest is stored.
void add_source_rules(const declared_command &command, source_options *options);

// The same, with the sources.
void add_source_options(const declared_command &command, source_options *options);

// Prints a remark about what a volume cannot store as it is in the sources.
void remark_on_sources(const output &out, const source_tree &tree);

} // namespace qvol
