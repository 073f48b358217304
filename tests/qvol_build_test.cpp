// qvol build: images from trees. What goes in comes out again, fsck.fat finds nothing, mtools read
// the same, the smallest image is the smallest, equal trees give equal bytes, and what cannot be is
// refused with nothing made.

#include "tests/support/qvol_build.h"

#include <random>
#include <regex>

#include <nlohmann/json.hpp>
#include <sys/file.h>

using namespace testing_support;
using nlohmann::json;

namespace {

const std::string NOT_STORED = "qvol: cannot store all entries; nothing was written\n";

// What the program says of a request that it refuses. Nothing may have been made.
class QvolBuildRefusal : public QvolBuild {
protected:
    std::string refusal(std::vector<std::string> arguments, int status = 1) {
        const outcome result = build(std::move(arguments));
        EXPECT_EQ(result.status, status) << result;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(made(), std::vector<std::string>());
        return result.err;
    }
};

} // namespace

// ---- trees ------------------------------------------------------------------------------------

TEST_F(QvolBuild, HoldsATreeOnEveryKindOfVolume) {
    make_mixed_tree();
    const char *pages[] = {"0", "2K", "4096", "8K", "16K"};
    int round = 0;
    for (const std::string sector : {"512", "1024", "2048", "4096"}) {
        for (const std::string fat : {"16", "32"}) {
            const std::string page = pages[round++ % 5];
            SCOPED_TRACE(sector + ", FAT" + fat + ", pages of " + page);
            build_tree("auto", {"--sector", sector, "--fat", fat, "--page", page});
            expect_tree(tree_);
        }
    }
}

TEST_F(QvolBuild, HoldsATreeWithEveryClusterSize) {
    make_mixed_tree();
    for (const std::string cluster : {"512", "1K", "2K", "4K", "8K", "16K", "32768"}) {
        SCOPED_TRACE(cluster);
        build_tree("auto", {"--cluster", cluster, "--fat", "16"});
        expect_tree(tree_);
    }
    build_tree("auto", {"--cluster", "8K", "--fat", "32"});
    expect_tree(tree_);
}

TEST_F(QvolBuild, HoldsTheSourcesOfTheProject) {
    for (const std::string part : {"fat", "qvol", "tests"}) {
        tree_ = std::string(QUORVEL_SOURCE_DIR) + "/" + part;
        build_tree("auto");
        expect_tree(tree_);
    }
}

// Documentation as it comes has names that differ only in case: all of them are told at once, and
// without them everything else fits. Of all the directories every twentieth is taken.
TEST_F(QvolBuild, HoldsTheDocumentationOfTheSystem) {
    const std::string take =
        QUORVEL_DEEP ? "cp -a /usr/share/doc/. \"$1\""
                     : "cd /usr/share/doc && ls | awk 'NR % 20 == 0' | xargs cp -a -t \"$1\"";
    if (shell(take, {tree_}).status != 0) {
        GTEST_SKIP() << "/usr/share/doc cannot be copied";
    }
    const outcome first = build({"--size", "auto", "--from", tree_});
    if (first.status != 0) {
        ASSERT_EQ(first.err.substr(0, NOT_STORED.size()), NOT_STORED);
        const std::regex finding("\n  ([^:]*): ");
        for (std::sregex_iterator it(first.err.begin(), first.err.end(), finding), end; it != end;
             ++it) {
            std::filesystem::remove_all((*it)[1].str());
        }
    }
    build_tree("auto");
    expect_tree(tree_);
}

TEST_F(QvolBuild, HoldsThousandsOfLikeNamesInOneDirectory) {
    for (int i = 0; i < LIKE_NAMES; i++) {
        tree_file("photos/holiday photograph " + std::to_string(i) + ".jpeg", std::to_string(i));
    }
    build_tree("auto");
    expect_tree(tree_);
}

TEST_F(QvolBuild, HoldsDeepPaths) {
    std::string deep;
    for (int i = 0; i < 150; i++) {
        deep += "level " + std::to_string(i) + "/";
    }
    tree_file(deep + "file", "at the bottom");
    build_tree("8M");
    expect_tree(tree_);
}

TEST_F(QvolBuild, HoldsALargeSparseFile) {
    const std::uint64_t size = std::uint64_t{QUORVEL_FULL ? 1024 : 64} << 20;
    const std::string big = scratch_.sparse_file("tree/big", size);
    std::fstream(big, std::ios::binary | std::ios::in | std::ios::out)
        .seekp(static_cast<std::streamoff>(size) - 3)
        .write("end", 3);
    build_tree("auto",
               {"--fat", "32", "--cluster", QUORVEL_FULL ? "4K" : "512", "--sparse", "always"});
    EXPECT_EQ(shell("\"$1\" cat \"$2\" /big | cmp - \"$3\"", {qvol_path(), image_, big}),
              (outcome{0, "", ""}));
    struct stat status {};
    ASSERT_EQ(stat(image_.c_str(), &status), 0);
    EXPECT_LT(status.st_blocks * 512, 8 << 20) << "the image is sparse too";
}

