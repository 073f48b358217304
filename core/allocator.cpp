#include "core/allocator.h"

namespace core {

u32 corrected_hint(const volume &of, u32 hint) {
    return hint < FIRST_DATA_CLUSTER || hint >= of.last_cluster() ? FIRST_DATA_CLUSTER - 1 : hint;
}

result<u32> next_fit::find(table &fat) {
    const result<u32> after = fat.find_free(hint + 1, fat.on().last_cluster(), &stopped_at);
    has_wrapped = after.why == fault::NO_SPACE;
    return has_wrapped ? fat.find_free(FIRST_DATA_CLUSTER, hint, &stopped_at) : after;
}

} // namespace core
