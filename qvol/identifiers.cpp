#include "qvol/identifiers.h"

#include "qvol/times.h"

#include <fmt/core.h>
#include <uuid/uuid.h>

namespace qvol {

namespace {

std::string text_of(const uuid_t &id) {
    char text[UUID_STR_LEN];
    uuid_unparse_upper(id, text);
    return text;
}

} // namespace

std::optional<std::string> parse_uuid(const std::string &text) {
    uuid_t id;
    const bool is_id = uuid_parse(text.c_str(), id) == 0 && uuid_is_null(id) == 0;
    return is_id ? std::optional(text_of(id)) : std::nullopt;
}

identifier_source::identifier_source(time_t epoch)
    : description_("disk " + std::to_string(epoch) + "\n") {}

void identifier_source::add(u64 number) {
    description_ += std::to_string(number) + "\n";
}

// With its length: two texts are not the same as one that joins them.
void identifier_source::add(const std::string &text) {
    add(u64{text.size()});
    description_ += text;
}

void identifier_source::add(const std::vector<source_node> &nodes) {
    add(u64{nodes.size()});
    for (const source_node &node : nodes) {
        const dos_time stamp = dos_time_of(node.modified);
        add(json_text(node.name));
        add(static_cast<u64>(node.type));
        add(node.size);
        add(stamp.date);
        add(stamp.time);
        add(node.target);
        if (node.attributes) {
            add(u64{*node.attributes});
        }
        add(node.children);
    }
}

std::string identifier_source::uuid(u32 index) const {
    uuid_t id;
    if (is_random()) {
        uuid_generate_random(id);
    } else {
        const std::string name = description_ + std::to_string(index);
        uuid_generate_sha1(id, *uuid_get_template("oid"), name.data(), name.size());
    }
    return text_of(id);
}

std::string identifier_source::number(u32 index) const {
    constexpr std::size_t DIGITS = 8;
    return fmt::format("0x{:08x}", std::stoul(uuid(index).substr(0, DIGITS), nullptr, 16));
}

} // namespace qvol
