// Linked into a program, makes every write after the first WRITES_ALLOWED fail.

#include <cerrno>
#include <cstdlib>

#include <unistd.h>

namespace {

long writes_allowed() {
    const char *text = std::getenv("WRITES_ALLOWED");
    return text != nullptr ? std::atol(text) : -1;
}

} // namespace

extern "C" ssize_t __real_pwrite64(int fd, const void *buffer, size_t size, off64_t offset);

extern "C" ssize_t __wrap_pwrite64(int fd, const void *buffer, size_t size, off64_t offset) {
    static long left = writes_allowed();
    if (left == 0) {
        errno = EIO;
        return -1;
    }
    left--;
    return __real_pwrite64(fd, buffer, size, offset);
}
