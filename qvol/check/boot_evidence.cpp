#include "qvol/check/boot_evidence.h"

#include "core/boot_sector.h"
#include "core/geometry.h"
#include "core/record.h"
#include "qvol/check/plausible.h"

#include <algorithm>
#include <cstring>

namespace qvol {

namespace {

constexpr u64 MAX_SCANNED = u64{128} << 20; // bytes
constexpr std::size_t SCANNED_AT_ONCE = std::size_t{256} * 1024;

// Files can contain what looks the same. The FATs come before all files.
constexpr std::size_t MAX_MARKS = 64;
constexpr std::size_t MAX_LISTINGS = 64;
constexpr std::size_t MAX_DIRECTORIES = 65536;
constexpr std::size_t MAX_FATS = 8;

// ---- one sector ----

u32 hash_of_sector(const u8 *sector, std::size_t size) {
    u64 hash = 0;
    for (std::size_t i = 0; i < size; i += sizeof(u64)) {
        u64 word = 0;
        std::memcpy(&word, sector + i, sizeof(word));
        hash = (hash ^ word) * 0x9E3779B97F4A7C15;
        hash ^= hash >> 29;
    }
    return hash == 0 ? 0 : static_cast<u32>(hash >> 32) | 1;
}

bool is_media(u8 byte) {
    constexpr u8 REMOVABLE = 0xF0;
    return byte == REMOVABLE || byte >= core::MEDIA_FIXED;
}

// Entry 0 is the media byte with all higher bits set, entry 1 an end-of-chain mark in which two
// flags may be clear. Intentional: of FAT32 the reserved bits do not count.
std::vector<u32> widths_of_mark(const u8 *sector) {
    constexpr u32 FLAGS_16 = 0xC000;
    constexpr u32 FLAGS_32 = 0x0C000000;
    const auto word = [&](u32 offset) { return core::load(sector, {"", offset, 2}); };
    const auto value = [&](u32 offset) {
        return core::load(sector, {"", offset, 4}) & core::FAT32_VALUE_MASK;
    };
    if (!is_media(sector[0]) || sector[1] != 0xFF) {
        return {};
    }
    std::vector<u32> widths;
    if (value(0) == ((0xFFFFFF00 | sector[0]) & core::FAT32_VALUE_MASK) &&
        (value(4) | FLAGS_32) >= core::FAT32_END) {
        widths.push_back(32);
    }
    if ((word(2) | FLAGS_16) >= core::FAT16_END) {
        widths.push_back(16);
    }
    if (sector[2] == 0xFF) {
        widths.push_back(12);
    }
    return widths;
}

bool is_directory_named(const u8 *slot, const u8 *name) {
    return std::equal(name, name + core::SHORT_NAME.size, slot) &&
           core::kind_of(slot) == core::slot_kind::DIRECTORY;
}

bool begins_with_dots(const u8 *sector) {
    return is_directory_named(sector, core::DOT_NAME) &&
           is_directory_named(sector + core::DENTRY_SIZE, core::DOT_DOT_NAME);
}

// The first slot of a root directory is in use as soon as there is an entry.
bool is_listing(const u8 *sector, std::size_t size) {
    core::volume any;
    any.at.width = 16;
    any.at.clusters = core::FAT32_MIN_CLUSTERS - 1;
    if (sector[0] == core::NAME_UNUSED || begins_with_dots(sector)) {
        return false;
    }
    const slot_votes votes = vote_on(any, {sector, size});
    return votes.entries != 0 && votes.others == 0;
}

bool is_fsinfo_sector(const u8 *sector) {
    return core::load(sector, core::FSINFO_LEAD) == core::FSINFO_LEAD_SIGNATURE &&
           core::load(sector, core::FSINFO_STRUCTURE) == core::FSINFO_STRUCTURE_SIGNATURE;
}

// ---- sizes ----

// Of one FAT copy, with the alignment that formatters use.
u64 max_fat_bytes(u32 width) {
    constexpr u64 ALIGNMENT = 65536;
    return width == 12   ? ALIGNMENT
           : width == 16 ? core::FAT32_MIN_CLUSTERS * u64{core::FAT16_ENTRY_SIZE} + ALIGNMENT
                         : MAX_SCANNED;
}

// Of three copies the last two are a pair as well.
bool is_rest_of_others(const found_fats &one, const std::vector<found_fats> &all) {
    return std::any_of(all.begin(), all.end(), [&](const found_fats &other) {
        return other.width == one.width && other.bytes == one.bytes &&
               other.past_end() == one.past_end() && other.offset < one.offset;
    });
}

} // namespace

boot_evidence::boot_evidence(core::medium &on, u64 bytes) {
    scan(on, std::min(bytes, MAX_SCANNED));
}

// What cannot be read counts as zeros.
void boot_evidence::scan(core::medium &on, u64 bytes) {
    hashes_.reserve(static_cast<std::size_t>(bytes / UNIT));
    std::vector<u8> extent(SCANNED_AT_ONCE);
    for (u64 done = 0; done + UNIT <= bytes; done += extent.size()) {
        const auto count = static_cast<std::size_t>(std::min<u64>(extent.size(), bytes - done));
        std::fill(extent.begin(), extent.end(), u8{0});
        (void)on.read(done, {extent.data(), count});
        for (std::size_t i = 0; i + UNIT <= count; i += UNIT) {
            scan_sector(&extent[i]);
        }
    }
}

void boot_evidence::scan_sector(const u8 *sector) {
    const u64 position = hashes_.size();
    const u64 offset = position * UNIT;
    const bool is_erased = std::all_of(sector, sector + UNIT, [](u8 byte) { return byte == 0xFF; });
    hashes_.push_back(hash_of_sector(sector, UNIT));
    if (hashes_.back() == 0 || is_erased || position == 0) {
        return;
    }
    const std::vector<u32> widths = widths_of_mark(sector);
    if (!widths.empty() && marks_[sector[0]].size() < MAX_MARKS) {
        marks_[sector[0]].push_back({position, widths});
    } else if (begins_with_dots(sector) && directories_.size() < MAX_DIRECTORIES) {
        directories_.push_back(
            {offset, core::start_cluster(sector), core::start_cluster(sector + core::DENTRY_SIZE)});
    } else if (!fsinfo_sector_size_ && offset <= core::MAX_SECTOR_SIZE &&
               is_fsinfo_sector(sector) && core::is_sector_size(static_cast<u32>(offset))) {
        fsinfo_sector_size_ = static_cast<u32>(offset);
    } else if (!marks_.empty() && listings_.size() < MAX_LISTINGS && is_listing(sector, UNIT)) {
        listings_.push_back(position);
    }
}

u64 boot_evidence::used_bytes(u64 offset, u64 bytes) const {
    u64 used = 0;
    for (u64 i = offset / UNIT; i < (offset + bytes) / UNIT && i < hashes_.size(); i++) {
        used += hashes_[static_cast<std::size_t>(i)] != 0 ? UNIT : 0;
    }
    return used;
}

// One of the copies may be damaged. Zeros are no evidence: most of a FAT can be free.
bool boot_evidence::are_copies(u64 first, u64 second, u64 count) const {
    if (count == 0 || second + count > hashes_.size()) {
        return false;
    }
    u64 equal = 0;
    u64 differing = 0;
    for (u64 i = 0; i < count && differing <= count / 2; i++) {
        const u32 hash = hashes_[static_cast<std::size_t>(first + i)];
        if (hash != hashes_[static_cast<std::size_t>(second + i)]) {
            differing++;
        } else if (hash != 0) {
            equal++;
        }
    }
    return equal > 0 && equal >= differing;
}

bool boot_evidence::is_mark(u32 media, u64 position) const {
    const std::vector<fat_mark> &marks = marks_.at(media);
    return std::any_of(marks.begin(), marks.end(),
                       [&](const fat_mark &mark) { return mark.position == position; });
}

void boot_evidence::add_pairs(u32 media, const std::vector<fat_mark> &marks,
                              std::vector<found_fats> *found) const {
    for (std::size_t i = 0; i < marks.size(); i++) {
        for (std::size_t j = i + 1; j < marks.size(); j++) {
            const u64 first = marks[i].position;
            const u64 size = marks[j].position - first;
            if (!are_copies(first, first + size, size)) {
                continue;
            }
            u32 copies = 2;
            while (is_mark(media, first + copies * size) &&
                   are_copies(first, first + copies * size, size)) {
                copies++;
            }
            for (const u32 width : marks[i].widths) {
                found->push_back({width, media, first * UNIT, size * UNIT, copies});
            }
        }
    }
}

// The FATs end where the root directory begins.
void boot_evidence::add_by_root(u32 media, const fat_mark &mark,
                                std::vector<found_fats> *found) const {
    constexpr int MAX_ROOTS = 2;
    int roots = 0;
    for (const u64 root : listings_) {
        if (root <= mark.position || roots++ == MAX_ROOTS) {
            continue;
        }
        const u64 size = root - mark.position;
        const bool are_two =
            size % 2 == 0 && are_copies(mark.position, mark.position + size / 2, size / 2);
        for (const u32 width : mark.widths) {
            found->push_back({width, media, mark.position * UNIT,
                              (are_two ? size / 2 : size) * UNIT, are_two ? 2U : 1U});
        }
    }
}

std::vector<found_fats> boot_evidence::fats() const {
    std::vector<found_fats> found;
    for (const auto &[media, marks] : marks_) {
        add_pairs(media, marks, &found);
    }
    for (const auto &[media, marks] : marks_) {
        add_by_root(media, marks.front(), &found);
    }
    const std::vector<found_fats> all = found;
    std::erase_if(found, [&](const found_fats &one) {
        return one.bytes > max_fat_bytes(one.width) || is_rest_of_others(one, all);
    });
    std::stable_sort(found.begin(), found.end(),
                     [](const found_fats &a, const found_fats &b) { return a.offset < b.offset; });
    found.resize(std::min(found.size(), MAX_FATS));
    return found;
}

} // namespace qvol
