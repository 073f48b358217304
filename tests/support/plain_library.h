// A second account of the mounted volume, written plainly: one table of links, the bytes of each
// cluster, a map of open ids; one entry, one sector, one cluster at a time. It uses nothing of the
// library, so that both can be held against each other after every call: results, bytes on the
// medium, open entries.

#pragma once

#include "tests/name_model.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace plain {

using byte_string = std::vector<std::uint8_t>;
using entry_bytes = std::array<std::uint8_t, 32>;

constexpr std::uint32_t ROOT_AREA = 0; // stands for the fixed root area of FAT16 among the clusters
constexpr std::uint32_t END = 0xFFFFFFFF;
constexpr std::size_t LONGEST_PATH = 260;
constexpr int IDS = 512;

enum class kind { file = 2, directory = 3, symlink = 7 };

struct medium_shape {
    std::uint32_t width = 16; // bits of a FAT entry
    std::uint32_t sector_bytes = 512;
    std::uint32_t cluster_bytes = 512;
    std::uint32_t clusters = 0;     // the last one is clusters + 1
    std::uint32_t root_cluster = 0; // FAT32
    std::uint32_t root_sector = 0;  // FAT16: where the root area begins
    std::uint32_t root_bytes = 0;   // FAT16: of the root area
    std::uint32_t fat_copies_sector = 0;
    std::uint32_t data_sector = 0; // where cluster 2 begins
    std::uint8_t fill = 0;         // of clusters that were never written
    bool long_names = true;
    std::uint16_t date = 0, time = 0; // of every change
};

// Where an entry or a piece of a file lies.
struct place {
    std::uint32_t cluster = 0;
    std::uint32_t offset = 0; // bytes
    auto operator<=>(const place &) const = default;
};

struct open_entry {
    std::uint32_t start = 0, last = 0, allocated = 0;
    std::uint64_t position = 0;
    std::uint32_t references = 1;
    bool is_root = false;             // or a copy of the root's record
    std::optional<entry_bytes> image; // none: the root, or an entry whose chain is broken off
    place where;
    std::uint32_t parent = 0;
};

// ---- entry images -----------------------------------------------------------------------------

inline std::uint32_t number_in(const entry_bytes &entry, std::size_t offset, std::size_t size) {
    std::uint32_t value = 0;
    for (std::size_t i = size; i-- > 0;) {
        value = value * 256 + entry.at(offset + i);
    }
    return value;
}
inline void put_number(entry_bytes *entry, std::size_t offset, std::size_t size,
                       std::uint32_t value) {
    for (std::size_t i = 0; i < size; i++) {
        entry->at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
    }
}
inline std::string dos_name_in(const entry_bytes &entry) {
    return {entry.begin(), entry.begin() + 11};
}
inline std::uint32_t start_in(const entry_bytes &entry) {
    return number_in(entry, 20, 2) * 65536 + number_in(entry, 26, 2);
}
inline void put_start(entry_bytes *entry, std::uint32_t start) {
    put_number(entry, 20, 2, start / 65536);
    put_number(entry, 26, 2, start % 65536);
}
inline std::uint32_t size_in(const entry_bytes &entry) {
    return number_in(entry, 28, 4);
}
// 0 unused, 1 deleted, 2 file, 3 directory, 4 long-name slot, 6 neither, 8 label.
inline unsigned kind_of(const entry_bytes &entry) {
    return name_model::kind(entry[0], entry[11]);
}
inline bool is_directory(const std::optional<entry_bytes> &image) {
    return image && (*image)[0] != 0 && (*image)[0] != 0xE5 && ((*image)[11] & 0x18) == 0x10;
}
inline bool is_dot_entry(const entry_bytes &entry) {
    const std::string dos = dos_name_in(entry);
    return dos == name_model::padded(".", 11) || dos == name_model::padded("..", 11);
}

// Where the 13 units of a long-name slot stand.
constexpr std::array<std::size_t, 13> UNIT_PLACES = {1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30};

inline entry_bytes slot_of(const std::vector<std::uint16_t> &units, std::size_t ordinal,
                           bool is_last, unsigned checksum) {
    entry_bytes slot = {};
    slot[0] = static_cast<std::uint8_t>(ordinal + (is_last ? 0x40 : 0));
    slot[11] = 0x0F;
    slot[13] = static_cast<std::uint8_t>(checksum);
    for (std::size_t i = 0; i < UNIT_PLACES.size(); i++) {
        const std::size_t at = (ordinal - 1) * 13 + i;
        const std::uint32_t unit = at < units.size() ? units[at] : at == units.size() ? 0 : 0xFFFF;
        put_number(&slot, UNIT_PLACES.at(i), 2, unit);
    }
    return slot;
}

