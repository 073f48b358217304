#include "qvol/partitions.h"

#include "core/geometry.h"
#include "core/resources.h"
#include "qvol/error.h"
#include "qvol/names.h"
#include "qvol/output.h"
#include "qvol/target.h"
#include "qvol/volume_shape.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include <blkid/blkid.h>
#include <fmt/core.h>
#include <libfdisk/libfdisk.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace qvol {

using core::u8;

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
        (void)fdisk_deassign_device(context, 1); // without a sync of the whole system
        fdisk_unref_context(context);
    }
};
using partitioner = std::unique_ptr<fdisk_context, context_deleter>;

std::string text_or_empty(const char *text) {
    return text != nullptr ? text : "";
}

// Stores that a damaged table was replaced by its backup, for example. The protective MBR of a GPT
// (PMBR) states the size of the disk as well, which does not matter here.
int store_warning(fdisk_context *, fdisk_ask *ask, void *warnings) {
    const int type = fdisk_ask_get_type(ask);
    if (type != FDISK_ASKTYPE_WARN && type != FDISK_ASKTYPE_WARNX) {
        return 0;
    }
    const std::string text = text_or_empty(fdisk_ask_print_get_mesg(ask));
    if (text.find("PMBR") == std::string::npos) {
        static_cast<std::vector<std::string> *>(warnings)->push_back(text);
    }
    return 0;
}

// `fd`: the disk, or a file that replaces it.
partitioner open_partitioner(const target &disk, int fd, u32 sector_bytes, access wanted,
                             std::vector<std::string> *warnings) {
    partitioner context(fdisk_new_context());
    if (context == nullptr) {
        throw std::bad_alloc();
    }
    fdisk_set_ask(context.get(), store_warning, warnings);
    if (!disk.is_device() || fd != disk.descriptor()) {
        fdisk_save_user_sector_size(context.get(), sector_bytes, sector_bytes);
    }
    const int failed = fdisk_assign_device_by_fd(context.get(), fd, disk.file_path().c_str(),
                                                 wanted == access::READ ? 1 : 0);
    if (failed != 0) {
        throw system_failure("access the partitions of " + shown_bytes(disk.file_path()), -failed);
    }
    return context;
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

constexpr unsigned PROTECTIVE_TYPE = 0xEE; // of the partition that an MBR has in place of a GPT

partition described(fdisk_partition *of, u32 sector_bytes) {
    fdisk_parttype *type = fdisk_partition_get_type(of);
    return {static_cast<u32>(fdisk_partition_get_partno(of) + 1),
            type != nullptr ? text_or_empty(fdisk_parttype_get_name(type)) : "",
            text_or_empty(fdisk_partition_get_name(of)),
            u64{fdisk_partition_get_start(of)} * sector_bytes,
            u64{fdisk_partition_get_size(of)} * sector_bytes,
            sector_bytes,
            fdisk_partition_is_container(of) != 0};
}

// Whether its bytes can be counted: any number can be in a damaged table.
bool is_addressable(fdisk_partition *of) {
    constexpr u64 MOST_SECTORS = MAX_VOLUME_BYTES / core::MAX_SECTOR_SIZE;
    return fdisk_partition_has_start(of) != 0 && fdisk_partition_has_size(of) != 0 &&
           fdisk_partition_get_start(of) <= MOST_SECTORS &&
           fdisk_partition_get_size(of) <= MOST_SECTORS - fdisk_partition_get_start(of);
}

bool is_protective(fdisk_partition *of) {
    fdisk_parttype *type = fdisk_partition_get_type(of);
    return type != nullptr && fdisk_parttype_get_code(type) == PROTECTIVE_TYPE;
}

struct table {
    std::vector<partition> partitions; // none without a table
    std::vector<std::string> warnings;
    bool is_gpt;
    bool is_protective = false; // an MBR that states that there is a GPT
};

table read_table(const target &disk, int fd, u32 sector_bytes) {
    table result;
    const partitioner context =
        open_partitioner(disk, fd, sector_bytes, access::READ, &result.warnings);
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
        result.is_protective = result.is_protective || (!result.is_gpt && is_protective(next));
        if (is_addressable(next)) {
            result.partitions.push_back(described(next, sector_bytes));
        }
    }
    return result;
}

// The length of the disk that a GPT header describes, in bytes; 0 if there is no header.
u64 described_bytes(const std::vector<u8> &head, u32 sector_bytes) {
    constexpr u32 LAST_SECTOR = 32; // where the backup of the header is
    const std::string signature = "EFI PART";
    const u8 *header = head.data() + sector_bytes;
    if (!std::equal(signature.begin(), signature.end(), header)) {
        return 0;
    }
    const u64 last = core::load32(header + LAST_SECTOR) |
                     u64{core::load32(header + LAST_SECTOR + sizeof(u32))} << 32;
    return last < MAX_VOLUME_BYTES / sector_bytes ? (last + 1) * sector_bytes : 0;
}

