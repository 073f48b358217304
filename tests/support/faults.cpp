#include "tests/support/faults.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <unordered_map>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

namespace testing_support {

namespace {

// A countdown to a failure.
struct fault {
    bool armed = false;
    int successes = 0;
    bool forever = false;
    bool struck = false;
    int error = 0;

    void arm(int successes_first, bool for_ever, int code) {
        *this = fault{true, successes_first, for_ever, false, code};
    }
    bool strikes() {
        if (!armed || successes-- > 0) {
            return false;
        }
        armed = forever;
        successes = 0;
        struck = true;
        return true;
    }
};

fault allocation_fault;
fault call_faults[12];
device_picture picture;
link_picture pretended;
std::uint64_t offered_room = 0;

bool converters_watched = false;
std::vector<iconv_t> &converter_list() {
    static std::vector<iconv_t> instance;
    return instance;
}

struct meter {
    bool on = false;
    bool busy = false; // the meter's own allocations are not counted
    std::unordered_map<void *, std::size_t> blocks;
    std::uint64_t held = 0;
    std::uint64_t peak = 0;
};
meter &the_meter() {
    static meter instance;
    return instance;
}

void count_block(void *block, std::size_t size) {
    meter &m = the_meter();
    if (!m.on || m.busy || block == nullptr) {
        return;
    }
    m.busy = true;
    m.blocks[block] = size;
    m.held += size;
    m.peak = std::max(m.peak, m.held);
    m.busy = false;
}

void forget_block(void *block) {
    meter &m = the_meter();
    if (!m.on || m.busy || block == nullptr) {
        return;
    }
    m.busy = true;
    const auto found = m.blocks.find(block);
    if (found != m.blocks.end()) {
        m.held -= found->second;
        m.blocks.erase(found);
    }
    m.busy = false;
}

bool fails(call which) {
    fault &f = call_faults[static_cast<std::size_t>(which)];
    if (!f.strikes()) {
        return false;
    }
    errno = f.error;
    return true;
}

std::size_t cut(std::size_t count) {
    return picture.short_transfer_bytes < 0
               ? count
               : std::min(count, static_cast<std::size_t>(picture.short_transfer_bytes));
}

} // namespace

failing_allocation::failing_allocation(int successes, bool forever) {
    allocation_fault.arm(successes, forever, ENOMEM);
}
failing_allocation::~failing_allocation() {
    allocation_fault.armed = false;
}
bool failing_allocation::struck() const {
    return allocation_fault.struck;
}

allocation_meter::allocation_meter() {
    meter &m = the_meter();
    m = meter{};
    m.on = true;
}
allocation_meter::~allocation_meter() {
    the_meter().on = false;
}
std::uint64_t allocation_meter::peak_bytes() const {
    return the_meter().peak;
}
int allocation_meter::live_blocks() const {
    return static_cast<int>(the_meter().blocks.size());
}

failing_call::failing_call(call which, int error, int successes, bool forever) : which_(which) {
    call_faults[static_cast<std::size_t>(which)].arm(successes, forever, error);
}
failing_call::~failing_call() {
    call_faults[static_cast<std::size_t>(which_)].armed = false;
}
bool failing_call::struck() const {
    return call_faults[static_cast<std::size_t>(which_)].struck;
}

pretended_device::pretended_device(const device_picture &wanted) {
    picture = wanted;
}
pretended_device::~pretended_device() {
    picture = device_picture{};
}

pretended_link::pretended_link(const link_picture &wanted) {
    pretended = wanted;
    offered_room = 0;
}
pretended_link::~pretended_link() {
    pretended = link_picture{};
}
std::uint64_t pretended_link::room() const {
    return offered_room;
}

closed_converters::closed_converters() {
    converter_list().clear();
    converters_watched = true;
}
closed_converters::~closed_converters() {
    converters_watched = false;
}
const std::vector<iconv_t> &closed_converters::list() const {
    return converter_list();
}

} // namespace testing_support

using namespace testing_support;

