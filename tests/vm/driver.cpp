// Uses the library inside the virtual machine, on devices that a kernel also mounts.
//
// clang-format off
//   driver extract DEVICE DIRECTORY        copies the whole volume to DIRECTORY, links as links
//   driver import DIRECTORY DEVICE         copies files, directories and links to the volume
//   driver remove DEVICE DIRECTORY NAME    removes a file from a directory in the root
//   driver lookup DEVICE DIRECTORY         looks up every name of a directory
// clang-format on
//
// Exit status 0, or 1 with an error message on standard error.

#include "fat/internal.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using namespace fat;

namespace {

namespace fs = std::filesystem;

constexpr u8 LINK = 7;

[[noreturn]] void fail(const std::string &what, int error) {
    std::fprintf(stderr, "driver: %s: %s\n", what.c_str(), std::strerror(-error));
    std::exit(1);
}

int checked(int result, const std::string &what) {
    if (result < 0) {
        fail(what, result);
    }
    return result;
}

void open_volume(const char *device) {
    checked(fat_open_volume(device, 1, 0), device);
    checked(fat_build_super(), "mounting");
    checked(fat_set_encoding("UTF-8"), "encoding");
}

void close_volume() {
    const int fd = sv->fd;
    checked(fsync(fd) == 0 ? 0 : -errno, "fsync");
    checked(fat_close_volume(0), "closing");
}

std::vector<fat_entry_info> entries_of(int directory) {
    std::vector<fat_entry_info> result;
    fat_entry_info info;
    int more = 0;
    for (u32 index = 0; (more = fat_next_entry(directory, &index, &info)) == 1;) {
        if (std::strcmp(info.name, ".") != 0 && std::strcmp(info.name, "..") != 0 &&
            info.type != DENTRY_VOLUME) {
            result.push_back(info);
        }
    }
    checked(more, "listing");
    return result;
}

// ---- extract ----

std::string contents_of(int file) {
    std::string result;
    std::vector<char> chunk(100'000);
    for (;;) {
        const int bytes =
            checked(fat_read_file(file, chunk.data(), static_cast<u32>(chunk.size())), "reading");
        if (bytes == 0) {
            return result;
        }
        result.append(chunk.data(), static_cast<std::size_t>(bytes));
    }
}

void extract(int directory, const fs::path &target) {
    fs::create_directories(target);
    for (const fat_entry_info &info : entries_of(directory)) {
        // Opens by index: some names from other systems are not found by their listed form.
        const int id = checked(fat_entry_open(oentry_table[directory], info.index), info.name);
        const fs::path path = target / info.name;
        if (info.type == DENTRY_DIR) {
            extract(id, path);
        } else if (info.type == LINK) {
            fs::create_symlink(contents_of(id), path);
        } else {
            std::ofstream(path, std::ios::binary) << contents_of(id);
        }
        fat_close(id);
    }
}

// ---- import ----

void import_tree(const fs::path &source) {
    std::vector<fs::path> paths;
    for (const fs::directory_entry &entry : fs::directory_iterator(source)) {
        paths.push_back(entry.path());
    }
    std::sort(paths.begin(), paths.end());
    const int here = checked(get_current(), "current directory");
    for (const fs::path &path : paths) {
        const std::string name = path.filename().string();
        if (!fs::is_directory(fs::symlink_status(path))) {
            checked(fat_copy_to_zuq(path.c_str(), name.c_str(), 0), path);
            continue;
        }
        const int below = checked(fat_mkdir(name.c_str()), path);
        checked(fat_set_current(below), path);
        import_tree(path);
        checked(fat_set_current(here), path);
        fat_close(below);
    }
}

// ---- lookup ----

int enter(const char *directory) {
    const int id = checked(fat_open_dir(directory), directory);
    checked(fat_set_current(id), directory);
    return id;
}

void look_up_all(int directory) {
    int found = 0;
    for (const fat_entry_info &info : entries_of(directory)) {
        const int id = checked(fat_open(info.name), info.name);
        fat_entry_info opened;
        checked(fat_info_of(id, &opened), info.name);
        if (opened.index != info.index) {
            fail(std::string(info.name) + " leads to another entry", -ENOENT);
        }
        fat_close(id);
        found++;
    }
    std::printf("%d names found\n", found);
}

} // namespace

int main(int argc, char **argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    if (std::getenv("VERBOSE") == nullptr) {
        fat_set_diagnostics(nullptr);
    }
    if (command == "extract" && argc == 4) {
        open_volume(argv[2]);
        extract(0, argv[3]);
    } else if (command == "import" && argc == 4) {
        open_volume(argv[3]);
        import_tree(argv[2]);
    } else if (command == "remove" && argc == 5) {
        open_volume(argv[2]);
        enter(argv[3]);
        checked(fat_unlink(argv[4]), argv[4]);
    } else if (command == "lookup" && argc == 4) {
        open_volume(argv[2]);
        look_up_all(enter(argv[3]));
    } else {
        std::fprintf(stderr, "usage: driver extract|import|remove|lookup ...\n");
        return 2;
    }
    close_volume();
    return 0;
}
