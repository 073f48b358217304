// The reserved files of the flash driver: making the pool and the log file, looking clusters up in
// the pool.

#include "tests/support/every_fault.h"
#include "tests/support/faults.h"
#include "tests/support/moment.h"
#include "tests/support/mounted.h"
#include "tests/support/open_entries.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>

using namespace fat;
using namespace testing_support;
using namespace std::string_literals;

namespace {

// 29 February 2024, 12:34:56, and how an entry has it.
constexpr time_t NOW = 1709210096;
constexpr u32 NOW_TIME = 12 << 11 | 34 << 5 | 28;
constexpr u32 NOW_DATE = 44 << 9 | 2 << 5 | 29;

constexpr const char *POOL = "ZUQ_POOLSY$";
constexpr const char *LOG = "$ZUQ_LOGLO$";

// An entry as creation makes it, with the changes of the builders.
entry_image made_entry(const char *dos, std::uint8_t attr, u32 start, u32 size) {
    entry_image result = short_entry(dos, attr, start, size);
    result[22] = static_cast<std::uint8_t>(NOW_TIME);
    result[23] = static_cast<std::uint8_t>(NOW_TIME >> 8);
    result[24] = static_cast<std::uint8_t>(NOW_DATE);
    result[25] = static_cast<std::uint8_t>(NOW_DATE >> 8);
    return result;
}
entry_image reserved_entry(const char *dos, u32 start, u32 size) {
    return made_entry(dos, READ_ONLY | HIDDEN | SYSTEM, start, size);
}

// The first cluster of a pool file, byte by byte.
bytes pool_content(u32 index, u32 cluster, std::size_t size) {
    bytes result;
    for (const u32 word : {index, 0U, cluster, cluster, 1U, 0xFFFFFFFFU, 0xFFFFFFFFU}) {
        for (u32 shift = 0; shift < 32; shift += 8) {
            result.push_back(static_cast<std::uint8_t>(word >> shift));
        }
    }
    result.resize(size, 0);
    return result;
}

// The expected changes of a medium since it was remembered. The whole medium is compared.
class expected_medium {
public:
    explicit expected_medium(ram_disk *disk) : disk_(disk) {}

    void put(std::uint64_t offset, const bytes &content) {
        for (std::size_t i = 0; i < content.size(); i++) {
            const std::uint64_t at = offset + i;
            auto place = blocks_.find(at / ram_disk::BLOCK);
            if (place == blocks_.end()) {
                place = blocks_.emplace(at / ram_disk::BLOCK, before(at / ram_disk::BLOCK)).first;
            }
            place->second[at % ram_disk::BLOCK] = content[i];
        }
    }
    void put(std::uint64_t offset, const entry_image &entry) {
        put(offset, bytes(entry.begin(), entry.end()));
    }
    void link(u32 cluster, u32 value) {
        bytes stored;
        for (u32 i = 0; i < sv->fat_type / 8; i++) {
            stored.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        }
        put(volume::fat_offset(cluster), stored);
    }

    // Where the medium is not so; empty where it is so everywhere.
    std::string difference() {
        for (const std::uint64_t number : disk_->written_blocks()) {
            blocks_.try_emplace(number, before(number));
        }
        std::string result;
        for (const auto &[number, wanted] : blocks_) {
            const bytes now = disk_->peek(number * ram_disk::BLOCK, ram_disk::BLOCK);
            for (std::size_t i = 0; now != wanted && i < now.size() && result.size() < 500; i++) {
                if (now[i] != wanted[i]) {
                    result += "byte " + std::to_string(number * ram_disk::BLOCK + i) + " is " +
                              std::to_string(now[i]) + ", not " + std::to_string(wanted[i]) + "; ";
                }
            }
        }
        return result;
    }

private:
    [[nodiscard]] bytes before(std::uint64_t number) const {
        return disk_->peek_before(number * ram_disk::BLOCK, ram_disk::BLOCK);
    }

    ram_disk *disk_;
    std::map<std::uint64_t, bytes> blocks_;
};

// A mounted volume with a fixed clock; its messages and writes.
class zuq_case {
public:
    explicit zuq_case(const volume_shape &shape = {}) : v(shape) {
        v.top.go_to(1); // after the label
        v.disk.remember();
    }

    template <typename Call>
    answer ask(Call call) {
        messages.clear();
        v.disk.log.clear();
        const int result = call();
        answer a{result, messages.text()};
        EXPECT_TRUE(table_agrees()) << "after " << a;
        return a;
    }
    answer make_pool() {
        return ask([] { return zuq_make_pool(); });
    }
    answer make_log() {
        return ask([] { return zuq_make_log(); });
    }
    answer find_pool(u32 key) {
        return ask([&] { return fat_find_pool(key); });
    }
    [[nodiscard]] std::vector<std::uint64_t> sectors_written() const {
        std::vector<std::uint64_t> result;
        for (const transfer &t : v.disk.log) {
            for (u32 i = 0; t.is_write && i < t.count; i++) {
                result.push_back(t.sector + i);
            }
        }
        return result;
    }
    [[nodiscard]] std::uint64_t sector_of_entry(u32 index) const {
        return v.top.offset_of(index) / sv->sector_size;
    }
    void expect_unchanged() {
        EXPECT_EQ(expected_medium(&v.disk).difference(), "");
    }

