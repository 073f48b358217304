// The command line: commands declare themselves and their options; run() calls the chosen one.
//
//     struct copy_options {
//         std::vector<std::string> paths;
//         bool is_forced = false;
//     };
//
//     int run_copy(const common_options &common, const copy_options &options);
//
//     void add_copy(command_line *commands) {
//         const auto [copy, options] =
//             commands->add({"copy", "Copy files", "  qvol copy flash.img /a /b"}, run_copy);
//         copy.list("PATH", &options->paths, "Files to copy").required();
//         copy.flag("-f,--force", &options->is_forced, "Replace existing files");
//     }

#pragma once

#include "qvol/error.h"
#include "qvol/output.h"

#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace qvol {

// IMAGE and the options of every command.
struct common_options {
    std::string image;
    std::string encoding = "UTF-8";
    bool uses_backup_boot = false;
    output out;

    // If requested, the backup is read instead of the boot sector while the result lives.
    [[nodiscard]] std::unique_ptr<backup_boot_sector> open_backup_boot(target *where) const {
        if (where->is_writable()) {
            refuse_backup_boot();
        }
        return uses_backup_boot ? std::make_unique<backup_boot_sector>(where) : nullptr;
    }
    // For a command that writes.
    void refuse_backup_boot() const {
        if (uses_backup_boot) {
            throw usage_error("--backup-boot: only for commands that read");
        }
    }
};

// Name, summary and examples of a command, for the help.
struct command_text {
    const char *name;
    const char *summary;
    const char *examples; // lines, printed after its options
};

// An option of a command. Each call adds a constraint.
class declared_option {
public:
    static constexpr int ANY_NUMBER = -1;

    explicit declared_option(CLI::Option *option) : option_(option) {}

    const declared_option &required() const;
    const declared_option &count(int least, int most) const; // of values; `most` may be ANY_NUMBER
    const declared_option &one_of(std::initializer_list<const char *> words) const;
    const declared_option &one_each() const; // one value for each time that it is given
    const declared_option &range(u32 least, u32 most) const;
    const declared_option &needs(const declared_option &other) const;
    const declared_option &excludes(const declared_option &other) const;

    // `problem` returns why a value is invalid, or "".
    const declared_option &check(std::string (*problem)(const std::string &value)) const;

    // Prints the current value of the field in the help.
    const declared_option &shows_default() const;

private:
    CLI::Option *option_;
};

// A command whose options are being declared. Each option is bound to a field, which already has
// its default value and must live until the command has run. Names are written as "-f,--force"; a
// name without dashes is a positional argument.
class declared_command {
public:
    explicit declared_command(CLI::App *command) : command_(command) {}

    declared_option flag(const char *names, bool *field, const char *help) const;
    declared_option value(const char *names, std::string *field, const char *help) const;
    declared_option value(const char *names, std::optional<std::string> *field,
                          const char *help) const;
    declared_option value(const char *names, u32 *field, const char *help) const;

    // A flag that may have a value after "="; without one the field is "true".
    declared_option flag_or_value(const char *name, std::optional<std::string> *field,
                                  const char *help) const;
    declared_option value(const char *names, std::optional<u32> *field, const char *help) const;
    declared_option value(const char *names, u64 *field, const char *help) const;
    declared_option list(const char *names, std::vector<std::string> *field,
                         const char *help) const;

    // Makes -h free for another option: the help is --help.
    void frees_short_help() const;

private:
    CLI::App *command_;
};

class command_line {
public:
    command_line();
    ~command_line();
    command_line(const command_line &) = delete;
    command_line &operator=(const command_line &) = delete;

    // Adds a command with the common options and IMAGE. `work` returns the exit status.
    declared_command add(const command_text &text, std::function<int(const common_options &)> work);

    // A command with its own options. They live as long as the command line.
    template <typename Options>
    std::pair<declared_command, Options *>
    add(const command_text &text, int (*work)(const common_options &, const Options &)) {
        const auto options = std::make_shared<Options>();
        const declared_command command = add(
            text, [options, work](const common_options &common) { return work(common, *options); });
        return {command, options.get()};
    }

    // Parses and runs. Returns the exit status of the program.
    int run(int argc, char **argv);

private:
    std::unique_ptr<CLI::App> app_;
    common_options common_;
    std::function<int(const common_options &)> chosen_;
};

inline constexpr int EXIT_DONE = 0;
inline constexpr int EXIT_FAILED = 1;
inline constexpr int EXIT_USAGE = 2;

// Runs `work` on the volume. Changes are complete and synced before the function returns.
int with_volume(const common_options &common, access wanted,
                const std::function<int(volume &vol)> &work);

} // namespace qvol
