// The program qvol on images: what it shows, what it stores, what it refuses. fsck.fat, mtools and
// diff judge the volumes.

#include "tests/support/qvol.h"
#include "tests/support/tool.h"

#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/xattr.h>

using namespace testing_support;

namespace {

constexpr std::uint64_t SMALL = 20 << 20;
constexpr std::uint64_t LARGE = 80 << 20;

class Qvol16 : public QvolImage {
protected:
    Qvol16() {
        format("16", SMALL);
    }
};

// Both widths, where the difference matters.
class QvolBoth : public QvolImage, public testing::WithParamInterface<const char *> {
protected:
    QvolBoth() {
        const std::string width = GetParam();
        format(width, width == "16" ? SMALL : LARGE, width == "16" ? "4" : "1");
    }
};
INSTANTIATE_TEST_SUITE_P(Fat, QvolBoth, testing::Values("16", "32"),
                         [](const auto &tested) { return std::string(tested.param); });

} // namespace

// ---- the command line -------------------------------------------------------------------------

TEST(QvolCommandLine, TellsItsVersion) {
    EXPECT_EQ(run_qvol({"--version"}), (outcome{0, "qvol 1.2.3\n", ""}));
}

TEST(QvolCommandLine, HelpsWithExamplesForEveryCommand) {
    for (const char *command :
         {"build", "info",    "ls",     "tree",    "stat",  "cat",      "get",   "put",  "mkdir",
          "mv",    "ln",      "rm",     "pool",    "log",   "fastpath", "owner", "dump", "map",
          "check", "salvage", "mirror", "compact", "label", "id",       "attr",  "touch"}) {
        const outcome help = run_qvol({command, "--help"});
        EXPECT_EQ(help.status, 0) << command;
        EXPECT_NE(help.out.find("Examples:\n  qvol " + std::string(command)), std::string::npos)
            << command;
    }
}

TEST(QvolCommandLine, RefusesWrongUsageWithStatus2) {
    EXPECT_EQ(run_qvol({}).status, 2);
    EXPECT_EQ(run_qvol({"no-such-command"}).status, 2);
    EXPECT_EQ(run_qvol({"ls"}).status, 2);
    EXPECT_EQ(run_qvol({"ls", "--no-such-option", "x"}).status, 2);
    EXPECT_EQ(run_qvol({"put", "x", "only-one"}).status, 2);
}

TEST(QvolCommandLine, FailsWithStatus1AndTheReason) {
    EXPECT_EQ(run_qvol({"ls", "/no/such/image"}),
              (outcome{1, "", "qvol: cannot open /no/such/image: No such file or directory\n"}));
    const scratch_directory scratch;
    const std::string zeros = scratch.sparse_file("zeros", 1 << 20);
    EXPECT_EQ(run_qvol({"ls", zeros}),
              (outcome{1, "",
                       "qvol: cannot mount " + zeros +
                           ": no FAT volume found: the boot signature is 0x0000, "
                           "should be 0xAA55\n"}));
    const std::string text = scratch.file("text");
    std::ofstream(text) << "a text\n";
    EXPECT_EQ(run_qvol({"ls", text}),
              (outcome{1, "",
                       "qvol: cannot mount " + text +
                           ": no FAT volume found: it has 7 bytes, should have at least 4096\n"}));
}

TEST_F(Qvol16, TellsWhenStandardOutputTakesNothing) {
    const outcome full = shell("\"$1\" info \"$2\" > /dev/full", {qvol_path(), image_});
    EXPECT_EQ(full,
              (outcome{1, "", "qvol: cannot write to standard output: No space left on device\n"}));
}

TEST_F(Qvol16, KeepsTheLibraryQuietUnlessAsked) {
    said("mkdir", {"/dir"});
    EXPECT_EQ(qvol("stat", {"/dir"}).err, "");
    said("pool");
    const std::string refusal = "qvol: cannot make /ZUQ_POOL.SY$: File exists\n";
    EXPECT_EQ(qvol("pool").err, refusal);
    const std::string all = qvol("pool", {"--verbose"}).err;
    EXPECT_TRUE(all.ends_with(refusal) && all.size() > refusal.size()) << all;
}

// ---- locks ------------------------------------------------------------------------------------

TEST_F(Qvol16, WaitsForNobodyWhoHoldsTheLock) {
    const int fd = open(image_.c_str(), O_RDONLY);
    ASSERT_EQ(flock(fd, LOCK_SH), 0);
    EXPECT_EQ(qvol("ls").status, 0);
    EXPECT_EQ(qvol("mkdir", {"/x"}), (outcome{1, "",
                                              "qvol: cannot lock " + image_ +
                                                  ": locked by another program; try again when "
                                                  "it has finished\n"}));
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    EXPECT_EQ(qvol("ls").status, 1);
    close(fd);
    EXPECT_EQ(qvol("mkdir", {"/x"}).status, 0);
}

TEST(QvolCommandLine, DoesNotWaitForAPipe) {
    const scratch_directory scratch;
    ASSERT_EQ(mkfifo(scratch.file("pipe").c_str(), 0600), 0);
    EXPECT_EQ(run({"timeout", "20", qvol_path(), "ls", scratch.file("pipe")}),
              (outcome{1, "",
                       "qvol: cannot open " + scratch.file("pipe") +
                           ": neither an image file nor a block device\n"}));
}

TEST_F(Qvol16, ReadsAnImageThatMayNotBeWritten) {
    const bytes before = read_file(image_);
    chmod(image_.c_str(), 0444);
    EXPECT_EQ(qvol("ls", {"-lR"}).status, 0);
    EXPECT_EQ(qvol("info").status, 0);
    EXPECT_EQ(read_file(image_), before);
}

// ---- names ------------------------------------------------------------------------------------

