// The directories of the volume: claims the chain of each, reads it once, and adds its entries as
// nodes.

#include "qvol/check/chains.h"
#include "qvol/check/entry_names.h"
#include "qvol/check/plausible.h"
#include "qvol/check/removed.h"
#include "qvol/check/repair.h"
#include "qvol/check/slot_space.h"
#include "qvol/file_data.h"
#include "qvol/output.h"

#include <algorithm>
#include <cstring>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr std::size_t MAX_SHOWN_NAMES = 256; // of a path

// The required content of a dot entry.
struct dot {
    u32 slot;
    const u8 (&name)[core::SHORT_NAME.size];
    const char *text;
    u32 start;
};

class directory_check {
public:
    directory_check(survey *checked, u32 node) : checked_(checked), node_(node) {}

    // Returns the subdirectories, in the order of their names.
    std::vector<u32> run() {
        try {
            std::optional<slot_space> space = claim();
            if (space) {
                check_content(&*space);
            }
        } catch (const error &failure) {
            add_finding(found::UNREADABLE, start(), failure.what());
        }
        return subdirectories();
    }

private:
    [[nodiscard]] const entry &own_entry() const {
        return checked_->nodes[node_].dentry;
    }
    [[nodiscard]] bool is_root() const {
        return node_ == ROOT_NODE;
    }
    [[nodiscard]] u32 start() const {
        return is_root() ? checked_->on().at.root_cluster : own_entry().start();
    }
    // The required first cluster of "..".
    [[nodiscard]] u32 parent_link() const {
        const u32 parent = checked_->nodes[node_].parent;
        return parent == ROOT_NODE ? 0 : checked_->nodes[parent].dentry.start();
    }

    void add_finding(const finding_kind &kind, u32 cluster, std::string text,
                     std::string remedy = "", std::function<void(repair_plan *)> repair = {}) {
        checked_->add(
            {&kind, node_, cluster, std::move(text), std::move(remedy), std::move(repair)});
    }

    // ---- the chain ----

    std::optional<slot_space> claim() {
        if (is_root() && !checked_->on().is_wide()) {
            return slot_space::root_area(checked_->on());
        }
        if (start() == 0) {
            add_incomplete(checked_,
                           {&found::CHAIN_MISSING, node_, 0, "the directory has no cluster", ""},
                           {}, 0);
            return std::nullopt;
        }
        claimed_chain chain = claim_chain(checked_, node_, start());
        std::vector<u32> clusters = claimed_clusters(&checked_->table, start(), chain.count);
        clusters.erase(
            std::find_if_not(clusters.begin(), clusters.end(),
                             [this](u32 cluster) { return is_in_image(*checked_, cluster); }),
            clusters.end());
        const bool is_cut = chain.count > clusters.size();
        std::optional<slot_space> space;
        if (!clusters.empty()) {
            space.emplace(checked_->on(), clusters);
            const u32 held = clusters_of_slots(*space, static_cast<u32>(clusters.size()));
            if (held == 0) {
                reject(chain, clusters);
                return std::nullopt;
            }
            if (held < clusters.size()) {
                shorten_chain(checked_, &chain, clusters, held);
                clusters.resize(held);
                space.emplace(checked_->on(), clusters);
            }
        }
        check_whole_chain(checked_, node_, chain, 0);
        if (is_cut && chain.end != chain_end::OTHER) {
            add_finding(found::UNREADABLE, chain.past_image,
                        "cannot be read: past the end of the image");
        }
        return space;
    }

    // Number of clusters up to the first that holds other data, if no entry follows there.
    [[nodiscard]] u32 clusters_of_slots(const slot_space &space, u32 clusters) const {
        const u32 slots = checked_->on().cluster_bytes() / core::DENTRY_SIZE;
        const bool is_certain = is_root() || has_dots(space);
        u32 held = clusters;
        for (u32 left = std::min(clusters, space.capacity() / slots); left > 0; left--) {
            const slot_votes votes = vote_on_sectors(space, (left - 1) * slots, slots);
            if (votes.entries != 0 && votes.are_entries()) {
                break;
            }
            if (votes.others != 0) {
                held = left - 1;
            }
        }
        return is_certain ? std::max(held, 1U) : held;
    }

