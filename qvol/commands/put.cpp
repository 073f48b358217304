// qvol put: copies files, directories and links of the host into the volume.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/host.h"
#include "qvol/import.h"
#include "qvol/source_options.h"
#include "qvol/sources/collection.h"

namespace qvol {

namespace {

struct put_options {
    std::vector<std::string> arguments; // SOURCE... PATH
    source_options content;
    bool is_forced = false;
};

// The directory of the volume to copy into, and the new name of an only source.
struct destination {
    directory into;
    name_path path;
    std::optional<std::string> name;
};

// If the path is a directory, the sources are copied into it under their own names. If its last
// component does not exist, it is the new name of the only source.
destination find_destination(volume &vol, const std::string &path, std::size_t sources) {
    resolved_path where = find_path(vol, path);
    if (where.is_directory()) {
        return {open_directory(vol, where), where.path, std::nullopt};
    }
    const std::string shown = shown_path(vol.names(), where.path);
    if (sources > 1 || path.ends_with('/')) {
        throw error(
            "cannot copy to " + shown +
            (where.found ? ": not a directory" : ": no such directory; \"qvol mkdir\" makes it"));
    }
    const std::string name = vol.names().to_host(where.path.back()).value_or("");
    name_path parent(where.path.begin(), where.path.end() - 1);
    return {std::move(where.parent), std::move(parent), name};
}

bool names_content(const std::string &source) {
    const split_path split = split_host_path(source);
    return split.name == "." || split.name == ".." || split.name == "/";
}

// Adds one source that the user named. "dir/." is the content of the directory.
void add_source(source_collection *sources, const std::string &path,
                const std::optional<std::string> &name) {
    if (names_content(path) && !name) {
        sources->add_children(path);
    } else {
        sources->add_entry(path, name.value_or(split_host_path(path).name));
    }
}

source_tree load_sources(const volume &vol, const put_options &options,
                         const std::optional<std::string> &name) {
    source_collection sources(options.content);
    for (std::size_t i = 0; i + 1 < options.arguments.size(); i++) {
        add_source(&sources, options.arguments[i], name);
    }
    return sources.finish(vol.names(), true);
}

int run_put(const common_options &common, const put_options &options) {
    const std::size_t named = options.arguments.size() - 1;
    const std::size_t sources = named + options.content.from.size();
    if (sources == 0) {
        throw usage_error("SOURCE or --from is required");
    }
    return with_volume(common, access::WRITE, [&](volume &vol) {
        // The content of a source goes into a directory; only a single SOURCE can be renamed.
        destination where = find_destination(vol, options.arguments.back(),
                                             options.content.from.empty() ? named : sources + 1);
        const source_tree tree = load_sources(vol, options, where.name);
        import_plan plan(vol, options.is_forced);
        plan.plan(tree.nodes(), std::move(where.into), shown_path(vol.names(), where.path));
        remark_on_sources(common.out, tree);
        const tree_totals totals = totals_of(tree.nodes());
        progress bar("put", totals.bytes, common.out.is_quiet);
        plan.write(&bar);
        report_totals(common.out, totals);
        return EXIT_DONE;
    });
}

} // namespace

void add_put(command_line *commands) {
    const auto [put, options] =
        commands->add({"put", "Copy files, directories and links into the volume",
                       "  qvol put flash.img kernel.bin logo.bmp /boot\n"
                       "  qvol put flash.img photos /\n"
                       "  qvol put flash.img rootfs/. /\n"
                       "  qvol put flash.img --from rootfs.tar.gz /\n"
                       "  qvol put --force flash.img config.txt /etc/config.txt"},
                      run_put);
    put.list("[SOURCE...] PATH", &options->arguments,
             "What to copy, and the directory in the volume (or the new name)")
        .required();
    put.flag("-f,--force", &options->is_forced, "Replace existing files");
    put.flag("--attrs", &options->content.copies_attributes,
             "Copy the attributes that files and directories have on the host");
    add_source_options(put, &options->content);
}

} // namespace qvol
