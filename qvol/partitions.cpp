#include "qvol/partitions.h"

#include "core/geometry.h"
#include "qvol/error.h"
#include "qvol/names.h"
#include "qvol/output.h"
#include "qvol/target.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <blkid/blkid.h>
#include <fmt/core.h>
#include <libfdisk/libfdisk.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

namespace qvol {

namespace {

// ---- the libraries ----------------------------------------------------------------------------

struct table_deleter {
    void operator()(fdisk_table *table) const {
        fdisk_unref_table(table);
    }
};
using partition_list = std::unique_ptr<fdisk_table, table_deleter>;

struct iterator_deleter {
    void operator()(fdisk_iter *iterator) const {
        fdisk_free_iter(iterator);
    }
};

struct probe_deleter {
    void operator()(blkid_struct_probe *probe) const {
        blkid_free_probe(probe);
    }
};
using content_probe = std::unique_ptr<blkid_struct_probe, probe_deleter>;

struct context_deleter {
    void operator()(fdisk_context *context) const {
        fdisk_unref_context(context);
    }
};
using partitioner = std::unique_ptr<fdisk_context, context_deleter>;

// Stores that a damaged table was replaced by its backup, for example.
int store_warning(fdisk_context *, fdisk_ask *ask, void *warnings) {
    const int type = fdisk_ask_get_type(ask);
    if (type == FDISK_ASKTYPE_WARN || type == FDISK_ASKTYPE_WARNX) {
        static_cast<std::vector<std::string> *>(warnings)->emplace_back(
            fdisk_ask_print_get_mesg(ask));
    }
    return 0;
}

partitioner open_partitioner(const target &disk, u32 sector_bytes, access wanted,
                             std::vector<std::string> *warnings) {
    partitioner context(fdisk_new_context());
    if (context == nullptr) {
        throw std::bad_alloc();
    }
    fdisk_set_ask(context.get(), store_warning, warnings);
    if (!disk.is_device()) {
        fdisk_save_user_sector_size(context.get(), sector_bytes, sector_bytes);
    }
    const int failed = fdisk_assign_device_by_fd(
        context.get(), disk.descriptor(), disk.path().c_str(), wanted == access::READ ? 1 : 0);
    if (failed != 0) {
        throw system_failure("access the partitions of " + shown_bytes(disk.path()), -failed);
    }
    return context;
}

std::string text_or_empty(const char *text) {
    return text != nullptr ? text : "";
}

std::string value_of(blkid_probe probe, const char *name) {
    const char *value = nullptr;
    std::size_t size = 0;
    return blkid_probe_lookup_value(probe, name, &value, &size) == 0 ? text_or_empty(value) : "";
}

content_probe probe_of(const target &disk, u64 offset, u64 bytes) {
    content_probe probe(blkid_new_probe());
    if (probe == nullptr) {
        throw std::bad_alloc();
    }
    if (blkid_probe_set_device(probe.get(), disk.descriptor(), static_cast<blkid_loff_t>(offset),
                               static_cast<blkid_loff_t>(bytes)) != 0) {
        return nullptr;
    }
    return probe;
}

// ---- tables -----------------------------------------------------------------------------------

partition described(fdisk_partition *of, u32 sector_bytes) {
    fdisk_parttype *type = fdisk_partition_get_type(of);
    return {static_cast<u32>(fdisk_partition_get_partno(of) + 1),
            type != nullptr ? text_or_empty(fdisk_parttype_get_name(type)) : "",
            text_or_empty(fdisk_partition_get_name(of)),
            u64{fdisk_partition_get_start(of)} * sector_bytes,
            u64{fdisk_partition_get_size(of)} * sector_bytes,
            fdisk_partition_is_container(of) != 0};
}

struct table {
    std::vector<partition> partitions; // none without a table
    std::vector<std::string> warnings;
    bool is_gpt;
};

table read_table(const target &disk, u32 sector_bytes) {
    table result;
    const partitioner context =
        open_partitioner(disk, sector_bytes, access::READ, &result.warnings);
    result.is_gpt = fdisk_is_labeltype(context.get(), FDISK_DISKLABEL_GPT) != 0;
    fdisk_table *found = nullptr;
    if (fdisk_has_label(context.get()) == 0 || fdisk_get_partitions(context.get(), &found) != 0) {
        return result;
    }
    const partition_list list(found);
    const std::unique_ptr<fdisk_iter, iterator_deleter> iterator(
        fdisk_new_iter(FDISK_ITER_FORWARD));
    fdisk_partition *next = nullptr;
    while (fdisk_table_next_partition(list.get(), iterator.get(), &next) == 0) {
        if (fdisk_partition_has_start(next) != 0 && fdisk_partition_has_size(next) != 0) {
            result.partitions.push_back(described(next, sector_bytes));
        }
    }
    return result;
}

bool has_known_content(const target &disk, const table &of) {
    return std::any_of(of.partitions.begin(), of.partitions.end(), [&](const partition &one) {
        return !content_of(disk, one.offset, one.bytes).file_system.empty();
    });
}

// An image file does not state the sector size of its disk. A GPT is found with the right one only;
// of an MBR, whose numbers could be of any sectors, the contents decide.
table table_of(const target &disk) {
    table usual = read_table(disk, disk.sector_bytes());
    if (disk.is_device() || usual.is_gpt || has_known_content(disk, usual)) {
        return usual;
    }
    table other = read_table(disk, core::MAX_SECTOR_SIZE);
    return other.is_gpt || has_known_content(disk, other) ? other : usual;
}

std::vector<partition> partitions_of(const target &disk) {
    const table found = table_of(disk);
    for (const std::string &warning : found.warnings) {
        report(shown_bytes(disk.path()) + ": " + warning);
    }
    return found.partitions;
}

// ---- writing ----------------------------------------------------------------------------------

struct partition_deleter {
    void operator()(fdisk_partition *of) const {
        fdisk_unref_partition(of);
    }
};

struct type_deleter {
    void operator()(fdisk_parttype *type) const {
        fdisk_unref_parttype(type);
    }
};

// Throws error with the first warning of the library, which tells more than the number.
void check_call(int failed, const target &disk, const std::vector<std::string> &warnings) {
    if (failed == 0) {
        return;
    }
    const std::string what = "cannot partition " + shown_bytes(disk.path()) + ": ";
    throw error(what + (warnings.empty() ? std::strerror(-failed) : warnings.front()));
}

int add_partition(fdisk_context *context, const new_partition &wanted, std::size_t index,
                  u32 sector_bytes) {
    const std::unique_ptr<fdisk_partition, partition_deleter> made(fdisk_new_partition());
    const std::unique_ptr<fdisk_parttype, type_deleter> type(
        fdisk_label_parse_parttype(fdisk_get_label(context, nullptr), wanted.type.c_str()));
    if (made == nullptr || type == nullptr) {
        return -EINVAL;
    }
    fdisk_partition_set_partno(made.get(), index);
    fdisk_partition_set_start(made.get(), wanted.at.offset / sector_bytes);
    fdisk_partition_set_size(made.get(), wanted.at.bytes / sector_bytes);
    fdisk_partition_set_type(made.get(), type.get());
    if (!wanted.name.empty()) {
        fdisk_partition_set_name(made.get(), wanted.name.c_str());
    }
    if (!wanted.uuid.empty()) {
        fdisk_partition_set_uuid(made.get(), wanted.uuid.c_str());
    }
    int failed = fdisk_add_partition(context, made.get(), nullptr);
    if (failed == 0 && wanted.attributes != 0) {
        failed = fdisk_gpt_set_partition_attrs(context, index, wanted.attributes);
    }
    if (failed == 0 && wanted.is_active) {
        failed = fdisk_toggle_partition_flag(context, index, DOS_FLAG_ACTIVE);
    }
    return failed;
}

// ---- descriptions -----------------------------------------------------------------------------

std::string line_of(const target &disk, const partition &one) {
    const content contains = one.is_container ? content() : content_of(disk, one.offset, one.bytes);
    std::string line =
        fmt::format("{}#{}: {}, {} at {}", shown_bytes(disk.path()), one.number,
                    shown_bytes(one.type), shown_size(one.bytes), shown_size(one.offset));
    if (!contains.file_system.empty()) {
        line += ", " + contains.file_system;
    }
    for (const std::string &name : {one.name, contains.label}) {
        line += name.empty() ? "" : fmt::format(" \"{}\"", shown_bytes(name));
    }
    return line;
}

} // namespace

void write_table(const target &disk, const new_table &wanted) {
    std::vector<std::string> warnings;
    const partitioner context =
        open_partitioner(disk, wanted.sector_bytes, access::WRITE, &warnings);
    const bool is_gpt = wanted.kind == table_kind::GPT;
    const disk_request request = {wanted.kind, wanted.sector_bytes, 1, disk.size()};
    // The library keeps the first MiB free, partitions may begin earlier.
    fdisk_set_first_lba(context.get(), head_bytes(request) / wanted.sector_bytes);
    check_call(fdisk_create_disklabel(context.get(), is_gpt ? "gpt" : "dos"), disk, warnings);
    if (!wanted.id.empty()) {
        check_call(fdisk_set_disklabel_id_from_string(context.get(), wanted.id.c_str()), disk,
                   warnings);
    }
    for (std::size_t i = 0; i < wanted.partitions.size(); i++) {
        check_call(add_partition(context.get(), wanted.partitions[i], i, wanted.sector_bytes), disk,
                   warnings);
    }
    check_call(fdisk_write_disklabel(context.get()), disk, warnings);
}

std::string reread_table(const target &disk) {
    return ioctl(disk.descriptor(), BLKRRPART) == 0 ? "" : std::strerror(errno);
}

partition find_partition(const target &disk, u32 number) {
    const std::string name = shown_bytes(disk.path());
    const std::vector<partition> all = partitions_of(disk);
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&](const partition &one) { return one.number == number; });
    if (all.empty()) {
        throw error(fmt::format("cannot open {}: no table of partitions found", name));
    }
    if (found == all.end()) {
        throw error(fmt::format("cannot open {}: no such partition", name));
    }
    if (found->is_container) {
        throw error(
            fmt::format("cannot open {}: an extended partition, which contains others", name));
    }
    return *found;
}

bool is_partitioned(const target &disk) {
    const content_probe probe = probe_of(disk, 0, disk.size());
    if (probe == nullptr) {
        return false;
    }
    blkid_probe_enable_superblocks(probe.get(), 0);
    blkid_probe_enable_partitions(probe.get(), 1);
    const bool is_found = blkid_do_safeprobe(probe.get()) == 0;
    return is_found && !value_of(probe.get(), "PTTYPE").empty() &&
           !table_of(disk).partitions.empty();
}

std::vector<std::string> partition_lines(const target &disk) {
    std::vector<std::string> lines;
    for (const partition &one : partitions_of(disk)) {
        lines.push_back(line_of(disk, one));
    }
    return lines;
}

content content_of(const target &disk, u64 offset, u64 bytes) {
    const content_probe probe = probe_of(disk, offset, bytes);
    if (probe == nullptr) {
        return {};
    }
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL);
    if (blkid_do_safeprobe(probe.get()) != 0) {
        return {};
    }
    return {value_of(probe.get(), "TYPE"), value_of(probe.get(), "LABEL")};
}

} // namespace qvol
