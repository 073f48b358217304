// Closing a volume: closed descriptors, freed memory, and cutting an image after its last cluster.

#include "tests/support/every_fault.h"
#include "tests/support/rows.h"
#include "tests/support/volume_fixture.h"

#include <array>
#include <filesystem>

using namespace fat;
using namespace testing_support;

namespace {

// An open entry on the heap, with or without a copy of its directory entry.
oentry *make_entry(bool has_dentry) {
    auto *entry = static_cast<oentry *>(std::calloc(1, sizeof(oentry)));
    if (has_dentry) {
        entry->dentry = static_cast<u8 *>(std::calloc(1, DENTRY_SIZE));
    }
    return entry;
}

void put_entry(u32 id, oentry *entry) {
    oentry_table[id] = entry;
    oentry_map[id / 32] |= 1U << id % 32;
}

bool no_entry_is_open() {
    return std::all_of(std::begin(oentry_table), std::end(oentry_table),
                       [](const oentry *entry) { return entry == nullptr; }) &&
           std::all_of(std::begin(oentry_map), std::end(oentry_map),
                       [](u32 word) { return word == 0; });
}

int transfers = 0;
int stubborn_result = 0;

int stubborn_read(void *, u64, u32) {
    return stubborn_result;
}

int counting_read(void *buf, u64 sector, u32 count) {
    transfers++;
    return file_read_sectors(buf, sector, count);
}

// The volume of every case: a small FAT16 volume with hand-made geometry.
//
//   sector 0      boot sector, left zero
//   sectors 1-2   the FAT, 256 entries in each sector
//   sector 3      data, 2 sectors for each cluster
class VolumeRelease : public volume_test {
protected:
    static constexpr u32 SECTOR = 512;
    static constexpr u32 FAT_START = 1;
    static constexpr u32 DATA_START = 3;
    static constexpr u32 CLUSTER_SECTORS = 2;

    void open_image(u32 clusters, u32 hint) {
        path = scratch.sparse_file("image",
                                   u64{SECTOR} * (DATA_START + u64{clusters} * CLUSTER_SECTORS));
        ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
        sv->fat_type = 16;
        sv->fat_size = DATA_START - FAT_START;
        sv->sector_size = SECTOR;
        sv->sec_per_clus = CLUSTER_SECTORS;
        sv->num_clusters = clusters;
        sv->total_sectors = DATA_START + clusters * CLUSTER_SECTORS;
        sv->fat_start = FAT_START;
        sv->data_start = DATA_START;
        sv->last_alloc_clus = hint;
    }

    // Puts a value into the FAT on the medium, past the library.
    static void link(u32 cluster, u32 value) {
        std::array<u8, 4> entry = {};
        const u32 width = sv->fat_type / 8;
        store32(entry.data(), value);
        ASSERT_EQ(pwrite(sv->fd, entry.data(), width,
                         static_cast<off_t>(sv->fat_start * sv->sector_size + cluster * width)),
                  static_cast<ssize_t>(width));
    }

    [[nodiscard]] u64 length() const {
        return std::filesystem::file_size(path);
    }

    // Bytes up to the end of a cluster.
    static u64 end_of(u32 cluster) {
        return u64{SECTOR} * (DATA_START + u64{cluster - 1} * CLUSTER_SECTORS);
    }

    static std::string heading(u32 hint, u32 clusters) {
        return "fat_release_volume[N]: compaction\n\n"
               "fat_release_volume[N]: last allocated cluster: " +
               std::to_string(hint) + " / " + std::to_string(clusters + 2) + "\n";
    }

    void expect_closed() {
        EXPECT_EQ(sv, nullptr);
        EXPECT_TRUE(left_open().empty());
        EXPECT_TRUE(no_entry_is_open());
    }

    // Checks the volume after a failed compaction: open, without open entries, at its full length.
    void expect_still_open(u64 full_length) {
        ASSERT_NE(sv, nullptr);
        EXPECT_EQ(left_open(), std::vector<int>{sv->fd});
        EXPECT_TRUE(no_entry_is_open());
        EXPECT_EQ(sv->root_dir, nullptr);
        EXPECT_EQ(sv->current_dir, nullptr);
        EXPECT_EQ(length(), full_length);
    }

    std::string path;
};

class Compaction : public VolumeRelease {};

} // namespace

// ---- closing ----------------------------------------------------------------------------------

