// Thousands of writes and reads against the reference model: whole and broken chains, empty
// and full volumes, records that do not fit their chains, media that fail at one position.

#include "tests/support/file_fixture.h"
#include "tests/support/reference.h"

#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>

using namespace fat;
using namespace testing_support;

namespace {

constexpr u32 SEED = 915246708;

const std::vector<volume_shape> RANDOM_SHAPES = {
    {.fat_type = 16},
    {.fat_type = 16, .sec_per_clus = 4},
    {.fat_type = 16, .sector_size = 1024, .sec_per_clus = 2},
    {.fat_type = 16, .sector_size = 4096},
    {.fat_type = 16, .sec_per_clus = 8, .root_entries = 32}, // a root area below a cluster
    {.fat_type = 32},
    {.fat_type = 32, .sec_per_clus = QUORVEL_FULL ? 8 : 2}, // 8: 260 MiB
    {.fat_type = 32, .sector_size = 2048, .sec_per_clus = 2},
};

enum class area { fat, data, directory };

class FilesAtRandom : public file_test, public testing::WithParamInterface<volume_shape> {
protected:
    FilesAtRandom() : file_test(GetParam()) {
        std::printf("seed %u\n", SEED);
        empty_fat_ = v.fat_copy(0);
        v.disk.remember();
    }

    u32 below(u64 limit) {
        return static_cast<u32>(chance_() % limit);
    }
    bool one_in(u32 n) {
        return below(n) == 0;
    }
    template <typename T>
    T one_of(const std::vector<T> &choices) {
        return choices[below(static_cast<u32>(choices.size()))];
    }

    // -- volumes

    // A volume with other clusters taken, and new files.
    void start_again() {
        for (int id = 1; id < 512; id++) {
            if (oentry_table[id] != nullptr) {
                fat_close(id);
            }
        }
        v.disk.unreadable.clear();
        v.disk.unwritable.clear();
        v.disk.failure_result = -EIO;
        v.top.go_to(0);
        ids.clear();
        chains.clear();
        fill_fat();
        sv->last_alloc_clus = one_of<u32>({0, 1, 2, 3 + below(200), 2 + below(sv->num_clusters),
                                           sv->num_clusters - below(20), sv->num_clusters,
                                           sv->num_clusters + 1, sv->num_clusters + 2, 0xFFFFFFFF});
        const u32 files = 1 + below(4);
        for (u32 i = 0; i < files; i++) {
            make_file();
        }
        if (one_in(6)) {
            spoil_a_free_entry();
        }
    }

    // A file with a chain, sometimes one that its record does not bear out.
    void make_file() {
        const u32 unit = mounted::cluster_bytes();
        const std::vector<u32> clusters = some_free_clusters(below(one_in(6) ? 60 : 8));
        const u32 allocated = static_cast<u32>(clusters.size()) * unit;
        const u32 size = allocated == 0 ? 0
                         : one_in(4)    ? allocated
                         : one_in(4)    ? allocated - below(std::min(allocated, 3U))
                         : one_in(4)    ? below(allocated / sv->sector_size) * sv->sector_size
                                        : below(allocated + 1);
        for (const u32 cluster : clusters) {
            free_.erase(std::find(free_.begin(), free_.end(), cluster));
        }
        const int id = v.open_new("FILE       ", clusters, size);
        ids.push_back(id);
        chains.push_back(clusters);
        if (one_in(3)) {
            tamper_with(id);
        }
    }
    void tamper_with(int id) {
        oentry &record = mounted::record(id);
        const u32 unit = mounted::cluster_bytes();
        switch (below(8)) {
        case 0:
            set_size(id, size_of(mounted::held_entry(id)) + below(3 * unit));
            break;
        case 1:
            set_size(id, one_of<u32>({0x80000000, 0x90000000, 0xFFFFFFFF, 0xFFFFFF00}));
            break;
        case 2:
            record.allocated += one_of<u32>({unit, 2 * unit, sv->sector_size});
            break;
        case 3:
            record.allocated -= std::min(record.allocated, unit);
            break;
        case 4:
            record.last = one_of<u32>({0, 1, 2 + below(sv->num_clusters)});
            break;
        case 5:
            record.start = one_of<u32>({0, 1, sv->num_clusters + 1, sv->num_clusters + 2});
            break;
        default:
            break_chain(chains.back());
            break;
        }
    }
    void break_chain(const std::vector<u32> &clusters) {
        if (clusters.empty()) {
            return;
        }
        u32 value = one_of<u32>({0, 0, 1, volume::bad_mark(), sv->num_clusters + 2,
                                 volume::first_end_mark(), volume::first_end_mark() + 3});
        // Into a chain made before, so that it makes no cycle.
        if (chains.size() > 1 && !chains.front().empty() && one_in(4)) {
            value = one_of(chains.front());
        }
        v.set_link(one_of(clusters), value);
    }
    void spoil_a_free_entry() {
        v.set_link(2 + below(sv->num_clusters),
                   one_of<u32>({1, volume::bad_mark(), sv->num_clusters + 2}));
    }
    static void set_size(int id, u32 size) {
        for (u32 i = 0; i < 4; i++) {
            mounted::record(id).dentry[28 + i] = static_cast<u8>(size >> (8 * i));
        }
    }