// The long name in front of a short entry, as a lookup gathers it: by ordinals, checksums unseen.
struct gathered_name {
    std::array<std::uint32_t, 256> units = {};
    bool has_any = false;

    void add(const entry_bytes &slot) {
        has_any = true;
        const int first = (static_cast<int>(slot[0] & ~0x40) - 1) * 13;
        for (int i = 0; i < 13; i++) {
            const std::uint32_t unit =
                number_in(slot, UNIT_PLACES.at(static_cast<std::size_t>(i)), 2);
            put(first + i, unit);
            if (unit == 0) {
                return;
            }
        }
        if (slot[0] > 0x40) {
            put(first + 13, 0);
        }
    }
    [[nodiscard]] bool equals(const std::vector<std::uint16_t> &name) const {
        for (std::size_t i = 0; i < units.size(); i++) {
            if (units.at(i) != (i < name.size() ? name[i] : 0)) {
                return false;
            }
            if (i >= name.size()) {
                return true;
            }
        }
        return true;
    }

private:
    void put(int at, std::uint32_t unit) {
        if (at >= 0 && at < 256) {
            units.at(static_cast<std::size_t>(at)) = unit;
        }
    }
};

// ---- the medium -------------------------------------------------------------------------------

class medium {
public:
    explicit medium(const medium_shape &of) : shape(of) {}

    const medium_shape shape;
    std::vector<std::uint32_t> links;           // all bits of each entry of the first FAT
    std::map<std::uint32_t, byte_string> bytes; // by cluster
    std::set<std::uint64_t> changed;            // numbers of the sectors written
    std::uint32_t hint = 0;                     // of the search for a free cluster

    [[nodiscard]] std::uint32_t last_cluster() const {
        return shape.clusters + 1;
    }
    [[nodiscard]] std::uint32_t end_mark() const {
        return shape.width == 16 ? 0xFFFF : 0x0FFFFFFF;
    }
    [[nodiscard]] bool is_end(std::uint32_t value) const {
        return value >= end_mark() - 7;
    }
    [[nodiscard]] std::uint32_t value_of(std::uint32_t cluster) const {
        return links.at(cluster) & end_mark();
    }
    [[nodiscard]] std::uint32_t count_free() const {
        return static_cast<std::uint32_t>(
            std::count_if(links.begin() + 2, links.end(),
                          [this](std::uint32_t link) { return (link & end_mark()) == 0; }));
    }

    // The link of a data cluster: 0 for a free one; negative where there is none.
    [[nodiscard]] int next_of(std::uint32_t cluster) const {
        if (cluster < 2 || cluster > last_cluster()) {
            return -EINVAL;
        }
        const std::uint32_t value = value_of(cluster);
        const bool is_odd = value == 1 || value > last_cluster() || value == end_mark() - 8;
        return is_odd && !is_end(value) ? -EINVAL : static_cast<int>(value);
    }
    void set_link(std::uint32_t cluster, std::uint32_t value) {
        std::uint32_t &link = links.at(cluster);
        link = (link & ~end_mark()) | (value & end_mark());
        changed.insert(shape.fat_copies_sector +
                       std::uint64_t{cluster} * (shape.width / 8) / shape.sector_bytes);
    }
    // The clusters of a chain. Returns how many, 0 for one that runs into a free one, or an error.
    int count_chain(std::uint32_t start, std::uint32_t *last) const {
        std::uint32_t cluster = start;
        for (int count = 1;; count++) {
            const int next = next_of(cluster);
            if (next <= 0) {
                return next;
            }
            if (is_end(static_cast<std::uint32_t>(next))) {
                *last = cluster;
                return count;
            }
            cluster = static_cast<std::uint32_t>(next);
        }
    }
    // Byte `offset` of the chain, or of the root area.
    int locate(std::uint32_t base, std::uint64_t offset, place *found) const {
        if (base > last_cluster()) {
            return -EINVAL;
        }
        if (base == ROOT_AREA && shape.width == 16) {
            *found = {ROOT_AREA, static_cast<std::uint32_t>(offset)};
            return offset < shape.root_bytes ? 0 : -EFAULT;
        }
        if (base < 2) {
            return -EINVAL;
        }
        std::uint32_t cluster = base;
        for (std::uint64_t left = offset / shape.cluster_bytes; left > 0; left--) {
            const int next = next_of(cluster);
            if (next < 0) {
                return next;
            }
            cluster = static_cast<std::uint32_t>(next);
        }
        if (cluster == 0) {
            return -EINVAL;
        }
        *found = {cluster, static_cast<std::uint32_t>(offset % shape.cluster_bytes)};
        return is_end(cluster) ? -EFAULT : 0;
    }

