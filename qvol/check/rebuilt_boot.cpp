#include "qvol/check/rebuilt_boot.h"

#include "core/geometry.h"
#include "core/overlay.h"
#include "qvol/check/boot_evidence.h"
#include "qvol/check/check.h"
#include "qvol/check/plausible.h"
#include "qvol/formatting.h"
#include "qvol/output.h"
#include "qvol/sectors.h"

#include <algorithm>
#include <map>
#include <set>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr u32 MAX_CLUSTER = 256 * 1024; // bytes
constexpr u32 MAX_CLUSTER_SECTORS = 128;
constexpr u32 MAX_WORD = 0xFFFF; // limit of a two-byte field
constexpr u64 MAX_ROOT_BYTES = u64{MAX_WORD} * core::DENTRY_SIZE;

// Each is judged by a check of the whole volume.
constexpr std::size_t MAX_CANDIDATES = 32;

// Areas in bytes.
struct candidate {
    found_fats fats;
    u32 cluster_bytes;
    u64 data_start;
    u32 votes = 0;  // directories that are where they are by their own number
    u32 oddity = 0; // in how far no formatter makes such a volume
    core::areas at{};

    [[nodiscard]] u64 root_bytes() const {
        return data_start - fats.past_end();
    }
    [[nodiscard]] u32 root_entries() const {
        return static_cast<u32>(root_bytes() / core::DENTRY_SIZE);
    }
    [[nodiscard]] bool is_same(const candidate &other) const {
        return fats.width == other.fats.width && fats.offset == other.fats.offset &&
               fats.bytes == other.fats.bytes && fats.copies == other.fats.copies &&
               cluster_bytes == other.cluster_bytes && data_start == other.data_start;
    }
};

std::string fats_text(const found_fats &fats, u32 sector_size) {
    const std::string size = counted(fats.bytes / sector_size, "sector", "sectors");
    return fmt::format("{} of {} from sector {}", counted(fats.copies, "FAT", "FATs"), size,
                       fats.offset / sector_size);
}

std::string description_of(const candidate &one) {
    std::string text = fmt::format("FAT{}, {}, clusters of {} bytes", one.at.width,
                                   fats_text(one.fats, one.at.sector_size), one.cluster_bytes);
    if (one.at.sector_size != core::MIN_SECTOR_SIZE) {
        text += fmt::format(", sectors of {} bytes", one.at.sector_size);
    }
    text += one.at.width == 32 ? fmt::format(", root directory in cluster {}", one.at.root_cluster)
                               : fmt::format(", {} root entries", one.root_entries());
    return text + (one.votes == 0
                       ? ", which no directory confirms"
                       : ", as " + counted(one.votes, "directory", "directories") + " confirm");
}

// ---- the areas of a candidate -----------------------------------------------------------------

// Whether the boot sector can state the areas in sectors of this size.
bool is_describable(const candidate &one, u32 sector_size) {
    const bool is_wide = one.fats.width == 32;
    const u64 reserved = one.fats.offset / sector_size;
    const bool is_aligned = one.fats.offset % sector_size == 0 &&
                            one.fats.bytes % sector_size == 0 && one.data_start % sector_size == 0;
    return is_aligned && one.cluster_bytes >= sector_size &&
           one.cluster_bytes / sector_size <= MAX_CLUSTER_SECTORS && reserved <= MAX_WORD &&
           reserved >= (is_wide ? 2 : 1) && // with FSInfo
           (is_wide || (one.fats.bytes / sector_size <= MAX_WORD && one.root_bytes() != 0 &&
                        one.root_bytes() <= MAX_ROOT_BYTES));
}

// The numbers of clusters that a width can have.
std::pair<u64, u64> cluster_limits(u32 width) {
    return width == 12 ? std::pair<u64, u64>(1, core::FAT16_MIN_CLUSTERS - 1)
           : width == 16
               ? std::pair<u64, u64>(core::FAT16_MIN_CLUSTERS, core::FAT32_MIN_CLUSTERS - 1)
               : std::pair<u64, u64>(1, core::FAT32_BAD - core::FIRST_DATA_CLUSTER);
}

// The size of the FAT and of the root directory: formatters make the FAT as large as the clusters
// need, or align it, and the root directory for 512 entries.
u32 oddity_of(const candidate &one, u64 clusters_by_size) {
    constexpr u32 NOT_FORMATTED_SO = 4;
    constexpr u64 USUAL_ROOT = u64{core::FAT16_ROOT_ENTRIES} * core::DENTRY_SIZE;
    constexpr u64 ALIGNMENT = 16384;
    const u32 root = one.at.width == 32 || one.root_bytes() == USUAL_ROOT ? 0 : 1;
    if (one.at.clusters != clusters_by_size) {
        return root + NOT_FORMATTED_SO;
    }
    const u64 entries = clusters_by_size + core::FIRST_DATA_CLUSTER;
    const u64 unused = one.fats.bytes - (entries * one.at.width + 7) / 8;
    return root + (unused < one.at.sector_size                            ? 0
                   : unused < std::max<u64>(one.cluster_bytes, ALIGNMENT) ? 1
                                                                          : NOT_FORMATTED_SO);
}

