// Random sequences of public calls, on the library and on the reference model: after every call the
// results, the bytes on the medium, the open entries and the number of free clusters agree.
//
// Careful users (no writing through an id that another one has overtaken, no removing of open
// entries) are also promised that no file ever loses or gains a byte: a list of the writes into
// each file is compared with the medium. Careless ones do everything that the library does not
// defend against; there the model alone defines the expected result.

#include "tests/support/capture.h"
#include "tests/support/moment.h"
#include "tests/support/reference.h"
#include "tests/support/valgrind.h"
#include "tests/support/volume.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <deque>
#include <random>
#include <sstream>

using namespace testing_support;
using model::bytes;
using model::created;
using model::dos_name_of;
using model::kind;
using model::location;
using model::open_entry;
using model::raw_entry;
using model::size_of;
using model::start_of;

namespace {

constexpr time_t NOW = 1709210096; // 2024-02-29 12:34:56 UTC
constexpr std::uint16_t DATE = 44 << 9 | 2 << 5 | 29;
constexpr std::uint16_t TIME = 12 << 11 | 34 << 5 | 56 / 2;

struct run_plan {
    volume_shape shape;
    bool long_names = true;
    std::uint32_t free_clusters = 0; // others are taken from the start; 0: all are free
    bool careful = true;
};

std::string name_of(const run_plan &plan) {
    return name_of(plan.shape) + "Root" + std::to_string(plan.shape.root_entries) +
           (plan.long_names ? "LongNames" : "ShortNames") +
           (plan.free_clusters != 0 ? "Small" : "Whole") + (plan.careful ? "Careful" : "Careless");
}
std::ostream &operator<<(std::ostream &out, const run_plan &plan) {
    return out << name_of(plan);
}

// The same for every run of the program; another one for every plan.
std::uint32_t seed_of(const run_plan &plan) {
    std::uint32_t seed = 20240229;
    for (const char c : name_of(plan)) {
        seed = seed * 31 + static_cast<std::uint32_t>(c);
    }
    return seed;
}

// ---- dice -------------------------------------------------------------------------------------

class dice {
public:
    explicit dice(std::uint32_t seed) : engine_(seed) {}

    // 0 to sides - 1.
    std::uint32_t roll(std::uint32_t sides) {
        return static_cast<std::uint32_t>(engine_() % sides);
    }
    bool chance(std::uint32_t percent) {
        return roll(100) < percent;
    }
    template <typename List>
    const auto &one_of(const List &list) {
        return list.at(roll(static_cast<std::uint32_t>(list.size())));
    }
    bytes some_bytes(std::size_t size) {
        bytes result(size);
        std::uint32_t state = static_cast<std::uint32_t>(engine_());
        for (std::uint8_t &byte : result) {
            state = state * 1664525 + 1013904223;
            byte = static_cast<std::uint8_t>(state >> 24);
        }
        return result;
    }

private:
    std::mt19937 engine_;
};

// ---- names and paths --------------------------------------------------------------------------

const std::vector<std::string> NAMES = {
    "readme.txt",
    "README.TXT",
    "ReadMe.txt",
    "readme~1.txt",
    "README~2.TXT",
    "a",
    "A.B",
    "a.b.c",
    "longfilename.txt",
    "longfilename2.txt",
    "LongFileName.Text",
    "thirteen char",
    "twenty-six characters here",
    "exactly thirty-nine characters in a row",
    "two.dots.txt",
    ".profile",
    "trailing dots...",
    "trailing blanks  ",
    " leading",
    "a+b.txt",
    "a_b.txt",
    "x=[1];y",
    "sub",
    "SUB",
    "Sub Directory",
    "deep",
    "deeper",
    "noext",
    "UPPER.ext",
    "lower.EXT",
    "caf\xC3\xA9.txt",
    "\xE5"
    "5.bin",
    "\xC3\xA9 with a long name.txt",
    "con",
    "aux.txt",
    "LPT1",
    "a:b",
    "what?",
    "back\\slash",
    "..",
    ".",
    "...",
    " ",
    "tilde~1",
    "TILDE~1",
    "FOOBAR~1.TXT",
};

class names {
public:
    explicit names(dice *d) : dice_(d) {}

