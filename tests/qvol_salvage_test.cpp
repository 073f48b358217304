// qvol salvage: everything that can be found comes out of a damaged volume, and nothing is written
// to it.

#include "tests/support/checked_volume.h"

#include <algorithm>
#include <filesystem>

#include <sys/stat.h>

using namespace testing_support;
using nlohmann::json;
namespace fs = std::filesystem;

namespace {

class QvolSalvage : public CheckedVolume {
protected:
    QvolSalvage() : saved_(scratch_.file("saved")) {}

    // Salvages into a new directory. The image, which is only readable, stays as it is.
    outcome salvage(std::vector<std::string> options = {}) {
        fs::remove_all(saved_);
        options.insert(options.begin(), saved_);
        const bytes before = read_file(image_);
        chmod(image_.c_str(), 0444);
        outcome result = qvol("salvage", options);
        chmod(image_.c_str(), 0644);
        EXPECT_TRUE(has_content(image_, before));
        return result;
    }

    json salvaged(std::vector<std::string> options = {}) {
        options.emplace_back("--json");
        return json::parse(salvage(options).out);
    }

    // The document of the entry with this path, or host path.
    static json entry_of(const json &document, const std::string &path) {
        for (const json &one : document["files"]) {
            if (one["path"] == path || one["host_path"] == path) {
                return one;
            }
        }
        ADD_FAILURE() << "no " << path << " in " << document.dump(2);
        return {{"state", nullptr}, {"reasons", json::array({""})}};
    }

    std::string saved(const std::string &path) const {
        const bytes content = read_file(saved_ + path);
        return {content.begin(), content.end()};
    }
    void expect_saved(const std::string &except = "") const {
        for (const auto &[path, content] : contents_) {
            EXPECT_TRUE(path == except || saved(path) == content) << path;
        }
    }

    std::string saved_;
};

INSTANTIATE_TEST_SUITE_P(Widths, QvolSalvage, testing::Values("12", "16", "32"),
                         [](const auto &tested) { return "Fat" + std::string(tested.param); });

} // namespace

TEST_P(QvolSalvage, EverythingOfAHealthyVolumeIsCertain) {
    said("ln", {"../A.TXT", "/DIR/link"});
    EXPECT_EQ(salvage(), (outcome{0, "4 files, 1 directory, 1 link, 3.0 KiB: 6 certain\n", ""}));
    expect_saved();
    EXPECT_EQ(fs::read_symlink(saved_ + "/DIR/link"), "../A.TXT");
    const std::string copied = scratch_.file("copied");
    fs::create_directory(copied);
    said("get", {"/", copied});
    for (const char *path : {"/A.TXT", "/DIR"}) {
        EXPECT_EQ(fs::last_write_time(saved_ + path), fs::last_write_time(copied + path)) << path;
    }
}

TEST_P(QvolSalvage, TakesANewOrAnEmptyDirectoryOnly) {
    fs::create_directory(saved_);
    EXPECT_EQ(qvol("salvage", {"-q", saved_}), (outcome{0, "", ""}));
    EXPECT_EQ(qvol("salvage", {saved_}),
              (outcome{1, "",
                       "qvol: cannot salvage into " + saved_ +
                           ": it is not empty; name a new or an empty directory\n"}));
    const std::string text = host_file("text", std::string(10000, 'x'));
    const outcome refused = run_qvol({"salvage", text, scratch_.file("none")});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("no FAT volume found"), std::string::npos) << refused;
    EXPECT_FALSE(fs::exists(scratch_.file("none")));
}

TEST_P(QvolSalvage, ABlankFatIsReadFromTheOtherCopy) {
    poke(std::uint64_t{layout_.fat_start} * 512, std::string(layout_.fat_size * 512, '\0'));
    const json document = salvaged();
    expect_saved();
    EXPECT_FALSE(document["notes"].empty());
}

TEST_P(QvolSalvage, ALostBootSectorIsReadFromItsBackup) {
    poke(0, std::string(512, '\0'));
    const outcome result = salvage();
    if (is_fat32()) {
        EXPECT_EQ(result.status, 0) << result;
        EXPECT_NE(result.out.find("its backup copied over it\n"), std::string::npos) << result;
        expect_saved();
    } else {
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_FALSE(fs::exists(saved_));
    }
}

