// Addressing of directory entries: from an index to a sector and an offset, reading the sector of
// an entry, the units of a long-name slot.

#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/volume.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

// The position of a sector, or the reason why it was not found.
struct place {
    int result;
    u32 sector;
    std::string messages;
    bool operator==(const place &) const = default;
};
std::ostream &operator<<(std::ostream &out, const place &p) {
    return out << p.result << ", sector " << p.sector << ", \"" << p.messages << "\"";
}

constexpr u32 UNTOUCHED = 0xDEADBEEF;

class any_shape : public testing::TestWithParam<volume_shape> {
protected:
    static place found(u32 sector) {
        return {0, sector, ""};
    }
    static place failed(int result, std::string message) {
        return {result, UNTOUCHED, std::move(message)};
    }
    // The failure for an invalid link of the chain.
    static place bad_link(const std::string &reason, int value) {
        return failed(-EINVAL,
                      reason + "get_phy_sector[N]: invalid value " + std::to_string(value) + "\n");
    }

    place phy_sector(u32 base, u32 index) {
        place p{0, UNTOUCHED, ""};
        p.result = get_phy_sector(base, index, &p.sector);
        p.messages = messages.text();
        messages.clear();
        return p;
    }
    place phy_sector_by_offset(u32 base, u32 offset) {
        place p{0, UNTOUCHED, ""};
        p.result = get_phy_sector_by_offset(base, offset, &p.sector);
        p.messages = messages.text();
        messages.clear();
        return p;
    }
    place entry_sector(u32 base, u32 index) {
        place p{0, UNTOUCHED, ""};
        p.result = get_entry_sector(base, index, &p.sector);
        p.messages = messages.text();
        messages.clear();
        return p;
    }

    std::vector<transfer> transfers() {
        return std::exchange(v.disk.log, {});
    }
    [[nodiscard]] static u32 entries_per_fat_sector() {
        return sv->sector_size / (sv->fat_type / 8);
    }

    volume v{GetParam()};
    diagnostics messages;
    const u32 spc = sv->sec_per_clus;
};

class GetPhySector : public any_shape {};
class GetEntrySector : public any_shape {};
class Fat16Root : public any_shape {};
class Fat32Root : public any_shape {};

INSTANTIATE_TEST_SUITE_P(Shapes, GetPhySector, testing::ValuesIn(many_shapes()), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, GetEntrySector, testing::ValuesIn(many_shapes()), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, Fat16Root, testing::ValuesIn(many_shapes(16)), shape_name);
INSTANTIATE_TEST_SUITE_P(Shapes, Fat32Root, testing::ValuesIn(many_shapes(32)), shape_name);

const std::string INVALID_ARG = "fat_read_clus[N]: Invalid arg!\n\n";
const std::string INVALID_CLUSTER = "fat_read_clus[N]: Invalid cluster!\n\n";

} // namespace

// ---- sectors of a chain -----------------------------------------------------------------------

TEST_P(GetPhySector, FirstClusterNeedsNoLink) {
    for (u32 r = 0; r < spc; r++) {
        EXPECT_EQ(phy_sector(5, r), found(sv->data_start + 3 * spc + r));
    }
    EXPECT_EQ(phy_sector(2, 0), found(sv->data_start));
    EXPECT_EQ(phy_sector(volume::last_cluster(), spc - 1),
              found(sv->data_start + sv->num_clusters * spc - 1));
    EXPECT_TRUE(transfers().empty());
}

TEST_P(GetPhySector, SectorsContinueInTheNextClusterOfTheChain) {
    v.chain({5, 9, 7, volume::last_cluster(), 2});
    for (const u32 r : {0U, spc / 2, spc - 1}) {
        EXPECT_EQ(phy_sector(5, 1 * spc + r), found(sv->data_start + 7 * spc + r));
        EXPECT_EQ(phy_sector(5, 2 * spc + r), found(sv->data_start + 5 * spc + r));
        EXPECT_EQ(phy_sector(5, 3 * spc + r),
                  found(sv->data_start + (sv->num_clusters - 1) * spc + r));
        EXPECT_EQ(phy_sector(5, 4 * spc + r), found(sv->data_start + r));
        EXPECT_EQ(phy_sector(7, 1 * spc + r),
                  found(sv->data_start + (sv->num_clusters - 1) * spc + r));
    }
}

