// Printers of the library's records.

#include "fat/internal.h"

#include <cstdio>

using namespace fat;

namespace {

const char *text_or_null(const char *text) {
    return text != nullptr ? text : "(null)";
}

} // namespace

void print_format_param(const fat_format_param *param) {
    if (param == nullptr) {
        REPORT("Check here!\n\n");
        return;
    }
    std::puts("=== User input for Format ===");
    std::printf(" fat_size:       %u\n", param->fat_size);
    std::printf(" root entries:   %u\n", param->root_entries);
    std::printf(" nr_rsvd_sec:    %u\n", param->nr_rsvd_sec);
    std::printf(" sectors/cluster:%u\n", param->sec_per_clus);
    std::printf(" sector size:    %u\n", param->sector_size);
    std::printf(" infile:         %s\n", text_or_null(param->infile));
    std::printf(" outfile:        %s\n", text_or_null(param->outfile));
    std::printf(" page size:      %u\n", param->page_size);
    std::printf(" nr_fat:         %u\n", param->nr_fat);
    std::printf(" sector_of_bkup: %u\n", param->sector_of_bkup);
    std::printf(" volume id:      %u\n", param->volume_id);
    std::printf(" volume_label:   %s\n", param->volume_label);
    std::puts("=============================");
}

void print_volume_summary(FILE *stream) {
    if (sv == nullptr || stream == nullptr) {
        REPORT("Check here!\n\n");
        return;
    }
    std::fprintf(stream, "- Volume size:\t\t%llu Bytes\n",
                 static_cast<unsigned long long>(sv->vol_size));
    std::fprintf(stream, "- FAT type:\t\t%u bits\n", sv->fat_type);
    std::fprintf(stream, "- FAT size:\t\t%u sectors\n", sv->fat_size);
    std::fprintf(stream, "- Total sectors:\t%u sectors\n", sv->total_sectors);
    std::fprintf(stream, "- Cluster counts:\t%u \n", sv->num_clusters);
    std::fprintf(stream, "- Sector size:\t\t%u Bytes\n", sv->sector_size);
    std::fprintf(stream, "- Sectors/cluster:\t%u \n", sv->sec_per_clus);
    std::fprintf(stream, "- FAT start:\t\t%uth sector\n", sv->fat_start);
    std::fprintf(stream, "- RDIR start:\t\t%uth sector\n", sv->rdir_start);
    std::fprintf(stream, "- DATA start:\t\t%uth sector\n", sv->data_start);
    std::fprintf(stream, "- PBR start:\t\t%uth sector\n", sv->pbr_start);
}
