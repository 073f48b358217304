#include "core/record.h"

#include <cstring>

namespace core {

bool is_live_directory(const u8 *entry) {
    return entry != nullptr && !is_free_slot(entry) &&
           (load(entry, SHORT_ATTR) & ATTR_KIND_MASK) == ATTR_DIRECTORY;
}

bool is_symlink(const u8 *entry) {
    return load(entry, SHORT_CMSEC) == CMSEC_SYMLINK;
}

u32 start_cluster(const u8 *entry) {
    return load(entry, SHORT_START_HIGH) << 16 | load(entry, SHORT_START_LOW);
}

void set_start_cluster(u8 *entry, u32 cluster) {
    store(entry, SHORT_START_HIGH, cluster >> 16);
    store(entry, SHORT_START_LOW, cluster & 0xFFFF);
}

dos_moment dos_moment_of(const tm &local) {
    constexpr int DOS_EPOCH_YEAR = 1980;
    const int years = local.tm_year + 1900 - DOS_EPOCH_YEAR;
    return {static_cast<u16>(static_cast<unsigned>(years) << 9 |
                             static_cast<unsigned>(local.tm_mon + 1) << 5 |
                             static_cast<unsigned>(local.tm_mday)),
            static_cast<u16>(static_cast<unsigned>(local.tm_hour) << 11 |
                             static_cast<unsigned>(local.tm_min) << 5 |
                             static_cast<unsigned>(local.tm_sec / 2))};
}

void store_short_entry(u8 *slot, const short_entry &of) {
    std::memset(slot, 0, DENTRY_SIZE);
    std::memcpy(slot + SHORT_NAME.offset, of.name, SHORT_NAME.size);
    store(slot, SHORT_ATTR, of.attributes);
    store(slot, SHORT_SYSID, of.case_bits);
    store(slot, SHORT_CMSEC, of.is_link ? CMSEC_SYMLINK : 0);
    store(slot, SHORT_MDATE, of.modified.date);
    store(slot, SHORT_MTIME, of.modified.time);
    set_start_cluster(slot, of.start);
}

} // namespace core
