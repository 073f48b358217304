// A file that is being made: an image, or a form of one for flashing.
//
// It has a temporary name in its final directory until it is complete. If the program ends before
// that, by anything but kill -9, the file is removed. An incomplete image never has the final name.

#pragma once

#include "core/bytes.h"

#include <string>

namespace qvol {

// Throws error if the final name exists; with `replaces` only if the file is in use or is not an
// image file.
void check_image_name(const std::string &path, bool replaces);

class new_image {
public:
    // Makes a sparse file of `bytes` bytes. `replaces`: commit() replaces a file with the final
    // name.
    new_image(const std::string &path, bool replaces, core::u64 bytes);
    ~new_image();
    new_image(const new_image &) = delete;
    new_image &operator=(const new_image &) = delete;

    // The temporary path.
    [[nodiscard]] const std::string &path() const {
        return path_;
    }

    // Renames the file to its final name and syncs the directory. The content must be synced
    // already. SIGINT, SIGTERM and SIGHUP stay blocked afterwards: there is nothing left to
    // interrupt.
    void commit();

private:
    void make(core::u64 bytes);

    std::string directory_;
    std::string final_path_;
    std::string path_;
    bool replaces_;
    bool is_committed_ = false;
};

} // namespace qvol