TEST_F(QvolBuild, MakesAnEmptyVolumeFromNothing) {
    EXPECT_EQ(build({"--size", "16M"}),
              (outcome{0,
                       "0 files, 0 directories, 0 links, 0 bytes\n" + image_ +
                           ": 16.0 MiB, FAT16, clusters of 4.0 KiB, 16.0 MiB free\n",
                       ""}));
    expect_clean();
    EXPECT_EQ(std::filesystem::file_size(image_), 16 << 20);
    EXPECT_EQ(said("tree"), "/\n0 directories, 0 files, 0 links\n");
}

TEST_F(QvolBuild, ReadsTheSameWithMtools) {
    make_mixed_tree();
    std::filesystem::remove(tree_ + "/link");
    std::filesystem::remove(tree_ + "/dir/to nowhere");
    std::filesystem::remove_all(tree_ + "/dir/below");
    for (const std::string fat : {"16", "32"}) {
        build_tree("auto", {"--fat", fat});
        const std::string out = scratch_.file("mtools" + fat);
        std::filesystem::create_directory(out);
        ASSERT_EQ(run({"mcopy", "-s", "-i", image_, "::*", out}).status, 0);
        EXPECT_EQ(run({"diff", "-r", tree_, out}), (outcome{0, "", ""}));
        EXPECT_EQ(run({"mdir", "-b", "-/", "-i", image_, "::"}).out,
                  "::/README.TXT\n::/an empty directory/\n::/dir/\n::/empty file\n"
                  "::/readme.md\n::/an empty directory/and another/\n"
                  "::/dir/A long name, with a comma.txt\n");
    }
}

TEST_F(QvolBuild, SkipsWhatIsSpecial) {
    tree_file("file", "x");
    ASSERT_EQ(mkfifo((tree_ + "/pipe").c_str(), 0600), 0);
    build_tree("auto", {"--skip-special"});
    EXPECT_EQ(said("ls"), "file\n");
}

TEST_F(QvolBuild, TakesNamesInAnotherEncoding) {
    tree_file("gr\xFC\xDF", "latin");
    build_tree("auto", {"--encoding", "ISO-8859-1"});
    EXPECT_EQ(said("ls"), "gr\xC3\xBC\xC3\x9F\n");
}

// ---- short names ------------------------------------------------------------------------------

TEST_F(QvolBuild, KeepsTheCaseOfShortNamesWithoutLongOnes) {
    for (const std::string name :
         {"UPPER.TXT", "lower.txt", "BASE.ext", "base2.EXT", "12345678.9", "dir/$~!#%&'.-@^"}) {
        tree_file(name, name);
    }
    build_tree("auto", {"--short-names", "--fat", "32"});
    expect_tree(tree_);
    const json entry = json::parse(said("stat", {"/lower.txt", "--json"}));
    EXPECT_EQ(entry["entry"]["slots"], 1);
    EXPECT_EQ(entry["short_name"], "LOWER.TXT");
    EXPECT_EQ(run({"mdir", "-b", "-i", image_, "::"}).out,
              "::/12345678.9\n::/BASE.ext\n::/UPPER.TXT\n::/base2.EXT\n::/dir/\n::/lower.txt\n");
}

TEST_F(QvolBuildRefusal, ListsEveryNameThatNeedsALongOne) {
    for (const std::string name : {"Mixed.txt", "nine12345", "two.dots.txt", "ok.txt", "a b",
                                   "dir/file.jpeg", "dir/\u00fc.txt"}) {
        tree_file(name, "");
    }
    const std::string why = ": long names are off and this name does not fit 8.3 with one case for "
                            "each half\n";
    EXPECT_EQ(refusal({"--size", "auto", "--from", tree_, "--short-names"}),
              NOT_STORED + "  " + tree_ + "/Mixed.txt" + why + "  " + tree_ + "/a b" + why + "  " +
                  tree_ + "/dir/file.jpeg" + why + "  " + tree_ + "/dir/\u00fc.txt" + why + "  " +
                  tree_ + "/nine12345" + why + "  " + tree_ + "/two.dots.txt" + why);
}

// ---- label ------------------------------------------------------------------------------------

TEST_F(QvolBuild, WritesTheLabelWhereEverybodyLooks) {
    for (const std::string fat : {"16", "32"}) {
        build_tree("auto", {"--fat", fat, "--label", "FLASH 1-A"});
        const json info = json::parse(said("info", {"--json"}));
        EXPECT_EQ(info["label"], "FLASH 1-A");
        EXPECT_EQ(info["boot_label"], "FLASH 1-A");
        EXPECT_NE(run({"mlabel", "-s", "-i", image_, "::"}).out.find("FLASH 1-A"),
                  std::string::npos);
        if (fat == "32") {
            EXPECT_EQ(read_range(image_, 0, 512), read_range(image_, 6 * 512, 512));
        }
    }
}