    std::string name() {
        const std::uint32_t which = dice_->roll(100);
        if (which < 55) {
            return dice_->one_of(NAMES);
        }
        const std::string number = std::to_string(dice_->roll(dice_->chance(50) ? 20 : 400));
        if (which < 75) {
            return "file" + number + ".dat";
        }
        if (which < 96) {
            return "A file with a long name, number " + number;
        }
        return std::string(200 + dice_->roll(62), 'n');
    }
    std::string path() {
        const std::uint32_t which = dice_->roll(100);
        for (const auto &[limit, before, behind] : FORMS) {
            if (which < limit) {
                return before + name() + behind;
            }
        }
        return which < 97 ? name() + "/" + name() : std::string(which % 4, '/');
    }

private:
    struct form {
        std::uint32_t limit;
        std::string before, behind;
    };
    const std::vector<form> FORMS = {
        {60, "", ""},     {72, "/", ""},   {79, "./", ""},  {82, "././", ""}, {84, "", "/"},
        {86, "//", "//"}, {88, ".//", ""}, {90, "../", ""}, {92, "sub/", ""}, {94, "/sub/", ""},
    };

    dice *dice_;
};

// ---- the two libraries ------------------------------------------------------------------------

// Both on the same volume, and their comparison.
class twins {
public:
    twins(const run_plan &plan, std::uint32_t seed) : v(plan.shape), plan_(plan) {
        if (plan.free_clusters != 0) {
            leave_free(plan.free_clusters, seed);
        }
        v.disk.remember(); // the model begins with what the formatter left
        model.emplace(reference_of<model::volume>(&v.disk));
        model->long_names = plan.long_names;
        model->date = DATE;
        model->time = TIME;
        mount(sv->root_clus);
    }

    volume v;
    std::optional<model::volume> model;

    // As after the power was off.
    void remount() {
        const std::uint64_t size = sv->vol_size;
        fat_close_volume(0);
        sv = static_cast<fat_super *>(std::calloc(1, sizeof(fat_super)));
        sv->fd = -1;
        sv->vol_size = size;
        v.disk.use();
        mount(0);
    }

    // Everything that a call may have changed.
    testing::AssertionResult agree() {
        testing::AssertionResult result = sectors_agree();
        result = result ? clusters_agree() : result;
        result = result ? ids_agree() : result;
        model->writes.clear();
        model->printed.clear();
        v.disk.log.clear();
        return result;
    }

    // Every sector of the volume that anything has touched. No operation of the model writes the
    // second FAT.
    testing::AssertionResult everything_agrees() {
        for (const std::uint64_t block : v.disk.known_blocks()) {
            for (std::uint32_t at = 0; at < ram_disk::BLOCK; at += sv->sector_size) {
                const testing::AssertionResult result =
                    sector_agrees((block * ram_disk::BLOCK + at) / sv->sector_size);
                if (!result) {
                    return result;
                }
            }
        }
        return testing::AssertionSuccess();
    }

private:
    void mount(std::uint32_t hint) {
        sv->long_name = plan_.long_names ? 1 : 0;
        if (fat_build_super() != 0) {
            throw std::runtime_error("the volume cannot be mounted");
        }
        model->table.clear();
        model->hint = hint;
        model->open_dir();
        v.disk.log.clear();
    }

