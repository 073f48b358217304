// Trees of the host through put and get: what is large, deep, many or odd, and what a command that
// fails on the way leaves.

#include "tests/support/qvol.h"

using namespace testing_support;

namespace {

class QvolImport : public QvolImage {
protected:
    void expect_round_trip(const std::string &tree, const std::string &path) {
        const std::string out = scratch_.file("out");
        said("get", {path, out});
        EXPECT_EQ(run({"diff", "-r", "--no-dereference", tree, out}), (outcome{0, "", ""}));
    }
};

} // namespace

TEST_F(QvolImport, TakesTheSourcesOfTheProject) {
    format("32", 80 << 20, "1");
    const std::string tree = std::string(QUORVEL_SOURCE_DIR) + "/fuzz";
    said("put", {tree, "/"});
    expect_clean();
    expect_round_trip(tree, "/fuzz");
}

TEST_F(QvolImport, TakesDeepPaths) {
    format("16", 20 << 20);
    std::string deep = "tree";
    for (int i = 0; i < 100; i++) {
        deep += "/level " + std::to_string(i);
    }
    host_file(deep + "/file", "at the bottom");
    said("put", {scratch_.file("tree"), "/"});
    expect_clean();
    expect_round_trip(scratch_.file("tree"), "/tree");
    EXPECT_EQ(said("cat", {"/" + deep + "/file"}), "at the bottom");
}

TEST_F(QvolImport, TakesALargeFile) {
    const std::uint64_t size = std::uint64_t{QUORVEL_FULL ? 1024 : 64} << 20;
    format("32", size + size / 6, QUORVEL_FULL ? "32" : "1");
    const std::string big = scratch_.sparse_file("big", size);
    std::fstream(big, std::ios::binary | std::ios::in | std::ios::out)
        .seekp(static_cast<std::streamoff>(size) - 3)
        .write("end", 3);
    said("put", {big, "/"});
    expect_clean();
    expect_round_trip(big, "/big");
}

TEST_F(QvolImport, FillsAVolumeToTheLastCluster) {
    format("16", 9 << 20, "4");
    const std::string info = said("info", {"--json"});
    const std::size_t at = info.find("\"free_bytes\": ");
    const std::uint64_t free_bytes = std::stoull(info.substr(at + 14));
    EXPECT_EQ(qvol("put", {scratch_.sparse_file("more", free_bytes + 1), "/file"}).status, 1);
    said("put", {scratch_.sparse_file("exact", free_bytes), "/file"});
    EXPECT_NE(said("info").find("free          0 (0 bytes)"), std::string::npos);
    expect_clean();
    const outcome full = qvol("mkdir", {"/dir"});
    EXPECT_EQ(
        full,
        (outcome{
            1, "",
            "qvol: cannot make directory /dir: no space: 1 clusters are needed, 0 are free\n"}));
}

TEST_F(QvolImport, GivesTheSameBytesWithAFixedMoment) {
    host_file("tree/a file.txt", "a");
    host_file("tree/dir/b.txt", "b");
    ASSERT_EQ(run({"touch", "-d", "2001-02-03 04:05:06", scratch_.file("tree/dir/b.txt")}).status,
              0);
    format("32", 80 << 20, "1");
    const std::string copy = scratch_.file("copy.img");
    std::filesystem::copy_file(image_, copy);
    setenv("SOURCE_DATE_EPOCH", "1000000000", 1); // 2001-09-09 01:46:40 UTC
    setenv("TZ", "Asia/Tokyo", 1);
    for (const std::string &image : {image_, copy}) {
        EXPECT_EQ(run_qvol({"put", image, scratch_.file("tree"), "/"}).status, 0);
        EXPECT_EQ(run_qvol({"mkdir", image, "/new"}).status, 0);
        EXPECT_EQ(run_qvol({"ln", image, "target", "/link"}).status, 0);
        EXPECT_EQ(run_qvol({"pool", image}).status, 0);
        setenv("TZ", "UTC", 1);
    }
    EXPECT_EQ(read_file(image_), read_file(copy));
    EXPECT_NE(said("ls", {"-l", "/tree"}).find("2001-09-09 01:46:40 a file.txt"),
              std::string::npos);
    EXPECT_NE(said("ls", {"-l", "/tree/dir"}).find("2001-02-03 04:05:06 b.txt"), std::string::npos);
    unsetenv("SOURCE_DATE_EPOCH");
}

TEST_F(QvolImport, RefusesAMomentThatIsNone) {
    format("16", 20 << 20);
    setenv("SOURCE_DATE_EPOCH", "yesterday", 1);
    EXPECT_EQ(qvol("mkdir", {"/x"}),
              (outcome{2, "",
                       "qvol: invalid SOURCE_DATE_EPOCH \"yesterday\": not a number of "
                       "seconds\n"}));
    unsetenv("SOURCE_DATE_EPOCH");
}

