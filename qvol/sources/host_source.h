// A source in the file system of the host. Scanning does not read files and follows no links.

#pragma once

#include "qvol/sources/source.h"

#include <set>
#include <utility>

struct stat;

namespace qvol {

class host_source : public source {
public:
    // `top`: the directory that load() reads; empty for a source of named entries.
    explicit host_source(std::string top = "") : top_(std::move(top)) {}

    [[nodiscard]] std::vector<source_node> load(const reading_rules &rules,
                                                problem_list *problems) override;

    // The entry at `path`, to be stored as `name`, with everything below it.
    [[nodiscard]] source_node load_entry(const std::string &path, const std::string &name,
                                         const reading_rules &rules, problem_list *problems);

    // Everything below a directory.
    [[nodiscard]] std::vector<source_node>
    load_children(const std::string &path, const reading_rules &rules, problem_list *problems);

    void copy(const std::vector<content_request> &wanted, content_sink *sink) override;

    [[nodiscard]] u64 hard_links() const override {
        return hard_links_;
    }

private:
    // A directory while it is scanned: its path on the host and below the top.
    struct level {
        const std::string &path;
        std::string below; // "" for the top, else with a slash at its end
        const reading_rules &rules;
        problem_list *problems;
    };

    [[nodiscard]] std::vector<source_node> scan_children(const level &of);
    [[nodiscard]] source_node scan(const std::string &path, const std::string &name,
                                   const std::string &below, const struct stat &status,
                                   const level &of);
    void count_hard_link(const struct stat &status);

    std::string top_;
    u64 files_ = 0;
    u64 hard_links_ = 0;
    std::set<std::pair<u64, u64>> linked_; // device and inode of files with several names
};

// Copies an open file to where the sink has begun with it.
void copy_file(int file, const source_node &node, content_sink *sink);

} // namespace qvol
