// The options of a new image about its holes and its forms for flashing, which are made with it.

#pragma once

#include "qvol/command_line.h"
#include "qvol/flashing/finished_image.h"
#include "qvol/flashing/output_file.h"

#include <list>

namespace qvol {

struct form_options {
    std::string sparse = "auto"; // or "always"
    std::optional<std::string> bmap;
    std::optional<std::string> android_sparse;
    std::optional<std::string> zstd;

    [[nodiscard]] bool has_forms() const {
        return bmap || android_sparse || zstd;
    }
    [[nodiscard]] holes allowed_holes() const {
        return sparse == "always" ? holes::ZEROS : holes::UNUSED;
    }
};

void add_form_options(const declared_command &command, form_options *options);

// For a device or a part of a file, which is no new image. Throws usage_error.
void refuse_form_options(const form_options &options);

// The files of the forms of one image.
class image_forms {
public:
    // Throws error if a file exists that must not be replaced, or usage_error if two files would be
    // the same.
    image_forms(const form_options &options, const std::string &image, bool replaces);

    // Makes the files from the complete image. `needed`: ascending.
    void make(const target &image, const std::vector<byte_range> &needed, const output &out);

    // Gives the files their names.
    void commit();

private:
    using form_writer = void (*)(const finished_image &image, output_file *to, progress *bar);

    struct form {
        const char *name;
        std::string path;
        form_writer write;
        bool is_whole; // reads the whole image, not only what is needed
    };

    std::vector<form> forms_;
    bool replaces_;
    std::list<output_file> files_; // made
};

} // namespace qvol
