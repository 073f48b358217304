// Walks over cluster chains and directories: cyclic chains, the reads of a walk, and thousands of
// damaged chains and directories compared with the reference model.

#include "tests/support/capture.h"
#include "tests/support/reference.h"
#include "tests/support/volume.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

bool ends_with(const std::string &text, const std::string &end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// ---- cyclic chains ----------------------------------------------------------------------------

// A chain with `tail` clusters that lead into a cycle.
struct rho {
    u32 fat_type;
    u32 sec_per_clus;
    u32 tail;
    u32 cycle;
};
std::ostream &operator<<(std::ostream &out, const rho &r) {
    return out << "Fat" << r.fat_type << "Cluster" << r.sec_per_clus << "Tail" << r.tail << "Cycle"
               << r.cycle;
}
std::string rho_name(const testing::TestParamInfo<rho> &info) {
    return testing::PrintToString(info.param);
}
std::vector<rho> many_circles() {
    std::vector<rho> result;
    for (const auto &[fat_type, sec_per_clus] : {std::pair{16U, 1U}, {16U, 8U}, {32U, 1U}}) {
        for (const auto &[tail, cycle] : {std::pair{0U, 1U},
                                          {1U, 1U},
                                          {0U, 2U},
                                          {1U, 2U},
                                          {3U, 1U},
                                          {0U, 3U},
                                          {5U, 7U},
                                          {7U, 5U},
                                          {0U, 64U},
                                          {64U, 1U},
                                          {1U, 64U},
                                          {63U, 65U},
                                          {100U, 900U},
                                          {900U, 100U},
                                          {0U, 3000U},
                                          {3000U, 1U}}) {
            result.push_back({fat_type, sec_per_clus, tail, cycle});
        }
    }
    return result;
}

class Cycle : public testing::TestWithParam<rho> {
protected:
    // Everything unwritten reads as deleted entries, so that no directory ends by itself.
    Cycle()
        : v({.fat_type = GetParam().fat_type,
             .sec_per_clus = GetParam().sec_per_clus,
             .fill = 0xE5}) {
        // Adjacent clusters of the chain are far from each other in the FAT.
        for (u32 i = 0; i < length; i++) {
            clusters.push_back(5 + i * 1231 % 4079);
        }
        v.chain(clusters);
        v.set_link(clusters.back(), clusters[GetParam().tail]);
        dir.record.allocated = 0xFFFFFFFF;
        v.disk.log.clear();
    }

    // The walk ended after a few rounds at most. `sectors`: of the directory, for each cluster.
    void expect_few_reads(u32 sectors) const {
        EXPECT_LE(v.traffic(), std::uint64_t{4} * (length + 1) * (1 + sectors));
    }
    // Exactly one message about the chain: none of its entries is bad.
    void expect_said(const std::string &end) {
        const std::string text = messages.text();
        EXPECT_EQ(text.rfind("get_phy_sector[N]: invalid value ", 0), 0U) << text;
        EXPECT_TRUE(ends_with(text, end)) << text;
        const auto lines = std::count(text.begin(), text.end(), '[');
        EXPECT_EQ(lines, 1 + std::count(end.begin(), end.end(), '[')) << text;
        messages.clear();
    }

    const u32 length = GetParam().tail + GetParam().cycle;
    volume v;
    std::vector<u32> clusters;
    directory dir{&v, {5}, false};
    diagnostics messages;
};
INSTANTIATE_TEST_SUITE_P(Shapes, Cycle, testing::ValuesIn(many_circles()), rho_name);

} // namespace

TEST_P(Cycle, EverySectorBeforeTheReturnIsFound) {
    for (const u32 i : {0U, length / 2, length - 1}) {
        for (const u32 r : {0U, sv->sec_per_clus - 1}) {
            u32 sector = 0;
            EXPECT_EQ(get_phy_sector(5, i * sv->sec_per_clus + r, &sector), 0);
            EXPECT_EQ(sector, volume::first_sector_of(clusters[i]) + r);
        }
    }
    EXPECT_EQ(messages.text(), "");
}

TEST_P(Cycle, FarSectorIsNotFound) {
    u32 sector = 0;
    EXPECT_EQ(get_phy_sector(5, 0xFFFFFFFF, &sector), -EINVAL);
    expect_few_reads(0);
    expect_said("\n");
    EXPECT_EQ(get_phy_sector(5, 4 * (length + 1) * sv->sec_per_clus, &sector), -EINVAL);
    expect_said("\n");
    EXPECT_EQ(get_phy_sector_by_offset(5, 0xFFFFFFFF, &sector), -EINVAL);
    expect_said("\n");
}

