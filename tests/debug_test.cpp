// The printers of the library's records.

#include "tests/support/capture.h"
#include "tests/support/ram_disk.h"

#include <string>

#include <gtest/gtest.h>

using namespace testing_support;

namespace {

// The output of `print` to its stream argument.
template <typename Print>
std::string printed_by(Print print) {
    char *text = nullptr;
    std::size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    print(stream);
    std::fclose(stream);
    std::string result(text, size);
    std::free(text);
    return result;
}

} // namespace

// ---- the format request -----------------------------------------------------------------------

TEST(PrintFormatParam, PrintsEveryFieldUnderItsName) {
    char source[] = "tree";
    char target[] = "/dev/flash0";
    fat_format_param param = {};
    param.fat_size = 32;
    param.sec_per_clus = 8;
    param.sector_size = 512;
    param.outfile = target;
    param.infile = source;
    param.page_size = 2048;
    param.root_entries = 1;
    param.nr_rsvd_sec = 33;
    param.long_name = 1;
    param.nr_fat = 3;
    param.sector_of_bkup = 6;
    param.volume_id = 0xFFFFFFFF;
    std::memcpy(param.volume_label, "LABEL      ", sizeof param.volume_label);
    diagnostics messages;
    standard_output out;
    print_format_param(&param);
    EXPECT_EQ(out.stop(), "=== User input for Format ===\n"
                          " fat_size:       32\n"
                          " root entries:   1\n"
                          " nr_rsvd_sec:    33\n"
                          " sectors/cluster:8\n"
                          " sector size:    512\n"
                          " infile:         tree\n"
                          " outfile:        /dev/flash0\n"
                          " page size:      2048\n"
                          " nr_fat:         3\n"
                          " sector_of_bkup: 6\n"
                          " volume id:      4294967295\n"
                          " volume_label:   LABEL      \n"
                          "=============================\n");
    EXPECT_EQ(messages.text(), "");
}

TEST(PrintFormatParam, ShowsMissingPathsAsNull) {
    const fat_format_param param = {};
    standard_output out;
    print_format_param(&param);
    EXPECT_EQ(out.stop(), "=== User input for Format ===\n"
                          " fat_size:       0\n"
                          " root entries:   0\n"
                          " nr_rsvd_sec:    0\n"
                          " sectors/cluster:0\n"
                          " sector size:    0\n"
                          " infile:         (null)\n"
                          " outfile:        (null)\n"
                          " page size:      0\n"
                          " nr_fat:         0\n"
                          " sector_of_bkup: 0\n"
                          " volume id:      0\n"
                          " volume_label:   \n"
                          "=============================\n");
}

// ---- the volume summary -----------------------------------------------------------------------

TEST(PrintVolumeSummary, PrintsElevenLines) {
    const ram_disk disk(0x10000000001ULL);
    sv->fat_type = 32;
    sv->fat_size = 1;
    sv->total_sectors = 0xFFFFFFFF;
    sv->num_clusters = 2;
    sv->sector_size = 4096;
    sv->sec_per_clus = 64;
    sv->root_clus = 999;
    sv->fat_start = 3;
    sv->rdir_start = 4;
    sv->data_start = 5;
    sv->pbr_start = 6;
    sv->last_alloc_clus = 999;
    diagnostics messages;
    standard_output out;
    const std::string summary = printed_by(print_volume_summary);
    EXPECT_EQ(out.stop(), "");
    EXPECT_EQ(summary, "- Volume size:\t\t1099511627777 Bytes\n"
                       "- FAT type:\t\t32 bits\n"
                       "- FAT size:\t\t1 sectors\n"
                       "- Total sectors:\t4294967295 sectors\n"
                       "- Cluster counts:\t2 \n"
                       "- Sector size:\t\t4096 Bytes\n"
                       "- Sectors/cluster:\t64 \n"
                       "- FAT start:\t\t3th sector\n"
                       "- RDIR start:\t\t4th sector\n"
                       "- DATA start:\t\t5th sector\n"
                       "- PBR start:\t\t6th sector\n");
    EXPECT_EQ(messages.text(), "");
}
