// Whole images, byte by byte. The expected bytes are computed here, from the documented
// layouts of the FAT file system, without the library: no offset or formula is shared with it. The
// medium is filled before with bytes that read as directory entries and as chains of clusters, and
// that are never zero, so that a byte too many and a byte too few are both detected.

#include "fat/fat.h"
#include "tests/model/layout.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/moment.h"
#include "tests/support/process.h"
#include "tests/support/ram_disk.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

using namespace testing_support;
using model::asked;
using model::format_calculation;
using model::usable_sectors;
using model::volume_layout;

namespace {

constexpr std::uint64_t BLOCK = ram_disk::BLOCK;
constexpr std::uint64_t MIB = 1024 * 1024;

// ---- old content of the medium ----

// A deleted or living file "F0001A2BOLD" with every field filled: none of its bytes is zero.
void paint_old_entry(std::uint64_t number, std::uint8_t *entry) {
    const char *digits = "0123456789ABCDEF";
    std::memcpy(entry, "F_______OLD", 11);
    for (int i = 7; i >= 1; i--, number /= 16) {
        entry[i] = static_cast<std::uint8_t>(digits[number % 16]);
    }
    const std::uint8_t rest[21] = {0x20, 0x18, 0x32, 0x5D, 0x64, 0x5C, 0x58, 0x5C, 0x58, 0x01, 0x02,
                                   0x5D, 0x64, 0x5C, 0x58, 0x03, 0x01, 0x01, 0x02, 0x03, 0x04};
    std::memcpy(entry + 11, rest, sizeof rest);
}

// A link of a chain, as FAT32 and twice as FAT16, that goes upward and has no zero byte.
void paint_old_link(std::uint64_t number, std::uint8_t *entry) {
    entry[0] = static_cast<std::uint8_t>(1 + number % 255);
    entry[1] = static_cast<std::uint8_t>(1 + number / 255 % 255);
    entry[2] = static_cast<std::uint8_t>(1 + number / 65025 % 255);
    entry[3] = static_cast<std::uint8_t>(1 + number / 16581375 % 15);
}

// Stretches of 512 bytes are directory and FAT in turn; `phase` selects the first.
void paint_old_block(std::uint64_t number, unsigned phase, std::uint8_t *block) {
    for (std::uint64_t at = 0; at < BLOCK; at += 512) {
        const std::uint64_t first = number * BLOCK + at;
        const bool is_directory = (first / 512 + phase) % 2 == 0;
        const std::uint64_t size = is_directory ? 32 : 4;
        for (std::uint64_t i = 0; i < 512; i += size) {
            (is_directory ? paint_old_entry : paint_old_link)((first + i) / size, block + at + i);
        }
    }
}

// ---- expected content -------------

class picture {
public:
    explicit picture(unsigned phase) : phase_(phase) {}

    void put(std::uint64_t offset, const bytes &content) {
        for (std::size_t done = 0; done < content.size();) {
            const auto inside = static_cast<std::size_t>((offset + done) % BLOCK);
            const std::size_t part =
                std::min(static_cast<std::size_t>(BLOCK) - inside, content.size() - done);
            std::memcpy(block_at((offset + done) / BLOCK).data() + inside, content.data() + done,
                        part);
            done += part;
        }
    }
    void clear(std::uint64_t offset, std::uint64_t size) {
        for (std::uint64_t done = 0; done < size;) {
            const std::uint64_t inside = (offset + done) % BLOCK;
            const auto part = static_cast<std::size_t>(std::min(BLOCK - inside, size - done));
            std::memset(block_at((offset + done) / BLOCK).data() + inside, 0, part);
            done += part;
        }
    }
    // Only the blocks that were painted; no other one is changed.
    [[nodiscard]] const std::map<std::uint64_t, bytes> &blocks() const {
        return blocks_;
    }
    [[nodiscard]] bytes block(std::uint64_t number) const {
        const auto found = blocks_.find(number);
        if (found != blocks_.end()) {
            return found->second;
        }
        bytes old(BLOCK);
        paint_old_block(number, phase_, old.data());
        return old;
    }

private:
    bytes &block_at(std::uint64_t number) {
        auto [place, is_new] = blocks_.try_emplace(number);
        if (is_new) {
            place->second.resize(BLOCK);
            paint_old_block(number, phase_, place->second.data());
        }
        return place->second;
    }