    stopped_clock clock{NOW};
    mounted v;
    diagnostics messages;
};

std::string found(u32 index, u32 base = sv->fat_type == 16 ? 0 : sv->root_clus) {
    return found_at(base, index);
}

// The messages of a lookup that reaches the end of a directory without an unused entry.
std::string past_end(u32 base, u32 index) {
    return (base == 0 ? "get_phy_sector[N]: Invalid sector number in Root dir\n\n"s : ""s) +
           "get_dentry_with_clu[N]: Failed to get entry sector!:(" + std::to_string(base) + ", " +
           std::to_string(index) + ")\n\n";
}

std::vector<volume_shape> painted(std::vector<volume_shape> shapes, std::uint8_t fill) {
    for (volume_shape &shape : shapes) {
        shape.fill = fill;
    }
    return shapes;
}

// The last of the messages.
std::string last_message(const std::string &messages) {
    std::string rest = messages;
    while (!rest.empty() && rest.back() == '\n') {
        rest.pop_back();
    }
    const std::size_t newline = rest.rfind('\n');
    return newline == std::string::npos ? messages : messages.substr(newline + 1);
}

// ---- the pool file ----------------------------------------------------------------------------

class MakePool : public testing::TestWithParam<volume_shape> {};

TEST_P(MakePool, IsOneClusterThatBeginsWithSevenWords) {
    zuq_case c(GetParam());
    c.v.top.append(short_entry("A       TXT"));
    c.v.top.append(short_entry("B       TXT"));
    sv->last_alloc_clus = 299;
    c.v.disk.remember();
    EXPECT_EQ(c.make_pool(), (answer{0, ""}));

    const u32 size = mounted::cluster_bytes();
    expected_medium expected(&c.v.disk);
    expected.put(c.v.top.offset_of(3), reserved_entry(POOL, 300, size));
    expected.link(300, volume::end_mark());
    expected.put(mounted::byte_of(300), pool_content(3, 300, size));
    EXPECT_EQ(expected.difference(), "");
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    EXPECT_EQ(sv->last_alloc_clus, 300U);
}

TEST_P(MakePool, WritesEntryThenLinkThenClusterThenEntryAgain) {
    zuq_case c(GetParam());
    sv->last_alloc_clus = 299;
    EXPECT_EQ(c.make_pool(), (answer{0, ""}));
    std::vector<std::uint64_t> expected = {c.sector_of_entry(1), volume::fat_sector_of(300)};
    for (u32 i = 0; i < sv->sec_per_clus; i++) {
        expected.push_back(volume::first_sector_of(300) + i);
    }
    expected.push_back(c.sector_of_entry(1));
    EXPECT_EQ(c.sectors_written(), expected);
}

INSTANTIATE_TEST_SUITE_P(Painted, MakePool, testing::ValuesIn(painted(many_shapes(), 0x5A)),
                         shape_name);

TEST(MakePoolOnFat32, WritesBothHalvesOfALargeClusterNumber) {
    zuq_case c({.fat_type = 32, .clusters = 70000});
    sv->last_alloc_clus = 0x10001;
    EXPECT_EQ(c.make_pool(), (answer{0, ""}));
    EXPECT_EQ(c.v.top.at(1), reserved_entry(POOL, 0x10002, 512));
    EXPECT_EQ(c.v.data_of({0x10002}), pool_content(1, 0x10002, 512));
}

TEST(MakePoolOnFat32, GrowsAFullRootDirectoryFirst) {
    zuq_case c({.fat_type = 32, .fill = 0x5A});
    c.v.top.fill_up(short_entry("FULL    TXT"));
    sv->last_alloc_clus = 9;
    const answer a = c.make_pool();
    EXPECT_EQ(a, (answer{0, past_end(2, 16)}));
    // 16 entries filled the first cluster; the next one is 10, and the pool gets 11.
    EXPECT_EQ(c.v.chain_from(sv->root_clus), (std::vector<u32>{sv->root_clus, 10}));
    const entry_image entry = reserved_entry(POOL, 11, 512);
    EXPECT_EQ(part_of(c.v.data_of({10}), 0, 32), bytes(entry.begin(), entry.end()));
    EXPECT_EQ(c.v.data_of({11}), pool_content(16, 11, 512));
}

TEST(MakePoolTest, NeedsTheRootDirectoryOpen) {
    ram_disk disk(1 << 20);
    sv->sector_size = 512;
    sv->sec_per_clus = 1;
    diagnostics messages;
    EXPECT_EQ(zuq_make_pool(), -EINVAL);
    EXPECT_EQ(messages.text(), "zuq_make_pool[N]: root directory isn't open\n");
    EXPECT_TRUE(disk.log.empty());
}

TEST(MakePoolTest, RefusesASecondPool) {
    zuq_case c;
    EXPECT_EQ(c.make_pool(), (answer{0, ""}));
    c.v.disk.remember();
    EXPECT_EQ(c.make_pool(),
              (answer{-EEXIST, found(1) + "zuq_make_pool[N]: Failed to create pool file!\n\n"}));
    c.expect_unchanged();
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
}

TEST(MakePoolTest, RefusesADirectoryOfThatName) {
    zuq_case c;
    c.v.top.append(short_entry(POOL, DIRECTORY, 10));
    c.v.disk.remember();
    EXPECT_EQ(c.make_pool(),
              (answer{-EEXIST, found(1) + "zuq_make_pool[N]: Failed to create pool file!\n\n"}));
    c.expect_unchanged();
}

TEST(MakePoolTest, IsInTheRootWithAnyCurrentDirectory) {
    zuq_case c;
    const directory sub = c.v.sub_directory({20});
    const int id = c.v.open_new("SUB        ", {20}, 0, DIRECTORY);
    ASSERT_EQ(fat_set_current(id), id);
    EXPECT_EQ(c.make_pool(), (answer{0, ""}));
    EXPECT_EQ(part_of(c.v.disk.peek(c.v.top.offset_of(2), 32), 0, 11), bytes(POOL, POOL + 11));
    EXPECT_EQ(get_current(), id);
}

// The attributes come on top of those that creation gives, which are 0 except in permission mode.
TEST(MakePoolTest, RetainsTheBitsOfThePermissionMode) {
    zuq_case c({.sec_per_clus = 64});
    fat_perm = {1, 0x1234, 0, 0600, 0};
    sv->last_alloc_clus = 99;
    EXPECT_EQ(c.make_pool(), (answer{0, ""}));
    EXPECT_EQ(c.make_log(), (answer{0, ""}));
    fat_perm = {};
    entry_image pool = made_entry(POOL, READ_ONLY | HIDDEN | SYSTEM | ARCHIVE, 100, 32768);
    entry_image log = made_entry(LOG, READ_ONLY | HIDDEN | SYSTEM | ARCHIVE, 101, 131072);
    for (entry_image *entry : {&pool, &log}) {
        (*entry)[13] = 0x1C; // the group may do nothing
        (*entry)[14] = 0x34;
        (*entry)[15] = 0x12;
    }
    EXPECT_EQ(c.v.top.at(1), pool);
    EXPECT_EQ(c.v.top.at(2), log);
}

TEST(MakePoolTest, TakesTheSlotOfARemovedEntry) {
    zuq_case c;
    c.v.top.append(short_entry("A       TXT"));
    c.v.top.append(deleted(short_entry("B       TXT")));
    c.v.top.append(short_entry("C       TXT"));
    sv->last_alloc_clus = 9;
    EXPECT_EQ(c.make_pool(), (answer{0, ""}));
    EXPECT_EQ(c.v.top.at(2), reserved_entry(POOL, 10, 512));
    EXPECT_EQ(c.v.data_of({10}), pool_content(2, 10, 512));
}

TEST(MakePoolTest, ReportsAFullRootDirectory) {
    zuq_case c;
    c.v.top.fill_up(short_entry("FULL    TXT"));
    c.v.disk.remember();
    EXPECT_EQ(
        c.make_pool(),
        (answer{-ENOSPC, past_end(0, 512) + "Root directory has no more space\n"
                                            "zuq_make_pool[N]: Failed to create pool file!\n\n"}));
    c.expect_unchanged();
}

TEST(MakePoolTest, LeavesTheEntryWhereAllIdsAreTaken) {
    zuq_case c;
    const u32 other = c.v.top.append(short_entry("A       TXT"));
    for (int id = 1; id < 512; id++) {
        c.v.open(other);
    }
    c.v.disk.remember();
    EXPECT_EQ(c.make_pool(), (answer{-EMFILE, "register_oentry[N]: Too many open files\n"
                                              "zuq_make_pool[N]: Failed to open pool file!\n\n"}));
    expected_medium expected(&c.v.disk);
    expected.put(c.v.top.offset_of(2), made_entry(POOL, 0, 0, 0));
    EXPECT_EQ(expected.difference(), "");
    EXPECT_EQ(mounted::open_ids(), 512);
}

TEST(MakePoolTest, LeavesTheEntryWhereNoClusterIsFree) {
    for (const u32 fat_type : {16U, 32U}) {
        zuq_case c({.fat_type = fat_type});
        c.v.fill_but({});
        c.v.disk.remember();
        EXPECT_EQ(c.make_pool(),
                  (answer{-ENOSPC, "fat_alloc_cluster[N]: No space left on volume!!\n"
                                   "zuq_make_pool[N]: Failed to allocate cluster!\n\n"}));
        expected_medium expected(&c.v.disk);
        expected.put(c.v.top.offset_of(1), made_entry(POOL, 0, 0, 0));
        EXPECT_EQ(expected.difference(), "");
        EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    }
}

// The second search for a free cluster skips broken entries and returns number 0.
TEST(MakePoolTest, ReportsAClusterThatHasNoSector) {
    zuq_case c({.fat_type = 32});
    c.v.fill_but({});
    c.v.set_link(7, 1);
    sv->last_alloc_clus = 20;
    EXPECT_EQ(c.make_pool(), (answer{-EINVAL, "fat_read_clus[N]: Invalid cluster!\n\n"
                                              "fat_free_clus[N]: Invalid cluster value!\n\n"
                                              "get_phy_sector[N]: invalid start cluster number 0\n"
                                              "zuq_make_pool[N]: Failed to get sector!\n\n"}));
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
}

TEST(MakePoolTest, ReportsAClusterThatCannotBeWritten) {
    for (const int moved : {-EIO, 0, 1, 3, 5}) {
        zuq_case c({.fat_type = 16, .sec_per_clus = 4});
        sv->last_alloc_clus = 9;
        for (u32 i = 0; i < 4; i++) {
            c.v.disk.unwritable.insert(volume::first_sector_of(10) + i);
        }
        c.v.disk.failure_result = moved;
        EXPECT_EQ(c.make_pool(), (answer{-EIO, "zuq_make_pool[N]: Failed to write sector!\n\n"}))
            << moved;
        EXPECT_EQ(c.v.top.at(1), made_entry(POOL, 0, 0, 0));
        EXPECT_EQ(c.v.link(10), 0xFFFFU);
        EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    }
}

TEST(MakePoolTest, ReportsAnEntryThatCannotBeUpdated) {
    for (const int moved : {-EIO, 0, 2}) {
        zuq_case c;
        sv->last_alloc_clus = 9;
        c.v.disk.writes_before_failure = 3; // the entry, the link, the cluster
        c.v.disk.failure_result = moved;
        EXPECT_EQ(c.make_pool(), (answer{-EIO, "fat_update_entry[N]: IO Error!\n\n"
                                               "zuq_make_pool[N]: Failed to update entry!\n\n"}))
            << moved;
        EXPECT_EQ(c.v.data_of({10}), pool_content(1, 10, 512));
        EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    }
}

// ---- the log file -----------------------------------------------------------------------------

class MakeLog : public testing::TestWithParam<volume_shape> {};

// As many clusters as hold 128 KiB, counted one by one.
u32 log_clusters() {
    u32 count = 0;
    while (count * mounted::cluster_bytes() < 128 * 1024) {
        count++;
    }
    return count;
}
std::vector<u32> row(u32 first, u32 count) {
    std::vector<u32> result;
    for (u32 i = 0; i < count; i++) {
        result.push_back(first + i);
    }
    return result;
}

TEST_P(MakeLog, IsACleared128KiB) {
    zuq_case c(GetParam());
    sv->last_alloc_clus = 299;
    EXPECT_EQ(c.make_log(), (answer{0, ""}));

    const u32 count = log_clusters();
    expected_medium expected(&c.v.disk);
    expected.put(c.v.top.offset_of(1), reserved_entry(LOG, 300, count * mounted::cluster_bytes()));
    for (const u32 cluster : row(300, count)) {
        expected.link(cluster, cluster + 1 < 300 + count ? cluster + 1 : volume::end_mark());
        expected.put(mounted::byte_of(cluster), bytes(mounted::cluster_bytes(), 0));
    }
    EXPECT_EQ(expected.difference(), "");
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    EXPECT_EQ(sv->last_alloc_clus, 300 + count - 1);
}

// Links of one FAT sector may travel in one write, the last; a cluster is cleared after its link.
TEST_P(MakeLog, ClearsItsClustersInTheirOrderAndWritesTheEntryLast) {
    zuq_case c(GetParam());
    sv->last_alloc_clus = 299;
    EXPECT_EQ(c.make_log(), (answer{0, ""}));
    const std::vector<std::uint64_t> written = c.sectors_written();
    EXPECT_EQ(written.front(), c.sector_of_entry(1));
    EXPECT_EQ(written.back(), c.sector_of_entry(1));

    const u32 count = log_clusters();
    std::vector<std::uint64_t> data;
    std::optional<std::size_t> last_link;
    std::optional<std::size_t> last_clear;
    for (std::size_t i = 1; i + 1 < written.size(); i++) {
        if (written[i] >= sv->data_start) {
            data.push_back(written[i]);
            if (written[i] == volume::first_sector_of(300 + count - 1)) {
                last_clear = i;
            }
        } else {
            EXPECT_GE(written[i], sv->fat_start);
            EXPECT_LT(written[i], sv->fat_start + sv->fat_size);
            last_link = i;
        }
    }
    std::vector<std::uint64_t> expected;
    for (u32 i = 0; i < count * sv->sec_per_clus; i++) {
        expected.push_back(volume::first_sector_of(300) + i);
    }
    EXPECT_EQ(data, expected);
    ASSERT_TRUE(last_link.has_value() && last_clear.has_value());
    EXPECT_LT(*last_link, *last_clear);
}

std::vector<volume_shape> log_shapes() {
    std::vector<volume_shape> result;
    for (const u32 fat_type : {16U, 32U}) {
        for (const u32 sec_per_clus : {1U, 2U, 4U, 8U, 16U, 32U, 64U}) {
            result.push_back({.fat_type = fat_type, .sec_per_clus = sec_per_clus});
        }
        result.push_back({.fat_type = fat_type, .sector_size = 1024, .sec_per_clus = 1});
        result.push_back({.fat_type = fat_type, .sector_size = 2048, .sec_per_clus = 1});
        result.push_back({.fat_type = fat_type, .sector_size = 4096, .sec_per_clus = 1});
        result.push_back({.fat_type = fat_type, .sector_size = 4096, .sec_per_clus = 8});
        // 128 and 256 KiB: one cluster.
        result.push_back({.fat_type = fat_type, .sector_size = 4096, .sec_per_clus = 32});
        result.push_back({.fat_type = fat_type, .sector_size = 4096, .sec_per_clus = 64});
    }
    return result;
}
INSTANTIATE_TEST_SUITE_P(Painted, MakeLog, testing::ValuesIn(painted(log_shapes(), 0x5A)),
                         shape_name);

TEST(MakeLogTest, TakesTheClustersThatTheEdgesName) {
    for (const auto &[sector_size, sec_per_clus, clusters] :
         {std::tuple{512U, 1U, 256U}, {4096U, 1U, 32U}, {2048U, 1U, 64U}}) {
        zuq_case c({.sector_size = sector_size, .sec_per_clus = sec_per_clus});
        EXPECT_EQ(c.make_log(), (answer{0, ""}));
        EXPECT_EQ(c.v.chain_from(start_of(c.v.top.at(1))).size(), clusters);
        EXPECT_EQ(size_of(c.v.top.at(1)), 131072U);
    }
}

TEST(MakeLogTest, NeedsTheRootDirectoryOpen) {
    ram_disk disk(1 << 20);
    sv->sector_size = 512;
    sv->sec_per_clus = 1;
    diagnostics messages;
    EXPECT_EQ(zuq_make_log(), -EINVAL);
    EXPECT_EQ(messages.text(), "zuq_make_log[N]: Failed to get parent!\n\n");
    EXPECT_TRUE(disk.log.empty());
}

TEST(MakeLogTest, RefusesASecondLog) {
    zuq_case c({.sec_per_clus = 64});
    EXPECT_EQ(c.make_log(), (answer{0, ""}));
    c.v.disk.remember();
    EXPECT_EQ(c.make_log(), (answer{-EEXIST, found(1) + "zuq_make_log[N]: Failed to create!\n\n"}));
    c.expect_unchanged();
}

TEST(MakeLogTest, ExistsBesideThePool) {
    for (const u32 fat_type : {16U, 32U}) {
        zuq_case c({.fat_type = fat_type, .sec_per_clus = 8});
        sv->last_alloc_clus = 99;
        EXPECT_EQ(c.make_pool(), (answer{0, ""}));
        EXPECT_EQ(c.make_log(), (answer{0, ""}));
        EXPECT_EQ(c.v.top.at(1), reserved_entry(POOL, 100, 4096));
        EXPECT_EQ(c.v.top.at(2), reserved_entry(LOG, 101, 131072));
        EXPECT_EQ(c.v.chain_from(101), row(101, 32));
    }
}

TEST(MakeLogTest, ReportsAFullRootDirectory) {
    zuq_case c;
    c.v.top.fill_up(short_entry("FULL    TXT"));
    c.v.disk.remember();
    EXPECT_EQ(c.make_log(),
              (answer{-ENOSPC, past_end(0, 512) + "Root directory has no more space\n"
                                                  "zuq_make_log[N]: Failed to create!\n\n"}));
    c.expect_unchanged();
}

TEST(MakeLogTest, LeavesTheEntryWhereAllIdsAreTaken) {
    zuq_case c;
    const u32 other = c.v.top.append(short_entry("A       TXT"));
    for (int id = 1; id < 512; id++) {
        c.v.open(other);
    }
    c.v.disk.remember();
    EXPECT_EQ(c.make_log(), (answer{-EMFILE, "register_oentry[N]: Too many open files\n"
                                             "zuq_make_log[N]: Failed to open!\n\n"}));
    expected_medium expected(&c.v.disk);
    expected.put(c.v.top.offset_of(2), made_entry(LOG, 0, 0, 0));
    EXPECT_EQ(expected.difference(), "");
}

// The clusters remain in the chain; the entry on the medium does not include them.
TEST(MakeLogTest, RetainsItsClustersIfTheVolumeFillsUpHalfWay) {
    for (const u32 fat_type : {16U, 32U}) {
        zuq_case c({.fat_type = fat_type, .sec_per_clus = 8, .fill = 0x5A});
        c.v.fill_but({40, 41, 50, 77, 78});
        sv->last_alloc_clus = 45;
        c.v.disk.remember();
        EXPECT_EQ(c.make_log(), (answer{-ENOSPC, "fat_alloc_cluster[N]: No space left on volume!!\n"
                                                 "zuq_make_log[N]: Failed to get parent!\n\n"}));
        expected_medium expected(&c.v.disk);
        expected.put(c.v.top.offset_of(1), made_entry(LOG, 0, 0, 0));
        const std::vector<u32> chain = {50, 77, 78, 40, 41};
        for (std::size_t i = 0; i < chain.size(); i++) {
            expected.link(chain[i], i + 1 < chain.size() ? chain[i + 1] : volume::end_mark());
            expected.put(mounted::byte_of(chain[i]), bytes(4096, 0));
        }
        EXPECT_EQ(expected.difference(), "");
        EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    }
}

TEST(MakeLogTest, LeavesAnEmptyEntryWhereNoClusterIsFree) {
    zuq_case c;
    c.v.fill_but({});
    c.v.disk.remember();
    EXPECT_EQ(c.make_log(), (answer{-ENOSPC, "fat_alloc_cluster[N]: No space left on volume!!\n"
                                             "zuq_make_log[N]: Failed to get parent!\n\n"}));
    expected_medium expected(&c.v.disk);
    expected.put(c.v.top.offset_of(1), made_entry(LOG, 0, 0, 0));
    EXPECT_EQ(expected.difference(), "");
}

TEST(MakeLogTest, FitsIntoTheVeryLastClusters) {
    zuq_case c({.sec_per_clus = 64});
    c.v.fill_but({40, 50, 60, 70});
    EXPECT_EQ(c.make_log(), (answer{0, ""}));
    EXPECT_EQ(c.v.chain_from(start_of(c.v.top.at(1))), (std::vector<u32>{40, 50, 60, 70}));
}

TEST(MakeLogTest, StopsAtAClusterThatCannotBeCleared) {
    for (const int moved : {-EIO, 0}) {
        zuq_case c({.sec_per_clus = 8});
        sv->last_alloc_clus = 99;
        c.v.disk.unwritable = {volume::first_sector_of(105) + 3};
        c.v.disk.failure_result = moved;
        EXPECT_EQ(c.make_log(), (answer{-EIO, "clear_cluster[N]: cannot write cluster(#105)\n"
                                              "zuq_make_log[N]: Failed to get parent!\n\n"}));
        EXPECT_EQ(c.v.chain_from(100), row(100, 6));
        EXPECT_EQ(c.v.link(106), 0U);
        EXPECT_EQ(c.v.top.at(1), made_entry(LOG, 0, 0, 0));
        EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    }
}

TEST(MakeLogTest, ReportsAnEntryThatCannotBeUpdated) {
    int writes = 0;
    for (const bool is_rehearsal : {true, false}) {
        zuq_case c({.sec_per_clus = 64});
        sv->last_alloc_clus = 99;
        if (is_rehearsal) {
            EXPECT_EQ(c.make_log(), (answer{0, ""}));
            writes = static_cast<int>(std::count_if(c.v.disk.log.begin(), c.v.disk.log.end(),
                                                    [](const transfer &t) { return t.is_write; }));
            continue;
        }
        c.v.disk.writes_before_failure = writes - 1;
        EXPECT_EQ(c.make_log(), (answer{-EIO, "fat_update_entry[N]: IO Error!\n\n"
                                              "zuq_make_log[N]: Failed to get parent!\n\n"}));
        EXPECT_EQ(c.v.chain_from(100), row(100, 4));
        EXPECT_EQ(c.v.top.at(1), made_entry(LOG, 0, 0, 0));
        EXPECT_EQ(ids_in_use(), std::vector<int>{0});
    }
}

// ---- both, with every transfer and allocation failing -----------------------------------------

// The last messages, with their results, of a call at every fault.
std::vector<answer> under_faults(const fault_kind &kind, const volume_shape &shape, int (*call)()) {
    return answers_at_every_fault(kind, [&](fault_step &step) {
        zuq_case c(shape);
        sv->last_alloc_clus = 99;
        const answer whole = c.ask([&] { return step.run(call); });
        EXPECT_EQ(ids_in_use(), std::vector<int>{0});
        EXPECT_EQ(sv->current_dir, sv->root_dir);
        return answer{whole.result, last_message(whole.messages)};
    });
}

answer pool_says(int result, const std::string &message) {
    return {result, "zuq_make_pool[N]: " + message + "\n\n"};
}
answer log_says(int result, const std::string &message) {
    return {result, "zuq_make_log[N]: " + message + "\n\n"};
}

TEST(MakePoolUnderFaults, NamesTheStepOfEveryReadThatFails) {
    EXPECT_EQ(under_faults(EVERY_READ, {}, zuq_make_pool),
              (std::vector<answer>{pool_says(-EIO, "Failed to create pool file!"), // the lookup
                                   pool_says(-EIO, "Failed to allocate cluster!"),
                                   {0, ""}}));
}

TEST(MakePoolUnderFaults, NamesTheStepOfEveryWriteThatFails) {
    EXPECT_EQ(under_faults(EVERY_WRITE, {}, zuq_make_pool),
              (std::vector<answer>{pool_says(-EIO, "Failed to create pool file!"),
                                   pool_says(-EIO, "Failed to allocate cluster!"),
                                   pool_says(-EIO, "Failed to write sector!"),
                                   pool_says(-EIO, "Failed to update entry!"),
                                   {0, ""}}));
}

TEST(MakePoolUnderFaults, NamesTheStepOfEveryAllocationThatFails) {
    EXPECT_EQ(under_faults(EVERY_ALLOCATION, {}, zuq_make_pool),
              (std::vector<answer>{pool_says(-ENOMEM, "Failed to allocate memory!"),
                                   pool_says(-ENOMEM, "Failed to create pool file!"),
                                   pool_says(-ENOMEM, "Failed to open pool file!"),
                                   pool_says(-ENOMEM, "Failed to allocate cluster!"),
                                   pool_says(-ENOMEM, "Failed to update entry!"),
                                   {0, ""}}));
}

TEST(MakeLogUnderFaults, NamesTheStepOfEveryReadThatFails) {
    EXPECT_EQ(under_faults(EVERY_READ, {.sec_per_clus = 64}, zuq_make_log),
              (std::vector<answer>{log_says(-EIO, "Failed to create!"), // the lookup
                                   log_says(-EIO, "Failed to get parent!"),
                                   {0, ""}}));
}

TEST(MakeLogUnderFaults, NamesTheStepOfEveryWriteThatFails) {
    EXPECT_EQ(under_faults(EVERY_WRITE, {.sec_per_clus = 64}, zuq_make_log),
              (std::vector<answer>{log_says(-EIO, "Failed to create!"),
                                   log_says(-EIO, "Failed to get parent!"),
                                   {0, ""}}));
}

TEST(MakeLogUnderFaults, NamesTheStepOfEveryAllocationThatFails) {
    EXPECT_EQ(under_faults(EVERY_ALLOCATION, {.sec_per_clus = 64}, zuq_make_log),
              (std::vector<answer>{log_says(-ENOMEM, "Failed to create!"),
                                   log_says(-ENOMEM, "Failed to open!"),
                                   log_says(-ENOMEM, "Failed to get parent!"),
                                   {0, ""}}));
}

// ---- find_cluster -----------------------------------------------------------------------------

constexpr u32 ALL_ONES = 0xFFFFFFFF;

// The arguments of the predicates.
std::vector<std::pair<u32, u32>> asked;

bool never(u32 cluster, u32 key) {
    asked.emplace_back(cluster, key);
    return false;
}
bool is_equal(u32 cluster, u32 key) {
    asked.emplace_back(cluster, key);
    return cluster == key;
}
bool is_at_least(u32 cluster, u32 key) {
    asked.emplace_back(cluster, key);
    return cluster >= key;
}

class FindCluster : public testing::TestWithParam<u32> {
protected:
    FindCluster() : c({.fat_type = GetParam()}) {
        asked.clear();
    }
    answer find(u32 start, u32 stop, u32 key, bool (*predicate)(u32, u32)) {
        asked.clear();
        return c.ask([&] { return find_cluster(start, stop, key, predicate); });
    }
    static std::vector<std::pair<u32, u32>> each_of(const std::vector<u32> &clusters, u32 key) {
        std::vector<std::pair<u32, u32>> result;
        for (const u32 cluster : clusters) {
            result.emplace_back(cluster, key);
        }
        return result;
    }

