// The program qvol: images for it, its runs, and the checks of the result by other programs.

#pragma once

#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/tool.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace testing_support {

// The program under test: the one built with this test, or the one that QVOL names, which is built
// with sanitizers.
inline const char *qvol_path() {
    const char *chosen = std::getenv("QVOL");
    return chosen != nullptr ? chosen : QVOL_BUILT_PROGRAM;
}

inline bool is_sanitized_qvol() {
    return QUORVEL_SANITIZED || std::getenv("QVOL") != nullptr;
}

// More than the 1,023 that get a numeric tail, and so many more that hashes of two are equal.
constexpr int LIKE_NAMES = QUORVEL_FULL ? 5000 : 2000;

inline outcome run_qvol(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), qvol_path());
    return run(arguments);
}

// A formatted image, a host directory, and runs of the program on the image.
class QvolImage : public testing::Test {
protected:
    QvolImage() {
        setenv("TZ", "UTC", 1);
        setenv("MTOOLS_SKIP_CHECK", "1", 1);
        unsetenv("SOURCE_DATE_EPOCH");
    }

    void format(const std::string &width, std::uint64_t size, const std::string &sectors = "4") {
        image_ = scratch_.sparse_file("disk.img", size);
        const outcome formatted =
            run({tool_path(), "-F", width, "-S", "512", "-s", sectors, "-p", "0", image_});
        ASSERT_EQ(formatted.status, 0) << formatted;
        drop_blank_label(width == "32");
    }

    // The formatter writes a blank label entry, which checkers do not accept as a label. They
    // accept a missing label if the boot sector has none either.
    void drop_blank_label(bool is_fat32) {
        const volume_layout layout = layout_of(image_);
        const std::uint64_t sector = layout.sector_size;
        std::fstream image(image_, std::ios::binary | std::ios::in | std::ios::out);
        const auto put = [&](std::uint64_t offset, const std::string &content) {
            image.seekp(static_cast<std::streamoff>(offset));
            image.write(content.data(), static_cast<std::streamsize>(content.size()));
        };
        const std::uint64_t label = is_fat32 ? 71 : 43;
        put(label, "NO NAME    ");
        if (is_fat32) {
            put(6 * sector + label, "NO NAME    ");
        }
        put((is_fat32 ? layout.data_start : layout.rdir_start) * sector, std::string(32, '\0'));
    }

    // The command, the image, and the other arguments.
    outcome qvol(const std::string &command, std::vector<std::string> arguments = {}) {
        arguments.insert(arguments.begin(), {command, image_});
        return run_qvol(arguments);
    }

    // The output of a program run that must succeed.
    std::string said(const std::string &command, std::vector<std::string> arguments = {}) {
        const outcome result = qvol(command, std::move(arguments));
        EXPECT_EQ(result.status, 0) << command << ": " << result;
        return result.out;
    }

    std::string host_file(const std::string &name, const std::string &content) {
        const std::string path = scratch_.file(name);
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    // Runs the checker of dosfstools; status 0 if it finds nothing.
    outcome checked() {
        return run({"fsck.fat", "-n", image_});
    }
    void expect_clean() {
        const outcome result = checked();
        EXPECT_EQ(result.status, 0) << result;
    }

    scratch_directory scratch_;
    std::string image_;
};

} // namespace testing_support
