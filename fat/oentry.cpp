// Open entries: the table of 512 slots and the lifetime of its records.

#include "fat/internal.h"

using namespace fat;

oentry *oentry_table[512] = {};
uint32_t oentry_map[16] = {};

namespace fat {

void free_oentry(oentry *entry) {
    if (entry == nullptr) {
        return;
    }
    if (sv != nullptr && sv->current_dir == entry) {
        sv->current_dir = sv->root_dir != entry ? sv->root_dir : nullptr;
    }
    std::free(entry->dentry);
    std::free(entry);
}

} // namespace fat
