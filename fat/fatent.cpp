// Single entries of the first FAT of the open volume, and links followed through them.
//
// Intentional: only the first FAT is read and written; the other copies do not change after
// formatting. Nothing is cached from one public call to the next.

#include "fat/internal.h"

#include <cerrno>

namespace fat {

namespace {

// What to print for a fault of the FAT, in whose name, and its errno.
struct fault_report {
    const char *function;
    const char *text;
    int error;
    core::fault why;
};

constexpr fault_report LINK_REPORTS[] = {
    {"fat_read_entry", "Invalid FAT type\n\n", EINVAL, core::fault::WIDTH},
    {"fat_read_entry", "cannot allocate FAT\n\n", ENOMEM, core::fault::TABLE_MEMORY},
    {"fat_read_entry", "cannot read FAT\n\n", EIO, core::fault::TABLE_READ},
    {"fat_write_entry", "cannot write FAT\n\n", EIO, core::fault::TABLE_WRITE},
    {"fat_read_clus", "Invalid arg!\n\n", EINVAL, core::fault::CLUSTER_NUMBER},
    {"fat_read_clus", "Invalid cluster!\n\n", EINVAL, core::fault::LINK_VALUE},
};

constexpr fault_report CHANGE_REPORTS[] = {
    {"fat_write_entry", "Invalid: sector size is not set\n\n", EINVAL, core::fault::NO_GEOMETRY},
    {"fat_write_entry", "Invalid FAT type\n", EINVAL, core::fault::WIDTH},
    {"fat_write_entry", "cannot allocate buffer\n\n", ENOMEM, core::fault::TABLE_MEMORY},
    {"fat_write_entry", "cannot read FAT\n", EIO, core::fault::TABLE_READ},
    {"fat_write_entry", "cannot write FAT\n\n", EIO, core::fault::TABLE_WRITE},
};

template <std::size_t N>
int report(const fault_report (&reports)[N], core::fault why) {
    if (why == core::fault::NONE) {
        return 0;
    }
    for (const fault_report &known : reports) {
        if (known.why == why) {
            report_at(known.function, __LINE__, "%s", known.text);
            return -known.error;
        }
    }
    return -EINVAL;
}

} // namespace

int report_link(core::fault why, u32 index) {
    if (why == core::fault::NO_GEOMETRY) {
        report_at("fat_read_entry", __LINE__, "Invalid input: sector_size(%d) n_clu(%d)\n",
                  sv == nullptr ? 0 : static_cast<int>(sv->sector_size), static_cast<int>(index));
        return -EINVAL;
    }
    return report(LINK_REPORTS, why);
}

int report_change(core::fault why) {
    return report(CHANGE_REPORTS, why);
}

bool is_data_cluster(u32 cluster) {
    return here().is_data_cluster(cluster);
}

bool is_end_of_chain(u32 value) {
    return here().is_end_of_chain(value);
}

// ---- entries ----------------------------------------------------------------------------------

int fat_read_entry(u32 cluster, u32 *value) {
    core::table fat(here());
    const core::result<u32> read = value != nullptr ? fat.value(cluster) : core::fault::NO_GEOMETRY;
    if (read.ok()) {
        *value = read.value;
    }
    return report_link(read.why, cluster);
}

int fat_write_entry(u32 cluster, u32 value) {
    forget_positions();
    core::table fat(here());
    return change(&fat, cluster, value);
}

int change(core::table *fat, u32 index, u32 value) {
    link_changes(index);
    return report_change(fat->set(index, value));
}

int flush(core::table *fat) {
    return report_change(fat->flush());
}

// ---- links ------------------------------------------------------------------------------------

int fat_read_clus(u32 cluster) {
    core::table fat(here());
    return follow(&fat, cluster);
}

int follow(core::table *fat, u32 cluster) {
    const core::result<u32> next = fat->link(cluster);
    return next.ok() ? static_cast<int>(next.value) : report_link(next.why, cluster);
}

int fat_free_clus(u32 first, u32 last) {
    core::table fat(here());
    u32 stopped_at = 0;
    const core::result<u32> found = fat.find_free(first, last, &stopped_at);
    return report_search(fat, found, stopped_at);
}

int report_search(const core::table &fat, const core::result<u32> &found, u32 stopped_at) {
    if (found.ok()) {
        return static_cast<int>(found.value);
    }
    if (found.why == core::fault::NO_SPACE) {
        return -ENOENT;
    }
    const int error = report_link(found.why, stopped_at);
    if (!fat.write_failed()) {
        report_at("fat_free_clus", __LINE__, "Invalid cluster value!\n\n");
    }
    return error;
}

u32 fat_sector(u32 cluster) {
    if (!is_data_cluster(cluster)) {
        REPORT("Invalid arg!\n\n");
        return 0;
    }
    const u64 sector =
        sv->data_start + static_cast<u64>(cluster - FIRST_DATA_CLUSTER) * sv->sec_per_clus;
    return sector < sv->total_sectors ? static_cast<u32>(sector) : 0;
}

} // namespace fat
