#include "core/format.h"

#include "core/resources.h"
#include "core/table.h"

#include <algorithm>

namespace core {

namespace {

constexpr u32 BUFFER_BYTES = 256 * 1024;
constexpr u8 BLANK_LABEL[SHORT_NAME.size] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};

// One volume being written, and a buffer that is zero between the writes.
class formatting {
public:
    formatting(const volume &to, const boot_request &request, const dos_moment &made)
        : to_(to), request_(request), made_(made),
          room_(std::max(BUFFER_BYTES / to.at.sector_size, 1U)),
          buffer_(zeroed_bytes(room_, to.at.sector_size)) {}

    [[nodiscard]] fault run() {
        if (buffer_ == nullptr) {
            return fault::NO_MEMORY;
        }
        const bool is_written = write_boot_sector(0) && clear_reserved_area() &&
                                (!to_.is_wide() || write_fat32_sectors()) && write_fats() &&
                                write_root_directory();
        return is_written ? fault::NONE : fault::WRITE;
    }

private:
    [[nodiscard]] u8 *bytes() const {
        return buffer_.get();
    }

    // Writes one sector from the buffer, and clears the buffer.
    [[nodiscard]] bool write_sector(u64 sector) {
        const int written = to_.write(sector, bytes(), 1);
        std::memset(bytes(), 0, to_.at.sector_size);
        return written == 1;
    }

    // Writes an area: the first sector from the buffer, zeros to the others. Clears the buffer.
    [[nodiscard]] bool write_area(u64 first, u32 sectors) {
        for (u32 done = 0; done < sectors;) {
            const u32 count = std::min(sectors - done, room_);
            const int written = to_.write(first + done, bytes(), count);
            std::memset(bytes(), 0, to_.at.sector_size);
            if (written != static_cast<int>(count)) {
                return false;
            }
            done += count;
        }
        return true;
    }

    [[nodiscard]] bool write_boot_sector(u64 sector) {
        store_boot_sector(bytes(), to_.at, request_);
        sign_sector_end(bytes(), to_.at.sector_size);
        return write_sector(sector);
    }

    [[nodiscard]] bool clear_reserved_area() {
        for (u32 sector = 1; sector < to_.at.fat_start; sector++) {
            if (!write_sector(sector)) {
                return false;
            }
        }
        return true;
    }

    // Intentional: FSInfo has no backup.
    [[nodiscard]] bool write_fat32_sectors() {
        store_boot_sector(bytes(), to_.at, request_);
        const boot_numbers boot(bytes());
        std::memset(bytes(), 0, to_.at.sector_size);
        if (boot.backup_sector != 0 && !write_boot_sector(boot.backup_sector)) {
            return false;
        }
        store_fsinfo(bytes());
        return write_sector(boot.fsinfo_sector);
    }

    void store_in_first_sector(u32 index, u32 value) { // of a FAT
        store_entry(to_.at.width, index, bytes() + to_.entry_offset(index), value);
    }

    [[nodiscard]] bool write_fats() {
        bool is_written = true;
        for (u32 copy = 0; copy < request_.fats && is_written; copy++) {
            store_in_first_sector(0, 0xFFFFFF00 | request_.media); // all higher bits are set
            store_in_first_sector(1, FAT_END_MARK);
            if (to_.is_wide()) {
                store_in_first_sector(NEW_ROOT_CLUSTER, FAT_END_MARK);
            }
            const u64 first = to_.at.fat_start + static_cast<u64>(copy) * to_.at.fat_sectors;
            is_written = write_area(first, to_.at.fat_sectors);
        }
        return is_written;
    }

    // Intentional: the requested label is stored in the boot sector only; this one is always blank.
    [[nodiscard]] bool write_root_directory() {
        store_short_entry(bytes(),
                          {.name = BLANK_LABEL, .attributes = ATTR_VOLUME, .modified = made_});
        const u32 sectors =
            to_.is_wide() ? to_.at.sectors_per_cluster : to_.at.data_start - to_.at.root_start;
        return write_area(to_.at.root_start, sectors);
    }

    const volume &to_;
    const boot_request &request_;
    const dos_moment &made_;
    u32 room_; // sectors
    heap_ptr<u8> buffer_;
};

} // namespace

fault format(const volume &to, const boot_request &request, const dos_moment &made) {
    return formatting(to, request, made).run();
}

} // namespace core
