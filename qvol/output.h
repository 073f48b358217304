// What a command says: text or one JSON document on standard output, remarks on standard error.

#pragma once

#include "qvol/error.h"
#include "qvol/json.h"
#include "qvol/path.h"

#include <string>

namespace qvol {

struct output {
    bool is_json = false;
    bool is_quiet = false;
    bool is_verbose = false;

    // A document, where one is asked for.
    void document(const json &content) const;

    // A line of what was asked for. Not under --json.
    void line(const std::string &text) const;

    // A line about what a command did. Not under --json, nor under --quiet.
    void remark(const std::string &text) const;
};

// Whether standard output takes colours: a terminal does, unless NO_COLOR is set.
[[nodiscard]] bool uses_colour();

// What a command has copied.
struct tree_totals {
    u64 files = 0;
    u64 directories = 0;
    u64 links = 0;
    u64 bytes = 0; // of files
};
[[nodiscard]] json totals_json(const tree_totals &totals);
[[nodiscard]] std::string totals_text(const tree_totals &totals);

// Tells the totals: a remark, or the document.
void report_totals(const output &out, const tree_totals &totals);

// Bytes of what was asked for.
void write_bytes(const void *bytes, std::size_t size);

// Throws error where standard output did not take everything.
void finish_output();

// Text for standard error, as it is.
void write_error_text(const std::string &text);

// Tells an error on standard error.
void report(const error &failure);
void report(const std::string &message);

// ---- pieces of text ---------------------------------------------------------------------------

[[nodiscard]] std::string shown_size(u64 bytes);                                 // "73.2 MiB"
[[nodiscard]] std::string counted(u64 count, const char *one, const char *many); // "2 files"
[[nodiscard]] const char *kind_name(kind type); // "file", "directory", "link", "label"
[[nodiscard]] std::string attribute_letters(const entry &of); // "dlrhsa", "-" for what is not set

// A name as a listing shows it: in colour on a terminal, unless NO_COLOR is set.
[[nodiscard]] std::string listed_name(const name_codec &names, const entry &of);

// What every command tells about an entry.
[[nodiscard]] json entry_json(volume &vol, const name_path &path, const entry &of);

// The target of a link as text; what went wrong where it cannot be read.
[[nodiscard]] std::string link_target(volume &vol, const entry &of);

} // namespace qvol