    // Byte `offset` of the chain for a walk that goes forward sector by sector and stood at `where`
    // before; a fresh place begins one.
    int step(std::uint32_t base, std::uint64_t offset, place *where) const {
        if (where->cluster == ROOT_AREA) {
            return locate(base, offset, where);
        }
        where->offset = static_cast<std::uint32_t>(offset % shape.cluster_bytes);
        return where->offset != 0 ? 0 : locate(where->cluster, shape.cluster_bytes, where);
    }

    byte_string &content_of(std::uint32_t cluster) {
        const std::size_t size = cluster == ROOT_AREA ? shape.root_bytes : shape.cluster_bytes;
        return bytes.try_emplace(cluster, size, shape.fill).first->second;
    }
    entry_bytes entry_at(const place &where) {
        const byte_string &content = content_of(where.cluster);
        entry_bytes result = {};
        std::copy_n(content.begin() + where.offset, result.size(), result.begin());
        return result;
    }
    void put_entry(const place &where, const entry_bytes &entry) {
        std::copy(entry.begin(), entry.end(), content_of(where.cluster).begin() + where.offset);
        mark(where);
    }
    // Puts bytes into one sector; what follows them there becomes zero.
    void put_data(const place &where, const std::uint8_t *data, std::uint32_t count) {
        const auto begin = content_of(where.cluster).begin() + where.offset;
        std::copy_n(data, count, begin);
        const std::uint32_t rest = shape.sector_bytes - where.offset % shape.sector_bytes - count;
        std::fill_n(begin + count, rest, std::uint8_t{0});
        mark(where);
    }
    void clear(std::uint32_t cluster) {
        content_of(cluster).assign(shape.cluster_bytes, 0);
        for (std::uint32_t at = 0; at < shape.cluster_bytes; at += shape.sector_bytes) {
            mark({cluster, at});
        }
    }

    // One sector as it must stand on the medium. Nothing where no call writes.
    std::optional<byte_string> sector(std::uint64_t number) {
        if (number >= shape.data_sector) {
            const std::uint64_t at = (number - shape.data_sector) * shape.sector_bytes;
            const auto cluster = static_cast<std::uint32_t>(at / shape.cluster_bytes + 2);
            return cut(content_of(cluster), at % shape.cluster_bytes);
        }
        if (shape.width == 16 && number >= shape.root_sector) {
            return cut(content_of(ROOT_AREA), (number - shape.root_sector) * shape.sector_bytes);
        }
        const std::uint64_t at = (number - shape.fat_copies_sector) * shape.sector_bytes;
        const std::uint64_t first = at / (shape.width / 8);
        if (number < shape.fat_copies_sector || first >= links.size()) {
            return std::nullopt;
        }
        return fat_sector(first);
    }

private:
    void mark(const place &where) {
        const std::uint64_t first = where.cluster == ROOT_AREA
                                        ? shape.root_sector
                                        : shape.data_sector + std::uint64_t{where.cluster - 2} *
                                                                  shape.cluster_bytes /
                                                                  shape.sector_bytes;
        changed.insert(first + where.offset / shape.sector_bytes);
    }
    [[nodiscard]] byte_string cut(const byte_string &content, std::uint64_t at) const {
        const auto begin = content.begin() + static_cast<std::ptrdiff_t>(at);
        return {begin, begin + shape.sector_bytes};
    }
    [[nodiscard]] byte_string fat_sector(std::uint64_t first) const {
        byte_string result;
        for (std::uint64_t i = first; result.size() < shape.sector_bytes; i++) {
            const std::uint32_t link = i < links.size() ? links[static_cast<std::size_t>(i)] : 0;
            for (std::uint32_t bit = 0; bit < shape.width; bit += 8) {
                result.push_back(static_cast<std::uint8_t>(link >> bit));
            }
        }
        return result;
    }
};

// ---- the library ------------------------------------------------------------------------------

class library {
public:
    explicit library(const medium_shape &of) : disk(of) {}

    medium disk;
    std::map<int, open_entry> table; // by id; 0 is the root directory
    int current = 0;
    // The short entry that the last successful creation built, and the one that was removed.
    place last_built, last_removed;

    // A volume that was formatted just before remembers where its root directory lies.
    void mount(std::uint32_t hint) {
        table.clear();
        disk.hint = hint;
        open_dir();
    }