TEST_F(VolumeRelease, ClosesTheTargetAndForgetsTheRecord) {
    open_image(20, 0);
    const u64 full_length = length();
    standard_output out;
    const int result = fat_close_volume(0);
    EXPECT_EQ(out.stop(), "");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(messages.text(), "");
    EXPECT_EQ(length(), full_length);
    expect_closed();
}

TEST_F(VolumeRelease, OnlyCompactOneCutsTheImage) {
    for (const int compact : {0, 2, -1, 256, 257}) {
        open_image(20, 2);
        const u64 full_length = length();
        EXPECT_EQ(fat_close_volume(compact), 0);
        EXPECT_EQ(length(), full_length) << compact;
        expect_closed();
    }
    EXPECT_EQ(messages.text(), "");
}

TEST_F(VolumeRelease, FreesTheRecordAndAnySlotRegardlessOfTheMap) {
    for (const auto &[id, is_in_map] : {std::pair{0U, true}, {511U, true}, {9U, false}}) {
        const allocation_meter meter;
        open_image(20, 0);
        EXPECT_EQ(meter.live_blocks(), 1);
        put_entry(id, make_entry(true));
        if (!is_in_map) {
            oentry_map[0] = 0;
        }
        EXPECT_EQ(fat_close_volume(0), 0);
        EXPECT_EQ(meter.live_blocks(), 0) << id;
        expect_closed();
    }
    const allocation_meter meter;
    put_entry(3, make_entry(true));
    EXPECT_EQ(fat_release_volume(0), 0); // without a volume
    EXPECT_EQ(meter.live_blocks(), 0);
    EXPECT_EQ(messages.text(), "");
    expect_closed();
}

TEST_F(VolumeRelease, FreesEveryOpenEntry) {
    const allocation_meter meter;
    open_image(20, 0);
    for (u32 id = 0; id < 512; id++) {
        put_entry(id, make_entry(id != 0));
    }
    sv->root_dir = oentry_table[0];
    sv->current_dir = oentry_table[37];
    EXPECT_EQ(meter.live_blocks(), 1 + 512 + 511);
    EXPECT_EQ(fat_close_volume(0), 0);
    EXPECT_EQ(meter.live_blocks(), 0);
    expect_closed();
}

// The content of the image is then not known; the calculation would cut it to nothing.
TEST_F(VolumeRelease, AnImageThatWasNeverMountedIsNotCut) {
    const std::string unknown = scratch.sparse_file("disk.img", 100000);
    ASSERT_GE(fat_open_volume(unknown.c_str(), 0, 0), 0);
    EXPECT_EQ(fat_close_volume(1), -EINVAL);
    EXPECT_EQ(messages.text(), "fat_release_volume[N]: Check here!\n\n");
    EXPECT_EQ(std::filesystem::file_size(unknown), 100000U);
    ASSERT_NE(sv, nullptr);
    EXPECT_EQ(fat_close_volume(0), 0);
}

TEST_F(VolumeRelease, LeavesTheStandardDescriptorsOpen) {
    for (const int fd : {2, 1, 0, -1}) {
        open_image(20, 0);
        const int own = sv->fd;
        const bool was_open = fcntl(fd, F_GETFD) >= 0;
        sv->fd = fd;
        EXPECT_EQ(fat_close_volume(0), 0);
        EXPECT_EQ(fcntl(fd, F_GETFD) >= 0, was_open) << fd;
        EXPECT_EQ(sv, nullptr);
        EXPECT_EQ(left_open(), std::vector<int>{own});
        close(own);
    }
}

TEST_F(VolumeRelease, AFailingCloseChangesNothing) {
    open_image(20, 0);
    const failing_call fault(call::close, EIO);
    EXPECT_EQ(fat_close_volume(0), 0);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(messages.text(), "");
    EXPECT_EQ(sv, nullptr);
}

TEST_F(VolumeRelease, ClosesTheConvertersThatThereAreOnce) {
    for (const bool compacts_first : {false, true}) {
        for (const auto &[has_to, has_from] :
             {std::pair{true, true}, {true, false}, {false, true}, {false, false}}) {
            open_image(20, 2);
            link(5, 1);
            std::vector<iconv_t> converters;
            if (has_to) {
                sv->cd_to_uni = converters.emplace_back(iconv_open("UNICODE", "UTF-8"));
            }
            if (has_from) {
                sv->cd_from_uni = converters.emplace_back(iconv_open("UTF-8", "UNICODE"));
            }
            const closed_converters closed;
            EXPECT_EQ(compacts_first ? fat_close_volume(1) : -EINVAL, -EINVAL);
            EXPECT_EQ(fat_close_volume(0), 0);
            EXPECT_EQ(closed.list(), converters);
        }
    }
}

