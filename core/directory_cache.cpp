#include "core/directory_cache.h"

#include <algorithm>

namespace core {

namespace {

constexpr u32 LONG_NAME_UNITS = MAX_NAME_UNITS + 1; // with the terminator

// FNV-1a.
constexpr u32 HASH_START = 2166136261U;
constexpr u32 HASH_FACTOR = 16777619U;

u32 hash_of(const u8 *bytes, u32 count) {
    u32 hash = HASH_START;
    for (u32 i = 0; i < count; i++) {
        hash = (hash ^ bytes[i]) * HASH_FACTOR;
    }
    return hash ^ hash >> 15;
}

u32 length_of(const u16 *units) {
    return static_cast<u32>(std::find(units, units + LONG_NAME_UNITS, 0) - units);
}

u32 hash_of(const u16 *units) {
    u32 hash = HASH_START;
    for (u32 i = 0; i < LONG_NAME_UNITS && units[i] != 0; i++) {
        hash = (hash ^ units[i]) * HASH_FACTOR;
    }
    return hash ^ hash >> 15;
}

bool have_same_units(const u16 *a, const u16 *b) {
    const u32 length = length_of(a);
    return length == length_of(b) && std::equal(a, a + length, b);
}

// Position of the tilde in the base of a short name; SHORT_BASE_SIZE without one.
u32 tilde_of(const u8 *entry) {
    u32 at = 0;
    while (at < SHORT_BASE_SIZE && entry[at] != '~' && entry[at] != 0) {
        at++;
    }
    return at < SHORT_BASE_SIZE && entry[at] == '~' ? at : SHORT_BASE_SIZE;
}

bool is_long(const u8 *slot) {
    return kind_of(slot) == slot_kind::LONG_NAME;
}

// Whether walks for names see a difference between two contents of a slot.
bool differs(const u8 *a, const u8 *b) {
    const u32 compared = is_long(a) || is_long(b) ? DENTRY_SIZE : SHORT_SYSID.offset;
    return std::memcmp(a, b, compared) != 0;
}

template <typename T>
bool resize(T **block, std::size_t count) {
    void *larger = std::realloc(*block, count * sizeof(T));
    if (larger != nullptr) {
        *block = static_cast<T *>(larger);
    }
    return larger != nullptr;
}

} // namespace

// ---- memory -----------------------------------------------------------------------------------

void directory_cache::clear() {
    give_up();
    first_ = NONE;
}

// Stores nothing of this directory any more.
void directory_cache::give_up() {
    std::free(content_);
    std::free(links_);
    std::free(buckets_);
    std::free(clusters_);
    const u32 first = first_;
    *this = directory_cache{};
    first_ = first;
}

void directory_cache::select(const volume &of, u32 first) {
    if (first == first_) {
        return;
    }
    clear();
    first_ = first;
    of_ = of;
    buckets_ = static_cast<bucket_table *>(std::malloc(sizeof(bucket_table)));
    is_usable_ = buckets_ != nullptr;
    if (is_usable_) {
        std::memset(buckets_->first, 0xFF, sizeof buckets_->first);
        std::memset(buckets_->clusters, 0, sizeof buckets_->clusters);
    }
}

// Makes room for one more sector.
bool directory_cache::grow() {
    const u32 needed = slots_ + slots_per_sector();
    if (needed > MAX_SLOTS) {
        return false;
    }
    if (needed <= room_) {
        return true;
    }
    const u32 room = std::min(std::max(needed, 2 * room_), MAX_SLOTS);
    if (!resize(&content_, std::size_t{room} * DENTRY_SIZE) || !resize(&links_, room)) {
        return false;
    }
    room_ = room;
    return true;
}

// ---- clusters ---------------------------------------------------------------------------------

u32 directory_cache::position_of(u32 cluster) const {
    const u32 bit = cluster % FILTER_BITS;
    if (cluster_count_ == 0 || (buckets_->clusters[bit / 8] >> (bit % 8) & 1) == 0) {
        return NONE;
    }
    const u32 *end = clusters_ + cluster_count_;
    const u32 *found = std::find(static_cast<const u32 *>(clusters_), end, cluster);
    return found != end ? static_cast<u32>(found - clusters_) : NONE;
}

// False without memory, and for a chain that leads back into itself.
bool directory_cache::add_cluster(u32 cluster) {
    if (position_of(cluster) != NONE) {
        return false;
    }
    if (cluster_count_ == cluster_room_) {
        const u32 room = 2 * cluster_room_ + 4;
        if (!resize(&clusters_, room)) {
            return false;
        }
        cluster_room_ = room;
    }
    clusters_[cluster_count_++] = cluster;
    const u32 bit = cluster % FILTER_BITS;
    buckets_->clusters[bit / 8] = static_cast<u8>(buckets_->clusters[bit / 8] | 1U << bit % 8);
    return true;
}

// The first slot in a sector of the known part; NONE for all other sectors.
u32 directory_cache::first_slot_of(u64 sector) const {
    u64 index = sector - of_.at.root_start;
    if (first_ != 0) {
        const u64 in_data = sector - of_.at.data_start;
        const u64 number = in_data / of_.at.sectors_per_cluster + FIRST_DATA_CLUSTER;
        const u32 position = sector >= of_.at.data_start && number <= of_.last_cluster()
                                 ? position_of(static_cast<u32>(number))
                                 : NONE;
        if (position == NONE) {
            return NONE;
        }
        index = u64{position} * of_.at.sectors_per_cluster + in_data % of_.at.sectors_per_cluster;
    }
    return index < slots_ / slots_per_sector() ? static_cast<u32>(index) * slots_per_sector()
                                               : NONE;
}

void directory_cache::set_cursor(u32 first, u32 sector_index, chain_cursor *cursor) const {
    if (!is_usable_ || first != first_ || cursor->first == first || cluster_count_ == 0) {
        return;
    }
    const u32 position = sector_index / of_.at.sectors_per_cluster;
    if (position + 1 < cluster_count_) {
        *cursor = {first, clusters_[position], position, {}};
    } else {
        *cursor = last_;
    }
}

void directory_cache::link_changed(u32 cluster) {
    const u32 position = is_usable_ ? position_of(cluster) : NONE;
    if (position == NONE) {
        return;
    }
    if (position + 1 == cluster_count_) {
        is_end_known_ = false; // what is known does not depend on this link
    } else {
        clear();
    }
}

// ---- keys of the entries ----------------------------------------------------------------------

// Collects the long name of a short entry. False for slots before it that are not those of one
// name: what walks collect from them depends on what they met before.
bool directory_cache::get_long_name(u32 slot, long_name *name) const {
    name->slots = 0;
    while (slot > name->slots && is_long(slot_at(slot - name->slots - 1))) {
        const u8 *part = slot_at(slot - name->slots - 1);
        name->slots++;
        if (slot_number(part) != name->slots || name->slots > MAX_LONG_SLOTS) {
            return false;
        }
        gather_slot(part, name->units, LONG_NAME_UNITS);
        if (is_last_slot(part)) {
            return name->units[0] != 0;
        }
    }
    return name->slots == 0;
}

// Calls `use` with each key of the slot and its bucket. False for a slot of an unusual directory.
template <typename Use>
bool directory_cache::each_key(u32 slot, Use use) const {
    const u8 *entry = slot_at(slot);
    const slot_kind kind = kind_of(entry);
    if (!is_named_kind(kind)) {
        return kind != slot_kind::INVALID;
    }
    long_name name;
    if (!get_long_name(slot, &name)) {
        return false;
    }
    use(SHORT, hash_of(entry, SHORT_NAME.size) % BUCKETS);
    if (name.slots > 0) {
        use(LONG, hash_of(name.units) % BUCKETS);
    }
    const u32 tilde = tilde_of(entry);
    if (tilde < SHORT_BASE_SIZE) {
        use(TAIL, hash_of(entry, tilde) % BUCKETS);
    }
    return true;
}

// False for slots of an unusual directory.
bool directory_cache::insert(u32 from, u32 to) {
    bool is_usual = true;
    for (u32 slot = from; slot < to && is_usual; slot++) {
        is_usual = each_key(slot, [this, slot](key of, u32 bucket) {
            links_[slot].next[of] = buckets_->first[of][bucket];
            buckets_->first[of][bucket] = static_cast<u16>(slot);
        });
    }
    return is_usual;
}

void directory_cache::unlink(key of, u32 bucket, u32 slot) {
    u16 *at = &buckets_->first[of][bucket];
    while (*at != slot) {
        at = &links_[*at].next[of];
    }
    *at = links_[slot].next[of];
}

void directory_cache::remove(u32 from, u32 to) {
    for (u32 slot = from; slot < to; slot++) {
        (void)each_key(slot, [this, slot](key of, u32 bucket) { unlink(of, bucket, slot); });
    }
}

// ---- what walks meet --------------------------------------------------------------------------

// The first unused slot from `slot` to before slot `to`; `to` without one.
u32 directory_cache::end_from(u32 slot, u32 to) const {
    while (slot < to && kind_of(slot_at(slot)) != slot_kind::UNUSED) {
        slot++;
    }
    return slot;
}

void directory_cache::meet(const slot_walk &walk, u32 slot, const result<u8 *> &found) {
    if (!is_usable_ || slot != slots_) {
        return;
    }
    if (found.ok()) {
        meet_sector(slot, found.value, walk.cursor());
    }
    is_end_known_ = found.why == fault::CHAIN_END || found.why == fault::ROOT_AREA_END;
}

// Adds the next sector, which begins with `slot`, and the position of its cluster in the chain.
void directory_cache::meet_sector(u32 slot, const u8 *content, const chain_cursor &at) {
    const bool begins_cluster =
        first_ != 0 && slot / slots_per_sector() % of_.at.sectors_per_cluster == 0;
    if (!grow() || (begins_cluster && !add_cluster(at.cluster))) {
        give_up();
        return;
    }
    last_ = at;
    std::memcpy(content_ + std::size_t{slot} * DENTRY_SIZE, content, of_.at.sector_size);
    slots_ += slots_per_sector();
    if (end_ == slot) {
        end_ = end_from(slot, slots_);
        if (!insert(slot, end_)) {
            give_up();
        }
    }
}

// ---- what walks would find --------------------------------------------------------------------

u32 directory_cache::walk_start() const {
    u32 slot = end_;
    while (slot > 0 && is_long(slot_at(slot - 1))) {
        slot--;
    }
    return slot;
}

template <typename Matches>
u32 directory_cache::first_match(key of, u32 bucket, Matches matches) const {
    u32 lowest = NONE;
    for (u16 slot = buckets_->first[of][bucket]; slot != LIST_END; slot = links_[slot].next[of]) {
        if (slot < lowest && matches(slot)) {
            lowest = slot;
        }
    }
    return lowest;
}

u32 directory_cache::find_short(const u8 *name) const {
    return first_match(SHORT, hash_of(name, SHORT_NAME.size) % BUCKETS, [&](u32 slot) {
        return std::memcmp(slot_at(slot), name, SHORT_NAME.size) == 0;
    });
}

u32 directory_cache::find_long(const u16 *units) const {
    return first_match(LONG, hash_of(units) % BUCKETS, [&](u32 slot) {
        long_name name;
        return get_long_name(slot, &name) && have_same_units(name.units, units);
    });
}

void directory_cache::survey(slot_survey *result) {
    const u32 to = std::min(has_unused() ? end_ + 1 : end_, result->limit);
    while (first_free_ < to && !is_free_slot(slot_at(first_free_))) {
        first_free_++;
    }
    for (u32 slot = first_free_; slot < to && result->span_end == 0; slot++) {
        result->span_end = result->span.add(is_free_slot(slot_at(slot))) ? slot + 1 : 0;
    }
    result->visited = to;
    for (u32 tilde = 0; result->name != nullptr && tilde < SHORT_BASE_SIZE; tilde++) {
        const u32 bucket = hash_of(result->name, tilde) % BUCKETS;
        for (u16 slot = buckets_->first[TAIL][bucket]; slot != LIST_END;
             slot = links_[slot].next[TAIL]) {
            if (slot < to) {
                result->tails.mark(slot_at(slot), result->name);
            }
        }
    }
}

// ---- the medium -------------------------------------------------------------------------------

const u8 *directory_cache::find_sector(u64 sector) const {
    const u32 slot = is_usable_ && slots_ != 0 ? first_slot_of(sector) : NONE;
    return slot != NONE ? slot_at(slot) : nullptr;
}

void directory_cache::sectors_written(u64 sector, u32 count, const u8 *content) {
    for (u32 i = 0; i < count && is_usable_ && slots_ != 0; i++) {
        const u32 slot = first_slot_of(sector + i);
        if (slot != NONE) {
            write_sector(slot, content + std::size_t{i} * of_.at.sector_size);
        }
    }
}

// The entries from the first slot that changes on, up to the first one whose keys depend on no slot
// that changes, get their keys again.
void directory_cache::write_sector(u32 slot, const u8 *content) {
    u32 from = NONE;
    u32 to = 0;
    for (u32 i = 0; i < slots_per_sector(); i++) {
        // cppcheck-suppress redundantInitialization; it takes the variables of all rounds for one
        const u8 *now = content + std::size_t{i} * DENTRY_SIZE;
        if (differs(slot_at(slot + i), now)) {
            from = std::min(from, slot + i);
            to = slot + i + 1;
            first_free_ = is_free_slot(now) ? std::min(first_free_, slot + i) : first_free_;
        }
    }
    while (from != NONE && to < slots_ && is_long(slot_at(to))) {
        to++;
    }
    to = std::min(to + 1, slots_);
    remove(from, std::min(to, end_));
    std::memcpy(content_ + std::size_t{slot} * DENTRY_SIZE, content, of_.at.sector_size);
    if (from <= end_) {
        rebuild(from, to);
    }
}

// Finds the end again after changes from slot `from` to before slot `to`, whose entries have lost
// their keys.
void directory_cache::rebuild(u32 from, u32 to) {
    const u32 old_end = end_;
    u32 end = end_from(from, to);
    if (end == to) {
        end = old_end >= to ? old_end : end_from(to, slots_);
    }
    end_ = end;
    remove(std::max(to, end), old_end);
    if (!insert(from, std::min(to, end)) || !insert(std::max(to, old_end), end)) {
        give_up();
    }
}

} // namespace core
