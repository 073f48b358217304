// A session with one target: the image file or block device, and the volume on it.
//
//   target   opened, locked, not in use by the system; sector transfers work. Formatting needs
//   this. volume   a target that has been mounted: its FAT, its names, and the order in which
//   changes
//            reach the medium.
//
// The library has one open volume; so has the program. Both objects end it with their scope.

#pragma once

#include "qvol/boot_sector.h"
#include "qvol/directory.h"
#include "qvol/fat_table.h"
#include "qvol/names.h"

#include <optional>
#include <string>
#include <vector>

namespace qvol {

enum class access { READ, WRITE };

class target {
public:
    // Opens the target. Writing takes an exclusive lock and refuses what is mounted; reading takes
    // a shared lock. Throws error.
    target(std::string path, access wanted);
    ~target();
    target(const target &) = delete;
    target &operator=(const target &) = delete;

    [[nodiscard]] const std::string &path() const {
        return path_;
    }
    [[nodiscard]] u64 size() const; // bytes
    [[nodiscard]] bool is_device() const {
        return is_device_;
    }

    [[nodiscard]] bool is_writable() const {
        return is_writable_;
    }

    // Puts everything written on the medium.
    void sync() const;

    // Cuts or extends an image file.
    void resize(u64 size) const;

    // What was never written reads as zeroes: so it is with an image file that was just made.
    void note_fresh() {
        is_fresh_ = true;
    }
    [[nodiscard]] bool is_fresh() const {
        return is_fresh_;
    }

    // Only so many bytes from the start are there for a volume to be made.
    void use_first(u64 bytes) const;

    // Whether its first MiB, in which volumes, partition tables and other file systems tell of
    // themselves, is as on a blank medium: all zero, or all 0xFF as on erased flash.
    [[nodiscard]] bool is_blank() const;

    // The sectors that a device is read by; 512 of an image file.
    [[nodiscard]] u32 sector_bytes() const;

private:
    std::string path_;
    bool is_device_ = false;
    bool is_writable_ = false;
    bool is_fresh_ = false;
};

// What the boot sector says beyond the geometry that the library keeps.
struct boot_fields {
    u32 reserved_sectors;
    u32 fat_copies;
    u32 root_entries; // 0 on FAT32
    u32 media;
    u32 serial;
    u32 fsinfo_sector; // 0: none
    u32 backup_sector; // 0: none
    std::string oem_name;
    std::string label; // without its padding; "" where there is none
};

// What a command has to find to work with a volume: areas alone, or a root directory as well.
enum class mounted { AREAS, WITH_ROOT };

// Refuses a file that is to be replaced while another program has locked it or the system has it
// mounted, and what is no regular file. Throws error.
void check_replaceable(const std::string &path);

class volume {
public:
    // Mounts. `target` has to outlive the volume. Throws error where no volume is found, and on a
    // target opened for writing where the boot sector contradicts itself; with the areas alone,
    // this is left to the caller.
    volume(const target &where, const std::string &encoding, mounted wanted = mounted::WITH_ROOT);
    volume(const volume &) = delete;
    volume &operator=(const volume &) = delete;

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

    // Why nothing may be written on the volume.
    [[nodiscard]] std::vector<contradiction> contradictions() const;

    // Writes changes in an order whose interruption loses space at most: what nothing refers to
    // yet, the FAT, the entries. The data of files has been written before.
    void commit_additions(const std::vector<directory *> &changed);

    // The other way round: entries that go, then what they referred to.
    void commit_removals(const std::vector<directory *> &changed);

    // Writes the true count of free clusters, where the volume keeps one, and synchronises. The
    // last step of every writing command.
    void finish();

    // Ends a command that failed: what was not committed is dropped, what was is finished as far as
    // that goes.
    void abandon();

private:
    void write_fsinfo();

    const target &target_;
    boot_fields boot_;
    name_codec names_;
    fat_table fat_;
    bool has_committed_ = false;
};

} // namespace qvol