TEST_P(Cycle, FarEntryIsNotFound) {
    std::vector<u8> buffer(sv->sector_size);
    u8 *entry = nullptr;
    const u32 far = 0x07FFFFFE;
    EXPECT_EQ(fat_get_dentry(&dir.record, far, &entry, buffer.data(), nullptr), -EINVAL);
    expect_few_reads(0);
    expect_said("get_dentry_with_clu[N]: Failed to get entry sector!:(5, 134217726)\n\n");
    EXPECT_EQ(get_dentry_with_clu(5, 0xFFFFFFFF, &entry, buffer.data(), nullptr), -EINVAL);
    expect_said("get_dentry_with_clu[N]: Failed to get entry sector!:(5, -1)\n\n");
}

TEST_P(Cycle, LookupEndsInFailure) {
    char name[] = "README.TXT";
    EXPECT_EQ(find_dentry_with_clu(5, name, nullptr), -EINVAL);
    expect_few_reads(sv->sec_per_clus);
    const std::string text = messages.text();
    const std::size_t index = text.rfind("(5, ");
    ASSERT_NE(index, std::string::npos) << text;
    const std::string number = text.substr(index + 4, text.find(')', index) - index - 4);
    expect_said("get_dentry_with_clu[N]: Failed to get entry sector!:(5, " + number +
                ")\n\n"
                "find_dentry_with_clu[N]: fail to get dentry(5, " +
                number + "):Invalid argument\n");
    // Not before every entry was read.
    EXPECT_GE(std::stoul(number), std::size_t{length} * volume::entries_per_cluster());

    v.disk.log.clear();
    EXPECT_EQ(fat_find_dentry(&dir.record, name, nullptr), -EINVAL);
    expect_few_reads(sv->sec_per_clus);
    EXPECT_EQ(messages.text(), text);
}

TEST_P(Cycle, NameInItsLastClusterIsFound) {
    const u32 index = length * volume::entries_per_cluster() - 1;
    const std::uint64_t place =
        u64{volume::first_sector_of(clusters.back()) + sv->sec_per_clus} * sv->sector_size - 32;
    const entry_image entry = short_entry("README  TXT");
    v.disk.poke(place, {entry.begin(), entry.end()});
    char name[] = "README.TXT";
    EXPECT_EQ(find_dentry_with_clu(5, name, nullptr), static_cast<int>(index));
    EXPECT_EQ(messages.text(),
              "find_dentry_with_clu[N]: found index:(5, " + std::to_string(index) + ")\n");
}

TEST_P(Cycle, NumericTailEndsInFailure) {
    u8 dos[] = "LONGFILETXT";
    EXPECT_EQ(add_numeric_tail(&dir.record, dos), -EINVAL);
    EXPECT_STREQ(reinterpret_cast<char *>(dos), "LONGFILETXT");
    expect_few_reads(sv->sec_per_clus);
    const std::string text = messages.text();
    const std::size_t index = text.rfind("(5, ");
    ASSERT_NE(index, std::string::npos) << text;
    expect_said("get_dentry_with_clu[N]: Failed to get entry sector!:" + text.substr(index));
}

TEST_P(Cycle, NumericTailOfAsManyEntriesAsThereAreSucceeds) {
    dir.record.allocated = length * volume::entries_per_cluster() * 32;
    u8 dos[] = "LONGFILETXT";
    EXPECT_EQ(add_numeric_tail(&dir.record, dos), 0);
    EXPECT_STREQ(reinterpret_cast<char *>(dos), "LONGFI~1TXT");
    EXPECT_EQ(messages.text(), "");
}

namespace {

// Slots without an end: the first cluster ends with the last slot of a name of 63, all entries of
// the second are slots of it, and the second is followed by itself or by the first.
class LongNameInACycle : public testing::TestWithParam<u32> {
protected:
    LongNameInACycle() {
        directory space = v.sub_directory({5, 9});
        for (u32 i = 0; i < space.capacity(); i++) {
            space.put(i, long_slot(1, u"ABCDEFGHIJKLM", 0x55));
        }
        space.put(15, long_slot(0x7F, u"ABCDEFGHIJKLM", 0x55));
        v.set_link(9, GetParam());
        v.disk.log.clear();
    }

    volume v;
    diagnostics messages;
};
INSTANTIATE_TEST_SUITE_P(Returns, LongNameInACycle, testing::Values(5U, 9U));

} // namespace

