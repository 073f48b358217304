// The data of files: reading along a chain, and writing many files one behind the other.

#pragma once

#include "qvol/fat_table.h"

#include <functional>
#include <span>
#include <string>
#include <vector>

namespace qvol {

// The clusters that hold `size` bytes from cluster `start` on. Throws error where the chain is
// shorter or broken.
[[nodiscard]] std::vector<u32> clusters_of_file(fat_table &table, u32 start, u64 size);

// Clusters that `bytes` bytes take.
[[nodiscard]] u32 clusters_for(u64 bytes);

// Reads `size` bytes along the clusters and hands them on in pieces of at most 1 MiB.
void read_data(std::span<const u32> clusters, u64 size,
               const std::function<void(std::span<const u8>)> &take);

// All of a small file, as the target of a link.
[[nodiscard]] std::string read_text(fat_table &table, u32 start, u32 size);

// Writes data into clusters. What lies side by side on the medium, of one file or of many, is
// gathered and travels together; the rest of a last cluster is zeroed.
class data_writer {
public:
    // `leaves_zeroes`: the medium reads as zeroes where nothing was written; long runs of them are
    // not written either.
    explicit data_writer(bool leaves_zeroes = false);
    ~data_writer() = default;
    data_writer(const data_writer &) = delete;
    data_writer &operator=(const data_writer &) = delete;

    // Goes on in these clusters with the next append().
    void begin(std::span<const u32> clusters);
    void append(std::span<const u8> bytes);

    // Fills the last cluster up.
    void end();

    // Writes what is gathered. To be called at the end; what is not flushed is dropped.
    void flush();

private:
    void put(std::span<const u8> bytes);
    void enter_cluster();

    bool leaves_zeroes_;
    std::vector<u8> gathered_;
    u64 sector_ = 0; // of the first byte gathered
    std::span<const u32> clusters_;
    std::size_t next_ = 0; // of the clusters: the one to enter
    u32 room_ = 0;         // bytes left in the cluster that was entered
};

} // namespace qvol
