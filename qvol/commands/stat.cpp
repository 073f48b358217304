// qvol stat: shows the fields of one entry, its location and its chain.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"

#include <fmt/core.h>

namespace qvol {

namespace {

struct stat_options {
    std::string path;
};

json root_json(const resolved_path &root) {
    return {{"path", "/"},
            {"kind", "directory"},
            {"first_cluster", root.parent.start()},
            {"short_name", nullptr}};
}

std::vector<cluster_extent> chain_of(volume &vol, const resolved_path &where) {
    const u32 start = where.is_root() ? where.parent.start() : where.found->start();
    return start != 0 ? extents_of(vol.fat().chain(start)) : std::vector<cluster_extent>();
}

json chain_json(const std::vector<cluster_extent> &extents) {
    json list = json::array();
    for (const cluster_extent &extent : extents) {
        list.push_back({{"first", extent.first}, {"count", extent.count}});
    }
    return list;
}

json location_json(const resolved_path &where) {
    const core::slot_place location = where.parent.location(where.found->slot);
    return {{"sector", location.sector},
            {"offset", location.offset},
            {"slot", where.found->slot},
            {"slots", where.found->slot - where.found->first_slot + 1}};
}

json stat_json(volume &vol, const resolved_path &where, const std::vector<cluster_extent> &chain) {
    json result = where.is_root() ? root_json(where) : entry_json(vol, where.path, *where.found);
    if (!where.is_root()) {
        result.add("entry", location_json(where));
    }
    result.add("chain", chain_json(chain));
    return result;
}

std::string chain_text(const std::vector<cluster_extent> &extents) {
    std::string text;
    for (const auto [first, count] : extents) {
        text += text.empty() ? "" : ", ";
        text +=
            count == 1 ? fmt::format("{}", first) : fmt::format("{}-{}", first, first + count - 1);
    }
    return text.empty() ? "none" : text;
}

void print_fields(const output &out, volume &vol, const resolved_path &where) {
    const entry &found = *where.found;
    const core::slot_place location = where.parent.location(found.slot);
    out.line(fmt::format("kind        {}", kind_name(found.type())));
    out.line(fmt::format("short name  {}", vol.names().shown(short_name_units(found.alias(), 0))));
    out.line(fmt::format("long name   {}", found.has_long_name ? "yes" : "no"));
    out.line(fmt::format("size        {} bytes", found.is_directory() ? 0 : found.size()));
    out.line(fmt::format("modified    {}", text_of(found.modified())));
    out.line(fmt::format("attributes  {} ({:#04x})", attribute_letters(found), found.attributes()));
    out.line(fmt::format("entry       sector {}, offset {}, slot {}, {} slots", location.sector,
                         location.offset, found.slot, found.slot - found.first_slot + 1));
    if (found.type() == kind::LINK) {
        out.line("target      " + shown_bytes(link_target(vol, found)));
    }
}

int run_stat(const common_options &common, const stat_options &options) {
    return with_volume(common, access::READ, [&](volume &vol) {
        const resolved_path where = resolve(vol, options.path);
        const std::vector<cluster_extent> chain = chain_of(vol, where);
        if (common.out.is_json) {
            common.out.document(stat_json(vol, where, chain));
            return EXIT_DONE;
        }
        common.out.line("path        " + shown_path(vol.names(), where.path));
        if (where.is_root()) {
            common.out.line("kind        directory");
        } else {
            print_fields(common.out, vol, where);
        }
        common.out.line("chain       " + chain_text(chain));
        return EXIT_DONE;
    });
}

} // namespace

void add_stat(command_line *commands) {
    const auto [stat, options] =
        commands->add({"stat", "Show one entry: its fields, its location, its clusters",
                       "  qvol stat flash.img /photos/IMG_0001.jpg\n"
                       "  qvol stat --json flash.img /"},
                      run_stat);
    stat.value("PATH", &options->path, "Path in the volume").required();
}

} // namespace qvol
