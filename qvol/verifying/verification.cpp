#include "qvol/verifying/verification.h"

#include "qvol/output.h"
#include "qvol/whole_volume.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr std::size_t COMPARED_BYTES = std::size_t{1} << 20;

// Bytes of a file among which is the first that differs.
struct difference_range {
    u64 first;
    u64 last;
};

// Where a file differs, as far as it is known.
struct location {
    std::optional<difference_range> range;
    std::string text; // follows that of the difference
};

location location_of(const difference_range &range) {
    return {range, range.first == range.last
                       ? fmt::format("; first at byte {}", range.first)
                       : fmt::format("; first between bytes {} and {}", range.first, range.last)};
}

bool is_reserved(const std::string &path) {
    return path == POOL_FILE.name || path == LOG_FILE.name;
}

class verification {
public:
    verification(const volume &vol, const listed_tree &tree, verification_source *expected)
        : vol_(vol), tree_(tree), expected_(*expected) {}

    std::vector<difference> run() {
        for (const auto &[path, entry] : expected_.content().entries) {
            const auto found = tree_.find(path);
            if (found == tree_.end()) {
                add(path, difference_kind::MISSING, "missing");
            } else {
                compare(path, found->second, entry);
            }
        }
        for (const auto &[path, listed] : tree_) {
            const manifest &content = expected_.content();
            const bool counts = (content.lists_all || listed.content.type == kind::FILE) &&
                                (content.lists_reserved || !is_reserved(path));
            if (counts && !content.entries.contains(path)) {
                add(path, difference_kind::EXTRA, "should not exist");
            }
        }
        std::stable_sort(result_.begin(), result_.end(),
                         [](const difference &a, const difference &b) { return a.path < b.path; });
        return std::move(result_);
    }

private:
    void add(const std::string &path, difference_kind type, const std::string &text,
             const location &where = {}) {
        difference found = {path, type, text + where.text, {}, {}};
        if (where.range) {
            found.first = where.range->first;
            found.last = where.range->last;
        }
        result_.push_back(std::move(found));
    }

    void compare(const std::string &path, const listed_entry &found, const expected_entry &wanted) {
        if (found.content.type != wanted.type) {
            add(path, difference_kind::KIND,
                fmt::format("is a {}, should be a {}", kind_name(found.content.type),
                            kind_name(wanted.type)));
        } else if (!found.problem.empty()) {
            add(path, difference_kind::UNREADABLE, "cannot be read: " + found.problem);
        } else if (wanted.type == kind::LINK && found.content.target != wanted.target) {
            add(path, difference_kind::TARGET,
                fmt::format("leads to {}, should lead to {}", shown_bytes(found.content.target),
                            shown_bytes(wanted.target)));
        } else if (wanted.type == kind::FILE) {
            compare_files(path, found, wanted);
        }
    }

    void compare_files(const std::string &path, const listed_entry &found,
                       const expected_entry &wanted) {
        const u64 size = *found.content.size;
        if (size != wanted.size.value_or(size)) {
            add(path, difference_kind::SIZE,
                fmt::format("has {} bytes, should have {}", size, *wanted.size),
                locate_content(path, found, wanted));
        } else if (found.content.digest.whole != wanted.digest.whole) {
            add(path, difference_kind::CONTENT, "differs", locate_content(path, found, wanted));
        } else if (expected_.content().states_rest &&
                   found.content.digest.rest != wanted.digest.rest) {
            add(path, difference_kind::REST, "differs after its end, in its last cluster",
                locate_rest(path, found, wanted));
        }
    }

    // ---- where a file differs ----

    [[nodiscard]] std::vector<u8> read(const listed_entry &file, u64 offset, std::size_t bytes) {
        return read_extents(vol_.on(), file.extents, offset, bytes);
    }

    [[nodiscard]] location locate_content(const std::string &path, const listed_entry &found,
                                          const expected_entry &wanted) {
        if (!expected_.has_bytes() && expected_.content().piece_bytes == 0) {
            return {};
        }
        const u64 size = *found.content.size;
        const u64 wanted_size = wanted.size.value_or(size);
        const u64 end = std::max(size, wanted_size);
        return locate([&] {
            return expected_.has_bytes() ? find_byte(path, found, std::min(size, wanted_size), end)
                                         : find_piece(found, wanted, end);
        });
    }