TEST_P(QvolBoth, MakesDirectoriesThatTheJudgesAccept) {
    said("mkdir", {"/UPPER", "/lower", "/Mixed Case name"});
    said("mkdir", {"-p", "/a/b/c/d/e"});
    said("mkdir", {"-p", "/a/b/c"});
    expect_clean();
    EXPECT_EQ(said("ls"), "Mixed Case name\nUPPER\na\nlower\n");
    const outcome listed = run({"mdir", "-b", "-i", image_, "::/"});
    EXPECT_EQ(listed.out, "::/UPPER/\n::/lower/\n::/Mixed Case name/\n::/a/\n");
    EXPECT_EQ(said("ls", {"/a/b/c/d"}), "e\n");
}

TEST_F(Qvol16, RefusesToMakeWhatExistsOrHasNoParent) {
    said("mkdir", {"/dir"});
    EXPECT_EQ(qvol("mkdir", {"/DIR"}),
              (outcome{1, "", "qvol: cannot make directory /DIR: exists\n"}));
    EXPECT_EQ(qvol("mkdir", {"/no/where"}),
              (outcome{1, "", "qvol: cannot open /no: no such file or directory\n"}));
    EXPECT_EQ(qvol("mkdir", {"/a:b"}),
              (outcome{1, "", "qvol: cannot make directory /a:b: invalid name: contains ':'\n"}));
    EXPECT_EQ(qvol("mkdir", {"/"}), (outcome{1, "", "qvol: cannot make directory /: exists\n"}));
}

TEST_P(QvolBoth, FindsNamesInAnyCaseAndByTheirAlias) {
    said("put", {host_file("A long Name.text", "content"), "/"});
    EXPECT_EQ(said("cat", {"/A long Name.text"}), "content");
    EXPECT_EQ(said("cat", {"/a LONG name.TEXT"}), "content");
    EXPECT_EQ(said("cat", {"/ALONGN~1.TEX"}), "content");
}

TEST_P(QvolBoth, FindsNamesThatOthersWrote) {
    const std::string source = host_file("in", "content");
    for (const char *name : {"Mixed.Txt", "lower.txt", "UPPER.TXT", "a much longer name.html"}) {
        ASSERT_EQ(run({"mcopy", "-i", image_, source, std::string("::/") + name}).status, 0);
        EXPECT_EQ(said("cat", {std::string("/") + name}), "content") << name;
    }
    EXPECT_EQ(said("ls"), "Mixed.Txt\nUPPER.TXT\na much longer name.html\nlower.txt\n");
}

TEST_P(QvolBoth, StoresNamesSoThatOthersReadThem) {
    for (const char *name : {"Mixed.Txt", "lower.txt", "UPPER.TXT", "a much longer name.html",
                             ".hidden", "exactly13unit", "exactly26unitsexactly26uni", "a.b.c"}) {
        said("put", {host_file(name, name), "/"});
        EXPECT_EQ(run({"mtype", "-i", image_, std::string("::/") + name}), (outcome{0, name, ""}));
    }
    expect_clean();
}

TEST_P(QvolBoth, RemovesNamesWithTheirSlotsAndClusters) {
    const std::string free = said("info", {"--json"});
    said("mkdir", {"-p", "/dir with a name/below"});
    said("put", {host_file("some long file name.bin", std::string(100000, 'x')),
                 "/dir with a name/below"});
    said("ln", {"target", "/link"});
    EXPECT_EQ(qvol("rm", {"/dir with a name"}),
              (outcome{1, "",
                       "qvol: cannot remove /dir with a name: directory not empty; -r removes "
                       "it with everything in it\n"}));
    said("rm", {"-r", "/dir with a name", "/link", "/dir with a name/below"});
    EXPECT_EQ(said("ls"), "");
    EXPECT_EQ(said("info", {"--json"}), free);
    expect_clean();
}

TEST_F(Qvol16, RemovesEmptyFilesAndEmptyDirectories) {
    said("put", {host_file("empty", ""), "/"});
    said("mkdir", {"/dir"});
    said("rm", {"/empty", "/dir"});
    EXPECT_EQ(said("ls"), "");
    expect_clean();
}

TEST_F(Qvol16, RemovesNothingWhereOnePathIsMissing) {
    said("mkdir", {"/a"});
    EXPECT_EQ(qvol("rm", {"/a", "/missing"}),
              (outcome{1, "", "qvol: cannot open /missing: no such file or directory\n"}));
    EXPECT_EQ(said("ls"), "a\n");
    EXPECT_EQ(qvol("rm", {"-r", "/"}),
              (outcome{1, "", "qvol: cannot remove /: is the root directory\n"}));
}

TEST_F(Qvol16, UsesTheSlotsOfRemovedNamesAgain) {
    for (int i = 0; i < 600; i++) { // a FAT16 root has 512 slots
        if (i % 60 == 0) {
            said("mkdir", {"/a name of some length"});
            said("rm", {"/a name of some length"});
        }
    }
    std::vector<std::string> names;
    for (int i = 0; i < 250; i++) {
        names.push_back("/some name " + std::to_string(i));
    }
    said("mkdir", names);
    const outcome full = qvol("mkdir", {"/one", "/two", "/three", "/four", "/five", "/six"});
    EXPECT_EQ(full.status, 1);
    EXPECT_NE(full.err.find("the root directory is full: a FAT16 root has 512 slots; use a "
                            "subdirectory"),
              std::string::npos)
        << full;
    expect_clean();
}

TEST_P(QvolBoth, MovesAndRenames) {
    said("mkdir", {"/from", "/to"});
    said("put", {host_file("file.txt", "content"), "/from"});
    said("mv", {"/from/file.txt", "/from/renamed file.txt"});
    EXPECT_EQ(said("ls", {"/from"}), "renamed file.txt\n");
    said("mv", {"/from/renamed file.txt", "/to"});
    EXPECT_EQ(said("cat", {"/to/renamed file.txt"}), "content");
    said("mv", {"/from", "/to"});
    EXPECT_EQ(said("ls", {"-R"}), "/:\nto\n\n/to:\nfrom\nrenamed file.txt\n\n/to/from:\n");
    said("mv", {"/to/from", "/back"});
    expect_clean(); // ".." leads to the new parents
}

