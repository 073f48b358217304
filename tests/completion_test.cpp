// Completion in bash and zsh: the offers of the shells are compared with the help of the programs.

#include "tests/support/files.h"
#include "tests/support/help.h"
#include "tests/support/process.h"
#include "tests/support/qvol.h"
#include "tests/support/source_tree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

using namespace testing_support;

namespace {

using text_set = std::set<std::string>;

help_text help_of(std::vector<std::string> command) {
    command.insert(command.begin(), qvol_path());
    command.emplace_back("--help");
    return help_of_qvol(command);
}

// A directory of the host in which a completion happens, with a file and a directory.
class CompletionTest : public ::testing::TestWithParam<std::string> {
protected:
    CompletionTest() {
        std::filesystem::create_directory(scratch_.file("rootfs"));
        (void)scratch_.sparse_file("disk.img", 1);
    }

    // The offers of the shell for the last word.
    text_set offered(const std::vector<std::string> &words) {
        std::vector<std::string> command = {source_path("tests/completion/" + GetParam()),
                                            source_path("completions")};
        if (GetParam() == "bash") {
            command.insert(command.end(), words.begin(), words.end());
        } else {
            command.push_back(joined(words));
        }
        const outcome result = in_scratch(command);
        EXPECT_EQ(result.status, 0) << joined(words) << ": " << result;
        EXPECT_EQ(result.err, "") << joined(words);
        const std::vector<std::string> lines = lines_of(result.out);
        return {lines.begin(), lines.end()};
    }

    scratch_directory scratch_;

private:
    static std::string joined(const std::vector<std::string> &words) {
        std::string line;
        for (const std::string &word : words) {
            line += (line.empty() ? "" : " ") + word;
        }
        return line;
    }

    [[nodiscard]] outcome in_scratch(const std::vector<std::string> &command) const {
        std::vector<std::string> arguments = {scratch_.file("")};
        arguments.insert(arguments.end(), command.begin(), command.end());
        return shell("cd \"$1\" && shift && exec timeout 60 \"$@\"", arguments);
    }
};

const text_set FILES = {"disk.img", "rootfs"};

} // namespace

TEST_P(CompletionTest, OffersTheCommandsOfQvol) {
    EXPECT_EQ(offered({"qvol", ""}), help_of({}).commands);
    EXPECT_EQ(offered({"qvol", "-"}), help_of({}).options);
    EXPECT_EQ(offered({"qvol", "mk"}), text_set{"mkdir"});
}

TEST_P(CompletionTest, OffersTheOptionsOfEachCommand) {
    for (const std::string &command : help_of({}).commands) {
        EXPECT_EQ(offered({"qvol", command, "-"}), help_of({command}).options) << command;
    }
}

TEST_P(CompletionTest, OffersTheValuesThatTheHelpNames) {
    for (const std::string &command : help_of({}).commands) {
        for (const auto &[name, values] : help_of({command}).values) {
            const std::string before = name[0] == '-' ? name : "disk.img";
            EXPECT_EQ(offered({"qvol", command, before, ""}), values) << command << " " << name;
        }
    }
}

TEST_P(CompletionTest, OffersOptionsAfterTheImageToo) {
    EXPECT_TRUE(offered({"qvol", "ls", "disk.img", "--re"}).contains("--recursive"));
    EXPECT_TRUE(offered({"qvol", "ls", "--encoding", "UTF-8", "--rec"}).contains("--recursive"));
}

TEST_P(CompletionTest, OffersFilesForTheImage) {
    for (const std::string &command : help_of({}).commands) {
        EXPECT_EQ(offered({"qvol", command, ""}), FILES) << command;
    }
    EXPECT_EQ(offered({"qvol", "info", "--json", ""}), FILES);
    EXPECT_EQ(offered({"qvol", "info", "--encoding", "UTF-8", ""}), FILES);
    EXPECT_EQ(offered({"qvol", "info", "dis"}), text_set{"disk.img"});
}

TEST_P(CompletionTest, OffersTheImageAfterAttributesToSet) {
    EXPECT_EQ(offered({"qvol", "attr", "+rh", ""}), FILES);
    EXPECT_EQ(offered({"qvol", "attr", "-r", ""}), FILES);
    EXPECT_EQ(offered({"qvol", "attr", "+r", "disk.img", ""}), text_set{});
}

TEST_P(CompletionTest, OffersFilesForPathsOfTheHostAndNothingForPathsInTheVolume) {
    EXPECT_EQ(offered({"qvol", "put", "disk.img", ""}), FILES);
    EXPECT_EQ(offered({"qvol", "get", "disk.img", "/photos", ""}), FILES);
    EXPECT_EQ(offered({"qvol", "dump", "disk.img", "fat", ""}), FILES);
    EXPECT_EQ(offered({"qvol", "cat", "disk.img", ""}), text_set{});
    EXPECT_EQ(offered({"qvol", "get", "disk.img", ""}), text_set{});
}

// bash takes "@" for a word of its own.
TEST_P(CompletionTest, TakesAPlaceForOneArgument) {
    EXPECT_EQ(offered({"qvol", "get", "disk.img#1", "/photos", ""}), FILES);
    std::vector<std::string> range = {"disk.img@1M"};
    if (GetParam() == "bash") {
        range = {"disk.img", "@", "1M"};
    }
    std::vector<std::string> words = {"qvol", "get"};
    words.insert(words.end(), range.begin(), range.end());
    EXPECT_EQ(offered(words), text_set{});
    words.emplace_back("/photos");
    words.emplace_back("");
    EXPECT_EQ(offered(words), FILES);
}

TEST_P(CompletionTest, OffersTheOptionsOfQuorvelAndTheValuesThatTheyTake) {
    EXPECT_EQ(offered({"quorvel", "-"}), options_of_usage());
    for (const std::string option : {"-F", "-p", "-S", "-s"}) {
        EXPECT_EQ(offered({"quorvel", option, ""}), accepted_numbers(option)) << option;
    }
    EXPECT_EQ(offered({"quorvel", ""}), FILES);
    EXPECT_EQ(offered({"quorvel", "-v", "-S", "512", "di"}), text_set{"disk.img"});
}

INSTANTIATE_TEST_SUITE_P(Shells, CompletionTest, ::testing::Values("bash", "zsh"),
                         [](const auto &shell) { return shell.param; });
