// Moments: between the host's clock and the date and time fields of an entry.
//
// A FAT volume keeps local time in steps of two seconds, from 1980 to 2107. With SOURCE_DATE_EPOCH
// set everything is UTC and no stamp is later than that moment, the present included.

#pragma once

#include "fat/bytes.h"

#include <optional>
#include <string>

#include <time.h>

namespace qvol {

struct dos_time {
    fat::u16 date = 0; // (year - 1980) << 9 | month << 5 | day; 0: none
    fat::u16 time = 0; // hours << 11 | minutes << 5 | seconds / 2
};

// Reads SOURCE_DATE_EPOCH and sets the clock of the library and the time zone by it. Throws
// usage_error where it is no number.
void set_up_clock();

[[nodiscard]] time_t present();

// The stamp of a moment; one outside the range of the format becomes its first or last moment.
[[nodiscard]] dos_time dos_time_of(time_t moment);

// The moment of a stamp; nothing where it is no date.
[[nodiscard]] std::optional<time_t> moment_of(const dos_time &stamp);

// "2024-02-29 12:34:56", or dashes where there is no date.
[[nodiscard]] std::string text_of(const dos_time &stamp);

} // namespace qvol
