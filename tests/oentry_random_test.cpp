// Long random series of opening, closing and changing the current directory, with faults in
// between. After every step the table is compared with that of the reference model.

#include "tests/support/open_entries.h"
#include "tests/support/reference.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

constexpr unsigned SEED = 20240229;

const std::array NAMES = {
    "FILE.TXT", "EMPTY", "SUB", "LOST",      "BROKEN", "OUTSIDE", "CYCLE",
    ".",        "..",    "X",   "INNER.TXT", "DEEP",   "MISSING", "A Long Name.txt"};

class RandomHandles : public tree_test {
protected:
    RandomHandles() : tree_test(GetParam()) {
        std::printf("seed %u\n", SEED);
        model.open_dir();
    }

    int below(int limit) {
        return static_cast<int>(chance() % static_cast<unsigned>(limit));
    }
    bool one_in(int n) {
        return below(n) == 0;
    }

    // One call and its expected result.
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
            return {"fat_open " + path, model.open(path), fat_open(path.c_str())};
        case 1:
            return {"fat_open_dir " + path, model.open_dir(path), fat_open_dir(path.c_str())};
        default:
            return {"fat_open_file " + path, model.open_file(path), fat_open_file(path.c_str())};
        }
    }
    step open_deeper() {
        const std::string parent = NAMES[chance() % NAMES.size()];
        if (parent == ".") {
            return open_something();
        }
        const std::string path = parent + "/INNER.TXT";
        return {"fat_open " + path, model.open(path), fat_open(path.c_str())};
    }
    step close_something(int limit) {
        const int id = below(limit + 4) - 2;
        return {"fat_close " + std::to_string(id), model.close(id), fat_close(id)};
    }
    step change_directory(int limit) {
        const int id = below(limit + 4) - 2;
        return {"fat_set_current " + std::to_string(id), model.set_current(id),
                fat_set_current(id)};
    }
    // `eagerness`: of ten steps so many open.
    step any_step(int eagerness, int limit) {
        const int choice = below(10);
        if (choice < eagerness) {
            return one_in(10) ? open_deeper() : open_something();
        }
        if (one_in(50)) {
            return {"fat_open_dir NULL", model.open_dir(), fat_open_dir(nullptr)};
        }
        return one_in(3) ? change_directory(limit) : close_something(limit);
    }

    // A call that fails half-way changes nothing.
    void failing_step() {
        const std::map<int, model::open_entry> before = model.table;
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
        messages.clear();
        if (!struck) {
            EXPECT_EQ(s.result, s.expected) << s.text;
            return;
        }
        model.table = before;
        EXPECT_TRUE(s.result == -ENOMEM || s.result == -EIO || s.result == -EINVAL)
            << s.text << ": " << s.result;
    }

    void expect_agreement(const std::string &text, const allocation_meter &meter) {
        ASSERT_TRUE(table_agrees()) << text;
        ASSERT_EQ(ids_in_use().size(), model.table.size()) << text;
        int cached = 0;
        for (const auto &[id, entry] : model.table) {
            ASSERT_EQ(open_entry_of(id), expected_entry(model, id)) << text << ", id " << id;
            cached += id != 0 && entry.cached ? 1 : 0;
        }
        ASSERT_EQ(get_current(), model.current) << text;
        const int records = static_cast<int>(model.table.size()) - 1;
        ASSERT_EQ(meter.live_blocks(), records + cached) << text;
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
                messages.clear();
                ASSERT_EQ(s.result, s.expected) << s.text;
                text = s.text;
                times_full += s.result == -EMFILE ? 1 : 0;
            }
            ASSERT_NO_FATAL_FAILURE(expect_agreement(text, meter));
        }
    }

    std::mt19937 chance{SEED};
    model::volume model = reference_of<model::volume>(&v.disk);
    int times_full = 0;
};
INSTANTIATE_TEST_SUITE_P(Widths, RandomHandles, testing::ValuesIn(TREE_SHAPES), shape_name);

} // namespace

TEST_P(RandomHandles, FewEntriesOpen) {
    run(4000, 4, 12);
}

TEST_P(RandomHandles, TableBecomesFull) {
    run(6000, 9, 512);
    EXPECT_GT(times_full, 100);
}
