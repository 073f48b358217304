// Errors: one exception that carries the message for the user.

#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qvol {

// The message states what failed, on what, why, and what to do. `details` are further lines, one
// for each problem if several are reported at once.
class error : public std::runtime_error {
public:
    explicit error(const std::string &message, std::vector<std::string> details = {})
        : std::runtime_error(message), details_(std::move(details)) {}

    [[nodiscard]] const std::vector<std::string> &details() const {
        return details_;
    }

private:
    std::vector<std::string> details_;
};

// The request is invalid, whatever the content of the volume.
class usage_error : public error {
public:
    using error::error;
};

// "cannot WHAT: REASON", with the text of the system for `number`.
[[nodiscard]] inline error system_failure(const std::string &what, int number = errno) {
    return error("cannot " + what + ": " + std::strerror(number));
}

} // namespace qvol