TEST_P(LongNameInACycle, IsNotAName) {
    directory dir(&v, {5}, false);
    std::vector<u8> buffer(512);
    std::vector<u16> units(256);
    u8 *entry = nullptr;
    dir.record.allocated = 0xFFFFFFFF;
    ASSERT_EQ(fat_get_dentry(&dir.record, 15, &entry, buffer.data(), nullptr), 0);
    v.disk.log.clear();
    const int result = get_long_name(&dir.record, 15, &entry, buffer.data(), units.data());
    EXPECT_LE(result, 0);
    EXPECT_LE(v.traffic(), 63U * 3);
    if (result < 0) {
        EXPECT_EQ(result, -EINVAL);
        EXPECT_TRUE(ends_with(messages.text(), "get_long_name[N]: Failed to get entry with cluster "
                                               "...\n\n"));
    }
}

TEST_P(LongNameInACycle, IsFoundWhereItEndsBeforeTheReturn) {
    directory dir(&v, {5, 9}, false);
    v.chain({5, 9});
    v.set_link(9, GetParam());
    dir.go_to(14);
    const u32 index = dir.append_long(u"ABCDEFGHIJKLMN", "ABCDEF~1   ");
    std::vector<u8> buffer(512);
    std::vector<u16> units(256);
    u8 *entry = nullptr;
    ASSERT_EQ(fat_get_dentry(&dir.record, 14, &entry, buffer.data(), nullptr), 0);
    EXPECT_EQ(get_long_name(&dir.record, 14, &entry, buffer.data(), units.data()), 2);
    EXPECT_EQ(std::string(entry, entry + 11), "ABCDEF~1   ");
    char name[] = "ABCDEFGHIJKLMN";
    EXPECT_EQ(fat_find_dentry(&dir.record, name, nullptr), static_cast<int>(index));
}

// ---- what a walk reads ------------------------------------------------------------------------

namespace {

// A full directory whose chain alternates between FAT sectors: some links in one sector, then some
// in another, and back.
class WalkReads : public testing::TestWithParam<volume_shape> {
protected:
    static std::vector<u32> chain_in_runs() {
        const u32 far = sv->sector_size / (sv->fat_type / 8);
        return {5, 7, 6, far + 1, far + 9, far + 2, 9, 8, far + 3, 10, 11, 12, 13, 14};
    }
    // Number of spans of links within one FAT sector.
    static int runs(const std::vector<u32> &links) {
        int result = 0;
        for (std::size_t i = 0; i < links.size(); i++) {
            const bool goes_on =
                i > 0 && volume::fat_sector_of(links[i]) == volume::fat_sector_of(links[i - 1]);
            result += goes_on ? 0 : 1;
        }
        return result;
    }
    // How often sectors of the FAT were read, and whether each sector of the directory was once.
    void expect_reads(int of_the_fat) const {
        int fat_reads = 0;
        std::size_t directory_sectors = 0;
        for (const auto &[sector, times] : v.sectors_read()) {
            if (sector < sv->fat_start + sv->fat_size) {
                fat_reads += times;
            } else {
                EXPECT_EQ(times, 1) << "sector " << sector;
                directory_sectors++;
            }
        }
        EXPECT_EQ(fat_reads, of_the_fat);
        EXPECT_EQ(directory_sectors, dir.sectors.size());
    }

    volume v{GetParam()};
    const std::vector<u32> links = chain_in_runs();
    directory dir = v.sub_directory(links);
    diagnostics messages;
};
INSTANTIATE_TEST_SUITE_P(
    Shapes, WalkReads,
    testing::Values(volume_shape{.fat_type = 16, .fill = 0xE5},
                    volume_shape{
                        .fat_type = 16, .sector_size = 1024, .sec_per_clus = 8, .fill = 0xE5},
                    volume_shape{.fat_type = 32, .sec_per_clus = 4, .fill = 0xE5},
                    volume_shape{.fat_type = 32, .sector_size = 4096, .fill = 0xE5}),
    shape_name);

} // namespace

TEST_P(WalkReads, LookupReadsEachSectorOnce) {
    char name[] = "README.TXT";
    v.disk.log.clear();
    EXPECT_EQ(fat_find_dentry(&dir.record, name, nullptr), -ENOENT);
    expect_reads(runs(links));
}

