// The documents that the program gives under --json: one for each run, with the fields that
// docs/qvol.md names.

#include "tests/support/qvol.h"

#include <nlohmann/json.hpp>

using namespace testing_support;
using nlohmann::json;

namespace {

class QvolJson : public QvolImage {
protected:
    QvolJson() {
        format("16", 20 << 20);
        set_times(host_file("tree/A file.txt", "text"));
        set_times(host_file("tree/dir/UPPER.BIN", std::string(5000, 'x')));
        set_times(scratch_.file("tree/dir"));
        said("put", {scratch_.file("tree") + "/.", "/"});
    }

    static void set_times(const std::string &path) {
        ASSERT_EQ(run({"touch", "-d", "2020-02-29 12:34:56", path}).status, 0);
    }

    json document(const std::string &command, std::vector<std::string> arguments = {}) {
        arguments.emplace_back("--json");
        return json::parse(said(command, std::move(arguments)));
    }

    static json file_entry() {
        return {{"path", "/A file.txt"},
                {"name", "A file.txt"},
                {"short_name", "AFILE~1.TXT"},
                {"kind", "file"},
                {"size", 4},
                {"modified", "2020-02-29 12:34:56"},
                {"attributes", "-----"},
                {"first_cluster", 3}};
    }
    static json directory_entry() {
        return {{"path", "/dir"},        {"name", "dir"},     {"short_name", "DIR"},
                {"kind", "directory"},   {"size", 0},         {"modified", "2020-02-29 12:34:56"},
                {"attributes", "d----"}, {"first_cluster", 2}};
    }
    static json deep_entry() {
        return {
            {"path", "/dir/UPPER.BIN"}, {"name", "UPPER.BIN"}, {"short_name", "UPPER.BIN"},
            {"kind", "file"},           {"size", 5000},        {"modified", "2020-02-29 12:34:56"},
            {"attributes", "-----"},    {"first_cluster", 4}};
    }
};

} // namespace

TEST_F(QvolJson, ListsEntries) {
    EXPECT_EQ(document("ls"), (json{{"entries", {file_entry(), directory_entry()}}}));
    EXPECT_EQ(document("ls", {"-R", "/"}),
              (json{{"entries", {file_entry(), directory_entry(), deep_entry()}}}));
}

TEST_F(QvolJson, NestsTheTree) {
    json directory = directory_entry();
    directory["entries"] = json::array({deep_entry()});
    EXPECT_EQ(document("tree"), (json{{"path", "/"}, {"entries", {file_entry(), directory}}}));
}

TEST_F(QvolJson, DescribesOneEntry) {
    json expected = deep_entry();
    const json stat = document("stat", {"/dir/UPPER.BIN"});
    expected["entry"] = {
        {"sector", stat["entry"]["sector"]}, {"offset", 64}, {"slot", 2}, {"slots", 1}};
    expected["chain"] = {{{"first", 4}, {"count", 3}}};
    EXPECT_EQ(stat, expected);
    EXPECT_EQ(document("stat", {"/"}), (json{{"path", "/"},
                                             {"kind", "directory"},
                                             {"first_cluster", 0},
                                             {"short_name", nullptr},
                                             {"chain", json::array()}}));
}

TEST_F(QvolJson, GivesLinksTheirTarget) {
    EXPECT_EQ(document("ln", {"some/where", "/link"}), (json{{"made", {"/link"}}}));
    EXPECT_EQ(document("stat", {"/link"})["target"], "some/where");
}

TEST_F(QvolJson, DescribesTheVolume) {
    const json info = document("info");
    const std::uint64_t cluster = info["cluster_size"];
    EXPECT_EQ(cluster, 2048U);
    EXPECT_EQ(info["fat_type"], 16);
    EXPECT_EQ(info["used_clusters"], 5);
    EXPECT_EQ(info["free_clusters"].get<std::uint64_t>() + 5, info["clusters"]);
    EXPECT_EQ(info["free_bytes"], info["free_clusters"].get<std::uint64_t>() * cluster);
    EXPECT_EQ(info["boot_label"], "NO NAME");
    EXPECT_EQ(info["image_bytes"], 20 << 20);
    std::uint64_t next = 0; // the areas follow each other
    for (const json &area : info["areas"]) {
        EXPECT_EQ(area["first_sector"], next) << area;
        next += area["sectors"].get<std::uint64_t>();
    }
    EXPECT_LE(next, info["total_sectors"]);
}

TEST_F(QvolJson, HoldsTheTextOfFiles) {
    EXPECT_EQ(document("cat", {"/A file.txt"}),
              (json{{"files", {{{"path", "/A file.txt"}, {"size", 4}, {"text", "text"}}}}}));
    said("put", {host_file("binary", "\xFF"), "/"});
    EXPECT_EQ(
        qvol("cat", {"--json", "/binary"}),
        (outcome{1, "", "qvol: cannot print /binary as JSON: not UTF-8 text; omit --json\n"}));
}

