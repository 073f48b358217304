// Images written to media with another content, read back and compared: nothing of what was there
// before shows, and a medium that is not complete has no volume. On files and on loop devices.

#include "tests/support/loop_device.h"
#include "tests/support/qvol_build.h"

#include <nlohmann/json.hpp>

#include <regex>

using namespace testing_support;
using nlohmann::json;

namespace {

constexpr std::uint64_t MEDIUM_BYTES = (24 << 20) + 512; // more than the image, no multiple of 4096
constexpr std::uint64_t IMAGE_BYTES = 16 << 20;
constexpr std::size_t DEFERRED_BYTES = 4096;

class QvolFlash : public QvolBuild {
protected:
    QvolFlash() : medium_(scratch_.file("medium")) {
        make_mixed_tree();
        tree_file("zeros", std::string(100'000, '\0'));
        tree_file("large", std::string(5'000'000, 'l'));
    }

    // The image with all its forms.
    void make_image() {
        build_tree(std::to_string(IMAGE_BYTES), {"--bmap", form("bmap"), "--android-sparse",
                                                 form("simg"), "--zstd", form("zst")});
    }
    [[nodiscard]] std::string form(const std::string &name) const {
        return scratch_.file("made/disk." + name);
    }

    void fill_medium(std::uint8_t byte) const {
        std::ofstream(medium_, std::ios::binary)
            << std::string(static_cast<std::size_t>(MEDIUM_BYTES), static_cast<char>(byte));
    }

    outcome flash(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"flash", "--quiet"});
        arguments.push_back(medium_);
        return run_qvol(arguments);
    }

    // The medium has the tree, and passes the checkers.
    void expect_flashed(const std::string &medium, const std::string &part = "") {
        const outcome same = run_qvol({"verify", "--quiet", medium + part, tree_});
        EXPECT_EQ(same, (outcome{0, "", ""}));
        EXPECT_EQ(run_qvol({"verify", "--quiet", medium + part, image_ + part}),
                  (outcome{0, "", ""}));
        const outcome judged = part.empty() ? run({"fsck.fat", "-n", medium}) : outcome{0, "", ""};
        EXPECT_EQ(judged.status, 0) << judged;
        EXPECT_EQ(run_qvol({"check", "--quiet", medium + part}), (outcome{0, "", ""}));
    }
    void expect_no_volume() {
        EXPECT_EQ(read_range(medium_, 0, DEFERRED_BYTES), bytes(DEFERRED_BYTES));
        EXPECT_EQ(run_qvol({"ls", medium_}).status, 1);
    }

    std::string medium_;
};

struct source {
    const char *name;
    const char *command;      // with $1: qvol, $2: the image without its ending, $3: the medium
    bool writes_whole_images; // all zeros, too
};

const source SOURCES[] = {
    {"an image", "\"$1\" flash -f \"$2.img\" \"$3\"", false},
    {"an image from a file", "\"$1\" flash -f - \"$3\" < \"$2.img\"", false},
    {"an image from a pipe", "cat \"$2.img\" | \"$1\" flash -f - \"$3\"", true},
    {"an image by a bmap", "\"$1\" flash -f --bmap \"$2.bmap\" \"$2.img\" \"$3\"", false},
    {"a pipe by a bmap", "cat \"$2.img\" | \"$1\" flash -f --bmap \"$2.bmap\" - \"$3\"", false},
    {"Android sparse", "\"$1\" flash -f \"$2.simg\" \"$3\"", false},
    {"zstd", "\"$1\" flash -f \"$2.zst\" \"$3\"", true},
    {"zstd from a pipe by a bmap", "cat \"$2.zst\" | \"$1\" flash -f --bmap \"$2.bmap\" - \"$3\"",
     false},
    {"an image of holes",
     "cp --sparse=always \"$2.img\" \"$2.holes\" && "
     "\"$1\" flash -f \"$2.holes\" \"$3\"",
     false},
    {"an unverified image", "\"$1\" flash -f --no-verify \"$2.img\" \"$3\"", false},
};

} // namespace

TEST_F(QvolFlash, WritesEveryForm) {
    make_image();
    const std::string stem = image_.substr(0, image_.size() - 4);
    std::uint8_t before = 0xFF;
    for (const source &from : SOURCES) {
        SCOPED_TRACE(from.name);
        fill_medium(before--);
        const outcome result = shell("{ " + std::string(from.command) + "; } >/dev/null",
                                     {qvol_path(), stem, medium_});
        ASSERT_EQ(result.status, 0) << result;
        EXPECT_EQ(result.err, "");
        expect_flashed(medium_);
        const bytes last = read_range(medium_, IMAGE_BYTES - 1, 2); // free, and after the image
        const std::uint8_t kept = static_cast<std::uint8_t>(before + 1);
        EXPECT_EQ(last, (bytes{from.writes_whole_images ? std::uint8_t{0} : kept, kept}));
    }
}

