// What qvol stores from directories, archives and manifests, and what it refuses of them.

#include "tests/support/qvol_build.h"

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <random>

namespace {

using testing_support::outcome;
using testing_support::QvolBuild;
using testing_support::run;
using testing_support::run_qvol;

// ---- tar by hand ----

struct member {
    const char *name;
    char type = '0'; // '0' file, '1' hard link, '2' link, '3' device, '5' directory, '6' pipe
    std::string content;
    const char *target = "";
};

std::string octal(std::size_t number, int digits) {
    std::array<char, 16> text{};
    (void)std::snprintf(text.data(), text.size(), "%0*zo", digits, number);
    return text.data();
}

std::string header_of(const member &of) {
    std::string header(512, '\0');
    const auto put = [&](std::size_t offset, const std::string &text) {
        header.replace(offset, text.size(), text);
    };
    put(0, of.name);
    put(100, "0000644");
    put(124, octal(of.content.size(), 11));
    put(136, octal(1600000000, 11));
    put(148, "        ");
    header[156] = of.type;
    put(157, of.target);
    put(257, "ustar");
    put(263, "00");
    std::size_t sum = 0;
    for (const char byte : header) {
        sum += static_cast<unsigned char>(byte);
    }
    put(148, octal(sum, 6) + '\0');
    return header;
}

std::string tar_of(const std::vector<member> &members) {
    std::string tar;
    for (const member &one : members) {
        tar += header_of(one) + one.content;
        tar.resize((tar.size() + 511) / 512 * 512);
    }
    return tar + std::string(1024, '\0');
}

std::string text_of_file(const std::string &path) {
    const testing_support::bytes content = testing_support::read_file(path);
    return {content.begin(), content.end()};
}

class QvolSources : public QvolBuild {
protected:
    QvolSources() {
        setenv("SOURCE_DATE_EPOCH", "1700000000", 1);
    }
    ~QvolSources() override {
        unsetenv("SOURCE_DATE_EPOCH");
    }

    // A shell in the directory of the scratch files.
    outcome shell(const std::string &command) {
        return run({"sh", "-c", "cd '" + scratch_.file("") + "' && " + command});
    }

    // Builds from the arguments; returns the bytes of the image.
    std::string image_from(std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"--size", "auto", "--force", "--quiet"});
        const outcome result = build(arguments);
        EXPECT_EQ(result, (outcome{0, "", ""}));
        return text_of_file(image_);
    }

    // What the volume contains, as a tree without its totals.
    std::string listed() {
        const std::string tree = said("tree");
        return tree.substr(0, tree.rfind('\n', tree.size() - 2) + 1);
    }

    // The output of a build that is refused and leaves no file.
    std::string refused(std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"--size", "auto"});
        std::filesystem::remove(image_);
        const outcome result = build(arguments);
        EXPECT_NE(result.status, 0) << result;
        EXPECT_EQ(made(), std::vector<std::string>());
        return result.err;
    }

    std::string tar_file(const std::vector<member> &members) {
        return host_file("made.tar", tar_of(members));
    }
};

// ---- the same bytes from every source ----

