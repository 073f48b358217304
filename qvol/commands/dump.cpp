// qvol dump: writes raw sectors of the volume into a host file.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/file_data.h"
#include "qvol/host.h"
#include "qvol/sectors.h"

#include <charconv>

#include <fmt/core.h>

namespace qvol {

namespace {

struct dump_options {
    std::string what;
    std::vector<std::string> arguments; // [N or PATH] OUT
    bool is_forced = false;
};

constexpr u32 SECTORS_AT_ONCE = 256;

void dump_sectors(const volume &vol, u64 first, u64 count, const write_piece &put) {
    while (count > 0) {
        const u32 part = static_cast<u32>(std::min<u64>(count, SECTORS_AT_ONCE));
        put(read_extent(vol.on(), first, part));
        first += part;
        count -= part;
    }
}

// The reserved area and the first FAT in use.
write_content fat_content(const volume &vol) {
    return [&vol](const write_piece &put) {
        dump_sectors(vol, 0, vol.boot().reserved_sectors, put);
        dump_sectors(vol, vol.on().at.fat_start, vol.on().at.fat_sectors, put);
    };
}

write_content cluster_content(volume &vol, const std::string &number) {
    u32 cluster = 0;
    const char *end = number.data() + number.size();
    const auto [stop, failure] = std::from_chars(number.data(), end, cluster);
    if (failure != std::errc() || stop != end) {
        throw usage_error(fmt::format("\"{}\" is not a cluster number", shown_bytes(number)));
    }
    (void)vol.fat().get(cluster); // throws if the cluster does not exist
    return [&vol, cluster](const write_piece &put) {
        dump_sectors(vol, vol.on().sector_of(cluster), vol.on().at.sectors_per_cluster, put);
    };
}

// The bytes of a file or link, or the clusters of a directory.
write_content entry_content(volume &vol, const std::string &path) {
    const resolved_path where = resolve(vol, path);
    if (where.is_root() && where.parent.start() == directory::ROOT) {
        return [&vol](const write_piece &put) {
            dump_sectors(vol, vol.on().at.root_start,
                         vol.on().at.data_start - vol.on().at.root_start, put);
        };
    }
    const u32 start = where.is_root() ? where.parent.start() : where.found->start();
    const std::vector<u32> clusters = where.is_directory()
                                          ? vol.fat().chain(start)
                                          : clusters_of_file(vol.fat(), start, where.found->size());
    const u64 size = where.is_directory() ? u64{clusters.size()} * vol.on().cluster_bytes()
                                          : where.found->size();
    return [&vol, clusters, size](const write_piece &put) {
        read_data(vol.on(), clusters, size, put);
    };
}

write_content content_of(volume &vol, const dump_options &options) {
    if (options.what == "fat") {
        return fat_content(vol);
    }
    return options.what == "cluster" ? cluster_content(vol, options.arguments.front())
                                     : entry_content(vol, options.arguments.front());
}

void check_arguments(const dump_options &options) {
    const std::size_t wanted = options.what == "fat" ? 1 : 2;
    if (options.arguments.size() != wanted) {
        throw usage_error("dump takes \"fat OUT\", \"cluster N OUT\" or \"file PATH OUT\"");
    }
}

int run_dump(const common_options &common, const dump_options &options) {
    check_arguments(options);
    return with_volume(common, access::READ, [&](volume &vol) {
        u64 bytes = 0;
        const write_content content = content_of(vol, options);
        make_host_file(options.arguments.back(), options.is_forced, std::nullopt,
                       [&](const write_piece &put) {
                           content([&](std::span<const u8> piece) {
                               put(piece);
                               bytes += piece.size();
                           });
                       });
        common.out.remark(
            fmt::format("{}: {}", shown_bytes(options.arguments.back()), shown_size(bytes)));
        if (common.out.is_json) {
            common.out.document({{"file", options.arguments.back()}, {"bytes", bytes}});
        }
        return EXIT_DONE;
    });
}

} // namespace

void add_dump(command_line *commands) {
    const auto [dump, options] =
        commands->add({"dump", "Write raw parts of the volume into a file",
                       "  qvol dump flash.img fat fat.bin\n"
                       "  qvol dump flash.img cluster 1234 cluster.bin\n"
                       "  qvol dump flash.img file /photos photos-directory.bin"},
                      run_dump);
    dump.value("WHAT", &options->what, "fat, cluster or file")
        .required()
        .one_of({"fat", "cluster", "file"});
    dump.list("ARGUMENT", &options->arguments, "[N or PATH] and the file to write")
        .required()
        .count(1, 2);
    dump.flag("-f,--force", &options->is_forced, "Replace a file that exists");
}

} // namespace qvol
