#include "qvol/import.h"

#include "qvol/error.h"
#include "qvol/file_data.h"
#include "qvol/output.h"
#include "qvol/path.h"
#include "qvol/sharing.h"

#include <algorithm>
#include <map>
#include <utility>

#include <fmt/core.h>

namespace qvol {

namespace {

// Adds the entry of the host to errors of `work`, except no_space, which concerns all entries.
template <typename Work>
auto add_context(const source_node &node, Work work) {
    try {
        return work();
    } catch (const no_space &) {
        throw;
    } catch (const error &why) {
        throw error("cannot store " + shown_bytes(node.path) + ": " + why.what() +
                    "; nothing was written");
    }
}

// An entry that exists has the requested attributes, or else its own.
void set_attributes(const source_node &node, entry *of) {
    if (node.attributes) {
        of->set_attributes(*node.attributes | (of->attributes() & core::ATTR_DIRECTORY));
    }
}

new_entry entry_of(const source_node &node, bool allows_long_name) {
    new_entry wanted;
    wanted.name = node.name;
    wanted.type = node.type;
    wanted.size = node.type == kind::DIRECTORY ? 0 : static_cast<u32>(node.size);
    wanted.modified = dos_time_of(node.modified);
    wanted.allows_long_name = allows_long_name;
    wanted.attributes = node.attributes.value_or(0);
    return wanted;
}

std::span<const u8> bytes_of(const std::string &text) {
    return {reinterpret_cast<const u8 *>(text.data()), text.size()};
}

} // namespace

// ---- checks -----------------------------------------------------------------------------------

void import_plan::check_existing(const source_node &node, const entry &existing,
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

void import_plan::check(const std::vector<source_node> &nodes, const directory &into,
                        const std::string &path) {
    for (const source_node &node : nodes) {
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

void import_plan::plan_directory(const source_node &node, directory *parent) {
    const entry *existing = parent->find_name(node.name);
    if (existing != nullptr) {
        directories_.push_back(
            std::make_unique<directory>(add_context(node, [&] { return open_once(*existing); })));
        if (node.attributes) {
            entry changed = *existing;
            set_attributes(node, &changed);
            parent->update(changed);
        }
    } else {
        new_entry wanted = entry_of(node, allows_long_names_);
        directories_.push_back(
            std::make_unique<directory>(directory::make(vol_.fat(), *parent, wanted.modified)));
        wanted.start = directories_.back()->start();
        add_context(node, [&] { parent->add(wanted); });
    }
    plan_entries(node.children, directories_.back().get());
}

// The entry gets its clusters in allocate_data(), after those of all directories.
void import_plan::plan_file(const source_node &node, directory *parent) {
    const entry *existing = parent->find_name(node.name);
    if (existing == nullptr) {
        existing =
            add_context(node, [&] { return &parent->add(entry_of(node, allows_long_names_)); });
    } else {
        entry changed = *existing;
        if (changed.start() != 0) {
            const std::vector<u32> old =
                add_context(node, [&] { return vol_.fat().chain(changed.start()); });
            replaced_clusters_.insert(replaced_clusters_.end(), old.begin(), old.end());
        }
        changed.set_start(0);
        changed.set_size(static_cast<u32>(node.size));
        changed.set_modified(dos_time_of(node.modified));
        changed.set_link(node.type == kind::LINK);
        set_attributes(node, &changed);
        parent->update(changed);
    }
    files_.push_back({&node, parent, existing->slot, {}});
}

void import_plan::plan_entries(const std::vector<source_node> &nodes, directory *into) {
    for (const source_node &node : nodes) {
        into->reserve_short_name(node.name);
    }
    for (const source_node &node : nodes) {
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
void import_plan::throw_no_space(const std::vector<source_node> &nodes) {
    const u64 cluster = vol_.on().cluster_bytes();
    const u64 available = vol_.fat().free_count();
    const u64 needed = std::max(clusters_needed(nodes, vol_.on().cluster_bytes()), available + 1);
    throw error(fmt::format("no space: {} needed, {} free on the volume; nothing was written",
                            shown_size(needed * cluster), shown_size(available * cluster)));
}

void import_plan::plan(const std::vector<source_node> &nodes, directory into,
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

// Writes the files of the sources into their clusters.
class import_plan::file_sink : public content_sink {
public:
    file_sink(const volume &vol, const std::vector<planned_file> &files, data_writer *writer,
              progress *bar)
        : on_(vol.on()), sharing_(vol.where()), files_(files), writer_(*writer), bar_(*bar) {}

    void begin(const content_request &wanted) override {
        file_ = &files_[wanted.file];
        writer_.begin(file_->clusters);
    }
    u64 share(int opened) override {
        const u64 bytes = sharing_.share(on_, opened, file_->node->size, file_->clusters);
        writer_.begin(std::span(file_->clusters).subspan(clusters_for(on_, bytes)));
        bar_.add(bytes);
        return bytes;
    }
    std::span<u8> room() override {
        return writer_.room();
    }
    void add(std::size_t count) override {
        writer_.add(count);
        bar_.add(count);
    }
    void end() override {
        writer_.end();
    }

private:
    const core::volume &on_;
    block_sharing sharing_;
    const std::vector<planned_file> &files_;
    const planned_file *file_ = nullptr; // that is written
    data_writer &writer_;
    progress &bar_;
};

// Targets of links are in memory already.
void import_plan::write_links(data_writer *writer) const {
    for (const planned_file &file : files_) {
        if (file.node->type == kind::LINK) {
            writer->begin(file.clusters);
            writer->append(bytes_of(file.node->target));
            writer->end();
        }
    }
}

// Copies files from the first name of their content, which has been written.
void import_plan::write_copies(const std::vector<content_copy> &copies, data_writer *writer,
                               progress *bar) const {
    writer->flush();
    for (const content_copy &copy : copies) {
        const planned_file &to = files_[copy.to];
        writer->begin(to.clusters);
        read_data(vol_.on(), files_[copy.from].clusters, to.node->size,
                  [&](std::span<const u8> bytes) {
                      writer->append(bytes);
                      bar->add(bytes.size());
                  });
        writer->end();
    }
}

// Of names that share a content, as hard links do, the first is copied from the source.
void import_plan::write_files(data_writer *writer, progress *bar) const {
    std::map<source *, std::vector<content_request>> wanted;
    std::map<std::pair<source *, u64>, std::size_t> first_names; // of contents
    std::vector<content_copy> copies;
    for (std::size_t i = 0; i < files_.size(); i++) {
        const source_node &node = *files_[i].node;
        if (node.from == nullptr) {
            continue;
        }
        const auto [first, is_new] = first_names.try_emplace({node.from, node.content}, i);
        if (is_new) {
            wanted[node.from].push_back({&node, i});
        } else {
            copies.push_back({first->second, i});
        }
    }
    file_sink sink(vol_, files_, writer, bar);
    for (const auto &[from, requests] : wanted) {
        from->copy(requests, &sink);
    }
    write_copies(copies, writer, bar);
}

void import_plan::write(progress *bar) {
    data_writer writer(vol_.on(), vol_.where().allowed_holes() == holes::ZEROS);
    write_links(&writer);
    write_files(&writer, bar);
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
