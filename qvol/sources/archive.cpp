#include "qvol/sources/archive.h"

#include "core/resources.h"
#include "qvol/error.h"
#include "qvol/names.h"
#include "qvol/sectors.h"
#include "qvol/sha256.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <string_view>
#include <vector>

#include <archive.h>
#include <archive_entry.h>
#include <fmt/core.h>
#include <unistd.h>
#include <zlib.h>

namespace qvol {

namespace {

constexpr std::size_t BLOCK_BYTES = std::size_t{128} * 1024;
constexpr std::size_t TAR_RECORD_BYTES = 512;
constexpr u64 NO_DATA = UINT64_MAX;
constexpr int UNKNOWN_FORMAT = EILSEQ; // of libarchive, for data that no format fits

// libarchive converts names by the locale of the thread; names here are UTF-8.
class utf8_locale {
public:
    utf8_locale() : before_(uselocale(utf8())) {}
    ~utf8_locale() {
        uselocale(before_);
    }
    utf8_locale(const utf8_locale &) = delete;
    utf8_locale &operator=(const utf8_locale &) = delete;

private:
    // Made once: that takes longer than an entry. If the system lacks it, 0, which changes nothing.
    static locale_t utf8() {
        static const locale_t LOCALE = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t{});
        return LOCALE;
    }

    locale_t before_;
};

std::string text_or_empty(const char *text) {
    return text != nullptr ? text : "";
}

// Zeros: the archive states none.
std::string stated_sha256(archive_entry *entry) {
    const std::span digest(archive_entry_digest(entry, ARCHIVE_ENTRY_DIGEST_SHA256), SHA256_BYTES);
    return is_zero(digest) ? "" : hexadecimal(digest);
}

archived_entry fields_of(archive_entry *entry) {
    archived_entry fields;
    fields.name = text_or_empty(archive_entry_pathname(entry));
    fields.mode = archive_entry_mode(entry);
    fields.has_size = archive_entry_size_is_set(entry) != 0;
    fields.size = fields.has_size ? static_cast<u64>(archive_entry_size(entry)) : 0;
    fields.has_time = archive_entry_mtime_is_set(entry) != 0;
    fields.modified = archive_entry_mtime(entry);
    fields.link_target = text_or_empty(archive_entry_symlink(entry));
    fields.hard_link = text_or_empty(archive_entry_hardlink(entry));
    fields.flags = text_or_empty(archive_entry_fflags_text(entry));
    fields.sha256 = stated_sha256(entry);
    return fields;
}

// Compression that some other program would have to unpack is left out.
void support_compression(::archive *handle) {
    archive_read_support_filter_bzip2(handle);
    archive_read_support_filter_compress(handle);
    archive_read_support_filter_lz4(handle);
    archive_read_support_filter_lzip(handle);
    archive_read_support_filter_lzma(handle);
    archive_read_support_filter_xz(handle);
    archive_read_support_filter_zstd(handle);
}

void support_unpacked_bytes(::archive *handle) {
    archive_read_support_format_raw(handle);
}

void support_archives(::archive *handle) {
    archive_read_support_format_tar(handle);
    // Reads to the end of the file: to tars that follow, and to the checksum of the compression.
    archive_read_set_format_option(handle, "tar", "read_concatenated_archives", "1");
    archive_read_support_format_cpio(handle);
    archive_read_support_format_zip_seekable(handle); // links are in the directory at its end
}

bool is_gzip(int fd) {
    std::array<u8, 2> head{};
    return pread(fd, head.data(), head.size(), 0) == static_cast<ssize_t>(head.size()) &&
           head[0] == 0x1F && head[1] == 0x8B;
}

// A zip has its directory at the end, 64 KiB before it at most.
void refuse_cut_zip(int fd, const std::string &name) {
    constexpr std::string_view START = "PK\3\4";
    constexpr std::string_view END = "PK\5\6";
    constexpr off_t MOST = 64 * 1024 + 22;
    std::string head(START.size(), '\0');
    std::string tail(MOST, '\0');
    const off_t size = lseek(fd, 0, SEEK_END);
    const ssize_t in_head = pread(fd, head.data(), head.size(), 0);
    const ssize_t in_tail = pread(fd, tail.data(), tail.size(), std::max<off_t>(size - MOST, 0));
    tail.resize(static_cast<std::size_t>(std::max<ssize_t>(in_tail, 0)));
    if (in_head > 0 && head == START && tail.rfind(END) == std::string::npos) {
        throw error(fmt::format("cannot read {}: cut at byte {}: the directory at the end of the "
                                "archive is missing; nothing was written",
                                shown_bytes(name), size));
    }
}

} // namespace

