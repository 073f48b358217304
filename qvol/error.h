// How qvol fails: one exception that carries what a person has to know.

#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qvol {

// What failed, on which path, why, and what to do about it. `details` are further lines, one for
// each finding where several are told at once.
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

// The request itself makes no sense, whatever the volume holds.
class usage_error : public error {
public:
    using error::error;
};

// "cannot WHAT: the reason that the system gave".
[[nodiscard]] inline error system_failure(const std::string &what, int number = errno) {
    return error("cannot " + what + ": " + std::strerror(number));
}

} // namespace qvol
