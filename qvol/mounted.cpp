#include "qvol/mounted.h"

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include <fmt/core.h>
#include <sys/sysmacros.h>

namespace qvol {

namespace {

namespace fs = std::filesystem;

std::string number_of(dev_t device) {
    return fmt::format("{}:{}", major(device), minor(device));
}

std::string first_line(const fs::path &path) {
    std::ifstream stream(path);
    std::string line;
    std::getline(stream, line);
    return line;
}

// Adds the device numbers of the partitions of a disk.
void add_partitions(const fs::path &disk, std::set<std::string> *numbers) {
    std::error_code error;
    for (const auto &child : fs::directory_iterator(disk, error)) {
        if (fs::exists(child.path() / "partition", error)) {
            numbers->insert(first_line(child.path() / "dev"));
        }
    }
}

// Adds a device, its partitions, and the disk that it is a partition of.
void add_device(const std::string &number, const system_view &view,
                std::set<std::string> *numbers) {
    numbers->insert(number);
    std::error_code error;
    const fs::path device = fs::canonical(fs::path(view.devices) / number, error);
    if (error) {
        return;
    }
    add_partitions(device, numbers);
    if (fs::exists(device / "partition", error)) {
        numbers->insert(first_line(device.parent_path() / "dev"));
    }
}

bool is_same_file(const std::string &path, const struct stat &status) {
    struct stat other {};
    return !path.empty() && stat(path.c_str(), &other) == 0 && other.st_dev == status.st_dev &&
           other.st_ino == status.st_ino;
}

// Adds the loop devices over an image file.
void add_loop_devices(const struct stat &status, const system_view &view,
                      std::set<std::string> *numbers) {
    std::error_code error;
    for (const auto &block : fs::directory_iterator(view.blocks, error)) {
        if (is_same_file(first_line(block.path() / "loop" / "backing_file"), status)) {
            add_device(first_line(block.path() / "dev"), view, numbers);
        }
    }
}

std::set<std::string> devices_of(const struct stat &status, const system_view &view) {
    std::set<std::string> numbers;
    if (S_ISBLK(status.st_mode)) {
        add_device(number_of(status.st_rdev), view, &numbers);
    } else {
        add_loop_devices(status, view, &numbers);
    }
    numbers.erase("");
    return numbers;
}

// Some file systems have their own device numbers; their source is the block device.
std::string number_of_source(const std::string &source) {
    struct stat status {};
    const bool is_device =
        source.starts_with('/') && stat(source.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
    return is_device ? number_of(status.st_rdev) : std::string();
}

// A line of mountinfo: ID PARENT MAJOR:MINOR ROOT POINT OPTIONS... - TYPE SOURCE ...
struct mount_line {
    std::string number;
    std::string point;
    std::string source;
};

mount_line parse_mount(const std::string &line) {
    std::istringstream words(line);
    mount_line mount;
    std::string skipped;
    words >> skipped >> skipped >> mount.number >> skipped >> mount.point;
    for (std::string word; words >> word && word != "-";) {
    }
    words >> skipped >> mount.source;
    return mount;
}

std::optional<struct stat> status_of_device(const std::string &path) {
    struct stat status {};
    const bool is_device = stat(path.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
    return is_device ? std::optional(status) : std::nullopt;
}

} // namespace

bool is_on_disk(const std::string &device, const std::string &disk) {
    const std::optional<struct stat> one = status_of_device(device);
    const std::optional<struct stat> other = status_of_device(disk);
    return one && other && devices_of(*one, {}).contains(number_of(other->st_rdev));
}

std::optional<std::string> mount_point_using(const struct stat &status, const system_view &view) {
    const std::set<std::string> numbers = devices_of(status, view);
    if (numbers.empty()) {
        return std::nullopt;
    }
    std::ifstream mounts(view.mounts);
    for (std::string line; std::getline(mounts, line);) {
        const mount_line mount = parse_mount(line);
        if (numbers.contains(mount.number) || numbers.contains(number_of_source(mount.source))) {
            return mount.point;
        }
    }
    return std::nullopt;
}

} // namespace qvol
