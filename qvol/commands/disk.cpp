// qvol disk: makes a disk with a table of partitions and their contents, in an image file or on a
// device.
//
// All sources, sizes and types are checked before anything is written. The contents go straight
// to their positions. On a device the table is written last.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/disk_layout.h"
#include "qvol/flashing/image_forms.h"
#include "qvol/identifiers.h"
#include "qvol/mounted.h"
#include "qvol/new_image.h"
#include "qvol/part_options.h"
#include "qvol/partition_types.h"
#include "qvol/partitions.h"
#include "qvol/raw_copy.h"
#include "qvol/sizes.h"
#include "qvol/source_options.h"
#include "qvol/times.h"

#include <algorithm>
#include <limits>
#include <set>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr u64 MAX_ALIGN_BYTES = u64{1} << 30;

struct disk_options {
    std::vector<std::string> parts;
    source_options sources; // of all volumes
    std::string size;
    std::string sector;
    std::string align = "1M";
    form_options forms;
    bool is_gpt = false;
    bool is_mbr = false;
    bool is_forced = false;
};

// ---- plan -------------------------------------------------------------------------------------

// A partition, everything that it will contain, and its position.
struct planned_part {
    part_options options;
    shape_request shape;         // of its volume
    source_tree tree;            // of its volume
    std::unique_ptr<target> raw; // to copy in
    content raw_content;
    std::optional<volume_shape> volume; // of the rest: first the smallest one
    u32 page_bytes = 0;
    new_partition made;

    [[nodiscard]] bool is_rest() const {
        return options.size == "rest";
    }
};

struct disk_plan {
    disk_request request;
    std::vector<planned_part> parts;
    u64 bytes = 0;
    std::string id; // of the disk: a UUID, or the number of an MBR as "0x12345678"
};

// The requested number of bytes; 0: none.
u64 number_of_bytes(const part_options &options, u32 sector_bytes) {
    if (!options.has_number()) {
        return 0;
    }
    const u64 bytes = parse_size("size", options.size);
    if (bytes == 0 || bytes % sector_bytes != 0) {
        throw usage_error(fmt::format("size {}: must be a multiple of the sector size {}",
                                      shown_bytes(options.size), sector_bytes));
    }
    return bytes;
}

shape_request shape_of_part(const part_options &options, u32 sector_bytes) {
    shape_request request;
    request.are_keys = true;
    request.sector_bytes = sector_bytes;
    request.fat_type = parse_fat_type("fat", options.fat_type);
    const u32 largest = std::min(MAX_CLUSTER_BYTES, sector_bytes * core::MAX_SECTORS_PER_CLUSTER);
    request.cluster_bytes =
        options.cluster.empty() ? 0 : parse_unit("cluster", options.cluster, sector_bytes, largest);
    request.page_bytes = parse_page("page", options.page);
    request.bytes = number_of_bytes(options, sector_bytes);
    return request;
}

// A volume of the requested number of bytes, or the smallest.
void choose_volume(planned_part *part) {
    part->volume = choose_shape(part->shape, content_of(part->options.source, part->tree.nodes()));
}

void check_volume(const common_options &common, u32 sector_bytes, planned_part *part) {
    part->shape = shape_of_part(part->options, sector_bytes);
    if (part->shape.bytes != 0 && part->shape.bytes < MIN_VOLUME_BYTES) {
        throw usage_error(fmt::format("size {}: too small for a volume; the minimum is 64K",
                                      shown_bytes(part->options.size)));
    }
    refuse_own_source(common.image, part->options.source);
    part->tree = load_source(part->options.source, name_codec(common.encoding));
    if (part->is_rest() && part->shape.fat_type == 32) {
        part->made.at.bytes = MIN_VOLUME_BYTES; // in a small rest, it has few clusters
    } else {
        choose_volume(part);
        part->made.at.bytes = part->volume->bytes;
    }
}

void check_raw(const common_options &common, u32 sector_bytes, planned_part *part) {
    if (is_on_disk(part->options.raw, common.image)) {
        throw error(fmt::format("cannot copy {}: it is on {}, which is overwritten",
                                shown_bytes(part->options.raw), shown_bytes(common.image)));
    }
    part->raw = std::make_unique<target>(part->options.raw, access::READ);
    const target &raw = *part->raw;
    part->raw_content = content_of(raw, raw.offset(), raw.size());
    const u64 bytes = number_of_bytes(part->options, sector_bytes);
    if (part->options.has_number() && bytes < raw.size()) {
        throw error(fmt::format("size {}: too small, {} has {} bytes",
                                shown_bytes(part->options.size), shown_bytes(raw.path()),
                                raw.size()));
    }
    const u64 whole_sectors = (raw.size() + sector_bytes - 1) / sector_bytes * sector_bytes;
    part->made.at.bytes = std::max(bytes, whole_sectors);
}