    [[nodiscard]] static bool has_dots(const slot_space &space) {
        const auto is_named = [&](u32 slot, const u8 *name) {
            const u8 *there = space.slot(slot);
            return std::equal(name, name + core::SHORT_NAME.size, there) &&
                   core::kind_of(there) == core::slot_kind::DIRECTORY;
        };
        return is_named(0, core::DOT_NAME) || is_named(1, core::DOT_DOT_NAME);
    }

    // Of the sector with most entries, if there is one that holds slots.
    [[nodiscard]] slot_votes vote_on_sectors(const slot_space &space, u32 first, u32 count) const {
        slot_votes sum;
        for (u32 slot = first; slot < first + count; slot += space.slots_per_sector()) {
            const slot_votes votes =
                vote_on(checked_->on(), space.slots(slot, space.slots_per_sector()));
            if (votes.entries != 0 && votes.are_entries()) {
                return votes;
            }
            sum.others += votes.others;
        }
        return sum;
    }

    // Other data is there: the entry was a file, or its first cluster is wrong.
    void reject(const claimed_chain &chain, const std::vector<u32> &clusters) {
        claimed_chain none = chain;
        shorten_chain(checked_, &none, clusters, 0);
        finding about{&found::NOT_DIRECTORY, node_, start(), "the cluster holds no directory", ""};
        about.is_disputable = true;
        const u32 size = own_entry().size();
        if (size != 0 && chain.end == chain_end::MARK &&
            chain.count == clusters_for(checked_->on(), size)) {
            about.remedy = "made a file, which has this size";
            about.moves_chains = true;
            about.repair = [location = checked_->nodes[node_].location](repair_plan *plan) {
                plan->set_attributes(location, core::ATTR_ARCHIVE);
            };
            checked_->add(std::move(about));
        } else {
            add_incomplete(checked_, std::move(about), none, 0);
        }
    }

    // ---- the slots ----

    void check_content(slot_space *slots) {
        ignore_other_data(slots);
        const slot_space &space = *slots;
        check_end(space);
        const directory_content content = content_of(space);
        if (!is_root()) {
            check_size();
            check_dots(space);
        }
        check_long_names(space, content);
        check_damaged_names(space, content);
        check_slots(space, content);
        check_labels(space, content);
        add_children(space, content);
        if (checked_->extent == repair_extent::ALL) {
            find_removed_entries(checked_, node_, space);
        }
        check_names(checked_, node_);
    }

    // Sectors that hold something else are treated as blank.
    void ignore_other_data(slot_space *space) {
        const u32 count = space->slots_per_sector();
        for (u32 first = 0; first < space->capacity(); first += count) {
            if (has_invalid_slot(*space, first, count) &&
                !vote_on(checked_->on(), space->slots(first, count)).are_entries()) {
                add_other_data(*space, {first, count});
                space->ignore(first, count);
            }
        }
    }

    static bool has_invalid_slot(const slot_space &space, u32 first, u32 count) {
        for (u32 slot = first; slot < first + count; slot++) {
            if (core::kind_of(space.slot(slot)) == core::slot_kind::INVALID) {
                return true;
            }
        }
        return false;
    }

    void add_other_data(const slot_space &space, const slot_span &slots) {
        add_slot_finding(found::NO_ENTRIES, space, slots,
                         fmt::format("slots {} to {} are no entries, but other data", slots.first,
                                     slots.first + slots.count - 1));
        checked_->findings.back().is_disputable = true;
    }

    void check_size() {
        if (own_entry().size() != 0) {
            add_finding(found::DIRECTORY_SIZE, start(),
                        fmt::format("directory size is {}, should be 0",
                                    counted(own_entry().size(), "byte", "bytes")),
                        "size set to 0",
                        [location = checked_->nodes[node_].location](repair_plan *plan) {
                            plan->clear_size(location);
                        });
        }
    }

    void check_end(const slot_space &space) {
        if (space.is_too_long()) {
            add_finding(
                found::TOO_LONG, start(),
                fmt::format("the directory has more than {} slots, the maximum", MAX_SLOTS));
        }
        if (space.slots_past_end() != 0) {
            add_finding(found::PAST_END, start(),
                        fmt::format("{} in use past the end of the directory (slot {})",
                                    counted(space.slots_past_end(), "slot", "slots"),
                                    space.count()));
            if (checked_->extent == repair_extent::ALL) {
                add_hidden(space);
            }
        }
    }

