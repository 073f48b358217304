// A campaign against the repair: volumes of known content, damaged in one way at a time, repaired
// by qvol and, as a copy, by fsck.fat. Counts the files that are intact before and after, and
// prints a table of all damage classes at the end.
//
// QUORVEL_DAMAGE_SEEDS=N runs N seeds instead of the few of the stage, VERBOSE=1 prints a line for
// each volume, and QUORVEL_DAMAGE_DIR names a directory that receives each damaged image.

#include "tests/support/qvol.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <numeric>
#include <random>

using namespace testing_support;
using nlohmann::json;

namespace {

// What the repair reaches at least, as a share of the files, and of the volumes that fsck.fat finds
// clean. It aims at 90 % by name and 99 % anywhere: the sizes and names of lost entries, which the
// root directory and the first sectors of directories had, cannot be found.
constexpr double LEAST_BY_NAME = 0.89;
constexpr double LEAST_ANYWHERE = 0.96;
constexpr double LEAST_WITH_SLACK = 0.985;
constexpr double LEAST_CLEAN = 0.98;
constexpr unsigned MANY_SEEDS = 12; // with fewer the shares vary

unsigned seeds() {
    const char *chosen = std::getenv("QUORVEL_DAMAGE_SEEDS");
    if (chosen != nullptr) {
        return static_cast<unsigned>(std::stoul(chosen));
    }
    return !QUORVEL_FULL ? 1 : is_sanitized_qvol() ? 2 : MANY_SEEDS;
}

// A short run with sanitizers damages one width per class.
bool is_short_run() {
    return !QUORVEL_FULL && is_sanitized_qvol() && std::getenv("QUORVEL_DAMAGE_SEEDS") == nullptr;
}

using contents = std::map<std::string, std::string>; // by path in the volume

std::string number(std::size_t value) {
    return std::to_string(value);
}

// ---- a volume as raw bytes ----------------------------------------------------------------------

// A short entry, with the slots of its long name.
struct raw_entry {
    std::size_t offset = 0;     // byte in the image
    std::size_t long_slots = 0; // directly before it
    bool is_directory = false;
    std::vector<std::uint32_t> chain;
    std::size_t size = 0; // bytes
    std::string name;     // the 11 bytes of the short name
};

class raw_volume {
public:
    explicit raw_volume(const std::string &path)
        : image(read_file(path)), at(layout_of(path)),
          total_clusters_((total_sectors() - at.data_start) / at.sec_per_clus),
          width_(at.is_fat32               ? 32
                 : total_clusters_ <= 4084 ? 12
                                           : 16) {
        if (!at.is_fat32) {
            root_.emplace_back(std::size_t{at.rdir_start} * 512,
                               std::size_t{at.data_start - at.rdir_start} * 512);
        } else {
            root_ = areas_of(chain_from(number_at(image, 44, 4)));
        }
        list(root_);
    }

    // ---- the FAT ----

    // Byte of a cluster's entry; an entry of 12 bits shares one byte with its neighbour.
    [[nodiscard]] std::size_t link_offset(std::uint32_t cluster, std::uint32_t copy) const {
        return (std::size_t{at.fat_start} + std::size_t{copy} * at.fat_size) * 512 +
               std::size_t{cluster} * width_ / 8;
    }
    [[nodiscard]] std::uint32_t link(std::uint32_t cluster) const {
        const std::size_t offset = link_offset(cluster, 0);
        if (width_ == 32) {
            return number_at(image, offset, 4) & 0x0FFFFFFF;
        }
        const std::uint32_t value = number_at(image, offset, 2);
        return width_ == 16 ? value : cluster % 2 != 0 ? value >> 4 : value & 0xFFF;
    }
    void set_link(std::uint32_t copy, std::uint32_t cluster, std::uint32_t value) {
        const std::size_t offset = link_offset(cluster, copy);
        if (width_ == 12) {
            const std::uint32_t old = number_at(image, offset, 2);
            value = cluster % 2 != 0 ? (value & 0xFFF) << 4 | (old & 0xF)
                                     : (value & 0xFFF) | (old & 0xF000);
        }
        put_number(offset, value, width_ == 32 ? 4 : 2);
    }
    void set_links(std::uint32_t cluster, std::uint32_t value) {
        set_link(0, cluster, value);
        set_link(1, cluster, value);
    }
    [[nodiscard]] std::uint32_t bad_mark() const {
        return width_ == 32 ? 0x0FFFFFF7 : width_ == 16 ? 0xFFF7 : 0xFF7;
    }
    [[nodiscard]] std::vector<std::uint32_t> clusters(bool are_free) const {
        std::vector<std::uint32_t> found;
        for (std::uint32_t cluster = 2; cluster < total_clusters_ + 2; cluster++) {
            if ((link(cluster) == 0) == are_free) {
                found.push_back(cluster);
            }
        }
        return found;
    }

    // ---- directories ----