// False if there is no such volume. An image file that was cut may be shorter than its volume.
bool set_areas(const target &where, u32 sector_size, candidate *one) {
    const u64 size = where.size();
    if (!is_describable(*one, sector_size) || one->data_start + one->cluster_bytes > size) {
        return false;
    }
    const auto [least, most] = cluster_limits(one->fats.width);
    const u64 entries = one->fats.bytes * 8 / one->fats.width;
    const u64 by_size = (size - one->data_start) / one->cluster_bytes;
    const u64 bounded = std::min({by_size, most, entries - core::FIRST_DATA_CLUSTER});
    const u64 clusters = where.has_fixed_size() ? bounded : std::max(bounded, least);
    const u32 per_cluster = one->cluster_bytes / sector_size;
    const u64 data_start = one->data_start / sector_size;
    const u64 total =
        clusters == by_size ? size / sector_size : data_start + clusters * per_cluster;
    if (clusters < least || clusters + core::FIRST_DATA_CLUSTER > entries || total > 0xFFFFFFFFU) {
        return false;
    }
    const bool is_wide = one->fats.width == 32;
    one->at = {.width = one->fats.width,
               .sector_size = sector_size,
               .sectors_per_cluster = per_cluster,
               .total_sectors = static_cast<u32>(total),
               .fat_start = static_cast<u32>(one->fats.offset / sector_size),
               .fat_sectors = static_cast<u32>(one->fats.bytes / sector_size),
               .root_start = static_cast<u32>(one->fats.past_end() / sector_size),
               .root_cluster = is_wide ? core::NEW_ROOT_CLUSTER : 0,
               .data_start = static_cast<u32>(data_start),
               .clusters = static_cast<u32>(clusters)};
    one->oddity = oddity_of(*one, by_size);
    return true;
}

// ---- candidates -------------------------------------------------------------------------------

class candidate_list {
public:
    candidate_list(const target &where, const boot_evidence &evidence)
        : where_(where), evidence_(evidence) {
        for (const found_fats &fats : evidence.fats()) {
            for (u32 bytes = core::MIN_SECTOR_SIZE; bytes <= MAX_CLUSTER; bytes *= 2) {
                add_by_directories(fats, bytes);
                add_by_formatter(fats, bytes);
            }
        }
        std::stable_sort(found_.begin(), found_.end(), [](const candidate &a, const candidate &b) {
            return std::pair(b.votes, a.oddity) < std::pair(a.votes, b.oddity);
        });
        found_.resize(std::min(found_.size(), MAX_CANDIDATES));
    }

    [[nodiscard]] const std::vector<candidate> &all() const {
        return found_;
    }

private:
    // By the start of the data: the directories whose number agrees with it.
    [[nodiscard]] std::map<u64, u32> votes(const found_fats &fats, u32 cluster_bytes) const {
        std::map<u64, u32> result;
        for (const dot_directory &one : evidence_.directories()) {
            const u32 cluster = fats.width == 32 ? one.cluster : one.cluster & 0xFFFF;
            const u64 before = u64{cluster - core::FIRST_DATA_CLUSTER} * cluster_bytes;
            if (cluster >= core::FIRST_DATA_CLUSTER && one.offset >= fats.past_end() + before) {
                result[one.offset - before]++;
            }
        }
        return result;
    }

    void add_by_directories(const found_fats &fats, u32 cluster_bytes) {
        const std::map<u64, u32> by_start = votes(fats, cluster_bytes);
        const auto best =
            std::max_element(by_start.begin(), by_start.end(),
                             [](const auto &a, const auto &b) { return a.second < b.second; });
        for (const auto &[start, count] : by_start) {
            const bool is_in_range = fats.width == 32 ? start == fats.past_end()
                                                      : start - fats.past_end() <= MAX_ROOT_BYTES;
            if (is_in_range && 2 * count >= best->second) {
                add({fats, cluster_bytes, start, count});
            }
        }
    }

    // As formatters place the data: after the FATs, or after a root directory of these sizes.
    void add_by_formatter(const found_fats &fats, u32 cluster_bytes) {
        constexpr u32 ROOT_ENTRIES[] = {512, 64, 112, 128, 224, 240, 256, 1024, 2048, 4096};
        if (fats.width == 32) {
            add({fats, cluster_bytes, fats.past_end()});
            return;
        }
        for (const u32 entries : ROOT_ENTRIES) {
            add({fats, cluster_bytes, fats.past_end() + u64{entries} * core::DENTRY_SIZE});
        }
    }