// ---- compaction: length -----------------------------------------------------------------------

namespace {

// A volume with an allocation hint and some links, and the cluster that it is cut after.
struct cut_row : named_row {
    u32 clusters;
    u32 hint;
    std::vector<std::pair<u32, u32>> links;
    u32 last_left;
    u32 fat_type = 16;
};
const cut_row CUTS[] = {
    {"ClusterTwoAlone", 20, 2, {{2, 0xFFFF}}, 2},
    {"ClusterTwoFromAHintOfOne", 20, 1, {{2, 0xFFFF}}, 2},
    {"HighestClusterInUse", 20, 2, {{4, 0xFFFF}, {5, 9}, {9, 0xFFF8}, {12, 0xFFFF}}, 12},
    // The hint counts as allocated, whatever its FAT entry is.
    {"HintWithNothingInUseAfterIt", 20, 7, {}, 7},
    {"ClusterBelowTheCount", 20, 2, {{19, 0xFFFF}}, 19},
    {"TwoHighestClustersAreNotChecked", 20, 2, {{5, 20}, {20, 21}, {21, 0xFFFF}}, 5},
    {"BrokenEntriesOfTheTwoHighest", 20, 2, {{20, 1}, {21, 0xFFF7}}, 2},
    {"BrokenEntriesUpToTheHint",
     20,
     7,
     {{0, 1}, {1, 1}, {2, 1}, {3, 1}, {4, 1}, {5, 1}, {6, 1}, {7, 1}},
     7},
    {"NextSectorOfTheFat", 400, 2, {{255, 0xFFFF}, {256, 0xFFFF}, {300, 0xFFFF}}, 300},
    {"ReservedBitsOfFat32Entries", 20, 2, {{6, 0xFFFFFFFF}, {9, 0xF0000000}}, 6, 32},
};

class CompactionCuts : public VolumeRelease, public testing::WithParamInterface<cut_row> {};
INSTANTIATE_TEST_SUITE_P(Rows, CompactionCuts, testing::ValuesIn(CUTS), row_name<cut_row>);

} // namespace

TEST_P(CompactionCuts, AfterTheLastClusterOfTheRow) {
    const cut_row &row = GetParam();
    open_image(row.clusters, row.hint);
    sv->fat_type = row.fat_type;
    for (const auto &[cluster, value] : row.links) {
        link(cluster, value);
    }
    EXPECT_EQ(fat_close_volume(1), 0);
    EXPECT_EQ(messages.text(), heading(row.hint, row.clusters));
    EXPECT_EQ(length(), end_of(row.last_left));
    expect_closed();
}

TEST_F(Compaction, KeepsTheBytesBeforeTheCut) {
    open_image(20, 2);
    link(6, 0xFFFF);
    const bytes mark(SECTOR, 0xA5);
    ASSERT_EQ(pwrite(sv->fd, mark.data(), mark.size(), static_cast<off_t>(end_of(6) - SECTOR)),
              static_cast<ssize_t>(SECTOR));
    const bytes before = read_range(path, 0, static_cast<std::size_t>(end_of(6)));
    EXPECT_EQ(fat_close_volume(1), 0);
    EXPECT_EQ(read_file(path), before);
}

TEST_F(Compaction, ReadsNothingWhenTheHintIsTheLastClusterToCheck) {
    for (const u32 hint : {19U, 20U, 21U, 22U}) {
        open_image(20, hint);
        read_sectors = stubborn_read;
        stubborn_result = -EIO;
        messages.clear();
        EXPECT_EQ(fat_close_volume(1), 0);
        EXPECT_EQ(messages.text(), heading(hint, 20));
        EXPECT_EQ(length(), end_of(hint));
    }
}

TEST_F(Compaction, ReadsAtMostOneSectorForEachCluster) {
    open_image(400, 2);
    read_sectors = counting_read;
    transfers = 0;
    EXPECT_EQ(fat_close_volume(1), 0);
    EXPECT_GE(transfers, 2) << "the FAT reaches into two sectors";
    EXPECT_LE(transfers, 397);
}

