// A source that is an archive. It is read twice, and never unpacked: first for its names and sizes,
// then for the contents, which go to their clusters in the order of the archive.

#pragma once

#include "core/resources.h"
#include "qvol/sources/source.h"
#include "qvol/sources/tree_builder.h"

#include <vector>

namespace qvol {

class archive_source : public source {
public:
    // `fd`: the open file, at any position; `path` for messages.
    archive_source(core::unique_fd fd, std::string path);

    [[nodiscard]] std::vector<source_node> load(const reading_rules &rules,
                                                problem_list *problems) override;
    void copy(const std::vector<content_request> &wanted, content_sink *sink) override;

    [[nodiscard]] u64 hard_links() const override {
        return hard_links_;
    }

private:
    // The content of a file and of all hard links to it.
    struct content {
        u64 entry; // number of the entry of the archive that has it
        u64 size;
    };

    [[nodiscard]] bool set_hard_link(const archived_entry &entry, u64 number,
                                     const source_node &linked, source_node *node);
    void add(const archived_entry &entry, u64 number, tree_builder *tree, problem_list *problems);
    void set_sizes(std::vector<source_node> *nodes) const;

    core::unique_fd fd_;
    std::string path_;
    std::vector<content> contents_;
    u64 hard_links_ = 0;
};

} // namespace qvol
