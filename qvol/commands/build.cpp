// qvol build: makes an image, or a volume on a device, from directories, archives and manifests.
//
// Checks the options, the tree and the shape of the volume before it makes anything. An image has a
// temporary name until it is complete and synced.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/flashing/image_forms.h"
#include "qvol/new_image.h"
#include "qvol/new_volume.h"
#include "qvol/sizes.h"
#include "qvol/source_options.h"
#include "qvol/whole_volume.h"

#include <algorithm>
#include <limits>

#include <fmt/core.h>

namespace qvol {

namespace {

struct build_options {
    std::string size;
    std::string sector;
    std::string cluster;
    std::string page = "4K";
    std::optional<std::string> label;
    std::optional<std::string> volume_id;
    std::optional<std::string> oem_name;
    std::optional<std::string> media;
    std::optional<u32> hidden_sectors;
    std::string fat_type = "auto";
    volume_source source; // its identity from the options above, when they have been checked
    form_options forms;
    bool is_compact = false;
    bool is_forced = false;
};

// ---- options ----

u32 checked_fat_type(const build_options &options) {
    const u32 fat_type = parse_fat_type("--fat", options.fat_type);
    if (fat_type == 12 && (options.source.has_pool || options.source.has_log)) {
        throw usage_error(fmt::format("--fat 12 excludes {}: the ZUQ driver reads FAT16 and FAT32",
                                      options.source.has_pool ? "--pool" : "--log"));
    }
    return fat_type;
}

// `sector_bytes`: the default sector size, that of the target.
shape_request parse_shape(const build_options &options, u32 sector_bytes) {
    shape_request request;
    request.fat_type = checked_fat_type(options);
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
    request.page_bytes = parse_page("--page", options.page);
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
        identity.label = checked_label("--label", *options.label);
    }
    if (options.volume_id) {
        identity.volume_id = parse_volume_id("--volume-id", *options.volume_id);
    }
    if (options.oem_name) {
        identity.oem_name = checked_oem_name(*options.oem_name);
    }
    if (options.media) {
        identity.media = parse_media(*options.media);
    }
    identity.hidden_sectors = options.hidden_sectors.value_or(0);
    return identity;
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

build_result build_volume(const common_options &common, const build_options &options,
                          const volume_shape &shape, const source_tree &content, target &where) {
    const std::vector<source_node> &nodes = content.nodes();
    const std::string remark = shape_remark(shape);
    if (!remark.empty()) {
        common.out.remark(remark);
    }
    remark_on_sources(common.out, content);
    const tree_totals totals = totals_of(nodes);
    progress bar("build", totals.bytes, common.out.is_quiet);
    const std::unique_ptr<volume> vol =
        make_volume(where, shape, options.source, nodes, common.encoding, &bar);
    if (options.is_compact) {
        where.resize(std::min(where.size(), used_length(*vol)));
    }
    vol->finish();
    return describe(*vol, common.image, totals, options.source.identity.label);
}

build_result build_image(const common_options &common, const build_options &options) {
    if (options.size.empty()) {
        throw usage_error(
            "--size is required for a new image: a size such as 64M, or auto for the smallest image");
    }
    const shape_request request = parse_shape(options, core::MIN_SECTOR_SIZE);
    check_image_name(common.image, options.is_forced);
    refuse_own_source(common.image, options.source);
    image_forms forms(options.forms, common.image, options.is_forced);
    const source_tree content = load_source(options.source, name_codec(common.encoding));
    const volume_shape shape = choose_shape(request, content_of(options.source, content.nodes()));
    new_image image(common.image, options.is_forced, shape.bytes);
    build_result result = [&] {
        target where(image.path(), access::WRITE);
        where.allow_holes(options.forms.allowed_holes());
        build_result built = build_volume(common, options, shape, content, where);
        if (options.forms.has_forms()) {
            volume vol(where, common.encoding, required::AREAS);
            forms.make(where, needed_ranges(vol), common.out);
        }
        return built;
    }();
    forms.commit();
    image.commit();
    return result;
}

// The number for the boot sector; 0 if its field cannot hold it.
u32 sectors_before(const target &where, u32 sector_bytes) {
    const u64 sectors = where.offset_on_disk() / sector_bytes;
    return sectors <= std::numeric_limits<u32>::max() ? static_cast<u32>(sectors) : 0;
}

// Areas are aligned from the start of the volume on.
void remark_on_pages(const target &where, u32 page_bytes, const output &out) {
    if (page_bytes != 0 && where.offset_on_disk() % page_bytes != 0) {
        out.remark(fmt::format("{} begins at byte {}, not on a page of {}: its areas are not "
                               "aligned to the pages of the disk",
                               shown_bytes(where.path()), where.offset_on_disk(),
                               shown_size(page_bytes)));
    }
}

void check_place(const target &where, const build_options &options) {
    refuse_form_options(options.forms);
    const std::string name = shown_bytes(where.path());
    if (options.is_compact) {
        throw usage_error("cannot use --compact on " + name + ": only an image file can be cut");
    }
    if (!options.is_forced && !where.is_blank()) {
        throw error("cannot build on " + name + ": not blank; --force overwrites its content");
    }
    if (!where.is_device()) {
        refuse_own_source(where.file_path(), options.source);
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
    completed.source.identity.hidden_sectors =
        options.hidden_sectors.value_or(sectors_before(where, request.sector_bytes));
    remark_on_pages(where, request.page_bytes, common.out);
    const source_tree content = load_source(options.source, name_codec(common.encoding));
    const volume_shape shape = choose_shape(request, content_of(options.source, content.nodes()));
    where.limit_size(shape.bytes);
    deferred_boot_sector boot(&where, shape.sector_bytes);
    build_result result = build_volume(common, completed, shape, content, where);
    boot.release();
    return result;
}

// A device, or a part of an image file or device that exists.
bool is_place(const std::string &name) {
    return parse_place(name).is_part() || is_block_device(name);
}

int run_build(const common_options &common, const build_options &given) {
    common.refuse_backup_boot();
    build_options options = given;
    options.source.identity = parse_identity(options);
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
        "on a device or partition: all of it)");
    build.value("--fat", &options->fat_type, "FAT width; auto: depends on the size and content")
        .one_of({"auto", "12", "16", "32"})
        .shows_default();
    build.value("--sector", &options->sector,
                "Sector size in bytes, 512 to 4096 (default 512, or that of the disk)");
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
    add_source_options(build, &options->source.content);
    build.flag("--short-names", &options->source.is_short,
               "No long names: refuse names that do not fit 8.3");
    build.flag("--pool", &options->source.has_pool, "Make the pool file of the ZUQ driver");
    build.flag("--log", &options->source.has_log, "Make the log file of the ZUQ driver");
    build.flag("--no-mirror", &options->source.leaves_copies,
               "Write chains to the first FAT copy only");
    build.flag("--compact", &options->is_compact, "Cut the image to its used length");
    build.flag("-f,--force", &options->is_forced,
               "Replace an existing image, or the content of a device or partition");
}

} // namespace

void add_build(command_line *commands) {
    const auto [build, options] = commands->add(
        {"build", "Make an image, or a volume on a device, from a directory",
         "  qvol build flash.img --size 64M --from rootfs --label SYSTEM\n"
         "  qvol build flash.img --size auto --from rootfs --pool --log\n"
         "  qvol build flash.img --size 512M --fat 32 --cluster 4K --page 8K\n"
         "  SOURCE_DATE_EPOCH=1700000000 qvol build flash.img --size auto --from rootfs --force\n"
         "  qvol build /dev/sdx1 --from rootfs --force\n"
         "  qvol build disk.img#1 --from rootfs    the first partition of a disk"},
        run_build);
    add_shape_options(build, options);
    add_content_options(build, options);
    add_form_options(build, &options->forms);
}

} // namespace qvol
