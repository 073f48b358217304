// The directories of the volume: each is claimed, read once, and its entries become nodes.

#include "qvol/check/chains.h"
#include "qvol/check/names.h"
#include "qvol/check/repair.h"
#include "qvol/check/slot_space.h"
#include "qvol/output.h"

#include <algorithm>
#include <cstring>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr std::size_t MAX_SHOWN_NAMES = 256; // of a path

// What a dot entry has to be.
struct dot {
    u32 slot;
    const u8 (&name)[fat::SHORT_NAME.size];
    const char *text;
    u32 start;
};

class directory_check {
public:
    directory_check(survey *in, u32 node) : in_(in), node_(node) {}

    // Returns the sub-directories, in the order of their names.
    std::vector<u32> run() {
        try {
            const std::optional<slot_space> space = claim();
            if (space) {
                check_content(*space);
            }
        } catch (const error &failure) {
            tell(found::UNREADABLE, start(), failure.what());
        }
        return sub_directories();
    }

private:
    [[nodiscard]] const entry &of() const {
        return in_->nodes[node_].of;
    }
    [[nodiscard]] bool is_root() const {
        return node_ == ROOT_NODE;
    }
    [[nodiscard]] u32 start() const {
        return is_root() ? sv->root_clus : of().start();
    }
    // What ".." has to hold.
    [[nodiscard]] u32 parent_link() const {
        const u32 parent = in_->nodes[node_].parent;
        return parent == ROOT_NODE ? 0 : in_->nodes[parent].of.start();
    }

    void tell(const finding_kind &as, u32 cluster, std::string text, std::string remedy = "",
              std::function<void(repair *)> mend = {}) {
        in_->add({&as, node_, cluster, std::move(text), std::move(remedy), std::move(mend)});
    }

    // ---- the chain ----

    std::optional<slot_space> claim() {
        if (is_root() && sv->fat_type == 16) {
            return slot_space::root_area();
        }
        if (start() == 0) {
            tell(found::CHAIN_MISSING, 0, "the directory has no cluster");
            return std::nullopt;
        }
        const claimed_chain chain = claim_chain(in_, node_, start());
        check_whole_chain(in_, node_, chain);
        std::vector<u32> clusters = claimed_clusters(&in_->table, start(), chain.count);
        clusters.erase(std::find_if_not(clusters.begin(), clusters.end(), is_in_image),
                       clusters.end());
        if (chain.count > clusters.size()) {
            tell(found::UNREADABLE, chain.behind, "what lies there cannot be read");
        }
        return clusters.empty() ? std::nullopt : std::optional<slot_space>(std::move(clusters));
    }

    // ---- the slots ----

    void check_content(const slot_space &space) {
        check_end(space);
        const directory_content content = content_of(space);
        if (!is_root()) {
            check_size();
            check_dots(space);
        }
        check_long_names(space, content);
        check_slots(space, content);
        check_labels(content);
        add_children(space, content);
        check_names(in_, node_);
    }

    void check_size() {
        if (of().size() != 0) {
            tell(found::DIRECTORY_SIZE, start(),
                 fmt::format("the directory has a size, {} bytes", of().size()),
                 "the size was set to 0",
                 [place = in_->nodes[node_].place](repair *plan) { plan->clear_size(place); });
        }
    }

    void check_end(const slot_space &space) {
        if (space.is_too_long()) {
            tell(found::TOO_LONG, start(),
                 fmt::format("the directory has more than {} slots", MAX_SLOTS));
        }
        if (space.remains() != 0) {
            tell(found::PAST_END, start(),
                 fmt::format("{} in use behind the end of the directory, slot {}",
                             counted(space.remains(), "slot", "slots"), space.count()));
        }
    }

    void check_long_names(const slot_space &space, const directory_content &content) {
        for (const slot_run &slots : content.orphans) {
            tell_slots(found::ORPHAN_SLOTS, space, slots,
                       fmt::format("{} without an entry from slot {} on",
                                   counted(slots.count, "long-name slot", "long-name slots"),
                                   slots.first));
        }
        for (const slot_run &slots : content.misfits) {
            tell_slots(found::CHECKSUM, space, slots,
                       fmt::format("the long name in slot {} has another checksum than the entry "
                                   "behind it",
                                   slots.first));
        }
    }

