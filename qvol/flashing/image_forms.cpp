#include "qvol/flashing/image_forms.h"

#include "qvol/flashing/android_sparse.h"
#include "qvol/flashing/bmap.h"
#include "qvol/flashing/zstd_image.h"
#include "qvol/names.h"

#include <filesystem>

#include <fmt/core.h>

namespace qvol {

namespace {

// The file that a path leads to, whether it exists or not.
std::string resolved(const std::string &path) {
    std::error_code failure;
    const std::filesystem::path found =
        std::filesystem::weakly_canonical(std::filesystem::absolute(path), failure);
    return failure ? path : found.string();
}

} // namespace

void add_form_options(const declared_command &command, form_options *options) {
    command
        .value("--sparse", &options->sparse,
               "Holes of the image file. auto: only where nothing is stored; always: also where "
               "zeros are stored, which a program that skips holes then leaves out")
        .one_of({"auto", "always"})
        .shows_default();
    command.value("--bmap", &options->bmap,
                  "Also make a bmap: the blocks of the image to write, with checksums");
    command.value("--android-sparse", &options->android_sparse,
                  "Also make an Android sparse image");
    command.value("--zstd", &options->zstd, "Also make an image compressed with zstd, seekable");
}

void refuse_form_options(const form_options &options) {
    if (options.sparse == "always" || options.has_forms()) {
        throw usage_error("--sparse, --bmap, --android-sparse and --zstd are for a new image file");
    }
}

image_forms::image_forms(const form_options &options, const std::string &image, bool replaces)
    : replaces_(replaces) {
    const auto add = [&](const char *name, const std::optional<std::string> &path,
                         form_writer write, bool is_whole) {
        if (path) {
            forms_.push_back({name, *path, write, is_whole});
        }
    };
    add("--bmap", options.bmap, write_bmap, false);
    add("--android-sparse", options.android_sparse, write_android_sparse, false);
    add("--zstd", options.zstd, write_zstd, true);
    std::vector<std::string> taken = {resolved(image)};
    for (const form &one : forms_) {
        if (std::find(taken.begin(), taken.end(), resolved(one.path)) != taken.end()) {
            throw usage_error(fmt::format("{} {}: another output has this name", one.name,
                                          shown_bytes(one.path)));
        }
        taken.push_back(resolved(one.path));
        check_image_name(one.path, replaces);
    }
}

void image_forms::make(const target &image, const std::vector<byte_range> &needed,
                       const output &out) {
    const finished_image finished = {image, in_blocks(needed, FLASH_BLOCK_BYTES, image.size())};
    const u64 bytes = total_bytes(finished.needed);
    for (const form &one : forms_) {
        progress bar(one.name + 2, one.is_whole ? image.size() : bytes, out.is_quiet);
        output_file &file = files_.emplace_back(one.path, replaces_);
        one.write(finished, &file, &bar);
        file.sync();
    }
    out.remark(fmt::format("to flash: {} of {}", shown_size(bytes), shown_size(image.size())));
}

void image_forms::commit() {
    for (output_file &file : files_) {
        file.commit();
    }
}

} // namespace qvol
