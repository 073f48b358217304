#include "qvol/formatting.h"

#include "core/format.h"
#include "core/geometry.h"
#include "core/short_name.h"
#include "qvol/error.h"
#include "qvol/sectors.h"
#include "qvol/times.h"

#include <algorithm>
#include <array>
#include <charconv>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr std::size_t LABEL_SIZE = core::SHORT_NAME.size;
constexpr const char *NO_NAME = "NO NAME";

std::string in_upper_case(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return static_cast<char>(core::to_upper(static_cast<u8>(c))); });
    return text;
}

bool is_label_character(char c) {
    return c == ' ' || core::is_short_name_character(static_cast<u8>(c));
}

// Why the label is invalid, or "".
std::string label_problem(const std::string &label) {
    const std::string upper = in_upper_case(label);
    if (label.empty()) {
        return "is empty; omit the option for a volume without a label";
    }
    if (label.size() > LABEL_SIZE) {
        return fmt::format("is longer than {} characters", LABEL_SIZE);
    }
    if (!std::all_of(upper.begin(), upper.end(), is_label_character)) {
        return fmt::format("may contain only A to Z, 0 to 9, spaces and {}",
                           core::SHORT_NAME_PUNCTUATION);
    }
    if (label != upper) {
        return fmt::format("must be upper case; use \"{}\"", upper);
    }
    if (label.front() == ' ' || label.back() == ' ') {
        return "begins or ends with a space";
    }
    return label == NO_NAME ? "is reserved for volumes without a label" : "";
}

core::dos_moment present() {
    const dos_time now = dos_time_of(current_time());
    return {now.date, now.time};
}

// The formatter makes a blank label entry, which checkers remark on.
void set_label_entry(const core::volume &on, const std::string &label) {
    std::vector<u8> sector = read_extent(on, on.at.root_start, 1);
    if (label.empty()) {
        std::fill_n(sector.begin(), core::DENTRY_SIZE, u8{0});
    } else {
        const short_name stored = stored_label(label);
        core::store_short_entry(
            sector.data(),
            {.name = stored.data(), .attributes = core::ATTR_VOLUME, .modified = present()});
    }
    write_extent(on, on.at.root_start, sector);
}

// An identity as it is stored: its texts padded, what it leaves open chosen.
class stored_identity {
public:
    explicit stored_identity(const volume_identity &of)
        : volume_id_(of.volume_id.value_or(static_cast<u32>(current_time()))), media_(of.media),
          hidden_sectors_(of.hidden_sectors), label_(stored_label(of.label)) {
        std::copy_n(core::boot_request::OWN_OEM_NAME, oem_name_.size(), oem_name_.begin());
        if (of.oem_name) {
            oem_name_.fill(' ');
            std::copy(of.oem_name->begin(), of.oem_name->end(), oem_name_.begin());
        }
    }

    // Valid as long as this object.
    [[nodiscard]] core::boot_request request(u32 fats, u32 root_entries) const {
        return {.fats = fats,
                .root_entries = root_entries,
                .volume_id = volume_id_,
                .label = label_,
                .oem_name = oem_name_,
                .media = media_,
                .hidden_sectors = hidden_sectors_};
    }

private:
    u32 volume_id_;
    u32 media_;
    u32 hidden_sectors_;
    short_name label_;
    std::array<u8, core::PBR_OEM_NAME.size> oem_name_{};
};

void write_volume(const core::volume &on, const core::boot_request &request) {
    const core::fault why = core::format(on, request, present());
    if (why != core::fault::NONE) {
        throw system_failure("format the volume", why == core::fault::NO_MEMORY ? ENOMEM : EIO);
    }
}

} // namespace

std::string checked_label(const std::string &option, const std::string &text) {
    const std::string problem = label_problem(text);
    if (!problem.empty()) {
        throw usage_error(fmt::format("{} \"{}\": {}", option, shown_bytes(text), problem));
    }
    return text;
}