TEST_F(Compaction, EachProductHas32BitsAndTheirSumHas64) {
    open_image(20, 0x00400001);
    sv->num_clusters = 0; // nothing is read
    sv->sec_per_clus = 3;
    sv->data_start = 0x00FFFFFF;
    // 0x400000 x 3 x 512 = 0x180000000, cut to 0x80000000; 0xFFFFFF x 512 = 0x1FFFFFE00, cut to
    // 0xFFFFFE00; together more than 32 bits hold.
    EXPECT_EQ(fat_close_volume(1), 0);
    EXPECT_EQ(messages.text(), heading(0x00400001, 0));
    EXPECT_EQ(length(), 0x17FFFFE00U);
}

TEST_F(Compaction, AHintOfZeroInATinyVolumeCountsBackFrom4GiB) {
    open_image(1, 0);
    EXPECT_EQ(fat_close_volume(1), 0);
    EXPECT_EQ(messages.text(), heading(0, 1));
    EXPECT_EQ(length(), (1ULL << 32) - CLUSTER_SECTORS * SECTOR + DATA_START * SECTOR);
}

// ---- compaction: what is closed and freed -----------------------------------------------------

TEST_F(Compaction, FreesEverything) {
    const allocation_meter meter;
    open_image(20, 2);
    put_entry(0, make_entry(false));
    put_entry(5, make_entry(true));
    sv->root_dir = oentry_table[0];
    sv->current_dir = oentry_table[5];
    EXPECT_EQ(fat_close_volume(1), 0);
    EXPECT_EQ(meter.live_blocks(), 0);
    expect_closed();
}

TEST_F(Compaction, LeavesTheStandardDescriptorsOpen) {
    open_image(20, 19);
    const int own = sv->fd;
    const bool was_open = fcntl(1, F_GETFD) >= 0;
    sv->fd = 1;
    EXPECT_EQ(fat_close_volume(1), 0);
    EXPECT_EQ(fcntl(1, F_GETFD) >= 0, was_open);
    EXPECT_EQ(length(), end_of(19));
    EXPECT_EQ(left_open(), std::vector<int>{own});
}

// ---- compaction: failures ---------------------------------------------------------------------

TEST_F(Compaction, AHintOfZeroStopsAtClusterOne) {
    open_image(20, 0);
    const u64 full_length = length();
    EXPECT_EQ(fat_close_volume(1), -EINVAL);
    EXPECT_EQ(messages.text(), heading(0, 20) + "fat_read_clus[N]: Invalid arg!\n\n"
                                                "fat_release_volume[N]: Invalid cluster value\n\n");
    EXPECT_EQ(sv->last_alloc_clus, 0U);
    expect_still_open(full_length);
}

TEST_F(Compaction, ABrokenEntryStopsIt) {
    for (const auto &[cluster, value] :
         {std::pair{7U, 1U}, {7U, 22U}, {7U, 0xFFF6U}, {7U, 0xFFF7U}, {19U, 1U}}) {
        open_image(20, 2);
        const u64 full_length = length();
        put_entry(0, make_entry(false));
        put_entry(511, make_entry(true));
        sv->root_dir = oentry_table[0];
        sv->current_dir = oentry_table[511];
        link(4, 0xFFFF);
        link(9, cluster == 7 ? 0xFFFF : 0); // not reached
        link(cluster, value);
        messages.clear();
        EXPECT_EQ(fat_close_volume(1), -EINVAL);
        EXPECT_EQ(messages.text(), heading(2, 20) +
                                       "fat_read_clus[N]: Invalid cluster!\n\n"
                                       "fat_release_volume[N]: Invalid cluster value\n\n");
        EXPECT_EQ(sv->last_alloc_clus, 4U) << "clusters seen before the broken one";
        expect_still_open(full_length);
        EXPECT_EQ(fat_close_volume(0), 0);
        expect_closed();
    }
}

TEST_F(Compaction, ARepairedEntryLetsTheNextTryThrough) {
    open_image(20, 2);
    link(4, 0xFFFF);
    link(7, 1);
    EXPECT_EQ(fat_close_volume(1), -EINVAL);
    link(7, 0);
    messages.clear();
    EXPECT_EQ(fat_close_volume(1), 0);
    EXPECT_EQ(messages.text(), heading(4, 20));
    EXPECT_EQ(length(), end_of(4));
}

TEST_F(Compaction, AFatThatCannotBeReadStopsIt) {
    for (const int result : {-EIO, -EINVAL, 0, 2}) {
        open_image(20, 2);
        const u64 full_length = length();
        put_entry(1, make_entry(true));
        read_sectors = stubborn_read;
        stubborn_result = result;
        messages.clear();
        EXPECT_EQ(fat_close_volume(1), -EIO);
        EXPECT_EQ(messages.text(), heading(2, 20) +
                                       "fat_read_entry[N]: cannot read FAT\n\n"
                                       "fat_release_volume[N]: Invalid cluster value\n\n");
        expect_still_open(full_length);
        EXPECT_EQ(fat_close_volume(0), 0);
    }
}

