// Commands that stop at every one of their writes: what was there before stays readable, and the
// checker of dosfstools finds lost space, copies of the FAT that differ and a wrong count of free
// clusters, but nothing worse.

#include "tests/support/qvol.h"

#include <functional>
#include <regex>

using namespace testing_support;

namespace {

// What an interruption may leave.
const std::regex HARMLESS("fsck\\.fat 4.*|Reclaimed [0-9]+ unused clusters? \\([0-9]+ bytes\\)\\.|"
                          "FATs differ but appear to be intact\\.|  Using first FAT\\.|"
                          "Free cluster summary wrong.*|  Auto-correcting\\.|"
                          "Leaving filesystem unchanged\\.|.*: [0-9]+ files, .* clusters|");

class QvolInterrupted : public QvolImage, public testing::WithParamInterface<const char *> {
protected:
    QvolInterrupted() {
        const std::string width = GetParam();
        format(width, width == "16" ? 10 << 20 : 40 << 20, width == "16" ? "4" : "1");
        said("mkdir", {"/dir", "/other"});
        said("put", {host_file("kept", std::string(9000, 'k')),
                     host_file("replaced", std::string(7000, 'r')), "/dir"});
        base_ = scratch_.file("base.img");
        copy(image_, base_);
    }

    static void copy(const std::string &from, const std::string &to) {
        ASSERT_EQ(run({"cp", "--sparse=always", from, to}).status, 0);
    }

    // Runs the command with 0, 1, 2 ... writes allowed until it succeeds, and `then` after each
    // failure. Lines that match `also` are allowed too.
    void stop_everywhere(
        const std::string &command, std::vector<std::string> arguments,
        const std::string &also = "", const std::function<void()> &then = [] {}) {
        arguments.insert(arguments.begin(), {QVOL_FAILING_WRITES, command, image_});
        for (int allowed = 0; !HasFailure(); allowed++) {
            SCOPED_TRACE(command + " with " + std::to_string(allowed) + " writes");
            copy(base_, image_);
            setenv("WRITES_ALLOWED", std::to_string(allowed).c_str(), 1);
            const outcome result = run(arguments);
            unsetenv("WRITES_ALLOWED");
            if (result.status == 0) {
                EXPECT_GE(allowed, 2);
                expect_clean();
                return;
            }
            EXPECT_EQ(result.status, 1) << result;
            EXPECT_NE(result.err.find("cannot write sectors"), std::string::npos) << result;
            expect_harmless(also);
            then();
        }
    }

    void expect_harmless(const std::string &also) {
        const outcome judged = checked();
        std::istringstream lines(judged.out);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_TRUE(std::regex_match(line, HARMLESS) ||
                        (!also.empty() && std::regex_match(line, std::regex(also))))
                << judged;
        }
        EXPECT_EQ(qvol("tree").status, 0);
        EXPECT_EQ(said("cat", {"/dir/kept"}), std::string(9000, 'k'));
    }

    std::string base_;
};
INSTANTIATE_TEST_SUITE_P(Fat, QvolInterrupted, testing::Values("16", "32"),
                         [](const auto &tested) { return std::string(tested.param); });

} // namespace

TEST_P(QvolInterrupted, PutLosesSpaceAtMost) {
    host_file("tree/dir/replaced", std::string(20000, 'n'));
    host_file("tree/dir/below/new file with a long name", std::string(5000, 'x'));
    for (int i = 0; i < 60; i++) { // more than a cluster of entries
        host_file("tree/dir/many " + std::to_string(i), "x");
    }
    stop_everywhere("put", {"--force", scratch_.file("tree") + "/.", "/"});
    EXPECT_EQ(said("cat", {"/dir/replaced"}), std::string(20000, 'n'));
}

TEST_P(QvolInterrupted, MkdirLosesSpaceAtMost) {
    stop_everywhere("mkdir", {"-p", "/dir/a/b", "/c"});
}

TEST_P(QvolInterrupted, LnLosesSpaceAtMost) {
    stop_everywhere("ln", {"target", "/dir/a link with a long name"});
}

TEST_P(QvolInterrupted, RmLosesSpaceAtMost) {
    said("mkdir", {"-p", "/gone/below"});
    said("put", {host_file("some file", std::string(30000, 'x')), "/gone/below"});
    copy(image_, base_);
    stop_everywhere("rm", {"-r", "/gone", "/dir/replaced"});
}

// For a moment the entry has both its names: it is never without one.
TEST_P(QvolInterrupted, MvNeverLosesTheEntry) {
    stop_everywhere("mv", {"/dir/replaced", "/other/moved"},
                    "/.*|  share clusters\\.|  Truncating second to 0 bytes.*|  File size is .*|"
                    "  Truncating file to .*");
    EXPECT_EQ(said("cat", {"/other/moved"}), std::string(7000, 'r'));
}

TEST_P(QvolInterrupted, TouchLosesSpaceAtMost) {
    stop_everywhere("touch", {"/dir/kept", "/other/new file with a long name"});
}

TEST_P(QvolInterrupted, AttrChangesOneDirectoryAfterTheOther) {
    said("mkdir", {"/other/below"});
    copy(image_, base_);
    stop_everywhere("attr", {"+rh", "-R", "/"});
    EXPECT_EQ(said("attr", {"/dir/kept", "/other/below"}), "-rh-- /dir/kept\ndrh-- /other/below\n");
}

// A repair completes the change, or the volume is as before.
TEST_P(QvolInterrupted, LabelAndIdAreCompletedByARepair) {
    const std::string differing =
        "There are differences between boot sector and its backup\\.|"
        "This is mostly harmless\\. Differences: .*|  [0-9]+:.*|  Not automatically fixing this\\.|"
        "There is no label in boot sector, but there is volume label 'NEW' stored in root directory|"
        "  Auto-copying volume label from root directory to boot sector\\.";
    const auto repair = [this] {
        said("check", {"--repair", "--no-undo"});
        expect_clean();
    };
    stop_everywhere("label", {"NEW"}, differing, repair);
    EXPECT_EQ(said("label"), "NEW\n");
    if (std::string(GetParam()) == "32") { // without a backup, one write is all
        stop_everywhere("id", {"1A2B-3C4D"}, differing, repair);
        EXPECT_EQ(said("id"), "1A2B-3C4D\n");
    }
}
