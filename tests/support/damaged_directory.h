// Directories with one kind of damage each: slots of a long name that are missing, deleted, out of
// order or of another name; chains and sectors at which a walk fails or ends.

#pragma once

#include "tests/support/mounted.h"
#include "tests/support/rows.h"
#include "tests/support/volume.h"

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

namespace testing_support {

// ---- slots of a name --------------------------------------------------------------------------

// The name with damaged slots, and its printed form.
constexpr std::string_view DAMAGED_DOS = "ALONGN~1TXT";
inline const std::string DAMAGED_SHORT = "ALONGN~1.TXT";

inline std::u16string wide_of(const std::string &text) {
    return {text.begin(), text.end()};
}
// A slot of the damaged name. `wrong` is added to its checksum.
inline entry_image slot(unsigned ordinal, const std::string &units, unsigned wrong = 0) {
    return long_slot(ordinal, wide_of(units), checksum_of(DAMAGED_DOS) + wrong);
}
inline entry_image with_attribute(entry_image entry, unsigned attr) {
    entry[11] = static_cast<std::uint8_t>(attr);
    return entry;
}
// These entries, followed by the short entry of the damaged name.
inline std::vector<entry_image> before_entry(std::vector<entry_image> entries) {
    entries.push_back(short_entry(DAMAGED_DOS));
    return entries;
}
// A name of three slots with another entry instead of the middle slot or of the short entry.
inline std::vector<entry_image> with_middle(const entry_image &middle) {
    return before_entry({slot(0x43, "Tail"), middle, slot(1, std::string(13, 'a'))});
}
inline std::vector<entry_image> with_end(const entry_image &end) {
    return before_entry({slot(0x42, "Tail"), slot(1, std::string(13, 'a')), end});
}
// A name of one slot with another entry between the slot and the short entry.
inline std::vector<entry_image> with_between(const entry_image &between) {
    return before_entry({slot(0x41, "One"), between});
}

// ---- chains and sectors -----------------------------------------------------------------------

// A directory of deleted files, in the clusters 20, 25 and 22 or the root area of FAT16. Walks do
// not reach the entry after that many whole clusters.
struct damaged_walk : named_row {
    bool is_root_area;
    void (*damage)(volume *v, directory *dir);
    int result; // of reading that entry
    std::uint32_t clusters_before;
    const char *cause; // printed before "Failed to get entry sector!"; null: its sector cannot be
                       // read
};

inline const std::vector<damaged_walk> &damaged_walks() {
    static constexpr char INVALID[] = "fat_read_clus[N]: Invalid cluster!\n\n"
                                      "get_phy_sector[N]: invalid value -22\n";
    static const std::vector<damaged_walk> rows = {
        {"LinkOfOne", false, [](volume *v, directory *) { v->set_link(25, 1); }, -EINVAL, 2,
         INVALID},
        {"LinkPastTheVolume", false,
         [](volume *v, directory *) { v->set_link(25, volume::last_cluster() + 1); }, -EINVAL, 2,
         INVALID},
        {"BadLink", false, [](volume *v, directory *) { v->set_link(25, volume::bad_mark()); },
         -EINVAL, 2, INVALID},
        {"FreeLink", false, [](volume *v, directory *) { v->set_link(25, 0); }, -EINVAL, 2,
         "get_phy_sector[N]: invalid value 0\n"},
        {"UnreadableFat", false,
         [](volume *v, directory *) { v->disk.bad_sectors = {volume::fat_sector_of(20)}; }, -EINVAL,
         1, "fat_read_entry[N]: cannot read FAT\n\nget_phy_sector[N]: invalid value -5\n"},
        {"StartOfOne", false, [](volume *, directory *dir) { dir->record.start = 1; }, -EINVAL, 0,
         "get_phy_sector[N]: invalid start cluster number 1\n"},
        {"StartPastTheVolume", false,
         [](volume *, directory *dir) { dir->record.start = volume::last_cluster() + 1; }, -EINVAL,
         0, "get_phy_sector[N]: NULL pointer or invalid xxx!\n\n"},
        {"StartOfAllBits", false, [](volume *, directory *dir) { dir->record.start = 0xFFFFFFFF; },
         -EINVAL, 0, "get_phy_sector[N]: NULL pointer or invalid xxx!\n\n"},
        {"UnreadableFirstCluster", false,
         [](volume *v, directory *) { v->disk.bad_sectors = {volume::first_sector_of(20)}; }, -EIO,
         0, nullptr},
        {"UnreadableSecondCluster", false,
         [](volume *v, directory *) { v->disk.bad_sectors = {volume::first_sector_of(25)}; }, -EIO,
         1, nullptr},
        {"UnreadableThirdCluster", false,
         [](volume *v, directory *) { v->disk.bad_sectors = {volume::first_sector_of(22)}; }, -EIO,
         2, nullptr},
        {"UnreadableRootArea", true,
         [](volume *v, directory *dir) { v->disk.bad_sectors = {dir->sectors[1]}; }, -EIO, 1,
         nullptr},
        {"ChainCutShort", false,
         [](volume *v, directory *) { v->set_link(25, volume::first_end_mark()); }, -EFAULT, 2, ""},
        {"FullDirectory", false, [](volume *, directory *) {}, -EFAULT, 3, ""},
        {"FullRootArea", true, [](volume *, directory *) {}, -EFAULT, 2,
         "get_phy_sector[N]: Invalid sector number in Root dir\n\n"},
    };
    return rows;
}

} // namespace testing_support