TEST_F(Qvol16, ChangesTheCaseOfAName) {
    said("mkdir", {"/name"});
    said("mv", {"/name", "/NAME"});
    EXPECT_EQ(said("ls"), "NAME\n");
    expect_clean();
}

TEST_F(Qvol16, RefusesMovesThatWouldLoseSomething) {
    said("mkdir", {"-p", "/a/b"});
    said("put", {host_file("one", "1"), host_file("two", "2"), "/"});
    EXPECT_EQ(qvol("mv", {"/a", "/a/b"}),
              (outcome{1, "", "qvol: cannot move to /a/b/a: is inside the directory to move\n"}));
    EXPECT_EQ(qvol("mv", {"/A", "/a/B/c"}),
              (outcome{1, "", "qvol: cannot move to /a/B/c: is inside the directory to move\n"}));
    EXPECT_EQ(qvol("mv", {"/one", "/two"}),
              (outcome{1, "", "qvol: cannot move to /two: exists; --force replaces it\n"}));
    said("mv", {"--force", "/one", "/two"});
    EXPECT_EQ(said("cat", {"/two"}), "1");
    EXPECT_EQ(said("ls"), "a\ntwo\n");
    expect_clean();
}

TEST_F(Qvol16, MakesLinks) {
    said("ln", {"../somewhere/else", "/link"});
    const std::string listed = said("ls", {"-l"});
    EXPECT_EQ(listed.substr(0, 17), "l----         17 ");
    EXPECT_EQ(listed.substr(37), "link -> ../somewhere/else\n");
    EXPECT_EQ(said("cat", {"/link"}), "../somewhere/else");
    EXPECT_EQ(qvol("ln", {"x", "/link"}),
              (outcome{1, "", "qvol: cannot make link /link: exists\n"}));
    expect_clean();
}

// ---- attributes and times ---------------------------------------------------------------------

// mattrib is the judge: its letters are in the order A, S, H, R.
TEST_P(QvolBoth, AttributesAreSetAndCleared) {
    said("mkdir", {"-p", "/dir/below"});
    said("put", {host_file("a file with a long name", "x"), "/dir"});
    const std::string path = "/dir/a file with a long name";
    const auto judged = [&] {
        const std::string line = run({"mattrib", "-i", image_, "::" + path}).out;
        std::string letters = line.substr(0, line.find(':'));
        std::erase(letters, ' ');
        return letters;
    };
    EXPECT_EQ(said("attr", {path, "/dir"}), "----- " + path + "\nd---- /dir\n");
    EXPECT_EQ(said("attr", {"+rhsa", path}), "");
    EXPECT_EQ(judged(), "ASHR");
    said("attr", {"-rh", path});
    EXPECT_EQ(judged(), "AS");
    EXPECT_EQ(run_qvol({"attr", "+r", "-s", image_, "+h", path}).status, 0);
    EXPECT_EQ(judged(), "AHR");
    EXPECT_EQ(run_qvol({"attr", "-h", image_, path}), (outcome{0, "", ""}));
    EXPECT_EQ(judged(), "AR");
    said("attr", {"-R", "+s", "-a", "/"});
    EXPECT_EQ(said("attr", {"-R", "/"}), "d--s- /dir\n-r-s- " + path + "\nd--s- /dir/below\n");
    expect_clean();
    EXPECT_EQ(said("cat", {path}), "x");
}

TEST_F(Qvol16, ChangesNoAttributesWhereOnePathIsMissing) {
    said("mkdir", {"/dir"});
    const bytes before = read_file(image_);
    EXPECT_EQ(qvol("attr", {"+r", "/dir", "/missing"}),
              (outcome{1, "", "qvol: cannot open /missing: no such file or directory\n"}));
    EXPECT_EQ(qvol("attr", {"+r", "/"}),
              (outcome{1, "",
                       "qvol: cannot find the attributes of /: is the root directory, which has "
                       "none\n"}));
    EXPECT_EQ(qvol("attr", {"+r", "-r", "/dir"}),
              (outcome{2, "", "qvol: the same attribute is set and cleared\n"}));
    EXPECT_EQ(qvol("attr", {"+d", "/dir"}),
              (outcome{2, "",
                       "qvol: +d: must be letters of rhsa after the +; a path that begins with + "
                       "is written /+\n"}));
    EXPECT_EQ(run_qvol({"attr", "+r", image_}),
              (outcome{2, "", "qvol: IMAGE and PATH are required\n"}));
    EXPECT_EQ(read_file(image_), before);
}

TEST_P(QvolBoth, TouchSetsTimesAndMakesFiles) {
    said("put", {host_file("file", "content"), "/"});
    said("mkdir", {"/dir"});
    said("ln", {"file", "/link"});
    said("touch", {"--time", "2024-02-29 12:34:57", "/file", "/dir", "/link", "/dir/a new file"});
    const std::string time = "2024-02-29 12:34:56 ";                     // in steps of two seconds
    EXPECT_EQ(said("ls", {"-l"}), "d----          0 " + time + "dir\n" + //
                                      "-----          7 " + time + "file\n" + "l----          4 " +
                                      time + "link -> file\n");
    EXPECT_EQ(said("ls", {"-l", "/dir"}), "-----          0 " + time + "a new file\n");
    EXPECT_EQ(said("cat", {"/file"}), "content");
    said("touch", {"--no-create", "/missing"});
    EXPECT_EQ(said("ls"), "dir\nfile\nlink\n");
    expect_clean();
}

