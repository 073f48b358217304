#include "qvol/file_data.h"

#include "qvol/error.h"
#include "qvol/sectors.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr u32 PIECE_BYTES = 256 * 1024;
constexpr std::size_t BUFFER_BYTES = std::size_t{256} * 1024;

u32 clusters_per_piece(const core::volume &on) {
    return std::max(PIECE_BYTES / on.cluster_bytes(), 1U);
}

} // namespace

u32 clusters_for(const core::volume &on, u64 bytes) {
    return static_cast<u32>((bytes + on.cluster_bytes() - 1) / on.cluster_bytes());
}

std::vector<u32> clusters_of_file(fat_table &table, u32 start, u64 size) {
    const u32 count = clusters_for(table.on(), size);
    if (count == 0) {
        return {};
    }
    std::vector<u32> clusters = table.chain(start, count);
    if (clusters.size() < count) {
        throw error(fmt::format("the chain from cluster {} is too short: it has {} clusters, the "
                                "file needs {}",
                                start, clusters.size(), count));
    }
    return clusters;
}

void read_data(const core::volume &on, std::span<const u32> clusters, u64 size,
               const std::function<void(std::span<const u8>)> &take) {
    const u32 most = std::min<u32>(clusters_per_piece(on), clusters_for(on, size));
    std::vector<u8> piece(std::size_t{most} * on.cluster_bytes());
    for (const cluster_extent &extent : extents_of(clusters)) {
        for (u32 done = 0; done < extent.count && size > 0;) {
            const u32 count = std::min(extent.count - done, most);
            const std::span bytes = std::span(piece).first(std::size_t{count} * on.cluster_bytes());
            const std::size_t wanted = static_cast<std::size_t>(std::min<u64>(size, bytes.size()));
            const std::size_t sectors =
                (wanted + on.at.sector_size - 1) / on.at.sector_size * on.at.sector_size;
            read_extent_into(on, on.sector_of(extent.first + done), bytes.first(sectors));
            take(bytes.first(wanted));
            size -= wanted;
            done += count;
        }
    }
}

std::string read_text(fat_table &table, u32 start, u32 size) {
    std::string text;
    read_data(table.on(), clusters_of_file(table, start, size), size,
              [&](std::span<const u8> bytes) {
                  text.append(reinterpret_cast<const char *>(bytes.data()), bytes.size());
              });
    return text;
}

// ---- writing ----------------------------------------------------------------------------------

data_writer::data_writer(const core::volume &on, bool skips_zeros)
    : on_(on), skips_zeros_(skips_zeros),
      size_(std::max<std::size_t>(BUFFER_BYTES, on.cluster_bytes())),
      buffer_(std::make_unique_for_overwrite<u8[]>(size_)) {}

void data_writer::begin(std::span<const u32> clusters) {
    clusters_ = clusters;
    next_ = 0;
    room_ = 0;
}

// Enters the contiguous clusters for which there is space in the buffer.
void data_writer::enter_clusters() {
    const u32 first = clusters_[next_];
    const u64 sector = on_.sector_of(first);
    if (sector != sector_ + used_ / on_.at.sector_size || size_ - used_ < on_.cluster_bytes()) {
        flush();
    }
    if (used_ == 0) {
        sector_ = sector;
    }
    const std::size_t most =
        std::min((size_ - used_) / on_.cluster_bytes(), clusters_.size() - next_);
    std::size_t count = 1;
    while (count < most && clusters_[next_ + count] == first + count) {
        count++;
    }
    next_ += count;
    room_ = count * on_.cluster_bytes();
}

std::span<u8> data_writer::room() {
    if (room_ == 0 && next_ < clusters_.size()) {
        enter_clusters();
    }
    return {buffer_.get() + used_, room_};
}

void data_writer::add(std::size_t count) {
    used_ += count;
    room_ -= count;
}

void data_writer::append(std::span<const u8> bytes) {
    while (!bytes.empty()) {
        const std::span<u8> to = room();
        const std::size_t count = std::min(bytes.size(), to.size());
        std::copy_n(bytes.begin(), count, to.begin());
        add(count);
        bytes = bytes.subspan(count);
    }
}

void data_writer::end() {
    std::fill_n(buffer_.get() + used_, room_, u8{0});
    add(room_);
}

void data_writer::flush() {
    const std::span bytes(buffer_.get(), used_);
    if (!skips_zeros_ || !is_zero(bytes)) {
        write_extent(on_, sector_, bytes);
    }
    sector_ += used_ / on_.at.sector_size;
    used_ = 0;
}

} // namespace qvol
