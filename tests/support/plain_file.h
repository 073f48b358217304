// A second account of writing and reading files, written plainly: one sector and one cluster at a
// time, the chain walked anew for every sector, every FAT entry changed on the medium at once. It
// uses nothing of the library and works on its own view of the disk as it was at remember(), so
// that both can be held against each other: bytes, records, results, messages.

#pragma once

#include "tests/support/mounted.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace testing_support {

class plain_file {
public:
    // Takes over the volume record's hint and the open entry as they are now. `today` is the date
    // as directory entries have it.
    plain_file(ram_disk *disk, const oentry &entry, std::uint32_t today)
        : record(entry), hint(sv->last_alloc_clus), disk_(disk), today_(today) {
        if (entry.dentry != nullptr) {
            std::copy(entry.dentry, entry.dentry + 32, image.begin());
        }
    }

    oentry record;          // its `dentry` is not used
    entry_image image = {}; // what stands for it
    std::uint32_t hint;
    std::string said; // source lines as N
    // Every sector that was written, in order, and what the disk holds now where it was looked at.
    std::vector<std::uint64_t> written;

    [[nodiscard]] const bytes &sector(std::uint64_t number) {
        if (number == recent_ && recent_bytes_ != nullptr) {
            return *recent_bytes_;
        }
        return sector_to_change(number);
    }
    [[nodiscard]] std::vector<std::uint64_t> known_sectors() const {
        std::vector<std::uint64_t> result;
        for (const auto &[number, content] : sectors_) {
            result.push_back(number);
        }
        return result;
    }

    // -- the calls on files; messages of the public one included

    int write_file(const bytes &data) {
        const auto count = static_cast<std::uint32_t>(data.size());
        const int result = write_internal(data.data(), count);
        return result < 0 ? say(result, "fat_write_file", "Failed go get file entry!\n\n") : result;
    }
    int read_file(std::uint8_t *buffer, std::uint32_t count) {
        const int result = read_internal(buffer, count);
        return result < 0 ? say(result, "fat_read_file", "Check here!\n\n") : result;
    }

    int write_at(const std::uint8_t *data, std::uint32_t count, std::uint32_t *position) {
        std::uint32_t p = *position;
        const auto extra = static_cast<std::int32_t>(count - (record.allocated - p));
        const std::uint32_t old_last = record.last;
        std::vector<std::uint32_t> clusters;
        std::uint32_t allocations = 0;
        if (extra > 0) {
            const std::uint32_t unit = cluster_bytes();
            clusters.assign((unit + static_cast<std::uint32_t>(extra) - 1) / unit, 0);
            for (std::uint32_t &cluster : clusters) {
                const int result = alloc(&cluster);
                if (result < 0) {
                    say(0, "do_write_file", "cannot allocate cluster\n");
                    return undo(clusters, old_last, allocations, result);
                }
                allocations++;
            }
            if (record.start == 0 && sv->fat_type == 16) { // not the root area
                say(0, "do_write_file", "Failed to get FAT sector!(-22)\n\n");
                return undo(clusters, old_last, allocations, -EINVAL);
            }
        }
        for (std::uint32_t done = 0; done < count;) {
            const std::uint32_t offset = p % sv->sector_size;
            const std::uint32_t chunk = std::min(sv->sector_size - offset, count - done);
            const int result = write_chunk(data + done, p, offset, chunk);
            if (result < 0) {
                return undo(clusters, old_last, allocations, result);
            }
            done += chunk;
            p += chunk;
        }
        *position = p;
        return static_cast<int>(count);
    }