    zuq_case c;
};
INSTANTIATE_TEST_SUITE_P(Widths, FindCluster, testing::Values(16, 32),
                         testing::PrintToStringParamName());

TEST_P(FindCluster, IsTheFirstOfTheChainThatThePredicateHoldsFor) {
    c.v.chain({10, 40, 20, 60, 30});
    EXPECT_EQ(find(10, ALL_ONES, 60, is_equal), (answer{60, ""}));
    EXPECT_EQ(asked, each_of({10, 40, 20, 60}, 60));
    EXPECT_EQ(find(10, ALL_ONES, 11, is_at_least), (answer{40, ""}));
    EXPECT_EQ(asked, each_of({10, 40}, 11));
    EXPECT_EQ(find(20, ALL_ONES, 10, is_equal), (answer{-ENOENT, ""}));
    EXPECT_EQ(asked, each_of({20, 60, 30}, 10));
}

TEST_P(FindCluster, ChecksTheStartBeforeAnyRead) {
    EXPECT_EQ(find(10, ALL_ONES, 10, is_equal), (answer{10, ""}));
    EXPECT_EQ(c.v.traffic(), 0U);
    // Also at a number that is no cluster.
    EXPECT_EQ(find(1, ALL_ONES, 1, is_equal), (answer{1, ""}));
    EXPECT_EQ(find(0, 0, 0, is_equal), (answer{0, ""}));
    EXPECT_EQ(c.v.traffic(), 0U);
}

TEST_P(FindCluster, EndsAtEveryEndMark) {
    for (u32 mark = volume::first_end_mark(); mark <= volume::end_mark(); mark++) {
        c.v.set_link(10, 20);
        c.v.set_link(20, mark);
        EXPECT_EQ(find(10, ALL_ONES, 1, never), (answer{-ENOENT, ""})) << mark;
        EXPECT_EQ(asked, each_of({10, 20}, 1));
    }
}

TEST_P(FindCluster, EndsAtAFreeEntry) {
    c.v.set_link(10, 20);
    EXPECT_EQ(find(10, ALL_ONES, 1, never), (answer{-ENOENT, ""}));
    EXPECT_EQ(asked, each_of({10, 20}, 1));
    EXPECT_EQ(find(30, ALL_ONES, 1, never), (answer{-ENOENT, ""}));
}

TEST_P(FindCluster, BeginsAtNothingWhereStartAndStopAreAllOnes) {
    EXPECT_EQ(find(ALL_ONES, ALL_ONES, 1, is_at_least), (answer{-ENOENT, ""}));
    EXPECT_TRUE(asked.empty());
    EXPECT_EQ(c.v.traffic(), 0U);
}

TEST_P(FindCluster, IgnoresAStopThatIsNotAllOnes) {
    c.v.chain({10, 20, 30});
    for (const u32 stop : {0U, 20U, 30U, ALL_ONES - 1}) {
        EXPECT_EQ(find(10, stop, 30, is_equal), (answer{30, ""})) << stop;
    }
}

TEST_P(FindCluster, ReportsNumbersThatAreNotClusters) {
    const answer refused{-EINVAL, "fat_read_clus[N]: Invalid arg!\n\n"
                                  "find_cluster[N]: Failed to read cluster!\n\n"};
    for (const u32 start : {0U, 1U, volume::last_cluster() + 1, 0x80000000U, ALL_ONES - 1}) {
        EXPECT_EQ(find(start, ALL_ONES, 7, never), refused) << start;
        EXPECT_EQ(asked, each_of({start}, 7));
    }
    // All ones is such a number too, unless it is where the search stops.
    EXPECT_EQ(find(ALL_ONES, 0, 7, never), refused);
    EXPECT_EQ(asked, each_of({ALL_ONES}, 7));
}

TEST_P(FindCluster, ReportsInvalidLinks) {
    const answer refused{-EINVAL, "fat_read_clus[N]: Invalid cluster!\n\n"
                                  "find_cluster[N]: Failed to read cluster!\n\n"};
    for (const u32 link : {1U, volume::bad_mark(), volume::last_cluster() + 1}) {
        c.v.set_link(10, 20);
        c.v.set_link(20, link);
        EXPECT_EQ(find(10, ALL_ONES, 7, never), refused) << link;
    }
}

TEST_P(FindCluster, EndsACycleInTimeProportionalToIt) {
    for (const u32 before : {0U, 1U, 5U, 100U}) {
        for (const u32 length : {1U, 2U, 3U, 64U, 1000U}) {
            const std::vector<u32> clusters = row(10, before + length);
            c.v.chain(clusters);
            c.v.set_link(clusters.back(), clusters[before]);
            EXPECT_EQ(find(10, ALL_ONES, 7, never),
                      (answer{-EINVAL, "find_cluster[N]: Failed to read cluster!\n\n"}))
                << before << " and then a cycle of " << length;
            EXPECT_GE(asked.size(), before + length);
            EXPECT_LE(asked.size(), 4 * (before + length) + 4);
            // A cluster inside is found nonetheless.
            EXPECT_EQ(find(10, ALL_ONES, clusters.back(), is_equal),
                      (answer{static_cast<int>(clusters.back()), ""}));
        }
    }
}

TEST_P(FindCluster, PassesReadErrorsOn) {
    c.v.chain({10, 20});
    c.v.disk.unreadable = {volume::fat_sector_of(10)};
    EXPECT_EQ(find(10, ALL_ONES, 7, never),
              (answer{-EIO, "fat_read_entry[N]: cannot read FAT\n\n"
                            "find_cluster[N]: Failed to read cluster!\n\n"}));
}

TEST_P(FindCluster, PassesMissingMemoryOn) {
    c.v.chain({10, 20});
    const failing_allocation fault(0);
    asked.reserve(100);
    const int result = find_cluster(10, ALL_ONES, 7, [](u32, u32) { return false; });
    EXPECT_EQ(result, -ENOMEM);
    EXPECT_EQ(c.messages.text(), "fat_read_entry[N]: cannot allocate FAT\n\n"
                                 "find_cluster[N]: Failed to read cluster!\n\n");
}

TEST_P(FindCluster, RetainsNothing) {
    c.v.chain({10, 20, 30});
    const allocation_meter meter;
    EXPECT_EQ(find_cluster(10, ALL_ONES, 30, [](u32 cluster, u32 key) { return cluster == key; }),
              30);
    EXPECT_EQ(meter.live_blocks(), 0);
}

TEST(FindClusterOnFat32, IgnoresReservedBits) {
    zuq_case c({.fat_type = 32});
    c.v.set_link(10, 0xF0000014);
    c.v.set_link(20, 0xA0000000);
    EXPECT_EQ(c.ask([] { return find_cluster(10, ALL_ONES, 7, never); }), (answer{-ENOENT, ""}));
}

// ---- fat_find_pool ----------------------------------------------------------------------------

class FindPool : public testing::TestWithParam<u32> {
protected:
    FindPool() : c({.fat_type = GetParam()}) {}