    void add_hidden(const slot_space &space) {
        hidden_slots hidden{checked_->findings.size() - 1, {}, {}};
        std::size_t zeros_needed = 0;
        for (u32 slot = space.count(); slot < space.capacity(); slot++) {
            const u8 *there = space.slot(slot);
            if (there[0] == core::NAME_UNUSED) {
                hidden.zeros.push_back(space.location(slot));
                continue;
            }
            zeros_needed = hidden.zeros.size();
            const std::optional<entry> found = entry_at(space, slot);
            if (found && !found->is_dot() && found->type() != kind::LABEL && found->start() != 0) {
                hidden.claims.push_back(
                    {found->start(),
                     found->is_directory() ? 0 : clusters_for(checked_->on(), found->size())});
            }
        }
        hidden.zeros.resize(zeros_needed);
        if (!hidden.claims.empty()) {
            checked_->hidden.push_back(std::move(hidden));
        }
    }

    // What is removed may be the name of a lost directory.
    void check_long_names(const slot_space &space, const directory_content &content) {
        for (const slot_span &slots : content.orphans) {
            add_slot_finding(found::ORPHAN_SLOTS, space, slots,
                             fmt::format("{} without an entry, starting at slot {}",
                                         counted(slots.count, "long-name slot", "long-name slots"),
                                         slots.first));
            checked_->findings.back().waits = true;
        }
        for (const slot_span &slots : content.mismatched) {
            add_slot_finding(
                found::CHECKSUM, space, slots,
                fmt::format("checksum of the long name in slot {} does not match the entry "
                            "after it",
                            slots.first));
            checked_->findings.back().waits = true;
        }
    }

    // The ordinals and the checksum follow from the slots and the short entry.
    void check_damaged_names(const slot_space &space, const directory_content &content) {
        for (const slot_span &name : content.damaged) {
            add_finding(found::LONG_NAME, space.cluster_of(name.first),
                        fmt::format("the long name in slot {} does not belong to the entry after "
                                    "it but for one field",
                                    name.first),
                        "field corrected", number_slots(space, name));
            checked_->findings.back().is_disputable = true;
        }
    }

    static std::function<void(repair_plan *)> number_slots(const slot_space &space,
                                                           const slot_span &name) {
        std::vector<core::slot_place> locations;
        for (u32 number = 1; number <= name.count; number++) {
            locations.push_back(space.location(name.first + name.count - number));
        }
        const u8 checksum = core::checksum_of(space.slot(name.first + name.count));
        return [locations, checksum](repair_plan *plan) {
            for (u32 number = 1; number <= locations.size(); number++) {
                const u32 mark = number == locations.size() ? core::SLOT_LAST : 0;
                plan->number_slot(locations[number - 1], number | mark, checksum);
            }
        };
    }

    void check_slots(const slot_space &space, const directory_content &content) {
        for (const u32 slot : content.with_cluster) {
            add_finding(found::SLOT_CLUSTER, space.cluster_of(slot),
                        fmt::format("first cluster of long-name slot {} is {}, should be 0", slot,
                                    core::load(space.slot(slot), core::SLOT_START)),
                        "set to 0", [location = space.location(slot)](repair_plan *plan) {
                            plan->clear_slot_start(location);
                        });
        }
        for (const u32 slot : content.with_reserved_bits) {
            add_finding(
                found::SLOT_RESERVED, space.cluster_of(slot),
                fmt::format("reserved bits of long-name slot {} are set, should be 0", slot),
                "set to 0", [location = space.location(slot)](repair_plan *plan) {
                    plan->clear_reserved_bits(location);
                });
        }
        for (const u32 slot : content.invalid) {
            add_finding(found::NO_ENTRY, space.cluster_of(slot),
                        fmt::format("slot {} is neither a file, a directory nor a label", slot),
                        "slot removed", remove_slot(space, slot));
            checked_->findings.back().is_disputable = true;
        }
    }

