// Identifiers of disks and partitions that follow from what they identify, for images that are
// equal byte for byte.

#pragma once

#include "qvol/host_tree.h"

#include <string>
#include <vector>

namespace qvol {

class identifier_source {
public:
    explicit identifier_source(time_t epoch);

    // What the identifiers depend on. Of a tree: names, sizes, times and targets of links.
    void add(u64 number);
    void add(const std::string &text);
    void add(const std::vector<host_node> &nodes);

    // The identifier with this index: a UUID of version 5, or the number of an MBR as "0x12345678".
    [[nodiscard]] std::string uuid(u32 index) const;
    [[nodiscard]] std::string number(u32 index) const;

private:
    std::string description_;
};

} // namespace qvol
