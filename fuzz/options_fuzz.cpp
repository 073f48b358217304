// Any command line; formats the volume that it requests and checks the geometry.
//
// Bytes 0 to 7: the size of the target in sectors of 512 bytes, modulo 2^33. The rest: arguments,
// separated by NULs. -close_fd_mask=3 discards the output of the parser.

#include "fuzz/medium.h"
#include "tool/options.h"

#include <string>
#include <vector>

using namespace fat;
using namespace fuzzing;

namespace {

constexpr std::size_t MAX_ARGUMENTS = 20;
constexpr std::uint64_t MAX_TABLE_BYTES = 1 << 20; // skips volumes with larger FATs

std::vector<std::string> split(input *in) {
    std::vector<std::string> arguments = {"quorvel"};
    while (in->left() > 0 && arguments.size() < MAX_ARGUMENTS) {
        std::string argument;
        for (std::uint8_t byte = in->byte(); byte != 0; byte = in->byte()) {
            argument += static_cast<char>(byte);
        }
        arguments.push_back(argument);
    }
    return arguments;
}

int drop_sectors(void *, std::uint64_t, std::uint32_t count) {
    return static_cast<int>(count);
}

// The invariants of an accepted geometry.
void check_plan(const fat_format_param &param, u32 total, u32 fat_sectors, u32 clusters) {
    const bool is_fat16 = param.fat_size == 16;
    require(is_fat16 || param.fat_size == 32);
    require(clusters >= (is_fat16 ? 4085U : 65525U));
    require(clusters <= (is_fat16 ? 65524U : 0x0FFFFFF5U));
    const u64 entries = static_cast<u64>(fat_sectors) * param.sector_size / (is_fat16 ? 2 : 4);
    require(entries >= static_cast<u64>(clusters) + 2);
    const u64 root = div_ceil(param.root_entries * DENTRY_SIZE, param.sector_size);
    const u64 used = param.nr_rsvd_sec + static_cast<u64>(param.nr_fat) * fat_sectors +
                     (is_fat16 ? root : 0) + static_cast<u64>(clusters) * param.sec_per_clus;
    require(used <= total);
}

void format(fat_format_param *param, u64 bytes) {
    sv = static_cast<fat_super *>(std::calloc(1, sizeof(fat_super)));
    require(sv != nullptr);
    sv->fd = -1;
    sv->vol_size = bytes;
    read_sectors = drop_sectors;
    write_sectors = drop_sectors;
    fat_format_param plan = *param;
    u32 fat_sectors = 0;
    u32 clusters = 0;
    const u32 total = static_cast<u32>(bytes / param->sector_size);
    if (calc_fat_sectors(&plan, total, &fat_sectors, &clusters) == 0) {
        check_plan(plan, total, fat_sectors, clusters);
        if (static_cast<u64>(fat_sectors) * plan.sector_size <= MAX_TABLE_BYTES) {
            require(fat_format(param) > 0);
        }
    }
    require(fat_close_volume(0) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fat_set_diagnostics(nullptr);
    input in(data, size);
    u64 sectors = 0;
    for (int i = 0; i < 8; i++) {
        sectors = sectors << 8 | in.byte();
    }
    std::vector<std::string> arguments = split(&in);
    std::vector<char *> argv;
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    fat_format_param param = {};
    if (quorvel::parse_options(static_cast<int>(arguments.size()), argv.data(), &param) == 0 &&
        check_format_param(&param) == 0) {
        format(&param, (sectors & 0x1FFFFFFFF) * 512);
    }
    return 0;
}
