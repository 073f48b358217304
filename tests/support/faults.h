// Injected failures of the allocator and of system calls.
//
// The test programs are linked with --wrap for these functions, so that a call made by the library
// passes through faults.cpp. Nothing fails unless a fault is armed.

#pragma once

#include <cstdint>
#include <vector>

#include <iconv.h>

namespace testing_support {

// Fails calls for its lifetime. One of a kind at a time.
class failing_allocation {
public:
    // Lets `successes` allocations (malloc, calloc, realloc) through, then fails one, or all after.
    explicit failing_allocation(int successes, bool forever = false);
    failing_allocation(const failing_allocation &) = delete;
    failing_allocation &operator=(const failing_allocation &) = delete;
    ~failing_allocation();

    // Whether the fault has struck.
    [[nodiscard]] bool struck() const;
};

// The bytes asked for by malloc, calloc and realloc while it lives: the largest sum that was held
// at one time, and how many blocks were not freed.
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

// Lets `successes` calls through, then makes one, or all after, fail with `error`.
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

// What replaces the results of the calls that size a target, while it lives. A value of -1 leaves
// a call alone.
struct device_picture {
    bool is_block_device = false;           // fstat reports a block device
    std::int64_t ioctl_sectors = -1;        // answer of ioctl(BLKGETSIZE)
    std::int64_t seek_end = -1;             // answer of lseek(fd, 0, SEEK_END)
    std::int64_t short_transfer_bytes = -1; // reads and writes move at most this many bytes
    std::int64_t invented_bytes = -1;       // so many are read in all, the buffers left as they are
};
class pretended_device {
public:
    explicit pretended_device(const device_picture &picture);
    pretended_device(const pretended_device &) = delete;
    pretended_device &operator=(const pretended_device &) = delete;
    ~pretended_device();
};

// Replaces what lstat and readlink tell of any path, while it lives.
struct link_picture {
    std::uint32_t mode = 0;        // type bits of the status; 0: left alone
    std::int64_t target_size = -1; // bytes of the target, cut to the room offered; -1: left alone
    char fill = 'x';               // every byte of it
    int error = 0;                 // left in errno
};
class pretended_link {
public:
    explicit pretended_link(const link_picture &picture);
    pretended_link(const pretended_link &) = delete;
    pretended_link &operator=(const pretended_link &) = delete;
    ~pretended_link();

    // The room that readlink was offered last.
    [[nodiscard]] std::uint64_t room() const;
};

// The character-set converters closed while it lives, in order. One at a time.
class closed_converters {
public:
    closed_converters();
    closed_converters(const closed_converters &) = delete;
    closed_converters &operator=(const closed_converters &) = delete;
    ~closed_converters();

    [[nodiscard]] const std::vector<iconv_t> &list() const;
};

} // namespace testing_support
