#include "qvol/new_volume.h"

#include "qvol/error.h"
#include "qvol/import.h"
#include "qvol/whole_volume.h"

#include <filesystem>
#include <optional>

#include <fmt/core.h>

namespace qvol {

namespace {

std::vector<const reserved_file *> reserved_files(const volume_source &source) {
    std::vector<const reserved_file *> files;
    if (source.has_pool) {
        files.push_back(&POOL_FILE);
    }
    if (source.has_log) {
        files.push_back(&LOG_FILE);
    }
    return files;
}

// A problem if a node has the name of a reserved file.
std::optional<std::string> reserved_problem(const source_node &node, const volume_source &source) {
    for (const reserved_file *file : reserved_files(source)) {
        if (fold_case(node.name) == units_of_utf8(file->name)) {
            const char *option = file == &POOL_FILE ? "--pool" : "--log";
            return fmt::format("{}: {} makes this file; omit {} or remove the file",
                               shown_bytes(node.path), option, option);
        }
    }
    return std::nullopt;
}

} // namespace

source_tree load_source(const volume_source &source, const name_codec &names) {
    return source_collection(source.content)
        .finish(names, !source.is_short,
                [&](const std::vector<source_node> &nodes, problem_list *problems) {
                    for (const source_node &node : nodes) {
                        const std::optional<std::string> problem = reserved_problem(node, source);
                        if (problem) {
                            problems->add_line(*problem);
                        }
                    }
                });
}

volume_content content_of(const volume_source &source, const std::vector<source_node> &nodes) {
    volume_content content = {
        source.content.from.size() == 1 ? shown_bytes(source.content.from.front())
                                        : "the requested content",
        cluster_counts(nodes),
        static_cast<u32>(slots_needed(nodes)) + (source.identity.label.empty() ? 0 : 1),
        {}};
    for (const reserved_file *file : reserved_files(source)) {
        content.root_slots++;
        content.reserved_files.push_back(file->bytes);
    }
    return content;
}

void refuse_own_source(const std::string &image, const volume_source &source) {
    std::error_code failure;
    const std::filesystem::path resolved = std::filesystem::canonical(image, failure);
    if (failure) {
        return;
    }
    for (const std::string &text : source.content.from) {
        const std::string from = split_source(text).path;
        const std::filesystem::path top = std::filesystem::canonical(from, failure);
        if (!failure && resolved == top) {
            throw error(
                fmt::format("cannot build {}: it is one of its sources", shown_bytes(image)));
        }
        if (!failure && resolved.string().starts_with((top / "").string())) {
            throw error(
                fmt::format("cannot build {}: it is below {} and would contain itself; choose "
                            "another path",
                            shown_bytes(image), shown_bytes(from)));
        }
    }
}

std::unique_ptr<volume> make_volume(target &where, const volume_shape &shape,
                                    const volume_source &source,
                                    const std::vector<source_node> &nodes,
                                    const std::string &encoding, progress *bar) {
    format_target(where, shape, source.identity);
    auto vol = std::make_unique<volume>(where, encoding);
    if (source.leaves_copies) {
        vol->fat().leave_other_copies();
    }
    for (const reserved_file *file : reserved_files(source)) {
        make_reserved_file(*vol, *file);
    }
    import_plan plan(*vol, false, !source.is_short);
    plan.plan(nodes, vol->root(), "/");
    plan.write(bar);
    return vol;
}

std::string shape_remark(const volume_shape &shape) {
    return shape.is_small_fat32()
               ? fmt::format("FAT32 with {} clusters: Linux and most firmware read it, systems "
                             "that expect {} or more do not",
                             shape.clusters, core::FAT32_MIN_CLUSTERS)
               : "";
}

} // namespace qvol
