// What a check finds: its kinds, and what is known about one finding.

#pragma once

#include "fat/bytes.h"

#include <functional>
#include <limits>
#include <string>

namespace qvol {

class repair;

// What has to hold before the FAT and what follows from it may be changed.
enum class harm {
    NONE,   // the chains are what they seem
    CHAINS, // a chain lacks something, or is claimed twice: what seems lost may belong to it
    AREAS,  // the areas may lie elsewhere: nothing is what it seems
};

struct finding_kind {
    const char *name;     // in JSON documents
    const char *obstacle; // why it is left, where it is
    harm does = harm::NONE;
};

namespace found {

inline constexpr const char *NOT_KNOWN = "what is missing is not known";
inline constexpr const char *BY_HAND = "names are not changed here";
inline constexpr const char *DOUBTFUL = "the directory may not be what it seems";
inline constexpr const char *BROKEN_CHAIN = "the rest of a broken chain may be there";
inline constexpr const char *AREAS_IN_DOUBT =
    "nothing is changed while the boot sector contradicts itself";

// ---- areas ----
inline constexpr finding_kind FIELDS{"boot-fields", "which field is right is not known",
                                     harm::AREAS};
inline constexpr finding_kind GEOMETRY{"boot-geometry", "which of the two is right is not known",
                                       harm::AREAS};
inline constexpr finding_kind BACKUP{"boot-backup", ""};
inline constexpr finding_kind BACKUP_LOCATION{"boot-backup-place", "the right place is not known",
                                              harm::AREAS};
inline constexpr finding_kind ACTIVE_FAT{"fat-active", "only the first copy is used here",
                                         harm::AREAS};
inline constexpr finding_kind FAT_SIZE{"fat-size", "the areas are not moved", harm::AREAS};
inline constexpr finding_kind FSINFO_LOCATION{"fsinfo-place", "the right place is not known",
                                              harm::AREAS};
inline constexpr finding_kind FSINFO_SIGNATURE{"fsinfo-signature", ""};
inline constexpr finding_kind FSINFO_FREE{"fsinfo-free", ""};
inline constexpr finding_kind FSINFO_NEXT{"fsinfo-next", ""};
inline constexpr finding_kind FAT_MEDIA{"fat-media", ""};
inline constexpr finding_kind FAT_END_MARK{"fat-end-mark", ""};
inline constexpr finding_kind DIRTY{"dirty", "something else is left"};
inline constexpr finding_kind FAT_COPIES{"fat-copies", BROKEN_CHAIN};

// ---- chains ----
inline constexpr finding_kind CHAIN_START{"chain-start", NOT_KNOWN, harm::CHAINS};
inline constexpr finding_kind CHAIN_MISSING{"chain-missing", NOT_KNOWN, harm::CHAINS};
inline constexpr finding_kind CHAIN_FREE{"chain-free", NOT_KNOWN, harm::CHAINS};
inline constexpr finding_kind CHAIN_BAD{"chain-bad", NOT_KNOWN, harm::CHAINS};
inline constexpr finding_kind CHAIN_RANGE{"chain-range", NOT_KNOWN, harm::CHAINS};
inline constexpr finding_kind CHAIN_CYCLE{"chain-circle", NOT_KNOWN, harm::CHAINS};
inline constexpr finding_kind CHAIN_SHARED{"chain-shared", "whose clusters they are is not known",
                                           harm::CHAINS};
inline constexpr finding_kind CHAIN_SHORT{"chain-short", NOT_KNOWN, harm::CHAINS};
inline constexpr finding_kind CHAIN_LONG{"chain-long", BROKEN_CHAIN};
inline constexpr finding_kind PAST_IMAGE{"behind-image", NOT_KNOWN};
inline constexpr finding_kind LOST{"lost", BROKEN_CHAIN};

// ---- directories ----
inline constexpr finding_kind UNREADABLE{"unreadable", "the medium failed", harm::CHAINS};
inline constexpr finding_kind TOO_LONG{"directory-length", "move entries out of it", harm::CHAINS};
inline constexpr finding_kind PAST_END{"behind-end", "whether they are entries is not known",
                                       harm::CHAINS};
inline constexpr finding_kind DIRECTORY_SIZE{"directory-size", ""};
inline constexpr finding_kind DOT_MISSING{"dot-missing", "something else stands in its place"};
inline constexpr finding_kind DOT_CLUSTER{"dot-cluster", ""};
inline constexpr finding_kind DOT_LOCATION{"dot-place", BY_HAND, harm::CHAINS};
inline constexpr finding_kind ORPHAN_SLOTS{"orphan-slots", ""};
inline constexpr finding_kind CHECKSUM{"checksum", ""};
inline constexpr finding_kind SLOT_CLUSTER{"slot-cluster", ""};
inline constexpr finding_kind SLOT_RESERVED{"slot-reserved", ""};
inline constexpr finding_kind NO_ENTRY{"no-entry", "what it was is not known", harm::CHAINS};
inline constexpr finding_kind LABELS{"labels", "which one is right is not known"};
inline constexpr finding_kind LABEL_LOCATION{"label-place", "what it was is not known",
                                             harm::CHAINS};
inline constexpr finding_kind DUPLICATE_NAME{"duplicate-name", BY_HAND};
inline constexpr finding_kind DUPLICATE_SHORT{"duplicate-short-name", BY_HAND};
inline constexpr finding_kind NAME{"name", BY_HAND};

// ---- files of the ZUQ driver ----
inline constexpr finding_kind POOL{"pool", "its content is the driver's: remove it, make it anew"};
inline constexpr finding_kind LOG{"log", "its content is the driver's: remove it, make it anew"};

} // namespace found

// An entry of the tree, by its index in the survey.
inline constexpr fat::u32 NO_NODE = std::numeric_limits<fat::u32>::max();

struct finding {
    const finding_kind *kind;
    fat::u32 node;    // NO_NODE: the volume's
    fat::u32 cluster; // 0: none
    std::string text;

    std::string remedy;                       // what `mend` comes to
    std::function<void(repair *plan)> mend{}; // empty: it cannot be mended
};

} // namespace qvol
