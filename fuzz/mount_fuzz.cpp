// Any bytes as a volume: mounts it, walks it, reads and writes its files, closes it.

#include "fuzz/medium.h"

using namespace fat;
using namespace fuzzing;

namespace {

constexpr u32 MAX_ENTRIES = 64;  // read in each directory
constexpr int MAX_OPENED = 200;  // in one run
constexpr u32 MAX_BYTES = 20000; // read from each file

FILE *null_stream() {
    static FILE *stream = std::fopen("/dev/null", "w");
    return stream;
}

// The volume record of an open target that is not mounted yet.
void open_target(input *in) {
    sv = static_cast<fat_super *>(std::calloc(1, sizeof(fat_super)));
    require(sv != nullptr);
    sv->fd = -1;
    sv->vol_size = MEDIUM_BYTES;
    sv->long_name = in->byte() & 1;
    medium.fill(0);
    std::memcpy(medium.data(), in->rest(), std::min(in->left(), MEDIUM_BYTES));
    read_sectors = read_image;
    write_sectors = write_image;
    fat_set_diagnostics(nullptr);
}

void use_file(int id) {
    static u8 data[MAX_BYTES];
    (void)fat_read_file(id, data, sizeof data);
    (void)fat_lseek(id, -3, 2);
    (void)fat_read_file(id, data, 10);
    char name[12];
    (void)fat_dump_entry(id, name);
    (void)fat_write_file(id, "written", 7);
}

// Opens the entries of a directory one after another.
void use_entries(oentry *dir, int *opened) {
    for (u32 index = 0; index < MAX_ENTRIES && *opened < MAX_OPENED; index++) {
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

// Makes each directory of the root the current one and changes it.
void use_directories() {
    oentry *root = entry_of(0);
    for (u32 index = 0; index < MAX_ENTRIES; index++) {
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
    if (fat_print_pbr(null_stream()) == 0 && fat_build_super() == 0) {
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