planned_part check_part(const common_options &common, const part_options &options,
                        u32 sector_bytes) {
    planned_part part;
    part.options = options;
    in_part(options.number, [&] {
        part.page_bytes = parse_page("page", options.page);
        if (options.has_volume) {
            check_volume(common, sector_bytes, &part);
        } else if (!options.raw.empty()) {
            check_raw(common, sector_bytes, &part);
        } else {
            part.made.at.bytes = number_of_bytes(options, sector_bytes);
        }
    });
    return part;
}

// ---- types ------------------------------------------------------------------------------------

part_content content_for_type(const planned_part &part) {
    if (part.volume) {
        return {true, part.volume->fat_type};
    }
    return {part.raw != nullptr, part.raw_content.fat_type()};
}

void set_type(table_kind table, planned_part *part) {
    const part_options &options = part->options;
    new_partition *made = &part->made;
    made->type = partition_type(table, options.type, content_for_type(*part), made->at.bytes);
    made->name = options.name;
    made->uuid = options.uuid;
    made->attributes = options.attributes.value_or(0);
    made->is_active = options.is_active;
    if (options.type == "boot") {
        table == table_kind::GPT ? made->attributes |= LEGACY_BOOT_ATTRIBUTE
                                 : made->is_active = true;
    }
    const bool is_of_gpt = !options.name.empty() || !options.uuid.empty() || options.attributes;
    if (table == table_kind::MBR && is_of_gpt) {
        throw usage_error("name=, uuid= and attrs= are of a GPT; remove them or use --gpt");
    }
    if (table == table_kind::GPT && options.is_active) {
        throw usage_error("active is of an MBR; use type=boot or attrs=legacy-boot");
    }
}

void refuse_duplicates(const disk_plan &plan) {
    std::set<std::string> uuids;
    u32 active = 0;
    for (const planned_part &part : plan.parts) {
        active += part.made.is_active ? 1 : 0;
        if (!part.made.uuid.empty() && !uuids.insert(part.made.uuid).second) {
            throw usage_error(
                fmt::format("uuid={}: two partitions cannot have the same", part.made.uuid));
        }
    }
    if (active > 1) {
        throw usage_error("two partitions are active (also by type=boot), an MBR boots from one");
    }
}

// ---- identifiers ------------------------------------------------------------------------------

// With SOURCE_DATE_EPOCH the same request and content give the same identifiers. Without it they
// are random.
identifier_source identifiers_of(const disk_plan &plan) {
    if (!is_clock_set()) {
        return identifier_source();
    }
    identifier_source ids(current_time());
    ids.add(static_cast<u64>(plan.request.table == table_kind::GPT));
    for (const planned_part &part : plan.parts) {
        ids.add(part.made.type);
        ids.add(part.made.name);
        ids.add(part.made.at.offset);
        ids.add(part.made.at.bytes);
        ids.add(part.options.source.identity.label);
        ids.add(part.raw_content.uuid);
        ids.add(part.tree.nodes());
    }
    return ids;
}

void set_identifiers(disk_plan *plan) {
    const identifier_source ids = identifiers_of(*plan);
    const bool is_gpt = plan->request.table == table_kind::GPT;
    plan->id = is_gpt ? ids.uuid(0) : ids.number(0);
    for (planned_part &part : plan->parts) {
        if (is_gpt && part.made.uuid.empty()) {
            part.made.uuid = ids.uuid(part.options.number);
        }
    }
}

// ---- planning ---------------------------------------------------------------------------------

disk_request parse_request(const disk_options &options, u32 sector_bytes) {
    disk_request request = {};
    request.table = options.is_mbr ? table_kind::MBR : table_kind::GPT;
    request.sector_bytes = sector_bytes;
    request.align_bytes = parse_size("--align", options.align);
    const bool is_multiple = request.align_bytes != 0 && request.align_bytes % sector_bytes == 0;
    if (!is_multiple || request.align_bytes > MAX_ALIGN_BYTES) {
        throw usage_error(fmt::format("--align {}: must be a multiple of the sector size {}, up to "
                                      "1G",
                                      shown_bytes(options.align), sector_bytes));
    }
    const bool is_automatic = options.size.empty() || options.size == "auto";
    request.bytes = is_automatic ? 0 : parse_size("--size", options.size);
    if (!is_automatic && (request.bytes == 0 || request.bytes % sector_bytes != 0)) {
        throw usage_error(fmt::format("--size {}: no multiple of the sector size {}",
                                      shown_bytes(options.size), sector_bytes));
    }
    return request;
}

