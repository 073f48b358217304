#include "qvol/check/names.h"

#include <algorithm>
#include <unordered_map>

#include <fmt/core.h>

namespace qvol {

namespace {

// What some systems set beside the case bits: the short name stands for a long one alone.
constexpr u32 CASE_NO_SHORT_NAME = 0x20;
constexpr std::string_view FORBIDDEN_IN_SHORT = "\"*+,./:;<=>?[\\]|";

bool is_short_name_byte(u8 byte) {
    const bool is_lower_case = byte >= 'a' && byte <= 'z';
    return byte >= ' ' && byte != 0x7F && !is_lower_case &&
           FORBIDDEN_IN_SHORT.find(static_cast<char>(byte)) == std::string_view::npos;
}

// Why the entry's 11 bytes are no short name, or nothing.
std::optional<std::string> short_name_problem(const entry &of) {
    const short_name name = of.alias();
    if (name[0] == ' ') {
        return "it begins with a blank";
    }
    for (std::size_t i = 0; i < name.size(); i++) {
        const bool is_escape = i == 0 && name[i] == fat::NAME_ESCAPED_E5;
        if (!is_escape && !is_short_name_byte(name[i])) {
            return fmt::format("it holds the byte 0x{:02x}", name[i]);
        }
    }
    const u32 case_bits = fat::load(of.raw.data(), fat::SHORT_SYSID);
    if (!of.has_long_name && (case_bits & CASE_NO_SHORT_NAME) != 0) {
        return fmt::format("its case byte 0x{:02x} says so", case_bits);
    }
    return std::nullopt;
}

class name_check {
public:
    name_check(survey *in, u32 directory) : in_(in), directory_(in->nodes[directory]) {}

    void run() {
        for (u32 node = directory_.first_child; node < directory_.first_child + directory_.children;
             node++) {
            check_form(node);
            check_other(node);
        }
    }

private:
    void tell(const finding_kind &as, u32 node, std::string text) {
        in_->add({&as, node, in_->nodes[node].of.start(), std::move(text), ""});
    }

    void check_form(u32 node) {
        const entry &of = in_->nodes[node].of;
        const std::optional<std::string> of_short = short_name_problem(of);
        const std::optional<std::string> of_long =
            of.has_long_name ? name_problem(of.name) : std::nullopt;
        if (of_short) {
            tell(found::NAME, node, "the short name is none: " + *of_short);
        }
        if (of_long) {
            tell(found::NAME, node, "the name is none: " + *of_long);
        }
    }

    void check_other(u32 node) {
        const entry &of = in_->nodes[node].of;
        const auto [named, is_new_name] = names_.try_emplace(fold_case(of.name), node);
        const std::u16string alias = short_name_units(of.alias(), 0);
        const auto [aliased, is_new_alias] = aliases_.try_emplace(alias, node);
        if (!is_new_name) {
            tell(found::DUPLICATE_NAME, node, "the same name as " + shown(named->second));
        } else if (!is_new_alias) {
            tell(found::DUPLICATE_SHORT, node,
                 fmt::format("the same short name as {}: {}", shown(aliased->second),
                             in_->vol.names().shown(alias)));
        }
    }

    [[nodiscard]] std::string shown(u32 node) const {
        return shown_path(*in_, node);
    }

    survey *in_;
    tree_node directory_;
    std::unordered_map<std::u16string, u32> names_; // folded; the first node that has it
    std::unordered_map<std::u16string, u32> aliases_;
};

} // namespace

void check_names(survey *in, u32 directory) {
    name_check(in, directory).run();
}

} // namespace qvol