    // -- calls

    // Counts that end at or near the borders of sectors and clusters as often as anywhere.
    u32 some_count() {
        const u32 unit = mounted::cluster_bytes();
        const u32 base = one_of<u32>({0, 1, sv->sector_size, 2 * sv->sector_size, unit, 3 * unit,
                                      below(2 * sv->sector_size), below(6 * unit),
                                      one_in(20) ? below(70 * unit) : below(unit)});
        return std::max(1U, base + below(3) - (base > 0 ? 1 : 0));
    }
    u64 some_position(int id) {
        const u64 size = size_of(mounted::held_entry(id));
        return one_of<u64>({0, size, below(size + 1), below(size + 1),
                            below(size + 1) / sv->sector_size * sv->sector_size, size + 1,
                            size + below(5000), ~u64{0} - below(1000), u64{1} << 63});
    }

    struct result_of_both {
        s64 expected;
        s64 real;
    };

    result_of_both write_both(int id) {
        const bytes data = some_bytes(some_count(), below(1000000));
        const auto count = static_cast<u32>(data.size());
        if (one_in(5)) {
            const u32 position = std::min(size_of(mounted::held_entry(id)),
                                          below(u64{mounted::record(id).allocated} + 1));
            u32 expected_position = position;
            u32 real_position = position;
            const int expected = volume_->write_at(&entry_, data, &expected_position);
            const int result =
                do_write_file(&mounted::record(id), data.data(), count, &real_position);
            EXPECT_EQ(real_position, expected_position);
            return {expected, result};
        }
        const int expected = volume_->write_file(&entry_, data);
        errno = UNTOUCHED_ERRNO;
        const int result = fat_write_file(id, data.data(), count);
        EXPECT_EQ(errno, result < 0 ? -result : UNTOUCHED_ERRNO);
        return {expected, result};
    }
    result_of_both read_both(int id) {
        const u32 count = some_count();
        bytes expected_bytes;
        bytes real_bytes(count + 16, 0xCC);
        s64 expected = 0;
        s64 result = 0;
        if (one_in(5)) {
            u64 expected_position = below(u64{mounted::record(id).allocated} + 1);
            u64 real_position = expected_position;
            expected = volume_->read_at(entry_, count, &expected_position, &expected_bytes);
            result = do_read_file(&mounted::record(id), real_bytes.data(), count, &real_position);
            EXPECT_EQ(real_position, expected_position);
        } else {
            expected = volume_->read_file(&entry_, count, &expected_bytes);
            errno = UNTOUCHED_ERRNO;
            result = fat_read_file(id, real_bytes.data(), count);
            EXPECT_EQ(errno, result < 0 ? static_cast<int>(-result) : UNTOUCHED_ERRNO);
        }
        // The data of a failed transfer are undefined.
        const bool is_defined = !has_faults() || expected >= 0;
        expected_bytes.resize(real_bytes.size(), 0xCC);
        EXPECT_EQ(part_of(real_bytes, count, 16), bytes(16, 0xCC));
        EXPECT_TRUE(!is_defined || real_bytes == expected_bytes) << "other bytes were read";
        return {expected, result};
    }
    // The model takes over the disk and the open entry as they are now.
    void begin_reference(int id) {
        volume_.emplace(reference_of<model::volume>(&v.disk));
        volume_->date = static_cast<u16>(TODAY);
        entry_ = open_entry_of(mounted::record(id));
    }
    // One call of the library and the model on one file; nothing is left different.
    void call_both(bool is_write) {
        const int id = one_of(ids);
        if (!is_write) {
            const u64 position = some_position(id);
            mounted::record(id).pos = one_in(3) ? position : mounted::record(id).pos;
        }
        v.disk.remember();
        v.disk.log.clear();
        messages.clear();
        begin_reference(id);
        const result_of_both both = is_write ? write_both(id) : read_both(id);
        if (has_written_what_cannot_be_read()) {
            return;
        }
        ASSERT_EQ(both.real, both.expected);
        ASSERT_NO_FATAL_FAILURE(expect_same_record(id));
        ASSERT_NO_FATAL_FAILURE(expect_same_medium());
        if (!has_faults()) {
            ASSERT_EQ(messages.text(), volume_->printed);
            ASSERT_EQ(last_writes(real_writes()), last_writes(expected_writes()));
        } else if (!has_fat_that_cannot_be_written()) {
            ASSERT_NO_FATAL_FAILURE(expect_same_complaints());
        }
        outcomes[{is_write, both.real > 0 ? 1 : both.real}]++;
    }