short_name stored_label(const std::string &label) {
    const std::string text = label.empty() ? NO_NAME : label;
    short_name stored{};
    stored.fill(' ');
    std::copy(text.begin(), text.end(), stored.begin());
    return stored;
}

u32 parse_volume_id(const std::string &option, const std::string &text) {
    std::string digits = text;
    if (digits.size() == 9 && digits[4] == '-') {
        digits.erase(4, 1);
    }
    u32 id = 0;
    const char *end = digits.data() + digits.size();
    const auto [rest, failure] = std::from_chars(digits.data(), end, id, 16);
    if (digits.size() != 8 || failure != std::errc() || rest != end) {
        throw usage_error(
            fmt::format("{} {}: not a number such as 1A2B-3C4D", option, shown_bytes(text)));
    }
    return id;
}

std::string shown_volume_id(u32 id) {
    return fmt::format("{:04X}-{:04X}", id >> 16, id & 0xFFFF);
}

u32 parse_media(const std::string &text) {
    constexpr u32 REMOVABLE = 0xF0;
    const bool has_prefix = text.starts_with("0x") || text.starts_with("0X");
    u32 media = 0;
    const char *end = text.data() + text.size();
    const auto [rest, failure] =
        std::from_chars(text.data() + (has_prefix ? 2 : 0), end, media, 16);
    const bool is_media = media == REMOVABLE || (media >= core::MEDIA_FIXED && media <= 0xFF);
    if (failure != std::errc() || rest != end || !is_media) {
        throw usage_error(
            fmt::format("--media {}: must be 0xF0 or 0xF8 to 0xFF", shown_bytes(text)));
    }
    return media;
}

std::string checked_oem_name(const std::string &text) {
    const bool is_printable =
        std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
    if (text.empty() || text.size() > core::PBR_OEM_NAME.size || !is_printable) {
        throw usage_error(fmt::format("--oem \"{}\": must be 1 to {} printable ASCII characters",
                                      shown_bytes(text), core::PBR_OEM_NAME.size));
    }
    return text;
}

std::vector<u8> boot_sector_of(const core::areas &at, u32 fats, u32 root_entries,
                               const volume_identity &identity) {
    std::vector<u8> sector(at.sector_size);
    const stored_identity stored(identity);
    core::store_boot_sector(sector.data(), at, stored.request(fats, root_entries));
    core::sign_sector_end(sector.data(), at.sector_size);
    return sector;
}

void format_target(const target &where, const volume_shape &shape,
                   const volume_identity &identity) {
    const core::layout_request wanted = layout_request_of(shape);
    const u32 sectors = core::usable_sectors(where.size(), shape.sector_bytes);
    const core::volume_layout layout = core::lay_out(wanted, sectors);
    if (layout.why != core::layout_fault::NONE) {
        throw system_failure("format the volume", EINVAL);
    }
    const core::volume on = {&where.medium(), core::areas_of(wanted, layout, sectors)};
    const stored_identity stored(identity);
    write_volume(on, stored.request(wanted.fats, layout.root_entries(shape.sector_bytes)));
    set_label_entry(on, identity.label);
}

deferred_boot_sector::deferred_boot_sector(target *where, u32 sector_bytes)
    : where_(*where), device_(where->medium()), medium_(device_, sector_bytes, sector_bytes) {
    const std::vector<u8> zeros(core::MAX_SECTOR_SIZE);
    const core::s64 written = device_.write(0, zeros);
    if (written != static_cast<core::s64>(zeros.size())) {
        fail(written);
    }
    where_.sync();
    where_.replace_medium(&medium_);
}

void deferred_boot_sector::fail(core::s64 written) const {
    throw system_failure("write to " + shown_bytes(where_.path()),
                         written < 0 ? static_cast<int>(-written) : EIO);
}

deferred_boot_sector::~deferred_boot_sector() {
    where_.replace_medium(&device_);
}

void deferred_boot_sector::release() {
    where_.replace_medium(&device_);
    const int written = medium_.commit();
    if (written < 0) {
        fail(written);
    }
    where_.sync();
}

} // namespace qvol