TEST_F(QvolJson, TellsWhatWasDone) {
    EXPECT_EQ(document("mkdir", {"/a", "b"}), (json{{"made", {"/a", "/b"}}}));
    EXPECT_EQ(document("mv", {"/a", "/b"}), (json{{"moved", {"/a"}}}));
    EXPECT_EQ(document("rm", {"-r", "/b/a", "/b"}), (json{{"removed", {"/b/a", "/b"}}}));
    const json totals = {{"files", 2}, {"directories", 1}, {"links", 0}, {"bytes", 5004}};
    EXPECT_EQ(document("get", {"/", scratch_.file("out")}), totals);
    json with_attributes = totals;
    with_attributes["without_attributes"] = 0;
    EXPECT_EQ(document("get", {"--attrs", "/", scratch_.file("marked")}), with_attributes);
    EXPECT_EQ(document("put", {"--force", scratch_.file("tree") + "/.", "/"}), totals);
    EXPECT_EQ(document("mirror"), (json{{"fat_copies", 2}, {"changed_sectors", 0}}));
    EXPECT_EQ(document("label", {"NEW"}), (json{{"label", "NEW"}}));
    EXPECT_EQ(document("label"), (json{{"label", "NEW"}}));
    EXPECT_EQ(document("id", {"1a2b3c4d"}), (json{{"serial", "1A2B-3C4D"}}));
    EXPECT_EQ(document("id"), (json{{"serial", "1A2B-3C4D"}}));
    EXPECT_EQ(document("pool")["made"]["path"], "/ZUQ_POOL.SY$");
    EXPECT_EQ(document("log")["made"]["attributes"], "-rhs-");
    EXPECT_EQ(document("dump", {"cluster", "2", scratch_.file("dump")})["bytes"], 2048);
    const json compacted = document("compact");
    EXPECT_EQ(compacted["bytes_before"], 20 << 20);
    EXPECT_EQ(compacted["bytes"], std::filesystem::file_size(image_));
}

TEST_F(QvolJson, ShowsAttributesAsTheyAreNow) {
    EXPECT_EQ(document("attr", {"/dir", "/A file.txt"}),
              (json{{"entries", {directory_entry(), file_entry()}}}));
    json changed = deep_entry();
    changed["attributes"] = "-r--a";
    EXPECT_EQ(document("attr", {"+ra", "/dir/UPPER.BIN"}),
              (json{{"entries", json::array({changed})}}));
    EXPECT_EQ(document("attr", {"/dir/UPPER.BIN"}), (json{{"entries", json::array({changed})}}));
    EXPECT_EQ(document("touch", {"-c", "/dir", "/missing"}), (json{{"touched", {"/dir"}}}));
}

TEST_F(QvolJson, NamesOwnersAndFastPaths) {
    EXPECT_EQ(document("owner", {"5"}),
              (json{{"cluster", 5}, {"state", "used"}, {"owners", {"/dir/UPPER.BIN"}}}));
    const outcome unowned = qvol("owner", {"--json", "100"});
    EXPECT_EQ(unowned.status, 1);
    EXPECT_EQ(json::parse(unowned.out),
              (json{{"cluster", 100}, {"state", "free"}, {"owners", json::array()}}));
    const json paths = document("fastpath", {"/dir/UPPER.BIN"});
    EXPECT_EQ(paths, document("fastpath", {"--dir", "/dir"}));
    EXPECT_EQ(paths["fast_paths"][0]["path"], "/dir/UPPER.BIN");
    EXPECT_EQ(paths["fast_paths"][0]["fast_path"].get<std::string>().size(), 19U);
}

TEST_F(QvolJson, StatesDigestsAndDifferences) {
    said("ln", {"some/where", "/link"});
    const std::string small = "982d9e3eb996f559e633f4d194def3761d909f5a3b647d1a851fead67c32c9d1";
    const json manifest = document("manifest", {"--pieces", "4K"});
    EXPECT_EQ(manifest["piece_bytes"], 4096);
    ASSERT_EQ(manifest["entries"].size(), 4U);
    EXPECT_EQ(manifest["entries"][0], (json{{"path", "/A file.txt"},
                                            {"kind", "file"},
                                            {"size", 4},
                                            {"sha256", small},
                                            {"pieces", json::array({small.substr(0, 16)})},
                                            {"rest", nullptr}}));
    EXPECT_EQ(manifest["entries"][1], (json{{"path", "/dir"}, {"kind", "directory"}}));
    EXPECT_EQ(manifest["entries"][2]["pieces"].size(), 2U);
    EXPECT_EQ(manifest["entries"][3],
              (json{{"path", "/link"}, {"kind", "link"}, {"target", "some/where"}}));

    host_file("tree/dir/UPPER.BIN", std::string(4321, 'x') + 'y' + std::string(678, 'x'));
    const outcome compared = qvol("verify", {"--json", scratch_.file("tree")});
    EXPECT_EQ(compared.status, 1);
    const json content = {{"path", "/dir/UPPER.BIN"},
                          {"difference", "content"},
                          {"text", "differs; first at byte 4321"},
                          {"first_byte", 4321},
                          {"last_byte", 4321}};
    const json extra = {{"path", "/link"},
                        {"difference", "extra"},
                        {"text", "should not exist"},
                        {"first_byte", nullptr},
                        {"last_byte", nullptr}};
    EXPECT_EQ(json::parse(compared.out), (json{{"files", 2},
                                               {"directories", 1},
                                               {"links", 1},
                                               {"bytes", 5004},
                                               {"differences", {content, extra}}}));
}