TEST_F(Qvol16, TouchTakesTimesInSeveralForms) {
    const std::pair<std::string, std::string> forms[] = {
        {"2024-02-29", "2024-02-29 00:00:00"},
        {"2024-02-29T12:34", "2024-02-29 12:34:00"},
        {"1980-01-01 00:00:00", "1980-01-01 00:00:00"},
        {"2107-12-31T23:59:59", "2107-12-31 23:59:58"},
        {"@1700000000", "2023-11-14 22:13:20"}};
    for (const auto &[form, time] : forms) {
        said("touch", {"--time", form, "/x"});
        EXPECT_EQ(said("ls", {"-l"}), "-----          0 " + time + " x\n");
    }
    setenv("SOURCE_DATE_EPOCH", "1700000000", 1);
    said("touch", {"/x"});
    EXPECT_EQ(said("ls", {"-l"}), "-----          0 2023-11-14 22:13:20 x\n");
    EXPECT_EQ(qvol("touch", {"--time", "@1700000002", "/x"}),
              (outcome{2, "", "qvol: --time @1700000002: later than SOURCE_DATE_EPOCH\n"}));
    unsetenv("SOURCE_DATE_EPOCH");
    for (const std::string none : {"2023-02-29", "2024-01-01 24:00", "1979-12-31", "2108-01-01",
                                   "@0", "@x", "2024-01-01 ", "2024-01-01 10:00:60", ""}) {
        EXPECT_EQ(qvol("touch", {"--time", none, "/x"}),
                  (outcome{2, "",
                           "qvol: --time " + none +
                               ": must be a time such as \"2024-02-29 12:34:56\" or @SECONDS, from "
                               "1980 to 2107\n"}));
    }
}

TEST_F(Qvol16, RefusesToTouchWhatHasNoTime) {
    EXPECT_EQ(qvol("touch", {"/"}),
              (outcome{1, "", "qvol: cannot touch /: is the root directory, which has no time\n"}));
    EXPECT_EQ(
        qvol("touch", {"/new/"}),
        (outcome{1, "", "qvol: cannot touch /new: no such directory; \"qvol mkdir\" makes it\n"}));
    EXPECT_EQ(qvol("touch", {"/a:b"}),
              (outcome{1, "", "qvol: cannot touch /a:b: invalid name: contains ':'\n"}));
    EXPECT_EQ(said("ls"), "");
}

// ---- put and get ------------------------------------------------------------------------------

class QvolTrees : public QvolBoth {
protected:
    QvolTrees() {
        tree_ = scratch_.file("tree");
        std::filesystem::create_directory(tree_);
    }
    void add(const std::string &name, const std::string &content) {
        host_file("tree/" + name, content);
    }
    void expect_same(const std::string &got) {
        EXPECT_EQ(run({"diff", "-r", "--no-dereference", tree_, got}), (outcome{0, "", ""}));
    }

    std::string tree_;
};
INSTANTIATE_TEST_SUITE_P(Fat, QvolTrees, testing::Values("16", "32"),
                         [](const auto &tested) { return std::string(tested.param); });

TEST_P(QvolTrees, ComeBackAsTheyWere) {
    add("empty", "");
    add("small.txt", "text");
    add("dir/big.bin", std::string(3'000'000, 'b'));
    add("dir/exact.bin", std::string(2048, 'e'));
    add("dir/deeper/and/deeper/and/deeper/still/file", "deep");
    add("gr\xC3\xBC\xC3\x9F"
        "e \xE2\x82\xAC \xF0\x9F\x98\x80.txt",
        "unicode");
    add(std::string(251, 'n') + ".ext", "long");
    std::filesystem::create_directory(tree_ + "/empty dir");
    std::filesystem::create_symlink("small.txt", tree_ + "/link");
    std::filesystem::create_symlink("/no/where", tree_ + "/dangling");
    EXPECT_EQ(said("put", {tree_ + "/.", "/"}), "7 files, 8 directories, 2 links, 2.9 MiB\n");
    expect_clean();
    const std::string out = scratch_.file("out");
    EXPECT_EQ(said("get", {"/", out}), "7 files, 8 directories, 2 links, 2.9 MiB\n");
    expect_same(out);
}

TEST_P(QvolTrees, KeepModificationTimes) {
    add("dir/file", "x");
    ASSERT_EQ(run({"touch", "-d", "2020-02-29 12:34:56", tree_ + "/dir/file"}).status, 0);
    ASSERT_EQ(run({"touch", "-d", "2021-01-01 01:02:04", tree_ + "/dir"}).status, 0);
    said("put", {tree_ + "/dir", "/"});
    const std::string out = scratch_.file("out");
    said("get", {"/dir", out});
    EXPECT_EQ(run({"stat", "-c", "%y", out + "/file", out}).out,
              "2020-02-29 12:34:56.000000000 +0000\n2021-01-01 01:02:04.000000000 +0000\n");
}

constexpr const char *DOS_ATTRIBUTES = "user.DOSATTRIB";

// The extended attribute of a file of the host; "": none.
std::string dos_attributes(const std::string &path) {
    char text[16];
    const ssize_t size = getxattr(path.c_str(), DOS_ATTRIBUTES, text, sizeof text);
    return size < 0 ? "" : std::string(text, static_cast<std::size_t>(size));
}

bool may_be_written(const std::string &path) {
    constexpr auto WRITERS = std::filesystem::perms::owner_write |
                             std::filesystem::perms::group_write |
                             std::filesystem::perms::others_write;
    return (std::filesystem::status(path).permissions() & WRITERS) != std::filesystem::perms::none;
}

