#include "qvol/sources/tree_check.h"

#include "qvol/short_name.h"

#include <unordered_map>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr u64 MAX_FILE_BYTES = 0xFFFFFFFF;

class tree_check {
public:
    tree_check(const name_codec &names, bool allows_long_names, problem_list *problems)
        : names_(names), allows_long_names_(allows_long_names), problems_(*problems) {}

    void check(std::vector<source_node> *siblings) {
        for (source_node &node : *siblings) {
            set_name(&node);
            check(&node.children);
            check_size(node);
        }
        check_names(*siblings);
    }

private:
    void set_name(source_node *node) {
        const std::optional<std::u16string> units = names_.to_units(node->host_name);
        const std::optional<std::string> problem =
            units ? name_problem(*units)
                  : "not valid in the name encoding; --encoding chooses another";
        if (problem) {
            problems_.add(node->path, "invalid name: " + *problem);
        } else if (!allows_long_names_ && !cased_short_name_of(*units)) {
            problems_.add(node->path, "long names are off and this name does not fit 8.3 with one "
                                      "case for each half");
        }
        node->name = units.value_or(u"");
        node->slots = allows_long_names_ ? slots_of_name(node->name) : 1;
    }

    void check_size(const source_node &node) {
        if (node.type == kind::LINK && node.size > MAX_TARGET_BYTES) {
            problems_.add(node.path,
                          fmt::format("the link target is longer than {} bytes", MAX_TARGET_BYTES));
        } else if (node.type == kind::FILE && node.size > MAX_FILE_BYTES) {
            problems_.add(node.path, "too large: files on a FAT volume are smaller than 4 GiB");
        }
    }

    void check_names(const std::vector<source_node> &siblings) {
        std::unordered_map<std::u16string, const source_node *> seen;
        for (const source_node &node : siblings) {
            const auto [first, is_new] = seen.try_emplace(fold_case(node.name), &node);
            if (!is_new && !node.name.empty()) {
                problems_.add(node.path, "same name as " + shown_bytes(first->second->path) +
                                             " if case is ignored");
            }
        }
    }

    const name_codec &names_;
    bool allows_long_names_;
    problem_list &problems_;
};

} // namespace

void check_tree(std::vector<source_node> *nodes, const name_codec &names, bool allows_long_names,
                problem_list *problems) {
    tree_check(names, allows_long_names, problems).check(nodes);
}

} // namespace qvol
