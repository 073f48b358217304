// Hand-made directories of every kind (root area, root chain, sub-directory) for cases about
// finding free slots and writing entries.

#pragma once

#include "fat/internal.h"
#include "tests/support/chain_fixture.h"
#include "tests/support/moment.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace testing_support {

// ---- where a directory lies -------------------------------------------------------------------

enum class place { ROOT, SUB };

struct directory_shape {
    volume_shape volume;
    place where;
};
inline std::string name_of(const directory_shape &shape) {
    return name_of(shape.volume) + (shape.where == place::ROOT ? "Root" : "Sub");
}
inline std::ostream &operator<<(std::ostream &out, const directory_shape &shape) {
    return out << name_of(shape);
}
inline std::string directory_shape_name(const testing::TestParamInfo<directory_shape> &info) {
    return name_of(info.param);
}

inline std::vector<directory_shape> all_directories() {
    std::vector<directory_shape> result;
    for (const volume_shape &shape : chain_shapes()) {
        result.push_back({shape, place::ROOT});
        result.push_back({shape, place::SUB});
    }
    return result;
}
// The directories that are cluster chains.
inline std::vector<directory_shape> growing_directories() {
    std::vector<directory_shape> result = all_directories();
    std::erase_if(result, [](const directory_shape &s) {
        return s.volume.fat_type == 16 && s.where == place::ROOT;
    });
    return result;
}

// ---- names and entries ------------------------------------------------------------------------

// 2024-02-29 12:34:56 UTC and its time stamp.
constexpr time_t LEAP_DAY = 1709210096;
constexpr std::uint16_t LEAP_DAY_DATE = 44 << 9 | 2 << 5 | 29;
constexpr std::uint16_t LEAP_DAY_TIME = 12 << 11 | 34 << 5 | 28;

inline entry_image stamped(entry_image entry, std::uint16_t date = LEAP_DAY_DATE,
                           std::uint16_t time = LEAP_DAY_TIME) {
    entry[22] = static_cast<std::uint8_t>(time);
    entry[23] = static_cast<std::uint8_t>(time >> 8);
    entry[24] = static_cast<std::uint8_t>(date);
    entry[25] = static_cast<std::uint8_t>(date >> 8);
    return entry;
}

// A hand-made name record, each form in a block of its exact size. Empty `long`: no long name.
class name_forms {
public:
    explicit name_forms(std::string_view dos, std::u16string_view wide = {}, std::uint8_t lcase = 0)
        : dos_(dos.begin(), dos.end()), units_(wide.begin(), wide.end()) {
        dos_.shrink_to_fit();
        units_.push_back(0);
        units_.shrink_to_fit();
        record.dosName = dos_.data();
        record.unicode = wide.empty() ? nullptr : units_.data();
        record.ulen = static_cast<std::uint32_t>(wide.size());
        record.lcase = lcase;
        record.lossy = wide.empty() ? 0 : 1;
    }
    name_forms(const name_forms &) = delete;
    name_forms &operator=(const name_forms &) = delete;
    ~name_forms() = default;

    [[nodiscard]] std::string dos() const {
        return {dos_.begin(), dos_.end()};
    }
    // Slots that the name takes with its short entry.
    [[nodiscard]] std::uint32_t slots() const {
        return record.unicode == nullptr ? 1 : 1 + (record.ulen + 12) / 13;
    }

    fat::fat_name record = {};

private:
    std::vector<std::uint8_t> dos_;
    std::vector<std::uint16_t> units_;
};

// A long name of that many units: adjacent units differ, no unit is zero or 0xFFFF.
inline std::u16string long_name_of(std::size_t units) {
    std::u16string result;
    for (std::size_t i = 0; i < units; i++) {
        result += static_cast<char16_t>(0x41 + i % 26 + (i % 3 == 1 ? 0x0400 : 0));
    }
    return result;
}

// ---- one directory ----------------------------------------------------------------------------

class build_case : public testing::TestWithParam<directory_shape> {
protected:
    build_case() {
        v.disk.log.clear();
    }
    ~build_case() override {
        fat_perm = {};
    }

    answer heard(int result) {
        const answer a{result, messages.text()};
        messages.clear();
        return a;
    }

    // The whole space of the directory.
    [[nodiscard]] std::vector<entry_image> space() {
        std::vector<entry_image> result;
        result.reserve(dir.capacity());
        for (const std::uint32_t sector : dir.sectors) {
            const std::vector<std::uint8_t> bytes =
                v.disk.peek(std::uint64_t{sector} * sv->sector_size, sv->sector_size);
            for (std::size_t at = 0; at < bytes.size(); at += 32) {
                std::copy_n(&bytes[at], 32, result.emplace_back().begin());
            }
        }
        return result;
    }
    // Fills the space with files of different names.
    void occupy() {
        for (std::uint32_t i = 0; i < dir.capacity(); i++) {
            dir.put(i, file_number(i));
        }
    }
    static entry_image file_number(std::uint32_t number) {
        const std::string digits = std::to_string(number);
        std::string dos(8 - digits.size(), '0');
        dos += digits;
        dos += "XYZ";
        return short_entry(dos, ARCHIVE, 9, 8);
    }
    void set_free(std::uint32_t first, std::uint32_t last) {
        for (std::uint32_t i = first; i <= last; i++) {
            dir.put(i, {});
        }
    }
    void set_deleted(std::uint32_t first, std::uint32_t last) {
        for (std::uint32_t i = first; i <= last; i++) {
            dir.put(i, deleted(file_number(i)));
        }
    }
    // The slots that differ from `before`, each with its index; empty: no slot differs.
    [[nodiscard]] std::string changes_since(const std::vector<entry_image> &before) {
        std::string result;
        const std::vector<entry_image> now = space();
        for (std::size_t i = 0; i < now.size(); i++) {
            if (now[i] != before[i]) {
                result += "slot " + std::to_string(i) + " is " + testing::PrintToString(now[i]) +
                          ", not " + testing::PrintToString(before[i]) + "; ";
            }
        }
        return result;
    }

    [[nodiscard]] std::vector<std::uint64_t> sectors_written() const {
        std::vector<std::uint64_t> result;
        for (const transfer &t : v.disk.log) {
            for (std::uint32_t i = 0; t.is_write && i < t.count; i++) {
                result.push_back(t.sector + i);
            }
        }
        return result;
    }
    [[nodiscard]] std::uint32_t sector_of(std::uint32_t index) const {
        return static_cast<std::uint32_t>(dir.offset_of(index) / sv->sector_size);
    }
    static std::string unreadable(std::uint32_t sector) {
        return "get_dentry_with_clu[N]: cannot read sectors:(sector: " + std::to_string(sector) +
               ")\n";
    }

    const stopped_clock clock{LEAP_DAY};
    volume v{GetParam().volume};
    // Four clusters, unless it is the root area of FAT16: 512 entries.
    directory dir = GetParam().where == place::SUB ? v.sub_directory({30, 35, 31, 60})
                    : sv->fat_type == 16           ? v.root()
                                                   : v.longer_root({35, 31, 60});
    diagnostics messages;
    const std::uint32_t per_sector = volume::entries_per_sector();
    const std::uint32_t capacity = dir.capacity();
};

} // namespace testing_support
