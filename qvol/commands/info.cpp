// qvol info: geometry, areas and their alignment, label, serial number, clusters in use.

#include "qvol/areas.h"
#include "qvol/command_line.h"
#include "qvol/commands/commands.h"

#include "fat/internal.h"

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace qvol {

namespace {

// The largest page from 2 to 16 KiB that a byte offset is a multiple of; 0 for none.
u32 alignment_of(u64 offset) {
    const auto page = std::find_if(PAGE_SIZES.rbegin(), PAGE_SIZES.rend(),
                                   [&](u32 size) { return offset % size == 0; });
    return page != PAGE_SIZES.rend() ? *page : 0;
}

std::string label_of(volume &vol) {
    const directory root = vol.root();
    for (const auto &[slot, found] : root.entries()) {
        if (found.type() == kind::LABEL && !found.name.empty()) {
            return json_text(found.name);
        }
    }
    return "";
}

json areas_json(const volume &vol) {
    json list = json::array();
    for (const area &a : areas_of(vol)) {
        list.push_back({{"name", a.name},
                        {"first_sector", a.first},
                        {"sectors", a.count},
                        {"offset", a.offset()},
                        {"bytes", a.bytes()},
                        {"aligned_to", alignment_of(a.offset())}});
    }
    return list;
}

json info_json(volume &vol) {
    const u32 clusters = vol.fat().last_cluster() - fat::FIRST_DATA_CLUSTER + 1;
    const u32 free_clusters = vol.fat().free_count();
    return {{"image", vol.where().path()},
            {"image_bytes", vol.where().size()},
            {"fat_type", sv->fat_type},
            {"label", label_of(vol)},
            {"boot_label", vol.boot().label},
            {"serial",
             fmt::format("{:04X}-{:04X}", vol.boot().serial >> 16, vol.boot().serial & 0xFFFF)},
            {"oem_name", vol.boot().oem_name},
            {"sector_size", sv->sector_size},
            {"cluster_size", fat::cluster_bytes()},
            {"total_sectors", sv->total_sectors},
            {"fat_copies", vol.boot().fat_copies},
            {"root_entries", vol.boot().root_entries},
            {"root_cluster", sv->root_clus},
            {"areas", areas_json(vol)},
            {"clusters", clusters},
            {"free_clusters", free_clusters},
            {"used_clusters", clusters - free_clusters},
            {"free_bytes", u64{free_clusters} * fat::cluster_bytes()}};
}

std::string cluster_line(const json &info, const char *key) {
    const u64 count = info[key].get<u64>();
    return fmt::format("{} ({})", count, shown_size(count * fat::cluster_bytes()));
}

void print_areas(const output &out, const json &areas) {
    out.line("");
    out.line("area            first sector     sectors        bytes  aligned to");
    for (const json &a : areas) {
        const u64 page = a["aligned_to"].get<u64>();
        out.line(fmt::format("{:<15} {:>12} {:>11} {:>12}  {}", a["name"].get<std::string>(),
                             a["first_sector"].get<u64>(), a["sectors"].get<u64>(),
                             a["bytes"].get<u64>(),
                             page != 0 ? shown_size(page) : "less than 2 KiB"));
    }
}

void print_info(const output &out, const json &info) {
    const auto text = [&](const char *key) { return shown_bytes(info[key].get<std::string>()); };
    out.line(fmt::format("image         {}, {}", text("image"),
                         shown_size(info["image_bytes"].get<u64>())));
    out.line(fmt::format("type          FAT{}", sv->fat_type));
    out.line(fmt::format("label         {}", text("label").empty() ? "none" : text("label")));
    out.line(fmt::format("serial        {}", text("serial")));
    out.line(fmt::format("sector size   {} bytes", sv->sector_size));
    out.line(fmt::format("cluster size  {} bytes", fat::cluster_bytes()));
    out.line(fmt::format("sectors       {}", sv->total_sectors));
    out.line(fmt::format("clusters      {}", cluster_line(info, "clusters")));
    out.line(fmt::format("used          {}", cluster_line(info, "used_clusters")));
    out.line(fmt::format("free          {}", cluster_line(info, "free_clusters")));
    print_areas(out, info["areas"]);
}

int run_info(const common_options &common) {
    return with_volume(common, access::READ, [&](volume &vol) {
        const json info = info_json(vol);
        if (common.out.is_json) {
            common.out.document(info);
        } else {
            print_info(common.out, info);
        }
        return EXIT_DONE;
    });
}

} // namespace

void add_info(command_line *commands) {
    commands->add({"info", "Tell about the volume: areas, alignment, label, clusters",
                   "  qvol info flash.img\n"
                   "  qvol info --json flash.img"},
                  run_info);
}

} // namespace qvol