TEST_F(QvolSources, GiveTheSameImage) {
    make_mixed_tree();
    std::filesystem::create_hard_link(tree_ + "/readme.md", tree_ + "/dir/hard link");
    ASSERT_EQ(shell("truncate -s 300000 tree/sparse && echo end >>tree/sparse && "
                    "truncate -s 300000 tree/hole")
                  .status,
              0);
    ASSERT_EQ(shell("find tree -exec touch -h -d @1600000001 {} +").status, 0);
    const std::string expected = image_from({"--from", tree_});
    const std::string list = "(cd tree && find . -depth | sort -r) >list && ";
    const char *const recipes[] = {
        "tar -cf made.ar -C tree .",
        "tar -cf made.ar --format=ustar -C tree .",
        "tar -cf made.ar --format=pax --sparse -C tree .",
        "tar -cf made.ar --format=gnu --sparse -C tree .",
        "tar -cf made.ar -C tree --no-recursion -T list",
        "tar -czf made.ar -C tree .",
        "tar -cjf made.ar -C tree .",
        "tar -cJf made.ar -C tree .",
        "tar -c --zstd -f made.ar -C tree .",
        "LC_ALL=C.UTF-8 bsdtar -cf made.ar -C tree .",
        "LC_ALL=C.UTF-8 bsdtar -cf made.ar --format=pax -C tree .",
        "(cd tree && cpio --quiet -o -H newc <../list >../made.ar)",
        "(cd tree && cpio --quiet -o -H odc <../list >../made.ar)",
        "LC_ALL=C.UTF-8 bsdtar -cf made.ar --format=cpio -C tree .",
        "(cd tree && TZ=UTC zip -qry - . >../made.ar)",
        "tar -cf made.ar -C tree readme.md && tar -cf more -C tree . && cat more >>made.ar",
    };
    for (const char *const recipe : recipes) {
        SCOPED_TRACE(recipe);
        const outcome archived = shell("rm -f made.ar; " + list + recipe);
        ASSERT_EQ(archived.status, 0) << archived;
        EXPECT_TRUE(image_from({"--from", scratch_.file("made.ar")}) == expected);
    }
    const outcome piped = shell("cat made.ar | " + std::string(testing_support::qvol_path()) +
                                " build '" + image_ + "' --size auto --force --quiet --from -");
    EXPECT_EQ(piped, (outcome{0, "", ""}));
    EXPECT_TRUE(text_of_file(image_) == expected) << "through a pipe";
}

TEST_F(QvolSources, GiveTheSameImageFromAManifest) {
    make_mixed_tree();
    ASSERT_EQ(shell("find tree -exec touch -h -d @1600000001 {} +").status, 0);
    const std::string expected = image_from({"--from", tree_});
    ASSERT_EQ(shell("LC_ALL=C.UTF-8 bsdtar -cf list.mtree --format=mtree "
                    "--options='!all,type,size,time,link,mode,sha256' -C tree .")
                  .status,
              0);
    EXPECT_TRUE(image_from({"--from", scratch_.file("list.mtree"), "--contents", tree_}) ==
                expected);
    std::filesystem::rename(scratch_.file("list.mtree"), tree_ + "/list.mtree");
    EXPECT_TRUE(image_from({"--from", tree_ + "/list.mtree"}) == expected);
}

TEST_F(QvolSources, TakeContentsOfAManifestFromOtherPaths) {
    host_file("store/one object", "content\n");
    host_file("m.mtree",
              "#mtree\n/set type=file\n"
              "new\\040name contents=store/one\\040object time=1600000000.0 "
              "flags=hidden,system\n"
              "d type=dir\n"
              "    again type=file\\\n    content=store/one\\040object sha256=434728a410a78f56fc1b"
              "5899c3593436e61ab0c731e9072d95e96db290205e53\n"
              "..\n"
              "l type=link link=new\\040name\n");
    image_from({"--from", scratch_.file("m.mtree")});
    EXPECT_EQ(said("cat", {"/d/again", "/new name"}), "content\ncontent\n");
    EXPECT_NE(said("ls", {"-l"}).find("-hs-          8 2020-09-13 12:26:40 new name"),
              std::string::npos)
        << said("ls", {"-l"});
}

// ---- sharing ----

// On a file system that can share blocks: the image has the same content, and takes little space.
TEST_F(QvolSources, ShareTheirBlocksWithTheImage) {
    const outcome made =
        shell("truncate -s 512M host && mkfs.btrfs -q host && mkdir on && mount -o loop host on");
    if (made.status != 0) {
        (void)shell("umount on");
        GTEST_SKIP() << "cannot mount btrfs here: " << made;
    }
    ASSERT_EQ(shell("mkdir on/tree && head -c 50000000 /dev/urandom >on/tree/large && "
                    "head -c 70001 /dev/urandom >on/tree/odd && truncate -s 9M on/tree/hole && "
                    "printf x >>on/tree/hole && sync on/tree/large")
                  .status,
              0);
    const auto used = [&] {
        return std::stoll(shell("sync on; df --output=used -k on | tail -1").out);
    };
    const long long before = used();
    const std::string program = testing_support::qvol_path();
    EXPECT_EQ(shell(program +
                    " build on/disk.img --size auto --quiet --from on/tree && mkdir on/copy && " +
                    program +
                    " get on/disk.img / on/copy --quiet && diff -r on/tree on/copy && "
                    "fsck.fat -n on/disk.img >/dev/null && rm -r on/copy")
                  .err,
              "");
    EXPECT_LT(used() - before, 25000) << "KiB";
    // Nothing of the files is a hole of the image.
    EXPECT_GT(std::stoll(shell("du -k on/disk.img | cut -f 1").out), 57000);
    EXPECT_EQ(shell("umount on").status, 0);
}