    // Takes all clusters except for `count` ones, which are not contiguous.
    void leave_free(std::uint32_t count, std::uint32_t seed) {
        dice d(seed);
        std::set<std::uint32_t> left;
        while (left.size() < count) {
            left.insert(2 + d.roll(sv->num_clusters));
        }
        const std::uint32_t width = sv->fat_type / 8;
        bytes table = v.fat_copy(0);
        for (std::uint32_t cluster = 2; cluster <= volume::last_cluster(); cluster++) {
            const bool is_free = left.contains(cluster) || cluster == sv->root_clus;
            if (!is_free) {
                model::put_field(&table, cluster * width, width, volume::end_mark());
            }
        }
        v.disk.poke(volume::fat_offset(0), table);
    }
    testing::AssertionResult sector_agrees(std::uint64_t number) {
        const bytes found = v.disk.peek(number * sv->sector_size, sv->sector_size);
        const bytes &expected = model->sector(number);
        if (found == expected) {
            return testing::AssertionSuccess();
        }
        const auto at = std::mismatch(found.begin(), found.end(), expected.begin()).first;
        return testing::AssertionFailure()
               << "sector " << number << " differs from byte " << at - found.begin() << " on";
    }
    // The first FAT, the root area, the clusters.
    static bool may_be_written(std::uint64_t number) {
        return (number >= sv->fat_start &&
                number <= volume::fat_sector_of(volume::last_cluster())) ||
               number >= (sv->fat_type == 16 ? sv->rdir_start : sv->data_start);
    }
    testing::AssertionResult sectors_agree() {
        std::set<std::uint64_t> numbers;
        for (const auto &[sector, content] : model->writes) {
            numbers.insert(sector);
        }
        for (const transfer &t : v.disk.log) {
            for (std::uint32_t i = 0; t.is_write && i < t.count; i++) {
                numbers.insert(t.sector + i);
            }
        }
        for (const std::uint64_t number : numbers) {
            if (!may_be_written(number)) {
                return testing::AssertionFailure() << "sector " << number << " was written";
            }
            const testing::AssertionResult result = sector_agrees(number);
            if (!result) {
                return result;
            }
        }
        return testing::AssertionSuccess();
    }
    testing::AssertionResult clusters_agree() {
        const std::uint32_t found = v.count_free(); // on the medium itself
        const std::uint32_t expected = model->count_free();
        if (found != expected) {
            return testing::AssertionFailure() << found << " clusters are free, not " << expected;
        }
        if (sv->last_alloc_clus != model->hint) {
            return testing::AssertionFailure()
                   << "the hint is " << sv->last_alloc_clus << ", not " << model->hint;
        }
        return testing::AssertionSuccess();
    }
    testing::AssertionResult ids_agree() {
        for (int id = 0; id < model::IDS; id++) {
            const auto found = open_entry_of(id);
            const auto expected = expected_entry(*model, id);
            if (found != expected) {
                return testing::AssertionFailure()
                       << "id " << id << " is " << testing::PrintToString(found) << ", not "
                       << testing::PrintToString(expected);
            }
        }
        if (get_current() != model->current) {
            return testing::AssertionFailure()
                   << "the current directory is " << get_current() << ", not " << model->current;
        }
        return testing::AssertionSuccess();
    }
    run_plan plan_;
};

// ---- a run ------------------------------------------------------------------------------------

// Operations and the number of calls: successes by the name of the call, failures by name
// and error.
using tally = std::map<std::string, int>;

class random_run {
public:
    random_run(const run_plan &plan, std::uint32_t seed, tally *done)
        : plan_(plan), done_(*done), dice_(seed), names_(&dice_), both_(plan, seed),
          model_(*both_.model) {}

    void operate(int operations) {
        for (int i = 0; i < operations; i++) {
            if (i % 400 == 0) {
                mood_ = MOODS.at(dice_.roll(static_cast<std::uint32_t>(MOODS.size())));
                close_most();
            }
            one_operation();
            const testing::AssertionResult agreed = both_.agree();
            ASSERT_TRUE(agreed && !testing::Test::HasFailure()) << story(i) << agreed.message();
            if (i % 250 == 0) {
                ASSERT_NO_FATAL_FAILURE(expect_files_whole()) << story(i);
            }
        }
    }

