// The only source that includes CLI11: its headers take longer to compile than any command.

#include "qvol/command_line.h"

#include "qvol/areas.h"
#include "qvol/times.h"
#include "qvol/whole_volume.h"

#include <new>
#include <sstream>

#include <CLI/CLI.hpp>

namespace qvol {

// ---- declarations -----------------------------------------------------------------------------

const declared_option &declared_option::required() const {
    option_->required();
    return *this;
}

const declared_option &declared_option::count(int least, int most) const {
    option_->expected(least, most);
    return *this;
}

const declared_option &declared_option::one_of(std::initializer_list<const char *> words) const {
    option_->check(CLI::IsMember(std::vector<std::string>(words.begin(), words.end())));
    return *this;
}

const declared_option &declared_option::one_each() const {
    option_->allow_extra_args(false);
    return *this;
}

const declared_option &declared_option::range(u32 least, u32 most) const {
    option_->check(CLI::Range(least, most));
    return *this;
}

const declared_option &declared_option::needs(const declared_option &other) const {
    option_->needs(other.option_);
    return *this;
}

const declared_option &declared_option::excludes(const declared_option &other) const {
    option_->excludes(other.option_);
    return *this;
}

const declared_option &
declared_option::check(std::string (*problem)(const std::string &value)) const {
    option_->check(problem);
    return *this;
}

const declared_option &declared_option::shows_default() const {
    option_->capture_default_str();
    return *this;
}

declared_option declared_command::flag(const char *names, bool *field, const char *help) const {
    return declared_option(command_->add_flag(names, *field, help));
}

declared_option declared_command::value(const char *names, std::string *field,
                                        const char *help) const {
    return declared_option(command_->add_option(names, *field, help));
}

declared_option declared_command::value(const char *names, std::optional<std::string> *field,
                                        const char *help) const {
    return declared_option(command_->add_option_function<std::string>(
        names, [field](const std::string &text) { *field = text; }, help));
}

declared_option declared_command::flag_or_value(const char *name, std::optional<std::string> *field,
                                                const char *help) const {
    return declared_option(command_->add_flag(name, *field, help));
}

declared_option declared_command::value(const char *names, u32 *field, const char *help) const {
    return declared_option(command_->add_option(names, *field, help));
}

declared_option declared_command::value(const char *names, std::optional<u32> *field,
                                        const char *help) const {
    return declared_option(command_->add_option_function<u32>(
        names, [field](u32 number) { *field = number; }, help));
}

declared_option declared_command::value(const char *names, u64 *field, const char *help) const {
    return declared_option(command_->add_option(names, *field, help));
}

declared_option declared_command::list(const char *names, std::vector<std::string> *field,
                                       const char *help) const {
    return declared_option(command_->add_option(names, *field, help));
}

void declared_command::frees_short_help() const {
    const std::string description = command_->get_help_ptr()->get_description();
    command_->set_help_flag("--help", description);
}

// ---- running ----------------------------------------------------------------------------------

namespace {

void add_common_options(const declared_command &command, common_options *common) {
    command
        .value("IMAGE", &common->image,
               "Image file or block device; IMAGE#N: partition N; IMAGE@OFFSET[+SIZE]: a part")
        .required();
    command.flag("--json", &common->out.is_json, "Print one JSON document to standard output");
    command.flag("--quiet,-q", &common->out.is_quiet,
                 "Print only the requested output, and errors");
    command.flag("--verbose,-v", &common->out.is_verbose, "Print diagnostics as well");
    command.value("--encoding", &common->encoding, "Encoding of names on the host (default UTF-8)");
    command.flag("--backup-boot", &common->uses_backup_boot,
                 "Read FAT32 by the backup of its boot sector");
}

int run_and_report(const std::function<int()> &work) {
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
        report(std::string("out of memory"));
    } catch (const std::exception &failure) {
        report(std::string("unexpected error: ") + failure.what());
    }
    return EXIT_FAILED;
}

// Prints the help if it was requested, else the error in the command line.
int print_help_or_error(const CLI::App &app, const CLI::ParseError &why) {
    std::ostringstream out;
    std::ostringstream err;
    const int status = app.exit(why, out, err) == 0 ? EXIT_DONE : EXIT_USAGE;
    write_bytes(out.str().data(), out.str().size());
    write_error_text(err.str());
    return status;
}

} // namespace

command_line::command_line()
    : app_(std::make_unique<CLI::App>(
          "Builds, inspects and changes FAT volumes in image files and on block "
          "devices.",
          "qvol")) {
    app_->require_subcommand(1);
    app_->set_version_flag("--version", "qvol " QVOL_VERSION);
    app_->footer("Exit status: 0 done, 1 failed, 2 wrong usage.\n"
                 "\"qvol COMMAND --help\" describes a command and its options.");
}

command_line::~command_line() = default;

declared_command command_line::add(const command_text &text,
                                   std::function<int(const common_options &)> work) {
    CLI::App *command = app_->add_subcommand(text.name, text.summary);
    command->footer(std::string("Examples:\n") + text.examples);
    command->callback([this, work = std::move(work)] { chosen_ = work; });
    const declared_command declared(command);
    add_common_options(declared, &common_);
    return declared;
}

int command_line::run(int argc, char **argv) {
    try {
        app_->parse(argc, argv);
    } catch (const CLI::ParseError &failure) {
        return run_and_report([&] { return print_help_or_error(*app_, failure); });
    }
    return run_and_report([this] {
        set_up_clock();
        return chosen_(common_);
    });
}

int with_volume(const common_options &common, access wanted,
                const std::function<int(volume &vol)> &work) {
    target where(common.image, wanted);
    const auto backup = common.open_backup_boot(&where);
    volume vol(where, common.encoding);
    common.out.diagnose(areas_text(vol));
    if (wanted == access::WRITE) {
        refuse_truncated(vol);
    }
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
