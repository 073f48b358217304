// Volumes with an open root directory, the result and messages of a call, and a check of the table
// of open entries against its bitmap.

#pragma once

#include "fat/internal.h"
#include "tests/support/capture.h"
#include "tests/support/every_fault.h"
#include "tests/support/volume.h"

#include <algorithm>
#include <cstdint>
#include <iomanip>
#include <iterator>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace testing_support {

// The result of a call and its messages, source lines as N.
struct answer {
    answer() = default;
    answer(int outcome, std::string diagnostics)
        : result(outcome), messages(std::move(diagnostics)) {}

    int result = 0;
    std::string messages;
    bool operator==(const answer &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const answer &a) {
    return out << a.result << ", " << std::quoted(a.messages);
}

// ---- the table --------------------------------------------------------------------------------

// The ids in use, by the slots.
inline std::vector<int> ids_in_use() {
    std::vector<int> result;
    for (int id = 0; id < 512; id++) {
        if (oentry_table[id] != nullptr) {
            result.push_back(id);
        }
    }
    return result;
}

// A bit is set if and only if its slot is filled; slot 0 is the root's; the entries that the volume
// points to are in the table.
inline testing::AssertionResult table_agrees() {
    for (std::uint32_t id = 0; id < 512; id++) {
        const bool is_marked = (oentry_map[id / 32] >> (id % 32) & 1) != 0;
        if (is_marked != (oentry_table[id] != nullptr)) {
            return testing::AssertionFailure()
                   << "slot " << id << (is_marked ? " is marked but empty" : " is filled unmarked");
        }
    }
    if (sv == nullptr) {
        return testing::AssertionSuccess();
    }
    if (sv->root_dir != oentry_table[0]) {
        return testing::AssertionFailure() << "slot 0 does not hold the root directory";
    }
    if (sv->current_dir != nullptr && std::find(std::begin(oentry_table), std::end(oentry_table),
                                                sv->current_dir) == std::end(oentry_table)) {
        return testing::AssertionFailure() << "the current directory is not in the table";
    }
    return testing::AssertionSuccess();
}

// ---- one open entry ---------------------------------------------------------------------------

// All fields of a record; no `image`: the record has no dentry copy.
struct record_picture {
    std::uint32_t start = 0;
    std::uint32_t last = 0;
    std::uint32_t allocated = 0;
    std::uint64_t pos = 0;
    std::uint32_t ref_count = 1;
    std::uint32_t dentry_sector = 0;
    std::uint32_t dentry_offset = 0;
    std::vector<std::uint8_t> image = {};
    std::uint32_t parent_clus = 0;
    std::string name = {};
    std::uint32_t readdir_clus = 0;
    std::uint32_t readdir_pos = 0;
    bool operator==(const record_picture &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const record_picture &r) {
    out << "{start " << r.start << ", last " << r.last << ", allocated " << r.allocated << ", pos "
        << r.pos << ", references " << r.ref_count << ", at " << r.dentry_sector << "+"
        << r.dentry_offset << ", parent " << r.parent_clus << ", name " << std::quoted(r.name)
        << ", readdir " << r.readdir_clus << "/" << r.readdir_pos;
    if (r.image.empty()) {
        return out << ", no image}";
    }
    return out << ", image " << std::string(r.image.begin(), r.image.begin() + 11) << "}";
}
inline record_picture picture_of(const oentry &record) {
    record_picture result{
        record.start,       record.last,          record.allocated,     record.pos,
        record.ref_count,   record.dentry_sector, record.dentry_offset, {},
        record.parent_clus, record.name,          record.readdir_clus,  record.readdir_pos};
    if (record.dentry != nullptr) {
        result.image.assign(record.dentry, record.dentry + 32);
    }
    return result;
}
inline record_picture picture_of(int id) {
    if (id < 0 || id >= 512 || oentry_table[id] == nullptr) {
        throw std::out_of_range("no entry is open as " + std::to_string(id));
    }
    return picture_of(*oentry_table[id]);
}

// ---- a tree -----------------------------------------------------------------------------------

// The message of a lookup for each name that it finds.
inline std::string found_at(std::uint32_t base, std::uint32_t index) {
    return "find_dentry_with_clu[N]: found index:(" + std::to_string(base) + ", " +
           std::to_string(index) + ")\n";
}

// A volume with files and directories in every state, its root directory open:
//   FILE.TXT     three clusters            SUB           a directory of two clusters
//   EMPTY        no cluster                  INNER.TXT   one cluster
//   LOST         its cluster is free         DEEP        a directory
//   BROKEN       a chain with no link          X         no cluster
//   OUTSIDE      starts past the volume
//   CYCLE        a cyclic chain
//   A Long Name.txt
class tree : public volume {
public:
    explicit tree(const volume_shape &shape = {}) : volume(shape) {
        chain({10, 12, 11});
        set_link(50, 1);
        chain({60, 61});
        set_link(61, 60);
        chain({30});
        root_space.go_to(1); // after the label
        file = root_space.append(short_entry("FILE    TXT", ARCHIVE, 10, 1234));
        empty = root_space.append(short_entry("EMPTY      "));
        sub = root_space.append(short_entry("SUB        ", DIRECTORY, 20));
        lost = root_space.append(short_entry("LOST       ", ARCHIVE, 40));
        broken = root_space.append(short_entry("BROKEN     ", ARCHIVE, 50));
        outside = root_space.append(short_entry("OUTSIDE    ", ARCHIVE, last_cluster() + 1));
        cycle = root_space.append(short_entry("CYCLE      ", ARCHIVE, 60));
        long_named = root_space.append_long(u"A Long Name.txt", "ALONGN~1TXT");
        fill_sub();
        if (fat::open_root_directory() != 0) {
            throw std::runtime_error("the root directory cannot be opened");
        }
        disk.log.clear();
    }

