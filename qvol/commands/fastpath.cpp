// qvol fastpath: the strings by which the ZUQ driver opens files without a search.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"

#include "fat/internal.h"

#include <memory>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace qvol {

namespace {

constexpr std::size_t FAST_PATH_ROOM = 20; // with the terminator
constexpr std::size_t PLACE_BEGIN = 3;     // behind "<?>": where the entry lies, in eight letters
constexpr std::size_t PLACE_LENGTH = 8;

struct fastpath_options {
    std::vector<std::string> paths;
    std::string dir;
};

// An open id of the library.
class open_id {
public:
    // Opens the entry that lies at a place on the volume.
    open_id(const entry &of, const fat::dentry_location &location, u32 parent) {
        fat::heap_ptr<oentry> record = fat::zeroed_records<oentry>();
        if (record == nullptr) {
            throw std::bad_alloc();
        }
        if (fat::fat_set_oentry(of.raw.data(), location.sector, location.offset, record.get()) <
                0 ||
            record->dentry == nullptr) {
            throw error("its chain is broken");
        }
        record->parent_clus = parent;
        id_ = fat::register_oentry(record.get());
        if (id_ < 0) {
            std::free(record->dentry);
            throw error("too many files are open");
        }
        (void)record.release(); // the table owns it
    }
    ~open_id() {
        (void)fat_close(id_); // an id just given out
    }
    open_id(const open_id &) = delete;
    open_id &operator=(const open_id &) = delete;

    [[nodiscard]] int get() const {
        return id_;
    }

private:
    int id_ = -1;
};

std::string fast_path_of(const volume &vol, const place &where) {
    const std::string shown = shown_path(vol.names(), where.path);
    if (where.is_directory()) {
        throw error(shown + ": is a directory; --dir gives the paths of the files in it");
    }
    const open_id id(*where.found, where.parent.location(where.found->slot), where.parent.start());
    char name[fat::LONG_NAME_UNITS] = {};
    char path[FAST_PATH_ROOM] = {};
    if (zuq_get_fast_open_path_of_file(id.get(), name, path) < 0) {
        throw error(shown + ": the library gives no fast-open path");
    }
    return path;
}

// The letters that tell where an entry lies, as the paths spell them.
std::string place_letters(const fat::dentry_location &location) {
    char letters[PLACE_LENGTH + 1] = {};
    const u32 position = sv->sector_size * location.sector + location.offset;
    fat::encode_fast_word(letters, position / fat::DENTRY_SIZE);
    return letters;
}

// The library gives the paths of a directory without names: they are found again by the place.
json paths_of_directory(volume &vol, const place &where, int id) {
    const directory dir = open_directory(vol, where);
    std::map<std::string, name_path> names;
    for (const auto &[slot, found] : dir.entries()) {
        name_path path = where.path;
        path.push_back(found.name);
        names[place_letters(dir.location(slot))] = path;
    }
    json list = json::array();
    char name[fat::LONG_NAME_UNITS] = {};
    char path[FAST_PATH_ROOM] = {};
    while (zuq_get_fast_open_path_of_dir(id, name, path) == 1) {
        const auto found = names.find(std::string(path + PLACE_BEGIN, PLACE_LENGTH));
        if (found != names.end()) {
            list.push_back({{"path", json_path(found->second)},
                            {"shown", shown_path(vol.names(), found->second)},
                            {"fast_path", path}});
        }
    }
    return list;
}

json list_directory(volume &vol, const std::string &path) {
    const place where = resolve(vol, path);
    if (!where.is_directory()) {
        throw error(shown_path(vol.names(), where.path) + ": not a directory");
    }
    if (where.is_root()) {
        return paths_of_directory(vol, where, 0);
    }
    const open_id id(*where.found, where.parent.location(where.found->slot), where.parent.start());
    return paths_of_directory(vol, where, id.get());
}

json list_files(volume &vol, const std::vector<std::string> &paths) {
    json list = json::array();
    for (const std::string &path : paths) {
        const place where = resolve(vol, path);
        list.push_back({{"path", json_path(where.path)},
                        {"shown", shown_path(vol.names(), where.path)},
                        {"fast_path", fast_path_of(vol, where)}});
    }
    return list;
}

int run_fastpath(const common_options &common, const fastpath_options &options) {
    if (options.paths.empty() == options.dir.empty()) {
        throw usage_error("fastpath takes paths, or --dir and one directory");
    }
    return with_volume(common, access::READ, [&](volume &vol) {
        json list =
            options.dir.empty() ? list_files(vol, options.paths) : list_directory(vol, options.dir);
        for (json &item : list) {
            common.out.line(fmt::format("{} {}", item["fast_path"].get<std::string>(),
                                        item["shown"].get<std::string>()));
            item.erase("shown");
        }
        if (common.out.is_json) {
            common.out.document({{"fast_paths", list}});
        }
        return EXIT_DONE;
    });
}

} // namespace

void add_fastpath(command_line *commands) {
    const auto options = std::make_shared<fastpath_options>();
    CLI::App *command = commands->add(
        {"fastpath", "Give the fast-open paths of files for the ZUQ driver",
         "  qvol fastpath flash.img /boot/kernel.bin /boot/logo.bmp\n"
         "  qvol fastpath flash.img --dir /boot"},
        [options](const common_options &common) { return run_fastpath(common, *options); });
    command->add_option("PATH", options->paths, "Files in the volume");
    command->add_option("--dir", options->dir, "All files of this directory");
}

} // namespace qvol