    // -- open entries

    // The root directory, anew; it becomes the current one.
    int open_dir() {
        open_entry root;
        root.is_root = true;
        const medium_shape &shape = disk.shape;
        if (shape.width == 16) {
            root.start = shape.root_sector;
            root.last = shape.data_sector - 1;
            root.allocated = 16384;
        } else {
            root.start = shape.root_cluster;
            measure(&root);
        }
        table[0] = root;
        current = 0;
        return 0;
    }
    int open(const std::string &path) {
        std::string name = path;
        if (!normalise(&name)) {
            return -ENAMETOOLONG;
        }
        if (name.empty()) {
            return 0;
        }
        target found = look_up(name);
        if (found.result < 0) {
            return found.result;
        }
        const int index = find(found);
        return index < 0 ? index : open_at(*found.dir(), static_cast<std::uint32_t>(index));
    }
    int open_dir(const std::string &path) {
        return refuse_unless(open(path), true, -ENOTDIR);
    }
    int open_file(const std::string &path) {
        return refuse_unless(open(path), false, -EISDIR);
    }
    int close(int id) {
        if (id == 0 || id >= IDS) {
            return -EINVAL;
        }
        const auto slot = table.find(id);
        if (slot != table.end() && --slot->second.references == 0) {
            table.erase(slot);
            current = current == id ? 0 : current;
        }
        return 0;
    }
    int set_current(int id) {
        if (!table.contains(id)) {
            return -EBADF;
        }
        open_entry &entry = table.at(id);
        if (!(id == 0 && !entry.image) && !is_directory(entry.image)) {
            return -ENOTDIR;
        }
        const int old = current;
        current = id;
        entry.references += id != 0 ? 1 : 0;
        if (old != 0) {
            close(old);
        }
        return id;
    }

    // -- names

    int create(const std::string &path, kind what) {
        std::string name = path;
        if (!normalise(&name)) {
            return -ENAMETOOLONG;
        }
        target found = look_up(name);
        if (found.result < 0) {
            return found.result;
        }
        const int index = build_new(found, what);
        return index < 0 ? index : open_at(*found.dir(), static_cast<std::uint32_t>(index));
    }
    int create_symlink(const std::string &text, const std::string &path) {
        if (text.size() > LONGEST_PATH) {
            return -ENAMETOOLONG;
        }
        const int id = create(path, kind::symlink);
        if (id < 0) {
            return id;
        }
        const int written = write(id, {text.begin(), text.end()});
        close(id);
        return !text.empty() && written == static_cast<int>(text.size()) ? 0 : written;
    }
    int unlink(const std::string &path) {
        target found = find_entry(path);
        return found.result < 0 ? found.result : remove_with_clusters(*found.dir(), found.index);
    }
    int rm_entry(const std::string &path) {
        target found = find_entry(path);
        return found.result < 0 ? found.result : mark_removed(*found.dir(), found.index);
    }
    // The entry that a removal would take, where it would find one.
    std::optional<std::pair<place, entry_bytes>> peek(const std::string &path) {
        target found = find_entry(path);
        place where;
        if (found.result < 0 || entry_place(*found.dir(), found.index, &where) < 0) {
            return std::nullopt;
        }
        return std::pair(where, disk.entry_at(where));
    }

    // -- data

    int write(int id, const byte_string &data) {
        if (data.empty()) {
            return -EINVAL;
        }
        const int result = check_file(id);
        return result < 0 ? result : append(&table.at(id), data);
    }
    int read(int id, std::uint32_t count, byte_string *out) {
        out->clear();
        if (count == 0) {
            return -EINVAL;
        }
        const int result = check_file(id);
        return result < 0 ? result : read_entry(&table.at(id), count, out);
    }
    std::int64_t seek(int id, std::int64_t offset, int whence) {
        if (!table.contains(id)) {
            return -EINVAL;
        }
        open_entry &entry = table.at(id);
        if (!entry.image || is_directory(entry.image)) {
            return -EISDIR;
        }
        if (whence < 0 || whence > 2) {
            return -EINVAL;
        }
        const std::uint64_t from = whence == 0   ? 0
                                   : whence == 1 ? entry.position
                                                 : size_in(*entry.image);
        entry.position = from + static_cast<std::uint64_t>(offset);
        return static_cast<std::int64_t>(entry.position);
    }
    std::optional<std::string> short_name(int id) const {
        if (!table.contains(id) || !table.at(id).image) {
            return std::nullopt;
        }
        return dos_name_in(*table.at(id).image);
    }

    // -- for those who look at it

