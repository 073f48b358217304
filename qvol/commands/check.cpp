// qvol check: what is wrong with a volume, and mending what can be mended.

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

std::string line_of(const reported_finding &of, bool repairs) {
    std::string line = of.path.empty() ? "" : of.path + ": ";
    if (of.cluster != 0) {
        line += fmt::format("cluster {}: ", of.cluster);
    }
    line += of.text;
    if (repairs) {
        line += (of.is_repaired ? "; mended: " : "; left: ") + of.outcome;
    }
    return line;
}

std::string summary_of(const check_result &of, u64 left, bool repairs) {
    const u64 count = of.findings.size();
    const std::string findings = count == 0 ? "no findings" : counted(count, "finding", "findings");
    const std::string outcome =
        repairs && count != 0 ? fmt::format(", {} mended, {} left", count - left, left) : "";
    return fmt::format(
        "{}, {}, {} of {} clusters: {}{}", counted(of.directories, "directory", "directories"),
        counted(of.files, "file", "files"), of.used_clusters, of.clusters, findings, outcome);
}

json finding_json(const reported_finding &of, bool repairs) {
    json result = {{"kind", of.kind},
                   {"path", of.path.empty() ? json(nullptr) : json(of.json_path)},
                   {"cluster", of.cluster == 0 ? json(nullptr) : json(of.cluster)},
                   {"text", of.text},
                   {"repaired", of.is_repaired}};
    if (repairs) {
        result.add("outcome", of.outcome);
    }
    return result;
}

void tell(const common_options &common, const check_result &result, bool repairs, u64 left) {
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
    const target where(common.image, repairs ? access::WRITE : access::READ);
    volume vol(where, common.encoding, mounted::AREAS);
    const check_result result = repairs ? repair_volume(vol) : check_volume(vol);
    const u64 left = static_cast<u64>(
        std::count_if(result.findings.begin(), result.findings.end(),
                      [](const reported_finding &one) { return !one.is_repaired; }));
    tell(common, result, repairs, left);
    return left == 0 ? EXIT_DONE : EXIT_FAILED;
}

} // namespace

void add_check(command_line *commands) {
    const auto [check, options] =
        commands->add({"check", "Find what is wrong with the volume, and mend it",
                       "  qvol check flash.img\n"
                       "  qvol check --repair flash.img"},
                      run_check);
    check.flag("--repair", &options->repairs, "Mend what can be mended without losing a file");
}

} // namespace qvol
