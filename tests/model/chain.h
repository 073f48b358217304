// Reference model, layer 2: the FAT and the chains in it.
//
// Models: reading and writing one FAT entry, following a chain to a sector, counting and listing
// its clusters, searching for a free cluster, allocating, undoing an allocation, releasing. Every
// FAT entry is read from its sector when it is needed and written at once; results, diagnostics and
// the order of the writes are those of single steps.
//
// Not modelled: reading ahead and gathering the changes of a FAT sector in one write. Where the
// library does that, only the last of several writes in a row to one sector is to be compared.
// How many rounds of a cycle a walk makes before it stops is left open: see is_cyclic().

#pragma once

#include "tests/model/medium.h"

namespace model {

// The clusters of an open file or directory. The root directory of FAT16 has its first and its last
// sector instead.
struct open_chain {
    std::uint32_t start = 0, last = 0;
    std::uint32_t allocated = 0;     // bytes
    std::optional<raw_entry> cached; // its directory entry; missing: the root, or a broken chain
    bool is_root = false;
    bool operator==(const open_chain &) const = default;
};

class chains : public medium {
public:
    using medium::medium;

    std::uint32_t hint = 0; // where the search for a free cluster begins

    // The FAT entry without its reserved bits.
    std::uint32_t value_of(std::uint32_t cluster) {
        const location where = fat_location(cluster);
        return field_of(sector(where.sector), where.offset, shape.width / 8) & shape.end_mark();
    }
    bytes content_of(std::uint32_t cluster) {
        bytes result;
        for (std::uint32_t i = 0; i < shape.cluster_sectors; i++) {
            const bytes &part = sector(shape.first_sector_of(cluster) + i);
            result.insert(result.end(), part.begin(), part.end());
        }
        return result;
    }
    // Counts once, then with every change.
    std::uint32_t count_free() {
        if (!free_) {
            free_ = 0;
            for (std::uint32_t cluster = 2; cluster <= shape.last_cluster(); cluster++) {
                *free_ += value_of(cluster) == 0 ? 1 : 0;
            }
        }
        return *free_;
    }

    // The link of a data cluster, 0 for a free one.
    int next_of(std::uint32_t cluster) {
        if (!shape.has_cluster(cluster)) {
            return fail(-EINVAL, "fat_read_clus", "Invalid arg!\n\n");
        }
        if (!can_read(fat_location(cluster).sector)) {
            return fail(-EIO, "fat_read_entry", "cannot read FAT\n\n");
        }
        const std::uint32_t value = value_of(cluster);
        const bool is_bad = value == shape.end_mark() - 8;
        if (value == 0 || shape.is_end(value) || (shape.has_cluster(value) && !is_bad)) {
            return static_cast<int>(value);
        }
        return fail(-EINVAL, "fat_read_clus", "Invalid cluster!\n\n");
    }
    int write_entry(std::uint32_t cluster, std::uint32_t value) {
        const location where = fat_location(cluster);
        if (!can_read(where.sector)) {
            return fail(-EIO, "fat_write_entry", "cannot read FAT\n");
        }
        bytes content = sector(where.sector);
        const std::uint32_t old = field_of(content, where.offset, shape.width / 8);
        value &= shape.end_mark();
        put_field(&content, where.offset, shape.width / 8, (old & ~shape.end_mark()) | value);
        if (!write(where.sector, std::move(content))) {
            return fail(-EIO, "fat_write_entry", "cannot write FAT\n\n");
        }
        if (free_ && shape.has_cluster(cluster)) {
            *free_ += (value == 0 ? 1U : 0U) - ((old & shape.end_mark()) == 0 ? 1U : 0U);
        }
        return 0;
    }
    int find_free(std::uint32_t first, std::uint32_t last) {
        for (std::uint64_t cluster = first; cluster <= last; cluster++) {
            const int value = next_of(static_cast<std::uint32_t>(cluster));
            if (value < 0) {
                return fail(value, "fat_free_clus", "Invalid cluster value!\n\n");
            }
            if (value == 0) {
                return static_cast<int>(cluster);
            }
        }
        return -ENOENT;
    }

