// The power fails after every single sector that a call writes: the medium in this state is
// mounted again. Everything else is whole, no cluster belongs to two chains,
// every walk ends. The possible states that the call itself leaves are collected, and are
// exactly those of docs/power-loss.md.

#include "tests/support/by_path.h"
#include "tests/support/moment.h"
#include "tests/support/valgrind.h"
#include "tests/support/volume.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

using namespace testing_support;

namespace {

constexpr time_t NOW = 1709210096; // 2024-02-29 12:34:56 UTC

using phrases = std::set<std::string>;

// ---- the medium at a moment -------------------------------------------------------------------

struct sector_write {
    std::uint64_t sector;
    bytes content;
};

// Notes every sector that reaches the medium while it lives.
class write_recorder {
public:
    write_recorder() {
        notes().clear();
        real() = write_sectors;
        write_sectors = note;
    }
    write_recorder(const write_recorder &) = delete;
    write_recorder &operator=(const write_recorder &) = delete;
    ~write_recorder() {
        write_sectors = real();
    }
    [[nodiscard]] static std::vector<sector_write> writes() {
        return notes();
    }

private:
    static std::vector<sector_write> &notes() {
        static std::vector<sector_write> list;
        return list;
    }
    static fat_sector_io &real() {
        static fat_sector_io transfer = nullptr;
        return transfer;
    }
    static int note(void *buf, std::uint64_t sector, std::uint32_t count) {
        const auto *data = static_cast<const std::uint8_t *>(buf);
        for (std::uint32_t i = 0; i < count; i++) {
            const std::uint8_t *begin = data + std::size_t{i} * sv->sector_size;
            notes().push_back({sector + i, {begin, begin + sv->sector_size}});
        }
        return real()(buf, sector, count);
    }
};

// The whole medium, to be put under the library again and again.
class picture {
public:
    explicit picture(ram_disk *disk) : size_(sv->vol_size), sector_size_(sv->sector_size) {
        take(disk);
    }
    // Of a disk that was made from another picture.
    picture(const picture &before, ram_disk *disk) : picture(before) {
        take(disk);
    }

    // With the first `count` of the writes done, as the open volume.
    [[nodiscard]] std::unique_ptr<ram_disk> disk(const std::vector<sector_write> &writes,
                                                 std::size_t count) const {
        auto result = std::make_unique<ram_disk>(size_, painter());
        for (std::size_t i = 0; i < count; i++) {
            result->poke(writes[i].sector * sector_size_, writes[i].content);
        }
        sv->long_name = 1;
        return result;
    }
    [[nodiscard]] std::unique_ptr<ram_disk> mounted(const std::vector<sector_write> &writes,
                                                    std::size_t count) const {
        auto result = disk(writes, count);
        if (fat_build_super() != 0) {
            throw std::runtime_error("the volume cannot be mounted");
        }
        return result;
    }

private:
    using block_map = std::map<std::uint64_t, bytes>;

    // Blocks that the disk does not have are not changed.
    void take(ram_disk *disk) {
        auto blocks = std::make_shared<block_map>(blocks_ != nullptr ? *blocks_ : block_map());
        for (const std::uint64_t number : disk->known_blocks()) {
            const std::uint8_t *block = disk->block(number);
            blocks->insert_or_assign(number, bytes(block, block + ram_disk::BLOCK));
        }
        blocks_ = blocks;
    }
    [[nodiscard]] ram_disk::background painter() const {
        return [blocks = blocks_](std::uint64_t number, std::uint8_t *block) {
            const auto known = blocks->find(number);
            if (known == blocks->end()) {
                std::fill_n(block, ram_disk::BLOCK, std::uint8_t{0});
            } else {
                std::copy(known->second.begin(), known->second.end(), block);
            }
        };
    }