TEST_P(WalkReads, NumericTailReadsEachSectorOnce) {
    u8 dos[] = "LONGFILETXT";
    v.disk.log.clear();
    EXPECT_EQ(add_numeric_tail(&dir.record, dos), 0);
    expect_reads(runs({links.begin(), links.end() - 1}));
}

TEST_P(WalkReads, SectorOfTheLastClusterReadsTheFatOnly) {
    u32 sector = 0;
    v.disk.log.clear();
    EXPECT_EQ(get_phy_sector(5, static_cast<u32>(links.size() - 1) * sv->sec_per_clus, &sector), 0);
    EXPECT_EQ(v.traffic(), static_cast<std::uint64_t>(runs({links.begin(), links.end() - 1})));
}

TEST_P(WalkReads, FirstSectorsNeedNoFat) {
    dir.put(volume::entries_per_cluster() - 1, short_entry("README  TXT"));
    char name[] = "README.TXT";
    v.disk.log.clear();
    EXPECT_GE(fat_find_dentry(&dir.record, name, nullptr), 0);
    EXPECT_EQ(v.traffic(), sv->sec_per_clus);
}

TEST_P(WalkReads, NothingIsCachedFromOneWalkToTheNext) {
    char name[] = "README.TXT";
    EXPECT_EQ(fat_find_dentry(&dir.record, name, nullptr), -ENOENT);
    const u32 index = dir.capacity() - 3;
    dir.put(index, short_entry("README  TXT"));
    EXPECT_EQ(fat_find_dentry(&dir.record, name, nullptr), static_cast<int>(index));
    v.chain({5});
    EXPECT_EQ(fat_find_dentry(&dir.record, name, nullptr), -ENOENT);
}

TEST_P(WalkReads, LongNameReadsASectorAgainForEachSlotAtMost) {
    dir.go_to(volume::entries_per_cluster() - 2);
    dir.append_long(u"ABCDEFGHIJKLMNOPQRSTUVWXYZABCDEFGHIJKLMNOPQRSTUVWXYZ", "ABCDEF~1   ");
    std::vector<u8> buffer(sv->sector_size);
    std::vector<u16> units(256);
    u8 *entry = nullptr;
    const u32 first = volume::entries_per_cluster() - 2;
    ASSERT_EQ(fat_get_dentry(&dir.record, first, &entry, buffer.data(), nullptr), 0);
    v.disk.log.clear();
    EXPECT_EQ(get_long_name(&dir.record, first, &entry, buffer.data(), units.data()), 4);
    // One sector for each entry after the first slot, and one of the FAT if it is in cluster 2.
    EXPECT_LE(v.traffic(), 4U + 3U);
}

// ---- reads that move nothing ------------------------------------------------------------------

namespace {

// A directory of three sectors; a read of the second one moves nothing.
class EmptyRead : public testing::Test {
protected:
    EmptyRead() {
        dir.fill_up(short_entry("OTHER   TXT"));
        v.disk.bad_sectors = {dir.sectors[1]};
        v.disk.failure_result = 0;
    }

    volume v;
    directory dir = v.sub_directory({5, 9, 7});
    diagnostics messages;
};

} // namespace

TEST_F(EmptyRead, LookupContinuesWithTheSectorItHas) {
    dir.put(20, short_entry("LOST       "));
    dir.put(40, short_entry("README  TXT"));
    char name[] = "README.TXT";
    EXPECT_EQ(find_dentry_with_clu(5, name, nullptr), 40);
    char lost[] = "LOST";
    EXPECT_EQ(find_dentry_with_clu(5, lost, nullptr), -ENOENT);
}

// ---- damaged chains and directories, against the reference model -------------------------------

namespace {

constexpr unsigned SEED = 20240229;

const volume_shape RANDOM_SHAPES[] = {
    {.fat_type = 16},
    {.fat_type = 16, .sector_size = 1024, .sec_per_clus = 2, .root_entries = 96},
    {.fat_type = 32},
    {.fat_type = 32, .sector_size = 1024, .sec_per_clus = 2},
};

// Random chains and directories.
class Random : public testing::TestWithParam<volume_shape> {
protected:
    Random() {
        std::printf("seed %u\n", SEED);
    }

    u32 below(u32 limit) {
        return static_cast<u32>(chance() % limit);
    }
    bool one_in(u32 n) {
        return below(n) == 0;
    }
    template <typename T>
    const T &one_of(const std::vector<T> &choices) {
        return choices[below(static_cast<u32>(choices.size()))];
    }

