// The import engine: copies trees of sources into a directory of the volume.
//
// First everything is planned in memory: every name gets its slots, every file its clusters. Then
// the data is written in the order of the clusters, then the FAT, then the directories. A request
// that cannot be met is refused before anything is written.

#pragma once

#include "qvol/file_data.h"
#include "qvol/progress.h"
#include "qvol/session.h"
#include "qvol/sources/source.h"

#include <memory>

namespace qvol {

class import_plan {
public:
    // `replaces`: files and links of the host replace those of the volume.
    import_plan(volume &vol, bool replaces, bool allows_long_names = true)
        : vol_(vol), replaces_(replaces), allows_long_names_(allows_long_names) {}
    import_plan(const import_plan &) = delete;
    import_plan &operator=(const import_plan &) = delete;

    // Plans to store the nodes in a directory of the volume, called `path` in messages. `nodes`
    // must outlive the plan. Throws error with all reasons why this is not possible.
    void plan(const std::vector<source_node> &nodes, directory into, const std::string &path);

    // Writes what was planned. The caller calls volume::finish().
    void write(progress *bar);

private:
    // A file or link to write: its node, the directory and the slot of its entry.
    struct planned_file {
        const source_node *node;
        directory *parent;
        u32 slot;
        std::vector<u32> clusters;
    };

    // A file whose content is that of another one, by their numbers.
    struct content_copy {
        std::size_t from;
        std::size_t to;
    };
    class file_sink;

    // Checks nodes against an existing directory of the volume.
    void check(const std::vector<source_node> &nodes, const directory &into,
               const std::string &path);
    void check_existing(const source_node &node, const entry &existing, const std::string &path);

    void plan_entries(const std::vector<source_node> &nodes, directory *into);
    [[nodiscard]] directory open_once(const entry &existing);
    void plan_directory(const source_node &node, directory *parent);
    void plan_file(const source_node &node, directory *parent);
    void allocate_data();
    void write_files(data_writer *writer, progress *bar) const;
    void write_links(data_writer *writer) const;
    void write_copies(const std::vector<content_copy> &copies, data_writer *writer,
                      progress *bar) const;
    [[noreturn]] void throw_no_space(const std::vector<source_node> &nodes);

    volume &vol_;
    bool replaces_;
    bool allows_long_names_;
    std::vector<std::string> problems_;
    std::vector<std::unique_ptr<directory>> directories_; // parents before their children
    std::vector<planned_file> files_;
    std::vector<u32> replaced_clusters_; // freed when no entry refers to them any more
};

} // namespace qvol