    // All that can be reached is opened and read once more, on a volume mounted again.
    void read_all_again() {
        ASSERT_TRUE(both_.everything_agrees());
        ASSERT_NO_FATAL_FAILURE(expect_files_whole());
        both_.remount();
        ASSERT_NO_FATAL_FAILURE(read_directory(0));
        ASSERT_TRUE(both_.everything_agrees());
    }

private:
    // How likely each operation is, in parts of their sum.
    struct mood {
        std::uint32_t create, mkdir, symlink, open, close, change, write, read, seek, remove;
    };
    static constexpr std::array<mood, 5> MOODS = {{
        {20, 5, 4, 15, 15, 4, 25, 15, 5, 8}, // ordinary
        {40, 8, 5, 5, 12, 2, 30, 4, 2, 3},   // filling
        {5, 1, 1, 12, 10, 3, 5, 5, 5, 40},   // clearing
        {15, 3, 2, 40, 0, 3, 5, 5, 5, 5},    // hoarding ids
        {3, 1, 1, 10, 10, 2, 70, 10, 5, 5},  // writing
    }};

    static constexpr mood CLEARING = MOODS[2];

    void one_operation() {
        const std::array<std::uint32_t, 10> parts = {
            mood_.create, mood_.mkdir, mood_.symlink, mood_.open, mood_.close,
            mood_.change, mood_.write, mood_.read,    mood_.seek, mood_.remove};
        using operation = void (random_run::*)();
        constexpr std::array<operation, 10> OPERATIONS = {
            &random_run::create, &random_run::make_directory, &random_run::link,
            &random_run::open,   &random_run::close,          &random_run::change_directory,
            &random_run::write,  &random_run::read,           &random_run::seek,
            &random_run::remove};
        std::uint32_t sum = 0;
        for (const std::uint32_t part : parts) {
            sum += part;
        }
        std::uint32_t left = dice_.roll(sum);
        std::size_t which = 0;
        while (left >= parts.at(which)) {
            left -= parts.at(which++);
        }
        (this->*OPERATIONS.at(which))();
    }

    // -- operations