    [[nodiscard]] const std::vector<raw_entry> &entries() const {
        return entries_;
    }
    // The bytes where sectors begin that have entries.
    [[nodiscard]] const std::vector<std::size_t> &directory_sectors() const {
        return directory_sectors_;
    }
    [[nodiscard]] std::size_t root_offset() const {
        return root_.front().first;
    }
    [[nodiscard]] std::size_t cluster_offset(std::uint32_t cluster) const {
        return (std::size_t{at.data_start} + std::size_t{cluster - 2} * at.sec_per_clus) * 512;
    }
    [[nodiscard]] std::size_t cluster_bytes() const {
        return std::size_t{at.sec_per_clus} * 512;
    }

    // The bytes of a file as the volume has them now.
    [[nodiscard]] std::string content_of(const raw_entry &file) const {
        std::string content;
        for (const std::uint32_t cluster : file.chain) {
            const auto begin = image.begin() + static_cast<std::ptrdiff_t>(cluster_offset(cluster));
            content.append(begin, begin + static_cast<std::ptrdiff_t>(cluster_bytes()));
        }
        content.resize(file.size);
        return content;
    }

    // The files whose data is not the same in two states of the volume. They are in the clusters
    // that the volume had when this object was made.
    [[nodiscard]] std::size_t count_overwritten(const bytes &before, const bytes &after) const {
        const auto is_overwritten = [&](const raw_entry &file) {
            std::size_t left = file.is_directory ? 0 : file.size;
            for (const std::uint32_t cluster : file.chain) {
                const std::size_t offset = cluster_offset(cluster);
                const std::size_t part = std::min(left, cluster_bytes());
                if (std::memcmp(&before.at(offset), &after.at(offset), part) != 0) {
                    return true;
                }
                left -= part;
            }
            return false;
        };
        return static_cast<std::size_t>(
            std::count_if(entries_.begin(), entries_.end(), is_overwritten));
    }

    void put_number(std::size_t offset, std::uint32_t value, std::size_t size) {
        for (std::size_t i = 0; i < size; i++) {
            image.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i) & 0xFF);
        }
    }
    void clear(std::size_t offset, std::size_t size) {
        std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(offset), size, std::uint8_t{0});
    }
    void scramble(std::size_t offset, std::size_t size, std::mt19937 *random) {
        std::generate_n(image.begin() + static_cast<std::ptrdiff_t>(offset), size,
                        [&] { return static_cast<std::uint8_t>((*random)()); });
    }

    bytes image;
    volume_layout at;
    std::set<std::string>
        destroyed; // contents whose bytes were overwritten: nobody can repair them

private:
    using areas = std::vector<std::pair<std::size_t, std::size_t>>; // byte and size

    [[nodiscard]] std::uint32_t total_sectors() const {
        const std::uint32_t small = number_at(image, 19, 2);
        return small != 0 ? small : number_at(image, 32, 4);
    }
    [[nodiscard]] std::vector<std::uint32_t> chain_from(std::uint32_t cluster) const {
        std::vector<std::uint32_t> chain;
        while (cluster >= 2 && cluster < total_clusters_ + 2) {
            chain.push_back(cluster);
            cluster = link(cluster);
        }
        return chain;
    }
    [[nodiscard]] areas areas_of(const std::vector<std::uint32_t> &chain) const {
        areas result;
        for (const std::uint32_t cluster : chain) {
            result.emplace_back(cluster_offset(cluster), cluster_bytes());
        }
        return result;
    }
    void list(const areas &directory) {
        std::size_t long_slots = 0;
        for (const auto &[begin, size] : directory) {
            for (std::size_t offset = begin; offset < begin + size; offset += 32) {
                const unsigned first = image[offset];
                const unsigned attributes = image[offset + 11];
                if (first == 0) {
                    return;
                }
                if (offset % 512 == 0) {
                    directory_sectors_.push_back(offset);
                }
                if (first != 0xE5 && attributes == 0x0F) {
                    long_slots++;
                    continue;
                }
                if (first != 0xE5 && first != '.' && (attributes & 8) == 0) {
                    add(offset, long_slots);
                }
                long_slots = 0;
            }
        }
    }
    void add(std::size_t offset, std::size_t long_slots) {
        const auto name = image.begin() + static_cast<std::ptrdiff_t>(offset);
        const std::uint32_t high = at.is_fat32 ? number_at(image, offset + 20, 2) : 0;
        const raw_entry entry = {offset,
                                 long_slots,
                                 (image[offset + 11] & 0x10) != 0,
                                 chain_from(high << 16 | number_at(image, offset + 26, 2)),
                                 number_at(image, offset + 28, 4),
                                 std::string(name, name + 11)};
        entries_.push_back(entry);
        if (entry.is_directory) {
            list(areas_of(entry.chain));
        }
    }

    std::uint32_t total_clusters_;
    std::uint32_t width_;
    areas root_;
    std::vector<raw_entry> entries_;
    std::vector<std::size_t> directory_sectors_;
};

// ---- damage -------------------------------------------------------------------------------------

template <typename List>
const auto &one_of(const List &list, std::mt19937 *random) {
    return list.at((*random)() % list.size());
}