TEST_P(GetPhySector, ThirdClusterFollowsTheChainTwice) {
    const u32 far = entries_per_fat_sector() + 5;
    v.chain({5, far, 7, far + 1});
    EXPECT_EQ(phy_sector(5, 2 * spc), found(sv->data_start + 5 * spc));
    EXPECT_EQ(transfers(), (std::vector<transfer>{{false, volume::fat_sector_of(5), 1},
                                                  {false, volume::fat_sector_of(far), 1}}));
}

TEST_P(GetPhySector, FatSectorIsReadOnceWhileTheChainStaysInIt) {
    std::vector<u32> clusters;
    for (u32 i = 0; i < 20; i++) {
        clusters.push_back(50 - i);
    }
    v.chain(clusters);
    EXPECT_EQ(phy_sector(50, 19 * spc), found(volume::first_sector_of(31)));
    EXPECT_EQ(transfers(), (std::vector<transfer>{{false, volume::fat_sector_of(50), 1}}));
}

TEST_P(GetPhySector, EndOfTheChainIsTheEndOfTheSpace) {
    v.chain({5, 9, 7});
    for (u32 mark = volume::first_end_mark(); mark <= volume::end_mark(); mark++) {
        v.set_link(7, mark);
        EXPECT_EQ(phy_sector(5, 3 * spc - 1), found(volume::first_sector_of(7) + spc - 1));
        EXPECT_EQ(phy_sector(5, 3 * spc), failed(-EFAULT, ""));
        EXPECT_EQ(phy_sector(5, 4 * spc - 1), failed(-EFAULT, ""));
        EXPECT_EQ(phy_sector(7, spc), failed(-EFAULT, ""));
    }
}

TEST_P(GetPhySector, EndMarkOnTheWayIsNotACluster) {
    v.chain({5, 9, 7});
    const place refusal = bad_link(INVALID_ARG, -EINVAL);
    EXPECT_EQ(phy_sector(5, 4 * spc), refusal);
    EXPECT_EQ(phy_sector(7, 2 * spc), refusal);
    EXPECT_EQ(phy_sector(5, 0xFFFFFFFF), refusal);
}

TEST_P(GetPhySector, ArrivingAtAFreeEntryIsAnInvalidValue) {
    v.chain({5, 9, 7});
    v.set_link(7, 0);
    EXPECT_EQ(phy_sector(5, 2 * spc), found(volume::first_sector_of(7)));
    EXPECT_EQ(phy_sector(5, 3 * spc), bad_link("", 0));
}

TEST_P(GetPhySector, FreeEntryOnTheWayIsNotACluster) {
    v.chain({5, 9, 7});
    v.set_link(7, 0);
    EXPECT_EQ(phy_sector(5, 4 * spc), bad_link(INVALID_ARG, -EINVAL));
    EXPECT_EQ(phy_sector(5, 0xFFFFFFFF), bad_link(INVALID_ARG, -EINVAL));
}

TEST_P(GetPhySector, InvalidLinksEndTheChain) {
    v.chain({5, 9, 7});
    for (const u32 value : {1U, sv->num_clusters + 2, volume::bad_mark()}) {
        v.set_link(9, value);
        EXPECT_EQ(phy_sector(5, spc), found(volume::first_sector_of(9)));
        EXPECT_EQ(phy_sector(5, 2 * spc), bad_link(INVALID_CLUSTER, -EINVAL));
        EXPECT_EQ(phy_sector(5, 9 * spc), bad_link(INVALID_CLUSTER, -EINVAL));
    }
}

TEST_P(GetPhySector, FailingReadOfTheFatIsAnInvalidValueToo) {
    v.chain({5, 9, 7});
    for (const int moved : {-1, -5, 0, 2}) {
        v.disk.reads_before_failure = 0;
        v.disk.failure_result = moved;
        EXPECT_EQ(phy_sector(5, spc), bad_link("fat_read_entry[N]: cannot read FAT\n\n", -EIO));
    }
}

