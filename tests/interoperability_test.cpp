// Formatted images in independent FAT implementations: the checker of dosfstools, and mtools, which
// read, list and write the volumes.

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/tool.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

using namespace testing_support;

namespace {

// The volume as the program's own summary describes it.
struct summary {
    unsigned long long volume_bytes = 0;
    unsigned fat_type = 0;
    unsigned fat_sectors = 0;
    unsigned total_sectors = 0;
    unsigned clusters = 0;
    unsigned sector_size = 0;
    unsigned sec_per_clus = 0;
    unsigned fat_start = 0;
    unsigned rdir_start = 0;
    unsigned data_start = 0;
    unsigned pbr_start = 0;

    [[nodiscard]] unsigned cluster_bytes() const {
        return sector_size * sec_per_clus;
    }
    // Clusters that the empty root directory takes.
    [[nodiscard]] unsigned root_clusters() const {
        return fat_type == 32 ? 1 : 0;
    }
};

// A space in the format matches any number of spaces and tabs.
constexpr char SUMMARY[] = "- Volume size: %llu Bytes - FAT type: %u bits - FAT size: %u sectors "
                           "- Total sectors: %u sectors - Cluster counts: %u "
                           "- Sector size: %u Bytes - Sectors/cluster: %u "
                           "- FAT start: %uth sector - RDIR start: %uth sector "
                           "- DATA start: %uth sector - PBR start: %uth sector Success to format";

bool parse_summary(const std::string &text, summary *s) {
    return std::sscanf(text.c_str(), SUMMARY, &s->volume_bytes, &s->fat_type, &s->fat_sectors,
                       &s->total_sectors, &s->clusters, &s->sector_size, &s->sec_per_clus,
                       &s->fat_start, &s->rdir_start, &s->data_start, &s->pbr_start) == 11;
}

// "1 234 567", as mdir prints numbers.
std::string grouped(unsigned long long number) {
    std::string digits = std::to_string(number);
    for (std::size_t i = digits.size(); i > 3; i -= 3) {
        digits.insert(i - 3, 1, ' ');
    }
    return digits;
}

struct request {
    std::uint64_t size = 0; // bytes of the image
    std::vector<std::string> options;
    unsigned fat_type = 0;     // that comes of it
    unsigned sector_size = 0;  // likewise
    unsigned sec_per_clus = 0; // likewise
    unsigned page_size = 0;    // likewise
};

class Interoperability : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // Eight sectors to a track need not divide the volume, which mtools would refuse.
        setenv("MTOOLS_SKIP_CHECK", "1", 1);
    }
    void SetUp() override {
        for (const char *program : {"fsck.fat", "minfo", "mdir", "mcopy"}) {
            if (!has_program(program)) {
                GTEST_SKIP() << program << " is not installed";
            }
        }
    }

    // Formats a new image and checks it with every tool.
    void check(const request &wanted) {
        std::string trace;
        for (const std::string &option : wanted.options) {
            trace += option + " ";
        }
        SCOPED_TRACE(trace + "on " + std::to_string(wanted.size) + " bytes");
        image_ = scratch_.sparse_file("disk.img", wanted.size);
        summary s;
        ASSERT_NO_FATAL_FAILURE(format(wanted, &s));
        expect_as_requested(wanted, s);
        expect_areas_on_pages(wanted.page_size, s);
        expect_clean(s, 1, s.root_clusters());
        expect_geometry_in_minfo(s);
        expect_empty_in_mdir(s);
        expect_files_survive(s);
    }