// The root forgets DIR: it comes back below lost+found, and what was in it under its own name.
TEST_P(QvolSalvage, ALostDirectoryComesBack) {
    poke(entry_offset("/DIR"), "\xE5" + std::string(31, '\0'));
    const outcome result = salvage();
    EXPECT_EQ(result.status, 1) << result;
    EXPECT_EQ(saved("/lost+found/DIR00001/A long name.text"), contents_["/DIR/A long name.text"]);
    EXPECT_TRUE(fs::exists(saved_ + "/lost+found/DIR00001/EMPTY"));
    EXPECT_NE(result.out.find("lost+found/DIR00001/A long name.text: guessed: no entry led there"),
              std::string::npos)
        << result;
    const json document = salvaged();
    EXPECT_EQ(entry_of(document, "/A.TXT")["state"], "certain");
    EXPECT_EQ(entry_of(document, "lost+found/DIR00001")["path"], nullptr);
}

// A repair that has found no entry of the root may not be taken for one of its own.
TEST_P(QvolSalvage, AFoundDirectoryOfAnEarlierRepairIsAnOrdinaryOne) {
    said("mkdir", {"/FOUND.000", "/lost+found"});
    set_link(FREE_CLUSTER, end_mark());
    EXPECT_EQ(salvage().status, 1);
    EXPECT_TRUE(fs::exists(saved_ + "/FOUND.000"));
    EXPECT_TRUE(fs::exists(saved_ + "/lost+found/FILE00001.CHK"));
    EXPECT_TRUE(fs::exists(saved_ + "/lost+found~1"));
}

TEST_P(QvolSalvage, FilesThatShareClustersAreBothGuessed) {
    set_start("/B.TXT", start_of("/A.TXT"));
    const json document = salvaged();
    for (const char *path : {"/A.TXT", "/B.TXT"}) {
        EXPECT_EQ(entry_of(document, path)["state"], "guessed") << path;
    }
    EXPECT_EQ(saved("/A.TXT"), contents_["/A.TXT"]);
    EXPECT_EQ(saved("/B.TXT"), contents_["/B.TXT"]); // its own clusters are the only lost ones
    EXPECT_EQ(entry_of(document, "/DIR")["state"], "certain");
}

// 64 files of the whole volume's size would need 64 times its space.
TEST_P(QvolSalvage, CopiesNoMoreThanTheVolumeHas) {
    if (is_fat32()) {
        return; // a larger volume of the same kind
    }
    const std::uint32_t most = total_clusters() * 7 / 10 * 512;
    said("put", {host_file("LARGE.BIN", std::string(most, 'x')), "/"});
    const std::uint32_t start = start_of("/LARGE.BIN");
    for (std::uint32_t slot = 6; slot < 14; slot++) {
        put_slot(start_of("/DIR"), slot, "COPY" + std::to_string(slot + 10) + "  BIN", 0x20, start,
                 most);
    }
    const json document = salvaged();
    EXPECT_LT(document["totals"]["bytes"], std::uint64_t{total_clusters()} * 512);
    EXPECT_EQ(entry_of(document, "/DIR/COPY17.BIN")["state"], "not-copied");
    EXPECT_EQ(saved("/A.TXT"), contents_["/A.TXT"]);
}

// What a broken chain still leads to is copied.
TEST_P(QvolSalvage, TheStartOfABrokenFileIsCopied) {
    const std::uint32_t start = start_of("/A.TXT");
    set_link(start + 1, FREE_CLUSTER);
    set_link(start + 2, 0);
    const json document = salvaged();
    EXPECT_EQ(saved("/A.TXT"), std::string(1024, 'a'));
    EXPECT_EQ(entry_of(document, "/A.TXT")["size"], 1024);
    EXPECT_EQ(entry_of(document, "/A.TXT")["state"], "guessed");
}