    void create() {
        const std::string path = path_to_create();
        const std::size_t ids = model_.table.size();
        const location before = model_.last_built;
        const int expected = model_.create(path, created::file);
        expect("fat_create_file", path, fat_create_file(path.c_str()), expected);
        if (plan_.careful && (model_.table.size() > ids || model_.last_built != before)) {
            written_[model_.last_built] = {};
        }
    }
    void make_directory() {
        const std::string path = path_to_create();
        const int expected = model_.create(path, created::directory);
        expect("fat_mkdir", path, fat_mkdir(path.c_str()), expected);
    }
    void link() {
        const std::string path = path_to_create();
        const std::string target(dice_.roll(50) == 0 ? 255 + dice_.roll(8) : dice_.roll(80), 't');
        const int expected = model_.create_symlink(target, path);
        expect("fat_create_symlink", target + " " + path,
               fat_create_symlink(target.c_str(), path.c_str()), expected);
        if (plan_.careful && expected == 0) {
            written_[model_.last_built] = {target.begin(), target.end()};
        }
    }
    void open() {
        const std::string path = path_to_find();
        // Hoarders open a file as if they could not have enough of it.
        for (std::uint32_t times = mood_.close == 0 ? dice_.roll(20) : 0; times > 0; times--) {
            expect("fat_open", path, fat_open(path.c_str()), model_.open(path));
        }
        switch (dice_.roll(4)) {
        case 0:
            expect("fat_open", path, fat_open(path.c_str()), model_.open(path));
            break;
        case 1:
            expect("fat_open_dir", path, fat_open_dir(path.c_str()), model_.open_dir(path));
            break;
        default:
            expect("fat_open_file", path, fat_open_file(path.c_str()), model_.open_file(path));
        }
    }
    void close() {
        const int id = some_id();
        if (plan_.careful && id == model_.current) {
            return;
        }
        expect("fat_close", std::to_string(id), fat_close(id), model_.close(id));
    }
    // Changes to a subdirectory, the parent, or any open directory; now and then the root is opened
    // again.
    void change_directory() {
        const std::uint32_t which = dice_.roll(10);
        if (which == 0) {
            expect("fat_open_dir", "(null)", fat_open_dir(nullptr), model_.open_dir());
            return;
        }
        if (which < 4) {
            const int id = which < 2 ? 0 : some_id();
            expect("fat_set_current", std::to_string(id), fat_set_current(id),
                   model_.set_current(id));
            return;
        }
        const std::string path = which < 6 ? ".." : dice_.one_of(DIRECTORIES);
        const int id = model_.open_dir(path);
        expect("fat_open_dir", path, fat_open_dir(path.c_str()), id);
        if (id > 0) {
            expect("fat_set_current", std::to_string(id), fat_set_current(id),
                   model_.set_current(id));
            expect("fat_close", std::to_string(id), fat_close(id), model_.close(id));
        }
    }
    void write() {
        const int id = some_file_id();
        if (plan_.careful && model_.table.contains(id) && !is_up_to_date(id)) {
            return;
        }
        const bytes data = dice_.some_bytes(size_to_write(id));
        const int expected = model_.write(id, data);
        const int result = fat_write_file(id, data.data(), static_cast<std::uint32_t>(data.size()));
        expect("fat_write_file", std::to_string(id) + " " + std::to_string(data.size()), result,
               expected);
        if (expected == -ENOSPC && dice_.chance(25)) {
            mood_ = CLEARING;
        }
        if (plan_.careful && expected > 0) {
            bytes &all = written_[model_.table.at(id).where];
            all.insert(all.end(), data.begin(), data.end());
            ASSERT_NO_FATAL_FAILURE(expect_whole(model_.table.at(id).where, all));
        }
    }
    void read() {
        const int id = some_file_id();
        const std::uint32_t count = dice_.roll(3) == 0 ? dice_.roll(20) : dice_.roll(40000);
        bytes expected;
        const int expected_result = model_.read(id, count, &expected);
        bytes buffer(count + 1, 0x5A);
        const int result = fat_read_file(id, buffer.data(), count);
        expect("fat_read_file", std::to_string(id) + " " + std::to_string(count), result,
               expected_result);
        if (result >= 0) {
            EXPECT_TRUE(std::equal(expected.begin(), expected.end(), buffer.begin()))
                << "bytes read";
            EXPECT_EQ(buffer[expected.size()], 0x5A);
        }
    }
    void seek() {
        const int id = some_file_id();
        const std::int64_t offset = static_cast<std::int64_t>(dice_.roll(6000)) - 2000;
        const int whence = static_cast<int>(dice_.roll(4));
        expect("fat_lseek",
               std::to_string(id) + " " + std::to_string(offset) + " " + std::to_string(whence),
               fat_lseek(id, offset, whence), model_.seek(id, offset, whence));
        std::array<char, 12> name = {};
        const std::optional<std::string> expected = model_.short_name(id);
        const int result = fat_dump_entry(id, name.data());
        expect("fat_dump_entry", std::to_string(id), result, expected ? 0 : -EBADF);
        EXPECT_EQ(std::string(name.begin(), name.begin() + 11),
                  expected.value_or(std::string(11, '\0')));
    }
    void remove() {
        const std::string path = path_to_find();
        const bool entry_alone = dice_.chance(25);
        if (plan_.careful && !may_remove(path)) {
            return;
        }
        const int expected = entry_alone ? model_.rm_entry(path) : model_.unlink(path);
        if (entry_alone) {
            expect("fat_rm_entry", path, fat_rm_entry(path.c_str()), expected);
        } else {
            expect("fat_unlink", path, fat_unlink(path.c_str()), expected);
        }
        if (expected > 0) {
            written_.erase(model_.last_removed);
        }
    }

    // -- arguments of operations

    const std::vector<std::string> DIRECTORIES = {"sub",  "deep", "deeper", "Sub Directory",
                                                  "/sub", ".",    "a",      "A.B"};

