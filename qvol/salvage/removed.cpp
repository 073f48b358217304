#include "qvol/salvage/removed.h"

#include "qvol/file_data.h"
#include "qvol/salvage/content.h"
#include "qvol/sectors.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr u32 MAX_DEPTH = 64; // of removed directories below each other

const char *word_of(confidence level) {
    switch (level) {
    case confidence::WHOLE:
        return "whole";
    case confidence::PIECED:
        return "pieced";
    case confidence::CONTESTED:
        return "contested";
    default:
        return "gone";
    }
}

std::string shown_extents(const std::vector<cluster_extent> &extents) {
    constexpr std::size_t MAX_SHOWN = 4;
    std::string text;
    for (std::size_t i = 0; i < std::min(extents.size(), MAX_SHOWN); i++) {
        const auto &[first, count] = extents[i];
        text += i == 0 ? "" : ", ";
        text += count == 1 ? std::to_string(first) : fmt::format("{}-{}", first, first + count - 1);
    }
    return text + (extents.size() > MAX_SHOWN ? ", ..." : "");
}

std::vector<u32> clusters_of(const std::vector<cluster_extent> &extents) {
    std::vector<u32> clusters;
    for (const auto &[first, count] : extents) {
        for (u32 i = 0; i < count; i++) {
            clusters.push_back(first + i);
        }
    }
    return clusters;
}

// The directory below `top` with this path, which is made if it does not exist.
host_directory directory_below(const host_directory &top, const std::string &path) {
    host_directory here = top.enter(".");
    for (std::size_t at = 0; at < path.size();) {
        const std::size_t end = path.find('/', at);
        here = here.enter(path.substr(at, end - at));
        at = end + 1;
    }
    return here;
}

} // namespace

removed_salvage::removed_salvage(const salvage_source &from, const tree_salvage &tree,
                                 salvage_report *report)
    : vol_(from.vol), before_(from.vol.on()), tree_(tree), report_(*report),
      clusters_left_(from.vol.on().at.clusters) {
    before_.device = &from.original;
}

void removed_salvage::copy(const host_directory &destination) {
    find_free();
    search_tree();
    search_directories();
    make_claims();
    settle_claims(free_, &claims_);
    for (std::size_t i = 0; i < directories_.size(); i++) {
        copy_directory(i, destination);
    }
}

// ---- free clusters ----

// What the repair has allocated for its own directories was free.
void removed_salvage::find_free() {
    std::set<u32> made;
    for (const u32 start : tree_.made_by_repair()) {
        const std::vector<u32> clusters = directory(vol_.fat(), start).clusters();
        made.insert(clusters.begin(), clusters.end());
    }
    u32 next = core::FIRST_DATA_CLUSTER;
    const auto end_at = [&](u32 used) {
        if (used > next) {
            free_.push_back({next, used - next});
        }
        next = used + 1;
    };
    vol_.fat().visit_used([&](u32 cluster, u32) {
        if (!made.contains(cluster)) {
            end_at(cluster);
        }
    });
    end_at(vol_.fat().last_cluster() + 1);
}

bool removed_salvage::is_free(u32 cluster) const {
    const auto after = std::upper_bound(
        free_.begin(), free_.end(), cluster,
        [](u32 number, const cluster_extent &extent) { return number < extent.first; });
    return after != free_.begin() && cluster - std::prev(after)->first < std::prev(after)->count;
}

// ---- the search ----

void removed_salvage::search_tree() {
    for (const copied_directory &one : tree_.directories()) {
        directories_.push_back({one.path, DELETED_DIRECTORY + ("/" + one.host_path), 0,
                                removed_entries(read_slots(one.start), vol_.on().is_wide())});
    }
}

// Adds the removed directories to the list while it is walked.
void removed_salvage::search_directories() {
    for (std::size_t i = 0; i < directories_.size(); i++) {
        const std::vector<removed_entry> entries = std::move(directories_[i].entries);
        directories_[i].files = {files_.size(), entries.size()};
        for (const removed_entry &found : entries) {
            search_entry(i, found);
        }
    }
}