// Positions for all; the volume that takes the rest is chosen now that the rest is known.
void place_parts(disk_plan *plan) {
    std::vector<partition_request> wanted;
    for (const planned_part &part : plan->parts) {
        wanted.push_back({part.made.at.bytes, part.page_bytes, part.is_rest()});
    }
    const disk_layout layout = lay_out_disk(plan->request, wanted);
    plan->bytes = layout.bytes;
    for (std::size_t i = 0; i < plan->parts.size(); i++) {
        planned_part *part = &plan->parts[i];
        part->made.at = layout.partitions[i];
        in_part(part->options.number, [&] {
            if (part->is_rest() && part->options.has_volume) {
                part->shape.bytes = part->shape.max_bytes = part->made.at.bytes;
                choose_volume(part);
            }
            set_type(plan->request.table, part);
        });
    }
}

// Each partition has its own sources, the options for them are those of the command.
part_options with_options(part_options part, const source_options &sources) {
    const std::vector<std::string> from = std::move(part.source.content.from);
    part.source.content = sources;
    part.source.content.from = from;
    return part;
}

disk_plan plan_disk(const common_options &common, const disk_options &options,
                    const disk_request &request) {
    disk_plan plan;
    plan.request = request;
    std::vector<part_options> parts;
    for (const std::string &text : options.parts) {
        parts.push_back(parse_part(text, static_cast<u32>(parts.size() + 1)));
    }
    for (const part_options &part : parts) {
        plan.parts.push_back(
            check_part(common, with_options(part, options.sources), request.sector_bytes));
        remark_on_sources(common.out, plan.parts.back().tree);
    }
    place_parts(&plan);
    refuse_duplicates(plan);
    set_identifiers(&plan);
    return plan;
}

// ---- writing ----------------------------------------------------------------------------------

struct made_volume {
    u32 fat_type;
    u32 cluster_bytes;
    u64 free_bytes;
    tree_totals totals;
};

std::string name_of_part(const common_options &common, const planned_part &part) {
    return fmt::format("{}#{}", common.image, part.options.number);
}

made_volume write_volume(const common_options &common, const disk_plan &plan,
                         const planned_part &part, target &where, progress *bar) {
    const u64 sectors_before = part.made.at.offset / plan.request.sector_bytes;
    volume_source source = part.options.source;
    source.identity.hidden_sectors =
        sectors_before > std::numeric_limits<u32>::max() ? 0 : static_cast<u32>(sectors_before);
    // Volumes of one disk have different serial numbers.
    source.identity.volume_id = static_cast<u32>(current_time()) + part.options.number - 1;
    const std::unique_ptr<volume> vol =
        make_volume(where, *part.volume, source, part.tree.nodes(), common.encoding, bar);
    vol->finish();
    return {vol->on().at.width, vol->on().cluster_bytes(),
            u64{vol->fat().free_count()} * vol->on().cluster_bytes(), totals_of(part.tree.nodes())};
}

using made_volumes = std::vector<std::optional<made_volume>>;

made_volumes write_parts(const common_options &common, const disk_plan &plan, const target &disk) {
    u64 total = 0;
    for (const planned_part &part : plan.parts) {
        total += part.raw != nullptr ? part.raw->size() : totals_of(part.tree.nodes()).bytes;
    }
    progress bar("disk", total, common.out.is_quiet);
    made_volumes made;
    for (const planned_part &part : plan.parts) {
        target where(disk, name_of_part(common, part), part.made.at.offset, part.made.at.bytes);
        where.allow_holes(disk.allowed_holes());
        std::optional<made_volume> result;
        if (part.volume) {
            result = write_volume(common, plan, part, where, &bar);
        } else if (part.raw != nullptr) {
            copy_raw(*part.raw, where, &bar);
        }
        made.push_back(result);
    }
    return made;
}

new_table table_of(const disk_plan &plan) {
    new_table table = {plan.request.table, plan.request.sector_bytes, plan.id, {}};
    for (const planned_part &part : plan.parts) {
        table.partitions.push_back(part.made);
    }
    return table;
}