    std::string path_to_create() {
        return dice_.chance(10) ? dice_.one_of(DIRECTORIES) : names_.path();
    }
    void close_most() {
        for (int id = 20; id < model::IDS; id++) {
            if (id != model_.current && model_.table.contains(id)) {
                expect("fat_close", std::to_string(id), fat_close(id), model_.close(id));
            }
        }
    }
    // Mostly one that is open; without hoarding there are few of them.
    int some_id() {
        if (dice_.chance(4)) {
            constexpr std::array<int, 6> ODD = {0, 511, 512, -1, 77, 100000};
            return ODD.at(dice_.roll(6));
        }
        if (model_.table.size() > 40 && mood_.close != 0) {
            close_most();
        }
        return std::next(model_.table.begin(),
                         dice_.roll(static_cast<std::uint32_t>(model_.table.size())))
            ->first;
    }
    int some_file_id() {
        std::vector<int> files;
        for (const auto &[id, entry] : model_.table) {
            if (entry.cached && !entry.is_directory()) {
                files.push_back(id);
            }
        }
        return files.empty() || dice_.chance(10) ? some_id() : dice_.one_of(files);
    }
    // As a string of the caller: the name of a slot that is taken for an entry may contain NULs.
    static std::string shown_name(const raw_entry &entry) {
        return model::to_text(dos_name_of(entry), entry[12]).c_str();
    }
    // Often of an entry that the current directory has.
    std::string path_to_find() {
        if (dice_.chance(60)) {
            return names_.path();
        }
        std::vector<std::string> present;
        for (const raw_entry &entry : model_.entries_of(model_.table.at(model_.current))) {
            if (model::is_short(entry)) {
                present.push_back(shown_name(entry));
            }
        }
        return present.empty() ? names_.path() : dice_.one_of(present);
    }
    // From one byte to all that is left and one more, often up to a boundary.
    std::size_t size_to_write(int id) {
        const std::uint32_t cluster = model_.shape.cluster_bytes();
        const std::uint32_t which = dice_.roll(100);
        if (which < 40) {
            return dice_.roll(300);
        }
        if (which < 70) {
            return dice_.roll(3 * cluster) + 1;
        }
        const std::uint32_t free = model_.count_free();
        if (which >= 99 && std::uint64_t{free} * cluster < 40U << 20) {
            return std::size_t{free} * cluster + dice_.roll(3) * dice_.roll(cluster);
        }
        const auto entry = model_.table.find(id);
        const std::uint32_t size = entry != model_.table.end() && entry->second.cached
                                       ? size_of(*entry->second.cached)
                                       : 0;
        const std::uint32_t unit = which < 85 ? model_.shape.sector_bytes : cluster;
        return unit - size % unit + dice_.roll(2);
    }

    // -- careful users

    // Whether no other id has written the entry since this one was opened, or removed it.
    bool is_up_to_date(int id) {
        const open_entry &entry = model_.table.at(id);
        return entry.cached && model_.entry_at(entry.where) == *entry.cached &&
               start_of(*entry.cached) == entry.start;
    }
    // Anything but dot entries and directories that are open, if only as a part of the way.
    bool may_remove(const std::string &path) {
        const auto found = model_.peek(path);
        if (!found) {
            return true;
        }
        const auto &[where, image] = *found;
        if (model::is_dot_entry(image)) {
            return false;
        }
        const std::uint32_t start = start_of(image);
        return kind(image) != model::DIR_ENTRY ||
               std::none_of(model_.table.begin(), model_.table.end(), [start](const auto &slot) {
                   return slot.second.start == start && slot.second.cached;
               });
    }
    void expect_whole(const location &where, const bytes &expected) {
        const raw_entry entry = model_.entry_at(where);
        ASSERT_EQ(size_of(entry), expected.size());
        bytes found;
        for (std::uint32_t cluster = start_of(entry); found.size() < expected.size();) {
            const bytes content = model_.content_of(cluster);
            const std::size_t left = std::min(content.size(), expected.size() - found.size());
            found.insert(found.end(), content.begin(),
                         content.begin() + static_cast<std::ptrdiff_t>(left));
            cluster = model_.value_of(cluster);
        }
        ASSERT_TRUE(found == expected) << "the file has other bytes";
    }
    // Every file has its bytes, and its clusters for itself.
    void expect_files_whole() {
        std::set<std::uint32_t> taken;
        for (const auto &[where, content] : written_) {
            ASSERT_NO_FATAL_FAILURE(expect_whole(where, content));
            std::uint32_t cluster = start_of(model_.entry_at(where));
            while (cluster != 0 && !model_.shape.is_end(cluster)) {
                ASSERT_TRUE(taken.insert(cluster).second) << "cluster " << cluster << " twice";
                cluster = model_.value_of(cluster);
            }
        }
    }

