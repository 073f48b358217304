// qvol map: what it tells about areas and clusters, in the terminal, as JSON and as a picture,
// which a browser has to show.

#include "tests/support/qvol.h"

#include <nlohmann/json.hpp>

#include <map>

using namespace testing_support;
using nlohmann::json;

namespace {

constexpr std::uint64_t KIB = 1024;
constexpr std::uint64_t MIB = 1024 * KIB;

std::string text_of_file(const std::string &path) {
    const bytes content = read_file(path);
    return {content.begin(), content.end()};
}

class QvolMap : public QvolImage {
protected:
    // 8,095 clusters of 512 bytes.
    QvolMap() {
        format("16", 4 * MIB, "1");
    }

    json document() {
        return json::parse(said("map", {"--json"}));
    }

    void put(const std::string &name, std::size_t size, const std::string &path = "/") {
        said("put", {host_file(name, std::string(size, 'x')), path});
    }

    // A long file /a, a short one, a directory, and /d around the gap that /b has left.
    void put_one_in_two_pieces() {
        put("a", 900000);
        put("b", 300000);
        put("c", 500);
        said("mkdir", {"/dir"});
        said("rm", {"/b"});
        put("d", 600000);
    }

    void change(std::uint64_t offset, const std::string &content) const {
        std::fstream image(image_, std::ios::binary | std::ios::in | std::ios::out);
        image.seekp(static_cast<std::streamoff>(offset));
        image.write(content.data(), static_cast<std::streamsize>(content.size()));
    }

    void set_fat16_entry(std::uint32_t cluster, std::uint32_t value) const {
        const volume_layout layout = layout_of(image_);
        change(std::uint64_t{layout.fat_start} * layout.sector_size + 2ULL * cluster,
               {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)});
    }

    // The same text anywhere on the volume, which has to be there once.
    void replace_once(const std::string &old_text, const std::string &new_text) const {
        const std::string image = text_of_file(image_);
        const std::size_t place = image.find(old_text);
        ASSERT_NE(place, std::string::npos);
        ASSERT_EQ(image.find(old_text, place + 1), std::string::npos);
        change(place, new_text);
    }

    std::string svg() {
        const std::string path = scratch_.file("map.svg");
        said("map", {"--quiet", "--force", "--svg", path});
        return text_of_file(path);
    }

    // Whether the parser of libxml2 takes the picture that svg() has made.
    outcome parsed() {
        return run({"xmllint", "--noout", "--nonet", scratch_.file("map.svg")});
    }
};

json owner_of(const json &map, const std::string &path) {
    for (const json &owner : map["owners"]) {
        if (owner["path"] == path) {
            return owner;
        }
    }
    return {};
}

} // namespace

// ---- terminal ---------------------------------------------------------------------------------

TEST_F(QvolMap, ShowsAreasClustersAndPieces) {
    put_one_in_two_pieces();
    const std::string all_free = std::string(80, '.') + "\n";
    std::string expected =
        "disk.img: FAT16, 4 MiB, 8095 clusters of 512 bytes\n"
        "\n"
        "Areas to scale, 51.2 KiB a column\n"
        "1" +
        std::string(79, 'D') +
        "\n"
        "\n"
        "The first 56 KiB, a mark every 4 KiB\n"
        "R000000000000000000000001111111111111111111111///////////////////////DDDDDDDDDDD\n"
        "|    |     |     |    |     |     |     |    |     |     |    |     |     |\n"
        "\n"
        "Bytes from the page boundary to the area\n"
        "  pages of           2 KiB   4 KiB   8 KiB  16 KiB       at byte\n"
        "R reserved               0       0       0       0             0\n"
        "0 FAT 0                512     512     512     512           512\n"
        "1 FAT 1                512     512     512     512         16896\n"
        "/ root directory       512     512     512     512         33280\n"
        "D data                 512     512     512     512         49664\n"
        "\n"
        "Clusters, 7 a cell (3.5 KiB)\n" +
        std::string(80, 'A') + "\n" + std::string(80, 'A') + "\n" + std::string(80, 'A') +
        "\n"
        "AAAAAAAAAAAb" + // the end of /a and the start of /d share a cell
        std::string(68, 'B') +
        "\n"
        "BBBBBBBBBBBBBBbb" + // /c and the directory between the pieces of /d
        std::string(64, 'B') +
        "\n"
        "BBBBBBBBBBBBBBBBBBb" +
        std::string(61, '.') + "\n";
    for (int row = 0; row < 8; row++) {
        expected += all_free;
    }
    expected += std::string(37, '.') +
                "\n"
                "\n"
                "   clusters     share  pieces  owner\n"
                "A      1758   21.72 %       1  /a\n"
                "B      1172   14.48 %       2  /d\n"
                "C         1    0.01 %       1  /c\n"
                "/         1    0.01 %       1  1 directory\n"
                ".      5163   63.78 %       1  free\n"
                "\n"
                "Fragmentation <0.1 %\n"
                "1 of 4 chains in pieces; 1 jump in 2928 steps from cluster to cluster\n"
                "free space in 1 piece, the largest 2.5 MiB\n"
                "\n"
                "   clusters     share  pieces  most fragmented\n"
                "       1172   14.48 %       2  /d\n";
    EXPECT_EQ(qvol("map"), (outcome{0, expected, ""}));
}