    // -- comparing

    void expect_same_record(int id) const {
        ASSERT_EQ(open_entry_of(mounted::record(id)), entry_);
        ASSERT_EQ(sv->last_alloc_clus, volume_->hint);
    }
    void expect_same_medium() {
        for (const u64 sector : volume_->known_sectors()) {
            ASSERT_NO_FATAL_FAILURE(expect_same_sector(sector));
        }
        const u64 per_block = ram_disk::BLOCK / sv->sector_size;
        for (const u64 block : v.disk.written_blocks()) {
            for (u64 sector = block * per_block; sector < (block + 1) * per_block; sector++) {
                ASSERT_NO_FATAL_FAILURE(expect_same_sector(sector));
            }
        }
    }
    // On a medium that fails, sectors of data may have been lost together.
    void expect_same_sector(u64 sector) {
        if (has_faults() && is_data(sector)) {
            return;
        }
        const bytes real = v.disk.peek(sector * sv->sector_size, sv->sector_size);
        ASSERT_TRUE(real == volume_->sector(sector)) << "sector " << sector << " is different";
    }
    static bool is_data(u64 sector) {
        return sector >= sv->data_start &&
               (sv->fat_type == 16 || sector - sv->rdir_start >= sv->sec_per_clus);
    }
    [[nodiscard]] bool has_faults() const {
        return !v.disk.unreadable.empty() || !v.disk.unwritable.empty();
    }
    // The library need not read a sector that the call has written; the model does.
    [[nodiscard]] bool has_written_what_cannot_be_read() const {
        const std::vector<u64> written = real_writes();
        return std::any_of(written.begin(), written.end(),
                           [this](u64 sector) { return v.disk.unreadable.contains(sector); });
    }
    [[nodiscard]] std::vector<u64> real_writes() const {
        std::vector<u64> result;
        for (const transfer &t : v.disk.log) {
            for (u32 i = 0; t.is_write && i < t.count; i++) {
                result.push_back(t.sector + i);
            }
        }
        return result;
    }
    [[nodiscard]] std::vector<u64> expected_writes() const {
        std::vector<u64> result;
        for (const auto &[sector, content] : volume_->writes) {
            result.push_back(sector);
        }
        return result;
    }
    // The changes of one FAT sector count where the last of them reached the medium.
    static std::vector<u64> last_writes(const std::vector<u64> &writes) {
        std::vector<u64> result;
        std::set<u64> seen;
        for (auto sector = writes.rbegin(); sector != writes.rend(); ++sector) {
            const bool is_fat =
                *sector >= sv->fat_start && *sector < sv->fat_start + u64{sv->fat_size};
            if (!is_fat || seen.insert(*sector).second) {
                result.insert(result.begin(), *sector);
            }
        }
        return result;
    }

    // A lookup ahead of a transfer that fails may report a broken link past it.
    void expect_same_complaints() {
        std::istringstream real(messages.text());
        std::istringstream expected(volume_->printed);
        std::string said_line;
        for (std::string line; std::getline(expected, line);) {
            while (std::getline(real, said_line) && said_line != line) {
                const std::string reporter = said_line.substr(0, said_line.find('['));
                ASSERT_TRUE(reporter.empty() || reporter == "get_phy_sector" ||
                            reporter == "fat_read_clus" || reporter == "fat_read_entry")
                    << said_line;
            }
            ASSERT_EQ(said_line, line);
        }
    }

    // -- faults

    [[nodiscard]] bool has_fat_that_cannot_be_written() const {
        const auto is_fat = [](u64 sector) {
            return sector >= sv->fat_start && sector < sv->fat_start + u64{sv->fat_size};
        };
        return std::any_of(v.disk.unwritable.begin(), v.disk.unwritable.end(), is_fat);
    }
    // Something that a call on the files is likely to touch.
    u64 some_sector(area where) {
        const std::vector<u32> &clusters = one_of(chains);
        const u32 cluster = clusters.empty() || one_in(3)
                                ? (free_.empty() ? 2 : one_of(free_))
                                : clusters[below(static_cast<u32>(clusters.size()))];
        switch (where) {
        case area::fat:
            return volume::fat_sector_of(one_in(4)   ? 0
                                         : one_in(4) ? sv->last_alloc_clus % sv->num_clusters
                                                     : cluster);
        case area::data:
            return volume::first_sector_of(cluster) + below(sv->sec_per_clus);
        default:
            return mounted::record(one_of(ids)).dentry_sector;
        }
    }