    std::uint64_t size_;
    std::uint32_t sector_size_;
    std::shared_ptr<const block_map> blocks_;
};

// ---- the furnished volume ---------------------------------------------------------------------

// Bytes of a cluster.
std::uint32_t unit() {
    return cluster_bytes_of_open_volume();
}

void must(int result) {
    if (result < 0) {
        throw std::runtime_error("the volume cannot be furnished");
    }
}
void add_file(const std::string &path, std::size_t size) {
    must(create(path));
    if (size > 0) {
        must(append_to(path, arbitrary_bytes(size, static_cast<std::uint32_t>(size))));
    }
}

// The cluster whose link is the first of FAT sector `n`.
std::uint32_t first_of_fat_sector(std::uint32_t n) {
    return n * sv->sector_size / (sv->fat_type / 8);
}
// Lets the next allocations take the last `count` clusters of a FAT sector and then the next's.
void allocate_across_fat_sectors(std::uint32_t count) {
    sv->last_alloc_clus = first_of_fat_sector(2) - count - 1;
}

void furnish() {
    must(fat_build_super());

    add_file("FIRST.TXT", 3 * unit() - 100);
    add_file("A long name for a file.txt", unit() / 2);
    add_file("EMPTY.TXT", 0);
    must(make_link("FIRST.TXT", "LINK"));
    must(make_directory("SUB"));
    add_file("SUB/INNER.TXT", 2 * unit());
    must(make_directory("SUB/DEEP"));
    add_file("SUB/DEEP/Another long name.dat", unit() + 1);
    must(make_directory("VOID"));
    must(make_directory("A directory with a long name"));
    must(make_directory("FULL"));
    for (std::uint32_t i = 2; i < unit() / 32; i++) {
        add_file(numbered("FULL/F", i), 0);
    }
    sv->last_alloc_clus = first_of_fat_sector(1) - 3;
    add_file("STRADDLE.BIN", 4 * unit());
    must(go_to(""));
}

// ---- the calls during a power failure ---------------------------------------------------------

struct scenario {
    std::string call; // its row in docs/power-loss.md
    std::string name;
    std::function<void()> prepare; // on the furnished volume; may be empty
    std::function<int()> act;
    int result = 0;         // of the act: 0 means any success
    std::string about = ""; // what is written to without a change that stays
    bool is_stale = false;  // a directory grows into a cluster that holds old entries
};

std::uint32_t slots_per_sector() {
    return sv->sector_size / 32;
}
std::string filler_name(std::uint32_t number) {
    return numbered("G", number);
}
// Adds names to a directory of `used` slots until `left` are left of the last sector.
void leave_slots(const std::string &path, std::uint32_t used, std::uint32_t left) {
    for (std::uint32_t i = used; (i + left) % slots_per_sector() != 0; i++) {
        must(create(path + "/" + filler_name(i)));
    }
}
// Makes an empty directory one of three sectors, in which only the last slot of the first and the
// first two of the second are free, and were in use.
void leave_deleted_slots(const std::string &path) {
    const std::uint32_t first = slots_per_sector() - 1;
    leave_slots(path, 2, 0);
    for (std::uint32_t i = 0; i < slots_per_sector(); i++) {
        must(create(path + "/" + filler_name(slots_per_sector() + i)));
    }
    for (std::uint32_t i = first; i < first + 3; i++) {
        must(call_on(path + "/" + filler_name(i), fat_rm_entry));
    }
}
// Fills the root directory up to the end of a cluster.
void fill_root() {
    const survey now = survey_of_open_volume();
    for (std::uint32_t used = now.entries.at("").used_slots; used % (unit() / 32) != 0; used++) {
        must(create(numbered("R", used)));
    }
}
// Lets the next directory that grows take a cluster in which a directory once lay, with a name in
// each sector of what is another file now.
void leave_stale_cluster() {
    allocate_across_fat_sectors(0);
    const std::uint32_t cluster = sv->last_alloc_clus + 1;
    const survey now = survey_of_open_volume();
    for (std::uint32_t i = 0; i < sv->sec_per_clus; i++) {
        const surveyed_entry &first = now.entries.at("FIRST.TXT");
        const entry_image entry = short_entry(numbered("STALE", i) + "     ", ARCHIVE,
                                              first.clusters.front(), first.size);
        bytes sector(sv->sector_size);
        std::copy(entry.begin(), entry.end(), sector.begin());
        must(write_sectors(sector.data(), volume::first_sector_of(cluster) + i, 1));
    }
}
// Leaves only so many clusters free.
void fill_volume(std::uint32_t left) {
    const std::uint32_t free = survey_of_open_volume().count_free();
    add_file("FILLER.BIN", std::size_t{free - left} * unit());
}

const std::string LONGEST(250, 'n');

std::vector<scenario> file_creations() {
    return {
        {"fat_create_file", "ShortName", {}, [] { return create("SUB/NEW.TXT"); }},
        {"fat_create_file", "LongName", {}, [] { return create("SUB/A new file.txt"); }},
        {"fat_create_file", "LongNameInTwoSectors", [] { leave_slots("VOID", 2, 1); },
         [] { return create("VOID/A new file.txt"); }},
        {"fat_create_file", "LongNameOverRemovedNames", [] { leave_deleted_slots("VOID"); },
         [] { return create("VOID/A new file.txt"); }},
        {"fat_create_file", "LongestName", [] { leave_slots("VOID", 2, 2); },
         [] { return create("VOID/" + LONGEST + ".txt"); }},
        {"fat_create_file", "DirectoryGrows", {}, [] { return create("FULL/NEW.TXT"); }},
        {"fat_create_file", "DirectoryGrowsIntoAnotherFatSector",
         [] { allocate_across_fat_sectors(0); }, [] { return create("FULL/A new file.txt"); }},
        {.call = "fat_create_file",
         .name = "DirectoryGrowsIntoAUsedCluster",
         .prepare = leave_stale_cluster,
         .act = [] { return create("FULL/NEW.TXT"); },
         .is_stale = true},
        {"fat_create_file", "RootGrows", fill_root, [] { return create("NEW.TXT"); }},
    };
}
std::vector<scenario> directory_creations() {
    return {
        {"fat_mkdir", "ShortName", {}, [] { return make_directory("SUB/NEW"); }},
        {"fat_mkdir", "LongNameInTwoSectors", [] { leave_slots("VOID", 2, 1); },
         [] { return make_directory("VOID/A new directory"); }},
        {"fat_mkdir", "LongNameOverRemovedNames", [] { leave_deleted_slots("VOID"); },
         [] { return make_directory("VOID/A new directory"); }},
        {"fat_mkdir", "DirectoryGrows", {}, [] { return make_directory("FULL/NEW"); }},
        {"fat_mkdir", "DirectoryGrowsIntoAnotherFatSector", [] { allocate_across_fat_sectors(0); },
         [] { return make_directory("FULL/NEW"); }},
        {.call = "fat_mkdir",
         .name = "DirectoryGrowsIntoAUsedCluster",
         .prepare = leave_stale_cluster,
         .act = [] { return make_directory("FULL/NEW"); },
         .is_stale = true},
        {"fat_mkdir", "RootGrows", fill_root, [] { return make_directory("NEW"); }},
    };
}
std::vector<scenario> link_creations() {
    return {
        {"fat_create_symlink", "ShortName", {}, [] { return make_link("FIRST.TXT", "SUB/NEW"); }},
        {"fat_create_symlink", "LongNameInTwoSectors", [] { leave_slots("VOID", 2, 1); },
         [] { return make_link("FIRST.TXT", "VOID/A new symbolic link"); }},
        {"fat_create_symlink", "LongNameOverRemovedNames", [] { leave_deleted_slots("VOID"); },
         [] { return make_link("FIRST.TXT", "VOID/A new symbolic link"); }},
        {"fat_create_symlink",
         "DirectoryGrows",
         {},
         [] { return make_link("FIRST.TXT", "FULL/NEW"); }},
        {"fat_create_symlink", "DirectoryGrowsIntoAnotherFatSector",
         [] { allocate_across_fat_sectors(0); }, [] { return make_link("FIRST.TXT", "FULL/NEW"); }},
        {.call = "fat_create_symlink",
         .name = "DirectoryGrowsIntoAUsedCluster",
         .prepare = leave_stale_cluster,
         .act = [] { return make_link("FIRST.TXT", "FULL/NEW"); },
         .is_stale = true},
        {"fat_create_symlink", "RootGrows", fill_root,
         [] { return make_link("FIRST.TXT", "NEW"); }},
    };
}

int append(const std::string &path, std::size_t size) {
    return append_to(path, arbitrary_bytes(size, 99));
}

std::vector<scenario> writes() {
    return {
        {"fat_write_file", "FirstByte", {}, [] { return append("EMPTY.TXT", 1); }},
        {"fat_write_file", "FirstClusters", {}, [] { return append("EMPTY.TXT", 3 * unit()); }},
        {"fat_write_file", "FirstClustersAcrossFatSectors", [] { allocate_across_fat_sectors(2); },
         [] { return append("EMPTY.TXT", 5 * unit()); }},
        {"fat_write_file", "InsideTheLastCluster", {}, [] { return append("FIRST.TXT", 50); }},
        {"fat_write_file", "ToTheEndOfTheCluster", {}, [] { return append("FIRST.TXT", 100); }},
        {"fat_write_file",
         "NewClusters",
         {},
         [] { return append("SUB/INNER.TXT", 2 * unit() + 7); }},
        {"fat_write_file", "NewClustersAcrossFatSectors", [] { allocate_across_fat_sectors(2); },
         [] { return append("FIRST.TXT", 5 * unit()); }},
        {"fat_write_file", "FileAcrossFatSectors", {}, [] { return append("STRADDLE.BIN", 1); }},
        {"fat_write_file", "Link", {}, [] { return append("LINK", 20); }},
    };
}
// On small volumes: the clusters that were found are freed.
std::vector<scenario> failing_writes() {
    return {
        {"fat_write_file", "NoSpace", [] { fill_volume(3); },
         [] { return append("FIRST.TXT", 5 * unit()); }, -ENOSPC, "FIRST.TXT"},
        {"fat_write_file", "NoSpaceForAnEmptyFile", [] { fill_volume(3); },
         [] { return append("EMPTY.TXT", 5 * unit()); }, -ENOSPC, "EMPTY.TXT"},
    };
}

std::vector<scenario> removals() {
    return {
        {"fat_unlink", "File", {}, [] { return call_on("SUB/INNER.TXT", fat_unlink); }},
        {"fat_unlink",
         "LongName",
         {},
         [] { return call_on("A long name for a file.txt", fat_unlink); }},
        {"fat_unlink",
         "FileAcrossFatSectors",
         {},
         [] { return call_on("STRADDLE.BIN", fat_unlink); }},
        {"fat_unlink", "Link", {}, [] { return call_on("LINK", fat_unlink); }},
        {"fat_unlink", "Directory", {}, [] { return call_on("VOID", fat_unlink); }},
        {"fat_unlink",
         "DirectoryWithALongName",
         {},
         [] { return call_on("A directory with a long name", fat_unlink); }},
    };
}
std::vector<scenario> entry_removals() {
    return {
        {"fat_rm_entry", "File", {}, [] { return call_on("FIRST.TXT", fat_rm_entry); }},
        {"fat_rm_entry", "EmptyFile", {}, [] { return call_on("EMPTY.TXT", fat_rm_entry); }},
        {"fat_rm_entry",
         "LongName",
         {},
         [] { return call_on("SUB/DEEP/Another long name.dat", fat_rm_entry); }},
        {"fat_rm_entry", "Directory", {}, [] { return call_on("SUB", fat_rm_entry); }},
    };
}

// ---- findings ---------------------------------------------------------------------------------

bool is_cut_short(const surveyed_entry &entry) {
    return entry.end == chain_end::runs_into_free || entry.end == chain_end::start_is_free;
}

bool has_spare_clusters(const surveyed_entry &entry, std::uint32_t cluster_bytes) {
    const std::uint64_t covered = std::uint64_t{cluster_bytes} * entry.clusters.size();
    return !entry.is_directory && !entry.is_link &&
           covered >= std::uint64_t{entry.size} + cluster_bytes;
}

void add_remains_of(const std::string &path, const surveyed_entry &entry,
                    std::uint32_t cluster_bytes, phrases *found) {
    if (entry.end == chain_end::start_is_free) {
        found->insert("a name whose first cluster is free");
    }
    if (entry.end == chain_end::runs_into_free) {
        found->insert(path.empty()         ? "on FAT32 a root directory cut short"
                      : entry.is_directory ? "a directory cut short"
                                           : "a file cut short");
    }
    if (has_spare_clusters(entry, cluster_bytes)) {
        found->insert("clusters past the end of a file");
    }
    if (entry.is_link && entry.size == 0) {
        found->insert("an empty link");
    }
    if (entry.is_directory && !entry.has_dot_entries) {
        found->insert("a directory without dot entries");
    }
}

// The differences from a volume on which every call was completed.
phrases remains_in(const survey &now, const survey &before, const survey &finished) {
    phrases found;
    std::set<std::string> known;
    for (const survey *one : {&before, &finished}) {
        for (const auto &[path, entry] : one->entries) {
            known.insert({path, path_in(parent_of(path), entry.short_name)});
        }
    }
    for (const auto &[path, entry] : now.entries) {
        add_remains_of(path, entry, now.areas.cluster_bytes(), &found);
        if (known.count(path) == 0) {
            found.insert("names that were never there");
        }
    }
    for (const auto &[path, entry] : finished.entries) {
        if (entry.has_long_name &&
            now.entries.count(path_in(parent_of(path), entry.short_name)) > 0) {
            found.insert("a long name in its short form only");
        }
    }
    if (!now.lost.empty()) {
        found.insert("lost clusters");
    }
    if (!now.orphan_slots.empty()) {
        found.insert("slots without a name");
    }
    if (!now.behind_the_end.empty()) {
        found.insert("a name past the end");
    }
    return found;
}

bool is_same(const surveyed_entry &a, const surveyed_entry &b) {
    return a.is_directory == b.is_directory && a.is_link == b.is_link && a.size == b.size &&
           a.content == b.content && a.has_long_name == b.has_long_name &&
           a.has_dot_entries == b.has_dot_entries;
}
bool is_untouched(const surveyed_entry &a, const surveyed_entry &b) {
    return is_same(a, b) && a.clusters == b.clusters && a.end == b.end;
}

// The subjects of the call: every path that it adds, removes or changes, in all forms of its name.
std::set<std::string> subjects_of(const survey &before, const survey &after,
                                  const std::string &about) {
    std::set<std::string> result;
    const auto look = [&result](const survey &one, const survey &other) {
        for (const auto &[path, entry] : one.entries) {
            const auto match = other.entries.find(path);
            if (match == other.entries.end() || !is_untouched(entry, match->second)) {
                result.insert({path, path_in(parent_of(path), entry.short_name)});
            }
        }
    };
    look(before, after);
    look(after, before);
    if (!about.empty()) {
        result.insert(about);
    }
    return result;
}

// The directory on the way to the path whose chain is cut short, if there is one.
std::optional<std::string> barrier_before(const survey &now, const std::string &path) {
    std::string directory;
    for (const std::string &part : components_of(path)) {
        if (is_cut_short(now.entries.at(directory))) {
            return directory;
        }
        directory = path_in(directory, part);
    }
    return std::nullopt;
}

// ---- the promise ------------------------------------------------------------------------------

// A row of docs/power-loss.md: the possible states after a cut, and the state after the whole call.
struct promise {
    phrases of_a_cut;
    phrases of_the_call;
};

std::vector<std::string> split(const std::string &text, char at) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, at);) {
        const std::size_t begin = std::min(part.find_first_not_of(' '), part.size());
        result.push_back(part.substr(begin, part.find_last_not_of(' ') + 1 - begin));
    }
    return result;
}