    [[nodiscard]] std::uint32_t base_of(const open_entry &dir) const {
        return is_fat16_root(dir) ? ROOT_AREA : dir.start;
    }
    int entry_place(const open_entry &dir, std::uint32_t index, place *where) const {
        if (index >= dir.allocated / 32) {
            return -EFAULT;
        }
        return disk.locate(base_of(dir), std::uint64_t{index} * 32, where);
    }
    int open_at(const open_entry &dir, std::uint32_t index) {
        place where;
        int result = entry_place(dir, index, &where);
        if (result < 0) {
            return result;
        }
        open_entry entry;
        result = fill(&entry, disk.entry_at(where), where);
        if (result < 0) {
            return result;
        }
        entry.parent = base_of(dir);
        for (int id = 1; id < IDS; id++) {
            if (table.try_emplace(id, entry).second) {
                return id;
            }
        }
        return -EMFILE;
    }

private:
    // What a path leads to.
    struct target {
        int result = 0;
        open_entry *registered = nullptr;
        std::optional<open_entry> temporary;
        std::string leaf;
        std::uint32_t index = 0;

        // None for a path that leads deeper than one level.
        open_entry *dir() {
            return temporary ? &*temporary : registered;
        }
    };

    static bool normalise(std::string *path) {
        if (path->size() > LONGEST_PATH) {
            return false;
        }
        const std::size_t last = path->find_last_not_of('/');
        path->resize(last == std::string::npos ? 0 : last + 1);
        return true;
    }
    target look_up(const std::string &path) {
        target result;
        open_entry &start = table.at(!path.empty() && path[0] == '/' ? 0 : current);
        const std::size_t begin = std::min(path.find_first_not_of('/'), path.size());
        std::vector<std::string> parts = {""};
        for (const char c : path.substr(begin)) {
            if (c == '/') {
                parts.emplace_back();
            } else {
                parts.back() += c;
            }
        }
        result.leaf = parts.back();
        parts.pop_back();
        if (name_model::is_refused(result.leaf)) {
            result.result = -EINVAL;
            return result;
        }
        if (parts.empty()) {
            result.registered = &start;
            return result;
        }
        for (const std::string &part : parts) {
            if (part != ".") {
                result.result = look_at_parent(start, part);
                return result;
            }
        }
        open_again(start, &result);
        return result;
    }
    // A parent is only looked for; nothing is opened.
    int look_at_parent(const open_entry &dir, const std::string &name) {
        const int index = name == ".." ? 1 : find_in(base_of(dir), name.substr(0, 255));
        place where;
        return index < 0
                   ? index
                   : disk.locate(base_of(dir), static_cast<std::uint64_t>(index) * 32, &where);
    }
    void open_again(const open_entry &start, target *result) {
        open_entry again = start;
        again.position = 0;
        again.references = 1;
        if (start.image) {
            result->result = fill(&again, *start.image, start.where);
            if (result->result == 0 && !again.image) {
                result->result = -ENOENT; // the directory has been removed
            }
        } else if (disk.shape.width == 32) {
            result->result = measure(&again);
        }
        result->temporary = again;
    }

    // -- lookup

    int find_in(std::uint32_t base, const std::string &name) {
        const name_model::record wanted = name_model::to_record(name, disk.shape.long_names);
        if (wanted.result < 0) {
            return wanted.result;
        }
        gathered_name gathered;
        for (std::uint32_t index = 0;; index++) {
            place where;
            const int result = disk.locate(base, std::uint64_t{index} * 32, &where);
            if (result < 0) {
                return result == -EFAULT ? -ENOENT : result;
            }
            const entry_bytes entry = disk.entry_at(where);
            const unsigned what = kind_of(entry);
            if (what == 0) {
                return -ENOENT;
            }
            if (what == 4 && wanted.units) {
                gathered.add(entry);
            } else if ((what == 2 || what == 3) && matches(entry, wanted, gathered)) {
                return static_cast<int>(index);
            } else {
                gathered.has_any = false;
            }
        }
    }
    static bool matches(const entry_bytes &entry, const name_model::record &wanted,
                        const gathered_name &gathered) {
        const bool same_dos = dos_name_in(entry) == wanted.dos;
        if (!wanted.units) {
            return same_dos;
        }
        return gathered.has_any &&
               (gathered.equals(*wanted.units) || (gathered.units[0] == 0 && same_dos));
    }
    int find(target &where) {
        return where.dir() == nullptr ? -EINVAL : find_in(base_of(*where.dir()), where.leaf);
    }
    target find_entry(const std::string &path) {
        std::string name = path;
        target found;
        if (!normalise(&name)) {
            found.result = -ENAMETOOLONG;
            return found;
        }
        found = look_up(name);
        if (found.result == 0) {
            found.result = find(found);
            found.index = static_cast<std::uint32_t>(std::max(found.result, 0));
        }
        return found;
    }

