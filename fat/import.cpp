// Copying files and symbolic links of the host into the volume.

#include "fat/internal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace fat;

namespace {

// Bytes of one read and one write: the volume allocates the clusters of a whole chunk at once.
constexpr u32 CHUNK = 8U * 1024 * 1024;

void show_written(u64 total, off_t size) {
    std::printf("\rWritten count: %d / %lld Bytes", static_cast<int>(total),
                static_cast<long long>(size));
    std::fflush(stdout);
}

// Copies the host file up to its end, or up to the first failure. Intentional: a failed read ends
// the copy like the end of the file.
void copy_data(int file, int id, u8 *chunk, const char *volume_path, const off_t *shown_size) {
    u64 total = 0;
    for (;;) {
        const ssize_t bytes = read(file, chunk, CHUNK);
        if (bytes < 1) {
            return;
        }
        const int written = fat_write_file(id, chunk, static_cast<u32>(bytes));
        if (written != bytes) {
            report_at("fat_copy_to_zuq", __LINE__, "cannot write to file %s: %s\n", volume_path,
                      std::strerror(-written));
            return;
        }
        total += static_cast<u64>(bytes);
        if (shown_size != nullptr) {
            show_written(total, *shown_size);
        }
    }
}

// `shown_size` is the size in the progress line, null for no progress line.
int copy_file(const char *host_path, const char *volume_path, u8 *chunk, const off_t *shown_size) {
    const unique_fd file(open(host_path, O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) {
        const int error = errno;
        report_at("fat_copy_to_zuq", __LINE__, "cannot open file:%s\n", host_path);
        return -error;
    }
    const int id = fat_create_file(volume_path);
    if (id < 0) {
        report_at("fat_copy_to_zuq", __LINE__, "cannot create ZUQ file %s: %s\n",
                  text_or_null(volume_path), std::strerror(-id));
        return id;
    }
    copy_data(file.get(), id, chunk, volume_path, shown_size);
    if (shown_size != nullptr) {
        std::putchar('\n');
    }
    (void)fat_close(id); // cannot fail: the id is open
    return 0;
}

int copy_link(const char *host_path, const char *volume_path, u8 *chunk) {
    char *target = reinterpret_cast<char *>(chunk);
    const ssize_t length = readlink(host_path, target, CHUNK);
    if (length < 1) {
        const int error = errno != 0 ? errno : EINVAL; // an empty link does not set errno
        report_at("fat_copy_to_zuq", __LINE__, "Cannot read link!\n\n");
        return -error;
    }
    target[length] = '\0';
    const int result = fat_create_symlink(target, volume_path);
    if (result != 0) {
        report_at("fat_copy_to_zuq", __LINE__, "cannot create ZUQ file %s\n\n",
                  text_or_null(volume_path));
        return result;
    }
    return 0;
}

} // namespace

int fat_copy_to_zuq(const char *host_path, const char *volume_path, int show_progress) {
    const public_call call;
    if (host_path == nullptr) {
        REPORT("Cannot get file path!\n\n");
        return -EINVAL;
    }
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    struct stat status = {};
    if (lstat(host_path, &status) < 0) {
        const int error = errno;
        REPORT("Cannot get file status:%s!\n\n", host_path);
        return -error;
    }
    const heap_ptr<u8> chunk = zeroed_bytes(CHUNK + 1); // one more byte terminates a link target
    if (chunk == nullptr) {
        REPORT("Cannot allocate memory.(err=%d)\n", -ENOMEM);
        return -ENOMEM;
    }
    switch (status.st_mode & S_IFMT) {
    case S_IFREG:
        return copy_file(host_path, volume_path, chunk.get(),
                         show_progress != 0 ? &status.st_size : nullptr);
    case S_IFLNK:
        return copy_link(host_path, volume_path, chunk.get());
    default:
        REPORT("Invalid typed file: %s\n\n", host_path);
        return -EINVAL;
    }
}
