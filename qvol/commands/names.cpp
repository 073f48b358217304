// qvol mkdir, ln, mv, rm: make, move and remove entries of the volume.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/file_data.h"
#include "qvol/tree.h"

#include <fmt/core.h>

namespace qvol {

namespace {

// Throws "cannot ACTION PATH: WHY".
[[noreturn]] void fail(const volume &vol, const char *action, const name_path &path,
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

void print_paths(const output &out, const char *field, json paths) {
    if (out.is_json) {
        out.document({{field, std::move(paths)}});
    }
}

constexpr const char *MAKE_DIRECTORY = "make directory";
constexpr const char *MAKE_LINK = "make link";
constexpr const char *MOVE = "move";
constexpr const char *MOVE_TO = "move to";
constexpr const char *REMOVE = "remove";

// ---- mkdir ----

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

// ---- ln ----

struct ln_options {
    std::string target;
    std::string path;
};

void write_text(const volume &vol, const std::vector<u32> &clusters, const std::string &target) {
    data_writer writer(vol.on());
    writer.begin(clusters);
    writer.append({reinterpret_cast<const u8 *>(target.data()), target.size()});
    writer.end();
    writer.flush();
}

int run_ln(const common_options &common, const ln_options &options) {
    const std::string &target = options.target;
    if (target.empty() || target.size() > MAX_TARGET_BYTES) {
        throw usage_error(
            fmt::format("cannot make link {}: the target has {} bytes, must have 1 to {}",
                        shown_bytes(options.path), target.size(), MAX_TARGET_BYTES));
    }
    return with_volume(common, access::WRITE, [&](volume &vol) {
        resolved_path where = find_path(vol, options.path);
        if (where.is_root() || where.found) {
            fail(vol, MAKE_LINK, where.path, "exists");
        }
        add_context(vol, MAKE_LINK, where.path, [&] {
            const auto size = static_cast<u32>(target.size());
            const std::vector<u32> clusters = vol.fat().allocate(clusters_for(vol.on(), size));
            where.parent.add({where.path.back(), kind::LINK, clusters.front(), size,
                              dos_time_of(current_time())});
            write_text(vol, clusters, target);
            vol.commit_additions({&where.parent});
        });
        json made = json::array();
        made.push_back(json_path(where.path));
        print_paths(common.out, "made", std::move(made));
        return EXIT_DONE;
    });
}

// ---- mv ----

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

// ---- rm ----

struct rm_options {
    std::vector<std::string> paths;
    bool is_recursive = false;
};

// Collects the clusters to free. Throws error for a cluster of two chains: freeing it could damage
// a file that is not removed.
class removal {
public:
    // Clusters of the root and of `parent`, the directory of the removed entry, must not be freed.
    removal(volume &vol, const directory &parent)
        : vol_(vol), is_claimed_(vol.fat().last_cluster() + 1) {
        exclude(vol.root());
        exclude(parent);
    }

    // Adds the chains of an entry and of everything below it.
    void add_tree(const resolved_path &top) {
        add_context(vol_, REMOVE, top.path, [&] { add_chain(*top.found); });
        if (!top.found->is_directory() || top.found->start() == 0) {
            return;
        }
        tree_visitor visitor;
        visitor.visit = [&](const name_path &path, const entry &found, bool) {
            add_context(vol_, REMOVE, path, [&] { add_chain(found); });
            return true;
        };
        walk_tree(vol_, top.path, open_directory(vol_, top), visitor);
    }

    [[nodiscard]] const std::vector<u32> &clusters() const {
        return clusters_;
    }

private:
    void exclude(const directory &dir) {
        for (const u32 cluster : dir.clusters()) {
            is_claimed_[cluster] = true;
        }
    }

    void add_chain(const entry &found) {
        if (found.start() == 0) {
            return;
        }
        for (const u32 cluster : vol_.fat().chain(found.start())) {
            if (is_claimed_[cluster]) {
                throw error(fmt::format(
                    "shares cluster {} with another entry; repair the volume first", cluster));
            }
            is_claimed_[cluster] = true;
            clusters_.push_back(cluster);
        }
    }

    volume &vol_;
    std::vector<bool> is_claimed_; // by cluster
    std::vector<u32> clusters_;
};

void check_removal(volume &vol, const resolved_path &where, bool is_recursive) {
    if (where.is_root()) {
        fail(vol, REMOVE, where.path, "is the root directory");
    }
    if (where.found->is_directory() && !is_recursive && where.found->start() != 0 &&
        !open_directory(vol, where).is_empty()) {
        fail(vol, REMOVE, where.path, "directory not empty; -r removes it with everything in it");
    }
}

// True if the path exists. Its directory may have been removed before.
bool exists(volume &vol, const name_path &path) {
    try {
        return find_path(vol, path).found.has_value();
    } catch (const error &) {
        return false;
    }
}

void remove_one(volume &vol, resolved_path where) {
    removal removed(vol, where.parent);
    removed.add_tree(where);
    where.parent.remove(*where.found);
    vol.fat().release(removed.clusters());
    vol.commit_removals({&where.parent});
}

// Checks all paths before it removes the first. A path that was removed with another is not an
// error.
int run_rm(const common_options &common, const rm_options &options) {
    return with_volume(common, access::WRITE, [&](volume &vol) {
        for (const std::string &path : options.paths) {
            check_removal(vol, resolve(vol, path), options.is_recursive);
        }
        json removed = json::array();
        for (const std::string &path : options.paths) {
            const name_path spelt = parse_path(vol.names(), path);
            if (exists(vol, spelt)) {
                remove_one(vol, find_path(vol, spelt));
            }
            removed.push_back(json_path(spelt));
        }
        print_paths(common.out, "removed", std::move(removed));
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

void add_ln(command_line *commands) {
    const auto [ln, options] = commands->add(
        {"ln", "Make a symbolic link", "  qvol ln flash.img kernel-6.1.bin /boot/kernel.bin"},
        run_ln);
    ln.value("TARGET", &options->target, "Text of the link").required();
    ln.value("PATH", &options->path, "Link to make").required();
}

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

void add_rm(command_line *commands) {
    const auto [rm, options] = commands->add({"rm", "Remove files, links and directories",
                                              "  qvol rm flash.img /notes.txt /empty-directory\n"
                                              "  qvol rm -r flash.img /photos"},
                                             run_rm);
    rm.list("PATH", &options->paths, "What to remove").required();
    rm.flag("-r,--recursive", &options->is_recursive, "Remove directories with everything in them");
}

} // namespace qvol
