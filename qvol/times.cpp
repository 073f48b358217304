#include "qvol/times.h"

#include "core/record.h"
#include "qvol/error.h"
#include "qvol/names.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr int FIRST_YEAR = 1980;
constexpr int LAST_YEAR = 2107;
constexpr dos_time FIRST_STAMP = {1 << 5 | 1, 0};
constexpr dos_time LAST_STAMP = {(LAST_YEAR - FIRST_YEAR) << 9 | 12 << 5 | 31,
                                 23 << 11 | 59 << 5 | 29};

std::optional<time_t> latest_moment; // SOURCE_DATE_EPOCH
bool allows_late_stamps = false;

time_t parse_epoch(const char *text) {
    char *end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &end, 10);
    if (*text == '\0' || *end != '\0' || errno != 0 || value < 0) {
        throw usage_error(
            fmt::format("invalid SOURCE_DATE_EPOCH \"{}\": not a number of seconds", text));
    }
    return static_cast<time_t>(value);
}

// "+05:30" or "-0800" as POSIX writes it, with the opposite sign: "<+0530>-05:30".
std::optional<std::string> posix_zone(const std::string &offset) {
    std::string digits = offset.size() > 1 ? offset.substr(1) : "";
    if (digits.size() == 5 && digits[2] == ':') {
        digits.erase(2, 1);
    }
    const bool is_offset = (offset[0] == '+' || offset[0] == '-') && digits.size() == 4 &&
                           digits.find_first_not_of("0123456789") == std::string::npos &&
                           digits.substr(0, 2) <= "14" && digits.substr(2) < "60";
    return is_offset ? std::optional(fmt::format("<{}{}>{}{}:{}", offset[0], digits,
                                                 offset[0] == '+' ? '-' : '+', digits.substr(0, 2),
                                                 digits.substr(2)))
                     : std::nullopt;
}

// The value of TZ; no value if the system does not know the zone.
std::optional<std::string> zone_of(const std::string &text) {
    if (text == "UTC") {
        return text;
    }
    std::optional<std::string> offset = posix_zone(text);
    const char *const directory = std::getenv("TZDIR");
    const std::string file =
        std::string(directory != nullptr ? directory : "/usr/share/zoneinfo") + "/" + text;
    const bool is_name = !text.empty() && text[0] != '/' && text.find("..") == std::string::npos &&
                         std::filesystem::is_regular_file(file);
    return offset ? offset : is_name ? std::optional(":" + text) : std::nullopt;
}

tm calendar_fields(const dos_time &stamp) {
    tm fields{};
    fields.tm_year = (stamp.date >> 9) + FIRST_YEAR - 1900;
    fields.tm_mon = (stamp.date >> 5 & 0xF) - 1;
    fields.tm_mday = stamp.date & 0x1F;
    fields.tm_hour = stamp.time >> 11;
    fields.tm_min = stamp.time >> 5 & 0x3F;
    fields.tm_sec = (stamp.time & 0x1F) * 2;
    fields.tm_isdst = -1;
    return fields;
}

// The fields of a local date and time, as they are written.
std::optional<tm> parse_calendar(const std::string &text) {
    constexpr const char *FORMATS[] = {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M",
                                       "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S"};
    for (const char *format : FORMATS) {
        tm fields{};
        const char *end = strptime(text.c_str(), format, &fields);
        if (end != nullptr && *end == '\0') {
            return fields;
        }
    }
    return std::nullopt;
}

// The local fields of a number of seconds since 1970.
std::optional<tm> parse_seconds(const std::string &text) {
    time_t moment = 0;
    const char *end = text.data() + text.size();
    const auto [rest, failure] = std::from_chars(text.data(), end, moment);
    tm fields{};
    const bool is_moment =
        failure == std::errc() && rest == end && localtime_r(&moment, &fields) != nullptr;
    return is_moment ? std::optional(fields) : std::nullopt;
}

// Whether the calendar has the day, and an entry can store the year.
bool can_be_stored(const tm &fields) {
    tm normal = fields;
    normal.tm_isdst = 0;
    (void)timegm(&normal);
    return normal.tm_mday == fields.tm_mday && fields.tm_sec < 60 &&
           fields.tm_year + 1900 >= FIRST_YEAR && fields.tm_year + 1900 <= LAST_YEAR;
}

bool is_date(const tm &fields) {
    return fields.tm_mon >= 0 && fields.tm_mon < 12 && fields.tm_mday >= 1 && fields.tm_hour < 24 &&
           fields.tm_min < 60 && fields.tm_sec < 60;
}

} // namespace

void set_up_clock() {
    const char *epoch = std::getenv("SOURCE_DATE_EPOCH");
    if (epoch != nullptr) {
        latest_moment = parse_epoch(epoch);
        setenv("TZ", "UTC", 1);
    }
    // Without TZ, glibc checks the file of the time zone again for every stamp.
    setenv("TZ", ":/etc/localtime", 0);
    tzset();
}

void set_time_zone(const std::string &text) {
    const std::optional<std::string> zone = zone_of(text);
    if (!zone) {
        throw usage_error("--timezone " + shown_bytes(text) +
                          ": must be a time zone of the system such as Europe/Berlin, or an offset "
                          "such as +05:30");
    }
    setenv("TZ", zone->c_str(), 1);
    tzset();
}

void allow_late_stamps() {
    allows_late_stamps = true;
}

bool is_clock_set() {
    return latest_moment.has_value();
}

time_t current_time() {
    const time_t now = time(nullptr);
    return latest_moment.value_or(now);
}

dos_time dos_time_of(time_t moment) {
    const bool is_limited = latest_moment && !allows_late_stamps;
    const time_t clamped = is_limited ? std::min(moment, *latest_moment) : moment;
    tm fields{};
    if (localtime_r(&clamped, &fields) == nullptr) {
        return LAST_STAMP;
    }
    if (fields.tm_year + 1900 < FIRST_YEAR) {
        return FIRST_STAMP;
    }
    if (fields.tm_year + 1900 > LAST_YEAR) {
        return LAST_STAMP;
    }
    fields.tm_sec = std::min(fields.tm_sec, 59); // a leap second
    const core::dos_moment stamp = core::dos_moment_of(fields);
    return {stamp.date, stamp.time};
}

dos_time parse_time(const std::string &option, const std::string &text) {
    const std::optional<tm> fields =
        text.starts_with('@') ? parse_seconds(text.substr(1)) : parse_calendar(text);
    if (!fields || !can_be_stored(*fields)) {
        throw usage_error(fmt::format("{} {}: must be a time such as \"2024-02-29 12:34:56\" or "
                                      "@SECONDS, from {} to {}",
                                      option, shown_bytes(text), FIRST_YEAR, LAST_YEAR));
    }
    const core::dos_moment moment = core::dos_moment_of(*fields);
    const dos_time stamp = {moment.date, moment.time};
    if (latest_moment && dos_time_of(*latest_moment) < stamp) {
        throw usage_error(
            fmt::format("{} {}: later than SOURCE_DATE_EPOCH", option, shown_bytes(text)));
    }
    return stamp;
}

std::optional<time_t> moment_of(const dos_time &stamp) {
    tm fields = calendar_fields(stamp);
    if (!is_date(fields)) {
        return std::nullopt;
    }
    const time_t moment = mktime(&fields);
    return moment != -1 ? std::optional(moment) : std::nullopt;
}

std::string text_of(const dos_time &stamp) {
    const tm fields = calendar_fields(stamp);
    if (!is_date(fields)) {
        return "---------- --------";
    }
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", fields.tm_year + 1900,
                       fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min,
                       fields.tm_sec);
}

} // namespace qvol