TEST_F(QvolImport, StoresEveryCharacterOfUnicode) {
    format("16", 20 << 20);
    std::string emoji; // 127 of two units each
    for (int i = 0; i < 127; i++) {
        emoji += "\U0001F600";
    }
    // Neither case nor U+FFFF, which is also the padding of a name, makes these names equal.
    const std::string names[] = {"a\uFFFFb and more than one slot", "\U00010400", "\U00010428",
                                 emoji + "x", "\U0010FFFF"};
    const std::string file = host_file("content", "text");
    std::string listed;
    for (const std::string &name : names) {
        said("put", {file, "/" + name});
        listed += name + "\n";
    }
    EXPECT_EQ(said("ls"), listed);
    expect_clean();
    const std::string document = said("ls", {"--json"});
    for (const std::string &name : names) {
        EXPECT_NE(document.find("\"name\": \"" + name + "\""), std::string::npos) << name;
        EXPECT_EQ(said("cat", {"/" + name}), "text");
    }

    const outcome too_long = qvol("mkdir", {"/" + emoji + "xy"});
    EXPECT_NE(too_long.err.find("has 256 UTF-16 units, at most 255 are allowed"), std::string::npos)
        << too_long;
    EXPECT_EQ(qvol("get", {"/", scratch_.file("out")}),
              (outcome{1, "",
                       "qvol: cannot make these names on the host; nothing was written\n"
                       "  /" +
                           emoji + "x: 509 bytes are too long for the file system of the host\n"}));
    EXPECT_FALSE(std::filesystem::exists(scratch_.file("out")));
    said("get", {"/" + emoji + "x", scratch_.file("shorter name")});
}

TEST_F(QvolImport, SpeaksOtherEncodings) {
    format("16", 20 << 20);
    host_file("tree/gr\xFC\xDF", "latin");
    said("put", {"--encoding", "ISO-8859-1", scratch_.file("tree") + "/.", "/"});
    EXPECT_EQ(said("ls"), "gr\xC3\xBC\xC3\x9F\n");
    EXPECT_EQ(said("ls", {"--encoding", "ISO-8859-1"}), "gr\xFC\xDF\n");
    EXPECT_EQ(said("ls", {"--encoding", "ASCII"}), "$'gr\\u00fc\\u00df'\n");
    const std::string out = scratch_.file("out");
    said("get", {"--encoding", "ISO-8859-1", "/", out});
    EXPECT_TRUE(std::filesystem::exists(out + "/gr\xFC\xDF"));
    EXPECT_EQ(qvol("get", {"--encoding", "ASCII", "/", scratch_.file("ascii")}),
              (outcome{1, "",
                       "qvol: cannot make these names on the host; nothing was written\n"
                       "  /$'gr\\u00fc\\u00df': not representable in the name encoding\n"}));
}

TEST_F(QvolImport, ATailNeverTakesTheNameOfAnother) {
    format("16", 20 << 20);
    host_file("tree/README~1.TXT", "the real one");
    host_file("tree/A readme first.txt", "another");
    host_file("tree/README first.txt", "a third");
    said("put", {scratch_.file("tree") + "/.", "/"});
    EXPECT_EQ(said("cat", {"/README~1.TXT"}), "the real one");
    EXPECT_EQ(said("cat", {"/README first.txt"}), "a third");
    expect_clean();
}

// A file that is other than it was when the plan was made stops the command before the FAT and the
// directories are written. Such are those of /proc: they say that they are empty.
TEST_F(QvolImport, LeavesNothingWhenAFileChangesWhileItIsRead) {
    format("32", 80 << 20, "1");
    const bytes before = read_file(image_);
    EXPECT_EQ(
        qvol("put", {host_file("first", "x"), "/proc/self/status", "/"}),
        (outcome{1, "",
                 "qvol: cannot copy /proc/self/status: changed while it was read; try again\n"}));
    const std::string tree = said("tree");
    EXPECT_EQ(tree, "/\n0 directories, 0 files, 0 links\n");
    EXPECT_EQ(std::filesystem::file_size(image_), before.size());
    expect_clean();
}

TEST_F(QvolImport, KeepsTheCountOfFreeClustersTrueWhenItFailsHalfWay) {
    format("32", 80 << 20, "1");
    said("mkdir", {"/a", "/b"});
    EXPECT_EQ(qvol("mkdir", {"/c", "/d", "/a"}).status, 1);
    EXPECT_EQ(said("ls"), "a\nb\nc\nd\n");
    expect_clean();
}

// A process that may write no more than some bytes stops in the middle of the data.
TEST_F(QvolImport, AnInterruptedPutLeavesTheVolumeAsItWas) {
    format("16", 20 << 20);
    said("put", {host_file("kept", std::string(50000, 'k')), "/"});
    const std::string before = said("tree", {"--json"});
    const std::string big = host_file("big", std::string(8 << 20, 'b'));
    const outcome killed = shell("trap '' XFSZ; ulimit -f 4096; \"$1\" put \"$2\" \"$3\" /",
                                 {qvol_path(), image_, big});
    EXPECT_NE(killed.status, 0) << killed;
    EXPECT_EQ(said("tree", {"--json"}), before);
    expect_clean();
}