    void add_slot_finding(const finding_kind &kind, const slot_space &space, const slot_span &span,
                          std::string text) {
        std::vector<core::slot_place> locations;
        for (u32 i = 0; i < span.count; i++) {
            locations.push_back(space.location(span.first + i));
        }
        add_finding(kind, space.cluster_of(span.first), std::move(text),
                    span.count == 1 ? "slot removed" : "slots removed",
                    [locations](repair_plan *plan) {
                        for (const core::slot_place &location : locations) {
                            plan->remove_slot(location);
                        }
                    });
    }

    static std::function<void(repair_plan *)> remove_slot(const slot_space &space, u32 slot) {
        return
            [location = space.location(slot)](repair_plan *plan) { plan->remove_slot(location); };
    }

    // The blank label entry of the formatter is not counted as a label.
    void check_labels(const slot_space &space, const directory_content &content) {
        u32 labels = 0;
        for (const entry &label : content.entries) {
            if (label.type() != kind::LABEL) {
                continue;
            }
            if (!is_root() || label.start() != 0 || label.size() != 0) {
                add_misplaced_label(space, label);
                continue;
            }
            if (!checked_->root_label) {
                checked_->root_label = label.alias();
            }
            if (!label.name.empty() && ++labels >= 2) {
                add_finding(found::LABELS, 0,
                            fmt::format("slot {} holds a second volume label", label.slot),
                            "slot removed", remove_slot(space, label.slot));
                checked_->findings.back().is_disputable = true;
            }
        }
    }

    // One with data was a file.
    void add_misplaced_label(const slot_space &space, const entry &label) {
        const bool has_data = label.start() != 0 && label.size() != 0;
        add_finding(found::LABEL_LOCATION, label.start(),
                    fmt::format("slot {} holds a volume label {}", label.slot,
                                is_root() ? "with data" : "outside the root directory"),
                    has_data ? "made a file" : "slot removed", remove_slot(space, label.slot));
        finding &about = checked_->findings.back();
        about.is_disputable = true;
        if (has_data) {
            about.moves_chains = true;
            about.repair = [location = space.location(label.slot)](repair_plan *plan) {
                plan->set_attributes(location, core::ATTR_ARCHIVE);
            };
        }
    }

    // ---- dot entries ----

    void check_dots(const slot_space &space) {
        const dot dots[] = {{0, core::DOT_NAME, "\".\"", start()},
                            {1, core::DOT_DOT_NAME, "\"..\"", parent_link()}};
        const std::size_t findings = checked_->findings.size();
        for (const dot &wanted : dots) {
            check_dot(space, wanted);
        }
        checked_->nodes[node_].has_own_dots = checked_->findings.size() == findings;
    }

    void check_dot(const slot_space &space, const dot &wanted) {
        const std::optional<entry> there = entry_at(space, wanted.slot);
        if (there && there->is_directory() && has_name(*there, wanted)) {
            is_dot_[wanted.slot] = true;
            check_dot_fields(space, wanted, *there);
            return;
        }
        is_dot_[wanted.slot] = may_be_dot(space, there, wanted);
        checked_->nodes[node_].is_doubtful |= !is_dot_[wanted.slot];
        add_finding(found::DOT_MISSING, start(),
                    fmt::format("{} is missing from slot {}", wanted.text, wanted.slot),
                    "entry written", is_dot_[wanted.slot] ? rewrite_dot(space, wanted) : nullptr);
        if (is_dot_[wanted.slot] && space.slots_past_end() != 0) {
            finding &about = checked_->findings.back();
            about.is_disputable = true;
            about.moves_chains = true;
            about.obstacle = "slots past the end could appear";
        }
    }

    void check_dot_fields(const slot_space &space, const dot &wanted, const entry &there) {
        if (there.start() != wanted.start) {
            add_finding(found::DOT_CLUSTER, start(),
                        fmt::format("first cluster of {} is {}, should be {}", wanted.text,
                                    there.start(), wanted.start),
                        "corrected", rewrite_dot(space, wanted));
        }
        if (there.size() != 0) {
            add_finding(found::DIRECTORY_SIZE, start(),
                        fmt::format("size of {} is {}, should be 0", wanted.text,
                                    counted(there.size(), "byte", "bytes")),
                        "size set to 0", rewrite_dot(space, wanted));
        }
    }

    static bool has_name(const entry &found, const dot &wanted) {
        return std::memcmp(found.raw.data(), wanted.name, sizeof wanted.name) == 0;
    }

