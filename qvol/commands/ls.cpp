// qvol ls: lists directories.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/tree_walk.h"

#include <fmt/core.h>

namespace qvol {

namespace {

struct ls_options {
    std::vector<std::string> paths;
    bool is_long = false;
    bool is_recursive = false;
};

class lister {
public:
    lister(volume &vol, const ls_options &options, const output &out)
        : vol_(vol), options_(options), out_(out) {}

    void list(const std::string &path) {
        const resolved_path where = resolve(vol_, path);
        if (!where.is_directory()) {
            show(where.path, *where.found);
            return;
        }
        list_directory(where.path, open_directory(vol_, where));
    }

    [[nodiscard]] json take_documents() {
        return std::move(documents_);
    }
    [[nodiscard]] int status() const {
        return status_;
    }

private:
    // Prints all entries of a directory before those below it, as ls -R does.
    void list_directory(const name_path &path, const directory &top) {
        if (!options_.is_recursive) {
            show_all(path, listed_entries(top));
            return;
        }
        show_titled(path, listed_entries(top));
        tree_visitor visitor;
        visitor.enter = [this](const name_path &at, const std::vector<entry> &entries) {
            out_.line("");
            show_titled(at, entries);
        };
        visitor.fail = [this](const name_path &at, const std::string &why) { fail(at, why); };
        walk_tree(vol_, path, top, visitor);
    }

    void show_titled(const name_path &path, const std::vector<entry> &entries) {
        out_.line(shown_path(vol_.names(), path) + ":");
        show_all(path, entries);
    }

    void show_all(const name_path &path, const std::vector<entry> &entries) {
        for (const entry &found : entries) {
            name_path at = path;
            at.push_back(found.name);
            show(at, found);
        }
    }

    void show(const name_path &path, const entry &found) {
        if (out_.is_json) {
            documents_.push_back(entry_json(vol_, path, found));
        } else {
            out_.line(options_.is_long ? long_line(path, found) : listed_name(vol_.names(), found));
        }
    }

    [[nodiscard]] std::string long_line(const name_path &path, const entry &found) {
        std::string line = fmt::format("{} {:>10} {} {}", attribute_letters(found),
                                       found.is_directory() ? 0 : found.size(),
                                       text_of(found.modified()), listed_name(vol_.names(), found));
        if (found.type() == kind::LINK) {
            try {
                line += " -> " + shown_bytes(link_target(vol_, found));
            } catch (const error &why) {
                fail(path, why.what());
            }
        }
        return line;
    }

    void fail(const name_path &path, const std::string &why) {
        report("cannot read " + shown_path(vol_.names(), path) + ": " + why);
        status_ = EXIT_FAILED;
    }

    volume &vol_;
    const ls_options &options_;
    const output &out_;
    json documents_ = json::array();
    int status_ = EXIT_DONE;
};

int run_ls(const common_options &common, const ls_options &options) {
    return with_volume(common, access::READ, [&](volume &vol) {
        lister list(vol, options, common.out);
        const std::vector<std::string> root = {"/"};
        for (const std::string &path : options.paths.empty() ? root : options.paths) {
            list.list(path);
        }
        if (common.out.is_json) {
            common.out.document({{"entries", list.take_documents()}});
        }
        return list.status();
    });
}

} // namespace

void add_ls(command_line *commands) {
    const auto [ls, options] = commands->add({"ls", "List directories",
                                              "  qvol ls flash.img\n"
                                              "  qvol ls -l flash.img /photos\n"
                                              "  qvol ls -R --json flash.img"},
                                             run_ls);
    ls.list("PATH", &options->paths, "Directories or files (default: the root)");
    ls.flag("-l,--long", &options->is_long, "Show kind, attributes, size, time, link target");
    ls.flag("-R,--recursive", &options->is_recursive, "List the directories below as well");
}

} // namespace qvol
