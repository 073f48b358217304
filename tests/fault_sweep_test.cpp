// Every public call, and a whole run of the program, with the k-th transfer, system call or
// allocation failing, for every k.
//
// The tests of the calls check the results and what a failed call undoes. These tests check that
// nothing breaks: the table of open entries stays sound, other files and directories do not change,
// and the volume works again after the fault.

#include "fat/internal.h"
#include "tests/support/capture.h"
#include "tests/support/every_fault.h"
#include "tests/support/files.h"
#include "tests/support/mounted.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

int quorvel_main(int argc, char **argv); // main() of the program

using namespace testing_support;

namespace {

FILE *nowhere() {
    static FILE *stream = std::fopen("/dev/null", "w");
    return stream;
}

// No call makes all kinds of steps; together they do. The sum over all tests is printed with the
// last one.
void expect_faults(int faults) {
    static long sum = 0;
    sum += faults;
    EXPECT_GT(faults, 0);
    std::printf("%ld faults injected so far\n", sum);
}

// ---- calls on a mounted volume ----------------------------------------------------------------

const bytes KEPT = some_bytes(5000, 7);

void write_whole(const char *name, const bytes &content) {
    const int id = fat_create_file(name);
    if (id <= 0 || fat_write_file(id, content.data(), static_cast<std::uint32_t>(content.size())) !=
                       static_cast<int>(content.size())) {
        throw std::runtime_error("the sweep cannot be prepared");
    }
    fat_close(id);
}

// The volume that each call begins with.
class prepared : public mounted {
public:
    explicit prepared(std::uint32_t fat_type) : mounted(shape_of(fat_type)) {
        sv->long_name = 1;
        write_whole("Safe in the root.dat", KEPT);
        write_whole("victim.txt", some_bytes(3000));
        write_whole("A victim with a long name.txt", some_bytes(3000));
        if (zuq_make_pool() != 0 || fat_create_symlink("victim.txt", "a link") != 0) {
            throw std::runtime_error("the sweep cannot be prepared");
        }
        directory_id = fat_mkdir("A directory");
        fat_set_current(directory_id);
        write_whole("Safe in the directory.dat", KEPT);
        fat_set_current(0);
        fat_close(fat_mkdir("empty"));
        file_id = fat_open_file("victim.txt");
        image = scratch.file("image");
        host_file = scratch.file_with("host", some_bytes(20'000));
    }
    int directory_id = -1;
    int file_id = -1;
    std::string image;
    std::string host_file;

private:
    static volume_shape shape_of(std::uint32_t fat_type) {
        volume_shape shape;
        shape.fat_type = fat_type;
        shape.sec_per_clus = 8; // no directory grows: a failed write could cut it short
        return shape;
    }
    scratch_directory scratch;
};

struct public_call {
    const char *name;
    std::function<int(prepared &)> call;
};

int list_all(int id) {
    fat_entry_info info;
    std::uint32_t index = 0;
    int result = 1;
    while (result == 1) {
        result = fat_next_entry(id, &index, &info);
    }
    return result;
}

const std::vector<public_call> CALLS = {
    {"fat_build_super", [](prepared &) { return fat_build_super(); }},
    {"fat_print_pbr", [](prepared &) { return fat_print_pbr(nowhere()); }},
    {"print_alloc_hint", [](prepared &) { return print_alloc_hint(nowhere()); }},
    {"fat_delete_mbr", [](prepared &p) { return fat_delete_mbr(p.image.c_str()); }},
    {"fat_set_encoding", [](prepared &) { return fat_set_encoding("UTF-8"); }},
    {"fat_open", [](prepared &) { return fat_open("A victim with a long name.txt"); }},
    {"fat_open_dir", [](prepared &) { return fat_open_dir("A directory"); }},
    {"fat_open_dir of the root", [](prepared &) { return fat_open_dir(nullptr); }},
    {"fat_open_file", [](prepared &) { return fat_open_file("victim.txt"); }},
    {"fat_open at dots", [](prepared &) { return fat_open("./victim.txt"); }},
    {"fat_close", [](prepared &p) { return fat_close(p.file_id); }},
    {"get_current", [](prepared &) { return get_current(); }},
    {"fat_set_current", [](prepared &p) { return fat_set_current(p.directory_id); }},
    {"fat_create_file", [](prepared &) { return fat_create_file("A new file, new name.txt"); }},
    {"fat_mkdir", [](prepared &) { return fat_mkdir("A new directory, new name"); }},
    {"fat_create_symlink", [](prepared &) { return fat_create_symlink("target", "A new link"); }},
    {"fat_unlink", [](prepared &) { return fat_unlink("A victim with a long name.txt"); }},
    {"fat_unlink of a directory", [](prepared &) { return fat_unlink("empty"); }},
    {"fat_rm_entry", [](prepared &) { return fat_rm_entry("A victim with a long name.txt"); }},
    {"fat_write_file",
     [](prepared &p) {
         const bytes data = some_bytes(20'000);
         return fat_write_file(p.file_id, data.data(), static_cast<std::uint32_t>(data.size()));
     }},
    {"fat_read_file",
     [](prepared &p) {
         bytes data(3000);
         return fat_read_file(p.file_id, data.data(), 3000);
     }},
    {"fat_lseek", [](prepared &p) { return static_cast<int>(fat_lseek(p.file_id, 5, 0)); }},
    {"fat_dump_entry",
     [](prepared &p) {
         char name[12];
         return fat_dump_entry(p.file_id, name);
     }},
    {"fat_getcwd",
     [](prepared &p) {
         char path[4096];
         fat_set_current(p.directory_id);
         const int result = fat_getcwd(path, sizeof path);
         fat_set_current(0);
         return result;
     }},
    {"fat_find_pathname",
     [](prepared &p) {
         char path[4096];
         return fat_find_pathname(mounted::record(p.file_id).last, path, sizeof path);
     }},
    {"fat_set and fat_update_entry",
     [](prepared &p) {
         fat_set_cmsec(p.file_id, 0);
         return fat_update_entry(p.file_id);
     }},
    {"fat_get",
     [](prepared &p) {
         std::uint32_t value = 0;
         return fat_get_cluster(p.file_id, &value);
     }},
    {"fat_fstat", [](prepared &p) { return fat_fstat(p.file_id, nowhere()); }},
    {"fat_list_chains", [](prepared &p) { return fat_list_chains(p.file_id, nowhere()); }},
    {"fat_next_entry", [](prepared &) { return list_all(0); }},
    {"fat_info_of",
     [](prepared &p) {
         fat_entry_info info;
         return fat_info_of(p.file_id, &info);
     }},
    {"zuq_make_pool", [](prepared &) { return zuq_make_pool(); }},
    {"zuq_make_log", [](prepared &) { return zuq_make_log(); }},
    {"fat_find_pool", [](prepared &) { return fat_find_pool(3); }},
    {"zuq_get_fast_open_path_of_file",
     [](prepared &p) {
         char name[256];
         char path[20];
         return zuq_get_fast_open_path_of_file(p.file_id, name, path);
     }},
    {"zuq_get_fast_open_path_of_dir",
     [](prepared &) {
         char name[256];
         char path[20];
         int result = 1;
         for (int i = 0; result == 1 && i < 20; i++) {
             result = zuq_get_fast_open_path_of_dir(0, name, path);
         }
         return result;
     }},
    {"fat_copy_to_zuq",
     [](prepared &p) { return fat_copy_to_zuq(p.host_file.c_str(), "imported file", 0); }},
    {"fat_readdir", [](prepared &) { return fat_readdir(oentry_table[0], nowhere()); }},
    {"fat_list_dir", [](prepared &) { return fat_list_dir("A directory", 2, nowhere()); }},
    {"fat_list_dir of the root", [](prepared &) { return fat_list_dir(nullptr, 2, nowhere()); }},
    {"fat_list_clus",
     [](prepared &p) {
         return fat_list_clus(mounted::record(p.directory_id).start, 1, nowhere());
     }},
    {"fat_list_entries",
     [](prepared &p) { return fat_list_entries(p.host_file.c_str(), 1, nowhere()); }},
    {"fat_get_uname",
     [](prepared &) {
         std::uint16_t units[256];
         return fat_get_uname(0, 1, units);
     }},
    {"fat_dump_fat0", [](prepared &p) { return fat_dump_fat0(p.image.c_str()); }},
    {"fat_dump_clus",
     [](prepared &p) { return fat_dump_clus(mounted::record(p.file_id).start, p.image.c_str()); }},
    {"fat_dump", [](prepared &p) { return fat_dump("A directory", p.image.c_str()); }},
};

void expect_sound_table() {
    bool has_current = sv->current_dir == nullptr;
    for (std::uint32_t id = 0; id < std::size(oentry_table); id++) {
        const bool marked = (oentry_map[id / 32] >> id % 32 & 1) != 0;
        ASSERT_EQ(marked, oentry_table[id] != nullptr) << id;
        has_current = has_current || oentry_table[id] == sv->current_dir;
    }
    EXPECT_TRUE(has_current);
    EXPECT_EQ(sv->root_dir, oentry_table[0]);
}

bytes contents_of(const char *name) {
    bytes result(KEPT.size() + 1);
    const int id = fat_open_file(name);
    const int count = fat_read_file(id, result.data(), static_cast<std::uint32_t>(result.size()));
    fat_close(id);
    result.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return result;
}

// The volume as a further mount finds it. A failed write may have left a gap in a directory, after
// which new names are not found.
void expect_working_volume(bool may_have_gaps) {
    for (int id = 1; id < static_cast<int>(std::size(oentry_table)); id++) {
        while (oentry_table[id] != nullptr) {
            fat_close(id);
        }
    }
    ASSERT_EQ(fat_build_super(), 0);
    EXPECT_EQ(list_all(0), 0);
    EXPECT_TRUE(contents_of("Safe in the root.dat") == KEPT);
    const int directory = fat_open_dir("A directory");
    ASSERT_GT(directory, 0);
    ASSERT_EQ(fat_set_current(directory), directory);
    EXPECT_TRUE(contents_of("Safe in the directory.dat") == KEPT);
    ASSERT_EQ(fat_set_current(0), 0);
    write_whole("Written afterwards.dat", KEPT);
    EXPECT_TRUE(may_have_gaps || contents_of("Written afterwards.dat") == KEPT);
}

class FaultSweep : public testing::TestWithParam<faulty_volume> {};

} // namespace

TEST_P(FaultSweep, EveryPublicCallOnAMountedVolume) {
    const fault_kind kind = std::get<0>(GetParam()).kind;
    fat_set_diagnostics(nullptr);
    int faults = 0;
    for (const public_call &tested : CALLS) {
        SCOPED_TRACE(tested.name);
        faults += at_any_fault(kind, [&](fault_step &step) {
            prepared volume(std::get<1>(GetParam()));
            const int open_before = mounted::open_ids();
            step.run_keeping([&] { return tested.call(volume); });
            // Each id that it opened has a record and a copy of the directory entry.
            EXPECT_EQ(step.left_allocated(), 2 * std::max(0, mounted::open_ids() - open_before));
            if (step.struck()) {
                expect_sound_table();
                expect_working_volume(kind.what == fault::write);
            }
        });
    }
    fat_set_diagnostics(stderr);
    expect_faults(faults);
}

// In the quick stage each fault strikes on a volume of one width, in turn.
std::vector<faulty_volume> swept_faults() {
    std::vector<faulty_volume> swept;
    const std::vector<faulty_volume> all = all_faults();
    for (std::size_t i = 0; i < all.size(); i++) {
        if (QUORVEL_FULL || i % 4 == 0 || i % 4 == 3) {
            swept.push_back(all[i]);
        }
    }
    return swept;
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultSweep, testing::ValuesIn(swept_faults()), fault_name);

// ---- calls on files of the host ---------------------------------------------------------------

namespace {

const std::vector<fault_kind> HOST_FAULTS = {
    every_call(call::open, EACCES),       every_call(call::read, EIO),
    every_call(call::write, ENOSPC),      every_call(call::lseek, EINVAL),
    every_call(call::fstat, EIO),         every_call(call::lstat, EACCES),
    every_call(call::truncate, EACCES),   every_call(call::fsync, EIO),
    every_call(call::iconv_open, EINVAL), EVERY_ALLOCATION,
};

struct host_call {
    const char *name;
    std::function<int(const std::string &image, const std::string &other)> call;
};

fat_format_param small_request() {
    fat_format_param param = {};
    param.sector_size = 512;
    param.sec_per_clus = 1;
    return param;
}

int format_file(const std::string &image) {
    fat_format_param param = small_request();
    if (check_format_param(&param) < 0 || fat_open_volume(image.c_str(), 1, 0) < 0) {
        return -1;
    }
    return fat_format(&param);
}

int run_program(const std::string &image) {
    std::vector<std::string> arguments = {"quorvel", "-S", "512", "-v", image};
    std::vector<char *> argv;
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    return quorvel_main(static_cast<int>(arguments.size()), argv.data()) & 0xFF; // as exit() does
}

const std::vector<host_call> HOST_CALLS = {
    {"the program",
     [](const std::string &image, const std::string &) { return run_program(image); }},
    {"fat_open_volume and fat_format",
     [](const std::string &image, const std::string &) { return format_file(image); }},
    {"mounting, importing, closing",
     [](const std::string &image, const std::string &other) {
         if (format_file(image) < 0 || fat_build_super() < 0) {
             return -1;
         }
         (void)fat_set_encoding("UTF-8");
         (void)fat_copy_to_zuq(other.c_str(), "imported file", 0);
         (void)fat_dump_fat0((image + ".fat").c_str());
         return fat_close_volume(1);
     }},
    {"create_fat_volume",
     [](const std::string &image, const std::string &) {
         const int fd = create_fat_volume((image + ".new").c_str(), 4096, 10);
         if (fd >= 0) {
             close(fd);
         }
         return fd;
     }},
    {"fat_list_entries",
     [](const std::string &, const std::string &other) {
         return fat_list_entries(other.c_str(), 2, nowhere());
     }},
};

// If the program reports success, it has made a volume.
void expect_volume_on(const std::string &image) {
    ASSERT_GE(fat_open_volume(image.c_str(), 1, 0), 0);
    EXPECT_EQ(fat_build_super(), 0);
    fat_close_volume(0);
}

// Closes the ids that a call with a fault left open.
void close_volume() {
    if (sv != nullptr) {
        fat_close_volume(0);
    }
}

void call_with_fault(const host_call &tested, fault_step *step) {
    const scratch_directory scratch;
    const std::string image = scratch.sparse_file("disk.img", 4 << 20);
    const std::string other = scratch.file_with("other", some_bytes(9000));
    int result = 0;
    {
        const standard_output printed;
        result = step->run_keeping([&] { return tested.call(image, other); });
        std::fflush(stdout);
    }
    close_volume();
    if (std::string(tested.name) == "the program") {
        EXPECT_TRUE(result == 0 || result == 255) << result;
        if (result == 0) {
            expect_volume_on(image);
        }
    }
    for (const oentry *entry : oentry_table) {
        EXPECT_EQ(entry, nullptr);
    }
}

} // namespace

TEST(HostFaultSweep, EveryCallOnFilesOfTheHost) {
    fat_set_diagnostics(nullptr);
    for (const fault_kind &kind : HOST_FAULTS) {
        int faults = 0;
        for (const host_call &tested : HOST_CALLS) {
            SCOPED_TRACE(tested.name);
            faults += at_any_fault(kind, [&](fault_step &step) { call_with_fault(tested, &step); });
        }
        expect_faults(faults);
    }
    fat_set_diagnostics(stderr);
}
