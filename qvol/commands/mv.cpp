// qvol mv: renames and moves entries.

#include "qvol/commands/change.h"
#include "qvol/commands/commands.h"

namespace qvol {

namespace {

constexpr const char *MOVE = "move";
constexpr const char *MOVE_TO = "move to";

struct mv_options {
    std::vector<std::string> arguments; // SOURCE... PATH
    bool is_forced = false;
};

bool is_below(const name_path &path, const name_path &top) {
    return path.size() >= top.size() && std::equal(top.begin(), top.end(), path.begin());
}

// The path in the spelling of the volume, to compare paths: "A" and "a" are one directory.
name_path stored_path(volume &vol, const name_path &path) {
    name_path stored;
    for (std::size_t count = 1; count <= path.size(); count++) {
        const resolved_path where = find_path(
            vol, name_path(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(count)));
        stored.push_back(where.found ? where.found->name : path[count - 1]);
    }
    return stored;
}

// Removes the entry at the destination and returns its clusters. Throws error if it must not be
// replaced.
std::vector<u32> clear_destination(volume &vol, resolved_path *to, const entry &moved,
                                   bool is_forced) {
    if (!to->found) {
        return {};
    }
    if (to->found->is_directory() || moved.is_directory()) {
        throw error("exists");
    }
    if (!is_forced) {
        throw error("exists; --force replaces it");
    }
    std::vector<u32> clusters;
    if (to->found->start() != 0) {
        clusters = vol.fat().chain(to->found->start());
    }
    to->parent.remove(*to->found);
    return clusters;
}

// Adds the moved entry: all fields of the old one but its names and slots.
void add_moved(directory *into, const std::u16string &name, const entry &moved) {
    entry added = into->add({name, moved.type(), 0, 0, moved.modified()});
    const short_name alias = added.alias();
    added.raw = moved.raw;
    std::copy(alias.begin(), alias.end(), added.raw.begin());
    added.raw[core::SHORT_SYSID.offset] = 0; // no case bits: the long name has the case
    into->update(added);
}

// Sets ".." of a moved directory.
void update_parent_link(volume &vol, const directory &parent, const entry &moved) {
    if (moved.is_directory() && moved.start() != 0) {
        directory dir = open_directory(vol, moved);
        dir.set_parent(parent.parent_link());
        dir.write_changes();
    }
}

// Within one directory both changes are written together; else the new name is written first.
void move_entry(volume &vol, resolved_path *from, resolved_path *to, bool is_forced) {
    const entry moved = *from->found;
    const bool is_same_directory = from->parent.start() == to->parent.start();
    const bool is_same_entry = is_same_directory && to->found && to->found->slot == moved.slot;
    if (is_same_entry && to->path.back() == moved.name) {
        return;
    }
    if (is_same_directory) {
        to->parent.remove(moved);
    }
    if (is_same_entry) {
        to->found.reset();
    }
    const std::vector<u32> replaced = clear_destination(vol, to, moved, is_forced);
    add_moved(&to->parent, to->path.back(), moved);
    vol.commit_additions({&to->parent});
    if (!is_same_directory) {
        update_parent_link(vol, to->parent, moved);
        from->parent.remove(moved);
    }
    vol.fat().release(replaced);
    vol.commit_removals({&from->parent});
}

void move_one(volume &vol, const std::string &source, const std::string &path, bool is_forced) {
    resolved_path from = resolve(vol, source);
    if (from.is_root()) {
        fail(vol, MOVE, from.path, "is the root directory");
    }
    resolved_path to = find_path(vol, path);
    const bool is_itself =
        to.found && to.parent.start() == from.parent.start() && to.found->slot == from.found->slot;
    if (to.is_directory() && !is_itself) {
        to.path.push_back(from.found->name);
        to = find_path(vol, to.path);
    }
    if (from.found->is_directory() && !is_itself &&
        is_below(stored_path(vol, to.path), stored_path(vol, from.path))) {
        fail(vol, MOVE_TO, to.path, "is inside the directory to move");
    }
    add_context(vol, MOVE_TO, to.path, [&] { move_entry(vol, &from, &to, is_forced); });
}

int run_mv(const common_options &common, const mv_options &options) {
    return with_volume(common, access::WRITE, [&](volume &vol) {
        const std::string &path = options.arguments.back();
        const std::size_t sources = options.arguments.size() - 1;
        if (sources > 1 && !resolve(vol, path).is_directory()) {
            fail(vol, MOVE_TO, parse_path(vol.names(), path), "not a directory");
        }
        json moved = json::array();
        for (std::size_t i = 0; i < sources; i++) {
            move_one(vol, options.arguments[i], path, options.is_forced);
            moved.push_back(json_path(parse_path(vol.names(), options.arguments[i])));
        }
        print_paths(common.out, "moved", std::move(moved));
        return EXIT_DONE;
    });
}

} // namespace

void add_mv(command_line *commands) {
    const auto [mv, options] = commands->add({"mv", "Rename, or move into another directory",
                                              "  qvol mv flash.img /notes.txt /old-notes.txt\n"
                                              "  qvol mv flash.img /a.jpg /b.jpg /photos"},
                                             run_mv);
    mv.list("SOURCE... PATH", &options->arguments,
            "What to move, and the directory to move it into (or the new name)")
        .required()
        .count(2, declared_option::ANY_NUMBER);
    mv.flag("-f,--force", &options->is_forced, "Replace an existing file");
}

} // namespace qvol