// The table, and what the contents need.
std::vector<byte_range> needed_of_disk(const common_options &common, const disk_plan &plan,
                                       const target &disk) {
    std::vector<byte_range> ranges = {{0, head_bytes(plan.request)}};
    for (const planned_part &part : plan.parts) {
        std::vector<byte_range> needed;
        if (part.volume) {
            const target where(disk, name_of_part(common, part), part.made.at.offset,
                               part.made.at.bytes);
            volume vol(where, common.encoding, required::AREAS);
            needed = needed_ranges(vol);
        } else if (part.raw != nullptr) {
            needed = data_ranges(*part.raw, part.made.at.offset);
        }
        ranges.insert(ranges.end(), needed.begin(), needed.end());
    }
    const u64 tail = tail_bytes(plan.request);
    ranges.push_back({plan.bytes - tail, tail});
    return ranges;
}

made_volumes make_image(const common_options &common, const disk_options &options,
                        const disk_plan &plan, image_forms &forms) {
    new_image image(common.image, options.is_forced, plan.bytes);
    made_volumes made = [&] {
        target disk(image.path(), access::WRITE);
        disk.allow_holes(options.forms.allowed_holes());
        made_volumes written = write_parts(common, plan, disk);
        write_table(disk, table_of(plan));
        disk.sync();
        if (options.forms.has_forms()) {
            forms.make(disk, needed_of_disk(common, plan, disk), common.out);
        }
        return written;
    }();
    forms.commit();
    image.commit();
    return made;
}

// What was there before must not seem to be the table of the new contents. The copy at the end of
// the disk comes first: while the table at the start is there, its contents are.
void clear_tables(const disk_plan &plan, const target &disk) {
    const u64 head = plan.parts.empty() ? disk.size() : plan.parts.front().made.at.offset;
    const u64 tail =
        std::min(disk.size(), tail_bytes({table_kind::GPT, plan.request.sector_bytes, 1, 0}));
    write_zeros(disk, disk.size() - tail, tail);
    write_zeros(disk, 0, std::min(head, u64{1024} * 1024));
    disk.sync();
}

made_volumes make_on_device(const common_options &common, const disk_plan &plan,
                            const target &disk) {
    clear_tables(plan, disk);
    made_volumes made = write_parts(common, plan, disk);
    disk.sync();
    write_table(disk, table_of(plan));
    disk.sync();
    const std::string reason = reread_table(disk);
    if (!reason.empty()) {
        report(fmt::format("{}: the system has not read the new partitions: {}",
                           shown_bytes(disk.path()), reason));
    }
    return made;
}

// ---- results ----------------------------------------------------------------------------------

// By which the kernel finds the partition: PARTUUID.
std::string uuid_of(const disk_plan &plan, const planned_part &part) {
    return plan.request.table == table_kind::GPT
               ? part.made.uuid
               : fmt::format("{}-{:02x}", plan.id.substr(2), part.options.number);
}

json part_json(const disk_plan &plan, const planned_part &part,
               const std::optional<made_volume> &made) {
    const new_partition &at = part.made;
    json result = {
        {"number", part.options.number}, {"type", at.type},        {"name", at.name},
        {"uuid", uuid_of(plan, part)},   {"offset", at.at.offset}, {"bytes", at.at.bytes}};
    result.add("fat_type", made ? json(made->fat_type) : json());
    if (made) {
        result.add("cluster_size", made->cluster_bytes);
        result.add("label", part.options.source.identity.label);
        result.add("free_bytes", made->free_bytes);
        result.add("content", totals_json(made->totals));
    }
    return result;
}

std::string part_text(const common_options &common, const planned_part &part,
                      const std::optional<made_volume> &made) {
    std::string text = fmt::format("{}: {} at {}", shown_bytes(name_of_part(common, part)),
                                   shown_size(part.made.at.bytes), shown_size(part.made.at.offset));
    if (made) {
        text += fmt::format(", FAT{}, {}, {} free", made->fat_type, totals_text(made->totals),
                            shown_size(made->free_bytes));
    } else if (part.raw != nullptr) {
        text += ", " + shown_bytes(part.raw->path());
    }
    return text;
}

