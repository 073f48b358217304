// Any bytes as a volume: mounted, walked, read, written to, closed.

#include "fuzz/medium.h"

using namespace fat;
using namespace fuzzing;

namespace {

constexpr u32 MOST_ENTRIES = 64;  // of one directory that are looked at
constexpr int MOST_OPENED = 200;  // in one run
constexpr u32 MOST_BYTES = 20000; // of one file that are read

FILE *nowhere() {
    static FILE *stream = std::fopen("/dev/null", "w");
    return stream;
}

// The volume record of a target that has been opened and not mounted yet.
void open_target(input *in) {
    sv = static_cast<fat_super *>(std::calloc(1, sizeof(fat_super)));
    require(sv != nullptr);
    sv->fd = -1;
    sv->vol_size = MEDIUM_BYTES;
    sv->long_name = in->byte() & 1;
    medium.fill(0);
    std::memcpy(medium.data(), in->rest(), std::min(in->left(), MEDIUM_BYTES));
    read_sectors = read_medium;
    write_sectors = write_medium;
    fat_set_diagnostics(nullptr);
}

void use_file(int id) {
    static u8 data[MOST_BYTES];
    (void)fat_read_file(id, data, sizeof data);
    (void)fat_lseek(id, -3, 2);
    (void)fat_read_file(id, data, 10);
    char name[12];
    (void)fat_dump_entry(id, name);
    (void)fat_write_file(id, "written", 7);
}

// Opens the entries of a directory one after another.
void use_entries(oentry *dir, int *opened) {
    for (u32 index = 0; index < MOST_ENTRIES && *opened < MOST_OPENED; index++) {
        const int id = fat_entry_open(dir, index);
        if (id <= 0) {
            continue;
        }
        (*opened)++;
        if (is_live_directory(entry_of(id)->dentry)) {
            char missing[] = "Missing name.txt";
            (void)fat_find_dentry(entry_of(id), missing, nullptr);
            (void)is_empty_dir(entry_of(id));
        } else {
            use_file(id);
        }
        require(fat_close(id) == 0);
    }
}

// Goes into the directories of the root and works there.
void use_directories() {
    oentry *root = entry_of(0);
    for (u32 index = 0; index < MOST_ENTRIES; index++) {
        const int id = fat_entry_open(root, index);
        if (id <= 0) {
            continue;
        }
        if (fat_set_current(id) == id) {
            int opened = 0;
            use_entries(entry_of(id), &opened);
            (void)fat_mkdir("A new directory");
            (void)fat_create_symlink("target", "A new link");
            (void)fat_unlink("A new link");
            (void)fat_set_current(0);
        }
        (void)fat_close(id);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    input in(data, size);
    open_target(&in);
    if (fat_print_pbr(nowhere()) == 0 && fat_build_super() == 0) {
        int opened = 0;
        use_entries(entry_of(0), &opened);
        (void)fat_create_file("A new file");
        use_directories();
    }
    require(fat_close_volume(0) == 0);
    for (const oentry *entry : oentry_table) {
        require(entry == nullptr);
    }
    return 0;
}
