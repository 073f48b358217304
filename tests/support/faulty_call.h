// Calls of which the k-th transfer or allocation fails, alone or with all that follow.

#pragma once

#include "tests/support/faults.h"
#include "tests/support/mounted.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace testing_support {

enum class fault { read, write, allocation };

struct faulty_case {
    std::string name;
    fault kind;
    bool forever;
    int transfer_result;
};
inline std::ostream &operator<<(std::ostream &out, const faulty_case &c) {
    return out << c.name;
}

// Each kind of fault on FAT16 and FAT32: the parameters of a test case.
using faulty_volume = std::tuple<faulty_case, std::uint32_t>;
inline std::vector<faulty_volume> all_faults() {
    std::vector<faulty_volume> result;
    for (const faulty_case &c : std::initializer_list<faulty_case>{
             {"OneRead", fault::read, false, -EIO},
             {"ReadsFromOneOn", fault::read, true, -EIO},
             {"OneWrite", fault::write, false, -EIO},
             {"OneWriteOfNothing", fault::write, false, 0},
             {"WritesFromOneOn", fault::write, true, -EIO},
             {"OneAllocation", fault::allocation, false, 0},
             {"AllocationsFromOneOn", fault::allocation, true, 0},
         }) {
        result.emplace_back(c, 16);
        result.emplace_back(c, 32);
    }
    return result;
}
inline std::string fault_name(const testing::TestParamInfo<faulty_volume> &of) {
    return std::get<0>(of.param).name + "Fat" + std::to_string(std::get<1>(of.param));
}

// What the last faulty call came to.
struct faulty_outcome {
    bool struck;        // the fault, that is: there were as many transfers or allocations
    int result;         // of the call
    int error;          // left in errno
    int left_allocated; // blocks
};

template <typename Call>
faulty_outcome call_with_fault(ram_disk *disk, const faulty_case &c, int k, const Call &call) {
    disk->log.clear();
    disk->failure_result = c.transfer_result;
    disk->fails_forever = c.forever;
    disk->reads_before_failure = c.kind == fault::read ? k : -1;
    disk->writes_before_failure = c.kind == fault::write ? k : -1;
    std::optional<failing_allocation> no_memory;
    if (c.kind == fault::allocation) {
        no_memory.emplace(k, c.forever);
    }
    faulty_outcome o = {};
    {
        const allocation_meter meter;
        errno = UNTOUCHED_ERRNO;
        o.result = call();
        o.error = errno;
        o.left_allocated = meter.live_blocks();
    }
    const bool is_write = c.kind == fault::write;
    const auto transfers = std::count_if(disk->log.begin(), disk->log.end(),
                                         [&](const transfer &t) { return t.is_write == is_write; });
    o.struck = no_memory.has_value() ? no_memory->struck() : transfers > k;
    disk->reads_before_failure = -1;
    disk->writes_before_failure = -1;
    return o;
}

} // namespace testing_support
