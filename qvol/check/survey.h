// The state of a check: the entries visited, the owner of each cluster, the findings.

#pragma once

#include "qvol/check/finding.h"
#include "qvol/path.h"
#include "qvol/session.h"

#include <array>
#include <bitset>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace qvol {

// A number for each cluster, 0 at first. Pages are allocated when a number is set in them.
class cluster_map {
public:
    [[nodiscard]] u32 get(u32 cluster) const {
        const std::size_t page = cluster / PAGE_CLUSTERS;
        return page < pages_.size() && pages_[page] != nullptr
                   ? (*pages_[page])[cluster % PAGE_CLUSTERS]
                   : 0;
    }
    void set(u32 cluster, u32 value) {
        const std::size_t page = cluster / PAGE_CLUSTERS;
        pages_.resize(std::max(pages_.size(), page + 1));
        if (pages_[page] == nullptr) {
            pages_[page] = std::make_unique<page_values>();
        }
        (*pages_[page])[cluster % PAGE_CLUSTERS] = value;
    }

private:
    static constexpr u32 PAGE_CLUSTERS = 4096;
    using page_values = std::array<u32, PAGE_CLUSTERS>;
    std::vector<std::unique_ptr<page_values>> pages_;
};

// The owners of clusters. A bit for each cluster is enough until a chain leads to a cluster that
// has an owner already: then all chains are followed once more for the owner of each.
class cluster_owners {
public:
    explicit cluster_owners(fat_table &table) : table_(table) {}

    [[nodiscard]] bool is_owned(u32 cluster) const {
        const std::size_t page = cluster / PAGE_CLUSTERS;
        return page < owned_.size() && owned_[page] != nullptr &&
               owned_[page]->test(cluster % PAGE_CLUSTERS);
    }
    // The clusters that are claimed next are the first ones of a chain of the node.
    void begin_chain(u32 node, u32 start) {
        chains_.push_back({node, start, 0});
    }
    void claim(u32 cluster);

    // Of the last chain only the first clusters still have an owner.
    void shorten_chain(u32 count);

    // The node of a claimed cluster.
    [[nodiscard]] u32 owner_of(u32 cluster);

    // Whether the cluster is the first one of a chain of the node.
    [[nodiscard]] bool has_chain(u32 node, u32 start) const;

private:
    struct owned_chain {
        u32 node;
        u32 start;
        u32 count;
    };
    void map_owner(const owned_chain &chain);

    static constexpr u32 PAGE_CLUSTERS = 32768;
    fat_table &table_;
    std::vector<std::unique_ptr<std::bitset<PAGE_CLUSTERS>>> owned_;
    std::vector<owned_chain> chains_;
    std::optional<cluster_map> owners_; // nodes plus 1
};

enum class chain_end {
    MARK,   // an end-of-chain mark: complete
    LIMIT,  // the limit was reached, and the chain continues
    FREE,   // links to a cluster that is marked free
    BAD,    // links to a cluster that is marked bad
    RANGE,  // links to a number that is not a cluster
    CYCLE,  // links to a cluster of the same chain
    SHARED, // links to a cluster of another entry
    OTHER,  // links to a cluster that holds no slots although the chain is that of a directory
};

// A chain up to the last cluster that could be claimed.
struct claimed_chain {
    u32 count = 0; // clusters
    u32 last = 0;  // the cluster before `at`; 0: the chain has no cluster
    chain_end end = chain_end::MARK;
    u32 at = 0;         // the link after the last cluster
    u32 past_image = 0; // the first of its clusters past the end of the image; 0: all are in it
};

// The root, at index 0, or an entry below it.
struct tree_node {
    u32 parent = NO_NODE;
    entry dentry{};
    core::slot_place location{}; // of its short entry
    u32 first_child = 0;
    u32 children = 0;
    bool is_shared = false;    // another entry references clusters of this one
    bool has_own_dots = false; // of a directory: both dot entries are right
    bool is_doubtful = false;  // read as a directory, but may be a file
};

// A chain that no entry leads to. Its last cluster may link to something else.
struct lost_chain {
    u32 head;
    u32 count;               // clusters
    u32 size = 0;            // bytes; 0: unknown
    std::size_t finding = 0; // its index
};

// A removed entry that leads to a cluster in use without an owner.
struct lost_entry {
    u32 parent; // node
    u32 size;
    bool is_directory;
    std::vector<std::pair<core::slot_place, u8>> first_bytes; // that restore its slots
};

// A chain that lacks clusters, and the finding about it.
struct incomplete_chain {
    std::size_t finding; // its index
    u32 node;
    claimed_chain claimed;
    u32 missing; // clusters that the file size needs; a directory: unknown, 0
};

// Slots in use past the end of a directory.
struct hidden_slots {
    struct claim {
        u32 start;
        u32 clusters; // 0: of a directory
    };
    std::size_t finding;                 // its index
    std::vector<claim> claims;           // of their entries on clusters
    std::vector<core::slot_place> zeros; // the slots that end the directory before them
};

// What a repair may do.
enum class repair_extent {
    NONE,
    SAFE, // only what cannot be disputed
    ALL,  // all after which everything that could be reached still can be
};

struct survey {
    explicit survey(volume &checked, repair_extent repairs = repair_extent::NONE,
                    bool frees = false)
        : vol(checked), image_bytes(checked.where().present_bytes()), table(checked.fat()),
          nodes(1), owners(checked.fat()), extent(repairs), frees_lost(frees) {}

    volume &vol;
    u64 image_bytes; // of the volume that exist
    fat_table &table;
    std::vector<tree_node> nodes;
    cluster_owners owners;
    std::vector<finding> findings;
    std::vector<incomplete_chain> incomplete;
    std::vector<hidden_slots> hidden;
    std::map<u32, lost_entry> removed; // by start
    std::vector<lost_chain> lost;
    std::optional<short_name> root_label; // the first one in the root directory
    u32 used_clusters = 0;                // by the entries of the tree
    repair_extent extent;
    bool frees_lost;     // the repair does not keep lost clusters
    bool renames = true; // the repair changes names

    [[nodiscard]] const core::volume &on() const {
        return vol.on();
    }
    void add(finding added) {
        findings.push_back(std::move(added));
    }
};

inline constexpr u32 ROOT_NODE = 0;

// The names from the root to the node. The first ones are left out of a path of hundreds of names,
// which no healthy volume has: the size of the report stays in proportion to the volume.
[[nodiscard]] name_path path_of(const survey &checked, u32 node);
[[nodiscard]] std::string shown_path(const survey &checked, u32 node);

// ---- the steps, in their order ----

void check_areas(survey *checked); // boot sector, FSInfo, the first two FAT entries, FAT copies
void check_directories(survey *checked);    // the tree, its names, the chains of directories
void check_label(survey *checked);          // the one in the boot sector
void check_files(survey *checked);          // the chains of files
void check_reserved_files(survey *checked); // pool and log
void check_lost_clusters(survey *checked);  // allocated clusters without an owner
void check_fsinfo_counts(survey *checked);
void mend_chains(survey *checked); // decides how the incomplete chains are repaired

} // namespace qvol
