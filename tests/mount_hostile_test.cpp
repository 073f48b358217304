// Boot sectors with any bytes: mounted, read and closed, compared with the reference model of a
// mount.

#include "fat/internal.h"
#include "tests/model/layout.h"
#include "tests/support/boot_sector.h"
#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/open_entries.h"
#include "tests/support/ram_disk.h"
#include "tests/support/reference.h"
#include "tests/support/volume.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

constexpr unsigned SEED = 20240229;

// ---- the victims ------------------------------------------------------------------------------

// A field of the boot sector.
struct place {
    std::size_t offset;
    std::size_t size;
};
const std::vector<place> FIELDS = {
    {0, 3},  {3, 4},  {7, 4},  {11, 2}, {13, 1}, {14, 2}, {16, 1}, {17, 2}, {19, 2}, {21, 1},
    {22, 2}, {24, 2}, {26, 2}, {28, 4}, {32, 4}, // the common block
    {36, 4}, {40, 2}, {42, 2}, {44, 4}, {48, 2}, {50, 2}, {52, 4}, {56, 4}, {60, 4}, // FAT32
    {36, 1}, {37, 1}, {38, 1}, {39, 4}, {43, 4}, {47, 4}, {51, 3}, {54, 4}, {58, 4}, // FAT16
    {64, 1}, {65, 1}, {66, 1}, {67, 4}, {71, 4}, {75, 4}, {79, 3}, {82, 4}, {86, 4}, {510, 2},
};
// The fields that determine the geometry.
const std::vector<place> NUMBERS = {{11, 2}, {13, 1}, {14, 2}, {16, 1}, {17, 2},
                                    {19, 2}, {22, 2}, {32, 4}, {36, 4}, {44, 4}};

// A formatted volume with random links and data that looks like entries; most clusters contain no
// unused entry, so that walks continue.
class victim {
public:
    explicit victim(const volume_shape &shape) : fat_type_(shape.fat_type) {
        volume v(shape);
        size_ = sv->vol_size;
        std::mt19937 chance(SEED);
        for (u32 cluster = 2; cluster <= volume::last_cluster(); cluster++) {
            v.set_link(cluster, link_by(&chance));
        }
        if (shape.fat_type == 32) {
            v.set_link(2, 3);
            v.set_link(3, 0x0FFFFFFF);
        }
        directory root = v.root();
        root.go_to(1);
        root.append(short_entry("SUB        ", DIRECTORY, 5));
        root.append(short_entry("FILE       ", ARCHIVE, 6));
        root.append(short_entry("LOST       ", ARCHIVE, 0));
        v.chain({5, 7});
        directory sub{&v, {5, 7}, false};
        sub.append(short_entry(".          ", DIRECTORY, 5));
        sub.append(short_entry("..         ", DIRECTORY, 0));
        for (const std::uint64_t number : v.disk.known_blocks()) {
            const u8 *block = v.disk.block(number);
            blocks_[number].assign(block, block + ram_disk::BLOCK);
        }
    }

    [[nodiscard]] ram_disk::background background() const {
        return [this](std::uint64_t number, u8 *block) {
            const auto known = blocks_.find(number);
            if (known != blocks_.end()) {
                std::copy(known->second.begin(), known->second.end(), block);
                return;
            }
            std::fill_n(block, ram_disk::BLOCK, number * 2654435761 % 32 == 0 ? 0 : 0xE5);
        };
    }
    [[nodiscard]] std::uint64_t size() const {
        return size_;
    }
    [[nodiscard]] std::vector<u8> boot_sector() const {
        const std::vector<u8> &first = blocks_.at(0);
        return {first.begin(), first.begin() + 512};
    }
    [[nodiscard]] u32 fat_type() const {
        return fat_type_;
    }

private:
    static u32 link_by(std::mt19937 *chance) {
        const u32 choice = static_cast<u32>((*chance)() % 16);
        const u32 any = static_cast<u32>((*chance)());
        if (choice < 10) {
            return 2 + any % sv->num_clusters;
        }
        if (choice < 13) {
            return 0x0FFFFFFF;
        }
        return choice < 15 ? 0 : any;
    }

    u32 fat_type_;
    std::uint64_t size_ = 0;
    std::map<std::uint64_t, std::vector<u8>> blocks_;
};

