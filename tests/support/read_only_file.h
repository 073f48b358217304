// A file of zeros in memory that cannot be written.

#pragma once

#include "core/resources.h"

#include <cstdint>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>

namespace testing_support {

class read_only_file {
public:
    explicit read_only_file(std::uint64_t size)
        : writable_(memfd_create("read-only", 0)),
          fd_(open(("/proc/self/fd/" + std::to_string(writable_.get())).c_str(), O_RDONLY)) {
        if (ftruncate(writable_.get(), static_cast<off_t>(size)) != 0 || fd_.get() < 0) {
            throw std::runtime_error("cannot make a file in memory");
        }
    }
    [[nodiscard]] int fd() const {
        return fd_.get();
    }

private:
    core::unique_fd writable_;
    core::unique_fd fd_;
};

} // namespace testing_support
