// qvol check: every finding on an image that shows it, what the repair makes of it, and healthy
// images, which it leaves alone.

#include "tests/support/checked_volume.h"

#include <random>
#include <set>

using namespace testing_support;
using nlohmann::json;

namespace {

class QvolCheck : public CheckedVolume {};
INSTANTIATE_TEST_SUITE_P(Fat, QvolCheck, testing::Values("16", "32"),
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

const std::string CUT = "mended: the chain was cut to the size";
const std::string NOT_KNOWN = "left: what is missing is not known";
const std::string BROKEN_CHAIN = "left: the rest of a broken chain may be there";
const std::string SET_RIGHT = "mended: it was set right";
const std::string IN_DOUBT = "left: nothing is changed while the boot sector contradicts itself";
const std::string BY_HAND = "left: names are not changed here";

} // namespace

// ---- healthy volumes --------------------------------------------------------------------------

TEST_P(QvolCheck, AHealthyVolumeIsLeftAlone) {
    const bytes before = read_file(image_);
    const std::string total = is_fat32() ? "80628" : "20287";
    const std::string summary = std::string("1 directory, 4 files, ") + (is_fat32() ? "9" : "8") +
                                " of " + total + " clusters: no findings\n";
    EXPECT_EQ(qvol("check"), (outcome{0, summary, ""}));
    EXPECT_EQ(qvol("check", {"--repair"}), (outcome{0, summary, ""}));
    EXPECT_TRUE(read_file(image_) == before);
}

TEST_P(QvolCheck, ReadsAnImageThatMayNotBeWritten) {
    ASSERT_EQ(chmod(image_.c_str(), 0444), 0);
    EXPECT_EQ(qvol("check", {"-q"}), (outcome{0, "", ""}));
}

TEST_P(QvolCheck, FindsNothingOnWhatAKernelWrote) {
    const std::string kernel_image =
        std::string(QUORVEL_SOURCE_DIR) + "/tests/data/kernel-fat" + GetParam() + ".img.gz";
    ASSERT_EQ(shell("gzip -dc \"$1\" >\"$2\"", {kernel_image, image_}), (outcome{0, "", ""}));
    expect_healthy();
}

TEST_P(QvolCheck, FindsNothingOnWhatOtherToolsMade) {
    image_ = scratch_.sparse_file("other.img", 40 << 20);
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
    expect_mended({{"the backup of the boot sector, in sector 6, differs from it",
                    "mended: the boot sector was copied there"}});
    EXPECT_EQ(peek(0, 512), peek(6 * 512, 512));
}

TEST_P(QvolCheck32, CopiesTheBootSectorOverABackupThatIsNone) {
    poke(6 * 512, std::string(512, '\x5A'));
    expect_mended({{"the backup of the boot sector, in sector 6, differs from it",
                    "mended: the boot sector was copied there"}});
}

// With areas elsewhere every other repair would do harm.
TEST_P(QvolCheck32, MendsNothingWhereTheBackupHasOtherAreas) {
    poke(6 * 512 + 14, little_endian(33, 2));
    set_link(FREE_CLUSTER, end_mark());
    expect_left({{"the boot sector and its backup in sector 6 place the areas differently",
                  "left: which of the two is right is not known"},
                 {"FSInfo tells 80619 free clusters, there are 80618", IN_DOUBT},
                 {"cluster 1000: is lost: in use, and of no entry", IN_DOUBT}});
}

TEST_P(QvolCheck32, TellsSectorsThatAreNoneOfTheReservedOnes) {
    for (const std::uint64_t boot : {0, 6 * 512}) {
        poke(boot + 48, little_endian(40, 2));
        poke(boot + 50, little_endian(50, 2));
    }
    expect_left({{"the boot sector has its backup in sector 50, which is none of the reserved ones",
                  "left: the right place is not known"},
                 {"FSInfo lies in sector 40, which is none of the reserved ones",
                  "left: the right place is not known"}});
}

TEST_P(QvolCheck32, SetsFsinfoRight) {
    poke(512 + 488, little_endian(12345, 4) + little_endian(1, 4));
    expect_judge_finds_something();
    expect_mended({{"FSInfo tells 12345 free clusters, there are 80619", SET_RIGHT},
                   {"FSInfo tells 1 for the next free cluster, which is none", SET_RIGHT}});
    poke(512, "XXXX");
    poke(512 + 488, little_endian(1, 4));
    expect_judge_finds_something();
    expect_mended({{"FSInfo, in sector 1, has not its signatures", "mended: it was written anew"}});
}

// ---- the fixed entries of the FAT, its copies -------------------------------------------------

TEST_P(QvolCheck, SetsTheFirstTwoEntriesRight) {
    set_link(0, is_fat32() ? 0x0FFFFFF0 : 0xFFF0);
    set_link(1, 5);
    const std::string high = is_fat32() ? "0xfffff" : "0xff";
    expect_judge_finds_something();
    expect_mended(
        {{"FAT entry 0 holds " + high + "f0, of the media byte it is " + high + "f8", SET_RIGHT},
         {"FAT entry 1 holds 0x5, which is no end of a chain", SET_RIGHT}});
}

TEST_P(QvolCheck, RemovesTheMarkOfAVolumeThatWasNotClosed) {
    set_link(1, is_fat32() ? 0x07FFFFFF : 0x7FFF);
    poke(is_fat32() ? 65 : 37, "\x01");
    expect_mended({{"the boot sector is marked: it was not closed", "mended: the mark was removed"},
                   {"the volume is marked: it was not closed", "mended: the mark was removed"}});
    set_link(1, is_fat32() ? 0x0BFFFFFF : 0xBFFF);
    expect_mended(
        {{"the volume is marked: the medium has failed", "mended: the mark was removed"}});
}

TEST_P(QvolCheck, KeepsTheMarkWhereSomethingIsLeft) {
    set_link(1, is_fat32() ? 0x07FFFFFF : 0x7FFF);
    put_slot(start_of("/DIR"), 6, "BAD*NAMEXXX", 0x20);
    expect_left({{"the volume is marked: it was not closed", "left: something else is left"},
                 {"/DIR/BAD*NAME.XXX: the short name is none: it holds the byte 0x2a", BY_HAND}});
}

TEST_P(QvolCheck, MakesTheFatCopiesEqual) {
    set_link_in(1, FREE_CLUSTER, 7);
    set_link_in(1, FREE_CLUSTER + 5000, 7);
    expect_judge_finds_something();
    expect_mended({{"cluster 1000: is the first whose entry in FAT copy 1 differs: 2 sectors",
                    "mended: the first copy was written over it"}});
}

// What the library writes it writes to the first copy.
TEST_P(QvolCheck, TellsTheCopyThatTheLibraryLeftBehind) {
    set_link_in(1, start_of("/A.TXT"), 0);
    expect_mended({{"cluster " + number(start_of("/A.TXT")) +
                        ": is the first whose entry in FAT copy 1 differs: 1 sector",
                    "mended: the first copy was written over it"}});
}

// The other copy may hold what the first one lacks.
TEST_P(QvolCheck, KeepsCopiesThatDifferWhereTheFirstIsBroken) {
    const std::uint32_t start = start_of("/A.TXT");
    set_link_in(0, start, 0);
    const std::string fsinfo = "FSInfo tells 80619 free clusters, there are 80620";
    const std::vector<expected_finding> findings = {
        {"cluster " + number(start) + ": is the first whose entry in FAT copy 1 differs: 1 sector",
         BROKEN_CHAIN},
        {"/A.TXT" + at(start) + "is marked free and belongs to the chain", NOT_KNOWN},
        {"cluster " + number(start + 1) +
             ": begins a lost chain of 2 clusters: in use, and of no entry",
         BROKEN_CHAIN}};
    if (!is_fat32()) {
        expect_left(findings);
        return;
    }
    expect_check({findings[0], {fsinfo, ""}, findings[1], findings[2]});
    expect_repair({findings[0], {fsinfo, SET_RIGHT}, findings[1], findings[2]}, 1);
    expect_check(findings);
}

TEST_P(QvolCheck, TellsAFatThatIsTooSmall) {
    const std::uint64_t size_field = is_fat32() ? 36 : 22;
    const std::uint32_t taken = 10;
    const std::uint32_t per_sector = is_fat32() ? 128 : 256;
    poke(size_field, little_endian(layout_.fat_size - taken, is_fat32() ? 4 : 2));
    const outcome result = qvol("check", {"-q"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find("the FAT ends with cluster " +
                              number((layout_.fat_size - taken) * per_sector - 1) +
                              ", the volume with "),
              std::string::npos)
        << result;
}

// ---- chains -----------------------------------------------------------------------------------

TEST_P(QvolCheck, TellsAChainThatMeetsAFreeCluster) {
    const std::uint32_t start = start_of("/A.TXT");
    set_link(start + 1, FREE_CLUSTER);
    give_back(start + 2);
    expect_judge_finds_something();
    expect_left(
        {{"/A.TXT" + at(FREE_CLUSTER) + "is marked free and belongs to the chain", NOT_KNOWN}});
}

TEST_P(QvolCheck, TellsAChainThatMeetsABadCluster) {
    const std::uint32_t start = start_of("/A.TXT");
    set_link(start + 2, bad_mark());
    expect_judge_finds_something();
    expect_left({{"/A.TXT" + at(start + 2) + "is marked bad and belongs to the chain", NOT_KNOWN}});
}

TEST_P(QvolCheck, TellsAChainThatLeavesTheVolume) {
    const std::uint32_t start = start_of("/A.TXT");
    set_link(start + 1, is_fat32() ? 0x0ABCDEF0 : 0xABCD);
    set_link(start + 2, end_mark());
    const std::string value = is_fat32() ? "0xabcdef0" : "0xabcd";
    expect_judge_finds_something();
    expect_left(
        {{"/A.TXT" + at(start + 1) + "is linked to " + value +
              ", which is no cluster of the volume",
          NOT_KNOWN},
         {"cluster " + number(start + 2) + ": is lost: in use, and of no entry", BROKEN_CHAIN}});
}

TEST_P(QvolCheck, TellsACircle) {
    const std::uint32_t start = start_of("/A.TXT");
    set_link(start + 1, start);
    give_back(start + 2);
    expect_judge_finds_something();
    expect_left({{"/A.TXT" + at(start + 1) + "leads back to cluster " + number(start) +
                      " of the same chain",
                  NOT_KNOWN}});
}

TEST_P(QvolCheck, EndsACircleBehindTheWholeFile) {
    const std::uint32_t start = start_of("/A.TXT");
    set_link(start + 2, start + 1);
    expect_mended({{"/A.TXT" + at(start + 2) + "leads back to cluster " + number(start + 1) +
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
    expect_left({{"/B.TXT: begins in 0x1, which is no cluster of the volume", NOT_KNOWN}});
    poke(entry + 26, little_endian(0, 2));
    expect_left({{"/B.TXT: has 1000 bytes and no cluster", NOT_KNOWN}});
}

TEST_P(QvolCheck, TellsFilesThatShareClusters) {
    const std::uint32_t a = start_of("/A.TXT");
    const std::uint32_t b = start_of("/B.TXT");
    set_link(b, a + 1);
    expect_judge_finds_something();
    expect_left(
        {{"/B.TXT" + at(a + 1) + "belongs to /A.TXT as well",
          "left: whose clusters they are is not known"},
         {"cluster " + number(b + 1) + ": is lost: in use, and of no entry", BROKEN_CHAIN}});
}

// What one file has too much takes nothing from another, whatever their order.
TEST_P(QvolCheck, CutsAChainThatRunsOnIntoAnother) {
    const std::uint32_t b = start_of("/B.TXT");
    set_link(start_of("/A.TXT") + 2, b);
    expect_judge_finds_something();
    expect_mended({{"/A.TXT" + at(b) + "belongs to /B.TXT as well", CUT}});
}

TEST_P(QvolCheck, CutsAChainThatIsTooLong) {
    set_link(start_of("/B.TXT") + 1, FREE_CLUSTER);
    set_link(FREE_CLUSTER, FREE_CLUSTER + 1);
    set_link(FREE_CLUSTER + 1, end_mark());
    change_free_count(-2);
    expect_judge_finds_something();
    expect_mended({{"/B.TXT" + at(FREE_CLUSTER) +
                        "the chain has 4 clusters, the 1000 bytes of the file need 2",
                    CUT}});
}

TEST_P(QvolCheck, CutsAChainThatIsBrokenBehindTheWholeFile) {
    const std::uint32_t last = start_of("/B.TXT") + 1;
    set_link(last, FREE_CLUSTER);
    expect_mended({{"/B.TXT" + at(FREE_CLUSTER) + "is marked free and belongs to the chain", CUT}});
    set_link(last, 1);
    expect_mended(
        {{"/B.TXT" + at(last) + "is linked to 0x1, which is no cluster of the volume", CUT}});
}

TEST_P(QvolCheck, TakesTheChainOfAnEmptyFile) {
    set_link(FREE_CLUSTER, end_mark());
    set_start("/DIR/EMPTY", FREE_CLUSTER);
    change_free_count(-1);
    expect_mended({{"/DIR/EMPTY" + at(FREE_CLUSTER) +
                        "the chain has 1 cluster, the 0 bytes of the file need 0",
                    CUT}});
    EXPECT_EQ(start_of("/DIR/EMPTY"), 0U);
}

TEST_P(QvolCheck, TellsAChainThatIsTooShort) {
    set_size("/B.TXT", 5000);
    expect_judge_finds_something();
    expect_left({{"/B.TXT" + at(start_of("/B.TXT")) +
                      "the chain has 2 clusters, the 5000 bytes of the file need 10",
                  NOT_KNOWN}});
}

TEST_P(QvolCheck, TellsClustersBehindTheEndOfTheImage) {
    const std::uint32_t start = start_of("/A.TXT");
    set_link(start + 2, 0);
    set_link(start + 1, FREE_CLUSTER);
    set_link(FREE_CLUSTER, end_mark());
    std::filesystem::resize_file(image_, cluster_offset(FREE_CLUSTER));
    expect_check({{"/A.TXT" + at(FREE_CLUSTER) + "lies behind the end of the image", ""}});
    expect_repair({{"/A.TXT" + at(FREE_CLUSTER) + "lies behind the end of the image", NOT_KNOWN}},
                  1);
}

TEST_P(QvolCheck, GivesLostClustersBack) {
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
    const std::string two = ": begins a lost chain of 2 clusters: in use, and of no entry";
    const std::string one = ": is lost: in use, and of no entry";
    const std::string given = "mended: 2 clusters were given back";
    const std::string given_one = "mended: 1 cluster was given back";
    expect_mended({{"cluster 1000" + two, given},
                   {"cluster 1010" + two, given},
                   {"cluster 1011" + one, given_one},
                   {"cluster 1020" + two, given},
                   {"cluster 1030" + one, given_one},
                   {"cluster 1040" + one, given_one},
                   {"cluster 1050" + one, given_one}});
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
    expect_mended({{"/DIR" + at(start_of("/DIR")) + "the directory has a size, 4096 bytes",
                    "mended: the size was set to 0"}});
}

TEST_P(QvolCheck, SetsDotEntriesRight) {
    const std::uint32_t dir = start_of("/DIR");
    const std::uint64_t offset = cluster_offset(dir);
    poke(offset + 26, little_endian(77, 2));
    poke(offset + 32 + 26, little_endian(78, 2));
    expect_judge_finds_something();
    expect_mended(
        {{"/DIR" + at(dir) + "\".\" leads to cluster 77 and not to " + number(dir), SET_RIGHT},
         {"/DIR" + at(dir) + "\"..\" leads to cluster 78 and not to 0", SET_RIGHT}});
}

TEST_P(QvolCheck, PutsMissingDotEntriesBack) {
    const std::uint32_t dir = start_of("/DIR");
    const std::uint64_t offset = cluster_offset(dir);
    const std::string before = peek(offset, 64);
    const std::string put = "mended: it was put there";
    poke(offset, "\xE5");   // removed
    poke(offset + 32, "X"); // another name
    expect_judge_finds_something();
    expect_mended({{"/DIR" + at(dir) + "slot 0 does not hold \".\"", put},
                   {"/DIR" + at(dir) + "slot 1 does not hold \"..\"", put}});
    poke(offset + 11, std::string(1, '\x20')); // no directory
    expect_mended({{"/DIR" + at(dir) + "slot 0 does not hold \".\"", put}});
    EXPECT_EQ(peek(offset + 32, 64 - 32), before.substr(32));
}

TEST_P(QvolCheck, PutsDotEntriesIntoABlankDirectory) {
    said("mkdir", {"/NEW"});
    const std::uint32_t dir = start_of("/NEW");
    poke(cluster_offset(dir), std::string(512, '\0'));
    expect_judge_finds_something();
    expect_mended({{"/NEW" + at(dir) + "slot 0 does not hold \".\"", "mended: it was put there"},
                   {"/NEW" + at(dir) + "slot 1 does not hold \"..\"", "mended: it was put there"}});
}

// With the first slot blank all others are hidden: what is theirs is not given back.
TEST_P(QvolCheck, LeavesWhatIsBehindTheEndOfADirectory) {
    const std::uint32_t dir = start_of("/DIR");
    const std::uint32_t file = start_of("/DIR/A long name.text");
    poke(cluster_offset(dir), std::string(1, '\0'));
    const std::string in_place = "left: something else stands in its place";
    expect_left({{"/DIR" + at(dir) + "5 slots in use behind the end of the directory, slot 0",
                  "left: whether they are entries is not known"},
                 {"/DIR" + at(dir) + "slot 0 does not hold \".\"", in_place},
                 {"/DIR" + at(dir) + "slot 1 does not hold \"..\"", in_place},
                 {"cluster " + number(file) +
                      ": begins a lost chain of 2 clusters: in use, and of no entry",
                  BROKEN_CHAIN}});
    poke(cluster_offset(dir), ".");
    expect_check({});
    expect_contents();
}

TEST_P(QvolCheck, TellsADotEntryElsewhere) {
    put_slot(start_of("/DIR"), 6, ".          ", 0x10);
    expect_left({{"/DIR: slot 6 holds a dot entry", BY_HAND}});
}

TEST_P(QvolCheck, RemovesSlotsWithoutTheirEntry) {
    const std::uint32_t dir = start_of("/DIR");
    const std::uint64_t entry = entry_offset("/DIR/A long name.text");
    poke(cluster_offset(dir) + 6 * 32, peek(entry - 64, 64)); // the two slots once more
    put_slot(dir, 8, "\xE5OTHER  TXT", 0x20);
    expect_judge_finds_something();
    expect_mended({{"/DIR" + at(dir) + "2 long-name slots without an entry from slot 6 on",
                    "mended: the slots were removed"}});
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
                        "the long name in slot 2 has another checksum than the entry behind it",
                    "mended: the slots were removed"}});
}

TEST_P(QvolCheck, TakesTheFirstClusterOffALongNameSlot) {
    const std::uint32_t dir = start_of("/DIR");
    poke(entry_offset("/DIR/A long name.text") - 32 + 26, little_endian(5, 2));
    expect_judge_finds_something();
    expect_mended({{"/DIR" + at(dir) + "the long-name slot 3 has a first cluster",
                    "mended: it was taken away"}});
}

TEST_P(QvolCheck, ClearsTheReservedBitsOfALongNameSlot) {
    const std::uint32_t dir = start_of("/DIR");
    const std::uint64_t slot = entry_offset("/DIR/A long name.text") - 32;
    for (const auto &[offset, byte] : {std::pair<int, const char *>{12, "\x08"}, {11, "\xCF"}}) {
        poke(slot + offset, byte);
        expect_judge_finds_something();
        expect_mended({{"/DIR" + at(dir) + "reserved bits of the long-name slot 3 are not 0",
                        "mended: they were set to 0"}});
    }
}

TEST_P(QvolCheck, TellsASlotThatIsNoEntry) {
    const std::uint32_t dir = start_of("/DIR");
    put_slot(dir, 6, "NEITHER TXT", 0x18, FREE_CLUSTER);
    set_link(FREE_CLUSTER, end_mark());
    change_free_count(-1);
    expect_left({{"/DIR" + at(dir) + "slot 6 is neither a file nor a directory nor a label",
                  "left: what it was is not known"},
                 {"cluster 1000: is lost: in use, and of no entry", BROKEN_CHAIN}});
}

TEST_P(QvolCheck, TellsLabels) {
    put_slot(start_of("/DIR"), 6, "A LABEL    ", 0x08);
    expect_left(
        {{"/DIR: slot 6 holds a volume label outside the root", "left: what it was is not known"}});
}

TEST_P(QvolCheck, TellsMoreThanOneLabelInTheRoot) {
    const std::uint64_t root =
        is_fat32() ? cluster_offset(2) : std::uint64_t{layout_.rdir_start} * 512;
    const std::string label = "LABEL ONE  \x08" + std::string(20, '\0');
    std::uint32_t slot = 0;
    while (peek(root + slot * 32, 1)[0] != '\0' && peek(root + slot * 32, 1)[0] != '\xE5') {
        slot++;
    }
    poke(root + slot * 32, label + label);
    expect_left({{"/: slot " + number(slot + 1) + " holds another volume label",
                  "left: which one is right is not known"}});
}

TEST_P(QvolCheck, TellsNamesThatStandTwice) {
    const std::uint32_t dir = start_of("/DIR");
    put_slot(dir, 6, "EMPTY      ", 0x20);
    put_slot(dir, 7, "ALONGN~1TEX", 0x20);
    expect_judge_finds_something();
    expect_left(
        {{"/DIR/ALONGN~1.TEX: the same short name as /DIR/A long name.text: ALONGN~1.TEX", BY_HAND},
         {"/DIR/EMPTY: the same name as /DIR/EMPTY", BY_HAND}});
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
    expect_left({{"/DIR/a long name.text: the same name as /DIR/A long name.text", BY_HAND}});
}

TEST_P(QvolCheck, TellsNamesThatAreNone) {
    const std::uint32_t dir = start_of("/DIR");
    put_slot(dir, 6, "\x1B[31m      ", 0x20);
    expect_left({{"/DIR/$'\\x1b[31m': the short name is none: it holds the byte 0x1b", BY_HAND}});
}

TEST_P(QvolCheck, TellsShortNamesThatStandForALongNameWhichIsNotThere) {
    poke(entry_offset("/DIR/A long name.text") + 12, "\x20");
    expect_healthy();
    poke(entry_offset("/A.TXT") + 12, "\x20");
    expect_judge_finds_something();
    expect_left(
        {{"/A.TXT" + at(start_of("/A.TXT")) + "the short name is none: its case byte 0x20 says so",
          BY_HAND}});
}

TEST_P(QvolCheck, TellsADirectoryThatContainsItself) {
    const std::uint32_t dir = start_of("/DIR");
    put_slot(dir, 6, "SELF       ", 0x10, dir);
    expect_judge_finds_something();
    expect_left({{"/DIR/SELF" + at(dir) + "belongs to /DIR as well",
                  "left: whose clusters they are is not known"}});
}

TEST_P(QvolCheck, TellsADirectoryThatTwoEntriesClaim) {
    said("mkdir", {"/DIR/SUB"});
    const std::uint32_t sub = start_of("/DIR/SUB");
    said("mkdir", {"/AAA"});
    put_slot(start_of("/AAA"), 2, "TWIN       ", 0x10, sub);
    expect_judge_finds_something();
    const std::uint32_t dir = start_of("/DIR");
    expect_left({{"/AAA/TWIN" + at(sub) + "\"..\" leads to cluster " + number(dir) +
                      " and not to " + number(start_of("/AAA")),
                  "left: the directory may not be what it seems"},
                 {"/DIR/SUB" + at(sub) + "belongs to /AAA/TWIN as well",
                  "left: whose clusters they are is not known"}});
}

// A file that is taken for a directory holds bytes, not slots: they are not mended.
TEST_P(QvolCheck, LeavesTheBytesOfAFileThatIsTakenForADirectory) {
    const std::uint64_t content = cluster_offset(start_of("/B.TXT"));
    poke(entry_offset("/B.TXT") + 11, std::string(1, '\x10'));
    poke(content, long_name_like_bytes());
    const outcome found = qvol("check", {"-q"});
    EXPECT_NE(found.out.find("long-name slot"), std::string::npos) << found;
    const bytes before = read_file(image_);
    EXPECT_EQ(qvol("check", {"--repair"}).status, 1);
    EXPECT_TRUE(read_file(image_) == before);
}

TEST_P(QvolCheck, TellsADirectoryWithoutACluster) {
    put_slot(start_of("/DIR"), 6, "NONE       ", 0x10);
    expect_left({{"/DIR/NONE: the directory has no cluster", NOT_KNOWN}});
}

TEST_P(QvolCheck, TellsADirectoryWhoseChainIsBroken) {
    const std::uint32_t dir = start_of("/DIR");
    set_link(dir, FREE_CLUSTER);
    expect_judge_finds_something();
    expect_left(
        {{"/DIR" + at(FREE_CLUSTER) + "is marked free and belongs to the chain", NOT_KNOWN}});
}

// The library does not mount it; the check does.
TEST_P(QvolCheck32, TellsARootDirectoryWhoseChainIsBroken) {
    set_link(2, 2);
    expect_check({{"/: cluster 2: leads back to cluster 2 of the same chain", ""}});
    set_link(2, 0);
    const outcome result = qvol("check", {"-q"});
    EXPECT_EQ(result.out.substr(0, result.out.find("/: ")),
              "FSInfo tells 80619 free clusters, there are 80620\n");
    EXPECT_NE(result.out.find("/: cluster 2: is marked free and belongs to the chain\n"),
              std::string::npos)
        << result;
}

// ---- files of the ZUQ driver ------------------------------------------------------------------

TEST_P(QvolCheck, KnowsThePoolAndTheLog) {
    said("pool");
    said("log");
    expect_check({});
    const std::uint32_t pool = start_of("/ZUQ_POOL.SY$");
    poke(cluster_offset(pool) + 8, little_endian(77, 4));
    set_size("/$ZUQ_LOG.LO$", 131072 - 512);
    const std::string by_driver = "left: its content is the driver's: remove it, make it anew";
    const std::uint32_t log = start_of("/$ZUQ_LOG.LO$");
    expect_check({{"/$ZUQ_LOG.LO$" + at(log + 255) +
                       "the chain has 256 clusters, the 130560 bytes of the file need 255",
                   ""},
                  {"/$ZUQ_LOG.LO$" + at(log) + "has 130560 bytes, the driver needs 131072", ""},
                  {"/ZUQ_POOL.SY$" + at(pool) + "the header holds 0x4d at byte 8, where " +
                       (is_fat32() ? "0xb" : "0xa") + " has to stand",
                   ""}});
}

// The driver keeps clusters in stock behind the pool's own.
TEST_P(QvolCheck, LeavesTheStockOfThePool) {
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
    const std::string total = is_fat32() ? "9 of 80628" : "8 of 20287";
    const outcome result = qvol("check", {"--repair"});
    const std::string last = "1 directory, 4 files, " + total +
                             " clusters: " + (is_fat32() ? "3 findings, 1" : "2 findings, 0") +
                             " mended, 2 left\n";
    EXPECT_EQ(result.out.substr(result.out.find("1 directory")), last);
}

TEST_P(QvolCheck, GivesADocument) {
    set_size("/DIR", 1);
    const std::uint32_t dir = start_of("/DIR");
    json finding = {{"kind", "directory-size"},
                    {"path", "/DIR"},
                    {"cluster", dir},
                    {"text", "the directory has a size, 1 bytes"},
                    {"repaired", false}};
    json expected = {{"findings", {finding}},
                     {"left", 1},
                     {"directories", 1},
                     {"files", 4},
                     {"used_clusters", is_fat32() ? 9 : 8},
                     {"clusters", is_fat32() ? 80628 : 20287}};
    EXPECT_EQ(json::parse(qvol("check", {"--json"}).out), expected);
    finding["repaired"] = true;
    finding["outcome"] = "the size was set to 0";
    expected["findings"] = {finding};
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
        const outcome interrupted = run({QVOL_FAILING_WRITES, "check", "--repair", image_});
        unsetenv("WRITES_ALLOWED");
        expect_contents();
        EXPECT_EQ(qvol("check", {"--repair"}).status, 0);
        expect_clean();
        expect_contents();
        if (interrupted.status == 0) {
            EXPECT_GE(allowed, 6);
            return;
        }
    }
}

// ---- random damage ----------------------------------------------------------------------------

namespace {

const unsigned ROUNDS = std::getenv("QUORVEL_DEEP_TESTS") != nullptr ? 2000
                        : is_sanitized_qvol()                        ? 10
                                                                     : 40;

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
        said("pool");
        said("log");
        pristine_ = read_file(image_);
        size_ = pristine_.size();
        while (pristine_.back() == 0) {
            pristine_.pop_back();
        }
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
INSTANTIATE_TEST_SUITE_P(Fat, QvolCheckDamaged, testing::Values("16", "32"),
                         [](const auto &tested) { return std::string(tested.param); });

} // namespace

TEST_P(QvolCheckDamaged, ARepairLosesNoFileAndLeavesNothingToRepair) {
    unsigned repaired = 0;
    for (unsigned seed = 0; seed < ROUNDS && !HasFailure(); seed++) {
        SCOPED_TRACE(seed);
        damage(seed);
        const json found = ended({});
        const std::set<std::string> before = sound_files();
        const json mended = ended({"--repair"});
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
    }
    EXPECT_GE(repaired, ROUNDS / 50); // the damage is not all beyond repair
}
