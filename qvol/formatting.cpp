#include "qvol/formatting.h"

#include "fat/internal.h"
#include "qvol/error.h"
#include "qvol/sectors.h"

#include <algorithm>
#include <cstring>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr std::size_t LABEL_SIZE = core::SHORT_NAME.size;
constexpr const char *NO_NAME = "NO NAME";
constexpr std::string_view LABEL_PUNCTUATION = " $%'-_@~`!(){}^#&";

std::string upper_case(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char c) {
        return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    return text;
}

bool is_label_character(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           LABEL_PUNCTUATION.find(c) != std::string_view::npos;
}

// Why the label is invalid, or "".
std::string label_problem(const std::string &label) {
    const std::string upper = upper_case(label);
    if (label.empty()) {
        return "is empty; omit the option for a volume without a label";
    }
    if (label.size() > LABEL_SIZE) {
        return fmt::format("is longer than {} characters", LABEL_SIZE);
    }
    if (!std::all_of(upper.begin(), upper.end(), is_label_character)) {
        return fmt::format("may contain only A to Z, 0 to 9, spaces and {}",
                           LABEL_PUNCTUATION.substr(1));
    }
    if (label != upper) {
        return fmt::format("must be upper case; use \"{}\"", upper);
    }
    if (label.front() == ' ' || label.back() == ' ') {
        return "begins or ends with a space";
    }
    return label == NO_NAME ? "is reserved for volumes without a label" : "";
}

std::string padded(std::string text) {
    text.resize(LABEL_SIZE, ' ');
    return text;
}

// The formatter makes a blank label entry, which checkers remark on.
void set_label_entry(const std::string &label) {
    std::vector<u8> sector = read_extent(sv->rdir_start, 1);
    if (label.empty()) {
        std::fill_n(sector.begin(), core::DENTRY_SIZE, u8{0});
    } else {
        const std::string text = padded(label);
        (void)fat::set_volume_entry(sector.data(), reinterpret_cast<const u8 *>(text.data()));
    }
    write_extent(sv->rdir_start, sector);
}

// ---- the boot sector of a device ----

std::vector<u8> boot_sector; // its deferred content; empty: not written yet
fat_sector_io read_device = nullptr;
fat_sector_io write_device = nullptr;

int read_with_boot_sector(void *buffer, u64 sector, u32 count) {
    const int moved = read_device(buffer, sector, count);
    if (sector == 0 && moved > 0 && !boot_sector.empty()) {
        std::memcpy(buffer, boot_sector.data(), boot_sector.size());
    }
    return moved;
}

int write_without_boot_sector(void *buffer, u64 sector, u32 count) {
    if (sector != 0 || count == 0) {
        return write_device(buffer, sector, count);
    }
    u8 *bytes = static_cast<u8 *>(buffer);
    boot_sector.assign(bytes, bytes + fat::transfer_unit());
    const int moved = count > 1 ? write_device(bytes + boot_sector.size(), 1, count - 1) : 0;
    return moved < 0 ? moved : moved + 1;
}

} // namespace

std::string checked_label(const std::string &text) {
    const std::string problem = label_problem(text);
    if (!problem.empty()) {
        throw usage_error(fmt::format("--label \"{}\": {}", shown_bytes(text), problem));
    }
    return text;
}

void format_target(const volume_shape &shape, const std::string &label) {
    fat_format_param param = formatter_request(shape);
    const std::string boot_label = padded(label.empty() ? NO_NAME : label);
    std::copy(boot_label.begin(), boot_label.end(), param.volume_label);
    const int formatted = fat_format(&param);
    if (formatted < 0) {
        throw system_failure("format the volume", -formatted);
    }
    set_label_entry(label);
}

deferred_boot_sector::deferred_boot_sector(const target &where) : where_(where) {
    std::vector<u8> zeros(fat::transfer_unit());
    const int written = write_sectors(zeros.data(), 0, 1);
    if (written != 1) {
        throw system_failure("write to " + shown_bytes(where.path()), written < 0 ? -written : EIO);
    }
    where_.sync();
    read_device = read_sectors;
    write_device = write_sectors;
    read_sectors = read_with_boot_sector;
    write_sectors = write_without_boot_sector;
}

deferred_boot_sector::~deferred_boot_sector() {
    read_sectors = read_device;
    write_sectors = write_device;
    boot_sector.clear();
}

void deferred_boot_sector::release() {
    write_sectors = write_device;
    write_extent(0, boot_sector);
    where_.sync();
}

} // namespace qvol
