// qvol map: the areas to scale, the owners of the clusters, fragmentation.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/host.h"
#include "qvol/map_svg.h"
#include "qvol/map_text.h"

#include <fmt/core.h>

namespace qvol {

namespace {

struct map_options {
    std::string svg; // the file to write; "": the map goes to the terminal
    std::string pages_from = "disk";
    bool is_forced = false;
};

json areas_json(const volume_map &map) {
    json list = json::array();
    for (const area &drawn : map.areas) {
        json remainders = json::object();
        for (const u32 page : PAGE_SIZES) {
            remainders.add(std::to_string(page), drawn.past_page(page));
        }
        list.push_back({{"name", drawn.name},
                        {"first_sector", drawn.first},
                        {"sectors", drawn.count},
                        {"offset", drawn.offset()},
                        {"bytes", drawn.bytes()},
                        {"remainders", std::move(remainders)}});
    }
    return list;
}

json extents_json(const std::vector<cluster_extent> &extents) {
    json list = json::array();
    for (const cluster_extent &extent : extents) {
        list.push_back({{"first", extent.first}, {"count", extent.count}});
    }
    return list;
}

json owners_json(const volume_map &map) {
    json list = json::array();
    for (const cluster_owner &owner : map.owners) {
        list.push_back({{"path", json_path(owner.path)},
                        {"kind", kind_name(owner.type)},
                        {"clusters", owner.clusters},
                        {"chain", extents_json(owner.extents)},
                        {"damage", owner.damage.empty() ? json() : json(owner.damage)}});
    }
    return list;
}

// The extents of the clusters in a state, which no path leads to.
json state_json(const volume_map &map, holder state) {
    std::vector<cluster_extent> extents;
    for (const held_extent &part : map.extents) {
        if (part.held_by == state) {
            extents.push_back({part.first, part.count});
        }
    }
    return extents_json(extents);
}

json map_json(const volume_map &map, const target &where) {
    const fragmentation pieces = map.pieces();
    return {{"image", where.path()},
            {"offset", where.offset()},
            {"fat_type", map.fat_type},
            {"bytes", map.bytes},
            {"cluster_size", map.cluster_bytes},
            {"areas", areas_json(map)},
            {"clusters", map.clusters},
            {"files", map.files},
            {"fragmentation",
             {{"percent", pieces.percent()},
              {"chains", pieces.chains},
              {"in_pieces", pieces.in_pieces},
              {"steps", pieces.steps},
              {"jumps", pieces.jumps}}},
            {"owners", owners_json(map)},
            {"free", state_json(map, HOLDER_FREE)},
            {"lost", state_json(map, HOLDER_LOST)},
            {"bad", state_json(map, HOLDER_BAD)}};
}

void write_svg(const volume_map &map, const map_options &options) {
    const std::string picture = map_svg(map);
    make_host_file(options.svg, options.is_forced, std::nullopt, [&](const write_piece &put) {
        put(std::span(reinterpret_cast<const u8 *>(picture.data()), picture.size()));
    });
}

void report_damage(const volume_map &map, const name_codec &names) {
    for (const cluster_owner &owner : map.owners) {
        if (!owner.damage.empty()) {
            report(shown_path(names, owner.path) + ": " + owner.damage);
        }
    }
}

int run_map(const common_options &common, const map_options &options) {
    return with_volume(common, access::READ, [&](volume &vol) {
        const volume_map map = map_volume(vol, parse_page_origin(options.pages_from));
        report_damage(map, vol.names());
        if (!options.svg.empty()) {
            write_svg(map, options);
            common.out.remark(fmt::format("made {}", shown_bytes(options.svg)));
        } else if (!common.out.is_json) {
            print_map(common.out, vol.names(), map, form_of_standard_output());
        }
        if (common.out.is_json) {
            common.out.document(map_json(map, vol.where()));
        }
        return EXIT_DONE;
    });
}

} // namespace

void add_map(command_line *commands) {
    const auto [map, options] =
        commands->add({"map", "Show the areas, the owners of the clusters, and fragmentation",
                       "  qvol map flash.img\n"
                       "  qvol map flash.img --svg map.svg    for a browser"},
                      run_map);
    map.value("--svg", &options->svg, "Write the map as a picture for browsers into this file");
    map.value("--pages-from", &options->pages_from,
              "Count flash pages from the start of the disk or of the volume")
        .one_of({"disk", "volume"})
        .shows_default();
    map.flag("-f,--force", &options->is_forced, "Replace a file that exists");
}

} // namespace qvol
