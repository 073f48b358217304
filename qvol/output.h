// Output of the commands: text or one JSON document on standard output, errors on standard error.

#pragma once

#include "qvol/error.h"
#include "qvol/json.h"
#include "qvol/path.h"

#include <optional>
#include <string>
#include <string_view>

namespace qvol {

struct output {
    bool is_json = false;
    bool is_quiet = false;
    bool is_verbose = false;

    // Prints a document.
    void document(const json &content) const;

    // Prints a line of the requested output. Not with --json.
    void line(const std::string &text) const;

    // Prints a line about what a command did. Neither with --json nor with --quiet.
    void remark(const std::string &text) const;

    // Prints a line on standard error, only with --verbose.
    void diagnose(const std::string &text) const;
};

// True if standard output is a terminal and NO_COLOR is not set.
[[nodiscard]] bool uses_colour();

// Counts of what a command has copied.
struct tree_totals {
    u64 files = 0;
    u64 directories = 0;
    u64 links = 0;
    u64 bytes = 0; // of files
};
[[nodiscard]] json totals_json(const tree_totals &totals);
[[nodiscard]] std::string totals_text(const tree_totals &totals);

// Prints the totals: a remark, or the document.
void report_totals(const output &out, const tree_totals &totals);

// Prints bytes of the requested output.
void write_bytes(const void *bytes, std::size_t size);

// Throws error if a write to standard output has failed.
void finish_output();

// Writes text to standard error, without a prefix.
void write_error_text(const std::string &text);

// Prints an error to standard error.
void report(const error &failure);
void report(const std::string &message);

// ---- pieces of text ---------------------------------------------------------------------------

[[nodiscard]] std::string shown_size(u64 bytes);                                 // "73.2 MiB"
[[nodiscard]] std::string counted(u64 count, const char *one, const char *many); // "2 files"
[[nodiscard]] const char *kind_name(kind type); // "file", "directory", "link", "label"
[[nodiscard]] std::string attribute_letters(const entry &of); // "d", "l" or "-", then "rhsa" or "-"

// The attributes that letters of "rhsa" name; no value if a letter is not one of them.
[[nodiscard]] std::optional<u32> attributes_of_letters(std::string_view letters);

// A name as listings print it: coloured if uses_colour().
[[nodiscard]] std::string listed_name(const name_codec &names, const entry &of);

// The fields of an entry that every command prints.
[[nodiscard]] json entry_json(volume &vol, const name_path &path, const entry &of);

// The target of a link as text. Throws error if it cannot be read.
[[nodiscard]] std::string link_target(volume &vol, const entry &of);

} // namespace qvol
