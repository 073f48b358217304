// Images that qvol builds from trees of the host.

#pragma once

#include "tests/support/qvol.h"

#include <algorithm>
#include <map>
#include <tuple>

#include <sys/stat.h>

namespace testing_support {

// Entries of a directory tree: kind, time in units of two seconds as a volume stores it, and the
// target of a link.
using tree_listing = std::map<std::string, std::tuple<char, std::int64_t, std::string>>;

inline tree_listing listing_of(const std::string &top) {
    tree_listing result;
    for (const auto &item : std::filesystem::recursive_directory_iterator(top)) {
        struct stat status {};
        lstat(item.path().c_str(), &status);
        const char type = S_ISDIR(status.st_mode) ? 'd' : S_ISLNK(status.st_mode) ? 'l' : 'f';
        const std::string target =
            type == 'l' ? std::filesystem::read_symlink(item.path()).string() : "";
        result[item.path().lexically_relative(top)] = {type, status.st_mtime & ~1, target};
    }
    return result;
}

class QvolBuild : public QvolImage {
protected:
    QvolBuild() {
        image_ = scratch_.file("made/disk.img");
        tree_ = scratch_.file("tree");
        std::filesystem::create_directory(scratch_.file("made"));
        std::filesystem::create_directory(tree_);
    }

    outcome build(std::vector<std::string> arguments) {
        return qvol("build", std::move(arguments));
    }

    // Builds from the tree; must succeed and pass the checker.
    void build_tree(const std::string &size, std::vector<std::string> arguments = {}) {
        arguments.insert(arguments.end(), {"--size", size, "--from", tree_, "--force"});
        const outcome result = build(std::move(arguments));
        ASSERT_EQ(result.status, 0) << result;
        ASSERT_EQ(result.err, "");
        expect_clean();
    }

    // The volume holds the tree: content, links, times.
    void expect_tree(const std::string &tree) {
        const std::string out = scratch_.file("out");
        std::filesystem::remove_all(out);
        std::filesystem::create_directory(out);
        said("get", {"/", out});
        EXPECT_EQ(run({"diff", "-r", "--no-dereference", tree, out}), (outcome{0, "", ""}));
        EXPECT_EQ(listing_of(tree), listing_of(out));
    }

    std::string tree_file(const std::string &name, const std::string &content) {
        return host_file("tree/" + name, content);
    }
    void tree_link(const std::string &name, const std::string &target) {
        std::filesystem::create_symlink(target, tree_ + "/" + name);
    }

    // A tree with every kind of entry.
    void make_mixed_tree() {
        tree_file("README.TXT", "in capitals");
        tree_file("readme.md", "in small letters");
        tree_file("dir/A long name, with a comma.txt", std::string(5000, 'x'));
        tree_file("dir/below/grüße.txt", "UTF-8");
        tree_file("dir/below/日本語 のファイル", "more of it");
        tree_file("dir/below/📷.jpeg", "beyond 16 bits");
        tree_file("empty file", "");
        std::filesystem::create_directories(tree_ + "/an empty directory/and another");
        tree_link("link", "dir/A long name, with a comma.txt");
        tree_link("dir/to nowhere", "../no/such/file");
        ASSERT_EQ(run({"touch", "-h", "-d", "1999-12-31 23:59:58", tree_ + "/dir/to nowhere",
                       tree_ + "/readme.md", tree_ + "/dir/below"})
                      .status,
                  0);
    }

    // The files in the directory of the image.
    [[nodiscard]] std::vector<std::string> made() const {
        std::vector<std::string> names;
        for (const auto &item :
             std::filesystem::directory_iterator(std::filesystem::path(image_).parent_path())) {
            names.push_back(item.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string tree_;
};

} // namespace testing_support
