// A second account of the walks over chains and directories, written plainly: every FAT entry is
// read on its own from the medium, the chain is walked anew for every sector, nothing is kept and
// nothing of the library is used. The tests hold the library against it, messages included.

#pragma once

#include "tests/support/volume.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace testing_support {

// A name in the forms that a lookup compares.
struct wanted_name {
    std::string text;
    std::string dos;     // 11 bytes
    std::u16string wide; // empty: the name has no long form
};

class plain_walk {
public:
    explicit plain_walk(volume *where) : v_(where) {}

    // What would have been printed, source lines as N.
    std::string said;

    int read_clus(std::uint32_t cluster) {
        if (cluster < 2 || cluster >= sv->num_clusters + 2) {
            return fail(-EINVAL, "fat_read_clus", "Invalid arg!\n\n");
        }
        if (is_bad(volume::fat_sector_of(cluster))) {
            return fail(-EIO, "fat_read_entry", "cannot read FAT\n\n");
        }
        const std::uint32_t value = v_->link(cluster) & (sv->fat_type == 16 ? 0xFFFF : 0x0FFFFFFF);
        const bool ends_chain = value >= volume::first_end_mark();
        const bool is_link = value >= 2 && value <= sv->num_clusters + 1;
        if (value != 0 && !ends_chain && (!is_link || value == volume::bad_mark())) {
            return fail(-EINVAL, "fat_read_clus", "Invalid cluster!\n\n");
        }
        return static_cast<int>(value);
    }

    int free_clus(std::uint32_t first, std::uint32_t last) {
        for (std::uint64_t cluster = first; cluster <= last; cluster++) {
            const int value = read_clus(static_cast<std::uint32_t>(cluster));
            if (value < 0) {
                return fail(value, "fat_free_clus", "Invalid cluster value!\n\n");
            }
            if (value == 0) {
                return static_cast<int>(cluster);
            }
        }
        return -ENOENT;
    }

    int phy_sector(std::uint32_t base, std::uint32_t n, std::uint32_t *sector) {
        if (base >= sv->num_clusters + 2) {
            return fail(-EINVAL, "get_phy_sector", "NULL pointer or invalid xxx!\n\n");
        }
        if (base == 0 && sv->fat_type == 16) {
            if (std::uint64_t{sv->rdir_start} + n >= sv->data_start) {
                return fail(-EFAULT, "get_phy_sector", "Invalid sector number in Root dir\n\n");
            }
            *sector = sv->rdir_start + n;
            return 0;
        }
        if (base < 2) {
            return fail(-EINVAL, "get_phy_sector",
                        "invalid start cluster number " + std::to_string(base) + "\n");
        }
        int cluster = static_cast<int>(base);
        for (std::uint32_t links = n / sv->sec_per_clus; links > 0; links--) {
            cluster = read_clus(static_cast<std::uint32_t>(cluster));
            if (cluster < 0 || (cluster == 0 && links == 1)) {
                return fail(-EINVAL, "get_phy_sector",
                            "invalid value " + std::to_string(cluster) + "\n");
            }
        }
        if (static_cast<std::uint32_t>(cluster) >= volume::first_end_mark()) {
            return -EFAULT;
        }
        *sector =
            volume::first_sector_of(static_cast<std::uint32_t>(cluster)) + n % sv->sec_per_clus;
        return 0;
    }

    // Reads the sector of entry `index` into `sector_`.
    int dentry(std::uint32_t base, std::uint32_t index) {
        std::uint32_t sector = 0;
        const int result = phy_sector(base, sector_index_of(index), &sector);
        if (result < 0) {
            return fail(result, "get_dentry_with_clu",
                        "Failed to get entry sector!:(" + std::to_string(base) + ", " +
                            std::to_string(index) + ")\n\n");
        }
        if (is_bad(sector)) {
            // Only a negative result is a failure; any other leaves the buffer as it was.
            return v_->disk.failure_result >= 0
                       ? 0
                       : fail(-EIO, "get_dentry_with_clu",
                              "cannot read sectors:(sector: " + std::to_string(sector) + ")\n");
        }
        sector_ = v_->disk.peek(std::uint64_t{sector} * sv->sector_size, sv->sector_size);
        return 0;
    }

