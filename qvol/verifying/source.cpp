#include "qvol/verifying/source.h"

#include "core/medium.h"
#include "qvol/host.h"
#include "qvol/sources/host_source.h"
#include "qvol/sources/tree_check.h"
#include "qvol/verifying/listed_tree.h"

#include <algorithm>
#include <array>
#include <fstream>

#include <fcntl.h>

namespace qvol {

namespace {

// ---- manifest ----

class manifest_content : public verification_source {
public:
    explicit manifest_content(const std::string &path) {
        content_ = read_manifest(path);
    }
};

// ---- directory ----

class host_content : public verification_source {
public:
    host_content(const std::string &path, const std::string &encoding, bool is_quiet)
        : names_(encoding) {
        problem_list problems;
        std::vector<source_node> nodes = host_source(path).load({{}, false, true}, &problems);
        check_tree(&nodes, names_, true, &problems);
        if (!problems.lines().empty()) {
            throw error("cannot compare with " + shown_bytes(path) +
                            ": a volume cannot store these entries",
                        problems.lines());
        }
        content_.states_rest = false;
        content_.lists_reserved = false;
        progress bar("read", totals_of(nodes).bytes, is_quiet);
        add({}, nodes, &bar);
    }

    [[nodiscard]] bool has_bytes() const override {
        return true;
    }

    [[nodiscard]] std::vector<u8> read(const std::string &path, u64 offset,
                                       std::size_t bytes) override {
        const std::string &host_path = host_paths_.at(path);
        const core::unique_fd file(open(host_path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        if (file.get() < 0) {
            throw system_failure("open " + shown_bytes(host_path));
        }
        std::vector<u8> result(bytes);
        core::file_medium medium(file.get(), 0);
        const core::s64 count = medium.read(offset, result);
        if (count < 0) {
            throw system_failure("read " + shown_bytes(host_path), static_cast<int>(-count));
        }
        result.resize(static_cast<std::size_t>(count));
        return result;
    }

private:
    void add(const name_path &parent, const std::vector<source_node> &nodes, progress *bar) {
        for (const source_node &node : nodes) {
            name_path path = parent;
            path.push_back(node.name);
            const std::string key = manifest_path(names_, path);
            host_paths_.emplace(key, node.path);
            expected_entry entry;
            entry.type = node.type;
            if (node.type == kind::FILE) {
                entry.size = node.size;
                entry.digest = digest_of(key, node, bar);
            } else if (node.type == kind::LINK) {
                entry.target = manifest_target(node.target);
            }
            content_.entries.emplace(key, std::move(entry));
            add(path, node.children, bar);
        }
    }

    [[nodiscard]] file_digest digest_of(const std::string &key, const source_node &node,
                                        progress *bar) {
        constexpr std::size_t HOST_READ_BYTES = std::size_t{1} << 20;
        digester digest(node.size, 0);
        for (u64 offset = 0; offset < node.size;) {
            const auto size =
                static_cast<std::size_t>(std::min<u64>(HOST_READ_BYTES, node.size - offset));
            const std::vector<u8> piece = read(key, offset, size);
            if (piece.size() != size) {
                throw error(shown_bytes(node.path) + " was cut while it was read");
            }
            digest.add(piece);
            bar->add(size);
            offset += size;
        }
        return digest.finish();
    }

    name_codec names_;
    std::map<std::string, std::string> host_paths_;
};

// ---- volume ----

class other_volume : public verification_source {
public:
    other_volume(const std::string &path, const std::string &encoding, bool is_quiet)
        : where_(path, access::READ), volume_(where_, encoding), tree_(list_tree(volume_)) {
        add_digests(volume_, 0, is_quiet, &tree_);
        content_ = manifest_of(tree_, 0);
    }

    [[nodiscard]] bool has_bytes() const override {
        return true;
    }

    [[nodiscard]] std::vector<u8> read(const std::string &path, u64 offset,
                                       std::size_t bytes) override {
        return read_extents(volume_.on(), tree_.at(path).extents, offset, bytes);
    }

private:
    target where_;
    volume volume_;
    listed_tree tree_;
};

bool begins_like_manifest(const std::string &path) {
    std::array<char, 65> head{};
    std::ifstream file(path, std::ios::binary);
    file.read(head.data(), head.size());
    return is_digest_manifest({head.data(), static_cast<std::size_t>(file.gcount())});
}

} // namespace

std::unique_ptr<verification_source>
open_verification_source(const std::string &path, const std::string &encoding, bool is_quiet) {
    if (is_host_directory(path)) {
        return std::make_unique<host_content>(path, encoding, is_quiet);
    }
    if (path == "-" || begins_like_manifest(path)) {
        return std::make_unique<manifest_content>(path);
    }
    return std::make_unique<other_volume>(path, encoding, is_quiet);
}

} // namespace qvol
