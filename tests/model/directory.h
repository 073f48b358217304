// Reference model, layer 3: directories.
//
// Models: the slot of an index, lookup by name, assembling a long name, the tail of a new short
// name, free spans of slots, writing new entries, marking entries as removed, and the fast
// walk that gives one file after another. Every slot is read on its own, the chain is followed from
// its start for every sector.
//
// Not modelled: growing a directory, which belongs to its open entries (layer 4); sector buffers,
// but for what a silent failure leaves in the one buffer of a walk; allocations that fail.
// A walk along a cyclic chain that has seen everything ends without an answer.

#pragma once

#include "tests/model/chain.h"

#include <cstring>

namespace model {

class directories : public chains {
public:
    using chains::chains;

    bool long_names = true;

    // -- locations

    [[nodiscard]] bool is_root_area(const open_chain &dir) const {
        return dir.is_root && shape.width == 16;
    }
    // The argument of walks for a directory: its first cluster, 0 for the root area.
    [[nodiscard]] std::uint32_t base_of(const open_chain &dir) const {
        return is_root_area(dir) ? 0 : dir.start;
    }
    [[nodiscard]] std::uint32_t slots_of(const open_chain &dir) const {
        return is_root_area(dir) ? 512 : dir.allocated / 32;
    }
    int locate_slot(std::uint32_t base, std::uint32_t index, location *where) {
        std::uint32_t number = 0;
        const int result = locate(base, sector_index_of(index), &number);
        if (result == 0) {
            *where = {number,
                      static_cast<std::uint32_t>(index * std::uint64_t{32} % shape.sector_bytes)};
        }
        return result;
    }
    // Reads the sector of a slot into the buffer; slot() is the slot then.
    int read_slot(std::uint32_t base, std::uint32_t index) {
        const char *const me = "get_dentry_with_clu";
        location where;
        const int result = locate_slot(base, index, &where);
        if (result < 0) {
            return fail(result, me,
                        "Failed to get entry sector!:" + position_text(base, index) + "\n\n");
        }
        if (can_read(where.sector)) {
            buffer_ = sector(where.sector);
        } else if (!fails_silently) {
            return fail(-EIO, me,
                        "cannot read sectors:(sector: " + std::to_string(where.sector) + ")\n");
        }
        buffer_.resize(shape.sector_bytes);
        at_ = where;
        return 0;
    }
    // The same inside an open directory, whose size is a limit.
    int read_slot(const open_chain &dir, std::uint32_t index) {
        return index < dir.allocated / 32 ? read_slot(base_of(dir), index)
                                          : fail(-EFAULT, "fat_get_dentry",
                                                 "access the out of range in directory space\n");
    }
    [[nodiscard]] raw_entry slot() const {
        return slot_in_buffer(at_.offset);
    }
    [[nodiscard]] location slot_location() const {
        return at_;
    }
    // The slots of an open directory up to the first unused one.
    std::vector<raw_entry> entries_of(const open_chain &dir) {
        std::vector<raw_entry> result;
        for (std::uint32_t i = 0; i < slots_of(dir) && walk_to(dir, i) == 0; i++) {
            if (slot()[0] == 0) {
                break;
            }
            result.push_back(slot());
        }
        return result;
    }

    // -- lookup

    // The index of a name. `units` is missing where only the short name is to be compared. No
    // answer: the chain is a cycle without the name.
    std::optional<int> find(std::uint32_t base, const std::string &dos,
                            const std::optional<std::u16string> &units) {
        const char *const me = "find_dentry_with_clu";
        const std::uint32_t end = slots_before_return(base);
        name_assembler gathered;
        buffer_.assign(shape.sector_bytes, 0);
        for (std::uint32_t i = 0; i < end; i++) {
            const int result = walk_to(base, i);
            if (result == -EFAULT) {
                return -ENOENT;
            }
            if (result < 0) {
                return fail(result, me,
                            "fail to get dentry" + position_text(base, i) + ":" +
                                std::strerror(-result) + "\n");
            }
            if (slot()[0] == 0) {
                return -ENOENT;
            }
            if (matches(slot(), dos, units, &gathered)) {
                return fail(static_cast<int>(i), me,
                            "found index:" + position_text(base, i) + "\n");
            }
        }
        return std::nullopt;
    }

