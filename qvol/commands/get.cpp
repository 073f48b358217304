// qvol get: copies out of the volume to the host.
//
// Checks every name before it writes anything, and refuses names that would lead outside the
// destination. Makes all entries relative to open directories and follows no links.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/extraction.h"
#include "qvol/file_data.h"
#include "qvol/host_attributes.h"
#include "qvol/progress.h"
#include "qvol/tree_walk.h"

#include <fmt/core.h>

namespace qvol {

namespace {

struct get_options {
    std::string path;
    std::string destination;
    bool is_forced = false;
    bool has_attributes = false;
};

// Where the copy goes: into a directory, under its own name or a new one.
struct copy_destination {
    host_directory into;
    std::optional<std::string> new_name;
};

copy_destination destination_of(const std::string &path) {
    if (is_host_directory(path)) {
        return {host_directory(path), std::nullopt};
    }
    const split_path split = split_host_path(path);
    return {host_directory(split.directory), split.name};
}

// ---- checks ----

std::optional<std::string> problem_of(const volume &vol, const entry &found,
                                      const host_directory &into, bool has_new_name) {
    std::optional<std::string> problem = extraction_problem(found.name);
    if (problem) {
        return problem;
    }
    const std::optional<std::string> name = host_name_of(vol.names(), found.name);
    if (!name) {
        return "not representable in the name encoding";
    }
    if (!has_new_name && into.is_too_long(*name)) {
        return fmt::format("{} bytes are too long for the file system of the host", name->size());
    }
    return std::nullopt;
}

// Checks all requested entries. Throws error with every name that is refused.
class extraction_check {
public:
    extraction_check(volume &vol, const copy_destination &to) : vol_(vol), to_(to) {}

    tree_totals of(const resolved_path &top) {
        if (!top.is_root()) {
            check_entry(top.path, *top.found, to_.new_name.has_value());
        }
        if (top.is_directory()) {
            tree_visitor visitor;
            visitor.visit = [this](const name_path &path, const entry &found, bool) {
                return check_entry(path, found, false);
            };
            walk_tree(vol_, top.path, open_directory(vol_, top), visitor);
        }
        if (!refused_.empty()) {
            throw error("cannot make these names on the host; nothing was written", refused_);
        }
        return totals_;
    }

private:
    bool check_entry(const name_path &path, const entry &found, bool has_new_name) {
        const std::optional<std::string> problem = problem_of(vol_, found, to_.into, has_new_name);
        if (problem) {
            refused_.push_back(shown_path(vol_.names(), path) + ": " + *problem);
        }
        if (found.type() == kind::FILE) {
            totals_.bytes += found.size();
            count_clusters(found);
        }
        return true;
    }

    // Files that share their chains could take much more space on the host than the volume has.
    void count_clusters(const entry &found) {
        clusters_ += clusters_for(vol_.on(), found.size());
        if (clusters_ > vol_.on().at.clusters) {
            throw error("cannot copy: files share clusters and need more space than the volume "
                        "has; repair the volume first");
        }
    }

    volume &vol_;
    const copy_destination &to_;
    tree_totals totals_;
    u64 clusters_ = 0;
    std::vector<std::string> refused_;
};

// ---- writing ----

class extraction {
public:
    extraction(volume &vol, const get_options &options, progress *bar)
        : vol_(vol), options_(options), bar_(bar) {}

    // Copies one entry, with everything below it, into a directory of the host.
    void extract(const host_directory &into, const std::string &name, const resolved_path &top) {
        if (top.is_directory()) {
            extract_tree(into.enter(name), top);
        } else {
            make(into, name, top.path, *top.found);
        }
    }