TEST_P(QvolTrees, KeepAttributesWhereTheHostCan) {
    add("dir/file", "x");
    add("dir/plain", "x");
    if (setxattr((tree_ + "/dir/plain").c_str(), DOS_ATTRIBUTES, "0x0", 3, 0) != 0) {
        GTEST_SKIP() << "no extended attributes here";
    }
    said("put", {tree_ + "/dir", "/"});
    said("ln", {"file", "/dir/link"});
    said("attr", {"+rh", "/dir/file"});
    said("attr", {"+sa", "/dir"});
    said("attr", {"+r", "/dir/link"});
    const std::string plain = scratch_.file("plain");
    const std::string out = scratch_.file("out");
    const std::string totals = "2 files, 1 directory, 1 link, 2 bytes\n";
    EXPECT_EQ(said("get", {"/dir", plain}), totals);
    EXPECT_EQ(dos_attributes(plain + "/file") + dos_attributes(plain), "");
    EXPECT_EQ(said("get", {"--attrs", "/dir", out}),
              totals + "attributes of 1 entry left out: the host cannot store them\n");
    EXPECT_EQ(dos_attributes(out), "0x24");
    EXPECT_EQ(dos_attributes(out + "/file"), "0x3");
    EXPECT_EQ(dos_attributes(out + "/plain"), "");
    EXPECT_FALSE(may_be_written(out + "/file"));
    EXPECT_TRUE(may_be_written(out + "/plain") && may_be_written(out));
    EXPECT_EQ(run({"diff", "-r", "--no-dereference", plain, out}), (outcome{0, "", ""}));
    said("put", {"--attrs", out, "/back"});
    said("put", {out, "/without"});
    EXPECT_EQ(said("attr", {"/back", "/back/file", "/back/plain"}),
              "d--sa /back\n-rh-- /back/file\n----- /back/plain\n");
    EXPECT_EQ(said("attr", {"/without", "/without/file"}), "d---- /without\n----- /without/file\n");
    said("put", {"--force", "--attrs", "--from", out, "/without"});
    said("put", {"--force", "--attr", "back=h", "--from", out + ":/back", "/"});
    EXPECT_EQ(said("attr", {"/back", "/without", "/without/file"}),
              "d-h-- /back\nd---- /without\n-rh-- /without/file\n");
    said("attr", {"-rh", "/dir/file"});
    said("get", {"--attrs", "--force", "/dir/file", out}); // replaces a file that is read-only
    EXPECT_EQ(dos_attributes(out + "/file"), "");
    EXPECT_TRUE(may_be_written(out + "/file"));
}

TEST_P(QvolTrees, FitThousandsOfLikeNamesIntoOneDirectory) {
    for (int i = 0; i < LIKE_NAMES; i++) {
        std::ofstream(tree_ + "/IMG_20240101_" + std::to_string(100000 + i) + ".jpeg") << i;
    }
    said("put", {tree_, "/photos"});
    expect_clean();
    const std::string out = scratch_.file("out");
    said("get", {"/photos", out});
    expect_same(out);
    EXPECT_EQ(run({"mtype", "-i", image_, "::/photos/IMG_20240101_101987.jpeg"}),
              (outcome{0, "1987", ""}));
}

TEST_P(QvolTrees, MergeIntoDirectoriesThatExist) {
    add("dir/new", "new");
    add("dir/old", "changed");
    said("mkdir", {"-p", "/dir/kept"});
    said("put", {host_file("old", "before, and longer than one cluster" + std::string(5000, '.')),
                 "/dir"});
    EXPECT_EQ(qvol("put", {tree_ + "/.", "/"}),
              (outcome{1, "",
                       "qvol: cannot store all entries; nothing was written\n"
                       "  /dir/old: exists; --force replaces it\n"}));
    EXPECT_EQ(said("ls", {"/dir"}), "kept\nold\n");
    said("put", {"--force", tree_ + "/.", "/"});
    EXPECT_EQ(said("ls", {"/dir"}), "kept\nnew\nold\n");
    EXPECT_EQ(said("cat", {"/dir/old"}), "changed");
    expect_clean(); // the clusters of what was replaced are free again
}

TEST_F(Qvol16, PutsOneSourceUnderANewName) {
    said("put", {host_file("in", "content"), "/new name"});
    EXPECT_EQ(said("ls"), "new name\n");
    EXPECT_EQ(
        qvol("put", {host_file("a", ""), host_file("b", ""), "/missing"}),
        (outcome{1, "",
                 "qvol: cannot copy to /missing: no such directory; \"qvol mkdir\" makes it\n"}));
}

TEST_F(Qvol16, TakesAPathWithASlashForADirectory) {
    EXPECT_EQ(qvol("put", {host_file("in", "x"), "/new/"}),
              (outcome{1, "",
                       "qvol: cannot copy to /new: no such directory; \"qvol mkdir\" makes it\n"}));
    EXPECT_EQ(said("ls"), "");
}

TEST_F(Qvol16, ListsEverythingThatCannotBeStoredAtOnce) {
    const std::string tree = scratch_.file("tree");
    host_file("tree/a:b", "");
    host_file("tree/con", "");
    host_file("tree/Readme", "");
    host_file("tree/README", "");
    host_file("tree/trailing.", "");
    host_file("tree/bad\xFF", "");
    (void)scratch_.sparse_file("tree/huge", std::uint64_t{1} << 32);
    ASSERT_EQ(mkfifo((tree + "/pipe").c_str(), 0600), 0);
    const bytes before = read_file(image_);
    const outcome refused = qvol("put", {tree, "/"});
    EXPECT_EQ(
        refused,
        (outcome{
            1, "",
            "qvol: cannot store all entries; nothing was written\n"
            "  " +
                tree +
                "/pipe: neither file, directory nor link; --skip-special "
                "leaves it out\n"
                "  " +
                tree +
                "/a:b: invalid name: contains ':'\n"
                "  $'" +
                tree +
                "/bad\\xff': invalid name: not valid in the name encoding; --encoding chooses another\n"
                "  " +
                tree +
                "/con: invalid name: is a device name\n"
                "  " +
                tree +
                "/huge: too large: files on a FAT volume are smaller than 4 GiB\n"
                "  " +
                tree +
                "/trailing.: invalid name: ends with a space or a dot\n"
                "  " +
                tree + "/Readme: same name as " + tree + "/README if case is ignored\n"}));
    EXPECT_EQ(read_file(image_), before);
}