    // Assembles in `units` the long name whose last slot is entry `*index`. Returns how many slots
    // it has, 0 for a broken one; `*index` is then the last entry that was read.
    int long_name(std::uint32_t base, std::uint32_t *index, std::array<char16_t, 256> *units) {
        (void)read_slot(base, *index);
        const std::uint8_t sum = slot()[13];
        const int slots = slot()[0] - 0x40;
        name_assembler name;
        name.units = *units;
        for (int k = slots; k >= 1; k--) {
            name.add(slot(), (k - 1) * 13);
            *units = name.units;
            const int result = read_slot(base, ++*index);
            if (result < 0) {
                return fail(result, "get_long_name", "Failed to get entry with cluster ...\n\n");
            }
            if (k > 1 && !continues_name(slot(), sum, *index, units)) {
                return 0;
            }
        }
        if (slots < 1 || !is_short_slot(slot())) {
            return 0;
        }
        if (checksum_of(dos_name_of(slot())) != sum) {
            units->at(0) = 0;
            return fail(0, "get_long_name", mismatch(*index));
        }
        return slots;
    }

    // Gives a short name the lowest free tail. No answer: as find().
    std::optional<int> add_numeric_tail(const open_chain &dir, std::string *dos) {
        const std::uint32_t end = slots_before_return(base_of(dir));
        std::vector<raw_entry> entries;
        for (std::uint32_t i = 0; i < slots_of(dir); i++) {
            if (i >= end) {
                return std::nullopt;
            }
            const int result = walk_to(dir, i);
            if (result == -EFAULT) {
                break;
            }
            if (result < 0) {
                return result;
            }
            entries.push_back(slot());
            if (slot()[0] == 0) {
                break;
            }
            (void)kind_of(slot());
        }
        const unsigned number = free_tail(entries, *dos);
        if (number == 0) {
            return fail(-EEXIST, "add_numeric_tail", "Too many SFNs!\n\n");
        }
        *dos = with_tail(*dos, number);
        return 0;
    }

    // -- changing

