// A session with one target: the image file or block device, and the volume on it.
//
//   target   opened, locked, not in use by the system; sectors can be read and written. This is
//            enough for formatting.
//   volume   the volume of a target: its FAT, its names, and the order of writes to the medium.
//
// Several can be open at once. Destroying the target closes it.

#pragma once

#include "core/overlay.h"
#include "core/resources.h"
#include "qvol/boot_sector.h"
#include "qvol/directory.h"
#include "qvol/fat_table.h"
#include "qvol/media.h"
#include "qvol/names.h"

#include <optional>
#include <string>
#include <vector>

namespace qvol {

enum class access { READ, WRITE };

class target {
public:
    // Opens and locks the target: exclusively for writing, shared for reading. Throws error, also
    // if a target to write to is mounted.
    target(std::string path, access wanted);
    ~target() = default;
    target(const target &) = delete;
    target &operator=(const target &) = delete;

    [[nodiscard]] const std::string &path() const {
        return path_;
    }
    [[nodiscard]] u64 size() const { // bytes
        return size_;
    }
    [[nodiscard]] bool is_device() const {
        return is_device_;
    }

    [[nodiscard]] bool is_writable() const {
        return is_writable_;
    }

    // Syncs all writes to the medium.
    void sync() const;

    // Cuts or extends an image file.
    void resize(u64 size);

    // Unwritten sectors read as zeros, as in an image file that was just made.
    void mark_fresh() {
        is_fresh_ = true;
    }
    [[nodiscard]] bool is_fresh() const {
        return is_fresh_;
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

    // Logical sector size of a device; 512 for an image file.
    [[nodiscard]] u32 sector_bytes() const;

private:
    std::string path_;
    bool is_device_ = false;
    bool is_writable_;
    bool is_fresh_ = false;
    u64 size_ = 0;
    core::unique_fd fd_;
    target_medium own_medium_;
    core::medium *medium_ = &own_medium_;
};

// For a FAT32 volume whose boot sector is damaged: until the end of its life the backup is read in
// place of the boot sector. Nothing is written.
class backup_boot_sector {
public:
    // Throws error if the target, which is not writable, has no backup of a boot sector.
    explicit backup_boot_sector(target *where);
    ~backup_boot_sector();
    backup_boot_sector(const backup_boot_sector &) = delete;
    backup_boot_sector &operator=(const backup_boot_sector &) = delete;

private:
    backup_boot_sector(target *where, const std::vector<u8> &backup);

    target &where_;
    core::medium &own_;
    core::overlay_medium medium_; // holds the backup as sector 0
};

// Fields of the boot sector that are not part of the areas.
struct boot_fields {
    u32 reserved_sectors;
    u32 fat_copies;
    std::optional<u32> active_fat; // the only copy in use; no value: all are in use
    u32 root_entries;              // 0 on FAT32
    u32 media;
    u32 serial;
    u32 fsinfo_sector; // 0: no FSInfo
    u32 backup_sector; // 0: no backup
    std::string oem_name;
    std::string label; // without its padding; "" if there is no label

    [[nodiscard]] u32 copies_in_use() const {
        return active_fat ? 1 : fat_copies;
    }
};

// The parts of a volume that a command requires: the areas, or also a readable root directory.
enum class required { AREAS, AREAS_AND_ROOT };

// Throws error if the file to replace is locked by another program, mounted, or not a regular file.
void check_replaceable(const std::string &path);

class volume {
public:
    // `target` must outlive the volume. Throws error if there is no volume, or if the
    // target is writable and its boot sector contradicts itself. With required::AREAS the caller
    // checks for contradictions.
    volume(const target &where, const std::string &encoding,
           required wanted = required::AREAS_AND_ROOT);
    volume(const volume &) = delete;
    volume &operator=(const volume &) = delete;

    // Its areas and its medium.
    [[nodiscard]] const core::volume &on() const {
        return on_;
    }
    [[nodiscard]] const boot_fields &boot() const {
        return boot_;
    }
    [[nodiscard]] const name_codec &names() const {
        return names_;
    }
    [[nodiscard]] fat_table &fat() {
        return fat_;
    }
    [[nodiscard]] directory root() {
        return directory(fat_, directory::ROOT);
    }
    [[nodiscard]] const target &where() const {
        return target_;
    }

    // The reasons why nothing may be written to the volume.
    [[nodiscard]] std::vector<contradiction> contradictions() const;

    // Writes new entries in an order that loses only space if interrupted: clusters without
    // references, then the FAT, then the entries. File data must have been written before.
    void commit_additions(const std::vector<directory *> &changed);

    // Writes removals in the opposite order: the entries, then the FAT.
    void commit_removals(const std::vector<directory *> &changed);

    // Updates the free count in FSInfo, if there is one, and syncs. The last step of every command
    // that writes.
    void finish();

    // Ends a failed command: drops uncommitted changes and finishes committed ones if possible.
    void abandon();

private:
    void write_fsinfo();

    const target &target_;
    core::volume on_;
    boot_fields boot_;
    name_codec names_;
    fat_table fat_;
    bool has_committed_ = false;
};

} // namespace qvol
