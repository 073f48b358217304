// qvol undo: takes back what a repair has changed.

#include "qvol/undo.h"

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"

#include <fmt/core.h>

namespace qvol {

namespace {

struct undo_options {
    std::string file;
};

int run_undo(const common_options &common, const undo_options &options) {
    common.refuse_backup_boot();
    target where(common.image, access::WRITE);
    const undo_totals totals = undo_changes(&where, options.file);
    common.out.remark(fmt::format("{}: {} changed back", shown_bytes(common.image),
                                  counted(totals.sectors, "sector", "sectors")));
    if (common.out.is_json) {
        common.out.document({{"sectors", totals.sectors}, {"bytes", totals.bytes}});
    }
    return EXIT_DONE;
}

} // namespace

void add_undo(command_line *commands) {
    const auto [undo, options] =
        commands->add({"undo", "Take back a repair",
                       "  qvol check flash.img --repair --undo before.undo\n"
                       "  qvol undo flash.img before.undo"},
                      run_undo);
    undo.value("FILE", &options->file, "What --undo has stored").required();
}

} // namespace qvol
