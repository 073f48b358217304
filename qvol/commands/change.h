// What the commands share that change entries of the volume.

#pragma once

#include "qvol/command_line.h"

#include <fmt/core.h>

namespace qvol {

// Throws "cannot ACTION PATH: WHY".
[[noreturn]] inline void fail(const volume &vol, const char *action, const name_path &path,
                              const std::string &why) {
    throw error(fmt::format("cannot {} {}: {}", action, shown_path(vol.names(), path), why));
}

// Adds the action and its path to errors of `work`.
template <typename Work>
auto add_context(const volume &vol, const char *action, const name_path &path, Work work) {
    try {
        return work();
    } catch (const error &why) {
        fail(vol, action, path, why.what());
    }
}

inline void print_paths(const output &out, const char *field, json paths) {
    if (out.is_json) {
        out.document({{field, std::move(paths)}});
    }
}

} // namespace qvol