class Hostile : public testing::TestWithParam<volume_shape> {
protected:
    static void SetUpTestSuite() {
        std::printf("seed %u\n", SEED);
        for (const volume_shape &shape : TREE_SHAPES) {
            victims().emplace(shape.fat_type, shape);
        }
    }
    static void TearDownTestSuite() {
        victims().clear();
    }
    static std::map<u32, victim> &victims() {
        static std::map<u32, victim> instance;
        return instance;
    }
    Hostile() : target(&victims().at(GetParam().fat_type)) {}

    u64 below(u64 limit) {
        return (static_cast<u64>(chance()) << 32 | chance()) % limit;
    }
    // Boundary values: small numbers, powers of two and their neighbours, the largest; or any
    // number.
    u32 value_for(const place &field) {
        const u64 limit = u64{1} << (8 * field.size);
        const u64 power = u64{1} << below(8 * field.size);
        switch (below(6)) {
        case 0:
            return static_cast<u32>(below(8));
        case 1:
            return static_cast<u32>(power);
        case 2:
            return static_cast<u32>(power - 1);
        case 3:
            return static_cast<u32>(limit - 1 - below(8));
        case 4:
            return static_cast<u32>((power + below(power)) % limit);
        default:
            return static_cast<u32>(below(limit));
        }
    }

    // Mounts, uses and closes one boot sector.
    void torment(const std::vector<u8> &sector) {
        ram_disk disk(target->size(), target->background());
        disk.poke(0, sector);
        sv->long_name = 1;
        const model::mount_reader expected(
            [&](u64 offset, std::size_t size) { return disk.peek(offset, size); }, target->size(),
            sv->fat_type);
        const allocation_meter meter;
        diagnostics messages;
        const answer got{fat_build_super(), messages.text()};
        ASSERT_EQ(got, (answer{expected.result, expected.printed}));
        ASSERT_TRUE(table_agrees());
        if (got.result == 0) {
            mounted++;
            ASSERT_EQ(areas_of_open_volume(), expected.found);
            ASSERT_EQ(sv->pbr_start, 0U);
            ASSERT_NO_FATAL_FAILURE(look_around(messages));
        } else {
            ASSERT_EQ(ids_in_use(), std::vector<int>());
        }
        ASSERT_NO_FATAL_FAILURE(print_everything());
        for (const transfer &t : disk.log) {
            ASSERT_FALSE(t.is_write) << t;
        }
        // Random chains are short, whatever the number of clusters in the boot sector.
        ASSERT_LE(disk.log.size(), 20000U);
        ASSERT_EQ(fat_close_volume(0), 0);
        ASSERT_EQ(ids_in_use(), std::vector<int>());
        ASSERT_TRUE(table_agrees());
        ASSERT_EQ(meter.live_blocks(), 0);
    }
    void torment(const place &field, u32 value) {
        std::vector<u8> sector = target->boot_sector();
        put_number(&sector, field.offset, field.size, value);
        SCOPED_TRACE(std::to_string(value) + " in the " + std::to_string(field.size) +
                     " bytes at " + std::to_string(field.offset));
        torment(sector);
    }

    std::mt19937 chance{SEED};
    const victim *target;
    int mounted = 0;

    static void look_up_everything() {
        for (const char *path : {"FILE", "./SUB", "SUB/FILE", "../FILE", "LOST", "A Long Name.txt",
                                 ".", "..", "/./MISSING"}) {
            const int id = fat_open(path);
            ASSERT_LT(id, 512);
            ASSERT_TRUE(id >= 0 || id == -ENOENT || id == -EINVAL || id == -EIO || id == -EFAULT)
                << path << ": " << id;
            ASSERT_TRUE(table_agrees());
        }
    }

private:
    static void look_around(diagnostics &messages) {
        ASSERT_NO_FATAL_FAILURE(look_up_everything());
        const int sub = fat_open_dir("SUB");
        if (sub > 0) {
            ASSERT_EQ(fat_set_current(sub), sub);
            for (const char *path : {"MISSING", "..", "./.", "../x"}) {
                ASSERT_LT(fat_open(path), 512);
                ASSERT_TRUE(table_agrees());
            }
        }
        const geometry before = geometry_of_volume();
        ASSERT_EQ(fat_build_super(), 0);
        ASSERT_EQ(geometry_of_volume(), before);
        messages.clear();
    }
    static void print_everything() {
        FILE *nowhere = std::fopen("/dev/null", "w");
        (void)fat_print_pbr(nowhere);
        (void)print_alloc_hint(nowhere);
        print_volume_summary(nowhere);
        std::fclose(nowhere);
    }
};
INSTANTIATE_TEST_SUITE_P(Widths, Hostile, testing::ValuesIn(TREE_SHAPES), shape_name);

} // namespace

