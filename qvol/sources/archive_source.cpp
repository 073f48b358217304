#include "qvol/sources/archive_source.h"

#include "qvol/error.h"
#include <array>
#include <unordered_map>

#include <sys/stat.h>

namespace qvol {

namespace {

// Not of a hard link that only refers to another entry.
bool has_content(const archived_entry &entry) {
    return entry.hard_link.empty() ? S_ISREG(entry.mode) : entry.size > 0;
}

error wrong_size(const std::string &path) {
    return error("cannot copy " + shown_bytes(path) +
                 ": its size is not the one that the archive states; nothing was written");
}

void copy_entry(archive_reader *archive, const source_node &node, content_sink *sink) {
    std::array<u8, 1> past_end{};
    u64 done = 0;
    while (done < node.size) {
        const std::size_t count = archive->read(sink->room());
        if (count == 0) {
            throw wrong_size(node.path);
        }
        sink->add(count);
        done += count;
    }
    if (archive->read(past_end) != 0) {
        throw wrong_size(node.path);
    }
}

} // namespace

archive_source::archive_source(core::unique_fd fd, std::string path)
    : fd_(std::move(fd)), path_(std::move(path)) {}

// The node of a hard link: a copy of the link or the file that it refers to.
bool archive_source::set_hard_link(const archived_entry &entry, u64 number,
                                   const source_node &linked, source_node *node) {
    if (linked.type == kind::LINK) {
        node->type = kind::LINK;
        node->target = linked.target;
        node->size = linked.size;
        return true;
    }
    if (linked.from != this) {
        return false;
    }
    node->from = this;
    node->content = linked.content;
    hard_links_++;
    if (has_content(entry)) {
        contents_[node->content] = {number, entry.size};
    }
    return true;
}

void archive_source::add(const archived_entry &entry, u64 number, tree_builder *tree,
                         problem_list *problems) {
    const source_node *const found = tree->find(entry.hard_link);
    const source_node linked = found != nullptr ? *found : source_node();
    source_node *const node = tree->add(entry);
    if (node == nullptr || node->type != kind::FILE) {
        return;
    }
    if (entry.hard_link.empty()) {
        node->from = this;
        node->content = contents_.size();
        contents_.push_back({number, entry.size});
    } else if (!set_hard_link(entry, number, linked, node)) {
        problems->add(tree->shown(entry.name), "is a hard link to " + shown_bytes(entry.hard_link) +
                                                   ", which is missing or left out");
    }
}

void archive_source::set_sizes(std::vector<source_node> *nodes) const {
    for (source_node &node : *nodes) {
        if (node.from == this) {
            node.size = contents_[node.content].size;
        }
        set_sizes(&node.children);
    }
}

std::vector<source_node> archive_source::load(const reading_rules &rules, problem_list *problems) {
    archive_reader archive(fd_.get(), path_);
    tree_builder tree(path_, rules, problems);
    u64 number = 0;
    for (std::optional<archived_entry> entry = archive.next(); entry; entry = archive.next()) {
        if (has_content(*entry) && !entry->has_size) {
            entry->size = archive.skip_content();
        }
        add(*entry, number++, &tree, problems);
    }
    std::vector<source_node> nodes = tree.take();
    set_sizes(&nodes);
    return nodes;
}

void archive_source::copy(const std::vector<content_request> &wanted, content_sink *sink) {
    std::unordered_map<u64, const content_request *> by_entry;
    for (const content_request &request : wanted) {
        by_entry.emplace(contents_[request.node->content].entry, &request);
    }
    archive_reader archive(fd_.get(), path_);
    for (u64 number = 0; !by_entry.empty(); number++) {
        if (!archive.next()) {
            throw changed_while_read(by_entry.begin()->second->node->path);
        }
        const auto found = by_entry.find(number);
        if (found != by_entry.end()) {
            sink->begin(*found->second);
            copy_entry(&archive, *found->second->node, sink);
            sink->end();
            by_entry.erase(found);
        }
    }
}

} // namespace qvol