TEST_F(QvolBuild, SaysNoNameWithoutALabel) {
    for (const std::string fat : {"16", "32"}) {
        build_tree("auto", {"--fat", fat});
        const json info = json::parse(said("info", {"--json"}));
        EXPECT_EQ(info["label"], "");
        EXPECT_EQ(info["boot_label"], "NO NAME");
        EXPECT_EQ(run({"mdir", "-b", "-i", image_, "::"}).out, "");
    }
}

TEST_F(QvolBuildRefusal, TellsWhatIsWrongWithALabel) {
    const std::pair<const char *, const char *> cases[] = {
        {"", "is empty; omit the option for a volume without a label"},
        {"TWELVE CHARS", "is longer than 11 characters"},
        {"lower", "must be upper case; use \"LOWER\""},
        {"A.B", "may contain only A to Z, 0 to 9, spaces and $%'-_@~`!(){}^#&"},
        {"\u00dc", "may contain only A to Z, 0 to 9, spaces and $%'-_@~`!(){}^#&"},
        {" A", "begins or ends with a space"},
        {"NO NAME", "is reserved for volumes without a label"},
    };
    for (const auto &[label, why] : cases) {
        EXPECT_EQ(refusal({"--size", "16M", "--label", label}, 2),
                  std::string("qvol: --label \"") + label + "\": " + why + "\n");
    }
}

// ---- other fields of the boot sector ----------------------------------------------------------

TEST_F(QvolBuild, StatesWhatIsRequested) {
    for (const std::string fat : {"16", "32"}) {
        build_tree("auto", {"--fat", fat, "--volume-id", "1a2b-3C4D", "--oem", "MSWIN4.1",
                            "--media", "0xF0", "--hidden-sectors", "2048"});
        const json info = json::parse(said("info", {"--json"}));
        EXPECT_EQ(info["serial"], "1A2B-3C4D");
        EXPECT_EQ(info["oem_name"], "MSWIN4.1");
        EXPECT_EQ(read_range(image_, 21, 1), bytes{0xF0});
        EXPECT_EQ(read_range(image_, 28, 4), (bytes{0, 8, 0, 0}));
        EXPECT_EQ(said("check", {"-q"}), ""); // the media byte is in FAT entry 0, too
        EXPECT_NE(run({"mdir", "-i", image_, "::"}).out.find("Serial Number is 1A2B-3C4D"),
                  std::string::npos);
    }
    build_tree("16M", {"--volume-id", "00000000", "--oem", "A", "--media", "ff"});
    EXPECT_EQ(read_range(image_, 3, 8), (bytes{'A', ' ', ' ', ' ', ' ', ' ', ' ', ' '}));
    EXPECT_EQ(read_range(image_, 39, 4), bytes(4));
}

TEST_F(QvolBuildRefusal, TellsWhatIsWrongWithAField) {
    const std::tuple<const char *, const char *, const char *> cases[] = {
        {"--volume-id", "", "--volume-id : not a number such as 1A2B-3C4D"},
        {"--volume-id", "1A2B-3C4", "--volume-id 1A2B-3C4: not a number such as 1A2B-3C4D"},
        {"--volume-id", "1A2B3-C4D", "--volume-id 1A2B3-C4D: not a number such as 1A2B-3C4D"},
        {"--volume-id", "1A2B-3C4G", "--volume-id 1A2B-3C4G: not a number such as 1A2B-3C4D"},
        {"--volume-id", "-1A2B3C4", "--volume-id -1A2B3C4: not a number such as 1A2B-3C4D"},
        {"--oem", "", "--oem \"\": must be 1 to 8 printable ASCII characters"},
        {"--oem", "NINE CHAR", "--oem \"NINE CHAR\": must be 1 to 8 printable ASCII characters"},
        {"--oem", "\u00fc", "--oem \"\u00fc\": must be 1 to 8 printable ASCII characters"},
        {"--media", "", "--media : must be 0xF0 or 0xF8 to 0xFF"},
        {"--media", "0xF7", "--media 0xF7: must be 0xF0 or 0xF8 to 0xFF"},
        {"--media", "0x1F8", "--media 0x1F8: must be 0xF0 or 0xF8 to 0xFF"},
        {"--media", "F8h", "--media F8h: must be 0xF0 or 0xF8 to 0xFF"},
    };
    for (const auto &[option, value, why] : cases) {
        EXPECT_EQ(refusal({"--size", "16M", option, value}, 2), std::string("qvol: ") + why + "\n");
    }
}

