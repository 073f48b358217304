// The format request: its limit and its defaults.

#include "fat/internal.h"

#include <cstring>

using namespace fat;

int fat_page_size_given = 0;

time_t (*fat_clock)(time_t *) = time;

namespace {

constexpr u32 MAX_CLUSTER_BYTES = 32768;
constexpr u32 DEFAULT_SECTORS_PER_CLUSTER = 1;
constexpr u32 DEFAULT_SECTOR_SIZE = 4096;
constexpr u32 DEFAULT_PAGE_SIZE = 4096;
constexpr u32 DEFAULT_NUMBER_OF_FATS = 2;
constexpr char BLANK_LABEL[] = "           ";
static_assert(sizeof BLANK_LABEL == sizeof fat_format_param::volume_label);

// Defaults of the areas before the data, for each FAT width. A width of 0 begins as FAT16; the
// geometry replaces these if it chooses FAT32.
void set_area_defaults(fat_format_param *param) {
    const bool is_fat32 = param->fat_size == 32;
    param->root_entries = is_fat32 ? 0 : 512;
    param->nr_rsvd_sec = is_fat32 ? 32 : 1;
    param->sector_of_bkup = is_fat32 ? 6 : 0;
}

} // namespace

int check_format_param(fat_format_param *param) {
    if (param == nullptr) {
        REPORT("Check here!\n\n");
        return -1;
    }
    // Intentional: before the defaults, and in 32 bits.
    const u32 cluster_bytes = param->sec_per_clus * param->sector_size;
    if (cluster_bytes > MAX_CLUSTER_BYTES) {
        report_bare(
            "The requested cluster size is %u(= %d x %d).\nBut cluster size can't be over 32KBytes\n",
            cluster_bytes, static_cast<int>(param->sec_per_clus),
            static_cast<int>(param->sector_size));
        return -1;
    }
    if (param->sec_per_clus == 0 && param->sector_size != MAX_CLUSTER_BYTES) {
        param->sec_per_clus = DEFAULT_SECTORS_PER_CLUSTER;
    }
    if (param->sector_size == 0) {
        param->sector_size = DEFAULT_SECTOR_SIZE;
    }
    if (fat_page_size_given == 0) {
        param->page_size = DEFAULT_PAGE_SIZE;
    }
    set_area_defaults(param);
    if (param->volume_label[0] == '\0') {
        std::memcpy(param->volume_label, BLANK_LABEL, sizeof BLANK_LABEL);
    }
    if (param->nr_fat == 0) {
        param->nr_fat = DEFAULT_NUMBER_OF_FATS;
    }
    if (param->volume_id == 0) {
        param->volume_id = static_cast<u32>(fat_clock(nullptr));
    }
    if (param->long_name != 1) {
        param->long_name = 0;
    }
    return 0;
}
