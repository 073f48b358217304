#include "qvol/check/found_files.h"

#include "core/record.h"
#include "qvol/check/chains.h"
#include "qvol/sectors.h"
#include "qvol/times.h"

#include <algorithm>
#include <deque>
#include <limits>
#include <optional>
#include <set>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr u32 MAX_FOUND = 1000; // FOUND.000 to FOUND.999

std::u16string ascii_name(const std::string &text) {
    return {text.begin(), text.end()};
}

u32 start_of_slot(const core::volume &on, const u8 *slot) {
    const u32 high = on.is_wide() ? core::load(slot, core::SHORT_START_HIGH) << 16 : 0;
    return high | core::load(slot, core::SHORT_START_LOW);
}

bool is_dot_slot(const u8 *slot, const char *name) {
    return std::equal(slot, slot + core::SHORT_NAME.size, name) &&
           (core::load(slot, core::SHORT_ATTR) & core::ATTR_DIRECTORY) != 0;
}

// The first sector of the chain; zeros if it cannot be read, for example past the end of an image.
std::vector<u8> first_sector(const core::volume &on, u32 head) {
    try {
        return read_extent(on, on.sector_of(head), 1);
    } catch (const error &) {
        return std::vector<u8>(on.at.sector_size);
    }
}

} // namespace

std::optional<u32> parent_of(const core::volume &on, u32 head) {
    const std::vector<u8> sector = first_sector(on, head);
    const u8 *parent = sector.data() + core::DENTRY_SIZE;
    const bool is_directory = is_dot_slot(sector.data(), ".          ") &&
                              is_dot_slot(parent, "..         ") &&
                              start_of_slot(on, sector.data()) == head;
    return is_directory ? std::optional(start_of_slot(on, parent)) : std::nullopt;
}

namespace {

// The directories whose parent is not lost as well. In a cycle of parents the first one counts.
std::vector<lost_chain> topmost_directories(const core::volume &on,
                                            const std::vector<lost_chain> &chains) {
    std::vector<std::pair<lost_chain, u32>> directories;
    std::set<u32> heads;
    for (const lost_chain &chain : chains) {
        if (const std::optional<u32> parent = parent_of(on, chain.head)) {
            directories.emplace_back(chain, *parent);
            heads.insert(chain.head);
        }
    }
    std::vector<lost_chain> top;
    for (const auto &[chain, parent] : directories) {
        if (!heads.contains(parent)) {
            top.push_back(chain);
        }
    }
    if (top.empty() && !directories.empty()) {
        top.push_back(directories.front().first);
    }
    return top;
}

// The new directory, and what is stored in it. Everything is in memory until commit().
class found_directory {
public:
    explicit found_directory(volume &vol)
        : vol_(vol), root_(vol.root()), now_(dos_time_of(current_time())),
          found_(directory::make(vol.fat(), root_, now_)) {
        root_.add({next_found_name(root_), kind::DIRECTORY, found_.start(), 0, now_});
    }

    // As a file if it cannot be read as a whole.
    void add_directory(const lost_chain &chain) {
        end_chain(chain.head, chain.count);
        try {
            kept_.emplace_back(vol_.fat(), chain.head);
        } catch (const error &) {
            add_files(chain);
            return;
        }
        kept_.back().set_parent(found_.parent_link());
        add(fmt::format("DIR{:05}", ++directories_), kind::DIRECTORY, chain.head, 0);
    }

    // In several files if one cannot be that large.
    void add_files(lost_chain chain) {
        const u32 most = std::numeric_limits<u32>::max() / vol_.on().cluster_bytes();
        while (chain.count != 0) {
            const u32 count = std::min(chain.count, most);
            const u32 next = end_chain(chain.head, count);
            add(fmt::format("FILE{:05}.CHK", ++files_), kind::FILE, chain.head,
                chain.size != 0 ? chain.size : count * vol_.on().cluster_bytes());
            chain = {next, chain.count - count};
        }
    }

    void commit() {
        std::vector<directory *> changed;
        for (directory &one : kept_) {
            changed.push_back(&one);
        }
        changed.push_back(&found_);
        changed.push_back(&root_);
        vol_.commit_additions(changed);
    }

private:
    void add(const std::string &name, kind type, u32 start, u32 size) {
        found_.add({ascii_name(name), type, start, size, now_});
    }

    // Marks the end after `count` clusters. Returns the cluster that followed.
    u32 end_chain(u32 head, u32 count) {
        const u32 last = claimed_clusters(&vol_.fat(), head, count).back();
        const u32 next = vol_.fat().get(last);
        vol_.fat().set(last, core::FAT_END_MARK);
        return next;
    }

    volume &vol_;
    directory root_;
    dos_time now_;
    directory found_;
    std::deque<directory> kept_;
    u32 directories_ = 0;
    u32 files_ = 0;
};

} // namespace

std::u16string next_found_name(const directory &root) {
    for (u32 number = 0; number < MAX_FOUND; number++) {
        std::u16string name = ascii_name(fmt::format("FOUND.{:03}", number));
        if (root.find(name) == nullptr) {
            return name;
        }
    }
    throw directory_full("no name left for found files");
}

bool keep_lost_chains(volume &vol, const std::vector<lost_chain> &chains, bool keeps_directories,
                      u32 *kept_directories) {
    try {
        const std::vector<lost_chain> top =
            keeps_directories ? topmost_directories(vol.on(), chains) : std::vector<lost_chain>();
        found_directory found(vol);
        for (const lost_chain &chain : top) {
            found.add_directory(chain);
        }
        for (const lost_chain &chain : top.empty() ? chains : std::vector<lost_chain>()) {
            found.add_files(chain);
        }
        found.commit();
        *kept_directories = static_cast<u32>(top.size());
        return true;
    } catch (const no_space &) {
    } catch (const directory_full &) {
    }
    vol.fat().forget_changes();
    *kept_directories = 0;
    return false;
}

} // namespace qvol