// ---- reserved files, copies of the FAT, compacting ----------------------------------------------

TEST_F(QvolBuild, MakesPoolAndLogBesideTheTree) {
    make_mixed_tree();
    for (const std::string fat : {"16", "32"}) {
        build_tree("auto", {"--fat", fat, "--pool", "--log", "--label", "ZUQ"});
        const std::string listed = said("ls", {"-l"});
        EXPECT_NE(listed.find("-rhs-     131072 "), std::string::npos) << listed;
        EXPECT_NE(listed.find("-rhs-        512 "), std::string::npos) << listed;
        said("rm", {"/ZUQ_POOL.SY$", "/$ZUQ_LOG.LO$"});
        expect_tree(tree_);
    }
}

TEST_F(QvolBuildRefusal, TakesNoReservedFileFromTheTree) {
    tree_file("zuq_pool.sy$", "x");
    tree_file("$ZUQ_LOG.LO$", "x");
    EXPECT_EQ(refusal({"--size", "16M", "--from", tree_, "--pool", "--log"}),
              NOT_STORED + "  " + tree_ +
                  "/$ZUQ_LOG.LO$: --log makes this file; omit --log or remove the file\n  " +
                  tree_ +
                  "/zuq_pool.sy$: --pool makes this file; omit --pool or remove the file\n");
}

TEST_F(QvolBuild, LeavesTheOtherCopyOfTheFatWhenAsked) {
    tree_file("file", std::string(50000, 'x'));
    for (const std::string fat : {"16", "32"}) {
        build_tree("auto", {"--fat", fat, "--pool"});
        EXPECT_EQ(said("mirror"), "all FAT copies are equal\n");
        ASSERT_EQ(build({"--size", "auto", "--from", tree_, "--fat", fat, "--pool", "--no-mirror",
                         "--force"})
                      .status,
                  0);
        const volume_layout at = layout_of(image_);
        const bytes second =
            read_range(image_, std::uint64_t{at.fat_start + at.fat_size} * 512, at.fat_size * 512);
        const std::size_t first_entries = fat == "16" ? 4 : 12; // and the FAT32 root directory
        EXPECT_EQ(std::count(second.begin() + static_cast<std::ptrdiff_t>(first_entries),
                             second.end(), 0),
                  static_cast<std::ptrdiff_t>(second.size() - first_entries));
        EXPECT_NE(said("mirror"), "all FAT copies are equal\n");
        expect_clean();
        said("rm", {"/ZUQ_POOL.SY$"});
        expect_tree(tree_);
    }
}

TEST_F(QvolBuild, CutsTheImageToItsUse) {
    tree_file("file", std::string(100000, 'x'));
    for (const std::string fat : {"16", "32"}) {
        const outcome result = build(
            {"--size", "64M", "--from", tree_, "--fat", fat, "--compact", "--force", "--json"});
        ASSERT_EQ(result.status, 0) << result;
        const json document = json::parse(result.out);
        EXPECT_EQ(document["image_bytes"], std::filesystem::file_size(image_));
        EXPECT_EQ(document["volume_bytes"], 64 << 20);
        EXPECT_LT(std::filesystem::file_size(image_), std::uint64_t{2} << 20);
        expect_tree(tree_);
        std::filesystem::resize_file(image_, 64 << 20); // as the flash that it goes to
        expect_clean();
    }
}

// ---- the size ---------------------------------------------------------------------------------

TEST_F(QvolBuild, TakesTheSizeThatIsGiven) {
    for (const auto &[text, size] : {std::pair<const char *, std::uint64_t>{"20M", 20 << 20},
                                     {"20480K", 20 << 20},
                                     {"3000001", 3000001},
                                     {"1G", 1 << 30}}) {
        build_tree(text);
        EXPECT_EQ(std::filesystem::file_size(image_), size);
    }
}

// One sector less, and the tree does not fit, whatever the cluster size.
TEST_F(QvolBuild, FindsTheSmallestImage) {
    std::mt19937 random(20251107);
    const auto below = [&](unsigned end) { return static_cast<unsigned>(random() % end); };
    for (int round = 0; round < 12; round++) {
        SCOPED_TRACE(round);
        std::filesystem::remove_all(tree_);
        const unsigned count = 50 + below(400);
        for (unsigned i = 0; i < count; i++) {
            tree_file("dir " + std::to_string(below(9)) + "/" + std::string(1 + below(60), 'n') +
                          std::to_string(i),
                      std::string(below(40000), 'x'));
        }
        std::vector<std::string> options = {"--page", round % 3 == 0 ? "0" : "4K"};
        const std::vector<std::string> more[] = {
            {}, {"--pool", "--log"}, {"--cluster", "4K"}, {"--cluster", "2K"}};
        options.insert(options.end(), more[round % 4].begin(), more[round % 4].end());
        build_tree("auto", options);
        const std::uint64_t size = std::filesystem::file_size(image_);
        const std::string width =
            std::to_string(json::parse(said("info", {"--json"}))["fat_type"].get<int>());
        options.insert(options.end(), {"--from", tree_, "--force", "--fat", width, "--size"});
        options.push_back(std::to_string(size - 512));
        const outcome smaller = build(options);
        EXPECT_EQ(smaller.status, 1) << smaller;
        options.back() = std::to_string(size);
        EXPECT_EQ(build(options).status, 0);
        expect_clean();
    }
}

