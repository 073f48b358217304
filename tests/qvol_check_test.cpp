// qvol check: every finding on an image that shows it, what the repair makes of it, and healthy
// images, which it leaves alone.

#include "tests/support/checked_volume.h"

#include <random>
#include <set>

using namespace testing_support;
using nlohmann::json;

namespace {

class QvolCheck : public CheckedVolume {};
INSTANTIATE_TEST_SUITE_P(Fat, QvolCheck, testing::Values("12", "16", "32"),
                         [](const auto &tested) { return std::string(tested.param); });

// What FAT16 has not: a backup of the boot sector, FSInfo, a root directory with a chain.
class QvolCheck32 : public CheckedVolume {};
INSTANTIATE_TEST_SUITE_P(Fat, QvolCheck32, testing::Values("32"),
                         [](const auto &tested) { return std::string(tested.param); });

std::string number(std::uint64_t value) {
    return std::to_string(value);
}

std::string at(std::uint32_t cluster) {
    return ": cluster " + number(cluster) + ": ";
}

const std::string CUT = "repaired: chain cut to the file size";
const std::string CUT_AND_STORED = CUT + ", the rest stored in a FOUND directory";
const std::string UNKNOWN_DATA = "not repaired: the missing data is unknown";
const std::string BROKEN_CHAIN = "not repaired: a broken chain may continue there";
const std::string CORRECTED = "repaired: corrected";
const std::string IN_DOUBT =
    "not repaired: nothing is repaired while the boot sector contradicts itself";
const std::string BY_HAND = "not repaired: names are not repaired automatically";

} // namespace

// ---- healthy volumes --------------------------------------------------------------------------

TEST_P(QvolCheck, AHealthyVolumeIsLeftAlone) {
    const bytes before = read_file(image_);
    const std::string summary = std::string("1 directory, 4 files, ") + (is_fat32() ? "9" : "8") +
                                " of " + number(total_clusters()) + " clusters: no findings\n";
    EXPECT_EQ(qvol("check"), (outcome{0, summary, ""}));
    EXPECT_EQ(qvol("check", {"--repair"}), (outcome{0, summary, ""}));
    EXPECT_TRUE(has_content(image_, before));
}

TEST_P(QvolCheck, ReadsAnImageThatMayNotBeWritten) {
    ASSERT_EQ(chmod(image_.c_str(), 0444), 0);
    EXPECT_EQ(qvol("check", {"-q"}), (outcome{0, "", ""}));
}

TEST_P(QvolCheck, FindsNothingOnWhatAKernelWrote) {
    if (is_fat12()) {
        GTEST_SKIP() << "tests/data has no such image; the virtual machine writes them";
    }
    const std::string kernel_image =
        std::string(QUORVEL_SOURCE_DIR) + "/tests/data/kernel-fat" + GetParam() + ".img.gz";
    ASSERT_EQ(shell("gzip -dc \"$1\" >\"$2\"", {kernel_image, image_}), (outcome{0, "", ""}));
    expect_healthy();
}

TEST_P(QvolCheck, FindsNothingOnWhatOtherToolsMade) {
    image_ = scratch_.sparse_file("other.img", is_fat12() ? 8 << 20 : 40 << 20);
    ASSERT_EQ(
        run({"mkfs.fat", "-F", GetParam(), "-s", is_fat32() ? "1" : "4", "-n", "LABEL", image_})
            .status,
        0);
    ASSERT_EQ(run({"mcopy", "-s", "-i", image_, scratch_.file("tree"), "::/"}).status, 0);
    ASSERT_EQ(run({"mdel", "-i", image_, "::/tree/A.TXT"}).status, 0);
    expect_healthy();
}

// The formatter leaves a blank label, which is none, and FSInfo without counts.
TEST_P(QvolCheck, FindsNothingOnAFreshVolume) {
    if (is_fat12()) {
        GTEST_SKIP() << "the formatter makes none";
    }
    image_ = scratch_.sparse_file("fresh.img", 40 << 20);
    ASSERT_EQ(run({tool_path(), "-F", GetParam(), "-S", "512", "-p", "0", "-s",
                   is_fat32() ? "1" : "4", image_})
                  .status,
              0);
    expect_healthy();
}

TEST_P(QvolCheck, FindsNothingOnACompactedImage) {
    said("compact");
    expect_check({});
}

// ---- boot sector, FSInfo ----------------------------------------------------------------------

TEST_P(QvolCheck32, CopiesTheBootSectorOverABackupThatDiffers) {
    poke(6 * 512 + 71, "OTHER LABEL");
    expect_mended({{"the backup boot sector (sector 6) differs from the boot sector",
                    "repaired: boot sector copied over it"}});
    EXPECT_EQ(peek(0, 512), peek(6 * 512, 512));
}

TEST_P(QvolCheck32, CopiesTheBackupOverABootSectorThatDescribesNoVolume) {
    const std::string boot = peek(0, 512);
    poke(6 * 512 + 3, "OTHEROEM"); // a backup with the same areas is a backup
    const std::string garbage(512, '\x5A');
    std::string two_widths = boot;
    two_widths.replace(22, 2, little_endian(629, 2));
    two_widths.replace(36, 4, little_endian(0, 4));
    const std::pair<std::string, std::string> cases[] = {
        {std::string(512, '\0'), "the boot signature is 0x0000, should be 0xAA55"},
        {garbage, "the boot signature is 0x5A5A, should be 0xAA55"},
        {boot.substr(0, 13) + '\0' + boot.substr(14),
         "sectors per cluster is 0, should be a power of two"},
        {two_widths,
         "has a boot sector that contradicts itself: 80630 clusters are FAT32, a 16-bit "
         "FAT size of 629 is FAT16"},
    };
    for (const auto &[damaged, reason] : cases) {
        SCOPED_TRACE(reason);
        poke(0, damaged);
        expect_check({{"the boot sector describes no volume: " + reason, ""}});
        EXPECT_EQ(peek(0, 512), damaged);
        expect_repair({{"the boot sector describes no volume: " + reason,
                        "repaired: its backup copied over it"}},
                      0);
        EXPECT_EQ(peek(0, 512), peek(6 * 512, 512));
        expect_healthy();
        expect_contents();
    }
}

// What is there instead of a boot sector is not overwritten.
TEST_P(QvolCheck32, LeavesAPartitionTableAndOtherFileSystems) {
    poke(0, std::string(512, '\0'));
    ASSERT_EQ(shell("printf 'label: dos\\nstart=1M\\n' | sfdisk -q \"$1\"", {image_}).status, 0);
    const bytes partitioned = read_file(image_);
    EXPECT_EQ(qvol("check", {"--repair"}).status, 1);
    EXPECT_TRUE(has_content(image_, partitioned));
    ASSERT_EQ(run({"mkswap", image_}).status, 0);
    const bytes swap = read_file(image_);
    EXPECT_EQ(qvol("check", {"--repair"}).status, 1);
    EXPECT_TRUE(has_content(image_, swap));
    poke(0, std::string(512, '\0'));
    poke(6 * 512, std::string(512, '\0'));
    const bytes without_backup = read_file(image_);
    EXPECT_EQ(
        qvol("check", {"--repair", "--rebuild-boot"}),
        (outcome{1, "",
                 "qvol: cannot mount " + image_ + ": no FAT volume found: it contains swap\n"}));
    EXPECT_TRUE(has_content(image_, without_backup));
}

TEST_P(QvolCheck32, CopiesTheBootSectorOverABackupThatIsNone) {
    poke(6 * 512, std::string(512, '\x5A'));
    expect_mended({{"the backup boot sector (sector 6) differs from the boot sector",
                    "repaired: boot sector copied over it"}});
}

// With areas elsewhere every other repair would do harm.
TEST_P(QvolCheck32, MendsNothingWhereTheBackupHasOtherAreas) {
    poke(6 * 512 + 14, little_endian(33, 2));
    set_link(FREE_CLUSTER, end_mark());
    expect_left({{"the boot sector and its backup in sector 6 describe different areas",
                  "not repaired: it is unknown which of the two is correct"},
                 {"FSInfo free count is 80619, should be 80618", IN_DOUBT},
                 {"cluster 1000: lost cluster: allocated, referenced by no entry", IN_DOUBT}});
}

TEST_P(QvolCheck32, TellsSectorsThatAreNoneOfTheReservedOnes) {
    for (const std::uint64_t boot : {0, 6 * 512}) {
        poke(boot + 48, little_endian(40, 2));
        poke(boot + 50, little_endian(50, 2));
    }
    expect_left(
        {{"the backup boot sector is in sector 50, should be in a reserved sector (below 32)",
          "not repaired: the correct sector is unknown"},
         {"FSInfo is in sector 40, should be in a reserved sector (below 32)",
          "not repaired: the correct sector is unknown"}});
}

TEST_P(QvolCheck32, SetsFsinfoRight) {
    poke(512 + 488, little_endian(12345, 4) + little_endian(1, 4));
    expect_judge_finds_something();
    expect_mended({{"FSInfo free count is 12345, should be 80619", CORRECTED},
                   {"FSInfo next free cluster is 1, should be 2 to 80629", CORRECTED}});
    poke(512, "XXXX");
    poke(512 + 488, little_endian(1, 4));
    expect_judge_finds_something();
    expect_mended({{"FSInfo (sector 1): signature missing", "repaired: rewritten"}});
}

// ---- a boot sector without a backup -----------------------------------------------------------

namespace {

const std::string NO_BOOT_SECTOR =
    "the boot sector describes no volume: the boot signature is 0x0000, should be 0xAA55";

// The areas of a CheckedVolume.
std::string areas_text(const std::string &width) {
    return width == "12"   ? "FAT12, 2 FATs of 12 sectors from sector 1, clusters of 512 bytes, "
                             "512 root entries, as 1 directory confirm"
           : width == "16" ? "FAT16, 2 FATs of 80 sectors from sector 1, clusters of 512 bytes, "
                             "512 root entries, as 1 directory confirm"
                           : "FAT32, 2 FATs of 630 sectors from sector 32, clusters of 512 bytes, "
                             "root directory in cluster 2, as 1 directory confirm";
}

} // namespace

TEST_P(QvolCheck, RebuildsABootSectorWithoutABackup) {
    poke(0, std::string(512, '\0'));
    if (is_fat32()) {
        poke(6 * 512, std::string(512, '\0'));
    }
    const bytes damaged = read_file(image_);
    const outcome refused = {1, "",
                             "qvol: cannot mount " + image_ +
                                 ": no FAT volume found: the boot signature is 0x0000, should be "
                                 "0xAA55; --repair --rebuild-boot rebuilds it from the FATs\n"};
    EXPECT_EQ(qvol("check"), refused);
    EXPECT_EQ(qvol("check", {"--repair"}), refused);
    const outcome tried = qvol("check", {"--repair", "--rebuild-boot", "--dry-run", "-q"});
    const std::string line = NO_BOOT_SECTOR + "; rebuilt: " + areas_text(GetParam());
    EXPECT_TRUE(tried.out.starts_with(line + "; would be repaired: written\n")) << tried;
    EXPECT_TRUE(has_content(image_, damaged));

    repair_options_ = {"--rebuild-boot"};
    std::vector<expected_finding> findings = {{line, "repaired: written"}};
    if (is_fat32()) {
        findings.push_back({"the backup boot sector (sector 6) differs from the boot sector",
                            "repaired: boot sector copied over it"});
    }
    expect_repair(findings, 0);
    expect_healthy();
    expect_clean();
    expect_contents();
    said("undo", {image_ + ".undo"});
    EXPECT_TRUE(has_content(image_, damaged));
}

