// Identifiers of disks and partitions: random ones, or such that follow from what they identify,
// for images that are equal byte for byte.

#pragma once

#include "qvol/sources/node.h"

#include <optional>
#include <string>
#include <vector>

namespace qvol {

// A UUID in upper case. No value if the text is not one, or consists of zeros, which mark what is
// free.
[[nodiscard]] std::optional<std::string> parse_uuid(const std::string &text);

class identifier_source {
public:
    identifier_source() = default; // of random ones
    explicit identifier_source(time_t epoch);

    // What the identifiers depend on. Of a tree: names, sizes, times, requested attributes and
    // targets of links, as a volume stores them.
    void add(u64 number);
    void add(const std::string &text);
    void add(const std::vector<source_node> &nodes);

    // The identifier with this index: a UUID of version 4 or 5, or the number of an MBR as
    // "0x12345678".
    [[nodiscard]] std::string uuid(u32 index) const;
    [[nodiscard]] std::string number(u32 index) const;

private:
    [[nodiscard]] bool is_random() const {
        return description_.empty();
    }

    std::string description_;
};

} // namespace qvol