TEST_F(Qvol16, TellsHowMuchSpaceIsMissing) {
    const bytes before = read_file(image_);
    const std::string big = scratch_.sparse_file("big", 30 << 20);
    const outcome refused = qvol("put", {big, "/"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err.substr(0, 52), "qvol: no space: 30.0 MiB needed, 19.9 MiB free on th")
        << refused;
    EXPECT_EQ(read_file(image_), before);
}

TEST_F(Qvol16, TellsWhichFileHasNoPlace) {
    const std::string tree = scratch_.file("tree");
    for (int i = 0; i < 200; i++) {
        host_file("tree/three slots for each " + std::to_string(1000 + i), "x");
    }
    const bytes before = read_file(image_);
    EXPECT_EQ(qvol("put", {tree + "/.", "/"}),
              (outcome{1, "",
                       "qvol: cannot store " + tree +
                           "/./three slots for each 1170: the root directory is full: a "
                           "FAT16 root has 512 slots; use a subdirectory; nothing was written\n"}));
    EXPECT_EQ(read_file(image_), before);
}

TEST_F(Qvol16, GetsWithoutReplacingUnlessForced) {
    said("put", {host_file("in", "volume"), "/file"});
    const std::string out = host_file("out", "host");
    EXPECT_EQ(qvol("get", {"/file", out}), (outcome{1, "",
                                                    "qvol: cannot copy /file: cannot make " + out +
                                                        ": exists; --force replaces it\n"}));
    said("get", {"--force", "/file", out});
    EXPECT_EQ(read_file(out), (bytes{'v', 'o', 'l', 'u', 'm', 'e'}));
}

// ---- hostile volumes --------------------------------------------------------------------------

class QvolHostile : public Qvol16 {
protected:
    // Overwrites the units of the only long name of the volume that begins with `from`.
    void rename_on_medium(const std::string &from, const std::u16string &to) {
        bytes image = read_file(image_);
        for (std::size_t slot = 0; slot + 32 <= image.size(); slot += 32) {
            if (image[slot] != 0x41 || image[slot + 11] != 0x0F ||
                image[slot + 1] != static_cast<std::uint8_t>(from[0]) ||
                image[slot + 3] != static_cast<std::uint8_t>(from[1])) {
                continue;
            }
            static constexpr std::size_t OFFSETS[] = {1,  3,  5,  7,  9,  14, 16,
                                                      18, 20, 22, 24, 28, 30};
            for (std::size_t i = 0; i < 13; i++) {
                const char16_t unit = i < to.size() ? to[i] : i == to.size() ? u'\0' : u'\xFFFF';
                image[slot + OFFSETS[i]] = static_cast<std::uint8_t>(unit & 0xFF);
                image[slot + OFFSETS[i] + 1] = static_cast<std::uint8_t>(unit >> 8);
            }
        }
        (void)scratch_.file_with("disk.img", image);
    }
    std::string outside() {
        return scratch_.file("outside");
    }
};

TEST_F(QvolHostile, NamesThatLeadElsewhereAreQuotedAndNotMade) {
    said("put", {host_file("innocent", "x"), "/"});
    rename_on_medium("innocent", u"../outside");
    EXPECT_EQ(said("ls"), "$'../outside'\n");
    const std::string out = scratch_.file("out");
    EXPECT_EQ(qvol("get", {"/", out}),
              (outcome{1, "",
                       "qvol: cannot make these names on the host; nothing was written\n"
                       "  /$'../outside': would lead outside the destination\n"}));
    EXPECT_FALSE(std::filesystem::exists(out));
    EXPECT_FALSE(std::filesystem::exists(outside()));
}

TEST_F(QvolHostile, EscapesNeverReachTheTerminal) {
    said("put", {host_file("innocent", "x"), "/"});
    rename_on_medium("innocent", u"\x1B[31mred");
    for (const char *command : {"ls", "tree"}) {
        EXPECT_EQ(said(command).find('\x1B'), std::string::npos) << command;
    }
    EXPECT_EQ(said("ls", {"-l"}).find('\x1B'), std::string::npos);
    EXPECT_EQ(said("ls", {"--json"}).find('\x1B'), std::string::npos);
    const outcome refused = qvol("get", {"/", scratch_.file("out")});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err.find('\x1B'), std::string::npos);
}

// A link "aa" to a directory outside, and a directory with the same name behind it.
TEST_F(QvolHostile, NothingIsWrittenThroughALinkJustMade) {
    std::filesystem::create_directory(outside());
    said("ln", {outside(), "/aa link"});
    said("mkdir", {"/bb dir"});
    said("put", {host_file("prey", "x"), "/bb dir"});
    rename_on_medium("bb", u"aa link");
    for (const bool is_forced : {false, true}) {
        const std::string out = scratch_.file(is_forced ? "forced" : "out");
        std::vector<std::string> arguments = {"/", out};
        if (is_forced) {
            arguments.push_back("--force");
        }
        const outcome refused = qvol("get", arguments);
        EXPECT_EQ(refused.status, 1) << refused;
        EXPECT_NE(refused.err.find("exists and is not a directory"), std::string::npos) << refused;
        EXPECT_TRUE(std::filesystem::is_empty(outside()));
    }
}

