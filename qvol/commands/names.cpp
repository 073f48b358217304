// qvol mkdir, ln, mv, rm: names in the volume.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/file_data.h"
#include "qvol/tree.h"

#include <fmt/core.h>

namespace qvol {

namespace {

[[noreturn]] void fail(const volume &vol, const name_path &path, const std::string &why) {
    throw error(shown_path(vol.names(), path) + ": " + why);
}

// Tells which path it was that something went wrong with.
template <typename Work>
auto about(const volume &vol, const name_path &path, Work work) {
    try {
        return work();
    } catch (const error &why) {
        fail(vol, path, why.what());
    }
}

void tell(const output &out, const char *what, json paths) {
    if (out.is_json) {
        out.document({{what, std::move(paths)}});
    }
}

// ---- mkdir ----

struct mkdir_options {
    std::vector<std::string> paths;
    bool makes_parents = false;
};

// Makes one directory in an open one, and writes both.
directory make_directory(volume &vol, directory *parent, const std::u16string &name) {
    const dos_time now = dos_time_of(present());
    directory made = directory::make(vol.fat(), *parent, now);
    parent->add({name, kind::DIRECTORY, made.start(), 0, now});
    vol.commit_additions({&made, parent});
    return made;
}

void make_one(volume &vol, const std::string &path) {
    place where = find_place(vol, path);
    if (where.is_root() || where.found) {
        fail(vol, where.path, "exists");
    }
    about(vol, where.path, [&] { (void)make_directory(vol, &where.parent, where.path.back()); });
}

void make_with_parents(volume &vol, const std::string &path) {
    const name_path all = parse_path(vol.names(), path);
    directory here = vol.root();
    name_path done;
    for (const std::u16string &name : all) {
        done.push_back(name);
        const entry *found = here.find(name);
        if (found != nullptr && !found->is_directory()) {
            fail(vol, done, "exists and is no directory");
        }
        here = about(vol, done, [&] {
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
        tell(common.out, "made", std::move(made));
        return EXIT_DONE;
    });
}

// ---- ln ----

struct ln_options {
    std::string target;
    std::string path;
};

void write_text(const std::vector<u32> &clusters, const std::string &target) {
    data_writer writer;
    writer.begin(clusters);
    writer.append({reinterpret_cast<const u8 *>(target.data()), target.size()});
    writer.end();
    writer.flush();
}

int run_ln(const common_options &common, const ln_options &options) {
    const std::string &target = options.target;
    if (target.empty() || target.size() > fat::MAX_PATH_LENGTH) {
        throw usage_error(
            fmt::format("the target of a link has 1 to {} bytes", fat::MAX_PATH_LENGTH));
    }
    return with_volume(common, access::WRITE, [&](volume &vol) {
        place where = find_place(vol, options.path);
        if (where.is_root() || where.found) {
            fail(vol, where.path, "exists");
        }
        about(vol, where.path, [&] {
            const auto size = static_cast<u32>(target.size());
            const std::vector<u32> clusters = vol.fat().allocate(clusters_for(size));
            where.parent.add(
                {where.path.back(), kind::LINK, clusters.front(), size, dos_time_of(present())});
            write_text(clusters, target);
            vol.commit_additions({&where.parent});
        });
        json made = json::array();
        made.push_back(json_path(where.path));
        tell(common.out, "made", std::move(made));
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

// The path as the volume spells it, from the root down: "A" and "a" are one directory.
name_path spelt_path(volume &vol, const name_path &path) {
    name_path spelt;
    for (std::size_t count = 1; count <= path.size(); count++) {
        const place where = find_place(
            vol, name_path(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(count)));
        spelt.push_back(where.found ? where.found->name : path[count - 1]);
    }
    return spelt;
}

// What stands at the new place gives way, or stops the command. Returns its clusters.
std::vector<u32> clear_new_place(volume &vol, place *to, const entry &moved, bool is_forced) {
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

// The new entry: everything of the old one but its names and its place.
void add_moved(directory *into, const std::u16string &name, const entry &moved) {
    entry added = into->add({name, moved.type(), 0, 0, moved.modified()});
    const short_name alias = added.alias();
    added.raw = moved.raw;
    std::copy(alias.begin(), alias.end(), added.raw.begin());
    added.raw[fat::SHORT_SYSID.offset] = 0; // the long name tells the case
    into->update(added);
}

// A directory that moves gets another "..".
void adopt(volume &vol, const directory &parent, const entry &moved) {
    if (moved.is_directory() && moved.start() != 0) {
        directory dir = open_directory(vol, moved);
        dir.set_parent(parent.parent_link());
        dir.write_changes();
    }
}

// In one directory both changes reach the medium together; in two the new name comes first.
void move_entry(volume &vol, place *from, place *to, bool is_forced) {
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
    const std::vector<u32> replaced = clear_new_place(vol, to, moved, is_forced);
    add_moved(&to->parent, to->path.back(), moved);
    vol.commit_additions({&to->parent});
    if (!is_same_directory) {
        adopt(vol, to->parent, moved);
        from->parent.remove(moved);
    }
    vol.fat().release(replaced);
    vol.commit_removals({&from->parent});
}

void move_one(volume &vol, const std::string &source, const std::string &path, bool is_forced) {
    place from = resolve(vol, source);
    if (from.is_root()) {
        fail(vol, from.path, "the root directory cannot be moved");
    }
    place to = find_place(vol, path);
    const bool is_itself =
        to.found && to.parent.start() == from.parent.start() && to.found->slot == from.found->slot;
    if (to.is_directory() && !is_itself) {
        to.path.push_back(from.found->name);
        to = find_place(vol, to.path);
    }
    if (from.found->is_directory() && !is_itself &&
        is_below(spelt_path(vol, to.path), spelt_path(vol, from.path))) {
        fail(vol, to.path, "lies in the directory that is to be moved");
    }
    about(vol, to.path, [&] { move_entry(vol, &from, &to, is_forced); });
}

int run_mv(const common_options &common, const mv_options &options) {
    return with_volume(common, access::WRITE, [&](volume &vol) {
        const std::string &path = options.arguments.back();
        const std::size_t sources = options.arguments.size() - 1;
        if (sources > 1 && !resolve(vol, path).is_directory()) {
            fail(vol, parse_path(vol.names(), path), "not a directory");
        }
        json moved = json::array();
        for (std::size_t i = 0; i < sources; i++) {
            move_one(vol, options.arguments[i], path, options.is_forced);
            moved.push_back(json_path(parse_path(vol.names(), options.arguments[i])));
        }
        tell(common.out, "moved", std::move(moved));
        return EXIT_DONE;
    });
}

// ---- rm ----

struct rm_options {
    std::vector<std::string> paths;
    bool is_recursive = false;
};

// The clusters that are to go. One that is met twice belongs to two chains, and freeing it might
// take it from a file that stays.
class removal {
public:
    // What belongs to the root and to the directory of what is removed is not to go.
    removal(volume &vol, const directory &parent)
        : vol_(vol), is_taken_(vol.fat().last_cluster() + 1) {
        keep(vol.root());
        keep(parent);
    }

    // Everything that an entry refers to, itself and below it.
    void take_tree(const place &top) {
        about(vol_, top.path, [&] { take(*top.found); });
        if (!top.found->is_directory() || top.found->start() == 0) {
            return;
        }
        tree_visitor visitor;
        visitor.visit = [&](const name_path &path, const entry &found, bool) {
            about(vol_, path, [&] { take(found); });
            return true;
        };
        walk_tree(vol_, top.path, open_directory(vol_, top), visitor);
    }

    [[nodiscard]] const std::vector<u32> &clusters() const {
        return clusters_;
    }

private:
    void keep(const directory &kept) {
        for (const u32 cluster : kept.clusters()) {
            is_taken_[cluster] = true;
        }
    }

    void take(const entry &found) {
        if (found.start() == 0) {
            return;
        }
        for (const u32 cluster : vol_.fat().chain(found.start())) {
            if (is_taken_[cluster]) {
                throw error(
                    fmt::format("shares cluster {} with another; repair that first", cluster));
            }
            is_taken_[cluster] = true;
            clusters_.push_back(cluster);
        }
    }

    volume &vol_;
    std::vector<bool> is_taken_; // by cluster
    std::vector<u32> clusters_;
};

void check_removal(volume &vol, const place &where, bool is_recursive) {
    if (where.is_root()) {
        fail(vol, where.path, "the root directory cannot be removed");
    }
    if (where.found->is_directory() && !is_recursive && where.found->start() != 0 &&
        !open_directory(vol, where).is_empty()) {
        fail(vol, where.path,
             "is a directory that is not empty; -r removes it with everything in it");
    }
}

// Whether a path leads to something; one whose directory has gone does not.
bool is_there(volume &vol, const name_path &path) {
    try {
        return find_place(vol, path).found.has_value();
    } catch (const error &) {
        return false;
    }
}

void remove_one(volume &vol, place where) {
    removal gone(vol, where.parent);
    gone.take_tree(where);
    where.parent.remove(*where.found);
    vol.fat().release(gone.clusters());
    vol.commit_removals({&where.parent});
}

// All paths are looked at before the first one goes. One that goes with another is no mistake.
int run_rm(const common_options &common, const rm_options &options) {
    return with_volume(common, access::WRITE, [&](volume &vol) {
        for (const std::string &path : options.paths) {
            check_removal(vol, resolve(vol, path), options.is_recursive);
        }
        json removed = json::array();
        for (const std::string &path : options.paths) {
            const name_path spelt = parse_path(vol.names(), path);
            if (is_there(vol, spelt)) {
                remove_one(vol, find_place(vol, spelt));
            }
            removed.push_back(json_path(spelt));
        }
        tell(common.out, "removed", std::move(removed));
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
               "Make the directories above as well; one that exists is no mistake");
}

void add_ln(command_line *commands) {
    const auto [ln, options] = commands->add(
        {"ln", "Make a symbolic link", "  qvol ln flash.img kernel-6.1.bin /boot/kernel.bin"},
        run_ln);
    ln.value("TARGET", &options->target, "What the link holds").required();
    ln.value("PATH", &options->path, "The link to make").required();
}

void add_mv(command_line *commands) {
    const auto [mv, options] = commands->add({"mv", "Rename, or move into another directory",
                                              "  qvol mv flash.img /notes.txt /old-notes.txt\n"
                                              "  qvol mv flash.img /a.jpg /b.jpg /photos"},
                                             run_mv);
    mv.list("SOURCE... PATH", &options->arguments,
            "What to move, and the directory to move it into, or the new name")
        .required()
        .count(2, declared_option::ANY_NUMBER);
    mv.flag("-f,--force", &options->is_forced, "Replace a file that exists");
}

void add_rm(command_line *commands) {
    const auto [rm, options] = commands->add({"rm", "Remove files, links and directories",
                                              "  qvol rm flash.img /notes.txt /empty-directory\n"
                                              "  qvol rm -r flash.img /photos"},
                                             run_rm);
    rm.list("PATH", &options->paths, "What to remove").required();
    rm.flag("-r,--recursive", &options->is_recursive, "Directories with everything in them");
}

} // namespace qvol
