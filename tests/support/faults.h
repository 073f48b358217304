// Injected failures of the allocator and of system calls.
//
// The test programs are linked with --wrap for these functions, so that a call made by the library
// passes through faults.cpp. Nothing fails unless a fault is armed.

#pragma once

#include <cstdint>
#include <vector>

#include <iconv.h>

namespace testing_support {

// Makes calls fail during its lifetime. One object of each kind at a time.
class failing_allocation {
public:
    // After `successes` allocations (malloc, calloc, realloc) fails the next one, or all later
    // ones.
    explicit failing_allocation(int successes, bool forever = false);
    failing_allocation(const failing_allocation &) = delete;
    failing_allocation &operator=(const failing_allocation &) = delete;
    ~failing_allocation();

    // Whether the fault was hit.
    [[nodiscard]] bool struck() const;
};

// Counts malloc, calloc and realloc during its lifetime: the peak of the allocated bytes, and the
// blocks that were not freed.
class allocation_meter {
public:
    allocation_meter();
    allocation_meter(const allocation_meter &) = delete;
    allocation_meter &operator=(const allocation_meter &) = delete;
    ~allocation_meter();

    [[nodiscard]] std::uint64_t peak_bytes() const;
    [[nodiscard]] int live_blocks() const;
};

enum class call {
    open,
    close,
    read,
    write,
    lseek,
    fstat,
    lstat,
    readlink,
    ioctl,
    truncate,
    fsync,
    iconv_open
};

// After `successes` calls fails the next one, or all later ones, with `error`.
class failing_call {
public:
    failing_call(call which, int error, int successes = 0, bool forever = false);
    failing_call(const failing_call &) = delete;
    failing_call &operator=(const failing_call &) = delete;
    ~failing_call();

    [[nodiscard]] bool struck() const;

private:
    call which_;
};

// Replaces the results of the calls that size a target, during its lifetime. -1: not replaced.
struct device_picture {
    bool is_block_device = false;           // fstat reports a block device
    std::int64_t ioctl_sectors = -1;        // answer of ioctl(BLKGETSIZE)
    std::int64_t seek_end = -1;             // answer of lseek(fd, 0, SEEK_END)
    std::int64_t short_transfer_bytes = -1; // reads and writes move at most this many bytes
    std::int64_t invented_bytes = -1;       // total of bytes that reads return, buffers unchanged
};
class pretended_device {
public:
    explicit pretended_device(const device_picture &picture);
    pretended_device(const pretended_device &) = delete;
    pretended_device &operator=(const pretended_device &) = delete;
    ~pretended_device();
};

// Replaces the results of lstat and readlink for any path, during its lifetime.
struct link_picture {
    std::uint32_t mode = 0;        // type bits of the status; 0: not replaced
    std::int64_t target_size = -1; // bytes of the target, cut to the buffer; -1: not replaced
    char fill = 'x';               // every byte of it
    int error = 0;                 // left in errno
};
class pretended_link {
public:
    explicit pretended_link(const link_picture &picture);
    pretended_link(const pretended_link &) = delete;
    pretended_link &operator=(const pretended_link &) = delete;
    ~pretended_link();

    // The buffer size of the last readlink.
    [[nodiscard]] std::uint64_t room() const;
};

// The character-set converters closed during its lifetime, in order. One object at a time.
class closed_converters {
public:
    closed_converters();
    closed_converters(const closed_converters &) = delete;
    closed_converters &operator=(const closed_converters &) = delete;
    ~closed_converters();

    [[nodiscard]] const std::vector<iconv_t> &list() const;
};

} // namespace testing_support
