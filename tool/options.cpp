// Option parsing and the mount check.

#include "tool/options.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <span>

#include <mntent.h>
#include <unistd.h>

namespace quorvel {

std::uint32_t verbose_count = 0;

namespace {

constexpr char VERSION[] = "1.2.3";
constexpr char OPTION_LETTERS[] = "s:S:F:p:l:v";
constexpr char MOUNT_TABLE[] = "/etc/mtab";

// A numeric option: its letter, the accepted values and the destination in the request.
struct numeric_option {
    int letter;
    std::span<const long> accepted;
    std::uint32_t fat_format_param::*destination;
};

constexpr long SECTORS_PER_CLUSTER[] = {1, 2, 4, 8, 16, 32, 64};
constexpr long SECTOR_SIZES[] = {512, 1024, 2048, 4096};
constexpr long FAT_SIZES[] = {16, 32};
constexpr long PAGE_SIZES[] = {0, 2048, 4096, 8192};

constexpr numeric_option NUMERIC_OPTIONS[] = {
    {'s', SECTORS_PER_CLUSTER, &fat_format_param::sec_per_clus},
    {'S', SECTOR_SIZES, &fat_format_param::sector_size},
    {'F', FAT_SIZES, &fat_format_param::fat_size},
    {'p', PAGE_SIZES, &fat_format_param::page_size},
};

const numeric_option *find_numeric_option(int letter) {
    for (const numeric_option &option : NUMERIC_OPTIONS) {
        if (option.letter == letter) {
            return &option;
        }
    }
    return nullptr;
}

void print_refusal(int letter, const char *argument) {
    switch (letter) {
    case 's':
        std::fprintf(stderr, "Invalid number of sectors per cluster: %s\n", argument);
        break;
    case 'S':
        std::fprintf(stderr, "Invalid number of sector size: %s\n", argument);
        break;
    case 'F':
        std::fprintf(stderr, "Invalid FAT type: %s\n", argument);
        break;
    default:
        std::fprintf(stderr, "Invalid page size: %s\n", argument);
        break;
    }
}

// Compares the long that strtol returns: a cut to 32 bits could turn a larger number into an
// accepted one.
bool accept_number(const numeric_option &option, const char *argument, fat_format_param *param) {
    char *end = nullptr;
    const long number = std::strtol(argument, &end, 10);
    if (*end == '\0') {
        for (const long accepted : option.accepted) {
            if (number == accepted) {
                param->*option.destination = static_cast<std::uint32_t>(number);
                return true;
            }
        }
    }
    print_refusal(option.letter, argument);
    return false;
}

// Pads the label with spaces, or cuts it, to 11 bytes.
void set_label(const char *argument, fat_format_param *param) {
    std::snprintf(param->volume_label, sizeof param->volume_label, "%-11.11s", argument);
}

bool apply_option(int letter, fat_format_param *param) {
    if (letter == 'l') {
        set_label(optarg, param);
        return true;
    }
    if (letter == 'v') {
        verbose_count++;
        return true;
    }
    const numeric_option *option = find_numeric_option(letter);
    if (option == nullptr || !accept_number(*option, optarg, param)) {
        return false;
    }
    if (letter == 'p') {
        fat_page_size_given = 1;
    }
    return true;
}

// Compares device names as text.
bool is_mounted(const char *target) {
    FILE *table = setmntent(MOUNT_TABLE, "r");
    if (table == nullptr) {
        return false;
    }
    bool found = false;
    for (const mntent *entry = getmntent(table); entry != nullptr && !found;
         entry = getmntent(table)) {
        found = std::strcmp(target, entry->mnt_fsname) == 0;
    }
    endmntent(table);
    return found;
}

} // namespace

void print_usage() {
    std::printf("Usage:\n"
                "quorvel [-s sectors-per-cluster] [-S logical-sector-size] [-F fat-size] \n"
                "\t[-p page-size-to-align] [-v]\n"
                "        OUT_FILE/FLASH_BLK_DEV\n"
                "\n"
                "\t-s sectors-per-cluster\n"
                "\t\tMust be a power of 2, i.e. 1, 2, 4, ... 64.\n"
                "\t\tThe default is 2\n"
                "\t-S logical-sector-size\n"
                "\t\tMust be a power of 2, greater than or equal to 512,\n"
                "\t\ti.e. 512, 1024, 2048, 4096\n"
                "\t\tThe default is 512\n"
                "\t-F fat-size\n"
                "\t\tThe type of file allocation table used(16, 32 bit)\n"
                "\t\tIf nothing is specified, fat-size is automatically selected.\n"
                "\t-p page-size-to-align\n"
                "\t\tEach area is aligned to NAND page size\n"
                "\t\ti.e. 0(no alignment), 2048, 4096\n"
                "\t\tThe default is 4096, zero means disable to the alignment\n"
                "\t-l volume-label\n"
                "\t\tMust be under 11 characters\n"
                "\t-v verbose option\n"
                "\tversion %s\n",
                VERSION);
}

int parse_options(int argc, char **argv, fat_format_param *param) {
    opterr = 0; // an unknown option prints the usage text only
    optind = 0; // glibc: restarts parsing
    verbose_count = 0;
    fat_page_size_given = 0;
    for (int letter = getopt(argc, argv, OPTION_LETTERS); letter != -1;
         letter = getopt(argc, argv, OPTION_LETTERS)) {
        if (!apply_option(letter, param)) {
            print_usage();
            return -1;
        }
    }
    if (optind + 1 != argc) {
        print_usage();
        return -1;
    }
    param->outfile = argv[optind];
    if (is_mounted(param->outfile)) {
        std::fprintf(stderr, "%s is already mounted\n", param->outfile);
        return -1;
    }
    return 0;
}

} // namespace quorvel