TEST_F(QvolFlash, ZerosTheRest) {
    make_image();
    fill_medium(0xFF);
    EXPECT_EQ(flash({"-f", "--zero", image_}), (outcome{0, "", ""}));
    bytes expected = read_file(image_);
    expected.resize(MEDIUM_BYTES);
    EXPECT_TRUE(has_content(medium_, expected));
}

TEST_F(QvolFlash, DiscardsTheRest) {
    make_image();
    fill_medium(0xFF);
    EXPECT_EQ(flash({"-f", "--discard", image_}), (outcome{0, "", ""}));
    expect_flashed(medium_);
    EXPECT_EQ(read_range(medium_, IMAGE_BYTES + 4096, 4096), bytes(4096)); // of a file: a hole
}

// Other file systems expect the zeros of their holes.
TEST_F(QvolFlash, HolesCountInWhatIsNoVolume) {
    image_ = scratch_.sparse_file("made/disk.img", IMAGE_BYTES);
    std::fstream(image_, std::ios::binary | std::ios::in | std::ios::out).seekp(5 << 20) << "data";
    fill_medium(0xFF);
    EXPECT_EQ(flash({"-f", image_}), (outcome{0, "", ""}));
    EXPECT_EQ(read_range(medium_, 0, IMAGE_BYTES), read_file(image_));
}

// The partitions of a disk, one with a volume and one with something else.
TEST_F(QvolFlash, WritesDisks) {
    const std::string raw = scratch_.sparse_file("raw", 2 << 20);
    std::fstream(raw, std::ios::binary | std::ios::in | std::ios::out).seekp(1 << 20) << "data";
    ASSERT_EQ(run_qvol({"disk", "-q", image_, "--mbr", "--part", "from=" + tree_ + ",size=12M",
                        "--part", "raw=" + raw})
                  .status,
              0);
    fill_medium(0xFF);
    EXPECT_EQ(flash({"-f", image_}), (outcome{0, "", ""}));
    expect_flashed(medium_, "#1");
    EXPECT_EQ(run({"cmp", "-n", std::to_string(2 << 20), "-i", "13M:0", medium_, raw}).out, "");
}

TEST_F(QvolFlash, WritesIntoPartitions) {
    make_image();
    ASSERT_EQ(run_qvol({"disk", "-q", medium_, "--part", "size=20M", "--part", "size=1M"}).status,
              0);
    const bytes table = read_range(medium_, 0, 4096);
    EXPECT_EQ(run_qvol({"flash", "-q", image_, medium_ + "#1"}), (outcome{0, "", ""}));
    EXPECT_EQ(run_qvol({"verify", "-q", medium_ + "#1", image_}), (outcome{0, "", ""}));
    EXPECT_EQ(run_qvol({"check", "-q", medium_ + "#1"}), (outcome{0, "", ""}));
    EXPECT_EQ(read_range(medium_, 0, 4096), table);
}

TEST_F(QvolFlash, RefusesWhatItMustNotOverwrite) {
    make_image();
    fill_medium(0x11);
    const std::string name = "qvol: cannot flash " + medium_;
    const bytes before = read_file(medium_);
    EXPECT_EQ(flash({image_}),
              (outcome{1, "", name + ": not blank; --force overwrites its content\n"}));
    const std::string large = scratch_.sparse_file("large.img", MEDIUM_BYTES + 1);
    EXPECT_EQ(flash({"-f", large}),
              (outcome{1, "", name + ": it has 24.0 MiB, the image has 24.0 MiB\n"}));
    EXPECT_EQ(flash({"-f", medium_}), (outcome{1, "", name + ": it is the image itself\n"}));
    EXPECT_EQ(flash({"-f", scratch_.file("none")}).status, 1);
    EXPECT_EQ(flash({"-f", "--bmap", image_, image_}).status, 1);
    EXPECT_EQ(flash({"-f", "--zero", "--discard", image_}).status, 2);
    EXPECT_EQ(flash({"-f", "--backup-boot", image_}).status, 2);
    EXPECT_EQ(run_qvol({"flash", image_, scratch_.file("none")}).status, 1);
    EXPECT_TRUE(has_content(medium_, before));
    const outcome locked =
        shell("flock \"$3\" \"$1\" flash -f \"$2\" \"$3\"", {qvol_path(), image_, medium_});
    EXPECT_EQ(locked.status, 1);
    EXPECT_NE(locked.err.find("locked by another program"), std::string::npos) << locked;
    EXPECT_TRUE(has_content(medium_, before));
}