    // Copies everything below a directory of the volume into a directory of the host.
    void extract_tree(host_directory into, const resolved_path &top) {
        const directory dir = open_directory(vol_, top);
        open_.push_back({std::move(into), top.found});
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

    // The entries whose attributes the host cannot store.
    [[nodiscard]] u64 without_attributes() const {
        return without_attributes_;
    }

private:
    struct open_level {
        host_directory dir;
        std::optional<entry> of; // no value: the root
    };

    bool visit(const name_path &path, const entry &found) {
        const std::string name = vol_.names().to_host(found.name).value_or("");
        if (!found.is_directory()) {
            make(open_.back().dir, name, path, found);
            return false;
        }
        totals_.directories++;
        open_.push_back({open_.back().dir.enter(name), found});
        return true;
    }

    // Sets the attributes and the time of a directory after its entries are made.
    void leave() {
        const open_level &level = open_.back();
        if (level.of) {
            set_attributes(level.dir.descriptor(), *level.of);
            level.dir.set_modified(moment_of(level.of->modified()));
        }
        open_.pop_back();
    }

    void set_attributes(int fd, const entry &found) {
        if (options_.has_attributes && !write_host_attributes(fd, found.attributes())) {
            without_attributes_++;
        }
    }

    // Links of the host have no attributes.
    void count_dropped_attributes(const entry &link) {
        if (options_.has_attributes && (link.attributes() & COPIED_ATTRIBUTES) != 0) {
            without_attributes_++;
        }
    }

    void make(const host_directory &into, const std::string &name, const name_path &path,
              const entry &found) {
        try {
            if (found.type() == kind::LINK) {
                extract_link(vol_, into, name, options_.is_forced, found);
                count_dropped_attributes(found);
                totals_.links++;
            } else {
                make_file(into, name, found);
            }
        } catch (const error &why) {
            throw error("cannot copy " + shown_path(vol_.names(), path) + ": " + why.what());
        }
    }

    void make_file(const host_directory &into, const std::string &name, const entry &found) {
        const std::vector<u32> clusters = clusters_of_file(vol_.fat(), found.start(), found.size());
        into.make_file(
            name, options_.is_forced, moment_of(found.modified()),
            [&](const write_piece &write) {
                read_data(vol_.on(), clusters, found.size(), [&](std::span<const u8> bytes) {
                    write(bytes);
                    bar_->add(bytes.size());
                });
            },
            [&](int fd) { set_attributes(fd, found); });
        totals_.files++;
        totals_.bytes += found.size();
    }

    volume &vol_;
    const get_options &options_;
    progress *bar_;
    std::vector<open_level> open_;
    tree_totals totals_;
    u64 without_attributes_ = 0;
};

// The root has no name: its content goes into an existing directory.
void extract_to(extraction *work, const volume &vol, const resolved_path &top,
                copy_destination to) {
    if (to.new_name) {
        work->extract(to.into, *to.new_name, top);
    } else if (top.is_root()) {
        work->extract_tree(std::move(to.into), top);
    } else {
        work->extract(to.into, vol.names().to_host(top.found->name).value_or(""), top);
    }
}

void report_extraction(const output &out, const extraction &work, bool has_attributes) {
    const u64 without = work.without_attributes();
    out.remark(totals_text(work.totals()));
    if (without != 0) {
        out.remark(fmt::format("attributes of {} left out: the host cannot store them",
                               counted(without, "entry", "entries")));
    }
    if (out.is_json) {
        json document = totals_json(work.totals());
        if (has_attributes) {
            document.add("without_attributes", without);
        }
        out.document(document);
    }
}

int run_get(const common_options &common, const get_options &options) {
    return with_volume(common, access::READ, [&](volume &vol) {
        const resolved_path top = resolve(vol, options.path);
        copy_destination to = destination_of(options.destination);
        const tree_totals expected = extraction_check(vol, to).of(top);
        progress bar("get", expected.bytes, common.out.is_quiet);
        extraction work(vol, options, &bar);
        extract_to(&work, vol, top, std::move(to));
        report_extraction(common.out, work, options.has_attributes);
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
    get.value("PATH", &options->path, "What to copy").required();
    get.value("DEST", &options->destination, "Existing directory to copy into, or the new name")
        .required();
    get.flag("-f,--force", &options->is_forced, "Replace existing files");
    get.flag("--attrs", &options->has_attributes,
             "Copy read-only, hidden, system and archive, where the host can store them");
}

} // namespace qvol
