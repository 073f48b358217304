// qvol check: checks a volume, and repairs it.

#include "qvol/check/check.h"

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/output.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

struct check_options {
    bool repairs = false;
};

std::string line_of(const reported_finding &one, bool repairs) {
    const bool is_cluster_in_text = one.kind == found::FAT_COPIES.name;
    std::string line = one.path.empty() ? "" : one.path + ": ";
    if (one.cluster != 0 && !is_cluster_in_text) {
        line += fmt::format("cluster {}: ", one.cluster);
    }
    line += one.text;
    if (repairs) {
        line += (one.is_repaired ? "; repaired: " : "; not repaired: ") + one.outcome;
    }
    return line;
}

std::string summary_of(const check_result &result, u64 left, bool repairs) {
    const u64 count = result.findings.size();
    const std::string findings = count == 0 ? "no findings" : counted(count, "finding", "findings");
    const std::string outcome =
        repairs && count != 0 ? fmt::format(", {} repaired, {} not repaired", count - left, left)
                              : "";
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

void print_result(const common_options &common, const check_result &result, bool repairs,
                  u64 left) {
    json findings = json::array();
    for (const reported_finding &one : result.findings) {
        common.out.line(line_of(one, repairs));
        if (common.out.is_json) {
            findings.push_back(finding_json(one, repairs));
        }
    }
    common.out.remark(summary_of(result, left, repairs));
    if (common.out.is_json) {
        common.out.document({{"findings", std::move(findings)},
                             {"left", left},
                             {"directories", result.directories},
                             {"files", result.files},
                             {"used_clusters", result.used_clusters},
                             {"clusters", result.clusters}});
    }
}

int run_check(const common_options &common, const check_options &options) {
    const bool repairs = options.repairs;
    target where(common.image, repairs ? access::WRITE : access::READ);
    const auto backup = common.open_backup_boot(&where);
    volume vol(where, common.encoding, required::AREAS);
    const check_result result = repairs ? repair_volume(vol) : check_volume(vol);
    const u64 left = static_cast<u64>(
        std::count_if(result.findings.begin(), result.findings.end(),
                      [](const reported_finding &one) { return !one.is_repaired; }));
    print_result(common, result, repairs, left);
    return left == 0 ? EXIT_DONE : EXIT_FAILED;
}

} // namespace

void add_check(command_line *commands) {
    const auto [check, options] =
        commands->add({"check", "Check the volume for errors, and repair them",
                       "  qvol check flash.img\n"
                       "  qvol check --repair flash.img"},
                      run_check);
    check.flag("--repair", &options->repairs, "Repair what can be repaired without losing a file");
}

} // namespace qvol
