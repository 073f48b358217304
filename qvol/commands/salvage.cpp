// qvol salvage: copies everything out of a damaged volume that can be found.
//
// The volume is repaired in memory, by the same repair as that of qvol check, and then copied as
// far as it can be read. Nothing is written to it.

#include "core/geometry.h"
#include "core/overlay.h"
#include "qvol/check/recovery.h"
#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/salvage/removed.h"

#include <algorithm>

namespace qvol {

namespace {

struct salvage_options {
    std::string destination;
    bool takes_deleted = false;
};

void refuse_content(const std::string &path) {
    if (is_host_directory(path) && !host_directory(path).is_empty()) {
        throw error("cannot salvage into " + shown_bytes(path) +
                    ": it is not empty; name a new or an empty directory");
    }
}

host_directory open_destination(const std::string &path) {
    if (is_host_directory(path)) {
        return host_directory(path);
    }
    const split_path split = split_host_path(path);
    return host_directory(split.directory).enter(split.name);
}

// Returns the findings. If the repair fails, for example because a sector of the FAT cannot be
// read, what it has done so far counts: the order of its writes allows that.
check_result repair_in_memory(const common_options &common, target *where, salvage_report *report) {
    try {
        return repair_target(where, common.encoding, {.renames = false});
    } catch (const error &why) {
        report->notes.push_back(std::string("not repaired before it was copied: ") + why.what());
        report->is_complete = false;
        return {};
    }
}

// What the findings state about the volume as a whole.
void add_notes(const std::vector<reported_finding> &findings, salvage_report *report) {
    for (const reported_finding &one : findings) {
        if (one.path.empty() && (one.kind != found::LOST.name || one.restores_entry)) {
            report->notes.push_back(one.text + (one.is_repaired ? "; repaired in memory: " : "; ") +
                                    one.outcome);
        }
    }
}

// Lost clusters for which there is no space stay where they are.
void count_lost(const std::vector<reported_finding> &findings, salvage_report *report) {
    const auto left =
        std::count_if(findings.begin(), findings.end(), [](const reported_finding &one) {
            return one.kind == found::LOST.name && !one.is_repaired;
        });
    if (left != 0) {
        report->notes.push_back(counted(static_cast<u64>(left), "lost chain", "lost chains") +
                                " not copied");
        report->is_complete = false;
    }
}

int run_salvage(const common_options &common, const salvage_options &options) {
    target where(common.image, access::READ);
    refuse_content(options.destination);
    [[maybe_unused]] const auto backup = common.open_backup_boot(&where);
    core::medium &original = where.medium();
    core::overlay_medium repaired(original, core::MIN_SECTOR_SIZE);
    if (!where.has_fixed_size()) {
        repaired.allow_growth();
    }
    const replaced_medium in_memory(&where, &repaired);
    salvage_report made;
    const check_result found = repair_in_memory(common, &where, &made);
    volume vol(where, common.encoding, required::AREAS);
    add_notes(found.findings, &made);
    count_lost(found.findings, &made);
    progress bar("salvage", u64{found.used_clusters} * vol.on().cluster_bytes(),
                 common.out.is_quiet);
    const salvage_source source = {vol, original, found.findings};
    tree_salvage tree(source, &made, &bar);
    if (options.takes_deleted) {
        tree.reserve(u"deleted");
    }
    tree.copy(open_destination(options.destination));
    if (options.takes_deleted) {
        removed_salvage(source, tree, &made).copy(open_destination(options.destination));
    }
    print_report(common.out, made);
    return made.is_certain() ? EXIT_DONE : EXIT_FAILED;
}

} // namespace

void add_salvage(command_line *commands) {
    const auto [salvage, options] =
        commands->add({"salvage", "Copy everything that can be found out of a damaged volume",
                       "  qvol salvage flash.img saved\n"
                       "  qvol salvage --deleted flash.img everything"},
                      run_salvage);
    salvage.value("DEST", &options->destination, "New or empty directory to copy into").required();
    salvage.flag("--deleted", &options->takes_deleted, "Take removed files as well");
}

} // namespace qvol
