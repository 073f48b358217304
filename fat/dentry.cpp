// Directory entries.

#include "fat/internal.h"

#include <cstring>

namespace fat {

void dos_time_date(const tm *t, u16 *date, u16 *time) {
    constexpr int DOS_EPOCH_YEAR = 1980;
    const int years = t->tm_year + 1900 - DOS_EPOCH_YEAR;
    *date = static_cast<u16>(static_cast<unsigned>(years) << 9 |
                             static_cast<unsigned>(t->tm_mon + 1) << 5 |
                             static_cast<unsigned>(t->tm_mday));
    *time = static_cast<u16>(static_cast<unsigned>(t->tm_hour) << 11 |
                             static_cast<unsigned>(t->tm_min) << 5 |
                             static_cast<unsigned>(t->tm_sec / 2));
}

void set_entry_time(u8 *entry) {
    const time_t now = fat_clock(nullptr);
    const tm *local = localtime(&now);
    if (local == nullptr) {
        return; // a moment that has no calendar date
    }
    u16 date = 0;
    u16 time = 0;
    dos_time_date(local, &date, &time);
    store(entry, SHORT_MTIME, time);
    store(entry, SHORT_MDATE, date);
}

int set_volume_entry(u8 *entry, const u8 *label) {
    std::memcpy(entry + SHORT_NAME.offset, label, SHORT_NAME.size);
    store(entry, SHORT_ATTR, ATTR_VOLUME);
    set_entry_time(entry);
    return 0;
}

} // namespace fat
