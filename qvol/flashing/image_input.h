// A file, a device or standard input, read from its start to its end.

#pragma once

#include "core/resources.h"

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace qvol {

class image_input {
public:
    // `path` "-": standard input. Throws error.
    explicit image_input(const std::string &path);

    [[nodiscard]] const std::string &path() const { // for messages
        return path_;
    }
    [[nodiscard]] int descriptor() const {
        return fd_.get();
    }

    // Bytes of a file or device; no value for a pipe.
    [[nodiscard]] std::optional<core::u64> size() const {
        return size_;
    }

    // The first bytes, which stay unread: `count`, or fewer if the input is shorter.
    [[nodiscard]] std::span<const core::u8> peek(std::size_t count);

    // Reads the next bytes: as many as there are, 0 at the end. Throws error.
    [[nodiscard]] std::size_t read_some(std::span<core::u8> bytes);

    // Reads all of them. Throws error at the end.
    void read(std::span<core::u8> bytes);

    // Reads elsewhere, only if size() is known. False at a failure.
    [[nodiscard]] bool read_at(core::u64 offset, std::span<core::u8> bytes) const;

private:
    std::string path_;
    core::unique_fd fd_;
    std::optional<core::u64> size_;
    std::vector<core::u8> peeked_; // not read yet
};

} // namespace qvol