    void check_slots(const slot_space &space, const directory_content &content) {
        for (const u32 slot : content.started) {
            tell(found::SLOT_CLUSTER, space.cluster_of(slot),
                 fmt::format("the long-name slot {} has a first cluster", slot),
                 "it was taken away",
                 [place = space.location(slot)](repair *plan) { plan->clear_slot_start(place); });
        }
        for (const u32 slot : content.reserved) {
            tell(found::SLOT_RESERVED, space.cluster_of(slot),
                 fmt::format("reserved bits of the long-name slot {} are not 0", slot),
                 "they were set to 0",
                 [place = space.location(slot)](repair *plan) { plan->clear_slot_reserve(place); });
        }
        for (const u32 slot : content.no_entries) {
            tell(found::NO_ENTRY, space.cluster_of(slot),
                 fmt::format("slot {} is neither a file nor a directory nor a label", slot));
        }
    }

    void tell_slots(const finding_kind &as, const slot_space &space, const slot_run &run,
                    std::string text) {
        std::vector<fat::dentry_location> places;
        for (u32 i = 0; i < run.count; i++) {
            places.push_back(space.location(run.first + i));
        }
        tell(as, space.cluster_of(run.first), std::move(text),
             run.count == 1 ? "the slot was removed" : "the slots were removed",
             [places](repair *plan) {
                 for (const fat::dentry_location &place : places) {
                     plan->remove_slot(place);
                 }
             });
    }

    // A blank label, as the formatter leaves it, is none.
    void check_labels(const directory_content &content) {
        u32 labels = 0;
        for (const entry &label : content.entries) {
            if (label.type() != kind::LABEL) {
                continue;
            }
            if (!is_root() || label.start() != 0 || label.size() != 0) {
                tell(found::LABEL_LOCATION, label.start(),
                     fmt::format("slot {} holds a volume label {}", label.slot,
                                 is_root() ? "with data" : "outside the root"));
            } else if (!label.name.empty() && ++labels == 2) {
                tell(found::LABELS, 0,
                     fmt::format("slot {} holds another volume label", label.slot));
            }
        }
    }

    // ---- dot entries ----

    void check_dots(const slot_space &space) {
        const dot dots[] = {{0, fat::DOT_NAME, "\".\"", start()},
                            {1, fat::DOT_DOT_NAME, "\"..\"", parent_link()}};
        for (const dot &wanted : dots) {
            check_dot(space, wanted);
        }
    }

    void check_dot(const slot_space &space, const dot &wanted) {
        const std::optional<entry> there = entry_at(space, wanted.slot);
        if (there && there->is_directory() && has_name(*there, wanted)) {
            is_dot_[wanted.slot] = true;
            check_dot_fields(space, wanted, *there);
            return;
        }
        is_dot_[wanted.slot] = may_be_dot(space, there, wanted);
        in_->nodes[node_].is_doubtful |= !is_dot_[wanted.slot];
        tell(found::DOT_MISSING, start(),
             fmt::format("slot {} does not hold {}", wanted.slot, wanted.text), "it was put there",
             is_dot_[wanted.slot] ? rewriting(space, wanted) : nullptr);
    }

    void check_dot_fields(const slot_space &space, const dot &wanted, const entry &there) {
        if (there.start() != wanted.start) {
            tell(found::DOT_CLUSTER, start(),
                 fmt::format("{} leads to cluster {} and not to {}", wanted.text, there.start(),
                             wanted.start),
                 "it was set right", rewriting(space, wanted));
        }
        if (there.size() != 0) {
            tell(found::DIRECTORY_SIZE, start(), fmt::format("{} has a size", wanted.text),
                 "it was set right", rewriting(space, wanted));
        }
    }