phrases phrases_in(const std::string &cell, bool is_fat32) {
    phrases result;
    for (const std::string &phrase : split(cell, ';')) {
        if (phrase != "nothing" && (is_fat32 || phrase.rfind("on FAT32 ", 0) != 0)) {
            result.insert(phrase);
        }
    }
    return result;
}

promise promise_of(const std::string &call, bool is_fat32) {
    const bytes content = read_file(QUORVEL_SOURCE_DIR "/docs/power-loss.md");
    for (const std::string &line : split({content.begin(), content.end()}, '\n')) {
        const std::vector<std::string> cells = split(line, '|');
        if (cells.size() == 4 && cells[1].size() > 2 &&
            cells[1].substr(1, cells[1].size() - 2) == call) {
            return {phrases_in(cells[2], is_fat32), phrases_in(cells[3], is_fat32)};
        }
    }
    ADD_FAILURE() << call << " has no row";
    return {};
}

// ---- the cases --------------------------------------------------------------------------------

std::vector<volume_shape> shapes() {
    const std::vector<volume_shape> all = {
        {.fat_type = 16, .sector_size = 512, .sec_per_clus = 1},
        {.fat_type = 16, .sector_size = 1024, .sec_per_clus = 2},
        {.fat_type = 32, .sector_size = 512, .sec_per_clus = 2},
        {.fat_type = 32, .sector_size = 2048, .sec_per_clus = 1},
    };
    return runs_in_valgrind() ? std::vector<volume_shape>{all[0]} : all;
}

