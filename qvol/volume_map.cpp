#include "qvol/volume_map.h"

#include "qvol/host.h"
#include "qvol/tree_walk.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

holder state_of(const core::volume &on, u32 value) {
    if (value == core::FAT_FREE) {
        return HOLDER_FREE;
    }
    return value == on.bad_mark() ? HOLDER_BAD : HOLDER_LOST;
}

class cluster_survey {
public:
    explicit cluster_survey(volume &vol)
        : vol_(vol), last_(vol.fat().last_cluster()), is_taken_(u64{last_} + 1) {}

    void visit_tree() {
        const directory root = vol_.root();
        if (root.start() != 0) {
            add_owner({}, kind::DIRECTORY, root.start());
        }
        tree_visitor visitor;
        visitor.visit = [this](const name_path &path, const entry &found, bool) {
            files_ += found.is_directory() ? 0 : 1;
            if (found.start() != 0) {
                add_owner(path, found.type(), found.start());
            }
            return true;
        };
        visitor.fail = [this](const name_path &path, const std::string &why) {
            record_unreadable(path, why);
        };
        walk_tree(vol_, {}, root, visitor);
    }

    [[nodiscard]] std::vector<held_extent> extents() const {
        std::vector<held_extent> held;
        for (u32 number = 0; number < owners_.size(); number++) {
            for (const cluster_extent &part : owners_[number].extents) {
                held.push_back({part.first, part.count, number});
            }
        }
        std::sort(held.begin(), held.end(),
                  [](const held_extent &a, const held_extent &b) { return a.first < b.first; });
        return with_gaps_filled(held);
    }

    [[nodiscard]] u32 clusters() const {
        return last_ - core::FIRST_DATA_CLUSTER + 1;
    }
    [[nodiscard]] u64 files() const {
        return files_;
    }
    [[nodiscard]] std::vector<cluster_owner> &owners() {
        return owners_;
    }

private:
    void add_owner(const name_path &path, kind type, u32 start) {
        owners_.push_back({path, type, 0, {}, {}});
        follow_chain(start, &owners_.back());
    }

    void follow_chain(u32 cluster, cluster_owner *owner) {
        owner->damage = problem_with(cluster);
        while (owner->damage.empty()) {
            is_taken_[cluster] = true;
            owner->clusters++;
            append_cluster(&owner->extents, cluster);
            cluster = vol_.fat().get(cluster);
            if (vol_.on().is_end_of_chain(cluster)) {
                return;
            }
            owner->damage = problem_with(cluster);
        }
    }

    // Why a chain cannot continue in a cluster, or "".
    [[nodiscard]] std::string problem_with(u32 cluster) {
        if (cluster < core::FIRST_DATA_CLUSTER || cluster > last_) {
            return fmt::format("the chain links to cluster {:#x}, which does not exist", cluster);
        }
        if (is_taken_[cluster]) {
            return fmt::format("the chain links to cluster {}, which is already in use", cluster);
        }
        const holder state = state_of(vol_.on(), vol_.fat().get(cluster));
        return state == HOLDER_LOST ? ""
                                    : fmt::format("the chain links to cluster {}, which is {}",
                                                  cluster, state == HOLDER_BAD ? "bad" : "free");
    }

    // The walk reports an unreadable directory after visiting it.
    void record_unreadable(const name_path &path, const std::string &why) {
        if (owners_.empty() || owners_.back().path != path) {
            owners_.push_back({path, kind::DIRECTORY, 0, {}, {}});
        }
        if (owners_.back().damage.empty()) {
            owners_.back().damage = why;
        }
    }

    [[nodiscard]] std::vector<held_extent>
    with_gaps_filled(const std::vector<held_extent> &held) const {
        std::vector<held_extent> all;
        u32 next = core::FIRST_DATA_CLUSTER;
        for (const held_extent &part : held) {
            append_states(next, part.first, &all);
            all.push_back(part);
            next = part.first + part.count;
        }
        append_states(next, last_ + 1, &all);
        return all;
    }

    void append_states(u32 first, u32 end, std::vector<held_extent> *all) const {
        for (u32 cluster = first; cluster < end; cluster++) {
            const holder state = state_of(vol_.on(), vol_.fat().get(cluster));
            if (cluster != first && all->back().held_by == state) {
                all->back().count++;
            } else {
                all->push_back({cluster, 1, state});
            }
        }
    }

    volume &vol_;
    u32 last_;
    std::vector<bool> is_taken_; // by cluster: a path leads to it
    std::vector<cluster_owner> owners_;
    u64 files_ = 0;
};

