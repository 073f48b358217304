// qvol verify: compares the files of a volume with a manifest, a directory or another volume.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/flashing/uncached_medium.h"
#include "qvol/verifying/verification.h"

#include <fmt/core.h>

namespace qvol {

namespace {

struct verify_options {
    std::string source;
};

json difference_json(const listed_tree &tree, const difference &found) {
    const auto listed = tree.find(found.path);
    json document = {
        {"path", listed != tree.end() ? json_path(listed->second.path) : "/" + found.path},
        {"difference", difference_word(found.type)},
        {"text", found.text}};
    document.add("first_byte", found.first ? json(*found.first) : json(nullptr));
    document.add("last_byte", found.last ? json(*found.last) : json(nullptr));
    return document;
}

tree_totals totals_of(const listed_tree &tree) {
    tree_totals totals;
    for (const auto &[path, listed] : tree) {
        totals.files += listed.content.type == kind::FILE ? 1 : 0;
        totals.directories += listed.content.type == kind::DIRECTORY ? 1 : 0;
        totals.links += listed.content.type == kind::LINK ? 1 : 0;
        totals.bytes += listed.content.size.value_or(0);
    }
    return totals;
}

void report_differences(const output &out, const listed_tree &tree,
                        const std::vector<difference> &differences) {
    json documents = json::array();
    for (const difference &found : differences) {
        out.line(shown_manifest_path(found.path) + ": " + found.text);
        documents.push_back(difference_json(tree, found));
    }
    out.remark(totals_text(totals_of(tree)) + ": " +
               (differences.empty() ? "no differences"
                                    : counted(differences.size(), "difference", "differences")));
    if (out.is_json) {
        json document = totals_json(totals_of(tree));
        document.add("differences", std::move(documents));
        out.document(document);
    }
}

// The source is opened first: a device is read only when everything else is right.
int run_verify(const common_options &common, const verify_options &options) {
    const auto source =
        open_verification_source(options.source, common.encoding, common.out.is_quiet);
    target where(common.image, access::READ);
    uncached_medium medium(where);
    const replaced_medium uncached(&where, where.is_device() ? &medium : &where.medium());
    [[maybe_unused]] const auto backup = common.open_backup_boot(&where);
    volume vol(where, common.encoding);
    listed_tree tree = list_tree(vol);
    const std::vector<difference> differences =
        find_differences(vol, &tree, source.get(), common.out.is_quiet);
    report_differences(common.out, tree, differences);
    return differences.empty() ? EXIT_DONE : EXIT_FAILED;
}

} // namespace

void add_verify(command_line *commands) {
    const auto [verify, options] =
        commands->add({"verify", "Compare a volume with a manifest, a directory or another volume",
                       "  qvol verify /dev/sdx1 flash.manifest\n"
                       "  qvol verify /dev/sdx1 flash.img    the exact byte of each difference\n"
                       "  qvol verify flash.img flash.manifest\n"
                       "  qvol manifest flash.img | qvol verify /dev/sdx1 -"},
                      run_verify);
    verify
        .value("SOURCE", &options->source,
               "Manifest, or - for standard input; directory; image file or block device")
        .required();
}

} // namespace qvol
