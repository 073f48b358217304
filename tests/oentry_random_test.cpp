// Long runs of opening, closing and changing the current directory, made by chance, with faults in
// between. After every step the table is held against a plain account of it.

#include "tests/support/open_entries.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

constexpr unsigned SEED = 20240229;

enum class kind { FILE, DIRECTORY, BARE, BROKEN }; // BARE: opens without an image

struct item {
    kind is;
    u32 start; // of a directory: 0: the root, else its cluster
};

// The tree of the volume as the calls see it, by the start of each directory.
const std::map<u32, std::map<std::string, item>> TREE = {
    {0,
     {{"FILE.TXT", {kind::FILE, 10}},
      {"EMPTY", {kind::FILE, 0}},
      {"SUB", {kind::DIRECTORY, 20}},
      {"LOST", {kind::BARE, 40}},
      {"BROKEN", {kind::BROKEN, 50}},
      {"OUTSIDE", {kind::BROKEN, 0}},
      {"CIRCLE", {kind::BROKEN, 60}},
      {"A Long Name.txt", {kind::FILE, 0}}}},
    {20,
     {{".", {kind::DIRECTORY, 20}},
      {"..", {kind::BARE, 0}},
      {"INNER.TXT", {kind::FILE, 30}},
      {"DEEP", {kind::DIRECTORY, 21}}}},
    {21, {{".", {kind::DIRECTORY, 21}}, {"..", {kind::DIRECTORY, 20}}, {"X", {kind::FILE, 0}}}},
};
const std::array NAMES = {
    "FILE.TXT", "EMPTY", "SUB", "LOST",      "BROKEN", "OUTSIDE", "CIRCLE",
    ".",        "..",    "X",   "INNER.TXT", "DEEP",   "MISSING", "A Long Name.txt"};

enum class want { ANYTHING, A_DIRECTORY, A_FILE };

// The table of open entries, kept plainly.
class account {
public:
    account() {
        slots_[0] = slot{{kind::DIRECTORY, 0}, 1};
    }

    int open(bool from_root, const std::string &name, want wanted) {
        const u32 start = from_root ? 0 : slots_.at(current_).what.start;
        const auto &names = TREE.at(start);
        const auto found = names.find(name);
        if (found == names.end()) {
            return -ENOENT;
        }
        if (found->second.is == kind::BROKEN) {
            return -EINVAL;
        }
        int id = 1;
        while (slots_.count(id) != 0) {
            id++;
        }
        if (id > 511) {
            return -EMFILE;
        }
        const bool is_directory = found->second.is == kind::DIRECTORY;
        if (wanted == want::A_DIRECTORY && !is_directory) {
            return -ENOTDIR;
        }
        if (wanted == want::A_FILE && is_directory) {
            return -EISDIR;
        }
        slots_[id] = slot{found->second, 1};
        return id;
    }
    // Through a directory on the way, which is never entered.
    [[nodiscard]] int open_deeper(const std::string &parent) const {
        const auto &names = TREE.at(slots_.at(current_).what.start);
        return parent == ".." || names.count(parent) != 0 ? -EINVAL : -ENOENT;
    }
    int close(int id) {
        if (id == 0 || id > 511) {
            return -EINVAL;
        }
        drop(id);
        return 0;
    }
    int set_current(int id) {
        const auto found = slots_.find(id);
        if (found == slots_.end()) {
            return -EBADF;
        }
        if (found->second.what.is != kind::DIRECTORY) {
            return -ENOTDIR;
        }
        const int old = std::exchange(current_, id);
        if (id != 0) {
            found->second.references++;
        }
        if (old != 0) {
            drop(old);
        }
        return id;
    }
    int open_root() {
        current_ = 0;
        return 0;
    }

    [[nodiscard]] int current() const {
        return current_;
    }
    // How often each id in use is held.
    [[nodiscard]] std::map<int, u32> references() const {
        std::map<int, u32> result;
        for (const auto &[id, s] : slots_) {
            result[id] = s.references;
        }
        return result;
    }
    [[nodiscard]] int images() const {
        int result = 0;
        for (const auto &[id, s] : slots_) {
            result += id != 0 && s.what.is != kind::BARE ? 1 : 0;
        }
        return result;
    }

private:
    struct slot {
        item what;
        u32 references;
    };
    void drop(int id) {
        const auto found = slots_.find(id);
        if (found == slots_.end() || --found->second.references != 0) {
            return;
        }
        slots_.erase(found);
        if (current_ == id) {
            current_ = 0;
        }
    }

    std::map<int, slot> slots_;
    int current_ = 0;
};

