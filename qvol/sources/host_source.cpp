#include "qvol/sources/host_source.h"

#include "core/resources.h"
#include "qvol/error.h"
#include "qvol/host.h"
#include "qvol/host_attributes.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <optional>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qvol {

namespace {

// ---- scanning ---------------------------------------------------------------------------------

struct close_directory {
    void operator()(DIR *directory) const {
        closedir(directory);
    }
};

struct stat status_in(int directory, const char *name, const std::string &path) {
    struct stat status {};
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        throw system_failure("stat " + shown_bytes(path));
    }
    return status;
}

struct directory_item {
    std::string name;
    struct stat status;
};

std::vector<std::string> sorted_names(DIR *listing, const std::string &path) {
    std::vector<std::string> names;
    errno = 0;
    for (const dirent *item = readdir(listing); item != nullptr; item = readdir(listing)) {
        const std::string_view name = item->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
        errno = 0;
    }
    if (errno != 0) {
        throw system_failure("read directory " + shown_bytes(path));
    }
    std::sort(names.begin(), names.end());
    return names;
}

// By name. The directory is closed again, whatever the depth of the tree below it.
std::vector<directory_item> items_of(const std::string &path) {
    const std::unique_ptr<DIR, close_directory> listing(opendir(path.c_str()));
    if (listing == nullptr) {
        throw system_failure("read directory " + shown_bytes(path));
    }
    std::vector<std::string> names = sorted_names(listing.get(), path);
    std::vector<directory_item> items;
    items.reserve(names.size());
    for (std::string &name : names) {
        const struct stat status =
            status_in(dirfd(listing.get()), name.c_str(), host_path_below(path, name));
        items.push_back({std::move(name), status});
    }
    return items;
}

bool is_special(mode_t mode) {
    return !S_ISREG(mode) && !S_ISDIR(mode) && !S_ISLNK(mode);
}

std::string read_link(const std::string &path) {
    std::string target(MAX_TARGET_BYTES + 1, '\0');
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    if (length < 0) {
        throw system_failure("read the link " + shown_bytes(path));
    }
    target.resize(static_cast<std::size_t>(length));
    return target;
}

// ---- copying ----------------------------------------------------------------------------------

// Opens files of the host. Files of one directory follow each other, so it opens each directory
// once.
class host_files {
public:
    [[nodiscard]] core::unique_fd open(const std::string &path) {
        constexpr int FLAGS = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        const std::size_t name = path.rfind('/') + 1; // 0: no slash
        if (!directory_ || path.compare(0, name, directory_path_) != 0) {
            directory_path_ = path.substr(0, name);
            directory_.emplace(::open(name == 0 ? "." : directory_path_.c_str(),
                                      O_PATH | O_DIRECTORY | O_CLOEXEC));
        }
        const int fd = directory_->get();
        return core::unique_fd(fd < 0 ? fd : openat(fd, path.c_str() + name, FLAGS));
    }

private:
    std::string directory_path_; // up to the last slash
    std::optional<core::unique_fd> directory_;
};

// An opened file, or why it could not be opened.
struct opened_file {
    core::unique_fd fd;
    int failure;
};

// Opens files in their order, some ahead of the one that is copied, and lets the kernel read their
// first bytes: the medium of the host then has many requests at once.
class files_ahead {
public:
    explicit files_ahead(const std::vector<content_request> &wanted) : wanted_(wanted) {}

    // The next file in the order.
    [[nodiscard]] opened_file next() {
        while (opened_.size() <= FILES_AHEAD && next_ < wanted_.size() && open_one()) {
        }
        opened_file first = std::move(opened_.front());
        opened_.pop_front();
        return first;
    }

private:
    static constexpr std::size_t FILES_AHEAD = 96; // more do not pay, and descriptors are limited
    static constexpr off_t BYTES_AHEAD = off_t{256} * 1024; // of each; the kernel reads on itself

    // False if all descriptors are in use: it is tried again when one is closed.
    bool open_one() {
        core::unique_fd fd = host_.open(wanted_[next_].node->path);
        const int failure = errno;
        if (fd.get() < 0 && (failure == EMFILE || failure == ENFILE) && !opened_.empty()) {
            return false;
        }
        if (fd.get() >= 0) {
            posix_fadvise(fd.get(), 0, BYTES_AHEAD, POSIX_FADV_WILLNEED);
        }
        opened_.push_back({std::move(fd), failure});
        next_++;
        return true;
    }

