// Converts between the time of the host and the date and time fields of an entry.
//
// A FAT volume stores local time in steps of two seconds, from 1980 to 2107. With SOURCE_DATE_EPOCH
// set, times are UTC and no stamp is later than that moment, not even that of the present.

#pragma once

#include "core/bytes.h"

#include <compare>
#include <optional>
#include <string>

#include <time.h>

namespace qvol {

struct dos_time {
    core::u16 date = 0; // (year - 1980) << 9 | month << 5 | day; 0: no date
    core::u16 time = 0; // hours << 11 | minutes << 5 | seconds / 2

    auto operator<=>(const dos_time &) const = default;
};

// Sets the clock and the time zone by SOURCE_DATE_EPOCH. Throws usage_error if that
// is not a number.
void set_up_clock();

// The time zone of stamps: a name such as Europe/Berlin, or an offset such as UTC or +05:30. Throws
// usage_error if the system does not know it.
void set_time_zone(const std::string &text);

// Stamps after SOURCE_DATE_EPOCH are stored as they are.
void allow_late_stamps();

// Whether SOURCE_DATE_EPOCH is set: equal content is to give equal results.
[[nodiscard]] bool is_clock_set();

// SOURCE_DATE_EPOCH if set, else now.
[[nodiscard]] time_t current_time();

// The stamp of a moment, clamped to the range of the format.
[[nodiscard]] dos_time dos_time_of(time_t moment);

// The stamp of "2024-02-29", "2024-02-29 12:34:56" (also with "T", and without seconds) or
// "@SECONDS" since 1970. Throws usage_error if the format does not have it, or if it is later than
// SOURCE_DATE_EPOCH.
[[nodiscard]] dos_time parse_time(const std::string &option, const std::string &text);

// The moment of a stamp; nothing if it is not a valid date.
[[nodiscard]] std::optional<time_t> moment_of(const dos_time &stamp);

// "2024-02-29 12:34:56", or dashes if it is not a valid date.
[[nodiscard]] std::string text_of(const dos_time &stamp);

} // namespace qvol