    // -- reading everything

    void read_directory(int id) {
        if (!seen_.insert(model_.table.at(id).start).second || seen_.size() > 200) {
            return;
        }
        expect("fat_set_current", std::to_string(id), fat_set_current(id), model_.set_current(id));
        std::vector<std::string> subdirectories;
        std::uint32_t index = 0;
        for (const raw_entry &entry : model_.entries_of(model_.table.at(id))) {
            if (model::is_short(entry)) {
                ASSERT_NO_FATAL_FAILURE(read_entry(id, index, entry));
            }
            if (kind(entry) == model::DIR_ENTRY && !model::is_dot_entry(entry)) {
                subdirectories.push_back(shown_name(entry));
            }
            index++;
        }
        for (const std::string &name : subdirectories) {
            expect("fat_set_current", std::to_string(id), fat_set_current(id),
                   model_.set_current(id));
            const int sub = model_.open_dir(name);
            expect("fat_open_dir", name, fat_open_dir(name.c_str()), sub);
            if (sub > 0) {
                ASSERT_NO_FATAL_FAILURE(read_directory(sub));
                expect("fat_close", std::to_string(sub), fat_close(sub), model_.close(sub));
            }
        }
    }
    // By its position, and by its name.
    void read_entry(int dir, std::uint32_t index, const raw_entry &entry) {
        const int id = model_.open_at(model_.table.at(dir), index);
        expect("fat_entry_open", std::to_string(index),
               fat::fat_entry_open(oentry_table[dir], index), id);
        ASSERT_NO_FATAL_FAILURE(read_whole(id));
        const std::string name = shown_name(entry);
        const int named = model_.open(name);
        expect("fat_open", name, fat_open(name.c_str()), named);
        ASSERT_NO_FATAL_FAILURE(read_whole(named));
        ASSERT_TRUE(both_.agree());
    }
    void read_whole(int id) {
        if (id <= 0) {
            return;
        }
        bytes expected;
        const open_entry &entry = model_.table.at(id);
        const std::uint32_t size = entry.cached ? size_of(*entry.cached) : 0;
        const std::uint32_t count = std::min(size, 1U << 26) + 1;
        const int expected_result = model_.read(id, count, &expected);
        bytes buffer(count);
        const int result = fat_read_file(id, buffer.data(), count);
        ASSERT_EQ(result, expected_result);
        buffer.resize(expected.size());
        ASSERT_TRUE(result < 0 || buffer == expected);
        ASSERT_EQ(fat_close(id), model_.close(id));
    }

    // -- the story so far

    void expect(const std::string &call, const std::string &argument, std::int64_t result,
                std::int64_t expected) {
        story_.push_back(call + "(" + model::shown_bytes(argument) +
                         ") = " + std::to_string(result));
        if (story_.size() > 12) {
            story_.pop_front();
        }
        done_[call + (result < 0 && call != "fat_lseek" ? " " + std::to_string(result) : "")]++;
        EXPECT_EQ(result, expected) << call;
    }
    std::string story(int operation) {
        std::string result = "operation " + std::to_string(operation) + ", at last\n";
        for (const std::string &line : story_) {
            result += "  " + line + "\n";
        }
        return result;
    }