// The library refuses the GPT of a longer disk. Instead of a truncated image it reads a file that
// has the first tables and the length of that disk. No value if the image is not truncated.
std::optional<table> read_table_of_truncated(const target &disk, u32 sector_bytes) {
    constexpr std::size_t HEAD_BYTES = std::size_t{1024} * 1024;
    std::vector<u8> head(HEAD_BYTES);
    const core::s64 count = disk.medium().read(0, head);
    const u64 bytes = described_bytes(head, sector_bytes);
    if (count < 0 || bytes <= disk.size()) {
        return std::nullopt;
    }
    const core::unique_fd copy(memfd_create("disk", MFD_CLOEXEC));
    if (copy.get() < 0 || ftruncate(copy.get(), static_cast<off_t>(bytes)) != 0 ||
        pwrite(copy.get(), head.data(), static_cast<std::size_t>(count), 0) != count) {
        return std::nullopt;
    }
    return read_table(disk, copy.get(), sector_bytes);
}

table read_table(const target &disk, u32 sector_bytes) {
    table found = read_table(disk, disk.descriptor(), sector_bytes);
    return found.is_protective ? read_table_of_truncated(disk, sector_bytes).value_or(found)
                               : found;
}

bool has_known_content(const target &disk, const table &of) {
    return !of.is_protective &&
           std::any_of(of.partitions.begin(), of.partitions.end(), [&](const partition &one) {
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

// A boot sector of a volume can look like an MBR to a library that does not expect one.
bool has_table(const target &disk) {
    const content_probe probe = probe_of(disk, 0, disk.size());
    if (probe == nullptr) {
        return false;
    }
    blkid_probe_enable_superblocks(probe.get(), 0);
    blkid_probe_enable_partitions(probe.get(), 1);
    return blkid_do_safeprobe(probe.get()) == 0 && !value_of(probe.get(), "PTTYPE").empty();
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

// Throws error with the first warning of the library, which is more specific than the number.
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
    fdisk_partition_size_explicit(made.get(), 1); // not rounded to whole MiB
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
        fmt::format("{}#{}: {}, {} at {}", shown_bytes(disk.file_path()), one.number,
                    shown_bytes(one.type), shown_size(one.bytes), shown_size(one.offset));
    if (!contains.file_system.empty()) {
        line += ", " + contains.file_system;
    }
    for (const std::string &name : {one.name, contains.label}) {
        line += name.empty() ? "" : fmt::format(" \"{}\"", shown_bytes(name));
    }
    return line;
}

std::vector<std::string> lines_of(const target &disk, const std::vector<partition> &partitions) {
    std::vector<std::string> lines;
    lines.reserve(partitions.size());
    for (const partition &one : partitions) {
        lines.push_back(line_of(disk, one));
    }
    return lines;
}

} // namespace

std::vector<partition> all_partitions(const target &disk) {
    if (!has_table(disk)) {
        return {};
    }
    const std::string name = shown_bytes(disk.file_path());
    const table found = table_of(disk);
    if (found.is_protective) {
        throw error(fmt::format("cannot read the partitions of {}: neither its GPT nor the backup "
                                "of it is valid",
                                name));
    }
    for (const std::string &warning : found.warnings) {
        report(fmt::format("{}: {}", name, warning));
    }
    return found.partitions;
}

void write_table(const target &disk, const new_table &wanted) {
    std::vector<std::string> warnings;
    const partitioner context =
        open_partitioner(disk, disk.descriptor(), wanted.sector_bytes, access::WRITE, &warnings);
    const bool is_gpt = wanted.kind == table_kind::GPT;
    const disk_request request = {wanted.kind, wanted.sector_bytes, 1, disk.size()};
    // Partitions may begin before the first MiB, which the library would leave free.
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
    const std::string cannot = fmt::format("cannot open {}: ", shown_bytes(disk.path()));
    const std::vector<partition> all = all_partitions(disk);
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&](const partition &one) { return one.number == number; });
    if (all.empty()) {
        throw error(cannot + "no partitions found");
    }
    if (found == all.end()) {
        throw error(cannot + "no such partition", lines_of(disk, all));
    }
    if (found->is_container) {
        throw error(cannot + "an extended partition, which contains others", lines_of(disk, all));
    }
    return *found;
}

bool is_partitioned(const target &disk) {
    return has_table(disk) && !table_of(disk).partitions.empty();
}

std::vector<std::string> partition_lines(const target &disk) {
    return lines_of(disk, all_partitions(disk));
}

u32 content::fat_type() const {
    return file_system != "vfat" ? 0 : version == "FAT12" ? 12 : version == "FAT16" ? 16 : 32;
}

content content_of(const target &disk, u64 offset, u64 bytes) {
    const content_probe probe = probe_of(disk, offset, bytes);
    if (probe == nullptr) {
        return {};
    }
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_VERSION |
                                                       BLKID_SUBLKS_LABEL | BLKID_SUBLKS_UUID);
    if (blkid_do_safeprobe(probe.get()) != 0) {
        return {};
    }
    return {value_of(probe.get(), "TYPE"), value_of(probe.get(), "VERSION"),
            value_of(probe.get(), "LABEL"), value_of(probe.get(), "UUID")};
}

} // namespace qvol