// A random entry that the condition holds for.
const raw_entry &pick(const raw_volume &on, std::mt19937 *random,
                      const std::function<bool(const raw_entry &)> &is_suitable) {
    std::vector<const raw_entry *> suitable;
    for (const raw_entry &entry : on.entries()) {
        if (is_suitable(entry)) {
            suitable.push_back(&entry);
        }
    }
    return *one_of(suitable, random);
}
const raw_entry &pick_directory(const raw_volume &on, std::mt19937 *random) {
    return pick(on, random, [](const raw_entry &entry) { return entry.is_directory; });
}

// Zeros or random bytes.
std::string wreck(raw_volume *on, std::size_t offset, std::size_t size, std::mt19937 *random) {
    if ((*random)() % 2 == 0) {
        on->clear(offset, size);
        return "zeroed";
    }
    on->scramble(offset, size, random);
    return "random bytes";
}

// Each damages one thing and describes what.
using damage_function = std::string (*)(raw_volume *on, std::mt19937 *random);

std::string damage_boot_sector(raw_volume *on, std::mt19937 *) {
    on->clear(0, 512);
    return "zeroed";
}

std::string damage_fsinfo(raw_volume *on, std::mt19937 *random) {
    on->scramble(512, 512, random);
    return "random bytes";
}

std::string damage_first_fat(raw_volume *on, std::mt19937 *random) {
    return wreck(on, on->link_offset(0, 0), std::size_t{on->at.fat_size} * 512, random);
}

// The sector of the FAT that has the link of a random allocated cluster, as an offset in its copy.
std::size_t used_fat_sector(const raw_volume &on, std::mt19937 *random) {
    const std::uint32_t cluster = one_of(on.clusters(false), random);
    return (on.link_offset(cluster, 0) - on.link_offset(0, 0)) / 512 * 512;
}

std::string damage_fat_sector(raw_volume *on, std::mt19937 *random) {
    const std::size_t at = used_fat_sector(*on, random);
    return "sector " + number(at / 512) + " " + wreck(on, on->link_offset(0, 0) + at, 512, random);
}

std::string damage_both_fat_sectors(raw_volume *on, std::mt19937 *random) {
    const std::size_t at = used_fat_sector(*on, random);
    return "sector " + number(at / 512) + " " + wreck(on, on->link_offset(0, 0) + at, 512, random) +
           " and " + wreck(on, on->link_offset(0, 1) + at, 512, random);
}

std::string damage_scattered_links(raw_volume *on, std::mt19937 *random) {
    const std::vector<std::uint32_t> used = on->clusters(false);
    std::string clusters = "random links of clusters";
    for (int i = 0; i < 8; i++) {
        const std::uint32_t cluster = one_of(used, random);
        on->set_link(0, cluster, static_cast<std::uint32_t>((*random)() & 0x0FFFFFFF));
        clusters += " " + number(cluster);
    }
    return clusters;
}

std::string damage_entry(raw_volume *on, std::mt19937 *random) {
    const raw_entry &entry = one_of(on->entries(), random);
    on->clear(entry.offset, 32);
    return entry.name + " zeroed at byte " + number(entry.offset);
}

std::string damage_removed_directory(raw_volume *on, std::mt19937 *random) {
    const raw_entry &directory = pick_directory(*on, random);
    on->image[directory.offset] = 0xE5;
    return directory.name + " at byte " + number(directory.offset);
}

std::string damage_directory_sector(raw_volume *on, std::mt19937 *random) {
    const raw_entry &directory = pick_directory(*on, random);
    on->clear(on->cluster_offset(directory.chain.front()), 512);
    return directory.name + " at cluster " + number(directory.chain.front());
}

std::string damage_root_sector(raw_volume *on, std::mt19937 *) {
    on->clear(on->root_offset(), 512);
    return "zeroed";
}

// Sets the link of a random cluster of a random chain in all copies, not of the last cluster.
std::string relink(raw_volume *on, std::mt19937 *random,
                   const std::function<std::uint32_t(const raw_entry &, std::size_t)> &target_of) {
    const raw_entry &entry =
        pick(*on, random, [](const raw_entry &candidate) { return candidate.chain.size() >= 2; });
    const std::size_t i = (*random)() % (entry.chain.size() - 1);
    const std::uint32_t target = target_of(entry, i);
    on->set_links(entry.chain[i], target);
    return entry.name + ", cluster " + number(i) + " of " + number(entry.chain.size()) + ": link " +
           number(entry.chain[i]) + " to " + number(target);
}

std::string damage_cross_link(raw_volume *on, std::mt19937 *random) {
    return relink(on, random, [&](const raw_entry &entry, std::size_t) {
        const raw_entry &other = pick(*on, random, [&](const raw_entry &candidate) {
            return !candidate.chain.empty() && candidate.offset != entry.offset;
        });
        return one_of(other.chain, random);
    });
}

std::string damage_cycle(raw_volume *on, std::mt19937 *random) {
    return relink(on, random, [&](const raw_entry &entry, std::size_t i) {
        return entry.chain[(*random)() % (i + 1)];
    });
}

