// The program quorvel: its texts and its runs.

#pragma once

#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/process.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace testing_support {

inline const std::string USAGE =
    "Usage:\n"
    "quorvel [-s sectors-per-cluster] [-S logical-sector-size] [-F fat-size] \n"
    "\t[-p page-size-to-align] [-v]\n"
    "        OUT_FILE/FLASH_BLK_DEV\n"
    "\n"
    "\t-s sectors-per-cluster\n"
    "\t\tMust be a power of 2, i.e. 1, 2, 4, ... 64.\n"
    "\t\tThe default is 2\n"
    "\t-S logical-sector-size\n"
    "\t\tMust be a power of 2, greater than or equal to 512,\n"
    "\t\ti.e. 512, 1024, 2048, 4096\n"
    "\t\tThe default is 512\n"
    "\t-F fat-size\n"
    "\t\tThe type of file allocation table used(16, 32 bit)\n"
    "\t\tIf nothing is specified, fat-size is automatically selected.\n"
    "\t-p page-size-to-align\n"
    "\t\tEach area is aligned to NAND page size\n"
    "\t\ti.e. 0(no alignment), 2048, 4096\n"
    "\t\tThe default is 4096, zero means disable to the alignment\n"
    "\t-l volume-label\n"
    "\t\tMust be under 11 characters\n"
    "\t-v verbose option\n"
    "\tversion 1.2.3\n";

inline const std::string SUCCESS = "Success to format\n";
inline const std::string FAILURE = "Fail to format\n";
constexpr int EXIT_REFUSED = 255;

// The same outcome with its source line numbers replaced by N.
inline outcome without_line_numbers(outcome o) {
    o.err = without_line_numbers(o.err);
    return o;
}

// Runs the program; source line numbers in its diagnostics are replaced by N.
inline outcome run_tool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), tool_path());
    return without_line_numbers(run(arguments));
}

// The messages after the geometry's own refusal, line numbers replaced.
inline const std::string GEOMETRY_REFUSED = "create_pbr[N]: failed to calc_fat_sectors!\n\n"
                                            "make_tables[N]: Cannot create PBR!\n\n"
                                            "fat_format[N]: Failed to make table!\n\n";

// An unsigned little-endian number of `size` bytes.
inline std::uint32_t number_at(const bytes &content, std::size_t offset, std::size_t size) {
    std::uint32_t result = 0;
    for (std::size_t i = 0; i < size; i++) {
        result |= static_cast<std::uint32_t>(content.at(offset + i)) << (8 * i);
    }
    return result;
}

// The areas of a formatted image according to its boot sector.
struct volume_layout {
    std::uint32_t sector_size = 0; // bytes
    std::uint32_t sec_per_clus = 0;
    std::uint32_t fat_start = 0;  // sector
    std::uint32_t fat_size = 0;   // sectors of one copy
    std::uint32_t rdir_start = 0; // sector
    std::uint32_t data_start = 0; // sector
    bool is_fat32 = false;
};

inline volume_layout layout_of(const std::string &image) {
    const bytes pbr = read_range(image, 0, 512);
    volume_layout layout;
    layout.sector_size = number_at(pbr, 11, 2);
    layout.sec_per_clus = number_at(pbr, 13, 1);
    layout.fat_start = number_at(pbr, 14, 2);
    layout.is_fat32 = number_at(pbr, 22, 2) == 0;
    layout.fat_size = layout.is_fat32 ? number_at(pbr, 36, 4) : number_at(pbr, 22, 2);
    layout.rdir_start = layout.fat_start + number_at(pbr, 16, 1) * layout.fat_size;
    layout.data_start = layout.rdir_start + number_at(pbr, 17, 2) * 32 / layout.sector_size;
    return layout;
}

// The bytes of a formatted image with all time-dependent fields zeroed: the serial number in the
// boot sector and its backup, time and date of the root directory's label entry.
inline bytes without_moment(const std::string &image) {
    bytes content = read_file(image);
    const volume_layout layout = layout_of(image);
    const auto clear = [&content](std::uint64_t offset) {
        std::fill_n(content.begin() + static_cast<std::ptrdiff_t>(offset), 4, std::uint8_t{0});
    };
    clear(layout.is_fat32 ? 67 : 39);
    if (layout.is_fat32) {
        clear(6ULL * layout.sector_size + 67);
    }
    clear(static_cast<std::uint64_t>(layout.rdir_start) * layout.sector_size + 22);
    return content;
}

} // namespace testing_support
