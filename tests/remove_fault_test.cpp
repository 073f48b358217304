// Removals in which the k-th transfer or allocation fails, for every k up to the last.

#include "tests/support/every_fault.h"
#include "tests/support/namespace_fixture.h"

#include <memory>

using namespace fat;
using namespace testing_support;

namespace {

class FaultyRemoval : public testing::TestWithParam<faulty_volume> {
protected:
    // A file with a long name, and an empty directory, whose chains lie in two FAT sectors each.
    void make_volume() {
        v = nullptr;
        v = std::make_unique<mounted>(volume_shape{.fat_type = std::get<1>(GetParam())});
        v->top.go_to(1);
        v->top.append(long_slots(u"Some long name", "SOMELO~1   "));
        v->top.append(short_entry("SOMELO~1   ", ARCHIVE, 5, 1000));
        v->chain({5, 400, 6, 401});
        v->top.append(short_entry("DIR        ", DIRECTORY, 10));
        v->chain({10, 410});
        v->top.append(short_entry("OTHER      ", ARCHIVE, 20, 10));
        v->chain({20});
        free_before = v->count_free();
        others = v->disk.peek(v->top.offset_of(0), 512);
        messages.clear();
    }

    // Removes the entry with that index; `clusters` become free by that.
    template <typename Call>
    void remove(u32 index, u32 clusters, const Call &call) {
        int failures = 0;
        at_every_fault({kind}, [&](fault_step &step) {
            make_volume();
            const int result = step.run(call);
            ASSERT_EQ(mounted::open_ids(), 1);
            if (result > 0) {
                ASSERT_EQ(result, 1);
                ASSERT_EQ(v->count_free(), free_before + clusters);
                others[index * 32] = 0xE5;
                ASSERT_EQ(v->disk.peek(v->top.offset_of(0), 512), others);
                return;
            }
            failures++;
            ASSERT_TRUE(step.struck());
            ASSERT_TRUE(result == -EIO || result == -ENOMEM || result == -EINVAL ||
                        result == -ENOTEMPTY || result == -ENOENT)
                << result;
            // The entry is marked last: it exists, with any state of its clusters.
            ASSERT_EQ(v->disk.peek(v->top.offset_of(0), 512), others);
            ASSERT_LE(v->count_free() - free_before, clusters);
            ASSERT_EQ(v->value_of(20), volume::end_mark());
            if (result == -ENOTEMPTY) {
                ASSERT_EQ(v->count_free(), free_before);
            }
        });
        EXPECT_GE(failures, 1);
    }

    const fault_kind kind = std::get<0>(GetParam()).kind;
    std::unique_ptr<mounted> v;
    diagnostics messages;
    u32 free_before = 0;
    bytes others;
};
INSTANTIATE_TEST_SUITE_P(Faults, FaultyRemoval, testing::ValuesIn(all_faults()), fault_name);

} // namespace

TEST_P(FaultyRemoval, OfAFile) {
    remove(3, 4, [] { return fat_unlink("./Some long name"); });
}

TEST_P(FaultyRemoval, OfADirectory) {
    remove(4, 2, [] { return fat_unlink("dir"); });
}

TEST_P(FaultyRemoval, OfTheEntryAlone) {
    remove(3, 0, [] { return fat_rm_entry("Some long name"); });
}