    void spoil_a_sector() {
        const u64 sector = some_sector(
            one_of<area>({area::fat, area::fat, area::data, area::data, area::directory}));
        const u32 manner = below(3);
        if (manner != 0) {
            v.disk.unreadable.insert(sector);
        }
        if (manner != 1) {
            v.disk.unwritable.insert(sector);
        }
    }

    // Each way for a call to end has been seen a good number of times.
    void expect_outcomes(bool is_write, const std::vector<s64> &results) {
        for (const s64 result : results) {
            EXPECT_GE((outcomes[{is_write, result}]), 3) << result;
        }
    }

    std::vector<int> ids;
    std::vector<std::vector<u32>> chains;
    std::map<std::pair<bool, s64>, int> outcomes;

private:
    void fill_fat() {
        bytes table = empty_fat_;
        const u32 first = sv->fat_type == 16 ? 2 : 3; // after the root directory
        free_.clear();
        const u32 manner = below(4);
        const u32 left = below(40);
        for (u32 i = 0; manner == 0 && i < left; i++) {
            free_.push_back(first + below(one_in(2) ? 300 : sv->num_clusters - 1));
        }
        if (manner == 0) {
            std::sort(free_.begin(), free_.end());
            free_.erase(std::unique(free_.begin(), free_.end()), free_.end());
        }
        const u32 width = sv->fat_type / 8;
        u32 stretch = 0;
        bool is_taken = false;
        for (u32 cluster = first; cluster <= volume::last_cluster(); cluster++) {
            if (stretch-- == 0) {
                is_taken = one_in(2);
                stretch = below(manner == 1 ? 4 : 60);
            }
            const bool taken = manner == 0
                                   ? !std::binary_search(free_.begin(), free_.end(), cluster)
                                   : manner != 2 && is_taken;
            if (taken) {
                std::fill_n(table.begin() + cluster * width, width, u8{0xFF});
            } else if (sv->fat_type == 32 && cluster % 5 == 0) {
                table[cluster * width + 3] = 0x70;
            }
            if (manner != 0 && !taken) {
                free_.push_back(cluster);
            }
        }
        v.disk.poke(volume::fat_offset(0), table);
    }
    // One after the other, near each other, or anywhere.
    std::vector<u32> some_free_clusters(u32 count) {
        std::vector<u32> result;
        const u32 size = static_cast<u32>(free_.size());
        const u32 manner = below(3);
        const u32 near = below(size + 1);
        for (u32 i = 0; i < count && size != 0; i++) {
            const u32 at = manner == 0   ? near + i
                           : manner == 1 ? near + below(2 * count)
                                         : below(size);
            if (at < size && std::find(result.begin(), result.end(), free_[at]) == result.end()) {
                result.push_back(free_[at]);
            }
        }
        return result;
    }

    std::mt19937 chance_{SEED + GetParam().fat_type + GetParam().sector_size +
                         GetParam().sec_per_clus};
    bytes empty_fat_;
    std::vector<u32> free_;
    std::optional<model::volume> volume_;
    model::open_entry entry_;
};
INSTANTIATE_TEST_SUITE_P(Shapes, FilesAtRandom, testing::ValuesIn(RANDOM_SHAPES), shape_name);

} // namespace

TEST_P(FilesAtRandom, AreWrittenAndReadAsByTheReferenceModel) {
    for (int round = 0; round < 60; round++) {
        start_again();
        for (int call = 0; call < 25; call++) {
            SCOPED_TRACE("volume " + std::to_string(round) + ", call " + std::to_string(call));
            ASSERT_NO_FATAL_FAILURE(call_both(!one_in(3)));
            ASSERT_FALSE(HasFailure());
        }
    }
    expect_outcomes(true, {1, -ENOSPC, -EINVAL, -EFAULT});
    expect_outcomes(false, {1, 0, -EINVAL, -EFAULT});
}

TEST_P(FilesAtRandom, FailOnBadSectorsAsByTheReferenceModel) {
    for (int round = 0; round < 90; round++) {
        start_again();
        for (int bad = one_in(3) ? 3 : 1; bad > 0; bad--) {
            spoil_a_sector();
        }
        for (int call = 0; call < 12; call++) {
            SCOPED_TRACE("volume " + std::to_string(round) + ", call " + std::to_string(call));
            ASSERT_NO_FATAL_FAILURE(call_both(!one_in(3)));
            ASSERT_FALSE(HasFailure());
        }
    }
    expect_outcomes(true, {1, -EIO, -ENOSPC, -EINVAL, -EFAULT});
    expect_outcomes(false, {1, 0, -EIO, -EINVAL, -EFAULT});
}