// The numbers of the `count` owners with the greatest `size`, of those with `is_wanted`.
template <typename Wanted, typename Size>
std::vector<u32> greatest_owners(const std::vector<cluster_owner> &owners, std::size_t count,
                                 Wanted is_wanted, Size size) {
    std::vector<u32> numbers;
    for (u32 number = 0; number < owners.size(); number++) {
        if (is_wanted(owners[number])) {
            numbers.push_back(number);
        }
    }
    const auto end = numbers.begin() + static_cast<std::ptrdiff_t>(std::min(count, numbers.size()));
    std::partial_sort(numbers.begin(), end, numbers.end(), [&](u32 a, u32 b) {
        return std::pair(size(owners[b]), a) < std::pair(size(owners[a]), b);
    });
    numbers.erase(end, numbers.end());
    return numbers;
}

} // namespace

// ---- the map ----------------------------------------------------------------------------------

volume_map map_volume(volume &vol, page_origin from) {
    cluster_survey survey(vol);
    survey.visit_tree();
    if (survey.clusters() == 0) {
        throw error("cannot draw a map: the volume has no clusters");
    }
    volume_map map{};
    map.image = shown_bytes(split_host_path(vol.where().path()).name);
    map.fat_type = vol.on().at.width;
    map.cluster_bytes = vol.on().cluster_bytes();
    map.bytes = u64{vol.on().at.total_sectors} * vol.on().at.sector_size;
    map.areas = areas_of(vol, from);
    map.clusters = survey.clusters();
    map.files = survey.files();
    map.extents = survey.extents();
    map.owners = std::move(survey.owners());
    return map;
}

fragmentation volume_map::pieces() const {
    fragmentation result;
    for (const cluster_owner &owner : owners) {
        if (owner.clusters != 0) {
            result.chains++;
            result.steps += owner.clusters - 1;
            result.jumps += owner.extents.size() - 1;
            result.in_pieces += owner.is_in_pieces() ? 1 : 0;
        }
    }
    return result;
}

std::vector<u32> volume_map::largest_files(std::size_t count) const {
    return greatest_owners(
        owners, count,
        [](const cluster_owner &owner) {
            return owner.type != kind::DIRECTORY && owner.clusters != 0;
        },
        [](const cluster_owner &owner) { return owner.clusters; });
}

std::vector<u32> volume_map::most_pieces(std::size_t count) const {
    return greatest_owners(
        owners, count, [](const cluster_owner &owner) { return owner.is_in_pieces(); },
        [](const cluster_owner &owner) { return owner.extents.size(); });
}

// ---- cells ------------------------------------------------------------------------------------

bool map_cell::has_one_holder() const {
    return std::all_of(parts.begin(), parts.end(), [this](const held_extent &part) {
        return part.held_by == parts.front().held_by;
    });
}

std::vector<map_cell> cells_of(const volume_map &map, u32 max_cells) {
    const u32 size = (map.clusters + max_cells - 1) / max_cells;
    const u64 end = u64{core::FIRST_DATA_CLUSTER} + map.clusters;
    std::vector<map_cell> cells;
    for (u64 first = core::FIRST_DATA_CLUSTER; first < end; first += size) {
        const u64 count = std::min<u64>(size, end - first);
        cells.push_back({static_cast<u32>(first), static_cast<u32>(count), {}});
    }
    for (const held_extent &whole : map.extents) {
        for (held_extent rest = whole; rest.count != 0;) {
            map_cell &cell = cells[(rest.first - core::FIRST_DATA_CLUSTER) / size];
            const u32 part = std::min(rest.count, cell.first + cell.count - rest.first);
            cell.parts.push_back({rest.first, part, rest.held_by});
            rest.first += part;
            rest.count -= part;
        }
    }
    return cells;
}

// ---- classes ----------------------------------------------------------------------------------

map_classes::map_classes(const volume_map &map)
    : largest_(map.largest_files(FILES_WITH_CLASS)), class_of_owner_(map.owners.size()) {
    for (std::size_t number = 0; number < map.owners.size(); number++) {
        class_of_owner_[number] =
            map.owners[number].type == kind::DIRECTORY ? CLASS_DIRECTORIES : CLASS_OTHER_FILES;
    }
    for (u32 rank = 0; rank < largest_.size(); rank++) {
        class_of_owner_[largest_[rank]] = rank;
    }
    count(map);
}

void map_classes::count(const volume_map &map) {
    for (u32 number = 0; number < map.owners.size(); number++) {
        totals_[class_of(number)].owners += map.owners[number].clusters != 0 ? 1 : 0;
    }
    for (const held_extent &part : map.extents) {
        totals_[class_of(part.held_by)].clusters += part.count;
        totals_[class_of(part.held_by)].extents++;
    }
}

u32 map_classes::class_of(holder by) const {
    switch (by) {
    case HOLDER_FREE:
        return CLASS_FREE;
    case HOLDER_BAD:
        return CLASS_BAD;
    case HOLDER_LOST:
        return CLASS_LOST;
    default:
        return class_of_owner_[by];
    }
}

} // namespace qvol