    void set_link(u32 cluster, u32 value) {
        const u32 top = sv->fat_type == 32 && one_in(4) ? below(16) << 28 : 0;
        v.set_link(cluster, value | top);
        touched_.push_back(cluster);
    }
    // Frees every cluster and repairs the medium.
    void start_over() {
        for (const u32 cluster : touched_) {
            v.set_link(cluster, 0);
        }
        touched_.clear();
        v.disk.bad_sectors.clear();
        v.disk.failure_result = one_in(3) ? 0 : -5; // nothing moved, or an error
        v.disk.log.clear();
        messages.clear();
    }
    // The reference model of the current volume; clears the messages of the library.
    model::directories reference() {
        messages.clear();
        return reference_of<model::directories>(&v.disk);
    }

    // Different clusters: contiguous, near each other, or anywhere.
    std::vector<u32> some_clusters(u32 count) {
        std::vector<u32> result;
        const u32 manner = below(3);
        const u32 near = 2 + below(sv->num_clusters - 400);
        while (result.size() < count) {
            const u32 cluster = manner == 0   ? near + static_cast<u32>(result.size())
                                : manner == 1 ? near + below(300)
                                              : 2 + below(sv->num_clusters);
            if (std::find(result.begin(), result.end(), cluster) == result.end()) {
                result.push_back(cluster);
            }
        }
        return result;
    }
    u32 some_end_mark() {
        return volume::first_end_mark() + below(8);
    }
    u32 some_value_that_is_no_link() {
        return one_of<u32>({0, 0, 1, volume::bad_mark(), sv->num_clusters + 2, sv->num_clusters + 3,
                            volume::bad_mark() - 1});
    }
    // A chain of a few clusters, intact or damaged.
    std::vector<u32> some_chain(u32 longest) {
        const std::vector<u32> clusters = some_clusters(1 + below(longest));
        for (std::size_t i = 0; i < clusters.size(); i++) {
            set_link(clusters[i], i + 1 < clusters.size() ? clusters[i + 1] : some_end_mark());
        }
        const u32 somewhere = one_of(clusters);
        switch (below(8)) {
        case 0:
        case 1:
            set_link(somewhere, some_value_that_is_no_link());
            break;
        case 2:
            set_link(somewhere, some_end_mark());
            break;
        case 3:
            set_link(somewhere, one_of(clusters));
            break;
        case 4:
            v.disk.bad_sectors.insert(volume::fat_sector_of(somewhere));
            break;
        default:
            break;
        }
        return clusters;
    }
    // The root of FAT16 now and then, else a chain.
    std::vector<u32> some_directory(u32 longest) {
        return sv->fat_type == 16 && one_in(6) ? std::vector<u32>{} : some_chain(longest);
    }

    volume v{GetParam()};
    diagnostics messages;
    std::mt19937 chance{SEED + GetParam().fat_type + GetParam().sector_size};

private:
    std::vector<u32> touched_;
};

// A name in the forms that a lookup compares.
struct wanted_name {
    std::string text;
    std::string dos;
    std::u16string wide; // empty: the name has no long form
};

class RandomChains : public Random {};
class RandomDirectories : public Random {
protected:
    // Names to look for, and to make directories of.
    static const std::vector<wanted_name> &names() {
        static const std::vector<wanted_name> list = {
            {"ReadMe.txt", "README  TXT", u"ReadMe.txt"},
            {"readme.txt", "README  TXT", u""},
            {"longfilename.txt", "LONGFILETXT", u"longfilename.txt"},
            {"AAAAAAAAAAAAABBBBBBBBBBBBBtail", "AAAAAAAA   ", u"AAAAAAAAAAAAABBBBBBBBBBBBBtail"},
            {"AAAAAAAAAAAAABBBBBBBBBBBBB", "AAAAAAAA   ", u"AAAAAAAAAAAAABBBBBBBBBBBBB"},
            {"AAAAAAAAAAAAA", "AAAAAAAA   ", u"AAAAAAAAAAAAA"},
            {"Other", "OTHER      ", u"Other"},
            {"OTHER", "OTHER      ", u""},
            {".", ".          ", u""},
        };
        return list;
    }
    // Names that no directory here contains, whatever its slots.
    static const std::vector<wanted_name> &absent_names() {
        static const std::vector<wanted_name> list = {
            {"absent.txt", "ABSENT  TXT", u""},
            {"Absent.txt", "ABSENT  TXT", u"Absent.txt"},
        };
        return list;
    }

