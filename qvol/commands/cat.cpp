// qvol cat: prints the bytes of files, or the targets of links.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/file_data.h"

namespace qvol {

namespace {

struct cat_options {
    std::vector<std::string> paths;
};

const entry &require_file(const volume &vol, const resolved_path &where) {
    if (where.is_directory()) {
        throw error("cannot print " + shown_path(vol.names(), where.path) +
                    ": is a directory; \"qvol ls\" lists it");
    }
    return *where.found;
}

// JSON cannot represent bytes that are not text.
json content_json(volume &vol, const resolved_path &where) {
    const entry &file = require_file(vol, where);
    const std::string content = read_text(vol.fat(), file.start(), file.size());
    if (!units_of_utf8(content)) {
        throw error("cannot print " + shown_path(vol.names(), where.path) +
                    " as JSON: not UTF-8 text; omit --json");
    }
    return {{"path", json_path(where.path)}, {"size", file.size()}, {"text", content}};
}

int run_cat(const common_options &common, const cat_options &options) {
    return with_volume(common, access::READ, [&](volume &vol) {
        json files = json::array();
        for (const std::string &path : options.paths) {
            const resolved_path where = resolve(vol, path);
            if (common.out.is_json) {
                files.push_back(content_json(vol, where));
                continue;
            }
            const entry &file = require_file(vol, where);
            read_data(vol.on(), clusters_of_file(vol.fat(), file.start(), file.size()), file.size(),
                      [](std::span<const u8> bytes) { write_bytes(bytes.data(), bytes.size()); });
        }
        if (common.out.is_json) {
            common.out.document({{"files", std::move(files)}});
        }
        return EXIT_DONE;
    });
}

} // namespace

void add_cat(command_line *commands) {
    const auto [cat, options] = commands->add({"cat", "Write files to standard output",
                                               "  qvol cat flash.img /etc/config.txt\n"
                                               "  qvol cat flash.img /firmware.bin | sha256sum"},
                                              run_cat);
    cat.list("PATH", &options->paths, "Files to print").required();
}

} // namespace qvol
