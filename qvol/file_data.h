// File data: reads files along their chains, and writes many files in sequence.

#pragma once

#include "qvol/fat_table.h"

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace qvol {

// The first clusters of the chain from `start`, enough for `size` bytes. Throws error if the chain
// is shorter or broken.
[[nodiscard]] std::vector<u32> clusters_of_file(fat_table &table, u32 start, u64 size);

// Number of clusters for `bytes` bytes.
[[nodiscard]] u32 clusters_for(const core::volume &on, u64 bytes);

// Reads `size` bytes from the clusters and passes them to `take` in pieces of at most 256 KiB, or
// of one cluster if that is larger.
void read_data(const core::volume &on, std::span<const u32> clusters, u64 size,
               const std::function<void(std::span<const u8>)> &take);

// The content of a small file, for example the target of a link.
[[nodiscard]] std::string read_text(fat_table &table, u32 start, u32 size);

// Writes data into clusters. Data in contiguous clusters, of one file or several, is buffered and
// written in one transfer. The rest of a last cluster is filled with zeros.
class data_writer {
public:
    // `skips_zeros`: a buffer of zeros is not written, see holes::ZEROS.
    explicit data_writer(const core::volume &on, bool skips_zeros = false);
    ~data_writer() = default;
    data_writer(const data_writer &) = delete;
    data_writer &operator=(const data_writer &) = delete;

    // Sets the clusters for the next bytes.
    void begin(std::span<const u32> clusters);

    // Where the next bytes go in the buffer; empty only after the last cluster. The caller stores
    // some there and adds them.
    [[nodiscard]] std::span<u8> room();
    void add(std::size_t count);

    // Copies bytes to the buffer.
    void append(std::span<const u8> bytes);

    // Fills the last cluster with zeros.
    void end();

    // Writes the buffer. Call it at the end: the destructor drops buffered data.
    void flush();

private:
    void enter_clusters();

    core::volume on_;
    bool skips_zeros_;
    std::size_t size_; // of the buffer; at least a cluster
    std::unique_ptr<u8[]> buffer_;
    std::size_t used_ = 0; // bytes in the buffer
    std::size_t room_ = 0; // bytes after them that belong to the clusters entered
    u64 sector_ = 0;       // of the first byte in the buffer
    std::span<const u32> clusters_;
    std::size_t next_ = 0; // index of the cluster to enter next
};

} // namespace qvol