// The areas are the same where one FAT copy has lost its start: the other one is the only FAT.
TEST_P(QvolCheck, RebuildsABootSectorByOneOfTheFats) {
    poke(0, std::string(512, '\0'));
    if (is_fat32()) {
        poke(6 * 512, std::string(512, '\0'));
    }
    poke(fat_offset(0), std::string(512, '\0'));
    const outcome repaired = qvol("check", {"--repair", "--rebuild-boot", "-q"});
    EXPECT_EQ(repaired.status, 0) << repaired;
    EXPECT_NE(repaired.out.find(", 1 FAT of "), std::string::npos) << repaired;
    expect_healthy();
    expect_clean();
    expect_contents();
}

TEST_P(QvolCheck32, FindsTheRootDirectoryByWhatIsBelowIt) {
    const std::string root = peek(cluster_offset(2), 512);
    poke(cluster_offset(FREE_CLUSTER), root);
    poke(cluster_offset(2), std::string(512, '\0'));
    set_link(FREE_CLUSTER, end_mark());
    set_link(2, 0);
    poke(0, std::string(512, '\0'));
    poke(6 * 512, std::string(512, '\0'));
    const outcome repaired = qvol("check", {"--repair", "--rebuild-boot", "-q"});
    EXPECT_EQ(repaired.status, 0) << repaired;
    EXPECT_NE(repaired.out.find(", root directory in cluster 1000, "), std::string::npos)
        << repaired;
    expect_healthy();
    expect_clean();
    expect_contents();
}

namespace {

// A volume by the program that makes it, and the areas that are to be found.
struct made_volume {
    const char *name;
    const char *size;
    const char *command; // with the image as $1 and qvol as $2
    std::string areas;
    unsigned sector = 512; // bytes
};
void PrintTo(const made_volume &made, std::ostream *out) {
    *out << made.name;
}

const made_volume MADE_VOLUMES[] = {
    {"Fat12", "4M", "mkfs.fat -F 12 -s 4 $1",
     "FAT12, 2 FATs of 6 sectors from sector 1, clusters of 2048 bytes, 512 root entries"},
    {"Floppy", "1440K", "mkfs.fat $1",
     "FAT12, 2 FATs of 9 sectors from sector 1, clusters of 512 bytes, 224 root entries"},
    {"Fat16", "64M", "mkfs.fat -F 16 -s 8 $1",
     "FAT16, 2 FATs of 64 sectors from sector 8, clusters of 4096 bytes, 512 root entries"},
    {"OneFat", "16M", "mkfs.fat -F 16 -s 4 -f 1 $1",
     "FAT16, 1 FAT of 32 sectors from sector 4, clusters of 2048 bytes, 512 root entries"},
    {"ThreeFats", "16M", "mkfs.fat -F 16 -s 4 -f 3 $1",
     "FAT16, 3 FATs of 32 sectors from sector 4, clusters of 2048 bytes, 512 root entries"},
    {"Media", "16M", "mkfs.fat -F 16 -s 4 -M 0xF0 $1",
     "FAT16, 2 FATs of 32 sectors from sector 4, clusters of 2048 bytes, 512 root entries"},
    {"RootEntries", "16M", "mkfs.fat -F 16 -s 4 -r 1024 $1",
     "FAT16, 2 FATs of 32 sectors from sector 4, clusters of 2048 bytes, 1024 root entries"},
    {"Fat32", "64M", "mkfs.fat -F 32 -s 4 $1",
     "FAT32, 2 FATs of 256 sectors from sector 32, clusters of 2048 bytes, root directory in "
     "cluster 2"},
    {"Sectors4K", "64M", "mkfs.fat -F 16 -S 4096 -s 1 $1",
     "FAT16, 2 FATs of 64 sectors from sector 8, clusters of 4096 bytes, 512 root entries", 4096},
    {"Sectors4KFat32", "40M", "mkfs.fat -F 32 -S 4096 -s 1 $1",
     "FAT32, 2 FATs of 10 sectors from sector 32, clusters of 4096 bytes, sectors of 4096 bytes, "
     "root directory in cluster 2",
     4096},
    {"Pages4KFat12", "3M", "$2 build -fq $1 --fat 12 --size 3M --page 4096",
     "FAT12, 2 FATs of 8 sectors from sector 8, clusters of 4096 bytes, 512 root entries"},
    {"Pages16KFat12", "3M", "$2 build -fq $1 --fat 12 --size 3M --page 16384",
     "FAT12, 2 FATs of 32 sectors from sector 32, clusters of 4096 bytes, 512 root entries"},
    {"Pages4KFat16", "40M", "$2 build -fq $1 --fat 16 --size 40M --page 4096",
     "FAT16, 2 FATs of 40 sectors from sector 8, clusters of 4096 bytes, 512 root entries"},
    {"Pages16KFat16", "40M", "$2 build -fq $1 --fat 16 --size 40M --page 16384 --label CARD",
     "FAT16, 2 FATs of 64 sectors from sector 32, clusters of 4096 bytes, 512 root entries"},
    {"Pages16KFat32", "40M", "$2 build -fq $1 --fat 32 --size 40M --page 16384 --label CARD",
     "FAT32, 2 FATs of 640 sectors from sector 32, clusters of 512 bytes, root directory in "
     "cluster 2"},
};

class QvolRebuiltBoot : public QvolImage, public testing::WithParamInterface<made_volume> {
protected:
    // The volume, with these files and without its boot sector and a backup of it.
    void make(const std::map<std::string, std::string> &files) {
        image_ = scratch_.file("disk.img");
        const outcome made =
            shell("truncate -s 0 \"$1\" && truncate -s " + std::string(GetParam().size) +
                      " \"$1\" && " + GetParam().command + " >/dev/null 2>&1",
                  {image_, qvol_path()});
        ASSERT_EQ(made.status, 0) << made;
        const std::string tree = scratch_.file("tree");
        std::filesystem::create_directory(tree);
        for (const auto &[path, content] : files) {
            host_file("tree" + path, content);
        }
        said("put", {"-q", tree + "/.", "/"});
        bytes damaged = read_file(image_);
        std::fill_n(damaged.begin(), GetParam().sector, std::uint8_t{0});
        if (GetParam().areas.starts_with("FAT32")) {
            std::fill_n(damaged.begin() + 6 * GetParam().sector, GetParam().sector,
                        std::uint8_t{0});
        }
        (void)scratch_.file_with("disk.img", damaged);
    }

    void expect_rebuilt(const std::map<std::string, std::string> &files,
                        const std::string &evidence) {
        const bytes damaged = read_file(image_);
        const std::string undo = scratch_.file("undo");
        const outcome repaired =
            qvol("check", {"--repair", "--rebuild-boot", "-q", "--undo", undo});
        EXPECT_EQ(repaired.status, 0) << repaired;
        EXPECT_EQ(repaired.out.substr(0, repaired.out.find('\n')),
                  NO_BOOT_SECTOR + "; rebuilt: " + GetParam().areas + evidence +
                      "; repaired: written");
        EXPECT_EQ(said("check", {"-q"}), "");
        if (std::string(GetParam().name) != "ThreeFats") { // unknown to the checker
            expect_clean();
        }
        for (const auto &[path, content] : files) {
            EXPECT_TRUE(said("cat", {path}) == content) << path;
        }
        said("undo", {undo, "-q"});
        EXPECT_TRUE(has_content(image_, damaged));
        std::filesystem::remove(undo);
    }
};
INSTANTIATE_TEST_SUITE_P(Made, QvolRebuiltBoot, testing::ValuesIn(MADE_VOLUMES),
                         [](const auto &tested) { return std::string(tested.param.name); });

} // namespace

TEST_P(QvolRebuiltBoot, HasEveryFileUnderItsName) {
    std::map<std::string, std::string> files;
    for (std::size_t i = 0; i < 40; i++) {
        const std::string directory = i % 3 == 0 ? "/" : i % 3 == 1 ? "/DIR/" : "/DIR/deep down/";
        files[directory + "file number " + number(i)] =
            std::string(i * 331, static_cast<char>('!' + i));
    }
    make(files);
    expect_rebuilt(files, ", as 2 directories confirm");
}

// Then the sizes of the files and where their data is are the evidence.
TEST_P(QvolRebuiltBoot, NeedsNoDirectory) {
    std::map<std::string, std::string> files;
    for (std::size_t i = 1; i <= 10; i++) {
        files["/FILE" + number(i)] = std::string(i * 1000, static_cast<char>('a' + i));
    }
    make(files);
    expect_rebuilt(files, ", which no directory confirms");
}

