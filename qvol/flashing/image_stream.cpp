#include "qvol/flashing/image_stream.h"

#include "qvol/flashing/android_sparse.h"
#include "qvol/flashing/bmap.h"
#include "qvol/flashing/plain_image.h"
#include "qvol/flashing/zstd_image.h"

namespace qvol {

namespace {

// By the first bytes. Those of a volume or a disk are others.
std::unique_ptr<image_stream> open_by_content(const std::string &path) {
    constexpr std::size_t HEAD_BYTES = 4;
    auto input = std::make_unique<image_input>(path);
    const std::span<const core::u8> head = input->peek(HEAD_BYTES);
    if (is_android_sparse(head)) {
        return open_android_sparse(std::move(input));
    }
    return is_zstd(head) ? open_zstd(std::move(input)) : open_plain_image(std::move(input));
}

} // namespace

std::unique_ptr<image_stream> open_image_stream(const std::string &path, const std::string &bmap) {
    std::unique_ptr<image_stream> image = open_by_content(path);
    return bmap.empty() ? std::move(image) : open_mapped_image(std::move(image), bmap);
}

} // namespace qvol