// ---- what archives and manifests must not do ----

TEST_F(QvolSources, RefuseHostileManifests) {
    host_file("secret", "outside");
    host_file("in/file", "inside");
    std::filesystem::create_symlink("../secret", scratch_.file("in/way out"));
    const std::pair<const char *, const char *> cases[] = {
        {"a contents=/etc/passwd", "its content /etc/passwd is outside of the directory of the "
                                   "contents"},
        {"a contents=../secret",
         "its content ../secret is outside of the directory of the contents"},
        {"a contents=way\\040out",
         "its content way out is outside of the directory of the contents"},
        {"a contents=none", "cannot open its content none: No such file or directory"},
        {"a contents=.", "its content . is not a file"},
        {"a contents=file size=7", "its content file has 6 bytes, should have 7"},
    };
    for (const auto &[line, message] : cases) {
        host_file("in/m.mtree", std::string("#mtree\n/set type=file\n") + line + "\n");
        const std::string manifest = scratch_.file("in/m.mtree");
        EXPECT_EQ(refused({"--from", manifest}),
                  "qvol: cannot store all entries; nothing was written\n  " + manifest +
                      ": a: " + message + "\n");
    }
    host_file("in/m.mtree", "#mtree\nfile type=file sha256=" + std::string(64, 'a') + "\n");
    EXPECT_NE(refused({"--from", scratch_.file("in/m.mtree")}).find("its SHA-256 differs"),
              std::string::npos);
}

TEST_F(QvolSources, StoreAbsoluteNamesBelowTheRoot) {
    image_from({"--from", tar_file({{"/a/b", '0', "1"}, {"./a/./c", '0', "2"}, {"//d", '5', ""}})});
    EXPECT_EQ(listed(), "/\n├── a\n│   ├── b\n│   └── c\n└── d\n");
}

TEST_F(QvolSources, RefuseHostileMembers) {
    const std::string deep = [] {
        std::string path;
        for (int i = 0; i < 40; i++) {
            path += "d/";
        }
        return path + "f";
    }();
    struct {
        std::vector<member> members;
        const char *message; // after the name of the archive
    } const cases[] = {
        {{{"../a", '0', "x"}}, "../a: contains \"..\", which could lead out of the volume"},
        {{{"a/../../b", '0', "x"}},
         "a/../../b: contains \"..\", which could lead out of the volume"},
        {{{"l", '2', "", "/etc"}, {"l/passwd", '0', "x"}},
         "l/passwd: is below l, which is not a directory"},
        {{{"f", '0', "x"}, {"f/g", '0', "x"}}, "f/g: is below f, which is not a directory"},
        {{{"h", '1', "", "/etc/passwd"}},
         "h: is a hard link to /etc/passwd, which is missing or left out"},
        {{{"d/f", '0', "x"}, {"d", '0', "x"}},
         "d: is there twice, as a directory and as something else"},
        {{{"dev", '3', ""}}, "dev: neither file, directory nor link; --skip-special leaves it out"},
        {{{"pipe", '6', ""}},
         "pipe: neither file, directory nor link; --skip-special leaves it out"},
        {{{"a:b", '0', "x"}}, "a:b: invalid name: contains ':'"},
        {{{"a\\b", '0', "x"}}, "a\\b: invalid name: contains '\\'"},
        {{{"con", '0', "x"}}, "con: invalid name: is a device name"},
        {{{"\xFF", '0', "x"}}, nullptr},
        {{{"l", '2', "", "x"}, {"L", '0', "x"}}, nullptr},
    };
    for (const auto &[members, message] : cases) {
        SCOPED_TRACE(members.back().name);
        const std::string archive = tar_file(members);
        const std::string err = refused({"--from", archive});
        EXPECT_TRUE(err.starts_with("qvol: cannot store all entries; nothing was written\n"))
            << err;
        if (message != nullptr) {
            EXPECT_EQ(err, "qvol: cannot store all entries; nothing was written\n  " + archive +
                               ": " + message + "\n");
        }
    }
    image_from(
        {"--from", tar_file({{deep.c_str(), '0', "x"}, {"dev", '3', ""}}), "--skip-special"});
    EXPECT_EQ(said("cat", {"/" + deep}), "x");
}