TEST_F(QvolFlash, AnImageThatIsTooLargeOrDamagedLeavesNoVolume) {
    make_image();
    fill_medium(0xFF);
    EXPECT_EQ(flash({"-f", image_}).status, 0);
    const outcome large =
        shell("head -c 25M /dev/zero | \"$1\" flash -f - \"$2\"", {qvol_path(), medium_});
    EXPECT_EQ(large,
              (outcome{1, "",
                       "qvol: cannot flash " + medium_ + ": the image is larger than " + medium_ +
                           ", which has 24.0 MiB; it is incomplete and has no volume\n"}));
    expect_no_volume();
    EXPECT_EQ(flash({"-f", image_}).status, 0);
    const outcome cut = shell("head -c 3000 \"$3\" | \"$1\" flash -f - \"$2\"",
                              {qvol_path(), medium_, form("zst")});
    EXPECT_EQ(cut.status, 1) << cut;
    expect_no_volume();
}

// An earlier volume is on the medium: it must not remain either.
TEST_F(QvolFlash, AFailedWriteLeavesNoVolume) {
    if (is_sanitized_qvol()) {
        GTEST_SKIP() << "the program with failing writes is another one";
    }
    make_image();
    fill_medium(0xFF);
    for (int allowed = 0;; allowed++) {
        SCOPED_TRACE(allowed);
        ASSERT_EQ(flash({"-f", "--no-verify", image_}).status, 0);
        setenv("WRITES_ALLOWED", std::to_string(allowed).c_str(), 1);
        const outcome result = run({QVOL_FAILING_WRITES, "flash", "-q", "-f", image_, medium_});
        unsetenv("WRITES_ALLOWED");
        if (result.status == 0) {
            EXPECT_GE(allowed, 4);
            break;
        }
        const std::string why = "cannot write to " + medium_ + ": Input/output error";
        if (allowed == 0) {
            ASSERT_EQ(result, (outcome{1, "", "qvol: " + why + "\n"}));
            continue;
        }
        ASSERT_EQ(result, (outcome{1, "",
                                   "qvol: cannot flash " + medium_ + ": " + why +
                                       "; it is incomplete and has no volume\n"}));
        expect_no_volume();
    }
    expect_flashed(medium_);
}

// The writer of the pipe waits until most of what it wrote is read, sends the signal, and goes on.
TEST_F(QvolFlash, AnInterruptedOneReportsIt) {
    make_image();
    fill_medium(0xFF);
    for (const std::string signal : {"INT", "TERM", "HUP"}) {
        SCOPED_TRACE(signal);
        ASSERT_EQ(flash({"-f", image_}).status, 0);
        const outcome result = shell(
            "{ head -c 8M \"$3\"; kill -" + signal +
                " $(cat \"$4\"); tail -c 8M \"$3\"; } | "
                "sh -c 'echo $$ > \"$4\"; exec \"$1\" flash -f - \"$2\"' sh \"$1\" \"$2\" \"$3\" \"$4\"",
            {qvol_path(), medium_, image_, scratch_.file("pid")});
        EXPECT_EQ(result, (outcome{1, "",
                                   "qvol: cannot flash " + medium_ +
                                       ": interrupted; it is incomplete and has no volume\n"}));
        expect_no_volume();
    }
}

TEST_F(QvolFlash, StatesWhatItDid) {
    make_image();
    fill_medium(0);
    const outcome result =
        run_qvol({"flash", "--json", "--zero", "--bmap", form("bmap"), image_, medium_});
    ASSERT_EQ(result.status, 0) << result;
    const json document = json::parse(result.out);
    const std::uint64_t written = document["written_bytes"];
    EXPECT_LT(written, 7 << 20);
    EXPECT_EQ(document, (json{{"image", image_},
                              {"device", medium_},
                              {"image_bytes", IMAGE_BYTES},
                              {"written_bytes", written},
                              {"zeroed_bytes", MEDIUM_BYTES - written},
                              {"discarded", false},
                              {"verified", true}}));
}

// ---- devices ----------------------------------------------------------------------------------

