#include "qvol/salvage/tree.h"

#include "qvol/extraction.h"
#include "qvol/file_data.h"
#include "qvol/salvage/content.h"
#include "qvol/sectors.h"
#include "qvol/tree_walk.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr const char *LOST_AND_FOUND = "lost+found";

std::string reason_of(const reported_finding &one) {
    const std::string cluster = one.cluster == 0 ? "" : fmt::format("cluster {}: ", one.cluster);
    return cluster + one.text + (one.is_repaired ? ", repaired: " + one.outcome : "");
}

// FOUND.000 to FOUND.999
bool is_found_name(std::u16string_view name) {
    return name.size() == 9 && name.starts_with(u"FOUND.") &&
           std::all_of(name.begin() + 6, name.end(),
                       [](char16_t unit) { return unit >= u'0' && unit <= u'9'; });
}

} // namespace

tree_salvage::tree_salvage(const salvage_source &from, salvage_report *report, progress *bar)
    : vol_(from.vol), original_(from.original), report_(*report), bar_(*bar),
      are_areas_in_doubt_(!from.vol.contradictions().empty()),
      root_names_(std::make_shared<safe_names>(from.vol.names())),
      lost_names_(std::make_shared<safe_names>(from.vol.names())),
      clusters_left_(from.vol.on().at.clusters) {
    for (const reported_finding &one : from.findings) {
        if (!one.path.empty()) {
            reasons_.emplace(one.json_path, reason_of(one));
        }
        if (!one.json_other.empty()) {
            reasons_.emplace(one.json_other, "shares clusters with " + one.path);
        }
    }
}

void tree_salvage::copy(host_directory into) {
    open_.push_back({std::move(into), "", root_names_, std::nullopt, 0, false});
    try {
        root_.emplace(vol_.root());
    } catch (const error &why) {
        report_.notes.push_back(std::string("the root directory cannot be read: ") + why.what());
        report_.is_complete = false;
        return;
    }
    for (const entry &found : listed_entries(*root_)) {
        if (is_made_by_repair(found)) {
            made_by_repair_.push_back(found.start());
            reserve(u"lost+found");
        }
    }
    directories_.push_back({{}, directory::ROOT, ""});
    walk();
}

void tree_salvage::walk() {
    tree_visitor visitor;
    visitor.visit = [this](const name_path &path, const entry &found, bool) {
        return visit(path, found);
    };
    visitor.leave = [this](const name_path &) { leave(); };
    visitor.fail = [this](const name_path &, const std::string &why) {
        report_.entries[open_.back().report].guess("its content cannot be read: " + why);
        leave();
    };
    walk_tree(vol_, {}, *root_, visitor);
}

bool tree_salvage::visit(const name_path &path, const entry &found) {
    if (path.size() == 1 && is_made_by_repair(found)) {
        enter_lost_and_found();
        return true;
    }
    const std::string name = open_.back().names->choose(found.name, open_.back().dir);
    report_.entries.push_back(describe(path, found, name));
    is_shared_.resize(report_.entries.size());
    if (found.is_directory()) {
        return enter(path, name, found);
    }
    copy_entry(name, found, &report_.entries.back());
    return false;
}

salvaged_entry tree_salvage::describe(const name_path &path, const entry &found,
                                      const std::string &name) const {
    const open_level &here = open_.back();
    salvaged_entry result;
    result.type = found.type();
    result.json_path = json_path(path);
    result.host_path = here.host_path + name;
    result.is_renamed = name != vol_.names().to_host(found.name);
    if (here.is_lost) {
        result.guess("no entry led there: its path is unknown");
    } else {
        result.shown_path = shown_path(vol_.names(), path);
    }
    if (are_areas_in_doubt_) {
        result.guess("the boot sector contradicts itself: the data may be elsewhere");
    }
    const auto [first, last] = reasons_.equal_range(result.json_path);
    std::for_each(first, last, [&](const auto &reason) { result.guess(reason.second); });
    return result;
}

// ---- files and links ----