    // In the smallest sectors that are possible, but those of the device and of FSInfo.
    void add(candidate one) {
        const std::optional<u32> by_fsinfo =
            one.fats.width == 32 ? evidence_.fsinfo_sector_size() : std::nullopt;
        u32 size = by_fsinfo.value_or(where_.sector_bytes());
        while (size <= core::MAX_SECTOR_SIZE && !set_areas(where_, size, &one)) {
            size *= 2;
        }
        const bool is_known =
            std::any_of(found_.begin(), found_.end(),
                        [&](const candidate &other) { return one.is_same(other); });
        if (size <= core::MAX_SECTOR_SIZE && !is_known) {
            found_.push_back(one);
        }
    }

    const target &where_;
    const boot_evidence &evidence_;
    std::vector<candidate> found_;
};

// ---- the root directory of FAT32 --------------------------------------------------------------

// Finds the cluster by the directories that are below the root: their ".." is 0.
class root_search {
public:
    root_search(core::medium &device, const candidate &one, const boot_evidence &evidence)
        : on_{&device, one.at}, fat_(on_, 1), scanned_bytes_(evidence.scanned_bytes()) {
        for (const dot_directory &directory : evidence.directories()) {
            if (directory.parent == 0) {
                wanted_.insert(directory.cluster);
            }
        }
    }

    // The usual one if it leads to such a directory, or none does.
    [[nodiscard]] u32 run() {
        if (wanted_.empty() || usual_leads_there()) {
            return core::NEW_ROOT_CLUSTER;
        }
        std::map<u32, u32> previous; // by cluster
        std::optional<u32> root;
        fat_.visit_used([&](u32 cluster, u32 value) {
            if (on_.is_data_cluster(value)) {
                previous.emplace(value, cluster);
            }
            root = root || !leads_there(cluster) ? root : cluster;
        });
        // The first cluster of its chain, which can contain a cycle.
        for (u32 i = 0; root && previous.contains(*root) && i < on_.at.clusters; i++) {
            root = previous[*root];
        }
        return root.value_or(core::NEW_ROOT_CLUSTER);
    }

private:
    [[nodiscard]] bool usual_leads_there() {
        constexpr u32 MAX_CLUSTERS = 4096; // of a root directory with so many entries before them
        u32 cluster = core::NEW_ROOT_CLUSTER;
        for (u32 i = 0; i < MAX_CLUSTERS && on_.is_data_cluster(cluster); i++) {
            if (leads_there(cluster)) {
                return true;
            }
            cluster = fat_.get(cluster);
        }
        return false;
    }

    // Intentional: of a root directory that begins past the scanned part only the usual is found.
    [[nodiscard]] bool leads_there(u32 cluster) {
        if ((u64{on_.sector_of(cluster)} + on_.at.sectors_per_cluster) * on_.at.sector_size >
            scanned_bytes_) {
            return false;
        }
        const std::vector<u8> slots =
            read_extent(on_, on_.sector_of(cluster), on_.at.sectors_per_cluster);
        if (!vote_on(on_, slots).are_entries()) {
            return false;
        }
        for (std::size_t i = 0; i < slots.size(); i += core::DENTRY_SIZE) {
            const bool is_dot = slots[i] == core::DOT_NAME[0];
            if (!is_dot && core::is_live_directory(&slots[i]) &&
                wanted_.contains(core::start_cluster(&slots[i]))) {
                return true;
            }
        }
        return false;
    }

    core::volume on_;
    fat_table fat_;
    u64 scanned_bytes_;
    std::set<u32> wanted_;
};

// ---- the judgement ----------------------------------------------------------------------------

struct volume_verdict {
    u64 entries = 0;
    u64 broken = 0; // findings about chains, also about those that are too long
    u32 votes = 0;
    u64 misplaced = 0; // bytes in use in free clusters, and allocated clusters of zeros
    u32 oddity = 0;
    std::string label{}; // of the root directory

    [[nodiscard]] u64 intact() const {
        return entries - std::min(entries, broken);
    }
    [[nodiscard]] bool is_better_than(const volume_verdict &other) const {
        return std::tuple(other.intact(), broken, other.votes, misplaced, oddity) <
               std::tuple(intact(), other.broken, votes, other.misplaced, other.oddity);
    }
};

