#include "qvol/verifying/reading_order.h"

#include "qvol/sectors.h"

#include <algorithm>
#include <set>

namespace qvol {

namespace {

constexpr u64 TRANSFER_BYTES = u64{1} << 20; // at least a cluster
constexpr u64 GAP_BYTES = u64{32} * 1024;    // that are read rather than skipped

void append_steps(const core::volume &on, std::size_t file, const cluster_extent &extent,
                  std::vector<reading_step> *steps) {
    u64 sector = on.sector_of(extent.first);
    u64 left = u64{extent.count} * on.at.sectors_per_cluster;
    while (left > 0) {
        const u64 count = std::min(left, TRANSFER_BYTES / on.at.sector_size);
        steps->push_back({file, sector, static_cast<u32>(count)});
        sector += count;
        left -= count;
    }
}

// The first of the steps that are not read together with the first one.
std::size_t end_of_transfer(const core::volume &on, std::span<const reading_step> steps) {
    const u64 gap = GAP_BYTES / on.at.sector_size;
    const u64 most = TRANSFER_BYTES / on.at.sector_size;
    std::size_t end = 1;
    while (end < steps.size() && steps[end].sector >= steps[end - 1].end() &&
           steps[end].sector <= steps[end - 1].end() + gap &&
           steps[end].end() - steps[0].sector <= most) {
        end++;
    }
    return end;
}

} // namespace

std::vector<reading_step> reading_order(const core::volume &on,
                                        std::span<const file_extents> files) {
    std::set<std::pair<u32, std::size_t>> next; // first cluster of the next extent, file
    std::vector<std::size_t> extent_of(files.size());
    for (std::size_t file = 0; file < files.size(); file++) {
        if (!files[file].empty()) {
            next.emplace(files[file].front().first, file);
        }
    }
    std::vector<reading_step> steps;
    u32 cluster = 0;
    while (!next.empty()) {
        const auto ahead = next.lower_bound({cluster, 0});
        const auto chosen = ahead != next.end() ? ahead : next.begin();
        const std::size_t file = chosen->second;
        next.erase(chosen);
        const cluster_extent &extent = files[file][extent_of[file]++];
        append_steps(on, file, extent, &steps);
        cluster = extent.first + extent.count;
        if (extent_of[file] < files[file].size()) {
            next.emplace(files[file][extent_of[file]].first, file);
        }
    }
    return steps;
}

void read_steps(const core::volume &on, std::span<const reading_step> steps,
                const std::function<void(std::size_t file, std::span<const u8> bytes)> &take,
                const std::function<void(std::size_t file, const std::string &why)> &fail) {
    std::vector<u8> buffer(TRANSFER_BYTES);
    std::size_t alone = 0; // number of steps to read one by one
    while (!steps.empty()) {
        const std::size_t count = alone > 0 ? 1 : end_of_transfer(on, steps);
        alone -= alone > 0 ? 1 : 0;
        const u64 first = steps[0].sector;
        const auto bytes_to = [&](u64 sector) {
            return static_cast<std::size_t>((sector - first) * on.at.sector_size);
        };
        try {
            read_extent_into(on, first, std::span(buffer).first(bytes_to(steps[count - 1].end())));
        } catch (const error &why) {
            if (count > 1) {
                alone = count;
                continue;
            }
            fail(steps[0].file, why.what());
            steps = steps.subspan(1);
            continue;
        }
        for (const reading_step &step : steps.first(count)) {
            take(step.file, std::span(buffer).subspan(bytes_to(step.sector),
                                                      std::size_t{step.count} * on.at.sector_size));
        }
        steps = steps.subspan(count);
    }
}

std::vector<u8> read_extents(const core::volume &on, const file_extents &extents, u64 offset,
                             std::size_t bytes) {
    std::vector<u8> result;
    u64 skipped = offset / on.cluster_bytes(); // clusters
    for (const cluster_extent &extent : extents) {
        if (skipped >= extent.count) {
            skipped -= extent.count;
            continue;
        }
        const u64 cluster = extent.first + skipped;
        const u64 present = (extent.count - skipped) * on.cluster_bytes();
        const u64 wanted = std::min<u64>(present, bytes - result.size());
        const u64 sectors = (wanted + on.at.sector_size - 1) / on.at.sector_size;
        const std::vector<u8> piece =
            read_extent(on, on.sector_of(static_cast<u32>(cluster)), static_cast<u32>(sectors));
        result.insert(result.end(), piece.begin(),
                      piece.begin() + static_cast<std::ptrdiff_t>(wanted));
        skipped = 0;
        if (result.size() == bytes) {
            break;
        }
    }
    return result;
}

} // namespace qvol
