// The entries to import: files, directories and links of the host. Scanning does not read files.

#pragma once

#include "core/geometry.h"
#include "qvol/directory.h"
#include "qvol/names.h"
#include "qvol/output.h"

#include <array>
#include <bit>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <time.h>

namespace qvol {

// An entry of the host with everything below it.
struct host_node {
    std::string path; // to open it
    std::u16string name;
    kind type = kind::FILE;
    u64 size = 0;  // bytes; for a link those of its target
    u32 slots = 0; // 32-byte slots that its entry takes in a directory
    time_t modified = 0;
    std::string target;              // of a link
    std::vector<host_node> children; // of a directory, sorted by the bytes of the names
};

// Scans trees of the host. Collects all entries that a volume cannot store, to report them at once:
// invalid names, large files, special files, names that differ only in case.
class host_scan {
public:
    // `allows_long_names`: if false, names that do not fit 8.3 are problems.
    host_scan(const name_codec &names, bool skips_special, bool allows_long_names = true)
        : names_(names), skips_special_(skips_special), allows_long_names_(allows_long_names) {}

    // Scans the entry at `path`, to be stored as `name`; does not follow links. Throws error if it
    // cannot be read.
    [[nodiscard]] host_node scan(const std::string &path, const std::string &name);

    // Scans everything below a directory.
    [[nodiscard]] std::vector<host_node> scan_children(const std::string &path);

    // Adds a problem for each name that cannot be in one directory with an earlier one.
    void check_names(const std::vector<host_node> &siblings);

    [[nodiscard]] const std::vector<std::string> &problems() const {
        return problems_;
    }

private:
    [[nodiscard]] host_node scan(const std::string &path, const std::string &name,
                                 const struct stat &status);
    void add_problem(const std::string &path, const std::string &why);
    void set_name(host_node *node, const std::string &name);

    const name_codec &names_;
    bool skips_special_;
    bool allows_long_names_;
    std::vector<std::string> problems_;
};

// Sums over everything in a list of nodes.
[[nodiscard]] tree_totals totals_of(const std::vector<host_node> &nodes);

// Clusters that the nodes take: their data, and the directories below with "." and "..". Does not
// count the entries of the nodes themselves.
[[nodiscard]] u64 clusters_needed(const std::vector<host_node> &nodes, u32 cluster_bytes);

// The same for every cluster size of a new volume, counted once.
class cluster_counts {
public:
    cluster_counts() = default; // of no nodes
    explicit cluster_counts(const std::vector<host_node> &nodes);
    [[nodiscard]] u64 of(u32 cluster_bytes) const;

    static constexpr u32 SMALLEST = core::MIN_SECTOR_SIZE;
    static constexpr u32 LARGEST = 32 * 1024;

private:
    std::array<u64, std::bit_width(LARGEST / SMALLEST)> counts_{}; // by powers of two
};

// 32-byte slots that the nodes take in their directory.
[[nodiscard]] u64 slots_needed(const std::vector<host_node> &nodes);

} // namespace qvol
