// An image file while it is being made.
//
// It lies beside its place under a name of its own until it is whole. Whatever ends the program
// before that, short of kill -9, takes it away again; and nothing half-made ever has the final
// name.

#pragma once

#include "fat/bytes.h"

#include <string>

namespace qvol {

// Refuses a final name that is taken: unless `replaces`, and then by what is in use or is no
// image file. Throws error.
void check_image_name(const std::string &path, bool replaces);

class new_image {
public:
    // Makes the file, sparse, `bytes` long. `replaces`: the final name may be taken when it gets
    // it.
    new_image(const std::string &path, bool replaces, fat::u64 bytes);
    ~new_image();
    new_image(const new_image &) = delete;
    new_image &operator=(const new_image &) = delete;

    // Where it lies for now.
    [[nodiscard]] const std::string &path() const {
        return path_;
    }

    // Gives it its final name, durably. What it holds has been synchronised. From here on the
    // program is not stopped by SIGINT, SIGTERM and SIGHUP: what they would stop is done.
    void keep();

private:
    void make(fat::u64 bytes);

    std::string directory_;
    std::string final_path_;
    std::string path_;
    bool replaces_;
    bool is_kept_ = false;
};

} // namespace qvol
