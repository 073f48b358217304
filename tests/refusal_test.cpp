// Refused calls: with no volume open, with one that is open and not mounted, with unexpected null
// pointers, with ids that name nothing, without memory. Result and text, word for word.

#include "tests/support/every_fault.h"
#include "tests/support/files.h"
#include "tests/support/mounted.h"
#include "tests/support/printout.h"
#include "tests/support/source_tree.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

using namespace fat;
using namespace testing_support;

namespace {

// ---- the table --------------------------------------------------------------------------------

// The arguments of the calls, all of them 0x55 unless a case sets them.
struct arguments {
    int bad;      // an id that names nothing
    int file = 1; // ids on the mounted volumes
    int dir = 2;
    const char *host;  // a file of the host
    const char *image; // a path without a file
    u8 *pbr, *fsinfo, *fat, *rdir;
    fat_format_param param;
    fat_name name;
    fat_path rec;
    fat_entry_info info;
    dentry_location location;
    oentry record;
    oentry *entry;
    char text[256];
    char path[4096];
    char *component;
    u8 bytes[4096];
    u8 *slot;
    u16 units[256];
    u32 value;
    int depth;
};

// When a row holds.
enum states : unsigned {
    NONE = 1,      // no volume is open
    UNMOUNTED = 2, // one is open, neither formatted nor mounted
    MOUNTED = 4,
    ANY = NONE | UNMOUNTED | MOUNTED,
    STORES = 8,       // the call leaves its error in errno, which is untouched otherwise
    FIRST = 16,       // nothing is allocated before
    CLEARS_NAME = 32, // the 256 bytes of a name are cleared; nothing else is changed
    CLEARS_PATH = 64, // and the 20 bytes of a path
    TOO_HIGH = 128,   // only ids of 512 and more
    IN_RANGE = 256,   // only ids below that
};

struct row {
    unsigned when;
    const char *text; // of the call
    std::int64_t (*call)(arguments &a);
    std::int64_t result;
    const char *messages; // "@": the name of the call and its line
    const char *out = ""; // on standard output
};

template <typename Call>
std::int64_t value_of(const Call &call) {
    if constexpr (std::is_void_v<decltype(call())>) {
        call();
        return 0;
    } else {
        return call();
    }
}

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): a row shows the call that it makes
#define CALL(...)                                                                                  \
#__VA_ARGS__, [](arguments &a) {                                                               \
        static_cast<void>(a);                                                                      \
        return value_of([&] { return __VA_ARGS__; });                                              \
    }

const char *const HERE = "@: Check here!\n\n";
const char *const NULL_ARG = "@: NULL arg!\n\n";
const char *const NULL_ARGS = "@: NULL args!\n\n";
const char *const NO_SECTOR = "get_phy_sector[N]: NULL pointer or invalid xxx!\n\n";
const char *const NO_PATH = "fat_path_lookup[N]: current directory isn't setup\n"
                            "fat_open[N]: failed to path_lookup()\n\n";
const char *const NO_PARENT = "fat_path_lookup[N]: current directory isn't setup\n"
                              "create_internal[N]: Check here!\n\n";
const char *const NO_NAME = "fat_get_name[N]: Check here!\n\n@: Check here!\n\n";
const char *const GET_HERE = "fat_get[N]: Check here!\n\n";
const char *const SET_HERE = "fat_set[N]: Check here!\n\n";
const char *const GET_FD = "fat_get[N]: Invalid fd!\n\n";
const char *const NULL_PATH = "@: NULL path!\n\n";