void removed_salvage::search_entry(std::size_t directory, const removed_entry &found) {
    removed_file file = {directory, found, clusters_for(vol_.on(), found.dentry.size()), NO_CLAIM,
                         0};
    if (found.dentry.is_directory()) {
        std::vector<u8> slots;
        file.clusters = std::max(read_removed_slots(found.dentry.start(), &slots), 1U);
        if (!slots.empty() && directories_[directory].depth < MAX_DEPTH) {
            file.child = directories_.size();
            std::vector<removed_entry> below = remaining_entries(slots, vol_.on().is_wide());
            std::vector<removed_entry> removed = removed_entries(slots, vol_.on().is_wide());
            std::move(removed.begin(), removed.end(), std::back_inserter(below));
            directories_.push_back(
                {path_of(file), "", directories_[directory].depth + 1, std::move(below)});
        }
    }
    files_.push_back(std::move(file));
}

std::vector<u8> removed_salvage::read_slots(u32 start) {
    std::vector<u8> slots;
    const auto append = [&slots](const std::vector<u8> &bytes) {
        slots.insert(slots.end(), bytes.begin(), bytes.end());
    };
    try {
        const directory dir(vol_.fat(), start);
        if (dir.clusters().empty()) {
            append(read_extent(before_, before_.at.root_start,
                               before_.at.data_start - before_.at.root_start));
        }
        for (const u32 cluster : dir.clusters()) {
            append(read_cluster(cluster));
        }
    } catch (const error &) {
        // the slots before it count
    }
    return slots;
}

std::vector<u8> removed_salvage::read_cluster(u32 cluster) const {
    return read_extent(before_, before_.sector_of(cluster), before_.at.sectors_per_cluster);
}

// Returns the number of clusters. The first one begins with a dot entry that leads to it; the
// others follow it, are free, and contain slots.
u32 removed_salvage::read_removed_slots(u32 start, std::vector<u8> *slots) {
    u32 count = 0;
    try {
        for (bool ends = false; !ends && is_free(start + count); count++) {
            const std::vector<u8> bytes = read_cluster(start + count);
            const bool is_directory =
                count != 0 ||
                (std::equal(std::begin(core::DOT_NAME), std::end(core::DOT_NAME), bytes.begin()) &&
                 (core::start_cluster(bytes.data()) & vol_.on().value_mask()) == start);
            if (!is_directory || !are_slots(bytes, &ends) ||
                !searched_clusters_.insert(start + count).second) {
                break;
            }
            slots->insert(slots->end(), bytes.begin(), bytes.end());
        }
    } catch (const error &) {
        // the clusters before it count
    }
    return count;
}

void removed_salvage::make_claims() {
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < files_.size(); i++) {
        if (files_[i].clusters != 0) {
            order.push_back(i);
        }
    }
    const auto key = [this](std::size_t i) {
        return std::pair(files_[i].found.dentry.start(), files_[i].clusters);
    };
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return key(a) < key(b); });
    for (const std::size_t i : order) {
        const auto [start, count] = key(i);
        if (claims_.empty() || claims_.back().start != start || claims_.back().count != count) {
            claims_.push_back({start, count});
            claimants_.push_back(i);
        }
        files_[i].claim = claims_.size() - 1;
    }
}

// ---- the copy ----

confidence removed_salvage::level_of(const removed_file &file) const {
    if (file.found.dentry.is_directory() && file.child == 0) {
        return confidence::GONE;
    }
    return file.claim == NO_CLAIM ? confidence::WHOLE : claims_[file.claim].level;
}

void removed_salvage::copy_directory(std::size_t index, const host_directory &destination) {
    const auto [first, count] = directories_[index].files;
    const std::span<const removed_file> files = std::span(files_).subspan(first, count);
    const bool has_content =
        std::any_of(files.begin(), files.end(), [this](const removed_file &file) {
            return level_of(file) != confidence::GONE;
        });
    const std::string &path = directories_[index].host_path;
    std::optional<host_directory> into;
    if (has_content && !path.empty()) {
        into.emplace(directory_below(destination, path));
    }
    safe_names names(vol_.names());
    for (const removed_file &file : files) {
        salvaged_entry result = describe(file);
        if (level_of(file) == confidence::GONE) {
            result.reasons.push_back(reason_gone(file));
        } else if (!into) {
            result.fail("its directory cannot be made");
        } else {
            copy_file(file, *into, &names, &result);
        }
        report_.entries.push_back(std::move(result));
    }
}

