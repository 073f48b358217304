// Directory entries: the time stamp and the volume label.

#include "fat/internal.h"
#include "tests/support/files.h"
#include "tests/support/moment.h"

#include <gtest/gtest.h>

#include <limits>

#include <ctime>

using namespace testing_support;

namespace {

struct packed {
    unsigned date;
    unsigned time;
    bool operator==(const packed &) const = default;
};
std::ostream &operator<<(std::ostream &out, const packed &p) {
    return out << "{date " << p.date << ", time " << p.time << "}";
}

packed pack(int year, int month, int day, int hour, int minute, int second) {
    tm local = {};
    local.tm_year = year - 1900;
    local.tm_mon = month - 1;
    local.tm_mday = day;
    local.tm_hour = hour;
    local.tm_min = minute;
    local.tm_sec = second;
    core::u16 date = 0;
    core::u16 time = 0;
    fat::dos_time_date(&local, &date, &time);
    return {date, time};
}

// The time of a stamp.
packed stamp_of(const bytes &entry) {
    return {entry[24] + 256U * entry[25], entry[22] + 256U * entry[23]};
}

// The stamp of an entry at clock time `now`.
packed stamp_at(time_t now, const char *zone) {
    const stopped_clock clock(now, zone);
    bytes entry(32);
    fat::set_entry_time(entry.data());
    return stamp_of(entry);
}

constexpr time_t DAY = 86400;
// 2024-02-29 23:59:58 UTC.
constexpr time_t LEAP_DAY_END = 1709251198;

} // namespace

TEST(DosTimeDate, FirstMomentHasNoYearsAndNoTime) {
    EXPECT_EQ(pack(1980, 1, 1, 0, 0, 0), (packed{0x0021, 0x0000}));
    EXPECT_EQ(pack(1980, 1, 1, 0, 0, 1), (packed{0x0021, 0x0000}));
    EXPECT_EQ(pack(1980, 1, 1, 0, 0, 2), (packed{0x0021, 0x0001}));
}

TEST(DosTimeDate, LastMomentFillsEveryField) {
    // 127 years, month 12, day 31; 23 hours, 59 minutes, 29 double seconds.
    EXPECT_EQ(pack(2107, 12, 31, 23, 59, 59), (packed{0xFF9F, 0xBF7D}));
}

TEST(DosTimeDate, EveryFieldHasItsPosition) {
    EXPECT_EQ(pack(1981, 1, 1, 0, 0, 0).date, 0x0221U);
    EXPECT_EQ(pack(1980, 2, 1, 0, 0, 0).date, 0x0041U);
    EXPECT_EQ(pack(1980, 1, 2, 0, 0, 0).date, 0x0022U);
    EXPECT_EQ(pack(1980, 1, 1, 1, 0, 0).time, 0x0800U);
    EXPECT_EQ(pack(1980, 1, 1, 0, 1, 0).time, 0x0020U);
    EXPECT_EQ(pack(1980, 1, 1, 0, 0, 3).time, 0x0001U);
    EXPECT_EQ(pack(2024, 2, 29, 12, 34, 56), (packed{0x585D, 0x645C}));
}

TEST(DosTimeDate, EveryDayOfTheCenturyUnpacksAgain) {
    for (int year = 1980; year <= 2107; year++) {
        for (int month = 1; month <= 12; month++) {
            for (int day = 1; day <= 31; day++) {
                const unsigned date = pack(year, month, day, 0, 0, 0).date;
                ASSERT_EQ(date / 512, static_cast<unsigned>(year - 1980));
                ASSERT_EQ(date / 32 % 16, static_cast<unsigned>(month));
                ASSERT_EQ(date % 32, static_cast<unsigned>(day));
            }
        }
    }
}