    // Nothing where the walk has been through a circle once and would go on.
    std::optional<int> find(std::uint32_t base, const wanted_name &name) {
        const std::uint32_t round = entries_before_return(base);
        sector_.assign(sv->sector_size, 0);
        gathered_.fill(0);
        gathering_ = false;
        for (std::uint32_t i = 0; i < round; i++) {
            if (i == 0 || sector_index_of(i) != sector_index_of(i - 1)) {
                const int result = dentry(base, i);
                if (result == -EFAULT) {
                    return -ENOENT;
                }
                if (result < 0) {
                    return fail(result, "find_dentry_with_clu",
                                "fail to get dentry(" + std::to_string(base) + ", " +
                                    std::to_string(i) + "):" + std::strerror(-result) + "\n");
                }
            }
            const entry_image entry = entry_at(i);
            if (entry[0] == 0) {
                return -ENOENT;
            }
            if (matches(entry, name)) {
                return fail(static_cast<int>(i), "find_dentry_with_clu",
                            "found index:(" + std::to_string(base) + ", " + std::to_string(i) +
                                ")\n");
            }
        }
        return std::nullopt;
    }

    // The short name with its tail in `dos`.
    std::optional<int> add_numeric_tail(const directory &dir, std::string *dos) {
        const std::uint32_t round = entries_before_return(dir.base());
        const bool is_fat16_root = dir.base() == 0;
        const std::uint32_t count = is_fat16_root ? 512 : dir.record.allocated / 32;
        std::set<std::uint32_t> taken = {0};
        for (std::uint32_t i = 0; i < count; i++) {
            if (i >= round) {
                return std::nullopt;
            }
            if (i == 0 || sector_index_of(i) != sector_index_of(i - 1)) {
                sector_.assign(sv->sector_size, 0);
                const int result = get_dentry(dir, i);
                if (result == -EFAULT) {
                    break;
                }
                if (result < 0) {
                    return result;
                }
            }
            const entry_image entry = entry_at(i);
            if (entry[0] == 0) {
                break;
            }
            take_tail(entry, *dos, &taken);
        }
        std::uint32_t number = 1;
        while (taken.contains(number)) {
            number++;
        }
        const std::string tail = "~" + std::to_string(number);
        const std::size_t blank = dos->substr(0, 8).find(' ');
        dos->replace(std::min(blank, 8 - tail.size()), tail.size(), tail);
        return 0;
    }

    // Puts the long name together whose last slot is entry `*index`, in 256 units that are filled
    // before. Leaves `*index` at the entry that was read last.
    int long_name(std::uint32_t base, std::uint32_t *index, std::u16string *units) {
        int result = dentry(base, *index);
        entry_image entry = entry_at(*index);
        const std::uint8_t checksum = entry[13];
        const int slots = entry[0] - 0x40;
        std::copy(units->begin(), units->end(), gathered_.begin());
        for (int k = slots; k >= 1; k--) {
            gather(entry, (k - 1) * 13);
            ++*index;
            result = dentry(base, *index);
            if (result < 0) {
                return fail(result, "get_long_name", "Failed to get entry with cluster ...\n\n");
            }
            entry = entry_at(*index);
            if (k > 1 && !goes_on(entry, checksum, *index)) {
                std::copy_n(gathered_.begin(), 256, units->begin());
                return 0;
            }
        }
        result = slots >= 1 && is_short(entry) ? slots : 0;
        if (result > 0 && checksum_of(std::string(entry.begin(), entry.begin() + 11)) != checksum) {
            result = mismatch(*index);
            gathered_[0] = 0;
        }
        std::copy_n(gathered_.begin(), 256, units->begin());
        return result;
    }

    // Clusters of the chain up to its end, its damage, or its return to one of them.
    std::vector<std::uint32_t> clusters_of(std::uint32_t base, bool *is_circle) {
        std::vector<std::uint32_t> result;
        std::set<std::uint32_t> seen;
        const std::string before = said;
        *is_circle = false;
        for (std::uint32_t cluster = base; cluster >= 2 && cluster <= sv->num_clusters + 1;) {
            if (!seen.insert(cluster).second) {
                *is_circle = true;
                break;
            }
            result.push_back(cluster);
            const int next = read_clus(cluster);
            cluster = next < 0 ? 0 : static_cast<std::uint32_t>(next);
        }
        said = before;
        return result;
    }

private:
    int fail(int result, const char *function, const std::string &message) {
        said += function;
        said += "[N]: ";
        said += message;
        return result;
    }
    [[nodiscard]] bool is_bad(std::uint64_t sector) const {
        return v_->disk.bad_sectors.contains(sector);
    }
    static std::uint32_t sector_index_of(std::uint32_t index) {
        return static_cast<std::uint32_t>(std::uint64_t{index} * 32 / sv->sector_size);
    }
    [[nodiscard]] entry_image entry_at(std::uint32_t index) const {
        entry_image result = {};
        const auto begin = sector_.begin() + index * 32 % sv->sector_size;
        std::copy(begin, begin + 32, result.begin());
        return result;
    }
    std::uint32_t entries_before_return(std::uint32_t base) {
        bool is_circle = false;
        const std::size_t clusters = clusters_of(base, &is_circle).size();
        return is_circle ? static_cast<std::uint32_t>(clusters) * volume::entries_per_cluster()
                         : 0xFFFFFFFF;
    }

