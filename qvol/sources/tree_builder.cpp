#include "qvol/sources/tree_builder.h"

#include "qvol/times.h"

#include <sys/stat.h>

namespace qvol {

namespace {

std::vector<std::string> components_of(const std::string &path) {
    std::vector<std::string> components;
    for (std::size_t at = 0; at <= path.size();) {
        const std::size_t end = std::min(path.find('/', at), path.size());
        const std::string component = path.substr(at, end - at);
        if (!component.empty() && component != ".") {
            components.push_back(component);
        }
        at = end + 1;
    }
    return components;
}

// The attributes that the words of BSD state; no value: none.
std::optional<u32> attributes_of_flags(const std::string &flags) {
    static const std::map<std::string_view, u32> WORDS = {
        {"rdonly", core::ATTR_READ_ONLY},   {"urdonly", core::ATTR_READ_ONLY},
        {"readonly", core::ATTR_READ_ONLY}, {"hidden", core::ATTR_HIDDEN},
        {"uhidden", core::ATTR_HIDDEN},     {"system", core::ATTR_SYSTEM},
        {"usystem", core::ATTR_SYSTEM},     {"archive", core::ATTR_ARCHIVE},
        {"uarch", core::ATTR_ARCHIVE},      {"uarchive", core::ATTR_ARCHIVE}};
    std::optional<u32> attributes;
    for (std::size_t at = 0; at < flags.size();) {
        const std::size_t end = std::min(flags.find(',', at), flags.size());
        const auto found = WORDS.find(std::string_view(flags).substr(at, end - at));
        if (found != WORDS.end()) {
            attributes = attributes.value_or(0) | found->second;
        }
        at = end + 1;
    }
    return attributes;
}

} // namespace

// A node whose children are found by their names.
struct tree_builder::draft {
    source_node node;
    std::map<std::string, draft> children; // by the bytes of the names

    [[nodiscard]] source_node take() {
        for (auto &[name, child] : children) {
            node.children.push_back(child.take());
        }
        children.clear();
        return std::move(node);
    }
};

tree_builder::tree_builder(std::string archive, const reading_rules &rules, problem_list *problems)
    : archive_(std::move(archive)), rules_(rules), problems_(*problems),
      top_(std::make_unique<draft>()) {
    top_->node.type = kind::DIRECTORY;
}

tree_builder::~tree_builder() = default;

void tree_builder::refuse(const std::string &path, const std::string &why) {
    problems_.add(shown(path), why);
}

// Also if a directory above it is.
bool tree_builder::is_left_out(const std::vector<std::string> &path, bool is_directory) const {
    std::string joined;
    for (std::size_t i = 0; i < path.size(); i++) {
        joined += (i == 0 ? "" : "/") + path[i];
        if (rules_.excluded.matches(joined, i + 1 < path.size() || is_directory)) {
            return true;
        }
    }
    return false;
}

// Null, with a problem, if something else than a directory is above the entry.
tree_builder::draft *tree_builder::parent_of(const std::vector<std::string> &path,
                                             const std::string &name) {
    draft *at = top_.get();
    for (std::size_t i = 0; i + 1 < path.size(); i++) {
        const auto [found, is_new] = at->children.try_emplace(path[i]);
        draft &next = found->second;
        if (is_new) {
            next.node.host_name = path[i];
            next.node.path = at->node.path.empty() ? shown(path[i]) : at->node.path + "/" + path[i];
            next.node.type = kind::DIRECTORY;
            next.node.modified = current_time();
        }
        if (next.node.type != kind::DIRECTORY) {
            refuse(name, "is below " + shown_bytes(path[i]) + ", which is not a directory");
            return nullptr;
        }
        at = &next;
    }
    return at;
}

// False if the entry is left out or refused.
bool tree_builder::describe(const archived_entry &entry, source_node *node) {
    constexpr mode_t WRITE_BITS = S_IWUSR | S_IWGRP | S_IWOTH;
    constexpr mode_t ALL_BITS = S_IRWXU | S_IRWXG | S_IRWXO;
    if (S_ISDIR(entry.mode)) {
        node->type = kind::DIRECTORY;
    } else if (S_ISLNK(entry.mode)) {
        node->type = kind::LINK;
        node->target = entry.link_target;
        node->size = node->target.size();
    } else if (S_ISREG(entry.mode) || !entry.hard_link.empty()) {
        node->size = entry.size;
        // A manifest need not state a mode.
        node->is_read_only = (entry.mode & ALL_BITS) != 0 && (entry.mode & WRITE_BITS) == 0;
    } else {
        if (!rules_.skips_special) {
            refuse(entry.name, "neither file, directory nor link; --skip-special leaves it out");
        }
        return false;
    }
    node->attributes = attributes_of_flags(entry.flags);
    node->modified = entry.has_time ? entry.modified : current_time();
    return true;
}

source_node *tree_builder::add(const archived_entry &entry) {
    const std::vector<std::string> path = components_of(entry.name);
    if (path.empty() || is_left_out(path, S_ISDIR(entry.mode))) {
        return nullptr;
    }
    if (std::find(path.begin(), path.end(), "..") != path.end()) {
        refuse(entry.name, "contains \"..\", which could lead out of the volume");
        return nullptr;
    }
    if (path.size() > std::size_t{MAX_TREE_DEPTH}) {
        refuse(entry.name, TOO_DEEP);
        return nullptr;
    }
    source_node node;
    draft *const parent = describe(entry, &node) ? parent_of(path, entry.name) : nullptr;
    if (parent == nullptr) {
        return nullptr;
    }
    node.host_name = path.back();
    node.path =
        parent->node.path.empty() ? shown(path.back()) : parent->node.path + "/" + path.back();
    const auto [found, is_new] = parent->children.try_emplace(path.back());
    draft &to = found->second;
    if (!is_new && (to.node.type == kind::DIRECTORY) != (node.type == kind::DIRECTORY)) {
        refuse(entry.name, "is there twice, as a directory and as something else");
        return nullptr;
    }
    to.node = std::move(node);
    return &to.node;
}

source_node *tree_builder::find(const std::string &path) {
    draft *at = top_.get();
    for (const std::string &component : components_of(path)) {
        const auto found = at->children.find(component);
        if (found == at->children.end()) {
            return nullptr;
        }
        at = &found->second;
    }
    return at == top_.get() ? nullptr : &at->node;
}

std::vector<source_node> tree_builder::take() {
    return top_->take().children;
}

} // namespace qvol
