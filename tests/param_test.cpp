// The format request: its shape, the cluster-size limit and the defaults.

#include "tests/support/capture.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

using namespace testing_support;

namespace {

constexpr time_t STILL_TIME = 1700000000;
int clock_calls = 0;

time_t still_clock(time_t *out) {
    clock_calls++;
    if (out != nullptr) {
        *out = STILL_TIME;
    }
    return STILL_TIME;
}

// Requests are checked with a stopped clock and without a page size.
class CheckFormatParam : public testing::Test {
protected:
    CheckFormatParam() {
        fat_clock = still_clock;
        clock_calls = 0;
        fat_page_size_given = 0;
    }
    ~CheckFormatParam() override {
        fat_clock = time;
        fat_page_size_given = 0;
    }

    // The bytes of the record, to detect any change.
    std::string image() const {
        return {reinterpret_cast<const char *>(&param), sizeof param};
    }

    void accept() {
        EXPECT_EQ(check_format_param(&param), 0);
        EXPECT_EQ(messages.text(), "");
    }

    void refuse(const std::string &cluster_line) {
        const std::string before = image();
        EXPECT_EQ(check_format_param(&param), -1);
        EXPECT_EQ(messages.text(), cluster_line + "\nBut cluster size can't be over 32KBytes\n");
        EXPECT_EQ(image(), before) << "a refused request was changed";
        EXPECT_EQ(clock_calls, 0);
    }

    void set_cluster(uint32_t sectors, uint32_t sector_size) {
        param.sec_per_clus = sectors;
        param.sector_size = sector_size;
    }

    fat_format_param param = {};
    diagnostics messages;
};

} // namespace

// ---- the record -------------------------------------------------------------------------------

TEST(FormatParam, FieldsAreInTheirOrder) {
    const std::size_t offsets[] = {
        offsetof(fat_format_param, fat_size),       offsetof(fat_format_param, sec_per_clus),
        offsetof(fat_format_param, sector_size),    offsetof(fat_format_param, outfile),
        offsetof(fat_format_param, infile),         offsetof(fat_format_param, page_size),
        offsetof(fat_format_param, root_entries),   offsetof(fat_format_param, nr_rsvd_sec),
        offsetof(fat_format_param, long_name),      offsetof(fat_format_param, nr_fat),
        offsetof(fat_format_param, sector_of_bkup), offsetof(fat_format_param, volume_id),
        offsetof(fat_format_param, volume_label),
    };
    EXPECT_EQ(offsets[0], 0U);
    for (std::size_t i = 1; i < std::size(offsets); i++) {
        EXPECT_LT(offsets[i - 1], offsets[i]) << "field " << i;
    }
    EXPECT_EQ(sizeof(fat_format_param::long_name), 1U);
    EXPECT_EQ(sizeof(fat_format_param::volume_label), 12U);
}

TEST(FormatParam, PageSizeCountsAsNotGivenAtStart) {
    EXPECT_EQ(fat_page_size_given, 0);
}

TEST(FormatParam, TheClockIsTimeAtStart) {
    EXPECT_EQ(fat_clock, &time);
}

// ---- the cluster-size limit -------------------------------------------------------------------

TEST_F(CheckFormatParam, AcceptsAClusterOfExactly32KiB) {
    set_cluster(64, 512);
    accept();
    EXPECT_EQ(param.sec_per_clus, 64U);
    EXPECT_EQ(param.sector_size, 512U);
}

TEST_F(CheckFormatParam, RefusesAClusterOf64KiB) {
    set_cluster(64, 1024);
    refuse("The requested cluster size is 65536(= 64 x 1024).");
}

TEST_F(CheckFormatParam, NamesTheProductOf16And4096) {
    set_cluster(16, 4096);
    refuse("The requested cluster size is 65536(= 16 x 4096).");
}

TEST_F(CheckFormatParam, RefusesOneByteMoreThan32KiB) {
    set_cluster(1, 32769);
    refuse("The requested cluster size is 32769(= 1 x 32769).");
}

TEST_F(CheckFormatParam, AcceptsASingleSectorOf32KiB) {
    set_cluster(1, 32768);
    accept();
    EXPECT_EQ(param.sec_per_clus, 1U);
    EXPECT_EQ(param.sector_size, 32768U);
}

