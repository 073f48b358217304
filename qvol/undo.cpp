#include "qvol/undo.h"

#include "core/geometry.h"
#include "core/overlay.h"
#include "qvol/error.h"
#include "qvol/host.h"
#include "qvol/names.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <vector>

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

namespace qvol {

namespace {

using core::s64;
using core::u8;

constexpr std::size_t UNIT_BYTES = core::MIN_SECTOR_SIZE; // a medium writes it whole, or not at all
constexpr std::size_t HEADER_BYTES = 24;
constexpr std::size_t MAGIC_BYTES = 16;
constexpr std::array<u8, MAGIC_BYTES> MAGIC = {'q', 'v', 'o', 'l', ' ', 'u',
                                               'n', 'd', 'o', ' ', '1'};
constexpr std::size_t RECORD_BYTES = 40;
constexpr std::size_t CHECKED_BYTES = 32; // of a record
constexpr mode_t FILE_MODE = 0666;        // the user's umask decides

void store64(u8 *bytes, u64 value) {
    core::store32(bytes, static_cast<u32>(value));
    core::store32(bytes + 4, static_cast<u32>(value >> 32));
}

u64 load64(const u8 *bytes) {
    return core::load32(bytes) | u64{core::load32(bytes + 4)} << 32;
}

u64 hash_of(std::span<const u8> bytes) {
    u64 hash = 0xCBF29CE484222325;
    for (const u8 byte : bytes) {
        hash = (hash ^ byte) * 0x100000001B3;
    }
    return hash;
}

struct record {
    u64 offset;
    u64 hash_before;
    u64 hash_after;
    std::span<const u8> before;
};

void append_record(const record &one, std::vector<u8> *to) {
    std::array<u8, RECORD_BYTES> head{};
    store64(head.data(), one.offset);
    store64(&head[8], one.before.size());
    store64(&head[16], one.hash_before);
    store64(&head[24], one.hash_after);
    store64(&head[CHECKED_BYTES], hash_of(std::span(head).first(CHECKED_BYTES)));
    to->insert(to->end(), head.begin(), head.end());
    to->insert(to->end(), one.before.begin(), one.before.end());
}

// Records for the parts that a write changes. The first `present` bytes before it are on the
// medium; parts that extend it are recorded whatever they contain.
std::vector<u8> records_of(u64 offset, std::span<const u8> before, u64 present,
                           std::span<const u8> after) {
    std::vector<u8> records;
    for (std::size_t at = 0; at < after.size(); at += UNIT_BYTES) {
        const std::size_t size = std::min(UNIT_BYTES, after.size() - at);
        const std::span<const u8> old_part = before.subspan(at, size);
        const std::span<const u8> new_part = after.subspan(at, size);
        if (at + size > present ||
            !std::equal(old_part.begin(), old_part.end(), new_part.begin())) {
            append_record({offset + at, hash_of(old_part), hash_of(new_part), old_part}, &records);
        }
    }
    return records;
}

} // namespace

// ---- recording --------------------------------------------------------------------------------

namespace {

int make_file(const std::string &path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, FILE_MODE);
    if (fd < 0) {
        throw system_failure("make the undo file " + shown_bytes(path));
    }
    return fd;
}

} // namespace

undo_recorder::undo_recorder(target *where, const std::string &path)
    : path_(path), file_(make_file(path)), medium_(where->medium(), file_.get()),
      replaced_(where, &medium_) {
    std::vector<u8> header(MAGIC.begin(), MAGIC.end());
    header.resize(HEADER_BYTES);
    store64(&header[MAGIC_BYTES], where->size());
    const int failed = medium_.append(header);
    if (failed < 0) {
        throw system_failure("write the undo file " + shown_bytes(path_), -failed);
    }
    sync_directory(split_host_path(path_).directory);
}

undo_recorder::~undo_recorder() {
    if (!has_records()) {
        unlink(path_.c_str());
    }
}

std::string undo_recorder::problem() const {
    return medium_.failure() == 0
               ? ""
               : fmt::format("cannot write the undo file {}: {}", shown_bytes(path_),
                             std::strerror(medium_.failure()));
}

