// A survey of a whole volume without the library: walks every directory, follows every chain,
// records the owner of every cluster. Lists irregularities; does not fail on them.

#pragma once

#include "tests/model/medium.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

enum class chain_end { whole, none, start_is_free, runs_into_free, broken };

struct surveyed_entry {
    bool is_directory = false;
    bool is_link = false;
    bool has_long_name = false;
    std::string short_name; // printed form
    std::uint32_t size = 0;
    std::vector<std::uint32_t> clusters;
    chain_end end = chain_end::none;
    std::vector<std::uint8_t> content; // of files: as much of `size` as the chain has
    std::uint32_t used_slots = 0;      // of directories: before the first unused one
    bool has_dot_entries = true;       // of directories that have a cluster
};

class survey {
public:
    survey(const model::areas &areas_of_it, const model::medium::reader &read)
        : areas(areas_of_it), read_(read) {
        read_links();
        walk_all();
        for (std::uint32_t cluster = 2; cluster < areas.clusters + 2; cluster++) {
            if (value_of(cluster) != 0 && owners_[cluster] == 0) {
                lost.insert(cluster);
            }
        }
    }

    model::areas areas;
    // By path, "SUB/INNER.TXT"; "" is the root directory. Complete long names, else short names.
    std::map<std::string, surveyed_entry> entries;
    std::set<std::uint32_t> lost;              // allocated, but in no chain
    std::set<std::uint32_t> shared;            // in more than one chain
    std::vector<std::uint64_t> orphan_slots;   // byte offsets of slots without their entry
    std::vector<std::uint64_t> behind_the_end; // byte offsets of entries after an unused one

    [[nodiscard]] std::uint32_t count_free() const {
        return static_cast<std::uint32_t>(
            std::count_if(links_.begin() + 2, links_.end(),
                          [this](std::uint32_t link) { return (link & areas.end_mark()) == 0; }));
    }

private:
    struct slot {
        model::raw_entry raw;
        std::uint64_t at;
    };

    [[nodiscard]] std::uint32_t value_of(std::uint32_t cluster) const {
        return links_.at(cluster) & areas.end_mark();
    }
    void read_links() {
        const std::size_t size = areas.width / 8;
        const std::vector<std::uint8_t> table =
            read_(byte_of(areas.fat_start), (std::size_t{areas.clusters} + 2) * size);
        for (std::size_t at = 0; at < table.size(); at += size) {
            links_.push_back(model::field_of(table, at, size));
        }
        owners_.resize(links_.size());
    }

    // -- chains

    void follow(std::uint32_t start, surveyed_entry *entry) {
        std::uint32_t cluster = start;
        entry->end = start == 0 ? chain_end::none : chain_end::whole;
        while (cluster != 0) {
            if (!areas.has_cluster(cluster) || entry->clusters.size() > areas.clusters) {
                entry->end = chain_end::broken;
                return;
            }
            const std::uint32_t next = value_of(cluster);
            if (next == 0) {
                entry->end =
                    entry->clusters.empty() ? chain_end::start_is_free : chain_end::runs_into_free;
                return;
            }
            entry->clusters.push_back(cluster);
            if (++owners_[cluster] > 1) {
                shared.insert(cluster);
            }
            cluster = areas.is_end(next) ? 0 : next;
        }
    }
    std::vector<std::uint8_t> content_of(const std::vector<std::uint32_t> &clusters) {
        std::vector<std::uint8_t> result;
        for (const std::uint32_t cluster : clusters) {
            const std::vector<std::uint8_t> more = read_(offset_of(cluster), areas.cluster_bytes());
            result.insert(result.end(), more.begin(), more.end());
        }
        return result;
    }
    [[nodiscard]] std::uint64_t byte_of(std::uint32_t sector) const {
        return std::uint64_t{sector} * areas.sector_bytes;
    }
    [[nodiscard]] std::uint64_t offset_of(std::uint32_t cluster) const {
        return byte_of(areas.first_sector_of(cluster));
    }

    // -- directories

