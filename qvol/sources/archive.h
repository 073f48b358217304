// Reads an archive entry by entry: tar in its dialects, cpio and zip, compressed or not; or the
// entries of a manifest in mtree form.

#pragma once

#include "core/bytes.h"

#include <memory>
#include <optional>
#include <span>
#include <string>

#include <sys/types.h>
#include <time.h>

struct archive;

namespace qvol {

using core::u64;
using core::u8;

// The fields of an entry. Names are bytes as the archive has them, in UTF-8 where it states that.
struct archived_entry {
    std::string name;
    mode_t mode = 0; // kind and permissions
    u64 size = 0;
    bool has_size = false; // some archives state the size after the content
    time_t modified = 0;
    bool has_time = false;
    std::string link_target; // of a symbolic link
    std::string hard_link;   // name of another entry; "": none
    std::string flags;       // words of BSD, separated by commas: "hidden,system"
    std::string sha256;      // in hexadecimal digits; "": not stated
};

class archive_reader {
public:
    // Reads an open file from its start. `name` is for messages. Throws error if it is no archive.
    archive_reader(int fd, std::string name);
    // Reads the text of a manifest, which must live as long.
    archive_reader(const std::string &manifest, std::string name);
    ~archive_reader();
    archive_reader(const archive_reader &) = delete;
    archive_reader &operator=(const archive_reader &) = delete;

    // The next entry; no value after the last one. Throws error if the archive is damaged or cut.
    [[nodiscard]] std::optional<archived_entry> next();

    // Reads the content of the entry. Returns the number of bytes, 0 after the last one.
    [[nodiscard]] std::size_t read(std::span<u8> to);

    // Reads the rest of the content without storing it; returns its length in bytes.
    u64 skip_content();

    // Whether the file is an archive. If not, nothing else can be called.
    [[nodiscard]] bool is_known() const {
        return is_known_;
    }

private:
    struct release {
        void operator()(::archive *handle) const;
    };
    class gzip_file;

    archive_reader(int fd, std::string name, void (*support_formats)(::archive *));

    void start(int opened);
    [[nodiscard]] bool is_harmless_warning() const;
    [[nodiscard]] bool is_of(int family) const;
    [[nodiscard]] u64 find_data(u64 from);
    void finish_entry();
    [[noreturn]] void fail(const std::string &why);
    void refuse_cut();
    void refuse_rest();

    std::string name_;
    std::unique_ptr<gzip_file> gzip_; // null: not compressed by gzip
    int fd_ = -1;                     // of the caller; -1: a manifest
    std::unique_ptr<::archive, release> handle_;
    std::optional<archived_entry> first_; // until next() returns it
    std::string current_;                 // name of the entry
    u64 end_of_content_ = 0;              // of the last entry, in the unpacked archive
    bool has_entry_ = false;
    bool has_ended_ = false;
    bool is_known_ = true;
};

} // namespace qvol
