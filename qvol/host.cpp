#include "qvol/host.h"

#include "qvol/error.h"

#include <cerrno>

#include <dirent.h>
#include <fcntl.h>
#include <fmt/core.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qvol {

namespace {

constexpr mode_t DIRECTORY_MODE = 0777; // the user's umask decides
constexpr mode_t FILE_MODE = 0666;

// False, with errno, if a write fails.
[[nodiscard]] bool write_all(int fd, std::span<const u8> bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        bytes = bytes.subspan(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
    return true;
}

// Makes an entry with this name. Returns 0 or more, or -1 with errno.
using make_entry = std::function<int(const char *name)>;

// The name of an entry to make, and its directory.
struct entry_name {
    int directory;
    const std::string &directory_path; // for messages
    const std::string &name;
    bool replaces;

    [[nodiscard]] std::string shown() const {
        return shown_bytes(host_path_below(directory_path, name));
    }
};

// An entry that is being made, under a temporary name until commit(). Without it the destructor
// removes the entry.
class unfinished_entry {
public:
    // `is_free`: the name is not expected to exist. commit() refuses it if it does.
    unfinished_entry(const entry_name &final, bool is_free, const make_entry &make)
        : final_(final) {
        if (!is_free) {
            refuse_existing();
        }
        make_temporary(make);
        if (result_ < 0) {
            throw system_failure("make " + final_.shown());
        }
    }
    ~unfinished_entry() {
        if (!is_committed_) {
            unlinkat(final_.directory, temporary_name_.c_str(), 0);
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
        if (utimensat(final_.directory, temporary_name_.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
            throw system_failure("set the time of " + final_.shown());
        }
    }

    void commit() {
        if (rename_to_final() != 0) {
            const int failure = errno;
            refuse_existing(); // made by another program in the meantime
            throw system_failure("rename the new file to " + final_.shown(), failure);
        }
        is_committed_ = true;
    }

private:
    void refuse_existing() const {
        struct stat status {};
        if (fstatat(final_.directory, final_.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT) { // for example a name that is too long for the host
                throw system_failure("make " + final_.shown());
            }
            return;
        }
        if (!final_.replaces) {
            throw error("cannot make " + final_.shown() + ": exists; --force replaces it");
        }
        if (S_ISDIR(status.st_mode)) {
            throw error("cannot replace " + final_.shown() + ": is a directory");
        }
    }

    [[nodiscard]] int rename_to_final() const {
        const char *from = temporary_name_.c_str();
        const char *to = final_.name.c_str();
        const unsigned flags = final_.replaces ? 0 : RENAME_NOREPLACE;
        const int renamed = renameat2(final_.directory, from, final_.directory, to, flags);
        if (renamed == 0 || (errno != EINVAL && errno != ENOSYS)) {
            return renamed;
        }
        refuse_existing(); // some file systems do not support RENAME_NOREPLACE
        return renameat(final_.directory, from, final_.directory, to);
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

    entry_name final_;
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
    const bool is_new = mkdirat(fd_->get(), name.c_str(), DIRECTORY_MODE) == 0;
    if (!is_new && errno != EEXIST) {
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
    return {fd, host_path_below(path_, name), is_new};
}

void host_directory::make_file(const std::string &name, bool replaces,
                               std::optional<time_t> modified, const write_content &content,
                               const finish_file &finish) const {
    const entry_name final = {fd_->get(), path_, name, replaces};
    unfinished_entry made(final, is_new_, [this](const char *wanted) {
        return openat(fd_->get(), wanted, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                      FILE_MODE);
    });
    const core::unique_fd file(made.result());
    content([&](std::span<const u8> bytes) {
        if (!write_all(file.get(), bytes)) {
            throw system_failure("write " + final.shown());
        }
    });
    finish(file.get());
    made.set_modified(modified);
    made.commit();
}

void host_directory::make_link(const std::string &name, bool replaces,
                               std::optional<time_t> modified, const std::string &target) const {
    const entry_name final = {fd_->get(), path_, name, replaces};
    unfinished_entry made(final, is_new_, [&](const char *wanted) {
        return symlinkat(target.c_str(), fd_->get(), wanted);
    });
    made.set_modified(modified);
    made.commit();
}

bool host_directory::is_empty() const {
    const int fd = openat(fd_->get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR *)> listed(fd < 0 ? nullptr : fdopendir(fd), closedir);
    if (listed == nullptr) {
        throw system_failure("read directory " + shown_bytes(path_));
    }
    for (const dirent *found = readdir(listed.get()); found != nullptr;
         found = readdir(listed.get())) {
        if (std::string_view(found->d_name) != "." && std::string_view(found->d_name) != "..") {
            return false;
        }
    }
    return true;
}

bool host_directory::is_too_long(const std::string &name) const {
    struct stat status {};
    return fstatat(fd_->get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 &&
           errno == ENAMETOOLONG;
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

void sync_directory(const std::string &path) {
    const core::unique_fd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // EINVAL: the file system cannot sync directories.
    if (directory.get() < 0 || (fsync(directory.get()) != 0 && errno != EINVAL)) {
        throw system_failure("sync directory " + shown_bytes(path));
    }
}

} // namespace qvol
