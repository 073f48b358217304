// The geometry calculation of a format request: refusals with their reasons, results in the
// request.

#include "core/geometry.h"

#include "fat/internal.h"

#include <cerrno>

namespace fat {

namespace {

constexpr const char *REPORTER = "calc_fat_sectors";

unsigned long long volume_bytes() {
    return sv != nullptr ? sv->vol_size : 0;
}

core::layout_request request_of(const fat_format_param *param) {
    return {.width = param->fat_size,
            .page_size = param->page_size,
            .sector_size = param->sector_size,
            .sectors_per_cluster = param->sec_per_clus,
            .root_entries = param->root_entries,
            .fats = param->nr_fat};
}

void refuse_small_for_fat16(u32 sector_size, const core::volume_layout &layout) {
    report_bare("Volume size(%llu) is too small to format the volume to FAT16\n", volume_bytes());
    report_bare(
        "Retry to format after enlarge the volume size to larger than (rdir area(%u) + reserved area(%u)) * sector size(%u)\n",
        layout.root_sectors, core::FAT16_RESERVED_SECTORS, sector_size);
}

void refuse_few_for_fat16(u32 cluster_size, const core::volume_layout &layout) {
    report_bare(
        "Cluster size(%u) is too large or volume size(%llu) is too small to format the device to FAT16.\n",
        cluster_size, volume_bytes());
    report_bare(
        "If you want to format the deivce to FAT16/32, retry to format after reduce the cluster size. Otherwise, retry to format the larger volume.\n");
    report_bare("num_clusters %d data area %d\n", static_cast<int>(layout.clusters),
                static_cast<int>(layout.data_sectors));
}

void refuse_many_for_fat16(u32 cluster_size, const core::volume_layout &layout) {
    report_bare("Cluster size(%u) is too small to format this to FAT16.\n", cluster_size);
    report_bare(
        "If you want to format this to FAT16, retry to format after enlarge the cluster size. Otherwise, retry to format the device with FAT32 type.\n");
    report_bare("fat %d max %d num_clusters %d\n", static_cast<int>(layout.fat_sectors),
                static_cast<int>(layout.max_clusters), static_cast<int>(layout.clusters));
}

void refuse_small_for_fat32(u32 sector_size) {
    report_bare("Volume size(%llu) is too small to format the volume to FAT32\n", volume_bytes());
    report_bare(
        "Retry to format after enlarge the volume size to larger than reserved area(%u) * sector size(%u)\n",
        core::FAT32_RESERVED_SECTORS, sector_size);
}

void refuse_few_for_fat32(u32 cluster_size, const core::volume_layout &layout) {
    report_bare("Cluster size(%u) is too large to format the device to FAT32.\n", cluster_size);
    report_bare(
        "If you want to format the device to FAT32, retry to format after reduce the cluster size\n");
    report_bare("num_clusters %d data area %d\n", static_cast<int>(layout.clusters),
                static_cast<int>(layout.data_sectors));
}

void refuse_many_for_fat32(const core::volume_layout &layout) {
    report_bare(
        "Number of clusters(%u) is over the limitation of maximum cluster counts for FAT32\n",
        static_cast<u32>(layout.clusters));
    report_bare("Retry to format after reduce the cluster size\n");
    report_bare("fat sectors %d max clusters %d data area %d\n",
                static_cast<int>(layout.fat_sectors), static_cast<int>(layout.max_clusters),
                static_cast<int>(layout.data_sectors));
}

} // namespace

bool is_valid_request(const fat_format_param *param) {
    return request_of(param).is_valid();
}

void refuse_request(const char *function, const fat_format_param *param) {
    report_at(
        function, __LINE__,
        "Invalid format request: FAT%u, %u FATs, %u sectors of %u bytes per cluster, %u root entries, page size %u\n\n",
        param->fat_size, param->nr_fat, param->sec_per_clus, param->sector_size,
        param->root_entries, param->page_size);
}

namespace {

// Returns 0 for a layout that is not refused, else a negative value after the reason.
int refuse_layout(const fat_format_param *param, const core::volume_layout &layout) {
    const u32 cluster_size = request_of(param).cluster_bytes();
    const bool is_wide = layout.width == 32;
    switch (layout.why) {
    case core::layout_fault::NONE:
        return 0;
    case core::layout_fault::INVALID:
        refuse_request(REPORTER, param);
        return -EINVAL;
    case core::layout_fault::ODD_ROOT: // Intentional: the message states 512
        report_at(REPORTER, __LINE__, "RdirSize is not even multiple of 512Bytes!\n\n");
        return -EINVAL;
    case core::layout_fault::NO_ROOM:
        is_wide ? refuse_small_for_fat32(param->sector_size)
                : refuse_small_for_fat16(param->sector_size, layout);
        return -EINVAL;
    case core::layout_fault::FEW_CLUSTERS:
        is_wide ? refuse_few_for_fat32(cluster_size, layout)
                : refuse_few_for_fat16(cluster_size, layout);
        return -EINVAL;
    case core::layout_fault::MANY_CLUSTERS:
        is_wide ? refuse_many_for_fat32(layout) : refuse_many_for_fat16(cluster_size, layout);
        return -EINVAL;
    }
    report_bare("assertion failed %s:%d\n", REPORTER, __LINE__); // there is no other reason
    return -1;
}

} // namespace

int lay_out_volume(fat_format_param *param, u32 total_sectors, core::volume_layout *layout,
                   core::areas *areas) {
    const core::layout_request request = request_of(param);
    *layout = core::lay_out(request, total_sectors);
    if (layout->ignores_page) {
        report_at(REPORTER, __LINE__, "Can't align to page size(%d): Sector is %d\n",
                  static_cast<int>(param->page_size), static_cast<int>(param->sector_size));
    }
    const int refused = refuse_layout(param, *layout);
    if (refused < 0) {
        return refused;
    }
    *areas = core::areas_of(request, *layout, total_sectors);
    param->fat_size = layout->width;
    param->nr_rsvd_sec = layout->reserved;
    param->root_entries = layout->root_entries(param->sector_size);
    return 0;
}

u32 round_up_to(u32 x, u32 a) {
    return core::round_up_to(x, a);
}

int calc_fat_sectors(fat_format_param *param, u32 total_sectors, u32 *fat_sectors,
                     u32 *num_clusters) {
    core::volume_layout layout;
    core::areas areas;
    const int result = lay_out_volume(param, total_sectors, &layout, &areas);
    if (result == 0) {
        *fat_sectors = layout.fat_sectors;
        *num_clusters = static_cast<u32>(layout.clusters);
    }
    return result;
}

} // namespace fat
