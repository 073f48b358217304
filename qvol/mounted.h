// Whether a target is in use by the system: mounted itself, by one of its partitions, by the disk
// that it is a partition of, or through a loop device over it.

#pragma once

#include <optional>
#include <string>

#include <sys/stat.h>

namespace qvol {

// Where the system tells about its mounts and block devices. Tests give places of their own.
struct system_view {
    std::string mounts = "/proc/self/mountinfo";
    std::string devices = "/sys/dev/block"; // MAJOR:MINOR of every block device
    std::string blocks = "/sys/block";      // the disks by name
};

// The mount point that uses the target of the open descriptor `status` was taken from, which an
// image file or a block device may be; nothing when none does.
[[nodiscard]] std::optional<std::string> mount_point_using(const struct stat &status,
                                                           const system_view &view = {});

} // namespace qvol