class PowerLoss : public testing::TestWithParam<volume_shape> {
protected:
    PowerLoss() {
        fat_set_diagnostics(nullptr);
    }
    ~PowerLoss() override {
        fat_set_diagnostics(stderr);
    }

    // A scenario that has been played to its end once.
    struct play {
        explicit play(picture from) : start(std::move(from)) {}

        picture start; // of the medium on which the call begins
        std::unique_ptr<survey> before, after;
        std::vector<sector_write> sectors; // that the call writes
        std::set<std::string> subjects;
    };

    // The power fails everywhere in all of them; together they leave the promised states of the
    // call.
    void cut_everywhere(const std::vector<scenario> &scenarios) {
        phrases left_by_cuts;
        phrases left_by_call;
        for_each(scenarios, [&](const scenario &s, const play &p, std::size_t count) {
            const auto disk = p.start.mounted(p.sectors, count);
            const survey now = survey_of_open_volume();
            ASSERT_NO_FATAL_FAILURE(expect_rest_whole(p, now, s.is_stale));
            ASSERT_NO_FATAL_FAILURE(expect_rest_in_reach(now));
            const bool is_cut = count < p.sectors.size();
            (is_cut ? left_by_cuts : left_by_call).merge(remains_in(now, *p.before, *p.after));
        });
        const promise promised = promise_of(scenarios.front().call, GetParam().fat_type == 32);
        EXPECT_EQ(left_by_cuts, promised.of_a_cut);
        EXPECT_EQ(left_by_call, promised.of_the_call);
    }

