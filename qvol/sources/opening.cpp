#include "qvol/sources/opening.h"

#include "core/resources.h"
#include "qvol/error.h"
#include "qvol/host.h"
#include "qvol/sources/archive_source.h"
#include "qvol/sources/host_source.h"
#include "qvol/sources/manifest_source.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <span>
#include <vector>

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qvol {

namespace {

constexpr std::size_t PIECE_BYTES = std::size_t{256} * 1024;
constexpr u64 MAX_MANIFEST_BYTES = u64{256} << 20;

// Without a name, so that it disappears with the program.
core::unique_fd make_temporary_file() {
    const char *const set = std::getenv("TMPDIR");
    const std::string directory = set != nullptr && *set != '\0' ? set : "/tmp";
    int fd = open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0) { // not every file system has such files
        std::string name = directory + "/.qvol-XXXXXX";
        fd = mkostemp(name.data(), O_CLOEXEC);
        if (fd >= 0) {
            unlink(name.c_str());
        }
    }
    if (fd < 0) {
        throw system_failure("make a temporary file in " + shown_bytes(directory));
    }
    return core::unique_fd(fd);
}

void write_all(int fd, std::span<const u8> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(fd, bytes.data(), bytes.size());
        if (count < 0) {
            throw system_failure("write to a temporary file; TMPDIR chooses its directory");
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
}

// All bytes from the position on. `take` returns false to end.
template <typename Take>
void read_all(int fd, const std::string &name, Take take) {
    std::vector<u8> piece(PIECE_BYTES);
    for (;;) {
        const ssize_t count = read(fd, piece.data(), piece.size());
        if (count < 0) {
            throw system_failure("read " + name);
        }
        if (count == 0 ||
            !take(std::span<const u8>(piece).first(static_cast<std::size_t>(count)))) {
            return;
        }
    }
}

core::unique_fd copy_of(int fd, const std::string &name) {
    core::unique_fd file = make_temporary_file();
    read_all(fd, name, [&](std::span<const u8> bytes) {
        write_all(file.get(), bytes);
        return true;
    });
    return file;
}

// No value if it is too long for a manifest, or has bytes that no text has.
std::optional<std::string> text_of_file(int fd, const std::string &name) {
    std::string text;
    bool is_text = lseek(fd, 0, SEEK_SET) == 0;
    read_all(fd, name, [&](std::span<const u8> bytes) {
        text.append(reinterpret_cast<const char *>(bytes.data()), bytes.size());
        is_text = is_text && text.size() <= MAX_MANIFEST_BYTES &&
                  std::find(bytes.begin(), bytes.end(), 0) == bytes.end();
        return is_text;
    });
    return is_text && !text.empty() ? std::optional(std::move(text)) : std::nullopt;
}

core::unique_fd open_file(const std::string &path) {
    const bool is_standard = path == "-";
    core::unique_fd opened(is_standard ? dup(STDIN_FILENO)
                                       : open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (opened.get() < 0) {
        throw system_failure("open " + shown_bytes(path));
    }
    return opened;
}

// A regular file at its start can be read again.
bool is_at_start(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && lseek(fd, 0, SEEK_CUR) == 0;
}

core::unique_fd file_to_read_twice(core::unique_fd opened, const std::string &name) {
    return is_at_start(opened.get()) ? std::move(opened) : copy_of(opened.get(), name);
}

} // namespace

std::unique_ptr<source> open_source(const std::string &path, const std::string &contents) {
    if (path != "-" && is_host_directory(path)) {
        return std::make_unique<host_source>(path);
    }
    const std::string name = path == "-" ? "standard input" : path;
    core::unique_fd file = file_to_read_twice(open_file(path), shown_bytes(name));
    if (archive_reader(file.get(), name).is_known()) {
        return std::make_unique<archive_source>(std::move(file), name);
    }
    const std::optional<std::string> text = text_of_file(file.get(), shown_bytes(name));
    if (text && is_manifest(*text)) {
        const std::string directory = !contents.empty() ? contents
                                      : path == "-"     ? "."
                                                        : split_host_path(path).directory;
        return std::make_unique<manifest_source>(*text, name, directory);
    }
    throw error(
        fmt::format("cannot read {}: neither a directory, an archive (tar, cpio, zip) nor a "
                    "manifest (mtree)",
                    shown_bytes(name)));
}

} // namespace qvol
