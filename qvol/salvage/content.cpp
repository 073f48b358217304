#include "qvol/salvage/content.h"

#include "core/chain.h"
#include "qvol/file_data.h"
#include "qvol/output.h"
#include "qvol/sectors.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr u32 PIECE_BYTES = 256 * 1024;

// Reads sector by sector. Returns the number of those that cannot be read.
u64 read_singly(const core::volume &on, u64 sector, std::span<u8> bytes) {
    u64 unreadable = 0;
    for (; !bytes.empty(); bytes = bytes.subspan(on.at.sector_size)) {
        const std::span<u8> one = bytes.first(on.at.sector_size);
        try {
            read_extent_into(on, sector++, one);
        } catch (const error &) {
            std::fill(one.begin(), one.end(), u8{0});
            unreadable++;
        }
    }
    return unreadable;
}

u64 read_best(const core::volume &on, u64 sector, std::span<u8> bytes) {
    try {
        read_extent_into(on, sector, bytes);
        return 0;
    } catch (const error &) {
        return read_singly(on, sector, bytes);
    }
}

void follow_chain(fat_table &table, u32 start, u32 wanted, found_content *found) {
    const core::volume &on = table.on();
    core::cycle_detector guard;
    for (u32 cluster = start; found->clusters.size() < wanted;) {
        if (!on.is_data_cluster(cluster)) {
            throw error(fmt::format("cluster {:#x} does not exist", cluster));
        }
        if (guard.closes_cycle(cluster)) {
            throw error("its chain contains a cycle");
        }
        found->clusters.push_back(cluster);
        const u32 next = table.get(cluster);
        const core::link_kind kind = on.kind_of_link(next);
        if (kind != core::link_kind::NEXT && kind != core::link_kind::OUTSIDE) {
            return;
        }
        cluster = next;
    }
}

} // namespace

found_content find_content(fat_table &table, u32 start, u64 size) {
    const u32 wanted = clusters_for(table.on(), size);
    found_content found;
    try {
        follow_chain(table, start, wanted, &found);
    } catch (const error &why) {
        found.problem = why.what();
    }
    if (found.clusters.size() < wanted && found.problem.empty()) {
        found.problem = fmt::format("its chain ends after cluster {}", found.clusters.back());
    }
    return found;
}

u64 copy_content(const core::volume &on, std::span<const u32> clusters, u64 size,
                 const write_piece &write) {
    const u32 most = std::max(PIECE_BYTES / on.cluster_bytes(), 1U);
    std::vector<u8> piece(std::size_t{most} * on.cluster_bytes());
    u64 unreadable = 0;
    u64 sectors = 0;
    for (const cluster_extent &extent : extents_of(clusters)) {
        for (u32 done = 0; done < extent.count && size > 0;) {
            const u32 count = std::min(extent.count - done, most);
            const std::span<u8> whole =
                std::span(piece).first(std::size_t{count} * on.cluster_bytes());
            const std::size_t wanted = static_cast<std::size_t>(std::min<u64>(size, whole.size()));
            const std::size_t read =
                (wanted + on.at.sector_size - 1) / on.at.sector_size * on.at.sector_size;
            unreadable += read_best(on, on.sector_of(extent.first + done), whole.first(read));
            sectors += read / on.at.sector_size;
            write(whole.first(wanted));
            size -= wanted;
            done += count;
        }
    }
    if (sectors != 0 && unreadable == sectors) {
        throw error("none of its sectors can be read");
    }
    return unreadable;
}

std::string unreadable_text(u64 sectors) {
    return counted(sectors, "sector", "sectors") + " cannot be read and are zeros";
}

} // namespace qvol