TEST_F(QvolSources, CountTheLaterOfEqualNames) {
    image_from({"--from", tar_file({{"f", '0', "first"},
                                    {"h", '1', "", "f"},
                                    {"f", '0', "second"},
                                    {"s", '2', "", "f"},
                                    {"t", '1', "", "s"}})});
    EXPECT_EQ(said("cat", {"/f", "/h"}), "secondfirst");
    EXPECT_EQ(said("cat", {"/t"}), "f");
}

TEST_F(QvolSources, ThatAreCutLeaveNothing) {
    tree_file("first", std::string(700, 'x'));
    tree_file("dir/second", "y");
    tree_link("link", "first");
    struct {
        const char *recipe;
        std::size_t complete; // bytes at its end that are padding
    } const cases[] = {
        {"tar -cf made.ar -C tree .", 7168},
        {"tar -czf made.ar -C tree .", 0},
        {"tar -cjf made.ar -C tree .", 0},
        {"tar -cJf made.ar -C tree .", 0},
        {"tar -c --zstd -f made.ar -C tree .", 0},
        {"(cd tree && zip -qry - . >../made.ar)", 0},
        {"(cd tree && find . | cpio --quiet -o -H newc >../made.ar)", 512},
    };
    for (const auto &[recipe, padding] : cases) {
        SCOPED_TRACE(recipe);
        ASSERT_EQ(shell(std::string("rm -f made.ar; ") + recipe).status, 0);
        const std::string whole = text_of_file(scratch_.file("made.ar"));
        const std::size_t end = whole.size() - padding;
        const std::size_t step = QUORVEL_FULL ? 13 : 97;
        for (std::size_t size = 1; size < end; size += step) {
            const std::string archive = host_file("cut.ar", whole.substr(0, size));
            const std::string err = refused({"--from", archive});
            EXPECT_TRUE(err.find(" at byte ") != std::string::npos ||
                        err.find("neither a directory") != std::string::npos)
                << size << ": " << err;
        }
    }
}

// What is lost silently elsewhere: archives one after another, damage that a reader can skip.
TEST_F(QvolSources, ThatAreNotReadToTheirEndAreRefused) {
    tree_file("a", "content of a");
    tree_file("b", std::string(700, 'x'));
    const std::string cpio = "(cd tree && printf 'a\\nb\\n' | cpio --quiet -o -H newc >../one) && ";
    const std::pair<std::string, const char *> cases[] = {
        {cpio + "cat one one >made.ar", "but there is more at byte 1536"},
        {cpio + "(cat one && gzip -c one) >made.ar", "but there is more at byte 1536"},
        {cpio + "gzip -c one >made.ar && gzip -c one >>made.ar", "but there is more at byte 1536"},
        {cpio + "cat one one | xz >made.ar", "but there is more at byte 1536"},
        {cpio + "sed s/070701/070801/2 one >made.ar", "damaged at byte 1431, after a: "},
        {"tar -cf made.ar -C tree . && echo more >>made.ar", "Truncated tar archive"},
        // Changed in its last bytes, the checksum of everything, far after the end mark of the tar.
        {"tar -cj -b 2000 -f made.ar -C tree . && printf no | dd of=made.ar bs=1 conv=notrunc "
         "status=none seek=$(($(stat -c %s made.ar) - 4))",
         "damaged at byte"},
        {"gzip -c tree/b >made.ar", "its compressed content is damaged, or no archive"},
        {"tar -c --zstd -b 2000 -f made.ar -C tree . && head -c -1 made.ar >cut && mv cut made.ar",
         "at byte"},
    };
    for (const auto &[recipe, message] : cases) {
        SCOPED_TRACE(recipe);
        const outcome archived = shell("rm -f made.ar; " + recipe);
        ASSERT_EQ(archived.status, 0) << archived;
        const std::string err = refused({"--from", scratch_.file("made.ar")});
        EXPECT_NE(err.find(message), std::string::npos) << err;
    }
}