std::string damage_link_to_free(raw_volume *on, std::mt19937 *random) {
    return relink(on, random, [&](const raw_entry &, std::size_t) {
        return one_of(on->clusters(true), random);
    });
}

// A free cluster, or the next one of the chain.
std::string damage_link_to_bad(raw_volume *on, std::mt19937 *random) {
    return relink(on, random, [&](const raw_entry &entry, std::size_t i) {
        const std::uint32_t target =
            (*random)() % 2 == 0 ? one_of(on->clusters(true), random) : entry.chain[i + 1];
        on->set_links(target, on->bad_mark());
        return target;
    });
}

std::string damage_dot_entries(raw_volume *on, std::mt19937 *random) {
    const raw_entry &directory = pick_directory(*on, random);
    const std::size_t dot = on->cluster_offset(directory.chain.front()) + (*random)() % 2 * 32;
    switch ((*random)() % 3) {
    case 0:
        on->put_number(dot + 26, static_cast<std::uint32_t>(2 + (*random)() % 1000), 2);
        break;
    case 1:
        on->put_number(dot, 'X', 1);
        break;
    default:
        on->clear(dot, 32);
    }
    return directory.name + ", byte " + number(dot);
}

// The ordinal, the type, the checksum, the cluster, and a unit of the name.
std::string damage_long_names(raw_volume *on, std::mt19937 *random) {
    std::string offsets = "bytes";
    for (int i = 0; i < 5; i++) {
        const raw_entry &entry =
            pick(*on, random, [](const raw_entry &candidate) { return candidate.long_slots > 0; });
        const std::size_t slot = entry.offset - 32 * (1 + (*random)() % entry.long_slots);
        const std::size_t offset =
            slot + one_of(std::vector<std::size_t>{0, 12, 13, 26, 1}, random);
        on->scramble(offset, 1, random);
        offsets += " " + number(offset);
    }
    return offsets;
}

std::string damage_sizes(raw_volume *on, std::mt19937 *random) {
    std::string names = "sizes of";
    for (int i = 0; i < 3; i++) {
        const raw_entry &file =
            pick(*on, random, [](const raw_entry &candidate) { return !candidate.is_directory; });
        on->put_number(file.offset + 28, static_cast<std::uint32_t>((*random)() % 60000), 4);
        names += " " + file.name;
    }
    return names;
}

std::string damage_random_sectors(raw_volume *on, std::mt19937 *random) {
    const raw_volume healthy = *on;
    std::string offsets = "bytes";
    for (int i = 0; i < 4; i++) {
        const raw_entry &file = pick(healthy, random, [](const raw_entry &candidate) {
            return !candidate.is_directory && !candidate.chain.empty();
        });
        std::size_t offset = 0;
        switch ((*random)() % 3) {
        case 0:
            offset = on->link_offset(0, (*random)() % 2) + used_fat_sector(healthy, random);
            break;
        case 1:
            offset = one_of(healthy.directory_sectors(), random);
            break;
        default:
            offset = on->cluster_offset(one_of(file.chain, random));
            on->destroyed.insert(healthy.content_of(file));
        }
        on->scramble(offset, 512, random);
        offsets += " " + number(offset);
    }
    return offsets;
}

struct damage_class {
    const char *name;
    damage_function inflict;
};
void PrintTo(const damage_class &damage, std::ostream *out) {
    *out << damage.name;
}

const std::vector<damage_class> CLASSES = {
    {"BootSector", damage_boot_sector},
    {"FsInfo", damage_fsinfo},
    {"FirstFat", damage_first_fat},
    {"FatSector", damage_fat_sector},
    {"BothFatSectors", damage_both_fat_sectors},
    {"ScatteredLinks", damage_scattered_links},
    {"Entry", damage_entry},
    {"RemovedDirectory", damage_removed_directory},
    {"DirectorySector", damage_directory_sector},
    {"RootSector", damage_root_sector},
    {"CrossLink", damage_cross_link},
    {"Cycle", damage_cycle},
    {"LinkToFree", damage_link_to_free},
    {"LinkToBad", damage_link_to_bad},
    {"DotEntries", damage_dot_entries},
    {"LongNames", damage_long_names},
    {"Sizes", damage_sizes},
    {"RandomSectors", damage_random_sectors},
};

// ---- volumes of known content -------------------------------------------------------------------

enum class filling { PLAIN, FRAGMENTED, FULL };
const char *const FILLING_NAMES[] = {"plain", "fragmented", "full"};

// Each in turn. A full FAT32 volume has 33 MB to read and write in every step: not in short stages.
filling filling_of(unsigned width, unsigned turn) {
    return static_cast<filling>(turn % (width == 32 && seeds() == 1 ? 2 : 3));
}

struct known_volume {
    std::string path; // of the healthy image
    contents files;
};

class volume_maker {
public:
    volume_maker(const scratch_directory &scratch, unsigned width, filling how, unsigned seed)
        : width_(width), how_(how), random_(seed * 1000 + width),
          name_("fat" + number(width) + " " + FILLING_NAMES[static_cast<int>(how)] + " " +
                number(seed)),
          first_(scratch.file(name_ + " first")), second_(scratch.file(name_ + " second")) {
        result_.path = scratch.file(name_ + ".img");
    }

