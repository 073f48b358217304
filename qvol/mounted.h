// Finds out if the system has mounted a target: the target itself, one of its partitions, the disk
// that it is a partition of, or a loop device over it.

#pragma once

#include <optional>
#include <string>

#include <sys/stat.h>

namespace qvol {

// Where the system lists its mounts and block devices. Tests pass other paths.
struct system_view {
    std::string mounts = "/proc/self/mountinfo";
    std::string devices = "/sys/dev/block"; // MAJOR:MINOR of every block device
    std::string blocks = "/sys/block";      // the disks by name
};

// The mount point that uses the image file or block device of `status`, or nothing.
[[nodiscard]] std::optional<std::string> mount_point_using(const struct stat &status,
                                                           const system_view &view = {});

// Whether one block device is the other, its disk, or one of its partitions. False if either is
// no block device.
[[nodiscard]] bool is_on_disk(const std::string &device, const std::string &disk);

} // namespace qvol