TEST_P(QvolRebuiltBoot, IsNotGuessedOnAnEmptyVolume) {
    make({});
    const bytes damaged = read_file(image_);
    const outcome refused = qvol("check", {"--repair", "--rebuild-boot"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(refused.err.starts_with("qvol: cannot rebuild the boot sector of " + image_ + ": "))
        << refused;
    EXPECT_TRUE(has_content(image_, damaged));
}

class QvolNoBoot : public QvolImage {};

// Empty files are the same with clusters of any size.
TEST_F(QvolNoBoot, IsNotChosenFromTwo) {
    image_ = scratch_.file("disk.img");
    host_file("tree/EMPTY", "");
    said("build",
         {"--from", scratch_.file("tree"), "--fat", "12", "--size", "3M", "--page", "16384", "-q"});
    bytes damaged = read_file(image_);
    std::fill_n(damaged.begin(), 512, std::uint8_t{0});
    (void)scratch_.file_with("disk.img", damaged);
    const outcome refused = qvol("check", {"--repair", "--rebuild-boot"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(refused.err.starts_with("qvol: cannot rebuild the boot sector of " + image_ +
                                        ": equally good: FAT12, 2 FATs of 32 sectors from sector "
                                        "32, clusters of "))
        << refused;
    EXPECT_TRUE(has_content(image_, damaged));
}

TEST_F(QvolNoBoot, IsNotMadeOfOtherContent) {
    std::string random(1 << 20, '\0');
    std::mt19937 generator(1);
    std::generate(random.begin(), random.end(),
                  [&] { return static_cast<char>(generator() & 0xFF); });
    std::string text;
    while (text.size() < 100'000) {
        text += "A line of a text that is no volume.\n";
    }
    for (const std::string &content : {random, text, std::string(1 << 20, '\0')}) {
        image_ = host_file("other", content);
        EXPECT_EQ(
            qvol("check", {"--repair", "--rebuild-boot"}),
            (outcome{1, "",
                     "qvol: cannot rebuild the boot sector of " + image_ + ": no FAT found\n"}));
        EXPECT_EQ(qvol("check").err.find("--rebuild-boot"), std::string::npos);
        EXPECT_TRUE(has_content(image_, bytes(content.begin(), content.end())));
    }
}

// ---- the fixed entries of the FAT, its copies -------------------------------------------------

TEST_P(QvolCheck, SetsTheFirstTwoEntriesRight) {
    set_link(0, end_mark() & ~0xFU);
    set_link(1, 5);
    const std::string high = is_fat32() ? "0xfffff" : is_fat12() ? "0xf" : "0xff";
    if (!is_fat12()) {
        expect_judge_finds_something();
    }
    expect_mended(
        {{"FAT entry 0 is " + high + "f0, should be " + high + "f8 for this media byte", CORRECTED},
         {"FAT entry 1 is 0x5, should be an end-of-chain mark", CORRECTED}});
}

TEST_P(QvolCheck, RemovesTheMarkOfAVolumeThatWasNotClosed) {
    if (is_fat12()) { // has the one in the boot sector only
        poke(37, "\x01");
        expect_mended({{"dirty flag set in the boot sector: not cleanly unmounted",
                        "repaired: flag cleared"}});
        return;
    }
    set_link(1, is_fat32() ? 0x07FFFFFF : 0x7FFF);
    poke(is_fat32() ? 65 : 37, "\x01");
    expect_mended(
        {{"dirty flag set in the boot sector: not cleanly unmounted", "repaired: flag cleared"},
         {"dirty flag set: not cleanly unmounted", "repaired: flag cleared"}});
    set_link(1, is_fat32() ? 0x0BFFFFFF : 0xBFFF);
    expect_mended({{"error flag set: the medium reported I/O errors", "repaired: flag cleared"}});
}

TEST_P(QvolCheck, KeepsTheMarkWhereSomethingIsLeft) {
    const std::string where = is_fat12() ? " in the boot sector" : "";
    is_fat12() ? poke(37, "\x01") : set_link(1, is_fat32() ? 0x07FFFFFF : 0x7FFF);
    put_slot(start_of("/DIR"), 6, "BAD*NAMEXXX", 0x20);
    expect_left({{"dirty flag set" + where + ": not cleanly unmounted",
                  "not repaired: other findings remain"},
                 {"/DIR/BAD*NAME.XXX: invalid short name: contains byte 0x2a", BY_HAND}});
}

TEST_P(QvolCheck, MakesTheFatCopiesEqual) {
    set_link_in(1, FREE_CLUSTER, 7);
    set_link_in(1, FREE_CLUSTER + (is_fat12() ? 2000 : 5000), 7);
    expect_judge_finds_something();
    expect_mended({{"FAT copy 1 differs from copy 0 in 2 sectors, first at cluster 1000",
                    "repaired: copy 0 copied over it"}});
}

// What the library writes it writes to the first copy.
TEST_P(QvolCheck, TellsTheCopyThatTheLibraryLeftBehind) {
    set_link_in(1, start_of("/A.TXT"), 0);
    expect_mended({{"FAT copy 1 differs from copy 0 in 1 sector, first at cluster " +
                        number(start_of("/A.TXT")),
                    "repaired: copy 0 copied over it"}});
}

TEST_P(QvolCheck, TakesFromAnotherCopyWhatTheFirstLacks) {
    const std::uint64_t sectors = layout_.fat_size;
    for (const std::uint64_t damaged : {std::uint64_t{1}, sectors}) {
        poke(fat_offset(0), std::string(damaged * 512, '\0'));
        const outcome found = qvol("check", {"-q"});
        EXPECT_EQ(found.status, 1);
        EXPECT_TRUE(found.out.starts_with("FAT copy 0 is damaged in ")) << found;
        EXPECT_EQ(peek(fat_offset(0), 512), std::string(512, '\0'));
        const outcome repaired = qvol("check", {"-q", "--repair"});
        EXPECT_EQ(repaired.status, 0);
        EXPECT_EQ(std::count(repaired.out.begin(), repaired.out.end(), '\n'), 1) << repaired;
        EXPECT_TRUE(repaired.out.ends_with("; repaired: those sectors copied from there\n"));
        expect_healthy();
        expect_clean();
        expect_contents();
    }
}

// Each copy has damage of its own, in different sectors.
TEST_P(QvolCheck, TakesOnlyTheSectorsThatExplainMore) {
    const std::uint32_t old = start_of("/B.TXT");
    poke(cluster_offset(FREE_CLUSTER), contents_["/B.TXT"]);
    set_link(FREE_CLUSTER, FREE_CLUSTER + 1);
    set_link(FREE_CLUSTER + 1, end_mark());
    set_start("/B.TXT", FREE_CLUSTER);
    set_link(old, 0);
    set_link(old + 1, 0);
    expect_healthy();
    const std::string whole = peek(fat_offset(0), std::size_t{layout_.fat_size} * 512);
    set_link_in(0, start_of("/A.TXT"), 0);
    set_link_in(1, FREE_CLUSTER, 0);
    expect_mended({{"FAT copy 0 is damaged in 1 sector: 1 finding in its chains, 0 with those of "
                    "copy 1",
                    "repaired: those sectors copied from there"},
                   {"FAT copy 1 differs from copy 0 in 1 sector, first at cluster 1000",
                    "repaired: copy 0 copied over it"}});
    EXPECT_EQ(peek(fat_offset(0), whole.size()), whole);
}

// With a copy of zeros nothing below the directory is found, nor is its damage.
TEST_P(QvolCheck, DoesNotTakeACopyThatHidesFiles) {
    for (const char *name : {"one", "two", "three"}) {
        host_file(std::string("more/") + name, std::string(1500, name[1]));
    }
    said("rm", {"/A.TXT", "/B.TXT"});
    said("put", {scratch_.file("more") + "/.", "/DIR"});
    for (const std::string path : {"/DIR/one", "/DIR/two"}) {
        set_link_in(0, start_of(path), FREE_CLUSTER);
    }
    poke(fat_offset(0, 1), std::string(std::size_t{layout_.fat_size} * 512, '\0'));
    const std::string fat = peek(fat_offset(0), std::size_t{layout_.fat_size} * 512);
    EXPECT_EQ(qvol("check", {"-q", "--repair=safe"}).status, 1);
    EXPECT_EQ(peek(fat_offset(0), fat.size()), fat);
    EXPECT_EQ(qvol("check", {"-q", "--repair"}).status, 0);
    for (const char *name : {"one", "two", "three"}) {
        EXPECT_EQ(said("cat", {std::string("/DIR/") + name}), std::string(1500, name[1]));
    }
}

// Neither copy explains more than the other one.
TEST_P(QvolCheck, KeepsCopiesThatDifferWhereTheFirstIsBroken) {
    const std::uint32_t start = start_of("/A.TXT");
    set_link_in(0, start, 0);
    set_link_in(1, start_of("/B.TXT"), 0);
    const std::string fsinfo = "FSInfo free count is 80619, should be 80620";
    const std::vector<expected_finding> findings = {
        {"FAT copy 1 differs from copy 0 in 1 sector, first at cluster " + number(start),
         BROKEN_CHAIN},
        {"/A.TXT" + at(start) + "marked free, but part of the chain", UNKNOWN_DATA},
        {"cluster " + number(start + 1) +
             ": lost chain of 2 clusters: allocated, referenced by no entry",
         BROKEN_CHAIN}};
    if (!is_fat32()) {
        expect_left(findings);
        repair_options_ = {"--free-lost"};
        expect_left(findings);
        return;
    }
    expect_check({findings[0], {fsinfo, ""}, findings[1], findings[2]});
    expect_repair({findings[0], {fsinfo, CORRECTED}, findings[1], findings[2]}, 1, "--repair=safe");
    expect_check(findings);
}

TEST_P(QvolCheck, TellsAFatThatIsTooSmall) {
    const std::uint64_t size_field = is_fat32() ? 36 : 22;
    const std::uint32_t taken = is_fat12() ? 3 : 10;
    poke(size_field, little_endian(layout_.fat_size - taken, is_fat32() ? 4 : 2));
    const outcome result = qvol("check", {"-q"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(
        result.out.find("the last cluster of the FAT is " +
                        number((layout_.fat_size - taken) * 4096 / std::stoul(GetParam()) - 1) +
                        ", should be at least "),
        std::string::npos)
        << result;
}

// ---- chains -----------------------------------------------------------------------------------

TEST_P(QvolCheck, TellsAChainThatMeetsAFreeCluster) {
    const std::uint32_t start = start_of("/A.TXT");
    set_link(start + 1, FREE_CLUSTER);
    give_back(start + 2);
    expect_judge_finds_something();
    expect_mended_by_default(
        {{"/A.TXT" + at(FREE_CLUSTER) + "marked free, but part of the chain", UNKNOWN_DATA}},
        {"cut after 2 clusters"});
    EXPECT_EQ(said("cat", {"/A.TXT"}), std::string(1024, 'a'));
}

TEST_P(QvolCheck, TellsAChainThatMeetsABadCluster) {
    const std::uint32_t start = start_of("/A.TXT");
    const bytes healthy = read_file(image_);
    set_link(start + 2, bad_mark());
    expect_judge_finds_something();
    expect_mended_by_default(
        {{"/A.TXT" + at(start + 2) + "marked bad, but part of the chain", UNKNOWN_DATA}},
        {"copied to another cluster"});
    expect_contents();
    (void)scratch_.file_with("disk.img", healthy);
    set_link(start + 1, bad_mark()); // before the end of the chain
    EXPECT_EQ(qvol("check", {"--repair", "-q"}).status, 0);
    expect_clean();
    expect_contents();
}

TEST_P(QvolCheck, TellsAChainThatLeavesTheVolume) {
    repair_options_ = {"--free-lost"};
    const std::uint32_t start = start_of("/A.TXT");
    set_link(start + 1, is_fat32() ? 0x0ABCDEF0 : is_fat12() ? 0xFCD : 0xABCD);
    set_link(start + 2, end_mark());
    const std::string value = is_fat32() ? "0xabcdef0" : is_fat12() ? "0xfcd" : "0xabcd";
    expect_judge_finds_something();
    expect_mended_by_default(
        {{"/A.TXT" + at(start + 1) + "links to " + value + ", which does not exist", UNKNOWN_DATA},
         {"cluster " + number(start + 2) + ": lost cluster: allocated, referenced by no entry",
          BROKEN_CHAIN}},
        {"completed with the lost chain at cluster " + number(start + 2),
         "fixed by another repair"});
    expect_contents();
}

TEST_P(QvolCheck, TellsACircle) {
    const std::uint32_t start = start_of("/A.TXT");
    set_link(start + 1, start);
    give_back(start + 2);
    expect_judge_finds_something();
    expect_mended_by_default({{"/A.TXT" + at(start + 1) + "links back to cluster " + number(start) +
                                   " of the same chain",
                               UNKNOWN_DATA}},
                             {"cut after 2 clusters"});
}

TEST_P(QvolCheck, EndsACircleBehindTheWholeFile) {
    const std::uint32_t start = start_of("/A.TXT");
    set_link(start + 2, start + 1);
    expect_mended({{"/A.TXT" + at(start + 2) + "links back to cluster " + number(start + 1) +
                        " of the same chain",
                    CUT}});
}

TEST_P(QvolCheck, TellsAStartThatIsNoCluster) {
    const std::uint32_t start = start_of("/B.TXT");
    const std::uint64_t entry = entry_offset("/B.TXT");
    set_link(start, 0);
    set_link(start + 1, 0);
    change_free_count(2);
    poke(entry + 26, little_endian(1, 2));
    expect_judge_finds_something();
    expect_left({{"/B.TXT: first cluster is 0x1, which does not exist", UNKNOWN_DATA}});
    poke(entry + 26, little_endian(0, 2));
    expect_mended_by_default({{"/B.TXT: the file of 1000 bytes has no cluster", UNKNOWN_DATA}},
                             {"no cluster is left: size set to 0"});
}

TEST_P(QvolCheck, TellsFilesThatShareClusters) {
    repair_options_ = {"--free-lost"};
    const std::uint32_t a = start_of("/A.TXT");
    const std::uint32_t b = start_of("/B.TXT");
    set_link(b, a + 1);
    expect_judge_finds_something();
    expect_mended_by_default(
        {{"/B.TXT" + at(a + 1) + "also belongs to /A.TXT",
          "not repaired: it is unknown which entry owns the clusters"},
         {"cluster " + number(b + 1) + ": lost cluster: allocated, referenced by no entry",
          BROKEN_CHAIN}},
        {"completed with the lost chain at cluster " + number(b + 1), "fixed by another repair"});
    expect_contents();
}

TEST_P(QvolCheck, CopiesSharedClusters) {
    const std::uint32_t a = start_of("/A.TXT");
    const std::uint32_t b = start_of("/B.TXT");
    set_link(b, a + 1);
    give_back(b + 1);
    const bytes damaged = read_file(image_);
    expect_mended_by_default({{"/B.TXT" + at(a + 1) + "also belongs to /A.TXT",
                               "not repaired: it is unknown which entry owns the clusters"}},
                             {"1 cluster copied"});
    contents_["/B.TXT"] = std::string(512, 'b') + std::string(488, 'a');
    expect_contents();
    (void)scratch_.file_with("disk.img", damaged);
    const std::uint64_t free = json::parse(said("info", {"--json"}))["free_clusters"];
    said("put", {host_file("filling", std::string(free * 512, 'x')), "/"});
    expect_repair({{"/B.TXT" + at(a + 1) + "also belongs to /A.TXT",
                    "not repaired: no space for a copy of the shared clusters"}},
                  1);
    expect_contents();
}

// The link into the other file is the wrong one, although that file is complete.
TEST_P(QvolCheck, FindsTheWrongOneOfTwoLinksToACluster) {
    const std::uint32_t a = start_of("/A.TXT");
    const std::uint32_t b = start_of("/B.TXT");
    set_link(a + 1, b + 1);
    const std::string longer = at(b + 1) + "also belongs to ";
    expect_mended_by_default(
        {{"/B.TXT" + longer + "/A.TXT",
          "not repaired: it is unknown which entry owns the clusters"},
         {"cluster " + number(a + 2) + ": lost cluster: allocated, referenced by no entry",
          BROKEN_CHAIN}},
        {"/A.TXT continued with the lost chain at cluster " + number(a + 2) + " instead",
         "fixed by another repair"});
    expect_contents();
}

// Each copy has damage of its own in one sector.
TEST_P(QvolCheck, CompletesChainsFromAnotherCopyEntryByEntry) {
    const std::uint32_t a = start_of("/A.TXT");
    const std::uint32_t b = start_of("/B.TXT");
    set_link_in(0, a, 0);
    set_link_in(0, a + 1, 0);
    set_link_in(1, b, 0);
    change_free_count(1);
    const outcome repaired = qvol("check", {"--repair", "-q"});
    EXPECT_EQ(repaired.status, 0) << repaired;
    EXPECT_NE(repaired.out.find("/A.TXT" + at(a) +
                                "marked free, but part of the chain; repaired: completed from FAT "
                                "copy 1\n"),
              std::string::npos)
        << repaired;
    expect_healthy();
    expect_contents();
}

// What one file has too much takes nothing from another, whatever their order.
TEST_P(QvolCheck, CutsAChainThatRunsOnIntoAnother) {
    const std::uint32_t b = start_of("/B.TXT");
    set_link(start_of("/A.TXT") + 2, b);
    expect_judge_finds_something();
    expect_mended({{"/A.TXT" + at(b) + "also belongs to /B.TXT", CUT}});
}

TEST_P(QvolCheck, CutsAChainThatIsTooLong) {
    set_link(start_of("/B.TXT") + 1, FREE_CLUSTER);
    set_link(FREE_CLUSTER, FREE_CLUSTER + 1);
    set_link(FREE_CLUSTER + 1, end_mark());
    change_free_count(-2);
    expect_judge_finds_something();
    expect_mended(
        {{"/B.TXT" + at(FREE_CLUSTER) + "the chain has 4 clusters, should have 2 for 1000 bytes",
          CUT_AND_STORED}});
    EXPECT_EQ(said("cat", {"/FOUND.000/FILE00001.CHK"}).size(), 1024U);
}

TEST_P(QvolCheck, CutsAChainThatIsBrokenBehindTheWholeFile) {
    const std::uint32_t last = start_of("/B.TXT") + 1;
    set_link(last, FREE_CLUSTER);
    expect_mended({{"/B.TXT" + at(FREE_CLUSTER) + "marked free, but part of the chain", CUT}});
    set_link(last, 1);
    expect_mended({{"/B.TXT" + at(last) + "links to 0x1, which does not exist", CUT}});
}

TEST_P(QvolCheck, TakesTheChainOfAnEmptyFile) {
    set_link(FREE_CLUSTER, end_mark());
    set_start("/DIR/EMPTY", FREE_CLUSTER);
    change_free_count(-1);
    expect_mended(
        {{"/DIR/EMPTY" + at(FREE_CLUSTER) + "the chain has 1 cluster, should have 0 for 0 bytes",
          CUT_AND_STORED}});
    EXPECT_EQ(start_of("/DIR/EMPTY"), 0U);
}

TEST_P(QvolCheck, TellsAChainThatIsTooShort) {
    set_size("/B.TXT", 5000);
    expect_judge_finds_something();
    expect_mended_by_default({{"/B.TXT" + at(start_of("/B.TXT")) +
                                   "the chain has 2 clusters, should have 10 for 5000 bytes",
                               UNKNOWN_DATA}},
                             {"cut after 2 clusters"});
}

TEST_P(QvolCheck, TellsClustersBehindTheEndOfTheImage) {
    const std::uint32_t start = start_of("/A.TXT");
    set_link(start + 2, 0);
    set_link(start + 1, FREE_CLUSTER);
    set_link(FREE_CLUSTER, end_mark());
    std::filesystem::resize_file(image_, cluster_offset(FREE_CLUSTER));
    expect_check({{"/A.TXT" + at(FREE_CLUSTER) + "past the end of the image", ""}});
    expect_repair({{"/A.TXT" + at(FREE_CLUSTER) + "past the end of the image", UNKNOWN_DATA}}, 1);
}

TEST_P(QvolCheck, KeepsLostClustersAsFiles) {
    poke(cluster_offset(1000), std::string(512, 'x') + std::string(512, 'y'));
    set_link(1000, 1001);
    set_link(1001, end_mark());
    set_link(1020, 1021); // a circle
    set_link(1021, 1020);
    set_link(1050, start_of("/A.TXT"));
    change_free_count(-5);
    host_file("tree/FOUND.000", "");
    said("put", {scratch_.file("tree/FOUND.000"), "/"});
    const std::string two = ": lost chain of 2 clusters: allocated, referenced by no entry";
    const std::string kept = "repaired: stored in a FOUND directory";
    expect_mended({{"cluster 1000" + two, kept},
                   {"cluster 1020" + two, kept},
                   {"cluster 1050: lost cluster: allocated, referenced by no entry", kept}});
    EXPECT_EQ(said("ls", {"/FOUND.001"}), "FILE00001.CHK\nFILE00002.CHK\nFILE00003.CHK\n");
    EXPECT_EQ(said("cat", {"/FOUND.001/FILE00001.CHK"}),
              std::string(512, 'x') + std::string(512, 'y'));
    EXPECT_EQ(said("cat", {"/FOUND.001/FILE00003.CHK"}).size(), 512U);
}

// Directories get their entries first: what they contain is no longer lost then.
TEST_P(QvolCheck, KeepsALostDirectoryWithEverythingInIt) {
    host_file("tree/DIR/below/deeper/file.txt", std::string(2000, 'f'));
    said("put", {"-f", scratch_.file("tree") + "/.", "/"});
    const std::uint32_t below = start_of("/DIR/below");
    const std::string lost_entry = "\xE5" + std::string(31, '\0');
    poke(entry_offset("/DIR"), lost_entry); // and another directory in it, whose entry is lost, too
    const bytes one_lost = read_file(image_);
    const outcome repaired = qvol("check", {"--repair", "-q"});
    EXPECT_EQ(repaired.status, 0) << repaired;
    expect_healthy();
    expect_clean();
    EXPECT_EQ(said("ls", {"/FOUND.000"}), "DIR00001\n");
    EXPECT_EQ(said("cat", {"/FOUND.000/DIR00001/A long name.text"}),
              contents_["/DIR/A long name.text"]);
    EXPECT_EQ(said("cat", {"/FOUND.000/DIR00001/below/deeper/file.txt"}), std::string(2000, 'f'));
    // With the entry of "below" lost as well there are two trees.
    (void)scratch_.file_with("disk.img", one_lost);
    const std::string slots = peek(cluster_offset(below), 512);
    for (std::uint64_t offset = 0; offset < layout_.data_start * std::uint64_t{512} + 20000;
         offset += 32) {
        if (peek(offset, 12) == std::string("BELOW      \x10")) {
            poke(offset, lost_entry);
        }
    }
    EXPECT_EQ(qvol("check", {"--repair", "-q"}).status, 0);
    expect_healthy();
    EXPECT_EQ(said("ls", {"/FOUND.000"}), "DIR00001\n");
    EXPECT_EQ(said("cat", {"/FOUND.001/DIR00001/deeper/file.txt"}), std::string(2000, 'f'));
}

// The names of removed directories: from long-name slots that are still there, from removed ones,
// and without any, when the first character is lost.
TEST_P(QvolCheck, RestoresTheRemovedEntryOfALostDirectory) {
    host_file("more/A directory with a long name/file.txt", std::string(700, 'f'));
    host_file("more/PLAIN/file.txt", std::string(700, 'g'));
    said("put", {scratch_.file("more") + "/.", "/DIR"});
    const std::uint64_t named = entry_offset("/DIR/A directory with a long name");
    const std::uint64_t plain = entry_offset("/DIR/PLAIN");
    const bytes whole = read_file(image_);
    const std::string long_name = "/DIR/A directory with a long name/file.txt";
    for (const std::uint64_t slots_before : {0, 3}) {
        (void)scratch_.file_with("disk.img", whole);
        for (std::uint64_t slot = 0; slot <= slots_before; slot++) {
            poke(named - slot * 32, "\xE5");
        }
        EXPECT_EQ(qvol("check", {"--repair=safe", "-q"}).status, 0);
        EXPECT_EQ(json::parse(said("ls", {"--json", "/FOUND.000"}))["entries"].size(), 1U);
        (void)scratch_.file_with("disk.img", whole);
        for (std::uint64_t slot = 0; slot <= slots_before; slot++) {
            poke(named - slot * 32, "\xE5");
        }
        const outcome repaired = qvol("check", {"--repair", "-q"});
        EXPECT_EQ(repaired.status, 0) << repaired;
        EXPECT_TRUE(repaired.out.ends_with("; repaired: its removed entry in /DIR restored\n") ||
                    repaired.out.find("its removed entry in /DIR restored\n") != std::string::npos)
            << repaired;
        expect_healthy();
        expect_clean();
        expect_contents();
        EXPECT_EQ(said("cat", {long_name}), std::string(700, 'f'));
    }
    poke(plain, "\xE5");
    EXPECT_EQ(qvol("check", {"--repair", "-q"}).status, 0);
    EXPECT_EQ(said("cat", {"/DIR/_LAIN/file.txt"}), std::string(700, 'g'));
    expect_clean();
}

// A removed file may be what an interrupted command has removed: its entry only has its size.
TEST_P(QvolCheck, KeepsALostFileWithTheSizeOfItsRemovedEntry) {
    const std::uint32_t start = start_of("/A.TXT");
    poke(entry_offset("/A.TXT"), "\xE5");
    expect_check({{"cluster " + number(start) +
                       ": lost chain of 3 clusters: allocated, referenced by no entry",
                   ""}});
    expect_repair({{"cluster " + number(start) +
                        ": lost chain of 3 clusters: allocated, referenced by no entry",
                    "repaired: stored in a FOUND directory with the 1500 bytes of its removed "
                    "entry"}},
                  0);
    EXPECT_EQ(said("cat", {"/FOUND.000/FILE00001.CHK"}), contents_["/A.TXT"]);
}

// The FOUND directory extends an image that was cut to its content; an undo cuts it again.
TEST_P(QvolCheck, AnUndoFileCutsAnImageThatTheRepairHasExtended) {
    set_link(20, end_mark());
    poke(cluster_offset(20), std::string(512, 'x'));
    for (std::uint32_t cluster = is_fat32() ? 11 : 10; cluster < 20; cluster++) {
        set_link(cluster, bad_mark()); // no free cluster before
    }
    std::filesystem::resize_file(image_, cluster_offset(21));
    const bytes damaged = read_file(image_);
    const std::string undo = scratch_.file("undo");
    EXPECT_EQ(qvol("check", {"--repair", "-q", "--undo", undo}).status, 0);
    EXPECT_GT(std::filesystem::file_size(image_), damaged.size());
    EXPECT_EQ(said("cat", {"/FOUND.000/FILE00001.CHK"}), std::string(512, 'x'));
    const bytes repaired = read_file(image_);
    std::filesystem::resize_file(image_, repaired.size() + 512);
    EXPECT_EQ(qvol("undo", {undo}).status, 1);
    (void)scratch_.file_with("disk.img", repaired);
    said("undo", {undo});
    EXPECT_TRUE(has_content(image_, damaged));
}

// What a lost chain contains cannot be read: it gets an entry all the same.
TEST_P(QvolCheck, KeepsLostClustersPastTheEndOfAnImage) {
    set_link(FREE_CLUSTER, end_mark());
    std::filesystem::resize_file(image_, cluster_offset(500));
    const outcome repaired = qvol("check", {"--repair", "-q"});
    EXPECT_NE(repaired.out.find(": lost cluster: allocated, referenced by no entry; repaired: "),
              std::string::npos)
        << repaired;
    EXPECT_EQ(said("ls", {"/FOUND.000"}), "FILE00001.CHK\n");
    expect_contents();
}

// Without a free cluster for the directory nothing is changed.
TEST_P(QvolCheck, LeavesLostClustersWhereThereIsNoSpaceToKeepThem) {
    const std::uint64_t free = json::parse(said("info", {"--json"}))["free_clusters"];
    said("put", {host_file("filling", std::string((free - 1) * 512, 'x')), "/"});
    set_link(json::parse(said("map", {"--json"}))["free"][0]["first"], end_mark());
    change_free_count(0);
    const outcome left = qvol("check", {"--repair", "-q"});
    EXPECT_EQ(left.status, 1);
    EXPECT_NE(left.out.find("; not repaired: still present after the repair\n"), std::string::npos)
        << left;
    EXPECT_EQ(qvol("check", {"--repair", "--free-lost", "-q"}).status, 0);
    expect_contents();
}

TEST_P(QvolCheck, GivesLostClustersBack) {
    repair_options_ = {"--free-lost"};
    set_link(1000, 1001); // a chain
    set_link(1001, end_mark());
    set_link(1010, 1012); // two chains that come together
    set_link(1011, 1012);
    set_link(1012, end_mark());
    set_link(1020, 1021); // a circle
    set_link(1021, 1020);
    set_link(1030, 1030); // a circle of one
    set_link(1040, 1);    // a link to nowhere
    set_link(1050, start_of("/A.TXT"));
    change_free_count(-10);
    expect_judge_finds_something();
    const std::string two = ": lost chain of 2 clusters: allocated, referenced by no entry";
    const std::string one = ": lost cluster: allocated, referenced by no entry";
    const std::string freed = "repaired: 2 clusters freed";
    const std::string freed_one = "repaired: 1 cluster freed";
    expect_mended({{"cluster 1000" + two, freed},
                   {"cluster 1010" + two, freed},
                   {"cluster 1011" + one, freed_one},
                   {"cluster 1020" + two, freed},
                   {"cluster 1030" + one, freed_one},
                   {"cluster 1040" + one, freed_one},
                   {"cluster 1050" + one, freed_one}});
}

TEST_P(QvolCheck, LeavesClustersThatAreMarkedBad) {
    set_link(FREE_CLUSTER, bad_mark());
    change_free_count(-1);
    expect_check({});
}

// ---- directories ------------------------------------------------------------------------------

TEST_P(QvolCheck, TakesTheSizeOffADirectory) {
    set_size("/DIR", 4096);
    expect_judge_finds_something();
    expect_mended({{"/DIR" + at(start_of("/DIR")) + "directory size is 4096 bytes, should be 0",
                    "repaired: size set to 0"}});
}

TEST_P(QvolCheck, SetsDotEntriesRight) {
    const std::uint32_t dir = start_of("/DIR");
    const std::uint64_t offset = cluster_offset(dir);
    poke(offset + 26, little_endian(77, 2));
    poke(offset + 32 + 26, little_endian(78, 2));
    expect_judge_finds_something();
    expect_mended(
        {{"/DIR" + at(dir) + "first cluster of \".\" is 77, should be " + number(dir), CORRECTED},
         {"/DIR" + at(dir) + "first cluster of \"..\" is 78, should be 0", CORRECTED}});
}

TEST_P(QvolCheck, PutsMissingDotEntriesBack) {
    const std::uint32_t dir = start_of("/DIR");
    const std::uint64_t offset = cluster_offset(dir);
    const std::string before = peek(offset, 64);
    const std::string put = "repaired: entry written";
    poke(offset, "\xE5");   // removed
    poke(offset + 32, "X"); // another name
    expect_judge_finds_something();
    expect_mended({{"/DIR" + at(dir) + "\".\" is missing from slot 0", put},
                   {"/DIR" + at(dir) + "\"..\" is missing from slot 1", put}});
    poke(offset + 11, std::string(1, '\x20')); // no directory
    expect_mended({{"/DIR" + at(dir) + "\".\" is missing from slot 0", put}});
    EXPECT_EQ(peek(offset + 32, 64 - 32), before.substr(32));
}

TEST_P(QvolCheck, PutsDotEntriesIntoABlankDirectory) {
    said("mkdir", {"/NEW"});
    const std::uint32_t dir = start_of("/NEW");
    poke(cluster_offset(dir), std::string(512, '\0'));
    expect_judge_finds_something();
    expect_mended(
        {{"/NEW" + at(dir) + "\".\" is missing from slot 0", "repaired: entry written"},
         {"/NEW" + at(dir) + "\"..\" is missing from slot 1", "repaired: entry written"}});
}

// With the first slot blank all others are hidden.
TEST_P(QvolCheck, ShowsWhatIsBehindTheEndOfADirectory) {
    repair_options_ = {"--free-lost"};
    const std::uint32_t dir = start_of("/DIR");
    const std::uint32_t file = start_of("/DIR/A long name.text");
    poke(cluster_offset(dir), std::string(1, '\0'));
    expect_mended_by_default(
        {{"/DIR" + at(dir) + "5 slots in use past the end of the directory (slot 0)",
          "not repaired: it is unknown whether they are entries"},
         {"/DIR" + at(dir) + "\".\" is missing from slot 0",
          "not repaired: slots past the end could appear"},
         {"cluster " + number(file) +
              ": lost chain of 2 clusters: allocated, referenced by no entry",
          BROKEN_CHAIN}},
        {"blank slots before them marked as removed", "entry written", "fixed by another repair"});
    expect_contents();
}

// Blank slots in the middle hide those after them, if these lead to lost chains.
TEST_P(QvolCheck, ShowsEntriesPastABlankSlot) {
    for (const char *name : {"one", "two", "six"}) {
        host_file(std::string("more/") + name, std::string(1500, name[1]));
    }
    said("put", {scratch_.file("more") + "/.", "/DIR"});
    const std::uint32_t dir = start_of("/DIR");
    const std::string slots = peek(cluster_offset(dir), 512);
    const std::uint64_t two = entry_offset("/DIR/two");
    const std::uint64_t first = entry_offset("/DIR/one");
    const bytes whole = read_file(image_);
    poke(first, std::string(32, '\0')); // the long-name slot before it remains
    const outcome repaired = qvol("check", {"--repair", "-q"});
    EXPECT_EQ(repaired.status, 0) << repaired;
    expect_healthy();
    expect_clean();
    expect_contents();
    EXPECT_EQ(said("cat", {"/DIR/two"}), std::string(1500, 'w'));
    EXPECT_EQ(said("cat", {"/FOUND.000/FILE00001.CHK"}).substr(0, 1500), std::string(1500, 'n'));
    // What leads to clusters of other files is old.
    (void)scratch_.file_with("disk.img", whole);
    said("rm", {"/DIR/one", "/DIR/two", "/DIR/six"});
    poke(cluster_offset(dir) + 7 * 32, std::string(32, '\0'));
    poke(two + 64, slots.substr((two + 64) % 512, 64));
    put_slot(dir, 15, "OLD     TXT", 0x20, start_of("/A.TXT"), 1500);
    expect_left({{"/DIR" + at(dir) + "1 slot in use past the end of the directory (slot 7)",
                  "not repaired: it is unknown whether they are entries"}});
    EXPECT_EQ(qvol("check", {"--repair", "-q"}).status, 1);
    expect_contents();
}

// Other data in a directory's sector: what is in the others stays.
TEST_P(QvolCheck, IgnoresASectorOfOtherData) {
    for (unsigned i = 0; i < 30; i++) {
        host_file("more/FILE" + number(i), std::string(600, static_cast<char>('a' + i % 26)));
    }
    said("mkdir", {"/MORE"});
    said("put", {scratch_.file("more") + "/.", "/MORE"});
    const std::uint32_t dir = start_of("/MORE");
    std::mt19937 random(1);
    std::string garbage(512, '\0');
    for (char &byte : garbage) {
        byte = static_cast<char>(random() % 255 + 1);
    }
    poke(cluster_offset(dir), garbage);
    EXPECT_EQ(qvol("check", {"-q", "--repair=safe"}).status, 1);
    const outcome repaired = qvol("check", {"-q", "--repair"});
    EXPECT_EQ(repaired.status, 0) << repaired;
    EXPECT_TRUE(repaired.out.starts_with(
        "/MORE" + at(dir) +
        "slots 0 to 15 are no entries, but other data; repaired: slots removed\n"))
        << repaired;
    expect_healthy();
    expect_clean();
    expect_contents();
    EXPECT_EQ(said("cat", {"/MORE/FILE29"}), std::string(600, 'd'));
    EXPECT_EQ(json::parse(said("ls", {"--json", "/FOUND.000"}))["entries"].size(), 14U);
}

TEST_P(QvolCheck, TellsADotEntryElsewhere) {
    put_slot(start_of("/DIR"), 6, ".          ", 0x10);
    expect_mended_by_default({{"/DIR: misplaced dot entry in slot 6", BY_HAND}}, {"slot removed"});
    expect_contents();
}

TEST_P(QvolCheck, RemovesSlotsWithoutTheirEntry) {
    const std::uint32_t dir = start_of("/DIR");
    const std::uint64_t entry = entry_offset("/DIR/A long name.text");
    poke(cluster_offset(dir) + 6 * 32, peek(entry - 64, 64)); // the two slots once more
    put_slot(dir, 8, "\xE5OTHER  TXT", 0x20);
    expect_judge_finds_something();
    expect_mended({{"/DIR" + at(dir) + "2 long-name slots without an entry, starting at slot 6",
                    "repaired: slots removed"}});
    EXPECT_EQ(said("ls", {"/DIR"}), "A long name.text\nEMPTY\n");
}

TEST_P(QvolCheck, RemovesALongNameWithAnotherChecksum) {
    const std::uint32_t dir = start_of("/DIR");
    const std::uint64_t entry = entry_offset("/DIR/A long name.text");
    for (const std::uint64_t slot : {entry - 32, entry - 64}) {
        poke(slot + 13, std::string(1, static_cast<char>(peek(slot + 13, 1)[0] + 1)));
    }
    contents_["/DIR/ALONGN~1.TEX"] = contents_["/DIR/A long name.text"];
    contents_.erase("/DIR/A long name.text");
    expect_mended({{"/DIR" + at(dir) +
                        "checksum of the long name in slot 2 does not match the entry after it",
                    "repaired: slots removed"}});
}

TEST_P(QvolCheck, CorrectsOneFieldOfALongName) {
    const std::uint32_t dir = start_of("/DIR");
    const std::uint64_t entry = entry_offset("/DIR/A long name.text");
    const std::pair<std::uint64_t, std::string> damage[] = {{entry - 64, "\x02"},
                                                            {entry - 64, "\x47"},
                                                            {entry - 32, "\x05"},
                                                            {entry - 64 + 13, "?"},
                                                            {entry - 32 + 13, "?"}};
    for (const auto &[offset, byte] : damage) {
        SCOPED_TRACE(offset);
        poke(offset, byte);
        expect_mended_by_default({{"/DIR" + at(dir) +
                                       "the long name in slot 2 does not belong to the entry "
                                       "after it but for one field",
                                   BY_HAND}},
                                 {"field corrected"});
        expect_contents();
    }
}

TEST_P(QvolCheck, TakesTheFirstClusterOffALongNameSlot) {
    const std::uint32_t dir = start_of("/DIR");
    poke(entry_offset("/DIR/A long name.text") - 32 + 26, little_endian(5, 2));
    expect_judge_finds_something();
    expect_mended({{"/DIR" + at(dir) + "first cluster of long-name slot 3 is 5, should be 0",
                    "repaired: set to 0"}});
}

TEST_P(QvolCheck, ClearsTheReservedBitsOfALongNameSlot) {
    const std::uint32_t dir = start_of("/DIR");
    const std::uint64_t slot = entry_offset("/DIR/A long name.text") - 32;
    for (const auto &[offset, byte] : {std::pair<int, const char *>{12, "\x08"}, {11, "\xCF"}}) {
        poke(slot + offset, byte);
        expect_judge_finds_something();
        expect_mended({{"/DIR" + at(dir) + "reserved bits of long-name slot 3 are set, should be 0",
                        "repaired: set to 0"}});
    }
}

TEST_P(QvolCheck, TellsASlotThatIsNoEntry) {
    repair_options_ = {"--free-lost"};
    const std::uint32_t dir = start_of("/DIR");
    put_slot(dir, 6, "NEITHER TXT", 0x18, FREE_CLUSTER);
    set_link(FREE_CLUSTER, end_mark());
    change_free_count(-1);
    expect_mended_by_default(
        {{"/DIR" + at(dir) + "slot 6 is neither a file, a directory nor a label",
          "not repaired: its original content is unknown"},
         {"cluster 1000: lost cluster: allocated, referenced by no entry", BROKEN_CHAIN}},
        {"slot removed", "1 cluster freed"});
}

TEST_P(QvolCheck, TellsLabels) {
    put_slot(start_of("/DIR"), 6, "A LABEL    ", 0x08);
    const expected_finding misplaced = {
        "/DIR: slot 6 holds a volume label outside the root directory",
        "not repaired: its original content is unknown"};
    expect_mended_by_default({misplaced}, {"slot removed"});
    // With data it was a file.
    poke(cluster_offset(FREE_CLUSTER), "data");
    set_link(FREE_CLUSTER, end_mark());
    change_free_count(-1);
    put_slot(start_of("/DIR"), 6, "A LABEL    ", 0x08, FREE_CLUSTER, 4);
    expect_mended_by_default(
        {{"/DIR: cluster 1000: slot 6 holds a volume label outside the root directory",
          misplaced.outcome},
         {"cluster 1000: lost cluster: allocated, referenced by no entry", BROKEN_CHAIN}},
        {"made a file", "fixed by another repair"});
    EXPECT_EQ(said("cat", {"/DIR/A LABEL"}), "data");
}

TEST_P(QvolCheck, TellsMoreThanOneLabelInTheRoot) {
    const std::uint64_t root =
        is_fat32() ? cluster_offset(2) : std::uint64_t{layout_.rdir_start} * 512;
    const std::string label = "LABEL ONE  \x08" + std::string(20, '\0');
    std::uint32_t slot = 0;
    while (peek(root + slot * 32, 1)[0] != '\0' && peek(root + slot * 32, 1)[0] != '\xE5') {
        slot++;
    }
    poke(root + slot * 32, label);
    expect_mended_by_default(
        {{"the volume label is NO NAME in the boot sector, LABEL ONE in the root directory",
          "not repaired: it is unknown which label is correct"}},
        {"that of the root directory copied"});
    poke(root + slot * 32 + 32, label);
    expect_mended_by_default({{"/: slot " + number(slot + 1) + " holds a second volume label",
                               "not repaired: it is unknown which label is correct"}},
                             {"slot removed"});
}

TEST_P(QvolCheck, TellsNamesThatStandTwice) {
    const std::uint32_t dir = start_of("/DIR");
    put_slot(dir, 6, "EMPTY      ", 0x20);
    put_slot(dir, 7, "ALONGN~1TEX", 0x20);
    expect_judge_finds_something();
    expect_mended_by_default(
        {{"/DIR/ALONGN~1.TEX: same short name as /DIR/A long name.text: ALONGN~1.TEX", BY_HAND},
         {"/DIR/EMPTY: same name as /DIR/EMPTY", BY_HAND}},
        {"renamed", "renamed"});
    EXPECT_EQ(said("ls", {"/DIR"}), "A long name.text\nALONGN~2.TEX\nEMPTY\nEMPTY~1\n");
    expect_contents();
}

TEST_P(QvolCheck, TellsNamesThatDifferInCaseAlone) {
    const std::uint32_t dir = start_of("/DIR");
    const std::uint64_t entry = entry_offset("/DIR/A long name.text");
    std::string slots = peek(entry - 64, 96);
    slots[32 + 1] = 'a'; // of the first unit
    slots[64 + 7] = '2'; // ALONGN~2
    unsigned sum = 0;
    for (const char c : slots.substr(64, 11)) {
        sum = ((sum & 1U) << 7 | sum >> 1) + static_cast<unsigned char>(c);
        sum &= 0xFF;
    }
    slots[13] = slots[32 + 13] = static_cast<char>(sum);
    slots.replace(64 + 20, 2, 2, '\0');
    slots.replace(64 + 26, 6, 6, '\0');
    poke(cluster_offset(dir) + 6 * 32, slots);
    expect_mended_by_default(
        {{"/DIR/a long name.text: same name as /DIR/A long name.text", BY_HAND}}, {"renamed"});
    EXPECT_EQ(said("ls", {"/DIR"}), "A long name.text\nEMPTY\na long name~1.text\n");
    expect_contents();
}

// A name of the greatest length has no space for a number.
TEST_P(QvolCheck, RenamesTheLongestNames) {
    const std::string longest(255, 'n');
    host_file("more/" + longest, "");
    host_file("more/" + std::string(255, 'm'), "");
    said("mkdir", {"/MORE"});
    said("put", {scratch_.file("more") + "/.", "/MORE"});
    const std::uint64_t start = cluster_offset(start_of("/MORE"));
    std::string slots = peek(start, 4096);
    for (std::size_t slot = 0; slot < slots.size(); slot += 32) {
        const bool is_of_long_name = slots[slot + 11] == '\x0F';
        for (std::size_t at = slot; at < slot + 32 && is_of_long_name; at++) {
            slots[at] = slots[at] == 'm' ? 'n' : slots[at];
        }
    }
    poke(start, slots);
    const outcome repaired = run({"timeout", "10", qvol_path(), "check", "--repair", "-q", image_});
    EXPECT_EQ(repaired.status, 0) << repaired;
    expect_healthy();
    expect_clean();
    EXPECT_EQ(said("ls", {"/MORE"}), longest + "\n" + longest.substr(2) + "~1\n");
}

TEST_P(QvolCheck, TellsNamesThatAreNone) {
    const std::uint32_t dir = start_of("/DIR");
    put_slot(dir, 6, "\x1B[31m      ", 0x20);
    expect_mended_by_default(
        {{"/DIR/$'\\x1b[31m': invalid short name: contains byte 0x1b", BY_HAND}}, {"renamed"});
    EXPECT_EQ(said("ls", {"/DIR"}), "A long name.text\nEMPTY\n_[31m\n");
}

TEST_P(QvolCheck, TellsShortNamesThatStandForALongNameWhichIsNotThere) {
    poke(entry_offset("/DIR/A long name.text") + 12, "\x20");
    expect_healthy();
    poke(entry_offset("/A.TXT") + 12, "\x20");
    expect_judge_finds_something();
    expect_mended_by_default({{"/A.TXT" + at(start_of("/A.TXT")) +
                                   "invalid short name: case byte 0x20 requires a long name",
                               BY_HAND}},
                             {"renamed"});
    expect_contents();
}

TEST_P(QvolCheck, TellsADirectoryThatContainsItself) {
    const std::uint32_t dir = start_of("/DIR");
    put_slot(dir, 6, "SELF       ", 0x10, dir);
    expect_judge_finds_something();
    expect_mended_by_default({{"/DIR/SELF" + at(dir) + "also belongs to /DIR",
                               "not repaired: it is unknown which entry owns the clusters"}},
                             {"now an empty directory"});
    EXPECT_EQ(said("ls", {"/DIR/SELF"}), "");
}

TEST_P(QvolCheck, TellsADirectoryThatTwoEntriesClaim) {
    said("mkdir", {"/DIR/SUB"});
    const std::uint32_t sub = start_of("/DIR/SUB");
    said("mkdir", {"/AAA"});
    put_slot(start_of("/AAA"), 2, "TWIN       ", 0x10, sub);
    expect_judge_finds_something();
    const std::uint32_t dir = start_of("/DIR");
    const std::vector<expected_finding> findings = {
        {"/AAA/TWIN" + at(sub) + "first cluster of \"..\" is " + number(dir) + ", should be " +
             number(start_of("/AAA")),
         "not repaired: this may not be a directory"},
        {"/DIR/SUB" + at(sub) + "also belongs to /AAA/TWIN",
         "not repaired: it is unknown which entry owns the clusters"}};
    expect_left(findings);
    // The parent is the one that ".." leads to.
    host_file("more/file", "content");
    said("put", {scratch_.file("more") + "/.", "/DIR/SUB"});
    EXPECT_EQ(qvol("check", {"--repair", "-q"}).status, 0);
    expect_healthy();
    expect_clean();
    EXPECT_EQ(said("cat", {"/DIR/SUB/file"}), "content");
    EXPECT_EQ(said("ls", {"/AAA/TWIN"}), "");
}

// A file that is taken for a directory holds bytes, not slots: they are not mended.
TEST_P(QvolCheck, LeavesTheBytesOfAFileThatIsTakenForADirectory) {
    const std::uint32_t start = start_of("/B.TXT");
    poke(entry_offset("/B.TXT") + 11, std::string(1, '\x10'));
    contents_["/B.TXT"].replace(0, 32, long_name_like_bytes());
    poke(cluster_offset(start), long_name_like_bytes());
    expect_mended_by_default(
        {{"/B.TXT" + at(start) + "the cluster holds no directory", UNKNOWN_DATA},
         {"cluster " + number(start) +
              ": lost chain of 2 clusters: allocated, referenced by no entry",
          BROKEN_CHAIN}},
        {"made a file, which has this size", "fixed by another repair"});
    expect_contents();
}

TEST_P(QvolCheck, TellsADirectoryWithoutACluster) {
    put_slot(start_of("/DIR"), 6, "NONE       ", 0x10);
    expect_mended_by_default({{"/DIR/NONE: the directory has no cluster", UNKNOWN_DATA}},
                             {"now an empty directory"});
    EXPECT_EQ(said("ls", {"/DIR/NONE"}), "");
}

// The start of a directory is damaged: the only lost directory of the same parent is the one.
TEST_P(QvolCheck, FindsADirectoryWhoseStartIsWrong) {
    host_file("more/deep/inner.txt", std::string(700, 'i'));
    said("put", {scratch_.file("more") + "/.", "/DIR"});
    for (const std::uint32_t wrong : {start_of("/A.TXT"), 1U, 0U, FREE_CLUSTER}) {
        SCOPED_TRACE(wrong);
        set_start("/DIR/deep", wrong);
        EXPECT_EQ(qvol("check", {"-q", "--repair=safe"}).status, 1);
        const outcome repaired = qvol("check", {"-q", "--repair"});
        EXPECT_EQ(repaired.status, 0) << repaired;
        expect_healthy();
        expect_clean();
        expect_contents();
        EXPECT_EQ(said("cat", {"/DIR/deep/inner.txt"}), std::string(700, 'i'));
    }
}

TEST_P(QvolCheck, UsesAClusterAgainThatIsStillADirectory) {
    const std::uint32_t dir = start_of("/DIR");
    const std::uint32_t file = start_of("/DIR/A long name.text");
    give_back(dir);
    expect_mended_by_default(
        {{"/DIR" + at(dir) + "marked free, but part of the chain", UNKNOWN_DATA},
         {"cluster " + number(file) +
              ": lost chain of 2 clusters: allocated, referenced by no entry",
          BROKEN_CHAIN}},
        {"marked as used", "fixed by another repair"});
    expect_contents();
}

// The next cluster holds entries that nothing leads to.
TEST_P(QvolCheck, ContinuesADirectoryWithItsNextCluster) {
    said("mkdir", {"/MORE"});
    for (unsigned i = 0; i < 20; i++) {
        host_file("more/FILE" + number(i), "");
    }
    said("put", {scratch_.file("more") + "/.", "/MORE"});
    const std::uint32_t dir = start_of("/MORE");
    set_link(dir, FREE_CLUSTER);
    expect_mended_by_default(
        {{"/MORE" + at(FREE_CLUSTER) + "marked free, but part of the chain", UNKNOWN_DATA},
         {"cluster " + number(dir + 1) + ": lost cluster: allocated, referenced by no entry",
          BROKEN_CHAIN}},
        {"completed with the lost chain at cluster " + number(dir + 1), "fixed by another repair"});
    EXPECT_EQ(json::parse(said("ls", {"--json", "/MORE"}))["entries"].size(), 20U);
}

TEST_P(QvolCheck, TellsADirectoryWhoseChainIsBroken) {
    const std::uint32_t dir = start_of("/DIR");
    set_link(dir, FREE_CLUSTER);
    expect_judge_finds_something();
    expect_mended_by_default(
        {{"/DIR" + at(FREE_CLUSTER) + "marked free, but part of the chain", UNKNOWN_DATA}},
        {"cut after 1 cluster"});
    expect_contents();
}

// The library does not mount it; the check does.
TEST_P(QvolCheck32, TellsARootDirectoryWhoseChainIsBroken) {
    set_link(2, 2);
    expect_check({{"/: cluster 2: links back to cluster 2 of the same chain", ""}});
    set_link(2, 0);
    const outcome result = qvol("check", {"-q"});
    EXPECT_EQ(result.out.substr(0, result.out.find("/: ")),
              "FSInfo free count is 80619, should be 80620\n");
    EXPECT_NE(result.out.find("/: cluster 2: marked free, but part of the chain\n"),
              std::string::npos)
        << result;
}

// ---- files of the ZUQ driver ------------------------------------------------------------------

TEST_P(QvolCheck, KnowsThePoolAndTheLog) {
    if (is_fat12()) {
        GTEST_SKIP() << "the driver does not read FAT12";
    }
    said("pool");
    said("log");
    expect_check({});
    const std::uint32_t pool = start_of("/ZUQ_POOL.SY$");
    poke(cluster_offset(pool) + 8, little_endian(77, 4));
    set_size("/$ZUQ_LOG.LO$", 131072 - 512);
    const std::uint32_t log = start_of("/$ZUQ_LOG.LO$");
    expect_check({{"/$ZUQ_LOG.LO$" + at(log + 255) +
                       "the chain has 256 clusters, should have 255 for 130560 bytes",
                   ""},
                  {"/$ZUQ_LOG.LO$" + at(log) + "size is 130560 bytes, should be 131072", ""},
                  {"/ZUQ_POOL.SY$" + at(pool) + "header field at byte 8 is 0x4d, should be " +
                       (is_fat32() ? "0xb" : "0xa"),
                   ""}});
}

// The driver keeps clusters in stock behind the pool's own.
TEST_P(QvolCheck, LeavesTheStockOfThePool) {
    if (is_fat12()) {
        GTEST_SKIP() << "the driver does not read FAT12";
    }
    said("pool");
    set_link(start_of("/ZUQ_POOL.SY$"), FREE_CLUSTER);
    set_link(FREE_CLUSTER, end_mark());
    change_free_count(-2);
    expect_check({});
}

// ---- what is printed --------------------------------------------------------------------------

TEST_P(QvolCheck, SumsUp) {
    set_link(FREE_CLUSTER, end_mark());
    set_size("/B.TXT", 5000);
    const std::string total = (is_fat32() ? "9 of " : "8 of ") + number(total_clusters());
    const outcome result = qvol("check", {"--repair=safe", "--free-lost"});
    const std::string last = "1 directory, 4 files, " + total +
                             " clusters: " + (is_fat32() ? "3 findings, 1" : "2 findings, 0") +
                             " repaired, 2 not repaired\n";
    EXPECT_EQ(result.out.substr(result.out.find("1 directory")), last);
}

TEST_P(QvolCheck, GivesADocument) {
    set_size("/DIR", 1);
    const std::uint32_t dir = start_of("/DIR");
    json finding = {{"kind", "directory-size"},
                    {"path", "/DIR"},
                    {"cluster", dir},
                    {"text", "directory size is 1 byte, should be 0"},
                    {"repaired", false}};
    json expected = {{"findings", json::array({finding})},
                     {"left", 1},
                     {"directories", 1},
                     {"files", 4},
                     {"used_clusters", is_fat32() ? 9 : 8},
                     {"clusters", total_clusters()}};
    EXPECT_EQ(json::parse(qvol("check", {"--json"}).out), expected);
    finding["repaired"] = true;
    finding["outcome"] = "size set to 0";
    expected["findings"] = json::array({finding});
    expected["left"] = 0;
    EXPECT_EQ(json::parse(said("check", {"--json", "--repair"})), expected);
    expected["findings"] = json::array();
    EXPECT_EQ(json::parse(said("check", {"--json"})), expected);
}

// ---- a repair that is interrupted -------------------------------------------------------------

TEST_P(QvolCheck, ARepairThatIsInterruptedIsMadeUpForByTheNext) {
    set_link(start_of("/B.TXT") + 1, FREE_CLUSTER); // too long
    set_link(FREE_CLUSTER, end_mark());
    set_link(2000, end_mark()); // lost
    set_link_in(1, 3000, 5);
    set_link(0, 0);
    set_size("/DIR", 7);
    poke(cluster_offset(start_of("/DIR")) + 26, little_endian(77, 2));
    const bytes damaged = read_file(image_);
    for (int allowed = 0; !HasFailure(); allowed++) {
        SCOPED_TRACE(allowed);
        (void)scratch_.file_with("disk.img", damaged);
        setenv("WRITES_ALLOWED", std::to_string(allowed).c_str(), 1);
        const std::string undo = scratch_.file("undo " + number(static_cast<unsigned>(allowed)));
        const outcome interrupted =
            run({QVOL_FAILING_WRITES, "check", "--repair", image_, "--undo", undo});
        unsetenv("WRITES_ALLOWED");
        expect_contents();
        if (std::filesystem::exists(undo)) {
            const bytes repaired = read_file(image_);
            said("undo", {undo});
            EXPECT_TRUE(has_content(image_, damaged));
            (void)scratch_.file_with("disk.img", repaired);
        }
        EXPECT_EQ(qvol("check", {"--repair"}).status, 0);
        expect_clean();
        expect_contents();
        if (interrupted.status == 0) {
            EXPECT_GE(allowed, 6);
            return;
        }
    }
}

// With damage that is repaired in several rounds: chains, directories, names, lost clusters.
TEST_P(QvolCheck, AnInterruptedRepairOfChainsLeadsToTheSameFiles) {
    for (const char *name : {"one", "two", "six"}) {
        host_file(std::string("more/sub/") + name, std::string(1500, name[1]));
        host_file(std::string("more/Another directory/") + name, std::string(700, name[2]));
    }
    said("put", {scratch_.file("more") + "/.", "/DIR"});
    const std::uint32_t dir = start_of("/DIR");
    const std::uint32_t one = start_of("/DIR/sub/one");
    const std::uint32_t two = start_of("/DIR/sub/two");
    const std::uint32_t a = start_of("/A.TXT");
    const std::uint64_t removed = entry_offset("/DIR/Another directory");
    put_slot(dir, 11, "EMPTY      ", 0x20); // a name twice
    set_link(one, two + 1);                 // into another file
    set_link(two, 1);                       // nowhere
    set_size("/B.TXT", 100);                // a chain that is too long
    set_link(a + 1, 0);                     // cut, the rest is lost
    set_start("/DIR/sub", a);               // not a directory
    poke(removed, "\xE5");                  // a removed entry
    const bytes damaged = read_file(image_);
    const outcome repaired = qvol("check", {"--repair", "-q"});
    ASSERT_EQ(repaired.status, 0) << repaired;
    const std::multiset<std::string> wanted = files_by_name();
    EXPECT_GE(wanted.size(), 11U);
    for (int allowed = 0; !HasFailure(); allowed++) {
        SCOPED_TRACE(allowed);
        (void)scratch_.file_with("disk.img", damaged);
        setenv("WRITES_ALLOWED", std::to_string(allowed).c_str(), 1);
        const outcome interrupted =
            run({QVOL_FAILING_WRITES, "check", "--repair", image_, "--no-undo"});
        unsetenv("WRITES_ALLOWED");
        EXPECT_EQ(qvol("check", {"--repair", "-q"}).status, 0);
        expect_clean();
        EXPECT_EQ(files_by_name(), wanted);
        if (interrupted.status == 0) {
            EXPECT_GE(allowed, 10);
            return;
        }
    }
}

// ---- dry runs and undo files ------------------------------------------------------------------

TEST_P(QvolCheck, ADryRunShowsWhatARepairWouldDo) {
    set_link(FREE_CLUSTER, end_mark());
    set_size("/DIR", 7);
    change_free_count(-1);
    ASSERT_EQ(chmod(image_.c_str(), 0444), 0);
    const bytes damaged = read_file(image_);
    const outcome tried = qvol("check", {"--repair", "--dry-run"});
    EXPECT_EQ(tried.status, 1);
    EXPECT_TRUE(tried.out.starts_with(
        "/DIR" + at(start_of("/DIR")) +
        "directory size is 7 bytes, should be 0; would be repaired: size set to 0\n"))
        << tried;
    EXPECT_TRUE(tried.out.ends_with(": 2 findings, 2 would be repaired, 0 not\n")) << tried;
    EXPECT_TRUE(has_content(image_, damaged));
    ASSERT_EQ(chmod(image_.c_str(), 0644), 0);
    const json findings = json::parse(qvol("check", {"--repair", "--dry-run", "--json"}).out);
    EXPECT_EQ(json::parse(said("check", {"--repair", "--json"})), findings);
    EXPECT_EQ(qvol("check", {"--repair", "--dry-run", "-q"}), (outcome{0, "", ""}));
}

// An image that was cut to its content has no space for what the repair stores.
TEST_P(QvolCheck, ADryRunExtendsACutImageInMemory) {
    set_link(start_of("/DIR/A long name.text") + 2, end_mark());
    said("compact");
    const std::uintmax_t size = std::filesystem::file_size(image_);
    const json tried = json::parse(qvol("check", {"--repair", "--dry-run", "--json"}).out);
    EXPECT_EQ(std::filesystem::file_size(image_), size);
    EXPECT_EQ(json::parse(said("check", {"--repair", "--json"})), tried);
    EXPECT_GT(std::filesystem::file_size(image_), size);
}

// Beside the image, except for a safe repair; the next one gets a name of its own.
TEST_P(QvolCheck, ARepairMakesAnUndoFileByDefault) {
    EXPECT_EQ(qvol("check", {"--repair", "-q"}), (outcome{0, "", ""}));
    EXPECT_FALSE(std::filesystem::exists(image_ + ".undo")); // nothing was changed
    for (const std::string name : {"/A.TXT", "/B.TXT"}) {
        set_size(name, 5);
    }
    const bytes damaged = read_file(image_);
    for (const std::string suffix : {".undo", ".undo.2"}) {
        (void)scratch_.file_with("disk.img", damaged);
        const outcome repaired = qvol("check", {"--repair"});
        EXPECT_TRUE(repaired.out.starts_with("\"qvol undo " + image_ + " " + image_ + suffix +
                                             "\" takes the repair back\n"))
            << repaired;
        said("undo", {image_ + suffix});
        EXPECT_TRUE(has_content(image_, damaged));
    }
    for (const std::vector<std::string> &options :
         {std::vector<std::string>{"--repair=safe"}, {"--repair", "--no-undo"}}) {
        (void)qvol("check", options);
        EXPECT_FALSE(std::filesystem::exists(image_ + ".undo.3"));
    }
    for (const std::vector<std::string> &options :
         {std::vector<std::string>{"--no-undo"},
          {"--undo", scratch_.file("undo"), "--repair", "--no-undo"},
          {"--repair=some"}}) {
        EXPECT_EQ(qvol("check", options).status, 2);
    }
}

TEST_P(QvolCheck, AnUndoFileTakesTheRepairBack) {
    const std::string undo = scratch_.file("undo");
    said("check", {"--repair", "--undo", undo});
    EXPECT_FALSE(std::filesystem::exists(undo)); // nothing was changed
    set_link(FREE_CLUSTER, end_mark());
    set_size("/DIR", 7);
    const bytes damaged = read_file(image_);
    const outcome repaired = qvol("check", {"--repair", "--undo", undo});
    EXPECT_TRUE(repaired.out.starts_with("\"qvol undo " + image_ + " " + undo +
                                         "\" takes the repair back\n"))
        << repaired;
    const bytes mended = read_file(image_);

    // No second file of that name, no undo of another volume or with another file.
    EXPECT_EQ(qvol("check", {"--repair", "--undo", undo}),
              (outcome{1, "", "qvol: cannot make the undo file " + undo + ": File exists\n"}));
    const std::string other = host_file("other", std::string(100, 'x'));
    EXPECT_EQ(qvol("undo", {other}),
              (outcome{1, "", "qvol: cannot undo with " + other + ": it is no undo file\n"}));
    EXPECT_EQ(
        qvol("undo", {scratch_.file("none")}),
        (outcome{1, "",
                 "qvol: cannot read " + scratch_.file("none") + ": No such file or directory\n"}));
    std::filesystem::resize_file(image_, mended.size() + 512);
    EXPECT_EQ(qvol("undo", {undo}).status, 1);
    std::filesystem::resize_file(image_, mended.size());

    // Something else has changed the slot since.
    const std::uint64_t slot = entry_offset("/DIR") / 512 * 512;
    poke(slot + 511, "?");
    EXPECT_EQ(qvol("undo", {undo}), (outcome{1, "",
                                             "qvol: cannot undo with " + undo + ": " + image_ +
                                                 " has been changed since, at byte " +
                                                 number(slot) + "; nothing was written\n"}));
    (void)scratch_.file_with("disk.img", mended);
    const json changed = json::parse(said("undo", {undo, "--json"}));
    EXPECT_GE(changed["sectors"], 3);
    EXPECT_TRUE(has_content(image_, damaged));
    EXPECT_EQ(said("undo", {undo}), image_ + ": 0 sectors changed back\n");

    // The last record is incomplete after a power failure: its sector was not changed.
    const bytes records = read_file(undo);
    (void)scratch_.file_with("undo", bytes(records.begin(), records.end() - 1));
    EXPECT_EQ(said("undo", {undo}), image_ + ": 0 sectors changed back\n");
}

// ---- random damage ----------------------------------------------------------------------------

namespace {

const unsigned ROUNDS = std::getenv("QUORVEL_DEEP_TESTS") != nullptr ? 2000
                        : is_sanitized_qvol()                        ? (QUORVEL_FULL ? 10 : 3)
                                                                     : (QUORVEL_FULL ? 40 : 12);

// A volume with a few more directories. Damage falls on its metadata; where it falls follows from
// the seed alone.
class QvolCheckDamaged : public CheckedVolume {
protected:
    QvolCheckDamaged() {
        for (unsigned i = 0; i < 8; i++) {
            add_file("/many/file number " + number(i), 250 * i);
        }
        add_file("/deep/er/and/deeper/LAST.BIN", 3000);
        said("put", {"-f", scratch_.file("tree") + "/.", "/"});
        if (!is_fat12()) {
            said("pool");
            said("log");
        }
        pristine_ = read_file(image_);
        size_ = pristine_.size();
        drop_hole_at_end(&pristine_);
    }

    void add_file(const std::string &path, std::size_t size) {
        contents_[path] = std::string(size, path[6]);
        host_file("tree" + path, contents_[path]);
    }

    std::size_t place_of_damage(std::mt19937 *random) const {
        const std::size_t in_use = is_fat32() ? 2000 : 1000; // bytes of the FAT
        const std::size_t fat = std::size_t{layout_.fat_start} * 512;
        const std::size_t copy = std::size_t{layout_.fat_size} * 512;
        const std::size_t root = std::size_t{layout_.rdir_start} * 512;
        switch ((*random)() % 10) {
        case 0:
            return is_fat32() ? 512 + (*random)() % 512 : fat + (*random)() % in_use; // FSInfo
        case 1:
            return fat + copy + (*random)() % in_use;
        case 2:
        case 3:
        case 4:
            return fat + (*random)() % in_use;
        case 5:
            return root + (*random)() % 512;
        default:
            return std::size_t{layout_.data_start} * 512 + (*random)() % (std::size_t{40} * 512);
        }
    }

    // Few bytes, so that some of the volumes can be mended whole.
    void damage(unsigned seed) {
        std::mt19937 random(seed);
        bytes image = pristine_;
        for (std::size_t left = 1 + random() % 4; left > 0; left--) {
            const std::size_t place = place_of_damage(&random);
            image.resize(std::max(image.size(), place + 1));
            image[place] = static_cast<std::uint8_t>(random());
        }
        (void)scratch_.file_with("disk.img", image);
        std::filesystem::resize_file(image_, size_);
    }

    // What a repair may change.
    std::string metadata() const {
        return peek(0, pristine_.size() + 65536);
    }

    json ended(std::vector<std::string> options) {
        std::vector<std::string> command = {"timeout", "20",     qvol_path(),
                                            "check",   "--json", image_};
        command.insert(command.end(), options.begin(), options.end());
        const outcome result = run(command);
        EXPECT_LE(result.status, 1) << result;
        EXPECT_EQ(result.err.find("Sanitizer"), std::string::npos) << result;
        const json document = json::parse(result.out, nullptr, false);
        EXPECT_TRUE(document.is_discarded() || (document["left"] == 0) == (result.status == 0))
            << result;
        EXPECT_TRUE(!document.is_discarded() || !result.err.empty()) << result;
        return document;
    }

    // Paths of the files that can be read and hold what they should.
    std::set<std::string> sound_files() {
        std::vector<std::string> paths;
        std::string all;
        for (const auto &[path, content] : contents_) {
            paths.push_back(path);
            all += content;
        }
        std::set<std::string> sound(paths.begin(), paths.end());
        if (qvol("cat", paths) == outcome{0, all, ""}) {
            return sound;
        }
        std::erase_if(sound, [this](const std::string &path) {
            return qvol("cat", {path}) != outcome{0, contents_[path], ""};
        });
        return sound;
    }

    // What was left, as a check without a repair tells it.
    static std::multiset<std::string> left_in(const json &document) {
        std::multiset<std::string> left;
        for (json finding : document["findings"]) {
            finding.erase("outcome");
            if (!finding["repaired"]) {
                left.insert(finding.dump());
            }
        }
        return left;
    }

    bytes pristine_;
    std::uint64_t size_ = 0;
};
INSTANTIATE_TEST_SUITE_P(Fat, QvolCheckDamaged, testing::Values("12", "16", "32"),
                         [](const auto &tested) { return std::string(tested.param); });

} // namespace

TEST_P(QvolCheckDamaged, ARepairLosesNoFileAndLeavesNothingToRepair) {
    unsigned repaired = 0;
    for (unsigned seed = 0; seed < ROUNDS && !HasFailure(); seed++) {
        SCOPED_TRACE(seed);
        damage(seed);
        const json found = ended({});
        const std::set<std::string> before = sound_files();
        const std::string undo = scratch_.file("undo");
        std::filesystem::remove(undo);
        const bytes damaged = read_file(image_);
        const json mended = ended({"--repair", "--undo", undo});
        if (found.is_discarded() || mended.is_discarded()) {
            continue;
        }
        const std::set<std::string> sound = sound_files();
        for (const std::string &path : before) {
            EXPECT_TRUE(sound.contains(path)) << path << mended.dump(2);
        }
        const std::string after = metadata();
        const json again = ended({"--repair"});
        EXPECT_TRUE(metadata() == after);
        EXPECT_EQ(left_in(again), left_in(mended));
        if (found["left"] == 0 || mended["left"] == 0) {
            expect_clean();
            repaired += found["left"] != 0 ? 1 : 0;
        }
        if (std::filesystem::exists(undo)) {
            said("undo", {undo});
        }
        EXPECT_TRUE(has_content(image_, damaged));
    }
    EXPECT_GE(repaired, ROUNDS / 50); // the damage is not all beyond repair
}
