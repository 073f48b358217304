// qvol fastpath: prints the strings with which the ZUQ driver opens files without a search.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"

#include "core/fast_path.h"

#include <fmt/core.h>

namespace qvol {

namespace {

struct fastpath_options {
    std::vector<std::string> paths;
    std::string dir;
};

// Whether the driver can follow the chain of the file.
bool has_whole_chain(const core::volume &on, const entry &file) {
    const u32 start = core::start_cluster(file.raw.data());
    core::table fat(on);
    u32 stopped_at = 0;
    return start == 0 || core::measure_chain(fat, start, &stopped_at).ok();
}

struct fast_path {
    name_path path;
    std::string shown;
    std::string text;
};

fast_path fast_path_of(const volume &vol, const name_path &path, const entry &file,
                       const directory &parent) {
    const std::string shown = shown_path(vol.names(), path);
    if (!has_whole_chain(vol.on(), file)) {
        throw error("cannot open " + shown + ": its chain is broken");
    }
    char text[core::FAST_PATH_SIZE];
    core::store_fast_path(text, vol.on().at.sector_size, parent.location(file.slot),
                          file.raw.data());
    return {path, shown, text};
}

// Requests each file separately. The library's own walk over a directory leaves out the last file
// of a full directory, and computes other check values for long names.
std::vector<fast_path> list_directory(volume &vol, const std::string &path) {
    const resolved_path where = resolve(vol, path);
    if (!where.is_directory()) {
        throw error("cannot list " + shown_path(vol.names(), where.path) + ": not a directory");
    }
    const directory dir = open_directory(vol, where);
    std::vector<fast_path> list;
    for (const auto &[slot, file] : dir.entries()) {
        if (file.type() == kind::FILE) {
            name_path path_of_file = where.path;
            path_of_file.push_back(file.name);
            list.push_back(fast_path_of(vol, path_of_file, file, dir));
        }
    }
    return list;
}

std::vector<fast_path> list_files(volume &vol, const std::vector<std::string> &paths) {
    std::vector<fast_path> list;
    for (const std::string &path : paths) {
        const resolved_path where = resolve(vol, path);
        if (where.is_directory()) {
            throw error("cannot open " + shown_path(vol.names(), where.path) +
                        ": is a directory; use --dir for the files in it");
        }
        list.push_back(fast_path_of(vol, where.path, *where.found, where.parent));
    }
    return list;
}

int run_fastpath(const common_options &common, const fastpath_options &options) {
    if (options.paths.empty() == options.dir.empty()) {
        throw usage_error("fastpath takes paths, or --dir and one directory");
    }
    return with_volume(common, access::READ, [&](volume &vol) {
        json list = json::array();
        for (const fast_path &one : options.dir.empty() ? list_files(vol, options.paths)
                                                        : list_directory(vol, options.dir)) {
            common.out.line(fmt::format("{} {}", one.text, one.shown));
            list.push_back({{"path", json_path(one.path)}, {"fast_path", one.text}});
        }
        if (common.out.is_json) {
            common.out.document({{"fast_paths", std::move(list)}});
        }
        return EXIT_DONE;
    });
}

} // namespace

void add_fastpath(command_line *commands) {
    const auto [fastpath, options] =
        commands->add({"fastpath", "Print the fast-open paths of files for the ZUQ driver",
                       "  qvol fastpath flash.img /boot/kernel.bin /boot/logo.bmp\n"
                       "  qvol fastpath flash.img --dir /boot"},
                      run_fastpath);
    fastpath.list("PATH", &options->paths, "Files in the volume");
    fastpath.value("--dir", &options->dir, "All files of this directory");
}

} // namespace qvol
