#include "qvol/check/entry_names.h"

#include "qvol/check/repair.h"

#include <algorithm>
#include <unordered_map>

#include <fmt/core.h>

namespace qvol {

namespace {

// Some systems set this next to the case bits: the short name only serves a long name.
constexpr u32 CASE_NO_SHORT_NAME = 0x20;

bool is_short_name_byte(u8 byte) {
    return byte == ' ' || byte >= 0x80 || core::is_short_name_character(byte);
}

class name_check {
public:
    name_check(survey *checked, u32 directory)
        : checked_(checked), directory_(checked->nodes[directory]) {}

    void run() {
        for (u32 node = directory_.first_child; node < directory_.first_child + directory_.children;
             node++) {
            check_validity(node);
            check_uniqueness(node);
        }
    }

private:
    void add_finding(const finding_kind &kind, u32 node, std::string text) {
        const entry &named = checked_->nodes[node].dentry;
        finding about{&kind, node, named.start(), std::move(text), "renamed"};
        about.is_disputable = true;
        if (!checked_->renames) {
            checked_->add(std::move(about));
            return;
        }
        about.repair = [start = directory_.dentry.start(), slot = named.slot](repair_plan *plan) {
            plan->rename(start, slot);
        };
        checked_->add(std::move(about));
    }

    void check_validity(u32 node) {
        const entry &child = checked_->nodes[node].dentry;
        const std::optional<std::string> short_problem = short_name_problem(child);
        const std::optional<std::string> long_problem =
            child.has_long_name ? name_problem(child.name) : std::nullopt;
        if (short_problem) {
            add_finding(found::NAME, node, "invalid short name: " + *short_problem);
        }
        if (long_problem) {
            add_finding(found::NAME, node, "invalid name: " + *long_problem);
        }
    }

    void check_uniqueness(u32 node) {
        const entry &child = checked_->nodes[node].dentry;
        const auto [named, is_new_name] = names_.try_emplace(fold_case(child.name), node);
        const std::u16string alias = short_name_units(child.alias(), 0);
        const auto [aliased, is_new_alias] = aliases_.try_emplace(alias, node);
        if (!is_new_name) {
            add_finding(found::DUPLICATE_NAME, node, "same name as " + shown(named->second));
        } else if (!is_new_alias) {
            add_finding(found::DUPLICATE_SHORT, node,
                        fmt::format("same short name as {}: {}", shown(aliased->second),
                                    checked_->vol.names().shown(alias)));
        }
    }

    [[nodiscard]] std::string shown(u32 node) const {
        return shown_path(*checked_, node);
    }

    survey *checked_;
    tree_node directory_;
    std::unordered_map<std::u16string, u32> names_; // folded; the first node that has it
    std::unordered_map<std::u16string, u32> aliases_;
};

} // namespace

std::optional<std::string> short_name_problem(const entry &named) {
    const short_name name = named.alias();
    if (name[0] == ' ') {
        return "begins with a space";
    }
    for (std::size_t i = 0; i < name.size(); i++) {
        const bool is_escape = i == 0 && name[i] == core::NAME_ESCAPED_E5;
        if (!is_escape && !is_short_name_byte(name[i])) {
            return fmt::format("contains byte 0x{:02x}", name[i]);
        }
    }
    const u32 case_bits = core::load(named.raw.data(), core::SHORT_SYSID);
    if (!named.has_long_name && (case_bits & CASE_NO_SHORT_NAME) != 0) {
        return fmt::format("case byte 0x{:02x} requires a long name", case_bits);
    }
    return std::nullopt;
}

void check_names(survey *checked, u32 directory) {
    name_check(checked, directory).run();
}

} // namespace qvol
