// qvol attr: prints or changes the attributes of entries.

#include "qvol/commands/change.h"
#include "qvol/commands/commands.h"
#include "qvol/tree_walk.h"

#include <map>
#include <utility>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr const char *FIND = "find the attributes of";

struct attr_options {
    std::vector<std::string> words; // with IMAGE, which the letters may precede
    bool clears_read_only = false;
    bool clears_hidden = false;
    bool clears_system = false;
    bool clears_archive = false;
    bool is_recursive = false;
};

// ---- the request ------------------------------------------------------------------------------

struct attr_request {
    common_options common;
    std::vector<std::string> paths;
    u32 set = 0;
    u32 cleared = 0;

    [[nodiscard]] bool is_change() const {
        return (set | cleared) != 0;
    }
};

// "+rh"
u32 parse_letters(const std::string &word) {
    const u32 bits = attributes_of_letters(word.substr(1)).value_or(0);
    if (bits == 0) {
        throw usage_error(fmt::format("{}: must be letters of rhsa after the +; a path that begins "
                                      "with + is written /+",
                                      shown_bytes(word)));
    }
    return bits;
}

u32 cleared_bits(const attr_options &options) {
    return (options.clears_read_only ? core::ATTR_READ_ONLY : 0) |
           (options.clears_hidden ? core::ATTR_HIDDEN : 0) |
           (options.clears_system ? core::ATTR_SYSTEM : 0) |
           (options.clears_archive ? core::ATTR_ARCHIVE : 0);
}

// Separates the letters from IMAGE and the paths.
attr_request request_of(const common_options &common, const attr_options &options) {
    attr_request request = {common, {}, 0, cleared_bits(options)};
    std::vector<std::string> words = options.words;
    words.insert(words.begin(), common.image);
    for (const std::string &word : words) {
        if (word.starts_with('+')) {
            request.set |= parse_letters(word);
        } else {
            request.paths.push_back(word);
        }
    }
    if (request.paths.size() < 2) {
        throw usage_error("IMAGE and PATH are required");
    }
    if ((request.set & request.cleared) != 0) {
        throw usage_error("the same attribute is set and cleared");
    }
    request.common.image = request.paths.front();
    request.paths.erase(request.paths.begin());
    return request;
}

// ---- entries ----------------------------------------------------------------------------------

// The requested entries, and the directory of each.
class attr_list {
public:
    explicit attr_list(volume &vol) : vol_(vol) {}

    void add(const resolved_path &where) {
        if (where.is_root()) {
            fail(vol_, FIND, where.path, "is the root directory, which has none");
        }
        listed_.push_back({where.path, where.parent.start(), *where.found});
    }

    void add_below(const resolved_path &top) {
        std::vector<u32> parents = {top.start()};
        tree_visitor visitor;
        visitor.visit = [&](const name_path &path, const entry &found, bool) {
            parents.resize(path.size() - top.path.size());
            listed_.push_back({path, parents.back(), found});
            parents.push_back(found.start());
            return true;
        };
        walk_tree(vol_, top.path, open_directory(vol_, top), visitor);
    }

    void change(const attr_request &request) {
        std::map<u32, std::vector<const entry *>> by_directory;
        for (listed_entry &one : listed_) {
            one.found.set_attributes((one.found.attributes() | request.set) & ~request.cleared);
            by_directory[one.parent].push_back(&one.found);
        }
        for (const auto &[start, changed] : by_directory) {
            directory dir(vol_.fat(), start);
            for (const entry *one : changed) {
                dir.update(*one);
            }
            vol_.commit_additions({&dir});
        }
    }

    void print(const output &out) const {
        for (const listed_entry &one : listed_) {
            out.line(attribute_letters(one.found) + " " + shown_path(vol_.names(), one.path));
        }
    }
    [[nodiscard]] json document() const {
        json entries = json::array();
        for (const listed_entry &one : listed_) {
            entries.push_back(entry_json(vol_, one.path, one.found));
        }
        return {{"entries", std::move(entries)}};
    }

private:
    struct listed_entry {
        name_path path;
        u32 parent; // first cluster of its directory
        entry found;
    };

    volume &vol_;
    std::vector<listed_entry> listed_;
};

// With -R the root is not an entry, but what is below it.
attr_list entries_of(volume &vol, const std::vector<std::string> &paths, bool is_recursive) {
    attr_list entries(vol);
    for (const std::string &path : paths) {
        const resolved_path where = resolve(vol, path);
        if (!where.is_root() || !is_recursive) {
            entries.add(where);
        }
        if (where.is_directory() && is_recursive) {
            entries.add_below(where);
        }
    }
    return entries;
}

int run_attr(const common_options &common, const attr_options &options) {
    const attr_request request = request_of(common, options);
    const access wanted = request.is_change() ? access::WRITE : access::READ;
    return with_volume(request.common, wanted, [&](volume &vol) {
        attr_list entries = entries_of(vol, request.paths, options.is_recursive);
        if (request.is_change()) {
            entries.change(request);
        } else {
            entries.print(common.out);
        }
        if (common.out.is_json) {
            common.out.document(entries.document());
        }
        return EXIT_DONE;
    });
}

} // namespace

void add_attr(command_line *commands) {
    const auto [attr, options] =
        commands->add({"attr", "Print or change attributes: read-only, hidden, system, archive",
                       "  qvol attr flash.img /notes.txt\n"
                       "  qvol attr +rh flash.img /notes.txt\n"
                       "  qvol attr -R -a +r flash.img /photos"},
                      run_attr);
    attr.frees_short_help();
    attr.list("[+rhsa] PATH", &options->words, "Attributes to set, and entries").required();
    attr.flag("-r", &options->clears_read_only, "Clear read-only");
    attr.flag("-h", &options->clears_hidden, "Clear hidden; help is --help only");
    attr.flag("-s", &options->clears_system, "Clear system");
    attr.flag("-a", &options->clears_archive, "Clear archive");
    attr.flag("-R,--recursive", &options->is_recursive, "Everything below directories as well");
}

} // namespace qvol