private:
    void format(const request &wanted, summary *s) const {
        std::vector<std::string> arguments = wanted.options;
        arguments.insert(arguments.end(), {"-v", "-l", "CHECKED", image_});
        const outcome result = run_tool(arguments);
        ASSERT_EQ(result.status, 0);
        ASSERT_EQ(result.err, "");
        ASSERT_TRUE(parse_summary(result.out, s)) << result.out;
    }

    static void expect_as_requested(const request &wanted, const summary &s) {
        EXPECT_EQ(s.volume_bytes, wanted.size);
        EXPECT_EQ(s.fat_type, wanted.fat_type);
        EXPECT_EQ(s.sector_size, wanted.sector_size);
        EXPECT_EQ(s.sec_per_clus, wanted.sec_per_clus);
        EXPECT_EQ(s.total_sectors, wanted.size / wanted.sector_size / 2 * 2);
        EXPECT_EQ(s.clusters, (s.total_sectors - s.data_start) / s.sec_per_clus);
        EXPECT_EQ(s.pbr_start, 0u);
    }

    // From the boot sector's own fields: both FAT copies, the root directory and the data.
    void expect_areas_on_pages(unsigned page_size, const summary &s) const {
        const volume_layout layout = layout_of(image_);
        EXPECT_EQ(layout.fat_start, s.fat_start);
        EXPECT_EQ(layout.fat_size, s.fat_sectors);
        EXPECT_EQ(layout.rdir_start, s.rdir_start);
        EXPECT_EQ(layout.data_start, s.data_start);
        if (page_size == 0) {
            EXPECT_EQ(layout.fat_start, s.fat_type == 32 ? 32u : 1u);
            return;
        }
        for (const std::uint64_t sector : {layout.fat_start, layout.fat_start + layout.fat_size,
                                           layout.rdir_start, layout.data_start}) {
            EXPECT_EQ(sector * layout.sector_size % page_size, 0u) << "sector " << sector;
        }
    }

    // On a good volume the checker reports the blank label entry and, on FAT32, that the free
    // clusters have not been counted yet, and nothing else.
    void expect_clean(const summary &s, unsigned files, unsigned used_clusters) const {
        const outcome result = run({"fsck.fat", "-n", image_});
        std::string expected = "Volume label '' stored in root directory is not valid.\n"
                               "  Auto-removing label.\n";
        if (s.fat_type == 32) {
            expected += "Free cluster summary uninitialized (should be " +
                        std::to_string(s.clusters - used_clusters) + ")\n";
        }
        expected += "\nLeaving filesystem unchanged.\n" + image_ + ": " + std::to_string(files) +
                    " files, " + std::to_string(used_clusters) + "/" + std::to_string(s.clusters) +
                    " clusters\n";
        const std::size_t first_line = result.out.find('\n');
        ASSERT_NE(first_line, std::string::npos) << result.out;
        EXPECT_EQ(result.out.substr(0, 9), "fsck.fat ");
        EXPECT_EQ(result.out.substr(first_line + 1), expected);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.status, 1); // the label entry counts as an error
    }

    [[nodiscard]] std::uint32_t serial_number(const summary &s) const {
        return number_at(read_range(image_, s.fat_type == 32 ? 67 : 39, 4), 0, 4);
    }

    void expect_geometry_in_minfo(const summary &s) const {
        const outcome result = run({"minfo", "-i", image_, "::"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        std::array<char, 16> serial{};
        std::snprintf(serial.data(), serial.size(), "%08X", serial_number(s));
        const bool is_fat32 = s.fat_type == 32;
        const bool is_small = !is_fat32 && s.total_sectors < 65536;
        std::vector<std::string> lines = {
            "banner:\"Torvik  \"",
            "sector size: " + std::to_string(s.sector_size) + " bytes",
            "cluster size: " + std::to_string(s.sec_per_clus) + " sectors",
            "reserved (boot) sectors: " + std::to_string(s.fat_start),
            "fats: 2",
            "max available root directory slots: " +
                std::to_string((s.data_start - s.rdir_start) * s.sector_size / 32),
            "small size: " + std::to_string(is_small ? s.total_sectors : 0) + " sectors",
            "media descriptor byte: 0xf8",
            "sectors per fat: " + std::to_string(is_fat32 ? 0 : s.fat_sectors),
            "sectors per track: 8",
            "heads: 1",
            "hidden sectors: 0",
            "physical drive id: 0x0",
            "dos4=0x29",
            std::string("serial number: ") + serial.data(),
            "disk label=\"CHECKED    \"",
            std::string("disk type=\"") + (is_fat32 ? "FAT32   \"" : "FAT16   \"")};
        if (!is_small) {
            lines.push_back("big size: " + std::to_string(s.total_sectors) + " sectors");
        }
        if (is_fat32) {
            lines.insert(lines.end(),
                         {"Big fatlen=" + std::to_string(s.fat_sectors), "Extended flags=0x0000",
                          "FS version=0x0000", "rootCluster=2", "infoSector location=1",
                          "backup boot sector=6", "signature=0x41615252"});
        }
        for (const std::string &line : lines) {
            EXPECT_NE(("\n" + result.out).find("\n" + line + "\n"), std::string::npos)
                << "no line \"" << line << "\" in\n"
                << result.out;
        }
    }

    void expect_empty_in_mdir(const summary &s) const {
        const unsigned long long free_bytes =
            1ULL * (s.clusters - s.root_clusters()) * s.cluster_bytes();
        const std::uint32_t serial = serial_number(s);
        std::array<char, 256> expected{};
        std::snprintf(expected.data(), expected.size(),
                      " Volume in drive : is            \n"
                      " Volume Serial Number is %04X-%04X\n"
                      "Directory for ::/\n"
                      "\n"
                      "No files\n"
                      "%35s bytes free\n"
                      "\n",
                      serial >> 16, serial & 0xFFFF, grouped(free_bytes).c_str());
        EXPECT_EQ(run({"mdir", "-i", image_, "::"}), (outcome{0, expected.data(), ""}));
    }

    // Copies files in and out again: one that ends inside its fourth cluster, one of one byte, and
    // one with a long name that is empty.
    void expect_files_survive(const summary &s) const {
        bytes content(3 * s.cluster_bytes() + 17);
        for (std::size_t i = 0; i < content.size(); i++) {
            content[i] = static_cast<std::uint8_t>(i * 131 + i / 4096);
        }
        const std::vector<std::pair<std::string, bytes>> files = {
            {"LARGE.BIN", content}, {"BYTE", bytes{0x5A}}, {"Nothing at all.text", bytes{}}};
        const outcome silent = {0, "", ""};
        for (const auto &[name, data] : files) {
            const std::string host = scratch_.file_with("in", data);
            EXPECT_EQ(run({"mcopy", "-i", image_, host, "::" + name}), silent);
        }
        for (const auto &[name, data] : files) {
            const std::string host = scratch_.file("out");
            EXPECT_EQ(run({"mcopy", "-n", "-i", image_, "::" + name, host}), silent);
            EXPECT_TRUE(read_file(host) == data) << name;
            std::filesystem::remove(host);
        }
        expect_clean(s, 4, s.root_clusters() + 5);
    }

    scratch_directory scratch_;
    std::string image_;
};

// ---- every option value -----------------------------------------------------------------------

struct cluster_shape {
    unsigned sector_size;
    unsigned sec_per_clus;
};

constexpr std::array<unsigned, 4> PAGE_SIZES = {0, 2048, 4096, 8192};

// Every pair that the options allow.
std::vector<cluster_shape> cluster_shapes() {
    std::vector<cluster_shape> result;
    for (unsigned sector_size = 512; sector_size <= 4096; sector_size *= 2) {
        for (unsigned sectors = 1; sectors <= 64 && sectors * sector_size <= 32768; sectors *= 2) {
            result.push_back({sector_size, sectors});
        }
    }
    return result;
}

std::string shape_name(const ::testing::TestParamInfo<cluster_shape> &info) {
    return std::to_string(info.param.sec_per_clus) + "x" + std::to_string(info.param.sector_size);
}

class EveryClusterShape : public Interoperability,
                          public ::testing::WithParamInterface<cluster_shape> {
protected:
    // An image with room for about `clusters` clusters, odd in sectors and with a rest.
    static request make(unsigned fat_type, unsigned page, unsigned clusters) {
        const cluster_shape shape = GetParam();
        const std::uint64_t areas = 128 * 1024 + 8ULL * clusters;
        const std::uint64_t sectors =
            1ULL * clusters * shape.sec_per_clus + areas / shape.sector_size;
        request result;
        result.size = (sectors | 1) * shape.sector_size + 77;
        result.options = {"-S", std::to_string(shape.sector_size), "-s",
                          std::to_string(shape.sec_per_clus)};
        result.fat_type = fat_type;
        result.sector_size = shape.sector_size;
        result.sec_per_clus = shape.sec_per_clus;
        result.page_size = page;
        return result;
    }
    // Cycles through the page sizes, from another one on with each number of sectors, so that every
    // width of the FAT and every sector size meet all four.
    static unsigned page_size(unsigned turn) {
        const auto turns = static_cast<unsigned>(std::countr_zero(GetParam().sec_per_clus));
        return PAGE_SIZES[(turns + turn) % PAGE_SIZES.size()];
    }
    void check_width(unsigned fat_type, unsigned page, unsigned clusters) {
        request wanted = make(fat_type, page, clusters);
        wanted.options.insert(wanted.options.end(),
                              {"-F", std::to_string(fat_type), "-p", std::to_string(page)});
        check(wanted);
    }
    // With the width and the page size left to the program.
    void check_automatic(unsigned fat_type, unsigned clusters) {
        check(make(fat_type, 4096, clusters));
    }
};

} // namespace

