// Copies removed entries: their names from their slots, their content from free clusters.

#pragma once

#include "qvol/salvage/claims.h"
#include "qvol/salvage/removed_entries.h"
#include "qvol/salvage/tree.h"

#include <set>

namespace qvol {

inline constexpr const char *DELETED_DIRECTORY = "deleted"; // of the destination

class removed_salvage {
public:
    // `tree` was copied.
    removed_salvage(const salvage_source &from, const tree_salvage &tree, salvage_report *report);

    // Copies what was removed into the directory "deleted" of the destination.
    void copy(const host_directory &destination);

private:
    // A directory with removed entries, which itself may be removed.
    struct searched_directory {
        name_path path;
        std::string host_path; // below the destination, with a slash at its end
        u32 depth;             // levels of removed directories
        std::vector<removed_entry> entries{};
        std::pair<std::size_t, std::size_t> files{}; // the first one, and their number
    };
    struct removed_file {
        std::size_t directory; // index
        removed_entry found;
        u32 clusters;      // that it needs
        std::size_t claim; // index; NO_CLAIM: it has no clusters
        std::size_t child; // index of a directory with its entries; 0: none
    };

    void find_free();
    [[nodiscard]] bool is_free(u32 cluster) const;
    void search_tree();
    void search_directories();
    void search_entry(std::size_t directory, const removed_entry &found);
    [[nodiscard]] std::vector<u8> read_slots(u32 start);
    [[nodiscard]] u32 read_removed_slots(u32 start, std::vector<u8> *slots);
    [[nodiscard]] std::vector<u8> read_cluster(u32 cluster) const;
    void make_claims();

    void copy_directory(std::size_t index, const host_directory &destination);
    void copy_file(const removed_file &file, const host_directory &into, safe_names *names,
                   salvaged_entry *result);
    void copy_content_of(const removed_file &file, const host_directory &into,
                         const std::string &name, salvaged_entry *result);
    void copy_link(const std::vector<u32> &clusters, const entry &found, const host_directory &into,
                   const std::string &name) const;
    [[nodiscard]] confidence level_of(const removed_file &file) const;
    [[nodiscard]] salvaged_entry describe(const removed_file &file) const;
    [[nodiscard]] name_path path_of(const removed_file &file) const;
    [[nodiscard]] std::string basis_of(const removed_file &file) const;
    [[nodiscard]] std::string reason_gone(const removed_file &file) const;

    volume &vol_;
    core::volume before_; // without the repair
    const tree_salvage &tree_;
    salvage_report &report_;
    std::vector<cluster_extent> free_;
    std::vector<searched_directory> directories_;
    std::set<u32> searched_clusters_; // of removed directories
    std::vector<removed_file> files_; // in the order of their directories
    std::vector<cluster_claim> claims_;
    std::vector<std::size_t> claimants_; // by claim: the first file that makes it
    u64 clusters_left_;
};

} // namespace qvol
