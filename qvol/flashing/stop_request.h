// SIGINT, SIGTERM and SIGHUP as a request to stop, for work that must report in what state it
// leaves a device. A second one ends the program at once.

#pragma once

#include <csignal>
#include <vector>

namespace qvol {

class stop_request {
public:
    stop_request();
    ~stop_request();
    stop_request(const stop_request &) = delete;
    stop_request &operator=(const stop_request &) = delete;

    // Throws error if there was one.
    static void check();

private:
    struct old_action {
        int signal;
        struct sigaction action;
    };
    std::vector<old_action> before_;
};

} // namespace qvol
