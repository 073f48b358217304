#include "qvol/sources/manifest_source.h"

#include "qvol/error.h"
#include "qvol/sha256.h"
#include "qvol/sources/host_source.h"
#include "qvol/sources/tree_builder.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qvol {

namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

// libarchive reads the keyword "contents" only to open the file itself, wherever it is. As the
// target of a link it returns the path: "link" has no other meaning for a file.
std::string with_contents_as_links(const std::string &text) {
    std::string result;
    bool is_first_word = true; // of a line: a path, not a keyword
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find_first_of(" \t\n", at), text.size());
        std::string word = text.substr(at, end - at);
        const bool continues = word.ends_with('\\') && end < text.size() && text[end] == '\n';
        for (const char *const keyword : {"contents=", "content="}) {
            if (!is_first_word && word.starts_with(keyword)) {
                word = "link=" + word.substr(std::string(keyword).size());
            }
        }
        result += word;
        is_first_word = is_first_word && word.empty();
        for (at = end; at < text.size() && (is_blank(text[at]) || text[at] == '\n'); at++) {
            result += text[at];
            is_first_word = (is_first_word || text[at] == '\n') && !continues;
        }
    }
    return result;
}

// A sink that hashes what passes through it.
class hashing_sink : public content_sink {
public:
    explicit hashing_sink(content_sink *to) : to_(*to) {}
    void begin(const content_request &wanted) override {
        to_.begin(wanted);
    }
    u64 share(int /*file*/) override {
        return 0; // all bytes are hashed
    }
    std::span<u8> room() override {
        room_ = to_.room();
        return room_;
    }
    void add(std::size_t count) override {
        hash_.add(room_.first(count));
        to_.add(count);
    }
    void end() override {
        to_.end();
    }
    [[nodiscard]] std::string take_digest() {
        return hash_.take_digest();
    }

private:
    content_sink &to_;
    std::span<u8> room_;
    sha256 hash_;
};

} // namespace

bool is_manifest(const std::string &text) {
    try {
        return archive_reader(text, "").is_known();
    } catch (const error &) {
        return true; // with a message about what is wrong with it
    }
}

manifest_source::manifest_source(const std::string &text, std::string path,
                                 const std::string &directory)
    : text_(with_contents_as_links(text)), path_(std::move(path)),
      directory_(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    if (directory_.get() < 0) {
        throw system_failure("open " + shown_bytes(directory));
    }
}

// The kernel refuses every way out of the directory. O_NONBLOCK: opening must not wait for a pipe.
core::unique_fd manifest_source::open(const std::string &path) const {
    open_how how{};
    how.flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    return core::unique_fd(
        static_cast<int>(syscall(SYS_openat2, directory_.get(), path.c_str(), &how, sizeof how)));
}

void manifest_source::find_content(const std::string &shown, const content &wanted, u64 stated_size,
                                   source_node *node, problem_list *problems) {
    const core::unique_fd file = open(wanted.path);
    struct stat status {};
    if (file.get() < 0) {
        problems->add(shown, errno == EXDEV
                                 ? "its content " + shown_bytes(wanted.path) +
                                       " is outside of the directory of the contents"
                                 : "cannot open its content " + shown_bytes(wanted.path) + ": " +
                                       std::strerror(errno));
    } else if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        problems->add(shown, "its content " + shown_bytes(wanted.path) + " is not a file");
    } else if (stated_size != 0 && stated_size != static_cast<u64>(status.st_size)) {
        problems->add(shown, "its content " + shown_bytes(wanted.path) + " has " +
                                 std::to_string(status.st_size) + " bytes, should have " +
                                 std::to_string(stated_size));
    }
    node->size = static_cast<u64>(status.st_size);
    node->from = this;
    node->content = contents_.size();
    contents_.push_back(wanted);
}

std::vector<source_node> manifest_source::load(const reading_rules &rules, problem_list *problems) {
    archive_reader manifest(text_, path_);
    tree_builder tree(path_, rules, problems);
    for (std::optional<archived_entry> entry = manifest.next(); entry; entry = manifest.next()) {
        source_node *const node = tree.add(*entry);
        if (node != nullptr && node->type == kind::FILE) {
            const std::string &path = entry->link_target.empty() ? entry->name : entry->link_target;
            find_content(tree.shown(entry->name), {path, entry->sha256}, entry->size, node,
                         problems);
        }
    }
    return tree.take();
}

void manifest_source::copy(const std::vector<content_request> &wanted, content_sink *sink) {
    for (const content_request &request : wanted) {
        const content &of = contents_[request.node->content];
        const core::unique_fd file = open(of.path);
        if (file.get() < 0) {
            throw system_failure("open " + shown_bytes(of.path));
        }
        hashing_sink hashing(sink);
        hashing.begin(request);
        copy_file(file.get(), *request.node, &hashing);
        if (!of.sha256.empty() && hashing.take_digest() != of.sha256) {
            throw error("cannot copy " + shown_bytes(of.path) +
                        ": its SHA-256 differs from that in " + shown_bytes(path_) +
                        "; nothing was written");
        }
        hashing.end();
    }
}

} // namespace qvol
