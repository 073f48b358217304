// qvol owner: prints the path that a cluster belongs to.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/tree_walk.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

struct owner_options {
    u32 cluster = 0;
};

bool chain_contains(fat_table &table, u32 start, u32 cluster) {
    if (start == 0) {
        return false;
    }
    try {
        const std::vector<u32> clusters = table.chain(start);
        return std::find(clusters.begin(), clusters.end(), cluster) != clusters.end();
    } catch (const error &) {
        return false; // "qvol check" reports broken chains
    }
}

// All owners of the cluster: in a healthy volume there is at most one.
std::vector<name_path> find_owners(volume &vol, u32 cluster) {
    std::vector<name_path> owners;
    const directory root = vol.root();
    if (chain_contains(vol.fat(), root.start(), cluster)) {
        owners.emplace_back();
    }
    tree_visitor visitor;
    visitor.visit = [&](const name_path &path, const entry &found, bool) {
        if (chain_contains(vol.fat(), found.start(), cluster)) {
            owners.push_back(path);
        }
        return true;
    };
    visitor.fail = [](const name_path &, const std::string &) {}; // "qvol check" reports them
    walk_tree(vol, {}, root, visitor);
    return owners;
}

std::string state_of(const volume &vol, u32 value, bool is_owned) {
    if (value == core::FAT_FREE) {
        return "free";
    }
    return value == vol.on().bad_mark() ? "bad" : is_owned ? "used" : "lost";
}

int run_owner(const common_options &common, const owner_options &options) {
    const u32 cluster = options.cluster;
    return with_volume(common, access::READ, [&](volume &vol) {
        const u32 value = vol.fat().get(cluster);
        const std::vector<name_path> owners =
            value == core::FAT_FREE ? std::vector<name_path>() : find_owners(vol, cluster);
        const std::string state = state_of(vol, value, !owners.empty());
        json paths = json::array();
        for (const name_path &path : owners) {
            paths.push_back(json_path(path));
            common.out.line(shown_path(vol.names(), path));
        }
        if (common.out.is_json) {
            common.out.document(
                {{"cluster", cluster}, {"state", state}, {"owners", std::move(paths)}});
        }
        if (owners.empty()) {
            report(fmt::format("cluster {} has no owner: it is {}", cluster, state));
        }
        return owners.empty() ? EXIT_FAILED : EXIT_DONE;
    });
}

} // namespace

void add_owner(command_line *commands) {
    const auto [owner, options] = commands->add(
        {"owner", "Print the path that a cluster belongs to", "  qvol owner flash.img 1234"},
        run_owner);
    owner.value("CLUSTER", &options->cluster, "Number of the cluster").required();
}

} // namespace qvol