    known_volume make() {
        for (std::size_t i = 0; i < FILES; i++) {
            add_file(i);
        }
        std::vector<std::string> build = {"build", result_.path, "-q",          "--from",
                                          first_,  "--fat",      number(width_)};
        const std::string cluster = width_ != 32 && random_() % 2 == 0 ? "1K" : "512";
        build.insert(build.end(), {"--cluster", cluster, "--size", size_for(cluster)});
        expect_done(build);
        fragment();
        fill_up();
        std::filesystem::remove_all(first_);
        std::filesystem::remove_all(second_);
        EXPECT_EQ(run({"fsck.fat", "-n", result_.path}).status, 0) << name_;
        return std::move(result_);
    }

private:
    static constexpr std::size_t FILES = 56;
    static constexpr std::uint32_t CLUSTERS_LEFT = 20; // of a full volume

    [[nodiscard]] std::string size_for(const std::string &cluster) const {
        const bool is_small = cluster == "512";
        return width_ == 32   ? "34M"
               : width_ == 12 ? (is_small ? "2000K" : "3M")
                              : (is_small ? "3M" : "6M");
    }

    // The second half of a fragmented volume comes later, where the first has left gaps.
    void add_file(std::size_t i) {
        static const std::vector<std::string> DIRECTORIES = {
            "/", "/docs/", "/docs/deep down/", "/Pictures of the sea/", "/docs/deep down/er/"};
        const std::string &directory = DIRECTORIES[i % DIRECTORIES.size()];
        const std::string path =
            directory +
            (i % 3 == 0 ? "F" + number(i) + ".BIN" : "file number " + number(i) + " of many.bin");
        const bool is_later = how_ == filling::FRAGMENTED && i % 2 == 1;
        result_.files[path] = random_bytes(size_of(i));
        write((is_later ? second_ : first_) + path, result_.files[path]);
        if (how_ == filling::FRAGMENTED && !is_later) {
            gaps_.push_back(directory + "file number " + number(i) + " removed");
            write(first_ + gaps_.back(), random_bytes(1 + random_() % 16384));
        }
    }
    std::size_t size_of(std::size_t i) {
        static constexpr std::size_t LIMITS[] = {512, 4096, 16384, 40960};
        return i == 3 || i == 20 ? 0 : 1 + random_() % LIMITS[random_() % 4];
    }
    std::string random_bytes(std::size_t size) {
        std::string content(size, '\0');
        std::generate(content.begin(), content.end(),
                      [this] { return static_cast<char>(random_() & 0xFF); });
        return content;
    }

    void fragment() {
        if (how_ == filling::FRAGMENTED) {
            std::vector<std::string> remove = {"rm", result_.path, "-q"};
            remove.insert(remove.end(), gaps_.begin(), gaps_.end());
            expect_done(remove);
            expect_done({"put", result_.path, "-q", second_ + "/.", "/"});
        }
    }
    void fill_up() {
        if (how_ == filling::FULL) {
            const raw_volume raw(result_.path);
            const std::string piece = random_bytes(509); // in no two clusters the same
            const std::size_t clusters = raw.clusters(true).size() - CLUSTERS_LEFT;
            std::string content;
            while (content.size() < (clusters - 1) * raw.cluster_bytes()) {
                content += piece;
            }
            write(second_ + "/filling", content);
            expect_done({"put", result_.path, "-q", second_ + "/filling", "/"});
            result_.files["/filling"] = std::move(content);
        }
    }

    static void write(const std::string &path, const std::string &content) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << content;
    }
    static void expect_done(const std::vector<std::string> &arguments) {
        const outcome result = run_qvol(arguments);
        EXPECT_EQ(result.status, 0) << arguments[0] << ": " << result;
    }

    unsigned width_;
    filling how_;
    std::mt19937 random_;
    std::string name_;
    std::string first_;
    std::string second_;
    std::vector<std::string> gaps_;
    known_volume result_;
};

// ---- reading a damaged volume -------------------------------------------------------------------

// `qvol get` stops at the first file that it cannot copy; `qvol cat` prints the others, of which
// only those count that have the size of a wanted file.
class volume_reader {
public:
    volume_reader(const scratch_directory &scratch, std::string image, const contents &wanted)
        : image_(std::move(image)), into_(scratch.file("out")) {
        for (const auto &[path, content] : wanted) {
            sizes_.insert(content.size());
        }
    }

    contents read() {
        std::filesystem::create_directory(into_);
        const outcome copied = run_qvol({"get", image_, "/", into_, "-q"});
        EXPECT_LE(copied.status, 1) << copied;
        collect();
        std::filesystem::remove_all(into_);
        if (copied.status != 0) {
            print(listed());
        }
        return std::move(found_);
    }

private:
    using listed_file = std::pair<std::string, std::size_t>; // path and size