TEST_F(QvolSources, MayBeEmpty) {
    std::filesystem::create_directory(tree_);
    for (const char *const recipe : {"tar -cf made.ar -T /dev/null", "tar -czf made.ar -C tree .",
                                     "cpio --quiet -o -H newc </dev/null >made.ar"}) {
        SCOPED_TRACE(recipe);
        ASSERT_EQ(shell(std::string("rm -f made.ar; ") + recipe).status, 0);
        image_from({"--from", scratch_.file("made.ar")});
        EXPECT_EQ(listed(), "/\n");
    }
}

TEST_F(QvolSources, ThatAreDamagedLeaveNothing) {
    std::mt19937 random(4);
    std::string content(20000, '\0');
    for (char &byte : content) {
        byte = static_cast<char>(random());
    }
    tree_file("file", content);
    for (const char *const recipe :
         {"tar -czf made.ar -C tree .", "tar -cJf made.ar -C tree .", "tar -cjf made.ar -C tree .",
          "(cd tree && zip -qr - . >../made.ar)"}) {
        SCOPED_TRACE(recipe);
        ASSERT_EQ(shell(std::string("rm -f made.ar; ") + recipe).status, 0);
        std::string bytes = text_of_file(scratch_.file("made.ar"));
        bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 0x20);
        EXPECT_NE(refused({"--from", host_file("bad.ar", bytes)}).find("damaged"),
                  std::string::npos)
            << shell("cksum made.ar bad.ar; bzip2 -t bad.ar; stat bad.ar");
    }
    for (const char *const other : {"", "#!/bin/sh\necho no archive\n",
                                    "\x7F"
                                    "ELF"}) {
        EXPECT_NE(refused({"--from", host_file("other", other)}).find("neither a directory"),
                  std::string::npos);
    }
}

// ---- merging, leaving out ----

TEST_F(QvolSources, AreMergedInTheirOrder) {
    host_file("base/etc/a", "base");
    host_file("base/etc/b", "base");
    host_file("over/etc/b", "over");
    host_file("over/new", "over");
    host_file("bad/etc", "a file");
    const std::string archive = tar_file({{"b", '0', "tar"}, {"x/y", '0', "tar"}});
    const std::string base = scratch_.file("base");
    image_from({"--from", base, "--from", scratch_.file("over"), "--from", archive + ":/opt/tar",
                "--from", archive + ":/"});
    EXPECT_EQ(listed(), "/\n├── b\n├── etc\n│   ├── a\n│   └── b\n├── new\n├── opt\n"
                        "│   └── tar\n│       ├── b\n│       └── x\n│           └── y\n"
                        "└── x\n    └── y\n");
    EXPECT_EQ(said("cat", {"/etc/a", "/etc/b", "/opt/tar/b"}), "baseovertar");
    EXPECT_NE(refused({"--from", base, "--from", scratch_.file("bad")})
                  .find("bad/etc: is a directory in " + base + "/etc"),
              std::string::npos);
    EXPECT_EQ(qvol("put", {"/", "--from", archive + ":/put"}).status, 1);
    format("16", 20 << 20);
    EXPECT_EQ(said("put", {"--from", archive, "--from", base + ":/put", "/"}),
              "4 files, 3 directories, 0 links, 14 bytes\n");
}