TEST_P(EveryClusterShape, IsSoundInFat16) {
    check_width(16, page_size(0), 4200);
    check_width(16, page_size(1), 63000);
}

TEST_P(EveryClusterShape, IsSoundInFat32) {
    check_width(32, page_size(2), 65600);
    check_width(32, page_size(3), 140000);
}

TEST_P(EveryClusterShape, IsSoundWithTheWidthLeftToTheProgram) {
    check_automatic(16, 40000);
    check_automatic(32, 70000);
}

INSTANTIATE_TEST_SUITE_P(Shapes, EveryClusterShape, ::testing::ValuesIn(cluster_shapes()),
                         shape_name);

// ---- sizes at the limits ----------------------------------------------------------------------

TEST_F(Interoperability, OtherToolsAcceptTheFewestAndTheMostClustersOfEachWidth) {
    const std::vector<std::string> unaligned = {"-S", "512", "-p", "0"};
    const std::vector<std::string> pairs = {"-S", "512", "-s", "2", "-p", "0"};
    check({4150ULL * 512, unaligned, 16, 512, 1, 0});         // 4085 clusters
    check({66076ULL * 512, {"-S", "512"}, 16, 512, 1, 4096}); // 65524 clusters
    check({132106ULL * 512, pairs, 32, 512, 2, 0});           // 65525 clusters
}

TEST_F(Interoperability, OtherToolsAcceptTotalsOnBothSidesOf16Bits) {
    const std::vector<std::string> pairs = {"-S", "512", "-s", "2"};
    for (const std::uint64_t sectors : {65534, 65535, 65536, 65537, 65538}) {
        check({sectors * 512, pairs, 16, 512, 2, 4096});
    }
}

TEST_F(Interoperability, OtherToolsAcceptTheDefaults) {
    check({64ULL << 20, {}, 16, 4096, 1, 4096});
    check({512ULL << 20, {}, 32, 4096, 1, 4096});
}

TEST_F(Interoperability, OtherToolsAcceptClustersOver32KiB) {
    check({18ULL << 30, {"-s", "64", "-F", "32"}, 32, 4096, 64, 4096});
    check({3ULL << 30, {"-s", "16"}, 16, 4096, 16, 4096});
}

TEST_F(Interoperability, OtherToolsAcceptAVolumeWhoseSectorsAreNoMultipleOfATrack) {
    check({(64ULL << 20) + 5 * 4096, {}, 16, 4096, 1, 4096});
}