    int read_at(std::uint8_t *buffer, std::uint32_t count, std::uint64_t *position) {
        if (*position > INT64_MAX) {
            return say(-EINVAL, "do_read_file", "Failed to get FAT sector!\n\n");
        }
        std::uint64_t p = *position;
        for (std::uint32_t done = 0; done < count;) {
            std::uint32_t number = 0;
            const int found =
                locate(record.start, static_cast<std::uint32_t>(p) / sv->sector_size, &number);
            if (found < 0) {
                say(0, "do_read_file", "Failed to get FAT sector!\n\n");
                return found == -EFAULT
                           ? say(found, "do_read_file", "access out of cluster chain\n")
                           : found;
            }
            const auto offset = static_cast<std::uint32_t>(p % sv->sector_size);
            const std::uint32_t chunk = std::min(sv->sector_size - offset, count - done);
            if (!can_read(number)) {
                return say(-EIO, "do_read_file", "cannot read sector\n");
            }
            std::memcpy(buffer + done, sector(number).data() + offset, chunk);
            done += chunk;
            p += chunk;
        }
        *position = p;
        return static_cast<int>(count);
    }

private:
    static std::uint32_t cluster_bytes() {
        return sv->sec_per_clus * sv->sector_size;
    }
    int say(int result, const char *function, const std::string &message) {
        said += function;
        said += "[N]: ";
        said += message;
        return result;
    }

    // -- the medium

    [[nodiscard]] bool can_read(std::uint64_t number) const {
        return !disk_->unreadable.contains(number) && !disk_->bad_sectors.contains(number);
    }
    bool write(std::uint64_t number, const bytes &content) {
        if (disk_->unwritable.contains(number) || disk_->bad_sectors.contains(number)) {
            return false;
        }
        sector_to_change(number) = content;
        written.push_back(number);
        return true;
    }
    bytes &sector_to_change(std::uint64_t number) {
        auto [place, is_new] = sectors_.try_emplace(number);
        if (is_new) {
            place->second = disk_->peek_before(number * sv->sector_size, sv->sector_size);
        }
        recent_ = number;
        recent_bytes_ = &place->second;
        return place->second;
    }

    // -- FAT entries

    struct fat_place {
        std::uint64_t sector;
        std::uint32_t offset;
    };
    static fat_place place_of(std::uint32_t cluster) {
        const std::uint64_t byte = std::uint64_t{cluster} * (sv->fat_type / 8);
        return {sv->fat_start + byte / sv->sector_size,
                static_cast<std::uint32_t>(byte % sv->sector_size)};
    }
    static std::uint32_t load(const std::uint8_t *from, std::uint32_t size) {
        std::uint32_t value = 0;
        for (std::uint32_t i = size; i-- > 0;) {
            value = value << 8 | from[i];
        }
        return value;
    }
    static void store(std::uint8_t *to, std::uint32_t size, std::uint32_t value) {
        for (std::uint32_t i = 0; i < size; i++) {
            to[i] = static_cast<std::uint8_t>(value >> (8 * i));
        }
    }

    int read_entry(std::uint32_t cluster, std::uint32_t *value) {
        const fat_place place = place_of(cluster);
        if (!can_read(place.sector)) {
            return say(-EIO, "fat_read_entry", "cannot read FAT\n\n");
        }
        *value = load(sector(place.sector).data() + place.offset, sv->fat_type / 8) & 0x0FFFFFFF;
        return 0;
    }
    int write_entry(std::uint32_t cluster, std::uint32_t value) {
        const fat_place place = place_of(cluster);
        if (!can_read(place.sector)) {
            return say(-EIO, "fat_write_entry", "cannot read FAT\n");
        }
        bytes content = sector(place.sector);
        std::uint8_t *entry = content.data() + place.offset;
        if (sv->fat_type == 16) {
            store(entry, 2, value & 0xFFFF);
        } else {
            store(entry, 4, (load(entry, 4) & 0xF0000000) | (value & 0x0FFFFFFF));
        }
        if (!write(place.sector, content)) {
            return say(-EIO, "fat_write_entry", "cannot write FAT\n\n");
        }
        return 0;
    }
    static bool ends_chain(std::uint32_t value) {
        return value >= (sv->fat_type == 16 ? 0xFFF8 : 0x0FFFFFF8);
    }
    int next_of(std::uint32_t cluster) {
        if (cluster < 2 || cluster >= sv->num_clusters + 2) {
            return say(-EINVAL, "fat_read_clus", "Invalid arg!\n\n");
        }
        std::uint32_t value = 0;
        const int result = read_entry(cluster, &value);
        if (result < 0) {
            return result;
        }
        const std::uint32_t bad = sv->fat_type == 16 ? 0xFFF7 : 0x0FFFFFF7;
        if (value != 0 && !ends_chain(value) &&
            (value == 1 || value >= sv->num_clusters + 2 || value == bad)) {
            return say(-EINVAL, "fat_read_clus", "Invalid cluster!\n\n");
        }
        return static_cast<int>(value);
    }
    int search(std::uint32_t first, std::uint32_t last) {
        for (std::uint32_t cluster = first; cluster <= last; cluster++) {
            const int value = next_of(cluster);
            if (value < 0) {
                return say(value, "fat_free_clus", "Invalid cluster value!\n\n");
            }
            if (value == 0) {
                return static_cast<int>(cluster);
            }
        }
        return -ENOENT;
    }