TEST_F(QvolHostile, DirectoriesThatLeadBackEnd) {
    said("mkdir", {"-p", "/aa dir/bb dir"});
    said("put", {host_file("file", "x"), "/aa dir"});
    bytes image = read_file(image_);
    const std::uint32_t root = layout_of(image_).rdir_start * 512;
    for (std::size_t slot = root; slot + 32 <= image.size(); slot += 32) {
        if (std::equal(image.begin() + static_cast<std::ptrdiff_t>(slot),
                       image.begin() + static_cast<std::ptrdiff_t>(slot) + 4, "BBDI")) {
            image[slot + 26] = 2; // the cluster of "aa dir"
        }
    }
    (void)scratch_.file_with("disk.img", image);
    const outcome walked = qvol("tree");
    EXPECT_EQ(walked.status, 1);
    EXPECT_EQ(walked.err,
              "qvol: /aa dir/bb dir: was visited before: a cycle, or a chain shared with another "
              "directory\n");
    EXPECT_EQ(qvol("ls", {"-R"}),
              (outcome{1, "/:\naa dir\n\n/aa dir:\nbb dir\nfile\n",
                       "qvol: cannot read /aa dir/bb dir: was visited before: a cycle, or a chain "
                       "shared with another directory\n"}));
    EXPECT_EQ(qvol("get", {"/", scratch_.file("out")}).status, 1);
    EXPECT_EQ(qvol("rm", {"-r", "/aa dir"}).status, 1);
}

// ---- looking ----------------------------------------------------------------------------------

TEST_F(Qvol16, ShowsATree) {
    said("mkdir", {"-p", "/a/b", "/c"});
    said("put", {host_file("file.txt", "x"), "/a"});
    EXPECT_EQ(said("tree"), "/\n"
                            "├── a\n"
                            "│   ├── b\n"
                            "│   └── file.txt\n"
                            "└── c\n"
                            "3 directories, 1 file, 0 links\n");
}

TEST_F(Qvol16, StatShowsTheEntryAndItsChain) {
    ASSERT_EQ(
        run({"touch", "-d", "2020-02-29 12:34:56", host_file("Some File", std::string(5000, 'x'))})
            .status,
        0);
    said("put", {scratch_.file("Some File"), "/"});
    const std::uint32_t sector = layout_of(image_).rdir_start;
    EXPECT_EQ(said("stat", {"/Some File"}), "path        /Some File\n"
                                            "kind        file\n"
                                            "short name  SOMEFI~1\n"
                                            "long name   yes\n"
                                            "size        5000 bytes\n"
                                            "modified    2020-02-29 12:34:56\n"
                                            "attributes  ----- (0x00)\n"
                                            "entry       sector " +
                                                std::to_string(sector) +
                                                ", offset 32, slot 1, 2 slots\n"
                                                "chain       2-4\n");
}

TEST_F(Qvol16, OwnerNamesThePathOfACluster) {
    said("mkdir", {"/dir"});
    said("put", {host_file("file", std::string(5000, 'x')), "/dir"});
    EXPECT_EQ(qvol("owner", {"2"}), (outcome{0, "/dir\n", ""}));
    EXPECT_EQ(qvol("owner", {"5"}), (outcome{0, "/dir/file\n", ""}));
    EXPECT_EQ(qvol("owner", {"6"}), (outcome{1, "", "qvol: cluster 6 has no owner: it is free\n"}));
    EXPECT_EQ(qvol("owner", {"1"}).status, 1);
}

TEST_F(Qvol16, DumpsFatClusterAndFile) {
    said("put", {host_file("file", "content"), "/"});
    const bytes image = read_file(image_);
    const volume_layout layout = layout_of(image_);
    const auto part = [&](std::size_t first, std::size_t count) {
        return bytes(image.begin() + static_cast<std::ptrdiff_t>(first * 512),
                     image.begin() + static_cast<std::ptrdiff_t>((first + count) * 512));
    };
    said("dump", {"fat", scratch_.file("fat.bin")});
    EXPECT_EQ(read_file(scratch_.file("fat.bin")), part(0, layout.fat_start + layout.fat_size));
    said("dump", {"cluster", "2", scratch_.file("cluster.bin")});
    EXPECT_EQ(read_file(scratch_.file("cluster.bin")), part(layout.data_start, 4));
    said("dump", {"file", "/file", scratch_.file("file.bin")});
    EXPECT_EQ(read_file(scratch_.file("file.bin")), (bytes{'c', 'o', 'n', 't', 'e', 'n', 't'}));
    EXPECT_EQ(qvol("dump", {"fat", scratch_.file("fat.bin")}).status, 1);
    EXPECT_EQ(qvol("dump", {"cluster", "x", scratch_.file("new")}).status, 2);
}

TEST_F(Qvol16, GivesFastPathsOfFilesAndDirectories) {
    said("mkdir", {"/dir"});
    said("put", {host_file("KERNEL.BIN", "x"), "/dir"});
    const std::string of_file = said("fastpath", {"/dir/KERNEL.BIN"});
    EXPECT_EQ(of_file.substr(0, 3), "<?>");
    EXPECT_EQ(of_file.substr(19), " /dir/KERNEL.BIN\n");
    EXPECT_EQ(said("fastpath", {"--dir", "/dir"}), of_file);
    EXPECT_EQ(qvol("fastpath", {"/dir"}).status, 1);
    EXPECT_EQ(qvol("fastpath", {"/"}).status, 1);
    EXPECT_EQ(qvol("fastpath").status, 2);
}

// Also of the last file in a directory that is full, of long names, and of what stands behind them.
TEST_F(Qvol16, GivesFastPathsOfEveryFileInADirectory) {
    said("mkdir", {"/dir"});
    said("mkdir", {"/dir/a directory with a long name"});
    std::vector<std::string> sources = {host_file("a long name.bin", "xyz")};
    std::vector<std::string> paths = {"/dir/a long name.bin"};
    // The dot entries, four slots and three are taken of the 64 in a cluster.
    for (int used = 2 + 4 + 3; used < 64; used++) {
        const std::string name = "FILE" + std::to_string(used);
        sources.push_back(host_file(name, name));
        paths.push_back("/dir/" + name);
    }
    sources.emplace_back("/dir");
    said("put", sources);
    EXPECT_NE(said("stat", {"/dir"}).find("chain       2\n"), std::string::npos);
    EXPECT_EQ(said("fastpath", {"--dir", "/dir"}), said("fastpath", paths));
}

