// Copies the tree of a repaired volume out, with everything that can be read of it.

#pragma once

#include "qvol/check/check.h"
#include "qvol/progress.h"
#include "qvol/salvage/report.h"
#include "qvol/salvage/safe_names.h"

#include <map>
#include <memory>

namespace qvol {

// A repaired volume.
struct salvage_source {
    volume &vol;
    core::medium &original; // without the repair
    const std::vector<reported_finding> &findings;
};

// A directory of the volume that was copied.
struct copied_directory {
    name_path path;
    u32 start;             // first cluster, as the constructor of directory takes it
    std::string host_path; // below the destination, with a slash at its end; "": the root
};

class tree_salvage {
public:
    tree_salvage(const salvage_source &from, salvage_report *report, progress *bar);

    // No entry of the root gets this name.
    void reserve(std::u16string_view name) {
        root_names_->reserve(name);
    }

    // Copies everything into an empty directory of the host.
    void copy(host_directory into);

    // The directories that were read, parents first, but not what was lost.
    [[nodiscard]] const std::vector<copied_directory> &directories() const {
        return directories_;
    }

    // The first clusters of those that the repair has made.
    [[nodiscard]] const std::vector<u32> &made_by_repair() const {
        return made_by_repair_;
    }

    // The entry that the cluster was copied for, or null.
    [[nodiscard]] const salvaged_entry *owner_of(u32 cluster) const {
        const u32 owner = owners_.get(cluster);
        return owner != 0 ? &report_.entries[owner - 1] : nullptr;
    }

private:
    // A directory that is being copied.
    struct open_level {
        host_directory dir;
        std::string host_path; // below the destination
        std::shared_ptr<safe_names> names;
        std::optional<time_t> modified;
        std::size_t report; // index of its entry
        bool is_lost;       // in a directory that the repair has made for what was lost
    };

    void walk();
    bool visit(const name_path &path, const entry &found);
    void copy_entry(const std::string &name, const entry &found, salvaged_entry *result);
    void copy_file(const std::string &name, const entry &found, salvaged_entry *result);
    bool enter(const name_path &path, const std::string &name, const entry &found);
    void enter_lost_and_found();
    void leave();
    [[nodiscard]] salvaged_entry describe(const name_path &path, const entry &found,
                                          const std::string &name) const;
    [[nodiscard]] bool is_made_by_repair(const entry &found) const;
    void claim(std::span<const u32> clusters);
    void share(std::size_t one, std::size_t other);

    volume &vol_;
    core::medium &original_;
    salvage_report &report_;
    progress &bar_;
    std::multimap<std::string, std::string> reasons_; // by the path in JSON
    bool are_areas_in_doubt_;
    std::optional<directory> root_;
    std::vector<open_level> open_;
    std::vector<copied_directory> directories_;
    std::vector<u32> made_by_repair_;
    std::shared_ptr<safe_names> root_names_;
    std::shared_ptr<safe_names> lost_names_; // of all directories that the repair has made
    cluster_map owners_;                     // indices of entries, plus 1
    std::vector<bool> is_shared_;            // by the index of an entry
    u64 clusters_left_;
};

} // namespace qvol
