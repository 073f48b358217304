// Builds that are stopped, that fail, and that work on devices: nothing half-made ever has the name
// of the image, and a device that was not finished holds no volume.

#include "tests/support/loop_device.h"
#include "tests/support/qvol_build.h"

#include <chrono>
#include <random>

using namespace testing_support;

namespace {

constexpr int KILLED = 128 + SIGKILL;

class QvolBuildStopped : public QvolBuild {
protected:
    QvolBuildStopped() {
        setenv("SOURCE_DATE_EPOCH", "1000000000", 1);
        for (int i = 0; i < 300; i++) {
            tree_file("dir " + std::to_string(i % 10) + "/file " + std::to_string(i),
                      std::string(9000, static_cast<char>('a' + i % 26)));
        }
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(qvol("build", options()).status, 0);
        duration_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        whole_ = read_file(image_);
        std::filesystem::remove(image_);
    }
    ~QvolBuildStopped() override {
        unsetenv("SOURCE_DATE_EPOCH");
    }
    QvolBuildStopped(const QvolBuildStopped &) = delete;
    QvolBuildStopped &operator=(const QvolBuildStopped &) = delete;

    [[nodiscard]] std::vector<std::string> options() const {
        return {"--size", "8M", "--from", tree_, "--log"};
    }

    // Builds, and sends a signal after a part of the time that a build takes. Returns the status.
    // Without the search for leaks: a process that gets a signal during it and the tracer wait for
    // each other forever.
    int build_and_signal(const std::string &signal, double part,
                         const std::vector<std::string> &more = {}) {
        std::vector<std::string> arguments = {
            "env", "ASAN_OPTIONS=detect_leaks=0", "timeout", "--preserve-status", "-s", signal};
        arguments.push_back(std::to_string(duration_ * part));
        arguments.insert(arguments.end(), {qvol_path(), "build", image_});
        for (const std::vector<std::string> &part_of_them : {options(), more}) {
            arguments.insert(arguments.end(), part_of_them.begin(), part_of_them.end());
        }
        return run(arguments).status;
    }

    // The image is there whole, or not at all.
    void expect_whole_or_absent(bool is_there) {
        EXPECT_EQ(std::filesystem::exists(image_), is_there);
        if (is_there) {
            EXPECT_TRUE(has_content(image_, whole_));
        }
    }

    double duration_ = 0;
    bytes whole_;
};

class QvolBuildSignalled : public QvolBuildStopped,
                           public testing::WithParamInterface<std::pair<const char *, int>> {};
INSTANTIATE_TEST_SUITE_P(By, QvolBuildSignalled,
                         testing::Values(std::pair("TERM", SIGTERM), std::pair("INT", SIGINT),
                                         std::pair("HUP", SIGHUP)),
                         [](const auto &tested) { return std::string(tested.param.first); });

} // namespace

// ---- signals ----------------------------------------------------------------------------------

TEST_F(QvolBuildStopped, Killed100TimesNeverLeavesAHalfMadeImage) {
    std::mt19937 random(20251120);
    int killed = 0;
    for (int round = 0; round < 100; round++) {
        SCOPED_TRACE(round);
        const double part = std::uniform_real_distribution<double>(0, 1.1)(random);
        const int status = build_and_signal("KILL", part);
        killed += status == KILLED ? 1 : 0;
        ASSERT_TRUE(status == 0 || status == KILLED) << status;
        expect_whole_or_absent(std::filesystem::exists(image_));
        if (status == 0) {
            expect_whole_or_absent(true);
        }
        std::filesystem::remove_all(scratch_.file("made"));
        std::filesystem::create_directory(scratch_.file("made"));
    }
    EXPECT_GT(killed, 10);
}

// A build that was stopped leaves nothing; one that was not is whole. So are its forms for
// flashing.
TEST_P(QvolBuildSignalled, LeavesNothingBehind) {
    std::mt19937 random(20251121);
    int stopped = 0;
    const bool has_forms = GetParam().second == SIGINT;
    for (int round = 0; round < 30; round++) {
        SCOPED_TRACE(round);
        const double part = std::uniform_real_distribution<double>(0, 1.1)(random);
        const int status =
            build_and_signal(GetParam().first, part,
                             has_forms ? std::vector<std::string>{"--bmap", image_ + ".bmap",
                                                                  "--zstd", image_ + ".zst"}
                                       : std::vector<std::string>());
        stopped += status != 0 ? 1 : 0;
        ASSERT_TRUE(status == 0 || status == 128 + GetParam().second) << status;
        expect_whole_or_absent(status == 0);
        EXPECT_EQ(made().size(), status != 0 ? 0U : has_forms ? 3U : 1U);
        for (const std::string &name : made()) {
            std::filesystem::remove(scratch_.file("made/" + name));
        }
    }
    EXPECT_GT(stopped, 2);
}

