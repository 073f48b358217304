// What is to be imported: files, directories and links of the host, looked at but not yet read.

#pragma once

#include "qvol/directory.h"
#include "qvol/names.h"
#include "qvol/output.h"

#include <string>
#include <vector>

#include <time.h>

namespace qvol {

// One entry of the host with everything below it.
struct host_node {
    std::string path; // by which it is opened
    std::u16string name;
    kind type = kind::FILE;
    u64 size = 0;  // bytes; of a link those of its target
    u32 slots = 0; // 32-byte slots of its name in a directory
    time_t modified = 0;
    std::string target;              // of a link
    std::vector<host_node> children; // of a directory, sorted by their names' bytes
};

// Looks at the host. Whatever a volume cannot hold is gathered, so that all of it can be told at
// once: names, sizes, special files, names that differ only in case.
class host_scan {
public:
    // `takes_long_names`: of a volume without them names are refused that 8.3 does not hold.
    host_scan(const name_codec &names, bool skips_special, bool takes_long_names = true)
        : names_(names), skips_special_(skips_special), takes_long_names_(takes_long_names) {}

    // The entry at a path under a name of its own; links are not followed. Throws error where it
    // cannot be looked at.
    [[nodiscard]] host_node scan(const std::string &path, const std::string &name);

    // What is below a directory.
    [[nodiscard]] std::vector<host_node> scan_children(const std::string &path);

    // Names that cannot stand in one directory.
    void check_names(const std::vector<host_node> &siblings);

    [[nodiscard]] const std::vector<std::string> &problems() const {
        return problems_;
    }

private:
    void add_problem(const std::string &path, const std::string &why);
    void take_name(host_node *node, const std::string &name);
    [[nodiscard]] bool is_skipped(const std::string &path) const;

    const name_codec &names_;
    bool skips_special_;
    bool takes_long_names_;
    std::vector<std::string> problems_;
};

// Sums over everything in a list of nodes.
[[nodiscard]] tree_totals totals_of(const std::vector<host_node> &nodes);

// Clusters that the nodes take: data, and the directories below, of which each new one has "." and
// "..". The entries of the nodes themselves are not counted.
[[nodiscard]] u64 clusters_needed(const std::vector<host_node> &nodes, u32 cluster_bytes);

// 32-byte slots that the nodes take in their directory.
[[nodiscard]] u64 slots_needed(const std::vector<host_node> &nodes);

} // namespace qvol
