#include "qvol/check/lost_index.h"

#include "qvol/check/found_files.h"

namespace qvol {

lost_index::lost_index(const survey &checked) {
    for (const lost_chain &lost : checked.lost) {
        const std::optional<u32> parent = parent_of(checked.on(), lost.head);
        if (parent) {
            directories_[*parent].insert(lost.head);
            parents_.emplace(lost.head, *parent);
        } else {
            files_.emplace(lost.head, lost.count);
        }
    }
}

bool lost_index::has_file(u32 head, u32 count) const {
    const auto found = files_.find(head);
    return found != files_.end() && found->second == count;
}

bool lost_index::take_file(u32 head, u32 count) {
    return has_file(head, count) && files_.erase(head) == 1;
}

std::optional<u32> lost_index::take_only_file(u32 count) {
    if (files_.size() != 1 || files_.begin()->second != count) {
        return std::nullopt;
    }
    const u32 head = files_.begin()->first;
    files_.clear();
    return head;
}

u32 lost_index::take_any(u32 head) {
    const auto found = files_.find(head);
    const u32 count = found != files_.end() ? found->second : 0;
    files_.erase(head);
    return count;
}

bool lost_index::take_directory(u32 head, u32 parent) {
    const auto found = parents_.find(head);
    if (found == parents_.end() || found->second != parent) {
        return false;
    }
    directories_[parent].erase(head);
    parents_.erase(found);
    return true;
}

std::optional<u32> lost_index::take_only_directory(u32 parent) {
    const auto found = directories_.find(parent);
    if (found == directories_.end() || found->second.size() != 1) {
        return std::nullopt;
    }
    const u32 head = *found->second.begin();
    return take_directory(head, parent) ? std::optional(head) : std::nullopt;
}

} // namespace qvol
