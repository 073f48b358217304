// A file that is made from its start to its end. Like an image it has a temporary name until it is
// complete.

#pragma once

#include "core/resources.h"
#include "qvol/new_image.h"

#include <span>
#include <string>

namespace qvol {

class output_file {
public:
    output_file(const std::string &path, bool replaces);

    [[nodiscard]] const std::string &path() const { // the final one
        return path_;
    }

    // Throw error.
    void append(std::span<const core::u8> bytes);
    void append(const std::string &text);
    void rewrite(core::u64 offset, std::span<const core::u8> bytes); // of what was appended
    void sync();

    // The file gets its final name; sync() was called.
    void commit() {
        file_.commit();
    }

private:
    std::string path_;
    new_image file_;
    core::unique_fd fd_;
    core::u64 size_ = 0;
};

} // namespace qvol