    int get_dentry(const directory &dir, std::uint32_t index) {
        if (index >= dir.record.allocated / 32) {
            return fail(-EFAULT, "fat_get_dentry", "access the out of range in directory space\n");
        }
        return dentry(dir.base(), index);
    }

    enum class what { unused, deleted, slot, file, directory, label, invalid };
    what kind_of(const entry_image &entry) {
        if (entry[0] == 0 || entry[0] == 0xE5) {
            return entry[0] == 0 ? what::unused : what::deleted;
        }
        if ((entry[11] & 0x3F) == 0x0F) {
            return what::slot;
        }
        switch (entry[11] & 0x18) {
        case 0x00:
            return what::file;
        case 0x10:
            return what::directory;
        case 0x08:
            return what::label;
        default:
            fail(0, "entry_type", "Unknown entry type: " + std::to_string(entry[11]) + "\n\n");
            return what::invalid;
        }
    }
    bool is_short(const entry_image &entry) {
        const what kind = kind_of(entry);
        return kind == what::file || kind == what::directory;
    }

    bool matches(const entry_image &entry, const wanted_name &name) {
        const what kind = kind_of(entry);
        const std::string dos(entry.begin(), entry.begin() + 11);
        if (kind == what::slot) {
            gather(entry, ((entry[0] & ~0x40) - 1) * 13);
            gathering_ = true;
            return false;
        }
        if (kind != what::file && kind != what::directory) {
            gathering_ = false;
            return false;
        }
        if (name.wide.empty() || sv->long_name == 0) {
            return dos == name.dos;
        }
        if (!gathering_) {
            return false;
        }
        const auto end = std::find(gathered_.begin(), gathered_.end(), u'\0');
        const std::u16string gathered(gathered_.begin(), end);
        const bool match = gathered.empty() ? dos == name.dos : gathered == name.wide;
        gathering_ = match;
        return match;
    }
    // Lookups without a long form never look at what is gathered here.
    void gather(const entry_image &slot, int position) {
        constexpr std::size_t PLACES[13] = {1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30};
        for (const std::size_t place : PLACES) {
            const unsigned unit = slot[place] + 256U * slot[place + 1];
            store(position++, unit);
            if (unit == 0) {
                return;
            }
        }
        if (slot[0] >= 0x41) {
            store(position, 0);
        }
    }
    void store(int position, unsigned unit) {
        if (position >= 0 && position < 256) {
            gathered_[static_cast<std::size_t>(position)] = static_cast<char16_t>(unit);
        }
    }

    int mismatch(std::uint32_t index) {
        return fail(0, "get_long_name", "not match checksum(" + std::to_string(index) + ")\n");
    }
    // Whether the entry is one of the other slots of a long name.
    bool goes_on(const entry_image &entry, std::uint8_t checksum, std::uint32_t index) {
        if (kind_of(entry) != what::slot) {
            gathered_[0] = 0;
            return false;
        }
        if ((entry[0] & 0x40) != 0) {
            return false;
        }
        if (entry[13] != checksum) {
            mismatch(index);
            return false;
        }
        return true;
    }

    void take_tail(const entry_image &entry, const std::string &dos,
                   std::set<std::uint32_t> *taken) {
        if (!is_short(entry)) {
            return;
        }
        const std::string text(entry.begin(), std::find(entry.begin(), entry.end(), 0));
        const std::size_t tilde = text.find('~');
        // A tilde behind the base has no digits behind it.
        if (tilde >= 7 || text.substr(0, tilde) != dos.substr(0, tilde)) {
            return;
        }
        std::uint32_t number = 0;
        for (std::size_t i = tilde + 1; i < 8; i++) {
            if (entry[i] >= '0' && entry[i] <= '9') {
                number = number * 10 + (entry[i] - '0');
            }
        }
        taken->insert(number);
    }

    volume *v_;
    std::vector<std::uint8_t> sector_;
    std::array<char16_t, 257> gathered_ = {};
    bool gathering_ = false;
};

} // namespace testing_support
