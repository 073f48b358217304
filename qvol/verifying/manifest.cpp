#include "qvol/verifying/manifest.h"

#include "qvol/error.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iostream>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr std::string_view HEADER = "# qvol manifest";
constexpr std::size_t DIGEST_DIGITS = 64;

// ---- escapes ----

// As sha256sum has them, and \xHH for other control characters.
std::string escaped(std::string_view bytes) {
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<u8>(c);
        if (c == '\\') {
            text += "\\\\";
        } else if (c == '\n') {
            text += "\\n";
        } else if (c == '\r') {
            text += "\\r";
        } else if (byte < 0x20 || byte == 0x7F) {
            text += fmt::format("\\x{:02x}", byte);
        } else {
            text += c;
        }
    }
    return text;
}

std::string component_text(const name_codec &names, std::u16string_view name) {
    const std::optional<std::string> host = names.to_host(name);
    if (host && name.find(u'/') == std::u16string_view::npos) {
        return escaped(*host);
    }
    std::string text;
    for (const char16_t unit : name) {
        const std::optional<std::string> one =
            unit == u'/' ? std::nullopt : names.to_host(std::u16string_view(&unit, 1));
        text += one ? escaped(*one) : fmt::format("\\u{:04x}", static_cast<u32>(unit));
    }
    return text;
}

// ---- writing ----

void append_file(const std::string &path, const expected_entry &file, std::string *text) {
    *text += fmt::format("# size {}\n", file.size.value_or(0));
    if (file.digest.pieces.size() > 1) {
        *text += "# pieces";
        for (const std::string &piece : file.digest.pieces) {
            *text += ' ' + piece;
        }
        *text += '\n';
    }
    if (!file.digest.rest.empty()) {
        *text += fmt::format("# rest {}\n", file.digest.rest);
    }
    const bool is_escaped = path.find('\\') != std::string::npos;
    *text += fmt::format("{}{}  {}\n", is_escaped ? "\\" : "", file.digest.whole, path);
}

// ---- reading ----

