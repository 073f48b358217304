// qvol tree: draws the tree below a directory.

#include "qvol/tree_walk.h"

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"

#include <fmt/core.h>

namespace qvol {

namespace {

struct tree_options {
    std::string path = "/";
};

class tree_printer {
public:
    tree_printer(volume &vol, const output &out) : vol_(vol), out_(out) {}

    void print(const resolved_path &top) {
        if (!top.is_directory()) {
            throw error("cannot list " + shown_path(vol_.names(), top.path) + ": not a directory");
        }
        out_.line(shown_path(vol_.names(), top.path));
        tree_visitor visitor;
        visitor.visit = [this](const name_path &, const entry &found, bool is_last) {
            return show(found, is_last);
        };
        visitor.leave = [this](const name_path &) { leave(); };
        visitor.fail = [this](const name_path &path, const std::string &why) {
            leave();
            report(shown_path(vol_.names(), path) + ": " + why);
            status_ = EXIT_FAILED;
        };
        walk_tree(vol_, top.path, open_directory(vol_, top), visitor);
        out_.remark(fmt::format("{}, {}, {}", counted(directories_, "directory", "directories"),
                                counted(files_, "file", "files"),
                                counted(links_, "link", "links")));
    }

    [[nodiscard]] int status() const {
        return status_;
    }

private:
    bool show(const entry &found, bool is_last) {
        out_.line(indent_text() + (is_last ? "└── " : "├── ") + listed_name(vol_.names(), found));
        (found.is_directory() ? directories_ : found.type() == kind::LINK ? links_ : files_)++;
        if (found.is_directory()) {
            has_more_.push_back(!is_last);
        }
        return true;
    }

    void leave() {
        has_more_.pop_back();
    }

    [[nodiscard]] std::string indent_text() const {
        std::string text;
        for (const bool has_more : has_more_) {
            text += has_more ? "│   " : "    ";
        }
        return text;
    }

    volume &vol_;
    const output &out_;
    std::vector<bool> has_more_; // by level: whether more entries follow at that level
    u64 directories_ = 0;
    u64 files_ = 0;
    u64 links_ = 0;
    int status_ = EXIT_DONE;
};

// The tree as nested documents, built with a stack of the open directories.
class tree_document {
public:
    explicit tree_document(volume &vol) : vol_(vol) {}

    [[nodiscard]] json build(const resolved_path &top) {
        tree_visitor visitor;
        visitor.visit = [this](const name_path &path, const entry &found, bool) {
            return add(path, found);
        };
        visitor.leave = [this](const name_path &) { close(); };
        visitor.fail = [this](const name_path &path, const std::string &why) {
            close();
            report(shown_path(vol_.names(), path) + ": " + why);
            status_ = EXIT_FAILED;
        };
        walk_tree(vol_, top.path, open_directory(vol_, top), visitor);
        return {{"path", json_path(top.path)}, {"entries", std::move(entries_)}};
    }

    [[nodiscard]] int status() const {
        return status_;
    }

private:
    bool add(const name_path &path, const entry &found) {
        json document = entry_json(vol_, path, found);
        if (found.is_directory()) {
            open_.push_back({std::move(document), std::exchange(entries_, json::array())});
        } else {
            entries_.push_back(std::move(document));
        }
        return true;
    }

    void close() {
        auto [closed, siblings] = std::move(open_.back());
        open_.pop_back();
        closed.add("entries", std::move(entries_));
        entries_ = std::move(siblings);
        entries_.push_back(std::move(closed));
    }

    struct open_directory_document {
        json document;
        json siblings; // before it
    };

    volume &vol_;
    std::vector<open_directory_document> open_;
    json entries_ = json::array(); // of the innermost directory
    int status_ = EXIT_DONE;
};

int run_tree(const common_options &common, const tree_options &options) {
    return with_volume(common, access::READ, [&](volume &vol) {
        const resolved_path top = resolve(vol, options.path);
        if (!common.out.is_json) {
            tree_printer printer(vol, common.out);
            printer.print(top);
            return printer.status();
        }
        tree_document document(vol);
        common.out.document(document.build(top));
        return document.status();
    });
}

} // namespace

void add_tree(command_line *commands) {
    const auto [tree, options] = commands->add({"tree", "Show everything below a directory",
                                                "  qvol tree flash.img\n"
                                                "  qvol tree flash.img /photos/2024"},
                                               run_tree);
    tree.value("PATH", &options->path, "Directory to start at (default: the root)");
}

} // namespace qvol