std::map<int, u32> references_in_table() {
    std::map<int, u32> result;
    for (const int id : ids_in_use()) {
        result[id] = oentry_table[id]->ref_count;
    }
    return result;
}

class RandomHandles : public tree_test {
protected:
    RandomHandles() : tree_test(GetParam()) {
        std::printf("seed %u\n", SEED);
    }

    int below(int limit) {
        return static_cast<int>(chance() % static_cast<unsigned>(limit));
    }
    bool one_in(int n) {
        return below(n) == 0;
    }

    // One call and what it is to answer.
    struct step {
        std::string text;
        int expected;
        int result;
    };
    step open_something() {
        const bool from_root = one_in(2);
        const std::string name = NAMES[chance() % NAMES.size()];
        const std::string path = std::string(from_root ? "/" : "") + (one_in(3) ? "./" : "") +
                                 name + (one_in(4) ? "/" : "");
        switch (below(3)) {
        case 0:
            return {"fat_open " + path, plain.open(from_root, name, want::ANYTHING),
                    fat_open(path.c_str())};
        case 1:
            return {"fat_open_dir " + path, plain.open(from_root, name, want::A_DIRECTORY),
                    fat_open_dir(path.c_str())};
        default:
            return {"fat_open_file " + path, plain.open(from_root, name, want::A_FILE),
                    fat_open_file(path.c_str())};
        }
    }
    step open_deeper() {
        const std::string parent = NAMES[chance() % NAMES.size()];
        if (parent == ".") {
            return open_something();
        }
        const std::string path = parent + "/INNER.TXT";
        return {"fat_open " + path, plain.open_deeper(parent), fat_open(path.c_str())};
    }
    step close_something(int limit) {
        const int id = below(limit + 4) - 2;
        return {"fat_close " + std::to_string(id), plain.close(id), fat_close(id)};
    }
    step change_directory(int limit) {
        const int id = below(limit + 4) - 2;
        return {"fat_set_current " + std::to_string(id), plain.set_current(id),
                fat_set_current(id)};
    }
    // `eagerness`: of ten steps so many open.
    step any_step(int eagerness, int limit) {
        const int choice = below(10);
        if (choice < eagerness) {
            return one_in(10) ? open_deeper() : open_something();
        }
        if (one_in(50)) {
            return {"fat_open_dir NULL", plain.open_root(), fat_open_dir(nullptr)};
        }
        return one_in(3) ? change_directory(limit) : close_something(limit);
    }

    // A call that fails half-way changes nothing.
    void failing_step() {
        const account before = plain;
        const int k = below(8);
        step s;
        bool struck = false;
        if (one_in(2)) {
            const failing_allocation fault(k, one_in(2));
            s = open_something();
            struck = fault.struck();
        } else {
            v.disk.reads_before_failure = k;
            v.disk.fails_forever = one_in(2);
            s = open_something();
            struck = v.disk.reads_before_failure <= 0 && s.result != s.expected;
            v.disk.reads_before_failure = -1;
        }
        said.clear();
        if (!struck) {
            EXPECT_EQ(s.result, s.expected) << s.text;
            return;
        }
        plain = before;
        EXPECT_TRUE(s.result == -ENOMEM || s.result == -EIO || s.result == -EINVAL)
            << s.text << ": " << s.result;
    }

    void expect_agreement(const std::string &text, const allocation_meter &meter) {
        ASSERT_TRUE(table_agrees()) << text;
        ASSERT_EQ(references_in_table(), plain.references()) << text;
        ASSERT_EQ(get_current(), plain.current()) << text;
        const int records = static_cast<int>(ids_in_use().size()) - 1;
        ASSERT_EQ(meter.live_blocks(), records + plain.images()) << text;
    }

    void run(int steps, int eagerness, int limit) {
        const allocation_meter meter;
        for (int i = 0; i < steps; i++) {
            std::string text;
            if (one_in(8)) {
                failing_step();
                text = "a disturbed call";
            } else {
                const step s = any_step(eagerness, limit);
                said.clear();
                ASSERT_EQ(s.result, s.expected) << s.text;
                text = s.text;
                times_full += s.result == -EMFILE ? 1 : 0;
            }
            ASSERT_NO_FATAL_FAILURE(expect_agreement(text, meter));
        }
    }

    std::mt19937 chance{SEED};
    account plain;
    int times_full = 0;
};
INSTANTIATE_TEST_SUITE_P(Widths, RandomHandles, testing::ValuesIn(TREE_SHAPES), shape_name);

} // namespace

TEST_P(RandomHandles, FewEntriesOpen) {
    run(4000, 4, 12);
}

TEST_P(RandomHandles, TableRunsFull) {
    run(6000, 9, 512);
    EXPECT_GT(times_full, 100);
}