TEST_F(CheckFormatParam, PrintsThePartsOfTheProductSigned) {
    set_cluster(0xFFFFFFFF, 1);
    refuse("The requested cluster size is 4294967295(= -1 x 1).");
}

TEST_F(CheckFormatParam, MultipliesIn32Bits) {
    set_cluster(0x10000, 0x10000);
    accept();
    EXPECT_EQ(param.sec_per_clus, 0x10000U);
    EXPECT_EQ(param.sector_size, 0x10000U);
}

TEST_F(CheckFormatParam, PrintsTheProductCutTo32Bits) {
    set_cluster(0x10001, 0x10000);
    refuse("The requested cluster size is 65536(= 65537 x 65536).");
}

TEST_F(CheckFormatParam, TestsTheLimitBeforeTheSectorSizeDefault) {
    set_cluster(64, 0);
    accept();
    EXPECT_EQ(param.sec_per_clus, 64U);
    EXPECT_EQ(param.sector_size, 4096U);
}

TEST_F(CheckFormatParam, RefusalLeavesARequestWithEveryFieldSetAlone) {
    param.fat_size = 32;
    set_cluster(128, 512);
    param.page_size = 2048;
    param.root_entries = 7;
    param.nr_rsvd_sec = 8;
    param.long_name = 9;
    param.sector_of_bkup = 10;
    refuse("The requested cluster size is 65536(= 128 x 512).");
}