    // After every cut removes the remains and repeats the call if it was not completed.
    void repair_everywhere(const std::vector<scenario> &scenarios) {
        for_each(scenarios, [](const scenario &s, const play &p, std::size_t count) {
            const auto disk = p.start.mounted(p.sectors, count);
            const survey now = survey_of_open_volume();
            if (count == p.sectors.size() || s.is_stale || is_beyond_repair(p, now)) {
                return;
            }
            ASSERT_NO_FATAL_FAILURE(remove_remains(p, now));
            if (!is_finished(*p.after)) {
                ASSERT_GE(s.act(), 0);
            }
            ASSERT_TRUE(is_finished(*p.after));
        });
    }

    static picture furnished_volume() {
        volume v(GetParam());
        furnish();
        return picture(&v.disk);
    }
    static play played(const picture &furnished, const scenario &s) {
        auto disk = furnished.mounted({}, 0);
        if (s.prepare) {
            s.prepare();
        }
        const std::uint32_t hint = sv->last_alloc_clus;
        play p(picture(furnished, disk.get()));
        disk.reset();
        disk = p.start.mounted({}, 0);
        sv->last_alloc_clus = hint;
        p.before = std::make_unique<survey>(survey_of_open_volume());
        const phrases nothing;
        EXPECT_EQ(remains_in(*p.before, *p.before, *p.before), nothing);
        {
            const write_recorder recorder;
            EXPECT_EQ(std::min(s.act(), 0), s.result);
            p.sectors = write_recorder::writes();
        }
        p.after = std::make_unique<survey>(survey_of_open_volume());
        p.subjects = subjects_of(*p.before, *p.after, s.about);
        return p;
    }

private:
    // Calls `look` for every number of sectors of every scenario that may have reached the medium.
    template <typename Look>
    static void for_each(const std::vector<scenario> &scenarios, Look look) {
        const picture furnished = furnished_volume();
        for (const scenario &s : scenarios) {
            SCOPED_TRACE(s.call + " " + s.name);
            const play p = played(furnished, s);
            for (std::size_t count = 0; count <= p.sectors.size(); count++) {
                SCOPED_TRACE("after " + std::to_string(count) + " of " +
                             std::to_string(p.sectors.size()) + " sectors");
                ASSERT_NO_FATAL_FAILURE(look(s, p, count));
            }
        }
    }