const std::vector<row> PUBLIC_CALLS = {
    // format
    {ANY, CALL(check_format_param(nullptr)), -1, HERE},
    {NONE, CALL(fat_format(&a.param)), -EINVAL, HERE},
    {NONE, CALL(fat_format(nullptr)), -EINVAL, HERE},
    {UNMOUNTED | MOUNTED, CALL(fat_format(nullptr)), -EINVAL,
     "make_tables[N]: NULL args!\n\n@: Failed to make table!\n\n"},
    // volume
    {ANY, CALL(fat_open_volume(nullptr, 0, 0)), -EINVAL, NULL_PATH},
    {ANY, CALL(fat_open_volume(nullptr, 0, 1)), -EINVAL, NULL_PATH},
    {NONE, CALL(fat_close_volume(0)), 0, "", "sv is null\n"},
    {NONE, CALL(fat_close_volume(1)), 0, "", "sv is null\n"},
    {NONE, CALL(fat_close_volume(2)), 0, "", "sv is null\n"},
    {UNMOUNTED, CALL(fat_close_volume(1)), -EINVAL, "fat_release_volume[N]: Check here!\n\n"},
    {ANY, CALL(create_fat_volume(nullptr, 512, 1)), -EFAULT, "@: failed to open file!\n\n"},
    {NONE, CALL(fat_build_super()), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_build_super()), -EINVAL,
     "get_pbr_sector[N]: Invalid PBR signature\n\n@: Cannot get PBR sector!\n\n"},
    {NONE, CALL(fat_print_pbr(stdout)), -EINVAL, HERE},
    {NONE, CALL(fat_print_pbr(nullptr)), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_print_pbr(stdout)), -EINVAL,
     "get_pbr_sector[N]: Invalid PBR signature\n\n@: unformated FAT volume\n"},
    {NONE, CALL(print_alloc_hint(stdout)), 33, "", "uninitialized volume information\n"},
    {UNMOUNTED, CALL(print_alloc_hint(stdout)), 30, "", "last allocated cluster: 0 / 2\n"},
    {ANY, CALL(print_alloc_hint(nullptr)), -EINVAL, HERE},
    {NONE, CALL(fat_delete_mbr(a.image)), -EINVAL, HERE},
    {NONE, CALL(fat_delete_mbr(nullptr)), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_delete_mbr(a.image)), -EINVAL,
     "get_pbr_sector[N]: Invalid PBR signature\n\n@: Failed to get PBR sector!\n\n"},
    {NONE, CALL(fat_set_encoding("UTF-8")), 0, ""},
    {NONE, CALL(fat_set_encoding("no such encoding")), 0, ""},
    {ANY, CALL(fat_set_encoding(nullptr)), 0, ""},
    {ANY, CALL(fat_set_cache(0)), 0, ""},
    {ANY, CALL(fat_set_diagnostics(nullptr)), 0, ""},
    // open entries
    {NONE, CALL(fat_open("FILE")), -EINVAL, HERE},
    {NONE, CALL(fat_open("")), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_open("FILE")), -EFAULT, NO_PATH},
    {ANY, CALL(fat_open(nullptr)), -EINVAL, NULL_PATH},
    {NONE | STORES, CALL(fat_open_dir("DIR")), -EINVAL, HERE},
    {NONE | UNMOUNTED | STORES, CALL(fat_open_dir(nullptr)), -EINVAL, HERE},
    {UNMOUNTED | STORES, CALL(fat_open_dir("DIR")), -EFAULT, NO_PATH},
    {NONE | STORES, CALL(fat_open_file("FILE")), -EINVAL, HERE},
    {UNMOUNTED | STORES, CALL(fat_open_file("FILE")), -EFAULT, NO_PATH},
    {ANY | STORES, CALL(fat_open_file(nullptr)), -EINVAL, NULL_PATH},
    {NONE, CALL(fat_close(1)), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_close(1)), 0, ""},
    {MOUNTED | TOO_HIGH, CALL(fat_close(a.bad)), -EINVAL, "@: Invalid id!(#)\n\n"},
    {MOUNTED | IN_RANGE, CALL(fat_close(a.bad)), 0, ""},
    {NONE, CALL(get_current()), -EINVAL, HERE},
    {UNMOUNTED, CALL(get_current()), -1, "@: NULL current directory!\n\n"},
    {NONE, CALL(fat_set_current(0)), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_set_current(0)), -EBADF, "@: Invalid did!\n\n"},
    {MOUNTED, CALL(fat_set_current(a.bad)), -EBADF, "@: Invalid did!\n\n"},
    // namespace
    {NONE, CALL(fat_create_file("a")), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_create_file("a")), -EFAULT, NO_PARENT},
    {UNMOUNTED | MOUNTED, CALL(fat_create_file(nullptr)), -EINVAL, NO_NAME},
    {NONE, CALL(fat_mkdir("a")), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_mkdir("a")), -EFAULT, NO_PARENT},
    {UNMOUNTED | MOUNTED, CALL(fat_mkdir(nullptr)), -EINVAL, NO_NAME},
    {NONE, CALL(fat_create_symlink("b", "a")), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_create_symlink("b", "a")), -EFAULT,
     "fat_path_lookup[N]: current directory isn't setup\ncreate_internal[N]: Check here!\n\n@: Check here!\n\n"},
    {ANY, CALL(fat_create_symlink(nullptr, "a")), -EINVAL, HERE},
    {ANY, CALL(fat_create_symlink(nullptr, nullptr)), -EINVAL, HERE},
    {MOUNTED, CALL(fat_create_symlink("b", nullptr)), -EINVAL, NO_NAME},
    {NONE, CALL(fat_unlink("FILE")), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_unlink("FILE")), -EFAULT,
     "fat_path_lookup[N]: current directory isn't setup\n@: Cannot lookup parent!\n\n"},
    {ANY, CALL(fat_unlink(nullptr)), -EINVAL, NULL_PATH},
    {NONE, CALL(fat_rm_entry("FILE")), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_rm_entry("FILE")), -EFAULT,
     "fat_path_lookup[N]: current directory isn't setup\n@: Cannot lookup parent!\n\n"},
    {ANY, CALL(fat_rm_entry(nullptr)), -EINVAL, NULL_PATH},
    // data
    {NONE, CALL(fat_write_file(1, "", 1)), -EINVAL, HERE},
    {UNMOUNTED | STORES, CALL(fat_write_file(1, "", 1)), -EINVAL,
     "not open file id 1\n@: Failed go get file entry!\n\n"},
    {ANY, CALL(fat_write_file(1, nullptr, 1)), -EINVAL, NULL_ARG},
    {ANY, CALL(fat_write_file(1, nullptr, 0)), -EINVAL, NULL_ARG},
    {ANY, CALL(fat_write_file(1, "", 0)), -EINVAL, NULL_ARG},
    {MOUNTED, CALL(fat_write_file(a.bad, nullptr, 1)), -EINVAL, NULL_ARG},
    {MOUNTED | STORES, CALL(fat_write_file(a.bad, "", 1)), -EINVAL,
     "not open file id #\n@: Failed go get file entry!\n\n"},
    {NONE, CALL(fat_read_file(1, a.bytes, 1)), -EINVAL, HERE},
    {UNMOUNTED | STORES, CALL(fat_read_file(1, a.bytes, 1)), -EINVAL,
     "not open file id 1\n@: Check here!\n\n"},
    {ANY, CALL(fat_read_file(1, nullptr, 1)), -EINVAL, "@: Invalid arg!\n\n"},
    {ANY, CALL(fat_read_file(1, a.bytes, 0)), -EINVAL, "@: Invalid arg!\n\n"},
    {MOUNTED, CALL(fat_read_file(a.bad, nullptr, 1)), -EINVAL, "@: Invalid arg!\n\n"},
    {MOUNTED | STORES, CALL(fat_read_file(a.bad, a.bytes, 1)), -EINVAL,
     "not open file id #\n@: Check here!\n\n"},
    {NONE, CALL(fat_lseek(1, 0, 0)), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_lseek(1, 0, 0)), -EINVAL, "@: Failed to get file_entry!\n\n"},
    {MOUNTED, CALL(fat_lseek(a.bad, 0, 0)), -EINVAL, "@: Failed to get file_entry!\n\n"},
    {NONE, CALL(fat_dump_entry(1, a.text)), -EINVAL, HERE},
    {NONE, CALL(fat_dump_entry(1, nullptr)), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_dump_entry(1, a.text)), -EBADF, "@: Failed to get file entry!\n\n"},
    {MOUNTED, CALL(fat_dump_entry(a.bad, a.text)), -EBADF, "@: Failed to get file entry!\n\n"},
    {MOUNTED, CALL(fat_dump_entry(0, a.text)), -EBADF, "@: Failed to get file entry!\n\n"},
    // attributes and metadata
    {NONE, CALL(fat_get(0, 1, &a.value)), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_get(0, 1, &a.value)), -EBADF, "@: Invalid fd!\n\n"},
    {MOUNTED, CALL(fat_get(0, 1, &a.value)), -EBADF, "@: Invalid fd!\n\n"},
    {MOUNTED, CALL(fat_get(a.file, 1, nullptr)), -EINVAL, HERE},
    {MOUNTED, CALL(fat_get(a.bad, 1, &a.value)), -EBADF, "@: Invalid fd!\n\n"},
    {MOUNTED, CALL(fat_get(a.bad, 4, &a.value)), -EBADF, "@: Invalid fd!\n\n"},
    {NONE, CALL(fat_set(0, 1, 1)), -EINVAL, HERE},
    {UNMOUNTED | MOUNTED, CALL(fat_set(0, 1, 1)), -EBADF, ""},
    {MOUNTED, CALL(fat_set(a.bad, 1, 1)), -EBADF, ""},
    {MOUNTED, CALL(fat_set(a.bad, 4, 1)), -EBADF, ""},
    {NONE, CALL(fat_get_cluster(0, &a.value)), -EINVAL, GET_HERE},
    {NONE, CALL(fat_get_sysid(0, &a.value)), -EINVAL, GET_HERE},
    {NONE, CALL(fat_get_cmsec(0, &a.value)), -EINVAL, GET_HERE},
    {UNMOUNTED, CALL(fat_get_cluster(0, &a.value)), -EBADF, GET_FD},
    {UNMOUNTED, CALL(fat_get_sysid(0, &a.value)), -EBADF, GET_FD},
    {UNMOUNTED, CALL(fat_get_cmsec(0, &a.value)), -EBADF, GET_FD},
    {MOUNTED, CALL(fat_get_cluster(a.bad, &a.value)), -EBADF, GET_FD},
    {MOUNTED, CALL(fat_get_sysid(a.bad, &a.value)), -EBADF, GET_FD},
    {MOUNTED, CALL(fat_get_cmsec(a.bad, &a.value)), -EBADF, GET_FD},
    {MOUNTED, CALL(fat_get_cluster(a.file, nullptr)), -EINVAL, GET_HERE},
    {MOUNTED, CALL(fat_get_sysid(a.file, nullptr)), -EINVAL, GET_HERE},
    {MOUNTED, CALL(fat_get_cmsec(a.file, nullptr)), -EINVAL, GET_HERE},
    {NONE, CALL(fat_set_cluster(0, 1)), -EINVAL, SET_HERE},
    {NONE, CALL(fat_set_sysid(0, 1)), -EINVAL, SET_HERE},
    {NONE, CALL(fat_set_cmsec(0, 1)), -EINVAL, SET_HERE},
    {UNMOUNTED | MOUNTED, CALL(fat_set_cluster(a.bad, 1)), -EBADF, ""},
    {UNMOUNTED | MOUNTED, CALL(fat_set_sysid(a.bad, 1)), -EBADF, ""},
    {UNMOUNTED | MOUNTED, CALL(fat_set_cmsec(a.bad, 1)), -EBADF, ""},
    {NONE, CALL(fat_update_entry(0)), -EINVAL, HERE},
    {UNMOUNTED | MOUNTED, CALL(fat_update_entry(0)), -EBADF, "@: Invalid arg!\n\n"},
    {MOUNTED, CALL(fat_update_entry(a.bad)), -EBADF, "@: Invalid arg!\n\n"},
    {NONE, CALL(fat_fstat(0, nullptr)), -EINVAL, HERE},
    {UNMOUNTED | MOUNTED, CALL(fat_fstat(0, stdout)), -EBADF, "@: Invalid fd!\n\n"},
    {MOUNTED, CALL(fat_fstat(a.bad, stdout)), -EBADF, "@: Invalid fd!\n\n"},
    {NONE, CALL(fat_list_chains(0, nullptr)), -EINVAL, HERE},
    {UNMOUNTED, CALL(fat_list_chains(0, stdout)), -EBADF, "@: Invalid fd!\n\n"},
    {MOUNTED, CALL(fat_list_chains(a.bad, stdout)), -EBADF, "@: Invalid fd!\n\n"},
    {NONE | UNMOUNTED, CALL(fat_find_pathname(2, a.path, 4096)), -EINVAL, HERE},
    {ANY, CALL(fat_find_pathname(2, nullptr, 4096)), -EINVAL, "@: Invalid arg!\n\n"},
    {NONE | UNMOUNTED, CALL(fat_getcwd(a.path, 4096)), -EINVAL, HERE},
    {NONE | UNMOUNTED, CALL(fat_getcwd(nullptr, 4096)), -EINVAL, HERE},
    {MOUNTED, CALL(fat_getcwd(nullptr, 4096)), -EINVAL, "@: Invalid arg!\n\n"},
    // programs' own listings: NULL pointers and ids are refused silently, and first
    {ANY, CALL(fat_next_entry(0, nullptr, &a.info)), -EINVAL, ""},
    {ANY, CALL(fat_next_entry(0, &a.value, nullptr)), -EINVAL, ""},
    {NONE | UNMOUNTED, CALL(fat_next_entry(0, &a.value, &a.info)), -EINVAL, HERE},
    {MOUNTED, CALL(fat_next_entry(a.bad, &a.value, &a.info)), -EBADF, ""},
    {ANY, CALL(fat_info_of(0, nullptr)), -EINVAL, ""},
    {NONE | UNMOUNTED, CALL(fat_info_of(0, &a.info)), -EINVAL, HERE},
    {MOUNTED, CALL(fat_info_of(a.bad, &a.info)), -EBADF, ""},
    // ZUQ
    {NONE | UNMOUNTED, CALL(zuq_make_pool()), -EINVAL, "@: root directory isn't open\n"},
    {NONE | UNMOUNTED, CALL(zuq_make_log()), -EINVAL, "@: Failed to get parent!\n\n"},
    {NONE, CALL(fat_find_pool(1)), -EINVAL, HERE},
    {UNMOUNTED | STORES, CALL(fat_find_pool(1)), -EFAULT,
     "fat_path_lookup[N]: current directory isn't setup\nfat_open[N]: failed to path_lookup()\n\n@: Failed to open file!\n\n"},
    {ANY, CALL(zuq_get_fast_open_path_of_file(a.file, nullptr, a.path)), -EINVAL, NULL_PATH},
    {ANY, CALL(zuq_get_fast_open_path_of_file(a.file, a.text, nullptr)), -EINVAL, NULL_PATH},
    {NONE, CALL(zuq_get_fast_open_path_of_file(0, a.text, a.path)), -EINVAL, HERE},
    {UNMOUNTED | MOUNTED | CLEARS_PATH, CALL(zuq_get_fast_open_path_of_file(0, a.text, a.path)),
     -EINVAL, "@: Failed to get file entry!\n\n"},
    {MOUNTED | CLEARS_PATH, CALL(zuq_get_fast_open_path_of_file(a.bad, a.text, a.path)), -EINVAL,
     "@: Failed to get file entry!\n\n"},
    {ANY, CALL(zuq_get_fast_open_path_of_dir(0, nullptr, a.path)), -EINVAL, NULL_ARG},
    {ANY, CALL(zuq_get_fast_open_path_of_dir(0, a.text, nullptr)), -EINVAL, NULL_ARG},
    {NONE | UNMOUNTED, CALL(zuq_get_fast_open_path_of_dir(0, a.text, a.path)), -EINVAL, HERE},
    {MOUNTED | CLEARS_NAME | CLEARS_PATH,
     CALL(zuq_get_fast_open_path_of_dir(a.bad, a.text, a.path)), -EINVAL,
     "@: Failed to get file entry!\n\n"},
    // import, listings, dumps
    {NONE, CALL(fat_copy_to_zuq(a.host, "NAME", 1)), -EINVAL, HERE},
    {NONE, CALL(fat_copy_to_zuq(a.image, "NAME", 1)), -EINVAL, HERE},
    {ANY, CALL(fat_copy_to_zuq(nullptr, "NAME", 1)), -EINVAL, "@: Cannot get file path!\n\n"},
    {UNMOUNTED, CALL(fat_copy_to_zuq(a.host, "NAME", 1)), -EFAULT,
     "fat_path_lookup[N]: current directory isn't setup\ncreate_internal[N]: Check here!\n\n@: cannot create ZUQ file NAME: Bad address\n"},
    {MOUNTED, CALL(fat_copy_to_zuq(a.host, nullptr, 1)), -EINVAL,
     "fat_get_name[N]: Check here!\n\nfat_create_file[N]: Check here!\n\n@: cannot create ZUQ file (null): Invalid argument\n"},
    {ANY, CALL(fat_copy_to_zuq(nullptr, nullptr, 0)), -EINVAL, "@: Cannot get file path!\n\n"},
    {ANY, CALL(fat_readdir(nullptr, stdout)), -EINVAL, HERE},
    {NONE | UNMOUNTED, CALL(fat_readdir(&a.record, nullptr)), -EINVAL, HERE},
    {NONE | UNMOUNTED, CALL(fat_list_dir("/", 1, stdout)), -EINVAL, HERE},
    {NONE | UNMOUNTED, CALL(fat_list_dir(nullptr, 0, nullptr)), -EINVAL, HERE},
    {NONE | UNMOUNTED, CALL(fat_list_clus(2, 1, nullptr)), -EINVAL, HERE},
    {ANY, CALL(fat_list_entries(nullptr, 1, stdout)), -EINVAL, HERE},
    {ANY, CALL(fat_list_entries(nullptr, 1, nullptr)), -EINVAL, HERE},
    {NONE | UNMOUNTED, CALL(fat_get_uname(0, 0, a.units)), -EINVAL, HERE},
    {ANY, CALL(fat_get_uname(a.file, 0, nullptr)), -EINVAL, HERE},
    {MOUNTED, CALL(fat_get_uname(a.bad, 0, a.units)), -EBADF, HERE},
    {NONE | UNMOUNTED, CALL(fat_dump_fat0(a.image)), -EINVAL, HERE},
    {MOUNTED, CALL(fat_dump_fat0(nullptr)), -EINVAL, HERE},
    {NONE | UNMOUNTED, CALL(fat_dump_clus(2, a.image)), -EINVAL, HERE},
    {MOUNTED, CALL(fat_dump_clus(2, nullptr)), -EINVAL, HERE},
    {NONE | UNMOUNTED, CALL(fat_dump("/", a.image)), -EINVAL, HERE},
    {MOUNTED, CALL(fat_dump("FILE", nullptr)), -EINVAL, HERE},
    {MOUNTED, CALL(fat_dump(nullptr, a.image)), -EINVAL, "fat_open[N]: NULL path!\n\n@: \n"},
    // printers
    {ANY, CALL(print_format_param(nullptr)), 0, HERE},
    {NONE, CALL(print_volume_summary(stdout)), 0, HERE},
    {NONE, CALL(print_volume_summary(nullptr)), 0, HERE},
    {UNMOUNTED, CALL(print_volume_summary(nullptr)), 0, HERE},
    {NONE, CALL(print_volume_info(0)), 0, HERE},
    {NONE, CALL(print_volume_info(3)), 0, ""},
    {UNMOUNTED, CALL(print_volume_info(3)), 0, ""},
    {ANY, CALL(print_oentry(0, nullptr)), 0, HERE},
    {ANY, CALL(print_oentry(3, nullptr)), 0, ""},
    {NONE | UNMOUNTED, CALL(test_oentry(0, 5)), 0, "",
     "Test open entry(5)\n -- not opened index\n"},
    {NONE | UNMOUNTED, CALL(test_oentry(3, 0)), 0, ""},
    {NONE | UNMOUNTED, CALL(print_fat_value(0, 5, 0)), 0,
     "fat_read_entry[N]: Invalid input: sector_size(0) n_clu(5)\n",
     "Can't read 5's value in FAT\n"},
    {NONE | UNMOUNTED, CALL(print_fat_value(3, 5, 0)), 0, ""},
    {ANY, CALL(print_uname(nullptr)), 0, "", "\n"},
};