void tree_salvage::copy_entry(const std::string &name, const entry &found, salvaged_entry *result) {
    try {
        if (found.type() == kind::LINK) {
            extract_link(vol_, open_.back().dir, name, false, found);
        } else {
            copy_file(name, found, result);
        }
    } catch (const error &why) {
        result->fail(why.what());
    }
}

void tree_salvage::copy_file(const std::string &name, const entry &found, salvaged_entry *result) {
    const found_content content = find_content(vol_.fat(), found.start(), found.size());
    const std::size_t count = content.clusters.size();
    if (count == 0 && found.size() != 0) {
        throw error(content.problem);
    }
    if (count > clusters_left_) {
        throw error("files share clusters and need more space than the volume has");
    }
    const u64 size = std::min<u64>(found.size(), u64{count} * vol_.on().cluster_bytes());
    u64 unreadable = 0;
    open_.back().dir.make_file(
        name, false, moment_of(found.modified()), [&](const write_piece &write) {
            unreadable = copy_content(vol_.on(), content.clusters, size, [&](auto bytes) {
                write(bytes);
                bar_.add(bytes.size());
            });
        });
    clusters_left_ -= count;
    result->size = size;
    if (!content.problem.empty()) {
        result->guess(
            fmt::format("{}: the first {} of {} bytes", content.problem, size, found.size()));
    }
    if (unreadable != 0) {
        result->guess(unreadable_text(unreadable));
    }
    claim(content.clusters);
}

// The clusters are those of the last entry.
void tree_salvage::claim(std::span<const u32> clusters) {
    const u32 own = static_cast<u32>(report_.entries.size());
    for (const u32 cluster : clusters) {
        const u32 owner = owners_.get(cluster);
        if (owner == 0) {
            owners_.set(cluster, own);
        } else {
            share(owner - 1, own - 1);
            share(own - 1, owner - 1);
        }
    }
}

void tree_salvage::share(std::size_t one, std::size_t other) {
    if (!is_shared_[one]) {
        is_shared_[one] = true;
        const salvaged_entry &sharer = report_.entries[other];
        report_.entries[one].guess("shares clusters with " + (sharer.shown_path.empty()
                                                                  ? shown_bytes(sharer.host_path)
                                                                  : sharer.shown_path));
    }
}

// ---- directories ----

bool tree_salvage::enter(const name_path &path, const std::string &name, const entry &found) {
    const open_level &here = open_.back();
    const std::size_t own_entry = report_.entries.size() - 1;
    try {
        open_.push_back({here.dir.enter(name), here.host_path + name + '/',
                         std::make_shared<safe_names>(vol_.names()), moment_of(found.modified()),
                         own_entry, here.is_lost});
        if (!open_.back().is_lost) {
            directories_.push_back({path, found.start(), open_.back().host_path});
        }
        return true;
    } catch (const error &why) {
        report_.entries[own_entry].fail(why.what());
        return false;
    }
}

void tree_salvage::enter_lost_and_found() {
    open_.push_back({open_.front().dir.enter(LOST_AND_FOUND), LOST_AND_FOUND + std::string("/"),
                     lost_names_, std::nullopt, 0, true});
}

// Sets the time of a directory after its entries are made.
void tree_salvage::leave() {
    try {
        open_.back().dir.set_modified(open_.back().modified);
    } catch (const error &) {
        // its content is complete
    }
    open_.pop_back();
}

// Whether the slot of an entry of the root was written by the repair.
bool tree_salvage::is_made_by_repair(const entry &found) const {
    if (!found.is_directory() || !is_found_name(found.name)) {
        return false;
    }
    const core::slot_place place = root_->location(found.slot);
    core::volume before = vol_.on();
    before.device = &original_;
    try {
        const std::vector<u8> sector = read_extent(before, place.sector, 1);
        return !std::equal(found.raw.begin(), found.raw.end(), &sector[place.offset]);
    } catch (const error &) {
        return true; // past the end of the original
    }
}

} // namespace qvol
