// The records of a FAT volume, each defined once: field offsets, and a table that proves them
// contiguous.
//
//   boot sector    0   jump, OEM name, BIOS parameter block          36 bytes
//                 36   FAT32 block (FAT32 only)                      28 bytes
//           36 or 64   extended boot record                          26 bytes
//                510   signature 55 AA
//   FSInfo         0   lead signature ... 484 structure signature, two counts ... 508 trail
//   directory      0   32-byte short entries and long-name slots, one after another
//
// Media in the field use these numbers: they never change.

#pragma once

#include "core/bytes.h"

namespace core {
inline namespace basis {

// ---- boot sector ------------------------------------------------------------------------------

inline constexpr field PBR_JUMP{"jump", 0, 3};
inline constexpr field PBR_OEM_NAME{"OEM name", 3, 8};
inline constexpr field PBR_BYTES_PER_SECTOR{"bytes per sector", 11, 2};
inline constexpr field PBR_SECTORS_PER_CLUSTER{"sectors per cluster", 13, 1};
inline constexpr field PBR_RESERVED_SECTORS{"reserved sectors", 14, 2};
inline constexpr field PBR_NUMBER_OF_FATS{"number of FATs", 16, 1};
inline constexpr field PBR_ROOT_ENTRIES{"root entries", 17, 2};
inline constexpr field PBR_TOTAL_SECTORS_16{"total sectors (16-bit)", 19, 2};
inline constexpr field PBR_MEDIA{"media", 21, 1};
inline constexpr field PBR_FAT_SIZE_16{"FAT size (16-bit)", 22, 2};
inline constexpr field PBR_SECTORS_PER_TRACK{"sectors per track", 24, 2};
inline constexpr field PBR_HEADS{"heads", 26, 2};
inline constexpr field PBR_HIDDEN_SECTORS{"hidden sectors", 28, 4};
inline constexpr field PBR_TOTAL_SECTORS_32{"total sectors (32-bit)", 32, 4};

inline constexpr field PBR_FIELDS[] = {
    PBR_JUMP,
    PBR_OEM_NAME,
    PBR_BYTES_PER_SECTOR,
    PBR_SECTORS_PER_CLUSTER,
    PBR_RESERVED_SECTORS,
    PBR_NUMBER_OF_FATS,
    PBR_ROOT_ENTRIES,
    PBR_TOTAL_SECTORS_16,
    PBR_MEDIA,
    PBR_FAT_SIZE_16,
    PBR_SECTORS_PER_TRACK,
    PBR_HEADS,
    PBR_HIDDEN_SECTORS,
    PBR_TOTAL_SECTORS_32,
};
inline constexpr u32 PBR_COMMON_SIZE = 36;
static_assert(covers(PBR_FIELDS, 0, PBR_COMMON_SIZE));

// The BIOS parameter block begins after the jump and the OEM name.
inline constexpr u32 BPB_OFFSET = PBR_BYTES_PER_SECTOR.offset;

inline constexpr field PBR32_FAT_SIZE{"FAT size (32-bit)", 36, 4};
inline constexpr field PBR32_EXTENDED_FLAGS{"extended flags", 40, 2};
inline constexpr field PBR32_VERSION{"file-system version", 42, 2};
inline constexpr field PBR32_ROOT_CLUSTER{"root cluster", 44, 4};
inline constexpr field PBR32_FSINFO_SECTOR{"FSInfo sector", 48, 2};
inline constexpr field PBR32_BACKUP_SECTOR{"backup boot sector", 50, 2};
inline constexpr field PBR32_RESERVED{"reserved", 52, 12};

inline constexpr field PBR32_FIELDS[] = {
    PBR32_FAT_SIZE,      PBR32_EXTENDED_FLAGS, PBR32_VERSION,  PBR32_ROOT_CLUSTER,
    PBR32_FSINFO_SECTOR, PBR32_BACKUP_SECTOR,  PBR32_RESERVED,
};
inline constexpr u32 PBR32_END = 64;
static_assert(covers(PBR32_FIELDS, PBR_COMMON_SIZE, PBR32_END));

// The extended boot record follows the last block; its offsets are relative to its start.
inline constexpr u32 EBR_OFFSET_FAT16 = PBR_COMMON_SIZE;
inline constexpr u32 EBR_OFFSET_FAT32 = PBR32_END;

inline constexpr field EBR_DRIVE_NUMBER{"drive number", 0, 1};
inline constexpr field EBR_RESERVED{"reserved", 1, 1};
inline constexpr field EBR_BOOT_SIGNATURE{"boot signature", 2, 1};
inline constexpr field EBR_VOLUME_ID{"volume id", 3, 4};
inline constexpr field EBR_VOLUME_LABEL{"volume label", 7, 11};
inline constexpr field EBR_TYPE{"file-system type", 18, 8};

inline constexpr field EBR_FIELDS[] = {
    EBR_DRIVE_NUMBER, EBR_RESERVED, EBR_BOOT_SIGNATURE, EBR_VOLUME_ID, EBR_VOLUME_LABEL, EBR_TYPE,
};
inline constexpr u32 EBR_SIZE = 26;
static_assert(covers(EBR_FIELDS, 0, EBR_SIZE));

inline constexpr field PBR_SIGNATURE{"signature", 510, 2};
inline constexpr u32 BOOT_SIGNATURE = 0xAA55; // bytes 55 AA
inline constexpr u32 PBR_SIZE = 512;          // bytes of the boot sector that are defined
static_assert(EBR_OFFSET_FAT32 + EBR_SIZE <= PBR_SIGNATURE.offset);
static_assert(PBR_SIGNATURE.offset + PBR_SIGNATURE.size == PBR_SIZE);

inline constexpr u32 MEDIA_FIXED = 0xF8;
inline constexpr u32 MIRRORING_OFF = 0x80;           // extended flag: one copy of the FAT is in use
inline constexpr u32 ACTIVE_FAT_MASK = 0x0F;         // extended flags: the number of that copy
inline constexpr u32 EXTENDED_BOOT_SIGNATURE = 0x29; // volume id, label and type follow

// ---- FSInfo sector ----------------------------------------------------------------------------

inline constexpr field FSINFO_LEAD{"lead signature", 0, 4};
inline constexpr field FSINFO_RESERVED_LOW{"reserved", 4, 480};
inline constexpr field FSINFO_STRUCTURE{"structure signature", 484, 4};
inline constexpr field FSINFO_FREE_COUNT{"free-cluster count", 488, 4};
inline constexpr field FSINFO_NEXT_FREE{"next free cluster", 492, 4};
inline constexpr field FSINFO_RESERVED_HIGH{"reserved", 496, 12};
inline constexpr field FSINFO_TRAIL{"trail signature", 508, 4};

inline constexpr field FSINFO_FIELDS[] = {
    FSINFO_LEAD,      FSINFO_RESERVED_LOW,  FSINFO_STRUCTURE, FSINFO_FREE_COUNT,
    FSINFO_NEXT_FREE, FSINFO_RESERVED_HIGH, FSINFO_TRAIL,
};
static_assert(covers(FSINFO_FIELDS, 0, 512));

inline constexpr u32 FSINFO_LEAD_SIGNATURE = 0x41615252;      // bytes 52 52 61 41
inline constexpr u32 FSINFO_STRUCTURE_SIGNATURE = 0x61417272; // bytes 72 72 41 61
inline constexpr u32 FSINFO_TRAIL_SIGNATURE = 0xAA550000;     // bytes 00 00 55 AA
inline constexpr u32 FSINFO_UNKNOWN = 0xFFFFFFFF;

// ---- cluster counts ---------------------------------------------------------------------------

// Fewer clusters than the first number are FAT12. For which volumes they decide: see width_rule.
inline constexpr u32 FAT16_MIN_CLUSTERS = 4085;
inline constexpr u32 FAT32_MIN_CLUSTERS = 65525;

// ---- FAT entries ------------------------------------------------------------------------------

inline constexpr u32 FAT16_ENTRY_SIZE = 2;
inline constexpr u32 FAT32_ENTRY_SIZE = 4;
inline constexpr u32 FAT12_VALUE_MASK = 0x0FFF;
inline constexpr u32 FAT16_VALUE_MASK = 0xFFFF;
inline constexpr u32 FAT32_VALUE_MASK = 0x0FFFFFFF; // the top 4 bits of a FAT32 entry are reserved
inline constexpr u32 FIRST_DATA_CLUSTER = 2;
inline constexpr u32 NEW_ROOT_CLUSTER = 2; // of the root directory of a new FAT32 volume
inline constexpr u32 FAT_FREE = 0;
inline constexpr u32 FAT12_BAD = 0x0FF7;
inline constexpr u32 FAT16_BAD = 0xFFF7;
inline constexpr u32 FAT32_BAD = 0x0FFFFFF7;
inline constexpr u32 FAT12_END = 0x0FF8; // this value and every higher one end a chain
inline constexpr u32 FAT16_END = 0xFFF8;
inline constexpr u32 FAT32_END = 0x0FFFFFF8;
inline constexpr u32 FAT_END_MARK = 0xFFFFFFFF; // to write; each width uses its low bits

// ---- directory entries ------------------------------------------------------------------------

inline constexpr u32 DENTRY_SIZE = 32;

inline constexpr field SHORT_NAME{"name", 0, 11};
inline constexpr field SHORT_ATTR{"attr", 11, 1};
inline constexpr field SHORT_SYSID{"sysid", 12, 1};
inline constexpr field SHORT_CMSEC{"cmsec", 13, 1};
inline constexpr field SHORT_CTIME{"ctime", 14, 2};
inline constexpr field SHORT_CDATE{"cdate", 16, 2};
inline constexpr field SHORT_ADATE{"adate", 18, 2};
inline constexpr field SHORT_START_HIGH{"start_clu (high)", 20, 2};
inline constexpr field SHORT_MTIME{"mtime", 22, 2};
inline constexpr field SHORT_MDATE{"mdate", 24, 2};
inline constexpr field SHORT_START_LOW{"start_clu (low)", 26, 2};
inline constexpr field SHORT_FILE_SIZE{"size", 28, 4};

inline constexpr field SHORT_FIELDS[] = {
    SHORT_NAME,  SHORT_ATTR,       SHORT_SYSID, SHORT_CMSEC, SHORT_CTIME,     SHORT_CDATE,
    SHORT_ADATE, SHORT_START_HIGH, SHORT_MTIME, SHORT_MDATE, SHORT_START_LOW, SHORT_FILE_SIZE,
};
static_assert(covers(SHORT_FIELDS, 0, DENTRY_SIZE));

// Intentional: every walk counts this many entries in the FAT16 root area, regardless of its size.
inline constexpr u32 FAT16_ROOT_ENTRIES = 512;

// First bytes of a name with a special meaning.
inline constexpr u8 NAME_UNUSED = 0x00; // also the end of the directory
inline constexpr u8 NAME_DELETED = 0xE5;
inline constexpr u8 NAME_ESCAPED_E5 = 0x05; // represents a first character 0xE5

// The two dot entries at the start of every directory but the root, and their names.
inline constexpr u32 DOT_ENTRIES = 2;
inline constexpr u8 DOT_NAME[SHORT_NAME.size] = {'.', ' ', ' ', ' ', ' ', ' ',
                                                 ' ', ' ', ' ', ' ', ' '};
inline constexpr u8 DOT_DOT_NAME[SHORT_NAME.size] = {'.', '.', ' ', ' ', ' ', ' ',
                                                     ' ', ' ', ' ', ' ', ' '};

// Attribute bits.
inline constexpr u32 ATTR_READ_ONLY = 0x01;
inline constexpr u32 ATTR_HIDDEN = 0x02;
inline constexpr u32 ATTR_SYSTEM = 0x04;
inline constexpr u32 ATTR_VOLUME = 0x08;
inline constexpr u32 ATTR_DIRECTORY = 0x10;
inline constexpr u32 ATTR_ARCHIVE = 0x20;
inline constexpr u32 ATTR_KIND_MASK = ATTR_VOLUME | ATTR_DIRECTORY;
inline constexpr u32 ATTR_LONG_NAME = 0x0F;
inline constexpr u32 ATTR_LONG_NAME_MASK = 0x3F;

// Case bits of the sysid byte.
inline constexpr u32 CASE_LOWER_BASE = 0x08;
inline constexpr u32 CASE_LOWER_EXTENSION = 0x10;

// The cmsec byte of a symbolic link.
inline constexpr u32 CMSEC_SYMLINK = 0xE2;

inline constexpr field SLOT_ORDINAL{"offset", 0, 1};
inline constexpr field SLOT_UNITS_0_4{"unname[0-4]", 1, 10};
inline constexpr field SLOT_ATTR{"attr", 11, 1};
inline constexpr field SLOT_SYSID{"sysid", 12, 1};
inline constexpr field SLOT_CHECKSUM{"checksum", 13, 1};
inline constexpr field SLOT_UNITS_5_10{"unname[5-10]", 14, 12};
inline constexpr field SLOT_START{"start_clu", 26, 2};
inline constexpr field SLOT_UNITS_11_12{"unname[11-12]", 28, 4};

inline constexpr field SLOT_FIELDS[] = {
    SLOT_ORDINAL,  SLOT_UNITS_0_4,  SLOT_ATTR,  SLOT_SYSID,
    SLOT_CHECKSUM, SLOT_UNITS_5_10, SLOT_START, SLOT_UNITS_11_12,
};
static_assert(covers(SLOT_FIELDS, 0, DENTRY_SIZE));
static_assert(SLOT_ATTR.offset == SHORT_ATTR.offset); // one byte distinguishes the two records

inline constexpr u32 MAX_LONG_SLOTS = 20; // of a name of 255 units
inline constexpr u32 SLOT_LAST = 0x40;    // ordinal bit of the slot furthest from the short entry

// Byte offset of unit 0 to 12 in a slot.
[[nodiscard]] constexpr u32 slot_unit_offset(u32 unit) {
    constexpr u32 UNIT_SIZE = 2;
    constexpr u32 FIRST = SLOT_UNITS_0_4.size / UNIT_SIZE;
    constexpr u32 SECOND = FIRST + SLOT_UNITS_5_10.size / UNIT_SIZE;
    if (unit < FIRST) {
        return SLOT_UNITS_0_4.offset + unit * UNIT_SIZE;
    }
    if (unit < SECOND) {
        return SLOT_UNITS_5_10.offset + (unit - FIRST) * UNIT_SIZE;
    }
    return SLOT_UNITS_11_12.offset + (unit - SECOND) * UNIT_SIZE;
}
static_assert(slot_unit_offset(4) == 9 && slot_unit_offset(5) == 14);
static_assert(slot_unit_offset(10) == 24 && slot_unit_offset(11) == 28);

// ---- pool file --------------------------------------------------------------------------------

// The header at the start of the pool file's cluster; the rest is zero. The ZUQ driver defines the
// meaning of its words.
inline constexpr field POOL_INDEX{"index of the entry in the root directory", 0, 4};
inline constexpr field POOL_ZERO{"0", 4, 4};
inline constexpr field POOL_FIRST{"cluster", 8, 4};
inline constexpr field POOL_SECOND{"cluster again", 12, 4};
inline constexpr field POOL_ONE{"1", 16, 4};
inline constexpr field POOL_FIRST_MARK{"all ones", 20, 4};
inline constexpr field POOL_SECOND_MARK{"all ones again", 24, 4};

inline constexpr field POOL_FIELDS[] = {
    POOL_INDEX, POOL_ZERO, POOL_FIRST, POOL_SECOND, POOL_ONE, POOL_FIRST_MARK, POOL_SECOND_MARK,
};
static_assert(covers(POOL_FIELDS, 0, 28));

} // namespace basis
} // namespace core