TEST_F(QvolBuild, FindsTheSmallestImageOfAll) {
    const auto size_of = [&](std::vector<std::string> options) {
        build_tree("auto", std::move(options));
        expect_clean();
        return std::filesystem::file_size(image_);
    };
    EXPECT_EQ(size_of({}), 64 * 1024);
    EXPECT_EQ(json::parse(said("info", {"--json"}))["fat_type"], 12);
    // 1 reserved sector, FATs of 16, 32 of the root directory, 4085 clusters
    EXPECT_EQ(size_of({"--page", "0", "--fat", "16"}), (1 + 2 * 16 + 32 + 4085) * 512);
    EXPECT_GT(size_of({"--pool"}), 2 << 20); // its driver reads no FAT12
    // What fills most of the smallest FAT16 is FAT16.
    (void)scratch_.sparse_file("tree/file", 4084 * 512);
    EXPECT_LT(size_of({"--page", "0"}), (1 + 2 * 12 + 32 + 4085) * 512);
    EXPECT_EQ(json::parse(said("info", {"--json"}))["fat_type"], 12);
    (void)scratch_.sparse_file("tree/more", 1);
    EXPECT_EQ(size_of({"--page", "0"}), (1 + 2 * 16 + 32 + 4085) * 512);
    EXPECT_EQ(json::parse(said("info", {"--json"}))["fat_type"], 16);
}

// The last free byte can be used.
TEST_F(QvolBuild, FillsTheSmallestImageToTheLastCluster) {
    (void)scratch_.sparse_file("tree/file", 30 << 20);
    build_tree("auto", {"--cluster", "8K", "--fat", "16"});
    const json info = json::parse(said("info", {"--json"}));
    EXPECT_LE(info["free_clusters"], 4085 - 3840);
    EXPECT_EQ(info["clusters"], 4085);
    (void)scratch_.sparse_file("tree/more", 10 << 20);
    build_tree("auto", {"--cluster", "8K", "--fat", "16"});
    EXPECT_EQ(json::parse(said("info", {"--json"}))["free_clusters"], 0);
}

TEST_F(QvolBuildRefusal, TellsASizeThatWillDo) {
    (void)scratch_.sparse_file("tree/file", 73 << 20);
    const std::string told = refusal({"--size", "64M", "--from", tree_, "--cluster", "4K"});
    EXPECT_EQ(told, "qvol: no space: " + tree_ +
                        " needs 73.0 MiB, the volume holds 63.9 MiB; use --size 74M\n");
    const std::string before = refusal({"--size", "73M", "--from", tree_, "--cluster", "4K"});
    EXPECT_EQ(before, "qvol: no space: " + tree_ +
                          " needs 73.0 MiB, the volume holds 72.9 MiB; use --size 74M\n");
    build_tree("74M", {"--cluster", "4K"});
}

// Whatever size is told, it does.
TEST_F(QvolBuild, TellsSizesThatWork) {
    for (int i = 0; i < 300; i++) {
        tree_file("a name that takes some slots of its directory " + std::to_string(i),
                  std::string(static_cast<std::size_t>(i) * 211, 'x'));
    }
    for (const std::vector<std::string> &options : std::vector<std::vector<std::string>>{
             {"--size", "2100K"}, {"--size", "9M", "--pool", "--log"}, {"--size", "3M"}}) {
        std::vector<std::string> arguments = options;
        arguments.insert(arguments.end(), {"--from", tree_, "--force"});
        const outcome refused = build(arguments);
        ASSERT_EQ(refused.status, 1);
        const std::size_t at = refused.err.find("use --size ");
        ASSERT_NE(at, std::string::npos) << refused;
        arguments[1] = refused.err.substr(at + 11, refused.err.size() - at - 12);
        const outcome accepted = build(arguments);
        EXPECT_EQ(accepted.status, 0) << accepted;
        expect_clean();
    }
}

