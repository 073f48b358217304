// Rows of tables whose names are part of the names of the cases.

#pragma once

#include <ostream>
#include <string>

#include <gtest/gtest.h>

namespace testing_support {

// The base of a table row; the name is first: {"ReadOnlyFile", ...}.
struct named_row {
    const char *name;
};
inline std::ostream &operator<<(std::ostream &out, const named_row &row) {
    return out << row.name;
}

// The third argument of INSTANTIATE_TEST_SUITE_P for cases over rows.
template <typename Row>
std::string row_name(const testing::TestParamInfo<Row> &info) {
    return info.param.name;
}

} // namespace testing_support
