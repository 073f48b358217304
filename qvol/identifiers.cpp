#include "qvol/identifiers.h"

#include <fmt/core.h>
#include <uuid/uuid.h>

namespace qvol {

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

void identifier_source::add(const std::vector<host_node> &nodes) {
    add(u64{nodes.size()});
    for (const host_node &node : nodes) {
        add(json_text(node.name));
        add(static_cast<u64>(node.type));
        add(node.size);
        add(static_cast<u64>(node.modified));
        add(node.target);
        add(node.children);
    }
}

std::string identifier_source::uuid(u32 index) const {
    const std::string name = description_ + std::to_string(index);
    uuid_t id;
    uuid_generate_sha1(id, *uuid_get_template("oid"), name.data(), name.size());
    char text[UUID_STR_LEN];
    uuid_unparse_upper(id, text);
    return text;
}

std::string identifier_source::number(u32 index) const {
    return "0x" + uuid(index).substr(0, 8);
}

} // namespace qvol
