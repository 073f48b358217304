#include "qvol/whole_volume.h"

#include "qvol/file_data.h"
#include "qvol/output.h"
#include "qvol/sectors.h"

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr u32 LOG_BYTES = 128 * 1024;
constexpr u32 RESERVED_ATTRIBUTES = core::ATTR_READ_ONLY | core::ATTR_HIDDEN | core::ATTR_SYSTEM;

std::vector<u8> pool_header(const entry &pool) {
    constexpr u32 ALL_ONES = 0xFFFFFFFF;
    std::vector<u8> header(core::POOL_SECOND_MARK.offset + core::POOL_SECOND_MARK.size);
    core::store(header.data(), core::POOL_INDEX, pool.slot);
    core::store(header.data(), core::POOL_FIRST, pool.start());
    core::store(header.data(), core::POOL_SECOND, pool.start());
    core::store(header.data(), core::POOL_ONE, 1);
    core::store(header.data(), core::POOL_FIRST_MARK, ALL_ONES);
    core::store(header.data(), core::POOL_SECOND_MARK, ALL_ONES);
    return header;
}

std::vector<u8> no_header(const entry & /*log*/) {
    return {};
}

error failure(const reserved_file &file, int number) {
    return system_failure(fmt::format("make /{}", file.name), number);
}

// A reserved file in memory: its entry and its clusters, in this order of allocation.
struct planned_reserved_file {
    entry dentry;
    std::vector<u32> clusters;
};

planned_reserved_file plan(volume &vol, directory *root, const reserved_file &file) {
    const std::u16string name = units_of_utf8(file.name).value();
    if (root->find(name) != nullptr) {
        throw failure(file, EEXIST);
    }
    planned_reserved_file planned;
    planned.dentry = root->add({name, kind::FILE, 0, 0, dos_time_of(current_time())});
    planned.clusters = vol.fat().allocate(clusters_for(vol.on(), file.bytes));
    entry &dentry = planned.dentry;
    dentry.set_start(planned.clusters.front());
    dentry.set_size(static_cast<u32>(planned.clusters.size()) * vol.on().cluster_bytes());
    dentry.set_attributes(RESERVED_ATTRIBUTES);
    root->update(dentry);
    return planned;
}

// The same; changes nothing if there is no space.
planned_reserved_file plan_or_refuse(volume &vol, directory *root, const reserved_file &file) {
    try {
        return plan(vol, root, file);
    } catch (const no_space &) {
    } catch (const directory_full &) {
    }
    vol.fat().forget_changes();
    throw failure(file, ENOSPC);
}

void write_header(const volume &vol, const std::vector<u32> &clusters, std::vector<u8> header) {
    header.resize(clusters.size() * vol.on().cluster_bytes());
    data_writer writer(vol.on(), vol.where().allowed_holes() == holes::ZEROS);
    writer.begin(clusters);
    writer.append(header);
    writer.flush();
}

} // namespace

const reserved_file POOL_FILE = {"ZUQ_POOL.SY$", pool_header, 1};
const reserved_file LOG_FILE = {"$ZUQ_LOG.LO$", no_header, LOG_BYTES};

void make_reserved_file(volume &vol, const reserved_file &file) {
    directory root = vol.root();
    const planned_reserved_file planned = plan_or_refuse(vol, &root, file);
    write_header(vol, planned.clusters, file.header(planned.dentry));
    vol.commit_additions({&root});
}

std::string label_of(volume &vol) {
    const directory root = vol.root();
    const entry *label = root.find_label();
    return label != nullptr ? json_text(label->name) : "";
}

u64 used_length(volume &vol) {
    const core::volume &on = vol.on();
    const u32 highest = vol.fat().highest_used();
    const u64 sectors =
        highest == 0 ? on.at.data_start : on.sector_of(highest) + on.at.sectors_per_cluster;
    return sectors * on.at.sector_size;
}

void refuse_truncated(volume &vol) {
    const u64 size = vol.where().size();
    const u64 volume_bytes = u64{vol.on().at.total_sectors} * vol.on().at.sector_size;
    if (vol.where().has_fixed_size() || size >= volume_bytes || size >= used_length(vol)) {
        return;
    }
    throw error(fmt::format(
        "cannot write to {}: the image is truncated: it has {}, its content ends "
        "at {}",
        shown_bytes(vol.where().path()), shown_size(size), shown_size(used_length(vol))));
}

} // namespace qvol