// The calls that a program does not see: those that have null tests of their own.
const std::vector<row> INTERNAL_CALLS = {
    // volume, format
    {NONE, CALL(fat_release_volume(0)), 0, ""},
    {NONE, CALL(fat_release_volume(1)), -EINVAL, HERE},
    {ANY, CALL(file_read_sectors(nullptr, 0, 1)), -EINVAL, HERE},
    {NONE, CALL(file_read_sectors(a.bytes, 0, 1)), -EINVAL, HERE},
    {ANY, CALL(file_write_sectors(nullptr, 0, 1)), -EINVAL, HERE},
    {NONE, CALL(file_write_sectors(a.bytes, 0, 1)), -EINVAL, HERE},
    {MOUNTED, CALL(create_pbr(nullptr, &a.param)), -EINVAL, "@: NULL pbr_p!\n\n"},
    {ANY, CALL(set_fsinfo(nullptr)), -EINVAL, NULL_ARG},
    {ANY | FIRST, CALL(make_tables(nullptr, &a.pbr, &a.fsinfo, &a.fat, &a.rdir)), -EINVAL,
     NULL_ARGS},
    {ANY | FIRST, CALL(make_tables(&a.param, nullptr, &a.fsinfo, &a.fat, &a.rdir)), -EINVAL,
     NULL_ARGS},
    {ANY | FIRST, CALL(make_tables(&a.param, &a.pbr, nullptr, &a.fat, &a.rdir)), -EINVAL,
     NULL_ARGS},
    {ANY | FIRST, CALL(make_tables(&a.param, &a.pbr, &a.fsinfo, nullptr, &a.rdir)), -EINVAL,
     NULL_ARGS},
    {ANY | FIRST, CALL(make_tables(&a.param, &a.pbr, &a.fsinfo, &a.fat, nullptr)), -EINVAL,
     NULL_ARGS},
    {ANY | FIRST, CALL(write_tables_vol(nullptr, a.bytes, a.bytes, a.bytes, a.bytes)), -EINVAL,
     NULL_ARGS},
    {ANY | FIRST, CALL(write_tables_vol(&a.param, nullptr, a.bytes, a.bytes, a.bytes)), -EINVAL,
     NULL_ARGS},
    {ANY | FIRST, CALL(write_tables_vol(&a.param, a.bytes, nullptr, a.bytes, a.bytes)), -EINVAL,
     NULL_ARGS},
    {ANY | FIRST, CALL(write_tables_vol(&a.param, a.bytes, a.bytes, nullptr, a.bytes)), -EINVAL,
     NULL_ARGS},
    {ANY, CALL(create_fat(nullptr, &a.fat)), -EINVAL, NULL_ARG},
    {ANY, CALL(create_fat(a.bytes, nullptr)), -EINVAL, NULL_ARG},
    {ANY, CALL(create_root_dir(nullptr, &a.rdir)), -EINVAL, NULL_ARG},
    {ANY, CALL(create_root_dir(a.bytes, nullptr)), -EINVAL, NULL_ARG},
    // FAT entries
    {UNMOUNTED, CALL(fat_read_entry(5, &a.value)), -EINVAL,
     "@: Invalid input: sector_size(0) n_clu(5)\n"},
    {UNMOUNTED, CALL(fat_read_entry(0xFFFFFFFF, &a.value)), -EINVAL,
     "@: Invalid input: sector_size(0) n_clu(-1)\n"},
    {MOUNTED, CALL(fat_read_entry(9, nullptr)), -EINVAL,
     "@: Invalid input: sector_size(512) n_clu(9)\n"},
    {UNMOUNTED, CALL(fat_write_entry(5, 1)), -EINVAL, "@: Invalid: sector size is not set\n\n"},
    // directory entries
    {MOUNTED, CALL(get_phy_sector(0, 0, nullptr)), -EINVAL, NO_SECTOR},
    {MOUNTED, CALL(get_phy_sector(1, 0, nullptr)), -EINVAL, NO_SECTOR},
    {MOUNTED, CALL(get_phy_sector(5, 0, nullptr)), -EINVAL, NO_SECTOR},
    {MOUNTED, CALL(get_phy_sector(0xFFFFFFFF, 0, nullptr)), -EINVAL, NO_SECTOR},
    {MOUNTED, CALL(get_phy_sector_by_offset(5, 0, nullptr)), -EINVAL, NO_SECTOR},
    {MOUNTED, CALL(get_entry_sector(5, 0, nullptr)), -EINVAL, NO_SECTOR},
    {MOUNTED, CALL(get_dentry_with_clu(5, 1, &a.slot, nullptr, &a.location)), -EINVAL,
     "@: sector_buf is NULL\n"},
    {MOUNTED, CALL(get_dentry_with_clu(5, 1, nullptr, a.bytes, &a.location)), -EINVAL,
     "@: entry is NULL\n"},
    {MOUNTED, CALL(get_dentry_with_clu(5, 1, nullptr, nullptr, nullptr)), -EINVAL,
     "@: sector_buf is NULL\n"},
    {MOUNTED, CALL(fat_get_dentry(sv->root_dir, 0, &a.slot, nullptr, nullptr)), -EINVAL,
     "get_dentry_with_clu[N]: sector_buf is NULL\n"},
    {MOUNTED, CALL(fat_get_dentry(sv->root_dir, 0, nullptr, a.bytes, nullptr)), -EINVAL,
     "get_dentry_with_clu[N]: entry is NULL\n"},
    {MOUNTED, CALL(fat_get_dentry(sv->root_dir, 512, nullptr, nullptr, nullptr)), -EFAULT,
     "@: access the out of range in directory space\n"},
    {MOUNTED, CALL(fat_find_dentry(nullptr, a.text, nullptr)), -EINVAL, "@: Check Here!\n\n"},
    {MOUNTED, CALL(fat_find_dentry(sv->root_dir, nullptr, nullptr)), -EINVAL, "@: Check Here!\n\n"},
    {MOUNTED, CALL(find_dentry_with_clu(5, nullptr, nullptr)), -EINVAL,
     "get_fatnames[N]: Invalid arg!\n\n@: Failed to get fatnames!\n\n"},
    {MOUNTED, CALL(fat_find_empty_entries(nullptr, 1, &a.value)), -EINVAL, "@: Check Here!\n\n"},
    {MOUNTED, CALL(fat_find_empty_entries(sv->root_dir, 1, nullptr)), -EINVAL,
     "@: Check Here!\n\n"},
    {MOUNTED, CALL(build_entry(nullptr, 0, 1, DENTRY_FILE, &a.name, 0)), -EINVAL, HERE},
    {MOUNTED, CALL(build_entry(sv->root_dir, 0, 1, DENTRY_FILE, nullptr, 0)), -EINVAL, HERE},
    {MOUNTED, CALL(convert_cstring_to_uname(nullptr, a.units)), -EINVAL,
     "remove_trail_blanks[N]: NULL string!\n\n"},
    // paths
    {ANY, CALL(resolve_path(nullptr, &a.rec, &a.component, &a.depth)), -EINVAL, HERE},
    {ANY, CALL(resolve_path(a.text, nullptr, &a.component, &a.depth)), -EINVAL, HERE},
    {ANY, CALL(resolve_path(a.text, &a.rec, nullptr, &a.depth)), -EINVAL, HERE},
    {ANY, CALL(resolve_path(a.text, &a.rec, &a.component, nullptr)), -EINVAL, HERE},
    {UNMOUNTED | MOUNTED, CALL(fat_path_lookup(nullptr, &a.entry, &a.component)), -EINVAL, HERE},
    {UNMOUNTED | MOUNTED, CALL(fat_path_lookup(a.text, nullptr, &a.component)), -EINVAL, HERE},
    {MOUNTED, CALL(fat_path_lookup(a.text, &a.entry, nullptr)), -EINVAL,
     "resolve_path[N]: Check here!\n\n@: Check here!\n\n"},
    {UNMOUNTED, CALL(fat_path_lookup(a.text, &a.entry, nullptr)), -EFAULT,
     "@: current directory isn't setup\n"},
    {ANY, CALL(fat_get_name(nullptr, a.text)), -EINVAL, HERE},
    {MOUNTED, CALL(do_create(nullptr, a.text, DENTRY_FILE)), -EINVAL, "@: Invalid input\n"},
    {MOUNTED, CALL(do_create(sv->root_dir, nullptr, DENTRY_FILE)), -EINVAL, "@: Invalid input\n"},
    {MOUNTED, CALL(do_create(nullptr, nullptr, DENTRY_DIR)), -EINVAL, "@: Invalid input\n"},
    // open entries
    {ANY, CALL(free_oentry(nullptr)), 0, ""},
    {ANY, CALL(print_name_record(0, nullptr)), 0, "", "name isn't set\n"},
    {ANY, CALL(print_path_record(0, nullptr, &a.component, a.text, 1)), 0, "", "path isn't set\n"},
    {MOUNTED, CALL(find_entry_with_clu(nullptr, 5, nullptr, a.path)), -EINVAL, HERE},
    {MOUNTED, CALL(find_entry_with_clu(sv->root_dir, 5, nullptr, nullptr)), -EINVAL, HERE},
};