    static bool has_name(const entry &found, const dot &wanted) {
        return std::memcmp(found.raw.data(), wanted.name, sizeof wanted.name) == 0;
    }

    static std::optional<entry> entry_at(const slot_space &space, u32 slot) {
        if (slot >= space.count() || is_removed(space.slot(slot)) ||
            is_long_name_slot(space.slot(slot)) || !is_entry(space.slot(slot))) {
            return std::nullopt;
        }
        return entry_of_slot(space.slot(slot), slot, {});
    }

    // Whether a dot entry may be written there: over free space, or over what is left of it.
    static bool may_be_dot(const slot_space &space, const std::optional<entry> &found,
                           const dot &wanted) {
        if (found) {
            return has_name(*found, wanted) ||
                   (found->is_directory() && found->start() == wanted.start);
        }
        return wanted.slot < space.count() ? is_removed(space.slot(wanted.slot))
                                           : space.is_blank_from(wanted.slot);
    }

    // An entry that is there keeps its stamps.
    std::function<void(repair *)> rewriting(const slot_space &space, const dot &wanted) const {
        entry made;
        const std::optional<entry> found = entry_at(space, wanted.slot);
        made.raw = found ? found->raw : of().raw;
        std::copy_n(wanted.name, sizeof wanted.name, made.raw.begin());
        fat::store(made.raw.data(), fat::SHORT_ATTR, fat::ATTR_DIRECTORY);
        made.set_start(wanted.start);
        made.set_size(0);
        return [place = space.location(wanted.slot), raw = made.raw](repair *plan) {
            plan->write_slot(place, raw);
        };
    }

    // ---- entries ----

    void add_children(const slot_space &space, const directory_content &content) {
        std::vector<entry> children;
        for (const entry &child : content.entries) {
            const bool is_dot = child.slot < is_dot_.size() && is_dot_.at(child.slot);
            if (!is_dot && child.type() != kind::LABEL && !is_stray_dot(child)) {
                children.push_back(child);
            }
        }
        std::sort(children.begin(), children.end(), [](const entry &a, const entry &b) {
            return std::tie(a.name, a.slot) < std::tie(b.name, b.slot);
        });
        in_->nodes[node_].first_child = static_cast<u32>(in_->nodes.size());
        in_->nodes[node_].children = static_cast<u32>(children.size());
        for (const entry &child : children) {
            in_->nodes.push_back({node_, child, space.location(child.slot)});
        }
    }

    bool is_stray_dot(const entry &child) {
        if (child.is_dot()) {
            tell(found::DOT_LOCATION, child.start(),
                 fmt::format("slot {} holds a dot entry", child.slot));
        }
        return child.is_dot();
    }

    [[nodiscard]] std::vector<u32> sub_directories() const {
        std::vector<u32> found;
        const tree_node &here = in_->nodes[node_];
        for (u32 node = here.first_child; node < here.first_child + here.children; node++) {
            if (in_->nodes[node].of.is_directory()) {
                found.push_back(node);
            }
        }
        return found;
    }

    survey *in_;
    u32 node_;
    std::array<bool, fat::DOT_ENTRIES> is_dot_{}; // slots that are taken for dot entries
};

} // namespace

void check_directories(survey *in) {
    std::vector<u32> waiting = {ROOT_NODE};
    while (!waiting.empty()) {
        const u32 node = waiting.back();
        waiting.pop_back();
        const std::vector<u32> below = directory_check(in, node).run();
        waiting.insert(waiting.end(), below.rbegin(), below.rend());
    }
}

name_path path_of(const survey &in, u32 node) {
    name_path path;
    u32 at = node;
    for (; at != ROOT_NODE && path.size() < MAX_SHOWN_NAMES; at = in.nodes[at].parent) {
        path.push_back(in.nodes[at].of.name);
    }
    if (at != ROOT_NODE) {
        path.emplace_back(u"...");
    }
    std::reverse(path.begin(), path.end());
    return path;
}

std::string shown_path(const survey &in, u32 node) {
    return shown_path(in.vol.names(), path_of(in, node));
}

} // namespace qvol
