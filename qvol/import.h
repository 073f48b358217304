// The import engine: trees of the host into a directory of the volume.
//
// First everything is planned in memory: every name is placed, every cluster allocated. Only then
// does data reach the medium, in the order of the clusters, then the FAT, then the directories. A
// request that cannot be met is refused with nothing written.

#pragma once

#include "qvol/host_tree.h"
#include "qvol/progress.h"
#include "qvol/session.h"

#include <memory>

namespace qvol {

class data_writer;

class import_plan {
public:
    // `replaces`: files and links of the volume give way to those of the host.
    import_plan(volume &vol, bool replaces) : vol_(vol), replaces_(replaces) {}
    import_plan(const import_plan &) = delete;
    import_plan &operator=(const import_plan &) = delete;

    // Plans to put the nodes into a directory of the volume, called `path` in messages. `nodes` has
    // to outlive the plan. Throws error with everything that stands against it.
    void place(const std::vector<host_node> &nodes, directory into, const std::string &path);

    // Does what was planned. The volume is still to be finished.
    void write(progress *bar);

private:
    // A file or link that gets data: its node, the directory and the slot of its entry.
    struct planned_file {
        const host_node *node;
        directory *parent;
        u32 slot;
        std::vector<u32> clusters;
    };

    // The nodes of one directory of the volume that exists.
    void check(const std::vector<host_node> &nodes, const directory &into, const std::string &path);
    void check_existing(const host_node &node, const entry &existing, const std::string &path);

    void place_entries(const std::vector<host_node> &nodes, directory *into);
    [[nodiscard]] directory open_once(const entry &existing);
    void place_directory(const host_node &node, directory *parent);
    void place_file(const host_node &node, directory *parent);
    void allocate_data();
    [[noreturn]] void tell_no_space(const std::vector<host_node> &nodes);

    void write_file(const planned_file &file, data_writer *writer, progress *bar);

    volume &vol_;
    bool replaces_;
    std::vector<std::string> problems_;
    std::vector<std::unique_ptr<directory>> directories_; // parents in front of what is below them
    std::vector<planned_file> files_;
    std::vector<u32> replaced_clusters_; // freed when nothing refers to them any more
    std::vector<u8> buffer_;             // for the data of files
};

} // namespace qvol
