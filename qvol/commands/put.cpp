// qvol put: copies files, directories and links of the host into the volume.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/host.h"
#include "qvol/import.h"

namespace qvol {

namespace {

struct put_options {
    std::vector<std::string> arguments; // SOURCE... PATH
    bool is_forced = false;
    bool skips_special = false;
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

// Scans one source. "dir/." is the content of the directory.
void scan_source(host_scan *scan, const std::string &source, const std::optional<std::string> &name,
                 std::vector<host_node> *nodes) {
    if (names_content(source) && !name) {
        for (host_node &child : scan->scan_children(source)) {
            nodes->push_back(std::move(child));
        }
        return;
    }
    const split_path split = split_host_path(source);
    nodes->push_back(scan->scan(source, name.value_or(split.name)));
}

std::vector<host_node> scan_sources(const volume &vol, const put_options &options,
                                    const std::optional<std::string> &name) {
    host_scan scan(vol.names(), options.skips_special);
    std::vector<host_node> nodes;
    for (std::size_t i = 0; i + 1 < options.arguments.size(); i++) {
        scan_source(&scan, options.arguments[i], name, &nodes);
    }
    scan.check_names(nodes);
    if (!scan.problems().empty()) {
        throw error("cannot store all entries; nothing was written", scan.problems());
    }
    return nodes;
}

int run_put(const common_options &common, const put_options &options) {
    return with_volume(common, access::WRITE, [&](volume &vol) {
        destination where =
            find_destination(vol, options.arguments.back(), options.arguments.size() - 1);
        const std::vector<host_node> nodes = scan_sources(vol, options, where.name);
        import_plan plan(vol, options.is_forced);
        plan.plan(nodes, std::move(where.into), shown_path(vol.names(), where.path));
        const tree_totals totals = totals_of(nodes);
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
                       "  qvol put --force flash.img config.txt /etc/config.txt"},
                      run_put);
    put.list("SOURCE... PATH", &options->arguments,
             "What to copy, and the directory in the volume (or the new name)")
        .required()
        .count(2, declared_option::ANY_NUMBER);
    put.flag("-f,--force", &options->is_forced, "Replace existing files");
    put.flag("--skip-special", &options->skips_special,
             "Leave out entries that are neither file, directory nor link");
}

} // namespace qvol