    // Finds the first span of `count` free slots, or the shorter one at the end of the directory.
    // Returns its length, and its first index.
    int find_span(const open_chain &dir, std::uint32_t count, std::uint32_t *first) {
        *first = 0;
        std::uint32_t index = 0;
        for (; index < slots_of(dir) && index - *first < count; index++) {
            const int result = walk_to(dir, index);
            if (result == -EFAULT) {
                break;
            }
            if (result < 0) {
                return result;
            }
            *first = kind(slot()) <= DELETED ? *first : index + 1;
        }
        return static_cast<int>(index - *first);
    }
    // Writes the slots of a name and its short entry, or nothing if one of them has no place in a
    // broken chain. Returns the index of the short entry, or a negative errno.
    int put_entries(const open_chain &dir, std::uint32_t first, const std::u16string &units,
                    const raw_entry &entry) {
        std::vector<raw_entry> slots = long_slots(units, dos_name_of(entry));
        slots.push_back(entry);
        const std::uint32_t end = first + static_cast<std::uint32_t>(slots.size());
        std::vector<location> places(slots.size());
        for (std::uint32_t index = end; index-- > first;) {
            const int result = index < dir.allocated / 32
                                   ? locate_slot(base_of(dir), index, &places[index - first])
                                   : -EFAULT;
            if (result < 0) {
                return result;
            }
        }
        for (std::size_t i = 0; i < slots.size(); i++) {
            (void)put_entry(places[i], slots[i]);
        }
        return static_cast<int>(end) - 1;
    }
    bool put_entry(const location &where, const raw_entry &entry) {
        bytes content = sector(where.sector);
        std::copy(entry.begin(), entry.end(), content.begin() + where.offset);
        return write(where.sector, std::move(content));
    }
    bool is_empty(const open_chain &dir) {
        for (std::uint32_t index = 2; index < dir.allocated / 32; index++) {
            if (read_slot(dir, index) < 0 || kind(slot()) > DELETED) {
                return false;
            }
        }
        return true;
    }
    // Marks a short entry and its slots. Intentional: slots are recognised by the checksum of the
    // name whose first byte is replaced already, so that most of them stay. Returns how many
    // entries were marked.
    int mark_removed(const open_chain &dir, std::uint32_t index) {
        int result = read_slot(dir, index);
        if (result < 0) {
            return result;
        }
        std::vector<std::pair<location, raw_entry>> marked = {{slot_location(), deleted(slot())}};
        const std::uint8_t sum = checksum_of(dos_name_of(marked.front().second));
        while (index-- > 0) {
            result = read_slot(dir, index);
            if (result < 0) {
                return result;
            }
            raw_entry name_slot = slot();
            if (name_slot[11] != 0x0F || name_slot[13] != sum) {
                break;
            }
            name_slot[11] = 0xE5;
            marked.emplace_back(slot_location(), name_slot);
            if ((name_slot[0] & 0x40) != 0) {
                break;
            }
        }
        for (const auto &[where, entry] : marked) {
            (void)put_entry(where, entry);
        }
        return static_cast<int>(marked.size());
    }

protected:
    // Reports a type that does not exist.
    entry_kind kind_of(const raw_entry &entry) {
        if (kind(entry) == INVALID) {
            fail(0, "entry_type", "Unknown entry type: " + std::to_string(entry[11]) + "\n\n");
        }
        return kind(entry);
    }
    bool is_short_slot(const raw_entry &entry) {
        const entry_kind what = kind_of(entry);
        return what == FILE_ENTRY || what == DIR_ENTRY;
    }

private:
    friend class fast_walk;

    // As diagnostics print it.
    static std::string position_text(std::uint32_t base, std::uint32_t index) {
        return "(" + std::to_string(base) + ", " +
               std::to_string(static_cast<std::int32_t>(index)) + ")";
    }
    [[nodiscard]] std::uint32_t sector_index_of(std::uint32_t index) const {
        return static_cast<std::uint32_t>(std::uint64_t{index} * 32 / shape.sector_bytes);
    }
    [[nodiscard]] raw_entry slot_in_buffer(std::uint32_t offset) const {
        raw_entry result = {};
        std::copy_n(buffer_.begin() + offset, result.size(), result.begin());
        return result;
    }
    // Continues after the previous slot, or begins; reads a sector once.
    int walk_to(std::uint32_t base, std::uint32_t index) {
        if (index == 0 || sector_index_of(index) != sector_index_of(index - 1)) {
            return read_slot(base, index);
        }
        at_.offset += 32;
        return 0;
    }
    // The same in an open directory; slots that cannot be read are unused.
    int walk_to(const open_chain &dir, std::uint32_t index) {
        if (index == 0 || sector_index_of(index) != sector_index_of(index - 1)) {
            buffer_.assign(shape.sector_bytes, 0);
            return read_slot(dir, index);
        }
        at_.offset += 32;
        return 0;
    }
    std::uint32_t slots_before_return(std::uint32_t base) {
        bool is_cycle = false;
        const std::size_t clusters = clusters_of(base, &is_cycle).size();
        return is_cycle ? static_cast<std::uint32_t>(clusters) * (shape.cluster_bytes() / 32)
                        : UINT32_MAX;
    }
    bool matches(const raw_entry &entry, const std::string &dos,
                 const std::optional<std::u16string> &units, name_assembler *gathered) {
        const entry_kind what = kind_of(entry);
        if (what == NAME_SLOT) {
            gathered->add(entry);
            return false;
        }
        const bool same_dos = is_short(entry) && dos_name_of(entry) == dos;
        if (!units || !long_names) {
            return same_dos;
        }
        const std::u16string name = gathered->name();
        gathered->has_slots =
            gathered->has_slots && is_short(entry) && (name.empty() ? same_dos : name == *units);
        return gathered->has_slots;
    }
    static std::string mismatch(std::uint32_t index) {
        return "not match checksum(" + std::to_string(index) + ")\n";
    }
    // Whether an entry is a further slot of a long name.
    bool continues_name(const raw_entry &entry, std::uint8_t sum, std::uint32_t index,
                        std::array<char16_t, 256> *units) {
        if (kind_of(entry) != NAME_SLOT) {
            units->at(0) = 0;
            return false;
        }
        if ((entry[0] & 0x40) != 0) {
            return false;
        }
        return entry[13] == sum || fail(0, "get_long_name", mismatch(index)) != 0;
    }

