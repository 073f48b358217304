// qvol build: makes an image, or a volume on a device, from a directory of the host.
//
// Checks the options, the tree and the shape of the volume before it makes anything. An image has a
// temporary name until it is complete and synced.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/formatting.h"
#include "qvol/host.h"
#include "qvol/import.h"
#include "qvol/new_image.h"
#include "qvol/sizes.h"
#include "qvol/volume_shape.h"
#include "qvol/whole_volume.h"

#include <filesystem>

#include <fmt/core.h>
#include <sys/stat.h>

namespace qvol {

namespace {

constexpr u32 MAX_PAGE_BYTES = 16 * 1024;

struct build_options {
    std::string size;
    std::string from;
    std::string sector;
    std::string cluster;
    std::string page = "4K";
    std::optional<std::string> label;
    std::optional<std::string> volume_id;
    std::optional<std::string> oem_name;
    std::optional<std::string> media;
    u32 hidden_sectors = 0;
    volume_identity identity; // from the five options above, when they have been checked
    std::string fat_type = "auto";
    bool skips_special = false;
    bool is_short = false;
    bool has_pool = false;
    bool has_log = false;
    bool is_compact = false;
    bool leaves_copies = false;
    bool is_forced = false;
};

// ---- options ----

// 0: any.
u32 parse_fat_type(const build_options &options) {
    const u32 fat_type =
        options.fat_type == "auto" ? 0 : static_cast<u32>(std::stoul(options.fat_type));
    if (fat_type == 12 && (options.has_pool || options.has_log)) {
        throw usage_error(fmt::format("--fat 12 excludes {}: the ZUQ driver reads FAT16 and FAT32",
                                      options.has_pool ? "--pool" : "--log"));
    }
    return fat_type;
}

// `sector_bytes`: the default sector size, that of the target.
shape_request parse_shape(const build_options &options, u32 sector_bytes) {
    shape_request request;
    request.fat_type = parse_fat_type(options);
    request.sector_bytes =
        options.sector.empty()
            ? sector_bytes
            : parse_unit("--sector", options.sector, core::MIN_SECTOR_SIZE, core::MAX_SECTOR_SIZE);
    const u32 largest_cluster =
        std::min(MAX_CLUSTER_BYTES, request.sector_bytes * core::MAX_SECTORS_PER_CLUSTER);
    request.cluster_bytes =
        options.cluster.empty()
            ? 0
            : parse_unit("--cluster", options.cluster, request.sector_bytes, largest_cluster);
    request.page_bytes =
        options.page == "0" ? 0 : parse_unit("--page", options.page, 1, MAX_PAGE_BYTES);
    const bool is_automatic = options.size == "auto";
    request.bytes = is_automatic ? 0 : parse_size("--size", options.size);
    if (!is_automatic && request.bytes < MIN_VOLUME_BYTES) {
        throw usage_error(fmt::format("--size {}: too small for a volume; the minimum is 64K",
                                      shown_bytes(options.size)));
    }
    return request;
}

volume_identity parse_identity(const build_options &options) {
    volume_identity identity;
    if (options.label) {
        identity.label = checked_label(*options.label);
    }
    if (options.volume_id) {
        identity.volume_id = parse_volume_id(*options.volume_id);
    }
    if (options.oem_name) {
        identity.oem_name = checked_oem_name(*options.oem_name);
    }
    if (options.media) {
        identity.media = parse_media(*options.media);
    }
    identity.hidden_sectors = options.hidden_sectors;
    return identity;
}

// ---- content ----

std::vector<const reserved_file *> reserved_files(const build_options &options) {
    std::vector<const reserved_file *> files;
    if (options.has_pool) {
        files.push_back(&POOL_FILE);
    }
    if (options.has_log) {
        files.push_back(&LOG_FILE);
    }
    return files;
}

// A problem if a node has the name of a reserved file.
std::optional<std::string> reserved_problem(const host_node &node, const build_options &options) {
    for (const reserved_file *file : reserved_files(options)) {
        if (fold_case(node.name) == units_of_utf8(file->name)) {
            const char *option = file == &POOL_FILE ? "--pool" : "--log";
            return fmt::format("{}: {} makes this file; omit {} or remove the file",
                               shown_bytes(node.path), option, option);
        }
    }
    return std::nullopt;
}

std::vector<host_node> scan_tree(const build_options &options, const name_codec &names) {
    if (options.from.empty()) {
        return {};
    }
    host_scan scan(names, options.skips_special, !options.is_short);
    std::vector<host_node> nodes = scan.scan_children(options.from);
    std::vector<std::string> problems = scan.problems();
    for (const host_node &node : nodes) {
        const std::optional<std::string> problem = reserved_problem(node, options);
        if (problem) {
            problems.push_back(*problem);
        }
    }
    if (!problems.empty()) {
        throw error("cannot store all entries; nothing was written", problems);
    }
    return nodes;
}

volume_content content_of(const build_options &options, const std::vector<host_node> &nodes) {
    volume_content content = {options.from.empty() ? "the requested content"
                                                   : shown_bytes(options.from),
                              cluster_counts(nodes),
                              static_cast<u32>(slots_needed(nodes)) + (options.label ? 1 : 0),
                              {}};
    for (const reserved_file *file : reserved_files(options)) {
        content.root_slots++;
        content.reserved_files.push_back(file->bytes);
    }
    return content;
}

// ---- building ----

struct build_result {
    tree_totals totals;
    json document;
    std::string remark;
};

build_result describe(volume &vol, const std::string &path, const tree_totals &totals,
                      const std::string &label) {
    const u64 free_bytes = u64{vol.fat().free_count()} * vol.on().cluster_bytes();
    build_result result = {totals, totals_json(totals), {}};
    result.document.add("image", path);
    result.document.add("offset", vol.where().offset());
    result.document.add("image_bytes", vol.where().size());
    result.document.add("volume_bytes", u64{vol.on().at.total_sectors} * vol.on().at.sector_size);
    result.document.add("fat_type", vol.on().at.width);
    result.document.add("sector_size", vol.on().at.sector_size);
    result.document.add("cluster_size", vol.on().cluster_bytes());
    result.document.add("label", label);
    result.document.add("free_bytes", free_bytes);
    result.remark = fmt::format("{}: {}, FAT{}, clusters of {}, {} free", shown_bytes(path),
                                shown_size(vol.where().size()), vol.on().at.width,
                                shown_size(vol.on().cluster_bytes()), shown_size(free_bytes));
    return result;
}

void remark_on_shape(const volume_shape &shape, const output &out) {
    if (shape.is_small_fat32()) {
        out.remark(fmt::format("FAT32 with {} clusters: Linux and most firmware read it, systems "
                               "that expect {} or more do not",
                               shape.clusters, core::FAT32_MIN_CLUSTERS));
    }
}

// Formats the target, which already has the length of the volume, and copies the content.
build_result build_volume(const common_options &common, const build_options &options,
                          const volume_shape &shape, const std::vector<host_node> &nodes,
                          target &where) {
    remark_on_shape(shape, common.out);
    format_target(where, shape, options.identity);
    volume vol(where, common.encoding);
    if (options.leaves_copies) {
        vol.fat().leave_other_copies();
    }
    for (const reserved_file *file : reserved_files(options)) {
        make_reserved_file(vol, *file);
    }
    import_plan plan(vol, false, !options.is_short);
    plan.plan(nodes, vol.root(), "/");
    const tree_totals totals = totals_of(nodes);
    progress bar("build", totals.bytes, common.out.is_quiet);
    plan.write(&bar);
    if (options.is_compact) {
        where.resize(std::min(where.size(), used_length(vol)));
    }
    vol.finish();
    return describe(vol, common.image, totals, options.identity.label);
}

// An existing image below the directory would contain itself.
void refuse_own_source(const std::string &image, const std::string &from) {
    std::error_code failure;
    const std::filesystem::path resolved = std::filesystem::canonical(image, failure);
    const std::filesystem::path top =
        failure ? std::filesystem::path() : std::filesystem::canonical(from, failure);
    if (!failure && resolved.string().starts_with((top / "").string())) {
        throw error(fmt::format("cannot build {}: it is below {} and would contain itself; choose "
                                "another path",
                                shown_bytes(image), shown_bytes(from)));
    }
}

build_result build_image(const common_options &common, const build_options &options) {
    if (options.size.empty()) {
        throw usage_error("--size is required: a size such as 64M, or auto for the smallest image");
    }
    const shape_request request = parse_shape(options, core::MIN_SECTOR_SIZE);
    check_image_name(common.image, options.is_forced);
    refuse_own_source(common.image, options.from);
    const std::vector<host_node> nodes = scan_tree(options, name_codec(common.encoding));
    const volume_shape shape = choose_shape(request, content_of(options, nodes));
    new_image image(common.image, options.is_forced, shape.bytes);
    build_result result = [&] {
        target where(image.path(), access::WRITE);
        where.mark_fresh();
        return build_volume(common, options, shape, nodes, where);
    }();
    image.commit();
    return result;
}

void check_place(const target &where, const build_options &options) {
    const std::string name = shown_bytes(where.path());
    if (options.is_compact) {
        throw usage_error("cannot use --compact on " + name + ": only an image file can be cut");
    }
    if (!options.is_forced && !where.is_blank()) {
        throw error("cannot build on " + name + ": not blank; --force overwrites its content");
    }
}

build_result build_in_place(const common_options &common, const build_options &options) {
    target where(common.image, access::WRITE);
    check_place(where, options);
    build_options completed = options;
    if (options.size.empty()) {
        completed.size = std::to_string(where.size());
    }
    shape_request request = parse_shape(completed, where.sector_bytes());
    request.max_bytes = where.size();
    if (request.bytes > where.size()) {
        throw error(fmt::format("--size {}: larger than {}, which has {}", options.size,
                                shown_bytes(common.image), shown_size(where.size())));
    }
    if (completed.identity.hidden_sectors == 0) {
        completed.identity.hidden_sectors = static_cast<u32>(where.offset() / request.sector_bytes);
    }
    const std::vector<host_node> nodes = scan_tree(options, name_codec(common.encoding));
    const volume_shape shape = choose_shape(request, content_of(options, nodes));
    where.limit_size(shape.bytes);
    deferred_boot_sector boot(&where, shape.sector_bytes);
    build_result result = build_volume(common, completed, shape, nodes, where);
    boot.release();
    return result;
}

// A device, or a part of an image file or device that exists.
bool is_place(const std::string &name) {
    struct stat status {};
    return parse_place(name).is_part() ||
           (stat(name.c_str(), &status) == 0 && S_ISBLK(status.st_mode));
}

int run_build(const common_options &common, const build_options &given) {
    common.refuse_backup_boot();
    build_options options = given;
    options.identity = parse_identity(options);
    const build_result result =
        is_place(common.image) ? build_in_place(common, options) : build_image(common, options);
    common.out.remark(totals_text(result.totals));
    common.out.remark(result.remark);
    if (common.out.is_json) {
        common.out.document(result.document);
    }
    return EXIT_DONE;
}

void add_shape_options(const declared_command &build, build_options *options) {
    build.value(
        "--size", &options->size,
        "Size in bytes from 64K on, with K, M or G, or auto for the smallest image (default "
        "for a device: all of it)");
    build.value("--fat", &options->fat_type, "FAT width; auto: depends on the size and content")
        .one_of({"auto", "12", "16", "32"})
        .shows_default();
    build.value("--sector", &options->sector,
                "Sector size in bytes, 512 to 4096 (default 512, or that of the device)");
    build.value("--cluster", &options->cluster,
                "Cluster size in bytes, up to 32K and 64 sectors (default: depends on the size)");
    build
        .value("--page", &options->page,
               "Size in bytes of the flash page that areas are aligned to; 0: no alignment")
        .shows_default();
    build.value("--label", &options->label, "Volume label, 11 characters at most");
    build.value("--volume-id", &options->volume_id,
                "Serial number, as 1A2B-3C4D (default: the present time)");
    build.value("--oem", &options->oem_name, "OEM name, 8 characters at most");
    build.value("--media", &options->media, "Media byte, 0xF0 or 0xF8 to 0xFF (default 0xF8)");
    build.value(
        "--hidden-sectors", &options->hidden_sectors,
        "Number of sectors before the volume on its disk (default: those before its partition)");
}

void add_content_options(const declared_command &build, build_options *options) {
    build.value("--from", &options->from, "Directory whose content is copied");
    build.flag("--skip-special", &options->skips_special,
               "Leave out entries that are neither file, directory nor link");
    build.flag("--short-names", &options->is_short,
               "No long names: refuse names that do not fit 8.3");
    build.flag("--pool", &options->has_pool, "Make the pool file of the ZUQ driver");
    build.flag("--log", &options->has_log, "Make the log file of the ZUQ driver");
    build.flag("--no-mirror", &options->leaves_copies, "Write chains to the first FAT copy only");
    build.flag("--compact", &options->is_compact, "Cut the image to its used length");
    build.flag("-f,--force", &options->is_forced,
               "Replace an existing image, or the content of a device");
}

} // namespace

void add_build(command_line *commands) {
    const auto [build, options] = commands->add(
        {"build", "Make an image, or a volume on a device, from a directory",
         "  qvol build flash.img --size 64M --from rootfs --label SYSTEM\n"
         "  qvol build flash.img --size auto --from rootfs --pool --log\n"
         "  qvol build flash.img --size 512M --fat 32 --cluster 4K --page 8K\n"
         "  SOURCE_DATE_EPOCH=1700000000 qvol build flash.img --size auto --from rootfs --force\n"
         "  qvol build /dev/sdx1 --from rootfs --force"},
        run_build);
    add_shape_options(build, options);
    add_content_options(build, options);
}

} // namespace qvol