TEST_F(QvolMap, FitsTheWidthOfTheTerminalAndItsColours) {
    put("A name that is too long for a narrow terminal.text", 5000);
    const auto on_terminal = [&](const std::string &setting) {
        return shell("script -qec \"stty cols 64; " + setting + " $1 map $2\" /dev/null",
                     {qvol_path(), image_})
            .out;
    };
    const std::string plain = on_terminal("NO_COLOR=1 LC_ALL=C");
    EXPECT_EQ(plain.find('\x1b'), std::string::npos) << plain;
    EXPECT_NE(plain.find("\r\n1" + std::string(63, 'D') + "\r\n"), std::string::npos) << plain;
    EXPECT_NE(plain.find("  /A name th...narrow terminal.text\r\n"), std::string::npos) << plain;
    const std::string coloured = on_terminal("NO_COLOR= LC_ALL=C.UTF-8");
    EXPECT_NE(coloured.find("\x1b[38;5;33m█\x1b[0m"), std::string::npos) << coloured;
    EXPECT_NE(coloured.find("·"), std::string::npos) << coloured;
    EXPECT_NE(coloured.find("…"), std::string::npos) << coloured;
    const std::string without_utf8 = on_terminal("NO_COLOR= LC_ALL=C");
    EXPECT_NE(without_utf8.find("\x1b[38;5;33mA\x1b[0m"), std::string::npos) << without_utf8;
}