    // -- records

    [[nodiscard]] bool is_fat16_root(const open_entry &entry) const {
        return entry.is_root && disk.shape.width == 16;
    }
    [[nodiscard]] std::uint32_t slots_of(const open_entry &dir) const {
        return is_fat16_root(dir) ? 512 : dir.allocated / 32;
    }
    int measure(open_entry *entry) const {
        entry->last = 0;
        entry->allocated = 0;
        if (entry->start == 0) {
            return 0;
        }
        const int count = disk.count_chain(entry->start, &entry->last);
        if (count <= 0) {
            entry->image.reset(); // a chain that runs into a free cluster leaves none
            return count;
        }
        entry->allocated = static_cast<std::uint32_t>(count) * disk.shape.cluster_bytes;
        return 0;
    }
    int fill(open_entry *entry, const entry_bytes &image, const place &where) {
        if (dos_name_in(image) == name_model::padded("..", 11) && start_in(image) == 0) {
            *entry = table.at(0);
            return 0;
        }
        entry->start = start_in(image);
        entry->image = image;
        entry->where = where;
        return measure(entry);
    }
    int refuse_unless(int id, bool wants_directory, int error) {
        if (id > 0 && is_directory(table.at(id).image) != wants_directory) {
            close(id);
            return error;
        }
        return id;
    }
    int check_file(int id) {
        if (!table.contains(id)) {
            return -EINVAL;
        }
        const open_entry &entry = table.at(id);
        return !entry.image || is_directory(entry.image) ? -EISDIR : 0;
    }

    // -- clusters

    int find_free(std::uint32_t first, std::uint32_t last) const {
        for (std::uint32_t cluster = first; cluster <= last; cluster++) {
            if (disk.value_of(cluster) == 0) {
                return static_cast<int>(cluster);
            }
        }
        return -ENOENT;
    }
    int allocate(open_entry *entry, std::uint32_t *cluster) {
        if (disk.hint < 2 || disk.hint > disk.shape.clusters) {
            disk.hint = 1;
        }
        int found = find_free(disk.hint + 1, disk.last_cluster());
        if (found < 0) {
            found = find_free(2, disk.hint);
        }
        if (found < 0) {
            return -ENOSPC;
        }
        *cluster = static_cast<std::uint32_t>(found);
        if (entry != nullptr && (entry->start != 0 || entry->last != 0)) {
            disk.set_link(entry->last, *cluster);
        }
        disk.set_link(*cluster, END);
        if (entry != nullptr) {
            extend(entry, *cluster);
        }
        disk.hint = *cluster;
        return 0;
    }
    void extend(open_entry *entry, std::uint32_t cluster) const {
        if (entry->start == 0 && entry->last == 0) {
            entry->start = cluster;
            if (entry->image) {
                put_start(&*entry->image, cluster);
            }
        }
        entry->last = cluster;
        entry->allocated += disk.shape.cluster_bytes;
    }
    int extend_directory(open_entry *dir, std::uint32_t *cluster) {
        const int result = allocate(dir, cluster);
        if (result < 0) {
            return result;
        }
        disk.clear(*cluster);
        for (auto &[id, record] : table) {
            const bool is_dir =
                is_directory(record.image) || (!record.image && disk.shape.width == 32);
            if (dir != nullptr && record.start == dir->start && is_dir) {
                record.last = dir->last;
                record.allocated = dir->allocated;
            }
        }
        return 0;
    }

    // -- new entries

