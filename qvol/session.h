// The volume of a target: its FAT, its names, and the order of writes to the medium. Several can be
// open at once.

#pragma once

#include "core/overlay.h"
#include "qvol/boot_sector.h"
#include "qvol/directory.h"
#include "qvol/fat_table.h"
#include "qvol/names.h"
#include "qvol/target.h"

#include <optional>
#include <string>
#include <vector>

namespace qvol {

// For a FAT32 volume whose boot sector is damaged: until the end of its life the backup is read in
// place of the boot sector. Nothing is written.
class backup_boot_sector {
public:
    // Throws error if the target, which is not writable, has no backup of a boot sector.
    explicit backup_boot_sector(target *where);

private:
    backup_boot_sector(target *where, const std::vector<u8> &backup);

    core::overlay_medium medium_; // holds the backup as sector 0
    replaced_medium replaced_;
};

// Why the boot sector describes no volume; "": it describes one, or something else is there.
[[nodiscard]] std::string lost_boot_sector(const target &where);

// The backup of a FAT32 boot sector; no value if no backup describes a volume.
[[nodiscard]] std::optional<std::vector<u8>> find_boot_backup(const target &where);

// Writes the boot sector, and syncs it.
void write_boot_sector(const target &where, const std::vector<u8> &sector);

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
    bool has_label_field;

    [[nodiscard]] u32 copies_in_use() const {
        return active_fat ? 1 : fat_copies;
    }
};

// The parts of a volume that a command requires: the areas, or also a readable root directory.
enum class required { AREAS, AREAS_AND_ROOT };

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
