#include "qvol/output.h"

#include "qvol/file_data.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <utility>

#include <fmt/core.h>
#include <unistd.h>

namespace qvol {

namespace {

constexpr u32 MAX_LINK_BYTES = 4096;

int output_failure = 0; // errno of the first write to standard output that failed

void remember_output_failure() {
    output_failure = output_failure == 0 ? errno : output_failure;
}

void flush_output() {
    if (std::fflush(stdout) != 0) {
        remember_output_failure();
    }
}

const char *colour_of(kind type) {
    switch (type) {
    case kind::DIRECTORY:
        return "\x1b[1;34m";
    case kind::LINK:
        return "\x1b[1;36m";
    default:
        return "";
    }
}

} // namespace

bool uses_colour() {
    static const bool is_wanted = [] {
        const char *no_colour = std::getenv("NO_COLOR");
        return isatty(STDOUT_FILENO) == 1 && (no_colour == nullptr || *no_colour == '\0');
    }();
    return is_wanted;
}

void write_bytes(const void *bytes, std::size_t size) {
    if (std::fwrite(bytes, 1, size, stdout) != size) { // finish_output() reports it
        remember_output_failure();
    }
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): called like its siblings
void output::document(const json &content) const {
    const std::string text = content.text() + '\n';
    write_bytes(text.data(), text.size());
}

void output::line(const std::string &text) const {
    if (!is_json) {
        write_bytes((text + '\n').data(), text.size() + 1);
    }
}

void output::remark(const std::string &text) const {
    if (!is_quiet) {
        line(text);
    }
}

void output::diagnose(const std::string &text) const {
    if (is_verbose) {
        report(text);
    }
}

json totals_json(const tree_totals &totals) {
    return {{"files", totals.files},
            {"directories", totals.directories},
            {"links", totals.links},
            {"bytes", totals.bytes}};
}

std::string totals_text(const tree_totals &totals) {
    return fmt::format("{}, {}, {}, {}", counted(totals.files, "file", "files"),
                       counted(totals.directories, "directory", "directories"),
                       counted(totals.links, "link", "links"), shown_size(totals.bytes));
}

void report_totals(const output &out, const tree_totals &totals) {
    out.remark(totals_text(totals));
    if (out.is_json) {
        out.document(totals_json(totals));
    }
}

void finish_output() {
    flush_output();
    if (output_failure != 0) {
        throw system_failure("write to standard output", output_failure);
    }
}

// A failure to write to standard error cannot be reported anywhere; the exit status remains.
void write_error_text(const std::string &text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
}

void report(const std::string &message) {
    flush_output();
    write_error_text(fmt::format("qvol: {}\n", message));
}

void report(const error &failure) {
    report(std::string(failure.what()));
    for (const std::string &detail : failure.details()) {
        write_error_text(fmt::format("  {}\n", detail));
    }
}

// ---- pieces of text ---------------------------------------------------------------------------

std::string shown_size(u64 bytes) {
    constexpr const char *UNITS[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        return fmt::format("{} bytes", bytes);
    }
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    while (value >= 1024 && unit + 1 < std::size(UNITS)) {
        value /= 1024;
        unit++;
    }
    return fmt::format("{:.1f} {}", value, UNITS[unit]);
}

std::string counted(u64 count, const char *one, const char *many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
}

const char *kind_name(kind type) {
    switch (type) {
    case kind::DIRECTORY:
        return "directory";
    case kind::LINK:
        return "link";
    case kind::LABEL:
        return "label";
    default:
        return "file";
    }
}

namespace {

constexpr std::pair<char, u32> ATTRIBUTE_LETTERS[] = {{'r', core::ATTR_READ_ONLY},
                                                      {'h', core::ATTR_HIDDEN},
                                                      {'s', core::ATTR_SYSTEM},
                                                      {'a', core::ATTR_ARCHIVE}};

} // namespace

std::string attribute_letters(const entry &of) {
    std::string letters = of.is_directory() ? "d" : of.type() == kind::LINK ? "l" : "-";
    for (const auto &[letter, bit] : ATTRIBUTE_LETTERS) {
        letters += (of.attributes() & bit) != 0 ? letter : '-';
    }
    return letters;
}

std::optional<u32> attributes_of_letters(std::string_view letters) {
    u32 attributes = 0;
    for (const char letter : letters) {
        const auto *known = std::find_if(std::begin(ATTRIBUTE_LETTERS), std::end(ATTRIBUTE_LETTERS),
                                         [letter](const auto &one) { return letter == one.first; });
        if (known == std::end(ATTRIBUTE_LETTERS)) {
            return std::nullopt;
        }
        attributes |= known->second;
    }
    return attributes;
}

std::string listed_name(const name_codec &names, const entry &of) {
    const std::string name = names.shown(of.name);
    const std::string colour = uses_colour() ? colour_of(of.type()) : "";
    return colour.empty() ? name : colour + name + "\x1b[0m";
}

std::string link_target(volume &vol, const entry &of) {
    if (of.size() > MAX_LINK_BYTES) {
        throw error(fmt::format("the link target has {} bytes, at most {} are allowed", of.size(),
                                MAX_LINK_BYTES));
    }
    return read_text(vol.fat(), of.start(), of.size());
}

json entry_json(volume &vol, const name_path &path, const entry &of) {
    json result = {
        {"path", json_path(path)},
        {"name", json_text(of.name)},
        {"short_name", json_text(short_name_units(of.alias(), 0))},
        {"kind", kind_name(of.type())},
        {"size", of.is_directory() ? 0 : of.size()},
        {"modified", text_of(of.modified())},
        {"attributes", attribute_letters(of)},
        {"first_cluster", of.start()},
    };
    if (of.type() == kind::LINK) {
        try {
            result.add("target", link_target(vol, of));
        } catch (const error &) {
            result.add("target", nullptr);
        }
    }
    return result;
}

} // namespace qvol
