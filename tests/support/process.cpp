#include "tests/support/process.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testing_support {

namespace {

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

[[noreturn]] void become(const std::vector<std::string> &arguments, FILE *out, FILE *err) {
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, STDIN_FILENO);
    dup2(fileno(out), STDOUT_FILENO);
    dup2(fileno(err), STDERR_FILENO);
    std::vector<char *> argv;
    for (const std::string &argument : arguments) {
        argv.push_back(const_cast<char *>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const char *path = std::getenv("PATH");
    setenv("PATH", (std::string(path != nullptr ? path : "") + ":/usr/sbin:/sbin").c_str(), 1);
    setenv("LC_ALL", "C", 1);
    unsetenv("GCONV_PATH"); // that of an emulated test program
    execvp(argv[0], argv.data());
    _exit(127);
}

} // namespace

outcome run(const std::vector<std::string> &arguments) {
    FILE *out = std::tmpfile();
    FILE *err = std::tmpfile();
    if (out == nullptr || err == nullptr) {
        throw std::runtime_error("cannot make temporary files");
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        become(arguments, out, err);
    }
    int status = 0;
    waitpid(child, &status, 0);
    outcome result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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