// Results if the first allocation of a call fails.
const std::vector<row> WITHOUT_MEMORY = {
    {UNMOUNTED | MOUNTED, CALL(fat_print_pbr(stdout)), -ENOMEM, "@: cannot allocate space\n"},
    {UNMOUNTED | MOUNTED, CALL(fat_delete_mbr(a.image)), -ENOMEM, "@: cannot allocate space\n"},
    {MOUNTED | STORES, CALL(fat_write_file(a.file, "", 1)), -ENOMEM,
     "do_write_file[N]: cannot allocate memory\n"
     "write_file_internal[N]: Failed to write file!\n\n@: Failed go get file entry!\n\n"},
    {MOUNTED | STORES, CALL(fat_read_file(a.file, a.bytes, 1)), -ENOMEM,
     "do_read_file[N]: cannot allocate memory\n@: Check here!\n\n"},
    {MOUNTED, CALL(fat_update_entry(a.file)), -ENOMEM, HERE},
    {MOUNTED, CALL(fat_list_chains(a.file, stdout)), -ENOMEM,
     "fat_get_chains[N]: Memory allocation error!\n\n@: failed to get chain count!\n\n"},
    {MOUNTED, CALL(zuq_make_pool()), -ENOMEM, "@: Failed to allocate memory!\n\n"},
    {MOUNTED, CALL(fat_readdir(oentry_table[a.dir], stdout)), -ENOMEM, HERE},
    {MOUNTED, CALL(fat_list_clus(30, 1, stdout)), -ENOMEM, "@: Failed to allocate memory!\n\n"},
    {ANY, CALL(fat_list_entries(a.host, 1, stdout)), -ENOMEM, ""},
    {MOUNTED, CALL(fat_get_uname(a.dir, 0, a.units)), -ENOMEM, "@: failed to allocate memory!\n\n"},
    {MOUNTED, CALL(fat_read_entry(5, &a.value)), -ENOMEM, "@: cannot allocate FAT\n\n"},
    {MOUNTED, CALL(fat_write_entry(5, 1)), -ENOMEM, "@: cannot allocate buffer\n\n"},
    {MOUNTED, CALL(fat_free_clus(5, 9)), -ENOMEM,
     "fat_read_entry[N]: cannot allocate FAT\n\n@: Invalid cluster value!\n\n"},
    {MOUNTED, CALL(clear_cluster(30)), -ENOMEM, "@: Failed to allocate memory!\n\n"},
    {MOUNTED, CALL(get_phy_sector(5, sv->sec_per_clus, &a.value)), -EINVAL,
     "fat_read_entry[N]: cannot allocate FAT\n\n@: invalid value -12\n"},
    {MOUNTED, CALL(fat_find_empty_entries(sv->root_dir, 1, &a.value)), -ENOMEM,
     "@: Check Here!\n\n"},
    {MOUNTED, CALL(add_numeric_tail(sv->root_dir, a.bytes)), -ENOMEM,
     "@: Failed to allocate memory!\n\n"},
    {ANY, CALL(resolve_path(a.text, &a.rec, &a.component, &a.depth)), -ENOMEM, HERE},
    {MOUNTED, CALL(is_empty_dir(oentry_table[a.dir])), -ENOMEM, HERE},
    {MOUNTED, CALL(remove_entry(sv->root_dir, 0)), -ENOMEM, HERE},
    {MOUNTED, CALL(get_name_of_entry(6, 0, a.text, 256)), -ENOMEM, HERE},
    {MOUNTED, CALL(find_entry_with_clu(sv->root_dir, 5, nullptr, a.path)), -ENOMEM, HERE},
    {MOUNTED, CALL(get_next_cluster(5, 1, &a.value)), -1,
     "fat_read_entry[N]: cannot allocate FAT\n\n@: Check here!\n\n"},
};

