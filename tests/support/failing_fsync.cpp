// Replaces fsync() of the program that it is linked into: every fsync() fails.

#include <cerrno>

#include <unistd.h>

extern "C" int fsync(int) {
    errno = EIO;
    return -1;
}
