// Undo files: what sectors contained before a repair changed them.
//
//   header   "qvol undo 1", padded with zeros to 16 bytes; size of the medium in bytes (8)
//   record   offset (8), bytes (8), hash before (8), hash after (8), hash of these 32 bytes (8);
//            then the bytes before the change
//
// Numbers are little-endian, hashes are FNV-1a of 64 bits. A record is durable before its sector is
// changed. The last ones can be incomplete after a power failure: their sectors are not changed.

#pragma once

#include "core/medium.h"
#include "core/resources.h"
#include "qvol/target.h"

#include <string>

namespace qvol {

// Passes writes to the medium of a target, and stores what they change, while it lives.
class undo_recorder {
public:
    // Makes the file; throws error if it exists. Without a change it is removed at the end.
    undo_recorder(target *where, const std::string &path);
    ~undo_recorder();
    undo_recorder(const undo_recorder &) = delete;
    undo_recorder &operator=(const undo_recorder &) = delete;

    // Whether something was changed.
    [[nodiscard]] bool has_records() const {
        return medium_.has_records();
    }
    // Why a change was not stored, and not made; "": all were. The error of the change itself does
    // not name the undo file.
    [[nodiscard]] std::string problem() const;

private:
    class recording_medium final : public core::medium {
    public:
        recording_medium(core::medium &below, int file) : below_(below), file_(file) {}
        core::s64 read(u64 offset, std::span<core::u8> bytes) override;
        core::s64 write(u64 offset, std::span<const core::u8> bytes) override;
        int flush() override;
        [[nodiscard]] u64 size() const override {
            return below_.size();
        }
        [[nodiscard]] bool has_records() const {
            return has_records_;
        }
        [[nodiscard]] int failure() const { // errno; 0: none
            return failure_;
        }
        [[nodiscard]] int
        append(std::span<const core::u8> bytes) const; // durably; a negative errno

    private:
        core::medium &below_;
        int file_;
        bool has_records_ = false;
        int failure_ = 0;
    };

    std::string path_;
    core::unique_fd file_;
    recording_medium medium_;
    replaced_medium replaced_;
};

struct undo_totals {
    u64 sectors; // whose content was written back
    u64 bytes;
};

// Writes back what the file contains, and cuts an image that the repair has extended. Throws error,
// with nothing written, if the file is damaged or of another medium, or if a sector has been
// changed since.
undo_totals undo_changes(target *where, const std::string &path);

} // namespace qvol
