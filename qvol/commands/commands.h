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
void add_salvage(command_line *commands);
void add_fastpath(command_line *commands);
void add_owner(command_line *commands);
void add_dump(command_line *commands);
void add_manifest(command_line *commands);
void add_verify(command_line *commands);

// ---- writing ----
void add_build(command_line *commands);
void add_disk(command_line *commands);
void add_put(command_line *commands);
void add_mkdir(command_line *commands);
void add_mv(command_line *commands);
void add_ln(command_line *commands);
void add_rm(command_line *commands);
void add_touch(command_line *commands);
void add_attr(command_line *commands);
void add_label(command_line *commands);
void add_id(command_line *commands);
void add_pool(command_line *commands);
void add_log(command_line *commands);
void add_flash(command_line *commands);

// ---- the volume as a whole ----
void add_map(command_line *commands);
void add_check(command_line *commands);
void add_undo(command_line *commands);
void add_mirror(command_line *commands);
void add_compact(command_line *commands);

// A command and its name on the command line.
struct command_entry {
    const char *name;
    void (*add)(command_line *commands);
};

// All of them, in the order of the help.
inline constexpr command_entry ALL_COMMANDS[] = {
    {"build", add_build},     {"disk", add_disk},       {"flash", add_flash},
    {"info", add_info},       {"ls", add_ls},           {"tree", add_tree},
    {"stat", add_stat},       {"cat", add_cat},         {"get", add_get},
    {"put", add_put},         {"mkdir", add_mkdir},     {"mv", add_mv},
    {"ln", add_ln},           {"rm", add_rm},           {"touch", add_touch},
    {"attr", add_attr},       {"label", add_label},     {"id", add_id},
    {"pool", add_pool},       {"log", add_log},         {"fastpath", add_fastpath},
    {"owner", add_owner},     {"dump", add_dump},       {"manifest", add_manifest},
    {"verify", add_verify},   {"map", add_map},         {"check", add_check},
    {"undo", add_undo},       {"salvage", add_salvage}, {"mirror", add_mirror},
    {"compact", add_compact},
};

} // namespace qvol