    bytes buffer_; // one sector, of the last slot that was read
    location at_;
};

// ---- the fast walk ----------------------------------------------------------------------------

// The eight letters of a number in a fast path.
inline std::string fast_letters(std::uint32_t value) {
    std::string result;
    for (std::uint32_t digits = 8; digits-- > 0;) {
        result += static_cast<char>('@' + (value >> (4 * digits)) % 16);
    }
    return result;
}

// The results of one call of the walk. A call that finds no file does not set the last three.
struct fast_step {
    int result = 0;
    std::string printed;
    std::uint32_t slot = 0; // the cursor afterwards
    std::uint32_t cluster = 0;
    raw_entry entry = {}; // the file's, or the first slot of a long name met on the way
    std::string name;
    location where;
    bool operator==(const fast_step &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const fast_step &s) {
    return out << "{" << s.result << ", printed \"" << s.printed << "\", then at " << s.cluster
               << "/" << s.slot << ", \"" << s.name << "\" at " << s.where.sector << "+"
               << s.where.offset << ", entry " << shown_bytes({s.entry.begin(), s.entry.end()})
               << "}";
}

// One call after another over a directory whose chain is whole, with ASCII names.
class fast_walk {
public:
    fast_walk(directories *volume, std::uint32_t base) : v_(*volume), is_fixed_(base == 0) {
        bool is_cycle = false;
        clusters_ = is_fixed_ ? std::vector<std::uint32_t>{0} : v_.clusters_of(base, &is_cycle);
    }

    fast_step next() {
        step_ = {};
        first_slot_.reset();
        v_.printed.clear();
        if (slot_ == 0) {
            at_ = 0;
        }
        if (is_fixed_ && slot_ > FIXED_SLOTS) {
            return ended(v_.fail(-1, ME, "Check here!\n\n"));
        }
        for (;;) {
            if (is_fixed_ && slot_ > FIXED_SLOTS) {
                return ended(0);
            }
            const std::optional<int> result = visit();
            if (result) {
                return ended(*result);
            }
        }
    }

private:
    static constexpr const char *ME = "do_readdir_fast";
    static constexpr std::uint32_t FIXED_SLOTS = 512;

