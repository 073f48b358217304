#include "qvol/flashing/stop_request.h"

#include "qvol/error.h"

namespace qvol {

namespace {

volatile std::sig_atomic_t was_requested = 0;

void request(int /*signal*/) {
    was_requested = 1;
}

} // namespace

// A signal that was ignored at the start of the program stays ignored.
stop_request::stop_request() {
    was_requested = 0;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before {};
        struct sigaction action {};
        action.sa_handler = request;
        action.sa_flags = static_cast<int>(SA_RESETHAND);
        if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler != SIG_IGN &&
            sigaction(signal, &action, nullptr) == 0) {
            before_.push_back({signal, before});
        }
    }
}

stop_request::~stop_request() {
    for (const old_action &old : before_) {
        sigaction(old.signal, &old.action, nullptr);
    }
}

void stop_request::check() {
    if (was_requested != 0) {
        throw error("interrupted");
    }
}

} // namespace qvol