    static std::optional<entry> entry_at(const slot_space &space, u32 slot) {
        if (!is_entry(space.slot(slot))) {
            return std::nullopt;
        }
        return entry_of_slot(space.slot(slot), slot, {}, space.is_wide());
    }

    // Whether a dot entry may be written to the slot: the slot is free, blank, or holds a damaged
    // dot entry.
    static bool may_be_dot(const slot_space &space, const std::optional<entry> &found,
                           const dot &wanted) {
        if (found) {
            return has_name(*found, wanted) ||
                   (found->is_directory() && found->start() == wanted.start);
        }
        const u8 *slot = space.slot(wanted.slot);
        return core::is_free_slot(slot) &&
               (wanted.slot < space.count() || is_blank(slot) ||
                std::equal(slot + 1, slot + core::SHORT_NAME.size, wanted.name + 1));
    }

    static bool is_blank(const u8 *slot) {
        return std::all_of(slot, slot + core::DENTRY_SIZE, [](u8 byte) { return byte == 0; });
    }

    // The time stamps of an existing entry are not changed.
    std::function<void(repair_plan *)> rewrite_dot(const slot_space &space,
                                                   const dot &wanted) const {
        entry made;
        const std::optional<entry> found = entry_at(space, wanted.slot);
        made.raw = found ? found->raw : own_entry().raw;
        std::copy_n(wanted.name, sizeof wanted.name, made.raw.begin());
        core::store(made.raw.data(), core::SHORT_ATTR, core::ATTR_DIRECTORY);
        made.set_start(wanted.start);
        made.set_size(0);
        return [location = space.location(wanted.slot), raw = made.raw](repair_plan *plan) {
            plan->write_slot(location, raw);
        };
    }

    // ---- entries ----

    void add_children(const slot_space &space, const directory_content &content) {
        std::vector<entry> children;
        for (const entry &child : content.entries) {
            const bool is_dot = child.slot < is_dot_.size() && is_dot_.at(child.slot);
            if (is_dot || child.type() == kind::LABEL) {
                continue;
            }
            if (child.is_dot()) {
                add_finding(found::DOT_LOCATION, child.start(),
                            fmt::format("misplaced dot entry in slot {}", child.slot),
                            "slot removed", remove_slot(space, child.slot));
                checked_->findings.back().is_disputable = true;
            } else {
                children.push_back(child);
            }
        }
        std::sort(children.begin(), children.end(), [](const entry &a, const entry &b) {
            return std::tie(a.name, a.slot) < std::tie(b.name, b.slot);
        });
        checked_->nodes[node_].first_child = static_cast<u32>(checked_->nodes.size());
        checked_->nodes[node_].children = static_cast<u32>(children.size());
        for (const entry &child : children) {
            checked_->nodes.push_back({node_, child, space.location(child.slot)});
        }
    }

    [[nodiscard]] std::vector<u32> subdirectories() const {
        std::vector<u32> found;
        const tree_node &here = checked_->nodes[node_];
        for (u32 node = here.first_child; node < here.first_child + here.children; node++) {
            if (checked_->nodes[node].dentry.is_directory()) {
                found.push_back(node);
            }
        }
        return found;
    }

    survey *checked_;
    u32 node_;
    std::array<bool, core::DOT_ENTRIES> is_dot_{}; // slots that are treated as dot entries
};

} // namespace

void check_directories(survey *checked) {
    std::vector<u32> pending = {ROOT_NODE};
    while (!pending.empty()) {
        const u32 node = pending.back();
        pending.pop_back();
        const std::vector<u32> below = directory_check(checked, node).run();
        pending.insert(pending.end(), below.rbegin(), below.rend());
    }
}

name_path path_of(const survey &checked, u32 node) {
    name_path path;
    u32 at = node;
    for (; at != ROOT_NODE && path.size() < MAX_SHOWN_NAMES; at = checked.nodes[at].parent) {
        path.push_back(checked.nodes[at].dentry.name);
    }
    if (at != ROOT_NODE) {
        path.emplace_back(u"...");
    }
    std::reverse(path.begin(), path.end());
    return path;
}

std::string shown_path(const survey &checked, u32 node) {
    return shown_path(checked.vol.names(), path_of(checked, node));
}

} // namespace qvol