// ---- gzip -------------------------------------------------------------------------------------

// A file that gzip has compressed, unpacked by zlib: libarchive does not compare its checksum.
class archive_reader::gzip_file {
public:
    explicit gzip_file(int fd) : file_(gzdopen(dup(fd), "rb")), block_(BLOCK_BYTES) {
        if (file_ == nullptr) {
            throw system_failure("read the archive");
        }
        gzbuffer(file_, BLOCK_BYTES);
    }
    ~gzip_file() {
        gzclose(file_);
    }
    gzip_file(const gzip_file &) = delete;
    gzip_file &operator=(const gzip_file &) = delete;

    [[nodiscard]] la_int64_t position() const {
        return gzoffset(file_);
    }

    // For libarchive: the next bytes.
    static la_ssize_t read(::archive *handle, void *self, const void **bytes) {
        auto *const own = static_cast<gzip_file *>(self);
        *bytes = own->block_.data();
        const int count =
            gzread(own->file_, own->block_.data(), static_cast<unsigned>(BLOCK_BYTES));
        int code = Z_OK;
        const char *const text = gzerror(own->file_, &code);
        if (code != Z_OK) {
            archive_set_error(handle, EIO, "%s",
                              code == Z_ERRNO       ? std::strerror(errno)
                              : code == Z_BUF_ERROR ? "the compressed data ends too early"
                                                    : text);
            return ARCHIVE_FATAL;
        }
        return count;
    }

private:
    gzFile file_;
    std::vector<u8> block_;
};

// ---- archive ----------------------------------------------------------------------------------

void archive_reader::release::operator()(::archive *handle) const {
    archive_read_free(handle);
}

archive_reader::archive_reader(int fd, std::string name)
    : archive_reader(fd, std::move(name), support_archives) {}

archive_reader::archive_reader(int fd, std::string name, void (*support_formats)(::archive *))
    : name_(std::move(name)), fd_(fd), handle_(archive_read_new()) {
    refuse_cut_zip(fd, name_);
    support_formats(handle_.get());
    support_compression(handle_.get());
    if (lseek(fd, 0, SEEK_SET) != 0) {
        throw system_failure("read " + shown_bytes(name_));
    }
    if (is_gzip(fd)) {
        gzip_ = std::make_unique<gzip_file>(fd);
        start(archive_read_open(handle_.get(), gzip_.get(), nullptr, gzip_file::read, nullptr));
    } else {
        start(archive_read_open_fd(handle_.get(), fd, BLOCK_BYTES));
    }
}

archive_reader::archive_reader(const std::string &manifest, std::string name)
    : name_(std::move(name)), handle_(archive_read_new()) {
    archive_read_support_format_mtree(handle_.get());
    start(archive_read_open_memory(handle_.get(), manifest.data(), manifest.size()));
}

archive_reader::~archive_reader() = default;

// `opened`: result of the opening, for which compressed data is read. The format is found then, or
// when the first entry is read.
void archive_reader::start(int opened) {
    try {
        if (opened != ARCHIVE_OK) {
            fail("damaged");
        }
        first_ = next();
    } catch (const error &) {
        const bool is_compressed =
            gzip_ != nullptr || archive_filter_code(handle_.get(), 0) != ARCHIVE_FILTER_NONE;
        const bool is_archive =
            archive_format(handle_.get()) != 0 || archive_errno(handle_.get()) != UNKNOWN_FORMAT;
        if (is_compressed && !is_archive) {
            throw error(fmt::format(
                "cannot read {}: its compressed content is damaged, or no archive (tar, "
                "cpio); nothing was written",
                shown_bytes(name_)));
        }
        if (is_archive) {
            throw;
        }
        is_known_ = false;
    }
}

void archive_reader::fail(const std::string &why) {
    const char *const reason = archive_error_string(handle_.get());
    // In the file, also if it is compressed.
    const la_int64_t at = gzip_ != nullptr
                              ? gzip_->position()
                              : std::max<la_int64_t>(archive_filter_bytes(handle_.get(), -1), 0);
    throw error(fmt::format("cannot read {}: {} at byte {}{}: {}; nothing was written",
                            shown_bytes(name_), why, at,
                            current_.empty() ? "" : ", after " + shown_bytes(current_),
                            reason != nullptr ? reason : "unknown error"));
}

// libarchive also warns of entries that it has skipped, or whose fields contradict each other.
// Names that it cannot convert are checked later; keywords of a manifest may be unknown.
bool archive_reader::is_harmless_warning() const {
    const std::string text = text_or_empty(archive_error_string(handle_.get()));
    return fd_ < 0 || text.find(" be converted from ") != std::string::npos;
}

