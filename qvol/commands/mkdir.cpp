// qvol mkdir: makes directories.

#include "qvol/commands/change.h"
#include "qvol/commands/commands.h"

namespace qvol {

namespace {

constexpr const char *MAKE_DIRECTORY = "make directory";

struct mkdir_options {
    std::vector<std::string> paths;
    bool makes_parents = false;
};

// Makes a directory in an open one, and writes both.
directory make_directory(volume &vol, directory *parent, const std::u16string &name) {
    const dos_time now = dos_time_of(current_time());
    directory made = directory::make(vol.fat(), *parent, now);
    parent->add({name, kind::DIRECTORY, made.start(), 0, now});
    vol.commit_additions({&made, parent});
    return made;
}

void make_one(volume &vol, const std::string &path) {
    resolved_path where = find_path(vol, path);
    if (where.is_root() || where.found) {
        fail(vol, MAKE_DIRECTORY, where.path, "exists");
    }
    add_context(vol, MAKE_DIRECTORY, where.path,
                [&] { (void)make_directory(vol, &where.parent, where.path.back()); });
}

void make_with_parents(volume &vol, const std::string &path) {
    const name_path all = parse_path(vol.names(), path);
    directory here = vol.root();
    name_path done;
    for (const std::u16string &name : all) {
        done.push_back(name);
        const entry *found = here.find(name);
        if (found != nullptr && !found->is_directory()) {
            fail(vol, MAKE_DIRECTORY, done, "exists and is not a directory");
        }
        here = add_context(vol, MAKE_DIRECTORY, done, [&] {
            return found != nullptr ? open_directory(vol, *found)
                                    : make_directory(vol, &here, name);
        });
    }
}

int run_mkdir(const common_options &common, const mkdir_options &options) {
    return with_volume(common, access::WRITE, [&](volume &vol) {
        json made = json::array();
        for (const std::string &path : options.paths) {
            options.makes_parents ? make_with_parents(vol, path) : make_one(vol, path);
            made.push_back(json_path(parse_path(vol.names(), path)));
        }
        print_paths(common.out, "made", std::move(made));
        return EXIT_DONE;
    });
}

} // namespace

void add_mkdir(command_line *commands) {
    const auto [mkdir, options] = commands->add({"mkdir", "Make directories",
                                                 "  qvol mkdir flash.img /photos\n"
                                                 "  qvol mkdir -p flash.img /photos/2024/may"},
                                                run_mkdir);
    mkdir.list("PATH", &options->paths, "Directories to make").required();
    mkdir.flag("-p,--parents", &options->makes_parents,
               "Make missing parent directories as well; an existing directory is not an error");
}

} // namespace qvol
