// Collects what is to be stored from all requested sources.

#pragma once

#include "qvol/sources/source.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qvol {

// As requested on the command line.
struct source_options {
    std::vector<std::string> from;           // SOURCE or SOURCE:/DIRECTORY; later ones win
    std::vector<std::string> excluded;       // patterns
    std::vector<std::string> excluded_files; // with patterns
    std::vector<std::string> attributes;     // PATTERN=rhsa
    std::string contents;                    // directory with the files of manifests; "": theirs
    std::string times; // keep, clamp or none; "": clamp if SOURCE_DATE_EPOCH is set
    std::string time_zone;
    bool skips_special = false;
    bool dereferences = false;
    bool is_read_only_from_mode = false;
    bool copies_attributes = false; // of files and directories of the host
};

// SOURCE:/DIRECTORY. The whole text is the path of the source if there is such a file.
struct split_from {
    std::string path;
    std::string directory; // of the volume; "/": its root
};
[[nodiscard]] split_from split_source(const std::string &text);

// A tree, with its sources, which have the contents of the files.
class source_tree {
public:
    source_tree() = default; // empty
    source_tree(std::vector<std::unique_ptr<source>> sources, std::vector<source_node> nodes)
        : sources_(std::move(sources)), nodes_(std::move(nodes)) {}

    [[nodiscard]] const std::vector<source_node> &nodes() const {
        return nodes_;
    }
    // Files that are stored more than once because they have several names.
    [[nodiscard]] u64 hard_links() const;

private:
    std::vector<std::unique_ptr<source>> sources_;
    std::vector<source_node> nodes_;
};

class source_collection {
public:
    // Throws usage_error if an option is invalid.
    explicit source_collection(const source_options &options);

    // Entries of the host that the user named: one, or everything below a directory. They come
    // first.
    void add_entry(const std::string &path, const std::string &name);
    void add_children(const std::string &path);

    // Adds source_options::from and checks everything. Throws error with all entries that cannot be
    // stored. `refuse`: adds further problems.
    [[nodiscard]] source_tree finish(
        const name_codec &names, bool allows_long_names,
        const std::function<void(const std::vector<source_node> &, problem_list *)> &refuse = {});

private:
    struct attribute_rule {
        pattern of;
        u32 attributes;
    };

    void parse_attributes();
    void add_nodes(std::vector<source_node> *to, std::vector<source_node> nodes);
    void add_from();
    void set_fields(std::vector<source_node> *nodes, const std::string &above) const;

    const source_options &options_;
    reading_rules rules_;
    std::vector<attribute_rule> attribute_rules_;
    problem_list problems_;
    std::vector<std::unique_ptr<source>> sources_;
    std::vector<source_node> nodes_;
};

} // namespace qvol