    void collect() {
        for (const auto &entry : std::filesystem::recursive_directory_iterator(into_)) {
            if (entry.is_regular_file() && !entry.is_symlink()) {
                std::string content(static_cast<std::size_t>(entry.file_size()), '\0');
                std::ifstream(entry.path(), std::ios::binary)
                    .read(content.data(), static_cast<std::streamsize>(content.size()));
                found_[entry.path().string().substr(into_.size())] = std::move(content);
            }
        }
    }

    // Without those that were copied. A damaged directory may have an entry many times.
    [[nodiscard]] std::vector<listed_file> listed() const {
        const outcome listing = run_qvol({"ls", image_, "-R", "--json"});
        EXPECT_LE(listing.status, 1) << listing;
        std::map<std::string, std::size_t> files;
        const json document = json::parse(listing.out, nullptr, false);
        for (const json &entry : document.is_object() ? document["entries"] : json::array()) {
            const std::string path = entry["path"];
            const std::size_t size = entry["size"];
            if (entry["kind"] == "file" && !found_.contains(path) && sizes_.contains(size)) {
                files.emplace(path, size);
            }
        }
        return {files.begin(), files.end()};
    }

    // All in one run, which fails if one of them cannot be printed; then each half.
    void print(std::span<const listed_file> files) {
        if (files.empty()) {
            return;
        }
        std::vector<std::string> arguments = {"cat", image_};
        std::size_t size = 0;
        for (const auto &[path, bytes_of_it] : files) {
            arguments.push_back(path);
            size += bytes_of_it;
        }
        const outcome printed = run_qvol(arguments);
        EXPECT_LE(printed.status, 1) << printed.err;
        if (printed.status == 0 && printed.out.size() == size) {
            split(files, printed.out);
        } else if (files.size() > 1) {
            print(files.first(files.size() / 2));
            print(files.subspan(files.size() / 2));
        }
    }
    void split(std::span<const listed_file> files, const std::string &all) {
        std::size_t at = 0;
        for (const auto &[path, size] : files) {
            found_[path] = all.substr(at, size);
            at += size;
        }
    }

    std::string image_;
    std::string into_;
    std::set<std::size_t> sizes_; // of the wanted files
    contents found_;
};

// ---- counting -----------------------------------------------------------------------------------

using content_count = std::map<std::string_view, unsigned>;

content_count counted(const contents &files) {
    content_count result;
    for (const auto &[path, content] : files) {
        result[content]++;
    }
    return result;
}
// How many of the files in `wanted` have a counterpart of their own in `found`.
unsigned matches(const content_count &wanted, const content_count &found) {
    return std::accumulate(wanted.begin(), wanted.end(), 0U, [&](unsigned sum, const auto &one) {
        const auto match = found.find(one.first);
        return sum + (match == found.end() ? 0 : std::min(one.second, match->second));
    });
}

// The size of a chain without its entry is not known: its file has up to a cluster more. How many
// of the files in `wanted` begin a file of `found`, or are one.
std::size_t matches_with_slack(const contents &wanted, const contents &found,
                               std::size_t cluster_bytes) {
    const content_count exact = counted(found);
    const auto is_found = [&](const auto &file) {
        const std::string &content = file.second;
        return exact.contains(content) ||
               (!content.empty() &&
                std::any_of(found.begin(), found.end(), [&](const auto &longer) {
                    return longer.second.starts_with(content) &&
                           longer.second.size() - content.size() < cluster_bytes;
                }));
    };
    return static_cast<std::size_t>(std::count_if(wanted.begin(), wanted.end(), is_found));
}

// The files of `wanted` that are in `found` with path and content.
contents intact(const contents &wanted, const contents &found) {
    contents result;
    for (const auto &[path, content] : wanted) {
        const auto match = found.find(path);
        if (match != found.end() && match->second == content) {
            result[path] = content;
        }
    }
    return result;
}

struct file_score {
    std::size_t by_name = 0;     // files with path and content
    std::size_t anywhere = 0;    // files whose content some path has
    std::size_t slack = 0;       // the same, or the content and the rest of its last cluster
    std::size_t lost = 0;        // intact by name before, and their content nowhere after
    std::size_t clean = 0;       // volumes that fsck.fat finds nothing in
    std::size_t overwritten = 0; // files whose clusters have other bytes since the repair

    file_score &operator+=(const file_score &more) {
        by_name += more.by_name;
        anywhere += more.anywhere;
        slack += more.slack;
        lost += more.lost;
        overwritten += more.overwritten;
        clean += more.clean;
        return *this;
    }
};

struct damaged_volume {
    std::string label;
    raw_volume raw;
    contents wanted; // without the files whose data is destroyed
    contents before; // what is read before a repair
};

file_score score_of(const damaged_volume &damaged, const contents &after) {
    const contents named_before = intact(damaged.wanted, damaged.before);
    const content_count found = counted(after);
    return {.by_name = intact(damaged.wanted, after).size(),
            .anywhere = matches(counted(damaged.wanted), found),
            .slack = matches_with_slack(damaged.wanted, after, damaged.raw.cluster_bytes()),
            .lost = named_before.size() - matches(counted(named_before), found)};
}