    // -- allocation

    int alloc(std::uint32_t *cluster) {
        if (hint < 2 || hint > sv->num_clusters) {
            hint = 1;
        }
        int found = search(hint + 1, sv->num_clusters + 1);
        if (found < 0 && found != -ENOENT) {
            return found;
        }
        if (found == -ENOENT) {
            found = search(2, hint);
            if (found == -ENOENT) {
                return say(-ENOSPC, "fat_alloc_cluster", "No space left on volume!!\n");
            }
        }
        if (found > 0) {
            *cluster = static_cast<std::uint32_t>(found);
        }
        const int result =
            record.start == 0 && record.last == 0 ? begin_chain(*cluster) : append(*cluster);
        if (result == 0) {
            hint = *cluster;
        }
        return result;
    }
    int link(std::uint32_t cluster, std::uint32_t value) {
        const int result = write_entry(cluster, value);
        return result < 0 ? say(result, "fat_alloc_cluster", "Failed to write entry!\n\n") : result;
    }
    int begin_chain(std::uint32_t cluster) {
        const int result = link(cluster, 0xFFFFFFFF);
        if (result == 0) {
            record.last = cluster;
            record.start = cluster;
            record.allocated += cluster_bytes();
            store(image.data() + 20, 2, cluster >> 16);
            store(image.data() + 26, 2, cluster);
        }
        return result;
    }
    int append(std::uint32_t cluster) {
        int result = link(record.last, cluster);
        if (result < 0) {
            return result;
        }
        result = link(cluster, 0xFFFFFFFF);
        if (result < 0) {
            write_entry(record.last, 0xFFFFFFFF);
            return result;
        }
        record.last = cluster;
        record.allocated += cluster_bytes();
        return 0;
    }
    int undo(const std::vector<std::uint32_t> &clusters, std::uint32_t old_last,
             std::uint32_t allocations, int error) {
        if (clusters.empty()) {
            return error;
        }
        write_entry(old_last, 0xFFFFFFFF);
        record.last = old_last;
        record.allocated -= cluster_bytes() * allocations;
        for (const std::uint32_t cluster : clusters) {
            if (cluster < 2) {
                break;
            }
            write_entry(cluster, 0);
        }
        return error;
    }

    // -- data

    // The sector of the file's sector `index`.
    int locate(std::uint32_t start, std::uint32_t index, std::uint32_t *number) {
        if (start >= sv->num_clusters + 2) {
            return say(-EINVAL, "get_phy_sector", "NULL pointer or invalid xxx!\n\n");
        }
        if (start == 0 && sv->fat_type == 16) {
            *number = sv->rdir_start + index;
            return *number < sv->data_start
                       ? 0
                       : say(-EFAULT, "get_phy_sector", "Invalid sector number in Root dir\n\n");
        }
        if (start < 2) {
            return say(-EINVAL, "get_phy_sector",
                       "invalid start cluster number " + std::to_string(start) + "\n");
        }
        int cluster = static_cast<int>(start);
        for (std::uint32_t links = index / sv->sec_per_clus; links > 0; links--) {
            cluster = next_of(static_cast<std::uint32_t>(cluster));
            if (cluster < 0 || (cluster == 0 && links == 1)) {
                return say(-EINVAL, "get_phy_sector",
                           "invalid value " + std::to_string(cluster) + "\n");
            }
        }
        if (ends_chain(static_cast<std::uint32_t>(cluster))) {
            return -EFAULT;
        }
        *number =
            volume::first_sector_of(static_cast<std::uint32_t>(cluster)) + index % sv->sec_per_clus;
        return 0;
    }

