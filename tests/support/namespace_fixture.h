// A mounted volume and the calls that create and remove names on it, with all of their messages.

#pragma once

#include "tests/support/faults.h"
#include "tests/support/file_fixture.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

class namespace_test : public file_test {
protected:
    using file_test::file_test;

    outcome create(const char *path) {
        return called([&] { return fat_create_file(path); });
    }
    outcome create(const std::string &path) {
        return create(path.c_str());
    }
    outcome make_dir(const char *path) {
        return called([&] { return fat_mkdir(path); });
    }
    outcome make_dir(const std::string &path) {
        return make_dir(path.c_str());
    }
    outcome symlink(const char *target, const char *path) {
        return called([&] { return fat_create_symlink(target, path); });
    }
    outcome symlink(const std::string &target, const std::string &path) {
        return symlink(target.c_str(), path.c_str());
    }
    outcome unlink(const char *path) {
        return called([&] { return fat_unlink(path); });
    }
    outcome unlink(const std::string &path) {
        return unlink(path.c_str());
    }
    outcome rm_entry(const char *path) {
        return called([&] { return fat_rm_entry(path); });
    }
    outcome rm_entry(const std::string &path) {
        return rm_entry(path.c_str());
    }
    // These calls do not define errno.
    template <typename Call>
    outcome called(const Call &call) {
        messages.clear();
        const int result = call();
        return {result, 0, messages.text()};
    }
    static outcome came_to(std::int64_t result, const std::string &printed = "") {
        return {result, 0, printed};
    }
    // The message of a successful lookup in the directory of that base cluster.
    static std::string found(std::uint32_t base, std::uint32_t index) {
        return "find_dentry_with_clu[N]: found index:(" + std::to_string(base) + ", " +
               std::to_string(index) + ")\n";
    }
    // The base cluster of the root directory.
    static std::uint32_t root_base() {
        return sv->fat_type == 16 ? 0 : sv->root_clus;
    }
    // The message of the lookup of an empty name.
    static std::string empty_name() {
        return "convert_cstring_to_dosname[N]: zero length string!\n\n"
               "convert_name[N]: invalid name in DOS:\n"
               "find_dentry_with_clu[N]: Failed to get fatnames!\n\n";
    }

    // A hand-made sub-directory of the root with dot entries; it becomes the current directory.
    directory &enter_directory(const std::vector<std::uint32_t> &clusters) {
        inside_ = std::make_unique<directory>(&v, clusters, false);
        inside_->append(short_entry(".          ", DIRECTORY, clusters.front()));
        inside_->append(short_entry("..         ", DIRECTORY, 0));
        inside_id = v.open_new("DIR        ", clusters, 0, DIRECTORY);
        if (fat_set_current(inside_id) != inside_id) {
            throw std::runtime_error("this directory cannot be made current");
        }
        v.disk.log.clear();
        return *inside_;
    }

    // The sectors that were written since the log was cleared, in order.
    [[nodiscard]] std::vector<std::uint64_t> sectors_written() const {
        std::vector<std::uint64_t> result;
        for (const transfer &t : v.disk.log) {
            for (std::uint32_t i = 0; t.is_write && i < t.count; i++) {
                result.push_back(t.sector + i);
            }
        }
        return result;
    }
    [[nodiscard]] bool nothing_written() const {
        return sectors_written().empty();
    }

    int inside_id = 0;

private:
    std::unique_ptr<directory> inside_;
};

} // namespace testing_support
