// The findings of a check: their kinds, and the data of one finding.

#pragma once

#include "core/bytes.h"

#include <functional>
#include <limits>
#include <string>

namespace qvol {

class repair_plan;

// How far the damage of a finding reaches. Decides what else may be repaired.
enum class damage {
    NONE,   // the chains can be trusted
    CHAINS, // a chain is incomplete or claimed twice: lost clusters may belong to it
    AREAS,  // the areas may be elsewhere: nothing can be trusted
};

struct finding_kind {
    const char *name;     // in JSON documents
    const char *obstacle; // why it is not repaired, if it is not
    damage scope = damage::NONE;
};

namespace found {

inline constexpr const char *UNKNOWN_DATA = "the missing data is unknown";
inline constexpr const char *BY_HAND = "names are not repaired automatically";
inline constexpr const char *DOUBTFUL = "this may not be a directory";
inline constexpr const char *BROKEN_CHAIN = "a broken chain may continue there";
inline constexpr const char *AREAS_IN_DOUBT =
    "nothing is repaired while the boot sector contradicts itself";

// ---- areas ----
inline constexpr finding_kind BOOT_SECTOR{"boot-sector", ""};
inline constexpr finding_kind FIELDS{"boot-fields", "it is unknown which field is correct",
                                     damage::AREAS};
inline constexpr finding_kind GEOMETRY{"boot-geometry", "it is unknown which of the two is correct",
                                       damage::AREAS};
inline constexpr finding_kind BACKUP{"boot-backup", ""};
inline constexpr finding_kind BACKUP_LOCATION{"boot-backup-place", "the correct sector is unknown",
                                              damage::AREAS};
inline constexpr finding_kind FAT_SIZE{"fat-size", "areas are not moved", damage::AREAS};
inline constexpr finding_kind FSINFO_LOCATION{"fsinfo-place", "the correct sector is unknown",
                                              damage::AREAS};
inline constexpr finding_kind FSINFO_SIGNATURE{"fsinfo-signature", ""};
inline constexpr finding_kind FSINFO_FREE{"fsinfo-free", ""};
inline constexpr finding_kind FSINFO_NEXT{"fsinfo-next", ""};
inline constexpr finding_kind FAT_MEDIA{"fat-media", ""};
inline constexpr finding_kind FAT_END_MARK{"fat-end-mark", ""};
inline constexpr finding_kind DIRTY{"dirty", "other findings remain"};
inline constexpr finding_kind FAT_DAMAGED{"fat-damaged", ""};
inline constexpr finding_kind FAT_COPIES{"fat-copies", BROKEN_CHAIN};

// ---- chains ----
inline constexpr finding_kind CHAIN_START{"chain-start", UNKNOWN_DATA, damage::CHAINS};
inline constexpr finding_kind CHAIN_MISSING{"chain-missing", UNKNOWN_DATA, damage::CHAINS};
inline constexpr finding_kind CHAIN_FREE{"chain-free", UNKNOWN_DATA, damage::CHAINS};
inline constexpr finding_kind CHAIN_BAD{"chain-bad", UNKNOWN_DATA, damage::CHAINS};
inline constexpr finding_kind CHAIN_RANGE{"chain-range", UNKNOWN_DATA, damage::CHAINS};
inline constexpr finding_kind CHAIN_CYCLE{"chain-circle", UNKNOWN_DATA, damage::CHAINS};
inline constexpr finding_kind CHAIN_SHARED{
    "chain-shared", "it is unknown which entry owns the clusters", damage::CHAINS};
inline constexpr finding_kind CHAIN_SHORT{"chain-short", UNKNOWN_DATA, damage::CHAINS};
inline constexpr finding_kind CHAIN_LONG{"chain-long", BROKEN_CHAIN};
inline constexpr finding_kind PAST_IMAGE{"behind-image", UNKNOWN_DATA};
inline constexpr finding_kind LOST{"lost", BROKEN_CHAIN};

// ---- directories ----
inline constexpr finding_kind UNREADABLE{"unreadable", "the directory cannot be read",
                                         damage::CHAINS};
inline constexpr finding_kind TOO_LONG{"directory-length", "move entries to another directory",
                                       damage::CHAINS};
inline constexpr finding_kind PAST_END{"behind-end", "it is unknown whether they are entries",
                                       damage::CHAINS};
inline constexpr finding_kind DIRECTORY_SIZE{"directory-size", ""};
inline constexpr finding_kind DOT_MISSING{"dot-missing", "the slot is in use"};
inline constexpr finding_kind DOT_CLUSTER{"dot-cluster", ""};
inline constexpr finding_kind DOT_LOCATION{"dot-place", BY_HAND, damage::CHAINS};
inline constexpr finding_kind ORPHAN_SLOTS{"orphan-slots", ""};
inline constexpr finding_kind CHECKSUM{"checksum", ""};
inline constexpr finding_kind LONG_NAME{"long-name", BY_HAND};
inline constexpr finding_kind SLOT_CLUSTER{"slot-cluster", ""};
inline constexpr finding_kind SLOT_RESERVED{"slot-reserved", ""};
inline constexpr finding_kind NOT_DIRECTORY{"not-directory", UNKNOWN_DATA, damage::CHAINS};
inline constexpr finding_kind NO_ENTRIES{"directory-sector", UNKNOWN_DATA, damage::CHAINS};
inline constexpr finding_kind NO_ENTRY{"no-entry", "its original content is unknown",
                                       damage::CHAINS};
inline constexpr finding_kind LABELS{"labels", "it is unknown which label is correct"};
inline constexpr finding_kind BOOT_LABEL{"boot-label", "it is unknown which label is correct"};
inline constexpr finding_kind LABEL_LOCATION{"label-place", "its original content is unknown",
                                             damage::CHAINS};
inline constexpr finding_kind DUPLICATE_NAME{"duplicate-name", BY_HAND};
inline constexpr finding_kind DUPLICATE_SHORT{"duplicate-short-name", BY_HAND};
inline constexpr finding_kind NAME{"name", BY_HAND};

// ---- files of the ZUQ driver ----
inline constexpr finding_kind POOL{"pool", "remove it, then create it again with \"qvol pool\""};
inline constexpr finding_kind LOG{"log", "remove it, then create it again with \"qvol log\""};

} // namespace found

// A node is an entry of the tree, by its index in the survey.
inline constexpr core::u32 NO_NODE = std::numeric_limits<core::u32>::max();

struct finding {
    const finding_kind *kind;
    core::u32 node;    // NO_NODE: the finding is about the volume
    core::u32 cluster; // 0: no cluster
    std::string text;

    std::string remedy;                              // the result of `repair`, as it is printed
    std::function<void(repair_plan *plan)> repair{}; // empty: not repairable
    const char *obstacle = nullptr;                  // instead of the one of its kind

    core::u32 other = NO_NODE;   // that shares clusters
    bool is_disputable = false;  // other repairs are possible: a safe one leaves it
    bool moves_chains = false;   // the repair gives clusters another owner
    bool restores_entry = false; // of lost clusters
    bool waits = false;          // until no other repair moves chains
};

} // namespace qvol