struct tally {
    std::size_t volumes = 0;
    std::size_t files = 0;
    file_score before;
    file_score qvol;
    file_score fsck;

    tally &operator+=(const tally &more) {
        volumes += more.volumes;
        files += more.files;
        before += more.before;
        qvol += more.qvol;
        fsck += more.fsck;
        return *this;
    }
};

double percent(std::size_t part, std::size_t of) {
    return of == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(of);
}

void print_head() {
    std::printf("%-16s %4s | %-17s | %-17s | %-17s | %-11s | %-9s | %s\n", "", "", "by name",
                "anywhere", "with slack", "clean", "lost", "overwritten");
    std::printf("%-16s %4s", "damage", "vol.");
    for (int i = 0; i < 3; i++) {
        std::printf(" | %5s %5s %5s", "before", "qvol", "fsck");
    }
    std::printf(" | %5s %5s | %4s %4s | %4s %4s\n", "qvol", "fsck", "qvol", "fsck", "qvol", "fsck");
}

// Percent of the files and of the volumes; lost and overwritten files as their number.
void print_row(const std::string &name, const tally &row) {
    std::printf("%-16s %4zu", name.c_str(), row.volumes);
    for (const auto count : {&file_score::by_name, &file_score::anywhere, &file_score::slack}) {
        std::printf(" | %5.1f %5.1f %5.1f", percent(row.before.*count, row.files),
                    percent(row.qvol.*count, row.files), percent(row.fsck.*count, row.files));
    }
    std::printf(" | %5.1f %5.1f | %4zu %4zu | %4zu %4zu\n", percent(row.qvol.clean, row.volumes),
                percent(row.fsck.clean, row.volumes), row.qvol.lost, row.fsck.lost,
                row.qvol.overwritten, row.fsck.overwritten);
}

// ---- the campaign -------------------------------------------------------------------------------

class QvolDamage : public QvolImage, public testing::WithParamInterface<damage_class> {
protected:
    static void SetUpTestSuite() {
        volumes_scratch_ = new scratch_directory;
        rebuilds_boot_ =
            run_qvol({"check", "--help"}).out.find("--rebuild-boot") != std::string::npos;
    }
    static void TearDownTestSuite() {
        delete volumes_scratch_;
        volumes_.clear();
        tally all;
        print_head();
        for (const damage_class &damage : CLASSES) {
            if (rows_.contains(damage.name)) {
                print_row(damage.name, rows_[damage.name]);
                all += rows_[damage.name];
            }
        }
        print_row("all", all);
        std::printf("slowest repair: %.2f s, %s\n", slowest_, slowest_volume_.c_str());
        if (seeds() >= MANY_SEEDS && rows_.size() == CLASSES.size()) {
            EXPECT_GE(percent(all.qvol.by_name, all.files), 100 * LEAST_BY_NAME);
            EXPECT_GE(percent(all.qvol.anywhere, all.files), 100 * LEAST_ANYWHERE);
            EXPECT_GE(percent(all.qvol.slack, all.files), 100 * LEAST_WITH_SLACK);
            EXPECT_GE(percent(all.qvol.clean, all.volumes), 100 * LEAST_CLEAN);
        }
        rows_.clear();
    }

    // A few volumes of each kind, made when they are first damaged.
    static const known_volume &volume_of(unsigned width, filling how, unsigned seed) {
        constexpr unsigned OF_EACH_KIND = 4;
        const auto key = std::tuple(width, how, seed % OF_EACH_KIND);
        if (!volumes_.contains(key)) {
            volumes_[key] = volume_maker(*volumes_scratch_, width, how, seed % OF_EACH_KIND).make();
        }
        return volumes_[key];
    }

    void run_on(unsigned width, filling how, unsigned seed) {
        const known_volume &healthy = volume_of(width, how, seed);
        damaged_volume damaged = {.label = std::string(GetParam().name) + " fat" + number(width) +
                                           " " + FILLING_NAMES[static_cast<int>(how)] + " seed " +
                                           number(seed),
                                  .raw = raw_volume(healthy.path),
                                  .wanted = healthy.files,
                                  .before = {}};
        const bytes pristine = damaged.raw.image;
        std::mt19937 random(seed * 100 + width);
        const std::string what = GetParam().inflict(&damaged.raw, &random);
        SCOPED_TRACE(damaged.label + ": " + what);
        EXPECT_NE(damaged.raw.image, pristine);
        image_ = scratch_.file_with("disk.img", damaged.raw.image);
        keep_image(damaged.label);
        std::erase_if(damaged.wanted, [&](const auto &file) {
            return damaged.raw.destroyed.contains(file.second);
        });
        damaged.before = volume_reader(scratch_, image_, damaged.wanted).read();

        tally row;
        row.volumes = 1;
        row.files = damaged.wanted.size();
        row.before = score_of(damaged, damaged.before);
        row.fsck = after_fsck(damaged);
        row.qvol = after_repair(damaged);
        EXPECT_EQ(row.qvol.lost, 0U);
        EXPECT_GE(row.qvol.by_name, row.before.by_name);
        EXPECT_GE(row.qvol.anywhere, row.before.anywhere);
        if (std::getenv("VERBOSE") != nullptr) {
            print_volume(damaged.label + ": " + what, row);
        }
        rows_[GetParam().name] += row;
    }

private:
    void keep_image(const std::string &label) const {
        const char *directory = std::getenv("QUORVEL_DAMAGE_DIR");
        if (directory != nullptr) {
            std::filesystem::copy_file(image_, std::string(directory) + "/" + label + ".img",
                                       std::filesystem::copy_options::overwrite_existing);
        }
    }

