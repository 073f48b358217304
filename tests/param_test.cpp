// The format request: the cluster-size limit and the defaults.

#include "tests/support/capture.h"

#include <gtest/gtest.h>

using namespace testing_support;

TEST(CheckFormatParam, RefusesAClusterOf64KiB) {
    fat_format_param param = {};
    param.sec_per_clus = 64;
    param.sector_size = 1024;
    diagnostics said;
    EXPECT_EQ(check_format_param(&param), -1);
    EXPECT_EQ(said.text(), "The requested cluster size is 65536(= 64 x 1024).\n"
                           "But cluster size can't be over 32KBytes\n");
}