    entry_image some_slot() {
        const std::u16string wide = one_of(names()).wide;
        const u32 part = below(3);
        const unsigned ordinal =
            one_in(2)
                ? part + 1 + 0x40 * below(2)
                : one_of<unsigned>({0x40, 0x14, 0x54, 0x15, 0x3F, 0x7F, 0x80, 0x81, 0xC1, 0xFF});
        const std::size_t at = std::min<std::size_t>(wide.size(), std::size_t{part} * 13);
        return long_slot(ordinal, wide.substr(at, 13), below(256));
    }
    entry_image some_entry() {
        static const std::vector<u8> attributes = {0x00, 0x01, 0x10, 0x20, 0x20, 0x27, 0x30, 0xC0};
        const std::string dos = one_of(names()).dos;
        switch (below(12)) {
        case 0:
        case 1:
            return deleted(short_entry(dos, one_of(attributes)));
        case 2:
            return deleted(some_slot());
        case 3:
            return short_entry(dos, LABEL);
        case 4:
            return short_entry(dos, one_in(4) ? LABEL | DIRECTORY : DIRECTORY);
        case 5:
        case 6:
        case 7:
            return short_entry(dos, one_of(attributes));
        default:
            return some_slot();
        }
    }
    // A name with its slots, intact or with one slot missing, deleted or out of order.
    std::vector<entry_image> some_long_name() {
        const wanted_name &name = one_of(names());
        std::vector<entry_image> result = long_slots(name.wide, name.dos);
        const auto slots = static_cast<u32>(result.size());
        result.push_back(short_entry(one_in(2) ? name.dos : "SHORT~1 TXT"));
        if (slots > 0) {
            const auto victim = result.begin() + below(slots);
            switch (below(6)) {
            case 0:
                result.erase(victim);
                break;
            case 1:
                *victim = deleted(*victim);
                break;
            case 2:
                std::swap(*victim, result[below(slots)]);
                break;
            case 3:
                *victim = some_slot();
                break;
            default:
                break;
            }
        }
        return result;
    }
    static entry_image with_tail(const std::string &prefix, u32 number) {
        std::string dos = prefix + "~" + std::to_string(number);
        dos.resize(11, ' ');
        return short_entry(dos);
    }
    // Short names with tails: digits after tildes in various positions.
    entry_image some_tail() {
        static const std::vector<std::string> prefixes = {"LONGFI", "LONGF", "README", "A",
                                                          "",       "AB~3",  "AB",     "LONGFILE"};
        entry_image entry = with_tail(one_of(prefixes), 1 + below(one_in(8) ? 100000 : 6));
        if (one_in(8)) {
            entry[below(11)] = static_cast<u8>(one_of<unsigned>({'x', ' ', '7', '~', 0xE5, 0x05}));
        }
        entry[12] = one_in(4) ? 0x18 : 0;
        return one_in(6) ? deleted(entry) : entry;
    }

    static model::open_chain model_chain(const directory &dir) {
        model::open_chain result = open_entry_of(dir.record);
        result.is_root = dir.base() == 0;
        return result;
    }
    void fill(directory *dir, bool with_tails) {
        for (u32 used = 0; used < dir->capacity();) {
            if (one_in(200)) {
                dir->put(used++, entry_image{});
            } else if (with_tails && !one_in(3)) {
                dir->put(used++, some_tail());
            } else if (one_in(3)) {
                dir->put(used++, some_entry());
            } else {
                for (const entry_image &entry : some_long_name()) {
                    if (used < dir->capacity()) {
                        dir->put(used++, entry);
                    }
                }
            }
        }
        if (one_in(5)) {
            v.disk.bad_sectors.insert(one_of(dir->sectors));
        }
    }

