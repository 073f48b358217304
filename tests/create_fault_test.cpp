// Creations in which the k-th transfer or allocation fails, for every k up to the last.

#include "tests/support/every_fault.h"
#include "tests/support/namespace_fixture.h"

#include <memory>

using namespace fat;
using namespace testing_support;

namespace {

class FaultyCreation : public testing::TestWithParam<faulty_volume> {
protected:
    // A directory with one file in it, as the current one; two free slots are left in it.
    void make_volume() {
        v = nullptr;
        v = std::make_unique<mounted>(volume_shape{.fat_type = std::get<1>(GetParam())});
        dir = std::make_unique<directory>(v.get(), std::vector<u32>{5}, false);
        v->chain({5});
        dir->append(short_entry(".          ", DIRECTORY, 5));
        dir->append(short_entry("..         ", DIRECTORY));
        for (int i = 0; i < 12; i++) {
            dir->append(short_entry("OTHER      ", ARCHIVE, 7, 1));
        }
        v->chain({7});
        fat_set_current(v->open_new("DIR        ", {5}, 0, DIRECTORY));
        sv->last_alloc_clus = 9;
        free_before = v->count_free();
        others = v->disk.peek(dir->offset_of(0), std::size_t{14} * 32);
        messages.clear();
    }

    // `clusters`: the most that the creation takes, of the directory's growth and of the entry.
    template <typename Call>
    void create(const std::string &name, u32 clusters, const Call &call) {
        int failures = 0;
        at_every_fault({kind}, [&](fault_step &step) {
            make_volume();
            const int result = step.run_keeping(call);
            ASSERT_EQ(v->disk.peek(dir->offset_of(0), others.size()), others);
            ASSERT_LE(free_before - v->count_free(), clusters);
            if (result >= 0) {
                // An unnoticed fault leaves no trace.
                ASSERT_GE(fat_open(name.c_str()), 2);
                ASSERT_EQ(v->count_free(), free_before - clusters);
                return;
            }
            failures++;
            ASSERT_TRUE(step.struck());
            ASSERT_EQ(step.left_allocated(), 0);
            ASSERT_EQ(mounted::open_ids(), 2);
            ASSERT_TRUE(result == -EIO || result == -ENOMEM || result == -ENOSPC ||
                        result == -EINVAL)
                << result;
            if (!kind.forever) {
                ASSERT_NO_FATAL_FAILURE(expect_next(call));
            }
        });
        EXPECT_GE(failures, 1);
    }
    // The directory is one that can be gone on with: the name is there, or can be created now.
    template <typename Call>
    void expect_next(const Call &call) {
        const int result = call();
        ASSERT_TRUE(result >= 0 || result == -EEXIST) << result << messages.text();
    }

    const fault_kind kind = std::get<0>(GetParam()).kind;
    std::unique_ptr<mounted> v;
    std::unique_ptr<directory> dir;
    diagnostics messages;
    u32 free_before = 0;
    bytes others;
};
INSTANTIATE_TEST_SUITE_P(Faults, FaultyCreation, testing::ValuesIn(all_faults()), fault_name);

} // namespace

TEST_P(FaultyCreation, OfAFile) {
    create("a", 0, [] { return fat_create_file("a"); });
}

TEST_P(FaultyCreation, OfAFileWhoseNameMakesTheDirectoryGrow) {
    create("Some long name", 1, [] { return fat_create_file("./Some long name"); });
}

TEST_P(FaultyCreation, OfADirectory) {
    create("a", 1, [] { return fat_mkdir("a"); });
}

TEST_P(FaultyCreation, OfADirectoryWhoseNameMakesTheDirectoryGrow) {
    create("Some long name", 2, [] { return fat_mkdir("Some long name"); });
}

TEST_P(FaultyCreation, OfALink) {
    create("a", 1, [] { return fat_create_symlink("target", "./a"); });
}