TEST_P(Hostile, EachFieldAtItsEnds) {
    ASSERT_NO_FATAL_FAILURE(torment(target->boot_sector()));
    EXPECT_EQ(mounted, 1);
    for (const place &field : FIELDS) {
        const u32 largest = static_cast<u32>((u64{1} << (8 * field.size)) - 1);
        for (const u32 value : {0U, 1U, largest, largest - 1, largest / 2, largest / 2 + 1}) {
            ASSERT_NO_FATAL_FAILURE(torment(field, value));
        }
    }
}

TEST_P(Hostile, EachFieldByChance) {
    for (const place &field : FIELDS) {
        for (int i = 0; i < 30; i++) {
            ASSERT_NO_FATAL_FAILURE(torment(field, value_for(field)));
        }
    }
}

TEST_P(Hostile, EachByteOfSmallFields) {
    for (const place &field : {place{13, 1}, {16, 1}}) {
        for (u32 value = 0; value < 256; value++) {
            ASSERT_NO_FATAL_FAILURE(torment(field, value));
        }
    }
}

TEST_P(Hostile, SeveralNumbersAtOnce) {
    for (int i = 0; i < 4000; i++) {
        std::vector<u8> sector = target->boot_sector();
        for (u64 changes = 1 + below(4); changes > 0; changes--) {
            const place &field = NUMBERS[static_cast<std::size_t>(below(NUMBERS.size()))];
            put_number(&sector, field.offset, field.size, value_for(field));
        }
        if (below(2) == 0) {
            put_number(&sector, 11, 2, 512U << below(4));
        }
        SCOPED_TRACE("case " + std::to_string(i));
        ASSERT_NO_FATAL_FAILURE(torment(sector));
    }
    EXPECT_GT(mounted, 100);
}

// A boot sector that changes under a mounted volume.
TEST_P(Hostile, MountedAgainWithOtherNumbers) {
    for (int i = 0; i < 1000; i++) {
        ram_disk disk(target->size(), target->background());
        sv->long_name = 1;
        const allocation_meter meter;
        diagnostics messages;
        ASSERT_EQ(fat_build_super(), 0);
        for (int again = 0; again < 3; again++) {
            std::vector<u8> sector = target->boot_sector();
            for (u64 changes = 1 + below(3); changes > 0; changes--) {
                const place &field = NUMBERS[static_cast<std::size_t>(below(NUMBERS.size()))];
                put_number(&sector, field.offset, field.size, value_for(field));
            }
            disk.poke(0, sector);
            mounted += fat_build_super() == 0 ? 1 : 0;
            ASSERT_TRUE(table_agrees());
            ASSERT_NO_FATAL_FAILURE(look_up_everything());
        }
        ASSERT_EQ(fat_close_volume(0), 0);
        ASSERT_TRUE(table_agrees());
        ASSERT_EQ(meter.live_blocks(), 0);
    }
    EXPECT_GT(mounted, 100);
}

TEST_P(Hostile, AllBytesByChance) {
    for (int i = 0; i < 1500; i++) {
        std::vector<u8> sector(512);
        for (u8 &byte : sector) {
            byte = static_cast<u8>(below(256));
        }
        put_number(&sector, 11, 2, 512U << below(4));
        put_number(&sector, 510, 2, below(20) == 0 ? 0 : 0xAA55);
        // FATs of a size that leaves room for data, a root that may be there.
        put_number(&sector, 16, 1, static_cast<u32>(below(4)));
        if (below(2) == 0) {
            put_number(&sector, 22, 2, 0);
            put_number(&sector, 36, 4, static_cast<u32>(below(1 << 20)));
            put_number(&sector, 44, 4, static_cast<u32>(below(1 << 17)));
        }
        SCOPED_TRACE("case " + std::to_string(i));
        ASSERT_NO_FATAL_FAILURE(torment(sector));
    }
    EXPECT_GT(mounted, 0);
}
