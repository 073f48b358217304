#include "qvol/directory.h"

#include "qvol/error.h"
#include "qvol/sectors.h"
#include "qvol/slots.h"

#include <algorithm>
#include <cstring>

#include <fmt/core.h>

namespace qvol {

namespace {

// A longer chain is damaged.
constexpr u32 MAX_READ_BYTES = 8 * 1024 * 1024;

u32 attributes_of(kind type) {
    return type == kind::DIRECTORY ? core::ATTR_DIRECTORY
           : type == kind::LABEL   ? core::ATTR_VOLUME
                                   : 0;
}

std::u16string alias_text(const entry &of) {
    return short_name_units(of.alias(), 0);
}

} // namespace

// ---- entry ------------------------------------------------------------------------------------

kind entry::type() const {
    switch (attributes() & core::ATTR_KIND_MASK) {
    case core::ATTR_DIRECTORY:
        return kind::DIRECTORY;
    case core::ATTR_VOLUME:
        return kind::LABEL;
    default:
        return core::load(raw.data(), core::SHORT_CMSEC) == core::CMSEC_SYMLINK ? kind::LINK
                                                                                : kind::FILE;
    }
}

bool entry::is_dot() const {
    return std::memcmp(raw.data(), core::DOT_NAME, sizeof core::DOT_NAME) == 0 ||
           std::memcmp(raw.data(), core::DOT_DOT_NAME, sizeof core::DOT_DOT_NAME) == 0;
}

u32 entry::start() const {
    const u32 cluster = core::start_cluster(raw.data());
    return is_wide ? cluster : cluster & 0xFFFF;
}

u32 entry::size() const {
    return core::load(raw.data(), core::SHORT_FILE_SIZE);
}

u32 entry::attributes() const {
    return core::load(raw.data(), core::SHORT_ATTR);
}

short_name entry::alias() const {
    short_name bytes{};
    std::copy_n(raw.begin(), bytes.size(), bytes.begin());
    return bytes;
}

dos_time entry::modified() const {
    return {static_cast<u16>(core::load(raw.data(), core::SHORT_MDATE)),
            static_cast<u16>(core::load(raw.data(), core::SHORT_MTIME))};
}

void entry::set_start(u32 cluster) {
    core::set_start_cluster(raw.data(), cluster);
}

void entry::set_size(u32 bytes) {
    core::store(raw.data(), core::SHORT_FILE_SIZE, bytes);
}

void entry::set_modified(const dos_time &stamp) {
    core::store(raw.data(), core::SHORT_MDATE, stamp.date);
    core::store(raw.data(), core::SHORT_MTIME, stamp.time);
}

void entry::set_attributes(u32 attributes) {
    core::store(raw.data(), core::SHORT_ATTR, attributes);
}

void entry::set_link(bool is_link) {
    core::store(raw.data(), core::SHORT_CMSEC, is_link ? core::CMSEC_SYMLINK : 0);
}

// ---- sectors and slots ------------------------------------------------------------------------

directory::directory(fat_table &table, u32 start) : table_(&table) {
    is_root_ = start == ROOT || (on().at.width == 32 && start == on().at.root_cluster);
    start_ = start == ROOT && on().at.width == 32 ? on().at.root_cluster : start;
    load();
    parse();
}

void directory::load() {
    if (start_ == ROOT) {
        bytes_ = read_extent(on(), on().at.root_start, on().at.data_start - on().at.root_start);
    } else {
        const u32 most = MAX_READ_BYTES / on().cluster_bytes();
        clusters_ = table_->chain(start_, most + 1);
        if (clusters_.size() > most) {
            throw error(fmt::format("the directory at cluster {} is longer than {} MiB", start_,
                                    MAX_READ_BYTES / (1024 * 1024)));
        }
        bytes_.resize(clusters_.size() * on().cluster_bytes());
        std::size_t done = 0;
        for (const cluster_extent &run : extents_of(clusters_)) {
            const std::size_t size = std::size_t{run.count} * on().cluster_bytes();
            read_extent_into(on(), on().sector_of(run.first),
                             std::span(bytes_).subspan(done, size));
            done += size;
        }
    }
    written_clusters_ = static_cast<u32>(clusters_.size());
    is_dirty_.resize(bytes_.size() / on().at.sector_size);
}

u32 directory::slots_per_sector() const {
    return on().at.sector_size / core::DENTRY_SIZE;
}

u32 directory::capacity() const {
    return static_cast<u32>(bytes_.size() / core::DENTRY_SIZE);
}

// The library reads only the first 512 slots of a FAT16 root, however large its area is. New names
// must be among them.
u32 directory::usable_slots() const {
    return start_ == ROOT ? std::min(capacity(), core::FAT16_ROOT_ENTRIES) : capacity();
}

u8 *directory::slot_bytes(u32 slot) {
    return bytes_.data() + std::size_t{slot} * core::DENTRY_SIZE;
}

const u8 *directory::slot_bytes(u32 slot) const {
    return bytes_.data() + std::size_t{slot} * core::DENTRY_SIZE;
}

u64 directory::sector_of(u32 sector_index) const {
    if (start_ == ROOT) {
        return u64{on().at.root_start} + sector_index;
    }
    return on().sector_of(clusters_.at(sector_index / on().at.sectors_per_cluster)) +
           sector_index % on().at.sectors_per_cluster;
}

core::slot_place directory::location(u32 slot) const {
    return {static_cast<u32>(sector_of(slot / slots_per_sector())),
            slot % slots_per_sector() * core::DENTRY_SIZE};
}

// ---- reading ----------------------------------------------------------------------------------

void directory::parse() {
    core::name_assembler run;
    for (end_ = 0; end_ < capacity(); end_++) {
        const u8 *slot = slot_bytes(end_);
        const core::slot_kind kind = core::kind_of(slot);
        if (kind == core::slot_kind::UNUSED) {
            break;
        }
        if (kind == core::slot_kind::DELETED) {
            add_removed_slot(end_);
        } else if (kind == core::slot_kind::LONG_NAME) {
            run.accept(slot, end_);
            continue;
        } else if (is_entry(slot)) {
            entries_.emplace_hint(entries_.end(), end_,
                                  entry_of_slot(slot, end_, run, on().is_wide()));
        }
        run.reset();
    }
}

void directory::add_removed_slot(u32 slot) {
    const auto next = removed_slots_.upper_bound(slot);
    u32 first = slot;
    if (next != removed_slots_.begin() &&
        std::prev(next)->first + std::prev(next)->second == slot) {
        std::prev(next)->second++;
        first = std::prev(next)->first;
    } else {
        removed_slots_[slot] = 1;
    }
    for (u32 &from : search_from_) {
        from = std::min(from, first);
    }
}

void directory::name_index::add(const entry &added) {
    if (added.is_dot() || added.type() == kind::LABEL) {
        return;
    }
    by_name[fold_case(added.name)].push_back(added.slot);
    by_alias.try_emplace(fold_case(alias_text(added)), added.slot);
    aliases.insert(added.alias());
}

void directory::name_index::remove(const entry &removed) {
    if (removed.is_dot() || removed.type() == kind::LABEL) {
        return;
    }
    std::erase(by_name[fold_case(removed.name)], removed.slot);
    const auto aliased = by_alias.find(fold_case(alias_text(removed)));
    if (aliased != by_alias.end() && aliased->second == removed.slot) {
        by_alias.erase(aliased);
    }
    aliases.erase(removed.alias());
}

directory::name_index &directory::names() const {
    if (!names_) {
        names_.emplace();
        for (const auto &[slot, found] : entries_) {
            names_->add(found);
        }
    }
    return *names_;
}

const entry *directory::find_name(std::u16string_view name) const {
    const auto named = names().by_name.find(fold_case(name));
    if (named == names().by_name.end() || named->second.empty()) {
        return nullptr;
    }
    const std::vector<u32> &slots = named->second;
    const auto exact = std::find_if(slots.begin(), slots.end(),
                                    [&](u32 slot) { return entries_.at(slot).name == name; });
    return &entries_.at(exact != slots.end() ? *exact : slots.front());
}

const entry *directory::find(std::u16string_view name) const {
    const entry *named = find_name(name);
    if (named != nullptr) {
        return named;
    }
    const auto aliased = names().by_alias.find(fold_case(name));
    return aliased != names().by_alias.end() ? &entries_.at(aliased->second) : nullptr;
}

// A label with data is a damaged entry of a file.
const entry *directory::find_label() const {
    const entry *blank = nullptr;
    for (const auto &[slot, found] : entries_) {
        if (found.type() != kind::LABEL || found.start() != 0 || found.size() != 0) {
            continue;
        }
        if (!found.name.empty()) {
            return &found;
        }
        blank = blank == nullptr ? &found : blank;
    }
    return blank;
}

bool directory::is_empty() const {
    return std::all_of(entries_.begin(), entries_.end(),
                       [](const auto &item) { return item.second.is_dot(); });
}

// ---- allocating slots -------------------------------------------------------------------------

void directory::grow() {
    if (start_ == ROOT) {
        throw directory_full(
            fmt::format("the root directory is full: a FAT16 root has {} slots; use a "
                        "subdirectory",
                        usable_slots()));
    }
    if (capacity() >= MAX_SLOTS) {
        throw directory_full(
            fmt::format("the directory is full: other systems read at most {} slots; use "
                        "several directories",
                        MAX_SLOTS));
    }
    clusters_.push_back(table_->allocate(1, clusters_.back()).front());
    bytes_.resize(bytes_.size() + on().cluster_bytes());
    is_dirty_.resize(is_dirty_.size() + on().at.sectors_per_cluster, true);
}

std::optional<u32> directory::reuse_removed_slots(u32 count) {
    u32 &from = search_from_.at(count);
    auto span = removed_slots_.lower_bound(from);
    while (span != removed_slots_.end() && span->second < count) {
        ++span;
    }
    from = span != removed_slots_.end() ? span->first : end_;
    if (span == removed_slots_.end() || span->first + count > usable_slots()) {
        return std::nullopt;
    }
    const auto [first, length] = *span;
    removed_slots_.erase(span);
    if (length > count) {
        removed_slots_[first + count] = length - count;
    }
    return first;
}

// Finds a span of slots for an entry with its long name. Slots past the end of a directory need not
// be zero, so the slot after the new end is cleared.
u32 directory::allocate_slots(u32 count) {
    const std::optional<u32> reused = reuse_removed_slots(count);
    if (reused) {
        return *reused;
    }
    while (end_ + count > usable_slots()) {
        grow();
    }
    const u32 first = end_;
    end_ += count;
    if (end_ < capacity() && slot_bytes(end_)[0] != core::NAME_UNUSED) {
        std::memset(slot_bytes(end_), 0, core::DENTRY_SIZE);
        mark_dirty(end_);
    }
    return first;
}

void directory::mark_dirty(u32 slot) {
    is_dirty_[slot / slots_per_sector()] = true;
}

// ---- changing ---------------------------------------------------------------------------------

void directory::write_slots(const entry &added, std::u16string_view long_name) {
    const std::u16string terminated(long_name);
    const std::vector<u16> units(terminated.c_str(), terminated.c_str() + terminated.size() + 1);
    const u8 checksum = core::checksum_of(added.raw.data());
    const u32 count = added.slot - added.first_slot;
    for (u32 number = 1; number <= count; number++) {
        const u32 slot = added.slot - number;
        core::store_slot_of_name(slot_bytes(slot), number, count, units.data(), checksum,
                                 core::name_end::TERMINATOR);
        mark_dirty(slot);
    }
    std::copy(added.raw.begin(), added.raw.end(), slot_bytes(added.slot));
    mark_dirty(added.slot);
}

// Without long names, case bits store the case of a name.
cased_short_name directory::choose_alias(const new_entry &wanted) {
    if (wanted.alias) {
        return {*wanted.alias, 0};
    }
    if (wanted.allows_long_name) {
        return {names().aliases.choose(wanted.name), 0};
    }
    const std::optional<cased_short_name> alias = cased_short_name_of(wanted.name);
    if (!alias) {
        throw error("long names are off and this name does not fit 8.3");
    }
    return *alias;
}

const entry &directory::add(const new_entry &wanted) {
    const std::optional<std::string> problem = name_problem(wanted.name);
    if (problem) {
        throw error("invalid name: " + *problem);
    }
    if (find(wanted.name) != nullptr) {
        throw error("the name already exists in its directory, possibly in another case");
    }
    const cased_short_name alias = choose_alias(wanted);
    entry added;
    added.name = wanted.name;
    added.has_long_name = short_name_units(alias.name, alias.case_bits) != wanted.name;
    added.is_wide = on().is_wide();
    core::store_short_entry(added.raw.data(),
                            {.name = alias.name.data(),
                             .attributes = attributes_of(wanted.type) | wanted.attributes,
                             .case_bits = alias.case_bits,
                             .start = wanted.start,
                             .modified = {wanted.modified.date, wanted.modified.time},
                             .is_link = wanted.type == kind::LINK});
    added.set_size(wanted.size);

    const u32 count =
        1 + (added.has_long_name ? core::long_slots_of(static_cast<u32>(wanted.name.size())) : 0);
    added.first_slot = allocate_slots(count);
    added.slot = added.first_slot + count - 1;
    write_slots(added, added.has_long_name ? wanted.name : std::u16string());
    names().add(added);
    return entries_[added.slot] = std::move(added);
}

void directory::add_label(const short_name &label, const dos_time &modified) {
    const u32 slot = allocate_slots(1);
    core::store_short_entry(slot_bytes(slot), {.name = label.data(),
                                               .attributes = core::ATTR_VOLUME,
                                               .modified = {modified.date, modified.time}});
    mark_dirty(slot);
    entries_[slot] = entry_of_slot(slot_bytes(slot), slot, {}, on().is_wide());
}

void directory::remove(const entry &removed) {
    const entry gone = removed; // the caller's reference may be into the index
    for (u32 slot = gone.first_slot; slot <= gone.slot; slot++) {
        slot_bytes(slot)[core::SHORT_NAME.offset] = core::NAME_DELETED;
        mark_dirty(slot);
        add_removed_slot(slot);
    }
    names().remove(gone);
    entries_.erase(gone.slot);
}

void directory::update(const entry &changed) {
    entries_.at(changed.slot).raw = changed.raw;
    std::copy(changed.raw.begin(), changed.raw.end(), slot_bytes(changed.slot));
    mark_dirty(changed.slot);
}

void directory::set_parent(u32 link) {
    for (const auto &[slot, found] : entries_) {
        if (std::memcmp(found.raw.data(), core::DOT_DOT_NAME, sizeof core::DOT_DOT_NAME) == 0) {
            entry changed = found;
            changed.set_start(link);
            update(changed);
            return;
        }
    }
}

directory directory::make(fat_table &table, const directory &parent, const dos_time &modified) {
    directory made(table);
    made.clusters_ = table.allocate(1);
    made.start_ = made.clusters_.front();
    made.bytes_.resize(table.on().cluster_bytes());
    made.is_dirty_.resize(table.on().at.sectors_per_cluster, true);
    const std::pair<const u8 *, u32> dots[] = {{core::DOT_NAME, made.start_},
                                               {core::DOT_DOT_NAME, parent.parent_link()}};
    u32 slot = 0;
    for (const auto &[name, link] : dots) {
        core::store_short_entry(made.slot_bytes(slot++),
                                {.name = name,
                                 .attributes = core::ATTR_DIRECTORY,
                                 .start = link,
                                 .modified = {modified.date, modified.time}});
    }
    made.parse();
    return made;
}

// ---- the medium -------------------------------------------------------------------------------

// Writes dirty sectors that are contiguous in the directory and on the medium in one transfer.
void directory::write_dirty(u32 first_sector, u32 end_sector) {
    for (u32 first = first_sector; first < end_sector; first++) {
        if (!is_dirty_[first]) {
            continue;
        }
        u32 end = first;
        while (end < end_sector && is_dirty_[end] &&
               sector_of(end) == sector_of(first) + end - first) {
            is_dirty_[end++] = false;
        }
        write_extent(on(), sector_of(first),
                     std::span(bytes_).subspan(std::size_t{first} * on().at.sector_size,
                                               std::size_t{end - first} * on().at.sector_size));
        first = end - 1;
    }
}

void directory::write_new_clusters() {
    const u32 sector_count = static_cast<u32>(is_dirty_.size());
    write_dirty(written_clusters_ * on().at.sectors_per_cluster, start_ == ROOT ? 0 : sector_count);
    written_clusters_ = static_cast<u32>(clusters_.size());
}

void directory::write_changes() {
    write_dirty(0, static_cast<u32>(is_dirty_.size()));
}

} // namespace qvol
