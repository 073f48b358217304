#include "qvol/part_options.h"

#include "qvol/error.h"
#include "qvol/identifiers.h"
#include "qvol/output.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <utility>
#include <vector>

#include <fmt/core.h>

namespace qvol {

namespace {

// The pieces between separators that no backslash precedes.
std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> pieces(1);
    for (std::size_t i = 0; i < text.size(); i++) {
        const bool is_escape = text[i] == '\\' && i + 1 < text.size() &&
                               (text[i + 1] == separator || text[i + 1] == '\\');
        if (is_escape) {
            pieces.back() += text[++i];
        } else if (text[i] == separator) {
            pieces.emplace_back();
        } else {
            pieces.back() += text[i];
        }
    }
    return pieces;
}

// ---- attributes of GPT ------------------------------------------------------------------------

constexpr std::pair<const char *, u32> ATTRIBUTES[] = {
    {"required", 0}, {"no-block-io", 1}, {"legacy-boot", 2}};
constexpr u32 FIRST_OWN_ATTRIBUTE = 48; // bits that the partition type defines
constexpr u32 LAST_ATTRIBUTE = 63;

std::optional<u32> parse_attribute(const std::string &word) {
    const auto *named = std::find_if(std::begin(ATTRIBUTES), std::end(ATTRIBUTES),
                                     [&](const auto &one) { return word == one.first; });
    if (named != std::end(ATTRIBUTES)) {
        return named->second;
    }
    u32 bit = 0;
    const char *end = word.data() + word.size();
    const auto [rest, failure] = std::from_chars(word.data(), end, bit);
    const bool is_bit = failure == std::errc() && rest == end && bit >= FIRST_OWN_ATTRIBUTE &&
                        bit <= LAST_ATTRIBUTE;
    return is_bit ? std::optional(bit) : std::nullopt;
}

u64 parse_attributes(const std::string &value) {
    u64 bits = 0;
    for (const std::string &word : split(value, '+')) {
        const std::optional<u32> bit = parse_attribute(word);
        if (!bit) {
            throw usage_error(fmt::format("attrs={}: must be required, no-block-io, "
                                          "legacy-boot, or 48 to 63, joined by +",
                                          shown_bytes(value)));
        }
        bits |= u64{1} << *bit;
    }
    return bits;
}

std::string checked_uuid(const std::string &value) {
    const std::optional<std::string> uuid = parse_uuid(value);
    if (!uuid) {
        throw usage_error(fmt::format("uuid={}: not a UUID", shown_bytes(value)));
    }
    return *uuid;
}

// ---- keys -------------------------------------------------------------------------------------

struct key {
    const char *name;
    bool is_of_volume; // demands a FAT volume
    void (*set)(part_options *part, const std::string &value);
};

constexpr key KEYS[] = {
    {"name", false, [](part_options *part, const std::string &value) { part->name = value; }},
    {"label", true,
     [](part_options *part, const std::string &value) {
         part->source.identity.label = checked_label("label", value);
     }},
    {"type", false, [](part_options *part, const std::string &value) { part->type = value; }},
    {"size", false, [](part_options *part, const std::string &value) { part->size = value; }},
    {"fat", true, [](part_options *part, const std::string &value) { part->fat_type = value; }},
    {"cluster", true, [](part_options *part, const std::string &value) { part->cluster = value; }},
    {"page", false, [](part_options *part, const std::string &value) { part->page = value; }},
    {"from", true,
     [](part_options *part, const std::string &value) {
         part->source.content.from.push_back(value);
     }},
    {"raw", false, [](part_options *part, const std::string &value) { part->raw = value; }},
    {"attrs", false,
     [](part_options *part, const std::string &value) {
         part->attributes = parse_attributes(value);
     }},
    {"uuid", false,
     [](part_options *part, const std::string &value) { part->uuid = checked_uuid(value); }},
};
constexpr const char *ACTIVE = "active"; // has no value

std::string list_of_keys() {
    std::string list;
    for (const key &one : KEYS) {
        list += fmt::format("{}=, ", one.name);
    }
    return list + ACTIVE;
}

void set_key(part_options *part, const std::string &piece, std::set<std::string> *seen) {
    const std::size_t equals = piece.find('=');
    const std::string name = piece.substr(0, equals);
    const auto *found = std::find_if(std::begin(KEYS), std::end(KEYS),
                                     [&](const key &one) { return name == one.name; });
    if (!seen->insert(name).second && name != "from") {
        throw usage_error(fmt::format("{} is given twice", shown_bytes(name)));
    }
    if (piece == ACTIVE) {
        part->is_active = true;
        return;
    }
    if (found == std::end(KEYS) || equals == std::string::npos) {
        throw usage_error(
            fmt::format("unknown key \"{}\"; the keys are {}", shown_bytes(piece), list_of_keys()));
    }
    if (equals + 1 == piece.size()) {
        throw usage_error(fmt::format("{}= has no value", name));
    }
    found->set(part, piece.substr(equals + 1));
    part->has_volume = part->has_volume || found->is_of_volume;
}

// The library that writes the table has no characters beyond U+FFFF.
bool is_half_character(char16_t unit) {
    return unit >= 0xD800 && unit <= 0xDFFF;
}

void refuse_name(const part_options &part) {
    constexpr std::size_t MAX_UNITS = 36; // of UTF-16
    const std::optional<std::u16string> units = units_of_utf8(part.name);
    if (!units || units->size() > MAX_UNITS ||
        std::any_of(units->begin(), units->end(), is_half_character)) {
        throw usage_error(
            fmt::format("name={}: must be UTF-8 of at most {} characters, none beyond U+FFFF",
                        shown_bytes(part.name), MAX_UNITS));
    }
}

void refuse_contradictions(const part_options &part) {
    refuse_name(part);
    if (part.has_volume && !part.raw.empty()) {
        throw usage_error("raw= excludes from=, fat=, cluster= and label=");
    }
    if (part.size == "auto" && part.raw.empty() && !part.has_volume) {
        throw usage_error("size=auto needs from=, fat= or raw=");
    }
    if (part.size.empty() && part.raw.empty() && part.source.content.from.empty()) {
        throw usage_error("size= is required without from= and raw=");
    }
}

} // namespace

bool part_options::has_number() const {
    return !size.empty() && size != "auto" && size != "rest";
}

part_options parse_part(const std::string &text, u32 number) {
    part_options part;
    part.number = number;
    std::set<std::string> seen;
    in_part(number, [&] {
        for (const std::string &piece : split(text, ',')) {
            set_key(&part, piece, &seen);
        }
        const bool is_booted_from =
            part.type == "esp" || part.type == "boot" || part.type == "xbootldr";
        part.has_volume = part.has_volume || (is_booted_from && part.raw.empty());
        refuse_contradictions(part);
    });
    return part;
}

std::string part_title(u32 number) {
    return fmt::format("part {}", number);
}

void in_part(u32 number, const std::function<void()> &work) {
    const std::string title = part_title(number) + ": ";
    try {
        work();
    } catch (const usage_error &failure) {
        throw usage_error(title + failure.what(), failure.details());
    } catch (const error &failure) {
        throw error(title + failure.what(), failure.details());
    }
}

} // namespace qvol