    int write_chunk(const std::uint8_t *data, std::uint32_t p, std::uint32_t offset,
                    std::uint32_t chunk) {
        std::uint32_t number = 0;
        const int found = locate(record.start, p / sv->sector_size, &number);
        if (found < 0) {
            say(0, "do_write_file", "Failed to get FAT sector!(" + std::to_string(found) + ")\n\n");
            said += found == -EFAULT ? "access out of cluster chain\n" : "";
            return found;
        }
        bytes content(sv->sector_size, 0);
        if (offset != 0) {
            if (!can_read(number)) {
                return say(-EIO, "do_write_file", "cannot read sector\n");
            }
            content = sector(number);
        }
        std::copy(data, data + chunk, content.begin() + offset);
        std::fill(content.begin() + offset + chunk, content.end(), std::uint8_t{0});
        return write(number, content) ? 0
                                      : say(-EIO, "do_write_file", "cannot write sector to file\n");
    }

    [[nodiscard]] bool is_too_large(std::uint32_t count) const {
        const std::uint32_t size = size_of(image);
        const auto extra = static_cast<std::int32_t>(count - (record.allocated - size));
        const std::uint64_t unit = cluster_bytes();
        const std::uint64_t more =
            extra > 0 ? (unit + static_cast<std::uint32_t>(extra) - 1) / unit * unit : 0;
        return count > INT_MAX || std::uint64_t{size} + count > UINT32_MAX ||
               record.allocated + more > UINT32_MAX;
    }
    int write_internal(const std::uint8_t *data, std::uint32_t count) {
        const std::uint32_t size = size_of(image);
        std::uint32_t position = size;
        const int result = is_too_large(count) ? -EFBIG : write_at(data, count, &position);
        if (result <= 0) {
            return say(result, "write_file_internal", "Failed to write file!\n\n");
        }
        if (position != size) {
            store(image.data() + 28, 4, position);
            store(image.data() + 22, 2, 0);
            store(image.data() + 24, 2, today_);
        }
        if (!can_read(record.dentry_sector)) {
            return say(-EIO, "write_file_internal", "Failed to read sectors!\n\n");
        }
        bytes content = sector(record.dentry_sector);
        std::copy(image.begin(), image.end(), content.begin() + record.dentry_offset);
        return write(record.dentry_sector, content)
                   ? result
                   : say(-EIO, "write_file_internal", "cannot update metadata\n");
    }
    int read_internal(std::uint8_t *buffer, std::uint32_t count) {
        const std::uint32_t size = size_of(image);
        if (static_cast<std::int64_t>(record.pos) > static_cast<std::int64_t>(size)) {
            return say(-EINVAL, "read_file_internal", "file position beyonds the file size!\n\n");
        }
        std::uint32_t wanted = count;
        if (record.pos <= size) {
            wanted = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, size - record.pos));
        }
        if (wanted == 0) {
            return 0;
        }
        std::uint64_t position = record.pos;
        const int result = read_at(buffer, wanted, &position);
        if (result > 0) {
            record.pos = position;
        }
        return result;
    }

    ram_disk *disk_;
    std::uint32_t today_;
    std::map<std::uint64_t, bytes> sectors_;
    std::uint64_t recent_ = 0;
    bytes *recent_bytes_ = nullptr;
};

} // namespace testing_support
