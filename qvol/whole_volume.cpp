#include "qvol/whole_volume.h"

#include "fat/internal.h"
#include "qvol/sectors.h"

#include <fmt/core.h>

namespace qvol {

constexpr u32 LOG_BYTES = 128 * 1024;

const reserved_file POOL_FILE = {"ZUQ_POOL.SY$", zuq_make_pool, 1};
const reserved_file LOG_FILE = {"$ZUQ_LOG.LO$", zuq_make_log, LOG_BYTES};

void make_reserved_file(volume &vol, const reserved_file &file) {
    vol.fat().read_all();
    const int made = file.make();
    if (made < 0) {
        throw system_failure(fmt::format("make /{}", file.name), -made);
    }
    vol.fat().take_over_library_changes();
    vol.fat().write_changes();
}

u64 used_length(volume &vol) {
    const u32 highest = vol.fat().highest_used();
    const u64 sectors =
        highest == 0 ? sv->data_start : sector_of_cluster(highest) + sv->sec_per_clus;
    return sectors * sv->sector_size;
}

} // namespace qvol