    // A file that is written is the old one or the new one, as far as it has its size and its first
    // cluster.
    static void expect_old_or_new(const play &p, const std::string &path,
                                  const surveyed_entry &entry) {
        const auto old = p.before->entries.find(path);
        if (old == p.before->entries.end() || entry.is_directory ||
            entry.end == chain_end::start_is_free) {
            return;
        }
        const auto finished = p.after->entries.find(path);
        ASSERT_TRUE(
            entry.content == old->second.content ||
            (finished != p.after->entries.end() && entry.content == finished->second.content))
            << path;
    }
    // On the medium itself.
    static void expect_rest_whole(const play &p, const survey &now, bool may_have_strangers) {
        ASSERT_TRUE(now.shared.empty() || may_have_strangers) << "clusters of two chains";
        for (const auto &[path, entry] : p.before->entries) {
            if (p.subjects.count(path) == 0) {
                const auto found = now.entries.find(path);
                ASSERT_TRUE(found != now.entries.end() && is_untouched(entry, found->second))
                    << path;
            }
        }
        for (const auto &[path, entry] : now.entries) {
            const bool is_known = p.before->entries.count(path) + p.subjects.count(path) > 0;
            ASSERT_TRUE(is_known || may_have_strangers) << path;
            ASSERT_TRUE(p.subjects.count(path) == 1 || !is_cut_short(entry)) << path;
            ASSERT_NE(entry.end, chain_end::broken) << path;
            ASSERT_NO_FATAL_FAILURE(expect_old_or_new(p, path, entry));
        }
    }

    // Through the library, whose walks all end.
    static void expect_rest_in_reach(const survey &now) {
        for (const auto &[path, entry] : now.entries) {
            SCOPED_TRACE(path);
            const std::optional<std::string> barrier = barrier_before(now, path);
            if (barrier) {
                ASSERT_NO_FATAL_FAILURE(expect_barred(*barrier, path));
            } else if (entry.is_directory) {
                ASSERT_EQ(go_to(path), is_cut_short(entry) && !path.empty() ? -ENOTDIR : 0);
                ASSERT_LT(fat_open("No such name"), 0);
            } else if (is_cut_short(entry)) {
                ASSERT_NO_FATAL_FAILURE(expect_useless(path));
            } else {
                ASSERT_TRUE(content_by_library(path, entry.size) == std::pair(0, entry.content));
            }
        }
    }
    // In a directory that cannot be opened. A root directory can always be opened, but no entry in
    // it.
    static void expect_barred(const std::string &barrier, const std::string &path) {
        if (!barrier.empty()) {
            ASSERT_EQ(go_to(barrier), -ENOTDIR);
        } else {
            ASSERT_EQ(go_to(""), 0);
            ASSERT_EQ(fat_open(components_of(path).front().c_str()), -EFAULT);
            ASSERT_LT(fat_open("No such name"), 0);
        }
    }
    // Such a name opens, and is good for nothing but to be removed with fat_rm_entry().
    static void expect_useless(const std::string &path) {
        const int id = call_on(path, fat_open);
        ASSERT_GT(id, 0);
        std::uint8_t byte = 0;
        ASSERT_EQ(fat_read_file(id, &byte, 1), -EISDIR);
        ASSERT_EQ(fat_write_file(id, &byte, 1), -EISDIR);
        ASSERT_EQ(fat_close(id), 0);
        ASSERT_EQ(call_on(path, fat_unlink), -ENOENT);
    }