    run_plan plan_;
    tally &done_;
    dice dice_;
    names names_;
    twins both_;
    model::volume &model_;
    // What careful users have written into each file, by the position of its entry.
    std::map<location, bytes> written_;
    mood mood_ = MOODS[0];
    std::deque<std::string> story_;
    std::set<std::uint32_t> seen_; // directories read, by their first cluster
};

// ---- the runs ---------------------------------------------------------------------------------

// Each run of 5,000 operations goes through several volumes, so that one that is ruined or full for
// good does not stop it. In valgrind they are few.
constexpr int VOLUMES = 5;
int operations_on_each() {
    return runs_in_valgrind() ? 40 : 1000;
}

std::vector<run_plan> plans() {
    const std::vector<run_plan> result = {
        {{16, 512, 1, 0, 512, 0x00}, true, 0},       {{16, 512, 1, 0, 512, 0xA7}, false, 120},
        {{16, 512, 4, 0, 64, 0xE5}, true, 150},      {{16, 512, 64, 0, 512, 0x41}, false, 0},
        {{16, 1024, 2, 0, 1024, 0x0F}, true, 120},   {{16, 2048, 8, 0, 512, 0xFF}, false, 100},
        {{16, 4096, 1, 9000, 512, 0xE5}, true, 0},   {{16, 4096, 8, 0, 128, 0xA7}, true, 60},
        {{32, 512, 1, 0, 512, 0xE5}, true, 0},       {{32, 512, 1, 0, 512, 0x41}, false, 150},
        {{32, 512, 8, 0, 512, 0xFF}, true, 120},     {{32, 1024, 1, 0, 512, 0xA7}, true, 150},
        {{32, 2048, 2, 70000, 512, 0x00}, false, 0}, {{32, 4096, 1, 0, 512, 0xE5}, true, 150},
    };
    std::vector<run_plan> both; // in the quick stage one of them for each shape
    for (std::size_t i = 0; i < result.size(); i++) {
        for (const bool careful : {true, false}) {
            if (QUORVEL_FULL || careful == (i % 2 == 0)) {
                both.push_back(result[i]);
                both.back().careful = careful;
            }
        }
    }
    return both;
}

std::string plan_name(const testing::TestParamInfo<run_plan> &plan) {
    return name_of(plan.param);
}

class RandomOperations : public testing::TestWithParam<run_plan> {
protected:
    RandomOperations() {
        fat_set_diagnostics(nullptr);
    }
    ~RandomOperations() override {
        fat_set_cache(0);
        fat_set_diagnostics(stderr);
    }

    static void operate(std::uint32_t seed, tally *done) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::printf("seed %u: %d operations on %s\n", seed, operations_on_each(),
                    name_of(GetParam()).c_str());
        fat_set_cache(static_cast<int>(seed % 2)); // it changes no answer
        random_run run(GetParam(), seed, done);
        ASSERT_NO_FATAL_FAILURE(run.operate(operations_on_each()));
        ASSERT_NO_FATAL_FAILURE(run.read_all_again());
    }
    // A run that went nowhere proves nothing.
    static void expect_variety(tally done) {
        for (const char *call :
             {"fat_create_file", "fat_mkdir", "fat_create_symlink", "fat_open", "fat_open_dir",
              "fat_open_file", "fat_close", "fat_set_current", "fat_write_file", "fat_read_file",
              "fat_lseek", "fat_dump_entry", "fat_unlink", "fat_rm_entry"}) {
            EXPECT_GE(done[call], 10) << call;
        }
        if (GetParam().free_clusters != 0) {
            EXPECT_GE(done["fat_write_file " + std::to_string(-ENOSPC)], 1);
        }
    }

private:
    stopped_clock clock_{NOW};
};

} // namespace

TEST_P(RandomOperations, AgreeWithTheReferenceModelAfterEveryCall) {
    tally done;
    for (std::uint32_t i = 0; i < VOLUMES; i++) {
        ASSERT_NO_FATAL_FAILURE(operate(seed_of(GetParam()) + i, &done));
    }
    if (!runs_in_valgrind()) {
        expect_variety(done);
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, RandomOperations, testing::ValuesIn(plans()), plan_name);