TEST_F(QvolSources, LeaveOutWhatMatchesAPattern) {
    for (const char *const name : {"a.o", "a.c", "sub/b.o", "sub/deep/a.c", "keep/sub/x", "t~"}) {
        tree_file(name, "x");
    }
    const std::pair<std::vector<std::string>, std::vector<std::string>> cases[] = {
        {{"--exclude", "*.o"}, {"/a.c", "/keep/sub/x", "/sub/deep/a.c", "/t~"}},
        {{"--exclude", "sub"}, {"/a.c", "/a.o", "/t~"}},
        {{"--exclude", "/sub"}, {"/a.c", "/a.o", "/keep/sub/x", "/t~"}},
        {{"--exclude", "sub/*.c"},
         {"/a.c", "/a.o", "/keep/sub/x", "/sub/b.o", "/sub/deep/a.c", "/t~"}},
        {{"--exclude", "*/deep/", "--exclude", "?~"}, {"/a.c", "/a.o", "/keep/sub/x", "/sub/b.o"}},
        {{"--exclude", "a.c/"},
         {"/a.c", "/a.o", "/keep/sub/x", "/sub/b.o", "/sub/deep/a.c", "/t~"}},
    };
    const auto files = [&] {
        std::vector<std::string> found;
        const auto document = nlohmann::json::parse(said("ls", {"-R", "--json"}));
        for (const auto &item : document["entries"]) {
            if (item["kind"] == "file") {
                found.push_back(item["path"]);
            }
        }
        std::sort(found.begin(), found.end());
        return found;
    };
    ASSERT_EQ(shell("tar -cf made.ar -C tree .").status, 0);
    for (const auto &[options, expected] : cases) {
        for (const std::string &source : {tree_, scratch_.file("made.ar")}) {
            std::vector<std::string> arguments = options;
            arguments.insert(arguments.end(), {"--from", source});
            image_from(arguments);
            EXPECT_EQ(files(), expected) << options[1] << " of " << source;
        }
    }
    host_file("patterns", "# a comment\n\n*.o\nsub/\n");
    image_from({"--from", tree_, "--exclude-from", scratch_.file("patterns")});
    EXPECT_EQ(files(), (std::vector<std::string>{"/a.c", "/t~"}));
    EXPECT_EQ(build({"--size", "auto", "--force", "--from", tree_, "--exclude", ""}).status, 2);
    EXPECT_EQ(build({"--size", "auto", "--from", tree_, "--exclude-from", "/none"}).status, 1);
}

// ---- links ----

TEST_F(QvolSources, StoreWhatLinksLeadTo) {
    tree_file("dir/file", "content");
    tree_link("dir/up", "../top");
    tree_file("top", "at the top");
    tree_link("file link", "dir/file");
    tree_link("dir link", "./dir//");
    tree_link("chain", "file link");
    const char *const expected = "/\n├── chain\n├── dir\n│   ├── file\n│   └── up\n├── dir link\n"
                                 "│   ├── file\n│   └── up\n├── file link\n└── top\n";
    ASSERT_EQ(shell("tar -cf made.ar -C tree .").status, 0);
    for (const std::string &source : {tree_, scratch_.file("made.ar")}) {
        image_from({"--from", source, "--dereference"});
        EXPECT_EQ(listed(), expected);
        EXPECT_EQ(said("cat", {"/chain", "/dir link/up"}), "contentat the top");
    }
}

TEST_F(QvolSources, RefuseLinksThatLeadNowhere) {
    tree_file("d/f", "x");
    host_file("outside", "x");
    const std::pair<const char *, const char *> cases[] = {
        {"/etc/passwd", "it is outside of the source"},
        {"../../outside", "it is outside of the source"},
        {"../..", "it is outside of the source"},
        {"none", "there is no such file"},
        {"f/x", "there is no such file"},
        {"link", "too many links"},
        {".", "it is in what it leads to"},
        {"..", "it is in what it leads to"},
        {"../d", "it is in what it leads to"},
    };
    for (const auto &[target, message] : cases) {
        std::filesystem::remove(tree_ + "/d/link");
        tree_link("d/link", target);
        EXPECT_EQ(refused({"--from", tree_, "--dereference"}),
                  "qvol: cannot store all entries; nothing was written\n  " + tree_ +
                      "/d/link: cannot store what the link leads to: " + message + "\n");
    }
}