    // A cluster that a walk reached after that many links.
    struct step {
        std::uint32_t link = 0;
        std::uint32_t cluster = 0;
    };
    // Sector `index` of the chain that begins with cluster `base`, or of the root area of FAT16,
    // whose base is 0. With `from` the walk continues where the last one through it ended.
    int locate(std::uint32_t base, std::uint32_t index, std::uint32_t *sector_number,
               std::optional<step> *from = nullptr) {
        if (base > shape.last_cluster()) {
            return fail(-EINVAL, "get_phy_sector", "NULL pointer or invalid xxx!\n\n");
        }
        if (base == 0 && shape.width == 16) {
            if (std::uint64_t{shape.root_start} + index >= shape.data_start) {
                return fail(-EFAULT, "get_phy_sector", "Invalid sector number in Root dir\n\n");
            }
            *sector_number = shape.root_start + index;
            return 0;
        }
        if (base < 2) {
            return fail(-EINVAL, "get_phy_sector",
                        "invalid start cluster number " + std::to_string(base) + "\n");
        }
        step at = from != nullptr && *from ? **from : step{0, base};
        const std::uint32_t links = index / shape.cluster_sectors;
        for (; at.link < links; at.link++) {
            const int next = next_of(at.cluster);
            if (next < 0 || (next == 0 && at.link + 1 == links)) {
                return fail(-EINVAL, "get_phy_sector",
                            "invalid value " + std::to_string(next) + "\n");
            }
            at.cluster = static_cast<std::uint32_t>(next);
        }
        if (shape.is_end(at.cluster)) {
            return -EFAULT;
        }
        if (from != nullptr) {
            *from = at;
        }
        *sector_number = shape.first_sector_of(at.cluster) + index % shape.cluster_sectors;
        return 0;
    }

    // Returns the number of clusters of a chain, 0 if the chain reaches a free one.
    int count(std::uint32_t first, std::uint32_t *last) {
        std::set<std::uint32_t> visited;
        for (std::uint32_t cluster = first;;) {
            const int next = visited.insert(cluster).second ? next_of(cluster) : -EINVAL;
            if (next < 0) {
                return fail(-EINVAL, "fat_count_clusters", "Failed to read cluster!\n\n");
            }
            if (next == 0) {
                return 0;
            }
            if (shape.is_end(static_cast<std::uint32_t>(next))) {
                *last = cluster;
                return static_cast<int>(visited.size());
            }
            cluster = static_cast<std::uint32_t>(next);
        }
    }
    // The clusters of a chain up to its end, a damaged link or a repeated cluster.
    std::vector<std::uint32_t> clusters_of(std::uint32_t base, bool *is_cycle) {
        const std::size_t length = printed.size();
        std::vector<std::uint32_t> result;
        std::set<std::uint32_t> visited;
        *is_cycle = false;
        for (std::uint32_t cluster = base; shape.has_cluster(cluster) && !*is_cycle;) {
            *is_cycle = !visited.insert(cluster).second;
            if (!*is_cycle) {
                result.push_back(cluster);
                cluster = static_cast<std::uint32_t>(std::max(next_of(cluster), 0));
            }
        }
        printed.resize(length); // silently
        return result;
    }
    // The list that belongs to an open entry; its result counts the terminator.
    int list(const open_chain &chain, std::vector<std::uint32_t> *clusters) {
        if (!chain.cached && shape.width != 32) {
            return fail(-EINVAL, "fat_get_chains", "Invalid arg!\n\n");
        }
        if (chain.allocated == 0) {
            return 0;
        }
        const std::uint32_t slots = chain.allocated / shape.cluster_bytes() + 1;
        clusters->push_back(chain.start);
        for (std::uint32_t i = 0; i < slots; i++) {
            const int next = next_of(clusters->back());
            if (next < 1) {
                clusters->clear();
                return fail(-EINVAL, "fat_get_chains", "Failed to read cluster!\n\n");
            }
            if (shape.is_end(static_cast<std::uint32_t>(next))) {
                break;
            }
            clusters->push_back(static_cast<std::uint32_t>(next));
        }
        // The last slot and the slots past it are not defined.
        clusters->resize(std::min<std::size_t>(clusters->size(), slots - 1));
        return static_cast<int>(slots);
    }