    static void print_volume(const std::string &label, const tally &row) {
        std::printf("%s: %zu files", label.c_str(), row.files);
        const auto print = [&](const char *what, std::size_t file_score::*count) {
            std::printf(", %s %zu %zu %zu", what, row.before.*count, row.qvol.*count,
                        row.fsck.*count);
        };
        print("by name", &file_score::by_name);
        print("anywhere", &file_score::anywhere);
        print("with slack", &file_score::slack);
        print("lost", &file_score::lost);
        print("overwritten", &file_score::overwritten);
        print("clean", &file_score::clean);
        std::printf("\n");
    }

    file_score after_fsck(const damaged_volume &damaged) {
        const std::string copy = scratch_.file_with("copy.img", damaged.raw.image);
        (void)fsck("-a", copy);
        return score_repaired(damaged, copy);
    }

    // Of some volumes it never ends.
    static outcome fsck(const std::string &option, const std::string &image) {
        return run({"timeout", "5", "fsck.fat", option, image});
    }

    // The repair, a second repair, which has nothing to do, and the undo of the first.
    file_score after_repair(const damaged_volume &damaged) {
        const std::string undo = scratch_.file("undo");
        std::filesystem::remove(undo);
        repair(damaged.label, {"--undo", undo});
        const file_score score = score_repaired(damaged, image_);
        const bytes repaired = read_file(image_);
        repair(damaged.label, {});
        EXPECT_TRUE(has_content(image_, repaired)) << "the second repair changed something";
        if (std::filesystem::exists(undo)) {
            (void)scratch_.file_with("disk.img", repaired);
            said("undo", {undo, "-q"});
        }
        EXPECT_TRUE(has_content(image_, damaged.raw.image))
            << "undo did not restore the damaged volume";
        return score;
    }

    void repair(const std::string &label, const std::vector<std::string> &further) {
        std::vector<std::string> command = {"timeout",  "60",   qvol_path(), "check",
                                            "--repair", image_, "-q"};
        if (rebuilds_boot_ && std::string_view(GetParam().name) == "BootSector") {
            command.emplace_back("--rebuild-boot");
        }
        command.insert(command.end(), further.begin(), further.end());
        const auto start = std::chrono::steady_clock::now();
        const outcome result = run(command);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        EXPECT_LE(result.status, 1) << result;
        EXPECT_EQ(result.err.find("Sanitizer"), std::string::npos) << result;
        if (took.count() > slowest_) {
            slowest_ = took.count();
            slowest_volume_ = label;
        }
    }

    file_score score_repaired(const damaged_volume &damaged, const std::string &image) const {
        file_score score = score_of(damaged, volume_reader(scratch_, image, damaged.wanted).read());
        score.overwritten = damaged.raw.count_overwritten(damaged.raw.image, read_file(image));
        score.clean = fsck("-n", image).status == 0 ? 1 : 0;
        return score;
    }

    static inline scratch_directory *volumes_scratch_ = nullptr;
    static inline bool rebuilds_boot_ = false;
    static inline std::map<std::tuple<unsigned, filling, unsigned>, known_volume> volumes_;
    static inline std::map<std::string, tally> rows_; // by damage class
    static inline double slowest_ = 0;                // seconds
    static inline std::string slowest_volume_;
};
INSTANTIATE_TEST_SUITE_P(Class, QvolDamage, testing::ValuesIn(CLASSES),
                         [](const auto &tested) { return std::string(tested.param.name); });

} // namespace

TEST_P(QvolDamage, RepairLosesNothingAndCanBeUndone) {
    const auto index = static_cast<unsigned>(
        std::find_if(CLASSES.begin(), CLASSES.end(),
                     [](const auto &c) { return c.inflict == GetParam().inflict; }) -
        CLASSES.begin());
    const std::vector<unsigned> widths = {12, 16, 32};
    for (unsigned seed = 0; seed < seeds(); seed++) {
        for (unsigned i = 0; i < widths.size(); i++) {
            const bool is_fsinfo = GetParam().inflict == damage_fsinfo;
            const bool is_of_short_run = i == (is_fsinfo ? 2 : index % 3);
            if ((!is_fsinfo || widths[i] == 32) && (!is_short_run() || is_of_short_run)) {
                run_on(widths[i], filling_of(widths[i], index + i + seed), seed);
            }
        }
    }
}
