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

} // namespace

TEST(Readme, ShowsWhatTheWorkedExamplePrints) {
    const scratch_directory scratch;
    const std::string image = scratch.sparse_file("disk.img", 64ULL << 20);
    const outcome result = run({tool_path(), "-v", "-l", "MEDIA", image});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(shown_below("./run -v -l MEDIA disk.img"), result.out);
}

TEST(Readme, ShowsWhatARefusalPrints) {
    const scratch_directory scratch;
    const std::string image = scratch.sparse_file("small.img", 8ULL << 20);
    const outcome result = run({tool_path(), image});
    EXPECT_EQ(result.status, 255);
    const std::string shown = shown_below("./run small.img");
    const std::size_t dots = shown.find("...\n");
    ASSERT_NE(dots, std::string::npos);
    EXPECT_EQ(shown.substr(0, dots), result.err.substr(0, dots));
    EXPECT_EQ(shown.substr(dots + 4), result.out);
}