salvaged_entry removed_salvage::describe(const removed_file &file) const {
    salvaged_entry result;
    const name_path path = path_of(file);
    result.type = file.found.dentry.type();
    result.shown_path = shown_path(vol_.names(), path);
    result.json_path = json_path(path);
    result.state = certainty::DELETED;
    result.confidence = word_of(level_of(file));
    if (file.found.is_first_lost) {
        result.reasons.emplace_back("the first character of its name is lost");
    }
    if (file.found.is_end_unknown) {
        result.reasons.emplace_back("the end of its name may be lost");
    }
    return result;
}

void removed_salvage::copy_file(const removed_file &file, const host_directory &into,
                                safe_names *names, salvaged_entry *result) {
    const entry &found = file.found.dentry;
    const std::string name = names->choose(found.name, into);
    result->host_path = directories_[file.directory].host_path + name;
    result->is_renamed = name != vol_.names().to_host(found.name);
    result->reasons.push_back(basis_of(file));
    try {
        if (found.is_directory()) {
            (void)into.enter(name);
            directories_[file.child].host_path = result->host_path + '/';
        } else {
            copy_content_of(file, into, name, result);
        }
    } catch (const error &why) {
        result->fail(why.what());
    }
}

void removed_salvage::copy_content_of(const removed_file &file, const host_directory &into,
                                      const std::string &name, salvaged_entry *result) {
    const entry &found = file.found.dentry;
    if (file.clusters > clusters_left_) {
        throw error("removed files share clusters and need more space than the volume has");
    }
    clusters_left_ -= file.clusters;
    const std::vector<u32> clusters =
        file.claim == NO_CLAIM ? std::vector<u32>() : clusters_of(claims_[file.claim].extents);
    if (found.type() == kind::LINK) {
        copy_link(clusters, found, into, name);
        return;
    }
    u64 unreadable = 0;
    into.make_file(name, false, moment_of(found.modified()), [&](const write_piece &write) {
        unreadable = copy_content(before_, clusters, found.size(), write);
    });
    result->size = found.size();
    if (unreadable != 0) {
        result->reasons.push_back(unreadable_text(unreadable));
    }
}

void removed_salvage::copy_link(const std::vector<u32> &clusters, const entry &found,
                                const host_directory &into, const std::string &name) const {
    std::string target;
    (void)copy_content(
        before_, clusters, std::min<u64>(found.size(), MAX_TARGET_BYTES),
        [&target](std::span<const u8> bytes) { target.append(bytes.begin(), bytes.end()); });
    if (target.empty() || target.find('\0') != std::string::npos) {
        throw error("the link target cannot be created on this system");
    }
    into.make_link(name, false, moment_of(found.modified()), target);
}

// ---- the report ----

name_path removed_salvage::path_of(const removed_file &file) const {
    name_path path = directories_[file.directory].path;
    path.push_back(file.found.dentry.name);
    return path;
}

// What the content of a copied file rests on.
std::string removed_salvage::basis_of(const removed_file &file) const {
    if (file.claim == NO_CLAIM) {
        return "it was empty";
    }
    const cluster_claim &claim = claims_[file.claim];
    std::string text =
        (claim.count == 1 ? "free cluster " : "free clusters ") + shown_extents(claim.extents);
    if (claim.extents.size() > 1) {
        text += ", in the order in which clusters are allocated";
    }
    if (claim.rival != NO_CLAIM) {
        const name_path rival = path_of(files_[claimants_[claim.rival]]);
        text += ", of which " + shown_path(vol_.names(), rival) + " may have had some";
    }
    return text;
}

std::string removed_salvage::reason_gone(const removed_file &file) const {
    const u32 start = file.found.dentry.start();
    if (!vol_.on().is_data_cluster(start)) {
        return "its first cluster is not known";
    }
    const salvaged_entry *owner = tree_.owner_of(start);
    if (owner != nullptr) {
        return fmt::format("its first cluster, {}, belongs to {}", start, owner->title());
    }
    if (!is_free(start)) {
        return fmt::format("its first cluster, {}, is in use", start);
    }
    if (file.found.dentry.is_directory()) {
        return fmt::format("its first cluster, {}, has other content", start);
    }
    return claims_[file.claim].is_examined
               ? fmt::format("fewer free clusters follow {} than it needs", start)
               : "removed files need many times the space of the volume";
}

} // namespace qvol