TEST_F(QvolBuildStopped, KeepsTheOldImageUntilTheNewOneIsWhole) {
    host_file("made/disk.img", "old");
    if (build_and_signal("TERM", 0.3, {"--force"}) == 0) {
        GTEST_SKIP() << "the build was faster than the signal";
    }
    EXPECT_EQ(read_file(image_), bytes({'o', 'l', 'd'}));
    EXPECT_EQ(made(), std::vector<std::string>{"disk.img"});
}

// As nohup and shells in the background start programs.
TEST_F(QvolBuildStopped, IgnoresWhatItWasStartedToIgnore) {
    const outcome result =
        shell("trap '' HUP; q=$1; shift; \"$q\" build \"$@\" & sleep 0.01; kill -HUP $!; wait $!",
              {qvol_path(), image_, "--size", "8M", "--from", tree_, "--log"});
    EXPECT_EQ(result.status, 0) << result;
    expect_whole_or_absent(true);
}

// ---- failures ---------------------------------------------------------------------------------

TEST_F(QvolBuild, AFailingWriteLeavesNothing) {
    make_mixed_tree();
    int allowed = 0;
    for (int status = 1; status != 0; allowed++) {
        SCOPED_TRACE(allowed);
        setenv("WRITES_ALLOWED", std::to_string(allowed).c_str(), 1);
        const outcome result =
            run({QVOL_FAILING_WRITES, "build", image_, "--size", "4M", "--from", tree_, "--pool",
                 "--label", "FAULT", "--cluster", "512", "--bmap", image_ + ".bmap",
                 "--android-sparse", image_ + ".simg", "--zstd", image_ + ".zst"});
        status = result.status;
        ASSERT_LE(status, 1) << result;
        EXPECT_EQ(result.err.empty(), status == 0) << result;
        EXPECT_EQ(made().size(), status == 0 ? 4U : 0U);
    }
    unsetenv("WRITES_ALLOWED");
    EXPECT_GT(allowed, 10);
    expect_clean();
}