    [[nodiscard]] std::uint32_t per_cluster() const {
        return v_.shape.cluster_bytes() / 32;
    }
    [[nodiscard]] std::uint32_t index_in_cluster() const {
        return is_fixed_ ? slot_ : slot_ % per_cluster();
    }
    fast_step ended(int result) {
        if (result != 1) {
            step_ = {};
        }
        step_.result = result;
        step_.printed = v_.printed;
        step_.slot = slot_;
        step_.cluster = clusters_.at(at_);
        return step_;
    }
    // No value: the walk continues.
    std::optional<int> visit() {
        location where;
        const int result = v_.locate_slot(clusters_.at(at_), index_in_cluster(), &where);
        if (result < 0) {
            return v_.fail(result, ME, "Check here!\n\n");
        }
        const raw_entry entry = v_.entry_at(where);
        step_.entry = first_slot_.value_or(entry);
        switch (v_.kind_of(entry)) {
        case UNUSED:
            return -ENOENT;
        case FILE_ENTRY:
            step_.name = to_text(dos_name_of(entry), entry[12]);
            step_.where = where;
            return skip(1).value_or(is_fixed_ && slot_ > FIXED_SLOTS ? 0 : 1);
        case NAME_SLOT:
            return v_.long_names ? long_name(entry) : skip(1);
        default:
            return skip(1);
        }
    }
    // Moves the cursor; 0 where the chain ends.
    std::optional<int> skip(std::uint32_t slots) {
        const std::size_t links =
            is_fixed_ ? 0 : (slot_ + slots) / per_cluster() - slot_ / per_cluster();
        const bool ends = at_ + links >= clusters_.size();
        // Intentional: a long name that ends with the chain leaves the cursor at its first slot.
        slot_ += ends && slots > 1 ? 0 : slots;
        at_ += ends ? 0 : links;
        return ends ? std::optional(0) : std::nullopt;
    }
    std::optional<int> long_name(const raw_entry &first) {
        std::u16string units;
        const int slots = gather(first, &units);
        if (slots < 0) {
            return v_.fail(slots, ME, "Check here!\n\n");
        }
        if (slots == 0) {
            return skip(1);
        }
        step_.name.clear();
        for (const char16_t unit : units) {
            step_.name += unit < 0x80 ? static_cast<char>(unit) : '?';
        }
        step_.where = v_.slot_location();
        const bool is_directory = kind(v_.slot()) == DIR_ENTRY;
        const std::optional<int> end = skip(static_cast<std::uint32_t>(slots) + 1);
        if (end || is_directory) {
            return end;
        }
        return is_fixed_ && slot_ > FIXED_SLOTS ? 0 : 1;
    }
    // The units of a long name and how many slots it has, 0 for a broken one.
    int gather(const raw_entry &first, std::u16string *units) {
        const std::uint32_t base = clusters_.at(at_);
        std::uint32_t index = index_in_cluster();
        const int count = first[0] - 0x40;
        std::vector<std::u16string> parts = {units_of(first)};
        for (int k = count; k >= 1; k--) {
            const int result = v_.read_slot(base, ++index);
            if (result < 0) {
                return report(result, "fail to get dentry" +
                                          directories::position_text(base, index) + ": " +
                                          std::strerror(-result) + "\n\n");
            }
            first_slot_ = step_.entry;
            const std::string flaw = flaw_of(v_.slot(), k == 1, first[13], index);
            if (!flaw.empty()) {
                return report(0, flaw);
            }
            parts.insert(parts.begin(), units_of(v_.slot()));
        }
        for (std::size_t k = 1; count >= 1 && k < parts.size(); k++) {
            *units += parts[k];
            if (parts[k].size() < 13) {
                break;
            }
        }
        return std::max(count, 0);
    }
    int report(int result, const std::string &message) {
        return v_.fail(result, "get_long_name_fast", message);
    }
    // Why the next entry does not continue or end the long name.
    std::string flaw_of(const raw_entry &entry, bool is_last, std::uint8_t sum,
                        std::uint32_t index) {
        const entry_kind what = v_.kind_of(entry);
        const std::string position = "(" + std::to_string(index) + ")\n";
        if (is_last) {
            if (!is_short(entry)) { // the index looks like a source line here
                return "idx[N]: not SFN(type:" + std::to_string(what) + ")\n";
            }
            return checksum_of(dos_name_of(entry)) == sum ? "" : "not match checksum" + position;
        }
        if (what != NAME_SLOT) {
            return "not extend type" + position;
        }
        if (entry[0] > 0x40) {
            return "not LFN" + position;
        }
        return entry[13] == sum ? "" : "not match checksum" + position;
    }

    directories &v_;
    bool is_fixed_;
    std::vector<std::uint32_t> clusters_; // 0 for the root area
    std::size_t at_ = 0;                  // index of the cursor's cluster
    std::uint32_t slot_ = 0;              // the cursor, over the whole directory
    fast_step step_;
    std::optional<raw_entry> first_slot_;
};

} // namespace model
