#include "qvol/sources/collection.h"

#include "qvol/error.h"
#include "qvol/sources/host_source.h"
#include "qvol/sources/links.h"
#include "qvol/sources/merging.h"
#include "qvol/sources/opening.h"
#include "qvol/sources/tree_check.h"
#include "qvol/times.h"

#include <algorithm>
#include <filesystem>
#include <iterator>

namespace qvol {

namespace {

bool exists(const std::string &path) {
    std::error_code failure;
    return std::filesystem::exists(path, failure);
}

bool comes_before(const source_node &one, const source_node &other) {
    return one.host_name < other.host_name;
}

} // namespace

split_from split_source(const std::string &text) {
    const std::size_t colon = text.rfind(":/");
    if (colon == std::string::npos || colon == 0 || exists(text)) {
        return {text, "/"};
    }
    split_from split = {text.substr(0, colon), text.substr(colon + 1)};
    if (std::count(split.directory.begin(), split.directory.end(), '/') > MAX_TREE_DEPTH) {
        throw usage_error("--from " + shown_bytes(split.path) + ":/...: " + TOO_DEEP);
    }
    return split;
}

u64 source_tree::hard_links() const {
    u64 sum = 0;
    for (const auto &one : sources_) {
        sum += one->hard_links();
    }
    return sum;
}

// ---- collecting -------------------------------------------------------------------------------

source_collection::source_collection(const source_options &options) : options_(options) {
    rules_.skips_special = options.skips_special;
    rules_.reads_attributes = options.copies_attributes;
    for (const std::string &text : options.excluded) {
        rules_.excluded.add(text);
    }
    for (const std::string &path : options.excluded_files) {
        rules_.excluded.add_file(path);
    }
    parse_attributes();
    if (!options.time_zone.empty()) {
        set_time_zone(options.time_zone);
    }
    if (options.times == "keep") {
        allow_late_stamps();
    }
}

void source_collection::parse_attributes() {
    for (const std::string &text : options_.attributes) {
        const std::size_t equals = std::min(text.rfind('='), text.size());
        const std::optional<u32> attributes =
            equals < text.size() ? attributes_of_letters(text.substr(equals + 1)) : std::nullopt;
        if (equals == 0 || !attributes) {
            throw usage_error("--attr " + shown_bytes(text) +
                              ": must be PATTERN= with letters of \"rhsa\"");
        }
        attribute_rules_.push_back({pattern(text.substr(0, equals)), *attributes});
    }
}

void source_collection::add_entry(const std::string &path, const std::string &name) {
    auto from = std::make_unique<host_source>();
    std::vector<source_node> entry;
    entry.push_back(from->load_entry(path, name, rules_, &problems_));
    sources_.push_back(std::move(from));
    add_nodes(&nodes_, std::move(entry));
}

void source_collection::add_children(const std::string &path) {
    sources_.push_back(std::make_unique<host_source>(path));
    add_nodes(&nodes_, sources_.back()->load(rules_, &problems_));
}

// Of one source, whose links lead no further.
void source_collection::add_nodes(std::vector<source_node> *to, std::vector<source_node> nodes) {
    if (options_.dereferences) {
        nodes = without_links(std::move(nodes), &problems_);
    }
    std::move(nodes.begin(), nodes.end(), std::back_inserter(*to));
}

// The root of a volume has no entry: a source is the content of a directory.
void source_collection::add_from() {
    if (!options_.from.empty()) {
        std::stable_sort(nodes_.begin(), nodes_.end(), comes_before);
    }
    for (const std::string &text : options_.from) {
        const split_from where = split_source(text);
        sources_.push_back(open_source(where.path, options_.contents));
        std::vector<source_node> nodes;
        add_nodes(&nodes, sources_.back()->load(rules_, &problems_));
        merge_tree(&nodes_, tree_below(where.directory, std::move(nodes)), &problems_);
    }
}

// Times and attributes, as requested. `above`: path of the directory, with a slash at its end, or
// "".
void source_collection::set_fields(std::vector<source_node> *nodes,
                                   const std::string &above) const {
    for (source_node &node : *nodes) {
        const std::string path = above + node.host_name;
        const bool is_directory = node.type == kind::DIRECTORY;
        if (options_.times == "none") {
            node.modified = current_time();
        } else if (options_.times == "clamp") {
            node.modified = std::min(node.modified, current_time());
        }
        if (options_.is_read_only_from_mode && node.is_read_only) {
            node.attributes = node.attributes.value_or(0) | core::ATTR_READ_ONLY;
        }
        for (const attribute_rule &rule : attribute_rules_) {
            if (rule.of.matches(path, is_directory)) {
                node.attributes = rule.attributes;
            }
        }
        set_fields(&node.children, path + "/");
    }
}

source_tree source_collection::finish(
    const name_codec &names, bool allows_long_names,
    const std::function<void(const std::vector<source_node> &, problem_list *)> &refuse) {
    add_from();
    set_fields(&nodes_, "");
    check_tree(&nodes_, names, allows_long_names, &problems_);
    if (refuse) {
        refuse(nodes_, &problems_);
    }
    problems_.refuse();
    return {std::move(sources_), std::move(nodes_)};
}

} // namespace qvol
