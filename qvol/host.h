// Writing on the host. Files and directories are made relative to an open directory, so no name
// leads elsewhere and no link is followed, not even one that qvol has just made.

#pragma once

#include "core/resources.h"
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
using write_content = std::function<void(const write_piece &write)>;

// Sets what else belongs to a new file, after its content.
using finish_file = std::function<void(int fd)>;

// An open directory of the host.
class host_directory {
public:
    // Opens a directory that the user named. Follows links: the path is trusted.
    explicit host_directory(const std::string &path);

    // Makes a directory below this one, or opens the existing one. Throws error for a link instead
    // of following it.
    [[nodiscard]] host_directory enter(const std::string &name) const;

    // Make an entry, under a temporary name until it is complete. An existing entry is an error, or
    // is replaced if `replaces` is set. A failure leaves no new entry.
    void make_file(
        const std::string &name, bool replaces, std::optional<time_t> modified,
        const write_content &content, const finish_file &finish = [](int) {}) const;
    void make_link(const std::string &name, bool replaces, std::optional<time_t> modified,
                   const std::string &target) const;

    [[nodiscard]] bool is_empty() const;

    // Whether the file system of this directory refuses the name as too long.
    [[nodiscard]] bool is_too_long(const std::string &name) const;

    // Sets the modification time of this directory.
    void set_modified(std::optional<time_t> modified) const;

    [[nodiscard]] const std::string &path() const {
        return path_;
    }
    [[nodiscard]] int descriptor() const {
        return fd_->get();
    }

private:
    host_directory(int fd, std::string path, bool is_new)
        : fd_(new core::unique_fd(fd)), path_(std::move(path)), is_new_(is_new) {}

    [[nodiscard]] std::string shown(const std::string &name) const;

    std::unique_ptr<core::unique_fd> fd_;
    std::string path_;    // for messages
    bool is_new_ = false; // made by enter(): its names are free
};

// Makes a file that the user named, as make_file() does.
void make_host_file(const std::string &path, bool replaces, std::optional<time_t> modified,
                    const write_content &content);

// A path split into its directory and its last component.
struct split_path {
    std::string directory;
    std::string name;
};
[[nodiscard]] split_path split_host_path(const std::string &path);

// The path of an entry in a directory.
[[nodiscard]] std::string host_path_below(const std::string &directory, const std::string &name);

// Makes the names in the directory durable. Throws error.
void sync_directory(const std::string &path);

[[nodiscard]] bool is_host_directory(const std::string &path); // following links

} // namespace qvol