    void walk_all() {
        surveyed_entry root;
        root.is_directory = true;
        if (areas.width == 32) {
            follow(areas.root_cluster, &root);
        }
        entries[""] = root;
        std::vector<std::string> left = {""};
        while (!left.empty()) {
            const std::string path = left.back();
            left.pop_back();
            walk(path, &left);
        }
    }
    std::vector<slot> slots_of(const surveyed_entry &dir, bool is_root) {
        std::vector<std::pair<std::uint64_t, std::size_t>> pieces;
        if (is_root && areas.width == 16) {
            pieces.emplace_back(byte_of(areas.root_start),
                                byte_of(areas.data_start - areas.root_start));
        }
        for (const std::uint32_t cluster : dir.clusters) {
            pieces.emplace_back(offset_of(cluster), areas.cluster_bytes());
        }
        std::vector<slot> result;
        for (const auto &[offset, size] : pieces) {
            const std::vector<std::uint8_t> all = read_(offset, size);
            for (std::size_t at = 0; at < size; at += 32) {
                slot &s = result.emplace_back(slot{{}, offset + at});
                std::copy_n(all.begin() + static_cast<std::ptrdiff_t>(at), 32, s.raw.begin());
            }
        }
        return result;
    }
    void walk(const std::string &path, std::vector<std::string> *subdirectories) {
        const std::string before = path.empty() ? "" : path + "/";
        std::vector<slot> run; // slots before an entry
        bool has_ended = false;
        bool has_dot = false;
        std::uint32_t used_slots = 0;
        for (const slot &s : slots_of(entries[path], path.empty())) {
            if (has_ended) {
                if (std::any_of(s.raw.begin(), s.raw.end(), [](auto b) { return b != 0; })) {
                    behind_the_end.push_back(s.at);
                }
                continue;
            }
            const model::entry_kind kind = model::kind(s.raw);
            used_slots += kind == model::UNUSED ? 0 : 1;
            if (kind == model::NAME_SLOT) {
                run.push_back(s);
                continue;
            }
            const bool is_entry = model::is_short(s.raw);
            const std::string long_name = is_entry ? take_long_name(&run, s) : "";
            forget(&run);
            has_ended = kind == model::UNUSED;
            has_dot = has_dot || (s.raw[0] == '.' && s.raw[1] == '.');
            if (is_entry && s.raw[0] != '.') {
                add(before, s, long_name, subdirectories);
            }
        }
        forget(&run);
        entries[path].used_slots = used_slots;
        entries[path].has_dot_entries = path.empty() || entries[path].clusters.empty() || has_dot;
    }
    void forget(std::vector<slot> *run) {
        for (const slot &s : *run) {
            orphan_slots.push_back(s.at);
        }
        run->clear();
    }
    // The long name before an entry; its slots are then not orphans.
    static std::string take_long_name(std::vector<slot> *run, const slot &entry) {
        const unsigned checksum = model::checksum_of(model::dos_name_of(entry.raw));
        std::string name;
        for (unsigned ordinal = 1; ordinal <= run->size(); ordinal++) {
            const model::raw_entry &raw = (*run)[run->size() - ordinal].raw;
            if ((raw[0] & 0x3F) != ordinal || raw[13] != checksum) {
                return "";
            }
            for (const std::size_t place : model::UNIT_OFFSETS) {
                const std::uint32_t unit = model::field_of(raw, place, 2);
                if (unit != 0 && unit != 0xFFFF) {
                    name += static_cast<char>(unit);
                }
            }
            if ((raw[0] & 0x40) != 0) {
                run->resize(run->size() - ordinal);
                return name;
            }
        }
        return "";
    }
    void add(const std::string &before, const slot &s, const std::string &long_name,
             std::vector<std::string> *subdirectories) {
        surveyed_entry entry;
        entry.is_directory = (s.raw[11] & 0x10) != 0;
        entry.is_link = s.raw[13] == 0xE2;
        entry.has_long_name = !long_name.empty();
        entry.short_name = model::to_text(model::dos_name_of(s.raw), s.raw[12]);
        entry.size = model::size_of(s.raw);
        follow(model::start_of(s.raw), &entry);
        if (!entry.is_directory) {
            entry.content = content_of(entry.clusters);
            entry.content.resize(std::min<std::size_t>(entry.content.size(), entry.size));
        }
        const std::string path = before + (long_name.empty() ? entry.short_name : long_name);
        const bool is_new = entries.try_emplace(path, entry).second;
        if (entry.is_directory && is_new) {
            subdirectories->push_back(path);
        }
    }

    model::medium::reader read_;
    std::vector<std::uint32_t> links_;
    std::vector<std::uint32_t> owners_; // how many chains a cluster is part of
};

} // namespace testing_support