// A FAT16 root directory takes 512 entries; one of FAT32 grows.
TEST_F(QvolBuild, TakesFat32WhereTheRootDirectoryIsLong) {
    for (int i = 0; i < 600; i++) {
        tree_file("FILE" + std::to_string(i), "");
    }
    build_tree("40M");
    EXPECT_EQ(json::parse(said("info", {"--json"}))["fat_type"], 32);
    EXPECT_EQ(build({"--size", "40M", "--from", tree_, "--fat", "16", "--force"}),
              (outcome{1, "",
                       "qvol: no space in the root directory: " + tree_ +
                           " needs 600 entries, FAT12 and FAT16 have 512; use --fat 32\n"}));
    EXPECT_EQ(build({"--size", "8M", "--from", tree_, "--force"}),
              (outcome{1, "",
                       "qvol: no space in the root directory: " + tree_ +
                           " needs 600 entries, FAT12 and FAT16 have 512; use --size 33M\n"}));
    build_tree("33M");
}

// Volumes of all widths, each area on its page, also where FAT32 has few clusters.
TEST_F(QvolBuild, LaysOutEveryWidthOnPages) {
    const std::string content(30000, 'x');
    tree_file("a file with a long name", content);
    for (const int width : {12, 16, 32}) {
        for (const char *size : {"128K", "700K", "20M", "40M"}) {
            for (const char *page : {"0", "2K", "16K"}) {
                for (const char *sector : {"512", "4K"}) {
                    const std::vector<std::string> options = {"--fat",    std::to_string(width),
                                                              "--page",   page,
                                                              "--sector", sector,
                                                              "--size",   size,
                                                              "--from",   tree_,
                                                              "--force"};
                    SCOPED_TRACE(testing::PrintToString(options));
                    const outcome made = build(options);
                    const bool is_possible = width != 16 || size[2] == 'M';
                    if (!is_possible || made.status != 0) {
                        EXPECT_EQ(made.status, 1) << made;
                        EXPECT_TRUE(width == 16 || size == std::string("128K")) << made;
                        continue;
                    }
                    expect_clean();
                    EXPECT_EQ(said("cat", {"/a file with a long name"}), content);
                    const json info = json::parse(said("info", {"--json"}));
                    EXPECT_EQ(info["fat_type"], width);
                    EXPECT_EQ(made.out.find(" clusters: Linux and most firmware read it") !=
                                  std::string::npos,
                              width == 32 && info["clusters"] < 65525)
                        << made;
                    const std::uint64_t page_bytes = std::stoull(page) * 1024;
                    for (const json &area : info["areas"]) {
                        if (page_bytes != 0) {
                            EXPECT_EQ(area["offset"].get<std::uint64_t>() % page_bytes, 0U) << area;
                        }
                    }
                }
            }
        }
    }
}

TEST_F(QvolBuild, ChoosesTheUsualClusterSizeAndOneThatFits) {
    const auto cluster_of = [&](const std::string &size, std::vector<std::string> more = {}) {
        build_tree(size, std::move(more));
        const json info = json::parse(said("info", {"--json"}));
        return std::pair<int, int>(info["fat_type"], info["cluster_size"]);
    };
    EXPECT_EQ(cluster_of("64K"), std::pair(12, 4096));
    EXPECT_EQ(cluster_of("2M"), std::pair(12, 4096));
    EXPECT_EQ(cluster_of("3M"), std::pair(16, 512));
    EXPECT_EQ(cluster_of("3M", {"--fat", "12"}), std::pair(12, 4096));
    EXPECT_EQ(cluster_of("32M", {"--fat", "32"}), std::pair(32, 4096)); // small
    EXPECT_EQ(cluster_of("10M"), std::pair(16, 2048));
    EXPECT_EQ(cluster_of("64M"), std::pair(16, 4096));
    EXPECT_EQ(cluster_of("64M", {"--fat", "32"}), std::pair(32, 512));
    EXPECT_EQ(cluster_of("1G"), std::pair(32, 4096));
    EXPECT_EQ(cluster_of("1G", {"--fat", "16"}), std::pair(16, 16384));
    EXPECT_EQ(cluster_of("10G"), std::pair(32, 8192));
    EXPECT_EQ(cluster_of("40G"), std::pair(32, 32768));
}

