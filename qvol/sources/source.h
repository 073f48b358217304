// Where the entries of a volume come from: a directory of the host, an archive, a manifest.
//
// A source is read twice: first its names, sizes and times, from which everything is planned, then
// the contents of its files, in whatever order suits it. No content is in memory as a whole.

#pragma once

#include "core/bytes.h"
#include "qvol/sources/node.h"
#include "qvol/sources/patterns.h"

#include <span>
#include <string>
#include <vector>

namespace qvol {

// What is read of a source.
struct reading_rules {
    pattern_list excluded = {};
    bool reads_attributes = false; // of files and directories of the host
    bool skips_special = false;    // devices, pipes and sockets; they are problems otherwise
};

// Reasons why the entries of all sources cannot be stored, to report them at once.
class problem_list {
public:
    void add(const std::string &path, const std::string &why) {
        lines_.push_back(shown_bytes(path) + ": " + why);
    }
    void add_line(std::string line) {
        lines_.push_back(std::move(line));
    }
    [[nodiscard]] const std::vector<std::string> &lines() const {
        return lines_;
    }
    // Throws error if there is one.
    void refuse() const;

private:
    std::vector<std::string> lines_;
};

// A file to copy.
struct content_request {
    const source_node *node;
    std::size_t file; // number of the caller
};

// Where the contents go.
class content_sink {
public:
    content_sink() = default;
    virtual ~content_sink() = default;
    content_sink(const content_sink &) = delete;
    content_sink &operator=(const content_sink &) = delete;

    virtual void begin(const content_request &wanted) = 0;
    // Takes bytes from the start of a file of the host without copying them; returns their number.
    virtual u64 share(int file) = 0;
    // Where the next bytes go; empty only after the last one. The source stores some there and adds
    // them.
    virtual std::span<core::u8> room() = 0;
    virtual void add(std::size_t count) = 0;
    virtual void end() = 0;
};

class source {
public:
    source() = default;
    virtual ~source() = default;
    source(const source &) = delete;
    source &operator=(const source &) = delete;

    // Everything in it, sorted by the bytes of the names. Does not check whether a volume can store
    // it. Throws error if the source cannot be read.
    [[nodiscard]] virtual std::vector<source_node> load(const reading_rules &rules,
                                                        problem_list *problems) = 0;

    // Copies the contents of files that it has loaded. Throws error, also if one no longer has
    // the size of its node.
    // Contents that several names share are wanted once.
    virtual void copy(const std::vector<content_request> &wanted, content_sink *sink) = 0;

    // Names for a file that has another name in the source already: each gets its own copy.
    [[nodiscard]] virtual u64 hard_links() const {
        return 0;
    }
};

// The error about a file whose size differs from that of its node.
[[nodiscard]] error changed_while_read(const std::string &path);

} // namespace qvol
