#include "qvol/import.h"

#include "qvol/error.h"
#include "qvol/file_data.h"
#include "qvol/output.h"
#include "qvol/path.h"

#include <algorithm>

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

namespace qvol {

namespace {

// Opens files of the host. Files of one directory follow each other, so it opens each directory
// once.
class host_files {
public:
    [[nodiscard]] core::unique_fd open(const std::string &path) {
        constexpr int FLAGS = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        const std::size_t name = path.rfind('/') + 1; // 0: no slash
        if (!directory_ || path.compare(0, name, directory_path_) != 0) {
            directory_path_ = path.substr(0, name);
            directory_.emplace(::open(name == 0 ? "." : directory_path_.c_str(),
                                      O_PATH | O_DIRECTORY | O_CLOEXEC));
        }
        const int fd = directory_->get();
        return core::unique_fd(fd < 0 ? fd : openat(fd, path.c_str() + name, FLAGS));
    }

private:
    std::string directory_path_; // up to the last slash
    std::optional<core::unique_fd> directory_;
};

// Copies a file of the host into the buffer of the writer. Throws error if it does not have `size`
// bytes.
void copy_host_file(int file, const host_node &node, data_writer *writer, progress *bar) {
    u64 done = 0;
    for (bool is_complete = false; !is_complete;) {
        u8 past_end = 0;
        const std::span<u8> to = done < node.size ? writer->room() : std::span(&past_end, 1);
        const ssize_t count = read(file, to.data(), to.size());
        if (count < 0) {
            throw system_failure("read " + shown_bytes(node.path));
        }
        done += static_cast<u64>(count);
        if (count == 0 || done > node.size) {
            break;
        }
        writer->add(static_cast<std::size_t>(count));
        bar->add(static_cast<u64>(count));
        // After a short read the file has ended, so no further call is needed.
        is_complete = done == node.size && static_cast<std::size_t>(count) < to.size();
    }
    if (done != node.size) {
        throw error("cannot copy " + shown_bytes(node.path) +
                    ": changed while it was read; try again");
    }
}

// Adds the entry of the host to errors of `work`, except no_space, which concerns all entries.
template <typename Work>
auto add_context(const host_node &node, Work work) {
    try {
        return work();
    } catch (const no_space &) {
        throw;
    } catch (const error &why) {
        throw error("cannot store " + shown_bytes(node.path) + ": " + why.what() +
                    "; nothing was written");
    }
}

std::span<const u8> bytes_of(const std::string &text) {
    return {reinterpret_cast<const u8 *>(text.data()), text.size()};
}

} // namespace

// ---- checks -----------------------------------------------------------------------------------

void import_plan::check_existing(const host_node &node, const entry &existing,
                                 const std::string &path) {
    if (existing.name != node.name) {
        problems_.push_back(path + ": exists as " + vol_.names().shown(existing.name) +
                            ", which differs only in case");
    } else if (existing.is_directory() != (node.type == kind::DIRECTORY)) {
        problems_.push_back(path + (existing.is_directory() ? ": is a directory on the volume"
                                                            : ": exists and is not a directory"));
    } else if (existing.is_directory()) {
        check(node.children, open_directory(vol_, existing), path);
    } else if (!replaces_) {
        problems_.push_back(path + ": exists; --force replaces it");
    }
}

void import_plan::check(const std::vector<host_node> &nodes, const directory &into,
                        const std::string &path) {
    for (const host_node &node : nodes) {
        const std::string shown = (path == "/" ? "" : path) + "/" + vol_.names().shown(node.name);
        const entry *existing = into.find_name(node.name);
        const entry *alias = existing == nullptr ? into.find(node.name) : nullptr;
        if (existing != nullptr) {
            check_existing(node, *existing, shown);
        } else if (alias != nullptr) {
            problems_.push_back(shown + ": is already the short name of " +
                                vol_.names().shown(alias->name));
        }
    }
}

// ---- planning ---------------------------------------------------------------------------------

// Two directory objects for one chain would overwrite each other's changes.
directory import_plan::open_once(const entry &existing) {
    directory dir = open_directory(vol_, existing);
    const bool is_open =
        std::any_of(directories_.begin(), directories_.end(),
                    [&](const auto &known) { return known->start() == dir.start(); });
    if (is_open) {
        throw error("two directories share one chain; repair the volume first");
    }
    return dir;
}

void import_plan::plan_directory(const host_node &node, directory *parent) {
    const entry *existing = parent->find_name(node.name);
    if (existing != nullptr) {
        directories_.push_back(
            std::make_unique<directory>(add_context(node, [&] { return open_once(*existing); })));
    } else {
        const dos_time stamp = dos_time_of(node.modified);
        directories_.push_back(
            std::make_unique<directory>(directory::make(vol_.fat(), *parent, stamp)));
        const u32 start = directories_.back()->start();
        add_context(node, [&] {
            parent->add({node.name, kind::DIRECTORY, start, 0, stamp, allows_long_names_});
        });
    }
    plan_entries(node.children, directories_.back().get());
}

// The entry gets its clusters in allocate_data(), after those of all directories.
void import_plan::plan_file(const host_node &node, directory *parent) {
    const entry *existing = parent->find_name(node.name);
    const dos_time stamp = dos_time_of(node.modified);
    if (existing == nullptr) {
        const u32 size = static_cast<u32>(node.size);
        existing = add_context(node, [&] {
            return &parent->add({node.name, node.type, 0, size, stamp, allows_long_names_});
        });
    } else {
        entry changed = *existing;
        if (changed.start() != 0) {
            const std::vector<u32> old =
                add_context(node, [&] { return vol_.fat().chain(changed.start()); });
            replaced_clusters_.insert(replaced_clusters_.end(), old.begin(), old.end());
        }
        changed.set_start(0);
        changed.set_size(static_cast<u32>(node.size));
        changed.set_modified(stamp);
        changed.set_link(node.type == kind::LINK);
        parent->update(changed);
    }
    files_.push_back({&node, parent, existing->slot, {}});
}

void import_plan::plan_entries(const std::vector<host_node> &nodes, directory *into) {
    for (const host_node &node : nodes) {
        into->reserve_short_name(node.name);
    }
    for (const host_node &node : nodes) {
        if (node.type == kind::DIRECTORY) {
            plan_directory(node, into);
        } else {
            plan_file(node, into);
        }
    }
}

void import_plan::allocate_data() {
    for (planned_file &file : files_) {
        file.clusters = vol_.fat().allocate(clusters_for(vol_.on(), file.node->size));
        if (!file.clusters.empty()) {
            entry changed = file.parent->entries().at(file.slot);
            changed.set_start(file.clusters.front());
            file.parent->update(changed);
        }
    }
}

// clusters_needed() does not count the growth of existing directories, so it may be too small; the
// true number exceeds the free clusters in any case.
void import_plan::throw_no_space(const std::vector<host_node> &nodes) {
    const u64 cluster = vol_.on().cluster_bytes();
    const u64 available = vol_.fat().free_count();
    const u64 needed = std::max(clusters_needed(nodes, vol_.on().cluster_bytes()), available + 1);
    throw error(fmt::format("no space: {} needed, {} free on the volume; nothing was written",
                            shown_size(needed * cluster), shown_size(available * cluster)));
}

void import_plan::plan(const std::vector<host_node> &nodes, directory into,
                       const std::string &path) {
    check(nodes, into, path);
    if (!problems_.empty()) {
        throw error("cannot store all entries; nothing was written", problems_);
    }
    directories_.push_back(std::make_unique<directory>(std::move(into)));
    directory *top = directories_.back().get();
    try {
        plan_entries(nodes, top);
        allocate_data();
    } catch (const no_space &) {
        vol_.fat().forget_changes();
        throw_no_space(nodes);
    }
}

// ---- writing ----------------------------------------------------------------------------------

void import_plan::write(progress *bar) {
    data_writer writer(vol_.on(), vol_.where().is_fresh());
    host_files host;
    for (const planned_file &file : files_) {
        writer.begin(file.clusters);
        if (file.node->type == kind::LINK) {
            writer.append(bytes_of(file.node->target));
        } else {
            const core::unique_fd opened = host.open(file.node->path);
            if (opened.get() < 0) {
                throw system_failure("open " + shown_bytes(file.node->path));
            }
            copy_host_file(opened.get(), *file.node, &writer, bar);
        }
        writer.end();
    }
    writer.flush();
    std::vector<directory *> changed;
    for (const auto &dir : directories_) {
        changed.push_back(dir.get());
    }
    vol_.commit_additions(changed);
    vol_.fat().release(replaced_clusters_);
    vol_.fat().write_changes();
}

} // namespace qvol
