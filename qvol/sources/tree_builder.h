// Builds a tree from paths in any order, as archives and manifests have them. Directories that are
// not listed themselves are made. Of two entries with one path the later one counts.
//
// No path leads out of the tree: slashes at its start and components "." do not count, ".." is
// refused, and nothing can be below a link or a file.

#pragma once

#include "qvol/sources/archive.h"
#include "qvol/sources/source.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qvol {

class tree_builder {
public:
    // `archive`: for messages. The other parameters must outlive the builder.
    tree_builder(std::string archive, const reading_rules &rules, problem_list *problems);
    ~tree_builder();
    tree_builder(const tree_builder &) = delete;
    tree_builder &operator=(const tree_builder &) = delete;

    // Adds an entry, without its content; null if it is left out or refused. The reference is valid
    // until the next call.
    source_node *add(const archived_entry &entry);

    // The entry at a path; null if there is no such entry.
    [[nodiscard]] source_node *find(const std::string &path);

    // All entries, sorted.
    [[nodiscard]] std::vector<source_node> take();

    // A path of the archive for messages.
    [[nodiscard]] std::string shown(const std::string &path) const {
        return archive_ + ": " + path;
    }

private:
    struct draft;

    [[nodiscard]] bool is_left_out(const std::vector<std::string> &path, bool is_directory) const;
    [[nodiscard]] draft *parent_of(const std::vector<std::string> &path, const std::string &name);
    [[nodiscard]] bool describe(const archived_entry &entry, source_node *node);
    void refuse(const std::string &path, const std::string &why);

    std::string archive_;
    const reading_rules &rules_;
    problem_list &problems_;
    std::unique_ptr<draft> top_;
};

} // namespace qvol