// ---- a case -----------------------------------------------------------------------------------

struct volume_state {
    states state;
    std::uint32_t fat_type; // of a mounted volume
};

std::ostream &operator<<(std::ostream &out, const volume_state &s) {
    return out << s.state << "/" << s.fat_type;
}

class Refusals : public testing::TestWithParam<volume_state> {
protected:
    void expect_all(const std::vector<row> &rows, bool with_memory = true) {
        for (const row &r : rows) {
            if ((r.when & GetParam().state) == 0) {
                continue;
            }
            SCOPED_TRACE(r.text);
            const bool takes_a_bad_id = std::strstr(r.text, "a.bad") != nullptr;
            for (const int bad : {3, 511, 512, 513, 1 << 20, INT_MAX, -1, -511, INT_MIN}) {
                if ((r.when & (bad < 512 ? TOO_HIGH : IN_RANGE)) == 0) {
                    expect(r, bad, with_memory);
                }
                if (!takes_a_bad_id) {
                    break;
                }
            }
        }
    }

private:
    void expect(const row &r, int bad, bool with_memory) {
        const medium on_it(GetParam());
        const std::pair transfers(read_sectors, write_sectors);
        arguments given;
        std::memset(static_cast<void *>(&given), 0x55, sizeof given);
        given.bad = bad;
        given.text[8] = '\0';
        given.file = 1;
        given.dir = 2;
        given.host = host_.c_str();
        given.image = image_.c_str();
        arguments a;
        std::memcpy(static_cast<void *>(&a), &given, sizeof a);
        std::int64_t result = 0;
        int error = 0;
        int left_allocated = 0;
        std::uint64_t peak = 0;
        const printout printed = to_output([&] {
            const allocation_meter meter;
            errno = UNTOUCHED_ERRNO;
            std::optional<failing_allocation> fault;
            if (!with_memory) {
                fault.emplace(0);
            }
            result = r.call(a);
            error = errno;
            EXPECT_TRUE(with_memory || fault->struck());
            left_allocated = meter.live_blocks();
            peak = meter.peak_bytes();
        });
        EXPECT_EQ(result, r.result) << bad;
        EXPECT_EQ(printed.messages, said_by(r, bad));
        EXPECT_EQ(printed.out, r.out);
        if (with_memory) {
            EXPECT_EQ(error, (r.when & STORES) != 0 ? -result : UNTOUCHED_ERRNO);
        }
        EXPECT_EQ(left_allocated, 0);
        EXPECT_TRUE((r.when & FIRST) == 0 || peak == 0);
        EXPECT_FALSE(std::filesystem::exists(image_));
        std::memset(given.text, 0, (r.when & CLEARS_NAME) != 0 ? 256 : 0);
        std::memset(given.path, 0, (r.when & CLEARS_PATH) != 0 ? 20 : 0);
        EXPECT_EQ(std::memcmp(&a, &given, sizeof a), 0) << "something is written";
        EXPECT_EQ(std::pair(read_sectors, write_sectors), transfers);
        on_it.expect_untouched();
    }
    static std::string said_by(const row &r, int bad) {
        const std::string call(r.text, std::strcspn(r.text, "("));
        std::string result = r.messages;
        for (std::size_t at = result.find('@'); at != std::string::npos; at = result.find('@')) {
            result.replace(at, 1, call + "[N]");
        }
        const std::size_t at = result.find('#');
        return at == std::string::npos ? result : result.replace(at, 1, std::to_string(bad));
    }

