// What is to be stored: files, directories and links of any source, as a tree. The contents of
// files stay in their source until they are copied.

#pragma once

#include "core/geometry.h"
#include "qvol/directory.h"
#include "qvol/names.h"
#include "qvol/output.h"

#include <array>
#include <bit>
#include <optional>
#include <string>
#include <vector>

#include <time.h>

namespace qvol {

class source;

// Trees are visited recursively.
constexpr int MAX_TREE_DEPTH = 1024;
constexpr const char *TOO_DEEP = "more than 1,024 directories deep";

// An entry with everything below it.
struct source_node {
    std::string path;      // in its source, for messages
    std::string host_name; // bytes, in the name encoding
    std::u16string name;   // of the entry on the volume
    kind type = kind::FILE;
    u64 size = 0;  // bytes; for a link those of its target
    u32 slots = 0; // 32-byte slots that its entry takes in a directory
    time_t modified = 0;
    bool is_read_only = false;         // by its mode
    std::optional<u32> attributes;     // requested ones: read-only, hidden, system, archive
    std::string target;                // of a link
    source *from = nullptr;            // of a file: has its content
    u64 content = 0;                   // number of the content in its source
    std::vector<source_node> children; // of a directory, sorted by the bytes of the names
};

// Sums over everything in a list of nodes.
[[nodiscard]] tree_totals totals_of(const std::vector<source_node> &nodes);

// Clusters that the nodes take: their data, and the directories below with "." and "..". Does not
// count the entries of the nodes themselves.
[[nodiscard]] u64 clusters_needed(const std::vector<source_node> &nodes, u32 cluster_bytes);

// The same for every cluster size of a new volume, counted once.
class cluster_counts {
public:
    cluster_counts() = default; // of no nodes
    explicit cluster_counts(const std::vector<source_node> &nodes);
    [[nodiscard]] u64 of(u32 cluster_bytes) const;

    static constexpr u32 SMALLEST = core::MIN_SECTOR_SIZE;
    static constexpr u32 LARGEST = 32 * 1024;

private:
    std::array<u64, std::bit_width(LARGEST / SMALLEST)> counts_{}; // by powers of two
};

// 32-byte slots that the nodes take in their directory.
[[nodiscard]] u64 slots_needed(const std::vector<source_node> &nodes);

} // namespace qvol
