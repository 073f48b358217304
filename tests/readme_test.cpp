// The examples of the README, run.

#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/process.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

using namespace testing_support;

namespace {

// The lines that the README shows below a command, up to the next blank line or command.
std::string shown_below(const std::string &command) {
    std::ifstream readme(std::string(QUORVEL_SOURCE_DIR) + "/README.md");
    const std::string indent(4, ' ');
    std::string result;
    bool inside = false;
    for (std::string line; std::getline(readme, line);) {
        if (inside && (line.compare(0, 4, indent) != 0 || line.compare(0, 6, "    $ ") == 0)) {
            break;
        }
        if (inside) {
            result += line.substr(4) + "\n";
        }
        inside = inside || line == indent + "$ " + command;
    }
    return result;
}

// A new volume for each width, named disk.img as in the README.
const std::vector<std::vector<std::string>> NEW_VOLUMES = {{}, {"-F", "32", "-S", "512"}};

std::string fresh_volume(const scratch_directory &scratch, std::vector<std::string> options) {
    const std::string image = scratch.sparse_file("disk.img", 64ULL << 20);
    options.insert(options.begin(), tool_path());
    options.push_back(image);
    EXPECT_EQ(run(options).status, 0);
    return image;
}

constexpr const char *LABEL_REMARK = "Volume label '' stored in root directory is not valid.\n";
constexpr const char *COUNT_REMARK = "Free cluster summary uninitialized";

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

} // namespace

TEST(Readme, ShowsTheOutputOfTheWorkedExample) {
    const scratch_directory scratch;
    const std::string image = scratch.sparse_file("disk.img", 64ULL << 20);
    const outcome result = run({tool_path(), "-v", "-l", "MEDIA", image});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(shown_below("quorvel -v -l MEDIA disk.img"), result.out);
}

TEST(Readme, ShowsTheOutputOfARefusal) {
    const scratch_directory scratch;
    const std::string image = scratch.sparse_file("small.img", 8ULL << 20);
    const outcome result = run({tool_path(), image});
    EXPECT_EQ(result.status, 255);
    const std::string shown = shown_below("quorvel small.img");
    const std::size_t dots = shown.find("...\n");
    ASSERT_NE(dots, std::string::npos);
    EXPECT_EQ(shown.substr(0, dots), result.err.substr(0, dots));
    EXPECT_EQ(shown.substr(dots + 4), result.out);
}

TEST(Readme, ShowsTheOutputOfFsckForANewVolume) {
    const scratch_directory scratch;
    const std::string image = fresh_volume(scratch, {});
    const outcome checked = run({"fsck.fat", "-n", image});
    EXPECT_EQ(checked.status, 1);
    const std::string shown = shown_below("fsck.fat -n disk.img");
    const std::string remark = shown.substr(shown.find('\n') + 1); // the first line has the version
    EXPECT_TRUE(contains(remark, LABEL_REMARK)) << remark;
    EXPECT_TRUE(contains(checked.out, remark)) << checked;
}

TEST(Readme, FatlabelAndFsckRemoveTheRemark) {
    for (const std::vector<std::string> &options : NEW_VOLUMES) {
        const scratch_directory scratch;
        const std::string image = fresh_volume(scratch, options);
        const std::string found = run({"fsck.fat", "-n", image}).out;
        EXPECT_TRUE(contains(found, LABEL_REMARK)) << found;
        EXPECT_EQ(contains(found, COUNT_REMARK), !options.empty()) << found;

        EXPECT_EQ(run({"fatlabel", image, "MEDIA"}).status, 0);
        EXPECT_EQ(run({"fatlabel", image}).out, "MEDIA\n");
        const outcome labelled = run({"fsck.fat", "-n", image});
        EXPECT_EQ(labelled.status, 0) << labelled;
        EXPECT_FALSE(contains(labelled.out, LABEL_REMARK)) << labelled;

        const std::string second = fresh_volume(scratch, options);
        EXPECT_EQ(run({"fsck.fat", "-a", second}).status, 1); // something was repaired
        const outcome repaired = run({"fsck.fat", "-n", second});
        EXPECT_EQ(repaired.status, 0) << repaired;
        EXPECT_FALSE(contains(repaired.out, COUNT_REMARK)) << repaired;
    }
}