TEST_F(CheckFormatParam, RefusalLeavesErrnoAlone) {
    set_cluster(64, 1024);
    FILE *full = fopen("/dev/full", "w");
    setvbuf(full, nullptr, _IONBF, 0);
    fat_set_diagnostics(full);
    errno = E2BIG;
    EXPECT_EQ(check_format_param(&param), -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_NE(ferror(full), 0);
    fclose(full);
}

// ---- defaults ---------------------------------------------------------------------------------

TEST_F(CheckFormatParam, FillsEveryDefaultOfAZeroRequest) {
    accept();
    EXPECT_EQ(param.fat_size, 0U);
    EXPECT_EQ(param.sec_per_clus, 1U);
    EXPECT_EQ(param.sector_size, 4096U);
    EXPECT_EQ(param.outfile, nullptr);
    EXPECT_EQ(param.infile, nullptr);
    EXPECT_EQ(param.page_size, 4096U);
    EXPECT_EQ(param.root_entries, 512U);
    EXPECT_EQ(param.nr_rsvd_sec, 1U);
    EXPECT_EQ(param.long_name, 0U);
    EXPECT_EQ(param.nr_fat, 2U);
    EXPECT_EQ(param.sector_of_bkup, 0U);
    EXPECT_EQ(param.volume_id, static_cast<uint32_t>(STILL_TIME));
    EXPECT_STREQ(param.volume_label, "           ");
}

TEST_F(CheckFormatParam, ASecondCheckChangesNothing) {
    accept();
    const std::string filled = image();
    accept();
    EXPECT_EQ(image(), filled);
    EXPECT_EQ(clock_calls, 1);
}

TEST_F(CheckFormatParam, SectorsPerClusterStayZeroBesideASectorOf32KiB) {
    set_cluster(0, 32768);
    accept();
    EXPECT_EQ(param.sec_per_clus, 0U);
    EXPECT_EQ(param.sector_size, 32768U);
}

TEST_F(CheckFormatParam, SectorsPerClusterBecomeOneBesideAnyOtherSectorSize) {
    for (const uint32_t sector_size : {512U, 1024U, 2048U, 4096U, 16384U, 32767U, 32769U, 65536U}) {
        set_cluster(0, sector_size);
        accept();
        EXPECT_EQ(param.sec_per_clus, 1U) << sector_size;
        EXPECT_EQ(param.sector_size, sector_size);
    }
}

TEST_F(CheckFormatParam, GivenSectorsPerClusterStay) {
    for (const uint32_t sectors : {1U, 2U, 4U, 8U, 16U, 32U, 64U}) {
        set_cluster(sectors, 512);
        accept();
        EXPECT_EQ(param.sec_per_clus, sectors);
    }
}

TEST_F(CheckFormatParam, PageSizeNotGivenIsReplaced) {
    param.page_size = 2048;
    accept();
    EXPECT_EQ(param.page_size, 4096U);
}

TEST_F(CheckFormatParam, GivenPageSizeStaysEvenIfZero) {
    fat_page_size_given = 1;
    for (const uint32_t page_size : {0U, 2048U, 4096U, 8192U}) {
        param.page_size = page_size;
        accept();
        EXPECT_EQ(param.page_size, page_size);
    }
}

TEST_F(CheckFormatParam, Fat32AreasReplaceThoseOfTheRequest) {
    param.fat_size = 32;
    param.root_entries = 1000;
    param.nr_rsvd_sec = 1000;
    param.sector_of_bkup = 1000;
    accept();
    EXPECT_EQ(param.fat_size, 32U);
    EXPECT_EQ(param.root_entries, 0U);
    EXPECT_EQ(param.nr_rsvd_sec, 32U);
    EXPECT_EQ(param.sector_of_bkup, 6U);
}

TEST_F(CheckFormatParam, EveryOtherWidthGetsTheFat16Areas) {
    for (const uint32_t fat_size : {0U, 12U, 16U, 31U, 33U, 64U}) {
        param.fat_size = fat_size;
        param.root_entries = 1000;
        param.nr_rsvd_sec = 1000;
        param.sector_of_bkup = 1000;
        accept();
        EXPECT_EQ(param.fat_size, fat_size) << "the width is left to the geometry";
        EXPECT_EQ(param.root_entries, 512U) << fat_size;
        EXPECT_EQ(param.nr_rsvd_sec, 1U) << fat_size;
        EXPECT_EQ(param.sector_of_bkup, 0U) << fat_size;
    }
}

TEST_F(CheckFormatParam, EmptyLabelBecomesElevenBlanks) {
    std::memcpy(param.volume_label, "\0LDLABELXYZ!", sizeof param.volume_label);
    accept();
    EXPECT_EQ(std::memcmp(param.volume_label, "           ", sizeof param.volume_label), 0);
}

TEST_F(CheckFormatParam, LabelIsNotChanged) {
    std::memcpy(param.volume_label, "a\0b", 4);
    const std::string label(param.volume_label, sizeof param.volume_label);
    accept();
    EXPECT_EQ(std::string(param.volume_label, sizeof param.volume_label), label);
}

TEST_F(CheckFormatParam, KeepsAGivenNumberOfFats) {
    for (const uint32_t fats : {1U, 2U, 3U, 255U, 0xFFFFFFFFU}) {
        param.nr_fat = fats;
        accept();
        EXPECT_EQ(param.nr_fat, fats);
    }
}

TEST_F(CheckFormatParam, KeepsAGivenVolumeIdWithoutAskingTheClock) {
    param.volume_id = 0xDEADBEEF;
    accept();
    EXPECT_EQ(param.volume_id, 0xDEADBEEFU);
    EXPECT_EQ(clock_calls, 0);
}

TEST_F(CheckFormatParam, VolumeIdIsTheLow32BitsOfTheTime) {
    if (sizeof(time_t) < 8) {
        GTEST_SKIP() << "time_t has 32 bits here";
    }
    fat_clock = [](time_t *) { return static_cast<time_t>(0x512345678LL); };
    accept();
    EXPECT_EQ(param.volume_id, 0x12345678U);
}

TEST_F(CheckFormatParam, OrdinaryClockIsThePresentTime) {
    fat_clock = time;
    const auto before = static_cast<uint32_t>(time(nullptr));
    accept();
    const auto after = static_cast<uint32_t>(time(nullptr));
    EXPECT_LE(before, param.volume_id);
    EXPECT_LE(param.volume_id, after);
}

TEST_F(CheckFormatParam, LongNameIsOneOrZero) {
    for (int value = 0; value <= 255; value++) {
        param.long_name = static_cast<uint8_t>(value);
        accept();
        EXPECT_EQ(param.long_name, value == 1 ? 1 : 0) << value;
    }
}

TEST_F(CheckFormatParam, KeepsThePathsOfTheRequest) {
    char target[] = "flash.img";
    char source[] = "tree";
    param.outfile = target;
    param.infile = source;
    accept();
    EXPECT_EQ(param.outfile, target);
    EXPECT_EQ(param.infile, source);
}
