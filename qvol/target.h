// What a command works on: an image file, a block device, or a part of one. It is opened, locked
// and not in use by the system. That is enough for formatting; see session.h for the volume on it.
//
// Destroying the target, and every part of it, closes the file.

#pragma once

#include "core/resources.h"
#include "qvol/media.h"

#include <memory>
#include <optional>
#include <string>

namespace qvol {

using core::u32;
using core::u64;

enum class access { READ, WRITE };

// Where a file that is being written may have holes. Programs that write an image to a medium may
// leave out its holes, so that bytes of an earlier content stay there.
enum class holes {
    NONE,   // nowhere: it has an earlier content itself
    UNUSED, // where nothing is stored, such as in free clusters
    ZEROS,  // also where zeros are stored
};

// Where a volume is, by its name on the command line: PATH, PATH#N for a partition, PATH@OFFSET or
// PATH@OFFSET+SIZE for a range of bytes.
struct place {
    std::string path;
    u32 partition = 0; // from 1 on; 0: no partition
    std::optional<u64> offset;
    std::optional<u64> bytes; // no value: to the end of the file

    [[nodiscard]] bool is_part() const {
        return partition != 0 || offset;
    }
};

// A file that has the whole text as its name is no part of another one, nor is a text that does
// not begin with the name of a file. Throws usage_error if a number is invalid.
[[nodiscard]] place parse_place(const std::string &text);

// Whether the path is that of a block device.
[[nodiscard]] bool is_block_device(const std::string &path);

class target {
public:
    // Opens and locks the file: exclusively for writing, shared for reading. Throws error, also if
    // a target to write to is mounted.
    target(const std::string &name, access wanted);

    // A part of an open target. `name` is for messages.
    target(const target &whole, std::string name, u64 offset, u64 bytes);

    ~target() = default;
    target(const target &) = delete;
    target &operator=(const target &) = delete;

    [[nodiscard]] const std::string &path() const { // as on the command line
        return name_;
    }
    // Of the file or device that it is a part of, or all of.
    [[nodiscard]] const std::string &file_path() const;
    [[nodiscard]] u64 size() const { // bytes
        return size_;
    }
    [[nodiscard]] u64 offset() const { // bytes from the start of the file
        return offset_;
    }
    // Bytes from the start of the disk: a device can be a partition of one.
    [[nodiscard]] u64 offset_on_disk() const;

    // The bytes that exist now: a partition can end past a truncated image, and writes extend an
    // image that was cut to its content, also in memory.
    [[nodiscard]] u64 present_bytes() const;

    [[nodiscard]] bool is_part() const {
        return part_.has_value();
    }
    [[nodiscard]] bool is_device() const;
    [[nodiscard]] bool is_writable() const;

    // Whether it is neither cut nor extended: everything but a whole image file.
    [[nodiscard]] bool has_fixed_size() const {
        return is_part() || is_device();
    }

    // Syncs all writes to the medium.
    void sync() const;

    // Cuts or extends an image file.
    void resize(u64 size);

    // For an image file that was just made: its unwritten sectors read as zeros.
    void allow_holes(holes where) {
        holes_ = where;
    }
    [[nodiscard]] holes allowed_holes() const {
        return holes_;
    }

    // Restricts formatting to the first `bytes` bytes.
    void limit_size(u64 bytes) {
        size_ = bytes;
    }

    // What volumes are read from and written to: the opened file or device, or what replaces it.
    [[nodiscard]] core::medium &medium() const {
        return *medium_;
    }
    void replace_medium(core::medium *other) {
        medium_ = other;
    }

    // True if the first MiB, where volumes, partition tables and other file systems have their
    // headers, is blank: all zero, or all 0xFF as on erased flash.
    [[nodiscard]] bool is_blank() const;

    // Logical sector size of a device, or of the disk that a table of partitions describes; 512 for
    // other image files.
    [[nodiscard]] u32 sector_bytes() const;

    // For what else reads and writes the file: tables of partitions.
    [[nodiscard]] int descriptor() const;

private:
    struct open_file;

    void set_part(u64 offset, u64 bytes);
    void set_part(const place &where);

    std::string name_;
    std::shared_ptr<open_file> file_;
    holes holes_ = holes::NONE;
    u64 offset_ = 0;
    u64 size_;
    u32 disk_sector_bytes_ = 0; // by a table of partitions; 0: not known
    target_medium own_medium_;
    std::optional<core::medium_part> part_;
    core::medium *medium_ = &own_medium_;
};

// Another medium in place of that of a target, while it lives.
class replaced_medium {
public:
    replaced_medium(target *where, core::medium *other) : where_(*where), own_(where->medium()) {
        where_.replace_medium(other);
    }
    ~replaced_medium() {
        where_.replace_medium(&own_);
    }
    replaced_medium(const replaced_medium &) = delete;
    replaced_medium &operator=(const replaced_medium &) = delete;

private:
    target &where_;
    core::medium &own_;
};

// Throws error if the file to replace is locked by another program, mounted, or not a regular file.
void check_replaceable(const std::string &path);

} // namespace qvol
