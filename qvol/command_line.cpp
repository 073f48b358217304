#include "qvol/command_line.h"

#include "qvol/times.h"

#include <new>
#include <sstream>

#include <fmt/format.h>

namespace qvol {

namespace {

void add_common_options(CLI::App *command, common_options *common) {
    command->add_option("IMAGE", common->image, "Image file or block device")->required();
    command->add_flag("--json", common->out.is_json, "One JSON document on standard output");
    command->add_flag("--quiet,-q", common->out.is_quiet, "Only what was asked for, and errors");
    command->add_flag("--verbose,-v", common->out.is_verbose, "The library's diagnostics as well");
    command->add_option("--encoding", common->encoding, "Encoding of names (default UTF-8)");
}

int run_chosen(const std::function<int()> &work) {
    try {
        const int status = work();
        finish_output();
        return status;
    } catch (const usage_error &failure) {
        report(failure);
        return EXIT_USAGE;
    } catch (const error &failure) {
        report(failure);
    } catch (const std::bad_alloc &) {
        report(std::string("no memory"));
    } catch (const std::exception &failure) {
        report(std::string("unexpected failure: ") + failure.what());
    }
    return EXIT_FAILED;
}

// A request for help, or what is wrong with the command line.
int print_instead(const CLI::App &app, const CLI::ParseError &why) {
    std::ostringstream out;
    std::ostringstream err;
    const int status = app.exit(why, out, err) == 0 ? EXIT_DONE : EXIT_USAGE;
    write_bytes(out.str().data(), out.str().size());
    write_error_text(err.str());
    return status;
}

} // namespace

command_line::command_line()
    : app_("Builds, looks into and changes FAT16 and FAT32 volumes in image files and on block "
           "devices.",
           "qvol") {
    app_.require_subcommand(1);
    app_.set_version_flag("--version", "qvol " QVOL_VERSION);
    app_.footer("Exit status: 0 done, 1 failed, 2 wrong usage.\n"
                "\"qvol COMMAND --help\" tells about a command.");
}

CLI::App *command_line::add(const command_text &text,
                            std::function<int(const common_options &)> run) {
    CLI::App *command = app_.add_subcommand(text.name, text.summary);
    add_common_options(command, &common_);
    command->footer(fmt::format("Examples:\n{}", text.examples));
    command->callback([this, run = std::move(run)] { chosen_ = run; });
    return command;
}

int command_line::run(int argc, char **argv) {
    try {
        app_.parse(argc, argv);
    } catch (const CLI::ParseError &failure) {
        return run_chosen([&] { return print_instead(app_, failure); });
    }
    if (!common_.out.is_verbose) {
        fat_set_diagnostics(nullptr);
    }
    return run_chosen([this] {
        set_up_clock();
        return chosen_(common_);
    });
}

int with_volume(const common_options &common, access wanted,
                const std::function<int(volume &vol)> &work) {
    const target where(common.image, wanted);
    volume vol(where, common.encoding);
    try {
        const int status = work(vol);
        if (wanted == access::WRITE) {
            vol.finish();
        }
        return status;
    } catch (...) {
        vol.abandon();
        throw;
    }
}

} // namespace qvol