bool is_digest(std::string_view text, std::size_t digits) {
    return text.size() == digits && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

class manifest_reader {
public:
    explicit manifest_reader(std::string name) : name_(std::move(name)) {
        result_.lists_all = false;
        result_.states_rest = false;
    }

    manifest read(std::istream &from) {
        for (std::string line; std::getline(from, line);) {
            number_++;
            if (line.starts_with('#')) {
                read_comment(line);
            } else {
                read_file(line);
            }
        }
        if (from.bad()) {
            throw system_failure("read " + name_);
        }
        if (result_.entries.empty() && !result_.lists_all) {
            throw error(name_ + " is not a manifest: it is empty");
        }
        return std::move(result_);
    }

private:
    [[noreturn]] void refuse(const char *why) const {
        throw error(fmt::format("{} is not a manifest: line {} {}", name_, number_, why));
    }

    // Comments that are not of qvol are skipped, but not after its header.
    void read_comment(const std::string &line) {
        if (line == HEADER) {
            result_.lists_all = result_.states_rest = true;
            return;
        }
        if (!result_.lists_all) {
            return;
        }
        const std::size_t blank = line.find(' ', 2);
        const std::string word = line.substr(0, blank);
        const std::string value = blank == std::string::npos ? "" : line.substr(blank + 1);
        if (word == "# directory") {
            add(value, {kind::DIRECTORY, {}, {}, {}});
        } else if (word == "# link") {
            link_ = value;
        } else if (word == "# target" && !link_.empty()) {
            add(std::exchange(link_, ""), {kind::LINK, {}, {}, value});
        } else if (word == "# size") {
            file_.size = number_in(value);
        } else if (word == "# rest" && is_digest(value, DIGEST_DIGITS)) {
            file_.digest.rest = value;
        } else if (word == "# pieces") {
            read_pieces(value);
        } else {
            refuse("is not a line of a manifest");
        }
    }

    // The size of all pieces, in the head of the manifest, or the pieces of a file.
    void read_pieces(std::string_view value) {
        constexpr std::string_view BEFORE = "of ";
        constexpr std::string_view AFTER = " bytes";
        if (value.starts_with(BEFORE) && value.ends_with(AFTER)) {
            value.remove_prefix(BEFORE.size());
            value.remove_suffix(AFTER.size());
            result_.piece_bytes = number_in(std::string(value));
            return;
        }
        while (!value.empty()) {
            const std::string_view piece = value.substr(0, value.find(' '));
            if (!is_digest(piece, PIECE_DIGITS)) {
                refuse("has an invalid digest of a piece");
            }
            file_.digest.pieces.emplace_back(piece);
            value.remove_prefix(std::min(piece.size() + 1, value.size()));
        }
    }

    [[nodiscard]] u64 number_in(const std::string &text) const {
        u64 number = 0;
        const char *end = text.data() + text.size();
        const auto [rest, failure] = std::from_chars(text.data(), end, number);
        if (failure != std::errc() || rest != end) {
            refuse("has an invalid number");
        }
        return number;
    }

    // "DIGEST  PATH", or "DIGEST *PATH"; a backslash before it: PATH has escapes.
    void read_file(const std::string &line) {
        const bool is_escaped = line.starts_with('\\');
        const std::string_view text = std::string_view(line).substr(is_escaped ? 1 : 0);
        if (text.size() < DIGEST_DIGITS + 3 || text[DIGEST_DIGITS] != ' ' ||
            (text[DIGEST_DIGITS + 1] != ' ' && text[DIGEST_DIGITS + 1] != '*') ||
            !is_digest(text.substr(0, DIGEST_DIGITS), DIGEST_DIGITS)) {
            refuse("is not \"SHA-256  PATH\"");
        }
        file_.digest.whole = text.substr(0, DIGEST_DIGITS);
        check_pieces();
        const std::string_view path = text.substr(DIGEST_DIGITS + 2);
        add(is_escaped ? std::string(path) : escaped(path), std::exchange(file_, {}));
    }

    // The only piece of a small file is the file.
    void check_pieces() {
        if (result_.piece_bytes == 0 || !file_.size) {
            return;
        }
        const u64 count = (*file_.size + result_.piece_bytes - 1) / result_.piece_bytes;
        if (count == 1 && file_.digest.pieces.empty()) {
            file_.digest.pieces = {file_.digest.whole.substr(0, PIECE_DIGITS)};
        }
        if (file_.digest.pieces.size() != count) {
            refuse("has not the pieces of its size before it");
        }
    }

    void add(std::string_view path, expected_entry entry) {
        while (path.starts_with("./") || path.starts_with('/')) {
            path.remove_prefix(path.starts_with('/') ? 1 : 2);
        }
        if (path.empty()) {
            refuse("has no path");
        }
        if (!result_.entries.emplace(path, std::move(entry)).second) {
            refuse("has the path of an earlier one");
        }
    }

    std::string name_; // for messages
    manifest result_;
    u64 number_ = 0;      // of the line
    std::string link_;    // without its target
    expected_entry file_; // what precedes its line
};

} // namespace

std::string manifest_path(const name_codec &names, const name_path &path) {
    std::string text;
    for (const std::u16string &name : path) {
        text += (text.empty() ? "" : "/") + component_text(names, name);
    }
    return text;
}

std::string manifest_target(std::string_view target) {
    return escaped(target);
}

std::string shown_manifest_path(const std::string &path) {
    return shown_bytes("/" + path);
}

std::string manifest_text(const manifest &of) {
    std::string text = std::string(HEADER) + '\n';
    if (of.piece_bytes != 0) {
        text += fmt::format("# pieces of {} bytes\n", of.piece_bytes);
    }
    for (const auto &[path, entry] : of.entries) {
        if (entry.type == kind::DIRECTORY) {
            text += fmt::format("# directory {}\n", path);
        } else if (entry.type == kind::LINK) {
            text += fmt::format("# link {}\n# target {}\n", path, entry.target);
        } else {
            append_file(path, entry, &text);
        }
    }
    return text;
}

bool is_digest_manifest(std::string_view head) {
    if (head.starts_with('#')) {
        return true;
    }
    head.remove_prefix(head.starts_with('\\') ? 1 : 0);
    return is_digest(head.substr(0, DIGEST_DIGITS), DIGEST_DIGITS);
}

manifest read_manifest(const std::string &path) {
    if (path == "-") {
        return manifest_reader("standard input").read(std::cin);
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw system_failure("open " + shown_bytes(path));
    }
    return manifest_reader(shown_bytes(path)).read(file);
}

} // namespace qvol