    // Appends a free cluster to the chain. Without `chain` it begins a new one.
    int allocate(open_chain *chain, std::uint32_t *cluster) {
        if (hint < 2 || hint > shape.clusters) {
            hint = 1;
        }
        int found = find_free(hint + 1, shape.last_cluster());
        if (found == -ENOENT) {
            found = find_free(2, hint);
            if (found == -ENOENT) {
                return fail(-ENOSPC, "fat_alloc_cluster", "No space left on volume!!\n");
            }
        } else if (found < 0) {
            return found;
        }
        if (found > 0) { // Intentional: an error of the second search does not change *cluster
            *cluster = static_cast<std::uint32_t>(found);
        }
        const int result = link(chain, *cluster);
        hint = result == 0 ? *cluster : hint;
        return result;
    }
    // Takes allocations back: the chain ends at `old_last` again, `clusters` become free up to the
    // first that was never allocated.
    void undo(open_chain *chain, std::uint32_t old_last, const std::vector<std::uint32_t> &clusters,
              std::uint32_t allocations) {
        write_entry(old_last, shape.end_mark());
        chain->last = old_last;
        chain->allocated -= allocations * shape.cluster_bytes();
        for (auto c = clusters.begin(); c != clusters.end() && *c >= 2; ++c) {
            write_entry(*c, 0);
        }
    }
    // Frees the clusters of a chain after the first `keep`. Returns how many.
    int release(const open_chain &chain, std::uint32_t keep) {
        const char *const me = "fat_release_clusters";
        std::uint32_t cluster = chain.start;
        for (std::uint32_t count = 1;; count++) {
            const int next = next_of(cluster);
            if (next < 1) {
                return fail(-EINVAL, me, "Failed to read cluster!\n\n");
            }
            const int freed = count > keep ? write_entry(cluster, 0) : 0;
            if (freed < 0) {
                return fail(freed, me, "Failed to read cluster!\n\n");
            }
            if (shape.is_end(static_cast<std::uint32_t>(next))) {
                if (cluster != chain.last || count * shape.cluster_bytes() != chain.allocated) {
                    fail(0, me, "FAT chain is broken, but truncated all clusters\n");
                }
                return static_cast<int>(count - keep);
            }
            cluster = static_cast<std::uint32_t>(next);
        }
    }

private:
    [[nodiscard]] location fat_location(std::uint32_t cluster) const {
        const std::uint64_t byte = std::uint64_t{cluster} * (shape.width / 8);
        return {shape.fat_start + byte / shape.sector_bytes,
                static_cast<std::uint32_t>(byte % shape.sector_bytes)};
    }
    int write_link(std::uint32_t cluster, std::uint32_t value) {
        const int result = write_entry(cluster, value);
        return result < 0 ? fail(result, "fat_alloc_cluster", "Failed to write entry!\n\n")
                          : result;
    }
    int link(open_chain *chain, std::uint32_t cluster) {
        const bool is_first = chain == nullptr || (chain->start == 0 && chain->last == 0);
        int result = is_first ? 0 : write_link(chain->last, cluster);
        if (result < 0) {
            return result;
        }
        result = write_link(cluster, shape.end_mark());
        if (result < 0) {
            if (!is_first) {
                write_entry(chain->last, shape.end_mark());
            }
            return result;
        }
        if (chain != nullptr) {
            extend(chain, cluster, is_first);
        }
        return 0;
    }
    void extend(open_chain *chain, std::uint32_t cluster, bool is_first) const {
        if (is_first) {
            chain->start = cluster;
            if (chain->cached) {
                put_start(&*chain->cached, cluster);
            }
        }
        chain->last = cluster;
        chain->allocated += shape.cluster_bytes();
    }

    std::optional<std::uint32_t> free_; // clusters
};

} // namespace model