bool archive_reader::is_of(int family) const {
    return (archive_format(handle_.get()) & ARCHIVE_FORMAT_BASE_MASK) == family;
}

// libarchive ends at the end mark of a cpio. What follows, as in an initramfs of several archives,
// must not be lost. Reads the file to its end, so that the checksum of its compression is compared.
void archive_reader::refuse_rest() {
    if (!is_of(ARCHIVE_FORMAT_CPIO)) {
        return;
    }
    const auto end = static_cast<u64>(archive_filter_bytes(handle_.get(), 0));
    archive_reader unpacked(fd_, name_, support_unpacked_bytes);
    (void)unpacked.next();
    const u64 rest = unpacked.find_data(end);
    if (rest != NO_DATA) {
        throw error(fmt::format("cannot read {}: the archive ends at byte {} of the unpacked file, "
                                "but there is more at byte {}: make each archive a file and a "
                                "source of its own; nothing was written",
                                shown_bytes(name_), end, rest));
    }
}

// The position of the first byte of the content from `from` on that is not zero.
u64 archive_reader::find_data(u64 from) {
    std::vector<u8> block(BLOCK_BYTES);
    u64 found = NO_DATA;
    u64 at = 0;
    for (std::size_t count = read(block); count != 0; count = read(block)) {
        const std::span<const u8> bytes = std::span(block).first(count);
        for (std::size_t i = from > at ? static_cast<std::size_t>(std::min<u64>(from - at, count))
                                       : 0;
             found == NO_DATA && i < count; i++) {
            found = bytes[i] != 0 ? at + i : NO_DATA;
        }
        at += count;
    }
    return found;
}

// A tar that is cut between two entries has no other sign of it than its missing end.
void archive_reader::refuse_cut() {
    const auto consumed = static_cast<u64>(archive_filter_bytes(handle_.get(), 0));
    if (is_of(ARCHIVE_FORMAT_TAR) && consumed < end_of_content_ + TAR_RECORD_BYTES) {
        throw error(fmt::format("cannot read {}: cut at byte {}{}: the end of the archive is "
                                "missing; nothing was written",
                                shown_bytes(name_), consumed,
                                current_.empty() ? "" : ", after " + shown_bytes(current_)));
    }
}

std::optional<archived_entry> archive_reader::next() {
    if (first_) {
        return std::exchange(first_, std::nullopt);
    }
    if (has_ended_) {
        return std::nullopt;
    }
    const utf8_locale names;
    if (has_entry_) {
        finish_entry();
    }
    archive_entry *entry = nullptr;
    const int result = archive_read_next_header(handle_.get(), &entry);
    if (result == ARCHIVE_EOF) {
        has_ended_ = true;
        refuse_cut();
        refuse_rest();
        return std::nullopt;
    }
    if (result != ARCHIVE_OK && !(result == ARCHIVE_WARN && is_harmless_warning())) {
        fail("damaged");
    }
    has_entry_ = true;
    archived_entry fields = fields_of(entry);
    if (fields.name.empty()) {
        fail("an entry without a readable name");
    }
    current_ = fields.name;
    return fields;
}

std::size_t archive_reader::read(std::span<u8> to) {
    la_ssize_t count = archive_read_data(handle_.get(), to.data(), to.size());
    if (count == 0) { // also before a hole at the end of a sparse file, whose zeros come next
        count = archive_read_data(handle_.get(), to.data(), to.size());
    }
    if (count < 0) {
        fail("damaged");
    }
    return static_cast<std::size_t>(count);
}

u64 archive_reader::skip_content() {
    u64 length = 0;
    for (;;) {
        const void *bytes = nullptr;
        std::size_t count = 0;
        la_int64_t offset = 0;
        const int result = archive_read_data_block(handle_.get(), &bytes, &count, &offset);
        if (result == ARCHIVE_EOF) {
            return length;
        }
        if (result != ARCHIVE_OK) {
            fail("damaged");
        }
        length = static_cast<u64>(offset) + count;
    }
}

// Seeks past the content where the archive allows it.
void archive_reader::finish_entry() {
    if (archive_read_data_skip(handle_.get()) != ARCHIVE_OK) {
        fail("damaged");
    }
    const auto at = static_cast<u64>(archive_filter_bytes(handle_.get(), 0));
    end_of_content_ = (at + TAR_RECORD_BYTES - 1) / TAR_RECORD_BYTES * TAR_RECORD_BYTES;
}

} // namespace qvol
