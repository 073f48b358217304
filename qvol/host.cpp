#include "qvol/host.h"

#include "qvol/error.h"

#include <cerrno>

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qvol {

namespace {

constexpr mode_t DIRECTORY_MODE = 0777; // the user's umask decides
constexpr mode_t FILE_MODE = 0666;

void write_all(int fd, std::span<const u8> bytes, const std::string &shown) {
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            throw system_failure("write " + shown);
        }
        bytes = bytes.subspan(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
}

// A name that is taken away again unless it has been moved into its place.
class temporary_name {
public:
    temporary_name(int directory, std::string name)
        : directory_(directory), name_(std::move(name)) {}
    ~temporary_name() {
        if (!is_moved_) {
            unlinkat(directory_, name_.c_str(), 0);
        }
    }
    temporary_name(const temporary_name &) = delete;
    temporary_name &operator=(const temporary_name &) = delete;

    void set_moved() {
        is_moved_ = true;
    }

private:
    int directory_;
    std::string name_;
    bool is_moved_ = false;
};

std::string temporary_name_for(int attempt) {
    return fmt::format(".qvol-{}-{}", getpid(), attempt);
}

void stamp(int directory, const std::string &name, std::optional<time_t> modified) {
    if (!modified) {
        return;
    }
    const timespec times[2] = {{*modified, 0}, {*modified, 0}};
    const char *path = name.c_str();
    if (utimensat(directory, path, times, AT_SYMLINK_NOFOLLOW) != 0) {
        throw system_failure("set the time of " + shown_bytes(name));
    }
}

// Makes something under a name that nothing has. `make` returns 0 or more, or -1 with errno.
template <typename Make>
std::string make_temporary(const std::string &shown, Make make, int *result) {
    constexpr int MOST_ATTEMPTS = 1000;
    for (int attempt = 0; attempt < MOST_ATTEMPTS; attempt++) {
        const std::string name = temporary_name_for(attempt);
        *result = make(name.c_str());
        if (*result >= 0) {
            return name;
        }
        if (errno != EEXIST) {
            break;
        }
    }
    throw system_failure("make " + shown);
}

} // namespace

host_directory::host_directory(const std::string &path) : path_(path) {
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        throw system_failure("open the directory " + shown_bytes(path));
    }
    fd_ = std::make_unique<fat::held_descriptor>(fd);
}

std::string host_directory::shown(const std::string &name) const {
    return shown_bytes(path_ + (path_.ends_with('/') ? "" : "/") + name);
}

host_directory host_directory::enter(const std::string &name) const {
    if (mkdirat(fd_->get(), name.c_str(), DIRECTORY_MODE) != 0 && errno != EEXIST) {
        throw system_failure("make the directory " + shown(name));
    }
    const int fd =
        openat(fd_->get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 && (errno == ENOTDIR || errno == ELOOP)) {
        throw error(shown(name) + ": exists and is no directory");
    }
    if (fd < 0) {
        throw system_failure("open the directory " + shown(name));
    }
    return {fd, path_ + (path_.ends_with('/') ? "" : "/") + name};
}

void host_directory::refuse_existing(const std::string &name, bool replaces) const {
    struct stat status {};
    if (fstatat(fd_->get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return;
    }
    if (!replaces) {
        throw error(shown(name) + ": exists; --force replaces it");
    }
    if (S_ISDIR(status.st_mode)) {
        throw error(shown(name) + ": is a directory, which is not replaced");
    }
}

void host_directory::move_into_place(const std::string &temporary, const std::string &name,
                                     bool replaces) const {
    const unsigned flags = replaces ? 0 : RENAME_NOREPLACE;
    int result = renameat2(fd_->get(), temporary.c_str(), fd_->get(), name.c_str(), flags);
    if (result != 0 && errno == EINVAL && !replaces) { // a file system that cannot promise it
        refuse_existing(name, replaces);
        result = renameat(fd_->get(), temporary.c_str(), fd_->get(), name.c_str());
    }
    if (result != 0) {
        throw system_failure("make " + shown(name));
    }
}

void host_directory::make_file(const std::string &name, bool replaces,
                               std::optional<time_t> modified, const write_content &content) const {
    refuse_existing(name, replaces);
    int result = -1;
    const std::string temporary = make_temporary(
        shown(name),
        [this](const char *wanted) {
            return openat(fd_->get(), wanted, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                          FILE_MODE);
        },
        &result);
    const fat::held_descriptor file(result);
    temporary_name guard(fd_->get(), temporary);
    content([&](std::span<const u8> bytes) { write_all(file.get(), bytes, shown(name)); });
    stamp(fd_->get(), temporary, modified);
    move_into_place(temporary, name, replaces);
    guard.set_moved();
}

void host_directory::make_link(const std::string &name, bool replaces,
                               std::optional<time_t> modified, const std::string &target) const {
    refuse_existing(name, replaces);
    int result = -1;
    const std::string temporary = make_temporary(
        shown(name),
        [&](const char *wanted) { return symlinkat(target.c_str(), fd_->get(), wanted); }, &result);
    temporary_name guard(fd_->get(), temporary);
    stamp(fd_->get(), temporary, modified);
    move_into_place(temporary, name, replaces);
    guard.set_moved();
}

void host_directory::set_modified(std::optional<time_t> modified) const {
    if (!modified) {
        return;
    }
    const timespec times[2] = {{*modified, 0}, {*modified, 0}};
    if (futimens(fd_->get(), times) != 0) {
        throw system_failure("set the time of " + shown_bytes(path_));
    }
}

split_path split_host_path(const std::string &path) {
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') {
        trimmed.pop_back();
    }
    const std::size_t slash = trimmed.rfind('/');
    if (slash == trimmed.npos) {
        return {".", trimmed};
    }
    return {slash == 0 ? "/" : trimmed.substr(0, slash), trimmed.substr(slash + 1)};
}

void make_host_file(const std::string &path, bool replaces, std::optional<time_t> modified,
                    const write_content &content) {
    const split_path split = split_host_path(path);
    host_directory(split.directory).make_file(split.name, replaces, modified, content);
}

bool is_host_directory(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace qvol