    // A directory that cannot be opened cannot be repaired by calls.
    static bool is_beyond_repair(const play &p, const survey &now) {
        return std::any_of(p.subjects.begin(), p.subjects.end(), [&now](const std::string &path) {
            const auto found = now.entries.find(path);
            return found != now.entries.end() && found->second.is_directory &&
                   found->second.end == chain_end::runs_into_free;
        });
    }
    // Creates and removes names of one slot, which closes the gap before a name past the end.
    static void fill_gap(const std::string &directory) {
        std::vector<std::string> made;
        while (!survey_of_open_volume().behind_the_end.empty()) {
            made.push_back(
                path_in(directory, numbered("FILL", static_cast<std::uint32_t>(made.size()))));
            ASSERT_EQ(create(made.back()), 0);
            ASSERT_LT(made.size(), 21U);
        }
        for (const std::string &path : made) {
            ASSERT_EQ(call_on(path, fat_rm_entry), 1);
        }
    }
    static void remove_remains(const play &p, const survey &cut) {
        if (!cut.behind_the_end.empty()) {
            ASSERT_NO_FATAL_FAILURE(fill_gap(parent_of(*p.subjects.rbegin())));
        }
        const survey now = survey_of_open_volume();
        for (const std::string &path : p.subjects) {
            const auto found = now.entries.find(path);
            const auto old = p.before->entries.find(path);
            const bool is_new = old == p.before->entries.end();
            if (found == now.entries.end() || (!is_new && !is_cut_short(found->second))) {
                continue;
            }
            ASSERT_EQ(call_on(path, fat_rm_entry), 1) << path;
            if (!is_new && p.after->entries.count(path) > 0) {
                ASSERT_EQ(create(path), 0) << path;
                ASSERT_GT(append_to(path, old->second.content), 0) << path;
            }
        }
    }
    // Names and contents, wherever their clusters are now.
    static testing::AssertionResult is_finished(const survey &finished) {
        const survey now = survey_of_open_volume();
        if (!now.shared.empty()) {
            return testing::AssertionFailure() << "clusters of two chains";
        }
        for (const auto &[path, entry] : finished.entries) {
            const auto found = now.entries.find(path);
            if (found == now.entries.end() || !is_same(entry, found->second)) {
                return testing::AssertionFailure() << path;
            }
        }
        return now.entries.size() == finished.entries.size()
                   ? testing::AssertionSuccess()
                   : testing::AssertionFailure() << "there are more names";
    }

    stopped_clock clock_{NOW};
};

} // namespace

// ---- after a cut ------------------------------------------------------------------------------

TEST_P(PowerLoss, WhileAFileIsCreatedLeavesThePromisedState) {
    cut_everywhere(file_creations());
}

TEST_P(PowerLoss, WhileADirectoryIsCreatedLeavesThePromisedState) {
    cut_everywhere(directory_creations());
}

TEST_P(PowerLoss, WhileALinkIsCreatedLeavesThePromisedState) {
    cut_everywhere(link_creations());
}

TEST_P(PowerLoss, WhileAFileIsWrittenLeavesThePromisedState) {
    std::vector<scenario> all = writes();
    if (GetParam().fat_type == 16) {
        const std::vector<scenario> failing = failing_writes();
        all.insert(all.end(), failing.begin(), failing.end());
    }
    cut_everywhere(all);
}

TEST_P(PowerLoss, WhileANameIsUnlinkedLeavesThePromisedState) {
    cut_everywhere(removals());
}

TEST_P(PowerLoss, WhileAnEntryIsRemovedLeavesThePromisedState) {
    cut_everywhere(entry_removals());
}

// ---- repairing --------------------------------------------------------------------------------

TEST_P(PowerLoss, AfterwardsTheRemainsAreRemovedAndTheCallIsMadeAgain) {
    for (const std::vector<scenario> &all :
         {file_creations(), directory_creations(), link_creations(), writes(), removals()}) {
        ASSERT_NO_FATAL_FAILURE(repair_everywhere(all));
    }
}

// Of the scenario with this name, after all sectors but `missing` of them.
class OneCut : public PowerLoss {
protected:
    std::unique_ptr<ram_disk> cut(const std::vector<scenario> &all, const std::string &name,
                                  std::size_t missing) {
        const auto found = std::find_if(all.begin(), all.end(),
                                        [&name](const scenario &s) { return s.name == name; });
        const play p = played(furnished_volume(), *found);
        return p.start.mounted(p.sectors, p.sectors.size() - missing);
    }
};

