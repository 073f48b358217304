// Printers of the library's records.

#include "fat/internal.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <iterator>

using namespace fat;

namespace {

constexpr char RULE[] = "----------------------------------------";
constexpr int SILENT_LEVEL = 3; // printers with a level print nothing at this level and above

// Names in directory entries and name records are 11 bytes without a terminator.
constexpr int NAME_BYTES = static_cast<int>(DOS_NAME_SIZE);

void print_current_dir() {
    if (sv->current_dir == nullptr) {
        std::printf("\tCurrent dir:\t\t%8s\n", "non set");
    } else if (sv->current_dir->dentry == nullptr) {
        std::printf("\tCurrent dir:\t\t%8s\n", "rdir");
    } else {
        std::printf("\tCurrent dir:\t\t%8.*s\n", NAME_BYTES,
                    reinterpret_cast<const char *>(sv->current_dir->dentry + SHORT_NAME.offset));
    }
}

// ---- text ----

constexpr u32 HIGH_SURROGATE = 0xD800;
constexpr u32 LOW_SURROGATE = 0xDC00;
constexpr u32 SURROGATES_END = 0xE000;

bool is_high_surrogate(u32 unit) {
    return unit >= HIGH_SURROGATE && unit < LOW_SURROGATE;
}

bool is_low_surrogate(u32 unit) {
    return unit >= LOW_SURROGATE && unit < SURROGATES_END;
}

// A decoded character and the number of its units.
struct decoded {
    wchar_t character;
    u32 units;
};

// Decodes the character that begins at units[0]; `left` units are available. Each half of a broken
// pair counts as a character, which no encoding can represent.
decoded decode_character(const u16 *units, u32 left) {
    constexpr u32 FIRST_PAIR = 0x10000;
    if (!is_high_surrogate(units[0]) || left < 2 || !is_low_surrogate(units[1])) {
        return {static_cast<wchar_t>(units[0]), 1};
    }
    const u32 high = units[0] - HIGH_SURROGATE;
    const u32 low = units[1] - LOW_SURROGATE;
    return {static_cast<wchar_t>(FIRST_PAIR + (high << 10 | low)), 2};
}

// Prints bytes: wide characters would make the stream wide-oriented permanently.
void print_character(wchar_t character, std::mbstate_t *state) {
    char bytes[MB_LEN_MAX];
    const std::mbstate_t before = *state;
    const std::size_t length = std::wcrtomb(bytes, character, state);
    if (length == static_cast<std::size_t>(-1)) {
        *state = before;
        std::putchar('?');
        return;
    }
    std::fwrite(bytes, 1, length, stdout);
}

} // namespace

// ---- the command line's printers --------------------------------------------------------------

void print_format_param(const fat_format_param *param) {
    if (param == nullptr) {
        REPORT("Check here!\n\n");
        return;
    }
    std::puts("=== User input for Format ===");
    std::printf(" fat_size:       %u\n", param->fat_size);
    std::printf(" root entries:   %u\n", param->root_entries);
    std::printf(" nr_rsvd_sec:    %u\n", param->nr_rsvd_sec);
    std::printf(" sectors/cluster:%u\n", param->sec_per_clus);
    std::printf(" sector size:    %u\n", param->sector_size);
    std::printf(" infile:         %s\n", text_or_null(param->infile));
    std::printf(" outfile:        %s\n", text_or_null(param->outfile));
    std::printf(" page size:      %u\n", param->page_size);
    std::printf(" nr_fat:         %u\n", param->nr_fat);
    std::printf(" sector_of_bkup: %u\n", param->sector_of_bkup);
    std::printf(" volume id:      %u\n", param->volume_id);
    std::printf(" volume_label:   %s\n", param->volume_label);
    std::puts("=============================");
}

void print_volume_summary(FILE *stream) {
    if (sv == nullptr || stream == nullptr) {
        REPORT("Check here!\n\n");
        return;
    }
    std::fprintf(stream, "- Volume size:\t\t%llu Bytes\n",
                 static_cast<unsigned long long>(sv->vol_size));
    std::fprintf(stream, "- FAT type:\t\t%u bits\n", sv->fat_type);
    std::fprintf(stream, "- FAT size:\t\t%u sectors\n", sv->fat_size);
    std::fprintf(stream, "- Total sectors:\t%u sectors\n", sv->total_sectors);
    std::fprintf(stream, "- Cluster counts:\t%u \n", sv->num_clusters);
    std::fprintf(stream, "- Sector size:\t\t%u Bytes\n", sv->sector_size);
    std::fprintf(stream, "- Sectors/cluster:\t%u \n", sv->sec_per_clus);
    std::fprintf(stream, "- FAT start:\t\t%uth sector\n", sv->fat_start);
    std::fprintf(stream, "- RDIR start:\t\t%uth sector\n", sv->rdir_start);
    std::fprintf(stream, "- DATA start:\t\t%uth sector\n", sv->data_start);
    std::fprintf(stream, "- PBR start:\t\t%uth sector\n", sv->pbr_start);
}

// ---- printers with a level --------------------------------------------------------------------