    void look_for(const directory &dir, const wanted_name &name) {
        std::string text = name.text;
        auto volume = reference();
        volume.long_names = sv->long_name == 1;
        const std::optional<int> expected = volume.find(
            dir.base(), name.dos, name.wide.empty() ? std::nullopt : std::optional(name.wide));
        const int result = find_dentry_with_clu(dir.base(), text.data(), nullptr);
        if (expected.has_value()) {
            ASSERT_EQ(result, *expected);
            ASSERT_EQ(messages.text(), volume.printed);
            outcomes_[*expected >= 0 ? "found" : std::to_string(*expected)]++;
        } else {
            ASSERT_EQ(result, -EINVAL);
            ASSERT_TRUE(ends_with(messages.text(), "):Invalid argument\n")) << messages.text();
            outcomes_["cycle"]++;
        }
    }
    // Takes the entry for the last slot of a long name, if it is a slot and no name that it may
    // begin reaches `end`.
    void put_together(directory *dir, u32 index, u32 end) {
        std::vector<u8> buffer(sv->sector_size);
        std::vector<u16> units(256, 0x7777);
        u8 *entry = nullptr;
        dentry_location place = {};
        if (fat_get_dentry(&dir->record, index, &entry, buffer.data(), &place) < 0 ||
            v.disk.bad_sectors.contains(place.sector) || entry[11] != SLOT || entry[0] == 0xE5 ||
            entry[0] == 0 || index + entry[0] >= end) {
            return;
        }
        auto volume = reference();
        u32 last = index;
        std::array<char16_t, 256> expected_units = {};
        expected_units.fill(u'\x7777');
        const int expected = volume.long_name(dir->base(), &last, &expected_units);
        ASSERT_EQ(get_long_name(&dir->record, index, &entry, buffer.data(), units.data()),
                  expected);
        ASSERT_EQ(messages.text(), volume.printed);
        if (expected >= 0) {
            ASSERT_TRUE(std::equal(units.begin(), units.end(), expected_units.begin()));
            ASSERT_EQ((entry - buffer.data()) / 32, last % volume::entries_per_sector());
        }
        outcomes_[std::to_string(expected)]++;
    }
    // Each way for a walk to end occurred many times.
    void expect_outcomes(const std::vector<std::string> &all, int times) const {
        for (const std::string &outcome : all) {
            const auto count = outcomes_.find(outcome);
            ASSERT_NE(count, outcomes_.end()) << outcome << " never happened";
            EXPECT_GE(count->second, times) << outcome;
        }
    }

    std::map<std::string, int> outcomes_;
};

INSTANTIATE_TEST_SUITE_P(Shapes, RandomChains, testing::ValuesIn(RANDOM_SHAPES), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, RandomDirectories, testing::ValuesIn(RANDOM_SHAPES), shape_name);

} // namespace

TEST_P(RandomChains, SectorsAreThoseOfTheReferenceModel) {
    std::map<int, int> results;
    for (int i = 0; i < 2000; i++) {
        SCOPED_TRACE("chain " + std::to_string(i));
        start_over();
        const std::vector<u32> clusters = some_directory(30);
        const u32 base = clusters.empty() ? 0
                         : one_in(10)     ? below(sv->num_clusters + 4)
                                          : clusters.front();
        auto volume = reference();
        bool is_cycle = false;
        const auto length = static_cast<u32>(volume.clusters_of(base, &is_cycle).size());
        for (int k = 0; k < 6; k++) {
            const u32 index =
                one_in(8) ? static_cast<u32>(chance()) : below((length + 3) * sv->sec_per_clus);
            const u32 link = index / sv->sec_per_clus;
            u32 sector = 0;
            messages.clear();
            volume.printed.clear();
            if (is_cycle && link >= length) {
                // A few rounds may pass before the cycle is noticed.
                const int result = get_phy_sector(base, index, &sector);
                u32 expected_sector = 0;
                ASSERT_TRUE(result == -EINVAL || (result == 0 && link <= 4 * (length + 1)));
                if (result == 0) {
                    ASSERT_EQ(volume.locate(base, index, &expected_sector), 0);
                    ASSERT_EQ(sector, expected_sector);
                }
                results[1]++;
                continue;
            }
            u32 expected_sector = 0;
            const int expected = volume.locate(base, index, &expected_sector);
            ASSERT_EQ(get_phy_sector(base, index, &sector), expected);
            ASSERT_EQ(sector, expected_sector);
            ASSERT_EQ(messages.text(), volume.printed);
            results[expected]++;
        }
    }
    for (const int result : {0, 1, -EFAULT, -EINVAL}) {
        EXPECT_GE(results[result], 100) << result;
    }
}

TEST_P(RandomChains, FreeClustersAreThoseOfTheReferenceModel) {
    std::map<int, int> results;
    for (int i = 0; i < 1500; i++) {
        SCOPED_TRACE("stretch " + std::to_string(i));
        start_over();
        const bool is_at_the_end = one_in(10);
        const u32 length = 1 + below(one_in(10) ? 600 : 40);
        const u32 first =
            is_at_the_end ? sv->num_clusters + 2 - length : below(sv->num_clusters - length);
        for (u32 c = std::max(first, 2U); c < first + length; c++) {
            if (!one_in(60)) {
                set_link(c, one_in(80)  ? some_value_that_is_no_link()
                            : one_in(2) ? some_end_mark()
                                        : 2 + below(sv->num_clusters));
            }
        }
        if (one_in(8)) {
            v.disk.bad_sectors.insert(volume::fat_sector_of(first + below(length)));
        }
        const u32 last = first + below(length + 3);
        auto volume = reference();
        const int expected = volume.find_free(first, last);
        ASSERT_EQ(fat_free_clus(first, last), expected);
        ASSERT_EQ(messages.text(), volume.printed);
        results[expected > 0 ? 0 : expected]++;
    }
    for (const int result : {0, -ENOENT, -EINVAL, -EIO}) {
        EXPECT_GE(results[result], 30) << result;
    }
}