TEST_P(GetPhySector, ChainIsFollowedAgainByEveryCall) {
    v.chain({5, 9, 7});
    EXPECT_EQ(phy_sector(5, spc), found(volume::first_sector_of(9)));
    v.set_link(5, 8);
    EXPECT_EQ(phy_sector(5, spc), found(volume::first_sector_of(8)));
}

TEST_P(GetPhySector, StateOfTheFirstClusterDoesNotMatterInsideIt) {
    for (const u32 value : {0U, 1U, volume::bad_mark(), volume::end_mark()}) {
        v.set_link(5, value);
        EXPECT_EQ(phy_sector(5, spc - 1), found(volume::first_sector_of(5) + spc - 1));
    }
}

TEST_P(GetPhySector, ClustersPastTheVolumeAreRefused) {
    for (const u32 base : {sv->num_clusters + 2, sv->num_clusters + 3, volume::bad_mark(),
                           volume::end_mark(), 0x80000005U, 0xFFFFFFFFU}) {
        EXPECT_EQ(phy_sector(base, 0),
                  failed(-EINVAL, "get_phy_sector[N]: NULL pointer or invalid xxx!\n\n"));
    }
}

TEST_P(GetPhySector, ClusterOneIsNoStart) {
    const place refusal = failed(-EINVAL, "get_phy_sector[N]: invalid start cluster number 1\n");
    EXPECT_EQ(phy_sector(1, 0), refusal);
    EXPECT_EQ(phy_sector(1, 0xFFFFFFFF), refusal);
    EXPECT_TRUE(transfers().empty());
}

// ---- the fixed root area ----------------------------------------------------------------------

TEST_P(Fat16Root, SectorsOfItsAreaFollowOneAnother) {
    for (u32 n = 0; n < sv->data_start - sv->rdir_start; n++) {
        EXPECT_EQ(phy_sector(0, n), found(sv->rdir_start + n));
    }
    EXPECT_TRUE(transfers().empty());
}

TEST_P(Fat16Root, SectorsEndWhereTheDataBegin) {
    const place end = failed(-EFAULT, "get_phy_sector[N]: Invalid sector number in Root dir\n\n");
    const u32 area = sv->data_start - sv->rdir_start;
    for (const u32 n :
         {area, area + 1, 0x7FFFFFFFU, 0x80000000U, 0U - sv->rdir_start, 0xFFFFFFFFU}) {
        EXPECT_EQ(phy_sector(0, n), end) << "sector " << n;
    }
}

TEST_P(Fat16Root, LastEntryOfTheAreaIsThere) {
    std::vector<u8> buffer(sv->sector_size);
    u8 *entry = nullptr;
    directory root = v.root();
    root.put(511, short_entry("LAST    TXT"));
    EXPECT_EQ(fat_get_dentry(&root.record, 511, &entry, buffer.data(), nullptr), 0);
    EXPECT_EQ(entry, buffer.data() + sv->sector_size - 32);
    EXPECT_EQ(entry[0], 'L');
}

TEST_P(Fat16Root, EntryWhoseSectorReachesTheDataArea) {
    std::vector<u8> buffer(sv->sector_size);
    u8 *entry = nullptr;
    EXPECT_EQ(get_dentry_with_clu(0, 512, &entry, buffer.data(), nullptr), -EFAULT);
    EXPECT_EQ(messages.text(), "get_phy_sector[N]: Invalid sector number in Root dir\n\n"
                               "get_dentry_with_clu[N]: Failed to get entry sector!:(0, 512)\n\n");
    EXPECT_EQ(entry, nullptr);
    EXPECT_TRUE(transfers().empty());
}

TEST_P(Fat32Root, HasNoFixedArea) {
    EXPECT_EQ(phy_sector(0, 0),
              failed(-EINVAL, "get_phy_sector[N]: invalid start cluster number 0\n"));
    EXPECT_EQ(phy_sector(0, 0xFFFFFFFF),
              failed(-EINVAL, "get_phy_sector[N]: invalid start cluster number 0\n"));
    EXPECT_EQ(entry_sector(0, 5),
              failed(-EINVAL, "get_phy_sector[N]: invalid start cluster number 0\n"));
}

