#include "qvol/sources/merging.h"

#include "qvol/times.h"

#include <iterator>

namespace qvol {

namespace {

// Two entries of one name.
void merge_entry(source_node *into, source_node &&later, problem_list *problems) {
    const bool is_directory = into->type == kind::DIRECTORY;
    if (is_directory != (later.type == kind::DIRECTORY)) {
        problems->add(later.path, std::string(is_directory ? "is a directory in "
                                                           : "is a directory, but not in ") +
                                      shown_bytes(into->path));
        return;
    }
    std::vector<source_node> children = std::move(into->children);
    merge_tree(&children, std::move(later.children), problems);
    *into = std::move(later);
    into->children = std::move(children);
}

} // namespace

void merge_tree(std::vector<source_node> *into, std::vector<source_node> &&later,
                problem_list *problems) {
    std::vector<source_node> earlier = std::move(*into);
    into->clear();
    into->reserve(earlier.size() + later.size());
    auto next = later.begin();
    for (source_node &node : earlier) {
        for (; next != later.end() && next->host_name < node.host_name; ++next) {
            into->push_back(std::move(*next));
        }
        into->push_back(std::move(node));
        if (next != later.end() && next->host_name == into->back().host_name) {
            merge_entry(&into->back(), std::move(*next), problems);
            ++next;
        }
    }
    std::move(next, later.end(), std::back_inserter(*into));
}

std::vector<source_node> tree_below(const std::string &directory, std::vector<source_node> nodes) {
    const std::size_t last = directory.find_last_not_of('/');
    if (last == std::string::npos) {
        return nodes;
    }
    const std::size_t slash = directory.rfind('/', last);
    const std::size_t start = slash == std::string::npos ? 0 : slash + 1;
    source_node made;
    made.host_name = directory.substr(start, last + 1 - start);
    made.path = directory;
    made.type = kind::DIRECTORY;
    made.modified = current_time();
    made.children = std::move(nodes);
    std::vector<source_node> above;
    above.push_back(std::move(made));
    return tree_below(directory.substr(0, start), std::move(above));
}

} // namespace qvol
