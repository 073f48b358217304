// Loop devices; these need root and a kernel with loop devices.

#pragma once

#include "tests/support/process.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace testing_support {

// A loop device over a file. It is marked for removal at once and exists as long as this open
// descriptor, so that even a killed test leaves no device.
class loop_device {
public:
    explicit loop_device(const std::string &file, const std::vector<std::string> &options = {}) {
        std::vector<std::string> command = {"losetup", "--find", "--show"};
        command.insert(command.end(), options.begin(), options.end());
        command.push_back(file);
        const outcome made = run(command);
        if (made.status != 0) {
            trouble_ = "losetup: " + made.err;
            return;
        }
        path_ = made.out.substr(0, made.out.find('\n'));
        fd_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        run({"losetup", "--detach", path_});
        std::uint64_t size = 0;
        if (fd_ < 0 || ioctl(fd_, BLKGETSIZE64, &size) < 0) {
            trouble_ = path_ + ": " + std::strerror(errno);
            return;
        }
        sectors_ = size / 512;
    }
    loop_device(const loop_device &) = delete;
    loop_device &operator=(const loop_device &) = delete;
    ~loop_device() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    // Why there is no device; "" if there is one.
    [[nodiscard]] const std::string &trouble() const {
        return trouble_;
    }
    [[nodiscard]] const std::string &path() const {
        return path_;
    }
    // Of 512 bytes.
    [[nodiscard]] std::uint64_t sectors() const {
        return sectors_;
    }

private:
    std::string trouble_;
    std::string path_;
    int fd_ = -1;
    std::uint64_t sectors_ = 0;
};

// Why loop devices are not available here; "" if they are.
inline std::string trouble_with_loop_devices(const std::string &file) {
    if (geteuid() != 0) {
        return "making a loop device takes root";
    }
    if (!has_program("losetup")) {
        return "losetup is not installed";
    }
    const loop_device probe(file);
    return probe.trouble().empty() ? "" : "no loop device to be had: " + probe.trouble();
}

} // namespace testing_support