void print_result(const common_options &common, const disk_plan &plan, const made_volumes &made) {
    json parts = json::array();
    for (std::size_t i = 0; i < made.size(); i++) {
        common.out.remark(part_text(common, plan.parts[i], made[i]));
        parts.push_back(part_json(plan, plan.parts[i], made[i]));
    }
    const char *table = plan.request.table == table_kind::GPT ? "gpt" : "mbr";
    common.out.remark(fmt::format("{}: {}, {}", shown_bytes(common.image), shown_size(plan.bytes),
                                  plan.request.table == table_kind::GPT ? "GPT" : "MBR"));
    if (common.out.is_json) {
        common.out.document({{"image", common.image},
                             {"bytes", plan.bytes},
                             {"table", table},
                             {"id", plan.id},
                             {"sector_size", plan.request.sector_bytes},
                             {"partitions", std::move(parts)}});
    }
}

void remark_on_volumes(const common_options &common, const disk_plan &plan) {
    for (const planned_part &part : plan.parts) {
        const std::string remark = part.volume ? shape_remark(*part.volume) : "";
        if (!remark.empty()) {
            common.out.remark(part_title(part.options.number) + ": " + remark);
        }
    }
}

// ---- the command ------------------------------------------------------------------------------

u32 parse_sector(const disk_options &options, u32 usual) {
    return options.sector.empty() ? usual
                                  : static_cast<u32>(parse_size("--sector", options.sector));
}

int run_on_device(const common_options &common, const disk_options &options) {
    refuse_form_options(options.forms);
    const target disk(common.image, access::WRITE);
    const std::string name = shown_bytes(common.image);
    const u32 sector_bytes = parse_sector(options, disk.sector_bytes());
    if (sector_bytes != disk.sector_bytes()) {
        throw usage_error(fmt::format("--sector {}: {} has sectors of {} bytes",
                                      shown_bytes(options.sector), name, disk.sector_bytes()));
    }
    if (!options.size.empty()) {
        throw usage_error("--size: a device has its own size");
    }
    if (!options.is_forced && !disk.is_blank()) {
        throw error("cannot partition " + name + ": not blank; --force overwrites its content");
    }
    disk_request request = parse_request(options, sector_bytes);
    request.bytes = disk.size() / sector_bytes * sector_bytes;
    const disk_plan plan = plan_disk(common, options, request);
    remark_on_volumes(common, plan);
    print_result(common, plan, make_on_device(common, plan, disk));
    return EXIT_DONE;
}

int run_on_image(const common_options &common, const disk_options &options) {
    check_image_name(common.image, options.is_forced);
    image_forms forms(options.forms, common.image, options.is_forced);
    const u32 sector_bytes = parse_sector(options, core::MIN_SECTOR_SIZE);
    const disk_plan plan = plan_disk(common, options, parse_request(options, sector_bytes));
    remark_on_volumes(common, plan);
    print_result(common, plan, make_image(common, options, plan, forms));
    return EXIT_DONE;
}

int run_disk(const common_options &common, const disk_options &options) {
    common.refuse_backup_boot();
    if (parse_place(common.image).is_part()) {
        throw usage_error("cannot make a disk in " + shown_bytes(common.image) +
                          ", which is a part of one");
    }
    return is_block_device(common.image) ? run_on_device(common, options)
                                         : run_on_image(common, options);
}

} // namespace

void add_disk(command_line *commands) {
    const auto [disk, options] = commands->add(
        {"disk", "Make a disk with partitions and their contents",
         "  qvol disk card.img --part type=esp,size=64M,from=efi --part type=linux,raw=root.ext4\n"
         "  qvol disk card.img --mbr --part type=boot,from=boot,label=BOOT --part raw=root.ext4\n"
         "  qvol disk card.img --size 4G --part type=esp,size=256M --part from=data,size=rest\n"
         "  qvol disk /dev/sdx --part from=data,size=rest --force\n"
         "Keys of --part: name, label, type, size, fat, cluster, page, from, raw, active, attrs, "
         "uuid"},
        run_disk);
    disk.list("--part", &options->parts, "KEY=VALUE,...: a partition; again for the next one")
        .required()
        .one_each();
    const auto gpt = disk.flag("--gpt", &options->is_gpt, "With a GPT (default)");
    disk.flag("--mbr", &options->is_mbr, "With an MBR").excludes(gpt);
    disk.value("--size", &options->size,
               "Size of the disk in bytes, with K, M or G, or auto for what the partitions need "
               "(default)");
    disk.value("--sector", &options->sector,
               "Sector size in bytes (default 512, or that of the device)")
        .one_of({"512", "4096"});
    disk.value("--align", &options->align, "Partitions begin on multiples of this size")
        .shows_default();
    add_source_rules(disk, &options->sources);
    disk.flag("-f,--force", &options->is_forced,
              "Replace an existing image, or the content of a device");
    add_form_options(disk, &options->forms);
}

} // namespace qvol
