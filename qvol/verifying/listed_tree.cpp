#include "qvol/verifying/listed_tree.h"

#include "qvol/file_data.h"
#include "qvol/output.h"
#include "qvol/tree_walk.h"

#include <unordered_map>

namespace qvol {

namespace {

class tree_lister {
public:
    explicit tree_lister(volume &vol) : vol_(vol) {}

    listed_tree list() {
        tree_visitor visitor;
        visitor.visit = [this](const name_path &path, const entry &found, bool) {
            add(path, found);
            return true;
        };
        walk_tree(vol_, {}, vol_.root(), visitor);
        return std::move(tree_);
    }

private:
    void add(const name_path &path, const entry &found) {
        listed_entry listed;
        listed.path = path;
        listed.content.type = found.type();
        try {
            if (found.type() == kind::LINK) {
                listed.content.target = manifest_target(link_target(vol_, found));
            } else if (found.type() == kind::FILE) {
                add_file(found, &listed);
            }
        } catch (const error &why) {
            listed.problem = why.what();
        }
        if (!tree_.emplace(manifest_path(vol_.names(), path), std::move(listed)).second) {
            throw error("cannot list " + shown_path(vol_.names(), path) +
                        ": two entries have this name; repair the volume first");
        }
    }

    void add_file(const entry &found, listed_entry *listed) {
        listed->content.size = found.size();
        const std::vector<u32> clusters = clusters_of_file(vol_.fat(), found.start(), found.size());
        clusters_ += clusters.size();
        if (clusters_ > vol_.on().at.clusters) {
            throw error("files share clusters and need more space than the volume has; repair the "
                        "volume first");
        }
        listed->extents = extents_of(clusters);
    }

    volume &vol_;
    u64 clusters_ = 0;
    listed_tree tree_;
};

// The digesters of files that have been begun and are not complete.
class open_digests {
public:
    open_digests(std::span<listed_entry *const> files, u64 cluster_bytes, u64 piece_bytes)
        : files_(files), cluster_bytes_(cluster_bytes), piece_bytes_(piece_bytes) {}

    void add(std::size_t file, std::span<const u8> bytes) {
        if (!files_[file]->problem.empty()) {
            return;
        }
        const auto [found, is_new] = open_.try_emplace(file);
        if (is_new) {
            found->second.digest =
                std::make_unique<digester>(*files_[file]->content.size, piece_bytes_);
            found->second.left = bytes_of(file);
        }
        found->second.digest->add(bytes);
        found->second.left -= bytes.size();
        if (found->second.left == 0) {
            files_[file]->content.digest = found->second.digest->finish();
            open_.erase(found);
        }
    }

    void fail(std::size_t file, const std::string &why) {
        files_[file]->problem = why;
        open_.erase(file);
    }

private:
    struct open_file {
        std::unique_ptr<digester> digest;
        u64 left = 0; // bytes of its clusters
    };

    [[nodiscard]] u64 bytes_of(std::size_t file) const {
        u64 bytes = 0;
        for (const cluster_extent &extent : files_[file]->extents) {
            bytes += extent.count * cluster_bytes_;
        }
        return bytes;
    }

    std::span<listed_entry *const> files_;
    u64 cluster_bytes_;
    u64 piece_bytes_;
    std::unordered_map<std::size_t, open_file> open_;
};

} // namespace

listed_tree list_tree(volume &vol) {
    return tree_lister(vol).list();
}

void add_digests(const volume &vol, u64 piece_bytes, bool is_quiet, listed_tree *tree) {
    std::vector<listed_entry *> files;
    std::vector<file_extents> extents;
    for (auto &[path, listed] : *tree) {
        if (listed.content.type != kind::FILE || !listed.problem.empty()) {
            continue;
        }
        if (listed.extents.empty()) {
            listed.content.digest = digester(0, piece_bytes).finish();
        } else {
            files.push_back(&listed);
            extents.push_back(listed.extents);
        }
    }
    const std::vector<reading_step> steps = reading_order(vol.on(), extents);
    u64 total = 0;
    for (const reading_step &step : steps) {
        total += u64{step.count} * vol.on().at.sector_size;
    }
    progress bar("read", total, is_quiet);
    open_digests digests(files, vol.on().cluster_bytes(), piece_bytes);
    read_steps(
        vol.on(), steps,
        [&](std::size_t file, std::span<const u8> bytes) {
            digests.add(file, bytes);
            bar.add(bytes.size());
        },
        [&](std::size_t file, const std::string &why) { digests.fail(file, why); });
}

manifest manifest_of(const listed_tree &tree, u64 piece_bytes) {
    manifest result;
    result.piece_bytes = piece_bytes;
    std::vector<std::string> unreadable;
    for (const auto &[path, listed] : tree) {
        result.entries.emplace(path, listed.content);
        if (!listed.problem.empty()) {
            unreadable.push_back(shown_manifest_path(path) + ": " + listed.problem);
        }
    }
    if (!unreadable.empty()) {
        throw error("cannot read all entries", unreadable);
    }
    return result;
}

} // namespace qvol
