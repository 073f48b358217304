// qvol info: geometry, areas and their alignment, label, serial number, clusters in use.

#include "qvol/areas.h"
#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/formatting.h"
#include "qvol/whole_volume.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

struct info_options {
    std::string pages_from = "disk";
};

// The largest page size from 2 to 16 KiB that the area begins on, or 0.
u32 alignment_of(const area &one) {
    const auto page = std::find_if(PAGE_SIZES.rbegin(), PAGE_SIZES.rend(),
                                   [&](u32 size) { return one.past_page(size) == 0; });
    return page != PAGE_SIZES.rend() ? *page : 0;
}

struct volume_info {
    const volume &vol;
    u32 clusters;
    u32 free_clusters;
    std::string label;
    std::string serial;
    std::vector<area> areas;
};

volume_info info_of(volume &vol, const info_options &options) {
    return {vol,
            vol.fat().last_cluster() - core::FIRST_DATA_CLUSTER + 1,
            vol.fat().free_count(),
            label_of(vol),
            shown_volume_id(vol.boot().serial),
            areas_of(vol, parse_page_origin(options.pages_from))};
}

json areas_json(const std::vector<area> &areas) {
    json list = json::array();
    for (const area &one : areas) {
        list.push_back({{"name", one.name},
                        {"first_sector", one.first},
                        {"sectors", one.count},
                        {"offset", one.offset()},
                        {"bytes", one.bytes()},
                        {"aligned_to", alignment_of(one)}});
    }
    return list;
}

json info_json(const volume_info &info) {
    const core::volume &on = info.vol.on();
    const boot_fields &boot = info.vol.boot();
    return {{"image", info.vol.where().path()},
            {"offset", info.vol.where().offset()},
            {"image_bytes", info.vol.where().size()},
            {"fat_type", on.at.width},
            {"label", info.label},
            {"boot_label", boot.label},
            {"serial", info.serial},
            {"oem_name", boot.oem_name},
            {"sector_size", on.at.sector_size},
            {"cluster_size", on.cluster_bytes()},
            {"total_sectors", on.at.total_sectors},
            {"fat_copies", boot.fat_copies},
            {"active_fat", boot.active_fat ? json(*boot.active_fat) : json()},
            {"root_entries", boot.root_entries},
            {"root_cluster", on.at.root_cluster},
            {"areas", areas_json(info.areas)},
            {"clusters", info.clusters},
            {"free_clusters", info.free_clusters},
            {"used_clusters", info.clusters - info.free_clusters},
            {"free_bytes", u64{info.free_clusters} * on.cluster_bytes()}};
}

std::string clusters_text(const core::volume &on, u64 count) {
    return fmt::format("{} ({})", count, shown_size(count * on.cluster_bytes()));
}

void print_areas(const output &out, const std::vector<area> &areas) {
    out.line("");
    out.line("area            first sector     sectors        bytes  aligned to");
    for (const area &one : areas) {
        const u32 page = alignment_of(one);
        out.line(fmt::format("{:<15} {:>12} {:>11} {:>12}  {}", one.name, one.first, one.count,
                             one.bytes(), page != 0 ? shown_size(page) : "less than 2 KiB"));
    }
}

void print_info(const output &out, const volume_info &info) {
    const core::volume &on = info.vol.on();
    const target &where = info.vol.where();
    out.line(
        fmt::format("image         {}, {}", shown_bytes(where.path()), shown_size(where.size())));
    if (where.is_part()) {
        out.line(fmt::format("offset        {} ({})", where.offset(), shown_size(where.offset())));
    }
    out.line(fmt::format("type          FAT{}", on.at.width));
    out.line(
        fmt::format("label         {}", info.label.empty() ? "none" : shown_bytes(info.label)));
    out.line(fmt::format("serial        {}", info.serial));
    out.line(fmt::format("sector size   {} bytes", on.at.sector_size));
    out.line(fmt::format("cluster size  {} bytes", on.cluster_bytes()));
    out.line(fmt::format("sectors       {}", on.at.total_sectors));
    out.line(fmt::format("clusters      {}", clusters_text(on, info.clusters)));
    out.line(
        fmt::format("used          {}", clusters_text(on, info.clusters - info.free_clusters)));
    out.line(fmt::format("free          {}", clusters_text(on, info.free_clusters)));
    if (info.vol.boot().active_fat) {
        out.line(fmt::format("mirroring     off, only FAT copy {} is in use",
                             *info.vol.boot().active_fat));
    }
    print_areas(out, info.areas);
}

int run_info(const common_options &common, const info_options &options) {
    return with_volume(common, access::READ, [&](volume &vol) {
        const volume_info info = info_of(vol, options);
        if (common.out.is_json) {
            common.out.document(info_json(info));
        } else {
            print_info(common.out, info);
        }
        return EXIT_DONE;
    });
}

} // namespace

void add_info(command_line *commands) {
    const auto [info, options] =
        commands->add({"info", "Show the volume: areas, alignment, label, clusters",
                       "  qvol info flash.img\n"
                       "  qvol info --json flash.img\n"
                       "  qvol info disk.img#1    the first partition of a disk"},
                      run_info);
    info.value("--pages-from", &options->pages_from,
               "Count flash pages from the start of the disk or of the volume")
        .one_of({"disk", "volume"})
        .shows_default();
}

} // namespace qvol