    // The volume, if any, and the parts of it that must not change.
    class medium {
    public:
        explicit medium(const volume_state &wanted) {
            if (wanted.state == UNMOUNTED) {
                blank_ = std::make_unique<ram_disk>(1 << 20);
                disk_ = blank_.get();
            } else if (wanted.state == MOUNTED) {
                volume_ = std::make_unique<mounted>(volume_shape{.fat_type = wanted.fat_type});
                disk_ = &volume_->disk;
                volume_->open_new("FILE       ", {5}, 100);
                volume_->open_new("DIR        ", {6}, 0, DIRECTORY);
                disk_->remember();
            }
            if (sv != nullptr) {
                record_ = *sv;
            }
        }
        void expect_untouched() const {
            EXPECT_EQ(open_descriptors(), descriptors_);
            ASSERT_EQ(sv != nullptr, disk_ != nullptr);
            EXPECT_TRUE(sv == nullptr || std::memcmp(sv, &record_, sizeof record_) == 0);
            std::size_t open = 0;
            for (const oentry *entry : oentry_table) {
                open += entry != nullptr ? 1 : 0;
            }
            EXPECT_EQ(open, volume_ != nullptr ? 3U : 0U);
            if (disk_ != nullptr) {
                EXPECT_EQ(disk_->written_blocks(), std::vector<std::uint64_t>());
                disk_->use();
            }
        }