    // A pool of these clusters, entry 1 of the root directory.
    void put_pool(const std::vector<u32> &clusters) {
        c.v.chain(clusters);
        c.v.top.go_to(1);
        c.v.top.append(short_entry(POOL, 0x27, clusters.empty() ? 0 : clusters.front(), 512));
    }

    zuq_case c;
};
INSTANTIATE_TEST_SUITE_P(Widths, FindPool, testing::Values(16, 32),
                         testing::PrintToStringParamName());

TEST_P(FindPool, IsTheFirstClusterNotBelowTheKey) {
    put_pool({20, 50, 30, 90});
    for (const auto &[key, cluster] :
         std::initializer_list<std::pair<u32, int>>{{1, 20},
                                                    {19, 20},
                                                    {20, 20},
                                                    {21, 50},
                                                    {30, 50},
                                                    {50, 50},
                                                    {51, 90},
                                                    {90, 90},
                                                    {91, -ENOENT},
                                                    {0x7FFFFFFF, -ENOENT},
                                                    {0x80000000, -ENOENT},
                                                    {ALL_ONES, -ENOENT}}) {
        EXPECT_EQ(c.find_pool(key), (answer{cluster, found(1)})) << key;
    }
}

TEST_P(FindPool, IsTheSecondClusterForKeyZero) {
    put_pool({20, 10, 30});
    EXPECT_EQ(c.find_pool(0), (answer{10, found(1)}));
    EXPECT_EQ(c.v.disk.log.back(), (transfer{false, volume::fat_sector_of(20), 1}));
}

TEST_P(FindPool, HasNoSecondClusterInAPoolAsItIsMade) {
    EXPECT_EQ(c.make_pool(), (answer{0, ""}));
    EXPECT_EQ(c.find_pool(0), (answer{-ENOENT, found(1)}));
    const u32 cluster = start_of(c.v.top.at(1));
    EXPECT_EQ(c.find_pool(1), (answer{static_cast<int>(cluster), found(1)}));
}

TEST_P(FindPool, LeavesItsIdOpenEveryTime) {
    put_pool({20, 30});
    EXPECT_EQ(c.find_pool(0), (answer{30, found(1)}));
    EXPECT_EQ(ids_in_use(), (std::vector<int>{0, 1}));
    EXPECT_EQ(c.find_pool(1), (answer{20, found(1)}));
    EXPECT_EQ(c.find_pool(99), (answer{-ENOENT, found(1)}));
    EXPECT_EQ(ids_in_use(), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(picture_of(2).name, "ZUQ_POOL.SY$");
    EXPECT_EQ(picture_of(2).start, 20U);
    EXPECT_EQ(fat_close(2), 0);
    EXPECT_EQ(c.find_pool(1), (answer{20, found(1)}));
    EXPECT_EQ(ids_in_use(), (std::vector<int>{0, 1, 2, 3}));
}

TEST_P(FindPool, RunsOutOfIds) {
    put_pool({20, 30});
    for (int id = 1; id < 512; id++) {
        ASSERT_EQ(c.find_pool(25), (answer{30, found(1)}));
    }
    errno = 0;
    EXPECT_EQ(c.find_pool(25),
              (answer{-EMFILE, found(1) + "register_oentry[N]: Too many open files\n"
                                          "fat_find_pool[N]: Failed to open file!\n\n"}));
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(mounted::open_ids(), 512);
}

TEST_P(FindPool, LooksInTheCurrentDirectoryAlone) {
    put_pool({20, 30});
    directory sub = c.v.sub_directory({60});
    sub.append(short_entry(".          ", DIRECTORY, 60));
    sub.append(short_entry("..         ", DIRECTORY, 0));
    const int id = c.v.open_new("SUB        ", {60}, 0, DIRECTORY);
    ASSERT_EQ(fat_set_current(id), id);
    EXPECT_EQ(c.find_pool(1), (answer{-ENOENT, "fat_open[N]: failed to find directory entry!\n\n"
                                               "fat_find_pool[N]: Failed to open file!\n\n"}));
    c.v.chain({70, 80});
    sub.append(short_entry(POOL, 0x27, 70, 512));
    EXPECT_EQ(c.find_pool(1), (answer{70, found(2, 60)}));
}

TEST_P(FindPool, ReportsAMissingPool) {
    EXPECT_EQ(c.find_pool(0), (answer{-ENOENT, "fat_open[N]: failed to find directory entry!\n\n"
                                               "fat_find_pool[N]: Failed to open file!\n\n"}));
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
}

TEST_P(FindPool, ReportsADirectoryOfThatName) {
    c.v.chain({20});
    c.v.top.append(short_entry(POOL, DIRECTORY, 20));
    EXPECT_EQ(c.find_pool(0),
              (answer{-EISDIR, found(1) + "fat_open_file[N]: attempt to open directory!\n\n"
                                          "fat_find_pool[N]: Failed to open file!\n\n"}));
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
}

TEST_P(FindPool, FindsNothingInAPoolWithoutClusters) {
    put_pool({});
    EXPECT_EQ(c.find_pool(0), (answer{-ENOENT, found(1) + "fat_read_clus[N]: Invalid arg!\n\n"}));
    EXPECT_EQ(c.find_pool(1),
              (answer{-EINVAL, found(1) + "fat_read_clus[N]: Invalid arg!\n\n"
                                          "find_cluster[N]: Failed to read cluster!\n\n"}));
}

// With key 0 a failure cannot be distinguished from the end of the chain.
TEST_P(FindPool, ReadsEachSectorOnce) {
    put_pool({20, 30});
    for (const u32 key : {0U, 25U}) {
        c.v.disk.log.clear();
        EXPECT_EQ(c.find_pool(key), (answer{30, found(1)}));
        for (const auto &[sector, times] : c.v.sectors_read()) {
            EXPECT_EQ(times, 1) << "sector " << sector;
        }
    }
}

TEST_P(FindPool, PassesTheErrorOfABrokenChainOn) {
    put_pool({20, 30});
    c.v.set_link(30, 1);
    EXPECT_EQ(c.find_pool(0).result, -EINVAL);
    EXPECT_EQ(ids_in_use(), std::vector<int>{0});
}

// A chain that runs into a free entry opens as a record without clusters counted.
TEST_P(FindPool, TakesAPoolWhoseFirstClusterIsFree) {
    put_pool({20});
    c.v.set_link(20, 0);
    EXPECT_EQ(c.find_pool(0).result, -ENOENT);
    EXPECT_EQ(c.find_pool(20).result, 20);
    EXPECT_EQ(c.find_pool(21).result, -ENOENT);
}

} // namespace
