#include "qvol/disk_layout.h"

#include "qvol/error.h"
#include "qvol/output.h"

#include <algorithm>
#include <numeric>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr u64 MIB = u64{1024} * 1024;
constexpr u64 GPT_ENTRIES_BYTES = u64{128} * 128;
constexpr std::size_t GPT_MAX_PARTITIONS = 128;
constexpr std::size_t MBR_MAX_PARTITIONS = 4;
constexpr u64 MBR_MAX_SECTORS = 0xFFFFFFFF;
constexpr u64 MAX_DISK_BYTES = u64{1} << 62; // as for volumes

u64 rounded_up(u64 bytes, u64 unit) {
    return (bytes + unit - 1) / unit * unit;
}

u64 rounded_down(u64 bytes, u64 unit) {
    return bytes / unit * unit;
}

bool is_rest(const partition_request &one) {
    return one.takes_rest;
}

// One calculation.
class placement {
public:
    placement(const disk_request &request, const std::vector<partition_request> &wanted)
        : request_(request), wanted_(wanted), placed_(wanted.size()),
          rest_(static_cast<std::size_t>(std::find_if(wanted.begin(), wanted.end(), is_rest) -
                                         wanted.begin())) {}

    disk_layout run() {
        refuse_counts();
        place_all();
        u64 bytes = request_.bytes;
        if (bytes == 0) {
            bytes = rounded_up(placed_end() + tail_bytes(request_), request_.align_bytes);
        } else if (has_rest()) {
            place_after_rest(usable_end());
        }
        refuse_end(bytes);
        return {bytes, placed_};
    }

private:
    [[nodiscard]] bool has_rest() const {
        return rest_ < wanted_.size();
    }
    [[nodiscard]] u64 unit_of(const partition_request &one) const {
        return std::lcm(request_.align_bytes, u64{std::max(one.page_bytes, 1U)});
    }
    [[nodiscard]] u64 placed_end() const {
        return placed_.empty() ? head_bytes(request_) : placed_.back().end();
    }
    [[nodiscard]] u64 usable_end() const {
        return request_.bytes - std::min(request_.bytes, tail_bytes(request_));
    }

    void refuse_counts() const {
        const bool is_gpt = request_.table == table_kind::GPT;
        const std::size_t most = is_gpt ? GPT_MAX_PARTITIONS : MBR_MAX_PARTITIONS;
        if (wanted_.size() > most) {
            throw error(
                fmt::format("{} partitions are too many: {}", wanted_.size(),
                            is_gpt ? "a GPT has at most 128" : "an MBR has at most 4; use --gpt"));
        }
        if (std::count_if(wanted_.begin(), wanted_.end(), is_rest) > 1) {
            throw usage_error("two partitions have size=rest, only one can have what remains");
        }
        if (has_rest() && request_.bytes == 0) {
            throw usage_error("size=rest needs --size SIZE");
        }
    }

    // One after another, each as small as it can be: the end of the last one is what the disk needs
    // at least.
    void place_all() {
        u64 end = head_bytes(request_);
        for (std::size_t i = 0; i < wanted_.size(); i++) {
            placed_[i] = {rounded_up(end, unit_of(wanted_[i])), least_bytes(i)};
            end = placed_[i].end();
            if (end > MAX_DISK_BYTES) {
                throw error("the partitions are too large: a disk has at most 4194304 TiB");
            }
        }
    }
    [[nodiscard]] u64 least_bytes(std::size_t i) const {
        const u64 bytes = wanted_[i].bytes;
        return i == rest_ ? rounded_up(std::max(bytes, u64{1}), request_.align_bytes) : bytes;
    }

    // Those after the rest lie at the end of the disk.
    void place_after_rest(u64 end) {
        if (placed_end() > end) {
            return; // to be refused
        }
        for (std::size_t i = wanted_.size() - 1; i > rest_; i--) {
            placed_[i] = {rounded_down(end - wanted_[i].bytes, unit_of(wanted_[i])),
                          wanted_[i].bytes};
            end = placed_[i].offset;
        }
        placed_[rest_].bytes = rounded_down(end - placed_[rest_].offset, request_.align_bytes);
    }

    void refuse_end(u64 bytes) const {
        const u64 needed = placed_end() + tail_bytes(request_);
        if (needed > bytes) {
            const u64 will_do = rounded_up(needed, MIB) / MIB;
            throw error(fmt::format("a disk of {} is too small: the partitions need {}M",
                                    shown_size(bytes), will_do));
        }
        if (request_.table == table_kind::MBR &&
            placed_end() / request_.sector_bytes > MBR_MAX_SECTORS) {
            throw error(fmt::format("a partition ends at {}: an MBR ends at {} with sectors of {} "
                                    "bytes; use --gpt",
                                    shown_size(placed_end()),
                                    shown_size(MBR_MAX_SECTORS * request_.sector_bytes),
                                    request_.sector_bytes));
        }
    }

    const disk_request &request_;
    const std::vector<partition_request> &wanted_;
    std::vector<extent> placed_;
    std::size_t rest_; // its index, or the number of partitions
};

} // namespace

u64 head_bytes(const disk_request &request) {
    const u64 header = 2 * u64{request.sector_bytes}; // the first sector is that of an MBR
    return request.table == table_kind::GPT ? header + GPT_ENTRIES_BYTES : request.sector_bytes;
}

u64 tail_bytes(const disk_request &request) {
    return request.table == table_kind::GPT ? request.sector_bytes + GPT_ENTRIES_BYTES : 0;
}

disk_layout lay_out_disk(const disk_request &request,
                         const std::vector<partition_request> &partitions) {
    return placement(request, partitions).run();
}

} // namespace qvol