    directory root_space = root();
    directory sub_space = sub_directory({20, 22});
    directory deep_space = sub_directory({21});
    // Indexes in the directories.
    std::uint32_t file = 0, empty = 0, sub = 0, lost = 0, broken = 0, outside = 0, cycle = 0,
                  long_named = 0, inner = 0, deep = 0, x = 0;

    // The root's base cluster in messages of lookups.
    [[nodiscard]] std::uint32_t root_base() const {
        return root_space.base();
    }
    [[nodiscard]] static std::uint32_t cluster_bytes() {
        return sv->sec_per_clus * sv->sector_size;
    }
    // The record of a newly opened entry. `clusters`: its chain.
    [[nodiscard]] static record_picture opened(const directory &where, std::uint32_t index,
                                               const std::vector<std::uint32_t> &clusters,
                                               const std::string &name) {
        const entry_image image = where.at(index);
        record_picture result;
        if (!clusters.empty()) {
            result.start = clusters.front();
            result.last = clusters.back();
        }
        result.allocated = static_cast<std::uint32_t>(clusters.size()) * cluster_bytes();
        result.dentry_sector = static_cast<std::uint32_t>(where.offset_of(index) / sv->sector_size);
        result.dentry_offset = static_cast<std::uint32_t>(where.offset_of(index) % sv->sector_size);
        result.image.assign(image.begin(), image.end());
        result.parent_clus = where.base();
        result.name = name;
        return result;
    }
    // The record of the newly opened root directory.
    [[nodiscard]] static record_picture opened_root() {
        record_picture result;
        const bool is_fat32 = sv->fat_type == 32;
        result.start = is_fat32 ? sv->root_clus : sv->rdir_start;
        result.last = is_fat32 ? sv->root_clus : sv->data_start - 1;
        result.allocated = is_fat32 ? cluster_bytes() : 16384;
        return result;
    }

private:
    void fill_sub() {
        sub_space.append(short_entry(".          ", DIRECTORY, 20));
        sub_space.append(short_entry("..         ", DIRECTORY, 0));
        inner = sub_space.append(short_entry("INNER   TXT", ARCHIVE, 30, 77));
        deep = sub_space.append(short_entry("DEEP       ", DIRECTORY, 21));
        deep_space.append(short_entry(".          ", DIRECTORY, 21));
        deep_space.append(short_entry("..         ", DIRECTORY, 20));
        x = deep_space.append(short_entry("X          "));
    }
};

// A case on such a volume.
class tree_test : public testing::TestWithParam<volume_shape> {
protected:
    explicit tree_test(const volume_shape &shape) : v(shape) {}
    ~tree_test() override {
        EXPECT_TRUE(table_agrees());
        for (const transfer &t : v.disk.log) {
            EXPECT_FALSE(t.is_write) << t;
        }
    }

    // Makes a call; afterwards the table must match its bitmap.
    template <typename Call>
    answer ask(Call call) {
        messages.clear();
        const int result = call();
        answer a{result, messages.text()};
        EXPECT_TRUE(table_agrees()) << "after " << a;
        return a;
    }

    // The answers of a call at every fault, without adjacent duplicates; the last one is of the
    // call without a fault. `undo` reverts a success.
    template <typename Call, typename Undo>
    std::vector<answer> answers_under(const fault_kind &kind, Call call, Undo undo) {
        return answers_at_every_fault(
            kind, [&](fault_step &step) { return answer_under(&step, call, undo); });
    }
    // Checks that a call succeeds without a read.
    template <typename Call, typename Undo>
    void expect_no_read(Call call, Undo undo) {
        const int reads = at_any_fault(EVERY_READ, [&](fault_step &step) {
            EXPECT_EQ(answer_under(&step, call, undo), (answer{0, ""}));
        });
        EXPECT_EQ(reads, 0);
    }

    tree v;
    diagnostics messages;

private:
    template <typename Call, typename Undo>
    answer answer_under(fault_step *step, Call call, Undo undo) {
        messages.clear();
        return step->run([&] {
            answer a{call(), ""};
            a.messages = messages.text();
            EXPECT_TRUE(table_agrees()) << "after " << a;
            if (a.result >= 0) {
                undo(a.result);
            }
            return a;
        });
    }
};

// Two shapes that differ in every property; the second has cluster numbers of more than 16 bits.
inline const volume_shape TREE_SHAPES[] = {
    {.fat_type = 16},
    {.fat_type = 32, .sector_size = 1024, .sec_per_clus = 2, .clusters = 70000},
};

} // namespace testing_support