TEST_P(OneCut, LeavesANameThatSharesTheClustersOfTheNextFileUnlessItIsRemovedFirst) {
    const auto disk = cut(removals(), "File", 1);
    const bytes content = arbitrary_bytes(2 * unit(), 1);
    ASSERT_EQ(create("LATER.TXT"), 0);
    ASSERT_GT(append_to("LATER.TXT", content), 0);
    EXPECT_FALSE(survey_of_open_volume().shared.empty());
    EXPECT_EQ(call_on("SUB/INNER.TXT", fat_rm_entry), 1);
    EXPECT_TRUE(survey_of_open_volume().shared.empty());
    EXPECT_EQ(content_by_library("LATER.TXT", 2 * unit()), std::pair(0, content));
}

TEST_P(OneCut, LeavesAGapAfterWhichLongNamesAreLostUntilItIsFilled) {
    const auto disk = cut(file_creations(), "LongNameInTwoSectors", 1);
    ASSERT_EQ(create("VOID/Another new file.txt"), 0);
    EXPECT_EQ(call_on("VOID/Another new file.txt", fat_open), -ENOENT);
    ASSERT_EQ(create("VOID/SHORT"), 0);
    EXPECT_GT(call_on("VOID/SHORT", fat_open), 0);
    EXPECT_GT(call_on("VOID/Another new file.txt", fat_open), 0);
    EXPECT_GT(call_on("VOID/anewfi~1.txt", fat_open), 0);
}

TEST_P(OneCut, LeavesClustersPastTheEndThatTheNextWriteUses) {
    const auto disk = cut(writes(), "NewClusters", 1);
    const survey before = survey_of_open_volume();
    ASSERT_GT(append("SUB/INNER.TXT", 2 * unit() + 7), 0);
    const survey after = survey_of_open_volume();
    EXPECT_EQ(before.count_free(), after.count_free());
    EXPECT_EQ(after.entries.at("SUB/INNER.TXT").size, 4 * unit() + 7);
}

// ---- unaffected files -------------------------------------------------------------------------

TEST_P(PowerLoss, CannotHurtWhileNothingIsChanged) {
    const auto disk = furnished_volume().mounted({}, 0);
    const write_recorder recorder;
    ASSERT_EQ(go_to("SUB/DEEP"), 0);
    const int id = fat_open_file("Another long name.dat");
    ASSERT_GT(id, 0);
    std::uint8_t byte = 0;
    EXPECT_EQ(fat_read_file(id, &byte, 1), 1);
    EXPECT_EQ(fat_lseek(id, 0, 2), unit() + 1);
    EXPECT_EQ(fat_close(id), 0);
    EXPECT_EQ(fat_unlink("No such name"), -ENOENT);
    EXPECT_EQ(fat_unlink("/SUB"), -ENOTEMPTY);
    EXPECT_EQ(fat_create_file("/FIRST.TXT"), -EEXIST);
    EXPECT_EQ(fat_build_super(), 0);
    EXPECT_TRUE(write_recorder::writes().empty());
}

INSTANTIATE_TEST_SUITE_P(Shapes, PowerLoss, testing::ValuesIn(shapes()), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, OneCut, testing::ValuesIn(shapes()), shape_name);

// ---- formatting -------------------------------------------------------------------------------

namespace {

// Lays another volume of the same shape over the furnished one.
int format_again(const volume_shape &shape) {
    fat_format_param param = {};
    param.fat_size = shape.fat_type;
    param.sector_size = shape.sector_size;
    param.sec_per_clus = shape.sec_per_clus;
    param.nr_fat = 1; // everything after the first FAT moves
    param.volume_id = 0x20240301;
    const std::uint64_t size = sv->vol_size;
    *sv = {};
    sv->fd = -1;
    sv->vol_size = size;
    if (check_format_param(&param) != 0) {
        return -EINVAL;
    }
    param.page_size = 0;
    return fat_format(&param);
}

} // namespace

TEST_P(PowerLoss, WhileFormattingLeavesAVolumeThatIsToBeFormattedAgain) {
    const picture furnished = furnished_volume();
    auto disk = furnished.disk({}, 0);
    std::vector<sector_write> sectors;
    {
        const write_recorder recorder;
        ASSERT_GT(format_again(GetParam()), 0);
        sectors = write_recorder::writes();
    }
    disk.reset();
    std::map<std::uint64_t, bytes> formatted;
    for (const sector_write &w : sectors) {
        formatted[w.sector] = w.content;
    }
    for (std::size_t count = 0; count < sectors.size(); count++) {
        disk = furnished.disk(sectors, count);
        if (fat_build_super() == 0) {
            for (const auto &[path, entry] : survey_of_open_volume().entries) {
                (void)content_by_library(path, 1); // whatever it is, it comes to an end
            }
        }
        fat_close_volume(0);
        disk.reset();
        disk = furnished.disk(sectors, count);
        ASSERT_GT(format_again(GetParam()), 0);
        for (const auto &[sector, content] : formatted) {
            ASSERT_TRUE(disk->peek(sector * content.size(), content.size()) == content);
        }
        disk.reset();
    }
}
