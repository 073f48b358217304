#include "qvol/new_image.h"

#include "core/resources.h"
#include "qvol/error.h"
#include "qvol/host.h"
#include "qvol/session.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <fmt/core.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qvol {

namespace {

constexpr int STOPPING_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};
constexpr mode_t IMAGE_MODE = 0666; // the user's umask decides

// ---- signals ----

// An image and its forms. "": no file.
constexpr std::size_t MAX_UNFINISHED = 4;
char unfinished_paths[MAX_UNFINISHED][PATH_MAX];

// Async-signal-safe. Removes the files; then the signal ends the program by its default action.
void remove_unfinished(int signal) {
    for (const char *path : unfinished_paths) {
        if (path[0] != '\0') {
            unlink(path);
        }
    }
    (void)std::signal(signal, SIG_DFL);
    (void)raise(signal);
}

// A signal that was ignored at the start of the program stays ignored.
void catch_signals() {
    for (const int signal : STOPPING_SIGNALS) {
        struct sigaction action {};
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            action.sa_handler = remove_unfinished;
            sigaction(signal, &action, nullptr);
        }
    }
}

// Blocks the signals in its scope, or until the program ends after make_permanent().
class signal_blocker {
public:
    signal_blocker() {
        sigset_t set;
        sigemptyset(&set);
        for (const int signal : STOPPING_SIGNALS) {
            sigaddset(&set, signal);
        }
        sigprocmask(SIG_BLOCK, &set, &before_);
    }
    signal_blocker(const signal_blocker &) = delete;
    signal_blocker &operator=(const signal_blocker &) = delete;
    ~signal_blocker() {
        if (!is_permanent_) {
            sigprocmask(SIG_SETMASK, &before_, nullptr);
        }
    }
    void make_permanent() {
        is_permanent_ = true;
    }

private:
    sigset_t before_;
    bool is_permanent_ = false;
};

void remember_unfinished(const std::string &path) {
    auto *const free = std::find_if(std::begin(unfinished_paths), std::end(unfinished_paths),
                                    [](const char *known) { return known[0] == '\0'; });
    if (free != std::end(unfinished_paths)) {
        path.copy(*free, PATH_MAX - 1);
    }
}

void forget_unfinished(const std::string &path) {
    for (char *known : unfinished_paths) {
        if (path == known) {
            std::fill_n(known, PATH_MAX, '\0');
        }
    }
}

// ---- file names ----

// Resolves links: the target of a link is replaced, not the link.
std::string without_links(const std::string &path) {
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

error name_exists(const std::string &path) {
    return error("cannot make " + shown_bytes(path) + ": exists; --force replaces it");
}

int rename_to_free_name(const std::string &from, const std::string &to) {
    const int renamed = renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
    if (renamed == 0 || errno != EINVAL) {
        return renamed;
    }
    // EINVAL: the file system does not support RENAME_NOREPLACE. The name was free at the start.
    return rename(from.c_str(), to.c_str());
}

} // namespace

void check_image_name(const std::string &path, bool replaces) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return;
    }
    if (!replaces) {
        throw name_exists(path);
    }
    if (stat(path.c_str(), &status) == 0) {
        check_replaceable(path);
    }
}

new_image::new_image(const std::string &path, bool replaces, core::u64 bytes)
    : final_path_(without_links(path)), replaces_(replaces) {
    directory_ = split_host_path(final_path_).directory;
    const signal_blocker blocker;
    make(bytes);
    remember_unfinished(path_);
    catch_signals();
}

void new_image::make(core::u64 bytes) {
    int fd = -1;
    for (int attempt = 0; fd < 0; attempt++) {
        path_ = fmt::format("{}/.qvol-{}-{}", directory_, getpid(), attempt);
        fd = open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, IMAGE_MODE);
        if (fd < 0 && errno != EEXIST) {
            throw system_failure("make an image in " + shown_bytes(directory_));
        }
    }
    const core::unique_fd file(fd);
    if (ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        const int reason = errno;
        unlink(path_.c_str());
        throw system_failure(
            fmt::format("make an image of {} bytes in {}", bytes, shown_bytes(directory_)), reason);
    }
}

new_image::~new_image() {
    if (!is_committed_) {
        unlink(path_.c_str());
    }
    forget_unfinished(path_);
}

void new_image::commit() {
    signal_blocker blocker;
    const int renamed = replaces_ ? rename(path_.c_str(), final_path_.c_str())
                                  : rename_to_free_name(path_, final_path_);
    if (renamed != 0 && errno == EEXIST) {
        throw name_exists(final_path_);
    }
    if (renamed != 0) {
        throw system_failure("rename the image to " + shown_bytes(final_path_));
    }
    is_committed_ = true;
    blocker.make_permanent();
    sync_directory(directory_);
}

} // namespace qvol
