// qvol get: out of the volume, onto the host.
//
// Every name is looked at before anything is written, and refused where it would lead elsewhere.
// Everything is made from open directories, without following links.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/file_data.h"
#include "qvol/host.h"
#include "qvol/progress.h"
#include "qvol/tree.h"

namespace qvol {

namespace {

struct get_options {
    std::string path;
    std::string destination;
    bool is_forced = false;
};

// ---- looking first ----

std::optional<std::string> problem_of(const volume &vol, const entry &found) {
    std::optional<std::string> problem = extraction_problem(found.name);
    if (problem) {
        return problem;
    }
    const std::optional<std::string> name = vol.names().to_host(found.name);
    if (!name || name->find_first_of(std::string_view("/\0", 2)) != name->npos) {
        return "the encoding of names does not have it";
    }
    return std::nullopt;
}

// Goes through all that is asked for. Throws error with every name that is refused.
class survey {
public:
    explicit survey(volume &vol) : vol_(vol) {}

    tree_totals of(const place &top) {
        if (!top.is_root()) {
            look_at(top.path, *top.found);
        }
        if (top.is_directory()) {
            tree_visitor visitor;
            visitor.visit = [this](const name_path &path, const entry &found, bool) {
                return look_at(path, found);
            };
            walk_tree(vol_, top.path, open_directory(vol_, top), visitor);
        }
        if (!refused_.empty()) {
            throw error("these names are not made on the host; nothing was written", refused_);
        }
        return totals_;
    }

private:
    bool look_at(const name_path &path, const entry &found) {
        const std::optional<std::string> problem = problem_of(vol_, found);
        if (problem) {
            refused_.push_back(shown_path(vol_.names(), path) + ": " + *problem);
        }
        if (found.type() == kind::FILE) {
            totals_.bytes += found.size();
            count_clusters(found);
        }
        return true;
    }

    // Files that share their chains could fill the host many times over.
    void count_clusters(const entry &found) {
        clusters_ += clusters_for(found.size());
        if (clusters_ > sv->num_clusters) {
            throw error("the files are larger together than the volume: they share their "
                        "clusters, which is to be repaired first");
        }
    }

    volume &vol_;
    tree_totals totals_;
    u64 clusters_ = 0;
    std::vector<std::string> refused_;
};

// ---- writing ----

class extraction {
public:
    extraction(volume &vol, bool is_forced, progress *bar)
        : vol_(vol), is_forced_(is_forced), bar_(bar) {}

    // Makes one entry, with everything below it, under a name of a directory of the host.
    void extract(const host_directory &into, const std::string &name, const place &top) {
        if (top.is_directory()) {
            extract_tree(into.enter(name), top);
        } else {
            make(into, name, top.path, *top.found);
        }
    }

    // Makes everything below a directory of the volume in one of the host.
    void extract_tree(host_directory into, const place &top) {
        const directory dir = open_directory(vol_, top);
        open_.push_back(
            {std::move(into), top.is_root() ? std::nullopt : moment_of(top.found->modified())});
        totals_.directories += top.is_root() ? 0 : 1;
        tree_visitor visitor;
        visitor.visit = [this](const name_path &path, const entry &found, bool) {
            return visit(path, found);
        };
        visitor.leave = [this](const name_path &) { leave(); };
        walk_tree(vol_, top.path, dir, visitor);
        leave();
    }

    [[nodiscard]] const tree_totals &totals() const {
        return totals_;
    }

private:
    struct open_level {
        host_directory dir;
        std::optional<time_t> modified;
    };

    bool visit(const name_path &path, const entry &found) {
        const std::string name = vol_.names().to_host(found.name).value_or("");
        if (!found.is_directory()) {
            make(open_.back().dir, name, path, found);
            return false;
        }
        totals_.directories++;
        open_.push_back({open_.back().dir.enter(name), moment_of(found.modified())});
        return true;
    }

    // A directory gets its time when everything in it has been made.
    void leave() {
        open_.back().dir.set_modified(open_.back().modified);
        open_.pop_back();
    }

    void make(const host_directory &into, const std::string &name, const name_path &path,
              const entry &found) {
        try {
            found.type() == kind::LINK ? make_link(into, name, found)
                                       : make_file(into, name, found);
        } catch (const error &why) {
            throw error(shown_path(vol_.names(), path) + ": " + why.what());
        }
    }

    void make_file(const host_directory &into, const std::string &name, const entry &found) {
        const std::vector<u32> clusters = clusters_of_file(vol_.fat(), found.start(), found.size());
        into.make_file(name, is_forced_, moment_of(found.modified()), [&](const write_piece &put) {
            read_data(clusters, found.size(), [&](std::span<const u8> bytes) {
                put(bytes);
                bar_->add(bytes.size());
            });
        });
        totals_.files++;
        totals_.bytes += found.size();
    }

    void make_link(const host_directory &into, const std::string &name, const entry &found) {
        const std::string target = link_target(vol_, found);
        if (target.empty() || target.find('\0') != std::string::npos) {
            throw error("the target of the link is none that the host could hold");
        }
        into.make_link(name, is_forced_, moment_of(found.modified()), target);
        totals_.links++;
    }

    volume &vol_;
    bool is_forced_;
    progress *bar_;
    std::vector<open_level> open_;
    tree_totals totals_;
};

// A destination that is a directory takes the entry under its own name; the root has none, and its
// content goes straight into the destination.
void extract_to(extraction *work, const volume &vol, const place &top,
                const std::string &destination) {
    if (is_host_directory(destination)) {
        host_directory into(destination);
        if (top.is_root()) {
            work->extract_tree(std::move(into), top);
        } else {
            work->extract(into, vol.names().to_host(top.found->name).value_or(""), top);
        }
        return;
    }
    const split_path split = split_host_path(destination);
    work->extract(host_directory(split.directory), split.name, top);
}

int run_get(const common_options &common, const get_options &options) {
    return with_volume(common, access::READ, [&](volume &vol) {
        const place top = resolve(vol, options.path);
        const tree_totals expected = survey(vol).of(top);
        progress bar("get", expected.bytes, common.out.is_quiet);
        extraction work(vol, options.is_forced, &bar);
        extract_to(&work, vol, top, options.destination);
        report_totals(common.out, work.totals());
        return EXIT_DONE;
    });
}

} // namespace

void add_get(command_line *commands) {
    const auto [get, options] =
        commands->add({"get", "Copy files and directories out of the volume",
                       "  qvol get flash.img /photos backup\n"
                       "  qvol get flash.img / whole-volume\n"
                       "  qvol get --force flash.img /etc/config.txt config.txt"},
                      run_get);
    get.value("PATH", &options->path, "Path in the volume").required();
    get.value("DEST", &options->destination, "Existing directory to copy into, or the new name")
        .required();
    get.flag("-f,--force", &options->is_forced, "Replace files that exist");
}

} // namespace qvol