TEST_F(QvolBuildRefusal, TellsWhatDoesNotGoTogether) {
    const std::string rule =
        ": FAT12 has 1 to 4084 clusters, FAT16 4085 to 65524, FAT32 65525 to 268435438; use ";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--size", "10M", "--cluster", "32K", "--fat", "16"},
         "a volume of 10.0 MiB cannot be FAT16 with clusters of 32.0 KiB" + rule + "--cluster 2K"},
        {{"--size", "1M", "--fat", "16"},
         "a volume of 1.0 MiB cannot be FAT16" + rule + "--fat 12"},
        {{"--size", "1G", "--fat", "12"},
         "a volume of 1.0 GiB cannot be FAT12" + rule + "--fat 32"},
        {{"--size", "5G", "--fat", "16"},
         "a volume of 5.0 GiB cannot be FAT16" + rule + "--fat 32"},
        {{"--size", "1G", "--fat", "16", "--cluster", "4K"},
         "a volume of 1.0 GiB cannot be FAT16 with clusters of 4.0 KiB" + rule + "--cluster 16K"},
        {{"--size", "1M", "--pool"}, "a volume of 1.0 MiB cannot be FAT" + rule + "--size 3M"},
        {{"--size", "1M", "--sector", "4096", "--log"},
         "a volume of 1.0 MiB cannot be FAT" + rule + "--size 16M"},
        {{"--size", "3000G"},
         "a volume of 2.9 TiB is too large: with sectors of 512 bytes the maximum is 2.0 TiB; use a "
         "larger --sector or a smaller --size"},
        {{"--size", "auto", "--fat", "32", "--cluster", "4K", "--from", "/no/such"},
         "cannot open /no/such: No such file or directory"},
    };
    for (const auto &[arguments, told] : cases) {
        EXPECT_EQ(refusal(arguments), "qvol: " + told + "\n");
    }
}

TEST_F(QvolBuildRefusal, TellsWhatNoFat16Holds) {
    for (int i = 0; i < 5; i++) {
        (void)scratch_.sparse_file("tree/file" + std::to_string(i), std::uint64_t{1} << 30);
    }
    EXPECT_EQ(refusal({"--size", "auto", "--from", tree_, "--fat", "16"}),
              "qvol: no volume of type FAT16 can hold " + tree_ +
                  "; leave out --fat and --cluster\n");
}

TEST_F(QvolBuildRefusal, TakesNoNonsenseForANumber) {
    const std::string no_number = ": not a size such as 4096, 64M or 2G\n";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{},
         "--size is required for a new image: a size such as 64M, or auto for the smallest "
         "image\n"},
        {{"--size", "12X"}, "--size 12X" + no_number},
        {{"--size", "-1"}, "--size -1" + no_number},
        {{"--size", "M"}, "--size M" + no_number},
        {{"--size", "1MM"}, "--size 1MM" + no_number},
        {{"--size", "99999999999999999999G"}, "--size 99999999999999999999G" + no_number},
        {{"--size", "0"}, "--size 0: too small for a volume; the minimum is 64K\n"},
        {{"--size", "65535"}, "--size 65535: too small for a volume; the minimum is 64K\n"},
        {{"--size", "16M", "--fat", "12", "--pool"},
         "--fat 12 excludes --pool: the ZUQ driver reads FAT16 and FAT32\n"},
        {{"--size", "16M", "--sector", "256"},
         "--sector 256: must be a power of two from 512 to 4096 bytes\n"},
        {{"--size", "16M", "--cluster", "3000"},
         "--cluster 3000: must be a power of two from 512 to 32768 bytes\n"},
        {{"--size", "16M", "--cluster", "2K", "--sector", "4K"},
         "--cluster 2K: must be a power of two from 4096 to 32768 bytes\n"},
        {{"--size", "16M", "--page", "32K"},
         "--page 32K: must be a power of two from 1 to 16384 bytes\n"},
    };
    for (const auto &[arguments, told] : cases) {
        EXPECT_EQ(refusal(arguments, 2), "qvol: " + told);
    }
    EXPECT_EQ(build({"--size", "16M", "--fat", "8"}).status, 2);
}

// ---- what cannot be stored --------------------------------------------------------------------

TEST_F(QvolBuildRefusal, ListsEverythingThatCannotBeStored) {
    tree_file("a:b", "");
    tree_file("aux", "");
    tree_file("dir/Case", "");
    tree_file("dir/case", "");
    tree_file("dir/ends with a dot.", "");
    tree_file("not\xFFutf8", "");
    (void)scratch_.sparse_file("tree/huge", std::uint64_t{4} << 30);
    ASSERT_EQ(mkfifo((tree_ + "/pipe").c_str(), 0600), 0);
    const std::string told = refusal({"--size", "auto", "--from", tree_});
    EXPECT_EQ(told.substr(0, NOT_STORED.size()), NOT_STORED);
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1 + 7);
    for (const std::string path :
         {"a:b", "aux", "dir/case", "dir/ends with a dot.", "huge", "pipe", "not\\xffutf8"}) {
        EXPECT_NE(told.find(path), std::string::npos) << path << told;
    }
}

// ---- reproducible images ----------------------------------------------------------------------

