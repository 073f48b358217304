#include "qvol/sources/links.h"

#include <algorithm>

namespace qvol {

namespace {

constexpr u64 MAX_ENTRIES =
    u64{4} * 1024 * 1024;     // that links lead to: each can double what is below
constexpr u32 MAX_LINKS = 40; // on the way of one link, as in the kernel

// A directory and those above it, the top first.
using location = std::vector<const source_node *>;

class link_resolver {
public:
    link_resolver(std::vector<source_node> nodes, problem_list *problems) : problems_(*problems) {
        top_.type = kind::DIRECTORY;
        top_.children = std::move(nodes);
    }

    std::vector<source_node> resolve() {
        return children_of({&top_});
    }

private:
    // Where a path leads: an entry and the directory that contains it.
    struct found_entry {
        const source_node *node;
        location in;
    };

    void refuse(const source_node &link, const std::string &why) {
        problems_.add(link.path, "cannot store what the link leads to: " + why);
    }

    // By its name; null if there is no such entry.
    static const source_node *child_of(const source_node &directory, const std::string &name) {
        const auto found =
            std::lower_bound(directory.children.begin(), directory.children.end(), name,
                             [](const source_node &child, const std::string &wanted) {
                                 return child.host_name < wanted;
                             });
        return found != directory.children.end() && found->host_name == name ? &*found : nullptr;
    }

    // Follows one component. Returns what is wrong, or "".
    std::string step(const std::string &component, found_entry *at, u32 *links) {
        if (at->node->type != kind::DIRECTORY) {
            return "there is no such file";
        }
        if (component == "..") {
            if (at->in.empty()) {
                return "it is outside of the source";
            }
            at->node = at->in.back();
            at->in.pop_back();
            return "";
        }
        const source_node *const child = child_of(*at->node, component);
        if (child == nullptr) {
            return "there is no such file";
        }
        if (child->type == kind::LINK) {
            return ++*links > MAX_LINKS ? "too many links" : follow(child->target, at, links);
        }
        at->in.push_back(at->node);
        at->node = child;
        return "";
    }

    // Follows a path from a directory on.
    std::string follow(const std::string &path, found_entry *at, u32 *links) {
        if (path.starts_with('/')) {
            return "it is outside of the source";
        }
        for (std::size_t start = 0; start < path.size();) {
            const std::size_t end = std::min(path.find('/', start), path.size());
            const std::string component = path.substr(start, end - start);
            std::string why =
                component.empty() || component == "." ? "" : step(component, at, links);
            if (!why.empty()) {
                return why;
            }
            start = end + 1;
        }
        return "";
    }

    // The directories of the location without the last one.
    static found_entry entry_of(const location &where) {
        return {where.back(), location(where.begin(), where.end() - 1)};
    }

    std::vector<source_node> children_of(const location &where) {
        std::vector<source_node> children;
        for (const source_node &child : where.back()->children) {
            found_entry leads_to = entry_of(where);
            u32 links = 0;
            if (child.type != kind::LINK) {
                add_copy(child, {&child, where}, &children);
                continue;
            }
            const std::string why = follow(child.target, &leads_to, &links);
            if (!why.empty()) {
                refuse(child, why);
            } else {
                add_copy(child, leads_to, &children);
            }
        }
        return children;
    }

    // Under the name of the link, at its position.
    void add_copy(const source_node &name, const found_entry &of, std::vector<source_node> *to) {
        if (std::find(open_.begin(), open_.end(), of.node) != open_.end() || of.node == &top_) {
            refuse(name, "it is in what it leads to");
            return;
        }
        if (open_.size() >= std::size_t{MAX_TREE_DEPTH}) {
            refuse(name, TOO_DEEP);
            return;
        }
        if (++entries_ > MAX_ENTRIES) {
            throw error("cannot store what the links lead to: more than 4,194,304 entries");
        }
        source_node copy;
        const source_node &node = *of.node;
        copy.path = node.path;
        copy.host_name = name.host_name;
        copy.type = node.type;
        copy.size = node.size;
        copy.modified = node.modified;
        copy.is_read_only = node.is_read_only;
        copy.attributes = node.attributes;
        copy.from = node.from;
        copy.content = node.content;
        if (node.type == kind::DIRECTORY) {
            location inside = of.in;
            inside.push_back(&node);
            open_.push_back(&node);
            copy.children = children_of(inside);
            open_.pop_back();
        }
        to->push_back(std::move(copy));
    }

    problem_list &problems_;
    source_node top_;
    location open_; // directories that are being copied
    u64 entries_ = 0;
};

} // namespace

std::vector<source_node> without_links(std::vector<source_node> nodes, problem_list *problems) {
    return link_resolver(std::move(nodes), problems).resolve();
}

} // namespace qvol