TEST_P(Fat32Root, TopBitsOfItsLinksAreIgnored) {
    v.set_link(5, 0xF0000009);
    v.set_link(9, 0xAFFFFFF8);
    EXPECT_EQ(phy_sector(5, spc), found(volume::first_sector_of(9)));
    EXPECT_EQ(phy_sector(5, 2 * spc), failed(-EFAULT, ""));
}

// ---- entries and bytes ------------------------------------------------------------------------

TEST_P(GetEntrySector, EntriesFillOneSectorAfterTheOther) {
    const u32 per_sector = sv->sector_size / 32;
    v.chain({5, 9, 7});
    EXPECT_EQ(entry_sector(5, 0), found(volume::first_sector_of(5)));
    EXPECT_EQ(entry_sector(5, per_sector - 1), found(volume::first_sector_of(5)));
    EXPECT_EQ(entry_sector(5, per_sector),
              found(spc > 1 ? volume::first_sector_of(5) + 1 : volume::first_sector_of(9)));
    EXPECT_EQ(entry_sector(5, per_sector * spc - 1), found(volume::first_sector_of(5) + spc - 1));
    EXPECT_EQ(entry_sector(5, per_sector * spc), found(volume::first_sector_of(9)));
    EXPECT_EQ(entry_sector(5, per_sector * spc * 3 - 1),
              found(volume::first_sector_of(7) + spc - 1));
    EXPECT_EQ(entry_sector(5, per_sector * spc * 3), failed(-EFAULT, ""));
}

TEST_P(GetEntrySector, BytesFillOneSectorAfterTheOther) {
    const u32 size = sv->sector_size;
    v.chain({5, 9, 7});
    EXPECT_EQ(phy_sector_by_offset(5, 0), found(volume::first_sector_of(5)));
    EXPECT_EQ(phy_sector_by_offset(5, size - 1), found(volume::first_sector_of(5)));
    EXPECT_EQ(phy_sector_by_offset(5, size * spc - 1), found(volume::first_sector_of(5) + spc - 1));
    EXPECT_EQ(phy_sector_by_offset(5, size * spc), found(volume::first_sector_of(9)));
    EXPECT_EQ(phy_sector_by_offset(5, size * spc * 3 - 1),
              found(volume::first_sector_of(7) + spc - 1));
    EXPECT_EQ(phy_sector_by_offset(5, size * spc * 3), failed(-EFAULT, ""));
    EXPECT_EQ(phy_sector_by_offset(5, 0xFFFFFFFF), bad_link(INVALID_ARG, -EINVAL));
}

TEST_P(GetEntrySector, RefusalsAreThoseOfTheSector) {
    const place refusal = failed(-EINVAL, "get_phy_sector[N]: NULL pointer or invalid xxx!\n\n");
    EXPECT_EQ(entry_sector(0xFFFFFFFF, 0), refusal);
    EXPECT_EQ(phy_sector_by_offset(0xFFFFFFFF, 0), refusal);
}