void print_volume_info(int level) {
    if (level >= SILENT_LEVEL) {
        return;
    }
    if (sv == nullptr) {
        REPORT("Check here!\n\n");
        return;
    }
    std::puts("Volume Information");
    std::puts(RULE);
    std::printf("\tVolume fd:\t\t%d\n", sv->fd);
    std::printf("\tVolume size:\t\t%llu Bytes\n", static_cast<unsigned long long>(sv->vol_size));
    std::printf("\tFAT type:\t\t%u bits\n", sv->fat_type);
    std::printf("\tFAT size:\t\t%u sectors\n", sv->fat_size);
    std::printf("\tTotal sectors:\t\t%u sectors\n", sv->total_sectors);
    std::printf("\tCluster counts:\t\t%u \n", sv->num_clusters);
    std::printf("\tSector size:\t\t%u Bytes\n", sv->sector_size);
    std::printf("\tSectors/cluster:\t%u \n", sv->sec_per_clus);
    std::printf("\tFAT start:\t\t%uth sector\n", sv->fat_start);
    std::printf("\tRDIR start:\t\t%uth sector\n", sv->rdir_start);
    std::printf("\tDATA start:\t\t%uth sector\n", sv->data_start);
    std::printf("\tLast allocated cluster#:\t%u\n", sv->last_alloc_clus);
    std::printf("\tLong name support:\t\t%s\n", sv->long_name == 1 ? "yes" : "no");
    std::printf("\tRoot dir:\t\t%8s\n", sv->root_dir != nullptr ? "set" : "non set");
    print_current_dir();
    std::puts(RULE);
}

void print_oentry(int level, const oentry *entry) {
    if (level >= SILENT_LEVEL) {
        return;
    }
    if (entry == nullptr) {
        REPORT("Check here!\n\n");
        return;
    }
    std::puts("Opened entry");
    std::printf("\tstart:\t%d\n", static_cast<int>(entry->start));
    std::printf("\tlast:\t%d\n", static_cast<int>(entry->last));
    std::printf("\tallocated:\t%d bytes\n", static_cast<int>(entry->allocated));
    std::printf("\tlocation:\tsector(%d), offset(%d)\n", static_cast<int>(entry->dentry_sector),
                static_cast<int>(entry->dentry_offset));
    if (entry->dentry != nullptr) {
        print_short_entry(stdout, entry->dentry);
    } else {
        std::puts(RULE);
    }
}

void test_oentry(int level, uint32_t index) {
    if (level >= SILENT_LEVEL) {
        return;
    }
    std::printf("Test open entry(%d)\n", static_cast<int>(index));
    if (index >= MAX_ENTRIES) {
        std::puts(" -- over limit");
        return;
    }
    const oentry *entry = oentry_table[index];
    if (entry == nullptr) {
        std::puts(" -- not opened index");
    } else if (entry->dentry != nullptr) {
        std::puts(is_live_directory(entry->dentry) ? " -- index for directory"
                                                   : " -- index for file");
        print_oentry(level, entry);
    } else {
        std::puts(index == 0 ? " -- root directory" : " -- wrong mapping of root directory index");
    }
}

void print_fat_value(int level, uint32_t cluster, int) {
    if (level >= SILENT_LEVEL) {
        return;
    }
    u32 value = 0;
    if (fat_read_entry(cluster, &value) == 0) {
        std::printf("FAT[%d] = %u\n", static_cast<int>(cluster), value);
    } else {
        std::printf("Can't read %d's value in FAT\n", static_cast<int>(cluster));
    }
}

void print_uname(const uint16_t *uname) {
    std::mbstate_t state = {};
    for (u32 i = 0; uname != nullptr && i < LONG_NAME_UNITS && uname[i] != 0;) {
        const decoded next = decode_character(uname + i, LONG_NAME_UNITS - i);
        print_character(next.character, &state);
        i += next.units;
    }
    std::putchar('\n');
}

namespace fat {

void print_name_record(int level, const fat_name *name) {
    if (level >= SILENT_LEVEL) {
        return;
    }
    if (name == nullptr) {
        std::puts("name isn't set");
        return;
    }
    std::puts("Name set");
    std::printf("\tcstring:: %s\n", name->cstring != nullptr ? name->cstring : "NULL");
    if (name->dosName != nullptr) {
        std::printf("\tdosName:: %8.*s\n", NAME_BYTES,
                    reinterpret_cast<const char *>(name->dosName));
    } else {
        std::puts("\tdosName:: NULL");
    }
    std::fputs("\tunicode:: ", stdout);
    if (name->unicode != nullptr) {
        print_uname(name->unicode);
    } else {
        std::puts("NULL");
    }
}

void print_path_record(int level, const char *path, char **components, const char *name,
                       int depth) {
    if (level >= SILENT_LEVEL) {
        return;
    }
    if (path == nullptr) {
        std::puts("path isn't set");
        return;
    }
    std::puts("Resolved path");
    std::printf("path::%s\n", path);
    std::printf("=> (depth:%d)\n", depth);
    for (int i = 0; components != nullptr && i < depth; i++) {
        const int length = static_cast<int>(std::strcspn(components[i], "/"));
        std::printf("::%.*s\n", length, components[i]); // a component ends at the next slash
    }
    if (name != nullptr) {
        std::printf("=>name::%s\n", name);
    }
}

} // namespace fat