TEST_F(QvolFlash, WritesDevices) {
    std::string trouble = trouble_with_loop_devices(scratch_.sparse_file("probe", 1 << 20));
    if (!trouble.empty()) {
        GTEST_SKIP() << trouble;
    }
    make_image();
    for (const std::vector<std::string> &options :
         {std::vector<std::string>(), {"--sector-size", "4096"}}) {
        fill_medium(0xFF);
        std::filesystem::resize_file(medium_, 20 << 20);
        const loop_device device(medium_, options);
        ASSERT_EQ(device.trouble(), "");
        EXPECT_EQ(run_qvol({"flash", image_, device.path()}).err,
                  ""); // erased flash is blank
        expect_flashed(device.path());
        EXPECT_EQ(run_qvol({"flash", image_, device.path()}).err,
                  "qvol: cannot flash " + device.path() +
                      ": not blank; --force overwrites its content\n");
        EXPECT_EQ(run_qvol({"flash", "-q", "-f", "--zero", image_, device.path()}),
                  (outcome{0, "", ""}));
        bytes expected = read_file(image_);
        expected.resize(20 << 20);
        EXPECT_TRUE(has_content(medium_, expected));
        EXPECT_EQ(run_qvol({"flash", "-q", "-f", "--discard", form("simg"), device.path()}),
                  (outcome{0, "", ""}));
        expect_flashed(device.path());
    }
}

// The page cache of the device still has what was there before.
TEST_F(QvolFlash, ADeviceIsVerifiedPastThePageCache) {
    std::string trouble = trouble_with_loop_devices(scratch_.sparse_file("probe", 1 << 20));
    if (!trouble.empty()) {
        GTEST_SKIP() << trouble;
    }
    make_image();
    std::filesystem::copy_file(image_, medium_);
    const loop_device device(medium_);
    ASSERT_EQ(device.trouble(), "");
    ASSERT_EQ(run({"cmp", image_, device.path()}).status, 0);
    const bytes content = read_file(medium_);
    const std::string text(5'000'000, 'l');
    const auto found = std::search(content.begin(), content.end(), text.begin(), text.end());
    ASSERT_NE(found, content.end());
    std::fstream(medium_, std::ios::binary | std::ios::in | std::ios::out)
            .seekp(found - content.begin() + 1'234'567)
        << 'X';
    EXPECT_EQ(run({"cmp", image_, device.path()}).status, 0) << "the cache was not used";
    EXPECT_EQ(run_qvol({"verify", "-q", device.path(), image_}),
              (outcome{1, "/large: differs; first at byte 1234567\n", ""}));
}

// ---- manifests --------------------------------------------------------------------------------

TEST_F(QvolFlash, Sha256sumReadsAManifestAndMakesOne) {
    make_image();
    const outcome checked = shell("cd \"$1\" && \"$2\" manifest \"$3\" | sha256sum -c --quiet -",
                                  {tree_, qvol_path(), image_});
    EXPECT_EQ(checked, (outcome{0, "", ""}));
    const std::string sums = "cd \"$1\" && find . -type f -exec sha256sum {} + | "
                             "\"$2\" verify -q \"$3\" -";
    EXPECT_EQ(shell(sums, {tree_, qvol_path(), image_}), (outcome{0, "", ""}));
    tree_file("dir/new", "x");
    tree_file("README.TXT", "IN CAPITALS");
    EXPECT_EQ(shell(sums, {tree_, qvol_path(), image_}),
              (outcome{1, "/README.TXT: differs\n/dir/new: missing\n", ""}));
    EXPECT_EQ(run_qvol({"verify", "-q", image_, tree_}),
              (outcome{1, "/README.TXT: differs; first at byte 0\n/dir/new: missing\n", ""}));
}

// The driver's own files are not in the tree.
TEST_F(QvolFlash, ReservedFilesAreNotExpectedInATree) {
    build_tree("16M", {"--pool", "--log"});
    EXPECT_EQ(run_qvol({"verify", "-q", image_, tree_}), (outcome{0, "", ""}));
    const outcome result = shell("\"$1\" manifest --pieces 512 \"$2\" | \"$1\" verify -q \"$2\" -",
                                 {qvol_path(), image_});
    EXPECT_EQ(result, (outcome{0, "", ""}));
}

TEST_F(QvolFlash, WhatCannotBeReadIsNamedAndTheRestCompared) {
    build_tree("16M");
    const std::string manifest = said("manifest");
    std::ofstream(scratch_.file("manifest")) << manifest;
    std::filesystem::resize_file(image_, 1 << 20); // in the large file; others follow it
    const outcome result = qvol("verify", {"-q", scratch_.file("manifest")});
    EXPECT_EQ(result.status, 1);
    const std::string why =
        ": cannot be read: cannot read sectors [^\n]* past the end of the medium\n";
    EXPECT_TRUE(std::regex_match(result.out, std::regex("/large" + why + "/link" + why +
                                                        "/readme.md" + why + "/zeros" + why)))
        << result;
    const outcome refused = qvol("manifest");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.out, "");
}