    const std::vector<content_request> &wanted_;
    std::size_t next_ = 0; // to open
    host_files host_;
    std::deque<opened_file> opened_;
};

} // namespace

void copy_file(int file, const source_node &node, content_sink *sink) {
    u64 done = sink->share(file);
    if (lseek(file, static_cast<off_t>(done), SEEK_SET) < 0) {
        throw system_failure("read " + shown_bytes(node.path));
    }
    for (bool is_complete = false; !is_complete;) {
        u8 past_end = 0;
        const std::span<u8> to = done < node.size ? sink->room() : std::span(&past_end, 1);
        const ssize_t count = read(file, to.data(), to.size());
        if (count < 0) {
            throw system_failure("read " + shown_bytes(node.path));
        }
        done += static_cast<u64>(count);
        if (count == 0 || done > node.size) {
            break;
        }
        sink->add(static_cast<std::size_t>(count));
        // After a short read the file has ended, so no further call is needed.
        is_complete = done == node.size && static_cast<std::size_t>(count) < to.size();
    }
    if (done != node.size) {
        throw changed_while_read(node.path);
    }
}

// ---- scanning ---------------------------------------------------------------------------------

void host_source::count_hard_link(const struct stat &status) {
    if (status.st_nlink > 1 && !linked_.emplace(status.st_dev, status.st_ino).second) {
        hard_links_++;
    }
}

source_node host_source::scan(const std::string &path, const std::string &name,
                              const std::string &below, const struct stat &status,
                              const level &of) {
    constexpr mode_t WRITE_BITS = S_IWUSR | S_IWGRP | S_IWOTH;
    source_node node;
    node.path = path;
    node.host_name = name;
    node.modified = status.st_mtime;
    if (S_ISDIR(status.st_mode)) {
        node.type = kind::DIRECTORY;
        node.children =
            scan_children({path, below.empty() ? "" : below + "/", of.rules, of.problems});
    } else if (S_ISLNK(status.st_mode)) {
        node.type = kind::LINK;
        node.target = read_link(path);
        node.size = node.target.size();
    } else if (S_ISREG(status.st_mode)) {
        node.size = static_cast<u64>(status.st_size);
        node.is_read_only = (status.st_mode & WRITE_BITS) == 0;
        node.from = this;
        node.content = files_++;
        count_hard_link(status);
    } else {
        of.problems->add(path, "neither file, directory nor link; --skip-special leaves it out");
    }
    if (of.rules.reads_attributes && (node.from != nullptr || node.type == kind::DIRECTORY)) {
        node.attributes = read_host_attributes(path);
    }
    return node;
}

std::vector<source_node> host_source::scan_children(const level &of) {
    const std::vector<directory_item> items = items_of(of.path);
    std::vector<source_node> children;
    children.reserve(items.size());
    for (const directory_item &item : items) {
        const std::string below = of.below + item.name;
        const bool is_left_out = (of.rules.skips_special && is_special(item.status.st_mode)) ||
                                 of.rules.excluded.matches(below, S_ISDIR(item.status.st_mode));
        if (!is_left_out) {
            children.push_back(
                scan(host_path_below(of.path, item.name), item.name, below, item.status, of));
        }
    }
    return children;
}

std::vector<source_node> host_source::load_children(const std::string &path,
                                                    const reading_rules &rules,
                                                    problem_list *problems) {
    return scan_children({path, "", rules, problems});
}

source_node host_source::load_entry(const std::string &path, const std::string &name,
                                    const reading_rules &rules, problem_list *problems) {
    return scan(path, name, "", status_in(AT_FDCWD, path.c_str(), path),
                {path, "", rules, problems});
}

std::vector<source_node> host_source::load(const reading_rules &rules, problem_list *problems) {
    return load_children(top_, rules, problems);
}

// ---- copying ----------------------------------------------------------------------------------

void host_source::copy(const std::vector<content_request> &wanted, content_sink *sink) {
    files_ahead files(wanted);
    for (const content_request &request : wanted) {
        const opened_file file = files.next();
        if (file.fd.get() < 0) {
            throw system_failure("open " + shown_bytes(request.node->path), file.failure);
        }
        sink->begin(request);
        copy_file(file.fd.get(), *request.node, sink);
        sink->end();
    }
}

} // namespace qvol
