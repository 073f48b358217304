#include "core/chain.h"

#include <algorithm>

namespace core {

bool cycle_detector::closes_cycle(u32 cluster) {
    return closes_cycle_within(cluster, 1);
}

bool cycle_detector::closes_cycle_within(u32 first, u32 count) {
    while (count > 0) {
        const u32 to_next_anchor = span - steps + 1;
        const u32 batch = std::min(count, to_next_anchor);
        if (has_anchor && anchor >= first && anchor - first < batch) {
            return true;
        }
        first += batch;
        count -= batch;
        steps += batch;
        if (batch == to_next_anchor) {
            anchor = first - 1;
            has_anchor = true;
            span *= 2;
            steps = 1;
        }
    }
    return false;
}

fault chain_cursor::move(table &fat, u32 start, u32 to) {
    if (first != start || to < links) {
        first = cluster = start;
        links = 0;
        detector = cycle_detector{};
        (void)detector.closes_cycle(start); // one cluster alone is not a cycle
    }
    while (links < to) {
        const result<u32> next = fat.link(cluster);
        if (!next.ok()) {
            first = 0;
            return next.why;
        }
        cluster = next.value;
        if (detector.closes_cycle(cluster)) {
            first = 0;
            return fault::CYCLE;
        }
        links++;
        const u32 contiguous = fat.contiguous_links(cluster, to - links);
        if (detector.closes_cycle_within(cluster + 1, contiguous)) {
            cluster = detector.anchor;
            first = 0;
            return fault::CYCLE;
        }
        cluster += contiguous;
        links += contiguous;
    }
    return fault::NONE;
}

result<chain_length> measure_chain(table &fat, u32 first, u32 *stopped_at) {
    cycle_detector detector;
    u32 cluster = first;
    for (u32 count = 1;; count++) {
        *stopped_at = cluster;
        if (detector.closes_cycle(cluster)) {
            return fault::CYCLE;
        }
        const result<u32> next = fat.link(cluster);
        if (!next.ok()) {
            return next.why;
        }
        if (next.value == FAT_FREE) {
            return fault::FREE_CLUSTER;
        }
        if (fat.on().is_end_of_chain(next.value)) {
            return chain_length{count, cluster};
        }
        cluster = next.value;
    }
}

} // namespace core
