// A sequence of public calls, decoded from the input, on a volume that the rest of the input fills.
//
// Byte 0: the shape of the volume. With bit 7 all of its bytes come from the input; without it the
// sectors before the data area are clean and the input begins there, so that calls get further.
// Byte 1: the number of bytes to decode to calls.

#include "fuzz/medium.h"

#include <array>

using namespace fat;
using namespace fuzzing;

namespace {

constexpr u32 MAX_CALLS = 40;
constexpr u32 MAX_STEPS = 50; // of a listing

FILE *null_stream() {
    static FILE *stream = std::fopen("/dev/null", "w");
    return stream;
}

void prepare_volume(u8 shape, input *in) {
    sv = static_cast<fat_super *>(std::calloc(1, sizeof(fat_super)));
    require(sv != nullptr);
    open_medium(sv, shape, in);
    if ((shape & 0x80) == 0) {
        const u32 end = sv->data_start * sv->sector_size;
        std::memmove(medium.data() + end, medium.data(), MEDIUM_BYTES - end);
        std::memset(medium.data(), 0, end);
        // The root directory of a FAT32 volume has one cluster.
        (void)fat_write_entry(FIRST_DATA_CLUSTER, FAT_END_MARK);
        // No more clusters than the single FAT sector has entries.
        const u32 entries = sv->sector_size / (sv->fat_type / 8) - FIRST_DATA_CLUSTER;
        sv->num_clusters = std::min(sv->num_clusters, entries);
    }
}

// ---- arguments ----

// Short names, long names and paths of a fixed set, so that calls meet existing names; or any
// bytes.
struct name_source {
    std::array<char, 300> text = {};

