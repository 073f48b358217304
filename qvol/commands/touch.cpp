// qvol touch: sets modification times, and makes empty files.

#include "qvol/commands/change.h"
#include "qvol/commands/commands.h"

namespace qvol {

namespace {

constexpr const char *TOUCH = "touch";

struct touch_options {
    std::vector<std::string> paths;
    std::optional<std::string> time; // no value: the present time
    bool makes_none = false;
};

void make_empty_file(resolved_path *where, const std::string &spelt, const dos_time &stamp) {
    if (spelt.ends_with('/')) {
        throw error("no such directory; \"qvol mkdir\" makes it");
    }
    where->parent.add({where->path.back(), kind::FILE, 0, 0, stamp});
}

// Returns false for a missing entry that is not made.
bool touch_one(volume &vol, const std::string &path, const touch_options &options,
               const dos_time &stamp) {
    resolved_path where = find_path(vol, path);
    if (where.is_root()) {
        fail(vol, TOUCH, where.path, "is the root directory, which has no time");
    }
    if (where.found) {
        where.found->set_modified(stamp);
        where.parent.update(*where.found);
    } else if (options.makes_none) {
        return false;
    } else {
        add_context(vol, TOUCH, where.path, [&] { make_empty_file(&where, path, stamp); });
    }
    add_context(vol, TOUCH, where.path, [&] { vol.commit_additions({&where.parent}); });
    return true;
}

int run_touch(const common_options &common, const touch_options &options) {
    const dos_time stamp =
        options.time ? parse_time("--time", *options.time) : dos_time_of(current_time());
    return with_volume(common, access::WRITE, [&](volume &vol) {
        json touched = json::array();
        for (const std::string &path : options.paths) {
            if (touch_one(vol, path, options, stamp)) {
                touched.push_back(json_path(parse_path(vol.names(), path)));
            }
        }
        print_paths(common.out, "touched", std::move(touched));
        return EXIT_DONE;
    });
}

} // namespace

void add_touch(command_line *commands) {
    const auto [touch, options] =
        commands->add({"touch", "Set modification times, and make empty files",
                       "  qvol touch flash.img /notes.txt /new.txt\n"
                       "  qvol touch flash.img --time \"2024-02-29 12:34:56\" /photos"},
                      run_touch);
    touch.list("PATH", &options->paths, "Entries to change; missing ones become empty files")
        .required();
    touch.value("--time", &options->time,
                "The time, local as it is stored, or @SECONDS since 1970 (default: now)");
    touch.flag("-c,--no-create", &options->makes_none, "Make no files");
}

} // namespace qvol
