// Writes and reads in which the k-th transfer or allocation fails, for every k up to the last.

#include "tests/support/every_fault.h"
#include "tests/support/file_fixture.h"

#include <memory>

using namespace fat;
using namespace testing_support;

namespace {

class FaultyFile : public testing::TestWithParam<faulty_volume> {
protected:
    // A file with clusters on both sides of a border between FAT sectors, or an empty one.
    void make_file() {
        v = nullptr;
        v = std::make_unique<mounted>(
            volume_shape{.fat_type = std::get<1>(GetParam()), .sec_per_clus = 2});
        const u32 border = sv->sector_size / (sv->fat_type / 8);
        const std::vector<u32> clusters = {border - 3, border - 2};
        id = is_empty ? v->open_new("FILE       ", {}, 0)
                      : v->open_new("FILE       ", clusters, 1500);
        if (!is_empty) {
            v->set_data(clusters, some_bytes(2048));
        }
        sv->last_alloc_clus = border - 2;
        fat = v->fat_copy(0);
        record = mounted::record(id);
        held = mounted::held_entry(id);
        stored = v->stored_entry(id);
        v->disk.log.clear();
        messages.clear();
    }

    // Makes the call; its outcome is in `result` and `error`.
    template <typename Call>
    void run(fault_step *step, const Call &call) {
        step->run([&] {
            errno = UNTOUCHED_ERRNO;
            result = call();
            error = errno;
            return result;
        });
    }
    void append(u32 count) {
        const bytes data = some_bytes(count, 7);
        at_every_fault({kind}, [&](fault_step &step) {
            make_file();
            run(&step, [&] { return fat_write_file(id, data.data(), count); });
            if (result > 0) {
                expect_written(data);
                return;
            }
            ASSERT_TRUE(step.struck());
            ASSERT_NO_FATAL_FAILURE(expect_failed());
            if (!kind.forever) {
                expect_next_write(data);
            }
        });
    }

    void expect_written(const bytes &data) {
        ASSERT_EQ(result, static_cast<int>(data.size()));
        ASSERT_EQ(error, UNTOUCHED_ERRNO);
        const u32 size = size_of(held) + static_cast<u32>(data.size());
        ASSERT_EQ(v->stored_entry(id), mounted::held_entry(id));
        ASSERT_EQ(size_of(v->stored_entry(id)), size);
        const std::vector<u32> clusters = v->chain_from(mounted::record(id).start);
        const bytes old = part_of(some_bytes(2048), 0, size_of(held));
        ASSERT_EQ(part_of(v->data_of(clusters), 0, size), joined(old, data));
    }
    void expect_failed() {
        ASSERT_EQ(error, -result);
        ASSERT_EQ(v->stored_entry(id), stored);
        const std::string text = messages.text();
        const bool is_undone =
            text.find("write_file_internal[N]: Failed to write file!\n\n") != std::string::npos;
        if (!is_undone) {
            // Only the directory entry is missing.
            ASSERT_NE(size_of(mounted::held_entry(id)), size_of(held));
            ASSERT_TRUE(result == -EIO || (result == -ENOMEM && kind.what == fault::allocation));
            return;
        }
        const oentry &now = mounted::record(id);
        ASSERT_EQ(now.last, record.last);
        ASSERT_EQ(now.allocated, record.allocated);
        ASSERT_EQ(now.pos, 0U);
        ASSERT_EQ(size_of(mounted::held_entry(id)), size_of(held));
        // Start and image of a file that was empty may keep the number of a freed cluster.
        ASSERT_EQ(start_of(mounted::held_entry(id)), now.start);
        ASSERT_TRUE(is_empty || now.start == record.start);
        if (!kind.forever) {
            if (is_empty && now.start != 0) {
                ASSERT_EQ(v->value_of(0), volume::end_mark());
            }
            ASSERT_EQ(part_of(v->fat_copy(0), 8, fat.size() - 8), part_of(fat, 8, fat.size() - 8));
            ASSERT_TRUE(is_empty || v->fat_copy(0) == fat);
        }
    }
    // An undone write can be repeated. A file that was empty no longer reaches its data.
    void expect_next_write(const bytes &data) {
        if (is_empty || size_of(mounted::held_entry(id)) != size_of(held)) {
            return;
        }
        errno = UNTOUCHED_ERRNO;
        result = fat_write_file(id, data.data(), static_cast<u32>(data.size()));
        error = errno;
        ASSERT_NO_FATAL_FAILURE(expect_written(data));
    }

    const fault_kind kind = std::get<0>(GetParam()).kind;
    std::unique_ptr<mounted> v;
    diagnostics messages;
    int id = 0;
    bool is_empty = false;
    int result = 0;
    int error = 0;
    // As they were before the call.
    bytes fat;
    oentry record = {};
    entry_image held = {};
    entry_image stored = {};
};
INSTANTIATE_TEST_SUITE_P(Faults, FaultyFile, testing::ValuesIn(all_faults()), fault_name);

} // namespace

TEST_P(FaultyFile, AppendIsTakenBack) {
    append(548 + 4 * 1024 + 300); // the first new cluster is the last of its FAT sector
}

TEST_P(FaultyFile, AppendIntoClustersThatAreThere) {
    append(500);
}

TEST_P(FaultyFile, FirstWriteIsTakenBack) {
    is_empty = true;
    append(4 * 1024 + 300);
}

TEST_P(FaultyFile, FailedReadLeavesThePositionAndTheMedium) {
    const std::vector<u32> clusters = {10, 11, 300, 12, 301};
    const bytes content = some_bytes(5 * 1024);
    const auto read = [&](fault_step &step) {
        make_file();
        id = v->open_new("READ       ", clusters, 5 * 1024);
        v->set_data(clusters, content);
        mounted::record(id).pos = 100;
        v->disk.remember();
        bytes buffer(5000, 0xCC);
        run(&step, [&] { return fat_read_file(id, buffer.data(), 4900); });
        ASSERT_EQ(part_of(buffer, 4900, 100), bytes(100, 0xCC));
        ASSERT_TRUE(v->disk.written_blocks().empty());
        if (!step.struck()) {
            ASSERT_EQ(result, 4900);
            ASSERT_EQ(part_of(buffer, 0, 4900), part_of(content, 100, 4900));
            ASSERT_EQ(mounted::record(id).pos, 5000U);
            return;
        }
        // A FAT sector that cannot be read breaks the chain.
        ASSERT_TRUE(result == -EIO || result == -EINVAL || result == -ENOMEM) << result;
        ASSERT_EQ(error, -result);
        ASSERT_EQ(mounted::record(id).pos, 100U);
    };
    if (kind.what == fault::write) {
        EXPECT_EQ(at_any_fault(kind, read), 0);
    } else {
        at_every_fault({kind}, read);
    }
}