TEST(DosTimeDate, EverySecondOfTheDayUnpacksAgain) {
    for (int second = 0; second < 86400; second++) {
        const unsigned time = pack(2000, 1, 1, second / 3600, second / 60 % 60, second % 60).time;
        ASSERT_EQ(time / 2048, static_cast<unsigned>(second / 3600));
        ASSERT_EQ(time / 32 % 64, static_cast<unsigned>(second / 60 % 60));
        ASSERT_EQ(time % 32, static_cast<unsigned>(second % 60 / 2));
    }
}

TEST(DosTimeDate, LeapSecondStaysInsideItsMinute) {
    EXPECT_EQ(pack(2016, 12, 31, 23, 59, 60).time, 23U << 11 | 59U << 5 | 30U);
}

TEST(DosTimeDate, YearsOutsideTheFieldWrapAround) {
    EXPECT_EQ(pack(2108, 1, 1, 0, 0, 0).date, pack(1980, 1, 1, 0, 0, 0).date);
    EXPECT_EQ(pack(1979, 12, 31, 0, 0, 0).date, 0xFF9FU);
    EXPECT_EQ(pack(1970, 1, 1, 0, 0, 0).date, 0xEC21U);
}

TEST(SetEntryTime, StampsTheModificationAndNothingElse) {
    const stopped_clock clock(LEAP_DAY_END);
    bytes entry(32, 0x77);
    fat::set_entry_time(entry.data());
    bytes expected(32, 0x77);
    // 23:59:58 is BF7D, 2024-02-29 is 585D.
    expected[22] = 0x7D;
    expected[23] = 0xBF;
    expected[24] = 0x5D;
    expected[25] = 0x58;
    EXPECT_EQ(entry, expected);
}

TEST(SetEntryTime, IsLocalTime) {
    EXPECT_EQ(stamp_at(LEAP_DAY_END, "UTC0"), pack(2024, 2, 29, 23, 59, 58));
    EXPECT_EQ(stamp_at(LEAP_DAY_END, "<+0530>-5:30"), pack(2024, 3, 1, 5, 29, 58));
    EXPECT_EQ(stamp_at(LEAP_DAY_END, "<-12>12"), pack(2024, 2, 29, 11, 59, 58));
}

TEST(SetEntryTime, FollowsSummerTime) {
    const char *zone = "CET-1CEST,M3.5.0,M10.5.0/3";
    EXPECT_EQ(stamp_at(LEAP_DAY_END, zone), pack(2024, 3, 1, 0, 59, 58));
    EXPECT_EQ(stamp_at(LEAP_DAY_END + 150 * DAY, zone), pack(2024, 7, 29, 1, 59, 58));
}

TEST(SetEntryTime, ReadsTheClockAgainEachTime) {
    EXPECT_EQ(stamp_at(LEAP_DAY_END, "UTC0"), pack(2024, 2, 29, 23, 59, 58));
    EXPECT_EQ(stamp_at(LEAP_DAY_END + 2, "UTC0"), pack(2024, 3, 1, 0, 0, 0));
    EXPECT_EQ(stamp_at(315532800, "UTC0"), pack(1980, 1, 1, 0, 0, 0));
}

TEST(SetEntryTime, AMomentWithoutACalendarYearDoesNotChangeTheStamp) {
    if (sizeof(time_t) < 8) {
        GTEST_SKIP() << "every time has a year here";
    }
    EXPECT_EQ(stamp_at(std::numeric_limits<time_t>::max(), "UTC0"), (packed{0, 0}));
}

TEST(SetVolumeEntry, HasNameKindAndStampOnly) {
    const stopped_clock clock(LEAP_DAY_END);
    const std::string label = "MY VOLUME  ";
    bytes entry(32);
    EXPECT_EQ(fat::set_volume_entry(entry.data(), reinterpret_cast<const core::u8 *>(label.data())),
              0);
    bytes expected(32);
    std::copy(label.begin(), label.end(), expected.begin());
    expected[11] = 0x08;
    expected[22] = 0x7D;
    expected[23] = 0xBF;
    expected[24] = 0x5D;
    expected[25] = 0x58;
    EXPECT_EQ(entry, expected);
}
