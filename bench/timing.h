// Measures programs and calls in turn, in wall time.

#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

[[noreturn]] inline void fail(const std::string &what) {
    std::fprintf(stderr, "%s failed\n", what.c_str());
    std::exit(1);
}

inline void exec_quietly(const std::vector<std::string> &arguments) {
    std::vector<char *> argv;
    for (const std::string &argument : arguments) {
        argv.push_back(const_cast<char *>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
}

// Runs a program, found through PATH, to its end and discards its output. Ends the benchmark if the
// program fails. Returns the peak of its resident memory in KiB.
inline long run_program(const std::vector<std::string> &arguments) {
    const pid_t child = fork();
    if (child == 0) {
        exec_quietly(arguments);
    }
    int status = 0;
    rusage used{};
    if (child < 0 || wait4(child, &status, 0, &used) < 0 || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        fail(arguments[0]);
    }
    return used.ru_maxrss;
}

using step = std::function<void()>;

// The step that runs the program. Its time includes starting and ending it.
inline step program(std::vector<std::string> arguments) {
    return [arguments = std::move(arguments)] { run_program(arguments); };
}

// Seconds that a step takes.
inline double time_of(const step &run) {
    const auto begin = std::chrono::steady_clock::now();
    run();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

struct contestant {
    step prepare; // not timed
    step run;
};

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// The median time of each in seconds. All run in every round, in an order that rotates. The first
// round only warms up.
inline std::vector<double> medians(const std::vector<contestant> &contestants, int rounds) {
    const std::size_t count = contestants.size();
    std::vector<std::vector<double>> times(count);
    for (int round = 0; round <= rounds; round++) {
        for (std::size_t i = 0; i < count; i++) {
            const std::size_t which = (i + static_cast<std::size_t>(round)) % count;
            contestants[which].prepare();
            const double taken = time_of(contestants[which].run);
            if (round > 0) {
                times[which].push_back(taken);
            }
        }
    }
    std::vector<double> result;
    for (const std::vector<double> &of_contestant : times) {
        result.push_back(median(of_contestant));
    }
    return result;
}

} // namespace bench