TEST_P(QvolSalvage, NamesThatTheHostCannotHaveAreMadeSafe) {
    const std::uint32_t dir = start_of("/DIR");
    put_slot(dir, 6, "../OUT  TXT", 0x20);
    put_slot(dir, 7, "ESC\x1B[31mTXT", 0x20);
    put_slot(dir, 8, "EMPTY      ", 0x20);
    put_slot(dir, 9, "empty      ", 0x20);
    const outcome result = salvage();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out.find('\x1B'), std::string::npos);
    EXPECT_FALSE(fs::exists(scratch_.file("OUT.TXT")));
    for (const char *name :
         {"/DIR/.._OUT.TXT", "/DIR/ESC_[31m.TXT", "/DIR/EMPTY", "/DIR/EMPTY~1", "/DIR/empty~2"}) {
        EXPECT_TRUE(fs::exists(saved_ + name)) << name << "\n" << result;
    }
    EXPECT_NE(result.out.find("/DIR/$'../OUT.TXT' -> DIR/.._OUT.TXT: "), std::string::npos)
        << result;
    EXPECT_EQ(entry_of(salvaged(), "DIR/EMPTY~1")["renamed"], true);
}

// Names of the volume can have 255 characters of 3 bytes, those of the host 255 bytes.
TEST_P(QvolSalvage, NamesThatAreTooLongAreCut) {
    std::string name;
    for (int i = 0; i < 80; i++) {
        name += "\u20AC";
    }
    said("put", {host_file(name, "one"), "/"});
    const std::string long_name = name + "\u20AC";
    said("mv", {"/" + name, "/" + long_name + long_name + ".txt"});
    EXPECT_EQ(salvage().status, 0);
    EXPECT_EQ(saved("/" + name + "\u20AC\u20AC\u20AC.txt"), "one");
}

// An image that was cut to its content has no space for what the repair stores.
TEST_P(QvolSalvage, AnImageThatWasCutIsExtendedInMemory) {
    set_link(start_of("/DIR/A long name.text") + 2, end_mark());
    said("compact");
    EXPECT_EQ(salvage().status, 1);
    EXPECT_TRUE(fs::exists(saved_ + "/lost+found/FILE00001.CHK"));
}

// ---- removed files ----------------------------------------------------------------------------

// Names with long-name slots are complete; the first character of the others is lost.
TEST_P(QvolSalvage, RemovedFilesThatAreContiguousAreWhole) {
    said("ln", {"target", "/DIR/a link"});
    said("rm", {"/DIR/A long name.text", "/DIR/EMPTY", "/DIR/a link", "/A.TXT"});
    EXPECT_EQ(salvage(), (outcome{0, "1 file, 1 directory, 0 links, 1000 bytes: 2 certain\n", ""}));
    const json document = salvaged({"--deleted"});
    EXPECT_EQ(saved("/deleted/DIR/A long name.text"), contents_["/DIR/A long name.text"]);
    EXPECT_EQ(saved("/deleted/DIR/_MPTY"), "");
    EXPECT_EQ(saved("/deleted/_.TXT"), contents_["/A.TXT"]);
    EXPECT_EQ(fs::read_symlink(saved_ + "/deleted/DIR/a link"), "target");
    for (const char *path : {"/DIR/A long name.text", "/DIR/_MPTY", "/_.TXT", "/DIR/a link"}) {
        const json one = entry_of(document, path);
        EXPECT_EQ(one["state"], "deleted") << one;
        EXPECT_EQ(one["confidence"], "whole") << one;
    }
    EXPECT_EQ(entry_of(document, "/_.TXT")["reasons"][0],
              "the first character of its name is lost");
    EXPECT_EQ(salvage({"--deleted"}).status, 1);
}

TEST_P(QvolSalvage, ARemovedFileIsPiecedTogetherAroundAnother) {
    said("put", {host_file("X.BIN", "x"), host_file("Y.BIN", "y"), "/"});
    const std::uint32_t first = start_of("/X.BIN");
    said("rm", {"/X.BIN"});
    std::string content(1500, 'z');
    content.replace(512, 512, std::string(512, 'Z'));
    said("put", {host_file("Z.BIN", content), "/"}); // takes the slot and the cluster of X.BIN
    EXPECT_EQ(start_of("/Z.BIN"), first);
    said("rm", {"/Z.BIN"});
    const json one = entry_of(salvaged({"--deleted"}), "/_.BIN");
    EXPECT_EQ(saved("/deleted/_.BIN"), content);
    EXPECT_EQ(one["confidence"], "pieced");
    const std::string text =
        std::to_string(first) + ", " + std::to_string(first + 2) + "-" + std::to_string(first + 3);
    EXPECT_EQ(one["reasons"].back(),
              "free clusters " + text + ", in the order in which clusters are allocated");
}

