// The commands. Each function adds a command to the command line: name, options, implementation.

#pragma once

namespace qvol {

class command_line;

// ---- reading ----
void add_info(command_line *commands);
void add_ls(command_line *commands);
void add_tree(command_line *commands);
void add_stat(command_line *commands);
void add_cat(command_line *commands);
void add_get(command_line *commands);
void add_fastpath(command_line *commands);
void add_owner(command_line *commands);
void add_dump(command_line *commands);

// ---- writing ----
void add_build(command_line *commands);
void add_put(command_line *commands);
void add_mkdir(command_line *commands);
void add_mv(command_line *commands);
void add_ln(command_line *commands);
void add_rm(command_line *commands);
void add_pool(command_line *commands);
void add_log(command_line *commands);

// ---- the volume as a whole ----
void add_map(command_line *commands);
void add_check(command_line *commands);
void add_mirror(command_line *commands);
void add_compact(command_line *commands);

// All of them, in the order of the help.
inline constexpr void (*ALL_COMMANDS[])(command_line *commands) = {
    add_build,    add_info,  add_ls,   add_tree, add_stat,  add_cat,    add_get,
    add_put,      add_mkdir, add_mv,   add_ln,   add_rm,    add_pool,   add_log,
    add_fastpath, add_owner, add_dump, add_map,  add_check, add_mirror, add_compact};

} // namespace qvol
