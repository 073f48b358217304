#include "tests/support/process.h"

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testing_support {

namespace {

constexpr int NOT_STARTED = 127;        // as a shell reports it
constexpr int LONGEST_RUN = 600 * 1000; // ms

std::string contents(FILE *file) {
    std::string result;
    std::rewind(file);
    char block[4096];
    for (std::size_t n = std::fread(block, 1, sizeof block, file); n > 0;
         n = std::fread(block, 1, sizeof block, file)) {
        result.append(block, n);
    }
    return result;
}

// A variable of the environment for the lifetime of the object; nullptr: not set.
class scoped_variable {
public:
    scoped_variable(const char *name, const char *value) : name_(name) {
        const char *before = std::getenv(name);
        before_ = before == nullptr ? std::nullopt : std::optional<std::string>(before);
        set(value);
    }
    scoped_variable(const scoped_variable &) = delete;
    scoped_variable &operator=(const scoped_variable &) = delete;
    ~scoped_variable() {
        set(before_.has_value() ? before_->c_str() : nullptr);
    }

private:
    void set(const char *value) const {
        if (value == nullptr) {
            unsetenv(name_);
        } else {
            setenv(name_, value, 1);
        }
    }

    const char *name_;
    std::optional<std::string> before_;
};

// Not fork(), which copies the page tables of this process: those of a sanitized one are large.
pid_t start(const std::vector<std::string> &arguments, FILE *out, FILE *err) {
    const char *path = std::getenv("PATH");
    const std::string with_system = std::string(path != nullptr ? path : "") + ":/usr/sbin:/sbin";
    const scoped_variable search("PATH", with_system.c_str());
    const scoped_variable language("LC_ALL", "C");
    const scoped_variable converters("GCONV_PATH", nullptr); // that of an emulated test program
    std::vector<char *> argv;
    for (const std::string &argument : arguments) {
        argv.push_back(const_cast<char *>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, fileno(out), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, fileno(err), STDERR_FILENO);
    pid_t child = 0;
    const int error = posix_spawnp(&child, argv[0], &files, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    return error == 0 ? child : -1;
}

// Kills a process that does not end.
void wait_for_end(pid_t child) {
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    pollfd end = {.fd = handle, .events = POLLIN, .revents = 0};
    if (handle >= 0 && poll(&end, 1, LONGEST_RUN) == 0) {
        std::fprintf(stderr, "killed after %d s\n", LONGEST_RUN / 1000);
        kill(child, SIGKILL);
    }
    close(handle);
}

} // namespace

outcome run(const std::vector<std::string> &arguments) {
    FILE *out = std::tmpfile();
    FILE *err = std::tmpfile();
    if (out == nullptr || err == nullptr) {
        throw std::runtime_error("cannot make temporary files");
    }
    std::fflush(nullptr);
    const pid_t child = start(arguments, out, err);
    int status = 0;
    outcome result;
    result.status = NOT_STARTED;
    if (child > 0) {
        wait_for_end(child);
        waitpid(child, &status, 0);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    result.out = contents(out);
    result.err = contents(err);
    std::fclose(out);
    std::fclose(err);
    return result;
}

outcome shell(const std::string &command, const std::vector<std::string> &arguments) {
    std::vector<std::string> all = {"/bin/sh", "-c", command, "sh"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return run(all);
}

outcome shell_with_private_mounts(const std::string &command,
                                  const std::vector<std::string> &arguments) {
    // Users other than root may mount where the system gives them a user namespace.
    std::vector<std::string> all = {
        "unshare", geteuid() == 0 ? "-m" : "-rm", "/bin/sh", "-c", command, "sh"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return run(all);
}

bool can_mount_privately() {
    return shell_with_private_mounts("mount -t tmpfs none /tmp && mount --bind /tmp /etc").status ==
           0;
}

bool has_program(const std::string &name) {
    return shell("command -v " + name).status == 0;
}

} // namespace testing_support
