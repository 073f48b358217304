// What a volume is compared with: a manifest, a directory of the host, or another volume.

#pragma once

#include "qvol/verifying/manifest.h"

#include <functional>
#include <memory>

namespace qvol {

class verification_source {
public:
    verification_source() = default;
    virtual ~verification_source() = default;
    verification_source(const verification_source &) = delete;
    verification_source &operator=(const verification_source &) = delete;

    [[nodiscard]] const manifest &content() const {
        return content_;
    }

    // Whether read() can be called.
    [[nodiscard]] virtual bool has_bytes() const {
        return false;
    }

    // Bytes of a file from a multiple of 1 MiB on, with those that follow it in its last cluster if
    // the manifest states these. Fewer than requested at the end. Throws error.
    [[nodiscard]] virtual std::vector<u8> read(const std::string & /*path*/, u64 /*offset*/,
                                               std::size_t /*bytes*/) {
        return {};
    }

protected:
    manifest content_;
};

// `path` "-": a manifest from standard input. Reads everything once.
[[nodiscard]] std::unique_ptr<verification_source>
open_verification_source(const std::string &path, const std::string &encoding, bool is_quiet);

} // namespace qvol