extern "C" {

void *__real_malloc(std::size_t size);
void *__real_calloc(std::size_t count, std::size_t size);
void *__real_realloc(void *block, std::size_t size);
void __real_free(void *block);
int __real_open64(const char *path, int flags, ...);
int __real_close(int fd);
ssize_t __real_read(int fd, void *buffer, std::size_t count);
ssize_t __real_write(int fd, const void *buffer, std::size_t count);
off64_t __real_lseek64(int fd, off64_t offset, int whence);
int __real_fstat64(int fd, struct stat64 *status);
int __real_lstat64(const char *path, struct stat64 *status);
ssize_t __real_readlink(const char *path, char *target, std::size_t size);
int __real_ioctl(int fd, unsigned long request, ...);
int __real_truncate64(const char *path, off64_t length);
int __real_fsync(int fd);
iconv_t __real_iconv_open(const char *to, const char *from);
int __real_iconv_close(iconv_t converter);

void *__wrap_malloc(std::size_t size) {
    if (allocation_fault.strikes()) {
        errno = ENOMEM;
        return nullptr;
    }
    void *block = __real_malloc(size);
    count_block(block, size);
    return block;
}

void *__wrap_calloc(std::size_t count, std::size_t size) {
    if (allocation_fault.strikes()) {
        errno = ENOMEM;
        return nullptr;
    }
    void *block = __real_calloc(count, size);
    count_block(block, count * size);
    return block;
}

void *__wrap_realloc(void *old, std::size_t size) {
    if (allocation_fault.strikes()) {
        errno = ENOMEM;
        return nullptr;
    }
    forget_block(old);
    void *block = __real_realloc(old, size);
    count_block(block, size);
    return block;
}

void __wrap_free(void *block) {
    forget_block(block);
    __real_free(block);
}

int __wrap_open64(const char *path, int flags, ...) {
    if (fails(call::open)) {
        return -1;
    }
    if ((flags & (O_CREAT | O_TMPFILE)) == 0) {
        return __real_open64(path, flags);
    }
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return __real_open64(path, flags, mode);
}

int __wrap_close(int fd) {
    // The descriptor is gone even where close reports an error.
    const int result = __real_close(fd);
    return fails(call::close) ? -1 : result;
}

ssize_t __wrap_read(int fd, void *buffer, std::size_t count) {
    if (fails(call::read)) {
        return -1;
    }
    if (picture.invented_bytes < 0) {
        return __real_read(fd, buffer, cut(count));
    }
    const std::int64_t returned =
        std::min(static_cast<std::int64_t>(cut(count)), picture.invented_bytes);
    picture.invented_bytes -= returned;
    return static_cast<ssize_t>(returned);
}

ssize_t __wrap_write(int fd, const void *buffer, std::size_t count) {
    return fails(call::write) ? -1 : __real_write(fd, buffer, cut(count));
}

off64_t __wrap_lseek64(int fd, off64_t offset, int whence) {
    if (fails(call::lseek)) {
        return -1;
    }
    if (whence == SEEK_END && picture.seek_end >= 0) {
        return picture.seek_end;
    }
    return __real_lseek64(fd, offset, whence);
}

int __wrap_fstat64(int fd, struct stat64 *status) {
    if (fails(call::fstat)) {
        return -1;
    }
    const int result = __real_fstat64(fd, status);
    if (result == 0 && picture.is_block_device) {
        status->st_mode = (status->st_mode & ~static_cast<mode_t>(S_IFMT)) | S_IFBLK;
    }
    return result;
}

int __wrap_lstat64(const char *path, struct stat64 *status) {
    if (fails(call::lstat)) {
        return -1;
    }
    const int result = __real_lstat64(path, status);
    if (result == 0 && pretended.mode != 0) {
        status->st_mode = (status->st_mode & ~static_cast<mode_t>(S_IFMT)) | pretended.mode;
    }
    return result;
}

ssize_t __wrap_readlink(const char *path, char *target, std::size_t size) {
    offered_room = size;
    if (fails(call::readlink)) {
        return -1;
    }
    if (pretended.target_size < 0) {
        return __real_readlink(path, target, size);
    }
    const std::size_t returned = std::min(size, static_cast<std::size_t>(pretended.target_size));
    std::memset(target, pretended.fill, returned);
    errno = pretended.error;
    return static_cast<ssize_t>(returned);
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (fails(call::ioctl)) {
        return -1;
    }
    if (request == BLKGETSIZE && picture.ioctl_sectors >= 0) {
        *static_cast<unsigned long *>(argument) = static_cast<unsigned long>(picture.ioctl_sectors);
        return 0;
    }
    return __real_ioctl(fd, request, argument);
}

int __wrap_truncate64(const char *path, off64_t length) {
    return fails(call::truncate) ? -1 : __real_truncate64(path, length);
}

int __wrap_fsync(int fd) {
    return fails(call::fsync) ? -1 : __real_fsync(fd);
}

iconv_t __wrap_iconv_open(const char *to, const char *from) {
    // An address of -1 reports the failure.
    return fails(call::iconv_open) ? reinterpret_cast<iconv_t>(std::intptr_t{-1})
                                   : __real_iconv_open(to, from);
}

int __wrap_iconv_close(iconv_t converter) {
    if (converters_watched) {
        converter_list().push_back(converter);
    }
    return __real_iconv_close(converter);
}

} // extern "C"
