// A scratch directory, the library's messages, and a check of the descriptors that a case leaves
// open.

#pragma once

#include "fat/internal.h"
#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/files.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace testing_support {

class volume_test : public testing::Test {
protected:
    volume_test() {
        sv = nullptr;
        read_sectors = nullptr;
        write_sectors = nullptr;
    }
    ~volume_test() override {
        if (sv != nullptr) {
            fat_close_volume(0);
        }
        for (const int fd : left_open()) {
            close(fd);
        }
    }

    // Descriptors that were opened since the case began.
    [[nodiscard]] std::vector<int> left_open() const {
        const std::set<int> now = open_descriptors();
        std::vector<int> result;
        std::set_difference(now.begin(), now.end(), open_before.begin(), open_before.end(),
                            std::back_inserter(result));
        return result;
    }

    static std::string name_of(int error) {
        return std::strerror(error);
    }

    scratch_directory scratch;
    diagnostics messages;
    const std::set<int> open_before = open_descriptors();
};

} // namespace testing_support
