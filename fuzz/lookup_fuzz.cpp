// Any bytes as a FAT and directories: looks up a name, adds a numeric tail, reads every long name.

#include "fuzz/medium.h"

#include <cerrno>

using namespace fat;
using namespace fuzzing;

namespace {

bool is_known_result(int result) {
    return result >= 0 || result == -ENOENT || result == -EINVAL || result == -EIO ||
           result == -EEXIST || result == -EFAULT;
}

void gather_all_names(oentry *dir) {
    dentry_walk walk(dir);
    if (!walk.slots.reserve()) {
        return;
    }
    const heap_ptr<u8> buffer = zeroed_bytes(sv->sector_size);
    constexpr u32 MAX_ENTRIES = 600;
    for (u32 index = 0; index < MAX_ENTRIES; index++) {
        u8 *entry = nullptr;
        if (walk_to(&walk, index, &entry) < 0) {
            return;
        }
        if (entry_type(entry) != DENTRY_LFN || load(entry, SLOT_ORDINAL) < SLOT_LAST) {
            continue;
        }
        u8 *slot = nullptr;
        if (fat_get_dentry(dir, index, &slot, buffer.get(), nullptr) < 0) {
            continue;
        }
        u16 units[LONG_NAME_UNITS] = {};
        require(is_known_result(get_long_name(dir, index, &slot, buffer.get(), units)));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    input in(data, size);
    const std::uint8_t shape = in.byte();
    const std::uint8_t where = in.byte();
    std::array<char, 80> text = in.text<80>();
    static fat_super volume;
    open_medium(&volume, shape, &in);

    u8 dentry[DENTRY_SIZE] = {};
    oentry dir = {};
    dir.start = where % 8;
    dir.dentry = (where & 0x80) != 0 ? dentry : nullptr;
    dir.allocated = 16384;

    fat_name name = {};
    const int found = fat_find_dentry(&dir, text.data(), &name);
    require(is_known_result(found));
    if (name.dosName != nullptr) {
        require(is_known_result(add_numeric_tail(&dir, name.dosName)));
    }
    release_name(&name);
    gather_all_names(&dir);
    require(fat_free_clus(2, volume.num_clusters + 1) != 0);
    return 0;
}