TEST_F(Compaction, StopsAtWhicheverReadOrAllocationFails) {
    const fault_kind every_read = every_call(call::read, EIO);
    at_every_fault({every_read, EVERY_ALLOCATION, NO_ALLOCATION_FROM}, [&](fault_step &step) {
        open_image(300, 2);
        link(290, 0xFFFF);
        const u64 full_length = length();
        messages.clear();
        const int result = step.run([] { return fat_close_volume(1); });
        if (step.struck()) {
            const bool is_read = step.is(fault::system_call);
            EXPECT_EQ(result, is_read ? -EIO : -ENOMEM);
            EXPECT_EQ(messages.text(),
                      heading(2, 300) +
                          (is_read ? "file_read_sectors[N]: Check here!: Input/output error\n\n"
                                     "fat_read_entry[N]: cannot read FAT\n\n"
                                   : "fat_read_entry[N]: cannot allocate FAT\n\n") +
                          "fat_release_volume[N]: Invalid cluster value\n\n");
            expect_still_open(full_length);
            EXPECT_EQ(fat_close_volume(0), 0);
        } else {
            EXPECT_TRUE(!step.is(fault::system_call) || step.k > 1)
                << "the FAT reaches into two sectors";
            EXPECT_EQ(result, 0);
            EXPECT_EQ(length(), end_of(290));
        }
        expect_closed();
    });
}

TEST_F(Compaction, AnImageThatCannotBeCutIsReleasedAllTheSame) {
    const allocation_meter meter;
    open_image(20, 2);
    put_entry(0, make_entry(false));
    put_entry(7, make_entry(true));
    sv->root_dir = oentry_table[0];
    sv->current_dir = oentry_table[7];
    const u64 full_length = length();
    const failing_call fault(call::truncate, EIO);
    EXPECT_EQ(fat_close_volume(1), -1);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(messages.text(),
              heading(2, 20) +
                  "fat_release_volume[N]: fail to truncate resulting image:Input/output error\n");
    EXPECT_EQ(length(), full_length);
    EXPECT_EQ(meter.live_blocks(), 0);
    expect_closed();
}

TEST_F(Compaction, ReportsWhyTheImageCannotBeCut) {
    open_image(20, 2);
    std::filesystem::remove(path);
    EXPECT_EQ(fat_close_volume(1), -1);
    const std::string failure = "fat_release_volume[N]: fail to truncate resulting image:"
                                "No such file or directory\n";
    EXPECT_EQ(messages.text(), heading(2, 20) + failure);
    expect_closed();
}

// ---- compaction of freshly formatted volumes --------------------------------------------------

class FreshVolume : public VolumeRelease {
protected:
    void format(u32 fat_size, u64 size) {
        path = scratch.sparse_file("fresh", size);
        fat_format_param param = {};
        param.fat_size = fat_size;
        param.sector_size = SECTOR;
        param.sec_per_clus = 1;
        ASSERT_EQ(check_format_param(&param), 0);
        ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
        ASSERT_GT(fat_format(&param), 0);
        ASSERT_EQ(sv->fat_type, fat_size);
        ASSERT_EQ(messages.text(), "");
    }
};

TEST_F(FreshVolume, Fat32IsCutAfterItsRootCluster) {
    format(32, 40 << 20);
    const u32 clusters = sv->num_clusters;
    const u64 data_start = sv->data_start;
    EXPECT_EQ(sv->last_alloc_clus, 2U);
    EXPECT_EQ(fat_close_volume(1), 0);
    EXPECT_EQ(messages.text(), heading(2, clusters));
    EXPECT_EQ(length(), (data_start + 1) * SECTOR);
    expect_closed();
}

TEST_F(FreshVolume, Fat16HasNoAllocatedClusterToCutAfter) {
    format(16, 8 << 20);
    const u32 clusters = sv->num_clusters;
    EXPECT_EQ(sv->last_alloc_clus, 0U);
    EXPECT_EQ(fat_close_volume(1), -EINVAL);
    const std::string failure = "fat_read_clus[N]: Invalid arg!\n\n"
                                "fat_release_volume[N]: Invalid cluster value\n\n";
    EXPECT_EQ(messages.text(), heading(0, clusters) + failure);
    expect_still_open(8 << 20);
}
