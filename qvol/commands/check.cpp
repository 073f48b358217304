// qvol check: checks a volume, and repairs it.

#include "qvol/check/check.h"

#include "core/geometry.h"
#include "core/overlay.h"
#include "qvol/check/recovery.h"
#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/host.h"
#include "qvol/output.h"
#include "qvol/undo.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>

#include <unistd.h>

#include <fmt/core.h>

namespace qvol {

namespace {

struct check_options {
    std::optional<std::string> repair; // its extent
    bool is_dry_run = false;
    bool frees_lost = false;
    bool rebuilds_boot = false;
    std::optional<std::string> undo; // file
    bool has_no_undo = false;

    [[nodiscard]] bool repairs() const {
        return repair.has_value();
    }
    [[nodiscard]] bool is_safe() const {
        return repair == "safe";
    }
    [[nodiscard]] bool writes() const {
        return repairs() && !is_dry_run;
    }
    [[nodiscard]] repair_request request() const {
        return {.extent = is_safe() ? repair_extent::SAFE : repair_extent::ALL,
                .frees_lost = frees_lost,
                .rebuilds_boot = rebuilds_boot};
    }
};

std::string outcome_of(const reported_finding &one, const check_options &options) {
    if (!options.repairs()) {
        return "";
    }
    return (!one.is_repaired     ? "; not repaired: "
            : options.is_dry_run ? "; would be repaired: "
                                 : "; repaired: ") +
           one.outcome;
}

std::string line_of(const reported_finding &one, const check_options &options) {
    const bool is_cluster_in_text = one.kind == found::FAT_COPIES.name;
    std::string line = one.path.empty() ? "" : one.path + ": ";
    if (one.cluster != 0 && !is_cluster_in_text) {
        line += fmt::format("cluster {}: ", one.cluster);
    }
    return line + one.text + outcome_of(one, options);
}

std::string summary_of(const check_result &result, u64 left, const check_options &options) {
    const u64 count = result.findings.size();
    const std::string findings = count == 0 ? "no findings" : counted(count, "finding", "findings");
    const char *form =
        options.is_dry_run ? ", {} would be repaired, {} not" : ", {} repaired, {} not repaired";
    const std::string outcome =
        options.repairs() && count != 0 ? fmt::format(fmt::runtime(form), count - left, left) : "";
    return fmt::format("{}, {}, {} of {} clusters: {}{}",
                       counted(result.directories, "directory", "directories"),
                       counted(result.files, "file", "files"), result.used_clusters,
                       result.clusters, findings, outcome);
}

json finding_json(const reported_finding &one, bool repairs) {
    json result = {{"kind", one.kind},
                   {"path", one.path.empty() ? json(nullptr) : json(one.json_path)},
                   {"cluster", one.cluster == 0 ? json(nullptr) : json(one.cluster)},
                   {"text", one.text},
                   {"repaired", one.is_repaired}};
    if (repairs) {
        result.add("outcome", one.outcome);
    }
    return result;
}

void print_result(const common_options &common, const check_result &result,
                  const check_options &options, u64 left) {
    json findings = json::array();
    for (const reported_finding &one : result.findings) {
        common.out.line(line_of(one, options));
        if (common.out.is_json) {
            findings.push_back(finding_json(one, options.repairs()));
        }
    }
    common.out.remark(summary_of(result, left, options));
    if (common.out.is_json) {
        common.out.document({{"findings", std::move(findings)},
                             {"left", left},
                             {"directories", result.directories},
                             {"files", result.files},
                             {"used_clusters", result.used_clusters},
                             {"clusters", result.clusters}});
    }
}

check_result check_or_repair(const common_options &common, const check_options &options,
                             target *where) {
    const auto backup =
        common.uses_backup_boot ? std::make_unique<backup_boot_sector>(where) : nullptr;
    return options.repairs() ? repair_target(where, common.encoding, options.request())
                             : check_target(where, common.encoding);
}

check_result repair_with_undo(const common_options &common, const check_options &options,
                              target *where, const std::string &file) {
    const undo_recorder undo(where, file);
    try {
        check_result result = check_or_repair(common, options, where);
        if (undo.has_records()) {
            common.out.remark(fmt::format("\"qvol undo {} {}\" takes the repair back",
                                          shown_bytes(common.image), shown_bytes(file)));
        }
        return result;
    } catch (const error &) {
        if (!undo.problem().empty()) {
            throw error(undo.problem());
        }
        throw;
    }
}

// By default beside an image, under the first name that is free. "": none.
std::string undo_file(const check_options &options, const target &where) {
    if (options.undo || !options.writes() || options.is_safe() || options.has_no_undo ||
        where.is_device()) {
        return options.undo.value_or("");
    }
    std::string path = where.file_path() + ".undo";
    for (u32 number = 2; std::filesystem::exists(std::filesystem::symlink_status(path)); number++) {
        path = fmt::format("{}.undo.{}", where.file_path(), number);
    }
    if (::access(split_host_path(path).directory.c_str(), W_OK) != 0) {
        throw system_failure("make the undo file " + shown_bytes(path) +
                             " (--undo FILE makes another one, --no-undo none)");
    }
    return path;
}

int run_check(const common_options &common, const check_options &options) {
    if (options.writes()) {
        common.refuse_backup_boot();
    }
    target where(common.image, options.writes() ? access::WRITE : access::READ);
    core::overlay_medium tried(where.medium(), core::MIN_SECTOR_SIZE);
    std::optional<replaced_medium> dry_run;
    if (options.is_dry_run) {
        if (!where.has_fixed_size()) {
            tried.allow_growth();
        }
        dry_run.emplace(&where, &tried);
    }
    const std::string undo = undo_file(options, where);
    const check_result result = undo.empty() ? check_or_repair(common, options, &where)
                                             : repair_with_undo(common, options, &where, undo);
    const u64 left = static_cast<u64>(
        std::count_if(result.findings.begin(), result.findings.end(),
                      [](const reported_finding &one) { return !one.is_repaired; }));
    print_result(common, result, options, left);
    return left == 0 && (!options.is_dry_run || result.findings.empty()) ? EXIT_DONE : EXIT_FAILED;
}

std::string extent_problem(const std::string &extent) {
    const bool is_known = extent == "true" || extent == "all" || extent == "safe";
    return is_known ? "" : extent + ": neither \"safe\" nor \"all\"";
}

} // namespace

void add_check(command_line *commands) {
    const auto [check, options] =
        commands->add({"check", "Check the volume for errors, and repair them",
                       "  qvol check flash.img\n"
                       "  qvol check --repair flash.img\n"
                       "  qvol check --repair flash.img --undo before.undo"},
                      run_check);
    const auto repair = check
                            .flag_or_value("--repair", &options->repair,
                                           "Repair all that can be repaired without losing a file; "
                                           "--repair=safe: only what cannot be disputed")
                            .check(extent_problem);
    check
        .flag("--free-lost", &options->frees_lost,
              "Free lost clusters instead of storing them in a FOUND directory")
        .needs(repair);
    check
        .flag("--rebuild-boot", &options->rebuilds_boot,
              "Rebuild a lost boot sector that has no backup, from the FATs and directories")
        .needs(repair);
    const auto dry_run =
        check.flag("--dry-run", &options->is_dry_run, "Write nothing: show what --repair would do");
    dry_run.needs(repair);
    const auto undo =
        check
            .value("--undo", &options->undo,
                   "New file for what the repair changes, for \"qvol undo\"; default: IMAGE.undo, "
                   "except for devices and --repair=safe")
            .needs(repair)
            .excludes(dry_run);
    check.flag("--no-undo", &options->has_no_undo, "Make no undo file")
        .needs(repair)
        .excludes(undo);
}

} // namespace qvol
