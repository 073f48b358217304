// Calls of the example programs: their output and the files that they write.

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/qvol.h"
#include "tests/support/source_tree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

using namespace testing_support;

namespace {

class Example : public QvolImage {
protected:
    static std::string program(const std::string &name) {
        return std::string(QUORVEL_EXAMPLES) + "/" + name;
    }

    // FATs that differ and the blank label are the only permitted findings of the checker.
    void expect_sound_but_for_label_and_copies() {
        const outcome checked = run({"fsck.fat", "-n", image_});
        EXPECT_EQ(checked.status & ~1, 0) << checked;
        EXPECT_EQ(said("mirror", {"--quiet"}), "");
        for (const char *finding : {"clusters are shared", "Orphan", "Reclaimed", "differ"}) {
            EXPECT_EQ(run({"fsck.fat", "-n", image_}).out.find(finding), std::string::npos);
        }
    }

    outcome make_image(const std::string &tree, const std::string &image) {
        return shell("QVOL=\"$1\" \"$2\" \"$3\" \"$4\" FIRMWARE",
                     {qvol_path(), source_path("examples/make-image"), tree, image});
    }
};

} // namespace

TEST_F(Example, ZuqPlayerFillsADeviceForThePlayer) {
    image_ = scratch_.sparse_file("player.img", 300 << 20);
    const std::string song = host_file("A long song.mp3", "la la la");
    const std::string film = host_file("FILM.AVI", std::string(100'000, 'f'));
    EXPECT_EQ(run({program("zuq_player"), image_, song, film}), (outcome{0, "ready\n", ""}));

    EXPECT_EQ(said("ls", {"/"}),
              "$ZUQ_LOG.LO$\nA long song.mp3\nFAST.LST\nFILM.AVI\nZUQ_POOL.SY$\n");
    EXPECT_EQ(run({"mtype", "-i", image_, "::A long song.mp3"}).out, "la la la");
    EXPECT_EQ(run({"mtype", "-i", image_, "::FILM.AVI"}).out, std::string(100'000, 'f'));
    const std::string song_path = said("fastpath", {"/A long song.mp3"}).substr(0, 19);
    const std::string film_path = said("fastpath", {"/FILM.AVI"}).substr(0, 19);
    EXPECT_EQ(said("cat", {"/FAST.LST"}),
              song_path + " A long song.mp3\n" + film_path + " FILM.AVI\n");
    expect_sound_but_for_label_and_copies();
}

TEST_F(Example, ZuqPlayerReportsItsFailures) {
    image_ = scratch_.sparse_file("player.img", 300 << 20);
    const std::string missing = scratch_.file("missing.mp3");
    EXPECT_EQ(run({program("zuq_player"), image_}).status, 2);
    EXPECT_EQ(run({program("zuq_player"), image_, missing}),
              (outcome{1, "failed\n", "cannot copy " + missing + "\n"}));
    EXPECT_EQ(run({program("zuq_player"), missing, missing}), (outcome{1, "failed\n", ""}));
}

TEST_F(Example, FlashModelShowsThatAlignmentSavesPrograms) {
    EXPECT_EQ(run({program("flash_model"), "8192", "0"}),
              (outcome{0,
                       "FAT 0           3 pages      200 programs, at most 200 of one page\n"
                       "root            3 pages      401 programs, at most 400 of one page\n"
                       "data         4090 pages      400 programs, at most 2 of one page\n"
                       "volume       4096 pages     1000 programs, at most 400 of one page\n",
                       ""}));
    EXPECT_EQ(run({program("flash_model"), "8192", "8192"}),
              (outcome{0,
                       "FAT 0           2 pages      200 programs, at most 200 of one page\n"
                       "root            2 pages      400 programs, at most 400 of one page\n"
                       "data         4089 pages      200 programs, at most 1 of one page\n"
                       "volume       4096 pages      800 programs, at most 400 of one page\n",
                       ""}));
    EXPECT_EQ(run({program("flash_model")}).status, 2);
}

TEST_F(Example, MakeImageGivesTheTreeInAShortImageThatIsTheSameEveryTime) {
    (void)host_file("tree/etc/Settings of mine.conf", "volume=3\n");
    (void)host_file("tree/boot/kernel.bin", std::string(70'000, 'k'));
    (void)host_file("tree/.git/config", "not for flashing");
    image_ = scratch_.file("flash.img");
    const std::string again = scratch_.file("again.img");
    setenv("SOURCE_DATE_EPOCH", "1700000000", 1);
    const outcome made = make_image(scratch_.file("tree"), image_);
    EXPECT_EQ(made.status, 0) << made;
    EXPECT_EQ(make_image(scratch_.file("tree"), again).status, 0);
    unsetenv("SOURCE_DATE_EPOCH");
    EXPECT_TRUE(read_file(image_) == read_file(again));
    EXPECT_NE(made.out.find("FIRMWARE"), std::string::npos);

    // The part that was cut off reads as zeros.
    const nlohmann::json info = nlohmann::json::parse(said("info", {"--json"}));
    const std::uint64_t whole =
        info["total_sectors"].get<std::uint64_t>() * info["sector_size"].get<std::uint64_t>();
    EXPECT_LE(std::filesystem::file_size(image_), whole);
    std::filesystem::resize_file(image_, whole);
    expect_clean();
    EXPECT_EQ(said("ls", {"/"}), "$ZUQ_LOG.LO$\nZUQ_POOL.SY$\nboot\netc\n");
    EXPECT_EQ(said("get", {"--quiet", "/etc", scratch_.file("out")}), "");
    EXPECT_EQ(run({"diff", "-r", scratch_.file("tree/etc"), scratch_.file("out")}),
              (outcome{0, "", ""}));
}

TEST_F(Example, MakeImagePrintsItsUsage) {
    EXPECT_EQ(run({source_path("examples/make-image")}).status, 2);
    EXPECT_NE(make_image(scratch_.file("missing"), scratch_.file("flash.img")).status, 0);
    EXPECT_FALSE(std::filesystem::exists(scratch_.file("flash.img")));
}