    unsigned phase_;
    std::map<std::uint64_t, bytes> blocks_;
};

void put_number(bytes *sector, std::size_t offset, int size, std::int64_t value) {
    for (int i = 0; i < size; i++) {
        sector->at(offset + static_cast<std::size_t>(i)) =
            static_cast<std::uint8_t>(value >> (8 * i) & 0xFF);
    }
}
void put_text(bytes *sector, std::size_t offset, const std::string &text) {
    std::copy(text.begin(), text.end(), sector->begin() + static_cast<long>(offset));
}

// The options of one call of the formatter; missing ones have their defaults.
struct options {
    std::optional<std::uint32_t> cluster_sectors = {}; // -s
    std::optional<std::uint32_t> sector_bytes = {};    // -S
    std::optional<std::uint32_t> width = {};           // -F
    std::optional<std::uint32_t> page_bytes = {};      // -p
    std::optional<std::string> label = {};             // -l
};

// As a command line.
std::vector<std::string> arguments_of(const options &given) {
    std::vector<std::string> result;
    const auto add = [&result](const char *option, const std::optional<std::uint32_t> &value) {
        if (value) {
            result.insert(result.end(), {option, std::to_string(*value)});
        }
    };
    add("-s", given.cluster_sectors);
    add("-S", given.sector_bytes);
    add("-F", given.width);
    add("-p", given.page_bytes);
    if (given.label) {
        result.insert(result.end(), {"-l", *given.label});
    }
    return result;
}
std::string as_text(const options &given, std::uint64_t target_bytes) {
    std::string text;
    for (const std::string &argument : arguments_of(given)) {
        text += argument + " ";
    }
    return text + "on " + std::to_string(target_bytes) + " bytes";
}

std::string eleven_bytes(const options &given) {
    return (given.label.value_or("") + std::string(11, ' ')).substr(0, 11);
}

asked with_defaults(const options &given) {
    return {.width = given.width.value_or(0),
            .cluster_sectors = given.cluster_sectors.value_or(1),
            .sector_bytes = given.sector_bytes.value_or(4096),
            .page_bytes = given.page_bytes.value_or(4096),
            .root_entries = given.width == 32U ? 0U : 512U,
            .fats = 2};
}

struct stamp {
    int time;
    int date;
};
// Of a moment in seconds of local time since 1970.
stamp stamp_of(time_t local_seconds) {
    tm parts = {};
    gmtime_r(&local_seconds, &parts);
    return {.time = parts.tm_hour * 2048 + parts.tm_min * 32 + parts.tm_sec / 2,
            .date = (parts.tm_year - 80) * 512 + (parts.tm_mon + 1) * 32 + parts.tm_mday};
}

bytes boot_sector(const asked &wish, const volume_layout &volume, const std::string &label,
                  std::uint32_t serial) {
    const bool is_32 = volume.width == 32;
    const bool total_is_short = !is_32 && volume.total < 65536;
    bytes sector(wish.sector_bytes);
    put_number(&sector, 0, 3, is_32 ? 0x9058EB : 0x903CEB);
    put_text(&sector, 3, "Torvik  ");
    put_number(&sector, 11, 2, wish.sector_bytes);
    put_number(&sector, 13, 1, wish.cluster_sectors);
    put_number(&sector, 14, 2, volume.reserved);
    put_number(&sector, 16, 1, wish.fats);
    put_number(&sector, 17, 2, is_32 ? 0 : volume.root_entries);
    put_number(&sector, 19, 2, total_is_short ? volume.total : 0);
    put_number(&sector, 21, 1, 0xF8);
    put_number(&sector, 22, 2, is_32 ? 0 : volume.fat_sectors);
    put_number(&sector, 24, 2, 8);
    put_number(&sector, 26, 2, 1);
    put_number(&sector, 32, 4, total_is_short ? 0 : volume.total);
    if (is_32) {
        put_number(&sector, 36, 4, volume.fat_sectors);
        put_number(&sector, 44, 4, 2);
        put_number(&sector, 48, 2, 1);
        put_number(&sector, 50, 2, 6);
    }
    const std::size_t extended = is_32 ? 64 : 36;
    put_number(&sector, extended + 2, 1, 0x29);
    put_number(&sector, extended + 3, 4, serial);
    put_text(&sector, extended + 7, label);
    put_text(&sector, extended + 18, is_32 ? "FAT32   " : "FAT16   ");
    put_number(&sector, 510, 2, 0xAA55);
    put_number(&sector, sector.size() - 2, 2, 0xAA55);
    return sector;
}

bytes information_sector(const asked &wish) {
    bytes sector(wish.sector_bytes);
    put_text(&sector, 0, "RRaA");
    put_text(&sector, 484, "rrAa");
    put_number(&sector, 488, 4, 0xFFFFFFFF);
    put_number(&sector, 492, 4, 0xFFFFFFFF);
    put_number(&sector, 508, 4, 0xAA550000);
    return sector;
}

void paint_volume(picture *image, const options &given, const volume_layout &volume,
                  std::uint32_t serial, const stamp &written) {
    const asked wish = with_defaults(given);
    const bool is_32 = volume.width == 32;
    const auto at = [&wish](std::int64_t sector) {
        return static_cast<std::uint64_t>(sector) * wish.sector_bytes;
    };
    image->clear(0, at(volume.reserved));
    const bytes boot = boot_sector(wish, volume, eleven_bytes(given), serial);
    image->put(0, boot);
    if (is_32) {
        image->put(at(6), boot);
        image->put(at(1), information_sector(wish));
    }
    bytes first_entries = is_32 ? bytes(12) : bytes(4);
    put_number(&first_entries, 0, is_32 ? 4 : 2, 0x0FFFFFF8);
    put_number(&first_entries, is_32 ? 4 : 2, is_32 ? 4 : 2, 0x0FFFFFFF);
    if (is_32) {
        put_number(&first_entries, 8, 4, 0x0FFFFFFF);
    }
    for (std::int64_t copy = 0; copy < wish.fats; copy++) {
        const std::int64_t start = volume.reserved + copy * volume.fat_sectors;
        image->clear(at(start), at(volume.fat_sectors));
        image->put(at(start), first_entries);
    }
    const std::int64_t root = volume.reserved + wish.fats * volume.fat_sectors;
    image->clear(at(root), at(is_32 ? wish.cluster_sectors : volume.root_sectors));
    bytes label_entry(32);
    put_text(&label_entry, 0, std::string(11, ' '));
    put_number(&label_entry, 11, 1, 0x08);
    put_number(&label_entry, 22, 2, written.time);
    put_number(&label_entry, 24, 2, written.date);
    image->put(at(root), label_entry);
}

// Result of a request that is refused before fat_format gets it; not an errno.
constexpr int CLUSTER_TOO_LARGE = -1000;

// The expected result of the options on a target.
struct expectation {
    int result;           // as fat_format gives it, or CLUSTER_TOO_LARGE
    std::string messages; // every diagnostic
    volume_layout volume;
};

expectation expect_of(const options &given, std::uint64_t target_bytes) {
    const std::uint32_t cluster = given.cluster_sectors.value_or(0);
    const std::uint32_t sector = given.sector_bytes.value_or(0);
    if (cluster * sector > 32768) {
        return {CLUSTER_TOO_LARGE,
                "The requested cluster size is " + std::to_string(cluster * sector) +
                    "(= " + std::to_string(cluster) + " x " + std::to_string(sector) +
                    ").\nBut cluster size can't be over 32KBytes\n",
                {}};
    }
    const asked wish = with_defaults(given);
    const std::int64_t total = usable_sectors(target_bytes, wish.sector_bytes);
    const volume_layout volume = format_calculation(wish, target_bytes, total).decide();
    if (volume.result != 0) {
        return {volume.result,
                volume.printed + "create_pbr[N]: failed to calc_fat_sectors!\n\n"
                                 "make_tables[N]: Cannot create PBR!\n\n"
                                 "fat_format[N]: Failed to make table!\n\n",
                volume};
    }
    const std::int64_t root = volume.width == 32 ? wish.cluster_sectors : volume.root_sectors;
    return {static_cast<int>(root), volume.printed, volume};
}

// ---- formatting ----

// Passes the options to the library as the program does. Returns a result like that of expectation.
int format_with(const options &given) {
    fat_format_param param = {};
    param.sec_per_clus = given.cluster_sectors.value_or(0);
    param.sector_size = given.sector_bytes.value_or(0);
    param.fat_size = given.width.value_or(0);
    param.page_size = given.page_bytes.value_or(0);
    fat_page_size_given = given.page_bytes.has_value() ? 1 : 0;
    if (given.label) {
        std::memcpy(param.volume_label, eleven_bytes(given).c_str(), 12);
    }
    const int checked = check_format_param(&param);
    fat_page_size_given = 0;
    return checked != 0 ? CLUSTER_TOO_LARGE : fat_format(&param);
}

std::string difference(const std::uint8_t *is, const bytes &should_be, std::uint64_t block) {
    if (std::memcmp(is, should_be.data(), should_be.size()) == 0) {
        return "";
    }
    std::size_t i = 0;
    while (is[i] == should_be[i]) {
        i++;
    }
    return "byte " + std::to_string(block * BLOCK + i) + " is " + std::to_string(is[i]) +
           " and should be " + std::to_string(should_be[i]);
}

// Every block that the formatter read or wrote, and every block that it should have written.
void expect_image(ram_disk *disk, const picture &image) {
    for (const auto &[number, content] : image.blocks()) {
        (void)disk->block(number);
    }
    for (const std::uint64_t number : disk->known_blocks()) {
        ASSERT_EQ(difference(disk->block(number), image.block(number), number), "");
    }
}

// The count of each outcome.
struct tally {
    int fat16 = 0;
    int fat32 = 0;
    int refused = 0;
    [[nodiscard]] int all() const {
        return fat16 + fat32 + refused;
    }
};

struct zone {
    const char *name;
    int seconds; // east of Greenwich
};
constexpr zone ZONES[] = {{"UTC0", 0}, {"<+0530>-5:30", 19800}, {"<-09>9", -32400}};

// Formats a medium in memory and compares all of it. `variant` chooses the old bytes, the moment
// and the time zone.
void check_in_memory(const options &given, std::uint64_t target_bytes, unsigned variant,
                     tally *count) {
    SCOPED_TRACE(as_text(given, target_bytes));
    const unsigned phase = variant % 2;
    const zone where = ZONES[variant % std::size(ZONES)];
    const time_t now = 1000000000 + static_cast<time_t>(variant) * 100003;
    const stopped_clock clock(now, where.name);
    ram_disk disk(target_bytes, [phase](std::uint64_t number, std::uint8_t *block) {
        paint_old_block(number, phase, block);
    });
    diagnostics messages;
    const int result = format_with(given);

    const expectation expected = expect_of(given, target_bytes);
    ASSERT_EQ(result, expected.result);
    ASSERT_EQ(messages.text(), expected.messages);
    picture image(phase);
    if (expected.result < 0) {
        ASSERT_TRUE(disk.log.empty());
        count->refused++;
    } else {
        paint_volume(&image, given, expected.volume, static_cast<std::uint32_t>(now),
                     stamp_of(now + where.seconds));
        (expected.volume.width == 16 ? count->fat16 : count->fat32)++;
    }
    expect_image(&disk, image);
}

// ---- sizes ----

// The fewest sectors that give so many clusters.
std::int64_t fewest_sectors(const asked &wish, std::int64_t width, std::int64_t clusters) {
    std::int64_t low = 0;
    std::int64_t high = std::int64_t{1} << 31;
    while (low < high) {
        const std::int64_t middle = (low + high) / 2;
        if (format_calculation(wish, 0, middle).clusters_as(width) >= clusters) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    return low;
}

// Totals of sectors worth a try: around every limit of the widths, odd ones and even ones.
std::vector<std::int64_t> totals_around_limits(const asked &wish) {
    std::vector<std::int64_t> totals;
    const auto around = [&totals](std::int64_t total) {
        totals.insert(totals.end(), {total - 2, total - 1, total, total + 1});
    };
    around(fewest_sectors(wish, 16, 4085));
    around(fewest_sectors(wish, 16, 65525));
    around(fewest_sectors(wish, 32, 65525));
    return totals;
}

template <class T>
std::vector<std::optional<T>> absent_or(std::initializer_list<T> values) {
    std::vector<std::optional<T>> result = {std::nullopt};
    result.insert(result.end(), values.begin(), values.end());
    return result;
}

// Every combination of the values that the options take.
std::vector<options> every_combination() {
    const std::optional<std::string> labels[] = {
        std::nullopt, "", "A", "lower case", "ELEVENCHARS", "MORE THAN ELEVEN", "\xE5\xFF\x01"};
    std::vector<options> result;
    for (const auto &cluster : absent_or<std::uint32_t>({1, 2, 4, 8, 16, 32, 64})) {
        for (const auto &sector : absent_or<std::uint32_t>({512, 1024, 2048, 4096})) {
            for (const auto &width : absent_or<std::uint32_t>({16, 32})) {
                for (const auto &page : absent_or<std::uint32_t>({0, 2048, 4096, 8192})) {
                    result.push_back(
                        {cluster, sector, width, page, labels[result.size() % std::size(labels)]});
                }
            }
        }
    }
    return result;
}

bool is_refused_by_cluster_size(const options &given) {
    return given.cluster_sectors.value_or(0) * given.sector_bytes.value_or(0) > 32768;
}

} // namespace

TEST(OldBytes, AreNeverZeroAndBothKindsCoverEveryPosition) {
    bytes blocks[2] = {bytes(BLOCK), bytes(BLOCK)};
    for (std::uint64_t number : {0, 1, 2, 77, 4096, 1 << 20}) {
        for (unsigned phase : {0U, 1U}) {
            paint_old_block(number, phase, blocks[phase].data());
            EXPECT_EQ(std::count(blocks[phase].begin(), blocks[phase].end(), 0), 0);
        }
        EXPECT_EQ(blocks[0][0] == 'F', blocks[1][512] == 'F');
        EXPECT_NE(blocks[0][0], blocks[1][0]);
    }
}

TEST(Image, EveryCombinationOfOptionsAroundTheLimitsOfTheWidths) {
    tally count;
    unsigned variant = 0;
    for (const options &given : every_combination()) {
        const asked wish = with_defaults(given);
        if (is_refused_by_cluster_size(given)) {
            ASSERT_NO_FATAL_FAILURE(check_in_memory(given, 64 * MIB, variant++, &count));
            continue;
        }
        for (const std::int64_t total : totals_around_limits(wish)) {
            const std::uint64_t rest = variant % 5 == 0 ? wish.sector_bytes - 1U : 0U;
            const auto whole = static_cast<std::uint64_t>(total) * wish.sector_bytes;
            ASSERT_NO_FATAL_FAILURE(check_in_memory(given, whole + rest, variant++, &count));
        }
    }
    EXPECT_GE(count.all(), 5000);
    EXPECT_GE(count.fat16, 1000);
    EXPECT_GE(count.fat32, 500);
    EXPECT_GE(count.refused, 1000);
}

TEST(Image, SixteenBitsOfSectorsAndOneMore) {
    tally count;
    unsigned variant = 0;
    for (const options &given : every_combination()) {
        if (is_refused_by_cluster_size(given) || given.width == 32U) {
            continue;
        }
        const std::int64_t total = 65534 + variant % 4; // 65534 to 65537
        const auto size = static_cast<std::uint64_t>(total) * with_defaults(given).sector_bytes;
        ASSERT_NO_FATAL_FAILURE(check_in_memory(given, size, variant++, &count));
    }
    EXPECT_GE(count.fat16, 150);
}

TEST(Image, TooSmallForTheAreasThemselves) {
    tally count;
    unsigned variant = 0;
    for (const options &given : every_combination()) {
        if (is_refused_by_cluster_size(given)) {
            continue;
        }
        const std::uint64_t sector = with_defaults(given).sector_bytes;
        for (const std::uint64_t size :
             {std::uint64_t{1}, sector - 1, 2 * sector, 5 * sector, 33 * sector, 64 * sector}) {
            ASSERT_NO_FATAL_FAILURE(check_in_memory(given, size, variant++, &count));
        }
    }
    EXPECT_EQ(count.all(), count.refused);
}

TEST(Image, RandomOptionsAndSizes) {
    constexpr std::uint32_t SEED = 715225739;
    std::printf("seed %u\n", SEED);
    std::mt19937 random(SEED);
    const std::vector<options> combinations = every_combination();
    tally count;
    for (unsigned i = 0; i < 600; i++) {
        options given = combinations[random() % combinations.size()];
        if (i % 4 != 0) {
            given.width.reset(); // the formatter chooses
        }
        const asked wish = with_defaults(given);
        // From 0 to about 130000 clusters, and any byte.
        const std::uint64_t cluster = wish.cluster_sectors * std::uint64_t{wish.sector_bytes};
        const std::uint64_t size = (random() % 131072) * cluster + random() % cluster;
        ASSERT_NO_FATAL_FAILURE(check_in_memory(given, size, i, &count));
    }
    EXPECT_GE(count.fat16, 100);
    EXPECT_GE(count.fat32, 100);
    EXPECT_GE(count.refused, 20);
}

TEST(Image, LargeTargets) {
    tally count;
    // 8 GiB and 7 sectors in FATs of 8 MiB; 1 TiB in the largest clusters; 16 TiB and 100 MiB, of
    // which a count of sectors in 32 bits leaves 100 MiB.
    check_in_memory({}, 8192 * MIB + std::uint64_t{7} * 4096, 0, &count);
    check_in_memory({.cluster_sectors = 64}, 1048576 * MIB, 1, &count);
    check_in_memory({.cluster_sectors = 1, .width = 16}, 16777216 * MIB + 100 * MIB, 2, &count);
    EXPECT_EQ(count.fat16, 1);
    EXPECT_EQ(count.fat32, 2);
}

// ---- through files ----------------------------------------------------------------------------

namespace {

struct on_file {
    options given;
    std::uint64_t size;
};
const on_file FILES[] = {
    {{}, 16 * MIB},
    {{}, 4094 * 4096},
    {{}, 4094 * 4096 + 4095},
    {{}, 4095 * 4096},
    {{}, 4093 * 4096},
    {{}, 1},
    {{}, 4095},
    {{}, 4 * 4096},
    {{.sector_bytes = 512}, 4 * MIB},
    {{.sector_bytes = 512, .label = "ON A FILE"}, 4 * MIB + 511},
    {{.sector_bytes = 512, .page_bytes = 0}, 4150 * 512},
    {{.sector_bytes = 512, .page_bytes = 8192}, 4198 * 512},
    {{.sector_bytes = 512, .width = 32}, 66582 * 512},
    {{.sector_bytes = 512, .width = 32}, 66580 * 512},
    {{.sector_bytes = 512, .page_bytes = 0}, 66582 * 512},
    {{.sector_bytes = 512}, 65536 * 512},
    {{.sector_bytes = 512}, 65535 * 512},
    {{.cluster_sectors = 4, .sector_bytes = 512, .label = "seven"}, 21 * MIB},
    {{.cluster_sectors = 2, .sector_bytes = 1024, .page_bytes = 2048}, 9 * MIB + 1023},
    {{.cluster_sectors = 1, .sector_bytes = 2048, .page_bytes = 0}, 11 * MIB},
    {{.cluster_sectors = 64, .sector_bytes = 1024}, 8 * MIB},
    {{.sector_bytes = 512, .width = 16}, 66200 * 512},
};

std::string file_of_old_bytes(const scratch_directory &directory, std::uint64_t size) {
    bytes content(static_cast<std::size_t>((size + BLOCK - 1) / BLOCK * BLOCK));
    for (std::uint64_t at = 0; at < content.size(); at += BLOCK) {
        paint_old_block(at / BLOCK, 0, content.data() + at);
    }
    content.resize(static_cast<std::size_t>(size));
    return directory.file_with("image", content);
}

void expect_file(const std::string &path, std::uint64_t size, const picture &image) {
    const bytes content = read_file(path);
    ASSERT_EQ(content.size(), size);
    for (std::uint64_t at = 0; at < content.size(); at += BLOCK) {
        bytes expected = image.block(at / BLOCK);
        expected.resize(static_cast<std::size_t>(std::min(BLOCK, size - at)));
        ASSERT_EQ(difference(content.data() + at, expected, at / BLOCK), "");
    }
}

} // namespace

TEST(ImageFile, MatchesThePictureAndDoesNotChangeItsSize) {
    constexpr time_t NOW = 1709251198;
    for (const on_file &one : FILES) {
        SCOPED_TRACE(as_text(one.given, one.size));
        const stopped_clock clock(NOW);
        const scratch_directory directory;
        const std::string path = file_of_old_bytes(directory, one.size);
        const expectation expected = expect_of(one.given, one.size);
        diagnostics messages;
        ASSERT_GE(fat_open_volume(path.c_str(), 0, 0), 0);
        const int result = format_with(one.given);
        EXPECT_EQ(fat_close_volume(0), 0);
        EXPECT_EQ(result, expected.result);
        EXPECT_EQ(messages.text(), expected.messages);
        picture image(0);
        if (expected.result > 0) {
            paint_volume(&image, one.given, expected.volume, NOW, stamp_of(NOW));
        }
        ASSERT_NO_FATAL_FAILURE(expect_file(path, one.size, image));
    }
}

namespace {

// The serial number of a formatted image, which the program takes from the clock.
std::uint32_t serial_of(const std::string &path, std::int64_t width) {
    const bytes field = read_range(path, width == 32 ? 67 : 39, 4);
    return field.size() < 4 ? 0
                            : field[0] + 256U * field[1] + 65536U * field[2] + 16777216U * field[3];
}

std::string without_lines(const std::string &messages) {
    std::string result;
    for (std::size_t i = 0; i < messages.size(); i++) {
        const bool is_line =
            messages[i] == '[' && i + 1 < messages.size() && std::isdigit(messages[i + 1]);
        if (!is_line) {
            result += messages[i];
            continue;
        }
        result += "[N";
        i = messages.find(']', i) - 1;
    }
    return result;
}

} // namespace

TEST(ImageFile, OfTheProgramIsAsThePicture) {
    setenv("TZ", "UTC0", 1);
    for (const on_file &one : FILES) {
        SCOPED_TRACE(as_text(one.given, one.size));
        const scratch_directory directory;
        const std::string path = file_of_old_bytes(directory, one.size);
        const expectation expected = expect_of(one.given, one.size);
        std::vector<std::string> command = {tool_path()};
        for (const std::string &argument : arguments_of(one.given)) {
            command.push_back(argument);
        }
        command.push_back(path);

        const time_t before = std::time(nullptr);
        const outcome done = run(command);
        const time_t after = std::time(nullptr);
        EXPECT_EQ(without_lines(done.err), expected.messages);
        picture image(0);
        if (expected.result < 0) {
            EXPECT_EQ(done.out, expected.result != CLUSTER_TOO_LARGE ? "Fail to format\n" : "");
            EXPECT_EQ(done.status, 255);
        } else {
            EXPECT_EQ(done.out, "Success to format\n");
            EXPECT_EQ(done.status, 0);
            const std::uint32_t serial = serial_of(path, expected.volume.width);
            EXPECT_GE(serial, static_cast<std::uint32_t>(before));
            EXPECT_LE(serial, static_cast<std::uint32_t>(after));
            // The stamp is of the serial's second, or one of those after it while it ran.
            const asked wish = with_defaults(one.given);
            const std::int64_t root =
                expected.volume.reserved + wish.fats * expected.volume.fat_sectors;
            const bytes field =
                read_range(path, static_cast<std::uint64_t>(root) * wish.sector_bytes + 22, 4);
            ASSERT_EQ(field.size(), 4U);
            stamp written = {field[0] + 256 * field[1], field[2] + 256 * field[3]};
            bool plausible = false;
            for (time_t moment = serial; moment <= after; moment++) {
                const stamp possible = stamp_of(moment);
                plausible |= possible.time == written.time && possible.date == written.date;
            }
            EXPECT_TRUE(plausible) << "time " << written.time << ", date " << written.date;
            paint_volume(&image, one.given, expected.volume, serial, written);
        }
        ASSERT_NO_FATAL_FAILURE(expect_file(path, one.size, image));
    }
    unsetenv("TZ");
}