    private:
        std::unique_ptr<ram_disk> blank_;
        std::unique_ptr<mounted> volume_;
        ram_disk *disk_ = nullptr;
        fat_super record_ = {};
        const std::set<int> descriptors_ = open_descriptors();
    };

    scratch_directory scratch_;
    const std::string host_ = scratch_.file_with("host", some_bytes(10));
    const std::string image_ = scratch_.file("image");
};

INSTANTIATE_TEST_SUITE_P(Volumes, Refusals,
                         testing::Values(volume_state{NONE, 0}, volume_state{UNMOUNTED, 0},
                                         volume_state{MOUNTED, 16}, volume_state{MOUNTED, 32}),
                         [](const testing::TestParamInfo<volume_state> &of) {
                             return of.param.state == NONE ? std::string("NoVolume")
                                    : of.param.state == UNMOUNTED
                                        ? std::string("NotMounted")
                                        : "MountedFat" + std::to_string(of.param.fat_type);
                         });

} // namespace

TEST_P(Refusals, OfPublicCalls) {
    expect_all(PUBLIC_CALLS);
}

TEST_P(Refusals, OfInternalCalls) {
    expect_all(INTERNAL_CALLS);
}

TEST_P(Refusals, OfCallsWithoutMemory) {
    expect_all(WITHOUT_MEMORY, false);
}