    const char *next(input *in) {
        static constexpr const char *NAMES[] = {
            "A",
            "readme.txt",
            "Mixed Case.txt",
            "A much longer name than eight characters",
            "A much longer name than eight letters",
            "sub",
            "Directory with a long name",
            "./A",
            "/A",
            "sub/A",
            "..",
            ".",
            "/",
            "ZUQ_POOL.SY$",
            "",
        };
        const u8 which = in->byte();
        if (which < std::size(NAMES)) {
            return NAMES[which];
        }
        text = in->text<300>();
        return text.data();
    }
};

// An id, mostly in the range of the open ones.
int next_id(input *in) {
    const u8 byte = in->byte();
    return byte == 0xFF ? 512 : byte == 0xFE ? -1 : byte % 16;
}

u32 next_number(input *in) {
    const u32 low = in->byte();
    return low < 0xF0 ? low : low << 24 | static_cast<u32>(in->byte()) << 8 | in->byte();
}

// ---- calls ----

void write_some(input *in) {
    static u8 data[70000];
    const int id = next_id(in);
    const u32 count = std::min<u32>(next_number(in) * 97, sizeof data);
    (void)fat_write_file(id, data, count);
}

void read_some(input *in) {
    static u8 data[70000];
    const int id = next_id(in);
    (void)fat_lseek(id, static_cast<s32>(next_number(in)), in->byte() % 4);
    const u32 count = std::min<u32>(next_number(in) * 97, sizeof data);
    (void)fat_read_file(id, data, count);
}

void list_entries(input *in) {
    const int id = next_id(in);
    fat_entry_info info;
    u32 index = next_number(in);
    for (u32 step = 0; step < MAX_STEPS && fat_next_entry(id, &index, &info) == 1; step++) {
        require(info.name[0] != '\0' && info.short_name[0] != '\0');
        require(std::memchr(info.name, 0, sizeof info.name) != nullptr);
    }
}

void list_fast_paths(input *in) {
    const int id = next_id(in);
    char name[256];
    char path[20];
    for (u32 step = 0; step < MAX_STEPS && zuq_get_fast_open_path_of_dir(id, name, path) == 1;
         step++) {
        require(std::strlen(path) == 19);
    }
}

void use_items(input *in) {
    const int id = next_id(in);
    const int type = in->byte() % 5;
    u32 value = 0;
    (void)fat_get(id, type, &value);
    (void)fat_set(id, type, next_number(in));
    if ((in->byte() & 1) != 0) {
        (void)fat_update_entry(id);
    }
}

void describe(input *in) {
    const int id = next_id(in);
    fat_entry_info info;
    (void)fat_info_of(id, &info);
    (void)fat_fstat(id, null_stream());
    char name[12];
    (void)fat_dump_entry(id, name);
    char path[256];
    char letters[20];
    (void)zuq_get_fast_open_path_of_file(id, path, letters);
    u16 units[256];
    (void)fat_get_uname(id, next_number(in), units);
}

void find_paths(input *in) {
    char path[4096];
    (void)fat_find_pathname(next_number(in), path, sizeof path);
    (void)fat_getcwd(path, sizeof path);
}

void list_directory(input *in) {
    name_source name;
    const u8 mode = in->byte() % 3;
    const u8 what = in->byte() % 3;
    if (what == 0) {
        (void)fat_list_dir(nullptr, mode, null_stream());
    } else if (what == 1) {
        (void)fat_list_dir(name.next(in), mode, null_stream());
    } else {
        (void)fat_list_clus(next_number(in), mode, null_stream());
    }
}

// The first three print to standard output, which is closed.
void print_all(input *in) {
    const int id = next_id(in);
    print_volume_info(0);
    test_oentry(0, static_cast<u32>(id));
    print_fat_value(0, next_number(in), 0);
    (void)fat_list_chains(id, null_stream());
    print_volume_summary(null_stream());
    (void)print_alloc_hint(null_stream());
}

void dump(input *in) {
    name_source name;
    const u8 what = in->byte() % 3;
    if (what == 0) {
        (void)fat_dump_fat0("/dev/null");
    } else if (what == 1) {
        (void)fat_dump_clus(next_number(in), "/dev/null");
    } else {
        (void)fat_dump(name.next(in), "/dev/null");
    }
}

void call(input *in) {
    name_source name;
    switch (in->byte() % 23) {
    case 0:
        (void)fat_open(name.next(in));
        break;
    case 1:
        (void)fat_open_dir(name.next(in));
        break;
    case 2:
        (void)fat_open_file(name.next(in));
        break;
    case 3:
        (void)fat_create_file(name.next(in));
        break;
    case 4:
        (void)fat_mkdir(name.next(in));
        break;
    case 5: {
        name_source target;
        const char *link = name.next(in);
        (void)fat_create_symlink(target.next(in), link);
        break;
    }
    case 6:
        (void)fat_unlink(name.next(in));
        break;
    case 7:
        (void)fat_rm_entry(name.next(in));
        break;
    case 8:
        (void)fat_close(next_id(in));
        break;
    case 9:
        (void)fat_set_current(next_id(in));
        break;
    case 10:
        write_some(in);
        break;
    case 11:
        read_some(in);
        break;
    case 12:
        list_entries(in);
        break;
    case 13:
        list_fast_paths(in);
        break;
    case 14:
        use_items(in);
        break;
    case 15:
        describe(in);
        break;
    case 16:
        find_paths(in);
        break;
    case 17:
        list_directory(in);
        break;
    case 18:
        (void)((in->byte() & 1) != 0 ? zuq_make_pool() : zuq_make_log());
        break;
    case 19:
        (void)fat_find_pool(next_number(in));
        break;
    case 20:
        print_all(in);
        break;
    case 21:
        dump(in);
        break;
    default:
        (void)fat_set_encoding((in->byte() & 1) != 0 ? "UTF-8" : "ISO-8859-1");
        break;
    }
}

// The invariants between calls: a slot is marked if and only if it holds a record, and the current
// directory is one of the records.
void check_table() {
    bool has_current = sv->current_dir == nullptr;
    for (u32 id = 0; id < std::size(oentry_table); id++) {
        const bool marked = (oentry_map[id / 32] >> id % 32 & 1) != 0;
        require(marked == (oentry_table[id] != nullptr));
        has_current = has_current || oentry_table[id] == sv->current_dir;
    }
    require(has_current);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    input in(data, size);
    const std::uint8_t shape = in.byte();
    const std::size_t calls = std::min<std::size_t>(in.byte(), in.left());
    input decoded(in.rest(), calls);
    input volume(in.rest() + calls, in.left() - calls);
    prepare_volume(shape, &volume);
    if (open_root_directory() == 0) {
        for (u32 i = 0; i < MAX_CALLS && decoded.left() > 0; i++) {
            call(&decoded);
            check_table();
        }
    }
    require(fat_close_volume(0) == 0);
    for (const oentry *entry : oentry_table) {
        require(entry == nullptr);
    }
    return 0;
}
