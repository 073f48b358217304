// Reference model, layer 4: the mounted volume.
//
// Models: the table of open entries, the current directory, paths, creating and removing entries,
// writing, reading and seeking in files. Results, bytes on the medium and the fields of open
// entries are those of the public calls.
//
// Not modelled: diagnostics above those of file data and of the layers below; attributes, dumps,
// listings, imports; permissions. A path goes one level deep, as in the library: directories on
// the way are looked for and never entered.

#pragma once

#include "tests/model/directory.h"

#include <climits>
#include <map>

namespace model {

constexpr std::size_t LONGEST_PATH = 260;
constexpr int IDS = 512;

enum class created { file, directory, symlink };

struct open_entry : open_chain {
    std::uint64_t position = 0;
    std::uint32_t references = 1;
    location where; // of its directory entry
    bool operator==(const open_entry &) const = default;

    [[nodiscard]] bool is_directory() const {
        return cached && (*cached)[0] != 0 && (*cached)[0] != 0xE5 &&
               ((*cached)[11] & 0x18) == 0x10;
    }
    [[nodiscard]] std::uint32_t size() const {
        return size_of(*cached);
    }
};

inline std::ostream &operator<<(std::ostream &out, const open_entry &e) {
    return out << "{" << e.start << ".." << e.last << ", " << e.allocated << " bytes, at "
               << e.position << ", " << e.references << " references, in sector " << e.where.sector
               << " + " << e.where.offset << ", cached "
               << (e.cached ? shown_bytes({e.cached->begin(), e.cached->end()}) : "nothing") << "}";
}

class volume : public directories {
public:
    using directories::directories;

    std::map<int, open_entry> table; // by id; 0 is the root directory
    int current = 0;
    std::uint16_t date = 0, time = 0; // the present, as entries have it
    // The short entry of the last successful creation, and the one that was removed last.
    location last_built, last_removed;

    // -- open entries