std::string root_label(volume &vol) {
    try {
        const directory root = vol.root();
        for (const auto &[slot, one] : root.entries()) {
            if (one.type() == kind::LABEL) {
                const short_name name = one.alias();
                std::string label(name.begin(), name.end());
                return label.erase(label.find_last_not_of(' ') + 1);
            }
        }
    } catch (const error &) {
        // a broken chain: the check reports it
    }
    return "";
}

class boot_search {
public:
    boot_search(target *where, const std::string &encoding)
        : where_(*where), encoding_(encoding), evidence_(where->medium(), where->size()) {}

    rebuilt_boot run() {
        const std::vector<found_fats> fats = evidence_.fats();
        if (fats.empty()) {
            refuse("no FAT found");
        }
        const candidate_list candidates(where_, evidence_);
        for (candidate one : candidates.all()) {
            consider(&one);
        }
        if (!best_) {
            refuse(fats_text(fats.front(), core::MIN_SECTOR_SIZE) +
                   " found, but no entry that can be reached with them");
        }
        if (rival_) {
            refuse("equally good: " + description_of(*best_) + "; or " + description_of(*rival_));
        }
        return {sector_of(*best_, best_verdict_.label), description_of(*best_)};
    }

private:
    [[noreturn]] void refuse(const std::string &reason) const {
        throw error(fmt::format("cannot rebuild the boot sector of {}: {}",
                                shown_bytes(where_.path()), reason));
    }

    static std::vector<u8> sector_of(const candidate &one, const std::string &label) {
        volume_identity identity;
        identity.label = label;
        identity.media = one.fats.media;
        return boot_sector_of(one.at, one.fats.copies, one.at.width == 32 ? 0 : one.root_entries(),
                              identity);
    }

    void consider(candidate *one) {
        const std::optional<volume_verdict> judged = judge(one);
        if (!judged || judged->intact() == 0) {
            return;
        }
        if (!best_ || judged->is_better_than(best_verdict_)) {
            best_ = *one;
            best_verdict_ = *judged;
            rival_.reset();
        } else if (!best_verdict_.is_better_than(*judged)) {
            rival_ = *one;
        }
    }

    // No value if there is no volume with these areas.
    std::optional<volume_verdict> judge(candidate *one) {
        core::overlay_medium tried(where_.medium(), core::MIN_SECTOR_SIZE);
        const replaced_medium replaced(&where_, &tried);
        try {
            if (one->at.width == 32) {
                one->at.root_cluster = root_search(tried, *one, evidence_).run();
            }
            if (tried.write(0, sector_of(*one, "")) < 0) {
                throw system_failure("rebuild the boot sector", ENOMEM);
            }
            volume vol(where_, encoding_, required::AREAS);
            if (!vol.contradictions().empty()) {
                return std::nullopt;
            }
            return verdict_on(*one, vol);
        } catch (const error &) {
            return std::nullopt;
        }
    }

    [[nodiscard]] volume_verdict verdict_on(const candidate &one, volume &vol) const {
        const check_result checked = check_volume(vol);
        const auto too_long = std::count_if(
            checked.findings.begin(), checked.findings.end(),
            [](const reported_finding &each) { return each.kind == found::CHAIN_LONG.name; });
        return {.entries = checked.files + checked.directories,
                .broken = checked.broken_chains + static_cast<u64>(too_long),
                .votes = one.votes,
                .misplaced = misplaced_bytes(vol),
                .oddity = one.oddity,
                .label = root_label(vol)};
    }

    [[nodiscard]] u64 misplaced_bytes(volume &vol) const {
        const core::volume &on = vol.on();
        const u64 cluster_bytes = on.cluster_bytes();
        const u64 data_start = u64{on.at.data_start} * on.at.sector_size;
        const u64 end =
            std::min(evidence_.scanned_bytes(), data_start + u64{on.at.clusters} * cluster_bytes);
        u64 misplaced = evidence_.used_bytes(data_start, end - data_start);
        vol.fat().visit_used([&](u32 cluster, u32) {
            const u64 offset = u64{on.sector_of(cluster)} * on.at.sector_size;
            if (offset + cluster_bytes <= end) {
                const u64 used = evidence_.used_bytes(offset, cluster_bytes);
                misplaced += used == 0 ? cluster_bytes : 0;
                misplaced -= used;
            }
        });
        return misplaced;
    }

    target &where_;
    const std::string &encoding_;
    boot_evidence evidence_;
    std::optional<candidate> best_;
    volume_verdict best_verdict_;
    std::optional<candidate> rival_; // as good
};

} // namespace

bool has_fats(const target &where) {
    return !boot_evidence(where.medium(), where.size()).fats().empty();
}

rebuilt_boot rebuilt_boot_sector(target *where, const std::string &encoding) {
    return boot_search(where, encoding).run();
}

} // namespace qvol
