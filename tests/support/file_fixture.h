// A mounted volume, the calls on files with all of their effects, and a stopped clock.

#pragma once

#include "tests/support/capture.h"
#include "tests/support/moment.h"
#include "tests/support/mounted.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace testing_support {

constexpr time_t LEAP_DAY_2024 = 1709210096;      // 29 February 2024, 12:34:56 UTC
constexpr time_t NEW_YEARS_EVE_2030 = 1924988400; // 31 December 2030, 23:00 UTC
constexpr std::uint32_t TODAY = 44 << 9 | 2 << 5 | 29;

class file_test : public testing::Test {
protected:
    explicit file_test(const volume_shape &shape = {.sec_per_clus = 4}) : v(shape) {}

    outcome write(int id, const void *data, std::uint32_t count) {
        messages.clear();
        errno = UNTOUCHED_ERRNO;
        const int result = fat_write_file(id, data, count);
        return {result, errno, messages.text()};
    }
    outcome write(int id, const bytes &data) {
        return write(id, data.data(), static_cast<std::uint32_t>(data.size()));
    }
    static outcome written(int count) {
        return {count, UNTOUCHED_ERRNO, ""};
    }

    static void put16(entry_image *entry, std::size_t offset, std::uint32_t value) {
        (*entry)[offset] = static_cast<std::uint8_t>(value);
        (*entry)[offset + 1] = static_cast<std::uint8_t>(value >> 8);
    }
    // The transfers since the last call.
    std::vector<transfer> transfers() {
        return std::exchange(v.disk.log, {});
    }
    // The transfers of the data area, without the root directory of FAT32.
    std::vector<transfer> data_transfers() {
        std::vector<transfer> result = transfers();
        std::erase_if(result, [](const transfer &t) {
            return t.sector < sv->data_start ||
                   (sv->fat_type == 32 && t.sector - sv->rdir_start < sv->sec_per_clus);
        });
        return result;
    }
    static std::ptrdiff_t count_of(const std::vector<transfer> &list, const transfer &wanted) {
        return std::count(list.begin(), list.end(), wanted);
    }

    mounted v;
    diagnostics messages;
    stopped_clock clock{LEAP_DAY_2024};
};

} // namespace testing_support