// ---- the table against the header -------------------------------------------------------------

namespace {

std::vector<std::string> split(const std::string &list) {
    std::vector<std::string> result;
    std::istringstream stream(list);
    for (std::string part; std::getline(stream, part, ',');) {
        result.push_back(part);
    }
    return result;
}

// The parameters of each function in the public header, by its name.
std::map<std::string, std::vector<std::string>> prototypes() {
    const std::string header = without_comments(source_text("fat/fat.h"));
    const std::regex prototype(R"(\n(?:int|int64_t|void)\s+(\w+)\(([^()]*)\);)");
    std::map<std::string, std::vector<std::string>> result;
    for (std::sregex_iterator at(header.begin(), header.end(), prototype), end; at != end; ++at) {
        result[(*at)[1]] = split((*at)[2]);
    }
    return result;
}

// Whether a row makes that call, with that argument at that position.
bool has_row(unsigned state, const std::string &name, std::size_t position = 0,
             const std::string &argument = "") {
    for (const row &r : PUBLIC_CALLS) {
        const std::string text = r.text;
        if ((r.when & state) == 0 || text.substr(0, text.find('(')) != name) {
            continue;
        }
        const std::vector<std::string> given =
            split(text.substr(text.find('(') + 1, text.size() - text.find('(') - 2));
        if (argument.empty() || (position < given.size() && given[position].ends_with(argument))) {
            return true;
        }
    }
    return false;
}

} // namespace

TEST(RefusalTable, HasRowsForEveryCallOfThePublicHeader) {
    const auto calls = prototypes();
    EXPECT_GT(calls.size(), 60U);
    for (const auto &[name, parameters] : calls) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(has_row(NONE, name)) << "no row without a volume";
        EXPECT_TRUE(has_row(UNMOUNTED, name)) << "no row with a volume that is not mounted";
        for (std::size_t i = 0; i < parameters.size(); i++) {
            if (parameters[i].find('*') != std::string::npos) {
                EXPECT_TRUE(has_row(ANY, name, i, "nullptr"))
                    << "no row for a null " << parameters[i];
            }
            if (parameters[i].ends_with("int id") || parameters[i].ends_with("int did")) {
                EXPECT_TRUE(has_row(MOUNTED, name, i, "a.bad")) << "no row for a bad id";
            }
        }
    }
}

TEST(RefusalTable, HasNoRowForAnythingElse) {
    const auto calls = prototypes();
    for (const row &r : PUBLIC_CALLS) {
        EXPECT_TRUE(calls.contains(std::string(r.text, std::strcspn(r.text, "(")))) << r.text;
    }
}