int undo_recorder::recording_medium::append(std::span<const u8> bytes) const {
    while (!bytes.empty()) {
        const ssize_t count = ::write(file_, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return -errno;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return fsync(file_) == 0 ? 0 : -errno;
}

s64 undo_recorder::recording_medium::read(u64 offset, std::span<u8> bytes) {
    return below_.read(offset, bytes);
}

s64 undo_recorder::recording_medium::write(u64 offset, std::span<const u8> bytes) {
    std::vector<u8> before(bytes.size());
    const s64 count = below_.read(offset, before);
    if (count < 0) {
        return count;
    }
    const std::vector<u8> records = records_of(offset, before, static_cast<u64>(count), bytes);
    const int failed = records.empty() ? 0 : append(records);
    if (failed < 0) {
        failure_ = -failed;
        return failed;
    }
    has_records_ = has_records_ || !records.empty();
    return below_.write(offset, bytes);
}

int undo_recorder::recording_medium::flush() {
    return below_.flush();
}

// ---- undoing ----------------------------------------------------------------------------------

namespace {

std::vector<u8> read_undo_file(const std::string &path) {
    std::ifstream stream(path, std::ios::binary);
    std::vector<u8> content{std::istreambuf_iterator<char>(stream), {}};
    if (!stream.good() && !stream.eof()) {
        throw system_failure("read " + shown_bytes(path), errno != 0 ? errno : EIO);
    }
    return content;
}

// In the order of the changes, up to the first that is incomplete.
std::vector<record> parse_records(std::span<const u8> content) {
    std::vector<record> records;
    while (content.size() >= RECORD_BYTES) {
        const u64 size = load64(&content[8]);
        const bool is_whole =
            load64(&content[CHECKED_BYTES]) == hash_of(content.first(CHECKED_BYTES)) &&
            size <= content.size() - RECORD_BYTES;
        const std::span<const u8> before =
            is_whole ? content.subspan(RECORD_BYTES, static_cast<std::size_t>(size))
                     : content.first(0);
        if (!is_whole || hash_of(before) != load64(&content[16])) {
            break;
        }
        records.push_back(
            {load64(content.data()), load64(&content[16]), load64(&content[24]), before});
        content = content.subspan(RECORD_BYTES + before.size());
    }
    return records;
}

// Returns the length of the medium before the changes.
u64 check_header(const target &where, const std::string &path, std::span<const u8> content) {
    const std::string cannot = "cannot undo with " + shown_bytes(path) + ": ";
    if (content.size() < HEADER_BYTES || !std::equal(MAGIC.begin(), MAGIC.end(), content.begin())) {
        throw error(cannot + "it is no undo file");
    }
    const u64 size = load64(&content[MAGIC_BYTES]);
    if (size > where.size() || (size != where.size() && where.has_fixed_size())) {
        throw error(fmt::format("{}it belongs to a volume of {} bytes, {} has {}", cannot, size,
                                shown_bytes(where.path()), where.size()));
    }
    return size;
}

// What a part of the medium contained before the first change, and the hashes of what it may
// contain now: a repair or an earlier undo may have been interrupted.
struct original {
    std::span<const u8> content;
    std::vector<u64> known;
};

std::map<u64, original> originals_of(const std::vector<record> &records) {
    std::map<u64, original> originals;
    for (const record &one : records) {
        original &part = originals.try_emplace(one.offset, original{one.before, {one.hash_before}})
                             .first->second;
        part.known.push_back(one.hash_after);
    }
    return originals;
}

// Puts one part back, in memory. False if it contains something else.
bool restore(u64 offset, const original &part, core::overlay_medium *medium) {
    std::vector<u8> now(part.content.size());
    if (medium->read(offset, now) != static_cast<s64>(now.size()) ||
        std::find(part.known.begin(), part.known.end(), hash_of(now)) == part.known.end()) {
        return false;
    }
    return std::equal(now.begin(), now.end(), part.content.begin()) ||
           medium->write(offset, part.content) == static_cast<s64>(part.content.size());
}

} // namespace

undo_totals undo_changes(target *where, const std::string &path) {
    const std::vector<u8> content = read_undo_file(path);
    const u64 size = check_header(*where, path, content);
    const std::vector<record> records = parse_records(std::span(content).subspan(HEADER_BYTES));
    const std::map<u64, original> originals = originals_of(records);
    const u64 end = originals.empty() ? size : originals.rbegin()->first + UNIT_BYTES;
    if (where->size() > std::max(size, end)) {
        throw error(fmt::format("cannot undo with {}: {} has grown since; nothing was written",
                                shown_bytes(path), shown_bytes(where->path())));
    }
    core::overlay_medium restored(where->medium(), UNIT_BYTES);
    for (const auto &[offset, part] : originals) {
        const bool was_not_written = offset >= where->size(); // the repair was interrupted
        if (!was_not_written && !restore(offset, part, &restored)) {
            throw error(fmt::format("cannot undo with {}: {} has been changed since, at byte {}; "
                                    "nothing was written",
                                    shown_bytes(path), shown_bytes(where->path()), offset));
        }
    }
    const undo_totals totals = {restored.held_bytes() / UNIT_BYTES, restored.held_bytes()};
    const int failed = restored.commit();
    if (failed < 0) {
        throw system_failure("write to " + shown_bytes(where->path()), -failed);
    }
    if (where->size() > size) {
        where->resize(size);
    }
    where->sync();
    return totals;
}

} // namespace qvol