    [[nodiscard]] location locate_rest(const std::string &path, const listed_entry &found,
                                       const expected_entry &wanted) {
        return locate([&] { return find_rest(path, found, wanted); });
    }

    // By a second reading: `find` returns no value if it finds no difference.
    template <typename Find>
    [[nodiscard]] static location locate(Find find) {
        try {
            const std::optional<difference_range> range = find();
            return range ? location_of(*range)
                         : location{{}, "; equal when read again: the medium is unreliable"};
        } catch (const error &why) {
            return {{}, std::string("; cannot be read again: ") + why.what()};
        }
    }

    // `common`: bytes that both have; `end`: those of the longer one.
    [[nodiscard]] std::optional<difference_range>
    find_byte(const std::string &path, const listed_entry &found, u64 common, u64 end) {
        for (u64 offset = 0; offset < common; offset += COMPARED_BYTES) {
            const auto size =
                static_cast<std::size_t>(std::min<u64>(COMPARED_BYTES, common - offset));
            const std::vector<u8> one = read(found, offset, size);
            const std::vector<u8> other = expected_.read(path, offset, size);
            const auto [at, unused] =
                std::mismatch(one.begin(), one.end(), other.begin(), other.end());
            if (at != one.end()) {
                const u64 byte = offset + static_cast<u64>(at - one.begin());
                return difference_range{byte, byte};
            }
        }
        return common < end ? std::optional(difference_range{common, common}) : std::nullopt;
    }

    [[nodiscard]] std::optional<difference_range>
    find_piece(const listed_entry &found, const expected_entry &wanted, u64 end) {
        const u64 piece_bytes = expected_.content().piece_bytes;
        digester digest(*found.content.size, piece_bytes);
        for (u64 offset = 0; offset < *found.content.size; offset += COMPARED_BYTES) {
            const u64 left = *found.content.size - offset;
            digest.add(
                read(found, offset, static_cast<std::size_t>(std::min<u64>(COMPARED_BYTES, left))));
        }
        const std::vector<std::string> pieces = digest.finish().pieces;
        const auto [at, unused] = std::mismatch(
            pieces.begin(), pieces.end(), wanted.digest.pieces.begin(), wanted.digest.pieces.end());
        const u64 first = static_cast<u64>(at - pieces.begin()) * piece_bytes;
        if (first >= end) {
            return std::nullopt;
        }
        return difference_range{first, std::min(first + piece_bytes, end) - 1};
    }

    // Zeros, or the bytes of another volume, should follow the file; or bytes of a digest.
    [[nodiscard]] std::optional<difference_range>
    find_rest(const std::string &path, const listed_entry &found, const expected_entry &wanted) {
        const u64 size = *found.content.size;
        const u64 start = size / COMPARED_BYTES * COMPARED_BYTES;
        const std::size_t most = 2 * COMPARED_BYTES; // a cluster is smaller than half of it
        const std::vector<u8> present = read(found, start, most);
        std::vector<u8> other(present.size());
        if (!wanted.digest.rest.empty() && !expected_.has_bytes()) {
            return difference_range{size, start + present.size() - 1};
        }
        if (!wanted.digest.rest.empty()) {
            other = expected_.read(path, start, most);
        }
        const auto rest = static_cast<std::ptrdiff_t>(size - start);
        const auto [at, unused] =
            std::mismatch(present.begin() + rest, present.end(),
                          other.begin() + std::min(rest, std::ssize(other)), other.end());
        if (at == present.end()) {
            return std::nullopt;
        }
        const u64 byte = start + static_cast<u64>(at - present.begin());
        return difference_range{byte, byte};
    }

    const volume &vol_;
    const listed_tree &tree_;
    verification_source &expected_;
    std::vector<difference> result_;
};

} // namespace

const char *difference_word(difference_kind type) {
    switch (type) {
    case difference_kind::MISSING:
        return "missing";
    case difference_kind::EXTRA:
        return "extra";
    case difference_kind::KIND:
        return "kind";
    case difference_kind::TARGET:
        return "target";
    case difference_kind::SIZE:
        return "size";
    case difference_kind::CONTENT:
        return "content";
    case difference_kind::REST:
        return "rest";
    default:
        return "unreadable";
    }
}

std::vector<difference> find_differences(const volume &vol, listed_tree *tree,
                                         verification_source *expected, bool is_quiet) {
    add_digests(vol, 0, is_quiet, tree);
    return verification(vol, *tree, expected).run();
}

} // namespace qvol