TEST_P(RandomDirectories, LookupsAreThoseOfTheReferenceModel) {
    for (int i = 0; i < 600; i++) {
        SCOPED_TRACE("directory " + std::to_string(i));
        start_over();
        const std::vector<u32> clusters = some_directory(one_in(10) ? 40 : 8);
        bool is_cycle = false;
        if (!clusters.empty()) {
            (void)reference().clusters_of(clusters.front(), &is_cycle);
        }
        directory dir(&v, clusters, clusters.empty());
        fill(&dir, false);
        sv->long_name = one_in(8) ? 0 : 1;
        for (const wanted_name &name : is_cycle ? absent_names() : names()) {
            ASSERT_NO_FATAL_FAILURE(look_for(dir, name)) << name.text;
        }
        for (const wanted_name &name : absent_names()) {
            ASSERT_NO_FATAL_FAILURE(look_for(dir, name)) << name.text;
        }
    }
    expect_outcomes(
        {"found", "cycle", std::to_string(-ENOENT), std::to_string(-EINVAL), std::to_string(-EIO)},
        20);
}

TEST_P(RandomDirectories, LongNamesAreThoseOfTheReferenceModel) {
    for (int i = 0; i < 800; i++) {
        SCOPED_TRACE("directory " + std::to_string(i));
        start_over();
        const std::vector<u32> clusters = some_directory(6);
        bool is_cycle = false;
        const u32 readable =
            clusters.empty()
                ? 0xFFFFFFFF
                : static_cast<u32>(reference().clusters_of(clusters.front(), &is_cycle).size()) *
                      volume::entries_per_cluster();
        directory dir(&v, clusters, clusters.empty());
        fill(&dir, false);
        for (u32 index = 0; index < std::min(dir.capacity(), readable); index++) {
            const u32 end = is_cycle ? readable : 0xFFFFFFFF;
            ASSERT_NO_FATAL_FAILURE(put_together(&dir, index, end)) << "entry " << index;
        }
    }
    expect_outcomes({"0", "1", "2", "3", std::to_string(-EINVAL), std::to_string(-EIO)}, 3);
}

TEST_P(RandomDirectories, NumericTailsAreThoseOfTheReferenceModel) {
    static const std::vector<std::string> short_names = {
        "LONGFILETXT", "README  TXT", "A          ", "AB~3       ", "LONGF   TXT", "ABCDEFGHI  "};
    for (int i = 0; i < 600; i++) {
        SCOPED_TRACE("directory " + std::to_string(i));
        start_over();
        const std::vector<u32> clusters = some_directory(8);
        directory dir(&v, clusters, clusters.empty());
        fill(&dir, true);
        if (one_in(4)) {
            dir.record.allocated =
                one_of<u32>({0, 31, 32, 700, dir.capacity() * 32 + 4096, 0x00100000});
        }
        for (const std::string &name : short_names) {
            auto volume = reference();
            std::string expected_name = name;
            std::string dos = name;
            const std::optional<int> expected =
                volume.add_numeric_tail(model_chain(dir), &expected_name);
            const int result = add_numeric_tail(&dir.record, reinterpret_cast<u8 *>(dos.data()));
            if (!expected.has_value()) {
                // A few rounds may pass before the cycle is noticed.
                const bool may_end = dir.record.allocated / 32 <= 4 * (dir.capacity() + 1);
                ASSERT_TRUE(result == -EINVAL || (may_end && result == 0)) << result;
                outcomes_["cycle"]++;
                continue;
            }
            ASSERT_EQ(result, *expected);
            ASSERT_EQ(dos, expected_name);
            ASSERT_EQ(messages.text(), volume.printed);
            outcomes_[std::to_string(*expected)]++;
        }
    }
    expect_outcomes({"0", "cycle", std::to_string(-EINVAL), std::to_string(-EIO)}, 10);
}