// Each directory has a link to the next one: the links make a tree that is as deep as there are
// directories.
TEST_F(QvolSources, RefuseTreesThatAreTooDeep) {
    constexpr int DIRECTORIES = 1030;
    for (int i = 0; i < DIRECTORIES; i++) {
        const std::string directory = tree_ + "/" + std::to_string(i);
        std::filesystem::create_directories(directory);
        std::filesystem::create_symlink("../" + std::to_string(i + 1), directory + "/l");
    }
    std::filesystem::create_directory(tree_ + "/" + std::to_string(DIRECTORIES));
    EXPECT_NE(refused({"--from", tree_, "--dereference"}).find("more than 1,024 directories deep"),
              std::string::npos);
    std::string deep;
    for (int i = 0; i < 60000; i++) {
        deep += "/d";
    }
    EXPECT_NE(refused({"--from", tree_ + ":" + deep}).find("more than 1,024 directories deep"),
              std::string::npos);
}

// ---- times and attributes ----

TEST_F(QvolSources, HaveTheRequestedTimes) {
    tree_file("old", "x");
    tree_file("new", "x");
    ASSERT_EQ(shell("touch -d @1600000000 tree/old; touch -d @1800000000 tree/new").status, 0);
    const std::string old_time = "2020-09-13 12:26:40";
    const std::string new_time = "2027-01-15 08:00:00";
    const std::string epoch = "2023-11-14 22:13:20";
    struct {
        std::vector<std::string> options;
        std::string old_file, new_file;
    } const cases[] = {
        {{}, old_time, epoch},
        {{"--times", "clamp"}, old_time, epoch},
        {{"--times", "keep"}, old_time, new_time},
        {{"--times", "none"}, epoch, epoch},
        {{"--timezone", "+05:30"}, "2020-09-13 17:56:40", "2023-11-15 03:43:20"},
        {{"--timezone", "-0800"}, "2020-09-13 04:26:40", "2023-11-14 14:13:20"},
        {{"--timezone", "UTC"}, old_time, epoch},
    };
    for (const auto &[options, old_file, new_file] : cases) {
        std::vector<std::string> arguments = options;
        arguments.insert(arguments.end(), {"--from", tree_});
        image_from(arguments);
        EXPECT_EQ(said("ls", {"-l"}),
                  "-----          1 " + new_file + " new\n-----          1 " + old_file + " old\n");
    }
    for (const char *const zone : {"Nowhere/City", "../etc/passwd", "+25:00", "+1", ""}) {
        EXPECT_EQ(
            build({"--size", "auto", "--force", "--from", tree_, "--timezone=" + std::string(zone)})
                .status,
            2)
            << zone;
    }
    EXPECT_EQ(build({"--size", "auto", "--from", tree_, "--times", "some"}).status, 2);
}

TEST_F(QvolSources, HaveTheRequestedAttributes) {
    tree_file("sys/boot.sys", "x");
    tree_file("plain", "x");
    tree_file("locked", "x");
    ASSERT_EQ(shell("chmod 444 tree/locked && find tree -exec touch -d @1600000000 {} +").status,
              0);
    image_from({"--from", tree_, "--attr", "*.sys=rhs", "--attr", "/sys/=h", "--attr", "plain=a",
                "--read-only-from-mode"});
    const std::string when = " 2020-09-13 12:26:40 ";
    EXPECT_EQ(said("ls", {"-l", "-R"}), "/:\n-r---          1" + when + "locked\n----a          1" +
                                            when + "plain\nd-h--          0" + when +
                                            "sys\n\n/sys:\n-rhs-          1" + when + "boot.sys\n");
    for (const char *const invalid : {"x", "=r", "x=q", "x=rhx"}) {
        EXPECT_EQ(build({"--size", "auto", "--force", "--from", tree_, "--attr", invalid}).status,
                  2)
            << invalid;
    }
}

TEST_F(QvolSources, AreRemarkedOnForHardLinks) {
    tree_file("file", "x");
    std::filesystem::create_hard_link(tree_ + "/file", tree_ + "/other name");
    const outcome result = build({"--size", "auto", "--from", tree_});
    EXPECT_NE(result.out.find("1 hard link is stored as a copy\n"), std::string::npos) << result;
}

} // namespace