TEST_P(Fat16Root, HugeIndexesDoNotWrapToItsBeginning) {
    const place end = failed(-EFAULT, "get_phy_sector[N]: Invalid sector number in Root dir\n\n");
    for (const u32 index : {0x08000000U, 0x10000001U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(entry_sector(0, index), end) << "entry " << index;
    }
}

// ---- reading the sector of an entry -----------------------------------------------------------

namespace {

class GetDentryWithClu : public any_shape {
protected:
    GetDentryWithClu() {
        for (u32 i = 0; i < dir.capacity(); i++) {
            entry_image image = {};
            image.fill(static_cast<u8>(i / volume::entries_per_sector() * 16 + i % 16));
            dir.put(i, image);
        }
        transfers();
    }
    int get(u32 base, u32 index) {
        return get_dentry_with_clu(base, index, &entry, buffer.data(), &location);
    }
    std::string heard() {
        const std::string text = messages.text();
        messages.clear();
        return text;
    }
    // Checks that no entry was returned.
    void expect_untouched() const {
        EXPECT_EQ(entry, nullptr);
        EXPECT_EQ(location.sector, UNTOUCHED);
        EXPECT_EQ(location.offset, UNTOUCHED);
    }

    directory dir = v.sub_directory({5, 9, 7});
    std::vector<u8> buffer = std::vector<u8>(sv->sector_size);
    u8 *entry = nullptr;
    dentry_location location = {UNTOUCHED, UNTOUCHED};
};

INSTANTIATE_TEST_SUITE_P(Shapes, GetDentryWithClu,
                         testing::Values(volume_shape{16, 512, 1}, volume_shape{16, 4096, 2},
                                         volume_shape{32, 512, 4}, volume_shape{32, 1024, 1},
                                         volume_shape{32, 4096, 1}),
                         shape_name);

} // namespace

TEST_P(GetDentryWithClu, EveryEntryOfEveryClusterIsWhereItLies) {
    for (u32 i = 0; i < dir.capacity(); i++) {
        ASSERT_EQ(get(5, i), 0);
        const u32 offset = i * 32 % sv->sector_size;
        ASSERT_EQ(entry, buffer.data() + offset);
        ASSERT_EQ(location.offset, offset);
        ASSERT_EQ(location.sector, dir.sectors[i * 32 / sv->sector_size]);
        const entry_image image = dir.at(i);
        ASSERT_TRUE(std::equal(image.begin(), image.end(), entry));
    }
    EXPECT_EQ(heard(), "");
}

TEST_P(GetDentryWithClu, WholeSectorIsLeftInTheBuffer) {
    ASSERT_EQ(get(5, 3), 0);
    EXPECT_EQ(buffer,
              v.disk.peek(u64{volume::first_sector_of(5)} * sv->sector_size, sv->sector_size));
    EXPECT_EQ(transfers(), (std::vector<transfer>{{false, volume::first_sector_of(5), 1}}));
}

TEST_P(GetDentryWithClu, LocationIsOptional) {
    ASSERT_EQ(get_dentry_with_clu(5, 1, &entry, buffer.data(), nullptr), 0);
    EXPECT_EQ(entry, buffer.data() + 32);
}

// damaged_directory_test has the cases of damaged chains.
TEST_P(GetDentryWithClu, MissingSectorIsReportedWithClusterAndIndex) {
    EXPECT_EQ(get(5, 0xFFFFFFFF), -EINVAL);
    EXPECT_EQ(heard(), INVALID_ARG +
                           "get_phy_sector[N]: invalid value -22\n"
                           "get_dentry_with_clu[N]: Failed to get entry sector!:(5, -1)\n\n");
    EXPECT_EQ(get(5, dir.capacity()), -EFAULT);
    EXPECT_TRUE(heard().starts_with("get_dentry_with_clu"));
    expect_untouched();
}

TEST_P(GetDentryWithClu, NegativeResultOfTheReadFails) {
    for (const int moved : {-1, -5, -22, -28}) {
        v.disk.reads_before_failure = 0;
        v.disk.failure_result = moved;
        EXPECT_EQ(get(5, 3), -EIO) << moved;
        EXPECT_EQ(heard(), "get_dentry_with_clu[N]: cannot read sectors:(sector: " +
                               std::to_string(volume::first_sector_of(5)) + ")\n");
    }
    expect_untouched();
}

TEST_P(GetDentryWithClu, AnyOtherResultOfTheReadIsTaken) {
    for (const int moved : {0, 1, 2, 1000}) {
        v.disk.reads_before_failure = 0;
        v.disk.failure_result = moved;
        entry = nullptr;
        EXPECT_EQ(get(5, 3), 0) << moved;
        EXPECT_EQ(entry, buffer.data() + 96);
        EXPECT_EQ(location.sector, volume::first_sector_of(5));
    }
    EXPECT_EQ(heard(), "");
}

TEST_P(GetDentryWithClu, SectorIsReadAgainByEveryCall) {
    ASSERT_EQ(get(5, 0), 0);
    dir.put(1, short_entry("CHANGED    "));
    ASSERT_EQ(get(5, 1), 0);
    EXPECT_EQ(entry[0], 'C');
}

// ---- entries of an open directory -------------------------------------------------------------

namespace {

class FatGetDentry : public any_shape {
protected:
    int get(directory &dir, u32 index) {
        return fat_get_dentry(&dir.record, index, &entry, buffer.data(), &location);
    }
    void expect_out_of_range(directory &dir, u32 index) {
        transfers();
        EXPECT_EQ(get(dir, index), -EFAULT) << "index " << index;
        EXPECT_EQ(messages.text(),
                  "fat_get_dentry[N]: access the out of range in directory space\n");
        messages.clear();
        EXPECT_TRUE(transfers().empty());
        EXPECT_EQ(entry, nullptr);
    }
    void expect_at(directory &dir, u32 index, u32 sector) {
        EXPECT_EQ(get(dir, index), 0) << "index " << index;
        EXPECT_EQ(location.sector, sector);
        EXPECT_EQ(location.offset, index * 32 % sv->sector_size);
        EXPECT_EQ(messages.text(), "");
        entry = nullptr;
    }

    std::vector<u8> buffer = std::vector<u8>(sv->sector_size);
    u8 *entry = nullptr;
    dentry_location location = {};
};

INSTANTIATE_TEST_SUITE_P(Shapes, FatGetDentry, testing::ValuesIn(many_shapes()), shape_name);

} // namespace

TEST_P(FatGetDentry, SubDirectoryBeginsAtItsCluster) {
    directory dir = v.sub_directory({5, 9, 7});
    expect_at(dir, 0, volume::first_sector_of(5));
    expect_at(dir, volume::entries_per_cluster() * 2, volume::first_sector_of(7));
    expect_at(dir, dir.capacity() - 1, volume::first_sector_of(7) + spc - 1);
}

TEST_P(FatGetDentry, RootBeginsWhereTheWidthPutsIt) {
    directory root = v.root();
    expect_at(root, 0, sv->rdir_start);
    expect_at(root, root.capacity() - 1, root.sectors.back());
}

TEST_P(FatGetDentry, IndexesFromTheAllocatedSizeOnAreOutOfRange) {
    directory dir = v.sub_directory({5, 9, 7});
    for (const u32 index : {dir.capacity(), dir.capacity() + 1, 0x08000000U, 0xFFFFFFFFU}) {
        expect_out_of_range(dir, index);
    }
    directory root = v.root();
    for (const u32 index : {root.record.allocated / 32, 0x08000000U, 0xFFFFFFFFU}) {
        expect_out_of_range(root, index);
    }
}

TEST_P(FatGetDentry, AllocatedSizeBoundsNotTheChain) {
    directory dir = v.sub_directory({5, 9, 7});
    dir.record.allocated = 3 * 32 + 31;
    expect_at(dir, 2, volume::first_sector_of(5));
    expect_out_of_range(dir, 3);
    dir.record.allocated = 0;
    expect_out_of_range(dir, 0);
    // If the size is larger than the chain, the end of the chain limits the index.
    dir.record.allocated = 0xFFFFFFFF;
    const u32 capacity = dir.capacity();
    EXPECT_EQ(get(dir, capacity), -EFAULT);
    EXPECT_EQ(messages.text(), "get_dentry_with_clu[N]: Failed to get entry sector!:(5, " +
                                   std::to_string(capacity) + ")\n\n");
}

TEST(FatGetDentryOfAnOddRoot, LargeAreaIsSeenUpToTheAllocatedSize) {
    volume v({.root_entries = 1024});
    directory root = v.root();
    std::vector<u8> buffer(512);
    u8 *entry = nullptr;
    diagnostics messages;
    EXPECT_EQ(fat_get_dentry(&root.record, 511, &entry, buffer.data(), nullptr), 0);
    EXPECT_EQ(fat_get_dentry(&root.record, 512, &entry, buffer.data(), nullptr), -EFAULT);
    EXPECT_EQ(messages.text(), "fat_get_dentry[N]: access the out of range in directory space\n");
}

// ---- the number of entries --------------------------------------------------------------------

TEST(DirEntryCount, Fat16RootHas512WhateverItsArea) {
    for (const u32 entries : {64U, 512U, 1024U}) {
        volume v({.root_entries = entries});
        directory root = v.root();
        EXPECT_EQ(dir_entry_count(&root.record), 512U);
        root.record.allocated = 64;
        EXPECT_EQ(dir_entry_count(&root.record), 512U);
    }
}

TEST(DirEntryCount, OtherDirectoriesHaveWhatIsAllocated) {
    for (const u32 fat_type : {16U, 32U}) {
        volume v({.fat_type = fat_type, .sec_per_clus = 4});
        directory dir = fat_type == 16 ? v.sub_directory({5, 9, 7}) : v.longer_root({9, 7});
        for (const auto &[allocated, count] : {std::pair{dir.record.allocated, 3 * 4 * 16U},
                                               {95U, 2U},
                                               {0U, 0U},
                                               {0xFFFFFFFFU, 0x07FFFFFFU}}) {
            dir.record.allocated = allocated;
            EXPECT_EQ(dir_entry_count(&dir.record), count);
        }
    }
}

// ---- units of a long-name slot ----------------------------------------------------------------

namespace {

// The units that a slot stores into a buffer of 0x7777.
std::u16string chars_of(const entry_image &slot) {
    u16 units[16];
    std::fill(std::begin(units), std::end(units), u16{0x7777});
    EXPECT_EQ(get_lfn_chars(slot.data(), units), 0);
    std::u16string result;
    for (const u16 unit : units) {
        if (unit != 0x7777) {
            result += static_cast<char16_t>(unit);
        }
    }
    for (std::size_t i = result.size(); i < 16; i++) {
        EXPECT_EQ(units[i], 0x7777) << "unit " << i;
    }
    return result;
}

const std::u16string THIRTEEN = u"ABCDEFGHIJKLM";

} // namespace

TEST(GetLfnChars, UnitsComeFromTheThreePartsOfTheSlot) {
    entry_image slot;
    for (std::size_t i = 0; i < slot.size(); i++) {
        slot[i] = static_cast<u8>(0x40 + i);
    }
    slot[0] = 1;
    EXPECT_EQ(chars_of(slot), u"\x4241\x4443\x4645\x4847\x4A49\x4F4E\x5150\x5352\x5554\x5756"
                              u"\x5958\x5D5C\x5F5E");
}

TEST(GetLfnChars, TerminatorIsCopiedAndEndsTheCopy) {
    for (std::size_t length = 0; length < 13; length++) {
        const std::u16string name = THIRTEEN.substr(0, length);
        EXPECT_EQ(chars_of(long_slot(0x41, name, 0)), name + u'\0');
        EXPECT_EQ(chars_of(long_slot(0x01, name, 0)), name + u'\0');
    }
}

TEST(GetLfnChars, FullSlotIsTerminatedFromOrdinal41On) {
    for (const unsigned ordinal :
         {0x00U, 0x01U, 0x13U, 0x3FU, 0x40U, 0x41U, 0x42U, 0x54U, 0x7FU, 0x80U, 0xC1U, 0xFFU}) {
        EXPECT_EQ(chars_of(long_slot(ordinal, THIRTEEN, 0)),
                  ordinal > 0x40 ? THIRTEEN + u'\0' : THIRTEEN)
            << "ordinal " << ordinal;
    }
    // Padding is copied like characters; nothing is read past a terminator in the middle.
    const std::u16string odd = u"A\xFFFF\xFFFF"
                               u"B";
    const std::u16string filling(13, u'\xFFFF');
    EXPECT_EQ(chars_of(long_slot(1, odd, 0)), odd + u'\0');
    EXPECT_EQ(chars_of(long_slot(0x41, filling, 0)), filling + u'\0');
    std::u16string units = THIRTEEN;
    units[6] = 0;
    EXPECT_EQ(chars_of(long_slot(0x41, units, 0)), THIRTEEN.substr(0, 6) + u'\0');
}
