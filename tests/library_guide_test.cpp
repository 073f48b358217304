// The programs that the library guide shows, compiled without a change and run.

#include "fat/fat.h"
#include "tests/support/compile.h"
#include "tests/support/files.h"
#include "tests/support/process.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

using namespace testing_support;

namespace {

// The text between a line that opens a block of the language and the line that closes it.
std::string shown_program(const std::string &language) {
    std::ifstream guide(std::string(QUORVEL_SOURCE_DIR) + "/docs/library.md");
    std::string result;
    bool inside = false;
    for (std::string line; std::getline(guide, line);) {
        if (inside && line == "```") {
            break;
        }
        if (inside) {
            result += line + "\n";
        }
        inside = inside || line == "```" + language;
    }
    return result;
}

class LibraryGuideTest : public ::testing::Test {
protected:
    scratch_directory scratch;
    std::string image = scratch.sparse_file("notes.img", 64 << 20);

    // Compiles the program of the guide and links it with the library; gives its path.
    std::string built(const std::string &language, const std::string &file,
                      std::vector<std::string> compiler) const {
        const std::string text = shown_program(language);
        EXPECT_NE(text, "");
        const std::string source = scratch.file_with(file, bytes(text.begin(), text.end()));
        std::string program = scratch.file(file + ".program");
        compile(std::move(compiler), source, program);
        return program;
    }
};

} // namespace

TEST_F(LibraryGuideTest, TheFirstProgramsWriteAndListAVolume) {
    const std::string writer = built("c", "first.c", {QUORVEL_C_COMPILER, "-std=c11"});
    const std::string lister = built("c++", "first.cpp", {QUORVEL_CXX_COMPILER, "-std=c++20"});
    const outcome written = run({writer, image});
    EXPECT_EQ(written.status, 0) << written.err;
    EXPECT_EQ(written.out, "11 bytes: bread, milk\n");
    EXPECT_EQ(run({lister, image}), (outcome{0, "Notes/\n    Shopping list.txt\n", ""}));

    // A name that begins with a dot is no dot entry.
    fat_set_diagnostics(nullptr);
    ASSERT_GE(fat_open_volume(image.c_str(), 1, 0), 0);
    ASSERT_EQ(fat_build_super(), 0);
    ASSERT_GT(fat_mkdir(".config"), 0);
    ASSERT_EQ(fat_close_volume(0), 0);
    fat_set_diagnostics(stderr);
    EXPECT_EQ(run({lister, image}), (outcome{0, "Notes/\n    Shopping list.txt\n.config/\n", ""}));
    EXPECT_EQ(run({"fsck.fat", "-n", image}).status & ~1, 0); // copies of the FAT differ
}

TEST_F(LibraryGuideTest, TheFirstProgramsRefuseAFileThatIsNotAVolume) {
    const std::string writer = built("c", "first.c", {QUORVEL_C_COMPILER, "-std=c11"});
    const std::string lister = built("c++", "first.cpp", {QUORVEL_CXX_COMPILER, "-std=c++20"});
    EXPECT_EQ(run({writer}).status, 2);
    EXPECT_EQ(run({lister}).status, 2);
    EXPECT_EQ(run({writer, scratch.file("missing.img")}).status, 1);
    EXPECT_EQ(run({lister, image}), (outcome{1, "", image + " holds no FAT volume\n"}));
}
