#include "qvol/flashing/output_file.h"

#include "qvol/error.h"
#include "qvol/names.h"

#include <fcntl.h>
#include <unistd.h>

namespace qvol {

output_file::output_file(const std::string &path, bool replaces)
    : path_(path), file_(path, replaces, 0), fd_(open(file_.path().c_str(), O_WRONLY | O_CLOEXEC)) {
    if (fd_.get() < 0) {
        throw system_failure("open " + shown_bytes(path_));
    }
}

void output_file::append(std::span<const core::u8> bytes) {
    rewrite(size_, bytes);
    size_ += bytes.size();
}

void output_file::append(const std::string &text) {
    append({reinterpret_cast<const core::u8 *>(text.data()), text.size()});
}

void output_file::rewrite(core::u64 offset, std::span<const core::u8> bytes) {
    while (!bytes.empty()) {
        const ssize_t count =
            pwrite(fd_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (count <= 0) {
            throw system_failure("write to " + shown_bytes(path_), count < 0 ? errno : EIO);
        }
        offset += static_cast<core::u64>(count);
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
}

void output_file::sync() {
    if (fsync(fd_.get()) != 0) {
        throw system_failure("sync " + shown_bytes(path_));
    }
}

} // namespace qvol