    int build_new(target &where, kind what) {
        open_entry *dir = where.dir();
        if (dir == nullptr || !(dir->is_root || is_directory(dir->image))) {
            return -EINVAL;
        }
        const int found = find_in(base_of(*dir), where.leaf);
        if (found != -ENOENT) {
            return found >= 0 ? -EEXIST : found;
        }
        name_model::record name = name_model::to_record(where.leaf, disk.shape.long_names);
        const std::uint32_t slots =
            name.units ? static_cast<std::uint32_t>(name.units->size() + 12) / 13 : 0;
        const int first = find_empty(dir, slots + 1);
        if (first < 0) {
            return -ENOSPC;
        }
        std::uint32_t cluster = 0;
        if (what != kind::file && extend_directory(nullptr, &cluster) < 0) {
            return -ENOSPC;
        }
        const int index =
            build(*dir, static_cast<std::uint32_t>(first), slots, what, &name, cluster);
        if (index >= 0 && what == kind::directory) {
            put_dot_entries(dir->image ? dir->start : 0, cluster);
        }
        return index;
    }
    int find_empty(open_entry *dir, std::uint32_t count) {
        std::uint32_t run = 0;
        std::uint32_t index = 0;
        for (; index < slots_of(*dir); index++) {
            place where;
            const int result = entry_place(*dir, index, &where);
            if (result == -EFAULT) {
                break;
            }
            if (result < 0) {
                return result;
            }
            run = kind_of(disk.entry_at(where)) <= 1 ? run + 1 : 0;
            if (run == count) {
                return static_cast<int>(index + 1 - count);
            }
        }
        if (disk.shape.width == 16 && dir->is_root) {
            return -ENOSPC;
        }
        while (run < count) {
            std::uint32_t cluster = 0;
            if (extend_directory(dir, &cluster) < 0) {
                return -ENOSPC;
            }
            for (; run < count && index < slots_of(*dir); index++) {
                run++;
            }
        }
        return static_cast<int>(index - count);
    }
    int build(const open_entry &dir, std::uint32_t first, std::uint32_t slots, kind what,
              name_model::record *name, std::uint32_t cluster) {
        if (name->units) {
            const unsigned tail = name_model::free_tail(entries_of(dir), name->dos);
            if (tail == 0) {
                return -EEXIST;
            }
            name->dos = name_model::with_tail(name->dos, tail);
        }
        const std::uint32_t index = first + slots;
        for (std::uint32_t ordinal = 1; ordinal <= slots; ordinal++) {
            put_at(
                dir, index - ordinal,
                slot_of(*name->units, ordinal, ordinal == slots, name_model::checksum(name->dos)));
        }
        put_at(dir, index, short_entry(name->dos, what, name->lcase, cluster));
        place where;
        entry_place(dir, index, &where);
        last_built = where;
        return static_cast<int>(index);
    }
    void put_at(const open_entry &dir, std::uint32_t index, const entry_bytes &entry) {
        place where;
        if (entry_place(dir, index, &where) == 0) {
            disk.put_entry(where, entry);
        }
    }
    std::vector<std::string> entries_of(const open_entry &dir) {
        std::vector<std::string> result;
        for (std::uint32_t index = 0; index < slots_of(dir); index++) {
            place where;
            if (entry_place(dir, index, &where) < 0) {
                break;
            }
            const entry_bytes entry = disk.entry_at(where);
            if (entry[0] == 0) {
                break;
            }
            result.emplace_back(entry.begin(), entry.end());
        }
        return result;
    }
    [[nodiscard]] entry_bytes short_entry(const std::string &dos, kind what, unsigned lcase,
                                          std::uint32_t start) const {
        entry_bytes entry = {};
        std::copy(dos.begin(), dos.end(), entry.begin());
        entry[11] = what == kind::directory ? 0x10 : 0;
        entry[12] = static_cast<std::uint8_t>(lcase);
        entry[13] = what == kind::symlink ? 0xE2 : 0;
        put_start(&entry, start);
        put_number(&entry, 22, 2, disk.shape.time);
        put_number(&entry, 24, 2, disk.shape.date);
        return entry;
    }
    void put_dot_entries(std::uint32_t parent, std::uint32_t cluster) {
        disk.put_entry({cluster, 0},
                       short_entry(name_model::padded(".", 11), kind::directory, 0, cluster));
        disk.put_entry({cluster, 32},
                       short_entry(name_model::padded("..", 11), kind::directory, 0, parent));
    }

    // -- removing