TEST_P(QvolSalvage, ARemovedFileWhoseStartIsInUseIsGone) {
    const std::uint32_t start = start_of("/A.TXT");
    said("rm", {"/A.TXT"});
    said("put", {host_file("NEW.TXT", std::string(1500, 'n')), "/DIR"});
    ASSERT_EQ(start_of("/DIR/NEW.TXT"), start);
    const outcome result = salvage({"--deleted"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find("/_.TXT: deleted, gone: the first character of its name is lost; its "
                              "first cluster, " +
                              std::to_string(start) + ", belongs to /DIR/NEW.TXT\n"),
              std::string::npos)
        << result;
    EXPECT_TRUE(result.out.ends_with("5 certain, 1 deleted (1 of them gone)\n")) << result;
    EXPECT_FALSE(fs::exists(saved_ + "/deleted"));
}

TEST_P(QvolSalvage, RemovedFilesThatClaimTheSameClustersAreContested) {
    const std::uint32_t start = start_of("/A.TXT");
    said("rm", {"/A.TXT"});
    put_slot(start_of("/DIR"), 6, "\xE5THER   TXT", 0x20, start + 1, 600);
    const json document = salvaged({"--deleted"});
    EXPECT_EQ(entry_of(document, "/_.TXT")["confidence"], "contested");
    const json other = entry_of(document, "/DIR/_THER.TXT");
    EXPECT_EQ(other["confidence"], "contested");
    EXPECT_NE(other["reasons"].back().get<std::string>().find("/_.TXT may have had some"),
              std::string::npos)
        << other;
    EXPECT_EQ(saved("/deleted/_.TXT"), contents_["/A.TXT"]);
}

TEST_P(QvolSalvage, RemovedDirectoriesComeWithTheirFiles) {
    said("rm", {"-r", "/DIR"});
    const json document = salvaged({"--deleted"});
    EXPECT_EQ(saved("/deleted/_IR/A long name.text"), contents_["/DIR/A long name.text"]);
    EXPECT_EQ(entry_of(document, "/_IR")["confidence"], "whole");
    EXPECT_EQ(entry_of(document, "/_IR/A long name.text")["confidence"], "whole");
}

// The repair in memory stores its directory in the first free cluster: that of the removed file.
TEST_P(QvolSalvage, TheRepairHidesNoRemovedFile) {
    said("rm", {"/A.TXT"});
    set_link(FREE_CLUSTER, end_mark());
    const json document = salvaged({"--deleted"});
    EXPECT_EQ(entry_of(document, "/_.TXT")["confidence"], "whole");
    EXPECT_EQ(saved("/deleted/_.TXT"), contents_["/A.TXT"]);
    EXPECT_TRUE(fs::exists(saved_ + "/lost+found/FILE00001.CHK"));
}

// Entries that claim all of the volume, and directories that lead to each other.
TEST_P(QvolSalvage, HostileRemovedEntriesEnd) {
    const std::uint32_t dir = start_of("/DIR");
    for (std::uint32_t slot = 6; slot < 12; slot++) {
        put_slot(dir, slot, "\xE5ILE" + std::to_string(slot + 10) + "  BIN", 0x20, FREE_CLUSTER,
                 (total_clusters() - FREE_CLUSTER) * 512 - slot);
    }
    put_slot(dir, 12,
             "\xE5"
             "A         ",
             0x10, FREE_CLUSTER + 1);
    put_slot(FREE_CLUSTER + 1, 0, ".          ", 0x10, FREE_CLUSTER + 1);
    put_slot(FREE_CLUSTER + 1, 1, "..         ", 0x10, 0);
    put_slot(FREE_CLUSTER + 1, 2, "B          ", 0x10, FREE_CLUSTER + 1);
    const json document = salvaged({"--deleted"});
    EXPECT_EQ(entry_of(document, "/DIR/_A/B")["confidence"], "gone");
    EXPECT_EQ(entry_of(document, "/DIR/_ILE17.BIN")["state"], "not-copied");
    EXPECT_LT(document["totals"]["bytes"], 2 * std::uint64_t{total_clusters()} * 512);
    expect_saved();
}