TEST_F(QvolBuild, AnImageThatDoesNotReachTheMediumIsNotKept) {
    const outcome result = run({QVOL_FAILING_FSYNC, "build", image_, "--size", "16M"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.err.starts_with("qvol: cannot sync ") &&
                result.err.ends_with(": Input/output error\n"))
        << result;
    EXPECT_EQ(made(), std::vector<std::string>());
}

TEST_F(QvolBuild, AFullHostIsTold) {
    tree_file("file", std::string(8 << 20, 'x'));
    if (!can_mount_privately()) {
        GTEST_SKIP() << "mounting takes root";
    }
    const outcome result = shell_with_private_mounts(
        "mount -t tmpfs -o size=4M none \"$1\" && \"$2\" build \"$1/disk.img\" --size 16M --from "
        "\"$3\"; echo $?; ls -A \"$1\"",
        {scratch_.file("made"), qvol_path(), tree_});
    EXPECT_EQ(result.out, "1\n") << result;
    EXPECT_NE(result.err.find("No space left on device"), std::string::npos) << result;
}

TEST_F(QvolBuild, ALimitOnFileSizesIsTold) {
    tree_file("file", std::string(1 << 20, 'x'));
    const outcome result = shell("ulimit -f 512; exec \"$1\" build \"$2\" --size 16M --from \"$3\"",
                                 {qvol_path(), image_, tree_});
    EXPECT_EQ(result.status, 1) << result;
    EXPECT_NE(result.err.find("File too large"), std::string::npos) << result;
    EXPECT_EQ(made(), std::vector<std::string>());
}

// Files of /proc say that they are empty.
TEST_F(QvolBuild, AFileThatChangesLeavesNothing) {
    const outcome result = build({"--size", "16M", "--from", "/proc/sys/kernel/random"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find(": changed while it was read; try again\n"), std::string::npos)
        << result;
    EXPECT_EQ(made(), std::vector<std::string>());
}

TEST_F(QvolBuild, AnImageThatCannotBeMadeIsTold) {
    image_ = scratch_.file("no/such/directory/disk.img");
    EXPECT_EQ(build({"--size", "16M"}),
              (outcome{1, "",
                       "qvol: cannot make an image in " + scratch_.file("no/such/directory") +
                           ": No such file or directory\n"}));
}

// ---- devices ----------------------------------------------------------------------------------

namespace {

class QvolBuildDevice : public QvolBuild {
protected:
    void SetUp() override {
        const std::string trouble =
            trouble_with_loop_devices(scratch_.sparse_file("probe.img", 1 << 20));
        if (!trouble.empty()) {
            GTEST_SKIP() << trouble;
        }
        file_ = scratch_.sparse_file("backing", 40 << 20);
        device_ = std::make_unique<loop_device>(file_);
        ASSERT_EQ(device_->trouble(), "");
        image_ = device_->path();
    }

    std::string file_;
    std::unique_ptr<loop_device> device_;
};

} // namespace

TEST_F(QvolBuildDevice, BuildsInPlace) {
    make_mixed_tree();
    for (const std::string fat : {"16", "32"}) {
        ASSERT_EQ(
            build({"--from", tree_, "--fat", fat, "--label", "DEVICE", "--pool", "--force"}).status,
            0);
        expect_clean();
        said("rm", {"/ZUQ_POOL.SY$"});
        expect_tree(tree_);
    }
    EXPECT_EQ(build({"--from", tree_, "--size", "auto", "--force", "--quiet"}),
              (outcome{0, "", ""}));
    expect_tree(tree_);
}

TEST_F(QvolBuildDevice, OverwritesOnlyABlankDeviceUnlessForced) {
    EXPECT_EQ(build({"--quiet"}), (outcome{0, "", ""}));
    EXPECT_EQ(build({"--quiet"}), (outcome{1, "",
                                           "qvol: cannot build on " + image_ +
                                               ": not blank; --force overwrites its content\n"}));
    EXPECT_EQ(build({"--quiet", "--force"}), (outcome{0, "", ""}));
}

TEST_F(QvolBuildDevice, TakesErasedFlashForBlank) {
    ASSERT_EQ(
        shell("tr '\\0' '\\377' < \"$1\" > \"$1.x\" && cat \"$1.x\" > \"$2\"", {file_, image_})
            .status,
        0);
    EXPECT_EQ(build({"--quiet"}), (outcome{0, "", ""}));
    expect_clean();
}

TEST_F(QvolBuildDevice, RefusesWhatTheDeviceCannotBe) {
    EXPECT_EQ(
        build({"--size", "41M"}),
        (outcome{1, "", "qvol: --size 41M: larger than " + image_ + ", which has 40.0 MiB\n"}));
    EXPECT_EQ(build({"--compact"}).status, 2);
    EXPECT_EQ(build({"--fat", "16", "--cluster", "512", "--from", tree_}).status, 1);
    (void)scratch_.sparse_file("tree/file", 50 << 20);
    const outcome full = build({"--from", tree_});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err,
              "qvol: no space: " + tree_ + " needs 50.0 MiB, the volume holds 40.0 MiB\n");
}

TEST_F(QvolBuildDevice, ADeviceThatIsNotFinishedHoldsNoVolume) {
    make_mixed_tree();
    ASSERT_EQ(build({"--quiet"}).status, 0);
    int allowed = 1;
    for (int status = 1; status != 0; allowed++) {
        SCOPED_TRACE(allowed);
        setenv("WRITES_ALLOWED", std::to_string(allowed).c_str(), 1);
        status = run({QVOL_FAILING_WRITES, "build", image_, "--from", tree_, "--force"}).status;
        unsetenv("WRITES_ALLOWED");
        ASSERT_LE(status, 1);
        const outcome listed = qvol("ls");
        if (status != 0) {
            EXPECT_EQ(listed,
                      (outcome{1, "",
                               "qvol: cannot mount " + image_ +
                                   ": no FAT volume found: the boot signature is 0x0000, should "
                                   "be 0xAA55\n"}));
        }
    }
    EXPECT_GT(allowed, 5);
    expect_clean();
    expect_tree(tree_);
}

TEST_F(QvolBuildDevice, RefusesADeviceThatIsMounted) {
    if (!can_mount_privately() || !has_program("mkfs.ext2") ||
        run({"mkfs.ext2", "-q", image_}).status != 0) {
        GTEST_SKIP() << "mounting takes root and e2fsprogs";
    }
    const outcome result = shell_with_private_mounts(
        "mount -t ext2 \"$1\" \"$2\" || exit 77; for place in \"$1\" \"$1@1M\" \"$4\" \"$4@1M\"; do "
        "\"$3\" build \"$place\" --force --size 4M; done",
        {image_, scratch_.file("made"), qvol_path(), file_});
    if (result.status == 77) {
        GTEST_SKIP() << "the kernel does not mount it: " << result.err;
    }
    const std::string refused =
        ": it is mounted on " + scratch_.file("made") + "; unmount it first\n";
    const std::string device = "qvol: cannot write to " + image_ + refused;
    const std::string file = "qvol: cannot write to " + file_ + refused;
    EXPECT_EQ(result, (outcome{1, "", device + device + file + file}));
}