    int remove_with_clusters(const open_entry &dir, std::uint32_t index) {
        const int id = open_at(dir, index);
        if (id < 0) {
            return -EINVAL;
        }
        const open_entry entry = table.at(id);
        close(id);
        if (!entry.image) {
            return -ENOENT;
        }
        if (is_directory(entry.image) && !is_empty(entry)) {
            return -ENOTEMPTY;
        }
        if (entry.start == 0) {
            return -EINVAL; // no chain to release
        }
        for (std::uint32_t cluster = entry.start; !disk.is_end(cluster);) {
            const std::uint32_t next = disk.value_of(cluster);
            disk.set_link(cluster, 0);
            cluster = next;
        }
        return mark_removed(dir, index);
    }
    bool is_empty(const open_entry &dir) {
        for (std::uint32_t index = 2; index < dir.allocated / 32; index++) {
            place where;
            if (entry_place(dir, index, &where) < 0 || kind_of(disk.entry_at(where)) > 1) {
                return false;
            }
        }
        return true;
    }
    // The checksum is that of the name with its first byte already replaced.
    int mark_removed(const open_entry &dir, std::uint32_t index) {
        place where;
        int result = entry_place(dir, index, &where);
        if (result < 0) {
            return result;
        }
        std::map<place, entry_bytes> marked;
        entry_bytes entry = disk.entry_at(where);
        entry[0] = 0xE5;
        marked[where] = entry;
        last_removed = where;
        const unsigned checksum = name_model::checksum(dos_name_in(entry));
        while (index-- > 0) {
            result = entry_place(dir, index, &where);
            if (result < 0) {
                return result;
            }
            entry_bytes slot = disk.entry_at(where);
            if (slot[11] != 0x0F || slot[13] != checksum) {
                break;
            }
            slot[11] = 0xE5;
            marked[where] = slot;
            if ((slot[0] & 0x40) != 0) {
                break;
            }
        }
        for (const auto &[at, image] : marked) {
            disk.put_entry(at, image);
        }
        return static_cast<int>(marked.size());
    }

    // -- data

    int append(open_entry *entry, const byte_string &data) {
        const std::uint32_t size = size_in(*entry->image);
        const auto count = static_cast<std::uint32_t>(data.size());
        const auto missing = static_cast<std::int32_t>(count - (entry->allocated - size));
        const std::uint32_t unit = disk.shape.cluster_bytes;
        const std::uint32_t wanted =
            missing > 0 ? (unit + static_cast<std::uint32_t>(missing) - 1) / unit : 0;
        if (std::uint64_t{size} + count > UINT32_MAX ||
            entry->allocated + std::uint64_t{wanted} * unit > UINT32_MAX) {
            return -EFBIG;
        }
        const std::uint32_t old_last = entry->last;
        std::vector<std::uint32_t> clusters;
        int result = 0;
        while (result == 0 && clusters.size() < wanted) {
            std::uint32_t cluster = 0;
            result = allocate(entry, &cluster);
            if (result == 0) {
                clusters.push_back(cluster);
            }
        }
        result = result < 0 ? result : put_data(*entry, size, data);
        if (result < 0) {
            if (wanted > 0) {
                take_back(entry, old_last, clusters);
            }
            return result;
        }
        put_number(&*entry->image, 28, 4, size + count);
        put_number(&*entry->image, 22, 2, 0);
        put_number(&*entry->image, 24, 2, disk.shape.date);
        disk.put_entry(entry->where, *entry->image);
        return static_cast<int>(count);
    }
    int put_data(const open_entry &entry, std::uint32_t size, const byte_string &data) {
        const std::uint32_t unit = disk.shape.sector_bytes;
        place where;
        for (std::size_t done = 0; done < data.size();) {
            const int result = disk.step(entry.start, size, &where);
            if (result < 0) {
                return result;
            }
            const auto left = static_cast<std::uint32_t>(data.size() - done);
            const std::uint32_t chunk = std::min(unit - size % unit, left);
            disk.put_data(where, data.data() + done, chunk);
            done += chunk;
            size += chunk;
        }
        return 0;
    }
    void take_back(open_entry *entry, std::uint32_t old_last,
                   const std::vector<std::uint32_t> &clusters) {
        disk.set_link(old_last, END);
        entry->last = old_last;
        entry->allocated -= static_cast<std::uint32_t>(clusters.size()) * disk.shape.cluster_bytes;
        for (const std::uint32_t cluster : clusters) {
            disk.set_link(cluster, 0);
        }
    }
    int read_entry(open_entry *entry, std::uint32_t count, byte_string *out) {
        const std::uint32_t size = size_in(*entry->image);
        if (entry->position > INT64_MAX) {
            return -EINVAL;
        }
        if (entry->position > size) {
            return -EINVAL;
        }
        const std::uint32_t wanted =
            std::min(count, static_cast<std::uint32_t>(size - entry->position));
        place where;
        while (out->size() < wanted) {
            const int result = disk.step(entry->start, entry->position + out->size(), &where);
            if (result < 0) {
                return result;
            }
            const byte_string &content = disk.content_of(where.cluster);
            const std::size_t chunk = std::min<std::size_t>(
                wanted - out->size(),
                disk.shape.sector_bytes - where.offset % disk.shape.sector_bytes);
            const auto begin = content.begin() + where.offset;
            out->insert(out->end(), begin, begin + static_cast<std::ptrdiff_t>(chunk));
        }
        entry->position += wanted;
        return static_cast<int>(wanted);
    }
};

} // namespace plain