TEST_F(QvolMap, MarksWhatIsLostAndBad) {
    set_fat16_entry(100, 0xFFFF);
    set_fat16_entry(101, 0xFFFF);
    set_fat16_entry(200, 0xFFF7);
    const std::string text = said("map");
    EXPECT_NE(text.find("?         2    0.02 %       1  lost: allocated, referenced by no entry\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("!         1    0.01 %       1  marked bad\n"), std::string::npos) << text;
    const json map = document();
    EXPECT_EQ(map["lost"], (json{{{"first", 100}, {"count", 2}}}));
    EXPECT_EQ(map["bad"], (json{{{"first", 200}, {"count", 1}}}));
}

// ---- facts ------------------------------------------------------------------------------------

TEST_F(QvolMap, TellsTheSameAsADocument) {
    put_one_in_two_pieces();
    const json map = document();
    const json fat_remainders = {{"2048", 512}, {"4096", 512}, {"8192", 512}, {"16384", 512}};
    EXPECT_EQ(map["image"], image_);
    EXPECT_EQ(map["fat_type"], 16);
    EXPECT_EQ(map["bytes"], 4 * MIB);
    EXPECT_EQ(map["cluster_size"], 512);
    EXPECT_EQ(map["clusters"], 8095);
    EXPECT_EQ(map["files"], 3);
    EXPECT_EQ(map["areas"].size(), 5U);
    EXPECT_EQ(map["areas"][1], (json{{"name", "FAT 0"},
                                     {"first_sector", 1},
                                     {"sectors", 32},
                                     {"offset", 512},
                                     {"bytes", 32 * 512},
                                     {"remainders", fat_remainders}}));
    EXPECT_EQ(map["fragmentation"], (json{{"percent", 100.0 / 2928},
                                          {"chains", 4},
                                          {"in_pieces", 1},
                                          {"steps", 2928},
                                          {"jumps", 1}}));
    EXPECT_EQ(
        owner_of(map, "/d"),
        (json{{"path", "/d"},
              {"kind", "file"},
              {"clusters", 1172},
              {"chain", {{{"first", 1760}, {"count", 586}}, {{"first", 2348}, {"count", 586}}}},
              {"damage", nullptr}}));
    EXPECT_EQ(map["free"], (json{{{"first", 2934}, {"count", 5163}}}));
}

TEST_F(QvolMap, TellsNoRemainderOfAlignedAreas) {
    image_ = scratch_.sparse_file("aligned.img", 64 * MIB);
    ASSERT_EQ(run({tool_path(), "-F", "32", "-S", "512", "-s", "1", "-p", "8192", image_}).status,
              0);
    for (const json &area : document()["areas"]) {
        EXPECT_EQ(area["remainders"]["8192"], 0) << area;
        EXPECT_EQ(area["offset"].get<std::uint64_t>() % 16384, area["remainders"]["16384"]) << area;
    }
}

TEST_F(QvolMap, CountsSharedClustersOnceAndTellsTheDamage) {
    put("a", 2000);
    put("b", 2000);
    set_fat16_entry(7, 3); // from the second cluster of /b into /a
    set_fat16_entry(5, 2); // /a runs in a circle
    const outcome result = qvol("map", {"--json"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "qvol: /a: the chain links to cluster 2, which is already in use\n"
                          "qvol: /b: the chain links to cluster 3, which is already in use\n");
    const json map = json::parse(result.out);
    EXPECT_EQ(owner_of(map, "/a")["clusters"], 4);
    EXPECT_EQ(owner_of(map, "/b")["chain"], (json{{{"first", 6}, {"count", 2}}}));
    EXPECT_EQ(map["lost"], (json{{{"first", 8}, {"count", 2}}}));
}

// ---- sizes ------------------------------------------------------------------------------------

// The library mounts no volume of fewer than 4,085 clusters; a FAT may serve fewer. Such a volume
// is not written to by a command: its file is made here.
TEST_F(QvolMap, ShowsEachClusterOfASmallFat) {
    change(22, {1, 0}); // sectors of a FAT, of 256 entries each
    const std::uint64_t root = (1 + 2 * 1) * 512;
    change(root, {'A', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', 0x20, 0x08}); // "a"
    change(root + 26, {2, 0, 0x00, 0x06}); // first cluster, bytes
    set_fat16_entry(2, 3);
    set_fat16_entry(3, 4);
    set_fat16_entry(4, 0xFFFF);
    const std::string text = said("map");
    EXPECT_NE(text.find("Clusters, 1 a cell (512 bytes)\nAAA" + std::string(77, '.') + "\n"),
              std::string::npos)
        << text;
    EXPECT_NE(svg().find("<title>/a\nclusters 2 to 4</title>"), std::string::npos);
    EXPECT_EQ(parsed(), (outcome{0, "", ""}));
}

// A FAT of 64 MiB, made of holes, in a boot sector that says so.
TEST_F(QvolMap, ShowsAVolumeOf16MillionClustersInSeconds) {
    format("32", 40 * MIB, "1");
    const std::uint32_t clusters = 1U << 24;
    const std::uint32_t fat_sectors = clusters / 128 + 1;
    const std::uint32_t sectors = layout_of(image_).fat_start + 2 * fat_sectors + clusters;
    const auto word = [](std::uint32_t value) {
        return std::string(reinterpret_cast<const char *>(&value), sizeof value);
    };
    change(32, word(sectors));
    change(36, word(fat_sectors));
    std::filesystem::resize_file(image_, std::uint64_t{sectors} * 512);
    const std::string text = said("map");
    EXPECT_NE(text.find("FAT32, 8.1 GiB, 16777216 clusters of 512 bytes\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("Clusters, 13108 a cell (6.4 MiB)\n:"), std::string::npos) << text;
    EXPECT_LT(svg().size(), 100 * KIB);
}

// ---- picture ----------------------------------------------------------------------------------

TEST_F(QvolMap, DrawsAPictureThatStandsAlone) {
    put_one_in_two_pieces();
    const std::string picture = svg();
    EXPECT_EQ(parsed(), (outcome{0, "", ""}));
    for (const char *foreign : {"<script", "href", "url(", "@import", "@font-face", "<image",
                                "on"
                                "load",
                                "<foreignObject"}) {
        EXPECT_EQ(picture.find(foreign), std::string::npos) << foreign;
    }
    EXPECT_EQ(picture.find("http"), picture.find("http://www.w3.org/2000/svg"));
    EXPECT_EQ(picture.rfind("http"), picture.find("http"));
    EXPECT_NE(picture.find("<title>/d\nclusters 1,762 to 1,793</title>"), std::string::npos);
    EXPECT_NE(picture.find("prefers-color-scheme: dark"), std::string::npos);
    EXPECT_EQ(svg(), picture);
}

// What no kernel and no tool would store, in the slots of a long name.
TEST_F(QvolMap, DrawsNamesThatMeanHarmAsText) {
    const auto units = [](const std::u16string &name) {
        return std::string(reinterpret_cast<const char *>(name.data()), 2 * name.size());
    };
    put("Long name.txt", 700);
    // The slot holds 5, 6 and 2 units.
    replace_once(units(u"Long "), units(u"<g/>\x1B"));
    replace_once(units(u"name.t"), std::string(units(u"&\"'\xFFFE\xFFFF]")));
    const std::string picture = svg();
    EXPECT_EQ(parsed(), (outcome{0, "", ""}));
    EXPECT_NE(picture.find("&lt;g/"), std::string::npos) << picture;
    EXPECT_EQ(picture.find("<g/>"), std::string::npos);
    EXPECT_EQ(picture.find('\x1b'), std::string::npos);
    EXPECT_NE(picture.find("&amp;&quot;"), std::string::npos);
    EXPECT_EQ(picture.find("\xEF\xBF\xBE"), std::string::npos);
}

TEST_F(QvolMap, DrawsTheNameOfTheImageAsText) {
    const std::string strange = scratch_.file("a<b>&\"]]>\xFF.img");
    std::filesystem::rename(image_, strange);
    image_ = strange;
    EXPECT_NE(svg().find("a&lt;b&gt;&amp;&quot;]]&gt;\\xff.img"), std::string::npos);
    EXPECT_EQ(parsed(), (outcome{0, "", ""}));
}

TEST_F(QvolMap, ReplacesAPictureOnlyWhenForced) {
    const std::string path = host_file("there.svg", "mine");
    EXPECT_EQ(qvol("map", {"--svg", path}),
              (outcome{1, "", "qvol: cannot make " + path + ": exists; --force replaces it\n"}));
    EXPECT_EQ(text_of_file(path), "mine");
    EXPECT_EQ(qvol("map", {"--svg", path, "--force"}), (outcome{0, "made " + path + "\n", ""}));
    EXPECT_EQ(text_of_file(path).substr(0, 4), "<svg");
}

TEST_F(QvolMap, LeavesNothingOfAPictureThatCannotBeWritten) {
    if (QUORVEL_COVERED) {
        GTEST_SKIP() << "a program with a limit on file sizes cannot write its branch count";
    }
    const std::string path = scratch_.file("limited.svg");
    const outcome result = shell("trap '' XFSZ; ulimit -f 4; exec \"$1\" map --svg \"$3\" \"$2\"",
                                 {qvol_path(), image_, path});
    EXPECT_EQ(result, (outcome{1, "", "qvol: cannot write " + path + ": File too large\n"}));
    std::vector<std::string> left;
    for (const auto &entry : std::filesystem::directory_iterator(scratch_.file(""))) {
        left.push_back(entry.path().filename());
    }
    EXPECT_EQ(left, std::vector<std::string>{"disk.img"});
}

TEST(QvolMapPicture, IsTheOneOfTheDocumentation) {
    const scratch_directory scratch;
    const std::string directory = QUORVEL_SOURCE_DIR "/docs/";
    const std::string fresh = scratch.file("map.svg");
    EXPECT_EQ(run({directory + "make-map", tool_path(), qvol_path(), fresh}), (outcome{0, "", ""}));
    EXPECT_EQ(text_of_file(fresh), text_of_file(directory + "map.svg"));
}

// ---- in a browser -----------------------------------------------------------------------------

namespace {

// What a browser shows, as counts of its colours.
class QvolMapShown : public QvolMap {
protected:
    void SetUp() override {
        if (!has_program("chromium") || !has_program("pngtopnm")) {
            GTEST_SKIP() << "chromium or netpbm is missing";
        }
    }

    using colour_counts = std::map<std::uint32_t, std::size_t>; // by 0xRRGGBB

    colour_counts shown() {
        (void)svg();
        const outcome rendered = shell(
            "cd \"$1\" && timeout 100 chromium --headless --no-sandbox --disable-gpu --disable-dev-shm-usage --hide-scrollbars "
            "--user-data-dir=profile --window-size=1200,1100 --screenshot=map.png map.svg "
            ">chromium.log 2>&1 && pngtopnm map.png >map.ppm",
            {scratch_.file("")});
        EXPECT_EQ(rendered.status, 0) << rendered;
        return counts_of(text_of_file(scratch_.file("map.ppm")));
    }

private:
    // A plain pixmap of 8 bits: "P6", width and height, 255, then three bytes for each pixel.
    static colour_counts counts_of(const std::string &pixmap) {
        colour_counts counts;
        const std::size_t start = pixmap.find("\n255\n");
        EXPECT_NE(start, std::string::npos);
        const auto byte = [&](std::size_t at) { return static_cast<std::uint8_t>(pixmap[at]); };
        std::uint32_t last = 0;
        std::size_t *count = &counts[last]; // of the colour of the pixel before
        for (std::size_t at = start + 5; start != std::string::npos && at + 3 <= pixmap.size();
             at += 3) {
            const auto colour =
                static_cast<std::uint32_t>(byte(at) << 16 | byte(at + 1) << 8 | byte(at + 2));
            count = colour == last ? count : &counts[colour];
            last = colour;
            ++*count;
        }
        return counts;
    }
};

constexpr std::uint32_t FREE = 0xE6EAF0;
constexpr std::uint32_t SECOND_LARGEST = 0xE8833A;
constexpr std::uint32_t OF_DATA_AREA = 0x2F9E78;
constexpr std::uint32_t OF_TEXT = 0x1B2430;
constexpr std::uint32_t OF_PAPER = 0xFFFFFF;

} // namespace

TEST_F(QvolMapShown, ChangesWithAFileByItsSize) {
    put("a", 1000000);
    colour_counts before = shown();
    EXPECT_GT(before[OF_PAPER], 400000U);
    EXPECT_GT(before[OF_DATA_AREA], 30000U); // nearly all of the strip of areas
    EXPECT_GT(before[OF_TEXT], 2000U);
    EXPECT_EQ(before[SECOND_LARGEST], 0U);
    const std::size_t free_before = before[FREE];

    put("b", 500000);
    colour_counts after = shown();
    // 977 of 8,095 clusters: the free cells lose what those of the file gain; its swatch comes to
    // that.
    const auto gain = static_cast<double>(after[SECOND_LARGEST]);
    const auto loss = static_cast<double>(free_before - after[FREE]);
    EXPECT_NEAR(gain, loss, 0.1 * loss);
    EXPECT_NEAR(loss / static_cast<double>(free_before), 977.0 / (8095 - 1954), 0.02);
}

TEST_F(QvolMapShown, IsTheSameForNamesThatMeanHarm) {
    put("Long name.txt", 100000);
    const std::size_t cells = shown()[FREE];
    const auto units = [](const std::u16string &name) {
        return std::string(reinterpret_cast<const char *>(name.data()), 2 * name.size());
    };
    replace_once(units(u"Long "), units(u"</g><"));
    EXPECT_EQ(shown()[FREE], cells);
}
