#include "qvol/host.h"

#include "qvol/error.h"

#include <cerrno>

#include <fcntl.h>
#include <fmt/core.h>
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

// Makes an entry with this name. Returns 0 or more, or -1 with errno.
using make_entry = std::function<int(const char *name)>;

// An entry that is being made, under a temporary name until commit(). Without it the destructor
// removes the entry.
class unfinished_entry {
public:
    unfinished_entry(int directory, std::string name, bool replaces, const std::string &shown,
                     const make_entry &make)
        : directory_(directory), name_(std::move(name)), replaces_(replaces), shown_(shown) {
        refuse_existing();
        make_temporary(make);
        if (result_ < 0) {
            throw system_failure("make " + shown_);
        }
    }
    ~unfinished_entry() {
        if (!is_committed_) {
            unlinkat(directory_, temporary_name_.c_str(), 0);
        }
    }
    unfinished_entry(const unfinished_entry &) = delete;
    unfinished_entry &operator=(const unfinished_entry &) = delete;

    // The result of `make`, a descriptor for a file.
    [[nodiscard]] int result() const {
        return result_;
    }

    void set_modified(std::optional<time_t> modified) const {
        if (!modified) {
            return;
        }
        const timespec times[2] = {{*modified, 0}, {*modified, 0}};
        if (utimensat(directory_, temporary_name_.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
            throw system_failure("set the time of " + shown_);
        }
    }

    void commit() {
        if (rename_to_final() != 0) {
            const int failure = errno;
            refuse_existing(); // made by another program in the meantime
            throw system_failure("rename the new file to " + shown_, failure);
        }
        is_committed_ = true;
    }

private:
    void refuse_existing() const {
        struct stat status {};
        if (fstatat(directory_, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT) { // for example a name that is too long for the host
                throw system_failure("make " + shown_);
            }
            return;
        }
        if (!replaces_) {
            throw error("cannot make " + shown_ + ": exists; --force replaces it");
        }
        if (S_ISDIR(status.st_mode)) {
            throw error("cannot replace " + shown_ + ": is a directory");
        }
    }

    // Some file systems do not support RENAME_NOREPLACE.
    [[nodiscard]] int rename_to_final() const {
        const unsigned flags = replaces_ ? 0 : RENAME_NOREPLACE;
        const int renamed =
            renameat2(directory_, temporary_name_.c_str(), directory_, name_.c_str(), flags);
        return renamed != 0 && (errno == EINVAL || errno == ENOSYS)
                   ? renameat(directory_, temporary_name_.c_str(), directory_, name_.c_str())
                   : renamed;
    }

    void make_temporary(const make_entry &make) {
        constexpr int MOST_ATTEMPTS = 1000;
        for (int attempt = 0; attempt < MOST_ATTEMPTS; attempt++) {
            temporary_name_ = fmt::format(".qvol-{}-{}", getpid(), attempt);
            result_ = make(temporary_name_.c_str());
            if (result_ >= 0 || errno != EEXIST) {
                return;
            }
        }
    }

    int directory_;
    std::string name_;
    bool replaces_;
    std::string shown_;
    std::string temporary_name_;
    int result_ = -1;
    bool is_committed_ = false;
};

} // namespace

host_directory::host_directory(const std::string &path) : path_(path) {
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        throw system_failure("open directory " + shown_bytes(path));
    }
    fd_ = std::make_unique<core::unique_fd>(fd);
}

std::string host_directory::shown(const std::string &name) const {
    return shown_bytes(host_path_below(path_, name));
}

host_directory host_directory::enter(const std::string &name) const {
    if (mkdirat(fd_->get(), name.c_str(), DIRECTORY_MODE) != 0 && errno != EEXIST) {
        throw system_failure("make directory " + shown(name));
    }
    const int fd =
        openat(fd_->get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 && (errno == ENOTDIR || errno == ELOOP)) {
        throw error("cannot make directory " + shown(name) + ": exists and is not a directory");
    }
    if (fd < 0) {
        throw system_failure("open directory " + shown(name));
    }
    return {fd, host_path_below(path_, name)};
}

void host_directory::make_file(const std::string &name, bool replaces,
                               std::optional<time_t> modified, const write_content &content) const {
    unfinished_entry made(fd_->get(), name, replaces, shown(name), [this](const char *wanted) {
        return openat(fd_->get(), wanted, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                      FILE_MODE);
    });
    const core::unique_fd file(made.result());
    content([&](std::span<const u8> bytes) { write_all(file.get(), bytes, shown(name)); });
    made.set_modified(modified);
    made.commit();
}

void host_directory::make_link(const std::string &name, bool replaces,
                               std::optional<time_t> modified, const std::string &target) const {
    unfinished_entry made(fd_->get(), name, replaces, shown(name), [&](const char *wanted) {
        return symlinkat(target.c_str(), fd_->get(), wanted);
    });
    made.set_modified(modified);
    made.commit();
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
    if (slash == std::string::npos) {
        return {".", trimmed};
    }
    return {slash == 0 ? "/" : trimmed.substr(0, slash), trimmed.substr(slash + 1)};
}

void make_host_file(const std::string &path, bool replaces, std::optional<time_t> modified,
                    const write_content &content) {
    const split_path split = split_host_path(path);
    host_directory(split.directory).make_file(split.name, replaces, modified, content);
}

std::string host_path_below(const std::string &directory, const std::string &name) {
    return directory.ends_with('/') ? directory + name : directory + '/' + name;
}

bool is_host_directory(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace qvol