    // Opens the root directory again; it becomes the current one.
    int open_dir() {
        open_entry root;
        root.is_root = true;
        root.start = shape.width == 16 ? shape.root_start : shape.root_cluster;
        if (shape.width == 16) {
            root.last = shape.data_start - 1;
            root.allocated = 16384;
        } else {
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
        const target found = find_target(name);
        return found.result < 0 ? found.result
                                : open_at(found.dir, static_cast<std::uint32_t>(found.result));
    }
    int open_dir(const std::string &path) {
        return refuse_unless(open(path), true, -ENOTDIR);
    }
    int open_file(const std::string &path) {
        return refuse_unless(open(path), false, -EISDIR);
    }
    int open_at(const open_chain &dir, std::uint32_t index) {
        int result = read_slot(dir, index);
        if (result < 0) {
            return result;
        }
        open_entry entry;
        result = fill(&entry, slot(), slot_location());
        for (int id = 1; result == 0 && id < IDS; id++) {
            if (table.try_emplace(id, entry).second) {
                return id;
            }
        }
        return result < 0 ? result : -EMFILE;
    }
    int close(int id) {
        if (id == 0 || id >= IDS) {
            return -EINVAL;
        }
        const auto found = table.find(id);
        if (found != table.end() && --found->second.references == 0) {
            table.erase(found);
            current = current == id ? 0 : current;
        }
        return 0;
    }
    int set_current(int id) {
        const auto found = table.find(id);
        if (found == table.end()) {
            return -EBADF;
        }
        open_entry &entry = found->second;
        if (!(id == 0 && !entry.cached) && !entry.is_directory()) {
            return -ENOTDIR;
        }
        entry.references += id != 0 ? 1 : 0;
        const int old = std::exchange(current, id);
        if (old != 0) {
            close(old);
        }
        return id;
    }
    [[nodiscard]] std::optional<std::string> short_name(int id) const {
        if (!table.contains(id) || !table.at(id).cached) {
            return std::nullopt;
        }
        return dos_name_of(*table.at(id).cached);
    }

    // -- names

    int create(const std::string &path, created what) {
        std::string name = path;
        if (!normalise(&name)) {
            return -ENAMETOOLONG;
        }
        target found = resolve(name);
        if (found.result < 0) {
            return found.result;
        }
        const int index = build_new(&found, what);
        return index < 0 ? index : open_at(found.dir, static_cast<std::uint32_t>(index));
    }
    int create_symlink(const std::string &text, const std::string &path) {
        if (text.size() > LONGEST_PATH) {
            return -ENAMETOOLONG;
        }
        const int id = create(path, created::symlink);
        if (id < 0) {
            return id;
        }
        const int written = write(id, {text.begin(), text.end()});
        close(id);
        return !text.empty() && written == static_cast<int>(text.size()) ? 0 : written;
    }
    int unlink(const std::string &path) {
        const target found = find_entry(path);
        return found.result < 0
                   ? found.result
                   : remove_with_clusters(found.dir, static_cast<std::uint32_t>(found.result));
    }
    int rm_entry(const std::string &path) {
        const target found = find_entry(path);
        return found.result < 0 ? found.result
                                : remove_entry(found.dir, static_cast<std::uint32_t>(found.result));
    }
    // The entry that a removal would remove, if it finds one.
    std::optional<std::pair<location, raw_entry>> peek(const std::string &path) {
        const target found = find_entry(path);
        if (found.result < 0 ||
            read_slot(found.dir, static_cast<std::uint32_t>(found.result)) < 0) {
            return std::nullopt;
        }
        return std::pair(slot_location(), slot());
    }

    // -- data, by id

    int write(int id, const bytes &data) {
        const int result = data.empty() ? -EINVAL : check_file(id);
        return result < 0 ? result : write_file(&table.at(id), data);
    }
    int read(int id, std::uint32_t count, bytes *out) {
        out->clear();
        const int result = count == 0 ? -EINVAL : check_file(id);
        return result < 0 ? result : read_file(&table.at(id), count, out);
    }
    std::int64_t seek(int id, std::int64_t offset, int whence) {
        const int result = check_file(id);
        if (result < 0 || whence < 0 || whence > 2) {
            return result < 0 ? result : -EINVAL;
        }
        open_entry &entry = table.at(id);
        const std::uint64_t from = whence == 0 ? 0 : whence == 1 ? entry.position : entry.size();
        entry.position = from + static_cast<std::uint64_t>(offset);
        return static_cast<std::int64_t>(entry.position);
    }

    // -- data, of an open entry in the table or outside it; with diagnostics

    int write_file(open_entry *entry, const bytes &data) {
        const int result = append(entry, data);
        return result < 0 ? fail(result, "fat_write_file", "Failed go get file entry!\n\n")
                          : result;
    }
    int read_file(open_entry *entry, std::uint32_t count, bytes *out) {
        const int result = read_on(entry, count, out);
        return result < 0 ? fail(result, "fat_read_file", "Check here!\n\n") : result;
    }
    // Puts bytes at a position. Moves it past them, unless it fails.
    int write_at(open_entry *entry, const bytes &data, std::uint32_t *position) {
        const std::uint32_t old_last = entry->last;
        std::vector<std::uint32_t> clusters(missing_clusters(*entry, data.size(), *position), 0);
        std::uint32_t allocations = 0;
        int result = allocate_all(entry, &clusters, &allocations);
        if (result == 0 && !clusters.empty() && entry->start == 0 && shape.width == 16) {
            result = fail(-EINVAL, WRITER, "Failed to get FAT sector!(-22)\n\n"); // no root area
        }
        result = result < 0 ? result : write_data(*entry, data, *position);
        if (result == 0) {
            *position += static_cast<std::uint32_t>(data.size());
            return static_cast<int>(data.size());
        }
        if (!clusters.empty()) {
            undo(entry, old_last, clusters, allocations);
        }
        return result;
    }
    // Appends the bytes that could be read to `out`.
    int read_at(const open_entry &entry, std::uint32_t count, std::uint64_t *position, bytes *out) {
        if (*position > INT64_MAX) {
            return fail(-EINVAL, READER, "Failed to get FAT sector!\n\n");
        }
        std::optional<step> walk;
        for (std::uint32_t done = 0; done < count;) {
            const std::uint64_t at = *position + done;
            std::uint32_t number = 0;
            const int found = locate(
                entry.start, static_cast<std::uint32_t>(at) / shape.sector_bytes, &number, &walk);
            if (found < 0) {
                fail(0, READER, "Failed to get FAT sector!\n\n");
                return found == -EFAULT ? fail(found, READER, "access out of cluster chain\n")
                                        : found;
            }
            if (!can_read(number)) {
                return fail(-EIO, READER, "cannot read sector\n");
            }
            const auto offset = static_cast<std::uint32_t>(at % shape.sector_bytes);
            const std::uint32_t chunk = std::min(shape.sector_bytes - offset, count - done);
            const auto begin = sector(number).begin() + offset;
            out->insert(out->end(), begin, begin + chunk);
            done += chunk;
        }
        *position += count;
        return static_cast<int>(count);
    }

private:
    static constexpr const char *WRITER = "do_write_file";
    static constexpr const char *READER = "do_read_file";

    // A resolved path: a directory and a name in it.
    struct target {
        int result = 0; // of a search: the index
        open_entry dir;
        bool has_dir = true; // false for a path that leads deeper than one level
        std::string leaf;
    };

    // -- paths

    static bool normalise(std::string *path) {
        if (path->size() > LONGEST_PATH) {
            return false;
        }
        const std::size_t last = path->find_last_not_of('/');
        path->resize(last == std::string::npos ? 0 : last + 1);
        return true;
    }
    target resolve(const std::string &path) {
        target result;
        result.dir = table.at(!path.empty() && path[0] == '/' ? 0 : current);
        std::vector<std::string> parts = {""};
        for (const char c : path.substr(std::min(path.find_first_not_of('/'), path.size()))) {
            if (c == '/') {
                parts.emplace_back();
            } else {
                parts.back() += c;
            }
        }
        result.leaf = parts.back();
        parts.pop_back();
        if (is_refused(result.leaf)) {
            result.result = -EINVAL;
            return result;
        }
        for (const std::string &part : parts) {
            if (part != ".") {
                result.has_dir = false;
                result.result = check_parent(result.dir, part);
                return result;
            }
        }
        if (!parts.empty()) {
            open_again(&result);
        }
        return result;
    }
    // A parent is only searched; nothing is opened.
    int check_parent(const open_chain &dir, const std::string &name) {
        const int index = name == ".." ? 1 : find_name(base_of(dir), name.substr(0, 255));
        location where;
        return index < 0 ? index
                         : locate_slot(base_of(dir), static_cast<std::uint32_t>(index), &where);
    }
    // Takes the directory as it is on the medium now.
    void open_again(target *result) {
        open_entry &dir = result->dir;
        dir.position = 0;
        dir.references = 1;
        if (dir.cached) {
            const raw_entry entry = *dir.cached;
            result->result = fill(&dir, entry, dir.where);
            if (result->result == 0 && !dir.cached) {
                result->result = -ENOENT; // the directory has been removed
            }
        } else if (shape.width == 32) {
            result->result = measure(&dir);
        }
    }
    int find_name(std::uint32_t base, const std::string &name) {
        const name_record wanted = to_record(name, long_names);
        return wanted.result < 0 ? wanted.result
                                 : find(base, wanted.dos, wanted.units).value_or(-EINVAL);
    }
    target find_target(const std::string &path) {
        target found = resolve(path);
        if (found.result == 0) {
            found.result = found.has_dir ? find_name(base_of(found.dir), found.leaf) : -EINVAL;
        }
        return found;
    }
    target find_entry(const std::string &path) {
        std::string name = path;
        if (normalise(&name)) {
            return find_target(name);
        }
        target found;
        found.result = -ENAMETOOLONG;
        return found;
    }

    // -- records

    int measure(open_chain *chain) {
        chain->last = chain->allocated = 0;
        const int clusters = chain->start == 0 ? 0 : count(chain->start, &chain->last);
        if (chain->start != 0 && clusters <= 0) {
            chain->cached.reset(); // a chain that reaches a free cluster has no cached entry
        }
        chain->allocated =
            static_cast<std::uint32_t>(std::max(clusters, 0)) * shape.cluster_bytes();
        return std::min(clusters, 0);
    }
    int fill(open_entry *entry, const raw_entry &raw, const location &where) {
        if (dos_name_of(raw) == padded("..", 11) && start_of(raw) == 0) {
            *entry = table.at(0);
            return 0;
        }
        entry->start = start_of(raw);
        entry->cached = raw;
        entry->where = where;
        return measure(entry);
    }
    int refuse_unless(int id, bool wants_directory, int error) {
        if (id > 0 && table.at(id).is_directory() != wants_directory) {
            close(id);
            return error;
        }
        return id;
    }
    [[nodiscard]] int check_file(int id) const {
        const auto found = table.find(id);
        if (found == table.end()) {
            return -EINVAL;
        }
        return !found->second.cached || found->second.is_directory() ? -EISDIR : 0;
    }

    // -- new entries

    int build_new(target *where, created what) {
        open_entry &dir = where->dir;
        if (!where->has_dir || !(dir.is_root || dir.is_directory())) {
            return -EINVAL;
        }
        const int found = find_name(base_of(dir), where->leaf);
        if (found != -ENOENT) {
            return found >= 0 ? -EEXIST : found;
        }
        name_record name = to_record(where->leaf, long_names);
        const std::u16string units = name.units.value_or(u"");
        const int first = find_empty(&dir, static_cast<std::uint32_t>(units.size() + 12) / 13 + 1);
        std::uint32_t cluster = 0;
        if (first < 0 || (what != created::file && extend_directory(nullptr, &cluster) < 0)) {
            return -ENOSPC;
        }
        const int tailed = name.units ? add_numeric_tail(dir, &name.dos).value_or(-EINVAL) : 0;
        if (tailed < 0) {
            return tailed;
        }
        const int index = put_entries(dir, static_cast<std::uint32_t>(first), units,
                                      new_entry(name.dos, what, name.lcase, cluster));
        if (index < 0) {
            return index;
        }
        locate_slot(base_of(dir), static_cast<std::uint32_t>(index), &last_built);
        if (what == created::directory) {
            put_dot_entries(dir.cached ? dir.start : 0, cluster);
        }
        return index;
    }
    int find_empty(open_entry *dir, std::uint32_t count) {
        std::uint32_t first = 0;
        int length = find_span(*dir, count, &first);
        while (length >= 0 && static_cast<std::uint32_t>(length) < count) {
            std::uint32_t cluster = 0;
            if (is_root_area(*dir) || extend_directory(dir, &cluster) < 0) {
                return -ENOSPC;
            }
            length = static_cast<int>(std::min(count, slots_of(*dir) - first));
        }
        return length < 0 ? length : static_cast<int>(first);
    }
    // Updates every open record of the directory. Without a directory the cluster is not linked.
    int extend_directory(open_entry *dir, std::uint32_t *cluster) {
        const int result = allocate(dir, cluster);
        if (result < 0) {
            return result;
        }
        for (std::uint32_t i = 0; i < shape.cluster_sectors; i++) {
            (void)medium::write(shape.first_sector_of(*cluster) + i, bytes(shape.sector_bytes));
        }
        for (auto &[id, entry] : table) {
            const bool is_dir = entry.is_directory() || (!entry.cached && shape.width == 32);
            if (dir != nullptr && entry.start == dir->start && is_dir) {
                entry.last = dir->last;
                entry.allocated = dir->allocated;
            }
        }
        return 0;
    }
    [[nodiscard]] raw_entry new_entry(const std::string &dos, created what, unsigned lcase,
                                      std::uint32_t start) const {
        raw_entry entry = short_entry(dos, what == created::directory ? 0x10 : 0, start);
        put_field(&entry, 12, 1, lcase);
        put_field(&entry, 13, 1, what == created::symlink ? 0xE2 : 0);
        put_field(&entry, 22, 2, time);
        put_field(&entry, 24, 2, date);
        return entry;
    }
    void put_dot_entries(std::uint32_t parent, std::uint32_t cluster) {
        const std::uint32_t first = shape.first_sector_of(cluster);
        (void)put_entry({first, 0}, new_entry(padded(".", 11), created::directory, 0, cluster));
        (void)put_entry({first, 32}, new_entry(padded("..", 11), created::directory, 0, parent));
    }

    // -- removing

    int remove_with_clusters(const open_chain &dir, std::uint32_t index) {
        const int id = open_at(dir, index);
        if (id < 0) {
            return -EINVAL;
        }
        const open_entry entry = table.at(id);
        close(id);
        if (!entry.cached) {
            return -ENOENT;
        }
        if (entry.is_directory() && !is_empty(entry)) {
            return -ENOTEMPTY;
        }
        const int released = release(entry, 0);
        return released < 0 ? released : remove_entry(dir, index);
    }
    int remove_entry(const open_chain &dir, std::uint32_t index) {
        locate_slot(base_of(dir), index, &last_removed);
        return mark_removed(dir, index);
    }

    // -- data

    [[nodiscard]] std::uint32_t missing_clusters(const open_chain &chain, std::size_t size,
                                                 std::uint32_t position) const {
        const auto missing = static_cast<std::int32_t>(static_cast<std::uint32_t>(size) -
                                                       (chain.allocated - position));
        const std::uint32_t unit = shape.cluster_bytes();
        return missing > 0 ? (unit + static_cast<std::uint32_t>(missing) - 1) / unit : 0;
    }
    int allocate_all(open_chain *chain, std::vector<std::uint32_t> *clusters,
                     std::uint32_t *allocations) {
        for (std::uint32_t &cluster : *clusters) {
            const int result = allocate(chain, &cluster);
            if (result < 0) {
                return fail(result, WRITER, "cannot allocate cluster\n");
            }
            ++*allocations;
        }
        return 0;
    }
    int write_data(const open_chain &chain, const bytes &data, std::uint32_t position) {
        std::optional<step> walk;
        for (std::size_t done = 0; done < data.size();) {
            std::uint32_t number = 0;
            const int found = locate(chain.start, position / shape.sector_bytes, &number, &walk);
            if (found < 0) {
                fail(0, WRITER, "Failed to get FAT sector!(" + std::to_string(found) + ")\n\n");
                printed += found == -EFAULT ? "access out of cluster chain\n" : "";
                return found;
            }
            const std::uint32_t offset = position % shape.sector_bytes;
            const std::size_t chunk =
                std::min<std::size_t>(shape.sector_bytes - offset, data.size() - done);
            const auto begin = data.begin() + static_cast<std::ptrdiff_t>(done);
            const int result =
                write_part(number, offset, {begin, begin + static_cast<std::ptrdiff_t>(chunk)});
            if (result < 0) {
                return result;
            }
            done += chunk;
            position += static_cast<std::uint32_t>(chunk);
        }
        return 0;
    }
    // The rest of the sector becomes zero.
    int write_part(std::uint32_t number, std::uint32_t offset, const bytes &part) {
        if (offset != 0 && !can_read(number)) {
            return fail(-EIO, WRITER, "cannot read sector\n");
        }
        bytes content = sector(number);
        content.resize(offset);
        content.insert(content.end(), part.begin(), part.end());
        content.resize(shape.sector_bytes);
        return medium::write(number, std::move(content))
                   ? 0
                   : fail(-EIO, WRITER, "cannot write sector to file\n");
    }
    int append(open_entry *entry, const bytes &data) {
        const char *const me = "write_file_internal";
        const std::uint32_t size = entry->size();
        std::uint32_t position = size;
        const std::uint64_t more =
            std::uint64_t{missing_clusters(*entry, data.size(), size)} * shape.cluster_bytes();
        const bool is_too_large = data.size() > INT_MAX || size + data.size() > UINT32_MAX ||
                                  entry->allocated + more > UINT32_MAX;
        const int result = is_too_large ? -EFBIG : write_at(entry, data, &position);
        if (result <= 0) {
            return fail(result, me, "Failed to write file!\n\n");
        }
        put_field(&*entry->cached, 28, 4, position);
        put_field(&*entry->cached, 22, 2, 0);
        put_field(&*entry->cached, 24, 2, date);
        if (!can_read(entry->where.sector)) {
            return fail(-EIO, me, "Failed to read sectors!\n\n");
        }
        return put_entry(entry->where, *entry->cached) ? result
                                                       : fail(-EIO, me, "cannot update metadata\n");
    }
    int read_on(open_entry *entry, std::uint32_t count, bytes *out) {
        const char *const me = "read_file_internal";
        const std::uint64_t size = entry->size();
        if (entry->position > size && entry->position <= INT64_MAX) {
            return fail(-EINVAL, me, "file position beyonds the file size!\n\n");
        }
        if (entry->position <= size) {
            count =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(count, size - entry->position));
        }
        return count == 0 ? 0 : read_at(*entry, count, &entry->position, out);
    }
};

} // namespace model
