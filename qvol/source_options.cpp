#include "qvol/source_options.h"

namespace qvol {

void add_source_rules(const declared_command &command, source_options *options) {
    command
        .list("--exclude", &options->excluded,
              "Leave out entries whose name matches a pattern; with a slash the whole path")
        .one_each();
    command
        .list("--exclude-from", &options->excluded_files,
              "Leave out what matches a line of this file")
        .one_each();
    command.flag("--skip-special", &options->skips_special,
                 "Leave out entries that are neither file, directory nor link");
    command.flag("--dereference", &options->dereferences,
                 "Store what links lead to instead of the links");
    command.value("--contents", &options->contents,
                  "Directory with the files of a manifest (default: that of the manifest)");
    command
        .value("--times", &options->times,
               "Times of files: keep, clamp to SOURCE_DATE_EPOCH or the present, or none (default: "
               "clamp if SOURCE_DATE_EPOCH is set, else keep)")
        .one_of({"keep", "clamp", "none"});
    command.value("--timezone", &options->time_zone,
                  "Time zone of the stored times, such as Europe/Berlin or +05:30");
    command
        .list("--attr", &options->attributes,
              "PATTERN=rhsa: attributes of what matches the pattern; the last match counts")
        .one_each();
    command.flag("--read-only-from-mode", &options->is_read_only_from_mode,
                 "Make files read-only whose mode has no write permission");
}

void add_source_options(const declared_command &command, source_options *options) {
    command
        .list("--from", &options->from,
              "Directory, archive (tar, cpio, zip) or manifest (mtree) whose content is copied; "
              "\"-\": from standard input; \":/DIR\" at the end: below this directory")
        .one_each();
    add_source_rules(command, options);
}

void remark_on_sources(const output &out, const source_tree &tree) {
    const u64 links = tree.hard_links();
    if (links != 0) {
        out.remark(
            counted(links, "hard link is stored as a copy", "hard links are stored as copies"));
    }
}

} // namespace qvol
