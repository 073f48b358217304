// Writing on the host: files and directories made step by step from an open directory, so that no
// name leads elsewhere and no link is followed, the ones just made included.

#pragma once

#include "fat/resources.h"
#include "qvol/names.h"

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include <time.h>

namespace qvol {

// Writes the content of a new file piece by piece.
using write_piece = std::function<void(std::span<const u8>)>;
using write_content = std::function<void(const write_piece &put)>;

// An open directory of the host.
class host_directory {
public:
    // Opens a directory that the user named; links on the way are the user's own.
    explicit host_directory(const std::string &path);

    // Makes a directory below this one, or opens the one that is there. A link is not followed:
    // throws error.
    [[nodiscard]] host_directory enter(const std::string &name) const;

    // Make an entry, under another name until it is whole. What exists is an error, unless
    // `replaces`: then it is exchanged. An entry that cannot be made whole leaves nothing behind.
    void make_file(const std::string &name, bool replaces, std::optional<time_t> modified,
                   const write_content &content) const;
    void make_link(const std::string &name, bool replaces, std::optional<time_t> modified,
                   const std::string &target) const;

    // Stamps this directory.
    void set_modified(std::optional<time_t> modified) const;

    [[nodiscard]] const std::string &path() const {
        return path_;
    }

private:
    host_directory(int fd, std::string path)
        : fd_(new fat::unique_fd(fd)), path_(std::move(path)) {}

    [[nodiscard]] std::string shown(const std::string &name) const;

    std::unique_ptr<fat::unique_fd> fd_;
    std::string path_; // for messages
};

// A file that the user named, made as make_file() does.
void make_host_file(const std::string &path, bool replaces, std::optional<time_t> modified,
                    const write_content &content);

// The two halves of a path that the user named: its directory and its last component.
struct split_path {
    std::string directory;
    std::string name;
};
[[nodiscard]] split_path split_host_path(const std::string &path);

// The path of an entry of a directory.
[[nodiscard]] std::string host_path_below(const std::string &directory, const std::string &name);

[[nodiscard]] bool is_host_directory(const std::string &path); // following links

} // namespace qvol