// ---- the volume as a whole --------------------------------------------------------------------

TEST_P(QvolBoth, MakesPoolAndLogThatTheJudgesAccept) {
    said("pool");
    said("log");
    EXPECT_EQ(said("ls"), "$ZUQ_LOG.LO$\nZUQ_POOL.SY$\n");
    EXPECT_EQ(qvol("pool"), (outcome{1, "", "qvol: cannot make /ZUQ_POOL.SY$: File exists\n"}));
    expect_clean();
}

TEST_P(QvolBoth, LabelIsInTheRootAndInBothBootSectors) {
    said("mkdir", {"/DATA"}); // a label may have the name of an entry
    EXPECT_EQ(said("label"), "");
    for (const std::string label : {"DATA", "MY VOLUME-1", ""}) { // new, changed, removed
        EXPECT_EQ(said("label", {label}), "");
        EXPECT_EQ(said("label"), label.empty() ? "" : label + "\n");
        EXPECT_EQ(run({"blkid", "-p", "-o", "value", "-s", "LABEL", image_}).out,
                  label.empty() ? "" : label + "\n");
        EXPECT_EQ(run({"blkid", "-p", "-o", "value", "-s", "LABEL_FATBOOT", image_}).out,
                  label.empty() ? "" : label + "\n");
        expect_clean();
        EXPECT_EQ(qvol("check").status, 0); // also compares the backup
    }
    EXPECT_EQ(said("ls"), "DATA\n");
}

TEST_P(QvolBoth, IdIsInBothBootSectors) {
    EXPECT_EQ(said("id", {"0a1b-2C3D"}), "");
    EXPECT_EQ(said("id"), "0A1B-2C3D\n");
    EXPECT_EQ(run({"blkid", "-p", "-o", "value", "-s", "UUID", image_}).out, "0A1B-2C3D\n");
    expect_clean();
    EXPECT_EQ(qvol("check").status, 0);
}

TEST_F(Qvol16, RefusesLabelsAndNumbersThatNoVolumeHas) {
    const bytes before = read_file(image_);
    EXPECT_EQ(qvol("label", {"lower"}),
              (outcome{2, "", "qvol: label \"lower\": must be upper case; use \"LOWER\"\n"}));
    EXPECT_EQ(qvol("id", {"12"}),
              (outcome{2, "", "qvol: serial number 12: not a number such as 1A2B-3C4D\n"}));
    EXPECT_EQ(read_file(image_), before);
    bytes unnumbered = before;
    unnumbered.at(38) = 0; // without the signature of the record
    (void)scratch_.file_with("disk.img", unnumbered);
    EXPECT_EQ(qvol("id", {"1A2B-3C4D"}),
              (outcome{1, "",
                       "qvol: " + image_ +
                           " has no serial number: its boot sector has no field for one\n"}));
    said("label", {"ROOT ONLY"});
    EXPECT_EQ(said("label"), "ROOT ONLY\n");
}

TEST_F(Qvol16, RefusesALabelWithoutASlot) {
    std::vector<std::string> names;
    for (int i = 0; i < 512; i++) {
        names.push_back("/D" + std::to_string(i));
    }
    said("mkdir", names);
    const bytes before = read_file(image_);
    EXPECT_EQ(qvol("label", {"NEW"}),
              (outcome{1, "",
                       "qvol: cannot set the label of " + image_ +
                           ": the root directory is full: a FAT16 root has 512 slots; use a "
                           "subdirectory\n"}));
    EXPECT_EQ(read_file(image_), before);
}

TEST_P(QvolBoth, MirrorMakesTheCopiesEqual) {
    said("put", {host_file("file", std::string(100000, 'x')), "/"});
    EXPECT_EQ(said("mirror"), "all FAT copies are equal\n");
    const volume_layout layout = layout_of(image_);
    bytes image = read_file(image_);
    const std::size_t second = (layout.fat_start + layout.fat_size) * layout.sector_size;
    image.at(second + 40) ^= 0xFF;
    (void)scratch_.file_with("disk.img", image);
    EXPECT_EQ(said("mirror"), "1 sector of the FAT copies changed\n");
    expect_clean();
}

TEST_P(QvolBoth, CompactCutsTheImageToItsUse) {
    said("put", {host_file("file", std::string(100000, 'x')), "/"});
    const std::string before = said("ls", {"-l"});
    said("compact");
    EXPECT_LT(std::filesystem::file_size(image_), std::uint64_t{2} << 20);
    EXPECT_EQ(said("ls", {"-l"}), before);
    const std::string out = scratch_.file("out");
    said("get", {"/file", out});
    EXPECT_EQ(read_file(out), bytes(100000, 'x'));
    said("put", {host_file("more", std::string(3000, 'y')), "/"});
    EXPECT_EQ(said("cat", {"/more"}), std::string(3000, 'y'));
}

TEST_P(QvolBoth, InfoTellsTheTruthAboutClusters) {
    said("put", {host_file("file", std::string(100000, 'x')), "/"});
    const outcome judged = run({"fsck.fat", "-nv", image_});
    const std::string info = said("info", {"--json"});
    const auto number = [&](const std::string &key) {
        const std::size_t at = info.find('"' + key + "\": ");
        return at == std::string::npos
                   ? std::string()
                   : std::to_string(std::stoul(info.substr(at + key.size() + 4)));
    };
    EXPECT_NE(judged.out.find(number("used_clusters") + "/" + number("clusters") + " clusters"),
              std::string::npos)
        << judged << info;
}