TEST_F(QvolBuild, GivesTheSameBytesFromEqualTrees) {
    setenv("SOURCE_DATE_EPOCH", "1000000000", 1);
    std::vector<std::string> names;
    for (int i = 0; i < 200; i++) {
        names.push_back("dir " + std::to_string(i % 7) + "/file number " + std::to_string(i));
    }
    const std::string other = scratch_.file("elsewhere/tree");
    for (const std::string &name : names) {
        tree_file(name, name);
    }
    std::shuffle(names.begin(), names.end(), std::mt19937(1));
    for (const std::string &name : names) {
        host_file("elsewhere/tree/" + name, name);
    }
    const auto built_from = [this](const std::string &tree, const std::string &fat) {
        EXPECT_EQ(build({"--size", "auto", "--fat", fat, "--pool", "--log", "--label", "SAME",
                         "--force", "--from", tree})
                      .status,
                  0);
        return read_file(image_);
    };
    const bytes expected16 = built_from(tree_, "16");
    const bytes expected32 = built_from(tree_, "32");
    sleep(1);
    setenv("TZ", "Asia/Tokyo", 1);
    for (const std::string fat : {"16", "32"}) {
        EXPECT_TRUE(built_from(other, fat) == (fat == "16" ? expected16 : expected32));
        EXPECT_EQ(json::parse(said("info", {"--json"}))["serial"], "3B9A-CA00");
    }
    setenv("TZ", "UTC", 1);
    unsetenv("SOURCE_DATE_EPOCH");
    ASSERT_EQ(build({"--size", "auto", "--force"}).status, 0);
    EXPECT_NE(json::parse(said("info", {"--json"}))["serial"], "3B9A-CA00");
}

// ---- the name of the image --------------------------------------------------------------------

TEST_F(QvolBuild, ReplacesAnImageOnlyWhenForced) {
    host_file("made/disk.img", "precious");
    EXPECT_EQ(build({"--size", "16M"}),
              (outcome{1, "", "qvol: cannot make " + image_ + ": exists; --force replaces it\n"}));
    EXPECT_EQ(read_file(image_), bytes({'p', 'r', 'e', 'c', 'i', 'o', 'u', 's'}));
    EXPECT_EQ(build({"--size", "16M", "--force"}).status, 0);
    expect_clean();
    EXPECT_EQ(made(), std::vector<std::string>{"disk.img"});
}

TEST_F(QvolBuild, ReplacesNoImageThatAnotherProgramHasLocked) {
    host_file("made/disk.img", "precious");
    const int fd = open(image_.c_str(), O_RDONLY);
    ASSERT_EQ(flock(fd, LOCK_SH), 0);
    EXPECT_EQ(build({"--size", "16M", "--force"}),
              (outcome{1, "",
                       "qvol: cannot lock " + image_ +
                           ": locked by another program; try again when it has finished\n"}));
    close(fd);
    EXPECT_EQ(std::filesystem::file_size(image_), 8U);
}

TEST_F(QvolBuild, ReplacesOnlyImageFiles) {
    std::filesystem::create_directory(image_);
    EXPECT_EQ(build({"--size", "16M", "--force"}),
              (outcome{1, "", "qvol: cannot replace " + image_ + ": not an image file\n"}));
}

TEST_F(QvolBuild, ReplacesWhatALinkLeadsTo) {
    const std::string real = host_file("real/image", "old");
    std::filesystem::create_symlink(real, image_);
    ASSERT_EQ(build({"--size", "16M", "--force"}).status, 0);
    EXPECT_TRUE(std::filesystem::is_symlink(image_));
    EXPECT_EQ(std::filesystem::file_size(real), 16 << 20);
}

TEST_F(QvolBuild, PacksNoImageIntoItself) {
    image_ = tree_file("disk.img", "old");
    EXPECT_EQ(build({"--size", "16M", "--from", tree_, "--force"}),
              (outcome{1, "",
                       "qvol: cannot build " + image_ + ": it is below " + tree_ +
                           " and would contain itself; choose another path\n"}));
}

// ---- what it says -----------------------------------------------------------------------------

TEST_F(QvolBuild, GivesOneDocument) {
    make_mixed_tree();
    const outcome result =
        build({"--size", "20M", "--from", tree_, "--label", "DOC", "--json", "--cluster", "2K"});
    ASSERT_EQ(result.status, 0) << result;
    const json free_bytes = json::parse(said("info", {"--json"}))["free_bytes"];
    EXPECT_EQ(json::parse(result.out), (json{{"files", 7},
                                             {"directories", 4},
                                             {"links", 2},
                                             {"offset", 0},
                                             {"bytes", 5056},
                                             {"image", image_},
                                             {"image_bytes", 20 << 20},
                                             {"volume_bytes", 20 << 20},
                                             {"fat_type", 16},
                                             {"sector_size", 512},
                                             {"cluster_size", 2048},
                                             {"label", "DOC"},
                                             {"free_bytes", free_bytes}}));
}

TEST_F(QvolBuild, SaysNothingWhenToldSo) {
    EXPECT_EQ(build({"--size", "16M", "--quiet"}), (outcome{0, "", ""}));
}
